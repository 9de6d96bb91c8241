// SPDX-License-Identifier: Apache-2.0
// The localization library when memory ends, when this program's allocator fails the
// chosen allocation and all later ones, and when a catalogue cannot be read.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "qdlis.h"
#include "support/cases.h"
#include "support/failing_allocations.h"
#include "support/lis_items.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

namespace {

thread_local long allowed = -1; // allocations until the first failure; -1: all

const bool PREPARED = support::eachCase([] {
    allowed = -1;
    support::allocationHook = [] {
        if (allowed > 0)
            --allowed;
        else
            return allowed == 0;
        return false;
    };
});

class FaultLis : public testing::Test {
  protected:
    void SetUp() override {
        if (!support::allocationsCanFail())
            GTEST_SKIP() << "the sanitizer brings its own allocator";
    }
};

// Runs work with 0, 1, 2 ... allocations until it succeeds; it yields a result, and
// every failure has to be -3. Yields how many allocations success takes.
template<typename Work>
long untilItSucceeds(Work work) {
    for (long count = 0; count < 1000; ++count) {
        allowed = count;
        const int32_t result = work();
        allowed = -1;
        if (result == 0)
            return count;
        EXPECT_EQ(-3, result) << "after " << count << " allocations";
    }
    ADD_FAILURE() << "never succeeds";
    return -1;
}

std::string sample() {
    return support::buildDirectory() + "/share/qdul/catalogue/diskd";
}

const char *const LONG_TEXT = "a text that is so long that the storage of the block has to grow: "
                              "0123456789012345678901234567890123456789012345678901234567890123456789"
                              "0123456789012345678901234567890123456789012345678901234567890123456789"
                              "0123456789012345678901234567890123456789012345678901234567890123456789";

} // namespace

TEST_F(FaultLis, APlainTextTakesOneAllocation) {
    EXPECT_EQ(1, untilItSucceeds([] {
                  ZoltLisBlock block = {};
                  const int32_t result = support::lisText(&block, "disk %s is %d%% full", "/var", 93);
                  EXPECT_EQ(result == 0, block.word[0] != 0);
                  zoltLisFree(&block);
                  return result;
              }));
}

TEST_F(FaultLis, EveryFailureOfALongTextIsToldAndLeavesAnEmptyBlock) {
    EXPECT_LE(2, untilItSucceeds([] {
                  ZoltLisBlock block = {};
                  const int32_t result = support::lisText(&block, "%s %500d %s", LONG_TEXT, 7, LONG_TEXT);
                  EXPECT_EQ(result == 0, block.word[0] != 0);
                  zoltLisFree(&block);
                  return result;
              }));
}

TEST_F(FaultLis, EveryFailureOfAPositionalTextIsTold) {
    EXPECT_LE(2, untilItSucceeds([] {
                  ZoltLisBlock block = {};
                  const int32_t result = support::lisText(&block, "%2$s %1$d", 7, LONG_TEXT);
                  zoltLisFree(&block);
                  return result;
              }));
}

// ICU keeps a bundle that it could not open for lack of memory as missing; so the
// message may stay without its catalogue, but it must never be lost.
TEST_F(FaultLis, ALookUpWithoutMemoryLosesNoLaterMessage) {
    if (!support::inFreshProcess()) // messages seen before take less memory
        return;
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    for (long count = 0; count < 300; ++count) {
        ZoltLisBlock block = {};
        allowed = count;
        const int32_t result = support::lisMessage(&block, 1, 1001, "%s %d", "/var", 93);
        allowed = -1;
        EXPECT_TRUE(result == 0 || result == -3) << result;
        EXPECT_EQ(result == 0, block.word[0] != 0);
        zoltLisFree(&block);
        ASSERT_EQ(0, support::lisMessage(&block, 1, 2000 + count, "%s %d", "/var", 93));
        EXPECT_NE(std::string::npos, support::describe(&block).find("/var"));
        zoltLisFree(&block);
    }
}

TEST_F(FaultLis, EveryFailureOfAMessagesFirstUseIsTold) {
    if (!support::inFreshProcess()) // messages seen before take less memory
        return;
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    ZoltLisBlock first = {};
    ASSERT_EQ(0, support::lisMessage(&first, 1, 1007, "x")); // the bundle is open from here on
    zoltLisFree(&first);
    EXPECT_LE(5, untilItSucceeds([] { // the message, its arguments, its pattern ...
                  ZoltLisBlock block = {};
                  const int32_t result = support::lisMessage(&block, 1, 1001, "%s %d", "/var", 93);
                  allowed = -1;
                  if (result == 0) {
                      EXPECT_EQ("id=0 10:Disk  10:/var 10: is  1:93 10:% full", support::describe(&block));
                  }
                  zoltLisFree(&block);
                  return result;
              }));
}

TEST_F(FaultLis, AMessageSeenBeforeTakesOneAllocation) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    const auto message = [] {
        ZoltLisBlock block = {};
        const int32_t result = support::lisMessage(&block, 1, 1001, "%s %d", "/var", 93);
        zoltLisFree(&block);
        return result;
    };
    ASSERT_EQ(0, message());
    EXPECT_EQ(1, untilItSucceeds(message));
}

