// SPDX-License-Identifier: Apache-2.0
// Reading log files: lines, headers, entries, names, date texts.
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

// The clock of the date texts; 0: the real one.
time_t fakeNow;

const bool PREPARED = support::eachCase([] {
    fakeNow = 0;
    libc::time.hook = [](time_t *out) {
        if (fakeNow == 0)
            return libc::time.real(out);
        if (out != nullptr)
            *out = fakeNow;
        return fakeNow;
    };
});

} // namespace

// An open file of the given bytes.
struct Opened {
    explicit Opened(const std::string &bytes) {
        support::writeFile("f-1.log", bytes);
        EXPECT_EQ(zoltLogOs_initfilehandle(&file), 1);
        EXPECT_EQ(zoltLogOs_open(&file, "f-1.log", 1, 0660), 0);
    }
    ~Opened() { zoltLogOs_close(&file); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;
    OsFile file;
};

namespace {

// The records of a file, one after the other; the last item is the final result.
std::vector<std::string> recordsOf(const std::string &bytes) {
    Opened opened(bytes);
    std::vector<std::string> records;
    for (;;) {
        TextBuffer buffer;
        init_text_msg(&buffer);
        const int32_t result = readrecord(&opened.file, &buffer);
        if (result == 1) {
            const size_t length = static_cast<size_t>(buffer.capacity - buffer.free);
            records.emplace_back(buffer.data, length - 1);
            EXPECT_EQ(buffer.data[length - 1], '\0');
        } else {
            records.push_back(std::to_string(result));
        }
        free_text_msg(&buffer);
        if (result != 1)
            return records;
    }
}

} // namespace

using Records = std::vector<std::string>;

// ---- records

TEST(ReadRecord, LinesComeWithoutTheirLineFeed) {
    EXPECT_EQ(recordsOf("abc\n"), (Records{"abc", "0"}));
    EXPECT_EQ(recordsOf("abc\n\nd\n"), (Records{"abc", "", "d", "0"}));
    EXPECT_EQ(recordsOf(""), (Records{"0"}));
    EXPECT_EQ(recordsOf("\n"), (Records{"", "0"}));
}

TEST(ReadRecord, CarriageReturnBecomesLineFeed) {
    EXPECT_EQ(recordsOf("abc\r\n"), (Records{"abc\n", "0"}));
    EXPECT_EQ(recordsOf("a\rb\r\r\n\r\n"), (Records{"a\nb\n\n", "\n", "0"}));
}

TEST(ReadRecord, LastLineWithoutLineFeedIsNotReturned) {
    EXPECT_EQ(recordsOf("abc"), (Records{"0"}));
    EXPECT_EQ(recordsOf("abc\ndef"), (Records{"abc", "0"}));
    EXPECT_EQ(recordsOf(std::string(40000, 'x')), (Records{"0"}));
}

TEST(ReadRecord, NulBytesAreOrdinary) {
    EXPECT_EQ(recordsOf(std::string("a\0b\n", 4)), (Records{std::string("a\0b", 3), "0"}));
}

TEST(ReadRecord, ALineOf40000CharactersSpansTwoReads) {
    std::string line(40000, 'x');
    line[32767] = '\r';
    line[32768] = '\r';
    std::string expected = line;
    expected[32767] = expected[32768] = '\n';
    EXPECT_EQ(recordsOf(line + "\nnext\n"), (Records{expected, "next", "0"}));
}

TEST(ReadRecord, LineEndsAroundTheEndOfTheReadBufferAreFound) {
    for (size_t length = 32760; length < 32776; ++length) {
        const std::string line(length, 'y');
        ASSERT_EQ(recordsOf(line + "\nz\n"), (Records{line, "z", "0"})) << length;
    }
}

TEST(ReadRecord, ALineMayBeAnyNumberOfReadsLong) {
    const std::string line(10 * 32768 + 7, 'q');
    EXPECT_EQ(recordsOf("a\n" + line + "\nb\n"), (Records{"a", line, "b", "0"}));
}

TEST(ReadRecord, AReadIntoMemoryOfTheCallersOwnLeavesNothingToReadAhead) {
    std::string lines;
    for (int i = 0; i < 25000; ++i)
        lines += "abcdefg\n";
    Opened opened(lines);
    std::string own(100000, 'x');
    ASSERT_EQ(zoltLogOs_read(&opened.file, own.data(), 100000), 100000); // more than the buffer holds
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(readrecord(&opened.file, &buffer), 1);
    EXPECT_STREQ(buffer.data, "abcdefg");
    EXPECT_LE(opened.file.readCount, static_cast<int32_t>(sizeof opened.file.buffer));
    free_text_msg(&buffer);
}

TEST(ReadRecord, TheRecordIsAppendedToTheBuffer) {
    Opened opened("one\ntwo\n");
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(readrecord(&opened.file, &buffer), 1);
    EXPECT_EQ(opened.file.readPosition, 4); // just past the line feed
    EXPECT_EQ(opened.file.readCount, 8);
    EXPECT_EQ(readrecord(&opened.file, &buffer), 1);
    EXPECT_EQ(std::string(buffer.data, static_cast<size_t>(buffer.capacity - buffer.free)),
              std::string("one\0two\0", 8));
    EXPECT_EQ(readrecord(&opened.file, &buffer), 0);
    EXPECT_EQ(opened.file.readPosition, -1);
    free_text_msg(&buffer);
}

TEST(ReadRecord, ReadErrorsAreReturned) {
    OsFile file;
    zoltLogOs_initfilehandle(&file);
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(readrecord(&file, &buffer), -1); // nothing is open
    EXPECT_LT(readrecord(nullptr, &buffer), 0);
    EXPECT_LT(readrecord(&file, nullptr), 0);
    free_text_msg(&buffer);
}

namespace {

// ---- headers

LogFileHeader header;

uint32_t readHeaderOf(const std::string &bytes) {
    Opened opened(bytes);
    memset(&header, 0x55, sizeof header);
    return ReadHeaderEx(&opened.file, &header);
}

} // namespace

#define EXPECT_HEADER(VERSION, PRODUCT, ORIGINATOR, CREATED, OFFSET, HOST)                                   \
    do {                                                                                                     \
        EXPECT_EQ(header.version, static_cast<uint64_t>(VERSION));                                           \
        EXPECT_EQ(header.productId, static_cast<uint64_t>(PRODUCT));                                         \
        EXPECT_EQ(header.originatorId, static_cast<uint64_t>(ORIGINATOR));                                   \
        EXPECT_EQ(header.creationTime, static_cast<uint64_t>(CREATED));                                      \
        EXPECT_EQ(header.tzOffset, static_cast<int64_t>(OFFSET));                                            \
        EXPECT_STREQ(header.hostName, HOST);                                                                 \
    } while (false)

TEST(ReadHeaderEx, OriginatorHeader) {
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,101,7,1400000000,-18000,hostA\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 101, 7, 1400000000, -18000, "hostA");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,5,7,1709300702,3600,hostA\nrecord\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 5, 7, 1709300702, 3600, "hostA");
}

