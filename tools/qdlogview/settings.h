// SPDX-License-Identifier: Apache-2.0
// What the command line asks for.
#pragma once

#include "common/fields.h"
#include "common/options.h"
#include "common/time_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qdlogview {

enum class Format { Short, Full, Json, Csv, Raw, Template, Otlp, Journal, Postgres, Rfc5424, Html };
enum class Report { None, Count, Stats, Values, Gaps, Verify, Runs };
enum class Per { None, Minute, Hour, Day };

struct NumberRange {
    uint64_t first = 0, last = 0;
};

constexpr uint64_t ALL_LINES = UINT64_MAX;

// One object, grouped by meaning and not by size.
struct Settings : tools::CommonOptions { // NOLINT(clang-analyzer-optin.performance.Padding)
    // Which files
    std::vector<std::string> paths; // files and directories
    std::string product;            // id or name
    std::string fileOriginator;
    std::string logSet;

    // Which records
    std::string since, until;
    std::vector<uint32_t> kinds;
    bool hasPriority = false;
    int32_t lowestPriority = 0, highestPriority = 0; // of enum Rank
    bool hasLevel = false;
    int32_t lowestLevel = 0, highestLevel = 0;
    std::string originator;                               // id or name
    std::vector<std::string> who, context, subject, host; // patterns of the shell
    std::vector<NumberRange> pids, tids, messageIds;
    bool hasOutcome = false;
    int32_t outcome = 0;
    std::string where;
    bool hasGrep = false;
    std::string grep;
    bool ignoreCase = false, invert = false;
    uint64_t before = 0, after = 0;

    // How many, in which order
    bool hasLines = false;
    uint64_t lines = 0;
    uint64_t maxCount = 0; // 0: no limit
    bool reverse = false;
    bool follow = false;
    int64_t timeout = 0; // milliseconds; 0: none
    bool scan = false;

    // Cursors
    std::string afterCursor, cursorFile;
    bool showCursor = false;

    // Files for shippers
    std::string spool;               // a directory
    uint64_t spoolSize = 16UL << 20; // bytes, of a file
    int64_t spoolAge = 5000;         // milliseconds, of a file that is being written
    uint64_t spoolKeep = 1UL << 30;  // bytes, of all files; 0: no limit
    bool hasSpoolOption = false;     // any of these three was given

    // Output
    Format format = Format::Short;
    bool hasFormat = false;
    std::string formatName = "short";          // as it was given
    std::string layout;                        // --template
    bool isoTimes = false, prettyJson = false; // variants of short and json
    std::vector<tools::Field> fields;
    bool utc = false, writerTime = false;
    std::string zone; // a name of the time zone database
    bool rawText = false, idsAsText = false, withLine = false;

    // Instead of records
    Report report = Report::None;
    tools::Field valuesOf = nullptr;
    Per per = Per::None; // --stats
    bool hasRun = false;
    int64_t run = 0; // 1: the first process run, 0: the last, -1: the one before it
};

// The exit status to end with, or nothing: the settings hold what was asked for, and
// nothing in them excludes anything else.
std::optional<int> parseCommandLine(int argc, char **argv, Settings &settings);

// Tells a wrong usage; the exit status.
int usageError(const Settings &settings, const std::string &why);

} // namespace qdlogview
