// SPDX-License-Identifier: Apache-2.0
// Finds the files to read. Sections: configuration, rules and listing, the file
// filter, completion.
#include "qdlogview/sources.h"

#include "common/archive.h"
#include "common/configurations.h"
#include "common/files.h"
#include "common/record_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogview {

using tools::FileName;

// ---- configuration ---------------------------------------------------------------

namespace {

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
    std::string problem;
    if (hasProduct)
        product = tools::findProduct(settings.product, problem);
    if (problem.empty() && hasOriginator)
        originator = tools::findOriginator(settings.originator, product, problem);
    if (problem.empty() && !settings.fileOriginator.empty())
        wantedFileOriginator = tools::findOriginator(settings.fileOriginator, product, problem);
    if (!problem.empty())
        problems.push_back(problem);
    return problem.empty();
}

// Tells that nothing is known of a log set, unless its configuration cannot be read.
bool Sources::lacksLogSet(const std::string &name, uint32_t result) {
    problems.push_back(tools::configurationProblem(product, result));
    const tools::Configurations all(product);
    if (all.result == ZOLTLOG_OK)
        problems.back() = "there is no log set '" + name + "' in the configuration " + GetZoltLogCfgLoc();
    return false;
}

// Rules from the configuration. An originator's records may be in files of other
// originators and of log sets, so all directories of a product are read unless a
// file originator or a log set is named.
bool Sources::addConfigured(const Settings &settings) {
    const auto failed = [&](uint32_t result) {
        problems.push_back(tools::configurationProblem(product, result));
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
        tools::Configuration one;
        result = zoltLogReadCfg(product, wantedFileOriginator, &one.cfg);
        if (result != ZOLTLOG_OK)
            return failed(result);
        one.cfg.productId = product;
        add(one.cfg);
        return true;
    }
    if (hasProduct && !settings.logSet.empty()) {
        tools::Configuration one;
        result = zoltLogReadlogsetCfg(product, settings.logSet.c_str(), &one.cfg);
        if (result != ZOLTLOG_OK)
            return lacksLogSet(settings.logSet, result);
        one.cfg.productId = product;
        wantedLogSet = one.cfg.logsetFilename != nullptr && one.cfg.logsetFilename[0] != '\0'
                           ? one.cfg.logsetFilename
                           : settings.logSet;
        add(one.cfg);
        return true;
    }
    const tools::Configurations all(product);
    std::set<uint64_t> products;
    bool knowsLogSet = false;
    for (const LogCfg *each : all) {
        const LogCfg &cfg = *each;
        products.insert(cfg.productId);
        add(cfg);
        const bool hasFile =
            cfg.isLogset != 0 && cfg.logsetFilename != nullptr && cfg.logsetFilename[0] != '\0';
        const bool isNamed =
            cfg.isLogset != 0 && cfg.logsetName != nullptr && settings.logSet == cfg.logsetName;
        knowsLogSet = knowsLogSet || isNamed || (hasFile && settings.logSet == cfg.logsetFilename);
        if (isNamed && hasFile)
            wantedLogSet = cfg.logsetFilename;
    }
    if (!settings.logSet.empty() && !knowsLogSet)
        return lacksLogSet(settings.logSet, all.result);
    if (hasProduct)
        products.insert(product);
    else
        problems = tools::unreadableConfigurations();
    // Originators without a section of their own write where the default settings say.
    for (const uint64_t each : products) {
        tools::Configuration one;
        const uint32_t found = zoltLogReadCfg(each, ZOLTLOG_DEFAULT_ORIGINATOR, &one.cfg);
        one.cfg.productId = each;
        if (found == ZOLTLOG_OK)
            add(one.cfg);
    }
    if (!rules.empty() || all.result == ZOLTLOG_OK)
        return true;
    return problems.empty() ? failed(all.result) : false;
}

// ---- rules and listing -----------------------------------------------------------

