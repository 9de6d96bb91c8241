// SPDX-License-Identifier: Apache-2.0
// Opening a series: the first file, resuming the latest, what is refused.
#include "support/results.h"
#include "write_series.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <ifaddrs.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace series;

// ---- hooks into the system calls ---------------------------------------------------------------

// Each runs once, before the next call of its kind on a log file.
std::function<void()> onNextAppend;   // opening for appending
std::function<void()> onNextCreation; // giving a new file its name
std::function<void()> onNextSleep;
std::function<void()> onNextWrite; // after it
bool withoutUnnamed;
bool withoutLinks;
bool withoutProc;
bool withoutRenames;    // that replace nothing
int failOpens;          // errno of every open
int64_t monotonicShift; // seconds
std::string interfaceAddress;

namespace {

void runOnce(std::function<void()> *hook) {
    std::function<void()> taken;
    taken.swap(*hook);
    if (taken)
        taken();
}

bool isLogFile(const char *path) {
    const size_t length = strlen(path);
    return length > 4 && strcmp(path + length - 4, ".log") == 0;
}

int listInterfaces(ifaddrs **list) {
    static sockaddr_in address;
    static ifaddrs entry;
    address = {};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, interfaceAddress.c_str(), &address.sin_addr);
    entry = {};
    entry.ifa_addr = reinterpret_cast<sockaddr *>(&address);
    *list = &entry;
    return 0;
}

int hookedOpen(const char *path, int flags, mode_t mode) {
    if (failOpens != 0) {
        errno = failOpens;
        return -1;
    }
    if ((flags & O_TMPFILE) == O_TMPFILE && withoutUnnamed) {
        errno = EOPNOTSUPP;
        return -1;
    }
    constexpr int LOOK = O_PATH | O_NOFOLLOW; // before a file that is there is opened
    if (isLogFile(path) && ((flags & O_APPEND) != 0 || (flags & LOOK) == LOOK))
        runOnce(&onNextAppend);
    return libc::open.real(path, flags, mode);
}

const bool HOOKED = support::eachCase([] {
    for (std::function<void()> *hook : {&onNextAppend, &onNextCreation, &onNextSleep, &onNextWrite})
        *hook = nullptr;
    withoutUnnamed = withoutLinks = withoutProc = withoutRenames = false;
    failOpens = 0;
    monotonicShift = 0;
    interfaceAddress = "192.0.2.1";
    libc::open.hook = hookedOpen;
    libc::linkat.hook = [](int fromDir, const char *from, int toDir, const char *to, int flags) {
        if (withoutProc) {
            errno = ENOENT;
            return -1;
        }
        runOnce(&onNextCreation);
        return libc::linkat.real(fromDir, from, toDir, to, flags);
    };
    libc::link.hook = [](const char *from, const char *to) {
        if (withoutLinks) {
            errno = EPERM;
            return -1;
        }
        runOnce(&onNextCreation);
        return libc::link.real(from, to);
    };
    libc::renameat2.hook = [](int fromDir, const char *from, int toDir, const char *to, unsigned flags) {
        if (withoutRenames) {
            errno = EINVAL;
            return -1;
        }
        runOnce(&onNextCreation);
        return libc::renameat2.real(fromDir, from, toDir, to, flags);
    };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        const int result = libc::clock_gettime.real(clock, out);
        if (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE)
            out->tv_sec += monotonicShift;
        return result;
    };
    libc::write.hook = [](int descriptor, const void *bytes, size_t length) {
        const ssize_t written = libc::write.real(descriptor, bytes, length);
        if (descriptor > 2)
            runOnce(&onNextWrite);
        return written;
    };
    libc::nanosleep.hook = [](const timespec *pause, timespec *rest) {
        runOnce(&onNextSleep);
        return libc::nanosleep.real(pause, rest);
    };
    libc::getifaddrs.hook = listInterfaces;
    libc::freeifaddrs.hook = [](ifaddrs *) {};
});

} // namespace

namespace {

const char FIRST[] = "5-7-83886090-240301-0000000000.log";
const char SECOND[] = "5-7-83886090-240301-0000000001.log";
const char THIRD[] = "5-7-83886090-240301-0000000002.log";

struct WriteFileOpen : testing::Test {
    WriteFileOpen() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 13, 45, 2));
    }
    ~WriteFileOpen() override {
        if (handle.file != nullptr) {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        }
    }
    std::string path(const char *name) const { return std::string("logs/") + name; }

    LogHandle handle = {};
};

mode_t modeOf(const std::string &path) {
    struct stat status = {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777;
}

} // namespace

TEST_F(WriteFileOpen, NullArgumentsAreInvalid) {
    LogCfg cfg = settings();
    LogHandle empty = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenFile(nullptr, &cfg, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenFile(&empty, nullptr, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenFile(&empty, &cfg, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogOpenFile(&empty, &cfg, &cfg)) << "no state to fill";
}

TEST_F(WriteFileOpen, EmptyDirectoryIs53AndCloseReleasesTheState) {
    LogCfg cfg = settings();
    cfg.directory[0] = '\0';
    EXPECT_RESULT(ZOLTLOG_NO_DIRECTORY, open(&handle, cfg));
    EXPECT_NE(handle.file, nullptr);
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogCloseFile(&handle)) << "on no list";
    EXPECT_EQ(handle.file, nullptr);
}

TEST_F(WriteFileOpen, FirstFileHasHeaderAndIsNamedByDateAndCounterZero) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300702,0,hostA\n");
    EXPECT_EQ(handle.file->headerVersion, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(handle.file->counter, 0);
    EXPECT_EQ(handle.file->fileStartTime, 1709300702);
    EXPECT_EQ(handle.file->lastReopenTime, 1709300702000);
    EXPECT_EQ(handle.file->date.year, 24);
    EXPECT_EQ(handle.file->date.month, 3);
    EXPECT_EQ(handle.file->date.day, 1);
    EXPECT_GT(handle.file->file.descriptor, 2);
}

TEST_F(WriteFileOpen, WorkedExampleComesOutByteForByte) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    LogMsg msg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "Disk full, 2 of 3"));
    msg.messageId = 12;
    msg.timestamp = 1700000000123;
    msg.processId = 4242;
    msg.threadId = 4243;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogWriteMsgWithRolloverToFile(handle.file, &msg));
    EXPECT_EQ(msg.recordVersion, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(msg.fileOriginatorId, 7u);
    zoltLogFreeMsg(&msg);
    EXPECT_EQ(support::readFile(path(FIRST)),
              "$Header 65543,5,7,1709300702,0,hostA\n"
              "2,5,7,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)\n");
}

