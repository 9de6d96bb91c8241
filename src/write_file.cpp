// SPDX-License-Identifier: Apache-2.0
// The writer of log files: keeps one file open per series, appends records to it and
// starts the next one when the rollover rule says so.
//
// Owns: the log file state and its list of handles, rollover, the periodic reopen,
// writing, contexts in new files. Leaves to others: opening one file (write_file_open),
// names and header (write_file_name), creation (write_file_create), locks that writers and
// recyclers keep (write_file_hold), the host's number (write_file_host), removal of surplus
// files (write_file_recycle), encoding (bin2txt).
//
//   States          the register of writers, the remembered state, handle lists, release
//   Looking         whether the open file is still there, and what others appended
//   Rollover        check, roll over, contexts in the new file, the periodic reopen
//   Writing         one record
//   Operations      zoltLogOpenFile ... zoltLogCreateContextToFile
//
// Everything here runs under the global lock, but for the look-up of the host's number.
#include "write_file.h"

#include "cancellation.h"
#include "lockUnix.h"
#include "os.h"
#include "text_msg.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t BYTES_PER_KB = 1024;
constexpr uint32_t TIMED_MODES = ZOLTLOG_ROLLOVER_LOCAL_TIME | ZOLTLOG_ROLLOVER_PERIODIC;

constexpr int64_t REOPEN_AFTER_MS = 600000;

// New files tried in one rollover. Each round but the last meets a file that exists and
// is full or old already; only a clock that jumps between days could go on for ever.
constexpr int ROLL_ROUNDS = 100000;

// Files in a row that vanish while a record is written to them.
constexpr int REWRITES = 10;

// For how long a log set's rollover waits for the next second, in real time.
constexpr int64_t LOGSET_WAIT_NS = 2 * NS_PER_SECOND;
constexpr long LOGSET_WAIT_STEP_NS = 2000000;

// More bytes per nanosecond than all writers of one file together can append: an
// append copies its bytes under the lock of the file's inode, one writer at a time
// whatever their number, so that the memory copy of a single processor bounds them all,
// and that is below 64 GB/s by a wide margin.
constexpr uint64_t APPENDED_PER_NS = 64;
// Beyond this age a known size is not used, which also keeps the product small.
constexpr int64_t SIZE_KNOWN_FOR_NS = NS_PER_SECOND;

// ---- states ----------------------------------------------------------------------------

// The writers, by the addresses of their states.
constexpr size_t REGISTER_CHAINS = 64;
Writer *writers[REGISTER_CHAINS];

Writer **chainOf(const LogFileState *state) {
    const auto address = reinterpret_cast<uintptr_t>(state);
    return &writers[(address >> 4 ^ address >> 16) % REGISTER_CHAINS];
}

// Null: the state was not opened here.
Writer *writerOf(const LogFileState *state) {
    Writer *writer = *chainOf(state);
    while (writer != nullptr && writer->state != state)
        writer = writer->next;
    return writer;
}

// The state's writer, a new one if it has none; null without memory.
Writer *makeWriter(LogFileState *state) {
    Writer *writer = writerOf(state);
    if (writer != nullptr) {
        if (state->handles == nullptr && writer->unlisted == 0 &&
            writer->opened) { // of a state that its caller freed
            Writer *const next = writer->next;
            *writer = {};
            writer->state = state;
            writer->next = next;
        }
        return writer;
    }
    writer = static_cast<Writer *>(calloc(1, sizeof(Writer)));
    if (writer == nullptr)
        return nullptr;
    Writer **chain = chainOf(state);
    writer->state = state;
    writer->next = *chain;
    *chain = writer;
    return writer;
}

void forgetWriter(const LogFileState *state) {
    for (Writer **at = chainOf(state); *at != nullptr; at = &(*at)->next) {
        if ((*at)->state == state) {
            Writer *forgotten = *at;
            *at = forgotten->next;
            free(forgotten);
            return;
        }
    }
}

