// SPDX-License-Identifier: Apache-2.0
// Writers that are killed in the middle of what they do, beside one that survives: every
// record that was accepted is read once, and what a kill leaves behind breaks no other.
//
// QDUL_TEST_KILLS is the number of writers that the Long tests kill (200 by default).
#include "common/record.h"
#include "support/support.h"
#include "zoltlog.h"

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
};

uint64_t killsOfTest() {
    const char *kills = getenv("QDUL_TEST_KILLS");
    return kills != nullptr ? strtoull(kills, nullptr, 10) : 200;
}

void configure() {
    char *here = get_current_dir_name();
    const std::string home = std::string(here) + "/";
    free(here);
    std::string text;
    for (const std::string section : {"Default", "LOGSET.Default"})
        text += section + ".LogDirectory=" + home + "logs/\n" + section + ".RolloverMode=FileSize\n" +
                section + ".MaxLogFileSizeKB=4096\n";
    support::writeFile("main.conf", "5.Configuration=" + home + "p5.conf\n5.Names=web\n");
    support::writeFile("p5.conf", text + "LOGSET.nightly.FileName=night\n");
    support::makeDirectory("logs");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1); // read once per process: right in each case's directory
}

// Sends numbered messages of all lengths up to the longest until it is killed or told.
[[noreturn]] void sendForEver(bool logset, int writer, size_t longest, Shared *memory) {
    std::mt19937 chance(static_cast<unsigned>(getpid())); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    const std::string filling(longest, 'x');
    LogHandle log;
    const uint32_t opened = logset ? zoltLogOpenLogSet(PRODUCT, ORIGINATOR, "nightly", &log)
                                   : zoltLogOpen(PRODUCT, ORIGINATOR, &log);
    if (opened != ZOLTLOG_OK)
        ++memory->refused;
    for (int number = 0; !memory->stop; ++number) {
        const auto length = static_cast<int>(chance() % longest);
        const uint64_t id = static_cast<uint64_t>(writer) * MOST_MESSAGES + static_cast<uint64_t>(number);
        if (zoltLogAppMsg2(&log, id, 0, 1, 0, "w%d %d %.*s", writer, number, length, filling.c_str()) ==
            ZOLTLOG_OK)
            memory->accepted[writer] = number + 1;
        else
            ++memory->refused;
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

void runBatch(bool logset, size_t longest, int kills, std::mt19937 &chance, Totals *totals) {
    for (const std::string &name : support::listFiles("logs"))
        unlink(("logs/" + name).c_str());
    auto *memory = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto start = [&](int writer) {
        const pid_t child = fork();
        if (child == 0)
            sendForEver(logset, writer, writer == SURVIVOR ? 100 : longest, memory);
        return child;
    };
    const pid_t survivor = start(SURVIVOR);
    std::vector<std::pair<int, pid_t>> living;
    for (int writer = 0; writer < kills + AT_ONCE; ++writer) {
        if (writer < kills)
            living.emplace_back(writer, start(writer));
        if (living.size() == AT_ONCE || writer >= kills) {
            if (living.empty())
                break;
            killOne(memory->accepted[living.front().first], living.front().second, chance);
            living.erase(living.begin());
        }
    }
    memory->stop = true;
    int status = -1;
    EXPECT_EQ(waitpid(survivor, &status, 0), survivor);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(memory->refused, 0);

    Reading reading;
    for (const std::string &name : support::listFiles("logs"))
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

void runKills(bool logset, size_t longest, uint64_t kills) {
    std::mt19937 chance(20240301); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    configure();
    Totals totals;
    uint64_t killed = 0;
    for (; killed < kills && !testing::Test::HasFailure(); killed += PER_BATCH)
        runBatch(logset, longest, static_cast<int>(std::min<uint64_t>(PER_BATCH, kills - killed)), chance,
                 &totals);
    printf("%lu kills, %zu records read, each once, %d broken lines, %d of them empty\n",
           std::min(killed, kills), totals.records, totals.broken, totals.empty);
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
