// SPDX-License-Identifier: Apache-2.0
// The strict recursive lock. Misuse ends the process: a program that released the
// lock wrongly once would go on with records half written.
#include "lockUnix.h"

#include "os_process.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <sched.h>

// Aligned, so that what a message writes of it is in as few cache lines as it can be.
alignas(64) LogLock zoltLogMutex;

namespace {

void require(bool holds) {
    if (!holds)
        abort();
}

// The calling thread holds the lock. Asked without holding it: only the thread itself
// ever stores its own number there.
bool isHeldBy(const LogLock *lock, uint64_t thread) {
    return __atomic_load_n(&lock->holders[0].thread, __ATOMIC_RELAXED) == thread;
}

void setHolder(LogLockHolder *holder, uint64_t thread, const char *tag) {
    __atomic_store_n(&holder->thread, thread, __ATOMIC_RELAXED);
    holder->tag = tag;
}

// ---- creation ------------------------------------------------------------------------

constexpr long WAIT_NS = 50000; // between two looks at what another thread does in no time

void waitALittle() {
    const struct timespec time = {0, WAIT_NS};
    (void)nanosleep(&time, nullptr);
}

void makeRecursive(pthread_mutex_t *mutex) {
    pthread_mutexattr_t attributes;
    require(pthread_mutexattr_init(&attributes) == 0);
    require(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0);
    require(pthread_mutex_init(mutex, &attributes) == 0);
    (void)pthread_mutexattr_destroy(&attributes);
}

bool isCreated(const LogLock *lock) {
    return __atomic_load_n(&lock->initialized, __ATOMIC_ACQUIRE) != 0;
}

bool heldForFork; // guarded by the right to create

// The right to create and destroy the mutexes of locks, one thread at a time. No mutex, so
// that the child of a fork finds it free. Waiting sleeps: a thread that must not be
// preempted would keep a yielding one from the processor for ever.
struct Creating {
    explicit Creating(uint64_t self) {
        uint64_t creator = 0;
        while (!__atomic_compare_exchange_n(&processPage.creator, &creator, self, false, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED)) {
            if (creator == self) { // between the handlers of its fork
                nested = true;
                return;
            }
            creator = 0;
            waitALittle();
        }
    }
    ~Creating() {
        if (!nested)
            release();
    }
    Creating(const Creating &) = delete;
    Creating &operator=(const Creating &) = delete;

    static void release() { __atomic_store_n(&processPage.creator, 0, __ATOMIC_RELEASE); }

    bool nested = false;
};

// The mutex is complete before anybody can see that it is.
void create(LogLock *lock) {
    makeRecursive(&lock->mutex);
    __atomic_store_n(&lock->initialized, 1, __ATOMIC_RELEASE);
}

// The first acquisition may be made by many threads at once: one of them creates.
[[gnu::noinline]] void createOnce(LogLock *lock, uint64_t self) {
    const Creating right(self);
    if (isCreated(lock))
        return;
    create(lock);
    if (right.nested && lock == &zoltLogMutex) { // too late for beforeFork
        require(pthread_mutex_lock(&lock->mutex) == 0);
        heldForFork = true;
    }
}

// ---- processes: a child never waits for a thread that is only in its parent ---------------
//
// A forking thread owns the lock while the process is copied, so that the child finds what
// it guards at rest. The handlers of the host may run before or after these and use the
// lock too. Children of _Fork and clone find the lock as it is at that moment.

enum : uint32_t { UNKNOWN_PROCESS = 0, ADOPTING = 1, OUR_PROCESS = 2 }; // ProcessPage::lockState

bool someoneLooksOn; // a thread waits awake, see lookOn

// The first use of the global lock in a new process. Its mutex knows its owner by the
// kernel's thread number, which is another one here, so it is made anew. It stays held when
// the thread that made the process held it, and only that thread has come along.
[[gnu::noinline]] void adoptProcess(uint64_t self) {
    uint32_t state = UNKNOWN_PROCESS;
    if (!__atomic_compare_exchange_n(&processPage.lockState, &state, ADOPTING, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_ACQUIRE)) {
        while (__atomic_load_n(&processPage.lockState, __ATOMIC_ACQUIRE) != OUR_PROCESS)
            waitALittle();
        return;
    }
    LogLock *const lock = &zoltLogMutex;
    __atomic_store_n(&someoneLooksOn, false, __ATOMIC_RELAXED);
    heldForFork = false;
    if (isCreated(lock)) {
        makeRecursive(&lock->mutex);
        if (lock->depth > 0 && isHeldBy(lock, self)) {
            require(pthread_mutex_lock(&lock->mutex) == 0);
        } else {
            lock->depth = 0;
            for (LogLockHolder &holder : lock->holders)
                setHolder(&holder, 0, nullptr);
        }
    }
    __atomic_store_n(&processPage.lockState, OUR_PROCESS, __ATOMIC_RELEASE);
}

void knowProcess(uint64_t self) {
    if (__atomic_load_n(&processPage.lockState, __ATOMIC_ACQUIRE) != OUR_PROCESS)
        adoptProcess(self);
}

void beforeFork() {
    const uint64_t self = currentThread();
    knowProcess(self);
    for (;;) {
        // The lock comes before the right to create, as in a thread that holds it when it
        // first uses another lock.
        const bool created = isCreated(&zoltLogMutex);
        if (created)
            require(pthread_mutex_lock(&zoltLogMutex.mutex) == 0);
        Creating right(self);
        if (created == isCreated(&zoltLogMutex)) {
            heldForFork = created;
            right.nested = true; // kept until the fork is done
            return;
        }
        if (created)
            require(pthread_mutex_unlock(&zoltLogMutex.mutex) == 0);
    }
}

void afterForkInParent() {
    const bool held = heldForFork;
    heldForFork = false;
    Creating::release();
    if (held)
        require(pthread_mutex_unlock(&zoltLogMutex.mutex) == 0);
}

void afterForkInChild() {
    knowProcess(currentThread());
}

[[gnu::constructor]] void surviveFork() {
    knowProcess(currentThread());
    // Short of memory at load: the library works, but a child may find what the lock
    // guards in the midst of a change.
    (void)pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

} // namespace

int32_t zoltLogLockInit(LogLock *lock) {
    require(lock != nullptr);
    const Creating right(currentThread());
    create(lock);
    return 0;
}

namespace {

// ---- contention ----------------------------------------------------------------------

// A thread that finds the lock taken does not press for it. Whenever the lock goes to
// another processor all that a message touches goes along, in the kernel too, which takes
// longer than the message itself; and waking a sleeper is a system call for the holder. So
// one waiting thread looks on, at intervals in which a busy holder writes a handful of
// messages, and the others sleep in the mutex, as does the one when it has looked on for
// some hundred microseconds.
const int LOOKS = 30;
const int PAUSES_PER_LOOK = 256; // 5 to 10 microseconds

bool mayLookOn = true; // false where the holder would need the only processor to go on

[[gnu::constructor]] void countProcessors() {
    cpu_set_t ours;
    mayLookOn = sched_getaffinity(0, sizeof ours, &ours) != 0 || CPU_COUNT(&ours) > 1;
}

void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ volatile("isb");
#else
    __asm__ volatile("");
#endif
}

bool tryAcquire(LogLock *lock) {
    if (!isHeldBy(lock, 0)) // a look does not take the cache line from the holder
        return false;
    const int result = pthread_mutex_trylock(&lock->mutex);
    require(result == 0 || result == EBUSY);
    return result == 0;
}

// Whether the lock was acquired.
bool lookOn(LogLock *lock) {
    if (!mayLookOn || __atomic_exchange_n(&someoneLooksOn, true, __ATOMIC_RELAXED))
        return false;
    bool acquired = false;
    for (int look = 0; look < LOOKS && !acquired; ++look) {
        for (int k = 0; k < PAUSES_PER_LOOK; ++k)
            relax();
        acquired = tryAcquire(lock);
    }
    __atomic_store_n(&someoneLooksOn, false, __ATOMIC_RELAXED);
    return acquired;
}

void acquire(LogLock *lock) {
    if (!tryAcquire(lock) && !lookOn(lock))
        require(pthread_mutex_lock(&lock->mutex) == 0);
}

} // namespace

