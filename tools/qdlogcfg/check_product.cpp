// SPDX-License-Identifier: Apache-2.0
// What check looks for in a product's file.
//
// Order of sections: lines of a file; sections of a product; directories and series.
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

#include "commands.h"
#include "common/configurations.h"
#include "common/utf8.h"
#include "findings.h"

namespace {

constexpr size_t VALUE_LIMIT = 399;
constexpr size_t LISTED_LIMIT = 80; // of a section name that an enumeration gives
constexpr size_t FILE_NAME_LIMIT = 255;
constexpr size_t FILE_NAME_REST = sizeof "--4294967295-991231-4294967295.log" - 1; // besides product and base

// ---- lines of a file ---------------------------------------------------------------

} // namespace

void checkLines(const ConfigFile &file, Findings &findings) {
    std::unordered_map<std::string_view, size_t> seen; // by section and name, as they stand there
    std::unordered_map<std::string_view, size_t> firstRun;
    std::string_view current;
    std::unordered_set<std::string_view> told;
    for (const ConfigLine &line : file.lines) {
        if (line.continued) {
            findings.error(file.path, line.number,
                           "the line is longer than 498 bytes; its rest is read as a line of its own");
            continue;
        }
        if (line.hasNul)
            findings.error(file.path, line.number, "a NUL byte: the rest of the line is not read");
        if (tools::findInvalidUtf8(line.text) != std::string::npos)
            findings.error(file.path, line.number, "the line is not UTF-8; a text in it reads as if absent");
        if (line.comment || line.blank)
            continue;
        const size_t mark = line.text.find_first_not_of(" \t");
        if (line.text[mark] == '#') {
            findings.warn(file.path, line.number,
                          "a tab before '#': the library does not take this line for a comment");
            continue;
        }
        if (!line.hasEquals) {
            findings.error(file.path, line.number, "neither a comment nor KEY=VALUE: " + inQuotes(line.text));
            continue;
        }
        if (line.section.empty()) {
            findings.error(file.path, line.number,
                           "the key " + inQuotes(line.name) + " belongs to no section (SECTION.KEY=VALUE)");
            continue;
        }
        if (line.valueHasEquals)
            findings.error(file.path, line.number,
                           "the value ends at its first '=': it is read as " + inQuotes(line.value));
        const size_t equals = line.text.find('=');
        if (!line.valueHasEquals && line.text.size() - equals - 1 > VALUE_LIMIT)
            findings.error(file.path, line.number, "the value is longer than 399 bytes and is cut");
        if (line.text.back() == '\r')
            findings.error(file.path, line.number,
                           "the line ends in a carriage return, which becomes part of the value");

        const auto [earlier, isNew] = seen.try_emplace(line.text.substr(0, equals), line.number);
        if (!isNew)
            findings.error(file.path, line.number,
                           inQuotes(line.text.substr(0, equals)) + " is given again; only line " +
                               std::to_string(earlier->second) + " counts");
        if (line.section != current) {
            const auto [run, first] = firstRun.try_emplace(line.section, line.number);
            if (!first && told.insert(line.section).second)
                findings.warn(
                    file.path, line.number,
                    "section " + inQuotes(line.section) + " began in line " + std::to_string(run->second) +
                        " already: keep its lines together, changes are made in the first run only");
            current = line.section;
        }
    }
}

