// SPDX-License-Identifier: Apache-2.0
// Opening the files that a tool is told to read.
#pragma once

#include <cstddef>
#include <string>

namespace tools {

// A descriptor that is closed on exec, or -1 with errno. Only a regular file is opened, or a
// symbolic link to one, and nothing else at all: EISDIR for a directory, EINVAL for any other
// kind of node. flags may be O_NOFOLLOW.
int openToRead(const std::string &path, int flags = 0);

// Reads a file whole. False with errno: also EFBIG when it is larger than limit.
bool readWhole(const std::string &path, size_t limit, std::string &bytes);

} // namespace tools
