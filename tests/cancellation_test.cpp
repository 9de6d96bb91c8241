// SPDX-License-Identifier: Apache-2.0
// A thread that is to be cancelled goes on until the operation that it is in is done: nothing
// is left behind, and the lock is free.
//
// CANCELLATIONS is how many threads the Long test cancels (1000).
#include "support/log_records.h"
#include "support/support.h"
#include "zoltlog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qdlis.h"
#include "support/cases.h"
#include "support/failing_allocations.h"
#include "support/lis_items.h"

namespace {

constexpr long MAY_KEEP = 0;

struct Cancelled {
    const std::function<void()> *operation;
    bool finished = false;
    long kept = 0; // blocks
};

void *runCancelled(void *argument) {
    auto *cancelled = static_cast<Cancelled *>(argument);
    pthread_cancel(pthread_self()); // takes effect at the first point where it may
    const long before = support::blocksHeld;
    (*cancelled->operation)();
    cancelled->kept = support::blocksHeld - before;
    cancelled->finished = true;
    pthread_testcancel();
    return cancelled;
}

// Runs an operation in a thread that is being cancelled: it is done as if it was not, and
// the thread ends behind it.
void expectDone(const char *what, const std::function<void()> &operation) {
    operation(); // what is kept for good is kept now
    Cancelled cancelled = {&operation};
    const size_t descriptors = support::openDescriptors();
    pthread_t thread;
    void *result = nullptr;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, runCancelled, &cancelled));
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_TRUE(cancelled.finished) << what;
    EXPECT_EQ(PTHREAD_CANCELED, result) << what << ": cancelled afterwards";
    EXPECT_EQ(MAY_KEEP, cancelled.kept) << what << ": blocks of memory";
    EXPECT_EQ(descriptors, support::openDescriptors()) << what << ": descriptors";
    static const char TAG[] = "test";
    zoltLogLock(&zoltLogMutex, TAG); // hangs when the lock is held
    zoltLogUnlock(&zoltLogMutex, TAG);
}

const char NAME[] = "log/5-7-1-240301-0000000001.log";
const char NAME_OF_SET[] = "log/5-web-240301000000.log";

void freeFiles(LogListing *listing) {
    while (listing->files != nullptr) {
        LogFileEntry *next = listing->files->next;
        zoltLogFree(listing->files);
        listing->files = next;
    }
}

void configureFiles() {
    logs::configure({"Default.NumberOfLogFiles=1"});
    support::makeDirectory("log");
    support::makeDirectory("copies");
    support::writeFile(NAME, "$Header 65543,5,7,1709300000,0,hostA\n");
    support::writeFile("log/5-7-1-240301-0000000002.log", "$Header 65543,5,7,1709300001,0,hostA\n");
    support::writeFile(NAME_OF_SET, "$Header 65544,0,hostA\n");
}

} // namespace

FRESH_TEST(Cancellation, ListingAndFetchingAreDone) {
    configureFiles();
    expectDone("GetLogFiles and the fetches", [] {
        LogCfg cfg;
        ASSERT_EQ(0u, zoltLogReadCfg(5, 7, &cfg));
        LogCfg *cfgs = &cfg;
        LogListing listing = {};
        EXPECT_EQ(0u, GetLogFiles(&cfgs, 1, &listing));
        LogFileEntry *entry = nullptr;
        EXPECT_EQ(0u, zoltLogFetchNextFileEx(&listing, &entry));
        char *path = nullptr;
        EXPECT_EQ(0u, zoltLogFetchNextFile(&listing, &path));
        zoltLogFreeBuffer(&path);
        EXPECT_EQ(9u, zoltLogFetchNextFile(&listing, &path));
        freeFiles(&listing);
        EXPECT_EQ(0, list_log_files(&listing, &cfgs, 1));
        EXPECT_NE(nullptr, listing.files);
        freeFiles(&listing);
        zoltLogFreeCfg(&cfg);
    });
    expectDone("list_log_files", [] {
        LogCfg cfg = {}; // of its own: reading one would not be interrupted
        cfg.productId = 5;
        cfg.originatorId = 7;
        strcpy(cfg.directory, "log/");
        LogCfg *cfgs = &cfg;
        LogListing listing = {};
        EXPECT_EQ(0, list_log_files(&listing, &cfgs, 1));
        EXPECT_NE(nullptr, listing.files);
        freeFiles(&listing);
    });
    expectDone("the search for surplus files", [] {
        LogListing listing;
        EXPECT_EQ(0u, zoltLogGetManageableLogFiles(5, 7, &listing));
        EXPECT_NE(nullptr, listing.files);
        freeFiles(&listing);
        EXPECT_EQ(45u, zoltLogGetManageableLogFiles(0, 0, &listing)); // of the originators configured
        freeFiles(&listing);
    });
    expectDone("the search for the latest file", [] {
        LogFileEntry *entry = nullptr;
        EXPECT_EQ(1, zoltLogFindLatestLogSL("log/", 5, "web", 0, 0, &entry));
        zoltLogFree(entry);
        EXPECT_EQ(0, zoltLogFindLatestLog("log/", 6, 7, 0, 0, &entry));
    });
    expectDone("a directory's listing", [] {
        OsLogFileCursor cursor = {};
        EXPECT_EQ(0, zoltLogOsListLogFilesBegin(&cursor, "log/"));
        char host[512] = "";
        EXPECT_EQ(1, getHostnameFromFile(&cursor, "log/", host));
        EXPECT_STREQ("hostA", host);
        zoltLogOsListLogFilesEnd(&cursor);
    });
}

