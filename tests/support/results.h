// SPDX-License-Identifier: Apache-2.0
// Compares result codes by name: a failure prints "ZOLTLOG_NO_MEMORY (4)", not "4".
#pragma once

#include "zoltlog_results.h"

#include <gtest/gtest.h>
#include <string>

// The result of a call is ZOLTLOG_... .
#define EXPECT_RESULT(expected, call) EXPECT_PRED_FORMAT2(support::sameResult, expected, call)
#define ASSERT_RESULT(expected, call) ASSERT_PRED_FORMAT2(support::sameResult, expected, call)

namespace support {

inline std::string resultName(uint32_t result) {
    const char *name = qdulResultName(result);
    return std::string(name ? name : "no listed result") + " (" + std::to_string(result) + ")";
}

inline testing::AssertionResult sameResult(const char *, const char *call, uint32_t expected, uint32_t got) {
    if (expected == got)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << call << "\n  gives    " << resultName(got) << "\n  and not  " << resultName(expected);
}

} // namespace support
