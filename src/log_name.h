// SPDX-License-Identifier: Apache-2.0
// Names of log files and their header line: formed and parsed here, for the library and
// the tools, and nowhere else.
//
//     originator-file = product "-" originator "-" host "-" YYMMDD "-" counter ".log"
//     log-set-file    = product "-" name "-" YYMMDDhhmmss ".log"
//
//     header-65543    = "$Header 65543," product "," originator "," created "," zone "," host-name LF
//     header-65544    = "$Header 65544," zone "," host-name LF
//     header-older    = "$Header " version "," product "," originator "," created "," host-name LF
//
// Ids, host and created are unsigned decimals of 64 bits, the counter has at least ten
// digits, dates and times are local and their year counts from 2000, zone is signed.
// docs/format-log-file.md tells the rest.
//
// What was formed is read back exactly by parseLogName and, with HeaderReading::EXACT,
// parseHeaderLine. The other readings are what exported operations have always made of
// any name and line; where they differ from each other is said at each.
#pragma once

#include "zoltlog.h"

#include <cstddef>

// ---- names -------------------------------------------------------------------------

struct LogName {
    uint64_t product;
    const char *set; // null: an originator's file
    size_t setLength;
    uint64_t originator; // of an originator's file, as are host and counter
    uint64_t host;
    LogFileDate date; // the time of day is a log set's
    uint64_t counter;
    const char *stamp; // in a name that was read: the digits of date, or of date and time
};

// Each writes a text with its terminating zero and returns its length; 0 when it does not
// fit. The prefix is what all names of the series begin with, up to the '-' before the date.
size_t formLogName(char *text, size_t room, const LogName *name);
size_t formSeriesPrefix(char *text, size_t room, const LogName *name);

// Reads exactly what formLogName makes of a date of the years 2000 to 2099, product 0 left
// out; set and stamp then point into the name. A log set may be called so that its files look like
// an originator's; they are taken for that. False for any other name.
bool parseLogName(const char *name, size_t length, LogName *out);

// What follows the prefix in the name of an originator's file, as scanf takes it with
// "%2d%2d%2d-%lu". Without a date: false and nothing stored; without a counter this is
// left as it was.
enum class CounterDigits : size_t {
    // KEPT: the search for the latest file takes ten digits of a counter. Pinned by
    // LatestLog.TenDigitsOfACounterCount.
    TEN = 10,
    ALL = SIZE_MAX // resuming a file takes them all
};
bool scanDateAndCounter(const char *rest, CounterDigits digits, LogFileDate *date, uint64_t *counter);
// What follows the first three '-' of a name; null when there are fewer.
const char *afterThreeIds(const char *name);

// The parts of a name between its '-', runs of which count as one, as strtok takes them.
struct NamePart {
    const char *start;
    size_t length; // 0: there is no such part
};
struct NameParts {
    NamePart part[3];
};
NameParts splitLogName(const char *name);
// The part's leading number as strtol reads it. KEPT: one above 2^63 - 1 comes back as
// 2^63 - 1. Pinned by FileNames.IdsSaturateAsSignedNumbers.
uint64_t numberOfPart(const NamePart &part);

// What tells files of one second apart: the last two numbers of "...-YYMMDD-counter.log",
// or the last of any other name with 0 for the counter.
struct NameAge {
    uint64_t date;
    uint64_t counter;
};
NameAge ageOfLogName(const char *name);

// ---- the header line -----------------------------------------------------------------

inline constexpr size_t HEADER_HOST_SIZE = sizeof(LogFileHeader::hostName);
// "$Header", version, two ids, two times and a host name, with their separators
inline constexpr size_t HEADER_LINE_SIZE = 128 + HEADER_HOST_SIZE;

struct HeaderLine {
    uint64_t version;
    uint64_t product; // 0 where the version, or the line, does not tell it; so on
    uint64_t originator;
    uint64_t created; // seconds since 1970-01-01 UTC
    bool hasZone;
    int64_t zone; // seconds to add to local time to reach UTC
    const char *host;
    size_t hostLength;
};

// The line with its line feed, and its length; 0 for a version that has no layout. Line
// feeds of the host's name, of which HEADER_HOST_SIZE bytes are taken, become carriage
// returns.
size_t formHeaderLine(char (&line)[HEADER_LINE_SIZE], const HeaderLine *header);

enum class HeaderReading {
    EXACT, // what formHeaderLine makes; the host's name is the rest of the line
    // As scanf reads, of a terminated line: blanks before the word and the numbers are skipped, numbers may
    // have a sign and stop at their largest value, what the line lacks is left at 0, the zone of 65544 has
    // the bits of an unsigned number, the host's name ends at a blank.
    LENIENT
};
enum class HeaderParsed { OK, NoHeader, UnknownVersion, MALFORMED };

// Reads a line without its line feed; host points into it. The version is stored also when
// it is unknown, 0 when there is none. MALFORMED is for EXACT only.
HeaderParsed parseHeaderLine(const char *line, size_t length, HeaderReading reading, HeaderLine *out);
