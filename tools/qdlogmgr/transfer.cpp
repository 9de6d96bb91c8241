// SPDX-License-Identifier: Apache-2.0
// copy, archive: what goes elsewhere. A copy counts when it was compared with the file
// byte by byte and is on the disk; an archive removes files only when all are there.
#include "common/exit_codes.h"
#include "common/result_text.h"
#include "common/unpack.h"
#include "qdlogmgr/commands.h"
#include "qdlogmgr/copy.h"
#include "qdlogmgr/descriptor.h"
#include "qdlogmgr/pack.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
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
            (packs ? isSamePacked(file.path, destination, error)
                   : isSame(file.path, destination, false, error)))
            return true; // left by an earlier run that was interrupted
        if (!options.replace) {
            error = destination + " exists";
            return false;
        }
    }
    if (options.link) {
        const uint32_t result = zoltLogCopyFileEx(file.path.c_str(), options.to.c_str());
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
        return packFile(file.path, destination, error) && isSamePacked(file.path, destination, error);
    return copyFile(file.path, destination, options.replace, error) &&
           isSame(file.path, destination, !archive, error);
}

bool syncDirectory(const std::string &directory, std::string &error) {
    const Descriptor descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.number >= 0 && fsync(descriptor.number) == 0)
        return true;
    error = strerror(errno);
    return false;
}

bool isDirectory(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Files of two directories may have one name: the second must not replace the first.
bool isNameTaken(std::set<std::string> &taken, const Choice &choice, std::string &error) {
    if (taken.insert(choice.file->name).second)
        return false;
    error = "another file of this name is transferred";
    return true;
}

} // namespace

int copyFiles(Run &run) {
    const Options &options = run.options;
    if (!options.dryRun && !isDirectory(options.to)) {
        run.problems.push_back(options.to + ": not a directory");
        return finish(run, 0);
    }
    Report report(run);
    std::set<std::string> taken;
    size_t copied = 0;
    for (const Choice &choice : chosenFiles(run, false)) {
        std::string error;
        if (!isNameTaken(taken, choice, error) &&
            (options.dryRun || transfer(run, *choice.file, false, error))) {
            report.tell(options.dryRun ? "would copy" : "copied", choice);
            ++copied;
            continue;
        }
        report.fail("failed", choice, error);
    }
    std::string error;
    if (!options.dryRun && copied != 0 && !syncDirectory(options.to, error))
        run.problems.push_back(options.to + ": " + error);
    report.finish();
    return finish(run, copied);
}

int archiveFiles(Run &run) {
    const Options &options = run.options;
    if (!options.dryRun && !isDirectory(options.to)) {
        run.problems.push_back(options.to + ": not a directory");
        return finish(run, 0);
    }
    Report report(run);
    std::set<std::string> taken;
    std::vector<Choice> there;
    for (const Choice &choice : chosenFiles(run, true)) {
        const std::string reason = reasonToKeep(*choice.file);
        if (!reason.empty()) {
            report.tell("kept", choice, reason);
            continue;
        }
        std::string error;
        if (!isNameTaken(taken, choice, error) &&
            (options.dryRun || transfer(run, *choice.file, true, error))) {
            there.push_back(choice);
            continue;
        }
        report.fail("failed", choice, error);
    }
    std::string error;
    if (!options.dryRun && !there.empty() && !syncDirectory(options.to, error))
        run.problems.push_back(options.to + ": " + error);

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
