// SPDX-License-Identifier: Apache-2.0
#include "series.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <syslog.h>

namespace {

constexpr uint32_t DEBUG_LEVEL = ZOLTLOG_LEVEL_FIRST; // of all debug messages

// ---- configurations ------------------------------------------------------------------

constexpr uint32_t FIRST_CAPACITY = 256;
constexpr uint32_t LARGEST_CAPACITY = 1u << 24;

// The records of a product, or of all products (0).
struct Configurations {
    Configurations(const Qdul &library, uint64_t product) : qdul(library) {
        // A full array may lack some.
        for (uint32_t capacity = FIRST_CAPACITY; capacity <= LARGEST_CAPACITY; capacity *= 8) {
            release();
            cfgs = static_cast<LogCfg **>(calloc(capacity, sizeof(LogCfg *)));
            if (cfgs == nullptr)
                return;
            (void)(product != 0 ? qdul.zoltLogReadProdIDCfg(nullptr, product, capacity, cfgs, &count)
                                : qdul.zoltLogReadAllCfg(nullptr, capacity, cfgs, &count));
            if (count < capacity)
                return;
        }
    }
    ~Configurations() { release(); }
    Configurations(const Configurations &) = delete;
    Configurations &operator=(const Configurations &) = delete;

    void release() {
        if (cfgs != nullptr)
            qdul.FreeConfigArray(cfgs, count);
        free(cfgs);
        cfgs = nullptr;
        count = 0;
    }

    const Qdul &qdul;
    LogCfg **cfgs = nullptr;
    uint32_t count = 0;
};

// 0 for what is no decimal number of 64 bits.
uint64_t numberIn(const char *text) {
    uint64_t number = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
        if (__builtin_mul_overflow(number, uint64_t{10}, &number) ||
            __builtin_add_overflow(number, static_cast<uint64_t>(*text - '0'), &number))
            return 0;
    return *text == '\0' ? number : 0;
}

} // namespace

uint64_t findProduct(const Qdul &qdul, const char *text) {
    const uint64_t number = numberIn(text);
    if (number != 0)
        return number;
    const Configurations all(qdul, 0);
    for (uint32_t i = 0; i < all.count; ++i)
        if (qdul.DoesNameMatch(all.cfgs[i]->productShortNames, text) != 0)
            return all.cfgs[i]->productId;
    return 0;
}

uint64_t findOriginatorNamed(const Qdul &qdul, uint64_t product, const char *name) {
    const Configurations ofProduct(qdul, product);
    for (uint32_t i = 0; i < ofProduct.count; ++i)
        if (ofProduct.cfgs[i]->isLogset == 0 &&
            qdul.DoesNameMatch(ofProduct.cfgs[i]->originatorNames, name) != 0)
            return ofProduct.cfgs[i]->originatorId;
    return 0;
}

uint64_t findOriginator(const Qdul &qdul, uint64_t product, const char *text) {
    const uint64_t number = numberIn(text);
    return number != 0 ? number : findOriginatorNamed(qdul, product, text);
}

// ---- open and close ------------------------------------------------------------------

Series *openSeries(const Qdul &qdul, uint64_t product, uint64_t originator) {
    auto *series = static_cast<Series *>(calloc(1, sizeof(Series)));
    if (series == nullptr)
        return nullptr;
    const uint32_t result = qdul.zoltLogOpen(product, originator, &series->handle);
    if (result != ZOLTLOG_OK && result != ZOLTLOG_OSLOG_OPEN_FAILED) {
        closeSeries(qdul, series);
        return nullptr;
    }
    series->handle.utf8 = 1;
    series->originator = originator;
    return series;
}

void closeSeries(const Qdul &qdul, Series *series) {
    (void)qdul.zoltLogClose(&series->handle); // that it held no file is no news
    free(series);
}

// ---- the open file -------------------------------------------------------------------

