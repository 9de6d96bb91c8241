// SPDX-License-Identifier: Apache-2.0
// Management of log files: which files of a series are surplus, and fetching them.
//
// Owns: reading the configurations that an operation needs, choosing surplus files,
// finding the configuration of a file, the fetch, freeing configurations.
// Leaves to others: listing (read_list), queries (read_query), copying and deleting
// (config_mgr_files), removing surplus files at a rollover (write_file_recycle).
//
// Order: configurations; the age of files; reducing to surplus files; the exported
// reduction; the two searches for surplus files; fetching.
#include "config_mgr.h"

#include "cancellation.h"
#include "hash_table.h"
#include "log_name.h"
#include "owned.h"
#include "read.h"
#include "read_list.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr uint32_t MAX_CONFIGURATIONS = 1024;

// ---- configurations ----------------------------------------------------------

bool isDefaultOriginator(uint64_t originatorId) {
    return originatorId == ZOLTLOG_DEFAULT_ORIGINATOR;
}

bool isDefaultLogSet(const char *name) {
    return name != nullptr && strcmp(name, "Default") == 0;
}

} // namespace

LogCfg *found_config(uint64_t productId, uint64_t originatorId, LogCfg **cfgs, uint32_t count) {
    LogCfg *fallback = nullptr;
    for (uint32_t i = 0; cfgs != nullptr && i < count; ++i) {
        LogCfg *cfg = cfgs[i];
        if (cfg == nullptr || cfg->productId != productId)
            continue;
        if (cfg->originatorId == originatorId)
            return cfg;
        if (fallback == nullptr && isDefaultOriginator(cfg->originatorId))
            fallback = cfg;
    }
    return fallback;
}

LogCfg *found_configSL(uint64_t productId, const char *logsetFilename, LogCfg **cfgs, uint32_t count) {
    LogCfg *fallback = nullptr;
    for (uint32_t i = 0; cfgs != nullptr && logsetFilename != nullptr && i < count; ++i) {
        LogCfg *cfg = cfgs[i];
        if (cfg == nullptr || cfg->productId != productId || cfg->logsetName == nullptr)
            continue;
        if (cfg->logsetFilename != nullptr && strcmp(cfg->logsetFilename, logsetFilename) == 0)
            return cfg;
        if (fallback == nullptr && isDefaultLogSet(cfg->logsetName))
            fallback = cfg;
    }
    return fallback;
}

void FreeConfigArray(LogCfg **cfgs, uint32_t count) {
    for (uint32_t i = 0; cfgs != nullptr && i < count; ++i) {
        if (cfgs[i] == nullptr)
            continue;
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
        cfgs[i] = nullptr;
    }
}

// ---- the age of files --------------------------------------------------------

// What reducing needs to know of a file. Files created in the same second are told
// apart by their names, so that a burst of rollovers loses its oldest files first.
struct FileAge {
    int64_t creationTime;
    NameAge name;
};

namespace {

FileAge ageOf(int64_t creationTime, const char *name) {
    return {creationTime, ageOfLogName(name)};
}

// Among files of one second.
bool isOlderByName(const FileAge &a, const FileAge &b) {
    return a.name.date != b.name.date ? a.name.date < b.name.date : a.name.counter < b.name.counter;
}

} // namespace

// ---- reducing to surplus files -----------------------------------------------

// A file to reduce; which is what the caller knows it by.
struct Candidate {
    uint64_t productId;
    uint64_t originatorId;
    FileAge age;
    const char *name;
    uint32_t which;
    uint32_t series; // number of its group, in the order in which the groups begin
};

struct Series {
    uint64_t productId;
    uint64_t originatorId;
    uint32_t first; // of its candidates, once these are sorted by series
    uint32_t length;
};

using Candidates = Grown<Candidate>;
using Numbers = Grown<uint32_t>;

struct GivenEntry {
    LogFileEntry *entry; // null once it is in the result
};

