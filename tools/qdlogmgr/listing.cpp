// SPDX-License-Identifier: Apache-2.0
// list, surplus, usage: what there is.
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <algorithm>
#include <map>
#include <sys/statvfs.h>

namespace qdlogmgr {

using tools::Align;
using tools::Cell;
using tools::Style;

namespace {

const char *stateOf(const Choice &choice) {
    if (choice.file->isDoubtful())
        return "doubtful";
    if (choice.file->newest)
        return "newest";
    if (choice.file->surplus)
        return "surplus";
    return choice.series->isConfigured() ? "kept" : "-";
}

Style styleOf(const std::string &state) {
    if (state == "doubtful")
        return Style::Red;
    if (state == "surplus")
        return Style::Yellow;
    return state == "newest" ? Style::Green : Style::Plain;
}

void startPager(const Run &run, tools::Pager &pager) {
    if (!run.options.noPager && !run.options.json)
        pager.start();
}

std::vector<Cell> rowOf(const Run &run, const Choice &choice) {
    const File &file = *choice.file;
    const std::string state = stateOf(choice);
    return {Cell(choice.series->title()),
            Cell(run.options.paths ? file.path() : file.name),
            Cell(tools::formatSize(file.size)),
            Cell(file.hasTimes ? timeText(run, file.first) : "-"),
            Cell(file.hasTimes ? timeText(run, file.last) : "-"),
            Cell(file.isDoubtful() ? state + ": " + file.doubt : state, styleOf(state))};
}

int showFiles(Run &run, const Choices &choices) {
    tools::Pager pager;
    startPager(run, pager);
    if (run.options.json) {
        tools::Json json;
        json.beginArray();
        for (const Choice &choice : choices) {
            json.beginObject();
            jsonFile(json, choice);
            json.text("state", stateOf(choice));
            json.flag("surplus", choice.file->surplus);
            if (choice.file->isDoubtful())
                json.text("doubt", choice.file->doubt);
            json.endObject();
            json.pass(run.out);
        }
        json.endArray();
        writeLine(run.out, json);
    } else if (!choices.empty() && !run.options.quiet) {
        tools::LongTable table;
        table.columns = {{"SERIES"}, {"FILE"}, {"SIZE", Align::Right}, {"FIRST"}, {"LAST"}, {"STATE"}};
        table.rows = choices.size();
        table.row = [&](size_t i) { return rowOf(run, choices[i]); };
        printTable(run.out, table, run.options.color);
    }
    const int status = finish(run, choices.size());
    pager.finish();
    return status;
}

} // namespace

int listFiles(Run &run) {
    return showFiles(run, chosenFiles(run, false));
}

int listSurplus(Run &run) {
    return showFiles(run, chosenFiles(run, true));
}

namespace {

// ---- usage -----------------------------------------------------------------------

struct Volume {
    uint64_t files = 0;
    uint64_t size = 0;
    uint64_t leftoverFiles = 0; // of killed writers
    uint64_t leftoverSize = 0;
};

struct Sums {
    uint64_t surplusFiles = 0;
    uint64_t surplusSize = 0;
    const File *first = nullptr; // of those with times
    const File *last = nullptr;
};

Sums sumsOf(const Series &series) {
    Sums sums;
    for (const File &file : series) {
        if (file.surplus) {
            ++sums.surplusFiles;
            sums.surplusSize += file.size;
        }
        if (!file.hasTimes)
            continue;
        if (sums.first == nullptr || file.first < sums.first->first)
            sums.first = &file;
        if (sums.last == nullptr || file.last > sums.last->last)
            sums.last = &file;
    }
    return sums;
}

uint64_t freeBytes(const std::string &directory) {
    struct statvfs status;
    return statvfs(directory.c_str(), &status) == 0 ? status.f_bavail * status.f_frsize : 0;
}

std::string keepText(const Series &series) {
    if (!series.isConfigured())
        return "-";
    const Writer &writer = *series.writer;
    const std::string number = writer.keep >= ZOLTLOG_KEEP_ALL_FILES ? "all" : std::to_string(writer.keep);
    return writer.recycles ? number + ", recycled" : number;
}

void usageAsJson(Run &run, const std::map<std::string, Volume> &volumes) {
    tools::Json json;
    json.beginObject();
    json.key("series");
    json.beginArray();
    for (const Series &series : run.catalogue.series) {
        const Sums sums = sumsOf(series);
        json.beginObject();
        json.number("product", series.product());
        json.text("product_name", series.isConfigured() ? series.writer->productName : "");
        if (series.isLogset())
            json.text("logset", series.logset());
        else
            json.number("originator", series.originator());
        json.text("directory", series.directory());
        json.number("files", series.count);
        json.number("size", series.size());
        json.number("surplus_files", sums.surplusFiles);
        json.number("surplus_size", sums.surplusSize);
        if (series.isConfigured())
            json.number("keep", series.writer->keep);
        else
            json.null("keep");
        json.flag("recycles", series.isConfigured() && series.writer->recycles);
        json.endObject();
        json.pass(run.out);
    }
    json.endArray();
    json.key("directories");
    json.beginArray();
    for (const auto &[directory, volume] : volumes) {
        json.beginObject();
        json.text("directory", directory);
        json.number("files", volume.files);
        json.number("size", volume.size);
        json.number("leftover_files", volume.leftoverFiles);
        json.number("leftover_size", volume.leftoverSize);
        json.number("free", freeBytes(directory));
        json.endObject();
    }
    json.endArray();
    json.endObject();
    writeLine(run.out, json);
}

std::vector<Cell> usageRow(const Run &run, const Series &series) {
    const Sums sums = sumsOf(series);
    return {Cell(series.title()),
            Cell(std::to_string(series.count)),
            Cell(tools::formatSize(series.size())),
            Cell(keepText(series)),
            Cell(std::to_string(sums.surplusFiles), sums.surplusFiles != 0 ? Style::Yellow : Style::Plain),
            Cell(sums.first != nullptr ? timeText(run, sums.first->first) : "-"),
            Cell(sums.last != nullptr ? timeText(run, sums.last->last) : "-"),
            Cell(series.directory())};
}

void usageAsTable(Run &run, const std::map<std::string, Volume> &volumes) {
    const std::deque<Series> &all = run.catalogue.series;
    tools::LongTable table;
    table.columns = {{"SERIES"},
                     {"FILES", Align::Right},
                     {"SIZE", Align::Right},
                     {"KEEP"},
                     {"SURPLUS", Align::Right},
                     {"FIRST"},
                     {"LAST"},
                     {"DIRECTORY"}};
    table.rows = all.size();
    table.row = [&](size_t i) { return usageRow(run, all[i]); };
    printTable(run.out, table, run.options.color);
    run.out.write("\n");
    for (const auto &[directory, volume] : volumes) {
        std::string line = tools::escaped(directory) + ": " + std::to_string(volume.files) + " files, " +
                           tools::formatSize(volume.size) + ", ";
        if (volume.leftoverFiles != 0)
            line += std::to_string(volume.leftoverFiles) + " left behind by killed writers, " +
                    tools::formatSize(volume.leftoverSize) + ", ";
        run.out.write(line + tools::formatSize(freeBytes(directory)) + " free\n");
    }
}

} // namespace

int showUsage(Run &run) {
    tools::Pager pager;
    startPager(run, pager);
    std::map<std::string, Volume> volumes;
    for (const Series &series : run.catalogue.series) {
        Volume &volume = volumes[series.directory()];
        volume.files += series.count;
        volume.size += series.size();
    }
    for (const Leftover &leftover : run.catalogue.leftovers) {
        Volume &volume = volumes[leftover.directory];
        ++volume.leftoverFiles;
        volume.leftoverSize += leftover.size;
    }
    if (run.options.json)
        usageAsJson(run, volumes);
    else if (!run.catalogue.series.empty() && !run.options.quiet)
        usageAsTable(run, volumes);
    const int status = finish(run, run.catalogue.series.size());
    pager.finish();
    return status;
}

} // namespace qdlogmgr
