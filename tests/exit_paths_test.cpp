// SPDX-License-Identifier: Apache-2.0
// The end of a process: its handlers of exit and the destructors of its static objects may
// log, and a console that is gone costs the copy of a message only, or ends the process by the
// signal that says so.
#include "support/log_records.h"
#include "support/results.h"
#include "support/sink_capture.h"
#include "support/support.h"
#include "zoltlog.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

LogHandle handle;
bool logsAtEnd;

struct AtEnd {
    AtEnd() = default;
    ~AtEnd() {
        if (logsAtEnd)
            (void)zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "from a destructor");
    }
    AtEnd(const AtEnd &) = delete;
    AtEnd &operator=(const AtEnd &) = delete;
};
const AtEnd AT_END;

std::vector<std::string> texts() {
    std::vector<std::string> found;
    for (const logs::Record &record : logs::records())
        found.push_back(record.text);
    return found;
}

// Sends a message with a copy to a standard output that nobody reads.
int sendToClosedPipe() {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
        return 100;
    close(ends[0]);
    close(ends[1]);
    sinks::formatter = sinks::ownFormatter();
    LogHandle log = {};
    if (zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &log) != ZOLTLOG_OK)
        return 101;
    return static_cast<int>(zoltLogAppMsg(&log, ZOLTLOG_OUT_STDOUT, ZOLTLOG_SEVERITY_INFO, 0, "with a copy"));
}

} // namespace

TEST(ExitPaths, HandlersOfExitAndDestructorsMayLog) {
    logs::configure();
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle) != ZOLTLOG_OK)
            _exit(100);
        logsAtEnd = true;
        (void)atexit([] { (void)zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_INFO, 0, "from a handler"); });
        exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(texts(), (std::vector<std::string>{"from a handler", "from a destructor"}));
}

TEST(ExitPaths, AClosedConsoleCostsTheCopyWhereItsSignalIsIgnored) {
    logs::configure();
    EXPECT_EQ(support::inChild(sendToClosedPipe), 0);
    EXPECT_EQ(texts(), std::vector<std::string>{"with a copy"});
}

TEST(ExitPaths, AClosedConsoleEndsTheProcessBehindTheRecordOtherwise) {
    logs::configure();
    EXPECT_EQ(support::inChild([] {
                  signal(SIGPIPE, SIG_DFL);
                  return sendToClosedPipe();
              }),
              128 + SIGPIPE);
    EXPECT_EQ(texts(), std::vector<std::string>{"with a copy"});
}
