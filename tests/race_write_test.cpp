// SPDX-License-Identifier: Apache-2.0
// Several processes and threads write one series at the same time.
#include "support/results.h"
#include "write_series.h"

#include <atomic>
#include <fcntl.h>
#include <map>
#include <pthread.h>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace series;

namespace {

bool withoutUnnamed; // as on a file system that has no unnamed files
std::atomic<int> sizeQuestions;

const bool HOOKED = support::eachCase([] {
    withoutUnnamed = false;
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        if (withoutUnnamed && (flags & O_TMPFILE) == O_TMPFILE) {
            errno = EOPNOTSUPP;
            return -1;
        }
        return libc::open.real(path, flags, mode);
    };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        ++sizeQuestions;
        return libc::fstat.real(descriptor, status);
    };
});

const size_t LONGEST_RECORD = 120;

// Runs body in count processes at once; their exit statuses are 0.
void inProcesses(int count, const std::function<int(int)> &body) {
    std::vector<pid_t> children;
    for (int process = 0; process < count; ++process) {
        const pid_t child = fork();
        if (child == 0)
            _exit(body(process));
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

// Sends messages "process-thread-number" from several threads, the even ones through one
// common handle. 0 when all were written.
int sendAll(const LogCfg &cfg, int process, int threads, int messages) {
    LogHandle common;
    if (open(&common, cfg) != 0)
        return 1;
    std::atomic<int> failures{0};
    auto run = [&](int thread) {
        LogHandle own;
        if (thread % 2 != 0 && open(&own, cfg) != 0) {
            ++failures;
            return;
        }
        LogHandle *handle = thread % 2 != 0 ? &own : &common;
        for (int message = 0; message < messages; ++message)
            if (send(handle, std::to_string(process) + "-" + std::to_string(thread) + "-" +
                                 std::to_string(message)) != 0)
                ++failures;
        if (thread % 2 != 0 && zoltLogCloseFile(&own) != 0)
            ++failures;
    };
    std::vector<std::thread> running;
    for (int thread = 1; thread < threads; ++thread)
        running.emplace_back(run, thread);
    run(0);
    for (std::thread &thread : running)
        thread.join();
    if (zoltLogCloseFile(&common) != 0)
        ++failures;
    return failures == 0 ? 0 : 2;
}

// The text of a record of either version; "" when the line is none.
std::string anyTextOf(const std::string &line) {
    const size_t at = line.find(",0:,");
    if (at == std::string::npos || line.compare(0, 2, "2,") != 0)
        return "";
    return textOf("2,x" + line.substr(at));
}

// Every file has one header, first; every line parses; every message is there once, and
// those of one thread are in order.
void expectComplete(int processes, int threads, int messages, const std::string &header, size_t limit) {
    std::map<std::string, int> next;
    std::map<std::string, std::set<int>> seen;
    size_t found = 0;
    for (const std::string &name : logFiles()) {
        const std::string bytes = support::readFile("logs/" + name);
        ASSERT_FALSE(bytes.empty()) << name;
        EXPECT_EQ(bytes.back(), '\n') << name;
        EXPECT_LT(bytes.size(), limit) << name;
        const std::vector<std::string> all = support::lines(bytes);
        EXPECT_EQ(all[0].compare(0, header.size(), header), 0) << name << ": " << all[0];
        for (size_t line = 1; line < all.size(); ++line) {
            const std::string text = anyTextOf(all[line]);
            ASSERT_NE(text, "") << name << ": " << all[line];
            const size_t dash = text.rfind('-');
            const int number = atoi(text.c_str() + dash + 1);
            EXPECT_TRUE(seen[text.substr(0, dash)].insert(number).second) << "twice: " << text;
            ++found;
        }
    }
    EXPECT_EQ(found, static_cast<size_t>(processes) * static_cast<size_t>(threads * messages));
    EXPECT_EQ(seen.size(), static_cast<size_t>(processes * threads));
    for (const auto &sender : seen)
        EXPECT_EQ(sender.second.size(), static_cast<size_t>(messages)) << sender.first;
}

void expectConsecutiveCounters() {
    const Names files = logFiles();
    for (size_t file = 0; file < files.size(); ++file) {
        char expected[64];
        snprintf(expected, sizeof expected, "5-7-83886090-240301-%010zu.log", file);
        EXPECT_EQ(files[file], expected);
    }
}

LogCfg sized(LogCfg cfg, uint64_t kilobytes) {
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = kilobytes;
    return cfg;
}

void runOriginators(int processes, int threads, int messages) {
    setZone("UTC");
    setClock(localTime(2024, 3, 1, 10)); // the same day to the end
    inProcesses(processes,
                [&](int process) { return sendAll(sized(settings(), 16), process, threads, messages); });
    // Between its look at the size and its write each process can be overtaken by one
    // record of each other one, and so again after a rollover.
    const size_t limit = 16 * 1024 + 2 * LONGEST_RECORD * static_cast<size_t>(processes);
    expectComplete(processes, threads, messages, "$Header 65543,5,7,1709287200,0,hostA", limit);
    expectConsecutiveCounters();
    EXPECT_GT(logFiles().size(), static_cast<size_t>(processes * threads * messages) * 60 / 16384);
}

void runLogset(int processes, int threads, int messages, uint64_t kilobytes) {
    setZone("UTC");
    inProcesses(processes, [&](int process) {
        return sendAll(sized(logsetSettings(), kilobytes), process, threads, messages);
    });
    // Besides, each process that waited in vain for a name of its own writes one record.
    const size_t limit = kilobytes * 1024 + 4 * LONGEST_RECORD * static_cast<size_t>(processes);
    expectComplete(processes, threads, messages, "$Header 65544,0,hostA", limit);
}

// Two processes start a series at the same moment, again and again.
void runStarts(int rounds) {
    setZone("UTC");
    setClock(localTime(2024, 3, 1, 10));
    auto *barrier = static_cast<pthread_barrier_t *>(
        mmap(nullptr, sizeof(pthread_barrier_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_barrierattr_t shared;
    pthread_barrierattr_init(&shared);
    pthread_barrierattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    pthread_barrier_init(barrier, &shared, 2);
    for (int round = 0; round < rounds; ++round)
        support::makeDirectory("start" + std::to_string(round));
    inProcesses(2, [&](int process) {
        for (int round = 0; round < rounds; ++round) {
            LogCfg cfg = settings();
            snprintf(cfg.directory, sizeof cfg.directory, "./start%d/", round);
            LogHandle handle;
            pthread_barrier_wait(barrier);
            if (open(&handle, cfg) != 0 || send(&handle, "from " + std::to_string(process)) != 0 ||
                zoltLogCloseFile(&handle) != 0)
                return 1;
        }
        return 0;
    });
    pthread_barrier_destroy(barrier);
    munmap(barrier, sizeof *barrier);
    for (int round = 0; round < rounds; ++round) {
        const std::string dir = "start" + std::to_string(round);
        ASSERT_EQ(support::listFiles(dir), Names{"5-7-83886090-240301-0000000000.log"});
        const std::vector<std::string> found =
            support::lines(support::readFile(dir + "/5-7-83886090-240301-0000000000.log"));
        ASSERT_EQ(found.size(), 3u) << dir;
        ASSERT_EQ(found[0], "$Header 65543,5,7,1709287200,0,hostA");
        const std::set<std::string> texts{textOf(found[1]), textOf(found[2])};
        ASSERT_EQ(texts, (std::set<std::string>{"from 0", "from 1"}));
    }
}

} // namespace

TEST(WriteRace, EightProcessesOnOneSeriesLoseNothing) {
    runOriginators(8, 1, 10000);
}

TEST(WriteRace, EightProcessesOfFourThreadsLoseNothing) {
    runOriginators(8, 4, 1500);
}

TEST(WriteRace, FourProcessesOfFourThreadsOnALogsetLoseNothing) {
    runLogset(4, 4, 1500, 512);
}

TEST(WriteRace, SimultaneousStartsMakeOneHeader) {
    runStarts(200);
}

TEST(WriteRace, SimultaneousStartsMakeOneHeaderWithoutUnnamedFiles) {
    withoutUnnamed = true;
    runStarts(200);
}

TEST(LongWriteRace, EightProcessesOfFourThreadsTimesTenThousand) {
    runOriginators(8, 4, 10000);
}

TEST(LongWriteRace, EightProcessesOnALogsetWithATinyLimit) {
    runLogset(8, 1, 10000, 16);
}

TEST(LongWriteRace, EightProcessesOfFourThreadsOnALogset) {
    runLogset(8, 4, 10000, 1024);
}

TEST(LongWriteRace, TwoThousandSimultaneousStarts) {
    runStarts(2000);
}

TEST(LongWriteRace, TwoThousandSimultaneousStartsWithoutUnnamedFiles) {
    withoutUnnamed = true;
    runStarts(2000);
}

// ---- the size question -----------------------------------------------------------------------

TEST(WriteRace, SizeIsNotAskedWhileNobodyCouldHaveFilledTheFile) {
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, sized(settings(), uint64_t{1} << 40)));
    sizeQuestions = 0;
    for (int message = 0; message < 1000; ++message)
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_LE(sizeQuestions, 20) << "an answer serves for a second";
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST(WriteRace, SizeIsAskedAtEveryMessageThatCouldReachTheLimit) {
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, sized(settings(), 1000)));
    // With 1 MB of room the time of a few hundred microseconds is enough to fill it.
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "first"));
    sizeQuestions = 0;
    for (int message = 0; message < 50; ++message) {
        usleep(200);
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    }
    EXPECT_EQ(sizeQuestions, 50);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST(WriteRace, SizeIsAskedAnewAfterARolloverAndAReopen) {
    setZone("UTC");
    setClock(localTime(2024, 3, 1, 10));
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, sized(settings(), uint64_t{1} << 40)));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    sizeQuestions = 0;
    advance(601);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_GE(sizeQuestions, 1);
    sizeQuestions = 0;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "three"));
    EXPECT_EQ(sizeQuestions, 1);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

