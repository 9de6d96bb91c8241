// SPDX-License-Identifier: Apache-2.0
#include "support/cases.h"
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// ---- calls of the library that a test watches or makes fail ----------------------

bool watching;
std::vector<size_t> reads;  // lengths asked for
std::vector<size_t> writes; //
int shortReadAt;            // which read (from 0) gives one byte less
int failWriteAt;            // which write fails ...
int writeError;             // ... with this, or 0: takes one byte less
int errorAfterShort;        // and the one that goes on with the rest fails with this
int statusCallsLeft;        // fstat fails once these are used up; -1: never
std::string noStatusOf;     // stat fails for the path that ends so

const bool PREPARED = support::eachCase([] {
    watching = false;
    reads.clear();
    writes.clear();
    shortReadAt = failWriteAt = statusCallsLeft = -1;
    writeError = errorAfterShort = 0;
    noStatusOf.clear();
    libc::read.hook = [](int descriptor, void *buffer, size_t length) {
        if (!watching)
            return libc::read.real(descriptor, buffer, length);
        reads.push_back(length);
        const bool isShort = static_cast<int>(reads.size()) - 1 == shortReadAt;
        return libc::read.real(descriptor, buffer, isShort ? length - 1 : length);
    };
    libc::write.hook = [](int descriptor, const void *buffer, size_t length) -> ssize_t {
        if (!watching)
            return libc::write.real(descriptor, buffer, length);
        writes.push_back(length);
        const int index = static_cast<int>(writes.size()) - 1;
        if (errorAfterShort != 0 && failWriteAt != -1 && index == failWriteAt + 1) {
            errno = errorAfterShort;
            return -1;
        }
        if (index != failWriteAt)
            return libc::write.real(descriptor, buffer, length);
        if (writeError == 0)
            return libc::write.real(descriptor, buffer, length - 1);
        errno = writeError;
        return -1;
    };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        if (statusCallsLeft == -1 || statusCallsLeft-- > 0)
            return libc::fstat.real(descriptor, status);
        statusCallsLeft = 0;
        errno = EIO;
        return -1;
    };
    libc::stat.hook = [](const char *path, struct stat *status) {
        const size_t length = strlen(path);
        if (noStatusOf.empty() || length < noStatusOf.size() ||
            path + length - noStatusOf.size() != noStatusOf)
            return libc::stat.real(path, status);
        errno = EIO;
        return -1;
    };
});

} // namespace

namespace {

std::string here() {
    char *directory = get_current_dir_name();
    std::string result = std::string(directory) + "/";
    free(directory);
    return result;
}

void writeLog(const std::string &name, int64_t created, const char *rest = "") {
    support::writeFile(name, "$Header 65543,101,7," + std::to_string(created) + ",0,hostA\n" + rest);
}

std::string counted(const std::string &series, int counter, const std::string &date = "240301") {
    char name[128];
    snprintf(name, sizeof name, "%s-1-%s-%010d.log", series.c_str(), date.c_str(), counter);
    return name;
}

LogFileEntry *makeEntry(const std::string &name, int64_t created, const std::string &directory = "") {
    auto *entry = static_cast<LogFileEntry *>(calloc(1, sizeof(LogFileEntry) + name.size()));
    strcpy(entry->name, name.c_str());
    strcpy(entry->directory, (directory.empty() ? here() : directory).c_str());
    entry->creationTime = created;
    zoltLogOs_initfilehandle(&entry->file);
    return entry;
}

Names namesOf(const LogFileEntry *list) {
    Names names;
    for (; list != nullptr; list = list->next)
        names.emplace_back(list->name);
    return names;
}

void freeList(LogFileEntry *&list) {
    while (list != nullptr) {
        LogFileEntry *next = list->next;
        zoltLogFree(list);
        list = next;
    }
}

LogCfg *makeCfg(uint64_t product, uint64_t originator, uint64_t keep) {
    auto *cfg = static_cast<LogCfg *>(calloc(1, sizeof(LogCfg)));
    cfg->productId = product;
    cfg->originatorId = originator;
    cfg->numberOfLogFiles = keep;
    return cfg;
}

LogQueryNode term(int32_t kind, uint64_t value) {
    LogQueryNode node = {};
    node.kind = kind;
    node.value.number = value;
    return node;
}

} // namespace

// ---- finding the configuration of a file -----------------------------------------

class FindConfig : public testing::Test {
  protected:
    void SetUp() override {
        for (LogCfg *&cfg : cfgs)
            cfg = makeCfg(5, 7, 1);
    }
    void TearDown() override {
        for (LogCfg *cfg : cfgs) {
            zoltLogFree(cfg->logsetName);
            zoltLogFree(cfg->logsetFilename);
            free(cfg);
        }
    }
    void set(int at, const char *name, const char *filename) {
        cfgs[at]->logsetName = zoltLogSafeStrdup(name);
        cfgs[at]->logsetFilename = zoltLogSafeStrdup(filename);
    }
    LogCfg *cfgs[3];
};

