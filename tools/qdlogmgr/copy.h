// SPDX-License-Identifier: Apache-2.0
// Copies of files, and whether they are the same: the holes of sparse files are kept, and
// not read.
#pragma once

#include <string>
#include <sys/types.h>

namespace qdlogmgr {

constexpr mode_t NEW_COPY_MODE = 0600; // until it has the file's

// Gives an open copy, which only its owner may read so far, the owner, the group and the
// permissions of the file. Where this user may not give these away, less: nobody gets at the
// copy who does not get at the file. False with errno.
bool giveAccess(int file, int copy);

// Makes `to` with what the file holds now, and the file's access. Without `replace` it must not
// be there. A copy that fails leaves nothing behind, unless it replaces a file. False with the
// reason.
bool copyFile(const std::string &from, const std::string &to, bool replace, std::string &error);

// Whether the copy holds the file's bytes; brings it to the disk. A file that is being
// written may have grown since it was copied.
bool isSame(const std::string &file, const std::string &copy, bool mayHaveGrown, std::string &error);

} // namespace qdlogmgr
