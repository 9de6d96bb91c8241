// Memory, identifiers, time texts and encodings: what other units use besides the
// exported operations.
#pragma once

#include "zoltlog.h"

#include <cstdlib>
#include <memory>

// Owns a block of zoltLogMalloc's.
struct LogFree {
    void operator()(void *block) const { free(block); }
};
template<typename T>
using LogOwned = std::unique_ptr<T, LogFree>;

// Every byte is below 128.
bool isPlainAscii(const char *text, size_t length);

// Well-formed UTF-8 as both ICU and the C library take it: shortest forms, no
// surrogates, nothing above U+10FFFF. In a UTF-8 locale mbs2utf8 returns such a text
// unchanged and refuses any other.
bool isValidUtf8(const char *text, size_t length);

// The calling thread's LC_CTYPE is a UTF-8 one at this moment.
bool localeIsUtf8();

// The calling thread's multibyte encoding means by the bytes below 128 what ASCII does
// (Shift_JIS, for one, does not).
bool localeKeepsAscii();

// The text, in the locale's multibyte encoding, is its own UTF-8 form: mbs2utf8 would
// return the same bytes. Says no when finding out would cost a conversion.
bool isUtf8AsItIs(const char *text, size_t length);
