/* SPDX-License-Identifier: Apache-2.0 */
/*
 * zoltlog_results.h - the names and texts of the library's result codes. Header only,
 * for C11 and C++17: a program that prints a result needs nothing else.
 *
 *     uint32_t result = zoltLogOpen(5, 7, &log);
 *     if (result != ZOLTLOG_OK)
 *         fprintf(stderr, "%s (%u)\n", qdulResultText(result), result);
 */
#ifndef ZOLTLOG_RESULTS_H
#define ZOLTLOG_RESULTS_H

#include "zoltlog.h"

/* What a result means, in English: "configuration not found, or its file cannot be opened".
 * "unknown result" for a number that is no result code. The text is constant. */
static inline const char *qdulResultText(uint32_t result) {
    switch (result) {
#define QDUL_RESULT_CASE(name, value, text)                                                                  \
    case name:                                                                                               \
        return text;
        ZOLTLOG_RESULTS(QDUL_RESULT_CASE)
#undef QDUL_RESULT_CASE
    default:
        return "unknown result";
    }
}

/* The name of a result: "ZOLTLOG_CFG_NOT_FOUND". Null for a number that is no result code. */
static inline const char *qdulResultName(uint32_t result) {
    switch (result) {
#define QDUL_RESULT_CASE(name, value, text)                                                                  \
    case name:                                                                                               \
        return #name;
        ZOLTLOG_RESULTS(QDUL_RESULT_CASE)
#undef QDUL_RESULT_CASE
    default:
        return NULL;
    }
}

#endif
