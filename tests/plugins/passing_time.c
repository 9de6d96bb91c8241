/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded into a program: each look at the clock finds it two minutes later. */
#include <time.h>

time_t time(time_t *out) {
    static time_t passed;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    passed += 120;
    if (out != NULL)
        *out = now.tv_sec + passed;
    return now.tv_sec + passed;
}
