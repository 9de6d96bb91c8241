// SPDX-License-Identifier: Apache-2.0
// Rollover by local time and by period, the periodic reopen, and what a strange clock
// does to them. Times are those of Central Europe: UTC+1, in summer UTC+2.
#include "support/results.h"
#include "write_series.h"

#include <unistd.h>

using namespace series;

namespace {

constexpr uint32_t LOCAL_TIME = 2;
constexpr uint32_t PERIODIC = 4;
constexpr int64_t HOUR = 3600;

std::string file(const char *date, int counter = 0) {
    char name[64];
    snprintf(name, sizeof name, "5-7-83886090-%s-%010d.log", date, counter);
    return name;
}

struct WriteFileTime : testing::Test {
    WriteFileTime() {
        setZone("CET-1CEST,M3.5.0,M10.5.0/3");
        setClock(localTime(2024, 3, 1, 10));
    }
    ~WriteFileTime() override {
        if (handle.file != nullptr)
            zoltLogCloseFile(&handle);
    }
    void openTimed(uint32_t mode, uint64_t value) {
        LogCfg cfg = settings();
        cfg.rolloverMode = mode;
        cfg.rolloverTime = value;
        cfg.rolloverPeriod = value;
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    }
    // A file of the series as a writer left it that started it at the given time.
    void leaveBehind(const char *date, int counter, int64_t started) {
        support::makeDirectory("logs");
        support::writeFile("logs/" + file(date, counter),
                           "$Header 65543,5,7," + std::to_string(started) + ",-3600,hostA\n");
    }
    int64_t due() const { return handle.file->nextRolloverTime; }

    LogHandle handle = {};
};

} // namespace

// ---- local time ------------------------------------------------------------------------

TEST_F(WriteFileTime, MidnightRollsAtTheFirstWriteAfterIt) {
    openTimed(LOCAL_TIME, 0);
    EXPECT_EQ(due(), localTime(2024, 3, 2));
    setClock(localTime(2024, 3, 1, 23, 59, 59));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "before"));
    setClock(localTime(2024, 3, 2));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "after"));
    EXPECT_EQ(logFiles(), (Names{file("240301"), file("240302")}));
    EXPECT_EQ(textsIn("logs/" + file("240301")), Texts{"before"});
    EXPECT_EQ(textsIn("logs/" + file("240302")), Texts{"after"});
    EXPECT_EQ(due(), localTime(2024, 3, 3));
}

TEST_F(WriteFileTime, HourAndMinuteOfTheSameDay) {
    openTimed(LOCAL_TIME, 13 * HOUR + 30 * 60 + 59);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 13, 30, 0)) << "seconds do not count";
    setClock(localTime(2024, 3, 1, 13, 29, 59));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "before"));
    setClock(localTime(2024, 3, 1, 13, 30, 0));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "after"));
    EXPECT_EQ(textsIn("logs/" + file("240301", 0)), Texts{"before"});
    EXPECT_EQ(textsIn("logs/" + file("240301", 1)), Texts{"after"});
    EXPECT_EQ(due(), localTime(2024, 3, 2, 13, 30, 0));
}

TEST_F(WriteFileTime, FileStartedAfterTheInstantWaitsForTheNextDay) {
    openTimed(LOCAL_TIME, 9 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 2, 9));
}

TEST_F(WriteFileTime, FileStartedAtTheInstantWaitsForTheNextDay) {
    openTimed(LOCAL_TIME, 10 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 2, 10));
}

TEST_F(WriteFileTime, ResumedFileOfYesterdayStartedAfterTheInstantIsDueAtIt) {
    leaveBehind("240229", 3, localTime(2024, 2, 29, 12));
    openTimed(LOCAL_TIME, 11 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 11));
}

TEST_F(WriteFileTime, ResumedFileOfYesterdayStartedBeforeTheInstantIsDueAtOnce) {
    leaveBehind("240229", 3, localTime(2024, 2, 29, 11));
    openTimed(LOCAL_TIME, 11 * HOUR + 60);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 10));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "new"));
    EXPECT_EQ(textsIn("logs/" + file("240301")), Texts{"new"});
    EXPECT_EQ(textsIn("logs/" + file("240229", 3)), Texts{});
}

