#include "common/fields.h"

#include <charconv>

namespace tools {

namespace {

struct NameRow {
    int32_t value;
    const char *name;
};

constexpr NameRow kinds[] = {{ZOLTLOG_MSG_DEBUG, "debug"},
                             {ZOLTLOG_MSG_DIAG, "diagnostic"},
                             {ZOLTLOG_MSG_APP, "application"},
                             {ZOLTLOG_MSG_CONTEXT, "context"},
                             {ZOLTLOG_MSG_AUDIT, "audit"}};

// The first name of a value is the one that is shown.
constexpr NameRow severities[] = {
    {ZOLTLOG_SEVERITY_INFO, "info"},           {ZOLTLOG_SEVERITY_WARNING, "warning"},
    {ZOLTLOG_SEVERITY_ERROR, "error"},         {ZOLTLOG_SEVERITY_CRITICAL, "critical"},
    {ZOLTLOG_SEVERITY_EMERGENCY, "emergency"}, {ZOLTLOG_SEVERITY_INFO, "notice"},
    {ZOLTLOG_SEVERITY_WARNING, "warn"},        {ZOLTLOG_SEVERITY_ERROR, "err"},
    {ZOLTLOG_SEVERITY_CRITICAL, "crit"},       {ZOLTLOG_SEVERITY_EMERGENCY, "emerg"},
    {ZOLTLOG_SEVERITY_EMERGENCY, "fatal"}};

bool parseSmallNumber(std::string_view text, int32_t limit, int32_t &value) {
    int32_t read = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), read);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || read < 0 || read > limit)
        return false;
    value = read;
    return true;
}

} // namespace

const char *kindName(uint32_t type) {
    for (const NameRow &row : kinds) {
        if (static_cast<uint32_t>(row.value) == type)
            return row.name;
    }
    return "unknown";
}

bool parseKind(std::string_view text, uint32_t &type) {
    constexpr size_t shortest = 3;
    int32_t number = 0;
    if (parseSmallNumber(text, ZOLTLOG_MSG_AUDIT, number)) {
        type = static_cast<uint32_t>(number);
        return true;
    }
    if (text == "unknown") {
        type = TypeUnknown;
        return true;
    }
    for (const NameRow &row : kinds) {
        const std::string_view name = row.name;
        if (text.size() >= shortest && name.substr(0, text.size()) == text) {
            type = static_cast<uint32_t>(row.value);
            return true;
        }
    }
    return false;
}

const char *severityName(int32_t severity) {
    for (const NameRow &row : severities) {
        if (row.value == severity)
            return row.name;
    }
    return "unknown";
}

bool parseSeverity(std::string_view text, int32_t &severity) {
    if (parseSmallNumber(text, ZOLTLOG_SEVERITY_EMERGENCY, severity))
        return true;
    for (const NameRow &row : severities) {
        if (text == row.name) {
            severity = row.value;
            return true;
        }
    }
    return false;
}

// ---- fields ------------------------------------------------------------------------

