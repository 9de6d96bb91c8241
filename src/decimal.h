// SPDX-License-Identifier: Apache-2.0
// Whole numbers as decimal text: written into records, headers and names, and read back
// as scanf reads them. Neither depends on the locale.
#pragma once

#include <cstddef>
#include <cstdint>

// Longest decimal text of a 64-bit number, sign included.
inline constexpr uint64_t MAX_DECIMAL = 20;

// Each returns where the number stops, without a terminator, and may have touched all of
// MAX_DECIMAL bytes.
char *putUnsigned(char *at, uint64_t value);
char *putSigned(char *at, int64_t value);

inline bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

inline const char *skipBlanks(const char *at) {
    while (isBlank(*at))
        ++at;
    return at;
}

inline constexpr size_t ANY_WIDTH = SIZE_MAX;

// Scanning of a terminated text as scanf's "%lu" and "%ld" do it: blanks are skipped, a
// sign is accepted, at most width characters from the sign on are taken, and too large a
// number becomes the largest (unsigned: a minus gives the two's complement). false, with
// out alone and *at anywhere, when there is no digit.
bool scanUnsigned(const char **at, size_t width, uint64_t *out);
bool scanSigned(const char **at, size_t width, int64_t *out);