TEST_F(WriteFileTime, ResumedFileOlderThanADayIsDueAtOnce) {
    leaveBehind("240229", 3, localTime(2024, 2, 29, 10));
    openTimed(LOCAL_TIME, 9 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 10)) << "86400 seconds are not less than a day";
    leaveBehind("240229", 4, localTime(2024, 2, 29, 10) + 1);
    LogHandle other;
    LogCfg cfg = settings();
    cfg.rolloverMode = LOCAL_TIME;
    cfg.rolloverTime = 9 * HOUR;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    ASSERT_RESULT(ZOLTLOG_OK, open(&other, cfg));
    EXPECT_EQ(other.file->nextRolloverTime, localTime(2024, 3, 1, 9));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&other));
}

TEST_F(WriteFileTime, TimeBeyondADayIsCountedOnward) {
    openTimed(LOCAL_TIME, 25 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 2, 1));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    openTimed(LOCAL_TIME, UINT64_MAX);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240301")), Texts{"one"});
}

// ---- daylight saving time ----------------------------------------------------------------

TEST_F(WriteFileTime, InstantOfTheDayOfAChangeIsByTheWallClock) {
    setClock(localTime(2024, 3, 31, 1)); // the clock goes from 2:00 to 3:00
    openTimed(LOCAL_TIME, 6 * HOUR);
    EXPECT_EQ(due(), 1711857600); // 4:00 UTC
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    setClock(localTime(2024, 10, 27, 0, 30)); // the clock goes from 3:00 to 2:00
    LogCfg cfg = settings(8);
    cfg.rolloverMode = LOCAL_TIME;
    cfg.rolloverTime = 6 * HOUR;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(due(), 1730005200); // 5:00 UTC
}

TEST_F(WriteFileTime, NextDayIsAlways86400Seconds) {
    setClock(localTime(2024, 3, 30, 10));
    openTimed(LOCAL_TIME, 6 * HOUR);
    EXPECT_EQ(due(), localTime(2024, 3, 31, 7)) << "an hour late by the wall clock";
}

TEST_F(WriteFileTime, RolloverInTheGapOrOverlapHappensOnce) {
    const struct {
        int month, day;
        uint64_t originator;
    } changes[] = {{3, 31, 7}, {10, 27, 8}};
    for (const auto &change : changes) {
        setClock(localTime(2024, change.month, change.day));
        LogCfg cfg = settings(change.originator);
        cfg.rolloverMode = LOCAL_TIME;
        cfg.rolloverTime = 2 * HOUR + 30 * 60;
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
        const size_t before = logFiles().size();
        for (int step = 0; step < 23 * 6; ++step, advance(600))
            ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
        EXPECT_EQ(logFiles().size(), before + 1) << change.month;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    }
}

TEST_F(WriteFileTime, LastHourOfADayOf25HoursStartsOneFile) {
    setClock(localTime(2024, 10, 27, 22)); // the clock went from 3:00 to 2:00
    openTimed(LOCAL_TIME, 0);
    EXPECT_EQ(due(), localTime(2024, 10, 27, 23)) << "an hour early by the wall clock";
    for (setClock(localTime(2024, 10, 27, 23)); fakeMs / 1000 < localTime(2024, 10, 28); advance(300))
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles(), (Names{file("241027", 0), file("241027", 1)}));
    EXPECT_EQ(due(), localTime(2024, 10, 28));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles(), (Names{file("241027", 0), file("241027", 1), file("241028", 0)}));
    EXPECT_EQ(due(), localTime(2024, 10, 29));
}

