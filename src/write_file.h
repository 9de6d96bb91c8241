// SPDX-License-Identifier: Apache-2.0
// The writer of log files, for its own parts: the record of a series, opening, creation,
// who holds a file, the host's number, recycling; and for who ends a file from outside.
#pragma once

#include "bin2txt.h"
#include "log_name.h"
#include "zoltlog.h"

#include <cstddef>
#include <ctime>
#include <sys/stat.h>

inline constexpr size_t HOST_NAME_SIZE = HEADER_HOST_SIZE;
using HostName = char[HOST_NAME_SIZE + 1];

// ---- the writer of a series -------------------------------------------------------

// What the writer keeps of a series besides the exported state, which its caller may have
// allocated: it lies beside the state and is found by its address.
struct Writer {
    LogFileState *state;
    Writer *next; // of its chain in the register

    // The open file, when it was last looked at.
    int64_t lookedAt;    // monotonic ns, coarse; 0 when not yet
    uint64_t sizeThen;   // bytes
    uint64_t ownSince;   // bytes that were appended here since
    int64_t sizeAskedAt; // monotonic ns, taken before asking; 0: to be asked before it is used

    uint32_t unlisted; // contexts that write here and are on no list

    bool sameName; // the file is to be opened anew under the name it had, if the day is the same
    bool opened;   // a file of the series was opened once
    bool readable; // the open file may be read as well
    bool held;     // nobody can take the open file for one without a writer
    bool marked;   // with takeMark
    bool torn;     // the open file ends inside a line
    bool ended;    // the open file is to get no more records

    // An originator's file into which the open contexts were written, or their own records.
    LogFileDate contextsDate;
    int64_t contextsCounter;
    int64_t contextsStart;

    int64_t nameSecond;         // log set: the second that the file's name tells, of one opened within it
    int64_t nameTime;           // log set: the time of the name, as the search for the latest file has it
    int64_t stoppedSecond;      // log set: where the clock stood still while the next second was waited for
    int64_t directoryBusyUntil; // monotonic ns, see DirectoryLock
    RecordNumbers lastNumbers;
};

inline constexpr int64_t NS_PER_SECOND = 1000000000;

inline int64_t clockNs(clockid_t clock) {
    timespec now;
    (void)clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * NS_PER_SECOND + now.tv_nsec;
}
inline int64_t monotonicNs() {
    return clockNs(CLOCK_MONOTONIC);
}
// A few milliseconds behind, at a quarter of the price.
inline int64_t coarseNs() {
    return clockNs(CLOCK_MONOTONIC_COARSE);
}
inline void sleepNs(long ns) { // below a second
    const timespec pause = {0, ns};
    (void)nanosleep(&pause, nullptr);
}

// A file that was not looked at for so long is looked at before it is written to.
inline constexpr int64_t LOOK_EVERY_NS = NS_PER_SECOND / 10 * 9;

// A file with this permission bit, which says nothing to the system of a regular file, is to get
// no more records: its writers go on in the next file of the series when they look at it, each
// within LOOK_EVERY_NS or before its next message. `qdlogmgr rotate` sets it. Where new files have
// the bit by configuration it says nothing.
inline constexpr mode_t ENDED = S_ISVTX;

inline bool isEnded(const LogFileState *state, const struct stat &file) {
    return (file.st_mode & ENDED) != 0 && (state->permissions.mode & ENDED) == 0;
}

// Looks the host's number up again when a rollover found it out of date. Called before a
// message takes the global lock, so that a slow name service delays its caller only.
void lookUpHostAgain();
extern bool hostOutOfDate; // a rollover found it so; read and stored atomically
inline void refreshHost() {
    if (__atomic_load_n(&hostOutOfDate, __ATOMIC_RELAXED))
        lookUpHostAgain();
}

// zoltLogCloseFile for a thread that holds the lock.
uint32_t closeFileLocked(LogHandle *handle);

