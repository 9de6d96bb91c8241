// SPDX-License-Identifier: Apache-2.0
// qdlogcfg explain: would this message be written, where to, and if not, which
// setting stops it.
#include <cstdlib>
#include <ctime>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "common/exit_codes.h"
#include "common/result_text.h"

using tools::Json;
using tools::Output;

namespace {

struct Step {
    enum Kind { GOOD, STOPS, NOTE } kind;
    std::string text;
    std::string source; // setting and where it comes from; may be empty
};

struct Explanation {
    std::vector<Step> steps;
    bool stopped = false;
    std::string file;               // where the record goes; empty for none
    std::vector<std::string> sinks; // copies

    void good(const std::string &text, const std::string &source = "") {
        steps.push_back({Step::GOOD, text, source});
    }
    void note(const std::string &text, const std::string &source = "") {
        steps.push_back({Step::NOTE, text, source});
    }
    void stop(const std::string &text, const std::string &source = "") {
        steps.push_back({Step::STOPS, text, source});
        stopped = true;
    }
};

constexpr char APP[] = "app";
constexpr char DIAG[] = "diag";
constexpr char DEBUG[] = "debug";
constexpr char AUDIT[] = "audit";

// The settings of a scope by key, with their sources.
struct Lookup {
    const Scope &scope;
    std::vector<Effective> settings;