TEST_F(WriteFileTime, EveryTimeOfDayRollsAboutOnceADayAcrossAChange) {
    const struct {
        const char *zone;
        int month, day; // two days before the change
    } changes[] = {{"CET-1CEST,M3.5.0,M10.5.0/3", 3, 29},
                   {"CET-1CEST,M3.5.0,M10.5.0/3", 10, 25},
                   {"CST5CDT,M3.2.0/0,M11.1.0/1", 3, 8},
                   {"CST5CDT,M3.2.0/0,M11.1.0/1", 11, 1},
                   {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 4, 5}};
    for (const auto &change : changes) {
        setZone(change.zone);
        for (uint64_t time = 0; time < 24 * HOUR; time += HOUR / 2) {
            const std::string directory =
                "d" + std::to_string(change.month) + "-" + std::to_string(time) + change.zone[1];
            LogCfg cfg = settings();
            cfg.rolloverMode = LOCAL_TIME;
            cfg.rolloverTime = time;
            strcpy(cfg.directory, ("./" + directory + "/").c_str());
            setClock(localTime(2024, change.month, change.day, 12));
            ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
            for (int step = 0; step < 4 * 24 * 4; ++step, advance(900)) {
                handle.file->lastReopenTime = 0; // a reopen after midnight starts a file too
                ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
            }
            const size_t rolled = support::listFiles(directory).size() - 1;
            EXPECT_GE(rolled, 4u) << directory;
            EXPECT_LE(rolled, 5u) << directory << ": one more because of the change";
            ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        }
    }
}

// ---- period --------------------------------------------------------------------------------

TEST_F(WriteFileTime, PeriodCountsFromTheFilesStart) {
    openTimed(PERIODIC, 500);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 10) + 500);
    advance(499);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "before"));
    advance(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "after"));
    EXPECT_EQ(textsIn("logs/" + file("240301", 0)), Texts{"before"});
    EXPECT_EQ(textsIn("logs/" + file("240301", 1)), Texts{"after"});
    EXPECT_EQ(due(), localTime(2024, 3, 1, 10) + 1000);
}

TEST_F(WriteFileTime, PeriodOfAResumedFileCountsFromItsHeader) {
    leaveBehind("240301", 2, localTime(2024, 3, 1, 9, 55));
    openTimed(PERIODIC, 600);
    EXPECT_EQ(due(), localTime(2024, 3, 1, 10, 5));
}

TEST_F(WriteFileTime, OverduePeriodRollsAtTheFirstWrite) {
    leaveBehind("240301", 2, localTime(2024, 3, 1, 1));
    openTimed(PERIODIC, 600);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240301", 3)), Texts{"one"});
    EXPECT_EQ(logFiles().size(), 2u);
}

TEST_F(WriteFileTime, SizeAndPeriodBothRoll) {
    LogCfg cfg = settings();
    cfg.rolloverMode = PERIODIC | 1;
    cfg.maxFileSizeKB = 1;
    cfg.rolloverPeriod = 100;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(logFiles().size(), 2u);
    advance(99);
    ASSERT_RESULT(ZOLTLOG_FAILED, zoltLogWriteMsgWithRolloverToFile(handle.file, nullptr));
    advance(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240301", 2)), Texts{"one"});
}

// ---- a clock that is set -----------------------------------------------------------------

TEST_F(WriteFileTime, ClockSetBackADayKeepsTheFile) {
    openTimed(LOCAL_TIME, 0);
    advance(-86400);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240301")), Texts{"one"});
    EXPECT_EQ(logFiles().size(), 1u);
    EXPECT_EQ(due(), localTime(2024, 3, 2));
}

TEST_F(WriteFileTime, ClockSetBackADayContinuesThatDaysCounters) {
    const int64_t yesterday = localTime(2024, 2, 29, 9);
    const std::string full(1100, '-');
    for (int counter = 0; counter < 40; ++counter) {
        leaveBehind("240229", counter, yesterday);
        const std::string path = "logs/" + file("240229", counter);
        support::writeFile(path, support::readFile(path) + full + "\n");
    }
    LogCfg cfg = settings();
    cfg.rolloverMode = LOCAL_TIME | 1;
    cfg.maxFileSizeKB = 1;
    leaveBehind("240301", 0, localTime(2024, 3, 1, 9));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(handle.file->counter, 0);
    advance(-86400);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(textsIn("logs/" + file("240229", 40)).size(), 1u);
    EXPECT_EQ(logFiles().size(), 42u);
    EXPECT_EQ(due(), localTime(2024, 3, 1));
}

TEST_F(WriteFileTime, RolloverToAFileOfYesterdaySetsItsSchedule) {
    leaveBehind("240229", 0, localTime(2024, 2, 29, 9));
    leaveBehind("240301", 0, localTime(2024, 3, 1, 9));
    openTimed(LOCAL_TIME, 0);
    advance(-86400);
    handle.file->headerVersion = 0; // leave the file
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240229", 0)), Texts{"one"});
    EXPECT_EQ(due(), localTime(2024, 3, 1));
}

TEST_F(WriteFileTime, ClockSetForwardAYearRollsOnce) {
    openTimed(LOCAL_TIME, 0);
    setClock(localTime(2025, 3, 2, 10));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), (Names{file("240301"), file("250302")}));
}

