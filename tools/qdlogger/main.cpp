// qdlogger: sends messages to the logs of a product from a shell or a pipe.
#include <charconv>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/exit_codes.h"
#include "common/result_text.h"
#include "input.h"
#include "options.h"

namespace qdlogger {

namespace {

// ---- the log ------------------------------------------------------------------------

const char *configPath() {
    const char *path = std::getenv("ZOLTLOG_CFG_LOC");
    return path != nullptr ? path : "/etc/qd/zoltlog.conf";
}

struct Target {
    uint64_t product = 0;
    uint64_t originator = 0;
};

// The id that a text is, or that the configuration gives to a name; 0: none. The
// records to look through are read by `read` only when they are needed.
constexpr uint32_t MostRecords = 4096;
template<typename Read>
uint64_t idOf(const std::string &text, uint32_t kind, Read read) {
    uint64_t id = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, id);
    if (failure == std::errc() && stop == end)
        return id;
    std::vector<LogCfg *> records(MostRecords);
    uint32_t count = 0;
    id = read(records.data(), &count) == ZOLTLOG_OK ? GetIdFromName(records.data(), count, kind, text.c_str())
                                                    : 0;
    FreeConfigArray(records.data(), count);
    return id;
}

bool resolve(const Settings &settings, Target &target) {
    target.product = idOf(settings.product, ZOLTLOG_ATTR_PRODUCT_ID, [](LogCfg **records, uint32_t *count) {
        return zoltLogReadAllCfg(nullptr, MostRecords, records, count);
    });
    if (target.product == 0) {
        std::fprintf(stderr, "qdlogger: there is no product '%s' in %s\n", settings.product.c_str(),
                     configPath());
        return false;
    }
    target.originator = ZOLTLOG_DEFAULT_ORIGINATOR;
    if (!settings.originator.empty())
        target.originator = idOf(settings.originator, 0, [&target](LogCfg **records, uint32_t *count) {
            return zoltLogReadProdIDCfg(nullptr, target.product, MostRecords, records, count);
        });
    if (target.originator == 0) {
        std::fprintf(stderr, "qdlogger: product %llu has no originator '%s'\n",
                     static_cast<unsigned long long>(target.product), settings.originator.c_str());
        return false;
    }
    return true;
}

struct Log {
    LogHandle handle = {};
    LogHandle context = {};
    LogHandle *used = nullptr; // the handle, or the context if one was asked for
};

uint32_t open(const Settings &settings, const Target &target, Utf8Texts &texts, Log &log) {
    uint32_t result = settings.logset ? zoltLogOpenLogSet(target.product, target.originator,
                                                          settings.logset->c_str(), &log.handle)
                                      : zoltLogOpen(target.product, target.originator, &log.handle);
    log.handle.utf8 = 1;
    log.used = &log.handle;
    if (result == ZOLTLOG_OK && settings.context) {
        const std::string token = texts.convert(*settings.context);
        result = zoltLogCreateContext(&log.handle, &log.context, token.c_str(), 0, "messages of qdlogger");
        log.context.utf8 = 1;
        log.used = &log.context;
    }
    return result;
}

void close(Log &log) {
    if (log.used == &log.context)
        zoltLogDestroyContext(&log.context);
    zoltLogClose(&log.handle);
}

// ---- sending --------------------------------------------------------------------------

struct Sender {
    const Settings &settings;
    LogHandle *handle;
    std::string who; // or subject, in UTF-8
    uint64_t sent = 0;
    uint64_t failed = 0;
};

// Audit messages have no text of their own, only a block
uint32_t auditBlock(ZoltLisBlock *block, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = zoltLisVEx(block, 1, 0, format, args);
    va_end(args);
    return zoltLogMapLisResToLoggingRes(result);
}

uint32_t sendAudit(const Sender &sender, uint32_t flags, const char *text) {
    ZoltLisBlock block = {};
    const uint32_t result = auditBlock(&block, "%s", text);
    if (result != ZOLTLOG_OK)
        return result;
    return zoltLogAuditMsg2L(sender.handle, sender.settings.id.value_or(0), flags, sender.who.c_str(),
                             sender.settings.outcome.value_or(0), &block);
}

uint32_t sendApp(const Sender &sender, uint32_t flags, const char *text) {
    ZoltLisBlock none = {};
    return zoltLogAppMsg2LEx(sender.handle, sender.settings.id.value_or(0), flags,
                             sender.settings.severity.value_or(0), sender.who.c_str(), text, &none);
}

void send(Sender &sender, const char *text) {
    const Settings &settings = sender.settings;
    const uint32_t flags = settings.outputFlags | (settings.id ? 0 : ZOLTLOG_NO_MESSAGE_ID);
    const uint64_t id = settings.id.value_or(0);
    const uint32_t level = settings.level.value_or(1);
    uint32_t result = ZOLTLOG_OK;
    switch (settings.kind) {
    case ZOLTLOG_MSG_DIAG: // these two look for a changed configuration, for levels that follow it
        result = zoltLogDiagMsg2(sender.handle, id, flags, level, sender.who.c_str(), 0, "%s", text);
        break;
    case ZOLTLOG_MSG_DEBUG:
        result = zoltLogDebugMsg2(sender.handle, id, flags, level, sender.who.c_str(), "%s", text);
        break;
    case ZOLTLOG_MSG_AUDIT:
        result = sendAudit(sender, flags, text);
        break;
    default:
        result = sendApp(sender, flags, text);
    }
    ++sender.sent;
    if (result != ZOLTLOG_OK && sender.failed++ == 0)
        std::fprintf(stderr, "qdlogger: message %llu was not written: %s\n",
                     static_cast<unsigned long long>(sender.sent), tools::resultMessage(result).c_str());
}

// ---- the program ------------------------------------------------------------------------

// The exit status when all messages have been tried
int conclude(const Sender &sender, int inputError) {
    int status = tools::ExitOk;
    if (sender.failed > 0) {
        status = tools::ExitPartial;
        if (sender.sent > 1)
            std::fprintf(stderr, "qdlogger: %llu of %llu messages were not written\n",
                         static_cast<unsigned long long>(sender.failed),
                         static_cast<unsigned long long>(sender.sent));
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        if ((sender.settings.outputFlags & ZOLTLOG_OUT_STDOUT) != 0)
            std::fprintf(stderr, "qdlogger: standard output cannot be written\n");
        status = tools::ExitPartial;
    }
    if (inputError != 0) {
        std::fprintf(stderr, "qdlogger: standard input cannot be read: %s\n", std::strerror(inputError));
        status = tools::ExitUnreadable;
    }
    return status;
}

int run(const Settings &settings) {
    Utf8Texts texts(settings.utf8);
    Target target;
    if (!resolve(settings, target))
        return tools::ExitUnreadable;
    Log log;
    const uint32_t opened = open(settings, target, texts, log);
    if (opened != ZOLTLOG_OK) {
        const std::string set = settings.logset ? ", log set '" + *settings.logset + "'," : "";
        std::fprintf(stderr, "qdlogger: the log of product %llu%s cannot be opened (configuration %s): %s\n",
                     static_cast<unsigned long long>(target.product), set.c_str(), configPath(),
                     tools::resultMessage(opened).c_str());
        close(log);
        return tools::ExitUnreadable;
    }
    const bool audit = settings.kind == ZOLTLOG_MSG_AUDIT;
    Sender sender{settings, log.used, texts.convert((audit ? settings.subject : settings.who).value_or(""))};
    int inputError = 0;
    if (settings.message) {
        send(sender, texts.convert(*settings.message));
    } else {
        LineReader reader(0);
        for (std::string_view line; reader.next(line);)
            send(sender, texts.convert(line));
        inputError = reader.error;
    }
    close(log);
    return conclude(sender, inputError);
}

} // namespace

} // namespace qdlogger

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    // When nobody reads the copies, the messages still have to reach their file.
    std::signal(SIGPIPE, SIG_IGN);
    qdlogger::Settings settings;
    std::string error;
    if (!qdlogger::parse(argc, argv, settings, error)) {
        std::fprintf(stderr, "qdlogger: %s\nTry 'qdlogger --help'.\n", error.c_str());
        return tools::ExitUsage;
    }
    if (settings.help || settings.version || !settings.complete.empty()) {
        const std::string text = settings.help      ? qdlogger::helpText()
                                 : settings.version ? "qdlogger " QDUL_VERSION "\n"
                                                    : qdlogger::completions(settings.complete);
        std::fputs(text.c_str(), stdout);
        return std::fflush(stdout) == 0 ? tools::ExitOk : tools::ExitPartial;
    }
    if (settings.config)
        setenv("ZOLTLOG_CFG_LOC", settings.config->c_str(), 1);
    return qdlogger::run(settings);
}
