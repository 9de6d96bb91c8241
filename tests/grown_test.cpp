// SPDX-License-Identifier: Apache-2.0
// The growable array of plain records.
#include "src/grown.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

namespace {

struct Pair {
    uint64_t one;
    uint32_t two;
};

TEST(Grown, IsEmptyAtFirst) {
    Grown<Pair> pairs;
    EXPECT_EQ(0u, pairs.count);
    EXPECT_EQ(pairs.begin(), pairs.end());
}

TEST(Grown, KeepsAllRecordsInOrderAndZeroesEachNewOne) {
    Grown<Pair> pairs;
    for (uint32_t i = 0; i < 5000; ++i) {
        Pair *added = pairs.add();
        ASSERT_NE(nullptr, added);
        EXPECT_EQ(0u, added->one);
        EXPECT_EQ(0u, added->two);
        *added = {i * uint64_t{3}, i};
    }
    ASSERT_EQ(5000u, pairs.count);
    uint32_t i = 0;
    for (const Pair &pair : pairs) {
        EXPECT_EQ(i * uint64_t{3}, pair.one);
        EXPECT_EQ(i++, pair.two);
    }
}

TEST(Grown, AppendsManyAtOnce) {
    Grown<char> text;
    std::string expected;
    for (size_t length = 0; length < 700; ++length) {
        const std::string piece(length, static_cast<char>('a' + length % 26));
        ASSERT_TRUE(text.append(piece.data(), piece.size()));
        expected += piece;
    }
    EXPECT_EQ(expected, std::string(text.items, text.count));
    EXPECT_TRUE(text.append(nullptr, 0));
    EXPECT_EQ(expected.size(), text.count);
}

TEST(Grown, ReservedRoomIsNotMovedAway) {
    Grown<Pair> pairs;
    ASSERT_TRUE(pairs.reserve(1000));
    const Pair *before = pairs.items;
    for (int i = 0; i < 1000; ++i)
        ASSERT_NE(nullptr, pairs.add());
    EXPECT_EQ(before, pairs.items);
}

TEST(Grown, StaysAsItWasWhenThereIsNoRoomForMore) {
    Grown<Pair> pairs;
    pairs.add()->two = 7;
    EXPECT_FALSE(pairs.reserve(SIZE_MAX));
    EXPECT_FALSE(pairs.reserve(SIZE_MAX / sizeof(Pair)));
    ASSERT_EQ(1u, pairs.count);
    EXPECT_EQ(7u, pairs.items[0].two);
}

TEST(Grown, GivesItsRecordsAway) {
    Grown<char> text;
    ASSERT_TRUE(text.append("abc", 4));
    char *given = text.release();
    EXPECT_STREQ("abc", given);
    EXPECT_EQ(0u, text.count);
    EXPECT_EQ(nullptr, text.items);
    free(given);
    ASSERT_TRUE(text.append("d", 2));
    EXPECT_STREQ("d", text.items);
    text.clear();
    EXPECT_EQ(0u, text.count);
}

} // namespace
