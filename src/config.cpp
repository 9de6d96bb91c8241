// The configuration record: life cycle, accessors, rollover modes as text.
//
// Reading it from the files is config_read.cpp's, writing config_write.cpp's, the
// dynamic reload config_reload.cpp's; the system-log and permission settings are
// configUnix.cpp's; the values' written forms are config_keys.cpp's.
//
// Sections: life cycle; the ways of changing and reading a field; accessors of
// numbers, of switches, of texts; directory; names and rollover modes.
//
// Nothing here takes the lock: a record belongs to the calling thread.
#include "config.h"

#include "cmn_routines.h"

#include <string.h>

static_assert(offsetof(LogCfg, productId) < offsetof(LogCfg, originatorId) &&
              offsetof(LogCfg, originatorId) < offsetof(LogCfg, debugLevel) &&
              offsetof(LogCfg, debugLevel) < offsetof(LogCfg, diagLevel) &&
              offsetof(LogCfg, diagLevel) < offsetof(LogCfg, secureAuditLevel) &&
              offsetof(LogCfg, secureAuditLevel) < offsetof(LogCfg, outputFlags) &&
              offsetof(LogCfg, outputFlags) < offsetof(LogCfg, directory) &&
              offsetof(LogCfg, directory) < offsetof(LogCfg, permissions) &&
              offsetof(LogCfg, permissions) < offsetof(LogCfg, maxFileSizeKB) &&
              offsetof(LogCfg, maxFileSizeKB) < offsetof(LogCfg, rolloverMode) &&
              offsetof(LogCfg, rolloverMode) < offsetof(LogCfg, rolloverPeriod) &&
              offsetof(LogCfg, rolloverPeriod) < offsetof(LogCfg, rolloverTime) &&
              offsetof(LogCfg, rolloverTime) < offsetof(LogCfg, numberOfLogFiles) &&
              offsetof(LogCfg, numberOfLogFiles) < offsetof(LogCfg, logRecycling) &&
              offsetof(LogCfg, logRecycling) < offsetof(LogCfg, oslog) &&
              offsetof(LogCfg, oslog) < offsetof(LogCfg, productShortNames) &&
              offsetof(LogCfg, productShortNames) < offsetof(LogCfg, originatorNames) &&
              offsetof(LogCfg, originatorNames) < offsetof(LogCfg, l10nLib) &&
              offsetof(LogCfg, l10nLib) < offsetof(LogCfg, l10nResource) &&
              offsetof(LogCfg, l10nResource) < offsetof(LogCfg, l10nResourceDir) &&
              offsetof(LogCfg, l10nResourceDir) < offsetof(LogCfg, changedMask) &&
              offsetof(LogCfg, changedMask) < offsetof(LogCfg, removedMask) &&
              offsetof(LogCfg, removedMask) < offsetof(LogCfg, reloadInterval) &&
              offsetof(LogCfg, reloadInterval) < offsetof(LogCfg, logsetName) &&
              offsetof(LogCfg, logsetName) < offsetof(LogCfg, isLogset) &&
              offsetof(LogCfg, isLogset) < offsetof(LogCfg, logsetFilename) &&
              offsetof(LogCfg, logsetFilename) < offsetof(LogCfg, appMsgLogging) &&
              offsetof(LogCfg, appMsgLogging) < offsetof(LogCfg, logsetOidAppMsgLogging) &&
              offsetof(LogCfg, logsetOidAppMsgLogging) < offsetof(LogCfg, logsetOidDebugLogging) &&
              offsetof(LogCfg, logsetOidDebugLogging) < offsetof(LogCfg, logsetOidDiagLogging));

static const uint32_t DEFAULT_PERMISSIONS = 0660;
static const uint64_t DEFAULT_MAX_FILE_SIZE_KB = 10240;
static const uint64_t DEFAULT_ROLLOVER_PERIOD = 43200;
static const uint32_t NO_SETTING = 0xFFFFFFFF; // result of the permission setting's two operations
static const uint32_t SHORT_NAMES_SELECTOR = 263;

// ---- life cycle ----------------------------------------------------------------------