namespace {

bool addCandidate(Candidates *candidates, int64_t creationTime, const char *name, uint32_t which) {
    Candidate *added = candidates->add();
    if (added == nullptr)
        return false;
    getidfromfilename(name, &added->productId, &added->originatorId);
    added->age = ageOf(creationTime, name);
    added->name = name;
    added->which = which;
    return true;
}

// Gives each candidate the number of its series. False without memory.
bool numberSeries(Candidates *candidates, Grown<Series> *series) {
    PositionTable table;
    for (Candidate &file : *candidates) {
        const uint64_t hash = hashOfNumbers(file.productId, file.originatorId);
        file.series = table.find(hash, [&](uint32_t at) {
            const Series &known = series->items[at];
            return known.productId == file.productId && known.originatorId == file.originatorId;
        });
        if (file.series == PositionTable::NOWHERE) {
            file.series = static_cast<uint32_t>(series->count);
            Series *added = series->add();
            if (added == nullptr || !table.add(hash, file.series))
                return false;
            *added = {file.productId, file.originatorId, 0, 0};
        }
        ++series->items[file.series].length;
    }
    return true;
}

// Puts the files of each run of equal creation times into the order of their names.
void orderWithinSeconds(Candidate *oldest, uint32_t length) {
    uint32_t begin = 0;
    while (begin < length) {
        uint32_t end = begin + 1;
        while (end < length && oldest[end].age.creationTime == oldest[begin].age.creationTime)
            ++end;
        std::sort(oldest + begin, oldest + end, [](const Candidate &a, const Candidate &b) {
            if (isOlderByName(a.age, b.age))
                return true;
            return !isOlderByName(b.age, a.age) && a.which > b.which; // the listing's order
        });
        begin = end;
    }
}

// Yields which of the candidates, given from the newest to the oldest, are surplus, in
// the order of the resulting list. False without memory.
//
// A series is what the two ids of a name say, and it keeps what its configuration
// says; a series without a configuration has no surplus.
// KEPT: a log set whose file name begins with digits forms the series of that originator id, so it has
// no surplus of its own and may count as that originator's. Pinned by
// Surplus.LogSetNamedByDigitsIsTakenForThatOriginator.
bool findSurplus(Candidates *candidates, LogCfg **cfgs, uint32_t count, Numbers *surplus) {
    Grown<Series> series;
    if (!numberSeries(candidates, &series))
        return false;
    // From the oldest to the newest within each series: each group is pushed at its head.
    std::sort(candidates->begin(), candidates->end(), [](const Candidate &a, const Candidate &b) {
        return a.series != b.series ? a.series < b.series : a.which > b.which;
    });
    uint32_t first = 0;
    for (Series &one : series) {
        one.first = first;
        first += one.length;
        const LogCfg *cfg = found_config(one.productId, one.originatorId, cfgs, count);
        if (cfg == nullptr || one.length <= cfg->numberOfLogFiles)
            continue;
        orderWithinSeconds(candidates->items + one.first, one.length);
        const auto extra = static_cast<uint32_t>(one.length - cfg->numberOfLogFiles);
        for (uint32_t i = 0; i < extra; ++i) {
            uint32_t *added = surplus->add();
            if (added == nullptr)
                return false;
            *added = candidates->items[one.first + i].which;
        }
    }
    std::reverse(surplus->begin(), surplus->end()); // each was pushed at the head of the list
    return true;
}

} // namespace

// ---- the exported reduction --------------------------------------------------

void GetManageableLogFiles(LogFileEntry **list, LogCfg **cfgs, uint32_t count) {
    const CancellationOff off;
    if (list == nullptr)
        return;
    Candidates candidates;
    Grown<GivenEntry> entries;
    Numbers surplus;
    bool complete = true;
    for (LogFileEntry *entry = *list; entry != nullptr && complete; entry = entry->next) {
        GivenEntry *kept = entries.add();
        complete = kept != nullptr && addCandidate(&candidates, entry->creationTime, entry->name,
                                                   static_cast<uint32_t>(entries.count - 1));
        if (kept != nullptr)
            kept->entry = entry;
    }
    // Out of memory nothing is surplus: what a caller might remove must be certain.
    complete = complete && findSurplus(&candidates, cfgs, count, &surplus);
    LogFileEntry *rest = *list;
    LogFileEntry **tail = list;
    if (complete) {
        for (uint32_t which : surplus) {
            LogFileEntry *&entry = entries.items[which].entry;
            *tail = entry;
            tail = &entry->next;
            entry = nullptr;
        }
        for (const GivenEntry &given : entries)
            zoltLogFree(given.entry);
    } else {
        while (rest != nullptr) {
            LogFileEntry *next = rest->next;
            zoltLogFree(rest);
            rest = next;
        }
    }
    *tail = nullptr;
}

