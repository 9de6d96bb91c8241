// SPDX-License-Identifier: Apache-2.0
// What changes of properties make of a file's lines, in memory, and the exported operations
// that change a file.
//
// Sections: the draft; its changes; one rewrite for all of them; set; remove; create.
#include "utiPropertyStoreFile.h"

#include "cancellation.h"

#include "cmn_routines.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

namespace {

const char CONFIGURATION_SUFFIX[] = ".conf"; // tells a file from a section on removal
const uint32_t NEW_DIRECTORY_MODE = 0755;    // a directory takes its parent's mode instead

// ---- the draft -------------------------------------------------------------------------

const uint32_t NONE = UINT32_MAX;

struct Piece { // a line, or a property that was put
    StoreText text;
    char *owned;
    uint32_t next;
    bool inSection; // of the root
    bool hasRoot;   // begins with the root and a '.'
};

struct Draft {
    const char *root; // null when empty
    Piece *pieces;    // the first one is no line but stands before them
    uint32_t count, capacity, last;
    bool changed, dropped;
};

bool hasRoot(StoreText line, const char *root, size_t length) {
    return line.size > length && line.text[length] == '.' && memcmp(line.text, root, length) == 0;
}

bool addPiece(Draft *draft, StoreText text, char *owned, uint32_t after) {
    if (draft->count == draft->capacity) {
        const uint32_t capacity = draft->capacity == 0 ? 256 : draft->capacity * 2;
        void *pieces = capacity < UINT32_MAX / 8 ? realloc(draft->pieces, capacity * sizeof(Piece)) : nullptr;
        if (pieces == nullptr)
            return false;
        draft->pieces = static_cast<Piece *>(pieces);
        draft->capacity = capacity;
    }
    const char *root = draft->root;
    Piece *piece = &draft->pieces[draft->count];
    *piece = {text, owned, NONE, root != nullptr && storeLineInSection(text, root, ".="),
              root != nullptr && hasRoot(text, root, strlen(root))};
    if (draft->count > 0) {
        piece->next = draft->pieces[after].next;
        draft->pieces[after].next = draft->count;
    }
    if (draft->count == 0 || after == draft->last)
        draft->last = draft->count;
    ++draft->count;
    return true;
}

bool loadDraft(Draft *draft, const StoreSource *source) {
    if (!addPiece(draft, {"", 0}, nullptr, 0))
        return false;
    if (!source->exists) {
        for (const char *at = STORE_HEADER; *at != '\0';) {
            const StoreText line = storeLine(at, strlen(at));
            if (!addPiece(draft, line, nullptr, draft->last))
                return false;
            at += line.size;
        }
    }
    for (size_t at = 0; at < source->size;) {
        const StoreText line = storeLine(source->bytes + at, source->size - at);
        if (!addPiece(draft, line, nullptr, draft->last))
            return false;
        at += line.size;
    }
    return true;
}

void freeDraft(Draft *draft) {
    for (uint32_t i = 0; i < draft->count; ++i)
        zoltLogFree(draft->pieces[i].owned);
    free(draft->pieces);
}

// The end of the file may lack its line feed. What is put behind it starts a line of its own.
void putDraft(const Draft *draft, const StoreSource *source, StoreOutput *out) {
    const char *end = source->bytes + source->size;
    bool isUnfinished = false;
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        const StoreText text = draft->pieces[at].text;
        if (isUnfinished)
            storePut(out, "\n", 1);
        storePut(out, text.text, text.size);
        isUnfinished = source->size > 0 && text.text + text.size == end && text.text[text.size - 1] != '\n';
    }
}

// ---- its changes -------------------------------------------------------------------------

// "root.name=value" and a line feed.
char *propertyText(const char *root, const char *name, const char *value) {
    const size_t size = (root != nullptr ? strlen(root) + 1 : 0) + strlen(name) + strlen(value) + 3;
    auto *text = static_cast<char *>(zoltLogMalloc(size));
    if (text != nullptr)
        (void)snprintf(text, size, "%s%s%s=%s\n", root != nullptr ? root : "", root != nullptr ? "." : "",
                       name, value);
    return text;
}

bool putAfter(Draft *draft, uint32_t after, const StoreChange *change) {
    char *text = propertyText(draft->root, change->name, change->value);
    if (text == nullptr)
        return false;
    if (addPiece(draft, {text, strlen(text)}, text, after))
        return true;
    zoltLogFree(text);
    return false;
}

bool replace(Draft *draft, uint32_t at, const StoreChange *change) {
    char *text = propertyText(draft->root, change->name, change->value);
    if (text == nullptr)
        return false;
    Piece *piece = &draft->pieces[at];
    zoltLogFree(piece->owned);
    piece->owned = text;
    piece->text = {text, strlen(text)};
    return true;
}

