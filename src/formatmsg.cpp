// SPDX-License-Identifier: Apache-2.0
// Localized text: turns the typed items of a localization block into text.
//
// This unit owns the look of every item type. It leaves the making of blocks
// (formats, catalogues) to the localization library and needs nothing but the calls of
// zoltlis.h; where the library has qdlisFormat, a text needs no block.
//
//   Where text goes              Sink: a fixed buffer that cuts, or one that grows
//   The look of each item type   appendItem, appendWide..., appendNumber
//   The writing pass             renderBlock
//   The measuring pass           measureItem, measureBlock
//   Exported operations          strncatlis, fstrncat, listxt_svnprintf
//   One item as wide text        zoltLogGetArg_asStringW, zoltLogWcsDup

#include "formatmsg.h"

#include "cmn_routines.h"
#include "qdlis.h"

#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>

namespace {

constexpr uint32_t NO_ITEM = ZOLTLIS_ITEM_NATIVE_STRING + 1; // the first number that is no item's

// What the measuring pass adds for types of bounded size.
const size_t MEASURED_WIDE_CHAR = 2;
const size_t MEASURED_INTEGER = 20;
const size_t MEASURED_DOUBLE = 15;
const size_t MEASURED_OS_ERROR = 10;
const size_t MEASURED_PREFIX = 51;

const size_t MEASURE_FAILED = SIZE_MAX;

const size_t INTEGER_ROOM = 24; // "-9223372036854775808", "0xffffffffffffffff"
const size_t DOUBLE_ROOM = 400; // -1.8e308 in "%f": 317 characters and a locale's decimal point
const size_t ASCTIME_ROOM = 26; // what asctime_r may write
const size_t WIDE_ROOM = 400;   // as DOUBLE_ROOM, and any "%c" date
const size_t FIRST_ROOM = 1024; // of a text, on the stack; longer ones move to the heap
const size_t WIDE_CHUNK = 256;  // bytes of a wide string converted at a time

enum Outcome { RENDERED, FAILED };

// ---- where text goes ---------------------------------------------------------

// Bytes are appended at data[length]; room includes the terminating NUL. A
// growing sink moves from its first storage (borrowed) to the heap and fails
// when memory ends; any other sink cuts what does not fit.
struct Sink {
    char *data;
    size_t length;
    size_t room;
    bool growing;
    bool onHeap;
    bool failed;
};

bool grow(Sink *sink, size_t more) {
    if (more > SIZE_MAX / 2 - sink->length) {
        sink->failed = true;
        return false;
    }
    const size_t room = (sink->length + more + 1) * 2;
    char *grown = static_cast<char *>(zoltLogMalloc(room));
    if (grown == nullptr) {
        sink->failed = true;
        return false;
    }
    memcpy(grown, sink->data, sink->length);
    if (sink->onHeap)
        zoltLogFree(sink->data);
    sink->data = grown;
    sink->room = room;
    sink->onHeap = true;
    return true;
}

void append(Sink *sink, const char *bytes, size_t count) {
    if (count >= sink->room - sink->length && !(sink->growing && grow(sink, count)))
        count = sink->room - sink->length - 1;
    memcpy(sink->data + sink->length, bytes, count);
    sink->length += count;
}

// ---- the look of each item type ------------------------------------------------

template<typename Number>
void appendNumber(Sink *sink, Number value) {
    char text[INTEGER_ROOM];
    append(sink, text, static_cast<size_t>(std::to_chars(text, text + sizeof text, value).ptr - text));
}

void appendPointer(Sink *sink, const void *value) {
    char text[INTEGER_ROOM] = {'0', 'x'};
    const auto number = reinterpret_cast<uintptr_t>(value);
    append(sink, text,
           static_cast<size_t>(std::to_chars(text + 2, text + sizeof text, number, 16).ptr - text));
}

void appendDouble(Sink *sink, double value) {
    char text[DOUBLE_ROOM];
    const int length = snprintf(text, sizeof text, "%f", value);
    if (length > 0)
        append(sink, text,
               static_cast<size_t>(length) < sizeof text ? static_cast<size_t>(length) : sizeof text - 1);
}

// Nothing at all is added for a character that the locale's encoding lacks.
void appendWideChar(Sink *sink, wchar_t value) {
    char text[MB_LEN_MAX];
    mbstate_t state = {};
    const size_t length = wcrtomb(text, value, &state);
    if (length != static_cast<size_t>(-1) && value != L'\0')
        append(sink, text, length);
}

// Likewise for a string with such a character: all or nothing.
void appendWideString(Sink *sink, const wchar_t *value) {
    mbstate_t state = {};
    const wchar_t *rest = value;
    if (wcsrtombs(nullptr, &rest, 0, &state) == static_cast<size_t>(-1))
        return;
    state = {};
    rest = value;
    while (rest != nullptr) {
        char chunk[WIDE_CHUNK];
        const size_t length = wcsrtombs(chunk, &rest, sizeof chunk, &state);
        if (length == static_cast<size_t>(-1))
            return; // another thread changed the locale
        append(sink, chunk, length);
    }
}

// The local time in asctime's form, with its newline; empty for a time that
// has no such form (a year beyond 9999).
const char *asctimeText(int64_t seconds, char (&text)[ASCTIME_ROOM]) {
    struct tm local;
    if (zoltLogOs_localtime_r(seconds, &local) == nullptr || asctime_r(&local, text) == nullptr)
        text[0] = '\0';
    return text;
}

void appendDateTime(Sink *sink, const ZoltLisDateTime &value) {
    char text[ASCTIME_ROOM];
    const size_t length = strlen(asctimeText(value.seconds, text));
    if (length == 0)
        return;
    append(sink, text, length);
    append(sink, " ", 1);
}

// ---- the writing pass ------------------------------------------------------------

// The identity of a message whose catalogue is missing, 0 for a found one.
Outcome readIdentity(ZoltLisBlock *block, int64_t *identity) {
    *identity = 0;
    return zoltLisGetTextId(block, identity) == 0 ? RENDERED : FAILED;
}

void appendPrefix(Sink *sink, int64_t identity) {
    char text[MEASURED_PREFIX + INTEGER_ROOM];
    const int length = snprintf(text, sizeof text, "[Cannot find catalog for message id=%ld] ", identity);
    append(sink, text, static_cast<size_t>(length));
}

Outcome renderBlock(Sink *sink, ZoltLisBlock *block, unsigned depth);

// One item, as its getter yields it.
union ItemValue {
    wchar_t wideChar;
    int64_t signedNumber;
    uint64_t unsignedNumber;
    double real;
    void *pointer;
    const wchar_t *wideString;
    const ZoltLisOsError *osError;
    ZoltLisDateTime dateTime;
    ZoltLisBlock *nested;
    const char *narrowString;
};

// Reads the current item with its type's getter. A text, error record or nested
// block that is null counts as a getter that failed.
bool readItem(ZoltLisIterator *argument, uint32_t type, ItemValue *value) {
    memset(value, 0, sizeof *value);
    switch (type) {
    case ZOLTLIS_ITEM_WIDE_CHAR:
        return zoltLisGetArg_wchar(argument, &value->wideChar) == 0;
    case ZOLTLIS_ITEM_SIGNED:
        return zoltLisGetArg_longlong(argument, &value->signedNumber) == 0;
    case ZOLTLIS_ITEM_UNSIGNED:
        return zoltLisGetArg_ulonglong(argument, &value->unsignedNumber) == 0;
    case ZOLTLIS_ITEM_DOUBLE:
        return zoltLisGetArg_double(argument, &value->real) == 0;
    case ZOLTLIS_ITEM_POINTER:
        return zoltLisGetArg_pointer(argument, &value->pointer) == 0;
    case ZOLTLIS_ITEM_WIDE_STRING:
        return zoltLisGetArg_wstring(argument, &value->wideString) == 0 && value->wideString != nullptr;
    case ZOLTLIS_ITEM_OS_ERROR:
    case ZOLTLIS_ITEM_OS_ERROR_OTHER:
        return zoltLisGetArg_os_error(argument, &value->osError) == 0 && value->osError != nullptr;
    case ZOLTLIS_ITEM_DATE_TIME:
        return zoltLisGetArg_datetime(argument, &value->dateTime) == 0;
    case ZOLTLIS_ITEM_NESTED:
        return zoltLisGetArg_lis(argument, &value->nested) == 0 && value->nested != nullptr;
    case ZOLTLIS_ITEM_UTF8_STRING:
        return zoltLisGetArg_utf8string(argument, &value->narrowString) == 0 &&
               value->narrowString != nullptr;
    case ZOLTLIS_ITEM_NATIVE_STRING:
        return zoltLisGetArg_nativeString(argument, &value->narrowString) == 0 &&
               value->narrowString != nullptr;
    default:
        return false;
    }
}

Outcome appendItem(Sink *sink, ZoltLisIterator *argument, uint32_t type, unsigned depth) {
    ItemValue value;
    if (!readItem(argument, type, &value))
        return FAILED;
    switch (type) {
    case ZOLTLIS_ITEM_WIDE_CHAR:
        appendWideChar(sink, value.wideChar);
        break;
    case ZOLTLIS_ITEM_SIGNED:
        appendNumber(sink, value.signedNumber);
        break;
    case ZOLTLIS_ITEM_UNSIGNED:
        appendNumber(sink, value.unsignedNumber);
        break;
    case ZOLTLIS_ITEM_DOUBLE:
        appendDouble(sink, value.real);
        break;
    case ZOLTLIS_ITEM_POINTER:
        appendPointer(sink, value.pointer);
        break;
    case ZOLTLIS_ITEM_WIDE_STRING:
        appendWideString(sink, value.wideString);
        break;
    case ZOLTLIS_ITEM_OS_ERROR:
    case ZOLTLIS_ITEM_OS_ERROR_OTHER:
        appendNumber(sink, static_cast<int32_t>(value.osError->code)); // the low half of the word
        break;
    case ZOLTLIS_ITEM_DATE_TIME:
        appendDateTime(sink, value.dateTime);
        break;
    case ZOLTLIS_ITEM_NESTED:
        return depth < ZOLTLIS_MAX_NESTING ? renderBlock(sink, value.nested, depth + 1) : FAILED;
    default: // ZOLTLIS_ITEM_UTF8_STRING, ZOLTLIS_ITEM_NATIVE_STRING
        append(sink, value.narrowString, strlen(value.narrowString));
    }
    return RENDERED;
}

Outcome renderBlock(Sink *sink, ZoltLisBlock *block, unsigned depth) {
    int64_t identity;
    if (readIdentity(block, &identity) == FAILED)
        return FAILED;
    if (identity != 0)
        appendPrefix(sink, identity);
    ZoltLisIterator argument = {};
    if (zoltLisGetArgsBegin(block, &argument) != 0)
        return RENDERED;
    for (;;) {
        uint32_t type = NO_ITEM;
        if (zoltLisGetArgTypeId(&argument, &type) != 0)
            return FAILED;
        if (type >= NO_ITEM)
            return RENDERED; // ends the text, with what there is
        if (appendItem(sink, &argument, type, depth) == FAILED)
            return FAILED;
        if (zoltLisGetNextArg(&argument) != 0)
            return RENDERED;
        if (identity != 0)
            append(sink, ",", 1);
    }
}

// ---- the measuring pass ------------------------------------------------------------

Outcome measureBlock(size_t *total, ZoltLisBlock *block, unsigned depth);

Outcome measureItem(size_t *total, ZoltLisIterator *argument, uint32_t type, unsigned depth) {
    ItemValue value;
    if (!readItem(argument, type, &value))
        return FAILED;
    switch (type) {
    case ZOLTLIS_ITEM_WIDE_CHAR:
        *total += MEASURED_WIDE_CHAR;
        break;
    case ZOLTLIS_ITEM_DOUBLE:
        *total += MEASURED_DOUBLE;
        break;
    case ZOLTLIS_ITEM_WIDE_STRING:
        *total += wcstombs(nullptr, value.wideString, 0) + 1; // -1, not convertible, makes 0
        break;
    case ZOLTLIS_ITEM_OS_ERROR:
    case ZOLTLIS_ITEM_OS_ERROR_OTHER:
        *total += MEASURED_OS_ERROR;
        break;
    case ZOLTLIS_ITEM_DATE_TIME: {
        char text[ASCTIME_ROOM];
        *total += strlen(asctimeText(value.dateTime.seconds, text));
        break;
    }
    case ZOLTLIS_ITEM_NESTED:
        return depth < ZOLTLIS_MAX_NESTING ? measureBlock(total, value.nested, depth + 1) : FAILED;
    case ZOLTLIS_ITEM_UTF8_STRING:
    case ZOLTLIS_ITEM_NATIVE_STRING:
        *total += strlen(value.narrowString) + 1;
        break;
    default: // ZOLTLIS_ITEM_SIGNED, ZOLTLIS_ITEM_UNSIGNED, ZOLTLIS_ITEM_POINTER
        *total += MEASURED_INTEGER;
    }
    return RENDERED;
}

Outcome measureBlock(size_t *total, ZoltLisBlock *block, unsigned depth) {
    int64_t identity;
    if (readIdentity(block, &identity) == FAILED)
        return FAILED;
    if (identity != 0)
        *total += MEASURED_PREFIX;
    ZoltLisIterator argument = {};
    if (zoltLisGetArgsBegin(block, &argument) != 0)
        return RENDERED;
    for (;;) {
        uint32_t type = NO_ITEM;
        if (zoltLisGetArgTypeId(&argument, &type) != 0)
            return FAILED;
        if (type >= NO_ITEM)
            return RENDERED;
        if (measureItem(total, &argument, type, depth) == FAILED)
            return FAILED;
        if (zoltLisGetNextArg(&argument) != 0)
            return RENDERED;
        if (identity != 0)
            *total += 1;
    }
}

// Whether strncatlis would measure more than 0: there is a prefix, or an item
// that counts. A block of nothing but empty nested texts has no text either.
bool hasText(ZoltLisBlock *block, const Sink &rendered) {
    if (rendered.length > 0)
        return true;
    size_t total = 0;
    return measureBlock(&total, block, 0) == RENDERED && total > 0;
}

// Renders all of block: into first when it fits there, else into a block from
// zoltLogMalloc. Null on failure. *any tells whether there was text at all.
char *renderWhole(ZoltLisBlock *block, char *first, size_t room, bool *any) {
    *any = false;
    Sink sink = {first, 0, room, true, false, false};
    const Outcome outcome = renderBlock(&sink, block, 0);
    if (outcome == FAILED || sink.failed) {
        if (sink.onHeap)
            zoltLogFree(sink.data);
        return nullptr;
    }
    sink.data[sink.length] = '\0';
    *any = hasText(block, sink);
    return sink.data;
}

// The rendered text as a block of the caller's own: copied out of first.
char *renderOwned(ZoltLisBlock *block, bool *any) {
    char first[FIRST_ROOM];
    char *text = renderWhole(block, first, sizeof first, any);
    if (text != first)
        return text;
    const size_t size = strlen(first) + 1;
    char *copy = static_cast<char *>(zoltLogMalloc(size));
    if (copy != nullptr)
        memcpy(copy, first, size);
    return copy;
}

bool isEmptyBlock(const ZoltLisBlock *block) {
    return block == nullptr || (block->word[0] == 0 && block->word[1] == 0 && block->word[2] == 0);
}

} // namespace