TEST_F(FindConfig, BothIdsBeforeTheDefaultOriginator) {
    cfgs[0]->originatorId = 112;
    EXPECT_EQ(found_config(5, 7, cfgs, 3), cfgs[1]);
    EXPECT_EQ(found_config(5, 8, cfgs, 3), cfgs[0]);
    EXPECT_EQ(found_config(5, 112, cfgs, 3), cfgs[0]);
}

TEST_F(FindConfig, DefaultOriginatorOfTheSameProductOnly) {
    cfgs[0]->originatorId = 112;
    cfgs[0]->productId = 6;
    EXPECT_EQ(found_config(5, 8, cfgs, 3), nullptr);
    EXPECT_EQ(found_config(6, 8, cfgs, 3), cfgs[0]);
    cfgs[1]->productId = cfgs[2]->productId = 6;
    cfgs[1]->originatorId = 112;
    EXPECT_EQ(found_config(6, 8, cfgs, 3), cfgs[0]); // the first one
}

TEST_F(FindConfig, NothingInNothing) {
    EXPECT_EQ(found_config(5, 7, cfgs, 0), nullptr);
    EXPECT_EQ(found_config(5, 7, nullptr, 3), nullptr);
    EXPECT_EQ(found_configSL(5, "a", cfgs, 0), nullptr);
    EXPECT_EQ(found_configSL(5, nullptr, cfgs, 3), nullptr);
}

TEST_F(FindConfig, LogSetByFileNameBeforeTheDefaultLogSet) {
    set(0, "Default", "base");
    set(1, "web", "webfile");
    EXPECT_EQ(found_configSL(5, "webfile", cfgs, 3), cfgs[1]);
    EXPECT_EQ(found_configSL(5, "base", cfgs, 3), cfgs[0]);
    EXPECT_EQ(found_configSL(5, "web", cfgs, 3), cfgs[0]); // its name is not its file name
    EXPECT_EQ(found_configSL(6, "webfile", cfgs, 3), nullptr);
    cfgs[0]->logsetName[0] = 'd'; // "default" is not the default log set
    EXPECT_EQ(found_configSL(5, "other", cfgs, 3), nullptr);
}

TEST_F(FindConfig, RecordsWithoutALogSetAreSkipped) {
    cfgs[0]->logsetFilename = zoltLogSafeStrdup("web"); // no log set name
    EXPECT_EQ(found_configSL(5, "web", cfgs, 3), nullptr);
}

TEST(ConfigArray, FreesTheRecordsButNotTheArray) {
    LogCfg *cfgs[3] = {makeCfg(1, 2, 3), nullptr, makeCfg(1, 3, 3)};
    cfgs[2]->logsetName = zoltLogSafeStrdup("owned");
    FreeConfigArray(cfgs, 3); // leaks show up in the sanitizer builds
    EXPECT_EQ(cfgs[0], nullptr);
    EXPECT_EQ(cfgs[2], nullptr);
    FreeConfigArray(cfgs, 3);
    FreeConfigArray(nullptr, 3);
}

// ---- reducing to surplus files ---------------------------------------------------

class Surplus : public testing::Test {
  protected:
    void TearDown() override {
        freeList(list);
        FreeConfigArray(cfgs.data(), static_cast<uint32_t>(cfgs.size()));
    }
    // From the newest to the oldest, as the reduction takes them.
    void give(const std::vector<std::pair<std::string, int64_t>> &files) {
        LogFileEntry **tail = &list;
        for (const auto &[name, created] : files) {
            *tail = makeEntry(name, created);
            tail = &(*tail)->next;
        }
    }
    Names reduce() {
        GetManageableLogFiles(&list, cfgs.data(), static_cast<uint32_t>(cfgs.size()));
        return namesOf(list);
    }
    LogFileEntry *list = nullptr;
    std::vector<LogCfg *> cfgs;
};

TEST_F(Surplus, SevenFilesOfFiveYieldTheTwoOldest) {
    cfgs = {makeCfg(101, 7, 5)};
    std::vector<std::pair<std::string, int64_t>> files;
    for (int i = 6; i >= 0; --i)
        files.emplace_back(counted("101-7", i), 1000 + i);
    give(files);
    // Each is pushed at the head, the oldest first.
    EXPECT_EQ(reduce(), (Names{counted("101-7", 1), counted("101-7", 0)}));
}

TEST_F(Surplus, FiveOrFewerYieldNone) {
    cfgs = {makeCfg(101, 7, 5)};
    std::vector<std::pair<std::string, int64_t>> files;
    for (int i = 4; i >= 0; --i)
        files.emplace_back(counted("101-7", i), 1000 + i);
    give(files);
    EXPECT_EQ(reduce(), Names());
}