// The texts that a record owns.
static char *LogCfg::*const OWNED_TEXTS[] = {&LogCfg::l10nLib,
                                             &LogCfg::l10nResource,
                                             &LogCfg::l10nResourceDir,
                                             &LogCfg::logsetName,
                                             &LogCfg::logsetFilename,
                                             &LogCfg::logsetOidAppMsgLogging,
                                             &LogCfg::logsetOidDebugLogging,
                                             &LogCfg::logsetOidDiagLogging};

static char *LogCfg::*const COPIED_TEXTS[] = {&LogCfg::l10nLib, &LogCfg::l10nResource,
                                              &LogCfg::l10nResourceDir};

uint32_t InitLogCfg(uint64_t productId, uint64_t originatorId, const char *logsetName, LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    LogOwned<char> name(zoltLogSafeStrdup(logsetName));
    LogOwned<char> fileName(zoltLogSafeStrdup(logsetName));
    memset(cfg, 0, sizeof *cfg);
    cfg->productId = productId;
    cfg->originatorId = originatorId;
    cfg->maxFileSizeKB = DEFAULT_MAX_FILE_SIZE_KB;
    cfg->rolloverPeriod = DEFAULT_ROLLOVER_PERIOD;
    cfg->numberOfLogFiles = ZOLTLOG_KEEP_ALL_FILES;
    cfg->appMsgLogging = 1;
    (void)CopyFileSecuritySetting(&cfg->permissions, DEFAULT_PERMISSIONS);
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

// KEPT: recycling, reload interval, everything of a log set and the secure audit level are
// left out. Pinned by Config.CopyLeavesOutWhatItIsToldTo.
uint32_t CopyCfg(LogCfg *destination, const LogCfg *source) {
    if (destination == nullptr || source == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    memset(destination, 0, sizeof *destination);
    destination->productId = source->productId;
    destination->originatorId = source->originatorId;
    destination->debugLevel = source->debugLevel;
    destination->diagLevel = source->diagLevel;
    destination->appMsgLogging = source->appMsgLogging;
    destination->outputFlags = source->outputFlags;
    destination->numberOfLogFiles = source->numberOfLogFiles;
    destination->maxFileSizeKB = source->maxFileSizeKB;
    destination->rolloverMode = source->rolloverMode;
    destination->rolloverPeriod = source->rolloverPeriod;
    destination->rolloverTime = source->rolloverTime;
    cfgCopyText(destination->directory, sizeof destination->directory, source->directory);
    cfgCopyText(destination->originatorNames, sizeof destination->originatorNames, source->originatorNames);
    cfgCopyText(destination->productShortNames, sizeof destination->productShortNames,
                source->productShortNames);
    (void)CopyFileSecuritySetting(&destination->permissions, source->permissions.mode);
    (void)osLogCopyCfg(&destination->oslog, &source->oslog);
    for (char *LogCfg::*text : COPIED_TEXTS) {
        destination->*text = zoltLogSafeStrdup(source->*text);
        if (destination->*text == nullptr && source->*text != nullptr) {
            (void)zoltLogFreeCfg(destination);
            return ZOLTLOG_NO_MEMORY;
        }
    }
    return ZOLTLOG_OK;
}

uint32_t zoltLogFreeCfg(LogCfg *cfg) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)FreeFileSecuritySetting(&cfg->permissions);
    for (char *LogCfg::*text : OWNED_TEXTS)
        zoltLogFree(cfg->*text);
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

// ---- the ways of changing and reading a field --------------------------------------------

void cfgCopyText(char *field, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memmove(field, text, length);
    field[length] = '\0';
}

static uint32_t changed(LogCfg *cfg, CfgKeyId id) {
    cfg->changedMask |= CFG_KEYS[id].mask;
    return ZOLTLOG_OK;
}

static uint32_t setNumber(LogCfg *cfg, CfgKeyId id, uint64_t value) {
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
static uint32_t getNumber(LogCfg *cfg, CfgKeyId id, T *out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = *cfgField<T>(cfg, id);
    return ZOLTLOG_OK;
}

static uint32_t setSwitch(LogCfg *cfg, CfgKeyId id, bool on) {
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
static uint32_t setText(LogCfg *cfg, CfgKeyId id, const char *text) {
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

static uint32_t getText(LogCfg *cfg, CfgKeyId id, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const char *text = *cfgField<char *>(cfg, id);
    *out = zoltLogSafeStrdup(text);
    return text != nullptr && *out == nullptr ? ZOLTLOG_NO_MEMORY : ZOLTLOG_OK;
}

// ---- numbers ---------------------------------------------------------------------------

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

uint32_t zoltLogCfgSetMaxFileSize(LogCfg *cfg, uint64_t kilobytes) {
    return setNumber(cfg, CFG_KEY_MAX_FILE_SIZE, kilobytes);
}

uint32_t zoltLogCfgGetMaxFileSize(LogCfg *cfg, uint64_t *kilobytes) {
    return getNumber(cfg, CFG_KEY_MAX_FILE_SIZE, kilobytes);
}

uint32_t zoltLogCfgSetRolloverPeriod(LogCfg *cfg, uint64_t seconds) {
    return setNumber(cfg, CFG_KEY_ROLLOVER_PERIOD, seconds);
}

uint32_t zoltLogCfgGetRolloverPeriod(LogCfg *cfg, uint64_t *seconds) {
    return getNumber(cfg, CFG_KEY_ROLLOVER_PERIOD, seconds);
}

uint32_t zoltLogCfgSetRolloverTime(LogCfg *cfg, uint64_t seconds) {
    return setNumber(cfg, CFG_KEY_ROLLOVER_TIME, seconds);
}

uint32_t zoltLogCfgGetRolloverTime(LogCfg *cfg, uint64_t *seconds) {
    return getNumber(cfg, CFG_KEY_ROLLOVER_TIME, seconds);
}

uint32_t zoltLogCfgSetNumberOfLogFiles(LogCfg *cfg, uint64_t count) {
    return setNumber(cfg, CFG_KEY_NUMBER_OF_FILES, count);
}

uint32_t zoltLogCfgGetNumberOfLogFiles(LogCfg *cfg, uint64_t *count) {
    return getNumber(cfg, CFG_KEY_NUMBER_OF_FILES, count);
}

uint32_t zoltLogCfgSetDebugLevel(LogCfg *cfg, uint32_t level) {
    return setNumber(cfg, CFG_KEY_DEBUG_LEVEL, level);
}

uint32_t zoltLogCfgGetDebugLevel(LogCfg *cfg, uint32_t *level) {
    return getNumber(cfg, CFG_KEY_DEBUG_LEVEL, level);
}

uint32_t zoltLogCfgSetDiagLevel(LogCfg *cfg, uint32_t level) {
    return setNumber(cfg, CFG_KEY_DIAG_LEVEL, level);
}

uint32_t zoltLogCfgGetDiagLevel(LogCfg *cfg, uint32_t *level) {
    return getNumber(cfg, CFG_KEY_DIAG_LEVEL, level);
}

uint32_t zoltLogCfgSetDynaSetting(LogCfg *cfg, uint32_t seconds) {
    return setNumber(cfg, CFG_KEY_RELOAD, seconds);
}

uint32_t zoltLogCfgGetDynaSetting(LogCfg *cfg, uint32_t *seconds) {
    return getNumber(cfg, CFG_KEY_RELOAD, seconds);
}

// ---- switches ------------------------------------------------------------------------------

uint32_t zoltLogCfgEnableLogRecycling(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_RECYCLE, true);
}

uint32_t zoltLogCfgDisableLogRecycling(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_RECYCLE, false);
}

// KEPT: these two mark every setting but the directory as changed. Pinned by
// Config.AppMsgLoggingMarksEverythingButTheDirectory.
uint32_t zoltLogCfgEnableAppMsgLogging(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_APP_MSG, true);
}

uint32_t zoltLogCfgDisableAppMsgLogging(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_APP_MSG, false);
}

