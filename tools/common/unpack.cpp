// SPDX-License-Identifier: Apache-2.0
// Sections: names and magic, packed input, gzip, Zstandard, unpacking in order, spooling.
#include "common/unpack.h"

#include "common/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#ifdef QDUL_WITH_ZLIB
#include <zlib.h>
#endif
#ifdef QDUL_WITH_ZSTD
#include <zstd.h>
#include <zstd_errors.h>
#endif

namespace tools {

// ---- names and magic -----------------------------------------------------------------

namespace {

constexpr size_t INPUT_SIZE = 64UL * 1024;
constexpr size_t HEAD_SIZE = 64UL * 1024;
constexpr size_t SPOOL_BLOCK = 256UL * 1024;
// Whoever writes a few bytes that unpack to a terabyte shall not have it read, or put on the
// disk of who looks at them. No log is packed like that but one that says the same all over.
constexpr uint64_t ALWAYS_UNPACKED = 512UL * 1024 * 1024;
constexpr uint64_t MOST_RATIO = 256; // beyond that, of what was read of the packed file
constexpr std::string_view GZIP_MAGIC = "\x1f\x8b";
constexpr std::string_view ZSTD_MAGIC = "\x28\xb5\x2f\xfd";

bool begins(std::string_view text, std::string_view with) {
    return text.substr(0, with.size()) == with;
}

bool mayBegin(std::string_view text, std::string_view with) {
    return text.size() < with.size() && begins(with, text);
}

} // namespace

std::string_view packedSuffix(std::string_view name) {
    for (const std::string_view suffix : {".gz", ".zst"}) {
        if (name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix)
            return suffix;
    }
    return "";
}

bool isUnpackedTooFar(uint64_t packed, uint64_t unpacked) {
    return unpacked > ALWAYS_UNPACKED && unpacked / MOST_RATIO > packed;
}

Unpacker::Format Unpacker::formatOf(std::string_view start, bool &fewer) {
    static_assert(ZSTD_MAGIC.size() == LONGEST_MAGIC);
    fewer = mayBegin(start, GZIP_MAGIC) || mayBegin(start, ZSTD_MAGIC);
    return begins(start, GZIP_MAGIC) ? Format::Gzip : begins(start, ZSTD_MAGIC) ? Format::Zstd : Format::None;
}

// ---- packed input --------------------------------------------------------------------

struct Unpacker::Decoder {
    std::unique_ptr<char[]> input{new char[INPUT_SIZE]};
    size_t begin = 0, end = 0; // of the input that was not unpacked yet
    uint64_t taken = 0;        // packed bytes that are or were in the input
    bool inputEnded = false;
    bool between = true; // of two members or frames
    bool failed = false, done = false;
#ifdef QDUL_WITH_ZLIB
    z_stream zlib = {};
    bool zlibReady = false;
#endif
#ifdef QDUL_WITH_ZSTD
    ZSTD_DStream *zstd = nullptr;
#endif

