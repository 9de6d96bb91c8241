// qdlogcfg apply: many settings at once, all or none, in one rewrite of the product's file.
// What is applied has the form of the file itself, which is what "show --export" prints.
#include <unordered_map>

#include "commands.h"
#include "common/exit_codes.h"

using tools::Output;

namespace {

struct Setting {
    std::string name;
    std::string line; // as it will stand in the file
    bool isPut = false;
};

// The settings of one section in the order in which they were given.
struct SectionSettings {
    std::string section;
    std::vector<Setting> settings;
    bool isPast = false; // the first run of its lines, which is the one that changes are made in
};

struct Applied {
    std::vector<SectionSettings> sections;
    std::unordered_map<std::string, size_t> position;
    size_t count = 0;

    SectionSettings &of(const std::string &section) {
        const auto [found, isNew] = position.try_emplace(section, sections.size());
        if (isNew)
            sections.push_back({section, {}, false});
        return sections[found->second];
    }
};

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

void addSetting(Applied &applied, const Product &product, const ConfigFile &file, const ConfigLine &line) {
    if (line.continued || line.hasNul || !line.hasValue || line.section.empty() || line.valueHasEquals)
        throw CommandError(tools::EXIT_USAGE, "not of the form SECTION.KEY=VALUE");
    const std::string section(line.section);
    const Scope scope = scopeOf(product, file, section);
    const std::string name(line.name);
    std::string value;
    if (!localText(line.value, value))
        throw CommandError(tools::EXIT_USAGE, "the value has no meaning in the encoding of the locale");
    const Change change = checkedChange(name + "=" + value, scope);
    SectionSettings &settings = applied.of(section);
    for (const Setting &other : settings.settings)
        if (other.name == name)
            throw CommandError(tools::EXIT_USAGE, section + "." + name + " is given twice");
    char *utf8 = nullptr;
    if (mbs2utf8(&utf8, change.value.c_str()) != ZOLTLOG_OK)
        throw CommandError(tools::EXIT_USAGE, "the value cannot be written");
    settings.settings.push_back({name, section + "." + name + "=" + utf8 + "\n"});
    zoltLogFree(utf8);
    ++applied.count;
}

Applied readSettingsToApply(const Options &options, const Product &product, const ConfigFile &file) {
    const ConfigFile input = readConfigFile(options.arguments.front());
    requireReadable(input);
    if (!input.exists)
        throw CommandError(tools::EXIT_UNREADABLE, input.path + " does not exist");
    Applied applied;
    for (const ConfigLine &line : input.lines) {
        if (line.comment || line.blank)
            continue;
        try {
            addSetting(applied, product, file, line);
        } catch (const CommandError &error) {
            throw CommandError(error.exitCode,
                               input.path + ":" + std::to_string(line.number) + ": " + error.what());
        }
    }
    return applied;
}

// ---- the new content --------------------------------------------------------------------

struct Merge {
    std::string content;
    std::vector<std::string> difference; // lines with "-" or "+" before them
};

void putRest(Merge &merge, SectionSettings &settings) {
    settings.isPast = true;
    for (Setting &setting : settings.settings) {
        if (setting.isPut)
            continue;
        if (!merge.content.empty() && merge.content.back() != '\n')
            merge.content += '\n';
        merge.content += setting.line;
        merge.difference.push_back("+" + setting.line);
        setting.isPut = true;
    }
}

void putLine(Merge &merge, SectionSettings *settings, const ConfigLine &line) {
    if (settings != nullptr && !settings->isPast) {
        for (Setting &setting : settings->settings) {
            if (setting.name != line.name || setting.isPut)
                continue;
            setting.isPut = true;
            if (line.raw != setting.line) {
                merge.difference.push_back("-" + std::string(line.text) + "\n");
                merge.difference.push_back("+" + setting.line);
            }
            merge.content += setting.line;
            return;
        }
    }
    merge.content += line.raw;
}

// As one change after the other would leave the file: a key is replaced in the first run of
// its section's lines, or joins it; a new section goes to the end.
Merge merged(const std::string &bytes, Applied applied) {
    ConfigFile file{};
    parseConfig(file, std::make_shared<const std::string>(bytes));
    for (SectionSettings &settings : applied.sections)
        for (Setting &setting : settings.settings) {
            const ConfigLine *line = file.find(settings.section, setting.name);
            setting.isPut = line != nullptr && line->raw == setting.line; // it holds already
        }
    Merge merge;
    SectionSettings *current = nullptr;
    std::string_view section;
    for (const ConfigLine &line : file.lines) {
        if (line.section != section) {
            if (current != nullptr && !current->isPast)
                putRest(merge, *current);
            section = line.section;
            const auto found = applied.position.find(std::string(section));
            current = found != applied.position.end() ? &applied.sections[found->second] : nullptr;
        }
        putLine(merge, current, line);
    }
    if (current != nullptr && !current->isPast)
        putRest(merge, *current);
    for (SectionSettings &settings : applied.sections)
        putRest(merge, settings);
    return merge;
}

} // namespace

int applySettings(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    const ConfigFile file = readConfigFile(product.location);
    requireReadable(file);
    const Applied applied = readSettingsToApply(options, product, file);
    if (options.dryRun) {
        for (const std::string &line : merged(file.bytes != nullptr ? *file.bytes : "", applied).difference)
            out.write(line.substr(0, 1) + tools::escaped(line.substr(1, line.size() - 2)) + "\n");
        return tools::EXIT_OK;
    }
    if (!file.exists) {
        PropertyStore store;
        if (CreatePropertyString(product.location.c_str(), "", &store) != ZOLTLOG_OK)
            throw CommandError(tools::EXIT_UNREADABLE, product.location + " cannot be made");
        utiClosePropertyStore(&store);
    }
    size_t changed = 0;
    rewriteFile(product.location, [&applied, &changed](const std::string &bytes) {
        Merge merge = merged(bytes, applied);
        changed = 0;
        for (const std::string &line : merge.difference)
            changed += line[0] == '+' ? 1 : 0;
        return std::move(merge.content);
    });
    out.write("applied " + std::to_string(applied.count) + " setting(s) to " + product.location + ", " +
              std::to_string(changed) + " changed\n");
    return tools::EXIT_OK;
}
