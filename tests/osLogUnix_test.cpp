// SPDX-License-Identifier: Apache-2.0
#include "support/results.h"
#include "support/sink_capture.h"

#include <cstring>
#include <gtest/gtest.h>

#include "zoltlog.h"

namespace {

TEST(OsLogSettings, TheDefaultsAreIdentityAndUserFacility) {
    OsLogSettings settings;
    memset(&settings, 0x55, sizeof settings);
    EXPECT_EQ(0, osLogInitCfg(&settings));
    EXPECT_STREQ("Qorvanix", settings.ident);
    for (size_t index = strlen("Qorvanix"); index < sizeof settings.ident; ++index)
        EXPECT_EQ('\0', settings.ident[index]);
    EXPECT_EQ(0u, settings.option);
    EXPECT_EQ(8u, settings.facility);
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogInitCfg(nullptr));
}

TEST(OsLogSettings, CopyingSettingsLeavesTheOptionsAtZero) {
    OsLogSettings source = {"backup", 1, 128};
    OsLogSettings destination;
    memset(&destination, 0x55, sizeof destination);
    EXPECT_EQ(0, osLogCopyCfg(&destination, &source));
    EXPECT_STREQ("backup", destination.ident);
    EXPECT_EQ(0u, destination.option);
    EXPECT_EQ(128u, destination.facility);
    for (size_t index = strlen("backup"); index < sizeof destination.ident; ++index)
        EXPECT_EQ('\0', destination.ident[index]);
}

TEST(OsLogSettings, AnIdentityThatFillsItsFieldIsCopiedWhole) {
    OsLogSettings source = {};
    memset(source.ident, 'x', sizeof source.ident);
    OsLogSettings destination = {};
    EXPECT_EQ(0, osLogCopyCfg(&destination, &source));
    EXPECT_EQ(0, memcmp(source.ident, destination.ident, 80));
    EXPECT_EQ(0u, destination.facility);
}

TEST(OsLogSettings, CopyingToItselfKeepsTheIdentity) {
    OsLogSettings settings = {"backup", 1, 128};
    EXPECT_EQ(0, osLogCopyCfg(&settings, &settings));
    EXPECT_STREQ("backup", settings.ident);
}

TEST(OsLogSettings, CopyingNeedsBothRecords) {
    OsLogSettings settings = {};
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogCopyCfg(nullptr, &settings));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogCopyCfg(&settings, nullptr));
}

struct OsLog : testing::Test {
    void SetUp() override {
        sinks::reset();
        sinks::formatter = sinks::testFormatter("recording");
    }
};

TEST_F(OsLog, OpeningHandsOverTheSinksOwnBuffer) {
    for (const auto open : {osLogOpen, osLogOpenEx}) {
        sinks::reset();
        OsLogSettings settings = {"backup", 3, 136};
        OsLogSink sink;
        memset(&sink, 0x55, sizeof sink);
        EXPECT_EQ(0, open(&settings, &sink));
        ASSERT_EQ(1u, sinks::opened.size());
        EXPECT_EQ(sink.ident, sinks::opened[0].ident);
        EXPECT_EQ("backup", sinks::opened[0].text);
        EXPECT_EQ(3, sinks::opened[0].option);
        EXPECT_EQ(136, sinks::opened[0].facility);
        EXPECT_EQ(-3, open(nullptr, &sink));
        EXPECT_EQ(-3, open(&settings, nullptr));
        EXPECT_EQ(1u, sinks::opened.size());
    }
}

TEST_F(OsLog, AnIdentityThatFillsItsFieldIsCutToStayTerminated) {
    OsLogSettings settings = {};
    memset(settings.ident, 'x', sizeof settings.ident);
    settings.option = 0x41414141; // what would follow it in memory
    OsLogSink sink = {};
    EXPECT_EQ(0, osLogOpen(&settings, &sink));
    EXPECT_EQ(std::string(79, 'x'), sinks::opened.at(0).text);
}

TEST_F(OsLog, ClosingClosesTheSystemLog) {
    OsLogSink sink = {};
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogClose(nullptr));
    EXPECT_EQ(0, sinks::closed);
    EXPECT_EQ(0, osLogClose(&sink));
    EXPECT_EQ(1, sinks::closed);
}

TEST_F(OsLog, SeverityGivesThePriority) {
    const struct {
        uint32_t severity;
        int32_t priority;
    } rows[] = {{0, 6}, {1, 4}, {2, 3}, {3, 2}, {4, 0}, {5, 6}, {4294967295u, 6}};
    char text[] = "disk full";
    LogHandle handle = {};
    for (const auto &row : rows) {
        EXPECT_EQ(row.priority, sevToSyslogPriority(row.severity)) << row.severity;
        sinks::sent.clear();
        LogMsg msg = {};
        msg.type = ZOLTLOG_MSG_APP;
        msg.attr.severity = row.severity;
        msg.text = text;
        EXPECT_EQ(0, osLogWrite(&handle, &msg));
        ASSERT_EQ(1u, sinks::sent.size());
        EXPECT_EQ(row.priority, sinks::sent[0].priority) << row.severity;
        EXPECT_EQ("disk full", sinks::sent[0].text);
    }
}

TEST_F(OsLog, OnlyApplicationAndSecureAuditMessagesAreSent) {
    char text[] = "words";
    LogHandle handle = {};
    for (const uint32_t type : {0u, 1u, 3u, 4u, 6u}) {
        LogMsg msg = {};
        msg.type = type;
        msg.text = text;
        EXPECT_EQ(0, osLogWrite(&handle, &msg)) << type;
    }
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(OsLog, WritingChecksItsArguments) {
    LogHandle handle = {};
    LogMsg msg = {};
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogWrite(nullptr, &msg));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osLogWrite(&handle, nullptr));
}

