// SPDX-License-Identifier: Apache-2.0
// delete, vacuum: what goes. Every file goes through remove() here, which refuses the
// newest of a series and what does not surely belong to it.
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <algorithm>

namespace qdlogmgr {

namespace {

// Removes the file, or says that it would; true when that is done.
bool remove(Run &run, Report &report, const Choice &choice) {
    const std::string reason = reasonToKeep(*choice.file);
    if (!reason.empty()) {
        report.tell("kept", choice, reason);
        return false;
    }
    if (run.options.dryRun) {
        report.tell("would delete", choice);
        return true;
    }
    std::string error;
    if (!removeFile(*choice.file, error)) {
        report.fail("failed", choice, error);
        return false;
    }
    report.tell("deleted", choice);
    return true;
}

void tellSum(Run &run, size_t files, uint64_t bytes) {
    if (!run.options.json && !run.options.quiet && files != 0)
        run.out.write(std::string(run.options.dryRun ? "would free " : "freed ") + tools::formatSize(bytes) +
                      " in " + std::to_string(files) + (files == 1 ? " file\n" : " files\n"));
}

} // namespace

int deleteFiles(Run &run) {
    Report report(run);
    size_t removed = 0;
    uint64_t bytes = 0;
    for (const Choice &choice : chosenFiles(run, true)) {
        if (!remove(run, report, choice))
            continue;
        ++removed;
        bytes += choice.file->size;
    }
    report.finish();
    tellSum(run, removed, bytes);
    return finish(run, removed);
}

int vacuumFiles(Run &run) {
    const Options &options = run.options;
    Report report(run);
    size_t removed = 0;
    uint64_t bytes = 0;
    for (const Series &series : run.catalogue.series) {
        uint64_t size = series.size();
        uint64_t count = series.count;
        for (const File &file : series) {
            const bool tooMuch = !options.vacuumSize.empty() && size > options.vacuumSizeBytes;
            const bool tooMany = options.vacuumCount.has_value() && count > *options.vacuumCount;
            const bool tooOld = !options.vacuumAge.empty() && file.modified < options.vacuumOldest;
            if ((!tooMuch && !tooMany && !tooOld) || !remove(run, report, {&series, &file}))
                continue;
            size -= file.size;
            --count;
            ++removed;
            bytes += file.size;
        }
    }
    report.finish();
    tellSum(run, removed, bytes);
    if (removed == 0 && run.problems.empty() && run.failures == 0 &&
        !run.catalogue.series.empty()) { // which is what was asked for
        if (!options.json && !options.quiet)
            run.out.write("nothing to remove\n");
        return tools::EXIT_OK;
    }
    return finish(run, removed);
}

} // namespace qdlogmgr
