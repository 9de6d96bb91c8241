// SPDX-License-Identifier: Apache-2.0
// Localized text: the look of every item type in both passes and as wide text,
// the bounds of the writing pass, and the texts made for messages.

#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

#include "qdlis.h"
#include "support/lis_items.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

using support::lisMessage;
using support::lisText;

namespace {

const size_t FAILED = static_cast<size_t>(-1);

// A block that is built by the test and released with it.
struct Built : ZoltLisBlock {
    explicit Built(int64_t number = 0) : ZoltLisBlock() { EXPECT_EQ(0, qdlisBegin(this, 0, number)); }
    ~Built() { EXPECT_EQ(0, zoltLisFree(this)); }
    Built(const Built &) = delete;
    Built &operator=(const Built &) = delete;
};

size_t measure(ZoltLisBlock *block) {
    size_t size = 12345;
    EXPECT_EQ(nullptr, strncatlis(nullptr, &size, block));
    return size;
}

// The text in a buffer of the given size, between canaries.
std::string write(ZoltLisBlock *block, size_t size = 4000) {
    std::vector<char> memory(size + 64, '\x5a');
    char *buffer = memory.data() + 32;
    buffer[0] = '\0';
    size_t word = size;
    char *result = strncatlis(buffer, &word, block);
    EXPECT_EQ(buffer, result);
    EXPECT_EQ(size, word);
    for (size_t i = 0; i < 32; ++i) {
        EXPECT_EQ('\x5a', memory[i]) << "before the buffer";
        EXPECT_EQ('\x5a', memory[32 + size + i]) << "behind the buffer";
    }
    EXPECT_LT(strnlen(buffer, size), size) << "not terminated";
    return std::string(buffer, strnlen(buffer, size));
}

char *listext(const char *format, ...) {
    char *text = nullptr;
    va_list args;
    va_start(args, format);
    EXPECT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&text, format, args));
    va_end(args);
    return text;
}

std::string wide(ZoltLisBlock *block, uint32_t expected = 0) {
    ZoltLisIterator item;
    EXPECT_EQ(0, zoltLisGetArgsBegin(block, &item));
    wchar_t *text = nullptr;
    EXPECT_EQ(expected, zoltLogGetArg_asStringW(&item, &text));
    if (text == nullptr)
        return "none";
    std::string narrow;
    for (const wchar_t *c = text; *c != L'\0'; ++c)
        narrow += *c < 128 ? std::string(1, static_cast<char>(*c))
                           : "<" + std::to_string(static_cast<int>(*c)) + ">";
    zoltLogFree(text);
    return narrow;
}

} // namespace

// ---- the rows of the table ------------------------------------------------------

TEST(Strncatlis, WideCharacter) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    Built block;
    qdlisAddWideChar(&block, L'\u20ac');
    EXPECT_EQ(2u, measure(&block));
    EXPECT_EQ("\xe2\x82\xac", write(&block));
    EXPECT_EQ("<8364>", wide(&block));
}

TEST(Strncatlis, SignedNumber) {
    for (int64_t number : {int64_t{0}, int64_t{-7}, INT64_MAX, INT64_MIN}) {
        Built block;
        qdlisAddSigned(&block, number);
        EXPECT_EQ(20u, measure(&block));
        EXPECT_EQ(std::to_string(number), write(&block));
        EXPECT_EQ(std::to_string(number), wide(&block));
    }
}

TEST(Strncatlis, UnsignedNumber) {
    Built block;
    qdlisAddUnsigned(&block, UINT64_MAX);
    EXPECT_EQ(20u, measure(&block));
    EXPECT_EQ("18446744073709551615", write(&block));
    EXPECT_EQ("18446744073709551615", wide(&block));
}

TEST(Strncatlis, Double) {
    Built block;
    qdlisAddDouble(&block, -2.5);
    EXPECT_EQ(15u, measure(&block));
    EXPECT_EQ("-2.500000", write(&block));
    EXPECT_EQ("-2.500000", wide(&block));
}

