// Changes of a property store file. A file is never changed in place: its lines go,
// changed, to path + ".tmp", which then takes its place.
//
// Sections: the lock between processes; the temporary file; a rewrite from begin to
// end; set; remove; creating and removing files.
//
// A rewrite holds an advisory lock on the file's directory and reads the file anew
// under it, so that two processes lose nothing of each other's change. The new file
// has the old one's mode and owner, is on the disk before it gets the name, and
// until then the old one stays as it was. When a step fails the handle keeps its
// stream and stays usable. After a failed write the temporary file stays behind;
// the next rewrite unlinks it first.
#include "utiPropertyStoreFile.h"

#include "bounded.h"
#include "cmn_routines.h"
#include "os.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static const char TEMPORARY_SUFFIX[] = ".tmp";
static const char CONFIGURATION_SUFFIX[] = ".conf"; // tells a file from a section on removal
static const mode_t NEW_FILE_MODE = 0666;           // less the process's umask
static const uint32_t NEW_DIRECTORY_MODE = 0755;    // a directory takes its parent's mode instead
static const long LOCK_WAIT_MS = 10000;
static const long LOCK_POLL_MS = 2;
static const int CREATE_ATTEMPTS = 3; // each unlinks what stands in the way
static const size_t WRITE_BUFFER_SIZE = 32768;

static const char HEADER[] = "###############################################\n"
                             "# Caution! Do not update/modify file by hand. \n"
                             "# Use qdlogcfg tool to update/modify this file\n"
                             "###############################################\n";

// ---- the lock between processes ------------------------------------------------------

static long monotonicMilliseconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The directory of a path, in a buffer as large as a handle's path; false if it does not fit.
static bool directoryOf(const char *path, char (&directory)[sizeof(PropertyStore::path)]) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr)
        path = ".";
    size_t length = slash == nullptr ? 1 : static_cast<size_t>(slash - path);
    if (length == 0)
        length = 1; // "/"
    if (length >= sizeof directory)
        return false;
    memcpy(directory, path, length);
    directory[length] = '\0';
    return true;
}

// Locks a directory and waits for it at most LOCK_WAIT_MS; false when that passed. Where
// a directory cannot be read or the file system has no such locks there is none:
// *descriptor is -1 then, and the rename alone keeps readers safe.
static bool lockDirectory(const char *path, int *descriptor) {
    *descriptor = -1;
    char directory[sizeof(PropertyStore::path)];
    if (!directoryOf(path, directory))
        return true;
    const int opened = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int locked = opened >= 0 ? aboveStdio(opened) : -1;
    if (locked < 0)
        return true;
    const long start = monotonicMilliseconds();
    while (flock(locked, LOCK_EX | LOCK_NB) != 0) {
        const bool busy = errno == EWOULDBLOCK;
        if (!busy && errno != EINTR) {
            close(locked);
            return true;
        }
        if (monotonicMilliseconds() - start > LOCK_WAIT_MS) {
            close(locked);
            return false;
        }
        const struct timespec pause = {0, LOCK_POLL_MS * 1000000};
        if (busy)
            nanosleep(&pause, nullptr);
    }
    *descriptor = locked;
    return true;
}

static void unlockDirectory(int descriptor) {
    if (descriptor < 0)
        return;
    flock(descriptor, LOCK_UN); // a child forked meanwhile may still hold the descriptor
    close(descriptor);
}

// ---- the temporary file --------------------------------------------------------------

// The new file's mode and owner are the old one's, or the file is not made at all: it
// might become unreadable to those who read the old one, or readable to others.
static bool inherit(int descriptor, const struct stat *old) {
    struct stat made;
    if (fstat(descriptor, &made) != 0)
        return false;
    if ((made.st_uid != old->st_uid || made.st_gid != old->st_gid) &&
        fchown(descriptor, old->st_uid, old->st_gid) != 0)
        return false;
    return fchmod(descriptor, old->st_mode & 07777U) == 0;
}

