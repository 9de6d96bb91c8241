// SPDX-License-Identifier: Apache-2.0
// Times, spans and sizes as users type them.
#include "common/time_text.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

using tools::Zone;

namespace {

// 2024-03-01 12:00:00 UTC, a Friday
constexpr int64_t NOW = 1709294400000;
constexpr int64_t SECOND = 1000, MINUTE = 60 * SECOND, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
constexpr int64_t MIDNIGHT = NOW - 12 * HOUR;
constexpr int64_t BAD = INT64_MIN;

int64_t time(const char *text, Zone zone = Zone::Utc) {
    int64_t value = 0;
    std::string error;
    if (tools::parseTimeText(text, NOW, zone, value, error)) {
        EXPECT_EQ(error, "");
        return value;
    }
    EXPECT_NE(error.find(std::string("'") + text + "'"), std::string::npos) << error;
    return BAD;
}

int64_t span(const char *text) {
    int64_t value = 0;
    std::string error;
    return tools::parseSpanText(text, value, error) ? value : BAD;
}

void zone(const char *name) {
    setenv("TZ", name, 1);
    tzset();
}

} // namespace

TEST(TimeText, AbsoluteTimesInUtc) {
    EXPECT_EQ(time("2024-03-01"), MIDNIGHT);
    EXPECT_EQ(time("2024-03-01 13:45"), MIDNIGHT + 13 * HOUR + 45 * MINUTE);
    EXPECT_EQ(time("2024-03-01 13:45:02"), 1709300702000);
    EXPECT_EQ(time("2024-03-01 13:45:02.123"), 1709300702123);
    EXPECT_EQ(time("2024-03-01T13:45:02.123Z"), 1709300702123);
    EXPECT_EQ(time("2024-03-01t13:45:02.1"), 1709300702100);
    EXPECT_EQ(time("2024-03-01 13:45:02.123987"), 1709300702123);
    EXPECT_EQ(time("2024-3-1"), MIDNIGHT);
    EXPECT_EQ(time("  2024-03-01  "), MIDNIGHT);
    EXPECT_EQ(time("1970-01-01"), 0);
    EXPECT_EQ(time("1969-12-31 23:59:59.500"), -500);
    EXPECT_EQ(time("2024-02-29"), MIDNIGHT - DAY);
}

TEST(TimeText, ZonesCount) {
    EXPECT_EQ(time("2024-03-01T14:45:02.123+01:00"), 1709300702123);
    EXPECT_EQ(time("2024-03-01T08:45:02-0500"), 1709300702000);
    EXPECT_EQ(time("2024-03-01 13:45:02 UTC"), 1709300702000);
    zone("Europe/Berlin");
    EXPECT_EQ(time("2024-03-01T13:45:02Z", Zone::Local), 1709300702000);
}

TEST(TimeText, LocalTimesFollowTheTimeZone) {
    zone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(time("2024-03-01 14:45:02", Zone::Local), 1709300702000);
    EXPECT_EQ(time("2024-07-01", Zone::Local), 1719784800000); // summer time: 22:00 UTC the day before
    EXPECT_EQ(time("today", Zone::Local), MIDNIGHT - HOUR);
    zone("UTC");
}

TEST(TimeText, ClockAloneIsToday) {
    EXPECT_EQ(time("13:45"), MIDNIGHT + 13 * HOUR + 45 * MINUTE);
    EXPECT_EQ(time("8:05:30"), MIDNIGHT + 8 * HOUR + 5 * MINUTE + 30 * SECOND);
    EXPECT_EQ(time("00:00"), MIDNIGHT);
}

TEST(TimeText, DaysByName) {
    EXPECT_EQ(time("now"), NOW);
    EXPECT_EQ(time("NOW"), NOW);
    EXPECT_EQ(time("today"), MIDNIGHT);
    EXPECT_EQ(time("yesterday"), MIDNIGHT - DAY);
    EXPECT_EQ(time("tomorrow"), MIDNIGHT + DAY);
    EXPECT_EQ(time("yesterday 08:30"), MIDNIGHT - DAY + 8 * HOUR + 30 * MINUTE);
    EXPECT_EQ(time("friday"), MIDNIGHT); // today is one
    EXPECT_EQ(time("fri"), MIDNIGHT);
    EXPECT_EQ(time("Thursday"), MIDNIGHT - DAY);
    EXPECT_EQ(time("saturday"), MIDNIGHT - 6 * DAY);
    EXPECT_EQ(time("mon 10:00"), MIDNIGHT - 4 * DAY + 10 * HOUR);
}