TEST_F(WriteFileOpen, HandleIsFilledFromTheOriginatorsSettings) {
    LogCfg originator = settings(7);
    originator.debugLevel = 2;
    originator.diagLevel = 4;
    originator.secureAuditLevel = 6;
    originator.outputFlags = ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX;
    originator.reloadInterval = 90;
    LogCfg file = settings(9);
    file.debugLevel = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, originator, file));
    EXPECT_EQ(handle.debugLevel, 2u);
    EXPECT_EQ(handle.diagLevel, 4u);
    EXPECT_EQ(handle.secureAuditLevel, 0u);
    EXPECT_EQ(handle.outputFlags, uint32_t{ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX});
    EXPECT_EQ(handle.originatorId, 7u);
    EXPECT_EQ(handle.reloadInterval, 90u);
    EXPECT_EQ(handle.noContext, 1u);
    EXPECT_EQ(handle.sequenceNumber, 1u);
    EXPECT_EQ(handle.cfgTimestamp, 1709300702);
    EXPECT_EQ(handle.lastReloadCheck, 1709300702);
    EXPECT_EQ(handle.file->fileOriginatorId, 9u);
    EXPECT_EQ(handle.file->productId, 5u);
    EXPECT_EQ(handle.file->handles, &handle);
    EXPECT_EQ(logFiles(), Names{"5-9-83886090-240301-0000000000.log"});
}

TEST_F(WriteFileOpen, MissingDirectoriesAreMade) {
    LogCfg cfg = settings();
    support::makeDirectory("base");
    strcpy(cfg.directory, "./base/a/b/");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(support::listFiles("base/a/b"), Names{FIRST});
}

TEST_F(WriteFileOpen, DirectoryThatCannotBeMadeIs1) {
    LogCfg cfg = settings();
    support::writeFile("plain", "");
    strcpy(cfg.directory, "plain/logs/");
    EXPECT_RESULT(ZOLTLOG_FAILED, open(&handle, cfg));
}

TEST_F(WriteFileOpen, PermissionsAreExactUnderAnyUmask) {
    const mode_t modes[] = {0660, 0640, 0604, 0777};
    const mode_t masks[] = {0, 022, 077, 0777};
    uint64_t originator = 100;
    for (const mode_t mode : modes) {
        for (const mode_t mask : masks) {
            LogCfg cfg = settings(++originator);
            cfg.permissions.mode = mode;
            support::makeDirectory("logs");
            const mode_t old = umask(mask);
            EXPECT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
            EXPECT_EQ(umask(old), mask) << "the process's own umask is left alone";
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
            const std::string name =
                "logs/5-" + std::to_string(originator) + "-83886090-240301-0000000000.log";
            EXPECT_EQ(modeOf(name), mode) << mask;
        }
    }
}

TEST_F(WriteFileOpen, HostNameOrHostIdUnavailableIs1) {
    hostNameFails = true;
    EXPECT_RESULT(ZOLTLOG_FAILED, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{});
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    EXPECT_RESULT(ZOLTLOG_FAILED, open(&handle, logsetSettings()))
        << "its names have no host id, its headers a name";
    EXPECT_EQ(logFiles(), Names{});
    hostNameFails = false;
}

TEST_F(WriteFileOpen, NameServiceGoneGivesTheLoopbackHostId) {
    hostAddress = "";
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{"5-7-16777343-240301-0000000000.log"});
}

TEST_F(WriteFileOpen, LatestFileIsResumed) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709298000,0,hostA\n");
    support::writeFile(path(SECOND), "$Header 65543,5,7,1709300000,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->counter, 1);
    EXPECT_EQ(handle.file->fileStartTime, 1709300000);
    EXPECT_EQ(handle.file->lastReopenTime, 1709300000000);
    EXPECT_EQ(handle.file->date.day, 1);
    fakeMs = 1709300001000;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "resumed"));
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"resumed"});
    EXPECT_EQ(textsIn(path(FIRST)), Texts{});
    EXPECT_EQ(logFiles().size(), 2u);
}

TEST_F(WriteFileOpen, LargeIdsSurviveAResume) {
    hostAddress = "10.0.0.200"; // 0xC800000A, above 2^31
    LogCfg cfg = settings(5000000000);
    cfg.productId = 18446744073709551615u;
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    const std::string stem = "18446744073709551615-5000000000-3355443210-240301-";
    support::makeDirectory("logs");
    support::writeFile("logs/" + stem + "0000000041.log",
                       "$Header 65543,18446744073709551615,5000000000,1709300702,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(handle.file->counter, 41);
    EXPECT_EQ(handle.file->date.month, 3);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(logFiles(), (Names{stem + "0000000041.log", stem + "0000000042.log"}));
}

TEST_F(WriteFileOpen, Ipv6HostIdAbove32BitsSurvivesAResume) {
    hostAddress = "2001:db8::ffff:ffff:ffff:ffff";
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    const Names first = logFiles();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0], "5-7-8589934590-240301-0000000000.log");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->counter, 0);
    EXPECT_EQ(handle.file->date.day, 1);
    EXPECT_EQ(logFiles(), first);
}

