// Configuration values between file and record: one function takes a value in, one
// writes it out, for every kind of key of the table in config_keys.h.
#include "config.h"

#include "cmn_routines.h"

#include <stdlib.h>
#include <string.h>

static const size_t ROLLOVER_TEXT_SIZE = 256;
static const size_t DAY_TIME_SIZE = 48; // two 64-bit numbers and a colon
static const size_t OCTAL_SIZE = 16;    // of 32 bits
static const char APP_MSG_ON[] = "ON";
static const char APP_MSG_OFF[] = "OFF";
static const uint64_t SECONDS_PER_HOUR = 3600;
static const uint64_t SECONDS_PER_MINUTE = 60;
static const unsigned long HOURS_PER_DAY = 24;
static const unsigned long MINUTES_PER_HOUR = 60;

void cfgIdText(uint64_t id, char text[CFG_ID_SIZE]) {
    (void)snprintf(text, CFG_ID_SIZE, "%lu", id);
}

// ---- from the file ------------------------------------------------------------------------

static bool isLevelled(const CfgKey *key, unsigned long number) {
    return number >= key->lowest && number <= key->highest;
}

// "hours:minutes", each with blanks and a sign before it at most, anything behind it.
// dayTimeText is the way back.
static bool parseDayTime(const char *text, uint64_t *seconds) {
    char *end = nullptr;
    const auto hours = static_cast<unsigned long>(strtol(text, &end, 10));
    if (end == text || *end != ':')
        return false;
    text = end + 1;
    const auto minutes = static_cast<unsigned long>(strtol(text, &end, 10));
    if (end == text || hours >= HOURS_PER_DAY || minutes >= MINUTES_PER_HOUR)
        return false;
    *seconds = hours * SECONDS_PER_HOUR + minutes * SECONDS_PER_MINUTE;
    return true;
}

static void dayTimeText(uint64_t seconds, char text[DAY_TIME_SIZE]) {
    (void)snprintf(text, DAY_TIME_SIZE, "%02lu:%02lu", seconds / SECONDS_PER_HOUR,
                   seconds % SECONDS_PER_HOUR / SECONDS_PER_MINUTE);
}

static void applyDirectory(LogCfg *cfg, const char *path, bool isDefault) {
    const bool replaces = isDefault || *path == '/';
    (void)zoltLogCfgSetDirectory(
        cfg, path, replaces ? nullptr : cfg->directory + strnlen(cfg->directory, sizeof cfg->directory - 1));
}

static void applyText(LogCfg *cfg, CfgKeyId id, char *text) {
    char **field = cfgField<char *>(cfg, id);
    zoltLogFree(*field);
    *field = text;
}

static void applyTextValue(LogCfg *cfg, CfgKeyId id, LogOwned<char> text, bool isDefault,
                           unsigned long *scratch) {
    uint64_t seconds = 0;
    char *end = nullptr;
    switch (CFG_KEYS[id].kind) {
    case CFG_DIRECTORY:
        applyDirectory(cfg, text.get(), isDefault);
        break;
    case CFG_NAMES:
        if (*text.get() != '\0')
            cfgCopyText(cfgField<char>(cfg, id), sizeof cfg->originatorNames, text.get());
        break;
    case CFG_TEXT:
        if (*text.get() != '\0')
            applyText(cfg, id, text.release());
        break;
    case CFG_ROLLOVER:
        (void)zoltLogCfgSetRolloverMode(cfg, SettingStringToRolloverModeEnum(text.get()));
        break;
    case CFG_DAY_TIME:
        if (parseDayTime(text.get(), &seconds))
            *cfgField<uint64_t>(cfg, id) = seconds;
        break;
    case CFG_IDENT:
        (void)zoltLogCfgSetSyslogIdent(cfg, text.get());
        break;
    case CFG_FACILITY:
        (void)zoltLogCfgSetSyslogFacility(cfg, strToFacility(text.get()));
        break;
    default: { // CFG_PERMISSIONS
        // KEPT: what is no octal number sets what "SyslogOpt" left, or 0. Pinned by
        // ConfigUnix.UnparsablePermissionsSetTheScratchValue.
        const unsigned long mode = strtoul(text.get(), &end, 8);
        if (end != text.get())
            *scratch = mode;
        (void)zoltLogCfgSetLogFilePermissions(cfg, *scratch);
        break;
    }
    }
}

bool cfgApplyValue(LogCfg *cfg, CfgKeyId id, const char *value, bool isDefault, unsigned long *scratch) {
    const CfgKey *key = &CFG_KEYS[id];
    auto *word = cfgField<uint32_t>(cfg, id);
    switch (key->kind) {
    case CFG_NUMBER32:
        if (isLevelled(key, storeValueNumber(value)))
            *word = static_cast<uint32_t>(storeValueNumber(value));
        return true;
    case CFG_NUMBER64:
        if (isLevelled(key, storeValueNumber(value)))
            *cfgField<uint64_t>(cfg, id) = storeValueNumber(value);
        return true;
    case CFG_OPTION:
        *scratch = storeValueNumber(value);
        return zoltLogCfgSetSyslogOpt(cfg, static_cast<uint32_t>(*scratch)) == ZOLTLOG_OK;
    case CFG_FLAG:
        *word = storeValueBool(value) != 0 ? *word | static_cast<uint32_t>(key->lowest)
                                           : *word & ~static_cast<uint32_t>(key->lowest);
        return true;
    case CFG_BOOLEAN:
        *word = storeValueBool(value);
        return true;
    case CFG_ON_OFF: // trailing blanks count here: the raw value is compared
        *word = strcmp(value, APP_MSG_ON) == 0 ? 1 : 0;
        return true;
    default:
        break;
    }
    LogOwned<char> text(storeValueText(value));
    if (text == nullptr)
        return false;
    applyTextValue(cfg, id, static_cast<LogOwned<char> &&>(text), isDefault, scratch);
    return true;
}

