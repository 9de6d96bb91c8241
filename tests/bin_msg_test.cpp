// SPDX-License-Identifier: Apache-2.0
// The message record: initialisation, attributes, getters, release. This program
// sets the time of day and plays zoltLisFree.
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>

namespace {

timeval fakeNow;
int blocksReleased;
int32_t releaseResult;

} // namespace

SUPPORT_CALL(int32_t, zoltLisFree, (ZoltLisBlock * block), (block), )

const bool PREPARED = support::eachCase([] {
    fakeNow = {1700000000, 123999};
    blocksReleased = 0;
    releaseResult = 0;
    libc::gettimeofday.hook = [](timeval *now, void *) {
        *now = fakeNow;
        return 0;
    };
    libc::zoltLisFree.hook = [](ZoltLisBlock *block) {
        if (block->word[0] != 0)
            ++blocksReleased;
        return releaseResult;
    };
});

namespace {

LogFileState fileState;

LogHandle plainHandle() {
    LogHandle handle = {};
    fileState.productId = 5;
    fileState.fileOriginatorId = 8;
    handle.file = &fileState;
    handle.noContext = 1;
    handle.originatorId = 7;
    handle.sequenceNumber = 41;
    return handle;
}

LogMsg recordOfType(uint32_t type) {
    LogMsg msg = {};
    msg.type = type;
    return msg;
}

} // namespace

// ---- initialisation

TEST(MessageRecord, InitialisationFillsIdsTimeAndText) {
    LogHandle handle = plainHandle();
    LogMsg msg;
    memset(&msg, 0xff, sizeof msg);
    std::string text = "a text";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_DIAG, text.c_str()));
    text[0] = 'X'; // the record has a copy
    EXPECT_EQ(msg.ownsStrings, 0u);
    EXPECT_EQ(msg.recordVersion, 0u);
    EXPECT_EQ(msg.type, ZOLTLOG_MSG_DIAG);
    EXPECT_EQ(msg.productId, 5u);
    EXPECT_EQ(msg.originatorId, 7u);
    EXPECT_EQ(msg.fileOriginatorId, 0u);
    EXPECT_EQ(msg.messageId, 41u);
    EXPECT_EQ(msg.timestamp, 1700000000123u);
    EXPECT_EQ(msg.processId, static_cast<uint64_t>(getpid()));
    EXPECT_EQ(msg.threadId, static_cast<uint64_t>(pthread_self()));
    EXPECT_EQ(msg.contextToken, nullptr);
    EXPECT_STREQ(msg.text, "a text");
    EXPECT_EQ(msg.utf8, 0u);
    EXPECT_EQ(msg.attr.contextTitle, nullptr);
    EXPECT_EQ(msg.who, nullptr);
    EXPECT_EQ(msg.outcome, 0u);
    EXPECT_EQ(msg.lis.word[0] | msg.lis.word[1] | msg.lis.word[2], 0u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
}

TEST(MessageRecord, EveryInitialisationTakesASequenceNumber) {
    LogHandle handle = plainHandle();
    for (uint64_t number = 41; number < 45; ++number) {
        LogMsg msg;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, nullptr));
        EXPECT_EQ(msg.messageId, number);
        EXPECT_EQ(msg.text, nullptr);
    }
    EXPECT_EQ(handle.sequenceNumber, 45u);
}

TEST(MessageRecord, NullRecordOrHandleIsInvalidAndTakesNoNumber) {
    LogHandle handle = plainHandle();
    LogMsg msg = {};
    msg.type = 77;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogInitMsg(nullptr, &handle, ZOLTLOG_MSG_APP, "x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogInitMsg(&msg, nullptr, ZOLTLOG_MSG_APP, "x"));
    EXPECT_EQ(handle.sequenceNumber, 41u);
    EXPECT_EQ(msg.type, 77u);
}

TEST(MessageRecord, AHandleWithoutAFileGivesNoIds) {
    LogHandle handle = plainHandle();
    handle.file = nullptr;
    LogMsg msg;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_SECURE_AUDIT, nullptr));
    EXPECT_EQ(msg.productId, 0u);
    EXPECT_EQ(msg.originatorId, 0u);
    EXPECT_EQ(msg.messageId, 41u);
}

TEST(MessageRecord, AContextHandleLendsItsToken) {
    LogHandle handle = plainHandle();
    char token[] = "T1";
    handle.noContext = 0;
    handle.contextMsg.type = ZOLTLOG_MSG_CONTEXT;
    handle.contextMsg.attr.contextTitle = token;
    LogMsg msg;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "x"));
    EXPECT_EQ(msg.contextToken, token); // borrowed
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
    EXPECT_STREQ(token, "T1");
}

