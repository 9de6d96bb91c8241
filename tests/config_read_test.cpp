// Reading the configuration: location, sections, keys, inheritance, collections.
#include "support/support.h"
#include "zoltlog.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

// Puts a main file that registers product 5 (names "five") and makes it the location.
void registerProduct(const std::string &more = "") {
    support::writeFile("main.conf", "5.Configuration=product.conf\n5.Names=five\n" + more);
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
}

} // namespace

TEST(ConfigRead, TheVariableOfTheFirstCallDecides) {
    setenv("ZOLTLOG_CFG_LOC", "one.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "one.conf");
    setenv("ZOLTLOG_CFG_LOC", "two.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "one.conf");
}

TEST(ConfigRead, WithoutTheVariableTheMainFileIsTheSystems) {
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
    setenv("ZOLTLOG_CFG_LOC", "late.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
}

TEST(ConfigRead, AnEmptyVariableCountsAsUnset) {
    setenv("ZOLTLOG_CFG_LOC", "", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
}

TEST(ConfigRead, AnOriginatorInheritsFromDefault) {
    registerProduct();
    support::writeFile("product.conf", "Default.LogDirectory=/var/log/x\nDefault.DebugLevel=3\n"
                                       "Default.RolloverMode=FileSize\n7.DebugLevel=5\n7.LogDirectory=sub\n");
    LogCfg cfg;
    ASSERT_EQ(zoltLogReadCfg(5, 7, &cfg), 0U);
    EXPECT_EQ(cfg.productId, 5U);
    EXPECT_EQ(cfg.originatorId, 7U);
    EXPECT_EQ(cfg.debugLevel, 5U);
    EXPECT_EQ(cfg.rolloverMode, 1U);
    EXPECT_STREQ(cfg.directory, "/var/log/x/sub/");
    EXPECT_STREQ(cfg.productShortNames, "five");
    EXPECT_EQ(cfg.changedMask, 0U);
    zoltLogFreeCfg(&cfg);
}
