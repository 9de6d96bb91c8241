// SPDX-License-Identifier: Apache-2.0
// The hash table, and the hash that nobody can plant collisions for.
#include "src/hash_table.h"
#include "zoltlog.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

// 2^pairs names of one length that HashString gives the same value for every modulus.
std::vector<std::string> collidingNames(unsigned pairs) {
    std::vector<std::string> names;
    for (unsigned i = 0; i < 1u << pairs; ++i) {
        std::string name;
        for (unsigned bit = 0; bit < pairs; ++bit)
            name += (i >> bit & 1u) != 0 ? "Aa" : "BB";
        names.push_back(name);
    }
    return names;
}

uint64_t hashOf(const std::string &text) {
    return hashOfBytes(text.data(), text.size());
}

TEST(KeyedHash, IsThePublishedFunction) {
    // SipHash-1-3's first test vector: the key 00 01 .. 0f and no input
    const HashKey key = {{0x0706050403020100u, 0x0f0e0d0c0b0a0908u}};
    KeyedHash hash(key);
    hash.feed("", 0);
    EXPECT_EQ(0xabac0158050fc4dcu, hash.value());
}

TEST(KeyedHash, DependsOnTheKeyEachByteAndTheLength) {
    const HashKey key = {{1, 2}};
    const HashKey other = {{1, 3}};
    std::set<uint64_t> values;
    const std::string text(40, '\0');
    for (size_t length = 0; length <= text.size(); ++length) {
        KeyedHash hash(key);
        hash.feed(text.data(), length);
        values.insert(hash.value());
    }
    for (size_t at = 0; at < text.size(); ++at) {
        std::string changed = text;
        changed[at] = 1;
        KeyedHash hash(key);
        hash.feed(changed.data(), changed.size());
        values.insert(hash.value());
    }
    KeyedHash hash(other);
    hash.feed(text.data(), text.size());
    values.insert(hash.value());
    EXPECT_EQ(text.size() + 1 + text.size() + 1, values.size());
}

TEST(KeyedHash, HasAKeyInThisProcess) {
    const HashKey key = processHashKey();
    EXPECT_TRUE(key.word[0] != 0 || key.word[1] != 0);
}

TEST(KeyedHash, SpreadsNamesThatCollideUnderHashString) {
    const std::vector<std::string> names = collidingNames(16);
    const uint32_t slots = 1u << 17;
    std::set<uint32_t> used;
    for (const std::string &name : names) {
        ASSERT_EQ(HashString(names[0].c_str(), slots), HashString(name.c_str(), slots));
        used.insert(static_cast<uint32_t>(hashOf(name)) % slots);
    }
    // 65,536 values at random fill 51,570 of 131,072 slots, give or take 110.
    EXPECT_GT(used.size(), 50000u);
}

TEST(PositionTable, FindsEachPositionAndNothingElse) {
    std::vector<std::string> names;
    PositionTable table;
    const auto find = [&](const std::string &name) {
        return table.find(hashOf(name), [&](uint32_t at) { return names[at] == name; });
    };
    EXPECT_EQ(PositionTable::NOWHERE, find("0"));
    for (uint32_t i = 0; i < 100000; ++i) {
        names.push_back(std::to_string(i));
        ASSERT_TRUE(table.add(hashOf(names.back()), i));
    }
    for (uint32_t i = 0; i < names.size(); ++i)
        ASSERT_EQ(i, find(names[i]));
    EXPECT_EQ(PositionTable::NOWHERE, find("100000"));
    EXPECT_EQ(PositionTable::NOWHERE, find(""));
    table.clear();
    EXPECT_EQ(PositionTable::NOWHERE, find("0"));
}

TEST(PositionTable, RecordsOfOneHashAreToldApart) {
    PositionTable table;
    for (uint32_t i = 0; i < 100; ++i)
        ASSERT_TRUE(table.add(42, i));
    for (uint32_t i = 0; i < 100; ++i)
        EXPECT_EQ(i, table.find(42, [&](uint32_t at) { return at == i; }));
    EXPECT_EQ(PositionTable::NOWHERE, table.find(42, [](uint32_t) { return false; }));
    EXPECT_EQ(PositionTable::NOWHERE, table.find(43, [](uint32_t) { return true; }));
}

} // namespace
