// SPDX-License-Identifier: Apache-2.0
// qdlogcfg list | show
#include "commands.h"
#include "common/exit_codes.h"

using tools::Json;
using tools::Output;

int listScopes(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    requireReadable(file);
    Json json;
    json.beginArray();
    tools::Table table{{{"SECTION"}, {"NAMES"}, {"DIRECTORY"}, {"FILES"}}, {}, true};
    for (const Scope &scope : allScopes(product, file)) {
        Settings settings;
        if (!readSettings(scope, file, settings))
            continue;
        const std::string files =
            scope.isLogset ? settings.cfg.logsetFilename : std::to_string(scope.originator);
        json.beginObject();
        json.text("kind", scope.isLogset ? "logset" : "originator");
        if (scope.isLogset)
            json.text("logset", scope.logset);
        else
            json.number("originator", scope.originator);
        json.text("names", settings.cfg.originatorNames);
        json.text("directory", settings.cfg.directory);
        if (scope.isLogset)
            json.text("file_name", files);
        json.endObject();
        table.rows.push_back({scope.title(), settings.cfg.originatorNames, settings.cfg.directory,
                              std::to_string(product.id) + "-" + files + "-*.log"});
    }
    json.endArray();
    if (options.json)
        writeJson(out, json);
    else
        tools::printTable(out, table, options.color);
    return tools::EXIT_OK;
}

namespace {

// What a section holds and the library reads, in the form of the file.
void exportSection(const Scope &scope, const ConfigFile &file, Output &out) {
    Settings settings;
    InitLogCfg(scope.product.id, scope.originator, nullptr, &settings.cfg);
    const SectionKeys keys = applySection(settings.cfg, file, scope.section(), scope.isLogset);
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        if (keys[id].taken < CFG_LOOSELY)
            continue;
        const CfgKind kind = CFG_KEYS[id].kind;
        const bool isOwnText =
            kind == CFG_DIRECTORY || kind == CFG_NAMES || kind == CFG_TEXT || kind == CFG_IDENT;
        out.write(scope.section() + "." + CFG_KEYS[id].name + "=" +
                  (isOwnText ? tools::strippedValue(*keys[id].line) : shown(settings.cfg, id)) + "\n");
    }
}

std::string useNote(CfgKeyId key) {
    return (CFG_KEYS[key].use & CFG_UNUSED) != 0 ? std::string("; ") + CFG_UNUSED_NOTE : "";
}

} // namespace

int showSettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    requireReadable(file);
    if (options.exported) {
        if (!options.originator.empty() || !options.logset.empty()) {
            exportSection(findScope(product, file, options.originator, options.logset), file, out);
            return tools::EXIT_OK;
        }
        for (const Scope &scope : allScopes(product, file))
            exportSection(scope, file, out);
        return tools::EXIT_OK;
    }
    const Scope scope = findScope(product, file, options.originator, options.logset);
    const std::vector<Effective> settings = effectiveSettings(scope, file);
    if (options.json) {
        Json json;
        json.beginArray();
        for (const Effective &setting : settings) {
            json.beginObject();
            json.text("key", CFG_KEYS[setting.key].name);
            json.text("value", setting.value);
            json.text("from", setting.from == Effective::BUILT_IN       ? "built-in"
                              : setting.from == Effective::BASE_SECTION ? scope.baseSection()
                                                                        : scope.section());
            if (setting.from != Effective::BUILT_IN) {
                json.text("file", scope.product.location);
                json.number("line", setting.line);
            }
            if ((CFG_KEYS[setting.key].use & CFG_UNUSED) != 0)
                json.flag("used", false);
            json.key("skipped");
            json.beginArray();
            for (const Skipped &skipped : setting.skipped) {
                json.beginObject();
                json.text("value", skipped.value);
                json.text("section", skipped.section);
                json.number("line", skipped.line);
                json.endObject();
            }
            json.endArray();
            json.endObject();
        }
        json.endArray();
        writeJson(out, json);
        return tools::EXIT_OK;
    }
    out.write("product " + std::to_string(scope.product.id) + ", " + scope.title() + "\n");
    tools::Table table{{{"KEY"}, {"VALUE"}, {"FROM"}}, {}, true};
    for (const Effective &setting : settings) {
        const bool builtIn = setting.from == Effective::BUILT_IN;
        table.rows.push_back({{CFG_KEYS[setting.key].name},
                              {setting.value, builtIn ? tools::Style::Dim : tools::Style::Plain},
                              {sourceText(setting, scope) + useNote(setting.key),
                               builtIn ? tools::Style::Dim : tools::Style::Plain}});
        for (const Skipped &skipped : setting.skipped)
            table.rows.push_back({{""},
                                  {"skipped: " + skipped.value, tools::Style::Yellow},
                                  {"section " + skipped.section + ", " + scope.product.location + ":" +
                                       std::to_string(skipped.line),
                                   tools::Style::Yellow}});
    }
    tools::printTable(out, table, options.color);
    return tools::EXIT_OK;
}
