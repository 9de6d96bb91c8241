// SPDX-License-Identifier: Apache-2.0
// The search for the latest file of a series. This program gives the host its
// address, counts opened files and makes large directories.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

const char *hostAddress; // at first "10.0.0.5", id 0x0500000A
bool hostHasNoName;
int opens; // of log files

int lookUpHost(const char *, const char *, const addrinfo *, addrinfo **out) {
    static addrinfo entry;
    static sockaddr_in ipv4;
    static sockaddr_in6 ipv6;
    entry = {};
    if (inet_pton(AF_INET, hostAddress, &ipv4.sin_addr) == 1) {
        entry.ai_family = AF_INET;
        entry.ai_addr = reinterpret_cast<sockaddr *>(&ipv4);
    } else {
        inet_pton(AF_INET6, hostAddress, &ipv6.sin6_addr);
        entry.ai_family = AF_INET6;
        entry.ai_addr = reinterpret_cast<sockaddr *>(&ipv6);
    }
    *out = &entry;
    return 0;
}

const bool PREPARED = support::eachCase([] {
    hostAddress = "10.0.0.5";
    hostHasNoName = false;
    opens = 0;
    libc::getaddrinfo.hook = lookUpHost;
    libc::freeaddrinfo.hook = [](addrinfo *) {};
    libc::gethostname.hook = [](char *name, size_t size) {
        if (hostHasNoName)
            return -1;
        snprintf(name, size, "testhost");
        return 0;
    };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        const size_t length = strlen(path);
        if (length > 4 && strcmp(path + length - 4, ".log") == 0)
            ++opens;
        return libc::open.real(path, flags, mode);
    };
});

const std::string HOST = "83886090"; // of 10.0.0.5

void makeFile(const std::string &name, const std::string &bytes = "") {
    support::writeFile("logs/" + name, bytes);
}

} // namespace

struct Logs : testing::Test {
    void SetUp() override { support::makeDirectory("logs"); }
};
using LatestLog = Logs;
using LatestLogSet = Logs;

