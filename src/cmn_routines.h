// SPDX-License-Identifier: Apache-2.0
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

// Character sets that were asked about; a process uses one or two. What does not find a
// place is asked about again.
struct KnownCharset {
    enum : uint32_t { FREE = 0, TAKEN = 1, READY = 2 };
    uint32_t state;
    bool keepsAscii;
    char name[24];
};

inline KnownCharset knownCharsets[16];

// Finds out by converting. (btowc would not tell: it takes ASCII for granted.)
inline bool convertsAsciiToItself() {
    constexpr int BYTES = 127;
    char text[BYTES + 1];
    for (int at = 0; at < BYTES; ++at)
        text[at] = static_cast<char>(at + 1);
    text[BYTES] = '\0';
    wchar_t wide[BYTES + 1];
    if (mbstowcs(wide, text, BYTES + 1) != BYTES)
        return false;
    for (int at = 0; at < BYTES; ++at)
        if (static_cast<int>(wide[at]) != at + 1)
            return false;
    return true;
}

// Whether all bytes below 128 of the locale's character set, which has this name, are
// ASCII. Finds out once for each set.
[[gnu::noinline]] inline bool charsetKeepsAscii(const char *charset) {
    const size_t size = strlen(charset) + 1;
    if (size > sizeof(KnownCharset::name))
        return convertsAsciiToItself();
    for (KnownCharset &known : knownCharsets) {
        uint32_t state = __atomic_load_n(&known.state, __ATOMIC_ACQUIRE);
        if (state == KnownCharset::READY && memcmp(known.name, charset, size) == 0)
            return known.keepsAscii;
        if (state != KnownCharset::FREE ||
            !__atomic_compare_exchange_n(&known.state, &state, KnownCharset::TAKEN, false, __ATOMIC_RELAXED,
                                         __ATOMIC_RELAXED))
            continue;
        known.keepsAscii = convertsAsciiToItself();
        memcpy(known.name, charset, size);
        __atomic_store_n(&known.state, KnownCharset::READY, __ATOMIC_RELEASE);
        return known.keepsAscii;
    }
    return convertsAsciiToItself();
}

// The bytes below 128 mean in the calling thread's multibyte encoding what they do in
// ASCII (in Shift_JIS, for one, they do not).
inline bool localeKeepsAscii() {
    const char *charset = nl_langinfo(CODESET);
    if (strcmp(charset, charset[0] == 'U' ? "UTF-8" : "ANSI_X3.4-1968") == 0)
        return true;
    return charsetKeepsAscii(charset);
}

// The text, in the locale's multibyte encoding, is its own UTF-8 form: mbs2utf8 would
// return the same bytes. Says no rather than find out by converting.
inline bool isUtf8AsItIs(const char *text, size_t length) {
    return localeIsUtf8() ? isValidUtf8(text, length) : isPlainAscii(text, length) && localeKeepsAscii();
}