const FieldRow fieldTable[FieldCount] = {
    {Field::Ts, FieldType::Signed, "ts", "time stamp, milliseconds since 1970-01-01 UTC"},
    {Field::Time, FieldType::Time, "time", "time stamp as a time"},
    {Field::Type, FieldType::Number, "type", "message type: 0 debug to 4 audit"},
    {Field::Kind, FieldType::Text, "kind", "debug, diagnostic, application, context, audit"},
    {Field::Product, FieldType::Number, "product", "product id"},
    {Field::Originator, FieldType::Number, "originator", "originator id"},
    {Field::FileOriginator, FieldType::Number, "file_originator", "originator id of the file"},
    {Field::MessageId, FieldType::Number, "msgid", "the caller's message id, or the sequence number"},
    {Field::Pid, FieldType::Number, "pid", "process id"},
    {Field::Tid, FieldType::Number, "tid", "thread id"},
    {Field::Context, FieldType::Text, "context", "context token"},
    {Field::Text, FieldType::Text, "text", "message text"},
    {Field::Who, FieldType::Text, "who", "reporting component (debug, diagnostic, application)"},
    {Field::Subject, FieldType::Text, "subject", "subject (audit)"},
    {Field::Title, FieldType::Text, "title", "context title (context)"},
    {Field::Severity, FieldType::Signed, "severity", "0 info to 4 emergency (application)"},
    {Field::Level, FieldType::Signed, "level", "1 to 6 (debug, diagnostic)"},
    {Field::Outcome, FieldType::Signed, "outcome", "outcome (audit)"},
    {Field::Sev, FieldType::Text, "sev", "severity by name (application)"},
    {Field::Host, FieldType::Text, "host", "host name of the writer"},
    {Field::LogSet, FieldType::Text, "logset", "log set of the file"},
    {Field::Block, FieldType::Text, "block", "argument block, when it is not empty"},
    {Field::File, FieldType::Text, "file", "path of the file"},
    {Field::Offset, FieldType::Number, "offset", "position in the file"},
};

const FieldRow *findField(std::string_view name) {
    for (const FieldRow &row : fieldTable) {
        if (name == row.name)
            return &row;
    }
    return nullptr;
}

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

} // namespace

FieldValue fieldValue(const Item &item, Field field) {
    const Record &record = item.record;
    const bool prefix = record.hasPrefix();
    const uint32_t type = record.type;
    switch (field) {
    case Field::Ts:
    case Field::Time:
        return signedOf(record.time, prefix);
    case Field::Type:
        return numberOf(type, type != TypeUnknown);
    case Field::Kind:
        return textOf(kindName(type));
    case Field::Product:
        return numberOf(record.product,
                        record.product != 0 || record.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    case Field::Originator:
        return numberOf(record.originator, prefix);
    case Field::FileOriginator:
        return numberOf(record.fileOriginator, record.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    case Field::MessageId:
        return numberOf(record.messageId, prefix);
    case Field::Pid:
        return numberOf(record.pid, prefix);
    case Field::Tid:
        return numberOf(record.tid, prefix);
    case Field::Context:
        return textOf(record.context, !record.context.empty());
    case Field::Text:
        return textOf(record.text);
    case Field::Who:
        return textOf(record.who, type <= ZOLTLOG_MSG_APP || (type == TypeUnknown && !record.who.empty()));
    case Field::Subject:
        return textOf(record.who, type == ZOLTLOG_MSG_AUDIT);
    case Field::Title:
        return textOf(record.who, type == ZOLTLOG_MSG_CONTEXT);
    case Field::Severity:
        return signedOf(record.number, type == ZOLTLOG_MSG_APP);
    case Field::Level:
        return signedOf(record.number, type <= ZOLTLOG_MSG_DIAG);
    case Field::Outcome:
        return signedOf(record.number, type == ZOLTLOG_MSG_AUDIT);
    case Field::Sev:
        return textOf(type == ZOLTLOG_MSG_APP ? severityName(record.number) : "", type == ZOLTLOG_MSG_APP);
    case Field::Host:
        return textOf(item.origin->host, item.origin->hasHost);
    case Field::LogSet:
        return textOf(item.origin->logSet, !item.origin->logSet.empty());
    case Field::Block:
        return textOf(record.block, !record.block.empty() && record.block != "(0|)");
    case Field::File:
        return textOf(item.origin->path);
    case Field::Offset:
        return numberOf(item.offset);
    }
    return {};
}

HeldItem::HeldItem(const Item &from) : bytes(from.record.line), item(from) {
    const char *const old = from.record.line.data();
    const auto moved = [&](std::string_view &view) {
        if (view.data() != nullptr)
            view = {bytes.data() + (view.data() - old), view.size()};
    };
    Record &record = item.record;
    for (std::string_view *view : {&record.context, &record.text, &record.who, &record.block, &record.line})
        moved(*view);
}

} // namespace tools
