// SPDX-License-Identifier: Apache-2.0
// Reading the configuration: location, sections, keys, inheritance, collections.
#include "src/config_keys.h"
#include "support/cases.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "config_keys.h"

namespace {

// Puts a main file that registers product 5 (names "five") and makes it the location.
void registerProduct(const std::string &more = "") {
    support::writeFile("main.conf", "5.Configuration=product.conf\n5.Names=five\n" + more);
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
}

void writeProduct(const std::string &bytes) {
    (void)unlink("product.conf"); // a new file costs less than an emptied one
    support::writeFile("product.conf", bytes);
}

} // namespace

FRESH_TEST(ConfigRead, TheVariableOfTheFirstCallDecides) {
    setenv("ZOLTLOG_CFG_LOC", "one.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "one.conf");
    setenv("ZOLTLOG_CFG_LOC", "two.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "one.conf");
}

FRESH_TEST(ConfigRead, WithoutTheVariableTheMainFileIsTheSystems) {
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
    setenv("ZOLTLOG_CFG_LOC", "late.conf", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
}

FRESH_TEST(ConfigRead, AnEmptyVariableCountsAsUnset) {
    setenv("ZOLTLOG_CFG_LOC", "", 1);
    EXPECT_STREQ(GetZoltLogCfgLoc(), "/etc/qd/zoltlog.conf");
}

// ---- keys ------------------------------------------------------------------------------

namespace {

using config_keys::Value;
using config_keys::VALUES;

std::string show(const char *text) {
    return config_keys::shown(text);
}

// A record's settings by the name of the key that fills them.
std::string field(const LogCfg &cfg, const std::string &key) {
    return config_keys::keyOf(key).field(cfg);
}

std::string everyField(const LogCfg &cfg) {
    std::string all = std::to_string(cfg.productId) + "/" + std::to_string(cfg.originatorId) + "/" +
                      show(cfg.logsetName) + "/" + std::to_string(cfg.isLogset) + "/" +
                      cfg.productShortNames + "/" + std::to_string(cfg.changedMask) + "/" +
                      std::to_string(cfg.removedMask);
    for (const CfgKey &key : CFG_KEYS)
        all += std::string(" ") + key.name + "=" + field(cfg, key.name);
    return all;
}

// A record of a scope, read from product.conf.
struct Read {
    LogCfg cfg = {};
    Read() = default;
    ~Read() { zoltLogFreeCfg(&cfg); }
    Read(const Read &) = delete;
    Read &operator=(const Read &) = delete;

    uint32_t originator(uint64_t id) {
        zoltLogFreeCfg(&cfg);
        return zoltLogReadCfg(5, id, &cfg);
    }
    uint32_t logset(const char *name) {
        zoltLogFreeCfg(&cfg);
        return zoltLogReadlogsetCfg(5, name, &cfg);
    }
};

} // namespace

TEST(ConfigRead, EveryValueOfEveryKeyOfAnOriginator) {
    registerProduct();
    for (const Value &value : VALUES) {
        for (const char *section : {"Default", "7"}) {
            SCOPED_TRACE(std::string(section) + "." + value.key + "=" + value.text);
            writeProduct(std::string(section) + "." + value.key + "=" + value.text + "\n");
            Read read;
            ASSERT_EQ(read.originator(7), 0U);
            EXPECT_EQ(field(read.cfg, value.key), value.field);
            EXPECT_EQ(read.cfg.changedMask, 0U);
            EXPECT_EQ(read.cfg.removedMask, 0U);
            EXPECT_EQ(read.cfg.isLogset, 0U);
        }
    }
}

TEST(ConfigRead, EveryValueOfEveryKeyOfALogset) {
    registerProduct();
    for (const Value &value : VALUES) {
        for (const char *section : {"LOGSET.Default", "LOGSET.bill"}) {
            SCOPED_TRACE(std::string(section) + "." + value.key + "=" + value.text);
            // the last line makes sure that the named log set has a key
            writeProduct(std::string(section) + "." + value.key + "=" + value.text +
                         "\nLOGSET.bill.FileName=f\n");
            Read read;
            ASSERT_EQ(read.logset("bill"), 0U);
            const bool isRead = config_keys::keyOf(value.key).readLogset;
            EXPECT_EQ(field(read.cfg, value.key), isRead ? value.field : "(null)");
            EXPECT_STREQ(read.cfg.logsetName, "bill");
            EXPECT_STREQ(read.cfg.logsetFilename, "f");
            EXPECT_EQ(read.cfg.isLogset, 1U);
            EXPECT_EQ(read.cfg.originatorId, 0U);
            EXPECT_EQ(read.cfg.changedMask, 0U);
        }
    }
}

TEST(ConfigRead, EveryKeyOfTheTableHasAValueHere) {
    for (const CfgKey &key : CFG_KEYS) {
        const bool isTried = std::any_of(std::begin(VALUES), std::end(VALUES), [&key](const Value &value) {
            return key.name == std::string(value.key);
        });
        EXPECT_TRUE(isTried || std::string(key.name) == "FileName") << key.name;
    }
}

TEST(ConfigRead, AValueThatIsSkippedLeavesTheInheritedOne) {
    registerProduct();
    const struct {
        const char *key, *inherited, *skipped, *field;
    } rows[] = {
        {"OIDNames", "names", "", "names"},
        {"L10nLib", "lib", "", "lib"},
        {"L10nResource", "res", "", "res"},
        {"L10nResourceDir", "dir", "", "dir"},
        {"DebugLevel", "3", "7", "3"},
        {"DiagnosticLevel", "3", "7", "3"},
        {"DynaReloadInSec", "90", "2147483648", "90"},
        {"OIDAppMsgLogging", "1", "", "1"},
        {"OIDDebugLogging", "1", "", "1"},
        {"OIDDiagLogging", "1", "", "1"},
        {"MaxLogFileSizeKB", "5", "0", "5"},
        {"RolloverAtLocalTime", "01:01", "24:00", "3660"},
        {"RolloverAtLocalTime", "01:01", "12:60", "3660"},
        {"RolloverAtLocalTime", "01:01", "-1:00", "3660"},
        {"RolloverAtLocalTime", "01:01", "1:-1", "3660"},
        {"RolloverAtLocalTime", "01:01", "noon", "3660"},
        {"RolloverAtLocalTime", "01:01", "12", "3660"},
        {"RolloverAtLocalTime", "01:01", "12 :30", "3660"},
        {"RolloverAtLocalTime", "01:01", ":30", "3660"},
        {"RolloverAtLocalTime", "01:01", "12:", "3660"},
        {"RolloverAtLocalTime", "01:01", "99999999999999999999:0", "3660"},
        {"RolloverAtLocalTime", "01:01", "-18446744073709551615:0", "3660"},
        {"RolloverPeriodInSeconds", "60", "0", "60"},
        {"NumberOfLogFiles", "3", "0", "3"},
        {"LogFilePermissions", "640", "755", "416"},
        {"LogDirectory", "/d", "", "/d/"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + "=" + row.skipped);
        writeProduct(std::string("Default.") + row.key + "=" + row.inherited + "\n7." + row.key + "=" +
                     row.skipped + "\n7.LogToStdout=true\n");
        Read read;
        ASSERT_EQ(read.originator(7), 0U);
        EXPECT_EQ(field(read.cfg, row.key), row.field);
        EXPECT_EQ(read.cfg.outputFlags, ZOLTLOG_OUT_STDOUT); // the rest of the section is read
    }
}

TEST(ConfigRead, ADirectoryIsInheritedOrReplaced) {
    registerProduct();
    const struct {
        const char *defaults, *own, *directory;
    } rows[] = {
        {"/var/log/x/", "sub", "/var/log/x/sub/"},
        {"/var/log/x", "sub/", "/var/log/x/sub/"},
        {"/var/log/x/", "/abs", "/abs/"},
        {"relative", "sub", "relative/sub/"},
        {"/d", "", "/d/"},
        {"", "sub", "sub/"},
        {"/d", "..", "/d/../"},
    };
    for (const auto &row : rows) {
        writeProduct(std::string("Default.LogDirectory=") + row.defaults + "\n7.LogDirectory=" + row.own +
                     "\nLOGSET.Default.LogDirectory=" + row.defaults + "\nLOGSET.s.LogDirectory=" + row.own +
                     "\n");
        Read read;
        ASSERT_EQ(read.originator(7), 0U);
        EXPECT_STREQ(read.cfg.directory, row.directory);
        ASSERT_EQ(read.logset("s"), 0U);
        EXPECT_STREQ(read.cfg.directory, row.directory);
    }
}

TEST(ConfigRead, ADirectoryThatDoesNotFitIsSkipped) {
    writeProduct("7.LogDirectory=" + std::string(399, 'b') + "\n");
    LogCfg cfg;
    ASSERT_EQ(InitLogCfg(5, 7, nullptr, &cfg), 0U);
    for (const size_t length : {400, 800, 800}) {
        EXPECT_EQ(GetOriginatorCfgSettings("product.conf", "7", &cfg), 0U);
        EXPECT_EQ(strlen(cfg.directory), length);
    }
    zoltLogFreeCfg(&cfg);
}

TEST(ConfigRead, NumbersDoNotDependOnTheLocale) {
    registerProduct();
    writeProduct("Default.MaxLogFileSizeKB=1.500\nDefault.RolloverAtLocalTime=01:01\n"
                 "Default.LogToStdout=true\nDefault.NumberOfLogFiles=1,5\n");
    for (const char *locale : {"C", "de_DE.UTF-8", "tr_TR.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(locale));
        Read read;
        ASSERT_EQ(read.originator(112), 0U);
        EXPECT_EQ(read.cfg.maxFileSizeKB, 1U);
        EXPECT_EQ(read.cfg.numberOfLogFiles, 1U);
        EXPECT_EQ(read.cfg.rolloverTime, 3660U);
        EXPECT_EQ(read.cfg.outputFlags, ZOLTLOG_OUT_STDOUT);
    }
}

// ---- one originator ------------------------------------------------------------------------

TEST(ConfigRead, AnOriginatorInheritsFromDefault) {
    registerProduct();
    writeProduct(
        "7.DebugLevel=5\nDefault.DebugLevel=3\nDefault.RolloverMode=FileSize\nDefault.LogRecycle=true\n"
        "7.LogRecycle=false\nDefault.LogToStdout=true\n");
    Read read;
    ASSERT_EQ(read.originator(7), 0U);
    EXPECT_EQ(read.cfg.productId, 5U);
    EXPECT_EQ(read.cfg.originatorId, 7U);
    EXPECT_EQ(read.cfg.debugLevel, 5U);
    EXPECT_EQ(read.cfg.rolloverMode, ZOLTLOG_ROLLOVER_FILE_SIZE);
    EXPECT_EQ(read.cfg.logRecycling, 0U);
    EXPECT_EQ(read.cfg.outputFlags, ZOLTLOG_OUT_STDOUT);
    EXPECT_STREQ(read.cfg.productShortNames, "five");
}

TEST(ConfigRead, TheDefaultOriginatorReadsOnlyItsSection) {
    registerProduct();
    writeProduct("Default.DebugLevel=1\n112.DebugLevel=2\n");
    Read read;
    ASSERT_EQ(read.originator(112), 0U);
    EXPECT_EQ(read.cfg.debugLevel, 1U);
    EXPECT_EQ(read.cfg.originatorId, 112U);
}

TEST(ConfigRead, AbsentSectionsReadAsEmpty) {
    registerProduct();
    writeProduct("6.DebugLevel=1\n");
    Read read;
    ASSERT_EQ(read.originator(7), 0U);
    LogCfg fresh;
    InitLogCfg(5, 7, nullptr, &fresh);
    std::snprintf(fresh.productShortNames, sizeof fresh.productShortNames, "%s", "five");
    EXPECT_EQ(everyField(read.cfg), everyField(fresh));
    zoltLogFreeCfg(&fresh);
    ASSERT_EQ(unlink("product.conf"), 0);
    EXPECT_EQ(read.originator(7), 0U); // a missing product file as well
}

TEST(ConfigRead, ResultsOfReadingOneOriginator) {
    registerProduct("6.Names=six\n");
    LogCfg cfg = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadCfg(0, 7, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadCfg(5, 0, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadCfg(5, 7, nullptr));
    LogCfg fresh;
    InitLogCfg(6, 7, nullptr, &fresh);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogReadCfg(6, 7, &cfg)); // no "Configuration"
    EXPECT_EQ(everyField(cfg), everyField(fresh));
    zoltLogFreeCfg(&cfg);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogReadCfg(9, 7, &cfg));
    zoltLogFreeCfg(&cfg);
    ASSERT_EQ(unlink("main.conf"), 0);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogReadCfg(5, 7, &cfg));
    zoltLogFreeCfg(&cfg);
    zoltLogFreeCfg(&fresh);
}

TEST(ConfigRead, ReadingLeavesTheLockFree) {
    registerProduct();
    writeProduct("");
    Read read;
    read.originator(7);
    EXPECT_EQ(zoltLogMutex.depth, 0);
    read.logset("x");
    EXPECT_EQ(zoltLogMutex.depth, 0);
    LogCfg *cfgs[4];
    uint32_t count = 0;
    zoltLogReadAllCfg(nullptr, 0, cfgs, &count);
    zoltLogReadProdIDCfg(nullptr, 5, 0, cfgs, &count);
    EXPECT_EQ(zoltLogMutex.depth, 0);
    EXPECT_EQ(zoltLogMutex.initialized, 1);
}

// ---- one log set -------------------------------------------------------------------------------

TEST(ConfigRead, ALogsetInheritsFromTheDefaultLogset) {
    registerProduct();
    writeProduct("Default.DebugLevel=6\nLOGSET.Default.DebugLevel=2\n"
                 "LOGSET.Default.FileName=common\nLOGSET.Default.LogRecycle=true\n"
                 "LOGSET.bill.DiagnosticLevel=4\nLOGSET.own.FileName=mine\nLOGSET.blank.FileName=\n");
    Read read;
    ASSERT_EQ(read.logset("Default"), 0U);
    EXPECT_EQ(read.cfg.debugLevel, 2U);
    EXPECT_STREQ(read.cfg.logsetName, "Default");
    EXPECT_STREQ(read.cfg.logsetFilename, "common");
    EXPECT_STREQ(read.cfg.productShortNames, "five");
    ASSERT_EQ(read.logset("bill"), 0U);
    EXPECT_EQ(read.cfg.debugLevel, 2U);
    EXPECT_EQ(read.cfg.diagLevel, 4U);
    EXPECT_EQ(read.cfg.logRecycling, 1U);
    EXPECT_STREQ(read.cfg.logsetName, "bill");
    EXPECT_STREQ(read.cfg.logsetFilename, "bill"); // no "FileName" of its own
    ASSERT_EQ(read.logset("own"), 0U);
    EXPECT_STREQ(read.cfg.logsetFilename, "mine");
    EXPECT_EQ(read.cfg.productId, 5U);
    EXPECT_EQ(read.cfg.originatorId, 0U);
    ASSERT_EQ(read.logset("blank"), 0U);
    EXPECT_STREQ(read.cfg.logsetFilename, "common"); // present, so no fall back; empty, so skipped
}

TEST(ConfigRead, AFileNameThatCannotBeConvertedCountsAsAbsent) {
    registerProduct();
    writeProduct("LOGSET.Default.FileName=base\nLOGSET.bill.FileName=bad\xFF\nLOGSET.bill.DebugLevel=1\n");
    Read read;
    ASSERT_EQ(read.logset("bill"), 0U);
    EXPECT_STREQ(read.cfg.logsetFilename, "bill"); // not the base's
}

TEST(ConfigRead, ResultsOfReadingOneLogset) {
    registerProduct("6.Names=six\n");
    writeProduct("LOGSET.bill.DebugLevel=1\nLOGSET.odd.unknown=1\nLOGSET.bad.DebugLevel=9\n");
    Read read;
    EXPECT_EQ(read.logset("bill"), 0U); // although the default log set has no key
    EXPECT_EQ(read.logset("Default"), 6U);
    EXPECT_EQ(read.logset("missing"), 6U);
    EXPECT_EQ(read.logset("odd"), 6U);
    EXPECT_EQ(read.logset("bad"), 0U); // found, whatever its value
    EXPECT_EQ(read.cfg.debugLevel, 0U);
    EXPECT_EQ(read.logset("default"), 6U);
    EXPECT_EQ(read.logset(""), 6U);
    LogCfg cfg = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadlogsetCfg(0, "bill", &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadlogsetCfg(5, nullptr, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadlogsetCfg(5, "bill", nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogReadlogsetCfg(6, "bill", &cfg));
    EXPECT_STREQ(cfg.logsetName, "bill");
    zoltLogFreeCfg(&cfg);
}

TEST(ConfigRead, LogsetsOfALocationThatIsNoFileHaveAStoreOfTheirOwn) {
    support::writeFile("main.conf", "5.Configuration=where\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    support::writeFile("where\\LOGSET",
                       "Default.DebugLevel=2\nDefault.FileName=common\nbill.DiagnosticLevel=4\n");
    support::writeFile("where", "Default.DebugLevel=5\n");
    Read read;
    ASSERT_EQ(read.logset("bill"), 0U);
    EXPECT_EQ(read.cfg.debugLevel, 2U);
    EXPECT_EQ(read.cfg.diagLevel, 4U);
    EXPECT_STREQ(read.cfg.logsetName, "bill");
    EXPECT_STREQ(read.cfg.logsetFilename, "bill");
    ASSERT_EQ(read.logset("Default"), 0U);
    EXPECT_STREQ(read.cfg.logsetFilename, "common");
    EXPECT_EQ(read.logset("missing"), 6U);
    EXPECT_STREQ(read.cfg.logsetName, "missing");
    ASSERT_EQ(read.originator(112), 0U);
    EXPECT_EQ(read.cfg.debugLevel, 5U);
}

TEST(ConfigRead, TheSettingsOfASectionAreCounted) {
    writeProduct("LOGSET.s.DebugLevel=9\nLOGSET.s.FileName=f\nLOGSET.s.SyslogOpt=1\nLOGSET.s.L10nLib=x\n"
                 "LOGSET.s.LogFilePermissions=755\n7.DebugLevel=3\n7.FileName=f\n");
    LogCfg cfg;
    InitLogCfg(5, 0, nullptr, &cfg);
    EXPECT_EQ(GetLogSetCfgSettings("product.conf", "s", &cfg), 4U);
    EXPECT_EQ(cfg.isLogset, 1U);
    EXPECT_STREQ(cfg.logsetName, "s");
    EXPECT_STREQ(cfg.logsetFilename, "f");
    EXPECT_EQ(cfg.l10nLib, nullptr);
    EXPECT_EQ(GetLogSetCfgSettings("product.conf", "none", &cfg), 0U);
    EXPECT_STREQ(cfg.logsetName, "none");
    EXPECT_EQ(GetLogSetCfgSettings("missing.conf", "s", &cfg), 0U);
    EXPECT_EQ(GetLogSetCfgSettings(nullptr, "s", &cfg), 0U);
    EXPECT_EQ(GetLogSetCfgSettings("product.conf", "s", nullptr), 0U);
    zoltLogFreeCfg(&cfg);
    InitLogCfg(5, 7, nullptr, &cfg);
    EXPECT_EQ(GetOriginatorCfgSettings("product.conf", "7", &cfg), 0U);
    EXPECT_EQ(cfg.debugLevel, 3U);
    EXPECT_EQ(cfg.logsetFilename, nullptr); // no key of an originator
    EXPECT_EQ(GetOriginatorCfgSettings("missing.conf", "7", &cfg), 0U);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetOriginatorCfgSettings(nullptr, "7", &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetOriginatorCfgSettings("product.conf", nullptr, &cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetOriginatorCfgSettings("product.conf", "7", nullptr));
    zoltLogFreeCfg(&cfg);
}

// ---- single texts ---------------------------------------------------------------------------------

TEST(ConfigRead, SingleTextsAreFoundByFileSectionAndKey) {
    registerProduct("LoggingTools.L10nResourceDir=/usr/share/res  \n");
    char *text = nullptr;
    ASSERT_EQ(GetProductCfgPath("main.conf", 5, &text), 0U);
    EXPECT_STREQ(text, "product.conf");
    zoltLogFree(text);
    ASSERT_EQ(GetProductShortName("main.conf", 5, &text), 0U);
    EXPECT_STREQ(text, "five");
    zoltLogFree(text);
    ASSERT_EQ(zoltLogCfgGetToolsResDir(&text), 0U);
    EXPECT_STREQ(text, "/usr/share/res");
    zoltLogFree(text);
    text = nullptr;
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductCfgPath("main.conf", 6, &text));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductCfgPath("missing.conf", 5, &text));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetProductCfgPath("main.conf", 5, nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetProductShortName("main.conf", 6, &text));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetPropertyString("main.conf", "5", "Nothing", &text));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetPropertyString("main.conf", "5", "Names", nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, GetPropertyString(nullptr, "5", "Names", &text));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetToolsResDir(nullptr));
    EXPECT_EQ(text, nullptr);
    ASSERT_EQ(unlink("main.conf"), 0);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogCfgGetToolsResDir(&text));
}

