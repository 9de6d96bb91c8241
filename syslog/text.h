// SPDX-License-Identifier: Apache-2.0
// The text of a message: as the program formatted it, and as a record holds it.
#pragma once

#include "grown.h"

#include <cstdarg>
#include <cstddef>

// Most texts fit into the room; longer ones lie on the heap, or are cut without memory.
struct FormattedText {
    // cppcheck-suppress uninitMemberVar ; the room is filled with the text
    FormattedText() = default;
    ~FormattedText() {
        if (text != room)
            free(text);
    }
    FormattedText(const FormattedText &) = delete;
    FormattedText &operator=(const FormattedText &) = delete;

    // "%m" tells callersError. flag is that of the fortified calls, 0 for the others. A line
    // feed at the end is dropped. False for what printf cannot format.
    bool format(int callersError, int flag, const char *format, va_list args);

    char *text = room; // valid once formatted
    size_t length = 0;
    char room[1024];
};

// The text in UTF-8: itself when it is that already, else what is put into converted. In a
// locale of UTF-8 or none the text is taken as UTF-8, else in the locale's encoding; bytes
// that are no character become \xff. Null without memory.
const char *inUtf8(const char *text, Grown<char> *converted);