// A series of files that one record fills.
class WriteFileHost : public WriteFileOpen {
  protected:
    void SetUp() override {
        WriteFileOpen::SetUp();
        LogCfg cfg = settings();
        cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
        cfg.maxFileSizeKB = 1;
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
        hostLookUps = 0;
    }
    void rollOver() { ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1024, 'x'))); }
};

// A series of files that one record fills, in a directory whose lock somebody else keeps.
class WriteFileInALockedDirectory : public WriteFileHost {
  protected:
    void SetUp() override {
        WriteFileHost::SetUp();
        directory = ::open("logs", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(directory, LOCK_EX | LOCK_NB), 0);
    }
    void TearDown() override {
        close(directory);
        WriteFileHost::TearDown();
    }
    int directory = -1;
};

TEST_F(WriteFileInALockedDirectory, TheNextFileIsMade) {
    rollOver();
    rollOver();
    EXPECT_EQ(logFiles(), (Texts{FIRST, SECOND, THIRD}));
}

TEST_F(WriteFileInALockedDirectory, ANameThatOthersMadeAndRecycledIsLeftAtOnce) {
    onNextCreation = [&] { support::writeFile(path(THIRD), "$Header 65543,5,7,1709300702,0,hostA\n"); };
    rollOver();
    EXPECT_EQ(logFiles(), (Texts{FIRST, THIRD}));
    EXPECT_EQ(textsIn(path(THIRD)), Texts{std::string(1024, 'x')});
    EXPECT_EQ(handle.file->counter, 2);
}

TEST_F(WriteFileInALockedDirectory, ANameThatOthersMadeAndOpenedStaysToThem) {
    onNextCreation = [&] {
        support::writeFile(path(THIRD), "$Header 65543,5,7,1709300702,0,hostA\n");
        // Another writer has the new file by the time that it would go.
        libc::flock.hook = [](int descriptor, int operation) {
            struct stat status;
            if ((operation & LOCK_EX) != 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
                errno = EWOULDBLOCK;
                return -1;
            }
            return libc::flock.real(descriptor, operation);
        };
    };
    rollOver();
    libc::flock.hook = nullptr;
    EXPECT_EQ(logFiles(), (Texts{FIRST, SECOND, THIRD}));
    EXPECT_EQ(textsIn(path(THIRD)), Texts{std::string(1024, 'x')});
    EXPECT_EQ(textsIn(path(SECOND)), Texts{});
}

TEST_F(WriteFileInALockedDirectory, ANameThatOthersFilledAndLeftKeepsTheirRecords) {
    static std::string second;
    second = path(SECOND);
    onNextCreation = [&] {
        support::writeFile(path(THIRD), "$Header 65543,5,7,1709300702,0,hostA\n");
        // Another writer has had the new file, and has gone on to the next one.
        libc::flock.hook = [](int descriptor, int operation) {
            struct stat status;
            if ((operation & LOCK_EX) != 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
                const int file = ::open(second.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
                EXPECT_EQ(write(file, "a record\n", 9), 9);
                close(file);
            }
            return libc::flock.real(descriptor, operation);
        };
    };
    rollOver();
    libc::flock.hook = nullptr;
    EXPECT_EQ(logFiles(), (Texts{FIRST, SECOND, THIRD}));
    EXPECT_NE(support::readFile(path(SECOND)).find("\na record\n"), std::string::npos);
    EXPECT_EQ(textsIn(path(THIRD)), Texts{std::string(1024, 'x')});
}

TEST_F(WriteFileHost, IsNotLookedUpForFilesSoonAfterEachOther) {
    for (int file = 0; file < 5; ++file)
        rollOver();
    EXPECT_EQ(hostLookUps, 0);
    EXPECT_EQ(logFiles().back(), "5-7-83886090-240301-0000000005.log");
}

TEST_F(WriteFileHost, IsLookedUpAfterTheRolloverThatFindsItAnHourOld) {
    hostAddress = "10.0.0.6";
    monotonicShift += 3599;
    rollOver();
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "small"));
    EXPECT_EQ(hostLookUps, 0);
    monotonicShift += 1;
    rollOver();
    EXPECT_EQ(hostLookUps, 0);
    EXPECT_EQ(logFiles().back(), "5-7-83886090-240301-0000000003.log");
    rollOver(); // looked up before this message
    EXPECT_EQ(hostLookUps, 1);
    EXPECT_EQ(logFiles().front(), "5-7-100663306-240301-0000000004.log");
    rollOver();
    EXPECT_EQ(hostLookUps, 1);
}

TEST_F(WriteFileHost, IsLookedUpAfterTheRolloverThatFindsAnotherName) {
    hostName = "hostB";
    hostAddress = "10.0.0.6";
    rollOver();
    EXPECT_EQ(hostLookUps, 0);
    EXPECT_EQ(logFiles().back(), "5-7-83886090-240301-0000000001.log");
    rollOver();
    EXPECT_EQ(hostLookUps, 1);
    EXPECT_EQ(logFiles().front(), "5-7-100663306-240301-0000000002.log");
}

TEST_F(WriteFileHost, IsLookedUpAfterTheRolloverThatFindsOtherAddresses) {
    interfaceAddress = "192.0.2.2";
    rollOver();
    EXPECT_EQ(hostLookUps, 0);
    rollOver();
    EXPECT_EQ(hostLookUps, 1);
    rollOver();
    EXPECT_EQ(hostLookUps, 1);
}

TEST_F(WriteFileHost, SlowNameServiceDelaysOnlyWhoOpensASeries) {
    std::atomic<int> asked{0};
    std::atomic<bool> answered{false};
    onHostLookUp = [&] {
        ++asked;
        while (!answered)
            usleep(1000);
    };
    LogHandle other;
    std::thread opener([&] { EXPECT_RESULT(ZOLTLOG_OK, open(&other, settings(8))); });
    while (asked == 0)
        usleep(1000);
    rollOver(); // while the question is open
    monotonicShift += 3600;
    rollOver();
    EXPECT_EQ(asked, 1);
    answered = true;
    opener.join();
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&other));
    onHostLookUp = nullptr;
}

