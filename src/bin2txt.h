// SPDX-License-Identifier: Apache-2.0
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

// Numbers as the last record of a writer had them: the next one mostly has the same. Begins
// as zero.
struct RecordNumbers {
    uint64_t process;
    uint64_t thread;
    uint64_t identityLength; // 0 at first
    char identity[2 * (MAX_DECIMAL + 1)];
    int64_t second; // of the time stamp
    uint64_t secondLength;
    char secondDigits[MAX_DECIMAL];
};

// zoltLogMsgSerialize; nothing may be null.
uint32_t serializeMsg(LogMsg *msg, TextBuffer *buffer, RecordNumbers *kept);
