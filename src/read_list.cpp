// SPDX-License-Identifier: Apache-2.0
// Listing of log files.
//
// Owns: gathering the files of configurations, the admission of each file, dropping
// duplicates, the order of a listing, and GetLogFiles.
// Leaves to others: splitting names and reading headers (read), evaluating queries
// (read_query), choosing surplus files (config_mgr).
//
// The order of a listing is that of a table of 300 chains, filled at the head in the
// order in which configurations and directories yield the files, read from the first
// chain to the last and sorted stably by creation time. The table is not kept: each
// file carries the number of its chain, and duplicates are found by a hash of their own.
//
// A directory is read once for all configurations that name it, and only names of the
// series that these ask for are kept: what else lies there costs no more than its split.
//
// Order: texts; directories (the series asked for, reading the names); examining a file;
// admission; insertion; gathering; the exported operations.
#include "read_list.h"

#include "bounded.h"
#include "cancellation.h"
#include "hash_table.h"
#include "log_name.h"
#include "os.h"
#include "parse_string.h"
#include "read.h"
#include "read_query.h"
#include "regular_file.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint32_t TABLE_BUCKETS = 300;
constexpr int64_t FUTURE_LIMIT = 86400; // seconds a modification may lie ahead of now

} // namespace

// ---- texts -------------------------------------------------------------------

// Texts live as long as the catalogue, packed into blocks that never move.
struct TextBlock {
    TextBlock *next;
    size_t used;
    size_t room;
    char bytes[1]; // the bytes run on
};

namespace {

constexpr size_t TEXT_BLOCK_ROOM = 65536 - sizeof(TextBlock);

const char *keepText(FileCatalogue *catalogue, const char *text) {
    const size_t size = strlen(text) + 1;
    TextBlock *block = catalogue->texts;
    if (block == nullptr || block->room - block->used < size) {
        const size_t room = std::max(size, TEXT_BLOCK_ROOM);
        block = static_cast<TextBlock *>(zoltLogMalloc(sizeof(TextBlock) + room));
        if (block == nullptr)
            return nullptr;
        block->next = catalogue->texts;
        block->used = 0;
        block->room = room;
        catalogue->texts = block;
    }
    char *kept = block->bytes + block->used;
    memcpy(kept, text, size);
    block->used += size;
    return kept;
}

// ---- directories -------------------------------------------------------------

constexpr uint32_t NOWHERE = PositionTable::NOWHERE;

} // namespace

struct ListedName {
    const char *name;
    uint32_t nextOfIds; // the next name of its originator series, or NOWHERE
    uint32_t nextOfSet; // the next name of its log set series, or NOWHERE
    bool isRegular;     // as the directory told when it was read; false: it may be one
    bool listed;        // already in the catalogue
    bool timesKnown;    // modificationTime is filled in
    bool headerKnown;   // the header was looked for: what follows is filled in
    bool opened;        // the file could be opened
    bool uncertain;     // its header could not be read for an error, not for its content
    int64_t modificationTime;
    int64_t creationTime; // of the header
    const char *hostName; // of the header; null: not kept
};

// What the names of a configuration's files have in common. A name can be of one
// originator series and of one log set series.
struct SeriesKey {
    uint64_t productId;
    uint64_t originatorId; // 0 for a log set
    const char *set;       // its file name; null for an originator
};

// A series that a configuration asks for, and the chain of its names in the order of
// the directory.
struct ListedSeries {
    SeriesKey key;
    uint32_t first;
    uint32_t last;
};

struct ListedDirectory {
    ListedDirectory *next;
    const char *path; // of the first configuration that named it
    uint64_t hash;    // hashText of path
    Grown<ListedSeries> series;
    PositionTable seriesTable;
    Grown<ListedName> names;
    PositionTable nameTable;
    bool hasOriginators; // among its series
    bool hasSets;        // among its series
    bool isRead;
    bool cannotList;
    bool memoryRanOut;
};

FileCatalogue::~FileCatalogue() {
    while (directories != nullptr) {
        ListedDirectory *next = directories->next;
        directories->~ListedDirectory();
        zoltLogFree(directories);
        directories = next;
    }
    while (texts != nullptr) {
        TextBlock *next = texts->next;
        zoltLogFree(texts);
        texts = next;
    }
    zoltLogFree(reader);
}

