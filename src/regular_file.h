// SPDX-License-Identifier: Apache-2.0
// Opening a file that anybody may have put there: nothing but a regular file is opened at
// all, since opening a terminal, a watchdog or a tape has effects of its own, and opening a
// FIFO waits. Needs the C library only.
#pragma once

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

inline int openRetrying(int directory, const char *path, int flags) {
    int descriptor;
    do
        descriptor = directory == AT_FDCWD ? open(path, flags | O_CLOEXEC)
                                           : openat(directory, path, flags | O_CLOEXEC);
    while (descriptor == -1 && errno == EINTR);
    return descriptor;
}

// Closes without losing the errno that the caller is about to report.
inline void closeKeepingErrno(int descriptor) {
    const int error = errno;
    close(descriptor);
    errno = error;
}

// What refusing something that is no regular file is told as.
inline int errorOfKind(mode_t mode) {
    if (S_ISLNK(mode)) // O_NOFOLLOW
        return ELOOP;
    return S_ISDIR(mode) ? EISDIR : ENXIO;
}

// Opens what a descriptor of O_PATH stands for. Where there is no /proc, by its name, which
// may lead elsewhere by now: then nothing is returned, but it was opened for an instant.
inline int openLookedAt(int looked, int directory, const char *path, int flags, const struct stat &status,
                        int descriptors) {
    char own[48];
    if (descriptors != -1) {
        (void)snprintf(own, sizeof own, "%d", looked);
        return openRetrying(descriptors, own, flags & ~O_NOFOLLOW);
    }
    (void)snprintf(own, sizeof own, "/proc/thread-self/fd/%d", looked);
    const int opened = openRetrying(AT_FDCWD, own, flags & ~O_NOFOLLOW);
    const bool hasNoProc =
        opened == -1 && (errno == ENOENT || errno == ENOTDIR || (errno == EACCES && access(own, F_OK) != 0));
    if (!hasNoProc)
        return opened;
    const int named = openRetrying(directory, path, flags);
    struct stat now;
    if (named == -1 ||
        (fstat(named, &now) == 0 && now.st_dev == status.st_dev && now.st_ino == status.st_ino))
        return named;
    errno = ENOENT; // what was looked at is gone
    closeKeepingErrno(named);
    return -1;
}

// Opens a regular file, or a symbolic link to one unless flags has O_NOFOLLOW; flags are an
// access mode and what goes with it, path starts at a directory's descriptor or AT_FDCWD.
// Waits for nothing. Yields a descriptor that is closed on exec, with its status where that is
// wanted, or -1 with errno. Who opens very many files gives the open directory of his own
// descriptors, the way to which is a third of what it costs.
inline int openRegular(int directory, const char *path, int flags, struct stat *found = nullptr,
                       int descriptors = -1) {
    // Looked at by a descriptor that opens nothing, so that what is opened afterwards is what
    // was looked at, whatever has become of the name.
    const int looked = openRetrying(directory, path, O_PATH | (flags & O_NOFOLLOW));
    struct stat status;
    if (looked == -1)
        return -1;
    int opened = -1;
    if (fstat(looked, &status) == 0) {
        if (S_ISREG(status.st_mode))
            opened =
                openLookedAt(looked, directory, path, flags | O_NONBLOCK | O_NOCTTY, status, descriptors);
        else
            errno = errorOfKind(status.st_mode);
    }
    closeKeepingErrno(looked);
    if (found != nullptr)
        *found = status;
    return opened;
}
