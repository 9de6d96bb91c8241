// SPDX-License-Identifier: Apache-2.0
// Writers that are killed in the middle of what they do, beside one that survives: every
// record that was accepted is read once, and what a kill leaves behind breaks no other. They
// are killed at random, and before and behind each system call that they make.
//
// QDUL_TEST_KILLS is the number of writers that the Long tests kill at random (200 by default),
// QDUL_TEST_KILL_ROUNDS how often they kill at each call (1).
#include "common/record.h"
#include "support/support.h"
#include "zoltlog.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/every_call.h"

namespace {

constexpr uint64_t PRODUCT = 5;
constexpr uint64_t ORIGINATOR = 7;
constexpr int AT_ONCE = 3;    // writers that live at the same time, besides the survivor
constexpr int PER_BATCH = 60; // kills before the files are looked at, and removed
constexpr int SURVIVOR = PER_BATCH;
constexpr uint64_t MOST_MESSAGES = 100000000; // of one writer; the message id tells both numbers

struct Shared {
    std::atomic<bool> stop;
    std::atomic<int> accepted[PER_BATCH + 1]; // messages of each writer that returned 0
    std::atomic<int> refused;
    std::atomic<long> calls; // that a writer makes in all
};

uint64_t killsOfTest() {
    const char *kills = getenv("QDUL_TEST_KILLS");
    return kills != nullptr ? strtoull(kills, nullptr, 10) : 200;
}

void configure(int kilobytes) {
    char *here = get_current_dir_name();
    const std::string home = std::string(here) + "/";
    free(here);
    std::string text;
    for (const std::string section : {"Default", "LOGSET.Default"})
        text += section + ".LogDirectory=" + home + "logs/\n" + section + ".RolloverMode=FileSize\n" +
                section + ".MaxLogFileSizeKB=" + std::to_string(kilobytes) + "\n";
    support::writeFile("main.conf", "5.Configuration=" + home + "p5.conf\n5.Names=web\n");
    support::writeFile("p5.conf", text + "LOGSET.nightly.FileName=night\n");
    support::makeDirectory("logs");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1); // read once per process: right in each case's directory
}

uint32_t openLog(bool logset, LogHandle *log) {
    return logset ? zoltLogOpenLogSet(PRODUCT, ORIGINATOR, "nightly", log)
                  : zoltLogOpen(PRODUCT, ORIGINATOR, log);
}

uint32_t sendOne(LogHandle *log, int writer, int number, size_t length) {
    static const std::string FILLING(400000, 'x');
    const uint64_t id = static_cast<uint64_t>(writer) * MOST_MESSAGES + static_cast<uint64_t>(number);
    return zoltLogAppMsg2(log, id, 0, 1, 0, "w%d %d %.*s", writer, number, static_cast<int>(length),
                          FILLING.c_str());
}

void note(uint32_t result, int writer, int number, Shared *memory) {
    if (result == ZOLTLOG_OK)
        memory->accepted[writer] = number + 1;
    else
        ++memory->refused;
}

// Sends numbered messages of all lengths up to the longest until it is killed or told.
[[noreturn]] void sendForEver(bool logset, int writer, size_t longest, Shared *memory) {
    std::mt19937 chance(static_cast<unsigned>(getpid())); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    LogHandle log;
    if (openLog(logset, &log) != ZOLTLOG_OK)
        ++memory->refused;
    for (int number = 0; !memory->stop; ++number) {
        note(sendOne(&log, writer, number, chance() % longest), writer, number, memory);
        if (writer == SURVIVOR)
            usleep(200);
    }
    _exit(0);
}

struct Totals {
    size_t records = 0; // that qdlogview read
    int broken = 0;     // lines that are no record
    int empty = 0;      // of those
};

struct Reading {
    std::vector<std::vector<int>> seen{std::vector<std::vector<int>>(PER_BATCH + 1)};
    Totals totals;
};

void count(uint64_t writer, uint64_t number, Reading *reading) {
    ASSERT_LE(writer, static_cast<uint64_t>(PER_BATCH));
    std::vector<int> &seen = reading->seen[writer];
    if (seen.size() <= number)
        seen.resize(number + 1);
    ++seen[number];
}

