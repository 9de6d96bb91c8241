// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <set>

#include "common/configurations.h"
#include "common/exit_codes.h"
#include "common/result_text.h"

namespace {

constexpr char LOGSET_PREFIX[] = "LOGSET.";

bool isLogsetSection(std::string_view section) {
    return section.substr(0, sizeof LOGSET_PREFIX - 1) == LOGSET_PREFIX;
}

bool namesHold(const std::string &names, const std::string &name) {
    const std::vector<std::string> list = tools::namesOf(names.c_str());
    return std::find(list.begin(), list.end(), name) != list.end();
}

} // namespace

std::string mainConfigPath() {
    return GetZoltLogCfgLoc();
}

std::string unreadableText(const ConfigFile &file) {
    return file.path + " cannot be read (" + std::strerror(file.cause) + "): opening gives " +
           tools::resultMessage(ZOLTLOG_CFG_NOT_FOUND);
}

void requireReadable(const ConfigFile &file) {
    if (file.exists && !file.readable)
        throw CommandError(tools::EXIT_UNREADABLE,
                           file.path + " cannot be read: " + std::strerror(file.cause));
}

Product findProduct(const std::string &text) {
    return findProduct(text, readConfigFile(mainConfigPath()));
}

Product findProduct(const std::string &text, const ConfigFile &mainFile) {
    requireReadable(mainFile);
    const std::vector<Product> products = registeredProducts(mainFile);
    const std::optional<uint64_t> id = decimal(text);
    for (const Product &product : products)
        if (id ? product.id == *id : namesHold(product.names, text))
            return product;
    throw CommandError(tools::EXIT_UNREADABLE, "no product '" + text + "' is registered in " +
                                                   mainConfigPath() +
                                                   (products.empty() ? " (it registers none)" : ""));
}

std::string Scope::section() const {
    if (isLogset)
        return LOGSET_PREFIX + logset;
    return IsDefaultOriginator(originator) != 0 ? "Default" : std::to_string(originator);
}

std::string Scope::baseSection() const {
    return isLogset ? std::string(LOGSET_PREFIX) + "Default" : "Default";
}

std::string Scope::title() const {
    if (isLogset)
        return "log set " + logset;
    return IsDefaultOriginator(originator) != 0 ? "Default" : "originator " + std::to_string(originator);
}

Scope findScope(const Product &product, const ConfigFile &file, const std::string &originator,
                const std::string &logset) {
    if (!originator.empty() && !logset.empty())
        throw CommandError(tools::EXIT_USAGE, "give an originator or a log set, not both");
    if (!logset.empty()) {
        if (logset.find_first_of(".=\n") != std::string::npos)
            throw CommandError(tools::EXIT_USAGE, "a log set's name holds no '.', no '=' and no line feed");
        if (product.location.find(".conf") == std::string::npos)
            throw CommandError(tools::EXIT_UNREADABLE,
                               product.location + " holds no \".conf\" in its path: its log sets are not "
                                                  "settings of this file");
        return {product, true, 0, logset};
    }
    if (originator.empty() || originator == "Default")
        return {product, false, ZOLTLOG_DEFAULT_ORIGINATOR, ""};
    if (const std::optional<uint64_t> id = decimal(originator)) {
        if (isOrigIdValid(*id) == 0)
            throw CommandError(tools::EXIT_USAGE, "0 is no originator id");
        return {product, false, *id, ""};
    }
    for (const Scope &scope : allScopes(product, file)) {
        Settings settings;
        if (!scope.isLogset && readSettings(scope, file, settings) &&
            namesHold(settings.cfg.originatorNames, originator))
            return scope;
    }
    throw CommandError(tools::EXIT_UNREADABLE,
                       "product " + std::to_string(product.id) + " has no originator '" + originator + "'");
}

std::vector<Scope> allScopes(const Product &product, const ConfigFile &file) {
    std::vector<Scope> scopes;
    scopes.push_back({product, false, ZOLTLOG_DEFAULT_ORIGINATOR, ""});
    std::vector<Scope> logsets;
    std::set<uint64_t> known = {ZOLTLOG_DEFAULT_ORIGINATOR};
    for (const std::string_view section : file.sections) {
        if (isLogsetSection(section)) {
            const Scope scope{product, true, 0, std::string(section.substr(sizeof LOGSET_PREFIX - 1))};
            logsets.insert(scope.isBase() ? logsets.begin() : logsets.end(), scope);
        } else if (const std::optional<uint64_t> id = decimal(section)) {
            if (*id != 0 && known.insert(*id).second)
                scopes.push_back({product, false, *id, ""});
        }
    }
    scopes.insert(scopes.end(), logsets.begin(), logsets.end());
    return scopes;
}

