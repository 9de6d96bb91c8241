// SPDX-License-Identifier: Apache-2.0
// Dispatch, for the message entry points.
#pragma once

#include "lockUnix.h"
#include "zoltlog.h"

// Secure audit messages go to the system log only, through a handle without a file.
inline bool isSecureOnFile(const LogHandle *handle, const LogMsg *msg) {
    return msg->type == ZOLTLOG_MSG_SECURE_AUDIT && handle->file != nullptr;
}

inline bool hasSinks(const LogHandle *handle, uint32_t flags) {
    constexpr uint32_t SINKS = ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOG;
    return ((flags | handle->outputFlags) & SINKS) != 0;
}

// Passes a message whose text is borrowed to the sinks.
uint32_t outputCopy(LogHandle *handle, LogMsg *msg, uint32_t flags);

// zoltLogMsg for a thread that holds the lock, and a message without a block whose text is
// borrowed. Inline: the functions that a message's write returns through cost more than
// others, see docs/performance.md.
inline uint32_t dispatchLocked(LogHandle *handle, uint32_t flags, LogMsg *msg) {
    if (isSecureOnFile(handle, msg))
        return ZOLTLOG_SECURE_ON_FILE_HANDLE;
    msg->utf8 = handle->utf8;
    const NestedLock lock(TAG_MSG);
    uint32_t written = ZOLTLOG_OK;
    if (msg->type != ZOLTLOG_MSG_SECURE_AUDIT)
        written = zoltLogWriteMsgWithRolloverToFile(handle->file, msg);
    const uint32_t output = hasSinks(handle, flags) ? outputCopy(handle, msg, flags) : uint32_t{ZOLTLOG_OK};
    return written != ZOLTLOG_OK ? written : output;
}
