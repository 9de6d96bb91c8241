// SPDX-License-Identifier: Apache-2.0
// Lets chosen allocations of the process fail, and counts blocks. Include it in the one
// source file of a test program, after <cstdlib>: it replaces the allocator's functions
// there, for the libraries too. With a sanitizer, which brings its own allocator, nothing is
// replaced, and a test asks allocationsCanFail() and skips; a program that defines
// SUPPORT_ALLOCATIONS_ALWAYS first gets functions around the sanitizer's allocator.
#pragma once

#include <cerrno>
#include <cstddef>

#include "support/cases.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SUPPORT_ALLOCATOR(function) __interceptor_##function
#ifdef SUPPORT_ALLOCATIONS_ALWAYS
#define SUPPORT_ALLOCATIONS_CAN_FAIL 1
#else
#define SUPPORT_ALLOCATIONS_CAN_FAIL 0
#endif
#else
#define SUPPORT_ALLOCATOR(function) __libc_##function
#define SUPPORT_ALLOCATIONS_CAN_FAIL 1
#endif
// Called before a sanitizer has set itself up, so nothing may be put into them.
#define SUPPORT_EARLY __attribute__((no_sanitize("address", "thread", "undefined")))

namespace support {

// Asked at each allocation while it is set: true lets it fail. Unset when a case begins.
inline bool (*allocationHook)() = nullptr;

// Blocks that this thread has got less those that it has released.
inline thread_local long blocksHeld = 0;

// Allocations still to pass in this thread before one fails; negative: none fails.
inline thread_local long allocationsUntilFailure = -1;

constexpr bool allocationsCanFail() {
    return SUPPORT_ALLOCATIONS_CAN_FAIL != 0;
}

// While it lives, allocation number `passing` + 1 of this thread fails, once.
struct FailingAllocation {
    explicit FailingAllocation(long passing) { allocationsUntilFailure = passing; }
    ~FailingAllocation() { allocationsUntilFailure = -1; }
    FailingAllocation(const FailingAllocation &) = delete;
    FailingAllocation &operator=(const FailingAllocation &) = delete;
    // The allocation was reached, and failed.
    static bool happened() { return allocationsUntilFailure < 0; }
};

SUPPORT_EARLY inline bool allocationFails() {
    bool fails = allocationHook != nullptr && allocationHook();
    if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0)
        fails = true;
    if (fails)
        errno = ENOMEM;
    return fails;
}

inline const bool ALLOCATIONS_PREPARED = eachCase([] {
    allocationHook = nullptr;
    allocationsUntilFailure = -1;
});

} // namespace support

#if SUPPORT_ALLOCATIONS_CAN_FAIL
extern "C" {
void *SUPPORT_ALLOCATOR(malloc)(size_t size);
void *SUPPORT_ALLOCATOR(calloc)(size_t count, size_t size);
void *SUPPORT_ALLOCATOR(realloc)(void *block, size_t size);
void SUPPORT_ALLOCATOR(free)(void *block);

SUPPORT_EARLY void *malloc(size_t size) noexcept {
    void *block = support::allocationFails() ? nullptr : SUPPORT_ALLOCATOR(malloc)(size);
    support::blocksHeld += block != nullptr;
    return block;
}
SUPPORT_EARLY void *calloc(size_t count, size_t size) noexcept {
    void *block = support::allocationFails() ? nullptr : SUPPORT_ALLOCATOR(calloc)(count, size);
    support::blocksHeld += block != nullptr;
    return block;
}
SUPPORT_EARLY void *realloc(void *old, size_t size) noexcept {
    void *block = support::allocationFails() ? nullptr : SUPPORT_ALLOCATOR(realloc)(old, size);
    support::blocksHeld += block != nullptr && old == nullptr;
    return block;
}
SUPPORT_EARLY void free(void *block) noexcept {
    support::blocksHeld -= block != nullptr;
    SUPPORT_ALLOCATOR(free)(block);
}
}
#endif