namespace {

// All but what the file system tells.
OpenFile toldBy(const LogFileState *state) {
    OpenFile file = {};
    file.descriptor = state->file.descriptor;
    file.counter = state->counter;
    file.date = state->date;
    file.startTime = state->fileStartTime;
    file.reopenTime = state->lastReopenTime;
    return file;
}

bool isSameOpening(const OpenFile &a, const OpenFile &b) {
    return a.descriptor == b.descriptor && a.counter == b.counter && a.startTime == b.startTime &&
           a.reopenTime == b.reopenTime && memcmp(&a.date, &b.date, sizeof a.date) == 0;
}

} // namespace

void learnFile(Series *series) {
    OpenFile file = toldBy(series->handle.file);
    if (isSameOpening(file, series->file))
        return;
    struct stat status = {};
    if (file.descriptor != -1 && fstat(file.descriptor, &status) != 0)
        return; // not remembered, so that it is no longer the file when it is looked at
    file.device = status.st_dev;
    file.inode = status.st_ino;
    series->file = file;
}

bool keepsItsFile(Series *series) {
    LogFileState *state = series->handle.file;
    if (state->file.descriptor == -1) // the library opens it again
        return true;
    learnFile(series); // another handle on the series may have had it opened anew
    struct stat status;
    if (fstat(state->file.descriptor, &status) == 0 && isSameOpening(toldBy(state), series->file) &&
        status.st_dev == series->file.device && status.st_ino == series->file.inode)
        return true;
    state->file.descriptor = -1;
    return false;
}

// ---- messages ------------------------------------------------------------------------

// The manual page has the same as a table.
Meaning meaningOf(int priority) {
    static const uint32_t SEVERITIES[] = {
        ZOLTLOG_SEVERITY_EMERGENCY, // LOG_EMERG
        ZOLTLOG_SEVERITY_CRITICAL,  // LOG_ALERT
        ZOLTLOG_SEVERITY_CRITICAL,  // LOG_CRIT
        ZOLTLOG_SEVERITY_ERROR,     // LOG_ERR
        ZOLTLOG_SEVERITY_WARNING,   // LOG_WARNING
        ZOLTLOG_SEVERITY_INFO,      // LOG_NOTICE
        ZOLTLOG_SEVERITY_INFO       // LOG_INFO
    };
    const int level = priority & LOG_PRIMASK;
    const int facility = priority & LOG_FACMASK;
    if (level == LOG_DEBUG)
        return {ZOLTLOG_MSG_DEBUG, DEBUG_LEVEL};
    const bool isAudit = facility == LOG_AUTH || facility == LOG_AUTHPRIV;
    return {isAudit ? ZOLTLOG_MSG_AUDIT : ZOLTLOG_MSG_APP, SEVERITIES[level]};
}

bool passes(const Qdul &qdul, Series *series, const Meaning &meaning) {
    uint32_t level = 0;
    return meaning.type != ZOLTLOG_MSG_DEBUG ||
           (qdul.zoltLogGetDebugLevel(&series->handle, &level) == ZOLTLOG_OK && meaning.number <= level);
}

namespace {

int32_t makeBlock(const Qdul &qdul, ZoltLisBlock *block, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = qdul.zoltLisVEx(block, 1, 0, format, args);
    va_end(args);
    return result;
}

} // namespace

uint32_t send(const Qdul &qdul, Series *series, const Meaning &meaning, const char *who, const char *text) {
    LogHandle *handle = &series->handle;
    ZoltLisBlock block = {};
    switch (meaning.type) {
    case ZOLTLOG_MSG_DEBUG:
        return qdul.zoltLogFormattedDebugMsg(handle, 0, meaning.number, who, text);
    case ZOLTLOG_MSG_AUDIT: // which have no text of their own
        if (makeBlock(qdul, &block, "%s", text) != ZOLTLIS_OK)
            return ZOLTLOG_LIS_FAILED;
        return qdul.zoltLogAuditMsg2L(handle, 0, ZOLTLOG_NO_MESSAGE_ID, who, meaning.number, &block);
    default:
        return qdul.zoltLogAppMsg2LEx(handle, 0, ZOLTLOG_NO_MESSAGE_ID, meaning.number, who, text, &block);
    }
}
