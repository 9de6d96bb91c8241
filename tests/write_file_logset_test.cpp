// SPDX-License-Identifier: Apache-2.0
// The series of a log set.
#include "support/results.h"
#include "write_series.h"

#include <sys/resource.h>
#include <unistd.h>

using namespace series;

namespace {

struct WriteFileLogset : testing::Test {
    WriteFileLogset() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 13, 45, 2));
    }
    ~WriteFileLogset() override {
        if (handle.file != nullptr)
            zoltLogCloseFile(&handle);
    }
    LogHandle handle = {};
};

double monotonic() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double processorTime() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

const char FIRST[] = "logs/5-backup-240301134502.log";

} // namespace

TEST_F(WriteFileLogset, WorkedExampleComesOutByteForByte) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    handle.originatorId = 7;
    LogMsg msg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "Disk full, 2 of 3"));
    msg.messageId = 12;
    msg.timestamp = 1700000000123;
    msg.processId = 4242;
    msg.threadId = 4243;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogWriteMsgWithRolloverToFile(handle.file, &msg));
    EXPECT_EQ(msg.recordVersion, ZOLTLOG_RECORD_VERSION_LOGSET);
    zoltLogFreeMsg(&msg);
    EXPECT_EQ(support::readFile(FIRST),
              "$Header 65544,0,hostA\n"
              "2,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)\n");
}

TEST_F(WriteFileLogset, LatestFileIsResumedWithTheTimeOfItsName) {
    support::makeDirectory("logs");
    support::writeFile("logs/5-backup-240301134459.log", "$Header 65544,0,hostA\n");
    support::writeFile("logs/5-backup-240301134501.log", "$Header 65544,0,hostA\n");
    support::writeFile("logs/5-backup-240301134500.log", "$Header 65544,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    EXPECT_EQ(handle.file->fileStartTime, 1709300701);
    EXPECT_EQ(handle.file->lastReopenTime, 1709300701000);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/5-backup-240301134501.log").size(), 1u);
    EXPECT_EQ(logFiles().size(), 3u);
}

TEST_F(WriteFileLogset, HeaderOfAnOriginatorIsLeftAtTheFirstWrite) {
    support::makeDirectory("logs");
    support::writeFile("logs/5-backup-240301134501.log", "$Header 65543,5,7,1709300701,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134501.log")).size(), 1u);
    EXPECT_EQ(support::lines(support::readFile(FIRST)).size(), 2u);
}

TEST_F(WriteFileLogset, StatesAreNotShared) {
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, logsetSettings()));
    EXPECT_NE(handle.file, second.file);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&second, "two"));
    EXPECT_EQ(support::lines(support::readFile(FIRST)).size(), 3u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}

TEST_F(WriteFileLogset, LogsetAndOriginatorSeriesDoNotMix) {
    LogHandle originator;
    LogCfg cfg = settings();
    cfg.originatorId = 0;
    ASSERT_RESULT(ZOLTLOG_OK, open(&originator, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    EXPECT_NE(handle.file, originator.file);
    EXPECT_EQ(logFiles().size(), 2u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&originator));
}

TEST_F(WriteFileLogset, RolloverBySizeTakesTheNameOfItsSecond) {
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    advance(58);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(logFiles(), (Names{"5-backup-240301134502.log", "5-backup-240301134600.log"}));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134600.log")).size(), 2u);
}

TEST_F(WriteFileLogset, EndedFileIsLeftForTheLatestOne) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    support::writeFile("logs/5-backup-240301134510.log", "$Header 65544,0,hostA\n");
    ASSERT_EQ(0, chmod(FIRST, 01660));
    advance(58);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(Texts(), textsIn(FIRST));
    EXPECT_EQ(Texts({"one"}), textsIn("logs/5-backup-240301134510.log"));
    EXPECT_EQ(logFiles(), (Names{"5-backup-240301134502.log", "5-backup-240301134510.log"}));
}

TEST_F(WriteFileLogset, ContextsAreNotRewritten) {
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    LogHandle context = {};
    zoltLogInitMsg(&context.contextMsg, &handle, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&context.contextMsg, "T1");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContextToFile(&handle, &context, &context.contextMsg));
    EXPECT_EQ(support::lines(support::readFile(FIRST)).size(), 2u);
    advance(58);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134600.log")).size(), 2u);
    zoltLogFreeMsg(&context.contextMsg);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&context));
}

