// SPDX-License-Identifier: Apache-2.0
// All calls of the C library by which the libraries reach the system or get memory, counted
// in the order in which they are made. One of them, or that one and later ones, fails, is cut
// short or ends the process:
//
//     every::begin({every::Space::SYSTEM, 17, EIO, every::Reach::ONCE});
//     const uint32_t result = every::armed([&] { return zoltLogOpen(5, 7, &handle); });
//
// Counted is what the arming thread does inside of armed(). Included by the one source file
// of a test program, after <cstdlib>. Host, addresses and plug-in are the test's; nothing is
// synced.
#pragma once

#include "support/support.h"
#include "support/syscalls.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <sys/xattr.h>

#include "support/failing_allocations.h"

SUPPORT_CALL(int, lstat, (const char *path, struct stat *status), (path, status), noexcept)
SUPPORT_CALL(int, fstatat, (int directory, const char *path, struct stat *status, int flags),
             (directory, path, status, flags), noexcept)
SUPPORT_CALL(int, fchmodat, (int directory, const char *path, mode_t mode, int flags),
             (directory, path, mode, flags), noexcept)
SUPPORT_CALL(int, fchown, (int descriptor, uid_t user, gid_t group), (descriptor, user, group), noexcept)
SUPPORT_CALL(int, access, (const char *path, int mode), (path, mode), noexcept)
SUPPORT_CALL(int, ftruncate, (int descriptor, off_t size), (descriptor, size), noexcept)
SUPPORT_CALL(int, fallocate, (int descriptor, int mode, off_t offset, off_t length),
             (descriptor, mode, offset, length), )
SUPPORT_CALL(int, close, (int descriptor), (descriptor), )
SUPPORT_CALL(ssize_t, fgetxattr, (int descriptor, const char *name, void *value, size_t size),
             (descriptor, name, value, size), noexcept)
SUPPORT_CALL(int, fsetxattr, (int descriptor, const char *name, const void *value, size_t size, int flags),
             (descriptor, name, value, size, flags), noexcept)
SUPPORT_CALL(int, fremovexattr, (int descriptor, const char *name), (descriptor, name), noexcept)
SUPPORT_CALL(ssize_t, readlink, (const char *path, char *target, size_t size), (path, target, size), noexcept)
SUPPORT_CALL(char *, realpath, (const char *path, char *resolved), (path, resolved), noexcept)
SUPPORT_CALL(char *, getcwd, (char *buffer, size_t size), (buffer, size), noexcept)
SUPPORT_CALL(void *, dlopen, (const char *name, int mode), (name, mode), noexcept)
SUPPORT_CALL(void, openlog, (const char *ident, int option, int facility), (ident, option, facility), )
SUPPORT_CALL(void, closelog, (), (), )

extern "C" {
inline int syslogLines; // that would have gone to the system log
void syslog(int, const char *, ...) {
    ++syslogLines;
}
void __syslog_chk(int, int, const char *, ...);
void __syslog_chk(int, int, const char *, ...) {
    ++syslogLines;
}
}

