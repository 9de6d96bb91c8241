// SPDX-License-Identifier: Apache-2.0
// Series of log files: found in directories, told by names and headers, and joined
// with the configuration that says how many files a series keeps.
//
// A directory may hold hundreds of thousands of files: of each no more is kept than what
// the commands need.
#pragma once

#include "common/record.h"
#include "common/text_pool.h"
#include "qdlogmgr/options.h"
#include "zoltlog.h"

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qdlogmgr {

struct File {
    const std::string *directory; // ends in '/'
    const char *name;             // texts are the Catalogue's
    const char *logset;           // of the name; null in an originator's series
    const char *doubt;            // why it may not belong to the series, or ""
    uint64_t product;
    uint64_t originator; // 0 in log sets
    uint64_t host;       // of the name; 0 in log sets
    uint64_t dateOfName; // digits of the name
    uint64_t counter;
    uint64_t size;
    int64_t modified;    // milliseconds
    int64_t created;     // seconds, as the library orders files; 0 when unknown
    int64_t first, last; // milliseconds, of the first and last record
    uint64_t device, inode;
    bool hasTimes;
    bool surplus;
    bool newest; // of its host: never removed, it may be being written

    bool isDoubtful() const { return doubt[0] != '\0'; }
    std::string path() const { return *directory + name; }
};

// What a configuration says of the series that it writes.
struct Writer {
    std::string productName; // first short name, or ""
    std::string logset;      // the set's name, or ""
    std::string directory;   // as the system names it, ends in '/'
    uint64_t keep = 0;
    bool recycles = false;
};

// The files of a series, from the oldest to the newest.
struct Series {
    using Files = std::deque<File>;

    Files::iterator begin() const { return first; }
    Files::iterator end() const { return first + static_cast<ptrdiff_t>(count); }
    File &operator[](size_t i) const { return first[static_cast<ptrdiff_t>(i)]; }

    uint64_t product() const { return first->product; }
    uint64_t originator() const { return first->originator; }
    bool isLogset() const { return first->logset != nullptr; }
    const std::string &directory() const { return *first->directory; }
    bool isConfigured() const { return writer != nullptr; }
    // The set's name, or its file name when it is not configured
    std::string logset() const;
    std::string title() const; // "5 originator 7", "5 log set web"
    uint64_t size() const;

    Files::iterator first;
    size_t count;
    const Writer *writer; // null: nobody is configured to write it
};

// A file that a writer was about to give its name when it was killed: it has no record.
struct Leftover {
    std::string path;
    std::string directory; // ends in '/'
    uint64_t size = 0;
};

// What went wrong on the way; the rest is shown or done all the same.
using Problems = std::vector<std::string>;

struct Catalogue {
    std::deque<Series> series;
    std::deque<File> files; // those of a series follow each other
    std::vector<Leftover> leftovers;

    // What they point to
    tools::TextPool names;
    std::set<std::string> texts;
    std::deque<Writer> writers;
};

// The series that the options select, with their files, and what killed writers of any series
// left in the directories. False when nothing can be read at all.
bool findSeries(const Options &options, Catalogue &catalogue, Problems &problems);

} // namespace qdlogmgr
