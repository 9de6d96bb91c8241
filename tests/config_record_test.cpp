// SPDX-License-Identifier: Apache-2.0
// The configuration record: defaults, copies, accessors, masks, rollover modes, names.
#include "src/config_keys.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "config_keys.h"

namespace {

// A record of a scope with the defaults.
struct Record {
    explicit Record(const char *logset = nullptr) { InitLogCfg(5, 7, logset, &cfg); }
    ~Record() { zoltLogFreeCfg(&cfg); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    LogCfg cfg;
};

std::string text(uint32_t result, char *value) {
    std::string seen = std::to_string(result) + ":" + (value != nullptr ? value : "(null)");
    zoltLogFree(value);
    return seen;
}

using TextGetter = uint32_t (*)(LogCfg *, char **);
using TextSetter = uint32_t (*)(LogCfg *, const char *);

std::string get(TextGetter getter, LogCfg *cfg) {
    char *value = nullptr;
    const uint32_t result = getter(cfg, &value);
    return text(result, value);
}

} // namespace

// ---- the table ---------------------------------------------------------------------

TEST(Config, TheKeyTableIsWhatTheFormatSays) {
    using config_keys::KEYS;
    using config_keys::WRITTEN;
    ASSERT_EQ(std::size(KEYS), static_cast<size_t>(CFG_KEY_COUNT));
    for (size_t i = 0; i < CFG_KEY_COUNT; ++i) {
        SCOPED_TRACE(KEYS[i].name);
        EXPECT_STREQ(CFG_KEYS[i].name, KEYS[i].name);
        EXPECT_EQ(CFG_KEYS[i].mask, KEYS[i].bit);
        EXPECT_EQ((CFG_KEYS[i].use & CFG_READ_ORIGINATOR) != 0, KEYS[i].readOriginator);
        EXPECT_EQ((CFG_KEYS[i].use & CFG_READ_LOGSET) != 0, KEYS[i].readLogset);
        EXPECT_EQ((CFG_KEYS[i].use & CFG_WRITE_ORIGINATOR) != 0, KEYS[i].writeOriginator);
        EXPECT_EQ((CFG_KEYS[i].use & CFG_WRITE_LOGSET) != 0, KEYS[i].writeLogset);
    }
    ASSERT_EQ(std::size(CFG_WRITTEN) + 1 + std::size(CFG_WRITTEN_LAST), std::size(WRITTEN));
    size_t place = 0;
    for (const CfgKeyId id : CFG_WRITTEN)
        EXPECT_STREQ(CFG_KEYS[id].name, WRITTEN[place++]);
    EXPECT_STREQ(CFG_KEYS[CFG_KEY_FILE_NAME].name, WRITTEN[place++]);
    for (const CfgKeyId id : CFG_WRITTEN_LAST)
        EXPECT_STREQ(CFG_KEYS[id].name, WRITTEN[place++]);
}

// ---- life cycle -----------------------------------------------------------------------

TEST(Config, ARecordStartsWithTheDefaults) {
    LogCfg cfg;
    memset(&cfg, 0xAA, sizeof cfg);
    ASSERT_EQ(InitLogCfg(5, 7, nullptr, &cfg), 0U);
    EXPECT_EQ(cfg.productId, 5U);
    EXPECT_EQ(cfg.originatorId, 7U);
    EXPECT_EQ(cfg.debugLevel, 0U);
    EXPECT_EQ(cfg.diagLevel, 0U);
    EXPECT_EQ(cfg.secureAuditLevel, 0U);
    EXPECT_EQ(cfg.outputFlags, 0U);
    EXPECT_STREQ(cfg.directory, "");
    EXPECT_EQ(cfg.permissions.mode, 432U);
    EXPECT_EQ(cfg.maxFileSizeKB, 10240U);
    EXPECT_EQ(cfg.rolloverMode, 0U);
    EXPECT_EQ(cfg.rolloverPeriod, 43200U);
    EXPECT_EQ(cfg.rolloverTime, 0U);
    EXPECT_EQ(cfg.numberOfLogFiles, 4294967295U);
    EXPECT_EQ(cfg.logRecycling, 0U);
    EXPECT_STREQ(cfg.oslog.ident, "Qorvanix");
    EXPECT_EQ(cfg.oslog.option, 0U);
    EXPECT_EQ(cfg.oslog.facility, 8U);
    EXPECT_STREQ(cfg.productShortNames, "");
    EXPECT_STREQ(cfg.originatorNames, "");
    EXPECT_EQ(cfg.changedMask, 0U);
    EXPECT_EQ(cfg.removedMask, 0U);
    EXPECT_EQ(cfg.reloadInterval, 0U);
    EXPECT_EQ(cfg.isLogset, 0U);
    EXPECT_EQ(cfg.appMsgLogging, 1U);
    for (const char *owned :
         {cfg.l10nLib, cfg.l10nResource, cfg.l10nResourceDir, cfg.logsetName, cfg.logsetFilename,
          cfg.logsetOidAppMsgLogging, cfg.logsetOidDebugLogging, cfg.logsetOidDiagLogging})
        EXPECT_EQ(owned, nullptr);
    zoltLogFreeCfg(&cfg);
}

TEST(Config, ANameMakesALogsetRecord) {
    for (const char *name : {"billing", ""}) {
        LogCfg cfg;
        ASSERT_EQ(InitLogCfg(5, 0, name, &cfg), 0U);
        EXPECT_EQ(cfg.isLogset, 1U);
        EXPECT_STREQ(cfg.logsetName, name);
        EXPECT_STREQ(cfg.logsetFilename, name);
        EXPECT_NE(cfg.logsetName, cfg.logsetFilename);
        EXPECT_EQ(cfg.changedMask, 0U);
        zoltLogFreeCfg(&cfg);
    }
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, InitLogCfg(5, 7, "x", nullptr));
}

