// SPDX-License-Identifier: Apache-2.0
// Handles and dispatch: opens and closes log handles, passes each message to the writer
// and to the sinks, keeps levels and sequence numbers. Leaves to others: reading the
// settings (config), files (write_file), message texts (formatmsg), console and system
// log (LogOutput, osLogUnix). The message entry points are in write_messages.cpp.
#include "write.h"

#include "cancellation.h"
#include "cmn_routines.h"
#include "formatmsg.h"
#include "lockUnix.h"
#include "write_file.h"

#include <cstddef>
#include <cstdlib>

namespace {

// ---- open and close ----------------------------------------------------------------

// Settings read from the configuration, freed with the scope. On the heap: two records
// would be too much for the stack of a small thread.
struct CfgFree {
    void operator()(LogCfg *cfg) const {
        (void)zoltLogFreeCfg(cfg);
        zoltLogFree(cfg);
    }
};
using OwnedCfg = std::unique_ptr<LogCfg, CfgFree>;

OwnedCfg newCfg() {
    return OwnedCfg(static_cast<LogCfg *>(calloc(1, sizeof(LogCfg))));
}

// Gives the handle a closed file state and opens the series. The state stays with the
// handle when that fails, until zoltLogClose.
uint32_t openFile(LogHandle *handle, LogCfg *originatorCfg, LogCfg *fileCfg) {
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    if (state == nullptr)
        return ZOLTLOG_NO_MEMORY;
    state->file.descriptor = -1;
    handle->file = state;
    uint32_t result = zoltLogOpenFile(handle, originatorCfg, fileCfg);
    if (result == ZOLTLOG_OK && (originatorCfg->outputFlags & ZOLTLOG_OUT_OSLOG) != 0 &&
        osLogOpen(&originatorCfg->oslog, &handle->oslog) != 0)
        result = ZOLTLOG_OSLOG_OPEN_FAILED;
    return result;
}

bool isBlockEmpty(const ZoltLisBlock *block) {
    return (block->word[0] | block->word[1] | block->word[2]) == 0;
}

} // namespace

uint32_t zoltLogOpen(uint64_t productId, uint64_t originatorId, LogHandle *handle) {
    return zoltLogOpen2(productId, originatorId, originatorId, handle);
}

uint32_t zoltLogOpen2(uint64_t productId, uint64_t originatorId, uint64_t fileOriginatorId,
                      LogHandle *handle) {
    const CancellationOff off;
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 ||
        isOrigIdValid(fileOriginatorId) == 0 || handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *handle = {};
    const OwnedCfg originatorCfg = newCfg();
    const OwnedCfg fileCfg = newCfg();
    if (originatorCfg == nullptr || fileCfg == nullptr)
        return ZOLTLOG_NO_MEMORY;
    uint32_t result = zoltLogReadCfg(productId, originatorId, originatorCfg.get());
    if (result == ZOLTLOG_OK)
        result = zoltLogReadCfg(productId, fileOriginatorId, fileCfg.get());
    if (result == ZOLTLOG_OK)
        result = openFile(handle, originatorCfg.get(), fileCfg.get());
    return result;
}

uint32_t zoltLogOpenLogSet(uint64_t productId, uint64_t originatorId, const char *logsetName,
                           LogHandle *handle) {
    const CancellationOff off;
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || isLogSetValid(logsetName) == 0 ||
        handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *handle = {};
    const OwnedCfg cfg = newCfg();
    if (cfg == nullptr)
        return ZOLTLOG_NO_MEMORY;
    uint32_t result = zoltLogReadlogsetCfg(productId, logsetName, cfg.get());
    if (result == ZOLTLOG_OK)
        result = openFile(handle, cfg.get(), cfg.get());
    handle->originatorId = originatorId; // the log set's record belongs to no originator
    return result;
}

