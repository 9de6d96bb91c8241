// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/printer.h"

#include "common/csv.h"
#include "common/json.h"
#include "common/number_text.h"
#include "qdlogview/exports.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace qdlogview {

using tools::appendNumber;
using tools::Field;
using tools::FieldRole;
using tools::FieldRow;
using tools::FieldType;
using tools::FieldValue;
using tools::Item;
using tools::Record;
using tools::Style;

Printer::Printer(const Settings &chosen, tools::Output &output, bool useColor, Filter &chosenFilter)
    : settings(chosen), out(output), color(useColor), filter(chosenFilter),
      escapeCsv(chosen.spool.empty() && isatty(1) != 0), html(output) {
    formatter.mode = settings.utc ? tools::TimeFormatter::Mode::Utc : tools::TimeFormatter::Mode::Local;
    utc.mode = tools::TimeFormatter::Mode::Utc;
    fields = settings.fields;
    if (fields.empty()) {
        for (const FieldRow &row : tools::allFields()) {
            if (row.role != FieldRole::TextLines || settings.format == Format::Json)
                fields.push_back(&row); // else the text is shown in lines, or as it is stored
        }
    }
    for (const Field field : fields)
        keys.push_back(keyOf(field->name));
}

std::string Printer::keyOf(std::string_view name) const {
    return (settings.prettyJson ? ",\n    \"" : ",\"") + std::string(name) +
           (settings.prettyJson ? "\": " : "\":");
}

bool Printer::prepare(std::string &error) {
    Piece piece;
    const std::string &layout = settings.layout;
    for (size_t i = 0; i < layout.size(); ++i) {
        const char c = layout[i];
        const char following = i + 1 < layout.size() ? layout[i + 1] : '\0';
        if (c == '\\' && (following == 'n' || following == 't' || following == '\\')) {
            piece.text += following == 'n' ? '\n' : following == 't' ? '\t' : '\\';
            ++i;
        } else if ((c == '{' || c == '}') && following == c) {
            piece.text += c;
            ++i;
        } else if (c == '{') {
            const size_t end = layout.find('}', i);
            const std::string name = layout.substr(i + 1, end == std::string::npos ? end : end - i - 1);
            const Field field = end == std::string::npos ? nullptr : tools::findField(name);
            if (field == nullptr) {
                error = end == std::string::npos ? "--template: '}' is missing"
                                                 : "--template: '" + name + "' is not a field";
                return false;
            }
            pieces.push_back(piece);
            piece = {};
            pieces.push_back({"", field});
            i = end;
        } else {
            piece.text += c;
        }
    }
    pieces.push_back(piece);
    return true;
}

void Printer::begin() {
    lastOrigin = nullptr;
    if (settings.format == Format::Html)
        html.begin();
    if (settings.format != Format::Csv)
        return;
    for (size_t i = 0; i < fields.size(); ++i) {
        out.buffer += i > 0 ? "," : "";
        out.buffer += fields[i]->name;
    }
    out.write("\r\n");
}

void Printer::end() {
    if (settings.format == Format::Html)
        html.end();
}

void Printer::separator() {
    if (settings.format == Format::Short || settings.format == Format::Full) {
        tools::appendStyled(out.buffer, Style::Cyan, "--", color);
        out.write("\n");
    }
}

void Printer::print(const Item &item) {
    switch (settings.format) {
    case Format::Short:
        printShort(item);
        break;
    case Format::Full:
        printFull(item);
        break;
    case Format::Json:
        printJson(item);
        break;
    case Format::Csv:
        printCsv(item);
        break;
    case Format::Raw:
        printRaw(item);
        break;
    case Format::Template:
        printTemplate(item);
        break;
    case Format::Otlp:
        appendOtlp(out.buffer, item);
        break;
    case Format::Journal:
        appendJournal(out.buffer, item);
        break;
    case Format::Postgres:
        appendPostgres(out.buffer, item, fields, utc);
        break;
    case Format::Rfc5424:
        appendRfc5424(out.buffer, item, utc);
        break;
    case Format::Html:
        html.add(item);
        break;
    }
    out.drain();
}

// ---- parts -----------------------------------------------------------------------

void Printer::appendTime(const Item &item, bool rfc3339) {
    if (!item.record.hasPrefix()) {
        out.buffer += "-";
        return;
    }
    if (settings.writerTime && item.origin->hasOffset) {
        formatter.mode = tools::TimeFormatter::Mode::Offset;
        formatter.east = -item.origin->offset;
    } else if (settings.writerTime) {
        formatter.mode = tools::TimeFormatter::Mode::Local;
    }
    if (rfc3339)
        formatter.appendRfc3339(out.buffer, item.record.time);
    else
        formatter.appendShort(out.buffer, item.record.time);
}

