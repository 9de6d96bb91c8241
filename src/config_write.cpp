// SPDX-License-Identifier: Apache-2.0
// Writing the configuration: records, registration of products.
//
// What one call changes is one rewrite of the file, or nothing. The global lock is held
// while a location is read and while the new file takes the name; what takes time, waiting
// for other writers and the disk, happens without it.
//
// Sections: opening for writing; the changes of a record; records; registration.
#include "config.h"

#include "cmn_routines.h"
#include "lockUnix.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// ---- opening for writing ---------------------------------------------------------------

const int LINKS_MAX = 40;

// What a symbolic link names: absolute, or below the link's own directory.
LogOwned<char> linkTarget(const char *path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path, target, sizeof target - 1);
    if (length < 0)
        return nullptr;
    target[length] = '\0';
    const char *slash = strrchr(path, '/');
    const size_t directory = *target == '/' || slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
    const size_t size = directory + static_cast<size_t>(length) + 1;
    LogOwned<char> joined(static_cast<char *>(zoltLogMalloc(size)));
    if (joined != nullptr) {
        memcpy(joined.get(), path, directory);
        memcpy(joined.get() + directory, target, static_cast<size_t>(length) + 1);
    }
    return joined;
}

bool isLink(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// The file that a location names: the one behind symbolic links, also one that is still to be
// made, so that the links stay. The location itself when they lead nowhere; null when out of
// memory.
LogOwned<char> realLocation(const char *location) {
    LogOwned<char> path(zoltLogSafeStrdup(location));
    int links = 0;
    for (; path != nullptr && isLink(path.get()) && links < LINKS_MAX; ++links) {
        char *resolved = realpath(path.get(), nullptr);
        if (resolved != nullptr)
            return LogOwned<char>(resolved);
        path = linkTarget(path.get());
    }
    return links < LINKS_MAX ? static_cast<LogOwned<char> &&>(path)
                             : LogOwned<char>(zoltLogSafeStrdup(location));
}

// As utiOpenPropertyStore; a file that is missing is made.
uint32_t openOrMake(const char *path, const char *section, PropertyStore *store) {
    uint32_t result = utiOpenPropertyStore(path, section, store);
    struct stat status;
    if (result != ZOLTLOG_STORE_NO_FILE || stat(path, &status) == 0 || errno != ENOENT)
        return result; // a file that is there is never emptied
    result = storeMakeMissing(path);
    return result == ZOLTLOG_STORE_OK ? utiOpenPropertyStore(path, section, store) : result;
}

} // namespace

