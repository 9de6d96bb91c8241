// SPDX-License-Identifier: Apache-2.0
// Log recycling, through the writer: what a directory holds after each rollover.
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int64_t shiftOfClock;       // seconds
int64_t shiftOfAllClocks;   // seconds; time goes on
int64_t shiftOfWallClock;   // seconds; of CLOCK_REALTIME alone
std::string cannotBeOpened; // file name, from its directory
int errorOfOpening;
std::string cannotBeRemoved; // file name

timespec shiftedNow() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += shiftOfClock;
    return now;
}

const bool PREPARED = support::eachCase([] {
    shiftOfClock = shiftOfAllClocks = shiftOfWallClock = 0;
    cannotBeOpened.clear();
    cannotBeRemoved.clear();
    libc::time.hook = [](time_t *out) {
        const time_t shifted = shiftedNow().tv_sec;
        if (out != nullptr)
            *out = shifted;
        return shifted;
    };
    libc::gettimeofday.hook = [](timeval *out, void *) {
        const timespec now = shiftedNow();
        *out = {now.tv_sec, now.tv_nsec / 1000};
        return 0;
    };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        const int result = libc::clock_gettime.real(clock, out);
        out->tv_sec += shiftOfAllClocks + (clock == CLOCK_REALTIME ? shiftOfWallClock : 0);
        return result;
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        if (cannotBeOpened != path)
            return libc::openat.real(directory, path, flags, mode);
        errno = errorOfOpening;
        return -1;
    };
    libc::remove.hook = [](const char *path) {
        const char *name = strrchr(path, '/');
        if (name == nullptr || cannotBeRemoved != name + 1)
            return libc::remove.real(path);
        errno = EACCES;
        return -1;
    };
});

} // namespace

namespace {

using Names = std::vector<std::string>;

class Recycling : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        char *here = get_current_dir_name();
        home = std::string(here) + "/";
        free(here);
        support::makeDirectory("logs");
        setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
        support::writeFile("main.conf", "5.Configuration=" + home + "p5.conf\n5.Names=web\n");
        configure("true", "3");
    }
    void configure(const std::string &recycle, const std::string &keep) {
        std::string text;
        for (const std::string section : {"Default", "LOGSET.Default"})
            text += section + ".LogDirectory=" + home + "logs/\n" + section + ".RolloverMode=FileSize\n" +
                    section + ".MaxLogFileSizeKB=1\n" + section + ".LogRecycle=" + recycle + "\n" +
                    (keep.empty() ? "" : section + ".NumberOfLogFiles=" + keep + "\n");
        text += "LOGSET.nightly.FileName=night\n";
        support::writeFile("p5.conf", text);
    }
    // Writes a message that fills a file, so that each one begins a new file.
    static uint32_t fill(LogHandle *log, int number) {
        const std::string text(1100, static_cast<char>('a' + number % 26));
        return zoltLogAppMsg2(log, static_cast<uint64_t>(number), 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s",
                              text.c_str());
    }
    Names logs() { return support::listFiles("logs"); }
    static uint64_t counterOf(const std::string &name) {
        return strtoull(name.c_str() + name.rfind('-') + 1, nullptr, 10);
    }
    std::string home;
};

} // namespace

TEST_F(Recycling, FourthFileRemovesTheFirst) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    ASSERT_EQ(logs().size(), 1u);
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 1)); // the empty first file is rolled at once
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 2));
    ASSERT_EQ(logs().size(), 3u);
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 3));
    const Names names = logs();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(counterOf(names[0]), 1u);
    EXPECT_EQ(counterOf(names[1]), 2u);
    EXPECT_EQ(counterOf(names[2]), 3u);
    zoltLogClose(&log);
}

TEST_F(Recycling, FiftyRolloversWithinSecondsKeepTheNewestThreeEachTime) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 50; ++i) {
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
        const Names names = logs();
        ASSERT_EQ(names.size(), static_cast<size_t>(std::min(i + 1, 3)));
        ASSERT_EQ(counterOf(names.back()), static_cast<uint64_t>(i));
        ASSERT_NE(support::readFile("logs/" + names.back())
                      .find(std::string(1100, static_cast<char>('a' + i % 26))),
                  std::string::npos);
    }
    zoltLogClose(&log);
}

