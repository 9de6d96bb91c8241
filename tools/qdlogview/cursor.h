// SPDX-License-Identifier: Apache-2.0
// Places reached in many files, as a text.
//
//   CURSOR = ENTRY { ";" ENTRY }
//   ENTRY  = PATH "@" OFFSET     all before the offset was read
//          | PATH "@*"           this file and those before it in its series were read
//
// In paths % ; @ and control characters are written %XX.
#pragma once

#include "qdlogview/reader.h"

#include <cstdint>
#include <map>
#include <string>

namespace qdlogview {

struct Cursor {
    bool parse(const std::string &text, std::string &error);
    bool load(const std::string &file, std::string &error); // a file that is not there is an empty cursor
    bool empty() const { return offsets.empty() && finished.empty(); }

    // Where to begin in a file; WHOLE_FILE: it was read.
    uint64_t startOf(const SourceFile &source) const;

    std::map<std::string, uint64_t> offsets;
    struct Finished {
        std::string order;
        std::string path;
    };
    std::map<std::string, Finished> finished; // by series
};

std::string cursorText(const Reader &reader, const Cursor &before);

// Replaces the file as a whole. False: errno.
bool saveCursor(const std::string &file, const std::string &text);

} // namespace qdlogview
