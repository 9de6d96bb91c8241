// SPDX-License-Identifier: Apache-2.0
// Handles through the configuration, the dispatcher, levels and sequence numbers.
#include "support/log_records.h"
#include "support/results.h"
#include "support/sink_capture.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <thread>

#include "write_series.h"
#include "zoltlog.h"

namespace {

bool releaseLeavesWords;

} // namespace

extern "C" int32_t zoltLisFree(ZoltLisBlock *block) {
    static const auto real = reinterpret_cast<int32_t (*)(ZoltLisBlock *)>(dlsym(RTLD_NEXT, "zoltLisFree"));
    const ZoltLisBlock words = *block;
    const int32_t result = real(block);
    if (releaseLeavesWords)
        *block = words;
    return result;
}

namespace {

struct Write : testing::Test {
    Write() {
        series::setZone("UTC");
        series::setClock(series::localTime(2024, 3, 1, 13, 45, 2));
        sinks::reset();
        logs::configure(settings);
    }
    ~Write() override {
        if (handle.file != nullptr)
            zoltLogClose(&handle);
    }
    static std::string fileOf(uint64_t originator) {
        return "log/5-" + std::to_string(originator) + "-83886090-240301-0000000000.log";
    }
    // The whole record, but for process and thread id.
    static std::string recordOf(const std::string &path, size_t line) {
        std::string record = support::lines(support::readFile(path)).at(line);
        size_t comma = 0;
        for (int field = 0; field < 6; ++field)
            comma = record.find(',', comma) + 1;
        const size_t rest = record.find(',', record.find(',', comma) + 1);
        return record.substr(0, comma) + "P,T" + record.substr(rest);
    }

    std::vector<std::string> settings = {"Default.DebugLevel=2",
                                         "Default.DiagnosticLevel=3",
                                         "7.DebugLevel=5",
                                         "8.LogToOslog=true",
                                         "8.SyslogIdent=eight",
                                         "LOGSET.Default.LogDirectory=./log/",
                                         "LOGSET.Default.DebugLevel=1",
                                         "LOGSET.backup.DiagnosticLevel=4",
                                         "LOGSET.backup.FileName=nightly"};
    LogHandle handle = {};
};

bool isZero(const LogHandle &handle) {
    static const LogHandle zero = {};
    return memcmp(&handle, &zero, sizeof zero) == 0;
}

// A localization block of one text.
ZoltLisBlock blockOf(const char *format, ...) {
    ZoltLisBlock block = {};
    va_list args;
    va_start(args, format);
    EXPECT_EQ(zoltLisTextV(&block, format, args), 0);
    va_end(args);
    return block;
}

LogMsg appMessage(LogHandle *handle, const char *text) {
    LogMsg msg;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, handle, ZOLTLOG_MSG_APP, text));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
    return msg;
}

} // namespace

// ---- open ------------------------------------------------------------------------------

