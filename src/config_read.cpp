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

#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

static const char LOCATION_VARIABLE[] = "ZOLTLOG_CFG_LOC";
static const char LOCATION_DEFAULT[] = "/etc/qd/zoltlog.conf";
static const size_t SECTION_NAME_SIZE = 81; // enumerated names have at most 80 bytes

// ---- location --------------------------------------------------------------------------

// A path longer than PATH_MAX cannot be opened; what is kept of it cannot either.
static char location[PATH_MAX + 1];
static pthread_once_t locationOnce = PTHREAD_ONCE_INIT;

static void findLocation() {
    const char *path = secure_getenv(LOCATION_VARIABLE);
    copyBounded(location, sizeof location, path != nullptr && *path != '\0' ? path : LOCATION_DEFAULT);
}

const char *GetZoltLogCfgLoc(void) {
    (void)pthread_once(&locationOnce, findLocation);
    return location;
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

uint32_t GetPropertyString(const char *file, const char *section, const char *key, char **out) {
    if (out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char value[1][STORE_VALUE_SIZE];
    bool found = false;
    StoreSection wanted = {section, &key, 1, value, &found};
    if (file == nullptr || section == nullptr || key == nullptr ||
        storeReadSections(file, &wanted, 1) != ZOLTLOG_STORE_OK || !found)
        return ZOLTLOG_CFG_NOT_FOUND;
    char *text = storeValueText(value[0]);
    if (text == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    *out = text;
    return ZOLTLOG_OK;
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
static const char *const PRODUCT_KEYS[] = {CFG_CONFIGURATION, CFG_PRODUCT_NAMES};
static const size_t PRODUCT_KEY_COUNT = sizeof PRODUCT_KEYS / sizeof *PRODUCT_KEYS;

struct ProductValues {
    char text[PRODUCT_KEY_COUNT][STORE_VALUE_SIZE];
    bool found[PRODUCT_KEY_COUNT];
};

static ProductEntry takeProduct(const ProductValues *values) {
    ProductEntry entry;
    entry.location.reset(values->found[0] ? storeValueText(values->text[0]) : nullptr);
    entry.names.reset(values->found[1] ? storeValueText(values->text[1]) : nullptr);
    return entry;
}

static ProductEntry readProduct(const char *mainFile, uint64_t productId) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    ProductValues values = {};
    StoreSection wanted = {section, PRODUCT_KEYS, PRODUCT_KEY_COUNT, values.text, values.found};
    (void)storeReadSections(mainFile, &wanted, 1);
    return takeProduct(&values);
}

static void takeShortNames(LogCfg *cfg, const char *names) {
    if (names != nullptr)
        copyBounded(cfg->productShortNames, sizeof cfg->productShortNames, names);
}

// ---- the keys of a section ------------------------------------------------------------------

// The names of all keys, which a section's values are collected under.
struct KeyNames {
    const char *name[CFG_KEY_COUNT];
};
static constexpr KeyNames keyNames() {
    KeyNames names = {};
    for (size_t i = 0; i < CFG_KEY_COUNT; ++i)
        names.name[i] = CFG_KEYS[i].name;
    return names;
}
static constexpr KeyNames KEY_NAMES = keyNames();

struct SectionValues {
    char text[CFG_KEY_COUNT][STORE_VALUE_SIZE];
    bool found[CFG_KEY_COUNT];
};

static StoreSection sectionOf(const char *root, SectionValues *values) {
    memset(values->found, 0, sizeof values->found);
    return {root, KEY_NAMES.name, CFG_KEY_COUNT, values->text, values->found};
}

bool cfgApplyValue(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state, CfgTaken *taken) {
    CfgTaken became = CFG_SKIPPED;
    if (cfgIsRaw(CFG_KEYS[id].kind)) {
        became = cfgTake(cfg, id, value, state);
    } else {
        const LogOwned<char> text(storeValueText(value));
        if (text == nullptr)
            return false;
        became = cfgTake(cfg, id, text.get(), state);
    }
    if (taken != nullptr)
        *taken = became;
    return true;
}

// Applies the values of a section in the order of the table; the number of keys found. One
// that cannot be converted counts as not found from then on.
static uint32_t applyValues(LogCfg *cfg, SectionValues *values, uint8_t use, bool isDefault) {
    uint32_t count = 0;
    CfgSectionState state = {isDefault, 0};
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        if (!values->found[id] || (CFG_KEYS[id].use & use) == 0)
            continue;
        values->found[id] = cfgApplyValue(cfg, id, values->text[id], &state, nullptr);
        count += values->found[id] ? 1 : 0;
    }
    cfg->changedMask = 0;
    return count;
}

static void applyOriginator(LogCfg *cfg, SectionValues *values, const char *section) {
    (void)applyValues(cfg, values, CFG_READ_ORIGINATOR, strcmp(section, CFG_DEFAULT) == 0);
}

static bool replaceText(char **field, const char *text) {
    char *copy = zoltLogSafeStrdup(text);
    if (copy == nullptr)
        return false;
    zoltLogFree(*field);
    *field = copy;
    return true;
}

// The record's name is the given one before the file name falls back to it.
static uint32_t applyLogset(LogCfg *cfg, SectionValues *values, const char *name) {
    cfg->isLogset = 1;
    const uint32_t count = applyValues(cfg, values, CFG_READ_LOGSET, IsDefaultLogSet(name) != 0);
    if (name != nullptr)
        (void)replaceText(&cfg->logsetName, name);
    if (cfg->logsetName != nullptr && (!values->found[CFG_KEY_FILE_NAME] || cfg->logsetFilename == nullptr))
        (void)replaceText(&cfg->logsetFilename, cfg->logsetName);
    return count;
}

// The result of reading sections: a file that does not open reads as an empty one.
static uint32_t sectionsResult(uint32_t storeResult) {
    if (storeResult == ZOLTLOG_STORE_NOT_WRITTEN)
        return ZOLTLOG_NO_MEMORY;
    const uint32_t result = utipsres2zoltlogres(storeResult);
    return result == ZOLTLOG_CFG_NOT_FOUND ? static_cast<uint32_t>(ZOLTLOG_OK) : result;
}

uint32_t GetOriginatorCfgSettings(const char *productFile, const char *section, LogCfg *cfg) {
    if (productFile == nullptr || section == nullptr || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const LogOwned<SectionValues> values(static_cast<SectionValues *>(zoltLogMalloc(sizeof(SectionValues))));
    if (values == nullptr)
        return ZOLTLOG_NO_MEMORY;
    StoreSection wanted = sectionOf(section, values.get());
    const uint32_t result = sectionsResult(storeReadSections(productFile, &wanted, 1));
    if (result == ZOLTLOG_OK)
        applyOriginator(cfg, values.get(), section);
    return result;
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

uint32_t GetLogSetCfgSettings(const char *productLocation, const char *logsetName, LogCfg *cfg) {
    CfgLogsetPlace place;
    if (productLocation == nullptr || cfg == nullptr ||
        !cfgLogsetPlace(productLocation, logsetName != nullptr ? logsetName : CFG_DEFAULT, &place))
        return 0;
    const LogOwned<SectionValues> values(static_cast<SectionValues *>(zoltLogMalloc(sizeof(SectionValues))));
    uint32_t count = 0;
    if (values != nullptr) {
        StoreSection wanted = sectionOf(place.section.get(), values.get());
        (void)storeReadSections(place.path.get(), &wanted, 1);
        count = applyLogset(cfg, values.get(), logsetName);
    }
    return count;
}

uint32_t osGetCfgSettings(LogCfg *cfg, PropertyStore *section, uint32_t *counter) {
    if (cfg == nullptr || section == nullptr || counter == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    CfgSectionState state = {false, 0};
    uint32_t result = ZOLTLOG_STORE_OK;
    for (const CfgKeyId id : CFG_WRITTEN_LAST) {
        char value[STORE_VALUE_SIZE];
        CfgTaken taken = CFG_SKIPPED;
        result = storeLookup(section, CFG_KEYS[id].name, value);
        if (result == ZOLTLOG_STORE_OK && !cfgApplyValue(cfg, id, value, &state, &taken))
            result = ZOLTLOG_STORE_NOT_FOUND;
        if (result == ZOLTLOG_STORE_OK)
            ++*counter;
        if (taken >= CFG_LOOSELY) // here the setting counts as set by the caller
            cfg->changedMask |= CFG_KEYS[id].mask;
    }
    return result; // of the last key, the permissions
}

// ---- one originator, one log set ----------------------------------------------------------------

// Reads the default section and, for any other originator, its own one over it.
static uint32_t readOriginator(const char *productFile, uint64_t originatorId, LogCfg *cfg) {
    static const size_t SECTIONS = 2;
    const LogOwned<SectionValues> values(
        static_cast<SectionValues *>(zoltLogMalloc(SECTIONS * sizeof(SectionValues))));
    if (values == nullptr)
        return ZOLTLOG_NO_MEMORY;
    char section[CFG_ID_SIZE];
    cfgIdText(originatorId, section);
    StoreSection wanted[SECTIONS] = {sectionOf(CFG_DEFAULT, values.get()),
                                     sectionOf(section, values.get() + 1)};
    const size_t count = IsDefaultOriginator(originatorId) != 0 ? 1 : SECTIONS;
    const uint32_t result = sectionsResult(storeReadSections(productFile, wanted, count));
    for (size_t i = 0; result == ZOLTLOG_OK && i < count; ++i)
        applyOriginator(cfg, values.get() + i, wanted[i].root);
    return result;
}

uint32_t zoltLogReadCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_CFG);
    (void)InitLogCfg(productId, originatorId, nullptr, cfg);
    const ProductEntry product = readProduct(GetZoltLogCfgLoc(), productId);
    if (product.location == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
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
    const ProductEntry product = readProduct(GetZoltLogCfgLoc(), productId);
    if (product.location == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    takeShortNames(cfg, product.names.get());
    uint32_t count = GetLogSetCfgSettings(product.location.get(), CFG_DEFAULT, cfg);
    if (IsDefaultLogSet(name.get()) == 0) {
        if (!cfgIsFile(product.location.get())) {
            (void)replaceText(&cfg->logsetName, name.get());
            (void)replaceText(&cfg->logsetFilename, name.get());
        }
        count = GetLogSetCfgSettings(product.location.get(), name.get(), cfg);
    }
    return count > 0 ? ZOLTLOG_OK : ZOLTLOG_CFG_NOT_FOUND;
}

// ---- all of a product -----------------------------------------------------------------------

// Where records are collected: an array of the caller's, filled up to its capacity.
struct Collection {
    uint32_t capacity;
    LogCfg **cfgs;
    uint32_t *count;
};

static LogCfg *newRecord() {
    return static_cast<LogCfg *>(zoltLogMalloc(sizeof(LogCfg)));
}

static void dropRecord(LogCfg *cfg) {
    (void)zoltLogFreeCfg(cfg);
    zoltLogFree(cfg);
}

static bool hasRoom(const Collection *all) {
    return *all->count < all->capacity;
}

static bool isSame(const LogCfg *a, const LogCfg *b) {
    if (a->productId != b->productId)
        return false;
    if (b->isLogset == 0)
        return a->isLogset == 0 && a->originatorId == b->originatorId;
    return a->logsetName != nullptr && strcmp(a->logsetName, b->logsetName) == 0;
}

// The records of an array by name, so that a large one is not searched for each new record.
// Without memory for it the array is searched.
struct RecordSet {
    uint32_t *slots; // positions in the array + 1; 0 when free
    uint32_t size;   // a power of two, more than twice what will be in it
};

static uint32_t hashOfRecord(const LogCfg *cfg) {
    uint64_t hash = cfg->productId * 31 + (cfg->isLogset == 0 ? cfg->originatorId : 0);
    const char *name = cfg->isLogset != 0 && cfg->logsetName != nullptr ? cfg->logsetName : "";
    for (; *name != '\0'; ++name)
        hash = hash * 31 + static_cast<unsigned char>(*name);
    hash *= 0x9E3779B97F4A7C15U;
    return static_cast<uint32_t>(hash >> 32U);
}

// The slot of a record like this one, or the free slot for it.
static uint32_t *slotOfRecord(const RecordSet *set, LogCfg *const *cfgs, const LogCfg *cfg) {
    uint32_t at = hashOfRecord(cfg) & (set->size - 1);
    while (set->slots[at] != 0 && !isSame(cfgs[set->slots[at] - 1], cfg))
        at = (at + 1) & (set->size - 1);
    return &set->slots[at];
}

static RecordSet recordSet(const Collection *all, uint32_t more) {
    RecordSet set = {nullptr, 64};
    const uint64_t most = static_cast<uint64_t>(*all->count) + more;
    while (set.size < 2 * most + 8 && set.size < UINT32_MAX / 2)
        set.size *= 2;
    set.slots = static_cast<uint32_t *>(calloc(set.size, sizeof *set.slots));
    for (uint32_t i = 0; set.slots != nullptr && i < *all->count; ++i)
        *slotOfRecord(&set, all->cfgs, all->cfgs[i]) = i + 1;
    return set;
}

static bool isCollected(const Collection *all, const RecordSet *set, const LogCfg *cfg) {
    if (set->slots != nullptr)
        return *slotOfRecord(set, all->cfgs, cfg) != 0;
    uint32_t i = 0;
    while (i < *all->count && !isSame(all->cfgs[i], cfg))
        ++i;
    return i < *all->count;
}

// Appends a record, or drops it when the array has one of the same name.
static void collect(const Collection *all, RecordSet *set, LogCfg *cfg) {
    if (isCollected(all, set, cfg)) {
        dropRecord(cfg);
        return;
    }
    all->cfgs[(*all->count)++] = cfg;
    if (set->slots != nullptr)
        *slotOfRecord(set, all->cfgs, cfg) = *all->count;
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

// Reads a section over a record. False when it is a log set without any key.
static bool readOver(const Enumeration *what, const StoreIndex *index, const char *name,
                     SectionValues *values, LogCfg *cfg) {
    if (!what->logsets) {
        StoreSection wanted = sectionOf(name, values);
        storeIndexRead(index, &wanted);
        applyOriginator(cfg, values, name);
        return true;
    }
    char section[sizeof STORE_LOGSET_PREFIX + SECTION_NAME_SIZE];
    (void)snprintf(section, sizeof section, "%s%s", what->inFile ? STORE_LOGSET_PREFIX : "", name);
    StoreSection wanted = sectionOf(section, values);
    storeIndexRead(index, &wanted);
    return applyLogset(cfg, values, name) > 0;
}

static bool isSkipped(const Enumeration *what, const char *name) {
    return strcmp(name, CFG_DEFAULT) == 0 || (!what->logsets && strcmp(name, STORE_LOGSET_TOKEN) == 0);
}

// A further record from the section of a name; ZOLTLOG_STORE_NOT_WRITTEN when out of memory.
static uint32_t collectNamed(const Enumeration *what, const StoreIndex *index, const char *name,
                             const LogCfg *base, SectionValues *values, const Collection *all,
                             RecordSet *set) {
    LogCfg *cfg = newRecord();
    if (cfg == nullptr || CopyCfg(cfg, base) != ZOLTLOG_OK) {
        zoltLogFree(cfg);
        return ZOLTLOG_STORE_NOT_WRITTEN;
    }
    takeShortNames(cfg, what->shortNames);
    cfg->originatorId = what->logsets ? 0 : storeValueNumber(name);
    if (!readOver(what, index, name, values, cfg)) {
        dropRecord(cfg);
    } else if (what->logsets && (cfg->logsetName == nullptr || cfg->logsetFilename == nullptr)) {
        dropRecord(cfg);
        return ZOLTLOG_STORE_NOT_WRITTEN;
    } else {
        collect(all, set, cfg);
    }
    return ZOLTLOG_STORE_OK;
}

static uint32_t collectNames(const Enumeration *what, StoreIndex *index, const LogCfg *base,
                             SectionValues *values, const Collection *all, RecordSet *set) {
    char name[SECTION_NAME_SIZE] = "";
    while (hasRoom(all)) {
        uint32_t size = sizeof name;
        const uint32_t result = storeIndexNext(index, what->nameOf, name, &size);
        if (result == ZOLTLOG_STORE_NO_MORE)
            break;
        if (result != ZOLTLOG_STORE_OK || isSkipped(what, name)) // a name too long is no name of ours
            continue;
        if (collectNamed(what, index, name, base, values, all, set) != ZOLTLOG_STORE_OK)
            return ZOLTLOG_STORE_NOT_WRITTEN;
    }
    return ZOLTLOG_STORE_OK;
}

static uint32_t collectAll(const Enumeration *what, const char *path, const Collection *all) {
    StoreIndex index;
    uint32_t result = storeIndexLoad(&index, path);
    if (result != ZOLTLOG_STORE_OK)
        return result == ZOLTLOG_STORE_NO_MORE ? static_cast<uint32_t>(ZOLTLOG_STORE_OK) : result;
    const LogOwned<SectionValues> values(static_cast<SectionValues *>(zoltLogMalloc(sizeof(SectionValues))));
    RecordSet set = recordSet(all, static_cast<uint32_t>(index.runs.count));
    LogCfg *first = newRecord();
    LogCfg base = {};
    result = ZOLTLOG_STORE_NOT_WRITTEN;
    if (values != nullptr && first != nullptr &&
        InitLogCfg(what->productId, what->logsets ? 0 : ZOLTLOG_DEFAULT_ORIGINATOR,
                   what->logsets ? CFG_DEFAULT : nullptr, first) == ZOLTLOG_OK) {
        takeShortNames(first, what->shortNames);
        const bool found = readOver(what, &index, CFG_DEFAULT, values.get(), first);
        if (CopyCfg(&base, first) == ZOLTLOG_OK) {
            if (found && hasRoom(all)) {
                collect(all, &set, first);
                first = nullptr;
            }
            result = collectNames(what, &index, &base, values.get(), all, &set);
            (void)zoltLogFreeCfg(&base);
        }
        if (first != nullptr)
            (void)zoltLogFreeCfg(first);
    }
    zoltLogFree(first);
    free(set.slots);
    storeIndexFree(&index);
    return result;
}

uint32_t GetOriginatorCfg(const char *productFile, uint64_t productId, const char *shortNames,
                          uint32_t capacity, LogCfg **cfgs, uint32_t *count) {
    if (productFile == nullptr || cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const Enumeration what = {productId, shortNames, false, true, storeSectionName};
    const Collection all = {capacity, cfgs, count};
    return hasRoom(&all) ? collectAll(&what, productFile, &all) : static_cast<uint32_t>(ZOLTLOG_STORE_OK);
}

// KEPT: the names come from lines that begin with "LOGSET" also in a store of its own, where
// sections have plain names, so only the default log set is found there. Pinned by
// ConfigRead.LogsetsOfALocationThatIsNoFileAreNotListed.
uint32_t GetLogsetCfg(const char *productFile, uint64_t productId, const char *shortNames, uint32_t capacity,
                      LogCfg **cfgs, uint32_t *count) {
    if (productFile == nullptr || cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const bool inFile = cfgIsFile(productFile);
    const Enumeration what = {productId, shortNames, true, inFile, storeLogsetName};
    const Collection all = {capacity, cfgs, count};
    CfgLogsetPlace place;
    if (!hasRoom(&all))
        return ZOLTLOG_STORE_OK;
    if (!cfgLogsetPlace(productFile, CFG_DEFAULT, &place))
        return ZOLTLOG_STORE_NOT_WRITTEN;
    const uint32_t result = collectAll(&what, place.path.get(), &all);
    return result;
}

// ---- all products -----------------------------------------------------------------------------

// Reads every record of one product; ZOLTLOG_STORE_NOT_FOUND when it has no location.
static uint32_t collectProduct(const StoreIndex *mainFile, uint64_t productId, const Collection *all) {
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    ProductValues values = {};
    StoreSection wanted = {section, PRODUCT_KEYS, PRODUCT_KEY_COUNT, values.text, values.found};
    storeIndexRead(mainFile, &wanted);
    const ProductEntry product = takeProduct(&values);
    if (product.location == nullptr)
        return ZOLTLOG_STORE_NOT_FOUND;
    const char *names = product.names.get();
    const uint32_t originators =
        GetOriginatorCfg(product.location.get(), productId, names, all->capacity, all->cfgs, all->count);
    const uint32_t logsets =
        GetLogsetCfg(product.location.get(), productId, names, all->capacity, all->cfgs, all->count);
    return originators != ZOLTLOG_STORE_OK ? originators : logsets;
}

uint32_t zoltLogReadProdIDCfg(const char *mainLocation, uint64_t productId, uint32_t capacity, LogCfg **cfgs,
                              uint32_t *count) {
    if (cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_PROD_ID_CFG);
    *count = 0;
    StoreIndex mainFile;
    if (storeIndexLoad(&mainFile, mainLocation != nullptr ? mainLocation : GetZoltLogCfgLoc()) !=
        ZOLTLOG_STORE_OK)
        return ZOLTLOG_NO_PRODUCT_CFG;
    const Collection all = {capacity, cfgs, count};
    char name[SECTION_NAME_SIZE] = "";
    uint32_t size = sizeof name;
    uint32_t result = ZOLTLOG_STORE_OK;
    bool isFound = false;
    while (!isFound &&
           (result = storeIndexNext(&mainFile, storeSectionName, name, &size)) == ZOLTLOG_STORE_OK) {
        isFound = storeValueNumber(name) == productId;
        size = sizeof name;
    }
    if (isFound)
        result = collectProduct(&mainFile, productId, &all);
    storeIndexFree(&mainFile);
    if (isFound && result == ZOLTLOG_STORE_NOT_FOUND)
        return utipsres2zoltlogres(result);
    return *count > 0 ? ZOLTLOG_OK : ZOLTLOG_NO_PRODUCT_CFG;
}

uint32_t zoltLogReadAllCfg(const char *mainLocation, uint32_t capacity, LogCfg **cfgs, uint32_t *count) {
    if (cfgs == nullptr || count == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_READ_ALL_CFG);
    *count = 0;
    StoreIndex mainFile;
    if (storeIndexLoad(&mainFile, mainLocation != nullptr ? mainLocation : GetZoltLogCfgLoc()) !=
        ZOLTLOG_STORE_OK)
        return ZOLTLOG_NO_PRODUCT_CFG;
    const Collection all = {capacity, cfgs, count};
    char name[SECTION_NAME_SIZE] = "";
    uint32_t size = sizeof name;
    bool isAnyRead = false;
    uint32_t result = ZOLTLOG_STORE_OK;
    while ((result = storeIndexNext(&mainFile, storeSectionName, name, &size)) == ZOLTLOG_STORE_OK) {
        isAnyRead = collectProduct(&mainFile, storeValueNumber(name), &all) == ZOLTLOG_STORE_OK || isAnyRead;
        size = sizeof name;
    }
    storeIndexFree(&mainFile);
    if (isAnyRead || result == ZOLTLOG_STORE_NO_MORE)
        return *count > 0 ? ZOLTLOG_OK : ZOLTLOG_NO_PRODUCT_CFG;
    return utipsres2zoltlogres(result);
}
