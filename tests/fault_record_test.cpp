// SPDX-License-Identifier: Apache-2.0
// The record, the encoder and the readers when memory runs out: each allocation of
// an operation fails once, in turn. This program replaces the allocator's functions.
#include "support/cases.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>

#define SUPPORT_ALLOCATIONS_ALWAYS
#include "support/failing_allocations.h"

namespace {

long allocations; // since the last reset
long failing;     // which of them fails; 0: none

} // namespace

SUPPORT_EARLY static bool fails() {
    return ++allocations == failing;
}

namespace {

const bool PREPARED = support::eachCase([] {
    failing = 0;
    support::allocationHook = fails;
});

} // namespace

extern "C" {
// A block with one wide string.
int32_t zoltLisFree(ZoltLisBlock *) {
    return 0;
}
int32_t zoltLisGetTextId(ZoltLisBlock *, int64_t *identity) {
    *identity = 1;
    return 0;
}
int32_t zoltLisGetArgsBegin(ZoltLisBlock *, ZoltLisIterator *) {
    return 0;
}
int32_t zoltLisGetArgTypeId(ZoltLisIterator *, uint32_t *type) {
    *type = 5;
    return 0;
}
int32_t zoltLisGetArg_wstring(ZoltLisIterator *, const wchar_t **out) {
    *out = L"\u20ac";
    return 0;
}
int32_t zoltLisGetNextArg(ZoltLisIterator *) {
    return -1;
}
}

namespace {

// Runs operation with its first, second, ... allocation failing until it needs no
// more; it says what it yields, and releases what it got. Returns how many times an
// allocation failed. Nothing may be left over.
long failEach(const std::function<void(bool mayFail)> &operation) {
    operation(false); // the C library allocates for good at the first use of some things
    for (long n = 1;; ++n) {
        const long before = support::blocksHeld;
        allocations = 0;
        failing = n;
        operation(true);
        const bool reached = allocations >= n;
        failing = 0;
        EXPECT_LE(support::blocksHeld, before) << "allocation " << n;
        if (!reached)
            return n - 1;
        operation(false); // works as ever afterwards
        EXPECT_LE(support::blocksHeld, before);
    }
}

LogMsg exampleMessage(const char *text) {
    LogMsg msg = {};
    msg.recordVersion = ZOLTLOG_RECORD_VERSION_LOGSET;
    msg.type = ZOLTLOG_MSG_APP;
    msg.originatorId = 7;
    msg.messageId = 12;
    msg.timestamp = 1700000000123;
    msg.processId = 4242;
    msg.threadId = 4243;
    msg.text = const_cast<char *>(text);
    return msg;
}

const std::string PREFIX = "2,7,12,1700000000123,4242,4243,0:,";

// Encodes into buffer-owned storage without an allocation of the test's own in between.
uint32_t encode(LogMsg msg, char *out, size_t *size) {
    TextBuffer buffer;
    memset(&buffer, 0xab, sizeof buffer);
    const uint32_t result = zoltLogMsgSerialize(&msg, &buffer);
    *size = 0;
    if (result == 0) {
        *size = static_cast<size_t>(buffer.capacity - buffer.free);
        memcpy(out, buffer.data, *size);
    }
    free_text_msg(&buffer);
    free_text_msg(&buffer); // safe also after a failure
    return result;
}

char written[1 << 20];
size_t writtenSize;

std::string writtenRecord() {
    return {written, writtenSize};
}

} // namespace

// ---- no memory

TEST(FaultRecord, AMessageWhoseTextCannotBeCopiedTellsSo) {
    LogHandle handle = {};
    handle.noContext = 1;
    long failures = 0;
    const long failed = failEach([&](bool) {
        LogMsg msg;
        const uint32_t result = zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "text");
        if (result != 0) {
            EXPECT_EQ(result, 4u);
            EXPECT_EQ(msg.text, nullptr);
            ++failures;
        }
        zoltLogFreeMsg(&msg);
    });
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(failures, 1);
}