namespace {

// ---- the two searches for surplus files --------------------------------------

void freeEntries(LogFileEntry *entry) {
    while (entry != nullptr) {
        LogFileEntry *next = entry->next;
        zoltLogFree(entry);
        entry = next;
    }
}

// Whether a configuration can list files of the product and originator (0: any). The
// originator of a log set's files is what their names say, so each set can.
bool mayListFilesOf(const LogCfg *cfg, uint64_t productId, uint64_t originatorId) {
    return (productId == 0 || cfg->productId == productId) &&
           (originatorId == 0 || cfg->originatorId == originatorId || cfg->isLogset != 0);
}

// Lists the files of the configurations that may have some of the product and
// originator. Only when these have none at all, the others decide whether any log file
// was found, which is all that they could add.
uint32_t gatherFilesOfSeries(FileCatalogue *catalogue, LogCfg **cfgs, uint32_t count, uint64_t productId,
                             uint64_t originatorId) {
    const LogOwned<LogCfg *> both(static_cast<LogCfg **>(calloc(2 * size_t{count}, sizeof(LogCfg *))));
    if (both == nullptr)
        return ZOLTLOG_NO_MEMORY;
    LogCfg **wanted = both.get();
    LogCfg **others = wanted + count;
    for (uint32_t i = 0; i < count; ++i)
        (mayListFilesOf(cfgs[i], productId, originatorId) ? wanted : others)[i] = cfgs[i];
    if (!gatherLogFiles(catalogue, wanted, count, nullptr, false))
        return ZOLTLOG_NO_MEMORY;
    if (catalogue->starved)
        return ZOLTLOG_FAILED;
    if (catalogue->marked)
        return ZOLTLOG_OK;
    FileCatalogue rest;
    if (!gatherLogFiles(&rest, others, count, nullptr, false))
        return ZOLTLOG_NO_MEMORY;
    return rest.marked ? ZOLTLOG_OK : ZOLTLOG_NO_LOG_FILES;
}

// Lists the files of the configurations, keeps those of the product and originator
// (0: any) and leaves the surplus ones in the listing.
uint32_t listSurplus(LogCfg **cfgs, uint32_t count, uint64_t productId, uint64_t originatorId,
                     LogListing *listing) {
    if (count == 0)
        return ZOLTLOG_OK;
    FileCatalogue catalogue;
    const uint32_t listed = gatherFilesOfSeries(&catalogue, cfgs, count, productId, originatorId);
    if (listed != ZOLTLOG_OK)
        return listed;

    Candidates candidates;
    Numbers surplus;
    for (size_t i = catalogue.files.count; i-- > 0;) {
        const ListedFile &file = catalogue.files.items[i];
        if (file.uncertain) // it would pass for the oldest, and may be the newest
            continue;
        if (!addCandidate(&candidates, file.creationTime, file.name, static_cast<uint32_t>(candidates.count)))
            return ZOLTLOG_NO_MEMORY;
        Candidate &added = candidates.items[candidates.count - 1];
        added.which = static_cast<uint32_t>(catalogue.files.count - 1 - i);
        if ((productId != 0 && added.productId != productId) ||
            (originatorId != 0 && added.originatorId != originatorId))
            --candidates.count;
    }
    if (!findSurplus(&candidates, cfgs, count, &surplus))
        return ZOLTLOG_NO_MEMORY;
    LogFileEntry *list = nullptr;
    LogFileEntry **tail = &list;
    for (uint32_t which : surplus) {
        const ListedFile &file = catalogue.files.items[catalogue.files.count - 1 - which];
        *tail = makeEntry(file.directory, file.name, file.creationTime);
        if (*tail == nullptr) {
            freeEntries(list);
            return ZOLTLOG_NO_MEMORY;
        }
        tail = &(*tail)->next;
    }
    listing->files = list;
    listing->next = list;
    return ZOLTLOG_OK;
}

} // namespace

// A configuration of its own, freed at the end of the scope.
struct OneCfg {
    OneCfg() = default;
    ~OneCfg() { zoltLogFreeCfg(&cfg); }
    OneCfg(const OneCfg &) = delete;
    OneCfg &operator=(const OneCfg &) = delete;

    LogCfg cfg = {};
};

// All configurations, freed at the end of the scope.
struct AllCfgs {
    AllCfgs() = default;
    ~AllCfgs() { FreeConfigArray(items, count); }
    AllCfgs(const AllCfgs &) = delete;
    AllCfgs &operator=(const AllCfgs &) = delete;

    LogCfg *items[MAX_CONFIGURATIONS] = {};
    uint32_t count = 0;
};

