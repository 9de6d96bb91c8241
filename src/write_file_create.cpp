// SPDX-License-Identifier: Apache-2.0
// Creation of log files: a file appears under its name with its header line already in
// it, also when several processes start it at the same moment. It is made without a
// name, or under a name that listings skip, and then linked; a link never replaces a
// file and never follows a symbolic link, so exactly one process creates the file and
// the others learn that the name is taken. Where none of this is to be had, the file is made
// under its name and gets its header then: somebody may see it empty for an instant, and
// leave it for one of his own.
//
// Whoever makes a file under another name holds it (write_file_hold.cpp) until it is linked.
// What nobody holds was left by a writer that was killed; the next one that makes such a file
// in the directory removes it.
#include "write_file.h"

#include "os.h"
#include "regular_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

uint32_t resultOfOpen(int32_t opened) {
    switch (opened) {
    case ZOLTLOG_OS_OK:
        return ZOLTLOG_OK;
    case ZOLTLOG_OS_OPEN_DENIED:
        return ZOLTLOG_OPEN_DENIED;
    case ZOLTLOG_OS_OPEN_NO_PATH:
        return ZOLTLOG_OPEN_NO_PATH;
    case ZOLTLOG_OS_OPEN_FAILED:
        return ZOLTLOG_OPEN_FAILED;
    default:
        return ZOLTLOG_FAILED;
    }
}