TEST(ReadHeaderEx, LogSetHeader) {
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544,3600,hostB\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, 3600, "hostB");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544,-18000,hostB\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, -18000, "hostB");
}

TEST(ReadHeaderEx, OlderHeadersHaveNoOffset) {
    for (const char *version : {"65540", "65541", "65542"}) {
        EXPECT_RESULT(ZOLTLOG_OK,
                      readHeaderOf(std::string("$Header ") + version + ",101,7,1400000000,hostA\n"));
        EXPECT_HEADER(std::stoul(version), 101, 7, 1400000000, -1, "hostA");
    }
}

TEST(ReadHeaderEx, OtherVersionsAreUnsupported) {
    for (const char *version : {"0", "1", "65539", "65545", "4294967295", "18446744073709551615",
                                "184467440737095516159", "-65543", ",", "x", "", " "}) {
        EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER,
                      readHeaderOf(std::string("$Header ") + version + ",101,7,1400000000,-18000,hostA\n"))
            << version;
    }
}

TEST(ReadHeaderEx, AHeaderWordWithoutVersionIsUnsupported) {
    EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER, readHeaderOf("$Header\n"));
    EXPECT_HEADER(0, 0, 0, 0, -1, "");
    EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER, readHeaderOf("$Header \n"));
    EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER, readHeaderOf("$Header\r\n"));
    EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER, readHeaderOf(std::string("$Header\0 65543\n", 15)));
}

