// SPDX-License-Identifier: Apache-2.0
// The internal rendering of a message's text, which the dispatcher uses: the unit
// is compiled into this program.

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "qdlis.h"
#include "src/formatmsg.cpp"
#include "support/lis_items.h"

namespace {

std::string taken(char *text) {
    const std::string copy = text != nullptr ? text : "none";
    zoltLogFree(text);
    return copy;
}

} // namespace

TEST(RenderLisText, MakesATextOfTheCallersOwn) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisText(&block, "disk %s is %d%% full", "/var", 93));
    EXPECT_EQ("disk /var is 93% full", taken(renderLisText(&block)));
    EXPECT_EQ("disk /var is 93% full", taken(renderLisText(&block))); // the block is as it was
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(RenderLisText, MakesThePrefixOfAMissingCatalogue) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisMessage(&block, 0, INT64_MIN, "%d %d", 1, 2));
    EXPECT_EQ("[Cannot find catalog for message id=-9223372036854775808] 1,2", taken(renderLisText(&block)));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(RenderLisText, IsNullWhereThereIsNoText) {
    ZoltLisBlock block = {};
    EXPECT_EQ(nullptr, renderLisText(nullptr));
    EXPECT_EQ(nullptr, renderLisText(&block));
    ASSERT_EQ(0, support::lisText(&block, ""));
    EXPECT_EQ(nullptr, renderLisText(&block));
    ZoltLisBlock outer = {};
    ASSERT_EQ(0, qdlisBegin(&outer, 0, 0));
    ASSERT_EQ(0, qdlisAddBlock(&outer, &block));
    EXPECT_EQ(nullptr, renderLisText(&outer));
    EXPECT_EQ(0, zoltLisFree(&outer));
}

TEST(RenderLisText, IsEmptyWhereThereIsAnEmptyItem) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisText(&block, "%s", ""));
    EXPECT_STREQ("", taken(renderLisText(&block)).c_str());
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(RenderLisText, GrowsAsFarAsNeeded) {
    const std::string part(100000, 'x');
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisText(&block, "%s-%s-%s", part.c_str(), part.c_str(), part.c_str()));
    EXPECT_EQ(part + "-" + part + "-" + part, taken(renderLisText(&block)));
    EXPECT_EQ(0, zoltLisFree(&block));
}

TEST(RenderLisTextInto, UsesTheBufferWhereTheTextFits) {
    ZoltLisBlock block = {};
    ASSERT_EQ(0, support::lisText(&block, "%s", "1234567"));
    char buffer[16];
    std::memset(buffer, '\x5a', sizeof buffer);
    EXPECT_EQ(buffer, renderLisTextInto(&block, buffer, 8));
    EXPECT_STREQ("1234567", buffer);
    EXPECT_EQ('\x5a', buffer[8]);
    for (size_t size = 1; size < 8; ++size) {
        std::memset(buffer, '\x5a', sizeof buffer);
        char *text = renderLisTextInto(&block, buffer, size);
        EXPECT_NE(buffer, text);
        EXPECT_EQ("1234567", taken(text));
        EXPECT_EQ('\x5a', buffer[size]);
    }
    char *text = renderLisTextInto(&block, nullptr, 0);
    EXPECT_EQ("1234567", taken(text));
    EXPECT_EQ(0, zoltLisFree(&block));
    EXPECT_EQ(nullptr, renderLisTextInto(&block, buffer, sizeof buffer));
    ASSERT_EQ(0, support::lisText(&block, ""));
    EXPECT_EQ(nullptr, renderLisTextInto(&block, buffer, sizeof buffer));
    EXPECT_EQ(0, zoltLisFree(&block));
}
