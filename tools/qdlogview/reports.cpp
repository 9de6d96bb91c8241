// SPDX-License-Identifier: Apache-2.0
// The reports: which one, counts, values of a field. The longer ones have files of their own.
#include "qdlogview/reports.h"

#include "common/csv.h"
#include "common/json.h"

#include <algorithm>

namespace qdlogview {

using tools::Align;
using tools::Cell;
using tools::ExitCode;
using tools::Field;
using tools::FieldType;
using tools::FieldValue;
using tools::Item;

// ---- counts ------------------------------------------------------------------------

namespace {

ExitCode reportCount(ReportRun &run) {
    uint64_t count = 0;
    eachSelected(run, [&](const Item &) { ++count; });
    if (run.settings.format == Format::Json)
        run.out.write("{\"count\":" + std::to_string(count) + "}\n");
    else
        run.out.write(std::to_string(count) + "\n");
    return count > 0 ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

} // namespace

// ---- values of a field -----------------------------------------------------------

std::string valueText(const Item &item, Field field, const FieldValue &value,
                      tools::TimeFormatter &formatter) {
    std::string text;
    switch (field->type) {
    case FieldType::Id:
    case FieldType::Number:
        return std::to_string(value.number);
    case FieldType::Signed:
        return std::to_string(value.value);
    case FieldType::Time:
        formatter.appendRfc3339(text, item.record.time);
        return text;
    case FieldType::Text:
        break;
    }
    return std::string(value.text);
}

std::vector<std::pair<std::string, uint64_t>> sortedByCount(const Counts &counts) {
    std::vector<std::pair<std::string, uint64_t>> sorted(counts.begin(), counts.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    return sorted;
}

namespace {

using Values = std::vector<std::pair<std::string, uint64_t>>;

Values collectValues(ReportRun &run) {
    const Settings &settings = run.settings;
    Counts counts;
    tools::TimeFormatter formatter;
    formatter.mode = settings.utc ? tools::TimeFormatter::Mode::Utc : tools::TimeFormatter::Mode::Local;
    eachSelected(run, [&](const Item &item) {
        const FieldValue value = settings.valuesOf->value(item);
        if (value.present)
            ++counts[valueText(item, settings.valuesOf, value, formatter)];
    });
    Values values = sortedByCount(counts);
    if (settings.hasLines && settings.lines < values.size())
        values.resize(static_cast<size_t>(settings.lines));
    return values;
}

void valuesAsJson(ReportRun &run, const Values &values) {
    tools::Json json;
    for (const auto &[value, count] : values) {
        json.beginObject();
        json.text(run.settings.valuesOf->name, value);
        json.number("count", count);
        json.endObject();
        writeLine(run.out, json);
    }
}

void valuesAsCsv(ReportRun &run, const Values &values) {
    run.out.write(std::string(run.settings.valuesOf->name) + ",count\r\n");
    for (const auto &[value, count] : values) {
        tools::appendCsv(run.out.buffer, value);
        run.out.write("," + std::to_string(count) + "\r\n");
    }
}

void valuesAsTable(ReportRun &run, const Values &values) {
    tools::LongTable table;
    table.columns = {{"COUNT", Align::Right}, {run.settings.valuesOf->name, Align::Left}};
    table.rows = values.size();
    table.row = [&](size_t i) -> std::vector<Cell> {
        return {Cell(std::to_string(values[i].second)), Cell(values[i].first)};
    };
    printTable(run.out, table, run.settings.color);
}

ExitCode reportValues(ReportRun &run) {
    const Values values = collectValues(run);
    if (run.settings.format == Format::Json)
        valuesAsJson(run, values);
    else if (run.settings.format == Format::Csv)
        valuesAsCsv(run, values);
    else
        valuesAsTable(run, values);
    return values.empty() ? tools::EXIT_NOTHING : tools::EXIT_OK;
}

} // namespace

ExitCode runReport(ReportRun &run) {
    switch (run.settings.report) {
    case Report::Count:
        return reportCount(run);
    case Report::Stats:
        return reportStats(run);
    case Report::Values:
        return reportValues(run);
    case Report::Runs:
        return reportRuns(run);
    case Report::Gaps:
        return reportGaps(run);
    default:
        return reportVerify(run);
    }
}

} // namespace qdlogview
