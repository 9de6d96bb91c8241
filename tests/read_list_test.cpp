// SPDX-License-Identifier: Apache-2.0
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

int64_t testTime = 0; // 0: the real time

std::map<std::string, int> opened; // by name, while counting
bool counting = false;

int64_t fakeModification; // 0: the real one

void countOpened(const char *path) {
    if (counting) {
        const char *name = strrchr(path, '/');
        ++opened[name != nullptr ? name + 1 : path];
    }
}

const bool PREPARED = support::eachCase([] {
    testTime = 0;
    opened.clear();
    counting = false;
    libc::time.hook = [](time_t *out) {
        if (testTime == 0)
            return libc::time.real(out);
        if (out != nullptr)
            *out = testTime;
        return static_cast<time_t>(testTime);
    };
    fakeModification = 0;
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        const int result = libc::fstat.real(descriptor, status);
        if (result == 0 && fakeModification != 0)
            status->st_mtime = fakeModification;
        return result;
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        countOpened(path);
        return libc::openat.real(directory, path, flags, mode);
    };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        countOpened(path);
        return libc::open.real(path, flags, mode);
    };
});

class Listing : public testing::Test {
  protected:
    void SetUp() override {
        char *here = get_current_dir_name();
        directory = std::string(here) + "/";
        free(here);
    }

    void TearDown() override {
        freeFiles();
        for (LogCfg *cfg : cfgs) {
            zoltLogFree(cfg->logsetName);
            zoltLogFree(cfg->logsetFilename);
            delete cfg;
        }
    }

    void originator(uint64_t product, uint64_t id, const std::string &where = "") {
        auto *cfg = new LogCfg();
        cfg->productId = product;
        cfg->originatorId = id;
        strcpy(cfg->directory, (where.empty() ? directory : where).c_str());
        cfgs.push_back(cfg);
    }

    void logset(uint64_t product, const char *name, const char *filename) {
        originator(product, 0);
        cfgs.back()->isLogset = 1;
        cfgs.back()->logsetName = zoltLogSafeStrdup(name);
        cfgs.back()->logsetFilename = zoltLogSafeStrdup(filename);
    }

    void file(const std::string &name, int64_t created, const char *host = "hostA", uint64_t product = 101,
              uint64_t originatorId = 7) {
        support::writeFile(name, "$Header 65543," + std::to_string(product) + "," +
                                     std::to_string(originatorId) + "," + std::to_string(created) + ",0," +
                                     host + "\n");
    }

    void logsetFile(const std::string &name, const char *host = "hostA") {
        support::writeFile(name, std::string("$Header 65544,0,") + host + "\n");
    }

    static void modified(const std::string &name, int64_t seconds) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
    }

    void freeFiles() {
        while (listing.files != nullptr) {
            LogFileEntry *next = listing.files->next;
            zoltLogFree(listing.files);
            listing.files = next;
        }
    }

    uint32_t list() {
        freeFiles();
        return GetLogFiles(cfgs.data(), static_cast<uint32_t>(cfgs.size()), &listing);
    }

    std::vector<std::string> names() {
        std::vector<std::string> result;
        for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next)
            result.emplace_back(entry->name);
        return result;
    }

    using Names = std::vector<std::string>;
    std::string directory;
    std::vector<LogCfg *> cfgs;
    LogListing listing = {};
};

LogQueryNode term(int32_t kind, uint64_t value) {
    LogQueryNode node = {};
    node.kind = kind;
    node.value.number = value;
    return node;
}

LogQueryNode textTerm(const char *value) {
    LogQueryNode node = {};
    node.kind = ZOLTLOG_TERM_TEXT;
    node.value.text = value;
    return node;
}

LogQueryNode join(int32_t op, LogQueryNode *left, LogQueryNode *right) {
    LogQueryNode node = {};
    node.kind = op;
    node.left = left;
    node.right = right;
    return node;
}

} // namespace

TEST_F(Listing, MissingArgumentsAreInvalid) {
    LogCfg *one = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetLogFiles(nullptr, 1, &listing));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, GetLogFiles(&one, 1, nullptr));
    EXPECT_EQ(list_log_files(nullptr, &one, 1), -1);
}

