// SPDX-License-Identifier: Apache-2.0
// A system log that takes nothing: who sends a copy there waits, and so does every other thread
// that logs, until it is read again; then all goes on, and nothing is lost. Needs a /dev of its
// own, so root.
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "zoltlog.h"

namespace {

constexpr int COPIES = 2000; // more than a socket keeps
constexpr int PLAIN = 100;

// A socket that programs send their system log to, in this process's view of /dev alone.
int ownSystemLog() {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, "size=1m") != 0)
        return -1;
    const int receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    if (receiver < 0 || bind(receiver, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return -1;
    return receiver;
}

bool comesWithin(int descriptor, int milliseconds) {
    pollfd one = {descriptor, POLLIN, 0};
    return poll(&one, 1, milliseconds) == 1;
}

struct Progress {
    std::atomic<int> copies{0}, plain{0}, failures{0};
};

void sendCopies(LogHandle *log, Progress *progress) {
    for (int number = 0; number < COPIES; ++number) {
        progress->failures += zoltLogAppMsg(log, ZOLTLOG_OUT_OSLOG, ZOLTLOG_SEVERITY_WARNING, 0, "copied %d",
                                            number) != ZOLTLOG_OK
                                  ? 1
                                  : 0;
        ++progress->copies;
    }
}

void sendPlain(LogHandle *log, Progress *progress) {
    for (int number = 0; number < PLAIN; ++number) {
        progress->failures +=
            zoltLogAppMsg(log, 0, ZOLTLOG_SEVERITY_WARNING, 0, "plain %d", number) != ZOLTLOG_OK ? 1 : 0;
        ++progress->plain;
    }
}

// Waits until nothing goes on any more; the number of copies made by then.
int copiesUntilStuck(const Progress &progress) {
    constexpr int QUIET = 10; // looks without progress
    int quiet = 0;
    int last = -1;
    while (quiet < QUIET && last < COPIES) {
        usleep(20000);
        quiet = progress.copies == last ? quiet + 1 : 0;
        last = progress.copies;
    }
    return last;
}

void runStuck(int receiver) {
    logs::configure();
    LogHandle log = {};
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &log));
    Progress progress;
    std::thread copying(sendCopies, &log, &progress);
    const int stuckAt = copiesUntilStuck(progress);
    EXPECT_LT(stuckAt, COPIES) << "it did not fill up";
    std::thread other(sendPlain, &log, &progress);
    usleep(100000);
    EXPECT_EQ(0, progress.plain) << "it does not wait for the copy that is made under the lock";

    // Read again: everybody goes on.
    int received = 0;
    bool foundFirst = false;
    while (received < COPIES && comesWithin(receiver, 10000)) {
        char line[1000];
        const ssize_t length = recv(receiver, line, sizeof line, 0);
        ASSERT_LT(0, length);
        foundFirst = foundFirst ||
                     std::string(line, static_cast<size_t>(length)).find("copied 0") != std::string::npos;
        ++received;
    }
    copying.join();
    other.join();
    EXPECT_EQ(COPIES, received);
    EXPECT_TRUE(foundFirst);
    EXPECT_EQ(0, progress.failures);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogClose(&log));
    EXPECT_EQ(static_cast<size_t>(COPIES + PLAIN), logs::records().size());
}

} // namespace

TEST(FaultSystemLog, OneThatIsNotReadHoldsUpWhoeverLogsUntilItIs) {
    bool isPossible = true;
    const int status = support::inChild([&] {
        const int receiver = ownSystemLog();
        if (receiver < 0)
            return 77;
        runStuck(receiver);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    isPossible = status != 77;
    if (!isPossible)
        GTEST_SKIP() << "only root can have a /dev of his own";
    EXPECT_EQ(0, status);
}
