// SPDX-License-Identifier: Apache-2.0
// Platform services: log files and their directories, the host's name and number. It
// knows nothing of the lock, of messages or of what is in the files. Configuration files are the property
// store's (utiPropertyStoreFile).
//
//   Descriptors      opening, the exact permissions, what is refused
//   File handles     zoltLogOs_open ... zoltLogOs_remove
//   Directories      zoltLogOs_mkdirp
//   Host             name and numeric identifier
//   Time             broken-down time
//   Library names    zoltLogOs_getLibName
//   Listing          the log files of a directory
#include "os.h"

#include "cancellation.h"
#include "regular_file.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

int32_t errorCode;

namespace {

constexpr mode_t PERMISSION_BITS = 07777;
constexpr int FIRST_FREE_DESCRIPTOR = 3;
constexpr int OPEN_ATTEMPTS = 100; // rounds against others who remove and create the same name

constexpr size_t PATH_LIMIT = 1024;  // longest path that zoltLogOs_mkdirp takes
constexpr mode_t MKDIR_BITS = 01777; // what mkdir takes; set-group-id it inherits by itself

constexpr size_t HOST_NAME_CAPACITY = 512;
constexpr uint64_t LOOPBACK_ID = 0x0100007F;

constexpr char LIBRARY_VERSION[] = "3.16.1.0";
constexpr size_t LIBRARY_NAME_EXTRA = 20; // room for ".so.", the major version and the end

constexpr size_t ENTRY_NAME_CAPACITY = 8192;
constexpr size_t ENTRY_RECORD_SIZE = 280; // a directory entry with the system's usual name field
constexpr size_t ENTRY_CAPACITY = ENTRY_NAME_CAPACITY + ENTRY_RECORD_SIZE;
static_assert(sizeof(struct dirent) <= ENTRY_RECORD_SIZE);

// ---- descriptors --------------------------------------------------------------------

int openRetrying(const char *path, int flags, mode_t permissions) {
    int descriptor;
    do
        descriptor = open(path, flags, permissions);
    while (descriptor == -1 && errno == EINTR);
    return descriptor;
}

// Opens a regular file that is there, for reading or to go on with it.
int openThere(const char *path, int32_t mode) {
    if (mode == ZOLTLOG_OS_MODE_READ)
        return openRegular(AT_FDCWD, path, O_RDONLY);
    constexpr int AT_THE_END = O_APPEND | O_NOFOLLOW;
    const int descriptor = openRegular(AT_FDCWD, path, O_RDWR | AT_THE_END);
    return descriptor == -1 && errno == EACCES ? openRegular(AT_FDCWD, path, O_WRONLY | AT_THE_END)
                                               : descriptor;
}

// Opens what is there or, if the mode says so, makes it. Creation is always exclusive,
// so that *created is certain: only then may the permissions be set.
int openOrCreate(const char *path, int32_t mode, uint32_t permissions, bool *created) {
    // Not blocking: a FIFO without a partner or a leased file must not hold up the host.
    constexpr int ALWAYS = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    *created = false;
    const int flags = O_WRONLY | O_NOFOLLOW | ALWAYS | (mode == ZOLTLOG_OS_MODE_TRUNCATE ? 0 : O_APPEND);
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        int descriptor = -1;
        if (mode != OS_MODE_NEW) {
            descriptor = openRetrying(path, flags, 0);
            if (descriptor != -1 || errno != ENOENT)
                return descriptor;
        }
        descriptor = openRetrying(path, flags | O_CREAT | O_EXCL, permissions & PERMISSION_BITS);
        *created = descriptor != -1;
        if (descriptor != -1 || errno != EEXIST || mode == OS_MODE_NEW)
            return descriptor;
    }
    return -1;
}

