// SPDX-License-Identifier: Apache-2.0
// Reading the configuration: where it lies, single records, all records.
//
// Sections: location; single texts; the keys of a section; one originator, one log
// set; all of a product; all products.
//
// A file is read in one pass for all the keys wanted of it, or once into an index when
// every section is wanted; each answers as a lookup of each single key would.
#include "config.h"

#include "cmn_routines.h"
#include "lockUnix.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string_view>

namespace {

const char LOCATION_VARIABLE[] = "ZOLTLOG_CFG_LOC";
const char LOCATION_DEFAULT[] = "/etc/qd/zoltlog.conf";
const size_t SECTION_NAME_SIZE = 81; // enumerated names have at most 80 bytes

// ---- location --------------------------------------------------------------------------

// A path longer than PATH_MAX cannot be opened; what is kept of it cannot either.
char chosenLocation[PATH_MAX + 1];
pthread_once_t locationOnce = PTHREAD_ONCE_INIT;

void findLocation() {
    const char *path = secure_getenv(LOCATION_VARIABLE);
    copyBounded(chosenLocation, sizeof chosenLocation,
                path != nullptr && *path != '\0' ? path : LOCATION_DEFAULT);
}

} // namespace

const char *GetZoltLogCfgLoc(void) {
    (void)pthread_once(&locationOnce, findLocation);
    return chosenLocation;
}

// ---- single texts -------------------------------------------------------------------------

uint32_t utipsres2zoltlogres(uint32_t storeResult) {
    switch (storeResult) {
    case ZOLTLOG_STORE_OK:
        return ZOLTLOG_OK;
    case ZOLTLOG_STORE_INVALID_ARGUMENT:
        return ZOLTLOG_INVALID_ARGUMENT;
    case ZOLTLOG_STORE_NO_FILE:
    case ZOLTLOG_STORE_NOT_FOUND:
    case ZOLTLOG_STORE_4:
        return ZOLTLOG_CFG_NOT_FOUND;
    case ZOLTLOG_STORE_NOT_CREATED:
        return ZOLTLOG_CFG_CREATE_FAILED;
    case ZOLTLOG_STORE_NO_MORE:
        return ZOLTLOG_NO_MORE;
    case ZOLTLOG_STORE_NO_SECTION:
        return ZOLTLOG_SECTION_NOT_FOUND;
    case ZOLTLOG_STORE_9:
        return ZOLTLOG_NOTHING_TO_WRITE;
    case ZOLTLOG_STORE_10:
        return ZOLTLOG_STORE_RESULT_10;
    default: // ZOLTLOG_STORE_NOT_WRITTEN among them
        return ZOLTLOG_FAILED;
    }
}

uint32_t cfgResultOf(uint32_t storeResult) {
    switch (storeResult) {
    case STORE_NO_MEMORY:
        return ZOLTLOG_NO_MEMORY;
    case STORE_UNREADABLE:
        return ZOLTLOG_CFG_NOT_FOUND;
    case STORE_EXISTS:
        return ZOLTLOG_PRODUCT_EXISTS;
    default: // of those that only the units know among themselves: a general failure
        return utipsres2zoltlogres(storeResult);
    }
}

namespace {

// A value as text; a null text, and no failure, when it cannot be converted.
uint32_t takeText(const char *value, LogOwned<char> *text) {
    char *converted = nullptr;
    const uint32_t result = storeValueText(value, &converted);
    text->reset(converted);
    return result == ZOLTLOG_NO_MEMORY ? result : static_cast<uint32_t>(ZOLTLOG_OK);
}

} // namespace

