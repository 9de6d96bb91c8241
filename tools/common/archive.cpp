// SPDX-License-Identifier: Apache-2.0
#include "common/archive.h"

#include "common/files.h"
#include "common/unpack.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef QDUL_WITH_ARCHIVES
#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>
#endif

namespace tools {

std::string_view archiveSuffix(std::string_view name) {
    for (const std::string_view suffix : {".tar.zst", ".tar.gz", ".tar"}) {
        if (name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix)
            return suffix;
    }
    return "";
}

#ifdef QDUL_WITH_ARCHIVES

namespace {

constexpr size_t BLOCK = 256UL * 1024;
constexpr mode_t MEMBER_MODE = 0640;
constexpr uint64_t MOST_MEMBERS = 1000000; // that are looked at

struct ArchiveFree {
    void operator()(archive *handle) const { archive_free(handle); }
};
using Handle = std::unique_ptr<archive, ArchiveFree>;

struct EntryFree {
    void operator()(archive_entry *entry) const { archive_entry_free(entry); }
};

struct Digest {
    Digest() : context(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context, EVP_sha256(), nullptr); }
    ~Digest() { EVP_MD_CTX_free(context); }
    Digest(const Digest &) = delete;
    Digest &operator=(const Digest &) = delete;

    void add(const char *bytes, size_t length) { EVP_DigestUpdate(context, bytes, length); }
    std::string hex() {
        unsigned char sum[EVP_MAX_MD_SIZE];
        unsigned length = 0;
        EVP_DigestFinal_ex(context, sum, &length);
        constexpr char DIGITS[] = "0123456789abcdef";
        std::string text;
        for (unsigned i = 0; i < length; ++i) {
            text += DIGITS[sum[i] >> 4];
            text += DIGITS[sum[i] & 15];
        }
        return text;
    }

    EVP_MD_CTX *const context;
};

} // namespace

std::string sha256(std::string_view bytes) {
    Digest digest;
    digest.add(bytes.data(), bytes.size());
    return digest.hex();
}

struct ArchiveWriter::State {
    Handle handle;
    std::string path;
    std::string temporary;
    int descriptor = -1;
    std::string sums;
    std::string block = std::string(BLOCK, '\0');
};

ArchiveWriter::ArchiveWriter() : state(std::make_unique<State>()) {}

ArchiveWriter::~ArchiveWriter() {
    if (state->descriptor >= 0) {
        ::close(state->descriptor);
        unlink(state->temporary.c_str());
    }
}

bool ArchiveWriter::open(const std::string &path) {
    state->path = path;
    state->temporary = path + ".part";
    state->descriptor =
        ::open(state->temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (state->descriptor < 0) {
        problem = state->temporary + ": " + std::strerror(errno);
        return false;
    }
    state->handle.reset(archive_write_new());
    archive *const to = state->handle.get();
    const std::string_view suffix = archiveSuffix(path);
    if ((suffix == ".tar.zst" && archive_write_add_filter_zstd(to) != ARCHIVE_OK) ||
        (suffix == ".tar.gz" && archive_write_add_filter_gzip(to) != ARCHIVE_OK) ||
        archive_write_set_format_pax_restricted(to) != ARCHIVE_OK ||
        archive_write_open_fd(to, state->descriptor) != ARCHIVE_OK) {
        problem = path + ": " + archive_error_string(to);
        return false;
    }
    return true;
}

namespace {

bool writeHeader(archive *to, const std::string &name, uint64_t size, int64_t modified) {
    const std::unique_ptr<archive_entry, EntryFree> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), static_cast<int64_t>(size));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), MEMBER_MODE);
    archive_entry_set_mtime(entry.get(), modified / 1000, 0);
    return archive_write_header(to, entry.get()) == ARCHIVE_OK;
}

} // namespace

bool ArchiveWriter::add(const std::string &name, int descriptor, uint64_t size, int64_t modified) {
    archive *const to = state->handle.get();
    bool written = writeHeader(to, name, size, modified);
    Digest digest;
    for (uint64_t at = 0; written && at < size;) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(BLOCK, size - at));
        const ssize_t got = pread(descriptor, state->block.data(), wanted, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            problem = name + ": " + (got < 0 ? std::strerror(errno) : "the file became shorter");
            return false;
        }
        digest.add(state->block.data(), static_cast<size_t>(got));
        written = archive_write_data(to, state->block.data(), static_cast<size_t>(got)) == got;
        at += static_cast<uint64_t>(got);
    }
    if (!written) {
        problem = state->path + ": " + archive_error_string(to);
        return false;
    }
    state->sums += digest.hex() + "  " + name + "\n";
    ++members;
    return true;
}