TEST_F(Recycling, OffRemovesNothing) {
    configure("false", "3");
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 10; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(logs().size(), 11u);
    zoltLogClose(&log);
}

TEST_F(Recycling, WithoutANumberAllFilesAreKept) {
    configure("true", "");
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 10; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(logs().size(), 11u);
    zoltLogClose(&log);
}

TEST_F(Recycling, NumberIsReadAtEachRollover) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 5; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(logs().size(), 3u);
    configure("true", "6");
    for (int i = 6; i <= 12; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(logs().size(), 6u);
    configure("true", "1");
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 13));
    EXPECT_EQ(logs().size(), 1u);
    EXPECT_EQ(counterOf(logs()[0]), 13u);
    zoltLogClose(&log);
}

TEST_F(Recycling, AFileThatCannotBeRemovedIsLeftAndTheMessageIsWritten) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    const std::string first = logs()[0];
    cannotBeRemoved = first;
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 1));
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 2));
    const std::string told = support::captured(1, [&] { EXPECT_RESULT(ZOLTLOG_OK, fill(&log, 3)); });
    EXPECT_EQ(told, home + "logs/" + first + " File Deletion failed\n");
    EXPECT_EQ(logs().size(), 4u);
    EXPECT_EQ(logs()[0], first);
    EXPECT_NE(support::readFile("logs/" + logs().back()).find(std::string(1100, 'd')), std::string::npos);
    // The others go on being removed.
    support::captured(1, [&] { EXPECT_RESULT(ZOLTLOG_OK, fill(&log, 4)); });
    EXPECT_EQ(logs().size(), 4u);
    EXPECT_EQ(logs()[0], first);
    EXPECT_EQ(counterOf(logs()[1]), 2u);
    cannotBeRemoved.clear();
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 5));
    EXPECT_EQ(logs().size(), 3u);
    zoltLogClose(&log);
}

TEST_F(Recycling, WhatANeighbourRemovedMeanwhileIsNotTold) {
    LogHandle log;
    ASSERT_EQ(zoltLogOpen(5, 7, &log), 0u);
    const std::string first = logs()[0];
    ASSERT_EQ(rename(("logs/" + first).c_str(), "elsewhere"), 0);
    ASSERT_EQ(symlink("../elsewhere", ("logs/" + first).c_str()), 0); // a link goes in another way
    libc::remove.hook = [](const char *path) {
        unlink(path);
        return libc::remove.real(path);
    };
    const std::string told = support::captured(1, [&] {
        for (int i = 1; i <= 6; ++i)
            EXPECT_EQ(fill(&log, i), 0u);
    });
    EXPECT_EQ(told, "");
    const Names left = logs();
    EXPECT_EQ(left.size(), 3u);
    EXPECT_EQ(std::count(left.begin(), left.end(), first), 0);
    EXPECT_TRUE(support::exists("elsewhere"));
    zoltLogClose(&log);
}

// Links go without a look at who writes, so that two processes that roll over at one moment
// remove the same ones.
TEST_F(Recycling, TwoProcessesTellNothingOfWhatTheOtherRemoved) {
    constexpr int LINKS = 500;
    support::writeFile("elsewhere", "$Header 65543,5,7,1000,0,h\n");
    for (int i = 0; i < LINKS; ++i) {
        char name[64];
        snprintf(name, sizeof name, "logs/5-7-1-200101-%010d.log", i);
        ASSERT_EQ(symlink("../elsewhere", name), 0);
    }
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    int ended[2] = {-1, -1};
    const std::string told = support::captured(1, [&] {
        pid_t writers[2];
        for (pid_t &writer : writers) {
            writer = fork();
            if (writer != 0)
                continue;
            close(gate[1]);
            libc::remove.hook = [](const char *path) { // slow, so that the other one is there, too
                usleep(100);
                return libc::remove.real(path);
            };
            LogHandle log;
            bool written = zoltLogOpen(5, 7, &log) == 0;
            char opened;
            written = read(gate[0], &opened, 1) == 0 && written; // both begin when it is closed
            written = written && fill(&log, 1) == 0;
            zoltLogClose(&log);
            fflush(stdout);
            _exit(written ? 0 : 1);
        }
        usleep(20000); // for both to wait; otherwise they meet less often
        close(gate[0]);
        close(gate[1]);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(waitpid(writers[i], &ended[i], 0), writers[i]);
    });
    EXPECT_EQ(ended[0], 0);
    EXPECT_EQ(ended[1], 0);
    EXPECT_EQ(told, "");
    EXPECT_LE(logs().size(), 5u);
    EXPECT_TRUE(support::exists("elsewhere"));
}