TEST(Strncatlis, Pointer) {
    Built block;
    qdlisAddPointer(&block, reinterpret_cast<void *>(255));
    EXPECT_EQ(20u, measure(&block));
    EXPECT_EQ("0xff", write(&block));
    EXPECT_EQ("0xff", wide(&block));
    Built null;
    qdlisAddPointer(&null, nullptr);
    EXPECT_EQ("0x0", write(&null));
    EXPECT_EQ("0", wide(&null));
    Built high;
    qdlisAddPointer(&high, reinterpret_cast<void *>(UINTPTR_MAX));
    EXPECT_EQ("0xffffffffffffffff", write(&high));
}

TEST(Strncatlis, WideString) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    Built block;
    qdlisAddWideString(&block, L"gr\u00fc\u00df");
    EXPECT_EQ(7u, measure(&block)); // six bytes and one
    EXPECT_EQ("gr\xc3\xbc\xc3\x9f", write(&block));
    EXPECT_EQ("gr<252><223>", wide(&block));
}

TEST(Strncatlis, OperatingSystemErrors) {
    for (uint32_t kind : {QDLIS_ERRNO, QDLIS_OTHER_ERROR}) {
        Built block;
        qdlisAddOsError(&block, kind, -13);
        EXPECT_EQ(10u, measure(&block));
        EXPECT_EQ("-13", write(&block));
        EXPECT_EQ("-13", wide(&block));
    }
    Built large;
    qdlisAddOsError(&large, QDLIS_ERRNO, (int64_t{1} << 40) + 5); // 32 bits narrow, 64 bits wide
    EXPECT_EQ("5", write(&large));
    EXPECT_EQ("1099511627781", wide(&large));
}

TEST(Strncatlis, DateAndTimeAreFollowedByABlank) {
    setenv("TZ", "UTC-2", 1);
    tzset();
    Built block;
    qdlisAddDateTime(&block, 1700000000, 0);
    EXPECT_EQ(25u, measure(&block));
    EXPECT_EQ("Wed Nov 15 00:13:20 2023\n ", write(&block));
    EXPECT_EQ("Wed Nov 15 00:13:20 2023", wide(&block));
}

TEST(Strncatlis, ADateBeyondTheCalendarAddsNothing) {
    for (int64_t seconds : {INT64_MAX, INT64_MIN, int64_t{1} << 40}) {
        Built block;
        qdlisAddDateTime(&block, seconds, 0);
        EXPECT_EQ(0u, measure(&block)) << seconds;
        EXPECT_EQ("", write(&block)) << seconds;
    }
    Built never;
    qdlisAddDateTime(&never, INT64_MAX, 0);
    EXPECT_EQ("", wide(&never));
}

TEST(Strncatlis, NestedTextsAreRenderedInPlace) {
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, lisMessage(&inner, 0, 7, "%d %d", 1, 2));
    Built block(9);
    qdlisAddSigned(&block, 5);
    qdlisAddBlock(&block, &inner);
    qdlisAddSigned(&block, 6);
    // 51 + 20 + 1 + (51 + 20 + 1 + 20) + 1 + 20
    EXPECT_EQ(185u, measure(&block));
    EXPECT_EQ("[Cannot find catalog for message id=9] 5,[Cannot find catalog for message id=7] 1,2,6",
              write(&block));
}

