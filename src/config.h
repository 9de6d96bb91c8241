// SPDX-License-Identifier: Apache-2.0
// The configuration units among themselves.
#pragma once

#include "bounded.h"
#include "config_keys.h"
#include "owned.h"
#include "utiPropertyStoreFile.h"

// A field of a record by its key.
template<typename T>
inline T *cfgField(LogCfg *cfg, CfgKeyId id) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(cfg) + CFG_KEYS[id].field);
}

// "5", "112": an id as section name.
inline constexpr size_t CFG_ID_SIZE = 21;
inline void cfgIdText(uint64_t id, char text[CFG_ID_SIZE]) {
    (void)snprintf(text, CFG_ID_SIZE, "%lu", id);
}

bool cfgIsFile(const char *location); // holds ".conf": log sets are sections of it

// The store of a product's log sets and the section of one of them: "LOGSET.x" in the
// location itself, or x in location + "\LOGSET". False when out of memory.
struct CfgLogsetPlace {
    LogOwned<char> path;
    LogOwned<char> section;
};
bool cfgLogsetPlace(const char *location, const char *logsetName, CfgLogsetPlace *place);

// The library's result for one of the store's, those included that only the units know.
uint32_t cfgResultOf(uint32_t storeResult);

// Fills a record's field from a value as it stands in the file and tells what became of it.
// ZOLTLOG_CFG_NOT_FOUND when it cannot be converted, as if the key were absent;
// ZOLTLOG_NO_MEMORY.
uint32_t cfgApplyValue(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state, CfgTaken *taken);

// CopyCfg for a record that is all zeros.
uint32_t copyCfgInto(LogCfg *destination, const LogCfg *source);
