// SPDX-License-Identifier: Apache-2.0
// The record encoder: one LogMsg becomes one line of text. It knows the record,
// the buffer and the localization library; it opens and writes nothing.
//
// Order of sections: numbers; strings; argument blocks; the record. The grammar
// of a record is in docs/format-log-file.md.
#include "bin2txt.h"

#include "cmn_routines.h"
#include "text_msg.h"

#include <cstdio>
#include <cstring>

// ---- numbers -------------------------------------------------------------------

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

uint32_t bin2txt_sev(uint32_t severity, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (severity > ZOLTLOG_SEVERITY_EMERGENCY)
        return ZOLTLOG_FAILED;
    return bin2txt_int(static_cast<int32_t>(severity), buffer);
}

namespace {

// ---- strings -------------------------------------------------------------------

const char UNPROCESSABLE[] = "**UNABLE TO PROCESS LOG MESSAGE**";

// tag, length ":" bytes "|". A length has 32 bits.
uint32_t putCounted(TextBuffer *buffer, const char *tag, const char *bytes, size_t size) {
    const uint32_t length = static_cast<uint32_t>(size);
    char *at = reserve(buffer, strlen(tag) + MAX_DECIMAL + 1 + length + 1);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    at = putUnsigned(stpcpy(at, tag), length);
    *at++ = ':';
    if (length != 0)
        memcpy(at, bytes, length);
    at += length;
    *at++ = '|';
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

} // namespace

// What there is among the bytes of a text.
struct Contents {
    bool high;    // a byte of 128 or more
    bool special; // a line feed or a NUL
};

namespace {

// Copies a text and looks at the very bytes that it copies: the text belongs to the host,
// whose other threads may write to it meanwhile. Sixteen bytes at a time: a message takes
// 1.019 times as long byte by byte.
Contents copyAndLook(char *to, const char *from, size_t length) {
    typedef unsigned char Sixteen __attribute__((vector_size(16)));
    typedef Sixteen Anywhere __attribute__((aligned(1), may_alias));
    const volatile char *const bytesOfHost = from; // each is read once
    Contents found = {false, false};
    if (length < sizeof(Sixteen)) {
        for (size_t at = 0; at < length; ++at) {
            const char byte = bytesOfHost[at];
            to[at] = byte;
            found.high = found.high || (byte & 0x80) != 0;
            found.special = found.special || byte == '\n' || byte == '\0';
        }
        return found;
    }
    Sixteen all = {};
    Sixteen specials = {};
    for (size_t at = 0;;) {
        const Sixteen bytes = *reinterpret_cast<const volatile Anywhere *>(bytesOfHost + at);
        memcpy(to + at, &bytes, sizeof bytes);
        all |= bytes;
        specials |= reinterpret_cast<Sixteen>((bytes == static_cast<unsigned char>('\n')) | (bytes == 0));
        at += sizeof bytes;
        if (at == length)
            break;
        if (at + sizeof bytes > length) // the last ones: some are copied twice
            at = length - sizeof bytes;
    }
    uint64_t words[2];
    memcpy(words, &all, sizeof words);
    found.high = ((words[0] | words[1]) & 0x8080808080808080) != 0;
    memcpy(words, &specials, sizeof words);
    found.special = (words[0] | words[1]) != 0;
    return found;
}

} // namespace

// A string that goes into a record. Its size is taken once, for the reason told above.
struct Source {
    explicit Source(const char *string)
        : text(string), size(string != nullptr && *string != '\0' ? strlen(string) : 0) {}

