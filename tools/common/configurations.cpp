// SPDX-License-Identifier: Apache-2.0
#include "common/configurations.h"

#include "common/config_file.h"
#include "common/number_text.h"
#include "common/result_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tools {

namespace {

// What the library reads for a product from the main file; "" when there is nothing.
std::string mainFileText(uint32_t (*read)(const char *, uint64_t, char **), uint64_t product) {
    char *text = nullptr;
    const bool found = read(GetZoltLogCfgLoc(), product, &text) == ZOLTLOG_OK;
    std::string copy = found && text != nullptr ? text : "";
    zoltLogFree(text);
    return copy;
}

// That the library cannot read a file, or "".
std::string unreadable(const std::string &path) {
    PropertyStore store;
    errno = 0;
    if (utiOpenPropertyStore(path.c_str(), "", &store) == ZOLTLOG_STORE_OK) {
        utiClosePropertyStore(&store);
        return "";
    }
    const std::string cause = errno == ENXIO ? "Not a regular file" : std::strerror(errno);
    return "configuration " + path + ": " + cause;
}

ConfigFile mainFile() {
    return readConfigFile(GetZoltLogCfgLoc());
}

bool hasName(const char *list, const std::string &name) {
    const std::vector<std::string> names = namesOf(list);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The product that the main file gives this name to, also when the product's own file
// cannot be read; 0: none.
uint64_t registeredProduct(const std::string &name) {
    for (const RegisteredProduct &product : registeredProducts(mainFile())) {
        if (hasName(product.names.c_str(), name))
            return product.id;
    }
    return 0;
}

uint64_t productNamed(const Configurations &all, const std::string &name) {
    for (const LogCfg *cfg : all)
        if (hasName(cfg->productShortNames, name))
            return cfg->productId;
    return 0;
}

// product 0: of any
uint64_t originatorNamed(const Configurations &all, uint64_t product, const std::string &name) {
    for (const LogCfg *cfg : all)
        if (cfg->isLogset == 0 && (product == 0 || cfg->productId == product) &&
            hasName(cfg->originatorNames, name))
            return cfg->originatorId;
    return 0;
}

} // namespace

Configurations::Configurations(uint64_t product) : result(ZOLTLOG_OK) {
    uint32_t count = 0;
    for (uint32_t capacity = 1024;; capacity *= 8) { // a full array may lack some
        records.resize(capacity);
        result = product != 0 ? zoltLogReadProdIDCfg(nullptr, product, capacity, records.data(), &count)
                              : zoltLogReadAllCfg(nullptr, capacity, records.data(), &count);
        if (count < capacity)
            break;
        FreeConfigArray(records.data(), count);
    }
    records.resize(count);
}

Configurations::~Configurations() {
    FreeConfigArray(records.data(), static_cast<uint32_t>(records.size()));
}

uint64_t findProduct(const std::string &text, std::string &problem) {
    uint64_t id = 0;
    if (parseNumber(text, id)) {
        if (id == 0)
            problem = "0 is no product id";
        return id;
    }
    const Configurations all;
    id = productNamed(all, text);
    if (id != 0)
        return id;
    const uint64_t registered = registeredProduct(text);
    problem = configurationProblem(registered, all.result);
    if (registered == 0 && unreadable(GetZoltLogCfgLoc()).empty())
        problem = "there is no product '" + text + "' in " + GetZoltLogCfgLoc();
    return 0;
}

uint64_t findOriginator(const std::string &text, uint64_t product, std::string &problem) {
    uint64_t id = 0;
    if (parseNumber(text, id)) {
        if (id == 0)
            problem = "0 is no originator id";
        return id;
    }
    const Configurations all(product);
    id = originatorNamed(all, product, text);
    if (id != 0)
        return id;
    if (all.result != ZOLTLOG_OK)
        problem = configurationProblem(product, all.result);
    else if (product != 0)
        problem = "product " + std::to_string(product) + " has no originator '" + text + "'";
    else
        problem = "there is no originator '" + text + "' in the configuration " + GetZoltLogCfgLoc();
    return 0;
}

std::string configurationProblem(uint64_t product, uint32_t result) {
    const std::string main = GetZoltLogCfgLoc();
    std::string problem = unreadable(main);
    if (problem.empty() && product != 0) {
        const std::string file = mainFileText(GetProductCfgPath, product);
        problem = file.empty() ? "product " + std::to_string(product) + " is not registered in " + main
                               : unreadable(file);
    }
    if (problem.empty() && product == 0) {
        const std::vector<std::string> problems = unreadableConfigurations();
        problem = problems.empty() ? "" : problems.front();
    }
    return problem.empty() ? "configuration " + main + ": " + resultMessage(result) : problem;
}

std::vector<std::string> unreadableConfigurations() {
    std::vector<std::string> problems;
    for (const RegisteredProduct &product : registeredProducts(mainFile())) {
        const std::string problem = unreadable(product.location);
        if (!problem.empty())
            problems.push_back(problem);
    }
    return problems;
}

IdNames configuredIdNames() {
    IdNames names;
    for (const LogCfg *cfg : Configurations()) {
        for (const std::string &name : namesOf(cfg->productShortNames)) {
            names.products.emplace(cfg->productId, name); // the first stays
        }
        if (cfg->isLogset != 0)
            continue;
        for (const std::string &name : namesOf(cfg->originatorNames))
            names.originators.emplace(std::pair(cfg->productId, cfg->originatorId), name);
    }
    return names;
}

std::vector<std::string> namesOf(const char *list) {
    std::vector<std::string> names;
    for (const char *at = list + std::strspn(list, ", "); *at != '\0'; at += std::strspn(at, ", ")) {
        const size_t size = std::strcspn(at, ", ");
        names.emplace_back(at, size);
        at += size;
    }
    return names;
}

} // namespace tools