// ---- to the file ----------------------------------------------------------------------------

// The text that a text key would write; null when there is none, also for other kinds.
static const char *ownText(const LogCfg *cfg, CfgKeyId id) {
    const char *field = reinterpret_cast<const char *>(cfg) + CFG_KEYS[id].field;
    switch (CFG_KEYS[id].kind) {
    case CFG_DIRECTORY:
    case CFG_NAMES:
        return field;
    case CFG_TEXT: {
        const char *text = nullptr;
        memcpy(&text, field, sizeof text);
        return text;
    }
    default:
        return nullptr;
    }
}

static uint32_t writeNumber(PropertyStore *section, const CfgKey *key, unsigned long number) {
    return utiSetPropertyAsUlong(section, key->name, &number);
}

static uint32_t writeBool(PropertyStore *section, const CfgKey *key, bool on) {
    const uint32_t flag = on ? 1 : 0;
    return utiSetPropertyAsBool(section, key->name, &flag);
}

static uint32_t writeIdent(PropertyStore *section, const CfgKey *key, const OsLogSettings *settings) {
    char ident[sizeof settings->ident + 1];
    cfgCopyText(ident, sizeof ident, ""); // the field may have no terminator
    memcpy(ident, settings->ident, sizeof settings->ident);
    ident[sizeof settings->ident] = '\0';
    return utiSetPropertyAsStr(section, key->name, ident);
}

static uint32_t writeValue(const LogCfg *cfg, CfgKeyId id, PropertyStore *section) {
    const CfgKey *key = &CFG_KEYS[id];
    const char *field = reinterpret_cast<const char *>(cfg) + key->field;
    uint32_t word = 0;
    memcpy(&word, field, sizeof word);
    char text[ROLLOVER_TEXT_SIZE] = "";
    static_assert(DAY_TIME_SIZE <= sizeof text && OCTAL_SIZE <= sizeof text);
    switch (key->kind) {
    case CFG_NUMBER64: {
        uint64_t number = 0;
        memcpy(&number, field, sizeof number);
        return writeNumber(section, key, number);
    }
    case CFG_NUMBER32:
    case CFG_OPTION:
        return writeNumber(section, key, word);
    case CFG_FLAG:
        return writeBool(section, key, (word & key->lowest) != 0);
    case CFG_BOOLEAN:
        return writeBool(section, key, word != 0);
    case CFG_ON_OFF:
        return utiSetPropertyAsStr(section, key->name, word == 1 ? APP_MSG_ON : APP_MSG_OFF);
    case CFG_ROLLOVER:
        return utiSetPropertyAsStr(section, key->name, RolloverModeEnumToSettingString(word, text));
    case CFG_DAY_TIME:
        dayTimeText(cfg->rolloverTime, text);
        return utiSetPropertyAsStr(section, key->name, text);
    case CFG_IDENT:
        return writeIdent(section, key, &cfg->oslog);
    case CFG_FACILITY: // without a name no text is passed, which the store refuses
        return utiSetPropertyAsStr(section, key->name, facilityToStr(word));
    case CFG_PERMISSIONS:
        (void)snprintf(text, sizeof text, "%o", word);
        return utiSetPropertyAsStr(section, key->name, text);
    default:
        return utiSetPropertyAsStr(section, key->name, ownText(cfg, id));
    }
}

static bool isMarked(const LogCfg *cfg, CfgKeyId id) {
    const bool marked = (cfg->changedMask & CFG_KEYS[id].mask) != 0;
    return marked && (CFG_KEYS[id].kind != CFG_TEXT || ownText(cfg, id) != nullptr);
}

// KEPT: "AppMsgLogging" is meant by every bit but the directory's, so each change of another
// setting writes it too. Pinned by ConfigWrite.EveryChangeButTheDirectoryWritesAppMsgLogging.
bool cfgWriteKey(const LogCfg *cfg, CfgKeyId id, PropertyStore *section, uint32_t *result) {
    if ((cfg->removedMask & CFG_KEYS[id].mask) != 0)
        *result = utiRemoveProperty(section, CFG_KEYS[id].name);
    else if (isMarked(cfg, id))
        *result = writeValue(cfg, id, section);
    else
        return false;
    return true;
}

bool cfgHasLineFeed(const LogCfg *cfg, uint8_t use) {
    for (uint8_t i = 0; i < CFG_KEY_COUNT; ++i) {
        const auto id = static_cast<CfgKeyId>(i);
        const CfgKey *key = &CFG_KEYS[id];
        if ((key->use & use) == 0 || (cfg->removedMask & key->mask) != 0 || !isMarked(cfg, id))
            continue;
        const char *text = ownText(cfg, id);
        if (text != nullptr && strchr(text, '\n') != nullptr)
            return true;
        if (key->kind == CFG_IDENT &&
            memchr(cfg->oslog.ident, '\n', strnlen(cfg->oslog.ident, sizeof cfg->oslog.ident)) != nullptr)
            return true;
    }
    return false;
}
