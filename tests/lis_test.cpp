// SPDX-License-Identifier: Apache-2.0
// Localization blocks: what a format makes of its arguments, the items of a
// block, and blocks built item by item.

#include <cerrno>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "qdlis.h"
#include "support/lis_items.h"
#include "support/support.h"

using support::describe;
using support::lisMessage;
using support::lisText;

namespace {

// The items of a plain text, as describe tells them.
template<typename... Values>
std::string items(const char *format, Values... values) {
    ZoltLisBlock block = {};
    const int32_t result = lisText(&block, format, values...);
    const std::string line = result == 0 ? describe(&block) : "result " + std::to_string(result);
    EXPECT_EQ(0, zoltLisFree(&block));
    return line;
}

// The items of message 42, which no catalogue has.
template<typename... Values>
std::string raw(const char *format, Values... values) {
    ZoltLisBlock block = {};
    const int32_t result = lisMessage(&block, 0, 42, format, values...);
    const std::string line = result == 0 ? describe(&block) : "result " + std::to_string(result);
    EXPECT_EQ(0, zoltLisFree(&block));
    return line;
}

bool isZero(const ZoltLisBlock &block) {
    return block.word[0] == 0 && block.word[1] == 0 && block.word[2] == 0;
}

} // namespace

TEST(LisText, IsTextPiecesAndTypedValues) {
    EXPECT_EQ("id=0 11:disk  11:/var 11: is  1:93 11:% full", items("disk %s is %d%% full", "/var", 93));
}

TEST(LisText, WithoutConversionsIsOnePiece) {
    EXPECT_EQ("id=0 11:all is well", items("all is well"));
    EXPECT_EQ("id=0 11:100% sure", items("100%% sure"));
}

TEST(LisText, OfAnEmptyFormatHasNoItems) {
    EXPECT_EQ("id=0", items(""));
}

TEST(LisText, SignedConversionsKeepTheirValues) {
    EXPECT_EQ("id=0 1:-5", items("%d", -5));
    EXPECT_EQ("id=0 1:-5", items("%i", -5));
    EXPECT_EQ("id=0 1:-1", items("%hhd", 255));
    EXPECT_EQ("id=0 1:-1", items("%hd", 65535));
    EXPECT_EQ("id=0 1:-9223372036854775808", items("%ld", LONG_MIN));
    EXPECT_EQ("id=0 1:9223372036854775807", items("%lld", LLONG_MAX));
    EXPECT_EQ("id=0 1:9223372036854775807", items("%qd", LLONG_MAX));
    EXPECT_EQ("id=0 1:9223372036854775807", items("%Ld", LLONG_MAX));
    EXPECT_EQ("id=0 1:-7", items("%jd", static_cast<intmax_t>(-7)));
    EXPECT_EQ("id=0 1:-7", items("%zd", static_cast<ssize_t>(-7)));
    EXPECT_EQ("id=0 1:-7", items("%td", static_cast<ptrdiff_t>(-7)));
}

TEST(LisText, UnsignedConversionsKeepTheirValues) {
    EXPECT_EQ("id=0 2:4294967295", items("%u", UINT_MAX));
    EXPECT_EQ("id=0 2:255", items("%hhu", -1));
    EXPECT_EQ("id=0 2:65535", items("%hu", -1));
    EXPECT_EQ("id=0 2:18446744073709551615", items("%lu", ULONG_MAX));
    EXPECT_EQ("id=0 2:18446744073709551615", items("%zu", SIZE_MAX));
}

