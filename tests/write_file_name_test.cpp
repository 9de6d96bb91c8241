// SPDX-License-Identifier: Apache-2.0
// Names of log files and their header line, byte for byte.
#include "support/results.h"
#include "write_series.h"

#include <fcntl.h>
#include <unistd.h>

using namespace series;

namespace {

struct WriteFileName : testing::Test {
    WriteFileName() { setZone("UTC"); }
    ~WriteFileName() override {
        if (handle.file != nullptr)
            zoltLogCloseFile(&handle);
    }
    // Lets the next message start a new file, whatever the rollover mode.
    void leaveFile() { handle.file->headerVersion = 0; }

    LogHandle handle = {};
};

// What WriteFileHeader writes for a header.
struct Written {
    uint32_t result;
    std::string bytes;
};
Written writeHeader(const LogFileHeader &header) {
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    state->file.descriptor = open("header", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const uint32_t result = WriteFileHeader(state, &header);
    close(state->file.descriptor);
    free(state);
    return {result, support::readFile("header")};
}

LogFileHeader headerOf(uint64_t version) {
    LogFileHeader header = {};
    header.version = version;
    header.productId = 5;
    header.originatorId = 7;
    header.creationTime = 1709300702;
    header.tzOffset = 3600;
    strcpy(header.hostName, "hostA");
    return header;
}

} // namespace

TEST_F(WriteFileName, OriginatorNameIsProductOriginatorHostDateCounter) {
    hostAddress = "127.0.0.2"; // host id 33554559
    setClock(localTime(2024, 3, 1));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), (Names{"5-7-33554559-240301-0000000000.log", "5-7-33554559-240301-0000000001.log",
                                 "5-7-33554559-240301-0000000002.log"}));
}

TEST_F(WriteFileName, EleventhFileOfADayHasCounterTen) {
    setClock(localTime(2024, 3, 1));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    for (int file = 1; file < 11; ++file) {
        leaveFile();
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    }
    ASSERT_EQ(logFiles().size(), 11u);
    EXPECT_EQ(logFiles().back(), "5-7-83886090-240301-0000000010.log");
}

TEST_F(WriteFileName, CounterBeyondTenDigitsPrintsMoreAndIsResumed) {
    setClock(localTime(2024, 3, 1));
    support::makeDirectory("logs");
    support::writeFile("logs/5-7-83886090-240301-9999999999.log", "$Header 65543,5,7,1709251200,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/5-7-83886090-240301-10000000000.log"), Texts{"one"});
}

TEST_F(WriteFileName, DateIsTheLocalOne) {
    setZone("JST-9");
    setClock(1709300702 + 6 * 3600); // 19:45 UTC on 1 March, next morning in Japan
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{"5-7-83886090-240302-0000000000.log"});
    EXPECT_EQ(support::readFile("logs/5-7-83886090-240302-0000000000.log"),
              "$Header 65543,5,7,1709322302,-32400,hostA\n");
}

TEST_F(WriteFileName, CounterRestartsOnAnotherDay) {
    setClock(localTime(2024, 3, 1, 23, 59, 59));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    advance(1);
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), (Names{"5-7-83886090-240301-0000000000.log", "5-7-83886090-240301-0000000001.log",
                                 "5-7-83886090-240302-0000000000.log"}));
}

TEST_F(WriteFileName, SameDayOfAnotherMonthRestartsTheCounter) {
    setClock(localTime(2024, 3, 1));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    setClock(localTime(2024, 4, 1));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles().back(), "5-7-83886090-240401-0000000000.log");
}

TEST_F(WriteFileName, CounterIgnoresTheYear) {
    setClock(localTime(2023, 12, 31, 12));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    setClock(localTime(2024, 12, 31, 12));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles(),
              (Names{"5-7-83886090-231231-0000000000.log", "5-7-83886090-241231-0000000001.log"}));
}

TEST_F(WriteFileName, CounterIgnoresTheYearAlsoAfterAResume) {
    support::makeDirectory("logs");
    support::writeFile("logs/5-7-83886090-231231-0000000004.log", "$Header 65543,5,7,1704020000,0,hostA\n");
    setClock(localTime(2024, 12, 31, 12));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles().back(), "5-7-83886090-241231-0000000005.log");
}

TEST_F(WriteFileName, YearsCountFrom2000WhateverTheCentury) {
    setClock(localTime(1999, 7, 8));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{"5-7-83886090--10708-0000000000.log"});
    setClock(localTime(2100, 7, 9));
    leaveFile();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/5-7-83886090-1000709-0000000000.log"), Texts{"one"});
}

TEST_F(WriteFileName, LogsetNameIsProductNameDateTime) {
    setClock(localTime(2024, 3, 1, 13, 45, 2));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    EXPECT_EQ(logFiles(), Names{"5-backup-240301134502.log"});
    EXPECT_EQ(support::readFile("logs/5-backup-240301134502.log"), "$Header 65544,0,hostA\n");
}

TEST_F(WriteFileName, LogsetFileNameComesBeforeItsName) {
    char fileName[] = "nightly";
    LogCfg cfg = logsetSettings();
    cfg.logsetFilename = fileName;
    setClock(localTime(2024, 3, 1, 13, 45, 2));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(logFiles(), Names{"5-nightly-240301134502.log"});
    EXPECT_STREQ(handle.file->logsetName, "backup");
    EXPECT_STREQ(handle.file->logsetFilename, "nightly");
}

