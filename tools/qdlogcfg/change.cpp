// qdlogcfg get | set | unset
//
// A change is checked by the library's own accessor and then written as exactly one
// key through the property store: the record writers would also touch
// "AppMsgLogging" and would set or remove more than was asked for.
#include <cstring>

#include "commands.h"
#include "common/exit_codes.h"
#include "common/result_text.h"

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
    const CfgKey &key = requireKey(argument.substr(0, equals), scope);
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
    CfgSectionState state = {true, 0};
    if (cfgTake(&scratch.cfg, idOf(key), value.c_str(), &state) != CFG_EXACTLY)
        throw CommandError(tools::EXIT_USAGE, std::string(key.name) + ": '" + value +
                                                  "' is not allowed; it takes " + key.values);
    return {&key, shown(scratch.cfg, idOf(key))};
}

namespace {

// An open section that is closed with its owner.
struct Section {
    Section(const Scope &scope, const std::string &name) : store{} {
        const uint32_t result = CreatePropertyString(scope.product.location.c_str(), name.c_str(), &store);
        if (result != ZOLTLOG_OK)
            throw CommandError(tools::EXIT_UNREADABLE,
                               scope.product.location + " cannot be opened: " + tools::resultMessage(result));
    }
    ~Section() { utiClosePropertyStore(&store); }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;

    PropertyStore store;
};

std::string place(const Scope &scope) {
    return "section " + scope.section() + " of " + scope.product.location;
}

} // namespace

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
    std::vector<Change> changes; // all are checked before the first is written
    for (const std::string &argument : options.arguments)
        changes.push_back(checkedChange(argument, scope));
    requireReadable(file);
    const std::string verb = options.dryRun ? "would set " : "set ";
    if (options.dryRun) {
        for (const Change &change : changes)
            out.write(verb + change.key->name + "=" + tools::escaped(change.value) + " in " + place(scope) +
                      "\n");
        return tools::EXIT_OK;
    }
    Section section(scope, scope.section());
    for (const Change &change : changes) {
        const uint32_t result =
            utipsres2zoltlogres(utiSetPropertyAsStr(&section.store, change.key->name, change.value.c_str()));
        if (result != ZOLTLOG_OK)
            throw CommandError(tools::EXIT_UNREADABLE, std::string(change.key->name) +
                                                           " was not written to " + scope.product.location +
                                                           ": " + tools::resultMessage(result));
        out.write(verb + change.key->name + "=" + tools::escaped(change.value) + " in " + place(scope) +
                  "\n");
    }
    return tools::EXIT_OK;
}

int unsetSettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    const Scope scope = findScope(product, file, options.originator, options.logset);
    requireReadable(file);
    std::vector<std::string> present; // also what is no setting: it should not stand there
    for (const std::string &name : options.arguments) {
        if (file.find(scope.section(), name) != nullptr)
            present.push_back(name);
        else
            out.write(std::string(requireKey(name, scope).name) + " is not set in " + place(scope) + "\n");
    }
    for (const std::string &name : present) {
        if (options.dryRun) {
            out.write("would remove " + tools::escaped(name) + " from " + place(scope) + "\n");
            continue;
        }
        Section section(scope, scope.section());
        const uint32_t result = utipsres2zoltlogres(utiRemoveProperty(&section.store, name.c_str()));
        if (result != ZOLTLOG_OK)
            throw CommandError(tools::EXIT_UNREADABLE, name + " was not removed from " +
                                                           scope.product.location + ": " +
                                                           tools::resultMessage(result));
        out.write("removed " + tools::escaped(name) + " from " + place(scope) + "\n");
    }
    return present.empty() ? tools::EXIT_NOTHING : tools::EXIT_OK;
}
