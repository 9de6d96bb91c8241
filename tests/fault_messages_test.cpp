// SPDX-License-Identifier: Apache-2.0
// Message calls, contexts, outputs and the formatter plug-in when memory runs out.
#include "support/log_records.h"
#include "support/results.h"
#include "support/sink_capture.h"

#include <functional>
#include <gtest/gtest.h>

#include "formatter/zoltformat.h"
#include "zoltlog.h"

#include "support/failing_allocations.h" // after <cstdlib>, whose declarations it matches

namespace {

int blocksOpen; // made by the localization library and not freed

} // namespace

extern "C" {
int32_t zoltLisTextV(ZoltLisBlock *block, const char *reference, va_list args) {
    static const auto real = reinterpret_cast<decltype(&zoltLisTextV)>(dlsym(RTLD_NEXT, "zoltLisTextV"));
    const int32_t result = real(block, reference, args);
    blocksOpen += result == 0 && block->word[0] != 0 ? 1 : 0;
    return result;
}
int32_t zoltLisVEx(ZoltLisBlock *block, uint32_t utf8, int64_t number, const char *format, va_list args) {
    static const auto real = reinterpret_cast<decltype(&zoltLisVEx)>(dlsym(RTLD_NEXT, "zoltLisVEx"));
    const int32_t result = real(block, utf8, number, format, args);
    blocksOpen += result == 0 && block->word[0] != 0 ? 1 : 0;
    return result;
}
int32_t zoltLisFree(ZoltLisBlock *block) {
    static const auto real = reinterpret_cast<decltype(&zoltLisFree)>(dlsym(RTLD_NEXT, "zoltLisFree"));
    blocksOpen -= block->word[0] != 0 ? 1 : 0;
    return real(block);
}
}

namespace {

const int MOST_ALLOCATIONS = 200; // of one call

struct FaultMessages : testing::Test {
    void SetUp() override {
        if (!support::allocationsCanFail())
            GTEST_SKIP() << "the sanitizer has its own allocator";
        logs::configure({"Default.DebugLevel=6", "Default.DiagnosticLevel=6", "Default.DynaReloadInSec=0"});
        sinks::reset();
        sinks::formatter = sinks::testFormatter("recording");
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
        LogCfg cfg;
        ASSERT_RESULT(ZOLTLOG_OK, InitLogCfg(logs::PRODUCT, logs::ORIGINATOR, nullptr, &cfg));
        cfg.secureAuditLevel = 6;
        cfg.outputFlags = ZOLTLOG_OUT_OSLOGX;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(logs::PRODUCT, logs::ORIGINATOR, &cfg, &secure));
        zoltLogFreeCfg(&cfg);
        blocksOpen = 0;
        sinks::capturing = [](bool began) {
            static long saved;
            if (began)
                saved = support::allocationsUntilFailure;
            support::allocationsUntilFailure = began ? -1 : saved;
        };
    }
    void TearDown() override {
        if (!support::allocationsCanFail())
            return;
        zoltLogClose(&handle);
        zoltLogClose(&secure);
    }

    // Lets each allocation of the call fail in turn, until it needs no more. What
    // was made is freed, the lock is free, and a failure is told as out of memory.
    void exhaust(const char *name, const std::function<uint32_t()> &call) {
        for (long passing = 0; passing < MOST_ALLOCATIONS; ++passing) {
            SCOPED_TRACE(testing::Message() << name << ", allocation " << passing + 1);
            uint32_t result = 0;
            bool failed = false;
            {
                const support::FailingAllocation failing(passing);
                result = call();
                failed = support::FailingAllocation::happened();
            }
            EXPECT_EQ(0, blocksOpen);
            EXPECT_EQ(0, zoltLogMutex.depth);
            EXPECT_TRUE(result == ZOLTLOG_OK || (failed && result == ZOLTLOG_NO_MEMORY)) << result;
            if (!failed)
                return;
        }
        FAIL() << name << " needs ever more memory";
    }

    LogHandle handle = {};
    LogHandle secure = {};
};

ZoltLisBlock blockOf(const char *format, ...) {
    const long saved = support::allocationsUntilFailure;
    support::allocationsUntilFailure = -1; // making the block is no part of the call
    ZoltLisBlock block = {};
    va_list args;
    va_start(args, format);
    EXPECT_EQ(0, zoltLisTextV(&block, format, args));
    va_end(args);
    support::allocationsUntilFailure = saved;
    return block;
}

