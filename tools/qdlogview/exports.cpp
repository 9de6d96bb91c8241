// SPDX-License-Identifier: Apache-2.0
// Sections: severities, OTLP, the journal, PostgreSQL, RFC 5424.
#include "qdlogview/exports.h"

#include "common/json.h"
#include "common/number_text.h"
#include "common/utf8.h"

#include <algorithm>
#include <cctype>

namespace qdlogview {

using tools::appendNumber;
using tools::Field;
using tools::FieldType;
using tools::FieldValue;
using tools::Item;
using tools::Record;

namespace {

// ---- severities ------------------------------------------------------------------------

struct SeverityRow {
    int32_t rank;
    int otlp;   // SeverityNumber
    int syslog; // severity of the system log
};
constexpr SeverityRow SEVERITIES[] = {
    {tools::RANK_EMERGENCY, 21, 0}, {tools::RANK_CRITICAL, 18, 2}, {tools::RANK_ERROR, 17, 3},
    {tools::RANK_WARNING, 13, 4},   {tools::RANK_AUDIT, 10, 5},    {tools::RANK_INFO, 9, 6},
    {tools::RANK_DIAGNOSTIC, 6, 7}, {tools::RANK_DEBUG, 5, 7},
};
constexpr SeverityRow NO_SEVERITY = {0, 0, 6}; // a record that does not tell its kind

const SeverityRow &severityOf(const Record &record, const char *&word) {
    int32_t rank = 0;
    if (!rankOf(record, rank, word))
        return NO_SEVERITY;
    return *std::find_if(std::begin(SEVERITIES), std::end(SEVERITIES),
                         [rank](const SeverityRow &row) { return row.rank == rank; });
}

// The text of a field, whatever its type; false when the record does not have it.
bool fieldText(const Item &item, Field field, tools::TimeFormatter *utc, std::string &text) {
    const FieldValue value = field->value(item);
    text.clear();
    if (!value.present)
        return false;
    if (field->type == FieldType::Text)
        text = value.text;
    else if (field->type == FieldType::Time && utc != nullptr)
        utc->appendRfc3339(text, value.value);
    else if (field->type == FieldType::Id || field->type == FieldType::Number)
        appendNumber(text, value.number);
    else
        appendNumber(text, value.value);
    return true;
}

// The writer made carriage returns of line feeds.
std::string withLineFeeds(std::string_view text) {
    std::string lines(text);
    std::replace(lines.begin(), lines.end(), '\r', '\n');
    return lines;
}

// ---- OTLP ------------------------------------------------------------------------------

void otlpKey(std::string &out, const char *key) {
    if (out.back() != '[')
        out += ',';
    out += "{\"key\":\"";
    out += key;
    out += "\",\"value\":{\"";
}

void otlpText(std::string &out, const char *key, std::string_view value) {
    if (value.empty())
        return;
    otlpKey(out, key);
    out += "stringValue\":";
    tools::appendJsonText(out, value);
    out += "}}";
}

template<typename Number>
void otlpNumber(std::string &out, const char *key, Number value) {
    otlpKey(out, key);
    out += "intValue\":\""; // 64 bits are a text in this form
    appendNumber(out, value);
    out += "\"}}";
}

// What the signed numbers of the form cannot hold is a text.
void otlpId(std::string &out, const char *key, uint64_t value) {
    if (value <= INT64_MAX)
        otlpNumber(out, key, value);
    else
        otlpText(out, key, std::to_string(value));
}

constexpr size_t TRACE_DIGITS = 32;
constexpr size_t SPAN_DIGITS = 16;

// "00-" trace "-" span "-" two digits of flags
bool isTraceParent(std::string_view context) {
    constexpr std::string_view SHAPE = "00-................................-................-..";
    if (context.size() != SHAPE.size())
        return false;
    for (size_t i = 0; i < SHAPE.size(); ++i) {
        const bool isDigit = context[i] >= '0' && context[i] <= '9';
        if (SHAPE[i] == '.' ? !isDigit && !(context[i] >= 'a' && context[i] <= 'f') : context[i] != SHAPE[i])
            return false;
    }
    return context.substr(3, TRACE_DIGITS).find_first_not_of('0') != std::string_view::npos &&
           context.substr(4 + TRACE_DIGITS, SPAN_DIGITS).find_first_not_of('0') != std::string_view::npos;
}

std::string_view productName(const Item &item, std::string &number) {
    const auto *names = item.origin->names;
    const std::string_view name = names != nullptr ? names->product(item.record.product) : "";
    number = std::to_string(item.record.product);
    return name.empty() ? std::string_view(number) : name;
}

void otlpResource(std::string &out, const Item &item) {
    const Record &record = item.record;
    std::string number;
    otlpText(out, "service.name", productName(item, number));
    otlpText(out, "service.instance.id", item.origin->host + ":" + std::to_string(record.pid));
    otlpText(out, "host.name", item.origin->host);
    otlpId(out, "process.pid", record.pid);
}

void otlpAttributes(std::string &out, const Item &item) {
    const Record &record = item.record;
    otlpText(out, "qdul.kind", tools::kindName(record.type));
    otlpId(out, "qdul.product", record.product);
    otlpId(out, "qdul.originator", record.originator);
    if (item.origin->names != nullptr)
        otlpText(out, "qdul.originator_name",
                 item.origin->names->originator(record.product, record.originator));
    otlpId(out, "qdul.msgid", record.messageId);
    otlpId(out, "thread.id", record.tid);
    otlpText(out, "qdul.context", record.context);
    for (const char *name : {"who", "subject", "title", "level", "outcome", "logset"}) {
        std::string text;
        if (fieldText(item, tools::findField(name), nullptr, text))
            otlpText(out, (std::string("qdul.") + name).c_str(), text);
    }
    if (tools::findInvalidUtf8(record.text) != std::string_view::npos)
        otlpText(out, "qdul.text_hex", tools::hexText(record.text));
    otlpText(out, "log.file.path", item.origin->path);
    otlpId(out, "qdul.offset", item.offset);
}

} // namespace

void appendOtlp(std::string &out, const Item &item) {
    constexpr uint64_t NANOSECONDS = 1000000; // of a millisecond
    const Record &record = item.record;
    const char *word = "";
    const SeverityRow &severity = severityOf(record, word);
    out += R"({"resourceLogs":[{"resource":{"attributes":[)";
    otlpResource(out, item);
    out += R"(]},"scopeLogs":[{"scope":{"name":"qdul"},"logRecords":[{"timeUnixNano":")";
    const auto time = static_cast<uint64_t>(record.time);
    appendNumber(out, record.time >= 0 && time <= UINT64_MAX / NANOSECONDS ? time * NANOSECONDS : 0);
    out += R"(","severityNumber":)";
    appendNumber(out, severity.otlp);
    out += R"(,"severityText":)";
    tools::appendJsonText(out, word);
    out += R"(,"body":{"stringValue":)";
    tools::appendJsonText(out, withLineFeeds(record.text));
    out += R"(},"attributes":[)";
    otlpAttributes(out, item);
    out += ']';
    if (isTraceParent(record.context)) {
        out += R"(,"traceId":")";
        out += record.context.substr(3, TRACE_DIGITS);
        out += R"(","spanId":")";
        out += record.context.substr(4 + TRACE_DIGITS, SPAN_DIGITS);
        out += '"';
    }
    out += "}]}]}]}\n";
}

