// SPDX-License-Identifier: Apache-2.0
// Message entry points and contexts, from the call to the bytes in the file.
#include "support/lis_items.h"
#include "support/log_records.h"
#include "support/results.h"
#include "support/sink_capture.h"
#include "support/syscalls.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <sys/time.h>

#include "zoltlog.h"

namespace {

// ---- the lock, watched -------------------------------------------------------------

std::string tagOfTheRecord;           // under which the last record got its time stamp
std::function<void()> atTheTimeStamp; // called when a record gets its time stamp

const bool CLOCK_WATCHED = support::eachCase([] {
    atTheTimeStamp = nullptr;
    libc::gettimeofday.hook = [](timeval *now, void *zone) {
        tagOfTheRecord = zoltLogMutex.depth > 0 ? zoltLogMutex.holders[0].tag : "no lock";
        if (atTheTimeStamp)
            atTheTimeStamp();
        return libc::gettimeofday.real(now, zone);
    };
});

std::function<void()> atLookup; // called by zoltLisVEx, whose errno stays

} // namespace

// ---- the localization library, watched ---------------------------------------------

namespace lis {

int lookups;    // calls of zoltLisVEx
int texts;      // calls of zoltLisTextV
int open;       // blocks made and not freed
int failWith;   // result of the next calls of zoltLisVEx, when not 0, which leave words behind
int failTextV;  // result of the next calls of zoltLisTextV, when not 0
uint32_t utf8;  // of the last lookup
int64_t number; // of the last lookup

void reset() {
    lookups = texts = open = failWith = failTextV = 0;
    utf8 = 77;
    number = 0;
}

template<typename Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}
bool isEmpty(const ZoltLisBlock &block) {
    return (block.word[0] | block.word[1] | block.word[2]) == 0;
}

} // namespace lis

extern "C" {
int32_t zoltLisTextV(ZoltLisBlock *block, const char *reference, va_list args) {
    ++lis::texts;
    if (lis::failTextV != 0)
        return lis::failTextV;
    const int32_t result = lis::real<decltype(zoltLisTextV)>("zoltLisTextV")(block, reference, args);
    lis::open += result == 0 && !lis::isEmpty(*block) ? 1 : 0;
    return result;
}
// A catalogue whose messages are the caller's format with the number before it
int32_t zoltLisVEx(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber, const char *format,
                   va_list args) {
    ++lis::lookups;
    lis::utf8 = utf8;
    lis::number = messageNumber;
    if (lis::failWith != 0) {
        *block = {{1, 2, 3}};
        return lis::failWith;
    }
    const std::string pattern = "message " + std::to_string(messageNumber) + ": " + format;
    const int callersError = errno;
    if (atLookup)
        atLookup();
    const int afterwards = errno;
    errno = callersError;
    const int32_t result = lis::real<decltype(zoltLisTextV)>("zoltLisTextV")(block, pattern.c_str(), args);
    lis::open += result == 0 ? 1 : 0;
    errno = afterwards;
    return result;
}
int32_t zoltLisFree(ZoltLisBlock *block) {
    if (block != nullptr && !lis::isEmpty(*block))
        --lis::open;
    return lis::real<decltype(zoltLisFree)>("zoltLisFree")(block);
}
}

