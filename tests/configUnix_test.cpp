// SPDX-License-Identifier: Apache-2.0
// System-log settings and log file permissions.
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

struct Record {
    Record() { InitLogCfg(5, 7, nullptr, &cfg); }
    ~Record() { zoltLogFreeCfg(&cfg); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    LogCfg cfg;
};

// The section "7" of a file of these bytes.
struct Section {
    explicit Section(const std::string &bytes = "") {
        support::writeFile("p.conf", bytes);
        utiOpenPropertyStore("p.conf", "7", &store);
    }
    ~Section() { utiClosePropertyStore(&store); }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;
    PropertyStore store;
};

const struct {
    const char *name;
    uint32_t facility;
} FACILITIES[] = {{"LOG_KERN", 0},     {"LOG_USER", 8},     {"LOG_MAIL", 16},    {"LOG_DAEMON", 24},
                  {"LOG_AUTH", 32},    {"LOG_LPR", 48},     {"LOG_NEWS", 56},    {"LOG_UUCP", 64},
                  {"LOG_CRON", 72},    {"LOG_LOCAL0", 128}, {"LOG_LOCAL1", 136}, {"LOG_LOCAL2", 144},
                  {"LOG_LOCAL3", 152}, {"LOG_LOCAL4", 160}, {"LOG_LOCAL5", 168}, {"LOG_LOCAL6", 176},
                  {"LOG_LOCAL7", 184}};

} // namespace

TEST(ConfigUnix, FacilitiesHaveNames) {
    for (const auto &row : FACILITIES) {
        EXPECT_EQ(strToFacility(row.name), row.facility);
        ASSERT_NE(facilityToStr(row.facility), nullptr);
        EXPECT_STREQ(facilityToStr(row.facility), row.name);
    }
    for (const uint32_t facility : {40U, 80U, 88U, 96U, 104U, 112U, 120U, 1U, 7U, 185U, 192U, 0xFFFFFFFFU})
        EXPECT_EQ(facilityToStr(facility), nullptr) << facility;
    for (const char *name : {"log_local0", "LOG_LOCAL", "LOG_USER ", " LOG_USER", "", "USER", "LOG_AUTHPRIV"})
        EXPECT_EQ(strToFacility(name), 0U) << name;
    EXPECT_EQ(strToFacility(nullptr), 0U);
}

TEST(ConfigUnix, SettingsAreStoredAndMarked) {
    Record record;
    LogCfg *cfg = &record.cfg;
    uint32_t word = 0;
    EXPECT_EQ(zoltLogCfgSetSyslogFacility(cfg, 40), 0U); // unchecked
    EXPECT_EQ(cfg->changedMask, 0x100000U);
    EXPECT_EQ(zoltLogCfgGetSyslogFacility(cfg, &word), 0U);
    EXPECT_EQ(word, 40U);
    cfg->changedMask = 0;
    EXPECT_EQ(zoltLogCfgSetSyslogOpt(cfg, 0xFFFFFFFF), 0U);
    EXPECT_EQ(cfg->changedMask, 0x80000U);
    EXPECT_EQ(zoltLogCfgGetSyslogOpt(cfg, &word), 0U);
    EXPECT_EQ(word, 0xFFFFFFFFU);
    cfg->changedMask = 0;
    EXPECT_EQ(zoltLogCfgSetSyslogIdent(cfg, "me"), 0U);
    EXPECT_EQ(cfg->changedMask, 0x40000U);
    char *text = nullptr;
    EXPECT_EQ(zoltLogCfgGetSyslogIdent(cfg, &text), 0U);
    EXPECT_STREQ(text, "me");
    zoltLogFree(text);
    EXPECT_EQ(cfg->removedMask, 0U);
}