TEST_F(WriteFileHost, IsNotLookedUpAgainWhenAnOpenHasDoneSoSinceTheRollover) {
    interfaceAddress = "192.0.2.2";
    rollOver();
    LogHandle other;
    ASSERT_RESULT(ZOLTLOG_OK, open(&other, settings(8)));
    EXPECT_EQ(hostLookUps, 1);
    rollOver();
    EXPECT_EQ(hostLookUps, 1);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&other));
}

TEST_F(WriteFileHost, IsLookedUpAgainWhenTheSeriesIsOpened) {
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    hostAddress = "10.0.0.6";
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles().front(), "5-7-100663306-240301-0000000000.log");
}

TEST_F(WriteFileHost, IsNotLookedUpForAnotherHandleOfAnOpenSeries) {
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, settings()));
    EXPECT_EQ(hostLookUps, 0);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}

TEST_F(WriteFileOpen, EveryRecordHasItsOwnProcessAndThread) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    const uint64_t pairs[][2] = {{11, 21}, {11, 21}, {11, 22}, {12, 22}, {123456789, 140000000000001},
                                 {1, 2}};
    for (const auto &pair : pairs) {
        LogMsg msg;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "x"));
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
        msg.processId = pair[0];
        msg.threadId = pair[1];
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
        zoltLogFreeMsg(&msg);
        const std::string ids = "," + std::to_string(pair[0]) + "," + std::to_string(pair[1]) + ",0:,1:x,";
        const std::string last = support::lines(support::readFile("logs/" + logFiles().back())).back();
        EXPECT_NE(last.find(ids), std::string::npos) << last;
    }
}

TEST_F(WriteFileOpen, ResumedFileWithoutReadableHeaderStartsNow) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "no header\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->fileStartTime, 1709300702);
    EXPECT_EQ(handle.file->headerVersion, 0u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::readFile(path(FIRST)), "no header\n");
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"one"});
}

TEST_F(WriteFileOpen, EmptyLatestFileIsLeftForANewOne) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->fileStartTime, 1709300702);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::readFile(path(FIRST)), "");
    EXPECT_EQ(support::readFile(path(SECOND)).substr(0, 37), "$Header 65543,5,7,1709300702,0,hostA\n");
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"one"});
}

TEST_F(WriteFileOpen, OlderHeaderVersionIsResumedAndLeftAtTheFirstWrite) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65542,5,7,1709300000,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->headerVersion, ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX);
    EXPECT_EQ(logFiles(), Names{FIRST});
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65542,5,7,1709300000,hostA\n");
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"one"});
}

TEST_F(WriteFileOpen, UnsupportedHeaderVersionIsLeftAtTheFirstWrite) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65545,5,7,1709300000,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"one"});
}

TEST_F(WriteFileOpen, AbsurdCreationTimeCountsAsNow) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,18446744073709551615,0,hostA\n");
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 18446744073709551615u;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_EQ(handle.file->fileStartTime, 1709300702);
    EXPECT_EQ(handle.file->nextRolloverTime, INT64_MAX);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

TEST_F(WriteFileOpen, StartTimeZeroDoesNotLookUnopened) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,0,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->fileStartTime, 0);
    const int descriptor = handle.file->file.descriptor;
    const size_t descriptors = support::openDescriptors();
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, settings()));
    EXPECT_EQ(second.file, handle.file);
    EXPECT_EQ(handle.file->file.descriptor, descriptor);
    EXPECT_EQ(support::openDescriptors(), descriptors);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}

TEST_F(WriteFileOpen, VanishedLatestFileIsRecreatedWithoutHeader) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
    onNextAppend = [this] { unlink(path(FIRST).c_str()); };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(support::readFile(path(FIRST)), "");
    EXPECT_TRUE(support::exists(path(FIRST)));
    EXPECT_EQ(modeOf(path(FIRST)), 0660u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::readFile(path(FIRST)), "");
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"one"});
}

TEST_F(WriteFileOpen, FileReplacedWhileItsHeaderIsReadIsReadAgain) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65542,5,7,1709300000,hostA\n");
    onNextAppend = [this] {
        unlink(path(FIRST).c_str());
        support::writeFile(path(FIRST), "$Header 65543,5,7,1709300001,0,hostA\n");
    };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(handle.file->headerVersion, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(handle.file->fileStartTime, 1709300001);
}

TEST_F(WriteFileOpen, FileRemovedWhileItsHeaderIsReadNeverGetsRecordsWithoutHeader) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
    onNextAppend = [this] { unlink(path(FIRST).c_str()); };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    for (const std::string &name : logFiles()) {
        const std::string bytes = support::readFile("logs/" + name);
        EXPECT_TRUE(bytes.empty() || bytes.compare(0, 14, "$Header 65543,") == 0) << bytes;
    }
    EXPECT_EQ(textsIn("logs/" + logFiles().back()), Texts{"one"});
}

TEST_F(WriteFileOpen, FileThatEndsInsideALineIsContinuedOnALineOfItsOwn) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300700,0,hostA\n2,5,7,7,1,17093");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    const std::vector<std::string> found = support::lines(support::readFile(path(FIRST)));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[1], "2,5,7,7,1,17093");
    EXPECT_EQ(textOf(found[2]), "one");
}

TEST_F(WriteFileOpen, LineThatAnotherWriterIsJustFinishingIsNotTakenForTorn) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300700,0,hostA\n2,5,7,7,1,17093");
    onNextSleep = [this] { support::writeFile(path(FIRST), support::readFile(path(FIRST)) + ",rest\n"); };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    const std::vector<std::string> found = support::lines(support::readFile(path(FIRST)));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[1], "2,5,7,7,1,17093,rest");
    EXPECT_EQ(textOf(found[2]), "one");
}