uint32_t GetPropertyString(const char *file, const char *section, const char *key, char **out) {
    if (out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (file == nullptr || section == nullptr || key == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    char value[1][STORE_VALUE_SIZE];
    bool found = false;
    const StoreText name = {key, strlen(key)};
    StoreSection wanted = {section, &name, 1, value, &found};
    LogOwned<char> text;
    uint32_t result = cfgResultOf(storeReadSections(file, &wanted, 1));
    if (result == ZOLTLOG_OK && found)
        result = takeText(value[0], &text);
    if (result == ZOLTLOG_OK && text == nullptr)
        result = ZOLTLOG_CFG_NOT_FOUND;
    if (result == ZOLTLOG_OK)
        *out = text.release();
    return result;
}

uint32_t GetProductCfgPath(const char *file, uint64_t productId, char **out) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    return GetPropertyString(file, section, CFG_CONFIGURATION, out);
}

uint32_t GetProductShortName(const char *file, uint64_t productId, char **out) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    return GetPropertyString(file, section, CFG_PRODUCT_NAMES, out);
}

uint32_t zoltLogCfgGetToolsResDir(char **out) {
    return GetPropertyString(GetZoltLogCfgLoc(), CFG_TOOLS_SECTION, CFG_TOOLS_RESOURCE_DIR, out);
}

// What the main file says of a product. Texts are null when absent.
struct ProductEntry {
    LogOwned<char> location;
    LogOwned<char> names;
};

namespace {

constexpr StoreText nameOf(const char *text) {
    return {text, std::string_view(text).size()};
}

constexpr StoreText PRODUCT_KEYS[] = {nameOf(CFG_CONFIGURATION), nameOf(CFG_PRODUCT_NAMES)};
const size_t PRODUCT_KEY_COUNT = sizeof PRODUCT_KEYS / sizeof *PRODUCT_KEYS;

} // namespace

struct ProductValues {
    char text[PRODUCT_KEY_COUNT][STORE_VALUE_SIZE];
    bool found[PRODUCT_KEY_COUNT];
};

namespace {

// ZOLTLOG_CFG_NOT_FOUND when there is no location.
uint32_t takeProduct(const ProductValues *values, ProductEntry *entry) {
    uint32_t result =
        values->found[0] ? takeText(values->text[0], &entry->location) : static_cast<uint32_t>(ZOLTLOG_OK);
    if (result == ZOLTLOG_OK && values->found[1])
        result = takeText(values->text[1], &entry->names);
    return result == ZOLTLOG_OK && entry->location == nullptr ? static_cast<uint32_t>(ZOLTLOG_CFG_NOT_FOUND)
                                                              : result;
}

uint32_t readProduct(const char *mainFile, uint64_t productId, ProductEntry *entry) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    ProductValues values = {};
    StoreSection wanted = {section, PRODUCT_KEYS, PRODUCT_KEY_COUNT, values.text, values.found};
    const uint32_t result = cfgResultOf(storeReadSections(mainFile, &wanted, 1));
    return result == ZOLTLOG_OK ? takeProduct(&values, entry) : result;
}

void takeShortNames(LogCfg *cfg, const char *names) {
    if (names != nullptr)
        copyBounded(cfg->productShortNames, sizeof cfg->productShortNames, names);
}

} // namespace

// ---- the keys of a section ------------------------------------------------------------------

// The names of all keys, which a section's values are collected under.
struct KeyNames {
    StoreText name[CFG_KEY_COUNT];
};

namespace {

constexpr KeyNames keyNames() {
    KeyNames names = {};
    for (size_t i = 0; i < CFG_KEY_COUNT; ++i)
        names.name[i] = nameOf(CFG_KEYS[i].name);
    return names;
}
constexpr KeyNames KEY_NAMES = keyNames();

} // namespace

struct SectionValues {
    char text[CFG_KEY_COUNT][STORE_VALUE_SIZE];
    bool found[CFG_KEY_COUNT];
};

namespace {

StoreSection sectionOf(const char *root, SectionValues *values) {
    memset(values->found, 0, sizeof values->found);
    return {root, KEY_NAMES.name, CFG_KEY_COUNT, values->text, values->found};
}

} // namespace

