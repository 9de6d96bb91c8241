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
// file carries the number of its chain, and duplicates are found by a finer hash.
//
// Order: texts; directories (reading one, finding its files); examining a file;
// admission; insertion; gathering; the exported operations.
#include "read_list.h"

#include "bounded.h"
#include "os.h"
#include "parse_string.h"
#include "read.h"
#include "read_query.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(offsetof(LogListing, word) < offsetof(LogListing, files) &&
                  offsetof(LogListing, files) < offsetof(LogListing, next) &&
                  offsetof(LogListing, next) < offsetof(LogListing, query) &&
                  offsetof(LogListing, query) < offsetof(LogListing, unsupportedHeader),
              "field order of LogListing");

static constexpr uint32_t TABLE_BUCKETS = 300;
static constexpr int64_t FUTURE_LIMIT = 86400; // seconds a modification may lie ahead of now

// ---- texts -------------------------------------------------------------------

// Texts live as long as the catalogue, packed into blocks that never move.
struct TextBlock {
    TextBlock *next;
    size_t used;
    size_t room;
    char bytes[1]; // the bytes run on
};

static constexpr size_t TEXT_BLOCK_ROOM = 65536 - sizeof(TextBlock);

static const char *keepText(FileCatalogue *catalogue, const char *text) {
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

static constexpr uint32_t NOWHERE = UINT32_MAX;

struct ListedName {
    const char *name;
    uint64_t hash;         // hashText of directory and name
    uint64_t productId;    // of a name that splits into two ids, else 0
    uint64_t originatorId; //
    uint64_t setProductId; // of a name that splits into product and log set, else 0
    const char *set;       // its log set
    uint32_t nextOfIds;    // chain of the index by ids
    uint32_t nextOfSet;    // chain of the index by log set
    bool listed;           // already in the catalogue
    bool timesKnown;       // modificationTime is filled in
    bool headerKnown;      // the header was looked for: what follows is filled in
    bool opened;           // the file could be opened
    bool uncertain;        // its header could not be read for an error, not for its content
    int64_t modificationTime;
    int64_t creationTime; // of the header
    const char *hostName; // of the header; null: not kept
};

struct ListedDirectory {
    ListedDirectory *next;
    const char *path; // of the first configuration that named it
    uint64_t hash;    // of path
    Grown<ListedName> names;
    bool cannotList;
    bool memoryRanOut;
    bool splitById; // what the names are split by so far
    bool splitBySet;
    uint32_t *byIds; // chain heads, mask + 1 of them
    uint32_t *bySet;
    uint32_t mask;
};

FileCatalogue::~FileCatalogue() {
    while (directories != nullptr) {
        ListedDirectory *next = directories->next;
        zoltLogFree(directories->byIds);
        zoltLogFree(directories->bySet);
        directories->names.~Grown<ListedName>();
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

static uint32_t idsSlot(uint64_t productId, uint64_t originatorId, uint32_t mask) {
    const uint64_t mixed = (productId * 0x9E3779B97F4A7C15u ^ originatorId) * 0xC2B2AE3D27D4EB4Fu;
    return static_cast<uint32_t>(mixed >> 32) & mask;
}

static uint32_t setSlot(uint64_t productId, const char *set, uint32_t mask) {
    return idsSlot(productId, hashText(0, set), mask);
}

static uint32_t *makeHeads(uint32_t mask) {
    auto *heads = static_cast<uint32_t *>(zoltLogMalloc((mask + size_t{1}) * sizeof(uint32_t)));
    if (heads != nullptr)
        std::fill_n(heads, mask + size_t{1}, NOWHERE);
    return heads;
}

// Takes out names that the directory yielded twice, as it may while others change it.
static bool dropRepeatedNames(ListedDirectory *directory) {
    uint32_t *heads = makeHeads(directory->mask);
    if (heads == nullptr)
        return false;
    uint32_t kept = 0;
    for (ListedName &found : directory->names) {
        uint32_t slot = static_cast<uint32_t>(found.hash ^ found.hash >> 32) & directory->mask;
        const ListedName *same = nullptr;
        while (heads[slot] != NOWHERE && same == nullptr) {
            const ListedName &other = directory->names.items[heads[slot]];
            if (other.hash == found.hash && strcmp(other.name, found.name) == 0)
                same = &other;
            slot = (slot + 1) & directory->mask;
        }
        if (same != nullptr)
            continue;
        heads[slot] = kept;
        directory->names.items[kept++] = found;
    }
    directory->names.count = kept;
    zoltLogFree(heads);
    return true;
}

// The directory's names; an error leaves those read so far.
static void readNames(FileCatalogue *catalogue, ListedDirectory *directory) {
    OsLogFileCursor cursor = {};
    if (zoltLogOsListLogFilesBegin(&cursor, directory->path) != ZOLTLOG_OS_OK) {
        directory->cannotList = true;
        zoltLogOsListLogFilesEnd(&cursor);
        return;
    }
    do {
        const char *name = zoltLogOsListLogFilesName(&cursor);
        const char *kept = keepText(catalogue, name);
        ListedName *added = kept != nullptr ? directory->names.add() : nullptr;
        if (added == nullptr || directory->names.count == NOWHERE) {
            directory->memoryRanOut = true;
            break;
        }
        added->name = kept;
        added->hash = hashText(directory->hash, kept);
    } while (zoltLogOsListLogFilesNext(&cursor) == ZOLTLOG_OS_OK);
    zoltLogOsListLogFilesEnd(&cursor);

    uint32_t mask = 15;
    while (mask < directory->names.count * 2 && mask < NOWHERE / 2)
        mask = mask * 2 + 1;
    directory->mask = mask;
    if (!dropRepeatedNames(directory)) {
        directory->memoryRanOut = true;
        directory->names.count = 0;
    }
}

static ListedDirectory *openDirectory(FileCatalogue *catalogue, const char *path) {
    const uint64_t hash = hashText(0, path);
    for (ListedDirectory *known = catalogue->directories; known != nullptr; known = known->next)
        if (known->hash == hash && strcmp(known->path, path) == 0)
            return known;
    auto *directory = static_cast<ListedDirectory *>(calloc(1, sizeof(ListedDirectory)));
    if (directory == nullptr)
        return nullptr;
    directory->path = path;
    directory->hash = hash;
    directory->next = catalogue->directories;
    catalogue->directories = directory;
    readNames(catalogue, directory);
    return directory;
}

// The chains are built from the last name to the first, so that they run in the order
// of the directory.
static bool indexByIds(ListedDirectory *directory) {
    if (directory->splitById)
        return true;
    directory->byIds = makeHeads(directory->mask);
    if (directory->byIds == nullptr)
        return false;
    for (auto i = static_cast<uint32_t>(directory->names.count); i-- > 0;) {
        ListedName &name = directory->names.items[i];
        if (getidfromfilename(name.name, &name.productId, &name.originatorId) == 0) {
            name.productId = 0;
            continue;
        }
        uint32_t *head = &directory->byIds[idsSlot(name.productId, name.originatorId, directory->mask)];
        name.nextOfIds = *head;
        *head = i;
    }
    directory->splitById = true;
    return true;
}

static bool indexBySet(FileCatalogue *catalogue, ListedDirectory *directory) {
    if (directory->splitBySet)
        return true;
    directory->bySet = makeHeads(directory->mask);
    if (directory->bySet == nullptr)
        return false;
    for (auto i = static_cast<uint32_t>(directory->names.count); i-- > 0;) {
        ListedName &name = directory->names.items[i];
        char set[LOGSET_NAME_ROOM];
        char dateTime[DATE_TIME_ROOM] = "";
        set[0] = '\0';
        if (getSLidfromfilename(name.name, &name.setProductId, set, dateTime) == 0 ||
            (name.set = keepText(catalogue, set)) == nullptr) {
            name.setProductId = 0;
            continue;
        }
        uint32_t *head = &directory->bySet[setSlot(name.setProductId, name.set, directory->mask)];
        name.nextOfSet = *head;
        *head = i;
    }
    directory->splitBySet = true;
    return true;
}

// ---- examining a file --------------------------------------------------------

struct Examination {
    FileCatalogue *catalogue;
    const char *directory;
    int directoryDescriptor; // -1 until the first file is examined
    LogQueryNode *query;
    bool needHost;
    int64_t now;
};

static bool isStarvation(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR;
}

// Files are reached through their directory's descriptor, which spares the walk over
// the directory's path for each of them.
static int directoryDescriptor(Examination *examination) {
    if (examination->directoryDescriptor != -1)
        return examination->directoryDescriptor;
    const int descriptor = open(examination->directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    examination->directoryDescriptor = descriptor != -1 ? aboveStdio(descriptor) : -1;
    if (examination->directoryDescriptor == -1)
        examination->catalogue->starved = true;
    return examination->directoryDescriptor;
}

static int64_t modificationTimeOf(const struct stat &status) {
    return S_ISREG(status.st_mode) ? status.st_mtime : 0;
}

static void learnTimes(Examination *examination, ListedName *name) {
    if (name->timesKnown)
        return;
    name->timesKnown = true;
    struct stat status;
    if (fstatat(directoryDescriptor(examination), name->name, &status, 0) == 0)
        name->modificationTime = modificationTimeOf(status);
}

// The date-time of a log set's file name; -1 when it has none. False: no such name.
static bool logsetTimeOf(const char *name, int64_t *seconds) {
    uint64_t productId = 0;
    char set[LOGSET_NAME_ROOM];
    char dateTime[DATE_TIME_ROOM] = "";
    set[0] = '\0';
    if (getSLidfromfilename(name, &productId, set, dateTime) == 0)
        return false;
    *seconds = convert_time(dateTime);
    return true;
}

// A log set's header tells no creation time; its file's name does.
static int64_t creationTimeOf(const LogFileHeader &header, const char *name) {
    if (header.version != ZOLTLOG_RECORD_VERSION_LOGSET)
        return static_cast<int64_t>(header.creationTime);
    int64_t creationTime = 0;
    return logsetTimeOf(name, &creationTime) ? creationTime : static_cast<int64_t>(header.creationTime);
}

// Opens the file and reads its header, the only time for this file.
static void learnHeader(Examination *examination, ListedName *name) {
    if (name->headerKnown)
        return;
    name->headerKnown = true;
    name->hostName = "";
    OsFile *reader = examination->catalogue->reader;
    zoltLogOs_initfilehandle(reader);
    const int descriptor =
        openat(directoryDescriptor(examination), name->name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor == -1) {
        if (isStarvation(errno))
            examination->catalogue->starved = true;
        return;
    }
    reader->descriptor = aboveStdio(descriptor);
    struct stat status;
    if (reader->descriptor == -1 || fstat(reader->descriptor, &status) != 0) {
        examination->catalogue->starved = true;
    } else if (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode)) {
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
static bool isAdmitted(Examination *examination, const LogCfg *cfg, ListedName *name, int64_t *creationTime) {
    const bool logset = cfg->isLogset != 0;
    if (!logset || examination->needHost)
        learnHeader(examination, name);
    learnTimes(examination, name);
    if (logset) {
        logsetTimeOf(name->name, creationTime);
    } else {
        *creationTime = name->creationTime;
    }
    if (name->modificationTime - FUTURE_LIMIT > examination->now)
        return false;
    if (examination->needHost && !name->opened)
        return false;
    if (examination->query == nullptr)
        return true;
    return evalTreeToFilterFiles(cfg->productId, logset ? 0 : cfg->originatorId, name->hostName,
                                 logset ? cfg->logsetName : nullptr, *creationTime, name->modificationTime,
                                 examination->query) != 0;
}

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

static bool insertFile(FileCatalogue *catalogue, const char *directory, ListedName *name,
                       int64_t creationTime, bool withEntry) {
    LogFileEntry *entry = withEntry ? makeEntry(directory, name->name, creationTime) : nullptr;
    if (withEntry && entry == nullptr)
        return false;
    ListedFile *file = catalogue->files.add();
    if (file == nullptr) {
        zoltLogFree(entry);
        return false;
    }
    *file = {creationTime,
             directory,
             name->name,
             static_cast<uint32_t>(name->hash % TABLE_BUCKETS),
             static_cast<uint32_t>(catalogue->files.count),
             name->uncertain,
             entry};
    name->listed = true;
    return true;
}

// ---- gathering ---------------------------------------------------------------

// False when memory ran out.
static bool gatherFilesOf(Examination *examination, ListedDirectory *directory, const LogCfg *cfg,
                          bool withEntries) {
    FileCatalogue *catalogue = examination->catalogue;
    const bool logset = cfg->isLogset != 0;
    if (logset && cfg->logsetFilename == nullptr)
        return true;
    if (!(logset ? indexBySet(catalogue, directory) : indexByIds(directory)))
        return false;
    uint32_t at = logset ? directory->bySet[setSlot(cfg->productId, cfg->logsetFilename, directory->mask)]
                         : directory->byIds[idsSlot(cfg->productId, cfg->originatorId, directory->mask)];
    while (at != NOWHERE) {
        ListedName *name = &directory->names.items[at];
        at = logset ? name->nextOfSet : name->nextOfIds;
        const bool matches =
            logset ? name->setProductId == cfg->productId && strcmp(name->set, cfg->logsetFilename) == 0
                   : name->productId == cfg->productId && name->originatorId == cfg->originatorId;
        int64_t creationTime = 0;
        if (!matches)
            continue;
        if (name->listed) {
            catalogue->marked = true;
        } else if (isAdmitted(examination, cfg, name, &creationTime)) {
            catalogue->marked = true;
            if (!insertFile(catalogue, directory->path, name, creationTime, withEntries))
                return false;
        }
    }
    return true;
}

static bool isListedBefore(const ListedFile &a, const ListedFile &b) {
    if (a.creationTime != b.creationTime)
        return a.creationTime < b.creationTime;
    if (a.bucket != b.bucket)
        return a.bucket < b.bucket;
    return a.order > b.order; // the last inserted stands at the head of its chain
}

bool gatherLogFiles(FileCatalogue *catalogue, LogCfg **cfgs, uint32_t count, LogQueryNode *query,
                    bool withEntries) {
    catalogue->reader = static_cast<OsFile *>(zoltLogMalloc(sizeof(OsFile)));
    if (catalogue->reader == nullptr)
        return false;
    const bool needHost = queryMentionsHost(query);
    const int64_t now = time(nullptr);
    for (uint32_t i = 0; i < count; ++i) {
        if (cfgs[i] == nullptr)
            continue;
        ListedDirectory *directory = openDirectory(catalogue, cfgs[i]->directory);
        if (directory != nullptr && directory->cannotList)
            continue;
        Examination examination = {catalogue, cfgs[i]->directory, -1, query, needHost, now};
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

static uint32_t resultOfListing(int32_t listed) {
    switch (listed) {
    case LISTED:
        return ZOLTLOG_OK;
    case NOTHING_LISTED:
        return ZOLTLOG_NO_LOG_FILES;
    default:
        return ZOLTLOG_FAILED;
    }
}

uint32_t GetLogFiles(LogCfg **cfgs, uint32_t count, LogListing *listing) {
    if (cfgs == nullptr || listing == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const int32_t listed = list_log_files(listing, cfgs, count);
    if (listed == LISTED)
        listing->next = listing->files;
    return resultOfListing(listed);
}