TEST(LisText, OtherPlainConversionsKeepTheirValues) {
    EXPECT_EQ("id=0 3:2.500000", items("%f", 2.5));
    EXPECT_EQ("id=0 3:2.500000", items("%lf", 2.5));
    EXPECT_EQ("id=0 4:255", items("%p", reinterpret_cast<void *>(255)));
    EXPECT_EQ("id=0 5:wide", items("%ls", L"wide"));
    EXPECT_EQ("id=0 5:wide", items("%S", L"wide"));
    EXPECT_EQ("id=0 0:65", items("%lc", static_cast<wint_t>(L'A')));
    EXPECT_EQ("id=0 0:65", items("%C", static_cast<wint_t>(L'A')));
    EXPECT_EQ("id=0 11:A", items("%c", 'A'));
    EXPECT_EQ("id=0 11:text", items("%s", "text"));
}

TEST(LisText, ConversionsWithAnotherLookAreStoredRendered) {
    EXPECT_EQ("id=0 11:0000002a", items("%08x", 42u));
    EXPECT_EQ("id=0 11:2a", items("%x", 42u));
    EXPECT_EQ("id=0 11:52", items("%o", 42u));
    EXPECT_EQ("id=0 11:3.14", items("%.2f", 3.14159));
    EXPECT_EQ("id=0 11:1.000000e+300", items("%e", 1e300));
    EXPECT_EQ("id=0 11:0x1p+1", items("%a", 2.0));
    EXPECT_EQ("id=0 11:1.500000", items("%Lf", 1.5L));
    EXPECT_EQ("id=0 11:/var       11:|", items("%-10s|", "/var"));
    EXPECT_EQ("id=0 11:+7", items("%+d", 7));
    EXPECT_EQ("id=0 11:   xy", items("%5ls", L"xy"));
    EXPECT_EQ("id=0 11:    7", items("%*d", 5, 7));
    EXPECT_EQ("id=0 11:7    ", items("%*d", -5, 7));
    EXPECT_EQ("id=0 11:ab", items("%.*s", 2, "abcdef"));
    EXPECT_EQ("id=0 11:abcdef", items("%.*s", -2, "abcdef"));
}

TEST(LisText, ReadsNoFurtherThanAPrecision) {
    const char bytes[3] = {'a', 'b', 'c'}; // not terminated
    EXPECT_EQ("id=0 11:abc", items("%.3s", bytes));
}

TEST(LisText, ANullStringIsShownAsNull) {
    EXPECT_EQ("id=0 11:(null)", items("%s", static_cast<char *>(nullptr)));
    EXPECT_EQ("id=0 11:(null)", items("%ls", static_cast<wchar_t *>(nullptr)));
}

TEST(LisText, TellsTheErrorOfTheCaller) {
    errno = ENOENT;
    EXPECT_EQ("id=0 11:open:  11:No such file or directory", items("open: %m"));
    errno = EACCES;
    EXPECT_EQ("id=0 11:Perm", items("%.4m"));
    EXPECT_EQ(EACCES, errno);
}

TEST(LisText, EndsAtANulCharacterAsPrintfsTextDoes) {
    EXPECT_EQ("id=0 11:a 11:", items("a%cb%d", 0, 7));
    EXPECT_EQ("id=0 11:a 0:0", items("a%lcb%d", static_cast<wint_t>(0), 7));
    EXPECT_EQ("id=0 11:  ", items("%3cb", 0));
    EXPECT_EQ("result -2", items("a%cb%y", 0)); // the rest is still checked
}

TEST(LisText, PositionsChangeTheOrder) {
    EXPECT_EQ("id=0 1:93 11: of  11:/var", items("%2$d of %1$s", "/var", 93));
    EXPECT_EQ("id=0 1:5 11:  1:5", items("%1$d %1$d", 5));
    EXPECT_EQ("id=0 11:    7", items("%2$*1$d", 5, 7));
    EXPECT_EQ("id=0 11:ab 11:% 1:3", items("%3$.*1$s%%%2$d", 2, 3, "abc"));
    EXPECT_EQ("id=0 1:-1 11:  11:ffffffff", items("%1$d %1$x", -1));
}

