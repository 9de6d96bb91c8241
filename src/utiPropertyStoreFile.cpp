// SPDX-License-Identifier: Apache-2.0
// The property store in a file: syntax, open and close, lookups, enumerations.
// Rewriting is in utiPropertyStoreFile_rewrite.cpp, reading many keys in one pass in
// utiPropertyStoreFile_index.cpp.
//
// Sections: lines and their parts; opening and reading lines; lookups and typed
// values; enumerations.
//
// The exported operations read through the handle's stream, which stays where the
// last one left it: enumerations go on from there.
#include "utiPropertyStoreFile.h"

#include "cancellation.h"

#include "bounded.h"
#include "cmn_routines.h"
#include "decimal.h"
#include "os.h"
#include "regular_file.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// ---- lines and their parts -------------------------------------------------------

// The text of a line is what precedes its first NUL byte.
StoreText textOf(StoreText line) {
    return {line.text, strnlen(line.text, line.size)};
}

size_t positionOf(StoreText text, char wanted) { // text.size when there is none
    const void *at = memchr(text.text, wanted, text.size);
    return at != nullptr ? static_cast<size_t>(static_cast<const char *>(at) - text.text) : text.size;
}

bool equals(StoreText text, const char *wanted, size_t length) {
    return text.size == length && memcmp(text.text, wanted, length) == 0;
}

// The next token of what is left: delimiters before it are skipped, those after it stay.
StoreText nextToken(StoreText *left, const char *delimiters) {
    const auto isDelimiter = [delimiters](char c) { return c != '\0' && strchr(delimiters, c) != nullptr; };
    while (left->size > 0 && isDelimiter(*left->text)) {
        ++left->text;
        --left->size;
    }
    StoreText token = {left->text, 0};
    while (token.size < left->size && !isDelimiter(token.text[token.size]))
        ++token.size;
    left->text += token.size;
    left->size -= token.size;
    return token;
}

} // namespace

bool storeLineHasKey(StoreText line, const char *root, const char *name) {
    line = textOf(line);
    StoreText key = {line.text, positionOf(line, '=')};
    if (key.size == line.size)
        return false;
    if (root != nullptr) {
        const size_t length = strlen(root);
        if (key.size <= length || memcmp(key.text, root, length) != 0 || key.text[length] != '.')
            return false;
        key.text += length + 1;
        key.size -= length + 1;
    }
    return equals(key, name, strlen(name));
}

bool storeTextValue(StoreText rest, char value[STORE_VALUE_SIZE]) {
    const auto isEnd = [](char c) { return c == '=' || c == '\n' || c == '\0'; };
    if (rest.size == 0 || *rest.text == '\0')
        return false;
    size_t length = 0; // values are short: a loop is quicker than a search for each end
    for (; length < rest.size && !isEnd(rest.text[length]); ++length) {
        if (length == STORE_VALUE_SIZE - 1) {
            while (length > 0 && (static_cast<unsigned char>(rest.text[length]) & 0xC0) == 0x80)
                --length; // half a character could not be converted
            break;
        }
        value[length] = rest.text[length];
    }
    value[length] = '\0';
    return true;
}

bool storeLineValue(StoreText line, char value[STORE_VALUE_SIZE]) {
    line = textOf(line);
    const size_t equal = positionOf(line, '=');
    return equal < line.size && storeTextValue({line.text + equal + 1, line.size - equal - 1}, value);
}

bool storeLineInSection(StoreText line, const char *section, const char *delimiters) {
    line = textOf(line);
    const StoreText first = nextToken(&line, delimiters);
    size_t length = strlen(section);
    if (!equals(first, STORE_LOGSET_TOKEN, STORE_LOGSET_TOKEN_LENGTH))
        return equals(first, section, length);
    const StoreText second = nextToken(&line, delimiters);
    if (length <= STORE_LOGSET_TOKEN_LENGTH ||
        memcmp(section, STORE_LOGSET_TOKEN, STORE_LOGSET_TOKEN_LENGTH) != 0 ||
        section[STORE_LOGSET_TOKEN_LENGTH] != '.')
        return false;
    section += STORE_LOGSET_TOKEN_LENGTH + 1;
    length -= STORE_LOGSET_TOKEN_LENGTH + 1;
    return equals(second, section, length);
}