TEST(Config, FreeingZeroesTheRecord) {
    Record record("set");
    LogCfg *cfg = &record.cfg;
    zoltLogCfgSetL10nLib(cfg, "a");
    zoltLogCfgSetL10nResource(cfg, "a");
    zoltLogCfgSetL10nResourceDir(cfg, "a");
    zoltLogCfgSetLogsetOIDappMsgLogging(cfg, "a");
    zoltLogCfgSetLogsetOIDDebugLogging(cfg, "a");
    zoltLogCfgSetLogsetOIDDiagLogging(cfg, "a");
    EXPECT_EQ(zoltLogFreeCfg(cfg), 0U);
    const LogCfg zero = {};
    EXPECT_EQ(memcmp(cfg, &zero, sizeof zero), 0);
    EXPECT_EQ(zoltLogFreeCfg(cfg), 0U);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogFreeCfg(nullptr));
}

TEST(Config, CopyLeavesOutWhatItIsToldTo) {
    Record record("set");
    LogCfg *cfg = &record.cfg;
    cfg->debugLevel = 3;
    cfg->diagLevel = 4;
    cfg->secureAuditLevel = 5;
    cfg->outputFlags = ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_OSLOG | ZOLTLOG_OUT_OSLOGX;
    cfg->appMsgLogging = 0;
    cfg->numberOfLogFiles = 9;
    cfg->maxFileSizeKB = 11;
    cfg->rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE | ZOLTLOG_ROLLOVER_PERIODIC;
    cfg->rolloverPeriod = 60;
    cfg->rolloverTime = 61;
    cfg->logRecycling = 1;
    cfg->reloadInterval = 100;
    cfg->permissions.mode = 0640;
    cfg->oslog.option = 1;
    cfg->oslog.facility = 128;
    std::snprintf(cfg->oslog.ident, sizeof cfg->oslog.ident, "%s", "me");
    std::snprintf(cfg->directory, sizeof cfg->directory, "%s", "/d/");
    std::snprintf(cfg->originatorNames, sizeof cfg->originatorNames, "%s", "on");
    std::snprintf(cfg->productShortNames, sizeof cfg->productShortNames, "%s", "pn");
    zoltLogCfgSetL10nLib(cfg, "lib");
    zoltLogCfgSetL10nResource(cfg, "res");
    zoltLogCfgSetL10nResourceDir(cfg, "dir");
    zoltLogCfgSetLogsetOIDappMsgLogging(cfg, "a");
    zoltLogCfgSetLogsetOIDDebugLogging(cfg, "b");
    zoltLogCfgSetLogsetOIDDiagLogging(cfg, "c");
    cfg->removedMask = 1;
    LogCfg copy;
    memset(&copy, 0xAA, sizeof copy);
    ASSERT_EQ(CopyCfg(&copy, cfg), 0U);
    EXPECT_EQ(copy.productId, 5U);
    EXPECT_EQ(copy.originatorId, 7U);
    EXPECT_EQ(copy.debugLevel, 3U);
    EXPECT_EQ(copy.diagLevel, 4U);
    EXPECT_EQ(copy.outputFlags, uint32_t{ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_OSLOG | ZOLTLOG_OUT_OSLOGX});
    EXPECT_EQ(copy.appMsgLogging, 0U);
    EXPECT_EQ(copy.numberOfLogFiles, 9U);
    EXPECT_EQ(copy.maxFileSizeKB, 11U);
    EXPECT_EQ(copy.rolloverMode, uint32_t{ZOLTLOG_ROLLOVER_FILE_SIZE | ZOLTLOG_ROLLOVER_PERIODIC});
    EXPECT_EQ(copy.rolloverPeriod, 60U);
    EXPECT_EQ(copy.rolloverTime, 61U);
    EXPECT_EQ(copy.permissions.mode, 0640U);
    EXPECT_STREQ(copy.oslog.ident, "me");
    EXPECT_EQ(copy.oslog.facility, 128U);
    EXPECT_STREQ(copy.directory, "/d/");
    EXPECT_STREQ(copy.originatorNames, "on");
    EXPECT_STREQ(copy.productShortNames, "pn");
    EXPECT_STREQ(copy.l10nLib, "lib");
    EXPECT_STREQ(copy.l10nResource, "res");
    EXPECT_STREQ(copy.l10nResourceDir, "dir");
    EXPECT_NE(copy.l10nLib, cfg->l10nLib);
    // left out
    EXPECT_EQ(copy.secureAuditLevel, 0U);
    EXPECT_EQ(copy.oslog.option, 0U);
    EXPECT_EQ(copy.logRecycling, 0U);
    EXPECT_EQ(copy.reloadInterval, 0U);
    EXPECT_EQ(copy.isLogset, 0U);
    EXPECT_EQ(copy.logsetName, nullptr);
    EXPECT_EQ(copy.logsetFilename, nullptr);
    EXPECT_EQ(copy.logsetOidAppMsgLogging, nullptr);
    EXPECT_EQ(copy.logsetOidDebugLogging, nullptr);
    EXPECT_EQ(copy.logsetOidDiagLogging, nullptr);
    EXPECT_EQ(copy.changedMask, 0U);
    EXPECT_EQ(copy.removedMask, 0U);
    zoltLogFreeCfg(&copy);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, CopyCfg(nullptr, cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, CopyCfg(&copy, nullptr));
}

