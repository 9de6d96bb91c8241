// SPDX-License-Identifier: Apache-2.0
// The growable text buffer.
#include "support/results.h"
#include "zoltlog.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string recordOf(const TextBuffer &buffer) {
    return {buffer.data, static_cast<size_t>(buffer.capacity - buffer.free)};
}

void append(TextBuffer *buffer, const std::string &text) {
    char *at = text_msg_alloc(buffer, text.size());
    ASSERT_NE(at, nullptr);
    memcpy(at, text.data(), text.size());
}

} // namespace

TEST(TextBuffer, StartsEmptyInItsInlineStorage) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(buffer.data, buffer.inlineStorage);
    EXPECT_EQ(buffer.free, 4096u);
    EXPECT_EQ(buffer.capacity, 4096u);
    EXPECT_EQ(recordOf(buffer), "");
}

TEST(TextBuffer, ReservesAtTheEndOfTheRecord) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(text_msg_alloc(&buffer, 10), buffer.inlineStorage);
    EXPECT_EQ(buffer.free, 4086u);
    EXPECT_EQ(text_msg_alloc(&buffer, 4085), buffer.inlineStorage + 10);
    EXPECT_EQ(buffer.free, 1u);
    EXPECT_EQ(buffer.capacity, 4096u);
}

TEST(TextBuffer, GrowsWhenExactlyTheFreeBytesAreAskedFor) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    ASSERT_NE(text_msg_alloc(&buffer, 4095), nullptr);
    EXPECT_EQ(buffer.capacity, 4096u);
    char *at = text_msg_alloc(&buffer, 1);
    EXPECT_EQ(buffer.capacity, 8192u);
    EXPECT_EQ(at, buffer.data + 4095);
    EXPECT_NE(buffer.data, buffer.inlineStorage);
    EXPECT_EQ(buffer.free, 8192u - 4096u);
    free_text_msg(&buffer);
}

TEST(TextBuffer, GrowsBy4096BytesWhenThatIsEnough) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, std::string(100, 'a'));
    ASSERT_NE(text_msg_alloc(&buffer, 8092), nullptr); // 8192 in all: not smaller than needed
    EXPECT_EQ(buffer.capacity, 8192u);
    EXPECT_EQ(buffer.free, 0u);
    EXPECT_EQ(recordOf(buffer).substr(0, 100), std::string(100, 'a'));
    free_text_msg(&buffer);
}

TEST(TextBuffer, GrowsByTheReservationTooWhen4096BytesAreTooFew) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, std::string(100, 'a'));
    ASSERT_NE(text_msg_alloc(&buffer, 8093), nullptr);
    EXPECT_EQ(buffer.capacity, 4096u + 4096u + 8093u);
    EXPECT_EQ(buffer.free, buffer.capacity - 8193u);
    EXPECT_EQ(recordOf(buffer).substr(0, 100), std::string(100, 'a'));
    free_text_msg(&buffer);
}

TEST(TextBuffer, KeepsItsBytesOverManyGrowths) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string piece(static_cast<size_t>(1 + i % 97), static_cast<char>('a' + i % 26));
        append(&buffer, piece);
        expected += piece;
    }
    EXPECT_EQ(recordOf(buffer), expected);
    EXPECT_EQ(buffer.capacity % 4096, 0u);
    free_text_msg(&buffer);
}

TEST(TextBuffer, RefusesAReservationThatNoMemoryHolds) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, "abc");
    EXPECT_EQ(text_msg_alloc(&buffer, UINT64_MAX), nullptr);
    EXPECT_EQ(text_msg_alloc(&buffer, UINT64_MAX - 8000), nullptr);
    EXPECT_EQ(recordOf(buffer), "abc");
    free_text_msg(&buffer);
}

TEST(TextBuffer, CanBeReleasedTwiceAndUsedAgain) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, std::string(10000, 'x'));
    free_text_msg(&buffer);
    free_text_msg(&buffer);
    append(&buffer, "again");
    EXPECT_EQ(recordOf(buffer), "again");
    free_text_msg(&buffer);
}

TEST(TextBuffer, OnlyATrailingCommaIsRemoved) {
    const struct {
        const char *before, *after;
    } cases[] = {{"", ""}, {",", ""}, {"a", "a"}, {"a,", "a"}, {"a,,", "a,"}, {",a", ",a"}};
    for (const auto &c : cases) {
        TextBuffer buffer;
        init_text_msg(&buffer);
        append(&buffer, c.before);
        remove_trailing_comma(&buffer);
        EXPECT_EQ(recordOf(buffer), c.after);
    }
}

TEST(TextBuffer, EndOfRecordTurnsEveryLineFeedIntoACarriageReturn) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, "\na\n\nb\r\n");
    EXPECT_RESULT(ZOLTLOG_OK, mark_end_of_txt_msg(&buffer));
    EXPECT_EQ(recordOf(buffer), "\ra\r\rb\r\r\n");
}

TEST(TextBuffer, EndOfAnEmptyRecordIsALineFeed) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_RESULT(ZOLTLOG_OK, mark_end_of_txt_msg(&buffer));
    EXPECT_EQ(recordOf(buffer), "\n");
}

TEST(TextBuffer, EndOfARecordThatFillsTheStorageGrowsIt) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    append(&buffer, std::string(4095, '\n'));
    EXPECT_RESULT(ZOLTLOG_OK, mark_end_of_txt_msg(&buffer));
    EXPECT_EQ(buffer.capacity, 8192u);
    EXPECT_EQ(recordOf(buffer), std::string(4095, '\r') + "\n");
    free_text_msg(&buffer);
}

TEST(TextBuffer, NullBuffersAreHarmless) {
    init_text_msg(nullptr);
    free_text_msg(nullptr);
    remove_trailing_comma(nullptr);
    EXPECT_EQ(text_msg_alloc(nullptr, 1), nullptr);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, mark_end_of_txt_msg(nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, bin2txt_int(1, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, bin2txt_sev(1, nullptr));
}