// The state of an originator series that a later open of the same series shares.
LogFileState *rememberedState;

// The list of handles is linked both ways, so that a handle leaves it in no time: the one
// before is told in the room that the handle's context message reserves.
LogHandle *handleBefore(const LogHandle *handle) {
    return reinterpret_cast<LogHandle *>(handle->contextMsg.reserved[0]); // NOLINT: an address there
}

void setHandleBefore(LogHandle *handle, LogHandle *before) {
    handle->contextMsg.reserved[0] = reinterpret_cast<uintptr_t>(before);
}

bool isListed(const LogFileState *state, const LogHandle *handle) {
    for (const LogHandle *at = state->handles; at != nullptr; at = at->nextOnFile)
        if (at == handle)
            return true;
    return false;
}

// The handle is on no list.
void addHandleToFile(LogFileState *state, LogHandle *handle) {
    const GlobalLock lock(TAG_ADD_LOG_TO_FILE);
    LogHandle *const first = state->handles;
    if (first != nullptr)
        setHandleBefore(first, handle);
    setHandleBefore(handle, nullptr);
    handle->nextOnFile = first;
    state->handles = handle;
}

bool removeHandleFromFile(LogFileState *state, LogHandle *handle) {
    LogHandle *before = handleBefore(handle);
    // Unknown when the caller has released the context message already, and no link at all in
    // a record that was never on a list: then the list tells.
    if (state->handles != handle && (before == nullptr || before->nextOnFile != handle)) {
        before = state->handles;
        while (before != nullptr && before->nextOnFile != handle)
            before = before->nextOnFile;
        if (before == nullptr)
            return false;
    }
    LogHandle *const next = handle->nextOnFile;
    if (state->handles == handle) {
        before = nullptr;
        state->handles = next;
    } else {
        before->nextOnFile = next;
    }
    if (next != nullptr)
        setHandleBefore(next, before);
    setHandleBefore(handle, nullptr);
    return true;
}

// A context whose record could not be written is on no list, but its file stays for it. It
// is known by its link, which leads to itself.
bool isUnlistedContext(const LogHandle *handle) {
    return handle->nextOnFile == handle;
}

void releaseState(LogFileState *state) {
    zoltLogOs_close(&state->file);
    forgetWriter(state);
    if (rememberedState == state)
        rememberedState = nullptr;
    zoltLogFree(state->logsetName);
    zoltLogFree(state->logsetFilename);
    zoltLogFree(state);
}

uint64_t writtenVersion(const LogFileState *state) {
    return state->isLogset != 0 ? ZOLTLOG_RECORD_VERSION_LOGSET : ZOLTLOG_RECORD_VERSION_ORIGINATOR;
}

// ---- looking ---------------------------------------------------------------------------

enum class Looked { HERE, GONE, UNKNOWN };

// Whether the open file has a name still. Learns its size, whether it was ended, and when there are bytes in
// it that this writer did not append, whether they end inside a line.
Looked look(Writer *writer) {
    const int descriptor = writer->state->file.descriptor;
    struct stat status;
    writer->lookedAt = coarseNs();
    if (fstat(descriptor, &status) != 0)
        return Looked::UNKNOWN;
    if (status.st_nlink == 0)
        return Looked::GONE;
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size != writer->sizeThen + writer->ownSince && writer->readable)
        writer->torn = endsInsideLine(descriptor);
    writer->sizeThen = size;
    writer->ownSince = 0;
    writer->ended = isEnded(writer->state, status);
    return Looked::HERE;
}

bool isLookDue(const Writer *writer) {
    return !writer->held || coarseNs() - writer->lookedAt >= LOOK_EVERY_NS;
}