uint32_t cfgApplyValue(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state, CfgTaken *taken) {
    *taken = CFG_SKIPPED;
    if (cfgIsRaw(CFG_KEYS[id].kind)) {
        *taken = cfgTake(cfg, id, value, state);
    } else {
        char plain[STORE_VALUE_SIZE];
        LogOwned<char> text;
        if (storePlainText(value, plain)) {
            *taken = cfgTake(cfg, id, plain, state);
        } else {
            if (takeText(value, &text) != ZOLTLOG_OK)
                return ZOLTLOG_NO_MEMORY;
            if (text == nullptr)
                return ZOLTLOG_CFG_NOT_FOUND;
            *taken = cfgTake(cfg, id, text.get(), state);
        }
    }
    return *taken == CFG_NO_MEMORY ? ZOLTLOG_NO_MEMORY : ZOLTLOG_OK;
}

namespace {

// Applies the values of a section in the order of the table and counts the keys found. One
// that cannot be converted counts as not found from then on. ZOLTLOG_NO_MEMORY or OK.
uint32_t applyValues(LogCfg *cfg, SectionValues *values, uint8_t use, bool isBase, uint32_t *count) {
    CfgSectionState state = {isBase, 0, false};
    *count = 0;
    cfg->changedMask = 0;
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        if (!values->found[id] || (CFG_KEYS[id].use & use) == 0)
            continue;
        CfgTaken taken = CFG_SKIPPED;
        const uint32_t result = cfgApplyValue(cfg, id, values->text[id], &state, &taken);
        if (result == ZOLTLOG_NO_MEMORY)
            return result;
        values->found[id] = result == ZOLTLOG_OK;
        *count += values->found[id] ? 1 : 0;
    }
    return ZOLTLOG_OK;
}

uint32_t applyOriginator(LogCfg *cfg, SectionValues *values, const char *section) {
    uint32_t count = 0;
    return applyValues(cfg, values, CFG_READ_ORIGINATOR, strcmp(section, CFG_DEFAULT) == 0, &count);
}

bool replaceText(char **field, const char *text) {
    char *copy = zoltLogSafeStrdup(text);
    if (copy == nullptr)
        return false;
    zoltLogFree(*field);
    *field = copy;
    return true;
}

// The record's name is the given one before the file name falls back to it.
uint32_t applyLogset(LogCfg *cfg, SectionValues *values, const char *name, uint32_t *count) {
    cfg->isLogset = 1;
    const uint32_t result = applyValues(cfg, values, CFG_READ_LOGSET, IsDefaultLogSet(name) != 0, count);
    if (result != ZOLTLOG_OK)
        return result;
    if (name != nullptr && !replaceText(&cfg->logsetName, name))
        return ZOLTLOG_NO_MEMORY;
    if (cfg->logsetName != nullptr && (!values->found[CFG_KEY_FILE_NAME] || cfg->logsetFilename == nullptr) &&
        !replaceText(&cfg->logsetFilename, cfg->logsetName))
        return ZOLTLOG_NO_MEMORY;
    return ZOLTLOG_OK;
}

// Reads sections of a product's file: one that is not there reads as an empty one, one that
// is there and cannot be read is a failure.
uint32_t readSections(const char *path, StoreSection *sections, size_t count) {
    const uint32_t result = storeReadSections(path, sections, count);
    return result == ZOLTLOG_STORE_NO_FILE ? static_cast<uint32_t>(ZOLTLOG_OK) : cfgResultOf(result);
}

LogOwned<SectionValues> newValues(size_t count) {
    return LogOwned<SectionValues>(
        static_cast<SectionValues *>(zoltLogMalloc(count * sizeof(SectionValues))));
}

} // namespace

