// SPDX-License-Identifier: Apache-2.0
// Each operation of the configuration with a failure at each position: the first, second, ...
// allocation, opening, reading, writing, syncing or naming of a file fails, once or from then
// on. The result is the listed one, the files are the old ones or the new ones, nothing is
// kept, and the same call succeeds afterwards.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "support/failing_allocations.h"

// ---- what fails ----------------------------------------------------------------------------------

namespace {

struct Failure {
    const char *call; // "malloc", "read", ...
    int error;
    bool onwards; // all later ones too
    int number;   // from 1
};

const Failure *failure; // null: nothing fails
int calls;              // of that kind so far

bool fails(const char *call) {
    if (failure == nullptr || strcmp(call, failure->call) != 0)
        return false;
    ++calls;
    if (calls < failure->number || (calls > failure->number && !failure->onwards))
        return false;
    errno = failure->error;
    return true;
}

long waited; // nanoseconds that were slept, without any passing

const bool PREPARED = support::eachCase([] {
    failure = nullptr;
    waited = 0;
    libc::nanosleep.hook = [](const timespec *pause, timespec *) {
        waited += pause->tv_sec * 1000000000 + pause->tv_nsec;
        return 0;
    };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        const int result = libc::clock_gettime.real(clock, out);
        const long nanoseconds = out->tv_nsec + waited;
        *out = {out->tv_sec + nanoseconds / 1000000000, nanoseconds % 1000000000};
        return result;
    };
    support::allocationHook = [] { return fails("malloc"); };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        return fails("open") ? -1 : libc::open.real(path, flags, mode);
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        return fails("open") ? -1 : libc::openat.real(directory, path, flags, mode);
    };
    libc::read.hook = [](int descriptor, void *bytes, size_t size) -> ssize_t {
        return fails("read") ? -1 : libc::read.real(descriptor, bytes, size);
    };
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) -> ssize_t {
        return fails("write") ? -1 : libc::write.real(descriptor, bytes, size);
    };
    libc::fsync.hook = [](int) { return fails("fsync") ? -1 : 0; };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        return fails("fstat") ? -1 : libc::fstat.real(descriptor, status);
    };
    libc::fchmod.hook = [](int descriptor, mode_t mode) {
        return fails("fchmod") ? -1 : libc::fchmod.real(descriptor, mode);
    };
    libc::rename.hook = [](const char *from, const char *to) {
        return fails("name") ? -1 : libc::rename.real(from, to);
    };
    libc::link.hook = [](const char *from, const char *to) {
        return fails("name") ? -1 : libc::link.real(from, to);
    };
    libc::remove.hook = [](const char *path) { return fails("name") ? -1 : libc::remove.real(path); };
});

const char *const CALLS[] = {"malloc", "open", "read", "write", "fsync", "fstat", "fchmod", "name"};

// ---- the operations ------------------------------------------------------------------------------

const char MAIN[] = "5.Configuration=./p.conf\n5.Names=five\n6.Configuration=./q.conf\n"
                    "LoggingTools.L10nResourceDir=/res\n5.AppMsgLogging=true\n";
const char PRODUCT[] = "Default.LogDirectory=./\nDefault.L10nLib=lib\n7.OIDNames=a b\n7.L10nResource=res\n"
                       "7.DebugLevel=3\n7.DynaReloadInSec=60\nLOGSET.Default.DebugLevel=1\n"
                       "LOGSET.bill.FileName=b\nLOGSET.bill.DebugLevel=4\n";
const char OTHER[] = "Default.LogDirectory=/q\n";

using Files = std::map<std::string, std::string>;
const Files BEFORE = {{"main.conf", MAIN}, {"p.conf", PRODUCT}, {"q.conf", OTHER}};

using Results = std::set<uint32_t>;

struct Operation {
    const char *name;
    std::function<uint32_t()> call;
    std::function<void(uint32_t)> look; // at what it gave, which is released then
    Results failed;                     // besides that of an allocation, which is 4
    Files before, after;
    Results failedAllocation = {ZOLTLOG_NO_MEMORY};
};

LogCfg cfg;          // of reading
LogCfg change;       // of writing
LogCfg *records[16]; // of reading all
uint32_t count;
char *text;

const Results WRITING_FAILED = {ZOLTLOG_FAILED, ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_CFG_CREATE_FAILED};

void lookAtNothing(uint32_t) {}

