// SPDX-License-Identifier: Apache-2.0
// A program that unloads the libraries keeps nothing of them.
#include "support/support.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

void unloadAgainAndAgain(const std::string &library, const std::string &how, const char *locale) {
    const std::string here = std::filesystem::current_path().string();
    support::writeFile("zoltlog.conf", "5.Configuration=" + here + "/product.conf\n5.Names=test\n");
    support::writeFile("product.conf", "Default.LogDirectory=" + here + "/log/\n");
    setenv("ZOLTLOG_CFG_LOC", (here + "/zoltlog.conf").c_str(), 1);
    setenv("QDLIS_CATALOG", (support::buildDirectory() + "/share/qdul/catalogue/diskd").c_str(), 1);
    ASSERT_TRUE(support::useLocale(locale)); // for the program, too
    const support::Finished done = support::run({support::buildDirectory() + "/tests/unload_host",
                                                 support::buildDirectory() + "/lib/" + library, how, "30"});
    EXPECT_EQ(0, done.status) << how << " in " << locale << ": " << done.err;
}

TEST(Unload, AMessageKeepsNothing) {
    for (const char *locale : {"C", "de_DE.UTF-8"})
        unloadAgainAndAgain("libqdul.so.3", "text", locale);
}

TEST(Unload, AMessageOfACatalogueKeepsNothing) {
    for (const char *locale : {"C", "de_DE.UTF-8"})
        unloadAgainAndAgain("libqdul.so.3", "number", locale);
}

TEST(Unload, ABlockOfTheLocalizationLibraryKeepsNothing) {
    for (const char *locale : {"C", "de_DE.UTF-8"})
        unloadAgainAndAgain("libqdlis.so.3", "block", locale);
}

TEST(Unload, ALineOfThePlugInKeepsNothing) {
    for (const char *locale : {"C", "de_DE.UTF-8"})
        unloadAgainAndAgain("libzoltLogFormatMsg.so.3", "line", locale);
}

} // namespace