TEST_F(FaultLis, AnItemThatCannotBeAddedLeavesTheBlockAsItWas) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 42));
    ASSERT_EQ(0, qdlisAddSigned(&block, 7));
    allowed = 0;
    EXPECT_EQ(ZOLTLIS_NO_MEMORY, qdlisAddNativeString(&block, LONG_TEXT));
    allowed = -1;
    EXPECT_EQ("id=42 1:7", support::describe(&block));
    EXPECT_EQ(0, qdlisAddNativeString(&block, "x"));
    EXPECT_EQ("id=42 1:7 11:x", support::describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST_F(FaultLis, ALookUpThatFailsLeavesTheBuiltBlockAsItWas) {
    if (!support::inFreshProcess()) // messages seen before take less memory
        return;
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisMessage(&block, 1, 1007, "x"));
    zoltLisFree(&block);
    ASSERT_EQ(0, qdlisBegin(&block, 1, 1001));
    ASSERT_EQ(0, qdlisAddUtf8String(&block, "/var"));
    ASSERT_EQ(0, qdlisAddSigned(&block, 93));
    for (long count = 0; support::describe(&block) == "id=1001 10:/var 1:93"; ++count) {
        ASSERT_LT(count, 1000) << "never succeeds";
        allowed = count;
        const int32_t result = qdlisLookUp(&block);
        allowed = -1;
        EXPECT_TRUE(result == 0 || result == -3) << result;
    }
    EXPECT_EQ("id=0 10:Disk  10:/var 10: is  1:93 10:% full", support::describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST_F(FaultLis, ATextWithoutMemoryIsNullOrLeftAlone) {
    char mark[] = "untouched";
    for (long count = 0; count < 20; ++count) {
        char *text = mark;
        allowed = count;
        va_list args = {};
        const uint32_t result = listxt_svnprintf(&text, LONG_TEXT, args);
        allowed = -1;
        EXPECT_EQ(0u, result);
        if (text != mark && text != nullptr) {
            EXPECT_STREQ(LONG_TEXT, text);
            zoltLogFree(text);
            EXPECT_EQ(1, count); // the text: a common format makes no block
            return;
        }
    }
    FAIL() << "never succeeds";
}

TEST_F(FaultLis, WideTextsWithoutMemoryAreFour) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 0));
    ASSERT_EQ(0, qdlisAddSigned(&block, 7));
    ASSERT_EQ(0, qdlisAddUtf8String(&block, "x"));
    ASSERT_EQ(0, qdlisAddNativeString(&block, "x"));
    ASSERT_EQ(0, qdlisAddWideString(&block, L"x"));
    ZoltLisIterator item;
    ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
    do {
        wchar_t *text = nullptr;
        long count = 0;
        for (;; ++count) {
            allowed = count;
            const uint32_t result = zoltLogGetArg_asStringW(&item, &text);
            allowed = -1;
            if (result == 0)
                break;
            EXPECT_EQ(4u, result);
            EXPECT_EQ(nullptr, text);
        }
        EXPECT_LE(1, count);
        zoltLogFree(text);
    } while (zoltLisGetNextArg(&item) == 0);
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST_F(FaultLis, FstrncatWithoutMemoryLeavesTheBufferAlone) {
    char buffer[16] = "ab";
    allowed = 0;
    EXPECT_EQ(buffer, fstrncat(buffer, sizeof buffer, "%d", 7));
    allowed = -1;
    EXPECT_STREQ("ab", buffer);
}

// ---- catalogues that cannot be read ------------------------------------------------------------

namespace {

// What the next call on a catalogue gives.
enum class Failing { NONE, OPEN, STATUS, READ };
Failing failing;
int failure; // an errno
int failed;  // calls

bool fails(Failing call) {
    if (failing != call)
        return false;
    ++failed;
    errno = failure;
    return true;
}

std::string shown() {
    ZoltLisBlock block = {};
    const int32_t result = support::lisMessage(&block, 1, 1001, "%s %d", "/var", 93);
    const std::string text = result == 0 ? support::describe(&block) : "result " + std::to_string(result);
    zoltLisFree(&block);
    return text;
}

const char IN_WORDS[] = "id=0 10:Disk  10:/var 10: is  1:93 10:% full";

// What a process shows while a call fails, and afterwards.
void expectShownAfter(Failing call, int error, const std::string &afterwards) {
    const int status = support::inChild([&] {
        libc::open.hook = [](const char *path, int flags, mode_t mode) {
            return fails(Failing::OPEN) ? -1 : libc::open.real(path, flags, mode);
        };
        libc::fstat.hook = [](int descriptor, struct stat *out) {
            return fails(Failing::STATUS) ? -1 : libc::fstat.real(descriptor, out);
        };
        libc::read.hook = [](int descriptor, void *bytes, size_t size) {
            return fails(Failing::READ) ? ssize_t{-1} : libc::read.real(descriptor, bytes, size);
        };
        EXPECT_EQ(0, qdlisAddCatalog(sample().c_str()));
        const size_t descriptors = support::openDescriptors();
        failure = error;
        failing = call;
        const std::string meanwhile = shown();
        failing = Failing::NONE;
        EXPECT_LT(0, failed);
        EXPECT_EQ("id=1001", meanwhile.substr(0, 7));
        EXPECT_NE(std::string::npos, meanwhile.find("/var"));
        EXPECT_EQ(afterwards, shown().substr(0, afterwards.size()));
        EXPECT_EQ(descriptors, support::openDescriptors());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, status) << "call " << static_cast<int>(call) << ", " << strerror(error);
}

} // namespace

TEST(FaultCatalogue, OneThatCannotBeReadThisTimeIsReadTheNext) {
    for (const int error : {EIO, ESTALE, EMFILE, ENFILE, ENOMEM})
        expectShownAfter(Failing::OPEN, error, IN_WORDS);
    for (const Failing call : {Failing::STATUS, Failing::READ})
        for (const int error : {EIO, ESTALE})
            expectShownAfter(call, error, IN_WORDS);
}

// Those who ship no catalogue are asked for it once.
TEST(FaultCatalogue, OneThatIsNotThereOrMayNotBeReadIsNotLookedForAgain) {
    for (const int error : {ENOENT, EACCES, ELOOP})
        expectShownAfter(Failing::OPEN, error, "id=1001");
}
