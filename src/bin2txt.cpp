// The record encoder: one LogMsg becomes one line of text. It knows the record,
// the buffer and the localization library; it opens and writes nothing.
//
// Order of sections: numbers; strings; argument blocks; the record. The grammar
// of a record is in docs/format-log-file.md.
#include "bin2txt.h"

#include "cmn_routines.h"
#include "text_msg.h"

#include <stdio.h>
#include <string.h>

static const uint64_t OLDEST_RECORD_VERSION = 65540;

// ---- numbers -------------------------------------------------------------------

static const char DIGIT_PAIRS[] = "00010203040506070809"
                                  "10111213141516171819"
                                  "20212223242526272829"
                                  "30313233343536373839"
                                  "40414243444546474849"
                                  "50515253545556575859"
                                  "60616263646566676869"
                                  "70717273747576777879"
                                  "80818283848586878889"
                                  "90919293949596979899";

static unsigned decimalDigits(uint64_t value) {
    unsigned digits = 1;
    for (;; value /= 10000, digits += 4) {
        if (value < 10)
            return digits;
        if (value < 100)
            return digits + 1;
        if (value < 1000)
            return digits + 2;
        if (value < 10000)
            return digits + 3;
    }
}

char *putUnsigned(char *at, uint64_t value) {
    if (value < 10) { // most numbers of a record
        *at = static_cast<char>('0' + value);
        return at + 1;
    }
    if (value < 100) {
        memcpy(at, DIGIT_PAIRS + value * 2, 2);
        return at + 2;
    }
    char *end = at + decimalDigits(value);
    char *digit = end;
    for (; value >= 100; value /= 100) {
        digit -= 2;
        memcpy(digit, DIGIT_PAIRS + value % 100 * 2, 2);
    }
    if (value >= 10)
        memcpy(digit - 2, DIGIT_PAIRS + value * 2, 2);
    else
        digit[-1] = static_cast<char>('0' + value);
    return end;
}

char *putSigned(char *at, int64_t value) {
    if (value >= 0)
        return putUnsigned(at, static_cast<uint64_t>(value));
    *at = '-';
    return putUnsigned(at + 1, 0 - static_cast<uint64_t>(value));
}

