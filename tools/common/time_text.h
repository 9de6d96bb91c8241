// SPDX-License-Identifier: Apache-2.0
// Times and durations as users type and read them; one parser for all tools.
//
//   TIME     = ABSOLUTE | RELATIVE
//   ABSOLUTE = DATE [("T" | " ") CLOCK] [ZONE]   2024-03-01, 2024-03-01T13:45:02.123+01:00
//            | CLOCK                             13:45, today
//            | DAY [" " CLOCK]                   today, yesterday 8:00, monday
//            | "now" | "@" SECONDS[.fff]
//   RELATIVE = ("-" | "+") SPAN | SPAN " ago" | "in " SPAN
//   SPAN     = NUMBER UNIT ...                   2h30m, 1 day 3 hours, 90s, 1.5h
//   ZONE     = "Z" | " UTC" | ("+" | "-") hh[:]mm
//
// A date without a clock is its midnight; a weekday is the latest such day, today
// included. Upper and lower case are the same. A day has 24 hours in a SPAN, a month
// 30 days, a year 365.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

enum class Zone { Local, Utc };

// All times are milliseconds since 1970-01-01 UTC. False with an error text that
// names what was not understood.
bool parseTimeText(std::string_view text, int64_t now, Zone zone, int64_t &time, std::string &error);
bool parseSpanText(std::string_view text, int64_t &milliseconds, std::string &error); // without a sign

int64_t currentTime();
int64_t monotonicMilliseconds(); // of a clock that nobody sets

// Formats times; remembers the last day and zone offset, so that many times in a
// row cost no more than their digits.
struct TimeFormatter {
    enum class Mode {
        Local,  // this process's time zone
        Utc,    //
        Offset, // a fixed offset (a writer's local time)
    };
    Mode mode = Mode::Local;
    int64_t east = 0; // Offset: seconds east of UTC

    void appendShort(std::string &out, int64_t time);   // 2024-03-01 13:45:02.123
    void appendRfc3339(std::string &out, int64_t time); // 2024-03-01T13:45:02.123+01:00, or Z in UTC

  private:
    void append(std::string &out, int64_t time, char separator);
    int64_t offsetAt(int64_t seconds);

    int64_t quarter = INT64_MIN; // quarter of an hour for which `offset` holds
    int64_t offset = 0;
    int64_t day = INT64_MIN; // day since 1970 for which `date` holds
    char date[16] = "";
};

// How long after `first` the time `last` is; the most that there is when that has no
// place in 64 bits.
int64_t timeBetween(int64_t first, int64_t last);

// Begins of minutes, hours and days in a zone.
struct TimeUnits {
    int64_t length = 60000; // milliseconds
    Zone zone = Zone::Local;

    int64_t beginOf(int64_t time); // milliseconds

  private:
    int64_t quarter = INT64_MIN; // quarter of an hour for which `offset` holds
    int64_t offset = 0;          // milliseconds east of UTC
};

std::string formatTime(int64_t time, Zone zone); // 2024-03-01 13:45:02.123
std::string formatSpan(int64_t milliseconds);    // 2h30m, 1.5s, 3d4h: the two largest units

// Sizes: 512, 10K, 1.5G (powers of 1024, with or without "B" or "iB").
bool parseSizeText(std::string_view text, uint64_t &bytes);
std::string formatSize(uint64_t bytes); // 512B, 10.0K, 1.5G

} // namespace tools
