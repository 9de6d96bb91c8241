// SPDX-License-Identifier: Apache-2.0
// What qdlogcfg makes of configuration files against what the library makes of them; the
// tool's reading is compiled into this program.
#include "support/support.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#include "src/config_keys.cpp"
#include "tools/qdlogcfg/edit.cpp"
#include "tools/qdlogcfg/keys.cpp"
#include "tools/qdlogcfg/settings.cpp"

namespace {

// Sections and values that a random file is made of; each key gets each value.
const char *const SECTIONS[] = {"Default", "7", "8", "LOGSET.Default", "LOGSET.bill", "LOGSET", "x"};
const char *const VALUES[] = {"",
                              "3",
                              "0",
                              " 5",
                              "3x",
                              "99999999999999999999",
                              "-1",
                              "true",
                              "true ",
                              "TRUE",
                              "false",
                              "ON",
                              "OFF",
                              "on",
                              "/var/log/x",
                              "sub",
                              "a\\\\b//",
                              "x y, z   ",
                              "FileSize | LocalTime",
                              "Periodic|FileSize",
                              "LocalTime | Periodic",
                              "None",
                              "23:59",
                              "3:30pm",
                              "24:00",
                              "LOG_LOCAL0",
                              "LOG_NONE",
                              "640",
                              "755",
                              "rw",
                              "4294967299",
                              "a=b",
                              "gr\xC3\xB6\xC3\x9F"
                              "e",
                              "bad\xFF"
                              "byte"};

std::string randomFile(std::mt19937 &random) {
    const auto below = [&random](size_t count) { return random() % count; };
    std::string file;
    for (size_t lines = below(60); lines > 0; --lines) {
        const std::string section = SECTIONS[below(std::size(SECTIONS))];
        const std::string key = below(30) == 0 ? "Unknown" : CFG_KEYS[below(CFG_KEY_COUNT)].name;
        std::string value = VALUES[below(std::size(VALUES))];
        if (below(40) == 0)
            value = std::string(390 + below(130), 'v') + "\xC3\xA9";
        file += (below(40) == 0 ? "" : section + ".") + key + (below(60) == 0 ? "" : "=") + value;
        file += lines == 1 && below(4) == 0 ? "" : "\n";
    }
    return file;
}

std::string everything(const LogCfg &cfg) {
    std::string all = std::string(cfg.logsetName != nullptr ? cfg.logsetName : "-") + " " +
                      std::to_string(cfg.isLogset) + " " + std::to_string(cfg.changedMask) + "\n";
    for (const CfgKey &key : CFG_KEYS)
        all += std::string(key.name) + "=" + shown(cfg, idOf(key)) + "\n";
    return all;
}

} // namespace

