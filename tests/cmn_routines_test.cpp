// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "src/cmn_routines.h"
#include "zoltlog.h"

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <dlfcn.h>
#include <filesystem>
#include <random>
#include <string>
#include <unicode/ucnv.h>
#include <vector>

#include "support/failing_allocations.h"
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"

namespace {
time_t fixedTime = 0;                   // what time() says, if not 0
const char *defaultConverter = nullptr; // what ICU opens without a name, if not its own choice
int namelessConverters = 0;
int conversions; // calls of mbstowcs

const bool PREPARED = support::eachCase([] {
    fixedTime = 0;
    defaultConverter = nullptr;
    libc::time.hook = [](time_t *out) {
        if (fixedTime == 0)
            return libc::time.real(out);
        if (out != nullptr)
            *out = fixedTime;
        return fixedTime;
    };
});

} // namespace

SUPPORT_CALL(size_t, mbstowcs, (wchar_t * wide, const char *text, size_t size), (wide, text, size), noexcept)

// ICU's own choice depends on how it was built: always UTF-8, or the locale's code page.
#define TEXT_OF(name) TEXT_OF_EXPANDED(name)
#define TEXT_OF_EXPANDED(name) #name
U_CAPI UConverter *U_EXPORT2 ucnv_open(const char *name, UErrorCode *status) {
    namelessConverters += name == nullptr ? 1 : 0;
    auto *real =
        reinterpret_cast<UConverter *(*)(const char *, UErrorCode *)>(dlsym(RTLD_NEXT, TEXT_OF(ucnv_open)));
    return real(name == nullptr ? defaultConverter : name, status);
}

