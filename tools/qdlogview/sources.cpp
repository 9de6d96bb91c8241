// Finds the files to read. Sections: configuration, rules and listing, the file
// filter, completion.
#include "qdlogview/sources.h"

#include "common/record_file.h"
#include "common/result_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogview {

using tools::FileName;

// ---- configuration ---------------------------------------------------------------

namespace {

constexpr uint32_t MaxConfigurations = 4096;

struct Configurations {
    Configurations() : items(MaxConfigurations, nullptr) {}
    ~Configurations() { FreeConfigArray(items.data(), count); }
    Configurations(const Configurations &) = delete;
    Configurations &operator=(const Configurations &) = delete;

    std::vector<LogCfg *> items;
    uint32_t count = 0;
};

struct OneConfiguration {
    OneConfiguration() = default;
    ~OneConfiguration() { zoltLogFreeCfg(&cfg); }
    OneConfiguration(const OneConfiguration &) = delete;
    OneConfiguration &operator=(const OneConfiguration &) = delete;

    LogCfg cfg = {};
};

bool wholeNumber(const std::string &text, uint64_t &value) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && !text.empty();
}

std::string withSlash(std::string directory) {
    if (directory.empty() || directory.back() != '/')
        directory += '/';
    return directory;
}

} // namespace

// Turns names of products and originators into ids.
bool Sources::resolve(const Settings &settings) {
    hasProduct = !settings.product.empty();
    hasOriginator = !settings.originator.empty();
    const bool productIsId = wholeNumber(settings.product, product);
    const bool originatorIsId = wholeNumber(settings.originator, originator);
    const bool fileOriginatorIsId =
        settings.fileOriginator.empty() || wholeNumber(settings.fileOriginator, wantedFileOriginator);
    if ((!hasProduct || productIsId) && (!hasOriginator || originatorIsId) && fileOriginatorIsId)
        return true;

    Configurations all;
    const uint32_t result = zoltLogReadAllCfg(nullptr, MaxConfigurations, all.items.data(), &all.count);
    if (result != ZOLTLOG_OK) {
        problems.push_back(tools::configurationProblem(GetZoltLogCfgLoc(), result));
        return false;
    }
    const auto idOf = [&](uint32_t kind, const std::string &name, const char *what, uint64_t &id) {
        // Originators have their names within a product.
        std::vector<LogCfg *> some;
        std::copy_if(all.items.begin(), all.items.begin() + all.count, std::back_inserter(some),
                     [&](const LogCfg *cfg) {
                         return kind == ZOLTLOG_ATTR_PRODUCT_ID || !hasProduct || cfg->productId == product;
                     });
        id = GetIdFromName(some.data(), static_cast<uint32_t>(some.size()), kind, name.c_str());
        if (id == 0)
            problems.push_back("no " + std::string(what) + " '" + name + "' is configured in " +
                               GetZoltLogCfgLoc());
        return id != 0;
    };
    return (!hasProduct || productIsId ||
            idOf(ZOLTLOG_ATTR_PRODUCT_ID, settings.product, "product", product)) &&
           (!hasOriginator || originatorIsId ||
            idOf(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, settings.originator, "originator", originator)) &&
           (fileOriginatorIsId || idOf(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, settings.fileOriginator, "originator",
                                       wantedFileOriginator));
}