TEST(Config, CopyTakesAnIdentityWithoutTerminator) {
    Record record;
    memset(record.cfg.oslog.ident, 'i', sizeof record.cfg.oslog.ident);
    LogCfg copy;
    ASSERT_EQ(CopyCfg(&copy, &record.cfg), 0U);
    EXPECT_EQ(memcmp(copy.oslog.ident, record.cfg.oslog.ident, sizeof copy.oslog.ident), 0);
    EXPECT_EQ(copy.oslog.option, 0U);
    zoltLogFreeCfg(&copy);
}

TEST(Config, ThePermissionSettingIsStored) {
    FileSecuritySetting setting = {7};
    EXPECT_EQ(CopyFileSecuritySetting(&setting, 0640), 0U);
    EXPECT_EQ(setting.mode, 0640U);
    EXPECT_EQ(CopyFileSecuritySetting(nullptr, 0640), 0xFFFFFFFFU);
    EXPECT_EQ(FreeFileSecuritySetting(&setting), 0U);
    EXPECT_EQ(FreeFileSecuritySetting(nullptr), 0xFFFFFFFFU);
}

// ---- numbers and switches ------------------------------------------------------------------

namespace {

template<typename T>
struct Number {
    const char *what;
    uint32_t (*set)(LogCfg *, T);
    uint32_t (*get)(LogCfg *, T *);
    T LogCfg::*field;
    uint32_t bit;
    std::vector<T> accepted, refused;
};

template<typename T>
void checkNumber(const Number<T> &row) {
    SCOPED_TRACE(row.what);
    Record record;
    LogCfg *cfg = &record.cfg;
    cfg->removedMask = 0x10;
    for (const T value : row.accepted) {
        cfg->changedMask = 0;
        EXPECT_EQ(row.set(cfg, value), 0U) << value;
        EXPECT_EQ(cfg->*row.field, value);
        EXPECT_EQ(cfg->changedMask, row.bit);
        T out = 0;
        EXPECT_EQ(row.get(cfg, &out), 0U);
        EXPECT_EQ(out, value);
    }
    cfg->changedMask = 0;
    const T before = cfg->*row.field;
    for (const T value : row.refused) {
        EXPECT_EQ(row.set(cfg, value), 3U) << value;
        EXPECT_EQ(cfg->*row.field, before);
        EXPECT_EQ(cfg->changedMask, 0U);
    }
    EXPECT_EQ(row.set(nullptr, row.accepted[0]), 3U);
    T out = 42;
    EXPECT_EQ(row.get(nullptr, &out), 3U);
    EXPECT_EQ(row.get(cfg, nullptr), 3U);
    EXPECT_EQ(out, 42U);
    EXPECT_EQ(cfg->removedMask, 0x10U);
}

} // namespace

