// SPDX-License-Identifier: Apache-2.0
// The formatter plug-in: a message record as one line that is safe to show.
#include "zoltformat.h"

#include "grown.h"
#include "owned.h"
#include "utf8.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <langinfo.h>

namespace {

// The line being made. Running out of memory is remembered, so that only the end
// has to ask.
struct Line {
    Grown<char> text; // without a terminator
    bool failed = false;
};

const size_t LONGEST_PIECE = 64; // of appendFormatted

void append(Line *line, const char *bytes, size_t count) {
    line->failed = line->failed || !line->text.append(bytes, count);
}

void append(Line *line, const char *text) {
    append(line, text, strlen(text));
}

void appendFormatted(Line *line, const char *format, ...) __attribute__((format(printf, 2, 3)));
void appendFormatted(Line *line, const char *format, ...) {
    char piece[LONGEST_PIECE];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(piece, sizeof piece, format, args);
    va_end(args);
    if (length > 0)
        append(line, piece,
               static_cast<size_t>(length) < sizeof piece ? static_cast<size_t>(length) : sizeof piece - 1);
}

// A blank before every part but the first
void startPart(Line *line) {
    if (line->text.count > 0)
        append(line, " ");
}

// ---- texts ---------------------------------------------------------------------

// Characters that end lines, drive terminals or turn the direction of writing
bool isUnsafe(uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character <= 0x9f) || character == 0x061c ||
           character == 0x200e || character == 0x200f || (character >= 0x2028 && character <= 0x202e) ||
           (character >= 0x2066 && character <= 0x2069);
}

void appendEscaped(Line *line, uint32_t character) {
    switch (character) {
    case '\n':
        append(line, "\\n");
        break;
    case '\r':
        append(line, "\\r");
        break;
    case '\t':
        append(line, "\\t");
        break;
    default:
        appendFormatted(line,
                        character < 0x80      ? "\\x%02x"
                        : character < 0x10000 ? "\\u%04x"
                                              : "\\U%08x",
                        character);
    }
}

// The length of the well-formed UTF-8 character at text, 0 when there is none.
size_t decodeUtf8(const char *text, uint32_t *character) {
    size_t length = 0;
    const int32_t found = nextUtf8(text, &length, SIZE_MAX); // text ends in a zero
    if (found < 0)
        return 0;
    *character = static_cast<uint32_t>(found);
    return length;
}

// The same for a character of the locale's encoding
size_t decodeLocal(const char *text, uint32_t *character) {
    mbstate_t state = {};
    wchar_t wide = 0;
    const size_t length = mbrtowc(&wide, text, MB_CUR_MAX, &state);
    if (length == 0 || length > MB_CUR_MAX) // also the two error values
        return 0;
    static_assert(sizeof wide == sizeof *character); // a wide character is its code point
    memcpy(character, &wide, sizeof wide);
    return length;
}

bool localeIsUtf8OrPlain() {
    const char *codeset = nl_langinfo(CODESET);
    return strcmp(codeset, "UTF-8") == 0 || strcmp(codeset, "ANSI_X3.4-1968") == 0;
}

// A text of the record, in UTF-8 or in the locale's encoding, made safe and in
// the locale's encoding.
void appendText(Line *line, const char *text, bool utf8) {
    const bool localUtf8 = localeIsUtf8OrPlain();
    const char *plainFrom = text; // what is copied as it is, a run at a time
    while (*text != '\0') {
        uint32_t character = static_cast<unsigned char>(*text);
        const size_t length =
            utf8 || localUtf8 ? decodeUtf8(text, &character) : decodeLocal(text, &character);
        const bool foreign = length > 0 && character >= 0x80 && utf8 && !localUtf8;
        if (length > 0 && !foreign && !isUnsafe(character)) {
            text += length;
            continue;
        }
        append(line, plainFrom, static_cast<size_t>(text - plainFrom));
        if (length == 0) {
            appendFormatted(line, "\\x%02x", character);
        } else if (isUnsafe(character)) {
            appendEscaped(line, character);
        } else {
            char local[MB_LEN_MAX];
            mbstate_t state = {};
            const size_t size = wcrtomb(local, static_cast<wchar_t>(character), &state);
            if (size == static_cast<size_t>(-1))
                appendEscaped(line, character);
            else
                append(line, local, size);
        }
        text += length > 0 ? length : 1;
        plainFrom = text;
    }
    append(line, plainFrom, static_cast<size_t>(text - plainFrom));
}

// ---- parts of a line -------------------------------------------------------------

