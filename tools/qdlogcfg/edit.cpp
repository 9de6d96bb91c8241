// SPDX-License-Identifier: Apache-2.0
#include "edit.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "src/utiPropertyStoreFile.h"

Edits::Section &Edits::of(const std::string &section) {
    const auto [found, isNew] = position.try_emplace(section, sections.size());
    if (isNew)
        sections.push_back({section, {}});
    return sections[found->second];
}

bool Edits::put(const std::string &section, const std::string &name, const std::string &utf8Value) {
    Section &settings = of(section);
    for (const Setting &other : settings.settings)
        if (other.name == name)
            return false;
    settings.settings.push_back({name, section + "." + name + "=" + utf8Value + "\n"});
    ++count;
    return true;
}

void Edits::remove(const std::string &section, const std::string &name) {
    of(section).settings.push_back({name, ""});
    ++count;
}

const Edits::Section *Edits::find(std::string_view section) const {
    const auto found = position.find(std::string(section));
    return found != position.end() ? &sections[found->second] : nullptr;
}

// ---- the new content --------------------------------------------------------------------------

namespace {

// What is still to be done of a section.
struct Pending {
    const Edits::Section *edits;
    std::vector<bool> isDone;
    bool isPast; // the first run of its lines, which is the one that changes are made in
};

struct Merge {
    Edited result;
    std::unordered_map<std::string_view, Pending> pending;
};

void removeLine(Merge &merge, const ConfigLine &line) {
    merge.result.difference.push_back("-" + std::string(line.text) + "\n");
}

void putLine(Merge &merge, const std::string &line) {
    if (!merge.result.content.empty() && merge.result.content.back() != '\n')
        merge.result.content += '\n';
    merge.result.content += line;
    merge.result.difference.push_back("+" + line);
}

void putRest(Merge &merge, Pending &pending) {
    pending.isPast = true;
    for (size_t i = 0; i < pending.isDone.size(); ++i) {
        const Edits::Setting &setting = pending.edits->settings[i];
        if (!pending.isDone[i] && !setting.line.empty())
            putLine(merge, setting.line);
        pending.isDone[i] = true;
    }
}

std::string_view nextToken(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(".="), text.size()));
    const std::string_view token = text.substr(0, text.find_first_of(".="));
    text.remove_prefix(token.size());
    return token;
}

// The section that the store takes a line for when it looks for the end of a run, also a line
// that has no key.
std::string runOf(const ConfigLine &line) {
    std::string_view text = line.raw.substr(0, line.raw.find('\0'));
    const std::string_view first = nextToken(text);
    if (first != STORE_LOGSET_TOKEN)
        return std::string(first);
    return STORE_LOGSET_PREFIX + std::string(nextToken(text));
}

// Whether an edit takes the line's place.
bool takesPlace(Merge &merge, Pending &pending, const ConfigLine &line) {
    for (size_t i = 0; i < pending.isDone.size(); ++i) {
        const Edits::Setting &setting = pending.edits->settings[i];
        if (setting.name != line.name || line.section != pending.edits->name || !line.hasEquals)
            continue;
        if (setting.line.empty()) { // each line of the key goes
            removeLine(merge, line);
            return true;
        }
        if (pending.isPast || pending.isDone[i])
            continue;
        pending.isDone[i] = true;
        if (line.raw == setting.line)
            return false;
        removeLine(merge, line);
        putLine(merge, setting.line);
        return true;
    }
    return false;
}

Pending pendingOf(const Edits::Section &section, const ConfigFile &file) {
    Pending pending{&section, {}, false};
    for (const Edits::Setting &setting : section.settings) {
        const ConfigLine *line = file.find(section.name, setting.name);
        pending.isDone.push_back(line != nullptr && line->raw == setting.line); // it holds already
    }
    return pending;
}

} // namespace

Edited edited(const std::string &bytes, bool exists, const Edits &edits) {
    ConfigFile file{};
    tools::parseConfig(file, std::make_shared<const std::string>(exists ? bytes : STORE_HEADER));
    Merge merge;
    for (const Edits::Section &section : edits.sections)
        merge.pending.emplace(section.name, pendingOf(section, file));
    Pending *current = nullptr;
    std::string section;
    for (const ConfigLine &line : file.lines) {
        std::string run = runOf(line);
        if (run != section) {
            if (current != nullptr && !current->isPast)
                putRest(merge, *current);
            section = std::move(run);
            const auto found = merge.pending.find(section);
            current = found != merge.pending.end() ? &found->second : nullptr;
        }
        if (current == nullptr || !takesPlace(merge, *current, line))
            merge.result.content += line.raw;
    }
    if (current != nullptr && !current->isPast)
        putRest(merge, *current);
    for (const Edits::Section &left : edits.sections)
        putRest(merge, merge.pending.at(left.name));
    return std::move(merge.result);
}