TEST(ConfigRead, StoreResultsAreTranslated) {
    const std::pair<uint32_t, uint32_t> rows[] = {{0, 0},   {1, 3},  {2, 6},  {3, 6},         {4, 6},
                                                  {5, 55},  {6, 1},  {7, 9},  {8, 50},        {9, 61},
                                                  {10, 64}, {11, 1}, {12, 1}, {0xFFFFFFFF, 1}};
    for (const auto &[store, result] : rows)
        EXPECT_EQ(utipsres2zoltlogres(store), result) << store;
}

// ---- collections --------------------------------------------------------------------------------------

namespace {

// Records collected into an array; shown as "5/7" and "5:bill".
struct Collected {
    std::vector<LogCfg *> cfgs;
    uint32_t count = 0;

    explicit Collected(uint32_t capacity) : cfgs(capacity + 1, &guard) {}
    ~Collected() { clear(); }
    Collected(const Collected &) = delete;
    Collected &operator=(const Collected &) = delete;

    void clear() {
        for (uint32_t i = 0; i < count; ++i) {
            zoltLogFreeCfg(cfgs[i]);
            zoltLogFree(cfgs[i]);
        }
        count = 0;
    }
    uint32_t capacity() const { return static_cast<uint32_t>(cfgs.size() - 1); }
    std::string names() const {
        std::string all;
        for (uint32_t i = 0; i < count; ++i) {
            const LogCfg *cfg = cfgs[i];
            all += (i == 0 ? "" : " ") + std::to_string(cfg->productId) +
                   (cfg->isLogset != 0 ? ":" + std::string(cfg->logsetName)
                                       : "/" + std::to_string(cfg->originatorId));
        }
        EXPECT_EQ(cfgs.back(), &guard); // nothing behind the capacity
        return all;
    }
    std::string all(const char *location = nullptr) {
        clear();
        const uint32_t result = zoltLogReadAllCfg(location, capacity(), cfgs.data(), &count);
        return std::to_string(result) + " " + names();
    }
    std::string product(uint64_t id, const char *location = nullptr) {
        clear();
        const uint32_t result = zoltLogReadProdIDCfg(location, id, capacity(), cfgs.data(), &count);
        return std::to_string(result) + " " + names();
    }
    LogCfg guard = {};
};

const char PRODUCT_FILE[] =
    "# comment\nDefault.DebugLevel=1\nDefault.LogRecycle=true\nDefault.DynaReloadInSec=90\n"
    "Default.LogDirectory=/d\nDefault.SyslogOpt=1\nDefault.SyslogFacility=LOG_MAIL\n"
    "7.DiagnosticLevel=2\n5.LogDirectory=sub\n05.DebugLevel=6\n7.DebugLevel=3\n"
    "LOGSET.Default.DebugLevel=4\nLOGSET.bill.FileName=b\nLOGSET.empty.unknown=1\n"
    "LOGSET.pay.DiagnosticLevel=5\nLOGSET.bill.DebugLevel=6\n";

} // namespace

