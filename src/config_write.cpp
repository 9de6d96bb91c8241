// Writing the configuration: records, registration of products.
//
// Each key is a change of its own to the file. What is refused as a whole (a text with a
// line feed in it) is refused before the first of them.
#include "config.h"

#include "cmn_routines.h"
#include "lockUnix.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

// ---- opening for writing ---------------------------------------------------------------

// The file that a location names: the one behind a symbolic link, so that the link stays.
static LogOwned<char> realLocation(const char *location) {
    struct stat status;
    if (lstat(location, &status) == 0 && S_ISLNK(status.st_mode)) {
        char *resolved = realpath(location, nullptr);
        if (resolved != nullptr)
            return LogOwned<char>(resolved);
    }
    return LogOwned<char>(zoltLogSafeStrdup(location));
}

uint32_t CreatePropertyString(const char *location, const char *section, PropertyStore *store) {
    if (store == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    store->stream = nullptr;
    if (location == nullptr || section == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    const LogOwned<char> path = realLocation(location);
    if (path == nullptr || storeOpenOrCreate(path.get(), section, store) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_CFG_NOT_FOUND;
    return ZOLTLOG_OK;
}

// ---- records -----------------------------------------------------------------------------

static bool isMarked(const LogCfg *cfg, CfgKeyId id) {
    char buffer[CFG_SHOWN_SIZE];
    return (cfg->changedMask & CFG_KEYS[id].mask) != 0 &&
           (CFG_KEYS[id].kind != CFG_TEXT || cfgShow(cfg, id, buffer) != nullptr);
}

// KEPT: "AppMsgLogging" is meant by every bit but the directory's, so each change of another
// setting writes it too. Pinned by ConfigWrite.EveryChangeButTheDirectoryWritesAppMsgLogging.
bool cfgWriteKey(const LogCfg *cfg, CfgKeyId id, PropertyStore *section, uint32_t *result) {
    char buffer[CFG_SHOWN_SIZE];
    if ((cfg->removedMask & CFG_KEYS[id].mask) != 0)
        *result = utiRemoveProperty(section, CFG_KEYS[id].name);
    else if (isMarked(cfg, id)) // a facility without a name passes no text, which the store refuses
        *result = utiSetPropertyAsStr(section, CFG_KEYS[id].name, cfgShow(cfg, id, buffer));
    else
        return false;
    return true;
}

// Whether a text that the masks mark for writing holds a line feed.
static bool hasLineFeed(const LogCfg *cfg, uint8_t use) {
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        char buffer[CFG_SHOWN_SIZE];
        const char *text = nullptr;
        if ((CFG_KEYS[id].use & use) != 0 && (cfg->removedMask & CFG_KEYS[id].mask) == 0 && isMarked(cfg, id))
            text = cfgShow(cfg, id, buffer);
        if (text != nullptr && strchr(text, '\n') != nullptr)
            return true;
    }
    return false;
}

// Writes or removes the marked keys; the result of the first failure.
static uint32_t writeKeys(const LogCfg *cfg, uint8_t use, PropertyStore *section) {
    for (const CfgKeyId id : CFG_WRITTEN) {
        uint32_t result = ZOLTLOG_STORE_OK;
        if ((CFG_KEYS[id].use & use) != 0 && cfgWriteKey(cfg, id, section, &result) &&
            result != ZOLTLOG_STORE_OK)
            return result;
    }
    return ZOLTLOG_STORE_OK;
}

uint32_t osSetCfgSettings(LogCfg *cfg, PropertyStore *section) {
    if (cfg == nullptr || section == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    uint32_t result = ZOLTLOG_STORE_OK;
    for (const CfgKeyId id : CFG_WRITTEN_LAST)
        (void)cfgWriteKey(cfg, id, section, &result);
    return result;
}

static uint32_t writeOriginator(LogCfg *cfg, PropertyStore *section) {
    const uint32_t result = writeKeys(cfg, CFG_WRITE_ORIGINATOR, section);
    return utipsres2zoltlogres(result == ZOLTLOG_STORE_OK ? osSetCfgSettings(cfg, section) : result);
}

static uint32_t writeLogset(LogCfg *cfg, PropertyStore *section) {
    uint32_t result = writeKeys(cfg, CFG_WRITE_LOGSET, section);
    if (result != ZOLTLOG_STORE_OK)
        return utipsres2zoltlogres(result);
    if ((cfg->removedMask & CFG_KEYS[CFG_KEY_FILE_NAME].mask) != 0) {
        (void)osSetCfgSettings(cfg, section);
        return ZOLTLOG_NOTHING_TO_WRITE; // a log set keeps its file name
    }
    // KEPT: a written file name ends the call, the keys behind it wait for another one. Pinned
    // by ConfigWrite.AChangedFileNameLeavesTheSystemLogKeysUnwritten.
    if (cfgWriteKey(cfg, CFG_KEY_FILE_NAME, section, &result))
        return utipsres2zoltlogres(result);
    return utipsres2zoltlogres(osSetCfgSettings(cfg, section));
}

uint32_t zoltLogWriteCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || cfg == nullptr ||
        hasLineFeed(cfg, CFG_WRITE_ORIGINATOR))
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_WRITE_CFG);
    char section[CFG_ID_SIZE];
    cfgIdText(originatorId, section);
    char *text = nullptr;
    (void)GetProductCfgPath(GetZoltLogCfgLoc(), productId, &text);
    const LogOwned<char> location(text);
    PropertyStore store;
    if (location == nullptr ||
        CreatePropertyString(location.get(), IsDefaultOriginator(originatorId) != 0 ? CFG_DEFAULT : section,
                             &store) != ZOLTLOG_OK)
        return ZOLTLOG_CFG_NOT_FOUND;
    const uint32_t result = writeOriginator(cfg, &store);
    (void)utiClosePropertyStore(&store);
    return result;
}

