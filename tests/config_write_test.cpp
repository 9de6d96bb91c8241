// SPDX-License-Identifier: Apache-2.0
// Writing the configuration: records, registration of products.
#include "src/config_keys.h"
#include "support/cases.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "config_keys.h"

namespace {

using support::exists;
using support::readFile;
using support::writeFile;

const char HEADER[] = "###############################################\n"
                      "# Caution! Do not update/modify file by hand. \n"
                      "# Use qdlogcfg tool to update/modify this file\n"
                      "###############################################\n";

// Registers product 5 with an empty product file.
void registerProduct(const std::string &location = "product.conf") {
    writeFile("main.conf", "5.Configuration=" + location + "\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    if (location == "product.conf")
        writeFile("product.conf", "");
}

struct Record {
    explicit Record(const char *logset = nullptr) { InitLogCfg(5, 7, logset, &cfg); }
    ~Record() { zoltLogFreeCfg(&cfg); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    LogCfg cfg;
};

using config_keys::Key;
using config_keys::keyOf;
using config_keys::KEYS;
using config_keys::setAll;
using config_keys::WRITTEN;

const uint32_t ALL_BUT_DIRECTORY = 0x7FFFFFFE; // of the masks

// Whether the writers treat the key as any other.
bool isPlain(const Key &key) {
    return key.name != std::string("FileName");
}

// What a record of setAll writes.
std::string expectedLines(uint32_t mask, const std::string &section, bool logset) {
    std::string all;
    for (const char *name : WRITTEN) {
        const Key &key = keyOf(name);
        if (isPlain(key) && (mask & key.bit) != 0 && (logset ? key.writeLogset : key.writeOriginator))
            all += section + "." + name + "=" + key.written + "\n";
    }
    return all;
}

} // namespace

// ---- records of originators ----------------------------------------------------------------

TEST(ConfigWrite, EachMarkedSettingOfAnOriginatorIsWritten) {
    registerProduct();
    for (const Key &key : KEYS) {
        if (!isPlain(key))
            continue;
        Record record;
        setAll(&record.cfg);
        record.cfg.changedMask = key.bit;
        writeFile("product.conf", "");
        EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U) << key.name;
        EXPECT_EQ(readFile("product.conf"), expectedLines(key.bit, "7", false));
    }
}

TEST(ConfigWrite, AllMarkedSettingsOfAnOriginatorAreWrittenInOrder) {
    registerProduct();
    Record record;
    setAll(&record.cfg);
    record.cfg.changedMask = 0xFFFFFFFF;
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), expectedLines(0xFFFFFFFF, "7", false));
    EXPECT_EQ(zoltLogWriteCfg(5, 112, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"),
              expectedLines(0xFFFFFFFF, "7", false) + expectedLines(0xFFFFFFFF, "Default", false));
    record.cfg.removedMask = 0xFFFFFFFF; // removal wins
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), expectedLines(0xFFFFFFFF, "Default", false));
}

TEST(ConfigWrite, WhatIsWrittenIsReadBack) {
    registerProduct();
    Record record;
    setAll(&record.cfg);
    record.cfg.changedMask = 0xFFFFFFFF;
    ASSERT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    LogCfg back;
    ASSERT_EQ(zoltLogReadCfg(5, 7, &back), 0U);
    for (const Key &key : KEYS) {
        if (key.writeOriginator) {
            EXPECT_EQ(key.field(back), key.field(record.cfg)) << key.name;
        }
    }
    zoltLogFreeCfg(&back);
}

TEST(ConfigWrite, EveryChangeButTheDirectoryWritesAppMsgLogging) {
    registerProduct();
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "7.DebugLevel=3\n7.AppMsgLogging=ON\n");
    record.cfg.appMsgLogging = 0;
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "7.DebugLevel=3\n7.AppMsgLogging=OFF\n");
    record.cfg.removedMask = 0x40; // any other removal removes it
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "7.DebugLevel=3\n");
    Record other;
    zoltLogCfgSetDirectory(&other.cfg, "/d", nullptr);
    EXPECT_EQ(zoltLogWriteCfg(5, 8, &other.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "7.DebugLevel=3\n8.LogDirectory=/d/\n");
}

