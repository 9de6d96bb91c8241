// SPDX-License-Identifier: Apache-2.0
// --gaps: sequence numbers that are missing, and files missing by their counters.
#include "qdlogview/reports.h"

#include "common/json.h"

#include <algorithm>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <tuple>

namespace qdlogview {

using tools::Align;
using tools::Cell;
using tools::ExitCode;
using tools::Item;
using tools::Record;
using tools::Style;

namespace {

// ---- sequence numbers ----------------------------------------------------------------

// Every log handle counts its messages from 1, and so does every context.
struct Counter {
    std::string host;
    uint64_t product = 0, originator = 0, pid = 0;
    std::string context;

    bool operator<(const Counter &other) const {
        return std::tie(host, product, originator, pid, context) <
               std::tie(other.host, other.product, other.originator, other.pid, other.context);
    }
};

struct Gap {
    uint64_t first, last;
    int64_t after; // time of the record in front of the gap
    int64_t until; // time of the record behind it
};

// The numbers of one counter. Every open of a log begins anew with 1, and several
// handles count side by side, so several runs are kept, the one used last in front.
struct Runs {
    struct Run {
        uint64_t next; // number that is due
        int64_t time;  // of the record before
    };
    static constexpr size_t MAX_RUNS = 16;
    static constexpr uint64_t BELIEVABLE = 1000000; // a larger jump is a number of the caller's

    std::list<Run> runs;
    std::vector<Gap> gaps;

    void use(std::list<Run>::iterator run, uint64_t id, int64_t time) {
        *run = {id + 1, time};
        runs.splice(runs.begin(), runs, run);
    }

    void begin(uint64_t id, int64_t time) {
        if (runs.size() == MAX_RUNS)
            runs.pop_back();
        runs.push_front({id + 1, time});
    }

    // A number that is due in the middle of a gap came late (another thread was first).
    bool fill(uint64_t id) {
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
            return true;
        }
        return false;
    }

    // The record of a context is written again at the top of every new file: one whose
    // number was passed already tells nothing.
    void take(uint64_t id, int64_t time, bool mayBeRepeated) {
        auto nearest = runs.end();
        bool passed = false;
        for (auto run = runs.begin(); run != runs.end(); ++run) {
            if (run->next == id)
                return use(run, id, time);
            passed = passed || run->next > id;
            if (run->next < id && (nearest == runs.end() || run->next > nearest->next))
                nearest = run;
        }
        if (fill(id) || (mayBeRepeated && passed))
            return;
        if (id == 1 || runs.empty()) {
            begin(id, time);
        } else if (nearest != runs.end() && id - nearest->next < BELIEVABLE) {
            gaps.push_back({nearest->next, id - 1, nearest->time, time});
            use(nearest, id, time);
        }
    }
};

// ---- files ---------------------------------------------------------------------------

struct FileGap {
    std::string series;
    std::string day;
    uint64_t first, last;
};

// Counters of one series are consecutive within a day, from 0 on. What is missing
// before the oldest file that is there was recycled.
std::vector<FileGap> missingFiles(const Reader &reader) {
    std::vector<FileGap> gaps;
    const SourceFile *before = nullptr;
    std::string day;
    uint64_t expected = 0;
    for (const Stream &stream : reader.streams) {
        const SourceFile &source = *stream.source;
        tools::FileName name;
        if (!tools::parseFileName(source.base, name) || name.kind != tools::FileName::Kind::Originator)
            continue;
        char date[16];
        std::snprintf(date, sizeof date, "%04d-%02d-%02d", name.year, name.month, name.day);
        if (before == nullptr || source.series() != before->series()) {
            expected = name.counter;
        } else if (day != date) {
            expected =
                day.substr(5) == std::string(date).substr(5) ? expected : 0; // the year is not looked at
        }
        before = &source;
        day = date;
        if (name.counter > expected)
            gaps.push_back({std::string(source.series().second), day, expected, name.counter - 1});
        expected = name.counter + 1;
    }
    return gaps;
}

// ---- collecting ----------------------------------------------------------------------

struct Gaps {
    struct Missing {
        Counter counter;
        Gap gap;
    };
    std::vector<Missing> records; // by counter
    std::vector<FileGap> files;
    uint64_t seen = 0; // records
    uint64_t counters = 0;

    uint64_t count() const { return records.size() + files.size(); }
};

// Contexts come and go, a million a day: those that were not used for longest are
// forgotten, but for their gaps.
constexpr size_t MAX_COUNTERS = 65536;

struct Counters {
    struct Entry {
        Runs runs;
        std::list<std::map<Counter, Entry>::iterator>::iterator place;
    };
    std::map<Counter, Entry> entries;
    std::list<std::map<Counter, Entry>::iterator> byUse; // the last used in front
    Gaps found;

    void take(const Counter &counter, const Record &record) {
        auto [entry, isNew] = entries.try_emplace(counter);
        if (isNew) {
            ++found.counters;
            entry->second.place = byUse.insert(byUse.begin(), entry);
            if (entries.size() > MAX_COUNTERS)
                forget(byUse.back());
        } else {
            byUse.splice(byUse.begin(), byUse, entry->second.place);
        }
        entry->second.runs.take(record.messageId, record.time, record.type == ZOLTLOG_MSG_CONTEXT);
    }

