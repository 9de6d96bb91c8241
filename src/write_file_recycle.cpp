// SPDX-License-Identifier: Apache-2.0
// Log recycling: what a rollover does with the files that a series no longer keeps. A file
// that another writer of this machine still writes to is left for later: see removeFile.
#include "write_file.h"

#include "os.h"
#include "regular_file.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A file that has a writer is removed all the same when nothing was written to it for so
// long: every writer looks at its file, with its mark, before it writes to one that it has
// not looked at for LOOK_EVERY_NS, which is less than half of this.
constexpr int64_t IDLE_NS = 2 * NS_PER_SECOND;
static_assert(2 * LOOK_EVERY_NS < IDLE_NS);

// The files' times are the wall clock's. When that was set, or the machine slept, they tell
// nothing for a while.
constexpr int64_t CLOCK_STEP_NS = NS_PER_SECOND / 4;
int64_t wallAhead;      // of the monotonic clock, when last compared; under the global lock
int64_t clockChangedAt; // monotonic ns; 0 before the first comparison

int64_t nanoseconds(const timespec &time) {
    return static_cast<int64_t>(time.tv_sec) * NS_PER_SECOND + time.tv_nsec;
}

int64_t wallNs() {
    timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

bool isSame(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The file being written is never surplus by age; only a clock that was set back could
// make it look old, or a configuration that keeps none.
bool isBeingWritten(const LogFileState *state, const struct stat &file) {
    struct stat own;
    return state->file.descriptor > 0 && fstat(state->file.descriptor, &own) == 0 && isSame(own, file);
}

// Nothing was written to the file for IDLE_NS, by a clock that was steady all the time.
bool isIdle(int descriptor) {
    const bool steady = compareClocks() >= IDLE_NS;
    struct stat status;
    return steady && fstat(descriptor, &status) == 0 && wallNs() - nanoseconds(status.st_mtim) >= IDLE_NS;
}

// The file may be removed now, and no writer will come upon it unawares until the
// descriptor is closed.
bool mayRemove(const LogFileState *state, const char *path, int descriptor) {
    struct stat open;
    struct stat named;
    if (fstat(descriptor, &open) != 0 || isBeingWritten(state, open))
        return false;
    const Taken marks = takeAllMarks(descriptor);
    if (marks == Taken::ByAnother) // a writer is about to look at it
        return false;
    if (lstat(path, &named) != 0 || !isSame(open, named))
        return false;
    const Taken alone = takeAlone(descriptor);
    if (alone == Taken::YES)
        return true;
    return (marks == Taken::YES || alone == Taken::NoLocks) && isIdle(descriptor);
}

// Another process that recycles may have been faster, which is nobody's failure to be told.
void removeName(const char *path) {
    if (zoltLogOs_remove(path) != 0 && errno != ENOENT)
        zoltLogDeleteFile(path); // tells it
}

// Removes a surplus file unless it is another writer's: one that has a writer stays until
// nothing was written to it for a while. What cannot be found out stays, too.
void removeFile(const LogFileState *state, const char *path) {
    // Writing is for the marks, which need it.
    int descriptor = openRegular(AT_FDCWD, path, O_RDWR | O_NOFOLLOW);
    if (descriptor == -1 && (errno == EACCES || errno == EPERM || errno == EROFS))
        descriptor = openRegular(AT_FDCWD, path, O_RDONLY | O_NOFOLLOW);
    if (descriptor == -1 && errno == ELOOP) { // a link, which no writer writes to
        removeName(path);
        return;
    }
    descriptor = aboveStdio(descriptor);
    if (descriptor == -1)
        return;
    if (mayRemove(state, path, descriptor))
        removeName(path);
    close(descriptor);
}

void freeListing(LogListing *listing) {
    LogFileEntry *entry = listing->files;
    while (entry != nullptr) {
        LogFileEntry *next = entry->next;
        zoltLogOs_close(&entry->file);
        zoltLogFree(entry);
        entry = next;
    }
    *listing = LogListing();
}

} // namespace

int64_t compareClocks() {
    const int64_t now = monotonicNs();
    const int64_t ahead = wallNs() - now;
    if (clockChangedAt == 0 || ahead - wallAhead > CLOCK_STEP_NS || wallAhead - ahead > CLOCK_STEP_NS)
        clockChangedAt = now;
    wallAhead = ahead;
    return now - clockChangedAt;
}

uint32_t recycleLogFiles(LogFileState *state) {
    if (state == nullptr || state->logRecycling == 0)
        return ZOLTLOG_OK;
    LogListing listing;
    const uint32_t result =
        state->isLogset != 0
            ? zoltLogGetManageableLogFilesSL(state->productId, state->logsetName, &listing)
            : zoltLogGetManageableLogFiles(state->productId, state->fileOriginatorId, &listing);
    if (result != ZOLTLOG_OK)
        return ZOLTLOG_OK;
    char *path = nullptr;
    while (zoltLogFetchNextFile(&listing, &path) == ZOLTLOG_OK) {
        removeFile(state, path);
        zoltLogFreeBuffer(&path);
    }
    freeListing(&listing);
    return ZOLTLOG_OK;
}
