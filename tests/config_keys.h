// SPDX-License-Identifier: Apache-2.0
// The configuration keys as their format has them, for the tests of record, reading and
// writing: what belongs to a key stands here once, in three lists. A new key gets its rows here.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "zoltlog.h"

namespace config_keys {

inline std::string shown(const char *text) {
    return text != nullptr ? text : "(null)";
}

struct Key {
    const char *name;
    uint32_t bit; // of the masks
    bool readOriginator, readLogset, writeOriginator, writeLogset;
    std::string (*field)(const LogCfg &cfg); // of a record
    void (*set)(LogCfg *cfg);                // a value to be written
    const char *written;                     // this value in the file
    const char *initial;                     // that of a new record there; null: not written
};

#define FIELD(text) [](const LogCfg &cfg) -> std::string { return text; }
#define SET(statement) [](LogCfg *cfg) { statement; }

// In the order of reading.
inline const Key KEYS[] = {
    {"LogDirectory", 0x1, true, true, true, true, FIELD(cfg.directory),
     SET(zoltLogCfgSetDirectory(cfg, "/d", nullptr)), "/d/", nullptr},
    {"OIDNames", 0x2, true, true, true, true, FIELD(cfg.originatorNames),
     SET(std::snprintf(cfg->originatorNames, sizeof cfg->originatorNames, "names")), "names", ""},
    {"L10nLib", 0x4, true, false, true, false, FIELD(shown(cfg.l10nLib)),
     SET(zoltLogCfgSetL10nLib(cfg, "lib")), "lib", nullptr},
    {"L10nResource", 0x8, true, false, true, false, FIELD(shown(cfg.l10nResource)),
     SET(zoltLogCfgSetL10nResource(cfg, "res")), "res", nullptr},
    {"L10nResourceDir", 0x10, true, false, true, false, FIELD(shown(cfg.l10nResourceDir)),
     SET(zoltLogCfgSetL10nResourceDir(cfg, "dir")), "dir", nullptr},
    {"DebugLevel", 0x20, true, true, true, true, FIELD(std::to_string(cfg.debugLevel)),
     SET(cfg->debugLevel = 3), "3", "0"},
    {"DiagnosticLevel", 0x40, true, true, true, true, FIELD(std::to_string(cfg.diagLevel)),
     SET(cfg->diagLevel = 4), "4", "0"},
    {"DynaReloadInSec", 0x4000000, true, true, true, true, FIELD(std::to_string(cfg.reloadInterval)),
     SET(cfg->reloadInterval = 90), "90", "0"},
    {"LogToStdout", 0x80, true, true, true, true, FIELD(std::to_string(cfg.outputFlags & 1U)),
     SET(cfg->outputFlags |= ZOLTLOG_OUT_STDOUT), "true", "false"},
    {"LogToStderr", 0x100, true, true, true, true, FIELD(std::to_string(cfg.outputFlags & 2U)),
     SET((void)cfg), "false", "false"},
    {"LogToOslog", 0x200, true, true, true, true, FIELD(std::to_string(cfg.outputFlags & 4U)), SET((void)cfg),
     "false", "false"},
    {"FileName", 0x8000000, false, true, false, true, FIELD(shown(cfg.logsetFilename)), SET((void)cfg),
     nullptr, nullptr},
    {"AppMsgLogging", 0x7FFFFFFE, true, true, true, true, FIELD(std::to_string(cfg.appMsgLogging)),
     SET((void)cfg), "ON", "ON"},
    {"OIDAppMsgLogging", 0x10000000, true, true, false, true, FIELD(shown(cfg.logsetOidAppMsgLogging)),
     SET(zoltLogCfgSetLogsetOIDappMsgLogging(cfg, "1,2")), "1,2", nullptr},
    {"OIDDebugLogging", 0x20000000, true, true, false, true, FIELD(shown(cfg.logsetOidDebugLogging)),
     SET(zoltLogCfgSetLogsetOIDDebugLogging(cfg, "3")), "3", nullptr},
    {"OIDDiagLogging", 0x40000000, true, true, false, true, FIELD(shown(cfg.logsetOidDiagLogging)),
     SET(zoltLogCfgSetLogsetOIDDiagLogging(cfg, "4")), "4", nullptr},
    {"RolloverMode", 0x400, true, true, true, true, FIELD(std::to_string(cfg.rolloverMode)),
     SET(cfg->rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE | ZOLTLOG_ROLLOVER_PERIODIC), "FileSize | Periodic",
     "None"},
    {"LogRecycle", 0x1000000, true, true, true, true, FIELD(std::to_string(cfg.logRecycling)),
     SET(cfg->logRecycling = 1), "true", "false"},
    {"MaxLogFileSizeKB", 0x800, true, true, true, true, FIELD(std::to_string(cfg.maxFileSizeKB)),
     SET(cfg->maxFileSizeKB = 20), "20", "10240"},
    {"RolloverAtLocalTime", 0x1000, true, true, true, true, FIELD(std::to_string(cfg.rolloverTime)),
     SET(cfg->rolloverTime = 3660), "01:01", "00:00"},
    {"RolloverPeriodInSeconds", 0x2000, true, true, true, true, FIELD(std::to_string(cfg.rolloverPeriod)),
     SET(cfg->rolloverPeriod = 60), "60", "43200"},
    {"NumberOfLogFiles", 0x4000, true, true, true, true, FIELD(std::to_string(cfg.numberOfLogFiles)),
     SET(cfg->numberOfLogFiles = 9), "9", "4294967295"},
    {"SyslogIdent", 0x40000, true, true, true, true,
     FIELD(std::string(cfg.oslog.ident, strnlen(cfg.oslog.ident, sizeof cfg.oslog.ident))),
     SET(std::snprintf(cfg->oslog.ident, sizeof cfg->oslog.ident, "me")), "me", "Qorvanix"},
    {"SyslogOpt", 0x80000, true, true, true, true, FIELD(std::to_string(cfg.oslog.option)),
     SET(cfg->oslog.option = 5), "5", "0"},
    {"SyslogFacility", 0x100000, true, true, true, true, FIELD(std::to_string(cfg.oslog.facility)),
     SET(cfg->oslog.facility = 128), "LOG_LOCAL0", "LOG_USER"},
    {"LogFilePermissions", 0x200000, true, true, true, true, FIELD(std::to_string(cfg.permissions.mode)),
     SET(cfg->permissions.mode = 0640), "640", "660"},
};

#undef FIELD
#undef SET

// In the order of writing.
inline const char *const WRITTEN[] = {
    "LogDirectory",
    "OIDNames",
    "L10nLib",
    "L10nResource",
    "L10nResourceDir",
    "DebugLevel",
    "DiagnosticLevel",
    "DynaReloadInSec",
    "LogToStdout",
    "LogToStderr",
    "LogToOslog",
    "RolloverMode",
    "LogRecycle",
    "MaxLogFileSizeKB",
    "RolloverAtLocalTime",
    "RolloverPeriodInSeconds",
    "NumberOfLogFiles",
    "AppMsgLogging",
    "OIDAppMsgLogging",
    "OIDDebugLogging",
    "OIDDiagLogging",
    "FileName",
    "SyslogIdent",
    "SyslogOpt",
    "SyslogFacility",
    "LogFilePermissions",
};

inline const Key &keyOf(std::string_view name) {
    for (const Key &key : KEYS)
        if (name == key.name)
            return key;
    std::fprintf(stderr, "%.*s is no key\n", static_cast<int>(name.size()), name.data());
    std::abort();
}

// A record with a value of each key, none marked as changed.
inline void setAll(LogCfg *cfg) {
    for (const Key &key : KEYS)
        key.set(cfg);
    cfg->changedMask = 0;
}

struct Value {
    const char *key;
    std::string text, field;
};

// What each value in the file makes of a fresh record.
inline const Value VALUES[] = {
    {"LogDirectory", "/var/log/x", "/var/log/x/"},
    {"LogDirectory", "/abs/", "/abs/"},
    {"LogDirectory", "/a\\\\b", "/a\\b/"},
    {"LogDirectory", "", ""},
    {"OIDNames", "vol, volume", "vol, volume"},
    {"OIDNames", "", ""},
    {"OIDNames", std::string(399, 'n'), std::string(399, 'n')},
    {"L10nLib", "libx", "libx"},
    {"L10nLib", "", "(null)"},
    {"L10nLib", "   ", "(null)"},
    {"L10nResource", "res", "res"},
    {"L10nResource", "", "(null)"},
    {"L10nResourceDir", "/r", "/r"},
    {"L10nResourceDir", "", "(null)"},
    {"DebugLevel", "6", "6"},
    {"DebugLevel", "0", "0"},
    {"DebugLevel", "7", "0"},
    {"DebugLevel", "4294967297", "0"},
    {"DebugLevel", "-1", "0"},
    {"DebugLevel", "x", "0"},
    {"DiagnosticLevel", "6", "6"},
    {"DiagnosticLevel", "7", "0"},
    {"DynaReloadInSec", "2147483647", "2147483647"},
    {"DynaReloadInSec", "2147483648", "0"},
    {"DynaReloadInSec", "4294967296", "0"},
    {"LogToStdout", "true", "1"},
    {"LogToStdout", "TRUE", "0"},
    {"LogToStderr", "true", "2"},
    {"LogToStderr", "1", "0"},
    {"LogToOslog", "true", "4"},
    {"LogToOslog", "false", "0"},
    {"AppMsgLogging", "ON", "1"},
    {"AppMsgLogging", "on", "0"},
    {"AppMsgLogging", "ON ", "0"},
    {"AppMsgLogging", "ON\r", "0"},
    {"AppMsgLogging", "true", "0"},
    {"AppMsgLogging", "", "0"},
    {"OIDAppMsgLogging", "1,2", "1,2"},
    {"OIDAppMsgLogging", "", "(null)"},
    {"OIDDebugLogging", "3", "3"},
    {"OIDDebugLogging", "", "(null)"},
    {"OIDDiagLogging", "4", "4"},
    {"OIDDiagLogging", "", "(null)"},
    {"RolloverMode", "FileSize | Periodic", "5"},
    {"RolloverMode", "LocalTime", "2"},
    {"RolloverMode", "nonsense", "0"},
    {"LogRecycle", "true", "1"},
    {"LogRecycle", "yes", "0"},
    {"MaxLogFileSizeKB", "1", "1"},
    {"MaxLogFileSizeKB", "0", "10240"},
    {"MaxLogFileSizeKB", "-1", "18446744073709551615"},
    {"RolloverAtLocalTime", "23:59", "86340"},
    {"RolloverAtLocalTime", "0:0", "0"},
    {"RolloverAtLocalTime", "1:01", "3660"},
    {"RolloverAtLocalTime", " 1: 1", "3660"},
    {"RolloverAtLocalTime", "01:01:30", "3660"},
    {"RolloverPeriodInSeconds", "60", "60"},
    {"RolloverPeriodInSeconds", "0", "43200"},
    {"NumberOfLogFiles", "3", "3"},
    {"NumberOfLogFiles", "0", "4294967295"},
    {"SyslogIdent", "me", "me"},
    {"SyslogIdent", std::string(100, 'i'), std::string(80, 'i')},
    {"SyslogIdent", "", ""},
    {"SyslogOpt", "3", "3"},
    {"SyslogOpt", "4294967299", "3"},
    {"SyslogFacility", "LOG_LOCAL0", "128"},
    {"SyslogFacility", "log_local0", "0"},
    {"LogFilePermissions", "644", "420"},
    {"LogFilePermissions", "777", "511"},
    {"LogFilePermissions", "755", "432"},
    {"LogFilePermissions", "600", "432"},
};

} // namespace config_keys
