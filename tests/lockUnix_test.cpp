// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "zoltlog.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "src/lock_tags.h"
#include "support/results.h"
#include "support/support.h"
#include "support/thread_calls.h"

namespace {

// Calls that the tests watch or let fail; the real ones are used otherwise.
std::atomic<int> createdMutexes; // of the global lock and of watched ones
const void *watchedMutex;
const char *failingCall = "";

bool fails(const char *name) {
    return std::strcmp(failingCall, name) == 0;
}

const bool PREPARED = support::eachCase([] {
    createdMutexes = 0;
    watchedMutex = &zoltLogMutex.mutex;
    failingCall = "";
    libc::pthread_mutexattr_init.hook = [](pthread_mutexattr_t *attributes) {
        return fails("pthread_mutexattr_init") ? ENOMEM : libc::pthread_mutexattr_init.real(attributes);
    };
    libc::pthread_mutexattr_settype.hook = [](pthread_mutexattr_t *attributes, int type) {
        return fails("pthread_mutexattr_settype") ? EINVAL
                                                  : libc::pthread_mutexattr_settype.real(attributes, type);
    };
    libc::pthread_mutex_init.hook = [](pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
        if (mutex == watchedMutex)
            ++createdMutexes;
        return fails("pthread_mutex_init") ? ENOMEM : libc::pthread_mutex_init.real(mutex, attributes);
    };
    libc::pthread_mutex_destroy.hook = [](pthread_mutex_t *mutex) {
        return fails("pthread_mutex_destroy") ? EBUSY : libc::pthread_mutex_destroy.real(mutex);
    };
    libc::pthread_setcancelstate.hook = [](int state, int *old) {
        const char *name = state == PTHREAD_CANCEL_DISABLE ? "cancel off" : "cancel on";
        return fails(name) ? EINVAL : libc::pthread_setcancelstate.real(state, old);
    };
});

} // namespace

namespace {

const char TAG[] = "test()";
const char OTHER_TAG[] = "other()";
const char EQUAL_TAG[] = "test()"; // another object with the text of TAG

#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

// True when another thread cannot get the lock at once.
bool isHeld() {
    bool held = false;
    std::thread([&] {
        held = pthread_mutex_trylock(&zoltLogMutex.mutex) != 0;
        if (!held)
            pthread_mutex_unlock(&zoltLogMutex.mutex);
    }).join();
    return held;
}

void nest(int depth) {
    for (int i = 0; i < depth; ++i)
        zoltLogLock(&zoltLogMutex, TAG);
}

void leave(int depth) {
    for (int i = 0; i < depth; ++i)
        zoltLogUnlock(&zoltLogMutex, TAG);
}

// Every thread waits here until all have come.
struct Gate {
    explicit Gate(unsigned count) { pthread_barrier_init(&barrier, nullptr, count); }
    ~Gate() { pthread_barrier_destroy(&barrier); }
    void pass() { pthread_barrier_wait(&barrier); }
    pthread_barrier_t barrier;
};

} // namespace

FRESH_TEST(Lock, GlobalRecordStartsAllZero) {
    const LogLock zero = {};
    EXPECT_EQ(0, std::memcmp(&zero, &zoltLogMutex, sizeof zero));
}

FRESH_TEST(Lock, FirstAcquisitionCreatesTheMutexAndLaterOnesDoNot) {
    EXPECT_EQ(0, zoltLogMutex.initialized);
    nest(1);
    EXPECT_EQ(1, zoltLogMutex.initialized);
    leave(1);
    nest(1);
    leave(1);
    EXPECT_EQ(1, zoltLogMutex.initialized);
    EXPECT_EQ(1, createdMutexes);
}

FRESH_TEST(Lock, InitCreatesARecursiveMutex) {
    EXPECT_EQ(0, zoltLogLockInit(&zoltLogMutex));
    EXPECT_EQ(1, zoltLogMutex.initialized);
    EXPECT_EQ(0, pthread_mutex_lock(&zoltLogMutex.mutex));
    EXPECT_EQ(0, pthread_mutex_lock(&zoltLogMutex.mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&zoltLogMutex.mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&zoltLogMutex.mutex));
    nest(1);
    leave(1);
    EXPECT_EQ(1, createdMutexes);
}

