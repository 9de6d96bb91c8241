/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A host program that knows the library only at run time, and forks: its own fork handlers
 * may be registered before the library's or after, and use the library as well.
 *
 *     fork_host LIBRARY before|after fresh|used log|lock|across none|prepare|parent|child|all
 *
 * Handlers are registered before or after the library is loaded, which has or has not been
 * used when the first child is made. In the named handlers the host logs, or takes and
 * releases the lock; with "across" it takes the lock before the fork and releases it in both
 * processes. Two threads log all the time. Children log and leave; exit status 0 when all did.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zoltlog.h"

enum { CHILDREN = 20, SECONDS = 20 };

static const char TAG[] = "host";
static const char *use;
static const char *where;
static LogHandle handle;
static int done;

static __typeof__(&zoltLogOpen) openLog;
static __typeof__(&zoltLogClose) closeLog;
static __typeof__(&zoltLogAppMsg) appMsg;
static __typeof__(&zoltLockCommon) lock;
static __typeof__(&zoltUnlockCommon) unlock;

static void require(int holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "%d: %s\n", (int)getpid(), what);
        _exit(1);
    }
}

static void logPid(const char *who) {
    require(appMsg(&handle, 0, 1, 0, "%d %s", (int)getpid(), who) == 0, "a message failed");
}

static void handler(const char *name) {
    if (appMsg == NULL || (strcmp(where, name) != 0 && strcmp(where, "all") != 0))
        return;
    if (strcmp(use, "log") == 0) {
        logPid(name);
    } else if (strcmp(use, "lock") == 0) {
        lock(TAG);
        unlock(TAG);
    }
}

static void prepare(void) {
    handler("prepare");
    if (appMsg != NULL && strcmp(use, "across") == 0)
        lock(TAG);
}

static void parent(void) {
    if (appMsg != NULL && strcmp(use, "across") == 0)
        unlock(TAG);
    handler("parent");
}

static void child(void) {
    if (appMsg != NULL && strcmp(use, "across") == 0)
        unlock(TAG);
    handler("child");
}

static void *logOn(void *unused) {
    (void)unused;
    while (!__atomic_load_n(&done, __ATOMIC_RELAXED)) {
        logPid("thread");
        usleep(20); /* others want the processor */
    }
    return NULL;
}

static void makeChild(void) {
    const pid_t process = fork();
    if (process == 0) {
        alarm(SECONDS);
        logPid("child");
        _exit(0);
    }
    int status = -1;
    require(process > 0 && waitpid(process, &status, 0) == process && status == 0,
            "a child did not end well");
}

int main(int argc, char **argv) {
    require(argc == 6, "arguments");
    alarm(3 * SECONDS);
    use = argv[4];
    where = argv[5];
    if (strcmp(argv[2], "before") == 0)
        pthread_atfork(prepare, parent, child);
    void *library = dlopen(argv[1], RTLD_NOW);
    require(library != NULL, "the library cannot be loaded");
    if (strcmp(argv[2], "after") == 0)
        pthread_atfork(prepare, parent, child);
    openLog = (__typeof__(openLog))dlsym(library, "zoltLogOpen");
    closeLog = (__typeof__(closeLog))dlsym(library, "zoltLogClose");
    lock = (__typeof__(lock))dlsym(library, "zoltLockCommon");
    unlock = (__typeof__(unlock))dlsym(library, "zoltUnlockCommon");
    __typeof__(appMsg) message = (__typeof__(message))dlsym(library, "zoltLogAppMsg");
    if (strcmp(argv[3], "used") == 0) {
        require(openLog(5, 7, &handle) == 0, "the log cannot be opened");
        appMsg = message;
    } else { /* opening would be a use; the handlers only take the lock then */
        appMsg = message;
        const pid_t process = fork();
        if (process == 0)
            _exit(0);
        int status = -1;
        require(waitpid(process, &status, 0) == process && status == 0, "the first child");
        require(openLog(5, 7, &handle) == 0, "the log cannot be opened");
    }
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i)
        require(pthread_create(&threads[i], NULL, logOn, NULL) == 0, "no thread");
    for (int i = 0; i < CHILDREN; ++i)
        makeChild();
    __atomic_store_n(&done, 1, __ATOMIC_RELAXED);
    for (int i = 0; i < 2; ++i)
        pthread_join(threads[i], NULL);
    logPid("end");
    require(closeLog(&handle) == 0, "the log cannot be closed");
    return 0;
}
