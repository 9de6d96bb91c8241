// SPDX-License-Identifier: Apache-2.0
// The settings that qdlogcfg knows: the library's own table, whose values pass through the
// library's own functions, so that what the tool accepts is what the library accepts.
#pragma once

#include <string>
#include <string_view>

#include "src/config_keys.h"

const CfgKey *findKey(std::string_view name);
// The known key that was probably meant by an unknown one ("" when none is near).
std::string nearestKey(std::string_view name);

inline CfgKeyId idOf(const CfgKey &key) {
    return static_cast<CfgKeyId>(&key - CFG_KEYS);
}
// Whether the key is read in a section of that sort.
inline bool isReadIn(const CfgKey &key, bool isLogset) {
    return (key.use & (isLogset ? CFG_READ_LOGSET : CFG_READ_ORIGINATOR)) != 0;
}
// The value of a record as it would be written; empty for an unset text, a number for a
// facility without a name.
std::string shown(const LogCfg &cfg, CfgKeyId id);
