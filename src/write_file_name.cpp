// SPDX-License-Identifier: Apache-2.0
// Paths of log files and their header, as the writer makes them. What names and header
// lines look like is log_name's.
#include "write_file.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

// ---- paths ---------------------------------------------------------------------------

namespace {

// Room for a name behind the directory, which is put in front as it is: it ends in "/".
size_t formDirectory(LogPath *path, const LogFileState *state) {
    const size_t length = strnlen(state->directory, LOG_DIRECTORY_LENGTH);
    memcpy(path->text, state->directory, length);
    return length;
}

} // namespace

bool formPath(LogPath *path, const LogFileState *state, const LogName *name) {
    const size_t directory = formDirectory(path, state);
    return formLogName(path->text + directory, sizeof path->text - directory, name) != 0;
}

bool formExistingPath(LogPath *path, const LogFileState *state, const char *name) {
    const size_t directory = formDirectory(path, state);
    const size_t size = strlen(name) + 1;
    if (size > sizeof path->text - directory)
        return false;
    memcpy(path->text + directory, name, size);
    return true;
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

uint32_t WriteFileHeader(LogFileState *state, const LogFileHeader *header) {
    if (state == nullptr || header == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    HeaderLine fields = {};
    fields.version = header->version;
    fields.product = header->productId;
    fields.originator = header->originatorId;
    fields.created = header->creationTime;
    fields.hasZone = true;
    fields.zone = header->tzOffset;
    fields.host = header->hostName; // one that fills its field has no end
    fields.hostLength = strnlen(header->hostName, sizeof header->hostName);
    char line[HEADER_LINE_SIZE];
    const auto length = static_cast<int32_t>(formHeaderLine(line, &fields));
    if (length == 0 || zoltLogOs_write(&state->file, line, length) != length)
        return ZOLTLOG_FAILED;
    return ZOLTLOG_OK;
}