uint32_t zoltLogCfgEnableLogToStdout(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_STDOUT, true);
}

uint32_t zoltLogCfgDisableLogToStdout(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_STDOUT, false);
}

uint32_t zoltLogCfgEnableLogToStderr(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_STDERR, true);
}

uint32_t zoltLogCfgDisableLogToStderr(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_STDERR, false);
}

uint32_t zoltLogCfgEnableLogToOslog(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_OSLOG, true);
}

uint32_t zoltLogCfgDisableLogToOslog(LogCfg *cfg) {
    return setSwitch(cfg, CFG_KEY_OSLOG, false);
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

// ---- texts -----------------------------------------------------------------------------------

uint32_t zoltLogCfgSetL10nLib(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_L10N_LIB, text);
}

uint32_t zoltLogCfgGetL10nLib(LogCfg *cfg, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    if (cfg->l10nLib == nullptr || zoltLogOs_getLibName(cfg->l10nLib, out) != 0)
        return ZOLTLOG_NO_MEMORY;
    return ZOLTLOG_OK;
}

uint32_t zoltLogCfgSetL10nResource(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_L10N_RESOURCE, text);
}

uint32_t zoltLogCfgGetL10nResource(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_L10N_RESOURCE, out);
}

uint32_t zoltLogCfgSetL10nResourceDir(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_L10N_DIR, text);
}

