// SPDX-License-Identifier: Apache-2.0
// Records in the output formats.
#pragma once

#include "common/fields.h"
#include "common/terminal.h"
#include "common/time_text.h"
#include "qdlogview/filter.h"
#include "qdlogview/html.h"
#include "qdlogview/settings.h"

#include <string>
#include <utility>
#include <vector>

namespace qdlogview {

struct Printer {
    Printer(const Settings &settings, tools::Output &output, bool color, Filter &filter);

    // False with an error text: the template has a field that does not exist.
    bool prepare(std::string &error);

    void begin(); // of each output: csv has a line of titles, raw the header line again
    void print(const tools::Item &item);
    void end();       // html: what follows the records
    void separator(); // between groups of -A, -B and -C

  private:
    void printShort(const tools::Item &item);
    void printFull(const tools::Item &item);
    void printJson(const tools::Item &item);
    void printCsv(const tools::Item &item);
    void printRaw(const tools::Item &item);
    void printTemplate(const tools::Item &item);

    void appendTime(const tools::Item &item, bool rfc3339);
    void appendText(std::string_view text, bool lines = false); // escaped unless --raw
    void appendHits(std::string_view text);                     // the same, matches of -g in colour
    // A text of several lines, those after the first below it.
    void appendLines(std::string_view text, size_t indentation);
    void appendId(uint64_t id, std::string_view name);
    void appendField(const tools::Item &item, tools::Field field);
    void jsonField(const tools::Item &item, tools::Field field, std::string_view key);
    void withLineFeeds(std::string_view text); // into scratch
    void jsonText(std::string_view key, std::string_view value);

    const Settings &settings;
    tools::Output &out;
    const bool color;
    Filter &filter;
    tools::TimeFormatter formatter; // for people
    tools::TimeFormatter utc;       // for programs
    std::vector<tools::Field> fields;
    std::vector<std::string> keys; // json: ,"name": of each field
    std::string keyOf(std::string_view name) const;
    std::shared_ptr<const tools::Origin> lastOrigin; // raw: whose header was written last

    struct Piece { // of a template: a text, or (not null) a field
        std::string text;
        tools::Field field = nullptr;
    };
    std::vector<Piece> pieces;
    std::string scratch;
    const bool escapeCsv; // on a terminal
    HtmlReport html;
};

} // namespace qdlogview
