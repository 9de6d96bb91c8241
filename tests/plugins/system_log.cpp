// SPDX-License-Identifier: Apache-2.0
#include "system_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex guard;
std::string ident;
int option;
int facility = 8;
int mask = 0xff;

void keep(int priority, int flag, const char *format, va_list args) {
    char text[100000];
    vsnprintf(text, sizeof text, format, args);
    const std::lock_guard<std::mutex> lock(guard);
    system_log::log().messages.push_back({ident, option, facility, priority, flag, text});
}

} // namespace

system_log::Log &system_log::log() {
    static Log log;
    return log;
}

extern "C" {
void openlog(const char *name, int newOption, int newFacility);
void closelog(void);
int setlogmask(int newMask);
void syslog(int priority, const char *format, ...);
void vsyslog(int priority, const char *format, va_list args);
void __vsyslog_chk(int priority, int flag, const char *format, va_list args);

void openlog(const char *name, int newOption, int newFacility) {
    const std::lock_guard<std::mutex> lock(guard);
    ident = name != nullptr ? name : ident;
    option = newOption;
    facility = newFacility;
    system_log::log().calls.push_back(std::string("openlog ") + (name != nullptr ? name : "-") + " " +
                                      std::to_string(option) + " " + std::to_string(facility));
}

void closelog(void) {
    const std::lock_guard<std::mutex> lock(guard);
    ident.clear();
    system_log::log().calls.push_back("closelog");
}

int setlogmask(int newMask) {
    const std::lock_guard<std::mutex> lock(guard);
    system_log::log().calls.push_back("setlogmask " + std::to_string(newMask));
    const int before = mask;
    mask = newMask;
    return before;
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    keep(priority, -1, format, args);
    va_end(args);
}

void vsyslog(int priority, const char *format, va_list args) {
    keep(priority, -1, format, args);
}

void __vsyslog_chk(int priority, int flag, const char *format, va_list args) {
    keep(priority, flag, format, args);
}
}
