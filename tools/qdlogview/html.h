// SPDX-License-Identifier: Apache-2.0
// -o html: a page of its own with the records in it, to look at in a browser. What it looks
// like and does stands in report/.
#pragma once

#include "common/fields.h"
#include "common/terminal.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qdlogview {

// The page in front of its data, and behind them.
extern const char *const REPORT_HEAD;
extern const char *const REPORT_TAIL;

// Writes the page as the records come; in memory are some thousand records and the names.
struct HtmlReport {
    explicit HtmlReport(tools::Output &output) : out(output) {}

    void begin();
    void add(const tools::Item &item);
    void end();

  private:
    // Texts that many records share, by their place in the list.
    struct Names {
        uint32_t placeOf(const std::string &name);

        std::unordered_map<std::string, uint32_t> places;
        std::vector<const std::string *> list;
    };

    void number(char column, const std::string &value);
    void writeChunk();
    void writeColumns(const char *letters);
    void writeText(std::string text);

    tools::Output &out;
    const std::vector<const char *> severityNames = tools::rankNames();
    Names kinds, products, originators, who, contexts, hosts, files;
    std::string columns[128]; // of the chunk, by their letters
    size_t records = 0;       // in the chunk
    int64_t before = 0;       // time of the record in front
};

} // namespace qdlogview
