// SPDX-License-Identifier: Apache-2.0
// Small routines that every unit uses. The conversions go through ICU's UTF-16; on
// the way of a message the tests of isUtf8AsItIs save them.
//
//   Identifiers      validity
//   Memory           the allocator that callers share
//   Time             compact stamps, clock texts, time zones
//   Encodings        the conversions
#include "cmn_routines.h"

#include "decimal.h"
#include "keep_loaded.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

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
        int64_t number = 0;
        (void)scanSigned(&token, ANY_WIDTH, &number);
        *output = static_cast<int32_t>(number);
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
    int64_t hourNumber = 0; // what is missing is 0
    int64_t minuteNumber = 0;
    text += PREFIX_LENGTH;
    if (scanSigned(&text, ANY_WIDTH, &hourNumber) && *text == ':')
        (void)scanSigned(&++text, ANY_WIDTH, &minuteNumber);
    const auto hours = static_cast<int32_t>(hourNumber);
    const auto minutes = static_cast<int32_t>(minuteNumber);
    // KEPT: hours 0 counts as west, so that GMT+0:30 is -1800.
    // Pinned by TimeZoneToOffset.ZeroHoursCountAsNegative.
    const uint32_t hourSeconds = static_cast<uint32_t>(hours) * 3600u;
    const uint32_t minuteSeconds = static_cast<uint32_t>(minutes) * 60u;
    *offset = static_cast<int32_t>(hours < 1 ? hourSeconds - minuteSeconds : hourSeconds + minuteSeconds);
    return ZOLTLOG_OK;
}

// ---- encodings ----------------------------------------------------------------------

namespace {

[[gnu::constructor]] void keepIcu() {
    keepLibraryLoaded(reinterpret_cast<const void *>(ucnv_close));
}

// What a measuring call may say: it was given no room, or just enough without the end.
bool measured(UErrorCode status) {
    return status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING ||
           U_SUCCESS(status);
}

template<typename T>
LogOwned<T> zeroed(int32_t count) {
    return LogOwned<T>(static_cast<T *>(calloc(static_cast<size_t>(count) + 1, sizeof(T))));
}

// What an ICU conversion makes, in *out with a zero behind it, and how many units that
// is. It is run twice, first without room, to measure. failure is the result for a text
// that it refuses: the directions differ in it.
template<typename Unit, typename Convert>
uint32_t convertTwice(LogOwned<Unit> *out, int32_t *count, uint32_t failure, Convert convert) {
    UErrorCode status = U_ZERO_ERROR;
    convert(nullptr, 0, count, &status);
    if (!measured(status))
        return failure;
    *out = zeroed<Unit>(*count);
    if (*out == nullptr)
        return ZOLTLOG_NO_MEMORY;
    int32_t written = 0;
    status = U_ZERO_ERROR;
    convert(out->get(), *count + 1, &written, &status);
    return U_SUCCESS(status) ? uint32_t{ZOLTLOG_OK} : failure;
}

// length -1 for a terminated text
uint32_t utf8ToUtf16(const char *utf8, int32_t length, uint32_t failure, LogOwned<UChar> *out,
                     int32_t *units) {
    return convertTwice(out, units, failure,
                        [&](UChar *to, int32_t room, int32_t *count, UErrorCode *status) {
                            u_strFromUTF8(to, room, count, utf8, length, status);
                        });
}

} // namespace

