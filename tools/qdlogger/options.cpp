#include "options.h"

#include <charconv>
#include <vector>

#include "common/fields.h"
#include "common/option_table.h"

namespace qdlogger {

namespace {

// ---- values ----------------------------------------------------------------------

bool number(const std::string &value, uint64_t from, uint64_t to, uint64_t &out, std::string &error) {
    const char *const end = value.data() + value.size();
    const auto [stop, failure] = std::from_chars(value.data(), end, out);
    if (failure == std::errc() && stop == end && out >= from && out <= to)
        return true;
    error = "'" + value + "' is not a number from " + std::to_string(from) + " to " + std::to_string(to);
    return false;
}

bool number32(const std::string &value, uint64_t from, uint64_t to, std::optional<uint32_t> &out,
              std::string &error) {
    uint64_t parsed = 0;
    if (!number(value, from, to, parsed, error))
        return false;
    out = static_cast<uint32_t>(parsed);
    return true;
}

bool notEmpty(const std::string &value, std::string &out, std::string &error) {
    if (value.empty()) {
        error = "it must not be empty";
        return false;
    }
    out = value;
    return true;
}

constexpr const char *kinds[] = {"app", "diag", "debug", "audit"};

// Also the full names, as in the other tools
bool setKind(Settings &settings, const char *value, std::string &error) {
    uint32_t kind = 0;
    if (tools::parseKind(value, kind) && (kind == ZOLTLOG_MSG_APP || kind == ZOLTLOG_MSG_DIAG ||
                                          kind == ZOLTLOG_MSG_DEBUG || kind == ZOLTLOG_MSG_AUDIT)) {
        settings.kind = kind;
        return true;
    }
    error = std::string("'") + value + "' is none of app, diag, debug, audit";
    return false;
}

bool setSeverity(Settings &settings, const char *value, std::string &error) {
    int32_t severity = 0;
    if (!tools::parseSeverity(value, severity) || severity < 0 || severity > ZOLTLOG_SEVERITY_EMERGENCY) {
        error = std::string("'") + value + "' is none of info, warning, error, critical, emergency, 0 to 4";
        return false;
    }
    settings.severity = static_cast<uint32_t>(severity);
    return true;
}

bool setId(Settings &settings, const char *value, std::string &error) {
    uint64_t parsed = 0;
    if (!number(value, 0, UINT64_MAX, parsed, error))
        return false;
    settings.id = parsed;
    return true;
}

template<std::optional<std::string> Settings::*Field>
bool setText(Settings &settings, const char *value, std::string &) {
    settings.*Field = value;
    return true;
}
template<uint32_t Flag>
bool addOutput(Settings &settings, const char *, std::string &) {
    settings.outputFlags |= Flag;
    return true;
}
template<bool Settings::*Field>
bool setFlag(Settings &settings, const char *, std::string &) {
    return settings.*Field = true;
}

// ---- the table ---------------------------------------------------------------------

const tools::Option<Settings> options[] = {
    {'p', "product", "PRODUCT", "the product, by id or name (required)",
     [](Settings &s, const char *v, std::string &e) { return notEmpty(v, s.product, e); }, "Where to"},
    {'o', "originator", "ORIGINATOR", "its component, by id or name (default 112, the default originator)",
     [](Settings &s, const char *v, std::string &e) { return notEmpty(v, s.originator, e); }},
    {'l', "logset", "NAME", "write to the files of this log set", setText<&Settings::logset>},
    {0, "stdout", nullptr, "copies to standard output, by the formatter plug-in (not of audit)",
     addOutput<ZOLTLOG_OUT_STDOUT>},
    {0, "stderr", nullptr, "copies to standard error (app and diag)", addOutput<ZOLTLOG_OUT_STDERR>},
    {0, "syslog", nullptr, "copies to the system log (app)", addOutput<ZOLTLOG_OUT_OSLOG>},
    {'c', "config", "FILE", "main configuration file (default ZOLTLOG_CFG_LOC, else\n/etc/qd/zoltlog.conf)",
     setText<&Settings::config>},
    {'k', "kind", "KIND", "app (default), diag, debug or audit", setKind, "What"},
    {'s', "severity", "SEVERITY", "of app: info (default), warning, error, critical, emergency,\nor 0 to 4",
     setSeverity},
    {'L', "level", "LEVEL",
     "of diag and debug: 1 (default) to 6; messages above the configured\nlevel are not written",
     [](Settings &s, const char *v, std::string &e) {
         return number32(v, ZOLTLOG_LEVEL_FIRST, ZOLTLOG_LEVEL_LAST, s.level, e);
     }},
    {'w', "who", "TEXT", "of app, diag and debug: the reporting component", setText<&Settings::who>},
    {'i', "id", "NUMBER", "message id (default: the messages are numbered)", setId},
    {'x', "context", "TOKEN", "open a context with this token for the messages", setText<&Settings::context>},
    {0, "subject", "TEXT", "of audit: who did it", setText<&Settings::subject>},
    {0, "outcome", "NUMBER", "of audit: how it ended (default 0)",
     [](Settings &s, const char *v, std::string &e) { return number32(v, 0, UINT32_MAX, s.outcome, e); }},
    {0, "utf8", nullptr, "the input is UTF-8, whatever the locale", setFlag<&Settings::utf8>},
    {'h', "help", nullptr, "show this help", setFlag<&Settings::help>, "Other"},
    {'V', "version", nullptr, "show the version", setFlag<&Settings::version>},
    {0, "complete", "WHAT", "what a shell can complete: options, kinds, severities",
     [](Settings &s, const char *v, std::string &e) { return notEmpty(v, s.complete, e); }},
};

// What is wrong with the options together, or ""
std::string contradiction(const Settings &settings) {
    const bool app = settings.kind == ZOLTLOG_MSG_APP;
    const bool audit = settings.kind == ZOLTLOG_MSG_AUDIT;
    if (settings.product.empty())
        return "--product is required";
    if (settings.severity && !app)
        return "--severity is for app messages";
    if (settings.level && (app || audit))
        return "--level is for diag and debug messages";
    if (settings.who && audit)
        return "--who is not for audit messages, which have a --subject";
    if ((settings.subject || settings.outcome) && !audit)
        return "--subject and --outcome are for audit messages";
    return "";
}

} // namespace

bool parse(int argc, char **argv, Settings &settings, std::string &error) {
    std::vector<std::string> words;
    if (!tools::parseOptions(options, argc, argv, settings, words, error))
        return false;
    if (settings.help || settings.version || !settings.complete.empty())
        return true;
    for (const std::string &word : words)
        settings.message = settings.message ? *settings.message + " " + word : word;
    error = contradiction(settings);
    return error.empty();
}

std::string helpText() {
    std::string text =
        "Usage: qdlogger --product=PRODUCT [OPTION]... [MESSAGE]...\n"
        "Sends messages to the logs of a product: the words of the command line as one message,\n"
        "or without words each line of standard input as one message.\n";
    tools::appendHelp(text, options);
    text += "\nExit status: 0 all messages were written, or dropped by their level; 2 wrong usage;\n"
            "3 the configuration, the log or the input cannot be opened or read; 4 some messages\n"
            "were not written.\n";
    return text;
}

std::string completions(const std::string &what) {
    std::string text;
    if (what == "options")
        tools::appendOptionNames(text, options);
    if (what == "kinds")
        for (const char *kind : kinds)
            text += std::string(kind) + "\n";
    if (what == "severities")
        for (int32_t severity = 0; severity <= ZOLTLOG_SEVERITY_EMERGENCY; ++severity)
            text += std::string(tools::severityName(severity)) + "\n";
    return text;
}

} // namespace qdlogger