// ---- acquisition and release -------------------------------------------------------

// The mutex is taken by the outermost acquisition only; the nested ones, of which a
// message has several, are counted by depth.
//
// A handler of a signal has no business here, but it finds the record such that its own
// acquisition and release leave it as it was, between any two of these steps. So the
// outermost depth is stored and not counted, an entry is written again when it counts, what a
// release needs is looked at before it begins; and who finds the lock his own at depth 0 has
// interrupted himself at the first entry, and leaves that alone.
void zoltLogLock(LogLock *lock, const char *tag) {
    require(lock != nullptr);
    const uint64_t self = currentThread();
    knowProcess(self);
    if (!isCreated(lock))
        createOnce(lock, self);
    int32_t depth = 0;
    int cancelState = 0;
    const bool isOutermost = !isHeldBy(lock, self);
    if (isOutermost) {
        acquire(lock);
        require(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState) == 0);
    } else {
        depth = lock->depth > 0 ? lock->depth : 1;
    }
    require(depth < MAX_LOCK_DEPTH);
    setHolder(&lock->holders[depth], self, tag);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    lock->depth = depth + 1;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (isOutermost)
        lock->savedCancelState = cancelState;
    else
        setHolder(&lock->holders[depth], self, tag);
}

int32_t zoltLogUnlock(LogLock *lock, const char *tag) {
    require(lock != nullptr);
    const uint64_t self = currentThread();
    knowProcess(self); // a thread may have forked with the lock held
    require(isCreated(lock) && lock->depth > 0);
    const int32_t depth = lock->depth - 1;
    const int cancelState = lock->savedCancelState;
    LogLockHolder *holder = &lock->holders[depth];
    require(holder->thread == self);
    require(holder->tag == tag); // the same object, not an equal text
    lock->depth = depth;
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // an observer never sees an entry without a tag
    setHolder(holder, 0, nullptr);
    if (depth == 0) {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        lock->depth = 0;
        require(pthread_setcancelstate(cancelState, nullptr) == 0);
        require(pthread_mutex_unlock(&lock->mutex) == 0);
    }
    return 0;
}

int32_t zoltLogDestroyLock(LogLock *lock) {
    require(lock != nullptr);
    const uint64_t self = currentThread();
    knowProcess(self);
    const Creating right(self);
    require(isCreated(lock) && lock->depth == 0);
    require(pthread_mutex_destroy(&lock->mutex) == 0);
    __atomic_store_n(&lock->initialized, 0, __ATOMIC_RELEASE);
    return 0;
}

void zoltLockCommon(const char *tag) {
    zoltLogLock(&zoltLogMutex, tag);
}

int32_t zoltUnlockCommon(const char *tag) {
    return zoltLogUnlock(&zoltLogMutex, tag);
}

int32_t zoltDestroyCommonLock(void) {
    return zoltLogDestroyLock(&zoltLogMutex);
}