TEST(Config, NumbersAreCheckedStoredAndMarked) {
    const uint64_t most = UINT64_MAX;
    const Number<uint32_t> words[] = {
        {"rollover mode",
         zoltLogCfgSetRolloverMode,
         zoltLogCfgGetRolloverMode,
         &LogCfg::rolloverMode,
         0x400,
         {0, 1, 2, 3, 4, 5},
         {6, 7, 8, 9, 0xFFFFFFFF}},
        {"debug level",
         zoltLogCfgSetDebugLevel,
         zoltLogCfgGetDebugLevel,
         &LogCfg::debugLevel,
         0x20,
         {0, 1, 2, 3, 4, 5, 6},
         {7, 0xFFFFFFFF}},
        {"diagnostic level",
         zoltLogCfgSetDiagLevel,
         zoltLogCfgGetDiagLevel,
         &LogCfg::diagLevel,
         0x40,
         {0, 1, 2, 3, 4, 5, 6},
         {7, 0xFFFFFFFF}},
        {"reload interval",
         zoltLogCfgSetDynaSetting,
         zoltLogCfgGetDynaSetting,
         &LogCfg::reloadInterval,
         0x4000000,
         {0, 1, 59, 60, 0x7FFFFFFF},
         {0x80000000, 0xFFFFFFFF}},
    };
    for (const auto &row : words)
        checkNumber(row);
    const Number<uint64_t> longs[] = {
        {"max file size",
         zoltLogCfgSetMaxFileSize,
         zoltLogCfgGetMaxFileSize,
         &LogCfg::maxFileSizeKB,
         0x800,
         {1, 10240, most},
         {0}},
        {"rollover period",
         zoltLogCfgSetRolloverPeriod,
         zoltLogCfgGetRolloverPeriod,
         &LogCfg::rolloverPeriod,
         0x2000,
         {1, 43200, most},
         {0}},
        {"rollover time",
         zoltLogCfgSetRolloverTime,
         zoltLogCfgGetRolloverTime,
         &LogCfg::rolloverTime,
         0x1000,
         {0, 86340, 86400, most},
         {}},
        {"number of files",
         zoltLogCfgSetNumberOfLogFiles,
         zoltLogCfgGetNumberOfLogFiles,
         &LogCfg::numberOfLogFiles,
         0x4000,
         {1, 4294967295U, most},
         {0}},
    };
    for (const auto &row : longs)
        checkNumber(row);
}

