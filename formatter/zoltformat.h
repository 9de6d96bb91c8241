// SPDX-License-Identifier: Apache-2.0
/*
 * zoltformat.h - the formatter plug-in libzoltLogFormatMsg.so.3.
 *
 * The logging library loads the plug-in by name for its copies of messages to
 * the console and the system log, and asks it to render each message record as
 * one readable line:
 *
 *     2026-03-01 13:45:02.123+01:00 ERROR mgr [req-17]: Disk full, 2 of 3
 *     2026-03-01 13:45:02.124+01:00 DIAG-3 mgr: 2 files were skipped
 *     2026-03-01 13:45:02.125+01:00 AUDIT subject=alice outcome=0: User bob removed
 *     2026-03-01 13:45:02.126+01:00 CONTEXT req-18 [req-17]: Request of host b
 *
 * Parts that a message lacks are left out, with the blank before them; a message
 * without a text says "(no text)", an audit without a subject "subject=(none)".
 *
 * The line is in the character encoding of the process's locale, and in UTF-8
 * when the locale is C. It is one line, and it cannot control a terminal: control
 * characters are shown as \n, \r, \t or \x1b; C1 controls, line separators,
 * direction controls and characters that the encoding lacks as \u0085 or
 * \U0001f600; and bytes that are no character as \xff. A backslash is shown as it is.
 */
#ifndef ZOLTFORMAT_H
#define ZOLTFORMAT_H

#include "zoltlog.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of the format flags: which parts precede the text. The console asks for
 * all (0x700); the system log, which puts a time before each line itself, for
 * all but the time (0x600). Other bits are ignored. */
enum {
    ZOLTFORMAT_TIME = 0x100,  /* local date and time, milliseconds, offset from UTC */
    ZOLTFORMAT_KIND = 0x200,  /* INFO WARNING ERROR CRITICAL EMERGENCY (severity 0 to 4) of an application
                                 message; DIAG-level, DEBUG-level, SECURE-AUDIT-level, AUDIT, CONTEXT */
    ZOLTFORMAT_SOURCE = 0x400 /* who (a context's own token), or subject and outcome; [context token] */
};

/*
 * Renders msg as a line, without a line feed. The text is a block of malloc
 * that the caller frees. The locale, the localizer list, the handle and the
 * three numbers are taken and not used: lines look the same in every language.
 *
 * A record without a text but with a localization block has its text rendered
 * from the block. Takes no lock. Results: 0; ZOLTLOG_INVALID_ARGUMENT for a
 * null msg or text; ZOLTLOG_NO_MEMORY. On failure *text is null.
 */
#if defined(__GNUC__)
__attribute__((visibility("default")))
#endif
uint32_t
LogFormatMessage(LocalizerList *localizers, uint64_t zero1, const char *locale, uint64_t zero2,
                 uint32_t formatFlags, uint64_t zero3, LogMsg *msg, LogHandle *handle, char **text);

#ifdef __cplusplus
}
#endif

#endif
