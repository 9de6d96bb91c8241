// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "formatter/zoltformat.h"
#include "support/support.h"

namespace {

struct Formatter : testing::Test {
    void SetUp() override {
        void *library =
            dlopen((support::buildDirectory() + "/lib/libzoltLogFormatMsg.so.3").c_str(), RTLD_LAZY);
        ASSERT_NE(nullptr, library) << dlerror();
        entry = reinterpret_cast<LogFormatMessageFn>(dlsym(library, "LogFormatMessage"));
        ASSERT_NE(nullptr, entry);
        setZone("UTC");
        msg = {};
        msg.type = ZOLTLOG_MSG_APP;
        msg.timestamp = 1709300702123; // 2024-03-01 13:45:02.123 UTC
        msg.who = copy("mgr");
        msg.text = copy("Disk full, 2 of 3");
    }
    static void setZone(const char *zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    // A text that lives until the end of the test
    char *copy(const std::string &text) {
        texts.push_back(std::make_unique<std::string>(text));
        return texts.back()->data();
    }
    std::string line(uint32_t flags) {
        char *text = nullptr;
        EXPECT_EQ(0u, entry(nullptr, 0, nullptr, 0, flags, 0, &msg, nullptr, &text));
        std::string result = text != nullptr ? text : "NULL";
        free(text);
        return result;
    }
    std::string textLine(const std::string &text, bool utf8 = true) {
        msg.text = copy(text);
        msg.utf8 = utf8 ? 1 : 0;
        return line(0);
    }

    LogFormatMessageFn entry = nullptr;
    LogMsg msg = {};
    std::vector<std::unique_ptr<std::string>> texts;
};

TEST_F(Formatter, TheConsoleSeesTimeKindSourceAndText) {
    msg.attr.severity = ZOLTLOG_SEVERITY_ERROR;
    msg.contextToken = copy("req-17");
    EXPECT_EQ("2024-03-01 13:45:02.123+00:00 ERROR mgr [req-17]: Disk full, 2 of 3", line(0x700));
}

TEST_F(Formatter, TheSystemLogSeesTheSameWithoutTheTime) {
    msg.attr.severity = ZOLTLOG_SEVERITY_ERROR;
    msg.contextToken = copy("req-17");
    EXPECT_EQ("ERROR mgr [req-17]: Disk full, 2 of 3", line(0x600));
}

TEST_F(Formatter, EachFlagAddsOnePart) {
    msg.attr.severity = ZOLTLOG_SEVERITY_INFO;
    msg.contextToken = copy("T1");
    EXPECT_EQ("Disk full, 2 of 3", line(0));
    EXPECT_EQ("2024-03-01 13:45:02.123+00:00: Disk full, 2 of 3", line(ZOLTFORMAT_TIME));
    EXPECT_EQ("INFO: Disk full, 2 of 3", line(ZOLTFORMAT_KIND));
    EXPECT_EQ("mgr [T1]: Disk full, 2 of 3", line(ZOLTFORMAT_SOURCE));
    EXPECT_EQ("Disk full, 2 of 3", line(~0x700u));
}

TEST_F(Formatter, SeveritiesHaveNames) {
    const char *const names[] = {"INFO", "WARNING", "ERROR", "CRITICAL", "EMERGENCY", "SEVERITY-5"};
    for (uint32_t severity = 0; severity < 6; ++severity) {
        msg.attr.severity = severity;
        EXPECT_EQ(std::string(names[severity]) + ": Disk full, 2 of 3", line(ZOLTFORMAT_KIND));
    }
}

TEST_F(Formatter, KindsShowTheirLevel) {
    msg.type = ZOLTLOG_MSG_DEBUG;
    msg.attr.level = 6;
    EXPECT_EQ("DEBUG-6 mgr: Disk full, 2 of 3", line(0x600));
    msg.type = ZOLTLOG_MSG_DIAG;
    msg.attr.level = 3;
    EXPECT_EQ("DIAG-3 mgr: Disk full, 2 of 3", line(0x600));
    msg.type = 9;
    EXPECT_EQ("TYPE-9 mgr: Disk full, 2 of 3", line(0x600));
}

TEST_F(Formatter, AuditsShowSubjectAndOutcome) {
    msg.type = ZOLTLOG_MSG_AUDIT;
    msg.who = copy("alice");
    msg.outcome = 1;
    msg.contextToken = copy("T1");
    EXPECT_EQ("AUDIT subject=alice outcome=1 [T1]: Disk full, 2 of 3", line(0x600));
    msg.type = ZOLTLOG_MSG_SECURE_AUDIT;
    msg.attr.level = 2;
    msg.contextToken = nullptr;
    EXPECT_EQ("SECURE-AUDIT-2 subject=alice outcome=1: Disk full, 2 of 3", line(0x600));
    for (char *nobody : {static_cast<char *>(nullptr), copy("")}) {
        msg.who = nobody;
        EXPECT_EQ("SECURE-AUDIT-2 subject=(none) outcome=1: Disk full, 2 of 3", line(0x600));
    }
}

TEST_F(Formatter, ContextsShowTheirTokenAndTheirParents) {
    msg.type = ZOLTLOG_MSG_CONTEXT;
    msg.attr.contextTitle = copy("req-18");
    msg.contextToken = copy("req-17");
    EXPECT_EQ("CONTEXT req-18 [req-17]: Disk full, 2 of 3", line(0x600));
    msg.contextToken = nullptr;
    EXPECT_EQ("CONTEXT req-18: Disk full, 2 of 3", line(0x600));
}

TEST_F(Formatter, MissingPartsAreLeftOut) {
    for (char *nobody : {static_cast<char *>(nullptr), copy("")}) {
        msg.who = nobody;
        msg.contextToken = nobody;
        EXPECT_EQ("INFO: Disk full, 2 of 3", line(0x600));
        EXPECT_EQ("Disk full, 2 of 3", line(ZOLTFORMAT_SOURCE));
    }
}

TEST_F(Formatter, AMissingTextIsSaidSo) {
    msg.text = nullptr;
    EXPECT_EQ("INFO mgr: (no text)", line(0x600));
    EXPECT_EQ("(no text)", line(0));
}

TEST_F(Formatter, AnEmptyTextStaysEmpty) {
    EXPECT_EQ("", textLine(""));
    EXPECT_EQ("INFO mgr: ", line(0x600));
}

TEST_F(Formatter, TheTimeIsLocalWithItsOffset) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ("2024-03-01 14:45:02.123+01:00: Disk full, 2 of 3", line(ZOLTFORMAT_TIME));
    msg.timestamp = 1720000000007; // in summer
    EXPECT_EQ("2024-07-03 11:46:40.007+02:00: Disk full, 2 of 3", line(ZOLTFORMAT_TIME));
    setZone("NST3:30");
    EXPECT_EQ("2024-07-03 06:16:40.007-03:30: Disk full, 2 of 3", line(ZOLTFORMAT_TIME));
    msg.timestamp = UINT64_MAX;
    setZone("UTC");
    EXPECT_EQ("584556019-04-03 14:25:51.615+00:00: Disk full, 2 of 3", line(ZOLTFORMAT_TIME));
}

TEST_F(Formatter, ControlCharactersAreEscaped) {
    EXPECT_EQ("a\\nb\\rc\\td", textLine("a\nb\rc\td"));
    EXPECT_EQ("\\x1b[31mred\\x07\\x7f\\x01", textLine("\x1b[31mred\a\x7f\x01"));
    EXPECT_EQ("C:\\dir\\new", textLine("C:\\dir\\new"));
}

TEST_F(Formatter, C1AndLineSeparatorsAndDirectionsAreEscaped) {
    EXPECT_EQ("x\\u0085y\\u009bz", textLine("x\u0085y\u009bz"));
    EXPECT_EQ("\\u2028\\u2029", textLine("\u2028\u2029"));
    EXPECT_EQ("\\u202eevil\\u2066\\u200f\\u061c", textLine("\u202eevil\u2066\u200f\u061c"));
    EXPECT_EQ("\u00a0\u00e9\u20ac\U0001f600", textLine("\u00a0\u00e9\u20ac\U0001f600"));
}

TEST_F(Formatter, WhoTokenSubjectAndTitleAreEscapedToo) {
    msg.who = copy("a\nb");
    msg.contextToken = copy("t\x1b");
    EXPECT_EQ("INFO a\\nb [t\\x1b]: Disk full, 2 of 3", line(0x600));
    msg.type = ZOLTLOG_MSG_AUDIT;
    EXPECT_EQ("AUDIT subject=a\\nb outcome=0 [t\\x1b]: Disk full, 2 of 3", line(0x600));
    msg.type = ZOLTLOG_MSG_CONTEXT;
    msg.attr.contextTitle = copy("\r");
    EXPECT_EQ("CONTEXT \\r [t\\x1b]: Disk full, 2 of 3", line(0x600));
}

TEST_F(Formatter, BytesThatAreNoCharacterAreShownAsBytes) {
    EXPECT_EQ("a\\xffb", textLine("a\xff"
                                  "b"));
    EXPECT_EQ("\\xc3", textLine("\xc3"));
    EXPECT_EQ("\\xc0\\xaf", textLine("\xc0\xaf"));                   // overlong
    EXPECT_EQ("\\xed\\xa0\\x80", textLine("\xed\xa0\x80"));          // a surrogate
    EXPECT_EQ("\\xf4\\x90\\x80\\x80", textLine("\xf4\x90\x80\x80")); // above U+10FFFF
    EXPECT_EQ("\\xe2\\x82!", textLine("\xe2\x82!"));                 // cut
}

TEST_F(Formatter, InTheCLocaleUtf8PassesThrough) {
    EXPECT_EQ("caf\u00e9", textLine("caf\u00e9", false));
    EXPECT_EQ("caf\\xe9", textLine("caf\xe9", false));
}

TEST_F(Formatter, TextsOfTheLocaleStayInTheLocalesEncoding) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ("caf\xe9", textLine("caf\xe9", false));
    EXPECT_EQ("x\\u0085", textLine("x\x85", false));
}