uint32_t zoltLogSecureOpen(uint64_t productId, uint64_t originatorId, LogCfg *cfg, LogHandle *handle) {
    const CancellationOff off;
    if (isProdIdValid(productId) == 0 || isOrigIdValid(originatorId) == 0 || cfg == nullptr ||
        handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    *handle = {};
    // KEPT: a secure handle numbers its messages from 0, a file handle from 1. Pinned by
    // WriteSecure.NumbersFromZero.
    handle->sequenceNumber = 0;
    handle->secureAuditLevel = cfg->secureAuditLevel;
    handle->noContext = 1;
    handle->outputFlags = ZOLTLOG_OUT_OSLOG | (cfg->outputFlags & ZOLTLOG_OUT_OSLOGX);
    const bool opened = osLogOpen(&cfg->oslog, &handle->oslog) == 0;
    // KEPT: the caller's record receives the ids. Pinned by WriteSecure.WritesTheIdsIntoTheRecord.
    cfg->productId = productId;
    cfg->originatorId = originatorId;
    OwnedCfg copy = newCfg();
    if (copy != nullptr)
        (void)CopyCfg(copy.get(), cfg);
    handle->cfgCopy = copy.release();
    return opened ? ZOLTLOG_OK : ZOLTLOG_OSLOG_OPEN_FAILED;
}

uint32_t zoltLogClose(LogHandle *handle) {
    const CancellationOff off;
    if (handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (handle->file != nullptr)
        (void)FreeFileSecuritySetting(&handle->file->permissions);
    (void)osLogClose(&handle->oslog);
    const OwnedCfg copy(handle->cfgCopy);
    handle->cfgCopy = nullptr;
    // KEPT: a secure handle has no file, so closing it tells an invalid argument although
    // all is released. Pinned by WriteSecure.CloseTellsAnInvalidArgument.
    return zoltLogCloseFile(handle);
}

// ---- dispatch ------------------------------------------------------------------------

// The sinks' formatter is given a text that may be changed: the record's own.
uint32_t outputCopy(LogHandle *handle, LogMsg *msg, uint32_t flags) {
    char *const borrowed = msg->text;
    msg->text = zoltLogSafeStrdup(borrowed);
    uint32_t result = ZOLTLOG_NO_MEMORY;
    if (msg->text != nullptr || borrowed == nullptr)
        result = LogOutputBasedOnFlags(handle, msg, flags);
    zoltLogFree(msg->text);
    msg->text = borrowed;
    return result;
}

uint32_t zoltLogMsg(LogHandle *handle, uint32_t flags, LogMsg *msg) {
    if (handle == nullptr || msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (isSecureOnFile(handle, msg))
        return ZOLTLOG_SECURE_ON_FILE_HANDLE;
    msg->utf8 = handle->utf8;
    refreshHost();
    const GlobalLock lock(TAG_MSG);
    // From here on the text is the only form of the wording. The block is released at the
    // end: the record's strings may lie in it.
    ZoltLisBlock block = msg->lis;
    msg->lis = {};
    if (msg->text == nullptr && !isBlockEmpty(&block))
        msg->text = renderLisText(&block);
    uint32_t written = ZOLTLOG_OK;
    if (msg->type != ZOLTLOG_MSG_SECURE_AUDIT)
        written = zoltLogWriteMsgWithRolloverToFile(handle->file, msg);
    uint32_t output = ZOLTLOG_OK;
    if (hasSinks(handle, flags))
        output = LogOutputBasedOnFlags(handle, msg, flags);
    if (!isBlockEmpty(&block))
        (void)zoltLisFree(&block);
    return written != ZOLTLOG_OK ? written : output;
}

namespace {

// ---- levels and sequence numbers -----------------------------------------------------

// Levels are stored under the lock and read by message calls without it.
uint32_t storeLevel(uint32_t *field, uint32_t level, const char *tag) {
    const GlobalLock lock(tag);
    __atomic_store_n(field, level, __ATOMIC_RELAXED);
    return ZOLTLOG_OK;
}

uint32_t readLevel(const uint32_t *field, uint32_t *level, const char *tag) {
    const GlobalLock lock(tag);
    *level = __atomic_load_n(field, __ATOMIC_RELAXED);
    return ZOLTLOG_OK;
}

} // namespace

uint32_t zoltLogSetDebugLevel(LogHandle *handle, uint32_t level) {
    if (handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    return storeLevel(&handle->debugLevel, level, TAG_SET_DEBUG_LEVEL);
}

uint32_t zoltLogGetDebugLevel(LogHandle *handle, uint32_t *level) {
    if (handle == nullptr || level == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)zoltDynaLoadConfig(handle);
    return readLevel(&handle->debugLevel, level, TAG_GET_DEBUG_LEVEL);
}

uint32_t zoltLogSetDiagLevel(LogHandle *handle, uint32_t level) {
    if (handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    return storeLevel(&handle->diagLevel, level, TAG_SET_DIAG_LEVEL);
}

uint32_t zoltLogGetDiagLevel(LogHandle *handle, uint32_t *level) {
    if (handle == nullptr || level == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)zoltDynaLoadConfig(handle);
    return readLevel(&handle->diagLevel, level, TAG_GET_DIAG_LEVEL);
}

uint32_t zoltLogSetSecureAuditLevel(LogHandle *handle, uint32_t level) {
    if (handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    return storeLevel(&handle->secureAuditLevel, level, TAG_SET_SECURE_AUDIT_LEVEL);
}

uint32_t zoltLogGetSecureAuditLevel(LogHandle *handle, uint32_t *level) {
    if (handle == nullptr || level == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    return readLevel(&handle->secureAuditLevel, level, TAG_GET_SECURE_AUDIT_LEVEL);
}

uint32_t zoltLogSetSequenceNumber(LogHandle *handle, uint64_t number) {
    if (handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const GlobalLock lock(TAG_SET_SEQUENCE_NUMBER);
    handle->sequenceNumber = number;
    return ZOLTLOG_OK;
}

uint32_t zoltLogGetSequenceNumber(LogHandle *handle, uint64_t *number) {
    if (handle == nullptr || number == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    // KEPT: under the setter's tag. Pinned by Write.SequenceNumberGetterUsesTheSettersTag.
    const GlobalLock lock(TAG_SET_SEQUENCE_NUMBER);
    *number = handle->sequenceNumber;
    return ZOLTLOG_OK;
}
