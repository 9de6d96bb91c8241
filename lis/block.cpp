// SPDX-License-Identifier: Apache-2.0
// Storage of a block: its items, the iterator over them and the getters.

#include "lis.h"

#include <cstdlib>

namespace {

const size_t FIRST_ROOM = 256;

// An iterator: where the current item starts, and where the items end.
enum { AT = 0, END = 1 };

// The words of a block: its storage, the identity of a message without a
// catalogue, and a mark that no empty block has.
enum { STORAGE = 0, IDENTITY = 1, MARK = 2 };
const uintptr_t BLOCK_MARK = 0x71646c69; // "qdli"

size_t roomFor(size_t size) {
    return sizeof(Storage) + size;
}

void fail(Builder *builder, LisResult result) {
    if (builder->result == ZOLTLIS_OK)
        builder->result = result;
}

__attribute__((noinline)) bool growRoom(Builder *builder, size_t more) {
    Storage *storage = builder->storage;
    if (more > SIZE_MAX / 4 - storage->used) {
        fail(builder, ZOLTLIS_NO_MEMORY);
        return false;
    }
    const size_t room = padded((storage->used + more) * 2);
    Storage *grown = static_cast<Storage *>(realloc(storage, roomFor(room)));
    if (grown == nullptr) {
        fail(builder, ZOLTLIS_NO_MEMORY);
        return false;
    }
    grown->room = room;
    builder->storage = grown;
    return true;
}

// Makes room for more bytes of items.
inline bool makeRoom(Builder *builder, size_t more) {
    return builder->storage->room - builder->storage->used >= more || growRoom(builder, more);
}

bool adds(const Builder *builder) {
    return builder->result == ZOLTLIS_OK && !builder->closed;
}

void freeStorage(Storage *storage) {
    if (storage == nullptr)
        return;
    if (storage->nested) {
        char *items = itemsOf(storage);
        for (size_t at = 0; at < storage->used;) {
            ItemWord word;
            memcpy(&word, items + at, sizeof word);
            at += sizeof word;
            if (itemType(word) == ZOLTLIS_ITEM_NESTED)
                zoltLisFree(reinterpret_cast<ZoltLisBlock *>(items + at));
            at += padded(itemPayload(word));
        }
    }
    free(storage);
}

} // namespace

// ---- building -------------------------------------------------------------------------

void startBlock(Builder *builder, bool utf8, size_t expected) {
    const size_t room = padded(expected > FIRST_ROOM ? expected : FIRST_ROOM);
    *builder = {static_cast<Storage *>(malloc(roomFor(room))), NO_TEXT, false, ZOLTLIS_OK};
    if (builder->storage == nullptr)
        builder->result = ZOLTLIS_NO_MEMORY;
    else
        *builder->storage = {0, room, utf8, false, false, 0};
}

void resumeBlock(Builder *builder, ZoltLisBlock *block) {
    *builder = {storageOf(block), NO_TEXT, false, ZOLTLIS_OK};
    *block = {};
}

int32_t finishBlock(Builder *builder, ZoltLisBlock *block, int64_t identity) {
    *block = {};
    if (builder->result != ZOLTLIS_OK) {
        freeStorage(builder->storage);
        builder->storage = nullptr;
        return builder->result;
    }
    block->word[STORAGE] = reinterpret_cast<uintptr_t>(builder->storage);
    block->word[IDENTITY] = static_cast<uintptr_t>(identity);
    block->word[MARK] = BLOCK_MARK;
    return ZOLTLIS_OK;
}

void *addItem(Builder *builder, ItemType type, size_t payload) {
    const size_t size = sizeof(ItemWord) + padded(payload);
    if (!adds(builder) || !makeRoom(builder, size))
        return nullptr;
    Storage *storage = builder->storage;
    char *item = itemsOf(storage) + storage->used;
    const ItemWord word = itemWord(type, payload);
    memcpy(item, &word, sizeof word);
    storage->used += size;
    storage->nested |= type == ZOLTLIS_ITEM_NESTED;
    builder->openText = NO_TEXT;
    return item + sizeof word;
}