TEST(QdlogcfgSettings, AreReadAsTheLibraryReadsThem) {
    const std::string path = "./product.conf";
    support::writeFile("main.conf", "5.Configuration=" + path + "\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    std::mt19937 random(4711); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same files each time
    size_t found = 0;
    for (int round = 0; round < 400; ++round) {
        const std::string content = randomFile(random);
        support::writeFile("product.conf", content);
        const ConfigFile file = readConfigFile(path);
        const Product product{5, "", path, 1};
        std::vector<Scope> scopes = allScopes(product, file);
        for (const char *originator : {"7", "9"})
            scopes.push_back(findScope(product, file, originator, ""));
        for (const char *logset : {"Default", "bill", "none"})
            scopes.push_back(findScope(product, file, "", logset));
        for (const Scope &scope : scopes) {
            SCOPED_TRACE(scope.title() + " of\n" + content);
            Settings ours;
            Settings theirs;
            const uint32_t result = scope.isLogset
                                        ? zoltLogReadlogsetCfg(5, scope.logset.c_str(), &theirs.cfg)
                                        : zoltLogReadCfg(5, scope.originator, &theirs.cfg);
            ASSERT_EQ(readSettings(scope, file, ours), result == ZOLTLOG_OK);
            if (result == ZOLTLOG_OK) {
                ASSERT_EQ(everything(ours.cfg), everything(theirs.cfg));
                ++found;
            }
        }
    }
    EXPECT_GT(found, 1000U);
}

namespace {

// A line that is too long is several to the store, which puts a new one behind a piece in the
// same line; the tool ends the piece first.
std::string withoutLongLines(const std::string &content) {
    std::string kept;
    for (const std::string &line : support::lines(content))
        if (line.size() < 499)
            kept += line + "\n";
    return kept;
}

} // namespace

// Many changes in one rewrite leave what one after the other through the library leaves.
TEST(QdlogcfgEdits, LeaveWhatTheLibraryLeaves) {
    std::mt19937 random(42); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same files each time
    const char *const sections[] = {"Default", "7", "9", "LOGSET.Default", "LOGSET.bill", "LOGSET.new"};
    for (int round = 0; round < 300; ++round) {
        const std::string content = withoutLongLines(randomFile(random));
        support::writeFile("product.conf", content);
        Edits edits;
        std::string told = content;
        const bool removes = random() % 3 == 0; // no command does both
        for (size_t number = 1 + random() % 5; number > 0; --number) {
            const char *section = sections[random() % std::size(sections)];
            const char *key = CFG_KEYS[random() % CFG_KEY_COUNT].name;
            const Edits::Section *known = edits.find(section);
            if (known != nullptr &&
                std::any_of(known->settings.begin(), known->settings.end(),
                            [key](const Edits::Setting &setting) { return setting.name == key; }))
                continue;
            PropertyStore store;
            ASSERT_EQ(utiOpenPropertyStore("product.conf", section, &store), ZOLTLOG_STORE_OK);
            if (removes) {
                edits.remove(section, key);
                ASSERT_EQ(utiRemoveProperty(&store, key), ZOLTLOG_STORE_OK);
            } else {
                const std::string value = "value" + std::to_string(number);
                ASSERT_TRUE(edits.put(section, key, value));
                ASSERT_EQ(utiSetPropertyAsStr(&store, key, value.c_str()), ZOLTLOG_STORE_OK);
            }
            utiClosePropertyStore(&store);
            told += std::string(";") + section + "." + key;
        }
        ASSERT_EQ(edited(content, true, edits).content, support::readFile("product.conf")) << told;
    }
    Edits one;
    one.put("7", "DebugLevel", "1");
    const std::string longLine = "7.LogDirectory=" + std::string(600, 'v') + "\n";
    EXPECT_EQ(edited(longLine, true, one).content.substr(499, 16), "\n7.DebugLevel=1\n");
    one = {};
    one.put("7", "DebugLevel", "1");
    EXPECT_EQ(edited("", false, one).content, STORE_HEADER + std::string("7.DebugLevel=1\n"));
    EXPECT_EQ(edited("7.DebugLevel=1\n", true, one).difference.size(), 0U);
}

TEST(QdlogcfgKeys, AreFoundByTheirNames) {
    for (const CfgKey &key : CFG_KEYS)
        EXPECT_EQ(findKey(key.name), &key);
    EXPECT_EQ(findKey("debuglevel"), nullptr);
}

// A value that is shown is taken again for the same, and exactly.
TEST(QdlogcfgKeys, WhatIsShownIsTakenExactly) {
    for (const CfgKey &key : CFG_KEYS) {
        for (const char *value : VALUES) {
            SCOPED_TRACE(std::string(key.name) + "=" + value);
            Settings first;
            Settings second;
            InitLogCfg(5, 7, nullptr, &first.cfg);
            InitLogCfg(5, 7, nullptr, &second.cfg);
            CfgSectionState state = {true, 0, true};
            if (cfgTake(&first.cfg, idOf(key), value, &state) < CFG_LOOSELY)
                continue;
            const std::string text = shown(first.cfg, idOf(key));
            if (text.empty() || text[0] == '-') // no text is shown for no text, a sign for the upper half
                continue;
            EXPECT_EQ(cfgTake(&second.cfg, idOf(key), text.c_str(), &state), CFG_EXACTLY) << text;
            EXPECT_EQ(shown(second.cfg, idOf(key)), text);
        }
    }
}

TEST(QdlogcfgKeys, TakeNothingElseExactly) {
    const struct {
        const char *key, *value;
        CfgTaken taken;
    } cases[] = {
        {"DebugLevel", "6", CFG_EXACTLY},
        {"DebugLevel", "06", CFG_EXACTLY},
        {"DebugLevel", "7", CFG_SKIPPED},
        {"DebugLevel", " 6", CFG_LOOSELY},
        {"DebugLevel", "+6", CFG_LOOSELY},
        {"DebugLevel", "", CFG_LOOSELY},
        {"NumberOfLogFiles", "9223372036854775807", CFG_EXACTLY},
        {"NumberOfLogFiles", "9223372036854775808", CFG_LOOSELY},
        {"LogToStdout", "false", CFG_EXACTLY},
        {"LogToStdout", "no", CFG_LOOSELY},
        {"AppMsgLogging", "OFF", CFG_EXACTLY},
        {"AppMsgLogging", "Off", CFG_LOOSELY},
        {"RolloverMode", "LocalTime|FileSize", CFG_EXACTLY},
        {"RolloverMode", " None ", CFG_EXACTLY},
        {"RolloverMode", "Filesize", CFG_LOOSELY},
        {"RolloverMode", "FileSize FileSize", CFG_LOOSELY},
        {"RolloverMode", "None | FileSize", CFG_LOOSELY},
        {"RolloverAtLocalTime", "3:30", CFG_EXACTLY},
        {"RolloverAtLocalTime", "3:30pm", CFG_LOOSELY},
        {"RolloverAtLocalTime", "3: 30", CFG_LOOSELY},
        {"RolloverAtLocalTime", "3", CFG_SKIPPED},
        {"SyslogOpt", "4294967295", CFG_EXACTLY},
        {"SyslogOpt", "4294967296", CFG_LOOSELY},
        {"SyslogFacility", "LOG_KERN", CFG_EXACTLY},
        {"SyslogFacility", "kern", CFG_LOOSELY},
        {"LogFilePermissions", "0640", CFG_EXACTLY},
        {"LogFilePermissions", "66O", CFG_LOOSELY},
        {"LogFilePermissions", "600", CFG_SKIPPED},
        {"OIDNames", "", CFG_SKIPPED},
        {"FileName", "", CFG_SKIPPED},
    };
    for (const auto &row : cases) {
        Settings settings;
        InitLogCfg(5, 7, nullptr, &settings.cfg);
        CfgSectionState state = {true, 0, true};
        EXPECT_EQ(cfgTake(&settings.cfg, idOf(*findKey(row.key)), row.value, &state), row.taken)
            << row.key << "=" << row.value;
    }
}

TEST(QdlogcfgKeys, NameWhatWasProbablyMeant) {
    EXPECT_EQ(nearestKey("debuglevel"), "DebugLevel");
    EXPECT_EQ(nearestKey("DebugLevle"), "DebugLevel");
    EXPECT_EQ(nearestKey("Colour"), "");
}
