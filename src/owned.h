// SPDX-License-Identifier: Apache-2.0
// The owner of a block of malloc's or zoltLogMalloc's, and of a text made of two.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

struct LogFree {
    void operator()(void *block) const { free(block); }
};
template<typename T>
using LogOwned = std::unique_ptr<T, LogFree>;

// One text behind another, null when out of memory. For a path: the directory as it
// stands, which ends in "/" wherever directories are listed or configured.
inline LogOwned<char> joinedText(const char *first, const char *second) {
    const size_t length = strlen(first);
    const size_t rest = strlen(second) + 1;
    LogOwned<char> text(static_cast<char *>(malloc(length + rest)));
    if (text != nullptr)
        memcpy(mempcpy(text.get(), first, length), second, rest);
    return text;
}
