// SPDX-License-Identifier: Apache-2.0
// rotate: begins the next file of a series by hand.
//
// The new file is made first, as a writer makes it: under the lock of the directory, by its
// name in the series, with its header line in it before it has the name. Then the file before is
// ended by the permission bit that writers look for (see src/write_file.h), and what still writes
// to it is waited for. However far that gets, no record is lost: until the bit is set the
// programs that have the file open write to it, and go on in the new one then.
//
// Sections: names; the new file; one series; who still writes.
#include "common/exit_codes.h"
#include "common/files.h"
#include "common/record_file.h"
#include "qdlogmgr/commands.h"
#include "qdlogmgr/descriptor.h"
#include "src/log_name.h"
#include "src/write_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace qdlogmgr {

namespace {

constexpr mode_t PERMISSIONS = 07777;

constexpr int64_t NS_PER_MS = 1000000;
// A writer that writes looks at its file within LOOK_EVERY_NS, by a clock that is some ms late.
constexpr int64_t LEAVE_WITHIN_MS = LOOK_EVERY_NS / NS_PER_MS + 600;
// A file that does not grow for so long is held by writers that will look before they write.
constexpr int64_t QUIET_FOR_MS = 1000;
constexpr int64_t LOCK_WITHIN_MS = 5000;
constexpr long LOOK_AGAIN_NS = 5 * NS_PER_MS;

// Old files that are open while it is waited for their writers.
constexpr size_t MOST_OPEN = 200;
constexpr int NAMES_TRIED = 100;

int64_t nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / NS_PER_MS;
}

void pause() {
    const timespec time{0, LOOK_AGAIN_NS};
    nanosleep(&time, nullptr);
}

// ---- names -----------------------------------------------------------------------

std::string textOf(const LogName &name) {
    char text[256];
    const size_t length = formLogName(text, sizeof text, &name);
    return std::string(text, length);
}

LogFileDate dateOf(time_t moment) {
    tm local{};
    localtime_r(&moment, &local);
    return {local.tm_year - 100, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec};
}

auto orderOf(const LogName &name) {
    const LogFileDate &date = name.date;
    const bool isLogset = name.set != nullptr;
    return std::make_tuple(date.year, date.month, date.day, isLogset ? date.hour : 0,
                           isLogset ? date.minute : 0, isLogset ? date.second : 0, name.counter);
}

// The name that a writer of the latest file would give the next one now; "" when it would not
// be behind that one in the series.
std::string nextName(const LogName &latest, time_t now) {
    LogName next = latest;
    next.date = dateOf(now);
    if (latest.set == nullptr) {
        const bool sameDay = next.date.day == latest.date.day && next.date.month == latest.date.month;
        next.counter = sameDay ? latest.counter + 1 : 0;
    }
    return orderOf(latest) < orderOf(next) ? textOf(next) : "";
}

// What the library takes for the latest file of the series; "" when there is none of this host.
std::string latestOf(const File &file) {
    LogFileEntry *entry = nullptr;
    const auto now = static_cast<uint64_t>(time(nullptr));
    const bool found =
        file.logset != nullptr
            ? zoltLogFindLatestLogSL(file.directory->c_str(), file.product, file.logset, 0, now, &entry) != 0
            : zoltLogFindLatestLog(file.directory->c_str(), file.product, file.originator, 0, now, &entry) !=
                  0;
    std::string name = found ? entry->name : "";
    zoltLogFree(entry);
    return name;
}

// ---- the new file ----------------------------------------------------------------

std::string headerLine(const LogName &name) {
    LogFileHeader host{};
    if (gethostname(host.hostName, sizeof host.hostName - 1) != 0)
        host.hostName[0] = '\0';
    HeaderLine header{};
    header.version = name.set != nullptr ? ZOLTLOG_RECORD_VERSION_LOGSET : ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    header.product = name.product;
    header.originator = name.originator;
    header.created = static_cast<uint64_t>(time(nullptr));
    header.hasZone = true;
    header.zone = getLocalTZOffsetFromGMT();
    header.host = host.hostName;
    header.hostLength = std::strlen(host.hostName);
    char line[HEADER_LINE_SIZE];
    return std::string(line, formHeaderLine(line, &header));
}

