// The main program of every unit test: runs in a new empty directory, with a
// plain environment, and removes the directory at the end.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

// In a child of fork, threads of the parent that nobody can join any more are no leak.
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
    return "report_thread_leaks=0:halt_on_error=1";
}

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "fast";
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();

    for (const char *name : {"ZOLTLOG_CFG_LOC", "QDLIS_CATALOG", "LANG", "LANGUAGE", "LC_ALL", "LC_CTYPE",
                             "LC_MESSAGES", "LC_NUMERIC", "LC_TIME", "TZ"})
        unsetenv(name);
    signal(SIGPIPE, SIG_IGN); // support::run writes to programs that may not read

    const char *parent = getenv("TMPDIR");
    std::string dir = std::string(parent != nullptr ? parent : "/tmp") + "/qdul-test.XXXXXX";
    if (mkdtemp(dir.data()) == nullptr || chdir(dir.c_str()) != 0) {
        std::perror(dir.c_str());
        return 1;
    }
    const int failed = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(dir, ignored);
    return failed;
}