uint32_t GetOriginatorCfgSettings(const char *productFile, const char *section, LogCfg *cfg) {
    if (productFile == nullptr || section == nullptr || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const LogOwned<SectionValues> values = newValues(1);
    if (values == nullptr)
        return ZOLTLOG_NO_MEMORY;
    StoreSection wanted = sectionOf(section, values.get());
    const uint32_t result = readSections(productFile, &wanted, 1);
    return result == ZOLTLOG_OK ? applyOriginator(cfg, values.get(), section) : result;
}

bool cfgIsFile(const char *productLocation) {
    return strstr(productLocation, CFG_FILE_MARK) != nullptr;
}

bool cfgLogsetPlace(const char *productLocation, const char *logsetName, CfgLogsetPlace *place) {
    const bool isFile = cfgIsFile(productLocation);
    place->path = joinedText(productLocation, isFile ? "" : CFG_LOGSET_FILE);
    place->section = joinedText(isFile ? STORE_LOGSET_PREFIX : "", logsetName);
    return place->path != nullptr && place->section != nullptr;
}

namespace {

uint32_t readLogset(const char *productLocation, const char *logsetName, LogCfg *cfg, uint32_t *count) {
    CfgLogsetPlace place;
    *count = 0;
    if (!cfgLogsetPlace(productLocation, logsetName != nullptr ? logsetName : CFG_DEFAULT, &place))
        return ZOLTLOG_NO_MEMORY;
    const LogOwned<SectionValues> values = newValues(1);
    uint32_t result = ZOLTLOG_NO_MEMORY;
    if (values != nullptr) {
        StoreSection wanted = sectionOf(place.section.get(), values.get());
        result = readSections(place.path.get(), &wanted, 1);
        if (result == ZOLTLOG_OK)
            result = applyLogset(cfg, values.get(), logsetName, count);
    }
    return result;
}

} // namespace

uint32_t GetLogSetCfgSettings(const char *productLocation, const char *logsetName, LogCfg *cfg) {
    uint32_t count = 0;
    if (productLocation == nullptr || cfg == nullptr ||
        readLogset(productLocation, logsetName, cfg, &count) != ZOLTLOG_OK)
        return 0;
    return count;
}

uint32_t osGetCfgSettings(LogCfg *cfg, PropertyStore *section, uint32_t *counter) {
    if (cfg == nullptr || section == nullptr || counter == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    CfgSectionState state = {false, 0, false};
    uint32_t result = ZOLTLOG_STORE_OK;
    for (const CfgKeyId id : CFG_WRITTEN_LAST) {
        char value[STORE_VALUE_SIZE];
        CfgTaken taken = CFG_SKIPPED;
        result = storeLookup(section, CFG_KEYS[id].name, value);
        if (result == ZOLTLOG_STORE_OK && cfgApplyValue(cfg, id, value, &state, &taken) != ZOLTLOG_OK)
            result = ZOLTLOG_STORE_NOT_FOUND;
        if (result == ZOLTLOG_STORE_OK)
            ++*counter;
        if (taken >= CFG_LOOSELY) // here the setting counts as set by the caller
            cfg->changedMask |= CFG_KEYS[id].mask;
    }
    return result; // of the last key, the permissions
}

namespace {

// ---- one originator, one log set ----------------------------------------------------------------

// Reads the default section and, for any other originator, its own one over it.
uint32_t readOriginator(const char *productFile, uint64_t originatorId, LogCfg *cfg) {
    static const size_t SECTIONS = 2;
    const LogOwned<SectionValues> values = newValues(SECTIONS);
    if (values == nullptr)
        return ZOLTLOG_NO_MEMORY;
    char section[CFG_ID_SIZE];
    cfgIdText(originatorId, section);
    StoreSection wanted[SECTIONS] = {sectionOf(CFG_DEFAULT, values.get()),
                                     sectionOf(section, values.get() + 1)};
    const size_t count = IsDefaultOriginator(originatorId) != 0 ? 1 : SECTIONS;
    uint32_t result = readSections(productFile, wanted, count);
    for (size_t i = 0; result == ZOLTLOG_OK && i < count; ++i)
        result = applyOriginator(cfg, values.get() + i, wanted[i].root);
    return result;
}

} // namespace

uint32_t zoltLogReadCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_CFG);
    (void)InitLogCfg(productId, originatorId, nullptr, cfg);
    ProductEntry product;
    const uint32_t result = readProduct(GetZoltLogCfgLoc(), productId, &product);
    if (result != ZOLTLOG_OK)
        return result;
    takeShortNames(cfg, product.names.get());
    return readOriginator(product.location.get(), originatorId, cfg);
}

