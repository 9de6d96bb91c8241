// SPDX-License-Identifier: Apache-2.0
// copy, archive: what goes elsewhere. A copy counts when it was compared with the file
// byte by byte and is on the disk; an archive removes files only when all are there.
#include "common/exit_codes.h"
#include "common/files.h"
#include "common/result_text.h"
#include "common/unpack.h"
#include "qdlogmgr/commands.h"
#include "qdlogmgr/copy.h"
#include "qdlogmgr/pack.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogmgr {

namespace {

bool exists(const std::string &path, struct stat &status) {
    return lstat(path.c_str(), &status) == 0;
}

// Puts the file into the directory and makes sure that it is there.
// An archive must be exact, and may find what an interrupted run has left.
bool transfer(const Run &run, const File &file, bool archive, std::string &error) {
    const Options &options = run.options;
    const std::string path = file.path();
    const bool packs = options.compress && tools::packedSuffix(file.name).empty();
    const std::string destination = options.to + "/" + file.name + (packs ? PACKED_SUFFIX : "");
    struct stat status;
    if (exists(destination, status)) {
        if (status.st_dev == file.device && status.st_ino == file.inode) {
            if (options.link)
                return true;
            error = "it is already in " + options.to;
            return false;
        }
        if (archive && !options.link &&
            (packs ? isSamePacked(path, destination, error) : isSame(path, destination, false, error)))
            return true; // left by an earlier run that was interrupted
        if (!options.replace) {
            error = destination + " exists";
            return false;
        }
    }
    if (options.link) {
        const uint32_t result = zoltLogCopyFileEx(path.c_str(), options.to.c_str());
        if (result != ZOLTLOG_OK) {
            error = tools::resultMessage(result);
            return false;
        }
        if (exists(destination, status) && status.st_dev == file.device && status.st_ino == file.inode)
            return true;
        error = "the link does not lead to the file";
        return false;
    }
    if (packs)
        return packFile(path, destination, error) && isSamePacked(path, destination, error);
    return copyFile(path, destination, options.replace, error) && isSame(path, destination, !archive, error);
}

// False, and told, when there is nowhere to put copies.
bool hasDestination(Run &run) {
    struct stat status;
    if (run.options.dryRun || (stat(run.options.to.c_str(), &status) == 0 && S_ISDIR(status.st_mode)))
        return true;
    run.problems.push_back(run.options.to + ": not a directory");
    return false;
}

// Brings the names of new copies to the disk.
void syncDestination(Run &run) {
    if (!run.options.dryRun && !tools::syncDirectory(run.options.to))
        run.problems.push_back(run.options.to + ": " + std::strerror(errno));
}

// Files of two directories may have one name: the second must not replace the first.
struct TakenNames {
    explicit TakenNames(const Catalogue &catalogue) : isPossible(hasSeveralDirectories(catalogue)) {}

    bool take(const Choice &choice, std::string &error) {
        if (!isPossible || names.insert(choice.file->name).second)
            return true;
        error = "another file of this name is transferred";
        return false;
    }

  private:
    static bool hasSeveralDirectories(const Catalogue &catalogue) { // they are in their order
        return !catalogue.series.empty() &&
               catalogue.series.front().directory() != catalogue.series.back().directory();
    }

    const bool isPossible;
    std::set<std::string_view> names;
};

} // namespace

int copyFiles(Run &run) {
    const Options &options = run.options;
    if (!hasDestination(run))
        return finish(run, 0);
    Report report(run);
    TakenNames taken(run.catalogue);
    size_t copied = 0;
    for (const Choice &choice : chosenFiles(run, false)) {
        std::string error;
        if (taken.take(choice, error) && (options.dryRun || transfer(run, *choice.file, false, error))) {
            report.tell(options.dryRun ? "would copy" : "copied", choice);
            ++copied;
            continue;
        }
        report.fail("failed", choice, error);
    }
    if (copied != 0)
        syncDestination(run);
    report.finish();
    return finish(run, copied);
}

int archiveFiles(Run &run) {
    const Options &options = run.options;
    if (!hasDestination(run))
        return finish(run, 0);
    Report report(run);
    TakenNames taken(run.catalogue);
    Choices there;
    for (const Choice &choice : chosenFiles(run, true)) {
        const std::string reason = reasonToKeep(*choice.file);
        if (!reason.empty()) {
            report.tell("kept", choice, reason);
            continue;
        }
        std::string error;
        if (taken.take(choice, error) && (options.dryRun || transfer(run, *choice.file, true, error))) {
            there.push_back(choice);
            continue;
        }
        report.fail("failed", choice, error);
    }
    if (!there.empty())
        syncDestination(run);

    std::string error;
    size_t done = 0;
    const bool complete = run.problems.empty() && run.failures == 0;
    for (const Choice &choice : there) {
        if (options.dryRun) {
            report.tell("would archive", choice);
            ++done;
        } else if (!complete) {
            report.tell("copied, not removed", choice, "not all files could be archived");
        } else if (removeFile(*choice.file, error)) {
            report.tell("archived", choice);
            ++done;
        } else {
            report.fail("copied, not removed", choice, error);
        }
    }
    report.finish();
    return finish(run, done);
}

} // namespace qdlogmgr