void lookAtOriginator(uint32_t result) {
    if (result == ZOLTLOG_OK) {
        EXPECT_STREQ(cfg.directory, "./");
        EXPECT_STREQ(cfg.l10nLib, "lib");
        EXPECT_STREQ(cfg.l10nResource, "res");
        EXPECT_STREQ(cfg.originatorNames, "a b");
        EXPECT_STREQ(cfg.productShortNames, "five");
        EXPECT_EQ(cfg.debugLevel, 3U);
    }
    zoltLogFreeCfg(&cfg);
}

void lookAtLogset(uint32_t result) {
    if (result == ZOLTLOG_OK) {
        EXPECT_STREQ(cfg.logsetFilename, "b");
        EXPECT_EQ(cfg.debugLevel, 4U);
    }
    zoltLogFreeCfg(&cfg);
}

void lookAtRecords(uint32_t result) {
    for (uint32_t i = 0; i < count; ++i) {
        const bool isLogset = records[i]->isLogset != 0;
        EXPECT_TRUE(!isLogset ||
                    (records[i]->logsetName != nullptr && records[i]->logsetFilename != nullptr));
        if (records[i]->originatorId == 7) {
            EXPECT_STREQ(records[i]->l10nLib, "lib");
            EXPECT_EQ(records[i]->debugLevel, 3U);
        }
        zoltLogFreeCfg(records[i]);
        zoltLogFree(records[i]);
    }
    if (result == ZOLTLOG_NO_PRODUCT_CFG) {
        EXPECT_EQ(count, 0U);
    }
    count = 0;
}

void lookAtText(uint32_t result) {
    EXPECT_EQ(text == nullptr, result != ZOLTLOG_OK);
    zoltLogFree(text);
    text = nullptr;
}

Files with(const char *name, const std::string &content) {
    Files files = BEFORE;
    files[name] = content;
    return files;
}

std::string replaced(std::string content, const std::string &from, const std::string &to) {
    return content.replace(content.find(from), from.size(), to);
}

std::vector<Operation> readings() {
    return {
        {"zoltLogReadCfg",
         [] { return zoltLogReadCfg(5, 7, &cfg); },
         lookAtOriginator,
         {ZOLTLOG_CFG_NOT_FOUND},
         BEFORE,
         BEFORE},
        {"zoltLogReadlogsetCfg",
         [] { return zoltLogReadlogsetCfg(5, "bill", &cfg); },
         lookAtLogset,
         {ZOLTLOG_CFG_NOT_FOUND},
         BEFORE,
         BEFORE},
        {"zoltLogReadProdIDCfg",
         [] { return zoltLogReadProdIDCfg(nullptr, 5, 16, records, &count); },
         lookAtRecords,
         {ZOLTLOG_NO_PRODUCT_CFG},
         BEFORE,
         BEFORE},
        {"GetPropertyString",
         [] { return GetPropertyString("./p.conf", "7", "OIDNames", &text); },
         lookAtText,
         {ZOLTLOG_CFG_NOT_FOUND},
         BEFORE,
         BEFORE},
        {"zoltLogCfgGetToolsResDir",
         [] { return zoltLogCfgGetToolsResDir(&text); },
         lookAtText,
         {ZOLTLOG_CFG_NOT_FOUND},
         BEFORE,
         BEFORE},
        // the products that can be read are success; which ones the case below tells
        {"zoltLogReadAllCfg",
         [] { return zoltLogReadAllCfg(nullptr, 16, records, &count); },
         lookAtRecords,
         {ZOLTLOG_NO_PRODUCT_CFG, ZOLTLOG_OK},
         BEFORE,
         BEFORE},
        {"GetProductLoggingLevel",
         [] { return GetProductLoggingLevel("./main.conf", 5, &count); },
         lookAtNothing,
         {ZOLTLOG_CFG_NOT_FOUND},
         BEFORE,
         BEFORE,
         {ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_NO_MEMORY}},
    };
}

std::vector<Operation> writings() {
    const std::string levels = replaced(PRODUCT, "7.DebugLevel=3\n", "7.DebugLevel=5\n");
    const std::string after =
        replaced(levels, "7.DynaReloadInSec=60\n", "7.DynaReloadInSec=60\n7.AppMsgLogging=ON\n");
    return {
        {"zoltLogWriteCfg", [] { return zoltLogWriteCfg(5, 7, &change); }, lookAtNothing, WRITING_FAILED,
         BEFORE, with("p.conf", after)},
        {"zoltLogWritelogSetCfg", [] { return zoltLogWritelogSetCfg(5, "bill", &change); }, lookAtNothing,
         WRITING_FAILED, BEFORE,
         with("p.conf", replaced(PRODUCT, "LOGSET.bill.DebugLevel=4\n",
                                 "LOGSET.bill.DebugLevel=5\nLOGSET.bill.AppMsgLogging=ON\n"))},
    };
}

