// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <cstddef>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t PAGE_SIZE = 4096;

// The kernel wipes this page in the child of a fork of whatever kind, but for vfork's.
struct alignas(PAGE_SIZE) OwnPage {
    pid_t process; // 0: not known
};

OwnPage page;

void know() {
    __atomic_store_n(&page.process, getpid(), __ATOMIC_RELAXED);
}

[[gnu::constructor(101)]] void beginKnowing() {
    (void)madvise(&page, sizeof page, MADV_WIPEONFORK);
    (void)pthread_atfork(nullptr, nullptr, know);
    know();
}

} // namespace

bool hasOwnMemory() {
    const pid_t known = __atomic_load_n(&page.process, __ATOMIC_RELAXED);
    if (known == 0) { // of _Fork or clone, or before the constructors
        know();
        return true;
    }
    return known == getpid();
}

pid_t ownProcess() {
    return __atomic_load_n(&page.process, __ATOMIC_RELAXED);
}
