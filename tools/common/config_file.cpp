// SPDX-License-Identifier: Apache-2.0
#include "common/config_file.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "src/config_keys.h"
#include "zoltlog.h"

namespace tools {

namespace {

constexpr size_t LINE_BYTES = 499;  // are read at a time
constexpr size_t VALUE_BYTES = 399; // of a value are used
constexpr std::string_view LOGSET = "LOGSET";

bool isComment(std::string_view text) {
    const size_t first = text.find_first_not_of(' ');
    return first != std::string_view::npos && text[first] == '#';
}

// Cut between characters.
std::string_view usedValue(std::string_view value) {
    if (value.size() <= VALUE_BYTES)
        return value;
    size_t size = VALUE_BYTES;
    while (size > 0 && (static_cast<unsigned char>(value[size]) & 0xC0U) == 0x80)
        --size;
    return value.substr(0, size);
}

void splitProperty(ConfigLine &line) {
    const size_t equals = line.text.find('=');
    line.hasEquals = equals != std::string_view::npos;
    if (line.comment || !line.hasEquals)
        return;
    const std::string_view key = line.text.substr(0, equals);
    size_t dot = key.find('.');
    if (dot != std::string_view::npos && key.substr(0, dot) == LOGSET) {
        const size_t second = key.find('.', dot + 1);
        if (second != std::string_view::npos)
            dot = second;
    }
    if (dot != std::string_view::npos) {
        line.section = key.substr(0, dot);
        line.name = key.substr(dot + 1);
    } else {
        line.name = key;
    }
    const size_t end = line.text.find('=', equals + 1);
    line.valueHasEquals = end != std::string_view::npos;
    line.value =
        usedValue(line.text.substr(equals + 1, line.valueHasEquals ? end - equals - 1 : std::string::npos));
}

ConfigLine parseLine(std::string_view text, size_t number, bool continued) {
    ConfigLine line{};
    line.raw = text;
    const bool complete = text.back() == '\n';
    if (complete)
        text.remove_suffix(1);
    const size_t nul = text.find('\0');
    line.number = number;
    line.continued = continued;
    line.hasNul = nul != std::string_view::npos;
    line.text = text.substr(0, nul);
    line.comment = isComment(line.text);
    line.blank =
        std::all_of(line.text.begin(), line.text.end(), [](unsigned char c) { return std::isspace(c) != 0; });
    splitProperty(line);
    const bool isWhole = complete && !line.hasNul;
    line.hasValue = line.hasEquals && (isWhole || line.text.back() != '=' || line.valueHasEquals);
    return line;
}

bool readAll(FILE *stream, std::string &bytes) {
    char buffer[65536];
    size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, stream)) > 0)
        bytes.append(buffer, count);
    return std::ferror(stream) == 0;
}

} // namespace

const ConfigLine *ConfigFile::find(std::string_view section, std::string_view name) const {
    const auto found = linesOfSection.find(section);
    if (found == linesOfSection.end())
        return nullptr;
    for (const size_t position : found->second)
        if (lines[position].name == name && lines[position].hasValue)
            return &lines[position];
    return nullptr;
}

ConfigFile readConfigFile(const std::string &path) {
    ConfigFile file{};
    file.path = path;
    struct stat status;
    file.exists = stat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
    PropertyStore store;
    errno = 0;
    const bool opened = utiOpenPropertyStore(path.c_str(), "", &store) == 0;
    auto bytes = std::make_shared<std::string>();
    file.readable = opened && readAll(store.stream, *bytes);
    file.cause = errno;
    if (opened)
        utiClosePropertyStore(&store);
    if (!file.readable)
        return file;
    parseConfig(file, bytes);
    return file;
}

void parseConfig(ConfigFile &file, std::shared_ptr<const std::string> bytes) {
    file.bytes = std::move(bytes);
    const std::string_view all = *file.bytes;
    size_t number = 1;
    bool continued = false;
    for (size_t at = 0; at < all.size();) {
        const std::string_view most = all.substr(at, LINE_BYTES);
        const size_t feed = most.find('\n');
        const std::string_view text = most.substr(0, feed == std::string_view::npos ? feed : feed + 1);
        at += text.size();
        const ConfigLine line = parseLine(text, number, continued);
        if (!line.section.empty()) {
            std::vector<size_t> &positions = file.linesOfSection[line.section];
            if (positions.empty())
                file.sections.push_back(line.section);
            positions.push_back(file.lines.size());
        }
        file.lines.push_back(line);
        continued = feed == std::string_view::npos;
        number += continued ? 0 : 1;
    }
}

bool localText(std::string_view value, std::string &text) {
    text = value;
    const bool plain = std::all_of(value.begin(), value.end(), [](char c) { return (c & 0x80) == 0; });
    if (!plain) {
        char *local = nullptr;
        if (utf82mbs(&local, text.c_str()) != ZOLTLOG_OK)
            return false;
        text = local;
        zoltLogFree(local);
    }
    const size_t last = text.find_last_not_of(' ');
    text.erase(last == std::string::npos ? 0 : last + 1);
    return true;
}

std::string strippedValue(const ConfigLine &line) {
    const size_t last = line.value.find_last_not_of(' ');
    return std::string(line.value.substr(0, last == std::string_view::npos ? 0 : last + 1));
}

// ---- the main file -------------------------------------------------------------------------

std::optional<uint64_t> decimal(std::string_view text) {
    uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end)
        return std::nullopt;
    return number;
}

namespace {

// A text of the main file; nothing when it is absent or cannot be converted.
std::optional<std::string> mainText(const ConfigFile &file, std::string_view section, const char *key) {
    const ConfigLine *line = file.find(section, key);
    std::string text;
    if (line == nullptr || !localText(line->value, text))
        return std::nullopt;
    return text;
}

} // namespace

std::vector<RegisteredProduct> registeredProducts(const ConfigFile &mainFile) {
    std::vector<RegisteredProduct> products;
    for (const std::string_view section : mainFile.sections) {
        const std::optional<uint64_t> id = decimal(section);
        if (!id || *id == 0 || std::to_string(*id) != section)
            continue;
        const std::optional<std::string> location = mainText(mainFile, section, CFG_CONFIGURATION);
        if (location)
            products.push_back({*id, mainText(mainFile, section, CFG_PRODUCT_NAMES).value_or(""), *location,
                                mainFile.find(section, CFG_CONFIGURATION)->number});
    }
    return products;
}

} // namespace tools
