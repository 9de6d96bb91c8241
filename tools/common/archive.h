// SPDX-License-Identifier: Apache-2.0
// Archives (tar, compressed with Zstandard) written and read member by member, in bounded
// memory: libarchive behind what the tools need of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// ".tar.zst" and the like, which the name of an archive ends in; "" for any other.
std::string_view archiveSuffix(std::string_view name);

std::string sha256(std::string_view bytes); // in hexadecimal digits

struct ArchiveWriter {
    ArchiveWriter();
    ~ArchiveWriter(); // what was not closed is removed
    ArchiveWriter(const ArchiveWriter &) = delete;
    ArchiveWriter &operator=(const ArchiveWriter &) = delete;

    // All of these: false with `problem`. The file gets its name in close(), for its owner alone
    // to read.
    bool open(const std::string &path);
    // What a descriptor's file holds from its begin, of a known size; the SHA-256 of it is kept.
    bool add(const std::string &name, int descriptor, uint64_t size, int64_t modified);
    bool addText(const std::string &name, std::string_view text, int64_t modified);
    // Ends the archive with the member SHA256SUMS, as sha256sum reads it.
    bool close(int64_t modified);

    std::string problem;
    uint64_t members = 0;

  private:
    struct State;
    std::unique_ptr<State> state;
};

// A member that was unpacked into an unnamed temporary file.
struct ArchiveMember {
    std::string name;
    int descriptor = -1; // the caller's to close
};

// Unpacks the members whose names `wanted` takes, in the bounds of unpack.h; in an archive that
// is not compressed, holes count as if they were. False with a problem; those unpacked until then
// are in the list.
bool unpackArchive(const std::string &path, bool (*wanted)(std::string_view name),
                   std::vector<ArchiveMember> &members, std::string &problem);

} // namespace tools