TEST(ConfigUnix, NullArgumentsAreRefused) {
    Record record;
    LogCfg *cfg = &record.cfg;
    uint32_t word = 0;
    uint64_t mode = 0;
    char *text = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetSyslogFacility(nullptr, 8));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogFacility(nullptr, &word));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogFacility(cfg, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetSyslogOpt(nullptr, 8));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogOpt(nullptr, &word));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogOpt(cfg, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetSyslogIdent(nullptr, "x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetSyslogIdent(cfg, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogIdent(nullptr, &text));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetSyslogIdent(cfg, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgSetLogFilePermissions(nullptr, 432));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetLogFilePermissions(nullptr, &mode));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCfgGetLogFilePermissions(cfg, nullptr));
    EXPECT_EQ(cfg->changedMask, 0U);
    Section section;
    EXPECT_EQ(osGetCfgSettings(nullptr, &section.store, &word), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(osGetCfgSettings(cfg, nullptr, &word), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(osGetCfgSettings(cfg, &section.store, nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(osSetCfgSettings(nullptr, &section.store), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(osSetCfgSettings(cfg, nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
}

TEST(ConfigUnix, AnIdentityFillsItsFieldAndNoMore) {
    for (const size_t length : {0U, 79U, 80U, 81U, 5000U}) {
        Record record;
        LogCfg *cfg = &record.cfg;
        const uint32_t option = cfg->oslog.option;
        EXPECT_EQ(zoltLogCfgSetSyslogIdent(cfg, std::string(length, 'i').c_str()), 0U);
        const size_t kept = length < 80 ? length : 80;
        EXPECT_EQ(strnlen(cfg->oslog.ident, 80), kept);
        EXPECT_EQ(cfg->oslog.option, option);
        char *text = nullptr;
        EXPECT_EQ(zoltLogCfgGetSyslogIdent(cfg, &text), 0U);
        EXPECT_EQ(std::string(text), std::string(kept, 'i'));
        zoltLogFree(text);
        Section section;
        EXPECT_EQ(osSetCfgSettings(cfg, &section.store), 0U);
        EXPECT_EQ(support::readFile("p.conf"), "7.SyslogIdent=" + std::string(kept, 'i') + "\n");
    }
}

// A number is accepted below 778 when its last two decimal digits are at most 79 and its
// last one at most 7.
TEST(ConfigUnix, PermissionsAreTestedByTheirDecimalDigits) {
    const struct {
        uint64_t mode;
        bool accepted;
    } rows[] = {{0660, true},       {0777, true},  {0644, true},  {0640, true},   {0, true},
                {777, true},        {0755, false}, {0600, false}, {778, false},   {800, false},
                {8, false},         {79, false},   {77, true},    {80, false},    {177, true},
                {180, false},       {277, true},   {1000, false}, {07777, false}, {4294967296U, false},
                {UINT64_MAX, false}};
    for (const auto &row : rows) {
        Record record;
        LogCfg *cfg = &record.cfg;
        EXPECT_EQ(zoltLogCfgSetLogFilePermissions(cfg, row.mode), row.accepted ? 0U : 3U) << row.mode;
        uint64_t mode = 0;
        EXPECT_EQ(zoltLogCfgGetLogFilePermissions(cfg, &mode), 0U);
        EXPECT_EQ(mode, row.accepted ? row.mode : 432U);
        EXPECT_EQ(cfg->changedMask, row.accepted ? 0x200000U : 0U);
    }
}

TEST(ConfigUnix, ASectionsKeysAreReadAndCounted) {
    Section section(
        "7.SyslogIdent=me\n7.SyslogOpt=3\n7.SyslogFacility=LOG_LOCAL7\n7.LogFilePermissions=640\n");
    Record record;
    uint32_t counter = 10;
    EXPECT_EQ(osGetCfgSettings(&record.cfg, &section.store, &counter), 0U);
    EXPECT_EQ(counter, 14U);
    EXPECT_STREQ(record.cfg.oslog.ident, "me");
    EXPECT_EQ(record.cfg.oslog.option, 3U);
    EXPECT_EQ(record.cfg.oslog.facility, 184U);
    EXPECT_EQ(record.cfg.permissions.mode, 0640U);
    EXPECT_EQ(record.cfg.changedMask, 0x3C0000U);
}

TEST(ConfigUnix, AbsentPermissionsAreTheStoresResult) {
    Section section("7.SyslogOpt=3\n");
    Record record;
    uint32_t counter = 0;
    EXPECT_EQ(osGetCfgSettings(&record.cfg, &section.store, &counter), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(counter, 1U);
    EXPECT_EQ(record.cfg.oslog.option, 3U);
    EXPECT_EQ(record.cfg.permissions.mode, 0660U);
}

TEST(ConfigUnix, RefusedPermissionsCountAndChangeNothing) {
    Section section("7.LogFilePermissions=755\n");
    Record record;
    uint32_t counter = 0;
    EXPECT_EQ(osGetCfgSettings(&record.cfg, &section.store, &counter), 0U);
    EXPECT_EQ(counter, 1U);
    EXPECT_EQ(record.cfg.permissions.mode, 0660U);
    EXPECT_EQ(record.cfg.changedMask, 0U);
}

TEST(ConfigUnix, UnparsablePermissionsSetTheScratchValue) {
    const struct {
        const char *bytes;
        uint32_t mode;
    } rows[] = {{"7.LogFilePermissions=rw\n", 0},
                {"7.SyslogOpt=77\n7.LogFilePermissions=rw\n", 77},
                {"7.SyslogOpt=9\n7.LogFilePermissions=\n", 0660}, // 9 is refused by its digit
                {"7.SyslogOpt=77\n7.LogFilePermissions=9\n", 77},
                {"7.SyslogOpt=77\n7.LogFilePermissions= 640x\n", 0640},
                {"7.SyslogOpt=4294967373\n7.LogFilePermissions=rw\n", 0660}}; // the scratch value is not cut
    for (const auto &row : rows) {
        Section section(row.bytes);
        Record record;
        uint32_t counter = 0;
        EXPECT_EQ(osGetCfgSettings(&record.cfg, &section.store, &counter), 0U);
        EXPECT_EQ(record.cfg.permissions.mode, row.mode) << row.bytes;
    }
}

TEST(ConfigUnix, MarkedKeysAreWrittenOrRemoved) {
    const std::string before =
        "7.SyslogIdent=a\n7.SyslogOpt=1\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=640\n";
    const struct {
        uint32_t changed, removed;
        std::string after;
    } rows[] = {
        {0, 0, before},
        {0x3C0000, 0,
         "7.SyslogIdent=me\n7.SyslogOpt=5\n7.SyslogFacility=LOG_LOCAL0\n7.LogFilePermissions=660\n"},
        {0, 0x3C0000, ""},
        {0x40000, 0,
         "7.SyslogIdent=me\n7.SyslogOpt=1\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=640\n"},
        {0x80000, 0, "7.SyslogIdent=a\n7.SyslogOpt=5\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=640\n"},
        {0x100000, 0,
         "7.SyslogIdent=a\n7.SyslogOpt=1\n7.SyslogFacility=LOG_LOCAL0\n7.LogFilePermissions=640\n"},
        {0x200000, 0,
         "7.SyslogIdent=a\n7.SyslogOpt=1\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=660\n"},
        {0, 0x40000, "7.SyslogOpt=1\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=640\n"},
        {0, 0x80000, "7.SyslogIdent=a\n7.SyslogFacility=LOG_USER\n7.LogFilePermissions=640\n"},
        {0, 0x100000, "7.SyslogIdent=a\n7.SyslogOpt=1\n7.LogFilePermissions=640\n"},
        {0x3C0000, 0x200000,
         "7.SyslogIdent=me\n7.SyslogOpt=5\n7.SyslogFacility=LOG_LOCAL0\n"}, // removed wins
        {0x4003FFFF, 0x1, before},
    };
    for (const auto &row : rows) {
        Section section(before);
        Record record;
        std::snprintf(record.cfg.oslog.ident, sizeof record.cfg.oslog.ident, "%s", "me");
        record.cfg.oslog.option = 5;
        record.cfg.oslog.facility = 128;
        record.cfg.changedMask = row.changed;
        record.cfg.removedMask = row.removed;
        EXPECT_EQ(osSetCfgSettings(&record.cfg, &section.store), 0U);
        EXPECT_EQ(support::readFile("p.conf"), row.after);
    }
}

TEST(ConfigUnix, AFacilityWithoutANameIsRefusedByTheStore) {
    Section section("7.a=1\n");
    Record record;
    zoltLogCfgSetSyslogFacility(&record.cfg, 40);
    EXPECT_EQ(osSetCfgSettings(&record.cfg, &section.store), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(support::readFile("p.conf"), "7.a=1\n");
    zoltLogCfgSetLogFilePermissions(&record.cfg, 0640); // the last call's result counts
    EXPECT_EQ(osSetCfgSettings(&record.cfg, &section.store), 0U);
    EXPECT_EQ(support::readFile("p.conf"), "7.a=1\n7.LogFilePermissions=640\n");
}
