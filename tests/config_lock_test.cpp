// The configuration operations hold the global lock under their own tags: seen at each
// file that they open meanwhile.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

std::set<std::string> *tags; // held at the opens so far; "none" without the lock

std::set<std::string> *renames; // tags held at the renames

void note(std::set<std::string> *held) {
    if (held != nullptr)
        held->insert(zoltLogMutex.depth > 0 ? zoltLogMutex.holders[zoltLogMutex.depth - 1].tag : "none");
}

const bool PREPARED = support::eachCase([] {
    tags = renames = nullptr;
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        note(tags);
        return libc::open.real(path, flags, mode);
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