uint32_t utf82wcs(wchar_t **out, const char *utf8, int32_t length) {
    if (out == nullptr || utf8 == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    LogOwned<UChar> utf16;
    LogOwned<wchar_t> wide;
    int32_t units = 0;
    uint32_t result = utf8ToUtf16(utf8, length, ZOLTLOG_FAILED, &utf16, &units);
    if (result != ZOLTLOG_OK)
        return result;
    units = u_strlen(utf16.get());
    int32_t count = 0;
    result = convertTwice(&wide, &count, ZOLTLOG_FAILED,
                          [&](wchar_t *to, int32_t room, int32_t *made, UErrorCode *status) {
                              u_strToWCS(to, room, made, utf16.get(), units, status);
                          });
    if (result == ZOLTLOG_OK)
        *out = wide.release();
    return result;
}

uint32_t wcs2utf8(char **out, const wchar_t *wide) {
    if (out == nullptr || wide == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    LogOwned<UChar> utf16;
    LogOwned<char> utf8;
    int32_t units = 0;
    uint32_t result = convertTwice(&utf16, &units, ZOLTLOG_FAILED,
                                   [&](UChar *to, int32_t room, int32_t *made, UErrorCode *status) {
                                       u_strFromWCS(to, room, made, wide, -1, status);
                                   });
    if (result != ZOLTLOG_OK)
        return result;
    int32_t size = 0;
    result = convertTwice(&utf8, &size, ZOLTLOG_FAILED,
                          [&](char *to, int32_t room, int32_t *made, UErrorCode *status) {
                              u_strToUTF8(to, room, made, utf16.get(), units, status);
                          });
    if (result == ZOLTLOG_OK)
        *out = utf8.release();
    return result;
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

namespace {

// The locale's code page; null when that is ASCII or UTF-8, for which ICU's default
// converter, mostly UTF-8, stands.
const char *ownCodePage() {
    const char *page = nl_langinfo(CODESET);
    return strcmp(page, "UTF-8") == 0 || strcmp(page, "ANSI_X3.4-1968") == 0 ? nullptr : page;
}

// As the C library has it, so that mbs2utf8 gives the same text back: ICU's converters of
// the same names write 288 characters of EUC-JP differently or not at all, 11 of Shift_JIS.
// *out stays null when the code page lacks a character.
uint32_t utf8ToLocale(char **out, const char *utf8) {
    wchar_t *converted = nullptr;
    const uint32_t result = utf82wcs(&converted, utf8, -1);
    const LogOwned<wchar_t> wide(converted);
    if (result != ZOLTLOG_OK)
        return result == ZOLTLOG_FAILED ? uint32_t{ZOLTLOG_INVALID_ARGUMENT} : result;
    const size_t size = wcstombs(nullptr, wide.get(), 0);
    if (size == static_cast<size_t>(-1))
        return ZOLTLOG_OK;
    LogOwned<char> narrow(static_cast<char *>(zoltLogMalloc(size + 1)));
    if (narrow == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (wcstombs(narrow.get(), wide.get(), size + 1) == size) // else the locale has changed
        *out = narrow.release();
    return ZOLTLOG_OK;
}

} // namespace

uint32_t utf82mbs(char **out, const char *utf8) {
    if (out == nullptr || utf8 == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = nullptr;
    const char *const page = ownCodePage();
    if (page != nullptr) {
        const uint32_t converted = utf8ToLocale(out, utf8);
        if (converted != ZOLTLOG_OK || *out != nullptr)
            return converted;
    }
    LogOwned<UChar> utf16;
    LogOwned<char> narrow;
    int32_t units = 0;
    uint32_t result = utf8ToUtf16(utf8, -1, ZOLTLOG_INVALID_ARGUMENT, &utf16, &units);
    if (result != ZOLTLOG_OK)
        return result;
    UErrorCode opened = U_ZERO_ERROR;
    const std::unique_ptr<UConverter, decltype(&ucnv_close)> converter(ucnv_open(page, &opened), ucnv_close);
    if (U_FAILURE(opened))
        return ZOLTLOG_INVALID_ARGUMENT;
    int32_t size = 0;
    result = convertTwice(&narrow, &size, ZOLTLOG_INVALID_ARGUMENT,
                          [&](char *to, int32_t room, int32_t *made, UErrorCode *status) {
                              *made = ucnv_fromUChars(converter.get(), to, room, utf16.get(), units, status);
                          });
    if (result == ZOLTLOG_OK)
        *out = narrow.release();
    return result;
}