TEST_F(Write, InvalidArgumentsOfOpenLeaveTheRecordUntouched) {
    memset(static_cast<void *>(&handle), 0x5A, sizeof handle);
    const LogHandle before = handle;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpen(0, 7, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpen(5, 0, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpen2(5, 7, 0, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenLogSet(0, 7, "backup", &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenLogSet(5, 0, "backup", &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenLogSet(5, 7, nullptr, &handle));
    EXPECT_EQ(memcmp(&handle, &before, sizeof handle), 0);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpen(5, 7, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenLogSet(5, 7, "backup", nullptr));
    handle = {};
}

TEST_F(Write, OpenReadsTheSettingsAndStartsTheSeries) {
    memset(static_cast<void *>(&handle), 0x5A, sizeof handle);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    EXPECT_EQ(handle.debugLevel, 5u);
    EXPECT_EQ(handle.diagLevel, 3u);
    EXPECT_EQ(handle.secureAuditLevel, 0u);
    EXPECT_EQ(handle.outputFlags, 0u);
    EXPECT_EQ(handle.noContext, 1u);
    EXPECT_EQ(handle.sequenceNumber, 1u);
    EXPECT_EQ(handle.originatorId, 7u);
    EXPECT_EQ(handle.utf8, 0u);
    EXPECT_EQ(handle.cfgCopy, nullptr);
    EXPECT_EQ(handle.localizers.count, 0u);
    EXPECT_EQ(handle.localizers.first, nullptr);
    EXPECT_EQ(handle.contextMsg.text, nullptr);
    EXPECT_EQ(isLogOpen(&handle), 1);
    EXPECT_EQ(support::readFile(fileOf(7)), "$Header 65543,5,7,1709300702,0,hostA\n");
    EXPECT_TRUE(sinks::opened.empty());
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    EXPECT_EQ(isLogOpen(&handle), 0);
    EXPECT_EQ(sinks::closed, 1);
}

TEST_F(Write, Open2TagsWithOneOriginatorAndWritesToTheFileOfAnother) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen2(5, 7, 9, &handle));
    EXPECT_EQ(handle.debugLevel, 5u);
    ASSERT_RESULT(ZOLTLOG_OK, series::send(&handle, "one"));
    EXPECT_EQ(support::listFiles("log"), series::Names{"5-9-83886090-240301-0000000000.log"});
    EXPECT_EQ(recordOf(fileOf(9), 1), "2,5,7,9,1,1709300702000,P,T,0:,3:one,3:mgr,3,(0|)");
}

TEST_F(Write, UnknownProductIs6AndTheHandleIsZero) {
    memset(static_cast<void *>(&handle), 0x5A, sizeof handle);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogOpen(6, 7, &handle));
    EXPECT_TRUE(isZero(handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
}

TEST_F(Write, NoLogDirectoryIs53AndCloseReleasesTheState) {
    support::writeFile("product.conf", "Default.DebugLevel=1\n");
    EXPECT_RESULT(ZOLTLOG_NO_DIRECTORY, zoltLogOpen(5, 7, &handle));
    EXPECT_EQ(isLogOpen(&handle), 1);
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogClose(&handle));
    EXPECT_EQ(isLogOpen(&handle), 0);
}

TEST_F(Write, FailedOpenKeepsItsStateUntilClose) {
    support::writeFile("product.conf", "Default.LogDirectory=/proc/none/\n");
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogOpen(5, 7, &handle));
    EXPECT_EQ(isLogOpen(&handle), 1);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
}

TEST_F(Write, SystemLogIsOpenedWhenTheOriginatorAsksForIt) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 8, &handle));
    EXPECT_EQ(handle.outputFlags, ZOLTLOG_OUT_OSLOG);
    ASSERT_EQ(sinks::opened.size(), 1u);
    EXPECT_EQ(sinks::opened[0].text, "eight");
    EXPECT_EQ(sinks::opened[0].ident, handle.oslog.ident);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen2(5, 7, 8, &handle));
    EXPECT_EQ(sinks::opened.size(), 1u) << "the file's originator does not decide it";
}

TEST_F(Write, CloseOfNullIs3) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(nullptr));
    EXPECT_EQ(isLogOpen(nullptr), 0);
}

// ---- log sets ----------------------------------------------------------------------------

TEST_F(Write, LogsetIsOpenedWithItsSettingsAndTheCallersOriginator) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "backup", &handle));
    EXPECT_EQ(handle.debugLevel, 1u);
    EXPECT_EQ(handle.diagLevel, 4u);
    EXPECT_EQ(handle.originatorId, 7u);
    EXPECT_EQ(handle.file->isLogset, 1u);
    EXPECT_STREQ(handle.file->logsetName, "backup");
    EXPECT_STREQ(handle.file->logsetFilename, "nightly");
    ASSERT_RESULT(ZOLTLOG_OK, series::send(&handle, "one"));
    EXPECT_EQ(support::listFiles("log"), series::Names{"5-nightly-240301134502.log"});
    const std::vector<std::string> found =
        support::lines(support::readFile("log/5-nightly-240301134502.log"));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0], "$Header 65544,0,hostA");
    EXPECT_EQ(found[1].substr(0, 18), "2,7,1,170930070200");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
}

TEST_F(Write, DefaultLogsetAndMissingLogset) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "Default", &handle));
    EXPECT_EQ(support::listFiles("log"), series::Names{"5-Default-240301134502.log"});
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogOpenLogSet(5, 7, "nowhere", &handle));
    EXPECT_EQ(isLogOpen(&handle), 0);
}