// ---- what lies at the name of the next file -----------------------------------------------

namespace {

double monotonic() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Expects that the series cannot start, quickly, and that nothing was made.
void expectRefused(LogHandle *handle, uint32_t result) {
    const double before = monotonic();
    EXPECT_EQ(open(handle, settings()), result);
    EXPECT_LT(monotonic() - before, 1.0);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(handle, "nowhere"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(handle));
}

} // namespace

TEST_F(WriteFileOpen, DanglingSymbolicLinkIs32) {
    support::makeDirectory("logs");
    ASSERT_EQ(symlink("../victim", path(FIRST).c_str()), 0);
    // Listed as the latest file, it has "vanished"; without the listing the next name.
    LogCfg cfg = settings();
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, open(&handle, cfg));
    EXPECT_FALSE(support::exists("victim"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST_F(WriteFileOpen, DanglingSymbolicLinkAtTheNextNameIs32AndTheLoopEnds) {
    support::makeDirectory("logs");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_EQ(symlink("../victim", path(SECOND).c_str()), 0);
    handle.file->headerVersion = ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX; // leave this file
    const size_t descriptors = support::openDescriptors();
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "one"));
    EXPECT_EQ(handle.file->file.descriptor, -1);
    EXPECT_EQ(support::openDescriptors(), descriptors - 1);
    EXPECT_FALSE(support::exists("victim"));
    ASSERT_EQ(unlink(path(SECOND).c_str()), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"two"});
    EXPECT_EQ(logFiles(), (Names{FIRST, SECOND})) << "no counter is skipped, no temporary file is left";
}

TEST_F(WriteFileOpen, WhatIsNoFileAtTheNextNameStopsTheSeriesUntilItIsGone) {
    support::writeFile("victim", "precious\n");
    const std::string next = path(SECOND);
    const std::function<int()> plants[] = {[&] { return mkfifo(next.c_str(), 0600); },
                                           [&] { return mkdir(next.c_str(), 0700); },
                                           [&] { return symlink("../victim", next.c_str()); }};
    for (const auto &plant : plants) {
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
        ASSERT_EQ(plant(), 0);
        handle.file->headerVersion = ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX; // leave this file
        const double before = monotonic();
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
        EXPECT_LT(monotonic() - before, 1.0);
        ASSERT_EQ(remove(next.c_str()), 0);
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "kept"));
        EXPECT_EQ(textsIn(next), Texts{"kept"});
        EXPECT_EQ(logFiles(), (Names{FIRST, SECOND}));
        EXPECT_EQ(support::readFile("victim"), "precious\n");
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        ASSERT_EQ(unlink(path(FIRST).c_str()), 0);
        ASSERT_EQ(unlink(next.c_str()), 0);
    }
}

TEST_F(WriteFileOpen, SymbolicLinkToAFileIs32AndItsTargetUntouched) {
    support::makeDirectory("logs");
    support::writeFile("victim", "precious\n");
    ASSERT_EQ(symlink("../victim", path(FIRST).c_str()), 0);
    expectRefused(&handle, 32);
    EXPECT_EQ(support::readFile("victim"), "precious\n");
}

TEST_F(WriteFileOpen, SymbolicLinkToADirectoryIs32) {
    support::makeDirectory("logs");
    support::makeDirectory("victim");
    ASSERT_EQ(symlink("../victim", path(FIRST).c_str()), 0);
    expectRefused(&handle, 32);
    EXPECT_EQ(support::listFiles("victim"), Names{});
}

TEST_F(WriteFileOpen, SymbolicLinkToADeviceIs32) {
    support::makeDirectory("logs");
    ASSERT_EQ(symlink("/dev/null", path(FIRST).c_str()), 0);
    expectRefused(&handle, 32);
}

TEST_F(WriteFileOpen, FifoIs32WithoutWaiting) {
    support::makeDirectory("logs");
    ASSERT_EQ(mkfifo(path(FIRST).c_str(), 0600), 0);
    expectRefused(&handle, 32);
}

TEST_F(WriteFileOpen, DirectoryIs32) {
    support::makeDirectory(path(FIRST));
    expectRefused(&handle, 32);
}

TEST_F(WriteFileOpen, SocketIs32) {
    support::makeDirectory("logs");
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path(FIRST).c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    expectRefused(&handle, 32);
    close(listener);
}

TEST_F(WriteFileOpen, CharacterDeviceIs32) {
    support::makeDirectory("logs");
    if (mknod(path(FIRST).c_str(), S_IFCHR | 0666, makedev(1, 5)) != 0)
        GTEST_SKIP() << "devices cannot be made here";
    const int device = ::open(path(FIRST).c_str(), O_RDONLY | O_CLOEXEC);
    if (device == -1)
        GTEST_SKIP() << "devices cannot be opened here";
    close(device);
    expectRefused(&handle, 32);
}

TEST_F(WriteFileOpen, HardLinkToAnotherFileIsPassedOverAndTheFileUntouched) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    support::writeFile("victim", "precious\n");
    ASSERT_EQ(link("victim", path(SECOND).c_str()), 0);
    handle.file->headerVersion = 0; // leave this file
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(support::readFile("victim"), "precious\n");
    EXPECT_EQ(textsIn("logs/5-7-83886090-240301-0000000002.log"), Texts{"one"});
}

TEST_F(WriteFileOpen, UnreadableFileIs51) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
    chmod(path(FIRST).c_str(), 0);
    EXPECT_TRUE(support::asOrdinaryUser([&] { expectRefused(&handle, 51); }));
    EXPECT_EQ(support::listFiles("logs"), Names{FIRST});
    chmod(path(FIRST).c_str(), 0600);
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300000,0,hostA\n");
}

