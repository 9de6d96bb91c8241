// SPDX-License-Identifier: Apache-2.0
// The rewrite of a property store file: one writer at a time, a file of its own, published
// whole. What a change makes of the lines is utiPropertyStoreFile_change.cpp's.
//
// Sections: the temporary file and its lock; attributes of the new file; reading the old
// one; publishing; a rewrite from begin to end.
//
// path + ".tmp" is the new file and the lock in one: a writer makes it and holds a lock on
// it until it has taken the name of the old one. Only those who may make files in the
// directory, and so may change the configuration, can hold it; nobody else can keep them
// waiting. One that a killed writer left behind has no lock and is removed. Where the file
// system has no locks the name alone is one, and a file that nobody touched for
// STALE_SECONDS counts as left behind.
//
// Others may change the file without this lock, an editor for one. Just before the new file
// takes the name the old one must still be the one that was read; otherwise the change is
// made again from what is there now.
#include "utiPropertyStoreFile.h"

#include "cancellation.h"

#include "cmn_routines.h"
#include "lockUnix.h"
#include "os.h"
#include "regular_file.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

const char TEMPORARY_SUFFIX[] = ".tmp";
const mode_t NEW_FILE_MODE = 0666; // less the process's umask
const mode_t LOCK_MODE = 0600;     // until the file has the old one's
const long WAIT_MS = 10000;        // for other writers, and for changes that are made again
const long POLL_MS = 2;
const long MISSING_MS = 100; // for a file that may be away for an instant
const long AWAY_MS = 500;    // for one that is known to have been there
const long STALE_SECONDS = 10;
const size_t WRITE_BUFFER_SIZE = 32768;
const char ACCESS_LIST[] = "system.posix_acl_access";
const size_t ACCESS_LIST_SIZE = 65536; // no attribute is larger

long monotonicMilliseconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void pauseShortly() {
    const struct timespec pause = {0, POLL_MS * 1000000};
    nanosleep(&pause, nullptr);
}

bool isSameFile(const struct stat *a, const struct stat *b) {
    return a->st_dev == b->st_dev && a->st_ino == b->st_ino;
}

// Nothing was written to it either.
bool isUntouched(const struct stat *before, const struct stat *now) {
    return isSameFile(before, now) && before->st_size == now->st_size &&
           before->st_mtim.tv_sec == now->st_mtim.tv_sec && before->st_mtim.tv_nsec == now->st_mtim.tv_nsec;
}

// ---- the temporary file and its lock ----------------------------------------------------

struct Temporary {
    char path[sizeof(PropertyStore::path)];
    int descriptor;
    bool isForNew; // made with the mode of a new file
};

bool temporaryPath(const char *path, char (&temporary)[sizeof(PropertyStore::path)]) {
    const size_t length = strlen(path);
    if (length + sizeof TEMPORARY_SUFFIX > sizeof temporary)
        return false;
    memmove(temporary, path, length);
    memcpy(temporary + length, TEMPORARY_SUFFIX, sizeof TEMPORARY_SUFFIX);
    return true;
}

enum Locking { LOCKED, HELD, NO_LOCKS };

Locking lockFile(int descriptor) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    int result = -1;
    do
        result = fcntl(descriptor, F_OFD_SETLK, &lock);
    while (result != 0 && errno == EINTR);
    if (result == 0)
        return LOCKED;
    return errno == EAGAIN || errno == EACCES ? HELD : NO_LOCKS;
}

// The lock ends here also when a child forked meanwhile still has the descriptor.
void closeTemporary(Temporary *temporary) {
    if (temporary->descriptor < 0)
        return;
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    (void)fcntl(temporary->descriptor, F_OFD_SETLK, &lock);
    (void)close(temporary->descriptor); // its content is given up or known to be on the disk
    temporary->descriptor = -1;
}

bool hasItsName(const Temporary *temporary) {
    struct stat opened;
    struct stat named;
    return fstat(temporary->descriptor, &opened) == 0 && lstat(temporary->path, &named) == 0 &&
           isSameFile(&opened, &named);
}

