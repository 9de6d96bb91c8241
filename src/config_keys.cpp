// SPDX-License-Identifier: Apache-2.0
// Configuration values between file and record: one function takes a value in, one shows
// it as it is written, for every kind of key of the table in config_keys.h.
//
// The unit uses exported operations and decimal.h only: qdlogcfg has it compiled in, so
// that the tool and the library cannot differ about a value.
#include "config_keys.h"

#include "bounded.h"
#include "decimal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const size_t DAY_TIME_SIZE = 48; // two 64-bit numbers and a colon
const char APP_MSG_ON[] = "ON";
const char APP_MSG_OFF[] = "OFF";
const char TRUE_WORD[] = "true";
const char FALSE_WORD[] = "false";
const uint64_t SECONDS_PER_HOUR = 3600;
const uint64_t SECONDS_PER_MINUTE = 60;
const int64_t HOURS_PER_DAY = 24;
const int64_t MINUTES_PER_HOUR = 60;

template<typename T>
T *fieldOf(LogCfg *cfg, CfgKeyId id) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(cfg) + CFG_KEYS[id].field);
}

template<typename T>
T valueOf(const LogCfg *cfg, CfgKeyId id) {
    T value;
    memcpy(&value, reinterpret_cast<const char *>(cfg) + CFG_KEYS[id].field, sizeof value);
    return value;
}

// Says is asked only when the caller wants to know.
template<typename Says>
CfgTaken exactlyIf(const CfgSectionState *state, Says says) {
    return !state->isJudged || says() ? CFG_EXACTLY : CFG_LOOSELY;
}

bool isDigit(char c, char highest) {
    return c >= '0' && c <= highest;
}

// Nothing but digits, whose number would be written as it is read: without a sign.
bool isPlainNumber(const char *text, unsigned long number) {
    const char *end = text;
    while (isDigit(*end, '9'))
        ++end;
    return end != text && *end == '\0' && number <= INT64_MAX;
}

// "hours:minutes", each with blanks and a sign before it at most, anything behind it.
// dayTimeText is the way back.
bool parseDayTime(const char *text, uint64_t *seconds, bool *exact) {
    const char *at = text;
    int64_t hours = 0;
    int64_t minutes = 0;
    if (!scanSigned(&at, ANY_WIDTH, &hours) || *at != ':')
        return false;
    *exact = isDigit(*text, '9') && isDigit(at[1], '9');
    ++at;
    if (!scanSigned(&at, ANY_WIDTH, &minutes) || hours < 0 || hours >= HOURS_PER_DAY || minutes < 0 ||
        minutes >= MINUTES_PER_HOUR)
        return false;
    *exact = *exact && *at == '\0';
    *seconds =
        static_cast<uint64_t>(hours) * SECONDS_PER_HOUR + static_cast<uint64_t>(minutes) * SECONDS_PER_MINUTE;
    return true;
}

void dayTimeText(uint64_t seconds, char text[DAY_TIME_SIZE]) {
    (void)snprintf(text, DAY_TIME_SIZE, "%02lu:%02lu", seconds / SECONDS_PER_HOUR,
                   seconds % SECONDS_PER_HOUR / SECONDS_PER_MINUTE);
}

// The text with its blanks left out is the mode's own words, in either order.
bool namesModeOnly(const char *text, uint32_t mode) {
    char plain[CFG_SHOWN_SIZE];
    size_t length = 0;
    for (; *text != '\0' && length + 1 < sizeof plain; ++text) {
        if (*text != ' ')
            plain[length++] = *text;
    }
    plain[length] = '\0';
    char shown[CFG_SHOWN_SIZE] = "";
    (void)RolloverModeEnumToSettingString(mode, shown);
    char *bar = strstr(shown, " | ");
    if (bar == nullptr)
        return strcmp(plain, shown) == 0;
    *bar = '\0';
    const char *const words[] = {shown, bar + sizeof " | " - 1};
    for (int first = 0; first < 2; ++first) {
        const size_t size = strlen(words[first]);
        if (strncmp(plain, words[first], size) == 0 && plain[size] == '|' &&
            strcmp(plain + size + 1, words[1 - first]) == 0)
            return true;
    }
    return false;
}

// ---- taking a value in -------------------------------------------------------------------

CfgTaken takeRaw(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state) {
    const CfgKey *key = &CFG_KEYS[id];
    auto *word = fieldOf<uint32_t>(cfg, id);
    if (key->kind == CFG_ON_OFF) { // blanks at the end count
        *word = strcmp(value, APP_MSG_ON) == 0 ? 1 : 0;
        return exactlyIf(state, [=] { return *word == 1 || strcmp(value, APP_MSG_OFF) == 0; });
    }
    if (key->kind == CFG_FLAG || key->kind == CFG_BOOLEAN) {
        const bool on = strcoll(value, TRUE_WORD) == 0;
        const auto flag = static_cast<uint32_t>(key->lowest);
        if (key->kind == CFG_BOOLEAN)
            *word = on ? 1 : 0;
        else
            *word = on ? *word | flag : *word & ~flag;
        return exactlyIf(state, [=] { return on || strcmp(value, FALSE_WORD) == 0; });
    }
    const char *at = value;
    uint64_t number = 0; // without a digit
    (void)scanUnsigned(&at, ANY_WIDTH, &number);
    if (key->kind == CFG_OPTION) {
        state->number = number;
        *word = static_cast<uint32_t>(number);
        return exactlyIf(state, [=] { return isPlainNumber(value, number) && number <= key->highest; });
    }
    if (number < key->lowest || number > key->highest)
        return CFG_SKIPPED;
    if (key->kind == CFG_NUMBER32)
        *word = static_cast<uint32_t>(number);
    else
        *fieldOf<uint64_t>(cfg, id) = number;
    return exactlyIf(state, [=] { return isPlainNumber(value, number); });
}

