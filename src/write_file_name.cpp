// Names of log files and their header line.
//
//   originator series   product "-" originator "-" host "-" yymmdd "-" counter ".log"
//   log set series      product "-" name "-" yymmddhhmmss ".log"
//
// Product, originator and host are unsigned 64-bit decimals, the counter has at least
// ten digits, dates and times are local and their year counts from 2000. The directory
// is put in front as it is: it ends in "/". Read by parseOriginatorName below, by
// getidfromfilename and getSLidfromfilename in read.cpp and by the search for the
// latest log in read_latest.cpp.
//
//   header line   "$Header " version "," ... host "\n"
//
// with the fields that formatHeaderLine shows for each version. Read by ReadHeaderEx
// and ReadHeader in read.cpp.
#include "write_file.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

static_assert(offsetof(LogFileHeader, version) == 0);
static_assert(offsetof(LogFileHeader, version) < offsetof(LogFileHeader, productId));
static_assert(offsetof(LogFileHeader, productId) < offsetof(LogFileHeader, originatorId));
static_assert(offsetof(LogFileHeader, originatorId) < offsetof(LogFileHeader, creationTime));
static_assert(offsetof(LogFileHeader, creationTime) < offsetof(LogFileHeader, hostName));
static_assert(offsetof(LogFileHeader, hostName) < offsetof(LogFileHeader, tzOffset));
static_assert(sizeof(LogFileHeader::hostName) == 512);

namespace {

constexpr char HEADER_WORD[] = "$Header";
// Layouts older than the two that this writer makes; read, and written on request.
constexpr uint64_t OLDEST_HEADER_VERSION = 65540;
constexpr uint64_t LAST_OLD_HEADER_VERSION = 65542;

bool fits(int length, size_t size) {
    return length >= 0 && static_cast<size_t>(length) < size;
}

int directoryLength(const LogFileState *state) {
    return static_cast<int>(strnlen(state->directory, LOG_DIRECTORY_LENGTH));
}

} // namespace

// ---- names ---------------------------------------------------------------------------

bool formOriginatorPath(LogPath *path, const LogFileState *state, uint64_t hostId, const LogFileDate *date,
                        int64_t counter) {
    return fits(snprintf(path->text, sizeof path->text, "%.*s%lu-%lu-%lu-%02d%02d%02d-%010lu.log",
                         directoryLength(state), state->directory, state->productId, state->fileOriginatorId,
                         hostId, date->year, date->month, date->day, static_cast<unsigned long>(counter)),
                sizeof path->text);
}

bool formLogsetPath(LogPath *path, const LogFileState *state, const LogFileDate *date) {
    return fits(snprintf(path->text, sizeof path->text, "%.*s%lu-%s-%02d%02d%02d%02d%02d%02d.log",
                         directoryLength(state), state->directory, state->productId, state->logsetFilename,
                         date->year, date->month, date->day, date->hour, date->minute, date->second),
                sizeof path->text);
}

bool formExistingPath(LogPath *path, const LogFileState *state, const char *name) {
    return fits(
        snprintf(path->text, sizeof path->text, "%.*s%s", directoryLength(state), state->directory, name),
        sizeof path->text);
}

void parseOriginatorName(const char *name, LogFileDate *date, int64_t *counter) {
    // Not with sscanf's %d: product, originator and host ids have 64 bits.
    for (int id = 0; id < 3; ++id) {
        name = strchr(name, '-');
        if (name == nullptr)
            return;
        ++name;
    }
    LogFileDate read = {};
    int32_t *const fields[] = {&read.year, &read.month, &read.day};
    for (int32_t *field : fields) {
        for (int digit = 0; digit < 2; ++digit, ++name) {
            if (*name < '0' || *name > '9')
                return;
            *field = *field * 10 + (*name - '0');
        }
    }
    *date = read;
    if (name[0] == '-' && name[1] >= '0' && name[1] <= '9')
        *counter = static_cast<int64_t>(strtoull(name + 1, nullptr, 10));
}

// ---- header --------------------------------------------------------------------------

void InitializeFileHeader(LogFileHeader *header, const LogFileState *state, const char *hostName) {
    if (header == nullptr || state == nullptr)
        return;
    *header = {};
    header->version =
        state->isLogset != 0 ? ZOLTLOG_RECORD_VERSION_LOGSET : ZOLTLOG_RECORD_VERSION_ORIGINATOR;
    header->productId = state->productId;
    header->originatorId = state->fileOriginatorId;
    header->creationTime = static_cast<uint64_t>(time(nullptr));
    header->tzOffset = getLocalTZOffsetFromGMT();
    if (hostName != nullptr)
        memcpy(header->hostName, hostName, strnlen(hostName, HOST_NAME_SIZE));
}

size_t formatHeaderLine(char (&line)[HEADER_LINE_SIZE], const LogFileHeader *header) {
    // A name that fills its field has no terminating NUL.
    constexpr int HOST_MAX = HOST_NAME_SIZE;
    const uint64_t version = header->version;
    int length = 0;
    if (version == ZOLTLOG_RECORD_VERSION_ORIGINATOR)
        length = snprintf(line, sizeof line, "%s %lu,%lu,%lu,%lu,%ld,%.*s\n", HEADER_WORD, version,
                          header->productId, header->originatorId, header->creationTime, header->tzOffset,
                          HOST_MAX, header->hostName);
    else if (version == ZOLTLOG_RECORD_VERSION_LOGSET)
        length = snprintf(line, sizeof line, "%s %lu,%ld,%.*s\n", HEADER_WORD, version, header->tzOffset,
                          HOST_MAX, header->hostName);
    else if (version >= OLDEST_HEADER_VERSION && version <= LAST_OLD_HEADER_VERSION)
        length =
            snprintf(line, sizeof line, "%s %lu,%lu,%lu,%lu,%.*s\n", HEADER_WORD, version, header->productId,
                     header->originatorId, header->creationTime, HOST_MAX, header->hostName);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof line)
        return 0;
    // The header is one line whatever the host is called, as a record is.
    for (char *at = line; (at = strchr(at, '\n')) != line + length - 1;)
        *at = '\r';
    return static_cast<size_t>(length);
}

uint32_t WriteFileHeader(LogFileState *state, const LogFileHeader *header) {
    if (state == nullptr || header == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char line[HEADER_LINE_SIZE];
    const auto length = static_cast<int32_t>(formatHeaderLine(line, header));
    if (length == 0 || zoltLogOs_write(&state->file, line, length) != length)
        return ZOLTLOG_FAILED;
    return ZOLTLOG_OK;
}
