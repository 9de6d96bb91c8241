// SPDX-License-Identifier: Apache-2.0
// Configuration files under several processes and threads at once.
#include "support/cases.h"
#include "support/support.h"
#include "zoltlog.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point after(double seconds) {
    return Clock::now() + std::chrono::microseconds(static_cast<int64_t>(seconds * 1e6));
}

// A writer puts numbered keys into its own section; the last number is its exit status's.
pid_t startWriter(const std::string &section, Clock::time_point end, int report) {
    const pid_t child = fork();
    if (child != 0)
        return child;
    uint32_t number = 0;
    int failed = 0;
    PropertyStore store;
    if (utiOpenPropertyStore("s.conf", section.c_str(), &store) != 0)
        _exit(1);
    while (Clock::now() < end) {
        const unsigned long value = ++number;
        if (utiSetPropertyAsUlong(&store, "count", &value) != 0 ||
            utiSetPropertyAsUlong(&store, ("key" + std::to_string(number % 20)).c_str(), &value) != 0)
            failed = 1;
        if (number % 10 == 0 && utiRemoveProperty(&store, "key0") != 0)
            failed = 1;
    }
    if (write(report, &number, sizeof number) != sizeof number)
        failed = 1;
    _exit(failed);
}

// Two writers and a reader on one file of 400 further lines: every file seen is whole, every
// change is in the last one.
void race(double seconds) {
    std::string lines;
    for (int i = 0; i < 400; ++i)
        lines += "other.key" + std::to_string(i) + "=" + std::string(40, 'v') + "\n";
    support::writeFile("s.conf", lines + "last.line=1\n");
    const auto end = after(seconds);
    int pipes[2][2];
    pid_t writers[2];
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(pipe(pipes[i]), 0);
        writers[i] = startWriter(std::to_string(i + 5), end, pipes[i][1]);
    }
    size_t reads = 0;
    unsigned long seen[2] = {0, 0};
    while (Clock::now() < end) {
        for (int i = 0; i < 2; ++i) {
            PropertyStore store;
            ASSERT_EQ(utiOpenPropertyStore("s.conf", std::to_string(i + 5).c_str(), &store), 0U);
            unsigned long count = 0;
            if (utiGetPropertyAsUlong(&store, "count", &count) == 0) {
                EXPECT_GE(count, seen[i]); // never an older one
                seen[i] = count;
            } else {
                EXPECT_EQ(seen[i], 0U);
            }
            utiClosePropertyStore(&store);
        }
        const std::string now = support::readFile("s.conf");
        EXPECT_EQ(now.substr(0, lines.size()), lines);
        EXPECT_NE(now.find("\nlast.line=1\n"), std::string::npos);
        EXPECT_EQ(now.back(), '\n');
        ++reads;
    }
    for (int i = 0; i < 2; ++i) {
        int status = 0;
        ASSERT_EQ(waitpid(writers[i], &status, 0), writers[i]);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        uint32_t number = 0;
        ASSERT_EQ(read(pipes[i][0], &number, sizeof number), static_cast<ssize_t>(sizeof number));
        EXPECT_GT(number, 5U);
        PropertyStore store;
        ASSERT_EQ(utiOpenPropertyStore("s.conf", std::to_string(i + 5).c_str(), &store), 0U);
        unsigned long value = 0;
        EXPECT_EQ(utiGetPropertyAsUlong(&store, "count", &value), 0U);
        EXPECT_EQ(value, number);
        for (uint32_t k = number > 19 ? number - 19 : 1; k <= number; ++k) {
            if (k % 20 == 0)
                continue; // key0 comes and goes
            EXPECT_EQ(utiGetPropertyAsUlong(&store, ("key" + std::to_string(k % 20)).c_str(), &value), 0U);
            EXPECT_EQ(value, k);
        }
        utiClosePropertyStore(&store);
        close(pipes[i][0]);
        close(pipes[i][1]);
    }
    EXPECT_GT(reads, 3U);
    EXPECT_EQ(support::listFiles("."), std::vector<std::string>{"s.conf"});
}

} // namespace

