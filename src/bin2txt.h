// The record encoder, for the library's own units: strings of records, and records whose
// strings were looked at before.
#pragma once

#include "cmn_routines.h"
#include "decimal.h"
#include "zoltlog.h"

#include <stdint.h>

// ---- strings --------------------------------------------------------------------------

// What the strings of one record are in.
enum class StringForm {
    UTF8,             // so they are said to be
    LOCALE_AND_ASCII, // the locale's encoding, whose bytes below 128 mean what they do in ASCII
    LOCALE            // the locale's encoding, whatever it is
};

inline StringForm stringFormOf(uint32_t utf8) {
    if (utf8 != 0)
        return StringForm::UTF8;
    return localeKeepsAscii() ? StringForm::LOCALE_AND_ASCII : StringForm::LOCALE;
}

// A string of a record in UTF-8: the text itself, which must outlive it, or its
// conversion. A null text is empty.
struct RecordString {
    RecordString(const char *text, StringForm form) {
        if (text != nullptr && *text != '\0')
            read(text, form);
    }
    ~RecordString() {
        if (converted != nullptr)
            zoltLogFree(converted);
    }
    RecordString(const RecordString &) = delete;
    RecordString &operator=(const RecordString &) = delete;

    const char *bytes = nullptr;
    size_t size = 0;
    bool newline = false; // may have one
    char *converted = nullptr;

  private:
    void read(const char *text, StringForm form);
};

// The strings of a record that an entry point knows and makes ready before it takes the
// lock: the text, and the one that follows it.
struct RecordWords {
    RecordWords(const char *textOfMsg, const char *lastOfMsg, uint32_t utf8)
        : form(stringFormOf(utf8)), text(textOfMsg, form), last(lastOfMsg, form) {}

    const StringForm form;
    const RecordString text;
    const RecordString last;
};

// ---- records --------------------------------------------------------------------------

// The numbers of process and thread as the last record of a writer had them: the next one
// mostly has the same. Begins as zero.
struct RecordIdentity {
    uint64_t process;
    uint64_t thread;
    uint64_t length; // of text; 0 at first
    char text[2 * (MAX_DECIMAL + 1)];
};

// zoltLogMsgSerialize; nothing may be null. serializeWith: the words are the record's.
uint32_t serializeMsg(LogMsg *msg, TextBuffer *buffer, RecordIdentity *identity);
uint32_t serializeWith(const RecordWords &words, LogMsg *msg, TextBuffer *buffer, RecordIdentity *identity);
