// Opening the files of a series, for the writer: resumes its latest file or starts the
// next one, and tells when a LocalTime or Periodic rollover of it is due. On failure no
// file is open and the state still tells of the one before.
#include "write_file.h"

#include "lockUnix.h"
#include "os.h"
#include "read.h"

#include <cstring>
#include <ctime>
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

// A file that ends inside a line is looked at again in case its writer is not done.
constexpr int LINE_END_LOOKS = 10;
constexpr long LINE_END_WAIT_NS = 2000000;

// For how long a host keeps its number without being asked.
constexpr int64_t HOST_KNOWN_FOR_NS = 10 * NS_PER_SECOND;

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

// ---- opening ---------------------------------------------------------------------------

namespace {

// The file that is to be opened.
struct Target {
    LogPath path;
    LogFileDate date;
    int64_t counter;
    int64_t now;
    const LogFileEntry *entry; // null for a new file
};

// What became of it.
struct Opened {
    LogFileHeader header; // of version 0 when the file has none that can be read
    int64_t startTime;
    bool torn;
    bool created;
};

LogFileDate dateOf(const tm *local) {
    return {local->tm_year - 100, local->tm_mon + 1, local->tm_mday,
            local->tm_hour,       local->tm_min,     local->tm_sec};
}

// KEPT: only day and month are compared, so that a file started on the same day of
// another year continues that year's counter. Pinned by WriteFileName.CounterIgnoresTheYear.
int64_t nextCounter(const LogFileState *state, const LogFileDate *today) {
    return state->date.day == today->day && state->date.month == today->month ? state->counter + 1 : 0;
}

// The number of this host, which a rollover soon after another does not ask for again:
// the name service may be slow, and all messages of the process wait for it.
uint64_t hostIdOf(Writer *writer, const HostName &hostName) {
    if (writer->hostKnownAt != 0 && monotonicNs() - writer->hostKnownAt < HOST_KNOWN_FOR_NS &&
        strcmp(writer->hostName, hostName) == 0)
        return writer->hostId;
    (void)osSocketStartup();
    writer->hostId = osGetHostID();
    osSocketCleanup();
    writer->hostKnownAt = writer->hostId != 0 ? monotonicNs() : 0;
    memcpy(writer->hostName, hostName, sizeof hostName);
    return writer->hostId;
}

uint32_t chooseNewFile(Writer *writer, const HostName &hostName, Target *target) {
    const LogFileState *state = writer->state;
    tm local;
    if (zoltLogOs_localtime_r(target->now, &local) == nullptr)
        return ZOLTLOG_FAILED;
    target->date = dateOf(&local);
    target->counter = nextCounter(state, &target->date);
    LogName name = {};
    name.product = state->productId;
    name.date = target->date;
    if (state->isLogset != 0) {
        if (state->logsetFilename == nullptr)
            return ZOLTLOG_OPEN_FAILED;
        name.set = state->logsetFilename;
        name.setLength = strlen(state->logsetFilename);
    } else {
        name.originator = state->fileOriginatorId;
        name.host = hostIdOf(writer, hostName);
        if (name.host == 0)
            return ZOLTLOG_FAILED;
        name.counter = static_cast<uint64_t>(target->counter);
    }
    return formPath(&target->path, state, &name) ? ZOLTLOG_OK : ZOLTLOG_OPEN_FAILED;
}

uint32_t chooseExistingFile(const LogFileState *state, Target *target) {
    target->date = {};
    target->counter = state->counter;
    const char *rest = state->isLogset == 0 ? afterThreeIds(target->entry->name) : nullptr;
    auto counter = static_cast<uint64_t>(state->counter);
    if (rest != nullptr && scanDateAndCounter(rest, CounterDigits::ALL, &target->date, &counter))
        target->counter = static_cast<int64_t>(counter);
    return formExistingPath(&target->path, state, target->entry->name) ? ZOLTLOG_OK : ZOLTLOG_OPEN_FAILED;
}

// The file behind a descriptor ends inside a line: its last writer was cut off.
bool endsInsideLine(int descriptor) {
    for (int look = 0;; ++look) {
        const off_t size = lseek(descriptor, 0, SEEK_END);
        char last = '\n';
        if (size <= 0 || pread(descriptor, &last, 1, size - 1) != 1 || last == '\n')
            return false;
        if (look == LINE_END_LOOKS)
            return true;
        sleepNs(LINE_END_WAIT_NS);
    }
}

int64_t startTimeOf(const LogFileState *state, const Target *target, const LogFileHeader *header,
                    bool headerRead) {
    if (state->isLogset != 0 && target->entry != nullptr) {
        uint64_t productId = 0;
        char name[LOGSET_NAME_ROOM] = {};
        char dateTime[DATE_TIME_ROOM] = {};
        if (getSLidfromfilename(target->entry->name, &productId, name, dateTime) != 0) {
            const int64_t time = convert_time(dateTime);
            if (time != -1)
                return time;
        }
        return target->now;
    }
    // KEPT: a log set's header tells no time, so a file that another process started in
    // the same second has the start time 0: it is not reopened periodically, and a timed
    // rollover is due at once. Pinned by WriteFileLogset.FileOfTheSameSecondStartsAtZero.
    if (!headerRead || header->creationTime > static_cast<uint64_t>(LATEST_START_TIME))
        return target->now;
    return static_cast<int64_t>(header->creationTime);
}

// Continues in the file that was just opened for reading. *replaced says that another
// file has taken its name meanwhile, and that nothing is open.
int32_t resumeFile(LogFileState *state, const Target *target, Opened *opened, bool *replaced) {
    struct stat status;
    struct stat found;
    const bool known = fstat(state->file.descriptor, &status) == 0;
    if (known && !S_ISREG(status.st_mode)) { // a terminal's header would be waited for
        zoltLogOs_close(&state->file);
        return ZOLTLOG_OS_OPEN_FAILED;
    }
    const bool headerRead = ReadHeaderEx(&state->file, &opened->header) == ZOLTLOG_OK;
    opened->startTime = startTimeOf(state, target, &opened->header, headerRead);
    // Kept open meanwhile, so that a removed file's number is not given to a new one.
    const int reader = state->file.descriptor;
    opened->torn = endsInsideLine(reader);
    const int32_t result =
        zoltLogOs_open(&state->file, target->path.text, ZOLTLOG_OS_MODE_APPEND, state->permissions.mode);
    *replaced = result == ZOLTLOG_OS_OK && known && fstat(state->file.descriptor, &found) == 0 &&
                (found.st_dev != status.st_dev || found.st_ino != status.st_ino);
    if (*replaced)
        zoltLogOs_close(&state->file);
    close(reader);
    return result;
}

// Opens the target, creating it when it is missing.
uint32_t openTarget(LogFileState *state, const Target *target, const char *hostName, Opened *opened) {
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        *opened = {};
        opened->startTime = target->now;
        int32_t result =
            zoltLogOs_open(&state->file, target->path.text, ZOLTLOG_OS_MODE_READ, state->permissions.mode);
        if (result == ZOLTLOG_OS_OK) {
            bool replaced = false;
            result = resumeFile(state, target, opened, &replaced);
            if (!replaced)
                return resultOfOpen(result);
            continue;
        }
        if (result != ZOLTLOG_OS_OPEN_NO_PATH)
            return resultOfOpen(result);
        if (target->entry != nullptr) {
            // KEPT: the latest file vanished since it was found: it is made again without
            // a header, and the first message leaves it for a new one. Pinned by
            // WriteFileOpen.VanishedLatestFileIsRecreatedWithoutHeader.
            result = zoltLogOs_open(&state->file, target->path.text, ZOLTLOG_OS_MODE_APPEND,
                                    state->permissions.mode);
            return resultOfOpen(result);
        }
        InitializeFileHeader(&opened->header, state, hostName);
        uint32_t failure = ZOLTLOG_FAILED;
        switch (createLogFile(state, target->path.text, &opened->header, &failure)) {
        case Creation::CREATED:
            opened->startTime = static_cast<int64_t>(opened->header.creationTime);
            opened->created = true;
            return ZOLTLOG_OK;
        case Creation::FAILED:
            return failure;
        case Creation::NAME_TAKEN:
            break;
        }
    }
    return ZOLTLOG_OPEN_FAILED;
}

