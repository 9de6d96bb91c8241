// SPDX-License-Identifier: Apache-2.0
// verify: whether names, headers, records and counters of the files agree. Findings are
// shown as they come: there may be more of them than memory holds.
#include "common/verify.h"
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <algorithm>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

namespace qdlogmgr {

namespace {

struct Checking {
    explicit Checking(Run &theRun) : run(theRun) {
        if (!run.options.json)
            return;
        json.beginObject();
        json.key("findings");
        json.beginArray();
    }

    void tell(const std::string &path, uint64_t offset, bool isProblem, const std::string &text) {
        problems += isProblem ? 1 : 0;
        if (run.options.json)
            tellAsJson(path, offset, isProblem, text);
        else
            tellAsText(path, offset, isProblem, text);
    }

    void finish() {
        if (run.options.json) {
            json.endArray();
            json.number("files", files);
            json.number("records", records);
            json.number("problems", problems);
            json.endObject();
            writeLine(run.out, json);
        } else if (!run.options.quiet) {
            run.out.write(std::to_string(files) + " files, " + std::to_string(records) + " records, " +
                          std::to_string(problems) + " problems\n");
        }
    }

    Run &run;
    uint64_t files = 0;
    uint64_t records = 0;
    uint64_t problems = 0;

  private:
    void tellAsJson(const std::string &path, uint64_t offset, bool isProblem, const std::string &text) {
        json.beginObject();
        json.text("path", path);
        json.number("offset", offset);
        json.flag("problem", isProblem);
        json.text("text", text);
        json.endObject();
        json.pass(run.out);
    }

    void tellAsText(const std::string &path, uint64_t offset, bool isProblem, const std::string &text) const {
        std::string line = tools::escaped(path) + ":" + std::to_string(offset) + ": ";
        if (!isProblem)
            line += "note: ";
        tools::appendStyled(line, isProblem ? tools::Style::Red : tools::Style::Plain, tools::escaped(text),
                            run.options.color);
        run.out.write(line + "\n");
    }

    tools::Json json;
};

void checkFile(Checking &checking, const File &file) {
    tools::VerifyCounts counts;
    std::string problem;
    const std::string path = file.path();
    const auto report = [&](const tools::Finding &finding) {
        checking.tell(path, finding.at, finding.problem, finding.text);
    };
    if (!tools::verifyFile(path, report, counts, problem)) {
        checking.run.problems.push_back(path + ": " + problem);
        return;
    }
    ++checking.files;
    checking.records += counts.records;
    if (file.isDoubtful() && counts.problems == 0)
        checking.tell(path, 0, true, file.doubt);
}

// How many files of a series have a name of this file's day and counter, or a later one.
struct LaterFiles {
    explicit LaterFiles(const Series &series) {
        for (const File &file : series)
            places.push_back(placeOf(file));
        std::sort(places.begin(), places.end());
    }
    uint64_t countFrom(const File &file) const {
        return static_cast<uint64_t>(places.end() -
                                     std::lower_bound(places.begin(), places.end(), placeOf(file)));
    }

  private:
    using Place = std::pair<uint64_t, uint64_t>;
    static Place placeOf(const File &file) { return {file.dateOfName, file.counter}; }

    std::vector<Place> places;
};

// The files of one host and day are numbered without gaps; only the oldest may be gone, and
// with recycling those beyond the number to keep: one that a writer held is older than
// others that are gone.
void checkCounters(Checking &checking, const Series &series) {
    if (series.isLogset())
        return;
    const auto dayOf = [](const File &file) { return std::make_pair(file.host, file.dateOfName); };
    std::vector<const File *> files;
    for (const File &file : series)
        files.push_back(&file);
    std::sort(files.begin(), files.end(), [&](const File *a, const File *b) {
        return std::make_tuple(dayOf(*a), a->counter) < std::make_tuple(dayOf(*b), b->counter);
    });
    const bool recycles = series.isConfigured() && series.writer->recycles;
    std::unique_ptr<LaterFiles> later;
    for (size_t i = 1; i < files.size(); ++i) {
        const File &before = *files[i - 1];
        const File &file = *files[i];
        if (dayOf(before) != dayOf(file) || file.counter - before.counter <= 1)
            continue;
        if (recycles && later == nullptr)
            later = std::make_unique<LaterFiles>(series);
        const bool isGone = recycles && later->countFrom(file) >= series.writer->keep;
        checking.tell(file.path(), 0, !isGone,
                      "missing before it: counters " + std::to_string(before.counter + 1) + " to " +
                          std::to_string(file.counter - 1) + " of its day");
    }
}

} // namespace

int verifyFiles(Run &run) {
    tools::Pager pager;
    if (!run.options.noPager && !run.options.json)
        pager.start();
    Checking checking(run);
    for (const Choice &choice : chosenFiles(run, false))
        checkFile(checking, *choice.file);
    if (run.options.files.empty())
        for (const Series &series : run.catalogue.series)
            checkCounters(checking, series);
    if (run.options.files.empty())
        for (const Leftover &leftover : run.catalogue.leftovers)
            checking.tell(leftover.path, 0, false,
                          "left behind by a writer that was killed; it holds no record, and the next file "
                          "that is made here takes it away");
    checking.finish();
    const int status = finish(run, checking.files);
    pager.finish();
    return status == tools::EXIT_OK && checking.problems != 0 ? static_cast<int>(tools::EXIT_NOTHING)
                                                              : status;
}

} // namespace qdlogmgr