TEST(Config, SwitchesAreStoredAndMarked) {
    const struct {
        const char *what;
        uint32_t (*enable)(LogCfg *);
        uint32_t (*disable)(LogCfg *);
        uint32_t LogCfg::*field;
        uint32_t on, bit;
    } rows[] = {
        {"recycling", zoltLogCfgEnableLogRecycling, zoltLogCfgDisableLogRecycling, &LogCfg::logRecycling, 1,
         0x1000000},
        {"application messages", zoltLogCfgEnableAppMsgLogging, zoltLogCfgDisableAppMsgLogging,
         &LogCfg::appMsgLogging, 1, 0x7FFFFFFE},
        {"stdout", zoltLogCfgEnableLogToStdout, zoltLogCfgDisableLogToStdout, &LogCfg::outputFlags, 1, 0x80},
        {"stderr", zoltLogCfgEnableLogToStderr, zoltLogCfgDisableLogToStderr, &LogCfg::outputFlags, 2, 0x100},
        {"oslog", zoltLogCfgEnableLogToOslog, zoltLogCfgDisableLogToOslog, &LogCfg::outputFlags, 4, 0x200},
        {"oslogX", zoltLogCfgEnableLogToOslogX, zoltLogCfgDisableLogToOslogX, &LogCfg::outputFlags, 64, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Record record;
        LogCfg *cfg = &record.cfg;
        const bool isFlag = row.field == &LogCfg::outputFlags;
        cfg->*row.field = isFlag ? 0x80 : 0;
        EXPECT_EQ(row.enable(cfg), 0U);
        EXPECT_EQ(cfg->*row.field, row.on | (isFlag ? 0x80U : 0));
        EXPECT_EQ(cfg->changedMask, row.bit);
        EXPECT_EQ(row.enable(cfg), 0U);
        cfg->changedMask = 0;
        EXPECT_EQ(row.disable(cfg), 0U);
        EXPECT_EQ(cfg->*row.field, isFlag ? 0x80U : 0);
        EXPECT_EQ(cfg->changedMask, row.bit);
        EXPECT_EQ(cfg->removedMask, 0U);
        EXPECT_EQ(row.enable(nullptr), 3U);
        EXPECT_EQ(row.disable(nullptr), 3U);
    }
}

TEST(Config, AppMsgLoggingMarksEverythingButTheDirectory) {
    Record record;
    EXPECT_EQ(zoltLogCfgDisableAppMsgLogging(&record.cfg), 0U);
    EXPECT_EQ(record.cfg.changedMask, 0x7FFFFFFEU);
    EXPECT_EQ(record.cfg.appMsgLogging, 0U);
    record.cfg.changedMask = 1;
    EXPECT_EQ(zoltLogCfgEnableAppMsgLogging(&record.cfg), 0U);
    EXPECT_EQ(record.cfg.changedMask, 0x7FFFFFFFU);
    EXPECT_EQ(record.cfg.appMsgLogging, 1U);
}

TEST(Config, OslogXMarksNothing) {
    Record record;
    EXPECT_EQ(zoltLogCfgEnableLogToOslogX(&record.cfg), 0U);
    EXPECT_EQ(record.cfg.outputFlags, ZOLTLOG_OUT_OSLOGX);
    EXPECT_EQ(record.cfg.changedMask, 0U);
}

TEST(Config, FlagsAreSetTogether) {
    Record record;
    LogCfg *cfg = &record.cfg;
    uint32_t flags = 0;
    EXPECT_EQ(zoltLogCfgSetFlags(cfg, 0x47), 0U);
    EXPECT_EQ(zoltLogCfgGetFlags(cfg, &flags), 0U);
    EXPECT_EQ(flags, 0x47U);
    EXPECT_EQ(cfg->changedMask, 0x380U);
    EXPECT_EQ(zoltLogCfgSetFlags(cfg, 8), 0U);
    EXPECT_EQ(cfg->outputFlags, 0U);
    EXPECT_EQ(zoltLogCfgSetFlags(cfg, 2), 0U);
    cfg->changedMask = 0;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetFlags(cfg, -1));
    EXPECT_EQ(cfg->outputFlags, ZOLTLOG_OUT_STDERR);
    EXPECT_EQ(cfg->changedMask, 0U);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetFlags(nullptr, 1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetFlags(nullptr, &flags));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetFlags(cfg, nullptr));
}