TEST(MessageRecord, AContextHandleWithoutContextMessageFails) {
    LogHandle handle = plainHandle();
    handle.noContext = 0; // but its context message is of type 0
    LogMsg msg;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "x"));
    EXPECT_EQ(msg.text, nullptr);
    EXPECT_EQ(handle.sequenceNumber, 42u);
}

TEST(MessageRecord, MillisecondsAreCutNotRounded) {
    LogHandle handle = plainHandle();
    LogMsg msg;
    fakeNow = {1, 999999};
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, nullptr));
    EXPECT_EQ(msg.timestamp, 1999u);
    fakeNow = {4102444800, 0};
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, nullptr));
    EXPECT_EQ(msg.timestamp, 4102444800000u);
}

// ---- attributes

TEST(MessageRecord, LevelsOutsideOneToSixAreStoredAndFail) {
    const struct { uint32_t level, result; } cases[] = {{0, 1}, {1, 0}, {6, 0}, {7, 1}, {4294967295u, 1}};
    for (const auto &c : cases) {
        LogMsg debug = recordOfType(0);
        EXPECT_EQ(zoltLogSetDebugAttr(&debug, "w", c.level), c.result);
        EXPECT_EQ(debug.attr.level, c.level);
        EXPECT_STREQ(debug.who, "w");
        LogMsg diag = recordOfType(1);
        EXPECT_EQ(zoltLogSetDiagAttr(&diag, "w", c.level), c.result);
        EXPECT_EQ(diag.attr.level, c.level);
        EXPECT_STREQ(diag.who, "w");
    }
}

TEST(MessageRecord, ANullWhoComesBeforeABadLevel) {
    LogMsg msg = recordOfType(1);
    msg.attr.level = 2;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetDiagAttr(&msg, nullptr, 7));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetDebugAttr(&msg, nullptr, 0));
    EXPECT_EQ(msg.attr.level, 2u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetDiagAttr(nullptr, "w", 1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetDebugAttr(nullptr, "w", 1));
}

TEST(MessageRecord, ApplicationAttributesAreNotLimited) {
    LogMsg msg = recordOfType(2);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttr(&msg, 9));
    EXPECT_EQ(msg.attr.severity, 9u);
    EXPECT_EQ(msg.who, nullptr);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_EMERGENCY));
    EXPECT_EQ(msg.attr.severity, 4u);
    EXPECT_STREQ(msg.who, "mgr");
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetAppAttr(nullptr, ZOLTLOG_SEVERITY_WARNING));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetAppAttrEx(nullptr, "w", ZOLTLOG_SEVERITY_WARNING));
}

TEST(MessageRecord, ApplicationAttributesAcceptANullWho) {
    LogMsg msg = recordOfType(ZOLTLOG_MSG_APP);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_EMERGENCY));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, nullptr, ZOLTLOG_SEVERITY_WARNING));
    EXPECT_EQ(msg.who, nullptr);
    EXPECT_EQ(msg.attr.severity, 1u);
}

TEST(MessageRecord, AuditAttributesAcceptANullSubject) {
    LogMsg msg = recordOfType(4);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAuditAttr(&msg, "root", 2));
    EXPECT_STREQ(msg.who, "root");
    EXPECT_EQ(msg.outcome, 2u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAuditAttr(&msg, nullptr, 3));
    EXPECT_EQ(msg.who, nullptr);
    EXPECT_EQ(msg.outcome, 3u);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetAuditAttr(nullptr, "root", 2));

    LogMsg secure = recordOfType(5);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSecureAuditAttr(&secure, 99, "root", 2));
    EXPECT_EQ(secure.attr.level, 99u);
    EXPECT_STREQ(secure.who, "root");
    EXPECT_EQ(secure.outcome, 2u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSecureAuditAttr(&secure, 1, nullptr, 2));
    EXPECT_EQ(secure.who, nullptr);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetSecureAuditAttr(nullptr, 1, "root", 2));
}

TEST(MessageRecord, AContextTokenIsAnOwnedCopyThatReplacesAnEarlierOne) {
    LogMsg msg = recordOfType(3);
    std::string token = "first";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&msg, token.c_str()));
    token = "other";
    EXPECT_STREQ(msg.attr.contextTitle, "first");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&msg, msg.attr.contextTitle)); // even from itself
    EXPECT_STREQ(msg.attr.contextTitle, "first");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&msg, "second"));
    EXPECT_STREQ(msg.attr.contextTitle, "second");
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetContextAttr(&msg, nullptr));
    EXPECT_STREQ(msg.attr.contextTitle, "second");
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSetContextAttr(nullptr, "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
}

