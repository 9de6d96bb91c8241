// SPDX-License-Identifier: Apache-2.0
//   Files         what is there, by its whole path
//   Descriptors   numbers far above those of the system
//   Calls         put in front of the C library's; what is not in memory goes on to it
#include "fuzz/memory_files.h"

#include "tests/support/syscalls.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sys/xattr.h>

// The hooks are set once, not for each case of a test.
bool support::eachCase(void (*prepare)()) {
    (void)prepare;
    return true;
}

SUPPORT_CALL(int, close, (int descriptor), (descriptor), )
SUPPORT_CALL(int, lstat, (const char *path, struct stat *status), (path, status), noexcept)
SUPPORT_CALL(int, access, (const char *path, int mode), (path, mode), noexcept)
SUPPORT_CALL(int, fchown, (int descriptor, uid_t user, gid_t group), (descriptor, user, group), noexcept)
SUPPORT_CALL(ssize_t, fgetxattr, (int descriptor, const char *name, void *value, size_t size),
             (descriptor, name, value, size), noexcept)
SUPPORT_CALL(int, fremovexattr, (int descriptor, const char *name), (descriptor, name), noexcept)
SUPPORT_CALL(DIR *, fdopendir, (int descriptor), (descriptor), )
SUPPORT_CALL(int, closedir, (DIR * stream), (stream), )