TEST(Lock, AcquisitionExcludesOtherThreads) {
    nest(2);
    EXPECT_TRUE(isHeld());
    leave(1);
    EXPECT_TRUE(isHeld());
    leave(1);
    EXPECT_FALSE(isHeld());
}

TEST(Lock, WaitersGetTheLockHoweverLongItIsHeld) {
    for (const int milliseconds : {0, 1, 20}) {
        int counter = 0; // guarded by the lock
        std::vector<std::thread> waiters;
        nest(1);
        for (int i = 0; i < 4; ++i)
            waiters.emplace_back([&] {
                nest(1);
                ++counter;
                leave(1);
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        EXPECT_EQ(0, counter);
        leave(1);
        for (std::thread &waiter : waiters)
            waiter.join();
        EXPECT_EQ(4, counter);
    }
}

TEST(Lock, HoldersNameThreadAndTagInOrderOfAcquisition) {
    zoltLogLock(&zoltLogMutex, TAG);
    zoltLogLock(&zoltLogMutex, OTHER_TAG);
    EXPECT_EQ(2, zoltLogMutex.depth);
    EXPECT_EQ(getTID(), zoltLogMutex.holders[0].thread);
    EXPECT_EQ(TAG, zoltLogMutex.holders[0].tag);
    EXPECT_EQ(getTID(), zoltLogMutex.holders[1].thread);
    EXPECT_EQ(OTHER_TAG, zoltLogMutex.holders[1].tag);
    EXPECT_EQ(0u, zoltLogMutex.holders[2].thread);
    EXPECT_EQ(nullptr, zoltLogMutex.holders[2].tag);
    EXPECT_EQ(0, zoltLogUnlock(&zoltLogMutex, OTHER_TAG));
    EXPECT_EQ(1, zoltLogMutex.depth);
    EXPECT_EQ(0u, zoltLogMutex.holders[1].thread);
    EXPECT_EQ(nullptr, zoltLogMutex.holders[1].tag);
    EXPECT_EQ(0, zoltLogUnlock(&zoltLogMutex, TAG));
    EXPECT_EQ(0, zoltLogMutex.depth);
    EXPECT_EQ(0u, zoltLogMutex.holders[0].thread);
}

TEST(Lock, TenNestedAcquisitionsPass) {
    nest(10);
    EXPECT_EQ(10, zoltLogMutex.depth);
    EXPECT_EQ(TAG, zoltLogMutex.holders[9].tag);
    leave(10);
    EXPECT_EQ(0, zoltLogMutex.depth);
}

TEST(Lock, EleventhNestedAcquisitionAborts) {
    nest(10);
    EXPECT_ABORT(zoltLogLock(&zoltLogMutex, TAG));
    leave(10);
}

TEST(Lock, ReleasingAFreeLockAborts) {
    EXPECT_ABORT(zoltLogUnlock(&zoltLogMutex, TAG)); // never taken
    nest(1);
    leave(1);
    EXPECT_ABORT(zoltLogUnlock(&zoltLogMutex, TAG));
}

TEST(Lock, ReleaseByAnotherThreadAborts) {
    nest(1);
    EXPECT_ABORT(std::thread([] { zoltLogUnlock(&zoltLogMutex, TAG); }).join());
    leave(1);
}

TEST(Lock, ReleaseWithAnEqualTagAtAnotherAddressAborts) {
    ASSERT_NE(static_cast<const void *>(TAG), static_cast<const void *>(EQUAL_TAG));
    nest(1);
    EXPECT_ABORT(zoltLogUnlock(&zoltLogMutex, EQUAL_TAG));
    leave(1);
}

TEST(Lock, ReleaseOutOfOrderAborts) {
    zoltLogLock(&zoltLogMutex, TAG);
    zoltLogLock(&zoltLogMutex, OTHER_TAG);
    EXPECT_ABORT(zoltLogUnlock(&zoltLogMutex, TAG));
    zoltLogUnlock(&zoltLogMutex, OTHER_TAG);
    zoltLogUnlock(&zoltLogMutex, TAG);
}

TEST(Lock, ReleaseOfARecordWithoutMutexAborts) {
    LogLock lock = {};
    lock.depth = 1;
    lock.holders[0] = {getTID(), TAG};
    EXPECT_ABORT(zoltLogUnlock(&lock, TAG));
}

#ifndef __SANITIZE_THREAD__ // which ends the program itself
TEST(Lock, ReleaseOfAMutexThatIsNotHeldAborts) {
    LogLock lock = {};
    zoltLogLockInit(&lock);
    lock.depth = 1;
    lock.holders[0] = {getTID(), TAG};
    EXPECT_ABORT(zoltLogUnlock(&lock, TAG));
}
#endif

FRESH_TEST(Lock, FailingThreadCallsAbort) {
    for (const char *call :
         {"pthread_mutexattr_init", "pthread_mutexattr_settype", "pthread_mutex_init", "cancel off"}) {
        EXPECT_ABORT({
            failingCall = call;
            zoltLogLock(&zoltLogMutex, TAG);
        }) << call;
    }
    nest(1);
    EXPECT_ABORT({
        failingCall = "cancel on";
        zoltLogUnlock(&zoltLogMutex, TAG);
    });
    leave(1);
    EXPECT_ABORT({
        failingCall = "pthread_mutex_destroy";
        zoltLogDestroyLock(&zoltLogMutex);
    });
}

TEST(Lock, MutexThatCannotBeLockedAborts) {
    static LogLock lock; // a robust mutex tells that its owner is gone
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ASSERT_EQ(0, pthread_mutex_init(&lock.mutex, &attributes));
    lock.initialized = 1;
    std::thread([] { pthread_mutex_lock(&lock.mutex); }).join();
    EXPECT_ABORT(zoltLogLock(&lock, TAG));
}

TEST(Lock, DestroyWhileHeldAborts) {
    nest(1);
    EXPECT_ABORT(zoltLogDestroyLock(&zoltLogMutex));
    leave(1);
}

FRESH_TEST(Lock, DestroyBeforeCreationAborts) {
    EXPECT_ABORT(zoltLogDestroyLock(&zoltLogMutex));
}

TEST(Lock, DestroyTwiceAborts) {
    nest(1);
    leave(1);
    EXPECT_EQ(0, zoltLogDestroyLock(&zoltLogMutex));
    EXPECT_EQ(0, zoltLogMutex.initialized);
    EXPECT_ABORT(zoltLogDestroyLock(&zoltLogMutex));
}

FRESH_TEST(Lock, AcquisitionAfterDestroyCreatesAfresh) {
    nest(1);
    leave(1);
    zoltLogDestroyLock(&zoltLogMutex);
    nest(3);
    EXPECT_EQ(1, zoltLogMutex.initialized);
    EXPECT_TRUE(isHeld());
    leave(3);
    EXPECT_EQ(2, createdMutexes);
}

TEST(Lock, CommonFormsUseTheExportedRecord) {
    zoltLockCommon(TAG);
    EXPECT_EQ(1, zoltLogMutex.depth); // the program sees the library's object
    EXPECT_EQ(TAG, zoltLogMutex.holders[0].tag);
    zoltLogLock(&zoltLogMutex, OTHER_TAG);
    EXPECT_EQ(2, zoltLogMutex.depth);
    zoltLogUnlock(&zoltLogMutex, OTHER_TAG);
    EXPECT_EQ(0, zoltUnlockCommon(TAG));
    EXPECT_EQ(0, zoltDestroyCommonLock());
    EXPECT_EQ(0, zoltLogMutex.initialized);
}

FRESH_TEST(Lock, OtherRecordsAreLocksOfTheirOwn) {
    LogLock mine = {};
    zoltLogLock(&mine, TAG);
    EXPECT_EQ(0, zoltLogMutex.initialized);
    nest(1); // with another lock held
    EXPECT_EQ(1, mine.depth);
    leave(1);
    std::thread([] {
        nest(1);
        leave(1);
    }).join();
    EXPECT_EQ(0, zoltLogUnlock(&mine, TAG));
    EXPECT_EQ(0, zoltLogDestroyLock(&mine));
}

TEST(LockTags, AreTheirOperationsNamesEachAnObjectOfItsOwn) {
    const struct {
        const char *tag;
        const char *text;
    } rows[] = {
        {TAG_READ_ALL_CFG, "zoltLogReadAllCfg()"},
        {TAG_READ_PROD_ID_CFG, "zoltLogReadProdIDCfg()"},
        {TAG_READ_CFG, "zoltLogReadCfg()"},
        {TAG_READ_LOGSET_CFG, "zoltLogReadlogsetCfg()"},
        {TAG_WRITE_CFG, "zoltLogWriteCfg()"},
        {TAG_WRITE_LOGSET_CFG, "zoltLogWritelogSetCfg()"},
        {TAG_DYNA_LOAD_CONFIG, "zoltDynaLoadConfig()"},
        {TAG_REMOVE_PRODUCT_CFG, "zoltLogRemoveProductCfg"},
        {TAG_ADD_PRODUCT_CFG, "zoltLogAddProductCfg"},
        {TAG_GET_NEXT_SEQUENCE_NUMBER, "GetNextSequenceNumber()"},
        {TAG_MSG, "zoltLogMsg()"},
        {TAG_APP_MSG_2LEX, "zoltLogAppMsg2LEx()"},
        {TAG_DIAG_MSG_2L, "zoltLogDiagMsg2L()"},
        {TAG_AUDIT_MSG_2L, "zoltLogAuditMsg2L()"},
        {TAG_SECURE_AUDIT_MSG_L, "zoltLogSecureAuditMsgL()"},
        {TAG_FORMATTED_DEBUG_MSG, "zoltLogFormattedDebugMsg()"},
        {TAG_DEBUG_MSG_2V, "zoltLogDebugMsg2V()"},
        {TAG_SET_DEBUG_LEVEL, "zoltLogSetDebugLevel()"},
        {TAG_GET_DEBUG_LEVEL, "zoltLogGetDebugLevel()"},
        {TAG_SET_DIAG_LEVEL, "zoltLogSetDiagLevel()"},
        {TAG_GET_DIAG_LEVEL, "zoltLogGetDiagLevel()"},
        {TAG_SET_SECURE_AUDIT_LEVEL, "zoltLogSetSecureAuditLevel()"},
        {TAG_GET_SECURE_AUDIT_LEVEL, "zoltLogGetSecureAuditLevel()"},
        {TAG_SET_SEQUENCE_NUMBER, "zoltLogSetSequenceNumber()"},
        {TAG_ADD_LOG_TO_FILE, "zoltLogAddLogToFile()"},
        {TAG_OPEN_FILE, "zoltLogOpenFile()"},
        {TAG_CLOSE_FILE, "zoltLogCloseFile()"},
        {TAG_CREATE_CONTEXT_TO_FILE, "zoltLogCreateContextToFile()"},
    };
    std::set<const char *> objects;
    for (const auto &row : rows) {
        EXPECT_STREQ(row.text, row.tag);
        EXPECT_TRUE(objects.insert(row.tag).second) << row.text;
    }
}

TEST(LockTags, SequenceNumberGetterAndSetterReleaseWhatTheyTook) {
    static LogHandle handle;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSequenceNumber(&handle, 5));
    EXPECT_EQ(0, zoltLogMutex.depth);
    uint64_t number = 0;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(&handle, &number));
    EXPECT_EQ(5u, number);
    EXPECT_EQ(0, zoltLogMutex.depth);
}