TEST_F(Listing, CountZeroListsNothing) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 10);
    LogFileEntry stale = {};
    listing.files = &stale;
    listing.next = &stale;
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, GetLogFiles(cfgs.data(), 0, &listing));
    EXPECT_EQ(listing.files, nullptr);
    EXPECT_EQ(listing.next, &stale); // the fetch position is set on success only
    listing.next = nullptr;
    EXPECT_EQ(list_log_files(&listing, cfgs.data(), 0), 1);
}

TEST_F(Listing, NoMatchingFileIs45WithAnEmptyList) {
    originator(101, 7);
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    file("102-7-1-240301-0000000000.log", 10);
    file("101-8-1-240301-0000000000.log", 10);
    file("101-7-1-240301-0000000000.txt", 10);
    file("0-7-1-240301-0000000000.log", 10);
    file("101.log", 10);
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    EXPECT_EQ(listing.files, nullptr);
}

TEST_F(Listing, FilesComeOutByCreationTime) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 30);
    file("101-7-1-240301-0000000001.log", 10);
    file("101-7-1-240301-0000000002.log", 20);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-1-240301-0000000001.log", "101-7-1-240301-0000000002.log",
                              "101-7-1-240301-0000000000.log"}));
    EXPECT_EQ(listing.next, listing.files);
    EXPECT_EQ(listing.files->creationTime, 10);
    EXPECT_EQ(listing.files->file.descriptor, -1);
    EXPECT_EQ(listing.files->file.readPosition, -1);
    EXPECT_EQ(listing.files->headerVersion, 0u);
    EXPECT_EQ(listing.files->directory, directory);
    for (const uint64_t word : listing.files->info)
        EXPECT_EQ(word, 0u);
}

// The table of the text, kept plainly: 300 chains, filled at their heads.
TEST_F(Listing, EqualTimesKeepTheOrderOfTheTable) {
    originator(101, 7);
    for (int i = 0; i < 1000; ++i) {
        char name[64];
        snprintf(name, sizeof name, "101-7-1-240301-%010d.log", i);
        file(name, 1000 + i % 2);
    }
    std::vector<std::vector<std::string>> chains(300);
    DIR *stream = opendir(".");
    for (const dirent *entry = readdir(stream); entry != nullptr; entry = readdir(stream)) {
        if (entry->d_name[0] == '.')
            continue;
        auto &chain = chains[HashString((directory + entry->d_name).c_str(), 300)];
        chain.insert(chain.begin(), entry->d_name);
    }
    closedir(stream);
    Names expected;
    for (const char last : {'0', '1'}) { // even counters are created first
        for (const auto &chain : chains)
            for (const auto &name : chain)
                if ((name[name.size() - 5] - '0') % 2 == last - '0')
                    expected.push_back(name);
    }
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), expected);
}

TEST_F(Listing, TwoConfigurationsOfOneDirectoryListEachFileOnce) {
    originator(101, 7);
    originator(101, 7);
    originator(101, 8);
    file("101-7-1-240301-0000000000.log", 10);
    file("101-8-1-240301-0000000000.log", 5);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-8-1-240301-0000000000.log", "101-7-1-240301-0000000000.log"}));
}

TEST_F(Listing, ADirectorySpelledTwiceIsTwoDirectories) {
    originator(101, 7);
    originator(101, 7, directory + "/");
    file("101-7-1-240301-0000000000.log", 10);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(Listing, FilesOfSeveralDirectoriesAreMerged) {
    support::makeDirectory("a");
    support::makeDirectory("b");
    originator(101, 7, directory + "a/");
    originator(101, 7, directory + "b/");
    file("a/101-7-1-240301-0000000000.log", 30);
    file("b/101-7-1-240301-0000000000.log", 20);
    file("a/101-7-1-240301-0000000001.log", 10);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-1-240301-0000000001.log", "101-7-1-240301-0000000000.log",
                              "101-7-1-240301-0000000000.log"}));
    EXPECT_EQ(listing.files->next->directory, directory + "b/");
}

TEST_F(Listing, ADirectoryThatCannotBeListedIsSkipped) {
    originator(101, 7, directory + "missing/");
    originator(101, 7);
    originator(101, 7, "");
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    file("101-7-1-240301-0000000000.log", 10);
    EXPECT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 1u);
}

