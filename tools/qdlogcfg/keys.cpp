#include "keys.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace {

bool toNumber(const std::string &text, uint64_t &number) {
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return !text.empty() && parsed.ec == std::errc() && parsed.ptr == end;
}

template<uint32_t (*set)(LogCfg *, uint32_t)>
uint32_t applyNumber32(LogCfg &cfg, const std::string &value) {
    uint64_t number = 0;
    if (!toNumber(value, number) || number > UINT32_MAX)
        return ZOLTLOG_INVALID_ARGUMENT;
    return set(&cfg, static_cast<uint32_t>(number));
}

template<uint32_t (*set)(LogCfg *, uint64_t)>
uint32_t applyNumber64(LogCfg &cfg, const std::string &value) {
    uint64_t number = 0;
    // The store writes numbers as signed; larger ones would come back negative.
    if (!toNumber(value, number) || number > INT64_MAX)
        return ZOLTLOG_INVALID_ARGUMENT;
    return set(&cfg, number);
}

template<uint32_t (*enable)(LogCfg *), uint32_t (*disable)(LogCfg *)>
uint32_t applyBoolean(LogCfg &cfg, const std::string &value) {
    if (value == "true")
        return enable(&cfg);
    return value == "false" ? disable(&cfg) : static_cast<uint32_t>(ZOLTLOG_INVALID_ARGUMENT);
}

template<uint32_t (*set)(LogCfg *, const char *)>
uint32_t applyText(LogCfg &cfg, const std::string &value) {
    return set(&cfg, value.c_str());
}

template<uint32_t flag>
std::string showFlag(LogCfg &cfg) {
    return (cfg.outputFlags & flag) != 0 ? "true" : "false";
}

template<typename T, T LogCfg::*field>
std::string showNumber(LogCfg &cfg) {
    return std::to_string(cfg.*field);
}

template<char *LogCfg::*field>
std::string showText(LogCfg &cfg) {
    return cfg.*field != nullptr ? cfg.*field : "";
}

std::string showDirectory(LogCfg &cfg) {
    return cfg.directory;
}

uint32_t applyDirectory(LogCfg &cfg, const std::string &value) {
    return zoltLogCfgSetDirectory(&cfg, value.c_str(), nullptr);
}

std::string showNames(LogCfg &cfg) {
    return cfg.originatorNames;
}

uint32_t applyNames(LogCfg &cfg, const std::string &value) {
    if (value.empty() || value.size() >= sizeof cfg.originatorNames)
        return ZOLTLOG_INVALID_ARGUMENT;
    value.copy(cfg.originatorNames, value.size());
    cfg.originatorNames[value.size()] = '\0';
    return ZOLTLOG_OK;
}

std::string showMode(LogCfg &cfg) {
    char text[256] = "";
    return RolloverModeEnumToSettingString(cfg.rolloverMode, text);
}

// Only the forms that the library itself writes, with any blanks around the bar.
uint32_t applyMode(LogCfg &cfg, const std::string &value) {
    std::string plain;
    std::copy_if(value.begin(), value.end(), std::back_inserter(plain), [](char c) { return c != ' '; });
    for (const char *form : {"None", "FileSize", "LocalTime", "Periodic", "FileSize|LocalTime",
                             "FileSize|Periodic", "LocalTime|FileSize", "Periodic|FileSize"})
        if (plain == form)
            return zoltLogCfgSetRolloverMode(&cfg, SettingStringToRolloverModeEnum(plain.c_str()));
    return ZOLTLOG_INVALID_ARGUMENT;
}

std::string showTime(LogCfg &cfg) {
    char text[64];
    std::snprintf(text, sizeof text, "%02d:%02d", static_cast<int>(cfg.rolloverTime / 3600),
                  static_cast<int>(cfg.rolloverTime % 3600 / 60));
    return text;
}

uint32_t applyTime(LogCfg &cfg, const std::string &value) {
    const size_t colon = value.find(':');
    uint64_t hours = 0;
    uint64_t minutes = 0;
    if (colon == std::string::npos || !toNumber(value.substr(0, colon), hours) ||
        !toNumber(value.substr(colon + 1), minutes) || hours > 23 || minutes > 59)
        return ZOLTLOG_INVALID_ARGUMENT;
    return zoltLogCfgSetRolloverTime(&cfg, hours * 3600 + minutes * 60);
}

std::string showAppMsgLogging(LogCfg &cfg) {
    return cfg.appMsgLogging == 1 ? "ON" : "OFF";
}

uint32_t applyAppMsgLogging(LogCfg &cfg, const std::string &value) {
    if (value != "ON" && value != "OFF")
        return ZOLTLOG_INVALID_ARGUMENT;
    cfg.appMsgLogging = value == "ON" ? 1 : 0;
    return ZOLTLOG_OK;
}