uint32_t zoltLogReadlogsetCfg(uint64_t productId, const char *logsetName, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isLogSetValid(logsetName) == 0 || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_LOGSET_CFG);
    // The name may be a text of the record, which is about to be zeroed.
    const LogOwned<char> name(zoltLogSafeStrdup(logsetName));
    if (name == nullptr || InitLogCfg(productId, 0, name.get(), cfg) != ZOLTLOG_OK)
        return ZOLTLOG_NO_MEMORY;
    ProductEntry product;
    uint32_t result = readProduct(GetZoltLogCfgLoc(), productId, &product);
    if (result != ZOLTLOG_OK)
        return result;
    const char *location = product.location.get();
    takeShortNames(cfg, product.names.get());
    uint32_t count = 0;
    result = readLogset(location, CFG_DEFAULT, cfg, &count);
    if (result == ZOLTLOG_OK && IsDefaultLogSet(name.get()) == 0) {
        if (!cfgIsFile(location) &&
            (!replaceText(&cfg->logsetName, name.get()) || !replaceText(&cfg->logsetFilename, name.get())))
            return ZOLTLOG_NO_MEMORY;
        result = readLogset(location, name.get(), cfg, &count);
    }
    return result == ZOLTLOG_OK && count == 0 ? static_cast<uint32_t>(ZOLTLOG_CFG_NOT_FOUND) : result;
}

// ---- all of a product -----------------------------------------------------------------------

