// SPDX-License-Identifier: Apache-2.0
// Writers of one configuration file beside each other and beside those who may only read it;
// what cannot be read; what a rewrite keeps.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>
#include <vector>

SUPPORT_CALL(int, fsetxattr, (int descriptor, const char *name, const void *value, size_t size, int flags),
             (descriptor, name, value, size, flags), noexcept)

namespace {

bool noLocks;             // fcntl refuses locks
std::atomic<int> renames; // calls so far
int failingRead;          // a read of this descriptor's file fails; 0: none
std::string *failingPath;

const bool PREPARED = support::eachCase([] {
    noLocks = false;
    renames = 0;
    failingRead = 0;
    failingPath = nullptr;
    libc::fcntl.hook = [](int descriptor, int command, void *argument) {
        if (!noLocks || command != F_OFD_SETLK)
            return libc::fcntl.real(descriptor, command, argument);
        errno = ENOLCK;
        return -1;
    };
    libc::rename.hook = [](const char *from, const char *to) {
        ++renames;
        return libc::rename.real(from, to);
    };
    libc::read.hook = [](int descriptor, void *bytes, size_t size) -> ssize_t {
        if (failingPath != nullptr) {
            char link[64];
            char path[4096] = "";
            std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
            const ssize_t length = readlink(link, path, sizeof path - 1);
            if (length > 0 &&
                std::string(path, static_cast<size_t>(length)).find(*failingPath) != std::string::npos) {
                ++failingRead;
                errno = EIO;
                return -1;
            }
        }
        return libc::read.real(descriptor, bytes, size);
    };
});

} // namespace

namespace {

using support::exists;
using support::readFile;
using support::writeFile;

void registerProduct(const std::string &content) {
    writeFile("main.conf", "5.Configuration=./p.conf\n");
    writeFile("p.conf", content);
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
}

struct Record {
    explicit Record(const char *logset = nullptr) { InitLogCfg(5, 7, logset, &cfg); }
    ~Record() { zoltLogFreeCfg(&cfg); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    LogCfg cfg;
};

struct FailingReads { // of files whose path holds the text
    explicit FailingReads(const char *text) : path(text) { failingPath = &path; }
    ~FailingReads() { failingPath = nullptr; }
    FailingReads(const FailingReads &) = delete;
    FailingReads &operator=(const FailingReads &) = delete;
    std::string path;
};

// Several processes put their own keys into one file while it is read: nothing is torn, and
// what returned 0 is there.
void writeTogether(int writers, int changes) {
    const std::string head = "1.begin=1\n";
    std::string filling;
    for (int i = 0; i < 200; ++i)
        filling += "2.filling" + std::to_string(i) + "=some text\n";
    const std::string end = "3.end=1\n";
    writeFile("s.conf", head + filling + end);
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        const pid_t child = fork();
        if (child == 0) {
            PropertyStore store;
            const std::string root = std::to_string(10 + writer);
            int failed = utiOpenPropertyStore("s.conf", root.c_str(), &store) == 0 ? 0 : 1;
            for (int i = 0; i < changes && failed == 0; ++i)
                failed = utiSetPropertyAsStr(&store, ("k" + std::to_string(i)).c_str(), "v") == 0 ? 0 : 1;
            _exit(failed);
        }
        children.push_back(child);
    }
    size_t left = children.size();
    size_t reads = 0;
    while (left > 0) {
        const std::string bytes = readFile("s.conf");
        ++reads;
        ASSERT_EQ(bytes.rfind(head + filling + end, 0), 0U) << "a torn file of " << bytes.size() << " bytes";
        ASSERT_EQ(bytes.back(), '\n');
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) > 0) {
            EXPECT_EQ(status, 0);
            --left;
        }
    }
    EXPECT_GT(reads, 1U);
    const std::string bytes = readFile("s.conf");
    for (int writer = 0; writer < writers; ++writer)
        for (int i = 0; i < changes; ++i) {
            const std::string line = "\n" + std::to_string(10 + writer) + ".k" + std::to_string(i) + "=v\n";
            ASSERT_NE(bytes.find(line), std::string::npos) << line;
        }
    EXPECT_EQ(support::listFiles("."), std::vector<std::string>{"s.conf"});
}

} // namespace

// ---- writers -------------------------------------------------------------------------------

TEST(FaultConfigWriters, LoseAndTearNothingWithLocks) {
    writeTogether(4, 40);
}

TEST(FaultConfigWriters, LoseAndTearNothingWhereTheFileSystemHasNoLocks) {
    noLocks = true;
    writeTogether(4, 40);
    noLocks = false;
}