// ---- texts -----------------------------------------------------------------------------------

TEST(Config, TextsAreCopiedAndMarked) {
    const struct {
        const char *what;
        TextSetter set;
        TextGetter get;
        char *LogCfg::*field;
        uint32_t bit;
        const char *unset;
    } rows[] = {
        {"library", zoltLogCfgSetL10nLib, zoltLogCfgGetL10nLib, &LogCfg::l10nLib, 0x4, "4:(null)"},
        {"resource", zoltLogCfgSetL10nResource, zoltLogCfgGetL10nResource, &LogCfg::l10nResource, 0x8,
         "0:(null)"},
        {"directory", zoltLogCfgSetL10nResourceDir, zoltLogCfgGetL10nResourceDir, &LogCfg::l10nResourceDir,
         0x10, "0:(null)"},
        {"file name", zoltLogCfgSetLogsetFilename, zoltLogCfgGetLogsetFilename, &LogCfg::logsetFilename,
         0x8000000, "0:(null)"},
        {"application", zoltLogCfgSetLogsetOIDappMsgLogging, zoltLogCfgGetLogsetOIDOIDappMsgLogging,
         &LogCfg::logsetOidAppMsgLogging, 0x10000000, "0:(null)"},
        {"debug", zoltLogCfgSetLogsetOIDDebugLogging, zoltLogCfgGetLogsetOIDDebugLogging,
         &LogCfg::logsetOidDebugLogging, 0x20000000, "0:(null)"},
        {"diagnostic", zoltLogCfgSetLogsetOIDDiagLogging, zoltLogCfgGetLogsetOIDDiagLogging,
         &LogCfg::logsetOidDiagLogging, 0x40000000, "0:(null)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Record record;
        LogCfg *cfg = &record.cfg;
        EXPECT_EQ(get(row.get, cfg), row.unset);
        EXPECT_EQ(row.set(cfg, "one"), 0U);
        EXPECT_EQ(cfg->changedMask, row.bit);
        EXPECT_EQ(row.set(cfg, "two words"), 0U);
        EXPECT_STREQ(cfg->*row.field, "two words");
        EXPECT_EQ(row.set(cfg, cfg->*row.field), 0U); // its own text
        EXPECT_STREQ(cfg->*row.field, "two words");
        if (row.field != &LogCfg::l10nLib) {
            EXPECT_EQ(get(row.get, cfg), "0:two words");
        }
        cfg->changedMask = 0;
        EXPECT_EQ(row.set(cfg, ""), 3U);
        EXPECT_EQ(row.set(cfg, nullptr), 3U);
        EXPECT_EQ(row.set(nullptr, "x"), 3U);
        EXPECT_STREQ(cfg->*row.field, "two words");
        EXPECT_EQ(cfg->changedMask, 0U);
        char *out = nullptr;
        EXPECT_EQ(row.get(nullptr, &out), 3U);
        EXPECT_EQ(row.get(cfg, nullptr), 3U);
        EXPECT_EQ(cfg->removedMask, 0U);
    }
}

TEST(Config, TheLocalizationLibraryIsGivenAsAFileName) {
    Record record;
    zoltLogCfgSetL10nLib(&record.cfg, "libqdlis");
    EXPECT_EQ(get(zoltLogCfgGetL10nLib, &record.cfg), "0:libqdlis.so.3");
    zoltLogCfgSetL10nLib(&record.cfg, "/opt/x/libfooD.so");
    EXPECT_EQ(get(zoltLogCfgGetL10nLib, &record.cfg), "0:/opt/x/libfoo.so.3");
    Record unset;
    char *out = &unset.cfg.directory[0];
    EXPECT_RESULT(ZOLTLOG_NO_MEMORY, zoltLogCfgGetL10nLib(&unset.cfg, &out));
    EXPECT_EQ(out, nullptr);
}

TEST(Config, DirectoriesEndInASlash) {
    const std::pair<const char *, const char *> rows[] = {
        {"/var/log", "/var/log/"}, {"/var/log/", "/var/log/"}, {"/", "/"},          {"a", "a/"},
        {"a\\\\b", "a\\b/"},       {"a\\b", "a\\b/"},          {"\\\\\\", "\\\\/"}, {"\\\\\\\\h", "\\\\h/"},
        {"//x//", "//x//"},        {"a\\\\", "a\\/"}};
    for (const auto &[path, directory] : rows) {
        Record record;
        EXPECT_EQ(zoltLogCfgSetDirectory(&record.cfg, path, nullptr), 0U) << path;
        EXPECT_STREQ(record.cfg.directory, directory);
        EXPECT_EQ(record.cfg.changedMask, 1U);
        EXPECT_EQ(get(zoltLogCfgGetDirectory, &record.cfg), std::string("0:") + directory);
    }
}

TEST(Config, ADirectoryIsJoinedAtItsDestination) {
    Record record;
    LogCfg *cfg = &record.cfg;
    EXPECT_EQ(get(zoltLogCfgGetDirectory, cfg), "0:");
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, "/var/log", nullptr), 0U);
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, "sub", cfg->directory + strlen(cfg->directory)), 0U);
    EXPECT_STREQ(cfg->directory, "/var/log/sub/");
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, cfg->directory, nullptr), 0U); // its own text
    EXPECT_STREQ(cfg->directory, "/var/log/sub/");
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, cfg->directory + 5, nullptr), 0U);
    EXPECT_STREQ(cfg->directory, "log/sub/");
}

