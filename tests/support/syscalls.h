// SPDX-License-Identifier: Apache-2.0
// Calls of the C library that a test watches, changes or lets fail. Included by the one
// source file of a test program, it puts its own functions in front of the library's, for
// the test and for the libraries under test; each passes on to the real one until a case
// hangs in a function of its own, which lasts until the next case begins:
//
//     libc::fsync.hook = [](int descriptor) {
//         return failing ? (errno = EIO, -1) : libc::fsync.real(descriptor);
//     };
//
// Threads may call meanwhile; whatever else a hook uses, the case has to guard. What all
// cases of a program need hung in is done by support::eachCase. Calls of other kinds stand
// in headers of their own over SUPPORT_CALL: thread_calls.h, sink_capture.h.
//
// With a sanitizer, "the real one" is the sanitizer's, so that its checks stay.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "support/cases.h"

namespace libc {

// One replaced call. Usable before any constructor has run.
template<typename Signature, typename RealSignature = Signature>
class Call;

template<typename Result, typename... Arguments, typename RealSignature>
class Call<Result(Arguments...), RealSignature> {
  public:
    constexpr explicit Call(const char *functionName) : hook(nullptr), name(functionName) {}
    // What to call instead of the real function; null: nothing.
    std::atomic<Result (*)(Arguments...)> hook;

    Result real(Arguments... arguments) { return realFunction()(arguments...); }
    Result operator()(Arguments... arguments) {
        Result (*const hooked)(Arguments...) = hook.load(std::memory_order_acquire);
        return hooked != nullptr ? hooked(arguments...) : real(arguments...);
    }
    // Each case begins so; the look-up is done before a thread that may be cancelled calls.
    void unhook() {
        hook = nullptr;
        realFunction();
    }

  private:
    RealSignature *realFunction() {
        RealSignature *function = found.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<RealSignature *>(dlsym(RTLD_NEXT, name));
            found.store(function, std::memory_order_relaxed);
        }
        return function;
    }

    std::atomic<RealSignature *> found{nullptr};
    const char *const name;
};

} // namespace libc

