// SPDX-License-Identifier: Apache-2.0
// Which records are shown: the options of the command line, made ready for speed.
#pragma once

#include "common/fields.h"
#include "qdlogview/query.h"
#include "qdlogview/regex.h"
#include "qdlogview/settings.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qdlogview {

// Patterns of the shell; the text must match one of them.
struct PatternList {
    void add(const std::string &pattern);
    bool empty() const { return patterns.empty(); }
    bool matches(std::string_view text) const;

    struct Pattern {
        std::string text;
        bool plain; // without *, ? and [
    };
    std::vector<Pattern> patterns;
};

// One object, grouped by meaning and not by size.
struct Filter { // NOLINT(clang-analyzer-optin.performance.Padding)
    bool build(const Settings &settings, int64_t now, std::string &error);

    // Time range; records without a time stamp are in no range.
    bool inTime(const tools::Record &record) const {
        return !hasRange || (record.hasPrefix() && record.time >= since && record.time <= until);
    }
    // All conditions but the time range and -g.
    bool selects(const tools::Item &item);
    // -g and -v
    bool hits(const tools::Item &item) { return !hasGrep || grep.matches(item.record.text) != invert; }

    bool gaveUp() const { return grep.gaveUp || query.gaveUp(); }

    bool hasRange = false;
    int64_t since = INT64_MIN, until = INT64_MAX;
    // Records of one process run.
    void setRun(const std::string &runHost, uint64_t pid, int64_t first, int64_t last);

    bool hasOriginator = false;
    uint64_t originator = 0;
    bool hasProduct = false; // for files that are named one by one
    uint64_t product = 0;
    bool hasGrep = false;
    Regex grep;
    Query query;

  private:
    bool any = false; // whether selects() has anything to look at beyond the originator
    uint32_t kindMask = 0;
    bool byRank = false; // -p or -l
    bool hasPriority = false, hasLevel = false;
    int32_t lowestPriority = 0, highestPriority = 0, lowestLevel = 0, highestLevel = 0;
    PatternList who, context, subject, host;
    std::vector<NumberRange> pids, tids, messageIds;
    bool hasOutcome = false;
    int32_t outcome = 0;
    bool invert = false;
    bool runOnly = false;
    std::string hostOfRun;
    uint64_t pidOfRun = 0;
    int64_t firstOfRun = 0, lastOfRun = 0; // milliseconds

    bool selectsRest(const tools::Item &item);
};

} // namespace qdlogview