TEST_F(FaultMessages, MessageCallsFreeWhatTheyMade) {
    const std::string longText(9000, 'x'); // needs a larger record
    const char *text = longText.c_str();
    exhaust("app", [&] { return zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s %d", text, 1); });
    exhaust("app by number",
            [&] { return zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 42, "%s %d", text, 1); });
    exhaust("diag", [&] { return zoltLogDiagMsg(&handle, 0, 1, "mgr", 0, "%s", text); });
    exhaust("debug", [&] { return zoltLogDebugMsg(&handle, 0, 1, "mgr", "%s", text); });
    exhaust("formatted debug", [&] { return zoltLogFormattedDebugMsg(&handle, 0, 1, "mgr", text); });
    exhaust("audit", [&] { return zoltLogAuditMsg(&handle, 0, "alice", 0, 42, "%s", text); });
    exhaust("app block", [&] {
        ZoltLisBlock block = blockOf("%s", text);
        return zoltLogAppMsg2L(&handle, 1, 0, ZOLTLOG_SEVERITY_WARNING, nullptr, &block);
    });
    exhaust("app text", [&] {
        ZoltLisBlock block = blockOf("%s", text);
        return zoltLogAppMsg2L(&handle, 1, 0, ZOLTLOG_SEVERITY_WARNING, "ready", &block);
    });
    exhaust("audit block", [&] {
        ZoltLisBlock block = blockOf("%s", text);
        return zoltLogAuditMsg2L(&handle, 1, 0, "alice", 1, &block);
    });
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", "after all that"));
    for (const logs::Record &record : logs::records())
        EXPECT_TRUE(record.whole);
    EXPECT_EQ("after all that", logs::records().back().text);
}

TEST_F(FaultMessages, AFailedContextHoldsNothing) {
    exhaust("context", [&] {
        LogHandle outer = {};
        LogHandle inner = {};
        const uint32_t first = zoltLogCreateContext(&handle, &outer, "T1", 0, "%s", "outer");
        const uint32_t second =
            first == 0 ? zoltLogCreateContext(&outer, &inner, "T2", 42, "%s", "inner") : first;
        if (first == 0) {
            EXPECT_EQ(second == 0 ? 0u : 3u, zoltLogDestroyContext(&inner));
        }
        EXPECT_EQ(first == 0 ? 0u : 3u, zoltLogDestroyContext(&outer));
        return second;
    });
}

TEST_F(FaultMessages, ASecureAuditTextGoesAloneWhenThereIsNoRoomForThePrefix) {
    LogMsg msg = {};
    char text[] = "logged in";
    msg.type = ZOLTLOG_MSG_SECURE_AUDIT;
    msg.text = text;
    EXPECT_EQ(0, osLogWrite(&secure, &msg)); // loads the plug-in
    bool alone = false;
    for (long passing = 0; passing < MOST_ALLOCATIONS && !alone; ++passing) {
        sinks::sent.clear();
        sinks::sent.reserve(4);
        int32_t result = 0;
        {
            const support::FailingAllocation failing(passing);
            result = osLogWrite(&secure, &msg);
        }
        if (result != 0) {
            EXPECT_EQ(-1, result);
            EXPECT_TRUE(sinks::sent.empty());
            continue;
        }
        if (sinks::sent.size() == 1 && sinks::sent[0].text == "logged in") {
            EXPECT_EQ(2, sinks::sent[0].priority);
            alone = true;
        }
    }
    EXPECT_TRUE(alone);
}

TEST_F(FaultMessages, TheConsoleTellsThatThereIsNoMemory) {
    LogMsg msg = {};
    char text[] = "hello";
    msg.type = ZOLTLOG_MSG_APP;
    msg.text = text;
    const std::string path = sinks::formatter;
    dlopen(path.c_str(), RTLD_LAZY); // so that loading it again needs no memory
    std::string out = support::captured(1, [&] {
        EXPECT_RESULT(ZOLTLOG_OK, OutputToConsole(0, &msg, nullptr));
        bool toldNoMemory = false;
        for (long passing = 0; passing < MOST_ALLOCATIONS; ++passing) {
            uint32_t result = 0;
            bool failed = false;
            {
                const support::FailingAllocation failing(passing);
                result = OutputToConsole(0, &msg, nullptr);
                failed = support::FailingAllocation::happened();
            }
            toldNoMemory = toldNoMemory || result == ZOLTLOG_NO_MEMORY;
            EXPECT_TRUE(result == ZOLTLOG_OK || result == ZOLTLOG_NO_MEMORY) << result;
            EXPECT_EQ(nullptr, newfmtLib);
            if (!failed)
                break;
        }
        EXPECT_TRUE(toldNoMemory);
    });
    EXPECT_EQ("", out);
}

TEST_F(FaultMessages, ThePlugInTellsThatThereIsNoMemory) {
    void *library = dlopen(sinks::ownFormatter().c_str(), RTLD_LAZY);
    ASSERT_NE(nullptr, library);
    const auto entry = reinterpret_cast<LogFormatMessageFn>(dlsym(library, "LogFormatMessage"));
    LogMsg msg = {};
    std::string longText(5000, '\n');
    msg.type = ZOLTLOG_MSG_APP;
    msg.text = longText.data();
    char *text = nullptr;
    ASSERT_EQ(0u, entry(nullptr, 0, nullptr, 0, 0x700, 0, &msg, nullptr, &text));
    free(text);
    int failures = 0;
    for (long passing = 0; passing < MOST_ALLOCATIONS; ++passing) {
        const support::FailingAllocation failing(passing);
        const uint32_t result = entry(nullptr, 0, nullptr, 0, 0x700, 0, &msg, nullptr, &text);
        if (result == ZOLTLOG_OK) {
            free(text);
            break;
        }
        EXPECT_EQ(4u, result);
        EXPECT_EQ(nullptr, text);
        ++failures;
    }
    EXPECT_LT(2, failures);
}

} // namespace
