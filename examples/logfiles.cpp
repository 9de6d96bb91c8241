// SPDX-License-Identifier: Apache-2.0
// A log-management tool: finds the log files of a product and tidies up.
//
// Shows: reading all configurations of a product; listing the files of each series,
// oldest first; reading records; the surplus files that the configuration no longer
// wants, archiving and deleting them.
//
//   logfiles list PRODUCT             the files of each series
//   logfiles newest PRODUCT [COUNT]   the newest COUNT (10) records of each series
//   logfiles surplus PRODUCT          the files that may be removed
//   logfiles archive PRODUCT DIR      copies those to DIR and deletes them
#include "zoltlog_results.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr uint32_t MOST_CONFIGURATIONS = 1024;

// All originators and log sets of a product
struct Configurations {
    explicit Configurations(uint64_t product) : records(MOST_CONFIGURATIONS) {
        result = zoltLogReadProdIDCfg(nullptr, product, MOST_CONFIGURATIONS, records.data(), &count);
    }
    ~Configurations() { FreeConfigArray(records.data(), count); }
    Configurations(const Configurations &) = delete;
    Configurations &operator=(const Configurations &) = delete;

    std::vector<LogCfg *> records;
    uint32_t count = 0;
    uint32_t result;
};

struct Listing {
    Listing() = default;
    ~Listing() {
        for (LogFileEntry *entry = list.files; entry != nullptr;) {
            LogFileEntry *next = entry->next;
            zoltLogFree(entry);
            entry = next;
        }
    }
    Listing(const Listing &) = delete;
    Listing &operator=(const Listing &) = delete;

    LogListing list = {};
};

// Oldest first. Files of one second the library lists in no particular order; the
// counter in their names tells.
std::vector<const LogFileEntry *> byAge(const LogListing &list) {
    std::vector<const LogFileEntry *> entries;
    for (const LogFileEntry *entry = list.files; entry != nullptr; entry = entry->next)
        entries.push_back(entry);
    std::sort(entries.begin(), entries.end(), [](const LogFileEntry *a, const LogFileEntry *b) {
        return a->creationTime != b->creationTime ? a->creationTime < b->creationTime
                                                  : std::strcmp(a->name, b->name) < 0;
    });
    return entries;
}

std::string titleOf(const LogCfg &cfg) {
    return cfg.isLogset != 0
               ? std::string("log set ") + (cfg.logsetName != nullptr ? cfg.logsetName : "Default")
               : "originator " + std::to_string(cfg.originatorId);
}