TEST(ConfigWrite, AFreshRecordWritesNothing) {
    registerProduct();
    LogCfg cfg;
    ASSERT_EQ(zoltLogReadCfg(5, 7, &cfg), 0U);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "");
    EXPECT_RESULT(ZOLTLOG_NOTHING_TO_WRITE, zoltLogWritelogSetCfg(5, "bill", &cfg));
    EXPECT_EQ(readFile("product.conf"), "");
    zoltLogFreeCfg(&cfg);
}

// Switching application messages marks every setting, also the texts that a record has not.
TEST(ConfigWrite, TextsThatAreNullAreNotWritten) {
    registerProduct();
    Record record;
    zoltLogCfgDisableAppMsgLogging(&record.cfg);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    std::string expected;
    for (const char *name : WRITTEN) {
        const Key &key = keyOf(name);
        if (key.writeOriginator && key.initial != nullptr && (key.bit & ALL_BUT_DIRECTORY) != 0)
            expected += std::string("7.") + name + "=" +
                        (name == std::string("AppMsgLogging") ? "OFF" : key.initial) + "\n";
    }
    EXPECT_EQ(readFile("product.conf"), expected);
}

TEST(ConfigWrite, TheTimeOfDayHasTwoDigitsEach) {
    registerProduct();
    const std::pair<uint64_t, const char *> rows[] = {{0, "00:00"},      {59, "00:00"},    {60, "00:01"},
                                                      {3660, "01:01"},   {86340, "23:59"}, {86400, "24:00"},
                                                      {360000, "100:00"}};
    for (const auto &[seconds, text] : rows) {
        writeFile("product.conf", "");
        Record record;
        zoltLogCfgSetRolloverTime(&record.cfg, seconds);
        EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
        EXPECT_EQ(readFile("product.conf"),
                  std::string("7.RolloverAtLocalTime=") + text + "\n7.AppMsgLogging=ON\n");
    }
}

TEST(ConfigWrite, ResultsOfWritingAnOriginator) {
    registerProduct();
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWriteCfg(0, 7, &record.cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWriteCfg(5, 0, &record.cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWriteCfg(5, 7, nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogWriteCfg(6, 7, &record.cfg));
    EXPECT_EQ(readFile("product.conf"), "");
    support::makeDirectory("product.conf.tmp/full");
    EXPECT_RESULT(ZOLTLOG_CFG_CREATE_FAILED, zoltLogWriteCfg(5, 7, &record.cfg)); // the store's 5
    EXPECT_EQ(zoltLogMutex.depth, 0);
}

TEST(ConfigWrite, AFailureOfTheSystemLogKeysIsTheResult) {
    registerProduct();
    Record record;
    zoltLogCfgSetSyslogFacility(&record.cfg, 40); // has no name
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWriteCfg(5, 7, &record.cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(5, "bill", &record.cfg));
}

TEST(ConfigWrite, ALineFeedIsRefusedAndNothingChanges) {
    registerProduct();
    const auto check = [](LogCfg *cfg) {
        cfg->changedMask |= 0x20;
        const size_t files = support::openDescriptors();
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWriteCfg(5, 7, cfg));
        EXPECT_EQ(readFile("product.conf"), "");
        EXPECT_EQ(support::openDescriptors(), files);
    };
    for (const auto setter : {zoltLogCfgSetL10nLib, zoltLogCfgSetL10nResource, zoltLogCfgSetL10nResourceDir,
                              zoltLogCfgSetSyslogIdent}) {
        Record record;
        setter(&record.cfg, "x\n7.LogDirectory=/etc");
        check(&record.cfg);
    }
    Record directory;
    zoltLogCfgSetDirectory(&directory.cfg, "/d\n/e", nullptr);
    check(&directory.cfg);
    Record names;
    std::snprintf(names.cfg.originatorNames, sizeof names.cfg.originatorNames, "%s", "a\n");
    names.cfg.changedMask = 2;
    check(&names.cfg);
    for (const auto setter : {zoltLogCfgSetLogsetFilename, zoltLogCfgSetLogsetOIDappMsgLogging,
                              zoltLogCfgSetLogsetOIDDebugLogging, zoltLogCfgSetLogsetOIDDiagLogging}) {
        Record record("bill");
        setter(&record.cfg, "x\ny");
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(5, "bill", &record.cfg));
        EXPECT_EQ(readFile("product.conf"), "");
    }
    Record logset("bill");
    zoltLogCfgSetDebugLevel(&logset.cfg, 1);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(5, "bi\nll", &logset.cfg));
    EXPECT_EQ(readFile("product.conf"), "");
}

