// Counts, statistics, values of a field, gaps and verification.
#include "qdlogview/reports.h"

#include "common/json.h"
#include "common/time_text.h"
#include "common/verify.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace qdlogview {

using tools::Align;
using tools::Cell;
using tools::ExitCode;
using tools::Field;
using tools::FieldType;
using tools::FieldValue;
using tools::Item;
using tools::Output;
using tools::Record;
using tools::Style;
using tools::Table;
using tools::Zone;

namespace {

Zone zoneOf(const Settings &settings) {
    return settings.utc ? Zone::Utc : Zone::Local;
}

// All records that the filter leaves, file after file.
template<typename F>
void eachSelected(const Settings &settings, Reader &reader, Filter &filter, const F &take) {
    uint64_t taken = 0;
    reader.each([&](const Item &item) {
        if (!filter.selects(item) || !filter.hits(item))
            return true;
        take(item);
        ++taken;
        return settings.maxCount == 0 || taken < settings.maxCount;
    });
}

std::string percent(uint64_t part, uint64_t whole) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%%",
                  whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text;
}

} // namespace

ExitCode reportCount(const Settings &settings, Reader &reader, Filter &filter, Output &out) {
    uint64_t count = 0;
    eachSelected(settings, reader, filter, [&](const Item &) { ++count; });
    if (settings.format == Format::Json)
        out.write("{\"count\":" + std::to_string(count) + "}\n");
    else
        out.write(std::to_string(count) + "\n");
    return count > 0 ? tools::ExitOk : tools::ExitNothing;
}

// ---- values of a field -----------------------------------------------------------

namespace {

std::string valueText(const Item &item, Field field, const FieldValue &value,
                      tools::TimeFormatter &formatter) {
    switch (tools::fieldTable[static_cast<size_t>(field)].type) {
    case FieldType::Number:
        return std::to_string(value.number);
    case FieldType::Signed:
        return std::to_string(value.value);
    case FieldType::Time: {
        std::string text;
        formatter.appendRfc3339(text, item.record.time);
        return text;
    }
    case FieldType::Text:
        break;
    }
    return std::string(value.text);
}

using Counts = std::unordered_map<std::string, uint64_t>;

std::vector<std::pair<std::string, uint64_t>> sortedByCount(const Counts &counts) {
    std::vector<std::pair<std::string, uint64_t>> sorted(counts.begin(), counts.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    return sorted;
}

void appendCsv(std::string &out, const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        out += text;
        return;
    }
    out += '"';
    for (const char c : text) {
        out += c;
        if (c == '"')
            out += c;
    }
    out += '"';
}

} // namespace

ExitCode reportValues(const Settings &settings, Reader &reader, Filter &filter, Output &out, bool color) {
    Counts counts;
    tools::TimeFormatter formatter;
    formatter.mode = settings.utc ? tools::TimeFormatter::Mode::Utc : tools::TimeFormatter::Mode::Local;
    const Field field = settings.valuesOf;
    eachSelected(settings, reader, filter, [&](const Item &item) {
        const FieldValue value = fieldValue(item, field);
        if (value.present)
            ++counts[valueText(item, field, value, formatter)];
    });
    auto sorted = sortedByCount(counts);
    if (settings.hasLines && settings.lines < sorted.size())
        sorted.resize(static_cast<size_t>(settings.lines));
    const char *const name = tools::fieldTable[static_cast<size_t>(field)].name;
    if (settings.format == Format::Json) {
        tools::Json json;
        for (const auto &[value, count] : sorted) {
            json.clear();
            json.beginObject();
            json.text(name, value);
            json.number("count", count);
            json.endObject();
            out.write(std::string(json.written()) + "\n");
        }
    } else if (settings.format == Format::Csv) {
        out.write(std::string(name) + ",count\r\n");
        for (const auto &[value, count] : sorted) {
            std::string line;
            appendCsv(line, value);
            out.write(line + "," + std::to_string(count) + "\r\n");
        }
    } else {
        Table table;
        table.columns = {{"COUNT", Align::Right}, {name, Align::Left}};
        for (const auto &[value, count] : sorted)
            table.rows.push_back({Cell(std::to_string(count)), Cell(value)});
        printTable(out, table, color);
    }
    return sorted.empty() ? tools::ExitNothing : tools::ExitOk;
}

// ---- statistics ------------------------------------------------------------------

namespace {

constexpr size_t ShownValues = 10; // of each group

struct Group {
    const char *name;
    Field field;
    Counts counts;
};

} // namespace

