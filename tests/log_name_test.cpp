// SPDX-License-Identifier: Apache-2.0
// Names of log files and their header line: what is formed is read back, by every reading.
#include "src/log_name.h"
#include "support/support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

std::string formed(const LogName &name) {
    char text[512];
    const size_t length = formLogName(text, sizeof text, &name);
    EXPECT_EQ(length, strlen(text));
    return text;
}

std::string lineOf(const HeaderLine &header) {
    char line[HEADER_LINE_SIZE];
    const size_t length = formHeaderLine(line, &header);
    return {line, length};
}

std::mt19937_64 chance(20240301); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time

uint64_t anyNumber() {
    return chance() >> chance() % 64;
}

int32_t between(int32_t low, int32_t high) {
    return low + static_cast<int32_t>(chance() % static_cast<uint64_t>(high - low + 1));
}

LogName anyName(const std::string &set) {
    LogName name = {};
    name.product = anyNumber() | 1;
    name.date = {between(0, 99), between(1, 12), between(1, 31), 0, 0, 0};
    if (!set.empty()) {
        name.set = set.c_str();
        name.setLength = set.size();
        name.date.hour = between(0, 23);
        name.date.minute = between(0, 59);
        name.date.second = between(0, 59);
    } else {
        name.originator = anyNumber();
        name.host = anyNumber();
        name.counter = anyNumber();
    }
    return name;
}