TEST_F(Surplus, KeepAllKeepsAll) {
    cfgs = {makeCfg(101, 7, ZOLTLOG_KEEP_ALL_FILES)};
    give({{counted("101-7", 1), 2}, {counted("101-7", 0), 1}});
    EXPECT_EQ(reduce(), Names());
}

TEST_F(Surplus, SeriesAreReducedInTheOrderInWhichTheyBeginAndPushedAtTheHead) {
    cfgs = {makeCfg(101, 7, 1), makeCfg(101, 8, 1)};
    give({{counted("101-7", 2), 60},
          {counted("101-8", 2), 50},
          {counted("101-7", 1), 40},
          {counted("101-8", 1), 30},
          {counted("101-7", 0), 20},
          {counted("101-8", 0), 10}});
    EXPECT_EQ(reduce(),
              (Names{counted("101-8", 1), counted("101-8", 0), counted("101-7", 1), counted("101-7", 0)}));
}

TEST_F(Surplus, SeriesWithoutConfigurationYieldNone) {
    cfgs = {makeCfg(101, 7, 1)};
    give({{counted("101-8", 2), 60},
          {counted("101-8", 1), 50},
          {counted("102-7", 1), 40},
          {counted("102-7", 0), 30}});
    EXPECT_EQ(reduce(), Names());
    EXPECT_EQ(list, nullptr);
}

TEST_F(Surplus, DefaultOriginatorSpeaksForTheOthersOfItsProduct) {
    cfgs = {makeCfg(101, 112, 2), makeCfg(101, 7, 1)};
    give({{counted("101-8", 2), 60},
          {counted("101-8", 1), 50},
          {counted("101-8", 0), 40},
          {counted("101-7", 1), 30},
          {counted("101-7", 0), 20}});
    EXPECT_EQ(reduce(), (Names{counted("101-7", 0), counted("101-8", 0)}));
}

TEST_F(Surplus, FilesOfOneSecondAreOrderedByDateAndCounterOfTheirNames) {
    cfgs = {makeCfg(101, 7, 2)};
    give({{counted("101-7", 9), 1000},
          {counted("101-7", 11), 1000},
          {counted("101-7", 8), 1000},
          {counted("101-7", 0, "240302"), 1000},
          {counted("101-7", 10), 1000}});
    EXPECT_EQ(reduce(), (Names{counted("101-7", 10), counted("101-7", 9), counted("101-7", 8)}));
}

TEST_F(Surplus, CreationTimeGoesBeforeTheName) {
    cfgs = {makeCfg(101, 7, 1)};
    give({{counted("101-7", 1), 1001}, {counted("101-7", 5), 1000}, {counted("101-7", 4), 1000}});
    EXPECT_EQ(reduce(), (Names{counted("101-7", 5), counted("101-7", 4)}));
}

TEST_F(Surplus, CountersBeyondTenDigitsStillCount) {
    cfgs = {makeCfg(101, 7, 1)};
    give({{"101-7-1-240301-9999999999.log", 1000}, {"101-7-1-240301-10000000000.log", 1000}});
    EXPECT_EQ(reduce(), (Names{"101-7-1-240301-9999999999.log"}));
}

TEST_F(Surplus, LogSetFilesFormOneSeriesOrderedByTheirNames) {
    cfgs = {makeCfg(101, 0, 1)};
    give({{"101-setA-240305101459.log", 5},
          {"101-setA-240305101501.log", 5},
          {"101-setA-240305101500.log", 5}});
    EXPECT_EQ(reduce(), (Names{"101-setA-240305101500.log", "101-setA-240305101459.log"}));
}

TEST_F(Surplus, LogSetNamedByDigitsIsTakenForThatOriginator) {
    cfgs = {makeCfg(101, 0, 1)};
    give({{"101-7up-240305101501.log", 6}, {"101-7up-240305101459.log", 5}});
    EXPECT_EQ(reduce(), Names());
    cfgs.push_back(makeCfg(101, 7, 1));
    give({{counted("101-7", 0), 7}, {"101-7up-240305101501.log", 6}, {"101-7up-240305101459.log", 5}});
    EXPECT_EQ(reduce(), (Names{"101-7up-240305101501.log", "101-7up-240305101459.log"}));
}

TEST_F(Surplus, AnEmptyListStaysEmpty) {
    cfgs = {makeCfg(101, 7, 1)};
    EXPECT_EQ(reduce(), Names());
    GetManageableLogFiles(nullptr, cfgs.data(), 1);
}

TEST_F(Surplus, WithoutConfigurationsNothingIsSurplus) {
    give({{counted("101-7", 1), 2}, {counted("101-7", 0), 1}});
    EXPECT_EQ(reduce(), Names());
}