TEST(ReadHeaderEx, OtherFirstWordsAreNoHeaderAndTellAVersionAllTheSame) {
    const struct {
        const char *line;
        uint64_t version;
    } rows[] = {
        {"$Headers 65543,101,7,1400000000,-18000,hostA\n", 65543},
        {"$Heade 65543,1,2,3,4,h\n", 65543},
        {"$header 65543,1,2,3,4,h\n", 65543},
        {"Header 65543,1,2,3,4,h\n", 65543},
        {"\n", 0},
        {"   \n", 0},
        {"$Header,65543,1,2,3,4,h\n", 4}, // the word ends after 20 characters
        {"$Header65543,1,2,3,4,h\n", 0},
        {"$HeaderHeaderHeaderHeaderHeader 65543\n", 0},
        {"2,5,7,7,12,0:,0:,\n", 0},
    };
    for (const auto &row : rows) {
        EXPECT_RESULT(ZOLTLOG_FAILED, readHeaderOf(row.line)) << row.line;
        EXPECT_HEADER(row.version, 0, 0, 0, -1, "");
    }
}

TEST(ReadHeaderEx, AnEmptyOrUnfinishedFileHasNoHeader) {
    EXPECT_RESULT(ZOLTLOG_FAILED, readHeaderOf(""));
    EXPECT_HEADER(0, 0, 0, 0, 0, ""); // zeroed, not parsed
    EXPECT_RESULT(ZOLTLOG_FAILED, readHeaderOf("$Header 65543,101,7,1400000000,-18000,hostA"));
}

TEST(ReadHeaderEx, AShortHeaderLeavesTheRestZero) {
    const struct {
        const char *line;
        uint64_t product, originator, created;
        int64_t offset;
        const char *host;
    } cases[] = {
        {"$Header 65543\n", 0, 0, 0, -1, ""},
        {"$Header 65543,\n", 0, 0, 0, -1, ""},
        {"$Header 65543,101\n", 101, 0, 0, -1, ""},
        {"$Header 65543,101,7\n", 101, 7, 0, -1, ""},
        {"$Header 65543,101,7,1400000000\n", 101, 7, 1400000000, -1, ""},
        {"$Header 65543,101,7,1400000000,60\n", 101, 7, 1400000000, 60, ""},
        {"$Header 65543,101,7,1400000000,60,\n", 101, 7, 1400000000, 60, ""},
        {"$Header 65543,101,x,1400000000,60,h\n", 101, 0, 0, -1, ""},
        {"$Header 65543,101,7,14x,60,h\n", 101, 7, 14, -1, ""},
        {"$Header 65543 ,101,7,14,60,h\n", 0, 0, 0, -1, ""},
        {"$Header 65543,101 ,7,14,60,h\n", 101, 0, 0, -1, ""},
    };
    for (const auto &c : cases) {
        EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf(c.line)) << c.line;
        EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, c.product, c.originator, c.created, c.offset,
                      c.host);
    }
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, -1, "");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544,\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, -1, "");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544,7200\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, 7200, "");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65540,1,2\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_OLDEST, 1, 2, 0, -1, "");
}

TEST(ReadHeaderEx, BlanksAndSignsAreTakenAsScanfTakesThem) {
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("  \t$Header \t 65543, 101,\t7,+14, -60,   host more words\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 101, 7, 14, -60, "host");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header\r65543,1,2,3,4,host\r\n")); // a CR is read as a line feed
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 1, 2, 3, 4, "host");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,-1,2,3,4,host\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, UINT64_MAX, 2, 3, 4, "host");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,+ 1,2,3,4,host\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 0, 0, 0, -1, "");
}