TEST(LisText, PositionsAreForAllConversionsOrNone) {
    EXPECT_EQ("result -2", items("%1$s %s", "a", "b"));
    EXPECT_EQ("result -2", items("%s %1$s", "a", "b"));
    EXPECT_EQ("result -2", items("%2$*d", 1, 2));
    EXPECT_EQ("result -2", items("%*1$d", 1, 2));
}

TEST(LisText, PositionsHaveNoGapsAndOneType) {
    EXPECT_EQ("result -2", items("%2$s", "a", "b"));
    EXPECT_EQ("result -2", items("%1$s %1$d", "a"));
    EXPECT_EQ("result -2", items("%0$d", 1));
    EXPECT_EQ("result -2", items("%5000$d", 1));
    EXPECT_EQ("result -2", items("%99999999999$d", 1));
}

TEST(LisText, MoreArgumentsThanTheStackHoldsAreTakenInOrder) {
    std::string format;
    for (int i = 40; i >= 1; --i)
        format += "%" + std::to_string(i) + "$d ";
    EXPECT_EQ(0u, items(format.c_str(), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                        21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40)
                      .find("id=0 1:40 11:  1:39 11:  1:38"));
}

TEST(LisText, InvalidFormatsAreRefused) {
    for (const char *format : {"%n", "%hhn", "%1$n", "%", "%y", "100% ", "%l", "%5", "%.", "%hhs", "%hf",
                               "%lp", "%99999999999d", "%.99999999999d", "%-", "%1$", "%jc"}) {
        int written = 0;
        EXPECT_EQ("result -2", items(format, &written)) << format;
        EXPECT_EQ(0, written) << format;
    }
}

TEST(LisText, AnInvalidFormatLeavesAnEmptyBlock) {
    ZoltLisBlock block = {};
    EXPECT_EQ(-2, lisText(&block, "text %n"));
    EXPECT_TRUE(isZero(block));
}

TEST(LisText, NullPointersAreRefused) {
    ZoltLisBlock block = {};
    EXPECT_EQ(-2, lisText(nullptr, "x"));
    EXPECT_EQ(-2, lisText(&block, nullptr));
    EXPECT_EQ(-2, lisMessage(nullptr, 0, 1, "x"));
    EXPECT_EQ(-2, lisMessage(&block, 0, 1, nullptr));
}

TEST(LisText, LongTextsAreKeptWhole) {
    const std::string text(100000, 'x');
    EXPECT_EQ("id=0 11:" + text + " 11:, 11:" + text, items("%s,%s", text.c_str(), text.c_str()));
    EXPECT_EQ("id=0 11:" + std::string(99999, ' ') + "7", items("%100000d", 7));
}

TEST(LisText, NeverGrowsAPieceOverItsNeighbour) {
    for (size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'a');
        const std::string format = text + "%%" + text + "%%%d";
        const std::string shown = text + "%" + text + "%";
        EXPECT_EQ("id=0 11:" + shown + " 1:1", items(format.c_str(), 1));
    }
}

TEST(LisMessage, WithoutACatalogueIsItsNumberAndRawArguments) {
    EXPECT_EQ("id=42 11:/var 1:93", raw("disk %s is %d%% full", "/var", 93));
    EXPECT_EQ("id=42", raw("nothing to show %%"));
    EXPECT_EQ("id=42", raw(""));
}

TEST(LisMessage, RawArgumentsComeInTheOrderOfTheArgumentList) {
    EXPECT_EQ("id=42 11:/var 1:93", raw("%2$d%% of %1$s, %1$s", "/var", 93));
}

TEST(LisMessage, RawArgumentsKeepTheirPlaces) {
    EXPECT_EQ("id=42 11: 1:7", raw("%c and %d", 0, 7));
    EXPECT_EQ("id=42 11: 1:7", raw("%5ls and %d", L"\xd800", 7));
    EXPECT_EQ("id=42 11:   7 11:ff", raw("%*d, %x", 4, 7, 255u));
    EXPECT_EQ("id=42 11:   7", raw("%2$*1$d", 4, 7));
    errno = ENOENT;
    EXPECT_EQ("id=42 1:7", raw("%m: %d", 7)); // no argument
}