TEST(Config, ADirectoryThatDoesNotFitChangesNothing) {
    Record record;
    LogCfg *cfg = &record.cfg;
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, "/d", nullptr), 0U);
    cfg->changedMask = 0;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT,
                  zoltLogCfgSetDirectory(cfg, std::string(1024, 'x').c_str(), nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT,
                  zoltLogCfgSetDirectory(cfg, std::string(5000, 'x').c_str(), nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT,
                  zoltLogCfgSetDirectory(cfg, std::string(1022, 'x').c_str(), cfg->directory + 3));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(cfg, "x", cfg->directory + 1023));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(cfg, "x", cfg->directory + 1025));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(cfg, "x", cfg->oslog.ident));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(cfg, "", nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(cfg, nullptr, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetDirectory(nullptr, "x", nullptr));
    EXPECT_STREQ(cfg->directory, "/d/");
    EXPECT_EQ(cfg->changedMask, 0U);
    char *out = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetDirectory(nullptr, &out));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetDirectory(cfg, nullptr));
    const std::string longest(1023, 'x');
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, longest.c_str(), nullptr), 0U);
    EXPECT_EQ(cfg->directory, longest + "/");
    EXPECT_EQ(zoltLogCfgSetDirectory(cfg, (std::string(1023, 'y') + "/").c_str(), nullptr), 0U);
    EXPECT_EQ(strlen(cfg->directory), 1024U);
}

// ---- names and rollover modes -----------------------------------------------------------------

TEST(Config, TheDefaultsAreKnownByNumberAndName) {
    EXPECT_EQ(IsDefaultOriginator(112), 1);
    EXPECT_EQ(IsDefaultOriginator(111), 0);
    EXPECT_EQ(IsDefaultOriginator(0), 0);
    EXPECT_EQ(IsDefaultLogSet("Default"), 1);
    EXPECT_EQ(IsDefaultLogSet("default"), 0);
    EXPECT_EQ(IsDefaultLogSet("Default "), 0);
    EXPECT_EQ(IsDefaultLogSet(""), 0);
    EXPECT_EQ(IsDefaultLogSet(nullptr), 0);
}