ExitCode reportStats(const Settings &settings, Reader &reader, Filter &filter, Output &out, bool color) {
    Group groups[] = {
        {"kind", Field::Kind, {}},       {"severity", Field::Sev, {}},          {"level", Field::Level, {}},
        {"product", Field::Product, {}}, {"originator", Field::Originator, {}}, {"who", Field::Who, {}},
        {"subject", Field::Subject, {}}, {"context", Field::Context, {}},       {"pid", Field::Pid, {}},
        {"host", Field::Host, {}}};
    uint64_t records = 0;
    uint64_t bytes = 0;
    int64_t first = INT64_MAX;
    int64_t last = INT64_MIN;
    tools::TimeFormatter formatter;
    std::string key;
    eachSelected(settings, reader, filter, [&](const Item &item) {
        ++records;
        bytes += item.record.line.size() + 1;
        if (item.record.hasPrefix()) {
            first = std::min(first, item.record.time);
            last = std::max(last, item.record.time);
        }
        for (Group &group : groups) {
            const FieldValue value = fieldValue(item, group.field);
            if (!value.present)
                continue;
            ++group.counts[valueText(item, group.field, value, formatter)];
        }
    });
    uint64_t damaged = 0;
    for (const Reader::DamagedFile &file : reader.damaged)
        damaged += file.lines;

    const bool timed = first <= last;
    if (settings.format == Format::Json) {
        tools::Json json;
        json.beginObject();
        json.number("records", records);
        json.number("bytes", bytes);
        json.number("files", reader.streams.size());
        json.number("damaged_lines", damaged);
        if (timed) {
            tools::TimeFormatter utc;
            utc.mode = tools::TimeFormatter::Mode::Utc;
            for (const auto &[name, time] :
                 {std::pair<const char *, int64_t>{"first", first}, {"last", last}}) {
                std::string text;
                utc.appendRfc3339(text, time);
                json.text(name, text);
            }
        }
        for (const Group &group : groups) {
            if (group.counts.empty())
                continue;
            json.key(group.name);
            json.beginObject();
            for (const auto &[value, count] : sortedByCount(group.counts))
                json.number(value, count);
            json.endObject();
        }
        json.endObject();
        out.write(std::string(json.written()) + "\n");
        return records > 0 ? tools::ExitOk : tools::ExitNothing;
    }

    Table summary;
    summary.titles = false;
    summary.columns = {{"", Align::Left}, {"", Align::Left}};
    const auto row = [&](const char *name, const std::string &value) {
        summary.rows.push_back({Cell(name, Style::Bold), Cell(value)});
    };
    row("records", std::to_string(records));
    row("bytes", tools::formatSize(bytes));
    row("files", std::to_string(reader.streams.size()));
    if (timed) {
        row("first", tools::formatTime(first, zoneOf(settings)));
        row("last", tools::formatTime(last, zoneOf(settings)));
        row("span", tools::formatSpan(last - first));
        if (last > first) {
            char rate[64];
            std::snprintf(rate, sizeof rate, "%.3f per second",
                          static_cast<double>(records) * 1000 / static_cast<double>(last - first));
            row("rate", rate);
        }
    }
    if (damaged > 0)
        row("damaged lines", std::to_string(damaged));
    printTable(out, summary, color);
    for (const Group &group : groups) {
        if (group.counts.empty())
            continue;
        const auto sorted = sortedByCount(group.counts);
        Table table;
        table.columns = {{group.name, Align::Left}, {"records", Align::Right}, {"share", Align::Right}};
        for (size_t i = 0; i < sorted.size() && i < ShownValues; ++i)
            table.rows.push_back({Cell(sorted[i].first.empty() ? "(none)" : sorted[i].first),
                                  Cell(std::to_string(sorted[i].second)),
                                  Cell(percent(sorted[i].second, records))});
        if (sorted.size() > ShownValues)
            table.rows.push_back({Cell(std::to_string(sorted.size() - ShownValues) + " more")});
        out.write("\n");
        printTable(out, table, color);
    }
    return records > 0 ? tools::ExitOk : tools::ExitNothing;
}

// ---- gaps ------------------------------------------------------------------------

namespace {

struct Gap {
    uint64_t first, last;
    int64_t after; // time of the record in front of the gap
    int64_t until; // time of the record behind it
};

// The sequence numbers of one process and originator. Every open of a log begins
// anew with 1, and several handles count side by side, so several runs are kept.
struct Runs {
    struct Run {
        uint64_t next; // number that is due
        int64_t time;  // of the record before
    };
    static constexpr size_t MaxRuns = 16;

    std::vector<Run> runs;
    std::vector<Gap> gaps;
    uint64_t records = 0;
    uint64_t other = 0; // numbers that fit no run: the caller's own, or behind a jump back

