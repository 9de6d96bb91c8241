// SPDX-License-Identifier: Apache-2.0
// qdul.hpp with file and line behind the texts, and with a floor of levels.
#define QDUL_SOURCE_LOCATION
#define QDUL_LEVEL_FLOOR 2
#include "qdul.hpp"

#include "support/log_records.h"

#include <gtest/gtest.h>

namespace {

int looks;
const char *look() {
    ++looks;
    return "looked";
}

TEST(HppLocated, EachMessageTellsItsPlace) {
    logs::configure({"Default.DebugLevel=6", "Default.DiagnosticLevel=6"});
    qdul::Log log(logs::PRODUCT, logs::ORIGINATOR);
    const int line = __LINE__;
    EXPECT_EQ(qdul::Result::ok, log.app(qdul::Severity::info, "one", {{"k", 1}}));
    EXPECT_EQ(qdul::Result::ok, log.diag(1, "two"));
    QDUL_DEBUG(log, 2, "three");
    EXPECT_EQ(qdul::Result::ok, log.appf(qdul::Severity::info, "%s", "four"));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(4u, records.size());
    const std::string place = " file=qdul_hpp_located_test.cpp line=";
    EXPECT_EQ("one k=1" + place + std::to_string(line + 1), records[0].text);
    EXPECT_EQ("two" + place + std::to_string(line + 2), records[1].text);
    EXPECT_EQ("three" + place + std::to_string(line + 3), records[2].text);
    EXPECT_EQ("four", records[3].text);
}

TEST(HppLocated, NothingIsLeftOfMacrosAboveTheFloor) {
    logs::configure({"Default.DebugLevel=6", "Default.DiagnosticLevel=6"});
    qdul::Log log(logs::PRODUCT, logs::ORIGINATOR);
    QDUL_DEBUG(log, 3, look());
    QDUL_DEBUGF(log, 3, "%s", look());
    QDUL_DIAG(log, 6, look());
    QDUL_DIAGF(log, 6, "%s", look());
    EXPECT_EQ(0, looks);
    QDUL_DEBUG(log, 2, look());
    EXPECT_EQ(1, looks);
    EXPECT_EQ(qdul::Result::ok, log.debug(6, "calls mind the handle's level only"));
    EXPECT_EQ(2u, logs::records().size());
}

} // namespace