FRESH_TEST(Cancellation, CopiesAreWhole) {
    configureFiles();
    expectDone("zoltLogCopyFile", [] {
        (void)unlink("copies/5-7-1-240301-0000000001.log");
        EXPECT_EQ(0u, zoltLogCopyFile(NAME, "copies"));
    });
    EXPECT_EQ(support::readFile(NAME), support::readFile("copies/5-7-1-240301-0000000001.log"));
    expectDone("zoltLogDeleteFile", [] {
        ASSERT_EQ(0, link(NAME, "surplus"));
        EXPECT_EQ(0u, zoltLogDeleteFile("surplus"));
    });
    EXPECT_FALSE(support::exists("surplus"));
}

FRESH_TEST(Cancellation, ConfigurationIsReadAndWritten) {
    configureFiles();
    expectDone("zoltLogReadAllCfg", [] {
        LogCfg *cfgs[8];
        uint32_t count = 0;
        EXPECT_EQ(0u, zoltLogReadAllCfg(nullptr, 8, cfgs, &count));
        EXPECT_EQ(1u, count);
        FreeConfigArray(cfgs, count);
    });
    expectDone("the property store", [] {
        PropertyStore store;
        ASSERT_EQ(0u, utiOpenPropertyStore("product.conf", "7", &store));
        EXPECT_EQ(0u, utiSetPropertyAsStr(&store, "DebugLevel", "3"));
        char *text = nullptr;
        EXPECT_EQ(0u, utiGetPropertyAsStr(&store, "DebugLevel", &text));
        EXPECT_STREQ("3", text);
        zoltLogFree(text);
        EXPECT_EQ(0u, utiClosePropertyStore(&store));
        EXPECT_EQ(0u, GetPropertyString("product.conf", "7", "DebugLevel", &text));
        zoltLogFree(text);
    });
    EXPECT_EQ(std::vector<std::string>({"copies", "log", "product.conf", "zoltlog.conf"}),
              support::listFiles("."));
}

FRESH_TEST(Cancellation, MessagesAreWritten) {
    configureFiles();
    setenv("QDLIS_CATALOG", (support::buildDirectory() + "/share/qdul/catalogue/diskd").c_str(), 1);
    int messages = 0;
    expectDone("open, messages, close", [&messages] {
        LogHandle handle;
        ASSERT_EQ(0u, zoltLogOpen(5, 9, &handle));
        EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, 0, 0, "plain %d", 1));
        EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, 0, 1001, "%s %d", "/var", 93));
        EXPECT_EQ(0u, zoltLogClose(&handle));
        messages += 2;
    });
    EXPECT_EQ(4, messages);
    std::vector<std::string> texts;
    for (const logs::Record &record : logs::records())
        texts.push_back(record.text);
    const std::vector<std::string> expected = {"plain 1", "Disk /var is 93% full", "plain 1",
                                               "Disk /var is 93% full"};
    EXPECT_EQ(expected, texts);
}

// The mutex of the catalogues would stay held.
FRESH_TEST(Cancellation, ACatalogueIsReadByAThreadThatIsCancelled) {
    const std::string sample = support::buildDirectory() + "/share/qdul/catalogue/diskd";
    Cancelled cancelled = {};
    const std::function<void()> look = [&] {
        EXPECT_EQ(0, qdlisAddCatalog(sample.c_str()));
        ZoltLisBlock block = {};
        EXPECT_EQ(0, support::lisMessage(&block, 1, 1001, "%s %d", "/var", 93));
        EXPECT_EQ("id=0 10:Disk  10:/var 10: is  1:93 10:% full", support::describe(&block));
        zoltLisFree(&block);
    };
    cancelled.operation = &look;
    const size_t descriptors = support::openDescriptors();
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, runCancelled, &cancelled)); // the first look reads the file
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_TRUE(cancelled.finished);
    EXPECT_EQ(descriptors, support::openDescriptors());
    look(); // hangs when the mutex is held
}

