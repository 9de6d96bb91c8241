// The table of configuration keys: one row each. Reading, both writers, the accessors
// of config.cpp and the tests go through it.
#pragma once

#include "zoltlog.h"

#include <stddef.h>

// How a key's value is written and what field it fills.
enum CfgKind : uint8_t {
    CFG_DIRECTORY,   // text; joined to the directory inherited, see zoltLogCfgSetDirectory
    CFG_NAMES,       // text of a fixed field; an empty value is skipped
    CFG_TEXT,        // text, owned; an empty value is skipped
    CFG_NUMBER32,    // unsigned decimal, skipped outside lowest..highest
    CFG_NUMBER64,    // the same
    CFG_FLAG,        // "true" or "false", a bit of the output flags: lowest
    CFG_BOOLEAN,     // "true" or "false"
    CFG_ON_OFF,      // "ON"; whatever else is off
    CFG_ROLLOVER,    // "None" or rollover modes joined by " | "
    CFG_DAY_TIME,    // hours:minutes, seconds after midnight
    CFG_IDENT,       // text of at most 80 bytes, maybe without a terminator
    CFG_OPTION,      // unsigned decimal, cut to 32 bits
    CFG_FACILITY,    // name of a system-log facility
    CFG_PERMISSIONS, // octal digits
};

enum CfgUse : uint8_t { // where a key is read and written
    CFG_READ_ORIGINATOR = 1,
    CFG_READ_LOGSET = 2,
    CFG_WRITE_ORIGINATOR = 4,
    CFG_WRITE_LOGSET = 8,
    CFG_ORIGINATOR = CFG_READ_ORIGINATOR | CFG_WRITE_ORIGINATOR,
    CFG_LOGSET = CFG_READ_LOGSET | CFG_WRITE_LOGSET,
    CFG_BOTH = CFG_ORIGINATOR | CFG_LOGSET,
    CFG_LISTS = CFG_READ_ORIGINATOR | CFG_LOGSET // read in both, written for log sets
};

inline constexpr uint64_t CFG_LEVEL_MAX = 6;
inline constexpr uint64_t CFG_RELOAD_MAX = 0x7FFFFFFF;
inline constexpr uint64_t CFG_NO_MAX = UINT64_MAX;
inline constexpr uint32_t CFG_ALL_BUT_DIRECTORY = 0x7FFFFFFE; // mask bits

