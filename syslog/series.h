// SPDX-License-Identifier: Apache-2.0
// An open series of log files, for the messages of one program.
#pragma once

#include "calls.h"

#include <cstdint>
#include <sys/types.h>

// The file that the library writes to, told from a file of the program's that has got the
// same descriptor: programs close all descriptors without knowing whose they are.
struct OpenFile {
    int32_t descriptor; // -1: none
    int64_t counter;    // these four change with the file, or when it is opened anew
    LogFileDate date;
    int64_t startTime;
    int64_t reopenTime;
    dev_t device;
    ino_t inode;
};

struct Series {
    LogHandle handle;
    uint64_t originator;
    uint64_t generation; // of the ident that it was opened for
    bool retired;        // to be closed by its last user
    uint32_t users;      // threads of the process usersOf that log through it
    pid_t usersOf;
    OpenFile file;
};

// Ids of configured names, or of decimal numbers; 0: none.
uint64_t findProduct(const Qdul &qdul, const char *text);
uint64_t findOriginator(const Qdul &qdul, uint64_t product, const char *text);
// Of names only.
uint64_t findOriginatorNamed(const Qdul &qdul, uint64_t product, const char *name);

// Null when the series cannot be opened.
Series *openSeries(const Qdul &qdul, uint64_t product, uint64_t originator);
void closeSeries(const Qdul &qdul, Series *series);

// With the library's lock held: the open file is still the library's. When it is not, it is
// given up, so that it is neither written to nor closed.
bool keepsItsFile(Series *series);
// With the library's lock held, after a message: the library may have opened another one.
void learnFile(Series *series);

// What a message of syslog(3) becomes.
struct Meaning {
    uint32_t type;   // ZOLTLOG_MSG_...
    uint32_t number; // severity, outcome or level
};
Meaning meaningOf(int priority);

// The originator's settings let such messages through.
bool passes(const Qdul &qdul, Series *series, const Meaning &meaning);
// who and text are UTF-8. A result code.
uint32_t send(const Qdul &qdul, Series *series, const Meaning &meaning, const char *who, const char *text);