TEST_F(WriteFileOpen, FileThatMayOnlyBeWrittenIsAppendedTo) {
    support::makeDirectory("logs");
    const std::string before = "$Header 65543,5,7,1709298000,0,hostA\n";
    support::writeFile(path(FIRST), before);
    chmod(path(FIRST).c_str(), 0222);
    EXPECT_TRUE(support::asOrdinaryUser([&] {
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
        EXPECT_EQ(handle.file->headerVersion, 65543u);
        EXPECT_EQ(handle.file->fileStartTime, 1709300702) << "now";
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
        monotonicShift += 2;
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    }));
    chmod(path(FIRST).c_str(), 0600);
    EXPECT_EQ(support::readFile(path(FIRST)).compare(0, before.size(), before), 0);
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"one", "two"}));
    EXPECT_EQ(logFiles(), Names{FIRST});
}

TEST_F(WriteFileOpen, UnwritableFileIs51) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
    chmod(path(FIRST).c_str(), 0444);
    EXPECT_TRUE(support::asOrdinaryUser([&] { expectRefused(&handle, 51); }));
}

TEST_F(WriteFileOpen, UnwritableDirectoryIs51) {
    support::makeDirectory("logs");
    chmod("logs", 0555);
    EXPECT_TRUE(support::asOrdinaryUser([&] { expectRefused(&handle, 51); }));
    chmod("logs", 0755);
    EXPECT_EQ(logFiles(), Names{});
}

TEST_F(WriteFileOpen, DirectoryThatBecomesUnwritableStopsTheSeriesUntilItIsWritableAgain) {
    support::makeDirectory("logs");
    EXPECT_TRUE(support::asOrdinaryUser([&] {
        EXPECT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
        chmod("logs", 0555);
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "the open file goes on"));
        handle.file->headerVersion = 0; // leave this file
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
        chmod("logs", 0755);
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    }));
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"one", "the open file goes on"}));
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"two"});
}

TEST_F(WriteFileOpen, LogsetNameWithASlashIsAMissingPath52) {
    char outside[] = "../../x";
    LogCfg cfg = logsetSettings();
    cfg.logsetFilename = outside;
    EXPECT_RESULT(ZOLTLOG_OPEN_NO_PATH, open(&handle, cfg));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    EXPECT_EQ(support::listFiles("."), Names{"logs"});
    EXPECT_EQ(logFiles(), Names{});
}

TEST_F(WriteFileOpen, NameThatDoesNotFitIs32) {
    std::string longName(300, 'n');
    LogCfg cfg = logsetSettings();
    cfg.logsetFilename = longName.data();
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, open(&handle, cfg));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    std::string hugeName(5000, 'n');
    cfg.logsetFilename = hugeName.data();
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, open(&handle, cfg));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    EXPECT_EQ(logFiles(), Names{});
}

