// SPDX-License-Identifier: Apache-2.0
// A program and a plug-in of it that bring two versions of the library into one process: both
// log, to one series and from several threads, and in children of fork.
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <unistd.h>

#include "zoltlog.h"

namespace {

constexpr int MESSAGES = 100;
constexpr int THREADS = 3;
constexpr unsigned SECONDS = 60; // after which a process that hangs is killed

// The library under the name of the version before, in every place where the name stands.
std::string copyAsAnotherVersion() {
    const std::string name = "libqdul.so.3";
    std::string bytes = support::readFile(support::buildDirectory() + "/lib/" + name);
    size_t found = 0;
    for (size_t at = bytes.find(name); at != std::string::npos; at = bytes.find(name, at + 1), ++found)
        bytes[at + name.size() - 1] = '2';
    EXPECT_LT(0U, found);
    const std::string path = std::filesystem::current_path().string() + "/libqdul.so.2";
    support::writeFile(path, bytes);
    return path;
}

struct Version {
    void *library = nullptr;
    decltype(&zoltLogOpen) open = zoltLogOpen;
    decltype(&zoltLogClose) close = zoltLogClose;
    decltype(&zoltLogAppMsg) appMsg = zoltLogAppMsg;
    decltype(&zoltLogCreateContext) createContext = zoltLogCreateContext;
    decltype(&zoltLogDestroyContext) destroyContext = zoltLogDestroyContext;
    LogHandle handle = {};
};

template<typename Function>
void resolve(const Version &version, const char *name, Function *function) {
    void *found = dlsym(version.library, name);
    ASSERT_NE(nullptr, found) << name;
    ASSERT_NE(reinterpret_cast<void *>(*function), found) << name << " is the other's";
    *function = reinterpret_cast<Function>(found);
}

void load(Version *version) {
    version->library = dlopen(copyAsAnotherVersion().c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, version->library) << dlerror();
    resolve(*version, "zoltLogOpen", &version->open);
    resolve(*version, "zoltLogClose", &version->close);
    resolve(*version, "zoltLogAppMsg", &version->appMsg);
    resolve(*version, "zoltLogCreateContext", &version->createContext);
    resolve(*version, "zoltLogDestroyContext", &version->destroyContext);
}

int logSome(Version *version, const char *name, int thread) {
    int failures = 0;
    for (int number = 0; number < MESSAGES; ++number) {
        LogHandle context = {};
        const bool inContext =
            number % 10 == 0 && version->createContext(&version->handle, &context, "work", 0, "unit") == 0;
        failures += version->appMsg(inContext ? &context : &version->handle, 0, ZOLTLOG_SEVERITY_INFO, 0,
                                    "%s %d %d", name, thread, number) != ZOLTLOG_OK
                        ? 1
                        : 0;
        (void)version->destroyContext(&context);
    }
    return failures;
}

int logInAChild(Version *first, Version *second) {
    return support::inChild([&] {
        alarm(SECONDS);
        return logSome(first, "child of first", 0) + logSome(second, "child of second", 0);
    });
}

} // namespace

TEST(TwoVersions, LogSideBySideInOneProcess) {
    logs::configure({"Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=32"});
    alarm(SECONDS);
    Version first;
    Version second;
    ASSERT_NO_FATAL_FAILURE(load(&second));
    ASSERT_RESULT(ZOLTLOG_OK, first.open(logs::PRODUCT, logs::ORIGINATOR, &first.handle));
    ASSERT_RESULT(ZOLTLOG_OK, second.open(logs::PRODUCT, logs::ORIGINATOR, &second.handle));
    int failures[2 * THREADS] = {};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&, thread] { failures[thread] = logSome(&first, "first", thread); });
        threads.emplace_back(
            [&, thread] { failures[THREADS + thread] = logSome(&second, "second", thread); });
    }
    const int children = logInAChild(&first, &second);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(0, children);
    EXPECT_EQ(0,
              std::count_if(std::begin(failures), std::end(failures), [](int count) { return count != 0; }));
    ASSERT_RESULT(ZOLTLOG_OK, second.close(&second.handle));
    EXPECT_EQ(0, dlclose(second.library));
    EXPECT_EQ(0, logSome(&first, "afterwards", 0));
    ASSERT_RESULT(ZOLTLOG_OK, first.close(&first.handle));

    std::multiset<std::string> expected;
    const auto expect = [&expected](const std::string &name, int count) {
        for (int thread = 0; thread < count; ++thread)
            for (int number = 0; number < MESSAGES; ++number)
                expected.insert(name + " " + std::to_string(thread) + " " + std::to_string(number));
    };
    expect("first", THREADS);
    expect("second", THREADS);
    expect("child of first", 1);
    expect("child of second", 1);
    expect("afterwards", 1);
    std::multiset<std::string> found;
    for (const logs::Record &record : logs::records()) {
        EXPECT_TRUE(record.whole);
        if (record.type == ZOLTLOG_MSG_APP)
            found.insert(record.text);
    }
    EXPECT_EQ(expected, found);
}
