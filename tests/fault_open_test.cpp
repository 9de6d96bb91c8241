// SPDX-License-Identifier: Apache-2.0
// Every allocation of opening, rolling over and contexts failing once.
#include "support/log_records.h"
#include "support/results.h"
#include "write_series.h"

#include "support/failing_allocations.h"

using namespace series;

namespace {

struct FaultOpen : testing::Test {
    FaultOpen() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 10));
        logs::configure({"Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=1",
                         "LOGSET.Default.LogDirectory=./log/", "LOGSET.backup.DebugLevel=1"});
    }
    void SetUp() override {
        if (!support::allocationsCanFail())
            GTEST_SKIP() << "the sanitizer brings its own allocator";
    }
};

} // namespace

TEST_F(FaultOpen, EveryAllocationOfAnOpenMayFail) {
    const std::function<uint32_t(LogHandle *)> ways[] = {
        [](LogHandle *handle) { return zoltLogOpen2(5, 7, 8, handle); },
        [](LogHandle *handle) { return zoltLogOpenLogSet(5, 7, "backup", handle); }};
    for (const auto &way : ways) {
        LogHandle handle;
        ASSERT_EQ(way(&handle), 0u); // files are there, and what is kept for good is made
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
        const size_t descriptors = support::openDescriptors();
        bool failed = true;
        int failures = 0;
        for (long number = 0; failed; ++number) {
            ASSERT_LT(number, 5000);
            uint32_t result;
            {
                const support::FailingAllocation failing(number);
                result = way(&handle);
                failed = support::FailingAllocation::happened();
            }
            // A setting whose text cannot be copied is missing or unreadable to its reader.
            EXPECT_TRUE(result == 0 || result == 1 || result == 3 || result == 4 || result == 6 ||
                        result == 53)
                << number << ": " << result;
            failures += result != 0 ? 1 : 0;
            const uint32_t closed = zoltLogClose(&handle);
            EXPECT_TRUE(closed == 0 || result != 0) << number;
            EXPECT_EQ(support::openDescriptors(), descriptors) << number;
            ASSERT_EQ(way(&handle), 0u) << number;
            ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "after"));
            ASSERT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
        }
        EXPECT_GT(failures, 5);
    }
}

TEST_F(FaultOpen, RolloverGoesOnWithoutMemory) {
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    LogMsg msg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, std::string(1000, 'x').c_str()));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL));
    const support::FailingAllocation failing(0);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(&handle, 0, &msg));
    EXPECT_EQ(handle.file->counter, 1);
    support::allocationsUntilFailure = -1;
    zoltLogFreeMsg(&msg);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
}

TEST_F(FaultOpen, ContextWithoutMemoryForItsTokenIs4) {
    LogHandle handle;
    LogHandle outer;
    LogHandle inner;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContext(&handle, &outer, "T1", 0, "outer"));
    bool failed = true;
    for (long number = 0; failed; ++number) {
        ASSERT_LT(number, 500);
        uint32_t result;
        {
            const support::FailingAllocation failing(number);
            result = zoltLogCreateContext(&outer, &inner, "T2", 0, "inner %d", 1);
            failed = support::FailingAllocation::happened();
        }
        EXPECT_TRUE(result == 0 || result == 4 || result == 1 || result == 3) << result;
        EXPECT_EQ(zoltLogDestroyContext(&inner), result == 0 ? 0u : 3u);
    }
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&outer));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
}