// Rules from the configuration. An originator's records may be in files of other
// originators and of log sets, so all directories of a product are read unless a
// file originator or a log set is named.
bool Sources::addConfigured(const Settings &settings) {
    const auto failed = [&](uint32_t result) {
        problems.push_back(tools::configurationProblem(GetZoltLogCfgLoc(), result));
        return false;
    };
    const auto add = [&](const LogCfg &cfg) {
        if (cfg.directory[0] == '\0')
            return;
        DirectoryRule rule;
        rule.directory = cfg.directory;
        rule.product = cfg.productId;
        addRule(rule);
    };
    uint32_t result = ZOLTLOG_OK;
    if (hasProduct && wantedFileOriginator != 0 && settings.logSet.empty()) {
        OneConfiguration one;
        result = zoltLogReadCfg(product, wantedFileOriginator, &one.cfg);
        if (result != ZOLTLOG_OK)
            return failed(result);
        one.cfg.productId = product;
        add(one.cfg);
        return true;
    }
    if (hasProduct && !settings.logSet.empty()) {
        OneConfiguration one;
        result = zoltLogReadlogsetCfg(product, settings.logSet.c_str(), &one.cfg);
        if (result != ZOLTLOG_OK)
            return failed(result);
        one.cfg.productId = product;
        wantedLogSet = one.cfg.logsetFilename != nullptr && one.cfg.logsetFilename[0] != '\0'
                           ? one.cfg.logsetFilename
                           : settings.logSet;
        add(one.cfg);
        return true;
    }
    Configurations all;
    result = hasProduct
                 ? zoltLogReadProdIDCfg(nullptr, product, MaxConfigurations, all.items.data(), &all.count)
                 : zoltLogReadAllCfg(nullptr, MaxConfigurations, all.items.data(), &all.count);
    std::set<uint64_t> products;
    for (uint32_t i = 0; i < all.count; ++i) {
        const LogCfg &cfg = *all.items[i];
        products.insert(cfg.productId);
        add(cfg);
        if (cfg.isLogset != 0 && cfg.logsetName != nullptr && settings.logSet == cfg.logsetName &&
            cfg.logsetFilename != nullptr && cfg.logsetFilename[0] != '\0')
            wantedLogSet = cfg.logsetFilename;
    }
    if (hasProduct)
        products.insert(product);
    // Originators without a section of their own write where the default settings say.
    for (const uint64_t each : products) {
        OneConfiguration one;
        const uint32_t found = zoltLogReadCfg(each, ZOLTLOG_DEFAULT_ORIGINATOR, &one.cfg);
        one.cfg.productId = each;
        if (found == ZOLTLOG_OK)
            add(one.cfg);
    }
    return rules.empty() && result != ZOLTLOG_OK ? failed(result) : true;
}

// ---- rules and listing -----------------------------------------------------------