uint32_t zoltLogCfgGetL10nResourceDir(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_L10N_DIR, out);
}

uint32_t zoltLogCfgSetLogsetFilename(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_FILE_NAME, text);
}

uint32_t zoltLogCfgGetLogsetFilename(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_FILE_NAME, out);
}

uint32_t zoltLogCfgSetLogsetOIDappMsgLogging(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_OIDS_APP_MSG, text);
}

uint32_t zoltLogCfgGetLogsetOIDOIDappMsgLogging(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_OIDS_APP_MSG, out);
}

uint32_t zoltLogCfgSetLogsetOIDDebugLogging(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_OIDS_DEBUG, text);
}

uint32_t zoltLogCfgGetLogsetOIDDebugLogging(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_OIDS_DEBUG, out);
}

uint32_t zoltLogCfgSetLogsetOIDDiagLogging(LogCfg *cfg, const char *text) {
    return setText(cfg, CFG_KEY_OIDS_DIAG, text);
}

uint32_t zoltLogCfgGetLogsetOIDDiagLogging(LogCfg *cfg, char **out) {
    return getText(cfg, CFG_KEY_OIDS_DIAG, out);
}

// ---- directory ---------------------------------------------------------------------------------

uint32_t zoltLogCfgSetDirectory(LogCfg *cfg, const char *path, char *destination) {
    if (cfg == nullptr || path == nullptr || *path == '\0')
        return ZOLTLOG_INVALID_ARGUMENT;
    if (destination == nullptr)
        destination = cfg->directory;
    if (destination < cfg->directory || destination >= cfg->directory + sizeof cfg->directory)
        return ZOLTLOG_INVALID_ARGUMENT;
    const auto room = static_cast<size_t>(cfg->directory + sizeof cfg->directory - destination);
    char directory[sizeof cfg->directory]; // the path may lie in the field itself
    size_t length = 0;
    for (const char *from = path; *from != '\0'; ++from) {
        if (length + 1 >= room)
            return ZOLTLOG_INVALID_ARGUMENT;
        if (from[0] == '\\' && from[1] == '\\')
            ++from;
        directory[length++] = *from;
    }
    if (directory[length - 1] != '/') {
        if (length + 1 >= room)
            return ZOLTLOG_INVALID_ARGUMENT;
        directory[length++] = '/';
    }
    memcpy(destination, directory, length);
    destination[length] = '\0';
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
    const bool ofProduct = (selector & 0xFFFFU) == SHORT_NAMES_SELECTOR;
    char names[sizeof cfg->originatorNames];
    cfgCopyText(names, sizeof names, ofProduct ? cfg->productShortNames : cfg->originatorNames);
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
static const RolloverWord ROLLOVER_WORDS[] = {{ZOLTLOG_ROLLOVER_FILE_SIZE, "FileSize"},
                                              {ZOLTLOG_ROLLOVER_LOCAL_TIME, "LocalTime"},
                                              {ZOLTLOG_ROLLOVER_PERIODIC, "Periodic"}};
static const char ROLLOVER_NONE_WORD[] = "None";
static const char ROLLOVER_SEPARATOR[] = " | ";

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

// The caller's buffer has room for every form (ROLLOVER_TEXT_SIZE of the writers is ample).
static char *appendWord(char *end, const char *word) {
    const size_t length = strlen(word);
    memcpy(end, word, length + 1);
    return end + length;
}

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
