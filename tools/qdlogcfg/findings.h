// SPDX-License-Identifier: Apache-2.0
// What check finds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "settings.h"

enum class Severity : uint8_t {
    ERROR,
    MISSING, // an error, too, until something else is set
    WARNING
};

struct Finding {
    Severity severity;
    std::string file;
    size_t line; // 0: the file as a whole
    std::string text;

    bool isError() const { return severity != Severity::WARNING; }
};

struct Findings {
    void error(const std::string &file, size_t line, const std::string &text) {
        list.push_back({Severity::ERROR, file, line, text});
    }
    void miss(const std::string &file, size_t line, const std::string &text) {
        list.push_back({Severity::MISSING, file, line, text});
    }
    void warn(const std::string &file, size_t line, const std::string &text) {
        list.push_back({Severity::WARNING, file, line, text});
    }
    // By file, in the order in which the files were checked, and by line.
    void sort();

    std::vector<Finding> list;
};

inline std::string inQuotes(std::string_view text) {
    return "'" + std::string(text) + "'";
}

void checkLines(const ConfigFile &file, Findings &findings);
void checkProduct(const Product &product, const ConfigFile &file, Findings &findings);