TEST(RaceConfig, TwoWritersAndAReaderLoseAndTearNothing) {
    race(1);
}

TEST(LongRaceConfig, TwoWritersAndAReaderLoseAndTearNothing) {
    race(4);
}

// Eight processes register a product each, in a directory without a main file.
FRESH_TEST(RaceConfig, ProductsRegisteredAtOnceAreAllThere) {
    for (int round = 0; round < 10; ++round) {
        const std::string main = "./dir" + std::to_string(round) + "/main.conf";
        std::vector<pid_t> children;
        for (int i = 1; i <= 8; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                setenv("ZOLTLOG_CFG_LOC", main.c_str(), 1);
                const std::string text = std::to_string(i);
                const auto id = static_cast<uint64_t>(i);
                _exit(static_cast<int>(zoltLogAddProductCfg(id, text.c_str(), (text + ".conf").c_str())));
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }
        const std::string bytes = support::readFile(main);
        for (int i = 1; i <= 8; ++i) {
            const std::string id = std::to_string(i);
            EXPECT_NE(bytes.find("\n" + id + ".Configuration=" + id + ".conf\n"), std::string::npos) << bytes;
            EXPECT_NE(bytes.find("\n" + id + ".Names=" + id + "\n"), std::string::npos);
        }
        EXPECT_EQ(bytes.rfind("######", 0), 0U);
    }
}

// Registering and removing at once: who was told that he registered is there, whatever the
// others removed.
TEST(RaceConfig, RemovingTheLastProductLosesNoOther) {
    for (int round = 0; round < 30; ++round) {
        support::writeFile("main.conf", "5.Configuration=5.conf\n");
        const pid_t child = fork();
        setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
        if (child == 0)
            _exit(static_cast<int>(zoltLogRemoveProductCfg(5)));
        EXPECT_EQ(zoltLogAddProductCfg(6, "six", "6.conf"), 0U);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        const std::string bytes = support::readFile("main.conf");
        EXPECT_NE(bytes.find("6.Configuration=6.conf\n"), std::string::npos) << bytes;
        EXPECT_EQ(bytes.find("5."), std::string::npos) << bytes;
    }
}

// Threads of one process write, read and collect at once.
TEST(RaceConfig, ThreadsReadAndWriteAtOnce) {
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", "Default.DebugLevel=1\n");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (uint64_t id = 1; id <= 3; ++id) {
        threads.emplace_back([id] {
            for (uint32_t i = 0; i < 30; ++i) {
                LogCfg cfg;
                InitLogCfg(5, id, nullptr, &cfg);
                zoltLogCfgSetDebugLevel(&cfg, i % 7);
                EXPECT_EQ(zoltLogWriteCfg(5, id, &cfg), 0U);
                zoltLogFreeCfg(&cfg);
                EXPECT_EQ(zoltLogReadCfg(5, id, &cfg), 0U);
                EXPECT_EQ(cfg.debugLevel, i % 7);
                zoltLogFreeCfg(&cfg);
            }
        });
    }
    threads.emplace_back([&stop] {
        while (!stop) {
            LogCfg *cfgs[8];
            uint32_t count = 0;
            EXPECT_EQ(zoltLogReadAllCfg(nullptr, 8, cfgs, &count), 0U);
            EXPECT_GE(count, 1U);
            for (uint32_t i = 0; i < count; ++i) {
                zoltLogFreeCfg(cfgs[i]);
                zoltLogFree(cfgs[i]);
            }
        }
    });
    for (size_t i = 0; i < 3; ++i)
        threads[i].join();
    stop = true;
    threads[3].join();
    EXPECT_EQ(zoltLogMutex.depth, 0);
}

FRESH_TEST(RaceConfig, TheLocationIsDecidedOnceAmongThreads) {
    setenv("ZOLTLOG_CFG_LOC", "first.conf", 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 64; ++i)
        threads.emplace_back([] { EXPECT_STREQ(GetZoltLogCfgLoc(), "first.conf"); });
    for (auto &thread : threads)
        thread.join();
}