TEST(FaultConfigWriters, LoseAndTearNothingInADirectoryThatTheyCannotRead) {
    ASSERT_EQ(mkdir("hidden", 0733), 0);
    EXPECT_TRUE(support::asOrdinaryUser([] {
        support::makeDirectory("own");
        ASSERT_EQ(chdir("own"), 0);
        ASSERT_EQ(chmod(".", 0333), 0);
        writeFile("s.conf", "");
        PropertyStore store;
        const pid_t child = fork();
        const std::string root = child == 0 ? "5" : "6";
        EXPECT_EQ(utiOpenPropertyStore("s.conf", root.c_str(), &store), 0U);
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(utiSetPropertyAsStr(&store, ("k" + std::to_string(i)).c_str(), "v"), 0U);
        if (child == 0)
            _exit(testing::Test::HasFailure() ? 1 : 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(support::lines(readFile("s.conf")).size(), 100U);
        chmod(".", 0755);
    }));
}

TEST(LongFaultConfigWriters, LoseAndTearNothing) {
    for (const int writers : {2, 4, 8}) {
        for (const bool refused : {false, true}) {
            noLocks = refused;
            writeTogether(writers, 300);
            noLocks = false;
            ASSERT_EQ(unlink("s.conf"), 0);
        }
    }
}

// Whoever may read the directory or the file can lock these, and keeps nobody waiting.
TEST(FaultConfigWriters, AreNotHeldUpByReaders) {
    writeFile("s.conf", "5.a=1\n");
    const int directory = open(".", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    const int file = open("s.conf", O_RDONLY);
    ASSERT_EQ(flock(file, LOCK_EX), 0);
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)); // the wait's limit is 10
    utiClosePropertyStore(&store);
    close(file);
    close(directory);
}

// A thread that waits for another writer leaves the library's lock to the others.
TEST(FaultConfigWriters, WaitWithoutTheGlobalLock) {
    registerProduct("");
    const int held = open("p.conf.tmp", O_RDWR | O_CREAT, 0600);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);
    std::atomic<int> result{-1};
    std::thread writer([&result] {
        Record record;
        zoltLogCfgSetDebugLevel(&record.cfg, 3);
        result = static_cast<int>(zoltLogWriteCfg(5, 7, &record.cfg));
    });
    usleep(100000);
    static const char TAG[] = "test";
    zoltLogLock(&zoltLogMutex, TAG); // would not return before the writer
    EXPECT_EQ(result, -1);
    zoltLogUnlock(&zoltLogMutex, TAG);
    ASSERT_EQ(unlink("p.conf.tmp"), 0);
    close(held);
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(readFile("p.conf"), "7.DebugLevel=3\n7.AppMsgLogging=ON\n");
}

// Somebody who does not know the lock puts another file in its place while the change is made.
TEST(FaultConfigWriters, MakeTheChangeAgainWhenTheFileIsAnotherOne) {
    writeFile("s.conf", "5.a=1\n");
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    std::atomic<bool> stop{false};
    std::thread editor([&stop] {
        for (int i = 0; !stop; ++i) {
            writeFile("edited", "5.a=1\n6.edited=" + std::to_string(i) + "\n" + readFile("s.conf").substr(6));
            if (i == 0)
                renameat(AT_FDCWD, "edited", AT_FDCWD, "s.conf");
            usleep(100);
        }
    });
    EXPECT_EQ(utiSetPropertyAsStr(&store, "b", "2"), 0U);
    stop = true;
    editor.join();
    EXPECT_NE(readFile("s.conf").find("5.a=1\n"), std::string::npos);
    utiClosePropertyStore(&store);
}

// ---- one call, one rewrite ---------------------------------------------------------------------

TEST(FaultConfigWriters, RewriteOnceForARecord) {
    registerProduct("7.DebugLevel=1\n");
    Record record;
    zoltLogCfgSetDirectory(&record.cfg, "/d", nullptr);
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    zoltLogCfgSetMaxFileSize(&record.cfg, 5);
    zoltLogCfgSetSyslogIdent(&record.cfg, "me");
    renames = 0;
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(renames, 1);
    EXPECT_EQ(readFile("p.conf"), "7.DebugLevel=3\n7.LogDirectory=/d/\n7.MaxLogFileSizeKB=5\n"
                                  "7.AppMsgLogging=ON\n7.SyslogIdent=me\n");
}

