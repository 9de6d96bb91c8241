// SPDX-License-Identifier: Apache-2.0
#include "common/time_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace tools {

namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;
constexpr int64_t SECONDS_PER_QUARTER = 900;          // zone offsets change on quarters of an hour
constexpr int64_t MAX_MILLISECONDS = 253402300799999; // end of the year 9999

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isBlank(char c) {
    return c == ' ' || c == '\t';
}
bool isLetter(char c) {
    return c >= 'a' && c <= 'z';
}

std::string lowered(std::string_view text) {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return out;
}

// Reads a text from left to right; every take...() that fails leaves it as it was.
struct Reader {
    std::string_view rest;

    bool atEnd() const { return rest.empty(); }
    void skipBlanks() {
        while (!rest.empty() && isBlank(rest.front()))
            rest.remove_prefix(1);
    }
    bool takeChar(char c) {
        if (rest.empty() || rest.front() != c)
            return false;
        rest.remove_prefix(1);
        return true;
    }
    bool takeWord(std::string_view word) {
        if (rest.substr(0, word.size()) != word || (rest.size() > word.size() && isLetter(rest[word.size()])))
            return false;
        rest.remove_prefix(word.size());
        return true;
    }
    bool takeNumber(size_t smallest, size_t largest, int64_t &value) { // of so many digits
        size_t digits = 0;
        int64_t read = 0;
        while (digits < rest.size() && digits < largest && isDigit(rest[digits]))
            read = read * 10 + (rest[digits++] - '0');
        if (digits < smallest)
            return false;
        value = read;
        rest.remove_prefix(digits);
        return true;
    }
    // A fraction behind a point, in thousandths; further digits are dropped.
    bool takeFraction(int64_t &thousandths) {
        Reader saved = *this;
        if (!takeChar('.') || rest.empty() || !isDigit(rest.front())) {
            *this = saved;
            return false;
        }
        thousandths = 0;
        for (int64_t scale = 100; !rest.empty() && isDigit(rest.front()); scale /= 10) {
            thousandths += (rest.front() - '0') * scale;
            rest.remove_prefix(1);
        }
        return true;
    }
};

struct Clock {
    int64_t hour = 0, minute = 0, second = 0, millisecond = 0;
};

// hh:mm[:ss[.fff]]
bool takeClock(Reader &reader, Clock &clock) {
    Reader next = reader;
    Clock read;
    if (!next.takeNumber(1, 2, read.hour) || !next.takeChar(':') || !next.takeNumber(2, 2, read.minute))
        return false;
    if (next.takeChar(':')) {
        if (!next.takeNumber(2, 2, read.second))
            return false;
        next.takeFraction(read.millisecond);
    }
    if (read.hour > 23 || read.minute > 59 || read.second > 60)
        return false;
    reader = next;
    clock = read;
    return true;
}

int64_t daysInMonth(int64_t year, int64_t month) {
    constexpr int64_t DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : DAYS[month - 1];
}

struct Date {
    int64_t year, month, day;
};

bool takeDate(Reader &reader, Date &date) {
    Reader next = reader;
    Date read{};
    if (!next.takeNumber(4, 4, read.year) || !next.takeChar('-') || !next.takeNumber(1, 2, read.month) ||
        !next.takeChar('-') || !next.takeNumber(1, 2, read.day))
        return false;
    if (read.month < 1 || read.month > 12 || read.day < 1 || read.day > daysInMonth(read.year, read.month))
        return false;
    reader = next;
    date = read;
    return true;
}

// Z, UTC or +hh:mm: seconds east of UTC.
bool takeZone(Reader &reader, int64_t &east) {
    Reader next = reader;
    next.skipBlanks();
    if (next.takeWord("z") || next.takeWord("utc") || next.takeWord("gmt")) {
        east = 0;
        reader = next;
        return true;
    }
    const bool negative = next.takeChar('-');
    if (!negative && !next.takeChar('+'))
        return false;
    int64_t hours = 0;
    int64_t minutes = 0;
    if (!next.takeNumber(2, 2, hours))
        return false;
    next.takeChar(':');
    if (!next.takeNumber(2, 2, minutes) || hours > 23 || minutes > 59)
        return false;
    east = (hours * 60 + minutes) * 60 * (negative ? -1 : 1);
    reader = next;
    return true;
}

tm brokenDown(const Date &date, const Clock &clock) {
    tm parts{};
    parts.tm_year = static_cast<int>(date.year - 1900);
    parts.tm_mon = static_cast<int>(date.month - 1);
    parts.tm_mday = static_cast<int>(date.day);
    parts.tm_hour = static_cast<int>(clock.hour);
    parts.tm_min = static_cast<int>(clock.minute);
    parts.tm_sec = static_cast<int>(clock.second);
    parts.tm_isdst = -1;
    return parts;
}

