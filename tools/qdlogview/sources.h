// SPDX-License-Identifier: Apache-2.0
// Which files are read: named ones, directories, or what the configuration says.
#pragma once

#include "common/record.h"
#include "qdlogview/query.h"
#include "qdlogview/settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qdlogview {

struct SourceFile {
    std::string path; // directory + base
    std::string base;
    std::string
        series;        // directory and the part of the name that the series' files share; "" outside a series
    std::string order; // ascending within the series: date and counter
    uint64_t size = 0;
    int64_t modified = 0;        // milliseconds; INT64_MAX when unknown
    int64_t created = INT64_MIN; // milliseconds, not later than the file's begin, from the name
    bool isPacked = false;       // the name says that it is compressed: it does not grow
};

// A place behind all that a file holds.
constexpr uint64_t WHOLE_FILE = UINT64_MAX;

// The path of a compressed file without what compressing added to it.
std::string unpackedPath(const std::string &path);

// Files of a directory that are asked for.
struct DirectoryRule {
    std::string directory; // ends in '/'
    uint64_t product = 0;  // 0: any
    uint64_t fileOriginator = 0;
    std::string logSet;
    std::string series; // only of this series, from `fromOrder` on
    std::string fromOrder;
};

struct Sources {
    // False when nothing can be read at all; problems tells what was left out.
    bool find(const Settings &settings, const FileQuery &query);

    // Lists the directories again and appends the files that are new since the last time.
    void findNew(std::vector<SourceFile> &found);

    // Whether a directory may have changed since it was listed last.
    bool directoriesChanged();

    std::vector<SourceFile> files; // in the order of series and their files
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
    bool list(const DirectoryRule &rule, std::vector<SourceFile> &found);
    bool passes(const SourceFile &file) const;

    std::vector<DirectoryRule> rules;
    struct ListedDirectory {
        std::string directory;
        int64_t modified = 0; // nanoseconds, at the last listing
        int64_t listed = 0;   // when
    };
    std::vector<ListedDirectory> listed;
    std::vector<std::string> known; // sorted paths, for findNew()
    const FileQuery *query = nullptr;
    uint64_t wantedFileOriginator = 0;
    std::string wantedLogSet;
};

// What a path says about its file: base, series, order and earliest begin.
void describeFile(const std::string &path, SourceFile &file);

// The names that a shell can complete, of a product or, when it is empty or unknown, of all;
// false when the configuration cannot be read.
bool configuredNames(const std::string &what, const std::string &product, std::vector<std::string> &names);

} // namespace qdlogview