TEST_F(Listing, OtherHostsFilesAreListedToo) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 10);
    file("101-7-99-240301-0000000000.log", 20, "hostB");
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(Listing, AFileWithoutAHeaderHasTimeZeroAndStays) {
    originator(101, 7);
    file("101-7-1-240301-0000000001.log", 10);
    support::writeFile("101-7-1-240301-0000000002.log", "");
    support::writeFile("101-7-1-240301-0000000003.log", "no header\n");
    ASSERT_RESULT(ZOLTLOG_OK, list());
    ASSERT_EQ(names().size(), 3u);
    EXPECT_EQ(listing.files->creationTime, 0);
    EXPECT_EQ(listing.files->next->creationTime, 0);
    EXPECT_EQ(names()[2], "101-7-1-240301-0000000001.log");
}

TEST_F(Listing, NamesThatLeadNowhereAreListedWithTimeZero) {
    originator(101, 7);
    ASSERT_EQ(symlink("nowhere", "101-7-1-240301-0000000001.log"), 0);
    ASSERT_EQ(mkfifo("101-7-1-240301-0000000002.log", 0660), 0);
    support::makeDirectory("101-7-1-240301-0000000003.log");
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 3u);
    for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next)
        EXPECT_EQ(entry->creationTime, 0);
}

TEST_F(Listing, ADayInTheFutureIsTheLimit) {
    originator(101, 7);
    logset(101, "setA", "setA");
    testTime = 2000000000;
    file("101-7-1-240301-0000000000.log", 10);
    modified("101-7-1-240301-0000000000.log", testTime + 86400);
    file("101-7-1-240301-0000000001.log", 11);
    modified("101-7-1-240301-0000000001.log", testTime + 86401);
    logsetFile("101-setA-240301000000.log");
    modified("101-setA-240301000000.log", testTime + 86401);
    logsetFile("101-setA-240301000001.log");
    modified("101-setA-240301000001.log", testTime + 86400);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-1-240301-0000000000.log", "101-setA-240301000001.log"}));
}

TEST_F(Listing, TheOldestModificationTimeThatThereIsIsNotInTheFuture) {
    originator(101, 7);
    file("101-7-1-240301-1.log", 5);
    fakeModification = INT64_MIN;
    EXPECT_RESULT(ZOLTLOG_OK, list());
    fakeModification = 0;
}

// All of one value under HashString, some of them of a series that is asked for.
TEST_F(Listing, NamesOfOneHashAreAllListedOnceAndInTheirOrder) {
    std::vector<std::string> colliding;
    for (unsigned i = 0; i < 256; ++i) {
        std::string end;
        for (unsigned bit = 0; bit < 8; ++bit)
            end += (i >> bit & 1u) != 0 ? "Aa" : "BB";
        colliding.push_back("101-7-" + end + ".log");
        file(colliding.back(), static_cast<int64_t>(1000 - i));
        support::writeFile("5-" + end + ".log", "");
    }
    originator(101, 7);
    originator(101, 7); // each name is found for both
    ASSERT_RESULT(ZOLTLOG_OK, list());
    size_t count = 0;
    for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next, ++count) {
        ASSERT_LT(count, colliding.size());
        EXPECT_EQ(colliding[colliding.size() - 1 - count], entry->name);
    }
    EXPECT_EQ(count, colliding.size());
}

TEST_F(Listing, LogSetFilesMatchByFileNameAndTakeTheirTimeFromTheName) {
    setenv("TZ", "UTC", 1);
    logset(101, "the set", "setA");
    logsetFile("101-setA-240305101500.log");
    logsetFile("101-setA-240305101459.log");
    support::writeFile("101-setA-240304101459.log", ""); // no header: the name still tells
    logsetFile("101-setB-240305101500.log");
    logsetFile("102-setA-240305101500.log");
    logsetFile("101-setA.log"); // no date-time: -1
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(),
              (Names{"101-setA-240304101459.log", "101-setA-240305101459.log", "101-setA-240305101500.log"}));
    EXPECT_EQ(listing.files->creationTime, 1709547299); // 2024-03-04 10:14:59 UTC
}