uint32_t bin2txt_int(int32_t value, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char *at = reserve(buffer, MAX_DECIMAL + 1);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    at = putSigned(at, value);
    *at++ = ',';
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

static const uint32_t HIGHEST_SEVERITY = 4;

uint32_t bin2txt_sev(uint32_t severity, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (severity > HIGHEST_SEVERITY)
        return ZOLTLOG_FAILED;
    return bin2txt_int(static_cast<int32_t>(severity), buffer);
}

// ---- strings -------------------------------------------------------------------

static const char UNPROCESSABLE[] = "**UNABLE TO PROCESS LOG MESSAGE**";

// tag, length ":" bytes, end. The tag may be empty. A length has 32 bits.
[[gnu::always_inline]] static inline uint32_t putCounted(TextBuffer *buffer, const char *tag,
                                                         const char *bytes, size_t size, char end) {
    const uint32_t length = static_cast<uint32_t>(size);
    char *at = reserve(buffer, strlen(tag) + MAX_DECIMAL + 1 + length + 1);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    const size_t tagLength = strlen(tag); // of a constant
    at = putUnsigned(static_cast<char *>(mempcpy(at, tag, tagLength)), length);
    *at++ = ':';
    if (length != 0)
        memcpy(at, bytes, length);
    at += length;
    *at++ = end;
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

// How the strings of one record become UTF-8.
struct StringForm {
    bool utf8;         // they are, or are said to be
    bool asciiIsAscii; // the bytes below 128 mean in the locale what they mean in ASCII
};

static uint32_t putString(TextBuffer *buffer, const char *text, StringForm form) {
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (form.utf8 || length == 0 || (form.asciiIsAscii && isPlainAscii(text, length)) ||
        isUtf8AsItIs(text, length))
        return putCounted(buffer, "", text, length, ',');

    char *converted = nullptr;
    if (mbs2utf8(&converted, text) != ZOLTLOG_OK) // one bad string must not cost the record
        return putCounted(buffer, "", UNPROCESSABLE, sizeof UNPROCESSABLE - 1, ',');
    const uint32_t result = putCounted(buffer, "", converted, strlen(converted), ',');
    zoltLogFree(converted);
    return result;
}

// ---- argument blocks -----------------------------------------------------------

// What the localization library tells of an argument's type.
enum ArgumentKind : uint32_t {
    ARG_WIDE_CHARACTER = 0,
    ARG_SIGNED = 1,
    ARG_UNSIGNED = 2,
    ARG_DOUBLE = 3,
    ARG_POINTER = 4,
    ARG_WIDE_STRING = 5,
    ARG_OS_ERROR = 6,
    ARG_OS_ERROR_TOO = 7,
    ARG_DATE = 8,
    ARG_BLOCK = 9,
    ARG_UTF8_STRING = 10,
    ARG_NATIVE_STRING = 11
};

static const unsigned DEEPEST_NESTING = 100; // of blocks within blocks
static const size_t MAX_UTF8_BYTES = 4;      // of one character
static const size_t MAX_DOUBLE = 400;        // "%f": 309 digits, sign, point of any locale, 6 digits

static uint32_t putNumber(TextBuffer *buffer, const char *tag, bool isSigned, uint64_t value) {
    char *at = reserve(buffer, strlen(tag) + MAX_DECIMAL + 1);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    at = stpcpy(at, tag);
    at = isSigned ? putSigned(at, static_cast<int64_t>(value)) : putUnsigned(at, value);
    *at++ = '|';
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

// KEPT: a double has the decimal point of the process's locale (LC_NUMERIC), which
// is a comma in some. Pinned by RecordEncoding.DoublesFollowTheNumericLocale.
static uint32_t putDouble(TextBuffer *buffer, double value) {
    char *at = reserve(buffer, MAX_DOUBLE);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    const int length = snprintf(at, MAX_DOUBLE, "8%f|", value);
    if (length < 0 || static_cast<size_t>(length) >= MAX_DOUBLE)
        return ZOLTLOG_FAILED;
    textEndsAt(buffer, at + length);
    return ZOLTLOG_OK;
}

// The bytes of one character, or -1 when it is none. NUL has none, as in a string.
static int encodeUtf8(wchar_t wide, char *out) {
    const uint32_t character = static_cast<uint32_t>(static_cast<int32_t>(wide));
    const auto tail = [character](unsigned shift) {
        return static_cast<char>(0x80 | ((character >> shift) & 0x3f));
    };
    if (character == 0)
        return 0;
    if (character < 0x80) {
        out[0] = static_cast<char>(character);
        return 1;
    }
    if (character < 0x800) {
        out[0] = static_cast<char>(0xc0 | (character >> 6));
        out[1] = tail(0);
        return 2;
    }
    if (character < 0x10000) {
        if (character >= 0xd800 && character <= 0xdfff)
            return -1;
        out[0] = static_cast<char>(0xe0 | (character >> 12));
        out[1] = tail(6);
        out[2] = tail(0);
        return 3;
    }
    if (character > 0x10ffff)
        return -1;
    out[0] = static_cast<char>(0xf0 | (character >> 18));
    out[1] = tail(12);
    out[2] = tail(6);
    out[3] = tail(0);
    return 4;
}

static uint32_t putWideString(TextBuffer *buffer, const wchar_t *wide) {
    if (wide == nullptr)
        return putCounted(buffer, "A", nullptr, 0, '|');
    char *text = nullptr;
    uint32_t result = wcs2utf8(&text, wide);
    if (result != ZOLTLOG_OK)
        return result;
    result = putCounted(buffer, "A", text, strlen(text), '|');
    zoltLogFree(text);
    return result;
}

static uint32_t putBlock(TextBuffer *buffer, ZoltLisBlock *block, unsigned depth);

static uint32_t putArgument(TextBuffer *buffer, ZoltLisIterator *argument, unsigned depth) {
    uint32_t kind = 0;
    if (zoltLisGetArgTypeId(argument, &kind) != 0)
        return ZOLTLOG_FAILED;
    switch (kind) {
    case ARG_WIDE_CHARACTER: {
        wchar_t wide = 0;
        char bytes[MAX_UTF8_BYTES];
        if (zoltLisGetArg_wchar(argument, &wide) != 0)
            return ZOLTLOG_FAILED;
        const int length = encodeUtf8(wide, bytes);
        return length < 0 ? static_cast<uint32_t>(ZOLTLOG_FAILED)
                          : putCounted(buffer, "1", bytes, static_cast<size_t>(length), '|');
    }
    case ARG_SIGNED: {
        int64_t value = 0;
        if (zoltLisGetArg_longlong(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "i64:", true, static_cast<uint64_t>(value));
    }
    case ARG_UNSIGNED: {
        uint64_t value = 0;
        if (zoltLisGetArg_ulonglong(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "u64:", false, value);
    }
    case ARG_DOUBLE: {
        double value = 0;
        if (zoltLisGetArg_double(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putDouble(buffer, value);
    }
    case ARG_POINTER: {
        void *value = nullptr;
        if (zoltLisGetArg_pointer(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "964:", false, reinterpret_cast<uintptr_t>(value));
    }
    case ARG_WIDE_STRING: {
        const wchar_t *value = nullptr;
        if (zoltLisGetArg_wstring(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putWideString(buffer, value);
    }
    case ARG_OS_ERROR:
    case ARG_OS_ERROR_TOO: {
        const ZoltLisOsError *error = nullptr;
        if (zoltLisGetArg_os_error(argument, &error) != 0 || error == nullptr)
            return ZOLTLOG_FAILED;
        const int32_t code = static_cast<int32_t>(error->code);
        return putNumber(buffer, "D32:", true, static_cast<uint64_t>(static_cast<int64_t>(code)));
    }
    case ARG_DATE: {
        ZoltLisDateTime value = {0, 0};
        if (zoltLisGetArg_datetime(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "C64:", true, static_cast<uint64_t>(value.seconds));
    }
    case ARG_BLOCK: {
        ZoltLisBlock *nested = nullptr;
        if (zoltLisGetArg_lis(argument, &nested) != 0 || nested == nullptr)
            return ZOLTLOG_FAILED;
        return putBlock(buffer, nested, depth + 1);
    }
    case ARG_UTF8_STRING: {
        const char *value = nullptr;
        if (zoltLisGetArg_utf8string(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putCounted(buffer, "X", value, value != nullptr ? strlen(value) : 0, '|');
    }
    case ARG_NATIVE_STRING: {
        const char *value = nullptr;
        if (zoltLisGetArg_nativeString(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putCounted(buffer, "S", value, value != nullptr ? strlen(value) : 0, '|');
    }
    default:
        return ZOLTLOG_FAILED;
    }
}

static bool isEmpty(const ZoltLisBlock *block) {
    return (block->word[0] | block->word[1] | block->word[2]) == 0;
}

static uint32_t append(TextBuffer *buffer, const char *text, size_t length) {
    char *at = reserve(buffer, length);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    memcpy(at, text, length);
    return ZOLTLOG_OK;
}

static uint32_t putBlock(TextBuffer *buffer, ZoltLisBlock *block, unsigned depth) {
    if (isEmpty(block)) // of nearly every record: costs no call
        return append(buffer, "(0|),", 5);
    int64_t identity = 0;
    if (depth > DEEPEST_NESTING || zoltLisGetTextId(block, &identity) != 0)
        return ZOLTLOG_FAILED;
    uint32_t result = putNumber(buffer, "(", false, static_cast<uint64_t>(identity));
    ZoltLisIterator argument = {};
    bool more = result == ZOLTLOG_OK && zoltLisGetArgsBegin(block, &argument) == 0;
    while (more) {
        result = putArgument(buffer, &argument, depth);
        more = result == ZOLTLOG_OK && zoltLisGetNextArg(&argument) == 0;
    }
    return result == ZOLTLOG_OK ? append(buffer, "),", 2) : result;
}

// ---- the record ----------------------------------------------------------------

static const uint64_t MOST_PREFIX_NUMBERS = 8;

static char *putField(char *at, uint64_t value) {
    at = putUnsigned(at, value);
    *at++ = ',';
    return at;
}

static uint32_t putPrefix(TextBuffer *buffer, const LogMsg *msg) {
    // KEPT: records of the older versions have no numbers in front. Pinned by
    // RecordEncoding.OlderVersionsHaveNoPrefix.
    if (msg->recordVersion < ZOLTLOG_RECORD_VERSION_ORIGINATOR)
        return ZOLTLOG_OK;
    char *at = reserve(buffer, MOST_PREFIX_NUMBERS * (MAX_DECIMAL + 1));
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    const bool namesItsFile = msg->recordVersion == ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    at = putField(at, msg->type);
    if (namesItsFile)
        at = putField(at, msg->productId);
    at = putField(at, msg->originatorId);
    if (namesItsFile)
        at = putField(at, msg->fileOriginatorId);
    at = putField(at, msg->messageId);
    at = putSigned(at, static_cast<int64_t>(msg->timestamp));
    *at++ = ',';
    at = putField(at, msg->processId);
    at = putField(at, msg->threadId);
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

static const uint64_t FIRST_VERSION_WITH_APP_WHO = 65542;

// What follows the text, by the message's type.
static uint32_t putTypeFields(TextBuffer *buffer, LogMsg *msg, StringForm form) {
    uint32_t result = ZOLTLOG_OK;
    switch (msg->type) {
    case ZOLTLOG_MSG_DEBUG:
        result = putString(buffer, msg->who, form);
        return result != ZOLTLOG_OK ? result : bin2txt_int(static_cast<int32_t>(msg->attr.level), buffer);
    case ZOLTLOG_MSG_DIAG:
        result = putString(buffer, msg->who, form);
        if (result == ZOLTLOG_OK)
            result = bin2txt_int(static_cast<int32_t>(msg->attr.level), buffer);
        break;
    case ZOLTLOG_MSG_APP:
        if (msg->recordVersion >= FIRST_VERSION_WITH_APP_WHO)
            result = putString(buffer, msg->who, form);
        if (result == ZOLTLOG_OK)
            result = bin2txt_sev(msg->attr.severity, buffer);
        break;
    case ZOLTLOG_MSG_CONTEXT:
        result = putString(buffer, msg->attr.contextTitle, form);
        break;
    case ZOLTLOG_MSG_AUDIT:
        result = putString(buffer, msg->who, form);
        if (result == ZOLTLOG_OK)
            result = bin2txt_int(static_cast<int32_t>(msg->outcome), buffer);
        break;
    default: // secure audit messages never reach a file
        return ZOLTLOG_FAILED;
    }
    return result != ZOLTLOG_OK ? result : putBlock(buffer, &msg->lis, 0);
}

uint32_t zoltLogMsgSerialize(LogMsg *msg, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    init_text_msg(buffer);
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (msg->recordVersion < OLDEST_RECORD_VERSION || msg->recordVersion > ZOLTLOG_RECORD_VERSION_LOGSET)
        return ZOLTLOG_FAILED;

    const bool utf8 = msg->utf8 != 0;
    const StringForm form = {utf8, utf8 || localeKeepsAscii()};
    uint32_t result = putPrefix(buffer, msg);
    if (result == ZOLTLOG_OK)
        result = putString(buffer, msg->contextToken, form);
    if (result == ZOLTLOG_OK)
        result = putString(buffer, msg->text, form);
    if (result == ZOLTLOG_OK)
        result = putTypeFields(buffer, msg, form);
    remove_trailing_comma(buffer);
    if (result == ZOLTLOG_OK)
        result = mark_end_of_txt_msg(buffer);
    if (result != ZOLTLOG_OK)
        free_text_msg(buffer);
    return result;
}
