// SPDX-License-Identifier: Apache-2.0
// The message entry points of the five families, and contexts.
//
// Owns: which argument decides what, the level filters, making the text or the
// localization block of a message, and who frees them. Leaves to others: the
// record (bin_msg), text formatting (formatmsg), what happens to a finished
// record (dispatchLocked, zoltLogCreateContextToFile).
//
// Every family narrows down in the same way:
//   ... (variable arguments) -> V (va_list: wording made here, before the lock)
//   -> L (text and block made by the caller) -> send, which builds the record and
//   dispatches it under the lock.
//
// Order: texts and blocks of a call; send; wording; application, diagnostic, audit,
// secure audit, debug; contexts.
#include "bin_msg.h"
#include "formatmsg.h"
#include "lockUnix.h"
#include "write.h"
#include "write_file.h"

#include <cerrno>

namespace {

// ---- texts and blocks of a call --------------------------------------------------

constexpr size_t TEXT_ROOM = 1024; // most texts are shorter; longer ones lie on the heap

// The text of a message for the length of a call, or none.
struct CallText {
    // cppcheck-suppress uninitMemberVar ; the room is filled when there is a text
    CallText() = default;
    ~CallText() { release(); }
    CallText(const CallText &) = delete;
    CallText &operator=(const CallText &) = delete;

    void format(const char *format, va_list args) {
        release();
        text = formatTextInto(room, sizeof room, format, args);
    }
    void render(ZoltLisBlock *block) {
        release();
        text = renderLisTextInto(block, room, sizeof room);
    }
    void release() {
        if (text != room)
            zoltLogFree(text);
        text = nullptr;
    }

    char *text = nullptr;
    char room[TEXT_ROOM];
};

// A localization block of which this code is the owner.
struct OwnedBlock {
    OwnedBlock() = default;
    OwnedBlock(OwnedBlock &&other) noexcept : words(other.release()) {}
    OwnedBlock(const OwnedBlock &) = delete;
    OwnedBlock &operator=(const OwnedBlock &) = delete;
    OwnedBlock &operator=(OwnedBlock &&) = delete;
    ~OwnedBlock() { free(); }

    bool empty() const { return (words.word[0] | words.word[1] | words.word[2]) == 0; }
    ZoltLisBlock release() {
        const ZoltLisBlock moved = words;
        words = {};
        return moved;
    }
    void free() {
        if (!empty()) {
            (void)zoltLisFree(&words);
            words = {};
        }
    }

