// SPDX-License-Identifier: Apache-2.0
// The configuration keys: one row each. The record's defaults, its copies, the accessors,
// reading, both writers, qdlogcfg, its manual page and the list in docs/format-config.md
// are made from or checked against this table.
//
// Sections: what the columns mean; the rows; the order of writing; values between a file
// and a record; fields of their own
// kind; the other names of the files.
#pragma once

#include "zoltlog.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// ---- what the columns mean ---------------------------------------------------------

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
    CFG_LISTS = CFG_READ_ORIGINATOR | CFG_LOGSET, // read in both, written for log sets
    CFG_UNUSED = 16                               // held and handed out, but nothing follows it
};

// What the documents and the tool say of a key that nothing follows.
inline constexpr char CFG_UNUSED_NOTE[] = "nothing follows it today";

enum CfgCopying : uint8_t { CFG_COPIED, CFG_LEFT_OUT }; // by CopyCfg

inline constexpr uint64_t CFG_LEVEL_MAX = ZOLTLOG_LEVEL_LAST;
inline constexpr uint64_t CFG_RELOAD_MAX = 0x7FFFFFFF;
inline constexpr uint64_t CFG_NO_MAX = UINT64_MAX;
inline constexpr uint32_t CFG_ALL_BUT_DIRECTORY = 0x7FFFFFFE; // mask bits
inline constexpr uint64_t CFG_UNSET = 0;                      // initial: no text
inline constexpr uint64_t CFG_BY_SINK = 0;                    // initial: osLogInitCfg decides
inline constexpr char CFG_NAME_LIST[] = "originator names separated by commas";

// ---- the rows ----------------------------------------------------------------------

