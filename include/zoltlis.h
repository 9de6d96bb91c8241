/* SPDX-License-Identifier: Apache-2.0 */
/*
 * zoltlis.h - the calls that the logging library expects of the localization
 * library libqdlis.so.3.
 *
 * A localization text is a block of three words: a message's identity and a
 * list of typed items (pieces of text and argument values). The block is zeroed
 * by the caller, filled by zoltLisVEx or zoltLisTextV, walked with an iterator
 * and released with zoltLisFree. Every call returns ZOLTLIS_OK or another ZOLTLIS_...
 */
#ifndef ZOLTLIS_H
#define ZOLTLIS_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Results of the calls. Every other number is a failure, too. */
enum {
    ZOLTLIS_OK = 0,
    ZOLTLIS_NO_MORE = -1, /* there is no item, or no further one */
    ZOLTLIS_INVALID_ARGUMENT = -2,
    ZOLTLIS_NO_MEMORY = -3,
    ZOLTLIS_FAILED = -4 /* inside the library, or in its catalogues */
};

/* Types of the items of a block, in the order of the getters */
enum {
    ZOLTLIS_ITEM_WIDE_CHAR = 0,
    ZOLTLIS_ITEM_SIGNED = 1,
    ZOLTLIS_ITEM_UNSIGNED = 2,
    ZOLTLIS_ITEM_DOUBLE = 3,
    ZOLTLIS_ITEM_POINTER = 4,
    ZOLTLIS_ITEM_WIDE_STRING = 5,
    ZOLTLIS_ITEM_OS_ERROR = 6,       /* an errno */
    ZOLTLIS_ITEM_OS_ERROR_OTHER = 7, /* another number of the system */
    ZOLTLIS_ITEM_DATE_TIME = 8,
    ZOLTLIS_ITEM_NESTED = 9, /* a block */
    ZOLTLIS_ITEM_UTF8_STRING = 10,
    ZOLTLIS_ITEM_NATIVE_STRING = 11 /* in the locale's encoding */
};

/* Empty when all words are 0 */
typedef struct ZoltLisBlock {
    uintptr_t word[3];
} ZoltLisBlock;

/* How many blocks may lie in one another below the outermost; a deeper one is taken
   for damaged: it has no text and no record */
enum { ZOLTLIS_MAX_NESTING = 32 };

/* Filled by zoltLisGetArgsBegin */
typedef struct ZoltLisIterator {
    uintptr_t word[8];
} ZoltLisIterator;

/* An error of the operating system */
typedef struct ZoltLisOsError {
    uint64_t kind; /* the library's own */
    int64_t code;  /* an errno, for ZOLTLIS_ITEM_OS_ERROR */
} ZoltLisOsError;

typedef struct ZoltLisDateTime {
    int64_t seconds;     /* since 1970-01-01 UTC */
    int64_t nanoseconds; /* 0 to 999999999 */
} ZoltLisDateTime;

/*
 * Builds the block of message messageNumber: its catalogue text when there is one
 * that fits the arguments of format, else the number and the raw arguments. Number 0
 * stands for no message: the block is format's own text. utf8: the texts are UTF-8,
 * else in the locale's encoding. ZOLTLIS_INVALID_ARGUMENT (also for a format),
 * ZOLTLIS_NO_MEMORY, ZOLTLIS_FAILED: the block then stays empty.
 */
int32_t zoltLisVEx(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber, const char *format,
                   va_list args);
/* Builds the block of a format's own text; results as above */
int32_t zoltLisTextV(ZoltLisBlock *block, const char *reference, va_list args);
/* Releases a block and empties it; an empty one stays as it is */
int32_t zoltLisFree(ZoltLisBlock *block);
/* Yields 0 when the text is whole, or the number of a message without a catalogue */
int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity);
/* Puts the iterator on the first item; ZOLTLIS_NO_MORE when there is none */
int32_t zoltLisGetArgsBegin(ZoltLisBlock *block, ZoltLisIterator *argument);
/* Moves to the next item; ZOLTLIS_NO_MORE after the last */
int32_t zoltLisGetNextArg(ZoltLisIterator *argument);
/* The current item's type: ZOLTLIS_ITEM_... */
int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type);
/* The current item's value. Pointers stay valid until the block is released */
int32_t zoltLisGetArg_wchar(ZoltLisIterator *argument, wchar_t *out);
int32_t zoltLisGetArg_longlong(ZoltLisIterator *argument, int64_t *out);
int32_t zoltLisGetArg_ulonglong(ZoltLisIterator *argument, uint64_t *out);
int32_t zoltLisGetArg_double(ZoltLisIterator *argument, double *out);
int32_t zoltLisGetArg_pointer(ZoltLisIterator *argument, void **out);
int32_t zoltLisGetArg_wstring(ZoltLisIterator *argument, const wchar_t **out);
int32_t zoltLisGetArg_os_error(ZoltLisIterator *argument, const ZoltLisOsError **out);
int32_t zoltLisGetArg_datetime(ZoltLisIterator *argument, ZoltLisDateTime *out);
int32_t zoltLisGetArg_lis(ZoltLisIterator *argument, ZoltLisBlock **out);
int32_t zoltLisGetArg_utf8string(ZoltLisIterator *argument, const char **out);
int32_t zoltLisGetArg_nativeString(ZoltLisIterator *argument, const char **out);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
