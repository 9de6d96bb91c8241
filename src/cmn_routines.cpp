// Small routines that every unit uses. The conversions go through ICU's UTF-16; on
// the way of a message the tests of isUtf8AsItIs save them.
//
//   Identifiers      validity
//   Memory           the allocator that callers share
//   Time             compact stamps, clock texts, time zones
//   Encodings        the conversions
#include "cmn_routines.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

static_assert(offsetof(LocalizerList, count) == 0);
static_assert(offsetof(LocalizerList, count) < offsetof(LocalizerList, first));
static_assert(offsetof(LogCfg, productId) == 0);
static_assert(offsetof(LogCfg, productId) < offsetof(LogCfg, originatorId));
static_assert(offsetof(LogHandle, file) == 0);

// ---- identifiers --------------------------------------------------------------------

int32_t isProdIdValid(uint64_t productId) {
    return productId != 0 ? 1 : 0;
}

int32_t isOrigIdValid(uint64_t originatorId) {
    return originatorId != 0 ? 1 : 0;
}

int32_t isLogSetValid(const char *name) {
    return name != nullptr ? 1 : 0;
}

int32_t isCfgValid(const LogCfg *cfg) {
    return cfg != nullptr && isProdIdValid(cfg->productId) != 0 && isOrigIdValid(cfg->originatorId) != 0 ? 1
                                                                                                         : 0;
}

int32_t isLogOpen(const LogHandle *handle) {
    return handle != nullptr && handle->file != nullptr ? 1 : 0;
}

// ---- memory -------------------------------------------------------------------------

void *zoltLogMalloc(size_t size) {
    return size == 0 ? nullptr : malloc(size);
}

void zoltLogFree(void *block) {
    free(block);
}

