#include "configfile.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "zoltlog.h"

namespace {

constexpr int LINE_BUFFER = 500;    // the library reads 499 characters at a time
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

} // namespace

const ConfigLine *ConfigFile::find(const std::string &section, const std::string &name) const {
    for (const ConfigLine &line : lines)
        if (line.section == section && line.name == name && !line.comment)
            return &line;
    return nullptr;
}

std::vector<std::string> ConfigFile::sections() const {
    std::vector<std::string> result;
    for (const ConfigLine &line : lines)
        if (!line.section.empty() && std::find(result.begin(), result.end(), line.section) == result.end())
            result.push_back(line.section);
    return result;
}

ConfigFile readConfigFile(const std::string &path) {
    ConfigFile file{path, false, {}};
    PropertyStore store;
    if (utiOpenPropertyStore(path.c_str(), "", &store) != 0)
        return file;
    file.readable = true;
    char buffer[LINE_BUFFER];
    size_t number = 1;
    bool continued = false;
    while (std::fgets(buffer, sizeof buffer, store.stream) != nullptr) {
        std::string text = buffer;
        const bool complete = !text.empty() && text.back() == '\n';
        if (complete)
            text.pop_back();
        file.lines.push_back(parseLine(std::move(text), number, continued));
        continued = !complete;
        if (complete)
            ++number;
    }
    utiClosePropertyStore(&store);
    return file;
}