// Makes the file and locks it. False when somebody else was faster, or with errno when it
// cannot be made; *failed tells which.
bool makeTemporary(Temporary *temporary, bool *failed) {
    const int made = open(temporary->path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          temporary->isForNew ? NEW_FILE_MODE : LOCK_MODE);
    *failed = made < 0 && errno != EEXIST && errno != EINTR;
    if (made < 0)
        return false;
    temporary->descriptor = aboveStdio(made);
    if (temporary->descriptor < 0) {
        *failed = true;
        (void)unlink(temporary->path);
        return false;
    }
    if (lockFile(temporary->descriptor) != HELD && hasItsName(temporary))
        return true;
    closeTemporary(temporary);
    return false;
}

bool isStale(const struct stat *status) {
    return status->st_mtim.tv_sec + STALE_SECONDS < time(nullptr);
}

// Removes what stands under the temporary file's name unless a writer is at work on it. False
// when it is none and stays.
bool removeLeftover(const char *path) {
    struct stat named;
    if (lstat(path, &named) != 0)
        return true;
    if (!S_ISREG(named.st_mode)) // planted: no writer makes such a one
        return unlink(path) == 0 || errno == ENOENT;
    const int descriptor = open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) {
        if (isStale(&named))
            (void)unlink(path);
        return true;
    }
    struct stat opened;
    const Locking locking = lockFile(descriptor);
    if (locking != HELD && (locking == LOCKED || isStale(&named)) && fstat(descriptor, &opened) == 0 &&
        lstat(path, &named) == 0 && isSameFile(&opened, &named))
        (void)unlink(path);
    close(descriptor);
    return true;
}

// Waits until nobody else writes, at most until the end.
uint32_t takeTemporary(const char *path, long end, Temporary *temporary) {
    temporary->descriptor = -1;
    if (!temporaryPath(path, temporary->path)) {
        errno = ENAMETOOLONG;
        return ZOLTLOG_STORE_NOT_CREATED;
    }
    for (;;) {
        bool failed = false;
        struct stat status;
        temporary->isForNew = stat(path, &status) != 0;
        if (makeTemporary(temporary, &failed))
            return ZOLTLOG_STORE_OK;
        if (failed || !removeLeftover(temporary->path))
            return ZOLTLOG_STORE_NOT_CREATED;
        const bool isFree = lstat(temporary->path, &status) != 0 && errno == ENOENT;
        if (monotonicMilliseconds() > end) {
            errno = EBUSY;
            return STORE_BUSY;
        }
        if (!isFree)
            pauseShortly();
    }
}

void dropTemporary(Temporary *temporary) {
    if (temporary->descriptor >= 0 && hasItsName(temporary))
        (void)unlink(temporary->path);
    closeTemporary(temporary);
}

// ---- attributes of the new file -------------------------------------------------------------

// The access list is the old one's, or there is none, as there.
bool copyAccessList(int from, int to) {
    const LogOwned<char> list(static_cast<char *>(zoltLogMalloc(ACCESS_LIST_SIZE)));
    if (list == nullptr)
        return false;
    const ssize_t size = fgetxattr(from, ACCESS_LIST, list.get(), ACCESS_LIST_SIZE);
    if (size >= 0)
        return fsetxattr(to, ACCESS_LIST, list.get(), static_cast<size_t>(size), 0) == 0;
    if (errno != ENODATA && errno != EOPNOTSUPP)
        return false;
    // The directory may have given the new file one.
    return fremovexattr(to, ACCESS_LIST) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
}

// The new file's owner, access list and mode are the old one's, or the change is refused: the
// file might become unreadable to those who read the old one, or readable to others.
bool inherit(int descriptor, int source, const struct stat *old) {
    struct stat made;
    if (fstat(descriptor, &made) != 0)
        return false;
    if ((made.st_uid != old->st_uid || made.st_gid != old->st_gid) &&
        fchown(descriptor, old->st_uid, old->st_gid) != 0)
        return false;
    return copyAccessList(source, descriptor) && fchmod(descriptor, old->st_mode & 07777U) == 0;
}

} // namespace

