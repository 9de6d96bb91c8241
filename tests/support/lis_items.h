// SPDX-License-Identifier: Apache-2.0
// A localization block as one line, for tests that look at its items.
#pragma once

#include <cstdarg>
#include <gtest/gtest.h>
#include <string>

#include "zoltlis.h"

namespace support {

// "id=0 11:disk  11:/var 1:93": the identity and each item's type and value.
inline std::string describe(ZoltLisBlock *block) {
    int64_t identity = -1;
    if (zoltLisGetTextId(block, &identity) != 0)
        return "no identity";
    std::string line = "id=" + std::to_string(identity);
    ZoltLisIterator item;
    if (zoltLisGetArgsBegin(block, &item) != 0)
        return line;
    do {
        uint32_t type = 99;
        int result = zoltLisGetArgTypeId(&item, &type);
        std::string value;
        int64_t integer = 0;
        uint64_t natural = 0;
        double real = 0;
        wchar_t character = 0;
        void *pointer = nullptr;
        const wchar_t *wide = nullptr;
        const char *text = nullptr;
        const ZoltLisOsError *error = nullptr;
        ZoltLisDateTime time = {};
        ZoltLisBlock *nested = nullptr;
        switch (type) {
        case ZOLTLIS_ITEM_WIDE_CHAR:
            result |= zoltLisGetArg_wchar(&item, &character);
            value = std::to_string(static_cast<int>(character));
            break;
        case ZOLTLIS_ITEM_SIGNED:
            result |= zoltLisGetArg_longlong(&item, &integer);
            value = std::to_string(integer);
            break;
        case ZOLTLIS_ITEM_UNSIGNED:
            result |= zoltLisGetArg_ulonglong(&item, &natural);
            value = std::to_string(natural);
            break;
        case ZOLTLIS_ITEM_DOUBLE:
            result |= zoltLisGetArg_double(&item, &real);
            value = std::to_string(real);
            break;
        case ZOLTLIS_ITEM_POINTER:
            result |= zoltLisGetArg_pointer(&item, &pointer);
            value = std::to_string(reinterpret_cast<uintptr_t>(pointer));
            break;
        case ZOLTLIS_ITEM_WIDE_STRING:
            result |= zoltLisGetArg_wstring(&item, &wide);
            for (; wide != nullptr && *wide != L'\0'; ++wide)
                value += *wide < 128 ? std::string(1, static_cast<char>(*wide))
                                     : "<" + std::to_string(static_cast<int>(*wide)) + ">";
            break;
        case ZOLTLIS_ITEM_OS_ERROR:
        case ZOLTLIS_ITEM_OS_ERROR_OTHER:
            result |= zoltLisGetArg_os_error(&item, &error);
            if (error != nullptr)
                value = std::to_string(error->kind) + "/" + std::to_string(error->code);
            break;
        case ZOLTLIS_ITEM_DATE_TIME:
            result |= zoltLisGetArg_datetime(&item, &time);
            value = std::to_string(time.seconds) + "." + std::to_string(time.nanoseconds);
            break;
        case ZOLTLIS_ITEM_NESTED:
            result |= zoltLisGetArg_lis(&item, &nested);
            value = nested != nullptr ? "(" + describe(nested) + ")" : "";
            break;
        case ZOLTLIS_ITEM_UTF8_STRING:
            result |= zoltLisGetArg_utf8string(&item, &text);
            value = text != nullptr ? text : "";
            break;
        case ZOLTLIS_ITEM_NATIVE_STRING:
            result |= zoltLisGetArg_nativeString(&item, &text);
            value = text != nullptr ? text : "";
            break;
        default:
            break;
        }
        line += " " + std::to_string(type) + ":" + (result == 0 ? value : "failed");
    } while (zoltLisGetNextArg(&item) == 0);
    return line;
}

// zoltLisVEx with its arguments in a row.
inline int32_t lisMessage(ZoltLisBlock *block, uint32_t utf8, int64_t number, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = zoltLisVEx(block, utf8, number, format, args);
    va_end(args);
    return result;
}

inline int32_t lisText(ZoltLisBlock *block, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = zoltLisTextV(block, format, args);
    va_end(args);
    return result;
}

// The block of a text with its arguments; the caller's to free.
template<typename... Values>
ZoltLisBlock textBlock(const char *format, Values... values) {
    ZoltLisBlock block = {};
    EXPECT_EQ(0, lisText(&block, format, values...));
    return block;
}

} // namespace support