// Refuses what is not a file, gives a created one its permissions, empties one that is
// to be truncated. False with errno set on refusal or failure.
bool settleOpened(int descriptor, int32_t mode, uint32_t permissions, bool created) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return false;
    const bool regular = S_ISREG(status.st_mode);
    if (!regular && !S_ISCHR(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
        return false;
    }
    // A file system without permissions may refuse; the file is usable all the same and
    // no wider than asked, since it was created with these permissions less the umask.
    if (created && (status.st_mode & PERMISSION_BITS) != (permissions & PERMISSION_BITS))
        (void)fchmod(descriptor, permissions & PERMISSION_BITS);
    if (regular)
        return mode != ZOLTLOG_OS_MODE_TRUNCATE || status.st_size == 0 || ftruncate(descriptor, 0) == 0;
    const int flags = fcntl(descriptor, F_GETFL);
    return flags != -1 && fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

} // namespace

int32_t openResultOfErrno(int error) {
    switch (error) {
    case EACCES:
        return ZOLTLOG_OS_OPEN_DENIED;
    case ENOENT:
    case EFAULT:
        return ZOLTLOG_OS_OPEN_NO_PATH;
    default:
        return ZOLTLOG_OS_OPEN_FAILED;
    }
}

int aboveStdio(int descriptor) {
    if (descriptor == -1 || descriptor >= FIRST_FREE_DESCRIPTOR)
        return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, FIRST_FREE_DESCRIPTOR);
    closeKeepingErrno(descriptor);
    return moved;
}

int32_t openDescriptor(const char *path, int32_t mode, uint32_t permissions, int *descriptor) {
    const CancellationOff off;
    bool created = false;
    const bool isRead = mode == ZOLTLOG_OS_MODE_READ || mode == OS_MODE_RESUME;
    *descriptor =
        aboveStdio(isRead ? openThere(path, mode) : openOrCreate(path, mode, permissions, &created));
    if (*descriptor == -1)
        return openResultOfErrno(errno);
    if (isRead || settleOpened(*descriptor, mode, permissions, created))
        return ZOLTLOG_OS_OK;
    closeKeepingErrno(*descriptor);
    *descriptor = -1;
    return openResultOfErrno(errno);
}

// ---- file handles -------------------------------------------------------------------

int32_t zoltLogOs_initfilehandle(OsFile *file) {
    if (file == nullptr)
        return 0;
    file->descriptor = -1;
    file->readPosition = -1;
    file->readCount = 0;
    return 1;
}

