// SPDX-License-Identifier: Apache-2.0
// Running out of memory while the configuration is read and written: a result, no crash, no
// record half owned, nothing lost of the file, and the same call succeeds afterwards.
#include "support/support.h"
#include "zoltlog.h"

#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>

#include "support/failing_allocations.h"

namespace {

const char PRODUCT_FILE[] =
    "Default.LogDirectory=/d\nDefault.L10nLib=lib\n7.OIDNames=a b\n7.L10nResource=res\n"
    "LOGSET.Default.DebugLevel=1\nLOGSET.bill.FileName=b\nLOGSET.bill.OIDDebugLogging=1\n";

void makeFiles() {
    support::writeFile("main.conf", "5.Configuration=./product.conf\n5.Names=five\n");
    support::writeFile("product.conf", PRODUCT_FILE);
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    (void)GetZoltLogCfgLoc();
}

// Calls the operation with its 1st, 2nd, ... allocation failing until none is left to fail.
// check sees each result and whether an allocation failed.
void failEach(const std::function<uint32_t()> &call, const std::function<void(uint32_t, bool)> &check) {
    long passing = 0;
    for (bool happened = true; happened; ++passing) {
        SCOPED_TRACE(passing);
        const size_t descriptors = support::openDescriptors();
        uint32_t result = 0;
        {
            const support::FailingAllocation fault(passing);
            result = call();
            happened = support::FailingAllocation::happened();
        }
        check(result, happened);
        EXPECT_EQ(zoltLogMutex.depth, 0);
        EXPECT_EQ(support::openDescriptors(), descriptors);
        ASSERT_LT(passing, 1000);
    }
    EXPECT_GT(passing, 1);
}

#define NEEDS_FAILING_ALLOCATIONS()                                                                          \
    if (!support::allocationsCanFail())                                                                      \
    GTEST_SKIP() << "the sanitizer has its own allocator"

} // namespace

TEST(FaultConfigMemory, ReadingOneRecord) {
    NEEDS_FAILING_ALLOCATIONS();
    makeFiles();
    LogCfg cfg;
    failEach([&cfg] { return zoltLogReadCfg(5, 7, &cfg); },
             [&cfg](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U); // never the defaults
                 EXPECT_EQ(zoltLogFreeCfg(&cfg), 0U);
             });
    failEach([&cfg] { return zoltLogReadlogsetCfg(5, "bill", &cfg); },
             [&cfg](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U);
                 EXPECT_EQ(zoltLogFreeCfg(&cfg), 0U);
             });
}

TEST(FaultConfigMemory, ReadingAllRecords) {
    NEEDS_FAILING_ALLOCATIONS();
    makeFiles();
    LogCfg *cfgs[8];
    uint32_t count = 0;
    failEach([&] { return zoltLogReadAllCfg(nullptr, 8, cfgs, &count); },
             [&](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U);
                 EXPECT_LE(count, 4U);
                 for (uint32_t i = 0; i < count; ++i) {
                     EXPECT_TRUE(cfgs[i]->isLogset == 0 ||
                                 (cfgs[i]->logsetName != nullptr && cfgs[i]->logsetFilename != nullptr));
                     zoltLogFreeCfg(cfgs[i]);
                     zoltLogFree(cfgs[i]);
                 }
                 if (!failed) {
                     EXPECT_EQ(count, 4U);
                 }
             });
}

TEST(FaultConfigMemory, RecordsAndAccessors) {
    NEEDS_FAILING_ALLOCATIONS();
    LogCfg cfg;
    failEach([&cfg] { return InitLogCfg(5, 0, "bill", &cfg); },
             [&cfg](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U);
                 EXPECT_EQ(zoltLogFreeCfg(&cfg), 0U);
             });
    InitLogCfg(5, 7, nullptr, &cfg);
    zoltLogCfgSetL10nLib(&cfg, "a");
    zoltLogCfgSetL10nResource(&cfg, "b");
    zoltLogCfgSetL10nResourceDir(&cfg, "c");
    LogCfg copy;
    failEach([&] { return CopyCfg(&copy, &cfg); },
             [&copy](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U);
                 EXPECT_EQ(copy.l10nLib == nullptr, failed);
                 EXPECT_EQ(zoltLogFreeCfg(&copy), 0U);
             });
    cfg.changedMask = 0;
    failEach([&cfg] { return zoltLogCfgSetL10nLib(&cfg, "new"); },
             [&cfg](uint32_t result, bool failed) {
                 EXPECT_EQ(result, failed ? 4U : 0U);
                 EXPECT_STREQ(cfg.l10nLib, failed ? "a" : "new");
                 EXPECT_EQ(cfg.changedMask, failed ? 0U : 4U);
             });
    char *text = nullptr;
    for (const auto getter : {zoltLogCfgGetL10nResource, zoltLogCfgGetL10nLib, zoltLogCfgGetSyslogIdent}) {
        failEach([&] { return getter(&cfg, &text); },
                 [&text](uint32_t result, bool failed) {
                     EXPECT_EQ(result, failed ? 4U : 0U);
                     EXPECT_EQ(text == nullptr, failed);
                     zoltLogFree(text);
                 });
    }
    failEach([&] { return zoltLogCfgGetDirectory(&cfg, &text); },
             [&text](uint32_t result, bool failed) {
                 EXPECT_EQ(result, 0U); // also then
                 EXPECT_EQ(text == nullptr, failed);
                 zoltLogFree(text);
             });
    zoltLogFreeCfg(&cfg);
}

TEST(FaultConfigMemory, WritingLeavesAWholeFile) {
    NEEDS_FAILING_ALLOCATIONS();
    makeFiles();
    LogCfg cfg;
    InitLogCfg(5, 7, nullptr, &cfg);
    zoltLogCfgSetDirectory(&cfg, "/new", nullptr);
    failEach([&cfg] { return zoltLogWriteCfg(5, 7, &cfg); },
             [](uint32_t result, bool failed) {
                 const std::string now = support::readFile("product.conf");
                 const bool isOld = now == PRODUCT_FILE;
                 EXPECT_TRUE(failed || result == 0);
                 EXPECT_NE(now.find("7.L10nResource=res\n"), std::string::npos);
                 if (result == 0) {
                     EXPECT_NE(now.find("7.LogDirectory=/new/\n"), std::string::npos);
                 }
                 if (!isOld)
                     support::writeFile("product.conf", PRODUCT_FILE);
             });
    zoltLogFreeCfg(&cfg);
    failEach([] { return zoltLogAddProductCfg(6, "six", "/six.conf"); },
             [](uint32_t result, bool failed) {
                 const std::string now = support::readFile("main.conf");
                 EXPECT_TRUE(failed || result == 0);
                 EXPECT_NE(now.find("5.Configuration=./product.conf\n"), std::string::npos);
                 makeFiles();
             });
}
