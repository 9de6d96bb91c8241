// SPDX-License-Identifier: Apache-2.0
// Files, directories, host and process identity: what other units use besides the
// exported operations.
#pragma once

#include "owned.h"
#include "zoltlog.h"

#include <cerrno>
#include <unistd.h>

// How openDescriptor opens a file: ZOLTLOG_OS_MODE_..., or for writing, created;
// ZOLTLOG_OS_OPEN_FAILED with EEXIST if the name is taken.
inline constexpr int32_t OS_MODE_NEW = 3;
// For writing at the end of a file that exists, and for reading if that is allowed.
inline constexpr int32_t OS_MODE_RESUME = 4;

// Opens a regular file, or for writing (but not OS_MODE_RESUME) a character device, and
// nothing else, without ever blocking.
// A file that the call creates has exactly the given permissions, whatever the
// process's umask; one that existed keeps its own. For writing, a symbolic link as
// the last component is not followed. The descriptor is above 2 and close-on-exec.
// On failure *descriptor is -1, errno tells more and the result is ZOLTLOG_OS_OPEN_...
int32_t openDescriptor(const char *path, int32_t mode, uint32_t permissions, int *descriptor);

// Moves a descriptor out of the way of standard input, output and error, keeping it
// close-on-exec. Returns the one to use, or -1 with errno set and the old one closed.
int aboveStdio(int descriptor);

// Whether an exported name leads to an object of that size. A program that defines such a
// name itself takes the library's place, and what it has there may be anything.
bool hasSize(const void *object, size_t size);

// A write of this process has failed because the device was full. (errorCode says so to
// others; it may be the host's.)
bool wasDeviceFull();
void noteFullDevice();

// zoltLogOs_write of at most INT32_MAX bytes, for the way of a message: a function less to
// return through, see docs/performance.md.
inline int32_t writeOnce(const OsFile *file, const void *buffer, size_t length) {
    const ssize_t count = write(file->descriptor, buffer, length);
    // KEPT: nothing ever takes the mark back, so a later failure of another kind is told
    // as a full device too. Pinned by OsFileHandle.DeviceFullMarkStaysForTheProcess.
    if (count == -1 && errno == ENOSPC)
        noteFullDevice();
    return static_cast<int32_t>(count);
}

// The one place where an open's errno becomes a result of this layer.
int32_t openResultOfErrno(int error);

// The path of a cursor's current file; null also when it has none.
LogOwned<char> currentPath(const OsLogFileCursor *cursor);
