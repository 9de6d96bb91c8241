// SPDX-License-Identifier: Apache-2.0
// Following the product's file while a handle is open, and the product's own switch for
// application messages.
//
// zoltDynaLoadConfig stands before every debug and diagnostic message, so a handle that
// does not reload costs one load, one that does costs one time call until a check is due.
// The handle's levels and times are read here without the lock, hence the atomic accesses.
#include "config.h"

#include "lockUnix.h"
#include "owned.h"

#include <cerrno>
#include <ctime>
#include <sys/stat.h>

namespace {

const int32_t SHORTEST_INTERVAL = 60; // seconds

template<typename T>
T load(const T *field) {
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

template<typename T>
void store(T *field, T value) {
    __atomic_store_n(field, value, __ATOMIC_RELAXED);
}

// The time at which the product's file was changed last; the one that the handle knows when
// that cannot be told: the handle keeps its levels.
int64_t fileTime(const LogHandle *handle) {
    char *location = nullptr;
    if (GetProductCfgPath(GetZoltLogCfgLoc(), handle->file->productId, &location) != ZOLTLOG_OK)
        return load(&handle->cfgTimestamp);
    struct stat status;
    const bool known = stat(location, &status) == 0;
    zoltLogFree(location);
    return known ? status.st_mtime : load(&handle->cfgTimestamp);
}

} // namespace

// Whose settings a handle follows, as its file tells at the moment: an open or a close of
// another handle may change the file's fields.
struct Source {
    uint64_t productId;
    bool isLogset;
    LogOwned<char> logsetName;
};

namespace {

Source sourceOf(const LogHandle *handle) {
    const GlobalLock lock(TAG_DYNA_LOAD_CONFIG);
    const LogFileState *file = handle->file;
    const bool isLogset = file->isLogset != 0;
    return {file->productId, isLogset,
            LogOwned<char>(isLogset ? zoltLogSafeStrdup(file->logsetName) : nullptr)};
}

// Adopts the levels and the interval, and nothing else. What cannot be read leaves them, and
// is tried again when the next check is due.
void reload(LogHandle *handle, int64_t modified) {
    const Source source = sourceOf(handle);
    LogCfg cfg = {};
    // A handle on a log set was opened with the log set's settings.
    const uint32_t result = source.isLogset
                                ? zoltLogReadlogsetCfg(source.productId, source.logsetName.get(), &cfg)
                                : zoltLogReadCfg(source.productId, handle->originatorId, &cfg);
    if (result == ZOLTLOG_OK) {
        const GlobalLock lock(TAG_DYNA_LOAD_CONFIG);
        store(&handle->debugLevel, cfg.debugLevel);
        store(&handle->diagLevel, cfg.diagLevel);
        store(&handle->reloadInterval, cfg.reloadInterval);
        store(&handle->cfgTimestamp, modified);
    }
    (void)zoltLogFreeCfg(&cfg);
}

} // namespace

uint32_t zoltDynaLoadConfig(LogHandle *handle) {
    if (handle == nullptr || handle->file == nullptr)
        return ZOLTLOG_OK;
    const uint32_t seconds = load(&handle->reloadInterval);
    if (seconds == 0)
        return ZOLTLOG_OK;
    auto interval = static_cast<int32_t>(seconds);
    if (interval < SHORTEST_INTERVAL)
        interval = SHORTEST_INTERVAL;
    const int64_t now = time(nullptr);
    if (now - load(&handle->lastReloadCheck) <= interval)
        return ZOLTLOG_OK;
    store(&handle->lastReloadCheck, now);
    const int callersError = errno; // which the message's text may tell ("%m")
    const int64_t modified = fileTime(handle);
    if (modified != load(&handle->cfgTimestamp))
        reload(handle, modified);
    errno = callersError;
    return ZOLTLOG_OK;
}

uint32_t GetProductLoggingLevel(const char *location, uint64_t productId, uint32_t *enabled) {
    if (enabled == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char section[CFG_ID_SIZE];
    cfgIdText(productId, section);
    PropertyStore main;
    if (location == nullptr || utiOpenPropertyStore(location, section, &main) != ZOLTLOG_STORE_OK)
        return ZOLTLOG_CFG_NOT_FOUND;
    const uint32_t result = utiGetPropertyAsBool(&main, CFG_PRODUCT_APP_MSG, enabled);
    (void)utiClosePropertyStore(&main);
    return utipsres2zoltlogres(result);
}
