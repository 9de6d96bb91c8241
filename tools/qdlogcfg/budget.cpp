// SPDX-License-Identifier: Apache-2.0
// qdlogcfg budget: the most disk that each series can take, against free space.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unordered_map>
#include <utility>

#include "commands.h"
#include "common/exit_codes.h"

using tools::Json;
using tools::Output;

namespace {

struct Series {
    std::string who;
    std::string directory;
    uint64_t fileBytes; // of one full file; 0: files have no size limit
    uint64_t files;     // kept; 0: all
    std::string why;    // why there is no bound; empty when there is one
    uint64_t bound;     // bytes
    uint64_t used;      // bytes of the files that are there
};

// The log files of a directory by name, with their sizes.
using FileSizes = std::vector<std::pair<std::string, uint64_t>>;

FileSizes logFilesOf(const std::string &directory) {
    FileSizes files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        if (entry->path().extension() != ".log" || !entry->is_regular_file(gone))
            continue;
        const uint64_t size = entry->file_size(gone);
        files.emplace_back(entry->path().filename().string(), gone ? 0 : size);
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The size of a series' files, which need no further space. Each directory is looked at once.
uint64_t usedBytes(std::unordered_map<std::string, FileSizes> &directories, const std::string &directory,
                   const std::string &namesBegin) {
    const auto [found, isNew] = directories.try_emplace(directory);
    if (isNew)
        found->second = logFilesOf(directory);
    const FileSizes &files = found->second;
    uint64_t bytes = 0;
    for (auto file = std::lower_bound(files.begin(), files.end(), std::pair(namesBegin, uint64_t{0}));
         file != files.end() && file->first.rfind(namesBegin, 0) == 0; ++file)
        bytes += file->second;
    return bytes;
}

// A file is left before it reaches its limit, so the limit bounds it (but for a
// single record larger than that).
Series seriesOf(std::unordered_map<std::string, FileSizes> &directories, const Scope &scope,
                const LogCfg &cfg) {
    Series series{
        "product " + std::to_string(scope.product.id) + ", " + scope.title(), cfg.directory, 0, 0, "", 0, 0};
    const bool bySize =
        IsValidRolloverMode(cfg.rolloverMode) != 0 && (cfg.rolloverMode & ZOLTLOG_ROLLOVER_FILE_SIZE) != 0;
    if (bySize)
        series.fileBytes = cfg.maxFileSizeKB > UINT64_MAX / 1024 ? UINT64_MAX : cfg.maxFileSizeKB * 1024;
    if (cfg.logRecycling == 1 && cfg.numberOfLogFiles != ZOLTLOG_KEEP_ALL_FILES)
        series.files = cfg.numberOfLogFiles;
    if (!bySize)
        series.why = "no size limit: RolloverMode has no FileSize";
    else if (series.files == 0)
        series.why = cfg.logRecycling == 1 ? "all files are kept: NumberOfLogFiles is not set"
                                           : "all files are kept: LogRecycle is false";
    else if (series.fileBytes > UINT64_MAX / series.files)
        series.why = "too large to count";
    else
        series.bound = series.fileBytes * series.files;
    series.used =
        usedBytes(directories, cfg.directory,
                  std::to_string(scope.product.id) + "-" +
                      (scope.isLogset ? cfg.logsetFilename : std::to_string(scope.originator)) + "-");
    return series;
}

struct Volume {
    std::string where;
    uint64_t free = 0;
    uint64_t bound = 0;
    uint64_t used = 0;
    uint64_t growth = 0; // what is left of each series' bound
    bool unbounded = false;

    bool fits() const { return !unbounded && growth <= free; }
};

struct Budget {
    std::vector<Series> series;
    std::map<dev_t, Volume> volumes;

    bool fits() const {
        return std::all_of(volumes.begin(), volumes.end(),
                           [](const auto &entry) { return entry.second.fits(); });
    }
};

void addToVolume(Budget &budget, const Series &series) {
    const std::string place = nearestExisting(series.directory);
    struct stat status;
    struct statvfs space;
    if (place.empty() || stat(place.c_str(), &status) != 0 || statvfs(place.c_str(), &space) != 0)
        return;
    Volume &volume = budget.volumes[status.st_dev];
    if (volume.where.empty())
        volume.where = place;
    volume.free = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    volume.used += series.used;
    const uint64_t growth = series.bound > series.used ? series.bound - series.used : 0;
    volume.growth = growth > UINT64_MAX - volume.growth ? UINT64_MAX : volume.growth + growth;
    volume.unbounded = volume.unbounded || !series.why.empty();
    if (volume.bound + series.bound < volume.bound)
        volume.unbounded = true;
    else
        volume.bound += series.bound;
}

Budget collect(const Options &options) {
    std::vector<Product> products;
    if (options.product.empty()) {
        const ConfigFile mainFile = readConfigFile(mainConfigPath());
        requireReadable(mainFile);
        products = registeredProducts(mainFile);
    } else {
        products.push_back(findProduct(options.product));
    }
    Budget budget;
    std::unordered_map<std::string, FileSizes> directories;
    for (const Product &product : products) {
        const ConfigFile file = readConfigFile(product.location);
        requireReadable(file);
        for (const Scope &scope : allScopes(product, file)) {
            Settings settings;
            if (!readSettings(scope, file, settings) || settings.cfg.directory[0] == '\0')
                continue;
            budget.series.push_back(seriesOf(directories, scope, settings.cfg));
            addToVolume(budget, budget.series.back());
        }
    }
    return budget;
}

void showAsJson(const Budget &budget, Output &out) {
    Json json;
    json.beginObject();
    json.key("series");
    json.beginArray();
    for (const Series &series : budget.series) {
        json.beginObject();
        json.text("series", series.who);
        json.text("directory", series.directory);
        json.number("used_bytes", series.used);
        if (series.why.empty()) {
            json.number("files", series.files);
            json.number("file_bytes", series.fileBytes);
            json.number("most_bytes", series.bound);
        } else {
            json.null("most_bytes");
            json.text("why", series.why);
        }
        json.endObject();
    }
    json.endArray();
    json.key("volumes");
    json.beginArray();
    for (const auto &[device, volume] : budget.volumes) {
        json.beginObject();
        json.text("holds", volume.where);
        json.number("free_bytes", volume.free);
        json.number("used_bytes", volume.used);
        if (volume.unbounded)
            json.null("most_bytes");
        else
            json.number("most_bytes", volume.bound);
        json.endObject();
    }
    json.endArray();
    json.flag("fits", budget.fits());
    json.endObject();
    writeJson(out, json);
}

void showAsTable(const Budget &budget, bool color, Output &out) {
    tools::Table table{{{"SERIES"},
                        {"DIRECTORY"},
                        {"FILES", tools::Align::Right},
                        {"EACH", tools::Align::Right},
                        {"NOW", tools::Align::Right},
                        {"AT MOST", tools::Align::Right}},
                       {},
                       true};
    for (const Series &series : budget.series) {
        const tools::Style style = series.why.empty() ? tools::Style::Plain : tools::Style::Yellow;
        table.rows.push_back({{series.who},
                              {series.directory},
                              {series.files == 0 ? "all" : std::to_string(series.files)},
                              {series.fileBytes == 0 ? "no limit" : readableSize(series.fileBytes)},
                              {readableSize(series.used)},
                              {series.why.empty() ? readableSize(series.bound) : series.why, style}});
    }
    tools::printTable(out, table, color);
    for (const auto &[device, volume] : budget.volumes)
        out.write("the volume of " + tools::escaped(volume.where) + " has " + readableSize(volume.free) +
                  " free; its series have " + readableSize(volume.used) + " and take " +
                  (volume.unbounded ? "any amount" : "at most " + readableSize(volume.bound)) +
                  (volume.fits() ? "\n" : ": this may not fit\n"));
    out.write("originators without a section of their own write series like Default's, one each\n");
}

} // namespace

int showBudget(const Options &options, Output &out) {
    const Budget budget = collect(options);
    if (options.json)
        showAsJson(budget, out);
    else
        showAsTable(budget, options.color, out);
    return budget.fits() ? tools::EXIT_OK : tools::EXIT_NOTHING;
}