char *renderLisText(ZoltLisBlock *block) {
    if (isEmptyBlock(block))
        return nullptr;
    bool any;
    LogOwned<char> text(renderOwned(block, &any));
    return any ? text.release() : nullptr;
}

char *renderLisTextInto(ZoltLisBlock *block, char *buffer, size_t size) {
    if (isEmptyBlock(block) || buffer == nullptr || size == 0)
        return renderLisText(block);
    bool any;
    char *text = renderWhole(block, buffer, size, &any);
    if (any)
        return text;
    if (text != buffer)
        zoltLogFree(text);
    return nullptr;
}

// ---- exported operations -----------------------------------------------------------

extern "C" char *strncatlis(char *buffer, size_t *size, ZoltLisBlock *block) {
    if (size == nullptr)
        return nullptr;
    if (buffer == nullptr) {
        size_t total = 0;
        *size = measureBlock(&total, block, 0) == RENDERED ? total : MEASURE_FAILED;
        return nullptr;
    }
    const size_t length = strnlen(buffer, *size);
    if (length == *size) // no room at all: the items are read all the same, for the result
    {
        char none[1];
        Sink sink = {none, 0, sizeof none, false, false, false};
        if (renderBlock(&sink, block, 0) == RENDERED)
            return buffer;
    } else {
        Sink sink = {buffer, length, *size, false, false, false};
        const Outcome outcome = renderBlock(&sink, block, 0);
        buffer[sink.length] = '\0';
        if (outcome == RENDERED)
            return buffer;
    }
    *size = MEASURE_FAILED;
    return nullptr;
}