    Decoder() = default;
    ~Decoder() {
#ifdef QDUL_WITH_ZLIB
        if (zlibReady)
            inflateEnd(&zlib);
#endif
#ifdef QDUL_WITH_ZSTD
        ZSTD_freeDStream(zstd);
#endif
    }
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;
};

Unpacker::Unpacker(int descriptor, bool isSeekable, Format theFormat, std::string_view start)
    : source(descriptor), seekable(isSeekable), format(theFormat) {
    restart();
    decoder->end = std::min(start.size(), INPUT_SIZE);
    decoder->taken = decoder->end;
    std::memcpy(decoder->input.get(), start.data(), decoder->end);
}

Unpacker::~Unpacker() {
    if (spool >= 0)
        close(spool);
}

// The first failure is the one that is told.
bool Unpacker::fail(const std::string &why) {
    if (problem.empty())
        problem = why;
    decoder->failed = true;
    return false;
}

bool Unpacker::restart() {
    decoder = std::make_unique<Decoder>();
    decoded = 0;
    readFrom = 0;
#ifdef QDUL_WITH_ZLIB
    if (format == Format::Gzip) {
        constexpr int GZIP_WINDOW = 15 + 16;
        decoder->zlibReady = inflateInit2(&decoder->zlib, GZIP_WINDOW) == Z_OK;
        return decoder->zlibReady || fail(std::strerror(ENOMEM));
    }
#endif
#ifdef QDUL_WITH_ZSTD
    if (format == Format::Zstd) {
        constexpr int LARGEST_WINDOW = 25; // as a power of two: 32 MB
        decoder->zstd = ZSTD_createDStream();
        if (decoder->zstd == nullptr)
            return fail(std::strerror(ENOMEM));
        ZSTD_DCtx_setParameter(decoder->zstd, ZSTD_d_windowLogMax, LARGEST_WINDOW);
        return true;
    }
#endif
    return fail("this build does not read compressed files of this kind");
}

// More packed bytes behind those that are there; false when there are none.
bool Unpacker::refill() {
    Decoder &from = *decoder;
    if (from.inputEnded)
        return false;
    from.begin = 0;
    from.end = 0;
    for (;;) {
        const ssize_t got = seekable
                                ? pread(source, from.input.get(), INPUT_SIZE, static_cast<off_t>(readFrom))
                                : read(source, from.input.get(), INPUT_SIZE);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return fail(std::strerror(errno));
        from.end = static_cast<size_t>(got);
        readFrom += from.end;
        from.taken += from.end;
        from.inputEnded = got == 0;
        return got > 0;
    }
}

// ---- gzip ----------------------------------------------------------------------------

int64_t Unpacker::decodeGzip([[maybe_unused]] char *into, [[maybe_unused]] size_t length) {
#ifdef QDUL_WITH_ZLIB
    Decoder &from = *decoder;
    z_stream &stream = from.zlib;
    for (;;) {
        if (from.between) { // members follow each other; zeros may fill up the last block of a tape
            while (from.begin < from.end && from.input[from.begin] == '\0' && decoded > 0)
                ++from.begin;
            if (from.begin == from.end) {
                if (refill())
                    continue;
                from.done = !from.failed;
                return from.done ? 0 : -1;
            }
            inflateReset(&stream);
            from.between = false;
        }
        stream.next_in = reinterpret_cast<Bytef *>(from.input.get() + from.begin);
        stream.avail_in = static_cast<uInt>(from.end - from.begin);
        stream.next_out = reinterpret_cast<Bytef *>(into);
        stream.avail_out = static_cast<uInt>(length);
        const int result = inflate(&stream, Z_NO_FLUSH);
        from.begin = from.end - stream.avail_in;
        const size_t made = length - stream.avail_out;
        from.between = result == Z_STREAM_END;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            fail("the compressed file is damaged");
        if (made > 0)
            return static_cast<int64_t>(made);
        if (!from.failed && !from.between && from.begin == from.end && !refill())
            fail("the compressed file is cut");
        if (from.failed)
            return -1;
    }
#else
    return -1;
#endif
}

// ---- Zstandard -----------------------------------------------------------------------

int64_t Unpacker::decodeZstd([[maybe_unused]] char *into, [[maybe_unused]] size_t length) {
#ifdef QDUL_WITH_ZSTD
    Decoder &from = *decoder;
    for (;;) {
        ZSTD_outBuffer out = {into, length, 0};
        ZSTD_inBuffer in = {from.input.get(), from.end, from.begin};
        const bool hadInput = in.pos < in.size;
        const size_t result = hadInput || !from.between ? ZSTD_decompressStream(from.zstd, &out, &in) : 0;
        from.begin = in.pos;
        if (ZSTD_isError(result) != 0) {
            fail(ZSTD_getErrorCode(result) == ZSTD_error_frameParameter_windowTooLarge
                     ? "the compressed file needs more than 32 MB of memory"
                     : "the compressed file is damaged");
        } else if (hadInput || out.pos > 0) {
            from.between = result == 0;
        }
        if (out.pos > 0)
            return static_cast<int64_t>(out.pos);
        if (from.failed)
            return -1;
        if (from.begin == from.end && !refill()) {
            from.done = from.between && !from.failed;
            if (!from.done && !from.failed)
                fail("the compressed file is cut");
            return from.done ? 0 : -1;
        }
    }
#else
    return -1;
#endif
}

// ---- unpacking in order --------------------------------------------------------------

// The next unpacked bytes; 0 at the end, -1 after a failure.
int64_t Unpacker::decode(char *into, size_t length) {
    if (decoder->failed)
        return -1;
    if (decoder->done || length == 0)
        return 0;
    const int64_t made = format == Format::Gzip ? decodeGzip(into, length) : decodeZstd(into, length);
    if (made <= 0)
        return made;
    if (head.size() < HEAD_SIZE && decoded == head.size())
        head.append(into, std::min(static_cast<size_t>(made), HEAD_SIZE - head.size()));
    decoded += static_cast<uint64_t>(made);
    if (isUnpackedTooFar(decoder->taken - (decoder->end - decoder->begin), decoded))
        fail("the compressed file unpacks to more than 512 MB and 256 times its size");
    return made;
}

// Passes over what lies in front of `offset`; false when there is less.
bool Unpacker::skipTo(uint64_t offset) {
    std::string ignored;
    while (decoded < offset) {
        ignored.resize(static_cast<size_t>(std::min<uint64_t>(SPOOL_BLOCK, offset - decoded)));
        if (decode(ignored.data(), ignored.size()) <= 0)
            return false;
    }
    return true;
}

int64_t Unpacker::readAt(uint64_t offset, char *into, size_t length) {
    size_t have = 0;
    while (have < length) {
        const uint64_t at = offset + have;
        int64_t got = 0;
        if (at < head.size()) {
            got = static_cast<int64_t>(head.copy(into + have, length - have, static_cast<size_t>(at)));
        } else if (spool < 0 && at >= decoded) {
            got = skipTo(at) ? decode(into + have, length - have) : decoder->failed ? -1 : 0;
        } else if (!spoolTo(at + length - have) && at >= decoded) {
            got = decoder->failed ? -1 : 0;
        } else {
            const auto there = static_cast<size_t>(std::min<uint64_t>(length - have, decoded - at));
            got = pread(spool, into + have, there, static_cast<off_t>(at));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                fail(std::strerror(got < 0 ? errno : EIO));
                got = -1;
            }
        }
        if (got < 0 && have == 0)
            return -1;
        if (got <= 0)
            break;
        have += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(have);
}

uint64_t Unpacker::size() {
    spoolTo(UINT64_MAX);
    return decoded;
}

// ---- spooling ------------------------------------------------------------------------

bool Unpacker::openSpool() {
    spool = openTemporary();
    return spool >= 0 ||
           fail("it cannot be unpacked into " + temporaryDirectory() + ": " + std::strerror(errno));
}

// Unpacks up to `offset`, keeping all; false when there is less. Blocks of zeros become
// holes.
bool Unpacker::spoolTo(uint64_t offset) {
    if (spool < 0) {
        if (decoded > 0 && (!seekable || !restart()))
            return fail("what is behind cannot be read again");
        if (!openSpool())
            return false;
    }
    std::string block;
    while (decoded < offset) {
        block.resize(SPOOL_BLOCK);
        const uint64_t at = decoded;
        const int64_t made = decode(block.data(), block.size());
        if (made <= 0)
            return false;
        block.resize(static_cast<size_t>(made));
        const bool isHole = block.find_first_not_of('\0') == std::string::npos;
        const bool isWritten =
            isHole ? ftruncate(spool, static_cast<off_t>(decoded)) == 0
                   : pwrite(spool, block.data(), block.size(), static_cast<off_t>(at)) == made;
        if (!isWritten) {
            const int reason = errno != 0 ? errno : ENOSPC;
            decoded = at;
            return fail(std::string("it cannot be unpacked: ") + std::strerror(reason));
        }
    }
    return true;
}

} // namespace tools
