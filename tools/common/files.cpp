// SPDX-License-Identifier: Apache-2.0
#include "common/files.h"

#include "src/regular_file.h"

namespace tools {

int openToRead(const std::string &path, int flags) {
    const int descriptor = openRegular(AT_FDCWD, path.c_str(), O_RDONLY | flags);
    if (descriptor == -1 && errno == ENXIO)
        errno = EINVAL; // which is told in words that fit
    return descriptor;
}

bool readWhole(const std::string &path, size_t limit, std::string &bytes) {
    const int descriptor = openToRead(path);
    if (descriptor < 0)
        return false;
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

} // namespace tools
