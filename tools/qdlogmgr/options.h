// SPDX-License-Identifier: Apache-2.0
// What the command line of qdlogmgr asks for.
#pragma once

#include "common/options.h"
#include "common/time_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qdlogmgr {

struct Options : tools::CommonOptions {
    // Which series
    std::string product; // id or name
    std::string originator;
    std::string logset; // name or file name
    std::vector<std::string> directories;
    bool all = false;

    // Which of their files
    std::vector<std::string> files;
    bool surplusOnly = false;
    std::string olderThan;
    std::optional<uint64_t> keep;

    // What to do with them
    std::string to;
    bool link = false;
    bool compress = false;
    bool replace = false;
    std::string vacuumSize;
    std::string vacuumAge;
    std::optional<uint64_t> vacuumCount;
    bool dryRun = false;
    std::string since, until; // of bundles
    bool redact = false;
    std::string redactPatterns;

    // How to show it
    bool utc = false;
    bool paths = false;

    // Made of the above
    int64_t now = 0;              // milliseconds
    int64_t olderThanTime = 0;    // of olderThan
    int64_t vacuumOldest = 0;     // of vacuumAge
    uint64_t vacuumSizeBytes = 0; // of vacuumSize
    int64_t sinceTime = INT64_MIN, untilTime = INT64_MAX;

    tools::Zone zone() const { return utc ? tools::Zone::Utc : tools::Zone::Local; }
};

struct Run; // commands.h

struct Command : tools::Command {
    int (*run)(Run &);
};

// The exit status to end with, or nothing: options.command is a Command to run.
std::optional<int> parseCommandLine(int argc, char **argv, Options &options);

} // namespace qdlogmgr