    const char *const text;
    const size_t size;
};

namespace {

void endLines(char *bytes, size_t length) {
    char *const end = bytes + length;
    while ((bytes = static_cast<char *>(memchr(bytes, '\n', static_cast<size_t>(end - bytes)))) != nullptr)
        *bytes++ = '\r';
}

bool isUtf8Already(const char *bytes, size_t length, StringForm form) {
    switch (form) {
    case StringForm::UTF8:
        return true;
    case StringForm::LocaleAndAscii:
        return isUtf8AsItIs(bytes, length);
    default:
        return false;
    }
}

// What putString leaves to be done: the string's bytes were copied to where a field that
// begins at field has them, but they cannot stay as they are.
[[gnu::noinline]] char *reworkString(TextBuffer *buffer, char *field, char *bytes, size_t length,
                                     StringForm form, uint64_t after) {
    length = strnlen(bytes, length); // it has become shorter
    bytes[length] = '\0';
    char *converted = nullptr;
    const char *text = bytes;
    char *at = field;
    if (!isUtf8Already(bytes, length, form)) {
        text = UNPROCESSABLE; // one bad string must not cost the record
        if (mbs2utf8(&converted, bytes) == ZOLTLOG_OK)
            text = converted;
        length = strlen(text);
        textEndsAt(buffer, field);
        at = reserve(buffer, MAX_DECIMAL + 2 + length + after);
    }
    if (at != nullptr) {
        char digits[MAX_DECIMAL];
        const char *const end = putUnsigned(digits, length);
        at = static_cast<char *>(mempcpy(at, digits, static_cast<size_t>(end - digits)));
        *at++ = ':';
        memmove(at, text, length);
        endLines(at, length);
        at += length;
        *at++ = ',';
    }
    zoltLogFree(converted);
    return at;
}

// length ":" bytes ",", where room for them and for after bytes more is reserved. The
// bytes are looked at in the record, where nobody changes them. Null when memory ends.
char *putString(TextBuffer *buffer, char *at, const Source &source, StringForm form, uint64_t after) {
    char *const field = at;
    const auto length = static_cast<uint32_t>(source.size);
    at = putUnsigned(at, length);
    *at++ = ':';
    if (length != 0) {
        const Contents found = copyAndLook(at, source.text, length);
        if (found.special || (found.high && form != StringForm::UTF8) || form == StringForm::LOCALE)
            return reworkString(buffer, field, at, length, form, after);
        at += length;
    }
    *at++ = ',';
    return at;
}

// ---- argument blocks -----------------------------------------------------------

const size_t MAX_DOUBLE = 400; // "%f": 309 digits, sign, point of any locale, 6 digits

uint32_t putNumber(TextBuffer *buffer, const char *tag, bool isSigned, uint64_t value) {
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
uint32_t putDouble(TextBuffer *buffer, double value) {
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
int encodeUtf8(wchar_t wide, char *out) {
    return wide == L'\0' ? 0 : putUtf8(wide, out);
}

uint32_t putWideString(TextBuffer *buffer, const wchar_t *wide) {
    if (wide == nullptr)
        return putCounted(buffer, "A", nullptr, 0);
    char *text = nullptr;
    uint32_t result = wcs2utf8(&text, wide);
    if (result != ZOLTLOG_OK)
        return result;
    result = putCounted(buffer, "A", text, strlen(text));
    zoltLogFree(text);
    return result;
}

uint32_t putBlock(TextBuffer *buffer, ZoltLisBlock *block, unsigned depth);

uint32_t putArgument(TextBuffer *buffer, ZoltLisIterator *argument, unsigned depth) {
    uint32_t kind = 0;
    if (zoltLisGetArgTypeId(argument, &kind) != 0)
        return ZOLTLOG_FAILED;
    switch (kind) {
    case ZOLTLIS_ITEM_WIDE_CHAR: {
        wchar_t wide = 0;
        char bytes[U8_MAX_LENGTH];
        if (zoltLisGetArg_wchar(argument, &wide) != 0)
            return ZOLTLOG_FAILED;
        const int length = encodeUtf8(wide, bytes);
        return length < 0 ? static_cast<uint32_t>(ZOLTLOG_FAILED)
                          : putCounted(buffer, "1", bytes, static_cast<size_t>(length));
    }
    case ZOLTLIS_ITEM_SIGNED: {
        int64_t value = 0;
        if (zoltLisGetArg_longlong(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "i64:", true, static_cast<uint64_t>(value));
    }
    case ZOLTLIS_ITEM_UNSIGNED: {
        uint64_t value = 0;
        if (zoltLisGetArg_ulonglong(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "u64:", false, value);
    }
    case ZOLTLIS_ITEM_DOUBLE: {
        double value = 0;
        if (zoltLisGetArg_double(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putDouble(buffer, value);
    }
    case ZOLTLIS_ITEM_POINTER: {
        void *value = nullptr;
        if (zoltLisGetArg_pointer(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "964:", false, reinterpret_cast<uintptr_t>(value));
    }
    case ZOLTLIS_ITEM_WIDE_STRING: {
        const wchar_t *value = nullptr;
        if (zoltLisGetArg_wstring(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putWideString(buffer, value);
    }
    case ZOLTLIS_ITEM_OS_ERROR:
    case ZOLTLIS_ITEM_OS_ERROR_OTHER: {
        const ZoltLisOsError *error = nullptr;
        if (zoltLisGetArg_os_error(argument, &error) != 0 || error == nullptr)
            return ZOLTLOG_FAILED;
        const int32_t code = static_cast<int32_t>(error->code);
        return putNumber(buffer, "D32:", true, static_cast<uint64_t>(static_cast<int64_t>(code)));
    }
    case ZOLTLIS_ITEM_DATE_TIME: {
        ZoltLisDateTime value = {0, 0};
        if (zoltLisGetArg_datetime(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putNumber(buffer, "C64:", true, static_cast<uint64_t>(value.seconds));
    }
    case ZOLTLIS_ITEM_NESTED: {
        ZoltLisBlock *nested = nullptr;
        if (zoltLisGetArg_lis(argument, &nested) != 0 || nested == nullptr)
            return ZOLTLOG_FAILED;
        return putBlock(buffer, nested, depth + 1);
    }
    case ZOLTLIS_ITEM_UTF8_STRING: {
        const char *value = nullptr;
        if (zoltLisGetArg_utf8string(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putCounted(buffer, "X", value, value != nullptr ? strlen(value) : 0);
    }
    case ZOLTLIS_ITEM_NATIVE_STRING: {
        const char *value = nullptr;
        if (zoltLisGetArg_nativeString(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putCounted(buffer, "S", value, value != nullptr ? strlen(value) : 0);
    }
    default:
        return ZOLTLOG_FAILED;
    }
}

bool isEmpty(const ZoltLisBlock *block) {
    return (block->word[0] | block->word[1] | block->word[2]) == 0;
}

uint32_t append(TextBuffer *buffer, const char *text, size_t length) {
    char *at = reserve(buffer, length);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    memcpy(at, text, length);
    return ZOLTLOG_OK;
}

uint32_t putBlock(TextBuffer *buffer, ZoltLisBlock *block, unsigned depth) {
    if (isEmpty(block))
        return append(buffer, "(0|),", 5);
    int64_t identity = 0;
    if (depth > ZOLTLIS_MAX_NESTING || zoltLisGetTextId(block, &identity) != 0)
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

const char EMPTY_BLOCK_END[] = "(0|)\n";

// Most bytes of a record besides its strings and its block: eight numbers in front;
// behind them three lengths and a number, each with its separators, and the end.
const uint64_t REST_ROOM = 4 * (MAX_DECIMAL + 2) + sizeof EMPTY_BLOCK_END;
const uint64_t MOST_NUMBERS = 8 * (MAX_DECIMAL + 1) + REST_ROOM;

constexpr int64_t MS_PER_SECOND = 1000;

char *putField(char *at, uint64_t value) {
    at = putUnsigned(at, value);
    *at++ = ',';
    return at;
}

char *putSignedField(char *at, int64_t value) {
    at = putSigned(at, value);
    *at++ = ',';
    return at;
}

// A message takes 1.022 times as long when these numbers are written anew for each.
char *putIdentity(char *at, const LogMsg *msg, RecordNumbers *kept) {
    if (kept->identityLength == 0 || kept->process != msg->processId || kept->thread != msg->threadId) {
        char *const end = putField(putField(kept->identity, msg->processId), msg->threadId);
        kept->identityLength = static_cast<uint64_t>(end - kept->identity);
        kept->process = msg->processId;
        kept->thread = msg->threadId;
    }
    memcpy(at, kept->identity, sizeof kept->identity);
    return at + kept->identityLength;
}

// A message takes 1.024 times as long when the digits of the second are written anew for
// each.
char *putTime(char *at, int64_t milliseconds, RecordNumbers *kept) {
    if (milliseconds < MS_PER_SECOND) // also before 1970
        return putSignedField(at, milliseconds);
    const int64_t second = milliseconds / MS_PER_SECOND;
    if (second != kept->second) {
        kept->second = second;
        kept->secondLength =
            static_cast<uint64_t>(putSigned(kept->secondDigits, second) - kept->secondDigits);
    }
    memcpy(at, kept->secondDigits, sizeof kept->secondDigits);
    at += kept->secondLength;
    const auto rest = static_cast<uint32_t>(milliseconds - second * MS_PER_SECOND);
    *at++ = static_cast<char>('0' + rest / 100);
    *at++ = static_cast<char>('0' + rest / 10 % 10);
    *at++ = static_cast<char>('0' + rest % 10);
    *at++ = ',';
    return at;
}

char *putPrefix(char *at, const LogMsg *msg, RecordNumbers *kept) {
    // KEPT: records of the older versions have no numbers in front. Pinned by
    // RecordEncoding.OlderVersionsHaveNoPrefix.
    if (msg->recordVersion <= ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX)
        return at;
    const bool namesItsFile = msg->recordVersion == ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    at = putField(at, msg->type);
    if (namesItsFile)
        at = putField(at, msg->productId);
    at = putField(at, msg->originatorId);
    if (namesItsFile)
        at = putField(at, msg->fileOriginatorId);
    at = putField(at, msg->messageId);
    at = putTime(at, static_cast<int64_t>(msg->timestamp), kept);
    return putIdentity(at, msg, kept);
}

} // namespace

// What follows the text of a message, by its type.
struct TypeFields {
    bool hasString;
    bool hasNumber;
    bool hasBlock;
    uint32_t number;
    const char *string;
};

namespace {

// False for a message that no file takes.
bool typeFieldsOf(const LogMsg *msg, TypeFields *fields) {
    switch (msg->type) {
    case ZOLTLOG_MSG_DEBUG:
        *fields = {true, true, false, msg->attr.level, msg->who};
        return true;
    case ZOLTLOG_MSG_DIAG:
        *fields = {true, true, true, msg->attr.level, msg->who};
        return true;
    case ZOLTLOG_MSG_APP:
        if (msg->recordVersion > ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO)
            *fields = {true, true, true, msg->attr.severity, msg->who};
        else
            *fields = {false, true, true, msg->attr.severity, nullptr};
        return msg->attr.severity <= ZOLTLOG_SEVERITY_EMERGENCY;
    case ZOLTLOG_MSG_CONTEXT:
        *fields = {true, false, true, 0, msg->attr.contextTitle};
        return true;
    case ZOLTLOG_MSG_AUDIT:
        *fields = {true, true, true, msg->outcome, msg->who};
        return true;
    default: // secure audit messages never reach a file
        return false;
    }
}

// The record but for what its localization block holds: with an empty block, or none, it
// is whole.
uint32_t putFields(TextBuffer *buffer, const LogMsg *msg, const TypeFields &fields, RecordNumbers *kept) {
    const StringForm form = stringFormOf(msg->utf8);
    const Source token(msg->contextToken);
    const Source text(msg->text);
    const Source last(fields.string);
    char *at = reserve(buffer, MOST_NUMBERS + token.size + text.size + last.size);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    at = putPrefix(at, msg, kept);
    at = putString(buffer, at, token, form, REST_ROOM + text.size + last.size);
    if (at != nullptr)
        at = putString(buffer, at, text, form, REST_ROOM + last.size);
    if (at != nullptr && fields.hasString)
        at = putString(buffer, at, last, form, REST_ROOM);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (fields.hasNumber)
        at = putSignedField(at, static_cast<int32_t>(fields.number));
    if (!fields.hasBlock)
        at[-1] = '\n';
    else if (isEmpty(&msg->lis))
        at = static_cast<char *>(mempcpy(at, EMPTY_BLOCK_END, sizeof EMPTY_BLOCK_END - 1));
    textEndsAt(buffer, at);
    return ZOLTLOG_OK;
}

} // namespace

uint32_t serializeMsg(LogMsg *msg, TextBuffer *buffer, RecordNumbers *kept) {
    startText(buffer);
    if (msg->recordVersion < ZOLTLOG_RECORD_VERSION_OLDEST ||
        msg->recordVersion > ZOLTLOG_RECORD_VERSION_LOGSET)
        return ZOLTLOG_FAILED;
    TypeFields fields;
    if (!typeFieldsOf(msg, &fields))
        return ZOLTLOG_FAILED;
    uint32_t result = putFields(buffer, msg, fields, kept);
    if (result == ZOLTLOG_OK && fields.hasBlock && !isEmpty(&msg->lis)) {
        result = putBlock(buffer, &msg->lis, 0);
        remove_trailing_comma(buffer);
        if (result == ZOLTLOG_OK)
            result = mark_end_of_txt_msg(buffer);
    }
    if (result != ZOLTLOG_OK)
        free_text_msg(buffer);
    return result;
}

uint32_t zoltLogMsgSerialize(LogMsg *msg, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    init_text_msg(buffer);
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    RecordNumbers none = {};
    return serializeMsg(msg, buffer, &none);
}
