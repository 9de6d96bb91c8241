// SPDX-License-Identifier: Apache-2.0
// qdlogcfg get | set | unset
//
// A value is checked by the library's own functions, and the file as it would be by what
// "check" looks for. Exactly the keys that were asked for are written: the record writers would
// also touch "AppMsgLogging".
#include <algorithm>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "commands.h"
#include "common/exit_codes.h"
#include "edit.h"
#include "findings.h"

using tools::Json;
using tools::Output;

namespace {

const CfgKey &requireKey(const std::string &name, const Scope &scope) {
    const CfgKey *key = findKey(name);
    if (key == nullptr) {
        const std::string near = nearestKey(name);
        throw CommandError(tools::EXIT_USAGE, "there is no setting '" + name + "'" +
                                                  (near.empty() ? "" : "; did you mean " + near + "?"));
    }
    if (!isReadIn(*key, scope.isLogset))
        throw CommandError(tools::EXIT_USAGE, std::string(key->name) + " is no setting of " +
                                                  (scope.isLogset ? "a log set" : "an originator"));
    return *key;
}

// A text of the command line as it will stand in the file; CommandError when it has no
// meaning in the locale.
std::string asUtf8(const std::string &text) {
    char *utf8 = nullptr;
    const uint32_t result = mbs2utf8(&utf8, text.c_str());
    const std::string converted = result == ZOLTLOG_OK ? utf8 : "";
    zoltLogFree(utf8);
    if (result != ZOLTLOG_OK)
        throw CommandError(tools::EXIT_USAGE, "'" + text + "' is no text in the encoding of the locale");
    return converted;
}

} // namespace

Change checkedChange(const std::string &argument, const Scope &scope) {
    const size_t equals = argument.find('=');
    if (equals == std::string::npos)
        throw CommandError(tools::EXIT_USAGE, "'" + argument + "' is not of the form KEY=VALUE");
    const std::string name = argument.substr(0, equals);
    const CfgKey &key = requireKey(name, scope);
    const std::string value = argument.substr(equals + 1);
    constexpr size_t VALUE_LIMIT = 399; // what the library uses of a value
    const std::string utf8 = asUtf8(value);
    const std::string line = asUtf8(scope.section()) + "." + key.name + "=" + utf8;
    constexpr size_t LINE_LIMIT = 498; // without the line feed
    if (value.find_first_of("=\n") != std::string::npos || utf8.size() > VALUE_LIMIT ||
        line.size() > LINE_LIMIT)
        throw CommandError(tools::EXIT_USAGE,
                           std::string(key.name) + ": a value with '=', with a line feed or longer than " +
                               std::to_string(VALUE_LIMIT) + " bytes could not be read back");
    if (!value.empty() && value.back() == ' ')
        throw CommandError(tools::EXIT_USAGE, std::string(key.name) + ": blanks at the end would be lost");
    if (key.name == std::string("FileName") && value.find_first_of("-/") != std::string::npos)
        throw CommandError(tools::EXIT_USAGE, "FileName: '-' and '/' would make the files' names unreadable");
    if (key.name == std::string("FileName") && value.find_first_not_of("0123456789") == std::string::npos)
        throw CommandError(tools::EXIT_USAGE,
                           "FileName: the files of '" + value + "' would be taken for an originator's");
    if (key.name == std::string("LogDirectory") && scope.isBase() && !value.empty() && value[0] != '/')
        throw CommandError(tools::EXIT_USAGE,
                           "LogDirectory: a relative path in " + scope.section() +
                               " would depend on where each program runs; give an absolute one");
    Settings scratch;
    InitLogCfg(scope.product.id, scope.isLogset ? 0 : scope.originator,
               scope.isLogset ? scope.logset.c_str() : nullptr, &scratch.cfg);
    CfgSectionState state = {true, 0, true};
    if (cfgTake(&scratch.cfg, idOf(key), value.c_str(), &state) != CFG_EXACTLY)
        throw CommandError(tools::EXIT_USAGE, std::string(key.name) + ": '" + value +
                                                  "' is not allowed; it takes " + key.values);
    const std::string written = shown(scratch.cfg, idOf(key));
    return {&key, written, asUtf8(written)};
}