// ---- cancellation ------------------------------------------------------------------------

namespace {

struct Cancelled {
    Gate held{2};
    Gate cancelled{2};
    std::atomic<bool> reachedRelease{false};
    std::atomic<bool> livedOn{false};
    int stateBefore = PTHREAD_CANCEL_ENABLE;
    int stateAfter = -1;
};

void *lockAndWaitToBeCancelled(void *argument) {
    auto *shared = static_cast<Cancelled *>(argument);
    int ignored;
    pthread_setcancelstate(shared->stateBefore, &ignored);
    nest(2);
    shared->held.pass();
    shared->cancelled.pass();
    pthread_testcancel();
    leave(1);
    pthread_testcancel();
    shared->reachedRelease = true;
    leave(1);
    pthread_setcancelstate(shared->stateBefore, &shared->stateAfter);
    pthread_testcancel();
    shared->livedOn = true;
    return nullptr;
}

void runCancelled(Cancelled *shared) {
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, lockAndWaitToBeCancelled, shared));
    shared->held.pass();
    ASSERT_EQ(0, pthread_cancel(thread));
    shared->cancelled.pass();
    pthread_join(thread, nullptr);
}

} // namespace

TEST(Lock, HolderIsCancelledOnlyAfterItsLastRelease) {
    Cancelled shared;
    runCancelled(&shared);
    EXPECT_TRUE(shared.reachedRelease);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, shared.stateAfter);
    EXPECT_FALSE(shared.livedOn);
    nest(1); // free
    leave(1);
}

