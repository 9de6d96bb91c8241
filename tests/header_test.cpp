// SPDX-License-Identifier: Apache-2.0
// The values behind the public headers' names. They are part of the interface: programs
// that were built with them, and files that hold them, do not change with a header. All
// other tests use the names.
#include <gtest/gtest.h>

#include "formatter/zoltformat.h"
#include "qdlis.h"
#include "support/results.h"
#include "zoltlog.h"
#include "zoltlog_results.h"

#include <cstdio>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

struct Pin {
    const char *name;
    int64_t constant;
    int64_t value;
};
#define PIN(name, value)                                                                                     \
    Pin {                                                                                                    \
#name, static_cast < int64_t>(name), value                                                           \
    }

void expectPinned(std::initializer_list<Pin> pins) {
    for (const Pin &pin : pins)
        EXPECT_EQ(pin.constant, pin.value) << pin.name;
}

struct ResultRow {
    std::string name;
    uint32_t value;
    std::string text;
};

std::vector<ResultRow> resultRows() {
#define ROW(name, value, text) ResultRow{#name, value, text},
    return {ZOLTLOG_RESULTS(ROW)};
#undef ROW
}

} // namespace

TEST(Header, MessageTypes) {
    expectPinned({PIN(ZOLTLOG_MSG_DEBUG, 0), PIN(ZOLTLOG_MSG_DIAG, 1), PIN(ZOLTLOG_MSG_APP, 2),
                  PIN(ZOLTLOG_MSG_CONTEXT, 3), PIN(ZOLTLOG_MSG_AUDIT, 4), PIN(ZOLTLOG_MSG_SECURE_AUDIT, 5)});
}

TEST(Header, SeveritiesAndLevels) {
    expectPinned({PIN(ZOLTLOG_SEVERITY_INFO, 0), PIN(ZOLTLOG_SEVERITY_WARNING, 1),
                  PIN(ZOLTLOG_SEVERITY_ERROR, 2), PIN(ZOLTLOG_SEVERITY_CRITICAL, 3),
                  PIN(ZOLTLOG_SEVERITY_EMERGENCY, 4), PIN(ZOLTLOG_LEVEL_NONE, 0), PIN(ZOLTLOG_LEVEL_FIRST, 1),
                  PIN(ZOLTLOG_LEVEL_LAST, 6)});
}

TEST(Header, OutputFlagsAndRolloverModes) {
    expectPinned({PIN(ZOLTLOG_OUT_STDOUT, 1), PIN(ZOLTLOG_OUT_STDERR, 2), PIN(ZOLTLOG_OUT_OSLOG, 4),
                  PIN(ZOLTLOG_KEEP_LOCAL_TEXT, 8), PIN(ZOLTLOG_NO_MESSAGE_ID, 16),
                  PIN(ZOLTLOG_OUT_OSLOGX, 64), PIN(ZOLTLOG_ROLLOVER_NONE, 0),
                  PIN(ZOLTLOG_ROLLOVER_FILE_SIZE, 1), PIN(ZOLTLOG_ROLLOVER_LOCAL_TIME, 2),
                  PIN(ZOLTLOG_ROLLOVER_PERIODIC, 4)});
}

TEST(Header, VersionsAndSpecialNumbers) {
    expectPinned({PIN(ZOLTLOG_RECORD_VERSION_OLDEST, 65540),
                  PIN(ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO, 65541),
                  PIN(ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX, 65542),
                  PIN(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 65543), PIN(ZOLTLOG_RECORD_VERSION_LOGSET, 65544),
                  PIN(ZOLTLOG_DEFAULT_ORIGINATOR, 112), PIN(ZOLTLOG_KEEP_ALL_FILES, 4294967295)});
}

TEST(Header, QueryTermsOperatorsAndAttributes) {
    expectPinned({PIN(ZOLTLOG_TERM_TEXT, 257),
                  PIN(ZOLTLOG_TERM_NUMBER, 258),
                  PIN(ZOLTLOG_TERM_ATTRIBUTE, 259),
                  PIN(ZOLTLOG_TERM_NUMBER_2, 260),
                  PIN(ZOLTLOG_TERM_NUMBER_3, 261),
                  PIN(ZOLTLOG_ATTR_PRODUCT_ID, 263),
                  PIN(ZOLTLOG_ATTR_ORIGINATOR_ID, 264),
                  PIN(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, 265),
                  PIN(ZOLTLOG_ATTR_TIME, 268),
                  PIN(ZOLTLOG_ATTR_CREATION_TIME, 269),
                  PIN(ZOLTLOG_ATTR_NEVER, 276),
                  PIN(ZOLTLOG_ATTR_HOST_NAME, 278),
                  PIN(ZOLTLOG_ATTR_LOGSET_NAME, 279),
                  PIN(ZOLTLOG_ATTR_FIRST, 263),
                  PIN(ZOLTLOG_ATTR_LAST, 279),
                  PIN(ZOLTLOG_OP_AND, 281),
                  PIN(ZOLTLOG_OP_OR, 282),
                  PIN(ZOLTLOG_OP_LESS, 283),
                  PIN(ZOLTLOG_OP_GREATER, 284),
                  PIN(ZOLTLOG_OP_LESS_EQUAL, 285),
                  PIN(ZOLTLOG_OP_GREATER_EQUAL, 286),
                  PIN(ZOLTLOG_OP_EQUAL, 287),
                  PIN(ZOLTLOG_OP_NOT_EQUAL, 288),
                  PIN(ZOLTLOG_CONTEXT_KEY_REPLACE, 3)});
}

