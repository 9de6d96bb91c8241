// SPDX-License-Identifier: Apache-2.0
// Reading resource bundles.
//
//     file   = header body
//     header = size:16 0xda 0x27 ... big-endian:8 charset:8 unit-size:8 ... "ResB" version:8 ...
//     body   = root:32 index keys units resources       offsets count from the body's start
//     index  = word 0: how many words (low byte); 1, 2, 3: where keys, resources and the
//              bundle end, in words; 5: attributes
//     root   = type in the top four bits, offset below
//
//     table    = count:16 key:16 ... (padded) resource:32 ...
//     table 32 = count:32 key:32 ... resource:32 ...
//     table 16 = count:16 key:16 ... text:16 ...        among the units
//     text     = length:32 units                        as a resource of the first version
//     text 2   = [length] units NUL                     among the units; a length is a unit
//                from 0xdc00 to 0xdfff, with one or two units more from 0xdfef on
//
// A package in one file (".dat") has the same header with "CmnD" and then
//     count:32 { name:32 data:32 } names data           offsets count from count's start
//
// Order: bytes of a file; the body; finding a text; packages; the locales of a chain; the
// entries.

#include "bundle.h"

#include "regular_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/uloc.h>
#include <unistd.h>

struct Bundle {
    Bundle *parent;
    char *file;
    const char *body;
    size_t size;  // of the body
    size_t keys;  // where they end
    bool isAlone; // texts that it lacks are not looked for in its parents
};

namespace {

const size_t HEADER_LEAST = 24;
const size_t LARGEST_FILE = size_t{1} << 28;
const size_t PATH_ROOM = 4096 + 256;
const int MAX_CHAIN = 8; // locales; keeps aliases that name each other from going on

enum ResourceType : uint32_t { TEXT = 0, TABLE = 2, TABLE32 = 4, TABLE16 = 5, TEXT2 = 6 };
enum IndexWord : size_t { INDEX_LENGTH = 1, KEYS_END = 2, RESOURCES_END = 3, BUNDLE_END = 4, ATTRIBUTES = 6 };
const size_t LEAST_INDEX = 5; // words
enum Attribute : uint32_t { NO_FALLBACK = 1, USES_POOL = 4 };

// ---- bytes of a file --------------------------------------------------------------------

struct Bytes {
    const char *at;
    size_t size;
};

template<typename Number>
bool numberAt(const Bytes &bytes, size_t at, Number *out) {
    if (at > bytes.size || bytes.size - at < sizeof *out)
        return false;
    memcpy(out, bytes.at + at, sizeof *out);
    return true;
}

// Without a file, or with one that is none of ours to read: ZOLTLIS_NO_MORE. Any other failure
// may be over the next time.
LisResult resultOfErrno() {
    switch (errno) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
    case EACCES:
    case EPERM:
    case ELOOP:
    case EISDIR:
    case ENXIO:
        return ZOLTLIS_NO_MORE;
    default:
        return LIS_NOT_NOW;
    }
}

// A descriptor above 2 on a regular file.
LisResult openFile(const char *path, int *descriptor) {
    int opened = openRegular(AT_FDCWD, path, O_RDONLY);
    if (opened >= 0 && opened <= STDERR_FILENO) {
        const int low = opened;
        opened = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        closeKeepingErrno(low);
    }
    *descriptor = opened;
    return opened >= 0 ? ZOLTLIS_OK : resultOfErrno();
}

// The bytes behind a descriptor, in memory of the caller's own.
LisResult readWhole(int descriptor, char **out, size_t *size) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return LIS_NOT_NOW;
    if (!S_ISREG(status.st_mode) || status.st_size <= 0 || static_cast<size_t>(status.st_size) > LARGEST_FILE)
        return ZOLTLIS_NO_MORE;
    const size_t expected = static_cast<size_t>(status.st_size);
    char *bytes = static_cast<char *>(malloc(expected));
    if (bytes == nullptr)
        return LIS_NOT_NOW;
    size_t got = 0;
    while (got < expected) {
        const ssize_t count = read(descriptor, bytes + got, expected - got);
        if (count > 0) {
            got += static_cast<size_t>(count);
        } else if (count == 0) {
            break;
        } else if (errno != EINTR) {
            free(bytes);
            return LIS_NOT_NOW;
        }
    }
    *out = bytes;
    *size = got;
    return ZOLTLIS_OK;
}