uint32_t zoltLogGetManageableLogFiles(uint64_t productId, uint64_t originatorId, LogListing *listing) {
    const CancellationOff off;
    if (listing == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *listing = LogListing();
    if (productId != 0 && originatorId != 0) {
        OneCfg one;
        const uint32_t result = zoltLogReadCfg(productId, originatorId, &one.cfg);
        LogCfg *cfg = &one.cfg;
        return result != ZOLTLOG_OK ? result : listSurplus(&cfg, 1, productId, originatorId, listing);
    }
    AllCfgs all;
    const uint32_t result = zoltLogReadAllCfg(nullptr, MAX_CONFIGURATIONS, all.items, &all.count);
    return result != ZOLTLOG_OK ? result
                                : listSurplus(all.items, all.count, productId, originatorId, listing);
}

uint32_t zoltLogGetManageableLogFilesSL(uint64_t productId, const char *logsetName, LogListing *listing) {
    const CancellationOff off;
    if (listing == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *listing = LogListing();
    OneCfg one;
    const uint32_t result = zoltLogReadlogsetCfg(productId, logsetName, &one.cfg);
    LogCfg *cfg = &one.cfg;
    // The listing of one log set holds files of its product and file name only.
    return result != ZOLTLOG_OK ? result : listSurplus(&cfg, 1, 0, 0, listing);
}

namespace {

// ---- fetching ----------------------------------------------------------------

constexpr size_t PATH_ROOM = 8192; // of a path handed out

// ZOLTLOG_OK when the entry's file is fetched, ZOLTLOG_NO_MORE when not. *modificationTime
// goes on from entry to entry.
uint32_t fetch(LogListing *listing, LogFileEntry *entry, int64_t *modificationTime) {
    const LogOwned<char> path = joinedText(entry->directory, entry->name); // large for a stack
    if (path == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (strlen(path.get()) >= PATH_ROOM)
        return ZOLTLOG_NO_MORE;
    // KEPT: a file without a modification time of its own is judged by that of the file before it.
    // Pinned by Fetch.ModificationTimeIsCarriedOver.
    struct stat status;
    if (stat(path.get(), &status) == 0 && S_ISREG(status.st_mode))
        *modificationTime = status.st_mtime;
    if (zoltLogOs_open(&entry->file, path.get(), ZOLTLOG_OS_MODE_READ, MANAGED_FILE_PERMISSIONS) != 0)
        return ZOLTLOG_NO_MORE;
    LogFileHeader header = {};
    const uint32_t result = ReadHeader(entry, &header);
    zoltLogOs_close(&entry->file);

    char set[LOGSET_NAME_ROOM];
    char dateTime[DATE_TIME_ROOM] = "";
    uint64_t productId = 0;
    set[0] = '\0';
    if (header.version == ZOLTLOG_RECORD_VERSION_LOGSET &&
        getSLidfromfilename(entry->name, &productId, set, dateTime) != 0) {
        header.productId = productId;
        header.creationTime = static_cast<uint64_t>(convert_time(dateTime));
    }
    if (result == ZOLTLOG_UNSUPPORTED_HEADER)
        listing->unsupportedHeader = 1;
    return result == ZOLTLOG_OK && EvaluateFileCondition(listing, &header, set, *modificationTime) != 0
               ? ZOLTLOG_OK
               : ZOLTLOG_NO_MORE;
}

} // namespace

uint32_t zoltLogFetchNextFileEx(LogListing *listing, LogFileEntry **out) {
    const CancellationOff off;
    if (listing == nullptr || out == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    int64_t modificationTime = 0;
    for (LogFileEntry *entry = listing->next; entry != nullptr; entry = entry->next) {
        listing->next = entry; // to be fetched again when there is memory
        const uint32_t result = fetch(listing, entry, &modificationTime);
        if (result == ZOLTLOG_NO_MEMORY)
            return result;
        if (result != ZOLTLOG_OK)
            continue;
        *out = entry;
        listing->next = entry->next;
        return ZOLTLOG_OK;
    }
    return ZOLTLOG_NO_MORE;
}

uint32_t zoltLogFetchNextFile(LogListing *listing, char **path) {
    const CancellationOff off;
    if (path == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    LogFileEntry *entry = nullptr;
    const uint32_t result = zoltLogFetchNextFileEx(listing, &entry);
    if (result != ZOLTLOG_OK)
        return result;
    auto *buffer = static_cast<char *>(zoltLogMalloc(PATH_ROOM));
    if (buffer == nullptr) {
        listing->next = entry;
        return ZOLTLOG_NO_MEMORY;
    }
    memset(buffer, 0, PATH_ROOM);
    (void)snprintf(buffer, PATH_ROOM, "%s%s", entry->directory, entry->name); // it fits, or was not opened
    *path = buffer;
    return ZOLTLOG_OK;
}

void zoltLogFreeBuffer(char **buffer) {
    if (buffer == nullptr)
        return;
    zoltLogFree(*buffer);
    *buffer = nullptr;
}
