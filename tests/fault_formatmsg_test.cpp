// SPDX-License-Identifier: Apache-2.0
// Localized text over a localization library that fails or misbehaves: this
// program brings its own calls of zoltlis.h, which the logging library uses.

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/cases.h"
#include "support/results.h"
#include "zoltlog.h"

namespace {

const size_t FAILED = static_cast<size_t>(-1);

// What the calls of this program do: a list of item types, and which call fails.
struct Script {
    int64_t identity = 0;
    std::vector<uint32_t> types;
    std::string failing; // name of the call that fails
    int failAfter = 0;   // so many successes before
    bool nullPointers = false;
    int textResult = 0;
    int freed = 0;
    int depth = -1; // of the innermost block, which has no items; -1: there is none
    int begun = 0;  // blocks whose items were begun
};
Script script;

const bool PREPARED = support::eachCase([] { script = {}; });

bool fails(const char *call) {
    return script.failing == call && script.failAfter-- <= 0;
}

uint32_t typeAt(const ZoltLisIterator *argument) {
    return script.types[argument->word[0]];
}

template<typename Value>
int32_t get(const char *call, Value *out, Value value) {
    if (fails(call))
        return -1;
    *out = value;
    return 0;
}

template<typename Pointee>
int32_t getPointer(const char *call, Pointee **out, Pointee *value) {
    return get<Pointee *>(call, out, script.nullPointers ? nullptr : value);
}

ZoltLisBlock nested;
ZoltLisOsError osError = {0, 13};

std::string write(size_t size, char **result, size_t *word) {
    std::vector<char> memory(size + 16, '\x5a');
    memory[0] = '\0';
    ZoltLisBlock block = {{1, 0, 0}};
    *word = size;
    char *returned = strncatlis(memory.data(), word, &block);
    EXPECT_TRUE(returned == nullptr || returned == memory.data());
    *result = returned;
    for (size_t i = size; i < memory.size(); ++i)
        EXPECT_EQ('\x5a', memory[i]);
    return memory.data();
}

// The text when the pass succeeds, else "failed"; both passes have to agree.
std::string text() {
    const Script before = script;
    size_t measured = 0;
    ZoltLisBlock block = {{1, 0, 0}};
    strncatlis(nullptr, &measured, &block);
    script = before;
    char *result;
    size_t word;
    const std::string written = write(2000, &result, &word);
    EXPECT_EQ(measured == FAILED, result == nullptr);
    EXPECT_EQ(result == nullptr ? FAILED : 2000, word);
    return result == nullptr ? "failed" : written;
}

} // namespace

extern "C" {

int32_t zoltLisTextV(ZoltLisBlock *block, const char *, va_list) {
    *block = {{1, 0, 0}};
    return script.textResult;
}
int32_t zoltLisVEx(ZoltLisBlock *, uint32_t, int64_t, const char *, va_list) {
    return -2;
}
int32_t zoltLisFree(ZoltLisBlock *block) {
    ++script.freed;
    *block = {};
    return 0;
}
int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity) {
    return get("id", identity, block == &nested ? int64_t{0} : script.identity);
}
int32_t zoltLisGetArgsBegin(ZoltLisBlock *, ZoltLisIterator *argument) {
    if (fails("begin") || script.types.empty() || script.begun++ == script.depth)
        return -1;
    *argument = {};
    return 0;
}
int32_t zoltLisGetNextArg(ZoltLisIterator *argument) {
    return ++argument->word[0] < script.types.size() ? 0 : -1;
}
int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type) {
    return get("type", type, typeAt(argument));
}
int32_t zoltLisGetArg_wchar(ZoltLisIterator *, wchar_t *out) {
    return get("wchar", out, L'w');
}
int32_t zoltLisGetArg_longlong(ZoltLisIterator *, int64_t *out) {
    return get("longlong", out, int64_t{-1});
}
int32_t zoltLisGetArg_ulonglong(ZoltLisIterator *, uint64_t *out) {
    return get("ulonglong", out, uint64_t{1});
}
int32_t zoltLisGetArg_double(ZoltLisIterator *, double *out) {
    return get("double", out, 0.5);
}
int32_t zoltLisGetArg_pointer(ZoltLisIterator *, void **out) {
    return get<void *>("pointer", out, nullptr);
}
int32_t zoltLisGetArg_wstring(ZoltLisIterator *, const wchar_t **out) {
    return getPointer("wstring", out, L"wide");
}
int32_t zoltLisGetArg_os_error(ZoltLisIterator *, const ZoltLisOsError **out) {
    return getPointer<const ZoltLisOsError>("os_error", out, &osError);
}
int32_t zoltLisGetArg_datetime(ZoltLisIterator *, ZoltLisDateTime *out) {
    return get("datetime", out, ZoltLisDateTime{0, 0});
}
int32_t zoltLisGetArg_lis(ZoltLisIterator *, ZoltLisBlock **out) {
    return getPointer("lis", out, &nested);
}
int32_t zoltLisGetArg_utf8string(ZoltLisIterator *, const char **out) {
    return getPointer("utf8string", out, "utf8");
}
int32_t zoltLisGetArg_nativeString(ZoltLisIterator *, const char **out) {
    return getPointer("nativeString", out, "native");
}

} // extern "C"