    ZoltLisBlock words = {};
};

// An L variant consumes its block whatever becomes of the message: the words in
// the caller's storage are zeroed at once.
OwnedBlock takeBlock(ZoltLisBlock *callers) {
    OwnedBlock block;
    if (callers != nullptr) {
        block.words = *callers;
        *callers = {};
    }
    return block;
}

// ---- send --------------------------------------------------------------------

struct Message { // what an entry point knows about its message, besides the wording
    uint32_t type;
    const char *lockTag;
    uint64_t messageId; // not used with ZOLTLOG_NO_MESSAGE_ID in the flags
    uint32_t flags;
    uint32_t severityOrLevel; // not for audit
    const char *who;          // the subject of audit and secure audit messages
    uint32_t outcome;         // audit and secure audit
};

uint32_t setAttributes(LogMsg *record, const Message &message) {
    switch (message.type) {
    case ZOLTLOG_MSG_APP:
        return zoltLogSetAppAttrEx(record, message.who, message.severityOrLevel);
    case ZOLTLOG_MSG_DIAG:
        return zoltLogSetDiagAttr(record, message.who, message.severityOrLevel);
    case ZOLTLOG_MSG_AUDIT:
        return zoltLogSetAuditAttr(record, message.who, message.outcome);
    case ZOLTLOG_MSG_SECURE_AUDIT:
        return zoltLogSetSecureAuditAttr(record, message.severityOrLevel, message.who, message.outcome);
    default:
        return zoltLogSetDebugAttr(record, message.who, message.severityOrLevel);
    }
}

// Builds the record and dispatches it. The text, which may be null, stays the caller's.
// The block is released when all is done, since the strings may lie in it; it is left in
// place for the caller to decide upon when the record could not be initialised.
uint32_t sendText(LogHandle *handle, const Message &message, const char *text, OwnedBlock &block) {
    uint32_t result;
    refreshHost();
    {
        const GlobalLock lock(message.lockTag);
        LogMsg record;
        result = initMsgLocked(&record, handle, message.type);
        if (result != ZOLTLOG_OK)
            return result;
        record.text = const_cast<char *>(text);
        if ((message.flags & ZOLTLOG_NO_MESSAGE_ID) == 0)
            record.messageId = message.messageId;
        result = setAttributes(&record, message);
        if (result == ZOLTLOG_OK)
            result = dispatchLocked(handle, message.flags, &record);
    }
    block.free();
    return result;
}

[[gnu::noinline]] uint32_t sendBlock(LogHandle *handle, const Message &message, OwnedBlock &block) {
    CallText text;
    text.render(&block.words);
    return sendText(handle, message, text.text, block);
}

// The text, or where there is none that of the block, is the wording of the message.
uint32_t send(LogHandle *handle, const Message &message, const char *text, OwnedBlock &block) {
    return text == nullptr && !block.empty() ? sendBlock(handle, message, block)
                                             : sendText(handle, message, text, block);
}

} // namespace

// ---- wording -----------------------------------------------------------------

uint32_t zoltLogMapLisResToLoggingRes(int32_t lisResult) {
    switch (lisResult) {
    case ZOLTLIS_OK:
        return ZOLTLOG_OK;
    case ZOLTLIS_INVALID_ARGUMENT:
        return ZOLTLOG_INVALID_ARGUMENT;
    case ZOLTLIS_NO_MEMORY:
        return ZOLTLOG_NO_MEMORY;
    case ZOLTLIS_FAILED:
        return ZOLTLOG_LIS_FAILED;
    default:
        return ZOLTLOG_LIS_OTHER;
    }
}

namespace {

uint32_t lookUp(ZoltLisBlock *block, const LogHandle *handle, int64_t messageNumber, const char *format,
                va_list args) {
    const int32_t result = zoltLisVEx(block, handle->utf8, messageNumber, format, args);
    if (result != 0)
        *block = {}; // what a failed look-up leaves is no block, and is not released
    return zoltLogMapLisResToLoggingRes(result);
}

uint32_t copyAndLookUp(ZoltLisBlock *block, const LogHandle *handle, int64_t messageNumber,
                       const char *format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const uint32_t result = lookUp(block, handle, messageNumber, format, copy);
    va_end(copy);
    return result;
}

// The wording of an application or diagnostic message: a catalogue block, a text
// formatted here, or with ZOLTLOG_KEEP_LOCAL_TEXT both.
uint32_t makeWording(const LogHandle *handle, uint32_t flags, int64_t messageNumber, const char *format,
                     va_list args, CallText *text, OwnedBlock *block) {
    if (messageNumber != 0) {
        const int callersError = errno; // for the text's "%m"
        const uint32_t result = copyAndLookUp(&block->words, handle, messageNumber, format, args);
        errno = callersError;
        if (result != ZOLTLOG_OK || (flags & ZOLTLOG_KEEP_LOCAL_TEXT) == 0)
            return result;
    }
    text->format(format, args); // without a text the message goes out without one
    return ZOLTLOG_OK;
}

bool lacksLocalText(uint32_t flags, const char *text) {
    return (flags & ZOLTLOG_KEEP_LOCAL_TEXT) != 0 && text == nullptr;
}

// Levels are read without the lock, while another thread may store them.
bool isFiltered(const uint32_t *handleLevel, uint32_t level) {
    return __atomic_load_n(handleLevel, __ATOMIC_RELAXED) < level;
}

// ---- application -------------------------------------------------------------

Message appMessage(uint64_t messageId, uint32_t flags, uint32_t severity, const char *who) {
    return {ZOLTLOG_MSG_APP, TAG_APP_MSG_2LEX, messageId, flags, severity, who, 0};
}

} // namespace

