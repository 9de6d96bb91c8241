// SPDX-License-Identifier: Apache-2.0
// Writers of a configuration that are killed before and behind each system call that they
// make, several at a time and beside one that survives: the files are whole, what was there
// before or is accepted is there, and nobody waits for the dead.
//
// QDUL_TEST_KILL_ROUNDS is how often the Long test kills at each call (1).
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/every_call.h"

namespace {

constexpr uint64_t PRODUCT = 5;
constexpr uint64_t SURVIVOR = 7;        // originator
constexpr uint64_t FIRST_VICTIM = 1000; // originators and products
constexpr int AT_ONCE = 3;
constexpr size_t PER_BATCH = 60;

struct Shared {
    std::atomic<bool> stop;
    std::atomic<long> calls;  // that a writer makes in all
    std::atomic<int> changes; // of the survivor, the last one's level included
    std::atomic<uint32_t> level;
    std::atomic<int> refused;
    std::atomic<int> done[PER_BATCH]; // changes of each victim that returned 0
};

using Lines = std::map<std::string, int>;

Lines linesOf(const char *file) {
    Lines lines;
    for (const std::string &line : support::lines(support::readFile(file)))
        ++lines[line];
    return lines;
}

const char *const KEPT[] = {"# a comment", "Default.LogDirectory=./log/", "8.DebugLevel=2",
                            "LOGSET.night.FileName=night"};

void configure() {
    std::string product;
    for (const char *line : KEPT)
        product += std::string(line) + "\n";
    support::writeFile("main.conf", "5.Configuration=./five.conf\n5.Names=five\n");
    support::writeFile("five.conf", product);
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
}

uint32_t writeLevel(uint64_t originator, uint32_t level) {
    LogCfg cfg;
    uint32_t result = InitLogCfg(PRODUCT, originator, nullptr, &cfg);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDebugLevel(&cfg, level);
    if (result == ZOLTLOG_OK)
        result = zoltLogWriteCfg(PRODUCT, originator, &cfg);
    zoltLogFreeCfg(&cfg);
    return result;
}

[[noreturn]] void writeForEver(Shared *memory) {
    for (uint32_t level = 1; !memory->stop; level = level % ZOLTLOG_LEVEL_LAST + 1) {
        if (writeLevel(SURVIVOR, level) != ZOLTLOG_OK) {
            ++memory->refused;
            continue;
        }
        memory->level = level;
        ++memory->changes;
        usleep(500);
    }
    _exit(0);
}

// Writes a level, registers a product and takes it away again, with the plan's kill.
[[noreturn]] void writeSome(size_t victim, const every::Plan &plan, Shared *memory) {
    const uint64_t id = FIRST_VICTIM + victim;
    const std::string name = "v" + std::to_string(id);
    every::begin(plan);
    const auto change = [&](auto call) {
        if (every::armed(call) == ZOLTLOG_OK)
            ++memory->done[victim];
        else
            ++memory->refused;
    };
    change([&] { return writeLevel(id, 4); });
    change([&] { return zoltLogAddProductCfg(id, name.c_str(), "./other.conf"); });
    change([&] { return zoltLogRemoveProductCfg(id); });
    memory->calls = every::calls[1];
    _exit(0);
}

// What a victim's changes made, and perhaps the one that it was killed in.
void lookAt(size_t victim, int done, Lines &product, Lines &main) {
    const std::string id = std::to_string(FIRST_VICTIM + victim);
    const int level = product[id + ".DebugLevel=4"];
    const int registered = main[id + ".Configuration=./other.conf"];
    SCOPED_TRACE("victim " + std::to_string(victim) + " after " + std::to_string(done) + " changes");
    EXPECT_LE(level, 1);
    EXPECT_LE(registered, 1);
    EXPECT_EQ(registered, main[id + ".Names=v" + id]); // both or none
    if (done >= 1)
        EXPECT_EQ(level, 1);
    else
        EXPECT_EQ(registered, 0);
    if (done == 2) {
        // the third change may have been made
    } else if (done == 3) {
        EXPECT_EQ(registered, 0);
    }
}

void sweepBatch(const std::vector<every::Plan> &plans, int *kills) {
    configure();
    auto *memory = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t survivor = fork();
    if (survivor == 0)
        writeForEver(memory);
    std::vector<pid_t> living;
    for (size_t next = 0; next < plans.size() || !living.empty();) {
        if (next < plans.size() && living.size() < AT_ONCE) {
            const pid_t child = fork();
            if (child == 0)
                writeSome(next, plans[next], memory);
            living.push_back(child);
            ++next;
            continue;
        }
        int status = 0;
        ASSERT_EQ(waitpid(living.front(), &status, 0), living.front());
        EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;
        *kills += status != 0 ? 1 : 0;
        living.erase(living.begin());
    }
    memory->stop = true;
    int status = -1;
    EXPECT_EQ(waitpid(survivor, &status, 0), survivor);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(memory->refused, 0);
    EXPECT_GT(memory->changes, 0);

    Lines product = linesOf("five.conf");
    Lines main = linesOf("main.conf");
    for (const char *line : KEPT)
        EXPECT_EQ(product[line], 1) << line;
    EXPECT_EQ(product["7.DebugLevel=" + std::to_string(memory->level)], 1);
    EXPECT_EQ(main["5.Configuration=./five.conf"], 1);
    EXPECT_EQ(main["5.Names=five"], 1);
    for (size_t victim = 0; victim < plans.size(); ++victim)
        lookAt(victim, memory->done[victim], product, main);
    // the next change removes what a killed writer left
    EXPECT_RESULT(ZOLTLOG_OK, writeLevel(SURVIVOR, 1));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogAddProductCfg(9, "nine", "./nine.conf"));
    for (const std::string &name : support::listFiles("."))
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    munmap(memory, sizeof(Shared));
}

long callsOfAWriter() {
    configure();
    auto *memory = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(support::inChild([&] {
                  writeSome(0, {}, memory);
                  return 1;
              }),
              0);
    EXPECT_EQ(memory->done[0], 3);
    const long calls = memory->calls;
    munmap(memory, sizeof(Shared));
    return calls;
}

void sweepKills(int step) {
    using every::Reach;
    using every::Space;
    const long calls = callsOfAWriter();
    ASSERT_GT(calls, 50);
    std::vector<every::Plan> plans;
    for (long number = 1; number <= calls + calls / 2; number += step) {
        plans.push_back({Space::SYSTEM, number, 0, Reach::KILL_BEFORE});
        plans.push_back({Space::SYSTEM, number, 0, Reach::KILL_AFTER});
        plans.push_back({Space::SYSTEM, number, EIO, Reach::KILL_AFTER}); // half of a write is done
    }
    int kills = 0;
    for (size_t begin = 0; begin < plans.size() && !testing::Test::HasFailure(); begin += PER_BATCH) {
        const size_t end = std::min(begin + PER_BATCH, plans.size());
        sweepBatch({plans.begin() + static_cast<long>(begin), plans.begin() + static_cast<long>(end)},
                   &kills);
    }
    EXPECT_GT(kills, static_cast<int>(calls) / step);
    printf("%d kills, at each of %ld calls\n", kills, calls);
}

} // namespace

TEST(KilledConfigurationWriters, AtSomeOfTheirCallsLeaveWholeFiles) {
    sweepKills(13);
}

TEST(LongKilledConfigurationWriters, AtEachCall) {
    const char *text = getenv("QDUL_TEST_KILL_ROUNDS");
    const long rounds = text != nullptr ? strtol(text, nullptr, 10) : 1;
    for (long round = 0; round < rounds; ++round)
        sweepKills(1);
}