// The steps of grouping, done plainly on random lists.
TEST_F(Surplus, RandomListsAgreeWithThePlainSteps) {
    srand(7);
    for (int round = 0; round < 300; ++round) {
        cfgs = {makeCfg(1, 112, 3), makeCfg(1, 2, 1), makeCfg(2, 1, 2), makeCfg(2, 3, 4)};
        std::vector<std::pair<std::string, int64_t>> files;
        const int count = rand() % 60;
        for (int i = count; i > 0; --i) {
            const std::string series = std::to_string(1 + rand() % 3) + "-" + std::to_string(1 + rand() % 4);
            files.emplace_back(counted(series, i), 1000 + i);
        }
        give(files);
        Names expected;
        auto rest = files;
        while (!rest.empty()) {
            const std::string series = rest[0].first.substr(0, 4);
            Names group; // oldest first
            decltype(rest) remainder;
            for (const auto &file : rest) {
                if (file.first.substr(0, 4) == series)
                    group.insert(group.begin(), file.first);
                else
                    remainder.push_back(file);
            }
            rest = remainder;
            const LogCfg *cfg = found_config(static_cast<uint64_t>(series[0] - '0'),
                                             static_cast<uint64_t>(series[2] - '0'), cfgs.data(), 4);
            for (size_t i = 0; cfg != nullptr && i + cfg->numberOfLogFiles < group.size(); ++i)
                expected.insert(expected.begin(), group[i]);
        }
        ASSERT_EQ(reduce(), expected) << round;
        freeList(list);
        FreeConfigArray(cfgs.data(), 4);
    }
    cfgs.clear();
}

// ---- manageable files through the configuration ----------------------------------

class Manageable : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        support::makeDirectory("logs");
        setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
        support::writeFile("main.conf", "101.Configuration=" + here() + "p101.conf\n101.Names=web\n" +
                                            "102.Configuration=" + here() + "p102.conf\n102.Names=db\n");
        support::writeFile("p101.conf",
                           "Default.LogDirectory=" + here() + "logs/\nDefault.NumberOfLogFiles=2\n" +
                               "7.NumberOfLogFiles=3\n" + "LOGSET.Default.LogDirectory=" + here() +
                               "logs/\nLOGSET.web.FileName=webfile\nLOGSET.web.NumberOfLogFiles=1\n");
        support::writeFile("p102.conf", "Default.LogDirectory=" + here() +
                                            "logs/\nDefault.NumberOfLogFiles=1\n8.DebugLevel=1\n");
    }
    void TearDown() override { freeList(listing.files); }
    void series(const std::string &ids, int count, int64_t firstTime) {
        for (int i = 0; i < count; ++i)
            writeLog("logs/" + counted(ids, i), firstTime + i);
    }
    LogListing listing = {};
};

TEST_F(Manageable, MissingHandleIsInvalid) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetManageableLogFiles(101, 7, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetManageableLogFilesSL(101, "web", nullptr));
}

TEST_F(Manageable, HandleIsZeroedFirst) {
    memset(&listing, 0x55, sizeof listing);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogGetManageableLogFiles(999, 7, &listing));
    EXPECT_EQ(listing.files, nullptr);
    EXPECT_EQ(listing.next, nullptr);
    EXPECT_EQ(listing.query, nullptr);
    EXPECT_EQ(listing.word, 0u);
    EXPECT_EQ(listing.unsupportedHeader, 0u);
    memset(&listing, 0x55, sizeof listing);
    EXPECT_RESULT(ZOLTLOG_CFG_NOT_FOUND, zoltLogGetManageableLogFilesSL(999, "web", &listing));
    EXPECT_EQ(listing.files, nullptr);
}

TEST_F(Manageable, OneOriginatorKeepsItsNumber) {
    series("101-7", 5, 1000);
    series("101-8", 5, 2000);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(101, 7, &listing));
    EXPECT_EQ(namesOf(listing.files), (Names{counted("101-7", 1), counted("101-7", 0)}));
    EXPECT_EQ(listing.next, listing.files);
    EXPECT_EQ(listing.files->creationTime, 1001);
    EXPECT_EQ(listing.files->directory, here() + "logs/");
}

TEST_F(Manageable, NothingListedIs45) {
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, zoltLogGetManageableLogFiles(101, 7, &listing));
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, zoltLogGetManageableLogFilesSL(101, "web", &listing));
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, zoltLogGetManageableLogFiles(0, 0, &listing));
}

TEST_F(Manageable, NoSurplusIsAnEmptyListAndSuccess) {
    series("101-7", 3, 1000);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(101, 7, &listing));
    EXPECT_EQ(listing.files, nullptr);
    LogFileEntry *entry = nullptr;
    EXPECT_RESULT(ZOLTLOG_NO_MORE, zoltLogFetchNextFileEx(&listing, &entry));
}

TEST_F(Manageable, AnyProductAndOriginator) {
    series("101-7", 5, 1000);
    series("101-112", 3, 2000);
    series("102-8", 2, 3000);
    series("102-9", 4, 4000); // not configured by itself, so never listed
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(0, 0, &listing));
    Names names = namesOf(listing.files);
    std::sort(names.begin(), names.end());
    Names expected = {counted("101-112", 0), counted("101-7", 0), counted("101-7", 1), counted("102-8", 0)};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
}

