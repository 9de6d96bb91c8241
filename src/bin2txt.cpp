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

// tag, length ":" bytes "|". A length has 32 bits.
static uint32_t putCounted(TextBuffer *buffer, const char *tag, const char *bytes, size_t size) {
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

// What there is among the bytes of a text.
struct Contents {
    bool high; // a byte of 128 or more
    bool newline;
};

static Contents contentsOf(const char *text, size_t length) {
    typedef unsigned char Sixteen __attribute__((vector_size(16)));
    Contents found = {false, false};
    if (length < sizeof(Sixteen)) {
        for (size_t at = 0; at < length; ++at) {
            found.high = found.high || (text[at] & 0x80) != 0;
            found.newline = found.newline || text[at] == '\n';
        }
        return found;
    }
    Sixteen all = {};
    Sixteen newlines = {};
    for (size_t at = 0;;) {
        Sixteen bytes;
        memcpy(&bytes, text + at, sizeof bytes);
        all |= bytes;
        newlines |= reinterpret_cast<Sixteen>(bytes == static_cast<unsigned char>('\n'));
        at += sizeof bytes;
        if (at == length)
            break;
        if (at + sizeof bytes > length) // the last ones: some are looked at twice
            at = length - sizeof bytes;
    }
    uint64_t words[2];
    memcpy(words, &all, sizeof words);
    found.high = ((words[0] | words[1]) & 0x8080808080808080) != 0;
    memcpy(words, &newlines, sizeof words);
    found.newline = (words[0] | words[1]) != 0;
    return found;
}

void RecordString::read(const char *text, StringForm form) {
    bytes = text;
    size = strlen(text);
    const Contents found = contentsOf(text, size);
    newline = found.newline;
    if (form == StringForm::UTF8 || (form == StringForm::LOCALE_AND_ASCII && !found.high) ||
        isUtf8AsItIs(text, size))
        return;
    if (mbs2utf8(&converted, text) == ZOLTLOG_OK) {
        bytes = converted;
        size = strlen(converted);
        newline = true; // where the encoding has it is the converter's business
    } else {            // one bad string must not cost the record
        bytes = UNPROCESSABLE;
        size = sizeof UNPROCESSABLE - 1;
    }
}

// length ":" bytes ","
static char *putString(char *at, const RecordString &string) {
    const auto length = static_cast<uint32_t>(string.size);
    at = putUnsigned(at, length);
    *at++ = ':';
    if (length != 0)
        memcpy(at, string.bytes, length);
    at += length;
    *at++ = ',';
    return at;
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
        return putCounted(buffer, "A", nullptr, 0);
    char *text = nullptr;
    uint32_t result = wcs2utf8(&text, wide);
    if (result != ZOLTLOG_OK)
        return result;
    result = putCounted(buffer, "A", text, strlen(text));
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
                          : putCounted(buffer, "1", bytes, static_cast<size_t>(length));
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
        return putCounted(buffer, "X", value, value != nullptr ? strlen(value) : 0);
    }
    case ARG_NATIVE_STRING: {
        const char *value = nullptr;
        if (zoltLisGetArg_nativeString(argument, &value) != 0)
            return ZOLTLOG_FAILED;
        return putCounted(buffer, "S", value, value != nullptr ? strlen(value) : 0);
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
    if (isEmpty(block))
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

static const char EMPTY_BLOCK_END[] = "(0|)\n";

// Most bytes of a record besides its strings and its block: eight numbers in front,
// three lengths and a number behind, each with a separator, and the end.
static const uint64_t MOST_NUMBERS = 12 * (MAX_DECIMAL + 1) + 3 + sizeof EMPTY_BLOCK_END;

static char *putField(char *at, uint64_t value) {
    at = putUnsigned(at, value);
    *at++ = ',';
    return at;
}

static char *putSignedField(char *at, int64_t value) {
    at = putSigned(at, value);
    *at++ = ',';
    return at;
}

static char *putIdentity(char *at, const LogMsg *msg, RecordIdentity *last) {
    if (last->length == 0 || last->process != msg->processId || last->thread != msg->threadId) {
        char *const end = putField(putField(last->text, msg->processId), msg->threadId);
        last->length = static_cast<uint64_t>(end - last->text);
        last->process = msg->processId;
        last->thread = msg->threadId;
    }
    memcpy(at, last->text, sizeof last->text);
    return at + last->length;
}

static char *putPrefix(char *at, const LogMsg *msg, RecordIdentity *last) {
    // KEPT: records of the older versions have no numbers in front. Pinned by
    // RecordEncoding.OlderVersionsHaveNoPrefix.
    if (msg->recordVersion < ZOLTLOG_RECORD_VERSION_ORIGINATOR)
        return at;
    const bool namesItsFile = msg->recordVersion == ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    at = putField(at, msg->type);
    if (namesItsFile)
        at = putField(at, msg->productId);
    at = putField(at, msg->originatorId);
    if (namesItsFile)
        at = putField(at, msg->fileOriginatorId);
    at = putField(at, msg->messageId);
    at = putSignedField(at, static_cast<int64_t>(msg->timestamp));
    return putIdentity(at, msg, last);
}

static const uint64_t FIRST_VERSION_WITH_APP_WHO = 65542;

// The string that follows the text of a message, null where its type has none.
static const char *lastStringOf(const LogMsg *msg) {
    switch (msg->type) {
    case ZOLTLOG_MSG_APP:
        return msg->recordVersion >= FIRST_VERSION_WITH_APP_WHO ? msg->who : nullptr;
    case ZOLTLOG_MSG_CONTEXT:
        return msg->attr.contextTitle;
    case ZOLTLOG_MSG_DEBUG:
    case ZOLTLOG_MSG_DIAG:
    case ZOLTLOG_MSG_AUDIT:
        return msg->who;
    default:
        return nullptr;
    }
}

// What else follows the text of a message, by its type.
struct TypeFields {
    bool hasString;
    bool hasNumber;
    bool hasBlock;
    uint32_t number;
};

// False for a message that no file takes.
static bool typeFieldsOf(const LogMsg *msg, TypeFields *fields) {
    switch (msg->type) {
    case ZOLTLOG_MSG_DEBUG:
        *fields = {true, true, false, msg->attr.level};
        return true;
    case ZOLTLOG_MSG_DIAG:
        *fields = {true, true, true, msg->attr.level};
        return true;
    case ZOLTLOG_MSG_APP:
        *fields = {msg->recordVersion >= FIRST_VERSION_WITH_APP_WHO, true, true, msg->attr.severity};
        return msg->attr.severity <= HIGHEST_SEVERITY;
    case ZOLTLOG_MSG_CONTEXT:
        *fields = {true, false, true, 0};
        return true;
    case ZOLTLOG_MSG_AUDIT:
        *fields = {true, true, true, msg->outcome};
        return true;
    default: // secure audit messages never reach a file
        return false;
    }
}

static uint32_t putRecord(TextBuffer *buffer, LogMsg *msg, const RecordWords &words,
                          RecordIdentity *identity) {
    TypeFields fields;
    if (!typeFieldsOf(msg, &fields))
        return ZOLTLOG_FAILED;
    const RecordString token(msg->contextToken, words.form);
    char *at = reserve(buffer, MOST_NUMBERS + token.size + words.text.size + words.last.size);
    if (at == nullptr)
        return ZOLTLOG_NO_MEMORY;
    at = putPrefix(at, msg, identity);
    at = putString(at, token);
    at = putString(at, words.text);
    if (fields.hasString)
        at = putString(at, words.last);
    if (fields.hasNumber)
        at = putSignedField(at, static_cast<int32_t>(fields.number));
    textEndsAt(buffer, at);
    const bool newline = token.newline || words.text.newline || words.last.newline;
    const bool emptyBlock = fields.hasBlock && isEmpty(&msg->lis);
    if (!newline && (emptyBlock || !fields.hasBlock)) { // nearly every record: ended without a call
        if (emptyBlock)
            at = static_cast<char *>(mempcpy(at, EMPTY_BLOCK_END, sizeof EMPTY_BLOCK_END - 1));
        else
            at[-1] = '\n';
        textEndsAt(buffer, at);
        return ZOLTLOG_OK;
    }
    const uint32_t result = fields.hasBlock ? putBlock(buffer, &msg->lis, 0) : uint32_t{ZOLTLOG_OK};
    remove_trailing_comma(buffer);
    return result == ZOLTLOG_OK ? mark_end_of_txt_msg(buffer) : result;
}

uint32_t serializeWith(const RecordWords &words, LogMsg *msg, TextBuffer *buffer, RecordIdentity *identity) {
    startText(buffer);
    if (msg->recordVersion < OLDEST_RECORD_VERSION || msg->recordVersion > ZOLTLOG_RECORD_VERSION_LOGSET)
        return ZOLTLOG_FAILED;
    const uint32_t result = putRecord(buffer, msg, words, identity);
    if (result != ZOLTLOG_OK)
        free_text_msg(buffer);
    return result;
}

uint32_t serializeMsg(LogMsg *msg, TextBuffer *buffer, RecordIdentity *identity) {
    return serializeWith(RecordWords(msg->text, lastStringOf(msg), msg->utf8), msg, buffer, identity);
}

uint32_t zoltLogMsgSerialize(LogMsg *msg, TextBuffer *buffer) {
    if (buffer == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    init_text_msg(buffer);
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    RecordIdentity identity = {};
    return serializeMsg(msg, buffer, &identity);
}