TEST(Lock, CancellationThatWasOffStaysOff) {
    Cancelled shared;
    shared.stateBefore = PTHREAD_CANCEL_DISABLE;
    runCancelled(&shared);
    EXPECT_TRUE(shared.reachedRelease);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, shared.stateAfter);
    EXPECT_TRUE(shared.livedOn);
}

TEST(Lock, SavedCancelStateIsThatOfTheOutermostAcquisition) {
    nest(1);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, zoltLogMutex.savedCancelState);
    nest(1);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, zoltLogMutex.savedCancelState);
    leave(2);
    int old;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, old);
    nest(1);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, zoltLogMutex.savedCancelState);
    leave(1);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, old);
}

TEST(Lock, CancelledThreadsNeverLeaveTheLockHeld) {
    static std::atomic<bool> started;
    for (int i = 0; i < 300; ++i) {
        started = false;
        pthread_t thread;
        const auto body = [](void *) -> void * {
            for (;;) {
                nest(2);
                started = true;
                pthread_testcancel();
                leave(2);
                pthread_testcancel();
            }
        };
        ASSERT_EQ(0, pthread_create(&thread, nullptr, body, nullptr));
        while (!started)
            sched_yield();
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        ASSERT_EQ(0, pthread_mutex_trylock(&zoltLogMutex.mutex)) << "round " << i;
        ASSERT_EQ(0, zoltLogMutex.depth);
        pthread_mutex_unlock(&zoltLogMutex.mutex);
    }
}