namespace every {

// ---- the calls, and what can happen to them --------------------------------------------------

constexpr int MOST_ERRORS = 16;

struct Kind {
    const char *name;
    int errors[MOST_ERRORS]; // ended by 0
    bool interrupted;        // can end with EINTR
    bool shortened;          // can do less than was asked for
};

enum KindNumber : uint8_t {
    ALLOCATION,
    OPEN_TO_READ,
    OPEN_TO_LOOK,
    OPEN_DIRECTORY,
    OPEN_TO_WRITE,
    CREATE,
    CREATE_UNNAMED,
    READ,
    PREAD,
    WRITE,
    SEEK,
    SYNC,
    STATUS,
    LOOK_UP,
    ACCESS,
    CHANGE_MODE,
    CHANGE_OWNER,
    ATTRIBUTE,
    TRUNCATE,
    ALLOCATE_ROOM,
    LINK,
    RENAME,
    REMOVE,
    MAKE_DIRECTORY,
    READ_DIRECTORY,
    FLOCK,
    LOCK_BYTES,
    OTHER_CONTROL,
    CLOSE,
    STREAM,
    CLOSE_STREAM,
    SLEEP,
    HOST_NAME,
    HOST_ADDRESS,
    INTERFACES,
    LOAD,
    WHERE,
    READ_LINK,
    KIND_COUNT
};

inline constexpr Kind KINDS[KIND_COUNT] = {
    {"an allocation", {ENOMEM}, false, false},
    {"open to read", {EMFILE, ENFILE, EACCES, EIO, ESTALE, ENOMEM, ELOOP, ENOENT, EPERM}, true, false},
    {"open of a path", {EMFILE, ENFILE, EACCES, EIO, ESTALE, ENOMEM, ELOOP, ENOENT, ENOTDIR}, true, false},
    {"open of a directory",
     {EMFILE, ENFILE, EACCES, EIO, ESTALE, ENOMEM, ELOOP, ENOENT, ENOTDIR},
     true,
     false},
    {"open to write",
     {EMFILE, ENFILE, EACCES, EIO, ESTALE, ENOMEM, EROFS, ENOENT, EPERM, ENXIO},
     true,
     false},
    {"open that creates",
     {EMFILE, ENFILE, EACCES, EIO, ESTALE, ENOSPC, EDQUOT, EROFS, ENOMEM, ELOOP, ENOENT},
     true,
     false},
    {"open of an unnamed file",
     {EOPNOTSUPP, EISDIR, EINVAL, ENOSPC, EDQUOT, EROFS, EMFILE, EACCES, EIO},
     true,
     false},
    {"read", {EIO, ESTALE}, true, true},
    {"pread", {EIO, ESTALE}, true, true},
    {"write", {ENOSPC, EIO, EDQUOT, EFBIG, EPERM, ESTALE}, true, true},
    {"lseek", {EINVAL, EIO}, false, false},
    {"fsync", {EIO, ENOSPC, EDQUOT, EROFS, EINVAL}, true, false},
    {"fstat", {EIO, ESTALE, ENOMEM, EOVERFLOW}, false, false},
    {"stat", {EIO, EACCES, ENOENT, ELOOP, ENOMEM, ESTALE, ENOTDIR}, false, false},
    {"access", {EACCES, EIO, ENOENT}, false, false},
    {"fchmod", {EPERM, EIO, EROFS}, false, false},
    {"fchown", {EPERM, EIO, EROFS, EDQUOT}, false, false},
    {"an attribute", {EOPNOTSUPP, EIO, EPERM, ENOSPC, EDQUOT, ERANGE}, false, false},
    {"ftruncate", {EIO, EPERM, EROFS}, true, false},
    {"fallocate", {EOPNOTSUPP, EIO, ENOSPC, ENOSYS}, true, false},
    {"link",
     {EEXIST, EPERM, ENOSPC, EDQUOT, EMLINK, EROFS, EACCES, EIO, EXDEV, ENOENT, ENOSYS},
     false,
     false},
    {"rename", {ENOSPC, EACCES, EPERM, EIO, EROFS, EXDEV, ENOENT, EINVAL, ENOSYS, EDQUOT}, false, false},
    {"unlink", {EACCES, EPERM, EIO, EROFS, EBUSY, ENOENT, ENOMEM}, false, false},
    {"mkdir", {EACCES, ENOSPC, EDQUOT, EROFS, EIO, EEXIST, EMLINK, ENOENT}, false, false},
    {"readdir", {EIO, EOVERFLOW, ENOENT}, false, false},
    {"flock", {EWOULDBLOCK, ENOLCK, EINVAL, EIO}, true, false},
    {"a lock of bytes", {EAGAIN, EACCES, ENOLCK, EINVAL, EIO}, true, false},
    {"fcntl", {EMFILE, EINVAL}, false, false},
    {"close", {EIO, EINTR, ENOSPC, EDQUOT}, false, false},
    {"fdopen", {ENOMEM, EINVAL}, false, false},
    {"fclose", {EIO, ENOSPC}, false, false},
    {"nanosleep", {}, true, false},
    {"gethostname", {EFAULT, ENAMETOOLONG, EPERM}, false, false},
    {"getaddrinfo", {EAI_AGAIN, EAI_FAIL, EAI_NONAME, EAI_MEMORY, EAI_SYSTEM}, false, false},
    {"getifaddrs", {ENOMEM, EMFILE, EACCES}, false, false},
    {"dlopen", {ENOENT}, false, false},
    {"getcwd", {ENOENT, EACCES, ENOMEM}, false, false},
    {"readlink", {EIO, ENOENT, EACCES, EINVAL}, false, false},
};

// ---- what is to happen ---------------------------------------------------------------------------

enum class Space { NOTHING, MEMORY, SYSTEM }; // which calls are numbered

enum class Reach {
    ONCE,
    ONWARDS, // each later call that can fail so does
    STORM,   // EINTR of ten calls that can be interrupted, one goes through, and so on
    SHORT,   // a part is read or written, once
    SHORT_ONWARDS,
    KILL_BEFORE, // SIGKILL instead of the call
    KILL_AFTER   // SIGKILL behind it
};

struct Plan {
    Space space = Space::NOTHING;
    long number = 0; // from 1
    int error = 0;
    Reach reach = Reach::ONCE;
};

inline Plan plan;
inline long calls[2];                   // so far: allocations, others
inline long struck;                     // calls that failed, were cut short or interrupted
inline thread_local bool isArmed;       // inside of armed()
inline thread_local long blocksKept;    // by what armed() and quietly() ran
inline bool hasUnnamedFiles;            // false: the file system has no O_TMPFILE
inline int64_t nowNs;                   // of both clocks, which go on by what is slept and asked
inline void (*onCall)(KindNumber kind); // of system calls, in turn

constexpr int STORM_LENGTH = 10;

inline void begin(const Plan &what) {
    plan = what;
    calls[0] = calls[1] = 0;
    struck = 0;
}

inline bool has(const Kind &kind, int error) {
    if (error == EINTR && kind.interrupted)
        return true;
    for (const int *at = kind.errors; *at != 0; ++at)
        if (*at == error)
            return true;
    return false;
}

enum class Verdict { PASS, FAIL, SHORTEN, KILL_AFTER };

SUPPORT_EARLY inline Verdict next(KindNumber number) {
    if (!isArmed)
        return Verdict::PASS;
    const bool isMemory = number == ALLOCATION;
    const long count = ++calls[isMemory ? 0 : 1];
    if (!isMemory && onCall != nullptr)
        onCall(number);
    if (plan.space != (isMemory ? Space::MEMORY : Space::SYSTEM) || count < plan.number)
        return Verdict::PASS;
    const Kind &kind = KINDS[number];
    const bool isFirst = count == plan.number;
    switch (plan.reach) {
    case Reach::ONCE:
        if (!isFirst)
            return Verdict::PASS;
        break;
    case Reach::ONWARDS:
        if (!isFirst && !has(kind, plan.error))
            return Verdict::PASS;
        break;
    case Reach::STORM:
        if (!kind.interrupted || (count - plan.number) % (STORM_LENGTH + 1) == STORM_LENGTH)
            return Verdict::PASS;
        break;
    case Reach::SHORT:
    case Reach::SHORT_ONWARDS:
        if (!kind.shortened || (plan.reach == Reach::SHORT && !isFirst))
            return Verdict::PASS;
        ++struck;
        return Verdict::SHORTEN;
    case Reach::KILL_BEFORE:
        kill(getpid(), SIGKILL);
        return Verdict::PASS;
    case Reach::KILL_AFTER:
        return Verdict::KILL_AFTER;
    }
    ++struck;
    errno = plan.error;
    return Verdict::FAIL;
}

template<typename Result, typename Call>
Result made(KindNumber kind, Result failed, Call call) {
    switch (next(kind)) {
    case Verdict::FAIL:
        return failed;
    case Verdict::KILL_AFTER:
        (void)call();
        kill(getpid(), SIGKILL);
        return failed;
    default:
        return call();
    }
}

template<typename Call>
ssize_t madeInParts(KindNumber kind, size_t size, Call call) {
    switch (next(kind)) {
    case Verdict::FAIL:
        return -1;
    case Verdict::SHORTEN:
        return call(size > 1 ? size / 2 : size);
    case Verdict::KILL_AFTER: // of a write, also when half of it is done
        (void)call(plan.error != 0 && size > 1 ? size / 2 : size);
        kill(getpid(), SIGKILL);
        return -1;
    default:
        return call(size);
    }
}

// Runs a call of the library's with what is planned.
template<typename Call>
auto armed(Call call) {
    const long before = support::blocksHeld;
    isArmed = true;
    const auto result = call();
    isArmed = false;
    blocksKept += support::blocksHeld - before;
    return result;
}

// Runs one with nothing failing or counted, but for its memory.
template<typename Call>
void quietly(Call call) {
    const long before = support::blocksHeld;
    call();
    blocksKept += support::blocksHeld - before;
}

// ---- hanging in ------------------------------------------------------------------------------------

inline bool isMissing(int flags) {
    if (hasUnnamedFiles || (flags & O_TMPFILE) != O_TMPFILE)
        return false;
    errno = EOPNOTSUPP;
    return true;
}

inline KindNumber kindOfOpening(int flags) {
    if ((flags & O_PATH) != 0)
        return OPEN_TO_LOOK;
    if ((flags & O_TMPFILE) == O_TMPFILE)
        return CREATE_UNNAMED;
    if ((flags & O_CREAT) != 0)
        return CREATE;
    if ((flags & O_DIRECTORY) != 0)
        return OPEN_DIRECTORY;
    return (flags & O_ACCMODE) == O_RDONLY ? OPEN_TO_READ : OPEN_TO_WRITE;
}

// What reads or writes through a stream makes calls that no program can put itself in front
// of: here streams are made of those that it can.
inline ssize_t readCookie(void *cookie, char *bytes, size_t size) {
    return read(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), bytes, size);
}
inline ssize_t writeCookie(void *cookie, const char *bytes, size_t size) {
    const ssize_t written = write(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), bytes, size);
    return written < 0 ? 0 : written;
}
inline int seekCookie(void *cookie, off64_t *offset, int whence) {
    const off_t at = lseek(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), *offset, whence);
    *offset = at;
    return at < 0 ? -1 : 0;
}
inline int closeCookie(void *cookie) {
    return close(static_cast<int>(reinterpret_cast<intptr_t>(cookie)));
}