uint32_t CreatePropertyString(const char *location, const char *section, PropertyStore *store) {
    if (store == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    store->stream = nullptr;
    if (location == nullptr || section == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    const LogOwned<char> path = realLocation(location);
    if (path == nullptr)
        return ZOLTLOG_NO_MEMORY;
    return openOrMake(path.get(), section, store) == ZOLTLOG_STORE_OK ? ZOLTLOG_OK : ZOLTLOG_CFG_NOT_FOUND;
}

namespace {

// ---- the changes of a record ---------------------------------------------------------------

// The changes of one call to one section, with the texts that they own.
struct Writing {
    const char *section;
    StoreChange changes[CFG_KEY_COUNT + 2];
    LogOwned<char> values[CFG_KEY_COUNT + 2];
    size_t count;
};

void addChange(Writing *writing, StoreAction action, const char *name) {
    writing->changes[writing->count++] = {action, name, nullptr};
}

// A line that is longer would be taken for several, the rest of it for one of any section.
bool fitsLine(const char *section, const char *name, const char *value) {
    return strlen(section) + strlen(name) + strlen(value) + sizeof ".=\n" - 1 <= STORE_LINE_MAX;
}

// A text in the locale's encoding becomes the value of a key.
uint32_t addSet(Writing *writing, const char *name, const char *text) {
    char *utf8 = nullptr;
    if (text == nullptr) // a facility without a name
        return ZOLTLOG_INVALID_ARGUMENT;
    const uint32_t converted = mbs2utf8(&utf8, text);
    LogOwned<char> value(utf8);
    if (converted == ZOLTLOG_NO_MEMORY)
        return converted;
    if (converted != ZOLTLOG_OK)
        return utipsres2zoltlogres(ZOLTLOG_STORE_NOT_FOUND);
    if (strchr(utf8, '\n') != nullptr || !fitsLine(writing->section, name, utf8))
        return ZOLTLOG_INVALID_ARGUMENT;
    writing->changes[writing->count] = {STORE_SET, name, utf8};
    writing->values[writing->count++] = static_cast<LogOwned<char> &&>(value);
    return ZOLTLOG_OK;
}

bool isMarked(const LogCfg *cfg, CfgKeyId id) {
    char buffer[CFG_SHOWN_SIZE];
    return (cfg->changedMask & CFG_KEYS[id].mask) != 0 &&
           (CFG_KEYS[id].kind != CFG_TEXT || cfgShow(cfg, id, buffer) != nullptr);
}

// Adds what the record's masks tell of a key; false when they leave it alone.
// KEPT: "AppMsgLogging" is meant by every bit but the directory's, so each change of another
// setting writes it too. Pinned by ConfigWrite.EveryChangeButTheDirectoryWritesAppMsgLogging.
bool addKey(Writing *writing, const LogCfg *cfg, CfgKeyId id, uint32_t *result) {
    char buffer[CFG_SHOWN_SIZE];
    *result = ZOLTLOG_OK;
    if ((cfg->removedMask & CFG_KEYS[id].mask) != 0)
        addChange(writing, STORE_REMOVE, CFG_KEYS[id].name);
    else if (isMarked(cfg, id))
        *result = addSet(writing, CFG_KEYS[id].name, cfgShow(cfg, id, buffer));
    else
        return false;
    return true;
}

uint32_t addKeys(Writing *writing, const LogCfg *cfg, uint8_t use) {
    uint32_t result = ZOLTLOG_OK;
    for (const CfgKeyId id : CFG_WRITTEN) {
        if ((CFG_KEYS[id].use & use) != 0)
            (void)addKey(writing, cfg, id, &result);
        if (result != ZOLTLOG_OK)
            break;
    }
    return result;
}

// The system-log and permission keys: the last one's result counts, as in osSetCfgSettings. What
// no key may hold is refused at once.
uint32_t addLastKeys(Writing *writing, const LogCfg *cfg, uint32_t *last) {
    *last = ZOLTLOG_OK;
    for (const CfgKeyId id : CFG_WRITTEN_LAST) {
        uint32_t result = ZOLTLOG_OK;
        if (!addKey(writing, cfg, id, &result))
            continue;
        *last = result;
        if (result != ZOLTLOG_OK && id != CFG_KEY_OSLOG_FACILITY)
            return result;
    }
    return ZOLTLOG_OK;
}

// A log set's file name comes before the last keys. *told is the call's result when the file
// has been written.
uint32_t addLogsetKeys(Writing *writing, const LogCfg *cfg, uint32_t *told) {
    uint32_t result = addKeys(writing, cfg, CFG_WRITE_LOGSET);
    if (result != ZOLTLOG_OK)
        return result;
    if ((cfg->removedMask & CFG_KEYS[CFG_KEY_FILE_NAME].mask) != 0) {
        result = addLastKeys(writing, cfg, told);
        *told = ZOLTLOG_NOTHING_TO_WRITE; // a log set keeps its file name
        return result;
    }
    // KEPT: a written file name ends the call, the keys behind it wait for another one. Pinned
    // by ConfigWrite.AChangedFileNameLeavesTheSystemLogKeysUnwritten.
    if (addKey(writing, cfg, CFG_KEY_FILE_NAME, &result))
        return result;
    return addLastKeys(writing, cfg, told);
}

// Makes the changes. A file that was there is not begun anew unless mayGo: the main file goes
// with its last product. openFailure is told when the file cannot be opened or made.
uint32_t makeChanges(Writing *writing, const char *location, bool mayGo, const char *tag,
                     uint32_t openFailure) {
    const LogOwned<char> path = realLocation(location);
    if (path == nullptr)
        return ZOLTLOG_NO_MEMORY;
    const int descriptor = storeOpenForReading(path.get());
    const bool opened = descriptor >= 0;
    if (opened)
        close(descriptor);
    else if (errno == ENOMEM)
        return ZOLTLOG_NO_MEMORY;
    else if (errno != ENOENT)
        return openFailure;
    StoreChanges changes = {writing->section, writing->changes, writing->count, !opened, false};
    const StoreMissing missing = mayGo    ? STORE_MAKE_MISSING
                                 : opened ? STORE_REFUSE_MISSING
                                          : STORE_MAKE_UNKNOWN;
    const uint32_t result = storeChange(path.get(), &changes, missing, tag);
    if (!opened && result != ZOLTLOG_STORE_OK && result != STORE_NO_MEMORY)
        return openFailure;
    return cfgResultOf(result);
}

// What would make a line of another section or log set.
bool isWritableLogsetName(const char *name) {
    const size_t length = strlen(name);
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        if (byte < ' ' || byte == 0x7F || strchr("=./", name[i]) != nullptr)
            return false;
    }
    return length > 0 && name[0] != ' ' && name[length - 1] != ' ';
}

// Where a product's settings are; null and a result when it has none.
LogOwned<char> locationOf(uint64_t productId, const char *tag, uint32_t *result) {
    const GlobalLock lock(tag);
    char *text = nullptr;
    *result = GetProductCfgPath(GetZoltLogCfgLoc(), productId, &text);
    return LogOwned<char>(*result == ZOLTLOG_OK ? text : nullptr);
}

} // namespace

// ---- records -----------------------------------------------------------------------------

uint32_t osSetCfgSettings(LogCfg *cfg, PropertyStore *section) {
    if (cfg == nullptr || section == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    uint32_t result = ZOLTLOG_STORE_OK;
    for (const CfgKeyId id : CFG_WRITTEN_LAST) {
        char buffer[CFG_SHOWN_SIZE];
        if ((cfg->removedMask & CFG_KEYS[id].mask) != 0)
            result = utiRemoveProperty(section, CFG_KEYS[id].name);
        else if (isMarked(cfg, id)) // a facility without a name passes no text, which the store refuses
            result = utiSetPropertyAsStr(section, CFG_KEYS[id].name, cfgShow(cfg, id, buffer));
    }
    return result;
}

uint32_t zoltLogWriteCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(originatorId, section);
    Writing writing = {};
    writing.section = IsDefaultOriginator(originatorId) != 0 ? CFG_DEFAULT : section;
    uint32_t told = ZOLTLOG_OK;
    uint32_t result = addKeys(&writing, cfg, CFG_WRITE_ORIGINATOR);
    if (result == ZOLTLOG_OK)
        result = addLastKeys(&writing, cfg, &told);
    uint32_t found = ZOLTLOG_OK;
    if (result == ZOLTLOG_INVALID_ARGUMENT)
        return result;
    const LogOwned<char> location = locationOf(productId, TAG_WRITE_CFG, &found);
    if (found != ZOLTLOG_OK)
        return found;
    if (result == ZOLTLOG_OK)
        result = makeChanges(&writing, location.get(), false, TAG_WRITE_CFG, ZOLTLOG_CFG_NOT_FOUND);
    return result == ZOLTLOG_OK ? told : result;
}

// KEPT: a store that cannot be opened is 1 here and 6 for an originator. Pinned by
// ConfigWrite.AStoreThatDoesNotOpenIsToldDifferentlyForLogsets.
uint32_t zoltLogWritelogSetCfg(uint64_t productId, const char *logsetName, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isLogSetValid(logsetName) == 0 || cfg == nullptr ||
        !isWritableLogsetName(logsetName))
        return ZOLTLOG_INVALID_ARGUMENT;
    uint32_t found = ZOLTLOG_OK;
    const LogOwned<char> location = locationOf(productId, TAG_WRITE_LOGSET_CFG, &found);
    if (found != ZOLTLOG_OK)
        return found;
    if (cfg->changedMask == 0 && cfg->removedMask == 0)
        return ZOLTLOG_NOTHING_TO_WRITE;
    CfgLogsetPlace place;
    if (!cfgLogsetPlace(location.get(), logsetName, &place))
        return ZOLTLOG_NO_MEMORY;
    Writing writing = {};
    writing.section = place.section.get();
    uint32_t told = ZOLTLOG_OK;
    uint32_t result = addLogsetKeys(&writing, cfg, &told);
    if (result == ZOLTLOG_OK)
        result = makeChanges(&writing, place.path.get(), false, TAG_WRITE_LOGSET_CFG, ZOLTLOG_FAILED);
    return result == ZOLTLOG_OK ? told : result;
}

