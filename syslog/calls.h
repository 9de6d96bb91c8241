// SPDX-License-Identifier: Apache-2.0
// What the object calls, found at run time: the C library's system log, which stands behind
// it, and libqdul.
#pragma once

#include "zoltlog.h"

#include <cstdarg>

// ---- the C library -------------------------------------------------------------------

// Each may be null where the program has another C library that lacks it.
struct SystemLog {
    void (*openlog)(const char *ident, int option, int facility);
    void (*closelog)(void);
    int (*setlogmask)(int mask);
    void (*syslog)(int priority, const char *format, ...);
    void (*vsyslog)(int priority, const char *format, va_list args);
    void (*vsyslogChecked)(int priority, int flag, const char *format, va_list args);
};

const SystemLog &systemLog();

// ---- libqdul -------------------------------------------------------------------------

#define QDUL_CALLS(X)                                                                                        \
    X(zoltLockCommon)                                                                                        \
    X(zoltUnlockCommon)                                                                                      \
    X(zoltLogOpen)                                                                                           \
    X(zoltLogClose)                                                                                          \
    X(zoltLogAppMsg2LEx)                                                                                     \
    X(zoltLogAuditMsg2L)                                                                                     \
    X(zoltLogGetDebugLevel)                                                                                  \
    X(zoltLogFormattedDebugMsg)                                                                              \
    X(zoltLogReadAllCfg)                                                                                     \
    X(zoltLogReadProdIDCfg)                                                                                  \
    X(FreeConfigArray)                                                                                       \
    X(DoesNameMatch)                                                                                         \
    X(zoltLisVEx)

struct Qdul {
#define QDUL_CALL_MEMBER(name) decltype(&::name) name;
    QDUL_CALLS(QDUL_CALL_MEMBER)
#undef QDUL_CALL_MEMBER

    // Where its code lies
    uintptr_t begin;
    uintptr_t end;

    bool contains(const void *address) const {
        const auto at = reinterpret_cast<uintptr_t>(address);
        return at >= begin && at < end;
    }
};

// Loads the library for good; false when it, or a call of it, is not there.
bool loadQdul(Qdul *qdul);