inline char formatter[4096]; // the plug-in that is loaded

constexpr int64_t NS = 1000000000;
constexpr int64_t TICK_NS = NS / 200; // whoever waits by looking at the clock comes to an end

inline int lookUpHost(const char *, const char *, const addrinfo *, addrinfo **list) {
    static addrinfo info;
    static sockaddr_in address;
    if (next(HOST_ADDRESS) == Verdict::FAIL)
        return plan.error;
    address = {};
    inet_pton(AF_INET, "10.0.0.5", &address.sin_addr);
    info = {};
    info.ai_family = AF_INET;
    info.ai_addr = reinterpret_cast<sockaddr *>(&address);
    *list = &info;
    return 0;
}

// Each hook passes its arguments on unless the call's turn has come.
#define EVERY_CALL(name, kind, failed, parameters, arguments)                                                \
    libc::name.hook = [] parameters { return made(kind, failed, [&] { return libc::name.real arguments; }); }

inline const bool PREPARED = support::eachCase([] {
    begin({});
    hasUnnamedFiles = true;
    onCall = nullptr;
    snprintf(formatter, sizeof formatter, "%s/lib/libzoltLogFormatMsg.so.3",
             support::buildDirectory().c_str());
    support::allocationHook = [] { return next(ALLOCATION) == Verdict::FAIL; };

    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        return made(kindOfOpening(flags), -1,
                    [&] { return isMissing(flags) ? -1 : libc::open.real(path, flags, mode); });
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        return made(kindOfOpening(flags), -1,
                    [&] { return isMissing(flags) ? -1 : libc::openat.real(directory, path, flags, mode); });
    };
    libc::read.hook = [](int descriptor, void *bytes, size_t size) {
        return madeInParts(READ, size, [&](size_t part) { return libc::read.real(descriptor, bytes, part); });
    };
    libc::pread.hook = [](int descriptor, void *bytes, size_t size, off_t offset) {
        return madeInParts(PREAD, size,
                           [&](size_t part) { return libc::pread.real(descriptor, bytes, part, offset); });
    };
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) {
        return madeInParts(WRITE, size,
                           [&](size_t part) { return libc::write.real(descriptor, bytes, part); });
    };
    EVERY_CALL(lseek, SEEK, off_t{-1}, (int descriptor, off_t offset, int whence),
               (descriptor, offset, whence));
    libc::fsync.hook = [](int) { return made(SYNC, -1, [] { return 0; }); };
    EVERY_CALL(fstat, STATUS, -1, (int descriptor, struct stat *status), (descriptor, status));
    EVERY_CALL(stat, LOOK_UP, -1, (const char *path, struct stat *status), (path, status));
    EVERY_CALL(lstat, LOOK_UP, -1, (const char *path, struct stat *status), (path, status));
    EVERY_CALL(fstatat, LOOK_UP, -1, (int directory, const char *path, struct stat *status, int flags),
               (directory, path, status, flags));
    EVERY_CALL(access, ACCESS, -1, (const char *path, int mode), (path, mode));
    EVERY_CALL(fchmod, CHANGE_MODE, -1, (int descriptor, mode_t mode), (descriptor, mode));
    EVERY_CALL(fchmodat, CHANGE_MODE, -1, (int directory, const char *path, mode_t mode, int flags),
               (directory, path, mode, flags));
    EVERY_CALL(fchown, CHANGE_OWNER, -1, (int descriptor, uid_t user, gid_t group),
               (descriptor, user, group));
    EVERY_CALL(fgetxattr, ATTRIBUTE, ssize_t{-1},
               (int descriptor, const char *name, void *value, size_t size), (descriptor, name, value, size));
    EVERY_CALL(fsetxattr, ATTRIBUTE, -1,
               (int descriptor, const char *name, const void *value, size_t size, int flags),
               (descriptor, name, value, size, flags));
    EVERY_CALL(fremovexattr, ATTRIBUTE, -1, (int descriptor, const char *name), (descriptor, name));
    EVERY_CALL(ftruncate, TRUNCATE, -1, (int descriptor, off_t size), (descriptor, size));
    EVERY_CALL(fallocate, ALLOCATE_ROOM, -1, (int descriptor, int mode, off_t offset, off_t length),
               (descriptor, mode, offset, length));
    EVERY_CALL(link, LINK, -1, (const char *from, const char *to), (from, to));
    EVERY_CALL(linkat, LINK, -1, (int fromDir, const char *from, int toDir, const char *to, int flags),
               (fromDir, from, toDir, to, flags));
    EVERY_CALL(rename, RENAME, -1, (const char *from, const char *to), (from, to));
    EVERY_CALL(renameat2, RENAME, -1,
               (int fromDir, const char *from, int toDir, const char *to, unsigned flags),
               (fromDir, from, toDir, to, flags));
    EVERY_CALL(unlink, REMOVE, -1, (const char *path), (path));
    EVERY_CALL(remove, REMOVE, -1, (const char *path), (path));
    EVERY_CALL(mkdir, MAKE_DIRECTORY, -1, (const char *path, mode_t mode), (path, mode));
    EVERY_CALL(readdir, READ_DIRECTORY, static_cast<dirent *>(nullptr), (DIR * stream), (stream));
    EVERY_CALL(flock, FLOCK, -1, (int descriptor, int operation), (descriptor, operation));
    libc::fcntl.hook = [](int descriptor, int command, void *argument) {
        const bool isLock = command == F_OFD_SETLK || command == F_OFD_SETLKW || command == F_OFD_GETLK;
        return made(isLock ? LOCK_BYTES : OTHER_CONTROL, -1,
                    [&] { return libc::fcntl.real(descriptor, command, argument); });
    };
    libc::close.hook = [](int descriptor) { // it is closed whatever is told
        const Verdict verdict = next(CLOSE);
        const int error = errno;
        const int result = libc::close.real(descriptor);
        if (verdict == Verdict::KILL_AFTER)
            kill(getpid(), SIGKILL);
        if (verdict != Verdict::FAIL)
            return result;
        errno = error;
        return -1;
    };
    libc::fdopen.hook = [](int descriptor, const char *mode) {
        if (!isArmed)
            return libc::fdopen.real(descriptor, mode);
        return made(STREAM, static_cast<FILE *>(nullptr), [&] {
            return fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(descriptor)), mode,
                               {readCookie, writeCookie, seekCookie, closeCookie});
        });
    };
    libc::fclose.hook = [](FILE *stream) {
        const Verdict verdict = next(CLOSE_STREAM);
        const int error = errno;
        const int result = libc::fclose.real(stream);
        if (verdict != Verdict::FAIL)
            return result;
        errno = error;
        return EOF;
    };
    libc::gethostname.hook = [](char *buffer, size_t size) {
        return made(HOST_NAME, -1, [&] {
            snprintf(buffer, size, "hostA");
            return 0;
        });
    };
    libc::getaddrinfo.hook = lookUpHost;
    libc::freeaddrinfo.hook = [](addrinfo *) {};
    libc::getifaddrs.hook = [](ifaddrs **list) {
        static sockaddr_in address;
        static ifaddrs entry;
        address = {};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, "10.0.0.5", &address.sin_addr);
        entry = {};
        entry.ifa_addr = reinterpret_cast<sockaddr *>(&address);
        return made(INTERFACES, -1, [&] {
            *list = &entry;
            return 0;
        });
    };
    libc::freeifaddrs.hook = [](ifaddrs *) {};
    libc::dlopen.hook = [](const char *name, int mode) {
        const bool isFormatter = name != nullptr && strcmp(name, "libzoltLogFormatMsg.so.3") == 0;
        return made(LOAD, static_cast<void *>(nullptr), [&] {
            const bool was = isArmed; // the loader's own calls are not the libraries'
            isArmed = false;
            void *const library = libc::dlopen.real(isFormatter ? formatter : name, mode);
            isArmed = was;
            return library;
        });
    };
    EVERY_CALL(getcwd, WHERE, static_cast<char *>(nullptr), (char *buffer, size_t size), (buffer, size));
    libc::readlink.hook = [](const char *path, char *target, size_t size) {
        return made(READ_LINK, ssize_t{-1}, [&] { return libc::readlink.real(path, target, size); });
    };
    EVERY_CALL(realpath, READ_LINK, static_cast<char *>(nullptr), (const char *path, char *resolved),
               (path, resolved));
    libc::openlog.hook = [](const char *, int, int) {};
    libc::closelog.hook = [] {};
});

