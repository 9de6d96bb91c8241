// SPDX-License-Identifier: Apache-2.0
// The configuration operations hold the global lock under their own tags: seen at each
// file that they open meanwhile.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <unistd.h>

namespace {

std::set<std::string> *tags; // held at the opens so far; "none" without the lock

std::set<std::string> *renames; // tags held at the renames

void note(std::set<std::string> *held) {
    if (held != nullptr)
        held->insert(zoltLogMutex.depth > 0 ? zoltLogMutex.holders[zoltLogMutex.depth - 1].tag : "none");
}

// Calls that may take long, by name, and those of them while the lock was held.
std::map<std::string, int> *slow;
std::set<std::string> *slowWhileHeld;

void noteSlow(const char *call) {
    if (slow == nullptr)
        return;
    ++(*slow)[call];
    if (zoltLogMutex.depth > 0)
        slowWhileHeld->insert(call);
}

const bool PREPARED = support::eachCase([] {
    tags = renames = nullptr;
    slow = nullptr;
    slowWhileHeld = nullptr;
    libc::fsync.hook = [](int) {
        noteSlow("fsync");
        return 0;
    };
    libc::nanosleep.hook = [](const timespec *pause, timespec *left) {
        noteSlow("nanosleep");
        return libc::nanosleep.real(pause, left);
    };
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) {
        noteSlow("write");
        return libc::write.real(descriptor, bytes, size);
    };
    libc::fcntl.hook = [](int descriptor, int command, void *argument) {
        if (command == F_OFD_SETLK)
            noteSlow("lock");
        return libc::fcntl.real(descriptor, command, argument);
    };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        note(tags);
        return libc::open.real(path, flags, mode);
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        note(tags);
        return libc::openat.real(directory, path, flags, mode);
    };
    libc::rename.hook = [](const char *from, const char *to) {
        note(renames);
        return libc::rename.real(from, to);
    };
});

using Tags = std::set<std::string>;

Tags heldDuring(const std::function<uint32_t()> &operation) {
    Tags seen;
    tags = &seen;
    EXPECT_EQ(operation(), 0U);
    tags = nullptr;
    EXPECT_EQ(zoltLogMutex.depth, 0);
    return seen;
}

void collect(uint32_t (*read)(LogCfg **, uint32_t *), const char *tag) {
    LogCfg *cfgs[9];
    uint32_t count = 0;
    EXPECT_EQ(heldDuring([&] { return read(cfgs, &count); }), Tags{tag});
    while (count > 0) {
        --count;
        zoltLogFreeCfg(cfgs[count]);
        zoltLogFree(cfgs[count]);
    }
}

} // namespace

TEST(ConfigLock, ReadingHoldsItThroughout) {
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", "7.DebugLevel=1\nLOGSET.bill.DebugLevel=1\n");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    LogCfg cfg;
    EXPECT_EQ(heldDuring([&] { return zoltLogReadCfg(5, 7, &cfg); }), Tags{"zoltLogReadCfg()"});
    zoltLogFreeCfg(&cfg);
    EXPECT_EQ(heldDuring([&] { return zoltLogReadlogsetCfg(5, "bill", &cfg); }),
              Tags{"zoltLogReadlogsetCfg()"});
    zoltLogFreeCfg(&cfg);
    collect([](LogCfg **cfgs, uint32_t *count) { return zoltLogReadProdIDCfg(nullptr, 5, 9, cfgs, count); },
            "zoltLogReadProdIDCfg()");
    collect([](LogCfg **cfgs, uint32_t *count) { return zoltLogReadAllCfg(nullptr, 9, cfgs, count); },
            "zoltLogReadAllCfg()");
}

// What takes time happens without it: waiting for other writers, and the disk.
TEST(ConfigLock, WritingHoldsItWhileALocationIsReadAndAFileTakesItsName) {
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", "7.DebugLevel=1\n");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    LogCfg cfg;
    InitLogCfg(5, 7, "bill", &cfg);
    zoltLogCfgSetDebugLevel(&cfg, 3);
    Tags named;
    renames = &named;
    EXPECT_EQ(heldDuring([&] { return zoltLogWriteCfg(5, 7, &cfg); }), (Tags{"none", "zoltLogWriteCfg()"}));
    EXPECT_EQ(named, Tags{"zoltLogWriteCfg()"});
    named.clear();
    EXPECT_EQ(heldDuring([&] { return zoltLogWritelogSetCfg(5, "bill", &cfg); }),
              (Tags{"none", "zoltLogWritelogSetCfg()"}));
    EXPECT_EQ(named, Tags{"zoltLogWritelogSetCfg()"});
    zoltLogFreeCfg(&cfg);
    named.clear();
    EXPECT_EQ(heldDuring([] { return zoltLogAddProductCfg(6, "six", "./p.conf"); }), Tags{"none"});
    EXPECT_EQ(named, Tags{"zoltLogAddProductCfg"});
    named.clear();
    EXPECT_EQ(heldDuring([] { return zoltLogRemoveProductCfg(6); }), Tags{"none"});
    EXPECT_EQ(named, Tags{"zoltLogRemoveProductCfg"});
    renames = nullptr;
}

// Whatever is written, synced, locked or waited for, other threads of the process log meanwhile.
TEST(ConfigLock, NothingThatMayTakeLongIsDoneWhileItIsHeld) {
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", "7.DebugLevel=1\n");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    LogCfg cfg;
    InitLogCfg(5, 7, "bill", &cfg);
    zoltLogCfgSetDebugLevel(&cfg, 3);
    const std::function<uint32_t()> operations[] = {
        [&cfg] { return zoltLogWriteCfg(5, 7, &cfg); },
        [&cfg] { return zoltLogWritelogSetCfg(5, "bill", &cfg); },
        [] { return zoltLogAddProductCfg(6, "six", "./p.conf"); },
        [] { return zoltLogRemoveProductCfg(6); },
        [] { return zoltLogRemoveProductCfg(5); }, // the file goes with the last one
        [] { return zoltLogAddProductCfg(5, "five", "./p.conf"); },
    };
    std::map<std::string, int> seen;
    std::set<std::string> held;
    slow = &seen;
    slowWhileHeld = &held;
    for (const auto &operation : operations) {
        seen.clear();
        EXPECT_EQ(operation(), ZOLTLOG_OK);
        EXPECT_GT(seen["lock"], 0);
    }
    EXPECT_GT(seen["write"], 0);
    EXPECT_GT(seen["fsync"], 0);
    EXPECT_GT(seen["nanosleep"], 0); // a file that is not there is waited for a moment
    EXPECT_EQ(rename("p.conf", "away"), 0);
    seen.clear();
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &cfg), ZOLTLOG_CFG_NOT_FOUND); // it was there before
    EXPECT_GT(seen["nanosleep"], 0);
    EXPECT_EQ(held, std::set<std::string>{});
    slow = nullptr;
    zoltLogFreeCfg(&cfg);
}