// ---- registration of products ----------------------------------------------------------------

uint32_t zoltLogAddProductCfg(uint64_t productId, const char *names, const char *location) {
    if (isProdIdValid(productId) == 0 || names == nullptr || location == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    Writing writing = {};
    writing.section = section;
    addChange(&writing, STORE_REQUIRE_ABSENT, CFG_CONFIGURATION);
    uint32_t result = addSet(&writing, CFG_CONFIGURATION, location);
    if (result == ZOLTLOG_OK)
        result = addSet(&writing, CFG_PRODUCT_NAMES, names);
    return result == ZOLTLOG_OK
               ? makeChanges(&writing, GetZoltLogCfgLoc(), true, TAG_ADD_PRODUCT_CFG, ZOLTLOG_CFG_NOT_FOUND)
               : result;
}

int32_t IsThisLastProductConfiguration(void) {
    PropertyStore store;
    if (utiOpenPropertyStore(GetZoltLogCfgLoc(), "", &store) != ZOLTLOG_STORE_OK)
        return 0;
    char name[STORE_LINE_MAX + 1] = "";
    uint32_t size = sizeof name;
    const bool isLast = utiEnumProductId(&store, 0, name, &size) == ZOLTLOG_STORE_NO_MORE;
    (void)utiClosePropertyStore(&store);
    return isLast ? 1 : 0;
}

// Removes what is left of a product's section, and the main file with the last section.
// The result is the store's.
uint32_t RemoveProductRoot(PropertyStore *store, uint64_t productId) {
    if (store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    const uint32_t result = utiRemovePropertyRoot(store, section);
    if (result != ZOLTLOG_STORE_OK && result != ZOLTLOG_STORE_NO_SECTION)
        return result;
    if (IsThisLastProductConfiguration() == 0)
        return ZOLTLOG_STORE_OK;
    const LogOwned<char> path = realLocation(GetZoltLogCfgLoc());
    const StoreChange change = {STORE_DROP_FILE, nullptr, nullptr};
    StoreChanges changes = {"", &change, 1, false, false};
    return path != nullptr &&
                   storeChange(path.get(), &changes, STORE_REFUSE_MISSING, nullptr) == ZOLTLOG_STORE_OK
               ? ZOLTLOG_STORE_OK
               : ZOLTLOG_STORE_NOT_WRITTEN;
}

uint32_t zoltLogRemoveProductCfg(uint64_t productId) {
    if (isProdIdValid(productId) == 0)
        return ZOLTLOG_INVALID_ARGUMENT;
    char *location = nullptr;
    const uint32_t found = GetProductCfgPath(GetZoltLogCfgLoc(), productId, &location);
    zoltLogFree(location);
    if (found != ZOLTLOG_OK)
        return found;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    Writing writing = {};
    writing.section = section;
    addChange(&writing, STORE_REMOVE, CFG_CONFIGURATION);
    addChange(&writing, STORE_REMOVE, CFG_PRODUCT_NAMES);
    addChange(&writing, STORE_REMOVE_SECTION, section);
    addChange(&writing, STORE_DROP_FILE, nullptr);
    return makeChanges(&writing, GetZoltLogCfgLoc(), false, TAG_REMOVE_PRODUCT_CFG, ZOLTLOG_CFG_NOT_FOUND);
}
