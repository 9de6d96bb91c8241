// SPDX-License-Identifier: Apache-2.0
#include "zoltlog.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

std::string trimmed(const char *text) {
    char *copy = LeftRightTrim(text);
    std::string result = copy;
    zoltLogFree(copy);
    return result;
}

} // namespace

TEST(Hash, EmptyTextIsZero) {
    EXPECT_EQ(HashString("", 300), 0u);
}

TEST(Hash, OneLetterIsItsCode) {
    EXPECT_EQ(HashString("a", 300), 97u);
}

TEST(Hash, EachByteMultipliesByThirtyOne) {
    // "ab": 97 * 31 + 98 = 3105
    EXPECT_EQ(HashString("ab", 300), 3105u % 300u);
    EXPECT_EQ(HashString("ab", 1000000), 3105u);
}

TEST(Hash, BytesAbove127AreNegative) {
    // one byte 0xFF: 2^64 - 1
    EXPECT_EQ(HashString("\xff", 300), static_cast<uint32_t>(UINT64_MAX % 300));
    // 0xFF then 'a': (2^64 - 1) * 31 + 97 = 2^64 - 31 + 97 = 66
    EXPECT_EQ(HashString("\xff"
                         "a",
                         300),
              66u);
}

TEST(Hash, IsCutTo32BitsAfterTheModulus) {
    EXPECT_EQ(HashString("\xff", 4294967295u), static_cast<uint32_t>(UINT64_MAX % 4294967295u));
}

TEST(Hash, NullTextOrModulusZeroIsZero) {
    EXPECT_EQ(HashString(nullptr, 300), 0u);
    EXPECT_EQ(HashString("a", 0), 0u);
}

TEST(NameList, FindsNamesBetweenCommasWithoutTheirBlanks) {
    const char *list = ",, alpha , be ta,gamma";
    EXPECT_EQ(DoesNameMatch(list, "alpha"), 1);
    EXPECT_EQ(DoesNameMatch(list, "beta"), 1);
    EXPECT_EQ(DoesNameMatch(list, "gamma"), 1);
    EXPECT_EQ(DoesNameMatch(list, "be ta"), 0);
    EXPECT_EQ(DoesNameMatch(list, " alpha "), 0);
}

TEST(NameList, IsCaseSensitiveAndComparesWholeNames) {
    EXPECT_EQ(DoesNameMatch("alpha", "Alpha"), 0);
    EXPECT_EQ(DoesNameMatch("alpha", "alph"), 0);
    EXPECT_EQ(DoesNameMatch("alph", "alpha"), 0);
}

TEST(NameList, RunsOfCommasMakeNoEmptyItems) {
    EXPECT_EQ(DoesNameMatch(",,a,,,b,,", ""), 0);
    EXPECT_EQ(DoesNameMatch("a,,,b", "b"), 1);
    EXPECT_EQ(DoesNameMatch("", ""), 0);
    EXPECT_EQ(DoesNameMatch(",", ""), 0);
}

TEST(NameList, ItemOfBlanksMatchesNothing) {
    EXPECT_EQ(DoesNameMatch("a,  ,b", ""), 0);
    EXPECT_EQ(DoesNameMatch("a,  ,b", "  "), 0);
    EXPECT_EQ(DoesNameMatch("a,  ,b", "b"), 1);
}

TEST(NameList, OnlyBlanksAreTakenOut) {
    EXPECT_EQ(DoesNameMatch("a\tb", "ab"), 0);
    EXPECT_EQ(DoesNameMatch("a\tb", "a\tb"), 1);
}

TEST(NameList, NullArgumentsMatchNothing) {
    EXPECT_EQ(DoesNameMatch(nullptr, "a"), 0);
    EXPECT_EQ(DoesNameMatch("a", nullptr), 0);
}