bool sameDate(const LogFileDate &a, const LogFileDate &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

TEST(LogName, EveryOriginatorsNameIsReadBackByAllReadings) {
    for (int i = 0; i < 20000; ++i) {
        const LogName name = anyName("");
        const std::string text = formed(name);
        LogName read;
        ASSERT_TRUE(parseLogName(text.data(), text.size(), &read)) << text;
        EXPECT_EQ(read.set, nullptr);
        EXPECT_EQ(read.product, name.product) << text;
        EXPECT_EQ(read.originator, name.originator) << text;
        EXPECT_EQ(read.host, name.host) << text;
        EXPECT_EQ(read.counter, name.counter) << text;
        EXPECT_TRUE(sameDate(read.date, name.date)) << text;
        EXPECT_EQ(std::string(read.stamp, 6), text.substr(text.rfind('-') - 6, 6));

        char prefix[128];
        ASSERT_GT(formSeriesPrefix(prefix, sizeof prefix, &name), 0u);
        ASSERT_EQ(text.compare(0, strlen(prefix), prefix), 0);
        const char *rest = afterThreeIds(text.c_str());
        ASSERT_EQ(rest, text.c_str() + strlen(prefix));
        LogFileDate date = {};
        uint64_t counter = 0;
        ASSERT_TRUE(scanDateAndCounter(rest, CounterDigits::ALL, &date, &counter)) << text;
        EXPECT_EQ(counter, name.counter) << text;
        EXPECT_TRUE(sameDate(date, name.date)) << text;

        const NameParts parts = splitLogName(text.c_str());
        EXPECT_EQ(numberOfPart(parts.part[0]), std::min<uint64_t>(name.product, INT64_MAX)) << text;
        EXPECT_EQ(numberOfPart(parts.part[1]), std::min<uint64_t>(name.originator, INT64_MAX)) << text;
        const NameAge age = ageOfLogName(text.c_str());
        EXPECT_EQ(age.counter, name.counter) << text;
        EXPECT_EQ(age.date,
                  static_cast<uint64_t>((name.date.year * 100 + name.date.month) * 100 + name.date.day));
    }
}

TEST(LogName, EveryLogSetsNameIsReadBackByAllReadings) {
    for (const std::string set : {"s", "backup", "log_set.2", "123456", "with blank", "x.log"}) {
        for (int i = 0; i < 2000; ++i) {
            const LogName name = anyName(set);
            const std::string text = formed(name);
            LogName read;
            ASSERT_TRUE(parseLogName(text.data(), text.size(), &read)) << text;
            EXPECT_EQ(read.product, name.product) << text;
            EXPECT_EQ(std::string(read.set, read.setLength), set) << text;
            EXPECT_TRUE(sameDate(read.date, name.date)) << text;
            const std::string stamp(read.stamp, 12);
            EXPECT_EQ(stamp + ".log", text.substr(text.size() - 16)) << text;

            const NameParts parts = splitLogName(text.c_str());
            EXPECT_EQ(std::string(parts.part[1].start, parts.part[1].length), set);
            EXPECT_EQ(std::string(parts.part[2].start, 12), stamp);
            if (set.size() != 6) { // one of six characters passes for a date
                EXPECT_EQ(ageOfLogName(text.c_str()).date, std::stoull(stamp)) << text;
            }
        }
    }
}

TEST(LogName, LogSetsNameMayHoldTheSeparatorForTheExactReading) {
    const LogName name = anyName("a-b-c");
    const std::string text = formed(name);
    LogName read;
    ASSERT_TRUE(parseLogName(text.data(), text.size(), &read));
    EXPECT_EQ(std::string(read.set, read.setLength), "a-b-c");
}

TEST(LogName, WhatDoesNotFitIsNotFormed) {
    const LogName name = anyName("");
    const std::string text = formed(name);
    char room[512];
    EXPECT_EQ(formLogName(room, text.size(), &name), 0u);
    EXPECT_EQ(formLogName(room, text.size() + 1, &name), text.size());
    EXPECT_EQ(formSeriesPrefix(room, 5, &name), 0u);
    EXPECT_EQ(formLogName(room, 5, &name), 0u);
}

TEST(LogName, ExactReadingRefusesWhatIsNotFormed) {
    for (const std::string text :
         {"", ".log", "5-7-1-240301-0000000002", "5-7-1-240301-000000002.log", "5-7-1-241301-0000000002.log",
          "5-7-1-240300-0000000002.log", "5-7-1-240301-0000000002.log.log", "0-7-1-240301-0000000002.log",
          "5-7-1-240301-99999999999999999999.log", "5--240301134502.log", "5-s-240301134502x.log",
          "x-s-240301134502.log", "5-s-24030113450.log", "-5-7-1-240301-0000000002.log",
          "+5-7-1-240301-0000000002.log"}) {
        LogName read;
        EXPECT_FALSE(parseLogName(text.data(), text.size(), &read)) << text;
    }
}

TEST(LogName, CounterOfMoreThanTenDigitsIsReadTwoWays) {
    LogFileDate date = {};
    uint64_t counter = 0;
    ASSERT_TRUE(scanDateAndCounter("240301-12345678901.log", CounterDigits::TEN, &date, &counter));
    EXPECT_EQ(counter, 1234567890u);
    ASSERT_TRUE(scanDateAndCounter("240301-12345678901.log", CounterDigits::ALL, &date, &counter));
    EXPECT_EQ(counter, 12345678901u);
}

TEST(LogName, WhatTheRestDoesNotTellIsLeft) {
    LogFileDate date = {1, 2, 3, 4, 5, 6};
    uint64_t counter = 17;
    EXPECT_FALSE(scanDateAndCounter("2403xx-0000000001.log", CounterDigits::ALL, &date, &counter));
    EXPECT_EQ(date.year, 1);
    EXPECT_TRUE(scanDateAndCounter("240301.log", CounterDigits::ALL, &date, &counter));
    EXPECT_EQ(date.year, 24);
    EXPECT_EQ(date.hour, 4);
    EXPECT_EQ(counter, 17u);
    EXPECT_TRUE(scanDateAndCounter("240301-x.log", CounterDigits::ALL, &date, &counter));
    EXPECT_EQ(counter, 17u);
    EXPECT_EQ(afterThreeIds("5-7-1"), nullptr);
}

// ---- the header line -----------------------------------------------------------------

TEST(HeaderLineForms, EveryLineIsReadBackByBothReadings) {
    const uint64_t versions[] = {ZOLTLOG_RECORD_VERSION_OLDEST, ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO,
                                 ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX,
                                 ZOLTLOG_RECORD_VERSION_ORIGINATOR, ZOLTLOG_RECORD_VERSION_LOGSET};
    for (int i = 0; i < 20000; ++i) {
        HeaderLine header = {};
        header.version = versions[i % 5];
        const std::string host(static_cast<size_t>(between(1, 511)), static_cast<char>(between('!', '~')));
        header.host = host.c_str();
        header.hostLength = host.size();
        if (header.version != ZOLTLOG_RECORD_VERSION_LOGSET) {
            header.product = anyNumber();
            header.originator = anyNumber();
            header.created = anyNumber();
        }
        header.hasZone = header.version >= ZOLTLOG_RECORD_VERSION_ORIGINATOR;
        if (header.hasZone)
            header.zone = static_cast<int64_t>(anyNumber()) * (chance() % 2 != 0 ? 1 : -1);
        const std::string line = lineOf(header);
        ASSERT_EQ(line.back(), '\n');
        for (const HeaderReading reading : {HeaderReading::EXACT, HeaderReading::LENIENT}) {
            HeaderLine read;
            ASSERT_EQ(parseHeaderLine(line.data(), line.size() - 1, reading, &read), HeaderParsed::OK)
                << line;
            EXPECT_EQ(read.version, header.version);
            EXPECT_EQ(read.product, header.product) << line;
            EXPECT_EQ(read.originator, header.originator) << line;
            EXPECT_EQ(read.created, header.created) << line;
            EXPECT_EQ(read.hasZone, header.hasZone) << line;
            EXPECT_EQ(read.zone, header.zone) << line;
            EXPECT_EQ(std::string(read.host, read.hostLength), host);
        }
    }
}

TEST(HeaderLineForms, OnlyTheLenientReadingForgives) {
    const struct {
        const char *line;
        HeaderParsed exact;
        HeaderParsed lenient;
    } rows[] = {
        {"  $Header 65543,5,7,1,0,h", HeaderParsed::NoHeader, HeaderParsed::OK},
        {"$Header\t65543,5,7,1,0,h", HeaderParsed::NoHeader, HeaderParsed::OK},
        {"$Header  65543,5,7,1,0,h", HeaderParsed::MALFORMED, HeaderParsed::OK},
        {"$Header 65543, 5,7,1,0,h", HeaderParsed::MALFORMED, HeaderParsed::OK},
        {"$Header 65543,-5,7,1,0,h", HeaderParsed::MALFORMED, HeaderParsed::OK},
        {"$Header 65543,5,7", HeaderParsed::MALFORMED, HeaderParsed::OK},
        {"$Header 65544,1", HeaderParsed::MALFORMED, HeaderParsed::OK},
        {"$Header", HeaderParsed::NoHeader, HeaderParsed::UnknownVersion},
        {"$Header x", HeaderParsed::MALFORMED, HeaderParsed::UnknownVersion},
        {"$Header 65545,1,h", HeaderParsed::UnknownVersion, HeaderParsed::UnknownVersion},
        {"$Headers 65543,5,7,1,0,h", HeaderParsed::NoHeader, HeaderParsed::NoHeader},
        {"", HeaderParsed::NoHeader, HeaderParsed::NoHeader},
    };
    for (const auto &row : rows) {
        HeaderLine read;
        EXPECT_EQ(parseHeaderLine(row.line, strlen(row.line), HeaderReading::EXACT, &read), row.exact)
            << row.line;
        EXPECT_EQ(parseHeaderLine(row.line, strlen(row.line), HeaderReading::LENIENT, &read), row.lenient)
            << row.line;
    }
}

TEST(HeaderLineForms, HostIsTheRestOfTheLineOrAWord) {
    const char line[] = "$Header 65544,0,host a,b";
    HeaderLine read;
    ASSERT_EQ(parseHeaderLine(line, strlen(line), HeaderReading::EXACT, &read), HeaderParsed::OK);
    EXPECT_EQ(std::string(read.host, read.hostLength), "host a,b");
    ASSERT_EQ(parseHeaderLine(line, strlen(line), HeaderReading::LENIENT, &read), HeaderParsed::OK);
    EXPECT_EQ(std::string(read.host, read.hostLength), "host");
}
