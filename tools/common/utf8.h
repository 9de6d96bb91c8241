// SPDX-License-Identifier: Apache-2.0
// Decoding of UTF-8, strict: no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tools {

struct Utf8Char {
    char32_t value;
    size_t length; // 0: no valid character starts here
};

inline Utf8Char decodeUtf8(std::string_view text, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const char32_t first = byte(at);
    if (first < 0x80)
        return {first, 1};
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() - at < length)
        return {0, 0};
    char32_t value = first & (0xffu >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        const char32_t next = byte(at + i);
        if ((next & 0xc0u) != 0x80)
            return {0, 0};
        value = (value << 6) | (next & 0x3fu);
    }
    constexpr char32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < SMALLEST[length] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff))
        return {0, 0};
    return {value, length};
}

inline void appendUtf8(std::string &out, char32_t character) {
    const auto tail = [&out, character](int shift) {
        out += static_cast<char>(0x80 | ((character >> shift) & 0x3f));
    };
    if (character < 0x80) {
        out += static_cast<char>(character);
    } else if (character < 0x800) {
        out += static_cast<char>(0xc0 | character >> 6);
        tail(0);
    } else if (character < 0x10000) {
        out += static_cast<char>(0xe0 | character >> 12);
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xf0 | character >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

// The position of the first byte that is not part of a valid character, or npos.
inline size_t findInvalidUtf8(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        if (static_cast<unsigned char>(text[at]) < 0x80) {
            ++at;
            continue;
        }
        const Utf8Char c = decodeUtf8(text, at);
        if (c.length == 0)
            return at;
        at += c.length;
    }
    return std::string_view::npos;
}

// The text with U+FFFD for every byte that is not part of a valid character.
inline std::string repairedUtf8(std::string_view text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const Utf8Char c = decodeUtf8(text, at);
        if (c.length == 0)
            out += "\xef\xbf\xbd";
        else
            out.append(text, at, c.length);
        at += c.length != 0 ? c.length : 1;
    }
    return out;
}

} // namespace tools