TEST(LisMessage, NumberZeroIsAPlainText) {
    ZoltLisBlock block = {};
    EXPECT_EQ(0, lisMessage(&block, 0, 0, "disk %s", "/var"));
    EXPECT_EQ("id=0 11:disk  11:/var", describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisMessage, TheUtf8FlagMarksItsTexts) {
    ZoltLisBlock block = {};
    EXPECT_EQ(0, lisMessage(&block, 1, 0, "disk %s %04d", "/var", 9));
    EXPECT_EQ("id=0 10:disk  10:/var 10:  10:0009", describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisMessage, AnInvalidFormatIsRefused) {
    EXPECT_EQ("result -2", raw("%n", 7));
    EXPECT_EQ("result -2", raw("50%", 7));
}

TEST(LisBlock, FreeingAnEmptyOneIsASuccess) {
    ZoltLisBlock block = {};
    EXPECT_EQ(0, zoltLisFree(&block));
    EXPECT_TRUE(isZero(block));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisFree(nullptr));
}

TEST(LisBlock, FreeingTwiceIsHarmless) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%s", "x"));
    EXPECT_EQ(0, zoltLisFree(&block));
    EXPECT_TRUE(isZero(block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisBlock, AnEmptyOneHasIdentityZeroAndNoItems) {
    ZoltLisBlock block = {};
    EXPECT_EQ("id=0", describe(&block));
    ZoltLisIterator item;
    EXPECT_NE(0, zoltLisGetArgsBegin(&block, &item));
    uint32_t type;
    EXPECT_NE(0, zoltLisGetArgTypeId(&item, &type));
    EXPECT_NE(0, zoltLisGetNextArg(&item));
}

TEST(LisBlock, ATextWithoutItemsIsNotAnEmptyBlock) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, ""));
    EXPECT_FALSE(isZero(block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisBlock, MovesByCopyingItsWords) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "disk %s", "/var"));
    ZoltLisBlock moved = block;
    block = {};
    EXPECT_EQ("id=0 11:disk  11:/var", describe(&moved));
    EXPECT_EQ(0, zoltLisFree(&moved));
}