namespace {

// ---- the calls, as a table -----------------------------------------------------------

struct Arguments {
    LogHandle *handle = nullptr;
    uint64_t messageId = 4711;
    uint32_t flags = 0;
    uint32_t grade = 1; // severity or level
    const char *who = "mgr";
    uint32_t outcome = 3;
    int64_t number = 0;
    const char *format = "%s %d"; // called with "files", 12
    const char *text = "ready text";
    ZoltLisBlock *block = nullptr;
};

template<typename Call>
uint32_t withList(Call call, ...) {
    va_list args;
    va_start(args, call);
    const uint32_t result = call(args);
    va_end(args);
    return result;
}

enum Traits : uint32_t {
    HAS_ID = 1,         // takes a message id
    HAS_WHO = 2,        // takes a who, which must not be null
    HAS_SUBJECT = 4,    // takes subject and outcome
    HAS_FLAGS = 8,      //
    HAS_FORMAT = 16,    // takes a format, which must not be null
    HAS_NUMBER = 32,    // takes a message number
    NEEDS_NUMBER = 64,  // which must not be 0
    HAS_BLOCK = 128,    // takes a block
    HAS_TEXT = 256,     // takes a ready text
    NEEDS_TEXT = 512,   // which must not be null
    FILTERED_BY = 1024, // the level of its family decides
};

struct Operation {
    const char *name;
    uint32_t type;
    uint32_t traits;
    uint32_t (*call)(const Arguments &a);
};

const Operation OPERATIONS[] = {
    {"zoltLogAppMsg", 2, HAS_FLAGS | HAS_FORMAT | HAS_NUMBER,
     [](const Arguments &a) {
         return zoltLogAppMsg(a.handle, a.flags, a.grade, a.number, a.format, "files", 12);
     }},
    {"zoltLogAppMsgEx", 2, HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO,
     [](const Arguments &a) {
         return zoltLogAppMsgEx(a.handle, a.flags, a.grade, a.who, a.number, a.format, "files", 12);
     }},
    {"zoltLogAppMsg2", 2, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER,
     [](const Arguments &a) {
         return zoltLogAppMsg2(a.handle, a.messageId, a.flags, a.grade, a.number, a.format, "files", 12);
     }},
    {"zoltLogAppMsg2Ex", 2, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO,
     [](const Arguments &a) {
         return zoltLogAppMsg2Ex(a.handle, a.messageId, a.flags, a.grade, a.who, a.number, a.format, "files",
                                 12);
     }},
    {"zoltLogAppMsg2V", 2, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogAppMsg2V(a.handle, a.messageId, a.flags, a.grade, a.number, a.format, list);
             },
             "files", 12);
     }},
    {"zoltLogAppMsg2VEx", 2, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogAppMsg2VEx(a.handle, a.messageId, a.flags, a.grade, a.who, a.number, a.format,
                                          list);
             },
             "files", 12);
     }},
    {"zoltLogAppMsg2L", 2, HAS_ID | HAS_FLAGS | HAS_TEXT | HAS_BLOCK,
     [](const Arguments &a) {
         return zoltLogAppMsg2L(a.handle, a.messageId, a.flags, a.grade, a.text, a.block);
     }},
    {"zoltLogAppMsg2LEx", 2, HAS_ID | HAS_FLAGS | HAS_TEXT | HAS_BLOCK | HAS_WHO,
     [](const Arguments &a) {
         return zoltLogAppMsg2LEx(a.handle, a.messageId, a.flags, a.grade, a.who, a.text, a.block);
     }},
    {"zoltLogDiagMsg", 1, HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogDiagMsg(a.handle, a.flags, a.grade, a.who, a.number, a.format, "files", 12);
     }},
    {"zoltLogDiagMsg2", 1, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogDiagMsg2(a.handle, a.messageId, a.flags, a.grade, a.who, a.number, a.format, "files",
                                12);
     }},
    {"zoltLogDiagMsg2V", 1, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogDiagMsg2V(a.handle, a.messageId, a.flags, a.grade, a.who, a.number, a.format,
                                         list);
             },
             "files", 12);
     }},
    {"zoltLogDiagMsg2L", 1, HAS_ID | HAS_FLAGS | HAS_TEXT | HAS_BLOCK | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogDiagMsg2L(a.handle, a.messageId, a.flags, a.grade, a.who, a.text, a.block);
     }},
    {"zoltLogAuditMsg", 4, HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | NEEDS_NUMBER | HAS_SUBJECT,
     [](const Arguments &a) {
         return zoltLogAuditMsg(a.handle, a.flags, a.who, a.outcome, a.number, a.format, "files", 12);
     }},
    {"zoltLogAuditMsg2", 4, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | NEEDS_NUMBER | HAS_SUBJECT,
     [](const Arguments &a) {
         return zoltLogAuditMsg2(a.handle, a.messageId, a.flags, a.who, a.outcome, a.number, a.format,
                                 "files", 12);
     }},
    {"zoltLogAuditMsg2V", 4, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_NUMBER | NEEDS_NUMBER | HAS_SUBJECT,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogAuditMsg2V(a.handle, a.messageId, a.flags, a.who, a.outcome, a.number,
                                          a.format, list);
             },
             "files", 12);
     }},
    {"zoltLogAuditMsg2L", 4, HAS_ID | HAS_FLAGS | HAS_BLOCK | HAS_SUBJECT,
     [](const Arguments &a) {
         return zoltLogAuditMsg2L(a.handle, a.messageId, a.flags, a.who, a.outcome, a.block);
     }},
    {"zoltLogSecureAuditMsg", 5, HAS_FORMAT | HAS_NUMBER | NEEDS_NUMBER | HAS_SUBJECT | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogSecureAuditMsg(a.handle, a.grade, a.who, a.outcome, a.number, a.format, "files", 12);
     }},
    {"zoltLogSecureAuditMsgV", 5, HAS_FORMAT | HAS_NUMBER | NEEDS_NUMBER | HAS_SUBJECT | FILTERED_BY,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogSecureAuditMsgV(a.handle, a.grade, a.who, a.outcome, a.number, a.format, list);
             },
             "files", 12);
     }},
    {"zoltLogSecureAuditMsgL", 5, HAS_BLOCK | HAS_SUBJECT | FILTERED_BY,
     [](const Arguments &a) { return zoltLogSecureAuditMsgL(a.handle, a.grade, a.who, a.outcome, a.block); }},
    {"zoltLogDebugMsg", 0, HAS_FLAGS | HAS_FORMAT | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogDebugMsg(a.handle, a.flags, a.grade, a.who, a.format, "files", 12);
     }},
    {"zoltLogDebugMsg2", 0, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return zoltLogDebugMsg2(a.handle, a.messageId, a.flags, a.grade, a.who, a.format, "files", 12);
     }},
    {"zoltLogDebugMsg2V", 0, HAS_ID | HAS_FLAGS | HAS_FORMAT | HAS_WHO | FILTERED_BY,
     [](const Arguments &a) {
         return withList(
             [&](va_list list) {
                 return zoltLogDebugMsg2V(a.handle, a.messageId, a.flags, a.grade, a.who, a.format, list);
             },
             "files", 12);
     }},
    {"zoltLogFormattedDebugMsg", 0, HAS_FLAGS | HAS_TEXT | NEEDS_TEXT | HAS_WHO,
     [](const Arguments &a) { return zoltLogFormattedDebugMsg(a.handle, a.flags, a.grade, a.who, a.text); }},
};

// ---- the fixture -------------------------------------------------------------------

struct WriteMessages : testing::Test {
    void SetUp() override {
        logs::configure({"Default.DebugLevel=3", "Default.DiagnosticLevel=3", "Default.DynaReloadInSec=0"});
        sinks::reset();
        sinks::formatter = sinks::testFormatter("recording");
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
        LogCfg cfg;
        ASSERT_RESULT(ZOLTLOG_OK, InitLogCfg(logs::PRODUCT, logs::ORIGINATOR, nullptr, &cfg));
        cfg.secureAuditLevel = 3;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(logs::PRODUCT, logs::ORIGINATOR, &cfg, &secure));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeCfg(&cfg));
        lis::reset();
        sinks::sent.clear();
        written = 0;
    }
    void TearDown() override {
        zoltLogClose(&handle);
        zoltLogClose(&secure);
        expectLockFree();
        EXPECT_EQ(0, lis::open) << "blocks not freed";
    }

    // Arguments with which the operation logs one message
    Arguments good(const Operation &operation) {
        Arguments a;
        a.handle = operation.type == ZOLTLOG_MSG_SECURE_AUDIT ? &secure : &handle;
        if ((operation.traits & NEEDS_NUMBER) != 0)
            a.number = 42;
        if ((operation.traits & HAS_BLOCK) != 0) {
            block = support::textBlock("block %s %d", "files", 12);
            a.block = &block;
            if ((operation.traits & HAS_TEXT) != 0)
                a.text = nullptr; // so that the block gives the wording
        }
        return a;
    }
    // A lock that was left held would show as a depth, or stop another thread.
    static void expectLockFree() {
        EXPECT_EQ(0, zoltLogMutex.depth);
        std::thread([] {
            EXPECT_EQ(0, pthread_mutex_trylock(&zoltLogMutex.mutex));
            pthread_mutex_unlock(&zoltLogMutex.mutex);
        }).join();
    }
    static uint64_t sequence(LogHandle *of) {
        uint64_t number = UINT64_MAX;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(of, &number));
        return number;
    }
    // Records and system-log lines that came since the last look
    size_t fresh() {
        const size_t now = logs::records().size() + sinks::sent.size();
        const size_t count = now - written;
        written = now;
        return count;
    }
    void expectBlockConsumed(const Operation &operation) {
        if ((operation.traits & HAS_BLOCK) != 0) {
            EXPECT_TRUE(lis::isEmpty(block)) << operation.name;
        }
        EXPECT_EQ(0, lis::open) << operation.name;
    }

    LogHandle handle = {};
    LogHandle secure = {};
    ZoltLisBlock block = {};
    size_t written = 0;
};

