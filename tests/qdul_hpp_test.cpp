// SPDX-License-Identifier: Apache-2.0
// qdul.hpp: the classes over the library's calls. Formats with braces and source locations
// have programs of their own (qdul_hpp_format_test, qdul_hpp_located_test).
#include "qdul.hpp"

#include "support/cases.h"
#include "support/log_records.h"
#include "support/support.h"
#include "support/syscalls.h"

#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace {

using Texts = std::vector<std::string>;

Texts recordTexts() {
    Texts texts;
    for (const logs::Record &record : logs::records())
        texts.push_back(record.whole ? record.text : "not whole");
    return texts;
}

struct Hpp : testing::Test {
    void SetUp() override {
        logs::configure({"Default.DebugLevel=3", "Default.DiagnosticLevel=2"});
        ASSERT_EQ(qdul::Result::ok, log.open(logs::PRODUCT, logs::ORIGINATOR));
    }
    qdul::Log log;
};

static_assert(!std::is_copy_constructible_v<qdul::Log> && !std::is_copy_assignable_v<qdul::Log>);
static_assert(!std::is_move_constructible_v<qdul::Log> && !std::is_move_assignable_v<qdul::Log>);
static_assert(!std::is_copy_constructible_v<qdul::Context> && !std::is_move_constructible_v<qdul::Context>);
static_assert(std::is_error_code_enum_v<qdul::Result>);

// ---- handles ----------------------------------------------------------------------------

TEST_F(Hpp, AHandleClosesItself) {
    const size_t open = support::openDescriptors();
    {
        qdul::Log other(logs::PRODUCT, 8);
        EXPECT_TRUE(other);
        EXPECT_EQ(qdul::Result::ok, other.result());
        EXPECT_EQ(open + 1, support::openDescriptors());
        const auto third = std::make_unique<qdul::Log>(logs::PRODUCT, 9);
        EXPECT_EQ(open + 2, support::openDescriptors());
    }
    EXPECT_EQ(open, support::openDescriptors());
}

TEST_F(Hpp, AnOpenHandleIsClosedBeforeItIsOpenedAgain) {
    const size_t open = support::openDescriptors();
    EXPECT_EQ(qdul::Result::ok, log.open(logs::PRODUCT, 8));
    EXPECT_EQ(qdul::Result::ok, log.open(logs::PRODUCT, 9, 8));
    EXPECT_EQ(open, support::openDescriptors());
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words"));
    EXPECT_EQ(9u, logs::records()[0].originatorId);
    log.close();
    log.close();
    EXPECT_EQ(open - 1, support::openDescriptors());
    EXPECT_FALSE(log);
}

TEST_F(Hpp, AHandleThatIsNotOpenTellsSo) {
    qdul::Log closed;
    EXPECT_FALSE(closed);
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_FILE_STATE), closed.result());
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_FILE_STATE), closed.app(qdul::Severity::info, "words"));
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_FILE_STATE), closed.appf(qdul::Severity::info, "%d", 1));
    qdul::Log unregistered(99, 1);
    EXPECT_FALSE(unregistered);
    EXPECT_EQ(qdul::Result(ZOLTLOG_CFG_NOT_FOUND), unregistered.result());
    qdul::Context context(unregistered, "T1");
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_FILE_STATE), context.app(qdul::Severity::info, "words"));
}

TEST_F(Hpp, ALogSetIsOpenedByName) {
    support::writeFile("product.conf", support::readFile("product.conf") + "LOGSET.backup.LogDirectory=" +
                                           std::filesystem::current_path().string() + "/log/\n");
    qdul::Log set;
    EXPECT_EQ(qdul::Result::ok, set.openLogSet(logs::PRODUCT, 8, "backup"));
    EXPECT_EQ(qdul::Result::ok, set.app(qdul::Severity::info, "words"));
    EXPECT_EQ(2u, support::listFiles("log").size());
    support::writeFile("product.conf", "7.OIDNames=no directory\n");
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_DIRECTORY), set.open(logs::PRODUCT, 9));
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_DIRECTORY), set.result());
    EXPECT_EQ(qdul::Result(ZOLTLOG_NO_FILE_STATE), set.app(qdul::Severity::info, "words"));
}

// ---- messages ---------------------------------------------------------------------------

