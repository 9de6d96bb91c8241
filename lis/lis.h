// SPDX-License-Identifier: Apache-2.0
// What the parts of the localization library share:
//
//   block.cpp    storage of a block: its items, the iterator, the getters
//   format.cpp   printf formats: their grammar, and what they make of arguments
//   text.cpp     zoltLisVEx and zoltLisTextV: a block from a format
//   bundle.cpp   the files of message catalogues
//   catalog.cpp  message catalogues: lookup, fitting a pattern to a format, caches
//   build.cpp    the calls of qdlis.h: a block item by item
//
// Later files use earlier ones, never the other way round.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>

#include "zoltlis.h"

// ---- results ------------------------------------------------------------------------

// ZOLTLIS_..., and one number that does not leave catalog.cpp: there is no memory or no
// descriptor left, the message is missing for now.
using LisResult = int32_t;
inline constexpr LisResult LIS_NOT_NOW = -100;

// ---- items of a block (block.cpp) -----------------------------------------------------

using ItemType = uint32_t; // ZOLTLIS_ITEM_...

// An item is a word, type in the low byte and bytes of payload above it, and the
// payload, padded to whole words.
using ItemWord = uint64_t;

inline ItemWord itemWord(ItemType type, size_t payload) {
    return type | static_cast<uint64_t>(payload) << 8;
}
inline uint32_t itemType(ItemWord word) {
    return static_cast<uint32_t>(word & 0xff);
}
inline size_t itemPayload(ItemWord word) {
    return static_cast<size_t>(word >> 8);
}

// The heap block behind a ZoltLisBlock: this record and then the items.
struct Storage {
    size_t used; // bytes of items
    size_t room;
    bool utf8;     // narrow texts are UTF-8, else in the locale's multibyte encoding
    bool nested;   // some item is a nested block, which belongs to this one
    bool inner;    // lies in another block, which it belongs to
    uint8_t depth; // how deep nested blocks go below this one
};

const size_t NO_TEXT = SIZE_MAX;
static_assert(ZOLTLIS_MAX_NESTING < UINT8_MAX);

// A block under construction.
struct Builder {
    Storage *storage; // null after a failure
    size_t openText;  // offset of the text piece at the end that literal text joins, or NO_TEXT
    bool closed;      // a NUL character has ended the text: nothing is added any more
    LisResult result; // the first failure; adding after it does nothing
};

// Starts a block that will hold about expected bytes of items.
void startBlock(Builder *builder, bool utf8, size_t expected);
// Goes on with a block that was finished; the block is empty until finishBlock.
void resumeBlock(Builder *builder, ZoltLisBlock *block);
// Fills block with what was built. After a failure frees it instead, leaves
// block empty and yields that failure.
int32_t finishBlock(Builder *builder, ZoltLisBlock *block, int64_t identity);

// Adds an item: where its payload goes, or null when nothing is added.
void *addItem(Builder *builder, ItemType type, size_t payload);
// Adds to the literal text piece at the end; any other item ends that piece.
void addLiteral(Builder *builder, const char *bytes, size_t count);
void addNarrow(Builder *builder, ItemType type, const char *bytes, size_t count);
void addWide(Builder *builder, const wchar_t *text);
// Adds copies of whole items, padding included.
void addReady(Builder *builder, const void *items, size_t size);
// Adds a copy of the item whose payload is given.
void addCopy(Builder *builder, const char *payload);
// Room for rendering text in place: at least least bytes at the end, not yet part
// of the block; null after a failure. addNarrow may be given that very place.
char *scratchRoom(Builder *builder, size_t least, size_t *room);

template<typename Plain>
inline void addValue(Builder *builder, ItemType type, const Plain &value) {
    void *payload = addItem(builder, type, sizeof value);
    if (payload != nullptr)
        memcpy(payload, &value, sizeof value);
}

inline ItemType narrowType(const Builder *builder) {
    return builder->storage != nullptr && builder->storage->utf8 ? ZOLTLIS_ITEM_UTF8_STRING
                                                                 : ZOLTLIS_ITEM_NATIVE_STRING;
}

inline size_t padded(size_t size) {
    return (size + sizeof(ItemWord) - 1) & ~(sizeof(ItemWord) - 1);
}

Storage *storageOf(const ZoltLisBlock *block); // null for an empty block
inline char *itemsOf(Storage *storage) {
    return reinterpret_cast<char *>(storage + 1);
}

// ---- formats (format.cpp) -----------------------------------------------------------------

// How an argument is passed; all that fetching it needs.
enum Fetch : uint8_t { FETCH_INT, FETCH_LONG, FETCH_DOUBLE, FETCH_LONG_DOUBLE, FETCH_POINTER, FETCH_WINT };