// Makes path + ".tmp" anew, never through a link, for a handle of its own. old is the
// file that it will replace, or null.
static uint32_t createTemporary(const char *path, const char *root, const struct stat *old,
                                PropertyStore *temporary) {
    if (path == nullptr || root == nullptr || temporary == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    const size_t length = strlen(path);
    if (length + sizeof TEMPORARY_SUFFIX > sizeof temporary->path)
        return ZOLTLOG_STORE_NOT_CREATED;
    temporary->stream = nullptr;
    memmove(temporary->path, path, length);
    memcpy(temporary->path + length, TEMPORARY_SUFFIX, sizeof TEMPORARY_SUFFIX);
    copyBounded(temporary->root, root);

    const mode_t mode = old != nullptr ? old->st_mode & 0777U : NEW_FILE_MODE;
    int descriptor = -1;
    for (int attempt = 0; descriptor < 0 && attempt < CREATE_ATTEMPTS; ++attempt) {
        (void)unlink(temporary->path); // a stale or planted one; the open tells what remains
        descriptor = open(temporary->path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (descriptor < 0 && errno != EEXIST && errno != EINTR)
            break;
    }
    if (descriptor >= 0)
        descriptor = aboveStdio(descriptor);
    if (descriptor < 0)
        return ZOLTLOG_STORE_NOT_CREATED;
    if (old == nullptr || inherit(descriptor, old))
        temporary->stream = fdopen(descriptor, "w");
    if (temporary->stream == nullptr) {
        close(descriptor);
        (void)unlink(temporary->path);
        return ZOLTLOG_STORE_NOT_CREATED;
    }
    return ZOLTLOG_STORE_OK;
}

uint32_t utiCreateTmpPropertyStoreFile(const char *path, const char *root, PropertyStore *store) {
    if (path == nullptr || root == nullptr || store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    struct stat old;
    return createTemporary(path, root, stat(path, &old) == 0 ? &old : nullptr, store);
}

// ---- a rewrite from begin to end --------------------------------------------------------

struct Rewrite {
    int directory; // locked, or -1
    int source;    // the current file, or -1 when it is gone
    PropertyStore temporary;
    StoreReader reader;
    char *buffer; // what is not written yet
    size_t used;
    bool failed; // a write failed
};

static void flushRewrite(Rewrite *rewrite) {
    size_t written = 0;
    while (!rewrite->failed && written < rewrite->used) {
        const ssize_t count =
            write(fileno(rewrite->temporary.stream), rewrite->buffer + written, rewrite->used - written);
        if (count > 0)
            written += static_cast<size_t>(count);
        else if (count == 0 || errno != EINTR)
            rewrite->failed = true;
    }
    rewrite->used = 0;
}

static void put(Rewrite *rewrite, const char *text, size_t size) {
    while (size > 0 && !rewrite->failed) {
        size_t part = WRITE_BUFFER_SIZE - rewrite->used;
        if (part > size)
            part = size;
        memcpy(rewrite->buffer + rewrite->used, text, part);
        rewrite->used += part;
        text += part;
        size -= part;
        if (rewrite->used == WRITE_BUFFER_SIZE)
            flushRewrite(rewrite);
    }
}

static void putText(Rewrite *rewrite, const char *text) {
    put(rewrite, text, strlen(text));
}

static void putLine(Rewrite *rewrite, StoreText line) {
    put(rewrite, line.text, line.size);
}

// Releases everything but the temporary file's name.
static void endRewrite(Rewrite *rewrite) {
    if (rewrite->temporary.stream != nullptr)
        (void)fclose(rewrite->temporary.stream); // its content is given up or already closed
    rewrite->temporary.stream = nullptr;
    if (rewrite->source >= 0)
        close(rewrite->source);
    storeReaderFree(&rewrite->reader);
    zoltLogFree(rewrite->buffer);
    unlockDirectory(rewrite->directory);
}

// Takes the lock, opens the file as it is now and makes the temporary file. A file that is
// gone is begun anew. On failure nothing is held.
static uint32_t beginRewrite(Rewrite *rewrite, const char *path, const char *root) {
    *rewrite = {};
    rewrite->source = -1;
    if (!lockDirectory(path, &rewrite->directory))
        return ZOLTLOG_STORE_NOT_WRITTEN;
    rewrite->source = storeOpenForReading(path);
    const bool gone = rewrite->source < 0 && errno == ENOENT;
    struct stat old;
    uint32_t result = ZOLTLOG_STORE_NOT_WRITTEN;
    if (rewrite->source < 0 ? gone : fstat(rewrite->source, &old) == 0)
        result = createTemporary(path, root, gone ? nullptr : &old, &rewrite->temporary);
    if (result == ZOLTLOG_STORE_OK) {
        rewrite->buffer = static_cast<char *>(zoltLogMalloc(WRITE_BUFFER_SIZE));
        if (rewrite->buffer == nullptr || !storeReaderInit(&rewrite->reader, rewrite->source)) {
            (void)unlink(rewrite->temporary.path);
            result = ZOLTLOG_STORE_NOT_WRITTEN;
        }
    }
    if (result != ZOLTLOG_STORE_OK)
        endRewrite(rewrite);
    else if (gone)
        putText(rewrite, HEADER);
    return result;
}

// Puts the temporary file on the disk and in the place of the file; ends the rewrite.
static uint32_t commitRewrite(Rewrite *rewrite, const char *path) {
    flushRewrite(rewrite);
    bool written = !rewrite->failed && !rewrite->reader.failed;
    written = written && (fsync(fileno(rewrite->temporary.stream)) == 0 || errno == EINVAL); // not a disk
    FILE *stream = rewrite->temporary.stream;
    rewrite->temporary.stream = nullptr;
    written = fclose(stream) == 0 && written;
    if (written && rename(rewrite->temporary.path, path) != 0) {
        (void)unlink(rewrite->temporary.path);
        written = false;
    }
    // From here on the new file is the file. That its name outlasts a loss of power cannot
    // be promised when this fails, which is no reason to call the change a failure.
    if (written && rewrite->directory >= 0)
        (void)fsync(rewrite->directory);
    endRewrite(rewrite);
    return written ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
}

// Opens the handle's section in the rewritten file.
static uint32_t reopen(PropertyStore *store) {
    (void)utiClosePropertyStoreFile(store);
    return utiOpenPropertyStoreFile(store->path, store->root, store);
}

static uint32_t finishChange(Rewrite *rewrite, PropertyStore *store) {
    const uint32_t result = commitRewrite(rewrite, store->path);
    return result == ZOLTLOG_STORE_OK ? reopen(store) : result;
}

// Gives a rewrite up: after a failed write its temporary file stays, else it goes.
static uint32_t abandonRewrite(Rewrite *rewrite) {
    const bool failed = rewrite->failed || rewrite->reader.failed;
    if (!failed)
        (void)unlink(rewrite->temporary.path);
    endRewrite(rewrite);
    return failed ? ZOLTLOG_STORE_NOT_WRITTEN : ZOLTLOG_STORE_OK;
}

// ---- set ------------------------------------------------------------------------------

static bool isOpen(const PropertyStore *store) {
    return store != nullptr && store->stream != nullptr;
}

static bool hasLineFeed(const char *text) {
    return strchr(text, '\n') != nullptr;
}

static const char *rootOrNull(const PropertyStore *store) {
    return *store->root != '\0' ? store->root : nullptr;
}

static void putProperty(Rewrite *rewrite, const char *root, const char *name, const char *value) {
    if (root != nullptr) {
        putText(rewrite, root);
        put(rewrite, ".", 1);
    }
    putText(rewrite, name);
    put(rewrite, "=", 1);
    putText(rewrite, value);
    put(rewrite, "\n", 1);
}

// Copies the lines and puts the property into the first run of its section's lines: in
// the place of the line with its key, or else behind the run. True when it was put.
// KEPT: a key that stands in a later run only is put a second time, into the first run.
// Pinned by PropertyStore.SetChangesTheFirstRunOnly.
// KEPT: the section of a log set's line is the text between its first two dots, so a log
// set with a dot in its name gets every set appended. Pinned by
// PropertyStore.ADottedLogsetNameIsAppendedEachTime.
static bool copyAndPut(Rewrite *rewrite, const char *root, const char *name, const char *value) {
    bool inRun = false;
    bool found = false;
    StoreText line;
    while (!rewrite->failed && storeReaderNext(&rewrite->reader, &line)) {
        const bool ours = !found && storeLineInSection(line, root, ".=");
        if (ours && storeLineHasKey(line, root, name)) {
            putProperty(rewrite, root, name, value);
            found = true;
            continue;
        }
        if (inRun && !ours && !found) {
            putProperty(rewrite, root, name, value);
            found = true;
        }
        inRun = ours;
        putLine(rewrite, line);
    }
    return found;
}

// Without a section: replaces every line whose first token is the name.
static bool copyAndReplace(Rewrite *rewrite, const char *name, const char *value) {
    bool found = false;
    StoreText line;
    while (!rewrite->failed && storeReaderNext(&rewrite->reader, &line)) {
        if (storeLineHasFirstToken(line, name)) {
            putProperty(rewrite, nullptr, name, value);
            found = true;
        } else {
            putLine(rewrite, line);
        }
    }
    return found;
}

// KEPT: the property is put at the very end also when the last line has no line feed, and
// joins it then. Pinned by PropertyStore.AnUnfinishedLastLineIsJoined.
static uint32_t setProperty(PropertyStore *store, const char *name, const char *value) {
    if (!isOpen(store) || name == nullptr || value == nullptr || hasLineFeed(name) || hasLineFeed(value) ||
        hasLineFeed(store->root))
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    Rewrite rewrite;
    const uint32_t result = beginRewrite(&rewrite, store->path, store->root);
    if (result != ZOLTLOG_STORE_OK)
        return result;
    const char *root = rootOrNull(store);
    const bool found =
        root != nullptr ? copyAndPut(&rewrite, root, name, value) : copyAndReplace(&rewrite, name, value);
    if (!found)
        putProperty(&rewrite, root, name, value);
    return finishChange(&rewrite, store);
}

uint32_t utiSetPropertyAsUlongFile(PropertyStore *store, const char *name, const unsigned long *value) {
    if (value == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char text[24]; // 19 digits, a sign and the terminator
    // KEPT: numbers are written signed, those of 2^63 and above as negative ones. Pinned by
    // PropertyStore.NumbersOfTheUpperHalfAreWrittenNegative.
    (void)snprintf(text, sizeof text, "%ld", static_cast<long>(*value));
    return setProperty(store, name, text);
}

uint32_t utiSetPropertyAsBoolFile(PropertyStore *store, const char *name, const uint32_t *value) {
    if (value == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    return setProperty(store, name, *value == 1 ? "true" : "false");
}

uint32_t utiSetPropertyAsStrFile(PropertyStore *store, const char *name, const char *text) {
    if (!isOpen(store) || name == nullptr || text == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char *utf8 = nullptr;
    if (mbs2utf8(&utf8, text) != ZOLTLOG_OK)
        return ZOLTLOG_STORE_NOT_FOUND;
    const uint32_t result = setProperty(store, name, utf8);
    zoltLogFree(utf8);
    return result;
}

// ---- remove -----------------------------------------------------------------------------

uint32_t utiRemovePropertyFile(PropertyStore *store, const char *name) {
    if (!isOpen(store) || name == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    Rewrite rewrite;
    const uint32_t result = beginRewrite(&rewrite, store->path, store->root);
    if (result != ZOLTLOG_STORE_OK)
        return result;
    bool dropped = false;
    StoreText line;
    while (!rewrite.failed && storeReaderNext(&rewrite.reader, &line)) {
        if (storeLineHasKey(line, rootOrNull(store), name))
            dropped = true;
        else
            putLine(&rewrite, line);
    }
    if (dropped)
        return finishChange(&rewrite, store);
    flushRewrite(&rewrite);
    return abandonRewrite(&rewrite);
}

static uint32_t removeSection(PropertyStore *store, const char *section) {
    Rewrite rewrite;
    uint32_t result = beginRewrite(&rewrite, store->path, store->root);
    if (result != ZOLTLOG_STORE_OK)
        return result;
    bool dropped = false;
    StoreText line;
    while (!rewrite.failed && storeReaderNext(&rewrite.reader, &line)) {
        if (memchr(line.text, '.', strnlen(line.text, line.size)) != nullptr &&
            storeLineInSection(line, section, "."))
            dropped = true;
        else
            putLine(&rewrite, line);
    }
    result = finishChange(&rewrite, store);
    return result == ZOLTLOG_STORE_OK && !dropped ? uint32_t{ZOLTLOG_STORE_NO_SECTION} : result;
}

uint32_t utiRemovePropertyRootFile(PropertyStore *store, const char *section) {
    if (section == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    if (strstr(section, CONFIGURATION_SUFFIX) != nullptr)
        return zoltLogOs_remove(section) == 0 ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
    return isOpen(store) ? removeSection(store, section) : uint32_t{ZOLTLOG_STORE_INVALID_ARGUMENT};
}

// ---- creating and removing files ----------------------------------------------------------

// Makes the directory of a path, which must name one.
static bool makeDirectoryOf(const char *path) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr)
        return false;
    const auto length = static_cast<size_t>(slash - path);
    const LogOwned<char> directory(static_cast<char *>(zoltLogMalloc(length + 1)));
    if (directory == nullptr)
        return false;
    memcpy(directory.get(), path, length);
    directory.get()[length] = '\0';
    return zoltLogOs_mkdirp(directory.get(), NEW_DIRECTORY_MODE) == 0;
}

static bool writeHeader(int descriptor) {
    size_t written = 0;
    while (written < sizeof HEADER - 1) {
        const ssize_t count = write(descriptor, HEADER + written, sizeof HEADER - 1 - written);
        if (count > 0)
            written += static_cast<size_t>(count);
        else if (count == 0 || errno != EINTR)
            return false;
    }
    return fsync(descriptor) == 0 || errno == EINVAL;
}

// Makes or empties a file and writes the header, through a link if the path is one.
static bool makeFile(const char *path) {
    int descriptor =
        open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, NEW_FILE_MODE);
    if (descriptor >= 0)
        descriptor = aboveStdio(descriptor);
    if (descriptor < 0)
        return false;
    const bool written = writeHeader(descriptor);
    return close(descriptor) == 0 && written;
}

uint32_t utiCreatePropertyStoreFile(const char *path, const char *root, PropertyStore *store) {
    if (path == nullptr || root == nullptr || store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    store->stream = nullptr;
    int lock = -1;
    if (!makeDirectoryOf(path) || !lockDirectory(path, &lock))
        return ZOLTLOG_STORE_NOT_CREATED;
    const bool made = makeFile(path);
    unlockDirectory(lock);
    return made ? utiOpenPropertyStoreFile(path, root, store) : uint32_t{ZOLTLOG_STORE_NOT_CREATED};
}

static bool isMissing(const char *path) {
    struct stat status;
    return stat(path, &status) != 0 && errno == ENOENT;
}

// Gives a link to nowhere its file, unless another process has done so since.
static bool makeLinkedFile(const char *path) {
    int lock = -1;
    if (!lockDirectory(path, &lock))
        return false;
    const bool made = !isMissing(path) || makeFile(path);
    unlockDirectory(lock);
    return made;
}

// Makes a file with the header in it, unless another process has done so since.
static bool makeMissingFile(const char *path, const char *root) {
    Rewrite rewrite;
    if (beginRewrite(&rewrite, path, root) != ZOLTLOG_STORE_OK)
        return false;
    return (rewrite.source >= 0 ? abandonRewrite(&rewrite) : commitRewrite(&rewrite, path)) ==
           ZOLTLOG_STORE_OK;
}

uint32_t storeOpenOrCreate(const char *path, const char *root, PropertyStore *store) {
    uint32_t result = utiOpenPropertyStoreFile(path, root, store);
    if (result != ZOLTLOG_STORE_NO_FILE)
        return result;
    if (isMissing(path)) { // a file that is there is never emptied
        struct stat status;
        const bool isLink = lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
        if (!makeDirectoryOf(path) || !(isLink ? makeLinkedFile(path) : makeMissingFile(path, root)))
            return ZOLTLOG_STORE_NOT_CREATED;
    }
    return utiOpenPropertyStoreFile(path, root, store); // another process may have made it
}

uint32_t storeRemoveIfEmpty(const char *path) {
    int lock = -1;
    if (!lockDirectory(path, &lock))
        return ZOLTLOG_STORE_NOT_WRITTEN;
    PropertyStore store = {};
    uint32_t result = ZOLTLOG_STORE_OK;
    if (utiOpenPropertyStoreFile(path, "", &store) == ZOLTLOG_STORE_OK) {
        char name[STORE_LINE_MAX + 1] = "";
        uint32_t size = sizeof name;
        if (utiEnumProductIdFile(&store, 0, name, &size) == ZOLTLOG_STORE_NO_MORE)
            result = zoltLogOs_remove(path) == 0 ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
    }
    (void)utiClosePropertyStoreFile(&store);
    unlockDirectory(lock);
    return result;
}