// Before a message: a file that was not looked at for a while may be gone, and is then
// closed. The mark keeps one that is there until the message is written. True: so looked at.
bool lookIfDue(Writer *writer) {
    const int descriptor = writer->state->file.descriptor;
    if (descriptor == -1 || !isLookDue(writer))
        return false;
    const Taken mark = takeMark(descriptor, writer->readable);
    writer->marked = mark == Taken::YES;
    if (mark == Taken::ByAnother || look(writer) == Looked::GONE)
        closeFile(writer);
    else if (!writer->held)
        writer->held = takeHold(descriptor) != Taken::ByAnother;
    return true;
}

// After a message that was written: its file is gone, and the message with it. Asked when
// the file was looked at before the message too, or when writing took so long that it was
// not looked at for a while; in between nobody removes it.
bool isLost(Writer *writer, bool looked) {
    if (!looked && !isLookDue(writer))
        return false;
    return look(writer) == Looked::GONE;
}

// ---- rollover --------------------------------------------------------------------------

bool reachesLimit(const LogFileState *state, uint64_t size, uint64_t length) {
    return (size + length) / BYTES_PER_KB >= state->maxFileSizeKB;
}

// The limit is reached with the record, or the file is gone. Other processes append to the
// file as well, so its size is the file system's to tell; it is not asked while even APPENDED_PER_NS
// since the last answer could not have filled the file. The time is taken before the
// question, so that nothing is appended unseen in between. The gap between this check
// and the write, in which others may append, is the same as with a question each time.
bool isFull(Writer *writer, uint64_t length) {
    LogFileState *state = writer->state;
    const int64_t now = monotonicNs();
    const int64_t age = now - writer->sizeAskedAt;
    if (writer->sizeAskedAt != 0 && age >= 0 && age < SIZE_KNOWN_FOR_NS) {
        const uint64_t most =
            writer->sizeThen + writer->ownSince + static_cast<uint64_t>(age) * APPENDED_PER_NS;
        if (!reachesLimit(state, most, length))
            return false;
    }
    switch (look(writer)) {
    case Looked::HERE:
        writer->sizeAskedAt = now;
        return reachesLimit(state, writer->sizeThen, length);
    case Looked::GONE:
        closeFile(writer);
        return true;
    default:
        return false;
    }
}

// A new file is to be started before a record of the given length is written.
bool isRolloverDue(Writer *writer, uint64_t length) {
    LogFileState *state = writer->state;
    // A file that is closed after a failed rollover or reopen is tried again each time.
    if (state->headerVersion != writtenVersion(state) || state->file.descriptor == -1 || writer->ended)
        return true;
    if (IsValidRolloverMode(state->rolloverMode) == 0) {
        // KEPT: an invalid mode is rollover switched off for good, seen at the first
        // write. Pinned by WriteFileRollover.InvalidModeSwitchesRolloverOff.
        state->rolloverMode = ZOLTLOG_ROLLOVER_NONE;
        return false;
    }
    if ((state->rolloverMode & TIMED_MODES) != 0 && time(nullptr) >= state->nextRolloverTime)
        return true;
    return (state->rolloverMode & ZOLTLOG_ROLLOVER_FILE_SIZE) != 0 && state->maxFileSizeKB != 0 &&
           isFull(writer, length);
}

// The waits of one rollover of a log set.
struct NameWait {
    int64_t deadline; // monotonic ns; 0 before the first wait
    int64_t second;   // the clock at the first wait
};

// The name of a log set's file tells its second: a file that is full within it leaves no
// name for the next one before the clock moves on. False when the time is up.
bool waitForNextName(Writer *writer, NameWait *wait) {
    if (wait->deadline == 0)
        *wait = {monotonicNs() + LOGSET_WAIT_NS, writer->nameSecond};
    while (time(nullptr) == writer->nameSecond) {
        if (monotonicNs() >= wait->deadline) {
            // A clock that stood still all the time is not waited for again. Otherwise
            // others filled the files of the seconds in between, and the next message
            // has its own chance.
            if (writer->nameSecond == wait->second)
                writer->stoppedSecond = writer->nameSecond;
            return false;
        }
        sleepNs(LOGSET_WAIT_STEP_NS);
    }
    return monotonicNs() < wait->deadline;
}