int32_t zoltLogOs_open(OsFile *file, const char *path, int32_t mode, uint32_t permissions) {
    if (zoltLogOs_initfilehandle(file) == 0 || path == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    const int32_t known =
        mode == ZOLTLOG_OS_MODE_APPEND || mode == ZOLTLOG_OS_MODE_TRUNCATE ? mode : ZOLTLOG_OS_MODE_READ;
    return openDescriptor(path, known, permissions, &file->descriptor);
}

void zoltLogOs_close(OsFile *file) {
    // KEPT: descriptor 0 is never closed. Pinned by OsFileHandle.CloseLeavesDescriptorZeroOpen.
    if (file == nullptr || file->descriptor <= 0)
        return;
    close(file->descriptor);
    file->descriptor = -1;
}

int32_t zoltLogOs_read(OsFile *file, void *buffer, int32_t length) {
    if (file == nullptr || length < 0)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    const ssize_t count = read(file->descriptor, buffer, static_cast<size_t>(length));
    file->readPosition = count > 0 ? 0 : -1;
    file->readCount = count > 0 ? static_cast<int32_t>(count) : 0;
    return static_cast<int32_t>(count);
}

bool hasSize(const void *object, size_t size) {
    Dl_info found;
    const ElfW(Sym) *symbol = nullptr;
    return dladdr1(object, &found, reinterpret_cast<void **>(const_cast<ElfW(Sym) **>(&symbol)),
                   RTLD_DL_SYMENT) != 0 &&
           found.dli_saddr == object && symbol != nullptr && symbol->st_size == size;
}

namespace {

bool deviceWasFull = false;
bool mayWriteErrorCode = false;

// At load, since asking takes the loader's lock.
[[gnu::constructor]] void lookAtErrorCode() {
    mayWriteErrorCode = hasSize(&errorCode, sizeof errorCode);
}

} // namespace

void noteFullDevice() {
    __atomic_store_n(&deviceWasFull, true, __ATOMIC_RELAXED);
    if (mayWriteErrorCode)
        __atomic_store_n(&errorCode, int32_t{ZOLTLOG_DEVICE_FULL}, __ATOMIC_RELAXED);
}

bool wasDeviceFull() {
    return __atomic_load_n(&deviceWasFull, __ATOMIC_RELAXED);
}

int32_t zoltLogOs_write(OsFile *file, const void *buffer, int32_t length) {
    if (file == nullptr || length < 0)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    return writeOnce(file, buffer, static_cast<size_t>(length));
}

int32_t zoltLogOs_fsize(OsFile *file, uint64_t *size) {
    if (file == nullptr || size == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    struct stat status;
    if (fstat(file->descriptor, &status) != 0)
        return ZOLTLOG_OS_FAILED;
    *size = static_cast<uint64_t>(status.st_size);
    return ZOLTLOG_OS_OK;
}

int32_t zoltLogOs_remove(const char *path) {
    return path == nullptr ? ZOLTLOG_OS_INVALID_ARGUMENT : remove(path);
}

// ---- directories --------------------------------------------------------------------

namespace {

// Gives a directory that was just made the permissions that the umask took from it.
// Failure leaves it with fewer, which the caller can live with.
void setDirectoryPermissions(const char *path, mode_t wanted) {
    int descriptor = aboveStdio(openRetrying(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
    if (descriptor == -1) {
        // The umask may have taken our own right to read it.
        if (errno == EACCES)
            static_cast<void>(fchmodat(AT_FDCWD, path, wanted, AT_SYMLINK_NOFOLLOW) == 0);
        return;
    }
    struct stat status;
    if (fstat(descriptor, &status) == 0 && (status.st_mode & PERMISSION_BITS) != wanted)
        (void)fchmod(descriptor, wanted);
    close(descriptor);
}

// Makes one directory with its parent's permissions. A directory that somebody else
// made meanwhile is left as it is.
bool makeLikeParent(char *path) {
    char *slash = strrchr(path, '/');
    if (slash == nullptr)
        return false;
    struct stat parent;
    int failed;
    if (slash == path) {
        failed = stat("/", &parent);
    } else {
        *slash = '\0';
        failed = stat(path, &parent);
        *slash = '/';
    }
    if (failed != 0)
        return false;
    const mode_t mode = parent.st_mode & MKDIR_BITS;
    if (mkdir(path, mode) != 0)
        return errno == EEXIST;
    setDirectoryPermissions(path, mode | (parent.st_mode & S_ISGID));
    return true;
}

} // namespace

int32_t zoltLogOs_mkdirp(const char *path, uint32_t mode) {
    const CancellationOff off;
    (void)mode; // by design a new directory takes after its parent
    if (path == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const size_t length = strnlen(path, PATH_LIMIT + 1);
    if (length > PATH_LIMIT)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (length == 0)
        return 0;
    char prefix[PATH_LIMIT + 1];
    memcpy(prefix, path, length + 1);
    for (size_t at = 1; at <= length; ++at) {
        const char cut = prefix[at];
        if (cut != '/' && cut != '\0')
            continue;
        prefix[at] = '\0';
        struct stat status;
        if (stat(prefix, &status) != 0) {
            if (errno == ENOTDIR || (errno == ENOENT && !makeLikeParent(prefix)))
                return ZOLTLOG_FAILED;
        }
        prefix[at] = cut;
    }
    return 0;
}

// ---- host ---------------------------------------------------------------------------

int32_t osGetHostName(char *buffer, size_t length) {
    return buffer == nullptr ? ZOLTLOG_OS_INVALID_ARGUMENT : gethostname(buffer, length);
}

namespace {

uint64_t idOfIpv4(const sockaddr_in *address) {
    uint8_t bytes[4];
    memcpy(bytes, &address->sin_addr, sizeof bytes);
    const uint64_t id =
        bytes[0] | uint64_t{bytes[1]} << 8 | uint64_t{bytes[2]} << 16 | uint64_t{bytes[3]} << 24;
    return id == LOOPBACK_ID ? 0 : id;
}

// Only the interface half of the address takes part; the sums may carry, so that the
// value can exceed 32 bits.
uint64_t idOfIpv6(const sockaddr_in6 *address) {
    if (IN6_IS_ADDR_LOOPBACK(&address->sin6_addr))
        return 0;
    const uint8_t *bytes = address->sin6_addr.s6_addr;
    uint64_t id = 0;
    for (size_t k = 0; k < 4; ++k)
        id = id * 256 + (uint64_t{bytes[8 + k]} + bytes[12 + k]);
    return id;
}

uint64_t idOfAddress(const addrinfo *entry) {
    switch (entry->ai_family) {
    case AF_INET:
        return idOfIpv4(reinterpret_cast<const sockaddr_in *>(entry->ai_addr));
    case AF_INET6:
        return idOfIpv6(reinterpret_cast<const sockaddr_in6 *>(entry->ai_addr));
    default:
        return 0;
    }
}

} // namespace

uint64_t osGetHostID(void) {
    const CancellationOff off;
    char name[HOST_NAME_CAPACITY] = {};
    if (osGetHostName(name, sizeof name) != 0)
        return 0;
    name[sizeof name - 1] = '\0'; // a name that fills the buffer comes without an end
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo *list = nullptr;
    if (getaddrinfo(name, "0", &hints, &list) != 0)
        return LOOPBACK_ID;
    uint64_t id = 0;
    for (const addrinfo *entry = list; entry != nullptr && id == 0; entry = entry->ai_next)
        id = idOfAddress(entry);
    if (list != nullptr)
        freeaddrinfo(list);
    return id != 0 ? id : LOOPBACK_ID;
}

int32_t osSocketStartup(void) {
    return 0;
}

void osSocketCleanup(void) {}

// ---- time ---------------------------------------------------------------------------

struct tm *zoltLogOs_localtime_r(int64_t seconds, struct tm *out) {
    const time_t time = seconds;
    return out == nullptr ? nullptr : localtime_r(&time, out);
}

struct tm *zoltLogOs_gmtime_r(int64_t seconds, struct tm *out) {
    const time_t time = seconds;
    return out == nullptr ? nullptr : gmtime_r(&time, out);
}

// ---- library names ------------------------------------------------------------------

int32_t zoltLogOs_getLibName(const char *name, char **out) {
    if (name == nullptr || out == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    *out = nullptr;
    const size_t length = strlen(name);
    const size_t capacity = length + LIBRARY_NAME_EXTRA;
    LogOwned<char> text(static_cast<char *>(malloc(capacity)));
    if (text == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    memcpy(text.get(), name, length + 1);

    char *slash = strrchr(text.get(), '/');
    char *base = slash != nullptr ? slash + 1 : text.get();
    char *end = base + strcspn(base, ".");
    if (end > base && end[-1] == 'D')
        --end;
    if (end - base >= 2 && end[-2] == 'S' && end[-1] == 'T')
        end -= 2;

    const auto major = static_cast<int>(strcspn(LIBRARY_VERSION, "."));
    const size_t room = capacity - static_cast<size_t>(end - text.get());
    const int printed = snprintf(end, room, ".so.%.*s", major, LIBRARY_VERSION);
    if (printed < 0 || static_cast<size_t>(printed) >= room)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    *out = text.release();
    return ZOLTLOG_OS_OK;
}

// ---- listing ------------------------------------------------------------------------

namespace {

bool isLogFileName(const char *name) {
    const char *dot = strrchr(name, '.');
    return dot != nullptr && strcmp(dot, ".log") == 0 && strchr(name, '-') != nullptr;
}

// Both records are ENTRY_CAPACITY long; false when the name does not fit.
bool copyEntry(struct dirent *to, const struct dirent *from) {
    constexpr size_t HEAD = offsetof(struct dirent, d_name);
    // Some file systems have names longer than the record's declared name field, whose size
    // the compiler therefore must not go by.
    const char *name = reinterpret_cast<const char *>(from) + HEAD;
    __asm__("" : "+r"(name));
    const size_t length = strnlen(name, ENTRY_CAPACITY - HEAD);
    if (length == ENTRY_CAPACITY - HEAD)
        return false;
    memcpy(to, from, HEAD + length + 1);
    return true;
}

DIR *openDirectory(const char *path) {
    const int descriptor = aboveStdio(openRetrying(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC, 0));
    if (descriptor == -1)
        return nullptr;
    DIR *stream = fdopendir(descriptor);
    if (stream == nullptr)
        closeKeepingErrno(descriptor);
    return stream;
}

} // namespace

int32_t zoltLogOsListLogFilesBegin(OsLogFileCursor *cursor, const char *directory) {
    const CancellationOff off;
    if (cursor == nullptr || directory == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    cursor->directory = nullptr;
    cursor->entry = nullptr;
    cursor->stream = openDirectory(directory);
    if (cursor->stream == nullptr)
        return ZOLTLOG_OS_FAILED;
    cursor->directory = strdup(directory);
    cursor->entry = static_cast<struct dirent *>(calloc(1, ENTRY_CAPACITY));
    if (cursor->directory == nullptr || cursor->entry == nullptr) {
        zoltLogOsListLogFilesEnd(cursor);
        return ZOLTLOG_OS_FAILED;
    }
    return zoltLogOsListLogFilesNext(cursor);
}

int32_t zoltLogOsListLogFilesNext(OsLogFileCursor *cursor) {
    if (cursor == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    if (cursor->stream == nullptr || cursor->entry == nullptr)
        return ZOLTLOG_OS_LISTING_END;
    // A stream belongs to one cursor, so that nothing is shared between threads.
    while (const struct dirent *entry = readdir(cursor->stream)) { // NOLINT(concurrency-mt-unsafe)
        if (isLogFileName(entry->d_name) && copyEntry(cursor->entry, entry))
            return ZOLTLOG_OS_OK;
    }
    return ZOLTLOG_OS_LISTING_END;
}

const char *zoltLogOsListLogFilesName(OsLogFileCursor *cursor) {
    return cursor == nullptr || cursor->entry == nullptr ? nullptr : cursor->entry->d_name;
}

LogOwned<char> currentPath(const OsLogFileCursor *cursor) {
    if (cursor == nullptr || cursor->directory == nullptr || cursor->entry == nullptr)
        return nullptr;
    return joinedText(cursor->directory, cursor->entry->d_name);
}

int64_t zoltLogOsListLogFilesModtime(OsLogFileCursor *cursor) {
    const LogOwned<char> path = currentPath(cursor);
    struct stat status;
    if (path == nullptr || stat(path.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return 0;
    return status.st_mtime;
}

void zoltLogOsListLogFilesEnd(OsLogFileCursor *cursor) {
    if (cursor == nullptr)
        return;
    free(cursor->entry);
    free(cursor->directory);
    if (cursor->stream != nullptr)
        closedir(cursor->stream);
    cursor->entry = nullptr;
    cursor->directory = nullptr;
    cursor->stream = nullptr;
}

int32_t CopyLogOsListLogFiles(const OsLogFileCursor *source, OsLogFileCursor *destination) {
    if (source == nullptr || destination == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    if (source->directory == nullptr || source->entry == nullptr)
        return ZOLTLOG_OS_FAILED;
    destination->word = source->word;
    destination->stream = nullptr;
    destination->directory = strdup(source->directory);
    destination->entry = static_cast<struct dirent *>(calloc(1, ENTRY_CAPACITY));
    if (destination->directory == nullptr || destination->entry == nullptr ||
        !copyEntry(destination->entry, source->entry)) {
        zoltLogOsListLogFilesEnd(destination);
        return ZOLTLOG_OS_FAILED;
    }
    return ZOLTLOG_OS_OK;
}
