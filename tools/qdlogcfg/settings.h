// SPDX-License-Identifier: Apache-2.0
// Products, their originators and log sets, and where each setting comes from.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/config_file.h"
#include "keys.h"
#include "zoltlog.h"

using tools::ConfigFile;
using tools::ConfigLine;
using tools::decimal;
using tools::localText;
using tools::readConfigFile;
using tools::registeredProducts;

// An error that ends the command: its exit code and one line for people.
struct CommandError : std::runtime_error {
    CommandError(int code, const std::string &text) : std::runtime_error(text), exitCode(code) {}
    int exitCode;
};

// A record of settings that is released with its owner.
struct Settings {
    Settings() : cfg{} {}
    ~Settings() { zoltLogFreeCfg(&cfg); }
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;

    LogCfg cfg;
};

using Product = tools::RegisteredProduct;

std::string mainConfigPath();
// That a product's file is there and cannot be read, and what comes of it.
std::string unreadableText(const ConfigFile &file);
// CommandError for a file that is there and cannot be read.
void requireReadable(const ConfigFile &file);
// By id or by one of its names; CommandErrors when there is none, and when the main file
// is there and cannot be read.
Product findProduct(const std::string &text);
Product findProduct(const std::string &text, const ConfigFile &mainFile);

// One section of settings: the originator's, or the log set's.
struct Scope {
    Product product;
    bool isLogset;
    uint64_t originator; // 112 for the Default section
    std::string logset;  // "Default" for the base of all log sets

    std::string section() const;
    std::string baseSection() const;
    bool isBase() const { return section() == baseSection(); }
    std::string title() const; // "originator 7", "log set backup", "Default"
};

// The file is the product's in what follows.

// originator: an id, a name or "Default"; at most one of the two may be given,
// none means the Default section.
Scope findScope(const Product &product, const ConfigFile &file, const std::string &originator,
                const std::string &logset);
// Every originator (Default first), then every log set (Default first when it has keys).
std::vector<Scope> allScopes(const Product &product, const ConfigFile &file);

// The lines of a section that count, and what the library makes of each.
struct KeyLine {
    const ConfigLine *line = nullptr; // null: the key is absent
    bool isText = true;               // false: it cannot be converted and counts as absent
    CfgTaken taken = CFG_SKIPPED;
};
using SectionKeys = std::array<KeyLine, CFG_KEY_COUNT>;
// Reads a section over a record, as the library does.
SectionKeys applySection(LogCfg &cfg, const ConfigFile &file, const std::string &section, bool isLogset);
// False when the library would not find the scope's settings.
bool readSettings(const Scope &scope, const ConfigFile &file, Settings &settings);

struct Skipped { // a value that the library ignores
    std::string value;
    std::string section;
    size_t line;
};

struct Effective {
    CfgKeyId key;
    std::string value;
    enum From { BUILT_IN, BASE_SECTION, OWN_SECTION } from;
    size_t line; // in the product's file; 0 when built in
    std::vector<Skipped> skipped;
};

// Every setting of a scope with its source.
std::vector<Effective> effectiveSettings(const Scope &scope, const ConfigFile &file);
std::string sourceText(const Effective &setting, const Scope &scope);