TEST_F(Manageable, OnlyAProductOrOnlyAnOriginator) {
    series("101-7", 4, 1000);
    series("101-112", 3, 2000);
    series("102-8", 2, 3000);
    series("102-112", 2, 5000);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(102, 0, &listing));
    EXPECT_EQ(namesOf(listing.files), (Names{counted("102-8", 0), counted("102-112", 0)}));
    freeList(listing.files);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(0, 112, &listing));
    EXPECT_EQ(namesOf(listing.files), (Names{counted("101-112", 0), counted("102-112", 0)}));
}

TEST_F(Manageable, LogSetFilesByTheirNames) {
    for (const char *time : {"240305101500", "240305101459", "240305101501"})
        support::writeFile(std::string("logs/101-webfile-") + time + ".log", "$Header 65544,0,hostA\n");
    support::writeFile("logs/101-web-240305101500.log", "$Header 65544,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFilesSL(101, "web", &listing));
    EXPECT_EQ(namesOf(listing.files),
              (Names{"101-webfile-240305101500.log", "101-webfile-240305101459.log"}));
    EXPECT_EQ(listing.files->creationTime, 1709633700);
}

TEST_F(Manageable, LogSetNeedsProductAndName) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetManageableLogFilesSL(0, "web", &listing));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetManageableLogFilesSL(101, nullptr, &listing));
}

TEST_F(Manageable, BurstWithinOneSecondNeverYieldsTheNewest) {
    for (int i = 0; i < 40; ++i)
        writeLog("logs/" + counted("101-7", i), 1000);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(101, 7, &listing));
    Names names = namesOf(listing.files);
    ASSERT_EQ(names.size(), 37u);
    for (int i = 0; i < 37; ++i)
        EXPECT_EQ(names[static_cast<size_t>(i)], counted("101-7", 36 - i));
}

TEST_F(Manageable, WithoutDescriptorsNothingIsSurplus) {
    series("101-7", 5, 1000);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    LogCfg warm; // the configuration is read with descriptors at hand, the files without
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(101, 7, &warm));
    zoltLogFreeCfg(&warm);
    for (rlim_t room = 3; room < 12; ++room) {
        rlimit few = before;
        few.rlim_cur = room;
        setrlimit(RLIMIT_NOFILE, &few);
        const uint32_t result = zoltLogGetManageableLogFiles(101, 7, &listing);
        setrlimit(RLIMIT_NOFILE, &before);
        if (result == 0)
            EXPECT_EQ(namesOf(listing.files), (Names{counted("101-7", 1), counted("101-7", 0)}));
        else
            EXPECT_EQ(listing.files, nullptr);
        freeList(listing.files);
    }
}

// ---- fetching --------------------------------------------------------------------

class Fetch : public testing::Test {
  protected:
    void TearDown() override { freeList(listing.files); }
    void give(const Names &names) {
        LogFileEntry **tail = &listing.files;
        for (const std::string &name : names) {
            *tail = makeEntry(name, 0);
            tail = &(*tail)->next;
        }
        listing.next = listing.files;
    }
    Names fetchAll() {
        Names names;
        LogFileEntry *entry = nullptr;
        while (zoltLogFetchNextFileEx(&listing, &entry) == 0)
            names.emplace_back(entry->name);
        return names;
    }
    LogListing listing = {};
};

TEST_F(Fetch, MissingArgumentsAreInvalid) {
    LogFileEntry *entry = nullptr;
    char *path = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogFetchNextFileEx(nullptr, &entry));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogFetchNextFileEx(&listing, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogFetchNextFile(nullptr, &path));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogFetchNextFile(&listing, nullptr));
}

TEST_F(Fetch, YieldsEachFileThenNineForEver) {
    writeLog(counted("101-7", 0), 10);
    writeLog(counted("101-7", 1), 20);
    give({counted("101-7", 1), counted("101-7", 0)});
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 1), counted("101-7", 0)}));
    LogFileEntry *entry = nullptr;
    for (int i = 0; i < 3; ++i)
        EXPECT_RESULT(ZOLTLOG_NO_MORE, zoltLogFetchNextFileEx(&listing, &entry));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(listing.files->headerVersion, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(listing.files->file.descriptor, -1);
}

TEST_F(Fetch, NineIsRepeatedAlsoWhenTheLastFileDoesNotPass) {
    writeLog(counted("101-7", 0), 10);
    give({counted("101-7", 0), counted("101-7", 1)}); // the second one is gone
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 0)}));
    EXPECT_EQ(listing.next, listing.files->next); // stays on the last one examined
    EXPECT_EQ(fetchAll(), Names());
}

TEST_F(Fetch, FilesThatCannotBeOpenedAreSkipped) {
    writeLog(counted("101-7", 2), 10);
    give({counted("101-7", 0), counted("101-7", 1), counted("101-7", 2)});
    support::makeDirectory(counted("101-7", 1));
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 2)}));
    EXPECT_EQ(listing.unsupportedHeader, 0u);
}

