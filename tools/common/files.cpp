// SPDX-License-Identifier: Apache-2.0
#include "common/files.h"

#include "src/regular_file.h"

#include <cstdint>
#include <cstdlib>
#include <map>

namespace tools {

namespace {

std::map<std::string, int> &namedDescriptors() {
    static std::map<std::string, int> named;
    return named;
}

// The open directory of this process's descriptors, for openRegular; -1 when there is none.
int ownDescriptors() {
    static pid_t owner = 0; // a forked child has others
    static int directory = -1;
    if (owner != getpid()) {
        owner = getpid();
        directory = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    return directory;
}

int openTold(const std::string &path, int flags, struct stat *status = nullptr) {
    const int descriptor = openRegular(AT_FDCWD, path.c_str(), flags, status, ownDescriptors());
    if (descriptor == -1 && errno == ENXIO)
        errno = EINVAL; // which is told in words that fit
    return descriptor;
}

} // namespace

void nameDescriptor(const std::string &path, int descriptor) {
    namedDescriptors()[path] = descriptor;
}

int openToRead(const std::string &path, int flags, struct stat *status) {
    const auto &named = namedDescriptors();
    const auto found = named.empty() ? named.end() : named.find(path);
    if (found == named.end())
        return openTold(path, O_RDONLY | flags, status);
    if (status != nullptr && fstat(found->second, status) != 0)
        return -1;
    // Another opening, with a place of its own
    return open(("/proc/self/fd/" + std::to_string(found->second)).c_str(), O_RDONLY | O_CLOEXEC);
}

int openAnew(const std::string &path, mode_t mode, bool replace) {
    const int made = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (made >= 0 || errno != EEXIST || !replace)
        return made;
    const int there = openTold(path, O_WRONLY | O_NOFOLLOW);
    if (there >= 0 && ftruncate(there, 0) != 0) {
        closeKeepingErrno(there);
        return -1;
    }
    return there;
}

bool readWhole(const std::string &path, size_t limit, std::string &bytes) {
    const int descriptor = openToRead(path);
    struct stat status {};
    if (descriptor < 0)
        return false;
    if (fstat(descriptor, &status) == 0 && static_cast<uint64_t>(status.st_size) > limit) {
        close(descriptor);
        errno = EFBIG;
        return false;
    }
    constexpr size_t BLOCK = 65536;
    bytes.clear();
    ssize_t got = 1;
    while (got > 0 && bytes.size() <= limit) {
        const size_t before = bytes.size();
        bytes.resize(before + BLOCK);
        do
            got = read(descriptor, bytes.data() + before, BLOCK);
        while (got < 0 && errno == EINTR);
        bytes.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    }
    closeKeepingErrno(descriptor);
    if (got < 0)
        return false;
    if (bytes.size() <= limit)
        return true;
    errno = EFBIG;
    return false;
}

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t put = write(descriptor, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

bool syncDirectory(const std::string &directory) {
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    const bool synced = fsync(descriptor) == 0;
    closeKeepingErrno(descriptor);
    return synced;
}

std::string temporaryDirectory() {
    const char *chosen = secure_getenv("TMPDIR");
    return chosen != nullptr && chosen[0] != '\0' ? chosen : "/var/tmp";
}

int openTemporary() {
    const std::string directory = temporaryDirectory();
    const int unnamed = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (unnamed >= 0)
        return unnamed;
    std::string name = directory + "/qdlogXXXXXX"; // where the file system knows no such files
    const int named = mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0)
        unlink(name.c_str());
    return named;
}

} // namespace tools