namespace {

SeriesPlace placeInSeries(std::string_view base, const FileName &name) {
    SeriesPlace place;
    const auto digits = [&](int number) { place.date = place.date * 100 + static_cast<uint64_t>(number); };
    place.date = static_cast<uint64_t>(name.year);
    for (const int number : {name.month, name.day, name.hour, name.minute, name.second})
        digits(number);
    place.counter = name.counter;
    // Behind what the series shares stand the date and, in an originator's, the counter.
    place.shared = name.kind == FileName::Kind::LogSet
                       ? static_cast<size_t>(name.dateTime.data() - base.data())
                       : base.rfind('-', base.rfind('-') - 1) + 1;
    return place;
}

// Series, order and the earliest possible begin.
void describe(SourceFile &file, const FileName &name) {
    file.place = placeInSeries(file.base, name);
    tm parts{};
    parts.tm_year = name.year - 1900;
    parts.tm_mon = name.month - 1;
    parts.tm_mday = name.day;
    constexpr int64_t FARTHEST_ZONE = 54000; // 15 hours; the name has the writer's local date
    file.created = (static_cast<int64_t>(timegm(&parts)) - FARTHEST_ZONE) * 1000;
}

bool comesBefore(const SourceFile &a, const SourceFile &b) {
    if (a.isInSeries() != b.isInSeries())
        return b.isInSeries();
    if (a.directory != b.directory)
        return a.isInSeries() ? *a.directory < *b.directory : a.path() < b.path();
    if (a.isInSeries()) {
        const std::string_view ofA = a.series().second;
        const std::string_view ofB = b.series().second;
        if (ofA != ofB)
            return ofA < ofB;
        if (a.place.order() != b.place.order())
            return a.place.order() < b.place.order();
    }
    return std::strcmp(a.base, b.base) < 0;
}

// Any order, as long as it is one.
bool isKnownBefore(const SourceFile *a, const SourceFile *b) {
    return a->directory != b->directory ? std::less<>()(a->directory, b->directory)
                                        : std::strcmp(a->base, b->base) < 0;
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

std::string unpackedPath(const std::string &path) {
    return path.substr(0, path.size() - tools::packedSuffix(path).size());
}

SeriesPlace placeOf(const std::string &path, std::string &series) {
    const size_t slash = path.rfind('/') + 1;
    const std::string_view base = std::string_view(path).substr(slash);
    FileName name;
    SeriesPlace place;
    if (tools::parseFileName(base, name))
        place = placeInSeries(base, name);
    series = place.shared != 0 ? path.substr(0, slash + place.shared) : "";
    return place;
}

const std::string *Sources::directoryText(const std::string &directory) {
    return &*directories.insert(directory).first;
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
        if (!opened.open(file.path()))
            return true; // the reader tells the problem
        host = opened.host.substr(0, opened.host.find(' '));
    }
    return evalTreeToFilterFiles(
               name.product, name.originator, host.c_str(), logSet.empty() ? nullptr : logSet.c_str(),
               std::max<int64_t>(file.created / 1000, 0), file.modified / 1000, query->root) != 0;
}

bool Sources::isKnown(const std::string *directory, std::string_view base) const {
    if (known.empty())
        return false;
    const std::string text(base);
    SourceFile wanted;
    wanted.directory = directory;
    wanted.base = text.c_str();
    return std::binary_search(known.begin(), known.end(), &wanted, isKnownBefore);
}

// Appends the files of a directory that are not known.
bool Sources::list(const DirectoryRule &rule) {
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
    SourceFile file;
    file.directory = directoryText(rule.directory);
    while (const dirent *entry = readdir(directory.get())) {
        const std::string_view base = entry->d_name;
        FileName name;
        if (!tools::parseFileName(base, name) || (rule.product != 0 && name.product != rule.product) ||
            (rule.fileOriginator != 0 && name.originator != rule.fileOriginator) ||
            (!rule.logSet.empty() && name.logSet != rule.logSet) || isKnown(file.directory, base))
            continue;
        // A file and its compressed copy are one; that which was read stays it.
        if (name.isPacked) {
            const std::string plain = unpackedPath(entry->d_name);
            if (isKnown(file.directory, plain) ||
                fstatat(dirfd(directory.get()), plain.c_str(), &status, 0) == 0)
                continue;
        }
        file.base = entry->d_name;
        describe(file, name);
        if (!rule.series.empty() &&
            (file.series().second != rule.series || file.place.order() < rule.from.order()))
            continue;
        if (fstatat(dirfd(directory.get()), entry->d_name, &status, 0) != 0 || !S_ISREG(status.st_mode))
            continue; // gone meanwhile, or no file
        file.size = static_cast<uint64_t>(status.st_size);
        file.modified = nanoseconds(status.st_mtim) / 1000000;
        if (!passes(file))
            continue;
        file.base = names.keep(base);
        files.push_back(file);
    }
    return true;
}

// The log files of a bundle, as if it were a directory.
void Sources::addArchive(const std::string &path) {
    const auto isLog = [](std::string_view name) {
        FileName parsed;
        return tools::parseFileName(name.substr(name.rfind('/') + 1), parsed);
    };
    std::vector<tools::ArchiveMember> members;
    std::string problem;
    if (!tools::unpackArchive(path, isLog, members, problem))
        problems.push_back(problem);
    for (const tools::ArchiveMember &member : members) {
        const std::string full = path + "/" + member.name;
        const size_t slash = full.rfind('/') + 1;
        SourceFile file;
        file.directory = directoryText(full.substr(0, slash));
        file.base = names.keep(std::string_view(full).substr(slash));
        FileName name;
        struct stat status {};
        if (fstat(member.descriptor, &status) != 0 || !tools::parseFileName(file.base, name) ||
            (product != 0 && name.product != product) ||
            (wantedFileOriginator != 0 && name.originator != wantedFileOriginator) ||
            (!wantedLogSet.empty() && name.logSet != wantedLogSet)) {
            close(member.descriptor);
            continue;
        }
        describe(file, name);
        tools::nameDescriptor(full, member.descriptor);
        file.size = static_cast<uint64_t>(status.st_size);
        file.modified = INT64_MAX;
        if (passes(file))
            files.push_back(file);
    }
}

void Sources::addNamed(const std::string &path, bool follow) {
    struct stat status {};
    const auto take = [&](const std::string &named) {
        const size_t slash = named.rfind('/') + 1;
        SourceFile file;
        file.directory = directoryText(named.substr(0, slash));
        file.base = names.keep(std::string_view(named).substr(slash));
        file.modified = INT64_MAX;
        return file;
    };
    if (path == "-") {
        files.push_back(take(path));
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
    SourceFile file = take(realpath(path.c_str(), real) != nullptr ? real : path);
    if (!tools::archiveSuffix(path).empty())
        return addArchive(*file.directory + std::string(file.base));
    file.size = static_cast<uint64_t>(status.st_size);
    file.modified = nanoseconds(status.st_mtim) / 1000000;
    FileName name;
    if (tools::parseFileName(file.base, name))
        describe(file, name);
    if (follow && file.isInSeries()) { // the file and those that come after it in its series
        DirectoryRule rule;
        rule.directory = *file.directory;
        rule.series = file.series().second;
        rule.from = file.place;
        addRule(rule);
        return;
    }
    files.push_back(file);
}

// Brings what was appended since into order, each file once.
void Sources::sortFrom(size_t first) {
    const auto begin = files.begin() + static_cast<ptrdiff_t>(first);
    std::sort(begin, files.end(), comesBefore);
    files.erase(std::unique(begin, files.end(),
                            [](const SourceFile &a, const SourceFile &b) {
                                return a.directory == b.directory && std::strcmp(a.base, b.base) == 0;
                            }),
                files.end());
}

bool Sources::find(const Settings &settings, const FileQuery &fileQuery) {
    query = &fileQuery;
    if (!resolve(settings))
        return false;
    wantedLogSet = settings.logSet;
    for (const std::string &path : settings.paths)
        addNamed(path, settings.follow);
    if (settings.paths.empty() && !addConfigured(settings))
        return false;
    for (DirectoryRule &rule : rules)
        rule.logSet = wantedLogSet;

    bool readable = !files.empty();
    for (const DirectoryRule &rule : rules) {
        if (list(rule) || (settings.paths.empty() && errno == ENOENT)) // or nothing was written there yet
            readable = true;
        else
            problems.push_back(rule.directory + ": " + std::strerror(errno));
    }
    sortFrom(0);
    for (const SourceFile &file : files) {
        if (settings.follow)
            known.push_back(&file);
    }
    std::sort(known.begin(), known.end(), isKnownBefore);
    return readable;
}

bool Sources::directoriesChanged() {
    // The clock of a directory's times is coarse: what happened shortly after the
    // listing may have left the time as it was.
    constexpr int64_t COARSE = 100000000; // nanoseconds
    return std::any_of(rules.begin(), rules.end(), [&](const DirectoryRule &rule) {
        struct stat status {};
        const auto same = std::find_if(listed.begin(), listed.end(), [&](const ListedDirectory &each) {
            return each.directory == rule.directory;
        });
        if (stat(rule.directory.c_str(), &status) != 0)
            return false;
        return same == listed.end() || nanoseconds(status.st_mtim) != same->modified ||
               same->listed - same->modified < COARSE;
    });
}

size_t Sources::findNew() {
    const size_t first = files.size();
    for (const DirectoryRule &rule : rules)
        list(rule);
    sortFrom(first);
    for (size_t i = first; i < files.size(); ++i)
        known.insert(std::upper_bound(known.begin(), known.end(), &files[i], isKnownBefore), &files[i]);
    return first;
}

// ---- completion ------------------------------------------------------------------

bool configuredNames(const std::string &what, const std::string &product, std::vector<std::string> &names) {
    std::string ignored;
    const tools::Configurations all(product.empty() ? 0 : tools::findProduct(product, ignored));
    if (all.result != ZOLTLOG_OK)
        return false;
    std::set<std::string> found;
    for (const LogCfg *cfg : all) {
        if (what == "products") {
            found.insert(std::to_string(cfg->productId));
            for (const std::string &name : tools::namesOf(cfg->productShortNames))
                found.insert(name);
        } else if (what == "originators" && cfg->isLogset == 0) {
            found.insert(std::to_string(cfg->originatorId));
            for (const std::string &name : tools::namesOf(cfg->originatorNames))
                found.insert(name);
        } else if (what == "logsets" && cfg->isLogset != 0 && cfg->logsetName != nullptr) {
            found.insert(cfg->logsetName);
        }
    }
    names.assign(found.begin(), found.end());
    return true;
}

} // namespace qdlogview
