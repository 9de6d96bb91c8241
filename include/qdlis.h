/* SPDX-License-Identifier: Apache-2.0 */
/*
 * qdlis.h - the open localization library's own calls, beside those of zoltlis.h:
 * where message catalogues lie, and blocks built item by item.
 *
 * A catalogue is an ICU resource bundle: a directory with one compiled bundle
 * per locale (root.res, de.res, ...), named by its path without the file, as
 * "/usr/share/disks/messages". Each message is a top-level text whose key is
 * the message number in decimal and whose value is a printf pattern; positions
 * let a translation change the order of the arguments:
 *
 *     root { 1001 { "Disk %1$s is %2$d%% full" } }
 *     de   { 1001 { "Zu %2$d%% voll ist die Platte %1$s" } }
 *
 * A message is looked up in the message locale of the process (setlocale,
 * LC_MESSAGES), then in that locale's parents, at last in root. The caller's
 * format decides what the arguments are; the pattern decides where they stand
 * and how they look: "%1$08x" shows an integer of any length in hexadecimal.
 * A pattern that names an argument that is not there, or shows one as something
 * that it is not, counts as a missing message. Messages that were used stay in memory
 * until the process ends or the library is unloaded.
 *
 * A file is read once, whole, when its locale is first needed; one that is not there, cut
 * or damaged then is missing until the process ends, and its locale's parents serve. What
 * a file holds never makes a program crash. Only regular files are opened, also through
 * symbolic links. "qdliscat install" puts a new one beside the old, checked, and renames it
 * (genrb writes in place): whoever reads meanwhile has the whole old one or the whole new
 * one.
 *
 * Results are those of zoltlis.h, ZOLTLIS_...:
 *     _NO_MORE           there is no item, or no further one
 *     _INVALID_ARGUMENT  a null pointer, an invalid format, an item of another type
 *     _NO_MEMORY
 *     _FAILED            the catalogues cannot be read, for another reason than that one is
 *                        missing
 *
 * Calls may come from any thread; a block belongs to the thread that uses it.
 * setlocale must not be called at the same time as any of them.
 */
#ifndef QDLIS_H
#define QDLIS_H

#include "zoltlis.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/*
 * Adds a catalogue after those of the environment variable QDLIS_CATALOG (a list
 * of paths separated by colons, read at the first use and not in set-user-id
 * programs). The first catalogue that has a message is used. A relative path
 * starts at the current directory. Adding one twice does nothing. _INVALID_ARGUMENT: null or
 * empty. _FAILED: there are 32 already, or there is no current directory.
 */
int32_t qdlisAddCatalog(const char *package);

/* Kinds of operating-system errors: ZOLTLIS_ITEM_OS_ERROR and ZOLTLIS_ITEM_OS_ERROR_OTHER */
enum { QDLIS_ERRNO = 0, QDLIS_OTHER_ERROR = 1 };

/*
 * Starts a block, which has to be empty: with a message number for a message of
 * a catalogue (its items are the arguments), with 0 for a text that the items
 * make up. utf8 tells the encoding of the texts of patterns: 0 is the locale's.
 * Release the block with zoltLisFree.
 */
int32_t qdlisBegin(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber);

/*
 * Each adds one item at the end of a block from qdlisBegin. Texts are copied; a
 * null text is _INVALID_ARGUMENT. After a failure the block is as it was.
 */
int32_t qdlisAddWideChar(ZoltLisBlock *block, wchar_t value);
int32_t qdlisAddSigned(ZoltLisBlock *block, int64_t value);
int32_t qdlisAddUnsigned(ZoltLisBlock *block, uint64_t value);
int32_t qdlisAddDouble(ZoltLisBlock *block, double value);
int32_t qdlisAddPointer(ZoltLisBlock *block, const void *value);
int32_t qdlisAddWideString(ZoltLisBlock *block, const wchar_t *text);
int32_t qdlisAddOsError(ZoltLisBlock *block, uint32_t kind, int64_t code);
int32_t qdlisAddDateTime(ZoltLisBlock *block, int64_t seconds, int64_t nanoseconds);
int32_t qdlisAddUtf8String(ZoltLisBlock *block, const char *text);
int32_t qdlisAddNativeString(ZoltLisBlock *block, const char *text);

/*
 * Adds a block as one item of another. The outer block owns it from then on:
 * nested becomes empty. _INVALID_ARGUMENT: it is empty, the outer block itself,
 * one of the two lies in another block already, or
 * more than ZOLTLIS_MAX_NESTING blocks would lie in one another.
 */
int32_t qdlisAddBlock(ZoltLisBlock *block, ZoltLisBlock *nested);

/*
 * Ends a block that was begun with a message number: looks the message up and
 * puts its items in the place of the arguments. Integers, doubles, characters,
 * strings and pointers are shown by the conversions of their kind; OS errors,
 * dates and nested blocks by %N$s, at most once each. _OK also when no catalogue
 * has a fitting message: the block then stays as it is, the number and its raw
 * arguments. Without effect on other blocks.
 */
int32_t qdlisLookUp(ZoltLisBlock *block);

/*
 * Tells what arguments a pattern takes: one letter for each position from 1, "d"
 * integer, "f" floating point, "c" character, "s" string, "p" pointer, "-" not
 * used; ended by a NUL and cut to size. _INVALID_ARGUMENT: the pattern is invalid ("%n", "%m",
 * an unknown conversion, one position with two types, only some conversions with
 * positions, a null argument, size 0).
 */
int32_t qdlisPatternArguments(const char *pattern, char *letters, size_t size);

/*
 * The text of a message without catalogue at once, without a block: what
 * zoltLisTextV makes of format and args, put together in buffer (of size bytes) with
 * a terminating NUL. Yields its length, or -1 when the block has to be made: the
 * format holds another conversion than %s %d %u %% and the l, ll and z forms of the
 * numbers, or the text does not fit. args is not used up. A caller hands in the
 * zoltLisTextV that it calls: when that is another library's than this one's, its
 * meaning of a format counts, and the result is -1 too.
 */
typedef int32_t (*QdlisTextVFn)(ZoltLisBlock *block, const char *reference, va_list args);
int64_t qdlisFormat(QdlisTextVFn textV, char *buffer, size_t size, const char *format, va_list args);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
