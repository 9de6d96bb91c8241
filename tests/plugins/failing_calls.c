/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded into programs: calls that the environment tells fail, and the files that are opened
 * are listed.
 *
 *   FAILING_CALLS  holds "locks": files have no locks; "write": regular files have no space left
 *   OPENED_FILES   a file that gets the path of each opening, one a line
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static int fails(const char *call) {
    const char *list = getenv("FAILING_CALLS");
    return list != NULL && strstr(list, call) != NULL;
}

static void *next(const char *name) {
    return dlsym(RTLD_NEXT, name);
}

/* ---- locks ------------------------------------------------------------------------------- */

int fcntl(int descriptor, int command, ...) {
    int (*real)(int, int, ...);
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    if ((command == F_OFD_SETLK || command == F_OFD_SETLKW || command == F_OFD_GETLK) && fails("locks")) {
        errno = ENOLCK;
        return -1;
    }
    *(void **)&real = next("fcntl");
    return real(descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    return fcntl(descriptor, command, argument);
}

int flock(int descriptor, int operation) {
    int (*real)(int, int);
    if (fails("locks")) {
        errno = ENOLCK;
        return -1;
    }
    *(void **)&real = next("flock");
    return real(descriptor, operation);
}

/* ---- writing ------------------------------------------------------------------------------- */

ssize_t write(int descriptor, const void *bytes, size_t size) {
    ssize_t (*real)(int, const void *, size_t);
    struct stat status;
    if (fails("write") && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        errno = ENOSPC;
        return -1;
    }
    *(void **)&real = next("write");
    return real(descriptor, bytes, size);
}

/* ---- opening ------------------------------------------------------------------------------- */

static void list(const char *path) {
    const char *name = getenv("OPENED_FILES");
    if (name == NULL)
        return;
    const int file =
        (int)syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    char line[4200];
    const int size = snprintf(line, sizeof line, "%s\n", path);
    if (file < 0 || syscall(SYS_write, file, line, (size_t)size) != size)
        abort();
    close(file);
}

static int openListed(int directory, const char *path, int flags, mode_t mode) {
    list(path);
    return (int)syscall(SYS_openat, directory, path, flags, mode);
}

#define OPENING(name)                                                                                        \
    int name(const char *path, int flags, ...) {                                                             \
        va_list rest;                                                                                        \
        va_start(rest, flags);                                                                               \
        const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;                               \
        va_end(rest);                                                                                        \
        return openListed(AT_FDCWD, path, flags, mode);                                                      \
    }
#undef open
#undef open64
OPENING(open)
OPENING(open64)

int openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return openListed(directory, path, flags, mode);
}

int __open_2(const char *path, int flags);
int __open_2(const char *path, int flags) {
    return openListed(AT_FDCWD, path, flags, 0);
}

int __open64_2(const char *path, int flags);
int __open64_2(const char *path, int flags) {
    return openListed(AT_FDCWD, path, flags, 0);
}

FILE *fopen(const char *path, const char *mode) {
    FILE *(*real)(const char *, const char *);
    list(path);
    *(void **)&real = next("fopen");
    return real(path, mode);
}

FILE *fopen64(const char *path, const char *mode) {
    return fopen(path, mode);
}
