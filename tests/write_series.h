// SPDX-License-Identifier: Apache-2.0
// For the tests of the writer: a clock and a host that the test decides on, settings
// made by hand, handles opened on them, and messages whose bytes are known.
#pragma once

#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/time.h>
#include <vector>

namespace series {

// ---- clock -------------------------------------------------------------------------

inline int64_t fakeMs; // milliseconds since the epoch; -1: the real clock

inline void setClock(int64_t seconds) {
    fakeMs = seconds * 1000;
}
inline void advance(int64_t seconds) {
    fakeMs += seconds * 1000;
}
inline void setZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}
// Seconds since the epoch of a local wall clock time.
inline int64_t localTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    tm local = {};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = -1;
    return mktime(&local);
}

// ---- host --------------------------------------------------------------------------

inline std::string hostName;    // at first "hostA"
inline std::string hostAddress; // at first that of HOST_ID; "" fails, "::..." is IPv6
inline bool hostNameFails;
inline std::atomic<int> hostLookUps;
inline std::function<void()> onHostLookUp; // what a look-up does first
constexpr uint64_t HOST_ID = 83886090;     // 10.0.0.5

inline int lookUpHost(const char *, const char *, const addrinfo *, addrinfo **list) {
    ++hostLookUps;
    if (onHostLookUp)
        onHostLookUp();
    if (hostAddress.empty())
        return EAI_AGAIN;
    struct Result {
        addrinfo info;
        sockaddr_in v4;
        sockaddr_in6 v6;
    };
    static thread_local Result storage;
    Result *result = &storage;
    *result = {};
    if (inet_pton(AF_INET, hostAddress.c_str(), &result->v4.sin_addr) == 1) {
        result->info.ai_family = AF_INET;
        result->info.ai_addr = reinterpret_cast<sockaddr *>(&result->v4);
    } else {
        inet_pton(AF_INET6, hostAddress.c_str(), &result->v6.sin6_addr);
        result->info.ai_family = AF_INET6;
        result->info.ai_addr = reinterpret_cast<sockaddr *>(&result->v6);
    }
    *list = &result->info;
    return 0;
}

// ---- what every case begins with -----------------------------------------------------

inline const bool PREPARED = support::eachCase([] {
    fakeMs = -1;
    libc::time.hook = [](time_t *out) {
        if (fakeMs < 0)
            return libc::time.real(out);
        if (out != nullptr)
            *out = fakeMs / 1000;
        return static_cast<time_t>(fakeMs / 1000);
    };
    libc::gettimeofday.hook = [](timeval *out, void *zone) {
        if (fakeMs < 0)
            return libc::gettimeofday.real(out, zone);
        *out = {fakeMs / 1000, fakeMs % 1000 * 1000};
        return 0;
    };
    hostName = "hostA";
    hostAddress = "10.0.0.5";
    hostNameFails = false;
    hostLookUps = 0;
    onHostLookUp = nullptr;
    libc::gethostname.hook = [](char *buffer, size_t size) {
        if (hostNameFails) {
            errno = EFAULT;
            return -1;
        }
        strncpy(buffer, hostName.c_str(), size);
        return 0;
    };
    libc::getaddrinfo.hook = lookUpHost;
    libc::freeaddrinfo.hook = [](addrinfo *) {};
});

// ---- series ------------------------------------------------------------------------

// Settings of originator 7 of product 5 in the directory "./logs/", no rollover.
inline LogCfg settings(uint64_t originator = 7) {
    LogCfg cfg = {};
    cfg.productId = 5;
    cfg.originatorId = originator;
    strcpy(cfg.directory, "./logs/");
    cfg.permissions.mode = 0660;
    cfg.maxFileSizeKB = 10240;
    cfg.rolloverPeriod = 43200;
    cfg.numberOfLogFiles = ZOLTLOG_KEEP_ALL_FILES;
    return cfg;
}

inline char setName[] = "backup";
inline LogCfg logsetSettings() {
    LogCfg cfg = settings(0);
    cfg.isLogset = 1;
    cfg.logsetName = setName;
    cfg.logsetFilename = setName;
    return cfg;
}

// Opens a handle as zoltLogOpen2 does, with settings made by hand.
inline uint32_t open(LogHandle *handle, LogCfg originator, LogCfg file) {
    *handle = {};
    handle->file = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    handle->file->file.descriptor = -1;
    return zoltLogOpenFile(handle, &originator, &file);
}
inline uint32_t open(LogHandle *handle, const LogCfg &cfg) {
    return open(handle, cfg, cfg);
}

// An application message of severity 3 by "mgr", message id = sequence number.
inline uint32_t send(LogHandle *handle, const std::string &text) {
    LogMsg msg;
    uint32_t result = zoltLogInitMsg(&msg, handle, ZOLTLOG_MSG_APP, text.c_str());
    if (result == ZOLTLOG_OK)
        result = zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL);
    if (result == ZOLTLOG_OK)
        result = zoltLogMsg(handle, 0, &msg);
    zoltLogFreeMsg(&msg);
    return result;
}

// The text of a record that send wrote; "" for any other line, torn ones included.
inline std::string textOf(const std::string &line) {
    if (line.compare(0, 2, "2,") != 0)
        return "";
    const size_t token = line.find(",0:,"); // no context
    if (token == std::string::npos)
        return "";
    const size_t start = token + 4;
    const size_t colon = line.find(':', start);
    if (colon == std::string::npos)
        return "";
    const size_t length = strtoul(line.c_str() + start, nullptr, 10);
    if (line.substr(colon + 1 + length) != ",3:mgr,3,(0|)")
        return "";
    return line.substr(colon + 1, length);
}

// The texts of all records of a file after its header.
inline std::vector<std::string> textsIn(const std::string &path) {
    std::vector<std::string> texts;
    for (const std::string &line : support::lines(support::readFile(path)))
        if (line.compare(0, 7, "$Header") != 0)
            texts.push_back(textOf(line));
    return texts;
}

using Names = std::vector<std::string>;
using Texts = std::vector<std::string>;

inline Names logFiles() {
    return support::exists("logs") ? support::listFiles("logs") : Names{};
}

} // namespace series