TEST_F(Hpp, EachSeverityIsWritten) {
    for (const auto severity : {qdul::Severity::info, qdul::Severity::warning, qdul::Severity::error,
                                qdul::Severity::critical, qdul::Severity::emergency})
        EXPECT_EQ(qdul::Result::ok, log.app(severity, "words"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(5u, records.size());
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(std::to_string(i) + ",(0|)", records[i].rest);
}

TEST_F(Hpp, TextsAreTakenAsUtf8AndByTheirLength) {
    const std::string whole = "Grüße und mehr";
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, std::string_view(whole).substr(0, 7)));
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, whole));
    EXPECT_EQ(qdul::Result::ok, log.appf(qdul::Severity::info, "%s, %d", "Grüße", 2));
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, std::string_view()));
    EXPECT_EQ((Texts{"Grüße", whole, "Grüße, 2", ""}), recordTexts());
}

TEST_F(Hpp, TextsOfAnyLengthAreWhole) {
    Texts expected;
    for (const size_t length :
         {size_t{1022}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{5000}, size_t{300000}}) {
        expected.emplace_back(length, 'x');
        EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, expected.back()));
        EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, expected.back(), {{"n", length}}));
        expected.push_back(expected.back() + " n=" + std::to_string(length));
    }
    EXPECT_EQ(expected, recordTexts());
}

TEST_F(Hpp, AMessageOfEachKindIsLikeTheCCalls) {
    log.setWho("disk");
    EXPECT_EQ(qdul::Result::ok, log.diag(2, "one"));
    EXPECT_EQ(qdul::Result::ok, log.diagf(2, "%s", "two"));
    EXPECT_EQ(qdul::Result::ok, log.debug(3, "three"));
    EXPECT_EQ(qdul::Result::ok, log.debugf(3, "%s", "four"));
    EXPECT_EQ(qdul::Result::ok, log.audit("alice", 7, 1, "%s", "five"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(5u, records.size());
    const struct {
        uint64_t type;
        const char *text, *who, *rest;
    } rows[] = {{1, "one", "disk", "2,(0|)"},
                {1, "two", "disk", "2,(0|)"},
                {0, "three", "disk", "3"},
                {0, "four", "disk", "3"}};
    for (size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(rows[i].type, records[i].type);
        EXPECT_EQ(rows[i].text, records[i].text);
        EXPECT_EQ(rows[i].who, records[i].who);
        EXPECT_EQ(rows[i].rest, records[i].rest);
        EXPECT_EQ(i + 1, records[i].messageId);
    }
    EXPECT_EQ(4u, records[4].type);
    EXPECT_EQ("alice", records[4].who);
    EXPECT_EQ("7,(0|)", records[4].rest);
}

TEST_F(Hpp, LevelsAboveTheHandlesAreDroppedAndUseNoNumber) {
    EXPECT_TRUE(log.wantsDebug(3));
    EXPECT_FALSE(log.wantsDebug(4));
    EXPECT_TRUE(log.wantsDiag(2));
    EXPECT_FALSE(log.wantsDiag(3));
    EXPECT_EQ(qdul::Result::ok, log.debug(4, "no"));
    EXPECT_EQ(qdul::Result::ok, log.debugf(4, "no"));
    EXPECT_EQ(qdul::Result::ok, log.diag(3, "no"));
    EXPECT_EQ(qdul::Result::ok, log.diagf(3, "no"));
    log.setDebugLevel(6);
    log.setDiagLevel(0);
    EXPECT_EQ(qdul::Result::ok, log.debug(6, "yes"));
    EXPECT_EQ(qdul::Result::ok, log.diag(1, "no"));
    EXPECT_EQ(Texts{"yes"}, recordTexts());
    EXPECT_EQ(1u, logs::records()[0].messageId);
    EXPECT_EQ(qdul::Result(ZOLTLOG_FAILED), log.debug(0, "is no level"));
}

TEST(HppReload, LevelsFollowTheConfiguration) {
    logs::configure({"Default.DynaReloadInSec=60"});
    qdul::Log log(logs::PRODUCT, logs::ORIGINATOR);
    EXPECT_FALSE(log.wantsDebug(1));
    support::writeFile("product.conf", support::readFile("product.conf") + "Default.DebugLevel=2\n");
    static std::atomic<time_t> ahead;
    ahead = 100;
    libc::time.hook = [](time_t *) { return libc::time.real(nullptr) + ahead; };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        const int result = libc::clock_gettime.real(clock, out);
        out->tv_sec += ahead;
        return result;
    };
    const timespec changed[2] = {{time(nullptr), 0}, {time(nullptr), 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "product.conf", changed, 0));
    EXPECT_TRUE(log.wantsDebug(2));
    EXPECT_FALSE(log.wantsDebug(3));
}

TEST_F(Hpp, LongComponentsAreCutBetweenCharacters) {
    log.setWho(std::string(126, 'x') + "ü");
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words"));
    log.setWho(std::string(125, 'x') + "ü");
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words"));
    EXPECT_EQ(std::string(126, 'x'), logs::records()[0].who);
    EXPECT_EQ(std::string(125, 'x') + "ü", logs::records()[1].who);
}

// ---- keys and values ----------------------------------------------------------------------

TEST_F(Hpp, KeysAndValuesFollowTheText) {
    const std::string owned = "b";
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words",
                                        {{"text", "a"},
                                         {"string", owned},
                                         {"view", std::string_view("c")},
                                         {"int", -93},
                                         {"large", UINT64_MAX},
                                         {"small", INT64_MIN},
                                         {"real", 0.5},
                                         {"yes", true},
                                         {"null", static_cast<const char *>(nullptr)}}));
    EXPECT_EQ(qdul::Result::ok, log.debug(1, "words", {{"k", 1}}));
    EXPECT_EQ(qdul::Result::ok, log.diag(1, "words", {{"k", 2}}));
    EXPECT_EQ((Texts{"words text=a string=b view=c int=-93 large=18446744073709551615 "
                     "small=-9223372036854775808 real=0.5 yes=true null=(null)",
                     "words k=1", "words k=2"}),
              recordTexts());
}