TEST_F(Listing, ALogSetNameWithoutDateTimeIsOlderThanAll) {
    setenv("TZ", "UTC", 1);
    logset(101, "setA", "setA");
    logsetFile("101-setA-240305101500.log");
    logsetFile("101-setA-.log");
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-setA-.log", "101-setA-240305101500.log"}));
}

TEST_F(Listing, ALogSetWithADashInItsFileNameFindsNothing) {
    logset(101, "set-A", "set-A");
    logsetFile("101-set-A-240305101500.log");
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
}

TEST_F(Listing, AnOriginatorsFileWithALogSetHeaderHasTheTimeOfItsName) {
    setenv("TZ", "UTC", 1);
    originator(101, 7);
    logsetFile("101-7up-240305101500.log"); // "7up" counts as originator 7
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(listing.files->creationTime, 1709633700);
}

TEST_F(Listing, AnOriginatorsNameTellsNoTimeInThePlaceOfALogSetHeader) {
    setenv("TZ", "UTC", 1);
    originator(101, 7);
    for (const char *name :
         {"101-7-83886090-240301-0000000001.log", "101-7-335544321012-240301-0000000002.log"})
        logsetFile(name);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    for (const LogFileEntry *file = listing.files; file != nullptr; file = file->next)
        EXPECT_EQ(file->creationTime, 0) << file->name;
}

TEST_F(Listing, QueryOverProductAndOriginator) {
    originator(101, 7);
    originator(101, 8);
    originator(102, 7);
    file("101-7-1-240301-0000000000.log", 10);
    file("101-8-1-240301-0000000000.log", 20);
    file("102-7-1-240301-0000000000.log", 30);
    LogQueryNode productAttribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_PRODUCT_ID);
    LogQueryNode product = term(ZOLTLOG_TERM_NUMBER, 101);
    LogQueryNode originatorAttribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_FILE_ORIGINATOR_ID);
    LogQueryNode seven = term(ZOLTLOG_TERM_NUMBER, 7);
    LogQueryNode left = join(ZOLTLOG_OP_EQUAL, &product, &productAttribute); // the attribute on the right
    LogQueryNode right = join(ZOLTLOG_OP_EQUAL, &originatorAttribute, &seven);
    LogQueryNode query = join(ZOLTLOG_OP_AND, &left, &right);
    listing.query = &query;
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-1-240301-0000000000.log"}));
}

TEST_F(Listing, QueryOverTimesUsesCreationAndModification) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 1000);
    modified("101-7-1-240301-0000000000.log", 5000);
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_TIME);
    LogQueryNode value = term(ZOLTLOG_TERM_NUMBER, 5000);
    LogQueryNode query = join(ZOLTLOG_OP_EQUAL, &attribute, &value);
    listing.query = &query;
    EXPECT_RESULT(ZOLTLOG_OK, list());
    value.value.number = 1000;
    EXPECT_RESULT(ZOLTLOG_OK, list());
    value.value.number = 1001;
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    attribute.value.number = ZOLTLOG_ATTR_CREATION_TIME;
    value.value.number = 5000;
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
}

TEST_F(Listing, QueryOfALogSetSeesItsNameAndOriginatorZero) {
    setenv("TZ", "UTC", 1);
    logset(101, "the set", "setA");
    logsetFile("101-setA-240305101500.log");
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_LOGSET_NAME);
    LogQueryNode name = textTerm("the set");
    LogQueryNode byName = join(ZOLTLOG_OP_EQUAL, &attribute, &name);
    LogQueryNode originatorAttribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_FILE_ORIGINATOR_ID);
    LogQueryNode zero = term(ZOLTLOG_TERM_NUMBER, 0);
    LogQueryNode byOriginator = join(ZOLTLOG_OP_EQUAL, &originatorAttribute, &zero);
    LogQueryNode timeAttribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_CREATION_TIME);
    LogQueryNode created = term(ZOLTLOG_TERM_NUMBER, 1709633700);
    LogQueryNode byTime = join(ZOLTLOG_OP_EQUAL, &timeAttribute, &created);
    LogQueryNode both = join(ZOLTLOG_OP_AND, &byName, &byOriginator);
    LogQueryNode query = join(ZOLTLOG_OP_AND, &both, &byTime);
    listing.query = &query;
    EXPECT_RESULT(ZOLTLOG_OK, list());
    name.value.text = "setA"; // the file name is not the log set's name
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
}

