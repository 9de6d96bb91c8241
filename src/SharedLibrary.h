// SPDX-License-Identifier: Apache-2.0
// The formatter plug-in, as the console and the system log use it.
#pragma once

#include "zoltlog.h"

// What became of a request to the plug-in.
enum class FormatterState {
    Absent,   // it cannot be loaded
    NoMemory, // no room for the record that the slot points at
    NoEntry,  // it lacks the entry point; it is unloaded again
    Called    // result and text are what it gave
};

struct FormatterRequest { // the entry's arguments that differ between the sinks
    LocalizerList *localizers;
    const char *locale;
    uint32_t formatFlags; // flag bits of zoltformat.h
    LogMsg *msg;
    LogHandle *handle;
};

// Loads the plug-in, which stays loaded, and has it render a message. For the
// length of the call *slot (fmtLib or newfmtLib) points at the plug-in's handle
// and entry. result and text are set when Called; the text, which may be null
// even then, belongs to the caller (zoltLogFree). Needs the global lock.
FormatterState renderWithFormatter(LogFormatter **slot, const FormatterRequest &request, uint32_t *result,
                                   char **text);
