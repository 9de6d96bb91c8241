// SPDX-License-Identifier: Apache-2.0
// qdlogmgr: finds, copies, archives, verifies, removes and begins log files. The program, and
// what its commands share: choosing files, reporting, ending.
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogmgr {

namespace {

// ---- choosing files --------------------------------------------------------------

bool isNamed(const File &file, const std::set<std::string> &names, std::set<std::string> &met) {
    const std::string given = file.path();
    char *real = realpath(given.c_str(), nullptr);
    const std::string path = real != nullptr ? real : given;
    free(real);
    bool named = false;
    for (const std::string &name : {std::string(file.name), given, path}) {
        if (names.count(name) == 0)
            continue;
        met.insert(name);
        named = true;
    }
    return named;
}

} // namespace

Choices chosenFiles(Run &run, bool defaultSurplus) {
    const Options &options = run.options;
    const bool surplusOnly = options.surplusOnly || (defaultSurplus && options.files.empty() &&
                                                     options.olderThan.empty() && !options.keep.has_value());
    std::set<std::string> names;
    for (const std::string &name : options.files) {
        char *real = name.find('/') != std::string::npos ? realpath(name.c_str(), nullptr) : nullptr;
        names.insert(real != nullptr ? real : name);
        free(real);
    }
    std::set<std::string> met;
    Choices choices;
    for (const Series &series : run.catalogue.series) {
        const size_t count = series.count;
        const size_t kept = options.keep.has_value() ? std::min<uint64_t>(*options.keep, count) : 0;
        for (size_t i = 0; i < count; ++i) {
            const File &file = series[i];
            if (!names.empty() && !isNamed(file, names, met))
                continue;
            if ((surplusOnly && !file.surplus) || i >= count - kept ||
                (!options.olderThan.empty() && file.modified >= options.olderThanTime))
                continue;
            choices.push_back({&series, &file});
        }
    }
    for (const std::string &name : names)
        if (met.count(name) == 0)
            run.problems.push_back(name + ": not a file of the series asked for");
    return choices;
}

std::string reasonToKeep(const File &file) {
    if (file.isDoubtful())
        return file.doubt;
    return file.newest ? "the newest of its series" : "";
}

// ---- reporting -------------------------------------------------------------------

std::string timeText(const Run &run, int64_t milliseconds) {
    return tools::formatTime(milliseconds, run.options.zone());
}

void jsonFile(tools::Json &json, const Choice &choice) {
    const Series &series = *choice.series;
    const File &file = *choice.file;
    json.number("product", series.product());
    if (series.isLogset())
        json.text("logset", series.logset());
    else
        json.number("originator", series.originator());
    json.text("path", file.path());
    json.number("size", file.size);
    if (file.hasTimes) {
        json.time("first", file.first);
        json.time("last", file.last);
    } else {
        json.null("first");
        json.null("last");
    }
    json.time("modified", file.modified);
}

Report::Report(Run &theRun) : run(theRun) {
    if (run.options.json)
        json.beginArray();
}

void Report::tell(const char *action, const Choice &choice, const std::string &detail) {
    if (run.options.json) {
        json.beginObject();
        json.text("action", action);
        jsonFile(json, choice);
        if (!detail.empty())
            json.text("detail", detail);
        json.endObject();
        json.pass(run.out);
        return;
    }
    if (run.options.quiet)
        return;
    std::string line;
    tools::appendStyled(line, tools::Style::Bold, action, run.options.color);
    line += " " + tools::escaped(choice.file->path()) + " (" + tools::formatSize(choice.file->size) + ")";
    if (!detail.empty())
        line += ": " + tools::escaped(detail);
    run.out.write(line + "\n");
}

void Report::fail(const char *action, const Choice &choice, const std::string &why) {
    ++run.failures;
    if (run.options.json)
        tell(action, choice, why);
    else
        run.problems.push_back(choice.file->path() + ": " + why);
}

void Report::finish() {
    if (!run.options.json)
        return;
    json.endArray();
    writeLine(run.out, json);
}

// ---- removing one file -----------------------------------------------------------

bool removeFile(const File &file, std::string &error) {
    const std::string path = file.path();
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        error = strerror(errno);
        return false;
    }
    if (status.st_dev != file.device || status.st_ino != file.inode ||
        static_cast<uint64_t>(status.st_size) != file.size ||
        status.st_mtim.tv_sec * 1000 + status.st_mtim.tv_nsec / 1000000 != file.modified) {
        error = "it has changed meanwhile";
        return false;
    }
    if (unlink(path.c_str()) != 0) {
        error = strerror(errno);
        return false;
    }
    return true;
}

// ---- ending ----------------------------------------------------------------------

int finish(Run &run, size_t done) {
    run.out.flush();
    for (const std::string &problem : run.problems)
        std::fprintf(stderr, "qdlogmgr: %s\n", tools::escaped(problem).c_str());
    if (run.failures != 0)
        return tools::EXIT_PARTIAL;
    if (!run.problems.empty())
        return done != 0 ? tools::EXIT_PARTIAL : tools::EXIT_UNREADABLE;
    if (done == 0 && !run.options.quiet)
        std::fprintf(stderr, "qdlogmgr: %s\n",
                     run.catalogue.series.empty() ? "no log files were found" : "no file matches");
    return done != 0 ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

} // namespace qdlogmgr

int main(int argc, char **argv) {
    using namespace qdlogmgr;
    std::setlocale(LC_ALL, "");
    Options options;
    if (const auto status = parseCommandLine(argc, argv, options))
        return *status;
    tools::Output out;
    Run run{options, {}, out, {}, 0};
    int status = tools::EXIT_UNREADABLE;
    if (findSeries(options, run.catalogue, run.problems))
        status = static_cast<const Command *>(options.command)->run(run);
    else
        finish(run, 0);
    if (!out.flush() && out.error != EPIPE) {
        std::fprintf(stderr, "qdlogmgr: the output could not be written: %s\n", strerror(out.error));
        status = tools::EXIT_PARTIAL;
    }
    return status;
}