// Rows stand in the order of reading. The last column is the place among the keys
// written; the four system-log and permission keys are written last, in this order.
//
// clang-format off
//      id               name                       kind             field                   mask bits              lowest              highest         use             written
#define CFG_KEY_TABLE(ROW)                                                                                                                                                  \
    ROW(DIRECTORY,       "LogDirectory",            CFG_DIRECTORY,   directory,              0x1,                   0,                  CFG_NO_MAX,     CFG_BOTH,       1)  \
    ROW(NAMES,           "OIDNames",                CFG_NAMES,       originatorNames,        0x2,                   0,                  CFG_NO_MAX,     CFG_BOTH,       2)  \
    ROW(L10N_LIB,        "L10nLib",                 CFG_TEXT,        l10nLib,                0x4,                   0,                  CFG_NO_MAX,     CFG_ORIGINATOR, 3)  \
    ROW(L10N_RESOURCE,   "L10nResource",            CFG_TEXT,        l10nResource,           0x8,                   0,                  CFG_NO_MAX,     CFG_ORIGINATOR, 4)  \
    ROW(L10N_DIR,        "L10nResourceDir",         CFG_TEXT,        l10nResourceDir,        0x10,                  0,                  CFG_NO_MAX,     CFG_ORIGINATOR, 5)  \
    ROW(DEBUG_LEVEL,     "DebugLevel",              CFG_NUMBER32,    debugLevel,             0x20,                  0,                  CFG_LEVEL_MAX,  CFG_BOTH,       6)  \
    ROW(DIAG_LEVEL,      "DiagnosticLevel",         CFG_NUMBER32,    diagLevel,              0x40,                  0,                  CFG_LEVEL_MAX,  CFG_BOTH,       7)  \
    ROW(RELOAD,          "DynaReloadInSec",         CFG_NUMBER32,    reloadInterval,         0x4000000,             0,                  CFG_RELOAD_MAX, CFG_BOTH,       8)  \
    ROW(STDOUT,          "LogToStdout",             CFG_FLAG,        outputFlags,            0x80,                  ZOLTLOG_OUT_STDOUT, 0,              CFG_BOTH,       9)  \
    ROW(STDERR,          "LogToStderr",             CFG_FLAG,        outputFlags,            0x100,                 ZOLTLOG_OUT_STDERR, 0,              CFG_BOTH,       10) \
    ROW(OSLOG,           "LogToOslog",              CFG_FLAG,        outputFlags,            0x200,                 ZOLTLOG_OUT_OSLOG,  0,              CFG_BOTH,       11) \
    ROW(FILE_NAME,       "FileName",                CFG_TEXT,        logsetFilename,         0x8000000,             0,                  CFG_NO_MAX,     CFG_LOGSET,     22) \
    ROW(APP_MSG,         "AppMsgLogging",           CFG_ON_OFF,      appMsgLogging,          CFG_ALL_BUT_DIRECTORY, 0,                  1,              CFG_BOTH,       18) \
    ROW(OIDS_APP_MSG,    "OIDAppMsgLogging",        CFG_TEXT,        logsetOidAppMsgLogging, 0x10000000,            0,                  CFG_NO_MAX,     CFG_LISTS,      19) \
    ROW(OIDS_DEBUG,      "OIDDebugLogging",         CFG_TEXT,        logsetOidDebugLogging,  0x20000000,            0,                  CFG_NO_MAX,     CFG_LISTS,      20) \
    ROW(OIDS_DIAG,       "OIDDiagLogging",          CFG_TEXT,        logsetOidDiagLogging,   0x40000000,            0,                  CFG_NO_MAX,     CFG_LISTS,      21) \
    ROW(ROLLOVER_MODE,   "RolloverMode",            CFG_ROLLOVER,    rolloverMode,           0x400,                 0,                  CFG_NO_MAX,     CFG_BOTH,       12) \
    ROW(RECYCLE,         "LogRecycle",              CFG_BOOLEAN,     logRecycling,           0x1000000,             0,                  1,              CFG_BOTH,       13) \
    ROW(MAX_FILE_SIZE,   "MaxLogFileSizeKB",        CFG_NUMBER64,    maxFileSizeKB,          0x800,                 1,                  CFG_NO_MAX,     CFG_BOTH,       14) \
    ROW(ROLLOVER_TIME,   "RolloverAtLocalTime",     CFG_DAY_TIME,    rolloverTime,           0x1000,                0,                  CFG_NO_MAX,     CFG_BOTH,       15) \
    ROW(ROLLOVER_PERIOD, "RolloverPeriodInSeconds", CFG_NUMBER64,    rolloverPeriod,         0x2000,                1,                  CFG_NO_MAX,     CFG_BOTH,       16) \
    ROW(NUMBER_OF_FILES, "NumberOfLogFiles",        CFG_NUMBER64,    numberOfLogFiles,       0x4000,                1,                  CFG_NO_MAX,     CFG_BOTH,       17) \
    ROW(OSLOG_IDENT,     "SyslogIdent",             CFG_IDENT,       oslog.ident,            0x40000,               0,                  CFG_NO_MAX,     CFG_BOTH,       23) \
    ROW(OSLOG_OPTION,    "SyslogOpt",               CFG_OPTION,      oslog.option,           0x80000,               0,                  CFG_NO_MAX,     CFG_BOTH,       24) \
    ROW(OSLOG_FACILITY,  "SyslogFacility",          CFG_FACILITY,    oslog.facility,         0x100000,              0,                  CFG_NO_MAX,     CFG_BOTH,       25) \
    ROW(PERMISSIONS,     "LogFilePermissions",      CFG_PERMISSIONS, permissions.mode,       0x200000,              0,                  CFG_NO_MAX,     CFG_BOTH,       26)
// clang-format on

enum CfgKeyId : uint8_t {
#define CFG_KEY_ID(id, name, kind, field, mask, lowest, highest, use, written) CFG_KEY_##id,
    CFG_KEY_TABLE(CFG_KEY_ID)
#undef CFG_KEY_ID
        CFG_KEY_COUNT
};

struct CfgKey {
    const char *name;
    CfgKind kind;
    uint16_t field; // offset in LogCfg
    uint32_t mask;  // bits of the changed and removed masks: the key is meant when any is set
    uint64_t lowest, highest;
    uint8_t use;     // CfgUse bits
    uint8_t written; // place among the keys written, from 1
};

inline constexpr CfgKey CFG_KEYS[] = {
#define CFG_KEY_ROW(id, name, kind, field, mask, lowest, highest, use, written)                              \
    {name, kind, offsetof(LogCfg, field), mask, lowest, highest, use, written},
    CFG_KEY_TABLE(CFG_KEY_ROW)
#undef CFG_KEY_ROW
};
static_assert(sizeof CFG_KEYS / sizeof *CFG_KEYS == CFG_KEY_COUNT);

// Keys of the main configuration file.
inline constexpr char CFG_CONFIGURATION[] = "Configuration"; // of a product: location of its file
inline constexpr char CFG_PRODUCT_NAMES[] = "Names";
inline constexpr char CFG_PRODUCT_APP_MSG[] = "AppMsgLogging"; // boolean
inline constexpr char CFG_TOOLS_SECTION[] = "LoggingTools";
inline constexpr char CFG_TOOLS_RESOURCE_DIR[] = "L10nResourceDir";

// Section names of a product file.
inline constexpr char CFG_DEFAULT[] = "Default";      // of the default originator and log set
inline constexpr char CFG_FILE_MARK[] = ".conf";      // in a location that is a file
inline constexpr char CFG_LOGSET_FILE[] = "\\LOGSET"; // appended to any other location
