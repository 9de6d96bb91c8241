// SPDX-License-Identifier: Apache-2.0
// Opening the files of a series, for the writer: resumes its latest file or starts the
// next one, and tells when a LocalTime or Periodic rollover of it is due. On failure no
// file is open and the state still tells of the one before.
//
//   Schedule       when the next timed rollover is due
//   Line ends      files that end inside a line
//   Names          the next file's, the latest file's, and which is ahead
//   Existing files opening one, holding it, what its header tells
//   New files      making one unless the series is ahead
#include "write_file.h"

#include "lockUnix.h"
#include "os.h"
#include "read.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t MS_PER_SECOND = 1000;
constexpr int64_t SECONDS_PER_DAY = 86400;

// Creation times beyond this one do not come from a clock; with it, no sum here overflows.
constexpr int64_t LATEST_START_TIME = int64_t{1} << 52;

// Rounds of opening against others who create and remove the same name. A name that
// cannot be opened although it is taken (a symbolic link to nothing) ends here too.
constexpr int OPEN_ATTEMPTS = 16;

// A file that ends inside a line is looked at again in case its writer is not done. Where
// it can be waited for that a write under way is done, fewer looks are enough: they are for
// a writer that was told of less than all and goes on with the rest.
constexpr int LINE_END_LOOKS = 10;
constexpr int LINE_END_LOOKS_BETWEEN_WRITES = 2;
constexpr int LINE_END_LOOKS_AT_MOST = 50; // at a file that others go on writing to
constexpr long LINE_END_WAIT_NS = 2000000;

// A file that a recycler is about to remove is looked at again.
constexpr int HOLD_LOOKS = 20;
constexpr long HOLD_WAIT_NS = 1000000;

// ---- schedule --------------------------------------------------------------------------

int64_t nextLocalTimeRollover(const LogFileState *state, int64_t now) {
    constexpr uint64_t LAST_SECOND = 366 * SECONDS_PER_DAY; // later times are none of a day
    const int64_t start = state->fileStartTime;
    tm local;
    if (zoltLogOs_localtime_r(start, &local) == nullptr)
        return now;
    const uint64_t time = state->rolloverTime < LAST_SECOND ? state->rolloverTime : LAST_SECOND;
    local.tm_hour = static_cast<int>(time / 3600);
    local.tm_min = static_cast<int>(time % 3600 / 60);
    local.tm_sec = 0;
    local.tm_isdst = -1; // the wall clock at that hour, whatever it was at the file's start
    const int64_t instant = mktime(&local);
    if (now < instant)
        return instant;
    if (start < instant || now - start >= SECONDS_PER_DAY)
        return now;
    // KEPT: a day is 86400 seconds, so the day after a change of daylight saving time
    // rolls an hour early or late. Pinned by WriteFileTime.NextDayIsAlways86400Seconds.
    if (start < instant + SECONDS_PER_DAY)
        return instant + SECONDS_PER_DAY;
    // The file was started after that already, in the last hour of a day of 25. It would
    // be due at once, and so would every file made in its place until the day is over.
    ++local.tm_mday;
    local.tm_isdst = -1;
    return mktime(&local);
}

} // namespace

void setNextRollover(LogFileState *state, int64_t now) {
    if ((state->rolloverMode & ZOLTLOG_ROLLOVER_LOCAL_TIME) != 0)
        state->nextRolloverTime = nextLocalTimeRollover(state, now);
    else if ((state->rolloverMode & ZOLTLOG_ROLLOVER_PERIODIC) != 0 &&
             __builtin_add_overflow(state->fileStartTime, state->rolloverPeriod, &state->nextRolloverTime))
        state->nextRolloverTime = INT64_MAX;
}

// ---- line ends -------------------------------------------------------------------------