    void take(uint64_t id, int64_t time) {
        ++records;
        Run *nearest = nullptr;
        for (Run &run : runs) {
            if (run.next == id) {
                run = {id + 1, time};
                return;
            }
            if (run.next < id && (nearest == nullptr || run.next > nearest->next))
                nearest = &run;
        }
        // A number that is due in the middle of a gap came late (another thread was first).
        for (size_t i = gaps.size(); i-- > 0;) {
            Gap &gap = gaps[i];
            if (id < gap.first || id > gap.last)
                continue;
            const Gap rest{id + 1, gap.last, gap.after, gap.until};
            if (id == gap.first && id == gap.last) {
                gaps.erase(gaps.begin() + static_cast<ptrdiff_t>(i));
            } else if (id == gap.first) {
                gap.first = id + 1;
            } else {
                gap.last = id - 1;
                if (rest.first <= rest.last)
                    gaps.insert(gaps.begin() + static_cast<ptrdiff_t>(i) + 1, rest);
            }
            return;
        }
        constexpr uint64_t believable = 1000000; // a larger jump is a number of the caller's
        if (id == 1 || runs.empty()) {
            if (runs.size() == MaxRuns)
                runs.erase(runs.begin());
            runs.push_back({id + 1, time});
        } else if (nearest != nullptr && id - nearest->next < believable) {
            gaps.push_back({nearest->next, id - 1, nearest->time, time});
            *nearest = {id + 1, time};
        } else {
            ++other;
        }
    }
};

struct FileGap {
    std::string series;
    std::string day;
    uint64_t first, last;
};

// Counters of one series are consecutive within a day, from 0 on. What is missing
// before the oldest file that is there was recycled.
std::vector<FileGap> missingFiles(const Reader &reader) {
    std::vector<FileGap> gaps;
    std::string series;
    std::string day;
    uint64_t expected = 0;
    for (const auto &stream : reader.streams) {
        tools::FileName name;
        if (!tools::parseFileName(stream->source.base, name) ||
            name.kind != tools::FileName::Kind::Originator)
            continue;
        char date[16];
        std::snprintf(date, sizeof date, "%04d-%02d-%02d", name.year, name.month, name.day);
        if (stream->source.series != series) {
            series = stream->source.series;
            expected = name.counter;
        } else if (day != date) {
            expected =
                day.substr(5) == std::string(date).substr(5) ? expected : 0; // the year is not looked at
        }
        day = date;
        if (name.counter > expected)
            gaps.push_back({series.substr(series.rfind('/') + 1), day, expected, name.counter - 1});
        expected = name.counter + 1;
    }
    return gaps;
}

std::string rangeText(uint64_t first, uint64_t last) {
    return first == last ? std::to_string(first) : std::to_string(first) + ".." + std::to_string(last);
}

} // namespace

ExitCode reportGaps(const Settings &settings, Reader &reader, Filter &filter, Output &out, bool color) {
    struct Key {
        std::string host;
        uint64_t product, originator, pid;
        bool operator<(const Key &other) const {
            return std::tie(host, product, originator, pid) <
                   std::tie(other.host, other.product, other.originator, other.pid);
        }
    };
    std::map<Key, Runs> groups;
    const Item *item = nullptr;
    uint64_t records = 0;
    const tools::Origin *lastOrigin = nullptr;
    Key key{};
    while (reader.next(item)) {
        const Record &record = item->record;
        if (!record.hasPrefix() || !filter.selects(*item) || !filter.hits(*item))
            continue;
        ++records;
        if (item->origin != lastOrigin) {
            key.host = item->origin->host;
            lastOrigin = item->origin;
        }
        key.product = record.product;
        key.originator = record.originator;
        key.pid = record.pid;
        groups[key].take(record.messageId, record.time);
    }
    const std::vector<FileGap> files = missingFiles(reader);
    uint64_t found = files.size();
    for (const auto &[group, runs] : groups)
        found += runs.gaps.size();

    tools::TimeFormatter utc;
    utc.mode = tools::TimeFormatter::Mode::Utc;
    if (settings.format == Format::Json) {
        tools::Json json;
        const auto line = [&]() {
            json.endObject();
            out.write(std::string(json.written()) + "\n");
        };
        for (const auto &[group, runs] : groups) {
            for (const Gap &gap : runs.gaps) {
                json.clear();
                json.beginObject();
                json.text("missing", "records");
                json.text("host", group.host);
                json.number("product", group.product);
                json.number("originator", group.originator);
                json.number("pid", group.pid);
                json.number("first", gap.first);
                json.number("last", gap.last);
                json.signedNumber("after_ts", gap.after);
                json.signedNumber("before_ts", gap.until);
                line();
            }
        }
        for (const FileGap &gap : files) {
            json.clear();
            json.beginObject();
            json.text("missing", "files");
            json.text("series", gap.series);
            json.text("day", gap.day);
            json.number("first", gap.first);
            json.number("last", gap.last);
            line();
        }
        return found > 0 ? tools::ExitNothing : tools::ExitOk;
    }

    Table table;
    table.columns = {{"MISSING", Align::Right}, {"OF", Align::Left},      {"PID", Align::Right},
                     {"HOST", Align::Left},     {"BETWEEN", Align::Left}, {"AND", Align::Left}};
    for (const auto &[group, runs] : groups) {
        for (const Gap &gap : runs.gaps)
            table.rows.push_back(
                {Cell(rangeText(gap.first, gap.last), Style::Yellow),
                 Cell(std::to_string(group.product) + "/" + std::to_string(group.originator)),
                 Cell(std::to_string(group.pid)), Cell(group.host),
                 Cell(tools::formatTime(gap.after, zoneOf(settings))),
                 Cell(tools::formatTime(gap.until, zoneOf(settings)))});
    }
    if (!table.rows.empty())
        printTable(out, table, color);
    Table fileTable;
    fileTable.columns = {{"MISSING FILES", Align::Right}, {"SERIES", Align::Left}, {"DAY", Align::Left}};
    for (const FileGap &gap : files)
        fileTable.rows.push_back(
            {Cell(rangeText(gap.first, gap.last), Style::Yellow), Cell(gap.series), Cell(gap.day)});
    if (!fileTable.rows.empty())
        printTable(out, fileTable, color);
    if (!settings.quiet) {
        out.write(std::to_string(records) + " records of " + std::to_string(groups.size()) + " processes, " +
                  std::to_string(found) + (found == 1 ? " gap\n" : " gaps\n"));
        if (found > 0)
            out.write("Numbers are counted for each open log of a process. A number is used up also by a\n"
                      "message that carries an id of the caller's, so not every gap is a lost record.\n");
    }
    return found > 0 ? tools::ExitNothing : tools::ExitOk;
}

