// Files, directories, host and process identity: what other units use besides the
// exported operations.
#pragma once

#include "owned.h"
#include "zoltlog.h"

// Results of this layer.
enum : int32_t {
    OS_OK = 0,
    OS_FAILED = -1,           // a system call failed
    OS_INVALID_ARGUMENT = -3, // null pointer
    OS_OPEN_FAILED = -6,      // for any other reason, also: not a file
    OS_OPEN_DENIED = -7,
    OS_OPEN_NO_PATH = -8
};

// How a file is opened. zoltLogOs_open offers the first three by number.
enum OpenMode : int32_t {
    OPEN_APPEND = 0,   // for writing at the end; created if missing
    OPEN_READ = 1,     //
    OPEN_TRUNCATE = 2, // for writing, emptied; created if missing
    OPEN_NEW = 3       // for writing, created; OS_OPEN_FAILED with EEXIST if the name is taken
};

// Opens a regular file or character device and nothing else, without ever blocking.
// A file that the call creates has exactly the given permissions, whatever the
// process's umask; one that existed keeps its own. For writing, a symbolic link as
// the last component is not followed. The descriptor is above 2 and close-on-exec.
// On failure *descriptor is -1, errno tells more and the result is OS_OPEN_...
int32_t openDescriptor(const char *path, OpenMode mode, uint32_t permissions, int *descriptor);

// Moves a descriptor out of the way of standard input, output and error, keeping it
// close-on-exec. Returns the one to use, or -1 with errno set and the old one closed.
int aboveStdio(int descriptor);

// The one place where an open's errno becomes a result of this layer.
int32_t openResultOfErrno(int error);

// Directory and name as one path, null when out of memory. The directory is used as it
// stands: whoever lists a directory gives it with its final '/'.
LogOwned<char> joinedPath(const char *directory, const char *name);

// The path of a cursor's current file; null also when it has none.
LogOwned<char> currentPath(const OsLogFileCursor *cursor);