namespace {

bool lacksLineFeed(int descriptor, off_t *size) {
    struct stat status;
    char last = '\n';
    if (fstat(descriptor, &status) != 0 || status.st_size == 0)
        return false;
    *size = status.st_size;
    return pread(descriptor, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

// Returns when a write that was under way is done: allocating what is allocated changes
// nothing, but has to wait its turn. False where that cannot be had.
bool waitForWrite(int descriptor) {
    return fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, 1) == 0;
}

} // namespace

bool endsInsideLine(int descriptor) {
    off_t size = 0;
    off_t before = -1;
    int same = 0;
    int enough = LINE_END_LOOKS;
    for (int look = 0; look < LINE_END_LOOKS_AT_MOST; ++look) {
        if (!lacksLineFeed(descriptor, &size))
            return false;
        same = size == before ? same + 1 : 0; // else somebody is at it
        before = size;
        if (same >= enough) // at once, since the caller is to end the line before another goes on in it
            return true;
        enough = waitForWrite(descriptor) ? LINE_END_LOOKS_BETWEEN_WRITES : LINE_END_LOOKS;
        sleepNs(LINE_END_WAIT_NS);
    }
    return false; // others go on writing
}

// ---- names -----------------------------------------------------------------------------

namespace {

// The file that is to be opened.
struct Target {
    LogPath path;
    LogFileDate date;
    int64_t counter;
    int64_t now;
    int64_t nameStart;  // log set: the start that the name tells
    int64_t nameTime;   // log set: Writer::nameTime
    int64_t nameSecond; // log set: Writer::nameSecond
};

// What became of it.
struct Opened {
    LogFileHeader header; // of version 0 when the file has none that can be read
    int64_t startTime;
    uint64_t size;
    bool readable;
    bool held;
    bool marked;
    bool torn;
    bool ended;
    bool created;
};

LogFileDate dateOf(const tm *local) {
    return {local->tm_year - 100, local->tm_mon + 1, local->tm_mday,
            local->tm_hour,       local->tm_min,     local->tm_sec};
}

// The second in a log set's name, whether it is of summer or standard time; fallback for a
// name that has none. Of an hour that comes twice it does not tell which is meant.
int64_t secondOfName(const char *text, int64_t fallback) {
    LogName name;
    if (!parseLogName(text, strlen(text), &name))
        return fallback;
    const LogFileDate &date = name.date;
    tm local = {};
    local.tm_year = date.year + 100;
    local.tm_mon = date.month - 1;
    local.tm_mday = date.day;
    local.tm_hour = date.hour;
    local.tm_min = date.minute;
    local.tm_sec = date.second;
    local.tm_isdst = -1;
    return mktime(&local);
}

LogName seriesName(const LogFileState *state, uint64_t host) {
    LogName name = {};
    name.product = state->productId;
    if (state->isLogset != 0) {
        name.set = state->logsetFilename;
        name.setLength = strlen(state->logsetFilename);
    } else {
        name.originator = state->fileOriginatorId;
        name.host = host;
    }
    return name;
}

// KEPT: only day and month are compared, so that a file started on the same day of
// another year continues that year's counter. Pinned by WriteFileName.CounterIgnoresTheYear.
// Counters are unsigned in names, so the sum may pass the largest signed number; false
// after the last of all numbers.
bool nextCounter(const Writer *writer, const LogFileDate *today, int64_t *counter) {
    const LogFileState *state = writer->state;
    *counter = 0;
    if (state->date.day != today->day || state->date.month != today->month)
        return true;
    *counter = state->counter;
    return writer->sameName || !__builtin_add_overflow(static_cast<uint64_t>(state->counter), uint64_t{1},
                                                       reinterpret_cast<uint64_t *>(counter));
}

// The stamp of a log set's name as the search for the latest file takes it.
int64_t timeOfName(const char *name) {
    uint64_t productId = 0;
    char set[LOGSET_NAME_ROOM] = {};
    char dateTime[DATE_TIME_ROOM] = {};
    return getSLidfromfilename(name, &productId, set, dateTime) != 0 ? convert_time(dateTime) : -1;
}

uint32_t chooseNextFile(const Writer *writer, uint64_t host, Target *target) {
    const LogFileState *state = writer->state;
    tm local;
    *target = {};
    target->now = time(nullptr);
    if (zoltLogOs_localtime_r(target->now, &local) == nullptr)
        return ZOLTLOG_FAILED;
    target->date = dateOf(&local);
    if (!nextCounter(writer, &target->date, &target->counter))
        return ZOLTLOG_OPEN_FAILED;
    LogName name = seriesName(state, host);
    name.date = target->date;
    name.counter = static_cast<uint64_t>(target->counter);
    if (!formPath(&target->path, state, &name))
        return ZOLTLOG_OPEN_FAILED;
    if (state->isLogset != 0) {
        target->nameStart = target->now;
        target->nameTime = timeOfName(target->path.text + strlen(state->directory));
        target->nameSecond = target->now;
    }
    return ZOLTLOG_OK;
}

// The latest file, of which the search has told the name.
bool chooseLatestFile(const LogFileState *state, const LatestLog *latest, Target *target) {
    *target = {};
    target->now = time(nullptr);
    target->counter = state->counter;
    if (state->isLogset != 0) {
        target->nameStart = secondOfName(latest->name, latest->time);
        target->nameTime = latest->time;
        target->nameSecond = -1;
    } else {
        const char *rest = afterThreeIds(latest->name);
        auto counter = static_cast<uint64_t>(state->counter);
        if (rest != nullptr && scanDateAndCounter(rest, CounterDigits::ALL, &target->date, &counter))
            target->counter = static_cast<int64_t>(counter);
    }
    return formExistingPath(&target->path, state, latest->name);
}

bool isSameDay(const LogFileDate &a, const LogFileDate &b) {
    return a.year == b.year && a.month == b.month && a.day == b.day;
}

bool isLater(const Target *a, const LogFileDate &date, int64_t counter) {
    const int64_t fields[][2] = {
        {a->date.year, date.year}, {a->date.month, date.month}, {a->date.day, date.day}};
    for (const auto &field : fields)
        if (field[0] != field[1])
            return field[0] > field[1];
    return static_cast<uint64_t>(a->counter) > static_cast<uint64_t>(counter);
}

// Whether the series has gone on to the file without this writer, whose next file would be
// the wanted one.
bool isAhead(const Writer *writer, const Target *file, const Target *wanted) {
    const LogFileState *state = writer->state;
    if (!writer->opened)
        return true; // it has none yet
    if (state->isLogset != 0)
        return file->nameTime > writer->nameTime;
    if (isLater(file, state->date, state->counter))
        return true;
    // After the clock was set back: the counters of that day were made before.
    return isSameDay(file->date, wanted->date) && isLater(file, wanted->date, wanted->counter);
}

// ---- existing files ----------------------------------------------------------------------

// In a directory that all may write, only a file of this user, of the directory's owner or
// of root is continued: anybody could have put it there to read along.
bool isTrusted(const LogFileState *state, const struct stat &file) {
    struct stat directory;
    if (file.st_uid == geteuid() || file.st_uid == 0 || stat(state->directory, &directory) != 0)
        return true;
    return (directory.st_mode & S_IWOTH) == 0 || file.st_uid == directory.st_uid;
}

// Takes hold and mark on the file that was just opened. False: it is being removed. Somebody
// who is no recycler may keep the locks; then the file is written to without a hold.
bool hold(const LogFileState *state, int descriptor, Opened *opened) {
    struct stat status;
    opened->readable = (fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDWR;
    for (int look = 0;; ++look) {
        const Taken hold = takeHold(descriptor);
        const Taken mark = takeMark(descriptor, opened->readable);
        if (fstat(descriptor, &status) == 0) {
            opened->size = static_cast<uint64_t>(status.st_size);
            opened->ended = isEnded(state, status);
            if (status.st_nlink == 0)
                return false;
        }
        opened->held = hold != Taken::ByAnother && mark != Taken::ByAnother;
        opened->marked = mark == Taken::YES;
        if (opened->held || look == HOLD_LOOKS)
            return true;
        sleepNs(HOLD_WAIT_NS);
    }
}

// Opens the target for appending if it exists; a result of zoltLogOs_open.
int32_t openExisting(LogFileState *state, const char *path, Opened *opened) {
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        int descriptor;
        const int32_t result = openDescriptor(path, OS_MODE_RESUME, 0, &descriptor);
        if (result != ZOLTLOG_OS_OK)
            return result;
        struct stat status;
        if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || !isTrusted(state, status)) {
            close(descriptor);
            return ZOLTLOG_OS_OPEN_FAILED;
        }
        if (hold(state, descriptor, opened)) {
            (void)zoltLogOs_initfilehandle(&state->file);
            state->file.descriptor = descriptor;
            return ZOLTLOG_OS_OK;
        }
        close(descriptor);
    }
    return ZOLTLOG_OS_OPEN_FAILED;
}

// What the opened file tells of itself. One that may not be read counts as this writer's,
// started now.
void learnFile(LogFileState *state, const Target *target, Opened *opened) {
    opened->startTime = target->now;
    bool told = false;
    if (!opened->readable) {
        opened->header.version =
            state->isLogset != 0 ? ZOLTLOG_RECORD_VERSION_LOGSET : ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    } else {
        told = ReadHeaderEx(&state->file, &opened->header) == ZOLTLOG_OK &&
               opened->header.creationTime <= static_cast<uint64_t>(LATEST_START_TIME);
        opened->torn = endsInsideLine(state->file.descriptor);
    }
    if (state->isLogset != 0)
        opened->startTime = target->nameStart;
    else if (told)
        opened->startTime = static_cast<int64_t>(opened->header.creationTime);
}

int32_t resume(LogFileState *state, const Target *target, Opened *opened) {
    *opened = {};
    const int32_t result = openExisting(state, target->path.text, opened);
    if (result == ZOLTLOG_OS_OK)
        learnFile(state, target, opened);
    return result;
}

// ---- new files ---------------------------------------------------------------------------

// Opens the file that was just made by its name: the system shows one that was made without
// a name, and the descriptor of that time, as deleted. One that this process may not open
// goes on as it was made.
void takeName(LogFileState *state, const char *path, Opened *opened) {
    const int made = state->file.descriptor;
    struct stat before;
    struct stat after;
    if (openExisting(state, path, opened) == ZOLTLOG_OS_OK) {
        if (fstat(made, &before) == 0 && fstat(state->file.descriptor, &after) == 0 &&
            before.st_dev == after.st_dev && before.st_ino == after.st_ino) {
            close(made);
            return;
        }
        close(state->file.descriptor); // another has taken its place
    }
    state->file.descriptor = made;
    (void)hold(state, made, opened);
}

// The local date at this moment; fallback when it cannot be told.
LogFileDate todayOr(const LogFileDate &fallback) {
    tm local;
    return zoltLogOs_localtime_r(time(nullptr), &local) != nullptr ? dateOf(&local) : fallback;
}

// Nobody has written to the file since its header was written through this descriptor.
bool hasItsHeaderOnly(int descriptor) {
    struct stat status;
    return fstat(descriptor, &status) == 0 && lseek(descriptor, 0, SEEK_CUR) == status.st_size;
}

// A file that was made without the directory's lock: whether others made the wanted name
// before, went on and recycled it. Then it goes again, unless somebody has opened it
// meanwhile, or has written to it and gone on, and target becomes the latest file.
bool wasMadeBefore(const Writer *writer, const LogName *series, const Target *wanted, Target *target) {
    LogFileState *state = writer->state;
    LatestLog latest;
    Target later;
    const LogFileDate today = todayOr(wanted->date);
    if (findLatestLog(state->directory, series, &today, &latest) != Latest::FOUND ||
        !chooseLatestFile(state, &latest, &later) || !isAhead(writer, &later, wanted))
        return false;
    if (state->isLogset != 0 ? later.nameTime <= wanted->nameTime
                             : !isLater(&later, wanted->date, wanted->counter))
        return false;
    if (takeAlone(state->file.descriptor) == Taken::YES && hasItsHeaderOnly(state->file.descriptor))
        (void)unlink(target->path.text);
    close(state->file.descriptor);
    state->file.descriptor = -1;
    *target = later;
    return true;
}

// Makes the target, whose name is free, unless the series has gone on without this writer:
// then target becomes the latest file. While the one is looked for and the other made,
// nobody else does the same, so that a name which was there and was recycled is not made
// a second time. The target may also turn out to have been made meanwhile.
uint32_t startFile(Writer *writer, const HostName &hostName, uint64_t host, Target *target, Opened *opened) {
    LogFileState *state = writer->state;
    const LogName series = seriesName(state, host);
    const Target wanted = *target;
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        bool ahead = false;
        {
            const DirectoryLock onlyHere(writer);
            LatestLog latest;
            const LogFileDate today = todayOr(wanted.date);
            const Latest found = findLatestLog(state->directory, &series, &today, &latest);
            // Without memory for the search the message is worth more than a unique counter.
            if (found == Latest::UNCERTAIN && errno != ENOMEM)
                return ZOLTLOG_OPEN_FAILED;
            ahead = found == Latest::FOUND && chooseLatestFile(state, &latest, target) &&
                    isAhead(writer, target, &wanted);
            if (!ahead) {
                *target = wanted;
                *opened = {};
                InitializeFileHeader(&opened->header, state, hostName);
                uint32_t failure = ZOLTLOG_FAILED;
                switch (createLogFile(state, target->path.text, &opened->header, &failure)) {
                case Creation::CREATED:
                    if (!onlyHere.held && wasMadeBefore(writer, &series, &wanted, target))
                        break;
                    takeName(state, target->path.text, opened);
                    opened->startTime = state->isLogset != 0
                                            ? target->nameStart
                                            : static_cast<int64_t>(opened->header.creationTime);
                    opened->created = true;
                    return ZOLTLOG_OK;
                case Creation::FAILED:
                    return failure;
                case Creation::NameTaken:
                    break;
                }
            }
        }
        const int32_t result = resume(state, target, opened);
        if (result != ZOLTLOG_OS_OPEN_NO_PATH)
            return resultOfOpen(result);
    }
    return ZOLTLOG_OPEN_FAILED;
}