// ---- the journal -----------------------------------------------------------------------

namespace {

void journalField(std::string &out, std::string_view name, std::string_view value) {
    out += name;
    const bool isLine = std::all_of(value.begin(), value.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 || c == '\t';
    });
    if (isLine && tools::findInvalidUtf8(value) == std::string_view::npos) {
        out += '=';
    } else { // 64 bits of length, the lowest byte first
        out += '\n';
        for (size_t i = 0; i < sizeof(uint64_t); ++i)
            out += static_cast<char>(value.size() >> (8 * i));
    }
    out += value;
    out += '\n';
}

} // namespace

void appendJournal(std::string &out, const Item &item) {
    constexpr int64_t MICROSECONDS = 1000; // of a millisecond
    const Record &record = item.record;
    const char *word = "";
    const SeverityRow &severity = severityOf(record, word);
    if (record.time >= 0 && record.time <= INT64_MAX / MICROSECONDS)
        journalField(out, "__REALTIME_TIMESTAMP", std::to_string(record.time * MICROSECONDS));
    std::string number;
    journalField(out, "MESSAGE", withLineFeeds(record.text));
    journalField(out, "PRIORITY", std::to_string(severity.syslog));
    journalField(out, "SYSLOG_IDENTIFIER", record.who.empty() ? productName(item, number) : record.who);
    journalField(out, "_PID", std::to_string(record.pid));
    if (!item.origin->host.empty())
        journalField(out, "_HOSTNAME", item.origin->host);
    for (const tools::FieldRow &row : tools::allFields()) {
        std::string text;
        if (row.role == tools::FieldRole::MessageText || row.role == tools::FieldRole::TextLines ||
            row.type == FieldType::Time || !fieldText(item, &row, nullptr, text))
            continue;
        std::string name = "QDUL_";
        for (const char *c = row.name; *c != '\0'; ++c)
            name += static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
        journalField(out, name, text);
    }
    out += '\n';
}

