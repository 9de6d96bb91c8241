// SPDX-License-Identifier: Apache-2.0
// The text that an argument block makes without a catalogue: pieces, values, nesting, damage.
// What catalogues make of it is tested on the whole program (qdlogview_catalogue_test.py).
#include "common/block_text.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string textOf(const std::string &block) {
    std::string text;
    return tools::renderBlock(block, text) ? text : "(none)";
}

} // namespace

TEST(BlockText, PiecesAndValuesOfAFoundMessageAreJoined) {
    EXPECT_EQ(textOf("(0|X5:Disk |i32:-7|X4: of |u64:18446744073709551615|X1:%|)"),
              "Disk -7 of 18446744073709551615%");
    EXPECT_EQ(textOf("(0|S3:a,b|A3:\xe2\x82\xac|12:\xc3\xa4|80.500000|)"), "a,b\xe2\x82\xac\xc3\xa4"
                                                                           "0.500000");
    EXPECT_EQ(textOf("(0|X0:|X1:x|)"), "x");
}

TEST(BlockText, ArgumentsOfAMissingMessageHaveBlanksBetween) {
    EXPECT_EQ(textOf("(42|i64:7|X1:x|)"), "7 x");
    EXPECT_EQ(textOf("(42|X0:|X1:x|)"), " x");
}

TEST(BlockText, ValuesOfTheSystemAreReadable) {
    setenv("TZ", "UTC", 1);
    EXPECT_EQ(textOf("(0|964:255|)"), "0xff");                       // a pointer
    EXPECT_EQ(textOf("(0|D32:13|D64:-2|)"), "13-2");                 // errors
    EXPECT_EQ(textOf("(0|C64:1709300702|)"), "2024-03-01 13:45:02"); // a time
    EXPECT_EQ(textOf("(0|C64:9223372036854775807|)"), "9223372036854775807");
}

TEST(BlockText, NestedBlocksAreShownInTheirPlace) {
    EXPECT_EQ(textOf("(0|X2:a |(0|X1:b|i8:1|),X2: c|)"), "a b1 c");
    EXPECT_EQ(textOf("(0|X2:a |(9|X1:b|i8:1|),X2: c|)"), "a b 1 c");
    EXPECT_EQ(textOf("(7|X1:a|(0|X1:b|X1:c|),i8:2|)"), "a bc 2");
}

TEST(BlockText, NestingHasNoEndThatTakesTheStack) {
    std::string block;
    constexpr size_t DEPTH = 100000;
    for (size_t i = 0; i < DEPTH; ++i)
        block += "(0|";
    block += "X1:x|";
    for (size_t i = 0; i < DEPTH; ++i)
        block += i + 1 < DEPTH ? ")," : ")";
    EXPECT_EQ(textOf(block), "x");
}

TEST(BlockText, BlocksWithoutArgumentsAndDamagedOnesHaveNone) {
    for (const char *block :
         {"(0|)", "(5|)", "", "(", "(0|X5:ab|)", "(0|X1:a|) ", "(0|Z1:a|)", "(0|X1:a|", "x(0|X1:a|)"})
        EXPECT_EQ(textOf(block), "(none)") << block;
}
