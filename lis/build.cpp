// SPDX-License-Identifier: Apache-2.0
// The calls of qdlis.h: catalogues, and blocks item by item.

#include "lis.h"
#include "qdlis.h"

#include <cerrno>
#include <cstdlib>

namespace {

int64_t identityOf(ZoltLisBlock *block) {
    int64_t identity = 0;
    (void)zoltLisGetTextId(block, &identity);
    return identity;
}

// Runs add on the block's builder. A failure leaves the block as it was.
template<typename Add>
int32_t addTo(ZoltLisBlock *block, Add add) {
    if (block == nullptr || storageOf(block) == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    const int64_t identity = identityOf(block);
    Builder builder;
    resumeBlock(&builder, block);
    add(&builder);
    const LisResult result = builder.result;
    builder.result = ZOLTLIS_OK;
    (void)finishBlock(&builder, block, identity);
    return result;
}

template<typename Plain>
int32_t addPlain(ZoltLisBlock *block, ItemType type, const Plain &value) {
    return addTo(block, [&](Builder *builder) { addValue(builder, type, value); });
}

int32_t addText(ZoltLisBlock *block, ItemType type, const char *text) {
    if (text == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    return addTo(block, [&](Builder *builder) { addNarrow(builder, type, text, strlen(text)); });
}

// ---- looking a built message up ---------------------------------------------------------

const ArgumentType TYPES[] = {
    {CLASS_CHAR, FETCH_WINT, 0, false, true},        // ZOLTLIS_ITEM_WIDE_CHAR
    {CLASS_INTEGER, FETCH_LONG, 64, true, false},    // ZOLTLIS_ITEM_SIGNED
    {CLASS_INTEGER, FETCH_LONG, 64, false, false},   // ZOLTLIS_ITEM_UNSIGNED
    {CLASS_FLOAT, FETCH_DOUBLE, 0, true, false},     // ZOLTLIS_ITEM_DOUBLE
    {CLASS_POINTER, FETCH_POINTER, 0, false, false}, // ZOLTLIS_ITEM_POINTER
    {CLASS_STRING, FETCH_POINTER, 0, false, true},   // ZOLTLIS_ITEM_WIDE_STRING
    {CLASS_OPAQUE, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_OS_ERROR
    {CLASS_OPAQUE, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_OS_ERROR_OTHER
    {CLASS_OPAQUE, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_DATE_TIME
    {CLASS_OPAQUE, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_NESTED
    {CLASS_STRING, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_UTF8_STRING
    {CLASS_STRING, FETCH_POINTER, 0, false, false},  // ZOLTLIS_ITEM_NATIVE_STRING
};

// The arguments of a built block: its items.
struct BuiltArguments {
    int count;
    ArgumentType *types;
    Value *values;
    const char **payloads; // null for an opaque one that the message has taken
    char *key;             // one letter for each item's type
};

void freeArguments(BuiltArguments *arguments) {
    free(arguments->types);
    free(arguments->values);
    free(arguments->payloads);
    free(arguments->key);
}

void readValue(uint32_t type, const char *payload, Value *value) {
    *value = {};
    switch (type) {
    case ZOLTLIS_ITEM_WIDE_CHAR: {
        wchar_t character;
        memcpy(&character, payload, sizeof character);
        value->integer = static_cast<wint_t>(character);
        break;
    }
    case ZOLTLIS_ITEM_SIGNED:
    case ZOLTLIS_ITEM_UNSIGNED:
    case ZOLTLIS_ITEM_DOUBLE:
    case ZOLTLIS_ITEM_POINTER:
        memcpy(value, payload, sizeof(int64_t));
        break;
    default:
        value->pointer = payload;
    }
}

// Where the item that starts at an offset of the storage has its payload; the
// offset moves on to the next item.
const char *nextPayload(Storage *storage, size_t *at, uint32_t *type) {
    ItemWord word;
    const char *item = itemsOf(storage) + *at;
    memcpy(&word, item, sizeof word);
    *type = itemType(word);
    *at += sizeof word + padded(itemPayload(word));
    return item + sizeof word;
}

// false without memory
bool readArguments(Storage *storage, BuiltArguments *out) {
    *out = {};
    uint32_t type;
    size_t count = 0;
    for (size_t at = 0; at < storage->used; ++count)
        (void)nextPayload(storage, &at, &type);
    out->types = static_cast<ArgumentType *>(malloc((count + 1) * sizeof *out->types));
    out->values = static_cast<Value *>(malloc((count + 1) * sizeof *out->values));
    out->payloads = static_cast<const char **>(malloc((count + 1) * sizeof *out->payloads));
    out->key = static_cast<char *>(malloc(count + 1));
    if (out->types == nullptr || out->values == nullptr || out->payloads == nullptr || out->key == nullptr)
        return false;
    size_t i = 0;
    for (size_t at = 0; at < storage->used; ++i) {
        out->payloads[i] = nextPayload(storage, &at, &type);
        out->types[i] = TYPES[type];
        readValue(type, out->payloads[i], out->values + i);
        out->key[i] = static_cast<char>('a' + type);
    }
    out->key[i] = '\0';
    out->count = static_cast<int>(i);
    return true;
}

// Nested blocks that the message shows have moved there; the old storage no
// longer owns them.
void forgetTaken(const BuiltArguments &arguments) {
    for (int i = 0; i < arguments.count; ++i) {
        if (arguments.key[i] == 'a' + ZOLTLIS_ITEM_NESTED && arguments.payloads[i] == nullptr)
            *static_cast<ZoltLisBlock *>(const_cast<void *>(arguments.values[i].pointer)) = {};
    }
}

// Makes block the shown message out of its own items.
LisResult replaceItems(ZoltLisBlock *block, const Shown *shown, BuiltArguments *arguments) {
    Builder builder;
    startBlock(&builder, storageOf(block)->utf8, storageOf(block)->used);
    addShown(&builder, shown, arguments->values, arguments->payloads, errno);
    if (builder.result != ZOLTLIS_OK && builder.storage != nullptr)
        builder.storage->nested = false; // what was copied still belongs to the block
    ZoltLisBlock made;
    const int32_t result = finishBlock(&builder, &made, 0);
    if (result != ZOLTLIS_OK)
        return static_cast<LisResult>(result);
    storageOf(&made)->inner = storageOf(block)->inner;
    storageOf(&made)->depth = storageOf(block)->depth;
    forgetTaken(*arguments);
    (void)zoltLisFree(block);
    *block = made;
    return ZOLTLIS_OK;
}

} // namespace

extern "C" int32_t qdlisAddCatalog(const char *package) {
    return package == nullptr || *package == '\0' ? ZOLTLIS_INVALID_ARGUMENT : addCatalog(package);
}

extern "C" int32_t qdlisBegin(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber) {
    if (block == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    Builder builder;
    startBlock(&builder, utf8 != 0, 0);
    return finishBlock(&builder, block, messageNumber);
}

extern "C" int32_t qdlisAddWideChar(ZoltLisBlock *block, wchar_t value) {
    return addPlain(block, ZOLTLIS_ITEM_WIDE_CHAR, value);
}

extern "C" int32_t qdlisAddSigned(ZoltLisBlock *block, int64_t value) {
    return addPlain(block, ZOLTLIS_ITEM_SIGNED, value);
}

extern "C" int32_t qdlisAddUnsigned(ZoltLisBlock *block, uint64_t value) {
    return addPlain(block, ZOLTLIS_ITEM_UNSIGNED, value);
}

extern "C" int32_t qdlisAddDouble(ZoltLisBlock *block, double value) {
    return addPlain(block, ZOLTLIS_ITEM_DOUBLE, value);
}

extern "C" int32_t qdlisAddPointer(ZoltLisBlock *block, const void *value) {
    return addPlain(block, ZOLTLIS_ITEM_POINTER, value);
}

extern "C" int32_t qdlisAddWideString(ZoltLisBlock *block, const wchar_t *text) {
    if (text == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    return addTo(block, [&](Builder *builder) { addWide(builder, text); });
}

extern "C" int32_t qdlisAddOsError(ZoltLisBlock *block, uint32_t kind, int64_t code) {
    if (kind != QDLIS_ERRNO && kind != QDLIS_OTHER_ERROR)
        return ZOLTLIS_INVALID_ARGUMENT;
    const ZoltLisOsError error = {kind, code};
    return addPlain(block, kind == QDLIS_ERRNO ? ZOLTLIS_ITEM_OS_ERROR : ZOLTLIS_ITEM_OS_ERROR_OTHER, error);
}

extern "C" int32_t qdlisAddDateTime(ZoltLisBlock *block, int64_t seconds, int64_t nanoseconds) {
    const ZoltLisDateTime time = {seconds, nanoseconds};
    return addPlain(block, ZOLTLIS_ITEM_DATE_TIME, time);
}

extern "C" int32_t qdlisAddUtf8String(ZoltLisBlock *block, const char *text) {
    return addText(block, ZOLTLIS_ITEM_UTF8_STRING, text);
}

extern "C" int32_t qdlisAddNativeString(ZoltLisBlock *block, const char *text) {
    return addText(block, ZOLTLIS_ITEM_NATIVE_STRING, text);
}

extern "C" int32_t qdlisAddBlock(ZoltLisBlock *block, ZoltLisBlock *nested) {
    if (block == nullptr || nested == nullptr || nested == block)
        return ZOLTLIS_INVALID_ARGUMENT;
    // A block inside of another is reached by a pointer of its getter: adding to it would
    // pass the limit or close a circle, taking it away would pull it from under its owner.
    Storage *inner = storageOf(nested);
    if (inner == nullptr || storageOf(block) == nullptr || inner->inner || storageOf(block)->inner)
        return ZOLTLIS_INVALID_ARGUMENT;
    const uint8_t depth = static_cast<uint8_t>(inner->depth + 1);
    if (depth > ZOLTLIS_MAX_NESTING)
        return ZOLTLIS_INVALID_ARGUMENT;
    const int32_t result = addPlain(block, ZOLTLIS_ITEM_NESTED, *nested);
    if (result == ZOLTLIS_OK) {
        inner->inner = true;
        *nested = {};
        if (storageOf(block)->depth < depth)
            storageOf(block)->depth = depth;
    }
    return result;
}

extern "C" int32_t qdlisLookUp(ZoltLisBlock *block) {
    if (block == nullptr || storageOf(block) == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    const int64_t number = identityOf(block);
    if (number == 0)
        return ZOLTLIS_OK;
    BuiltArguments arguments;
    LisResult result = ZOLTLIS_NO_MEMORY;
    if (readArguments(storageOf(block), &arguments)) {
        const Shown *shown = nullptr;
        result = findBuiltMessage(number, storageOf(block)->utf8, arguments.key, arguments.types,
                                  arguments.count, &shown);
        if (shown != nullptr) {
            result = replaceItems(block, shown, &arguments);
            releaseMessage(shown);
        }
    }
    freeArguments(&arguments);
    return result;
}

extern "C" int32_t qdlisPatternArguments(const char *pattern, char *letters, size_t size) {
    static const char LETTERS[] = {'-', 'd', 'f', 'c', 's', 'p'}; // in the order of ArgumentClass
    if (pattern == nullptr || letters == nullptr || size == 0)
        return ZOLTLIS_INVALID_ARGUMENT;
    Program *program;
    LisResult result = compileFormat(pattern, true, &program);
    if (result != ZOLTLIS_OK)
        return result;
    for (size_t k = 0; k < program->pieceCount; ++k) {
        if (program->pieces[k].shown.letter == 'm')
            result = ZOLTLIS_INVALID_ARGUMENT; // it tells an error of the calling program
    }
    size_t i = 0;
    for (; i < static_cast<size_t>(program->argumentCount) && i < size - 1; ++i)
        letters[i] = LETTERS[program->arguments[i].what];
    letters[i] = '\0';
    free(program);
    return result;
}
