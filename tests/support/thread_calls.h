// SPDX-License-Identifier: Apache-2.0
// Calls of the thread library that a test watches or lets fail; see syscalls.h.
#pragma once

#include <pthread.h>

#include "support/syscalls.h"

SUPPORT_CALL(int, pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes), noexcept)
SUPPORT_CALL(int, pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int type), (attributes, type),
             noexcept)
SUPPORT_CALL(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
             (mutex, attributes), noexcept)
SUPPORT_CALL(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_CALL(int, pthread_setcancelstate, (int state, int *old), (state, old), )