TEST(ReadHeaderEx, NumbersAreWholeAndSaturate) {
    EXPECT_RESULT(ZOLTLOG_OK,
                  readHeaderOf("$Header 65543,18446744073709551615,18446744073709551614,9999999999,"
                               "-9223372036854775808,h\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, UINT64_MAX, UINT64_MAX - 1, 9999999999, INT64_MIN, "h");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,18446744073709551616,99999999999999999999999,1,"
                                           "9223372036854775808,h\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, UINT64_MAX, UINT64_MAX, 1, INT64_MAX, "h");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,1,2,3,-9223372036854775809,h\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_ORIGINATOR, 1, 2, 3, INT64_MIN, "h");
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65544,-18446744073709551616,h\n"));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, -1, "h");
}

TEST(ReadHeaderEx, TheHostNameIsCutToItsField) {
    for (const size_t length : {510u, 511u, 512u, 600u, 5000u, 60000u}) {
        EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf("$Header 65543,1,2,3,4," + std::string(length, 'h') + "\n"));
        EXPECT_EQ(std::string(header.hostName), std::string(std::min<size_t>(length, 511), 'h'));
        EXPECT_EQ(header.tzOffset, 4);
    }
}

TEST(ReadHeaderEx, ReadingStopsAtTheBoundOfALine) {
    const std::string start = "$Header 65543,1,2,3,4,";
    const auto withLength = [&](size_t length) {
        return start + std::string(length - start.size() - 1, 'h') + "\n";
    };
    EXPECT_RESULT(ZOLTLOG_OK, readHeaderOf(withLength(65536)));
    EXPECT_RESULT(ZOLTLOG_FAILED, readHeaderOf(withLength(65537)));
    EXPECT_RESULT(ZOLTLOG_FAILED, readHeaderOf(withLength(1 << 22)));
    OsFile endless; // a device that never ends
    zoltLogOs_initfilehandle(&endless);
    endless.descriptor = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, endless.descriptor);
    EXPECT_RESULT(ZOLTLOG_FAILED, ReadHeaderEx(&endless, &header));
    zoltLogOs_close(&endless);
}

TEST(ReadHeaderEx, ChecksItsPointers) {
    Opened opened("$Header 65544,3600,hostB\n");
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, ReadHeaderEx(nullptr, &header));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, ReadHeaderEx(&opened.file, nullptr));
}

TEST(ReadHeaderEx, AFileThatCannotBeReadHasNoHeader) {
    OsFile file;
    zoltLogOs_initfilehandle(&file);
    EXPECT_RESULT(ZOLTLOG_FAILED, ReadHeaderEx(&file, &header));
    EXPECT_HEADER(0, 0, 0, 0, 0, "");
}

TEST(ReadHeaderEx, ReadingStartsAtTheFilesOffset) {
    Opened opened("junk\n$Header 65544,3600,hostB\nrecord 1\n");
    ASSERT_EQ(lseek(opened.file.descriptor, 5, SEEK_SET), 5);
    opened.file.readPosition = 0; // something stale is buffered
    opened.file.readCount = 3;
    EXPECT_RESULT(ZOLTLOG_OK, ReadHeaderEx(&opened.file, &header));
    EXPECT_HEADER(ZOLTLOG_RECORD_VERSION_LOGSET, 0, 0, 0, 3600, "hostB");
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(readrecord(&opened.file, &buffer), 1); // and goes on behind the header
    EXPECT_STREQ(buffer.data, "record 1");
    free_text_msg(&buffer);
}

namespace {

// ---- the header of an entry

LogFileEntry *entryOf(const std::string &bytes) {
    support::writeFile("e-1.log", bytes);
    LogFileEntry *entry = static_cast<LogFileEntry *>(calloc(1, sizeof *entry));
    entry->headerVersion = 9;
    entry->tzOffset = 9;
    EXPECT_EQ(zoltLogOs_open(&entry->file, "e-1.log", 1, 0660), 0);
    return entry;
}

void closeEntry(LogFileEntry *entry) {
    zoltLogOs_close(&entry->file);
    zoltLogFree(entry);
}

} // namespace