// ---- writing --------------------------------------------------------------------------------

struct StoreOutput {
    int descriptor;
    char *buffer; // what is not written yet
    size_t used;
    size_t total;
    bool failed; // a write failed
};

namespace {

void flush(StoreOutput *out) {
    size_t written = 0;
    while (!out->failed && written < out->used) {
        const ssize_t count = write(out->descriptor, out->buffer + written, out->used - written);
        if (count > 0)
            written += static_cast<size_t>(count);
        else if (count == 0 || errno != EINTR)
            out->failed = true;
    }
    out->used = 0;
}

} // namespace

void storePut(StoreOutput *out, const char *text, size_t size) {
    if (!out->failed && size > STORE_FILE_MAX - out->total) {
        out->failed = true;
        errno = EFBIG;
    }
    out->total += out->failed ? 0 : size;
    while (size > 0 && !out->failed) {
        size_t part = WRITE_BUFFER_SIZE - out->used;
        if (part > size)
            part = size;
        memcpy(out->buffer + out->used, text, part);
        out->used += part;
        text += part;
        size -= part;
        if (out->used == WRITE_BUFFER_SIZE)
            flush(out);
    }
}

// ---- a rewrite from begin to end --------------------------------------------------------------

namespace {

struct Rewrite {
    const char *path;
    const StoreRewriting *how;
    long end; // of all waiting
    Temporary temporary;
    int source; // the file, or -1 when there is none
    struct stat old;
    StoreSource content;
    bool failedWriting; // then the temporary file stays behind
};

void endSource(Rewrite *rewrite) {
    if (rewrite->source >= 0)
        close(rewrite->source);
    rewrite->source = -1;
    free(rewrite->content.bytes);
    rewrite->content = {};
}

// Opens the file as it is now. One that is away is waited for: shortly when it may be a new
// one, longer when it was there before, and then it is not begun anew.
uint32_t openSource(Rewrite *rewrite) {
    const StoreMissing missing = rewrite->how->missing;
    const bool isKnown =
        missing == STORE_REFUSE_MISSING || (missing == STORE_MAKE_UNKNOWN && storeWasRead(rewrite->path));
    const long end = monotonicMilliseconds() + (isKnown ? AWAY_MS : MISSING_MS);
    while ((rewrite->source = storeOpenForReading(rewrite->path)) < 0) {
        if (errno == ENOMEM)
            return STORE_NO_MEMORY;
        if (errno != ENOENT)
            return ZOLTLOG_STORE_NOT_WRITTEN;
        if (monotonicMilliseconds() > end)
            return isKnown ? static_cast<uint32_t>(ZOLTLOG_STORE_NOT_WRITTEN)
                           : static_cast<uint32_t>(ZOLTLOG_STORE_OK);
        pauseShortly();
    }
    return ZOLTLOG_STORE_OK;
}

uint32_t readSource(Rewrite *rewrite) {
    uint32_t result = openSource(rewrite);
    if (result != ZOLTLOG_STORE_OK || rewrite->source < 0)
        return result;
    if (fstat(rewrite->source, &rewrite->old) != 0)
        return ZOLTLOG_STORE_NOT_WRITTEN;
    rewrite->content.exists = true;
    result = storeReadWhole(rewrite->source, &rewrite->content.bytes, &rewrite->content.size);
    return result == STORE_UNREADABLE ? static_cast<uint32_t>(ZOLTLOG_STORE_NOT_WRITTEN) : result;
}

// Writes the new content; the file is empty before.
uint32_t writeContent(Rewrite *rewrite) {
    const LogOwned<char> buffer(static_cast<char *>(zoltLogMalloc(WRITE_BUFFER_SIZE)));
    if (buffer == nullptr)
        return STORE_NO_MEMORY;
    StoreOutput out = {rewrite->temporary.descriptor, buffer.get(), 0, 0, false};
    const uint32_t result = rewrite->how->make(&rewrite->content, &out, rewrite->how->context);
    if (result != ZOLTLOG_STORE_OK)
        return result;
    flush(&out);
    const int descriptor = rewrite->temporary.descriptor;
    const bool synced = !out.failed && (fsync(descriptor) == 0 || errno == EINVAL); // not a disk
    rewrite->failedWriting = !synced;
    return synced ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
}

uint32_t giveAttributes(const Rewrite *rewrite) {
    if (!rewrite->content.exists)
        return rewrite->temporary.isForNew ? static_cast<uint32_t>(ZOLTLOG_STORE_OK)
                                           : STORE_CHANGED; // it went meanwhile
    if (inherit(rewrite->temporary.descriptor, rewrite->source, &rewrite->old))
        return ZOLTLOG_STORE_OK;
    return errno == ENOMEM ? STORE_NO_MEMORY : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_CREATED);
}

