// copy, archive: what goes elsewhere. A copy counts when it was compared with the file
// byte by byte and is on the disk; an archive removes files only when all are there.
#include "common/exit_codes.h"
#include "common/result_text.h"
#include "qdlogmgr/commands.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogmgr {

namespace {

struct Descriptor {
    explicit Descriptor(int theNumber) : number(theNumber) {}
    ~Descriptor() {
        if (number >= 0)
            close(number);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    const int number;
};

constexpr size_t COMPARE_BLOCK = 65536;

// Reads until the block is full or the file ends; -1 after an error.
ssize_t readBlock(int descriptor, char *block) {
    size_t have = 0;
    while (have < COMPARE_BLOCK) {
        const ssize_t count = read(descriptor, block + have, COMPARE_BLOCK - have);
        if (count == 0)
            break;
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -1;
        have += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(have);
}

// Whether the copy holds the file's bytes; brings it to the disk. A file that is being
// written may have grown since it was copied.
bool isSame(const std::string &one, const std::string &other, bool mayHaveGrown, std::string &error) {
    const Descriptor a(open(one.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const Descriptor b(open(other.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (a.number < 0 || b.number < 0) {
        error = strerror(errno);
        return false;
    }
    std::string blockA(COMPARE_BLOCK, '\0');
    std::string blockB(COMPARE_BLOCK, '\0');
    for (;;) {
        const ssize_t countA = readBlock(a.number, blockA.data());
        const ssize_t countB = readBlock(b.number, blockB.data());
        if (countA < 0 || countB < 0) {
            error = strerror(errno);
            return false;
        }
        const bool grown = mayHaveGrown && countA > countB;
        if ((countA != countB && !grown) ||
            memcmp(blockA.data(), blockB.data(), static_cast<size_t>(countB)) != 0) {
            error = "the copy differs from the file";
            return false;
        }
        if (countB == 0)
            break;
    }
    if (fsync(b.number) != 0) {
        error = strerror(errno);
        return false;
    }
    return true;
}

bool exists(const std::string &path, struct stat &status) {
    return lstat(path.c_str(), &status) == 0;
}

// Puts the file into the directory and makes sure that it is there.
// An archive must be exact, and may find what an interrupted run has left.
bool transfer(const Run &run, const File &file, bool archive, std::string &error) {
    const Options &options = run.options;
    const std::string destination = options.to + "/" + file.name;
    struct stat status;
    if (exists(destination, status)) {
        if (status.st_dev == file.device && status.st_ino == file.inode) {
            if (options.link)
                return true;
            error = "it is already in " + options.to;
            return false;
        }
        if (archive && !options.link && isSame(file.path, destination, false, error))
            return true; // left by an earlier run that was interrupted
        if (!options.replace) {
            error = destination + " exists";
            return false;
        }
    }
    const uint32_t result = options.link ? zoltLogCopyFileEx(file.path.c_str(), options.to.c_str())
                                         : zoltLogCopyFile(file.path.c_str(), options.to.c_str());
    if (result != ZOLTLOG_OK) {
        error = tools::resultMessage(result);
        return false;
    }
    if (options.link) {
        if (exists(destination, status) && status.st_dev == file.device && status.st_ino == file.inode)
            return true;
        error = "the link does not lead to the file";
        return false;
    }
    return isSame(file.path, destination, !archive, error);
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