std::string showRecycling(LogCfg &cfg) {
    return cfg.logRecycling == 1 ? "true" : "false";
}

std::string showIdent(LogCfg &cfg) {
    const char *ident = cfg.oslog.ident; // may fill its field without a terminator
    return {ident, std::find(ident, ident + sizeof cfg.oslog.ident, '\0')};
}

std::string showFacility(LogCfg &cfg) {
    const char *name = facilityToStr(cfg.oslog.facility);
    return name != nullptr ? name : std::to_string(cfg.oslog.facility);
}

uint32_t applyIdent(LogCfg &cfg, const std::string &value) {
    if (value.size() > sizeof cfg.oslog.ident) // the library would cut it
        return ZOLTLOG_INVALID_ARGUMENT;
    return zoltLogCfgSetSyslogIdent(&cfg, value.c_str());
}

uint32_t applyFacility(LogCfg &cfg, const std::string &value) {
    const uint32_t facility = strToFacility(value.c_str());
    if (facility == 0 && value != "LOG_KERN") // the library takes an unknown name for LOG_KERN
        return ZOLTLOG_INVALID_ARGUMENT;
    return zoltLogCfgSetSyslogFacility(&cfg, facility);
}

std::string showPermissions(LogCfg &cfg) {
    char text[32];
    std::snprintf(text, sizeof text, "%o", cfg.permissions.mode);
    return text;
}

uint32_t applyPermissions(LogCfg &cfg, const std::string &value) {
    uint64_t mode = 0;
    const char *end = value.data() + value.size();
    const auto parsed = std::from_chars(value.data(), end, mode, 8);
    if (value.empty() || parsed.ec != std::errc() || parsed.ptr != end)
        return ZOLTLOG_INVALID_ARGUMENT;
    return zoltLogCfgSetLogFilePermissions(&cfg, mode);
}

std::string showSyslogOption(LogCfg &cfg) {
    return std::to_string(cfg.oslog.option);
}

} // namespace

