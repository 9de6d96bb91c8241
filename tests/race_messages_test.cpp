// SPDX-License-Identifier: Apache-2.0
// Many threads that log messages of all kinds through shared handles and contexts.
#include "support/lis_items.h"
#include "support/log_records.h"
#include "support/results.h"
#include "support/sink_capture.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <thread>

#include "zoltlog.h"

namespace {

constexpr int THREADS = 8;
constexpr int CONTEXT_LENGTH = 50; // messages through one pair of contexts

struct Shared {
    LogHandle first;  // originator 7
    LogHandle second; // originator 7 too: the same file
    LogHandle other;  // originator 8: another file
    LogHandle secure;
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
};

// One message named "t<thread>-<n>"; which call and handle depends on n.
uint32_t sendOne(Shared &shared, LogHandle *context, int thread, int n) {
    LogHandle *const handles[] = {&shared.first, &shared.second, &shared.other, context};
    LogHandle *handle = handles[(n / 7) % 4];
    const std::string name = "t" + std::to_string(thread) + "-" + std::to_string(n);
    const char *text = name.c_str();
    ZoltLisBlock block = {};
    switch (n % 7) {
    case 0:
        return zoltLogAppMsg(handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", text);
    case 1:
        return zoltLogDiagMsg(handle, 0, 2, "race", 0, "t%d-%d", thread, n);
    case 2:
        return zoltLogDebugMsg(handle, 0, 2, "race", "t%d-%s", thread, std::to_string(n).c_str());
    case 3:
        return zoltLogFormattedDebugMsg(handle, 0, 6, "race", text);
    case 4:
        block = support::textBlock("t%d-%d", thread, n);
        return zoltLogAuditMsg2L(handle, 1, 0, "alice", 0, &block);
    case 5:
        block = support::textBlock("%s", text);
        return zoltLogAppMsg2LEx(handle, 1, 0, ZOLTLOG_SEVERITY_EMERGENCY, "race", nullptr, &block);
    default:
        block = support::textBlock("%s", text);
        return zoltLogSecureAuditMsgL(&shared.secure, 1, "alice", 0, &block);
    }
}

void work(Shared &shared, int thread, int messages) {
    LogHandle outer;
    LogHandle inner;
    for (int n = 0; n < messages; ++n) {
        if (n % CONTEXT_LENGTH == 0) {
            const std::string token = "c" + std::to_string(thread) + "-" + std::to_string(n);
            shared.failures += zoltLogCreateContext(n % 100 == 0 ? &shared.first : &shared.other, &outer,
                                                    token.c_str(), 0, "outer %d", n) != 0;
            shared.failures += zoltLogCreateContext(&outer, &inner, (token + "i").c_str(), 0, "inner %s",
                                                    token.c_str()) != 0;
        }
        shared.failures += sendOne(shared, &inner, thread, n) != 0;
        // What a filter drops costs nothing, and is not there afterwards
        shared.failures += zoltLogDebugMsg(&shared.other, 0, 6, "race", "dropped %s", "message") != 0;
        if (n % CONTEXT_LENGTH == CONTEXT_LENGTH - 1 || n == messages - 1) {
            shared.failures += zoltLogDestroyContext(n % 2 == 0 ? &outer : &inner) != 0;
            shared.failures += zoltLogDestroyContext(n % 2 == 0 ? &inner : &outer) != 0;
        }
    }
}

void raceOf(int messages) {
    logs::configure({"Default.DebugLevel=2", "Default.DiagnosticLevel=2", "Default.DynaReloadInSec=60",
                     "Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=256"});
    sinks::reset();
    sinks::formatter = sinks::testFormatter("recording");
    auto shared = std::make_unique<Shared>();
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, 7, &shared->first));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, 7, &shared->second));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, 8, &shared->other));
    LogCfg cfg;
    ASSERT_RESULT(ZOLTLOG_OK, InitLogCfg(logs::PRODUCT, 7, nullptr, &cfg));
    cfg.secureAuditLevel = 1;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(logs::PRODUCT, 7, &cfg, &shared->secure));
    zoltLogFreeCfg(&cfg);

    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread)
        threads.emplace_back([&shared, thread, messages] { work(*shared, thread, messages); });
    std::thread levels([&shared] { // levels change under the messages' feet
        for (uint32_t level = 2; !shared->done; level = level == 2 ? 5 : 2) {
            uint32_t seen = 0;
            shared->failures += zoltLogSetDebugLevel(&shared->first, level) != 0;
            shared->failures += zoltLogSetDiagLevel(&shared->second, level) != 0;
            shared->failures += zoltLogGetDiagLevel(&shared->first, &seen) != 0;
            std::this_thread::yield();
        }
    });
    for (std::thread &thread : threads)
        thread.join();
    shared->done = true;
    levels.join();
    EXPECT_EQ(0, shared->failures);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&shared->first));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&shared->second));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&shared->other));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogClose(&shared->secure));
    EXPECT_EQ(0, zoltLogMutex.depth);

    // Every record is whole and every message is there once.
    std::map<std::string, int> seen;
    std::map<std::string, int> contexts;
    for (const logs::File &file : logs::files()) {
        ASSERT_EQ("$Header 65543,5,", file.header.substr(0, 16)) << file.name;
        ASSERT_EQ(1, std::count(file.header.begin(), file.header.end(), '\n')) << file.name;
        for (const logs::Record &record : file.records) {
            ASSERT_TRUE(record.whole) << file.name;
            if (record.type == ZOLTLOG_MSG_CONTEXT)
                ++contexts[record.who];
            else
                ++seen[record.text];
        }
    }
    for (const sinks::Sent &sent : sinks::sent)
        ++seen[sent.text];
    EXPECT_EQ(static_cast<size_t>(THREADS) * static_cast<size_t>(messages), seen.size());
    for (const auto &[text, count] : seen)
        ASSERT_EQ(1, count) << text;
    for (int thread = 0; thread < THREADS; ++thread)
        for (int n = 0; n < messages; ++n)
            ASSERT_EQ(1u, seen.count("t" + std::to_string(thread) + "-" + std::to_string(n)))
                << thread << " " << n;
    EXPECT_EQ(static_cast<size_t>(THREADS) * 2 *
                  static_cast<size_t>((messages + CONTEXT_LENGTH - 1) / CONTEXT_LENGTH),
              contexts.size());
}

