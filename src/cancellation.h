// SPDX-License-Identifier: Apache-2.0
// Thread cancellation, off for the length of a scope: a thread that is to be cancelled goes on
// until what the scope holds is given back. Deferred cancellation only.
#pragma once

#include <pthread.h>

struct CancellationOff {
    CancellationOff() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~CancellationOff() { (void)pthread_setcancelstate(before, nullptr); }
    CancellationOff(const CancellationOff &) = delete;
    CancellationOff &operator=(const CancellationOff &) = delete;

    int before = PTHREAD_CANCEL_ENABLE;
};
