#include "configfile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "zoltlog.h"

namespace {

constexpr size_t LINE_BYTES = 499;  // are read at a time
constexpr size_t VALUE_BYTES = 399; // of a value are used

ConfigLine parseLine(std::string text, size_t number, bool continued) {
    ConfigLine line{};
    line.number = number;
    line.continued = continued;
    line.comment = Iscomment(text.c_str()) == 1;
    line.blank = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) != 0; });
    const size_t equals = text.find('=');
    line.hasEquals = equals != std::string::npos;
    if (!line.comment && line.hasEquals) {
        const std::string key = text.substr(0, equals);
        size_t dot = key.find('.');
        if (dot != std::string::npos && key.compare(0, dot, "LOGSET") == 0) {
            const size_t second = key.find('.', dot + 1);
            if (second != std::string::npos)
                dot = second;
        }
        if (dot != std::string::npos) {
            line.section = key.substr(0, dot);
            line.name = key.substr(dot + 1);
        } else {
            line.name = key;
        }
        const size_t end = text.find('=', equals + 1);
        line.valueHasEquals = end != std::string::npos;
        line.value = text.substr(equals + 1, line.valueHasEquals ? end - equals - 1 : std::string::npos);
        line.value.resize(std::min(line.value.size(), VALUE_BYTES));
    }
    line.text = std::move(text);
    return line;
}

// The next line as the library cuts it; false at the end of the file.
bool nextLine(FILE *stream, std::string &text) {
    text.clear();
    int c = 0;
    while (text.size() < LINE_BYTES && c != '\n' && (c = std::getc(stream)) != EOF)
        text += static_cast<char>(c);
    return !text.empty();
}

} // namespace

const ConfigLine *ConfigFile::find(const std::string &section, const std::string &name) const {
    const auto found = firstOfKey.find({section, name});
    return found != firstOfKey.end() ? &lines[found->second] : nullptr;
}

std::vector<std::string> ConfigFile::sections() const {
    std::vector<std::string> result;
    for (const auto &[section, positions] : linesOfSection)
        result.push_back(section);
    std::sort(result.begin(), result.end(), [this](const std::string &a, const std::string &b) {
        return linesOfSection.at(a).front() < linesOfSection.at(b).front();
    });
    return result;
}

ConfigFile readConfigFile(const std::string &path) {
    ConfigFile file{};
    file.path = path;
    struct stat status;
    file.exists = stat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
    PropertyStore store;
    if (utiOpenPropertyStore(path.c_str(), "", &store) != 0)
        return file;
    file.readable = true;
    size_t number = 1;
    bool continued = false;
    std::string text;
    while (nextLine(store.stream, text)) {
        const bool complete = text.back() == '\n';
        if (complete)
            text.pop_back();
        const size_t nul = text.find('\0');
        ConfigLine line = parseLine(text.substr(0, nul), number, continued);
        line.hasNul = nul != std::string::npos;
        if (!line.section.empty()) {
            file.linesOfSection[line.section].push_back(file.lines.size());
            file.firstOfKey.try_emplace({line.section, line.name}, file.lines.size());
        }
        file.lines.push_back(std::move(line));
        continued = !complete;
        if (complete)
            ++number;
    }
    file.unfinished = continued;
    utiClosePropertyStore(&store);
    return file;
}

std::string strippedValue(const ConfigLine &line) {
    const size_t last = line.value.find_last_not_of(' ');
    return last == std::string::npos ? "" : line.value.substr(0, last + 1);
}