void addLiteral(Builder *builder, const char *bytes, size_t count) {
    if (count == 0 || !adds(builder))
        return;
    if (builder->openText == NO_TEXT) {
        const size_t start = builder->storage->used;
        addNarrow(builder, narrowType(builder), bytes, count);
        if (builder->result == ZOLTLIS_OK)
            builder->openText = start;
        return;
    }
    if (!makeRoom(builder, padded(count)))
        return;
    Storage *storage = builder->storage;
    char *item = itemsOf(storage) + builder->openText;
    ItemWord word;
    memcpy(&word, item, sizeof word);
    const size_t before = itemPayload(word); // with its NUL
    memcpy(item + sizeof word + before - 1, bytes, count);
    item[sizeof word + before - 1 + count] = '\0';
    word = itemWord(narrowType(builder), before + count);
    memcpy(item, &word, sizeof word);
    storage->used = builder->openText + sizeof word + padded(before + count);
}

char *scratchRoom(Builder *builder, size_t least, size_t *room) {
    if (least > SIZE_MAX / 8) {
        fail(builder, ZOLTLIS_NO_MEMORY);
        return nullptr;
    }
    if (!adds(builder) || !makeRoom(builder, sizeof(ItemWord) + padded(least)))
        return nullptr;
    Storage *storage = builder->storage;
    const size_t at = storage->used + sizeof(ItemWord);
    *room = storage->room - at;
    return itemsOf(storage) + at;
}

namespace {

// A text that is to be added may lie in the very block, which moves when it grows.
struct Source {
    Source(const Builder *builder, const void *text) : bytes(static_cast<const char *>(text)) {
        const Storage *storage = builder->storage;
        if (storage == nullptr)
            return;
        const uintptr_t items = reinterpret_cast<uintptr_t>(storage + 1);
        const uintptr_t at = reinterpret_cast<uintptr_t>(text);
        isInside = at >= items && at - items < storage->room;
        offset = at - items;
    }
    const char *now(const Builder *builder) const {
        return isInside ? itemsOf(builder->storage) + offset : bytes;
    }

    const char *bytes;
    size_t offset = 0;
    bool isInside = false;
};

} // namespace

void addNarrow(Builder *builder, ItemType type, const char *text, size_t count) {
    const Source source(builder, text);
    char *payload = static_cast<char *>(addItem(builder, type, count + 1));
    if (payload == nullptr)
        return;
    const char *bytes = source.now(builder);
    if (payload != bytes)
        memcpy(payload, bytes, count);
    payload[count] = '\0';
}

void addWide(Builder *builder, const wchar_t *text) {
    const size_t size = (wcslen(text) + 1) * sizeof *text;
    const Source source(builder, text);
    void *payload = addItem(builder, ZOLTLIS_ITEM_WIDE_STRING, size);
    if (payload != nullptr)
        memcpy(payload, source.now(builder), size);
}

void addReady(Builder *builder, const void *items, size_t size) {
    if (!adds(builder) || !makeRoom(builder, size))
        return;
    Storage *storage = builder->storage;
    memcpy(itemsOf(storage) + storage->used, items, size);
    storage->used += size;
    builder->openText = NO_TEXT;
}

void addCopy(Builder *builder, const char *payload) {
    ItemWord word;
    memcpy(&word, payload - sizeof word, sizeof word);
    void *copy = addItem(builder, static_cast<ItemType>(itemType(word)), itemPayload(word));
    if (copy != nullptr)
        memcpy(copy, payload, itemPayload(word));
}

Storage *storageOf(const ZoltLisBlock *block) {
    Storage *storage;
    memcpy(&storage, &block->word[STORAGE], sizeof block->word[STORAGE]);
    return storage;
}

// ---- a finished block -------------------------------------------------------------------