TEST_F(OsLog, AFailingPlugInFailsTheWrite) {
    char text[] = "words";
    LogHandle handle = {};
    LogMsg msg = {};
    msg.type = ZOLTLOG_MSG_APP;
    msg.text = text;
    sinks::formatter = sinks::testFormatter("failing");
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogWrite(&handle, &msg));
    sinks::formatter = sinks::testFormatter("no_entry");
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogWrite(&handle, &msg));
    sinks::formatter = "";
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogWrite(&handle, &msg));
    sinks::formatter = sinks::testFormatter("no_text");
    EXPECT_EQ(0, osLogWrite(&handle, &msg));
    EXPECT_TRUE(sinks::sent.empty());
}

struct SecureAudit : OsLog {
    void SetUp() override {
        OsLog::SetUp();
        cfg.productId = 5;
        cfg.originatorId = 7;
        handle.cfgCopy = &cfg;
        handle.outputFlags = ZOLTLOG_OUT_OSLOG | ZOLTLOG_OUT_OSLOGX;
        msg.type = ZOLTLOG_MSG_SECURE_AUDIT;
        msg.messageId = 12;
        msg.processId = 4242;
        msg.threadId = 4243;
        msg.contextToken = token;
        msg.who = subject;
        msg.outcome = 1;
        msg.text = text;
    }
    const sinks::Sent &write() {
        EXPECT_EQ(0, osLogWrite(&handle, &msg));
        EXPECT_EQ(1u, sinks::sent.size());
        return sinks::sent.at(0);
    }

    char token[8] = "T1";
    char subject[8] = "alice";
    char text[32] = "removed %s user %n";
    LogCfg cfg = {};
    LogHandle handle = {};
    LogMsg msg = {};
};

TEST_F(SecureAudit, WithFlag64OfTheHandleEightFieldsPrecedeTheText) {
    const sinks::Sent &sent = write();
    EXPECT_EQ(2, sent.priority);
    EXPECT_EQ("5,7,12,4242,4243,T1,alice,1 removed %s user %n", sent.text);
}

TEST_F(SecureAudit, NullTokenAndSubjectAreSaidSo) {
    msg.contextToken = nullptr;
    msg.who = nullptr;
    EXPECT_EQ("5,7,12,4242,4243,(null),(null),1 removed %s user %n", write().text);
}

TEST_F(SecureAudit, TheOutcomeIsSigned) {
    msg.outcome = 4294967295u;
    EXPECT_EQ("5,7,12,4242,4243,T1,alice,-1 removed %s user %n", write().text);
}

TEST_F(SecureAudit, WithoutAConfigurationCopyTheIdsAreZero) {
    handle.cfgCopy = nullptr;
    EXPECT_EQ("0,0,12,4242,4243,T1,alice,1 removed %s user %n", write().text);
}

TEST_F(SecureAudit, WithoutFlag64TheTextGoesAlone) {
    handle.outputFlags = ZOLTLOG_OUT_OSLOG;
    const sinks::Sent &sent = write();
    EXPECT_EQ(2, sent.priority);
    EXPECT_EQ("removed %s user %n", sent.text);
}

TEST_F(SecureAudit, TheFlagIsReadFromTheHandleNotFromTheCall) {
    handle.outputFlags = ZOLTLOG_OUT_OSLOG;
    EXPECT_RESULT(ZOLTLOG_OK, LogOutputBasedOnFlags(&handle, &msg, 68));
    EXPECT_EQ("removed %s user %n", sinks::sent.at(0).text);
}

TEST_F(SecureAudit, ControlCharactersOfTokenAndSubjectMakeNoOtherLine) {
    char oddToken[] = "T\n1\x1b[31m\t";
    char oddSubject[] = "al\r\x7f\x01ice\n5,7,1";
    msg.contextToken = oddToken;
    msg.who = oddSubject;
    EXPECT_EQ("5,7,12,4242,4243,T\r1?[31m?,al\r??ice\r5,7,1,1 removed %s user %n", write().text);
}

// As one character in UTF-8 only: elsewhere its second byte may be half of another character.
TEST_F(SecureAudit, ControlCharactersOfTwoBytesAreReplacedInUtf8) {
    char odd[] = "a\xc2\x9b\x62\xc2\x85\xc3\xa4"; // U+009B, U+0085, a letter
    msg.who = odd;
    msg.utf8 = 1;
    EXPECT_EQ("5,7,12,4242,4243,T1,a?b?\xc3\xa4,1 removed %s user %n", write().text);
    sinks::sent.clear();
    msg.utf8 = 0;
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ(std::string("5,7,12,4242,4243,T1,") + odd + ",1 removed %s user %n", write().text);
}

TEST_F(SecureAudit, AVeryLongTextIsSentWhole) {
    std::string longText(1000000, 'x');
    msg.text = longText.data();
    EXPECT_EQ("5,7,12,4242,4243,T1,alice,1 " + longText, write().text);
}

TEST(OsLogIsFullPath, ASlashInFrontMakesAPathFull) {
    EXPECT_EQ(0, osLogIsFullPath("/var/log"));
    EXPECT_EQ(0, osLogIsFullPath("/"));
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogIsFullPath("var/log"));
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogIsFullPath(""));
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osLogIsFullPath(nullptr));
}

} // namespace
