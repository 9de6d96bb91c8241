// SPDX-License-Identifier: Apache-2.0
// A directory of files for a shipper to take: each record of the logs is in one of them once,
// also when this process is killed at any moment.
//
//   qdul-NUMBER-RECORDS.FORMAT    published: never changed again; the taker may remove it
//   qdul-NUMBER.FORMAT.part       being written
//
// A file becomes safe in three steps: seal() brings it to the disk, still as .part; then the
// cursor is saved, which holds the places behind it and its mark; then publish() renames it.
// What open() finds of an earlier process is thereby told apart: the .part that the cursor
// names is published, any other was never finished and is removed, to be written again.
#pragma once

#include "common/terminal.h"
#include "qdlogview/cursor.h"
#include "qdlogview/settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdlogview {

struct Spool {
    explicit Spool(const Settings &settings);
    ~Spool();
    Spool(const Spool &) = delete;
    Spool &operator=(const Spool &) = delete;

    // Takes the directory for this process alone; the cursor is read after that. False, as
    // below: see problem.
    bool lock();
    // Cleans up behind an earlier process, whose cursor has the mark.
    bool open(const SpoolMark &last);

    bool begin(); // makes the next .part; records go to out
    bool isOpen() const { return out.descriptor >= 0; }
    // Large or old enough to be published; while records keep coming the clock is not asked
    // for each of them.
    bool isDue(bool isIdle);
    bool seal(SpoolMark &to); // ends the .part
    bool publish();           // after seal(), and drops the oldest files beyond the bound

    tools::Output out{-1};
    uint64_t records = 0; // in the .part
    std::string problem;
    uint64_t dropped = 0; // files

  private:
    struct Published {
        uint64_t number = 0;
        uint64_t records = 0;
        uint64_t bytes = 0;
        std::string name;
    };

    bool fail(const std::string &name);
    bool list(std::vector<std::string> &parts);
    bool recover(const std::string &part, const SpoolMark &last);
    bool drop();
    std::string partName() const;

    const Settings &settings;
    const std::string directory; // ends in '/'
    int handle = -1;             // of the directory, locked
    SpoolMark current;           // being written, or sealed
    int64_t began = 0;           // milliseconds, of a clock that only goes forwards
    unsigned asked = 0;          // times that isDue() was asked
    std::vector<Published> published;
    uint64_t total = 0; // bytes of these; takers may have removed some meanwhile
};

} // namespace qdlogview
