// SPDX-License-Identifier: Apache-2.0
// qdlogcfg product add | remove | list | show
#include <algorithm>
#include <cerrno>

#include "commands.h"
#include "common/exit_codes.h"
#include "common/result_text.h"
#include "edit.h"

using tools::Json;
using tools::Output;

namespace {

uint64_t productId(const Options &options) {
    const std::optional<uint64_t> id = decimal(options.product);
    if (!id || isProdIdValid(*id) == 0)
        throw CommandError(tools::EXIT_USAGE,
                           "'" + options.product + "' is no product id (a number from 1 on)");
    return *id;
}

[[noreturn]] void fail(const std::string &what, uint32_t result, int error = 0) {
    const bool isWriting =
        result == ZOLTLOG_FAILED || result == ZOLTLOG_CFG_NOT_FOUND || result == ZOLTLOG_CFG_CREATE_FAILED;
    throw CommandError(tools::EXIT_UNREADABLE,
                       what + ": " + tools::resultMessage(result) +
                           (isWriting && error != 0 ? ": " + causeOf(error, mainConfigPath()) : ""));
}

void writeProduct(Json &json, const Product &product) {
    json.beginObject();
    json.number("product", product.id);
    json.text("names", product.names);
    json.text("configuration", product.location);
    json.flag("readable", readConfigFile(product.location).readable);
    json.endObject();
}

} // namespace

int productAdd(const Options &options, Output &out) {
    const uint64_t id = productId(options);
    if (options.file.empty() || options.file.find(".conf") == std::string::npos || options.file[0] != '/')
        throw CommandError(
            tools::EXIT_USAGE,
            "--file takes the absolute path of the product's configuration file; it must hold \".conf\"");
    constexpr size_t VALUE_LIMIT = 399; // what the library uses of a value
    constexpr size_t LOCATION_LIMIT = 395;
    if (options.file.size() > LOCATION_LIMIT)
        throw CommandError(tools::EXIT_USAGE, "--file: a path of more than " +
                                                  std::to_string(LOCATION_LIMIT) +
                                                  " bytes could not be changed");
    for (const std::string &text : {options.names, options.file})
        if (text.find_first_of("=\n") != std::string::npos || text.size() > VALUE_LIMIT ||
            (!text.empty() && text.back() == ' '))
            throw CommandError(tools::EXIT_USAGE,
                               "a name or path with '=', with a line feed, with a blank at its end or longer "
                               "than " +
                                   std::to_string(VALUE_LIMIT) + " bytes could not be read back");
    const ConfigFile mainFile = readConfigFile(mainConfigPath());
    requireReadable(mainFile);
    const std::vector<Product> products = registeredProducts(mainFile);
    const bool known = std::any_of(products.begin(), products.end(),
                                   [&](const Product &product) { return product.id == id; });
    if (options.dryRun) {
        if (known)
            fail("product " + std::to_string(id) + " would not be registered in " + mainConfigPath(),
                 ZOLTLOG_PRODUCT_EXISTS);
        out.write("would register product " + std::to_string(id) + " (" + options.names + ") with " +
                  options.file + " in " + mainConfigPath() + "\n");
        requireWritable(mainConfigPath());
        return tools::EXIT_OK;
    }
    errno = 0;
    const uint32_t result = zoltLogAddProductCfg(id, options.names.c_str(), options.file.c_str());
    if (result != ZOLTLOG_OK)
        fail("product " + std::to_string(id) + " was not registered in " + mainConfigPath(), result, errno);
    out.write("registered product " + std::to_string(id) + " (" + options.names + ") with " + options.file +
              " in " + mainConfigPath() + "\n");
    return tools::EXIT_OK;
}

int productRemove(const Options &options, Output &out) {
    const Product product = findProduct(options.product);
    if (options.dryRun) {
        out.write("would remove product " + std::to_string(product.id) + " from " + mainConfigPath() + "; " +
                  product.location + " would stay\n");
        requireWritable(mainConfigPath());
        return tools::EXIT_OK;
    }
    errno = 0;
    const uint32_t result = zoltLogRemoveProductCfg(product.id);
    if (result != ZOLTLOG_OK)
        fail("product " + std::to_string(product.id) + " was not removed", result, errno);
    out.write("removed product " + std::to_string(product.id) + " from " + mainConfigPath() + "; " +
              product.location + " and its log files are left in place\n");
    return tools::EXIT_OK;
}

int productList(const Options &options, Output &out) {
    const ConfigFile mainFile = readConfigFile(mainConfigPath());
    requireReadable(mainFile);
    const std::vector<Product> products = registeredProducts(mainFile);
    if (options.json) {
        Json json;
        json.beginArray();
        for (const Product &product : products)
            writeProduct(json, product);
        json.endArray();
        writeJson(out, json);
    } else if (products.empty()) {
        out.write("no product is registered in " + mainConfigPath() + "\n");
    } else {
        tools::Table table{{{"PRODUCT", tools::Align::Right}, {"NAMES"}, {"CONFIGURATION"}}, {}, true};
        for (const Product &product : products)
            table.rows.push_back({std::to_string(product.id), product.names, product.location});
        tools::printTable(out, table, options.color);
    }
    return products.empty() ? tools::EXIT_NOTHING : tools::EXIT_OK;
}

int productShow(const Options &options, Output &out) {
    const ConfigFile mainFile = readConfigFile(mainConfigPath());
    const Product product = findProduct(options.product, mainFile);
    const ConfigFile file = readConfigFile(product.location);
    const std::vector<Scope> scopes = allScopes(product, file);
    const ConfigLine *messages = mainFile.find(std::to_string(product.id), CFG_PRODUCT_APP_MSG);
    const bool isSwitched = messages != nullptr;
    const bool isOn = isSwitched && messages->value == "true";
    const auto originators =
        std::count_if(scopes.begin(), scopes.end(), [](const Scope &scope) { return !scope.isLogset; });
    const auto logsets = static_cast<long>(scopes.size()) - originators;
    if (options.json) {
        Json json;
        json.beginObject();
        json.number("product", product.id);
        json.text("names", product.names);
        json.text("registered_in", mainFile.path);
        json.number("line", product.line);
        json.text("configuration", product.location);
        json.flag("readable", file.readable);
        if (isSwitched)
            json.flag("application_messages", isOn);
        else
            json.null("application_messages");
        json.number("originators", static_cast<uint64_t>(originators));
        json.number("logsets", static_cast<uint64_t>(logsets));
        json.endObject();
        writeJson(out, json);
        return tools::EXIT_OK;
    }
    tools::Table table{{{""}, {""}}, {}, false};
    table.rows.push_back({"product", std::to_string(product.id)});
    table.rows.push_back({"names", product.names});
    table.rows.push_back({"registered in", mainFile.path + ":" + std::to_string(product.line)});
    table.rows.push_back(
        {"configuration", product.location + (file.readable ? "" : " (not readable: built-in defaults)")});
    table.rows.push_back({"application messages", !isSwitched ? "not set" : isOn ? "on" : "off"});
    table.rows.push_back({"originators", std::to_string(originators) + " (Default included)"});
    table.rows.push_back({"log sets", std::to_string(logsets)});
    tools::printTable(out, table, options.color);
    return tools::EXIT_OK;
}