TEST(FaultConfigWriters, RegisterAProductOnce) {
    for (int round = 0; round < 60; ++round) {
        writeFile("main.conf", "1.Configuration=/1.conf\n");
        setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
        pid_t children[2];
        for (int i = 0; i < 2; ++i) {
            children[i] = fork();
            if (children[i] == 0)
                _exit(static_cast<int>(
                    zoltLogAddProductCfg(5, i == 0 ? "zero" : "one", i == 0 ? "/0.conf" : "/one.conf")));
        }
        int results[2];
        for (int i = 0; i < 2; ++i) {
            int status = 0;
            ASSERT_EQ(waitpid(children[i], &status, 0), children[i]);
            results[i] = WEXITSTATUS(status);
        }
        ASSERT_EQ(results[0] + results[1], 27);
        const std::string bytes = readFile("main.conf");
        ASSERT_EQ(bytes, std::string("1.Configuration=/1.conf\n") +
                             (results[0] == 0 ? "5.Configuration=/0.conf\n5.Names=zero\n"
                                              : "5.Configuration=/one.conf\n5.Names=one\n"));
    }
}

// ---- what would change another section -----------------------------------------------------------

TEST(FaultConfigWriters, RefuseLinesThatWouldBeTakenForSeveral) {
    const std::string before = "8.DebugLevel=1\n";
    registerProduct(before);
    Record record("bill");
    for (const auto &[length, result] :
         {std::pair{499 - 16U, 0U}, std::pair{499 - 15U, 3U}, std::pair{510U, 3U}}) {
        writeFile("p.conf", before);
        zoltLogCfgSetL10nResource(&record.cfg,
                                  std::string(length, 'x').c_str()); // "7.L10nResource=" and a line feed
        EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), result) << length;
        EXPECT_EQ(readFile("p.conf") == before, result != 0);
    }
    const std::string mainFile = readFile("main.conf");
    EXPECT_EQ(zoltLogAddProductCfg(6, std::string(500, 'n').c_str(), "/6.conf"), 3U);
    EXPECT_EQ(zoltLogAddProductCfg(6, "six", ("/" + std::string(500, 'n')).c_str()), 3U);
    EXPECT_EQ(readFile("main.conf"), mainFile);
}

TEST(FaultConfigWriters, RefuseLogsetNamesThatNameSomethingElse) {
    registerProduct("");
    Record record("bill");
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    for (const char *name : {"Default.DebugLevel=6", "a=b", "a.b", "a/b", " a", "a ", "a\nb", "a\tb", "\x7F"})
        EXPECT_EQ(zoltLogWritelogSetCfg(5, name, &record.cfg), 3U) << name;
    EXPECT_EQ(readFile("p.conf"), "");
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "a b-c", &record.cfg), 0U);
}

// ---- what cannot be read ---------------------------------------------------------------------------

TEST(FaultConfigWriters, TellAFileThatCannotBeRead) {
    registerProduct("Default.LogDirectory=/d\n7.DebugLevel=3\nLOGSET.bill.DebugLevel=4\n");
    LogCfg cfg;
    for (const char *path : {"main.conf", "p.conf"}) {
        const FailingReads fault(path);
        EXPECT_EQ(zoltLogReadCfg(5, 7, &cfg), 6U) << path;
        zoltLogFreeCfg(&cfg);
        EXPECT_EQ(zoltLogReadlogsetCfg(5, "bill", &cfg), 6U) << path;
        zoltLogFreeCfg(&cfg);
        Record record;
        zoltLogCfgSetDebugLevel(&record.cfg, 1);
        EXPECT_NE(zoltLogWriteCfg(5, 7, &record.cfg), 0U) << path;
    }
    EXPECT_EQ(readFile("p.conf"), "Default.LogDirectory=/d\n7.DebugLevel=3\nLOGSET.bill.DebugLevel=4\n");
    EXPECT_EQ(zoltLogReadCfg(5, 7, &cfg), 0U);
    EXPECT_STREQ(cfg.directory, "/d/");
    zoltLogFreeCfg(&cfg);
    ASSERT_EQ(unlink("p.conf"), 0); // one that is not there reads as empty
    EXPECT_EQ(zoltLogReadCfg(5, 7, &cfg), 0U);
    zoltLogFreeCfg(&cfg);
}

TEST(FaultConfigWriters, LeaveAHandleItsLevelsWhenAReloadFails) {
    registerProduct("Default.LogDirectory=./\n7.DebugLevel=3\n7.DynaReloadInSec=60\n");
    LogHandle handle;
    ASSERT_EQ(zoltLogOpen(5, 7, &handle), 0U);
    const auto due = [&handle] { handle.lastReloadCheck -= 100, handle.cfgTimestamp = 1; };
    writeFile("p.conf", "Default.LogDirectory=./\n7.DebugLevel=5\n7.DynaReloadInSec=60\n");
    {
        const FailingReads fault("p.conf");
        due();
        failingRead = 0;
        EXPECT_EQ(zoltDynaLoadConfig(&handle), 0U);
        EXPECT_GT(failingRead, 0);
    }
    EXPECT_EQ(handle.debugLevel, 3U);
    EXPECT_EQ(handle.reloadInterval, 60U);
    handle.lastReloadCheck -= 100; // the file is as it was, and is read at the next interval
    EXPECT_EQ(zoltDynaLoadConfig(&handle), 0U);
    EXPECT_EQ(handle.debugLevel, 5U);
    EXPECT_EQ(zoltLogClose(&handle), 0U);
}