TEST_F(Fetch, UnsupportedHeaderIsSkippedAndTold) {
    support::writeFile(counted("101-7", 0), "$Header 65539,101,7,10,hostA\n");
    support::writeFile(counted("101-7", 1), "$Header 65542,101,7,10,hostA\n");
    give({counted("101-7", 0), counted("101-7", 1)});
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 1)}));
    EXPECT_EQ(listing.unsupportedHeader, 1u);
}

TEST_F(Fetch, FileWithoutHeaderIsSkippedSilently) {
    support::writeFile(counted("101-7", 0), "");
    support::writeFile(counted("101-7", 1), "text\n");
    give({counted("101-7", 0), counted("101-7", 1)});
    EXPECT_EQ(fetchAll(), Names());
    EXPECT_EQ(listing.unsupportedHeader, 0u);
}

TEST_F(Fetch, QuerySeesTheHeaderNotTheName) {
    support::writeFile(counted("101-7", 0), "$Header 65543,5,6,10,0,hostA\n");
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_ORIGINATOR_ID);
    LogQueryNode value = term(ZOLTLOG_TERM_NUMBER, 6);
    LogQueryNode query = {};
    query.kind = ZOLTLOG_OP_EQUAL;
    query.left = &attribute;
    query.right = &value;
    for (const auto &[code, number, passes] :
         std::vector<std::tuple<uint64_t, uint64_t, bool>>{{ZOLTLOG_ATTR_ORIGINATOR_ID, 6, true},
                                                           {ZOLTLOG_ATTR_ORIGINATOR_ID, 7, false},
                                                           {ZOLTLOG_ATTR_PRODUCT_ID, 5, true},
                                                           {ZOLTLOG_ATTR_PRODUCT_ID, 101, false},
                                                           {ZOLTLOG_ATTR_CREATION_TIME, 10, true},
                                                           {ZOLTLOG_ATTR_CREATION_TIME, 11, false}}) {
        freeList(listing.files);
        give({counted("101-7", 0)});
        attribute.value.number = code;
        value.value.number = number;
        listing.query = &query;
        EXPECT_EQ(fetchAll().size(), passes ? 1u : 0u) << code << " " << number;
    }
}

TEST_F(Fetch, LogSetFileTakesProductAndTimeFromItsName) {
    setenv("TZ", "UTC", 1);
    support::writeFile("101-setA-240305101500.log", "$Header 65544,0,hostA\n");
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_PRODUCT_ID);
    LogQueryNode value = term(ZOLTLOG_TERM_NUMBER, 101);
    LogQueryNode query = {};
    query.kind = ZOLTLOG_OP_EQUAL;
    query.left = &attribute;
    query.right = &value;
    listing.query = &query;
    give({"101-setA-240305101500.log"});
    EXPECT_EQ(fetchAll().size(), 1u);
    attribute.value.number = ZOLTLOG_ATTR_CREATION_TIME;
    value.value.number = 1709633700;
    listing.next = listing.files;
    EXPECT_EQ(fetchAll().size(), 1u);
    attribute.value.number = ZOLTLOG_ATTR_LOGSET_NAME;
    value.kind = ZOLTLOG_TERM_TEXT;
    value.value.text = "setA";
    listing.next = listing.files;
    EXPECT_EQ(fetchAll().size(), 1u);
}

TEST_F(Fetch, LogSetNameIsResetForEveryEntry) {
    support::writeFile("101-setA-240305101500.log", "$Header 65544,0,hostA\n");
    writeLog(counted("101-7", 0), 10);
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_LOGSET_NAME);
    LogQueryNode value = term(ZOLTLOG_TERM_TEXT, 0);
    value.value.text = "setA";
    LogQueryNode query = {};
    query.kind = ZOLTLOG_OP_EQUAL;
    query.left = &attribute;
    query.right = &value;
    listing.query = &query;
    give({"101-setA-240305101500.log", counted("101-7", 0)});
    EXPECT_EQ(fetchAll(), (Names{"101-setA-240305101500.log"}));
    query.kind = ZOLTLOG_OP_NOT_EQUAL;
    listing.next = listing.files;
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 0)}));
}

TEST_F(Fetch, ModificationTimeIsCarriedOver) {
    support::writeFile(counted("101-7", 0), "no header\n");
    writeLog(counted("101-7", 1), 10);
    const timespec times[2] = {{5000, 0}, {5000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, counted("101-7", 0).c_str(), times, 0), 0);
    noStatusOf = counted("101-7", 1);
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_TIME);
    LogQueryNode value = term(ZOLTLOG_TERM_NUMBER, 5000);
    LogQueryNode query = {};
    query.kind = ZOLTLOG_OP_EQUAL;
    query.left = &attribute;
    query.right = &value;
    listing.query = &query;
    give({counted("101-7", 0), counted("101-7", 1)});
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 1)}));
    // A fetch begins with 0 again.
    listing.next = listing.files->next;
    EXPECT_EQ(fetchAll(), Names());
    value.value.number = 0;
    listing.next = listing.files->next;
    EXPECT_EQ(fetchAll(), (Names{counted("101-7", 1)}));
    noStatusOf.clear();
}

