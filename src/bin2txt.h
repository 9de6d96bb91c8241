// The record encoder, for its neighbours: how a record's strings are to be taken, and the
// encoding with what the writer keeps from one record for the next.
#pragma once

#include "cmn_routines.h"
#include "decimal.h"
#include "text_msg.h"
#include "zoltlog.h"

#include <cstdint>

// ---- strings --------------------------------------------------------------------------

// What the strings of one record are in.
enum class StringForm {
    UTF8,           // so they are said to be
    LocaleAndAscii, // the locale's encoding, whose bytes below 128 mean what they do in ASCII
    LOCALE          // the locale's encoding, whatever it is
};

inline StringForm stringFormOf(uint32_t utf8) {
    if (utf8 != 0)
        return StringForm::UTF8;
    if (!localeKeepsAscii())
        return StringForm::LOCALE;
    return StringForm::LocaleAndAscii;
}

// ---- records --------------------------------------------------------------------------

// The numbers of process and thread as the last record of a writer had them: the next one
// mostly has the same. Begins as zero.
struct RecordIdentity {
    uint64_t process;
    uint64_t thread;
    uint64_t length; // of text; 0 at first
    char text[2 * (MAX_DECIMAL + 1)];
};

// zoltLogMsgSerialize; nothing may be null.
uint32_t serializeMsg(LogMsg *msg, TextBuffer *buffer, RecordIdentity *identity);
