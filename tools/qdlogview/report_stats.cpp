// SPDX-License-Identifier: Apache-2.0
// --stats: how many records, of which kinds, from whom.
#include "qdlogview/reports.h"

#include "common/json.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace qdlogview {

using tools::Align;
using tools::Cell;
using tools::ExitCode;
using tools::FieldValue;
using tools::Item;
using tools::Style;

namespace {

constexpr size_t SHOWN_VALUES = 10; // of each group, in the table

struct Group {
    const char *name;
    tools::Field field;
    Counts counts;
};

struct Stats {
    uint64_t records = 0;
    uint64_t bytes = 0;
    uint64_t files = 0;
    uint64_t damagedLines = 0;
    int64_t first = INT64_MAX, last = INT64_MIN;
    std::vector<Group> groups;
    std::map<int64_t, uint64_t> overTime; // records by the begin of their minute, hour or day

    bool timed() const { return first <= last; }
};

Stats collect(ReportRun &run) {
    Stats stats;
    for (const auto &[name, field] : {std::pair{"kind", "kind"},
                                      {"severity", "severity_text"},
                                      {"level", "level"},
                                      {"product", "product"},
                                      {"originator", "originator"},
                                      {"who", "who"},
                                      {"subject", "subject"},
                                      {"context", "context"},
                                      {"pid", "pid"},
                                      {"host", "host"}})
        stats.groups.push_back({name, tools::findField(field), {}});
    constexpr int64_t LENGTHS[] = {0, 60000, 3600000, 86400000}; // of Per
    tools::TimeUnits units;
    units.length = LENGTHS[static_cast<size_t>(run.settings.per)];
    units.zone = zoneOf(run.settings);
    tools::TimeFormatter formatter;
    eachSelected(run, [&](const Item &item) {
        ++stats.records;
        stats.bytes += item.record.line.size() + 1;
        if (item.record.hasPrefix()) {
            stats.first = std::min(stats.first, item.record.time);
            stats.last = std::max(stats.last, item.record.time);
            if (units.length != 0)
                ++stats.overTime[units.beginOf(item.record.time)];
        }
        for (Group &group : stats.groups) {
            const FieldValue value = group.field->value(item);
            if (value.present)
                ++group.counts[valueText(item, group.field, value, formatter)];
        }
    });
    stats.files = run.reader.streams.size();
    for (const DamagedFiles::Entry &file : run.reader.damaged.entries)
        stats.damagedLines += file.lines;
    return stats;
}

const char *unitName(Per per) {
    return per == Per::Minute ? "minute" : per == Per::Hour ? "hour" : "day";
}

void showAsJson(ReportRun &run, const Stats &stats) {
    tools::Json json;
    json.beginObject();
    json.number("records", stats.records);
    json.number("bytes", stats.bytes);
    json.number("files", stats.files);
    json.number("damaged_lines", stats.damagedLines);
    if (stats.timed()) {
        json.time("first", stats.first);
        json.time("last", stats.last);
    }
    for (const Group &group : stats.groups) {
        if (group.counts.empty())
            continue;
        json.key(group.name);
        json.beginObject();
        for (const auto &[value, count] : sortedByCount(group.counts))
            json.number(value, count);
        json.endObject();
    }
    if (run.settings.per != Per::None) {
        json.key("per_" + std::string(unitName(run.settings.per)));
        json.beginArray();
        for (const auto &[begin, count] : stats.overTime) {
            json.beginObject();
            json.time("begin", begin);
            json.number("records", count);
            json.endObject();
        }
        json.endArray();
    }
    json.endObject();
    writeLine(run.out, json);
}

// A bar for each unit of time that has records.
void showHistogram(ReportRun &run, const Stats &stats) {
    constexpr uint64_t WIDEST = 40;
    uint64_t most = 1;
    for (const auto &[begin, count] : stats.overTime)
        most = std::max(most, count);
    const size_t shown = run.settings.per == Per::Day ? 10 : 16; // of "2024-03-01 13:45:02.123"
    tools::Table table;
    table.columns = {{unitName(run.settings.per)}, {"records", Align::Right}, {""}};
    for (const auto &[begin, count] : stats.overTime) {
        const double share = static_cast<double>(count) / static_cast<double>(most);
        const auto width = std::max<size_t>(1, static_cast<size_t>(share * WIDEST));
        table.rows.push_back({Cell(tools::formatTime(begin, zoneOf(run.settings)).substr(0, shown)),
                              Cell(std::to_string(count)), Cell(std::string(width, '#'), Style::Green)});
    }
    run.out.write("\n");
    printTable(run.out, table, run.settings.color);
}

tools::Table summaryOf(const Stats &stats, tools::Zone zone) {
    tools::Table table;
    table.titles = false;
    table.columns = {{"", Align::Left}, {"", Align::Left}};
    const auto row = [&](const char *name, const std::string &value) {
        table.rows.push_back({Cell(name, Style::Bold), Cell(value)});
    };
    row("records", std::to_string(stats.records));
    row("bytes", tools::formatSize(stats.bytes));
    row("files", std::to_string(stats.files));
    if (stats.timed()) {
        // As floating point: the difference of extreme times has no place in 64 bits.
        const double span = static_cast<double>(stats.last) - static_cast<double>(stats.first);
        row("first", tools::formatTime(stats.first, zone));
        row("last", tools::formatTime(stats.last, zone));
        row("span", tools::formatSpan(tools::timeBetween(stats.first, stats.last)));
        if (stats.last > stats.first) {
            char rate[64];
            std::snprintf(rate, sizeof rate, "%.3f per second",
                          static_cast<double>(stats.records) * 1000 / span);
            row("rate", rate);
        }
    }
    if (stats.damagedLines > 0)
        row("damaged lines", std::to_string(stats.damagedLines));
    return table;
}

std::string percent(uint64_t part, uint64_t whole) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%",
                  whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text;
}

void showAsTable(ReportRun &run, const Stats &stats) {
    printTable(run.out, summaryOf(stats, zoneOf(run.settings)), run.settings.color);
    if (!stats.overTime.empty())
        showHistogram(run, stats);
    for (const Group &group : stats.groups) {
        if (group.counts.empty())
            continue;
        const auto sorted = sortedByCount(group.counts);
        tools::Table table;
        table.columns = {{group.name, Align::Left}, {"records", Align::Right}, {"share", Align::Right}};
        for (size_t i = 0; i < sorted.size() && i < SHOWN_VALUES; ++i)
            table.rows.push_back({Cell(sorted[i].first.empty() ? "(none)" : sorted[i].first),
                                  Cell(std::to_string(sorted[i].second)),
                                  Cell(percent(sorted[i].second, stats.records))});
        if (sorted.size() > SHOWN_VALUES)
            table.rows.push_back({Cell(std::to_string(sorted.size() - SHOWN_VALUES) + " more")});
        run.out.write("\n");
        printTable(run.out, table, run.settings.color);
    }
}

} // namespace

ExitCode reportStats(ReportRun &run) {
    const Stats stats = collect(run);
    if (run.settings.format == Format::Json)
        showAsJson(run, stats);
    else
        showAsTable(run, stats);
    return stats.records > 0 ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

} // namespace qdlogview