void appendTime(Line *line, uint64_t milliseconds) {
    const auto seconds = static_cast<time_t>(milliseconds / 1000);
    struct tm local;
    if (localtime_r(&seconds, &local) == nullptr) { // a year that does not fit
        appendFormatted(line, "@%llu", static_cast<unsigned long long>(milliseconds));
        return;
    }
    const long minutes = local.tm_gmtoff / 60;
    const long magnitude = minutes < 0 ? -minutes : minutes;
    appendFormatted(line, "%04ld-%02d-%02d %02d:%02d:%02d.%03d%c%02ld:%02ld", 1900L + local.tm_year,
                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                    static_cast<int>(milliseconds % 1000), minutes < 0 ? '-' : '+', magnitude / 60,
                    magnitude % 60);
}

void appendKind(Line *line, const LogMsg *msg) {
    static const char *const severities[] = {"INFO", "WARNING", "ERROR", "CRITICAL", "EMERGENCY"};
    startPart(line);
    switch (msg->type) {
    case ZOLTLOG_MSG_DEBUG:
        appendFormatted(line, "DEBUG-%u", msg->attr.level);
        break;
    case ZOLTLOG_MSG_DIAG:
        appendFormatted(line, "DIAG-%u", msg->attr.level);
        break;
    case ZOLTLOG_MSG_APP:
        if (msg->attr.severity < sizeof severities / sizeof *severities)
            append(line, severities[msg->attr.severity]);
        else
            appendFormatted(line, "SEVERITY-%u", msg->attr.severity);
        break;
    case ZOLTLOG_MSG_CONTEXT:
        append(line, "CONTEXT");
        break;
    case ZOLTLOG_MSG_AUDIT:
        append(line, "AUDIT");
        break;
    case ZOLTLOG_MSG_SECURE_AUDIT:
        appendFormatted(line, "SECURE-AUDIT-%u", msg->attr.level);
        break;
    default:
        appendFormatted(line, "TYPE-%u", msg->type);
    }
}

void appendSource(Line *line, const LogMsg *msg, bool utf8) {
    if (msg->type == ZOLTLOG_MSG_AUDIT || msg->type == ZOLTLOG_MSG_SECURE_AUDIT) {
        startPart(line);
        append(line, "subject=");
        if (msg->who != nullptr && msg->who[0] != '\0')
            appendText(line, msg->who, utf8);
        else
            append(line, "(none)");
        appendFormatted(line, " outcome=%u", msg->outcome);
    } else {
        const char *source = msg->type == ZOLTLOG_MSG_CONTEXT ? msg->attr.contextTitle : msg->who;
        if (source != nullptr && source[0] != '\0') {
            startPart(line);
            appendText(line, source, utf8);
        }
    }
    if (msg->contextToken != nullptr && msg->contextToken[0] != '\0') {
        startPart(line);
        append(line, "[");
        appendText(line, msg->contextToken, utf8);
        append(line, "]");
    }
}

// The wording of a record that has only its localization block, whole: what the
// measuring pass tells is a bound for most, and a large number passes it.
LogOwned<char> textOfBlock(ZoltLisBlock *block) {
    size_t size = 0;
    (void)strncatlis(nullptr, &size, block);
    if (size == 0 || size == SIZE_MAX)
        return nullptr;
    for (size_t room = size + 1;; room *= 2) {
        LogOwned<char> text(static_cast<char *>(calloc(1, room)));
        size_t word = room;
        if (text == nullptr || strncatlis(text.get(), &word, block) == nullptr)
            return nullptr;
        if (strlen(text.get()) < room - 1) // else it may have been cut
            return text;
    }
}

bool isEmpty(const ZoltLisBlock &block) {
    return (block.word[0] | block.word[1] | block.word[2]) == 0;
}

} // namespace

// --------------------------------------------------------------------------------

uint32_t LogFormatMessage(LocalizerList *, uint64_t, const char *, uint64_t, uint32_t formatFlags, uint64_t,
                          LogMsg *msg, LogHandle *, char **text) {
    if (text == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *text = nullptr;
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const bool utf8 = msg->utf8 != 0;
    Line line;
    if ((formatFlags & ZOLTFORMAT_TIME) != 0)
        appendTime(&line, msg->timestamp);
    if ((formatFlags & ZOLTFORMAT_KIND) != 0)
        appendKind(&line, msg);
    if ((formatFlags & ZOLTFORMAT_SOURCE) != 0)
        appendSource(&line, msg, utf8);
    if (line.text.count > 0)
        append(&line, ": ");
    const LogOwned<char> ofBlock =
        msg->text == nullptr && !isEmpty(msg->lis) ? textOfBlock(&msg->lis) : nullptr;
    const char *wording = msg->text != nullptr ? msg->text : ofBlock.get();
    if (wording != nullptr)
        appendText(&line, wording, utf8);
    else
        append(&line, "(no text)");
    append(&line, "", 1); // the terminator
    if (line.failed)
        return ZOLTLOG_NO_MEMORY;
    *text = line.text.release();
    return ZOLTLOG_OK;
}