bool storeLineHasFirstToken(StoreText line, const char *name) {
    line = textOf(line);
    return equals(nextToken(&line, ".="), name, strlen(name));
}

namespace {

bool isComment(StoreText line) {
    size_t i = 0;
    while (i < line.size && line.text[i] == ' ')
        ++i;
    return i < line.size && line.text[i] == '#';
}

} // namespace

int32_t IscommentFile(const char *line) {
    return line != nullptr && isComment({line, strlen(line)}) ? 1 : 0;
}

StoreText storeSectionName(StoreText line) {
    line = textOf(line);
    if (isComment(line))
        return {nullptr, 0};
    const StoreText name = {line.text, positionOf(line, '.')};
    if (name.size == line.size || positionOf(name, '=') != name.size)
        return {nullptr, 0};
    return name;
}

StoreText storeLogsetName(StoreText line) {
    line = textOf(line);
    if (line.size < STORE_LOGSET_TOKEN_LENGTH ||
        memcmp(line.text, STORE_LOGSET_TOKEN, STORE_LOGSET_TOKEN_LENGTH) != 0)
        return {nullptr, 0};
    (void)nextToken(&line, ".");
    const StoreText name = nextToken(&line, ".");
    return name.size > 0 ? name : StoreText{nullptr, 0};
}

namespace {

// ---- opening and reading lines -----------------------------------------------------

// Hashes of the paths opened so far; a later one may take the place of an earlier one.
const size_t READ_PATHS = 256;
uint64_t readPaths[READ_PATHS];

uint64_t hashOfPath(const char *path) {
    uint64_t hash = 14695981039346656037U;
    for (; *path != '\0'; ++path)
        hash = (hash ^ static_cast<unsigned char>(*path)) * 1099511628211U;
    return hash != 0 ? hash : 1;
}

void notePath(const char *path, bool isThere) {
    const uint64_t hash = hashOfPath(path);
    __atomic_store_n(&readPaths[(hash >> 32U) % READ_PATHS], isThere ? hash : 0, __ATOMIC_RELAXED);
}

} // namespace

bool storeWasRead(const char *path) {
    const uint64_t hash = hashOfPath(path);
    return __atomic_load_n(&readPaths[(hash >> 32U) % READ_PATHS], __ATOMIC_RELAXED) == hash;
}

void storeForget(const char *path) {
    notePath(path, false);
}

int storeOpenForReading(const char *path) {
    int descriptor = -1;
    if (openDescriptor(path, ZOLTLOG_OS_MODE_READ, 0, &descriptor) != ZOLTLOG_OS_OK)
        return -1;
    struct stat status;
    const bool isKnown = fstat(descriptor, &status) == 0;
    if (isKnown && status.st_size <= static_cast<off_t>(STORE_FILE_MAX)) {
        notePath(path, true);
        return descriptor;
    }
    errno = isKnown ? EFBIG : errno;
    closeKeepingErrno(descriptor);
    return -1;
}