uint32_t writeRecordHere(Writer *writer, LogMsg *msg);

// Every file of an originator series begins with the contexts that are open: all are
// tried, in the order of the handle list.
void rewriteContexts(Writer *writer) {
    for (LogHandle *handle = writer->state->handles; handle != nullptr; handle = handle->nextOnFile)
        if (handle->noContext == 0)
            (void)writeRecordHere(writer, &handle->contextMsg);
}

bool isSameDate(const LogFileDate &a, const LogFileDate &b) {
    return a.year == b.year && a.month == b.month && a.day == b.day;
}

// The contexts that are open have their records in the open file.
void noteContexts(Writer *writer) {
    writer->contextsDate = writer->state->date;
    writer->contextsCounter = writer->state->counter;
    writer->contextsStart = writer->state->fileStartTime;
}

// Writes the open contexts into a file that was just opened, unless it is the one that has
// them already: it may have been closed for want of descriptors only.
void bringContexts(Writer *writer, bool created) {
    const LogFileState *state = writer->state;
    if (state->isLogset != 0 || state->file.descriptor == -1)
        return;
    const bool there = !created && isSameDate(writer->contextsDate, state->date) &&
                       writer->contextsCounter == state->counter &&
                       writer->contextsStart == state->fileStartTime;
    noteContexts(writer);
    if (!there)
        rewriteContexts(writer);
}

// Starts the next file that is fit to be written to. When none can be opened the file
// stays closed.
void rollOver(Writer *writer) {
    LogFileState *state = writer->state;
    NameWait wait = {};
    bool created = false;
    closeFile(writer);
    for (int round = 0; round < ROLL_ROUNDS; ++round) {
        // A file made here just now is as fit as any: were it due already, by a period of
        // nothing or a clock gone mad, so would be the next.
        if (openNextFile(writer, &created) != ZOLTLOG_OK || created || !isRolloverDue(writer, 0))
            break;
        // KEPT: a log set's rollover holds up the message, and all others of the process,
        // until the clock shows another second, at most LOGSET_WAIT_NS; then the record
        // goes into the full file. Pinned by WriteFileLogset.RolloverWithinASecondWaits.
        if (state->isLogset != 0 && !waitForNextName(writer, &wait))
            break;
        closeFile(writer);
    }
    (void)recycleLogFiles(state);
    bringContexts(writer, created);
}

bool clockStandsStill(const Writer *writer) {
    const LogFileState *state = writer->state;
    return state->isLogset != 0 && writer->stoppedSecond != 0 && state->file.descriptor != -1 &&
           state->headerVersion == writtenVersion(state) && time(nullptr) == writer->stoppedSecond;
}

void rollOverIfDue(Writer *writer, uint64_t length) {
    if (isRolloverDue(writer, length) && !clockStandsStill(writer))
        rollOver(writer);
}

// Others may have moved or removed the file: from time to time the current name is
// opened anew.
// KEPT: the name of a log set's file tells its second, so for a log set this starts a
// new file. Pinned by WriteFileLogset.PeriodicReopenStartsANewFile.
void reopenIfOld(Writer *writer, const LogMsg *msg) {
    LogFileState *state = writer->state;
    const auto sent = static_cast<int64_t>(msg->timestamp);
    if (state->lastReopenTime == 0 || state->file.descriptor == -1 || sent < REOPEN_AFTER_MS ||
        sent - REOPEN_AFTER_MS <= state->lastReopenTime)
        return;
    closeFile(writer);
    writer->sameName = true;
    bool created;
    if (openNextFile(writer, &created) != ZOLTLOG_OK)
        return; // the next message tries again
    state->lastReopenTime = sent;
    if (created)
        (void)recycleLogFiles(state);
    bringContexts(writer, created);
}

// ---- writing ---------------------------------------------------------------------------