TEST(ReadHeader, CopiesVersionAndOffsetIntoTheEntry) {
    const struct {
        const char *line;
        uint64_t version;
        int64_t offset;
    } cases[] = {{"$Header 65543,101,7,1400000000,-18000,hostA\n", ZOLTLOG_RECORD_VERSION_ORIGINATOR, -18000},
                 {"$Header 65544,3600,hostB\n", ZOLTLOG_RECORD_VERSION_LOGSET, 3600},
                 {"$Header 65540,101,7,1400000000,hostA\n", ZOLTLOG_RECORD_VERSION_OLDEST, -1},
                 {"$Header 65542,101,7,1400000000,hostA\n", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX, -1}};
    for (const auto &c : cases) {
        LogFileEntry *entry = entryOf(c.line);
        memset(&header, 0x55, sizeof header);
        EXPECT_RESULT(ZOLTLOG_OK, ReadHeader(entry, &header));
        EXPECT_EQ(header.version, c.version);
        EXPECT_EQ(header.tzOffset, c.offset);
        EXPECT_EQ(entry->headerVersion, c.version);
        EXPECT_EQ(entry->tzOffset, c.offset);
        closeEntry(entry);
    }
}

TEST(ReadHeader, AnEmptyFileLeavesTheHeaderAlone) {
    LogFileEntry *entry = entryOf("");
    memset(&header, 0x55, sizeof header);
    EXPECT_RESULT(ZOLTLOG_FAILED, ReadHeader(entry, &header));
    EXPECT_EQ(header.version, 0x5555555555555555u);
    EXPECT_EQ(entry->headerVersion, 9u);
    closeEntry(entry);
}

TEST(ReadHeader, AReadErrorIsNoHeaderAndZeroesIt) {
    LogFileEntry *entry = entryOf("");
    zoltLogOs_close(&entry->file);
    memset(&header, 0x55, sizeof header);
    EXPECT_RESULT(ZOLTLOG_FAILED, ReadHeader(entry, &header));
    EXPECT_HEADER(0, 0, 0, 0, -1, "");
    EXPECT_EQ(entry->tzOffset, -1);
    closeEntry(entry);
}

TEST(ReadHeader, UnusableHeadersLeaveTheVersionOfTheEntry) {
    LogFileEntry *entry = entryOf("$Header 65545,1,2,3,4,h\n");
    EXPECT_RESULT(ZOLTLOG_UNSUPPORTED_HEADER, ReadHeader(entry, &header));
    EXPECT_EQ(entry->headerVersion, 9u);
    EXPECT_EQ(entry->tzOffset, -1);
    closeEntry(entry);
    entry = entryOf("$Headers 65543,1,2,3,4,h\n");
    EXPECT_RESULT(ZOLTLOG_FAILED, ReadHeader(entry, &header));
    EXPECT_EQ(entry->headerVersion, 9u);
    EXPECT_EQ(entry->tzOffset, -1);
    closeEntry(entry);
}

TEST(ReadHeader, ChecksEachPointer) {
    LogFileEntry *entry = entryOf("$Header 65544,3600,hostB\n");
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, ReadHeader(nullptr, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, ReadHeader(entry, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, ReadHeader(nullptr, &header));
    closeEntry(entry);
}

// ---- entries and host names of listed files

TEST(LogFileEntries, AnEntryHasTheNameAndTheHeadersCreationTime) {
    support::writeFile("101-7-1-140305-0000000002.log", "$Header 65543,101,7,1400000000,-18000,hostA\n");
    OsLogFileCursor cursor;
    ASSERT_EQ(zoltLogOsListLogFilesBegin(&cursor, "./"), 0);
    LogFileEntry *entry = alloc_file(&cursor);
    zoltLogOsListLogFilesEnd(&cursor);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->name, "101-7-1-140305-0000000002.log");
    EXPECT_EQ(entry->creationTime, 1400000000);
    EXPECT_EQ(entry->next, nullptr);
    EXPECT_EQ(entry->headerVersion, 0u);
    EXPECT_EQ(entry->tzOffset, 0);
    EXPECT_EQ(entry->file.descriptor, -1);
    EXPECT_EQ(entry->file.readPosition, -1);
    EXPECT_STREQ(entry->directory, "");
    for (const uint64_t word : entry->info)
        EXPECT_EQ(word, 0u);
    zoltLogFree(entry);
    EXPECT_EQ(alloc_file(nullptr), nullptr);
}