CfgTaken takeDirectory(LogCfg *cfg, const char *path, bool isBase) {
    char *end = cfg->directory + strnlen(cfg->directory, sizeof cfg->directory - 1);
    return cfgPutDirectory(cfg, path, isBase || *path == '/' ? cfg->directory : end) ? CFG_EXACTLY
                                                                                     : CFG_SKIPPED;
}

CfgTaken takeOwnText(LogCfg *cfg, CfgKeyId id, const char *text) {
    char *copy = zoltLogSafeStrdup(text);
    if (copy == nullptr)
        return CFG_NO_MEMORY;
    char **field = fieldOf<char *>(cfg, id);
    zoltLogFree(*field);
    *field = copy;
    return CFG_EXACTLY;
}

// KEPT: what is no octal number sets what "SyslogOpt" left, or 0. Pinned by
// ConfigUnix.UnparsablePermissionsSetTheScratchValue.
CfgTaken takePermissions(LogCfg *cfg, CfgKeyId id, const char *text, CfgSectionState *state) {
    char *end = nullptr;
    const unsigned long mode = strtoul(text, &end, 8);
    if (end != text)
        state->number = mode;
    if (!cfgIsMode(state->number))
        return CFG_SKIPPED;
    *fieldOf<uint32_t>(cfg, id) = static_cast<uint32_t>(state->number);
    return exactlyIf(state, [=] { return isDigit(*text, '7') && *end == '\0'; });
}

} // namespace

CfgTaken cfgTake(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state) {
    auto *word = fieldOf<uint32_t>(cfg, id);
    bool exact = true;
    switch (CFG_KEYS[id].kind) {
    case CFG_DIRECTORY:
        return takeDirectory(cfg, value, state->isBase);
    case CFG_NAMES:
        if (*value == '\0')
            return CFG_SKIPPED;
        copyBounded(cfg->originatorNames, value);
        return exactlyIf(state, [=] { return strlen(value) < sizeof cfg->originatorNames; });
    case CFG_TEXT:
        return *value != '\0' ? takeOwnText(cfg, id, value) : CFG_SKIPPED;
    case CFG_ROLLOVER:
        *word = SettingStringToRolloverModeEnum(value); // none of the invalid modes
        return exactlyIf(state, [=] { return namesModeOnly(value, *word); });
    case CFG_DAY_TIME:
        if (!parseDayTime(value, fieldOf<uint64_t>(cfg, id), &exact))
            return CFG_SKIPPED;
        return exactlyIf(state, [=] { return exact; });
    case CFG_IDENT:
        cfgPutIdent(cfg, value);
        return exactlyIf(state, [=] { return strlen(value) <= sizeof cfg->oslog.ident; });
    case CFG_FACILITY:
        *word = strToFacility(value);
        return exactlyIf(state, [=] { return strcmp(facilityToStr(*word), value) == 0; });
    case CFG_PERMISSIONS:
        return takePermissions(cfg, id, value, state);
    default:
        return takeRaw(cfg, id, value, state);
    }
}

// ---- showing a value ------------------------------------------------------------------------

const char *cfgShow(const LogCfg *cfg, CfgKeyId id, char buffer[CFG_SHOWN_SIZE]) {
    static_assert(DAY_TIME_SIZE <= CFG_SHOWN_SIZE && sizeof cfg->oslog.ident < CFG_SHOWN_SIZE);
    const CfgKey *key = &CFG_KEYS[id];
    const auto word = valueOf<uint32_t>(cfg, id);
    *buffer = '\0';
    switch (key->kind) {
    case CFG_DIRECTORY:
    case CFG_NAMES:
        return reinterpret_cast<const char *>(cfg) + key->field;
    case CFG_TEXT:
        return valueOf<char *>(cfg, id);
    case CFG_NUMBER64: // as the store writes numbers, which is signed
        (void)snprintf(buffer, CFG_SHOWN_SIZE, "%ld", valueOf<long>(cfg, id));
        break;
    case CFG_NUMBER32:
    case CFG_OPTION:
        (void)snprintf(buffer, CFG_SHOWN_SIZE, "%u", word);
        break;
    case CFG_FLAG:
        return (word & key->lowest) != 0 ? TRUE_WORD : FALSE_WORD;
    case CFG_BOOLEAN:
        return word != 0 ? TRUE_WORD : FALSE_WORD;
    case CFG_ON_OFF:
        return word == 1 ? APP_MSG_ON : APP_MSG_OFF;
    case CFG_ROLLOVER:
        return RolloverModeEnumToSettingString(word, buffer);
    case CFG_DAY_TIME:
        dayTimeText(valueOf<uint64_t>(cfg, id), buffer);
        break;
    case CFG_IDENT: // the field may have no terminator
        copyBounded(buffer, sizeof cfg->oslog.ident + 1, cfg->oslog.ident);
        break;
    case CFG_FACILITY:
        return facilityToStr(word);
    case CFG_PERMISSIONS:
        (void)snprintf(buffer, CFG_SHOWN_SIZE, "%o", word);
        break;
    }
    return buffer;
}
