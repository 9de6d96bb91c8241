// SPDX-License-Identifier: Apache-2.0
// Log files and configurations with any damage: what is cut off, overwritten, doubled or mixed is
// read, listed, continued and changed without harm; whole lines of a log file are read as they
// are, no byte of a file changes but by what is appended, and a setting that was written is found.
// Catalogues are lis_damage_test's.
//
// DAMAGED_FILES is how many files the Long test damages (5000), DAMAGED_FIRST the number of the
// first one, which decides its damage (1).
#include "common/record.h"
#include "support/cases.h"
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "zoltlog.h"

namespace {

using Random = std::mt19937_64;

size_t below(Random &random, size_t end) {
    return end == 0 ? 0 : std::uniform_int_distribution<size_t>(0, end - 1)(random);
}

// ---- damage --------------------------------------------------------------------------------

void damageOnce(Random &random, std::string &bytes) {
    static const char *const PIECES[] = {"\n",          "\r",    "\n\n", ",",     ":",
                                         "$Header ",    "65543", "=",    ".",     "\nLOGSET.",
                                         "99999999999", "-1",    "\xff", "#\n5.", "\xc3"};
    const size_t at = below(random, bytes.size() + 1);
    const size_t length = std::min(bytes.size() - at, 1 + below(random, 200));
    switch (below(random, 9)) {
    case 0: // a disk that was full, a process that was killed
        bytes.resize(at);
        break;
    case 1: // a machine that lost its power
        bytes.replace(at, std::string::npos, bytes.size() - at, '\0');
        break;
    case 2:
        bytes.replace(at, length, length, '\0');
        break;
    case 3:
        bytes.erase(at, length);
        break;
    case 4: // two writers at one place
        bytes.insert(below(random, bytes.size() + 1), bytes.substr(at, length));
        break;
    case 5:
        bytes.insert(at, PIECES[below(random, sizeof PIECES / sizeof *PIECES)]);
        break;
    case 6:
        bytes.insert(at, std::string(below(random, 20000), static_cast<char>(below(random, 256))));
        break;
    default:
        for (size_t i = 0; i < 4 && !bytes.empty(); ++i)
            bytes[below(random, bytes.size())] = static_cast<char>(below(random, 256));
    }
}

std::string damaged(Random &random, std::string bytes) {
    for (size_t count = 1 + below(random, 3); count > 0; --count)
        damageOnce(random, bytes);
    return bytes;
}

// ---- log files -------------------------------------------------------------------------------

struct LogSample {
    std::string path; // the name that the next writer goes on with
    std::string bytes;
};

LogSample writeSample() {
    LogHandle log = {};
    LogHandle context = {};
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &log));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&log, &context, "request", 0, "unit of work"));
    for (int number = 0; number < 4; ++number) {
        EXPECT_RESULT(ZOLTLOG_OK,
                      zoltLogAppMsg(&context, 0, ZOLTLOG_SEVERITY_ERROR, 0, "disk %d is full", number));
        EXPECT_RESULT(ZOLTLOG_OK,
                      zoltLogDiagMsg(&log, 0, 1, "who", 0, "a\nline, a \"quote\", gr\xc3\xbc\xc3\x9f"));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&log, 0, 1, "who", "%s", std::string(300, 'x').c_str()));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogAuditMsg(&log, 0, "alice", 0, 1001, "%s %d", "/var", 93));
    }
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&log));
    const std::vector<std::string> names = support::listFiles("log");
    EXPECT_EQ(1U, names.size());
    const std::string path = "log/" + names.at(0);
    return {path, support::readFile(path)};
}

std::vector<std::string> wholeLines(const std::string &bytes) { // carriage returns are line feeds
    std::vector<std::string> found;
    size_t begin = 0;
    for (size_t end; (end = bytes.find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::string line = bytes.substr(begin, end - begin);
        std::replace(line.begin(), line.end(), '\r', '\n');
        found.push_back(line);
    }
    return found;
}

void readLines(const std::string &path, const std::string &bytes) {
    OsFile file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, path.c_str(), ZOLTLOG_OS_MODE_READ, 0));
    LogFileHeader header;
    (void)ReadHeaderEx(&file, &header);
    EXPECT_GT(sizeof header.hostName, strnlen(header.hostName, sizeof header.hostName));
    zoltLogOs_close(&file);
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, path.c_str(), ZOLTLOG_OS_MODE_READ, 0));
    for (const std::string &line : wholeLines(bytes)) {
        TextBuffer buffer;
        init_text_msg(&buffer);
        ASSERT_EQ(1, readrecord(&file, &buffer));
        EXPECT_EQ(line.size() + 1, buffer.capacity - buffer.free);
        EXPECT_EQ(0, memcmp(line.c_str(), buffer.data, line.size() + 1));
        free_text_msg(&buffer);
    }
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_EQ(0, readrecord(&file, &buffer));
    free_text_msg(&buffer);
    zoltLogOs_close(&file);
}

void listFiles() {
    LogCfg cfg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(logs::PRODUCT, logs::ORIGINATOR, &cfg));
    LogCfg *cfgs = &cfg;
    LogListing listing = {};
    (void)GetLogFiles(&cfgs, 1, &listing);
    while (listing.files != nullptr) {
        LogFileEntry *next = listing.files->next;
        zoltLogFree(listing.files);
        listing.files = next;
    }
    zoltLogFreeCfg(&cfg);
    LogFileEntry *entry = nullptr;
    EXPECT_EQ(1, zoltLogFindLatestLog("log/", logs::PRODUCT, logs::ORIGINATOR, 0, 0, &entry));
    zoltLogFree(entry);
}

