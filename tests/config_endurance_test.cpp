// SPDX-License-Identifier: Apache-2.0
// Writers of one configuration file beside each other for a long time, and writers killed at
// random moments; what ./dev check config runs. The environment tells how much:
//
//     CONFIG_SECONDS  each number of writers writes so long (1)
//     CONFIG_READS    and until so many files were read (1)
//     CONFIG_KILLS    writers killed (200)
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const uid_t NOBODY = 65534;
const unsigned MOST_WRITERS = 8;
const unsigned KEYS = 20; // of each writer, one section each

long setting(const char *name, long usual) {
    const char *text = getenv(name);
    return text != nullptr ? std::strtol(text, nullptr, 10) : usual;
}

// ---- what the processes share ----------------------------------------------------------------

struct Writer {
    uint32_t done, refused, lost;
    uint32_t last[KEYS]; // put there by a change that returned 0; 0: none
    double longest;      // seconds of one change
};

struct Shared {
    std::atomic<bool> stop;
    std::atomic<uint32_t> begun, done; // of the writer that is to be killed
    Writer writers[MOST_WRITERS];
};

Shared *newShared() {
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? new (memory) Shared{} : nullptr;
}

// ---- one change -----------------------------------------------------------------------------------

enum Kind : unsigned { BY_RECORD, BY_SET, BY_STORE, BY_APPLY, KINDS };

bool withoutLocks; // for the tools, too

pid_t startTool(std::vector<std::string> words) {
    words.insert(words.begin(), {support::buildDirectory() + "/bin/qdlogcfg", "--config", "main.conf"});
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::string preload = "LD_PRELOAD=" + support::buildDirectory() + "/tests/plugins/libfailing_calls.so";
    std::string failing = "FAILING_CALLS=locks";
    std::vector<char *> environment;
    for (char **entry = environ; *entry != nullptr; ++entry)
        environment.push_back(*entry);
    if (withoutLocks)
        environment.insert(environment.end(), {preload.data(), failing.data()});
    environment.push_back(nullptr);
    pid_t child = 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "tool.err", O_WRONLY | O_CREAT | O_APPEND, 0666);
    const int failed =
        posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0 ? child : -1;
}

bool succeeds(pid_t child) {
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

std::string lineOf(uint64_t id, uint32_t value) {
    return std::to_string(id) + ".MaxLogFileSizeKB=" + std::to_string(value) + "\n";
}

bool change(Kind kind, uint64_t id, uint32_t value) {
    const std::string section = std::to_string(id);
    switch (kind) {
    case BY_RECORD: {
        LogCfg cfg;
        InitLogCfg(5, id, nullptr, &cfg);
        zoltLogCfgSetMaxFileSize(&cfg, value);
        const uint32_t result = zoltLogWriteCfg(5, id, &cfg);
        zoltLogFreeCfg(&cfg);
        return result == ZOLTLOG_OK;
    }
    case BY_STORE: {
        PropertyStore store;
        const unsigned long number = value;
        if (utiOpenPropertyStore("./p.conf", section.c_str(), &store) != ZOLTLOG_STORE_OK)
            return false;
        const uint32_t result = utiSetPropertyAsUlong(&store, "MaxLogFileSizeKB", &number);
        utiClosePropertyStore(&store);
        return result == ZOLTLOG_STORE_OK;
    }
    case BY_SET:
        return succeeds(
            startTool({"set", "-P", "5", "-u", section, "MaxLogFileSizeKB=" + std::to_string(value)}));
    default: {
        const std::string list = "lists/" + section;
        support::writeFile(list, lineOf(id, value));
        return succeeds(startTool({"apply", "-P", "5", list}));
    }
    }
}

// ---- writers and a reader ---------------------------------------------------------------------------

uint64_t idOf(unsigned writer, uint32_t value) {
    return 1000 * (writer + 1) + value % KEYS;
}

uint32_t valueInFile(uint64_t id) {
    char *text = nullptr;
    if (GetPropertyString("./p.conf", std::to_string(id).c_str(), "MaxLogFileSizeKB", &text) != ZOLTLOG_OK)
        return 0;
    const auto value = static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
    zoltLogFree(text);
    return value;
}

void writeOn(Shared *shared, unsigned number) {
    Writer *writer = &shared->writers[number];
    const Kind kind = static_cast<Kind>(number % KINDS);
    for (uint32_t value = 1; !shared->stop; ++value) {
        const uint64_t id = idOf(number, value);
        uint32_t *last = &writer->last[value % KEYS];
        if (valueInFile(id) != *last)
            ++writer->lost;
        const Clock::time_point start = Clock::now();
        if (change(kind, id, value)) {
            *last = value;
            ++writer->done;
        } else {
            ++writer->refused;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        writer->longest = std::max(writer->longest, seconds);
    }
}

std::string filling() {
    std::string text = "# first\n";
    for (int i = 0; i < 100; ++i)
        text += "Default.filling" + std::to_string(i) + "=some text\n";
    return text;
}

// Whether the file that opens now begins with the filling and goes on with whole lines, no
// fewer of them than before. Counts them.
bool isWhole(const std::string &begin, size_t *lines) {
    static char bytes[1 << 20];
    const int file = open("./p.conf", O_RDONLY | O_CLOEXEC);
    size_t size = 0;
    for (ssize_t count = 1; count > 0; size += count > 0 ? static_cast<size_t>(count) : 0)
        count = read(file, bytes + size, sizeof bytes - size);
    close(file);
    if (size < begin.size() || memcmp(bytes, begin.data(), begin.size()) != 0 || bytes[size - 1] != '\n')
        return false;
    size_t now = 0;
    for (const char *at = bytes + begin.size(); at < bytes + size; ++now) {
        const auto *feed =
            static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(bytes + size - at)));
        const auto *dot = static_cast<const char *>(memchr(at, '.', static_cast<size_t>(feed - at)));
        const auto *equals = static_cast<const char *>(memchr(at, '=', static_cast<size_t>(feed - at)));
        if (*at < '1' || *at > '9' || dot == nullptr || equals == nullptr || dot > equals ||
            equals + 1 == feed)
            return false;
        at = feed + 1;
    }
    if (now < *lines)
        return false;
    *lines = now;
    return true;
}

