// SPDX-License-Identifier: Apache-2.0
// Process and thread identity.
#include "os_process.h"

#include "zoltlog.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

ProcessPage processPage;

namespace {

bool isWiped; // by the kernel

void wipe() {
    __atomic_store_n(&processPage.pid, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&processPage.creator, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&processPage.lockState, 0, __ATOMIC_RELEASE);
}

// Runs before the constructors that have no priority.
[[gnu::constructor(101)]] void haveThePageWiped() {
    isWiped = madvise(&processPage, sizeof processPage, MADV_WIPEONFORK) == 0;
    if (!isWiped)
        (void)pthread_atfork(nullptr, nullptr, wipe);
}

} // namespace

uint64_t askForPid() {
    const auto pid = static_cast<uint64_t>(getpid());
    if (isWiped) // else a clone would keep its parent's number
        __atomic_store_n(&processPage.pid, pid, __ATOMIC_RELAXED);
    return pid;
}

uint64_t getPID(void) {
    return currentProcess();
}

uint64_t getTID(void) {
    return currentThread();
}