uint32_t utiOpenPropertyStoreFile(const char *path, const char *root, PropertyStore *store) {
    const CancellationOff off;
    if (path == nullptr || root == nullptr || store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    FILE *stream = nullptr;
    const int descriptor = storeOpenForReading(path);
    if (descriptor >= 0) {
        stream = fdopen(descriptor, "r");
        if (stream == nullptr)
            close(descriptor);
    }
    store->stream = stream;
    if (stream == nullptr)
        return ZOLTLOG_STORE_NO_FILE;
    copyBounded(store->root, root);
    copyBounded(store->path, path);
    return ZOLTLOG_STORE_OK;
}

uint32_t utiClosePropertyStoreFile(PropertyStore *store) {
    const CancellationOff off;
    if (store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    if (store->stream != nullptr)
        (void)fclose(store->stream); // nothing was written through it
    store->stream = nullptr;
    return ZOLTLOG_STORE_OK;
}

namespace {

// The next line from the stream's position on. False at the end.
bool readLine(FILE *stream, char buffer[STORE_LINE_MAX], StoreText *line) {
    size_t size = 0;
    int c = 0;
    while (size < STORE_LINE_MAX && c != '\n' && (c = getc_unlocked(stream)) != EOF)
        buffer[size++] = static_cast<char>(c);
    *line = {buffer, size};
    return size > 0;
}

const size_t READER_BUFFER_SIZE = 65536;

} // namespace

bool storeReaderInit(StoreReader *reader, int descriptor) {
    *reader = {};
    reader->descriptor = descriptor;
    reader->atEnd = descriptor < 0;
    reader->buffer = static_cast<char *>(zoltLogMalloc(READER_BUFFER_SIZE));
    return reader->buffer != nullptr;
}

namespace {

void fillReader(StoreReader *reader) {
    memmove(reader->buffer, reader->buffer + reader->begin, reader->end - reader->begin);
    reader->end -= reader->begin;
    reader->begin = 0;
    const ssize_t count =
        read(reader->descriptor, reader->buffer + reader->end, READER_BUFFER_SIZE - reader->end);
    if (count > 0) {
        reader->end += static_cast<size_t>(count);
    } else if (count == 0 || errno != EINTR) {
        reader->atEnd = true;
        reader->failed = count < 0;
    }
}

} // namespace

bool storeReaderNext(StoreReader *reader, StoreText *line) {
    for (;;) {
        const size_t left = reader->end - reader->begin;
        *line = storeLine(reader->buffer + reader->begin, left);
        if (line->size == STORE_LINE_MAX || (line->size > 0 && line->text[line->size - 1] == '\n') ||
            reader->atEnd)
            break;
        fillReader(reader);
    }
    reader->begin += line->size;
    return line->size > 0;
}

void storeReaderFree(StoreReader *reader) {
    zoltLogFree(reader->buffer);
    reader->buffer = nullptr;
}

// ---- lookups and typed values --------------------------------------------------------

uint32_t storeLookup(PropertyStore *store, const char *name, char value[STORE_VALUE_SIZE]) {
    const CancellationOff off;
    if (store == nullptr || store->stream == nullptr || name == nullptr)
        return ZOLTLOG_STORE_NOT_FOUND;
    rewind(store->stream);
    char buffer[STORE_LINE_MAX];
    StoreText line;
    while (readLine(store->stream, buffer, &line)) {
        // KEPT: with an empty root the key looked for begins with a '.', although a set
        // writes the name alone. Pinned by PropertyStore.AnEmptyRootLooksForADotAndWritesTheNameAlone.
        if (storeLineHasKey(line, store->root, name) && storeLineValue(line, value))
            return ZOLTLOG_STORE_OK;
    }
    return ZOLTLOG_STORE_NOT_FOUND;
}

bool storePlainText(const char *value, char (&text)[STORE_VALUE_SIZE]) {
    size_t length = strnlen(value, sizeof text);
    if (length == sizeof text || !isPlainAscii(value, length) || !localeKeepsAscii())
        return false;
    while (length > 0 && value[length - 1] == ' ')
        --length;
    memcpy(text, value, length);
    text[length] = '\0';
    return true;
}

uint32_t storeValueText(const char *value, char **out) {
    *out = nullptr;
    if (isPlainAscii(value, strlen(value)) && localeKeepsAscii()) {
        *out = zoltLogSafeStrdup(value);
        if (*out == nullptr)
            return ZOLTLOG_NO_MEMORY;
    } else {
        const uint32_t result = utf82mbs(out, value);
        if (result != ZOLTLOG_OK)
            return result;
    }
    size_t length = strlen(*out);
    while (length > 0 && (*out)[length - 1] == ' ')
        --length;
    (*out)[length] = '\0';
    return ZOLTLOG_OK;
}

unsigned long storeValueNumber(const char *value) {
    uint64_t number = 0; // without a digit
    (void)scanUnsigned(&value, ANY_WIDTH, &number);
    return number;
}

uint32_t storeValueBool(const char *value) {
    return strcoll(value, "true") == 0 ? 1 : 0;
}

uint32_t utiGetPropertyAsUlongFile(PropertyStore *store, const char *name, unsigned long *out) {
    char value[STORE_VALUE_SIZE];
    if (out == nullptr || storeLookup(store, name, value) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    *out = storeValueNumber(value);
    return ZOLTLOG_STORE_OK;
}

uint32_t utiGetPropertyAsBoolFile(PropertyStore *store, const char *name, uint32_t *out) {
    char value[STORE_VALUE_SIZE];
    if (out == nullptr || storeLookup(store, name, value) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    *out = storeValueBool(value);
    return ZOLTLOG_STORE_OK;
}

uint32_t utiGetPropertyAsStrFile(PropertyStore *store, const char *name, char **out) {
    char value[STORE_VALUE_SIZE];
    if (out == nullptr || storeLookup(store, name, value) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    char *text = nullptr;
    if (storeValueText(value, &text) != ZOLTLOG_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    *out = text;
    return ZOLTLOG_STORE_OK;
}

namespace {

// ---- enumerations ----------------------------------------------------------------------

// Hands out a name that differs from the one in the caller's buffer: ZOLTLOG_STORE_OK,
// ZOLTLOG_STORE_NOT_WRITTEN when the buffer is too small, ZOLTLOG_STORE_NO_MORE when it does not differ.
uint32_t giveName(StoreText found, char *name, uint32_t *size) {
    if (equals(found, name, strnlen(name, *size)))
        return ZOLTLOG_STORE_NO_MORE;
    if (found.size >= *size)
        return ZOLTLOG_STORE_NOT_WRITTEN;
    memcpy(name, found.text, found.size);
    name[found.size] = '\0';
    *size = static_cast<uint32_t>(found.size);
    return ZOLTLOG_STORE_OK;
}

uint32_t enumerate(PropertyStore *store, StoreText (*nameOf)(StoreText), char *name, uint32_t *size) {
    const CancellationOff off;
    if (store == nullptr || store->stream == nullptr || name == nullptr || size == nullptr || *size == 0)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char buffer[STORE_LINE_MAX];
    StoreText line;
    while (readLine(store->stream, buffer, &line)) {
        const StoreText found = nameOf(line);
        const uint32_t result =
            found.text != nullptr ? giveName(found, name, size) : uint32_t{ZOLTLOG_STORE_NO_MORE};
        if (result != ZOLTLOG_STORE_NO_MORE)
            return result;
    }
    return ZOLTLOG_STORE_NO_MORE;
}

} // namespace

uint32_t utiEnumProductIdFile(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size) {
    (void)ignored;
    return enumerate(store, storeSectionName, name, size);
}

uint32_t utiEnumLogsetForProductIdFile(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size) {
    (void)ignored;
    return enumerate(store, storeLogsetName, name, size);
}

void storeIndexRewind(StoreIndex *index) {
    index->run = index->cursor = 0;
}

// A run's lines give one section name, and, unless they begin with that of log sets, no other
// name; lines without a '.' are in no run and give none. One of its lines is enough then.
uint32_t storeIndexNext(StoreIndex *index, StoreText (*nameOf)(StoreText), char *name, uint32_t *size) {
    while (index->run < index->runs.count) {
        const StoreRun *run = &index->runs.items[index->run];
        if (index->cursor < run->begin)
            index->cursor = run->begin;
        const StoreText line = storeLine(index->bytes + index->cursor, run->end - index->cursor);
        index->cursor += line.size;
        const bool isLogset = line.size >= STORE_LOGSET_TOKEN_LENGTH &&
                              memcmp(line.text, STORE_LOGSET_TOKEN, STORE_LOGSET_TOKEN_LENGTH) == 0;
        if (!isLogset || index->cursor >= run->end)
            ++index->run;
        const StoreText found = nameOf(line);
        const uint32_t result =
            found.text != nullptr ? giveName(found, name, size) : uint32_t{ZOLTLOG_STORE_NO_MORE};
        if (result != ZOLTLOG_STORE_NO_MORE)
            return result;
    }
    return ZOLTLOG_STORE_NO_MORE;
}