TEST(MessageRecord, AContextTokenDoesNotReleaseTheLevelOfAnotherType) {
    LogMsg msg = recordOfType(1);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDiagAttr(&msg, "w", 6));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&msg, "token"));
    EXPECT_STREQ(msg.attr.contextTitle, "token");
    free(msg.attr.contextTitle); // no context record: releasing the record would not
}

// ---- getters

TEST(MessageRecord, FieldsOfAllTypesAreRead) {
    char token[] = "T";
    char text[] = "text";
    for (const uint32_t type : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 4294967295u}) {
        LogMsg msg = recordOfType(type);
        msg.productId = UINT64_MAX;
        msg.originatorId = 2;
        msg.fileOriginatorId = 3;
        msg.timestamp = 4;
        msg.processId = 5;
        msg.threadId = 6;
        msg.contextToken = token;
        msg.text = text;
        uint32_t number = 9;
        uint64_t wide = 9;
        char *pointer = nullptr;
        ZoltLisBlock *block = nullptr;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgType(&msg, &number));
        EXPECT_EQ(number, type);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgProductId(&msg, &wide));
        EXPECT_EQ(wide, UINT64_MAX);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgOriginatorId(&msg, &wide));
        EXPECT_EQ(wide, 2u);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgFid(&msg, &wide));
        EXPECT_EQ(wide, 3u);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgTimestamp(&msg, &wide));
        EXPECT_EQ(wide, 4u);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgPid(&msg, &wide));
        EXPECT_EQ(wide, 5u);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgTid(&msg, &wide));
        EXPECT_EQ(wide, 6u);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgContextToken(&msg, &pointer));
        EXPECT_EQ(pointer, token);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgText(&msg, &pointer));
        EXPECT_EQ(pointer, text);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetMsgLis(&msg, &block));
        EXPECT_EQ(block, &msg.lis);
    }
}

namespace {

// The getters whose field only some types have.
const struct {
    const char *name;
    uint32_t (*get)(const LogMsg *, uint32_t *);
    uint32_t types; // bit of each allowed type
    size_t field;
} NUMBER_GETTERS[] = {
    {"AppAttrSeverity", zoltLogGetMsgAppAttrSeverity, 1u << ZOLTLOG_MSG_APP, offsetof(LogMsg, attr)},
    {"DebugAttrLevel", zoltLogGetMsgDebugAttrLevel, 1u << ZOLTLOG_MSG_DEBUG, offsetof(LogMsg, attr)},
    {"DebugLevel", zoltLogGetMsgDebugLevel, 1u << ZOLTLOG_MSG_DEBUG, offsetof(LogMsg, attr)},
    {"DiagAttrLevel", zoltLogGetMsgDiagAttrLevel, 1u << ZOLTLOG_MSG_DIAG, offsetof(LogMsg, attr)},
    {"DiagLevel", zoltLogGetMsgDiagLevel, 1u << ZOLTLOG_MSG_DIAG, offsetof(LogMsg, attr)},
    {"AuditAttrOutcome", zoltLogGetMsgAuditAttrOutcome,
     1u << ZOLTLOG_MSG_AUDIT | 1u << ZOLTLOG_MSG_SECURE_AUDIT, offsetof(LogMsg, outcome)},
    {"AuditLevel", zoltLogGetMsgAuditLevel, 1u << ZOLTLOG_MSG_SECURE_AUDIT, offsetof(LogMsg, attr)},
};
const struct {
    const char *name;
    uint32_t (*get)(const LogMsg *, char **);
    uint32_t types;
    size_t field;
} TEXT_GETTERS[] = {
    {"AppAttrWho", zoltLogGetMsgAppAttrWho, 1u << ZOLTLOG_MSG_APP, offsetof(LogMsg, who)},
    {"DebugAttrWho", zoltLogGetMsgDebugAttrWho, 1u << ZOLTLOG_MSG_DEBUG, offsetof(LogMsg, who)},
    {"DiagAttrWho", zoltLogGetMsgDiagAttrWho, 1u << ZOLTLOG_MSG_DIAG, offsetof(LogMsg, who)},
    {"AuditAttrSubject", zoltLogGetMsgAuditAttrSubject,
     1u << ZOLTLOG_MSG_AUDIT | 1u << ZOLTLOG_MSG_SECURE_AUDIT, offsetof(LogMsg, who)},
    {"ContextAttrToken", zoltLogGetMsgContextAttrToken, 1u << ZOLTLOG_MSG_CONTEXT, offsetof(LogMsg, attr)},
};

bool allowed(uint32_t types, uint32_t type) {
    return type < 32 && (types & 1u << type) != 0;
}

} // namespace

