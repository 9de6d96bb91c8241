// SPDX-License-Identifier: Apache-2.0
// What the user asked qdlogger for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/options.h"
#include "zoltlog.h"

namespace qdlogger {

struct Settings : tools::CommonOptions {
    std::string product;    // id or name
    std::string originator; // id or name; "": the default originator
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
    bool utf8 = false;
    std::optional<std::string> message; // the words of the command line; none: standard input
};

// The exit status to end with, or nothing: the settings hold what was asked for.
std::optional<int> parse(int argc, char **argv, Settings &settings);

} // namespace qdlogger
