// SPDX-License-Identifier: Apache-2.0
// qdlogview: reads, filters, follows and exports log files.
#include "common/configurations.h"
#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdlogview/reports.h"
#include "qdlogview/settings.h"
#include "qdlogview/sources.h"
#include "qdlogview/view.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace qdlogview {

namespace {

void complain(const std::string &text) {
    std::fprintf(stderr, "qdlogview: %s\n", tools::escaped(text).c_str());
}

// Many files may have to be open at once to merge them.
void allowManyFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// What one run of the program found, and how it ended.
struct Outcome {
    tools::ExitCode status = tools::EXIT_OK;
    int outputError = 0; // errno
    std::vector<std::string> problems;
    DamagedFiles damaged;
};

void addFiles(Reader &reader, const Sources &sources, const Cursor &cursor) {
    for (const SourceFile &file : sources.files) {
        const uint64_t from = cursor.startOf(file);
        if (from != WHOLE_FILE)
            reader.add(file, from);
    }
    reader.prepare();
}

// Narrows the filter to the process run that was asked for; false when there is none.
bool chooseRun(const Settings &settings, const Sources &sources, const ReadRange &range, tools::Output &out,
               Filter &filter, Outcome &outcome) {
    Reader reader(range, false);
    addFiles(reader, sources, {});
    Filter every; // runs are counted as --list-runs counts them without conditions
    every.hasProduct = filter.hasProduct;
    every.product = filter.product;
    ReportRun all{settings, sources, reader, every, out, outcome.problems};
    const std::vector<ProcessRun> runs = processRuns(all);
    const auto count = static_cast<int64_t>(runs.size());
    const int64_t at = settings.run > 0 ? settings.run - 1 : count - 1 + settings.run;
    if (at < 0 || at >= count)
        return false;
    const ProcessRun &run = runs[static_cast<size_t>(at)];
    filter.setRun(run.host, run.pid, run.first, run.last);
    return true;
}

void report(const Settings &settings, const Sources &sources, Filter &filter, const Cursor &cursor,
            const ReadRange &range, tools::Output &out, Outcome &outcome) {
    Reader reader(range, false);
    addFiles(reader, sources, cursor);
    ReportRun run{settings, sources, reader, filter, out, outcome.problems};
    outcome.status = runReport(run);
    outcome.problems.insert(outcome.problems.end(), reader.problems.begin(), reader.problems.end());
    outcome.damaged = std::move(reader.damaged);
}

void show(const Settings &settings, Sources &sources, Filter &filter, const Cursor &cursor,
          const ReadRange &range, Printer &printer, tools::Output &out, Spool *spool, Outcome &outcome) {
    if (settings.follow || !settings.cursorFile.empty())
        installStopSignals();
    View view(settings, sources, filter, printer, out, cursor, range, spool);
    outcome.status = view.show() ? tools::EXIT_OK : tools::EXIT_NOTHING;
    printer.end();
    if (view.told != tools::EXIT_OK)
        outcome.status = view.told;
    else if (spool != nullptr && spool->dropped > 0)
        outcome.status = tools::EXIT_PARTIAL;
    outcome.problems.insert(outcome.problems.end(), view.problems.begin(), view.problems.end());
    outcome.damaged = std::move(view.damaged);
}

void tellFindings(const Settings &settings, const Sources &sources, const Filter &filter,
                  const Outcome &outcome) {
    for (const std::string &problem : outcome.problems)
        complain(problem);
    for (const DamagedFiles::Entry &file : outcome.damaged.entries)
        complain(file.source->path() + ": " + tools::counted(file.lines, "damaged line") + " left out, at " +
                 std::to_string(file.firstOffset) + " first (see --verify)");
    if (filter.gaveUp())
        complain("a regular expression was too complex for some texts; they count as not matching");
    if (outcome.status != tools::EXIT_NOTHING || settings.report != Report::None || !outcome.problems.empty())
        return;
    if (sources.files.empty())
        complain("no log files were found" +
                 (settings.logSet.empty() ? "" : " of log set '" + settings.logSet + "'"));
    else
        complain("no record matches in " + tools::counted(sources.files.size(), "file"));
}

int conclude(const Settings &settings, const Sources &sources, const Filter &filter, const Outcome &outcome) {
    if (outcome.outputError != 0) {
        complain(std::string("the output could not be written: ") + std::strerror(outcome.outputError));
        return tools::EXIT_PARTIAL;
    }
    if (!settings.quiet)
        tellFindings(settings, sources, filter, outcome);
    if (!outcome.problems.empty())
        return tools::EXIT_UNREADABLE;
    if (!outcome.damaged.entries.empty() || filter.gaveUp())
        return tools::EXIT_PARTIAL;
    return outcome.status;
}

int run(int argc, char **argv) {
    Settings settings;
    if (const auto status = parseCommandLine(argc, argv, settings))
        return *status;
    std::string error;
    Filter filter;
    Cursor cursor;
    if (!filter.build(settings, tools::currentTime(), error))
        return usageError(settings, error);
    std::unique_ptr<Spool> spool;
    if (!settings.spool.empty()) {
        spool = std::make_unique<Spool>(settings);
        if (!spool->lock()) {
            complain(spool->problem);
            return tools::EXIT_UNREADABLE;
        }
    }
    if (!settings.afterCursor.empty() && !cursor.parse(settings.afterCursor, error))
        return usageError(settings, "--after-cursor: " + error);
    if (!settings.cursorFile.empty() && settings.afterCursor.empty() &&
        !cursor.load(settings.cursorFile, error)) {
        complain(error);
        return tools::EXIT_UNREADABLE;
    }
    if (spool != nullptr && !spool->open(cursor.spooled)) {
        complain(spool->problem);
        return tools::EXIT_UNREADABLE;
    }
    allowManyFiles();

    const FileQuery fileQuery(filter.query);
    Sources sources;
    Outcome outcome;
    const bool found = sources.find(settings, fileQuery);
    outcome.problems = sources.problems;
    if (!found) {
        for (const std::string &problem : outcome.problems)
            complain(problem);
        return tools::EXIT_UNREADABLE;
    }
    filter.hasOriginator = sources.hasOriginator;
    filter.originator = sources.originator;
    filter.hasProduct = sources.hasProduct;
    filter.product = sources.product;

    settings.color = settings.color && spool == nullptr &&
                     (settings.format == Format::Short || settings.format == Format::Full);
    tools::Pager pager;
    {
        tools::Output standardOutput;
        tools::Output &out = spool != nullptr ? spool->out : standardOutput;
        Printer printer(settings, out, settings.color, filter);
        if (!printer.prepare(error))
            return usageError(settings, error);
        if (!settings.noPager && !settings.follow && spool == nullptr)
            pager.start();
        const tools::IdNames names = tools::configuredIdNames();
        const ReadRange range{filter.hasRange, filter.since, filter.until, settings.scan, &names};
        if (settings.hasRun && !chooseRun(settings, sources, range, out, filter, outcome)) {
            outcome.status = tools::EXIT_NOTHING;
            outcome.problems.push_back("there is no run " + std::to_string(settings.run) +
                                       " (see --list-runs)");
        } else if (settings.report != Report::None)
            report(settings, sources, filter, cursor, range, out, outcome);
        else
            show(settings, sources, filter, cursor, range, printer, out, spool.get(), outcome);
        if (spool == nullptr) // whose failures are problems
            out.flush();
        if (spool == nullptr &&
            (out.error != EPIPE || pager.child <= 0)) // leaving the pager early is allowed
            outcome.outputError = out.error;
    }
    pager.finish();
    return conclude(settings, sources, filter, outcome);
}

} // namespace

} // namespace qdlogview

int main(int argc, char **argv) {
    setlocale(LC_MESSAGES, ""); // whose words messages of catalogues are shown in
    signal(SIGPIPE, SIG_DFL);   // a reader that has enough ends us silently
    try {
        return qdlogview::run(argc, argv);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "qdlogview: %s\n", failure.what());
        return tools::EXIT_PARTIAL;
    }
}
