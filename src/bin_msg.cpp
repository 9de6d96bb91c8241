// SPDX-License-Identifier: Apache-2.0
// The message record: initialisation with the next sequence number, attributes, getters,
// release.
#include "bin_msg.h"

#include "lockUnix.h"
#include "os_process.h"

#include <cstring>
#include <sys/time.h>

namespace {

// Sets of message types, for the getters
constexpr uint32_t only(uint32_t type) {
    return 1u << type;
}
constexpr uint32_t ANY_TYPE = 0; // also types that do not exist
constexpr uint32_t DEBUG_ONLY = only(ZOLTLOG_MSG_DEBUG);
constexpr uint32_t DIAG_ONLY = only(ZOLTLOG_MSG_DIAG);
constexpr uint32_t APP_ONLY = only(ZOLTLOG_MSG_APP);
constexpr uint32_t CONTEXT_ONLY = only(ZOLTLOG_MSG_CONTEXT);
constexpr uint32_t SECURE_AUDIT_ONLY = only(ZOLTLOG_MSG_SECURE_AUDIT);
constexpr uint32_t BOTH_AUDITS = only(ZOLTLOG_MSG_AUDIT) | SECURE_AUDIT_ONLY;

// ---- initialisation and release ------------------------------------------------

// Everything but the text.
uint32_t initWithoutText(LogMsg *msg, LogHandle *handle, uint32_t type, uint64_t number, uint64_t thread) {
    memset(msg, 0, sizeof *msg);
    msg->type = type;
    msg->messageId = number;
    msg->processId = currentProcess();
    msg->threadId = thread;
    if (handle->file != nullptr) {
        msg->productId = handle->file->productId;
        msg->originatorId = handle->originatorId;
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    msg->timestamp = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
    if (handle->noContext == 0)
        return zoltLogGetMsgContextAttrToken(&handle->contextMsg, &msg->contextToken);
    return ZOLTLOG_OK;
}

} // namespace

uint64_t GetNextSequenceNumber(LogHandle *handle) {
    if (handle == nullptr)
        return 0;
    const GlobalLock lock(TAG_GET_NEXT_SEQUENCE_NUMBER);
    return handle->sequenceNumber++;
}

uint32_t initMsgLocked(LogMsg *msg, LogHandle *handle, uint32_t type) {
    uint64_t number;
    {
        const NestedLock lock(TAG_GET_NEXT_SEQUENCE_NUMBER);
        number = handle->sequenceNumber++;
    }
    return initWithoutText(msg, handle, type, number, zoltLogMutex.holders[0].thread);
}

uint32_t initMsgWithOwnedText(LogMsg *msg, LogHandle *handle, uint32_t type, char *ownedText) {
    uint32_t result = ZOLTLOG_INVALID_ARGUMENT;
    if (msg != nullptr && handle != nullptr)
        result = initWithoutText(msg, handle, type, GetNextSequenceNumber(handle), currentThread());
    if (result == ZOLTLOG_OK)
        msg->text = ownedText;
    else
        zoltLogFree(ownedText);
    return result;
}

uint32_t zoltLogInitMsg(LogMsg *msg, LogHandle *handle, uint32_t type, const char *defaultText) {
    if (msg == nullptr || handle == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    const uint32_t result =
        initWithoutText(msg, handle, type, GetNextSequenceNumber(handle), currentThread());
    if (result != ZOLTLOG_OK || defaultText == nullptr)
        return result;
    msg->text = zoltLogSafeStrdup(defaultText);
    return msg->text != nullptr ? ZOLTLOG_OK : ZOLTLOG_NO_MEMORY;
}

uint32_t zoltLogFreeMsg(LogMsg *msg) {
    if (msg == nullptr)
        return ZOLTLOG_OK;
    if (msg->type == ZOLTLOG_MSG_CONTEXT)
        zoltLogFree(msg->attr.contextTitle);
    if (msg->ownsStrings == 1) {
        zoltLogFree(msg->contextToken);
        // KEPT: the subject of a secure audit record is not released although the
        // record is said to own its strings; callers that set the flag release it
        // themselves. Pinned by MessageRecord.OwnedSubjectOfASecureAuditRecordIsNotFreed.
        if (msg->type <= ZOLTLOG_MSG_APP || msg->type == ZOLTLOG_MSG_AUDIT)
            zoltLogFree(msg->who);
    }
    zoltLogFree(msg->text);
    const int32_t released = zoltLisFree(&msg->lis);
    memset(msg, 0, sizeof *msg);
    return released == 0 ? ZOLTLOG_OK : ZOLTLOG_FAILED;
}

namespace {

// ---- attributes ----------------------------------------------------------------

// KEPT: a level out of range is stored all the same, and told. Pinned by
// MessageRecord.LevelsOutsideOneToSixAreStoredAndFail.
uint32_t setWhoAndLevel(LogMsg *msg, const char *who, uint32_t level) {
    if (msg == nullptr || who == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    msg->who = const_cast<char *>(who);
    msg->attr.level = level;
    return level >= ZOLTLOG_LEVEL_FIRST && level <= ZOLTLOG_LEVEL_LAST ? ZOLTLOG_OK : ZOLTLOG_FAILED;
}

} // namespace

uint32_t zoltLogSetDebugAttr(LogMsg *msg, const char *who, uint32_t level) {
    return setWhoAndLevel(msg, who, level);
}

uint32_t zoltLogSetDiagAttr(LogMsg *msg, const char *who, uint32_t level) {
    return setWhoAndLevel(msg, who, level);
}

uint32_t zoltLogSetAppAttr(LogMsg *msg, uint32_t severity) {
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    msg->attr.severity = severity;
    return ZOLTLOG_OK;
}

uint32_t zoltLogSetAppAttrEx(LogMsg *msg, const char *who, uint32_t severity) {
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    msg->who = const_cast<char *>(who);
    msg->attr.severity = severity;
    return ZOLTLOG_OK;
}

uint32_t zoltLogSetAuditAttr(LogMsg *msg, const char *subject, uint32_t outcome) {
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    msg->who = const_cast<char *>(subject);
    msg->outcome = outcome;
    return ZOLTLOG_OK;
}

uint32_t zoltLogSetSecureAuditAttr(LogMsg *msg, uint32_t level, const char *subject, uint32_t outcome) {
    if (msg == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    msg->attr.level = level;
    msg->who = const_cast<char *>(subject);
    msg->outcome = outcome;
    return ZOLTLOG_OK;
}

uint32_t zoltLogSetContextAttr(LogMsg *msg, const char *token) {
    if (msg == nullptr || token == nullptr)
        return ZOLTLOG_INVALID_ARGUMENT;
    char *copy = zoltLogSafeStrdup(token);
    if (copy == nullptr)
        return ZOLTLOG_NO_MEMORY;
    if (msg->type == ZOLTLOG_MSG_CONTEXT) // in other types the word is no pointer
        zoltLogFree(msg->attr.contextTitle);
    msg->attr.contextTitle = copy;
    return ZOLTLOG_OK;
}

namespace {

// ---- getters -------------------------------------------------------------------

// Whether a getter that serves the given set of types may write to out.
bool mayRead(const LogMsg *msg, const void *out, uint32_t types) {
    if (msg == nullptr || out == nullptr)
        return false;
    return types == ANY_TYPE || (msg->type <= ZOLTLOG_MSG_SECURE_AUDIT && (types & only(msg->type)) != 0);
}

} // namespace

// One row each: name, type of the value, message types that have it, field of LogMsg.
// clang-format off
#define GETTERS(GETTER)                                                                   \
    GETTER(zoltLogGetMsgType,             uint32_t, ANY_TYPE,          type)              \
    GETTER(zoltLogGetMsgProductId,        uint64_t, ANY_TYPE,          productId)         \
    GETTER(zoltLogGetMsgOriginatorId,     uint64_t, ANY_TYPE,          originatorId)      \
    GETTER(zoltLogGetMsgFid,              uint64_t, ANY_TYPE,          fileOriginatorId)  \
    GETTER(zoltLogGetMsgTimestamp,        uint64_t, ANY_TYPE,          timestamp)         \
    GETTER(zoltLogGetMsgPid,              uint64_t, ANY_TYPE,          processId)         \
    GETTER(zoltLogGetMsgTid,              uint64_t, ANY_TYPE,          threadId)          \
    GETTER(zoltLogGetMsgContextToken,     char *,   ANY_TYPE,          contextToken)      \
    GETTER(zoltLogGetMsgText,             char *,   ANY_TYPE,          text)              \
    GETTER(zoltLogGetMsgAppAttrWho,       char *,   APP_ONLY,          who)               \
    GETTER(zoltLogGetMsgAppAttrSeverity,  uint32_t, APP_ONLY,          attr.severity)     \
    GETTER(zoltLogGetMsgDebugAttrWho,     char *,   DEBUG_ONLY,        who)               \
    GETTER(zoltLogGetMsgDebugAttrLevel,   uint32_t, DEBUG_ONLY,        attr.level)        \
    GETTER(zoltLogGetMsgDebugLevel,       uint32_t, DEBUG_ONLY,        attr.level)        \
    GETTER(zoltLogGetMsgDiagAttrWho,      char *,   DIAG_ONLY,         who)               \
    GETTER(zoltLogGetMsgDiagAttrLevel,    uint32_t, DIAG_ONLY,         attr.level)        \
    GETTER(zoltLogGetMsgDiagLevel,        uint32_t, DIAG_ONLY,         attr.level)        \
    GETTER(zoltLogGetMsgAuditAttrSubject, char *,   BOTH_AUDITS,       who)               \
    GETTER(zoltLogGetMsgAuditAttrOutcome, uint32_t, BOTH_AUDITS,       outcome)           \
    GETTER(zoltLogGetMsgAuditLevel,       uint32_t, SECURE_AUDIT_ONLY, attr.level)        \
    GETTER(zoltLogGetMsgContextAttrToken, char *,   CONTEXT_ONLY,      attr.contextTitle)
// clang-format on

#define GETTER_OF_FIELD(name, valueType, types, field)                                                       \
    uint32_t name(const LogMsg *msg, valueType *out) { /* NOLINT: a type */                                  \
        if (!mayRead(msg, out, types))                                                                       \
            return ZOLTLOG_INVALID_ARGUMENT;                                                                 \
        *out = msg->field;                                                                                   \
        return ZOLTLOG_OK;                                                                                   \
    }
GETTERS(GETTER_OF_FIELD)
#undef GETTER_OF_FIELD

uint32_t zoltLogGetMsgLis(LogMsg *msg, ZoltLisBlock **out) {
    if (!mayRead(msg, out, ANY_TYPE))
        return ZOLTLOG_INVALID_ARGUMENT;
    *out = &msg->lis;
    return ZOLTLOG_OK;
}