// For a thread that holds the lock: closes the handle or context that a record still is
// which is about to become a context. It would otherwise be on a list twice, as a circle.
void leaveFile(LogHandle *record);

// ---- opening (write_file_open.cpp) --------------------------------------------------

// Opens the next file of the series: the one whose name follows, the latest file of the
// series when that name is free and the series is ahead, or else a new one. On failure no
// file is open and the state still tells of the one before. *created says that the file was
// made here.
uint32_t openNextFile(Writer *writer, bool *created);

// Opens the file that the series continues in: its latest one, or the first.
uint32_t openLatestFile(Writer *writer);

void closeFile(Writer *writer);
void endMark(Writer *writer);

// The file ends inside a line that nobody is writing at the moment. Waits for who is.
bool endsInsideLine(int descriptor);

// Sets when a LocalTime or Periodic rollover of the open file is due.
void setNextRollover(LogFileState *state, int64_t now);

// ---- paths and the header (write_file_name.cpp) -----------------------------------

inline constexpr size_t LOG_DIRECTORY_LENGTH = sizeof(LogFileState::directory) - 1;
inline constexpr size_t LOG_NAME_LENGTH = 255; // the system's longest file name
inline constexpr size_t LOG_PATH_SIZE = LOG_DIRECTORY_LENGTH + LOG_NAME_LENGTH + 1;

struct LogPath {
    char text[LOG_PATH_SIZE];
};

// Each forms directory and name of a file; false when they do not fit.
bool formPath(LogPath *path, const LogFileState *state, const LogName *name);
bool formExistingPath(LogPath *path, const LogFileState *state, const char *name);

// ---- creation (write_file_create.cpp) ----------------------------------------------

enum class Creation { CREATED, NameTaken, FAILED };

// Makes a file that appears under its name with the header line already in it, and
// leaves it open for appending in state->file. *result is the result code of FAILED.
Creation createLogFile(LogFileState *state, const char *path, const LogFileHeader *header, uint32_t *result);

// The one translation of a result of zoltLogOs_open to a result code.
uint32_t resultOfOpen(int32_t opened);

// ---- holding (write_file_hold.cpp) ---------------------------------------------------

enum class Taken { YES, ByAnother, NoLocks }; // the last: not to be had on this file system

// A writer's own: the hold, until the file is closed, and the mark.
Taken takeHold(int descriptor);
Taken takeMark(int descriptor, bool readable);
void giveMarkBack(int descriptor);

// The recycler's, until the file is closed: that there is no writer, and that none of them
// is looking.
Taken takeAlone(int descriptor);
Taken takeAllMarks(int descriptor);

// For the length of a scope, if it can be had within a few milliseconds: who ends a line.
struct LineEndLock {
    explicit LineEndLock(int file);
    ~LineEndLock();
    LineEndLock(const LineEndLock &) = delete;
    LineEndLock &operator=(const LineEndLock &) = delete;

    const int descriptor;
};

// Likewise: who makes the next file of the directory. held is false where the lock could not
// be had.
struct DirectoryLock {
    explicit DirectoryLock(Writer *writer);
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;

    int descriptor = -1;
    bool held = false;
};

// ---- the host's number (write_file_host.cpp) ---------------------------------------

struct HostNumber {
    uint64_t number;    // 0 when it could not be told
    uint64_t addresses; // of the interfaces then
    int64_t knownAt;    // monotonic ns
    HostName name;
};

bool readHostName(HostName *name);

// Asks the name service, without the global lock.
void lookUpHost(HostNumber *host);

// Under the lock: keeps the answer for all series; the number of the host of that name,
// from the name service only when it was never asked.
void keepHost(const HostNumber *host);
uint64_t hostNumber(const HostName &name);

// ---- recycling (write_file_recycle.cpp) --------------------------------------------

// Removes the surplus files of the state's series. The lock is held. Always 0.
uint32_t recycleLogFiles(LogFileState *state);

// For how long the wall clock is known to have gone with the monotonic one, ns: since the
// first call, or since the last one that found it set.
int64_t compareClocks();