// Opens a file of the series: the given latest one, or else the next one.
uint32_t openSeriesFile(Writer *writer, const LogFileEntry *entry, bool *created) {
    LogFileState *state = writer->state;
    if (created != nullptr)
        *created = false;
    if (state->directory[0] == '\0')
        return ZOLTLOG_NO_DIRECTORY;
    if (zoltLogOs_mkdirp(state->directory, state->permissions.mode) != 0)
        return ZOLTLOG_FAILED;

    HostName hostName = {};
    (void)osSocketStartup();
    const int32_t named = osGetHostName(hostName, HOST_NAME_SIZE);
    osSocketCleanup();
    if (named != 0)
        return ZOLTLOG_FAILED;

    Target target;
    target.now = time(nullptr);
    target.entry = entry;
    uint32_t result =
        entry != nullptr ? chooseExistingFile(state, &target) : chooseNewFile(writer, hostName, &target);
    if (result != ZOLTLOG_OK)
        return result;

    Opened opened;
    result = openTarget(state, &target, hostName, &opened);
    if (result != ZOLTLOG_OK)
        return result;

    state->headerVersion = opened.header.version;
    state->date = target.date;
    state->counter = target.counter;
    state->fileStartTime = opened.startTime;
    state->lastReopenTime = opened.startTime * MS_PER_SECOND;
    setNextRollover(state, target.now);
    writer->opened = true;
    writer->torn = opened.torn;
    writer->sizeAskedAt = 0;
    writer->nameSecond = target.now;
    if (created != nullptr)
        *created = opened.created;
    return ZOLTLOG_OK;
}

} // namespace

int64_t monotonicNs() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * NS_PER_SECOND + now.tv_nsec;
}

void sleepNs(long ns) {
    const timespec pause = {0, ns};
    (void)nanosleep(&pause, nullptr);
}

uint32_t openNextFile(Writer *writer, bool *created) {
    return openSeriesFile(writer, nullptr, created);
}

uint32_t openLatestFile(Writer *writer) {
    const LogFileState *state = writer->state;
    LogFileEntry *entry = nullptr;
    const auto now = static_cast<uint64_t>(time(nullptr));
    const int32_t found = state->isLogset != 0
                              ? zoltLogFindLatestLogSL(state->directory, state->productId,
                                                       state->logsetFilename, 0, now, &entry)
                              : zoltLogFindLatestLog(state->directory, state->productId,
                                                     state->fileOriginatorId, 0, now, &entry);
    const uint32_t result = openSeriesFile(writer, found != 0 ? entry : nullptr, nullptr);
    zoltLogFree(entry);
    return result;
}