namespace {

// ---- files -------------------------------------------------------------------------------

constexpr ino_t DIRECTORY_NUMBER = 1;
constexpr dev_t DEVICE = 0x6d656d;
constexpr long NS_PER_SECOND = 1000000000;

struct File {
    std::string bytes;
    ino_t number;
    mode_t mode;
    timespec changed;
    nlink_t links;
    int lockedBy; // a descriptor, or -1
};
using FilePointer = std::shared_ptr<File>;

// Never destroyed: the library may be called until the very end.
std::map<std::string, FilePointer> &all() {
    static auto *const made = new std::map<std::string, FilePointer>;
    return *made;
}
std::set<std::string> &directories() {
    static auto *const made = new std::set<std::string>{memory::DIRECTORY};
    return *made;
}

bool isInMemory(const char *path) {
    constexpr size_t LENGTH = sizeof memory::DIRECTORY - 1;
    return strncmp(path, memory::DIRECTORY, LENGTH) == 0 && (path[LENGTH] == '/' || path[LENGTH] == '\0');
}

void touch(File &file) {
    static long ticks;
    file.changed = {std::time(nullptr), ++ticks % NS_PER_SECOND};
}

FilePointer makeFile(mode_t mode) {
    static ino_t last = DIRECTORY_NUMBER;
    auto file = std::make_shared<File>();
    file->number = ++last;
    file->mode = mode;
    file->links = 1;
    file->lockedBy = -1;
    touch(*file);
    return file;
}

std::string plainName(const char *path) {
    std::string name = path;
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    return name;
}

FilePointer find(const char *path) {
    const auto found = all().find(path);
    return found == all().end() ? nullptr : found->second;
}

void describe(const File *file, struct stat *status) { // null: a directory
    *status = {};
    status->st_dev = DEVICE;
    status->st_ino = file != nullptr ? file->number : DIRECTORY_NUMBER;
    status->st_mode = file != nullptr ? S_IFREG | file->mode : S_IFDIR | 0700;
    status->st_nlink = file != nullptr ? file->links : 2;
    status->st_size = file != nullptr ? static_cast<off_t>(file->bytes.size()) : 0;
    status->st_mtim = file != nullptr ? file->changed : timespec{};
}

int fail(int error) {
    errno = error;
    return -1;
}

int describeName(const char *path, struct stat *status) {
    const FilePointer file = find(path);
    if (file == nullptr && directories().count(plainName(path)) == 0)
        return fail(ENOENT);
    describe(file.get(), status);
    return 0;
}

int removeName(const char *path) {
    const auto found = all().find(path);
    if (found == all().end())
        return fail(directories().count(plainName(path)) != 0 ? EISDIR : ENOENT);
    --found->second->links;
    all().erase(found);
    return 0;
}

// ---- descriptors ---------------------------------------------------------------------------

struct Opened {
    bool isUsed;
    FilePointer file;      // null: a directory
    std::string directory; // its path
    size_t at;
    int flags;
};
constexpr int FIRST = 1 << 20;

std::vector<Opened> &opened() {
    static auto *const made = new std::vector<Opened>;
    return *made;
}

Opened *inMemory(int descriptor) {
    if (descriptor < FIRST)
        return nullptr;
    Opened &found = opened().at(static_cast<size_t>(descriptor - FIRST));
    if (!found.isUsed)
        abort(); // used after it was closed
    return &found;
}

int addOpened(const Opened &added) {
    const auto free =
        std::find_if(opened().begin(), opened().end(), [](const Opened &one) { return !one.isUsed; });
    const auto at = free - opened().begin();
    if (free == opened().end())
        opened().push_back(added);
    else
        *free = added;
    return FIRST + static_cast<int>(at);
}

int openInMemory(const char *path, int flags, mode_t mode) {
    const std::string name = plainName(path);
    if (directories().count(name) != 0)
        return (flags & O_ACCMODE) != O_RDONLY ? fail(EISDIR) : addOpened({true, nullptr, name, 0, flags});
    FilePointer file = find(path);
    if (file == nullptr && (flags & O_CREAT) == 0)
        return fail(ENOENT);
    if (file != nullptr && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0)
        return fail(EEXIST);
    if ((flags & O_DIRECTORY) != 0)
        return fail(ENOTDIR);
    if (file == nullptr)
        all()[path] = file = makeFile(mode & 07777U);
    if ((flags & O_TRUNC) != 0) {
        file->bytes.clear();
        touch(*file);
    }
    return addOpened({true, file, "", 0, flags});
}

// The descriptor that a path of /proc stands for, or -1.
int lookedAt(const char *path) {
    constexpr char OWN[] = "/proc/thread-self/fd/";
    if (strncmp(path, OWN, sizeof OWN - 1) != 0)
        return -1;
    const long number = strtol(path + sizeof OWN - 1, nullptr, 10);
    return number >= FIRST ? static_cast<int>(number) : -1;
}

int openPath(const char *path, int flags, mode_t mode) {
    if (const int looked = lookedAt(path); looked >= 0)
        return addOpened({true, inMemory(looked)->file, inMemory(looked)->directory, 0, flags});
    return isInMemory(path) ? openInMemory(path, flags, mode) : libc::open.real(path, flags, mode);
}

int closeInMemory(int descriptor) {
    Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::close.real(descriptor);
    if (one->file != nullptr && one->file->lockedBy == descriptor)
        one->file->lockedBy = -1;
    *one = {};
    return 0;
}

ssize_t readInMemory(int descriptor, void *bytes, size_t size) {
    Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::read.real(descriptor, bytes, size);
    if (one->file == nullptr)
        return fail(EISDIR);
    const std::string &from = one->file->bytes;
    const size_t count = one->at < from.size() ? std::min(size, from.size() - one->at) : 0;
    memcpy(bytes, from.data() + one->at, count);
    one->at += count;
    return static_cast<ssize_t>(count);
}

ssize_t writeInMemory(int descriptor, const void *bytes, size_t size) {
    Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::write.real(descriptor, bytes, size);
    std::string &to = one->file->bytes;
    if ((one->flags & O_APPEND) != 0)
        one->at = to.size();
    if (to.size() < one->at + size)
        to.resize(one->at + size);
    memcpy(to.data() + one->at, bytes, size);
    one->at += size;
    touch(*one->file);
    return static_cast<ssize_t>(size);
}

off_t seekInMemory(int descriptor, off_t offset, int whence) {
    Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::lseek.real(descriptor, offset, whence);
    const auto size = static_cast<off_t>(one->file->bytes.size());
    const off_t base = whence == SEEK_CUR ? static_cast<off_t>(one->at) : whence == SEEK_END ? size : 0;
    if (base + offset < 0)
        return fail(EINVAL);
    one->at = static_cast<size_t>(base + offset);
    return base + offset;
}

int controlInMemory(int descriptor, int command, void *argument) {
    Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::fcntl.real(descriptor, command, argument);
    if (command == F_GETFL)
        return one->flags;
    if (command != F_OFD_SETLK)
        return fail(EINVAL);
    int &holder = one->file->lockedBy;
    if (holder != -1 && holder != descriptor)
        return fail(EAGAIN);
    holder = static_cast<struct flock *>(argument)->l_type == F_UNLCK ? -1 : descriptor;
    return 0;
}

// ---- streams ---------------------------------------------------------------------------------

int numberOf(void *cookie) {
    return static_cast<int>(reinterpret_cast<intptr_t>(cookie));
}

FILE *openStream(int descriptor, const char *mode) {
    if (descriptor < FIRST)
        return libc::fdopen.real(descriptor, mode);
    cookie_io_functions_t calls = {};
    calls.read = [](void *cookie, char *bytes, size_t size) {
        return readInMemory(numberOf(cookie), bytes, size);
    };
    calls.write = [](void *cookie, const char *bytes, size_t size) {
        return writeInMemory(numberOf(cookie), bytes, size);
    };
    calls.seek = [](void *cookie, off64_t *offset, int whence) {
        *offset = seekInMemory(numberOf(cookie), *offset, whence);
        return *offset < 0 ? -1 : 0;
    };
    calls.close = [](void *cookie) { return closeInMemory(numberOf(cookie)); };
    return fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(descriptor)), mode, calls);
}