TEST(Header, ResultsOfThePlatformTheStoreAndTheFormatter) {
    expectPinned({PIN(ZOLTLOG_OS_OK, 0),
                  PIN(ZOLTLOG_OS_LISTING_END, 1),
                  PIN(ZOLTLOG_OS_FAILED, -1),
                  PIN(ZOLTLOG_OS_NOT_LOADED, -2),
                  PIN(ZOLTLOG_OS_INVALID_ARGUMENT, -3),
                  PIN(ZOLTLOG_OS_OPEN_FAILED, -6),
                  PIN(ZOLTLOG_OS_OPEN_DENIED, -7),
                  PIN(ZOLTLOG_OS_OPEN_NO_PATH, -8),
                  PIN(ZOLTLOG_OS_MODE_APPEND, 0),
                  PIN(ZOLTLOG_OS_MODE_READ, 1),
                  PIN(ZOLTLOG_OS_MODE_TRUNCATE, 2),
                  PIN(ZOLTLOG_STORE_OK, 0),
                  PIN(ZOLTLOG_STORE_INVALID_ARGUMENT, 1),
                  PIN(ZOLTLOG_STORE_NO_FILE, 2),
                  PIN(ZOLTLOG_STORE_NOT_FOUND, 3),
                  PIN(ZOLTLOG_STORE_4, 4),
                  PIN(ZOLTLOG_STORE_NOT_CREATED, 5),
                  PIN(ZOLTLOG_STORE_NOT_WRITTEN, 6),
                  PIN(ZOLTLOG_STORE_NO_MORE, 7),
                  PIN(ZOLTLOG_STORE_NO_SECTION, 8),
                  PIN(ZOLTLOG_STORE_9, 9),
                  PIN(ZOLTLOG_STORE_10, 10),
                  PIN(ZOLTLOG_FORMAT_CONSOLE, 1792),
                  PIN(ZOLTLOG_FORMAT_OSLOG, 1536)});
    // What the formatter shows for each.
    EXPECT_EQ(ZOLTLOG_FORMAT_CONSOLE, ZOLTFORMAT_TIME | ZOLTFORMAT_KIND | ZOLTFORMAT_SOURCE);
    EXPECT_EQ(ZOLTLOG_FORMAT_OSLOG, ZOLTFORMAT_KIND | ZOLTFORMAT_SOURCE);
}

TEST(Header, LocalizationResultsAndItemTypes) {
    expectPinned({PIN(ZOLTLIS_OK, 0), PIN(ZOLTLIS_NO_MORE, -1), PIN(ZOLTLIS_INVALID_ARGUMENT, -2),
                  PIN(ZOLTLIS_NO_MEMORY, -3), PIN(ZOLTLIS_FAILED, -4), PIN(ZOLTLIS_ITEM_WIDE_CHAR, 0),
                  PIN(ZOLTLIS_ITEM_SIGNED, 1), PIN(ZOLTLIS_ITEM_UNSIGNED, 2), PIN(ZOLTLIS_ITEM_DOUBLE, 3),
                  PIN(ZOLTLIS_ITEM_POINTER, 4), PIN(ZOLTLIS_ITEM_WIDE_STRING, 5),
                  PIN(ZOLTLIS_ITEM_OS_ERROR, 6), PIN(ZOLTLIS_ITEM_OS_ERROR_OTHER, 7),
                  PIN(ZOLTLIS_ITEM_DATE_TIME, 8), PIN(ZOLTLIS_ITEM_NESTED, 9),
                  PIN(ZOLTLIS_ITEM_UTF8_STRING, 10), PIN(ZOLTLIS_ITEM_NATIVE_STRING, 11), PIN(QDLIS_ERRNO, 0),
                  PIN(QDLIS_OTHER_ERROR, 1)});
}