// Rows stand in the order of reading.
//
// field    of LogCfg
// mask     bits of the changed and removed masks: the key is meant when any is set
// initial  number that the field starts with; that of FileName is the log set's name
// access   accessors that config.cpp makes, of this name: TEXT, NUMBER32, NUMBER64 (Set and
//          Get), SWITCH (Enable and Disable); BY_HAND: whatever there is stands there itself
// values   what may be written, for people
// help     what the setting does, for people
//
// clang-format off
//      id               name                       kind             field                   mask                   lowest              highest         initial                 copied        use                          access    of
#define CFG_KEY_TABLE(ROW)                                                                                                                                                                                                      \
    ROW(DIRECTORY,       "LogDirectory",            CFG_DIRECTORY,   directory,              0x1,                   0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "a path; a relative one lies below the inherited directory", "directory of the log files")                                                                                                                              \
    ROW(NAMES,           "OIDNames",                CFG_NAMES,       originatorNames,        0x2,                   0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "names separated by commas or blanks", "names of the originator or log set")                                                                                                                                            \
    ROW(L10N_LIB,        "L10nLib",                 CFG_TEXT,        l10nLib,                0x4,                   0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_COPIED,   CFG_ORIGINATOR | CFG_UNUSED, BY_HAND,  none,    \
        "a library's base name", "message-catalogue library")                                                                                                                                                                   \
    ROW(L10N_RESOURCE,   "L10nResource",            CFG_TEXT,        l10nResource,           0x8,                   0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_COPIED,   CFG_ORIGINATOR | CFG_UNUSED, TEXT,     L10nResource, \
        "a name", "message-catalogue resource")                                                                                                                                                                                 \
    ROW(L10N_DIR,        "L10nResourceDir",         CFG_TEXT,        l10nResourceDir,        0x10,                  0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_COPIED,   CFG_ORIGINATOR | CFG_UNUSED, TEXT,     L10nResourceDir, \
        "a path", "directory of the message catalogue")                                                                                                                                                                         \
    ROW(DEBUG_LEVEL,     "DebugLevel",              CFG_NUMBER32,    debugLevel,             0x20,                  0,                  CFG_LEVEL_MAX,  0,                      CFG_COPIED,   CFG_BOTH,                    NUMBER32, DebugLevel, \
        "0 to 6", "highest debug level that is written")                                                                                                                                                                        \
    ROW(DIAG_LEVEL,      "DiagnosticLevel",         CFG_NUMBER32,    diagLevel,              0x40,                  0,                  CFG_LEVEL_MAX,  0,                      CFG_COPIED,   CFG_BOTH,                    NUMBER32, DiagLevel, \
        "0 to 6", "highest diagnostic level that is written")                                                                                                                                                                   \
    ROW(RELOAD,          "DynaReloadInSec",         CFG_NUMBER32,    reloadInterval,         0x4000000,             0,                  CFG_RELOAD_MAX, 0,                      CFG_LEFT_OUT, CFG_BOTH,                    NUMBER32, DynaSetting, \
        "seconds below 2^31; 0 never, at least 60 otherwise", "how often open handles look for changed levels")                                                                                                                 \
    ROW(STDOUT,          "LogToStdout",             CFG_FLAG,        outputFlags,            0x80,                  ZOLTLOG_OUT_STDOUT, 0,              0,                      CFG_COPIED,   CFG_BOTH,                    SWITCH,   LogToStdout, \
        "true or false", "copy messages to standard output")                                                                                                                                                                    \
    ROW(STDERR,          "LogToStderr",             CFG_FLAG,        outputFlags,            0x100,                 ZOLTLOG_OUT_STDERR, 0,              0,                      CFG_COPIED,   CFG_BOTH,                    SWITCH,   LogToStderr, \
        "true or false", "copy messages to standard error")                                                                                                                                                                     \
    ROW(OSLOG,           "LogToOslog",              CFG_FLAG,        outputFlags,            0x200,                 ZOLTLOG_OUT_OSLOG,  0,              0,                      CFG_COPIED,   CFG_BOTH,                    SWITCH,   LogToOslog, \
        "true or false", "copy messages to the system log")                                                                                                                                                                     \
    ROW(FILE_NAME,       "FileName",                CFG_TEXT,        logsetFilename,         0x8000000,             0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_LEFT_OUT, CFG_LOGSET,                  TEXT,     LogsetFilename, \
        "a name without '-' and '/', not a number", "base name of the log set's files")                                                                                                                                         \
    ROW(APP_MSG,         "AppMsgLogging",           CFG_ON_OFF,      appMsgLogging,          CFG_ALL_BUT_DIRECTORY, 0,                  1,              1,                      CFG_COPIED,   CFG_BOTH | CFG_UNUSED,       SWITCH,   AppMsgLogging, \
        "ON or OFF", "whether application messages are written")                                                                                                                                                                \
    ROW(OIDS_APP_MSG,    "OIDAppMsgLogging",        CFG_TEXT,        logsetOidAppMsgLogging, 0x10000000,            0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_LEFT_OUT, CFG_LISTS | CFG_UNUSED,      BY_HAND,  none,    \
        CFG_NAME_LIST, "originators of application messages")                                                                                                                                                                   \
    ROW(OIDS_DEBUG,      "OIDDebugLogging",         CFG_TEXT,        logsetOidDebugLogging,  0x20000000,            0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_LEFT_OUT, CFG_LISTS | CFG_UNUSED,      TEXT,     LogsetOIDDebugLogging, \
        CFG_NAME_LIST, "originators of debug messages")                                                                                                                                                                         \
    ROW(OIDS_DIAG,       "OIDDiagLogging",          CFG_TEXT,        logsetOidDiagLogging,   0x40000000,            0,                  CFG_NO_MAX,     CFG_UNSET,              CFG_LEFT_OUT, CFG_LISTS | CFG_UNUSED,      TEXT,     LogsetOIDDiagLogging, \
        CFG_NAME_LIST, "originators of diagnostic messages")                                                                                                                                                                    \
    ROW(ROLLOVER_MODE,   "RolloverMode",            CFG_ROLLOVER,    rolloverMode,           0x400,                 0,                  CFG_NO_MAX,     ZOLTLOG_ROLLOVER_NONE,  CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "None, FileSize, LocalTime, Periodic, FileSize | LocalTime or FileSize | Periodic", "when a new file is started")                                                                                                       \
    ROW(RECYCLE,         "LogRecycle",              CFG_BOOLEAN,     logRecycling,           0x1000000,             0,                  1,              0,                      CFG_LEFT_OUT, CFG_BOTH,                    SWITCH,   LogRecycling, \
        "true or false", "remove surplus files at rollover")                                                                                                                                                                    \
    ROW(MAX_FILE_SIZE,   "MaxLogFileSizeKB",        CFG_NUMBER64,    maxFileSizeKB,          0x800,                 1,                  CFG_NO_MAX,     10240,                  CFG_COPIED,   CFG_BOTH,                    NUMBER64, MaxFileSize, \
        "kilobytes, 1 or more", "size at which a file is full")                                                                                                                                                                 \
    ROW(ROLLOVER_TIME,   "RolloverAtLocalTime",     CFG_DAY_TIME,    rolloverTime,           0x1000,                0,                  CFG_NO_MAX,     0,                      CFG_COPIED,   CFG_BOTH,                    NUMBER64, RolloverTime, \
        "HH:MM", "local time of the daily rollover")                                                                                                                                                                            \
    ROW(ROLLOVER_PERIOD, "RolloverPeriodInSeconds", CFG_NUMBER64,    rolloverPeriod,         0x2000,                1,                  CFG_NO_MAX,     43200,                  CFG_COPIED,   CFG_BOTH,                    NUMBER64, RolloverPeriod, \
        "seconds, 1 or more", "time between periodic rollovers")                                                                                                                                                                \
    ROW(NUMBER_OF_FILES, "NumberOfLogFiles",        CFG_NUMBER64,    numberOfLogFiles,       0x4000,                1,                  CFG_NO_MAX,     ZOLTLOG_KEEP_ALL_FILES, CFG_COPIED,   CFG_BOTH,                    NUMBER64, NumberOfLogFiles, \
        "1 or more", "how many files of a series are kept")                                                                                                                                                                     \
    ROW(OSLOG_IDENT,     "SyslogIdent",             CFG_IDENT,       oslog.ident,            0x40000,               0,                  CFG_NO_MAX,     CFG_BY_SINK,            CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "at most 80 bytes", "identity in the system log")                                                                                                                                                                       \
    ROW(OSLOG_OPTION,    "SyslogOpt",               CFG_OPTION,      oslog.option,           0x80000,               0,                  UINT32_MAX,     CFG_BY_SINK,            CFG_LEFT_OUT, CFG_BOTH,                    BY_HAND,  none,    \
        "a number", "option bits of openlog")                                                                                                                                                                                   \
    ROW(OSLOG_FACILITY,  "SyslogFacility",          CFG_FACILITY,    oslog.facility,         0x100000,              0,                  CFG_NO_MAX,     CFG_BY_SINK,            CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "a name such as LOG_USER or LOG_LOCAL0", "facility in the system log")                                                                                                                                                  \
    ROW(PERMISSIONS,     "LogFilePermissions",      CFG_PERMISSIONS, permissions.mode,       0x200000,              0,                  CFG_NO_MAX,     0660,                   CFG_COPIED,   CFG_BOTH,                    BY_HAND,  none,    \
        "octal digits such as 640, 644, 660 or 664", "permissions of new log files")