// The host's other threads write to texts while they are being logged: not what a host
// should do, but each message stays one whole line.
TEST(RaceMessages, TextsThatOtherThreadsChangeStayOneRecordEach) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the race is the test's own";
#endif
    constexpr int MESSAGES = 40000;
    logs::configure();
    sinks::reset();
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    char text[] = "a text of more than sixteen bytes that changes";
    char who[] = "manager";
    std::atomic<bool> done{false};
    std::thread changing([&] {
        volatile char *places[] = {text + 1, text + 30, who + 3};
        for (int round = 0; !done; ++round)
            *places[round % 3] = "x\nx\0x\xff"[round / 3 % 6];
    });
    int failures = 0;
    for (int n = 0; n < MESSAGES; ++n) {
        ZoltLisBlock none = {};
        LogMsg record;
        switch (n % 3) {
        case 0:
            failures += zoltLogFormattedDebugMsg(&handle, 0, 1, who, text) != 0;
            break;
        case 1:
            failures += zoltLogAppMsg2LEx(&handle, 1, 0, ZOLTLOG_SEVERITY_WARNING, who, text, &none) != 0;
            break;
        default:
            failures += zoltLogInitMsg(&record, &handle, ZOLTLOG_MSG_APP, nullptr) != 0;
            record.text = text;
            record.who = who;
            failures += zoltLogMsg(&handle, 0, &record) != 0;
            record.text = nullptr;
            zoltLogFreeMsg(&record);
        }
    }
    done = true;
    changing.join();
    EXPECT_EQ(0, failures);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    const std::vector<logs::Record> records = logs::records();
    EXPECT_EQ(static_cast<size_t>(MESSAGES), records.size());
    for (const logs::Record &record : records) {
        ASSERT_TRUE(record.whole);
        for (const std::string &field : {record.text, record.who})
            ASSERT_EQ(field.end(),
                      std::find_if(field.begin(), field.end(),
                                   [](char c) { return c == '\0' || static_cast<unsigned char>(c) >= 128; }))
                << field;
    }
}

TEST(RaceMessages, MixedKindsThroughSharedHandlesAndContextsAllArriveWhole) {
    raceOf(2000);
}

TEST(LongRaceMessages, EightHundredThousandMessagesAllArriveWhole) {
    raceOf(100000);
}

} // namespace