// ---- the periodic reopen -------------------------------------------------------------------

TEST_F(WriteFileTime, RemovedFileIsLeftAtTheFirstMessageASecondAfterTheLastLook) {
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "looks"));
    ASSERT_EQ(unlink(("logs/" + file("240301")).c_str()), 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "lost"));
    EXPECT_EQ(logFiles(), Names{});
    usleep(1000000);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "kept"));
    EXPECT_EQ(logFiles(), Names{file("240301", 1)});
    EXPECT_EQ(textsIn("logs/" + file("240301", 1)), Texts{"kept"});
}

TEST_F(WriteFileTime, MovedFileIsRecreatedWithHeaderAfterTenMinutes) {
    openTimed(0, 0);
    const std::string path = "logs/" + file("240301");
    ASSERT_EQ(rename(path.c_str(), "moved"), 0);
    advance(600);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "elsewhere"));
    EXPECT_EQ(logFiles(), Names{}) << "not more than 600000 ms";
    fakeMs += 1;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "kept"));
    EXPECT_EQ(logFiles(), Names{file("240301")});
    EXPECT_EQ(support::lines(support::readFile(path))[0], "$Header 65543,5,7,1709284200,-3600,hostA");
    EXPECT_EQ(textsIn(path), Texts{"kept"});
    EXPECT_EQ(handle.file->lastReopenTime, 1709284200001);
}

TEST_F(WriteFileTime, FileThatIsThereIsContinuedWithItsHeader) {
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), Names{file("240301")});
    EXPECT_EQ(textsIn("logs/" + file("240301")), (Texts{"one", "two"}));
    EXPECT_EQ(handle.file->counter, 0);
    EXPECT_EQ(handle.file->fileStartTime, localTime(2024, 3, 1, 10));
    EXPECT_EQ(handle.file->lastReopenTime, (localTime(2024, 3, 1, 10) + 601) * 1000);
}

TEST_F(WriteFileTime, ReopenKeepsACounterAboveZero) {
    leaveBehind("240301", 6, localTime(2024, 3, 1, 9, 59));
    openTimed(0, 0);
    for (int round = 0; round < 3; ++round) {
        advance(601);
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    }
    EXPECT_EQ(logFiles(), Names{file("240301", 6)});
    EXPECT_EQ(handle.file->counter, 6);
}

TEST_F(WriteFileTime, MovedFileIsLeftAfterTenMinutes) {
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_EQ(rename(("logs/" + file("240301")).c_str(), "moved"), 0);
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn("moved"), Texts{"one"});
    EXPECT_EQ(textsIn("logs/" + file("240301")), Texts{"two"});
}

TEST_F(WriteFileTime, ReopenAfterMidnightStartsTheNewDaysFileWithItsContexts) {
    setClock(localTime(2024, 3, 1, 23, 55));
    openTimed(0, 0);
    LogHandle context = {};
    zoltLogInitMsg(&context.contextMsg, &handle, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&context.contextMsg, "T1");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContextToFile(&handle, &context, &context.contextMsg));
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    const std::vector<std::string> found = support::lines(support::readFile("logs/" + file("240302")));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].substr(0, 14), "$Header 65543,");
    EXPECT_EQ(found[1].substr(0, 2), "3,");
    EXPECT_EQ(textOf(found[2]), "one");
    zoltLogFreeMsg(&context.contextMsg);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&context));
}

