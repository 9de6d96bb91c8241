// SPDX-License-Identifier: Apache-2.0
// A value of a table with commas (RFC 4180).
#pragma once

#include "common/utf8.h"

#include <string>
#include <string_view>

namespace tools {

// Bytes that are not UTF-8 become U+FFFD.
inline void appendCsv(std::string &out, std::string_view value) {
    const std::string repaired = findInvalidUtf8(value) != std::string_view::npos ? repairedUtf8(value) : "";
    const std::string_view text = repaired.empty() ? value : repaired;
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    out += '"';
    for (const char c : text) {
        if (c == '"')
            out += '"';
        out += c;
    }
    out += '"';
}

} // namespace tools
