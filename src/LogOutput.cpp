// SPDX-License-Identifier: Apache-2.0
#include "SharedLibrary.h"

#include <cstdio>

namespace {

bool goesToStandardError(uint32_t type) {
    return type == ZOLTLOG_MSG_DIAG || type == ZOLTLOG_MSG_APP;
}

// Flushed, so that the line is there when the message is, and a child of fork has no copy of
// it to write again.
void printLine(FILE *stream, const char *line) {
    (void)fprintf(stream, "%s\n", line); // a console that takes nothing is no failure of the message
    (void)fflush(stream);
}

} // namespace

uint32_t LogOutputBasedOnFlags(LogHandle *handle, LogMsg *msg, uint32_t flags) {
    if (handle == nullptr || msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const uint32_t wanted = flags | handle->outputFlags;
    uint32_t result = ZOLTLOG_OK;
    if ((wanted & ZOLTLOG_OUT_STDOUT) != 0 ||
        ((wanted & ZOLTLOG_OUT_STDERR) != 0 && goesToStandardError(msg->type)))
        result = OutputToConsole(wanted, msg, &handle->localizers);
    if ((wanted & ZOLTLOG_OUT_OSLOG) != 0) {
        if (msg->type == ZOLTLOG_MSG_SECURE_AUDIT)
            result = static_cast<uint32_t>(osLogWrite(handle, msg));
        else if (msg->type == ZOLTLOG_MSG_APP)
            (void)osLogWrite(handle, msg); // an application message has its file to live in
    }
    return result;
}

uint32_t OutputToConsole(uint32_t flags, LogMsg *msg, LocalizerList *localizers) {
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char *text = nullptr;
    uint32_t result = ZOLTLOG_OK;
    const FormatterRequest request = {localizers, nullptr, ZOLTLOG_FORMAT_CONSOLE, msg, nullptr};
    switch (renderWithFormatter(&newfmtLib, request, &result, &text)) {
    case FormatterState::Absent:
        return ZOLTLOG_OK;
    case FormatterState::NoMemory:
        return ZOLTLOG_NO_MEMORY;
    case FormatterState::NoEntry:
    case FormatterState::Called:
        break;
    }
    if (result == ZOLTLOG_OK) {
        // KEPT: without a text there is a line all the same. Pinned by
        // LogOutput.APlugInWithoutEntryPrintsNull.
        const char *line = text != nullptr ? text : "(null)";
        if ((flags & ZOLTLOG_OUT_STDOUT) != 0 && msg->type != ZOLTLOG_MSG_AUDIT)
            printLine(stdout, line);
        if ((flags & ZOLTLOG_OUT_STDERR) != 0 && goesToStandardError(msg->type))
            printLine(stderr, line);
    }
    zoltLogFree(text);
    return result;
}
