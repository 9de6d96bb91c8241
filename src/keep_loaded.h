// SPDX-License-Identifier: Apache-2.0
// Keeping a library in the process whose own memory cannot be given back.
#pragma once

#include <dlfcn.h>

// The library that a function is of stays until the process ends. What ICU caches it can
// only forget as a whole, which would take it from others who use it: so that a host that
// loads and unloads us again and again loses nothing, ICU stays. Called at load, since it
// takes the loader's lock.
inline void keepLibraryLoaded(const void *function) {
    Dl_info library;
    if (dladdr(function, &library) == 0)
        return;
    void *const kept = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    if (kept != nullptr)
        (void)dlclose(kept);
}