// ---- every operation -----------------------------------------------------------------

TEST_F(WriteMessages, EveryOperationWritesItsRecord) {
    for (const Operation &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        const Arguments a = good(operation);
        const uint64_t before = sequence(a.handle);
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(before + 1, sequence(a.handle));
        expectBlockConsumed(operation);
        expectLockFree();
        ASSERT_EQ(1u, fresh());

        const char *wording = (operation.traits & HAS_BLOCK) != 0      ? "block files 12"
                              : (operation.traits & NEEDS_NUMBER) != 0 ? "message 42: files 12"
                              : (operation.traits & HAS_TEXT) != 0     ? "ready text"
                                                                       : "files 12";
        if (operation.type == ZOLTLOG_MSG_SECURE_AUDIT) {
            EXPECT_EQ(2, sinks::sent.back().priority);
            EXPECT_EQ(wording, sinks::sent.back().text);
            continue;
        }
        const logs::Record record = logs::records().back();
        EXPECT_TRUE(record.whole);
        EXPECT_EQ(operation.type, record.type);
        EXPECT_EQ(5u, record.productId);
        EXPECT_EQ(7u, record.originatorId);
        EXPECT_EQ(7u, record.fileOriginatorId);
        EXPECT_EQ((operation.traits & HAS_ID) != 0 ? 4711 : before, record.messageId);
        EXPECT_EQ(static_cast<uint64_t>(getpid()), record.processId);
        EXPECT_EQ("", record.token);
        EXPECT_EQ(wording, record.text);
        EXPECT_EQ((operation.traits & (HAS_WHO | HAS_SUBJECT)) != 0 ? "mgr" : "", record.who);
        const char *const rests[] = {"1", "1,(0|)", "1,(0|)", "", "3,(0|)"};
        EXPECT_EQ(rests[operation.type], record.rest);
    }
}

TEST_F(WriteMessages, Flag16KeepsTheSequenceNumberAsMessageId) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_ID) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.flags = ZOLTLOG_NO_MESSAGE_ID;
        const uint64_t before = sequence(a.handle);
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(before, logs::records().back().messageId);
    }
}

TEST_F(WriteMessages, NullArgumentsAreRefusedAndTheBlockConsumed) {
    const auto refuse = [this](const Operation &operation, const char *what,
                               const std::function<void(Arguments &)> &spoil) {
        SCOPED_TRACE(testing::Message() << operation.name << " with null " << what);
        Arguments a = good(operation);
        LogHandle *target = a.handle;
        const uint64_t before = sequence(target);
        spoil(a);
        const int lookups = lis::lookups;
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, operation.call(a));
        if (a.block != nullptr)
            expectBlockConsumed(operation);
        else if ((operation.traits & HAS_BLOCK) != 0)
            zoltLisFree(&block); // it was not handed over
        EXPECT_EQ(before, sequence(target));
        EXPECT_EQ(0u, fresh());
        EXPECT_EQ(lookups, lis::lookups);
        expectLockFree();
    };
    for (const Operation &operation : OPERATIONS) {
        refuse(operation, "handle", [](Arguments &a) { a.handle = nullptr; });
        if ((operation.traits & HAS_WHO) != 0)
            refuse(operation, "who", [](Arguments &a) { a.who = nullptr; });
        if ((operation.traits & HAS_FORMAT) != 0)
            refuse(operation, "format", [](Arguments &a) { a.format = nullptr; });
        if ((operation.traits & HAS_BLOCK) != 0)
            refuse(operation, "block", [](Arguments &a) { a.block = nullptr; });
        if ((operation.traits & NEEDS_TEXT) != 0)
            refuse(operation, "text", [](Arguments &a) { a.text = nullptr; });
        if ((operation.traits & NEEDS_NUMBER) != 0)
            refuse(operation, "number", [](Arguments &a) { a.number = 0; });
    }
}

TEST_F(WriteMessages, NullChecksComeBeforeTheFilter) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & FILTERED_BY) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.grade = 5;
        if ((operation.traits & HAS_WHO) != 0)
            a.who = nullptr;
        else if ((operation.traits & HAS_FORMAT) != 0)
            a.format = nullptr;
        else
            a.handle = nullptr;
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, operation.call(a));
        expectBlockConsumed(operation);
    }
}

TEST_F(WriteMessages, AFilteredMessageDoesNothingButConsumeItsBlock) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & FILTERED_BY) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        for (const uint32_t level : {4u, 5u, 6u, 7u, 4294967295u}) {
            Arguments a = good(operation);
            a.grade = level;
            lis::lookups = lis::texts = 0;
            EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
            EXPECT_EQ(0, lis::lookups + lis::texts) << "wording was made";
            expectBlockConsumed(operation);
            EXPECT_EQ(operation.type == ZOLTLOG_MSG_SECURE_AUDIT ? 0u : 1u, sequence(a.handle));
            EXPECT_EQ(0u, fresh());
        }
        Arguments a = good(operation);
        a.grade = 3; // the handle's own level passes
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(1u, fresh());
        zoltLogSetSequenceNumber(&handle, 1);
        zoltLogSetSequenceNumber(&secure, 0);
    }
}

