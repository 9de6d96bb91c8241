// SPDX-License-Identifier: Apache-2.0
// Argument lists for printf made at run time.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

namespace support {

// An argument list of the x86-64 System V interface, made at run time: every
// argument lies in the overflow area, in words of eight bytes.
class Arguments {
  public:
    template<typename Integer>
    void addInteger(Integer value) {
        uint64_t word = 0;
        std::memcpy(&word, &value, sizeof value);
        words.push_back(word);
    }
    void addDouble(double value) { addInteger(value); }
    void addLongDouble(long double value) {
        if (words.size() % 2 != 0)
            words.push_back(0);
        uint64_t both[2] = {0, 0};
        std::memcpy(both, &value, 10);
        words.push_back(both[0]);
        words.push_back(both[1]);
    }
    void start(va_list list) {
        words.reserve(words.size() + 2);
        // The area has to be aligned to 16 bytes for long double.
        aligned.assign(words.size() + 2, 0);
        uint64_t *area = aligned.data();
        if (reinterpret_cast<uintptr_t>(area) % 16 != 0)
            ++area;
        std::copy(words.begin(), words.end(), area);
        const struct {
            unsigned usedIntegers;
            unsigned usedReals;
            void *overflow;
            void *registers;
        } all = {48, 176, area, nullptr};
        static_assert(sizeof all == sizeof(va_list), "the list is the interface's record");
        std::memcpy(static_cast<void *>(list), &all, sizeof all);
    }

  private:
    std::vector<uint64_t> words;
    std::vector<uint64_t> aligned;
};

} // namespace support
