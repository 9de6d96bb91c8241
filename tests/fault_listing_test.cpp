// SPDX-License-Identifier: Apache-2.0
// Listing, surplus files, fetching and copying while each allocation, then each system
// call on files, fails once.
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "support/failing_allocations.h"

namespace {

int failAt = -1; // which counted call fails, from 0
int calls = 0;
bool armed = false;
bool failAllocations = true;

bool failsNow() {
    return armed && calls++ == failAt;
}

bool failCalls = false;

bool callFails(int error) {
    if (!failCalls || !failsNow())
        return false;
    errno = error;
    return true;
}

const bool PREPARED = support::eachCase([] {
    failAt = -1;
    armed = failCalls = false;
    failAllocations = true;
    support::allocationHook = [] { return failAllocations && failsNow(); };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        return callFails(EMFILE) ? -1 : libc::open.real(path, flags, mode);
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        return callFails(EMFILE) ? -1 : libc::openat.real(directory, path, flags, mode);
    };
    libc::read.hook = [](int descriptor, void *buffer, size_t length) -> ssize_t {
        return callFails(EIO) ? -1 : libc::read.real(descriptor, buffer, length);
    };
    libc::write.hook = [](int descriptor, const void *buffer, size_t length) -> ssize_t {
        return callFails(EIO) ? -1 : libc::write.real(descriptor, buffer, length);
    };
});

class FaultListing : public testing::Test {
  protected:
    void SetUp() override {
        char *here = get_current_dir_name();
        home = std::string(here) + "/";
        free(here);
        support::makeDirectory("logs");
        support::makeDirectory("to");
        setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
        support::writeFile("main.conf", "5.Configuration=" + home + "p5.conf\n5.Names=web\n");
        support::writeFile("p5.conf", "Default.LogDirectory=" + home + "logs/\nDefault.NumberOfLogFiles=3\n" +
                                          "LOGSET.Default.LogDirectory=" + home +
                                          "logs/\nLOGSET.night.NumberOfLogFiles=1\n");
        for (int i = 0; i < 8; ++i) {
            const std::string number = std::to_string(i);
            support::writeFile("logs/5-112-1-240301-000000000" + number + ".log",
                               "$Header 65543,5,112,100" + number + ",0,hostA\n");
            support::writeFile("logs/5-night-24030110000" + number + ".log", "$Header 65544,0,hostA\n");
        }
        GetZoltLogCfgLoc();
    }

    // Runs the body with the first call failing, then the second, until none is left.
    static int failEach(const std::function<void()> &body) {
        body(); // what is allocated once stays
        const size_t descriptors = support::openDescriptors();
        for (int at = 0;; ++at) {
            failAt = at;
            calls = 0;
            const long before = support::blocksHeld;
            armed = true;
            body();
            armed = false;
            EXPECT_LE(support::blocksHeld, before)
                << "call " << at; // below: what an earlier call had kept went too
            EXPECT_EQ(support::openDescriptors(), descriptors) << "call " << at;
            if (calls <= at || testing::Test::HasFailure())
                return at;
            body(); // keeps such things again
        }
    }

    static void freeEntries(LogListing &listing) {
        while (listing.files != nullptr) {
            LogFileEntry *next = listing.files->next;
            zoltLogFree(listing.files);
            listing.files = next;
        }
    }

    // Whatever fails: no file is surplus that the series keeps.
    static void checkSurplus(LogListing &listing, uint32_t result, const char *newestOfSurplus) {
        if (result != 0 && listing.files != nullptr)
            strcpy(failure, "files in spite of a failure");
        for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next)
            if (strcmp(newestOfSurplus, entry->name) < 0)
                strcpy(failure, entry->name);
    }

    static void surplus() {
        LogListing listing;
        uint32_t result = zoltLogGetManageableLogFiles(5, 112, &listing);
        checkSurplus(listing, result, "5-112-1-240301-0000000004.log");
        freeEntries(listing);
        result = zoltLogGetManageableLogFilesSL(5, "night", &listing);
        checkSurplus(listing, result, "5-night-240301100006.log");
        freeEntries(listing);
        result = zoltLogGetManageableLogFiles(0, 0, &listing);
        for (const LogFileEntry *entry = listing.files; entry != nullptr; entry = entry->next)
            if (strcmp(entry->name, "5-112-1-240301-0000000004.log") > 0 &&
                strncmp(entry->name, "5-112", 5) == 0)
                strcpy(failure, entry->name);
        freeEntries(listing);
    }

    static char failure[256]; // no allocation while they are counted
    std::string home;
};

char FaultListing::failure[256];

} // namespace

#if SUPPORT_ALLOCATIONS_CAN_FAIL
TEST_F(FaultListing, EveryAllocationOfASurplusSearch) {
    const int failed = failEach(surplus);
    EXPECT_STREQ(failure, "");
    EXPECT_GT(failed, 30);
}

TEST_F(FaultListing, EveryAllocationOfAListing) {
    LogCfg cfg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(5, 112, &cfg));
    LogCfg *cfgs = &cfg;
    static std::set<uint32_t> results;
    const int failed = failEach([&] {
        LogListing listing = {};
        const uint32_t result = GetLogFiles(&cfgs, 1, &listing);
        freeEntries(listing);
        if (result != 0 && result != 1 && result != 45)
            snprintf(failure, sizeof failure, "result %u", result);
    });
    EXPECT_STREQ(failure, "");
    EXPECT_GT(failed, 15);
    zoltLogFreeCfg(&cfg);
}

TEST_F(FaultListing, AnAllocationThatFailsWhileFetchingLosesNoFile) {
    LogListing listing;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(5, 112, &listing));
    LogFileEntry *const first = listing.files;
    // The path's buffer is the last allocation of a fetch.
    char *path = nullptr;
    failAt = -1;
    calls = 0;
    armed = true;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFetchNextFile(&listing, &path));
    armed = false;
    const int all = calls;
    zoltLogFreeBuffer(&path);
    listing.next = first;
    failAt = all - 1;
    calls = 0;
    armed = true;
    EXPECT_RESULT(ZOLTLOG_NO_MEMORY, zoltLogFetchNextFile(&listing, &path));
    armed = false;
    EXPECT_EQ(path, nullptr);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogFetchNextFile(&listing, &path));
    EXPECT_EQ(std::string(path), home + "logs/" + first->name);
    zoltLogFreeBuffer(&path);
    freeEntries(listing);
}

TEST_F(FaultListing, CopyWithoutMemoryIs4) {
    failAt = 0;
    calls = 0;
    const std::string from = home + "logs/5-112-1-240301-0000000000.log";
    const std::string to = home + "to";
    armed = true;
    const uint32_t copied = zoltLogCopyFile(from.c_str(), to.c_str());
    calls = 0;
    const uint32_t linked = zoltLogCopyFileEx(from.c_str(), to.c_str());
    armed = false;
    EXPECT_EQ(copied, 4u);
    EXPECT_EQ(linked, 4u);
    EXPECT_TRUE(support::listFiles("to").empty());
}
#endif

TEST_F(FaultListing, EverySystemCallOfASurplusSearch) {
    failAllocations = false;
    failCalls = true;
    const int failed = failEach(surplus);
    failCalls = false;
    failAllocations = true;
    EXPECT_STREQ(failure, "");
    EXPECT_GT(failed, 20);
}
