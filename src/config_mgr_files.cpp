// SPDX-License-Identifier: Apache-2.0
// Management of log files: copying, linking and deleting one.
#include "config_mgr.h"

#include "cancellation.h"
#include "os.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int32_t COPY_BLOCK = 1022; // bytes

} // namespace

// Both ends of a copy, on the heap for their buffers' size, closed and freed whatever way
// the copy ends.
struct CopyEnds {
    OsFile from;
    OsFile to;
};
struct CopyEndsFree {
    void operator()(CopyEnds *ends) const {
        zoltLogOs_close(&ends->from);
        zoltLogOs_close(&ends->to);
        zoltLogFree(ends);
    }
};

namespace {

// Whether a path leads to the file that is open.
bool isSameFile(const OsFile &file, const char *path) {
    struct stat open;
    struct stat named;
    return fstat(file.descriptor, &open) == 0 && stat(path, &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

uint32_t copyBytes(CopyEnds *ends, uint64_t remaining) {
    char block[COPY_BLOCK];
    while (remaining > 0) {
        const int32_t length = remaining < sizeof block ? static_cast<int32_t>(remaining) : COPY_BLOCK;
        if (zoltLogOs_read(&ends->from, block, length) != length)
            return ZOLTLOG_SHORT_READ;
        // When less is taken, going on with the rest tells the reason, or succeeds.
        for (int32_t done = 0; done < length;) {
            const int32_t written = zoltLogOs_write(&ends->to, block + done, length - done);
            if (written <= 0)
                return wasDeviceFull() ? ZOLTLOG_DEVICE_FULL : ZOLTLOG_SHORT_WRITE;
            done += written;
        }
        remaining -= static_cast<uint64_t>(length);
    }
    return ZOLTLOG_OK;
}

} // namespace

uint32_t zoltLogCopyFile(const char *path, const char *directory) {
    const CancellationOff off;
    if (path == nullptr || directory == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const std::unique_ptr<CopyEnds, CopyEndsFree> ends(
        static_cast<CopyEnds *>(zoltLogMalloc(sizeof(CopyEnds))));
    if (ends == nullptr)
        return ZOLTLOG_NO_MEMORY;
    zoltLogOs_initfilehandle(&ends->from);
    zoltLogOs_initfilehandle(&ends->to);
    if (zoltLogOs_open(&ends->from, path, ZOLTLOG_OS_MODE_READ, MANAGED_FILE_PERMISSIONS) != ZOLTLOG_OS_OK)
        return ZOLTLOG_OPEN_FAILED;
    uint64_t size = 0;
    if (zoltLogOs_fsize(&ends->from, &size) != ZOLTLOG_OS_OK)
        return ZOLTLOG_SOURCE_SIZE_UNKNOWN;
    const char *last = strrchr(path, '/');
    const LogOwned<char> destination = joinedText(directory, last != nullptr ? last : path);
    if (destination == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (isSameFile(ends->from, destination.get())) // opening it would empty the source
        return ZOLTLOG_DEST_OPEN_FAILED;
    const int32_t opened =
        zoltLogOs_open(&ends->to, destination.get(), ZOLTLOG_OS_MODE_TRUNCATE, MANAGED_FILE_PERMISSIONS);
    if (opened != ZOLTLOG_OS_OK)
        return opened == ZOLTLOG_OS_OPEN_FAILED ? ZOLTLOG_OPEN_FAILED : ZOLTLOG_DEST_OPEN_FAILED;
    return copyBytes(ends.get(), size);
}

uint32_t zoltLogCopyFileEx(const char *path, const char *directory) {
    const CancellationOff off;
    if (path == nullptr || directory == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const char *last = strrchr(path, '/');
    if (last == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const LogOwned<char> destination = joinedText(directory, last);
    if (destination == nullptr)
        return ZOLTLOG_NO_MEMORY;
    return link(path, destination.get()) == 0 ? ZOLTLOG_OK : ZOLTLOG_SHORT_WRITE;
}

uint32_t zoltLogDeleteFile(const char *path) {
    const CancellationOff off;
    if (path == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (zoltLogOs_remove(path) != 0)
        printf("%s File Deletion failed\n", path);
    return ZOLTLOG_OK;
}