namespace {

// Where records are collected: an array of the caller's, filled up to its capacity.
struct Collection {
    uint32_t capacity;
    LogCfg **cfgs;
    uint32_t *count;
    PositionTable positions; // by name, so that a large array is not searched for each new record
    uint32_t known;          // records of the array that have their place there
};

// Zeroed, which costs nothing in memory that is new to the process.
LogCfg *newRecord() {
    return static_cast<LogCfg *>(calloc(1, sizeof(LogCfg)));
}

void dropRecord(LogCfg *cfg) {
    (void)zoltLogFreeCfg(cfg);
    zoltLogFree(cfg);
}

bool hasRoom(const Collection *all) {
    return *all->count < all->capacity;
}

bool isSame(const LogCfg *a, const LogCfg *b) {
    if (a->productId != b->productId)
        return false;
    if (b->isLogset == 0)
        return a->isLogset == 0 && a->originatorId == b->originatorId;
    return a->logsetName != nullptr && strcmp(a->logsetName, b->logsetName) == 0;
}

uint64_t hashOfRecord(const LogCfg *cfg) {
    if (cfg->isLogset == 0)
        return hashOfNumbers(cfg->productId, cfg->originatorId);
    const char *name = cfg->logsetName != nullptr ? cfg->logsetName : "";
    return hashOfNumbers(cfg->productId, hashOfBytes(name, strlen(name)));
}

// Gives the records that the caller had in his array their places.
bool knowRecords(Collection *all) {
    while (all->known < *all->count && all->positions.add(hashOfRecord(all->cfgs[all->known]), all->known))
        ++all->known;
    return all->known == *all->count;
}

// Appends a record, or drops it when the array has one of the same name. False when out of
// memory; the record is dropped then too.
bool collect(Collection *all, LogCfg *cfg) {
    const auto isLike = [all, cfg](uint32_t at) { return isSame(all->cfgs[at], cfg); };
    const uint64_t hash = hashOfRecord(cfg);
    bool done = knowRecords(all);
    if (done && all->positions.find(hash, isLike) == PositionTable::NOWHERE) {
        done = all->positions.add(hash, all->known);
        if (done) {
            all->cfgs[(*all->count)++] = cfg;
            all->known = *all->count;
            return true;
        }
    }
    dropRecord(cfg);
    return done;
}

// One kind of record of one product's store: its sections are enumerated, and each is read
// over a copy of the default record.
struct Enumeration {
    uint64_t productId;
    const char *shortNames;
    bool logsets;
    bool inFile; // a log set's section is "LOGSET.name" in the product's own file
    StoreText (*nameOf)(StoreText);
};

// Reads a section over a record; ZOLTLOG_NO_MORE when it is a log set without any key.
uint32_t readOver(const Enumeration *what, const StoreIndex *index, const char *name, SectionValues *values,
                  LogCfg *cfg) {
    if (!what->logsets) {
        StoreSection wanted = sectionOf(name, values);
        storeIndexRead(index, &wanted);
        return applyOriginator(cfg, values, name);
    }
    char section[sizeof STORE_LOGSET_PREFIX + SECTION_NAME_SIZE];
    (void)snprintf(section, sizeof section, "%s%s", what->inFile ? STORE_LOGSET_PREFIX : "", name);
    StoreSection wanted = sectionOf(section, values);
    storeIndexRead(index, &wanted);
    uint32_t count = 0;
    const uint32_t result = applyLogset(cfg, values, name, &count);
    return result == ZOLTLOG_OK && count == 0 ? static_cast<uint32_t>(ZOLTLOG_NO_MORE) : result;
}

bool isSkipped(const Enumeration *what, const char *name) {
    return strcmp(name, CFG_DEFAULT) == 0 || (!what->logsets && strcmp(name, STORE_LOGSET_TOKEN) == 0);
}

// Collects a record, of which readOver told the result. A log set without any key is none.
uint32_t collectRead(Collection *all, LogCfg *cfg, uint32_t result) {
    if (result == ZOLTLOG_OK)
        return collect(all, cfg) ? ZOLTLOG_OK : ZOLTLOG_NO_MEMORY;
    dropRecord(cfg);
    return result == ZOLTLOG_NO_MORE ? static_cast<uint32_t>(ZOLTLOG_OK) : result;
}

uint32_t collectNamed(const Enumeration *what, const StoreIndex *index, const char *name, const LogCfg *base,
                      SectionValues *values, Collection *all) {
    LogCfg *cfg = newRecord();
    if (cfg == nullptr || copyCfgInto(cfg, base) != ZOLTLOG_OK) {
        zoltLogFree(cfg);
        return ZOLTLOG_NO_MEMORY;
    }
    takeShortNames(cfg, what->shortNames);
    cfg->originatorId = what->logsets ? 0 : storeValueNumber(name);
    return collectRead(all, cfg, readOver(what, index, name, values, cfg));
}

uint32_t collectNames(const Enumeration *what, StoreIndex *index, const LogCfg *base, SectionValues *values,
                      Collection *all) {
    char name[SECTION_NAME_SIZE] = "";
    uint32_t result = ZOLTLOG_OK;
    storeIndexRewind(index);
    while (result == ZOLTLOG_OK && hasRoom(all)) {
        uint32_t size = sizeof name;
        const uint32_t found = storeIndexNext(index, what->nameOf, name, &size);
        if (found == ZOLTLOG_STORE_NO_MORE)
            break;
        if (found == ZOLTLOG_STORE_OK && !isSkipped(what, name)) // a name too long is no name of ours
            result = collectNamed(what, index, name, base, values, all);
    }
    return result;
}

// Every record of one kind, the default one first; ZOLTLOG_NO_MEMORY or OK.
uint32_t collectKind(const Enumeration *what, StoreIndex *index, Collection *all) {
    if (!hasRoom(all))
        return ZOLTLOG_OK;
    const LogOwned<SectionValues> values = newValues(1);
    LogCfg *first = newRecord();
    if (values == nullptr || first == nullptr) {
        zoltLogFree(first);
        return ZOLTLOG_NO_MEMORY;
    }
    if (InitLogCfg(what->productId, what->logsets ? 0 : ZOLTLOG_DEFAULT_ORIGINATOR,
                   what->logsets ? CFG_DEFAULT : nullptr, first) != ZOLTLOG_OK) {
        dropRecord(first);
        return ZOLTLOG_NO_MEMORY;
    }
    takeShortNames(first, what->shortNames);
    uint32_t result = readOver(what, index, CFG_DEFAULT, values.get(), first);
    LogCfg base = {};
    if (result == ZOLTLOG_NO_MEMORY || CopyCfg(&base, first) != ZOLTLOG_OK) {
        dropRecord(first);
        return ZOLTLOG_NO_MEMORY;
    }
    result = collectRead(all, first, result);
    if (result == ZOLTLOG_OK)
        result = collectNames(what, index, &base, values.get(), all);
    (void)zoltLogFreeCfg(&base);
    return result;
}

Enumeration originatorsOf(uint64_t productId, const char *shortNames) {
    return {productId, shortNames, false, true, storeSectionName};
}

// KEPT: the names come from lines that begin with "LOGSET" also in a store of its own, where
// sections have plain names, so only the default log set is found there. Pinned by
// ConfigRead.LogsetsOfALocationThatIsNoFileAreNotListed.
Enumeration logsetsOf(uint64_t productId, const char *shortNames, const char *location) {
    return {productId, shortNames, true, cfgIsFile(location), storeLogsetName};
}

uint32_t collectFile(const Enumeration *what, const char *path, Collection *all) {
    StoreIndex index;
    uint32_t result =
        hasRoom(all) ? storeIndexLoad(&index, path) : static_cast<uint32_t>(ZOLTLOG_STORE_NO_MORE);
    if (result == ZOLTLOG_STORE_NO_MORE)
        return ZOLTLOG_OK;
    if (result != ZOLTLOG_STORE_OK)
        return cfgResultOf(result);
    result = collectKind(what, &index, all);
    storeIndexFree(&index);
    return result;
}

uint32_t collectLogsets(const Enumeration *what, const char *location, Collection *all) {
    CfgLogsetPlace place;
    if (!cfgLogsetPlace(location, CFG_DEFAULT, &place))
        return ZOLTLOG_NO_MEMORY;
    const uint32_t result = collectFile(what, place.path.get(), all);
    return result;
}

// Both kinds; a file that holds both is read once.
uint32_t collectBoth(uint64_t productId, const char *location, const char *names, Collection *all) {
    const Enumeration originators = originatorsOf(productId, names);
    const Enumeration logsets = logsetsOf(productId, names, location);
    if (!logsets.inFile) {
        const uint32_t result = collectFile(&originators, location, all);
        const uint32_t second = collectLogsets(&logsets, location, all);
        return result != ZOLTLOG_OK ? result : second;
    }
    StoreIndex index;
    uint32_t result =
        hasRoom(all) ? storeIndexLoad(&index, location) : static_cast<uint32_t>(ZOLTLOG_STORE_NO_MORE);
    if (result == ZOLTLOG_STORE_NO_MORE)
        return ZOLTLOG_OK;
    if (result != ZOLTLOG_STORE_OK)
        return cfgResultOf(result);
    result = collectKind(&originators, &index, all);
    if (result == ZOLTLOG_OK)
        result = collectKind(&logsets, &index, all);
    storeIndexFree(&index);
    return result;
}

// What these two tell: a result of the store, the records collected so far stay.
uint32_t asStoreResult(uint32_t result) {
    switch (result) {
    case ZOLTLOG_OK:
        return ZOLTLOG_STORE_OK;
    case ZOLTLOG_CFG_NOT_FOUND:
        return ZOLTLOG_STORE_NO_FILE;
    default:
        return ZOLTLOG_STORE_NOT_WRITTEN;
    }
}

} // namespace