// The property joins the first run of its section's lines: in the place of the line with its
// key, or else behind the run.
// KEPT: a key that stands in a later run only is put a second time, into the first run.
// Pinned by PropertyStore.SetChangesTheFirstRunOnly.
// KEPT: the section of a log set's line is the text between its first two dots, so a log
// set with a dot in its name gets every set appended. Pinned by
// PropertyStore.ADottedLogsetNameIsAppendedEachTime.
bool setInSection(Draft *draft, const StoreChange *change) {
    uint32_t before = 0;
    bool inRun = false;
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        const Piece *piece = &draft->pieces[at];
        if (piece->inSection && storeLineHasKey(piece->text, draft->root, change->name))
            return replace(draft, at, change);
        if (inRun && !piece->inSection)
            return putAfter(draft, before, change);
        inRun = piece->inSection;
        before = at;
    }
    return putAfter(draft, draft->last, change);
}

// Without a section: replaces every line whose first token is the name.
bool setWithoutSection(Draft *draft, const StoreChange *change) {
    bool found = false;
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        if (!storeLineHasFirstToken(draft->pieces[at].text, change->name))
            continue;
        found = true;
        if (!replace(draft, at, change))
            return false;
    }
    return found || putAfter(draft, draft->last, change);
}

bool isDropped(const Draft *draft, const Piece *piece, const StoreChange *change) {
    const StoreText line = piece->text;
    if (change->action == STORE_REMOVE_SECTION)
        return memchr(line.text, '.', strnlen(line.text, line.size)) != nullptr &&
               storeLineInSection(line, change->name, ".");
    return (draft->root == nullptr || piece->hasRoot) && storeLineHasKey(line, draft->root, change->name);
}

void drop(Draft *draft, const StoreChange *change) {
    uint32_t before = 0;
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        if (!isDropped(draft, &draft->pieces[at], change)) {
            before = at;
            continue;
        }
        draft->pieces[before].next = draft->pieces[at].next;
        draft->dropped = true;
        draft->changed = true;
    }
    draft->last = before;
}

bool hasValue(const Draft *draft, const char *name) {
    char value[STORE_VALUE_SIZE];
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        const StoreText line = draft->pieces[at].text;
        if (storeLineHasKey(line, draft->root, name) && storeLineValue(line, value))
            return true;
    }
    return false;
}

bool hasSections(const Draft *draft) {
    for (uint32_t at = draft->pieces[0].next; at != NONE; at = draft->pieces[at].next) {
        if (storeSectionName(draft->pieces[at].text).text != nullptr)
            return true;
    }
    return false;
}

uint32_t changeDraft(Draft *draft, const StoreChange *change) {
    bool done = true;
    switch (change->action) {
    case STORE_SET:
        draft->changed = true;
        done = draft->root != nullptr ? setInSection(draft, change) : setWithoutSection(draft, change);
        break;
    case STORE_REMOVE:
    case STORE_REMOVE_SECTION:
        drop(draft, change);
        break;
    case STORE_REQUIRE_ABSENT:
        return hasValue(draft, change->name) ? STORE_EXISTS : static_cast<uint32_t>(ZOLTLOG_STORE_OK);
    case STORE_DROP_FILE:
        return hasSections(draft) ? static_cast<uint32_t>(ZOLTLOG_STORE_OK) : STORE_REMOVE_FILE;
    }
    return done ? static_cast<uint32_t>(ZOLTLOG_STORE_OK) : STORE_NO_MEMORY;
}

// Makes the directory of a path, which must name one.
bool makeDirectoryOf(const char *path) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr)
        return false;
    const auto length = static_cast<size_t>(slash - path);
    const LogOwned<char> directory(static_cast<char *>(zoltLogMalloc(length + 1)));
    if (directory == nullptr)
        return false;
    memcpy(directory.get(), path, length);
    directory.get()[length] = '\0';
    return zoltLogOs_mkdirp(directory.get(), NEW_DIRECTORY_MODE) == 0;
}

bool isMissing(const char *path) {
    struct stat status;
    return stat(path, &status) != 0 && errno == ENOENT;
}

// ---- one rewrite for all of them -----------------------------------------------------------

uint32_t makeChanges(const StoreSource *source, StoreOutput *out, void *context) {
    auto *changes = static_cast<StoreChanges *>(context);
    Draft draft = {};
    draft.root = *changes->root != '\0' ? changes->root : nullptr;
    uint32_t result = loadDraft(&draft, source) ? static_cast<uint32_t>(ZOLTLOG_STORE_OK) : STORE_NO_MEMORY;
    for (size_t i = 0; result == ZOLTLOG_STORE_OK && i < changes->count; ++i)
        result = changeDraft(&draft, &changes->changes[i]);
    changes->dropped = draft.dropped;
    if (result == ZOLTLOG_STORE_OK && !draft.changed && !changes->always)
        result = STORE_UNCHANGED;
    if (result == ZOLTLOG_STORE_OK)
        putDraft(&draft, source, out);
    freeDraft(&draft);
    return result;
}

bool hasLineFeed(const char *text) {
    return strchr(text, '\n') != nullptr;
}

// What the exported operations tell.
uint32_t toldResult(uint32_t result) {
    return result < STORE_NO_MEMORY ? result : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_WRITTEN);
}

