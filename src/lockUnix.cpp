// The strict recursive lock. Misuse ends the process: a program that released the
// lock wrongly once would go on with records half written.
#include "lockUnix.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <pthread.h>
#include <sched.h>

static_assert(offsetof(LogLock, mutex) == 0);
static_assert(offsetof(LogLock, mutex) < offsetof(LogLock, initialized));
static_assert(offsetof(LogLock, initialized) < offsetof(LogLock, savedCancelState));
static_assert(offsetof(LogLock, savedCancelState) < offsetof(LogLock, depth));
static_assert(offsetof(LogLock, depth) < offsetof(LogLock, holders));
static_assert(offsetof(LogLockHolder, thread) == 0);
static_assert(offsetof(LogLockHolder, thread) < offsetof(LogLockHolder, tag));

// Aligned, so that what a message writes of it is in as few cache lines as it can be.
alignas(64) LogLock zoltLogMutex;

namespace {

constexpr int32_t MAX_DEPTH = sizeof(LogLock::holders) / sizeof(LogLockHolder);
static_assert(MAX_DEPTH == 10);

// Guards the creation and destruction of every lock's mutex.
pthread_mutex_t creation = PTHREAD_MUTEX_INITIALIZER;

void require(bool holds) {
    if (!holds)
        abort();
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

// Called with creation held. The mutex is complete before anybody can see that it is.
void create(LogLock *lock) {
    makeRecursive(&lock->mutex);
    __atomic_store_n(&lock->initialized, 1, __ATOMIC_RELEASE);
}

// The first acquisition may be made by many threads at once: one of them creates.
[[gnu::noinline]] void createOnce(LogLock *lock) {
    require(pthread_mutex_lock(&creation) == 0);
    if (!isCreated(lock))
        create(lock);
    require(pthread_mutex_unlock(&creation) == 0);
}

// ---- fork: the forking thread owns the lock while the process is copied, so that the
// child finds it, and what it guards, at rest --------------------------------------

bool heldForFork;    // guarded by creation
bool someoneLooksOn; // a thread waits awake, see lookOn

void beforeFork() {
    for (;;) {
        // The lock comes before creation, as in a thread that holds it when it first
        // uses another lock.
        const bool created = isCreated(&zoltLogMutex);
        if (created)
            require(pthread_mutex_lock(&zoltLogMutex.mutex) == 0);
        require(pthread_mutex_lock(&creation) == 0);
        if (created == isCreated(&zoltLogMutex)) {
            heldForFork = created;
            return;
        }
        require(pthread_mutex_unlock(&creation) == 0);
        if (created)
            require(pthread_mutex_unlock(&zoltLogMutex.mutex) == 0);
    }
}

void afterForkInParent() {
    const bool held = heldForFork;
    require(pthread_mutex_unlock(&creation) == 0);
    if (held)
        require(pthread_mutex_unlock(&zoltLogMutex.mutex) == 0);
}

// The mutex knows its owner by the kernel's thread number, which is another one in the
// child. It is made anew, and held when the forking thread held the lock.
void afterForkInChild() {
    __atomic_store_n(&someoneLooksOn, false, __ATOMIC_RELAXED); // that thread is not here
    if (heldForFork) {
        makeRecursive(&zoltLogMutex.mutex);
        if (zoltLogMutex.depth > 0)
            require(pthread_mutex_lock(&zoltLogMutex.mutex) == 0);
    }
    require(pthread_mutex_unlock(&creation) == 0);
}

[[gnu::constructor]] void surviveFork() {
    // Short of memory at load: the library works, but only a child of a process that
    // is not logging at that moment can log.
    (void)pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

} // namespace

int32_t zoltLogLockInit(LogLock *lock) {
    require(lock != nullptr);
    require(pthread_mutex_lock(&creation) == 0);
    create(lock);
    require(pthread_mutex_unlock(&creation) == 0);
    return 0;
}

// The calling thread holds the lock. Asked without holding it: only the thread itself
// ever stores its own number there.
static bool isHeldBy(const LogLock *lock, uint64_t thread) {
    return __atomic_load_n(&lock->holders[0].thread, __ATOMIC_RELAXED) == thread;
}

static void setHolder(LogLockHolder *holder, uint64_t thread, const char *tag) {
    __atomic_store_n(&holder->thread, thread, __ATOMIC_RELAXED);
    holder->tag = tag;
}

// ---- contention ----------------------------------------------------------------------

// A thread that finds the lock taken does not press for it. Whenever the lock goes to
// another processor all that a message touches goes along, in the kernel too, which takes
// longer than the message itself; and waking a sleeper is a system call for the holder. So
// one waiting thread looks on, at intervals in which a busy holder writes a handful of
// messages, and the others sleep in the mutex, as does the one when it has looked on for
// some hundred microseconds.
static const int LOOKS = 30;
static const int PAUSES_PER_LOOK = 256; // 5 to 10 microseconds

static bool mayLookOn = true; // false where the holder would need the only processor to go on

[[gnu::constructor]] static void countProcessors() {
    cpu_set_t ours;
    mayLookOn = sched_getaffinity(0, sizeof ours, &ours) != 0 || CPU_COUNT(&ours) > 1;
}

static void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ volatile("isb");
#else
    __asm__ volatile("");
#endif
}

static bool tryAcquire(LogLock *lock) {
    if (!isHeldBy(lock, 0)) // a look does not take the cache line from the holder
        return false;
    const int result = pthread_mutex_trylock(&lock->mutex);
    require(result == 0 || result == EBUSY);
    return result == 0;
}

// Whether the lock was acquired.
static bool lookOn(LogLock *lock) {
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

static void acquire(LogLock *lock) {
    if (!tryAcquire(lock) && !lookOn(lock))
        require(pthread_mutex_lock(&lock->mutex) == 0);
}

// ---- acquisition and release -------------------------------------------------------

// The mutex is taken by the outermost acquisition only; the nested ones, of which a
// message has several, are counted by depth.
void zoltLogLock(LogLock *lock, const char *tag) {
    require(lock != nullptr);
    const uint64_t self = getTID();
    if (!isCreated(lock))
        createOnce(lock);
    if (!isHeldBy(lock, self)) {
        acquire(lock);
        require(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lock->savedCancelState) == 0);
    }
    require(lock->depth < MAX_DEPTH);
    setHolder(&lock->holders[lock->depth], self, tag);
    ++lock->depth;
}

int32_t zoltLogUnlock(LogLock *lock, const char *tag) {
    require(lock != nullptr && lock->depth > 0);
    const int32_t depth = lock->depth - 1;
    LogLockHolder *holder = &lock->holders[depth];
    require(isCreated(lock));
    require(holder->thread == getTID());
    require(holder->tag == tag); // the same object, not an equal text
    setHolder(holder, 0, nullptr);
    lock->depth = depth;
    if (depth == 0) {
        require(pthread_setcancelstate(lock->savedCancelState, nullptr) == 0);
        require(pthread_mutex_unlock(&lock->mutex) == 0);
    }
    return 0;
}

int32_t zoltLogDestroyLock(LogLock *lock) {
    require(lock != nullptr);
    require(pthread_mutex_lock(&creation) == 0);
    require(isCreated(lock) && lock->depth == 0);
    require(pthread_mutex_destroy(&lock->mutex) == 0);
    __atomic_store_n(&lock->initialized, 0, __ATOMIC_RELEASE);
    require(pthread_mutex_unlock(&creation) == 0);
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
