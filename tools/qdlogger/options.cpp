// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <vector>

#include "common/fields.h"

namespace qdlogger {

namespace {

using tools::set;
using tools::setWithin;

// ---- values ----------------------------------------------------------------------

constexpr const char *KINDS[] = {"app", "diag", "debug", "audit"};

// Also the full names, as in the other tools
bool takeKind(Settings &settings, const char *value, std::string &error) {
    uint32_t kind = 0;
    if (tools::parseKind(value, kind) && (kind == ZOLTLOG_MSG_APP || kind == ZOLTLOG_MSG_DIAG ||
                                          kind == ZOLTLOG_MSG_DEBUG || kind == ZOLTLOG_MSG_AUDIT)) {
        settings.kind = kind;
        return true;
    }
    error = std::string("'") + value + "' is none of app, diag, debug, audit";
    return false;
}

bool takeSeverity(Settings &settings, const char *value, std::string &error) {
    int32_t severity = 0;
    if (!tools::parseSeverity(value, severity)) {
        error = std::string("'") + value + "' is none of info, warning, error, critical, emergency, 0 to 4";
        return false;
    }
    settings.severity = static_cast<uint32_t>(severity);
    return true;
}

template<uint32_t Flag>
bool addOutput(Settings &settings, const char *, std::string &) {
    settings.outputFlags |= Flag;
    return true;
}

// ---- the tables --------------------------------------------------------------------

constexpr unsigned EVERY = tools::TAKES_EVERY;

const tools::Command COMMANDS[] = {
    {"", EVERY | tools::TAKES_QUIET | tools::TAKES_CONFIG | tools::TAKES_COMPLETION, 0, "[MESSAGE]...", 0,
     tools::ANY_NUMBER, "", nullptr},
};

const tools::Option OPTIONS[] = {
    {"-P,--product", EVERY, "PRODUCT", "the product, by id or name (required)", set<&Settings::product>,
     "Where to"},
    {"-u,--originator", EVERY, "ORIGINATOR",
     "its component, by id or name (default 112,\nthe default originator)", set<&Settings::originator>},
    {"-L,--logset", EVERY, "NAME", "write to the files of this log set", set<&Settings::logset>},
    {"--stdout", EVERY, nullptr,
     "copies to standard output, by the formatter\nplug-in (not of audit)\n\n"
     "Copies are in addition to those that the configuration asks for. Their lines are made\n"
     "by *libzoltLogFormatMsg.so.3*; without it there are none.",
     set<addOutput<ZOLTLOG_OUT_STDOUT>>},
    {"--stderr", EVERY, nullptr, "copies to standard error (app and diag)",
     set<addOutput<ZOLTLOG_OUT_STDERR>>},
    {"--syslog", EVERY, nullptr, "copies to the system log (app)", set<addOutput<ZOLTLOG_OUT_OSLOG>>},
    {"-k,--kind", EVERY, "KIND",
     "kind: app (default), diag, debug or audit\n\n"
     "Or in full: application, diagnostic.",
     set<takeKind>, "What"},
    {"-p,--priority,--severity", EVERY, "SEV",
     "of app: info (default), warning, error,\ncritical, emergency, or 0 to 4", set<takeSeverity>},
    {"-l,--level", EVERY, "LEVEL",
     "of diag and debug: 1 (default) to 6; messages above\nthe configured level are not written\n\n"
     "1 is the most important. A message above the configured level (DiagnosticLevel,\n"
     "DebugLevel) is dropped, which is no failure. *qdlogger* follows changes of the\n"
     "configuration as all programs do (DynaReloadInSec).",
     setWithin<&Settings::level, ZOLTLOG_LEVEL_FIRST, ZOLTLOG_LEVEL_LAST>},
    {"-t,--who", EVERY, "TEXT", "of app, diag and debug: the reporting component", set<&Settings::who>},
    {"--id", EVERY, "NUMBER", "message id (default: the messages are numbered)", set<&Settings::id>},
    {"-x,--context", EVERY, "TOKEN",
     "open a context with this token for the messages\n\n"
     "All messages of the run carry it. The context is a record of its own in the file.",
     set<&Settings::context>},
    {"--subject", EVERY, "TEXT", "of audit: who did it", set<&Settings::subject>},
    {"--outcome", EVERY, "NUMBER", "of audit: how it ended (default 0)",
     setWithin<&Settings::outcome, 0, UINT32_MAX>},
    {"--utf8", EVERY, nullptr, "the input is UTF-8, whatever the locale", set<&Settings::utf8>},
};

bool complete(tools::CommonOptions &settings, std::vector<std::string> &words, int &) {
    if (settings.complete == "kinds") {
        words.assign(std::begin(KINDS), std::end(KINDS));
    } else if (settings.complete == "severities") {
        for (int32_t severity = 0; severity <= ZOLTLOG_SEVERITY_EMERGENCY; ++severity)
            words.emplace_back(tools::severityName(severity));
    } else {
        return false;
    }
    return true;
}

// What is wrong with the options together, or ""
std::string contradiction(const Settings &settings) {
    const bool app = settings.kind == ZOLTLOG_MSG_APP;
    const bool audit = settings.kind == ZOLTLOG_MSG_AUDIT;
    if (settings.product.empty())
        return "--product is required";
    if (settings.severity && !app)
        return "--priority is for app messages";
    if (settings.level && (app || audit))
        return "--level is for diag and debug messages";
    if (settings.who && audit)
        return "--who is not for audit messages, which have a --subject";
    if ((settings.subject || settings.outcome) && !audit)
        return "--subject and --outcome are for audit messages";
    return "";
}

} // namespace

std::optional<int> parse(int argc, char **argv, Settings &settings) {
    const tools::Tool tool = {
        "qdlogger",
        "Sends messages to the logs of a product: the words of the command line as one\n"
        "message, or without words each line of standard input as one message.\n",
        tools::rowsOf<tools::Option>(OPTIONS),
        tools::rowsOf<tools::Command>(COMMANDS),
        "Exit status: 0 all messages were written, or dropped by their level; 2 wrong\n"
        "usage; 3 the configuration, the log or the input cannot be opened or read;\n"
        "4 some messages were not written.\n",
        complete,
        ", kinds, severities",
    };
    if (const auto status = tools::parseCommandLine(tool, argc, argv, settings))
        return status;
    for (const std::string &word : settings.operands)
        settings.message = settings.message ? *settings.message + " " + word : word;
    const std::string error = contradiction(settings);
    if (error.empty())
        return {};
    return tools::usageError(tool, settings, error);
}

} // namespace qdlogger
