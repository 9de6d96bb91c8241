// SPDX-License-Identifier: Apache-2.0
// qdlogcfg check: everything in the configuration that the library would skip, misread or
// fail on, each finding with its file and line. What is looked for in a product's file is in
// check_product.cpp.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "common/configurations.h"
#include "common/exit_codes.h"
#include "edit.h"
#include "findings.h"

using tools::Json;
using tools::Output;

void Findings::sort() {
    std::map<std::string, size_t> order;
    for (const Finding &finding : list)
        order.try_emplace(finding.file, order.size());
    std::stable_sort(list.begin(), list.end(), [&order](const Finding &a, const Finding &b) {
        return std::make_pair(order.at(a.file), a.line) < std::make_pair(order.at(b.file), b.line);
    });
}

namespace {

// ---- what is beside a file ---------------------------------------------------------

constexpr time_t STALE_SECONDS = 10; // as the rewrite takes it where files have no locks

bool isBeingWritten(const std::string &temporary, const struct stat &status) {
    const int descriptor = open(temporary.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const bool isTold = descriptor >= 0 && fcntl(descriptor, F_OFD_GETLK, &lock) == 0;
    if (descriptor >= 0)
        close(descriptor);
    return isTold ? lock.l_type != F_UNLCK : status.st_mtime + STALE_SECONDS >= time(nullptr);
}

// The new file of a change that did not end.
void checkLeftover(const std::string &path, Findings &findings) {
    const std::string temporary = realLocation(path) + ".tmp";
    struct stat status;
    if (lstat(temporary.c_str(), &status) != 0)
        return;
    if (S_ISDIR(status.st_mode))
        findings.error(path, 0, temporary + " is a directory: no change can be made");
    else if (!isBeingWritten(temporary, status))
        findings.warn(path, 0,
                      temporary + " is left over from a change that did not end; the next one removes it");
}

// ---- the main file -----------------------------------------------------------------

constexpr size_t LOCATION_LIMIT = 395; // with ".tmp" and an end 400

void checkMainFile(const ConfigFile &file, Findings &findings) {
    checkLeftover(file.path, findings);
    checkLines(file, findings);
    std::map<uint64_t, std::string> ids;
    std::map<std::string, std::string> locations;
    std::map<std::string, std::string> names;
    for (const std::string_view view : file.sections) {
        const std::string section(view);
        const std::optional<uint64_t> id = decimal(section);
        const bool toolSection = section == "LoggingTools";
        for (const size_t position : file.linesOfSection.at(section)) {
            const ConfigLine &line = file.lines[position];
            const bool known = toolSection ? line.name == "L10nResourceDir"
                                           : line.name == "Configuration" || line.name == "Names" ||
                                                 line.name == "AppMsgLogging";
            if (!known)
                findings.warn(file.path, line.number,
                              "unknown key " + inQuotes(line.name) + " in section " + inQuotes(section));
            if (!toolSection && line.name == "AppMsgLogging" && line.value != "true" && line.value != "false")
                findings.error(file.path, line.number,
                               "AppMsgLogging is true or false here; " + inQuotes(line.value) +
                                   " reads as false");
        }
        if (toolSection)
            continue;
        const ConfigLine *location = file.find(section, "Configuration");
        const size_t at = location != nullptr ? location->number : 0;
        if (!id || *id == 0) {
            findings.error(file.path, at, "section " + inQuotes(section) + " is named by no product id");
            continue;
        }
        const auto [other, isNew] = ids.try_emplace(*id, section);
        if (!isNew)
            findings.error(file.path, at,
                           "sections " + inQuotes(other->second) + " and " + inQuotes(section) +
                               " name the same product");
        if (std::to_string(*id) != section)
            findings.error(file.path, at,
                           "section " + inQuotes(section) + " is never found: the library looks for " +
                               inQuotes(std::to_string(*id)));
        if (location == nullptr) {
            findings.error(file.path, 0,
                           "product " + section + " has no Configuration and counts as not registered");
            continue;
        }
        if (location->value.find(".conf") == std::string_view::npos)
            findings.error(file.path, at,
                           "Configuration holds no \".conf\": log sets of product " + section +
                               " would be looked for elsewhere");
        if (location->value.size() > LOCATION_LIMIT)
            findings.error(file.path, at,
                           "Configuration is longer than " + std::to_string(LOCATION_LIMIT) +
                               " bytes: the file cannot be changed");
        if (location->value.substr(0, 1) != "/")
            findings.error(file.path, at, "Configuration is no absolute path: " + inQuotes(location->value));
        if (const ConfigLine *line = file.find(section, "Names")) {
            for (const std::string &name : tools::namesOf(std::string(line->value).c_str())) {
                const auto [owner, isFirst] = names.try_emplace(name, section);
                if (!isFirst && owner->second != section)
                    findings.warn(file.path, line->number,
                                  "products " + owner->second + " and " + section + " are both named " +
                                      inQuotes(name));
            }
        }
        const auto [sharer, only] = locations.try_emplace(std::string(location->value), section);
        if (!only)
            findings.warn(file.path, at,
                          "products " + sharer->second + " and " + section + " share one configuration file");
    }
}

} // namespace

int checkConfiguration(const Options &options, Output &out) {
    Findings findings;
    const ConfigFile mainFile = readConfigFile(mainConfigPath());
    if (!mainFile.readable)
        throw CommandError(tools::EXIT_UNREADABLE,
                           mainConfigPath() + " cannot be read: " + std::strerror(mainFile.cause));
    std::vector<Product> products = registeredProducts(mainFile);
    if (options.product.empty())
        checkMainFile(mainFile, findings);
    else
        products = {findProduct(options.product, mainFile)};
    for (const Product &product : products) {
        const ConfigFile file = readConfigFile(product.location);
        if (!file.readable) {
            findings.error(mainFile.path, product.line,
                           "product " + std::to_string(product.id) + ": " +
                               (file.exists ? unreadableText(file)
                                            : file.path + " is not there: built-in defaults apply"));
            continue;
        }
        checkLeftover(product.location, findings);
        checkProduct(product, file, findings);
    }

    findings.sort();
    if (options.json) {
        Json json;
        json.beginArray();
        for (const Finding &finding : findings.list) {
            json.beginObject();
            json.text("severity", finding.isError() ? "error" : "warning");
            json.text("file", finding.file);
            json.number("line", finding.line);
            json.text("text", finding.text);
            json.endObject();
        }
        json.endArray();
        writeJson(out, json);
    } else {
        for (const Finding &finding : findings.list) {
            out.write(finding.file + ":" + (finding.line != 0 ? std::to_string(finding.line) + ":" : "") +
                      " ");
            std::string word;
            tools::appendStyled(word, finding.isError() ? tools::Style::BoldRed : tools::Style::Yellow,
                                finding.isError() ? "error" : "warning", options.color);
            out.write(word + ": " + tools::escaped(finding.text) + "\n");
        }
        out.write(findings.list.empty()
                      ? "no problems in " + std::to_string(products.size()) + " product(s)\n"
                      : std::to_string(findings.list.size()) + " problem(s)\n");
    }
    return findings.list.empty() ? tools::EXIT_OK : tools::EXIT_NOTHING;
}
