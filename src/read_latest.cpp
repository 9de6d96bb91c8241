// SPDX-License-Identifier: Apache-2.0
// The latest log file of a series: one pass over the directory, told by the names
// alone. The grammar of the names is in log_name.h.
#include "read.h"

#include "cancellation.h"
#include <cerrno>
#include <cstring>

// ---- the best name so far ------------------------------------------------------

// What a series makes of a name: whether it is later than every one before.
// KEEP_SEARCHING and LATER go on, STOP gives the search up.
enum Verdict { KEEP_SEARCHING, LATER, STOP };

namespace {

// Lists the directory once and stores the last name that judge calls LATER. NONE when there
// is none, when the search was given up, or when the directory is not there to be listed.
template<typename Judge>
Latest searchDirectory(const char *directory, char (&best)[LATEST_NAME_ROOM], Judge judge) {
    OsLogFileCursor cursor = {};
    bool found = false;
    bool givenUp = false;
    if (directory == nullptr)
        return Latest::NONE;
    int32_t result = zoltLogOsListLogFilesBegin(&cursor, directory);
    if (result < 0 && errno != ENOENT && errno != ENOTDIR && errno != EACCES) {
        return Latest::UNCERTAIN;
    }
    for (; result == 0 && !givenUp; result = zoltLogOsListLogFilesNext(&cursor)) {
        const char *name = zoltLogOsListLogFilesName(&cursor);
        const Verdict verdict = judge(name);
        const size_t size = strlen(name) + 1;
        givenUp = verdict == STOP || (verdict == LATER && size > sizeof best);
        if (verdict == LATER && !givenUp) {
            memcpy(best, name, size);
            found = true;
        }
    }
    zoltLogOsListLogFilesEnd(&cursor);
    return found && !givenUp ? Latest::FOUND : Latest::NONE;
}

const size_t PREFIX_ROOM = LATEST_NAME_ROOM; // no name is longer

// ---- days ----------------------------------------------------------------------

// Days since 0000-03-01 of a date whose month and day may lie outside their ranges
// and then run over, as mktime has it. Local midnights follow each other as these
// days do, so names are compared without a call of mktime, which asks the system
// for the time zone each time.
int64_t dayNumber(int64_t year, int64_t month, int64_t day) {
    int64_t months = year * 12 + (month - 1) - 2; // from March on, so that the leap day is last
    const int64_t monthOfYear = ((months % 12) + 12) % 12;
    const int64_t shiftedYear = (months - monthOfYear) / 12;
    const int64_t leapDays = shiftedYear / 4 - shiftedYear / 100 + shiftedYear / 400;
    return shiftedYear * 365 + leapDays + (153 * monthOfYear + 2) / 5 + day;
}

const size_t DATE_DIGITS = 2; // of each part of a date
const int64_t FIRST_YEAR = 2000;

// ---- originator series ---------------------------------------------------------

int64_t dayOf(const LogFileDate &date) {
    return dayNumber(FIRST_YEAR + date.year, date.month, date.day);
}

Latest findOfOriginator(const char *directory, const char *prefix, size_t prefixLength,
                        const LogFileDate *lastDay, LatestLog *latest) {
    const int64_t last = lastDay != nullptr ? dayOf(*lastDay) : INT64_MAX;
    bool any = false;
    int64_t bestDay = 0;
    uint64_t bestCounter = 0;
    latest->time = 0;
    return searchDirectory(directory, latest->name, [&](const char *name) {
        if (strncmp(name, prefix, prefixLength) != 0)
            return KEEP_SEARCHING;
        LogFileDate date = {};
        uint64_t counter = 0;
        if (!scanDateAndCounter(name + prefixLength, CounterDigits::TEN, &date, &counter))
            return KEEP_SEARCHING;
        const int64_t day = dayOf(date);
        if (day > last)
            return KEEP_SEARCHING;
        if (any && (day < bestDay || (day == bestDay && counter <= bestCounter)))
            return KEEP_SEARCHING;
        any = true;
        bestDay = day;
        bestCounter = counter;
        return LATER;
    });
}

// ---- log set series ------------------------------------------------------------

// Local times of two names are compared through convert_time only when they lie
// this close: no zone's standard offset ever moved by as much.
const int64_t CLOSE_SECONDS = 259200; // three days

// Seconds as a clock without time zone counts them; false unless all twelve
// characters of the token are digits.
bool plainSeconds(const char *token, int64_t *seconds) {
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

Latest findOfLogset(const char *directory, const char *prefix, size_t prefixLength, LatestLog *latest) {
    int64_t bestPlain = INT64_MIN;
    latest->time = 0;
    return searchDirectory(directory, latest->name, [&](const char *name) {
        if (strncmp(name, prefix, prefixLength) != 0)
            return KEEP_SEARCHING;
        uint64_t productId = 0;
        char nameOfSet[LOGSET_NAME_ROOM];
        char dateTime[DATE_TIME_ROOM] = "";
        nameOfSet[0] = '\0';
        // KEPT: a name of the series that cannot be split ends the search with nothing.
        // Pinned by LatestLogSet.ANameThatCannotBeSplitEndsTheSearch.
        if (getSLidfromfilename(name, &productId, nameOfSet, dateTime) != 1)
            return STOP;
        int64_t plain = INT64_MIN;
        const bool isPlain = plainSeconds(dateTime, &plain);
        if (isPlain && bestPlain != INT64_MIN && plain < bestPlain - CLOSE_SECONDS)
            return KEEP_SEARCHING;
        const int64_t time = dateTime[0] != '\0' ? convert_time(dateTime) : -1;
        if (time <= latest->time)
            return KEEP_SEARCHING;
        latest->time = time;
        bestPlain = isPlain ? plain : INT64_MIN;
        return LATER;
    });
}

} // namespace

// ---- both ----------------------------------------------------------------------

Latest findLatestLog(const char *directory, const LogName *series, const LogFileDate *lastDay,
                     LatestLog *latest) {
    char prefix[PREFIX_ROOM];
    const size_t prefixLength = formSeriesPrefix(prefix, sizeof prefix, series);
    if (prefixLength == 0)
        return Latest::NONE; // no file has so long a name
    return series->set != nullptr ? findOfLogset(directory, prefix, prefixLength, latest)
                                  : findOfOriginator(directory, prefix, prefixLength, lastDay, latest);
}

namespace {

// The entry of the file that was found, which is the caller's to free; null without memory
// and when there is none.
LogFileEntry *findEntry(const char *directory, const LogName *series, int64_t *time) {
    LatestLog latest;
    if (findLatestLog(directory, series, nullptr, &latest) != Latest::FOUND)
        return nullptr;
    struct dirent record = {};
    static_assert(sizeof record.d_name >= sizeof latest.name);
    memcpy(record.d_name, latest.name, strlen(latest.name) + 1);
    OsLogFileCursor cursor = {};
    cursor.directory = const_cast<char *>(directory); // only read
    cursor.entry = &record;
    *time = latest.time;
    return alloc_file(&cursor);
}

} // namespace

int32_t zoltLogFindLatestLog(const char *directory, uint64_t productId, uint64_t originatorId, uint64_t from,
                             uint64_t to, LogFileEntry **out) {
    const CancellationOff off;
    (void)from; // neither bounds the search
    (void)to;
    if (out == nullptr)
        return 0;
    LogName series = {};
    series.product = productId;
    series.originator = originatorId;
    osSocketStartup();
    series.host = osGetHostID();
    osSocketCleanup();
    int64_t time;
    *out = findEntry(directory, &series, &time);
    return *out != nullptr;
}

int32_t zoltLogFindLatestLogSL(const char *directory, uint64_t productId, const char *logsetName,
                               uint64_t from, uint64_t to, LogFileEntry **out) {
    const CancellationOff off;
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
    int64_t time;
    LogFileEntry *entry = findEntry(directory, &series, &time);
    if (entry == nullptr)
        return 0;
    entry->creationTime = time;
    *out = entry;
    return 1;
}
