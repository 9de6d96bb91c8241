// SPDX-License-Identifier: Apache-2.0
#include "text.h"

#include "utf8.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

// ---- formatting ----------------------------------------------------------------------

// By its own name, since how strict the format is taken is up to the program's flag, not to
// how this file is compiled.
#ifdef __GLIBC__
extern "C" int formatAsAsked(char *out, size_t size, int flag, size_t room, const char *format,
                             va_list args) __asm__("__vsnprintf_chk");
#else
namespace {
int formatAsAsked(char *out, size_t size, int, size_t, const char *format, va_list args) {
    return vsnprintf(out, size, format, args);
}
} // namespace
#endif

bool FormattedText::format(int callersError, int flag, const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    errno = callersError;
    int needed = formatAsAsked(room, sizeof room, flag, sizeof room, format, args);
    if (needed >= 0 && static_cast<size_t>(needed) >= sizeof room) {
        const size_t size = static_cast<size_t>(needed) + 1;
        auto *longer = static_cast<char *>(malloc(size));
        if (longer != nullptr) {
            errno = callersError;
            needed = formatAsAsked(longer, size, flag, size, format, again);
            text = longer;
        }
    }
    va_end(again);
    if (needed < 0)
        return false;
    length = strlen(text); // what is longer now than it was when it was measured is cut
    if (length > 0 && text[length - 1] == '\n')
        text[--length] = '\0';
    return true;
}

// ---- encoding ------------------------------------------------------------------------

namespace {

bool isUtf8(const char *text) {
    const size_t length = strlen(text);
    for (size_t at = 0; at < length;)
        if (static_cast<unsigned char>(text[at]) < 0x80)
            ++at;
        else if (nextUtf8(text, &at, length) < 0)
            return false;
    return true;
}

bool localeIsUtf8OrPlain() {
    const char *codeset = nl_langinfo(CODESET);
    return strcmp(codeset, "UTF-8") == 0 || strcmp(codeset, "ANSI_X3.4-1968") == 0;
}

bool appendByte(Grown<char> *out, char byte) {
    char escaped[sizeof "\\xff"];
    (void)snprintf(escaped, sizeof escaped, "\\x%02x",
                   static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return out->append(escaped, sizeof escaped - 1);
}

// How many bytes the character at text has, and the character in UTF-8; 0: there is none.
size_t characterOfLocale(const char *text, size_t length, mbstate_t *state, char *utf8, int *utf8Length) {
    wchar_t wide = 0;
    const mbstate_t before = *state;
    const size_t taken = mbrtowc(&wide, text, length, state);
    if (taken != 0 && taken <= length) { // not one of the two error values
        *utf8Length = putUtf8(static_cast<int32_t>(wide), utf8);
        if (*utf8Length > 0)
            return taken;
    }
    *state = before;
    return 0;
}

constexpr size_t LONGEST_UTF8 = 4;

} // namespace

const char *inUtf8(const char *text, Grown<char> *converted) {
    const bool utf8 = localeIsUtf8OrPlain();
    if (utf8 && isUtf8(text))
        return text;
    const size_t length = strlen(text);
    mbstate_t state = {};
    bool failed = false;
    for (size_t at = 0; at < length && !failed;) {
        char character[LONGEST_UTF8];
        int size = 0;
        size_t taken = 0;
        if (utf8) {
            size_t next = at;
            if (nextUtf8(text, &next, length) >= 0)
                taken = next - at;
            failed = !converted->append(text + at, taken);
        } else {
            taken = characterOfLocale(text + at, length - at, &state, character, &size);
            failed = !converted->append(character, static_cast<size_t>(size > 0 ? size : 0));
        }
        if (taken == 0) {
            failed = !appendByte(converted, text[at]);
            taken = 1;
        }
        at += taken;
    }
    return !failed && converted->append("", 1) ? converted->items : nullptr;
}
