// SPDX-License-Identifier: Apache-2.0
// The plug-in's line for messages with any texts, in several encodings: one line, which
// controls no terminal.
#include "formatter/zoltformat.h"
#include "fuzz/require.h"
#include "zoltlog.h"

#include <clocale>
#include <cstring>
#include <string>

namespace {

// Texts of the input stand between NUL bytes.
std::string nextText(std::string &rest) {
    const size_t end = rest.find('\0');
    const std::string text = rest.substr(0, end);
    rest.erase(0, end == std::string::npos ? rest.size() : end + 1);
    return text;
}

bool isSafe(const char *line) {
    for (; *line != '\0'; ++line)
        if (static_cast<unsigned char>(*line) < 0x20 || *line == 0x7f)
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t HEAD = 16;
    if (size < HEAD)
        return 0;
    std::setlocale(LC_ALL, (data[0] & 1) != 0 ? "C.UTF-8" : "C");
    std::string rest(reinterpret_cast<const char *>(data) + HEAD, size - HEAD);
    std::string text = nextText(rest);
    std::string who = nextText(rest);
    std::string token = nextText(rest);
    LogMsg msg = {};
    msg.type = data[1] % 8U;
    msg.utf8 = (data[0] & 2) != 0;
    msg.outcome = data[2];
    memcpy(&msg.timestamp, data + 8, sizeof msg.timestamp);
    msg.text = (data[0] & 4) != 0 ? nullptr : text.data();
    msg.who = (data[0] & 8) != 0 ? nullptr : who.data();
    msg.contextToken = (data[0] & 16) != 0 ? nullptr : token.data();
    if (msg.type == ZOLTLOG_MSG_CONTEXT)
        msg.attr.contextTitle = who.data();
    else
        msg.attr.level = data[3];
    char *line = nullptr;
    const uint32_t flags = uint32_t{data[4]} << 8;
    fuzz::require(LogFormatMessage(nullptr, 0, nullptr, 0, flags, 0, &msg, nullptr, &line) == ZOLTLOG_OK,
                  "a line");
    fuzz::require(isSafe(line), "a line without control characters");
    zoltLogFree(line);
    return 0;
}
