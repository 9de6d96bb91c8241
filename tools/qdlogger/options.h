// What the user asked qdlogger for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "zoltlog.h"

namespace qdlogger {

struct Settings {
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
    std::optional<std::string> config;
    bool utf8 = false;
    bool help = false;
    bool version = false;
    std::string complete;               // what a shell wants to complete
    std::optional<std::string> message; // the words of the command line; none: standard input
};

// False with an error text: wrong usage.
bool parse(int argc, char **argv, Settings &settings, std::string &error);
std::string helpText();
// The words for a shell's completion: options, kinds, severities; a line each. Empty
// for anything else.
std::string completions(const std::string &what);

} // namespace qdlogger