TEST_F(WriteMessages, AFilteredMessageTakesNoLock) {
    static const char TAG[] = "held by the test";
    std::promise<void> taken;
    std::promise<void> done;
    std::thread holder([&] {
        zoltLogLock(&zoltLogMutex, TAG);
        taken.set_value();
        done.get_future().wait();
        zoltLogUnlock(&zoltLogMutex, TAG);
    });
    taken.get_future().wait();
    auto calls = std::async(std::launch::async, [this] {
        uint32_t results = 0;
        results |= zoltLogDebugMsg(&handle, 0, 5, "mgr", "%s", "x");
        results |= zoltLogDiagMsg(&handle, 0, 5, "mgr", 0, "%s", "x");
        results |= zoltLogDiagMsg(&handle, 0, 5, "mgr", 42, "%s", "x");
        results |= zoltLogSecureAuditMsg(&secure, 5, "alice", 0, 42, "%s", "x");
        return results;
    });
    EXPECT_EQ(std::future_status::ready, calls.wait_for(std::chrono::seconds(20)));
    done.set_value();
    EXPECT_EQ(0u, calls.get());
    holder.join();
}

TEST_F(WriteMessages, TheRecordIsMadeUnderTheTagOfItsFamily) {
    const char *const families[] = {"zoltLogDebugMsg2V()", "zoltLogDiagMsg2L()",
                                    "zoltLogAppMsg2LEx()", nullptr,
                                    "zoltLogAuditMsg2L()", "zoltLogSecureAuditMsgL()"};
    for (const Operation &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        const Arguments a = good(operation);
        tagOfTheRecord.clear();
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        const bool formatted = (operation.traits & NEEDS_TEXT) != 0;
        EXPECT_EQ(formatted ? "zoltLogFormattedDebugMsg()" : families[operation.type], tagOfTheRecord);
    }
}

TEST_F(WriteMessages, OnlyMessagesWithAFormatAndALevelLookForAChangedConfiguration) {
    for (const Operation &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.handle = &handle;
        handle.debugLevel = handle.diagLevel = 0; // the configuration says 3
        handle.reloadInterval = 60;
        handle.lastReloadCheck = 0;
        handle.cfgTimestamp = 1;
        const bool reloads =
            (operation.traits & (FILTERED_BY | HAS_FORMAT | HAS_WHO)) == (FILTERED_BY | HAS_FORMAT | HAS_WHO);
        operation.call(a);
        EXPECT_EQ(reloads ? 3u : 0u, handle.diagLevel);
        EXPECT_EQ(reloads ? 3u : 0u, handle.debugLevel);
        if (reloads) { // and before the filter
            EXPECT_EQ(1u, fresh());
        }
        fresh();
    }
}

TEST_F(WriteMessages, ApplicationAndAuditMessagesAreNeverFiltered) {
    logs::configure({"Default.DebugLevel=0", "Default.DiagnosticLevel=0", "Default.AppMsgLogging=OFF",
                     "Default.DynaReloadInSec=0"});
    zoltLogClose(&handle);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    fresh();
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAuditMsg(&handle, 0, "alice", 0, 42, "%s", "x"));
    EXPECT_EQ(2u, fresh());
}

TEST_F(WriteMessages, FormattedDebugIsNeverFiltered) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&handle, 0));
    for (uint32_t level = 1; level <= 6; ++level)
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFormattedDebugMsg(&handle, 0, level, "mgr", "100% of %s")) << level;
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(6u, records.size());
    EXPECT_EQ("100% of %s", records[5].text);
    EXPECT_EQ("6", records[5].rest);
}

TEST_F(WriteMessages, LevelsOutside1To6FailAfterTakingASequenceNumber) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&handle, 9));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetDiagLevel(&handle, 9));
    for (const Operation &operation : OPERATIONS) {
        if (operation.type != ZOLTLOG_MSG_DEBUG && operation.type != ZOLTLOG_MSG_DIAG)
            continue;
        SCOPED_TRACE(operation.name);
        for (const uint32_t level : {0u, 7u, 9u}) {
            Arguments a = good(operation);
            a.grade = level;
            const uint64_t before = sequence(&handle);
            EXPECT_RESULT(ZOLTLOG_FAILED, operation.call(a)) << level;
            EXPECT_EQ(before + 1, sequence(&handle));
            expectBlockConsumed(operation);
            expectLockFree();
            EXPECT_EQ(0u, fresh());
        }
    }
}

TEST_F(WriteMessages, ASeverityAbove4CannotBeWritten) {
    for (const Operation &operation : OPERATIONS) {
        if (operation.type != ZOLTLOG_MSG_APP)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.grade = 5;
        EXPECT_RESULT(ZOLTLOG_FAILED, operation.call(a));
        expectBlockConsumed(operation);
        EXPECT_EQ(0u, fresh());
        a = good(operation);
        a.grade = 4;
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(1u, fresh());
    }
}

// ---- the catalogue -------------------------------------------------------------------

TEST_F(WriteMessages, AMessageNumberIsLookedUpInTheCatalogue) {
    handle.utf8 = 1;
    secure.utf8 = 1;
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_NUMBER) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.number = -1234567890123;
        lis::lookups = lis::texts = 0;
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(1, lis::lookups);
        EXPECT_EQ(0, lis::texts) << "formatted here as well";
        EXPECT_EQ(1u, lis::utf8);
        EXPECT_EQ(-1234567890123, lis::number);
        ASSERT_EQ(1u, fresh());
        const std::string text = operation.type == ZOLTLOG_MSG_SECURE_AUDIT ? sinks::sent.back().text
                                                                            : logs::records().back().text;
        EXPECT_EQ("message -1234567890123: files 12", text);
        EXPECT_EQ(0, lis::open);
    }
}

TEST_F(WriteMessages, WithFlag8TheLocallyFormattedTextIsTheText) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_NUMBER) == 0 || (operation.traits & HAS_FLAGS) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.number = 42;
        a.flags = ZOLTLOG_KEEP_LOCAL_TEXT;
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        ASSERT_EQ(1u, fresh());
        EXPECT_EQ(operation.type == ZOLTLOG_MSG_AUDIT ? "message 42: files 12" : "files 12",
                  logs::records().back().text);
        EXPECT_EQ(0, lis::open);
    }
}

TEST_F(WriteMessages, AReadyTextBesideABlockIsTheText) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_BLOCK) == 0 || (operation.traits & HAS_TEXT) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        for (const uint32_t flags : {0u, 8u}) {
            Arguments a = good(operation);
            a.text = "ready text";
            a.flags = flags;
            EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
            EXPECT_EQ("ready text", logs::records().back().text);
            expectBlockConsumed(operation);
        }
    }
}

