// qdlogview: reads, filters, follows and exports log files.
#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdlogview/reports.h"
#include "qdlogview/settings.h"
#include "qdlogview/sources.h"
#include "qdlogview/view.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace qdlogview {

namespace {

int usageError(const std::string &text) {
    std::fprintf(stderr, "qdlogview: %s\nTry 'qdlogview --help'.\n", tools::escaped(text).c_str());
    return tools::ExitUsage;
}

void complain(const std::string &text) {
    std::fprintf(stderr, "qdlogview: %s\n", tools::escaped(text).c_str());
}

int printText(const std::string &text) {
    tools::Output out;
    out.write(text);
    return out.flush() ? tools::ExitOk : tools::ExitPartial;
}

int complete(const std::string &what) {
    std::string text;
    std::vector<std::string> names;
    if (what == "options") {
        appendOptionList(text);
    } else if (what == "fields") {
        for (const tools::FieldRow &row : tools::fieldTable)
            names.emplace_back(row.name);
    } else if (what == "kinds") {
        for (const uint32_t kind :
             {ZOLTLOG_MSG_DEBUG, ZOLTLOG_MSG_DIAG, ZOLTLOG_MSG_APP, ZOLTLOG_MSG_CONTEXT, ZOLTLOG_MSG_AUDIT})
            names.emplace_back(tools::kindName(kind));
    } else if (what == "severities") {
        for (int32_t severity = 0; severity <= 4; ++severity)
            names.emplace_back(tools::severityName(severity));
    } else if (what == "outputs") {
        names = {"short", "full", "json", "csv", "raw", "template"};
    } else if (what == "products" || what == "originators" || what == "logsets") {
        if (!configuredNames(what, names))
            return tools::ExitUnreadable; // completion stays silent
    } else {
        return usageError("--complete: '" + what + "' is not known");
    }
    for (const std::string &name : names)
        text += name + "\n";
    return printText(text);
}

// Many files may have to be open at once to merge them.
void allowManyFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int run(int argc, char **argv) {
    Settings settings;
    std::string error;
    if (!parseCommandLine(argc, argv, settings, error) || !checkSettings(settings, error))
        return usageError(error);
    if (settings.help) {
        std::string text;
        appendUsage(text);
        return printText(text);
    }
    if (settings.version)
        return printText("qdlogview " QDUL_VERSION "\n");
    if (!settings.complete.empty()) {
        if (!settings.config.empty())
            setenv("ZOLTLOG_CFG_LOC", settings.config.c_str(), 1);
        return complete(settings.complete);
    }

    const int64_t now = tools::currentTime();
    Filter filter;
    Cursor cursor;
    if (!filter.build(settings, now, error))
        return usageError(error);
    if (!settings.afterCursor.empty() && !cursor.parse(settings.afterCursor, error))
        return usageError("--after-cursor: " + error);
    if (!settings.cursorFile.empty() && settings.afterCursor.empty() &&
        !cursor.load(settings.cursorFile, error)) {
        complain(error);
        return tools::ExitUnreadable;
    }
    allowManyFiles();

    const FileQuery fileQuery(filter.query);
    Sources sources;
    const bool found = sources.find(settings, fileQuery);
    std::vector<std::string> problems = sources.problems;
    std::vector<Reader::DamagedFile> damaged;
    if (!found) {
        for (const std::string &problem : problems)
            complain(problem);
        return tools::ExitUnreadable;
    }
    filter.hasOriginator = sources.hasOriginator;
    filter.originator = sources.originator;
    filter.hasProduct = sources.hasProduct;
    filter.product = sources.product;

    const bool isReport = settings.report != Report::None;
    const bool machine = settings.format == Format::Json || settings.format == Format::Csv ||
                         settings.format == Format::Raw || settings.format == Format::Template;
    const bool color = !machine && tools::colorWanted(settings.color, isatty(1) != 0);
    tools::Pager pager;
    if (!settings.noPager && !settings.follow)
        pager.start();
    tools::ExitCode status = tools::ExitOk;
    bool outputFailed = false;
    {
        tools::Output out;
        const ReadRange range{filter.hasRange, filter.since, filter.until, settings.scan};
        if (isReport) {
            Reader reader(range, false);
            for (const SourceFile &file : sources.files) {
                const uint64_t from = cursor.startOf(file);
                if (from != UINT64_MAX)
                    reader.add(file, from);
            }
            reader.prepare();
            switch (settings.report) {
            case Report::Count:
                status = reportCount(settings, reader, filter, out);
                break;
            case Report::Stats:
                status = reportStats(settings, reader, filter, out, color);
                break;
            case Report::Values:
                status = reportValues(settings, reader, filter, out, color);
                break;
            case Report::Gaps:
                status = reportGaps(settings, reader, filter, out, color);
                break;
            default:
                status = reportVerify(settings, sources, out, color, problems);
                break;
            }
            problems.insert(problems.end(), reader.problems.begin(), reader.problems.end());
            damaged = reader.damaged;
        } else {
            Printer printer(settings, out, color, filter);
            if (!printer.prepare(error))
                return usageError(error);
            if (settings.follow || !settings.cursorFile.empty())
                installStopSignals();
            View view(settings, sources, filter, printer, out, cursor, range);
            status = view.show() ? tools::ExitOk : tools::ExitNothing;
            problems.insert(problems.end(), view.problems.begin(), view.problems.end());
            damaged = view.damaged;
        }
        out.flush();
        outputFailed = out.error != 0 && !(out.error == EPIPE && pager.child > 0);
    }
    pager.finish();

    if (outputFailed) {
        complain("the output could not be written");
        return tools::ExitPartial;
    }
    if (!settings.quiet) {
        for (const std::string &problem : problems)
            complain(problem);
        for (const Reader::DamagedFile &file : damaged)
            complain(file.path + ": " + std::to_string(file.lines) +
                     (file.lines == 1 ? " damaged line" : " damaged lines") + " left out, at " +
                     std::to_string(file.firstOffset) + " first (see --verify)");
        if (filter.gaveUp())
            complain("a regular expression was too complex for some texts; they count as not matching");
        if (status == tools::ExitNothing && !isReport && problems.empty()) {
            if (sources.files.empty())
                complain("no log files were found");
            else
                complain("no record matches in " + std::to_string(sources.files.size()) +
                         (sources.files.size() == 1 ? " file" : " files"));
        }
    }
    if (!problems.empty())
        return tools::ExitUnreadable;
    if (!damaged.empty() || filter.gaveUp())
        return tools::ExitPartial;
    return status;
}

} // namespace

} // namespace qdlogview

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_DFL); // a reader that has enough ends us silently
    try {
        return qdlogview::run(argc, argv);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "qdlogview: %s\n", failure.what());
        return tools::ExitPartial;
    }
}
