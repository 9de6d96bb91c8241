// The configuration units among themselves.
#pragma once

#include "config_keys.h"
#include "utiPropertyStoreFile.h"

// A field of a record by its key.
template<typename T>
inline T *cfgField(LogCfg *cfg, CfgKeyId id) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(cfg) + CFG_KEYS[id].field);
}

// Copies at most size - 1 bytes and a terminator; the text may be the field itself.
void cfgCopyText(char *field, size_t size, const char *text);

// "5", "112": an id as section name.
inline constexpr size_t CFG_ID_SIZE = 21;
void cfgIdText(uint64_t id, char text[CFG_ID_SIZE]);

bool cfgIsFile(const char *location); // holds ".conf": log sets are sections of it

// The store of a product's log sets and the section of one of them: "LOGSET.x" in the
// location itself, or x in location + "\LOGSET". Null when out of memory.
struct CfgLogsetPlace {
    char *path;
    char *section;
};
bool cfgLogsetPlace(const char *location, const char *logsetName, CfgLogsetPlace *place);
void cfgLogsetPlaceFree(CfgLogsetPlace *place);

// The system-log and permission settings, which end every section, in the order of writing.
inline constexpr CfgKeyId CFG_SECTION_KEYS[] = {CFG_KEY_OSLOG_IDENT, CFG_KEY_OSLOG_OPTION,
                                                CFG_KEY_OSLOG_FACILITY, CFG_KEY_PERMISSIONS};

// ---- values (config_keys.cpp) --------------------------------------------------

// Fills a record's field from a value as it stands in the file. An invalid value changes
// nothing. Directories other than absolute ones are joined to the one inherited unless
// isDefault. *scratch is the number that "SyslogOpt" leaves for "LogFilePermissions".
// False when the value cannot be converted, as if the key were absent.
bool cfgApplyValue(LogCfg *cfg, CfgKeyId id, const char *value, bool isDefault, unsigned long *scratch);

// Writes or removes one key as the record's masks tell. *result is the store's; false
// when the masks leave the key alone.
bool cfgWriteKey(const LogCfg *cfg, CfgKeyId id, PropertyStore *section, uint32_t *result);

// Whether a text that the masks mark for writing holds a line feed.
bool cfgHasLineFeed(const LogCfg *cfg, uint8_t use);