void count(const tools::Record &record, Reading *reading) {
    int writer = -1;
    int number = -1;
    ASSERT_EQ(sscanf(std::string(record.text.substr(0, 40)).c_str(), "w%d %d ", &writer, &number), 2);
    count(static_cast<uint64_t>(writer), static_cast<uint64_t>(number), reading);
}

// Such a file is not a log file yet.
bool isTemporary(const std::string &name) {
    return name.compare(0, 5, ".new-") == 0;
}

// The records that qdlogview shows of all files.
void readWithTool(Reading *reading) {
    const support::Finished shown = support::run({support::buildDirectory() + "/bin/qdlogview", "-o",
                                                  "template", "--template", "{message_id}", "logs"});
    EXPECT_LT(shown.status, 128) << shown.err;
    for (const std::string &line : support::lines(shown.out)) {
        const uint64_t id = strtoull(line.c_str(), nullptr, 10);
        count(id / MOST_MESSAGES, id % MOST_MESSAGES, reading);
        ++reading->totals.records;
    }
}

void readFileInto(const std::string &name, Reading *reading) {
    const std::string bytes = support::readFile("logs/" + name);
    std::string_view rest = bytes;
    tools::Header header;
    for (bool first = true; !rest.empty(); first = false) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (first) {
            ASSERT_EQ(tools::parseHeader(line, header), tools::HeaderResult::Ok) << name;
            continue;
        }
        tools::Record record;
        tools::Fault fault;
        size_t at = 0;
        if (tools::parseRecord(line, header.version, record, fault)) {
            count(record, reading);
            continue;
        }
        ++reading->totals.broken;
        // A line was ended for a killed writer while another record was already being
        // appended to it: the line feed then stands alone behind that record.
        if (line.empty()) {
            ++reading->totals.empty;
            continue;
        }
        EXPECT_EQ(line[0], '2') << name << ": begins with no record: " << line.substr(0, 100);
        if (tools::salvageRecord(line, header.version, record, at))
            count(record, reading);
    }
}

void killOne(const std::atomic<int> &accepted, pid_t victim, std::mt19937 &chance) {
    const int wanted = static_cast<int>(chance() % 4);
    while (accepted < wanted)
        usleep(50);
    usleep(static_cast<useconds_t>(chance() % 500));
    kill(victim, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(victim, &status, 0), victim);
    ASSERT_TRUE(WIFSIGNALED(status));
}

// Every accepted record is there once, and the one that a writer was killed in at most once.
void expectOnce(const Shared &memory, Reading *reading, const char *reader) {
    for (int writer = 0; writer <= PER_BATCH; ++writer) {
        std::vector<int> &seen = reading->seen[static_cast<size_t>(writer)];
        const auto accepted = static_cast<size_t>(memory.accepted[writer]);
        EXPECT_LE(seen.size(), accepted + 1) << reader << ": writer " << writer;
        seen.resize(std::max(seen.size(), accepted));
        for (size_t number = 0; number < seen.size(); ++number) {
            if (number < accepted)
                EXPECT_EQ(seen[number], 1) << reader << ": writer " << writer << ", message " << number;
            else
                EXPECT_LE(seen[number], 1) << reader << ": writer " << writer << ", message " << number;
        }
    }
}