// A caller may take the text out of the very block that the call consumes.
TEST_F(WriteMessages, TextsThatLieInTheBlockAreReadBeforeItGoes) {
    for (const size_t length : {size_t{20}, size_t{3000}, size_t{200000}}) {
        const std::string words(length, 'w');
        for (const Operation &operation : OPERATIONS) {
            if ((operation.traits & HAS_BLOCK) == 0 || operation.type == ZOLTLOG_MSG_SECURE_AUDIT)
                continue;
            SCOPED_TRACE(testing::Message() << operation.name << " " << length);
            Arguments a = good(operation);
            zoltLisFree(&block);
            block = support::textBlock("%s", words.c_str());
            ZoltLisIterator item = {};
            const char *inside = nullptr;
            ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
            ASSERT_EQ(0, zoltLisGetArg_nativeString(&item, &inside));
            a.text = inside;
            a.who = inside;
            EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
            ASSERT_EQ(1u, fresh());
            EXPECT_TRUE(words == logs::records().back().text);
            if ((operation.traits & (HAS_WHO | HAS_SUBJECT)) != 0) {
                EXPECT_TRUE(words == logs::records().back().who);
            }
            expectBlockConsumed(operation);
        }
    }
}

// The record's text is the record's own: what the formatter does to it is no matter of
// the caller's constant.
TEST_F(WriteMessages, TheFormatterMayChangeTheText) {
    sinks::formatter = sinks::testFormatter("trimming");
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_FLAGS) == 0 || operation.type == ZOLTLOG_MSG_AUDIT)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.format = "%s %d files \n\n";
        a.text = "12 files \n\n";
        a.flags = ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_OSLOG;
        const std::string printed =
            support::captured(1, [&] { EXPECT_RESULT(ZOLTLOG_OK, operation.call(a)); });
        EXPECT_EQ((operation.traits & HAS_FORMAT) != 0 ? "files 12 files\n" : "12 files\n", printed);
        EXPECT_EQ("files \r\r", logs::records().back().text.substr(logs::records().back().text.size() - 8));
        EXPECT_EQ(0, lis::open);
    }
}

// Another thread of the host may write to a text while it is being logged.
TEST_F(WriteMessages, ATextThatChangesMeanwhileStaysOneRecord) {
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "work"));
    char text[] = "0123456789 0123456789 0123456789";
    char who[] = "manager";
    for (const Operation &operation : OPERATIONS) {
        if (operation.type == ZOLTLOG_MSG_SECURE_AUDIT)
            continue;
        for (const char changed : {'\n', '\0', '\xff'}) {
            SCOPED_TRACE(testing::Message() << operation.name << " " << static_cast<int>(changed));
            Arguments a = good(operation);
            if ((operation.traits & HAS_TEXT) != 0)
                a.text = text;
            a.who = who;
            a.handle = &context;
            atTheTimeStamp = [&] { text[12] = who[3] = changed; };
            EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
            atTheTimeStamp = nullptr;
            text[12] = who[3] = '1';
            const std::string file = support::readFile("log/" + support::listFiles("log").back());
            EXPECT_EQ(std::string::npos, file.find('\0'));
            EXPECT_EQ(std::string::npos, file.find('\xff'));
            EXPECT_TRUE(logs::parse(support::lines(file).back()).whole) << support::lines(file).back();
            EXPECT_EQ("T1", logs::records().back().token);
        }
    }
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

TEST_F(WriteMessages, Flag8WithoutATextIsRefused) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_BLOCK) == 0 || (operation.traits & HAS_TEXT) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.flags = ZOLTLOG_KEEP_LOCAL_TEXT;
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, operation.call(a));
        expectBlockConsumed(operation);
        EXPECT_EQ(1u, sequence(&handle));
    }
    EXPECT_EQ(0u, fresh());
}

TEST_F(WriteMessages, ABlockThatIsEmptyMakesAMessageWithoutText) {
    for (const Operation &operation : OPERATIONS) {
        if ((operation.traits & HAS_BLOCK) == 0)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        zoltLisFree(&block);
        block = {};
        EXPECT_RESULT(ZOLTLOG_OK, operation.call(a));
        EXPECT_EQ(1u, fresh());
        if (operation.type != ZOLTLOG_MSG_SECURE_AUDIT) {
            EXPECT_EQ("", logs::records().back().text);
        }
    }
}

TEST_F(WriteMessages, AFailedLookupIsTheResultAndNothingIsSent) {
    const struct {
        int32_t lisResult;
        uint32_t result;
    } rows[] = {{-2, 3}, {-3, 4}, {-4, 2}, {-1, 10}, {-5, 10}, {1, 10}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.result, zoltLogMapLisResToLoggingRes(row.lisResult));
        for (const Operation &operation : OPERATIONS) {
            if ((operation.traits & HAS_NUMBER) == 0)
                continue;
            SCOPED_TRACE(testing::Message() << operation.name << " " << row.lisResult);
            for (const uint32_t flags : {0u, 8u}) {
                Arguments a = good(operation);
                a.number = 42;
                a.flags = flags;
                const uint64_t before = sequence(a.handle);
                lis::failWith = row.lisResult;
                EXPECT_RESULT(row.result, operation.call(a));
                lis::failWith = 0;
                EXPECT_EQ(before, sequence(a.handle));
                EXPECT_EQ(0u, fresh());
                EXPECT_EQ(0, lis::open) << "what the failed look-up left is not released";
                expectLockFree();
            }
        }
    }
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMapLisResToLoggingRes(0));
}