// ---- listings ----------------------------------------------------------------------------------

struct Listing {
    int descriptor;
    std::vector<std::string> names;
    size_t next;
    dirent entry;
};
std::set<Listing *> &listings() {
    static auto *const made = new std::set<Listing *>;
    return *made;
}

Listing *listingOf(DIR *stream) {
    auto *listing = reinterpret_cast<Listing *>(stream);
    return listings().count(listing) != 0 ? listing : nullptr;
}

DIR *openListing(int descriptor) {
    const Opened *one = inMemory(descriptor);
    if (one == nullptr)
        return libc::fdopendir.real(descriptor);
    auto *listing = new Listing{descriptor, {}, 0, {}};
    const std::string begin = one->directory + "/";
    for (auto at = all().lower_bound(begin);
         at != all().end() && at->first.compare(0, begin.size(), begin) == 0; ++at)
        listing->names.push_back(at->first.substr(begin.size()));
    listings().insert(listing);
    return reinterpret_cast<DIR *>(listing);
}

dirent *nextEntry(DIR *stream) {
    Listing *listing = listingOf(stream);
    if (listing == nullptr)
        return libc::readdir.real(stream);
    while (listing->next < listing->names.size()) {
        const std::string &name = listing->names[listing->next++];
        if (name.size() >= sizeof listing->entry.d_name || name.find('/') != std::string::npos)
            continue;
        listing->entry = {};
        listing->entry.d_ino = 1 + listing->next;
        listing->entry.d_reclen = sizeof listing->entry;
        listing->entry.d_type = DT_REG;
        memcpy(listing->entry.d_name, name.c_str(), name.size() + 1);
        return &listing->entry;
    }
    return nullptr;
}

int closeListing(DIR *stream) {
    Listing *listing = listingOf(stream);
    if (listing == nullptr)
        return libc::closedir.real(stream);
    listings().erase(listing);
    const int result = closeInMemory(listing->descriptor);
    delete listing;
    return result;
}

// ---- calls ---------------------------------------------------------------------------------------

int statusOfName(const char *path, struct stat *status) {
    return isInMemory(path) ? describeName(path, status) : libc::stat.real(path, status);
}

int renameInMemory(const char *from, const char *to) {
    if (!isInMemory(from))
        return libc::rename.real(from, to);
    const FilePointer file = find(from);
    if (file == nullptr)
        return fail(ENOENT);
    if (find(to) == file)
        return 0;
    if (find(to) != nullptr)
        (void)removeName(to);
    all()[to] = file;
    all().erase(from);
    return 0;
}

int linkInMemory(const char *from, const char *to) {
    if (!isInMemory(from))
        return libc::link.real(from, to);
    const FilePointer file = find(from);
    if (file == nullptr || find(to) != nullptr)
        return fail(file == nullptr ? ENOENT : EEXIST);
    all()[to] = file;
    ++file->links;
    return 0;
}