namespace {

const char CENTRAL_EUROPE[] = "CET-1CEST,M3.5.0,M10.5.0/3";
const char EASTERN_US[] = "EST5EDT,M3.2.0,M11.1.0";

void useZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

// A conversion's result and text in one: "4" for a failure, "0:text" for success.
template<typename Out>
std::basic_string<Out> outcome(uint32_t result, Out *text) {
    std::basic_string<Out> told(1, static_cast<Out>('0' + result));
    EXPECT_EQ(result == 0, text != nullptr);
    if (text != nullptr)
        told += Out{':'} + std::basic_string<Out>(text);
    zoltLogFree(text);
    return told;
}
std::string fromMultibyte(const char *text) {
    char *out = nullptr;
    const uint32_t result = mbs2utf8(&out, text);
    return outcome(result, out);
}
std::string toMultibyte(const char *text) {
    char *out = nullptr;
    const uint32_t result = utf82mbs(&out, text);
    return outcome(result, out);
}
std::string fromWide(const wchar_t *text) {
    char *out = nullptr;
    const uint32_t result = wcs2utf8(&out, text);
    return outcome(result, out);
}
std::wstring toWide(const char *text, int32_t length = -1) {
    wchar_t *out = nullptr;
    const uint32_t result = utf82wcs(&out, text, length);
    return outcome(result, out);
}

// mbs2utf8 without its shortcuts: the C library, then ICU.
std::string fromMultibyteTheLongWay(const char *text) {
    std::vector<wchar_t> wide(std::strlen(text) + 1);
    if (std::mbstowcs(wide.data(), text, wide.size()) == static_cast<size_t>(-1))
        return "1";
    return fromWide(wide.data());
}

// The bytes of a code point, also of one that has no right to exist.
std::string encoded(uint32_t c) {
    std::string bytes;
    const auto tail = [&](int shift) { bytes += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        bytes += static_cast<char>(c);
    } else if (c < 0x800) {
        bytes += static_cast<char>(0xC0 | (c >> 6));
        tail(0);
    } else if (c < 0x10000) {
        bytes += static_cast<char>(0xE0 | (c >> 12));
        tail(6);
        tail(0);
    } else {
        bytes += static_cast<char>(0xF0 | (c >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
    return bytes;
}

} // namespace

// ---- identifiers, memory -----------------------------------------------------------------

TEST(Identifiers, ZeroIsTheOnlyInvalidId) {
    EXPECT_EQ(0, isProdIdValid(0));
    EXPECT_EQ(1, isProdIdValid(1));
    EXPECT_EQ(1, isProdIdValid(UINT64_MAX));
    EXPECT_EQ(1, isProdIdValid(UINT64_C(1) << 32));
    EXPECT_EQ(0, isOrigIdValid(0));
    EXPECT_EQ(1, isOrigIdValid(1));
    EXPECT_EQ(1, isOrigIdValid(UINT64_MAX));
    EXPECT_EQ(1, isOrigIdValid(UINT64_C(1) << 32));
}

TEST(Identifiers, EmptyLogSetNameIsValid) {
    EXPECT_EQ(1, isLogSetValid(""));
    EXPECT_EQ(1, isLogSetValid("backup"));
    EXPECT_EQ(0, isLogSetValid(nullptr));
}

TEST(Identifiers, CfgIsValidWithBothIds) {
    static LogCfg cfg;
    EXPECT_EQ(0, isCfgValid(&cfg));
    cfg.productId = 5;
    EXPECT_EQ(0, isCfgValid(&cfg));
    cfg.originatorId = 7;
    EXPECT_EQ(1, isCfgValid(&cfg));
    cfg.productId = 0;
    EXPECT_EQ(0, isCfgValid(&cfg));
    EXPECT_EQ(0, isCfgValid(nullptr));
}

TEST(Identifiers, LogIsOpenWithAFileState) {
    LogHandle handle = {};
    LogFileState *state = reinterpret_cast<LogFileState *>(&handle);
    EXPECT_EQ(0, isLogOpen(&handle));
    handle.file = state;
    EXPECT_EQ(1, isLogOpen(&handle));
    EXPECT_EQ(0, isLogOpen(nullptr));
}

TEST(Memory, NoBlockForSizeZero) {
    EXPECT_EQ(nullptr, zoltLogMalloc(0));
    void *block = zoltLogMalloc(1);
    EXPECT_NE(nullptr, block);
    zoltLogFree(block);
    zoltLogFree(nullptr);
}

TEST(Memory, StrdupCopiesExactly) {
    char text[] = "text";
    char *copy = zoltLogSafeStrdup(text);
    text[0] = 'x';
    EXPECT_STREQ("text", copy);
    zoltLogFree(copy);
    copy = zoltLogSafeStrdup("");
    EXPECT_STREQ("", copy);
    zoltLogFree(copy);
    EXPECT_EQ(nullptr, zoltLogSafeStrdup(nullptr));
}

TEST(Memory, ErrorMessageIsFreed) {
    EXPECT_RESULT(ZOLTLOG_OK,
                  zoltLogResFreeErrorMessage(zoltLogSafeStrdup("message"))); // leak checker's business
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogResFreeErrorMessage(nullptr));
}

TEST(Memory, LocalizerListIsEmptied) {
    LocalizerList list = {5, &list};
    EXPECT_RESULT(ZOLTLOG_OK, InitializeLocalizerList(&list));
    EXPECT_EQ(0u, list.count);
    EXPECT_EQ(nullptr, list.first);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, InitializeLocalizerList(nullptr));
}

// ---- time --------------------------------------------------------------------------------

TEST(ConvertTime, StampIsLocalTime) {
    useZone("UTC0");
    EXPECT_EQ(1709300702, convert_time("240301134502"));
    EXPECT_EQ(4102444799, convert_time("991231235959"));
    EXPECT_EQ(946684800, convert_time("000101000000"));
    useZone("XYZ-2");
    EXPECT_EQ(1709300702 - 7200, convert_time("240301134502"));
    EXPECT_EQ(4102444799 - 7200, convert_time("991231235959"));
}

TEST(ConvertTime, SummerStampIsTakenAsStandardTime) {
    useZone(CENTRAL_EUROPE);
    EXPECT_EQ(1705316400, convert_time("240115120000")); // 2024-01-15 11:00 UTC
    EXPECT_EQ(1719831600, convert_time("240701120000")); // 2024-07-01 11:00 UTC, not 10:00
}

TEST(ConvertTime, WhatFollowsTheTwelveDigitsIsIgnored) {
    useZone("UTC0");
    EXPECT_EQ(1709300702, convert_time("240301134502999"));
    EXPECT_EQ(1709300702, convert_time("240301134502.log"));
}

TEST(ConvertTime, FieldsOutOfRangeCarry) {
    useZone("UTC0");
    EXPECT_EQ(1709300702, convert_time("240230134502") - 0 * 60); // 30 February is 1 March
    EXPECT_EQ(1709300702 + 60, convert_time("240301134562"));
    EXPECT_EQ(1704067200, convert_time("231301000000")); // month 13
}

TEST(ConvertTime, EmptyShortOrNullTextIsMinusOne) {
    useZone("UTC0");
    const std::string whole = "240301134502";
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(-1, convert_time(whole.substr(0, length).c_str())) << length;
    EXPECT_EQ(-1, convert_time(nullptr));
    EXPECT_EQ(-1, convert_time("24xx01134502"));
    EXPECT_EQ(-1, convert_time("            "));
}

TEST(ClockTime, ThreeNumbersAreTaken) {
    const struct {
        const char *text;
        int32_t first, second, third;
    } rows[] = {{"12:34:56", 12, 34, 56}, {"7", 7, 0, 0},         {"", 0, 0, 0},
                {"25:61:99", 25, 61, 99}, {"1:2", 1, 2, 0},       {"1:2:3:4:5", 1, 2, 3},
                {":::1", 1, 0, 0},        {"::", 0, 0, 0},        {"-5:x:9z", -5, 0, 9},
                {" 8: 9", 8, 9, 0},       {"08:09:010", 8, 9, 10}};
    for (const auto &row : rows) {
        int32_t first = -1;
        int32_t second = -1;
        int32_t third = -1;
        EXPECT_EQ(1, zoltLogGetTime(row.text, &first, &second, &third)) << row.text;
        EXPECT_EQ(row.first, first) << row.text;
        EXPECT_EQ(row.second, second) << row.text;
        EXPECT_EQ(row.third, third) << row.text;
    }
}

TEST(ClockTime, AnyOfTheDelimitersSeparates) {
    int32_t first = -1;
    int32_t second = -1;
    int32_t third = -1;
    EXPECT_EQ(1, zoltLogStrTimeToT("31/12-2024", "-/", &first, &second, &third));
    EXPECT_EQ(31, first);
    EXPECT_EQ(12, second);
    EXPECT_EQ(2024, third);
    EXPECT_EQ(1, zoltLogStrTimeToT("31:12", "", &first, &second, &third));
    EXPECT_EQ(31, first);
    EXPECT_EQ(0, second);
}

TEST(ClockTime, NullArgumentsAreRefused) {
    int32_t a = -1;
    int32_t b = -1;
    int32_t c = -1;
    EXPECT_EQ(0, zoltLogStrTimeToT(nullptr, ":", &a, &b, &c));
    EXPECT_EQ(0, zoltLogStrTimeToT("1", nullptr, &a, &b, &c));
    EXPECT_EQ(0, zoltLogStrTimeToT("1", ":", nullptr, &b, &c));
    EXPECT_EQ(0, zoltLogStrTimeToT("1", ":", &a, nullptr, &c));
    EXPECT_EQ(0, zoltLogStrTimeToT("1", ":", &a, &b, nullptr));
    EXPECT_EQ(0, zoltLogGetTime(nullptr, &a, &b, &c));
    EXPECT_EQ(-1, a);
}

TEST(ClockTime, WithoutMemoryTheOutputsAreZeroAndTheResultToo) {
    if (!support::allocationsCanFail())
        GTEST_SKIP() << "allocations cannot fail here";
    int32_t a = -1;
    int32_t b = -1;
    int32_t c = -1;
    const support::FailingAllocation failing(0);
    EXPECT_EQ(0, zoltLogGetTime("1:2:3", &a, &b, &c));
    EXPECT_EQ(0, a);
    EXPECT_EQ(0, b);
    EXPECT_EQ(0, c);
}

TEST(LocalOffset, IsWhatMakesLocalTimeGreenwichTime) {
    constexpr time_t WINTER = 1705316400; // 2024-01-15
    constexpr time_t SUMMER = 1719831600; // 2024-07-01
    const struct {
        const char *zone;
        time_t now;
        int64_t offset;
    } rows[] = {
        {"UTC0", WINTER, 0},         {"XYZ-2", WINTER, -7200}, // two hours east
        {"XYZ-2", SUMMER, -7200},    {CENTRAL_EUROPE, WINTER, -3600}, {CENTRAL_EUROPE, SUMMER, -7200},
        {EASTERN_US, WINTER, 18000}, {EASTERN_US, SUMMER, 14400},     {"IST-5:30", WINTER, -19800},
        {"NST3:30", WINTER, 12600},  {"LINT-14", WINTER, -50400},     {"AoE12", WINTER, 43200},
    };
    for (const auto &row : rows) {
        useZone(row.zone);
        fixedTime = row.now;
        EXPECT_EQ(row.offset, getLocalTZOffsetFromGMT()) << row.zone;
    }
}

TEST(TimeZoneToOffset, HoursAndMinutesEastAreSeconds) {
    const struct {
        const char *text;
        int64_t offset;
    } rows[] = {
        {"GMT", 0},           {"GMT+5:30", 19800},
        {"GMT-5:30", -19800}, {"GMT+5", 18000},
        {"GMT-5", -18000},    {"GMT5", 18000},
        {"GMT+14", 50400},    {"GMT+1:00", 3600},
        {"GMT+12:45", 45900}, {"GMT 3", 10800},
        {"GMTx", 0},          {"GMT:30", 0},
        {"GMT+5:", 18000},    {"GMT+5x30", 18000},
        {"GMT+1:90", 9000},   {"GMT+600000", -2134967296}, // 32 bits
    };
    for (const auto &row : rows) {
        int64_t offset = 77;
        EXPECT_RESULT(ZOLTLOG_OK, TimeZoneToOffset(row.text, &offset)) << row.text;
        EXPECT_EQ(row.offset, offset) << row.text;
    }
}

TEST(TimeZoneToOffset, ZeroHoursCountAsNegative) {
    int64_t offset = 77;
    EXPECT_RESULT(ZOLTLOG_OK, TimeZoneToOffset("GMT+0:30", &offset));
    EXPECT_EQ(-1800, offset);
    EXPECT_RESULT(ZOLTLOG_OK, TimeZoneToOffset("GMT-0:30", &offset));
    EXPECT_EQ(-1800, offset);
}

TEST(TimeZoneToOffset, OtherTextsAndNullAreRefused) {
    int64_t offset = 77;
    for (const char *text : {"UTC+1", "XGMT", "", "gmt", "GM", " GMT", "G"})
        EXPECT_RESULT(ZOLTLOG_FAILED, TimeZoneToOffset(text, &offset)) << text;
    EXPECT_RESULT(ZOLTLOG_FAILED, TimeZoneToOffset(nullptr, &offset));
    EXPECT_RESULT(ZOLTLOG_FAILED, TimeZoneToOffset("GMT", nullptr));
    EXPECT_EQ(77, offset);
}

// ---- conversions -------------------------------------------------------------------------

TEST(Conversions, NullArgumentsAreInvalid) {
    char *text = nullptr;
    wchar_t *wide = nullptr;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, utf82wcs(nullptr, "x", -1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, utf82wcs(&wide, nullptr, -1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, utf82mbs(nullptr, "x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, utf82mbs(&text, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, wcs2utf8(nullptr, L"x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, wcs2utf8(&text, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, mbs2utf8(nullptr, "x"));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, mbs2utf8(&text, nullptr));
}

TEST(Conversions, EmptyTextIsEmptyTextInEveryLocale) {
    for (const char *name : {"C", "C.UTF-8", "de_DE.ISO-8859-1", "ja_JP.EUC-JP"}) {
        ASSERT_EQ(0, support::inChild([&] { // each with an ICU that knows no other locale yet
                      if (!support::useLocale(name))
                          return 1;
                      return toWide("") == L"0:" && toWide("abc", 0) == L"0:" && fromWide(L"") == "0:" &&
                                     toMultibyte("") == "0:" && fromMultibyte("") == "0:"
                                 ? 0
                                 : 2;
                  }))
            << name;
    }
}

TEST(Utf8ToWide, ConvertsEveryKindOfCharacter) {
    EXPECT_EQ(L"0:abc", toWide("abc"));
    EXPECT_EQ(L"0:\u00E4\u20AC\U0001F600", toWide("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_EQ(L"0:\U0010FFFF\uFFFF\uFFFE", toWide("\xF4\x8F\xBF\xBF\xEF\xBF\xBF\xEF\xBF\xBE"));
}

TEST(Utf8ToWide, LengthCountsBytes) {
    EXPECT_EQ(L"0:ab", toWide("abc", 2));
    EXPECT_EQ(L"0:\u00E4", toWide("\xC3\xA4xyz", 2));
    EXPECT_EQ(L"1", toWide("\xC3\xA4xyz", 1)); // half a character
    EXPECT_EQ(L"0:ab", toWide("ab\0cd", 5));   // the wide text ends at the first zero
    EXPECT_EQ(L"1", toWide("abc", -2));
}

TEST(Utf8ToWide, IllFormedTextFails) {
    for (const char *text : {"\xE4", "a\x80", "\xC0\x80", "\xC1\xBF", "\xE0\x80\xAF", "\xED\xA0\x80",
                             "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF", "\xC3"})
        EXPECT_EQ(L"1", toWide(text));
}

TEST(Utf8ToWide, LongTextIsConvertedWhole) {
    std::string text;
    std::wstring wide = L"0:";
    for (int i = 0; i < 100000; ++i) {
        text += "a\xE2\x82\xAC";
        wide += L"a\u20AC";
    }
    EXPECT_EQ(wide, toWide(text.c_str()));
    EXPECT_EQ("0:" + text, fromWide(wide.c_str() + 2));
}

TEST(WideToUtf8, ConvertsEveryKindOfCharacter) {
    EXPECT_EQ("0:abc", fromWide(L"abc"));
    EXPECT_EQ("0:\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", fromWide(L"\u00E4\u20AC\U0001F600"));
    EXPECT_EQ("0:\xF4\x8F\xBF\xBF\xEF\xBF\xBF\xEF\xBF\xBE", fromWide(L"\U0010FFFF\uFFFF\uFFFE"));
}

TEST(WideToUtf8, SurrogatesAndNumbersBeyondUnicodeFail) {
    for (int64_t c : {0xD800L, 0xDBFFL, 0xDC00L, 0xDFFFL, 0x110000L, 0x7FFFFFFFL, -1L}) {
        const wchar_t text[] = {L'a', static_cast<wchar_t>(c), 0};
        EXPECT_EQ("1", fromWide(text)) << c;
    }
    const wchar_t pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ("1", fromWide(pair));
}

TEST(Conversions, WideTextDoesNotDependOnTheLocale) {
    for (const char *name : {"C", "C.UTF-8", "de_DE.ISO-8859-1", "ja_JP.EUC-JP"}) {
        ASSERT_TRUE(support::useLocale(name));
        EXPECT_EQ(L"0:a\u00E4\u20AC\U0001F600", toWide("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80")) << name;
        EXPECT_EQ("0:a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", fromWide(L"a\u00E4\u20AC\U0001F600")) << name;
        EXPECT_EQ(L"1", toWide("\xE4")) << name;
    }
}

TEST(MultibyteToUtf8, InTheCLocaleOnlyAsciiConverts) {
    ASSERT_TRUE(support::useLocale("C"));
    EXPECT_EQ("0:abc ~\x7F\x01", fromMultibyte("abc ~\x7F\x01"));
    EXPECT_EQ("1", fromMultibyte("\xC3\xA4"));
}

TEST(MultibyteToUtf8, InAUtf8LocaleTextStaysAsItIs) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    EXPECT_EQ("0:" + text, fromMultibyte(text.c_str()));
    EXPECT_EQ("1", fromMultibyte("a\xE4z"));
    EXPECT_EQ("1", fromMultibyte("\xED\xA0\x80"));
}

TEST(MultibyteToUtf8, InASingleByteLocaleBytesAreCharacters) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ("0:Gr\xC3\xBC\xC3\x9F", fromMultibyte("Gr\xFC\xDF"));
    EXPECT_EQ("0:\xC3\x83\xC2\xA4", fromMultibyte("\xC3\xA4")); // looks like UTF-8 and is not
}

TEST(MultibyteToUtf8, InAMultibyteLocaleCharactersHaveSeveralBytes) {
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    EXPECT_EQ("0:a\xE6\x97\xA5\xE6\x9C\xAC", fromMultibyte("a\xC6\xFC\xCB\xDC"));
    EXPECT_EQ("1", fromMultibyte("a\xC6"));
    EXPECT_EQ("1", fromMultibyte("\xC6 "));
}

TEST(Utf8ToMultibyte, TheConverterHasNoNameInLocalesOfAsciiAndUtf8) {
    for (const char *name : {"C", "C.UTF-8", "en_US.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(name));
        namelessConverters = 0;
        EXPECT_EQ("0:abc ~\x7F\x01", toMultibyte("abc ~\x7F\x01"));
        EXPECT_EQ(1, namelessConverters);
    }
}

TEST(Utf8ToMultibyte, WritesTheCodePageOfTheLocale) {
    const struct {
        const char *locale;
        const char *utf8;
        const char *expected;
    } rows[] = {
        {"de_DE.ISO-8859-1", "Gr\xC3\xBC\xC3\x9F", "0:Gr\xFC\xDF"},
        {"de_DE.ISO-8859-1", "x\xE2\x82\xACz", "0:x\x1Az"}, // the page's substitute
        {"ja_JP.EUC-JP", "a\xE6\x97\xA5\xE6\x9C\xAC", "0:a\xC6\xFC\xCB\xDC"},
        {"ja_JP.EUC-JP", "\xC2\xA3", "0:\xA1\xF2"}, // a pound sign
        {"ja_JP.SHIFT_JIS", "\xE8\xA1\xA8\xC2\xA5", "0:\x95\x5C\x5C"},
        {"ja_JP.EUC-JP", "\xE4", "3"},
    };
    for (const auto &row : rows) {
        ASSERT_TRUE(support::useLocale(row.locale)) << row.locale;
        EXPECT_EQ(row.expected, toMultibyte(row.utf8)) << row.locale;
    }
}

TEST(Conversions, EveryCharacterOfALocaleIsTheSameThereAndBack) {
    for (const char *name : {"de_DE.ISO-8859-1", "ja_JP.EUC-JP", "ja_JP.SHIFT_JIS", "en_US.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(name)) << name;
        int characters = 0;
        for (wchar_t wide = 1; wide < 0x30000; ++wide) {
            char narrow[2 * MB_LEN_MAX] = "";
            wchar_t back = 0;
            mbstate_t state = {};
            const size_t length = wcrtomb(narrow, wide, &state);
            if (length == static_cast<size_t>(-1) || mbtowc(&back, narrow, length) <= 0 || back != wide)
                continue; // not of this locale, or written as another one's bytes
            narrow[length] = '\0';
            ++characters;
            char *utf8 = nullptr;
            ASSERT_RESULT(ZOLTLOG_OK, mbs2utf8(&utf8, narrow)) << name << " " << static_cast<uint32_t>(wide);
            ASSERT_EQ(std::string("0:") + narrow, toMultibyte(utf8))
                << name << " " << static_cast<uint32_t>(wide);
            zoltLogFree(utf8);
        }
        EXPECT_GT(characters, 200) << name;
    }
}

TEST(Utf8ToMultibyte, ConvertsToTheDefaultCodePage) {
    const struct {
        const char *page;
        const char *utf8;
        const char *expected;
    } rows[] = {
        {"UTF-8", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "0:a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"ISO-8859-1", "Gr\xC3\xBC\xC3\x9F", "0:Gr\xFC\xDF"},
        {"ISO-8859-1", "x\xE2\x82\xACz", "0:x\x1Az"}, // the page's substitute
        {"EUC-JP", "a\xE6\x97\xA5\xE6\x9C\xAC", "0:a\xC6\xFC\xCB\xDC"},
        {"US-ASCII", "a\xC3\xA4z", "0:a\x1Az"},
        {"no such page", "abc", "3"},
    };
    for (const auto &row : rows) {
        defaultConverter = row.page;
        EXPECT_EQ(row.expected, toMultibyte(row.utf8)) << row.page;
    }
}

TEST(Utf8ToMultibyte, IllFormedTextIsAnInvalidArgument) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    EXPECT_EQ("3", toMultibyte("\xE4"));
    EXPECT_EQ("3", toMultibyte("a\xED\xA0\x80"));
}

TEST(MultibyteToUtf8, FollowsTheThreadsLocale) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    EXPECT_EQ("0:\xC3\xA4", fromMultibyte("\xC3\xA4"));
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ("0:\xC3\x83\xC2\xA4", fromMultibyte("\xC3\xA4"));
    unsetenv("LOCPATH"); // which newlocale of some C libraries leaks a copy of
    const locale_t utf8 = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(utf8);
    EXPECT_TRUE(localeIsUtf8());
    EXPECT_EQ("0:\xC3\xA4", fromMultibyte("\xC3\xA4"));
    uselocale(before);
    freelocale(utf8);
    EXPECT_FALSE(localeIsUtf8());
}

// ---- without memory ----------------------------------------------------------------------

TEST(Conversions, WithoutMemoryFailAndRecover) {
    if (!support::allocationsCanFail())
        GTEST_SKIP() << "allocations cannot fail here";
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    defaultConverter = "ISO-8859-1";
    toMultibyte("warm"); // what ICU and the C library set up once
    fromMultibyte("\xE4");
    wchar_t *wide = nullptr;
    char *text = nullptr;
    {
        for (long passing : {0, 1}) { // UTF-16, result
            const support::FailingAllocation failing(passing);
            EXPECT_RESULT(ZOLTLOG_NO_MEMORY, utf82wcs(&wide, "abc", -1));
            EXPECT_EQ(nullptr, wide);
        }
        for (long passing : {0, 1}) {
            const support::FailingAllocation failing(passing);
            EXPECT_RESULT(ZOLTLOG_NO_MEMORY, wcs2utf8(&text, L"abc"));
            EXPECT_EQ(nullptr, text);
        }
        for (long passing : {0, 1, 2}) { // wide, UTF-16, result
            const support::FailingAllocation failing(passing);
            EXPECT_RESULT(ZOLTLOG_NO_MEMORY, mbs2utf8(&text, "\xE4"));
            EXPECT_EQ(nullptr, text);
        }
        const support::FailingAllocation failing(0);
        EXPECT_RESULT(ZOLTLOG_NO_MEMORY, mbs2utf8(&text, "plain"));
        EXPECT_EQ(nullptr, text);
    }
    bool reachedEnd = false;
    for (long passing = 0; passing < 50 && !reachedEnd; ++passing) {
        const support::FailingAllocation failing(passing);
        const uint32_t result = utf82mbs(&text, "\xC3\xA4");
        reachedEnd = !failing.happened();
        if (reachedEnd) {
            EXPECT_RESULT(ZOLTLOG_OK, result);
            EXPECT_STREQ("\xE4", text);
            zoltLogFree(text);
        } else {
            EXPECT_TRUE(result == 4 || (result == 3 && passing > 0)) << result << " at " << passing;
            EXPECT_EQ(nullptr, text);
        }
    }
    EXPECT_TRUE(reachedEnd);
}

// ---- texts that need no conversion -------------------------------------------------------

TEST(Shortcuts, PlainAsciiIsEveryByteBelow128AtAnyPlace) {
    for (size_t length = 0; length <= 40; ++length) {
        std::string text(length, 'x');
        EXPECT_TRUE(isPlainAscii(text.data(), length));
        for (size_t at = 0; at < length; ++at) {
            for (int byte : {0x80, 0xFF, 0xC3}) {
                text[at] = static_cast<char>(byte);
                EXPECT_FALSE(isPlainAscii(text.data(), length));
                EXPECT_TRUE(isPlainAscii(text.data(), at)); // nothing beyond the length counts
            }
            text[at] = '\x7F';
            EXPECT_TRUE(isPlainAscii(text.data(), length));
            text[at] = '\0';
            EXPECT_TRUE(isPlainAscii(text.data(), length));
        }
    }
}

TEST(Shortcuts, LocaleIsUtf8FollowsSetlocale) {
    EXPECT_FALSE(localeIsUtf8());
    const struct {
        const char *name;
        bool utf8;
    } rows[] = {{"C.UTF-8", true},       {"C", false},          {"en_US.UTF-8", true},
                {"ja_JP.EUC-JP", false}, {"tr_TR.UTF-8", true}, {"de_DE.ISO-8859-1", false}};
    for (const auto &row : rows) {
        ASSERT_TRUE(support::useLocale(row.name));
        EXPECT_EQ(row.utf8, localeIsUtf8()) << row.name;
        EXPECT_TRUE(localeKeepsAscii()) << row.name;
    }
}

TEST(Shortcuts, AsciiBytesOfALocaleThatMeansOthersAreConverted) {
    const struct {
        const char *language;
        const char *charset;
        const char *native;
        const char *utf8;
    } rows[] = {
        {"ja_JP", "SHIFT_JIS", "\\", "\xC2\xA5"}, // a yen sign
        {"ar_EG", "IBM864", "50%", "50\xD9\xAA"}, // an Arabic percent sign
        {"vi_VN", "VISCII", "\x02", "\xE1\xBA\xB2"}, {"vi_VN", "TCVN5712-1", "\x01", "\xC3\x9A"},
        {"ru_RU", "IBM856", "\x1A", "\x1C"},         {"th_TH", "IBM1161", "\x7F", "\x1A"},
    };
    const std::string where = std::filesystem::current_path().string();
    setenv("LOCPATH", where.c_str(), 1);
    int made = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.charset);
        const std::string name = std::string(row.language) + "." + row.charset;
        support::run({"localedef", "--no-archive", "-c", "--no-warnings=ascii", "-i", row.language, "-f",
                      row.charset, where + "/" + name});
        if (std::setlocale(LC_ALL, name.c_str()) == nullptr)
            continue;
        ++made;
        EXPECT_FALSE(localeKeepsAscii());
        EXPECT_FALSE(isUtf8AsItIs(row.native, strlen(row.native)));
        EXPECT_EQ(std::string("0:") + row.utf8, fromMultibyte(row.native));
        EXPECT_EQ(fromMultibyteTheLongWay(row.native), fromMultibyte(row.native));
    }
    std::setlocale(LC_ALL, "C");
    EXPECT_TRUE(localeKeepsAscii());
    if (made == 0)
        GTEST_SKIP() << "no such locale can be made here";
}

// What takes a conversion to find out is found out once for a character set.
TEST(Shortcuts, TheMeaningOfAsciiBytesIsAskedOnceForEachCharset) {
    for (const char *name : {"ja_JP.EUC-JP", "de_DE.ISO-8859-1"}) {
        ASSERT_TRUE(support::useLocale(name));
        EXPECT_TRUE(localeKeepsAscii()); // at the latest here
    }
    conversions = 0;
    libc::mbstowcs.hook = [](wchar_t *wide, const char *bytes, size_t size) {
        ++conversions;
        return libc::mbstowcs.real(wide, bytes, size);
    };
    for (const char *name : {"ja_JP.EUC-JP", "de_DE.ISO-8859-1", "en_US.UTF-8", "C"}) {
        ASSERT_TRUE(support::useLocale(name));
        EXPECT_TRUE(localeKeepsAscii());
    }
    EXPECT_EQ(0, conversions);
}

namespace {

// Whenever a text is called valid, the conversion returns its very bytes, and whenever
// not, it refuses.
void expectAgreement(const std::string &text) {
    const std::string converted = fromMultibyteTheLongWay(text.c_str());
    const bool valid = isValidUtf8(text.data(), text.size());
    ASSERT_EQ(valid ? "0:" + text : "1", converted) << testing::PrintToString(text);
    ASSERT_EQ(converted, fromMultibyte(text.c_str()));
}

} // namespace

TEST(Shortcuts, ValidUtf8IsExactlyWhatConvertsToItselfForEveryCodePoint) {
    ASSERT_TRUE(support::useLocale("en_US.UTF-8"));
    for (uint32_t c = 1; c <= 0x1FFFFF;) {
        std::string text;
        const bool alone =
            (c >= 0xD7F0 && c < 0xE010) || (c >= 0xFFF0 && c < 0x10010) || c >= 0x10FF00 || c < 0x900;
        do // in texts of a thousand where all are good
            text += encoded(c++);
        while (!alone && c % 1000 != 0 && c != 0xD7F0 && c != 0xFFF0 && c != 0x10FF00);
        ASSERT_NO_FATAL_FAILURE(expectAgreement(text));
        if (c == 0x111000)
            c = 0x13FFF0; // beyond Unicode only edges
        if (c == 0x140010)
            c = 0x1FFFF0;
    }
}

TEST(Shortcuts, ValidUtf8IsExactlyWhatConvertsToItselfForEveryPairOfBytes) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
            ASSERT_NO_FATAL_FAILURE(expectAgreement(pair));
        }
    }
}