TEST(FaultRecord, AContextTokenThatCannotBeCopiedLeavesTheEarlierOne) {
    const long failed = failEach([](bool mayFail) {
        LogMsg msg = {};
        msg.type = ZOLTLOG_MSG_CONTEXT;
        const long wanted = failing;
        failing = 0;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetContextAttr(&msg, "earlier"));
        allocations = 0;
        failing = wanted;
        const uint32_t result = zoltLogSetContextAttr(&msg, "later");
        EXPECT_STREQ(msg.attr.contextTitle, result == 0 ? "later" : "earlier");
        EXPECT_EQ(result, mayFail && wanted == 1 ? 4u : 0u);
        zoltLogFreeMsg(&msg);
    });
    EXPECT_EQ(failed, 1);
}

TEST(FaultRecord, ARecordWithinTheInlineStorageNeedsNoMemory) {
    for (const char *locale : {"C", "C.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(locale));
        LogMsg msg = exampleMessage("plain text");
        allocations = 0;
        EXPECT_RESULT(ZOLTLOG_OK, encode(msg, written, &writtenSize));
        EXPECT_EQ(allocations, 0);
        EXPECT_EQ(writtenRecord(), PREFIX + "10:plain text,0:,0,(0|)\n");
    }
    LogMsg msg = exampleMessage("gr\xc3\xbc\xc3\x9f"); // in a UTF-8 locale
    allocations = 0;
    EXPECT_RESULT(ZOLTLOG_OK, encode(msg, written, &writtenSize));
    EXPECT_EQ(allocations, 0);
    // Texts of 3800 bytes together; a version with all numbers, which are as long as they get.
    const std::string text(3700, 't');
    const std::string who(60, 'w');
    const std::string token(40, 'c');
    LogMsg longest = exampleMessage(text.c_str());
    longest.recordVersion = ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    longest.productId = longest.originatorId = longest.fileOriginatorId = longest.messageId = UINT64_MAX;
    longest.timestamp = longest.processId = longest.threadId = UINT64_MAX;
    longest.who = const_cast<char *>(who.c_str());
    longest.contextToken = const_cast<char *>(token.c_str());
    allocations = 0;
    EXPECT_RESULT(ZOLTLOG_OK, encode(longest, written, &writtenSize));
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(writtenSize, 3900u);
}

TEST(FaultRecord, ALongRecordWithoutMemoryIsRefused) {
    // One growth makes room for all of it.
    const std::string text(6000, 't');
    const std::string who(9000, 'w');
    LogMsg msg = exampleMessage(text.c_str());
    msg.who = const_cast<char *>(who.c_str());
    const std::string expected = PREFIX + "6000:" + text + ",9000:" + who + ",0,(0|)\n";
    const long failed = failEach([&](bool mayFail) {
        const long wanted = failing;
        const uint32_t result = encode(msg, written, &writtenSize);
        EXPECT_EQ(result, mayFail && allocations >= wanted ? 4u : 0u);
        failing = 0;
        EXPECT_EQ(writtenSize, result == 0 ? expected.size() : 0);
    });
    EXPECT_EQ(failed, 1);
    EXPECT_RESULT(ZOLTLOG_OK, encode(msg, written, &writtenSize));
    EXPECT_EQ(writtenRecord(), expected);
}

TEST(FaultRecord, TheEndOfARecordNeedsMemoryToo) {
    for (size_t length = 3900; length < 4096; ++length) {
        const std::string text(length, 't');
        LogMsg msg = exampleMessage(text.c_str());
        failEach([&](bool) {
            const uint32_t result = encode(msg, written, &writtenSize);
            EXPECT_TRUE(result == 0 || result == 4);
        });
    }
}

TEST(FaultRecord, ATextThatCannotBeConvertedForLackOfMemoryIsReplaced) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    LogMsg msg = exampleMessage("gr\xfc\xdf");
    EXPECT_RESULT(ZOLTLOG_OK,
                  encode(msg, written, &writtenSize)); // whatever the C library loads at first use
    const long failed = failEach([&](bool mayFail) {
        const long wanted = failing;
        const uint32_t result = encode(msg, written, &writtenSize);
        EXPECT_EQ(result, 0u);
        const bool hit = mayFail && allocations >= wanted;
        const char *field = hit ? "33:**UNABLE TO PROCESS LOG MESSAGE**" : "6:gr\xc3\xbc\xc3\x9f";
        EXPECT_NE(memmem(written, writtenSize, field, strlen(field)), nullptr);
    });
    EXPECT_GE(failed, 2);
}

