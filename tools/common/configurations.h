// SPDX-License-Identifier: Apache-2.0
// What the configuration files tell the tools: their records, the ids behind names, and
// why there is nothing.
#pragma once

#include "common/fields.h"
#include "zoltlog.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

// The records of a product's originators and log sets, or of all products (0).
struct Configurations {
    explicit Configurations(uint64_t product = 0);
    ~Configurations();
    Configurations(const Configurations &) = delete;
    Configurations &operator=(const Configurations &) = delete;

    std::vector<LogCfg *>::const_iterator begin() const { return records.begin(); }
    std::vector<LogCfg *>::const_iterator end() const { return records.end(); }

    std::vector<LogCfg *> records;
    uint32_t result; // of reading them
};

// One record; product and originator, or product and log set, are the reader's.
struct Configuration {
    Configuration() = default;
    ~Configuration() { zoltLogFreeCfg(&cfg); }
    Configuration(const Configuration &) = delete;
    Configuration &operator=(const Configuration &) = delete;

    LogCfg cfg = {};
};

// Whose name it is, or the number that it is. 0 with the reason when there is none. An
// originator has its names within a product (0: any).
uint64_t findProduct(const std::string &text, std::string &problem);
uint64_t findOriginator(const std::string &text, uint64_t product, std::string &problem);

// Why reading gave nothing: a file that cannot be read, a product that is not registered,
// else the result. Product 0: all.
std::string configurationProblem(uint64_t product, uint32_t result);

// The first name of every product and originator; none when there is no configuration.
IdNames configuredIdNames();

// The configuration files of registered products that cannot be read, with the reason.
std::vector<std::string> unreadableConfigurations();

// The names of a list separated by commas or blanks.
std::vector<std::string> namesOf(const char *list);

} // namespace tools
