/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A writer of secure audit messages: they go to the system log and to no file.
 *
 * Shows: a secure handle, which the program configures by itself; its level; the form of
 * line that log collectors parse (ZOLTLOG_OUT_OSLOGX); a message of the catalogue.
 * Needs the formatter plug-in.
 *
 *   secure_audit [-e] PRODUCT ORIGINATOR USER HOST
 *
 * Tells that USER has logged in from HOST. With -e the line comes on standard error too.
 */
#include "zoltlog_results.h"

#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

enum { MSG_LOGGED_IN = 1004, LEVEL = 1, OUTCOME_SUCCESS = 0 };

int main(int argc, char **argv) {
    setlocale(LC_ALL, ""); /* the user's language and encoding: names come from the command line */
    const int echo = argc > 1 && strcmp(argv[1], "-e") == 0;
    if (argc - echo != 5) {
        fprintf(stderr, "usage: secure_audit [-e] PRODUCT ORIGINATOR USER HOST\n");
        return 2;
    }
    const uint64_t product = strtoull(argv[echo + 1], NULL, 10);
    const uint64_t originator = strtoull(argv[echo + 2], NULL, 10);
    const char *user = argv[echo + 3];
    const char *host = argv[echo + 4];

    LogCfg cfg = {0};
    uint32_t result = InitLogCfg(product, originator, NULL, &cfg);
    if (result == ZOLTLOG_OK) {
        cfg.secureAuditLevel = 3;              /* messages of level 1 to 3 */
        cfg.outputFlags |= ZOLTLOG_OUT_OSLOGX; /* eight values before each text */
        zoltLogCfgSetSyslogIdent(&cfg, "secure_audit");
        zoltLogCfgSetSyslogFacility(&cfg, LOG_AUTH);
        zoltLogCfgSetSyslogOpt(&cfg, echo ? LOG_PERROR : 0);
    }
    LogHandle log = {0};
    if (result == ZOLTLOG_OK)
        result = zoltLogSecureOpen(product, originator, &cfg, &log);
    if (result != ZOLTLOG_OK) {
        fprintf(stderr, "secure_audit: the log cannot be opened: %s\n", qdulResultText(result));
        zoltLogClose(&log); /* it is open without its system log, or zeros */
        zoltLogFreeCfg(&cfg);
        return 3;
    }
    result = zoltLogSecureAuditMsg(&log, LEVEL, user, OUTCOME_SUCCESS, MSG_LOGGED_IN,
                                   "User %s logged in from %s", user, host);
    if (result != ZOLTLOG_OK)
        fprintf(stderr, "secure_audit: the message was not sent: %s\n", qdulResultText(result));
    zoltLogClose(&log); /* ZOLTLOG_INVALID_ARGUMENT, since there is no file; all is released */
    zoltLogFreeCfg(&cfg);
    return result == ZOLTLOG_OK ? 0 : 1;
}