LisResult readFile(const char *path, char **out, size_t *size) {
    int descriptor;
    LisResult result = openFile(path, &descriptor);
    if (result != ZOLTLIS_OK)
        return result;
    result = readWhole(descriptor, out, size);
    close(descriptor);
    return result;
}

const uint8_t IS_BIG_ENDIAN = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 1 : 0;

// What follows the header of a file in the given format; false for anything else, also
// for a header that is not of this machine's kind.
bool skipHeader(Bytes *bytes, const char (&format)[5], uint8_t *version) {
    uint16_t size;
    if (bytes->size < HEADER_LEAST || !numberAt(*bytes, 0, &size))
        return false;
    const auto byte = [bytes](size_t at) { return static_cast<uint8_t>(bytes->at[at]); };
    if (byte(2) != 0xda || byte(3) != 0x27 || byte(8) != IS_BIG_ENDIAN || byte(9) != 0 ||
        byte(10) != sizeof(UChar) || memcmp(bytes->at + 12, format, 4) != 0 || size < HEADER_LEAST ||
        size > bytes->size || size % sizeof(uint32_t) != 0)
        return false;
    *version = byte(16);
    *bytes = {bytes->at + size, bytes->size - size};
    return true;
}

// ---- the body ---------------------------------------------------------------------------

const size_t WORD = sizeof(uint32_t);

Bytes bodyOf(const Bundle *bundle) {
    return {bundle->body, bundle->size};
}

// Takes over what the body says of itself; false when that cannot be.
bool readIndex(Bundle *bundle) {
    const Bytes body = bodyOf(bundle);
    uint32_t length;
    uint32_t keysEnd;
    uint32_t resourcesEnd;
    uint32_t end;
    uint32_t attributes = 0;
    if (!numberAt(body, INDEX_LENGTH * WORD, &length) || !numberAt(body, KEYS_END * WORD, &keysEnd) ||
        !numberAt(body, RESOURCES_END * WORD, &resourcesEnd) || !numberAt(body, BUNDLE_END * WORD, &end))
        return false;
    length &= 0xff;
    if (length > LEAST_INDEX && !numberAt(body, ATTRIBUTES * WORD, &attributes))
        return false;
    if (length < LEAST_INDEX || keysEnd < 1 + length || resourcesEnd < keysEnd || end < resourcesEnd ||
        end > bundle->size / WORD || (attributes & USES_POOL) != 0)
        return false;
    bundle->size = end * WORD;
    bundle->keys = keysEnd * WORD;
    bundle->isAlone = (attributes & NO_FALLBACK) != 0;
    return true;
}

// ---- finding a text ---------------------------------------------------------------------

ResourceType typeOf(uint32_t resource) {
    return static_cast<ResourceType>(resource >> 28);
}

size_t offsetOf(uint32_t resource) {
    return resource & 0x0fffffff;
}

// A table of the top level: where its keys and its resources lie, and their widths.
struct Table {
    uint32_t count;
    size_t keys;
    size_t keyWidth;
    size_t resources;
    bool hasTexts; // a resource is the place of a text among the units, in 16 bits
};

bool readTable(const Bundle *bundle, Table *table) {
    const Bytes body = bodyOf(bundle);
    uint32_t root;
    uint16_t count;
    if (!numberAt(body, 0, &root))
        return false;
    switch (typeOf(root)) {
    case TABLE: {
        const size_t at = offsetOf(root) * WORD;
        if (at == 0 || !numberAt(body, at, &count))
            return false;
        const size_t keys = at + sizeof count;
        const size_t behind = keys + count * sizeof(uint16_t);
        *table = {count, keys, sizeof(uint16_t), (behind + WORD - 1) / WORD * WORD, false};
        return true;
    }
    case TABLE32: {
        const size_t at = offsetOf(root) * WORD;
        if (at == 0 || !numberAt(body, at, &table->count))
            return false;
        *table = {table->count, at + WORD, WORD, at + WORD + table->count * WORD, false};
        return true;
    }
    case TABLE16: {
        const size_t at = bundle->keys + offsetOf(root) * sizeof(uint16_t);
        if (!numberAt(body, at, &count))
            return false;
        const size_t keys = at + sizeof count;
        *table = {count, keys, sizeof(uint16_t), keys + count * sizeof(uint16_t), true};
        return true;
    }
    default:
        return false;
    }
}