TEST_F(Listing, ALogSetComparisonIsFalseForOriginatorFiles) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 1000);
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_LOGSET_NAME);
    LogQueryNode name = textTerm("setA");
    LogQueryNode query = join(ZOLTLOG_OP_NOT_EQUAL, &attribute, &name);
    listing.query = &query;
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
}

TEST_F(Listing, HostQueryOpensEachHeader) {
    originator(101, 7);
    logset(101, "setA", "setA");
    file("101-7-1-240301-0000000000.log", 10, "hostA");
    file("101-7-2-240301-0000000000.log", 20, "hostB");
    logsetFile("101-setA-240305101500.log", "hostB");
    logsetFile("101-setA-240305101501.log", "hostA");
    support::writeFile("101-7-3-240301-0000000000.log", "no header\n"); // an empty host name
    ASSERT_EQ(symlink("nowhere", "101-7-4-240301-0000000000.log"), 0);  // cannot be opened: left out
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_HOST_NAME);
    LogQueryNode host = textTerm("hostB");
    LogQueryNode query = join(ZOLTLOG_OP_EQUAL, &attribute, &host);
    listing.query = &query;
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-2-240301-0000000000.log", "101-setA-240305101500.log"}));
    host.value.text = "";
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names(), (Names{"101-7-3-240301-0000000000.log"}));
    query.kind = ZOLTLOG_OP_NOT_EQUAL; // to an empty name
    ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 4u);
}

TEST_F(Listing, AnyTermOfTheHostNamesCodeMakesUnreadableFilesDropOut) {
    originator(101, 7);
    ASSERT_EQ(symlink("nowhere", "101-7-4-240301-0000000000.log"), 0);
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_PRODUCT_ID);
    LogQueryNode value = term(ZOLTLOG_TERM_NUMBER, ZOLTLOG_ATTR_HOST_NAME);
    LogQueryNode query = join(ZOLTLOG_OP_NOT_EQUAL, &attribute, &value);
    listing.query = &query;
    EXPECT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    value.value.number = ZOLTLOG_ATTR_LOGSET_NAME;
    query.value.number = ZOLTLOG_ATTR_HOST_NAME; // an operator's value is not read
    EXPECT_RESULT(ZOLTLOG_OK, list());
}

TEST_F(Listing, EachHeaderIsReadOnceHoweverManyConfigurationsAskForIt) {
    for (int i = 0; i < 3; ++i)
        originator(101, 7);
    logset(101, "7", "7");
    file("101-7-1-240301-0000000000.log", 10);
    file("101-7-1-240301-0000000001.log", 20);
    file("101-8-1-240301-0000000001.log", 20);
    counting = true;
    ASSERT_RESULT(ZOLTLOG_OK, list());
    counting = false;
    EXPECT_EQ(opened["101-7-1-240301-0000000000.log"], 1);
    EXPECT_EQ(opened["101-7-1-240301-0000000001.log"], 1);
    EXPECT_EQ(opened["101-8-1-240301-0000000001.log"], 0); // of nobody's series
    opened.clear();
    // Also when the file is refused each time.
    LogQueryNode attribute = term(ZOLTLOG_TERM_ATTRIBUTE, ZOLTLOG_ATTR_HOST_NAME);
    LogQueryNode host = textTerm("nobody");
    LogQueryNode query = join(ZOLTLOG_OP_EQUAL, &attribute, &host);
    listing.query = &query;
    counting = true;
    ASSERT_RESULT(ZOLTLOG_NO_LOG_FILES, list());
    counting = false;
    EXPECT_EQ(opened["101-7-1-240301-0000000000.log"], 1);
}

TEST_F(Listing, LogSetFilesAreNotOpenedWithoutAHostQuery) {
    logset(101, "setA", "setA");
    logsetFile("101-setA-240305101500.log");
    counting = true;
    ASSERT_RESULT(ZOLTLOG_OK, list());
    counting = false;
    EXPECT_EQ(opened["101-setA-240305101500.log"], 0);
}

