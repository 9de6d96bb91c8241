// SPDX-License-Identifier: Apache-2.0
// Compressed copies of files (Zstandard).
#pragma once

#include <string>

namespace qdlogmgr {

constexpr const char *PACKED_SUFFIX = ".zst";

// Makes `to` with what the file holds now, compressed, and the file's access; it must not be
// there. A copy that fails leaves nothing behind. False with the reason.
bool packFile(const std::string &from, const std::string &to, std::string &error);

// Whether the compressed copy holds the file's bytes; brings it to the disk.
bool isSamePacked(const std::string &file, const std::string &copy, std::string &error);

} // namespace qdlogmgr
