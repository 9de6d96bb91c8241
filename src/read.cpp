// SPDX-License-Identifier: Apache-2.0
// Reading log files: lines, headers, what file names and date texts tell.
//
// It owns the record reader, the header readers and the log file entry. The forms of
// names and header lines are log_name's; the search for the latest file is
// read_latest.cpp; listing and filters are units beside.
//
// Order of sections: the record reader; headers; log file entries; file names; date
// and time texts.
#include "read.h"

#include "cancellation.h"
#include "log_name.h"
#include "os.h"
#include "text_msg.h"

#include <cstdlib>
#include <cstring>

namespace {

// ---- the record reader ---------------------------------------------------------

const int32_t NO_MEMORY_FOR_RECORD = -1;
const int32_t READ_SIZE = sizeof(OsFile::buffer);

// Appends bytes, each CR as LF: the encoder writes the line feeds of a text as CR.
char *appendLine(TextBuffer *buffer, const char *bytes, size_t length) {
    char *line = text_msg_alloc(buffer, length);
    if (line == nullptr)
        return nullptr;
    memcpy(line, bytes, length);
    char *const end = line + length;
    char *at = line;
    while ((at = static_cast<char *>(memchr(at, '\r', static_cast<size_t>(end - at)))) != nullptr)
        *at++ = '\n';
    return line;
}

// As readrecord, in reads of at most readSize; 0 also when the line is longer than limit.
int32_t readLine(OsFile *file, TextBuffer *buffer, int32_t readSize, uint64_t limit) {
    for (uint64_t taken = 0;;) {
        // A read into memory of the caller's own may have counted more than the buffer holds.
        constexpr auto ROOM = static_cast<int32_t>(sizeof file->buffer);
        if (file->readPosition < 0 || file->readPosition >= file->readCount || file->readCount > ROOM) {
            const int32_t count = zoltLogOs_read(file, file->buffer, readSize);
            if (count < 1)
                return count;
        }
        const char *start = file->buffer + file->readPosition;
        const size_t buffered = static_cast<size_t>(file->readCount - file->readPosition);
        const char *lineFeed = static_cast<const char *>(memchr(start, '\n', buffered));
        const size_t length = lineFeed != nullptr ? static_cast<size_t>(lineFeed - start) + 1 : buffered;
        taken += length;
        if (taken > limit)
            return 0;
        char *line = appendLine(buffer, start, length);
        if (line == nullptr)
            return NO_MEMORY_FOR_RECORD;
        file->readPosition += static_cast<int32_t>(length);
        if (lineFeed != nullptr) {
            line[length - 1] = '\0';
            return 1;
        }
    }
}

} // namespace

// KEPT: a CR before the line feed stays, as a line feed, and a last line without a
// line feed is not returned. Pinned by ReadRecord.CarriageReturnBecomesLineFeed and
// ReadRecord.LastLineWithoutLineFeedIsNotReturned.
int32_t readrecord(OsFile *file, TextBuffer *buffer) {
    if (file == nullptr || buffer == nullptr)
        return ZOLTLOG_OS_INVALID_ARGUMENT;
    return readLine(file, buffer, READ_SIZE, UINT64_MAX);
}

namespace {

// ---- headers -------------------------------------------------------------------

const int64_t NO_OFFSET = -1;

// A header has some 600 bytes at most, so one small read usually gets it.
const int32_t HEADER_READ_SIZE = 4096;

// Parses the first record of a file. A header that is too short leaves the fields
// that it lacks at 0, the offset at -1.
uint32_t parseHeader(const char *record, LogFileHeader *header) {
    memset(header, 0, sizeof *header);
    header->tzOffset = NO_OFFSET;
    HeaderLine line;
    const HeaderParsed parsed = parseHeaderLine(record, strlen(record), HeaderReading::LENIENT, &line);
    header->version = line.version;
    if (parsed == HeaderParsed::NoHeader)
        return ZOLTLOG_FAILED;
    if (parsed != HeaderParsed::OK)
        return ZOLTLOG_UNSUPPORTED_HEADER;
    header->productId = line.product;
    header->originatorId = line.originator;
    header->creationTime = line.created;
    if (line.hasZone)
        header->tzOffset = line.zone;
    const size_t most = sizeof header->hostName - 1;
    memcpy(header->hostName, line.host, line.hostLength < most ? line.hostLength : most);
    return ZOLTLOG_OK;
}

// Reads and parses the first record from the current offset of an open file.
// recordRead tells the reader's result: below 1 means that there was no record.
uint32_t readHeader(OsFile *file, LogFileHeader *header, int32_t *recordRead) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    file->readPosition = -1;
    *recordRead = readLine(file, &buffer, HEADER_READ_SIZE, LONGEST_HEADER_LINE);
    uint32_t result = ZOLTLOG_FAILED;
    if (*recordRead > 0)
        result = parseHeader(buffer.data, header);
    free_text_msg(&buffer);
    return result;
}

} // namespace