TEST(ConfigRead, AllRecordsOfAProductAreCollected) {
    registerProduct();
    writeProduct(PRODUCT_FILE);
    Collected found(20);
    ASSERT_EQ(found.product(5), "0 5/112 5/7 5/5 5:Default 5:bill 5:pay");
    const LogCfg *seven = found.cfgs[1];
    EXPECT_EQ(seven->debugLevel, 3U);
    EXPECT_EQ(seven->diagLevel, 2U);
    EXPECT_STREQ(seven->directory, "/d/");
    EXPECT_STREQ(seven->productShortNames, "five");
    EXPECT_EQ(seven->changedMask, 0U);
    EXPECT_EQ(seven->logRecycling, 0U);   // not copied from the default record
    EXPECT_EQ(seven->reloadInterval, 0U); // nor this
    EXPECT_EQ(seven->oslog.option, 0U);   // nor this
    EXPECT_EQ(seven->oslog.facility, 16U);
    EXPECT_EQ(found.cfgs[0]->logRecycling, 1U);
    EXPECT_EQ(found.cfgs[0]->reloadInterval, 90U);
    EXPECT_EQ(found.cfgs[0]->oslog.option, 1U);
    EXPECT_STREQ(found.cfgs[0]->productShortNames, "five");
    EXPECT_EQ(found.cfgs[2]->debugLevel, 1U); // "5", not "05"
    EXPECT_STREQ(found.cfgs[2]->directory, "/d/sub/");
    EXPECT_EQ(found.cfgs[4]->debugLevel, 6U);
    EXPECT_STREQ(found.cfgs[4]->logsetFilename, "b");
    EXPECT_EQ(found.cfgs[4]->originatorId, 0U);
    EXPECT_EQ(found.cfgs[4]->isLogset, 1U);
    EXPECT_STREQ(found.cfgs[5]->logsetFilename, "pay");
    EXPECT_EQ(found.cfgs[5]->debugLevel, 4U);
    EXPECT_STREQ(found.cfgs[5]->productShortNames, "five");
}

