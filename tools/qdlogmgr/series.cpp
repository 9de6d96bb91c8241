// SPDX-License-Identifier: Apache-2.0
// Finding series. Sections: texts; configurations; one file; one directory; what is
// surplus and newest; the search.
#include "qdlogmgr/series.h"

#include "common/configurations.h"
#include "common/files.h"
#include "common/record_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace qdlogmgr {

using tools::FileName;

// ---- texts -----------------------------------------------------------------------

std::string Series::title() const {
    return std::to_string(product) +
           (isLogset ? " log set " + logset : " originator " + std::to_string(originator));
}

uint64_t Series::size() const {
    uint64_t total = 0;
    for (const File &file : files)
        total += file.size;
    return total;
}

namespace {

// The directory as the system names it, with a slash at its end; "" when there is none.
std::string resolved(const std::string &directory) {
    char *real = realpath(directory.c_str(), nullptr);
    if (real == nullptr)
        return "";
    std::string text = real;
    free(real);
    if (text.back() != '/')
        text += '/';
    return text;
}

// ---- configurations --------------------------------------------------------------

// What the options' names stand for; 0: any.
struct Wanted {
    uint64_t product = 0;
    uint64_t originator = 0;
    std::string logset;
};

bool resolveNames(const Options &options, Wanted &wanted, Problems &problems) {
    std::string problem;
    wanted.logset = options.logset;
    if (!options.product.empty())
        wanted.product = tools::findProduct(options.product, problem);
    if (problem.empty() && !options.originator.empty())
        wanted.originator = tools::findOriginator(options.originator, wanted.product, problem);
    if (!problem.empty())
        problems.push_back(problem);
    return problem.empty();
}

void takeConfiguration(Series &series, const LogCfg &cfg) {
    series.configured = true;
    series.keep = cfg.numberOfLogFiles;
    series.recycles = cfg.logRecycling != 0;
    if (cfg.logsetName != nullptr)
        series.logset = cfg.logsetName;
    const std::vector<std::string> names = tools::namesOf(cfg.productShortNames);
    series.productName = names.empty() ? "" : names.front();
}

// Joins a series with the configuration that writes into its directory, if there is one.
// An originator without a section of its own has the default one's settings.
void configure(Series &series, const tools::Configurations &all) {
    for (const LogCfg *cfg : all) {
        if (cfg->productId != series.product || (cfg->isLogset != 0) != series.isLogset)
            continue;
        const bool matches = series.isLogset
                                 ? cfg->logsetFilename != nullptr && series.filename == cfg->logsetFilename
                                 : cfg->originatorId == series.originator;
        if (matches && resolved(cfg->directory) == series.directory)
            return takeConfiguration(series, *cfg);
    }
    if (series.isLogset)
        return;
    tools::Configuration one;
    if (zoltLogReadCfg(series.product, series.originator, &one.cfg) == ZOLTLOG_OK &&
        resolved(one.cfg.directory) == series.directory)
        takeConfiguration(series, one.cfg);
}

// ---- one file --------------------------------------------------------------------

constexpr int64_t MS_PER_SECOND = 1000;

std::string doubtOf(const FileName &name, const tools::Header &header) {
    if (name.kind == FileName::Kind::LogSet)
        return header.version == ZOLTLOG_RECORD_VERSION_LOGSET ? "" : "its header is not a log set's";
    if (header.version == ZOLTLOG_RECORD_VERSION_LOGSET)
        return "its header is a log set's";
    if (header.product != name.product || header.originator != name.originator)
        return "its header says product " + std::to_string(header.product) + ", originator " +
               std::to_string(header.originator);
    return "";
}

File readFile(const std::string &directory, const std::string &base, const FileName &name) {
    File file;
    file.name = base;
    file.path = directory + base;
    file.host = name.host;
    file.counter = name.counter;
    file.dateOfName = name.kind == FileName::Kind::LogSet
                          ? strtoull(name.dateTime.data(), nullptr, 10)
                          : static_cast<uint64_t>((name.year * 100 + name.month) * 100 + name.day);
    struct stat status;
    if (lstat(file.path.c_str(), &status) != 0) {
        file.doubtful = strerror(errno);
        return file;
    }
    file.size = static_cast<uint64_t>(status.st_size);
    file.modified = status.st_mtim.tv_sec * MS_PER_SECOND + status.st_mtim.tv_nsec / 1000000;
    file.device = status.st_dev;
    file.inode = status.st_ino;
    if (!S_ISREG(status.st_mode)) {
        file.doubtful = "not a regular file";
        return file;
    }
    tools::FileSummary summary;
    if (!tools::readSummary(file.path, summary, file.doubtful)) {
        if (file.doubtful.empty())
            file.doubtful = "it has no header";
    } else if (summary.header.version == 0) {
        file.doubtful = "it has no header";
    } else {
        file.doubtful = doubtOf(name, summary.header);
        file.hasTimes = summary.hasTimes;
        file.first = summary.first;
        file.last = summary.last;
        file.created = summary.header.created;
    }
    if (name.kind == FileName::Kind::LogSet)
        file.created = convert_time(std::string(name.dateTime).c_str());
    return file;
}

// ---- one directory ---------------------------------------------------------------

using Key = std::tuple<std::string, uint64_t, bool, uint64_t, std::string>;

bool isWanted(const FileName &name, const Wanted &wanted) {
    if (wanted.product != 0 && name.product != wanted.product)
        return false;
    if (wanted.originator != 0)
        return name.kind == FileName::Kind::Originator && name.originator == wanted.originator;
    return wanted.logset.empty() || name.kind == FileName::Kind::LogSet;
}

// A name under which the library makes files where it cannot make them without one:
// ".new-", process, time, number.
bool isTemporaryName(const std::string &name) {
    static constexpr char PREFIX[] = ".new-";
    return name.compare(0, sizeof PREFIX - 1, PREFIX) == 0 &&
           name.find_first_not_of("0123456789-", sizeof PREFIX - 1) == std::string::npos &&
           std::count(name.begin() + sizeof PREFIX - 1, name.end(), '-') == 2;
}

// Its writer holds a temporary file; who is killed holds nothing.
bool isLeftBehind(const std::string &path, uint64_t &size) {
    const int file = tools::openToRead(path, O_NOFOLLOW);
    struct stat status;
    const bool isLeft = file != -1 && fstat(file, &status) == 0 && flock(file, LOCK_EX | LOCK_NB) == 0;
    if (isLeft)
        size = static_cast<uint64_t>(status.st_size);
    if (file != -1)
        close(file);
    return isLeft;
}

void readDirectory(const std::string &directory, const Wanted &wanted, std::map<Key, Series> &found,
                   std::vector<Leftover> &leftovers, Problems &problems) {
    DIR *stream = opendir(directory.c_str());
    if (stream == nullptr) {
        problems.push_back(directory + ": " + strerror(errno));
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        const std::string base = entry->d_name;
        FileName name;
        if (isTemporaryName(base)) {
            Leftover leftover{directory + base, directory, 0};
            if (isLeftBehind(leftover.path, leftover.size))
                leftovers.push_back(leftover);
            continue;
        }
        if (!tools::parseFileName(base, name) || !isWanted(name, wanted))
            continue;
        const bool isLogset = name.kind == FileName::Kind::LogSet;
        Series &series =
            found[Key(directory, name.product, isLogset, isLogset ? 0 : name.originator, name.logSet)];
        series.directory = directory;
        series.product = name.product;
        series.isLogset = isLogset;
        series.originator = isLogset ? 0 : name.originator;
        series.filename = name.logSet;
        series.logset = name.logSet;
        series.files.push_back(readFile(directory, base, name));
    }
    closedir(stream);
}

// ---- what is surplus and newest --------------------------------------------------

auto ageByName(const File &file) {
    return std::make_tuple(file.dateOfName, file.counter);
}

auto age(const File &file) {
    return std::make_tuple(file.created, file.dateOfName, file.counter, file.name);
}

// Each host's newest file, by its creation and by its name, should these differ.
void markNewest(Series &series) {
    std::map<uint64_t, std::pair<File *, File *>> newest;
    for (File &file : series.files) {
        if (!file.doubtful.empty())
            continue;
        auto &[byAge, byName] = newest[file.host];
        if (byAge == nullptr || age(*byAge) < age(file))
            byAge = &file;
        if (byName == nullptr || ageByName(*byName) < ageByName(file))
            byName = &file;
    }
    for (auto &[host, both] : newest)
        both.first->newest = both.second->newest = true;
}

constexpr int64_t FUTURE_LIMIT = 86400 * MS_PER_SECOND; // the library leaves such files out

// What the library's own reduction takes away from the series.
void markSurplus(Series &series, int64_t now) {
    if (!series.configured)
        return;
    LogCfg cfg = {};
    cfg.productId = series.product;
    cfg.originatorId = series.originator;
    cfg.numberOfLogFiles = series.keep;
    LogFileEntry *list = nullptr; // from the newest to the oldest
    for (const File &file : series.files) {
        if (file.modified - FUTURE_LIMIT > now)
            continue;
        auto *entry = static_cast<LogFileEntry *>(zoltLogMalloc(sizeof(LogFileEntry) + file.name.size()));
        if (entry == nullptr)
            break;
        entry->next = list;
        entry->creationTime = file.created;
        memcpy(entry->name, file.name.c_str(), file.name.size() + 1);
        list = entry;
    }
    LogCfg *cfgs = &cfg;
    GetManageableLogFiles(&list, &cfgs, 1);
    std::set<std::string> names;
    while (list != nullptr) {
        LogFileEntry *next = list->next;
        names.insert(list->name);
        zoltLogFree(list);
        list = next;
    }
    for (File &file : series.files)
        file.surplus = names.count(file.name) != 0;
}

} // namespace