namespace {

// What the name says: series, order and the earliest possible begin.
void describe(SourceFile &file, const std::string &directory) {
    FileName name;
    if (!tools::parseFileName(file.base, name))
        return;
    const bool originator = name.kind == FileName::Kind::Originator;
    char order[64];
    std::snprintf(order, sizeof order, "%04d%02d%02d%02d%02d%02d%020llu", name.year, name.month, name.day,
                  name.hour, name.minute, name.second, static_cast<unsigned long long>(name.counter));
    file.order = order;
    file.series = directory + std::to_string(name.product) + "-" +
                  (originator ? std::to_string(name.originator) + "-" + std::to_string(name.host)
                              : std::string(name.logSet)) +
                  "-";
    tm parts{};
    parts.tm_year = name.year - 1900;
    parts.tm_mon = name.month - 1;
    parts.tm_mday = name.day;
    constexpr int64_t farthestZone = 54000; // 15 hours; the name has the writer's local date
    file.created = (static_cast<int64_t>(timegm(&parts)) - farthestZone) * 1000;
}

bool comesBefore(const SourceFile &a, const SourceFile &b) {
    return a.series != b.series ? a.series < b.series
           : a.order != b.order ? a.order < b.order
                                : a.path < b.path;
}

int64_t nanoseconds(const timespec &time) {
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

int64_t nowNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

} // namespace

void describeFile(const std::string &path, SourceFile &file) {
    const size_t slash = path.rfind('/') + 1;
    file.path = path;
    file.base = path.substr(slash);
    describe(file, path.substr(0, slash));
}

void Sources::addRule(DirectoryRule rule) {
    rule.directory = withSlash(rule.directory);
    char real[PATH_MAX];
    if (realpath(rule.directory.c_str(), real) != nullptr)
        rule.directory = withSlash(real);
    rule.fileOriginator = wantedFileOriginator;
    rule.logSet = wantedLogSet;
    const bool there = std::any_of(rules.begin(), rules.end(), [&](const DirectoryRule &other) {
        return other.directory == rule.directory && other.series == rule.series &&
               (other.product == 0 || other.product == rule.product);
    });
    if (!there)
        rules.push_back(rule);
}

bool Sources::passes(const SourceFile &file) const {
    if (query == nullptr || query->root == nullptr)
        return true;
    FileName name;
    tools::parseFileName(file.base, name);
    const std::string logSet(name.logSet);
    std::string host;
    if (query->needsHost) {
        tools::RecordFile opened;
        if (!opened.open(file.path))
            return true; // the reader tells the problem
        host = opened.host.substr(0, opened.host.find(' '));
    }
    return evalTreeToFilterFiles(
               name.product, name.originator, host.c_str(), logSet.empty() ? nullptr : logSet.c_str(),
               std::max<int64_t>(file.created / 1000, 0), file.modified / 1000, query->root) != 0;
}

bool Sources::list(const DirectoryRule &rule, std::vector<SourceFile> &found) {
    const int64_t started = nowNanoseconds();
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(rule.directory.c_str()), closedir);
    if (directory == nullptr)
        return false;
    struct stat status {};
    if (fstat(dirfd(directory.get()), &status) == 0) {
        const auto same = std::find_if(listed.begin(), listed.end(), [&](const ListedDirectory &each) {
            return each.directory == rule.directory;
        });
        ListedDirectory &entry =
            same != listed.end() ? *same : listed.emplace_back(ListedDirectory{rule.directory, 0, 0});
        entry.modified = nanoseconds(status.st_mtim);
        entry.listed = started;
    }
    while (const dirent *entry = readdir(directory.get())) {
        FileName name;
        if (!tools::parseFileName(entry->d_name, name) ||
            (rule.product != 0 && name.product != rule.product) ||
            (rule.fileOriginator != 0 && name.originator != rule.fileOriginator) ||
            (!rule.logSet.empty() && name.logSet != rule.logSet))
            continue;
        SourceFile file;
        file.base = entry->d_name;
        file.path = rule.directory + file.base;
        const auto at = std::lower_bound(known.begin(), known.end(), file.path);
        if (at != known.end() && *at == file.path)
            continue;
        describe(file, rule.directory);
        if (!rule.series.empty() && (file.series != rule.series || file.order < rule.fromOrder))
            continue;
        if (fstatat(dirfd(directory.get()), entry->d_name, &status, 0) != 0 || !S_ISREG(status.st_mode))
            continue; // gone meanwhile, or no file
        file.size = static_cast<uint64_t>(status.st_size);
        file.modified = nanoseconds(status.st_mtim) / 1000000;
        if (passes(file))
            found.push_back(std::move(file));
    }
    return true;
}

void Sources::addNamed(const std::string &path, bool follow) {
    struct stat status {};
    SourceFile file;
    file.path = path;
    file.base = path.substr(path.rfind('/') + 1);
    file.modified = INT64_MAX;
    if (path == "-") {
        files.push_back(file);
        return;
    }
    if (stat(path.c_str(), &status) != 0) {
        problems.push_back(path + ": " + std::strerror(errno));
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        DirectoryRule rule;
        rule.directory = path;
        rule.product = product;
        addRule(rule);
        return;
    }
    char real[PATH_MAX];
    if (realpath(path.c_str(), real) != nullptr)
        file.path = real;
    file.size = static_cast<uint64_t>(status.st_size);
    file.modified = nanoseconds(status.st_mtim) / 1000000;
    const std::string directory = file.path.substr(0, file.path.rfind('/') + 1);
    describe(file, directory);
    if (follow && !file.series.empty()) { // the file and those that come after it in its series
        DirectoryRule rule;
        rule.directory = directory;
        rule.series = file.series;
        rule.fromOrder = file.order;
        addRule(rule);
        return;
    }
    if (std::none_of(files.begin(), files.end(),
                     [&](const SourceFile &other) { return other.path == file.path; }))
        files.push_back(file);
}

