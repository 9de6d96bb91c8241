#include "osLogUnix.h"

#include "SharedLibrary.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>

static_assert(sizeof OSLOG_DEFAULT_IDENT <= sizeof(OsLogSettings::ident));

namespace {

const char OSLOG_LOCALE[] = "en_US";
const int SECURE_AUDIT_PRIORITY = LOG_CRIT;

} // namespace

int32_t osLogInitCfg(OsLogSettings *settings) {
    if (settings == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    *settings = {};
    memcpy(settings->ident, OSLOG_DEFAULT_IDENT, sizeof OSLOG_DEFAULT_IDENT);
    settings->facility = OSLOG_DEFAULT_FACILITY;
    return ZOLTLOG_OS_OK;
}

int32_t osLogCopyCfg(OsLogSettings *destination, const OsLogSettings *source) {
    if (destination == nullptr || source == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    OsLogSettings copy = {};
    memcpy(copy.ident, source->ident, strnlen(source->ident, sizeof source->ident));
    // KEPT: the option bits are not copied. Pinned by OsLogSettings.CopyingSettingsLeavesTheOptionsAtZero.
    copy.facility = source->facility;
    *destination = copy;
    return ZOLTLOG_OS_OK;
}

// The identity of a settings record may fill its field with no terminator; the
// system log keeps the sink's buffer and reads it until closelog.
int32_t osLogOpen(const OsLogSettings *settings, OsLogSink *sink) {
    if (settings == nullptr || sink == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    const size_t length = strnlen(settings->ident, sizeof sink->ident - 1);
    memcpy(sink->ident, settings->ident, length);
    memset(sink->ident + length, 0, sizeof sink->ident - length);
    openlog(sink->ident, static_cast<int>(settings->option), static_cast<int>(settings->facility));
    return ZOLTLOG_OS_OK;
}

int32_t osLogOpenEx(const OsLogSettings *settings, OsLogSink *sink) {
    return osLogOpen(settings, sink);
}

int32_t osLogClose(OsLogSink *sink) {
    if (sink == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    closelog();
    return ZOLTLOG_OS_OK;
}

namespace {

// The eight-field prefix and the text as one new block, null without memory.
char *withSecureAuditPrefix(const LogHandle *handle, const LogMsg *msg, const char *text) {
    const LogCfg *cfg = handle->cfgCopy;
    const unsigned long productId = cfg != nullptr ? cfg->productId : 0;
    const unsigned long originatorId = cfg != nullptr ? cfg->originatorId : 0;
    char *line = nullptr;
    size_t size = 0;
    for (;;) { // measured, then written
        const int length = snprintf(
            line, size, "%lu,%lu,%lu,%lu,%lu,%s,%s,%d %s", productId, originatorId, msg->messageId,
            msg->processId, msg->threadId, msg->contextToken != nullptr ? msg->contextToken : "(null)",
            msg->who != nullptr ? msg->who : "(null)", static_cast<int>(msg->outcome), text);
        if (line != nullptr)
            return line;
        if (length < 0)
            return nullptr;
        size = static_cast<size_t>(length) + 1;
        line = static_cast<char *>(zoltLogMalloc(size));
        if (line == nullptr)
            return nullptr;
    }
}

void sendToSystemLog(const LogHandle *handle, const LogMsg *msg, const char *text) {
    if (msg->type == ZOLTLOG_MSG_APP) {
        syslog(sevToSyslogPriority(msg->attr.severity), "%s", text);
    } else if (msg->type == ZOLTLOG_MSG_SECURE_AUDIT) {
        char *line = (handle->outputFlags & ZOLTLOG_OUT_OSLOGX) != 0
                         ? withSecureAuditPrefix(handle, msg, text)
                         : nullptr;
        syslog(SECURE_AUDIT_PRIORITY, "%s", line != nullptr ? line : text);
        zoltLogFree(line);
    }
}

} // namespace

int32_t osLogWrite(LogHandle *handle, LogMsg *msg) {
    if (handle == nullptr || msg == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    char *text = nullptr;
    uint32_t result = ZOLTLOG_FAILED;
    const FormatterRequest request = {&handle->localizers, OSLOG_LOCALE, ZOLTLOG_FORMAT_OSLOG, msg, handle};
    if (renderWithFormatter(&fmtLib, request, &result, &text) != FormatterState::Called)
        result = ZOLTLOG_FAILED;
    if (result == ZOLTLOG_OK && text != nullptr)
        sendToSystemLog(handle, msg, text);
    zoltLogFree(text);
    return result == ZOLTLOG_OK ? ZOLTLOG_OS_OK : ZOLTLOG_OS_FAILED;
}

int32_t sevToSyslogPriority(uint32_t severity) {
    static const int32_t priorities[] = {LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT, LOG_EMERG};
    return severity < sizeof priorities / sizeof *priorities ? priorities[severity] : LOG_INFO;
}

int32_t osLogIsFullPath(const char *path) {
    return path != nullptr && path[0] == '/' ? 0 : -1;
}
