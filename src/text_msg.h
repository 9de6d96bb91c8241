// SPDX-License-Identifier: Apache-2.0
// The growable buffer that records are encoded into and read through.
#pragma once

#include "zoltlog.h"

#include <cstdint>

// The buffer's own storage, and the least by which it grows.
constexpr uint64_t TEXT_INLINE_SIZE = sizeof(TextBuffer::inlineStorage);

inline void startText(TextBuffer *buffer) {
    buffer->data = buffer->inlineStorage;
    buffer->free = TEXT_INLINE_SIZE;
    buffer->capacity = TEXT_INLINE_SIZE;
}

inline bool isOnHeap(const TextBuffer *buffer) {
    return buffer->capacity > TEXT_INLINE_SIZE;
}

inline uint64_t textLength(const TextBuffer *buffer) {
    return buffer->capacity - buffer->free;
}

// Ends the record at end, after a text_msg_alloc of an upper bound.
inline void textEndsAt(TextBuffer *buffer, const char *end) {
    buffer->free = buffer->capacity - static_cast<uint64_t>(end - buffer->data);
}

// text_msg_alloc, without a call when there is room.
inline char *reserve(TextBuffer *buffer, uint64_t n) {
    if (buffer->free <= n)
        return text_msg_alloc(buffer, n);
    char *reserved = buffer->data + textLength(buffer);
    buffer->free -= n;
    return reserved;
}