uint32_t zoltLogAppMsg(LogHandle *handle, uint32_t flags, uint32_t severity, int64_t messageNumber,
                       const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result = zoltLogAppMsg2VEx(handle, 0, flags | ZOLTLOG_NO_MESSAGE_ID, severity, "",
                                              messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAppMsgEx(LogHandle *handle, uint32_t flags, uint32_t severity, const char *who,
                         int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result = zoltLogAppMsg2VEx(handle, 0, flags | ZOLTLOG_NO_MESSAGE_ID, severity, who,
                                              messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAppMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                        int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogAppMsg2VEx(handle, messageId, flags, severity, "", messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAppMsg2Ex(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                          const char *who, int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogAppMsg2VEx(handle, messageId, flags, severity, who, messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAppMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                         int64_t messageNumber, const char *format, va_list args) {
    return zoltLogAppMsg2VEx(handle, messageId, flags, severity, "", messageNumber, format, args);
}

uint32_t zoltLogAppMsg2VEx(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                           const char *who, int64_t messageNumber, const char *format, va_list args) {
    if (handle == nullptr || format == nullptr || who == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    CallText text;
    OwnedBlock block;
    const uint32_t result = makeWording(handle, flags, messageNumber, format, args, &text, &block);
    if (result != ZOLTLOG_OK)
        return result;
    if (lacksLocalText(flags, text.text))
        return ZOLTLOG_INVALID_ARGUMENT;
    return send(handle, appMessage(messageId, flags, severity, who), text.text, block);
}

uint32_t zoltLogAppMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                         const char *text, ZoltLisBlock *block) {
    return zoltLogAppMsg2LEx(handle, messageId, flags, severity, "", text, block);
}

uint32_t zoltLogAppMsg2LEx(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                           const char *who, const char *text, ZoltLisBlock *block) {
    OwnedBlock taken = takeBlock(block);
    if (handle == nullptr || block == nullptr || who == nullptr || lacksLocalText(flags, text))
        return ZOLTLOG_INVALID_ARGUMENT;
    return send(handle, appMessage(messageId, flags, severity, who), text, taken);
}

namespace {

// ---- diagnostic --------------------------------------------------------------

Message diagMessage(uint64_t messageId, uint32_t flags, uint32_t level, const char *who) {
    return {ZOLTLOG_MSG_DIAG, TAG_DIAG_MSG_2L, messageId, flags, level, who, 0};
}

} // namespace

uint32_t zoltLogDiagMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                        int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogDiagMsg2V(handle, 0, flags | ZOLTLOG_NO_MESSAGE_ID, level, who, messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogDiagMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                         const char *who, int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogDiagMsg2V(handle, messageId, flags, level, who, messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogDiagMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, int64_t messageNumber, const char *format, va_list args) {
    if (handle == nullptr || format == nullptr || who == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)zoltDynaLoadConfig(handle); // always succeeds
    if (isFiltered(&handle->diagLevel, level))
        return ZOLTLOG_OK;
    CallText text;
    OwnedBlock block;
    const uint32_t result = makeWording(handle, flags, messageNumber, format, args, &text, &block);
    if (result != ZOLTLOG_OK)
        return result;
    if (lacksLocalText(flags, text.text))
        return ZOLTLOG_INVALID_ARGUMENT;
    return send(handle, diagMessage(messageId, flags, level, who), text.text, block);
}

uint32_t zoltLogDiagMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, const char *text, ZoltLisBlock *block) {
    OwnedBlock taken = takeBlock(block);
    if (handle == nullptr || block == nullptr || who == nullptr || lacksLocalText(flags, text))
        return ZOLTLOG_INVALID_ARGUMENT;
    if (isFiltered(&handle->diagLevel, level))
        return ZOLTLOG_OK;
    return send(handle, diagMessage(messageId, flags, level, who), text, taken);
}

namespace {

// ---- audit -------------------------------------------------------------------

Message auditMessage(uint64_t messageId, uint32_t flags, const char *subject, uint32_t outcome) {
    return {ZOLTLOG_MSG_AUDIT, TAG_AUDIT_MSG_2L, messageId, flags, 0, subject, outcome};
}

} // namespace

uint32_t zoltLogAuditMsg(LogHandle *handle, uint32_t flags, const char *subject, uint32_t outcome,
                         int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result = zoltLogAuditMsg2V(handle, 0, flags | ZOLTLOG_NO_MESSAGE_ID, subject, outcome,
                                              messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAuditMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                          uint32_t outcome, int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogAuditMsg2V(handle, messageId, flags, subject, outcome, messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogAuditMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                           uint32_t outcome, int64_t messageNumber, const char *format, va_list args) {
    if (handle == nullptr || messageNumber == 0 || format == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    OwnedBlock block;
    const uint32_t result = lookUp(&block.words, handle, messageNumber, format, args);
    if (result != ZOLTLOG_OK)
        return result;
    return send(handle, auditMessage(messageId, flags, subject, outcome), nullptr, block);
}

uint32_t zoltLogAuditMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                           uint32_t outcome, ZoltLisBlock *block) {
    OwnedBlock taken = takeBlock(block);
    if (handle == nullptr || block == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    return send(handle, auditMessage(messageId, flags, subject, outcome), nullptr, taken);
}

namespace {

// ---- secure audit ------------------------------------------------------------

Message secureAuditMessage(uint32_t level, const char *subject, uint32_t outcome) {
    return {ZOLTLOG_MSG_SECURE_AUDIT, TAG_SECURE_AUDIT_MSG_L, 0, ZOLTLOG_OUT_OSLOG, level, subject, outcome};
}

} // namespace

uint32_t zoltLogSecureAuditMsg(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                               int64_t messageNumber, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogSecureAuditMsgV(handle, level, subject, outcome, messageNumber, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogSecureAuditMsgV(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                                int64_t messageNumber, const char *format, va_list args) {
    if (handle == nullptr || messageNumber == 0 || format == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (isFiltered(&handle->secureAuditLevel, level))
        return ZOLTLOG_OK;
    OwnedBlock block;
    const uint32_t result = lookUp(&block.words, handle, messageNumber, format, args);
    if (result != ZOLTLOG_OK)
        return result;
    return send(handle, secureAuditMessage(level, subject, outcome), nullptr, block);
}

uint32_t zoltLogSecureAuditMsgL(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                                ZoltLisBlock *block) {
    OwnedBlock taken = takeBlock(block);
    if (handle == nullptr || block == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (isFiltered(&handle->secureAuditLevel, level))
        return ZOLTLOG_OK;
    const uint32_t result = send(handle, secureAuditMessage(level, subject, outcome), nullptr, taken);
    // KEPT: when the record cannot be initialised the block stays with the caller, who frees it.
    // Pinned by WriteMessages.ASecureAuditBlockStaysWithTheCallerWhenInitialisationFails.
    *block = taken.release();
    return result;
}

namespace {

// ---- debug -------------------------------------------------------------------

Message debugMessage(const char *lockTag, uint64_t messageId, uint32_t flags, uint32_t level,
                     const char *who) {
    return {ZOLTLOG_MSG_DEBUG, lockTag, messageId, flags, level, who, 0};
}

} // namespace

uint32_t zoltLogDebugMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                         const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result =
        zoltLogDebugMsg2V(handle, 0, flags | ZOLTLOG_NO_MESSAGE_ID, level, who, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogDebugMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result = zoltLogDebugMsg2V(handle, messageId, flags, level, who, format, args);
    va_end(args);
    return result;
}

uint32_t zoltLogDebugMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                           const char *who, const char *format, va_list args) {
    if (handle == nullptr || who == nullptr || format == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    (void)zoltDynaLoadConfig(handle); // always succeeds
    if (isFiltered(&handle->debugLevel, level))
        return ZOLTLOG_OK;
    CallText text;
    text.format(format, args);
    OwnedBlock none;
    return send(handle, debugMessage(TAG_DEBUG_MSG_2V, messageId, flags, level, who), text.text, none);
}

uint32_t zoltLogFormattedDebugMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                                  const char *text) {
    if (handle == nullptr || who == nullptr || text == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    OwnedBlock none;
    return send(handle, debugMessage(TAG_FORMATTED_DEBUG_MSG, 0, flags | ZOLTLOG_NO_MESSAGE_ID, level, who),
                text, none);
}

namespace {

// ---- contexts ----------------------------------------------------------------

// Fills the context message; what it has filled so far is freed by the caller
// when it fails.
uint32_t makeContextMessage(LogHandle *parent, LogMsg *msg, const char *token, int64_t messageNumber,
                            const char *format, va_list args) {
    const int callersError = errno; // for the "%m" of each wording
    char *text = nullptr;
    if (messageNumber == 0) {
        va_list copy;
        va_copy(copy, args);
        (void)listxt_svnprintf(&text, format, copy); // without one the context goes out without
        va_end(copy);
    }
    uint32_t result = initMsgWithOwnedText(msg, parent, ZOLTLOG_MSG_CONTEXT, text);
    if (result != ZOLTLOG_OK)
        return result;
    msg->utf8 = parent->utf8; // this record does not pass through zoltLogMsg, which does it for others
    if (msg->contextToken != nullptr) { // the parent context's own, and it may be closed first
        msg->contextToken = zoltLogSafeStrdup(msg->contextToken);
        if (msg->contextToken == nullptr)
            return ZOLTLOG_NO_MEMORY;
        msg->ownsStrings = 1;
    }
    result = zoltLogSetContextAttr(msg, token);
    if (result != ZOLTLOG_OK)
        return result;
    errno = callersError;
    if (messageNumber != 0)
        return lookUp(&msg->lis, parent, messageNumber, format, args);
    const int32_t made = zoltLisTextV(&msg->lis, format, args);
    if (made != 0)
        msg->lis = {}; // as lookUp does
    return zoltLogMapLisResToLoggingRes(made);
}

} // namespace

uint32_t zoltLogCreateContext(LogHandle *parent, LogHandle *context, const char *token, int64_t messageNumber,
                              const char *format, ...) {
    if (parent == nullptr || context == nullptr || format == nullptr || context == parent)
        return ZOLTLOG_INVALID_ARGUMENT;
    if (context->file != nullptr) {
        const GlobalLock lock(TAG_CLOSE_FILE);
        leaveFile(context);
    }
    *context = {};
    va_list args;
    va_start(args, format);
    uint32_t result = makeContextMessage(parent, &context->contextMsg, token, messageNumber, format, args);
    va_end(args);
    if (result == ZOLTLOG_OK)
        result = zoltLogCreateContextToFile(parent, context, &context->contextMsg);
    if (result != ZOLTLOG_OK && context->file == nullptr) { // nothing may be reached through it
        (void)zoltLogFreeMsg(&context->contextMsg);
        *context = {};
        context->noContext = 1;
    }
    return result;
}

uint32_t zoltLogDestroyContext(LogHandle *context) {
    if (context == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    // Another thread's rollover may be writing this very context into a new file. It is taken
    // off the file's list first, since the message holds a link of that.
    const GlobalLock lock(TAG_CLOSE_FILE);
    const uint32_t result = closeFileLocked(context);
    (void)zoltLogFreeMsg(&context->contextMsg);
    context->noContext = 1;
    return result;
}