// With `lines` the carriage returns are the line feeds that the writer replaced.
void Printer::appendText(std::string_view text, bool lines) {
    if (lines) {
        for (size_t end = text.find('\r'); end != std::string_view::npos; end = text.find('\r')) {
            appendText(text.substr(0, end));
            out.buffer += '\n';
            text.remove_prefix(end + 1);
        }
    }
    if (settings.rawText)
        out.buffer += text;
    else
        tools::appendEscaped(out.buffer, text);
}

void Printer::appendLines(std::string_view text, size_t indentation) {
    if (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    for (size_t end = text.find('\r'); end != std::string_view::npos; end = text.find('\r')) {
        appendHits(text.substr(0, end));
        out.buffer += '\n';
        out.buffer.append(indentation, ' ');
        text.remove_prefix(end + 1);
    }
    appendHits(text);
}

// 5, or 5(server)
void Printer::appendId(uint64_t id, std::string_view name) {
    appendNumber(out.buffer, id);
    if (name.empty())
        return;
    out.buffer += '(';
    appendText(name);
    out.buffer += ')';
}

void Printer::appendHits(std::string_view text) {
    size_t at = 0;
    if (color && filter.hasGrep && !settings.invert) {
        size_t begin = 0;
        size_t end = 0;
        while (at < text.size() && filter.grep.find(text, at, &begin, &end)) {
            if (end == begin) // an empty match shows nothing
                break;
            appendText(text.substr(at, begin - at));
            out.buffer += tools::styleOn(Style::BoldRed);
            appendText(text.substr(begin, end - begin));
            out.buffer += tools::styleOff(Style::BoldRed);
            at = end;
        }
    }
    appendText(text.substr(at));
}

void Printer::appendField(const Item &item, Field field) {
    const FieldValue value = field->value(item);
    if (!value.present)
        return;
    switch (field->type) {
    case FieldType::Id:
    case FieldType::Number:
        appendNumber(out.buffer, value.number);
        break;
    case FieldType::Signed:
        appendNumber(out.buffer, value.value);
        break;
    case FieldType::Time:
        appendTime(item, true);
        break;
    case FieldType::Text:
        appendText(value.text, value.lines);
        break;
    }
}

// ---- short, full, template -------------------------------------------------------

namespace {

Style styleOf(const Record &record) {
    switch (record.type) {
    case ZOLTLOG_MSG_APP: {
        constexpr Style BY_SEVERITY[] = {Style::Plain, Style::Yellow, Style::Red, Style::BoldRed,
                                         Style::BoldRed};
        return BY_SEVERITY[record.number];
    }
    case ZOLTLOG_MSG_DEBUG:
        return Style::Dim;
    case ZOLTLOG_MSG_DIAG:
        return Style::Cyan;
    case ZOLTLOG_MSG_CONTEXT:
        return Style::Blue;
    case ZOLTLOG_MSG_AUDIT:
        return Style::Magenta;
    default:
        return Style::Plain;
    }
}

} // namespace

// 2024-03-01 13:45:02.123 error 5(server)/7 mgr[4242] (job-77): Disk full
void Printer::printShort(const Item &item) {
    const Record &record = item.record;
    std::string &to = out.buffer;
    const Style style = color ? styleOf(record) : Style::Plain;
    const size_t begin = to.size();
    int32_t rank = 0;
    const char *word = "unknown";
    rankOf(record, rank, word);
    appendTime(item, settings.isoTimes);
    to += ' ';
    to += tools::styleOn(style);
    to += word;
    if (record.type <= ZOLTLOG_MSG_DIAG)
        appendNumber(to, record.number);
    to += tools::styleOff(style);
    to += ' ';
    const tools::IdNames *names = item.origin->names;
    appendId(record.product, names != nullptr ? names->product(record.product) : "");
    to += '/';
    appendId(record.originator, names != nullptr ? names->originator(record.product, record.originator) : "");
    to += ' ';
    appendText(record.who);
    to += '[';
    appendNumber(to, record.pid);
    to += ']';
    if (!record.context.empty()) {
        to += " (";
        appendText(record.context);
        to += ')';
    }
    to += ": ";
    if (record.text.find('\r') == std::string_view::npos || settings.rawText) {
        appendHits(record.text);
    } else {
        const size_t invisible = std::strlen(tools::styleOn(style)) + std::strlen(tools::styleOff(style));
        appendLines(record.text, tools::displayWidth(std::string_view(to).substr(begin)) - invisible);
    }
    if (record.type == ZOLTLOG_MSG_AUDIT)
        to += " (outcome " + std::to_string(record.number) + ")";
    to += '\n';
}

void Printer::printFull(const Item &item) {
    appendTime(item, true);
    out.buffer += " [";
    appendText(item.origin->path);
    out.buffer += "@" + std::to_string(item.offset) + "]\n";
    for (const Field field : fields) {
        if (settings.fields.empty() && (field->role == FieldRole::Place || field->type == FieldType::Time))
            continue; // in the title
        if (!field->value(item).present)
            continue;
        out.buffer += "    ";
        tools::appendStyled(out.buffer, Style::Bold, field->name, color);
        out.buffer += '=';
        if (field->role == FieldRole::TextLines ||
            (field->role == FieldRole::MessageText && !settings.rawText))
            appendLines(item.record.text, std::strlen("    =") + std::strlen(field->name));
        else
            appendField(item, field);
        out.buffer += '\n';
    }
}

void Printer::printTemplate(const Item &item) {
    for (const Piece &piece : pieces) {
        if (piece.field != nullptr)
            appendField(item, piece.field);
        else
            out.buffer += piece.text;
    }
    out.buffer += '\n';
}

// ---- json, csv, raw --------------------------------------------------------------

// The writer made carriage returns of line feeds.
void Printer::withLineFeeds(std::string_view text) {
    scratch = text;
    std::replace(scratch.begin(), scratch.end(), '\r', '\n');
}

// The hot way of the export: written by hand into the output's buffer. Every member
// begins with a comma; the first one's becomes the brace.
void Printer::jsonText(std::string_view key, std::string_view value) {
    out.buffer += key;
    if (tools::appendJsonText(out.buffer, value))
        return;
    const size_t end = key.rfind('"');
    out.buffer += key.substr(0, end);
    out.buffer += "_hex";
    out.buffer += key.substr(end);
    out.buffer += '"' + tools::hexText(value) + '"';
}

void Printer::jsonField(const Item &item, Field field, std::string_view key) {
    const FieldValue value = field->value(item);
    if (!value.present)
        return;
    switch (field->type) {
    case FieldType::Id:
    case FieldType::Number: {
        const bool asText = settings.idsAsText && field->type == FieldType::Id;
        out.buffer += key;
        if (asText)
            out.buffer += '"';
        appendNumber(out.buffer, value.number);
        if (asText)
            out.buffer += '"';
        break;
    }
    case FieldType::Signed:
        out.buffer += key;
        appendNumber(out.buffer, value.value);
        break;
    case FieldType::Time:
        out.buffer += key;
        out.buffer += '"';
        utc.appendRfc3339(out.buffer, value.value);
        out.buffer += '"';
        break;
    case FieldType::Text:
        if (!value.lines) {
            jsonText(key, value.text);
        } else if (!settings.fields.empty() || value.text.find('\r') != std::string_view::npos) {
            withLineFeeds(value.text); // without --fields only where it differs from the text
            jsonText(key, scratch);
        }
        break;
    }
}

void Printer::printJson(const Item &item) {
    const size_t begin = out.buffer.size();
    for (size_t i = 0; i < fields.size(); ++i)
        jsonField(item, fields[i], keys[i]);
    if (settings.withLine)
        jsonText(keyOf("line"), item.record.line);
    if (out.buffer.size() == begin) // none of the fields
        out.buffer += '{';
    else
        out.buffer[begin] = '{';
    out.buffer += settings.prettyJson ? "\n}\n" : "}\n";
}

// RFC 4180
void Printer::printCsv(const Item &item) {
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0)
            out.buffer += ',';
        const FieldRow &row = *fields[i];
        const FieldValue value = row.value(item);
        if (!value.present)
            continue;
        if (row.type == FieldType::Time) {
            utc.appendRfc3339(out.buffer, value.value);
        } else if (row.type != FieldType::Text) {
            appendField(item, fields[i]);
        } else if (escapeCsv) {
            tools::appendCsv(out.buffer, tools::escaped(value.text));
        } else {
            if (value.lines)
                withLineFeeds(value.text);
            tools::appendCsv(out.buffer, value.lines ? scratch : value.text);
        }
    }
    out.buffer += "\r\n";
}

// The stored lines, with the header line of the file where the file changes: the
// output is a log file itself.
void Printer::printRaw(const Item &item) {
    if (item.origin != lastOrigin.get()) {
        if (!item.origin->headerLine.empty() &&
            (lastOrigin == nullptr || lastOrigin->headerLine != item.origin->headerLine)) {
            out.buffer += item.origin->headerLine;
            out.buffer += '\n';
        }
        lastOrigin = item.origin->shared_from_this();
    }
    out.buffer += item.record.line;
    out.buffer += '\n';
}

} // namespace qdlogview