char *zoltLogSafeStrdup(const char *text) {
    if (text == nullptr)
        return nullptr;
    const size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(zoltLogMalloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}

uint32_t zoltLogResFreeErrorMessage(char *text) {
    if (text == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    zoltLogFree(text);
    return ZOLTLOG_OK;
}

uint32_t InitializeLocalizerList(LocalizerList *list) {
    if (list == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *list = {};
    return ZOLTLOG_OK;
}

// ---- time ---------------------------------------------------------------------------

int64_t convert_time(const char *text) {
    constexpr int FIELDS = 6;
    constexpr size_t LENGTH = 12;
    if (text == nullptr || strnlen(text, LENGTH) < LENGTH)
        return -1;
    char yearText[3];
    tm stamp = {};
    // NOLINTNEXTLINE(cert-err34-c): each number has two digits at most
    if (sscanf(text, "%2s%2d%2d%2d%2d%2d", yearText, &stamp.tm_mon, &stamp.tm_mday, &stamp.tm_hour,
               &stamp.tm_min, &stamp.tm_sec) != FIELDS)
        return -1;
    char century[sizeof "20" + sizeof yearText];
    snprintf(century, sizeof century, "20%2s", yearText);
    int year = 0;
    if (sscanf(century, "%4d", &year) != 1) // NOLINT(cert-err34-c): four digits at most
        return -1;
    stamp.tm_year = year - 1900;
    stamp.tm_mon -= 1;
    // KEPT: a stamp is always standard time, so that one written in summer is read an
    // hour late. Pinned by ConvertTime.SummerStampIsTakenAsStandardTime.
    stamp.tm_isdst = 0;
    return mktime(&stamp);
}

int32_t zoltLogStrTimeToT(const char *text, const char *delimiters, int32_t *first, int32_t *second,
                          int32_t *third) {
    if (text == nullptr || delimiters == nullptr || first == nullptr || second == nullptr || third == nullptr)
        return 0;
    int32_t *const outputs[] = {first, second, third};
    for (int32_t *output : outputs)
        *output = 0;
    const LogOwned<char> copy(zoltLogSafeStrdup(text));
    if (copy == nullptr)
        return 0;
    char *rest = nullptr;
    char *start = copy.get();
    for (int32_t *output : outputs) {
        const char *token = strtok_r(start, delimiters, &rest);
        if (token == nullptr)
            break;
        *output = static_cast<int32_t>(strtol(token, nullptr, 10));
        start = nullptr;
    }
    return 1;
}

int32_t zoltLogGetTime(const char *text, int32_t *hours, int32_t *minutes, int32_t *seconds) {
    return zoltLogStrTimeToT(text, ":", hours, minutes, seconds);
}

int64_t getLocalTZOffsetFromGMT(void) {
    const time_t now = time(nullptr);
    tm utc;
    if (zoltLogOs_gmtime_r(now, &utc) == nullptr)
        return 0;
    utc.tm_isdst = -1;
    return mktime(&utc) - now;
}

uint32_t TimeZoneToOffset(const char *text, int64_t *offset) {
    constexpr char PREFIX[] = "GMT";
    constexpr size_t PREFIX_LENGTH = sizeof PREFIX - 1;
    if (text == nullptr || offset == nullptr || strncmp(text, PREFIX, PREFIX_LENGTH) != 0)
        return ZOLTLOG_FAILED;
    if (text[PREFIX_LENGTH] == '\0') {
        *offset = 0;
        return ZOLTLOG_OK;
    }
    int hours = 0;
    int minutes = 0;
    (void)sscanf(text + PREFIX_LENGTH, "%d:%d", &hours, &minutes); // NOLINT(cert-err34-c): missing is 0
    // KEPT: hours 0 counts as west, so that GMT+0:30 is -1800.
    // Pinned by TimeZoneToOffset.ZeroHoursCountAsNegative.
    const uint32_t hourSeconds = static_cast<uint32_t>(hours) * 3600u;
    const uint32_t minuteSeconds = static_cast<uint32_t>(minutes) * 60u;
    *offset = static_cast<int32_t>(hours < 1 ? hourSeconds - minuteSeconds : hourSeconds + minuteSeconds);
    return ZOLTLOG_OK;
}

// ---- encodings ----------------------------------------------------------------------

namespace {

// What a measuring call may say: it was given no room, or just enough without the end.
bool measured(UErrorCode status) {
    return status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING ||
           U_SUCCESS(status);
}

template<typename T>
LogOwned<T> zeroed(int32_t count) {
    return LogOwned<T>(static_cast<T *>(calloc(static_cast<size_t>(count) + 1, sizeof(T))));
}

// utf8 -> UTF-16; length -1 for a terminated text. failure is the result for a text
// that is not UTF-8: the directions differ in it.
uint32_t utf8ToUtf16(const char *utf8, int32_t length, uint32_t failure, LogOwned<UChar> *out,
                     int32_t *units) {
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(nullptr, 0, units, utf8, length, &status);
    if (!measured(status))
        return failure;
    *out = zeroed<UChar>(*units);
    if (*out == nullptr)
        return ZOLTLOG_NO_MEMORY;
    status = U_ZERO_ERROR;
    u_strFromUTF8(out->get(), *units + 1, nullptr, utf8, length, &status);
    return U_SUCCESS(status) ? uint32_t{ZOLTLOG_OK} : failure;
}

} // namespace

uint32_t utf82wcs(wchar_t **out, const char *utf8, int32_t length) {
    if (out == nullptr || utf8 == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    LogOwned<UChar> utf16;
    int32_t units = 0;
    const uint32_t result = utf8ToUtf16(utf8, length, ZOLTLOG_FAILED, &utf16, &units);
    if (result != ZOLTLOG_OK)
        return result;
    units = u_strlen(utf16.get());
    UErrorCode status = U_ZERO_ERROR;
    int32_t count = 0;
    u_strToWCS(nullptr, 0, &count, utf16.get(), units, &status);
    if (!measured(status))
        return ZOLTLOG_FAILED;
    LogOwned<wchar_t> wide = zeroed<wchar_t>(count);
    if (wide == nullptr)
        return ZOLTLOG_NO_MEMORY;
    status = U_ZERO_ERROR;
    u_strToWCS(wide.get(), count + 1, nullptr, utf16.get(), units, &status);
    if (U_FAILURE(status))
        return ZOLTLOG_FAILED;
    *out = wide.release();
    return ZOLTLOG_OK;
}

uint32_t wcs2utf8(char **out, const wchar_t *wide) {
    if (out == nullptr || wide == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    int32_t units = 0;
    u_strFromWCS(nullptr, 0, &units, wide, -1, &status);
    if (!measured(status))
        return ZOLTLOG_FAILED;
    const LogOwned<UChar> utf16 = zeroed<UChar>(units);
    if (utf16 == nullptr)
        return ZOLTLOG_NO_MEMORY;
    status = U_ZERO_ERROR;
    u_strFromWCS(utf16.get(), units + 1, nullptr, wide, -1, &status);
    if (U_FAILURE(status))
        return ZOLTLOG_FAILED;
    status = U_ZERO_ERROR;
    int32_t size = 0;
    u_strToUTF8(nullptr, 0, &size, utf16.get(), units, &status);
    if (!measured(status))
        return ZOLTLOG_FAILED;
    LogOwned<char> utf8 = zeroed<char>(size);
    if (utf8 == nullptr)
        return ZOLTLOG_NO_MEMORY;
    status = U_ZERO_ERROR;
    u_strToUTF8(utf8.get(), size + 1, nullptr, utf16.get(), units, &status);
    if (U_FAILURE(status))
        return ZOLTLOG_FAILED;
    *out = utf8.release();
    return ZOLTLOG_OK;
}

uint32_t mbs2utf8(char **out, const char *narrow) {
    if (out == nullptr || narrow == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    const size_t length = strlen(narrow);
    if (isUtf8AsItIs(narrow, length)) {
        auto *copy = static_cast<char *>(zoltLogMalloc(length + 1));
        if (copy == nullptr)
            return ZOLTLOG_NO_MEMORY;
        memcpy(copy, narrow, length + 1);
        *out = copy;
        return ZOLTLOG_OK;
    }
    const LogOwned<wchar_t> wide(static_cast<wchar_t *>(calloc(length + 1, sizeof(wchar_t))));
    if (wide == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (mbstowcs(wide.get(), narrow, length + 1) == static_cast<size_t>(-1))
        return ZOLTLOG_FAILED;
    return wcs2utf8(out, wide.get());
}

uint32_t utf82mbs(char **out, const char *utf8) {
    if (out == nullptr || utf8 == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    LogOwned<UChar> utf16;
    int32_t units = 0;
    const uint32_t result = utf8ToUtf16(utf8, -1, ZOLTLOG_INVALID_ARGUMENT, &utf16, &units);
    if (result != ZOLTLOG_OK)
        return result;
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<UConverter, decltype(&ucnv_close)> converter(ucnv_open(nullptr, &status),
                                                                       ucnv_close);
    if (U_FAILURE(status))
        return ZOLTLOG_INVALID_ARGUMENT;
    const int32_t size = ucnv_fromUChars(converter.get(), nullptr, 0, utf16.get(), units, &status);
    if (!measured(status))
        return ZOLTLOG_INVALID_ARGUMENT;
    LogOwned<char> narrow = zeroed<char>(size);
    if (narrow == nullptr)
        return ZOLTLOG_NO_MEMORY;
    status = U_ZERO_ERROR;
    ucnv_fromUChars(converter.get(), narrow.get(), size + 1, utf16.get(), units, &status);
    if (U_FAILURE(status))
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = narrow.release();
    return ZOLTLOG_OK;
}
