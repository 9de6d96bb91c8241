// SPDX-License-Identifier: Apache-2.0
// qdul.hpp with formats of braces, of {fmt} where it is installed, else of the C++ library.
#if __has_include(<fmt/format.h>)
#define FMT_HEADER_ONLY
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#include <fmt/format.h>
#pragma GCC diagnostic pop
#endif
#include "qdul.hpp"

#include "support/log_records.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(HppFormat, BracesTakeTheArguments) {
#ifdef QDUL_FORMATTER
    logs::configure({"Default.DebugLevel=2", "Default.DiagnosticLevel=2"});
    qdul::Log log(logs::PRODUCT, logs::ORIGINATOR);
    const std::string name = "/var";
    EXPECT_EQ(qdul::Result::ok, log.appFormat(qdul::Severity::info, "{} is {}% full", name, 93));
    EXPECT_EQ(qdul::Result::ok, log.diagFormat(2, "{1} {0:>4}", 1, std::string("two")));
    EXPECT_EQ(qdul::Result::ok, log.debugFormat(2, "no arguments, Grüße"));
    EXPECT_EQ(qdul::Result::ok, log.diagFormat(3, "dropped {}", 1));
    EXPECT_EQ(qdul::Result::ok, log.debugFormat(3, "dropped {}", 1));
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("/var is 93% full", records[0].text);
    EXPECT_EQ("two    1", records[1].text);
    EXPECT_EQ("no arguments, Grüße", records[2].text);
#else
    GTEST_SKIP() << "neither {fmt} nor std::format is there";
#endif
}

TEST(HppFormat, TextsOfAnyLengthAreWhole) {
#ifdef QDUL_FORMATTER
    logs::configure();
    qdul::Log log(logs::PRODUCT, logs::ORIGINATOR);
    for (const size_t length : {size_t{1022}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{70000}}) {
        const std::string text(length, 'x');
        EXPECT_EQ(qdul::Result::ok, log.appFormat(qdul::Severity::info, "{}", text));
        EXPECT_EQ(qdul::Result::ok, log.appFormat(qdul::Severity::info, "{}", std::string(text)));
        EXPECT_EQ(text, logs::records().back().text);
        EXPECT_EQ(text, logs::records()[logs::records().size() - 2].text);
    }
#else
    GTEST_SKIP() << "neither {fmt} nor std::format is there";
#endif
}

} // namespace
