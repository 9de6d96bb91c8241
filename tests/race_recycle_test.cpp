// SPDX-License-Identifier: Apache-2.0
// Recycling beside other writers of a series: what a call accepted is in a file that has
// its name, in other processes and through other handles of the same one.
//
// The Long tests last QDUL_TEST_SECONDS for each setting (2 by default).
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t PRODUCT = 5;
constexpr uint64_t ORIGINATOR = 7;

const char TAG[] = "zoltLogMsg()";

int64_t nowUs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int64_t secondsOfTest() {
    const char *seconds = getenv("QDUL_TEST_SECONDS");
    return seconds != nullptr ? atoll(seconds) : 2;
}

void configure(const std::string &settings) {
    char *here = get_current_dir_name();
    const std::string home = std::string(here) + "/";
    free(here);
    std::string text;
    for (const std::string section : {"Default", "LOGSET.Default"})
        for (const std::string &line : support::lines("LogDirectory=" + home + "logs/\n" + settings))
            text += section + "." + line + "\n";
    support::writeFile("main.conf", "5.Configuration=" + home + "p5.conf\n5.Names=web\n");
    support::writeFile("p5.conf", text + "LOGSET.nightly.FileName=night\n");
    support::makeDirectory("logs");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1); // read once per process: right in each case's directory
}

void configureRecycling(unsigned keep) {
    configure("RolloverMode=FileSize\nMaxLogFileSizeKB=64\nLogRecycle=true\nNumberOfLogFiles=" +
              std::to_string(keep) + "\n");
}

uint32_t openHandle(bool logset, LogHandle *handle) {
    return logset ? zoltLogOpenLogSet(PRODUCT, ORIGINATOR, "nightly", handle)
                  : zoltLogOpen(PRODUCT, ORIGINATOR, handle);
}

// What a sender did; in memory that processes share.
struct Sent {
    std::atomic<int> accepted; // messages 0 to accepted - 1 returned 0
    std::atomic<int> refused;
    std::atomic<int> gone; // the file had no name any more when the call had returned 0
    std::atomic<int64_t> longestUs;
};

template<typename Record>
Record *shared(size_t count = 1) {
    void *memory =
        mmap(nullptr, sizeof(Record) * count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? static_cast<Record *>(memory) : nullptr;
}

// Sends numbered messages until the time is up, pauseUs apart.
void sendUntil(LogHandle *log, const char *name, int64_t endUs, int64_t pauseUs, Sent *sent) {
    for (int number = 0; nowUs() < endUs; ++number) {
        const int64_t begin = nowUs();
        if (zoltLogAppMsg2(log, 1, 0, 1, 0, "%s %d %060d", name, number, 0) != ZOLTLOG_OK) {
            ++sent->refused;
            continue;
        }
        struct stat status;
        zoltLockCommon(TAG);
        if (fstat(log->file->file.descriptor, &status) != 0 || status.st_nlink == 0)
            ++sent->gone;
        zoltUnlockCommon(TAG);
        const int64_t took = nowUs() - begin;
        if (took > sent->longestUs)
            sent->longestUs = took;
        sent->accepted = number + 1;
        if (pauseUs > 0)
            usleep(static_cast<useconds_t>(pauseUs));
    }
}

// The names that appear in the directory, each as often as it does.
class Watch {
  public:
    Watch() : notify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        inotify_add_watch(notify, "logs", IN_CREATE | IN_MOVED_TO);
        watcher = std::thread([this] { run(); });
    }
    ~Watch() { close(notify); }
    std::map<std::string, int> stop() {
        stopping = true;
        watcher.join();
        return made;
    }
    size_t mostFiles = 0; // that were there at once

  private:
    void run() {
        for (bool last = false; !last;) {
            last = stopping;
            pollfd ready = {notify, POLLIN, 0};
            (void)poll(&ready, 1, 5);
            alignas(inotify_event) char buffer[65536];
            for (ssize_t length; (length = read(notify, buffer, sizeof buffer)) > 0;) {
                for (char *at = buffer; at < buffer + length;) {
                    const auto *event = reinterpret_cast<inotify_event *>(at);
                    const std::string name = event->name;
                    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0)
                        ++made[name];
                    at += sizeof *event + event->len;
                }
            }
            size_t files = 0;
            for (const std::string &name : support::listFiles("logs"))
                files += name.compare(name.size() - 4, 4, ".log") == 0 ? 1 : 0;
            mostFiles = std::max(mostFiles, files);
        }
    }

    const int notify;
    std::atomic<bool> stopping{false};
    std::map<std::string, int> made;
    std::thread watcher;
};

