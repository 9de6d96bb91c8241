// SPDX-License-Identifier: Apache-2.0
#include "qdlogmgr/pack.h"

#include "common/files.h"
#include "common/unpack.h"
#include "qdlogmgr/copy.h"
#include "qdlogmgr/descriptor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#ifdef QDUL_WITH_ZSTD
#include <zstd.h>
#endif

namespace qdlogmgr {

namespace {

constexpr size_t BLOCK = 256UL * 1024;

// The next bytes; 0 at the end, below 0 with errno.
ssize_t readSome(int descriptor, char *block, size_t length) {
    for (;;) {
        const ssize_t got = read(descriptor, block, length);
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

#ifdef QDUL_WITH_ZSTD
bool packBytes(int from, int to, std::string &error) {
    const std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx *)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
    if (context == nullptr) {
        error = std::strerror(ENOMEM);
        return false;
    }
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    std::string plain(BLOCK, '\0');
    std::string packed(ZSTD_CStreamOutSize(), '\0');
    for (;;) {
        const ssize_t got = readSome(from, plain.data(), plain.size());
        if (got < 0) {
            error = std::strerror(errno);
            return false;
        }
        const ZSTD_EndDirective how = got == 0 ? ZSTD_e_end : ZSTD_e_continue;
        ZSTD_inBuffer in = {plain.data(), static_cast<size_t>(got), 0};
        size_t left = 0;
        do {
            ZSTD_outBuffer out = {packed.data(), packed.size(), 0};
            left = ZSTD_compressStream2(context.get(), &out, &in, how);
            if (ZSTD_isError(left) != 0) {
                error = ZSTD_getErrorName(left);
                return false;
            }
            if (!tools::writeAll(to, {packed.data(), out.pos})) {
                error = std::strerror(errno);
                return false;
            }
        } while (how == ZSTD_e_end ? left != 0 : in.pos < in.size);
        if (got == 0)
            return true;
    }
}
#endif

} // namespace

#ifdef QDUL_WITH_ZSTD
bool packFile(const std::string &from, const std::string &to, std::string &error) {
    const Descriptor source(tools::openToRead(from, O_NOFOLLOW));
    if (source.number < 0) {
        error = std::strerror(errno);
        return false;
    }
    const Descriptor copy(tools::openAnew(to, NEW_COPY_MODE, false));
    if (copy.number < 0) {
        error = to + ": " + std::strerror(errno);
        return false;
    }
    if (!giveAccess(source.number, copy.number))
        error = std::strerror(errno);
    else if (packBytes(source.number, copy.number, error))
        return true;
    unlink(to.c_str());
    return false;
}
#else
bool packFile(const std::string &, const std::string &, std::string &error) {
    error = "this build does not compress files";
    return false;
}
#endif

bool isSamePacked(const std::string &file, const std::string &copy, std::string &error) {
    const Descriptor plain(tools::openToRead(file, O_NOFOLLOW));
    const Descriptor packed(tools::openToRead(copy, O_NOFOLLOW));
    if (plain.number < 0 || packed.number < 0) {
        error = std::strerror(errno);
        return false;
    }
    tools::Unpacker unpacker(packed.number, true, tools::Unpacker::Format::Zstd, "");
    std::string bytes(BLOCK, '\0');
    std::string unpacked(BLOCK, '\0');
    for (uint64_t at = 0;;) {
        const ssize_t got = readSome(plain.number, bytes.data(), bytes.size());
        if (got < 0) {
            error = std::strerror(errno);
            return false;
        }
        // At the end of the file, whether the copy has more.
        const size_t wanted = got > 0 ? static_cast<size_t>(got) : 1;
        const int64_t have = unpacker.readAt(at, unpacked.data(), wanted);
        if (have < 0 || !unpacker.problem.empty()) {
            error = unpacker.problem;
            return false;
        }
        if (have != got || std::memcmp(bytes.data(), unpacked.data(), static_cast<size_t>(got)) != 0) {
            error = "the copy differs from the file";
            return false;
        }
        if (got == 0)
            break;
        at += static_cast<uint64_t>(got);
    }
    if (fsync(packed.number) == 0)
        return true;
    error = std::strerror(errno);
    return false;
}

} // namespace qdlogmgr