namespace {

constexpr mode_t PERMISSION_BITS = 07777;
constexpr int TEMPORARY_NAMES = 100; // names tried before giving up

// Does not end in ".log": no listing shows a file of this name. docs/format-log-file.md has it.
constexpr char TEMPORARY_PREFIX[] = ".new-";
constexpr char TEMPORARY_FORMAT[] = "%.*s%s%lu-%lu-%d"; // directory, prefix, process, time, number
constexpr int TEMPORARY_NUMBERS = 3;
// Where files cannot be held, one counts as left behind that nobody has touched for so long.
constexpr time_t STALE_SECONDS = 60;
constexpr size_t TEMPORARY_SIZE = LOG_DIRECTORY_LENGTH + 64;

void closeMade(LogFileState *state) {
    const int error = errno;
    zoltLogOs_close(&state->file);
    errno = error;
}

// A file without a name; false where the file system has none.
bool openUnnamed(LogFileState *state) {
    int descriptor;
    do
        descriptor = open(state->directory, O_TMPFILE | O_WRONLY | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR);
    while (descriptor == -1 && errno == EINTR);
    state->file.descriptor = aboveStdio(descriptor);
    if (state->file.descriptor == -1)
        return false;
    if (fchmod(state->file.descriptor, state->permissions.mode & PERMISSION_BITS) == 0)
        return true;
    closeMade(state);
    return false;
}

bool linkUnnamed(const LogFileState *state, const char *path) {
    char own[32];
    (void)snprintf(own, sizeof own, "/proc/self/fd/%d", state->file.descriptor);
    return linkat(AT_FDCWD, own, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0;
}

// Gives the file its name; where links are not to be had, by a rename that replaces
// nothing.
bool linkNamed(const char *temporary, const char *path) {
    if (link(temporary, path) == 0) {
        (void)unlink(temporary);
        return true;
    }
    if (errno != EEXIST && renameat2(AT_FDCWD, temporary, AT_FDCWD, path, RENAME_NOREPLACE) == 0)
        return true;
    const int error = errno;
    (void)unlink(temporary);
    errno = error;
    return false;
}

// Neither links nor such renames are to be had here.
bool lacksExclusiveNaming(int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

Creation createPlainly(LogFileState *state, const char *path, const LogFileHeader *header, uint32_t *result) {
    const int32_t opened =
        openDescriptor(path, OS_MODE_NEW, state->permissions.mode, &state->file.descriptor);
    if (opened != ZOLTLOG_OS_OK) {
        *result = resultOfOpen(opened);
        return errno == EEXIST ? Creation::NameTaken : Creation::FAILED;
    }
    *result = WriteFileHeader(state, header);
    if (*result == ZOLTLOG_OK)
        return Creation::CREATED;
    (void)unlink(path);
    closeMade(state);
    return Creation::FAILED;
}

bool isTemporaryName(const char *name) {
    constexpr size_t PREFIX = sizeof TEMPORARY_PREFIX - 1;
    if (strncmp(name, TEMPORARY_PREFIX, PREFIX) != 0)
        return false;
    name += PREFIX;
    for (int number = 0; number < TEMPORARY_NUMBERS; ++number) {
        const size_t digits = strspn(name, "0123456789");
        const char end = number + 1 < TEMPORARY_NUMBERS ? '-' : '\0';
        if (digits == 0 || name[digits] != end)
            return false;
        name += digits + 1;
    }
    return true;
}

// Nobody will give this file a name any more, or it has its name already and was only not
// taken away.
bool isLeftBehind(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return false;
    if (status.st_nlink > 1)
        return true;
    const Taken alone = takeAlone(descriptor);
    return alone == Taken::YES ||
           (alone == Taken::NoLocks && status.st_mtim.tv_sec + STALE_SECONDS < time(nullptr));
}

// What cannot be found out stays.
void removeLeftovers(const char *path) {
    const int directory = aboveStdio(openRetrying(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_NONBLOCK));
    DIR *const stream = directory == -1 ? nullptr : fdopendir(directory);
    if (stream == nullptr) {
        if (directory != -1)
            close(directory);
        return;
    }
    while (const struct dirent *entry = readdir(stream)) { // NOLINT(concurrency-mt-unsafe): its own stream
        if (!isTemporaryName(entry->d_name))
            continue;
        const int descriptor = aboveStdio(openRegular(directory, entry->d_name, O_RDONLY | O_NOFOLLOW));
        if (descriptor == -1)
            continue;
        if (isLeftBehind(descriptor))
            (void)unlinkat(directory, entry->d_name, 0);
        close(descriptor);
    }
    closedir(stream);
}

// Holds the file that was just made. False: somebody came before that and removes it.
bool holdTemporary(int descriptor) {
    struct stat status;
    return takeHold(descriptor) != Taken::ByAnother &&
           (fstat(descriptor, &status) != 0 || status.st_nlink != 0);
}

// A file under a temporary name; a result of zoltLogOs_open.
int32_t openTemporary(LogFileState *state, char (&name)[TEMPORARY_SIZE]) {
    int32_t opened = ZOLTLOG_OS_OPEN_FAILED;
    for (int number = 0; number < TEMPORARY_NAMES; ++number) {
        timespec now;
        (void)clock_gettime(CLOCK_MONOTONIC, &now);
        (void)snprintf(name, sizeof name, TEMPORARY_FORMAT, static_cast<int>(LOG_DIRECTORY_LENGTH),
                       state->directory, TEMPORARY_PREFIX, static_cast<unsigned long>(getpid()),
                       static_cast<unsigned long>(now.tv_nsec), number);
        opened = openDescriptor(name, OS_MODE_NEW, state->permissions.mode, &state->file.descriptor);
        if (opened != ZOLTLOG_OS_OK) {
            if (errno != EEXIST)
                break;
            continue;
        }
        if (holdTemporary(state->file.descriptor))
            break;
        zoltLogOs_close(&state->file);
        errno = EEXIST;
        opened = ZOLTLOG_OS_OPEN_FAILED;
    }
    return opened;
}

Creation createByTemporary(LogFileState *state, const char *path, const LogFileHeader *header,
                           uint32_t *result) {
    removeLeftovers(state->directory);
    char name[TEMPORARY_SIZE];
    const int32_t opened = openTemporary(state, name);
    if (opened != ZOLTLOG_OS_OK) {
        *result = resultOfOpen(opened);
        return Creation::FAILED;
    }
    *result = WriteFileHeader(state, header);
    if (*result != ZOLTLOG_OK) {
        (void)unlink(name);
        closeMade(state);
        return Creation::FAILED;
    }
    if (linkNamed(name, path))
        return Creation::CREATED;
    closeMade(state);
    if (errno == EEXIST)
        return Creation::NameTaken;
    if (lacksExclusiveNaming(errno))
        return createPlainly(state, path, header, result);
    *result = resultOfOpen(openResultOfErrno(errno));
    return Creation::FAILED;
}

} // namespace

Creation createLogFile(LogFileState *state, const char *path, const LogFileHeader *header, uint32_t *result) {
    if (openUnnamed(state)) {
        *result = WriteFileHeader(state, header);
        if (*result != ZOLTLOG_OK) {
            closeMade(state);
            return Creation::FAILED;
        }
        if (linkUnnamed(state, path))
            return Creation::CREATED;
        closeMade(state);
        if (errno == EEXIST)
            return Creation::NameTaken;
    }
    // No unnamed files here, or no /proc to name them by; the other way also finds the
    // reason when there is a real one.
    return createByTemporary(state, path, header, result);
}
