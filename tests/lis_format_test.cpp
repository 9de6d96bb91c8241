// SPDX-License-Identifier: Apache-2.0
// The text of a common format at once, against the way through a block and against
// the C library.
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "qdlis.h"
#include "zoltlog.h"

namespace {

constexpr size_t ROOM = 256;

struct Formatted {
    int64_t length;
    std::string text;
};

Formatted formatted(QdlisTextVFn textV, size_t size, const char *format, ...) {
    char buffer[ROOM + 1];
    memset(buffer, '#', sizeof buffer);
    va_list args;
    va_start(args, format);
    const int64_t length = qdlisFormat(textV, buffer, size, format, args);
    va_end(args);
    EXPECT_EQ('#', buffer[size]) << "written beyond its bound";
    return {length, length >= 0 ? std::string(buffer) : ""};
}

template<typename... Arguments>
void expectSameInEveryWay(const char *format, Arguments... arguments) {
    char expected[ROOM];
    std::snprintf(expected, sizeof expected, format, arguments...);
    const Formatted direct = formatted(zoltLisTextV, ROOM, format, arguments...);
    EXPECT_EQ(expected, direct.text) << format;
    EXPECT_EQ(static_cast<int64_t>(strlen(expected)), direct.length) << format;
}

std::string throughBlock(const char *format, ...) {
    ZoltLisBlock block = {};
    va_list args;
    va_start(args, format);
    EXPECT_EQ(0, zoltLisTextV(&block, format, args));
    va_end(args);
    size_t size = 0;
    strncatlis(nullptr, &size, &block);
    std::string text(size + ROOM, '\0');
    size = text.size();
    EXPECT_NE(nullptr, strncatlis(text.data(), &size, &block));
    zoltLisFree(&block);
    return text.c_str();
}

int32_t otherTextV(ZoltLisBlock *, const char *, va_list) {
    return -4;
}

} // namespace

TEST(LisFormat, CommonConversionsLookAsThoseOfTheCLibrary) {
    expectSameInEveryWay("plain");
    expectSameInEveryWay("");
    expectSameInEveryWay("%d %d %d", 0, INT_MIN, INT_MAX);
    expectSameInEveryWay("%u|%u", 0U, UINT_MAX);
    expectSameInEveryWay("%ld %ld", LONG_MIN, LONG_MAX);
    expectSameInEveryWay("%lld %llu", LLONG_MIN, ULLONG_MAX);
    expectSameInEveryWay("%lu %zu %zd", ULONG_MAX, SIZE_MAX, static_cast<ssize_t>(-1));
    expectSameInEveryWay("%s%s", "a", "");
    expectSameInEveryWay("100%% of %s", "it");
}

TEST(LisFormat, ANullStringIsShownInBrackets) {
    const char *null = nullptr;
    EXPECT_EQ("<(null)>", formatted(zoltLisTextV, ROOM, "<%s>", null).text);
}

TEST(LisFormat, OtherConversionsAreLeftToTheBlock) {
    for (const char *format :
         {"%5d", "%-d",  "%.3s", "%x", "%c", "%f", "%p", "%hd", "%hhd", "%i",  "%ls",
          "%lc", "%1$d", "%*d",  "%n", "%m", "%",  "%l", "%z",  "%lll", "%l%", "a %d %q"})
        EXPECT_EQ(-1, formatted(zoltLisTextV, ROOM, format, 1, 1, 1).length) << format;
}

TEST(LisFormat, ATextThatDoesNotFitIsLeftToTheBlock) {
    EXPECT_EQ(4, formatted(zoltLisTextV, 5, "%d", 1234).length);
    EXPECT_EQ(-1, formatted(zoltLisTextV, 4, "%d", 1234).length);
    EXPECT_EQ(-1, formatted(zoltLisTextV, 4, "%s", "abcd").length);
    EXPECT_EQ(-1, formatted(zoltLisTextV, 4, "abcd").length);
    EXPECT_EQ(0, formatted(zoltLisTextV, 1, "").length);
    EXPECT_EQ(-1, formatted(zoltLisTextV, 0, "").length);
}

TEST(LisFormat, AnotherLibrarysMeaningOfAFormatCounts) {
    EXPECT_EQ(-1, formatted(otherTextV, ROOM, "plain").length);
    EXPECT_EQ(-1, formatted(nullptr, ROOM, "plain").length);
    EXPECT_EQ(-1, formatted(zoltLisTextV, ROOM, nullptr).length);
}

TEST(LisFormat, ArgumentsAreNotUsedUp) {
    const auto twice = [](const char *format, ...) {
        char buffer[ROOM];
        va_list args;
        va_start(args, format);
        EXPECT_EQ(-1, qdlisFormat(zoltLisTextV, buffer, sizeof buffer, format, args)); // for the %x
        char *text = nullptr;
        listxt_svnprintf(&text, format, args);
        va_end(args);
        const std::string result = text;
        zoltLogFree(text);
        return result;
    };
    EXPECT_EQ("1 2 ff", twice("%d %d %x", 1, 2, 255));
}

TEST(LisFormat, BothWaysGiveTheSameText) {
    std::mt19937 random(20);
    const char *pieces[] = {"%d", "%u", "%ld", "%lu", "%lld", "%llu", "%zu", "%%", " text ", ",", "%s"};
    for (int round = 0; round < 5000; ++round) {
        std::string format;
        const auto count = random() % 4;
        for (unsigned i = 0; i < count; ++i) // at most three arguments of one word each
            format += pieces[random() % 10];
        format += "%s";
        const long a = static_cast<long>((static_cast<uint64_t>(random()) << 32) | random());
        const long b = static_cast<long>(random());
        const long c = -static_cast<long>(random());
        size_t conversions = 0;
        for (size_t i = 0; i + 1 < format.size(); ++i)
            if (format[i] == '%') {
                conversions += format[i + 1] != '%' ? 1 : 0;
                ++i;
            }
        Formatted direct;
        std::string block;
        switch (conversions) {
        case 1:
            direct = formatted(zoltLisTextV, ROOM, format.c_str(), "s");
            block = throughBlock(format.c_str(), "s");
            break;
        case 2:
            direct = formatted(zoltLisTextV, ROOM, format.c_str(), a, "s");
            block = throughBlock(format.c_str(), a, "s");
            break;
        case 3:
            direct = formatted(zoltLisTextV, ROOM, format.c_str(), a, b, "s");
            block = throughBlock(format.c_str(), a, b, "s");
            break;
        default:
            direct = formatted(zoltLisTextV, ROOM, format.c_str(), a, b, c, "s");
            block = throughBlock(format.c_str(), a, b, c, "s");
        }
        ASSERT_EQ(block, direct.text) << format;
    }
}