TEST_F(WriteFileOpen, DescriptorIsAboveStandardErrorAndClosedOnExec) {
    EXPECT_EQ(support::inChild([this] {
                  close(0);
                  close(1);
                  close(2);
                  if (open(&handle, settings()) != 0 || send(&handle, "one") != 0)
                      return 1;
                  if (handle.file->file.descriptor <= 2)
                      return 2;
                  return (fcntl(handle.file->file.descriptor, F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

// ---- ways of creation ------------------------------------------------------------------------

TEST_F(WriteFileOpen, WithoutUnnamedFilesATemporaryNameIsLinked) {
    withoutUnnamed = true;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300702,0,hostA\n");
    EXPECT_EQ(modeOf(path(FIRST)), 0660u);
    struct stat status;
    ASSERT_EQ(stat(path(FIRST).c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

TEST_F(WriteFileOpen, WithoutProcATemporaryNameIsLinked) {
    withoutProc = true;
    const size_t descriptors = support::openDescriptors();
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::openDescriptors(), descriptors + 1);
}

TEST_F(WriteFileOpen, WithoutLinksATemporaryNameIsRenamed) {
    withoutUnnamed = true;
    withoutLinks = true;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300702,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

TEST_F(WriteFileOpen, TakenNameIsNeverReplacedHoweverTheFileIsMade) {
    for (int way = 0; way < 3; ++way) {
        withoutUnnamed = way > 0;
        withoutLinks = way > 1;
        const std::string directory = "logs" + std::to_string(way) + "/";
        support::makeDirectory(directory);
        // Somebody else makes the file between the look for it and our own creation.
        LogCfg cfg = settings();
        strcpy(cfg.directory, directory.c_str());
        onNextCreation = [&] {
            support::writeFile(directory + FIRST, "$Header 65543,5,7,1709300701,0,hostB\n");
        };
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg)) << way;
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
        EXPECT_EQ(handle.file->fileStartTime, 1709300701);
        EXPECT_EQ(support::listFiles(directory), Names{FIRST}) << way;
        EXPECT_EQ(support::lines(support::readFile(directory + FIRST))[0],
                  "$Header 65543,5,7,1709300701,0,hostB");
        EXPECT_EQ(textsIn(directory + FIRST), Texts{"one"});
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    }
}

TEST_F(WriteFileOpen, WithoutAnyOfTheseTheFileIsMadeUnderItsName) {
    withoutUnnamed = true;
    withoutLinks = true;
    withoutRenames = true;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300702,0,hostA\n");
    EXPECT_EQ(modeOf(path(FIRST)), 0660u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

TEST_F(WriteFileOpen, WhatKilledWritersLeftGoesWithTheNextNewFile) {
    withoutUnnamed = true;
    support::makeDirectory("logs/.new-1-2-4");
    for (const char *name :
         {".new-1-2-3", ".new-12-34-0", ".new-5-6-7", ".new-1-2", ".new-1-2-3-4", ".new-1-2-x"})
        support::writeFile(path(name), "$Header");
    support::writeFile("elsewhere", "kept");
    ASSERT_EQ(symlink("../elsewhere", path(".new-8-9-0").c_str()), 0);
    const int held = ::open(path(".new-5-6-7").c_str(), O_RDONLY); // its writer lives
    ASSERT_EQ(flock(held, LOCK_SH), 0);
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), (Names{".new-1-2", ".new-1-2-3-4", ".new-1-2-4", ".new-1-2-x", ".new-5-6-7",
                                 ".new-8-9-0", FIRST}));
    EXPECT_EQ(support::readFile("elsewhere"), "kept");
    close(held);
}

TEST_F(WriteFileOpen, ASecondNameThatAKilledWriterLeftGoesAndTheFileStays) {
    withoutUnnamed = true;
    support::makeDirectory("logs");
    const std::string other = "5-9-83886090-240301-0000000000.log";
    support::writeFile(path(other.c_str()), "$Header 65543,5,9,1709300701,0,hostA\n");
    ASSERT_EQ(link(path(other.c_str()).c_str(), path(".new-1-2-3").c_str()), 0);
    const int held = ::open(path(other.c_str()).c_str(), O_RDONLY); // another goes on with it
    ASSERT_EQ(flock(held, LOCK_SH), 0);
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), (Names{FIRST, other}));
    EXPECT_EQ(support::readFile(path(other.c_str())), "$Header 65543,5,9,1709300701,0,hostA\n");
    close(held);
}

TEST_F(WriteFileOpen, ATemporaryFileThatOthersTookForLeftBehindIsMadeAgain) {
    withoutUnnamed = true;
    static int removals;
    removals = 0;
    libc::flock.hook = [](int descriptor, int operation) {
        for (const std::string &name : logFiles())
            if (name.compare(0, 5, ".new-") == 0 && removals < 2) {
                ++removals;
                unlink(("logs/" + name).c_str());
            }
        return libc::flock.real(descriptor, operation);
    };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(removals, 2);
    EXPECT_EQ(logFiles(), Names{FIRST});
    EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300702,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), Texts{"one"});
}

TEST_F(WriteFileOpen, WithoutLocksWhatIsOldCountsAsLeftBehind) {
    withoutUnnamed = true;
    support::makeDirectory("logs");
    for (const char *name : {".new-1-2-3", ".new-1-2-4"})
        support::writeFile(path(name), "$Header");
    const timespec young[] = {{1709300702 - 59, 0}, {1709300702 - 59, 0}};
    const timespec old[] = {{1709300702 - 61, 0}, {1709300702 - 61, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path(".new-1-2-3").c_str(), young, 0), 0);
    ASSERT_EQ(utimensat(AT_FDCWD, path(".new-1-2-4").c_str(), old, 0), 0);
    libc::flock.hook = [](int, int) {
        errno = ENOLCK;
        return -1;
    };
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(logFiles(), (Names{".new-1-2-3", FIRST}));
}

TEST_F(WriteFileOpen, LiveFileShowsUnderItsName) {
    for (int way = 0; way < 2; ++way) {
        withoutUnnamed = way == 1;
        support::makeDirectory("logs");
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
        char shown[4096] = "";
        const std::string link = "/proc/self/fd/" + std::to_string(handle.file->file.descriptor);
        ASSERT_GT(readlink(link.c_str(), shown, sizeof shown - 1), 0);
        char *here = get_current_dir_name();
        EXPECT_EQ(std::string(shown), std::string(here) + "/logs/" + FIRST);
        free(here);
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        unlink(path(FIRST).c_str());
    }
}

TEST_F(WriteFileOpen, CountersGoOnBeyondTheLargestSignedNumber) {
    const std::string stem = "5-7-83886090-240301-";
    support::makeDirectory("logs");
    support::writeFile("logs/" + stem + "9223372036854775807.log", "$Header 65543,5,7,1709300702,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    handle.file->headerVersion = 0; // leave the file
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + stem + "9223372036854775808.log"), Texts{"one"});
}

TEST_F(WriteFileOpen, AfterTheLastOfAllCountersNoFileFollows) {
    const std::string last = "5-7-83886090-240301-18446744073709551615.log";
    support::makeDirectory("logs");
    support::writeFile("logs/" + last, "$Header 65543,5,7,1709300702,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    handle.file->headerVersion = 0; // leave the file
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "one"));
    EXPECT_EQ(logFiles(), Names{last});
}

// ---- files of others ----------------------------------------------------------------------------

namespace {

constexpr uid_t STRANGER = 12345;
constexpr uid_t OWNER = 23456;

bool isRoot() {
    return geteuid() == 0;
}

} // namespace

TEST_F(WriteFileOpen, FileOfAStrangerInADirectoryForAllIsRefused) {
    if (!isRoot())
        GTEST_SKIP() << "needs to give files away";
    for (const mode_t mode : {01777, 0777}) {
        support::makeDirectory("logs");
        chmod("logs", mode);
        support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
        chmod(path(FIRST).c_str(), 0666);
        ASSERT_EQ(chown(path(FIRST).c_str(), STRANGER, STRANGER), 0);
        EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, open(&handle, settings())) << std::oct << mode;
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "secret"));
        EXPECT_EQ(support::readFile(path(FIRST)), "$Header 65543,5,7,1709300000,0,hostA\n");
        EXPECT_EQ(logFiles(), Names{FIRST}) << "the next counter is not taken either";
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    }
}

TEST_F(WriteFileOpen, FileOfAStrangerAtTheNextNameIsRefused) {
    if (!isRoot())
        GTEST_SKIP() << "needs to give files away";
    support::makeDirectory("logs");
    chmod("logs", 01777);
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    support::writeFile(path(SECOND), "$Header 65543,5,7,1709300000,0,hostA\n");
    chmod(path(SECOND).c_str(), 0666);
    ASSERT_EQ(chown(path(SECOND).c_str(), STRANGER, STRANGER), 0);
    handle.file->headerVersion = 0; // leave the file
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "secret"));
    EXPECT_EQ(support::readFile(path(SECOND)), "$Header 65543,5,7,1709300000,0,hostA\n");
    EXPECT_EQ(logFiles(), (Names{FIRST, SECOND}));
}