namespace {

int32_t hostNameOf(const char *directory, char *hostName) {
    OsLogFileCursor cursor;
    EXPECT_EQ(zoltLogOsListLogFilesBegin(&cursor, "./"), 0);
    const size_t before = support::openDescriptors();
    const int32_t result = getHostnameFromFile(&cursor, directory, hostName);
    EXPECT_EQ(support::openDescriptors(), before);
    zoltLogOsListLogFilesEnd(&cursor);
    return result;
}

} // namespace

TEST(LogFileEntries, TheHostNameComesFromTheHeader) {
    char hostName[512];
    support::writeFile("a-1.log", "$Header 65544,3600,hostB\n");
    EXPECT_EQ(hostNameOf("./", hostName), 1);
    EXPECT_STREQ(hostName, "hostB");
    support::writeFile("a-1.log", "$Header 65544,3600," + std::string(600, 'h') + "\n");
    EXPECT_EQ(hostNameOf("./", hostName), 1);
    EXPECT_EQ(std::string(hostName), std::string(511, 'h'));
}

TEST(LogFileEntries, AFileWithoutHeaderHasAnEmptyHostName) {
    char hostName[512];
    for (const char *bytes : {"", "no header\n", "$Header 65545,1,2,3,4,h\n", "$Header 65543,1\n"}) {
        support::writeFile("a-1.log", bytes);
        strcpy(hostName, "old");
        EXPECT_EQ(hostNameOf("./", hostName), 1);
        EXPECT_STREQ(hostName, "");
    }
}

TEST(LogFileEntries, AFileThatCannotBeOpenedHasNoHostName) {
    char hostName[512] = "old";
    support::writeFile("a-1.log", "$Header 65544,3600,hostB\n");
    EXPECT_EQ(hostNameOf("./missing/", hostName), 0);
    EXPECT_EQ(hostNameOf(".", hostName), 0); // no separator is put in: ".a-1.log"
    EXPECT_EQ(hostNameOf(nullptr, hostName), 0);
    EXPECT_EQ(hostNameOf("./", nullptr), 0);
    EXPECT_STREQ(hostName, "old");
    EXPECT_EQ(getHostnameFromFile(nullptr, "./", hostName), 0);
}

// ---- file names

TEST(FileNames, IdsOfAnOriginatorsFile) {
    const struct {
        const char *name;
        int32_t result;
        uint64_t product, originator;
    } cases[] = {
        {"101-7-3232235777-140305-0000000002.log", 1, 101, 7},
        {"0-7-3232235777-140305-0000000002.log", 0, 0, 7},
        {"101-0-3232235777-140305-0000000002.log", 0, 101, 0},
        {"--101---7-x", 1, 101, 7}, // runs of '-' count as one
        {"101x5-7y.log", 1, 101, 7},
        {" +101-\t7", 1, 101, 7},
        {"x-7-1", 0, 0, 7},
        {"4294967297-8589934592-1", 1, 4294967297, 8589934592},
        {" -7-1", 0, 0, 7}, // a token of blanks does not borrow the next one's sign
    };
    for (const auto &c : cases) {
        uint64_t product = 99;
        uint64_t originator = 99;
        EXPECT_EQ(getidfromfilename(c.name, &product, &originator), c.result) << c.name;
        EXPECT_EQ(product, c.product) << c.name;
        EXPECT_EQ(originator, c.originator) << c.name;
    }
}

