// SPDX-License-Identifier: Apache-2.0
// --list-runs: what each process wrote, and the choice of one for --run.
#include "qdlogview/reports.h"

#include "common/json.h"

#include <algorithm>
#include <map>

namespace qdlogview {

using tools::Align;
using tools::Cell;
using tools::ExitCode;
using tools::Item;

namespace {

// A number may be given to another process when the one before has ended long ago.
constexpr int64_t LONGEST_PAUSE = 24LL * 60 * 60 * 1000;

void take(std::vector<ProcessRun> &runs, size_t &current, const Item &item) {
    const tools::Record &record = item.record;
    if (current == SIZE_MAX || tools::timeBetween(runs[current].last, record.time) > LONGEST_PAUSE) {
        current = runs.size();
        ProcessRun fresh;
        fresh.host = item.origin->host;
        fresh.pid = record.pid;
        fresh.first = fresh.last = record.time;
        runs.push_back(fresh);
    }
    ProcessRun &run = runs[current];
    ++run.records;
    run.first = std::min(run.first, record.time);
    run.last = std::max(run.last, record.time);
    int32_t rank = 0;
    const char *name = nullptr;
    if (rankOf(record, rank, name) && rank > run.worst) {
        run.worst = rank;
        run.worstName = name;
    }
}

void showAsJson(ReportRun &run, const std::vector<ProcessRun> &runs) {
    tools::Json json;
    uint64_t number = 0;
    for (const ProcessRun &each : runs) {
        json.beginObject();
        json.number("run", ++number);
        json.text("host", each.host);
        json.number("pid", each.pid);
        json.number("records", each.records);
        json.time("first", each.first);
        json.time("last", each.last);
        json.signedNumber("severity", each.worst);
        json.text("severity_text", each.worstName);
        json.endObject();
        writeLine(run.out, json);
    }
}

void showAsTable(ReportRun &run, const std::vector<ProcessRun> &runs) {
    const tools::Zone zone = zoneOf(run.settings);
    tools::LongTable table;
    table.columns = {{"RUN", Align::Right},     {"FIRST"}, {"LAST"}, {"HOST"}, {"PID", Align::Right},
                     {"RECORDS", Align::Right}, {"WORST"}};
    table.rows = runs.size();
    table.row = [&](size_t i) -> std::vector<Cell> {
        const ProcessRun &each = runs[i];
        return {Cell(std::to_string(i + 1)),
                Cell(tools::formatTime(each.first, zone)),
                Cell(tools::formatTime(each.last, zone)),
                Cell(each.host),
                Cell(std::to_string(each.pid)),
                Cell(std::to_string(each.records)),
                Cell(each.worstName)};
    };
    printTable(run.out, table, run.settings.color);
}

} // namespace

std::vector<ProcessRun> processRuns(ReportRun &run) {
    std::vector<ProcessRun> runs;
    std::map<std::pair<std::string, uint64_t>, size_t> current; // into runs, by host and process
    const Item *item = nullptr;
    while (run.reader.next(item)) {
        if (!item->record.hasPrefix() || !run.filter.selects(*item) || !run.filter.hits(*item))
            continue;
        const auto entry = current.try_emplace({item->origin->host, item->record.pid}, SIZE_MAX).first;
        take(runs, entry->second, *item);
    }
    std::stable_sort(runs.begin(), runs.end(),
                     [](const ProcessRun &a, const ProcessRun &b) { return a.first < b.first; });
    return runs;
}

ExitCode reportRuns(ReportRun &run) {
    const std::vector<ProcessRun> runs = processRuns(run);
    if (run.settings.format == Format::Json)
        showAsJson(run, runs);
    else if (!runs.empty())
        showAsTable(run, runs);
    return runs.empty() ? tools::EXIT_NOTHING : tools::EXIT_OK;
}

} // namespace qdlogview