// The rest of a write of which the system took the first done bytes: going on with it tells
// the reason. What is then complete all the same, with nobody's bytes in between, was
// written.
uint32_t appendRest(Writer *writer, const char *bytes, uint64_t length, uint64_t done) {
    OsFile *file = &writer->state->file;
    off_t end = done > 0 ? lseek(file->descriptor, 0, SEEK_CUR) : 0; // of what was written so far
    bool whole = done > 0;
    while (whole && done < length) {
        const int32_t written = writeOnce(file, bytes + done, length - done);
        if (written <= 0)
            break;
        done += static_cast<uint64_t>(written);
        writer->ownSince += static_cast<uint64_t>(written);
        const off_t now = lseek(file->descriptor, 0, SEEK_CUR);
        whole = end == -1 || now == end + written;
        end = now;
    }
    if (whole && done == length)
        return ZOLTLOG_OK;
    writer->torn = writer->torn || (done > 0 && done < length);
    // To be asked before the next message.
    writer->lookedAt = 0;
    writer->sizeAskedAt = 0;
    return wasDeviceFull() ? ZOLTLOG_DEVICE_FULL : ZOLTLOG_WRITE_FAILED;
}

// One write of all bytes. Inline, as all that stands between an entry point and the write: a
// message takes 1.05 times as long through a function each, see docs/performance.md.
[[gnu::always_inline]] inline uint32_t appendBytes(Writer *writer, const char *bytes, uint64_t length) {
    int32_t written = -1;
    if (length <= INT32_MAX)
        written = writeOnce(&writer->state->file, bytes, length);
    const uint64_t done = written > 0 ? static_cast<uint64_t>(written) : 0;
    writer->ownSince += done;
    return done == length ? uint32_t{ZOLTLOG_OK} : appendRest(writer, bytes, length, done);
}

// Ends the line in which a write was cut off, unless another writer has done so.
uint32_t endTornLine(Writer *writer) {
    const int descriptor = writer->state->file.descriptor;
    const LineEndLock onlyHere(descriptor);
    struct stat status;
    if (writer->readable && fstat(descriptor, &status) == 0 &&
        static_cast<uint64_t>(status.st_size) != writer->sizeThen + writer->ownSince &&
        !endsInsideLine(descriptor)) {
        writer->torn = false;
        return ZOLTLOG_OK;
    }
    const uint32_t result = appendBytes(writer, "\n", 1);
    if (result == ZOLTLOG_OK)
        writer->torn = false;
    return result;
}

[[gnu::always_inline]] inline uint32_t appendRecord(Writer *writer, const TextBuffer *buffer) {
    if (writer->torn) {
        const uint32_t result = endTornLine(writer);
        if (result != ZOLTLOG_OK)
            return result;
    }
    const uint32_t result = appendBytes(writer, buffer->data, textLength(buffer));
    // At once, so that other processes do not continue the torn line either. On a full
    // device it fails and remains to be done before the next record.
    if (writer->torn)
        (void)endTornLine(writer);
    return result;
}

// Writes a record again that went into a file that is gone.
uint32_t writeAgain(Writer *writer, const TextBuffer *buffer) {
    for (int again = 0; again < REWRITES; ++again) {
        closeFile(writer);
        rollOver(writer);
        const uint32_t result = appendRecord(writer, buffer);
        if (result != ZOLTLOG_OK || look(writer) != Looked::GONE)
            return result;
    }
    return ZOLTLOG_WRITE_FAILED;
}

uint32_t encode(const LogFileState *state, LogMsg *msg, TextBuffer *buffer, RecordNumbers *kept) {
    msg->recordVersion = writtenVersion(state);
    msg->fileOriginatorId = state->fileOriginatorId;
    return serializeMsg(msg, buffer, kept);
}

void release(TextBuffer *buffer) {
    if (isOnHeap(buffer))
        free_text_msg(buffer);
}