// Puts a function in front of the C library's. The last argument is the function's
// exception specification, as its header has it.
#define SUPPORT_CALL(result, name, parameters, arguments, except)                                            \
    namespace libc {                                                                                         \
    inline Call<result parameters> name(#name);                                                              \
    [[maybe_unused]] inline const bool name##Unhooked = support::eachCase([] { name.unhook(); });            \
    }                                                                                                        \
    extern "C" result name parameters except {                                                               \
        return libc::name arguments;                                                                         \
    }

// ---- files -------------------------------------------------------------------------------

SUPPORT_CALL(ssize_t, read, (int descriptor, void *bytes, size_t size), (descriptor, bytes, size), )
SUPPORT_CALL(ssize_t, pread, (int descriptor, void *bytes, size_t size, off_t offset),
             (descriptor, bytes, size, offset), )
SUPPORT_CALL(ssize_t, write, (int descriptor, const void *bytes, size_t size), (descriptor, bytes, size), )
SUPPORT_CALL(off_t, lseek, (int descriptor, off_t offset, int whence), (descriptor, offset, whence), noexcept)
SUPPORT_CALL(int, fsync, (int descriptor), (descriptor), )
SUPPORT_CALL(int, flock, (int descriptor, int operation), (descriptor, operation), noexcept)
SUPPORT_CALL(int, fstat, (int descriptor, struct stat *status), (descriptor, status), noexcept)
SUPPORT_CALL(int, stat, (const char *path, struct stat *status), (path, status), noexcept)
SUPPORT_CALL(int, fchmod, (int descriptor, mode_t mode), (descriptor, mode), noexcept)
SUPPORT_CALL(FILE *, fdopen, (int descriptor, const char *mode), (descriptor, mode), noexcept)
SUPPORT_CALL(int, fclose, (FILE * stream), (stream), )

// ---- directories -------------------------------------------------------------------------

SUPPORT_CALL(int, mkdir, (const char *path, mode_t mode), (path, mode), noexcept)
SUPPORT_CALL(dirent *, readdir, (DIR * stream), (stream), )
SUPPORT_CALL(int, link, (const char *from, const char *to), (from, to), noexcept)
SUPPORT_CALL(int, linkat, (int fromDir, const char *from, int toDir, const char *to, int flags),
             (fromDir, from, toDir, to, flags), noexcept)
SUPPORT_CALL(int, rename, (const char *from, const char *to), (from, to), noexcept)
SUPPORT_CALL(int, renameat2, (int fromDir, const char *from, int toDir, const char *to, unsigned flags),
             (fromDir, from, toDir, to, flags), noexcept)
SUPPORT_CALL(int, unlink, (const char *path), (path), noexcept)
SUPPORT_CALL(int, remove, (const char *path), (path), noexcept)

// ---- clock, host ---------------------------------------------------------------------------

SUPPORT_CALL(time_t, time, (time_t * out), (out), noexcept)
SUPPORT_CALL(int, gettimeofday, (timeval * out, void *zone), (out, zone), noexcept)
SUPPORT_CALL(int, clock_gettime, (clockid_t clock, timespec *out), (clock, out), noexcept)
SUPPORT_CALL(int, nanosleep, (const timespec *pause, timespec *rest), (pause, rest), )
SUPPORT_CALL(int, gethostname, (char *name, size_t size), (name, size), noexcept)
SUPPORT_CALL(int, getaddrinfo,
             (const char *name, const char *service, const addrinfo *hints, addrinfo **list),
             (name, service, hints, list), )
SUPPORT_CALL(int, getifaddrs, (ifaddrs * *list), (list), noexcept)
SUPPORT_CALL(void, freeifaddrs, (ifaddrs * list), (list), noexcept)
SUPPORT_CALL(void, freeaddrinfo, (addrinfo * list), (list), noexcept)

// ---- calls with open ends: the mode of an opening is 0 where it has none
// --------------------------------------------

namespace libc {
inline Call<int(const char *, int, mode_t), int(const char *, int, ...)> open("open");
inline Call<int(int, const char *, int, mode_t), int(int, const char *, int, ...)> openat("openat");
inline Call<int(int, int, void *), int(int, int, ...)> fcntl("fcntl");
[[maybe_unused]] inline const bool OPEN_UNHOOKED = support::eachCase([] {
    open.unhook();
    openat.unhook();
    fcntl.unhook();
});
inline bool hasMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}
} // namespace libc

extern "C" {
int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = libc::hasMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return libc::open(path, flags, mode);
}
int openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = libc::hasMode(flags) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return libc::openat(directory, path, flags, mode);
}
int fcntl(int descriptor, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    return libc::fcntl(descriptor, command, argument);
}

// What the hardened build calls in their place where it knows the buffer's size or that
// there is no mode.
ssize_t __read_chk(int descriptor, void *bytes, size_t size, size_t room);
ssize_t __read_chk(int descriptor, void *bytes, size_t size, size_t) {
    return libc::read(descriptor, bytes, size);
}
ssize_t __pread_chk(int descriptor, void *bytes, size_t size, off_t offset, size_t room);
ssize_t __pread_chk(int descriptor, void *bytes, size_t size, off_t offset, size_t) {
    return libc::pread(descriptor, bytes, size, offset);
}
int __gethostname_chk(char *name, size_t size, size_t room) noexcept;
int __gethostname_chk(char *name, size_t size, size_t) noexcept {
    return libc::gethostname(name, size);
}
int __open_2(const char *path, int flags);
int __open_2(const char *path, int flags) {
    return libc::open(path, flags, 0);
}
int __openat_2(int directory, const char *path, int flags);
int __openat_2(int directory, const char *path, int flags) {
    return libc::openat(directory, path, flags, 0);
}
}