TEST(Cancellation, TheStateOfTheThreadIsAsBefore) {
    support::writeFile("file-1.log", "$Header 65543,5,7,1709300000,0,hostA\n");
    for (const int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
        pthread_setcancelstate(state, nullptr);
        OsFile file;
        EXPECT_EQ(0, zoltLogOs_open(&file, "file-1.log", ZOLTLOG_OS_MODE_READ, 0));
        LogFileHeader header;
        EXPECT_EQ(0u, ReadHeaderEx(&file, &header));
        zoltLogOs_close(&file);
        LogListing listing = {};
        LogCfg *none = nullptr;
        (void)GetLogFiles(&none, 0, &listing);
        int after = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
        EXPECT_EQ(state, after);
    }
}

// ---- many threads, cancelled wherever they are -------------------------------------------------

namespace {

constexpr size_t MOST_MESSAGES = size_t{1} << 24;
std::atomic<size_t> nextMessage;
std::atomic<uint8_t> *accepted; // of each message 1: its call gave 0
LogHandle sharedLog;

uint32_t sendNext(LogHandle *log) {
    const size_t number = nextMessage++;
    const uint32_t result = zoltLogAppMsg(log, 0, 1, 0, "message %zu", number % MOST_MESSAGES);
    accepted[number % MOST_MESSAGES] = result == ZOLTLOG_OK ? 1 : 0;
    return result;
}

// Opens, logs, changes contexts and settings until it is cancelled.
void *workUntilCancelled(void *argument) {
    std::mt19937 chance(static_cast<unsigned>(reinterpret_cast<uintptr_t>(argument)));
    for (;;) {
        LogCfg cfg;
        LogHandle own = {};
        switch (chance() % 4) {
        case 0:
            if (zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &own) == ZOLTLOG_OK)
                (void)sendNext(&own);
            (void)zoltLogClose(&own);
            break;
        case 1:
            if (zoltLogCreateContext(&sharedLog, &own, "work", 0, "unit") == ZOLTLOG_OK)
                (void)sendNext(&own);
            (void)zoltLogDestroyContext(&own);
            break;
        case 2:
            (void)zoltLogReadCfg(logs::PRODUCT, logs::ORIGINATOR, &cfg);
            zoltLogFreeCfg(&cfg);
            break;
        default:
            for (int message = 0; message < 20; ++message)
                (void)sendNext(&sharedLog);
        }
        pthread_testcancel();
    }
}

} // namespace

FRESH_TEST(LongCancellation, ThreadsThatAreCancelledAnywhereLeaveNothing) {
    const char *text = getenv("CANCELLATIONS");
    const long wanted = text != nullptr ? strtol(text, nullptr, 10) : 1000;
    logs::configure({"Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=256"});
    ASSERT_EQ(0U, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &sharedLog));
    const std::unique_ptr<std::atomic<uint8_t>[]> results(new std::atomic<uint8_t>[MOST_MESSAGES]());
    accepted = results.get();
    ASSERT_EQ(0U, sendNext(&sharedLog));
    std::mt19937 chance(20240301); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    const size_t descriptors = support::openDescriptors();
    long cancelled = 0;
    while (cancelled < wanted && nextMessage < MOST_MESSAGES / 2) {
        pthread_t threads[4];
        for (pthread_t &thread : threads)
            ASSERT_EQ(0, pthread_create(&thread, nullptr, workUntilCancelled,
                                        reinterpret_cast<void *>(static_cast<uintptr_t>(chance()))));
        usleep(static_cast<useconds_t>(chance() % 3000));
        for (const pthread_t thread : threads)
            ASSERT_EQ(0, pthread_cancel(thread));
        for (const pthread_t thread : threads) { // hangs when one of them has kept the lock
            void *result = nullptr;
            ASSERT_EQ(0, pthread_join(thread, &result));
            ASSERT_EQ(PTHREAD_CANCELED, result);
            ++cancelled;
        }
        ASSERT_EQ(0U, sendNext(&sharedLog));
    }
    EXPECT_EQ(descriptors, support::openDescriptors());
    ASSERT_EQ(0U, zoltLogClose(&sharedLog));
    std::vector<uint8_t> seen(nextMessage);
    size_t broken = 0;
    for (const logs::Record &record : logs::records()) {
        const bool isContext = record.type == ZOLTLOG_MSG_CONTEXT;
        const size_t number =
            strtoull(record.text.c_str() + strcspn(record.text.c_str(), "0123456789"), nullptr, 10);
        if (!record.whole)
            ++broken;
        else if (!isContext && number < seen.size())
            ++seen[number];
    }
    size_t differences = 0;
    size_t all = 0;
    for (size_t number = 0; number < seen.size(); ++number) {
        all += accepted[number];
        differences += seen[number] != accepted[number] ? 1 : 0;
    }
    EXPECT_EQ(0U, broken);
    EXPECT_EQ(0U, differences)
        << "messages that were accepted and are lost or there twice, or refused and there";
    printf("%ld threads cancelled among %zu messages, each accepted one there once\n", cancelled, all);
}