TEST_F(WriteMessages, PercentMTellsTheCallersError) {
    const struct {
        const char *name;
        std::function<uint32_t()> call;
    } rows[] = {
        {"application", [&] { return zoltLogAppMsg(&handle, 0, 1, 0, "%m"); }},
        {"application, catalogue", [&] { return zoltLogAppMsg(&handle, 0, 1, 42, "%m"); }},
        {"application, both", [&] { return zoltLogAppMsg(&handle, ZOLTLOG_KEEP_LOCAL_TEXT, 1, 42, "%m"); }},
        {"diagnostic", [&] { return zoltLogDiagMsg(&handle, 0, 1, "mgr", 0, "%m"); }},
        {"diagnostic, catalogue", [&] { return zoltLogDiagMsg(&handle, 0, 1, "mgr", 42, "%m"); }},
        {"debug", [&] { return zoltLogDebugMsg(&handle, 0, 1, "mgr", "%m"); }},
        {"audit", [&] { return zoltLogAuditMsg(&handle, 0, "mary", 1, 42, "%m"); }},
        {"context",
         [&] {
             LogHandle context;
             const uint32_t result = zoltLogCreateContext(&handle, &context, "T1", 0, "%m");
             zoltLogDestroyContext(&context);
             return result;
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        handle.reloadInterval = 60; // a reload is due, and fails on its way
        handle.lastReloadCheck = 0;
        handle.cfgTimestamp = 1;
        std::filesystem::rename("product.conf", "away");
        atLookup = [] { errno = EDOM; };
        errno = EXDEV;
        EXPECT_EQ(0u, row.call());
        atLookup = nullptr;
        std::filesystem::rename("away", "product.conf");
        const logs::Record record = logs::records().back();
        const std::string error = strerror(EXDEV);
        EXPECT_EQ(error, record.text.substr(record.text.size() - std::min(record.text.size(), error.size())));
        if (record.type == ZOLTLOG_MSG_CONTEXT) {
            EXPECT_NE(std::string::npos, record.rest.find(error)) << record.rest;
        }
    }
}

TEST_F(WriteMessages, ATextThatCannotBeFormattedLeavesTheMessageWithoutText) {
    lis::failTextV = -3;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&handle, 0, 1, "mgr", "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT,
                  zoltLogAppMsg(&handle, ZOLTLOG_KEEP_LOCAL_TEXT, ZOLTLOG_SEVERITY_WARNING, 42, "%s",
                                "x")); // it has to be there
    lis::failTextV = 0;
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("", records[0].text);
    EXPECT_EQ("", records[1].text);
}

// ---- failing initialisation ------------------------------------------------------------

TEST_F(WriteMessages, AContextHandleWithoutAContextMessageCannotLog) {
    handle.noContext = 0; // its context message is not one
    secure.noContext = 0;
    for (const Operation &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        const Arguments a = good(operation);
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, operation.call(a));
        expectLockFree();
        if (operation.type == ZOLTLOG_MSG_SECURE_AUDIT && (operation.traits & HAS_BLOCK) != 0)
            zoltLisFree(&block); // see the next test
        expectBlockConsumed(operation);
        EXPECT_EQ(0u, fresh());
    }
    handle.noContext = 1;
    secure.noContext = 1;
}

TEST_F(WriteMessages, ASecureAuditBlockStaysWithTheCallerWhenInitialisationFails) {
    secure.noContext = 0;
    block = support::textBlock("block %s", "x");
    const ZoltLisBlock before = block;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogSecureAuditMsgL(&secure, 1, "alice", 0, &block));
    EXPECT_EQ(0, memcmp(&before, &block, sizeof block));
    EXPECT_EQ(1, lis::open);
    zoltLisFree(&block);
    secure.noContext = 1;
}

// ---- secure audit ---------------------------------------------------------------------

TEST_F(WriteMessages, SecureAuditMessagesDoNotGoThroughFileHandles) {
    handle.secureAuditLevel = 3;
    for (const Operation &operation : OPERATIONS) {
        if (operation.type != ZOLTLOG_MSG_SECURE_AUDIT)
            continue;
        SCOPED_TRACE(operation.name);
        Arguments a = good(operation);
        a.handle = &handle;
        EXPECT_RESULT(ZOLTLOG_SECURE_ON_FILE_HANDLE, operation.call(a));
        expectBlockConsumed(operation);
        expectLockFree();
        EXPECT_EQ(0u, fresh());
    }
}

TEST_F(WriteMessages, SecureAuditMessagesHaveIdZeroAndNoOtherOutput) {
    secure.outputFlags |= ZOLTLOG_OUT_OSLOGX;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSecureAuditMsg(&secure, 3, "alice", 9, 42, "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSecureAuditMsg(&secure, 3, "alice", 9, 42, "%s", "x"));
    const std::string pid = std::to_string(getpid());
    const std::string tid = std::to_string(getTID());
    ASSERT_EQ(2u, sinks::sent.size());
    EXPECT_EQ("5,7,0," + pid + "," + tid + ",(null),alice,9 message 42: x", sinks::sent[1].text);
    EXPECT_TRUE(logs::records().empty());
}

TEST_F(WriteMessages, ASecureAuditMessageWithoutThePlugInFails) {
    sinks::formatter = "";
    EXPECT_EQ(4294967295u, zoltLogSecureAuditMsg(&secure, 1, "alice", 0, 42, "%s", "x"));
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(WriteMessages, OrdinaryMessagesThroughASecureHandleHaveNoFile) {
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogAppMsg(&secure, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogAuditMsg(&secure, 0, "alice", 0, 42, "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&secure, 0, 1, "mgr", "%s", "x")); // its debug level is 0
}

// ---- other outputs ----------------------------------------------------------------------

TEST_F(WriteMessages, FlagsOfTheCallSelectTheOutputs) {
    std::string err;
    const std::string out = support::captured(1, [&] {
        err = support::captured(2, [&] {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 1, ZOLTLOG_SEVERITY_CRITICAL, 0, "%s", "first"));
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogDiagMsg(&handle, 2, 1, "mgr", 0, "%s", "second"));
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 4, ZOLTLOG_SEVERITY_CRITICAL, 0, "%s", "third"));
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogAuditMsg(&handle, 7, "alice", 0, 42, "%s", "fourth"));
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&handle, 7, 1, "mgr", "%s", "fifth"));
        });
    });
    EXPECT_EQ("first\nfifth\n", out);
    EXPECT_EQ("second\n", err);
    ASSERT_EQ(1u, sinks::sent.size());
    EXPECT_EQ(2, sinks::sent[0].priority);
    EXPECT_EQ("third", sinks::sent[0].text);
    EXPECT_EQ(5u, logs::records().size());
}

TEST_F(WriteMessages, TheLevelsAreTheHandlesOwn) {
    LogHandle other;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, 8, &other));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&other, 6));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&handle, 0, 6, "mgr", "%s", "x"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&other, 0, 6, "mgr", "%s", "x"));
    EXPECT_EQ(1u, logs::records().size());
    EXPECT_EQ(8u, logs::records()[0].originatorId);
    zoltLogClose(&other);
}