TEST(FaultStrncatlis, AFailingIdentityFailsThePass) {
    script.types = {1};
    script.failing = "id";
    EXPECT_EQ("failed", text());
}

TEST(FaultStrncatlis, NoFirstItemIsASuccess) {
    script.types = {1};
    script.failing = "begin";
    EXPECT_EQ("", text());
    script.failing = "begin";
    script.identity = 42;
    EXPECT_EQ("[Cannot find catalog for message id=42] ", text());
}

TEST(FaultStrncatlis, AFailingTypeFailsThePass) {
    script.types = {1, 1};
    script.failing = "type";
    EXPECT_EQ("failed", text());
    script.failAfter = 1; // the second item's
    EXPECT_EQ("failed", text());
}

TEST(FaultStrncatlis, AFailingGetterOfEveryTypeFailsThePass) {
    static const char *const GETTERS[] = {"wchar",    "longlong", "ulonglong",  "double",
                                          "pointer",  "wstring",  "os_error",   "os_error",
                                          "datetime", "lis",      "utf8string", "nativeString"};
    for (uint32_t type = 0; type < 12; ++type) {
        script = {};
        script.types = {1, type};
        script.failing = GETTERS[type];
        script.failAfter = type == 1 ? 1 : 0;
        if (type == 9)
            script.types = {type};
        EXPECT_EQ("failed", text()) << type;
        wchar_t *wide = nullptr;
        ZoltLisIterator item = {{type == 9 ? 0u : 1u}};
        script.failAfter = 0;
        EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogGetArg_asStringW(&item, &wide)) << type;
        EXPECT_EQ(nullptr, wide);
    }
}

TEST(FaultStrncatlis, ANullTextOrRecordCountsAsAFailingGetter) {
    for (uint32_t type : {5u, 6u, 7u, 9u, 10u, 11u}) {
        script = {};
        script.types = {type};
        script.nullPointers = true;
        EXPECT_EQ("failed", text()) << type;
    }
}

TEST(FaultStrncatlis, ATypeAboveElevenEndsTheTextAsASuccess) {
    script.types = {1, 11, 12, 1};
    EXPECT_EQ("-1native", text());
    script.types = {4000000000u};
    EXPECT_EQ("", text());
    script.types = {1, 12};
    script.identity = 7;
    EXPECT_EQ("[Cannot find catalog for message id=7] -1,", text());
}

TEST(FaultStrncatlis, AnUnknownTypeHasNoWideText) {
    script.types = {12};
    ZoltLisIterator item = {};
    wchar_t *wide = nullptr;
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogGetArg_asStringW(&item, &wide));
    script.failing = "type";
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogGetArg_asStringW(&item, &wide));
    EXPECT_EQ(nullptr, wide);
}

TEST(FaultStrncatlis, BlocksNestToTheLimitAndNoDeeper) {
    script.types = {9};
    script.depth = ZOLTLIS_MAX_NESTING;
    EXPECT_EQ("", text());
    script.depth = ZOLTLIS_MAX_NESTING + 1;
    script.begun = 0;
    EXPECT_EQ("failed", text());
}

TEST(FaultStrncatlis, ABlockThatContainsItselfFails) {
    script.types = {9}; // the nested block has the same items, and so on
    EXPECT_EQ("failed", text());
}

TEST(FaultListxt, AFailingLibraryLeavesTheTextAlone) {
    for (int result : {-1, -2, -3, -4, 7}) {
        script = {};
        script.textResult = result;
        char mark[] = "untouched";
        char *out = mark;
        va_list args = {};
        EXPECT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&out, "x", args));
        EXPECT_EQ(mark, out);
    }
}

TEST(FaultListxt, AFailingPassGivesNoTextAndReleasesTheBlock) {
    script.types = {1};
    script.failing = "longlong";
    char mark[] = "";
    char *out = mark;
    va_list args = {};
    EXPECT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&out, "x", args));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, script.freed);
}
