// SPDX-License-Identifier: Apache-2.0
// The configuration record: life cycle, accessors, rollover modes as text.
//
// Reading it from the files is config_read.cpp's, writing config_write.cpp's, the
// dynamic reload config_reload.cpp's; the system-log and permission settings are
// configUnix.cpp's; the values between file and record are config_keys.cpp's.
//
// Sections: life cycle; the ways of changing and reading a field; accessors made from the
// table, and by hand; directory; names and rollover modes.
//
// Nothing here takes the lock: a record belongs to the calling thread.
#include "config.h"

#include "cmn_routines.h"

#include <cstring>

namespace {

const uint32_t NO_SETTING = 0xFFFFFFFF; // result of the permission setting's two operations

// ---- life cycle ----------------------------------------------------------------------

// Gives a field of a zeroed record what it starts with.
void initField(LogCfg *cfg, CfgKeyId id) {
    const CfgKey *key = &CFG_KEYS[id];
    switch (key->kind) {
    case CFG_NUMBER64:
    case CFG_DAY_TIME:
        *cfgField<uint64_t>(cfg, id) = key->initial;
        break;
    case CFG_NUMBER32:
    case CFG_BOOLEAN:
    case CFG_ON_OFF:
    case CFG_ROLLOVER:
        *cfgField<uint32_t>(cfg, id) = static_cast<uint32_t>(key->initial);
        break;
    case CFG_FLAG:
        *cfgField<uint32_t>(cfg, id) |= key->initial != 0 ? static_cast<uint32_t>(key->lowest) : 0;
        break;
    case CFG_PERMISSIONS:
        (void)CopyFileSecuritySetting(&cfg->permissions, static_cast<uint32_t>(key->initial));
        break;
    default: // texts start empty, the system-log settings with what osLogInitCfg gives them
        break;
    }
}

} // namespace

uint32_t InitLogCfg(uint64_t productId, uint64_t originatorId, const char *logsetName, LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    LogOwned<char> name(zoltLogSafeStrdup(logsetName));
    LogOwned<char> fileName(zoltLogSafeStrdup(logsetName));
    memset(cfg, 0, sizeof *cfg);
    cfg->productId = productId;
    cfg->originatorId = originatorId;
    for (uint8_t id = 0; id < CFG_KEY_COUNT; ++id)
        initField(cfg, static_cast<CfgKeyId>(id));
    (void)osLogInitCfg(&cfg->oslog);
    if (logsetName == nullptr)
        return ZOLTLOG_OK;
    cfg->isLogset = 1;
    if (name == nullptr || fileName == nullptr)
        return ZOLTLOG_NO_MEMORY;
    cfg->logsetName = name.release();
    cfg->logsetFilename = fileName.release();
    return ZOLTLOG_OK;
}

namespace {

// Copies a field into a zeroed record; false when out of memory.
bool copyField(LogCfg *destination, const LogCfg *source, CfgKeyId id) {
    const auto *from = reinterpret_cast<const char *>(source) + CFG_KEYS[id].field;
    auto *to = cfgField<char>(destination, id);
    switch (CFG_KEYS[id].kind) {
    case CFG_DIRECTORY:
    case CFG_NAMES:
        static_assert(sizeof source->directory == sizeof source->originatorNames);
        copyBounded(to, sizeof source->directory, from);
        return true;
    case CFG_TEXT: {
        const char *text = nullptr;
        memcpy(&text, from, sizeof text);
        char *copy = zoltLogSafeStrdup(text);
        memcpy(to, &copy, sizeof copy);
        return copy != nullptr || text == nullptr;
    }
    case CFG_NUMBER64:
    case CFG_DAY_TIME:
        memcpy(to, from, sizeof(uint64_t));
        return true;
    case CFG_IDENT:
    case CFG_OPTION:
    case CFG_FACILITY: // osLogCopyCfg's
        return true;
    default:
        memcpy(to, from, sizeof(uint32_t));
        return true;
    }
}

} // namespace

