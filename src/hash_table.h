// SPDX-License-Identifier: Apache-2.0
// The hash table of the libraries, for names that anyone may have chosen: the hash
// (SipHash-1-3) has a key of its own in each process, so that nobody can plant names
// that share their slots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/auxv.h>

struct HashKey {
    uint64_t word[2];
};

// The random bytes that the kernel gives to each program it starts; where they lie is asked
// once, since finding out takes as long as the hash of a name.
inline const void *processRandom;

inline HashKey processHashKey() {
    HashKey key = {};
    const void *random = __atomic_load_n(&processRandom, __ATOMIC_RELAXED);
    if (random == nullptr) {
        random = reinterpret_cast<const void *>(getauxval(AT_RANDOM)); // NOLINT: tells an address
        __atomic_store_n(&processRandom, random, __ATOMIC_RELAXED);
    }
    if (random != nullptr)
        memcpy(&key, random, sizeof key);
    return key;
}

// The state of SipHash, fed word by word.
struct KeyedHash {
    explicit KeyedHash(const HashKey &key)
        : a(key.word[0] ^ 0x736f6d6570736575u), b(key.word[1] ^ 0x646f72616e646f6du),
          c(key.word[0] ^ 0x6c7967656e657261u), d(key.word[1] ^ 0x7465646279746573u) {}

    void feed(uint64_t word) {
        d ^= word;
        mix();
        a ^= word;
    }
    // The bytes and then their number; the last words of two texts thus differ.
    void feed(const void *bytes, size_t size) {
        const auto *at = static_cast<const char *>(bytes);
        size_t left = size;
        for (; left >= sizeof(uint64_t); left -= sizeof(uint64_t), at += sizeof(uint64_t)) {
            uint64_t word;
            memcpy(&word, at, sizeof word);
            feed(word);
        }
        uint64_t last = static_cast<uint64_t>(size) << 56;
        memcpy(&last, at, left);
        feed(last);
    }
    uint64_t value() {
        c ^= 0xff;
        mix();
        mix();
        mix();
        return a ^ b ^ c ^ d;
    }

  private:
    static uint64_t turned(uint64_t word, unsigned bits) { return word << bits | word >> (64 - bits); }

    void mix() {
        a += b;
        b = turned(b, 13) ^ a;
        a = turned(a, 32);
        c += d;
        d = turned(d, 16) ^ c;
        a += d;
        d = turned(d, 21) ^ a;
        c += b;
        b = turned(b, 17) ^ c;
        c = turned(c, 32);
    }

    uint64_t a, b, c, d;
};

inline uint64_t hashOfBytes(const void *bytes, size_t size) {
    KeyedHash hash(processHashKey());
    hash.feed(bytes, size);
    return hash.value();
}

inline uint64_t hashOfNumbers(uint64_t first, uint64_t second) {
    KeyedHash hash(processHashKey());
    hash.feed(first);
    hash.feed(second);
    return hash.value();
}

// Finds records of an array by their hash. It keeps positions only, so that the array
// may move, and is at most half full.
struct PositionTable {
    static constexpr uint32_t NOWHERE = UINT32_MAX;

    PositionTable() = default;
    ~PositionTable() { free(slots); }
    PositionTable(const PositionTable &) = delete;
    PositionTable &operator=(const PositionTable &) = delete;

    // The position with that hash for which same(position) holds, else NOWHERE.
    template<typename Same>
    uint32_t find(uint64_t hash, Same same) const {
        if (slots == nullptr)
            return NOWHERE;
        const auto low = static_cast<uint32_t>(hash);
        for (uint32_t at = low & mask; slots[at].next != 0; at = (at + 1) & mask) {
            if (slots[at].hash == low && same(slots[at].next - 1))
                return slots[at].next - 1;
        }
        return NOWHERE;
    }
    // Adds a position that is not in the table, below NOWHERE; false without memory.
    bool add(uint64_t hash, uint32_t position) {
        if (slots == nullptr || count > mask / 2) {
            if (!grow())
                return false;
        }
        place(slots, mask, {static_cast<uint32_t>(hash), position + 1});
        ++count;
        return true;
    }
    void clear() {
        free(slots);
        slots = nullptr;
        mask = count = 0;
    }

  private:
    struct Slot {
        uint32_t hash;
        uint32_t next; // the position + 1; 0: free
    };
    static constexpr uint32_t FIRST_MASK = 15;

    static void place(Slot *to, uint32_t toMask, Slot slot) {
        uint32_t at = slot.hash & toMask;
        while (to[at].next != 0)
            at = (at + 1) & toMask;
        to[at] = slot;
    }
    bool grow() {
        const uint32_t newMask = slots == nullptr ? FIRST_MASK : mask * 2 + 1;
        if (mask > UINT32_MAX / 2)
            return false;
        auto *grown = static_cast<Slot *>(calloc(newMask + size_t{1}, sizeof(Slot)));
        if (grown == nullptr)
            return false;
        for (size_t at = 0; slots != nullptr && at <= mask; ++at) {
            if (slots[at].next != 0)
                place(grown, newMask, slots[at]);
        }
        free(slots);
        slots = grown;
        mask = newMask;
        return true;
    }

    Slot *slots = nullptr;
    uint32_t mask = 0;
    uint32_t count = 0;
};