// KEPT: a store that cannot be opened is 1 here and 6 for an originator. Pinned by
// ConfigWrite.AStoreThatDoesNotOpenIsToldDifferentlyForLogsets.
static uint32_t writeLogsetAt(const char *location, const char *logsetName, LogCfg *cfg) {
    CfgLogsetPlace place;
    PropertyStore store;
    if (!cfgLogsetPlace(location, logsetName, &place))
        return ZOLTLOG_NO_MEMORY;
    uint32_t result = ZOLTLOG_FAILED;
    if (CreatePropertyString(place.path.get(), place.section.get(), &store) == ZOLTLOG_OK) {
        result = writeLogset(cfg, &store);
        (void)utiClosePropertyStore(&store);
    }
    return result;
}

uint32_t zoltLogWritelogSetCfg(uint64_t productId, const char *logsetName, LogCfg *cfg) {
    if (isProdIdValid(productId) == 0 || isLogSetValid(logsetName) == 0 || cfg == nullptr ||
        strchr(logsetName, '\n') != nullptr || hasLineFeed(cfg, CFG_WRITE_LOGSET))
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_WRITE_LOGSET_CFG);
    char *text = nullptr;
    (void)GetProductCfgPath(GetZoltLogCfgLoc(), productId, &text);
    const LogOwned<char> location(text);
    if (location == nullptr)
        return ZOLTLOG_CFG_NOT_FOUND;
    if (cfg->changedMask == 0 && cfg->removedMask == 0)
        return ZOLTLOG_NOTHING_TO_WRITE;
    return writeLogsetAt(location.get(), logsetName, cfg);
}

// ---- registration of products ----------------------------------------------------------------

static bool isRegistered(const char *mainFile, uint64_t productId) {
    char *location = nullptr;
    const bool registered = GetProductCfgPath(mainFile, productId, &location) == ZOLTLOG_OK;
    zoltLogFree(location);
    return registered;
}

uint32_t zoltLogAddProductCfg(uint64_t productId, const char *names, const char *location) {
    if (isProdIdValid(productId) == 0 || names == nullptr || location == nullptr ||
        strchr(names, '\n') != nullptr || strchr(location, '\n') != nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    PropertyStore store;
    if (CreatePropertyString(GetZoltLogCfgLoc(), section, &store) != ZOLTLOG_OK)
        return ZOLTLOG_CFG_NOT_FOUND;
    uint32_t result = ZOLTLOG_PRODUCT_EXISTS;
    {
        const GlobalLock lock(TAG_ADD_PRODUCT_CFG);
        if (!isRegistered(GetZoltLogCfgLoc(), productId)) {
            uint32_t written = utiSetPropertyAsStr(&store, CFG_CONFIGURATION, location);
            if (written == ZOLTLOG_STORE_OK)
                written = utiSetPropertyAsStr(&store, CFG_PRODUCT_NAMES, names);
            result = utipsres2zoltlogres(written);
        }
    }
    (void)utiClosePropertyStore(&store);
    return result;
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
    return path != nullptr ? storeRemoveIfEmpty(path.get())
                           : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_WRITTEN);
}

uint32_t zoltLogRemoveProductCfg(uint64_t productId) {
    if (isProdIdValid(productId) == 0)
        return ZOLTLOG_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    PropertyStore store;
    if (!isRegistered(GetZoltLogCfgLoc(), productId) ||
        CreatePropertyString(GetZoltLogCfgLoc(), section, &store) != ZOLTLOG_OK)
        return ZOLTLOG_CFG_NOT_FOUND;
    uint32_t result = ZOLTLOG_STORE_OK;
    {
        const GlobalLock lock(TAG_REMOVE_PRODUCT_CFG);
        result = utiRemoveProperty(&store, CFG_CONFIGURATION);
        if (result == ZOLTLOG_STORE_OK)
            result = utiRemoveProperty(&store, CFG_PRODUCT_NAMES);
        if (result == ZOLTLOG_STORE_OK)
            result = RemoveProductRoot(&store, productId);
    }
    (void)utiClosePropertyStore(&store);
    return utipsres2zoltlogres(result);
}
