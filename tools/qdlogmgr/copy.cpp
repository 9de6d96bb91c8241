// SPDX-License-Identifier: Apache-2.0
#include "qdlogmgr/copy.h"

#include "common/files.h"
#include "qdlogmgr/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogmgr {

namespace {

constexpr size_t COPY_BLOCK = 256UL * 1024;

// The first byte at or behind a place that is in no hole; `end` when only a hole follows. A
// file system that does not know has none.
uint64_t nextData(int descriptor, uint64_t at, uint64_t end) {
    const off_t data = lseek(descriptor, static_cast<off_t>(at), SEEK_DATA);
    if (data >= 0)
        return std::min(static_cast<uint64_t>(data), end);
    return errno == ENXIO ? end : at;
}

// All of the block; false at the end of the file (errno 0) and after an error.
bool readWhole(int descriptor, uint64_t at, char *block, size_t length) {
    for (size_t have = 0; have < length;) {
        const ssize_t got = pread(descriptor, block + have, length - have, static_cast<off_t>(at + have));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            errno = got == 0 ? 0 : errno;
            return false;
        }
        have += static_cast<size_t>(got);
    }
    return true;
}

bool writeWhole(int descriptor, uint64_t at, const char *block, size_t length) {
    for (size_t done = 0; done < length;) {
        const ssize_t put = pwrite(descriptor, block + done, length - done, static_cast<off_t>(at + done));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

std::string reason() {
    return errno != 0 ? std::strerror(errno) : "the file became shorter";
}

bool copyBytes(int from, int to, uint64_t size) {
    std::string block(COPY_BLOCK, '\0');
    for (uint64_t at = nextData(from, 0, size); at < size; at = nextData(from, at, size)) {
        const auto length = static_cast<size_t>(std::min<uint64_t>(block.size(), size - at));
        if (!readWhole(from, at, block.data(), length) || !writeWhole(to, at, block.data(), length))
            return false;
        at += length;
    }
    return ftruncate(to, static_cast<off_t>(size)) == 0; // a hole at the end
}

} // namespace

bool giveAccess(int file, int copy) {
    struct stat status {};
    if (fstat(file, &status) != 0)
        return false;
    mode_t mode = status.st_mode & 0777;
    if (fchown(copy, status.st_uid, status.st_gid) != 0 &&
        fchown(copy, static_cast<uid_t>(-1), status.st_gid) != 0)
        mode &= ~mode_t{070} | ((mode & 07) << 3); // to its group, the file's others
    return fchmod(copy, mode) == 0;
}

bool copyFile(const std::string &from, const std::string &to, bool replace, std::string &error) {
    const Descriptor source(tools::openToRead(from, O_NOFOLLOW));
    struct stat status {};
    if (source.number < 0 || fstat(source.number, &status) != 0) {
        error = std::strerror(errno);
        return false;
    }
    const Descriptor copy(tools::openAnew(to, NEW_COPY_MODE, replace));
    if (copy.number < 0) {
        error = to + ": " + std::strerror(errno);
        return false;
    }
    if (giveAccess(source.number, copy.number) &&
        copyBytes(source.number, copy.number, static_cast<uint64_t>(status.st_size)))
        return true;
    error = reason();
    if (!replace)
        unlink(to.c_str());
    return false;
}

bool isSame(const std::string &file, const std::string &copy, bool mayHaveGrown, std::string &error) {
    const Descriptor a(tools::openToRead(file, O_NOFOLLOW));
    const Descriptor b(tools::openToRead(copy, O_NOFOLLOW));
    struct stat statusA {};
    struct stat statusB {};
    if (a.number < 0 || b.number < 0 || fstat(a.number, &statusA) != 0 || fstat(b.number, &statusB) != 0) {
        error = std::strerror(errno);
        return false;
    }
    bool same = statusA.st_size == statusB.st_size || (mayHaveGrown && statusA.st_size > statusB.st_size);
    const auto size = static_cast<uint64_t>(statusB.st_size);
    std::string blockA(COPY_BLOCK, '\0');
    std::string blockB(COPY_BLOCK, '\0');
    for (uint64_t at = 0; same;) {
        at = std::min(nextData(a.number, at, size), nextData(b.number, at, size));
        if (at >= size)
            break;
        const auto length = static_cast<size_t>(std::min<uint64_t>(COPY_BLOCK, size - at));
        if (!readWhole(a.number, at, blockA.data(), length) ||
            !readWhole(b.number, at, blockB.data(), length)) {
            error = reason();
            return false;
        }
        same = std::memcmp(blockA.data(), blockB.data(), length) == 0;
        at += length;
    }
    if (!same)
        error = "the copy differs from the file";
    else if (fsync(b.number) != 0)
        error = std::strerror(errno);
    else
        return true;
    return false;
}

} // namespace qdlogmgr