// ---- contexts ----------------------------------------------------------------------------

TEST_F(WriteMessages, AContextWritesItsRecordAndItsMessagesCarryItsToken) {
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK,
                  zoltLogCreateContext(&handle, &context, "T1", 0, "request %d of %s", 17, "host b"));
    EXPECT_EQ(2u, sequence(&handle));
    EXPECT_EQ(1u, sequence(&context));
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogAppMsg(&context, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "through the context"));
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "through the parent"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(3u, records[0].type);
    EXPECT_EQ(1u, records[0].messageId);
    EXPECT_EQ(5u, records[0].productId);
    EXPECT_EQ(7u, records[0].originatorId);
    EXPECT_EQ("", records[0].token);
    EXPECT_EQ("request 17 of host b", records[0].text);
    EXPECT_EQ("T1", records[0].who);
    EXPECT_EQ("(0|S8:request |i64:17|S4: of |S6:host b|)", records[0].rest);
    EXPECT_EQ("T1", records[1].token);
    EXPECT_EQ(1u, records[1].messageId);
    EXPECT_EQ("", records[2].token);
    EXPECT_EQ(2u, records[2].messageId);
    EXPECT_EQ(1, lis::open); // the context's own
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
    EXPECT_EQ(3u, logs::records().size()) << "closing is not told";
}

TEST_F(WriteMessages, AContextWithAMessageNumberCarriesTheReferenceOnly) {
    LogHandle context;
    handle.utf8 = 1;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 42, "request %d", 17));
    EXPECT_EQ(1, lis::lookups);
    EXPECT_EQ(0, lis::texts);
    EXPECT_EQ(42, lis::number);
    EXPECT_EQ(1u, lis::utf8);
    EXPECT_EQ("", logs::records()[0].text);
    EXPECT_EQ("(0|S20:message 42: request |i64:17|)", logs::records()[0].rest);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

TEST_F(WriteMessages, AContextOfAUtf8HandleIsWrittenAsUtf8) {
    LogHandle context;
    handle.utf8 = 1;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "caf\u00e9", 0, "r\u00e9quest"));
    EXPECT_EQ("caf\u00e9", logs::records()[0].who);
    EXPECT_EQ("r\u00e9quest", logs::records()[0].text);
    EXPECT_EQ(1u, context.utf8);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

TEST_F(WriteMessages, ContextsNest) {
    LogHandle outer;
    LogHandle inner;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &outer, "outer", 0, "%s", "o"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&outer, &inner, "inner", 0, "%s", "i"));
    EXPECT_EQ(2u, sequence(&outer));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&inner, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "m"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("", records[0].token);
    EXPECT_EQ("outer", records[0].who);
    EXPECT_EQ("outer", records[1].token);
    EXPECT_EQ("inner", records[1].who);
    EXPECT_EQ("inner", records[2].token);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&inner));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&outer));
}

TEST_F(WriteMessages, AnInnerContextMayOutliveItsOuterOne) {
    LogHandle outer;
    LogHandle inner;
    LogHandle innermost;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &outer, "outer", 0, "%s", "o"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&outer, &inner, "inner", 0, "%s", "i"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&outer));
    memset(static_cast<void *>(&outer), 0x55, sizeof outer);
    EXPECT_STREQ("outer", inner.contextMsg.contextToken);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&inner, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "m"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&inner, &innermost, "innermost", 0, "%s", "i"));
    EXPECT_EQ("inner", logs::records().back().token);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&inner));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&innermost));
}

TEST_F(WriteMessages, AContextStartsWithTheParentsLevelsAndKeepsItsOwn) {
    LogHandle context;
    handle.outputFlags = ZOLTLOG_OUT_STDOUT;
    std::string out = support::captured(
        1, [&] { ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "%s", "o")); });
    EXPECT_EQ("", out) << "context records are not copied";
    handle.outputFlags = 0;
    EXPECT_EQ(3u, context.debugLevel);
    EXPECT_EQ(3u, context.diagLevel);
    EXPECT_EQ(1u, context.outputFlags);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetDiagLevel(&context, 5));
    out = support::captured(1, [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDiagMsg(&context, 0, 5, "mgr", 0, "%s", "passes"));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDiagMsg(&handle, 0, 5, "mgr", 0, "%s", "filtered"));
    });
    EXPECT_EQ("passes\n", out);
    EXPECT_EQ(2u, logs::records().size());
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

TEST_F(WriteMessages, OpenContextsAreRewrittenIntoEveryNewFile) {
    zoltLogClose(&handle);
    logs::configure(
        {"Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=4", "Default.DynaReloadInSec=0"});
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    LogHandle contexts[3];
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &contexts[0], "C0", 0, "%s", "zero"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&contexts[0], &contexts[1], "C1", 0, "%s", "one"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&contexts[1], &contexts[2], "C2", 0, "%s", "two"));
    const std::string filler(1000, 'x');
    const auto rollOnce = [&] {
        const size_t before = logs::files().size();
        while (logs::files().size() == before)
            ASSERT_RESULT(ZOLTLOG_OK,
                          zoltLogAppMsg(&contexts[2], 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", filler.c_str()));
    };
    const auto tokensOfLast = [] {
        const logs::File file = logs::files().back();
        EXPECT_EQ("$Header 65543,5,7,", file.header.substr(0, 18));
        EXPECT_EQ(1, std::count(file.header.begin(), file.header.end(), '\n'));
        std::vector<std::string> tokens;
        for (const logs::Record &record : file.records) {
            EXPECT_TRUE(record.whole);
            if (record.type == ZOLTLOG_MSG_CONTEXT)
                tokens.push_back(record.who + "<" + record.token);
        }
        EXPECT_EQ(ZOLTLOG_MSG_APP, file.records.back().type);
        std::sort(tokens.begin(), tokens.end());
        return tokens;
    };
    rollOnce();
    EXPECT_EQ((std::vector<std::string>{"C0<", "C1<C0", "C2<C1"}), tokensOfLast());
    EXPECT_EQ(4u, logs::files().back().records.size());
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&contexts[1]));
    rollOnce();
    EXPECT_EQ((std::vector<std::string>{"C0<", "C2<C1"}), tokensOfLast());
    EXPECT_EQ(3u, logs::files().back().records.size());
    EXPECT_EQ("C2", logs::files().back().records.back().token);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&contexts[0]));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&contexts[2]));
}

