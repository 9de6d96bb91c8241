// SPDX-License-Identifier: Apache-2.0
// Which operation takes the global lock under which tag. The lock asks for the thread's
// identity when it is released, while the released tag still stands in its record: this
// program's own pthread_self looks at it there.
#include "support/log_records.h"
#include "support/results.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Here alone: ThreadSanitizer asks for it before it knows the thread that runs it.
SUPPORT_CALL(pthread_t, pthread_self, (), (), noexcept)

namespace {

std::set<std::string> taken;

const bool PREPARED = support::eachCase([] {
    taken.clear();
    libc::pthread_self.hook = [] {
        if (zoltLogMutex.depth > 0)
            taken.insert(zoltLogMutex.holders[zoltLogMutex.depth - 1].tag);
        return libc::pthread_self.real();
    };
});

struct LockTagsInUse : testing::Test {
    LockTagsInUse() {
        logs::configure({"Default.DebugLevel=4", "LOGSET.backup.DebugLevel=1"});
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
        LogCfg cfg = {};
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, &cfg, &secure));
    }
    ~LockTagsInUse() override {
        zoltLogClose(&secure);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
        EXPECT_EQ(0, zoltLogMutex.depth);
    }
    LogHandle handle = {};
    LogHandle secure = {};
};

void freeAll(LogCfg **cfgs, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
    }
}

} // namespace

TEST_F(LockTagsInUse, AreThoseOfTheOperations) {
    LogCfg *cfgs[8] = {};
    uint32_t count = 0;
    LogCfg cfg = {};
    uint32_t level = 0;
    uint64_t number = 0;
    LogHandle context = {};
    LogHandle second = {};
    ZoltLisBlock block = {};
    const struct {
        const char *tag;
        std::function<void()> call;
    } rows[] = {
        {"zoltLogReadAllCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadAllCfg(nullptr, 8, cfgs, &count));
             freeAll(cfgs, count);
         }},
        {"zoltLogReadProdIDCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadProdIDCfg(nullptr, 5, 8, cfgs, &count));
             freeAll(cfgs, count);
         }},
        {"zoltLogReadlogsetCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadlogsetCfg(5, "backup", &cfg));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogCfgSetDebugLevel(&cfg, 2));
         }},
        {"zoltLogWritelogSetCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogWritelogSetCfg(5, "backup", &cfg));
             zoltLogFreeCfg(&cfg);
         }},
        {"zoltLogReadCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(5, 7, &cfg));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogCfgSetDebugLevel(&cfg, 3));
         }},
        {"zoltLogWriteCfg()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogWriteCfg(5, 7, &cfg));
             zoltLogFreeCfg(&cfg);
         }},
        {"zoltDynaLoadConfig()",
         [&] {
             handle.reloadInterval = 60;
             handle.lastReloadCheck = 0;
             handle.cfgTimestamp = 1;
             EXPECT_RESULT(ZOLTLOG_OK, zoltDynaLoadConfig(&handle));
         }},
        {"zoltLogAddProductCfg",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAddProductCfg(9, "nine", "/nine.conf")); }},
        {"zoltLogRemoveProductCfg", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogRemoveProductCfg(9)); }},
        {"GetNextSequenceNumber()", [&] { GetNextSequenceNumber(&handle); }},
        {"zoltLogMsg()",
         [&] {
             LogMsg msg;
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, "text"));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
             zoltLogFreeMsg(&msg);
         }},
        {"zoltLogAppMsg2LEx()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK,
                           zoltLogAppMsg2LEx(&handle, 1, 0, ZOLTLOG_SEVERITY_WARNING, "mgr", "text", &block));
         }},
        {"zoltLogDiagMsg2L()",
         [&] {
             handle.diagLevel = 4;
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogDiagMsg2L(&handle, 1, 0, 1, "mgr", "text", &block));
         }},
        {"zoltLogAuditMsg2L()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAuditMsg2(&handle, 1, 0, "mary", 1, 42, "text")); }},
        {"zoltLogSecureAuditMsgL()", [&] { (void)zoltLogSecureAuditMsg(&secure, 0, "mary", 1, 42, "text"); }},
        {"zoltLogFormattedDebugMsg()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogFormattedDebugMsg(&handle, 0, 1, "mgr", "text")); }},
        {"zoltLogDebugMsg2V()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(&handle, 0, 1, "mgr", "text")); }},
        {"zoltLogSetDebugLevel()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDebugLevel(&handle, 1)); }},
        {"zoltLogGetDebugLevel()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDebugLevel(&handle, &level)); }},
        {"zoltLogSetDiagLevel()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetDiagLevel(&handle, 1)); }},
        {"zoltLogGetDiagLevel()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDiagLevel(&handle, &level)); }},
        {"zoltLogSetSecureAuditLevel()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSecureAuditLevel(&handle, 1)); }},
        {"zoltLogGetSecureAuditLevel()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSecureAuditLevel(&handle, &level)); }},
        {"zoltLogSetSequenceNumber()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogSetSequenceNumber(&handle, 1)); }},
        {"zoltLogSetSequenceNumber()",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetSequenceNumber(&handle, &number)); }},
        {"zoltLogAddLogToFile()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &second));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&second));
         }},
        {"zoltLogOpenFile()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &second)); }},
        {"zoltLogCloseFile()", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&second)); }},
        {"zoltLogCreateContextToFile()",
         [&] {
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "text"));
             EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
         }},
    };
    for (const auto &row : rows) {
        taken.clear();
        row.call();
        EXPECT_EQ(1u, taken.count(row.tag)) << row.tag << ", took " << testing::PrintToString(taken);
        EXPECT_EQ(0, zoltLogMutex.depth) << row.tag;
    }
}

// ---- nesting -----------------------------------------------------------------------------

namespace {

using Stack = std::vector<std::string>; // tags, the outermost first

Stack stackOf(pid_t process) {
    LogLock lock;
    iovec here = {&lock, sizeof lock};
    iovec there = {&zoltLogMutex, sizeof lock};
    if (process_vm_readv(process, &here, 1, &there, 1, 0) != static_cast<ssize_t>(sizeof lock))
        return {"unreadable"};
    Stack stack;
    for (int i = 0; i < lock.depth; ++i) {
        char tag[64] = "";
        iovec text = {tag, sizeof tag - 1};
        iovec place = {const_cast<char *>(lock.holders[i].tag), sizeof tag - 1};
        process_vm_readv(process, &text, 1, &place, 1, 0);
        stack.emplace_back(tag);
    }
    return stack;
}

// Has the processor stop the child whenever it writes to the lock's depth.
bool watchDepth(pid_t child) {
    constexpr unsigned long FIRST_OF_FOUR_BYTES_WRITTEN = 1ul | 1ul << 16 | 3ul << 18;
    const auto at = [](size_t number) {
        return reinterpret_cast<void *>(offsetof(user, u_debugreg) + number * sizeof(user::u_debugreg[0]));
    };
    return ptrace(PTRACE_POKEUSER, child, at(0), &zoltLogMutex.depth) == 0 &&
           ptrace(PTRACE_POKEUSER, child, at(7), FIRST_OF_FOUR_BYTES_WRITTEN) == 0;
}

// Runs body in a child: what the lock's record shows after each change, as a support tool
// sees it that looks in between. Empty where nothing may be traced.
std::vector<Stack> stacksDuring(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(1);
        raise(SIGSTOP);
        body();
        _exit(0);
    }
    std::vector<Stack> stacks;
    int status = 0;
    bool watching = false;
    while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        if (!watching && !watchDepth(child)) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return {};
        }
        watching = true;
        const Stack stack = stackOf(child);
        if (stacks.empty() || stacks.back() != stack)
            stacks.push_back(stack);
        if (ptrace(PTRACE_CONT, child, nullptr, nullptr) != 0)
            break;
    }
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status) == 0 ? stacks : std::vector<Stack>();
}

} // namespace