TEST_F(Hpp, ValuesThatCouldBeMisreadAreQuoted) {
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words",
                                        {{"a", ""},
                                         {"b", "x y"},
                                         {"c", "say \"no\""},
                                         {"d", "x=1"},
                                         {"e", "\\"},
                                         {"f", "two\nlines\t\x7f"},
                                         {"g", "Grüße"}}));
    EXPECT_EQ(Texts{R"(words a="" b="x y" c="say \"no\"" d="x=1" e="\\" f="two\nlines\x09\x7f" g=Grüße)"},
              recordTexts());
}

TEST_F(Hpp, RealNumbersDoNotMindTheLocale) {
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "words", {{"real", 2.25}}));
    EXPECT_EQ(Texts{"words real=2.25"}, recordTexts());
}

// ---- contexts ---------------------------------------------------------------------------

TEST_F(Hpp, MessagesOfAContextCarryItsToken) {
    log.setWho("mgr");
    {
        qdul::Context request(log, std::string_view("req-17 and more").substr(0, 6), "the request");
        ASSERT_EQ(qdul::Result::ok, request.result());
        EXPECT_EQ(qdul::Result::ok, request.app(qdul::Severity::info, "Grüße"));
        qdul::Context nested(request, "step");
        EXPECT_EQ(qdul::Result::ok, nested.appf(qdul::Severity::info, "in %s", "it"));
    }
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "after"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(5u, records.size());
    EXPECT_EQ(3u, records[0].type);
    EXPECT_EQ("the request", records[0].text);
    EXPECT_EQ("req-17", records[0].who); // its own token
    EXPECT_EQ("req-17", records[1].token);
    EXPECT_EQ("Grüße", records[1].text);
    EXPECT_EQ("mgr", records[1].who);
    EXPECT_EQ("step", records[2].text);
    EXPECT_EQ("step", records[3].token);
    EXPECT_EQ("", records[4].token);
}

TEST_F(Hpp, AContextMayOutliveItsParent) {
    const size_t before = support::openDescriptors();
    {
        auto parent = std::make_unique<qdul::Log>(logs::PRODUCT, 8);
        qdul::Context context(*parent, "T1");
        parent.reset();
        EXPECT_EQ(qdul::Result::ok, context.app(qdul::Severity::info, "words"));
    }
    EXPECT_EQ(before, support::openDescriptors());
}

// ---- results ------------------------------------------------------------------------------