// KEPT: recycling, reload interval, everything of a log set and the secure audit level are
// left out. Pinned by Config.CopyLeavesOutWhatItIsToldTo.
uint32_t copyCfgInto(LogCfg *destination, const LogCfg *source) {
    destination->productId = source->productId;
    destination->originatorId = source->originatorId;
    copyBounded(destination->productShortNames, sizeof destination->productShortNames,
                source->productShortNames);
    (void)osLogCopyCfg(&destination->oslog, &source->oslog);
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        if (CFG_KEYS[id].copied == CFG_COPIED && !copyField(destination, source, id)) {
            (void)zoltLogFreeCfg(destination);
            return ZOLTLOG_NO_MEMORY;
        }
    }
    return ZOLTLOG_OK;
}

uint32_t CopyCfg(LogCfg *destination, const LogCfg *source) {
    if (destination == nullptr || source == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    memset(destination, 0, sizeof *destination);
    return copyCfgInto(destination, source);
}

uint32_t zoltLogFreeCfg(LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)FreeFileSecuritySetting(&cfg->permissions);
    zoltLogFree(cfg->logsetName);
    for (uint8_t id = 0; id < CFG_KEY_COUNT; ++id) {
        if (CFG_KEYS[id].kind == CFG_TEXT)
            zoltLogFree(*cfgField<char *>(cfg, static_cast<CfgKeyId>(id)));
    }
    memset(cfg, 0, sizeof *cfg);
    return ZOLTLOG_OK;
}

uint32_t CopyFileSecuritySetting(FileSecuritySetting *destination, uint32_t mode) {
    if (destination == nullptr)
        return NO_SETTING;
    destination->mode = mode;
    return ZOLTLOG_OK;
}

uint32_t FreeFileSecuritySetting(FileSecuritySetting *setting) {
    return setting != nullptr ? static_cast<uint32_t>(ZOLTLOG_OK) : NO_SETTING;
}

namespace {

// ---- the ways of changing and reading a field --------------------------------------------

uint32_t changed(LogCfg *cfg, CfgKeyId id) {
    cfg->changedMask |= CFG_KEYS[id].mask;
    return ZOLTLOG_OK;
}

uint32_t setNumber(LogCfg *cfg, CfgKeyId id, uint64_t value) {
    const CfgKey *key = &CFG_KEYS[id];
    if (cfg == nullptr || value < key->lowest || value > key->highest)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (key->kind == CFG_NUMBER32)
        *cfgField<uint32_t>(cfg, id) = static_cast<uint32_t>(value);
    else
        *cfgField<uint64_t>(cfg, id) = value;
    return changed(cfg, id);
}

template<typename T>
uint32_t getNumber(LogCfg *cfg, CfgKeyId id, T *out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = *cfgField<T>(cfg, id);
    return ZOLTLOG_OK;
}

uint32_t setSwitch(LogCfg *cfg, CfgKeyId id, bool on) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    auto *field = cfgField<uint32_t>(cfg, id);
    if (CFG_KEYS[id].kind != CFG_FLAG) {
        *field = on ? 1 : 0;
    } else {
        const auto flag = static_cast<uint32_t>(CFG_KEYS[id].lowest);
        *field = on ? *field | flag : *field & ~flag;
    }
    return changed(cfg, id);
}

// The text may be the field's own.
uint32_t setText(LogCfg *cfg, CfgKeyId id, const char *text) {
    if (cfg == nullptr || text == nullptr || *text == '\0')
        return ZOLTLOG_INVALID_ARGUMENT;
    char *copy = zoltLogSafeStrdup(text);
    if (copy == nullptr)
        return ZOLTLOG_NO_MEMORY;
    char **field = cfgField<char *>(cfg, id);
    zoltLogFree(*field);
    *field = copy;
    return changed(cfg, id);
}

uint32_t getText(LogCfg *cfg, CfgKeyId id, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const char *text = *cfgField<char *>(cfg, id);
    *out = zoltLogSafeStrdup(text);
    return text != nullptr && *out == nullptr ? ZOLTLOG_NO_MEMORY : ZOLTLOG_OK;
}

} // namespace

// ---- accessors made from the table ---------------------------------------------------------

#define ACCESS_NUMBER32(id, of) ACCESS_NUMBER(id, of, uint32_t)
#define ACCESS_NUMBER64(id, of) ACCESS_NUMBER(id, of, uint64_t)
#define ACCESS_NUMBER(id, of, type)                                                                          \
    uint32_t zoltLogCfgSet##of(LogCfg *cfg, type value) {                                                    \
        return setNumber(cfg, CFG_KEY_##id, value);                                                          \
    }                                                                                                        \
    uint32_t zoltLogCfgGet##of(LogCfg *cfg, type *value) { /* NOLINT: a type */                              \
        return getNumber(cfg, CFG_KEY_##id, value);                                                          \
    }