namespace {

std::string place(const Scope &scope) {
    return "section " + scope.section() + " of " + scope.product.location;
}

} // namespace

void requireWritable(const std::string &path) {
    const std::string why = whyNotWritable(path);
    if (!why.empty())
        throw CommandError(tools::EXIT_UNREADABLE, path + " could not be changed: " + why);
}

namespace {

// A finding without the numbers of lines, which a change moves.
std::string withoutLines(const std::string &text) {
    constexpr std::string_view LINE = "line ";
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const size_t found = std::min(text.find(LINE, at), text.size());
        const size_t number = std::min(found + LINE.size(), text.size());
        result.append(text, at, number - at);
        at = std::min(text.find_first_not_of("0123456789", number), text.size());
    }
    return result;
}

} // namespace

std::string requireGood(const Product &product, const ConfigFile &file, const Edits &edits) {
    Findings before;
    Findings after;
    ConfigFile now{};
    now.path = file.path;
    tools::parseConfig(now,
                       std::make_shared<const std::string>(
                           edited(file.bytes != nullptr ? *file.bytes : "", file.exists, edits).content));
    if (file.readable)
        checkProduct(product, file, before);
    checkProduct(product, now, after);
    std::unordered_map<std::string, int> known;
    for (const Finding &finding : before.list)
        ++known[withoutLines(finding.text)];
    std::string notes;
    for (const Finding &finding : after.list) {
        if (known[withoutLines(finding.text)]-- > 0)
            continue;
        if (finding.severity == Severity::ERROR)
            throw CommandError(tools::EXIT_USAGE, "nothing was changed: " + finding.text);
        notes += "note: " + tools::escaped(finding.text) + "\n";
    }
    return notes;
}

int getSettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    const Scope scope = findScope(product, file, options.originator, options.logset);
    requireReadable(file);
    const std::vector<Effective> settings = effectiveSettings(scope, file);
    Json json;
    json.beginObject();
    for (const std::string &name : options.arguments) {
        const CfgKey &key = requireKey(name, scope);
        for (const Effective &setting : settings) {
            if (setting.key != idOf(key))
                continue;
            json.text(key.name, setting.value);
            if (!options.json)
                out.write(tools::escaped(setting.value) + "\n");
        }
    }
    json.endObject();
    if (options.json)
        writeJson(out, json);
    return tools::EXIT_OK;
}

int setSettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    const Scope scope = findScope(product, file, options.originator, options.logset);
    Edits edits;
    std::string told;
    for (const std::string &argument : options.arguments) {
        const Change change = checkedChange(argument, scope);
        if (!edits.put(asUtf8(scope.section()), change.key->name, change.utf8))
            throw CommandError(tools::EXIT_USAGE, std::string(change.key->name) + " is given twice");
        told += (options.dryRun ? "would set " : "set ") + std::string(change.key->name) + "=" +
                tools::escaped(change.value) + " in " + place(scope) + "\n";
    }
    requireReadable(file);
    const std::string notes = requireGood(product, file, edits);
    if (!options.dryRun)
        rewriteFile(product.location, file.exists, edits);
    out.write(told + notes);
    if (options.dryRun)
        requireWritable(product.location);
    return tools::EXIT_OK;
}

int unsetSettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    const Scope scope = findScope(product, file, options.originator, options.logset);
    requireReadable(file);
    Edits edits;
    std::string told;
    for (const std::string &name : options.arguments) {
        if (file.find(scope.section(), name) == nullptr) { // else it is removed, also what is no setting
            told += std::string(requireKey(name, scope).name) + " is not set in " + place(scope) + "\n";
            continue;
        }
        edits.remove(scope.section(), name);
        told += (options.dryRun ? "would remove " : "removed ") + tools::escaped(name) + " from " +
                place(scope) + "\n";
    }
    if (!options.dryRun && edits.count != 0)
        rewriteFile(product.location, file.exists, edits);
    out.write(told);
    if (options.dryRun && edits.count != 0)
        requireWritable(product.location);
    return edits.count == 0 ? tools::EXIT_NOTHING : tools::EXIT_OK;
}