TEST_F(Fetch, PathIsDirectoryThenNameIn8192ZeroedBytes) {
    writeLog(counted("101-7", 0), 10);
    give({counted("101-7", 0)});
    char *path = nullptr;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogFetchNextFile(&listing, &path));
    const std::string expected = here() + counted("101-7", 0);
    EXPECT_EQ(path, expected);
    for (size_t i = expected.size(); i < 8192; ++i)
        ASSERT_EQ(path[i], '\0');
    zoltLogFreeBuffer(&path);
    EXPECT_EQ(path, nullptr);
    zoltLogFreeBuffer(&path);
    zoltLogFreeBuffer(nullptr);
    EXPECT_RESULT(ZOLTLOG_NO_MORE, zoltLogFetchNextFile(&listing, &path));
    EXPECT_EQ(path, nullptr);
}

TEST_F(Fetch, LeavesNoDescriptorOpen) {
    writeLog(counted("101-7", 0), 10);
    support::writeFile(counted("101-7", 1), "text\n");
    const size_t before = support::openDescriptors();
    give({counted("101-7", 0), counted("101-7", 1)});
    fetchAll();
    EXPECT_EQ(support::openDescriptors(), before);
}

// ---- copying, linking, deleting --------------------------------------------------

class Copy : public testing::Test {
  protected:
    void SetUp() override {
        support::makeDirectory("to");
        for (int i = 0; i < 2500; ++i)
            content += static_cast<char>('a' + i % 26);
        support::writeFile("from.log", content);
        before = support::openDescriptors();
    }
    void TearDown() override {
        watching = false;
        statusCallsLeft = -1;
        EXPECT_EQ(support::openDescriptors(), before); // closed on every path
    }
    uint32_t copy() {
        watching = true;
        const uint32_t result = zoltLogCopyFile((here() + "from.log").c_str(), (here() + "to").c_str());
        watching = false;
        return result;
    }
    std::string content;
    size_t before = 0;
};

TEST_F(Copy, IsMadeInBlocksOf1022Bytes) {
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    EXPECT_EQ(reads, (std::vector<size_t>{1022, 1022, 456}));
    EXPECT_EQ(writes, (std::vector<size_t>{1022, 1022, 456}));
    EXPECT_EQ(support::readFile("to/from.log"), content);
}

TEST_F(Copy, WholeBlocksNeedNoEmptyOne) {
    support::writeFile("from.log", content.substr(0, 2044));
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    EXPECT_EQ(reads, (std::vector<size_t>{1022, 1022}));
    EXPECT_EQ(support::readFile("to/from.log"), content.substr(0, 2044));
}

TEST_F(Copy, AnEmptyFileGivesAnEmptyCopy) {
    support::writeFile("from.log", "");
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    EXPECT_TRUE(support::exists("to/from.log"));
    EXPECT_EQ(support::readFile("to/from.log"), "");
}

TEST_F(Copy, HasPermissions660AndReplacesWhatWasThere) {
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    struct stat status;
    ASSERT_EQ(stat("to/from.log", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    support::writeFile("to/from.log", content + content);
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    EXPECT_EQ(support::readFile("to/from.log"), content);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // whose frames are larger
TEST_F(Copy, FitsOnASmallStack) {
    support::writeFile("small", std::string(5000, 's'));
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 48 * 1024), 0);
    const auto copy = [](void *) -> void * {
        return reinterpret_cast<void *>(static_cast<uintptr_t>(zoltLogCopyFile("./small", "to")));
    };
    void *result = &thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, copy, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(support::readFile("to/small"), std::string(5000, 's'));
}
#endif

TEST_F(Copy, MissingArgumentsAreInvalid) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCopyFile(nullptr, "to"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCopyFile("from.log", nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCopyFileEx(nullptr, "to"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCopyFileEx("from.log", nullptr));
}

TEST_F(Copy, SourceThatCannotBeOpenedIs32) {
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, zoltLogCopyFile("missing.log", "to"));
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, zoltLogCopyFile("to", "to"));
}

TEST_F(Copy, SizeThatCannotBeToldIs31) {
    statusCallsLeft = 1; // the open asks first what it opened
    EXPECT_RESULT(ZOLTLOG_SOURCE_SIZE_UNKNOWN, copy());
}

TEST_F(Copy, DestinationThatCannotBeOpenedIs47Or32) {
    EXPECT_RESULT(ZOLTLOG_DEST_OPEN_FAILED,
                  zoltLogCopyFile((here() + "from.log").c_str(), "missing")); // no such path
    support::makeDirectory("to/from.log");
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, copy()); // any other failure
}