TEST(FaultRecord, AWideArgumentWithoutMemoryIsRefused) {
    LogMsg msg = exampleMessage("t");
    msg.lis.word[0] = 1;
    const long failed = failEach([&](bool mayFail) {
        const long wanted = failing;
        const uint32_t result = encode(msg, written, &writtenSize);
        EXPECT_EQ(result, mayFail && allocations >= wanted ? 4u : 0u);
    });
    EXPECT_GE(failed, 1);
    EXPECT_RESULT(ZOLTLOG_OK, encode(msg, written, &writtenSize));
    EXPECT_EQ(writtenRecord(), PREFIX + "1:t,0:,0,(1|A3:\xe2\x82\xac|)\n");
}

TEST(FaultRecord, AFailedFirstGrowthLeavesTheBufferUsable) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    memcpy(text_msg_alloc(&buffer, 3), "abc", 3);
    allocations = 0;
    failing = 1;
    EXPECT_EQ(text_msg_alloc(&buffer, 5000), nullptr);
    EXPECT_EQ(buffer.capacity - buffer.free, 3u);
    EXPECT_EQ(memcmp(buffer.data, "abc", 3), 0);
    EXPECT_NE(text_msg_alloc(&buffer, 5000), nullptr);
    EXPECT_EQ(memcmp(buffer.data, "abc", 3), 0);
    free_text_msg(&buffer);
}

TEST(FaultRecord, AFailedLaterGrowthReleasesTheBlock) {
    const long before = support::blocksHeld;
    TextBuffer buffer;
    init_text_msg(&buffer);
    ASSERT_NE(text_msg_alloc(&buffer, 5000), nullptr);
    EXPECT_EQ(support::blocksHeld, before + 1);
    allocations = 0;
    failing = 1;
    EXPECT_EQ(text_msg_alloc(&buffer, 50000), nullptr);
    EXPECT_EQ(support::blocksHeld, before);
    remove_trailing_comma(&buffer);
    free_text_msg(&buffer);
    EXPECT_EQ(support::blocksHeld, before);
}

TEST(FaultRead, ARecordWithoutMemoryIsMinusOne) {
    support::writeFile("a-1.log", std::string(60000, 'x') + "\nnext\n");
    const long failed = failEach([](bool mayFail) {
        const long wanted = failing;
        OsFile file;
        zoltLogOs_initfilehandle(&file);
        ASSERT_EQ(zoltLogOs_open(&file, "a-1.log", 1, 0660), 0);
        TextBuffer buffer;
        init_text_msg(&buffer);
        const int32_t result = readrecord(&file, &buffer);
        EXPECT_EQ(result, mayFail && allocations >= wanted ? -1 : 1);
        free_text_msg(&buffer);
        zoltLogOs_close(&file);
    });
    EXPECT_EQ(failed, 2);
}

