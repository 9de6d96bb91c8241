// What the library's own units use of the common routines besides the exported
// operations: the tests that save conversions on the way of a message.
#pragma once

#include "owned.h"
#include "utf8.h"
#include "zoltlog.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

// Every byte is below 128.
inline bool isPlainAscii(const char *text, size_t length) {
    constexpr uint64_t HIGH_BITS = 0x8080808080808080u;
    size_t at = 0;
    for (; at + sizeof(uint64_t) <= length; at += sizeof(uint64_t)) {
        uint64_t bytes;
        memcpy(&bytes, text + at, sizeof bytes);
        if ((bytes & HIGH_BITS) != 0)
            return false;
    }
    for (; at < length; ++at) {
        if ((static_cast<uint8_t>(text[at]) & 0x80u) != 0)
            return false;
    }
    return true;
}

// Well-formed UTF-8. In a UTF-8 locale mbs2utf8 returns such a text unchanged and refuses
// any other.
inline bool isValidUtf8(const char *text, size_t length) {
    const auto isAscii = [text](size_t at) { return (static_cast<uint8_t>(text[at]) & 0x80u) == 0; };
    size_t at = 0;
    while (at < length) {
        while (length - at >= sizeof(uint64_t) && isPlainAscii(text + at, sizeof(uint64_t)))
            at += sizeof(uint64_t);
        while (at < length && isAscii(at))
            ++at;
        while (at < length && !isAscii(at)) {
            if (nextUtf8(text, &at, length) < 0)
                return false;
        }
    }
    return true;
}

// The calling thread's LC_CTYPE is a UTF-8 one at this moment.
inline bool localeIsUtf8() {
    const char *charset = nl_langinfo(CODESET);
    return charset[0] == 'U' && strcmp(charset, "UTF-8") == 0;
}

// Finds out by converting.
[[gnu::noinline]] inline bool multibyteKeepsAscii() {
    // Where national and vendors' sets differ from ASCII, and a letter for those that
    // share nothing with it. (btowc would not tell: it takes ASCII for granted.)
    constexpr char TELLING[] = "A#$@[\\]^`{|}~";
    wchar_t wide[sizeof TELLING];
    return mbstowcs(wide, TELLING, sizeof TELLING) == sizeof TELLING - 1 &&
           wcscmp(wide, L"A#$@[\\]^`{|}~") == 0;
}

// The bytes below 128 mean in the calling thread's multibyte encoding what they mean in
// ASCII (in Shift_JIS, for one, they do not).
inline bool localeKeepsAscii() {
    const char *charset = nl_langinfo(CODESET);
    if (strcmp(charset, charset[0] == 'U' ? "UTF-8" : "ANSI_X3.4-1968") == 0)
        return true;
    return multibyteKeepsAscii();
}

// The text, in the locale's multibyte encoding, is its own UTF-8 form: mbs2utf8 would
// return the same bytes. Says no rather than find out by converting.
inline bool isUtf8AsItIs(const char *text, size_t length) {
    return localeIsUtf8() ? isValidUtf8(text, length) : isPlainAscii(text, length) && localeKeepsAscii();
}