TEST(Strncatlis, NarrowStrings) {
    Built utf8;
    qdlisAddUtf8String(&utf8, "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(7u, measure(&utf8));
    EXPECT_EQ("gr\xc3\xbc\xc3\x9f", write(&utf8));
    EXPECT_EQ("gr<252><223>", wide(&utf8));
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    Built native;
    qdlisAddNativeString(&native, "gr\xfc\xdf");
    EXPECT_EQ(5u, measure(&native));
    EXPECT_EQ("gr\xfc\xdf", write(&native));
    EXPECT_EQ("gr<252><223>", wide(&native));
}

TEST(Strncatlis, WhatCannotBeConvertedAddsNothing) {
    Built block;
    qdlisAddNativeString(&block, "a");
    qdlisAddWideString(&block, L"x\u00e4");
    qdlisAddWideChar(&block, L'\u00e4');
    qdlisAddNativeString(&block, "b");
    EXPECT_EQ(2u + 0 + 2 + 2, measure(&block));
    EXPECT_EQ("ab", write(&block));
}

TEST(Strncatlis, NumbersHaveTheLocalesDecimalPoint) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    Built block;
    qdlisAddDouble(&block, 2.5);
    EXPECT_EQ("2,500000", write(&block));
}

// ---- the passes --------------------------------------------------------------------

TEST(Strncatlis, AMissingCatalogueGivesThePrefixAndTheArgumentsWithCommas) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisMessage(&block, 1, 42, "disk %d: %s", 7, "x"));
    EXPECT_EQ(51u + 20 + 1 + 2, measure(&block));
    EXPECT_EQ("[Cannot find catalog for message id=42] 7,x", write(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, AMissingCatalogueWithoutArgumentsGivesTheBarePrefix) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisMessage(&block, 1, -42, "nothing"));
    EXPECT_EQ(51u, measure(&block));
    EXPECT_EQ("[Cannot find catalog for message id=-42] ", write(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, ATextWithoutItemsIsEmpty) {
    ZoltLisBlock block = {};
    EXPECT_EQ(0u, measure(&block));
    EXPECT_EQ("", write(&block));
    ASSERT_EQ(0, lisText(&block, ""));
    EXPECT_EQ(0u, measure(&block));
    EXPECT_EQ("", write(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, ItemsOfAFoundTextAreJoinedWithNothingBetween) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "disk %s is %d%% full", "/var", 93));
    EXPECT_EQ(6u + 5 + 5 + 20 + 7, measure(&block));
    EXPECT_EQ("disk /var is 93% full", write(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, AppendsToWhatTheBufferHolds) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%d and more", 7));
    char buffer[12] = "start ";
    size_t size = sizeof buffer;
    EXPECT_EQ(buffer, strncatlis(buffer, &size, &block));
    EXPECT_STREQ("start 7 and", buffer);
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, NeverWritesBeyondTheBuffer) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, lisText(&inner, "inner %s", "text"));
    Built block(42);
    qdlisAddSigned(&block, INT64_MIN);
    qdlisAddDouble(&block, 1e300);
    qdlisAddWideString(&block, L"\u65e5\u672c\u8a9e");
    qdlisAddDateTime(&block, 1700000000, 0);
    qdlisAddBlock(&block, &inner);
    qdlisAddWideChar(&block, L'\u20ac');
    qdlisAddPointer(&block, &block);
    qdlisAddUtf8String(&block, "the end");
    const std::string whole = write(&block);
    EXPECT_GT(whole.size(), 400u);
    for (size_t size = 1; size <= whole.size() + 2; ++size)
        ASSERT_EQ(whole.substr(0, size - 1), write(&block, size)) << size;
}

TEST(Strncatlis, LeavesABufferWithoutRoomAlone) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%d", 7));
    char full[4] = {'a', 'b', 'c', 'd'}; // no NUL within its size
    size_t size = sizeof full;
    EXPECT_EQ(full, strncatlis(full, &size, &block));
    EXPECT_EQ(0, std::memcmp(full, "abcd", 4));
    size = 0;
    EXPECT_EQ(full, strncatlis(full, &size, &block));
    EXPECT_EQ(0, std::memcmp(full, "abcd", 4));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(Strncatlis, NullPointersFail) {
    char buffer[10] = "";
    size_t size = sizeof buffer;
    EXPECT_EQ(nullptr, strncatlis(buffer, nullptr, nullptr));
    EXPECT_EQ(nullptr, strncatlis(buffer, &size, nullptr));
    EXPECT_EQ(FAILED, size);
    size = 0;
    EXPECT_EQ(nullptr, strncatlis(nullptr, &size, nullptr));
    EXPECT_EQ(FAILED, size);
}