const std::vector<Key> &keys() {
    static const std::vector<Key> table = {
        {"LogDirectory", "a path; a relative one lies below the inherited directory",
         "directory of the log files", true, true, Key::TEXT, showDirectory, applyDirectory, "/a/", "/b/"},
        {"OIDNames", "names separated by commas", "names of the originator or log set", true, true, Key::TEXT,
         showNames, applyNames, "a", "b"},
        {"L10nLib", "a library's base name", "message-catalogue library", true, false, Key::TEXT,
         showText<&LogCfg::l10nLib>, applyText<zoltLogCfgSetL10nLib>, "a", "b"},
        {"L10nResource", "a name", "message-catalogue resource", true, false, Key::TEXT,
         showText<&LogCfg::l10nResource>, applyText<zoltLogCfgSetL10nResource>, "a", "b"},
        {"L10nResourceDir", "a path", "directory of the message catalogue", true, false, Key::TEXT,
         showText<&LogCfg::l10nResourceDir>, applyText<zoltLogCfgSetL10nResourceDir>, "a", "b"},
        {"DebugLevel", "0 to 6", "highest debug level that is written", true, true, Key::NUMBER,
         showNumber<uint32_t, &LogCfg::debugLevel>, applyNumber32<zoltLogCfgSetDebugLevel>, "1", "2"},
        {"DiagnosticLevel", "0 to 6", "highest diagnostic level that is written", true, true, Key::NUMBER,
         showNumber<uint32_t, &LogCfg::diagLevel>, applyNumber32<zoltLogCfgSetDiagLevel>, "1", "2"},
        {"DynaReloadInSec", "seconds; 0 never, at least 60 otherwise",
         "how often open handles look for changed levels", true, true, Key::NUMBER,
         showNumber<uint32_t, &LogCfg::reloadInterval>, applyNumber32<zoltLogCfgSetDynaSetting>, "61", "62"},
        {"LogToStdout", "true or false", "copy messages to standard output", true, true, Key::BOOLEAN,
         showFlag<ZOLTLOG_OUT_STDOUT>,
         applyBoolean<zoltLogCfgEnableLogToStdout, zoltLogCfgDisableLogToStdout>, "true", "false"},
        {"LogToStderr", "true or false", "copy messages to standard error", true, true, Key::BOOLEAN,
         showFlag<ZOLTLOG_OUT_STDERR>,
         applyBoolean<zoltLogCfgEnableLogToStderr, zoltLogCfgDisableLogToStderr>, "true", "false"},
        {"LogToOslog", "true or false", "copy messages to the system log", true, true, Key::BOOLEAN,
         showFlag<ZOLTLOG_OUT_OSLOG>, applyBoolean<zoltLogCfgEnableLogToOslog, zoltLogCfgDisableLogToOslog>,
         "true", "false"},
        {"FileName", "a name without '-' and '/', not a number", "base name of the log set's files", false,
         true, Key::TEXT, showText<&LogCfg::logsetFilename>, applyText<zoltLogCfgSetLogsetFilename>, "a",
         "b"},
        {"AppMsgLogging", "ON or OFF", "whether application messages are written", true, true, Key::TEXT,
         showAppMsgLogging, applyAppMsgLogging, "ON", "OFF"},
        {"OIDAppMsgLogging", "originator names separated by commas", "originators of application messages",
         true, true, Key::TEXT, showText<&LogCfg::logsetOidAppMsgLogging>,
         applyText<zoltLogCfgSetLogsetOIDappMsgLogging>, "a", "b"},
        {"OIDDebugLogging", "originator names separated by commas", "originators of debug messages", true,
         true, Key::TEXT, showText<&LogCfg::logsetOidDebugLogging>,
         applyText<zoltLogCfgSetLogsetOIDDebugLogging>, "a", "b"},
        {"OIDDiagLogging", "originator names separated by commas", "originators of diagnostic messages", true,
         true, Key::TEXT, showText<&LogCfg::logsetOidDiagLogging>,
         applyText<zoltLogCfgSetLogsetOIDDiagLogging>, "a", "b"},
        {"RolloverMode", "None, FileSize, LocalTime, Periodic, FileSize | LocalTime or FileSize | Periodic",
         "when a new file is started", true, true, Key::TEXT, showMode, applyMode, "FileSize", "Periodic"},
        {"LogRecycle", "true or false", "remove surplus files at rollover", true, true, Key::BOOLEAN,
         showRecycling, applyBoolean<zoltLogCfgEnableLogRecycling, zoltLogCfgDisableLogRecycling>, "true",
         "false"},
        {"MaxLogFileSizeKB", "kilobytes, 1 or more", "size at which a file is full", true, true, Key::NUMBER,
         showNumber<uint64_t, &LogCfg::maxFileSizeKB>, applyNumber64<zoltLogCfgSetMaxFileSize>, "11", "12"},
        {"RolloverAtLocalTime", "HH:MM", "local time of the daily rollover", true, true, Key::TEXT, showTime,
         applyTime, "01:01", "02:02"},
        {"RolloverPeriodInSeconds", "seconds, 1 or more", "time between periodic rollovers", true, true,
         Key::NUMBER, showNumber<uint64_t, &LogCfg::rolloverPeriod>,
         applyNumber64<zoltLogCfgSetRolloverPeriod>, "11", "12"},
        {"NumberOfLogFiles", "1 or more", "how many files of a series are kept", true, true, Key::NUMBER,
         showNumber<uint64_t, &LogCfg::numberOfLogFiles>, applyNumber64<zoltLogCfgSetNumberOfLogFiles>, "11",
         "12"},
        {"SyslogIdent", "at most 80 bytes", "identity in the system log", true, true, Key::TEXT, showIdent,
         applyIdent, "a", "b"},
        {"SyslogOpt", "a number", "option bits of openlog", true, true, Key::NUMBER, showSyslogOption,
         applyNumber32<zoltLogCfgSetSyslogOpt>, "1", "2"},
        {"SyslogFacility", "a name such as LOG_USER or LOG_LOCAL0", "facility in the system log", true, true,
         Key::TEXT, showFacility, applyFacility, "LOG_MAIL", "LOG_CRON"},
        {"LogFilePermissions", "octal digits such as 640, 644, 660 or 664", "permissions of new log files",
         true, true, Key::TEXT, showPermissions, applyPermissions, "640", "644"},
    };
    return table;
}

const Key *findKey(std::string_view name) {
    for (const Key &key : keys())
        if (name == key.name)
            return &key;
    return nullptr;
}

std::string nearestKey(std::string_view name) {
    const auto lower = [](std::string_view text) {
        std::string result(text);
        std::transform(result.begin(), result.end(), result.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return result;
    };
    const std::string wanted = lower(name);
    std::string best;
    size_t bestDistance = 4; // more edits than this are another word
    for (const Key &key : keys()) {
        const std::string candidate = lower(key.name);
        std::vector<size_t> row(candidate.size() + 1);
        for (size_t j = 0; j <= candidate.size(); ++j)
            row[j] = j;
        for (size_t i = 1; i <= wanted.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= candidate.size(); ++j) {
                const size_t replaced = diagonal + (wanted[i - 1] == candidate[j - 1] ? 0 : 1);
                diagonal = row[j];
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
            }
        }
        if (row.back() < bestDistance) {
            bestDistance = row.back();
            best = key.name;
        }
    }
    return best;
}