SectionKeys applySection(LogCfg &cfg, const ConfigFile &file, const std::string &section, bool isLogset) {
    SectionKeys keys;
    const auto found = file.linesOfSection.find(section);
    if (found != file.linesOfSection.end()) {
        for (const size_t position : found->second) {
            const ConfigLine &line = file.lines[position];
            const CfgKey *key = findKey(line.name);
            if (key != nullptr && line.hasValue && isReadIn(*key, isLogset) &&
                keys[idOf(*key)].line == nullptr)
                keys[idOf(*key)].line = &line;
        }
    }
    const std::string name = isLogset ? section.substr(sizeof LOGSET_PREFIX - 1) : "";
    CfgSectionState state = {isLogset ? IsDefaultLogSet(name.c_str()) != 0 : section == CFG_DEFAULT, 0, true};
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        KeyLine &key = keys[id];
        if (key.line == nullptr)
            continue;
        std::string text(key.line->value);
        key.isText = cfgIsRaw(CFG_KEYS[id].kind) || localText(key.line->value, text);
        if (key.isText)
            key.taken = cfgTake(&cfg, id, text.c_str(), &state);
        if (key.taken == CFG_NO_MEMORY)
            throw std::bad_alloc();
    }
    if (isLogset) {
        const auto replace = [&name](char *&field) {
            zoltLogFree(field);
            field = zoltLogSafeStrdup(name.c_str());
        };
        const KeyLine &fileName = keys[CFG_KEY_FILE_NAME];
        cfg.isLogset = 1;
        replace(cfg.logsetName);
        if (fileName.line == nullptr || !fileName.isText || cfg.logsetFilename == nullptr)
            replace(cfg.logsetFilename);
    }
    return keys;
}

namespace {

bool hasKey(const SectionKeys &keys) {
    return std::any_of(keys.begin(), keys.end(),
                       [](const KeyLine &key) { return key.line != nullptr && key.isText; });
}

// The sections of a scope in the order of reading, the base first, each with what it gives;
// none when the library would not find the settings.
std::vector<SectionKeys> readSections(const Scope &scope, const ConfigFile &file, Settings &settings) {
    zoltLogFreeCfg(&settings.cfg);
    InitLogCfg(scope.product.id, scope.isLogset ? 0 : scope.originator,
               scope.isLogset ? scope.logset.c_str() : nullptr, &settings.cfg);
    std::vector<SectionKeys> sections = {
        applySection(settings.cfg, file, scope.baseSection(), scope.isLogset)};
    if (!scope.isBase())
        sections.push_back(applySection(settings.cfg, file, scope.section(), scope.isLogset));
    const bool isElsewhere = scope.product.location.find(CFG_FILE_MARK) == std::string::npos;
    if (scope.isLogset && (isElsewhere || !hasKey(sections.back())))
        sections.clear();
    return sections;
}

} // namespace

bool readSettings(const Scope &scope, const ConfigFile &file, Settings &settings) {
    return !readSections(scope, file, settings).empty();
}

std::vector<Effective> effectiveSettings(const Scope &scope, const ConfigFile &file) {
    Settings settings;
    const std::vector<SectionKeys> sections = readSections(scope, file, settings);
    if (sections.empty())
        throw CommandError(tools::EXIT_UNREADABLE, scope.title() + " of product " +
                                                       std::to_string(scope.product.id) +
                                                       " has no settings in " + file.path);
    std::vector<Effective> result;
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        if (!isReadIn(CFG_KEYS[id], scope.isLogset))
            continue;
        Effective setting{id, shown(settings.cfg, id), Effective::BUILT_IN, 0, {}};
        for (size_t at = 0; at < sections.size(); ++at) {
            const KeyLine &key = sections[at][id];
            const bool isOwn = at + 1 == sections.size();
            if (key.line == nullptr || (id == CFG_KEY_FILE_NAME && !isOwn))
                continue;
            if (key.taken >= CFG_LOOSELY) {
                setting.from = at == 0 ? Effective::BASE_SECTION : Effective::OWN_SECTION;
                setting.line = key.line->number;
            } else {
                setting.skipped.push_back({std::string(key.line->value),
                                           at == 0 ? scope.baseSection() : scope.section(),
                                           key.line->number});
            }
        }
        result.push_back(std::move(setting));
    }
    return result;
}

std::string sourceText(const Effective &setting, const Scope &scope) {
    if (setting.from == Effective::BUILT_IN)
        return setting.key == CFG_KEY_FILE_NAME && !setting.value.empty() ? "the log set's name"
                                                                          : "built-in default";
    const std::string section =
        setting.from == Effective::BASE_SECTION ? scope.baseSection() : scope.section();
    return "section " + section + ", " + scope.product.location + ":" + std::to_string(setting.line);
}