extern "C" int32_t zoltLisFree(ZoltLisBlock *block) {
    if (block == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    freeStorage(storageOf(block));
    *block = {};
    return ZOLTLIS_OK;
}

extern "C" int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity) {
    if (block == nullptr || identity == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    *identity = static_cast<int64_t>(block->word[IDENTITY]);
    return ZOLTLIS_OK;
}

extern "C" int32_t zoltLisGetArgsBegin(ZoltLisBlock *block, ZoltLisIterator *argument) {
    if (block == nullptr || argument == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    *argument = {};
    Storage *storage = storageOf(block);
    if (storage == nullptr || storage->used == 0)
        return ZOLTLIS_NO_MORE;
    argument->word[AT] = reinterpret_cast<uintptr_t>(itemsOf(storage));
    argument->word[END] = argument->word[AT] + storage->used;
    return ZOLTLIS_OK;
}

namespace {

// The current item's word, or null when the iterator is at its end.
const ItemWord *current(const ZoltLisIterator *argument) {
    if (argument == nullptr || argument->word[AT] >= argument->word[END])
        return nullptr;
    const ItemWord *item;
    memcpy(&item, &argument->word[AT], sizeof argument->word[AT]);
    return item;
}

// The payload of the current item when it is of one of the two types.
const void *payloadOf(const ZoltLisIterator *argument, uint32_t type, uint32_t otherType) {
    const ItemWord *word = current(argument);
    if (word == nullptr || (itemType(*word) != type && itemType(*word) != otherType))
        return nullptr;
    return word + 1;
}

template<typename Plain>
int32_t getValue(const ZoltLisIterator *argument, ItemType type, Plain *out) {
    const void *payload = payloadOf(argument, type, type);
    if (payload == nullptr || out == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    memcpy(out, payload, sizeof *out);
    return ZOLTLIS_OK;
}

template<typename Pointee>
int32_t getAddress(const ZoltLisIterator *argument, ItemType type, ItemType otherType, Pointee **out) {
    const void *payload = payloadOf(argument, type, otherType);
    if (payload == nullptr || out == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    *out = static_cast<Pointee *>(const_cast<void *>(payload));
    return ZOLTLIS_OK;
}

} // namespace

extern "C" int32_t zoltLisGetNextArg(ZoltLisIterator *argument) {
    const ItemWord *word = current(argument);
    if (word == nullptr)
        return ZOLTLIS_NO_MORE;
    argument->word[AT] += sizeof *word + padded(itemPayload(*word));
    return current(argument) == nullptr ? ZOLTLIS_NO_MORE : ZOLTLIS_OK;
}

extern "C" int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type) {
    const ItemWord *word = current(argument);
    if (word == nullptr || type == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    *type = itemType(*word);
    return ZOLTLIS_OK;
}

extern "C" int32_t zoltLisGetArg_wchar(ZoltLisIterator *argument, wchar_t *out) {
    return getValue(argument, ZOLTLIS_ITEM_WIDE_CHAR, out);
}

extern "C" int32_t zoltLisGetArg_longlong(ZoltLisIterator *argument, int64_t *out) {
    return getValue(argument, ZOLTLIS_ITEM_SIGNED, out);
}

extern "C" int32_t zoltLisGetArg_ulonglong(ZoltLisIterator *argument, uint64_t *out) {
    return getValue(argument, ZOLTLIS_ITEM_UNSIGNED, out);
}

extern "C" int32_t zoltLisGetArg_double(ZoltLisIterator *argument, double *out) {
    return getValue(argument, ZOLTLIS_ITEM_DOUBLE, out);
}

extern "C" int32_t zoltLisGetArg_pointer(ZoltLisIterator *argument, void **out) {
    return getValue(argument, ZOLTLIS_ITEM_POINTER, out);
}

extern "C" int32_t zoltLisGetArg_wstring(ZoltLisIterator *argument, const wchar_t **out) {
    return getAddress(argument, ZOLTLIS_ITEM_WIDE_STRING, ZOLTLIS_ITEM_WIDE_STRING, out);
}

extern "C" int32_t zoltLisGetArg_os_error(ZoltLisIterator *argument, const ZoltLisOsError **out) {
    return getAddress(argument, ZOLTLIS_ITEM_OS_ERROR, ZOLTLIS_ITEM_OS_ERROR_OTHER, out);
}

extern "C" int32_t zoltLisGetArg_datetime(ZoltLisIterator *argument, ZoltLisDateTime *out) {
    return getValue(argument, ZOLTLIS_ITEM_DATE_TIME, out);
}

extern "C" int32_t zoltLisGetArg_lis(ZoltLisIterator *argument, ZoltLisBlock **out) {
    return getAddress(argument, ZOLTLIS_ITEM_NESTED, ZOLTLIS_ITEM_NESTED, out);
}

extern "C" int32_t zoltLisGetArg_utf8string(ZoltLisIterator *argument, const char **out) {
    return getAddress(argument, ZOLTLIS_ITEM_UTF8_STRING, ZOLTLIS_ITEM_UTF8_STRING, out);
}

extern "C" int32_t zoltLisGetArg_nativeString(ZoltLisIterator *argument, const char **out) {
    return getAddress(argument, ZOLTLIS_ITEM_NATIVE_STRING, ZOLTLIS_ITEM_NATIVE_STRING, out);
}