TEST_F(Recycling, OtherSeriesAndOtherFilesAreLeftAlone) {
    const Names others = {"5-8-1-200101-0000000000.log", "6-7-1-200101-0000000000.log",
                          "5-night-200101000000.log", "notes-1.log", "5-7.txt"};
    for (const std::string &name : others)
        support::writeFile("logs/" + name, "$Header 65543,5,8,1,0,hostA\n");
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 10; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    const Names names = logs();
    EXPECT_EQ(names.size(), 3 + others.size());
    for (const std::string &name : others)
        EXPECT_TRUE(support::exists("logs/" + name)) << name;
    zoltLogClose(&log);
}

TEST_F(Recycling, FilesOfOtherHostsInTheDirectoryCountAndMayBeRemoved) {
    support::writeFile("logs/5-7-42-200101-0000000000.log", "$Header 65543,5,7,1577836800,0,elsewhere\n");
    support::writeFile("logs/5-7-42-990101-0000000000.log", "$Header 65543,5,7,4070908800,0,elsewhere\n");
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 1));
    EXPECT_FALSE(support::exists("logs/5-7-42-200101-0000000000.log"));
    EXPECT_TRUE(support::exists("logs/5-7-42-990101-0000000000.log"));
    EXPECT_EQ(logs().size(), 3u);
    zoltLogClose(&log);
}

TEST_F(Recycling, AClockSetBackNeverCostsTheFileBeingWritten) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    for (int i = 1; i <= 4; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    shiftOfClock = -5 * 86400;
    for (int i = 5; i <= 8; ++i) {
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
        std::string all;
        for (const std::string &name : logs())
            all += support::readFile("logs/" + name);
        ASSERT_NE(all.find(std::string(1100, static_cast<char>('a' + i))), std::string::npos) << i;
    }
    zoltLogClose(&log);
}

TEST_F(Recycling, LeavesNoDescriptorBehind) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 1));
    const size_t before = support::openDescriptors();
    for (int i = 2; i <= 20; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(support::openDescriptors(), before);
    zoltLogClose(&log);
}

TEST_F(Recycling, AConfigurationThatVanishedCostsNothing) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    unlink("main.conf");
    for (int i = 1; i <= 6; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    EXPECT_EQ(logs().size(), 7u);
    zoltLogClose(&log);
}

TEST_F(Recycling, LogSetKeepsItsNumber) {
    LogHandle log;
    // Files of earlier days, one with an empty body.
    for (const char *time : {"200101000000", "200102000000", "200103000000"})
        support::writeFile(std::string("logs/5-night-") + time + ".log", "$Header 65544,0,hostA\n");
    support::writeFile("logs/5-nightly-200101000000.log", "$Header 65544,0,hostA\n"); // another set's
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "nightly", &log));
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 1));
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 2));
    Names names = logs();
    EXPECT_EQ(names.size(), 4u);
    EXPECT_FALSE(support::exists("logs/5-night-200101000000.log"));
    EXPECT_TRUE(support::exists("logs/5-nightly-200101000000.log"));
    std::string newest;
    for (const std::string &name : names)
        if (name.compare(0, 8, "5-night-") == 0)
            newest = name;
    EXPECT_NE(support::readFile("logs/" + newest).find(std::string(1100, 'c')), std::string::npos);
    zoltLogClose(&log);
}

