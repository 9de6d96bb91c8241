// SPDX-License-Identifier: Apache-2.0
// What qdlogview tells instead of records. Each report collects first, and then shows
// what it found as json or as a table.
#pragma once

#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdlogview/filter.h"
#include "qdlogview/reader.h"
#include "qdlogview/settings.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qdlogview {

struct ReportRun {
    const Settings &settings;
    const Sources &sources;
    Reader &reader;
    Filter &filter;
    tools::Output &out;
    std::vector<std::string> &problems; // files that cannot be read
};

// The report that the settings ask for; the exit status as far as its own findings go.
tools::ExitCode runReport(ReportRun &run);

tools::ExitCode reportStats(ReportRun &run);
tools::ExitCode reportGaps(ReportRun &run);
tools::ExitCode reportVerify(ReportRun &run);
tools::ExitCode reportRuns(ReportRun &run);

// A process run: what one process of a host wrote.
struct ProcessRun {
    std::string host;
    uint64_t pid = 0;
    uint64_t records = 0;
    int64_t first = 0, last = 0; // milliseconds
    int32_t worst = 0;           // of enum Rank
    const char *worstName = "";
};

// The runs of all records that the filter leaves, by their first record.
std::vector<ProcessRun> processRuns(ReportRun &run);

// ---- used by several reports -------------------------------------------------------

// All records that the filter leaves, file after file.
template<typename F>
void eachSelected(ReportRun &run, const F &take) {
    uint64_t taken = 0;
    run.reader.each([&](const tools::Item &item) {
        if (!run.filter.selects(item) || !run.filter.hits(item))
            return true;
        take(item);
        ++taken;
        return run.settings.maxCount == 0 || taken < run.settings.maxCount;
    });
}

inline tools::Zone zoneOf(const Settings &settings) {
    return settings.utc ? tools::Zone::Utc : tools::Zone::Local;
}

// How often each value of a field occurs.
using Counts = std::unordered_map<std::string, uint64_t>;
std::string valueText(const tools::Item &item, tools::Field field, const tools::FieldValue &value,
                      tools::TimeFormatter &formatter);
std::vector<std::pair<std::string, uint64_t>> sortedByCount(const Counts &counts);

} // namespace qdlogview