// ---- verification ----------------------------------------------------------------

ExitCode reportVerify(const Settings &settings, const Sources &sources, Output &out, bool color,
                      std::vector<std::string> &problems) {
    constexpr uint64_t shownPerFile = 100;
    uint64_t bad = 0;
    tools::VerifyCounts total;
    tools::Json json;
    for (const SourceFile &file : sources.files) {
        tools::VerifyCounts counts;
        uint64_t shown = 0;
        std::string problem;
        const auto report = [&](const tools::Finding &finding) {
            if (settings.format == Format::Json) {
                json.clear();
                json.beginObject();
                json.text("file", file.path);
                json.number("offset", finding.offset);
                json.number("at", finding.at);
                json.flag("problem", finding.problem);
                json.text("finding", finding.text);
                json.endObject();
                out.write(std::string(json.written()) + "\n");
                return;
            }
            if ((!finding.problem && settings.quiet) || ++shown > shownPerFile)
                return;
            tools::appendEscaped(out.buffer, file.path);
            out.buffer += "@" + std::to_string(finding.offset) + ": ";
            tools::appendStyled(out.buffer, finding.problem ? Style::Red : Style::Yellow,
                                finding.problem ? "problem" : "note", color);
            out.buffer += ": ";
            tools::appendEscaped(out.buffer, finding.text);
            if (finding.at != finding.offset)
                out.buffer += ", at " + std::to_string(finding.at);
            out.write("\n");
        };
        if (!tools::verifyFile(file.path, report, counts, problem)) {
            problems.push_back(file.path + ": " + problem);
            continue;
        }
        if (shown > shownPerFile)
            out.write(file.path + ": " + std::to_string(shown - shownPerFile) + " more findings\n");
        bad += counts.problems > 0 ? 1 : 0;
        total.records += counts.records;
        total.damaged += counts.damaged;
        total.problems += counts.problems;
        total.notes += counts.notes;
        total.bytes += counts.bytes;
    }
    if (settings.format == Format::Json) {
        json.clear();
        json.beginObject();
        json.number("files", sources.files.size());
        json.number("bad_files", bad);
        json.number("records", total.records);
        json.number("damaged_lines", total.damaged);
        json.number("problems", total.problems);
        json.number("notes", total.notes);
        json.number("bytes", total.bytes);
        json.endObject();
        out.write(std::string(json.written()) + "\n");
    } else if (!settings.quiet) {
        out.write(std::to_string(sources.files.size()) + " files, " + std::to_string(total.records) +
                  " records, " + tools::formatSize(total.bytes) + ": " + std::to_string(total.problems) +
                  " problems in " + std::to_string(bad) + " files, " + std::to_string(total.notes) +
                  " notes\n");
    }
    return total.problems > 0 ? tools::ExitNothing : tools::ExitOk;
}

} // namespace qdlogview