// What all openings begin with.
uint32_t prepare(const LogFileState *state, HostName *hostName, uint64_t *host) {
    if (state->directory[0] == '\0')
        return ZOLTLOG_NO_DIRECTORY;
    if (zoltLogOs_mkdirp(state->directory, state->permissions.mode) != 0)
        return ZOLTLOG_FAILED;
    if (!readHostName(hostName))
        return ZOLTLOG_FAILED;
    *host = 0; // names of log sets have none
    if (state->isLogset != 0)
        return state->logsetFilename != nullptr ? ZOLTLOG_OK : ZOLTLOG_OPEN_FAILED;
    *host = hostNumber(*hostName);
    return *host != 0 ? ZOLTLOG_OK : ZOLTLOG_FAILED;
}

void noteOpened(Writer *writer, const Target *target, const Opened *opened) {
    LogFileState *state = writer->state;
    state->headerVersion = opened->header.version;
    state->date = target->date;
    state->counter = target->counter;
    state->fileStartTime = opened->startTime;
    state->lastReopenTime = opened->startTime * MS_PER_SECOND;
    setNextRollover(state, target->now);
    writer->opened = true;
    writer->sameName = false;
    writer->readable = opened->readable;
    writer->held = opened->held;
    writer->torn = opened->torn;
    writer->ended = opened->ended;
    writer->marked = opened->marked;
    writer->lookedAt = 0; // the next message looks again, unless it is this one
    writer->sizeThen = opened->size;
    writer->ownSince = 0;
    writer->sizeAskedAt = 0;
    writer->nameSecond = target->nameSecond;
    writer->nameTime = target->nameTime;
}

} // namespace

