// SPDX-License-Identifier: Apache-2.0
// The dynamic reload and the product's switch, with a clock and a counted stat of the test's own.
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<time_t> now;
std::atomic<time_t> step; // by which each look at the clock moves it on
thread_local int timeCalls, statCalls;
bool statFails;

const bool PREPARED = support::eachCase([] {
    now = 1000000;
    step = 0;
    timeCalls = statCalls = 0;
    statFails = false;
    libc::time.hook = [](time_t *out) {
        ++timeCalls;
        const time_t seconds = now += step;
        if (out != nullptr)
            *out = seconds;
        return seconds;
    };
    libc::stat.hook = [](const char *path, struct stat *status) {
        ++statCalls;
        if (!statFails)
            return libc::stat.real(path, status);
        errno = EACCES;
        return -1;
    };
});

const int64_t OPENED = 1000000;

struct Handle {
    LogFileState file = {};
    LogHandle handle = {};

    explicit Handle(uint32_t interval) {
        file.productId = 5;
        handle.file = &file;
        handle.originatorId = 7;
        handle.debugLevel = 1;
        handle.diagLevel = 1;
        handle.outputFlags = 0;
        handle.cfgTimestamp = OPENED;
        handle.lastReloadCheck = OPENED;
        handle.reloadInterval = interval;
    }
    // Reloads this many seconds after the open; the status calls that it made.
    int at(int64_t seconds) {
        now = OPENED + seconds;
        timeCalls = 0;
        statCalls = 0;
        EXPECT_EQ(zoltDynaLoadConfig(&handle), 0U);
        EXPECT_LE(timeCalls, 1);
        return statCalls;
    }
};

void writeProduct(const std::string &bytes, time_t modified) {
    support::writeFile("product.conf", bytes);
    const timespec times[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, "product.conf", times, 0), 0);
}

void registerProduct() {
    support::writeFile("main.conf", "5.Configuration=product.conf\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
}

const char LEVELS_3_4[] = "7.DebugLevel=3\n7.DiagnosticLevel=4\n7.DynaReloadInSec=100\n7.LogToStdout=true\n";

} // namespace

TEST(ConfigReload, AnIntervalOfZeroNeverLooksAtTheClock) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(0);
    EXPECT_EQ(h.at(100000), 0);
    EXPECT_EQ(timeCalls, 0);
    EXPECT_EQ(h.handle.debugLevel, 1U);
    EXPECT_EQ(h.handle.lastReloadCheck, OPENED);
}

TEST(ConfigReload, AHandleWithoutAFileIsLeftAlone) {
    EXPECT_EQ(zoltDynaLoadConfig(nullptr), 0U);
    Handle h(100);
    h.handle.file = nullptr;
    EXPECT_EQ(h.at(100000), 0);
    EXPECT_EQ(timeCalls, 0);
}

TEST(ConfigReload, TheFirstCheckAfterTheIntervalReads) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(100);
    EXPECT_EQ(h.at(0), 0);
    EXPECT_EQ(h.at(99), 0);
    EXPECT_EQ(h.at(100), 0); // not greater than the interval
    EXPECT_EQ(h.handle.debugLevel, 1U);
    EXPECT_EQ(h.at(101), 1);
    EXPECT_EQ(h.handle.debugLevel, 3U);
    EXPECT_EQ(h.handle.diagLevel, 4U);
    EXPECT_EQ(h.handle.reloadInterval, 100U);
    EXPECT_EQ(h.handle.cfgTimestamp, 5);
    EXPECT_EQ(h.handle.lastReloadCheck, OPENED + 101);
    EXPECT_EQ(h.handle.outputFlags, 0U); // levels and interval only
}

TEST(ConfigReload, AnUnchangedFileCostsOneStatusCallPerInterval) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(100);
    EXPECT_EQ(h.at(101), 1);
    h.handle.debugLevel = 6; // shows whether the file is read again
    int calls = 0;
    for (int second = 102; second <= 101 + 1010; ++second)
        calls += h.at(second);
    EXPECT_EQ(calls, 10);
    EXPECT_EQ(h.handle.debugLevel, 6U);
    writeProduct("7.DebugLevel=2\n7.DynaReloadInSec=100\n", 6);
    h.at(101 + 1010 + 101);
    EXPECT_EQ(h.handle.debugLevel, 2U);
    EXPECT_EQ(h.handle.diagLevel, 0U);
}

TEST(ConfigReload, TheIntervalIsNeverLessThanAMinute) {
    registerProduct();
    writeProduct("7.DynaReloadInSec=10\n", 5);
    for (const uint32_t interval : {1U, 10U, 59U, 60U, 0x80000000U, 0xFFFFFFFFU}) {
        Handle h(interval);
        EXPECT_EQ(h.at(60), 0) << interval;
        EXPECT_EQ(h.at(61), 1) << interval;
    }
    Handle h(61);
    EXPECT_EQ(h.at(61), 0);
    EXPECT_EQ(h.at(62), 1);
}

TEST(ConfigReload, AFileModifiedAtTheOpenIsNotRead) {
    registerProduct();
    writeProduct(LEVELS_3_4, OPENED);
    Handle h(100);
    EXPECT_EQ(h.at(101), 1);
    EXPECT_EQ(h.handle.debugLevel, 1U);
}

TEST(ConfigReload, ReloadingIsSwitchedOffByTheFile) {
    registerProduct();
    writeProduct("7.DebugLevel=2\n7.DynaReloadInSec=0\n", 5);
    Handle h(100);
    EXPECT_EQ(h.at(101), 1);
    EXPECT_EQ(h.handle.debugLevel, 2U);
    EXPECT_EQ(h.handle.reloadInterval, 0U);
    writeProduct("7.DebugLevel=5\n", 6);
    EXPECT_EQ(h.at(100000), 0);
    EXPECT_EQ(h.handle.debugLevel, 2U);
}

