// SPDX-License-Identifier: Apache-2.0
// Places reached in many files, as a text.
//
//   FILE   = CURSOR { LF CURSOR } LF
//   CURSOR = ENTRY { ";" ENTRY }
//   ENTRY  = PATH "@" OFFSET     all before the offset was read
//          | PATH "@*"           this file and those before it in its series were read
//          | "spool:" NUMBER ":" RECORDS ":" BYTES   the last file of a spool that is complete
//
// In paths % ; @ and control characters are written %XX. The first line of a cursor file holds
// every place; the others those that changed, so that keeping the place costs what changed. A
// line without its end, left by a crash, was never written.
#pragma once

#include "qdlogview/reader.h"

#include <cstdint>
#include <map>
#include <string>

namespace qdlogview {

// A file of a spool: its content is on the disk, and the cursor is behind it.
struct SpoolMark {
    uint64_t number = 0; // 0: none
    uint64_t records = 0;
    uint64_t bytes = 0;
};

struct Cursor {
    bool parse(const std::string &text, std::string &error);
    bool load(const std::string &file, std::string &error); // a file that is not there is an empty cursor
    bool empty() const { return offsets.empty() && finished.empty(); }

    // Where to begin in a file; WHOLE_FILE: it was read.
    uint64_t startOf(const SourceFile &source) const;

    std::map<std::string, uint64_t> offsets;
    struct Finished {
        SeriesPlace place;
        std::string path;
    };
    std::map<std::string, Finished> finished; // by SourceFile::seriesName
    SpoolMark spooled;

  private:
    bool take(const std::string &text, std::string &error);
    bool takeSpooled(const std::string &entry);
};

std::string cursorText(const Reader &reader, const Cursor &before);

// Keeps the places of a reader in a file.
struct CursorFile {
    CursorFile() = default;
    ~CursorFile();
    CursorFile(const CursorFile &) = delete;
    CursorFile &operator=(const CursorFile &) = delete;

    // Appends what changed, or writes the file anew, which is renamed to its name. With a mark
    // (not null) the file is brought to the disk. False: errno.
    bool save(const std::string &file, Reader &reader, const Cursor &before, const SpoolMark *mark);

  private:
    bool replace(const std::string &file, const std::string &line);
    bool append(const std::string &line);

    int descriptor = -1;
    size_t whole = 0;    // bytes of the first line
    size_t appended = 0; // of the others
    SpoolMark spooled;
};

} // namespace qdlogview
