// What the user asked qdlogger for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "zoltlog.h"

namespace qdlogger {

struct Settings {
    uint64_t product = 0;
    uint64_t originator = ZOLTLOG_DEFAULT_ORIGINATOR;
    std::optional<std::string> logset;
    uint32_t kind = ZOLTLOG_MSG_APP;
    std::optional<uint32_t> severity;
    std::optional<uint32_t> level;
    std::optional<std::string> who;
    std::optional<uint64_t> id;
    std::optional<std::string> context;
    std::optional<std::string> subject;
    std::optional<uint32_t> outcome;
    uint32_t outputFlags = 0;
    std::optional<std::string> config;
    bool utf8 = false;
    std::optional<std::string> message; // the words of the command line; none: standard input
};

// Reads the command line. Something else than an exit status means: go on. Help,
// version and what is wrong have been printed otherwise.
constexpr int GoOn = -1;
int parse(int argc, char **argv, Settings &settings);

} // namespace qdlogger