Shared *beginBatch() {
    for (const std::string &name : support::listFiles("logs"))
        unlink(("logs/" + name).c_str());
    return static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

pid_t start(bool logset, int writer, size_t longest, Shared *memory) {
    const pid_t child = fork();
    if (child == 0)
        sendForEver(logset, writer, longest, memory);
    return child;
}

// Ends the survivor and looks at what all have written.
void endBatch(pid_t survivor, Shared *memory, Totals *totals) {
    memory->stop = true;
    int status = -1;
    EXPECT_EQ(waitpid(survivor, &status, 0), survivor);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(memory->refused, 0);

    Reading reading;
    for (const std::string &name : support::listFiles("logs"))
        if (!isTemporary(name))
            readFileInto(name, &reading);
    expectOnce(*memory, &reading, "lines");
    Reading ofTool;
    readWithTool(&ofTool);
    expectOnce(*memory, &ofTool, "qdlogview");
    totals->records += ofTool.totals.records;
    totals->broken += reading.totals.broken;
    totals->empty += reading.totals.empty;
    munmap(memory, sizeof(Shared));
}

void runBatch(bool logset, size_t longest, int kills, std::mt19937 &chance, Totals *totals) {
    Shared *const memory = beginBatch();
    const pid_t survivor = start(logset, SURVIVOR, 100, memory);
    std::vector<std::pair<int, pid_t>> living;
    for (int writer = 0; writer < kills + AT_ONCE; ++writer) {
        if (writer < kills)
            living.emplace_back(writer, start(logset, writer, longest, memory));
        if (living.size() == AT_ONCE || writer >= kills) {
            if (living.empty())
                break;
            killOne(memory->accepted[living.front().first], living.front().second, chance);
            living.erase(living.begin());
        }
    }
    endBatch(survivor, memory, totals);
}

void runKills(bool logset, size_t longest, uint64_t kills) {
    std::mt19937 chance(20240301); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    configure(4096);
    Totals totals;
    uint64_t killed = 0;
    for (; killed < kills && !testing::Test::HasFailure(); killed += PER_BATCH)
        runBatch(logset, longest, static_cast<int>(std::min<uint64_t>(PER_BATCH, kills - killed)), chance,
                 &totals);
    printf("%lu kills, %zu records read, each once, %d broken lines, %d of them empty\n",
           std::min(killed, kills), totals.records, totals.broken, totals.empty);
}

// ---- at each system call --------------------------------------------------------------------------

constexpr int SMALL_FILE_KB = 16;
constexpr size_t A_THIRD = 6000; // bytes of a message
constexpr int MESSAGES = 7;
constexpr int PERIOD = 601; // seconds after which a file is opened anew

int64_t clockAhead; // of this process, seconds

// Opens, fills two files, opens the second one anew, and closes, with the plan's kill.
[[noreturn]] void sendSome(bool logset, int writer, const every::Plan &plan, Shared *memory) {
    libc::gettimeofday.hook = [](timeval *out, void *zone) {
        const int result = libc::gettimeofday.real(out, zone);
        out->tv_sec += clockAhead;
        return result;
    };
    every::begin(plan);
    LogHandle log;
    if (every::armed([&] { return openLog(logset, &log); }) != ZOLTLOG_OK)
        ++memory->refused;
    for (int number = 0; number < MESSAGES; ++number) {
        if (number == MESSAGES - 2 && !logset) // for a log set that is the next second's file
            clockAhead = PERIOD;
        note(every::armed([&] { return sendOne(&log, writer, number, A_THIRD); }), writer, number, memory);
    }
    if (every::armed([&] { return zoltLogClose(&log); }) != ZOLTLOG_OK)
        ++memory->refused;
    memory->calls = every::calls[1];
    _exit(0);
}

struct Swept {
    int kills = 0;
    int leftovers = 0; // seen behind kills
};

size_t leftovers() {
    const std::vector<std::string> names = support::listFiles("logs");
    return static_cast<size_t>(std::count_if(names.begin(), names.end(), isTemporary));
}

// AT_ONCE writers at a time, each killed at another call.
void sweepBatch(bool logset, const std::vector<every::Plan> &plans, Swept *swept, Totals *totals) {
    Shared *const memory = beginBatch();
    const pid_t survivor = start(logset, SURVIVOR, 100, memory);
    std::vector<pid_t> living;
    for (size_t next = 0; next < plans.size() || !living.empty();) {
        if (next < plans.size() && living.size() < AT_ONCE) {
            const pid_t child = fork();
            if (child == 0)
                sendSome(logset, static_cast<int>(next), plans[next], memory);
            living.push_back(child);
            ++next;
            continue;
        }
        int status = 0;
        ASSERT_EQ(waitpid(living.front(), &status, 0), living.front());
        EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;
        swept->kills += status != 0 ? 1 : 0;
        swept->leftovers += leftovers() != 0 ? 1 : 0;
        living.erase(living.begin());
    }
    endBatch(survivor, memory, totals);
    if (leftovers() == 0)
        return;
    // whoever makes the next file removes what they left, here for another originator
    EXPECT_EQ(support::inChild([] {
                  LogHandle log;
                  return static_cast<int>(zoltLogOpen(PRODUCT, ORIGINATOR + 1, &log));
              }),
              0);
    EXPECT_EQ(leftovers(), 0U);
}

long callsOfAWriter(bool logset) {
    Shared *const memory = beginBatch();
    EXPECT_EQ(support::inChild([&] {
                  sendSome(logset, 0, {}, memory);
                  return 1;
              }),
              0);
    const long calls = memory->calls;
    munmap(memory, sizeof(Shared));
    return calls;
}

// Every step-th call of a writer, before, behind and, of a write, within it.
void sweepKills(bool logset, bool unnamed, int step) {
    using every::Reach;
    using every::Space;
    configure(logset ? 4096 : SMALL_FILE_KB); // a log set waits a second for its next file
    every::hasUnnamedFiles = unnamed;
    const long calls = callsOfAWriter(logset);
    ASSERT_GT(calls, 30);
    std::vector<every::Plan> plans;
    // beyond the last one as well: beside others a writer makes more calls
    for (long number = 1; number <= calls + calls / 2; number += step) {
        plans.push_back({Space::SYSTEM, number, 0, Reach::KILL_BEFORE});
        plans.push_back({Space::SYSTEM, number, 0, Reach::KILL_AFTER});
        plans.push_back({Space::SYSTEM, number, EIO, Reach::KILL_AFTER}); // half of a write is done
    }
    Swept swept;
    Totals totals;
    for (size_t begin = 0; begin < plans.size() && !testing::Test::HasFailure(); begin += PER_BATCH) {
        const size_t end = std::min(begin + PER_BATCH, plans.size());
        sweepBatch(logset, {plans.begin() + static_cast<long>(begin), plans.begin() + static_cast<long>(end)},
                   &swept, &totals);
    }
    EXPECT_GT(swept.kills, static_cast<int>(calls) / step);
    EXPECT_TRUE(unnamed || logset || step > 1 || swept.leftovers > 0); // the survivor made the set's file
    printf("%d kills, at each of %ld calls, %zu records read, each once, %d broken lines, %d of them empty, "
           "temporary files left %d times and removed\n",
           swept.kills, calls, totals.records, totals.broken, totals.empty, swept.leftovers);
}

int rounds() {
    const char *text = getenv("QDUL_TEST_KILL_ROUNDS");
    return text != nullptr ? static_cast<int>(strtol(text, nullptr, 10)) : 1;
}

} // namespace

