// SPDX-License-Identifier: Apache-2.0
#include "decimal.h"

#include <charconv>

char *putUnsigned(char *at, uint64_t value) {
    if (value < 10) { // most numbers of a record
        *at = static_cast<char>('0' + value);
        return at + 1;
    }
    return std::to_chars(at, at + MAX_DECIMAL, value).ptr;
}

char *putSigned(char *at, int64_t value) {
    if (value >= 0)
        return putUnsigned(at, static_cast<uint64_t>(value));
    return std::to_chars(at, at + MAX_DECIMAL, value).ptr;
}

namespace {

// A sign and digits; a magnitude that does not fit is UINT64_MAX with overflow set.
struct Scanned {
    bool negative;
    bool overflow;
    uint64_t magnitude;
};

bool scanNumber(const char **cursor, size_t width, Scanned *out) {
    const char *at = skipBlanks(*cursor);
    *out = {false, false, 0};
    if (width > 1 && (*at == '-' || *at == '+')) {
        out->negative = *at == '-';
        ++at;
        --width;
    }
    const char *end = at;
    for (; width > 0 && isDigit(*end); --width)
        ++end;
    *cursor = end;
    if (end == at)
        return false;
    if (std::from_chars(at, end, out->magnitude).ec != std::errc()) {
        out->overflow = true;
        out->magnitude = UINT64_MAX;
    }
    return true;
}

} // namespace

bool scanUnsigned(const char **at, size_t width, uint64_t *out) {
    Scanned number;
    if (!scanNumber(at, width, &number))
        return false;
    *out = number.negative && !number.overflow ? 0 - number.magnitude : number.magnitude;
    return true;
}

bool scanSigned(const char **at, size_t width, int64_t *out) {
    Scanned number;
    if (!scanNumber(at, width, &number))
        return false;
    if (number.negative)
        *out = number.magnitude > INT64_MAX ? INT64_MIN : -static_cast<int64_t>(number.magnitude);
    else
        *out = number.magnitude > INT64_MAX ? INT64_MAX : static_cast<int64_t>(number.magnitude);
    return true;
}
