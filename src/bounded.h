// SPDX-License-Identifier: Apache-2.0
// The bounded copy of a text.
#pragma once

#include <cstddef>
#include <cstring>

// Copies what fits of a text into a field of size bytes, with an end. The text may be the
// field itself.
inline void copyBounded(char *field, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memmove(field, text, length);
    field[length] = '\0';
}

template<size_t N>
inline void copyBounded(char (&field)[N], const char *text) {
    copyBounded(field, N, text);
}