int64_t toTime(const Date &date, const Clock &clock, Zone zone) {
    tm parts = brokenDown(date, clock);
    const time_t seconds = zone == Zone::Utc ? timegm(&parts) : mktime(&parts);
    return static_cast<int64_t>(seconds) * 1000 + clock.millisecond;
}

Date dateOf(int64_t time, Zone zone, int *weekday = nullptr) {
    const auto seconds = static_cast<time_t>(time / 1000);
    tm parts{};
    if (zone == Zone::Utc)
        gmtime_r(&seconds, &parts);
    else
        localtime_r(&seconds, &parts);
    if (weekday != nullptr)
        *weekday = parts.tm_wday;
    return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday};
}

// The date so many days earlier; days are counted at UTC, where all have 24 hours.
Date daysBefore(const Date &date, int64_t days) {
    return dateOf(toTime(date, {}, Zone::Utc) - days * SECONDS_PER_DAY * 1000, Zone::Utc);
}

struct UnitRow {
    const char *name;
    int64_t milliseconds;
};
constexpr int64_t SECOND = 1000;
constexpr UnitRow UNITS[] = {
    {"ms", 1},
    {"msec", 1},
    {"s", SECOND},
    {"sec", SECOND},
    {"second", SECOND},
    {"m", 60 * SECOND},
    {"min", 60 * SECOND},
    {"minute", 60 * SECOND},
    {"h", 3600 * SECOND},
    {"hr", 3600 * SECOND},
    {"hour", 3600 * SECOND},
    {"d", SECONDS_PER_DAY *SECOND},
    {"day", SECONDS_PER_DAY *SECOND},
    {"w", 7 * SECONDS_PER_DAY *SECOND},
    {"week", 7 * SECONDS_PER_DAY *SECOND},
    {"month", 30 * SECONDS_PER_DAY *SECOND},
    {"y", 365 * SECONDS_PER_DAY *SECOND},
    {"year", 365 * SECONDS_PER_DAY *SECOND},
};

// NUMBER UNIT, once or more; stops before " ago" and at the end.
bool takeSpan(Reader &reader, int64_t &milliseconds) {
    Reader next = reader;
    double total = 0;
    bool any = false;
    for (;;) {
        next.skipBlanks();
        int64_t whole = 0;
        int64_t thousandths = 0;
        if (!next.takeNumber(1, 15, whole))
            break;
        next.takeFraction(thousandths);
        next.skipBlanks();
        size_t letters = 0;
        while (letters < next.rest.size() && isLetter(next.rest[letters]))
            ++letters;
        std::string_view name = next.rest.substr(0, letters);
        const auto known = [&](std::string_view wanted) {
            return std::find_if(std::begin(UNITS), std::end(UNITS),
                                [&](const UnitRow &row) { return wanted == row.name; });
        };
        const auto *unit = known(name);
        if (unit == std::end(UNITS) && name.size() > 1 && name.back() == 's')
            unit = known(name.substr(0, name.size() - 1));
        if (unit == std::end(UNITS))
            return false;
        next.rest.remove_prefix(letters);
        total += (static_cast<double>(whole) + static_cast<double>(thousandths) / 1000) *
                 static_cast<double>(unit->milliseconds);
        any = true;
    }
    if (!any || total > static_cast<double>(MAX_MILLISECONDS))
        return false;
    milliseconds = static_cast<int64_t>(std::llround(total));
    reader = next;
    return true;
}

constexpr const char *WEEKDAYS[] = {"sunday",   "monday", "tuesday", "wednesday",
                                    "thursday", "friday", "saturday"};

// today, yesterday, tomorrow, a weekday or its first three letters.
bool takeDay(Reader &reader, int64_t now, Zone zone, Date &date) {
    int weekday = 0;
    const Date today = dateOf(now, zone, &weekday);
    if (reader.takeWord("today")) {
        date = today;
        return true;
    }
    if (reader.takeWord("yesterday")) {
        date = daysBefore(today, 1);
        return true;
    }
    if (reader.takeWord("tomorrow")) {
        date = daysBefore(today, -1);
        return true;
    }
    for (int i = 0; i < 7; ++i) {
        const std::string_view name = WEEKDAYS[i];
        if (reader.takeWord(name) || reader.takeWord(name.substr(0, 3))) {
            date = daysBefore(today, (weekday - i + 7) % 7);
            return true;
        }
    }
    return false;
}

