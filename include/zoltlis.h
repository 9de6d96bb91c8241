/*
 * zoltlis.h - the calls that the logging library expects of the localization
 * library libqdlis.so.3.
 *
 * A localization text is a block of three words: a message's identity and a
 * list of typed items (pieces of text and argument values). The block is zeroed
 * by the caller, filled by zoltLisVEx or zoltLisTextV, walked with an iterator
 * and released with zoltLisFree. Every call returns 0 for success.
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

/* Empty when all words are 0 */
typedef struct ZoltLisBlock {
    uintptr_t word[3];
} ZoltLisBlock;

/* Filled by zoltLisGetArgsBegin */
typedef struct ZoltLisIterator {
    uintptr_t word[8];
} ZoltLisIterator;

/* The error code is the word at byte offset 8 */
typedef struct ZoltLisOsError {
    uint64_t kind;
    int64_t code;
} ZoltLisOsError;

/* The first 64-bit word is seconds since the epoch */
typedef struct ZoltLisDateTime {
    int64_t seconds;
    int64_t nanoseconds;
} ZoltLisDateTime;

int32_t zoltLisVEx(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber, const char *format,
                   va_list args);
int32_t zoltLisTextV(ZoltLisBlock *block, const char *reference, va_list args);
int32_t zoltLisFree(ZoltLisBlock *block);
int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity);
int32_t zoltLisGetArgsBegin(ZoltLisBlock *block, ZoltLisIterator *argument);
int32_t zoltLisGetNextArg(ZoltLisIterator *argument);
int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type);
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