bool isOpen(const PropertyStore *store) {
    return store != nullptr && store->stream != nullptr;
}

// Changes a handle's file and opens its section in the new one.
uint32_t changeOpen(PropertyStore *store, StoreChanges *changes) {
    const uint32_t result = storeChange(store->path, changes, STORE_REFUSE_MISSING, nullptr);
    if (result != ZOLTLOG_STORE_OK ||
        !(changes->always || changes->dropped || changes->changes->action == STORE_SET))
        return toldResult(result);
    (void)utiClosePropertyStoreFile(store);
    return utiOpenPropertyStoreFile(store->path, store->root, store);
}

} // namespace

uint32_t storeChange(const char *path, StoreChanges *changes, StoreMissing missing, const char *tag) {
    const CancellationOff off;
    if (hasLineFeed(changes->root))
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    for (size_t i = 0; i < changes->count; ++i) {
        const StoreChange *change = &changes->changes[i];
        if (change->action == STORE_SET &&
            (change->value == nullptr || hasLineFeed(change->name) || hasLineFeed(change->value)))
            return ZOLTLOG_STORE_INVALID_ARGUMENT;
    }
    if (missing != STORE_REFUSE_MISSING && isMissing(path) && !makeDirectoryOf(path))
        return errno == ENOMEM ? STORE_NO_MEMORY : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_CREATED);
    const StoreRewriting how = {makeChanges, changes, missing, tag};
    return storeRewrite(path, &how);
}

// ---- set -------------------------------------------------------------------------------------

namespace {

uint32_t setProperty(PropertyStore *store, const char *name, const char *value) {
    if (!isOpen(store) || name == nullptr || value == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    const StoreChange change = {STORE_SET, name, value};
    StoreChanges changes = {store->root, &change, 1, false, false};
    return changeOpen(store, &changes);
}

} // namespace

uint32_t utiSetPropertyAsUlongFile(PropertyStore *store, const char *name, const unsigned long *value) {
    if (value == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char text[24]; // 19 digits, a sign and the terminator
    // KEPT: numbers are written signed, those of 2^63 and above as negative ones. Pinned by
    // PropertyStore.NumbersOfTheUpperHalfAreWrittenNegative.
    (void)snprintf(text, sizeof text, "%ld", static_cast<long>(*value));
    return setProperty(store, name, text);
}

uint32_t utiSetPropertyAsBoolFile(PropertyStore *store, const char *name, const uint32_t *value) {
    if (value == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    return setProperty(store, name, *value == 1 ? "true" : "false");
}

uint32_t utiSetPropertyAsStrFile(PropertyStore *store, const char *name, const char *text) {
    if (!isOpen(store) || name == nullptr || text == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char *utf8 = nullptr;
    if (mbs2utf8(&utf8, text) != ZOLTLOG_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    const uint32_t result = setProperty(store, name, utf8);
    zoltLogFree(utf8);
    return result;
}

// ---- remove ------------------------------------------------------------------------------------

uint32_t utiRemovePropertyFile(PropertyStore *store, const char *name) {
    if (!isOpen(store) || name == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    const StoreChange change = {STORE_REMOVE, name, nullptr};
    StoreChanges changes = {store->root, &change, 1, false, false};
    return changeOpen(store, &changes);
}

uint32_t utiRemovePropertyRootFile(PropertyStore *store, const char *section) {
    if (section == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    if (strstr(section, CONFIGURATION_SUFFIX) != nullptr)
        return zoltLogOs_remove(section) == 0 ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
    if (!isOpen(store))
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    const StoreChange change = {STORE_REMOVE_SECTION, section, nullptr};
    StoreChanges changes = {store->root, &change, 1, true, false};
    const uint32_t result = changeOpen(store, &changes);
    return result == ZOLTLOG_STORE_OK && !changes.dropped ? static_cast<uint32_t>(ZOLTLOG_STORE_NO_SECTION)
                                                          : result;
}

// ---- create --------------------------------------------------------------------------------------

namespace {

uint32_t makeHeader(const StoreSource *source, StoreOutput *out, void *context) {
    (void)context;
    if (source->exists)
        return STORE_UNCHANGED;
    storePut(out, STORE_HEADER, sizeof STORE_HEADER - 1);
    return ZOLTLOG_STORE_OK;
}

} // namespace

uint32_t utiCreatePropertyStoreFile(const char *path, const char *root, PropertyStore *store) {
    if (path == nullptr || root == nullptr || store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    store->stream = nullptr;
    if (!makeDirectoryOf(path) || storeMakeAnew(path, STORE_HEADER) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_STORE_NOT_CREATED;
    return utiOpenPropertyStoreFile(path, root, store);
}

uint32_t storeMakeMissing(const char *path) {
    const StoreRewriting how = {makeHeader, nullptr, STORE_MAKE_UNKNOWN, nullptr};
    return makeDirectoryOf(path) && storeRewrite(path, &how) == ZOLTLOG_STORE_OK ? ZOLTLOG_STORE_OK
                                                                                 : ZOLTLOG_STORE_NOT_CREATED;
}