TEST_F(Formatter, Utf8TextsAreConvertedToTheLocalesEncoding) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ("caf\xe9", textLine("caf\u00e9"));
    EXPECT_EQ("\\u20ac \\U0001f600", textLine("\u20ac \U0001f600"));
}

TEST_F(Formatter, MultibyteLocalesAreDecoded) {
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    EXPECT_EQ("\xc6\xfc\xcb\xdc", textLine("\xc6\xfc\xcb\xdc", false)); // the two characters of Japan
    EXPECT_EQ("\xc6\xfc\xcb\xdc", textLine("\u65e5\u672c"));
    EXPECT_EQ("a\\xff\\n", textLine("a\xff\n", false));
}

TEST_F(Formatter, ARecordWithoutTextHasItsBlockRendered) {
    msg.text = nullptr;
    const auto fill = [this](const char *format, ...) {
        va_list args;
        va_start(args, format);
        EXPECT_EQ(0, zoltLisTextV(&msg.lis, format, args));
        va_end(args);
    };
    fill("%d files in %s", 12, "/tmp");
    EXPECT_EQ("12 files in /tmp", line(0));
    EXPECT_EQ("12 files in /tmp", line(0)); // the block is left alone
    zoltLisFree(&msg.lis);
    fill("%f and %f", 1e20, 1e300); // longer than a number is measured
    char expected[400];
    std::snprintf(expected, sizeof expected, "%f and %f", 1e20, 1e300);
    EXPECT_EQ(expected, line(0));
    zoltLisFree(&msg.lis);
}

TEST_F(Formatter, ALongTextIsWhole) {
    const std::string text(3000000, 'x');
    EXPECT_EQ("INFO mgr: " + text, (msg.text = copy(text), line(0x600)));
    const std::string bells(100000, '\a');
    EXPECT_EQ(400000u, textLine(bells).size());
}

TEST_F(Formatter, NullArgumentsAreRefused) {
    char *text = copy("untouched");
    EXPECT_EQ(3u, entry(nullptr, 0, nullptr, 0, 0, 0, nullptr, nullptr, &text));
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(3u, entry(nullptr, 0, nullptr, 0, 0, 0, &msg, nullptr, nullptr));
}

} // namespace