bool Sources::find(const Settings &settings, const FileQuery &fileQuery) {
    query = &fileQuery;
    if (!settings.config.empty())
        setenv("ZOLTLOG_CFG_LOC", settings.config.c_str(), 1); // before the library looks for it
    if (!resolve(settings))
        return false;
    wantedLogSet = settings.logSet;
    for (const std::string &path : settings.paths)
        addNamed(path, settings.follow);
    if (settings.paths.empty() && !addConfigured(settings))
        return false;
    for (DirectoryRule &rule : rules)
        rule.logSet = wantedLogSet;

    std::vector<SourceFile> found;
    bool readable = !files.empty();
    for (const DirectoryRule &rule : rules) {
        if (list(rule, found) ||
            (settings.paths.empty() && errno == ENOENT)) // or nothing was written there yet
            readable = true;
        else
            problems.push_back(rule.directory + ": " + std::strerror(errno));
    }
    files.insert(files.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    std::sort(files.begin(), files.end(), comesBefore);
    files.erase(std::unique(files.begin(), files.end(),
                            [](const SourceFile &a, const SourceFile &b) { return a.path == b.path; }),
                files.end());
    for (const SourceFile &file : files)
        known.push_back(file.path);
    std::sort(known.begin(), known.end());
    return readable;
}

bool Sources::directoriesChanged() {
    // The clock of a directory's times is coarse: what happened shortly after the
    // listing may have left the time as it was.
    constexpr int64_t coarse = 100000000; // nanoseconds
    return std::any_of(rules.begin(), rules.end(), [&](const DirectoryRule &rule) {
        struct stat status {};
        const auto same = std::find_if(listed.begin(), listed.end(), [&](const ListedDirectory &each) {
            return each.directory == rule.directory;
        });
        if (stat(rule.directory.c_str(), &status) != 0)
            return false;
        return same == listed.end() || nanoseconds(status.st_mtim) != same->modified ||
               same->listed - same->modified < coarse;
    });
}

void Sources::findNew(std::vector<SourceFile> &found) {
    found.clear();
    for (const DirectoryRule &rule : rules)
        list(rule, found);
    std::sort(found.begin(), found.end(), comesBefore);
    found.erase(std::unique(found.begin(), found.end(),
                            [](const SourceFile &a, const SourceFile &b) { return a.path == b.path; }),
                found.end());
    for (const SourceFile &file : found)
        known.insert(std::upper_bound(known.begin(), known.end(), file.path), file.path);
}

// ---- completion ------------------------------------------------------------------

bool configuredNames(const std::string &what, std::vector<std::string> &names) {
    Configurations all;
    if (zoltLogReadAllCfg(nullptr, MaxConfigurations, all.items.data(), &all.count) != ZOLTLOG_OK)
        return false;
    std::set<std::string> found;
    const auto addList = [&](const char *list) {
        std::string item;
        for (const char *c = list;; ++c) {
            if (*c == ',' || *c == '\0') {
                if (!item.empty())
                    found.insert(item);
                item.clear();
                if (*c == '\0')
                    break;
            } else if (*c != ' ') {
                item += *c;
            }
        }
    };
    for (uint32_t i = 0; i < all.count; ++i) {
        const LogCfg &cfg = *all.items[i];
        if (what == "products") {
            found.insert(std::to_string(cfg.productId));
            addList(cfg.productShortNames);
        } else if (what == "originators" && cfg.isLogset == 0) {
            found.insert(std::to_string(cfg.originatorId));
            addList(cfg.originatorNames);
        } else if (what == "logsets" && cfg.isLogset != 0 && cfg.logsetName != nullptr) {
            found.insert(cfg.logsetName);
        }
    }
    names.assign(found.begin(), found.end());
    return true;
}

} // namespace qdlogview
