// The settings that qdlogcfg knows: one row per key of an originator or log set
// section. Values pass through the library's own accessors, so that what the tool
// accepts is what the library accepts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zoltlog.h"

struct Key {
    const char *name;
    const char *values; // what may be written, for people
    const char *help;
    bool originator;
    bool logset;
    enum Form { TEXT, NUMBER, BOOLEAN } form; // how the property store writes it
    // The value of a record as it would be written; empty for an unset text.
    std::string (*show)(LogCfg &cfg);
    // Puts a value into a record; the library's result, or ZOLTLOG_INVALID_ARGUMENT.
    uint32_t (*apply)(LogCfg &cfg, const std::string &value);
    // Two different values, neither the built-in default, which the library accepts.
    const char *probeA;
    const char *probeB;
};

const std::vector<Key> &keys();
const Key *findKey(std::string_view name);
// The known key that was probably meant by an unknown one ("" when none is near).
std::string nearestKey(std::string_view name);
