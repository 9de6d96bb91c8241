// SPDX-License-Identifier: Apache-2.0
// --verify: every record of the files, whatever the filter.
#include "qdlogview/reports.h"

#include "common/json.h"
#include "common/verify.h"

namespace qdlogview {

using tools::ExitCode;
using tools::Finding;
using tools::Style;

namespace {

constexpr uint64_t SHOWN_PER_FILE = 100;

void findingAsJson(ReportRun &run, const std::string &path, const Finding &finding) {
    tools::Json json;
    json.beginObject();
    json.text("file", path);
    json.number("offset", finding.offset);
    json.number("at", finding.at);
    json.flag("problem", finding.problem);
    json.text("finding", finding.text);
    json.endObject();
    writeLine(run.out, json);
}

void findingAsText(ReportRun &run, const std::string &path, const Finding &finding) {
    std::string &to = run.out.buffer;
    tools::appendEscaped(to, path);
    to += "@" + std::to_string(finding.offset) + ": ";
    tools::appendStyled(to, finding.problem ? Style::Red : Style::Yellow,
                        finding.problem ? "problem" : "note", run.settings.color);
    to += ": ";
    tools::appendEscaped(to, finding.text);
    if (finding.at != finding.offset)
        to += ", at " + std::to_string(finding.at);
    run.out.write("\n");
}

struct Sum {
    uint64_t badFiles = 0;
    tools::VerifyCounts counts;
};

void sumAsJson(ReportRun &run, const Sum &sum) {
    tools::Json json;
    json.beginObject();
    json.number("files", run.sources.files.size());
    json.number("bad_files", sum.badFiles);
    json.number("records", sum.counts.records);
    json.number("damaged_lines", sum.counts.damaged);
    json.number("problems", sum.counts.problems);
    json.number("notes", sum.counts.notes);
    json.number("bytes", sum.counts.bytes);
    json.endObject();
    writeLine(run.out, json);
}

void sumAsText(ReportRun &run, const Sum &sum) {
    using tools::counted;
    run.out.write(counted(run.sources.files.size(), "file") + ", " + counted(sum.counts.records, "record") +
                  ", " + tools::formatSize(sum.counts.bytes) + ": " +
                  counted(sum.counts.problems, "problem") + " in " + counted(sum.badFiles, "file") + ", " +
                  counted(sum.counts.notes, "note") + "\n");
}

// Findings are shown as they come: a damaged file may have more than memory holds.
void verify(ReportRun &run, const std::string &path, Sum &sum) {
    const bool asJson = run.settings.format == Format::Json;
    tools::VerifyCounts counts;
    uint64_t shown = 0;
    std::string problem;
    const auto report = [&](const Finding &finding) {
        if (asJson)
            findingAsJson(run, path, finding);
        else if ((finding.problem || !run.settings.quiet) && ++shown <= SHOWN_PER_FILE)
            findingAsText(run, path, finding);
    };
    if (!tools::verifyFile(path, report, counts, problem)) {
        run.problems.push_back(path + ": " + problem);
        return;
    }
    if (shown > SHOWN_PER_FILE)
        run.out.write(tools::escaped(path) + ": " + std::to_string(shown - SHOWN_PER_FILE) +
                      " more findings\n");
    sum.badFiles += counts.problems > 0 ? 1 : 0;
    sum.counts.records += counts.records;
    sum.counts.damaged += counts.damaged;
    sum.counts.problems += counts.problems;
    sum.counts.notes += counts.notes;
    sum.counts.bytes += counts.bytes;
}

} // namespace

ExitCode reportVerify(ReportRun &run) {
    Sum sum;
    for (const SourceFile &file : run.sources.files)
        verify(run, file.path(), sum);
    if (run.settings.format == Format::Json)
        sumAsJson(run, sum);
    else if (!run.settings.quiet)
        sumAsText(run, sum);
    return sum.counts.problems > 0 ? tools::EXIT_NOTHING : tools::EXIT_OK;
}

} // namespace qdlogview