TEST(ConfigRead, TheCapacityIsNeverExceeded) {
    registerProduct();
    writeProduct(PRODUCT_FILE);
    const char *rows[] = {"39 ",
                          "0 5/112",
                          "0 5/112 5/7",
                          "0 5/112 5/7 5/5",
                          "0 5/112 5/7 5/5 5:Default",
                          "0 5/112 5/7 5/5 5:Default 5:bill",
                          "0 5/112 5/7 5/5 5:Default 5:bill 5:pay"};
    for (uint32_t capacity = 0; capacity < 7; ++capacity) {
        Collected found(capacity);
        EXPECT_EQ(found.product(5), rows[capacity]);
        EXPECT_EQ(found.all(), rows[capacity]);
    }
}

TEST(ConfigRead, AllProductsAreCollected) {
    support::writeFile("main.conf",
                       "LoggingTools.L10nResourceDir=/r\n5.Configuration=five.conf\n6.Names=six\n"
                       "8.Configuration=missing.conf\n7.Configuration=seven.conf\n7.Names=seven\n"
                       "5.Names=five\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    support::writeFile("five.conf", "1.DebugLevel=1\n");
    support::writeFile("seven.conf", "LOGSET.a.DebugLevel=1\nno section\nwith=equal.sign\n");
    Collected found(20);
    ASSERT_EQ(found.all(), "0 5/112 5/1 7/112 7:a");
    EXPECT_STREQ(found.cfgs[1]->productShortNames, "five");
    EXPECT_STREQ(found.cfgs[3]->productShortNames, "seven");
    EXPECT_EQ(found.product(7), "0 7/112 7:a");
    EXPECT_EQ(found.product(6), "6 ");  // no "Configuration"
    EXPECT_EQ(found.product(8), "39 "); // its file is missing
    EXPECT_EQ(found.product(9), "39 ");
    support::writeFile("other.conf", "6.Configuration=five.conf\n");
    EXPECT_EQ(found.all("other.conf"), "0 6/112 6/1");
    EXPECT_EQ(found.product(6, "other.conf"), "0 6/112 6/1");
}

TEST(ConfigRead, ResultsOfCollecting) {
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    Collected found(4);
    EXPECT_EQ(found.all(), "39 ");
    EXPECT_EQ(found.product(5), "39 ");
    support::writeFile("main.conf", "# nothing\n");
    EXPECT_EQ(found.all(), "39 ");
    EXPECT_EQ(found.product(5), "39 ");
    uint32_t count = 42;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadAllCfg(nullptr, 4, nullptr, &count));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadAllCfg(nullptr, 4, found.cfgs.data(), nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadProdIDCfg(nullptr, 5, 4, nullptr, &count));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogReadProdIDCfg(nullptr, 5, 4, found.cfgs.data(), nullptr));
    EXPECT_EQ(count, 42U);
    // a section name that is too long ends the enumeration of the main file
    support::writeFile("main.conf", std::string(81, 'x') + ".a=1\n");
    EXPECT_EQ(found.all(), "1 ");
}