uint32_t GetOriginatorCfg(const char *productFile, uint64_t productId, const char *shortNames,
                          uint32_t capacity, LogCfg **cfgs, uint32_t *count) {
    if (productFile == nullptr || cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const Enumeration what = originatorsOf(productId, shortNames);
    Collection all = {capacity, cfgs, count, {}, 0};
    const uint32_t result = collectFile(&what, productFile, &all);
    return asStoreResult(result);
}

uint32_t GetLogsetCfg(const char *productFile, uint64_t productId, const char *shortNames, uint32_t capacity,
                      LogCfg **cfgs, uint32_t *count) {
    if (productFile == nullptr || cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const Enumeration what = logsetsOf(productId, shortNames, productFile);
    Collection all = {capacity, cfgs, count, {}, 0};
    const uint32_t result = collectLogsets(&what, productFile, &all);
    return asStoreResult(result);
}

namespace {

// ---- all products -----------------------------------------------------------------------------

// Reads every record of one product; ZOLTLOG_CFG_NOT_FOUND when it has no location, too.
uint32_t collectProduct(const StoreIndex *mainFile, uint64_t productId, Collection *all, bool *hasLocation) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    ProductValues values = {};
    StoreSection wanted = {section, PRODUCT_KEYS, PRODUCT_KEY_COUNT, values.text, values.found};
    storeIndexRead(mainFile, &wanted);
    ProductEntry product;
    const uint32_t result = takeProduct(&values, &product);
    *hasLocation = result == ZOLTLOG_OK;
    return *hasLocation ? collectBoth(productId, product.location.get(), product.names.get(), all) : result;
}

} // namespace

uint32_t zoltLogReadProdIDCfg(const char *mainLocation, uint64_t productId, uint32_t capacity, LogCfg **cfgs,
                              uint32_t *count) {
    if (cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_PROD_ID_CFG);
    *count = 0;
    StoreIndex mainFile;
    uint32_t result = storeIndexLoad(&mainFile, mainLocation != nullptr ? mainLocation : GetZoltLogCfgLoc());
    if (result != ZOLTLOG_STORE_OK)
        return result == STORE_NO_MEMORY ? ZOLTLOG_NO_MEMORY : ZOLTLOG_NO_PRODUCT_CFG;
    Collection all = {capacity, cfgs, count, {}, 0};
    char name[SECTION_NAME_SIZE] = "";
    uint32_t size = sizeof name;
    bool isFound = false;
    while (!isFound && storeIndexNext(&mainFile, storeSectionName, name, &size) == ZOLTLOG_STORE_OK) {
        isFound = storeValueNumber(name) == productId;
        size = sizeof name;
    }
    bool hasLocation = true;
    result = isFound ? collectProduct(&mainFile, productId, &all, &hasLocation)
                     : static_cast<uint32_t>(ZOLTLOG_OK);
    storeIndexFree(&mainFile);
    if (result == ZOLTLOG_NO_MEMORY || !hasLocation)
        return result;
    return *count > 0 ? ZOLTLOG_OK : ZOLTLOG_NO_PRODUCT_CFG;
}

uint32_t zoltLogReadAllCfg(const char *mainLocation, uint32_t capacity, LogCfg **cfgs, uint32_t *count) {
    if (cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_ALL_CFG);
    *count = 0;
    StoreIndex mainFile;
    const uint32_t loaded =
        storeIndexLoad(&mainFile, mainLocation != nullptr ? mainLocation : GetZoltLogCfgLoc());
    if (loaded != ZOLTLOG_STORE_OK)
        return loaded == STORE_NO_MEMORY ? ZOLTLOG_NO_MEMORY : ZOLTLOG_NO_PRODUCT_CFG;
    Collection all = {capacity, cfgs, count, {}, 0};
    char name[SECTION_NAME_SIZE] = "";
    uint32_t size = sizeof name;
    bool isAnyRead = false;
    bool isOutOfMemory = false;
    uint32_t found = ZOLTLOG_STORE_OK;
    while (!isOutOfMemory &&
           (found = storeIndexNext(&mainFile, storeSectionName, name, &size)) == ZOLTLOG_STORE_OK) {
        bool hasLocation = false;
        const uint32_t result = collectProduct(&mainFile, storeValueNumber(name), &all, &hasLocation);
        isAnyRead = result == ZOLTLOG_OK || isAnyRead;
        isOutOfMemory = result == ZOLTLOG_NO_MEMORY;
        size = sizeof name;
    }
    storeIndexFree(&mainFile);
    if (isOutOfMemory)
        return ZOLTLOG_NO_MEMORY;
    if (isAnyRead || found == ZOLTLOG_STORE_NO_MORE)
        return *count > 0 ? ZOLTLOG_OK : ZOLTLOG_NO_PRODUCT_CFG;
    return utipsres2zoltlogres(found);
}