TEST(Config, TheFirstShortNameEndsAtACommaElseAtABlank) {
    const std::pair<const char *, const char *> rows[] = {
        {"vol, volume", "0:vol"}, {"vol", "0:vol"}, {"vol volume", "0:vol"}, {"my vol,volume", "0:my vol"},
        {" vol", "0:"},           {",vol", "0:"},   {"", "0:(null)"},        {"a b,c", "0:a b"}};
    for (const auto &[names, first] : rows) {
        Record record;
        std::snprintf(record.cfg.originatorNames, sizeof record.cfg.originatorNames, "%s", names);
        std::snprintf(record.cfg.productShortNames, sizeof record.cfg.productShortNames, "%s", "product");
        char *out = nullptr;
        uint32_t result = LogCfgGetShortNames(&record.cfg, ZOLTLOG_ATTR_ORIGINATOR_ID, &out);
        EXPECT_EQ(text(result, out), first) << names;
    }
    Record record;
    std::snprintf(record.cfg.originatorNames, sizeof record.cfg.originatorNames, "%s", "originator");
    std::snprintf(record.cfg.productShortNames, sizeof record.cfg.productShortNames, "%s", "product");
    for (const uint32_t selector :
         {uint32_t{ZOLTLOG_ATTR_PRODUCT_ID}, 0x10000U + ZOLTLOG_ATTR_PRODUCT_ID, 0xFFFF0107U}) {
        char *out = nullptr;
        const uint32_t result = LogCfgGetShortNames(&record.cfg, selector, &out);
        EXPECT_EQ(text(result, out), "0:product");
    }
    for (const uint32_t selector :
         {0U, ZOLTLOG_ATTR_PRODUCT_ID - 1U, 0x01070000U, uint32_t{ZOLTLOG_ATTR_PRODUCT_ID} << 1U}) {
        char *out = nullptr;
        const uint32_t result = LogCfgGetShortNames(&record.cfg, selector, &out);
        EXPECT_EQ(text(result, out), "0:originator");
    }
    char *out = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, LogCfgGetShortNames(nullptr, ZOLTLOG_ATTR_PRODUCT_ID, &out));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT,
                  LogCfgGetShortNames(&record.cfg, ZOLTLOG_ATTR_PRODUCT_ID, nullptr));
}

TEST(Config, RolloverModesAreReadByTheirWords) {
    const std::pair<const char *, uint32_t> rows[] = {{nullptr, 0},
                                                      {"", 0},
                                                      {"None", 0},
                                                      {"FileSize", 1},
                                                      {"LocalTime", 2},
                                                      {"Periodic", 4},
                                                      {"FileSize | LocalTime", 3},
                                                      {"FileSize | Periodic", 5},
                                                      {"LocalTime | Periodic", 2},
                                                      {"Periodic | LocalTime", 2},
                                                      {"FileSize LocalTime Periodic", 3},
                                                      {"filesize", 0},
                                                      {"xFileSizey", 1},
                                                      {"PeriodicFileSize", 5}};
    for (const auto &[word, mode] : rows)
        EXPECT_EQ(SettingStringToRolloverModeEnum(word), mode) << (word != nullptr ? word : "(null)");
}

TEST(Config, RolloverModesAreWrittenAsWords) {
    const char *rows[] = {"None",     "FileSize",           "LocalTime", "FileSize | LocalTime",
                          "Periodic", "FileSize | Periodic"};
    for (uint32_t mode = 0; mode < 6; ++mode) {
        char buffer[256] = "";
        EXPECT_EQ(RolloverModeEnumToSettingString(mode, buffer), buffer);
        EXPECT_STREQ(buffer, rows[mode]);
        EXPECT_EQ(SettingStringToRolloverModeEnum(buffer), mode);
    }
    char before[256] = "x";
    EXPECT_STREQ(RolloverModeEnumToSettingString(0, before), "xNone");
    EXPECT_STREQ(RolloverModeEnumToSettingString(4, before), "xNone | Periodic");
    EXPECT_STREQ(RolloverModeEnumToSettingString(1, before), "xNone | PeriodicFileSize");
    EXPECT_EQ(RolloverModeEnumToSettingString(1, nullptr), nullptr);
}