namespace {

// The name of the latest file, or "result 0".
std::string latest(uint64_t product = 101, uint64_t originator = 7, const char *directory = "logs/") {
    LogFileEntry unset;
    LogFileEntry *entry = &unset;
    const int32_t result = zoltLogFindLatestLog(directory, product, originator, 0, 1, &entry);
    if (result == 0) {
        EXPECT_EQ(entry, nullptr);
        return "result 0";
    }
    EXPECT_EQ(result, 1);
    EXPECT_STREQ(entry->directory, "");
    EXPECT_EQ(entry->file.descriptor, -1);
    EXPECT_EQ(entry->next, nullptr);
    const std::string name = entry->name;
    zoltLogFree(entry);
    return name;
}

std::string latestSet(uint64_t product = 101, const char *name = "setA", int64_t *created = nullptr,
                      const char *directory = "logs/") {
    LogFileEntry unset;
    LogFileEntry *entry = &unset;
    const int32_t result = zoltLogFindLatestLogSL(directory, product, name, 0, 1, &entry);
    if (result == 0) {
        EXPECT_EQ(entry, nullptr);
        return "result 0";
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(entry->file.descriptor, -1);
    if (created != nullptr)
        *created = entry->creationTime;
    const std::string found = entry->name;
    zoltLogFree(entry);
    return found;
}

// Which of two existing files the directory lists first.
std::string listedFirst(const std::string &a, const std::string &b) {
    DIR *directory = opendir("logs");
    std::string first;
    while (const struct dirent *entry = readdir(directory)) {
        if (first.empty() && (a == entry->d_name || b == entry->d_name))
            first = entry->d_name;
    }
    closedir(directory);
    return first;
}

void useZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

} // namespace

// ---- originator series

TEST_F(LatestLog, ALaterDateBeatsAHigherCounter) {
    makeFile("101-7-" + HOST + "-140304-0000000009.log");
    makeFile("101-7-" + HOST + "-140305-0000000001.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140305-0000000001.log");
}

TEST_F(LatestLog, OfOneDateTheHighestCounterWins) {
    for (const char *counter : {"0000000001", "0000000010", "0000000002", "0000000009"})
        makeFile("101-7-" + HOST + "-140305-" + counter + ".log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140305-0000000010.log");
}

TEST_F(LatestLog, TheOrderOfTheListingDoesNotMatter) {
    std::vector<std::string> names;
    for (const char *date : {"991231", "000101", "140305", "140401", "150101", "141231", "240229", "240301"})
        for (const char *counter : {"0000000000", "0000000001", "4294967296", "9999999999"})
            names.push_back("101-7-" + HOST + "-" + date + "-" + counter + ".log");
    for (int round = 0; round < 20; ++round) {
        std::shuffle(names.begin(), names.end(), std::mt19937(static_cast<unsigned>(round)));
        for (const std::string &name : names)
            makeFile(name);
        EXPECT_EQ(latest(), "101-7-" + HOST + "-991231-9999999999.log"); // 2099
        for (const std::string &name : names)
            unlink(("logs/" + name).c_str());
    }
}

TEST_F(LatestLog, OfEqualNamesTheFirstListedWins) {
    const std::string padded = "101-7-" + HOST + "-140305-0000000002.log";
    const std::string plain = "101-7-" + HOST + "-140305-2.log";
    makeFile(padded);
    makeFile(plain);
    EXPECT_EQ(latest(), listedFirst(padded, plain));
}

TEST_F(LatestLog, OtherSeriesAndHostsAreNeverChosen) {
    for (const std::string &name :
         {std::string("101-7-1-140305-0000000001.log"), "101-7-" + HOST + "0-140305-0000000001.log",
          "101-8-" + HOST + "-140305-0000000001.log", "102-7-" + HOST + "-140305-0000000001.log",
          "1-7-" + HOST + "-140305-0000000001.log", "1101-7-" + HOST + "-140305-0000000001.log",
          "0101-7-" + HOST + "-140305-0000000001.log", std::string("101-setA-140305101500.log"),
          "101-7-" + HOST + "-140305-0000000001.log.1"})
        makeFile(name);
    EXPECT_EQ(latest(), "result 0");
    makeFile("101-7-" + HOST + "-000102-0000000000.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-000102-0000000000.log");
}

TEST_F(LatestLog, ANameWithoutADateNeverBecomesTheLatest) {
    for (const char *rest : {"x.log", "14.log", "1403.log", "1403xx-0000000009.log", ".log", "+-1403-1.log"})
        makeFile("101-7-" + HOST + "-" + rest);
    EXPECT_EQ(latest(), "result 0");
    makeFile("101-7-" + HOST + "-140305-0000000001.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140305-0000000001.log");
}

TEST_F(LatestLog, ACounterThatCannotBeToldIsZeroAndNotThePreviousNames) {
    makeFile("101-7-" + HOST + "-140305-x.log");
    makeFile("101-7-" + HOST + "-140305-0000000001.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140305-0000000001.log");
    makeFile("101-7-" + HOST + "-140306.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140306.log");
}

TEST_F(LatestLog, TenDigitsOfACounterCount) {
    makeFile("101-7-" + HOST + "-140305-9999999999.log");
    makeFile("101-7-" + HOST + "-140305-10000000000.log"); // read as 1000000000
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140305-9999999999.log");
}

TEST_F(LatestLog, DatesThatRunOverAreTakenAsMktimeTakesThem) {
    makeFile("101-7-" + HOST + "-140301-0000000001.log");
    makeFile("101-7-" + HOST + "-140230-0000000000.log"); // 2 March
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140230-0000000000.log");
    makeFile("101-7-" + HOST + "-141301-0000000000.log"); // January 2015
    makeFile("101-7-" + HOST + "-141231-0000000005.log");
    EXPECT_EQ(latest(), "101-7-" + HOST + "-141301-0000000000.log");
}

TEST_F(LatestLog, AnEmptyOrMissingDirectoryHasNone) {
    EXPECT_EQ(latest(), "result 0");
    EXPECT_EQ(latest(101, 7, "missing/"), "result 0");
    EXPECT_EQ(latest(101, 7, nullptr), "result 0");
    EXPECT_EQ(zoltLogFindLatestLog("logs/", 101, 7, 0, 1, nullptr), 0);
}

TEST_F(LatestLog, TheEntryHasTheHeadersCreationTime) {
    makeFile("101-7-" + HOST + "-140305-0000000001.log", "$Header 65543,101,7,1394000000,0,testhost\n");
    LogFileEntry *entry = nullptr;
    ASSERT_EQ(zoltLogFindLatestLog("logs/", 101, 7, 0, 1, &entry), 1);
    EXPECT_EQ(entry->creationTime, 1394000000);
    zoltLogFree(entry);
}

TEST_F(LatestLog, LargeIdsAreNotCut) {
    hostAddress = "fe80::ffff:ffff:ffff:ffff"; // the sums carry: more than 32 bits
    const uint64_t host = osGetHostID();
    ASSERT_EQ(host, 8589934590u); // 510 in each of four places of 256
    const std::string name = "18446744073709551615-8589934592-8589934590-140305-0000000003.log";
    makeFile(name);
    EXPECT_EQ(latest(UINT64_MAX, 8589934592u), name);
    hostAddress = "10.0.0.250"; // above 2^31
    makeFile("101-7-4194304010-140305-0000000003.log");
    EXPECT_EQ(latest(), "101-7-4194304010-140305-0000000003.log");
}

TEST_F(LatestLog, WithoutAHostNameTheHostIsZero) {
    hostHasNoName = true;
    makeFile("101-7-" + HOST + "-140305-0000000001.log");
    EXPECT_EQ(latest(), "result 0");
    makeFile("101-7-0-140305-0000000001.log");
    EXPECT_EQ(latest(), "101-7-0-140305-0000000001.log");
}

TEST_F(LatestLog, OnlyTheFinalFileIsOpened) {
    for (int i = 0; i < 300; ++i) {
        char name[64];
        snprintf(name, sizeof name, "101-7-%s-1403%02d-%010d.log", HOST.c_str(), 1 + i % 28, i);
        makeFile(name);
    }
    const size_t descriptors = support::openDescriptors();
    opens = 0;
    EXPECT_EQ(latest(), "101-7-" + HOST + "-140328-0000000279.log");
    EXPECT_EQ(opens, 1);
    opens = 0;
    EXPECT_EQ(latestSet(), "result 0");
    EXPECT_EQ(opens, 0);
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

TEST_F(LatestLog, TheTimeZoneMakesNoDifference) {
    makeFile("101-7-" + HOST + "-111229-0000000001.log");
    makeFile("101-7-" + HOST + "-111231-0000000000.log");
    for (const char *zone : {"UTC", "UTC-14", "UTC+12", "CET-1CEST,M3.5.0,M10.5.0/3", "Pacific/Apia"}) {
        useZone(zone);
        EXPECT_EQ(latest(), "101-7-" + HOST + "-111231-0000000000.log") << zone;
    }
}

// ---- log set series

TEST_F(LatestLogSet, TheLatestSecondWins) {
    makeFile("101-setA-140305101500.log");
    makeFile("101-setA-140305101459.log");
    EXPECT_EQ(latestSet(), "101-setA-140305101500.log");
    makeFile("101-setA-130305101501.log");
    EXPECT_EQ(latestSet(), "101-setA-140305101500.log");
    makeFile("101-setA-140306000000.log");
    EXPECT_EQ(latestSet(), "101-setA-140306000000.log");
}

TEST_F(LatestLogSet, TheCreationTimeIsThatOfTheName) {
    useZone("UTC");
    makeFile("101-setA-140305101500.log", "$Header 65544,0,testhost\n");
    int64_t created = 0;
    EXPECT_EQ(latestSet(101, "setA", &created), "101-setA-140305101500.log");
    EXPECT_EQ(created, 1394014500);
    useZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(latestSet(101, "setA", &created), "101-setA-140305101500.log");
    EXPECT_EQ(created, 1394014500 - 3600);
}

TEST_F(LatestLogSet, OfEqualTimesTheFirstListedWins) {
    const std::string one = "101-setA-140305101500.log";
    const std::string two = "101-setA-140305101500x.log";
    makeFile(one);
    makeFile(two);
    EXPECT_EQ(latestSet(), listedFirst(one, two));
}

TEST_F(LatestLogSet, OtherProductsAndSetsAreSkipped) {
    for (const char *name :
         {"102-setA-140305101500.log", "1-setA-140305101500.log", "1010-setA-140305101500.log",
          "101-setAB-140305101500.log", "101-set-140305101500.log", "101-setB-140305101500.log",
          "101-7-83886090-140305-0000000001.log"})
        makeFile(name);
    EXPECT_EQ(latestSet(), "result 0");
    EXPECT_EQ(latestSet(101, "set"), "101-set-140305101500.log");
    EXPECT_EQ(latestSet(1), "1-setA-140305101500.log");
}

TEST_F(LatestLogSet, ANameWithoutATimeNeverBecomesTheLatest) {
    for (const char *name :
         {"101-setA-.log", "101-setA-x.log", "101-setA-14.log", "101-setA-B-140305101500.log"})
        makeFile(name);
    EXPECT_EQ(latestSet(), "result 0");
    makeFile("101-setA-000102000000.log");
    EXPECT_EQ(latestSet(), "101-setA-000102000000.log");
}

TEST_F(LatestLogSet, ATimeOfSignsAndBlanksIsTakenAsScanfTakesIt) {
    useZone("UTC");
    makeFile("101-setA-14 3 5 4 5 0.log"); // 2014-03-05 04:05:00
    makeFile("101-setA-140305040459.log");
    int64_t created = 0;
    EXPECT_EQ(latestSet(101, "setA", &created), "101-setA-14 3 5 4 5 0.log");
    EXPECT_EQ(created, 1393992300);
    makeFile("101-setA-140305040501.log");
    EXPECT_EQ(latestSet(), "101-setA-140305040501.log");
}

TEST_F(LatestLogSet, ASetWhoseNameHoldsAHyphenHasNoLatestFile) {
    makeFile("101-a-b-140305101500.log");
    EXPECT_EQ(latestSet(101, "a-b"), "result 0");
}

TEST_F(LatestLogSet, ANameThatCannotBeSplitEndsTheSearch) {
    makeFile("0-setA-140305101500.log"); // product 0 is none
    EXPECT_EQ(latestSet(0), "result 0");
}

TEST_F(LatestLogSet, AnEmptyOrMissingDirectoryHasNone) {
    EXPECT_EQ(latestSet(), "result 0");
    EXPECT_EQ(latestSet(101, "setA", nullptr, "missing/"), "result 0");
    EXPECT_EQ(latestSet(101, "setA", nullptr, nullptr), "result 0");
    EXPECT_EQ(latestSet(101, nullptr), "result 0");
    EXPECT_EQ(zoltLogFindLatestLogSL("logs/", 101, "setA", 0, 1, nullptr), 0);
}

TEST_F(LatestLogSet, EqualsTheSearchThatConvertsEveryTime) {
    // Times that lie close together and far apart, in zones whose standard offset
    // moved: the shortcut for names that lie days apart must not show.
    std::srand(20261120);
    for (const char *zone : {"UTC", "Europe/Moscow", "Pacific/Apia", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
        useZone(zone);
        for (int round = 0; round < 30; ++round) {
            std::vector<std::string> names;
            for (int i = 0; i < 20; ++i) {
                char name[64];
                if (round % 3 == 0) // around a day that one of the zones left out
                    snprintf(name, sizeof name, "1-s-1112%02d%02d%02d%02d.log", 29 + std::rand() % 3,
                             std::rand() % 24, std::rand() % 60, std::rand() % 60);
                else if (std::rand() % 2 == 0)
                    snprintf(name, sizeof name, "1-s-1110%02d%02d%02d%02d.log", 20 + std::rand() % 12,
                             std::rand() % 24, std::rand() % 60, std::rand() % 60);
                else
                    snprintf(name, sizeof name, "1-s-%02d%02d%02d%02d%02d%02d.log", 5 + std::rand() % 9,
                             1 + std::rand() % 12, 1 + std::rand() % 28, std::rand() % 24, std::rand() % 60,
                             std::rand() % 60);
                makeFile(name);
                names.emplace_back(name);
            }
            int64_t best = 0;
            for (const std::string &name : names)
                best = std::max(best, convert_time(name.substr(4, 12).c_str()));
            int64_t created = 0;
            EXPECT_EQ(convert_time(latestSet(1, "s", &created).substr(4, 12).c_str()), best);
            EXPECT_EQ(created, best);
            for (const std::string &name : names)
                unlink(("logs/" + name).c_str());
        }
    }
}
