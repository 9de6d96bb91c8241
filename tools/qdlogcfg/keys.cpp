// SPDX-License-Identifier: Apache-2.0
#include "keys.h"

#include <algorithm>
#include <cctype>
#include <vector>

const CfgKey *findKey(std::string_view name) {
    for (const CfgKey &key : CFG_KEYS)
        if (name == key.name)
            return &key;
    return nullptr;
}

std::string shown(const LogCfg &cfg, CfgKeyId id) {
    char buffer[CFG_SHOWN_SIZE];
    const char *text = cfgShow(&cfg, id, buffer);
    if (text == nullptr && CFG_KEYS[id].kind == CFG_FACILITY)
        return std::to_string(cfg.oslog.facility);
    return text != nullptr ? text : "";
}

std::string nearestKey(std::string_view name) {
    const auto lower = [](std::string_view text) {
        std::string result(text);
        std::transform(result.begin(), result.end(), result.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return result;
    };
    const std::string wanted = lower(name);
    std::string best;
    size_t bestDistance = 4; // more edits than this are another word
    for (const CfgKey &key : CFG_KEYS) {
        const std::string candidate = lower(key.name);
        std::vector<size_t> row(candidate.size() + 1);
        for (size_t j = 0; j <= candidate.size(); ++j)
            row[j] = j;
        for (size_t i = 1; i <= wanted.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= candidate.size(); ++j) {
                const size_t replaced = diagonal + (wanted[i - 1] == candidate[j - 1] ? 0 : 1);
                diagonal = row[j];
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
            }
        }
        if (row.back() < bestDistance) {
            bestDistance = row.back();
            best = key.name;
        }
    }
    return best;
}