// Owner, group and permissions of the one before; and whether the file system keeps the bit.
bool resemble(int file, const struct stat &old) {
    struct stat status {};
    const mode_t mode = old.st_mode & PERMISSIONS & ~ENDED;
    if (fstat(file, &status) != 0)
        return false;
    if ((status.st_uid != old.st_uid || status.st_gid != old.st_gid) &&
        fchown(file, status.st_uid != old.st_uid ? old.st_uid : static_cast<uid_t>(-1), old.st_gid) != 0)
        return false;
    if (fchmod(file, mode | ENDED) != 0 || fstat(file, &status) != 0)
        return false;
    errno = EOPNOTSUPP;
    return (status.st_mode & ENDED) != 0 && fchmod(file, mode) == 0;
}

bool writeWhole(int file, const std::string &text) {
    errno = ENOSPC;
    return write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// A file in the directory under its name; false with errno, EEXIST when the name is taken.
bool makeFile(int directory, const std::string &name, const std::string &header, const struct stat &old) {
    const Descriptor unnamed(openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (unnamed.number >= 0) {
        if (!resemble(unnamed.number, old) || !writeWhole(unnamed.number, header))
            return false;
        const std::string itself = "/proc/self/fd/" + std::to_string(unnamed.number);
        if (linkat(AT_FDCWD, itself.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return true;
        if (errno == EEXIST)
            return false;
    }
    // Under a name that writers know as one of a file that is being made, and do not touch
    // while it is held.
    std::string temporary;
    int made = -1;
    for (int number = 0; number < NAMES_TRIED && made == -1; ++number) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        temporary = ".new-" + std::to_string(getpid()) + "-" + std::to_string(now.tv_nsec) + "-" +
                    std::to_string(number);
        made =
            openat(directory, temporary.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR);
        if (made == -1 && errno != EEXIST)
            return false;
    }
    const Descriptor named(made);
    if (made == -1)
        return false;
    (void)flock(made, LOCK_SH | LOCK_NB);
    bool done = resemble(made, old) && writeWhole(made, header);
    if (done) {
        done = linkat(directory, temporary.c_str(), directory, name.c_str(), 0) == 0;
        if (!done && errno != EEXIST)
            done = renameat2(directory, temporary.c_str(), directory, name.c_str(), RENAME_NOREPLACE) == 0;
    }
    const int error = errno;
    (void)unlinkat(directory, temporary.c_str(), 0);
    errno = error;
    return done;
}

// ---- one series ------------------------------------------------------------------

// A file that was ended, until nobody writes to it.
struct Left {
    Choice choice;
    std::unique_ptr<Descriptor> file;
    int64_t since; // ms
    uint64_t size = 0;
};

enum class Done { YES, NEEDLESS, FAILED, AGAIN };

struct Rotation {
    Run &run;
    Report report;
    std::vector<Left> left;
    size_t done = 0;
};

bool lockDirectory(int directory) {
    for (const int64_t start = nowMs(); flock(directory, LOCK_EX | LOCK_NB) != 0; pause()) {
        if (errno != EWOULDBLOCK)
            return true; // no locks are to be had, and writers do without them, too
        if (nowMs() - start >= LOCK_WITHIN_MS)
            return false;
    }
    return true;
}

const File *findFile(const Series &series, const std::string &name) {
    const auto found =
        std::find_if(series.begin(), series.end(), [&](const File &file) { return name == file.name; });
    return found != series.end() ? &*found : nullptr;
}

// Waits for the second behind that of a log set's file, as long as that is the clock's.
void waitForNextSecond(const LogName &latest) {
    const int64_t start = nowMs();
    while (latest.set != nullptr && nowMs() - start < 1000 && nextName(latest, time(nullptr)).empty())
        pause();
}

// `what` tells the new file's name, or why there is none.
Done rotateFile(Rotation &rotation, const Choice &choice, std::string &what) {
    const File &file = *choice.file;
    const bool dry = rotation.run.options.dryRun;
    const auto failed = [&](int error) {
        what = strerror(error);
        return Done::FAILED;
    };
    auto old = std::make_unique<Descriptor>(tools::openToRead(file.path(), O_NOFOLLOW));
    const Descriptor directory(open(file.directory->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (old->number < 0 || directory.number < 0 || fstat(old->number, &status) != 0)
        return failed(errno);
    LogName latest;
    if (!parseLogName(file.name, std::strlen(file.name), &latest))
        return failed(EINVAL);
    tools::RecordFile opened;
    if (!opened.open(file.path()))
        return failed(errno);
    const bool isEnded = (status.st_mode & ENDED) != 0;
    if (static_cast<uint64_t>(status.st_size) <= opened.dataBegin && !isEnded) {
        what = "nothing was written to it yet";
        ++rotation.done; // it is new
        return Done::NEEDLESS;
    }
    // Asks whether the bit may be set.
    if (!dry && fchmod(old->number, status.st_mode & PERMISSIONS) != 0) {
        what = errno == EPERM ? "only its owner may end it" : strerror(errno);
        return Done::FAILED;
    }
    waitForNextSecond(latest);
    if (!dry && !lockDirectory(directory.number)) {
        what = "the directory is locked by another program";
        return Done::FAILED;
    }
    if (latestOf(file) != file.name)
        return Done::AGAIN;
    const std::string name = nextName(latest, time(nullptr));
    if (name.empty()) {
        what = "its name tells a time to come";
        return Done::FAILED;
    }
    what = name;
    if (dry)
        return Done::YES;
    if (!makeFile(directory.number, name, headerLine(latest), status))
        return errno == EEXIST ? Done::AGAIN : failed(errno);
    if (fchmod(old->number, (status.st_mode & PERMISSIONS) | ENDED) != 0)
        return failed(errno);
    rotation.left.push_back({choice, std::move(old), nowMs()});
    return Done::YES;
}

void rotateSeries(Rotation &rotation, const Series &series) {
    std::string what;
    for (int attempt = 0; attempt < NAMES_TRIED; ++attempt) {
        const File &any = *series.first;
        const std::string latest = latestOf(any);
        const File *file = findFile(series, latest);
        const Choice choice{&series, file != nullptr ? file : &series[series.count - 1]};
        if (latest.empty()) {
            rotation.report.tell("kept", choice, "another host writes the series");
            return;
        }
        if (file == nullptr) { // made since the files were looked for
            rotation.report.tell("kept", choice, latest + " was begun meanwhile");
            ++rotation.done;
            return;
        }
        if (file->isDoubtful()) {
            rotation.report.tell("kept", choice, file->doubt);
            return;
        }
        switch (rotateFile(rotation, choice, what)) {
        case Done::YES:
            ++rotation.done;
            rotation.report.tell(rotation.run.options.dryRun ? "would rotate" : "rotated", choice, what);
            return;
        case Done::NEEDLESS:
            rotation.report.tell("kept", choice, what);
            return;
        case Done::FAILED:
            rotation.report.fail("failed", choice, what);
            return;
        case Done::AGAIN:
            break;
        }
    }
}

// ---- who still writes ------------------------------------------------------------

uint64_t sizeOf(const Descriptor &file) {
    struct stat status {};
    return fstat(file.number, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

// Nobody has the file open for writing, as far as locks tell.
bool isLeft(const Descriptor &file) {
    if (flock(file.number, LOCK_EX | LOCK_NB) != 0)
        return false;
    (void)flock(file.number, LOCK_UN);
    return true;
}

// Until the writers have left the files; what is written to all the same is told.
void waitForWriters(Rotation &rotation) {
    std::vector<Left> &left = rotation.left;
    const auto drop = [&](auto isDone) {
        left.erase(std::remove_if(left.begin(), left.end(), isDone), left.end());
    };
    const auto waitUntil = [&](int64_t ms) {
        for (;;) {
            drop([](const Left &each) { return isLeft(*each.file); });
            if (left.empty() || nowMs() >= ms)
                return;
            pause();
        }
    };
    if (left.empty())
        return;
    const int64_t latest = std::max_element(left.begin(), left.end(), [](const Left &a, const Left &b) {
                               return a.since < b.since;
                           })->since;
    waitUntil(latest + LEAVE_WITHIN_MS);
    for (Left &each : left)
        each.size = sizeOf(*each.file);
    waitUntil(nowMs() + QUIET_FOR_MS);
    for (const Left &each : left)
        if (sizeOf(*each.file) != each.size)
            rotation.report.fail("failed", each.choice, "a program goes on writing to it");
    left.clear();
}

} // namespace

int rotateFiles(Run &run) {
    Rotation rotation{run, Report(run), {}, 0};
    for (const Series &series : run.catalogue.series) {
        rotateSeries(rotation, series);
        if (rotation.left.size() >= MOST_OPEN)
            waitForWriters(rotation);
    }
    waitForWriters(rotation);
    rotation.report.finish();
    return finish(run, rotation.done);
}

} // namespace qdlogmgr