TEST(LisIterator, EndsAfterTheLastItem) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%d%s", 7, "x"));
    ZoltLisIterator item;
    ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
    EXPECT_EQ(0, zoltLisGetNextArg(&item));
    EXPECT_NE(0, zoltLisGetNextArg(&item));
    EXPECT_NE(0, zoltLisGetNextArg(&item));
    uint32_t type;
    EXPECT_NE(0, zoltLisGetArgTypeId(&item, &type));
    int64_t number;
    EXPECT_NE(0, zoltLisGetArg_longlong(&item, &number));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisIterator, GettersRefuseOtherTypes) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%d%s", 7, "x"));
    ZoltLisIterator item;
    ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
    wchar_t character;
    uint64_t natural;
    double real;
    void *pointer;
    const wchar_t *wide;
    const ZoltLisOsError *error;
    ZoltLisDateTime time;
    ZoltLisBlock *nested;
    const char *text;
    int64_t integer;
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_wchar(&item, &character));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_ulonglong(&item, &natural));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_double(&item, &real));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_pointer(&item, &pointer));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_wstring(&item, &wide));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_os_error(&item, &error));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_datetime(&item, &time));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_lis(&item, &nested));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_utf8string(&item, &text));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_nativeString(&item, &text));
    EXPECT_EQ(0, zoltLisGetArg_longlong(&item, &integer));
    EXPECT_EQ(7, integer);
    ASSERT_EQ(0, zoltLisGetNextArg(&item));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_longlong(&item, &integer));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_utf8string(&item, &text));
    EXPECT_EQ(0, zoltLisGetArg_nativeString(&item, &text));
    EXPECT_STREQ("x", text);
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(LisIterator, NullPointersAreRefused) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "%d", 7));
    ZoltLisIterator item;
    uint32_t type;
    int64_t number;
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetTextId(nullptr, &number));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetTextId(&block, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArgsBegin(nullptr, &item));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArgsBegin(&block, nullptr));
    ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArgTypeId(nullptr, &type));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArgTypeId(&item, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_longlong(nullptr, &number));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, zoltLisGetArg_longlong(&item, nullptr));
    EXPECT_NE(0, zoltLisGetNextArg(nullptr));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(BuiltBlock, HoldsEveryTypeOfItem) {
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, lisText(&inner, "inner %d", 1));
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 42));
    EXPECT_EQ(0, qdlisAddWideChar(&block, L'A'));
    EXPECT_EQ(0, qdlisAddSigned(&block, -1));
    EXPECT_EQ(0, qdlisAddUnsigned(&block, UINT64_MAX));
    EXPECT_EQ(0, qdlisAddDouble(&block, 0.5));
    EXPECT_EQ(0, qdlisAddPointer(&block, reinterpret_cast<void *>(255)));
    EXPECT_EQ(0, qdlisAddWideString(&block, L"w\u00e4"));
    EXPECT_EQ(0, qdlisAddOsError(&block, QDLIS_ERRNO, 2));
    EXPECT_EQ(0, qdlisAddOsError(&block, QDLIS_OTHER_ERROR, 1LL << 40));
    EXPECT_EQ(0, qdlisAddDateTime(&block, 1700000000, 5));
    EXPECT_EQ(0, qdlisAddBlock(&block, &inner));
    EXPECT_EQ(0, qdlisAddUtf8String(&block, "u"));
    EXPECT_EQ(0, qdlisAddNativeString(&block, "n"));
    EXPECT_TRUE(isZero(inner));
    EXPECT_EQ("id=42 0:65 1:-1 2:18446744073709551615 3:0.500000 4:255 5:w<228> 6:0/2 7:1/1099511627776 "
              "8:1700000000.5 9:(id=0 11:inner  1:1) 10:u 11:n",
              describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block)); // and the nested block: leaks are found by the sanitizer
}