TEST_F(WriteFileName, LogsetNamesFallBackAndAreCopies) {
    LogCfg originator = settings();
    LogCfg file = logsetSettings();
    char own[] = "backup";
    file.logsetName = own;
    file.logsetFilename = nullptr;
    setClock(localTime(2024, 3, 1, 13, 45, 2));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, originator, file));
    EXPECT_EQ(logFiles(), Names{"5-backup-240301134502.log"});
    own[0] = 'X';
    EXPECT_STREQ(handle.file->logsetName, "backup");
    EXPECT_STREQ(handle.file->logsetFilename, "backup");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    char fileName[] = "nightly";
    file.logsetFilename = fileName;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, originator, file));
    EXPECT_EQ(logFiles().back(), "5-nightly-240301134502.log");
    fileName[0] = 'X';
    EXPECT_STREQ(handle.file->logsetFilename, "nightly");
}

TEST_F(WriteFileName, LogsetWithoutAnyNameIsInvalid) {
    LogCfg cfg = logsetSettings();
    cfg.logsetName = nullptr;
    cfg.logsetFilename = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, open(&handle, cfg));
}

// ---- header ------------------------------------------------------------------------------

TEST(WriteFileHeader, LinesOfAllVersions) {
    const struct {
        uint64_t version;
        const char *line;
    } rows[] = {
        {ZOLTLOG_RECORD_VERSION_OLDEST, "$Header 65540,5,7,1709300702,hostA\n"},
        {ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO, "$Header 65541,5,7,1709300702,hostA\n"},
        {ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX, "$Header 65542,5,7,1709300702,hostA\n"},
        {ZOLTLOG_RECORD_VERSION_ORIGINATOR, "$Header 65543,5,7,1709300702,3600,hostA\n"},
        {ZOLTLOG_RECORD_VERSION_LOGSET, "$Header 65544,3600,hostA\n"},
    };
    for (const auto &row : rows) {
        const Written written = writeHeader(headerOf(row.version));
        EXPECT_EQ(written.result, 0u) << row.version;
        EXPECT_EQ(written.bytes, row.line);
    }
    LogFileHeader eastern = headerOf(ZOLTLOG_RECORD_VERSION_LOGSET);
    eastern.tzOffset = -3600;
    EXPECT_EQ(writeHeader(eastern).bytes, "$Header 65544,-3600,hostA\n");
}

TEST(WriteFileHeader, UnknownVersionsAreNotWritten) {
    for (const uint64_t version : {uint64_t{0}, uint64_t{65539}, uint64_t{65545}, UINT64_MAX}) {
        const Written written = writeHeader(headerOf(version));
        EXPECT_EQ(written.result, 1u) << version;
        EXPECT_EQ(written.bytes, "");
    }
}

TEST(WriteFileHeader, ExtremeNumbersAreWrittenWhole) {
    LogFileHeader header = headerOf(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    header.productId = UINT64_MAX;
    header.originatorId = UINT64_MAX;
    header.creationTime = UINT64_MAX;
    header.tzOffset = INT64_MIN;
    EXPECT_EQ(writeHeader(header).bytes, "$Header 65543,18446744073709551615,18446744073709551615,"
                                         "18446744073709551615,-9223372036854775808,hostA\n");
}

TEST(WriteFileHeader, FailedWriteIs1) {
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    state->file.descriptor = -1;
    const LogFileHeader header = headerOf(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_RESULT(ZOLTLOG_FAILED, WriteFileHeader(state, &header));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, WriteFileHeader(nullptr, &header));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, WriteFileHeader(state, nullptr));
    free(state);
}

TEST(WriteFileHeader, IsFilledFromTheState) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    setClock(1709300702);
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    state->productId = 5;
    state->fileOriginatorId = 7;
    LogFileHeader header;
    memset(&header, 0xFF, sizeof header);
    InitializeFileHeader(&header, state, "hostA");
    EXPECT_EQ(header.version, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(header.productId, 5u);
    EXPECT_EQ(header.originatorId, 7u);
    EXPECT_EQ(header.creationTime, 1709300702u);
    EXPECT_EQ(header.tzOffset, -3600);
    EXPECT_STREQ(header.hostName, "hostA");
    setClock(1719300702); // in summer
    state->isLogset = 1;
    InitializeFileHeader(&header, state, "hostB");
    EXPECT_EQ(header.version, ZOLTLOG_RECORD_VERSION_LOGSET);
    EXPECT_EQ(header.tzOffset, -7200);
    EXPECT_STREQ(header.hostName, "hostB");
    free(state);
}

TEST(WriteFileHeader, HostNameIsCutTo512Bytes) {
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    for (const size_t length : {64u, 511u, 512u, 513u, 600u}) {
        LogFileHeader header;
        InitializeFileHeader(&header, state, std::string(length, 'h').c_str());
        header.tzOffset = 0x5A5A5A5A;
        header.version = ZOLTLOG_RECORD_VERSION_LOGSET;
        const std::string expected =
            "$Header 65544,1515870810," + std::string(length < 512 ? length : 512, 'h') + "\n";
        EXPECT_EQ(writeHeader(header).bytes, expected) << length;
    }
    free(state);
}

TEST(WriteFileHeader, HostNameOf512BytesStartsASeries) {
    hostName = std::string(600, 'h');
    setZone("UTC");
    setClock(1709300702);
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(support::readFile("logs/" + logFiles().at(0)),
              "$Header 65543,5,7,1709300702,0," + std::string(512, 'h') + "\n");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST(WriteFileHeader, StaysOneLineWhateverTheHostIsCalled) {
    LogFileHeader header = headerOf(ZOLTLOG_RECORD_VERSION_LOGSET);
    strcpy(header.hostName, "a,b\n%s\r\n\xff");
    EXPECT_EQ(writeHeader(header).bytes, "$Header 65544,3600,a,b\r%s\r\r\xff\n");
}