// ---- records of log sets ------------------------------------------------------------------------

TEST(ConfigWrite, EachMarkedSettingOfALogsetIsWritten) {
    registerProduct();
    for (const Key &key : KEYS) {
        if ((key.bit & keyOf("FileName").bit) != 0)
            continue; // it ends the call
        Record record("bill");
        setAll(&record.cfg);
        record.cfg.changedMask = key.bit;
        writeFile("product.conf", "");
        EXPECT_EQ(zoltLogWritelogSetCfg(5, "bill", &record.cfg), 0U) << key.name;
        EXPECT_EQ(readFile("product.conf"), expectedLines(key.bit, "LOGSET.bill", true));
    }
}

TEST(ConfigWrite, AChangedFileNameLeavesTheSystemLogKeysUnwritten) {
    registerProduct();
    Record record("bill");
    setAll(&record.cfg);
    record.cfg.changedMask = 0x7FFFFFFF;
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "bill", &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"),
              expectedLines(0x7FC3FFFF, "LOGSET.bill", true) + "LOGSET.bill.FileName=bill\n");
    writeFile("product.conf", "");
    record.cfg.changedMask = 0x7FFFFFFF & ~0x8000000U;
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "Default", &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), expectedLines(0x7FFFFFFF, "LOGSET.Default", true));
}

TEST(ConfigWrite, AFileNameCannotBeRemoved) {
    registerProduct();
    writeFile("product.conf", "LOGSET.bill.FileName=b\n");
    Record record("bill");
    setAll(&record.cfg);
    record.cfg.removedMask = 0x8000000;
    record.cfg.changedMask = 0x40000;
    EXPECT_RESULT(ZOLTLOG_NOTHING_TO_WRITE, zoltLogWritelogSetCfg(5, "bill", &record.cfg));
    EXPECT_EQ(readFile("product.conf"), "LOGSET.bill.FileName=b\nLOGSET.bill.SyslogIdent=me\n");
}

TEST(ConfigWrite, AFileNameThatIsNullIsNotWritten) {
    registerProduct();
    Record record;
    zoltLogCfgDisableAppMsgLogging(&record.cfg);
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "bill", &record.cfg), 0U);
    const std::string file = readFile("product.conf");
    EXPECT_EQ(file.find("FileName"), std::string::npos);
    EXPECT_NE(file.find("LOGSET.bill.AppMsgLogging=OFF\nLOGSET.bill.SyslogIdent=Qorvanix\n"),
              std::string::npos);
}

TEST(ConfigWrite, ResultsOfWritingALogset) {
    registerProduct();
    Record record("bill");
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(0, "bill", &record.cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(5, nullptr, &record.cfg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogWritelogSetCfg(5, "bill", nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogWritelogSetCfg(6, "bill", &record.cfg));
    record.cfg.changedMask = 0;
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogWritelogSetCfg(6, "bill", &record.cfg)); // before 61
    EXPECT_RESULT(ZOLTLOG_NOTHING_TO_WRITE, zoltLogWritelogSetCfg(5, "bill", &record.cfg));
    record.cfg.removedMask = 0x20;
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "bill", &record.cfg), 0U);
    EXPECT_EQ(readFile("product.conf"), "");
}

TEST(ConfigWrite, AStoreThatDoesNotOpenIsToldDifferentlyForLogsets) {
    registerProduct("taken.conf/below.conf");
    writeFile("taken.conf", ""); // no directory
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogWriteCfg(5, 7, &record.cfg));
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogWritelogSetCfg(5, "bill", &record.cfg));
}