namespace {

// ---- sections of a product ---------------------------------------------------------

// What the library accepts but a person would not expect, besides another value.
void checkMeaning(const ConfigFile &file, const ConfigLine &line, CfgKeyId id, const LogCfg &cfg,
                  Findings &findings) {
    const std::string name = CFG_KEYS[id].name;
    if (id == CFG_KEY_RELOAD && cfg.reloadInterval > 0 && cfg.reloadInterval < 60)
        findings.warn(file.path, line.number, name + ": intervals below 60 seconds count as 60");
    if (id == CFG_KEY_FILE_NAME && line.value.find_first_of("-/") != std::string_view::npos)
        findings.error(file.path, line.number, name + ": '-' and '/' make the files' names unreadable");
    if ((id == CFG_KEY_DIRECTORY || id == CFG_KEY_L10N_DIR) && line.value.substr(0, 1) == " ")
        findings.error(file.path, line.number, name + ": the blanks before the path are part of it");
    constexpr uint32_t OWNERS = 0600;
    if (id == CFG_KEY_PERMISSIONS && (cfg.permissions.mode & OWNERS) != OWNERS)
        findings.error(file.path, line.number,
                       name + ": " + inQuotes(line.value) +
                           " keeps the files' owner from reading or writing them");
}

// A value of which the library makes nothing, or something else than it says.
void checkValue(const ConfigFile &file, const KeyLine &key, CfgKeyId id, const LogCfg &cfg,
                Findings &findings) {
    const std::string value = CFG_KEYS[id].name + (": " + inQuotes(key.line->value));
    const std::string takes = std::string("; it takes ") + CFG_KEYS[id].values;
    if (key.taken == CFG_SKIPPED)
        findings.error(file.path, key.line->number, value + " is skipped silently" + takes);
    else if (key.taken == CFG_LOOSELY)
        findings.error(file.path, key.line->number,
                       value + " is read as " + inQuotes(shown(cfg, id)) + takes);
}

void checkSection(const ConfigFile &file, const std::string &section, bool isLogset, Findings &findings) {
    Settings settings;
    InitLogCfg(1, isLogset ? 0 : 1, nullptr, &settings.cfg);
    const SectionKeys keys = applySection(settings.cfg, file, section, isLogset);
    std::unordered_set<std::string_view> seen;
    for (const size_t position : file.linesOfSection.at(section)) {
        const ConfigLine &line = file.lines[position];
        if (line.continued || !seen.insert(line.name).second)
            continue;
        const CfgKey *key = findKey(line.name);
        if (key == nullptr) {
            const std::string near = nearestKey(line.name);
            if (isLogset && line.name.find('.') != std::string_view::npos)
                findings.error(file.path, line.number,
                               "the key " + inQuotes(line.name) + " of section " + inQuotes(section) +
                                   " holds a '.': log sets with a '.' in their name cannot be changed");
            else
                findings.warn(file.path, line.number,
                              "unknown key " + inQuotes(line.name) + " in section " + inQuotes(section) +
                                  (near.empty() ? "" : "; did you mean " + near + "?"));
            continue;
        }
        const CfgKeyId id = idOf(*key);
        if (!isReadIn(*key, isLogset)) {
            findings.warn(file.path, line.number,
                          std::string(key->name) + " is not read in section " + inQuotes(section));
        } else if (keys[id].line == &line) {
            checkValue(file, keys[id], id, settings.cfg, findings);
            checkMeaning(file, line, id, settings.cfg, findings);
        }
    }
}

// A name is looked for among originators, and the first one is taken.
void checkNames(const ConfigFile &file, const std::string &section,
                std::unordered_map<std::string, std::string> &names, Findings &findings) {
    const ConfigLine *line = file.find(section, CFG_KEYS[CFG_KEY_NAMES].name);
    if (line == nullptr)
        return;
    for (const std::string &name : tools::namesOf(std::string(line->value).c_str())) {
        const auto [owner, isFirst] = names.try_emplace(name, section);
        if (!isFirst && owner->second != section)
            findings.warn(file.path, line->number,
                          "originators " + owner->second + " and " + section + " are both named " +
                              inQuotes(name));
    }
}

void checkSections(const ConfigFile &file, Findings &findings) {
    std::map<uint64_t, std::string> originators;
    std::unordered_map<std::string, std::string> names;
    for (const std::string_view view : file.sections) {
        const std::string section(view);
        const bool isLogset = section.rfind("LOGSET", 0) == 0;
        const ConfigLine &first = file.lines[file.linesOfSection.at(section).front()];
        if (isLogset && section.find('.') == std::string::npos) {
            findings.error(file.path, first.number, "a log set section is LOGSET.NAME.KEY=VALUE");
            continue;
        }
        if (isLogset && section.size() > sizeof "LOGSET." - 1 + LISTED_LIMIT)
            findings.error(file.path, first.number,
                           "a log set name of more than " + std::to_string(LISTED_LIMIT) +
                               " bytes is not found when log sets are listed");
        if (isLogset && section.find('-') != std::string::npos && file.find(section, "FileName") == nullptr)
            findings.error(file.path, first.number,
                           "a log set name with '-' makes the names of its files unreadable: set FileName");
        if (!isLogset && section != "Default") {
            const std::optional<uint64_t> id = decimal(section);
            if (!id || *id == 0) {
                findings.error(file.path, first.number,
                               "section " + inQuotes(section) +
                                   " is no originator id, not Default and no log set: it is never used");
                continue;
            }
            if (IsDefaultOriginator(*id) != 0) {
                findings.error(file.path, first.number,
                               "section " + inQuotes(section) + " is never read: this originator is Default");
                continue;
            }
            const auto [other, isNew] = originators.try_emplace(*id, section);
            if (!isNew)
                findings.error(file.path, first.number,
                               "sections " + inQuotes(other->second) + " and " + inQuotes(section) +
                                   " name the same originator; only one is used");
            if (std::to_string(*id) != section)
                findings.error(file.path, first.number,
                               "section " + inQuotes(section) + " is never found: the library looks for " +
                                   inQuotes(std::to_string(*id)));
        }
        if (!isLogset)
            checkNames(file, section, names, findings);
        checkSection(file, section, isLogset, findings);
    }
}

// ---- directories and series --------------------------------------------------------

void checkDirectory(const ConfigFile &file, size_t line, const std::string &who, const std::string &directory,
                    Findings &findings) {
    struct stat status;
    const std::string plain = directory.size() > 1 ? directory.substr(0, directory.size() - 1) : directory;
    if (stat(plain.c_str(), &status) == 0) { // without its "/", so that a file is seen
        if (!S_ISDIR(status.st_mode))
            findings.error(file.path, line, who + ": " + directory + " is no directory");
        else if (access(directory.c_str(), R_OK | X_OK) != 0)
            findings.warn(file.path, line, who + ": " + directory + " cannot be read by this user");
        else if (access(directory.c_str(), W_OK) != 0)
            findings.warn(file.path, line, who + ": " + directory + " cannot be written by this user");
        return;
    }
    const std::string parent = nearestExisting(directory);
    if (parent.empty() || access(parent.c_str(), W_OK | X_OK) != 0)
        findings.warn(file.path, line,
                      who + ": " + directory + " does not exist and cannot be made by this user");
}

// A directory by one spelling, links resolved as far as it exists.
std::string realDirectory(const std::string &directory) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(directory, error);
    std::string text = error ? directory : real.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

// The line that gives a series the base of its file names.
size_t lineOfBase(const ConfigFile &file, const Scope &scope) {
    const ConfigLine *line = file.find(scope.section(), scope.isLogset ? "FileName" : "LogDirectory");
    if (line != nullptr)
        return line->number;
    const auto section = file.linesOfSection.find(scope.section());
    return section != file.linesOfSection.end() ? file.lines[section->second.front()].number : 0;
}

// That two products write one series cannot be: the names of its files begin with the product.
void checkSeries(const Product &product, const ConfigFile &file, Findings &findings) {
    std::unordered_map<std::string, std::string> series;
    std::unordered_map<std::string, std::string> realDirectories;
    std::set<std::string> directoriesTold;
    for (const Scope &scope : allScopes(product, file)) {
        Settings settings;
        if (!readSettings(scope, file, settings))
            continue;
        const LogCfg &cfg = settings.cfg;
        const std::string who = "product " + std::to_string(product.id) + ", " + scope.title();
        const auto lineOf = [&](const char *key) {
            const ConfigLine *line = file.find(scope.section(), key);
            if (line == nullptr)
                line = file.find(scope.baseSection(), key);
            return line != nullptr ? line->number : 0;
        };
        const std::string directory = cfg.directory;
        if (directory.empty())
            findings.miss(file.path, 0, who + ": no LogDirectory is set; opening a log gives result 53");
        else if (directory[0] != '/')
            findings.error(file.path, lineOf("LogDirectory"),
                           who + ": the relative directory " + directory +
                               " depends on where each program runs");
        else if (directoriesTold.insert(directory).second)
            checkDirectory(file, lineOf("LogDirectory"), who, directory, findings);

        const std::string base = scope.isLogset ? cfg.logsetFilename : std::to_string(scope.originator);
        const auto [real, isUnknown] = realDirectories.try_emplace(directory);
        if (isUnknown)
            real->second = realDirectory(directory);
        const std::string files = real->second + "/" + std::to_string(product.id) + "-" + base;
        if (std::to_string(product.id).size() + base.size() + FILE_NAME_REST > FILE_NAME_LIMIT)
            findings.error(file.path, lineOfBase(file, scope),
                           who + ": the names of its files would be longer than 255 bytes");
        const auto [other, isNew] = series.try_emplace(files, who);
        if (!isNew && !directory.empty())
            findings.error(file.path, lineOfBase(file, scope),
                           who + " and " + other->second + " write one series: " + files + "-*.log");
        if (scope.isLogset && !base.empty() && base.find_first_not_of("0123456789") == std::string::npos)
            findings.error(file.path, lineOfBase(file, scope),
                           who + ": the file name " + inQuotes(base) +
                               " is a number: its files are taken for those of originator " + base);
        const bool recycles = cfg.logRecycling == 1;
        if (recycles && cfg.numberOfLogFiles == ZOLTLOG_KEEP_ALL_FILES)
            findings.warn(file.path, lineOf("LogRecycle"),
                          who + ": LogRecycle removes nothing without NumberOfLogFiles");
        if (recycles && cfg.rolloverMode == ZOLTLOG_ROLLOVER_NONE)
            findings.warn(file.path, lineOf("LogRecycle"),
                          who + ": LogRecycle does nothing without a RolloverMode");
    }
}

} // namespace

void checkProduct(const Product &product, const ConfigFile &file, Findings &findings) {
    checkLines(file, findings);
    checkSections(file, findings);
    checkSeries(product, file, findings);
}
