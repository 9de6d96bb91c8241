// SPDX-License-Identifier: Apache-2.0
// Series of log files: found in directories, told by names and headers, and joined
// with the configuration that says how many files a series keeps.
#pragma once

#include "common/record.h"
#include "qdlogmgr/options.h"
#include "zoltlog.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qdlogmgr {

struct File {
    std::string path;
    std::string name;
    uint64_t size = 0;
    int64_t modified = 0; // milliseconds
    int64_t created = 0;  // seconds, as the library orders files; 0 when unknown
    bool hasTimes = false;
    int64_t first = 0, last = 0; // milliseconds, of the first and last record
    uint64_t host = 0;           // of the name; 0 in log sets
    uint64_t dateOfName = 0;     // digits of the name
    uint64_t counter = 0;
    uint64_t device = 0, inode = 0;
    bool surplus = false;
    bool newest = false;  // of its host: never removed, it may be being written
    std::string doubtful; // why it may not belong to the series, or ""
};

struct Series {
    uint64_t product = 0;
    std::string productName; // first short name, or ""
    bool isLogset = false;
    uint64_t originator = 0;
    std::string logset;    // the set's name, or its file name when it is not configured
    std::string filename;  // of a log set
    std::string directory; // ends in '/'
    bool configured = false;
    uint64_t keep = 0; // of a configured series
    bool recycles = false;
    std::vector<File> files; // from the oldest to the newest

    std::string title() const; // "5 originator 7", "5 log set web"
    uint64_t size() const;
};

// A file that a writer was about to give its name when it was killed: it has no record.
struct Leftover {
    std::string path;
    std::string directory; // ends in '/'
    uint64_t size = 0;
};

// What went wrong on the way; the rest is shown or done all the same.
using Problems = std::vector<std::string>;

// The series that the options select, with their files, and what killed writers of any series
// left in the directories. False when nothing can be read at all.
bool findSeries(const Options &options, std::vector<Series> &series, std::vector<Leftover> &leftovers,
                Problems &problems);

} // namespace qdlogmgr