bool ArchiveWriter::addText(const std::string &name, std::string_view text, int64_t modified) {
    archive *const to = state->handle.get();
    if (!writeHeader(to, name, text.size(), modified) ||
        archive_write_data(to, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        problem = state->path + ": " + archive_error_string(to);
        return false;
    }
    Digest digest;
    digest.add(text.data(), text.size());
    state->sums += digest.hex() + "  " + name + "\n";
    ++members;
    return true;
}

bool ArchiveWriter::close(int64_t modified) {
    const std::string sums = state->sums; // addText adds its own
    if (!addText("SHA256SUMS", sums, modified))
        return false;
    if (archive_write_close(state->handle.get()) != ARCHIVE_OK) {
        problem = state->path + ": " + archive_error_string(state->handle.get());
        return false;
    }
    if (fsync(state->descriptor) != 0 || rename(state->temporary.c_str(), state->path.c_str()) != 0) {
        problem = state->path + ": " + std::strerror(errno);
        return false;
    }
    ::close(state->descriptor);
    state->descriptor = -1;
    return true;
}

// ---- unpacking -----------------------------------------------------------------------

namespace {

// An archive that is compressed, unpacked within the bounds of all compressed files.
struct PackedInput {
    Unpacker unpacker;
    uint64_t at = 0;
    std::string block = std::string(BLOCK, '\0');
};

la_ssize_t readPacked(archive *, void *of, const void **bytes) {
    PackedInput &input = *static_cast<PackedInput *>(of);
    const int64_t got = input.unpacker.readAt(input.at, input.block.data(), input.block.size());
    if (got > 0)
        input.at += static_cast<uint64_t>(got);
    *bytes = input.block.data();
    return static_cast<la_ssize_t>(got);
}

// What holes of an archive that is not compressed may stand for.
struct PlainInput {
    uint64_t onDisk = 0; // bytes of the file; 0: not known
    uint64_t taken = 0;  // bytes of its members

    bool isTooMuch() const { return onDisk != 0 && isUnpackedTooFar(onDisk, taken); }
};

// The data of the member that was read last; zeros become holes. An archive's result.
int takeMember(archive *from, archive_entry *entry, PlainInput &plain, int into) {
    const void *data = nullptr;
    size_t size = 0;
    la_int64_t at = 0;
    int result = ARCHIVE_OK;
    uint64_t end =
        archive_entry_size_is_set(entry) != 0 ? static_cast<uint64_t>(archive_entry_size(entry)) : 0;
    while ((result = archive_read_data_block(from, &data, &size, &at)) == ARCHIVE_OK) {
        const std::string_view block{static_cast<const char *>(data), size};
        end = std::max(end, static_cast<uint64_t>(at) + size);
        plain.taken += size;
        if (plain.isTooMuch()) {
            archive_set_error(from, EFBIG,
                              "the file unpacks to more than 512 MB and 256 times its size on disk");
            return ARCHIVE_FATAL;
        }
        if (block.find_first_not_of('\0') != std::string_view::npos &&
            (lseek(into, static_cast<off_t>(at), SEEK_SET) < 0 || !writeAll(into, block))) {
            archive_set_error(from, errno, "it cannot be unpacked: %s", std::strerror(errno));
            return ARCHIVE_FATAL;
        }
    }
    if (result != ARCHIVE_EOF)
        return result;
    if (ftruncate(into, static_cast<off_t>(end)) == 0)
        return ARCHIVE_OK;
    archive_set_error(from, errno, "it cannot be unpacked: %s", std::strerror(errno));
    return ARCHIVE_FATAL;
}

} // namespace

bool unpackArchive(const std::string &path, bool (*wanted)(std::string_view name),
                   std::vector<ArchiveMember> &members, std::string &problem) {
    const int descriptor = openToRead(path);
    char start[Unpacker::LONGEST_MAGIC];
    ssize_t have = -1;
    struct stat status {};
    if (descriptor >= 0 && fstat(descriptor, &status) == 0)
        have = pread(descriptor, start, sizeof start, 0);
    if (have < 0) {
        problem = path + ": " + std::strerror(errno);
        if (descriptor >= 0)
            ::close(descriptor);
        return false;
    }
    bool fewer = false;
    const Unpacker::Format format = Unpacker::formatOf({start, static_cast<size_t>(have)}, fewer);
    std::unique_ptr<PackedInput> packed;
    PlainInput plain;
    const Handle handle(archive_read_new());
    archive *const from = handle.get();
    archive_read_support_format_tar(from);
    int result = ARCHIVE_OK;
    if (format != Unpacker::Format::None) {
        packed.reset(new PackedInput{{descriptor, true, format, ""}});
        result = archive_read_open(from, packed.get(), nullptr, readPacked, nullptr);
    } else {
        plain.onDisk = static_cast<uint64_t>(status.st_blocks) * 512;
        result = archive_read_open_fd(from, descriptor, BLOCK);
    }
    archive_entry *entry = nullptr;
    uint64_t met = 0;
    while (result == ARCHIVE_OK && (result = archive_read_next_header(from, &entry)) == ARCHIVE_OK) {
        if (++met > MOST_MEMBERS) {
            problem = path + ": it has more than " + std::to_string(MOST_MEMBERS) + " members";
            break;
        }
        const char *name = archive_entry_pathname(entry);
        if (name == nullptr || archive_entry_filetype(entry) != AE_IFREG || !wanted(name))
            continue;
        ArchiveMember member{name, openTemporary()};
        if (member.descriptor < 0) {
            problem = path + ": it cannot be unpacked: " + std::strerror(errno);
            break;
        }
        members.push_back(member);
        result = takeMember(from, entry, plain, member.descriptor);
    }
    if (packed != nullptr && !packed->unpacker.problem.empty()) // whose end tells less
        problem = path + ": " + packed->unpacker.problem;
    if (problem.empty() && result != ARCHIVE_EOF)
        problem = path + ": " + (archive_error_string(from) != nullptr ? archive_error_string(from) : "cut");
    ::close(descriptor);
    return problem.empty();
}

#else

std::string sha256(std::string_view) {
    return "";
}

struct ArchiveWriter::State {};
ArchiveWriter::ArchiveWriter() = default;
ArchiveWriter::~ArchiveWriter() = default;

bool ArchiveWriter::open(const std::string &) {
    problem = "this build does not write archives";
    return false;
}
bool ArchiveWriter::add(const std::string &, int, uint64_t, int64_t) {
    return false;
}
bool ArchiveWriter::addText(const std::string &, std::string_view, int64_t) {
    return false;
}
bool ArchiveWriter::close(int64_t) {
    return false;
}

bool unpackArchive(const std::string &path, bool (*)(std::string_view), std::vector<ArchiveMember> &,
                   std::string &problem) {
    problem = path + ": this build does not read archives";
    return false;
}

#endif

} // namespace tools