// How the directory is for those who write.
enum Place { LOCKABLE, NOT_LOCKABLE, HELD };

void becomeNobody() {
    if (geteuid() == 0 && (setresgid(NOBODY, NOBODY, NOBODY) != 0 || setresuid(NOBODY, NOBODY, NOBODY) != 0))
        _exit(126);
}

void prepare(Place place) {
    support::writeFile("main.conf", "5.Configuration=./p.conf\n");
    support::writeFile("p.conf", filling());
    support::writeFile("tool.err", "");
    support::makeDirectory("lists");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    chmod("lists", 0777);
    chmod("tool.err", 0666);
    chmod("main.conf", 0644);
    chmod(".", place == NOT_LOCKABLE ? 0733 : 0755);
    if (place == NOT_LOCKABLE && geteuid() == 0) {
        EXPECT_EQ(chown("p.conf", NOBODY, NOBODY), 0);
    }
    withoutLocks = place == NOT_LOCKABLE;
    libc::fcntl.hook = [](int descriptor, int command, void *argument) {
        if (!withoutLocks || command != F_OFD_SETLK)
            return libc::fcntl.real(descriptor, command, argument);
        errno = ENOLCK;
        return -1;
    };
}

// Somebody who may read only, and locks all that he can.
pid_t startHolder() {
    const pid_t child = fork();
    if (child != 0)
        return child;
    becomeNobody();
    const int directory = open(".", O_RDONLY | O_DIRECTORY);
    bool held = flock(directory, LOCK_EX) == 0;
    for (;;) { // the file is another one after each change
        const int file = open("./p.conf", O_RDONLY);
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        held = flock(file, LOCK_EX) == 0 && held;
        (void)fcntl(file, F_OFD_SETLK, &lock); // a file that has just taken the name is still locked
        if (!held)
            _exit(1);
        usleep(1000);
        close(file);
    }
}

void writeTogether(unsigned writers, Place place, const char *said) {
    Shared *shared = newShared();
    ASSERT_NE(shared, nullptr);
    prepare(place);
    const pid_t holder = place == HELD ? startHolder() : 0;
    std::vector<pid_t> children;
    for (unsigned number = 0; number < writers; ++number) {
        const pid_t child = fork();
        if (child == 0) {
            if (place == NOT_LOCKABLE)
                becomeNobody();
            writeOn(shared, number);
            _exit(0);
        }
        children.push_back(child);
    }
    const std::string begin = filling();
    const auto wanted = static_cast<size_t>(setting("CONFIG_READS", 1));
    const auto end = Clock::now() + std::chrono::seconds(setting("CONFIG_SECONDS", 1));
    size_t reads = 0;
    size_t torn = 0;
    size_t lines = 0;
    while (Clock::now() < end || reads < wanted) {
        torn += isWhole(begin, &lines) ? 0 : 1;
        ++reads;
    }
    shared->stop = true;
    for (const pid_t child : children)
        EXPECT_TRUE(succeeds(child));
    if (holder != 0) {
        int status = 0;
        EXPECT_EQ(waitpid(holder, &status, WNOHANG), 0); // it held on to the end
        kill(holder, SIGKILL);
        waitpid(holder, &status, 0);
    }
    EXPECT_EQ(torn, 0U);
    uint32_t done = 0;
    uint32_t refused = 0;
    double longest = 0;
    const std::string bytes = "\n" + support::readFile("p.conf");
    for (unsigned number = 0; number < writers; ++number) {
        const Writer &writer = shared->writers[number];
        EXPECT_EQ(writer.lost, 0U) << "writer " << number;
        EXPECT_GT(writer.done, 0U) << "writer " << number;
        done += writer.done;
        refused += writer.refused;
        longest = std::max(longest, writer.longest);
        for (const uint32_t value : writer.last)
            EXPECT_TRUE(value == 0 ||
                        bytes.find("\n" + lineOf(idOf(number, value), value)) != std::string::npos);
    }
    std::printf("%u writers, %s: %zu reads, %zu torn; %u changes, %u refused; longest wait %.0f ms\n",
                writers, said, reads, torn, done, refused, longest * 1000);
    EXPECT_EQ(support::listFiles("."),
              (std::vector<std::string>{"lists", "main.conf", "p.conf", "tool.err"}));
    if (refused != 0)
        std::printf("%s", support::readFile("tool.err").c_str());
    munmap(shared, sizeof *shared);
}

