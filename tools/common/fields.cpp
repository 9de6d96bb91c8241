// SPDX-License-Identifier: Apache-2.0
#include "common/fields.h"

#include "common/number_text.h"

#include <functional>
#include <iterator>

namespace tools {

namespace {

struct NameRow {
    int32_t value;
    const char *name;
};

constexpr NameRow KINDS[] = {{ZOLTLOG_MSG_DEBUG, "debug"},
                             {ZOLTLOG_MSG_DIAG, "diagnostic"},
                             {ZOLTLOG_MSG_APP, "application"},
                             {ZOLTLOG_MSG_CONTEXT, "context"},
                             {ZOLTLOG_MSG_AUDIT, "audit"}};

// The first name of a value is the one that is shown.
constexpr NameRow SEVERITIES[] = {
    {ZOLTLOG_SEVERITY_INFO, "info"},           {ZOLTLOG_SEVERITY_WARNING, "warning"},
    {ZOLTLOG_SEVERITY_ERROR, "error"},         {ZOLTLOG_SEVERITY_CRITICAL, "critical"},
    {ZOLTLOG_SEVERITY_EMERGENCY, "emergency"}, {ZOLTLOG_SEVERITY_INFO, "notice"},
    {ZOLTLOG_SEVERITY_WARNING, "warn"},        {ZOLTLOG_SEVERITY_ERROR, "err"},
    {ZOLTLOG_SEVERITY_CRITICAL, "crit"},       {ZOLTLOG_SEVERITY_EMERGENCY, "emerg"},
    {ZOLTLOG_SEVERITY_EMERGENCY, "fatal"}};

bool parseSmallNumber(std::string_view text, int32_t limit, int32_t &value) {
    uint32_t read = 0;
    if (!parseNumber(text, read) || read > static_cast<uint32_t>(limit))
        return false;
    value = static_cast<int32_t>(read);
    return true;
}

} // namespace

const char *kindName(uint32_t type) {
    for (const NameRow &row : KINDS) {
        if (static_cast<uint32_t>(row.value) == type)
            return row.name;
    }
    return "unknown";
}

bool parseKind(std::string_view text, uint32_t &type) {
    constexpr size_t SHORTEST = 3;
    int32_t number = 0;
    if (parseSmallNumber(text, ZOLTLOG_MSG_AUDIT, number)) {
        type = static_cast<uint32_t>(number);
        return true;
    }
    if (text == "unknown") {
        type = TYPE_UNKNOWN;
        return true;
    }
    for (const NameRow &row : KINDS) {
        const std::string_view name = row.name;
        if (text.size() >= SHORTEST && name.substr(0, text.size()) == text) {
            type = static_cast<uint32_t>(row.value);
            return true;
        }
    }
    return false;
}

const char *severityName(int32_t severity) {
    for (const NameRow &row : SEVERITIES) {
        if (row.value == severity)
            return row.name;
    }
    return "unknown";
}

bool parseSeverity(std::string_view text, int32_t &severity) {
    if (parseSmallNumber(text, ZOLTLOG_SEVERITY_EMERGENCY, severity))
        return true;
    for (const NameRow &row : SEVERITIES) {
        if (text == row.name) {
            severity = row.value;
            return true;
        }
    }
    return false;
}

// ---- one scale for every kind of record ----------------------------------------------

namespace {

// The first row of a word is the one that is shown; what is found by name is found here.
constexpr NameRow RANKS[] = {
    {RANK_DEBUG, "debug"},  {RANK_DIAGNOSTIC, "diagnostic"}, {RANK_INFO, "info"},
    {RANK_INFO, "context"}, {RANK_AUDIT, "audit"},           {RANK_WARNING, "warning"},
    {RANK_ERROR, "error"},  {RANK_CRITICAL, "critical"},     {RANK_EMERGENCY, "emergency"},
};
constexpr size_t INFO_ROW = 2;

// The row of a severity as writers give it.
const NameRow &rankOfSeverity(int32_t severity) {
    constexpr size_t FIRST_WORSE = 5; // warning
    return RANKS[severity == 0 ? INFO_ROW : FIRST_WORSE + static_cast<size_t>(severity) - 1];
}

} // namespace

bool rankOf(const Record &record, int32_t &rank, const char *&name) {
    if (record.type == TYPE_UNKNOWN)
        return false;
    constexpr size_t ROW_OF_KIND[] = {0, 1, INFO_ROW, 3, 4};
    const NameRow &row =
        record.type == ZOLTLOG_MSG_APP ? rankOfSeverity(record.number) : RANKS[ROW_OF_KIND[record.type]];
    rank = row.value;
    name = row.name;
    return true;
}

bool parseRank(std::string_view text, int32_t &rank, const char *&name) {
    int32_t severity = 0;
    const NameRow *found = nullptr;
    if (parseSeverity(text, severity))
        found = &rankOfSeverity(severity);
    int32_t number = 0;
    const bool isNumber = parseSmallNumber(text, RANK_EMERGENCY, number);
    uint32_t kind = 0;
    for (const NameRow &row : RANKS) {
        const bool named = row.name == text || (!isNumber && parseKind(text, kind) &&
                                                row.name == std::string_view(kindName(kind)));
        if (found == nullptr && (named || (isNumber && row.value == number)))
            found = &row;
    }
    if (found == nullptr)
        return false;
    rank = found->value;
    name = found->name;
    return true;
}

std::vector<const char *> rankNames() {
    std::vector<const char *> names;
    for (const NameRow &row : RANKS)
        names.push_back(row.name);
    return names;
}

// ---- fields ------------------------------------------------------------------------

namespace {

FieldValue numberOf(uint64_t number, bool present = true) {
    FieldValue value;
    value.present = present;
    value.number = number;
    return value;
}

FieldValue signedOf(int64_t number, bool present = true) {
    FieldValue value;
    value.present = present;
    value.value = number;
    return value;
}

FieldValue textOf(std::string_view text, bool present = true) {
    FieldValue value;
    value.present = present;
    value.text = text;
    return value;
}

bool hasWho(const Record &record) {
    return record.type <= ZOLTLOG_MSG_APP || (record.type == TYPE_UNKNOWN && !record.who.empty());
}

FieldValue severity(const Item &item) {
    int32_t rank = 0;
    const char *name = nullptr;
    const bool present = rankOf(item.record, rank, name);
    return signedOf(rank, present);
}

FieldValue severityText(const Item &item) {
    int32_t rank = 0;
    const char *name = "";
    const bool present = rankOf(item.record, rank, name);
    return textOf(name, present);
}

FieldValue productName(const Item &item) {
    const std::string_view name =
        item.origin->names != nullptr ? item.origin->names->product(item.record.product) : "";
    return textOf(name, !name.empty());
}

FieldValue originatorName(const Item &item) {
    const Record &record = item.record;
    const std::string_view name = item.origin->names != nullptr
                                      ? item.origin->names->originator(record.product, record.originator)
                                      : "";
    return textOf(name, !name.empty());
}

FieldValue textLines(const Item &item) {
    FieldValue value = textOf(item.record.text);
    value.lines = true;
    return value;
}

FieldValue timeStamp(const Item &item) {
    return signedOf(item.record.time, item.record.hasPrefix());
}

const FieldRow FIELD_TABLE[] = {
    {"ts", FieldType::Signed, FieldRole::TimeStamp, timeStamp,
     "time stamp, milliseconds since 1970-01-01 UTC"},
    {"time", FieldType::Time, FieldRole::TimeStamp, timeStamp, "time stamp as a time"},
    {"type", FieldType::Number, FieldRole::Type,
     [](const Item &item) { return numberOf(item.record.type, item.record.type != TYPE_UNKNOWN); },
     "message type: 0 debug to 4 audit"},
    {"kind", FieldType::Text, FieldRole::Kind,
     [](const Item &item) { return textOf(kindName(item.record.type)); },
     "debug, diagnostic, application, context, audit"},
    {"product", FieldType::Id, FieldRole::Product,
     [](const Item &item) {
         const Record &record = item.record;
         return numberOf(record.product,
                         record.product != 0 || record.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR);
     },
     "product id"},
    {"product_name", FieldType::Text, FieldRole::Plain, productName,
     "first name of the product in the configuration"},
    {"originator", FieldType::Id, FieldRole::Plain,
     [](const Item &item) { return numberOf(item.record.originator, item.record.hasPrefix()); },
     "originator id"},
    {"originator_name", FieldType::Text, FieldRole::Plain, originatorName,
     "first name of the originator in the configuration"},
    {"file_originator", FieldType::Id, FieldRole::FileOriginator,
     [](const Item &item) {
         return numberOf(item.record.fileOriginator,
                         item.record.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR);
     },
     "originator id of the file"},
    {"msgid", FieldType::Id, FieldRole::Plain,
     [](const Item &item) { return numberOf(item.record.messageId, item.record.hasPrefix()); },
     "the caller's message id, or the sequence number", "message_id"},
    {"pid", FieldType::Id, FieldRole::Plain,
     [](const Item &item) { return numberOf(item.record.pid, item.record.hasPrefix()); }, "process id"},
    {"tid", FieldType::Id, FieldRole::Plain,
     [](const Item &item) { return numberOf(item.record.tid, item.record.hasPrefix()); }, "thread id",
     "thread"},
    {"context", FieldType::Text, FieldRole::Plain,
     [](const Item &item) { return textOf(item.record.context, !item.record.context.empty()); },
     "context token"},
    {"text", FieldType::Text, FieldRole::MessageText,
     [](const Item &item) { return textOf(item.record.text); }, "message text"},
    {"text_lines", FieldType::Text, FieldRole::TextLines, textLines, "message text with its line feeds"},
    {"who", FieldType::Text, FieldRole::Plain,
     [](const Item &item) { return textOf(item.record.who, hasWho(item.record)); },
     "reporting component (debug, diagnostic, application)"},
    {"subject", FieldType::Text, FieldRole::Plain,
     [](const Item &item) { return textOf(item.record.who, item.record.type == ZOLTLOG_MSG_AUDIT); },
     "subject (audit)"},
    {"title", FieldType::Text, FieldRole::Plain,
     [](const Item &item) { return textOf(item.record.who, item.record.type == ZOLTLOG_MSG_CONTEXT); },
     "context title (context)"},
    {"severity", FieldType::Signed, FieldRole::Severity, severity,
     "10 debug to 80 emergency, for every kind; larger is worse"},
    {"severity_text", FieldType::Text, FieldRole::SeverityName, severityText, "severity by name", "sev"},
    {"level", FieldType::Signed, FieldRole::Plain,
     [](const Item &item) { return signedOf(item.record.number, item.record.type <= ZOLTLOG_MSG_DIAG); },
     "1 to 6 (debug, diagnostic)"},
    {"outcome", FieldType::Signed, FieldRole::Plain,
     [](const Item &item) { return signedOf(item.record.number, item.record.type == ZOLTLOG_MSG_AUDIT); },
     "outcome (audit)"},
    {"host", FieldType::Text, FieldRole::Host,
     [](const Item &item) { return textOf(item.origin->host, item.origin->hasHost); },
     "host name of the writer"},
    {"logset", FieldType::Text, FieldRole::LogSet,
     [](const Item &item) { return textOf(item.origin->logSet, !item.origin->logSet.empty()); },
     "log set of the file"},
    {"block", FieldType::Text, FieldRole::Plain,
     [](const Item &item) {
         const std::string_view block = item.record.block;
         return textOf(block, !block.empty() && block != "(0|)");
     },
     "argument block, when it is not empty"},
    {"file", FieldType::Text, FieldRole::Place, [](const Item &item) { return textOf(item.origin->path); },
     "path of the file"},
    {"offset", FieldType::Number, FieldRole::Place, [](const Item &item) { return numberOf(item.offset); },
     "position in the file"},
};

} // namespace

FieldList allFields() {
    return {std::begin(FIELD_TABLE), std::end(FIELD_TABLE)};
}

Field findField(std::string_view name) {
    for (const FieldRow &row : FIELD_TABLE) {
        if (name == row.name || (row.alias != nullptr && name == row.alias))
            return &row;
    }
    return nullptr;
}

HeldItem::HeldItem(const Item &from)
    : bytes(from.record.line), item(from),
      origin(from.origin != nullptr ? from.origin->weak_from_this().lock() : nullptr) {
    const std::string_view old = from.record.line;
    Record &record = item.record;
    if (!record.text.empty() && (std::less<>()(record.text.data(), old.data()) ||
                                 !std::less<>()(record.text.data(), old.data() + old.size()))) {
        bytes += record.text; // made from a block, beside the line
        record.text = {bytes.data() + old.size(), record.text.size()};
    } else if (record.text.data() != nullptr) {
        record.text = {bytes.data() + (record.text.data() - old.data()), record.text.size()};
    }
    for (std::string_view *view : {&record.context, &record.who, &record.block, &record.line}) {
        if (view->data() != nullptr)
            *view = {bytes.data() + (view->data() - old.data()), view->size()};
    }
}

} // namespace tools
