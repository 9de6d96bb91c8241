// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>

#include "support/support.h"
#include "zoltlog.h"

TEST(SharedLibrary, LoadingNeedsAPlaceForTheHandleAndAName) {
    void *library = nullptr;
    char untouched = 0;
    char *file = &untouched;
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibLoad(nullptr, "libqdlis", &file));
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibLoad(&library, nullptr, &file));
}

TEST(SharedLibrary, TheFileNameIsHandedOut) {
    void *library = nullptr;
    char *file = nullptr;
    ASSERT_EQ(0, SharedLibLoad(&library, "libqdlis", &file));
    EXPECT_NE(nullptr, library);
    EXPECT_STREQ("libqdlis.so.3", file);
    zoltLogFree(file);
    EXPECT_EQ(0, SharedLibUnload(library));
}

TEST(SharedLibrary, TheFileNameIsOptional) {
    void *library = nullptr;
    ASSERT_EQ(0, SharedLibLoad(&library, "libqdlis", nullptr));
    EXPECT_EQ(0, SharedLibUnload(library));
}

TEST(SharedLibrary, AMissingLibraryGivesNullForHandleAndFileName) {
    char something = 0;
    void *library = &something;
    char *file = &something;
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibLoad(&library, "libqdulDoesNotExist", &file));
    EXPECT_EQ(nullptr, library);
    EXPECT_EQ(nullptr, file);
}

TEST(SharedLibrary, TheCurrentDirectoryIsNotSearched) {
    std::filesystem::copy_file(support::buildDirectory() +
                                   "/tests/plugins/recording/libzoltLogFormatMsg.so.3",
                               "libqdulOnlyHere.so.3");
    void *library = nullptr;
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibLoad(&library, "libqdulOnlyHere", nullptr));
    EXPECT_EQ(0, SharedLibLoad(&library, "./libqdulOnlyHere", nullptr)); // asked for by its path
    EXPECT_EQ(0, SharedLibUnload(library));
}

TEST(SharedLibrary, UnloadingNullFails) {
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibUnload(nullptr));
}

TEST(SharedLibrary, ResolvingChecksItsArguments) {
    void *library = nullptr;
    ASSERT_EQ(0, SharedLibLoad(&library, "libqdlis", nullptr));
    void *function = nullptr;
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibResolveFunc(nullptr, "zoltLisFree", &function));
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibResolveFunc(library, nullptr, &function));
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibResolveFunc(library, "", &function));
    EXPECT_EQ(ZOLTLOG_OS_NOT_LOADED, SharedLibResolveFunc(library, "zoltLisFree", nullptr));
    EXPECT_EQ(0, SharedLibUnload(library));
}

TEST(SharedLibrary, AMissingSymbolIsNullAndNoFailure) {
    void *library = nullptr;
    ASSERT_EQ(0, SharedLibLoad(&library, "libqdlis", nullptr));
    char something = 0;
    void *function = &something;
    EXPECT_EQ(0, SharedLibResolveFunc(library, "noSuchSymbolAnywhere", &function));
    EXPECT_EQ(nullptr, function);
    EXPECT_EQ(0, SharedLibUnload(library));
}

TEST(SharedLibrary, APresentSymbolIsFound) {
    void *library = nullptr;
    ASSERT_EQ(0, SharedLibLoad(&library, "libzoltLogFormatMsg", nullptr)) << dlerror();
    void *function = nullptr;
    EXPECT_EQ(0, SharedLibResolveFunc(library, "LogFormatMessage", &function));
    EXPECT_NE(nullptr, function);
    EXPECT_EQ(0, SharedLibUnload(library));
}