    const Effective &of(const char *name) const {
        for (const Effective &setting : settings)
            if (CFG_KEYS[setting.key].name == std::string_view(name))
                return setting;
        std::abort(); // every key asked for is in the table
    }
    std::string source(const char *name) const {
        const Effective &setting = of(name);
        std::string text = std::string(name) + "=" + setting.value + " (" + sourceText(setting, scope) + ")";
        for (const Skipped &skipped : setting.skipped)
            text += "; '" + skipped.value + "' in line " + std::to_string(skipped.line) +
                    " is skipped as invalid";
        return text;
    }
};

void explainLevel(const Options &options, const LogCfg &cfg, const Lookup &lookup, Explanation &result) {
    const bool diagnostic = options.kind == DIAG;
    if (!diagnostic && options.kind != DEBUG)
        return;
    const char *key = diagnostic ? "DiagnosticLevel" : "DebugLevel";
    const uint32_t highest = diagnostic ? cfg.diagLevel : cfg.debugLevel;
    const std::string level = "level " + std::to_string(options.level);
    if (options.level < ZOLTLOG_LEVEL_FIRST || options.level > ZOLTLOG_LEVEL_LAST)
        result.stop(level + " is outside 1 to 6: the call gives " + tools::resultMessage(ZOLTLOG_FAILED));
    else if (options.level > highest)
        result.stop(level + " is above the highest level that is written, " + std::to_string(highest),
                    lookup.source(key));
    else
        result.good(level + " is written", lookup.source(key));
    if (cfg.reloadInterval == 0)
        result.note("a program that is running keeps the level it opened with",
                    lookup.source("DynaReloadInSec"));
    else
        result.note("a running program follows a changed level within " +
                        std::to_string(cfg.reloadInterval < 60 ? 60 : cfg.reloadInterval) + " seconds",
                    lookup.source("DynaReloadInSec"));
}

// The series' newest file, or what a new one will be called.
void explainFile(const Scope &fileScope, const LogCfg &cfg, const Lookup &lookup, Explanation &result) {
    const std::string directory = cfg.directory;
    if (directory.empty()) {
        result.stop("no log directory: opening gives " + tools::resultMessage(ZOLTLOG_NO_DIRECTORY),
                    lookup.source("LogDirectory"));
        return;
    }
    struct stat status;
    if (stat(directory.c_str(), &status) != 0) {
        const std::string parent = nearestExisting(directory);
        if (parent.empty() || access(parent.c_str(), W_OK | X_OK) != 0) {
            result.stop(directory + " does not exist and this user cannot make it",
                        lookup.source("LogDirectory"));
            return;
        }
        result.good(directory + " will be made", lookup.source("LogDirectory"));
    } else if (access(directory.c_str(), W_OK | X_OK) != 0) {
        result.stop(directory + " cannot be written by this user", lookup.source("LogDirectory"));
        return;
    } else {
        result.good("the log directory is " + directory, lookup.source("LogDirectory"));
    }
    LogFileEntry *latest = nullptr;
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    const std::string base = fileScope.isLogset ? cfg.logsetFilename : std::to_string(fileScope.originator);
    const int32_t found = fileScope.isLogset ? zoltLogFindLatestLogSL(directory.c_str(), fileScope.product.id,
                                                                      base.c_str(), 0, now, &latest)
                                             : zoltLogFindLatestLog(directory.c_str(), fileScope.product.id,
                                                                    fileScope.originator, 0, now, &latest);
    if (found == 0) {
        result.file = directory + std::to_string(fileScope.product.id) + "-" + base + "-*.log";
        result.note("the series has no file yet; the first message starts " + result.file);
        return;
    }
    const std::unique_ptr<LogFileEntry, void (*)(void *)> owned(latest, zoltLogFree);
    result.file = directory + latest->name;
    if (access(result.file.c_str(), W_OK) != 0)
        result.stop(result.file + " cannot be written by this user: opening gives " +
                        tools::resultMessage(ZOLTLOG_OPEN_DENIED),
                    lookup.source("LogFilePermissions"));
    else
        result.good("the newest file of the series is " + result.file);
    result.note("a new file is started by this rule", lookup.source("RolloverMode"));
}

void explainSinks(const Options &options, const LogCfg &cfg, const Lookup &lookup, Explanation &result) {
    const uint32_t flags = cfg.outputFlags | options.flags;
    struct Sink {
        uint32_t flag;
        const char *name;
        const char *key;
        bool takes;
        const char *reason;
    };
    const bool app = options.kind == APP;
    const Sink sinks[] = {
        {ZOLTLOG_OUT_STDOUT, "standard output", "LogToStdout", options.kind != AUDIT,
         "audit messages are not shown there"},
        {ZOLTLOG_OUT_STDERR, "standard error", "LogToStderr", app || options.kind == DIAG,
         "only application and diagnostic messages are shown there"},
        {ZOLTLOG_OUT_OSLOG, "the system log", "LogToOslog", app, "only application messages are sent there"},
    };
    bool any = false;
    for (const Sink &sink : sinks) {
        if ((flags & sink.flag) == 0) {
            result.note(std::string("no copy to ") + sink.name, lookup.source(sink.key));
        } else if (!sink.takes) {
            result.note(std::string("no copy to ") + sink.name + ": " + sink.reason, lookup.source(sink.key));
        } else {
            result.good(std::string("a copy goes to ") + sink.name, (cfg.outputFlags & sink.flag) != 0
                                                                        ? lookup.source(sink.key)
                                                                        : "the flags of the call");
            result.sinks.emplace_back(sink.name);
            any = true;
        }
    }
    void *library = nullptr;
    if (any && SharedLibLoad(&library, "libzoltLogFormatMsg", nullptr) != 0) {
        result.note("the formatter plug-in libzoltLogFormatMsg.so.3 is not found, so no copy is made");
        result.sinks.clear();
    } else if (any) {
        SharedLibUnload(library);
    }
}

void explainSecureAudit(Explanation &result) {
    result.note("a secure audit message goes through a handle of zoltLogSecureOpen; it is never written "
                "to a file");
    result.note("the program's own record decides the level and the system-log settings; no "
                "configuration is read");
    result.sinks.emplace_back("the system log");
}

void explainLogMessage(const Options &options, const Product &product, Explanation &result) {
    const ConfigFile file = readConfigFile(product.location);
    if (file.exists && !file.readable) {
        result.stop(unreadableText(file));
        return;
    }
    if (!file.exists)
        result.note(product.location + " is not there: built-in defaults apply");
    const Scope scope = findScope(product, file, options.originator, options.logset);
    const Scope fileScope =
        options.fileOriginator.empty() ? scope : findScope(product, file, options.fileOriginator, "");
    Settings settings;
    Settings fileSettings;
    const Lookup lookup{scope, effectiveSettings(scope, file)};
    const Lookup fileLookup{fileScope, effectiveSettings(fileScope, file)};
    readSettings(scope, file, settings);
    readSettings(fileScope, file, fileSettings);
    explainLevel(options, settings.cfg, lookup, result);
    if (options.kind == APP && options.severity > 4)
        result.stop("severity " + std::to_string(options.severity) + " is outside 0 to 4: the call gives " +
                    tools::resultMessage(ZOLTLOG_FAILED));
    if (options.kind == APP && settings.cfg.appMsgLogging != 1)
        result.note("application messages are written all the same: this setting filters nothing",
                    lookup.source("AppMsgLogging"));
    explainFile(fileScope, fileSettings.cfg, fileLookup, result);
    if (!result.stopped)
        explainSinks(options, settings.cfg, lookup, result);
}

void showAsJson(const Explanation &result, Output &out) {
    Json json;
    json.beginObject();
    json.flag("written", !result.stopped);
    if (result.file.empty())
        json.null("file");
    else
        json.text("file", result.file);
    json.key("sinks");
    json.beginArray();
    for (const std::string &sink : result.sinks)
        json.textElement(sink);
    json.endArray();
    json.key("steps");
    json.beginArray();
    for (const Step &step : result.steps) {
        json.beginObject();
        json.text("kind", step.kind == Step::GOOD ? "ok" : step.kind == Step::STOPS ? "stops" : "note");
        json.text("text", step.text);
        if (!step.source.empty())
            json.text("source", step.source);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    writeJson(out, json);
}

void showAsText(const Explanation &result, bool color, Output &out) {
    for (const Step &step : result.steps) {
        std::string line;
        tools::appendStyled(line,
                            step.kind == Step::GOOD    ? tools::Style::Green
                            : step.kind == Step::STOPS ? tools::Style::BoldRed
                                                       : tools::Style::Dim,
                            step.kind == Step::GOOD    ? "yes   "
                            : step.kind == Step::STOPS ? "NO    "
                                                       : "note  ",
                            color);
        tools::appendEscaped(line, step.text);
        if (!step.source.empty())
            line += "\n        " + tools::escaped(step.source);
        out.write(line + "\n");
    }
    std::string copies;
    for (const std::string &sink : result.sinks)
        copies += (copies.empty() ? "" : " and ") + sink;
    if (result.stopped)
        out.write("the message is NOT written\n");
    else
        out.write("the message goes to " + (result.file.empty() ? copies : tools::escaped(result.file)) +
                  (result.file.empty() || copies.empty() ? "" : ", with a copy to " + copies) + "\n");
}

} // namespace

int explainMessage(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    Explanation result;
    result.good("product " + std::to_string(product.id) + " is registered",
                mainConfigPath() + ":" + std::to_string(product.line));
    if (options.kind == "secure-audit")
        explainSecureAudit(result);
    else
        explainLogMessage(options, product, result);
    if (result.stopped) {
        result.file.clear();
        result.sinks.clear();
    }
    if (options.json)
        showAsJson(result, out);
    else
        showAsText(result, options.color, out);
    return result.stopped ? tools::EXIT_NOTHING : tools::EXIT_OK;
}