// What an argument is. A catalogue shows it with conversions of the same class.
enum ArgumentClass : uint8_t {
    CLASS_NONE, // no argument: %% and %m
    CLASS_INTEGER,
    CLASS_FLOAT,
    CLASS_CHAR,
    CLASS_STRING,
    CLASS_POINTER,
    CLASS_OPAQUE // OS errors, dates, nested blocks: added with the calls of qdlis.h only
};

struct ArgumentType {
    ArgumentClass what;
    Fetch fetch;
    uint8_t bits;  // CLASS_INTEGER: 8, 16, 32 or 64
    bool isSigned; // CLASS_INTEGER
    bool wide;     // CLASS_CHAR, CLASS_STRING
};

union Value {
    int64_t integer; // FETCH_INT, FETCH_LONG, FETCH_WINT
    double real;
    long double longReal;
    const void *pointer;
};

enum : uint8_t {
    FLAG_LEFT = 1,
    FLAG_PLUS = 2,
    FLAG_BLANK = 4,
    FLAG_ALTERNATE = 8,
    FLAG_ZERO = 16,
    FLAG_GROUP = 32,
    FLAG_DIGITS = 64 // the locale's own digits
};

// Where an argument, a width or a precision comes from, when not from the
// argument of a given index (0 and above).
enum : int { FROM_NOWHERE = -1, FROM_FORMAT = -2, FROM_NEXT = -3 };

struct Conversion {
    ArgumentType type;
    char letter;
    uint8_t flags;
    bool plain;    // typed rendering shows what the conversion shows
    bool numbered; // it names its argument's position
    int argument;
    int widthFrom;
    int precisionFrom;
    int width;     // FROM_FORMAT
    int precision; // FROM_FORMAT
};

const int MAX_ARGUMENTS = 4096;    // of one message; a higher position is invalid
const size_t STACK_ARGUMENTS = 32; // more of them are kept on the heap

// Whether typed rendering of an argument shows what the conversion shows.
bool looksPlain(const Conversion &conversion);

// Parses the conversion that follows a '%'. Yields the first character after
// it, or null for an invalid one.
const char *parseConversion(const char *p, Conversion *conversion);

// Adds what the conversion makes of a value: a typed item when plain, else text.
// raw: also an empty text where there is nothing to show, so that arguments keep
// their places. hostErrno is what %m tells.
void addConversion(Builder *builder, const Conversion &conversion, const Value &value, int width,
                   int precision, bool raw, int hostErrno);

// One piece of a format: text (its conversion's letter is NUL) or a shown argument.
struct Piece {
    const char *text; // into the format: conversions and text alike
    size_t size;
    Conversion shown;
};

// A format taken apart, in one heap block.
struct Program {
    size_t pieceCount;
    int argumentCount;
    Piece *pieces;           // "%%" is a text piece
    ArgumentType *arguments; // CLASS_NONE where a pattern leaves a position out
};

// Takes format apart; it has to outlive the program. Every FROM_NEXT has become
// an index. Positions that are not used are invalid unless gapsAllowed.
LisResult compileFormat(const char *format, bool gapsAllowed, Program **out);

// The size of a width or precision, which may be an argument.
inline int sizeFrom(int from, int inFormat, const Value *values) {
    return from >= 0 ? static_cast<int>(values[from].integer) : inFormat;
}

struct ArgumentList {
    va_list list;
};
void fetchValue(const ArgumentType &type, ArgumentList *args, Value *value);

// ---- a block from a format (text.cpp) --------------------------------------------------------

// Adds the items that format makes of the arguments. rawOnly: its arguments
// only, in the order of the argument list.
void addFormatted(Builder *builder, const char *format, ArgumentList *args, bool rawOnly, int hostErrno);

const size_t LOCALE_ROOM = 160; // a locale's name; a longer one is served by root

// ---- catalogues (catalog.cpp) ------------------------------------------------------------------

// How a catalogue's pattern shows a message's arguments, in the current locale.
struct Shown;

// What the catalogues say about message number whose arguments are those that
// format takes. *out is null when no catalogue has the message, or when its
// pattern does not fit the arguments. Cheap when the same was asked before.
LisResult findMessage(int64_t number, bool utf8, const char *format, const Shown **out);
// The same for arguments of the given types; key stands for them, as a format does.
LisResult findBuiltMessage(int64_t number, bool utf8, const char *key, const ArgumentType *arguments,
                           int count, const Shown **out);
// Ends the use of a *out that is not null.
void releaseMessage(const Shown *shown);

// The types of the arguments that a message takes; yields how many.
int shownArguments(const Shown *shown, const ArgumentType **types);

// Adds the items that the pattern makes of the values. payloads: of the items
// that the values were taken from, to be copied as they are where the pattern
// shows them plainly; an opaque one that was copied becomes null. Null for the
// arguments of a format.
void addShown(Builder *builder, const Shown *shown, const Value *values, const char **payloads,
              int hostErrno);

// Adds a catalogue for the whole process: resource directory + "/" + resource name.
LisResult addCatalog(const char *package);
