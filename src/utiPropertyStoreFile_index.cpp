// SPDX-License-Identifier: Apache-2.0
// Reading many keys of a property store file in one pass, with the same answers as
// one lookup per key: the first line of a key wins, lines are cut at STORE_LINE_MAX.
#include "utiPropertyStoreFile.h"

#include "cancellation.h"

#include "os.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Takes a line over if it holds a name still missing in a section of this root.
void takeLine(StoreSection *section, size_t rootLength, StoreText line) {
    const char *name = line.text + rootLength + 1;
    const auto *equals = static_cast<const char *>(memchr(name, '=', line.size - rootLength - 1));
    if (equals == nullptr)
        return;
    const auto size = static_cast<size_t>(equals - name);
    const StoreText rest = {equals + 1, line.size - static_cast<size_t>(equals + 1 - line.text)};
    size_t i = section->next; // lines mostly stand in the order of the names
    for (size_t tried = 0; tried < section->count; ++tried, ++i) {
        if (i >= section->count)
            i = 0;
        const StoreText wanted = section->names[i];
        if (wanted.size == size && !section->found[i] && memcmp(wanted.text, name, size) == 0) {
            section->found[i] = storeTextValue(rest, section->values[i]);
            section->next = i + 1;
            return;
        }
    }
}

// A root with a '=' in it is no part of any key.
bool canHoldKeys(const char *root) {
    return strchr(root, '=') == nullptr;
}

// Why a file did not open: there is none, or it is there all the same.
uint32_t resultOfOpening() {
    if (errno == ENOMEM)
        return STORE_NO_MEMORY;
    return errno == ENOENT || errno == ENOTDIR ? static_cast<uint32_t>(ZOLTLOG_STORE_NO_FILE)
                                               : STORE_UNREADABLE;
}

} // namespace

uint32_t storeReadSections(const char *path, StoreSection *sections, size_t count) {
    const CancellationOff off;
    static const size_t SECTIONS_MAX = 4;
    if (path == nullptr || count > SECTIONS_MAX)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    size_t rootLengths[SECTIONS_MAX];
    for (size_t i = 0; i < count; ++i)
        rootLengths[i] = strnlen(sections[i].root, sizeof(PropertyStore::root) - 1); // as a handle's
    const int descriptor = storeOpenForReading(path);
    if (descriptor < 0)
        return resultOfOpening();
    StoreReader reader;
    uint32_t result = STORE_NO_MEMORY;
    if (storeReaderInit(&reader, descriptor)) {
        StoreText line;
        while (storeReaderNext(&reader, &line)) {
            for (size_t i = 0; i < count; ++i) {
                const size_t length = rootLengths[i];
                if (line.size > length + 1 && line.text[length] == '.' &&
                    memcmp(line.text, sections[i].root, length) == 0 && canHoldKeys(sections[i].root))
                    takeLine(&sections[i], length, line);
            }
        }
        result = reader.failed ? STORE_UNREADABLE : static_cast<uint32_t>(ZOLTLOG_STORE_OK);
    }
    storeReaderFree(&reader);
    close(descriptor);
    return result;
}

namespace {

// ---- the index ---------------------------------------------------------------------

// A line is filed under what precedes its first '.', or its second one if it begins
// with "LOGSET.": the roots under which the enumerated names are read.
bool isLogsetToken(const char *text, size_t length) {
    return length == STORE_LOGSET_TOKEN_LENGTH && memcmp(text, STORE_LOGSET_TOKEN, length) == 0;
}

size_t filingLength(StoreText line) {
    const auto *dot = static_cast<const char *>(memchr(line.text, '.', line.size));
    if (dot == nullptr)
        return 0;
    auto length = static_cast<size_t>(dot - line.text);
    if (isLogsetToken(line.text, length)) {
        dot = static_cast<const char *>(memchr(dot + 1, '.', line.size - length - 1));
        if (dot != nullptr)
            length = static_cast<size_t>(dot - line.text);
    }
    return length;
}

// A section's first run by its position, or NOWHERE.
uint32_t firstRunOf(const StoreIndex *index, const char *name, size_t size, uint64_t hash) {
    return index->sections.find(hash, [&](uint32_t at) {
        const StoreRun &run = index->runs.items[at];
        return run.nameSize == size && memcmp(index->bytes + run.begin, name, size) == 0;
    });
}

// Finds the runs of lines of one section.
bool findRuns(StoreIndex *index) {
    const char *previous = nullptr;
    size_t previousLength = 0;
    size_t at = 0;
    while (at < index->size) {
        const StoreText line = storeLine(index->bytes + at, index->size - at);
        const char *text = line.text;
        const bool same = previousLength > 0 && line.size > previousLength && text[previousLength] == '.' &&
                          memcmp(text, previous, previousLength) == 0 &&
                          !isLogsetToken(previous, previousLength); // may have one more name in it
        if (!same) {
            previousLength = filingLength(line);
            previous = text;
            if (previousLength > 0) {
                StoreRun *added = index->runs.add();
                if (added == nullptr)
                    return false;
                *added = {at, 0, previousLength, PositionTable::NOWHERE, 0};
            }
        }
        at += line.size;
        if (previousLength > 0)
            index->runs.items[index->runs.count - 1].end = at;
    }
    return true;
}

bool chainRuns(StoreIndex *index) {
    if (index->runs.count >= PositionTable::NOWHERE)
        return false;
    for (uint32_t i = 0; i < index->runs.count; ++i) {
        StoreRun *run = &index->runs.items[i];
        run->last = i;
        const char *name = index->bytes + run->begin;
        const uint64_t hash = hashOfBytes(name, run->nameSize);
        const uint32_t known = firstRunOf(index, name, run->nameSize, hash);
        if (known == PositionTable::NOWHERE) {
            if (!index->sections.add(hash, i))
                return false;
        } else {
            StoreRun *first = &index->runs.items[known];
            index->runs.items[first->last].next = i;
            first->last = i;
        }
    }
    return true;
}

} // namespace

uint32_t storeIndexLoad(StoreIndex *index, const char *path) {
    const CancellationOff off;
    storeIndexFree(index);
    if (path == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    const int descriptor = storeOpenForReading(path);
    if (descriptor < 0)
        return resultOfOpening();
    uint32_t result = storeReadWhole(descriptor, &index->bytes, &index->size);
    if (result == ZOLTLOG_STORE_OK && !(findRuns(index) && chainRuns(index)))
        result = STORE_NO_MEMORY;
    close(descriptor);
    if (result != ZOLTLOG_STORE_OK)
        storeIndexFree(index);
    return result;
}

void storeIndexFree(StoreIndex *index) {
    free(index->bytes);
    index->bytes = nullptr;
    index->size = 0;
    storeIndexRewind(index);
    index->runs.clear();
    index->sections.clear();
}

void storeIndexRead(const StoreIndex *index, StoreSection *section) {
    if (!canHoldKeys(section->root))
        return;
    const size_t length = strlen(section->root);
    uint32_t position = firstRunOf(index, section->root, length, hashOfBytes(section->root, length));
    while (position != PositionTable::NOWHERE) {
        const StoreRun *run = &index->runs.items[position];
        for (size_t at = run->begin; at < run->end;) {
            const StoreText line = storeLine(index->bytes + at, run->end - at);
            if (line.size > length + 1)
                takeLine(section, length, line);
            at += line.size;
        }
        position = run->next;
    }
}