TEST(BuiltBlock, GrowsWithItsItems) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 1, 0));
    std::string expected = "id=0";
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(0, qdlisAddSigned(&block, i));
        expected += " 1:" + std::to_string(i);
    }
    EXPECT_EQ(expected, describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

// The block moves when it grows, with the text that is to be added in it.
TEST(BuiltBlock, TakesATextOfItsOwnAgain) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 0));
    const std::string narrow(100, 'n');
    const std::wstring wide(50, L'w');
    ASSERT_EQ(0, qdlisAddUtf8String(&block, narrow.c_str()));
    ASSERT_EQ(0, qdlisAddWideString(&block, wide.c_str()));
    std::string expected = "id=0 10:" + narrow + " 5:" + std::string(50, 'w');
    const std::string more = expected.substr(4);
    for (int round = 0; round < 8; ++round) {
        ZoltLisIterator item;
        const char *first = nullptr;
        const wchar_t *second = nullptr;
        ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
        ASSERT_EQ(0, zoltLisGetArg_utf8string(&item, &first));
        ASSERT_EQ(0, qdlisAddUtf8String(&block, first));
        ASSERT_EQ(0, zoltLisGetArgsBegin(&block, &item));
        ASSERT_EQ(0, zoltLisGetNextArg(&item));
        ASSERT_EQ(0, zoltLisGetArg_wstring(&item, &second));
        ASSERT_EQ(0, qdlisAddWideString(&block, second));
        expected += more;
    }
    EXPECT_EQ(expected, describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(BuiltBlock, RefusesNullAndEmptyArguments) {
    ZoltLisBlock empty = {};
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisBegin(nullptr, 0, 1));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddSigned(nullptr, 1));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddSigned(&empty, 1)); // not begun
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 7));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddWideString(&block, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddUtf8String(&block, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddNativeString(&block, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddOsError(&block, 2, 0));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddBlock(&block, nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddBlock(&block, &block));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddBlock(&block, &empty));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisLookUp(nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisLookUp(&empty));
    EXPECT_EQ("id=7", describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(BuiltBlock, OneInsideOfAnotherTakesNoBlockAndIsNotMoved) {
    ZoltLisBlock outer = {};
    ZoltLisBlock inner = {};
    ZoltLisBlock other = {};
    ASSERT_EQ(0, qdlisBegin(&outer, 0, 0));
    ASSERT_EQ(0, qdlisBegin(&inner, 0, 0));
    ASSERT_EQ(0, qdlisBegin(&other, 0, 0));
    ASSERT_EQ(0, qdlisAddBlock(&outer, &inner));
    ZoltLisIterator item = {};
    ZoltLisBlock *inside = nullptr;
    ASSERT_EQ(0, zoltLisGetArgsBegin(&outer, &item));
    ASSERT_EQ(0, zoltLisGetArg_lis(&item, &inside));
    EXPECT_EQ(-2, qdlisAddBlock(inside, &other));
    EXPECT_EQ(-2, qdlisAddBlock(inside, &outer)); // a circle
    EXPECT_EQ(-2, qdlisAddBlock(&outer, inside)); // its place may move meanwhile
    EXPECT_EQ(-2, qdlisAddBlock(&other, inside));
    EXPECT_FALSE(isZero(outer));
    EXPECT_FALSE(isZero(other));
    EXPECT_FALSE(isZero(*inside));
    EXPECT_EQ(0, qdlisAddSigned(inside, 7)); // values may still be added
    EXPECT_EQ(0, zoltLisFree(&outer));
    EXPECT_EQ(0, zoltLisFree(&other));
}

TEST(BuiltBlock, NestsToTheLimitAndNoDeeper) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, lisText(&block, "x"));
    for (int depth = 0; depth < ZOLTLIS_MAX_NESTING; ++depth) {
        ZoltLisBlock outer = {};
        ASSERT_EQ(0, qdlisBegin(&outer, 0, 0));
        ASSERT_EQ(0, qdlisAddBlock(&outer, &block)) << depth;
        block = outer;
    }
    ZoltLisBlock outer = {};
    ASSERT_EQ(0, qdlisBegin(&outer, 0, 0));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddBlock(&outer, &block));
    EXPECT_FALSE(isZero(block));
    EXPECT_EQ(0, zoltLisFree(&outer));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(PatternArguments, AreOneLetterForEachPosition) {
    char letters[16];
    const struct {
        const char *pattern;
        const char *letters;
    } cases[] = {{"Disk %1$s is %2$d%% full", "sd"},
                 {"%s %d %f %c %p %ls", "sdfcps"},
                 {"%3$s", "--s"},
                 {"%2$*1$x", "dd"},
                 {"", ""},
                 {"100%%", ""}};
    for (const auto &one : cases) {
        EXPECT_EQ(0, qdlisPatternArguments(one.pattern, letters, sizeof letters)) << one.pattern;
        EXPECT_STREQ(one.letters, letters) << one.pattern;
    }
}

TEST(PatternArguments, AreCutToTheBuffer) {
    char letters[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(0, qdlisPatternArguments("%d%d%d", letters, 3));
    EXPECT_STREQ("dd", letters);
    EXPECT_EQ('x', letters[3]);
}

TEST(PatternArguments, OfInvalidPatternsAreRefused) {
    char letters[16];
    for (const char *pattern : {"%n", "%1$n", "%m", "%", "%q", "%1$s %s", "%1$s %1$d", "%9999$d", "%y"})
        EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisPatternArguments(pattern, letters, sizeof letters))
            << pattern;
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisPatternArguments(nullptr, letters, sizeof letters));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisPatternArguments("x", nullptr, 4));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisPatternArguments("x", letters, 0));
}
