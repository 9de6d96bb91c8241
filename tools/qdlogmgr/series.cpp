// SPDX-License-Identifier: Apache-2.0
// Finding series. Sections: texts; configurations; one file; one directory; the series of
// the files; what is surplus and newest; the search.
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
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace qdlogmgr {

using tools::FileName;

// ---- texts -----------------------------------------------------------------------

std::string Series::logset() const {
    return writer != nullptr && !writer->logset.empty() ? writer->logset : first->logset;
}

std::string Series::title() const {
    return std::to_string(product()) +
           (isLogset() ? " log set " + logset() : " originator " + std::to_string(originator()));
}

uint64_t Series::size() const {
    uint64_t total = 0;
    for (const File &file : *this)
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

// Who writes which series. The configuration is gone through once, whatever the number of
// series.
struct Writers {
    Writers(const tools::Configurations &all, Catalogue &into) : catalogue(into) {
        for (const LogCfg *cfg : all) {
            if (cfg->isLogset == 0)
                sections.insert({cfg->productId, cfg->originatorId});
            if (cfg->isLogset == 0 || cfg->logsetFilename != nullptr)
                known.try_emplace(keyOf(*cfg, directoryOf(*cfg)), add(*cfg)); // the first one counts
        }
    }

    // Null: nobody is configured to write the series.
    const Writer *find(const Series &series) {
        const File &file = *series.first;
        const auto found = known.find({file.product, series.isLogset(), file.originator,
                                       series.isLogset() ? file.logset : "", *file.directory});
        if (found != known.end())
            return found->second;
        if (series.isLogset() || sections.count({file.product, file.originator}) != 0)
            return nullptr;
        const Writer *writer = defaultOf(file.product, file.originator);
        return writer != nullptr && writer->directory == *file.directory ? writer : nullptr;
    }

  private:
    // Product, whether it is a log set, originator, file name of the log set, directory
    using Key = std::tuple<uint64_t, bool, uint64_t, std::string, std::string>;

    static Key keyOf(const LogCfg &cfg, const std::string &directory) {
        if (cfg.isLogset != 0)
            return {cfg.productId, true, 0, cfg.logsetFilename, directory};
        return {cfg.productId, false, cfg.originatorId, "", directory};
    }

    const std::string &directoryOf(const LogCfg &cfg) {
        const auto [found, isNew] = directories.try_emplace(cfg.directory);
        if (isNew)
            found->second = resolved(cfg.directory);
        return found->second;
    }

    const Writer *add(const LogCfg &cfg) {
        const std::vector<std::string> names = tools::namesOf(cfg.productShortNames);
        Writer writer;
        writer.productName = names.empty() ? "" : names.front();
        writer.logset = cfg.logsetName != nullptr ? cfg.logsetName : "";
        writer.directory = directoryOf(cfg);
        writer.keep = cfg.numberOfLogFiles;
        writer.recycles = cfg.logRecycling != 0;
        catalogue.writers.push_back(std::move(writer));
        return &catalogue.writers.back();
    }

    // An originator without a section of its own has the default one's settings, as all such
    // of its product have.
    const Writer *defaultOf(uint64_t product, uint64_t originator) {
        const auto [found, isNew] = defaults.try_emplace(product, nullptr);
        tools::Configuration one;
        if (isNew && zoltLogReadCfg(product, originator, &one.cfg) == ZOLTLOG_OK)
            found->second = add(one.cfg);
        return found->second;
    }

    Catalogue &catalogue;
    std::map<Key, const Writer *> known;
    std::set<std::pair<uint64_t, uint64_t>> sections; // by product and originator
    std::map<uint64_t, const Writer *> defaults;      // by product
    std::map<std::string, std::string> directories;   // as configured, and resolved
};

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

// What an lstat and the file itself tell. The reason why it may not belong to the series,
// or "".
std::string readFile(const FileName &name, File &file) {
    const std::string path = file.path();
    struct stat status;
    if (lstat(path.c_str(), &status) != 0)
        return strerror(errno);
    file.size = static_cast<uint64_t>(status.st_size);
    file.modified = status.st_mtim.tv_sec * MS_PER_SECOND + status.st_mtim.tv_nsec / 1000000;
    file.device = status.st_dev;
    file.inode = status.st_ino;
    if (!S_ISREG(status.st_mode))
        return "not a regular file";
    tools::FileSummary summary;
    std::string problem;
    const bool isRead = tools::readSummary(path, summary, problem);
    if (!isRead && !problem.empty())
        return problem;
    if (!isRead || summary.header.version == 0)
        return "it has no header";
    file.hasTimes = summary.hasTimes;
    file.first = summary.first;
    file.last = summary.last;
    file.created = summary.header.created;
    return doubtOf(name, summary.header);
}

// ---- one directory ---------------------------------------------------------------

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

void addFile(const std::string &directory, const char *base, const FileName &name, Catalogue &catalogue) {
    const auto text = [&](const std::string &what) {
        return what.empty() ? "" : catalogue.texts.insert(what).first->c_str();
    };
    const bool isLogset = name.kind == FileName::Kind::LogSet;
    File file{};
    file.directory = &directory;
    file.name = catalogue.names.keep(base);
    file.logset = isLogset ? text(std::string(name.logSet)) : nullptr;
    file.product = name.product;
    file.originator = isLogset ? 0 : name.originator;
    file.host = name.host;
    file.counter = name.counter;
    file.dateOfName = isLogset ? strtoull(name.dateTime.data(), nullptr, 10)
                               : static_cast<uint64_t>((name.year * 100 + name.month) * 100 + name.day);
    file.doubt = text(readFile(name, file));
    if (isLogset)
        file.created = convert_time(std::string(name.dateTime).c_str());
    catalogue.files.push_back(file);
}

void readDirectory(const std::string &directory, const Wanted &wanted, Catalogue &catalogue,
                   Problems &problems) {
    DIR *stream = opendir(directory.c_str());
    if (stream == nullptr) {
        problems.push_back(directory + ": " + strerror(errno));
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        FileName name;
        if (isTemporaryName(entry->d_name)) {
            Leftover leftover{directory + entry->d_name, directory, 0};
            if (isLeftBehind(leftover.path, leftover.size))
                catalogue.leftovers.push_back(leftover);
        } else if (tools::parseFileName(entry->d_name, name) && isWanted(name, wanted)) {
            addFile(directory, entry->d_name, name, catalogue);
        }
    }
    closedir(stream);
}

// ---- the series of the files -----------------------------------------------------

auto ageByName(const File &file) {
    return std::make_tuple(file.dateOfName, file.counter);
}

auto age(const File &file) {
    return std::make_tuple(file.created, file.dateOfName, file.counter, std::string_view(file.name));
}

auto seriesOf(const File &file) {
    return std::make_tuple(std::string_view(*file.directory), file.product, file.logset != nullptr,
                           file.originator, std::string_view(file.logset != nullptr ? file.logset : ""));
}

// Puts the files of each series together, from the oldest to the newest.
void formSeries(Catalogue &catalogue) {
    std::deque<File> &files = catalogue.files;
    std::sort(files.begin(), files.end(), [](const File &a, const File &b) {
        const auto ofA = seriesOf(a);
        const auto ofB = seriesOf(b);
        return ofA != ofB ? ofA < ofB : age(a) < age(b);
    });
    for (auto first = files.begin(); first != files.end();) {
        const auto end = std::find_if(first, files.end(),
                                      [&](const File &file) { return seriesOf(file) != seriesOf(*first); });
        catalogue.series.push_back({first, static_cast<size_t>(end - first), nullptr});
        first = end;
    }
}

// ---- what is surplus and newest --------------------------------------------------

// Each host's newest file, by its creation and by its name, should these differ.
void markNewest(const Series &series) {
    std::map<uint64_t, std::pair<File *, File *>> newest;
    for (File &file : series) {
        if (file.isDoubtful())
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

// Whether the library takes files away from the series at all: it finds the number to keep
// by the ids that it reads from a name, which need not be those of a log set.
bool isReducible(const Series &series) {
    LogCfg cfg = {};
    LogCfg *cfgs = &cfg;
    cfg.productId = series.product();
    cfg.originatorId = series.originator();
    uint64_t product = 0;
    uint64_t originator = 0;
    getidfromfilename(series.first->name, &product, &originator);
    return found_config(product, originator, &cfgs, 1) != nullptr;
}

// What the library's own reduction takes away from the series: the oldest files beyond the
// number to keep.
void markSurplus(const Series &series, int64_t now) {
    if (!series.isConfigured() || !isReducible(series))
        return;
    const auto isListed = [&](const File &file) { return file.modified - FUTURE_LIMIT <= now; };
    const auto listed = static_cast<uint64_t>(std::count_if(series.begin(), series.end(), isListed));
    uint64_t extra = listed > series.writer->keep ? listed - series.writer->keep : 0;
    for (File &file : series) {
        if (extra == 0)
            return;
        file.surplus = isListed(file);
        extra -= file.surplus ? 1 : 0;
    }
}

} // namespace

// ---- the search ------------------------------------------------------------------

bool findSeries(const Options &options, Catalogue &catalogue, Problems &problems) {
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
    for (const std::string &directory : directories)
        readDirectory(*catalogue.texts.insert(directory).first, wanted, catalogue, problems);
    formSeries(catalogue);
    Writers writers(all, catalogue);
    std::deque<Series> &series = catalogue.series;
    for (Series &one : series)
        one.writer = writers.find(one);
    if (!wanted.logset.empty())
        series.erase(std::remove_if(series.begin(), series.end(),
                                    [&](const Series &one) {
                                        return !one.isLogset() || (one.logset() != wanted.logset &&
                                                                   one.first->logset != wanted.logset);
                                    }),
                     series.end());
    for (const Series &one : series) {
        markNewest(one);
        markSurplus(one, options.now);
    }
    if (series.empty() && !wanted.logset.empty() && problems.empty() &&
        std::none_of(all.begin(), all.end(), [&](const LogCfg *cfg) {
            return cfg->isLogset != 0 && cfg->logsetName != nullptr && wanted.logset == cfg->logsetName;
        }))
        problems.push_back("there is no log set '" + wanted.logset + "'");
    return !directories.empty() || problems.empty();
}

} // namespace qdlogmgr