// Writes a record into the open file, whatever that is.
uint32_t writeRecordHere(Writer *writer, LogMsg *msg) {
    TextBuffer buffer;
    uint32_t result = encode(writer->state, msg, &buffer, &writer->lastNumbers);
    if (result != ZOLTLOG_OK)
        return result;
    result = appendRecord(writer, &buffer);
    release(&buffer);
    return result;
}

} // namespace

// Rolls over when it is due and writes the record into a file that still has its name when
// this returns with 0.
uint32_t zoltLogWriteMsgWithRolloverToFile(LogFileState *state, LogMsg *msg) {
    if (state == nullptr)
        return ZOLTLOG_NO_FILE_STATE;
    if (msg == nullptr)
        return ZOLTLOG_FAILED;
    Writer passing;
    Writer *writer = writerOf(state);
    if (writer == nullptr) { // the state was never opened: nothing is remembered from call to call
        passing = {};
        passing.state = state;
        writer = &passing;
    }
    TextBuffer buffer;
    uint32_t result = encode(state, msg, &buffer, &writer->lastNumbers);
    if (result != ZOLTLOG_OK)
        return result;
    // From here on, or from when another file is opened, until the end a file that was not
    // looked at for a while is marked.
    const bool looked = lookIfDue(writer);
    rollOverIfDue(writer, textLength(&buffer));
    reopenIfOld(writer, msg);
    result = appendRecord(writer, &buffer);
    if (result == ZOLTLOG_OK && isLost(writer, looked))
        result = writeAgain(writer, &buffer);
    endMark(writer);
    release(&buffer);
    return result;
}

void lookUpHostAgain() {
    HostNumber host;
    if (!__atomic_exchange_n(&hostOutOfDate, false, __ATOMIC_RELAXED))
        return; // another thread does
    lookUpHost(&host);
    const GlobalLock lock(TAG_OPEN_FILE);
    keepHost(&host);
}

// ---- operations ------------------------------------------------------------------------