TEST(ConfigReload, AnUnregisteredProductKeepsItsLevels) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    support::writeFile("main.conf", "5.Names=x\n");
    Handle h(100);
    EXPECT_EQ(h.at(101), 0);
    EXPECT_EQ(h.handle.debugLevel, 1U);
    EXPECT_EQ(h.handle.reloadInterval, 100U);
    EXPECT_EQ(h.handle.lastReloadCheck, OPENED + 101);
    ASSERT_EQ(unlink("main.conf"), 0);
    EXPECT_EQ(h.at(202), 0);
    EXPECT_EQ(h.handle.debugLevel, 1U);
}

TEST(ConfigReload, AStatusThatFailsChangesNothing) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(100);
    statFails = true;
    EXPECT_EQ(h.at(101), 1);
    statFails = false;
    EXPECT_EQ(h.handle.debugLevel, 1U);
    EXPECT_EQ(h.handle.cfgTimestamp, OPENED);
    ASSERT_EQ(unlink("product.conf"), 0);
    EXPECT_EQ(h.at(202), 1);
    EXPECT_EQ(h.handle.debugLevel, 1U);
    writeProduct(LEVELS_3_4, 5);
    EXPECT_EQ(h.at(303), 1);
    EXPECT_EQ(h.handle.debugLevel, 3U);
}

TEST(ConfigReload, AClockThatWentBackWaits) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(100);
    EXPECT_EQ(h.at(-1000000), 0);
    EXPECT_EQ(h.handle.lastReloadCheck, OPENED);
    EXPECT_EQ(h.at(101), 1);
}

// One handle in many threads: all checks are harmless, the result is that of one.
TEST(ConfigReload, ThreadsMayCheckOneHandleAtOnce) {
    registerProduct();
    writeProduct(LEVELS_3_4, 5);
    Handle h(100);
    now = OPENED + 101;
    std::thread threads[8];
    for (auto &thread : threads) {
        thread = std::thread([&h] {
            for (int i = 0; i < 1000; ++i)
                EXPECT_EQ(zoltDynaLoadConfig(&h.handle), 0U);
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(h.handle.debugLevel, 3U);
    EXPECT_EQ(h.handle.diagLevel, 4U);
    EXPECT_EQ(zoltLogMutex.depth, 0);
}

// A handle reloads in some threads, while others open and close handles of the same series
// and make contexts of it.
TEST(ConfigReload, GoesOnBesideOpensAndContextsOfOtherThreads) {
    registerProduct();
    const std::string settings = "7.DebugLevel=3\n7.DynaReloadInSec=60\n7.LogDirectory=./log/\n";
    const std::string logset = "LOGSET.set.DebugLevel=3\nLOGSET.set.DynaReloadInSec=60\n"
                               "LOGSET.set.LogDirectory=./log/\n";
    writeProduct(settings + logset, 5);
    step = 61; // every look is due
    LogHandle own = {};
    LogHandle set = {};
    ASSERT_EQ(zoltLogOpen(5, 7, &own), 0U);
    ASSERT_EQ(zoltLogOpenLogSet(5, 7, "set", &set), 0U);
    std::thread threads[3];
    for (LogHandle *handle : {&own, &set}) {
        threads[handle == &own ? 0 : 1] = std::thread([handle] {
            for (int i = 0; i < 200; ++i) {
                const timespec times[2] = {{6 + i, 0}, {6 + i, 0}};
                utimensat(AT_FDCWD, "product.conf", times, 0);
                EXPECT_EQ(zoltDynaLoadConfig(handle), 0U);
            }
        });
    }
    threads[2] = std::thread([&own, &set] {
        for (int i = 0; i < 200; ++i) {
            LogHandle second = {};
            EXPECT_EQ(zoltLogOpen(5, 7, &second), 0U);
            for (LogHandle *parent : {&own, &set}) {
                LogHandle context = {};
                EXPECT_EQ(zoltLogCreateContext(parent, &context, "T", 0, "work"), 0U);
                EXPECT_EQ(zoltLogDestroyContext(&context), 0U);
            }
            EXPECT_EQ(zoltLogClose(&second), 0U);
        }
    });
    for (std::thread &thread : threads)
        thread.join();
    step = 0;
    EXPECT_EQ(own.debugLevel, 3U);
    EXPECT_EQ(set.debugLevel, 3U);
    EXPECT_EQ(zoltLogClose(&own), 0U);
    EXPECT_EQ(zoltLogClose(&set), 0U);
}

TEST(ConfigReload, TheProductsSwitchIsABoolean) {
    support::writeFile("main.conf", "5.AppMsgLogging=true\n6.AppMsgLogging=ON\n7.Names=x\n");
    uint32_t enabled = 9;
    EXPECT_EQ(GetProductLoggingLevel("main.conf", 5, &enabled), 0U);
    EXPECT_EQ(enabled, 1U);
    EXPECT_EQ(GetProductLoggingLevel("main.conf", 6, &enabled), 0U);
    EXPECT_EQ(enabled, 0U);
    enabled = 9;
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductLoggingLevel("main.conf", 7, &enabled));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductLoggingLevel("main.conf", 8, &enabled));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductLoggingLevel("missing.conf", 5, &enabled));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductLoggingLevel(nullptr, 5, &enabled));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetProductLoggingLevel("main.conf", 5, nullptr));
    EXPECT_EQ(enabled, 9U);
}