int64_t sleptNs;

void hookDescriptors() {
    libc::close.hook = closeInMemory;
    libc::read.hook = readInMemory;
    libc::write.hook = writeInMemory;
    libc::lseek.hook = seekInMemory;
    libc::fcntl.hook = controlInMemory;
    libc::fdopen.hook = openStream;
    libc::fdopendir.hook = openListing;
    libc::readdir.hook = nextEntry;
    libc::closedir.hook = closeListing;
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        const Opened *one = inMemory(descriptor);
        if (one == nullptr)
            return libc::fstat.real(descriptor, status);
        describe(one->file.get(), status);
        return 0;
    };
    libc::fsync.hook = [](int descriptor) {
        return inMemory(descriptor) != nullptr ? 0 : libc::fsync.real(descriptor);
    };
    libc::fchmod.hook = [](int descriptor, mode_t mode) {
        const Opened *one = inMemory(descriptor);
        if (one == nullptr)
            return libc::fchmod.real(descriptor, mode);
        one->file->mode = mode & 07777U;
        return 0;
    };
    libc::fchown.hook = [](int descriptor, uid_t user, gid_t group) {
        return inMemory(descriptor) != nullptr ? 0 : libc::fchown.real(descriptor, user, group);
    };
    libc::fgetxattr.hook = [](int descriptor, const char *name, void *value, size_t size) {
        return inMemory(descriptor) != nullptr ? ssize_t{fail(ENODATA)}
                                               : libc::fgetxattr.real(descriptor, name, value, size);
    };
    libc::fremovexattr.hook = [](int descriptor, const char *name) {
        return inMemory(descriptor) != nullptr ? fail(ENODATA) : libc::fremovexattr.real(descriptor, name);
    };
}

void hookNames() {
    libc::open.hook = openPath;
    libc::stat.hook = statusOfName;
    libc::lstat.hook = [](const char *path, struct stat *status) {
        return isInMemory(path) ? describeName(path, status) : libc::lstat.real(path, status);
    };
    libc::access.hook = [](const char *path, int mode) {
        struct stat status;
        return isInMemory(path) ? describeName(path, &status) : libc::access.real(path, mode);
    };
    libc::mkdir.hook = [](const char *path, mode_t mode) {
        if (!isInMemory(path))
            return libc::mkdir.real(path, mode);
        return directories().insert(plainName(path)).second ? 0 : fail(EEXIST);
    };
    libc::unlink.hook = [](const char *path) {
        return isInMemory(path) ? removeName(path) : libc::unlink.real(path);
    };
    libc::remove.hook = [](const char *path) {
        return isInMemory(path) ? removeName(path) : libc::remove.real(path);
    };
    libc::rename.hook = renameInMemory;
    libc::link.hook = linkInMemory;
}

void hookTime() {
    libc::nanosleep.hook = [](const timespec *time, timespec *) {
        sleptNs += time->tv_sec * int64_t{NS_PER_SECOND} + time->tv_nsec;
        return 0;
    };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *time) {
        const int result = libc::clock_gettime.real(clock, time);
        if (result == 0 && clock == CLOCK_MONOTONIC) {
            const int64_t now = time->tv_sec * int64_t{NS_PER_SECOND} + time->tv_nsec + sleptNs;
            *time = {now / NS_PER_SECOND, now % NS_PER_SECOND};
        }
        return result;
    };
}

const bool HOOKED = [] {
    hookDescriptors();
    hookNames();
    hookTime();
    return true;
}();

} // namespace

void memory::writeFile(const std::string &path, const uint8_t *data, size_t size) {
    (void)HOOKED;
    if (all().count(path) != 0)
        (void)removeName(path.c_str());
    const FilePointer file = makeFile(0600);
    file->bytes.assign(reinterpret_cast<const char *>(data), size);
    all()[path] = file;
}

std::vector<std::string> memory::files() {
    std::vector<std::string> paths;
    for (const auto &[path, file] : all())
        paths.push_back(path);
    return paths;
}

size_t memory::openDescriptors() {
    return static_cast<size_t>(
        std::count_if(opened().begin(), opened().end(), [](const Opened &one) { return one.isUsed; }));
}