#define ACCESS_SWITCH(id, of)                                                                                \
    uint32_t zoltLogCfgEnable##of(LogCfg *cfg) {                                                             \
        return setSwitch(cfg, CFG_KEY_##id, true);                                                           \
    }                                                                                                        \
    uint32_t zoltLogCfgDisable##of(LogCfg *cfg) {                                                            \
        return setSwitch(cfg, CFG_KEY_##id, false);                                                          \
    }
#define ACCESS_TEXT(id, of)                                                                                  \
    uint32_t zoltLogCfgSet##of(LogCfg *cfg, const char *text) {                                              \
        return setText(cfg, CFG_KEY_##id, text);                                                             \
    }                                                                                                        \
    uint32_t zoltLogCfgGet##of(LogCfg *cfg, char **out) {                                                    \
        return getText(cfg, CFG_KEY_##id, out);                                                              \
    }
#define ACCESS_BY_HAND(id, of)
#define ACCESSORS(id, name, kind, field, mask, lowest, highest, initial, copied, use, access, of, ...)       \
    ACCESS_##access(id, of)

// KEPT: those of AppMsgLogging mark every setting but the directory as changed. Pinned by
// Config.AppMsgLoggingMarksEverythingButTheDirectory.
CFG_KEY_TABLE(ACCESSORS)

// ---- accessors made by hand ----------------------------------------------------------------

int32_t IsValidRolloverMode(uint32_t mode) {
    return mode <= (ZOLTLOG_ROLLOVER_FILE_SIZE | ZOLTLOG_ROLLOVER_PERIODIC) ? 1 : 0;
}

uint32_t zoltLogCfgSetRolloverMode(LogCfg *cfg, uint32_t mode) {
    if (cfg == nullptr || IsValidRolloverMode(mode) == 0)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->rolloverMode = mode;
    return changed(cfg, CFG_KEY_ROLLOVER_MODE);
}

uint32_t zoltLogCfgGetRolloverMode(LogCfg *cfg, uint32_t *mode) {
    return getNumber(cfg, CFG_KEY_ROLLOVER_MODE, mode);
}

// KEPT: no mask bit; no configuration key holds this flag. Pinned by Config.OslogXMarksNothing.
uint32_t zoltLogCfgEnableLogToOslogX(LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->outputFlags |= ZOLTLOG_OUT_OSLOGX;
    return ZOLTLOG_OK;
}

uint32_t zoltLogCfgDisableLogToOslogX(LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->outputFlags &= ~static_cast<uint32_t>(ZOLTLOG_OUT_OSLOGX);
    return ZOLTLOG_OK;
}

uint32_t zoltLogCfgSetFlags(LogCfg *cfg, int32_t flags) {
    if (cfg == nullptr || flags < 0)
        return ZOLTLOG_INVALID_ARGUMENT;
    const auto bits = static_cast<uint32_t>(flags);
    (void)setSwitch(cfg, CFG_KEY_STDOUT, (bits & ZOLTLOG_OUT_STDOUT) != 0);
    (void)setSwitch(cfg, CFG_KEY_STDERR, (bits & ZOLTLOG_OUT_STDERR) != 0);
    (void)setSwitch(cfg, CFG_KEY_OSLOG, (bits & ZOLTLOG_OUT_OSLOG) != 0);
    return (bits & ZOLTLOG_OUT_OSLOGX) != 0 ? zoltLogCfgEnableLogToOslogX(cfg)
                                            : zoltLogCfgDisableLogToOslogX(cfg);
}

uint32_t zoltLogCfgGetFlags(LogCfg *cfg, uint32_t *flags) {
    return getNumber(cfg, CFG_KEY_STDOUT, flags);
}

uint32_t zoltLogCfgSetL10nLib(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_L10N_LIB, text);
}

// The platform's file name of the library.
uint32_t zoltLogCfgGetL10nLib(LogCfg *cfg, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    if (cfg->l10nLib == nullptr || zoltLogOs_getLibName(cfg->l10nLib, out) != 0)
        return ZOLTLOG_NO_MEMORY;
    return ZOLTLOG_OK;
}

