// SPDX-License-Identifier: Apache-2.0
// Which process this is. Words that begin as zero in every process, however it was made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

inline constexpr size_t PROCESS_PAGE_SIZE = 4096;

// The kernel wipes this page in the child of fork, _Fork and clone, so that a look at it
// takes the place of a system call. Where the kernel cannot do that, fork's handler does.
struct alignas(PROCESS_PAGE_SIZE) ProcessPage {
    uint64_t pid;       // getPID's; 0: not asked for yet
    uint32_t lockState; // lockUnix's
    uint64_t creator;   // lockUnix's
};

extern ProcessPage processPage;

uint64_t askForPid();

// getPID and getTID, for the way of a message.
inline uint64_t currentProcess() {
    const uint64_t pid = __atomic_load_n(&processPage.pid, __ATOMIC_RELAXED);
    return pid != 0 ? pid : askForPid();
}

inline uint64_t currentThread() {
    return static_cast<uint64_t>(pthread_self());
}
