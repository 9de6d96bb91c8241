// SPDX-License-Identifier: Apache-2.0
// Captures what the library sends to the system log and selects the formatter
// plug-in that it loads, by hooks on the C library's functions (syscalls.h).
// To be included by one source file of a test program.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <vector>

#include "support/support.h"
#include "support/syscalls.h"

namespace sinks {

struct Opened {
    const char *ident; // the pointer handed over
    std::string text;
    int option;
    int facility;
};
struct Sent {
    int priority;
    std::string text;
};
inline std::vector<Opened> opened;
inline std::vector<Sent> sent;
inline int closed;

// The plug-in that is loaded: a path, or "" for none.
inline std::string formatter;
inline std::vector<std::string> asked; // names given to dlopen

inline std::string testFormatter(const std::string &kind) {
    return support::buildDirectory() + "/tests/plugins/" + kind + "/libzoltLogFormatMsg.so.3";
}
inline std::string ownFormatter() {
    return support::buildDirectory() + "/lib/libzoltLogFormatMsg.so.3";
}

// For tests in which allocations fail: called with true before the capture allocates
// for itself, with false afterwards.
inline void (*capturing)(bool began) = [](bool) {};

inline void reset() {
    opened.clear();
    sent.clear();
    asked.clear();
    closed = 0;
    formatter.clear();
}

inline void send(int priority, const char *format, va_list args) {
    capturing(true);
    va_list again;
    va_copy(again, args);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, args)) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    sent.push_back({priority, text});
    capturing(false);
}

} // namespace sinks

SUPPORT_CALL(void, openlog, (const char *ident, int option, int facility), (ident, option, facility), )
SUPPORT_CALL(void, closelog, (), (), )
SUPPORT_CALL(void *, dlopen, (const char *name, int mode), (name, mode), noexcept)

namespace sinks {
inline const bool PREPARED = support::eachCase([] {
    reset();
    capturing = [](bool) {};
    libc::openlog.hook = [](const char *ident, int option, int facility) {
        opened.push_back({ident, ident, option, facility});
    };
    libc::closelog.hook = [] { ++closed; };
    libc::dlopen.hook = [](const char *name, int mode) {
        if (name == nullptr || strcmp(name, "libzoltLogFormatMsg.so.3") != 0)
            return libc::dlopen.real(name, mode);
        capturing(true);
        asked.emplace_back(name);
        capturing(false);
        return formatter.empty() ? nullptr : libc::dlopen.real(formatter.c_str(), mode);
    };
});
} // namespace sinks

extern "C" {
void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    sinks::send(priority, format, args);
    va_end(args);
}
void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    sinks::send(priority, format, args);
    va_end(args);
}
}