TEST(Shortcuts, ValidUtf8IsExactlyWhatConvertsToItselfForLongerFormsAtTheirEdges) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    const int edges[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC2, 0xE0, 0xF0, 0xFF};
    for (int lead = 0xC0; lead < 256; ++lead) {
        for (int a : edges) {
            for (int b : edges) {
                std::string text = {static_cast<char>(lead), static_cast<char>(a), static_cast<char>(b)};
                ASSERT_NO_FATAL_FAILURE(expectAgreement(text));
                for (int c : edges) {
                    text.resize(3);
                    text += static_cast<char>(c);
                    ASSERT_NO_FATAL_FAILURE(expectAgreement(text));
                }
            }
        }
    }
    for (const char *text : {"\xF8\x88\x80\x80\x80", "\xFB\xBF\xBF\xBF\xBF", "\xFC\x84\x80\x80\x80\x80",
                             "\xFD\xBF\xBF\xBF\xBF\xBF", "\xFE\x80\x80\x80\x80\x80\x80"})
        ASSERT_NO_FATAL_FAILURE(expectAgreement(text));
}

TEST(Shortcuts, ValidUtf8IsExactlyWhatConvertsToItselfInRandomTexts) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    std::mt19937 random(20240301);
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        const size_t pieces = random() % 12;
        for (size_t piece = 0; piece < pieces; ++piece) {
            switch (random() % 4) {
            case 0:
                text += std::string(random() % 20, 'a');
                break;
            case 1:
                text += encoded(static_cast<uint32_t>(1 + random() % 0x10FFFF));
                break;
            case 2:
                text += "\xC3\xA4";
                break;
            default:
                if (random() % 8 == 0)
                    text += static_cast<char>(1 + random() % 255);
                break;
            }
        }
        ASSERT_NO_FATAL_FAILURE(expectAgreement(text));
    }
}

TEST(Shortcuts, MultibyteConversionIsTheSameWithAndWithoutThemInEveryLocale) {
    std::mt19937 random(20240302);
    for (const char *name : {"C", "C.UTF-8", "de_DE.ISO-8859-1", "ja_JP.EUC-JP"}) {
        ASSERT_TRUE(support::useLocale(name));
        for (int i = 0; i < 5000; ++i) {
            std::string text;
            const size_t length = random() % 24;
            const unsigned top = random() % 2 == 0 ? 127 : 255;
            while (text.size() < length)
                text += static_cast<char>(1 + random() % top);
            ASSERT_EQ(fromMultibyteTheLongWay(text.c_str()), fromMultibyte(text.c_str()))
                << name << testing::PrintToString(text);
        }
    }
}
