// SPDX-License-Identifier: Apache-2.0
// Walking through UTF-8: every character there and back, and what is none.
#include "src/utf8.h"

#include <climits>
#include <clocale>
#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>
#include <string>

namespace {

const int32_t LAST = 0x10ffff;

bool isSurrogate(int32_t character) {
    return character >= 0xd800 && character <= 0xdfff;
}

// Where the walk stands after one step, and what it found.
struct Step {
    int32_t character;
    size_t at;
};
Step step(const std::string &text) {
    Step made = {0, 0};
    made.character = nextUtf8(text.c_str(), &made.at, text.size());
    return made;
}

TEST(Utf8, EveryCharacterIsWrittenAsTheCLibraryDoesAndReadBack) {
    ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
    for (int32_t character = 0; character <= LAST; ++character) {
        if (isSurrogate(character))
            continue;
        char expected[MB_LEN_MAX];
        mbstate_t state = {};
        const size_t size = wcrtomb(expected, static_cast<wchar_t>(character), &state);
        char bytes[U8_MAX_LENGTH];
        ASSERT_EQ(static_cast<int>(size), putUtf8(character, bytes)) << character;
        ASSERT_EQ(0, memcmp(expected, bytes, size)) << character;
        const Step made = step(std::string(bytes, size) + "x");
        ASSERT_EQ(character, made.character);
        ASSERT_EQ(size, made.at) << character;
    }
}

TEST(Utf8, WhatIsNoCharacterIsNotWritten) {
    char bytes[U8_MAX_LENGTH];
    for (const int32_t none : {-1, INT32_MIN, 0xd800, 0xdfff, LAST + 1, INT32_MAX})
        EXPECT_EQ(-1, putUtf8(none, bytes)) << none;
}

TEST(Utf8, IllFormedBytesAreToldAndThePlaceMovesOn) {
    for (const char *none : {
             "\x80", "\xbf",                                 // a byte that goes on, alone
             "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf",         // longer than they need to be
             "\xf0\x8f\xbf\xbf",                             //
             "\xed\xa0\x80", "\xed\xbf\xbf",                 // surrogates
             "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", // above the last
             "\xc3", "\xe2\x82", "\xf0\x9f\x98",             // cut
             "\xc3x", "\xe2\x82x", "\xf0\x9f\x98x",          // broken off
         }) {
        const Step made = step(none);
        EXPECT_EQ(-1, made.character) << none;
        EXPECT_GE(made.at, 1u) << none;
        EXPECT_LE(made.at, strlen(none)) << none;
    }
}

TEST(Utf8, NothingIsReadBehindAZeroByte) {
    for (const char *cut : {"\xc3", "\xe2\x82", "\xf0\x9f\x98"}) {
        size_t at = 0;
        EXPECT_EQ(-1, nextUtf8(cut, &at, SIZE_MAX)) << cut;
        EXPECT_LE(at, strlen(cut)) << cut;
    }
}

} // namespace
