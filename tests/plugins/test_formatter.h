// SPDX-License-Identifier: Apache-2.0
/* What a test's formatter plug-in was asked last. */
#ifndef TEST_FORMATTER_H
#define TEST_FORMATTER_H

#include "zoltlog.h"

typedef struct SeenByFormatter {
    int calls;
    LocalizerList *localizers;
    char locale[32]; /* "null" for a null pointer */
    uint64_t zeros;  /* the three numbers, ORed */
    uint32_t formatFlags;
    LogMsg *msg;
    LogHandle *handle;
    LogFormatter fmtLib; /* what the library's pointers pointed at; zeros for null */
    LogFormatter newfmtLib;
} SeenByFormatter;

#endif