namespace {

uint64_t hashOfSeries(const SeriesKey &key) {
    return hashOfNumbers(key.productId,
                         key.set != nullptr ? hashOfBytes(key.set, strlen(key.set)) : key.originatorId);
}

bool isSameSeries(const SeriesKey &a, const SeriesKey &b) {
    if (a.productId != b.productId || a.originatorId != b.originatorId)
        return false;
    return a.set == nullptr || b.set == nullptr ? a.set == b.set : strcmp(a.set, b.set) == 0;
}

uint32_t findSeries(const ListedDirectory *directory, const SeriesKey &key, uint64_t hash) {
    return directory->seriesTable.find(
        hash, [&](uint32_t at) { return isSameSeries(directory->series.items[at].key, key); });
}

// The series of a configuration's files; false when it has none.
bool seriesOf(const LogCfg *cfg, SeriesKey *key) {
    if (cfg->isLogset == 0)
        *key = {cfg->productId, cfg->originatorId, nullptr};
    else
        *key = {cfg->productId, 0, cfg->logsetFilename};
    return cfg->isLogset == 0 || cfg->logsetFilename != nullptr;
}

// Notes before the directory is read that a configuration's files are asked for.
void askFor(ListedDirectory *directory, const LogCfg *cfg) {
    SeriesKey key;
    if (!seriesOf(cfg, &key))
        return;
    const uint64_t hash = hashOfSeries(key);
    if (findSeries(directory, key, hash) != NOWHERE)
        return;
    ListedSeries *added = directory->series.add();
    if (added == nullptr ||
        !directory->seriesTable.add(hash, static_cast<uint32_t>(added - directory->series.items))) {
        directory->memoryRanOut = true;
        return;
    }
    *added = {key, NOWHERE, NOWHERE};
    (key.set != nullptr ? directory->hasSets : directory->hasOriginators) = true;
}

// The series asked for that a name belongs to, or NOWHERE.
uint32_t originatorSeriesOf(const ListedDirectory *directory, const char *name) {
    SeriesKey key = {0, 0, nullptr};
    if (!directory->hasOriginators || getidfromfilename(name, &key.productId, &key.originatorId) == 0)
        return NOWHERE;
    return findSeries(directory, key, hashOfSeries(key));
}

uint32_t logsetSeriesOf(const ListedDirectory *directory, const char *name) {
    char set[LOGSET_NAME_ROOM];
    char dateTime[DATE_TIME_ROOM] = "";
    set[0] = '\0';
    SeriesKey key = {0, 0, set};
    if (!directory->hasSets || getSLidfromfilename(name, &key.productId, set, dateTime) == 0)
        return NOWHERE;
    return findSeries(directory, key, hashOfSeries(key));
}

void appendToSeries(ListedDirectory *directory, uint32_t series, uint32_t ListedName::*next, uint32_t name) {
    if (series == NOWHERE)
        return;
    ListedSeries &chain = directory->series.items[series];
    uint32_t *end = chain.first == NOWHERE ? &chain.first : &(directory->names.items[chain.last].*next);
    *end = name;
    chain.last = name;
}

// Keeps a name of the series asked for, once: a directory may yield a name twice while
// others change it. False without memory.
bool keepName(FileCatalogue *catalogue, ListedDirectory *directory, const struct dirent *entry) {
    const char *name = entry->d_name;
    const uint32_t ofIds = originatorSeriesOf(directory, name);
    const uint32_t ofSet = logsetSeriesOf(directory, name);
    if (ofIds == NOWHERE && ofSet == NOWHERE)
        return true;
    Grown<ListedName> &names = directory->names;
    const uint64_t hash = hashOfBytes(name, strlen(name));
    const auto isSame = [&](uint32_t at) { return strcmp(names.items[at].name, name) == 0; };
    if (directory->nameTable.find(hash, isSame) != NOWHERE)
        return true;
    const char *kept = keepText(catalogue, name);
    ListedName *added = kept != nullptr && names.count < NOWHERE - 1 ? names.add() : nullptr;
    const auto at = static_cast<uint32_t>(names.count - 1);
    if (added == nullptr || !directory->nameTable.add(hash, at))
        return false;
    added->name = kept;
    added->isRegular = entry->d_type == DT_REG;
    added->nextOfIds = NOWHERE;
    added->nextOfSet = NOWHERE;
    appendToSeries(directory, ofIds, &ListedName::nextOfIds, at);
    appendToSeries(directory, ofSet, &ListedName::nextOfSet, at);
    return true;
}

// The directory's names; an error leaves those read so far.
void readNames(FileCatalogue *catalogue, ListedDirectory *directory) {
    directory->isRead = true;
    OsLogFileCursor cursor = {};
    if (zoltLogOsListLogFilesBegin(&cursor, directory->path) == ZOLTLOG_OS_OK) {
        do {
            directory->memoryRanOut = !keepName(catalogue, directory, cursor.entry);
        } while (!directory->memoryRanOut && zoltLogOsListLogFilesNext(&cursor) == ZOLTLOG_OS_OK);
    } else {
        directory->cannotList = true;
    }
    zoltLogOsListLogFilesEnd(&cursor);
}

ListedDirectory *findDirectory(const FileCatalogue *catalogue, const char *path, uint64_t hash) {
    ListedDirectory *known = catalogue->directories;
    while (known != nullptr && (known->hash != hash || strcmp(known->path, path) != 0))
        known = known->next;
    return known;
}

// The record of a configuration's directory, made when there is none; null without memory.
ListedDirectory *directoryOf(FileCatalogue *catalogue, const LogCfg *cfg) {
    const uint64_t hash = hashText(0, cfg->directory);
    ListedDirectory *directory = findDirectory(catalogue, cfg->directory, hash);
    void *room = directory == nullptr ? zoltLogMalloc(sizeof(ListedDirectory)) : nullptr;
    if (room == nullptr)
        return directory;
    directory = new (room) ListedDirectory();
    directory->path = cfg->directory;
    directory->hash = hash;
    directory->next = catalogue->directories;
    catalogue->directories = directory;
    return directory;
}

} // namespace

