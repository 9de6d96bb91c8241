// SPDX-License-Identifier: Apache-2.0
// Log file names, header lines and records: the inverse of what the library
// writes. One place for all tools; nothing here allocates except walkBlock's list.
// The grammar of names and header lines is in src/log_name.h, which reads them.
//
//   file     = HEADER LF { RECORD LF }
//   RECORD   = PREFIX context text FIELDS      (every field ends in "," except the last)
//   PREFIX   = type,product,originator,file originator,message id,time,pid,tid,   65543
//            | type,originator,message id,time,pid,tid,                           65544
//            | (nothing)                                                          65540 to 65542
//   FIELDS   = who level                       debug
//            | who level BLOCK                 diagnostic
//            | who severity BLOCK              application (no who in 65540 and 65541)
//            | title BLOCK                     context
//            | subject outcome BLOCK           audit
//   string   = LENGTH ":" BYTES                (context, text, who, title, subject)
//   BLOCK    = "(" NUMBER "|" { ARGUMENT } ")"
//
// The writer replaces a line feed inside a record by a carriage return and leaves
// the lengths as they are, so a line feed always ends a record.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "zoltlog.h"

namespace tools {

// ---- file names ------------------------------------------------------------------

struct FileName {
    enum class Kind { Other, Originator, LogSet };
    Kind kind = Kind::Other;
    uint64_t product = 0;
    uint64_t originator = 0;              // Originator
    uint64_t host = 0;                    // Originator
    uint64_t counter = 0;                 // Originator
    std::string_view logSet;              // LogSet: a part of the name that was parsed
    std::string_view dateTime;            // LogSet: YYMMDDhhmmss, likewise
    int year = 0, month = 0, day = 0;     // local time of the writer; the year in full
    int hour = 0, minute = 0, second = 0; // LogSet
    bool isPacked = false;                // behind the name ".gz" or ".zst"
};

// False when the name (without its directory) is not one that the library forms, also not
// with what a compressed file's has behind it.
bool parseFileName(std::string_view name, FileName &out);

// ---- headers ---------------------------------------------------------------------

struct Header {
    uint64_t version = 0; // 0: no header was read
    uint64_t product = 0;
    uint64_t originator = 0;
    int64_t created = 0; // seconds since 1970-01-01 UTC; 0 when the header has none
    bool hasOffset = false;
    int64_t offset = 0; // seconds to ADD to the writer's local time to reach UTC: -7200 in UTC+2
    std::string_view host;
};

enum class HeaderResult { Ok, NotAHeader, UnknownVersion, Malformed };
HeaderResult parseHeader(std::string_view line, Header &out); // line without its line feed

// ---- records ---------------------------------------------------------------------

// The type of a record, ZOLTLOG_MSG_..., that the fields of a version without prefix do not tell.
constexpr uint32_t TYPE_UNKNOWN = 255;

struct Record {
    std::string_view line; // all of it, without the line feed
    uint64_t version = 0;
    uint32_t type = TYPE_UNKNOWN;
    uint64_t product = 0;        // 65543
    uint64_t originator = 0;     // 65543, 65544
    uint64_t fileOriginator = 0; // 65543
    uint64_t messageId = 0;
    int64_t time = 0; // milliseconds since 1970-01-01 UTC
    uint64_t pid = 0;
    uint64_t tid = 0;
    std::string_view context;
    std::string_view text;
    std::string_view who; // who, subject or context title
    int32_t number = 0;   // severity, level or outcome
    bool hasNumber = false;
    std::string_view block; // "(0|)"; empty in debug records

    bool hasPrefix() const { return version > ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX; }
};

enum class Damage {
    None,
    NotANumber,   // a number of the prefix is missing or too large
    UnknownType,  // a type that is never written to a file
    BadLength,    // no "LENGTH:" where a string begins
    Cut,          // a string's length goes beyond the end of the line
    WrongLength,  // no comma where a string ends
    BadAttribute, // severity, level or outcome
    BadBlock,     // argument block
    MoreBytes,    // bytes behind the end of the record
    Empty,        // an empty line
    TooLong,      // a line beyond the bound of the line reader
    NoLineFeed,   // the file ends within a record
};

struct Fault {
    Damage damage = Damage::None;
    size_t at = 0; // position in the line
};

const char *damageText(Damage damage);

// Reads one record (line: without its line feed). The views in `out` point into the
// line. With version 0 (a file without header) the numbers tell 65543 from 65544.
bool parseRecord(std::string_view line, uint64_t version, Record &out, Fault &fault);

// Only the time stamp; false when the prefix is damaged or the version has none.
bool parseRecordTime(std::string_view line, uint64_t version, int64_t &time);

// Looks in a line that parseRecord refused for a whole record that ends with the
// line: what a later write leaves behind a torn one. Its position goes to `at`.
bool salvageRecord(std::string_view line, uint64_t version, Record &out, size_t &at);

// ---- argument blocks -------------------------------------------------------------

// An argument as it was written. Letters: '1' one character, 'i' 'u' integers with a
// width, '8' double, '9' unsigned 64 bits, 'A' wide string, 'D' integers of kinds 6
// and 7, 'C' signed 64 bits, 'X' 'S' narrow strings, '(' a nested block (text: its
// number), ')' the end of a nested block.
struct Argument {
    char letter = 0;
    uint32_t width = 0; // i u D 9 C: bits or bytes, as written
    std::string_view text;
};

// Reads a block from its "(" at `at`; on success `at` is behind its ")". `number` is
// the catalogue reference. With a list the arguments are appended to it.
bool walkBlock(std::string_view line, size_t &at, uint64_t &number, std::vector<Argument> *arguments);

} // namespace tools
