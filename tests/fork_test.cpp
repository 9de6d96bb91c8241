// SPDX-License-Identifier: Apache-2.0
// New processes of every kind: none waits for a thread that only its parent has, and each
// record has the number of the process that wrote it.
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "zoltlog.h"

namespace {

constexpr int ROUNDS = 100;
constexpr unsigned SECONDS = 20; // after which a process that hangs is killed

// Every record begins with the number of the process that wrote it.
void expectTheWritersNumbers() {
    size_t records = 0;
    for (const logs::Record &record : logs::records()) {
        ASSERT_TRUE(record.whole);
        ASSERT_EQ(strtoull(record.text.c_str(), nullptr, 10), record.processId) << record.text;
        ++records;
    }
    EXPECT_LT(0u, records);
}

uint32_t logPid(LogHandle *handle, const char *who) {
    return zoltLogAppMsg(handle, 0, 1, 0, "%d %s", static_cast<int>(getpid()), who);
}

// Threads that log, with the lock held by turns, as long as it lives.
struct Logging {
    explicit Logging(LogHandle *handle) {
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([this, handle] {
                while (!done) {
                    failures += logPid(handle, "thread") != 0;
                    std::this_thread::sleep_for(std::chrono::microseconds(20)); // others want the processor
                }
            });
    }
    ~Logging() {
        done = true;
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(0, failures);
    }
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
};

struct Fork : testing::Test {
    void SetUp() override {
        logs::configure();
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    }
    void TearDown() override { EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle)); }

    // Makes children that log, while other threads hold the lock now and then.
    template<typename MakeProcess>
    void childrenLog(MakeProcess make) {
        {
            const Logging others(&handle);
            for (int i = 0; i < ROUNDS; ++i) {
                const pid_t child = make();
                if (child == 0) {
                    alarm(SECONDS);
                    const uint32_t first = logPid(&handle, "child");
                    _exit(first == 0 && logPid(&handle, "child again") == 0 ? 0 : 1);
                }
                int status = -1;
                ASSERT_EQ(child, waitpid(child, &status, 0));
                ASSERT_EQ(0, status) << "child " << i;
                ASSERT_EQ(0u, logPid(&handle, "parent"));
            }
        }
        expectTheWritersNumbers();
        EXPECT_EQ(2u * ROUNDS, countOf("child"));
    }
    static size_t countOf(const std::string &who) {
        size_t count = 0;
        for (const logs::Record &record : logs::records())
            count += record.text.find(who) != std::string::npos ? 1 : 0;
        return count;
    }
    LogHandle handle = {};
};

#ifndef __SANITIZE_THREAD__ // whose runtime has to know of each new process
pid_t rawClone() {
    return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0));
}
#endif

} // namespace

TEST_F(Fork, ChildrenOfForkLogUnderTheirOwnNumber) {
    childrenLog([] { return fork(); });
}

#ifndef __SANITIZE_THREAD__
TEST_F(Fork, ChildrenThatRunNoHandlersLogUnderTheirOwnNumber) {
    childrenLog([] { return _Fork(); });
}

TEST_F(Fork, ChildrenOfCloneLogUnderTheirOwnNumber) {
    childrenLog(rawClone);
}

TEST_F(Fork, AThreadThatForksWithTheLockHeldHasItInTheChild) {
    static const char TAG[] = "test";
    zoltLockCommon(TAG);
    for (const auto make : {+[] { return fork(); }, +[] { return _Fork(); }, &rawClone}) {
        const pid_t child = make();
        if (child == 0) {
            alarm(SECONDS);
            const bool logged = zoltLogMutex.depth == 1 && logPid(&handle, "child") == 0;
            zoltUnlockCommon(TAG);
            _exit(logged && zoltLogMutex.depth == 0 && logPid(&handle, "child") == 0 ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    zoltUnlockCommon(TAG);
    EXPECT_EQ(0u, logPid(&handle, "parent"));
    expectTheWritersNumbers();
}
#endif

// The parent's number survives a child that shares its memory until it is another program.
TEST_F(Fork, AfterVforkAndExecBothLogUnderTheirOwnNumber) {
    const std::string logger = support::buildDirectory() + "/bin/qdlogger";
    EXPECT_EQ(0u, logPid(&handle, "parent"));
    const pid_t child = vfork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", "exec \"$0\" --product 5 --originator 7 \"$$ child\"", logger.c_str(),
              nullptr);
        _exit(127);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0u, logPid(&handle, "parent"));
    expectTheWritersNumbers();
    EXPECT_EQ(1u, countOf("child"));
}

TEST_F(Fork, ADescendantOfEachGenerationHasItsOwnNumber) {
    EXPECT_EQ(0, support::inChild([&] {
                  return logPid(&handle, "child") != 0 ? 1 : support::inChild([&] {
                      return static_cast<int>(logPid(&handle, "grandchild"));
                  });
              }));
    expectTheWritersNumbers();
    EXPECT_EQ(1u, countOf("grandchild"));
}

// ---- the order of fork handlers ------------------------------------------------------------

// The host's handlers may stand before or after the library's, and use it in each.
TEST_F(Fork, TheHostsHandlersMayUseTheLibraryInAnyOrder) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has to be loaded first";
#endif
    const std::string host = support::buildDirectory() + "/tests/fork_host";
    const std::string library = support::buildDirectory() + "/lib/libqdul.so.3";
    struct Row {
        const char *use;
        const char *where;
    };
    for (const char *order : {"before", "after"}) {
        for (const char *state : {"fresh", "used"}) {
            for (const Row row :
                 {Row{"lock", "none"}, Row{"lock", "prepare"}, Row{"lock", "parent"}, Row{"lock", "child"},
                  Row{"lock", "all"}, Row{"across", "none"}, Row{"log", "prepare"}, Row{"log", "parent"},
                  Row{"log", "child"}, Row{"log", "all"}}) {
                if (std::string(state) == "fresh" && std::string(row.use) == "log")
                    continue; // there is no handle yet
                SCOPED_TRACE(std::string(order) + " " + state + " " + row.use + " " + row.where);
                const support::Finished run = support::run({host, library, order, state, row.use, row.where});
                EXPECT_EQ(0, run.status) << run.err;
            }
        }
    }
    expectTheWritersNumbers();
}
