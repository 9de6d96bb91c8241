// SPDX-License-Identifier: Apache-2.0
#include "parse_string.h"

#include "decimal.h"

#include <cstring>

namespace {

constexpr uint32_t TITLE_BUCKETS = 200;

} // namespace

// ---- hash --------------------------------------------------------------------

uint64_t hashText(uint64_t seed, const char *text) {
    uint64_t hash = seed;
    for (const char *byte = text; *byte != '\0'; ++byte)
        hash = hash * 31 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*byte)));
    return hash;
}

uint32_t HashString(const char *text, uint32_t modulus) {
    if (text == nullptr || modulus == 0)
        return 0;
    return static_cast<uint32_t>(hashText(0, text) % modulus);
}

namespace {

// ---- name lists --------------------------------------------------------------

// Grammar of a name list: items separated by runs of ','; the blanks of an item,
// also those inside it, do not belong to the name.

// Whether the item [begin, end) without its blanks is the name.
bool itemIsName(const char *begin, const char *end, const char *name) {
    bool empty = true;
    for (const char *at = begin; at != end; ++at) {
        if (*at == ' ')
            continue;
        empty = false;
        if (*name == '\0' || *at != *name)
            return false;
        ++name;
    }
    return !empty && *name == '\0';
}

} // namespace

int32_t DoesNameMatch(const char *list, const char *name) {
    if (list == nullptr || name == nullptr)
        return 0;
    const char *item = list + strspn(list, ",");
    while (*item != '\0') {
        const char *end = item + strcspn(item, ",");
        if (itemIsName(item, end, name))
            return 1;
        item = end + strspn(end, ",");
    }
    return 0;
}

char *LeftRightTrim(const char *text) {
    if (text == nullptr)
        return nullptr;
    auto *trimmed = static_cast<char *>(zoltLogMalloc(strlen(text) + 1));
    if (trimmed == nullptr)
        return nullptr;
    char *to = trimmed;
    for (const char *from = text; *from != '\0'; ++from)
        if (*from != ' ')
            *to++ = *from;
    *to = '\0';
    return trimmed;
}

uint64_t id2names(uint64_t id, const char *list, const char *text) {
    if (text == nullptr || *text == '\0')
        return 0;
    const char *end = text;
    int64_t number = 0;
    if (scanSigned(&end, ANY_WIDTH, &number) && *end == '\0')
        return static_cast<uint64_t>(number) == id ? id : 0;
    return DoesNameMatch(list, text) != 0 ? id : 0;
}

uint64_t GetIdFromName(LogCfg **cfgs, uint32_t count, uint32_t kind, const char *text) {
    if (cfgs == nullptr)
        return 0;
    for (uint32_t i = 0; i < count; ++i) {
        const LogCfg *cfg = cfgs[i];
        if (cfg == nullptr)
            continue;
        const bool product = kind == ZOLTLOG_ATTR_PRODUCT_ID;
        const char *names = product ? cfg->productShortNames : cfg->originatorNames;
        // KEPT: a configuration without names is passed over even for the plain number of its id.
        // Pinned by IdFromName.ConfigurationWithoutNamesIsPassedOverEvenForItsNumber.
        if (*names == '\0')
            continue;
        const uint64_t id = id2names(product ? cfg->productId : cfg->originatorId, names, text);
        if (id != 0)
            return id;
    }
    return 0;
}

// ---- context titles ----------------------------------------------------------

LogContextEntry *SearchContextTitleInList(const LogContextKey *key, const char *text, const char *title,
                                          LogContextEntry **table) {
    if (key == nullptr || title == nullptr || table == nullptr)
        return nullptr;
    LogContextEntry *entry = table[HashString(title, TITLE_BUCKETS)];
    while (entry != nullptr && (entry->key[0] != key->key[0] || entry->key[1] != key->key[1] ||
                                entry->title == nullptr || strcmp(entry->title, title) != 0))
        entry = entry->next;
    if (entry != nullptr && key->kind == ZOLTLOG_CONTEXT_KEY_REPLACE) {
        char *copy = zoltLogSafeStrdup(text);
        if (copy != nullptr || text == nullptr) { // out of memory: the old text stays
            zoltLogFree(entry->text);
            entry->text = copy;
        }
    }
    return entry;
}
