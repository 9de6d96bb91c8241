// SPDX-License-Identifier: Apache-2.0
// The growable text buffer: storage, growth, and the end of a record.
#include "text_msg.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// No reservation is larger, so that no sum of sizes overflows.
const uint64_t LARGEST_RESERVATION = UINT64_MAX / 4;

} // namespace

void init_text_msg(TextBuffer *buffer) {
    if (buffer != nullptr)
        startText(buffer);
}

void free_text_msg(TextBuffer *buffer) {
    if (buffer == nullptr)
        return;
    if (isOnHeap(buffer))
        free(buffer->data);
    startText(buffer); // a second release is harmless
}

namespace {

// Makes room for n bytes and more. When a heap block cannot grow it is released
// and the buffer is empty again.
bool grow(TextBuffer *buffer, uint64_t n) {
    if (n > LARGEST_RESERVATION)
        return false;
    const uint64_t used = textLength(buffer);
    uint64_t capacity = buffer->capacity + TEXT_INLINE_SIZE;
    if (capacity < n + used)
        capacity += n;

    const bool onHeap = isOnHeap(buffer);
    char *block = static_cast<char *>(onHeap ? realloc(buffer->data, capacity) : zoltLogMalloc(capacity));
    if (block == nullptr) {
        if (onHeap)
            free_text_msg(buffer);
        return false;
    }
    if (!onHeap)
        memcpy(block, buffer->data, used);
    buffer->data = block;
    buffer->capacity = capacity;
    buffer->free = capacity - used;
    return true;
}

} // namespace

char *text_msg_alloc(TextBuffer *buffer, uint64_t n) {
    // KEPT: the buffer grows also when exactly n bytes are free. Pinned by
    // TextBuffer.GrowsWhenExactlyTheFreeBytesAreAskedFor.
    if (buffer == nullptr || (buffer->free <= n && !grow(buffer, n)))
        return nullptr;
    char *reserved = buffer->data + textLength(buffer);
    buffer->free -= n;
    return reserved;
}

void remove_trailing_comma(TextBuffer *buffer) {
    if (buffer == nullptr)
        return;
    const uint64_t length = textLength(buffer);
    if (length > 0 && buffer->data[length - 1] == ',')
        ++buffer->free;
}

uint32_t mark_end_of_txt_msg(TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char *end = text_msg_alloc(buffer, 1);
    if (end == nullptr)
        return ZOLTLOG_NO_MEMORY;
    char *at = buffer->data;
    while ((at = static_cast<char *>(memchr(at, '\n', static_cast<size_t>(end - at)))) != nullptr)
        *at++ = '\r';
    *end = '\n';
    return ZOLTLOG_OK;
}