void writeInNumbers(Place place, const char *said) {
    for (const unsigned writers : {2U, 4U, 8U})
        writeTogether(writers, place, said);
}

} // namespace

TEST(LongConfigEndurance, WritersLoseAndTearNothing) {
    writeInNumbers(LOCKABLE, "locks as usual");
}

TEST(LongConfigEndurance, WritersLoseAndTearNothingWhereNothingCanBeLocked) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the tools cannot be told so with this sanitizer";
#endif
    writeInNumbers(NOT_LOCKABLE, "no locks, directory not readable");
}

TEST(LongConfigEndurance, WritersLoseAndTearNothingWhileAnotherUserLocksWhatHeCan) {
    writeInNumbers(HELD, "locked by another user");
}

// ---- killed writers ----------------------------------------------------------------------------------

namespace {

const uint64_t KILLED_ID = 7;

pid_t startWriterToKill(Shared *shared, Kind kind) {
    const uint32_t value = shared->done + 1;
    if (kind == BY_SET) {
        shared->begun = value;
        return startTool({"set", "-P", "5", "-u", "7", "MaxLogFileSizeKB=" + std::to_string(value)});
    }
    const pid_t child = fork();
    if (child == 0) {
        for (uint32_t next = value;; ++next) {
            shared->begun = next;
            if (!change(kind, KILLED_ID, next))
                _exit(1);
            shared->done = next;
        }
    }
    return child;
}

} // namespace

TEST(LongConfigEndurance, KilledWritersLeaveTheOldOrTheNewFile) {
    Shared *shared = newShared();
    ASSERT_NE(shared, nullptr);
    prepare(LOCKABLE);
    ASSERT_TRUE(change(BY_RECORD, KILLED_ID, 1));
    shared->done = 1;
    const std::string begin = filling();
    const std::string end = "7.AppMsgLogging=ON\n";
    const auto contentOf = [&](uint32_t value) { return begin + lineOf(KILLED_ID, value) + end; };
    const long kills = setting("CONFIG_KILLS", 200);
    std::mt19937 random(1);
    long leftovers = 0;
    long changed = 0;
    for (long round = 0; round < kills; ++round) {
        const Kind kind = round % 5 == 4 ? BY_SET : round % 2 == 0 ? BY_RECORD : BY_STORE;
        const uint32_t before = shared->done;
        shared->begun = before;
        const pid_t child = startWriterToKill(shared, kind);
        ASSERT_GT(child, 0);
        while (shared->begun == before) // until it is at work
            sched_yield();
        usleep(static_cast<useconds_t>(random() % (kind == BY_SET ? 12000 : 4000)));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) || (kind == BY_SET && status == 0)) << status;
        const std::string now = support::readFile("p.conf");
        const bool isNew = now == contentOf(shared->begun);
        ASSERT_TRUE(isNew || now == contentOf(shared->done)) << round << "\n" << now.substr(begin.size());
        if (isNew)
            shared->done = shared->begun.load();
        changed += shared->done != before ? 1 : 0;
        const bool isLeft = support::exists("p.conf.tmp");
        std::vector<std::string> names = {"lists", "main.conf", "p.conf", "tool.err"};
        if (isLeft)
            names.insert(names.begin() + 3, "p.conf.tmp");
        ASSERT_EQ(support::listFiles("."), names);
        leftovers += isLeft ? 1 : 0;
        if (isLeft && round % 2 == 0) { // else the next one that is killed has to do with it
            ASSERT_TRUE(change(BY_RECORD, KILLED_ID, shared->done + 1));
            ++shared->done;
            ASSERT_FALSE(support::exists("p.conf.tmp"));
        }
    }
    std::printf("%ld writers killed: %ld left a file behind, %ld had changed something\n", kills, leftovers,
                changed);
    EXPECT_GT(leftovers, kills / 20);
    EXPECT_TRUE(change(BY_SET, KILLED_ID, shared->done + 1));
    EXPECT_EQ(support::readFile("p.conf"), contentOf(shared->done + 1));
    EXPECT_FALSE(support::exists("p.conf.tmp"));
    munmap(shared, sizeof *shared);
}