// From here on nobody waits: the clock goes on by what is slept, and a little each time that
// it is asked.
inline void useOwnClock() {
    timespec now = {};
    (void)libc::clock_gettime.real(CLOCK_REALTIME, &now); // as old as the files' times
    nowNs = now.tv_sec * NS;
    libc::nanosleep.hook = [](const timespec *pause, timespec *rest) {
        if (next(SLEEP) == Verdict::FAIL) {
            if (rest != nullptr)
                *rest = *pause;
            return -1;
        }
        nowNs += pause->tv_sec * NS + pause->tv_nsec;
        return 0;
    };
    libc::clock_gettime.hook = [](clockid_t, timespec *out) {
        nowNs += TICK_NS;
        *out = {nowNs / NS, nowNs % NS};
        return 0;
    };
    libc::gettimeofday.hook = [](timeval *out, void *) {
        *out = {nowNs / NS, nowNs % NS / 1000};
        return 0;
    };
    libc::time.hook = [](time_t *out) {
        if (out != nullptr)
            *out = nowNs / NS;
        return static_cast<time_t>(nowNs / NS);
    };
}

inline std::string describe(const Plan &what, KindNumber kind) {
    const std::string text = std::string(KINDS[kind].name) + ", number " + std::to_string(what.number);
    const char *name = strerrorname_np(what.error);
    const std::string error = name != nullptr ? name : std::to_string(what.error);
    switch (what.reach) {
    case Reach::ONCE:
        return text + ": " + error;
    case Reach::ONWARDS:
        return text + " and later: " + error;
    case Reach::STORM:
        return text + ": a storm of EINTR";
    case Reach::SHORT:
        return text + ": cut short";
    case Reach::SHORT_ONWARDS:
        return text + " and later: cut short";
    case Reach::KILL_BEFORE:
        return text + ": killed before";
    default:
        return text + ": killed behind";
    }
}

} // namespace every