TEST_F(WriteFileTime, ReopenOfTheSameFileRewritesNoContext) {
    openTimed(0, 0);
    LogHandle context = {};
    zoltLogInitMsg(&context.contextMsg, &handle, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&context.contextMsg, "T1");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContextToFile(&handle, &context, &context.contextMsg));
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::lines(support::readFile("logs/" + file("240301"))).size(), 3u);
    zoltLogFreeMsg(&context.contextMsg);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&context));
}

TEST_F(WriteFileTime, FileResumedAfterTenMinutesIsReopenedAtTheFirstMessage) {
    leaveBehind("240301", 2, localTime(2024, 3, 1, 8));
    openTimed(0, 0);
    EXPECT_EQ(handle.file->lastReopenTime, localTime(2024, 3, 1, 8) * 1000);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(handle.file->lastReopenTime, localTime(2024, 3, 1, 10) * 1000);
    EXPECT_EQ(textsIn("logs/" + file("240301", 2)), Texts{"one"});
}

TEST_F(WriteFileTime, FileOfAnEarlierDayIsLeftAtTheFirstMessage) {
    leaveBehind("240229", 2, localTime(2024, 2, 29, 8));
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + file("240301", 0)), Texts{"one"});
    EXPECT_EQ(textsIn("logs/" + file("240229", 2)), Texts{});
}

TEST_F(WriteFileTime, StartTimeZeroIsNeverReopened) {
    leaveBehind("240301", 2, 0);
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(handle.file->lastReopenTime, 0);
    EXPECT_EQ(textsIn("logs/" + file("240301", 2)), Texts{"one"});
}

TEST_F(WriteFileTime, ClockSetBackPutsTheReopenOff) {
    openTimed(0, 0);
    advance(-3600);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(handle.file->lastReopenTime, localTime(2024, 3, 1, 10) * 1000);
}

TEST_F(WriteFileTime, AbsurdTimeStampsOfMessagesDoNoHarm) {
    openTimed(0, 0);
    LogMsg msg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_DEBUG, "one"));
    for (const uint64_t stamp : {uint64_t{0}, uint64_t{INT64_MAX}, uint64_t{INT64_MAX}, UINT64_MAX}) {
        msg.timestamp = stamp;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogWriteMsgWithRolloverToFile(handle.file, &msg));
    }
    zoltLogFreeMsg(&msg);
    EXPECT_EQ(logFiles(), Names{file("240301")});
}

TEST_F(WriteFileTime, FailedReopenIsTriedAgainAndContinuesTheSameFile) {
    openTimed(0, 0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_EQ(rename("logs", "away"), 0);
    support::writeFile("logs", "in the way");
    advance(601);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    EXPECT_EQ(handle.file->file.descriptor, -1);
    EXPECT_EQ(handle.file->lastReopenTime, localTime(2024, 3, 1, 10) * 1000);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    ASSERT_EQ(unlink("logs"), 0);
    ASSERT_EQ(rename("away", "logs"), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), Names{file("240301")});
    EXPECT_EQ(textsIn("logs/" + file("240301")), (Texts{"one", "two"}));
}

TEST_F(WriteFileTime, FailedRolloverIsTriedAgainAndSkipsNoCounter) {
    openTimed(PERIODIC, 300);
    ASSERT_EQ(rename("logs", "away"), 0);
    support::writeFile("logs", "in the way");
    advance(300);
    for (int message = 0; message < 3; ++message)
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    ASSERT_EQ(unlink("logs"), 0);
    ASSERT_EQ(rename("away", "logs"), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), (Names{file("240301", 0), file("240301", 1)}));
    EXPECT_EQ(textsIn("logs/" + file("240301", 1)), Texts{"two"});
}