TEST(FaultRead, AHeaderWithoutMemoryIsNoHeader) {
    support::writeFile("a-1.log", "$Header 65544,3600," + std::string(10000, 'h') + "\n");
    static LogFileHeader header;
    static LogFileEntry entry;
    const long failed = failEach([](bool mayFail) {
        const long wanted = failing;
        OsFile file;
        zoltLogOs_initfilehandle(&file);
        ASSERT_EQ(zoltLogOs_open(&file, "a-1.log", 1, 0660), 0);
        const uint32_t result = ReadHeaderEx(&file, &header);
        EXPECT_EQ(result, mayFail && allocations >= wanted ? 1u : 0u);
        zoltLogOs_close(&file);
    });
    EXPECT_GE(failed, 1);
    failEach([](bool mayFail) {
        const long wanted = failing;
        memset(&header, 0x55, sizeof header);
        ASSERT_EQ(zoltLogOs_open(&entry.file, "a-1.log", 1, 0660), 0);
        const uint32_t result = ReadHeader(&entry, &header);
        const bool hit = mayFail && allocations >= wanted;
        EXPECT_EQ(result, hit ? 1u : 0u);
        EXPECT_EQ(header.version, hit ? 0u : ZOLTLOG_RECORD_VERSION_LOGSET); // zeroed
        zoltLogOs_close(&entry.file);
    });
}

TEST(FaultRead, AnEntryWithoutMemoryIsNull) {
    support::writeFile("a-1.log", "$Header 65544,3600,hostB\n");
    OsLogFileCursor cursor;
    ASSERT_EQ(zoltLogOsListLogFilesBegin(&cursor, "./"), 0);
    long nulls = 0;
    failEach([&](bool) {
        LogFileEntry *entry = alloc_file(&cursor);
        nulls += entry == nullptr;
        zoltLogFree(entry);
    });
    EXPECT_EQ(nulls, 1);
    long refused = 0;
    failEach([&](bool) {
        char hostName[512] = "";
        const bool found = getHostnameFromFile(&cursor, "./", hostName) == 1;
        EXPECT_STREQ(hostName, found ? "hostB" : "");
        refused += !found;
    });
    EXPECT_EQ(refused, 2); // the path, the file
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(FaultRead, ASearchWithoutMemoryFindsNothing) {
    setenv("TZ", "UTC0", 1); // without it the C library may read a file each time
    support::writeFile("101-setA-140305101500.log", "$Header 65544,3600,hostB\n");
    support::writeFile("101-setA-140305101501.log", "$Header 65544,3600,hostB\n");
    const long failed = failEach([](bool) {
        LogFileEntry *entry = nullptr;
        const int32_t found = zoltLogFindLatestLogSL("./", 101, "setA", 0, 0, &entry);
        EXPECT_EQ(found == 1, entry != nullptr);
        EXPECT_TRUE(found == 0 || strcmp(entry->name, "101-setA-140305101501.log") == 0);
        zoltLogFree(entry);
    });
    EXPECT_GE(failed, 2); // the directory and the entry
}

TEST(FaultRead, DateTextsWithoutMemoryAreNoTime) {
    setenv("TZ", "UTC0", 1); // without it the C library may read a file each time
    long refused = 0;
    const long failed = failEach([&](bool) { refused += zoltLogStrDateTimeToT("2015-03-20") == -1; });
    EXPECT_EQ(failed, 2);
    EXPECT_EQ(refused, 2);
    int32_t parts[3];
    refused = 0;
    failEach([&](bool) { refused += zoltLogGetDate("2015-03-20", &parts[0], &parts[1], &parts[2]) == 0; });
    EXPECT_EQ(refused, 1);
}

TEST(FaultRead, NamesAreSplitWithoutMemory) {
    uint64_t product = 0;
    uint64_t originator = 0;
    char name[1025] = "";
    char dateTime[13] = "";
    allocations = 0;
    EXPECT_EQ(getidfromfilename("101-7-1-140305-0000000002.log", &product, &originator), 1);
    EXPECT_EQ(getSLidfromfilename("101-setA-140305123015.log", &product, name, dateTime), 1);
    EXPECT_EQ(allocations, 0);
}