// The place of an entry's key; false when it lies outside of the keys.
bool readKey(const Bundle *bundle, const Table &table, uint32_t entry, size_t *at) {
    const Bytes body = bodyOf(bundle);
    uint32_t wide = 0;
    uint16_t narrow = 0;
    const size_t place = table.keys + entry * table.keyWidth;
    if (!(table.keyWidth == WORD ? numberAt(body, place, &wide) : numberAt(body, place, &narrow)))
        return false;
    *at = wide | narrow;
    return *at < bundle->keys;
}

// The resource of an entry; false when it lies outside of the body.
bool readResource(const Bundle *bundle, const Table &table, uint32_t entry, uint32_t *resource) {
    uint16_t text;
    if (!table.hasTexts)
        return numberAt(bodyOf(bundle), table.resources + entry * WORD, resource);
    if (!numberAt(bodyOf(bundle), table.resources + entry * sizeof text, &text))
        return false;
    *resource = uint32_t{TEXT2} << 28 | text;
    return true;
}

// The resource of a key; false when there is none.
bool findResource(const Bundle *bundle, const char *key, uint32_t *resource) {
    Table table;
    if (!readTable(bundle, &table))
        return false;
    uint32_t from = 0;
    uint32_t to = table.count;
    while (from < to) {
        const uint32_t middle = from + (to - from) / 2;
        size_t at;
        if (!readKey(bundle, table, middle, &at))
            return false;
        const int order = strncmp(key, bundle->body + at, bundle->keys - at);
        if (order == 0)
            return readResource(bundle, table, middle, resource);
        (order < 0 ? to : from) = order < 0 ? middle : middle + 1;
    }
    return false;
}

// The units from an offset of the body on, so many of them; null when some lie outside.
const UChar *unitsAt(const Bundle *bundle, size_t at, uint32_t count, int32_t *length) {
    if (at > bundle->size || count > (bundle->size - at) / sizeof(UChar))
        return nullptr;
    *length = static_cast<int32_t>(count);
    return reinterpret_cast<const UChar *>(bundle->body + at);
}

// A text among the units.
const UChar *text2At(const Bundle *bundle, size_t at, int32_t *length) {
    const Bytes body = bodyOf(bundle);
    uint16_t first;
    uint16_t high;
    uint16_t low;
    if (!numberAt(body, at, &first))
        return nullptr;
    const size_t unit = sizeof first;
    if (first < 0xdc00 || first > 0xdfff) { // ends at its NUL
        size_t end = at;
        for (uint16_t next = first; next != 0;) {
            end += unit;
            if (!numberAt(body, end, &next))
                return nullptr;
        }
        return unitsAt(bundle, at, static_cast<uint32_t>((end - at) / unit), length);
    }
    if (first < 0xdfef)
        return unitsAt(bundle, at + unit, first & 0x3ffu, length);
    if (!numberAt(body, at + unit, &high))
        return nullptr;
    if (first < 0xdfff)
        return unitsAt(bundle, at + 2 * unit, (uint32_t{first} - 0xdfef) << 16 | high, length);
    if (!numberAt(body, at + 2 * unit, &low))
        return nullptr;
    return unitsAt(bundle, at + 3 * unit, uint32_t{high} << 16 | low, length);
}

