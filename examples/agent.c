/* SPDX-License-Identifier: Apache-2.0 */
/*
 * An agent: runs for a long time and watches something; here, the load of the machine.
 *
 * Shows: a level that follows the configuration while the program runs. With
 * DynaReloadInSec set, debug and diagnostic calls look at the configuration file now and
 * then (at most once a minute), so that an administrator raises DebugLevel, reads the
 * details, and lowers it again without a restart.
 *
 *   agent PRODUCT ORIGINATOR [ROUNDS [MILLISECONDS]]
 *
 * Looks at the load every MILLISECONDS (1000), ROUNDS times or for ever (0), and tells
 * on standard output when its debug level changes.
 */
#include "zoltlog_results.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static const double HIGH_LOAD = 8.0;

static void watch(LogHandle *log) {
    double loads[3];
    if (getloadavg(loads, 3) != 3) {
        zoltLogAppMsgEx(log, 0, ZOLTLOG_SEVERITY_ERROR, "load", 0, "the load cannot be read");
        return;
    }
    if (loads[0] > HIGH_LOAD)
        zoltLogAppMsgEx(log, 0, ZOLTLOG_SEVERITY_WARNING, "load", 0, "the load is %.2f", loads[0]);
    zoltLogDiagMsg(log, 0, 3, "load", 0, "load of the last minute: %.2f", loads[0]);
    /* Costs next to nothing while the level is below 4: nothing is formatted. */
    zoltLogDebugMsg(log, 0, 4, "load", "loads of 1, 5 and 15 minutes: %.2f %.2f %.2f", loads[0], loads[1],
                    loads[2]);
}

int main(int argc, char **argv) {
    if (argc < 3 || argc > 5) {
        fprintf(stderr, "usage: agent PRODUCT ORIGINATOR [ROUNDS [MILLISECONDS]]\n");
        return 2;
    }
    const long rounds = argc > 3 ? strtol(argv[3], NULL, 10) : 0;
    const long milliseconds = argc > 4 ? strtol(argv[4], NULL, 10) : 1000;
    const struct timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    LogHandle log = {0};
    const uint32_t result = zoltLogOpen(strtoull(argv[1], NULL, 10), strtoull(argv[2], NULL, 10), &log);
    if (result != ZOLTLOG_OK) {
        fprintf(stderr, "agent: the log cannot be opened: %s\n", qdulResultText(result));
        zoltLogClose(&log);
        return 3;
    }
    log.utf8 = 1; /* our texts are UTF-8, whatever the locale is */
    uint32_t known = UINT32_MAX;
    for (long round = 0; rounds == 0 || round < rounds; ++round) {
        uint32_t level = 0;
        watch(&log);
        if (zoltLogGetDebugLevel(&log, &level) == ZOLTLOG_OK && level != known) {
            printf("debug level %u\n", level);
            fflush(stdout);
            known = level;
        }
        nanosleep(&pause, NULL);
    }
    zoltLogClose(&log);
    return 0;
}