// The file under the name is still the one that was read.
bool isCurrent(const Rewrite *rewrite) {
    struct stat now;
    if (stat(rewrite->path, &now) != 0)
        return !rewrite->content.exists && errno == ENOENT;
    return rewrite->content.exists && isUntouched(&rewrite->old, &now);
}

// A name that somebody has taken meanwhile is not taken from him.
bool nameNewFile(const Rewrite *rewrite) {
    if (link(rewrite->temporary.path, rewrite->path) == 0) {
        (void)unlink(rewrite->temporary.path);
        return true;
    }
    return errno != EEXIST && rename(rewrite->temporary.path, rewrite->path) == 0;
}

// Gives the new file the name. STORE_CHANGED when the old one is no longer what was read.
uint32_t takeName(Rewrite *rewrite) {
    if (!hasItsName(&rewrite->temporary) || !isCurrent(rewrite))
        return STORE_CHANGED;
    if (rewrite->content.exists ? rename(rewrite->temporary.path, rewrite->path) == 0 : nameNewFile(rewrite))
        return ZOLTLOG_STORE_OK;
    return errno == EEXIST ? STORE_CHANGED : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_WRITTEN);
}

uint32_t publish(Rewrite *rewrite) {
    if (rewrite->how->tag == nullptr)
        return takeName(rewrite);
    const GlobalLock lock(rewrite->how->tag);
    return takeName(rewrite);
}

// That the name outlasts a loss of power cannot be promised when this fails, which is no
// reason to call the change a failure.
void syncDirectory(const char *path) {
    const char *slash = strrchr(path, '/');
    const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - path);
    char directory[sizeof(PropertyStore::path)] = ".";
    if (length >= sizeof directory)
        return;
    if (slash != nullptr) {
        memcpy(directory, path, length);
        directory[length] = '\0';
    }
    if (slash == path)
        memcpy(directory, "/", 2);
    const int descriptor = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    (void)fsync(descriptor);
    close(descriptor);
}

uint32_t removeFile(Rewrite *rewrite) {
    if (!isCurrent(rewrite))
        return STORE_CHANGED;
    storeForget(rewrite->path);
    return zoltLogOs_remove(rewrite->path) == 0 ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_WRITTEN;
}

uint32_t rewriteOnce(Rewrite *rewrite) {
    uint32_t result = readSource(rewrite);
    if (result == ZOLTLOG_STORE_OK)
        result = giveAttributes(rewrite);
    if (result == ZOLTLOG_STORE_OK)
        result = writeContent(rewrite);
    if (result == ZOLTLOG_STORE_OK)
        result = publish(rewrite);
    else if (result == STORE_REMOVE_FILE)
        result = removeFile(rewrite);
    const int cause = errno;
    endSource(rewrite);
    errno = cause;
    return result;
}

} // namespace