// The tools' reader finds every line of the sample that is there whole.
void parseLines(const std::string &bytes, const std::string &sample) {
    size_t at = 0;
    for (const std::string &line : wholeLines(bytes)) {
        tools::Record record;
        tools::Fault fault;
        const bool isWhole = tools::parseRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, record, fault);
        if (!isWhole)
            (void)tools::salvageRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, record, at);
        if (line.size() > 100 && sample.find("\n" + line + "\n") != std::string::npos) {
            EXPECT_TRUE(isWhole) << line;
        }
    }
}

// Goes on with the series: the damaged file only grows, and the new record is whole.
void goOn(const std::string &path, const std::string &bytes) {
    LogHandle log = {};
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &log));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_ERROR, 0, "the next message"));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogClose(&log));
    EXPECT_EQ(0, support::readFile(path).compare(0, bytes.size(), bytes)) << "what was there is there";
    size_t found = 0;
    for (const std::string &name : support::listFiles("log"))
        for (const std::string &line : wholeLines(support::readFile("log/" + name))) {
            const logs::Record record = logs::parse(line);
            found += record.whole && record.text == "the next message" ? 1 : 0;
        }
    EXPECT_EQ(1U, found) << "a line of its own";
}

void tryLog(Random &random, const LogSample &sample) {
    const std::string bytes = damaged(random, sample.bytes);
    for (const std::string &name : support::listFiles("log"))
        std::filesystem::remove("log/" + name);
    support::writeFile(sample.path, bytes);
    readLines(sample.path, bytes);
    listFiles();
    parseLines(bytes, sample.bytes);
    goOn(sample.path, bytes);
}

// ---- configurations ------------------------------------------------------------------------------

const char CONFIGURATION[] =
    "# settings of the product\n"
    "Default.LogDirectory=/var/log/x/\nDefault.DebugLevel=3\n"
    "7.LogDirectory=/var/log/seven/\n7.RolloverMode=FileSize\n7.MaxLogFileSizeKB=64\n"
    "7.LogRecycle=true\n7.NumberOfLogFiles=5\n7.DiagnosticLevel=2\n"
    "LOGSET.Default.NumberOfLogFiles=3\nLOGSET.night.DebugLevel=6\n"
    "8.OslogIdent=gr\xc3\xbc\xc3\x9f\n";

void freeAll(LogCfg **cfgs, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
    }
}

void readConfiguration(const std::string &path) {
    LogCfg cfg;
    (void)zoltLogReadCfg(logs::PRODUCT, logs::ORIGINATOR, &cfg);
    zoltLogFreeCfg(&cfg);
    (void)zoltLogReadlogsetCfg(logs::PRODUCT, "night", &cfg);
    zoltLogFreeCfg(&cfg);
    LogCfg *cfgs[8];
    uint32_t count = 0;
    (void)zoltLogReadProdIDCfg(nullptr, logs::PRODUCT, 8, cfgs, &count);
    ASSERT_GE(8U, count);
    freeAll(cfgs, count);
    (void)zoltLogReadAllCfg(path.c_str(), 8, cfgs, &count);
    ASSERT_GE(8U, count);
    freeAll(cfgs, count);
}

void tryConfiguration(Random &random, const std::string &path) {
    const std::string bytes = damaged(random, CONFIGURATION);
    support::writeFile(path, bytes);
    readConfiguration(path);
    PropertyStore store;
    ASSERT_EQ(0U, utiOpenPropertyStore(path.c_str(), "7", &store));
    ASSERT_EQ(0U, utiSetPropertyAsStr(&store, "NumberOfLogFiles", "9"));
    char *value = nullptr;
    ASSERT_EQ(0U, utiRemoveProperty(&store, "Comment"));
    ASSERT_EQ(0U, utiSetPropertyAsStr(&store, "Comment", "new"));
    ASSERT_EQ(0U, utiGetPropertyAsStr(&store, "Comment", &value));
    EXPECT_STREQ("new", value);
    zoltLogFree(value);
    utiClosePropertyStore(&store);
    readConfiguration(path);
    EXPECT_FALSE(support::exists(path + ".tmp"));
}

// ---- all of them ------------------------------------------------------------------------------------

void damageFiles(long first, long count) {
    logs::configure({"Default.DebugLevel=6", "Default.DiagnosticLevel=6"});
    const std::string path = std::filesystem::current_path().string() + "/product.conf";
    const std::string configuration = support::readFile(path);
    const LogSample sample = writeSample();
    const size_t descriptors = support::openDescriptors();
    long logFiles = 0;
    long configurations = 0;
    for (long number = first; number < first + count; ++number) {
        Random random(static_cast<uint64_t>(number));
        if (below(random, 3) != 0) {
            tryLog(random, sample);
            ++logFiles;
        } else {
            tryConfiguration(random, path);
            support::writeFile(path, configuration);
            ++configurations;
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << "file " << number;
    }
    EXPECT_EQ(descriptors, support::openDescriptors());
    printf("%ld log files and %ld configurations damaged, each read, listed and gone on with\n", logFiles,
           configurations);
}

long setting(const char *name, long otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}

} // namespace

FRESH_TEST(DamagedFiles, AreReadListedAndGoneOnWith) {
    damageFiles(1, 100);
}

FRESH_TEST(LongDamagedFiles, AreReadListedAndGoneOnWith) {
    damageFiles(setting("DAMAGED_FIRST", 1), setting("DAMAGED_FILES", 5000));
}
