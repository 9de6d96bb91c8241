// SPDX-License-Identifier: Apache-2.0
// A configuration file as the library sees it, read once: its lines, each with its
// section, key and value. Texts are views of the file's bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tools {

struct ConfigLine {
    size_t number;            // of the file's line that this begins in, from 1
    std::string_view raw;     // as it stands in the file, with its line feed
    std::string_view text;    // without its line feed, up to a NUL byte
    std::string_view section; // "Default", "7", "LOGSET.name"; empty when there is none
    std::string_view name;    // key without its section
    std::string_view value;   // as the library reads it: up to the next '='
    bool hasNul;              // the library reads no further than that byte
    bool comment;             // first character other than spaces is '#'
    bool blank;               // nothing but white space
    bool continued;           // the rest of a line longer than the library reads at once
    bool hasEquals;
    bool valueHasEquals; // the value goes on after another '='
    bool hasValue;       // nothing at all behind '=' at the very end of a file is no value
};

struct ConfigFile {
    std::string path;
    bool exists;   // also when it cannot be read
    bool readable; // the library can read it
    int cause;     // errno of what cannot be read
    std::shared_ptr<const std::string> bytes;
    std::vector<ConfigLine> lines;
    std::vector<std::string_view> sections; // in order of appearance, each once
    std::unordered_map<std::string_view, std::vector<size_t>> linesOfSection; // by position

    // The line that a lookup finds: the first one of that section and key.
    const ConfigLine *find(std::string_view section, std::string_view name) const;
};

ConfigFile readConfigFile(const std::string &path);
// The lines of what was read.
void parseConfig(ConfigFile &file, std::shared_ptr<const std::string> bytes);
// A value as the library takes texts: in the encoding of the locale, without spaces at its
// end. False when it cannot be converted, and then counts as absent.
bool localText(std::string_view value, std::string &text);
std::string strippedValue(const ConfigLine &line);

struct RegisteredProduct {
    uint64_t id;
    std::string names;    // as registered
    std::string location; // of the product's configuration file
    size_t line;          // of "Configuration" in the main file
};
// The products that the main file registers, in its order.
std::vector<RegisteredProduct> registeredProducts(const ConfigFile &mainFile);

// The whole text as a decimal number.
std::optional<uint64_t> decimal(std::string_view text);

} // namespace tools