uint32_t openNextFile(Writer *writer, bool *created) {
    LogFileState *state = writer->state;
    *created = false;
    HostName hostName;
    uint64_t host;
    uint32_t result = prepare(state, &hostName, &host);
    if (result != ZOLTLOG_OK)
        return result;
    Target target;
    result = chooseNextFile(writer, host, &target);
    if (result != ZOLTLOG_OK)
        return result;
    Opened opened;
    const int32_t resumed = resume(state, &target, &opened);
    result = resumed == ZOLTLOG_OS_OPEN_NO_PATH ? startFile(writer, hostName, host, &target, &opened)
                                                : resultOfOpen(resumed);
    if (result != ZOLTLOG_OK)
        return result;
    noteOpened(writer, &target, &opened);
    *created = opened.created;
    return ZOLTLOG_OK;
}

uint32_t openLatestFile(Writer *writer) {
    LogFileState *state = writer->state;
    HostName hostName;
    uint64_t host;
    const uint32_t prepared = prepare(state, &hostName, &host);
    if (prepared != ZOLTLOG_OK)
        return prepared;
    const LogName series = seriesName(state, host);
    LatestLog latest;
    const Latest found = findLatestLog(state->directory, &series, nullptr, &latest);
    if (found == Latest::UNCERTAIN)
        return errno == ENOMEM ? ZOLTLOG_NO_MEMORY : ZOLTLOG_OPEN_FAILED;
    bool created;
    Target target;
    if (found == Latest::NONE)
        return openNextFile(writer, &created);
    if (!chooseLatestFile(state, &latest, &target))
        return ZOLTLOG_OPEN_FAILED;
    // KEPT: here the name is taken as standard time also in summer, so that the start may
    // be an hour late. Pinned by WriteFileLogset.StartOfAResumedFileIsReadAsStandardTime.
    target.nameStart = latest.time;
    Opened opened;
    int32_t resumed = resume(state, &target, &opened);
    if (resumed == ZOLTLOG_OS_OPEN_NO_PATH) {
        // KEPT: the latest file vanished since it was found: it is made again without
        // a header, and the first message leaves it for a new one. Pinned by
        // WriteFileOpen.VanishedLatestFileIsRecreatedWithoutHeader.
        int made;
        resumed = openDescriptor(target.path.text, ZOLTLOG_OS_MODE_APPEND, state->permissions.mode, &made);
        if (resumed == ZOLTLOG_OS_OK) {
            close(made);
            resumed = resume(state, &target, &opened);
        }
    }
    if (resumed != ZOLTLOG_OS_OK)
        return resultOfOpen(resumed);
    noteOpened(writer, &target, &opened);
    return ZOLTLOG_OK;
}

void endMark(Writer *writer) {
    if (writer->marked && writer->state->file.descriptor > 0)
        giveMarkBack(writer->state->file.descriptor);
    writer->marked = false;
}

void closeFile(Writer *writer) {
    endMark(writer); // a forked child may share the description, which would keep the mark
    zoltLogOs_close(&writer->state->file);
}
