// SPDX-License-Identifier: Apache-2.0
// qdlogger: sends messages to the logs of a product from a shell or a pipe.
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/configurations.h"
#include "common/exit_codes.h"
#include "common/number_text.h"
#include "common/result_text.h"
#include "input.h"
#include "options.h"

namespace qdlogger {

namespace {

void complain(const Settings &settings, const std::string &text) {
    if (!settings.quiet)
        std::fprintf(stderr, "qdlogger: %s\n", tools::escaped(text).c_str());
}

// ---- the log ------------------------------------------------------------------------

struct Target {
    uint64_t product = 0;
    uint64_t originator = ZOLTLOG_DEFAULT_ORIGINATOR;
};

bool resolve(const Settings &settings, Target &target) {
    std::string problem;
    target.product = tools::findProduct(settings.product, problem);
    if (target.product != 0 && !settings.originator.empty())
        target.originator = tools::findOriginator(settings.originator, target.product, problem);
    if (target.product != 0 && target.originator != 0)
        return true;
    complain(settings, problem);
    return false;
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
        complain(settings, "message " + std::to_string(sender.sent) +
                               " was not written: " + tools::resultMessage(result));
}

// ---- the program ------------------------------------------------------------------------

// The exit status when all messages have been tried
int conclude(const Sender &sender, int inputError) {
    int status = tools::EXIT_OK;
    if (sender.failed > 0) {
        status = tools::EXIT_PARTIAL;
        if (sender.sent > 1)
            complain(sender.settings, std::to_string(sender.failed) + " of " + std::to_string(sender.sent) +
                                          " messages were not written");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        if ((sender.settings.outputFlags & ZOLTLOG_OUT_STDOUT) != 0)
            complain(sender.settings, "standard output cannot be written");
        status = tools::EXIT_PARTIAL;
    }
    if (inputError != 0) {
        complain(sender.settings, std::string("standard input cannot be read: ") + std::strerror(inputError));
        status = tools::EXIT_UNREADABLE;
    }
    return status;
}

int run(const Settings &settings) {
    Utf8Texts texts(settings.utf8);
    Target target;
    if (!resolve(settings, target))
        return tools::EXIT_UNREADABLE;
    Log log;
    const uint32_t opened = open(settings, target, texts, log);
    if (opened != ZOLTLOG_OK) {
        complain(settings, "the log of product " + std::to_string(target.product) +
                               (settings.logset ? ", log set '" + *settings.logset + "'," : "") +
                               " cannot be opened: " + tools::configurationProblem(target.product, opened));
        close(log);
        return tools::EXIT_UNREADABLE;
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
        if (reader.parted > 0)
            complain(settings,
                     tools::counted(reader.parted, "line") + " of more than 1 MB became several messages");
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
    if (const auto status = qdlogger::parse(argc, argv, settings))
        return *status;
    return qdlogger::run(settings);
}
