// SPDX-License-Identifier: Apache-2.0
// How the writers of a file, and the process that recycles it, keep out of each other's
// way. Everything is asked without waiting, and the system gives all of it back when a
// process dies.
//
//   the hold    a shared flock that each writer keeps on its file. Who gets the file
//               exclusively knows that it has no writer.
//   the mark    a byte of the file's lock space, far behind its end and of each process
//               its own, locked while a writer that has not looked at its file for a while
//               looks and writes. The recycler removes a file only while it has all the
//               marks, so that such a writer finds the name there or gone, and never sees
//               it go in between.
//   the end     another such byte, for whoever ends a line that was cut off.
//   directory   an exclusive flock, while the next file of a series is looked for and made.
//
// An flock belongs to the open file description: a forked child shares its parent's, two
// descriptors of one process are two. The bytes are locks of the description as well
// (F_OFD_SETLK), where each process uses its own, since parent and child may both mark.
#include "write_file.h"

#include "os.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr off_t MARKS = off_t{1} << 62;
constexpr off_t MARKS_LENGTH = off_t{1} << 32; // more than there are process ids
constexpr off_t LINE_END = MARKS + MARKS_LENGTH;

// For how long another's lock is waited for: it is held for some hundred microseconds.
constexpr int LOCK_LOOKS = 100;
constexpr long LOCK_WAIT_NS = 1000000;
// A directory whose lock was waited for in vain is for a while not waited for so long.
constexpr int64_t DIRECTORY_BUSY_FOR_NS = 10 * NS_PER_SECOND;
constexpr int LOCK_LOOKS_WHILE_BUSY = 5;

Taken taken(int result) {
    if (result == 0)
        return Taken::YES;
    return errno == EWOULDBLOCK || errno == EAGAIN || errno == EACCES ? Taken::ByAnother : Taken::NoLocks;
}

Taken lockBytes(int descriptor, short kind, off_t start, off_t length) {
    struct flock lock = {};
    lock.l_type = kind;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return taken(fcntl(descriptor, F_OFD_SETLK, &lock));
}

off_t ownMark() {
    return MARKS + static_cast<off_t>(getPID() % static_cast<uint64_t>(MARKS_LENGTH));
}

} // namespace

Taken takeHold(int descriptor) {
    return taken(flock(descriptor, LOCK_SH | LOCK_NB));
}

Taken takeAlone(int descriptor) {
    return taken(flock(descriptor, LOCK_EX | LOCK_NB));
}

Taken takeMark(int descriptor, bool readable) {
    // Shared where that is possible: on file systems that make one kind of lock of both, it
    // then agrees with the holds of others.
    return lockBytes(descriptor, readable ? F_RDLCK : F_WRLCK, ownMark(), 1);
}

void giveMarkBack(int descriptor) {
    (void)lockBytes(descriptor, F_UNLCK, ownMark(), 1);
}

Taken takeAllMarks(int descriptor) {
    return lockBytes(descriptor, F_WRLCK, MARKS, MARKS_LENGTH);
}

LineEndLock::LineEndLock(int file) : descriptor(file) {
    for (int look = 0; lockBytes(descriptor, F_WRLCK, LINE_END, 1) == Taken::ByAnother; ++look) {
        if (look == LOCK_LOOKS)
            break;
        sleepNs(LOCK_WAIT_NS);
    }
}

LineEndLock::~LineEndLock() {
    (void)lockBytes(descriptor, F_UNLCK, LINE_END, 1);
}

DirectoryLock::DirectoryLock(Writer *writer) {
    do
        descriptor = open(writer->state->directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    while (descriptor == -1 && errno == EINTR);
    descriptor = aboveStdio(descriptor);
    if (descriptor == -1)
        return;
    for (int look = 0;; ++look) {
        const Taken alone = takeAlone(descriptor);
        held = alone == Taken::YES;
        if (alone != Taken::ByAnother)
            return;
        const int64_t now = monotonicNs();
        const bool busy = now < writer->directoryBusyUntil;
        if (look == (busy ? LOCK_LOOKS_WHILE_BUSY : LOCK_LOOKS)) {
            if (!busy)
                writer->directoryBusyUntil = now + DIRECTORY_BUSY_FOR_NS;
            return;
        }
        sleepNs(LOCK_WAIT_NS);
    }
}

DirectoryLock::~DirectoryLock() {
    if (descriptor != -1)
        close(descriptor);
}