TEST_F(LockTagsInUse, NestAsTheOperationsDo) {
    zoltLogSetDiagLevel(&handle, 4);
    ZoltLisBlock block = {};
    const char msg[] = "zoltLogMsg()";
    const char next[] = "GetNextSequenceNumber()";
    const struct {
        const char *tag;
        std::function<void()> call;
    } families[] = {
        {"zoltLogAppMsg2LEx()", [&] { zoltLogAppMsg2LEx(&handle, 1, 0, 1, "mgr", "text", &block); }},
        {"zoltLogDiagMsg2L()", [&] { zoltLogDiagMsg2L(&handle, 1, 0, 1, "mgr", "text", &block); }},
        {"zoltLogAuditMsg2L()", [&] { zoltLogAuditMsg2L(&handle, 1, 0, "mary", 1, &block); }},
        {"zoltLogSecureAuditMsgL()", [&] { zoltLogSecureAuditMsgL(&secure, 0, "mary", 1, &block); }},
        {"zoltLogDebugMsg2V()", [&] { zoltLogDebugMsg(&handle, 0, 1, "mgr", "text"); }},
        {"zoltLogFormattedDebugMsg()", [&] { zoltLogFormattedDebugMsg(&handle, 0, 1, "mgr", "text"); }},
    };
    for (const auto &family : families) {
        const std::string outer = family.tag;
        const std::vector<Stack> stacks = stacksDuring(family.call);
        if (stacks.empty())
            GTEST_SKIP() << "no process may be traced here";
        EXPECT_EQ((std::vector<Stack>{{}, {outer}, {outer, next}, {outer}, {outer, msg}, {outer}, {}}),
                  stacks)
            << outer;
    }
    LogHandle context = {};
    const std::string create = "zoltLogCreateContextToFile()";
    EXPECT_EQ((std::vector<Stack>{{}, {next}, {}, {create}, {create, "zoltLogAddLogToFile()"}, {create}, {}}),
              stacksDuring([&] { zoltLogCreateContext(&handle, &context, "T1", 0, "text"); }));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &context, "T1", 0, "text"));
    EXPECT_EQ((std::vector<Stack>{{}, {"zoltLogCloseFile()"}, {}}),
              stacksDuring([&] { zoltLogDestroyContext(&context); }));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&context));
}