uint32_t storeRewrite(const char *path, const StoreRewriting *how) {
    const CancellationOff off;
    Rewrite rewrite = {};
    rewrite.path = path;
    rewrite.how = how;
    rewrite.source = -1;
    rewrite.end = monotonicMilliseconds() + WAIT_MS;
    uint32_t result = STORE_CHANGED;
    while (result == STORE_CHANGED && monotonicMilliseconds() <= rewrite.end) {
        result = takeTemporary(path, rewrite.end, &rewrite.temporary);
        if (result != ZOLTLOG_STORE_OK)
            return result;
        result = rewriteOnce(&rewrite);
        const int cause = result == STORE_CHANGED ? EAGAIN : errno;
        if (result == ZOLTLOG_STORE_OK) {
            if (hasItsName(&rewrite.temporary)) // the file itself went
                (void)unlink(rewrite.temporary.path);
            syncDirectory(path);
            closeTemporary(&rewrite.temporary);
        } else if (rewrite.failedWriting) {
            closeTemporary(&rewrite.temporary);
        } else {
            dropTemporary(&rewrite.temporary);
        }
        errno = cause;
    }
    return result == STORE_UNCHANGED ? static_cast<uint32_t>(ZOLTLOG_STORE_OK) : result;
}

// ---- making files -------------------------------------------------------------------------------

uint32_t storeMakeAnew(const char *path, const char *content) {
    const CancellationOff off;
    Temporary temporary;
    uint32_t result = takeTemporary(path, monotonicMilliseconds() + WAIT_MS, &temporary);
    if (result != ZOLTLOG_STORE_OK)
        return result;
    int descriptor = openRegular(AT_FDCWD, path, O_WRONLY | O_TRUNC);
    if (descriptor < 0 && errno == ENOENT)
        descriptor =
            open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, NEW_FILE_MODE);
    if (descriptor >= 0)
        descriptor = aboveStdio(descriptor);
    if (descriptor < 0) {
        dropTemporary(&temporary);
        return ZOLTLOG_STORE_NOT_CREATED;
    }
    const LogOwned<char> buffer(static_cast<char *>(zoltLogMalloc(WRITE_BUFFER_SIZE)));
    StoreOutput out = {descriptor, buffer.get(), 0, 0, buffer == nullptr};
    storePut(&out, content, strlen(content));
    flush(&out);
    const bool synced = !out.failed && (fsync(descriptor) == 0 || errno == EINVAL);
    const bool closed = close(descriptor) == 0;
    dropTemporary(&temporary);
    return synced && closed ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_CREATED;
}

uint32_t utiCreateTmpPropertyStoreFile(const char *path, const char *root, PropertyStore *store) {
    const CancellationOff off;
    if (path == nullptr || root == nullptr || store == nullptr)
        return ZOLTLOG_STORE_INVALID_ARGUMENT;
    char temporary[sizeof store->path];
    if (!temporaryPath(path, temporary))
        return ZOLTLOG_STORE_NOT_CREATED;
    store->stream = nullptr;
    const size_t rootLength = strnlen(root, sizeof store->root - 1); // the arguments may be the handle's own
    memmove(store->root, root, rootLength);
    store->root[rootLength] = '\0';
    const int source = storeOpenForReading(path);
    struct stat old = {};
    const bool isThere = source >= 0 && fstat(source, &old) == 0;
    (void)unlink(temporary); // a stale or planted one; the open tells what remains
    int descriptor = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          isThere ? old.st_mode & 0777U : NEW_FILE_MODE);
    if (descriptor >= 0)
        descriptor = aboveStdio(descriptor);
    if (descriptor >= 0 && (!isThere || inherit(descriptor, source, &old)))
        store->stream = fdopen(descriptor, "w");
    if (descriptor >= 0 && store->stream == nullptr) {
        close(descriptor);
        (void)unlink(temporary);
    }
    if (source >= 0)
        close(source);
    memcpy(store->path, temporary, strlen(temporary) + 1);
    return store->stream != nullptr ? ZOLTLOG_STORE_OK : ZOLTLOG_STORE_NOT_CREATED;
}
