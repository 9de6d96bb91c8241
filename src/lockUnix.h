// The process-wide recursive lock, for the library's own units.
#pragma once

#include "lock_tags.h"
#include "zoltlog.h"

// Holds zoltLogMutex under a tag for the length of a scope.
struct GlobalLock {
    explicit GlobalLock(const char *heldTag) : tag(heldTag) { zoltLogLock(&zoltLogMutex, tag); }
    ~GlobalLock() { zoltLogUnlock(&zoltLogMutex, tag); }
    GlobalLock(const GlobalLock &) = delete;
    GlobalLock &operator=(const GlobalLock &) = delete;

    const char *const tag;
};