TEST_F(Listing, LeavesNoDescriptorOpen) {
    originator(101, 7);
    originator(101, 7, directory + "missing/");
    file("101-7-1-240301-0000000000.log", 10);
    const size_t before = support::openDescriptors();
    for (int i = 0; i < 10; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(Listing, NullConfigurationsAreSkipped) {
    originator(101, 7);
    file("101-7-1-240301-0000000000.log", 10);
    LogCfg *some[] = {nullptr, cfgs[0], nullptr};
    EXPECT_RESULT(ZOLTLOG_OK, GetLogFiles(some, 3, &listing));
    EXPECT_EQ(names().size(), 1u);
    logset(101, "unnamed", "unnamed");
    zoltLogFree(cfgs.back()->logsetFilename);
    cfgs.back()->logsetFilename = nullptr;
    EXPECT_RESULT(ZOLTLOG_OK, list());
}

TEST_F(Listing, HostileNamesAndHeadersAreSurvived) {
    originator(101, 7);
    logset(101, "setA", "setA");
    const std::string longest(255 - 10, '9');
    support::writeFile("101-7-" + longest + ".log", std::string(100000, 'x'));
    support::writeFile("101-setA-" + longest.substr(0, 240) + ".log", std::string(5000, '\0'));
    support::writeFile("-101--7-.log", "$Header");
    support::writeFile("99999999999999999999999-7-1.log", "$Header 18446744073709551616,,,,");
    support::writeFile("-.log", "");
    support::writeFile("101-7-1-240301-0000000000.log", "$Header 65543,101,7,\n");
    EXPECT_RESULT(ZOLTLOG_OK, list());
    EXPECT_EQ(names().size(), 4u);
}

TEST_F(Listing, OneThousandSeriesInOneDirectoryTakeNoLongerThanTheirFiles) {
    for (uint64_t i = 1; i <= 1000; ++i)
        originator(101, i);
    for (uint64_t i = 1; i <= 1000; ++i)
        for (int k = 0; k < 5; ++k)
            support::writeFile(
                "101-" + std::to_string(i) + "-1-240301-000000000" + std::to_string(k) + ".log", "");
    timespec before;
    timespec after;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    ASSERT_RESULT(ZOLTLOG_OK, list());
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    EXPECT_EQ(names().size(), 5000u);
    // 5,000,000 splits of names alone would take longer.
    EXPECT_LT(after.tv_sec - before.tv_sec, 2);
}

using LongListing = Listing;

TEST_F(LongListing, HundredThousandFilesOfAThousandSeries) {
    for (uint64_t i = 1; i <= 1000; ++i)
        originator(101, i);
    for (int i = 0; i < 100000; ++i) {
        char name[64];
        snprintf(name, sizeof name, "101-%d-1-240301-%010d.log", 1 + i % 1000, i / 1000);
        const int file = ::open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0660);
        ASSERT_NE(file, -1);
        char header[64];
        const int length = snprintf(header, sizeof header, "$Header 65543,101,%d,%d,0,h\n", 1 + i % 1000,
                                    5000000 - i * 7 % 100000);
        ASSERT_EQ(write(file, header, static_cast<size_t>(length)), length);
        close(file);
    }
    counting = true;
    ASSERT_RESULT(ZOLTLOG_OK, list());
    counting = false;
    size_t count = 0;
    int64_t last = 0;
    for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next, ++count) {
        ASSERT_LE(last, entry->creationTime);
        last = entry->creationTime;
        ASSERT_EQ(opened[entry->name], 1);
    }
    EXPECT_EQ(count, 100000u);
    for (LogCfg *cfg : cfgs)
        cfg->numberOfLogFiles = 90;
    // The reduction takes the newest first.
    LogFileEntry *reversed = nullptr;
    while (listing.files != nullptr) {
        LogFileEntry *next = listing.files->next;
        listing.files->next = reversed;
        reversed = listing.files;
        listing.files = next;
    }
    GetManageableLogFiles(&reversed, cfgs.data(), static_cast<uint32_t>(cfgs.size()));
    listing.files = reversed;
    EXPECT_EQ(names().size(), 10000u);
}
