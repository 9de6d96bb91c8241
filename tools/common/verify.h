// SPDX-License-Identifier: Apache-2.0
// Checks a log file record by record: what is torn, which length is wrong, where
// it goes on, and what does not fit together.
#pragma once

#include "common/record_file.h"

#include <cstdint>
#include <functional>
#include <string>

namespace tools {

struct Finding {
    bool problem = true; // false: a note, which does not make the file bad
    uint64_t offset = 0; // of the line in the file
    uint64_t at = 0;     // of the damage in the file
    std::string text;    // without file name and offset
};

struct VerifyCounts {
    uint64_t records = 0;
    uint64_t damaged = 0;  // lines that are no records
    uint64_t salvaged = 0; // records found behind a torn one in the same line
    uint64_t problems = 0;
    uint64_t notes = 0;
    uint64_t bytes = 0;
    bool hasTimes = false;
    int64_t first = 0, last = 0; // milliseconds
};

// Checked: the header line and that it fits the file name; every record's numbers,
// lengths, attributes and blocks; that product and file originator are the file's;
// that the file ends with a line feed. Noted: times that go back by more than
// ORDER_SLACK, further header lines, a file without header, an empty file.
// False when the file could not be read (problem).
bool verifyFile(const std::string &path, const std::function<void(const Finding &)> &report,
                VerifyCounts &counts, std::string &problem);

} // namespace tools
