// SPDX-License-Identifier: Apache-2.0
#include "calls.h"

#include <dlfcn.h>
#include <link.h>

namespace {

constexpr const char *QDUL_LIBRARY = "libqdul.so.3";

// Threads may look up at the same time: they find the same.
template<typename Function>
void lookUp(Function *function, const char *name) {
    __atomic_store_n(function, reinterpret_cast<Function>(dlsym(RTLD_NEXT, name)), __ATOMIC_RELAXED);
}

struct Segment {
    uintptr_t address; // that is looked for
    uintptr_t begin;
    uintptr_t end;
};

int findSegment(dl_phdr_info *object, size_t, void *sought) {
    auto *segment = static_cast<Segment *>(sought);
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr) &header = object->dlpi_phdr[i];
        const uintptr_t begin = object->dlpi_addr + header.p_vaddr;
        if (header.p_type != PT_LOAD || segment->address < begin ||
            segment->address - begin >= header.p_memsz)
            continue;
        segment->begin = begin;
        segment->end = begin + header.p_memsz;
        return 1;
    }
    return 0;
}

} // namespace

const SystemLog &systemLog() {
    static SystemLog found;
    static bool complete;
    if (!__atomic_load_n(&complete, __ATOMIC_ACQUIRE)) {
        lookUp(&found.openlog, "openlog");
        lookUp(&found.closelog, "closelog");
        lookUp(&found.setlogmask, "setlogmask");
        lookUp(&found.syslog, "syslog");
        lookUp(&found.vsyslog, "vsyslog");
        lookUp(&found.vsyslogChecked, "__vsyslog_chk");
        __atomic_store_n(&complete, true, __ATOMIC_RELEASE);
    }
    return found;
}

bool loadQdul(Qdul *qdul) {
    void *library = dlopen(QDUL_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr)
        return false;
#define QDUL_LOOK_UP(name)                                                                                   \
    qdul->name = reinterpret_cast<decltype(qdul->name)>(dlsym(library, #name));                              \
    if (qdul->name == nullptr)                                                                               \
        return false;
    QDUL_CALLS(QDUL_LOOK_UP)
#undef QDUL_LOOK_UP
    Segment code = {reinterpret_cast<uintptr_t>(qdul->zoltLogOpen), 0, 0};
    (void)dl_iterate_phdr(findSegment, &code);
    qdul->begin = code.begin;
    qdul->end = code.end;
    return true;
}