namespace {

// ---- secure handles ------------------------------------------------------------------------

struct WriteSecure : Write {
    WriteSecure() {
        sinks::formatter = sinks::testFormatter("recording");
        InitLogCfg(1, 2, nullptr, &cfg);
        cfg.secureAuditLevel = 6;
        cfg.outputFlags = ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX;
        cfg.debugLevel = 5;
        cfg.diagLevel = 5;
    }
    ~WriteSecure() override { zoltLogFreeCfg(&cfg); }
    uint32_t sendAudit() {
        LogMsg msg;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_SECURE_AUDIT, "secret"));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSecureAuditAttr(&msg, 1, "alice", 0));
        const uint32_t result = zoltLogMsg(&handle, 4, &msg);
        zoltLogFreeMsg(&msg);
        return result;
    }

    LogCfg cfg;
};

} // namespace

TEST_F(WriteSecure, InvalidArguments) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSecureOpen(0, 7, &cfg, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSecureOpen(5, 0, &cfg, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSecureOpen(5, 7, nullptr, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSecureOpen(5, 7, &cfg, nullptr));
    EXPECT_EQ(cfg.productId, 1u);
}

TEST_F(WriteSecure, IsFilledFromTheCallersRecord) {
    memset(static_cast<void *>(&handle), 0x5A, sizeof handle);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_EQ(handle.file, nullptr);
    EXPECT_EQ(handle.secureAuditLevel, 6u);
    EXPECT_EQ(handle.debugLevel, 0u);
    EXPECT_EQ(handle.diagLevel, 0u);
    EXPECT_EQ(handle.noContext, 1u);
    EXPECT_EQ(handle.reloadInterval, 0u);
    EXPECT_EQ(handle.outputFlags, uint32_t{ZOLTLOG_OUT_OSLOG | ZOLTLOG_OUT_OSLOGX});
    ASSERT_NE(handle.cfgCopy, nullptr);
    EXPECT_EQ(handle.cfgCopy->productId, 5u);
    EXPECT_EQ(handle.cfgCopy->originatorId, 7u);
    EXPECT_FALSE(support::exists("log"));
    EXPECT_EQ(sinks::opened.size(), 1u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
    cfg.outputFlags = ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_STDERR;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_EQ(handle.outputFlags, ZOLTLOG_OUT_OSLOG);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
}

TEST_F(WriteSecure, WritesTheIdsIntoTheRecord) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_EQ(cfg.productId, 5u);
    EXPECT_EQ(cfg.originatorId, 7u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
}

TEST_F(WriteSecure, NumbersFromZero) {
    uint64_t number = 99;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(&handle, &number));
    EXPECT_EQ(number, 0u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(&handle, &number));
    EXPECT_EQ(number, 1u);
}

TEST_F(WriteSecure, CloseTellsAnInvalidArgument) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
    EXPECT_EQ(handle.cfgCopy, nullptr);
    EXPECT_EQ(sinks::closed, 1);
}

TEST_F(WriteSecure, SecureAuditGoesToTheSystemLogOnly) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    EXPECT_RESULT(ZOLTLOG_OK, sendAudit());
    EXPECT_EQ(sinks::sent.size(), 1u);
    EXPECT_FALSE(support::exists("log"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
}

TEST_F(WriteSecure, SecureAuditThroughAFileHandleIs58AndWritesNothing) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    EXPECT_RESULT(ZOLTLOG_SECURE_ON_FILE_HANDLE, sendAudit());
    EXPECT_EQ(sinks::sent.size(), 0u);
    EXPECT_EQ(support::lines(support::readFile(fileOf(7))).size(), 1u);
}

TEST_F(WriteSecure, OrdinaryMessageThroughASecureHandleIs57) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &handle));
    LogMsg msg = appMessage(&handle, "one");
    EXPECT_EQ(msg.productId, 0u);
    EXPECT_EQ(msg.originatorId, 0u);
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogMsg(&handle, 0, &msg));
    EXPECT_EQ(sinks::sent.size(), 1u) << "the sinks get it all the same";
    zoltLogFreeMsg(&msg);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&handle));
}

// ---- dispatch --------------------------------------------------------------------------------

TEST_F(Write, NullHandleOrMessageIs3) {
    LogMsg msg = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogMsg(nullptr, 0, &msg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogMsg(&handle, 0, nullptr));
}

TEST_F(Write, Utf8FlagOfTheHandleGoesIntoTheMessage) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, "one");
    msg.utf8 = 5;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_EQ(msg.utf8, 0u);
    handle.utf8 = 1;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_EQ(msg.utf8, 1u);
    zoltLogFreeMsg(&msg);
}