bool parseAbsolute(Reader reader, int64_t now, Zone zone, int64_t &time) {
    Date date{};
    Clock clock;
    if (reader.takeChar('@')) {
        int64_t seconds = 0;
        int64_t milliseconds = 0;
        const bool negative = reader.takeChar('-');
        if (!reader.takeNumber(1, 12, seconds))
            return false;
        reader.takeFraction(milliseconds);
        time = (seconds * 1000 + milliseconds) * (negative ? -1 : 1);
        return reader.atEnd();
    }
    if (takeDate(reader, date)) {
        if (!reader.atEnd()) {
            Reader next = reader;
            if (!next.takeChar('t'))
                next.skipBlanks();
            if (takeClock(next, clock))
                reader = next;
        }
    } else if (takeDay(reader, now, zone, date)) {
        reader.skipBlanks();
        if (!reader.atEnd() && !takeClock(reader, clock))
            return false;
    } else if (takeClock(reader, clock)) {
        date = dateOf(now, zone);
    } else {
        return false;
    }
    int64_t east = 0;
    if (takeZone(reader, east))
        time = toTime(date, clock, Zone::Utc) - east * 1000;
    else
        time = toTime(date, clock, zone);
    return reader.atEnd();
}

bool parseRelative(Reader reader, int64_t now, int64_t &time) {
    int64_t span = 0;
    if (reader.takeWord("now")) {
        if (reader.atEnd()) {
            time = now;
            return true;
        }
        reader.skipBlanks();
    }
    const bool later = reader.takeChar('+') || reader.takeWord("in");
    const bool earlier = !later && reader.takeChar('-');
    if (!takeSpan(reader, span))
        return false;
    reader.skipBlanks();
    const bool ago = reader.takeWord("ago");
    if (!reader.atEnd() || (ago && (later || earlier)) || (!ago && !later && !earlier))
        return false;
    time = later ? now + span : now - span;
    return true;
}

} // namespace

bool parseTimeText(std::string_view text, int64_t now, Zone zone, int64_t &time, std::string &error) {
    const std::string lower = lowered(text);
    if (parseRelative({lower}, now, time) || parseAbsolute({lower}, now, zone, time))
        return true;
    error = "'" + std::string(text) +
            "' is not a time (examples: 2024-03-01 13:45, 13:45, yesterday, -2h30m, " +
            "2 hours ago, @1709300702)";
    return false;
}

bool parseSpanText(std::string_view text, int64_t &milliseconds, std::string &error) {
    const std::string lower = lowered(text);
    Reader reader{lower};
    if (takeSpan(reader, milliseconds) && reader.atEnd())
        return true;
    error = "'" + std::string(text) + "' is not a length of time (examples: 90s, 2h30m, 14 days)";
    return false;
}

int64_t currentTime() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

int64_t monotonicMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// ---- formatting ----------------------------------------------------------------

namespace {

int64_t floorDivide(int64_t value, int64_t by) {
    return value >= 0 ? value / by : (value + 1) / by - 1;
}

void appendDigits(std::string &out, int64_t value, int digits) {
    char text[8];
    for (int i = digits; i-- > 0; value /= 10)
        text[i] = static_cast<char>('0' + value % 10);
    out.append(text, static_cast<size_t>(digits));
}

} // namespace

int64_t TimeFormatter::offsetAt(int64_t seconds) {
    if (mode == Mode::Utc)
        return 0;
    if (mode == Mode::Offset)
        return east;
    const int64_t wanted = floorDivide(seconds, SECONDS_PER_QUARTER);
    if (wanted != quarter) {
        const auto instant = static_cast<time_t>(seconds);
        tm parts{};
        offset = localtime_r(&instant, &parts) != nullptr ? parts.tm_gmtoff : 0;
        quarter = wanted;
    }
    return offset;
}

void TimeFormatter::append(std::string &out, int64_t time, char separator) {
    const int64_t utc = floorDivide(time, 1000);
    const int64_t seconds = utc + offsetAt(utc);
    const int64_t wantedDay = floorDivide(seconds, SECONDS_PER_DAY);
    if (wantedDay != day) {
        const auto instant = static_cast<time_t>(wantedDay * SECONDS_PER_DAY);
        tm parts{};
        const bool isKnown = gmtime_r(&instant, &parts) != nullptr;
        const int length = std::snprintf(date, sizeof date, "%04ld-%02d-%02d", parts.tm_year + 1900L,
                                         parts.tm_mon + 1, parts.tm_mday);
        if (!isKnown || length < 0 || static_cast<size_t>(length) >= sizeof date)
            std::strcpy(date, "9999+"); // a year of many digits
        day = wantedDay;
    }
    const int64_t ofDay = seconds - wantedDay * SECONDS_PER_DAY;
    out += date;
    out += separator;
    appendDigits(out, ofDay / 3600, 2);
    out += ':';
    appendDigits(out, ofDay / 60 % 60, 2);
    out += ':';
    appendDigits(out, ofDay % 60, 2);
    out += '.';
    appendDigits(out, (time % 1000 + 1000) % 1000, 3);
}