// ---- threads of one process --------------------------------------------------------------------

TEST(WriteRace, ThreadsOpenSendContextAndCloseAtOnce) {
    setZone("UTC");
    setClock(localTime(2024, 3, 1, 10));
    LogHandle common;
    ASSERT_RESULT(ZOLTLOG_OK, open(&common, sized(settings(), 4)));
    std::atomic<int> failures{0};
    auto run = [&](int thread) {
        for (int round = 0; round < 60; ++round) {
            LogHandle own;
            LogHandle context = {};
            if (open(&own, sized(settings(7 + static_cast<uint64_t>(thread % 3)), 4)) != 0)
                ++failures;
            zoltLogInitMsg(&context.contextMsg, &own, ZOLTLOG_MSG_CONTEXT, "about");
            zoltLogSetContextAttr(&context.contextMsg, "T");
            if (zoltLogCreateContextToFile(&own, &context, &context.contextMsg) != 0)
                ++failures;
            zoltLogSetDebugLevel(&common, static_cast<uint32_t>(round % 7));
            for (LogHandle *handle : {&common, &own, &context})
                if (send(handle, "message") != 0)
                    ++failures;
            uint64_t number = 0;
            zoltLogGetSequenceNumber(&common, &number);
            if (zoltLogCloseFile(&own) != 0 || zoltLogDestroyContext(&context) != 0)
                ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread)
        threads.emplace_back(run, thread);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(common.sequenceNumber, 361u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&common));
}
