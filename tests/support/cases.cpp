// SPDX-License-Identifier: Apache-2.0
#include "support/cases.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/support.h"
#include "zoltlog.h"

namespace support {

namespace {

// Not an object of this file's: those that prepare register while such objects are made.
std::vector<void (*)()> &preparations() {
    static std::vector<void (*)()> list;
    return list;
}

int casesBegun;

} // namespace

bool eachCase(void (*prepare)()) {
    preparations().push_back(prepare);
    return true;
}

void prepareCase() {
    ++casesBegun;
    errorCode = 0; // once it says that the device is full, the library leaves it so
    for (void (*prepare)() : preparations())
        prepare();
}

bool inFreshProcess() {
    const testing::UnitTest *all = testing::UnitTest::GetInstance();
    if (casesBegun == 1 && all->test_to_run_count() == 1)
        return true;
    const testing::TestInfo *info = all->current_test_info();
    const std::string name = std::string(info->test_suite_name()) + "." + info->name();
    const Finished finished =
        run({"/proc/self/exe", "--gtest_filter=" + name, "--gtest_also_run_disabled_tests"});
    const bool passed =
        finished.status == 0 && finished.out.find("1 test from 1 test suite ran") != std::string::npos;
    EXPECT_TRUE(passed) << name << " in a process of its own ended with " << finished.status << "\n"
                        << finished.out << finished.err;
    return false;
}

} // namespace support
