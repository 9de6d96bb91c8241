// SPDX-License-Identifier: Apache-2.0
// A directory in memory for inputs that are read from files, removed at the end.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace scratch {

inline void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

// The directory, with a slash behind it.
inline const std::string &directory() {
    static const std::string path = [] {
        std::string made =
            access("/dev/shm", W_OK) == 0 ? "/dev/shm/qdul-fuzz.XXXXXX" : "/tmp/qdul-fuzz.XXXXXX";
        require(mkdtemp(made.data()) != nullptr, "a directory");
        return made + "/";
    }();
    static const int removed = std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(directory(), ignored);
    });
    (void)removed;
    return path;
}

inline void writeFile(const std::string &path, const uint8_t *data, size_t size) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(file >= 0 && write(file, data, size) == static_cast<ssize_t>(size), "a file");
    close(file);
}

} // namespace scratch