// ---- what is kept --------------------------------------------------------------------------------------

namespace {

// Version 2; user::rw-, user:1234:r--, group::---, mask::r--, other::---
const unsigned char ACCESS_LIST[] = {2,    0,    0,    0,    1,    0,    6,    0,    0xFF, 0xFF, 0xFF,
                                     0xFF, 2,    0,    4,    0,    0xD2, 4,    0,    0,    4,    0,
                                     0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0,    4,    0,    0xFF,
                                     0xFF, 0xFF, 0xFF, 0x20, 0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF};

} // namespace

TEST(FaultConfigWriters, KeepAccessLists) {
    writeFile("s.conf", "5.a=1\n");
    if (setxattr("s.conf", "system.posix_acl_access", ACCESS_LIST, sizeof ACCESS_LIST, 0) != 0)
        GTEST_SKIP() << "no access lists on this file system";
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    utiClosePropertyStore(&store);
    unsigned char now[256];
    ASSERT_EQ(getxattr("s.conf", "system.posix_acl_access", now, sizeof now),
              static_cast<ssize_t>(sizeof ACCESS_LIST));
    EXPECT_EQ(memcmp(now, ACCESS_LIST, sizeof ACCESS_LIST), 0);
}

TEST(FaultConfigWriters, RefuseAChangeThatWouldLoseAnAccessList) {
    writeFile("s.conf", "5.a=1\n");
    if (setxattr("s.conf", "system.posix_acl_access", ACCESS_LIST, sizeof ACCESS_LIST, 0) != 0)
        GTEST_SKIP() << "no access lists on this file system";
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), ZOLTLOG_STORE_OK);
    libc::fsetxattr.hook = [](int, const char *, const void *, size_t, int) {
        errno = EPERM;
        return -1;
    };
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), ZOLTLOG_STORE_NOT_CREATED);
    utiClosePropertyStore(&store);
    EXPECT_EQ(readFile("s.conf"), "5.a=1\n");
    EXPECT_EQ(getxattr("s.conf", "system.posix_acl_access", nullptr, 0),
              static_cast<ssize_t>(sizeof ACCESS_LIST));
    EXPECT_FALSE(exists("s.conf.tmp"));
}

// A list that the directory hands down is none of the old file's.
TEST(FaultConfigWriters, TakeNoAccessListFromTheDirectory) {
    const unsigned char list[] = {2,    0,    0,    0,    1,    0,    6,    0,    0xFF, 0xFF, 0xFF,
                                  0xFF, 2,    0,    7,    0,    0xD2, 4,    0,    0,    4,    0,
                                  0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0,    7,    0,    0xFF,
                                  0xFF, 0xFF, 0xFF, 0x20, 0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF};
    writeFile("s.conf", "5.a=1\n");
    ASSERT_EQ(chmod("s.conf", 0640), 0);
    if (setxattr(".", "system.posix_acl_default", list, sizeof list, 0) != 0)
        GTEST_SKIP() << "no access lists on this file system";
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    utiClosePropertyStore(&store);
    EXPECT_LT(getxattr("s.conf", "system.posix_acl_access", nullptr, 0), 0);
    struct stat status;
    ASSERT_EQ(stat("s.conf", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST(FaultConfigWriters, WriteTheTargetOfALinkToNowhere) {
    registerProduct("");
    ASSERT_EQ(unlink("p.conf"), 0);
    support::makeDirectory("elsewhere");
    ASSERT_EQ(symlink("elsewhere/target.conf", "p.conf"), 0);
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    struct stat status;
    ASSERT_EQ(lstat("p.conf", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_NE(readFile("elsewhere/target.conf").find("7.DebugLevel=3\n7.AppMsgLogging=ON\n"),
              std::string::npos);
}

// A registered file that was there is not begun anew with one key; a new product's is made.
TEST(FaultConfigWriters, DoNotBeginAKnownFileAnew) {
    registerProduct("7.DebugLevel=1\n");
    LogCfg cfg;
    ASSERT_EQ(zoltLogReadCfg(5, 7, &cfg), 0U);
    zoltLogFreeCfg(&cfg);
    ASSERT_EQ(rename("p.conf", "away"), 0);
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 6U);
    EXPECT_FALSE(exists("p.conf"));
    writeFile("main.conf", "5.Configuration=./new.conf\n");
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_TRUE(exists("new.conf"));
}