TEST_F(WriteFileOpen, FilesOfTheDirectorysOwnerAndOfRootAreContinued) {
    if (!isRoot())
        GTEST_SKIP() << "needs to give files away";
    const struct {
        mode_t directory;
        uid_t owner;
        uid_t file;
    } rows[] = {{01777, OWNER, OWNER}, {01777, OWNER, 0}, {0775, OWNER, STRANGER}, {0770, 0, STRANGER}};
    for (const auto &row : rows) {
        support::makeDirectory("logs");
        chmod("logs", row.directory);
        ASSERT_EQ(chown("logs", row.owner, row.owner), 0);
        support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n");
        ASSERT_EQ(chown(path(FIRST).c_str(), row.file, row.file), 0);
        EXPECT_RESULT(ZOLTLOG_OK, open(&handle, settings())) << std::oct << row.directory << " " << row.file;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        ASSERT_EQ(unlink(path(FIRST).c_str()), 0);
    }
}

// ---- lines that others left -----------------------------------------------------------------------

namespace {

void appendTo(const std::string &file, const std::string &bytes) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_APPEND);
    ASSERT_NE(descriptor, -1);
    EXPECT_EQ(write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(descriptor);
}

} // namespace

TEST_F(WriteFileOpen, TornRecordOfAnotherIsEndedAtTheFirstMessageAfterASecond) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    appendTo(path(FIRST), "2,5,7,7,9,17093");
    monotonicShift += 1;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"one", "", "two"}));
    EXPECT_EQ(support::readFile(path(FIRST)).find("\n\n"), std::string::npos);
}

TEST_F(WriteFileOpen, TornRecordOfAnotherIsEndedWheneverTheSizeIsAsked) {
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 2; // so small that it is asked each time
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    appendTo(path(FIRST), "2,5,7,7,9,17093");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"one", "", "two"}));
}

TEST_F(WriteFileOpen, TornRecordOfAnotherIsEndedAfterAFailureOfOnesOwn) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    struct rlimit limited = old;
    limited.rlim_cur = 1;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    appendTo(path(FIRST), "2,5,7,7,9,17093");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"one", "", "two"}));
}

TEST_F(WriteFileOpen, TornRecordThatAnotherWentOnBehindIsNotEndedAgain) {
    support::makeDirectory("logs");
    support::writeFile(path(FIRST), "$Header 65543,5,7,1709300000,0,hostA\n2,5,7,7,9,17093");
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    appendTo(path(FIRST), "glued\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn(path(FIRST)), (Texts{"", "one"}));
    EXPECT_EQ(support::readFile(path(FIRST)).find("\n\n"), std::string::npos);
}

TEST_F(WriteFileOpen, TornRecordIsEndedOnceByAllItsWriters) {
    LogHandle second;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, logsetSettings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, logsetSettings()));
    const std::string file = "logs/" + logFiles().at(0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&second, "two"));
    appendTo(file, "2,7,9,17093");
    monotonicShift += 1;
    // The other one comes between the look and the end of the line.
    onNextSleep = [&] { EXPECT_RESULT(ZOLTLOG_OK, send(&second, "three")); };
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "four"));
    const std::string bytes = support::readFile(file);
    EXPECT_EQ(bytes.find("\n\n"), std::string::npos) << bytes;
    EXPECT_EQ(support::lines(bytes).size(), 6u) << bytes;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
}

// ---- contexts and the reopen ------------------------------------------------------------------------

TEST_F(WriteFileOpen, RetryOfAFailedReopenDoesNotRepeatTheContexts) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    LogHandle context = {};
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&context.contextMsg, &handle, ZOLTLOG_MSG_CONTEXT, "about"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&context.contextMsg, "T"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContextToFile(&handle, &context, &context.contextMsg));
    advance(601);
    failOpens = EMFILE;
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    failOpens = 0;
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles(), Names{FIRST});
    size_t contexts = 0;
    for (const std::string &line : support::lines(support::readFile(path(FIRST))))
        contexts += line.compare(0, 2, "3,") == 0 ? 1 : 0;
    EXPECT_EQ(contexts, 1u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}

// ---- the series goes on at its latest file ------------------------------------------------------------

TEST_F(WriteFileOpen, RolloverWhoseNextNameWasRecycledGoesOnAtTheLatestFile) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    support::writeFile("logs/5-7-83886090-240301-0000000007.log", "$Header 65543,5,7,1709300000,0,hostA\n");
    handle.file->headerVersion = 0; // leave the file
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/5-7-83886090-240301-0000000007.log"), Texts{"one"});
    EXPECT_EQ(handle.file->counter, 7);
    EXPECT_EQ(logFiles().size(), 2u);
}

TEST_F(WriteFileOpen, LatestFileThatIsFullIsFollowedByTheNextOne) {
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    support::writeFile("logs/5-7-83886090-240301-0000000007.log",
                       "$Header 65543,5,7,1709300000,0,hostA\n" + std::string(1100, 'x') + "\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'y')));
    EXPECT_EQ(textsIn("logs/5-7-83886090-240301-0000000008.log"), Texts{std::string(1000, 'y')});
    EXPECT_EQ(logFiles().size(), 3u);
}

TEST_F(WriteFileOpen, FileThatVanishedIsLeftAndTheRecordWrittenAgain) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    monotonicShift += 1;
    // Between the write and the look after it.
    onNextWrite = [this] { unlink(path(FIRST).c_str()); };
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(logFiles(), Names{SECOND});
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"two"});
}

TEST_F(WriteFileOpen, WriteThatTookASecondIsFollowedByALook) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    onNextWrite = [this] {
        monotonicShift += 1;
        unlink(path(FIRST).c_str());
    };
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(path(SECOND)), Texts{"two"});
}