TEST(ConfigWrite, LogsetsOfALocationThatIsNoFileHaveAStoreOfTheirOwn) {
    registerProduct("./where");
    Record record("bill");
    zoltLogCfgSetDebugLevel(&record.cfg, 3);
    EXPECT_EQ(zoltLogWritelogSetCfg(5, "bill", &record.cfg), 0U);
    EXPECT_EQ(readFile("where\\LOGSET"), std::string(HEADER) + "bill.DebugLevel=3\nbill.AppMsgLogging=ON\n");
    EXPECT_FALSE(exists("where"));
}

// ---- opening for writing ------------------------------------------------------------------------------

TEST(ConfigWrite, ASectionIsOpenedOrItsFileMade) {
    PropertyStore store;
    ASSERT_EQ(CreatePropertyString("./a/b/new.conf", "5", &store), 0U);
    EXPECT_EQ(readFile("a/b/new.conf"), HEADER);
    EXPECT_FALSE(exists("a/b/new.conf.tmp"));
    utiSetPropertyAsStr(&store, "x", "1");
    utiClosePropertyStore(&store);
    ASSERT_EQ(CreatePropertyString("./a/b/new.conf", "6", &store), 0U);
    EXPECT_STREQ(store.root, "6");
    EXPECT_STREQ(store.path, "./a/b/new.conf");
    utiClosePropertyStore(&store);
    EXPECT_EQ(readFile("a/b/new.conf"), std::string(HEADER) + "5.x=1\n"); // not emptied
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, CreatePropertyString("./x.conf", "5", nullptr));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, CreatePropertyString("nodirectory.conf", "5", &store));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, CreatePropertyString(nullptr, "5", &store));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, CreatePropertyString("./x.conf", nullptr, &store));
    support::makeDirectory("dir.conf");
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, CreatePropertyString("./dir.conf", "5", &store));
}

TEST(ConfigWrite, ASymbolicLinkStays) {
    support::makeDirectory("real");
    writeFile("real/product.conf", "7.DebugLevel=1\n");
    ASSERT_EQ(symlink("real/product.conf", "product.conf"), 0);
    writeFile("main.conf", "5.Configuration=product.conf\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    Record record;
    zoltLogCfgSetDebugLevel(&record.cfg, 4);
    EXPECT_EQ(zoltLogWriteCfg(5, 7, &record.cfg), 0U);
    struct stat status;
    ASSERT_EQ(lstat("product.conf", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(readFile("real/product.conf"), "7.DebugLevel=4\n7.AppMsgLogging=ON\n");
}

TEST(ConfigWrite, ALinkToNowhereGetsItsFile) {
    support::makeDirectory("real");
    ASSERT_EQ(symlink("real/new.conf", "link.conf"), 0);
    PropertyStore store;
    ASSERT_EQ(CreatePropertyString("./link.conf", "5", &store), 0U);
    utiClosePropertyStore(&store);
    EXPECT_EQ(readFile("real/new.conf"), HEADER);
}

// A file that is there but cannot be read is not emptied.
TEST(ConfigWrite, AnUnreadableFileIsNotEmptied) {
    writeFile("secret.conf", "5.a=1\n");
    ASSERT_EQ(chmod("secret.conf", 0200), 0);
    EXPECT_TRUE(support::asOrdinaryUser([] {
        PropertyStore store;
        EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, CreatePropertyString("./secret.conf", "5", &store));
    }));
    ASSERT_EQ(chmod("secret.conf", 0600), 0);
    EXPECT_EQ(readFile("secret.conf"), "5.a=1\n");
}

// ---- registration --------------------------------------------------------------------------------------

FRESH_TEST(ConfigWrite, AProductIsRegisteredAndRemoved) {
    setenv("ZOLTLOG_CFG_LOC", "./etc/main.conf", 1);
    EXPECT_EQ(zoltLogAddProductCfg(5, "five, cinq", "/five.conf"), 0U);
    EXPECT_EQ(readFile("etc/main.conf"),
              std::string(HEADER) + "5.Configuration=/five.conf\n5.Names=five, cinq\n");
    EXPECT_RESULT(ZOLTLOG_PRODUCT_EXISTS, zoltLogAddProductCfg(5, "again", "/other.conf"));
    EXPECT_EQ(zoltLogAddProductCfg(6, "", "/six.conf"), 0U);
    EXPECT_EQ(readFile("etc/main.conf"), std::string(HEADER) +
                                             "5.Configuration=/five.conf\n5.Names=five, cinq\n"
                                             "6.Configuration=/six.conf\n6.Names=\n");
    EXPECT_EQ(IsThisLastProductConfiguration(), 0);
    EXPECT_EQ(zoltLogRemoveProductCfg(5), 0U);
    EXPECT_EQ(readFile("etc/main.conf"), std::string(HEADER) + "6.Configuration=/six.conf\n6.Names=\n");
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogRemoveProductCfg(5));
    EXPECT_EQ(zoltLogRemoveProductCfg(6), 0U);
    EXPECT_FALSE(exists("etc/main.conf")); // the last one takes the file along
    EXPECT_FALSE(exists("etc/main.conf.tmp"));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogRemoveProductCfg(6));
    EXPECT_FALSE(exists("etc/main.conf"));
    EXPECT_EQ(zoltLogMutex.depth, 0);
}

