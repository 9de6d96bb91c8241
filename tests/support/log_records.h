// SPDX-License-Identifier: Apache-2.0
// Log files of a test, set up and read back.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/support.h"

namespace logs {

inline constexpr uint64_t PRODUCT = 5;
inline constexpr uint64_t ORIGINATOR = 7;

// A fresh configuration of product 5 in the current directory, log files in ./log.
// settings are lines of the product's configuration ("Default.DebugLevel=3").
inline void configure(const std::vector<std::string> &settings = {}) {
    const std::string here = std::filesystem::current_path().string();
    std::filesystem::remove_all("log");
    support::writeFile("zoltlog.conf", "5.Configuration=" + here + "/product.conf\n5.Names=test\n");
    std::string text = "Default.LogDirectory=" + here + "/log/\n";
    for (const std::string &line : settings)
        text += line + "\n";
    support::writeFile("product.conf", text);
    setenv("ZOLTLOG_CFG_LOC", "./zoltlog.conf", 1); // read once per process: right in each case's directory
}

struct Record { // of an originator's file
    uint64_t type = 0;
    uint64_t productId = 0;
    uint64_t originatorId = 0;
    uint64_t fileOriginatorId = 0;
    uint64_t messageId = 0;
    uint64_t timestamp = 0;
    uint64_t processId = 0;
    uint64_t threadId = 0;
    std::string token;
    std::string text;
    std::string who;  // subject, or a context's own token
    std::string rest; // "level", "severity,(0|)", "outcome,(0|)" or a context's "(...)"
    bool whole = false;
};

inline Record parse(const std::string &line) {
    Record record;
    size_t at = 0;
    const auto number = [&](char end) {
        const size_t stop = line.find(end, at);
        if (stop == std::string::npos || stop == at || line.find_first_not_of("0123456789", at) != stop)
            return UINT64_MAX;
        const uint64_t value = strtoull(line.c_str() + at, nullptr, 10);
        at = stop + 1;
        return value;
    };
    bool good = true;
    for (uint64_t *field : {&record.type, &record.productId, &record.originatorId, &record.fileOriginatorId,
                            &record.messageId, &record.timestamp, &record.processId, &record.threadId}) {
        *field = number(',');
        good = good && *field != UINT64_MAX;
    }
    for (std::string *field : {&record.token, &record.text, &record.who}) {
        const uint64_t length = number(':');
        if (!good || length == UINT64_MAX || length > line.size() || at + length >= line.size() ||
            line[at + length] != ',') {
            good = false;
            break;
        }
        *field = line.substr(at, length);
        at += length + 1;
    }
    if (good)
        record.rest = line.substr(at);
    record.whole = good && !record.rest.empty();
    return record;
}

struct File {
    std::string name;
    std::string header;
    std::vector<Record> records;
};

// The files of a directory in the order of their names
inline std::vector<File> files(const std::string &directory = "log") {
    std::vector<File> result;
    if (!support::exists(directory))
        return result;
    for (const std::string &name : support::listFiles(directory)) {
        if (!std::filesystem::is_regular_file(directory + "/" + name))
            continue;
        File file{name, "", {}};
        for (const std::string &line : support::lines(support::readFile(directory + "/" + name))) {
            if (line.compare(0, 8, "$Header ") == 0)
                file.header += line + "\n"; // more than one is a mistake that shows
            else
                file.records.push_back(parse(line));
        }
        result.push_back(file);
    }
    return result;
}

inline std::vector<Record> records(const std::string &directory = "log") {
    std::vector<Record> result;
    for (const File &file : files(directory))
        result.insert(result.end(), file.records.begin(), file.records.end());
    return result;
}

} // namespace logs
