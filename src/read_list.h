// SPDX-License-Identifier: Apache-2.0
// The log files of a set of configurations, gathered in records small enough to keep
// for a hundred thousand files. GetLogFiles turns all of them into the boundary's
// entries, the search for surplus files only those that it yields.
#pragma once

#include "grown.h"
#include "zoltlog.h"

struct ListedFile {
    int64_t creationTime;  // seconds
    const char *directory; // of its configuration, borrowed
    const char *name;      // belongs to the catalogue
    uint32_t bucket;       // of the file table that fixes the order of equal times
    uint32_t order;        // of insertion
    bool uncertain;        // an error kept the header from being read: the time means nothing
    LogFileEntry *entry;   // made at insertion when entries are asked for; the taker's to free
};

struct ListedDirectory;
struct TextBlock;

struct FileCatalogue {
    FileCatalogue() = default;
    ~FileCatalogue();
    FileCatalogue(const FileCatalogue &) = delete;
    FileCatalogue &operator=(const FileCatalogue &) = delete;

    Grown<ListedFile> files; // in the order of GetLogFiles
    bool marked = false;     // a file was inserted, or memory ran out while inserting
    // Files could not be examined because this process or the system had no resource
    // left; their times are then unknown and nothing may be removed by them.
    bool starved = false;

    ListedDirectory *directories = nullptr;
    TextBlock *texts = nullptr;
    OsFile *reader = nullptr;
};

// Fills the catalogue with the files of the configurations that the query (or null)
// admits. False when there was no memory to begin with. Each directory is read once
// and each header at most once, however many configurations share them.
bool gatherLogFiles(FileCatalogue *catalogue, LogCfg **cfgs, uint32_t count, LogQueryNode *query,
                    bool withEntries);

// A closed entry for a file; null without memory. The read buffer is left as it comes:
// nothing of it counts while the entry is closed.
LogFileEntry *makeEntry(const char *directory, const char *name, int64_t creationTime);
