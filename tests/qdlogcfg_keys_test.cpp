// The settings that qdlogcfg knows against the library's own table of keys; the tool's
// table is compiled into this program.
#include <gtest/gtest.h>

#include "src/config_keys.h"
#include "tools/qdlogcfg/keys.cpp"

namespace {

Key::Form formOf(CfgKind kind) {
    switch (kind) {
    case CFG_NUMBER32:
    case CFG_NUMBER64:
    case CFG_OPTION:
        return Key::NUMBER;
    case CFG_FLAG:
    case CFG_BOOLEAN:
        return Key::BOOLEAN;
    default:
        return Key::TEXT;
    }
}

} // namespace

TEST(QdlogcfgKeys, AreThoseOfTheLibraryInItsOrder) {
    ASSERT_EQ(keys().size(), static_cast<size_t>(CFG_KEY_COUNT));
    for (size_t i = 0; i < CFG_KEY_COUNT; ++i) {
        SCOPED_TRACE(CFG_KEYS[i].name);
        EXPECT_STREQ(keys()[i].name, CFG_KEYS[i].name);
        EXPECT_EQ(keys()[i].originator, (CFG_KEYS[i].use & CFG_READ_ORIGINATOR) != 0);
        EXPECT_EQ(keys()[i].logset, (CFG_KEYS[i].use & CFG_READ_LOGSET) != 0);
        EXPECT_EQ(keys()[i].form, formOf(CFG_KEYS[i].kind));
        EXPECT_EQ(findKey(CFG_KEYS[i].name), &keys()[i]);
    }
}

// Every value that the tool puts in comes out of the field that the library's key fills.
TEST(QdlogcfgKeys, FillTheFieldsOfTheLibrarysKeys) {
    for (size_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const Key &key = keys()[i];
        SCOPED_TRACE(key.name);
        LogCfg before = {};
        LogCfg cfg = {};
        ASSERT_EQ(InitLogCfg(5, 7, nullptr, &before), 0U);
        ASSERT_EQ(InitLogCfg(5, 7, nullptr, &cfg), 0U);
        ASSERT_NE(std::string(key.probeA), key.probeB);
        for (const char *probe : {key.probeA, key.probeB}) {
            EXPECT_EQ(key.apply(cfg, probe), 0U);
            EXPECT_EQ(key.show(cfg), probe);
        }
        EXPECT_EQ(key.apply(cfg, key.probeA), 0U);
        if (key.show(before) == key.probeA) {
            EXPECT_EQ(key.apply(cfg, key.probeB), 0U);
        }
        size_t first = 0; // byte of the record that differs, masks aside
        cfg.changedMask = 0;
        while (first < sizeof cfg &&
               reinterpret_cast<const char *>(&cfg)[first] == reinterpret_cast<const char *>(&before)[first])
            ++first;
        EXPECT_GE(first, CFG_KEYS[i].field);
        EXPECT_LT(first, CFG_KEYS[i].field + 8U);
        zoltLogFreeCfg(&cfg);
        zoltLogFreeCfg(&before);
    }
}

TEST(QdlogcfgKeys, NameWhatWasProbablyMeant) {
    EXPECT_EQ(nearestKey("debuglevel"), "DebugLevel");
    EXPECT_EQ(nearestKey("DebugLevle"), "DebugLevel");
    EXPECT_EQ(nearestKey("Colour"), "");
}
