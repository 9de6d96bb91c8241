// SPDX-License-Identifier: Apache-2.0
// The fields of a record under the names that queries, output and completion use.
#pragma once

#include "common/record.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

// ---- names of kinds and severities -------------------------------------------------

const char *kindName(uint32_t type); // debug diagnostic application context audit unknown
bool parseKind(std::string_view text,
               uint32_t &type);             // the name, its beginning of 3 letters or more, the number
const char *severityName(int32_t severity); // info warning error critical emergency
bool parseSeverity(std::string_view text,
                   int32_t &severity); // also warn, err, crit, emerg, fatal, the number

// ---- one scale for every kind of record ----------------------------------------------

// Larger is worse. Debug, diagnostic, context and audit records have one place each, the
// severity of an application record says its place.
enum Rank : int32_t {
    RANK_DEBUG = 10,
    RANK_DIAGNOSTIC = 20,
    RANK_INFO = 30, // and context
    RANK_AUDIT = 40,
    RANK_WARNING = 50,
    RANK_ERROR = 60,
    RANK_CRITICAL = 70,
    RANK_EMERGENCY = 80,
};

bool rankOf(const Record &record, int32_t &rank, const char *&name); // false: an unknown kind
// A name of the scale, its other spellings, its number, or 0 to 4 as writers give them.
bool parseRank(std::string_view text, int32_t &rank, const char *&name);
std::vector<const char *> rankNames(); // from debug to emergency

// ---- fields ------------------------------------------------------------------------

// The names behind ids; "" for an id without one.
struct IdNames {
    std::map<uint64_t, std::string> products;
    std::map<std::pair<uint64_t, uint64_t>, std::string> originators; // by product and originator

    std::string_view product(uint64_t id) const {
        const auto found = products.find(id);
        return found != products.end() ? std::string_view(found->second) : std::string_view();
    }
    std::string_view originator(uint64_t product, uint64_t id) const {
        const auto found = originators.find({product, id});
        return found != originators.end() ? std::string_view(found->second) : std::string_view();
    }
};

// Where a record was found. Held by its reader while it reads there, and by copies of records;
// items point at it.
struct Origin : std::enable_shared_from_this<Origin> {
    std::string path;
    std::string base; // name without directory
    std::string logSet;
    std::string host;
    bool hasHost = false;
    bool hasOffset = false;
    int64_t offset = 0;     // of the writer's zone, as in the header
    std::string headerLine; // without its line feed; "" when the file has none
    const IdNames *names = nullptr;
};

struct Item {
    Record record;
    uint64_t offset = 0; // of the record in its file
    const Origin *origin = nullptr;
};

enum class FieldType {
    Id,     // uint64, a name rather than an amount: json may show it as a text
    Number, // uint64
    Signed, // int64
    Time,   // milliseconds since 1970-01-01 UTC
    Text,
};

struct FieldValue {
    bool present = false;
    uint64_t number = 0; // Id, Number
    int64_t value = 0;   // Signed, Time
    std::string_view text;
    bool lines = false; // the carriage returns of the text stand for line feeds
};

// What queries and output do with a field beyond its type.
enum class FieldRole {
    Plain,
    TimeStamp, // ts and time: tells which files can have a record
    Type,
    Kind,
    Severity,
    SeverityName,
    Product,
    FileOriginator,
    LogSet,
    Host,
    MessageText,
    TextLines,
    Place, // file and offset: in the title of full output
};

// A field is one row: all that queries, outputs, completion and the manual page
// know of it.
struct FieldRow {
    const char *name;
    FieldType type;
    FieldRole role;
    FieldValue (*value)(const Item &item);
    const char *help;
    const char *alias = nullptr; // another name that is understood
};
using Field = const FieldRow *;

struct FieldList {
    const FieldRow *first, *last;
    const FieldRow *begin() const { return first; }
    const FieldRow *end() const { return last; }
};
FieldList allFields();
Field findField(std::string_view name); // null: no such field

// A copy of a record that outlives its reader's buffer.
struct HeldItem {
    explicit HeldItem(const Item &from);

    std::string bytes;
    Item item;
    std::shared_ptr<const Origin> origin; // item's, kept
};

} // namespace tools
