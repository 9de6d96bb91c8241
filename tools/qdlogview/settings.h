// What the command line asks for.
#pragma once

#include "common/fields.h"
#include "common/terminal.h"
#include "common/time_text.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdlogview {

enum class Format { Short, Full, Json, Csv, Raw, Template };
enum class Report { None, Count, Stats, Values, Gaps, Verify };

struct NumberRange {
    uint64_t first = 0, last = 0;
};

constexpr uint64_t AllLines = UINT64_MAX;

// One object, grouped by meaning and not by size.
struct Settings { // NOLINT(clang-analyzer-optin.performance.Padding)
    // Which files
    std::vector<std::string> paths; // files and directories
    std::string config;
    std::string product; // id or name
    std::string fileOriginator;
    std::string logSet;

    // Which records
    std::string since, until;
    std::vector<uint32_t> kinds;
    bool hasPriority = false;
    int32_t lowestPriority = 0, highestPriority = 4;
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

    // Output
    Format format = Format::Short;
    bool hasFormat = false;
    std::string layout; // --template
    std::vector<tools::Field> fields;
    bool utc = false, writerTime = false;
    bool rawText = false, idsAsText = false, withLine = false;
    tools::ColorMode color = tools::ColorMode::Auto;
    bool noPager = false, quiet = false;

    // Instead of records
    Report report = Report::None;
    tools::Field valuesOf = tools::Field::Text;
    std::string complete;
    bool help = false, version = false;
};

// False with an error text: wrong usage.
bool parseCommandLine(int argc, char **argv, Settings &settings, std::string &error);
void appendUsage(std::string &out);
void appendOptionList(std::string &out); // for completion and the test of the manual

// Conditions that come to naught together; false with an error text.
bool checkSettings(const Settings &settings, std::string &error);

} // namespace qdlogview
