// The writer of log files, for its own parts: names and header, creation, recycling.
#pragma once

#include "bin2txt.h"
#include "log_name.h"
#include "zoltlog.h"

#include <stddef.h>

inline constexpr size_t HOST_NAME_SIZE = HEADER_HOST_SIZE;
using HostName = char[HOST_NAME_SIZE + 1];

// ---- the writer of a series -------------------------------------------------------

// What the writer keeps of a series besides the exported state, which its caller may have
// allocated: it lies beside the state and is found by its address.
struct Writer {
    LogFileState *state;
    Writer *next;          // of its chain in the register
    uint64_t sizeThen;     // of the open file, when last asked
    uint64_t ownSince;     // bytes that were appended here since
    int64_t sizeAskedAt;   // monotonic ns, taken before asking; 0 when not asked yet
    int64_t nameSecond;    // log set: the second that the file's name tells
    int64_t stoppedSecond; // log set: where the clock stood still while the next second was waited for
    bool opened;           // a file of the series was opened once
    bool torn;             // the open file ends inside a line
    RecordIdentity identity;
    uint64_t hostId;     // as the name service gave it for hostName
    int64_t hostKnownAt; // monotonic ns, taken after asking; 0 when not asked yet
    HostName hostName;
};

inline constexpr int64_t NS_PER_SECOND = 1000000000;
int64_t monotonicNs();
void sleepNs(long ns); // below a second

// ---- opening (write_file_open.cpp) --------------------------------------------------

// Opens the next file of the series. On failure no file is open and the state still
// tells of the one before. *created, which may be null, says that the file was made here.
uint32_t openNextFile(Writer *writer, bool *created);

// Opens the file that the series continues in: its latest one, or the first.
uint32_t openLatestFile(Writer *writer);

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

enum class Creation { CREATED, NAME_TAKEN, FAILED };

// Makes a file that appears under its name with the header line already in it, and
// leaves it open for appending in state->file. *result is the result code of FAILED.
Creation createLogFile(LogFileState *state, const char *path, const LogFileHeader *header, uint32_t *result);

// The one translation of a result of zoltLogOs_open to a result code.
uint32_t resultOfOpen(int32_t opened);

// ---- recycling (write_file_recycle.cpp) --------------------------------------------

// Removes the surplus files of the state's series. The lock is held. Always 0.
uint32_t recycleLogFiles(LogFileState *state);