TEST(FileNames, MissingTokensLeaveTheOutputs) {
    uint64_t product = 98;
    uint64_t originator = 99;
    EXPECT_EQ(getidfromfilename("101", &product, &originator), 1);
    EXPECT_EQ(product, 101u);
    EXPECT_EQ(originator, 99u);
    EXPECT_EQ(getidfromfilename("---", &product, &originator), 1);
    EXPECT_EQ(getidfromfilename("", &product, &originator), 1);
    EXPECT_EQ(product, 101u);
    product = originator = 0;
    EXPECT_EQ(getidfromfilename("", &product, &originator), 0);
    EXPECT_EQ(getidfromfilename("5-", &product, &originator), 0);
    EXPECT_EQ(product, 5u);
}

TEST(FileNames, IdsSaturateAsSignedNumbers) {
    uint64_t product = 0;
    uint64_t originator = 0;
    EXPECT_EQ(getidfromfilename("9223372036854775807-18446744073709551615-1", &product, &originator), 1);
    EXPECT_EQ(product, 9223372036854775807u);
    EXPECT_EQ(originator, 9223372036854775807u);
}

TEST(FileNames, IdsNeedAllPointers) {
    uint64_t id = 0;
    EXPECT_EQ(getidfromfilename(nullptr, &id, &id), 0);
    EXPECT_EQ(getidfromfilename("1-2", nullptr, &id), 0);
    EXPECT_EQ(getidfromfilename("1-2", &id, nullptr), 0);
}

namespace {

struct LogSetName {
    int32_t result;
    uint64_t product;
    std::string name, dateTime;
};

LogSetName splitLogSetName(const char *fileName) {
    uint64_t product = 0;
    char name[1025] = "";
    char dateTime[13] = "";
    const int32_t result = getSLidfromfilename(fileName, &product, name, dateTime);
    return {result, product, name, dateTime};
}

bool operator==(const LogSetName &a, const LogSetName &b) {
    return a.result == b.result && a.product == b.product && a.name == b.name && a.dateTime == b.dateTime;
}

void PrintTo(const LogSetName &name, std::ostream *out) {
    *out << name.result << " " << name.product << " \"" << name.name << "\" \"" << name.dateTime << "\"";
}

} // namespace

TEST(FileNames, PartsOfALogSetsFile) {
    EXPECT_EQ(splitLogSetName("101-setA-140305123015.log"), (LogSetName{1, 101, "setA", "140305123015"}));
    EXPECT_EQ(splitLogSetName("0-setA-140305123015.log"), (LogSetName{0, 0, "setA", "140305123015"}));
    EXPECT_EQ(splitLogSetName("101-setA"), (LogSetName{1, 101, "setA", ""}));
    EXPECT_EQ(splitLogSetName("101-setA-1403.log"), (LogSetName{1, 101, "setA", "1403.log"}));
    EXPECT_EQ(splitLogSetName("101--setA--140305123015.log"), (LogSetName{1, 101, "setA", "140305123015"}));
    EXPECT_EQ(splitLogSetName("101"), (LogSetName{0, 101, "", ""}));
    EXPECT_EQ(splitLogSetName(""), (LogSetName{0, 0, "", ""}));
}

TEST(FileNames, ALogSetNameIsCutAtAHyphen) {
    EXPECT_EQ(splitLogSetName("101-set-A-140305123015.log"), (LogSetName{1, 101, "set", "A"}));
}

TEST(FileNames, ALongLogSetNameIsCutToTheLargestBuffer) {
    const std::string longest(1024, 'n');
    EXPECT_EQ(splitLogSetName(("1-" + longest + "-140305123015.log").c_str()),
              (LogSetName{1, 1, longest, "140305123015"}));
    EXPECT_EQ(splitLogSetName(("1-" + longest + "more-140305123015.log").c_str()),
              (LogSetName{1, 1, longest, "140305123015"}));
}