const char HEADER[] = "###############################################\n"
                      "# Caution! Do not update/modify file by hand. \n"
                      "# Use qdlogcfg tool to update/modify this file\n"
                      "###############################################\n";

std::vector<Operation> registrations() {
    const std::string added = "8.Configuration=./8.conf\n8.Names=eight\n";
    const Files none = {{"p.conf", PRODUCT}};
    const Files one = {{"main.conf", "8.Configuration=./8.conf\n8.Names=eight\n"}};
    return {
        {"zoltLogAddProductCfg", [] { return zoltLogAddProductCfg(8, "eight", "./8.conf"); }, lookAtNothing,
         WRITING_FAILED, BEFORE, with("main.conf", MAIN + added)},
        {"zoltLogAddProductCfg, the first",
         [] { return zoltLogAddProductCfg(8, "eight", "./8.conf"); },
         lookAtNothing,
         {ZOLTLOG_CFG_NOT_FOUND},
         none,
         Files{{"p.conf", PRODUCT}, {"main.conf", HEADER + added}}},
        {"zoltLogRemoveProductCfg", [] { return zoltLogRemoveProductCfg(6); }, lookAtNothing, WRITING_FAILED,
         BEFORE, with("main.conf", replaced(MAIN, "6.Configuration=./q.conf\n", ""))},
        {"zoltLogRemoveProductCfg, the last",
         [] { return zoltLogRemoveProductCfg(8); },
         lookAtNothing,
         WRITING_FAILED,
         one,
         {}},
    };
}

// ---- the test of one -------------------------------------------------------------------------------

void put(const Files &files) {
    for (const std::string &name : support::listFiles("."))
        unlink(name.c_str());
    for (const auto &[name, content] : files)
        support::writeFile(name, content);
}

// What is there, but for a temporary file of a writing that failed, which the next one removes.
Files present() {
    Files files;
    for (const std::string &name : support::listFiles("."))
        if (name.find(".tmp") == std::string::npos)
            files[name] = support::readFile(name);
    return files;
}

// Whether the operation got as far as the failure.
bool failAt(const Operation &operation, const Failure &what) {
    SCOPED_TRACE(std::string(operation.name) + ": " + what.call + " " + std::to_string(what.number) +
                 (what.onwards ? " and later: " : ": ") + strerror(what.error));
    put(operation.before);
    const size_t descriptors = support::openDescriptors();
    calls = 0;
    const long blocks = support::blocksHeld;
    failure = &what;
    const uint32_t result = operation.call();
    failure = nullptr;
    const bool reached = calls >= what.number;
    operation.look(result);
    EXPECT_EQ(support::blocksHeld, blocks);
    EXPECT_EQ(support::openDescriptors(), descriptors);
    EXPECT_EQ(zoltLogMutex.depth, 0);

    const Results &listed = strcmp(what.call, "malloc") == 0 ? operation.failedAllocation : operation.failed;
    EXPECT_TRUE(result == ZOLTLOG_OK || (reached && listed.count(result) == 1)) << result;
    EXPECT_EQ(present(), result == ZOLTLOG_OK ? operation.after : operation.before);

    put(operation.before);
    const uint32_t again = operation.call();
    operation.look(again);
    EXPECT_EQ(again, ZOLTLOG_OK);
    EXPECT_EQ(present(), operation.after);
    EXPECT_EQ(support::listFiles(".").size(), operation.after.size()); // no temporary file
    return reached;
}

// Results other than 0 that the failures of a kind gave.
using Seen = std::map<std::string, Results>;

Seen failEverywhere(const std::vector<Operation> &operations) {
    Seen seen;
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    for (const Operation &operation : operations) {
        for (const char *call : CALLS) {
            if (strcmp(call, "malloc") == 0 && !support::allocationsCanFail())
                continue;
            for (const int error : {EIO, EACCES, EMFILE, ENOSPC})
                for (const bool onwards : {false, true}) {
                    int number = 1;
                    while (failAt(operation,
                                  {call, strcmp(call, "malloc") == 0 ? ENOMEM : error, onwards, number}) &&
                           !testing::Test::HasFailure())
                        ++number;
                    if (number > 1)
                        seen[operation.name].insert(static_cast<uint32_t>(strcmp(call, "malloc") != 0));
                    EXPECT_LT(number, 500);
                    if (testing::Test::HasFailure())
                        return seen;
                }
        }
    }
    return seen;
}