TEST(TimeText, RelativeTimes) {
    EXPECT_EQ(time("-2h30m"), NOW - 2 * HOUR - 30 * MINUTE);
    EXPECT_EQ(time("+10m"), NOW + 10 * MINUTE);
    EXPECT_EQ(time("2 hours ago"), NOW - 2 * HOUR);
    EXPECT_EQ(time("1 day 3 hours ago"), NOW - DAY - 3 * HOUR);
    EXPECT_EQ(time("90s ago"), NOW - 90 * SECOND);
    EXPECT_EQ(time("in 5 minutes"), NOW + 5 * MINUTE);
    EXPECT_EQ(time("now - 1h"), NOW - HOUR);
    EXPECT_EQ(time("-1.5h"), NOW - 90 * MINUTE);
    EXPECT_EQ(time("-1w"), NOW - 7 * DAY);
    EXPECT_EQ(time("-500ms"), NOW - 500);
}

TEST(TimeText, SecondsSinceTheEpoch) {
    EXPECT_EQ(time("@1709300702"), 1709300702000);
    EXPECT_EQ(time("@1709300702.5"), 1709300702500);
    EXPECT_EQ(time("@-1"), -1000);
    EXPECT_EQ(time("@0"), 0);
}

TEST(TimeText, WhatIsNoTimeIsRefused) {
    for (const char *text : {"",
                             " ",
                             "x",
                             "2024",
                             "2024-13-01",
                             "2024-00-01",
                             "2024-02-30",
                             "2023-02-29",
                             "2024-03-01 25:00",
                             "2024-03-01 13:60",
                             "2024-03-01 13:45 x",
                             "24:00",
                             "13",
                             "-",
                             "-2",
                             "-2x",
                             "2h",
                             "2 hours",
                             "-2h ago",
                             "ago",
                             "@",
                             "@x",
                             "yesterdays",
                             "frida",
                             "today 25:00",
                             "2024-03-01T13:45:02+1",
                             "2024-03-01 +25:00",
                             "-99999999999999y"})
        EXPECT_EQ(time(text), BAD) << text;
}

TEST(SpanText, SpansOfTime) {
    EXPECT_EQ(span("90s"), 90 * SECOND);
    EXPECT_EQ(span("2h30m"), 150 * MINUTE);
    EXPECT_EQ(span("14 days"), 14 * DAY);
    EXPECT_EQ(span("1 week 2 days"), 9 * DAY);
    EXPECT_EQ(span("1 month"), 30 * DAY);
    EXPECT_EQ(span("1y"), 365 * DAY);
    EXPECT_EQ(span("0.25s"), 250);
    for (const char *text : {"", "5", "s", "-5s", "5 ago", "5s x"})
        EXPECT_EQ(span(text), BAD) << text;
}

TEST(TimeFormat, ShortAndRfc3339) {
    tools::TimeFormatter utc;
    utc.mode = tools::TimeFormatter::Mode::Utc;
    std::string text;
    utc.appendShort(text, 1709300702123);
    EXPECT_EQ(text, "2024-03-01 13:45:02.123");
    text.clear();
    utc.appendRfc3339(text, 1709300702123);
    EXPECT_EQ(text, "2024-03-01T13:45:02.123Z");
    text.clear();
    utc.appendRfc3339(text, -1);
    EXPECT_EQ(text, "1969-12-31T23:59:59.999Z");

    tools::TimeFormatter writer;
    writer.mode = tools::TimeFormatter::Mode::Offset;
    writer.east = 7200;
    text.clear();
    writer.appendRfc3339(text, 1709300702123);
    EXPECT_EQ(text, "2024-03-01T15:45:02.123+02:00");
    writer.east = -12600;
    text.clear();
    writer.appendRfc3339(text, 1709300702123);
    EXPECT_EQ(text, "2024-03-01T10:15:02.123-03:30");
}