    void forget(std::map<Counter, Entry>::iterator entry) {
        keepGaps(*entry);
        byUse.erase(entry->second.place);
        entries.erase(entry);
    }

    void keepGaps(const std::pair<const Counter, Entry> &entry) {
        for (const Gap &gap : entry.second.runs.gaps)
            found.records.push_back({entry.first, gap});
    }
};

Gaps collect(ReportRun &run) {
    Counters counters;
    Counter counter;
    std::shared_ptr<const tools::Origin> lastOrigin; // kept, so that no other has its place
    const Item *item = nullptr;
    while (run.reader.next(item)) {
        const Record &record = item->record;
        if (!record.hasPrefix() || !run.filter.selects(*item) || !run.filter.hits(*item))
            continue;
        ++counters.found.seen;
        if (item->origin != lastOrigin.get()) {
            counter.host = item->origin->host;
            lastOrigin = item->origin->shared_from_this();
        }
        counter.product = record.product;
        counter.originator = record.originator;
        counter.pid = record.pid;
        counter.context = record.context;
        counters.take(counter, record);
    }
    for (const auto &entry : counters.entries)
        counters.keepGaps(entry);
    Gaps found = std::move(counters.found);
    std::stable_sort(found.records.begin(), found.records.end(),
                     [](const auto &a, const auto &b) { return a.counter < b.counter; });
    found.files = missingFiles(run.reader);
    return found;
}

// ---- showing -------------------------------------------------------------------------

void showAsJson(ReportRun &run, const Gaps &gaps) {
    tools::Json json;
    for (const auto &[counter, gap] : gaps.records) {
        json.beginObject();
        json.text("missing", "records");
        json.text("host", counter.host);
        json.number("product", counter.product);
        json.number("originator", counter.originator);
        json.number("pid", counter.pid);
        if (!counter.context.empty())
            json.text("context", counter.context);
        json.number("first", gap.first);
        json.number("last", gap.last);
        json.time("after", gap.after);
        json.time("before", gap.until);
        json.endObject();
        writeLine(run.out, json);
    }
    for (const FileGap &gap : gaps.files) {
        json.beginObject();
        json.text("missing", "files");
        json.text("series", gap.series);
        json.text("day", gap.day);
        json.number("first", gap.first);
        json.number("last", gap.last);
        json.endObject();
        writeLine(run.out, json);
    }
}

std::string rangeText(uint64_t first, uint64_t last) {
    return first == last ? std::to_string(first) : std::to_string(first) + ".." + std::to_string(last);
}

void showAsTable(ReportRun &run, const Gaps &gaps) {
    const tools::Zone zone = zoneOf(run.settings);
    tools::LongTable table;
    table.columns = {{"MISSING", Align::Right},
                     {"OF"},
                     {"PID", Align::Right},
                     {"HOST"},
                     {"CONTEXT"},
                     {"BETWEEN"},
                     {"AND"}};
    table.rows = gaps.records.size();
    table.row = [&](size_t i) -> std::vector<Cell> {
        const auto &[counter, gap] = gaps.records[i];
        return {Cell(rangeText(gap.first, gap.last), Style::Yellow),
                Cell(std::to_string(counter.product) + "/" + std::to_string(counter.originator)),
                Cell(std::to_string(counter.pid)),
                Cell(counter.host),
                Cell(counter.context.empty() ? "-" : counter.context),
                Cell(tools::formatTime(gap.after, zone)),
                Cell(tools::formatTime(gap.until, zone))};
    };
    if (table.rows != 0)
        printTable(run.out, table, run.settings.color);
    tools::LongTable files;
    files.columns = {{"MISSING FILES", Align::Right}, {"SERIES"}, {"DAY"}};
    files.rows = gaps.files.size();
    files.row = [&](size_t i) -> std::vector<Cell> {
        const FileGap &gap = gaps.files[i];
        return {Cell(rangeText(gap.first, gap.last), Style::Yellow), Cell(gap.series), Cell(gap.day)};
    };
    if (files.rows != 0)
        printTable(run.out, files, run.settings.color);
    if (run.settings.quiet)
        return;
    run.out.write(tools::counted(gaps.seen, "record") + " of " + tools::counted(gaps.counters, "counter") +
                  ", " + tools::counted(gaps.count(), "gap") + "\n");
    if (gaps.count() > 0)
        run.out.write("Numbers are counted for each open log and each context of a process. A number is\n"
                      "used up also by a message that carries an id of the caller's, so not every gap is\n"
                      "a lost record.\n");
}

} // namespace

ExitCode reportGaps(ReportRun &run) {
    const Gaps gaps = collect(run);
    if (run.settings.format == Format::Json)
        showAsJson(run, gaps);
    else
        showAsTable(run, gaps);
    return gaps.count() > 0 ? tools::EXIT_NOTHING : tools::EXIT_OK;
}

} // namespace qdlogview
