// SPDX-License-Identifier: Apache-2.0
// Compressed files read as what they hold: gzip (.gz) and Zstandard (.zst), told by their
// first bytes, in bounded memory. What is read in order is unpacked as it is asked for;
// going back spools the file unpacked into an unnamed temporary file (in TMPDIR, else
// /var/tmp). One that unpacks to more than 512 MB ends where that is more than 256 times what
// was read of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tools {

// ".gz" or ".zst", which a file name ends in; "" for any other. Packing a log file adds it.
std::string_view packedSuffix(std::string_view name);

// Whether what was unpacked of so many bytes is more than is read of any file.
bool isUnpackedTooFar(uint64_t packed, uint64_t unpacked);

struct Unpacker {
    static constexpr size_t LONGEST_MAGIC = 4;
    enum class Format { None, Gzip, Zstd };
    // What the first bytes of a file say; `fewer`: more bytes than are there could say more.
    static Format formatOf(std::string_view start, bool &fewer);

    // Packed bytes come from a descriptor, which stays the caller's: `start`, if any, has
    // been read from it already; then all that read() gives, or, when it is `seekable`, all
    // of the file from its begin.
    Unpacker(int descriptor, bool seekable, Format format, std::string_view start);
    ~Unpacker();
    Unpacker(const Unpacker &) = delete;
    Unpacker &operator=(const Unpacker &) = delete;

    // Unpacked bytes; fewer than asked for only at the end, and before a place that cannot
    // be unpacked. -1: nothing, because of `problem`.
    int64_t readAt(uint64_t offset, char *into, size_t length);
    // All bytes, or those that can be unpacked: `problem` tells then why there are no more.
    uint64_t size();

    std::string problem;

  private:
    struct Decoder;

    int64_t decode(char *into, size_t length);
    int64_t decodeGzip(char *into, size_t length);
    int64_t decodeZstd(char *into, size_t length);
    bool refill();
    bool restart();
    bool fail(const std::string &why);
    bool skipTo(uint64_t offset);
    bool openSpool();
    bool spoolTo(uint64_t offset);

    const int source;
    const bool seekable;
    const Format format;
    std::unique_ptr<Decoder> decoder;
    std::string head;      // the first bytes: looking at a file reads them again and again
    uint64_t decoded = 0;  // bytes that the decoder has given
    uint64_t readFrom = 0; // place in the packed file
    int spool = -1;        // holds all of the first `decoded` bytes
};

} // namespace tools
