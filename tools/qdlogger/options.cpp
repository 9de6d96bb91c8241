#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <vector>

#include "common/exit_codes.h"

namespace qdlogger {

namespace {

// ---- values: each gives "" or what is wrong with the value ------------------------

std::string number(const std::string &value, uint64_t from, uint64_t to, uint64_t &out) {
    uint64_t parsed = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
    if (error != std::errc() || end != value.data() + value.size() || parsed < from || parsed > to)
        return "'" + value + "' is not a number from " + std::to_string(from) + " to " + std::to_string(to);
    out = parsed;
    return "";
}

std::string optionalNumber(const std::string &value, uint64_t from, uint64_t to,
                           std::optional<uint32_t> &out) {
    uint64_t parsed = 0;
    std::string error = number(value, from, to, parsed);
    if (error.empty())
        out = static_cast<uint32_t>(parsed);
    return error;
}

constexpr struct {
    const char *name;
    uint32_t kind;
} kinds[] = {{"app", ZOLTLOG_MSG_APP},
             {"diag", ZOLTLOG_MSG_DIAG},
             {"debug", ZOLTLOG_MSG_DEBUG},
             {"audit", ZOLTLOG_MSG_AUDIT}};

std::string setKind(Settings &settings, const std::string &value) {
    for (const auto &row : kinds) {
        if (value == row.name) {
            settings.kind = row.kind;
            return "";
        }
    }
    return "'" + value + "' is none of app, diag, debug, audit";
}

constexpr const char *severities[] = {"info", "warning", "error", "critical", "emergency"};

std::string setSeverity(Settings &settings, const std::string &value) {
    for (uint32_t severity = 0; severity < std::size(severities); ++severity) {
        if (value == severities[severity] || value == std::to_string(severity)) {
            settings.severity = severity;
            return "";
        }
    }
    return "'" + value + "' is none of info, warning, error, critical, emergency, 0 to 4";
}

// ---- the table ----------------------------------------------------------------------

using Setter = std::string (*)(Settings &settings, const std::string &value);

struct Option {
    const char *names; // "-s,--severity"
    const char *value; // what the help calls its value; null: it has none
    const char *help;
    Setter set;
};

const Option options[] = {
    {"-p,--product", "ID", "product id (required)",
     [](Settings &s, const std::string &v) { return number(v, 1, UINT64_MAX, s.product); }},
    {"-o,--originator", "ID", "originator id (default 112, the default originator)",
     [](Settings &s, const std::string &v) { return number(v, 1, UINT64_MAX, s.originator); }},
    {"-l,--logset", "NAME", "write to the files of this log set",
     [](Settings &s, const std::string &v) { return s.logset = v, std::string(); }},
    {"-k,--kind", "KIND", "app (default), diag, debug or audit", setKind},
    {"-s,--severity", "SEVERITY",
     "of application messages: info (default), warning, error, critical, emergency, or 0 to 4", setSeverity},
    {"-L,--level", "LEVEL",
     "of diagnostic and debug messages: 1 (default) to 6; more than the configured level is not written",
     [](Settings &s, const std::string &v) { return optionalNumber(v, 1, 6, s.level); }},
    {"-w,--who", "TEXT", "reporting component of application, diagnostic and debug messages",
     [](Settings &s, const std::string &v) { return s.who = v, std::string(); }},
    {"-i,--id", "NUMBER", "message id (default: the messages are numbered)",
     [](Settings &s, const std::string &v) {
         uint64_t parsed = 0;
         std::string error = number(v, 0, UINT64_MAX, parsed);
         if (error.empty())
             s.id = parsed;
         return error;
     }},
    {"-c,--context", "TOKEN", "open a context of this token for the messages",
     [](Settings &s, const std::string &v) { return s.context = v, std::string(); }},
    {"--subject", "TEXT", "of audit messages: who did it",
     [](Settings &s, const std::string &v) { return s.subject = v, std::string(); }},
    {"--outcome", "NUMBER", "of audit messages: how it ended (default 0)",
     [](Settings &s, const std::string &v) { return optionalNumber(v, 0, UINT32_MAX, s.outcome); }},
    {"--stdout", nullptr, "also to standard output (needs the formatter plug-in; not audit messages)",
     [](Settings &s, const std::string &) { return s.outputFlags |= ZOLTLOG_OUT_STDOUT, std::string(); }},
    {"--stderr", nullptr, "also to standard error (application and diagnostic messages)",
     [](Settings &s, const std::string &) { return s.outputFlags |= ZOLTLOG_OUT_STDERR, std::string(); }},
    {"--syslog", nullptr, "also to the system log (application messages)",
     [](Settings &s, const std::string &) { return s.outputFlags |= ZOLTLOG_OUT_OSLOG, std::string(); }},
    {"--config", "FILE", "main configuration file (default: $ZOLTLOG_CFG_LOC, or /etc/qd/zoltlog.conf)",
     [](Settings &s, const std::string &v) { return s.config = v, std::string(); }},
    {"--utf8", nullptr, "the input is UTF-8, whatever the locale",
     [](Settings &s, const std::string &) { return s.utf8 = true, std::string(); }},
};

// What is wrong with the options together, or ""
std::string contradiction(const Settings &settings) {
    const bool app = settings.kind == ZOLTLOG_MSG_APP;
    const bool audit = settings.kind == ZOLTLOG_MSG_AUDIT;
    if (settings.product == 0)
        return "--product is required";
    if (settings.severity && !app)
        return "--severity is for application messages";
    if (settings.level && (app || audit))
        return "--level is for diagnostic and debug messages";
    if (settings.who && audit)
        return "--who is not for audit messages, which have a --subject";
    if ((settings.subject || settings.outcome) && !audit)
        return "--subject and --outcome are for audit messages";
    return "";
}

int usageError(const std::string &what) {
    std::fprintf(stderr, "qdlogger: %s\nTry 'qdlogger --help'.\n", what.c_str());
    return tools::ExitUsage;
}

} // namespace

int parse(int argc, char **argv, Settings &settings) {
    CLI::App app("Sends messages to the logs of a product: the words of the command line as one message,\n"
                 "or without words each line of standard input as one message.",
                 "qdlogger");
    app.set_help_flag("-h,--help", "print this help and end");
    app.set_version_flag("-V,--version", "qdlogger " QDUL_VERSION, "print the version and end");
    for (const Option &option : options) {
        if (option.value == nullptr) {
            app.add_flag_callback(
                option.names, [&settings, &option] { option.set(settings, ""); }, option.help);
            continue;
        }
        app.add_option_function<std::string>(
               option.names,
               [&settings, &option](const std::string &value) {
                   const std::string error = option.set(settings, value);
                   if (!error.empty())
                       throw CLI::ValidationError(option.names, error);
               },
               option.help)
            ->type_name(option.value)
            ->allow_extra_args(false);
    }
    std::vector<std::string> words;
    app.add_option("MESSAGE", words, "the words of the message")->type_name("");
    app.footer("Exit status: 0 all messages were written, or filtered by their level; 2 wrong usage;\n"
               "3 the configuration or the log cannot be opened, or the input cannot be read;\n"
               "4 some messages were not written.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        std::fputs(app.help().c_str(), stdout);
        return tools::ExitOk;
    } catch (const CLI::CallForVersion &) {
        std::puts("qdlogger " QDUL_VERSION);
        return tools::ExitOk;
    } catch (const CLI::ParseError &error) {
        return usageError(error.what());
    }
    const std::string wrong = contradiction(settings);
    if (!wrong.empty())
        return usageError(wrong);
    if (!words.empty()) {
        std::string &message = settings.message.emplace();
        for (const std::string &word : words)
            message += (&word == &words.front() ? "" : " ") + word;
    }
    return GoOn;
}

} // namespace qdlogger
