// SPDX-License-Identifier: Apache-2.0
// Creation of log files: a file appears under its name with its header line already in
// it, also when several processes start it at the same moment. It is made without a
// name, or under a name that listings skip, and then linked; a link never replaces a
// file and never follows a symbolic link, so exactly one process creates the file and
// the others learn that the name is taken. Where none of this is to be had, the file is made
// under its name and gets its header then: somebody may see it empty for an instant, and
// leave it for one of his own.
#include "write_file.h"

#include "os.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
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

// Does not end in ".log": no listing shows a file of this name that a crash left.
constexpr char TEMPORARY_FORMAT[] = "%.*s.new-%lu-%lu-%d";
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

// A file under a temporary name; a result of zoltLogOs_open.
int32_t openTemporary(LogFileState *state, char (&name)[TEMPORARY_SIZE]) {
    int32_t opened = ZOLTLOG_OS_OPEN_FAILED;
    for (int number = 0; number < TEMPORARY_NAMES; ++number) {
        timespec now;
        (void)clock_gettime(CLOCK_MONOTONIC, &now);
        (void)snprintf(name, sizeof name, TEMPORARY_FORMAT, static_cast<int>(LOG_DIRECTORY_LENGTH),
                       state->directory, static_cast<unsigned long>(getpid()),
                       static_cast<unsigned long>(now.tv_nsec), number);
        opened = openDescriptor(name, OS_MODE_NEW, state->permissions.mode, &state->file.descriptor);
        if (opened == ZOLTLOG_OS_OK || errno != EEXIST)
            break;
    }
    return opened;
}

Creation createByTemporary(LogFileState *state, const char *path, const LogFileHeader *header,
                           uint32_t *result) {
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