std::string localTime(int64_t seconds) {
    struct tm local;
    char text[32] = "";
    if (zoltLogOs_localtime_r(seconds, &local) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

// ---- records --------------------------------------------------------------------

// Takes "123," or "3:abc," off the front of a record.
std::string_view takeNumber(std::string_view &rest) {
    const size_t end = std::min(rest.find(','), rest.size());
    const std::string_view number = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return number;
}
std::string_view takeText(std::string_view &rest) {
    const size_t colon = rest.find(':');
    if (colon == std::string_view::npos)
        return {};
    const size_t length = std::strtoul(std::string(rest.substr(0, colon)).c_str(), nullptr, 10);
    const std::string_view text = rest.substr(colon + 1, length);
    rest.remove_prefix(std::min(colon + 1 + length + 1, rest.size()));
    return text;
}

void printRecord(const std::string &line, bool ofLogset) {
    static const char *const kinds[] = {"debug", "diag", "app", "context", "audit"};
    std::string_view rest = line;
    const unsigned long kind = std::strtoul(std::string(takeNumber(rest)).c_str(), nullptr, 10);
    if (!ofLogset)
        takeNumber(rest); // product
    const std::string_view originator = takeNumber(rest);
    if (!ofLogset)
        takeNumber(rest); // originator of the file
    takeNumber(rest);     // message id
    const long long milliseconds = std::strtoll(std::string(takeNumber(rest)).c_str(), nullptr, 10);
    takeNumber(rest); // process
    takeNumber(rest); // thread
    const std::string_view token = takeText(rest);
    const std::string_view text = takeText(rest);
    const std::string_view who = takeText(rest);
    std::string shown(text);
    for (char &byte : shown) // a text must not drive the terminal
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = '?';
    std::printf("  %s.%03lld %-7s %.*s %.*s%s%.*s%s %s\n", localTime(milliseconds / 1000).c_str(),
                milliseconds % 1000, kind < std::size(kinds) ? kinds[kind] : "?",
                static_cast<int>(originator.size()), originator.data(), static_cast<int>(who.size()),
                who.data(), token.empty() ? "" : " [", static_cast<int>(token.size()), token.data(),
                token.empty() ? "" : "]", shown.c_str());
}

// ---- commands --------------------------------------------------------------------

int list(Configurations &configurations, size_t newest) {
    int series = 0;
    for (uint32_t i = 0; i < configurations.count; ++i) {
        LogCfg *cfg = configurations.records[i];
        Listing listing;
        if (GetLogFiles(&cfg, 1, &listing.list) != ZOLTLOG_OK)
            continue; // no file yet
        ++series;
        std::printf("%s in %s\n", titleOf(*cfg).c_str(), cfg->directory);
        std::deque<std::string> last;
        for (const LogFileEntry *entry : byAge(listing.list)) {
            const std::string path = std::string(entry->directory) + entry->name;
            struct stat status;
            if (newest == 0 && stat(path.c_str(), &status) == 0)
                std::printf("  %s %10lld bytes  %s\n", localTime(entry->creationTime).c_str(),
                            static_cast<long long>(status.st_size), entry->name);
            if (newest == 0)
                continue;
            std::ifstream file(path);
            std::string line;
            std::getline(file, line); // the header
            while (std::getline(file, line)) {
                last.push_back(line);
                if (last.size() > newest)
                    last.pop_front();
            }
        }
        for (const std::string &line : last)
            printRecord(line, cfg->isLogset != 0);
    }
    return series > 0 ? 0 : 1;
}

// Shows the surplus files, or moves them to a directory.
int surplus(Configurations &configurations, uint64_t product, const char *archive) {
    int failures = 0;
    for (uint32_t i = 0; i < configurations.count; ++i) {
        const LogCfg *cfg = configurations.records[i];
        Listing listing;
        const uint32_t result = cfg->isLogset != 0
                                    ? zoltLogGetManageableLogFilesSL(product, cfg->logsetName, &listing.list)
                                    : zoltLogGetManageableLogFiles(product, cfg->originatorId, &listing.list);
        if (result != ZOLTLOG_OK)
            continue; // no file yet
        char *path = nullptr;
        while (zoltLogFetchNextFile(&listing.list, &path) == ZOLTLOG_OK) {
            uint32_t done = ZOLTLOG_OK;
            if (archive != nullptr)
                done = zoltLogCopyFile(path, archive);
            if (archive != nullptr && done == ZOLTLOG_OK)
                done = zoltLogDeleteFile(path);
            std::printf("%s: %s%s\n", titleOf(*cfg).c_str(), path, done == ZOLTLOG_OK ? "" : " FAILED");
            failures += done != ZOLTLOG_OK;
            zoltLogFreeBuffer(&path);
        }
    }
    return failures > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, ""); // directories are named in the user's encoding
    const std::string command = argc > 2 ? argv[1] : "";
    const uint64_t product = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0;
    const bool known = (argc == 3 && (command == "list" || command == "surplus" || command == "newest")) ||
                       (argc == 4 && (command == "newest" || command == "archive"));
    if (!known || product == 0) {
        std::fprintf(stderr, "usage: logfiles list|newest|surplus|archive PRODUCT [COUNT|DIRECTORY]\n");
        return 2;
    }
    Configurations configurations(product);
    if (configurations.result != ZOLTLOG_OK) {
        std::fprintf(stderr, "logfiles: product %llu has no configuration: %s\n",
                     static_cast<unsigned long long>(product), qdulResultText(configurations.result));
        return 3;
    }
    if (command == "list")
        return list(configurations, 0);
    if (command == "newest")
        return list(configurations, argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 10);
    return surplus(configurations, product, command == "archive" ? argv[3] : nullptr);
}