TEST(KilledWriters, LoseNothingThatWasAccepted) {
    runKills(false, 100, 30);
}

TEST(KilledWriters, OfLargeRecordsLoseNothingThatWasAccepted) {
    runKills(false, 400000, 15);
}

TEST(LongKilledWriters, OfASeriesOfSmallRecords) {
    runKills(false, 100, killsOfTest() * 5 / 2);
}

TEST(LongKilledWriters, OfASeriesOfLargeRecords) {
    runKills(false, 400000, killsOfTest());
}

TEST(LongKilledWriters, OfALogSetOfSmallRecords) {
    runKills(true, 100, killsOfTest() * 5 / 2);
}

TEST(LongKilledWriters, OfALogSetOfLargeRecords) {
    runKills(true, 400000, killsOfTest());
}

TEST(KilledWriters, AtSomeOfTheirCallsLoseNothingThatWasAccepted) {
    sweepKills(false, true, 29);
}

TEST(KilledWriters, WithoutUnnamedFilesLeaveNothingThatTheNextOneDoesNotRemove) {
    sweepKills(false, false, 29);
}

TEST(LongKilledWriters, AtEachCallOfASeries) {
    for (int round = 0; round < rounds(); ++round)
        sweepKills(false, true, 1);
}

TEST(LongKilledWriters, AtEachCallOfASeriesWithoutUnnamedFiles) {
    for (int round = 0; round < rounds(); ++round)
        sweepKills(false, false, 1);
}

TEST(LongKilledWriters, AtEachCallOfALogSet) {
    for (int round = 0; round < rounds(); ++round)
        sweepKills(true, true, 1);
}

TEST(LongKilledWriters, AtEachCallOfALogSetWithoutUnnamedFiles) {
    for (int round = 0; round < rounds(); ++round)
        sweepKills(true, false, 1);
}
