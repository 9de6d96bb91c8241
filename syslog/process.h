// SPDX-License-Identifier: Apache-2.0
// Whether the calling process is one of its own.
#pragma once

#include <sys/types.h>

// False between vfork and exec, where memory is the parent's and descriptors are not: what
// is opened or remembered there would mislead the parent.
bool hasOwnMemory();

// The number of a process for which that holds.
pid_t ownProcess();
