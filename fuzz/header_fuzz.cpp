// SPDX-License-Identifier: Apache-2.0
// Headers and records of a log file with any bytes: the header must be what scanf's
// own conversions make of the first line, the records must be the file's lines.
#include "fuzz/memory_files.h"
#include "fuzz/require.h"
#include "zoltlog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

const size_t LONGEST_HEADER_LINE = 65536;

using fuzz::require;

// A line as readers give it: its carriage returns are line feeds.
std::string lineFeedsFor(std::string line) {
    for (char &c : line)
        if (c == '\r')
            c = '\n';
    return line;
}

uint32_t expectedHeader(const std::string &line, LogFileHeader *header) {
    char word[21] = "";
    *header = {};
    header->tzOffset = -1;
    const char *text = line.c_str();
    sscanf(text, "%20s %lu", word, &header->version);
    if (strcmp(word, "$Header") != 0)
        return 1;
    switch (header->version) {
    case ZOLTLOG_RECORD_VERSION_ORIGINATOR:
        sscanf(text, "%*s %*u,%lu,%lu,%lu,%ld,%511s", &header->productId, &header->originatorId,
               &header->creationTime, &header->tzOffset, header->hostName);
        return 0;
    case ZOLTLOG_RECORD_VERSION_LOGSET:
        sscanf(text, "%*s %*u,%lu,%511s", reinterpret_cast<uint64_t *>(&header->tzOffset), header->hostName);
        return 0;
    case ZOLTLOG_RECORD_VERSION_OLDEST:
    case ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO:
    case ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX:
        sscanf(text, "%*s %*u,%lu,%lu,%lu,%511s", &header->productId, &header->originatorId,
               &header->creationTime, header->hostName);
        return 0;
    default:
        return 48;
    }
}

void compare(const LogFileHeader &a, const LogFileHeader &b) {
    require(a.version == b.version, "version");
    require(a.productId == b.productId, "product id");
    require(a.originatorId == b.originatorId, "originator id");
    require(a.creationTime == b.creationTime, "creation time");
    require(a.tzOffset == b.tzOffset, "offset");
    require(memcmp(a.hostName, b.hostName, sizeof a.hostName) == 0, "host name");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    static LogFileEntry entry;
    memory::writeFile("/memory/file", data, size);
    require(zoltLogOs_open(&entry.file, "/memory/file", ZOLTLOG_OS_MODE_READ, 0) == ZOLTLOG_OS_OK, "file");

    // The header
    const size_t firstLength = bytes.find('\n');
    const bool hasLine = firstLength != std::string::npos && firstLength < LONGEST_HEADER_LINE;
    LogFileHeader expected = {};
    LogFileHeader header;
    const uint32_t result =
        hasLine ? expectedHeader(lineFeedsFor(bytes.substr(0, firstLength)), &expected) : 1;
    lseek(entry.file.descriptor, 0, SEEK_SET);
    require(ReadHeaderEx(&entry.file, &header) == result, "result of ReadHeaderEx");
    compare(header, expected);
    lseek(entry.file.descriptor, 0, SEEK_SET);
    memset(&header, 0, sizeof header);
    require(ReadHeader(&entry, &header) == result, "result of ReadHeader");
    compare(header, expected);

    // The records
    lseek(entry.file.descriptor, 0, SEEK_SET);
    entry.file.readPosition = -1;
    const char *at = bytes.data();
    const char *const end = at + size;
    for (;;) {
        TextBuffer buffer;
        init_text_msg(&buffer);
        const int32_t got = readrecord(&entry.file, &buffer);
        const char *lineFeed =
            at < end ? static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(end - at))) : nullptr;
        require(got == (lineFeed != nullptr), "result of readrecord");
        if (got == 1) {
            const std::string line = lineFeedsFor(std::string(at, lineFeed));
            require(buffer.capacity - buffer.free == line.size() + 1, "length of a record");
            require(memcmp(buffer.data, line.c_str(), line.size() + 1) == 0, "a record");
            at = lineFeed + 1;
        }
        free_text_msg(&buffer);
        if (got != 1)
            break;
    }
    zoltLogOs_close(&entry.file);
    return 0;
}