namespace {

// The names of a log set for its state: copies, from the first record that has them.
struct LogsetNames {
    char *name = nullptr;
    char *filename = nullptr;
};

void freeNames(LogsetNames *names) {
    zoltLogFree(names->name);
    zoltLogFree(names->filename);
    *names = {};
}

uint32_t copyLogsetNames(const LogCfg *first, const LogCfg *second, LogsetNames *names) {
    const char *name = first->logsetName != nullptr ? first->logsetName : second->logsetName;
    const char *filename = first->logsetFilename != nullptr ? first->logsetFilename : second->logsetFilename;
    if (filename == nullptr)
        filename = name;
    if (filename == nullptr)
        return second->isLogset != 0 ? ZOLTLOG_INVALID_ARGUMENT : ZOLTLOG_OK;
    names->name = zoltLogSafeStrdup(name);
    names->filename = zoltLogSafeStrdup(filename);
    if (names->filename != nullptr && (names->name != nullptr || name == nullptr))
        return ZOLTLOG_OK;
    freeNames(names);
    return ZOLTLOG_NO_MEMORY;
}

// The writer of the state that the handle came with, or of the remembered one of the same
// series, which then replaces it; null without memory.
Writer *adoptState(LogHandle *handle, const LogCfg *fileCfg) {
    LogFileState *state = handle->file;
    Writer *writer = makeWriter(state);
    if (writer == nullptr || state == rememberedState || state->handles != nullptr || writer->opened)
        return writer; // opened before
    state->productId = fileCfg->productId;
    state->fileOriginatorId = fileCfg->originatorId;
    (void)zoltLogOs_initfilehandle(&state->file);
    if (fileCfg->isLogset != 0)
        return writer;
    if (rememberedState == nullptr) {
        rememberedState = state;
    } else if (rememberedState->productId == state->productId &&
               rememberedState->fileOriginatorId == state->fileOriginatorId) {
        forgetWriter(state);
        zoltLogFree(state);
        handle->file = rememberedState;
        return writerOf(rememberedState);
    }
    return writer;
}

// The file is open that an open of the state with these settings leads to.
bool isOpen(const LogFileState *state, const LogCfg *cfg) {
    const GlobalLock lock(TAG_OPEN_FILE);
    const LogFileState *other = rememberedState;
    if (writerOf(state) == nullptr && other != nullptr && other->productId == cfg->productId &&
        other->fileOriginatorId == cfg->originatorId)
        state = other;
    const Writer *writer = writerOf(state);
    return writer != nullptr && writer->opened;
}

void configureState(const Writer *writer, const LogCfg *cfg) {
    LogFileState *state = writer->state;
    const bool rescheduled = state->rolloverMode != cfg->rolloverMode ||
                             state->rolloverPeriod != cfg->rolloverPeriod ||
                             state->rolloverTime != cfg->rolloverTime;
    state->isLogset = cfg->isLogset;
    memcpy(state->directory, cfg->directory, LOG_DIRECTORY_LENGTH);
    state->directory[LOG_DIRECTORY_LENGTH] = '\0';
    state->maxFileSizeKB = cfg->maxFileSizeKB;
    state->rolloverMode = cfg->rolloverMode;
    state->logRecycling = cfg->logRecycling;
    state->rolloverPeriod = cfg->rolloverPeriod;
    state->rolloverTime = cfg->rolloverTime;
    if (!writer->opened) {
        state->counter = cfg->rolloverMode == ZOLTLOG_ROLLOVER_FILE_SIZE ? -1 : 0;
        state->date = {};
        (void)CopyFileSecuritySetting(&state->permissions, cfg->permissions.mode);
    } else if (rescheduled) {
        setNextRollover(state, time(nullptr));
    }
}

void configureHandle(LogHandle *handle, const LogCfg *cfg) {
    __atomic_store_n(&handle->debugLevel, cfg->debugLevel, __ATOMIC_RELAXED);
    __atomic_store_n(&handle->diagLevel, cfg->diagLevel, __ATOMIC_RELAXED);
    handle->outputFlags = cfg->outputFlags;
    handle->originatorId = cfg->originatorId;
    __atomic_store_n(&handle->reloadInterval, cfg->reloadInterval, __ATOMIC_RELAXED);
    handle->noContext = 1;
    handle->sequenceNumber = 1;
    const int64_t now = time(nullptr);
    __atomic_store_n(&handle->cfgTimestamp, now, __ATOMIC_RELAXED);
    __atomic_store_n(&handle->lastReloadCheck, now, __ATOMIC_RELAXED);
}

} // namespace