TEST(ConfigWrite, RemovingAProductRemovesItsOtherKeysToo) {
    writeFile("main.conf",
              "LoggingTools.L10nResourceDir=/r\n5.Configuration=./p.conf\n5.AppMsgLogging=true\n5.x=1\n");
    writeFile("p.conf", "7.DebugLevel=1\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    EXPECT_EQ(zoltLogRemoveProductCfg(5), 0U);
    EXPECT_EQ(readFile("main.conf"), "LoggingTools.L10nResourceDir=/r\n"); // a section is left
    EXPECT_EQ(readFile("p.conf"), "7.DebugLevel=1\n");                     // left in place
}

TEST(ConfigWrite, TheLastProductTakesTheFileBehindTheLink) {
    writeFile("real.conf", "5.Configuration=p.conf\n");
    ASSERT_EQ(symlink("real.conf", "main.conf"), 0);
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    EXPECT_EQ(zoltLogRemoveProductCfg(5), 0U);
    EXPECT_FALSE(exists("real.conf"));
    EXPECT_TRUE(exists("main.conf"));
}

TEST(ConfigWrite, ResultsOfRegistration) {
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogAddProductCfg(0, "n", "l"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogAddProductCfg(5, nullptr, "l"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogAddProductCfg(5, "n", nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogAddProductCfg(5, "n\nm", "l"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogAddProductCfg(5, "n", "l\n"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogRemoveProductCfg(0));
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogRemoveProductCfg(5));
    EXPECT_FALSE(exists("main.conf"));
    writeFile("main.conf", "5.Names=only\n");
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogRemoveProductCfg(5));
    EXPECT_EQ(zoltLogAddProductCfg(5, "n", "l"), 0U);
    EXPECT_EQ(readFile("main.conf"), "5.Names=n\n5.Configuration=l\n");
}

FRESH_TEST(ConfigWrite, AMainFileThatCannotBeMadeIsResult6) {
    writeFile("plain", "");
    setenv("ZOLTLOG_CFG_LOC", "./plain/main.conf", 1);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogAddProductCfg(5, "n", "l"));
    EXPECT_EQ(IsThisLastProductConfiguration(), 0); // a file that does not open
}

TEST(ConfigWrite, TheRootOfAProductIsRemoved) {
    writeFile("main.conf", "# c\n5.a=1\n6.a=1\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("main.conf", "5", &store), 0U);
    EXPECT_EQ(RemoveProductRoot(nullptr, 5), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(RemoveProductRoot(&store, 5), 0U);
    EXPECT_EQ(readFile("main.conf"), "# c\n6.a=1\n");
    EXPECT_EQ(RemoveProductRoot(&store, 5), 0U); // nothing left of it
    EXPECT_EQ(RemoveProductRoot(&store, 6), 0U);
    EXPECT_FALSE(exists("main.conf"));
    utiClosePropertyStore(&store);
    writeFile("main.conf", "# c\n\n");
    EXPECT_EQ(IsThisLastProductConfiguration(), 1);
}
