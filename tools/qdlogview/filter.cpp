// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/filter.h"

#include <algorithm>
#include <fnmatch.h>

namespace qdlogview {

using tools::Item;
using tools::Record;

void PatternList::add(const std::string &pattern) {
    patterns.push_back({pattern, pattern.find_first_of("*?[\\") == std::string::npos});
}

bool PatternList::matches(std::string_view text) const {
    std::string copy; // fnmatch needs a terminated text
    return std::any_of(patterns.begin(), patterns.end(), [&](const Pattern &pattern) {
        if (pattern.plain)
            return text == pattern.text;
        if (copy.empty())
            copy = text;
        return fnmatch(pattern.text.c_str(), copy.c_str(), 0) == 0;
    });
}

namespace {

constexpr uint32_t maskOf(uint32_t type) {
    return type == tools::TYPE_UNKNOWN ? 1U << 31 : 1U << type;
}

bool inRanges(const std::vector<NumberRange> &ranges, uint64_t value) {
    return ranges.empty() || std::any_of(ranges.begin(), ranges.end(), [value](const NumberRange &range) {
               return value >= range.first && value <= range.last;
           });
}

void fill(PatternList &list, const std::vector<std::string> &patterns) {
    for (const std::string &pattern : patterns)
        list.add(pattern);
}

} // namespace

bool Filter::build(const Settings &settings, int64_t now, std::string &error) {
    const tools::Zone zone = settings.utc ? tools::Zone::Utc : tools::Zone::Local;
    if (!settings.since.empty() && !tools::parseTimeText(settings.since, now, zone, since, error))
        return false;
    if (!settings.until.empty() && !tools::parseTimeText(settings.until, now, zone, until, error))
        return false;
    hasRange = !settings.since.empty() || !settings.until.empty();

    for (const uint32_t kind : settings.kinds)
        kindMask |= maskOf(kind);
    hasPriority = settings.hasPriority;
    lowestPriority = settings.lowestPriority;
    highestPriority = settings.highestPriority;
    hasLevel = settings.hasLevel;
    lowestLevel = settings.lowestLevel;
    highestLevel = settings.highestLevel;
    byRank = hasPriority || hasLevel;
    fill(who, settings.who);
    fill(context, settings.context);
    fill(subject, settings.subject);
    fill(host, settings.host);
    pids = settings.pids;
    tids = settings.tids;
    messageIds = settings.messageIds;
    hasOutcome = settings.hasOutcome;
    outcome = settings.outcome;
    invert = settings.invert;
    hasGrep = settings.hasGrep;
    if (hasGrep && !grep.compile(settings.grep, settings.ignoreCase, error))
        return false;
    if (!settings.where.empty() && !query.parse(settings.where, now, zone, error))
        return false;
    any = kindMask != 0 || byRank || !who.empty() || !context.empty() || !subject.empty() || !host.empty() ||
          !pids.empty() || !tids.empty() || !messageIds.empty() || hasOutcome || !query.empty();
    return true;
}

void Filter::setRun(const std::string &runHost, uint64_t pid, int64_t first, int64_t last) {
    runOnly = any = true;
    hostOfRun = runHost;
    pidOfRun = pid;
    firstOfRun = first;
    lastOfRun = last;
}

bool Filter::selects(const Item &item) {
    if (hasOriginator && (item.record.originator != originator || !item.record.hasPrefix()))
        return false;
    if (hasProduct && item.record.product != product)
        return false;
    return !any || selectsRest(item);
}

bool Filter::selectsRest(const Item &item) {
    const Record &record = item.record;
    if (kindMask != 0 && (kindMask & maskOf(record.type)) == 0)
        return false;
    if (byRank) {
        // Debug and diagnostic records by their level when one is asked for, all others,
        // and without a level these too, by their severity.
        int32_t rank = 0;
        const char *name = nullptr;
        if (hasLevel && record.type <= ZOLTLOG_MSG_DIAG) {
            if (record.number < lowestLevel || record.number > highestLevel)
                return false;
        } else if (!hasPriority || !rankOf(record, rank, name) || rank < lowestPriority ||
                   rank > highestPriority) {
            return false;
        }
    }
    if (runOnly && (!record.hasPrefix() || record.pid != pidOfRun || item.origin->host != hostOfRun ||
                    record.time < firstOfRun || record.time > lastOfRun))
        return false;
    if (!inRanges(pids, record.pid) || !inRanges(tids, record.tid) || !inRanges(messageIds, record.messageId))
        return false;
    if (hasOutcome && (record.type != ZOLTLOG_MSG_AUDIT || record.number != outcome))
        return false;
    if (!who.empty() &&
        ((record.type > ZOLTLOG_MSG_APP && record.type != tools::TYPE_UNKNOWN) || !who.matches(record.who)))
        return false;
    if (!subject.empty() && (record.type != ZOLTLOG_MSG_AUDIT || !subject.matches(record.who)))
        return false;
    if (!context.empty() &&
        !context.matches(record.type == ZOLTLOG_MSG_CONTEXT ? record.who : record.context) &&
        !(record.type == ZOLTLOG_MSG_CONTEXT && context.matches(record.context)))
        return false;
    if (!host.empty() && !host.matches(item.origin->host))
        return false;
    return query.matches(item);
}

} // namespace qdlogview
