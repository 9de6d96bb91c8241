// SPDX-License-Identifier: Apache-2.0
// The order, width and place of every field of the public records: programs built with an
// older header lay them out in the same way. Each record is listed whole; a field that is
// added, dropped, moved or widened makes what follows it lie elsewhere than listed.
#include <gtest/gtest.h>

#include "zoltlog.h"

#include <cstddef>
#include <initializer_list>

namespace {

// What a field is: its size and what its offset is a multiple of, in bytes.
struct Shape {
    size_t size;
    size_t alignment;
};
constexpr Shape WORD32 = {4, 4};
constexpr Shape WORD64 = {8, 8};
constexpr Shape POINTER = {8, 8};
constexpr Shape text(size_t size) {
    return {size, 1};
}
constexpr Shape words(size_t count) {
    return {count * WORD64.size, WORD64.alignment};
}
template<typename Record>
constexpr Shape record() {
    return {sizeof(Record), alignof(Record)};
}

struct Field {
    const char *name;
    size_t offset;
    size_t size;
    Shape expected;
};
#define FIELD(record, name, shape)                                                                           \
    Field {                                                                                                  \
#record "." #name, offsetof(record, name), sizeof(record::name), shape                               \
    }

size_t aligned(size_t offset, size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

// The fields follow each other without other gaps than their alignment needs, and fill the record.
void expectLayout(Shape whole, std::initializer_list<Field> fields) {
    size_t end = 0;
    size_t widest = 1;
    for (const Field &field : fields) {
        EXPECT_EQ(field.size, field.expected.size) << field.name;
        EXPECT_EQ(field.offset, aligned(end, field.expected.alignment)) << field.name;
        end = field.offset + field.size;
        widest = field.expected.alignment > widest ? field.expected.alignment : widest;
    }
    EXPECT_EQ(whole.alignment, widest) << fields.begin()->name;
    EXPECT_EQ(whole.size, aligned(end, widest)) << fields.begin()->name;
}

} // namespace

TEST(Layout, Message) {
    expectLayout(
        record<LogMsg>(),
        {FIELD(LogMsg, ownsStrings, WORD32), FIELD(LogMsg, recordVersion, WORD64),
         FIELD(LogMsg, type, WORD32), FIELD(LogMsg, productId, WORD64), FIELD(LogMsg, originatorId, WORD64),
         FIELD(LogMsg, fileOriginatorId, WORD64), FIELD(LogMsg, messageId, WORD64),
         FIELD(LogMsg, timestamp, WORD64), FIELD(LogMsg, processId, WORD64), FIELD(LogMsg, threadId, WORD64),
         FIELD(LogMsg, contextToken, POINTER), FIELD(LogMsg, text, POINTER),
         FIELD(LogMsg, reserved, words(4)), FIELD(LogMsg, utf8, WORD32), FIELD(LogMsg, attr, POINTER),
         FIELD(LogMsg, who, POINTER), FIELD(LogMsg, outcome, WORD32), FIELD(LogMsg, lis, words(3))});
    // The attribute word: a number and a pointer begin at the same place.
    EXPECT_EQ(offsetof(LogMsg, attr.severity), offsetof(LogMsg, attr));
    EXPECT_EQ(offsetof(LogMsg, attr.level), offsetof(LogMsg, attr));
    EXPECT_EQ(offsetof(LogMsg, attr.contextTitle), offsetof(LogMsg, attr));
    EXPECT_EQ(sizeof(LogMsg::attr.severity), 4u);
    EXPECT_EQ(sizeof(LogMsg::attr.level), 4u);
}

TEST(Layout, Handle) {
    expectLayout(record<LogHandle>(),
                 {FIELD(LogHandle, file, POINTER), FIELD(LogHandle, debugLevel, WORD32),
                  FIELD(LogHandle, diagLevel, WORD32), FIELD(LogHandle, secureAuditLevel, WORD32),
                  FIELD(LogHandle, outputFlags, WORD32), FIELD(LogHandle, noContext, WORD32),
                  FIELD(LogHandle, contextMsg, record<LogMsg>()), FIELD(LogHandle, oslog, text(80)),
                  FIELD(LogHandle, nextOnFile, POINTER), FIELD(LogHandle, localizers, words(2)),
                  FIELD(LogHandle, sequenceNumber, WORD64), FIELD(LogHandle, cfgTimestamp, WORD64),
                  FIELD(LogHandle, lastReloadCheck, WORD64), FIELD(LogHandle, reloadInterval, WORD32),
                  FIELD(LogHandle, cfgCopy, POINTER), FIELD(LogHandle, utf8, WORD32),
                  FIELD(LogHandle, originatorId, WORD64)});
}

TEST(Layout, FileState) {
    expectLayout(record<LogFileDate>(),
                 {FIELD(LogFileDate, year, WORD32), FIELD(LogFileDate, month, WORD32),
                  FIELD(LogFileDate, day, WORD32), FIELD(LogFileDate, hour, WORD32),
                  FIELD(LogFileDate, minute, WORD32), FIELD(LogFileDate, second, WORD32)});
    expectLayout(record<LogFileState>(), {FIELD(LogFileState, directory, text(1025)),
                                          FIELD(LogFileState, permissions, WORD32),
                                          FIELD(LogFileState, maxFileSizeKB, WORD64),
                                          FIELD(LogFileState, rolloverMode, WORD32),
                                          FIELD(LogFileState, logRecycling, WORD32),
                                          FIELD(LogFileState, rolloverPeriod, WORD64),
                                          FIELD(LogFileState, rolloverTime, WORD64),
                                          FIELD(LogFileState, productId, WORD64),
                                          FIELD(LogFileState, fileOriginatorId, WORD64),
                                          FIELD(LogFileState, headerVersion, WORD64),
                                          FIELD(LogFileState, date, record<LogFileDate>()),
                                          FIELD(LogFileState, counter, WORD64),
                                          FIELD(LogFileState, nextRolloverTime, WORD64),
                                          FIELD(LogFileState, fileStartTime, WORD64),
                                          FIELD(LogFileState, lastReopenTime, WORD64),
                                          FIELD(LogFileState, file, record<OsFile>()),
                                          FIELD(LogFileState, handles, POINTER),
                                          FIELD(LogFileState, isLogset, WORD32),
                                          FIELD(LogFileState, logsetName, POINTER),
                                          FIELD(LogFileState, logsetFilename, POINTER)});
}

TEST(Layout, Configuration) {
    expectLayout(record<OsLogSettings>(),
                 {FIELD(OsLogSettings, ident, text(80)), FIELD(OsLogSettings, option, WORD32),
                  FIELD(OsLogSettings, facility, WORD32)});
    expectLayout(record<FileSecuritySetting>(), {FIELD(FileSecuritySetting, mode, WORD32)});
    expectLayout(record<LogCfg>(), {FIELD(LogCfg, productId, WORD64),
                                    FIELD(LogCfg, originatorId, WORD64),
                                    FIELD(LogCfg, debugLevel, WORD32),
                                    FIELD(LogCfg, diagLevel, WORD32),
                                    FIELD(LogCfg, secureAuditLevel, WORD32),
                                    FIELD(LogCfg, outputFlags, WORD32),
                                    FIELD(LogCfg, directory, text(1025)),
                                    FIELD(LogCfg, permissions, WORD32),
                                    FIELD(LogCfg, maxFileSizeKB, WORD64),
                                    FIELD(LogCfg, rolloverMode, WORD32),
                                    FIELD(LogCfg, rolloverPeriod, WORD64),
                                    FIELD(LogCfg, rolloverTime, WORD64),
                                    FIELD(LogCfg, numberOfLogFiles, WORD64),
                                    FIELD(LogCfg, logRecycling, WORD32),
                                    FIELD(LogCfg, oslog, record<OsLogSettings>()),
                                    FIELD(LogCfg, productShortNames, text(1025)),
                                    FIELD(LogCfg, originatorNames, text(1025)),
                                    FIELD(LogCfg, l10nLib, POINTER),
                                    FIELD(LogCfg, l10nResource, POINTER),
                                    FIELD(LogCfg, l10nResourceDir, POINTER),
                                    FIELD(LogCfg, changedMask, WORD32),
                                    FIELD(LogCfg, removedMask, WORD32),
                                    FIELD(LogCfg, reloadInterval, WORD32),
                                    FIELD(LogCfg, logsetName, POINTER),
                                    FIELD(LogCfg, isLogset, WORD32),
                                    FIELD(LogCfg, logsetFilename, POINTER),
                                    FIELD(LogCfg, appMsgLogging, WORD32),
                                    FIELD(LogCfg, logsetOidAppMsgLogging, POINTER),
                                    FIELD(LogCfg, logsetOidDebugLogging, POINTER),
                                    FIELD(LogCfg, logsetOidDiagLogging, POINTER)});
}

TEST(Layout, FilesAndListings) {
    expectLayout(record<OsFile>(), {FIELD(OsFile, descriptor, WORD32), FIELD(OsFile, buffer, text(32768)),
                                    FIELD(OsFile, readPosition, WORD32), FIELD(OsFile, readCount, WORD32)});
    expectLayout(record<OsLogFileCursor>(),
                 {FIELD(OsLogFileCursor, word, WORD64), FIELD(OsLogFileCursor, directory, POINTER),
                  FIELD(OsLogFileCursor, stream, POINTER), FIELD(OsLogFileCursor, entry, POINTER)});
    expectLayout(record<LogFileHeader>(),
                 {FIELD(LogFileHeader, version, WORD64), FIELD(LogFileHeader, productId, WORD64),
                  FIELD(LogFileHeader, originatorId, WORD64), FIELD(LogFileHeader, creationTime, WORD64),
                  FIELD(LogFileHeader, hostName, text(512)), FIELD(LogFileHeader, tzOffset, WORD64)});
    expectLayout(record<LogFileEntry>(),
                 {FIELD(LogFileEntry, next, POINTER), FIELD(LogFileEntry, headerVersion, WORD64),
                  FIELD(LogFileEntry, file, record<OsFile>()), FIELD(LogFileEntry, info, words(8)),
                  FIELD(LogFileEntry, creationTime, WORD64), FIELD(LogFileEntry, tzOffset, WORD64),
                  FIELD(LogFileEntry, directory, text(1025)), FIELD(LogFileEntry, name, text(1))});
    expectLayout(record<LogQueryNode>(),
                 {FIELD(LogQueryNode, kind, WORD32), FIELD(LogQueryNode, slot, WORD32),
                  FIELD(LogQueryNode, value, WORD64), FIELD(LogQueryNode, reserved, WORD64),
                  FIELD(LogQueryNode, left, POINTER), FIELD(LogQueryNode, right, POINTER)});
    expectLayout(record<LogListing>(), {FIELD(LogListing, word, WORD64), FIELD(LogListing, files, POINTER),
                                        FIELD(LogListing, next, POINTER), FIELD(LogListing, query, POINTER),
                                        FIELD(LogListing, unsupportedHeader, WORD32)});
}

TEST(Layout, ContextTitles) {
    expectLayout(record<LogContextEntry>(),
                 {FIELD(LogContextEntry, next, POINTER), FIELD(LogContextEntry, key, words(2)),
                  FIELD(LogContextEntry, title, POINTER), FIELD(LogContextEntry, text, POINTER)});
    expectLayout(record<LogContextKey>(),
                 {FIELD(LogContextKey, key, words(2)), FIELD(LogContextKey, kind, WORD32)});
}

TEST(Layout, BuffersAndStores) {
    expectLayout(record<TextBuffer>(),
                 {FIELD(TextBuffer, inlineStorage, text(4096)), FIELD(TextBuffer, data, POINTER),
                  FIELD(TextBuffer, free, WORD64), FIELD(TextBuffer, capacity, WORD64)});
    expectLayout(record<PropertyStore>(),
                 {FIELD(PropertyStore, stream, POINTER), FIELD(PropertyStore, root, text(400)),
                  FIELD(PropertyStore, path, text(400))});
}

TEST(Layout, LockAndSinks) {
    expectLayout(record<LogLockHolder>(),
                 {FIELD(LogLockHolder, thread, WORD64), FIELD(LogLockHolder, tag, POINTER)});
    expectLayout(record<LogLock>(),
                 {FIELD(LogLock, mutex, record<pthread_mutex_t>()), FIELD(LogLock, initialized, WORD32),
                  FIELD(LogLock, savedCancelState, WORD32), FIELD(LogLock, depth, WORD32),
                  FIELD(LogLock, holders, words(10 * 2))});
    expectLayout(record<OsLogSink>(), {FIELD(OsLogSink, ident, text(80))});
    expectLayout(record<LocalizerList>(),
                 {FIELD(LocalizerList, count, WORD64), FIELD(LocalizerList, first, POINTER)});
    expectLayout(record<LogFormatter>(),
                 {FIELD(LogFormatter, library, POINTER), FIELD(LogFormatter, entry, POINTER)});
}

TEST(Layout, Localization) {
    expectLayout(record<ZoltLisBlock>(), {FIELD(ZoltLisBlock, word, words(3))});
    expectLayout(record<ZoltLisIterator>(), {FIELD(ZoltLisIterator, word, words(8))});
    expectLayout(record<ZoltLisOsError>(),
                 {FIELD(ZoltLisOsError, kind, WORD64), FIELD(ZoltLisOsError, code, WORD64)});
    expectLayout(record<ZoltLisDateTime>(),
                 {FIELD(ZoltLisDateTime, seconds, WORD64), FIELD(ZoltLisDateTime, nanoseconds, WORD64)});
}
