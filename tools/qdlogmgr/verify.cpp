// SPDX-License-Identifier: Apache-2.0
// verify: whether names, headers, records and counters of the files agree.
#include "common/verify.h"
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <algorithm>
#include <map>

namespace qdlogmgr {

namespace {

struct Found {
    std::string path;
    uint64_t offset;
    bool problem; // else a note
    std::string text;
};

struct Checked {
    uint64_t files = 0;
    uint64_t records = 0;
    uint64_t problems = 0;
    std::vector<Found> found;
};

void tell(Checked &checked, const File &file, uint64_t offset, bool problem, const std::string &text) {
    checked.found.push_back({file.path, offset, problem, text});
    checked.problems += problem ? 1 : 0;
}

void checkFile(Run &run, const File &file, Checked &checked) {
    tools::VerifyCounts counts;
    std::string problem;
    const auto report = [&](const tools::Finding &finding) {
        tell(checked, file, finding.at, finding.problem, finding.text);
    };
    if (!tools::verifyFile(file.path, report, counts, problem)) {
        run.problems.push_back(file.path + ": " + problem);
        return;
    }
    ++checked.files;
    checked.records += counts.records;
    if (!file.doubtful.empty() && counts.problems == 0)
        tell(checked, file, 0, true, file.doubtful);
}

// Files from this one to the newest of its series.
uint64_t filesFrom(const Series &series, const File &file) {
    const auto place = [](const File &one) { return std::make_pair(one.dateOfName, one.counter); };
    return static_cast<uint64_t>(std::count_if(series.files.begin(), series.files.end(),
                                               [&](const File &one) { return !(place(one) < place(file)); }));
}

// The files of one host and day are numbered without gaps; only the oldest may be gone, and
// with recycling those beyond the number to keep: one that a writer held is older than
// others that are gone.
void checkCounters(const Series &series, Checked &checked) {
    std::map<std::pair<uint64_t, uint64_t>, std::map<uint64_t, const File *>> days;
    for (const File &file : series.files)
        if (!series.isLogset)
            days[{file.host, file.dateOfName}][file.counter] = &file;
    for (const auto &[day, files] : days) {
        const File *before = nullptr;
        for (const auto &[counter, file] : files) {
            if (before != nullptr && counter != before->counter + 1)
                tell(checked, *file, 0, !series.recycles || filesFrom(series, *file) < series.keep,
                     "missing before it: counters " + std::to_string(before->counter + 1) + " to " +
                         std::to_string(counter - 1) + " of its day");
            before = file;
        }
    }
}

void showAsJson(Run &run, const Checked &checked) {
    tools::Json json;
    json.beginObject();
    json.number("files", checked.files);
    json.number("records", checked.records);
    json.number("problems", checked.problems);
    json.key("findings");
    json.beginArray();
    for (const Found &found : checked.found) {
        json.beginObject();
        json.text("path", found.path);
        json.number("offset", found.offset);
        json.flag("problem", found.problem);
        json.text("text", found.text);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    writeLine(run.out, json);
}

void showAsText(Run &run, const Checked &checked) {
    for (const Found &found : checked.found) {
        std::string line = tools::escaped(found.path) + ":" + std::to_string(found.offset) + ": ";
        if (!found.problem)
            line += "note: ";
        tools::appendStyled(line, found.problem ? tools::Style::Red : tools::Style::Plain,
                            tools::escaped(found.text), run.options.color);
        run.out.write(line + "\n");
    }
    if (!run.options.quiet)
        run.out.write(std::to_string(checked.files) + " files, " + std::to_string(checked.records) +
                      " records, " + std::to_string(checked.problems) + " problems\n");
}

} // namespace

int verifyFiles(Run &run) {
    tools::Pager pager;
    if (!run.options.noPager && !run.options.json)
        pager.start();
    Checked checked;
    for (const Choice &choice : chosenFiles(run, false))
        checkFile(run, *choice.file, checked);
    if (run.options.files.empty())
        for (const Series &series : run.series)
            checkCounters(series, checked);
    if (run.options.files.empty())
        for (const Leftover &leftover : run.leftovers)
            checked.found.push_back({leftover.path, 0, false,
                                     "left behind by a writer that was killed; it holds no record, and the "
                                     "next file that is made here takes it away"});
    if (run.options.json)
        showAsJson(run, checked);
    else
        showAsText(run, checked);
    const int status = finish(run, checked.files);
    pager.finish();
    return status == tools::EXIT_OK && checked.problems != 0 ? static_cast<int>(tools::EXIT_NOTHING) : status;
}

} // namespace qdlogmgr