TEST(FileNames, LogSetPartsNeedTheirPointers) {
    uint64_t product = 0;
    char name[1025] = "";
    char dateTime[13] = "";
    EXPECT_EQ(getSLidfromfilename(nullptr, &product, name, dateTime), 0);
    EXPECT_EQ(getSLidfromfilename("1-a-2", nullptr, name, dateTime), 0);
    EXPECT_EQ(getSLidfromfilename("1-a-2", &product, nullptr, dateTime), 0);
    EXPECT_EQ(getSLidfromfilename("1-a-2", &product, name, nullptr), 0);
}

namespace {

// ---- date and time texts

void useZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

} // namespace

TEST(DateTexts, YearMonthAndDayAreRead) {
    int32_t day = 0;
    int32_t month = 0;
    int32_t year = 0;
    EXPECT_EQ(zoltLogGetDate("2015-03-20", &day, &month, &year), 1);
    EXPECT_EQ(day, 20);
    EXPECT_EQ(month, 2);
    EXPECT_EQ(year, 115);
    EXPECT_EQ(zoltLogGetDate("2015", &day, &month, &year), 1);
    EXPECT_EQ(day, 0);
    EXPECT_EQ(month, -1);
    EXPECT_EQ(year, 115);
    EXPECT_EQ(zoltLogGetDate("2147483648-1-1", &day, &month, &year), 1); // runs over, harmlessly
}

TEST(DateTexts, ADateNeedsAllPointersAndIsLeftAloneOnFailure) {
    int32_t day = 1;
    int32_t month = 2;
    int32_t year = 3;
    EXPECT_EQ(zoltLogGetDate(nullptr, &day, &month, &year), 0);
    EXPECT_EQ(zoltLogGetDate("2015-03-20", nullptr, &month, &year), 0);
    EXPECT_EQ(zoltLogGetDate("2015-03-20", &day, nullptr, &year), 0);
    EXPECT_EQ(zoltLogGetDate("2015-03-20", &day, &month, nullptr), 0);
    EXPECT_EQ(day, 1);
    EXPECT_EQ(month, 2);
    EXPECT_EQ(year, 3);
}

TEST(DateTexts, YearAndDayChangePlaces) {
    useZone("UTC");
    // Day 115 of March 1920 is 23 June 1920.
    EXPECT_EQ(zoltLogStrDateTimeToT("2015-03-20"), -1562889600);
    EXPECT_EQ(zoltLogStrDateTimeToT("2015-03-20:10:20:30"), -1562889600); // the time is ignored
    // Written the other way round a date means itself: 120 is the year 2020.
    EXPECT_EQ(zoltLogStrDateTimeToT("1920-03-120"), 1584662400);
}

TEST(DateTexts, ATimeMeansToday) {
    useZone("UTC");
    fakeNow = 1700000000; // 2023-11-14 22:13:20
    EXPECT_EQ(zoltLogStrDateTimeToT("10:20:30"), 1699957230);
    EXPECT_EQ(zoltLogStrDateTimeToT("0:0:0"), 1699920000);
    EXPECT_EQ(zoltLogStrDateTimeToT("7:"), 1699920000 + 7 * 3600);
    useZone("UTC-5"); // five hours east: it is the 15th already
    EXPECT_EQ(zoltLogStrDateTimeToT("10:20:30"), 1699957230 + 86400 - 5 * 3600);
}

TEST(DateTexts, TheTimeIsStandardTimeAlsoInSummer) {
    useZone("CET-1CEST,M3.5.0,M10.5.0/3");
    fakeNow = 1689336000;                                     // 2023-07-14 12:00 UTC
    EXPECT_EQ(zoltLogStrDateTimeToT("10:20:30"), 1689326430); // 10:20:30 CET
}

TEST(DateTexts, OtherTextsAreNoTime) {
    for (const char *text : {"abc", "", "20150320", " "})
        EXPECT_EQ(zoltLogStrDateTimeToT(text), -1) << text;
    EXPECT_EQ(zoltLogStrDateTimeToT(nullptr), -1);
}
