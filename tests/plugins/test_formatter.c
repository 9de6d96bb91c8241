/* SPDX-License-Identifier: Apache-2.0 */
#include "test_formatter.h"

#include <stdlib.h>
#include <string.h>

SeenByFormatter seen;

#ifndef NO_ENTRY
uint32_t LogFormatMessage(LocalizerList *localizers, uint64_t zero1, const char *locale, uint64_t zero2,
                          uint32_t formatFlags, uint64_t zero3, LogMsg *msg, LogHandle *handle, char **text) {
    static const LogFormatter none;
    ++seen.calls;
    seen.localizers = localizers;
    strncpy(seen.locale, locale != NULL ? locale : "null", sizeof seen.locale - 1);
    seen.zeros = zero1 | zero2 | zero3;
    seen.formatFlags = formatFlags;
    seen.msg = msg;
    seen.handle = handle;
    seen.fmtLib = fmtLib != NULL ? *fmtLib : none;
    seen.newfmtLib = newfmtLib != NULL ? *newfmtLib : none;
#ifdef TRIMMING
    if (msg->text != NULL) {
        char *end = msg->text + strlen(msg->text);
        while (end > msg->text && (end[-1] == '\n' || end[-1] == ' '))
            *--end = '\0';
    }
#endif
#ifdef NO_TEXT
    *text = NULL;
#else
    *text = strdup(msg->text != NULL ? msg->text : "no text");
#endif
#ifdef FAILING
    return 77;
#else
    return 0;
#endif
}
#endif