uint32_t zoltLogOpenFile(LogHandle *handle, LogCfg *originatorCfg, LogCfg *fileCfg) {
    const CancellationOff off;
    if (handle == nullptr || originatorCfg == nullptr || fileCfg == nullptr || handle->file == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (fileCfg->directory[0] == '\0')
        return ZOLTLOG_NO_DIRECTORY;
    HostNumber host;
    const bool hostNeeded = fileCfg->isLogset == 0 && !isOpen(handle->file, fileCfg);
    if (hostNeeded)
        lookUpHost(&host);
    const GlobalLock lock(TAG_OPEN_FILE);
    if (handle->file->handles == nullptr)
        setHandleBefore(handle, nullptr); // whatever the caller's storage held
    if (hostNeeded)
        keepHost(&host);
    (void)compareClocks();
    // First what can fail: a state that is remembered is also on a handle's way to release.
    LogsetNames names;
    const uint32_t copied = copyLogsetNames(originatorCfg, fileCfg, &names);
    if (copied != ZOLTLOG_OK)
        return copied;
    Writer *writer = adoptState(handle, fileCfg);
    if (writer == nullptr) {
        freeNames(&names);
        return ZOLTLOG_NO_MEMORY;
    }
    LogFileState *state = writer->state;
    configureState(writer, fileCfg);
    configureHandle(handle, originatorCfg);
    if (!isListed(state, handle))
        addHandleToFile(state, handle);
    if (names.filename != nullptr) {
        zoltLogFree(state->logsetName);
        zoltLogFree(state->logsetFilename);
        state->logsetName = names.name;
        state->logsetFilename = names.filename;
    }
    if (writer->opened)
        return ZOLTLOG_OK;
    const uint32_t result = openLatestFile(writer);
    endMark(writer);
    noteContexts(writer);
    return result;
}

uint32_t closeFileLocked(LogHandle *handle) {
    if (handle->file == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    LogFileState *state = handle->file;
    Writer *writer = writerOf(state);
    bool found = false;
    if (isUnlistedContext(handle) && writer != nullptr && writer->unlisted > 0)
        --writer->unlisted;
    else
        found = removeHandleFromFile(state, handle);
    handle->file = nullptr;
    handle->nextOnFile = nullptr;
    // Also when the handle was on no list because its open failed early: then no other
    // handle knows of the state.
    if (state->handles == nullptr && (writer == nullptr || writer->unlisted == 0))
        releaseState(state);
    return found ? ZOLTLOG_OK : ZOLTLOG_FAILED;
}

void leaveFile(LogHandle *record) {
    const LogFileState *state = record->file;
    const Writer *writer = writerOf(state);
    // A copy of an open record is on no list.
    if (writer == nullptr || !(isUnlistedContext(record) ? writer->unlisted > 0 : isListed(state, record)))
        return;
    (void)closeFileLocked(record);
    (void)zoltLogFreeMsg(&record->contextMsg);
}

uint32_t zoltLogCloseFile(LogHandle *handle) {
    if (handle == nullptr || handle->file == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_CLOSE_FILE);
    return closeFileLocked(handle);
}

uint32_t zoltLogCreateContextToFile(LogHandle *parent, LogHandle *context, LogMsg *msg) {
    if (parent == nullptr || context == nullptr || msg == nullptr || parent == context)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_CREATE_CONTEXT_TO_FILE);
    // The token of an enclosing context is borrowed from its handle, which may be closed
    // while this context's message is still written into new files.
    LogMsg contextMsg = *msg;
    if (contextMsg.contextToken != nullptr && contextMsg.ownsStrings != 1) {
        contextMsg.contextToken = zoltLogSafeStrdup(contextMsg.contextToken);
        if (contextMsg.contextToken == nullptr)
            return ZOLTLOG_NO_MEMORY;
        contextMsg.ownsStrings = 1;
    }
    *msg = {}; // moved
    leaveFile(context);
    *context = {};
    context->contextMsg = contextMsg;
    context->file = parent->file;
    context->originatorId = parent->originatorId;
    context->debugLevel = parent->debugLevel;
    context->diagLevel = parent->diagLevel;
    context->secureAuditLevel = parent->secureAuditLevel;
    context->outputFlags = parent->outputFlags;
    context->localizers = parent->localizers;
    context->oslog = parent->oslog;
    context->reloadInterval = parent->reloadInterval;
    // A reload stores these two without the lock.
    context->cfgTimestamp = __atomic_load_n(&parent->cfgTimestamp, __ATOMIC_RELAXED);
    context->lastReloadCheck = __atomic_load_n(&parent->lastReloadCheck, __ATOMIC_RELAXED);
    context->cfgCopy = parent->cfgCopy;
    context->utf8 = parent->utf8;
    context->noContext = 1;
    context->sequenceNumber = 1;
    const uint32_t result = zoltLogWriteMsgWithRolloverToFile(parent->file, &context->contextMsg);
    if (result != ZOLTLOG_OK) { // a plain handle on the parent's file, which is kept for it
        Writer *writer = parent->file != nullptr ? writerOf(parent->file) : nullptr;
        if (writer != nullptr) {
            ++writer->unlisted;
            context->nextOnFile = context;
        } else {
            context->file = nullptr;
        }
        return result;
    }
    context->noContext = 0;
    addHandleToFile(context->file, context);
    return ZOLTLOG_OK;
}