TEST_F(Copy, DestinationDeniedIs47) {
    chmod("to", 0500);
    EXPECT_TRUE(support::asOrdinaryUser(
        [] { EXPECT_RESULT(ZOLTLOG_DEST_OPEN_FAILED, zoltLogCopyFile("./from.log", "to")); }));
    chmod("to", 0700);
}

TEST_F(Copy, PathWithoutSlashIsAppendedToTheDirectoryAsItIs) {
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFile("from.log", "to/"));
    EXPECT_EQ(support::readFile("to/from.log"), content);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFile("from.log", "to")); // no separator is put in
    EXPECT_EQ(support::readFile("tofrom.log"), content);
}

TEST_F(Copy, ShortReadEndsWith33AndLeavesThePartialCopy) {
    shortReadAt = 1;
    EXPECT_RESULT(ZOLTLOG_SHORT_READ, copy());
    EXPECT_EQ(support::readFile("to/from.log"), content.substr(0, 1022));
}

TEST_F(Copy, ShortWriteGoesOnWithTheRest) {
    failWriteAt = 1;
    EXPECT_RESULT(ZOLTLOG_OK, copy());
    EXPECT_EQ(support::readFile("to/from.log"), content);
}

TEST_F(Copy, ShortWriteEndsWith34WhenTheRestFails) {
    failWriteAt = 1;
    errorAfterShort = EIO;
    EXPECT_RESULT(ZOLTLOG_SHORT_WRITE, copy());
    EXPECT_EQ(support::readFile("to/from.log"), content.substr(0, 2043));
}

TEST_F(Copy, ShortWriteOnAFullDeviceEndsWith54) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    failWriteAt = 1;
    errorAfterShort = ENOSPC;
    EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, copy());
}

TEST_F(Copy, FailedWriteEndsWith34) {
    failWriteAt = 0;
    writeError = EIO;
    EXPECT_RESULT(ZOLTLOG_SHORT_WRITE, copy());
}

TEST_F(Copy, FullDeviceEndsWith54) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    failWriteAt = 2;
    writeError = ENOSPC;
    EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, copy());
    EXPECT_EQ(support::readFile("to/from.log"), content.substr(0, 2044));
}

TEST_F(Copy, OntoItselfIsRefusedAndNothingIsLost) {
    EXPECT_RESULT(ZOLTLOG_DEST_OPEN_FAILED, zoltLogCopyFile((here() + "from.log").c_str(),
                                                            here().substr(0, here().size() - 1).c_str()));
    EXPECT_EQ(support::readFile("from.log"), content);
    ASSERT_EQ(link("from.log", "to/from.log"), 0);
    EXPECT_RESULT(ZOLTLOG_DEST_OPEN_FAILED, copy());
    EXPECT_EQ(support::readFile("from.log"), content);
}

TEST_F(Copy, APlantedLinkAtTheDestinationIsNotFollowed) {
    support::writeFile("victim", "precious");
    ASSERT_EQ(symlink("../victim", "to/from.log"), 0);
    EXPECT_RESULT(ZOLTLOG_OPEN_FAILED, copy());
    EXPECT_EQ(support::readFile("victim"), "precious");
}

TEST_F(Copy, ByLinkMakesAHardLink) {
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFileEx((here() + "from.log").c_str(), (here() + "to").c_str()));
    struct stat a;
    struct stat b;
    ASSERT_EQ(stat("from.log", &a), 0);
    ASSERT_EQ(stat("to/from.log", &b), 0);
    EXPECT_EQ(a.st_ino, b.st_ino);
}

TEST_F(Copy, ByLinkFailsWith34) {
    EXPECT_RESULT(ZOLTLOG_SHORT_WRITE, zoltLogCopyFileEx("./missing.log", "to"));
    EXPECT_RESULT(ZOLTLOG_SHORT_WRITE, zoltLogCopyFileEx("./from.log", "missing"));
    support::writeFile("to/from.log", "there");
    EXPECT_RESULT(ZOLTLOG_SHORT_WRITE, zoltLogCopyFileEx("./from.log", "to"));
    EXPECT_EQ(support::readFile("to/from.log"), "there");
}

TEST_F(Copy, ByLinkRefusesAPathWithoutSlash) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCopyFileEx("from.log", "to"));
}

TEST(Delete, RemovesTheFileAndSaysNothing) {
    support::writeFile("a.log", "x");
    EXPECT_EQ(support::captured(1, [] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogDeleteFile("a.log")); }), "");
    EXPECT_FALSE(support::exists("a.log"));
}

TEST(Delete, AMissingFileIsToldAndGivesZero) {
    EXPECT_EQ(support::captured(1, [] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogDeleteFile("missing.log")); }),
              "missing.log File Deletion failed\n");
}

TEST(Delete, NoPathIsInvalid) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogDeleteFile(nullptr));
}