TEST_F(Recycling, TwoProcessesLoseNothingOutsideRemovedFiles) {
    configure("true", "3");
    constexpr int MESSAGES = 400;
    const pid_t other = fork();
    ASSERT_NE(other, -1);
    const int mine = other == 0 ? 1 : 0;
    LogHandle log;
    bool written = zoltLogOpen(5, 7, &log) == 0;
    for (int i = 0; i < MESSAGES && written; ++i)
        written = zoltLogAppMsg2(&log, static_cast<uint64_t>(i), 0, ZOLTLOG_SEVERITY_WARNING, 0,
                                 "writer %d %0300d", mine, i) == 0;
    if (other == 0) {
        zoltLogClose(&log);
        _exit(written ? 0 : 1);
    }
    EXPECT_TRUE(written);
    int status = 0;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    zoltLogClose(&log);

    // Both wrote their last messages into files that are there.
    std::vector<int> seen[2];
    for (const std::string &name : logs()) {
        const Names lines = support::lines(support::readFile("logs/" + name));
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0].compare(0, 14, "$Header 65543,"), 0);
        for (size_t i = 1; i < lines.size(); ++i) {
            const size_t at = lines[i].find("writer ");
            ASSERT_NE(at, std::string::npos) << lines[i];
            seen[lines[i][at + 7] - '0'].push_back(atoi(lines[i].c_str() + at + 9 + 290));
        }
    }
    // One of the two closed its file first, which may have been removed since.
    const auto isComplete = [](std::vector<int> &numbers) {
        std::sort(numbers.begin(), numbers.end());
        return !numbers.empty() && numbers.back() == MESSAGES - 1;
    };
    EXPECT_TRUE(isComplete(seen[0]) || isComplete(seen[1]));
    EXPECT_LE(logs().size(), 5u); // one file more for each that lags
}

// ---- files that are not certainly surplus ------------------------------------------------

TEST_F(Recycling, AFileThatCannotBeOpenedIsNotTakenForTheOldest) {
    for (const int error : {EIO, EACCES, ESTALE, ELOOP, ENOSPC}) {
        LogHandle log;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
        for (int i = 1; i <= 3; ++i)
            ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
        const std::string newestClosed = logs()[1];
        cannotBeOpened = newestClosed;
        errorOfOpening = error;
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 4));
        cannotBeOpened.clear();
        EXPECT_TRUE(support::exists("logs/" + newestClosed)) << strerror(error);
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 5));
        EXPECT_EQ(logs().size(), 3u);
        zoltLogClose(&log);
        for (const std::string &name : logs())
            unlink(("logs/" + name).c_str());
    }
}

// A writer that holds a file, as one of another process does.
class Holder {
  public:
    explicit Holder(const std::string &path)
        : descriptor(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)) {
        EXPECT_EQ(flock(descriptor, LOCK_SH | LOCK_NB), 0);
    }
    ~Holder() { close(descriptor); }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;
    void write() { EXPECT_EQ(::write(descriptor, "x\n", 2), 2); }

  private:
    const int descriptor;
};

TEST_F(Recycling, AFileThatAnotherWriterHoldsStaysUntilNothingWasWrittenToItForTwoSeconds) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    const std::string first = "logs/" + logs()[0];
    {
        Holder holder(first);
        holder.write();
        for (int i = 1; i <= 8; ++i)
            ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
        EXPECT_TRUE(support::exists(first));
        EXPECT_EQ(logs().size(), 4u) << "one more than kept";
        shiftOfAllClocks += 3;
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 9));
        EXPECT_FALSE(support::exists(first));
        EXPECT_EQ(logs().size(), 3u);
    }
    zoltLogClose(&log);
}

TEST_F(Recycling, AFileThatItsWriterLeftGoesAtOnce) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    const std::string first = "logs/" + logs()[0];
    {
        Holder holder(first);
        for (int i = 1; i <= 8; ++i)
            ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
        EXPECT_TRUE(support::exists(first));
    }
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 9));
    EXPECT_FALSE(support::exists(first));
    zoltLogClose(&log);
}

TEST_F(Recycling, AClockThatWasSetForwardDoesNotMakeFilesLookIdle) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &log));
    const std::string first = "logs/" + logs()[0];
    Holder holder(first);
    holder.write();
    for (int i = 1; i <= 4; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, fill(&log, i));
    shiftOfWallClock = 3600;
    ASSERT_RESULT(ZOLTLOG_OK, fill(&log, 5));
    EXPECT_TRUE(support::exists(first));
    zoltLogClose(&log);
}

TEST_F(Recycling, TheReopenOfALogSetKeepsItsNumber) {
    LogHandle log;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "nightly", &log));
    for (int i = 1; i <= 10; ++i) {
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogAppMsg2(&log, 1, 0, 1, 0, "quiet"));
        shiftOfClock += 601;
    }
    EXPECT_EQ(logs().size(), 3u);
    zoltLogClose(&log);
}