// ---- the search ------------------------------------------------------------------

bool findSeries(const Options &options, std::vector<Series> &series, std::vector<Leftover> &leftovers,
                Problems &problems) {
    Wanted wanted;
    if (!resolveNames(options, wanted, problems))
        return true; // nothing matches
    const tools::Configurations all;
    if (all.result != ZOLTLOG_OK && options.directories.empty()) {
        problems.push_back(tools::configurationProblem(wanted.product, all.result));
        return false;
    }
    if (wanted.product != 0 && options.directories.empty() &&
        std::none_of(all.begin(), all.end(),
                     [&](const LogCfg *cfg) { return cfg->productId == wanted.product; })) {
        problems.push_back(tools::configurationProblem(wanted.product, ZOLTLOG_CFG_NOT_FOUND));
        return false;
    }

    std::set<std::string> directories;
    for (const std::string &directory : options.directories) {
        const std::string real = resolved(directory);
        if (real.empty())
            problems.push_back(directory + ": " + strerror(errno));
        else
            directories.insert(real);
    }
    if (options.directories.empty())
        for (const LogCfg *cfg : all)
            if ((wanted.product == 0 || cfg->productId == wanted.product) && cfg->directory[0] != '\0')
                directories.insert(resolved(cfg->directory));
    directories.erase(""); // configured, but nothing was ever written there

    if (wanted.product == 0 && options.directories.empty())
        problems = tools::unreadableConfigurations();
    std::map<Key, Series> found;
    for (const std::string &directory : directories)
        readDirectory(directory, wanted, found, leftovers, problems);
    for (auto &[key, one] : found) {
        configure(one, all);
        if (!wanted.logset.empty() && one.logset != wanted.logset && one.filename != wanted.logset)
            continue;
        std::sort(one.files.begin(), one.files.end(),
                  [](const File &a, const File &b) { return age(a) < age(b); });
        markNewest(one);
        markSurplus(one, options.now);
        series.push_back(std::move(one));
    }
    if (series.empty() && !wanted.logset.empty() && problems.empty() &&
        std::none_of(all.begin(), all.end(), [&](const LogCfg *cfg) {
            return cfg->isLogset != 0 && cfg->logsetName != nullptr && wanted.logset == cfg->logsetName;
        }))
        problems.push_back("there is no log set '" + wanted.logset + "'");
    return !directories.empty() || problems.empty();
}

} // namespace qdlogmgr
