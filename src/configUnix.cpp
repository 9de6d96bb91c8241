// SPDX-License-Identifier: Apache-2.0
// System-log settings and log file permissions: accessors and facility names.
#include "config.h"

#include "cmn_routines.h"

#include <cstring>

struct FacilityName {
    const char *name;
    uint32_t facility;
};

namespace {

const FacilityName FACILITIES[] = {
    {"LOG_KERN", 0},     {"LOG_USER", 8},     {"LOG_MAIL", 16},    {"LOG_DAEMON", 24},  {"LOG_AUTH", 32},
    {"LOG_LPR", 48},     {"LOG_NEWS", 56},    {"LOG_UUCP", 64},    {"LOG_CRON", 72},    {"LOG_LOCAL0", 128},
    {"LOG_LOCAL1", 136}, {"LOG_LOCAL2", 144}, {"LOG_LOCAL3", 152}, {"LOG_LOCAL4", 160}, {"LOG_LOCAL5", 168},
    {"LOG_LOCAL6", 176}, {"LOG_LOCAL7", 184},
};

} // namespace

uint32_t strToFacility(const char *name) {
    if (name != nullptr) {
        for (const FacilityName &row : FACILITIES) {
            if (strcmp(row.name, name) == 0)
                return row.facility;
        }
    }
    return 0;
}

const char *facilityToStr(uint32_t facility) {
    for (const FacilityName &row : FACILITIES) {
        if (row.facility == facility)
            return row.name;
    }
    return nullptr;
}

namespace {

// ---- accessors ---------------------------------------------------------------------------

uint32_t changed(LogCfg *cfg, CfgKeyId id) {
    cfg->changedMask |= CFG_KEYS[id].mask;
    return ZOLTLOG_OK;
}

} // namespace

uint32_t zoltLogCfgSetSyslogFacility(LogCfg *cfg, uint32_t facility) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->oslog.facility = facility;
    return changed(cfg, CFG_KEY_OSLOG_FACILITY);
}

uint32_t zoltLogCfgGetSyslogFacility(LogCfg *cfg, uint32_t *facility) {
    if (cfg == nullptr || facility == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *facility = cfg->oslog.facility;
    return ZOLTLOG_OK;
}

uint32_t zoltLogCfgSetSyslogOpt(LogCfg *cfg, uint32_t option) {
    if (cfg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->oslog.option = option;
    return changed(cfg, CFG_KEY_OSLOG_OPTION);
}

uint32_t zoltLogCfgGetSyslogOpt(LogCfg *cfg, uint32_t *option) {
    if (cfg == nullptr || option == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *option = cfg->oslog.option;
    return ZOLTLOG_OK;
}

// An identity of 80 bytes and more fills the field and leaves it without a terminator.
uint32_t zoltLogCfgSetSyslogIdent(LogCfg *cfg, const char *ident) {
    if (cfg == nullptr || ident == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    cfgPutIdent(cfg, ident);
    return changed(cfg, CFG_KEY_OSLOG_IDENT);
}

uint32_t zoltLogCfgGetSyslogIdent(LogCfg *cfg, char **out) {
    if (cfg == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char ident[sizeof cfg->oslog.ident + 1] = "";
    memcpy(ident, cfg->oslog.ident, strnlen(cfg->oslog.ident, sizeof cfg->oslog.ident));
    *out = zoltLogSafeStrdup(ident);
    return *out != nullptr ? ZOLTLOG_OK : ZOLTLOG_NO_MEMORY;
}

uint32_t zoltLogCfgSetLogFilePermissions(LogCfg *cfg, uint64_t mode) {
    if (cfg == nullptr || !cfgIsMode(mode))
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg->permissions.mode = static_cast<uint32_t>(mode);
    return changed(cfg, CFG_KEY_PERMISSIONS);
}

uint32_t zoltLogCfgGetLogFilePermissions(LogCfg *cfg, uint64_t *mode) {
    if (cfg == nullptr || mode == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *mode = cfg->permissions.mode;
    return ZOLTLOG_OK;
}
