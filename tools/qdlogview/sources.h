// SPDX-License-Identifier: Apache-2.0
// Which files are read: named ones, directories, or what the configuration says. There may
// be hundreds of thousands of them: of each no more is kept than a name and some numbers.
#pragma once

#include "common/record.h"
#include "common/text_pool.h"
#include "common/unpack.h"
#include "qdlogview/query.h"
#include "qdlogview/settings.h"

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace qdlogview {

// A place behind all that a file holds.
constexpr uint64_t WHOLE_FILE = UINT64_MAX;
constexpr uint64_t NOT_LOOKED_AT = UINT64_MAX - 1;

// What a name says of the place of its file in the series.
struct SeriesPlace {
    size_t shared = 0;    // bytes that the names of the series begin with; 0: of no series
    uint64_t date = 0;    // digits
    uint64_t counter = 0; // 0 in a log set

    auto order() const { return std::make_pair(date, counter); }
};

struct SourceFile {
    const std::string *directory = nullptr; // ends in '/', or ""; each is there once
    const char *base = "";
    SeriesPlace place;
    uint64_t size = 0;
    int64_t modified = 0;         // milliseconds; INT64_MAX when unknown
    int64_t created = INT64_MIN;  // milliseconds, not later than the file's begin, from the name
    uint64_t end = NOT_LOOKED_AT; // of its last complete line when reading began

    std::string path() const { return *directory + base; }
    bool isStandardInput() const { return directory->empty() && std::string_view(base) == "-"; }
    bool isInSeries() const { return place.shared != 0; }
    // Equal for files of one series
    std::pair<const std::string *, std::string_view> series() const {
        return {directory, std::string_view(base).substr(0, place.shared)};
    }
    std::string seriesName() const { return *directory + std::string(series().second); }
    // The name says that it is compressed: it does not grow.
    bool isPacked() const { return !tools::packedSuffix(base).empty(); }
};

// The path of a compressed file without what compressing added to it.
std::string unpackedPath(const std::string &path);

// Files of a directory that are asked for.
struct DirectoryRule {
    std::string directory; // ends in '/'
    uint64_t product = 0;  // 0: any
    uint64_t fileOriginator = 0;
    std::string logSet;
    std::string series; // with what its names begin: only of this one, from a place on
    SeriesPlace from;
};

struct Sources {
    // False when nothing can be read at all; problems tells what was left out.
    bool find(const Settings &settings, const FileQuery &query);

    // Lists the directories again and appends the files that are new since the last time.
    // The first of them; those that follow are new, too.
    size_t findNew();

    // Whether a directory may have changed since it was listed last.
    bool directoriesChanged();

    std::deque<SourceFile> files; // in the order of series and their files; they stay in place
    std::vector<std::string> problems;

    // What names in options stand for
    bool hasProduct = false;
    uint64_t product = 0;
    bool hasOriginator = false;
    uint64_t originator = 0;

  private:
    bool resolve(const Settings &settings);
    bool addConfigured(const Settings &settings);
    bool lacksLogSet(const std::string &name, uint32_t result);
    void addRule(DirectoryRule rule);
    void addNamed(const std::string &path, bool follow);
    void addArchive(const std::string &path);
    bool list(const DirectoryRule &rule);
    bool passes(const SourceFile &file) const;
    const std::string *directoryText(const std::string &directory);
    void sortFrom(size_t first);
    bool isKnown(const std::string *directory, std::string_view base) const;

    std::vector<DirectoryRule> rules;
    struct ListedDirectory {
        std::string directory;
        int64_t modified = 0; // nanoseconds, at the last listing
        int64_t listed = 0;   // when
    };
    std::vector<ListedDirectory> listed;
    std::vector<const SourceFile *> known; // by directory and base, for findNew()
    std::set<std::string> directories;
    tools::TextPool names;
    const FileQuery *query = nullptr;
    uint64_t wantedFileOriginator = 0;
    std::string wantedLogSet;
};

// What the last component of a path says; `series` gets what SourceFile::seriesName tells.
SeriesPlace placeOf(const std::string &path, std::string &series);

// The names that a shell can complete, of a product or, when it is empty or unknown, of all;
// false when the configuration cannot be read.
bool configuredNames(const std::string &what, const std::string &product, std::vector<std::string> &names);

} // namespace qdlogview