// ---- texts of messages -----------------------------------------------------------------

TEST(ListxtSvnprintf, MakesTheTextOfAFormat) {
    char *text = listext("disk %s is %d%% full", "/var", 93);
    EXPECT_STREQ("disk /var is 93% full", text);
    zoltLogFree(text);
}

TEST(ListxtSvnprintf, CutsNothingValid) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    char expected[1000];
    for (double real : {1e300, -1e300, std::numeric_limits<double>::max(), -123456789012345.5}) {
        char *text = listext("%f", real);
        std::snprintf(expected, sizeof expected, "%f", real);
        EXPECT_STREQ(expected, text);
        zoltLogFree(text);
    }
    char *text = listext("%lld", LLONG_MIN);
    EXPECT_STREQ("-9223372036854775808", text);
    zoltLogFree(text);
    text = listext("%llu", ULLONG_MAX);
    EXPECT_STREQ("18446744073709551615", text);
    zoltLogFree(text);
    text = listext("%lc", static_cast<wint_t>(L'\u20ac'));
    EXPECT_STREQ("\xe2\x82\xac", text);
    zoltLogFree(text);
    text = listext("%p", reinterpret_cast<void *>(UINTPTR_MAX));
    EXPECT_STREQ("0xffffffffffffffff", text);
    zoltLogFree(text);
}

TEST(ListxtSvnprintf, LongTextsAreWhole) {
    const std::string part(300000, 'x');
    const std::wstring widePart(70000, L'w');
    char *text = listext("%s|%ls|%s", part.c_str(), widePart.c_str(), part.c_str());
    EXPECT_EQ(part + "|" + std::string(70000, 'w') + "|" + part, text);
    zoltLogFree(text);
    for (size_t length : {1022u, 1023u, 1024u, 1025u, 2048u}) { // around the first storage
        const std::string exact(length, 'e');
        text = listext("%s", exact.c_str());
        EXPECT_EQ(exact, text);
        zoltLogFree(text);
    }
}

TEST(ListxtSvnprintf, OfAnEmptyFormatIsAnEmptyText) {
    const char *const empty = ""; // a literal would be diagnosed
    char *text = listext(empty);
    EXPECT_STREQ("", text);
    zoltLogFree(text);
}

TEST(ListxtSvnprintf, LeavesTheTextAloneWhenTheFormatIsInvalid) {
    char mark[] = "untouched";
    char *text = mark;
    va_list args = {};
    const char *volatile invalid = "%n"; // what the compiler knows it would refuse
    const char *volatile none = nullptr;
    EXPECT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&text, invalid, args));
    EXPECT_EQ(mark, text);
    EXPECT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&text, none, args));
    EXPECT_EQ(mark, text);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, listxt_svnprintf(nullptr, "x", args));
}

// ---- appending ---------------------------------------------------------------------------

TEST(Fstrncat, AppendsFormattedValues) {
    char buffer[32] = "a";
    EXPECT_EQ(buffer, fstrncat(buffer, sizeof buffer, "%d-%s", 7, "x"));
    EXPECT_STREQ("a7-x", buffer);
}

TEST(Fstrncat, KeepsWithinTheBuffer) {
    char buffer[16];
    std::memset(buffer, '\x5a', sizeof buffer);
    std::strcpy(buffer, "abc");
    EXPECT_EQ(buffer, fstrncat(buffer, 8, "%s", "a text that is longer"));
    EXPECT_STREQ("abca te", buffer);
    EXPECT_EQ('\x5a', buffer[8]);
    EXPECT_EQ(buffer, fstrncat(buffer, 8, "%s", "more"));
    EXPECT_STREQ("abca te", buffer);
    EXPECT_EQ(buffer, fstrncat(buffer, 0, "x"));
    EXPECT_STREQ("abca te", buffer);
}