TEST(TimeFormat, AYearHasFourDigitsAndIsReadBack) {
    tools::TimeFormatter utc;
    utc.mode = tools::TimeFormatter::Mode::Utc;
    for (const int64_t time : {-54527907208000, -62135596800000, -62167219200000, 253402300799999}) {
        std::string text;
        utc.appendRfc3339(text, time);
        int64_t again = 0;
        std::string error;
        EXPECT_TRUE(tools::parseTimeText(text, 0, Zone::Utc, again, error)) << error;
        EXPECT_EQ(time, again) << text;
    }
    std::string text;
    utc.appendShort(text, -62135596800000);
    EXPECT_EQ("0001-01-01 00:00:00.000", text);
}

TEST(TimeFormat, LocalTimeChangesItsOffsetOnTheMinute) {
    zone("CET-1CEST,M3.5.0,M10.5.0/3");
    tools::TimeFormatter local;
    std::string text;
    const int64_t change = 1711846800000; // 2024-03-31 01:00 UTC
    local.appendRfc3339(text, change - 1);
    EXPECT_EQ(text, "2024-03-31T01:59:59.999+01:00");
    text.clear();
    local.appendRfc3339(text, change);
    EXPECT_EQ(text, "2024-03-31T03:00:00.000+02:00");
    zone("UTC");
}

TEST(TimeFormat, ManyTimesInAnyOrderEqualTheCLibrary) {
    zone("America/New_York");
    tools::TimeFormatter local;
    uint64_t state = 12345;
    for (int i = 0; i < 2000; ++i) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const auto seconds = static_cast<time_t>((state >> 20) % 4000000000U);
        std::string text;
        local.appendShort(text, static_cast<int64_t>(seconds) * 1000 + 7);
        tm parts{};
        localtime_r(&seconds, &parts);
        char expected[64];
        strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S.007", &parts);
        ASSERT_EQ(text, expected);
    }
    zone("UTC");
}

TEST(TimeFormat, ExtremeTimesDoNoHarm) {
    tools::TimeFormatter utc;
    utc.mode = tools::TimeFormatter::Mode::Utc;
    std::string text;
    for (const int64_t value : {INT64_MIN, INT64_MIN + 1, INT64_MAX, INT64_MAX - 1})
        utc.appendRfc3339(text, value);
    EXPECT_FALSE(text.empty());
}

TEST(TimeFormat, Spans) {
    EXPECT_EQ(tools::formatSpan(0), "0s");
    EXPECT_EQ(tools::formatSpan(999), "999ms");
    EXPECT_EQ(tools::formatSpan(1500), "1s500ms");
    EXPECT_EQ(tools::formatSpan(9000 * 1000), "2h30m");
    EXPECT_EQ(tools::formatSpan(3 * DAY + 4 * HOUR + 5 * MINUTE), "3d4h");
    EXPECT_EQ(tools::formatSpan(3 * DAY + 5 * MINUTE), "3d");
    EXPECT_EQ(tools::formatSpan(-MINUTE), "-1m");
}

TEST(SizeText, Sizes) {
    uint64_t bytes = 0;
    const struct {
        const char *text;
        uint64_t bytes;
    } rows[] = {{"0", 0},           {"512", 512},      {"512B", 512},         {"10K", 10240},
                {"10k", 10240},     {"1.5M", 1572864}, {"2GiB", 2147483648U}, {"1 MB", 1048576},
                {"1T", 1ULL << 40}, {"100000", 100000}};
    for (const auto &row : rows) {
        ASSERT_TRUE(tools::parseSizeText(row.text, bytes)) << row.text;
        EXPECT_EQ(bytes, row.bytes) << row.text;
    }
    for (const char *text : {"", "x", "-1", "1.5", "1Q", "1KK", "99999999999999999P"})
        EXPECT_FALSE(tools::parseSizeText(text, bytes)) << text;
}

TEST(SizeText, SizesForPeople) {
    EXPECT_EQ(tools::formatSize(0), "0B");
    EXPECT_EQ(tools::formatSize(1023), "1023B");
    EXPECT_EQ(tools::formatSize(1024), "1.0K");
    EXPECT_EQ(tools::formatSize(1536), "1.5K");
    EXPECT_EQ(tools::formatSize(1048575), "1.0M");
    EXPECT_EQ(tools::formatSize(UINT64_MAX), "16.0E");
}