uint32_t ReadHeaderEx(OsFile *file, LogFileHeader *header) {
    const CancellationOff off;
    if (file == nullptr || header == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    memset(header, 0, sizeof *header);
    int32_t recordRead = 0;
    return readHeader(file, header, &recordRead);
}

uint32_t ReadHeader(LogFileEntry *entry, LogFileHeader *header) {
    const CancellationOff off;
    if (entry == nullptr || header == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    int32_t recordRead = 0;
    const uint32_t result = readHeader(&entry->file, header, &recordRead);
    // KEPT: without a line, header and entry are left alone. Pinned by
    // ReadHeader.AnEmptyFileLeavesTheHeaderAlone.
    if (recordRead == 0)
        return result;
    if (recordRead < 0) {
        memset(header, 0, sizeof *header);
        header->tzOffset = NO_OFFSET;
    }
    entry->tzOffset = NO_OFFSET;
    if (result == ZOLTLOG_OK) {
        entry->headerVersion = header->version;
        entry->tzOffset = header->tzOffset; // -1 for the versions that carry none
    }
    return result;
}

namespace {

// ---- log file entries ----------------------------------------------------------

const uint32_t READ_PERMISSIONS = 0660;

} // namespace

int64_t zoltLogOsListLogFilesCreattime(OsLogFileCursor *cursor) {
    const CancellationOff off;
    const LogOwned<char> path = currentPath(cursor);
    const LogOwned<OsFile> file(static_cast<OsFile *>(malloc(sizeof(OsFile)))); // too big for a small stack
    if (path == nullptr || file == nullptr)
        return 0;
    if (zoltLogOs_open(file.get(), path.get(), ZOLTLOG_OS_MODE_READ, 0) != ZOLTLOG_OS_OK)
        return 0;
    LogFileHeader header = {};
    const uint32_t result = ReadHeaderEx(file.get(), &header);
    zoltLogOs_close(file.get());
    return result == ZOLTLOG_OK ? static_cast<int64_t>(header.creationTime) : 0;
}

LogFileEntry *alloc_file(OsLogFileCursor *cursor) {
    const CancellationOff off;
    if (cursor == nullptr)
        return nullptr;
    const char *name = zoltLogOsListLogFilesName(cursor);
    if (name == nullptr)
        return nullptr;
    const size_t length = strlen(name);
    // calloc, since fresh pages of the large read buffer then stay untouched.
    LogFileEntry *entry = static_cast<LogFileEntry *>(calloc(1, offsetof(LogFileEntry, name) + length + 1));
    if (entry == nullptr)
        return nullptr;
    memcpy(entry->name, name, length + 1);
    entry->creationTime = zoltLogOsListLogFilesCreattime(cursor);
    zoltLogOs_initfilehandle(&entry->file);
    return entry;
}

int32_t getHostnameFromFile(OsLogFileCursor *cursor, const char *directory, char *hostName) {
    const CancellationOff off;
    if (cursor == nullptr || directory == nullptr || hostName == nullptr)
        return 0;
    const char *name = zoltLogOsListLogFilesName(cursor);
    if (name == nullptr)
        return 0;
    const LogOwned<char> path = joinedText(directory, name);
    if (path == nullptr)
        return 0;

    const LogOwned<OsFile> file(static_cast<OsFile *>(zoltLogMalloc(sizeof(OsFile)))); // large for a stack
    if (file == nullptr)
        return 0;
    zoltLogOs_initfilehandle(file.get());
    if (zoltLogOs_open(file.get(), path.get(), ZOLTLOG_OS_MODE_READ, READ_PERMISSIONS) != ZOLTLOG_OS_OK)
        return 0;
    LogFileHeader header;
    (void)ReadHeaderEx(file.get(), &header); // without a header the name is empty
    zoltLogOs_close(file.get());
    memcpy(hostName, header.hostName, sizeof header.hostName);
    return 1;
}

// ---- file names ----------------------------------------------------------------

int32_t getidfromfilename(const char *name, uint64_t *productId, uint64_t *originatorId) {
    if (name == nullptr || productId == nullptr || originatorId == nullptr)
        return 0;
    const NameParts parts = splitLogName(name);
    if (parts.part[0].length > 0)
        *productId = numberOfPart(parts.part[0]);
    if (parts.part[1].length > 0)
        *originatorId = numberOfPart(parts.part[1]);
    return *productId != 0 && *originatorId != 0;
}

// KEPT: a log set name that holds a '-' is cut there, and the date is then taken
// from the wrong place. Pinned by FileNames.ALogSetNameIsCutAtAHyphen.
int32_t getSLidfromfilename(const char *name, uint64_t *productId, char *logsetName, char *dateTime) {
    if (name == nullptr || productId == nullptr || logsetName == nullptr || dateTime == nullptr)
        return 0;
    const NameParts parts = splitLogName(name);
    const NamePart &set = parts.part[1];
    const NamePart &stamp = parts.part[2];
    if (parts.part[0].length > 0)
        *productId = numberOfPart(parts.part[0]);
    if (set.length > 0) {
        const size_t length = set.length < LOGSET_NAME_ROOM ? set.length : LOGSET_NAME_ROOM - 1;
        memcpy(logsetName, set.start, length);
        logsetName[length] = '\0';
    }
    if (stamp.length > 0) {
        const size_t length = stamp.length < DATE_TIME_ROOM ? stamp.length : DATE_TIME_ROOM - 1;
        memset(dateTime, 0, DATE_TIME_ROOM);
        memcpy(dateTime, stamp.start, length);
    }
    return *productId != 0 && logsetName[0] != '\0';
}

namespace {

// ---- date and time texts -------------------------------------------------------

const int32_t FIRST_TM_YEAR = 1900;

} // namespace

int32_t zoltLogGetDate(const char *text, int32_t *day, int32_t *month, int32_t *year) {
    const int32_t result = zoltLogStrTimeToT(text, "-", year, month, day);
    if (result == 1) { // numbers that ran over stay so, and mktime refuses or shifts them
        (void)__builtin_sub_overflow(*year, FIRST_TM_YEAR, year);
        (void)__builtin_sub_overflow(*month, 1, month);
    }
    return result;
}

int64_t zoltLogStrDateTimeToT(const char *text) {
    struct tm date = {};
    char *copy = zoltLogSafeStrdup(text);
    if (copy == nullptr)
        return -1;
    int32_t done = 0;
    struct tm today;
    if (zoltLogOs_localtime_r(time(nullptr), &today) == nullptr)
        goto out;
    date.tm_mday = today.tm_mday;
    date.tm_mon = today.tm_mon;
    date.tm_year = today.tm_year;

    if (strchr(copy, '-') != nullptr) {
        copy[strcspn(copy, ":")] = '\0';
        // KEPT: year and day change places, so 2015-03-20 is day 115 of March 1920.
        // Pinned by DateTexts.YearAndDayChangePlaces.
        done = zoltLogGetDate(copy, &date.tm_year, &date.tm_mon, &date.tm_mday);
    } else if (strchr(copy, ':') != nullptr) {
        done = zoltLogGetTime(copy, &date.tm_hour, &date.tm_min, &date.tm_sec);
    }
out:
    zoltLogFree(copy);
    // KEPT: the time is taken as standard time also in summer (tm_isdst stays 0).
    // Pinned by DateTexts.TheTimeIsStandardTimeAlsoInSummer.
    return done == 1 ? mktime(&date) : -1;
}