TEST(Trim, RemovesEveryBlankAlsoInside) {
    EXPECT_EQ(trimmed(" be ta "), "beta");
    EXPECT_EQ(trimmed("   "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("a\tb"), "a\tb");
    EXPECT_EQ(LeftRightTrim(nullptr), nullptr);
}

TEST(IdToNames, WholeNumberIsComparedWithTheId) {
    EXPECT_EQ(id2names(12, "", "12"), 12u);
    EXPECT_EQ(id2names(12, "13", "13"), 0u);
    EXPECT_EQ(id2names(12, nullptr, "12"), 12u);
    EXPECT_EQ(id2names(12, nullptr, " +12"), 12u);
}

TEST(IdToNames, ANumberIsReadAsASignedOneOf64Bits) {
    const auto largest = static_cast<uint64_t>(INT64_MAX);
    EXPECT_EQ(id2names(largest, nullptr, "9223372036854775807"), largest);
    EXPECT_EQ(id2names(largest, nullptr, "18446744073709551616"), largest);
    EXPECT_EQ(id2names(largest + 1, nullptr, "9223372036854775808"), 0u);
    EXPECT_EQ(id2names(largest + 1, nullptr, "-9223372036854775808"), largest + 1);
    EXPECT_EQ(id2names(UINT64_MAX, nullptr, "-1"), UINT64_MAX);
    EXPECT_EQ(id2names(12, "-", "-"), 12u); // a sign alone is a name
}

TEST(IdToNames, OtherTextConsultsTheNameList) {
    EXPECT_EQ(id2names(12, "12x,other", "12x"), 12u);
    EXPECT_EQ(id2names(12, "other", "12x"), 0u);
    EXPECT_EQ(id2names(12, "12 ", "12 "), 0u); // the item is "12": blanks do not belong to names
    EXPECT_EQ(id2names(12, nullptr, "12x"), 0u);
}

TEST(IdToNames, EmptyOrNullTextIsZero) {
    EXPECT_EQ(id2names(12, "a", ""), 0u);
    EXPECT_EQ(id2names(0, "a", ""), 0u);
    EXPECT_EQ(id2names(12, "a", nullptr), 0u);
}

class IdFromName : public testing::Test {
  protected:
    void SetUp() override {
        for (LogCfg *cfg : {&one, &two}) {
            memset(cfg, 0, sizeof *cfg);
        }
        one.productId = 5;
        one.originatorId = 7;
        strcpy(one.productShortNames, "web,front");
        strcpy(one.originatorNames, "server");
        two.productId = 6;
        two.originatorId = 8;
        strcpy(two.productShortNames, "db");
        strcpy(two.originatorNames, "store,server");
    }
    LogCfg one;
    LogCfg two;
    LogCfg *cfgs[2] = {&one, &two};
};

TEST_F(IdFromName, Kind263SelectsProducts) {
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "front"), 5u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "db"), 6u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "6"), 6u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "server"), 0u);
}

TEST_F(IdFromName, AnyOtherKindSelectsOriginators) {
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, "store"), 8u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, 0, "8"), 8u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_ORIGINATOR_ID, "web"), 0u);
}

TEST_F(IdFromName, FirstConfigurationWins) {
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, "server"), 7u);
}

TEST_F(IdFromName, ConfigurationWithoutNamesIsPassedOverEvenForItsNumber) {
    two.originatorNames[0] = '\0';
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, "8"), 0u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "6"), 6u); // the other list is still there
}

TEST_F(IdFromName, NothingFoundOrNothingGivenIsZero) {
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, "none"), 0u);
    EXPECT_EQ(GetIdFromName(cfgs, 0, ZOLTLOG_ATTR_PRODUCT_ID, "web"), 0u);
    EXPECT_EQ(GetIdFromName(nullptr, 2, ZOLTLOG_ATTR_PRODUCT_ID, "web"), 0u);
    EXPECT_EQ(GetIdFromName(cfgs, 2, ZOLTLOG_ATTR_PRODUCT_ID, nullptr), 0u);
}

class ContextTitles : public testing::Test {
  protected:
    // Both titles fall into bucket 97 of 200: 97, and 1 * 31 + 66 = 97.
    LogContextEntry second = {nullptr,
                              {3, 4},
                              const_cast<char *>("\x01"
                                                 "B"),
                              nullptr};
    LogContextEntry first = {&second, {1, 2}, const_cast<char *>("a"), nullptr};
    LogContextEntry *table[200] = {};

    void SetUp() override { table[97] = &first; }
    void TearDown() override { zoltLogFree(first.text); }
};

TEST_F(ContextTitles, BothKeyWordsAndTheTitleMustAgree) {
    const LogContextKey key = {{1, 2}, 0};
    const LogContextKey low = {{9, 2}, 0};
    const LogContextKey high = {{1, 9}, 0};
    const LogContextKey other = {{3, 4}, 0};
    EXPECT_EQ(SearchContextTitleInList(&key, nullptr, "a", table), &first);
    EXPECT_EQ(SearchContextTitleInList(&low, nullptr, "a", table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&high, nullptr, "a", table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&key, nullptr, "b", table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&other, nullptr, "a", table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&other, nullptr,
                                       "\x01"
                                       "B",
                                       table),
              &second);
}

TEST_F(ContextTitles, KindThreeReplacesTheStoredText) {
    const LogContextKey key = {{1, 2}, 3};
    first.text = zoltLogSafeStrdup("old");
    std::string text = "new";
    EXPECT_EQ(SearchContextTitleInList(&key, text.c_str(), "a", table), &first);
    EXPECT_STREQ(first.text, "new");
    EXPECT_NE(first.text, text.c_str());
    EXPECT_EQ(SearchContextTitleInList(&key, nullptr, "a", table), &first);
    EXPECT_EQ(first.text, nullptr);
}

TEST_F(ContextTitles, OtherKindsLeaveTheStoredText) {
    const LogContextKey key = {{1, 2}, 2};
    first.text = zoltLogSafeStrdup("old");
    EXPECT_EQ(SearchContextTitleInList(&key, "new", "a", table), &first);
    EXPECT_STREQ(first.text, "old");
}

TEST_F(ContextTitles, NullArgumentsFindNothing) {
    const LogContextKey key = {{1, 2}, 0};
    EXPECT_EQ(SearchContextTitleInList(nullptr, nullptr, "a", table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&key, nullptr, nullptr, table), nullptr);
    EXPECT_EQ(SearchContextTitleInList(&key, nullptr, "a", nullptr), nullptr);
}
