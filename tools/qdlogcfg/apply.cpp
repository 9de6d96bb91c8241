// SPDX-License-Identifier: Apache-2.0
// qdlogcfg apply: many settings at once, all or none, in one rewrite of the product's file.
// What is applied has the form of the file itself, which is what "show --export" prints.
#include "commands.h"
#include "common/exit_codes.h"
#include "edit.h"

using tools::Output;

namespace {

Scope scopeOf(const Product &product, const ConfigFile &file, const std::string &section) {
    constexpr std::string_view LOGSET = "LOGSET.";
    if (section.rfind(LOGSET, 0) == 0)
        return findScope(product, file, "", section.substr(LOGSET.size()));
    const std::optional<uint64_t> id = decimal(section);
    if (section != CFG_DEFAULT && (!id || std::to_string(*id) != section || IsDefaultOriginator(*id) != 0))
        throw CommandError(tools::EXIT_USAGE,
                           "'" + section + "' is no section: Default, an originator's id or LOGSET.NAME");
    return findScope(product, file, section, "");
}

void addSetting(Edits &edits, const Product &product, const ConfigFile &file, const ConfigLine &line) {
    if (line.continued || line.hasNul || !line.hasValue || line.section.empty() || line.valueHasEquals)
        throw CommandError(tools::EXIT_USAGE, "not of the form SECTION.KEY=VALUE");
    const std::string section(line.section);
    const Scope scope = scopeOf(product, file, section);
    const std::string name(line.name);
    std::string value;
    if (!localText(line.value, value))
        throw CommandError(tools::EXIT_USAGE, "the value has no meaning in the encoding of the locale");
    const Change change = checkedChange(name + "=" + value, scope);
    if (!edits.put(section, name, change.utf8))
        throw CommandError(tools::EXIT_USAGE, section + "." + name + " is given twice");
}

Edits readSettingsToApply(const Options &options, const Product &product, const ConfigFile &file) {
    const ConfigFile input = readConfigFile(options.arguments.front());
    requireReadable(input);
    if (!input.exists)
        throw CommandError(tools::EXIT_UNREADABLE, input.path + " does not exist");
    Edits edits;
    for (const ConfigLine &line : input.lines) {
        if (line.comment || line.blank)
            continue;
        try {
            addSetting(edits, product, file, line);
        } catch (const CommandError &error) {
            throw CommandError(error.exitCode,
                               input.path + ":" + std::to_string(line.number) + ": " + error.what());
        }
    }
    return edits;
}

} // namespace

int applySettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    requireReadable(file);
    const Edits edits = readSettingsToApply(options, product, file);
    if (options.dryRun) {
        const Edited now = edited(file.bytes != nullptr ? *file.bytes : "", file.exists, edits);
        for (const std::string &line : now.difference)
            out.write(line.substr(0, 1) + tools::escaped(line.substr(1, line.size() - 2)) + "\n");
    }
    const std::string notes = requireGood(product, file, edits);
    if (options.dryRun) {
        out.write(notes);
        requireWritable(product.location);
        return tools::EXIT_OK;
    }
    const size_t changed = rewriteFile(product.location, file.exists, edits);
    out.write("applied " + std::to_string(edits.count) + " setting(s) to " + product.location + ", " +
              std::to_string(changed) + " changed\n" + notes);
    return tools::EXIT_OK;
}