void TimeFormatter::appendShort(std::string &out, int64_t time) {
    append(out, time, ' ');
}

void TimeFormatter::appendRfc3339(std::string &out, int64_t time) {
    append(out, time, 'T');
    if (mode == Mode::Utc) {
        out += 'Z';
        return;
    }
    const int64_t minutes = offsetAt(floorDivide(time, 1000)) / 60;
    out += minutes < 0 ? '-' : '+';
    appendDigits(out, std::abs(minutes) / 60, 2);
    out += ':';
    appendDigits(out, std::abs(minutes) % 60, 2);
}

int64_t TimeUnits::beginOf(int64_t time) {
    constexpr int64_t QUARTER_LENGTH = 900000;
    const auto floored = [](int64_t value, int64_t unit) {
        return value / unit - (value % unit < 0 ? 1 : 0);
    };
    if (zone == Zone::Local && floored(time, QUARTER_LENGTH) != quarter) {
        quarter = floored(time, QUARTER_LENGTH);
        const time_t seconds = static_cast<time_t>(floored(time, 1000));
        tm parts{};
        offset = localtime_r(&seconds, &parts) != nullptr ? parts.tm_gmtoff * 1000 : 0;
    }
    int64_t local = 0;
    int64_t begin = 0;
    if (__builtin_add_overflow(time, offset, &local) ||
        __builtin_mul_overflow(floored(local, length), length, &begin) ||
        __builtin_sub_overflow(begin, offset, &begin))
        return time;
    return begin;
}

int64_t timeBetween(int64_t first, int64_t last) {
    int64_t span = 0;
    if (__builtin_sub_overflow(last, first, &span))
        return last > first ? INT64_MAX : -INT64_MAX;
    return span;
}

std::string formatTime(int64_t time, Zone zone) {
    TimeFormatter formatter;
    formatter.mode = zone == Zone::Utc ? TimeFormatter::Mode::Utc : TimeFormatter::Mode::Local;
    std::string out;
    formatter.appendShort(out, time);
    return out;
}

std::string formatSpan(int64_t milliseconds) {
    constexpr UnitRow SHOWN[] = {
        {"d", SECONDS_PER_DAY * SECOND}, {"h", 3600 * SECOND}, {"m", 60 * SECOND}, {"s", SECOND}, {"ms", 1}};
    if (milliseconds < 0)
        return "-" + formatSpan(-milliseconds);
    std::string out;
    int written = 0;
    for (const UnitRow &row : SHOWN) {
        const int64_t count = milliseconds / row.milliseconds;
        if (count > 0 && written < 2)
            out += std::to_string(count) + row.name;
        if (count > 0 || written > 0)
            ++written;
        milliseconds %= row.milliseconds;
    }
    return out.empty() ? "0s" : out;
}

bool parseSizeText(std::string_view text, uint64_t &bytes) {
    const std::string lower = lowered(text);
    Reader reader{lower};
    int64_t whole = 0;
    int64_t thousandths = 0;
    if (!reader.takeNumber(1, 18, whole))
        return false;
    reader.takeFraction(thousandths);
    reader.skipBlanks();
    double scale = 1;
    constexpr char LETTERS[] = "kmgtp";
    if (!reader.atEnd()) {
        const char *letter = std::strchr(LETTERS, reader.rest.front());
        if (letter != nullptr && *letter != '\0') {
            for (const char *each = LETTERS; each <= letter; ++each)
                scale *= 1024;
            reader.rest.remove_prefix(1);
            reader.takeChar('i');
        }
        reader.takeChar('b');
    }
    if (!reader.atEnd())
        return false;
    if (scale == 1) {
        bytes = static_cast<uint64_t>(whole);
        return thousandths == 0;
    }
    const double value = (static_cast<double>(whole) + static_cast<double>(thousandths) / 1000) * scale;
    if (value >= 1.8e19)
        return false;
    bytes = static_cast<uint64_t>(value);
    return true;
}

std::string formatSize(uint64_t bytes) {
    constexpr char LETTERS[] = "KMGTPE";
    if (bytes < 1024)
        return std::to_string(bytes) + "B";
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    value /= 1024;
    while (value >= 1023.95 && unit + 1 < sizeof LETTERS - 1) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f%c", value, LETTERS[unit]);
    return text;
}

} // namespace tools
