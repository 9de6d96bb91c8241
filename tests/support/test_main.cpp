// SPDX-License-Identifier: Apache-2.0
// The main program of every unit test. Each case begins alike, whichever ran before it:
// in a new empty directory of its own, with the environment, locale, time zone, umask,
// signal handlers and limits that the program began with, and nothing prepared by
// another case (support::eachCase). Cases that run in one process share only what the
// libraries keep per process; support::inFreshProcess is for those that mind.
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/cases.h"

// What the loader allocates for a library that asks to stay loaded, once in a process. The
// sanitizer knows the loader's blocks unless a test's own malloc stands in between.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return "leak:_dl_map_object_deps\n";
}
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() {
    return "print_suppressions=0";
}

// In a child of fork, threads of the parent that nobody can join any more are no leak.
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
    return "report_thread_leaks=0:halt_on_error=1";
}

namespace {

constexpr int RESTORED_LIMITS[] = {RLIMIT_FSIZE, RLIMIT_NOFILE, RLIMIT_DATA, RLIMIT_AS, RLIMIT_STACK};

// What a case may change for the whole process, as the program began with it.
struct ProcessState {
    std::map<std::string, std::string> environment;
    mode_t mask = 0;
    std::map<int, struct sigaction> handlers;
    sigset_t blocked = {};
    std::map<int, rlimit> limits;
};

std::map<std::string, std::string> environmentNow() {
    std::map<std::string, std::string> variables;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string pair = *entry;
        const size_t equals = pair.find('=');
        if (equals != std::string::npos)
            variables[pair.substr(0, equals)] = pair.substr(equals + 1);
    }
    return variables;
}

ProcessState stateNow() {
    ProcessState state;
    state.environment = environmentNow();
    state.mask = umask(0);
    umask(state.mask);
    for (int number = 1; number < NSIG; ++number)
        if (struct sigaction handler; sigaction(number, nullptr, &handler) == 0)
            state.handlers[number] = handler;
    pthread_sigmask(SIG_SETMASK, nullptr, &state.blocked);
    for (const int which : RESTORED_LIMITS)
        getrlimit(static_cast<__rlimit_resource>(which), &state.limits[which]);
    return state;
}

void restore(const ProcessState &state) {
    for (const auto &[name, value] : environmentNow())
        if (state.environment.count(name) == 0)
            unsetenv(name.c_str());
    for (const auto &[name, value] : state.environment)
        setenv(name.c_str(), value.c_str(), 1);
    tzset();
    uselocale(LC_GLOBAL_LOCALE);
    std::setlocale(LC_ALL, "C");
    umask(state.mask);
    for (const auto &[number, handler] : state.handlers)
        sigaction(number, &handler, nullptr);
    pthread_sigmask(SIG_SETMASK, &state.blocked, nullptr);
    for (const auto &[which, limit] : state.limits)
        setrlimit(static_cast<__rlimit_resource>(which), &limit);
}

// Removes a tree, directories that nobody may enter included.
void removeTree(const std::string &path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
    if (!std::filesystem::exists(path, ignored))
        return;
    const auto open = [&](const std::filesystem::path &dir) {
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
    };
    open(path);
    for (auto entry = std::filesystem::recursive_directory_iterator(path, ignored);
         entry != std::filesystem::recursive_directory_iterator(); entry.increment(ignored))
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored))
            open(entry->path());
    std::filesystem::remove_all(path, ignored);
}

class OwnPlaceForEachCase : public testing::EmptyTestEventListener {
  public:
    explicit OwnPlaceForEachCase(std::string programDir) : base(std::move(programDir)), state(stateNow()) {}

    void OnTestStart(const testing::TestInfo &) override {
        place = base + "/" + std::to_string(++cases);
        if (mkdir(place.c_str(), 0700) != 0 || chdir(place.c_str()) != 0) {
            std::perror(place.c_str());
            std::abort();
        }
        support::prepareCase();
    }
    void OnTestEnd(const testing::TestInfo &) override {
        restore(state);
        if (chdir(base.c_str()) != 0)
            std::abort();
        removeTree(place);
    }

  private:
    const std::string base;
    const ProcessState state;
    std::string place;
    int cases = 0;
};

} // namespace

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
    // Another user than the one who runs the tests gets through to the case's directory.
    if (mkdtemp(dir.data()) == nullptr || chmod(dir.c_str(), 0711) != 0 || chdir(dir.c_str()) != 0) {
        std::perror(dir.c_str());
        return 1;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new OwnPlaceForEachCase(dir));
    const int failed = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    removeTree(dir);
    return failed;
}