TEST_F(WriteMessages, AContextMayOutliveItsParent) {
    auto parent = std::make_unique<LogHandle>();
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, 9, parent.get()));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(parent.get(), &context, "T1", 0, "%s", "o"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(parent.get()));
    parent.reset();
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogAppMsg(&context, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "after the parent"));
    EXPECT_EQ("T1", logs::records().back().token);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

TEST_F(WriteMessages, AContextRefusesNullArguments) {
    LogHandle context;
    memset(static_cast<void *>(&context), 0x55, sizeof context);
    const LogHandle untouched = context;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(nullptr, &context, "T1", 0, "%s", "o"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(&handle, nullptr, "T1", 0, "%s", "o"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(&handle, &context, "T1", 0, nullptr));
    EXPECT_EQ(0, memcmp(&untouched, &context, sizeof context));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(&handle, &handle, "T1", 0, "%s", "o"));
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "the handle lives"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogDestroyContext(nullptr));
}

TEST_F(WriteMessages, AContextThatFailsHoldsNothing) {
    LogHandle context;
    const auto expectClosed = [&](const char *what) {
        SCOPED_TRACE(what);
        EXPECT_EQ(0, lis::open);
        EXPECT_EQ(nullptr, context.file);
        EXPECT_EQ(nullptr, context.contextMsg.text);
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogDestroyContext(&context));
        EXPECT_EQ(0u, fresh());
        expectLockFree();
    };
    memset(static_cast<void *>(&context), 0x55, sizeof context);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(&handle, &context, nullptr, 0, "%s", "o"));
    expectClosed("null token");
    EXPECT_EQ(2u, sequence(&handle));

    lis::failWith = -4;
    EXPECT_RESULT(ZOLTLOG_LIS_FAILED, zoltLogCreateContext(&handle, &context, "T1", 42, "%s", "o"));
    lis::failWith = 0;
    expectClosed("failed lookup");

    lis::failTextV = -3;
    EXPECT_RESULT(ZOLTLOG_NO_MEMORY, zoltLogCreateContext(&handle, &context, "T1", 0, "%s", "o"));
    lis::failTextV = 0;
    expectClosed("no memory for the block");

    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogCreateContext(&secure, &context, "T1", 0, "%s", "o"));
    expectClosed("a secure parent");

    handle.noContext = 0;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContext(&handle, &context, "T1", 0, "%s", "o"));
    handle.noContext = 1;
    expectClosed("a parent that cannot log");
}

TEST_F(WriteMessages, AContextWhoseRecordCannotBeWrittenStaysAPlainHandle) {
    LogHandle context;
    const int descriptor = handle.file->file.descriptor;
    handle.file->file.descriptor = 1000; // nothing is open there
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, zoltLogCreateContext(&handle, &context, "T1", 0, "%s", "o"));
    handle.file->file.descriptor = descriptor;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&context, 0, 1, 0, "goes on"));
    LogHandle inner;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&context, &inner, "T2", 0, "work"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&inner, 0, 1, 0, "inside"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("goes on", records[0].text);
    EXPECT_EQ("", records[0].token);
    EXPECT_EQ("", records[1].token);
    EXPECT_EQ("T2", records[2].token);
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogDestroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogDestroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&inner));
    fresh();
}

// The handles on the file of a handle, and whether their list ends.
size_t handlesOn(const LogHandle &log) {
    constexpr size_t MORE_THAN_ANY = 1000;
    size_t count = 0;
    for (const LogHandle *at = log.file->handles; at != nullptr && count < MORE_THAN_ANY; at = at->nextOnFile)
        ++count;
    return count;
}

TEST_F(WriteMessages, ARecordThatIsOpenIsClosedBeforeItBecomesAContext) {
    LogHandle contexts[3] = {};
    for (LogHandle &context : contexts)
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "first"));
    ASSERT_EQ(4u, handlesOn(handle));
    for (LogHandle &context : contexts) // the last, the middle and the first of the list
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T2", 0, "second"));
    EXPECT_EQ(4u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&contexts[1], 0, 1, 0, "inside"));
    EXPECT_EQ("T2", logs::records().back().token);
    // One of the others as its parent
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&contexts[0], &contexts[1], "T3", 0, "third"));
    EXPECT_EQ(4u, handlesOn(handle));
    for (LogHandle &context : contexts)
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
    EXPECT_EQ(1u, handlesOn(handle));
}

TEST_F(WriteMessages, AnOpenHandleIsClosedBeforeItBecomesAContext) {
    LogHandle other = {};
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &other));
    ASSERT_EQ(2u, handlesOn(handle));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &other, "T1", 0, "same file"));
    EXPECT_EQ(2u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&other));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR + 1, &other));
    const size_t descriptors = support::openDescriptors();
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &other, "T2", 0, "another file"));
    EXPECT_EQ(descriptors - 1, support::openDescriptors()) << "the other file is closed with its last handle";
    EXPECT_EQ(2u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&other));
}

TEST_F(WriteMessages, ARecordThatLooksLikeAnOpenOneBecomesAContext) {
    LogHandle copy = handle; // on no list
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &copy, "T1", 0, "one"));
    EXPECT_EQ(2u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&copy));
    LogHandle any;
    memset(&any, 0x5a, sizeof any);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &any, "T1", 0, "two"));
    EXPECT_EQ(2u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&any));
}

TEST_F(WriteMessages, AContextWhoseRecordFailedIsClosedBeforeItBecomesAnother) {
    LogHandle context = {};
    const int descriptor = handle.file->file.descriptor;
    handle.file->file.descriptor = 1000; // nothing is open there
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, zoltLogCreateContext(&handle, &context, "T1", 0, "failed"));
    handle.file->file.descriptor = descriptor;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T2", 0, "again"));
    EXPECT_EQ(2u, handlesOn(handle));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
    const size_t descriptors = support::openDescriptors();
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle)) << "no context is waited for";
    EXPECT_EQ(descriptors - 1, support::openDescriptors());
}

TEST_F(WriteMessages, DestroyingAContextTwiceDoesNoHarm) {
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "%s", "o"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
    EXPECT_NE(0u, zoltLogDestroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "the parent lives"));
}

} // namespace
