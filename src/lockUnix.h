// SPDX-License-Identifier: Apache-2.0
// The process-wide recursive lock, for the library's own units.
#pragma once

#include "lock_tags.h"
#include "zoltlog.h"

#include <cstdlib>

inline constexpr int32_t MAX_LOCK_DEPTH = sizeof(LogLock::holders) / sizeof(LogLockHolder);
static_assert(MAX_LOCK_DEPTH == 10);

// Holds zoltLogMutex under a tag for the length of a scope.
struct GlobalLock {
    explicit GlobalLock(const char *heldTag) : tag(heldTag) { zoltLogLock(&zoltLogMutex, tag); }
    ~GlobalLock() { zoltLogUnlock(&zoltLogMutex, tag); }
    GlobalLock(const GlobalLock &) = delete;
    GlobalLock &operator=(const GlobalLock &) = delete;

    const char *const tag;
};

// A nested acquisition for the length of a scope, where the calling thread is known to hold
// zoltLogMutex: the lock's record shows it, and that is all there is to do. The fences keep
// the compiler from leaving out what only an observer of the record sees.
struct NestedLock {
    explicit NestedLock(const char *tag) : depth(zoltLogMutex.depth) {
        if (depth >= MAX_LOCK_DEPTH)
            abort();
        zoltLogMutex.holders[depth] = {zoltLogMutex.holders[0].thread, tag};
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        zoltLogMutex.depth = depth + 1;
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    }
    ~NestedLock() {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        zoltLogMutex.depth = depth;
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        zoltLogMutex.holders[depth] = {};
    }
    NestedLock(const NestedLock &) = delete;
    NestedLock &operator=(const NestedLock &) = delete;

    const int32_t depth; // without it
};
