// SPDX-License-Identifier: Apache-2.0
// Copies of files, and whether they are the same: the holes of sparse files are kept, and
// not read.
#pragma once

#include <string>

namespace qdlogmgr {

// Makes `to` with what the file holds now, for its owner and group to read and write.
// Without `replace` it must not be there. A copy that fails leaves nothing behind, unless it
// replaces a file. False with the reason.
bool copyFile(const std::string &from, const std::string &to, bool replace, std::string &error);

// Whether the copy holds the file's bytes; brings it to the disk. A file that is being
// written may have grown since it was copied.
bool isSame(const std::string &file, const std::string &copy, bool mayHaveGrown, std::string &error);

} // namespace qdlogmgr
