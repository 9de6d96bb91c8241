// Lets a chosen allocation of the process fail. Include it in the one source file of a
// test program: it replaces the allocator's functions there, for the libraries too.
// With a sanitizer, which brings its own allocator, nothing is replaced: a test asks
// allocationsCanFail() and skips.
#pragma once

#include <cerrno>
#include <cstddef>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define SUPPORT_ALLOCATIONS_CAN_FAIL 1
#else
#define SUPPORT_ALLOCATIONS_CAN_FAIL 0
#endif

namespace support {

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

inline bool allocationFails() {
    if (allocationsUntilFailure < 0)
        return false;
    if (allocationsUntilFailure-- > 0)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace support

#if SUPPORT_ALLOCATIONS_CAN_FAIL
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) {
    return support::allocationFails() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    return support::allocationFails() ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) {
    return support::allocationFails() ? nullptr : __libc_realloc(block, size);
}
}
#endif