TEST_F(WriteFileLogset, RolloverWithinASecondWaits) {
    fakeMs = -1; // the real clock
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    const double start = monotonic();
    const double busy = processorTime();
    // Each record fills a file; the first finds none better within the second than the
    // empty one that is there.
    for (int record = 0; record < 3; ++record)
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1100, 'x')));
    EXPECT_LT(monotonic() - start, 4.0);
    EXPECT_LT(processorTime() - busy, 0.2) << "waits without burning the processor";
    const Names files = logFiles();
    EXPECT_EQ(files.size(), 3u);
    for (const std::string &file : files)
        EXPECT_EQ(support::lines(support::readFile("logs/" + file)).size(), 2u);
}

TEST_F(WriteFileLogset, WaitingEndsAfterTwoSecondsAndTheRecordGoesIntoTheFullFile) {
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1100, 'x')));
    const double start = monotonic();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "into the full file")); // and the clock stands still
    const double waited = monotonic() - start;
    EXPECT_GE(waited, 1.9);
    EXPECT_LT(waited, 3.5);
    EXPECT_EQ(logFiles().size(), 1u);
    EXPECT_EQ(support::lines(support::readFile(FIRST)).size(), 3u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "no second wait for the same second"));
    EXPECT_LT(monotonic() - start - waited, 1.0);
    EXPECT_EQ(support::lines(support::readFile(FIRST)).size(), 4u);
    advance(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134503.log")).size(), 2u);
}

TEST_F(WriteFileLogset, FileOfTheSameSecondStartsWithItsSecond) {
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, logsetSettings()));
    advance(10);
    handle.file->headerVersion = 0; // both leave their file in the same second
    second.file->headerVersion = 0;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(handle.file->fileStartTime, 1709300712);
    ASSERT_RESULT(ZOLTLOG_OK, send(&second, "two"));
    EXPECT_EQ(second.file->fileStartTime, 1709300712);
    EXPECT_EQ(second.file->lastReopenTime, 1709300712000);
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134512.log")).size(), 3u);
    EXPECT_EQ(logFiles().size(), 2u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}

TEST_F(WriteFileLogset, PeriodicReopenStartsANewFile) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), (Names{"5-backup-240301134502.log", "5-backup-240301135503.log"}));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301135503.log")).size(), 2u);
}

TEST_F(WriteFileLogset, RemovedFileIsReplacedByOneWithHeaderAfterTenMinutes) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_EQ(unlink(FIRST), 0);
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), Names{"5-backup-240301135503.log"});
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301135503.log"))[0],
              "$Header 65544,0,hostA");
}

TEST_F(WriteFileLogset, PeriodCountsFromTheTimeOfTheName) {
    support::makeDirectory("logs");
    support::writeFile("logs/5-backup-240301134400.log", "$Header 65544,0,hostA\n");
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 100;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(handle.file->nextRolloverTime, localTime(2024, 3, 1, 13, 45, 40));
    advance(38);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::lines(support::readFile("logs/5-backup-240301134540.log")).size(), 2u);
}

// ---- the start of a file ------------------------------------------------------------------

TEST_F(WriteFileLogset, StartOfAResumedFileIsReadAsStandardTime) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    setClock(localTime(2024, 7, 1, 13, 45, 2));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    EXPECT_EQ(handle.file->fileStartTime, localTime(2024, 7, 1, 13, 45, 2));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    EXPECT_EQ(handle.file->fileStartTime, localTime(2024, 7, 1, 14, 45, 2));
}

TEST_F(WriteFileLogset, TimedRolloverGoesOnInTheFileThatAnotherWriterHasBegun) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    setClock(localTime(2024, 7, 1, 13, 45, 2));
    LogCfg cfg = logsetSettings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 100;
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    advance(50);
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, cfg));
    second.file->nextRolloverTime = handle.file->nextRolloverTime;
    advance(50);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    advance(3);
    ASSERT_RESULT(ZOLTLOG_OK, send(&second, "two"));
    EXPECT_EQ(logFiles(), (Names{"5-backup-240701134502.log", "5-backup-240701134642.log"}));
    EXPECT_EQ(second.file->fileStartTime, localTime(2024, 7, 1, 13, 46, 42));
    EXPECT_EQ(second.file->nextRolloverTime, handle.file->nextRolloverTime);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}