// clang-format on

enum CfgKeyId : uint8_t {
#define CFG_KEY_ID(id, ...) CFG_KEY_##id,
    CFG_KEY_TABLE(CFG_KEY_ID)
#undef CFG_KEY_ID
        CFG_KEY_COUNT
};

struct CfgKey {
    const char *name;
    CfgKind kind;
    uint16_t field; // offset in LogCfg
    uint32_t mask;
    uint64_t lowest, highest, initial;
    CfgCopying copied;
    uint8_t use; // CfgUse bits
    const char *values;
    const char *help;
};

inline constexpr CfgKey CFG_KEYS[] = {
#define CFG_KEY_ROW(id, name, kind, field, mask, lowest, highest, initial, copied, use, access, of, values,  \
                    help)                                                                                    \
    {name, kind, offsetof(LogCfg, field), mask, lowest, highest, initial, copied, use, values, help},
    CFG_KEY_TABLE(CFG_KEY_ROW)
#undef CFG_KEY_ROW
};
static_assert(sizeof CFG_KEYS / sizeof *CFG_KEYS == CFG_KEY_COUNT);

// ---- the order of writing ------------------------------------------------------------

// A log set's FileName comes between the two parts, and ends the call when it is written.
inline constexpr CfgKeyId CFG_WRITTEN[] = {
    CFG_KEY_DIRECTORY,       CFG_KEY_NAMES,         CFG_KEY_L10N_LIB,      CFG_KEY_L10N_RESOURCE,
    CFG_KEY_L10N_DIR,        CFG_KEY_DEBUG_LEVEL,   CFG_KEY_DIAG_LEVEL,    CFG_KEY_RELOAD,
    CFG_KEY_STDOUT,          CFG_KEY_STDERR,        CFG_KEY_OSLOG,         CFG_KEY_ROLLOVER_MODE,
    CFG_KEY_RECYCLE,         CFG_KEY_MAX_FILE_SIZE, CFG_KEY_ROLLOVER_TIME, CFG_KEY_ROLLOVER_PERIOD,
    CFG_KEY_NUMBER_OF_FILES, CFG_KEY_APP_MSG,       CFG_KEY_OIDS_APP_MSG,  CFG_KEY_OIDS_DEBUG,
    CFG_KEY_OIDS_DIAG,
};
// Those of osGetCfgSettings and osSetCfgSettings.
inline constexpr CfgKeyId CFG_WRITTEN_LAST[] = {
    CFG_KEY_OSLOG_IDENT,
    CFG_KEY_OSLOG_OPTION,
    CFG_KEY_OSLOG_FACILITY,
    CFG_KEY_PERMISSIONS,
};