TEST(Fstrncat, ValuesMayLieInTheBuffer) {
    char buffer[16] = "ab";
    EXPECT_EQ(buffer, fstrncat(buffer, sizeof buffer, "-%s-%s", buffer, buffer + 1));
    EXPECT_STREQ("ab-ab-b", buffer);
}

TEST(Fstrncat, AddsNothingForValuesThatCannotBeFormatted) {
    char buffer[16] = "ab";
    EXPECT_EQ(buffer, fstrncat(buffer, sizeof buffer, "x%ls", L"\u20ac")); // in the C locale
    EXPECT_STREQ("ab", buffer);
}

TEST(Fstrncat, NullPointersAreLeftAlone) {
    char buffer[4] = "a";
    EXPECT_EQ(nullptr, fstrncat(nullptr, 4, "x"));
    EXPECT_EQ(buffer, fstrncat(buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("a", buffer);
}

// ---- wide texts ----------------------------------------------------------------------------

TEST(GetArgAsStringW, NullPointersAreRefused) {
    wchar_t *text = nullptr;
    ZoltLisIterator item = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetArg_asStringW(nullptr, &text));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogGetArg_asStringW(&item, nullptr));
}

TEST(GetArgAsStringW, FailsWhereThereIsNoItem) {
    wchar_t *text = nullptr;
    ZoltLisIterator item = {};
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogGetArg_asStringW(&item, &text));
    EXPECT_EQ(nullptr, text);
}

TEST(GetArgAsStringW, EmptyNativeStringFails) {
    Built block;
    qdlisAddNativeString(&block, "");
    EXPECT_EQ("none", wide(&block, 1));
}

TEST(GetArgAsStringW, InvalidNativeStringFails) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    Built block;
    qdlisAddNativeString(&block, "a\xff");
    EXPECT_EQ("none", wide(&block, 1));
}

TEST(GetArgAsStringW, EmptyUtf8StringIsAnEmptyText) {
    Built block;
    qdlisAddUtf8String(&block, "");
    EXPECT_EQ("", wide(&block));
}

TEST(GetArgAsStringW, InvalidUtf8StringFails) {
    Built block;
    qdlisAddUtf8String(&block, "a\xff");
    EXPECT_EQ("none", wide(&block, 1));
}

TEST(GetArgAsStringW, Utf8StringsNeedNoLocale) {
    Built block;
    qdlisAddUtf8String(&block, "\xf0\x9f\x98\x80 \xe2\x82\xac");
    EXPECT_EQ("<128512> <8364>", wide(&block));
}

TEST(GetArgAsStringW, NestedTextsAreNotSupported) {
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, lisText(&inner, "inner"));
    Built block;
    qdlisAddBlock(&block, &inner);
    EXPECT_EQ("none", wide(&block, 1));
}

TEST(GetArgAsStringW, LargeDoublesAreWhole) {
    Built block;
    qdlisAddDouble(&block, -1e300);
    char expected[400];
    std::snprintf(expected, sizeof expected, "%f", -1e300);
    EXPECT_EQ(expected, wide(&block));
}

TEST(GetArgAsStringW, LongStringsAreWhole) {
    const std::string text(5000, 'x');
    Built utf8;
    qdlisAddUtf8String(&utf8, text.c_str());
    EXPECT_EQ(text, wide(&utf8));
    Built native;
    qdlisAddNativeString(&native, text.c_str());
    EXPECT_EQ(text, wide(&native));
}

TEST(WcsDup, CopiesATextAndPassesNull) {
    EXPECT_EQ(nullptr, zoltLogWcsDup(nullptr));
    wchar_t *copy = zoltLogWcsDup(L"w\u00e4");
    EXPECT_STREQ(L"w\u00e4", copy);
    zoltLogFree(copy);
    copy = zoltLogWcsDup(L"");
    EXPECT_STREQ(L"", copy);
    zoltLogFree(copy);
}