// Each operation was made to fail at all, both ways.
void expectReached(const Seen &seen, const std::vector<Operation> &operations) {
    const Results both = support::allocationsCanFail() ? Results{0, 1} : Results{1};
    for (const Operation &operation : operations) {
        const auto found = seen.find(operation.name);
        EXPECT_TRUE(found != seen.end() && found->second == both) << operation.name;
    }
}

} // namespace

TEST(FaultConfigPositions, ReadingTellsEachFailure) {
    expectReached(failEverywhere(readings()), readings());
}

TEST(FaultConfigPositions, WritingLeavesTheOldFileOrTheNewOne) {
    InitLogCfg(5, 7, nullptr, &change);
    zoltLogCfgSetDebugLevel(&change, 5);
    expectReached(failEverywhere(writings()), writings());
    zoltLogFreeCfg(&change);
}

TEST(FaultConfigPositions, RegistrationIsWholeOrNone) {
    expectReached(failEverywhere(registrations()), registrations());
}

// ---- reload ------------------------------------------------------------------------------------------

namespace {

std::string productWithLevel(int level) {
    return "Default.LogDirectory=./\n7.DebugLevel=" + std::to_string(level) +
           "\n7.DiagnosticLevel=" + std::to_string(level) +
           "\n7.DynaReloadInSec=90\nLOGSET.bill.LogDirectory=./\nLOGSET.bill.DebugLevel=" +
           std::to_string(level) + "\nLOGSET.bill.DiagnosticLevel=" + std::to_string(level) +
           "\nLOGSET.bill.DynaReloadInSec=90\n";
}

void makeDue(LogHandle *handle) {
    handle->lastReloadCheck -= 1000;
}

// A reload that fails keeps levels and interval, and the next one takes the new ones.
void reloadEverywhere(bool ofLogset) {
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", productWithLevel(3));
    LogHandle handle;
    ASSERT_EQ(ofLogset ? zoltLogOpenLogSet(5, 7, "bill", &handle) : zoltLogOpen(5, 7, &handle), ZOLTLOG_OK);
    for (const char *call : {"malloc", "open", "read", "fstat"}) {
        if (strcmp(call, "malloc") == 0 && !support::allocationsCanFail())
            continue;
        for (const bool onwards : {false, true}) {
            bool reached = true;
            bool anyKept = false;
            for (int number = 1; reached; ++number) {
                SCOPED_TRACE(std::string(call) + " " + std::to_string(number));
                ASSERT_LT(number, 200);
                handle.debugLevel = handle.diagLevel = 3;
                handle.reloadInterval = 60;
                handle.cfgTimestamp = 1;
                support::writeFile("p.conf", productWithLevel(5));
                makeDue(&handle);
                const size_t descriptors = support::openDescriptors();
                const Failure what = {call, strcmp(call, "malloc") == 0 ? ENOMEM : EIO, onwards, number};
                calls = 0;
                const long blocks = support::blocksHeld;
                failure = &what;
                const uint32_t result = zoltDynaLoadConfig(&handle);
                failure = nullptr;
                reached = calls >= number;
                EXPECT_EQ(support::blocksHeld, blocks);
                EXPECT_EQ(support::openDescriptors(), descriptors);
                EXPECT_EQ(result, ZOLTLOG_OK);
                const bool isKept = handle.debugLevel == 3;
                EXPECT_EQ(handle.debugLevel, isKept ? 3U : 5U);
                EXPECT_EQ(handle.diagLevel, isKept ? 3U : 5U);
                EXPECT_EQ(handle.reloadInterval, isKept ? 60U : 90U);
                EXPECT_TRUE(reached || !isKept);
                anyKept = anyKept || isKept;
                makeDue(&handle); // the file is as it was
                EXPECT_EQ(zoltDynaLoadConfig(&handle), ZOLTLOG_OK);
                EXPECT_EQ(handle.debugLevel, 5U);
                EXPECT_EQ(handle.reloadInterval, 90U);
            }
            EXPECT_TRUE(anyKept) << call;
        }
    }
    EXPECT_EQ(zoltLogClose(&handle), ZOLTLOG_OK);
}

} // namespace

TEST(FaultConfigPositions, AReloadThatFailsKeepsLevelsAndInterval) {
    reloadEverywhere(false);
}

TEST(FaultConfigPositions, AReloadOfALogsetThatFailsKeepsLevelsAndInterval) {
    reloadEverywhere(true);
}