// ---- threads and fork --------------------------------------------------------------------

FRESH_TEST(Lock, FirstUseByManyThreadsAtOnceCreatesOneMutex) {
    constexpr unsigned THREADS = 64;
    Gate gate(THREADS);
    int counter = 0; // guarded by the lock
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (unsigned i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            gate.pass();
            nest(2);
            ++counter;
            leave(2);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(1, createdMutexes);
    EXPECT_EQ(64, counter);
    EXPECT_EQ(0, zoltLogMutex.depth);
}

TEST(Lock, FirstUseOfAnotherRecordByManyThreadsCreatesOneMutex) {
    constexpr unsigned THREADS = 64;
    static LogLock lock;
    watchedMutex = &lock.mutex;
    Gate gate(THREADS);
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (unsigned i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            gate.pass();
            zoltLogLock(&lock, TAG);
            zoltLogUnlock(&lock, TAG);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(1, createdMutexes);
}

namespace {

// Four threads that lock and unlock until it is destroyed.
struct BusyThreads {
    BusyThreads() {
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([this] {
                while (!stop) {
                    nest(3);
                    ++guarded;
                    leave(3);
                    ++rounds;
                }
            });
        }
    }
    ~BusyThreads() {
        stop = true;
        for (std::thread &thread : threads)
            thread.join();
    }
    std::atomic<bool> stop{false};
    std::atomic<long> rounds{0};
    long guarded = 0;
    std::vector<std::thread> threads;
};

int useInChild() {
    alarm(20); // a child that hangs is killed
    if (zoltLogMutex.depth != 0)
        return 1;
    nest(10);
    leave(10);
    nest(1);
    leave(1);
    return 0;
}

} // namespace

TEST(Lock, ForkedChildrenOfALockingProcessDoNotHang) {
    constexpr int CHILDREN = 1000;
    BusyThreads busy;
    for (int i = 0; i < CHILDREN; ++i)
        ASSERT_EQ(0, support::inChild(useInChild)) << "child " << i;
    const long before = busy.rounds;
    while (busy.rounds == before)
        sched_yield(); // the parent's threads go on
}

FRESH_TEST(Lock, ForkBeforeFirstUseLeavesBothProcessesWorking) {
    EXPECT_EQ(0, support::inChild(useInChild));
    EXPECT_EQ(0, zoltLogMutex.initialized);
    nest(1);
    leave(1);
    EXPECT_EQ(0, support::inChild(useInChild));
    zoltLogDestroyLock(&zoltLogMutex);
    EXPECT_EQ(0, support::inChild(useInChild));
    EXPECT_EQ(0, zoltLogMutex.initialized);
}

TEST(Lock, ForkDuringFirstUseLeavesTheChildWorking) {
    for (int i = 0; i < 100; ++i) {
        {
            Gate gate(2);
            std::thread user([&] {
                gate.pass();
                nest(1);
                leave(1);
            });
            gate.pass();
            EXPECT_EQ(0, support::inChild(useInChild)) << "round " << i;
            user.join();
        }
        zoltLogDestroyLock(&zoltLogMutex);
    }
}

TEST(Lock, LockHeldAcrossForkIsUsableInTheChild) {
    nest(3);
    EXPECT_EQ(0, support::inChild([] {
                  alarm(20);
                  if (zoltLogMutex.depth != 3 || zoltLogMutex.holders[2].thread != getTID())
                      return 1;
                  nest(7); // up to the limit, on top of what the parent took
                  leave(7);
                  leave(2);
                  if (pthread_mutex_trylock(&zoltLogMutex.mutex) != 0)
                      return 2;
                  pthread_mutex_unlock(&zoltLogMutex.mutex);
                  leave(1);
                  nest(1);
                  leave(1);
                  return zoltLogMutex.depth;
              }));
    EXPECT_EQ(3, zoltLogMutex.depth);
    EXPECT_TRUE(isHeld());
    leave(3);
    EXPECT_EQ(0, support::inChild(useInChild));
}

#ifndef __SANITIZE_THREAD__ // which allows no threads in the child of a threaded process
TEST(Lock, LockHeldAcrossForkExcludesTheChildsOtherThreads) {
    nest(2);
    EXPECT_EQ(0, support::inChild([] {
                  alarm(20);
                  if (!isHeld())
                      return 1;
                  leave(2);
                  std::thread([] {
                      nest(1);
                      leave(1);
                  }).join();
                  return 0;
              }));
    leave(2);
}
#endif

TEST(Lock, ChildOfAChildCanLock) {
    nest(1);
    EXPECT_EQ(0, support::inChild([] {
                  nest(1);
                  const int status = support::inChild([] {
                      alarm(20);
                      leave(2);
                      return useInChild();
                  });
                  leave(2);
                  return status;
              }));
    leave(1);
}

TEST(Lock, CancelStateIsRestoredInTheChildToo) {
    nest(1);
    EXPECT_EQ(0, support::inChild([] {
                  leave(1);
                  int old;
                  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
                  return old == PTHREAD_CANCEL_ENABLE ? 0 : 1;
              }));
    leave(1);
}

TEST(Lock, ThreadsThatForkWithAnotherLockHeldDoNotBlockEachOther) {
    // One thread first uses records of its own while it holds the global lock; another forks.
    std::atomic<bool> stop{false};
    std::thread user([&] {
        while (!stop) {
            nest(1);
            LogLock mine = {};
            zoltLogLock(&mine, TAG);
            zoltLogUnlock(&mine, TAG);
            zoltLogDestroyLock(&mine);
            leave(1);
        }
    });
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(0, support::inChild(useInChild));
    stop = true;
    user.join();
}