// The names of the two differ: they are exported so.
uint32_t zoltLogCfgSetLogsetOIDappMsgLogging(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_OIDS_APP_MSG, text);
}

uint32_t zoltLogCfgGetLogsetOIDOIDappMsgLogging(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_OIDS_APP_MSG, out);
}

// ---- directory ---------------------------------------------------------------------------------

uint32_t zoltLogCfgSetDirectory(LogCfg *cfg, const char *path, char *destination) {
    if (cfg == nullptr || path == nullptr ||
        !cfgPutDirectory(cfg, path, destination != nullptr ? destination : cfg->directory))
        return ZOLTLOG_INVALID_ARGUMENT;
    return changed(cfg, CFG_KEY_DIRECTORY);
}

uint32_t zoltLogCfgGetDirectory(LogCfg *cfg, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = zoltLogSafeStrdup(cfg->directory);
    return ZOLTLOG_OK;
}

// ---- names and rollover modes --------------------------------------------------------------------

int32_t IsDefaultOriginator(uint64_t originatorId) {
    return originatorId == ZOLTLOG_DEFAULT_ORIGINATOR ? 1 : 0;
}

int32_t IsDefaultLogSet(const char *name) {
    return name != nullptr && strcmp(name, CFG_DEFAULT) == 0 ? 1 : 0;
}

uint32_t LogCfgGetShortNames(LogCfg *cfg, uint32_t selector, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    const bool ofProduct = (selector & 0xFFFFU) == ZOLTLOG_ATTR_PRODUCT_ID;
    char names[sizeof cfg->originatorNames];
    copyBounded(names, sizeof names, ofProduct ? cfg->productShortNames : cfg->originatorNames);
    if (*names == '\0')
        return ZOLTLOG_OK;
    char *end = strchr(names, ',');
    if (end == nullptr)
        end = strchr(names, ' ');
    if (end != nullptr)
        *end = '\0';
    *out = zoltLogSafeStrdup(names);
    return *out != nullptr ? ZOLTLOG_OK : ZOLTLOG_NO_MEMORY;
}

struct RolloverWord {
    uint32_t mode;
    const char *word;
};

namespace {

const RolloverWord ROLLOVER_WORDS[] = {{ZOLTLOG_ROLLOVER_FILE_SIZE, "FileSize"},
                                       {ZOLTLOG_ROLLOVER_LOCAL_TIME, "LocalTime"},
                                       {ZOLTLOG_ROLLOVER_PERIODIC, "Periodic"}};
const char ROLLOVER_NONE_WORD[] = "None";
const char ROLLOVER_SEPARATOR[] = " | ";

} // namespace

// The words are found anywhere in the text; of the two that exclude each other the first counts.
uint32_t SettingStringToRolloverModeEnum(const char *text) {
    uint32_t mode = ZOLTLOG_ROLLOVER_NONE;
    if (text == nullptr)
        return mode;
    for (const RolloverWord &row : ROLLOVER_WORDS) {
        if (strstr(text, row.word) == nullptr)
            continue;
        mode |= row.mode;
        if (row.mode == ZOLTLOG_ROLLOVER_LOCAL_TIME)
            break;
    }
    return mode;
}

namespace {

// The caller's buffer has room for every form (CFG_SHOWN_SIZE is ample).
char *appendWord(char *end, const char *word) {
    const size_t length = strlen(word);
    memcpy(end, word, length + 1);
    return end + length;
}

} // namespace

char *RolloverModeEnumToSettingString(uint32_t mode, char *buffer) {
    if (buffer == nullptr)
        return nullptr;
    char *end = buffer + strlen(buffer);
    if (mode == ZOLTLOG_ROLLOVER_NONE)
        (void)appendWord(end, ROLLOVER_NONE_WORD);
    for (const RolloverWord &row : ROLLOVER_WORDS) {
        if ((mode & row.mode) == 0)
            continue;
        if (*buffer != '\0' && row.mode != ZOLTLOG_ROLLOVER_FILE_SIZE)
            end = appendWord(end, ROLLOVER_SEPARATOR);
        end = appendWord(end, row.word);
    }
    return buffer;
}