// A writer keeps digits from one record for the next.
TEST_F(Write, EachRecordHasItsOwnTimeStamp) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    const std::vector<int64_t> stamps = {1000,
                                         1999,
                                         2000,
                                         999,
                                         0,
                                         -1,
                                         -1000,
                                         -1999,
                                         1000,
                                         1700000000007,
                                         1700000000123,
                                         1700000000999,
                                         9999,
                                         INT64_MAX,
                                         10000,
                                         INT64_MIN,
                                         1700000001000,
                                         1007,
                                         7};
    handle.file->lastReopenTime = 0; // these times are no reason to open the file anew
    for (const int64_t stamp : stamps) {
        LogMsg msg = {};
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "x"));
        msg.timestamp = static_cast<uint64_t>(stamp);
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
        zoltLogFreeMsg(&msg);
    }
    const auto lines = support::lines(support::readFile(fileOf(7)));
    ASSERT_EQ(lines.size(), stamps.size() + 1);
    for (size_t k = 0; k < stamps.size(); ++k) {
        const std::string start = "2,5,7,7," + std::to_string(k + 1) + "," + std::to_string(stamps[k]) + "," +
                                  std::to_string(getpid()) + ",";
        EXPECT_EQ(lines[k + 1].substr(0, start.size()), start);
    }
}

TEST_F(Write, BlockBecomesTheTextAndIsEmptied) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, nullptr);
    msg.lis = blockOf("%d of %s", 2, "three");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_STREQ(msg.text, "2 of three");
    EXPECT_EQ(msg.lis.word[0] | msg.lis.word[1] | msg.lis.word[2], 0u);
    EXPECT_EQ(recordOf(fileOf(7), 1), "2,5,7,7,1,1709300702000,P,T,0:,10:2 of three,3:mgr,3,(0|)");
    zoltLogFreeMsg(&msg);
}

TEST_F(Write, BlockIsReleasedAlsoWhenTheMessageHasAText) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, "own text");
    msg.lis = blockOf("%d", 2);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_STREQ(msg.text, "own text");
    EXPECT_EQ(msg.lis.word[0] | msg.lis.word[1] | msg.lis.word[2], 0u);
    EXPECT_EQ(recordOf(fileOf(7), 1), "2,5,7,7,1,1709300702000,P,T,0:,8:own text,3:mgr,3,(0|)");
    zoltLogFreeMsg(&msg);
}

TEST_F(Write, BlockIsEmptyAlsoWhenItsReleaseLeavesTheWords) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, nullptr);
    msg.lis = blockOf("%d", 2);
    releaseLeavesWords = true; // another localization library may do so
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    releaseLeavesWords = false;
    EXPECT_EQ(msg.lis.word[0] | msg.lis.word[1] | msg.lis.word[2], 0u) << "or it would be released twice";
    zoltLogFreeMsg(&msg);
}

TEST_F(Write, MessageWithoutTextOrBlockIsWrittenEmpty) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, nullptr);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_EQ(msg.text, nullptr);
    EXPECT_EQ(recordOf(fileOf(7), 1), "2,5,7,7,1,1709300702000,P,T,0:,0:,3:mgr,3,(0|)");
    zoltLogFreeMsg(&msg);
}

TEST_F(Write, FileFailureWinsOverTheOutputs) {
    sinks::formatter = sinks::testFormatter("failing");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, "one");
    uint32_t output = 0;
    support::captured(1, [&] { output = zoltLogMsg(&handle, 1, &msg); });
    EXPECT_NE(output, 0u) << "the plug-in's result";
    EXPECT_NE(output, 1u);
    msg.attr.severity = ZOLTLOG_SEVERITY_EMERGENCY + 1; // cannot be encoded
    uint32_t both = 0;
    support::captured(1, [&] { both = zoltLogMsg(&handle, 1, &msg); });
    EXPECT_EQ(both, 1u);
    zoltLogFreeMsg(&msg);
}

TEST_F(Write, OutputsAreServedAlsoWhenTheFileFails) {
    sinks::formatter = sinks::testFormatter("recording");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg = appMessage(&handle, "one");
    msg.attr.severity = ZOLTLOG_SEVERITY_EMERGENCY + 1;
    EXPECT_EQ(support::captured(1, [&] { EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogMsg(&handle, 1, &msg)); }),
              "one\n");
    zoltLogFreeMsg(&msg);
}

// ---- levels and sequence numbers ---------------------------------------------------------------