// The text that a resource is; null for any other kind.
const UChar *textOf(const Bundle *bundle, uint32_t resource, int32_t *length) {
    static const UChar EMPTY[1] = {0};
    const size_t offset = offsetOf(resource);
    switch (typeOf(resource)) {
    case TEXT2:
        return text2At(bundle, bundle->keys + offset * sizeof(UChar), length);
    case TEXT: {
        uint32_t count;
        *length = 0;
        if (offset == 0)
            return EMPTY;
        return numberAt(bodyOf(bundle), offset * WORD, &count)
                   ? unitsAt(bundle, (offset + 1) * WORD, count, length)
                   : nullptr;
    }
    default:
        return nullptr;
    }
}

// The text of a key in this bundle alone.
const UChar *ownText(const Bundle *bundle, const char *key, int32_t *length) {
    uint32_t resource;
    return findResource(bundle, key, &resource) ? textOf(bundle, resource, length) : nullptr;
}

// ---- packages ---------------------------------------------------------------------------

// Makes a bundle of a file in memory, which belongs to it then. *out stays null when the
// bytes are none.
LisResult makeBundle(char *file, const Bytes &bytes, Bundle **out) {
    Bundle *bundle = static_cast<Bundle *>(calloc(1, sizeof *bundle));
    uint8_t version = 0;
    Bytes body = bytes;
    if (bundle != nullptr && skipHeader(&body, "ResB", &version) && version >= 1 && version <= 3) {
        *bundle = {nullptr, file, body.at, body.size, 0, false};
        if (readIndex(bundle)) {
            *out = bundle;
            return ZOLTLIS_OK;
        }
    }
    const LisResult result = bundle != nullptr ? ZOLTLIS_NO_MORE : LIS_NOT_NOW;
    free(bundle);
    free(file);
    return result;
}

// The place of an item in a package that is one file; empty when it has none.
Bytes itemOf(const Bytes &whole, const char *name) {
    Bytes toc = whole;
    uint8_t version = 0;
    uint32_t count;
    if (!skipHeader(&toc, "CmnD", &version) || version != 1 || !numberAt(toc, 0, &count))
        return {nullptr, 0};
    for (uint32_t i = 0; i < count; ++i) {
        const size_t entry = WORD + size_t{i} * 2 * WORD;
        uint32_t nameAt;
        uint32_t dataAt;
        if (!numberAt(toc, entry, &nameAt) || !numberAt(toc, entry + WORD, &dataAt) || nameAt >= toc.size)
            break;
        if (strncmp(toc.at + nameAt, name, toc.size - nameAt) != 0)
            continue;
        uint32_t end = 0;
        if (i + 1 == count || !numberAt(toc, entry + 3 * WORD, &end) || end > toc.size)
            end = static_cast<uint32_t>(toc.size);
        if (dataAt % WORD != 0 || dataAt > end)
            break;
        return {toc.at + dataAt, end - dataAt};
    }
    return {nullptr, 0};
}

// A path that may be put together from three parts; false when it is too long.
bool joined(char (&out)[PATH_ROOM], const char *first, const char *second, const char *third) {
    const int length = snprintf(out, sizeof out, "%s%s%s", first, second, third);
    return length > 0 && static_cast<size_t>(length) < sizeof out;
}

} // namespace

LisResult openOwnBundle(const char *package, const char *locale, Bundle **out) {
    char name[PATH_ROOM];
    char path[PATH_ROOM];
    char *file = nullptr;
    size_t size = 0;
    const char *slash = strrchr(package, '/');
    if (!joined(name, "/", locale, ".res") || !joined(path, package, name, ""))
        return ZOLTLIS_NO_MORE;
    LisResult result = readFile(path, &file, &size);
    if (result == ZOLTLIS_OK)
        return makeBundle(file, {file, size}, out);
    if (result != ZOLTLIS_NO_MORE || !joined(path, package, ".dat", ""))
        return result;
    result = readFile(path, &file, &size);
    if (result != ZOLTLIS_OK)
        return result;
    char item[PATH_ROOM];
    if (!joined(item, slash != nullptr ? slash + 1 : package, name, ""))
        size = 0;
    return makeBundle(file, itemOf({file, size}, item), out);
}

// ---- the locales of a chain -------------------------------------------------------------