extern "C" char *fstrncat(char *buffer, size_t size, const char *format, ...) {
    if (buffer == nullptr || format == nullptr)
        return buffer;
    const size_t length = strnlen(buffer, size);
    if (length == size)
        return buffer;
    const LogOwned<char> scratch(static_cast<char *>(zoltLogMalloc(size))); // values may point into buffer
    if (scratch == nullptr)
        return buffer;
    va_list values;
    va_start(values, format);
    const int formatted = vsnprintf(scratch.get(), size, format, values);
    va_end(values);
    if (formatted < 0)
        return buffer;
    const size_t added = strnlen(scratch.get(), size - length - 1);
    memcpy(buffer + length, scratch.get(), added);
    buffer[length + added] = '\0';
    return buffer;
}

char *formatBlockInto(char *buffer, size_t size, const char *reference, va_list args) {
    ZoltLisBlock block = {};
    if (zoltLisTextV(&block, reference, args) != 0)
        return nullptr;
    bool any;
    char *text = renderWhole(&block, buffer, size, &any);
    zoltLisFree(&block);
    return text;
}

extern "C" uint32_t listxt_svnprintf(char **text, const char *reference, va_list args) {
    if (text == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    ZoltLisBlock block = {};
    char first[FIRST_ROOM];
    if (qdlisFormat != nullptr && qdlisFormat(zoltLisTextV, first, sizeof first, reference, args) >= 0) {
        *text = zoltLogSafeStrdup(first);
        return ZOLTLOG_OK;
    }
    if (zoltLisTextV(&block, reference, args) != 0)
        return ZOLTLOG_OK;
    bool any;
    *text = renderOwned(&block, &any);
    zoltLisFree(&block);
    return ZOLTLOG_OK;
}

// ---- one item as wide text -----------------------------------------------------------

namespace {

// The values in the format as a text of the caller's own, null without memory.
template<typename... Values>
wchar_t *wideFormatted(const wchar_t *format, Values... values) {
    wchar_t text[WIDE_ROOM];
    return swprintf(text, WIDE_ROOM, format, values...) < 0 ? nullptr : zoltLogWcsDup(text);
}

wchar_t *wideDate(int64_t seconds) {
    wchar_t text[WIDE_ROOM];
    struct tm local;
    if (zoltLogOs_localtime_r(seconds, &local) == nullptr || wcsftime(text, WIDE_ROOM, L"%c", &local) == 0)
        text[0] = L'\0';
    return zoltLogWcsDup(text);
}

uint32_t nativeToWide(const char *native, wchar_t **out) {
    const size_t length = mbstowcs(nullptr, native, 0);
    // KEPT: an empty native string fails as an invalid one does, while an empty UTF-8
    // string gives an empty text. Pinned by GetArgAsStringW.EmptyNativeStringFails.
    if (length == 0 || length == static_cast<size_t>(-1))
        return ZOLTLOG_FAILED;
    LogOwned<wchar_t> wide(static_cast<wchar_t *>(zoltLogMalloc((length + 1) * sizeof(wchar_t))));
    if (wide == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (mbstowcs(wide.get(), native, length + 1) != length)
        return ZOLTLOG_FAILED;
    *out = wide.release();
    return ZOLTLOG_OK;
}

// The item of the given type into *out; ZOLTLOG_OK with *out null when memory ended.
uint32_t itemToWide(ZoltLisIterator *argument, uint32_t type, wchar_t **out) {
    ItemValue value;
    if (type == ZOLTLIS_ITEM_NESTED || !readItem(argument, type, &value))
        return ZOLTLOG_FAILED;
    switch (type) {
    case ZOLTLIS_ITEM_WIDE_CHAR:
        *out = wideFormatted(L"%lc", static_cast<wint_t>(value.wideChar));
        break;
    case ZOLTLIS_ITEM_SIGNED:
        *out = wideFormatted(L"%lld", static_cast<long long>(value.signedNumber));
        break;
    case ZOLTLIS_ITEM_UNSIGNED:
        *out = wideFormatted(L"%llu", static_cast<unsigned long long>(value.unsignedNumber));
        break;
    case ZOLTLIS_ITEM_DOUBLE:
        *out = wideFormatted(L"%f", value.real);
        break;
    case ZOLTLIS_ITEM_POINTER:
        *out = wideFormatted(L"%#llx",
                             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(value.pointer)));
        break;
    case ZOLTLIS_ITEM_WIDE_STRING:
        *out = zoltLogWcsDup(value.wideString);
        break;
    case ZOLTLIS_ITEM_OS_ERROR:
    case ZOLTLIS_ITEM_OS_ERROR_OTHER:
        *out = wideFormatted(L"%lld", static_cast<long long>(value.osError->code));
        break;
    case ZOLTLIS_ITEM_DATE_TIME:
        *out = wideDate(value.dateTime.seconds);
        break;
    case ZOLTLIS_ITEM_UTF8_STRING:
        return utf82wcs(out, value.narrowString, -1);
    default: // ZOLTLIS_ITEM_NATIVE_STRING
        return nativeToWide(value.narrowString, out);
    }
    return ZOLTLOG_OK;
}

} // namespace

extern "C" uint32_t zoltLogGetArg_asStringW(ZoltLisIterator *argument, wchar_t **out) {
    if (argument == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    uint32_t type = NO_ITEM;
    if (zoltLisGetArgTypeId(argument, &type) != 0)
        return ZOLTLOG_FAILED;
    wchar_t *text = nullptr;
    const uint32_t result = itemToWide(argument, type, &text);
    if (result != ZOLTLOG_OK)
        return result;
    if (text == nullptr)
        return ZOLTLOG_NO_MEMORY;
    *out = text;
    return ZOLTLOG_OK;
}

extern "C" wchar_t *zoltLogWcsDup(const wchar_t *text) {
    if (text == nullptr)
        return nullptr;
    const size_t size = (wcslen(text) + 1) * sizeof(wchar_t);
    wchar_t *copy = static_cast<wchar_t *>(zoltLogMalloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}