TEST(Header, ResultCodes) {
    expectPinned({PIN(ZOLTLOG_OK, 0),
                  PIN(ZOLTLOG_FAILED, 1),
                  PIN(ZOLTLOG_LIS_FAILED, 2),
                  PIN(ZOLTLOG_INVALID_ARGUMENT, 3),
                  PIN(ZOLTLOG_NO_MEMORY, 4),
                  PIN(ZOLTLOG_WRITE_FAILED, 5),
                  PIN(ZOLTLOG_CFG_NOT_FOUND, 6),
                  PIN(ZOLTLOG_NO_MORE, 9),
                  PIN(ZOLTLOG_LIS_OTHER, 10),
                  PIN(ZOLTLOG_OSLOG_OPEN_FAILED, 22),
                  PIN(ZOLTLOG_PRODUCT_EXISTS, 27),
                  PIN(ZOLTLOG_SOURCE_SIZE_UNKNOWN, 31),
                  PIN(ZOLTLOG_OPEN_FAILED, 32),
                  PIN(ZOLTLOG_SHORT_READ, 33),
                  PIN(ZOLTLOG_SHORT_WRITE, 34),
                  PIN(ZOLTLOG_NO_PRODUCT_CFG, 39),
                  PIN(ZOLTLOG_NO_LOG_FILES, 45),
                  PIN(ZOLTLOG_DEST_OPEN_FAILED, 47),
                  PIN(ZOLTLOG_UNSUPPORTED_HEADER, 48),
                  PIN(ZOLTLOG_SECTION_NOT_FOUND, 50),
                  PIN(ZOLTLOG_OPEN_DENIED, 51),
                  PIN(ZOLTLOG_OPEN_NO_PATH, 52),
                  PIN(ZOLTLOG_NO_DIRECTORY, 53),
                  PIN(ZOLTLOG_DEVICE_FULL, 54),
                  PIN(ZOLTLOG_CFG_CREATE_FAILED, 55),
                  PIN(ZOLTLOG_NO_FILE_STATE, 57),
                  PIN(ZOLTLOG_SECURE_ON_FILE_HANDLE, 58),
                  PIN(ZOLTLOG_NOTHING_TO_WRITE, 61),
                  PIN(ZOLTLOG_STORE_RESULT_10, 64)});
}

TEST(Header, EachResultCodeHasAValueATextAndANameOfItsOwn) {
    std::map<uint32_t, std::string> names;
    std::set<std::string> texts;
    for (const ResultRow &row : resultRows()) {
        EXPECT_TRUE(names.emplace(row.value, row.name).second)
            << row.name << " has the value of " << names[row.value];
        EXPECT_TRUE(texts.insert(row.text).second) << row.name << ": " << row.text;
        EXPECT_FALSE(row.text.empty()) << row.name;
        EXPECT_EQ(qdulResultText(row.value), row.text);
        EXPECT_EQ(qdulResultName(row.value), row.name);
    }
    EXPECT_GE(names.size(), 29u);
}

TEST(Header, ANumberThatIsNoResultCodeHasNoName) {
    std::set<uint32_t> codes;
    for (const ResultRow &row : resultRows())
        codes.insert(row.value);
    for (uint32_t number = 0; number < 1000; ++number) {
        if (codes.count(number) != 0)
            continue;
        EXPECT_EQ(qdulResultName(number), nullptr) << number;
        EXPECT_STREQ(qdulResultText(number), "unknown result") << number;
    }
    EXPECT_EQ(qdulResultName(UINT32_MAX), nullptr);
    EXPECT_STREQ(qdulResultText(ZOLTLOG_CFG_NOT_FOUND),
                 "configuration not found, or its file cannot be opened");
    EXPECT_STREQ(qdulResultName(ZOLTLOG_CFG_NOT_FOUND), "ZOLTLOG_CFG_NOT_FOUND");
}

TEST(ResultMatcher, AFailureNamesBothResults) {
    const testing::AssertionResult same = support::sameResult("", "call()", ZOLTLOG_NO_MEMORY, 4);
    EXPECT_TRUE(same);
    const testing::AssertionResult other = support::sameResult("", "call()", ZOLTLOG_OK, 4);
    EXPECT_FALSE(other);
    EXPECT_STREQ(other.message(), "call()\n  gives    ZOLTLOG_NO_MEMORY (4)\n  and not  ZOLTLOG_OK (0)");
    EXPECT_EQ(support::resultName(7), "no listed result (7)");
}

TEST(Header, TellsTheProjectsVersion) {
    EXPECT_STREQ(ZOLTLOG_VERSION, PROJECT_VERSION);
    int major = 0;
    int minor = 0;
    int patch = 0;
    ASSERT_EQ(sscanf(ZOLTLOG_VERSION, "%d.%d.%d", &major, &minor, &patch), 3);
    EXPECT_EQ(ZOLTLOG_VERSION_NUMBER, major * 10000 + minor * 100 + patch);
}