// ---- PostgreSQL ------------------------------------------------------------------------

void appendPostgres(std::string &out, const Item &item, const std::vector<Field> &fields,
                    tools::TimeFormatter &utc) {
    bool isFirst = true;
    for (const Field field : fields) {
        out += isFirst ? "" : "\t";
        isFirst = false;
        std::string text;
        if (!fieldText(item, field, &utc, text)) {
            out += "\\N";
            continue;
        }
        for (const char c : tools::repairedUtf8(text)) {
            if (c == '\0')
                out += "\xef\xbf\xbd"; // the database takes none
            else if (c == '\\')
                out += "\\\\";
            else if (c == '\t')
                out += "\\t";
            else if (c == '\n' || (c == '\r' && field->role == tools::FieldRole::MessageText))
                out += "\\n";
            else if (c == '\r')
                out += "\\r";
            else
                out += c;
        }
    }
    out += '\n';
}

// ---- RFC 5424 --------------------------------------------------------------------------

namespace {

// Printable ASCII without blanks, cut; "-" when there is nothing.
void syslogName(std::string &out, std::string_view name, size_t longest) {
    size_t length = 0;
    for (const char c : name.substr(0, longest)) {
        out += c > 0x20 && c < 0x7f ? c : '?';
        ++length;
    }
    if (length == 0)
        out += '-';
}

void syslogParameter(std::string &out, const char *name, std::string_view value) {
    out += ' ';
    out += name;
    out += "=\"";
    for (const char c : tools::repairedUtf8(value)) {
        if (c == '"' || c == '\\' || c == ']')
            out += '\\';
        out += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
    out += '"';
}

} // namespace

void appendRfc5424(std::string &out, const Item &item, tools::TimeFormatter &utc) {
    constexpr int USER = 8;       // facilities
    constexpr int AUDIT = 13 * 8; // log audit
    constexpr size_t HOST_LENGTH = 255, APP_LENGTH = 48;
    const Record &record = item.record;
    const char *word = "";
    const SeverityRow &severity = severityOf(record, word);
    std::string number;
    out += '<';
    appendNumber(out, (record.type == ZOLTLOG_MSG_AUDIT ? AUDIT : USER) + severity.syslog);
    out += ">1 ";
    if (record.hasPrefix())
        utc.appendRfc3339(out, record.time);
    else
        out += '-';
    out += ' ';
    syslogName(out, item.origin->host, HOST_LENGTH);
    out += ' ';
    syslogName(out,
               record.type <= ZOLTLOG_MSG_APP && !record.who.empty() ? record.who : productName(item, number),
               APP_LENGTH);
    out += ' ';
    appendNumber(out, record.pid);
    out += ' ';
    appendNumber(out, record.messageId);
    out += " [qdul@32473"; // the number that documents may use
    for (const char *name :
         {"kind", "severity_text", "product", "product_name", "originator", "originator_name", "tid",
          "context", "who", "subject", "title", "level", "outcome", "logset"}) {
        std::string text;
        if (fieldText(item, tools::findField(name), nullptr, text))
            syslogParameter(out, name, text);
    }
    out += "] \xef\xbb\xbf"; // UTF-8 follows
    for (const char c : tools::repairedUtf8(record.text)) {
        if (c == '\r' || c == '\n')
            out += "#012"; // as system log daemons write a line feed
        else
            out += static_cast<unsigned char>(c) < 0x20 && c != '\t' ? '?' : c;
    }
    out += '\n';
}

} // namespace qdlogview