// Every key that is written for anyone stands in one place of the order, the others in none.
constexpr bool cfgOrderIsComplete() {
    for (uint8_t id = 0; id < CFG_KEY_COUNT; ++id) {
        int places = id == CFG_KEY_FILE_NAME ? 1 : 0;
        for (const CfgKeyId written : CFG_WRITTEN)
            places += written == id ? 1 : 0;
        for (const CfgKeyId written : CFG_WRITTEN_LAST)
            places += written == id ? 1 : 0;
        const bool isWritten = (CFG_KEYS[id].use & (CFG_WRITE_ORIGINATOR | CFG_WRITE_LOGSET)) != 0;
        if (places != (isWritten ? 1 : 0))
            return false;
    }
    return true;
}
static_assert(cfgOrderIsComplete(), "a key is missing in the order of writing, or stands there twice");

// ---- values between a file and a record (config_keys.cpp) -----------------------------

// What became of a value. The record is changed by the last two only, of which one that
// does not judge tells the last.
enum CfgTaken : uint8_t {
    CFG_NO_MEMORY,
    CFG_SKIPPED, // not valid: what the record holds stays
    CFG_LOOSELY, // taken, but it says something else too: "3:30pm", "yes" as false, a text cut
    CFG_EXACTLY
};

// The value is taken as it stands in the file. Texts of the other kinds are converted from
// UTF-8 first and lose the spaces at their end.
constexpr bool cfgIsRaw(CfgKind kind) {
    return kind == CFG_NUMBER32 || kind == CFG_NUMBER64 || kind == CFG_OPTION || kind == CFG_FLAG ||
           kind == CFG_BOOLEAN || kind == CFG_ON_OFF;
}

// What one value of a section leaves for another, and where the section stands.
struct CfgSectionState {
    bool isBase;          // a directory replaces the inherited one whatever it begins with
    unsigned long number; // that of "SyslogOpt", for a "LogFilePermissions" that is none
    bool isJudged;        // CFG_LOOSELY is told apart from CFG_EXACTLY
};

// Fills a record's field from a value; the masks stay. Only this way do files set fields.
CfgTaken cfgTake(LogCfg *cfg, CfgKeyId id, const char *value, CfgSectionState *state);

// Room for what cfgShow makes of a key that holds no text: 20 digits, or rollover modes.
inline constexpr size_t CFG_SHOWN_SIZE = 256;

// The value of a field as it would be written, in the locale's encoding: the field's own
// text or buffer. Null for a text that is not set and a facility without a name.
const char *cfgShow(const LogCfg *cfg, CfgKeyId id, char buffer[CFG_SHOWN_SIZE]);

// ---- fields that are more than a number or a text; the masks stay ------------------------

// As zoltLogCfgSetDirectory; false when the path is empty or does not fit.
inline bool cfgPutDirectory(LogCfg *cfg, const char *path, char *destination) {
    if (*path == '\0' || destination < cfg->directory ||
        destination >= cfg->directory + sizeof cfg->directory)
        return false;
    const auto room = static_cast<size_t>(cfg->directory + sizeof cfg->directory - destination);
    char directory[sizeof cfg->directory]; // the path may lie in the field itself
    size_t length = 0;
    for (const char *from = path; *from != '\0'; ++from) {
        if (length + 1 >= room)
            return false;
        if (from[0] == '\\' && from[1] == '\\')
            ++from;
        directory[length++] = *from;
    }
    if (directory[length - 1] != '/') {
        if (length + 1 >= room)
            return false;
        directory[length++] = '/';
    }
    memcpy(destination, directory, length);
    destination[length] = '\0';
    return true;
}

// A copy of at most 80 bytes, zeros behind it; one of 80 has no terminator.
inline void cfgPutIdent(LogCfg *cfg, const char *ident) {
    const size_t length = strnlen(ident, sizeof cfg->oslog.ident);
    memmove(cfg->oslog.ident, ident, length);
    memset(cfg->oslog.ident + length, 0, sizeof cfg->oslog.ident - length);
}

// Whether a number may be a log file's permissions.
// KEPT: the decimal digits of the number are tested as if they were the octal ones, so 0755
// and 0600 are refused. Pinned by ConfigUnix.PermissionsAreTestedByTheirDecimalDigits.
constexpr bool cfgIsMode(uint64_t mode) {
    return mode < 778 && mode % 100 <= 79 && mode % 10 <= 7;
}

// ---- the other names of the files ------------------------------------------------------

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