namespace {

// The script that a locale is written in when its name tells none; empty when unknown.
void impliedScript(const char *locale, char (&script)[ULOC_SCRIPT_CAPACITY]) {
    char full[ULOC_FULLNAME_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    script[0] = '\0';
    uloc_addLikelySubtags(locale, full, sizeof full, &status);
    uloc_getScript(full, script, sizeof script, &status);
    if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING)
        script[0] = '\0';
}

// Makes a locale the one that it falls back to: from region to language to root, with the
// script in between where it is not the language's usual one ("de_AT", "de"; "zh_TW",
// "zh_Hant", "zh"). False for root.
bool makeParent(char (&locale)[LOCALE_ROOM]) {
    char named[ULOC_SCRIPT_CAPACITY] = "";
    char own[ULOC_SCRIPT_CAPACITY];
    char usual[ULOC_SCRIPT_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    char *last = strrchr(locale, '_');
    if (strcmp(locale, ROOT) == 0)
        return false;
    if (last == nullptr) {
        memcpy(locale, ROOT, sizeof ROOT);
        return true;
    }
    uloc_getScript(locale, named, sizeof named, &status);
    impliedScript(locale, own);
    *last = '\0';
    impliedScript(locale, usual);
    if (named[0] == '\0' && own[0] != '\0' && strchr(locale, '_') == nullptr && strcmp(own, usual) != 0)
        snprintf(last, sizeof locale - static_cast<size_t>(last - locale), "_%s", own);
    return true;
}

// Takes over the locale that a bundle stands for; false when it has texts of its own.
bool takeAlias(const Bundle *bundle, char (&locale)[LOCALE_ROOM]) {
    int32_t length = 0;
    const UChar *text = ownText(bundle, "%%ALIAS", &length);
    if (text == nullptr || length <= 0 || static_cast<size_t>(length) >= sizeof locale)
        return false;
    for (int32_t i = 0; i < length; ++i)
        locale[i] = text[i] > 0x20 && text[i] < 0x7f && text[i] != '/' ? static_cast<char>(text[i]) : '?';
    locale[length] = '\0';
    return true;
}

} // namespace

LisResult openBundle(const char *package, const char *locale, Bundle **out) {
    char name[LOCALE_ROOM];
    Bundle **tail = out;
    *out = nullptr;
    if (strlen(locale) >= sizeof name || strchr(locale, '/') != nullptr)
        locale = ROOT;
    memcpy(name, locale, strlen(locale) + 1);
    for (int i = 0; i < MAX_CHAIN; ++i) {
        Bundle *opened = nullptr;
        const LisResult result = openOwnBundle(package, name, &opened);
        if (result != ZOLTLIS_OK && result != ZOLTLIS_NO_MORE) {
            closeBundle(*out);
            *out = nullptr;
            return result;
        }
        if (opened != nullptr && takeAlias(opened, name)) {
            closeBundle(opened);
            continue;
        }
        if (opened != nullptr) {
            *tail = opened;
            tail = &opened->parent;
            if (opened->isAlone)
                break;
        }
        if (!makeParent(name))
            break;
    }
    return ZOLTLIS_OK;
}

void closeBundle(Bundle *bundle) {
    while (bundle != nullptr) {
        Bundle *parent = bundle->parent;
        free(bundle->file);
        free(bundle);
        bundle = parent;
    }
}

const UChar *findText(const Bundle *bundle, const char *key, int32_t *length) {
    const UChar *text = nullptr;
    for (; bundle != nullptr && text == nullptr; bundle = bundle->parent)
        text = ownText(bundle, key, length);
    return text;
}

uint32_t entryCount(const Bundle *bundle) {
    Table table;
    return readTable(bundle, &table) ? table.count : 0;
}

const char *entryAt(const Bundle *bundle, uint32_t entry, const UChar **text, int32_t *length) {
    Table table;
    size_t at;
    uint32_t resource;
    if (!readTable(bundle, &table) || !readKey(bundle, table, entry, &at) ||
        memchr(bundle->body + at, '\0', bundle->keys - at) == nullptr ||
        !readResource(bundle, table, entry, &resource))
        return nullptr;
    *text = textOf(bundle, resource, length);
    return bundle->body + at;
}