TEST(ConfigRead, SectionsAreEnumeratedAsTheirNamesSay) {
    registerProduct();
    writeProduct("words.DebugLevel=2\n" + std::string(81, '9') + ".DebugLevel=1\n3.DebugLevel=1\n" +
                 "LOGSET.DebugLevel=3\n" + std::string(78, '0') + "44.DebugLevel=5\n");
    Collected found(9);
    ASSERT_EQ(found.product(5), "0 5/112 5/0 5/3 5/44");
    EXPECT_EQ(found.cfgs[1]->debugLevel, 2U);
    EXPECT_EQ(found.cfgs[3]->debugLevel, 5U);
}

TEST(ConfigRead, LogsetsOfALocationThatIsNoFileAreNotListed) {
    support::writeFile("main.conf", "5.Configuration=where\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    support::writeFile("where", "7.DebugLevel=1\n");
    support::writeFile("where\\LOGSET", "Default.DebugLevel=2\nbill.DebugLevel=4\n");
    Collected found(9);
    ASSERT_EQ(found.product(5), "0 5/112 5/7 5:Default");
    EXPECT_EQ(found.cfgs[2]->debugLevel, 2U);
}

TEST(ConfigRead, CollectingOneKindAppendsToTheArray) {
    writeProduct(PRODUCT_FILE);
    Collected found(9);
    LogCfg **cfgs = found.cfgs.data();
    EXPECT_EQ(GetLogsetCfg("product.conf", 5, "names", 9, cfgs, &found.count), 0U);
    EXPECT_EQ(GetOriginatorCfg("product.conf", 5, nullptr, 9, cfgs, &found.count), 0U);
    EXPECT_EQ(GetOriginatorCfg("product.conf", 5, nullptr, 9, cfgs, &found.count), 0U);
    EXPECT_EQ(found.names(), "5:Default 5:bill 5:pay 5/112 5/7 5/5"); // the second time all were there
    EXPECT_STREQ(found.cfgs[0]->productShortNames, "names");
    EXPECT_STREQ(found.cfgs[3]->productShortNames, "");
    EXPECT_EQ(GetOriginatorCfg("missing.conf", 5, nullptr, 9, cfgs, &found.count), 2U);
    EXPECT_EQ(GetLogsetCfg("missing.conf", 5, nullptr, 9, cfgs, &found.count), 2U);
    EXPECT_EQ(GetOriginatorCfg(nullptr, 5, nullptr, 9, cfgs, &found.count), 3U);
    EXPECT_EQ(GetLogsetCfg("product.conf", 5, nullptr, 9, nullptr, &found.count), 3U);
}

// Collected records equal those read one by one, whatever the file looks like.
TEST(ConfigRead, CollectedRecordsEqualSingleOnes) {
    registerProduct();
    std::mt19937 engine(7);
    const auto below = [&engine](size_t n) { return engine() % n; };
    const std::vector<std::string> sections = {"Default",        "7",        "8",          "9",
                                               "LOGSET.Default", "LOGSET.a", "LOGSET.b.c", "LOGSET",
                                               "LOGSET.a=b",     "",         ".8"};
    size_t compared = 0;
    for (int round = 0; round < 400; ++round) {
        std::string file;
        for (size_t n = below(40); n > 0; --n) {
            const Value &value = VALUES[below(std::size(VALUES))];
            const std::string text = below(60) == 0 ? std::string(700, 'x') : value.text;
            file += sections[below(sections.size())] + "." + (below(9) == 0 ? "x." : "") + value.key + "=" +
                    text + (below(20) == 0 ? "" : "\n");
        }
        SCOPED_TRACE(file);
        writeProduct(file);
        Collected found(30);
        found.product(5);
        Read bases[2];
        InitLogCfg(5, 112, nullptr, &bases[0].cfg);
        GetOriginatorCfgSettings("product.conf", "Default", &bases[0].cfg);
        InitLogCfg(5, 0, "Default", &bases[1].cfg);
        GetLogSetCfgSettings("product.conf", "Default", &bases[1].cfg);
        for (uint32_t i = 0; i < found.count; ++i) {
            const LogCfg *cfg = found.cfgs[i];
            const bool isLogset = cfg->isLogset != 0;
            if (isLogset ? IsDefaultLogSet(cfg->logsetName) != 0
                         : cfg->originatorId == 112 || cfg->originatorId == 0)
                continue;
            Read single;
            CopyCfg(&single.cfg, &bases[isLogset ? 1 : 0].cfg);
            single.cfg.originatorId = cfg->originatorId;
            std::snprintf(single.cfg.productShortNames, sizeof single.cfg.productShortNames, "%s", "five");
            if (isLogset)
                EXPECT_GT(GetLogSetCfgSettings("product.conf", cfg->logsetName, &single.cfg), 0U);
            else
                GetOriginatorCfgSettings("product.conf", std::to_string(cfg->originatorId).c_str(),
                                         &single.cfg);
            EXPECT_EQ(everyField(*cfg), everyField(single.cfg));
            ++compared;
        }
    }
    EXPECT_GT(compared, 1000U);
}
