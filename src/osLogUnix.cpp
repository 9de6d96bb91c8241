// SPDX-License-Identifier: Apache-2.0
#include "osLogUnix.h"

#include "SharedLibrary.h"
#include "owned.h"

#include <cstdio>
#include <cstring>
#include <langinfo.h>
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

bool isUtf8(const LogMsg *msg) {
    return msg->utf8 != 0 || strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// A field of the prefix as a new block, null without memory. It ends no line and drives no
// terminal: a line feed becomes a carriage return, as in records, and every other control
// character a question mark.
LogOwned<char> safeField(const char *text, bool utf8) {
    if (text == nullptr)
        text = "(null)";
    LogOwned<char> field(static_cast<char *>(malloc(strlen(text) + 1)));
    if (field == nullptr)
        return field;
    char *out = field.get();
    for (const auto *at = reinterpret_cast<const unsigned char *>(text); *at != '\0'; ++at) {
        const bool isC1 = utf8 && *at == 0xc2 && at[1] >= 0x80 && at[1] <= 0x9f;
        at += isC1 ? 1 : 0;
        const bool isControl = isC1 || (*at < 0x20 && *at != '\r') || *at == 0x7f;
        *out++ = *at == '\n' ? '\r' : isControl ? '?' : static_cast<char>(*at);
    }
    *out = '\0';
    return field;
}

// The eight-field prefix and the text as one new block, null without memory.
char *withSecureAuditPrefix(const LogHandle *handle, const LogMsg *msg, const char *text) {
    const LogOwned<char> token = safeField(msg->contextToken, isUtf8(msg));
    const LogOwned<char> who = safeField(msg->who, isUtf8(msg));
    if (token == nullptr || who == nullptr)
        return nullptr;
    const LogCfg *cfg = handle->cfgCopy;
    const unsigned long productId = cfg != nullptr ? cfg->productId : 0;
    const unsigned long originatorId = cfg != nullptr ? cfg->originatorId : 0;
    char *line = nullptr;
    size_t size = 0;
    for (;;) { // measured, then written
        const int length = snprintf(line, size, "%lu,%lu,%lu,%lu,%lu,%s,%s,%d %s", productId, originatorId,
                                    msg->messageId, msg->processId, msg->threadId, token.get(), who.get(),
                                    static_cast<int>(msg->outcome), text);
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
