// The latest log file of a series: one pass over the directory, told by the names
// alone. The grammar of the names is in log_name.h.
#include "read.h"

#include "log_name.h"

#include <string.h>

// ---- the best name so far ------------------------------------------------------

// A cursor of its own that stands on the remembered name.
struct Remembered {
    bool found;
    OsLogFileCursor cursor;
    struct dirent entry;
};

// false when the name is longer than a directory entry holds.
static bool rememberName(Remembered *best, const char *name) {
    const size_t size = strlen(name) + 1;
    if (size > sizeof best->entry.d_name)
        return false;
    memcpy(best->entry.d_name, name, size);
    best->found = true;
    return true;
}

static LogFileEntry *allocRemembered(Remembered *best, const char *directory) {
    if (!best->found)
        return nullptr;
    best->cursor.directory = const_cast<char *>(directory); // only read
    best->cursor.entry = &best->entry;
    return alloc_file(&best->cursor);
}

// What a series makes of a name: whether it is later than every one before.
// KEEP_SEARCHING and LATER go on, STOP gives the search up.
enum Verdict { KEEP_SEARCHING, LATER, STOP };

// Lists the directory once and remembers the last name that judge calls LATER.
// null when there is none or when the search was given up.
template<typename Judge>
static LogFileEntry *searchDirectory(const char *directory, Judge judge) {
    Remembered best = {};
    OsLogFileCursor cursor = {};
    bool givenUp = false;
    if (directory == nullptr)
        return nullptr;
    for (int32_t result = zoltLogOsListLogFilesBegin(&cursor, directory); result == 0 && !givenUp;
         result = zoltLogOsListLogFilesNext(&cursor)) {
        const char *name = zoltLogOsListLogFilesName(&cursor);
        const Verdict verdict = judge(name);
        givenUp = verdict == STOP || (verdict == LATER && !rememberName(&best, name));
    }
    zoltLogOsListLogFilesEnd(&cursor);
    return givenUp ? nullptr : allocRemembered(&best, directory);
}

// ---- days ----------------------------------------------------------------------

// Days since 0000-03-01 of a date whose month and day may lie outside their ranges
// and then run over, as mktime has it. Local midnights follow each other as these
// days do, so names are compared without a call of mktime, which asks the system
// for the time zone each time.
static int64_t dayNumber(int64_t year, int64_t month, int64_t day) {
    int64_t months = year * 12 + (month - 1) - 2; // from March on, so that the leap day is last
    const int64_t monthOfYear = ((months % 12) + 12) % 12;
    const int64_t shiftedYear = (months - monthOfYear) / 12;
    const int64_t leapDays = shiftedYear / 4 - shiftedYear / 100 + shiftedYear / 400;
    return shiftedYear * 365 + leapDays + (153 * monthOfYear + 2) / 5 + day;
}

static const size_t DATE_DIGITS = 2; // of each part of a date
static const int64_t FIRST_YEAR = 2000;

// ---- originator series ---------------------------------------------------------

static const size_t ORIGINATOR_PREFIX_ROOM = 64; // three numbers, each with its '-'

int32_t zoltLogFindLatestLog(const char *directory, uint64_t productId, uint64_t originatorId, uint64_t from,
                             uint64_t to, LogFileEntry **out) {
    (void)from; // neither bounds the search
    (void)to;
    if (out == nullptr)
        return 0;
    osSocketStartup();
    const uint64_t hostId = osGetHostID();
    osSocketCleanup();

    LogName series = {};
    series.product = productId;
    series.originator = originatorId;
    series.host = hostId;
    char prefix[ORIGINATOR_PREFIX_ROOM];
    const size_t prefixLength = formSeriesPrefix(prefix, sizeof prefix, &series);

    bool any = false;
    int64_t bestDay = 0;
    uint64_t bestCounter = 0;
    *out = searchDirectory(directory, [&](const char *name) {
        if (strncmp(name, prefix, prefixLength) != 0)
            return KEEP_SEARCHING;
        LogFileDate date = {};
        uint64_t counter = 0;
        if (!scanDateAndCounter(name + prefixLength, CounterDigits::TEN, &date, &counter))
            return KEEP_SEARCHING;
        const int64_t day = dayNumber(FIRST_YEAR + date.year, date.month, date.day);
        if (any && (day < bestDay || (day == bestDay && counter <= bestCounter)))
            return KEEP_SEARCHING;
        any = true;
        bestDay = day;
        bestCounter = counter;
        return LATER;
    });
    return *out != nullptr;
}

// ---- log set series ------------------------------------------------------------

static const size_t LOGSET_PREFIX_ROOM = 8192; // longer than any name of a directory

// Local times of two names are compared through convert_time only when they lie
// this close: no zone's standard offset ever moved by as much.
static const int64_t CLOSE_SECONDS = 259200; // three days

// Seconds as a clock without time zone counts them; false unless all twelve
// characters of the token are digits.
static bool plainSeconds(const char *token, int64_t *seconds) {
    int64_t parts[6];
    for (int64_t &part : parts) {
        if (token[0] < '0' || token[0] > '9' || token[1] < '0' || token[1] > '9')
            return false;
        part = (token[0] - '0') * 10 + (token[1] - '0');
        token += DATE_DIGITS;
    }
    *seconds = ((dayNumber(FIRST_YEAR + parts[0], parts[1], parts[2]) * 24 + parts[3]) * 60 + parts[4]) * 60 +
               parts[5];
    return true;
}

int32_t zoltLogFindLatestLogSL(const char *directory, uint64_t productId, const char *logsetName,
                               uint64_t from, uint64_t to, LogFileEntry **out) {
    (void)from; // neither bounds the search
    (void)to;
    if (out == nullptr)
        return 0;
    *out = nullptr;
    if (logsetName == nullptr)
        return 0;
    LogName series = {};
    series.product = productId;
    series.set = logsetName;
    series.setLength = strlen(logsetName);
    char prefix[LOGSET_PREFIX_ROOM];
    const size_t prefixLength = formSeriesPrefix(prefix, sizeof prefix, &series);
    if (prefixLength == 0)
        return 0; // no file has so long a name

    int64_t bestTime = 0;
    int64_t bestPlain = INT64_MIN;
    LogFileEntry *entry = searchDirectory(directory, [&](const char *name) {
        if (strncmp(name, prefix, prefixLength) != 0)
            return KEEP_SEARCHING;
        uint64_t product64 = 0;
        char nameOfSet[LOGSET_NAME_ROOM];
        char dateTime[DATE_TIME_ROOM] = "";
        nameOfSet[0] = '\0';
        // KEPT: a name of the series that cannot be split ends the search with nothing.
        // Pinned by LatestLogSet.ANameThatCannotBeSplitEndsTheSearch.
        if (getSLidfromfilename(name, &product64, nameOfSet, dateTime) != 1)
            return STOP;
        int64_t plain = INT64_MIN;
        const bool isPlain = plainSeconds(dateTime, &plain);
        if (isPlain && bestPlain != INT64_MIN && plain < bestPlain - CLOSE_SECONDS)
            return KEEP_SEARCHING;
        const int64_t time = dateTime[0] != '\0' ? convert_time(dateTime) : -1;
        if (time <= bestTime)
            return KEEP_SEARCHING;
        bestTime = time;
        bestPlain = isPlain ? plain : INT64_MIN;
        return LATER;
    });
    if (entry == nullptr)
        return 0;
    entry->creationTime = bestTime;
    *out = entry;
    return 1;
}
