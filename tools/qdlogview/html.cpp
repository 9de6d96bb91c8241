// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/html.h"

#include "common/json.h"
#include "common/time_text.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qdlogview {

namespace {

constexpr size_t CHUNK = 4096; // records
constexpr char LETTERS[] = "tskpowchx";
constexpr char RARE_LETTERS[] = "idmfbn";             // of what is shown of one record at a time
constexpr uint64_t LARGEST_EXACT = uint64_t{1} << 53; // of the numbers of the page's script

// 5, or 5(server)
std::string labelOf(uint64_t id, std::string_view name) {
    return std::to_string(id) + (name.empty() ? "" : "(" + std::string(name) + ")");
}

std::string exact(uint64_t number) {
    return number <= LARGEST_EXACT ? std::to_string(number) : "\"" + std::to_string(number) + "\"";
}

} // namespace

uint32_t HtmlReport::Names::placeOf(const std::string &name) {
    const auto [entry, isNew] = places.emplace(name, static_cast<uint32_t>(list.size()));
    if (isNew)
        list.push_back(&entry->first);
    return entry->second;
}

void HtmlReport::number(char column, const std::string &value) {
    std::string &to = columns[static_cast<size_t>(column)];
    to += records > 0 ? "," : "";
    to += value;
}

// No text ends the element that the data stand in.
void HtmlReport::writeText(std::string text) {
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at))
        text.replace(at, 1, "\\u003c");
    out.write(text);
}

void HtmlReport::begin() {
    out.write(REPORT_HEAD);
}

void HtmlReport::add(const tools::Item &item) {
    const tools::Record &record = item.record;
    const tools::IdNames *names = item.origin->names;
    const auto place = [this](char column, Names &list, const std::string &name) {
        number(column, std::to_string(list.placeOf(name)));
    };
    int32_t rank = 0;
    const char *word = "";
    const int64_t time = record.hasPrefix() ? record.time : before;
    int64_t step = 0;
    if (__builtin_sub_overflow(time, before, &step)) // no time that a page could show
        step = 0;
    number('t', std::to_string(step));
    before += step;
    const std::vector<const char *> &severities = severityNames;
    const auto severity = rankOf(record, rank, word)
                              ? std::find(severities.begin(), severities.end(), std::string_view(word))
                              : severities.end();
    number('s', std::to_string(severity - severities.begin())); // behind the last: none
    place('k', kinds, tools::kindName(record.type));
    place('p', products, labelOf(record.product, names != nullptr ? names->product(record.product) : ""));
    place('o', originators,
          labelOf(record.originator,
                  names != nullptr ? names->originator(record.product, record.originator) : ""));
    place('w', who, std::string(record.who));
    place('c', contexts, std::string(record.context));
    place('h', hosts, item.origin->host);
    place('f', files, item.origin->path);
    number('i', exact(record.pid));
    number('d', exact(record.tid));
    number('m', exact(record.messageId));
    number('b', exact(item.offset));
    number('n', record.hasNumber ? std::to_string(record.number) : "null");
    std::string text;
    tools::appendJsonText(text, record.text);
    number('x', text);
    if (++records == CHUNK)
        writeChunk();
}

void HtmlReport::writeColumns(const char *letters) {
    std::string text;
    for (const char *letter = letters; *letter != '\0'; ++letter) {
        std::string &column = columns[static_cast<size_t>(*letter)];
        text += text.empty() ? "{\"" : ",\"";
        text += *letter;
        text += "\":[" + column + "]";
        column.clear();
    }
    writeText(text + "}");
}

void HtmlReport::writeChunk() {
    writeColumns(LETTERS);
    out.write("</script>\n<script type=\"application/json\" class=\"rare\">");
    writeColumns(RARE_LETTERS);
    out.write("</script>\n<script type=\"application/json\" class=\"chunk\">");
    records = 0;
    before = 0;
}

void HtmlReport::end() {
    if (records > 0)
        writeChunk();
    tools::Json json;
    json.beginObject();
    json.text("version", QDUL_VERSION);
    json.time("written", tools::currentTime());
    json.key("severities");
    json.beginArray();
    for (const char *name : severityNames)
        json.textElement(name);
    json.textElement(""); // of records that do not tell it
    json.endArray();
    for (const auto &[name, list] : {std::pair{"kinds", &kinds},
                                     {"products", &products},
                                     {"originators", &originators},
                                     {"who", &who},
                                     {"contexts", &contexts},
                                     {"hosts", &hosts},
                                     {"files", &files}}) {
        json.key(name);
        json.beginArray();
        for (const std::string *each : list->list)
            json.textElement(*each);
        json.endArray();
    }
    json.endObject();
    writeText(std::string(json.written()));
    out.write(REPORT_TAIL);
}

} // namespace qdlogview