TEST(MessageRecord, AttributesAreReadFromTheirTypesOnly) {
    char other[] = "other";
    for (const uint32_t type : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 32u, 34u, 4294967295u}) {
        for (const auto &getter : NUMBER_GETTERS) {
            LogMsg msg = recordOfType(type);
            const uint32_t value = 123;
            memcpy(reinterpret_cast<char *>(&msg) + getter.field, &value, sizeof value);
            uint32_t out = 77;
            EXPECT_EQ(getter.get(&msg, &out), allowed(getter.types, type) ? 0u : 3u) << getter.name << type;
            EXPECT_EQ(out, allowed(getter.types, type) ? 123u : 77u) << getter.name << type;
        }
        for (const auto &getter : TEXT_GETTERS) {
            LogMsg msg = recordOfType(type);
            char text[] = "text";
            char *value = text;
            memcpy(reinterpret_cast<char *>(&msg) + getter.field, &value, sizeof value);
            char *out = other;
            EXPECT_EQ(getter.get(&msg, &out), allowed(getter.types, type) ? 0u : 3u) << getter.name << type;
            EXPECT_EQ(out, allowed(getter.types, type) ? text : other) << getter.name << type;
        }
    }
}

TEST(MessageRecord, GettersCheckBothPointers) {
    LogMsg msg = {};
    uint32_t number;
    uint64_t wide;
    char *pointer;
    ZoltLisBlock *block;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetMsgType(nullptr, &number));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetMsgType(&msg, nullptr));
    for (auto *get : {zoltLogGetMsgProductId, zoltLogGetMsgOriginatorId, zoltLogGetMsgFid,
                      zoltLogGetMsgTimestamp, zoltLogGetMsgPid, zoltLogGetMsgTid}) {
        EXPECT_EQ(get(nullptr, &wide), 3u);
        EXPECT_EQ(get(&msg, nullptr), 3u);
    }
    for (auto *get : {zoltLogGetMsgContextToken, zoltLogGetMsgText}) {
        EXPECT_EQ(get(nullptr, &pointer), 3u);
        EXPECT_EQ(get(&msg, nullptr), 3u);
    }
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetMsgLis(nullptr, &block));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetMsgLis(&msg, nullptr));
    for (uint32_t type = 0; type < 6; ++type) {
        msg.type = type;
        for (const auto &getter : NUMBER_GETTERS) {
            EXPECT_EQ(getter.get(nullptr, &number), 3u);
            EXPECT_EQ(getter.get(&msg, nullptr), 3u);
        }
        for (const auto &getter : TEXT_GETTERS) {
            EXPECT_EQ(getter.get(nullptr, &pointer), 3u);
            EXPECT_EQ(getter.get(&msg, nullptr), 3u);
        }
    }
}

// ---- release (leaks are seen by the address sanitizer)

TEST(MessageRecord, ReleaseZeroesTheRecordAndMayBeRepeated) {
    LogMsg msg = recordOfType(3);
    msg.productId = 5;
    msg.text = strdup("text");
    msg.attr.contextTitle = strdup("title");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
    const LogMsg zero = {};
    EXPECT_EQ(memcmp(&msg, &zero, sizeof msg), 0);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(nullptr));
}

TEST(MessageRecord, BorrowedStringsAreNotFreed) {
    char token[] = "token";
    char who[] = "who";
    for (uint32_t type = 0; type < 6; ++type) {
        for (const uint32_t owns : {0u, 2u}) { // only 1 means that the record owns them
            LogMsg msg = recordOfType(type);
            msg.ownsStrings = owns;
            msg.contextToken = token;
            msg.who = who;
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
        }
    }
}

TEST(MessageRecord, OwnedStringsAreFreed) {
    for (const uint32_t type : {0u, 1u, 2u, 4u}) {
        LogMsg msg = recordOfType(type);
        msg.ownsStrings = 1;
        msg.contextToken = strdup("token");
        msg.who = strdup("who");
        msg.text = strdup("text");
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
    }
}

TEST(MessageRecord, OwnedSubjectOfASecureAuditRecordIsNotFreed) {
    for (const uint32_t type : {3u, 5u, 6u}) {
        LogMsg msg = recordOfType(type);
        msg.ownsStrings = 1;
        msg.contextToken = strdup("token");
        char *subject = strdup("subject");
        msg.who = subject;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
        EXPECT_STREQ(subject, "subject");
        free(subject); // a double release if the record had freed it
    }
}

TEST(MessageRecord, AFailedReleaseOfTheBlockIsTold) {
    LogMsg msg = recordOfType(2);
    msg.lis.word[0] = 1;
    msg.text = strdup("text");
    releaseResult = -1;
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogFreeMsg(&msg));
    EXPECT_EQ(blocksReleased, 1);
    EXPECT_EQ(msg.lis.word[0], 0u);
    EXPECT_EQ(msg.text, nullptr);
    releaseResult = 0;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg));
    EXPECT_EQ(blocksReleased, 1);
}