TEST_F(Hpp, ResultsAreErrorCodes) {
    libc::write.hook = [](int, const void *, size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    const std::error_code error = log.app(qdul::Severity::info, "words");
    libc::write.hook = nullptr;
    EXPECT_TRUE(error);
    EXPECT_EQ(ZOLTLOG_DEVICE_FULL, static_cast<uint32_t>(error.value()));
    EXPECT_STREQ("qdul", error.category().name());
    EXPECT_EQ("no space is left on the device", error.message());
    EXPECT_TRUE(error == std::errc::no_space_on_device);
    EXPECT_TRUE(error == qdul::Result(ZOLTLOG_DEVICE_FULL));
    EXPECT_FALSE(std::error_code(qdul::Result::ok));
    EXPECT_FALSE(std::error_code(qdul::Result(ZOLTLOG_CFG_NOT_FOUND)) == std::errc::permission_denied);
}

TEST(HppResults, SystemConditionsHaveTheirResults) {
    const std::pair<uint32_t, std::errc> rows[] = {
        {ZOLTLOG_INVALID_ARGUMENT, std::errc::invalid_argument},
        {ZOLTLOG_NO_MEMORY, std::errc::not_enough_memory},
        {ZOLTLOG_OPEN_DENIED, std::errc::permission_denied},
        {ZOLTLOG_OPEN_NO_PATH, std::errc::no_such_file_or_directory},
        {ZOLTLOG_DEVICE_FULL, std::errc::no_space_on_device}};
    for (const auto &[result, condition] : rows)
        EXPECT_TRUE(std::error_code(qdul::Result(result)) == condition) << result;
}

// ---- macros ---------------------------------------------------------------------------------

int looks;
std::string look() {
    ++looks;
    return "looked";
}

TEST_F(Hpp, ArgumentsOfMacrosAreNotLookedAtUnlessTheyAreWritten) {
    looks = 0;
    QDUL_DEBUG(log, 4, look());
    QDUL_DIAG(log, 3, look());
    QDUL_DEBUGF(log, 4, "%s", look().c_str());
    QDUL_DIAGF(log, 3, "%s", look().c_str());
    EXPECT_EQ(0, looks);
    QDUL_DEBUG(log, 3, look(), {{"k", 1}});
    QDUL_DIAG(log, 2, look());
    QDUL_DEBUGF(log, 3, "%s", look().c_str());
    QDUL_DIAGF(log, 2, "%s", look().c_str());
    EXPECT_EQ(4, looks);
    EXPECT_EQ((Texts{"looked k=1", "looked", "looked", "looked"}), recordTexts());
}

TEST_F(Hpp, MacrosAreStatements) {
    int others = 0;
    for (const bool logs : {true, false}) {
        if (logs)
            QDUL_DEBUG(log, 1, "a");
        else
            ++others;
        if (logs)
            QDUL_ONCE log.app(qdul::Severity::info, "b");
        else
            ++others;
        if (logs)
            QDUL_EVERY(1) QDUL_DIAG(log, 1, "c");
        else
            ++others;
        if (logs)
            QDUL_AT_MOST(1, 1) log.app(qdul::Severity::info, "d");
        else
            ++others;
    }
    EXPECT_EQ(4, others);
    EXPECT_EQ((Texts{"a", "b", "c", "d"}), recordTexts());
}

TEST_F(Hpp, OnceIsOnceInEachPlaceWhateverTheThread) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                QDUL_ONCE log.app(qdul::Severity::info, "here");
                QDUL_ONCE log.app(qdul::Severity::info, "there");
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(2u, recordTexts().size());
}

TEST_F(Hpp, EveryNthIsTheFirstAndEachNthBehindIt) {
    for (int n = 0; n < 25; ++n) {
        QDUL_EVERY(10) log.appf(qdul::Severity::info, "%d", n);
        QDUL_EVERY(0) EXPECT_EQ(qdul::Result::ok, log.appf(qdul::Severity::info, "all"));
    }
    Texts expected(25, "all");
    for (const size_t place : {size_t{0}, size_t{11}, size_t{22}})
        expected.insert(expected.begin() + static_cast<ptrdiff_t>(place), std::to_string(place / 11 * 10));
    EXPECT_EQ(expected, recordTexts());
}

TEST_F(Hpp, AtMostSoManyInATime) {
    static std::atomic<time_t> ahead;
    ahead = 0;
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        if (clock != CLOCK_MONOTONIC_COARSE)
            return libc::clock_gettime.real(clock, out);
        *out = {1000 + ahead, 0};
        return 0;
    };
    for (const time_t second : {0, 1, 59, 60, 61, 119, 500}) {
        ahead = second;
        for (int n = 0; n < 5; ++n)
            QDUL_AT_MOST(3, 60) log.appf(qdul::Severity::info, "%d", static_cast<int>(second));
    }
    EXPECT_EQ((Texts{"0", "0", "0", "60", "60", "60", "500", "500", "500"}), recordTexts());
}

} // namespace
