// SPDX-License-Identifier: Apache-2.0
// Calls in signal handlers are not allowed: what is interrupted may be the allocator or any other
// part of the C library. Where it is the library itself, a handler that logs all the same finds
// the lock whole: it is never taken for misused, and nothing that was accepted is lost.
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <thread>
#include <ucontext.h>
#include <unistd.h>

#include "zoltlog.h"

namespace {

constexpr int MOST = 1000000; // messages until the handler has been where it is wanted

#if defined(__x86_64__)
uintptr_t interruptedAt(const mcontext_t &machine) {
    return static_cast<uintptr_t>(machine.gregs[REG_RIP]);
}
#elif defined(__aarch64__)
uintptr_t interruptedAt(const mcontext_t &machine) {
    return machine.pc;
}
#elif defined(__s390x__)
uintptr_t interruptedAt(const mcontext_t &machine) {
    return machine.psw.addr;
}
#endif

struct Code { // of the library
    uintptr_t begin, end;
};

int findCode(dl_phdr_info *object, size_t size, void *out) {
    (void)size;
    if (strstr(object->dlpi_name, "libqdul.so") == nullptr)
        return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr) &part = object->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0)
            *static_cast<Code *>(out) = {object->dlpi_addr + part.p_vaddr,
                                         object->dlpi_addr + part.p_vaddr + part.p_memsz};
    }
    return 1;
}

Code code;
LogHandle handle;
pthread_t logging;
std::atomic<int> logged, locked, refused;

bool holdsTheLock() {
    return zoltLogMutex.depth > 0 && pthread_equal(logging, pthread_self()) != 0 &&
           zoltLogMutex.holders[0].thread != 0;
}

void onSignal(int signal, siginfo_t *info, void *context) {
    static const char TAG[] = "handler";
    (void)signal;
    (void)info;
    const uintptr_t at = interruptedAt(static_cast<const ucontext_t *>(context)->uc_mcontext);
    if (at < code.begin || at >= code.end)
        return;
    if (holdsTheLock()) {
        zoltLockCommon(TAG);
        zoltUnlockCommon(TAG);
        ++locked;
    } else {
        const uint32_t result =
            zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "handler %d", logged.load());
        ++(result == ZOLTLOG_OK ? logged : refused);
    }
}

// Until the handler has sent so many messages, and has taken the lock so often while it was held.
void logAmongSignals(int wanted) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "its runtime delivers signals outside of the library only";
#endif
    dl_iterate_phdr(findCode, &code);
    ASSERT_LT(code.begin, code.end);
    logs::configure();
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    struct sigaction action = {};
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    logging = pthread_self();
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        while (!done)
            pthread_kill(logging, SIGUSR1);
    });
    int messages = 0;
    static const char TAG[] = "test";
    while ((logged < wanted || locked < wanted) && messages < MOST) {
        ASSERT_RESULT(ZOLTLOG_OK,
                      zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "message %d", messages));
        ++messages;
        for (int i = 0; i < 50; ++i) {
            zoltLockCommon(TAG);
            zoltUnlockCommon(TAG);
        }
    }
    done = true;
    sender.join();
    std::thread([] { // another thread finds it free
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "afterwards"));
    })
        .join();
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    EXPECT_LE(wanted, logged);
    EXPECT_LE(wanted, locked);
    EXPECT_EQ(0, refused);
    EXPECT_EQ(0, zoltLogMutex.depth);
    std::vector<std::string> expected = {"afterwards"};
    for (int i = 0; i < messages; ++i)
        expected.push_back("message " + std::to_string(i));
    for (int i = 0; i < logged; ++i)
        expected.push_back("handler " + std::to_string(i));
    std::vector<std::string> found;
    for (const logs::Record &record : logs::records())
        found.push_back(record.whole ? record.text : "not whole");
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(expected, found);
}

} // namespace

TEST(Signals, AHandlerThatInterruptsTheLibraryFindsTheLockWhole) {
    logAmongSignals(10);
}

TEST(LongSignals, AHandlerThatInterruptsTheLibraryFindsTheLockWhole) {
    logAmongSignals(1000);
}
