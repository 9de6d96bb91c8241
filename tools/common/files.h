// SPDX-License-Identifier: Apache-2.0
// Opening the files that a tool is told to read or to replace, and bringing bytes to the disk.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace tools {

// A descriptor that is closed on exec, or -1 with errno. Only a regular file is opened, or a
// symbolic link to one, and nothing else at all: EISDIR for a directory, EINVAL for any other
// kind of node. flags may be O_NOFOLLOW. The status is told where it is wanted.
int openToRead(const std::string &path, int flags = 0, struct stat *status = nullptr);

// A descriptor for writing on a new file of that mode, less the umask, or with `replace` on a
// regular file that is there and is emptied. Nothing else that is there is opened: refused as
// above, a symbolic link with ELOOP; without `replace` all with EEXIST.
int openAnew(const std::string &path, mode_t mode, bool replace);

// Gives a path to what a descriptor has open, for openToRead; it keeps the descriptor.
void nameDescriptor(const std::string &path, int descriptor);

// Reads a file whole. False with errno: also EFBIG when it is larger than limit.
bool readWhole(const std::string &path, size_t limit, std::string &bytes);

// Writes all of the bytes; false with errno.
bool writeAll(int descriptor, std::string_view bytes);

// Brings the names in a directory to the disk; false with errno.
bool syncDirectory(const std::string &directory);

// An unnamed temporary file; -1 with errno.
int openTemporary();
std::string temporaryDirectory(); // that it is in: TMPDIR, else /var/tmp

} // namespace tools