TEST_F(Write, LevelsAreStoredAndRead) {
    const struct {
        uint32_t (*set)(LogHandle *, uint32_t);
        uint32_t (*get)(LogHandle *, uint32_t *);
        uint32_t LogHandle::*field;
    } rows[] = {{zoltLogSetDebugLevel, zoltLogGetDebugLevel, &LogHandle::debugLevel},
                {zoltLogSetDiagLevel, zoltLogGetDiagLevel, &LogHandle::diagLevel},
                {zoltLogSetSecureAuditLevel, zoltLogGetSecureAuditLevel, &LogHandle::secureAuditLevel}};
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    for (const auto &row : rows) {
        uint32_t level = 99;
        EXPECT_EQ(row.set(nullptr, 1), 3u);
        EXPECT_EQ(row.get(nullptr, &level), 3u);
        EXPECT_EQ(row.get(&handle, nullptr), 3u);
        EXPECT_EQ(level, 99u);
        EXPECT_EQ(row.set(&handle, 4), 0u);
        EXPECT_EQ(handle.*row.field, 4u);
        EXPECT_EQ(row.get(&handle, &level), 0u);
        EXPECT_EQ(level, 4u);
        EXPECT_EQ(row.set(&handle, UINT32_MAX), 0u) << "no check of the range";
        EXPECT_EQ(row.get(&handle, &level), 0u);
        EXPECT_EQ(level, UINT32_MAX);
    }
}

TEST_F(Write, DebugAndDiagnosticGettersReloadAndTheSecureOneDoesNot) {
    support::writeFile("product.conf", support::readFile("product.conf") + "7.DynaReloadInSec=60\n");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    uint32_t level = 0;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&handle, 1));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDiagLevel(&handle, 1));
    series::advance(61);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSecureAuditLevel(&handle, &level));
    EXPECT_EQ(handle.debugLevel, 1u) << "not reloaded yet";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDiagLevel(&handle, &level));
    EXPECT_EQ(level, 3u) << "the setter's value is overwritten";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDebugLevel(&handle, &level));
    EXPECT_EQ(level, 5u);
}

TEST_F(Write, LogsetHandleReloadsTheSettingsOfItsLogset) {
    support::writeFile("product.conf",
                       support::readFile("product.conf") + "LOGSET.backup.DynaReloadInSec=60\n");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "backup", &handle));
    uint32_t level = 0;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&handle, 6));
    series::advance(61);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDebugLevel(&handle, &level));
    EXPECT_EQ(level, 1u) << "not originator 7's level";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDiagLevel(&handle, &level));
    EXPECT_EQ(level, 4u);
}

TEST_F(Write, SequenceNumbersCountUpAndWrap) {
    uint64_t number = 99;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    EXPECT_EQ(GetNextSequenceNumber(nullptr), 0u);
    EXPECT_EQ(GetNextSequenceNumber(&handle), 1u);
    EXPECT_EQ(GetNextSequenceNumber(&handle), 2u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(&handle, &number));
    EXPECT_EQ(number, 3u) << "told without being used up";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSequenceNumber(&handle, UINT64_MAX));
    EXPECT_EQ(GetNextSequenceNumber(&handle), UINT64_MAX);
    EXPECT_EQ(GetNextSequenceNumber(&handle), 0u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetSequenceNumber(nullptr, 1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetSequenceNumber(nullptr, &number));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetSequenceNumber(&handle, nullptr));
}

TEST_F(Write, SequenceNumberGetterUsesTheSettersTag) {
    // The tag of the last acquisition is cleared at its release, so the getter stores its
    // answer into a page that cannot be written and is looked at from the fault.
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    EXPECT_EXIT(
        {
            static uint64_t *number;
            number =
                static_cast<uint64_t *>(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            signal(SIGSEGV, [](int) {
                const char *tag = zoltLogMutex.holders[0].tag;
                _exit(tag != nullptr && strcmp(tag, "zoltLogSetSequenceNumber()") == 0 ? 42 : 1);
            });
            zoltLogGetSequenceNumber(&handle, number);
        },
        testing::ExitedWithCode(42), "");
}

TEST_F(Write, SequenceNumbersOfManyThreadsAreAllDifferent) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([this] {
            for (int number = 0; number < 5000; ++number)
                GetNextSequenceNumber(&handle);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(handle.sequenceNumber, 20001u);
}