// The numbers of a sender's messages that are in the files, in their order.
std::vector<int> found(const char *name) {
    std::vector<int> numbers;
    const std::string start = std::string(":") + name + " ";
    for (const std::string &file : support::listFiles("logs")) {
        const std::vector<std::string> all = support::lines(support::readFile("logs/" + file));
        EXPECT_FALSE(all.empty()) << file;
        for (size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(all[i].compare(0, 8, "$Header ") == 0, i == 0) << file << ": " << all[i];
            const size_t at = all[i].find(start);
            if (at != std::string::npos)
                numbers.push_back(atoi(all[i].c_str() + at + start.size()));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// Files are removed oldest first: what is left of a sender are the messages of its end. A
// file that another held is older than others that are gone: gaps says whether it may have
// messages of this sender.
void expectTail(const char *name, const Sent &sent, bool gaps, const std::string &setting) {
    if (sent.accepted == 0)
        return;
    const std::vector<int> numbers = found(name);
    ASSERT_FALSE(numbers.empty()) << setting << " " << name;
    EXPECT_EQ(numbers.back(), sent.accepted - 1) << setting << " " << name;
    for (size_t i = 1; i < numbers.size() && !gaps; ++i)
        ASSERT_EQ(numbers[i], numbers[i - 1] + 1) << setting << " " << name;
}

void removeFiles() {
    if (support::exists("logs"))
        for (const std::string &name : support::listFiles("logs"))
            unlink(("logs/" + name).c_str());
}

// The messages of both senders that qdlogview shows: each once.
void expectEachShownOnce(const std::string &setting) {
    const support::Finished shown = support::run(
        {support::buildDirectory() + "/bin/qdlogview", "-o", "template", "--template", "{text}", "logs"});
    EXPECT_EQ(shown.status, 0) << setting << "\n" << shown.err;
    std::set<std::string> texts;
    for (const std::string &line : support::lines(shown.out))
        EXPECT_TRUE(texts.insert(line).second) << setting << ": twice: " << line;
    EXPECT_EQ(texts.size(), found("busy").size() + found("quiet").size()) << setting;
}

enum class Beside { PROCESS, LogsetProcess, LogsetHandle };

// Whoever finds a file of a log set full within the second of its name waits for the next
// second, and with it the other handles of its process. This busy sender takes about a second
// to fill a file, so that there is little to wait for and the quiet one has its turns.
constexpr int64_t PAUSE_ON_A_LOG_SET_US = 1500;

// Of the messages that the quiet sender's pause leaves room for, these are sent on any machine.
constexpr int64_t QUIET_SHARE = 50;

// A busy and a quiet sender at the same time, with recycling.
void runBeside(Beside beside, unsigned keep, int64_t pauseUs, int64_t seconds) {
    const std::string setting = "keep " + std::to_string(keep) + ", pause " + std::to_string(pauseUs) + " us";
    removeFiles();
    configureRecycling(keep);
    const bool logset = beside != Beside::PROCESS;
    auto *sent = shared<Sent>(2);
    ASSERT_NE(sent, nullptr);
    auto &busyIsDone = *shared<std::atomic<bool>>();
    Sent &busy = sent[0];
    Sent &quiet = sent[1];
    Watch watch;
    const int64_t end = nowUs() + seconds * 1000000;
    // The quiet one goes on a little: when it has closed its file that may be recycled.
    const auto sendQuietly = [&] {
        LogHandle log;
        if (openHandle(logset, &log) != 0)
            ++quiet.refused;
        sendUntil(&log, "quiet", end + 100000, pauseUs, &quiet);
        while (!busyIsDone)
            usleep(1000);
        zoltLogClose(&log);
    };
    pid_t child = 0;
    std::thread other;
    if (beside == Beside::LogsetHandle) {
        other = std::thread(sendQuietly);
    } else if ((child = fork()) == 0) {
        sendQuietly();
        _exit(0);
    }
    LogHandle log;
    EXPECT_RESULT(ZOLTLOG_OK, openHandle(logset, &log));
    sendUntil(&log, "busy", end, logset ? PAUSE_ON_A_LOG_SET_US : 0, &busy);
    busyIsDone = true;
    if (other.joinable())
        other.join();
    int status = 0;
    if (child > 0) {
        EXPECT_EQ(waitpid(child, &status, 0), child);
    }
    EXPECT_EQ(status, 0);
    zoltLogClose(&log);
    const std::map<std::string, int> made = watch.stop();

    EXPECT_GE(quiet.accepted, 1 + seconds * 1000000 / pauseUs / QUIET_SHARE) << setting;
    EXPECT_EQ(busy.refused + quiet.refused, 0) << setting;
    EXPECT_EQ(busy.gone, 0) << setting;
    EXPECT_EQ(quiet.gone, 0) << setting << " of " << quiet.accepted;
    expectTail("busy", busy, true, setting);
    expectTail("quiet", quiet, false, setting);
    expectEachShownOnce(setting);
    for (const auto &name : made)
        EXPECT_EQ(name.second, 1) << setting << ": made more than once: " << name.first;
    // A file more while the next one is there and the oldest not yet gone, and one for each
    // of the two that lags.
    EXPECT_LE(watch.mostFiles, keep + 3) << setting;
    EXPECT_LE(support::listFiles("logs").size(), keep + 2) << setting;
    const support::Finished verified = support::run({support::buildDirectory() + "/bin/qdlogmgr", "verify"});
    EXPECT_EQ(verified.status, 0) << setting << "\n" << verified.out << verified.err;
    printf("%s: %d busy and %d quiet messages, %zu files made\n", setting.c_str(), busy.accepted.load(),
           quiet.accepted.load(), made.size());
    munmap(sent, 2 * sizeof(Sent));
}

void runAllSettings(Beside beside) {
    for (const unsigned keep : {1u, 2u, 3u, 5u})
        for (const int64_t pause : {500, 10000, 1000000})
            runBeside(beside, keep, pause, secondsOfTest());
}

} // namespace

TEST(RecycleRace, QuietProcessBesideABusyOneLosesNothing) {
    runBeside(Beside::PROCESS, 2, 500, 1);
}

TEST(RecycleRace, ProcessThatKeepsOneFileLosesNothingOfAnother) {
    runBeside(Beside::PROCESS, 1, 10000, 1);
}

TEST(RecycleRace, QuietLogSetHandleBesideABusyOneLosesNothing) {
    runBeside(Beside::LogsetHandle, 1, 500, 3);
}

TEST(LongRecycleRace, TwoProcesses) {
    runAllSettings(Beside::PROCESS);
}

TEST(LongRecycleRace, TwoProcessesOfALogSet) {
    runAllSettings(Beside::LogsetProcess);
}

TEST(LongRecycleRace, TwoHandlesOfALogSetInOneProcess) {
    runAllSettings(Beside::LogsetHandle);
}

// ---- timed rollover --------------------------------------------------------------------

namespace {

int secondOfDay(const std::string &name) { // of a log set's file
    const std::string digits = name.substr(name.size() - 10, 6);
    return atoi(digits.substr(0, 2).c_str()) * 3600 + atoi(digits.substr(2, 2).c_str()) * 60 +
           atoi(digits.substr(4, 2).c_str());
}

// Several processes on one log set with timed rollover share their files.
void runTimed(int processes, int period, int64_t seconds, int64_t longestUs) {
    setenv("TZ", "UTC", 1);
    removeFiles();
    configure("RolloverMode=Periodic\nRolloverPeriodInSeconds=" + std::to_string(period) + "\n");
    auto *sent = shared<Sent>(static_cast<size_t>(processes));
    ASSERT_NE(sent, nullptr);
    const int64_t end = nowUs() + seconds * 1000000;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            LogHandle log;
            const std::string name = "p" + std::to_string(i);
            if (openHandle(true, &log) != 0)
                _exit(1);
            sendUntil(&log, name.c_str(), end, 3000, &sent[i]);
            zoltLogClose(&log);
            _exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    const std::vector<std::string> names = support::listFiles("logs");
    for (size_t i = 1; i < names.size(); ++i)
        EXPECT_EQ((secondOfDay(names[i]) - secondOfDay(names[i - 1]) + 86400) % 86400, period)
            << names[i - 1] << " " << names[i];
    EXPECT_GE(static_cast<int64_t>(names.size()), seconds / period);
    int messages = 0;
    int64_t longest = 0;
    for (int i = 0; i < processes; ++i) {
        const std::string name = "p" + std::to_string(i);
        messages += sent[i].accepted;
        longest = std::max(longest, sent[i].longestUs.load());
        EXPECT_EQ(sent[i].refused, 0);
        EXPECT_EQ(static_cast<int>(found(name.c_str()).size()), sent[i].accepted.load()) << name;
        EXPECT_LE(sent[i].longestUs, longestUs);
    }
    printf("%zu files, %d messages, the longest call %.1f ms\n", names.size(), messages,
           static_cast<double>(longest) / 1000);
    munmap(sent, sizeof(Sent) * static_cast<size_t>(processes));
}

} // namespace

TEST(RecycleRace, ProcessesWithTimedRolloverShareTheFilesOfALogSet) {
    runTimed(4, 1, 3, INT64_MAX);
}

TEST(LongRecycleRace, EightProcessesWithTimedRolloverOnOneLogSet) {
    runTimed(8, 2, secondsOfTest() * 4, 100000);
}
