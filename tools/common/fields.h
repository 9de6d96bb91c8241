// The fields of a record under the names that queries, output and completion use.
#pragma once

#include "common/record.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

// ---- names of kinds and severities -------------------------------------------------

const char *kindName(uint32_t type); // debug diagnostic application context audit unknown
bool parseKind(std::string_view text,
               uint32_t &type);             // the name, its beginning of 3 letters or more, the number
const char *severityName(int32_t severity); // info warning error critical emergency
bool parseSeverity(std::string_view text,
                   int32_t &severity); // also warn, err, crit, emerg, fatal, the number

// ---- fields ------------------------------------------------------------------------

// Where a record was found. Held by its reader; records point at it.
struct Origin {
    std::string path;
    std::string base; // name without directory
    std::string logSet;
    std::string host;
    bool hasHost = false;
    bool hasOffset = false;
    int64_t offset = 0;     // of the writer's zone, as in the header
    std::string headerLine; // without its line feed; "" when the file has none
};

struct Item {
    Record record;
    uint64_t offset = 0; // of the record in its file
    const Origin *origin = nullptr;
};

enum class Field {
    Ts,
    Time,
    Type,
    Kind,
    Product,
    Originator,
    FileOriginator,
    MessageId,
    Pid,
    Tid,
    Context,
    Text,
    Who,
    Subject,
    Title,
    Severity,
    Level,
    Outcome,
    Sev,
    Host,
    LogSet,
    Block,
    File,
    Offset,
};
constexpr size_t FieldCount = 24;

enum class FieldType { Number, Signed, Time, Text };

struct FieldRow {
    Field field;
    FieldType type;
    const char *name;
    const char *help;
};
extern const FieldRow fieldTable[FieldCount]; // in the order of enum Field

const FieldRow *findField(std::string_view name); // null: no such field

struct FieldValue {
    bool present = false;
    uint64_t number = 0; // Number
    int64_t value = 0;   // Signed, Time (milliseconds)
    std::string_view text;
};
FieldValue fieldValue(const Item &item, Field field);

// A copy of a record that outlives its reader's buffer.
struct HeldItem {
    explicit HeldItem(const Item &from);

    std::string bytes;
    Item item;
};

} // namespace tools