// ---- examining a file --------------------------------------------------------

struct Examination {
    FileCatalogue *catalogue;
    const char *directory;
    int directoryDescriptor; // -1 until the first file is examined
    bool isOurs;             // nobody else can exchange the directory's files
    LogQueryNode *query;
    bool needHost;
    int64_t now;
};

namespace {

bool isStarvation(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR;
}

// Files are reached through their directory's descriptor, which spares the walk over
// the directory's path for each of them.
int directoryDescriptor(Examination *examination) {
    if (examination->directoryDescriptor != -1)
        return examination->directoryDescriptor;
    const int descriptor = open(examination->directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    examination->directoryDescriptor = descriptor != -1 ? aboveStdio(descriptor) : -1;
    struct stat status;
    if (examination->directoryDescriptor == -1)
        examination->catalogue->starved = true;
    else if (fstat(examination->directoryDescriptor, &status) == 0)
        examination->isOurs =
            (status.st_uid == geteuid() || status.st_uid == 0) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    return examination->directoryDescriptor;
}

// Opens the file unless it is no regular one. Where nobody else can have exchanged it, what
// the directory told of it spares another look, which takes as long as the rest.
int openListed(Examination *examination, const ListedName *name) {
    const int directory = directoryDescriptor(examination);
    return examination->isOurs && name->isRegular
               ? openat(directory, name->name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW)
               : openRegular(directory, name->name, O_RDONLY);
}

// Whether an opening failed because there is no log file of that name, for sure; any other
// may be the newest.
bool isNoFile(int error) {
    return error == ENOENT || error == ENXIO || error == EISDIR;
}

int64_t modificationTimeOf(const struct stat &status) {
    return S_ISREG(status.st_mode) ? status.st_mtime : 0;
}

void learnTimes(Examination *examination, ListedName *name) {
    if (name->timesKnown)
        return;
    name->timesKnown = true;
    struct stat status;
    if (fstatat(directoryDescriptor(examination), name->name, &status, 0) == 0)
        name->modificationTime = modificationTimeOf(status);
}

// The date-time of a log set's file name; -1 when it has none. False: no such name.
bool logsetTimeOf(const char *name, int64_t *seconds) {
    uint64_t productId = 0;
    char set[LOGSET_NAME_ROOM];
    char dateTime[DATE_TIME_ROOM] = "";
    set[0] = '\0';
    if (getSLidfromfilename(name, &productId, set, dateTime) == 0)
        return false;
    *seconds = convert_time(dateTime);
    return true;
}

// A log set's header tells no creation time; its file's name does, while an originator's has
// the number of the host in that place.
int64_t creationTimeOf(const LogFileHeader &header, const char *name) {
    int64_t creationTime = 0;
    LogName parsed;
    const bool nameTells = header.version == ZOLTLOG_RECORD_VERSION_LOGSET &&
                           parseLogName(name, strlen(name), &parsed) && parsed.set != nullptr &&
                           logsetTimeOf(name, &creationTime);
    return nameTells ? creationTime : static_cast<int64_t>(header.creationTime);
}

// Opens the file and reads its header, the only time for this file.
void learnHeader(Examination *examination, ListedName *name) {
    if (name->headerKnown)
        return;
    name->headerKnown = true;
    name->hostName = "";
    OsFile *reader = examination->catalogue->reader;
    zoltLogOs_initfilehandle(reader);
    const int descriptor = openListed(examination, name);
    if (descriptor == -1) {
        if (isStarvation(errno))
            examination->catalogue->starved = true;
        name->uncertain = !isNoFile(errno);
        return;
    }
    reader->descriptor = aboveStdio(descriptor);
    struct stat status;
    if (reader->descriptor == -1 || fstat(reader->descriptor, &status) != 0) {
        examination->catalogue->starved = true;
    } else if (S_ISREG(status.st_mode)) {
        name->opened = true;
        name->timesKnown = true;
        name->modificationTime = modificationTimeOf(status);
        LogFileHeader header = {};
        errno = 0;
        if (ReadHeaderEx(reader, &header) == ZOLTLOG_OK)
            name->creationTime = creationTimeOf(header, name->name);
        else
            name->uncertain = errno != 0;
        if (examination->needHost) {
            name->hostName = keepText(examination->catalogue, header.hostName);
            name->opened = name->hostName != nullptr;
        }
    }
    zoltLogOs_close(reader);
}

// ---- admission ---------------------------------------------------------------

// Whether a file of the configuration belongs into the listing; its creation time.
bool isAdmitted(Examination *examination, const LogCfg *cfg, ListedName *name, int64_t *creationTime) {
    const bool logset = cfg->isLogset != 0;
    if (!logset || examination->needHost)
        learnHeader(examination, name);
    learnTimes(examination, name);
    if (logset) {
        logsetTimeOf(name->name, creationTime);
    } else {
        *creationTime = name->creationTime;
    }
    if (name->modificationTime > examination->now + FUTURE_LIMIT)
        return false;
    if (examination->needHost && !name->opened)
        return false;
    if (examination->query == nullptr)
        return true;
    return evalTreeToFilterFiles(cfg->productId, logset ? 0 : cfg->originatorId, name->hostName,
                                 logset ? cfg->logsetName : nullptr, *creationTime, name->modificationTime,
                                 examination->query) != 0;
}

} // namespace

// ---- insertion ---------------------------------------------------------------

LogFileEntry *makeEntry(const char *directory, const char *name, int64_t creationTime) {
    const size_t nameLength = strlen(name);
    auto *entry = static_cast<LogFileEntry *>(zoltLogMalloc(sizeof(LogFileEntry) + nameLength));
    if (entry == nullptr)
        return nullptr;
    entry->next = nullptr;
    entry->headerVersion = 0;
    zoltLogOs_initfilehandle(&entry->file);
    entry->file.readCount = 0;
    memset(entry->info, 0, sizeof entry->info);
    entry->creationTime = creationTime;
    entry->tzOffset = 0;
    memset(entry->directory, 0, sizeof entry->directory);
    copyBounded(entry->directory, directory);
    memcpy(entry->name, name, nameLength + 1);
    return entry;
}

namespace {

bool insertFile(FileCatalogue *catalogue, const ListedDirectory *directory, ListedName *name,
                int64_t creationTime, bool withEntry) {
    LogFileEntry *entry = withEntry ? makeEntry(directory->path, name->name, creationTime) : nullptr;
    if (withEntry && entry == nullptr)
        return false;
    ListedFile *file = catalogue->files.add();
    if (file == nullptr) {
        zoltLogFree(entry);
        return false;
    }
    *file = {creationTime,
             directory->path,
             name->name,
             static_cast<uint32_t>(hashText(directory->hash, name->name) % TABLE_BUCKETS),
             static_cast<uint32_t>(catalogue->files.count),
             name->uncertain,
             entry};
    name->listed = true;
    return true;
}

// ---- gathering ---------------------------------------------------------------

// False when memory ran out.
bool gatherFilesOf(Examination *examination, ListedDirectory *directory, const LogCfg *cfg,
                   bool withEntries) {
    FileCatalogue *catalogue = examination->catalogue;
    SeriesKey key;
    if (!seriesOf(cfg, &key))
        return true;
    const uint32_t series = findSeries(directory, key, hashOfSeries(key));
    uint32_t at = series != NOWHERE ? directory->series.items[series].first : NOWHERE;
    while (at != NOWHERE) {
        ListedName *name = &directory->names.items[at];
        at = key.set != nullptr ? name->nextOfSet : name->nextOfIds;
        int64_t creationTime = 0;
        if (name->listed) {
            catalogue->marked = true;
        } else if (isAdmitted(examination, cfg, name, &creationTime)) {
            catalogue->marked = true;
            if (!insertFile(catalogue, directory, name, creationTime, withEntries))
                return false;
        }
    }
    return true;
}

bool isListedBefore(const ListedFile &a, const ListedFile &b) {
    if (a.creationTime != b.creationTime)
        return a.creationTime < b.creationTime;
    if (a.bucket != b.bucket)
        return a.bucket < b.bucket;
    return a.order > b.order; // the last inserted stands at the head of its chain
}

} // namespace

bool gatherLogFiles(FileCatalogue *catalogue, LogCfg **cfgs, uint32_t count, LogQueryNode *query,
                    bool withEntries) {
    catalogue->reader = static_cast<OsFile *>(zoltLogMalloc(sizeof(OsFile)));
    if (catalogue->reader == nullptr)
        return false;
    const bool needHost = queryMentionsHost(query);
    const int64_t now = time(nullptr);
    for (uint32_t i = 0; i < count; ++i) {
        ListedDirectory *directory = cfgs[i] != nullptr ? directoryOf(catalogue, cfgs[i]) : nullptr;
        if (directory != nullptr)
            askFor(directory, cfgs[i]);
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (cfgs[i] == nullptr)
            continue;
        ListedDirectory *directory = directoryOf(catalogue, cfgs[i]);
        if (directory != nullptr && !directory->isRead && !directory->memoryRanOut)
            readNames(catalogue, directory);
        if (directory != nullptr && directory->cannotList)
            continue;
        Examination examination = {catalogue, cfgs[i]->directory, -1, false, query, needHost, now};
        if (directory == nullptr || directory->memoryRanOut ||
            !gatherFilesOf(&examination, directory, cfgs[i], withEntries))
            catalogue->marked = true;
        if (examination.directoryDescriptor != -1)
            close(examination.directoryDescriptor);
    }
    std::sort(catalogue->files.begin(), catalogue->files.end(), isListedBefore);
    return true;
}

// ---- the exported operations -------------------------------------------------

enum ListingResult : int32_t { LISTED = 0, NOTHING_LISTED = 1, LISTING_FAILED = -1 };

int32_t list_log_files(LogListing *listing, LogCfg **cfgs, uint32_t count) {
    const CancellationOff off;
    if (listing == nullptr)
        return LISTING_FAILED;
    listing->files = nullptr;
    if (cfgs == nullptr || count == 0)
        return NOTHING_LISTED;
    FileCatalogue catalogue;
    if (!gatherLogFiles(&catalogue, cfgs, count, listing->query, true))
        return LISTING_FAILED;
    if (!catalogue.marked)
        return NOTHING_LISTED;
    LogFileEntry **tail = &listing->files;
    for (const ListedFile &file : catalogue.files) {
        *tail = file.entry;
        tail = &file.entry->next;
    }
    return LISTED;
}

namespace {

uint32_t resultOfListing(int32_t listed) {
    switch (listed) {
    case LISTED:
        return ZOLTLOG_OK;
    case NOTHING_LISTED:
        return ZOLTLOG_NO_LOG_FILES;
    default:
        return ZOLTLOG_FAILED;
    }
}

} // namespace

uint32_t GetLogFiles(LogCfg **cfgs, uint32_t count, LogListing *listing) {
    const CancellationOff off;
    if (cfgs == nullptr || listing == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const int32_t listed = list_log_files(listing, cfgs, count);
    if (listed == LISTED)
        listing->next = listing->files;
    return resultOfListing(listed);
}
