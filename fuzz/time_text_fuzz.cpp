// SPDX-License-Identifier: Apache-2.0
// Times, spans and sizes as users type them: what is understood is written in a form that is
// understood as the same.
#include "common/time_text.h"
#include "fuzz/require.h"

#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    static const int zoned = setenv("TZ", "Europe/Berlin", 1);
    (void)zoned;
    constexpr int64_t NOW = 1709300702123;
    const tools::Zone zone = (data[0] & 1) != 0 ? tools::Zone::Utc : tools::Zone::Local;
    const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::string error;
    int64_t time = 0;
    if (tools::parseTimeText(text, NOW, zone, time, error)) {
        tools::TimeFormatter formatter;
        formatter.mode = tools::TimeFormatter::Mode::Utc;
        std::string written;
        formatter.appendRfc3339(written, time);
        int64_t again = 0;
        constexpr int64_t YEAR_10000 = 253402300800000;
        constexpr int64_t YEAR_0 = -62167219200000;
        if (time >= YEAR_0 && time < YEAR_10000)
            fuzz::require(tools::parseTimeText(written, NOW, zone, again, error) && again == time,
                          "a time read back");
        (void)tools::formatTime(time, zone);
    } else {
        fuzz::require(!error.empty(), "a reason");
    }
    error.clear();
    if (tools::parseSpanText(text, time, error)) {
        fuzz::require(time >= 0, "a span without a sign");
        (void)tools::formatSpan(time);
    } else {
        fuzz::require(!error.empty(), "a reason");
    }
    uint64_t bytes = 0;
    if (tools::parseSizeText(text, bytes))
        (void)tools::formatSize(bytes);
    return 0;
}
