// SPDX-License-Identifier: Apache-2.0
// Whole decimal numbers in texts.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

// The whole text as a number; false when it is anything else or too large for T.
template<typename T>
bool parseNumber(std::string_view text, T &value) {
    T read{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), read);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        return false;
    value = read;
    return true;
}

// Without the allocation of std::to_string.
template<typename T>
void appendNumber(std::string &out, T value, int base = 10) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, base);
    out.append(digits, static_cast<size_t>(end.ptr - digits));
}

// Two hexadecimal digits.
inline void appendHexByte(std::string &out, char byte) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    out += DIGITS[value >> 4];
    out += DIGITS[value & 15];
}

// "1 file", "2 files"
inline std::string counted(uint64_t count, std::string_view what) {
    return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

} // namespace tools
