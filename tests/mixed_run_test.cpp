// SPDX-License-Identifier: Apache-2.0
// Everything at once, with a clock that is a hundred times as fast, so that files are opened
// anew, configurations looked at and log sets given new names all the time: processes with
// threads open, send, make contexts, fork and close, while their directory is moved, their files
// are removed, renamed, replaced by links and cut, the configuration is rewritten and moved
// away, descriptors run out and a disk fills up. In the end each message that was accepted has
// to be in one file once, also in those that recycling removed, and none that was refused.
//
// MIXED_SECONDS is how long the Long test runs (10).
//
// The clock of dates (time, gettimeofday) is the fast one. That of files' times, by which
// recyclers tell idle files, is the system's, and so is what they compare it with.
//
//   Shared        what the processes know of the messages
//   Workers       processes with threads
//   Collector     counts what was recycled
//   Disturber     what others do to files and configuration
//   The run
#include "common/record.h"
#include "support/results.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int CLOCK_FACTOR = 100;
constexpr uint64_t PRODUCT = 5;
constexpr int PROCESSES = 2;
constexpr int THREADS = 4;

enum Series : uint8_t {
    RECYCLED,  // as fast as can be, keeps five files
    DISTURBED, // whose files others move, remove and replace
    LOGSET,    // recycled
    CUT,       // whose files others cut: records go
    SMALL,     // on a disk that fills up, recycled
    SERIES_COUNT
};
constexpr uint64_t ORIGINATORS[SERIES_COUNT] = {7, 8, 7, 9, 10};
const char *const DIRECTORIES[SERIES_COUNT] = {"recycled", "disturbed", "sets", "cut", "small"};

// ---- shared ------------------------------------------------------------------------------------

constexpr uint64_t MOST_MESSAGES = uint64_t{1} << 28;
constexpr uint8_t ACCEPTED = 0x10; // and the series
constexpr uint8_t REFUSED = 0x20;
constexpr uint8_t FILTERED = 0x40; // or not: its level is changed meanwhile

struct Shared {
    std::atomic<bool> stop;
    std::atomic<bool> collected; // all that was recycled is counted
    std::atomic<bool> full;      // there was a full disk
    std::atomic<uint64_t> next;  // message id
    std::atomic<uint64_t> opens, refusedOpens, contexts, forks, recycledFiles, shortages;
    std::atomic<uint32_t> unexpected; // a result that is not listed
    std::atomic<int> unexpectedCall;
    std::atomic<uint8_t> state[MOST_MESSAGES];
    std::atomic<uint8_t> seen[MOST_MESSAGES];
};
Shared *shared;

timespec startTime;

int64_t fastMicroseconds() {
    timespec now = {};
    (void)libc::clock_gettime.real(CLOCK_REALTIME, &now);
    const int64_t passed =
        (now.tv_sec - startTime.tv_sec) * 1000000 + (now.tv_nsec - startTime.tv_nsec) / 1000;
    return startTime.tv_sec * 1000000 + passed * CLOCK_FACTOR;
}

void useFastClock() {
    (void)libc::clock_gettime.real(CLOCK_REALTIME, &startTime);
    libc::time.hook = [](time_t *out) {
        const time_t now = fastMicroseconds() / 1000000;
        if (out != nullptr)
            *out = now;
        return now;
    };
    libc::gettimeofday.hook = [](timeval *out, void *) {
        const int64_t now = fastMicroseconds();
        *out = {now / 1000000, now % 1000000};
        return 0;
    };
}

// ---- workers -------------------------------------------------------------------------------------

enum Call { OPENED, SENT, CLOSED };

void expectListed(Call call, uint32_t result, std::initializer_list<uint32_t> listed) {
    if (std::find(listed.begin(), listed.end(), result) != listed.end())
        return;
    shared->unexpected = result;
    shared->unexpectedCall = call;
}

// A file that goes is copied first: recycling removes it when nobody writes to it any more.
int copyAside(const char *path) {
    static std::atomic<int> number;
    const std::string to = "aside/" + std::to_string(getpid()) + "-" + std::to_string(++number);
    if (strstr(path, ".log") != nullptr) {
        ++shared->recycledFiles;
        const int from = libc::open.real(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
        const int copy =
            libc::open.real((to + ".part").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        char bytes[65536];
        ssize_t count = 0;
        while (from >= 0 && (count = libc::read.real(from, bytes, sizeof bytes)) > 0)
            (void)!libc::write.real(copy, bytes, static_cast<size_t>(count));
        if (from >= 0)
            close(from);
        if (copy >= 0)
            close(copy);
        if (from < 0 || copy < 0) // without a descriptor it stays for the next time
            return errno = EACCES, -1;
    }
    const int result = libc::remove.real(path);
    (void)libc::rename.real((to + ".part").c_str(), (result == 0 ? to : to + ".kept").c_str());
    return result;
}

uint32_t send(LogHandle *log, Series series, int kind, std::mt19937 &chance) {
    static const std::string FILLING(300, 'x');
    const uint64_t id = shared->next++;
    if (id >= MOST_MESSAGES) {
        shared->stop = true;
        return ZOLTLOG_OK;
    }
    const int length = static_cast<int>(chance() % 60);
    const auto number = static_cast<unsigned long>(id);
    uint32_t result = 0;
    switch (kind) {
    case 0:
        result = zoltLogDebugMsg2(log, id, 0, 1, "who", "%lu %.*s", number, length, FILLING.c_str());
        break;
    case 1:
        result = zoltLogDiagMsg2(log, id, 0, 1, "who", 0, "%lu %.*s", number, length, FILLING.c_str());
        break;
    case 2:
        result = zoltLogAuditMsg2(log, id, 0, "subject", 0, 1001, "%lu", number);
        break;
    default:
        result = zoltLogAppMsg2(log, id, 0, 1, 0, "%lu %.*s", number, length, FILLING.c_str());
        break;
    }
    const bool mayBeFiltered = kind <= 1; // also while the configuration is away
    shared->state[id] = static_cast<uint8_t>((result == ZOLTLOG_OK ? ACCEPTED : REFUSED) | series |
                                             (mayBeFiltered ? FILTERED : 0));
    if (series == SMALL && result == ZOLTLOG_DEVICE_FULL)
        shared->full = true;
    if (series == SMALL || shared->full)
        expectListed(SENT, result, {ZOLTLOG_OK, ZOLTLOG_WRITE_FAILED, ZOLTLOG_DEVICE_FULL});
    else
        expectListed(SENT, result, {ZOLTLOG_OK, ZOLTLOG_WRITE_FAILED});
    return result;
}

void sendInChild(LogHandle *log, Series series, std::mt19937 &chance) {
    const pid_t child = fork();
    if (child == 0) {
        for (int message = 0; message < 3; ++message)
            (void)send(log, series, 3, chance);
        _exit(0);
    }
    if (child < 0)
        return;
    ++shared->forks;
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    if (status != 0) {
        shared->unexpected = static_cast<uint32_t>(status);
        shared->unexpectedCall = CLOSED;
    }
}

void useHandle(LogHandle *log, Series series, std::mt19937 &chance) {
    const int messages = series == RECYCLED ? 2000 : 40;
    for (int message = 0; message < messages && !shared->stop; ++message) {
        (void)send(log, series, static_cast<int>(chance() % 12), chance);
        if (series != RECYCLED && message % 8 == 0)
            usleep(1000);
    }
    if (chance() % 4 == 0)
        sendInChild(log, series, chance);
    if (chance() % 2 != 0)
        return;
    LogHandle context = {};
    ++shared->contexts;
    const uint32_t created = zoltLogCreateContext(log, &context, "request", 0, "unit of work");
    for (int message = 0; message < 5; ++message)
        (void)send(created == ZOLTLOG_OK ? &context : log, series, 3, chance);
    (void)zoltLogDestroyContext(&context);
}

void work(unsigned seed, bool hasSmallDisk) {
    std::mt19937 chance(seed);
    while (!shared->stop) {
        const unsigned dice = chance() % 16;
        const Series series = dice < 8       ? RECYCLED
                              : dice < 12    ? DISTURBED
                              : dice < 14    ? LOGSET
                              : dice < 15    ? CUT
                              : hasSmallDisk ? SMALL
                                             : DISTURBED;
        LogHandle log = {};
        const uint32_t opened = series == LOGSET
                                    ? zoltLogOpenLogSet(PRODUCT, ORIGINATORS[series], "night", &log)
                                    : zoltLogOpen(PRODUCT, ORIGINATORS[series], &log);
        ++shared->opens;
        shared->refusedOpens += opened != ZOLTLOG_OK ? 1 : 0;
        expectListed(OPENED, opened,
                     {ZOLTLOG_OK, ZOLTLOG_FAILED, ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_OPEN_FAILED,
                      ZOLTLOG_OPEN_NO_PATH, ZOLTLOG_NO_DIRECTORY});
        if (opened == ZOLTLOG_OK)
            useHandle(&log, series, chance);
        else
            usleep(1000);
        if (zoltLogClose(&log) != ZOLTLOG_OK && opened == ZOLTLOG_OK)
            shared->unexpectedCall = CLOSED;
    }
}

// Leaves the process without a free descriptor for some milliseconds.
void takeDescriptors() {
    rlimit old = {};
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit none = old;
    none.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &none);
    ++shared->shortages;
    usleep(3000);
    setrlimit(RLIMIT_NOFILE, &old);
}

[[noreturn]] void runWorker(int process, bool hasSmallDisk) {
    libc::remove.hook = copyAside;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int thread = 0; thread < THREADS; ++thread)
        threads.emplace_back(work, static_cast<unsigned>(process * THREADS + thread + 1), hasSmallDisk);
    while (!shared->stop) {
        usleep(150000);
        takeDescriptors();
    }
    for (std::thread &thread : threads)
        thread.join();
    exit(0); // with the sanitizers' reports
}

// ---- counting ----------------------------------------------------------------------------------------

struct Counted {
    uint64_t files = 0;
    uint64_t records = 0;
    uint64_t broken = 0;  // lines that are none
    uint64_t headers = 0; // beyond the first line
    std::string example;
};

// A file in one read, since a run counts gigabytes.
std::string bytesOf(const std::string &path) {
    std::string bytes;
    const int file = libc::open.real(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    struct stat status = {};
    if (file >= 0 && fstat(file, &status) == 0)
        bytes.resize(static_cast<size_t>(status.st_size));
    size_t got = 0;
    for (ssize_t count = 1; file >= 0 && got < bytes.size() && count > 0; got += static_cast<size_t>(count)) {
        count = libc::read.real(file, &bytes[got], bytes.size() - got);
        if (count < 0)
            break;
    }
    EXPECT_EQ(bytes.size(), got) << path;
    if (file >= 0)
        close(file);
    return bytes;
}

void countRecord(const tools::Record &record, Counted *counted) {
    ++counted->records;
    if (record.type == ZOLTLOG_MSG_CONTEXT)
        return;
    if (record.messageId < shared->next) {
        if (shared->seen[record.messageId] < 255)
            ++shared->seen[record.messageId];
    } else {
        counted->example = "an unknown message: " + std::string(record.line.substr(0, 100));
    }
}

void countBytes(const std::string &bytes, const std::string &name, Counted *counted) {
    ++counted->files;
    std::string_view rest = bytes;
    tools::Header header;
    for (bool first = true; !rest.empty(); first = false) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.compare(0, 8, "$Header ") == 0) {
            counted->headers += first ? 0 : 1;
            (void)tools::parseHeader(line, header);
            continue;
        }
        tools::Record record;
        tools::Fault fault;
        size_t at = 0;
        if (tools::parseRecord(line, header.version, record, fault)) {
            countRecord(record, counted);
            continue;
        }
        ++counted->broken;
        if (counted->example.empty())
            counted->example = name + ": " + std::string(line.substr(0, 100));
        if (tools::salvageRecord(line, header.version, record, at))
            countRecord(record, counted);
    }
}

void countDirectory(const std::string &directory, Counted *counted) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory))
        if (entry.is_regular_file() && !entry.is_symlink())
            countBytes(bytesOf(entry.path().string()), entry.path().string(), counted);
}

// Counts what recycling removes, and removes it, until all workers have ended.
[[noreturn]] void collect() {
    Counted counted;
    for (bool last = false;;) {
        last = shared->collected;
        for (const std::string &name : support::listFiles("aside")) {
            const std::string path = "aside/" + name;
            if (name.find('.') != std::string::npos)
                continue; // not yet, or not removed
            countBytes(bytesOf(path), path, &counted);
            unlink(path.c_str());
        }
        if (last)
            break;
        usleep(20000);
    }
    if (counted.headers != 0 || !counted.example.empty())
        fprintf(stderr, "recycled files: %s, %lu headers too many\n", counted.example.c_str(),
                counted.headers);
    _exit(counted.headers == 0 && (counted.broken == 0 || shared->full) ? 0 : 1);
}

// ---- disturber ---------------------------------------------------------------------------------------

struct Disturbed {
    uint64_t moved = 0, removed = 0, renamed = 0, linked = 0, cut = 0, rewritten = 0, away = 0, filled = 0;
    std::vector<int> nameless; // files that were removed, still open here
    int number = 0;
};

constexpr size_t MOST_NAMELESS = 400;

std::string anyFile(const char *directory, std::mt19937 &chance) {
    std::vector<std::string> names;
    for (const std::string &name : support::listFiles(directory))
        if (name.find(".log") != std::string::npos)
            names.push_back(std::string(directory) + "/" + name);
    return names.empty() ? "" : names[chance() % names.size()];
}

bool isLink(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode);
}

void removeLinks() {
    for (const std::string &name : support::listFiles("disturbed"))
        if (isLink("disturbed/" + name))
            unlink(("disturbed/" + name).c_str());
}

void writeLevel(uint32_t level) {
    LogCfg cfg;
    (void)InitLogCfg(PRODUCT, ORIGINATORS[DISTURBED], nullptr, &cfg);
    (void)zoltLogCfgSetDebugLevel(&cfg, level);
    (void)zoltLogWriteCfg(PRODUCT, ORIGINATORS[DISTURBED], &cfg);
    zoltLogFreeCfg(&cfg);
}

void fillDisk(bool fill) {
    if (!fill) {
        unlink("small/filler");
        return;
    }
    const int file = open("small/filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(65536, 'f');
    for (size_t size = block.size(); file >= 0 && size > 0;)
        if (write(file, block.data(), size) != static_cast<ssize_t>(size))
            size /= 2;
    if (file >= 0)
        close(file);
}

void disturb(Disturbed *what, std::mt19937 &chance, bool hasSmallDisk) {
    const std::string aside = "moved/" + std::to_string(++what->number);
    const std::string file = anyFile("disturbed", chance);
    switch (chance() % 12) {
    case 0:
        if (rename("disturbed", aside.c_str()) == 0) {
            ++what->moved;
            mkdir("disturbed", 0755); // or a writer is faster
        }
        break;
    case 1:
    case 2:
        if (!file.empty() && !isLink(file) && what->nameless.size() < MOST_NAMELESS) {
            const int held = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
            if (held >= 0 && unlink(file.c_str()) == 0)
                ++what->removed;
            if (held >= 0)
                what->nameless.push_back(held);
        }
        break;
    case 3:
        if (!file.empty() && rename(file.c_str(), aside.c_str()) == 0)
            ++what->renamed;
        break;
    case 4:
        if (!file.empty() && !isLink(file) && rename(file.c_str(), aside.c_str()) == 0 &&
            symlink("../victim", file.c_str()) == 0)
            ++what->linked;
        break;
    case 5:
        removeLinks();
        break;
    case 6:
        if (const std::string cut = anyFile("cut", chance); !cut.empty() && truncate(cut.c_str(), 0) == 0)
            ++what->cut;
        break;
    case 7:
        writeLevel(chance() % 2 != 0 ? 0 : 6);
        ++what->rewritten;
        break;
    case 8:
        if (rename("five.conf", "five.away") == 0) {
            usleep(2000);
            ++what->away;
            if (rename("five.away", "five.conf") != 0)
                abort();
        }
        break;
    case 9:
        if (hasSmallDisk && chance() % 4 == 0) {
            fillDisk(true);
            usleep(30000);
            fillDisk(false);
            ++what->filled;
        }
        break;
    default:
        break;
    }
}

// ---- the run -------------------------------------------------------------------------------------------

void configure() {
    std::string text = "Default.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=64\nDefault.DebugLevel=6\n"
                       "Default.DiagnosticLevel=6\nDefault.DynaReloadInSec=60\n"
                       "LOGSET.Default.RolloverMode=FileSize\nLOGSET.Default.MaxLogFileSizeKB=64\n"
                       "LOGSET.Default.LogRecycle=true\nLOGSET.Default.NumberOfLogFiles=3\n"
                       "LOGSET.Default.DynaReloadInSec=60\nLOGSET.night.DebugLevel=6\n"
                       "LOGSET.night.DiagnosticLevel=6\n";
    const std::string here = std::filesystem::current_path().string() + "/";
    for (int series = 0; series < SERIES_COUNT; ++series) {
        const std::string section = series == LOGSET ? "LOGSET.Default" : std::to_string(ORIGINATORS[series]);
        text += section + ".LogDirectory=" + here + DIRECTORIES[series] + "/\n";
        support::makeDirectory(DIRECTORIES[series]);
    }
    text += "7.LogRecycle=true\n7.NumberOfLogFiles=5\n7.MaxLogFileSizeKB=512\n"
            "10.LogRecycle=true\n10.NumberOfLogFiles=4\n";
    support::writeFile("main.conf", "5.Configuration=" + here + "five.conf\n5.Names=five\n");
    support::writeFile("five.conf", text);
    support::writeFile("victim", "not to be touched\n");
    for (const char *directory : {"aside", "moved"})
        support::makeDirectory(directory);
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
}

// A disk of its own that may fill up, for root.
bool mountSmallDisk() {
    return geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "small", "tmpfs", 0, "size=2m") == 0;
}

void expectEnded(pid_t process) {
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0) << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "");
}

// Of each message: accepted, and there once; or refused, and not there.
void expectEachOnce(uint64_t (&accepted)[SERIES_COUNT], uint64_t *refused) {
    int told = 0;
    const auto expect = [&](bool holds, uint64_t id, const char *what) {
        if (!holds && ++told <= 20)
            ADD_FAILURE() << "message " << id << " of " << DIRECTORIES[shared->state[id] & 0xF] << " was "
                          << what << " and is there " << int{shared->seen[id]} << " times";
    };
    for (uint64_t id = 0; id < shared->next && id < MOST_MESSAGES; ++id) {
        const uint8_t state = shared->state[id];
        const int seen = shared->seen[id];
        const auto series = static_cast<Series>(state & 0xF);
        if ((state & REFUSED) != 0) {
            ++*refused;
            expect(seen == 0, id, "refused");
        } else if ((state & ACCEPTED) != 0) {
            ++accepted[series];
            expect(series == CUT || (state & FILTERED) != 0 ? seen <= 1 : seen == 1, id, "accepted");
        }
    }
}

void runMixed(double seconds) {
    configure();
    const bool hasSmallDisk = mountSmallDisk();
    useFastClock();
    shared = static_cast<Shared *>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(static_cast<void *>(shared), MAP_FAILED);
    std::vector<pid_t> workers;
    for (int process = 0; process < PROCESSES; ++process) {
        workers.push_back(fork());
        if (workers.back() == 0)
            runWorker(process, hasSmallDisk);
    }
    const pid_t collector = fork();
    if (collector == 0)
        collect();

    std::mt19937 chance(20240301); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    Disturbed what;
    timespec begun = {};
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &begun);
    do {
        disturb(&what, chance, hasSmallDisk);
        usleep(static_cast<useconds_t>(10000 + chance() % 20000));
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while (static_cast<double>(now.tv_sec - begun.tv_sec) +
                     static_cast<double>(now.tv_nsec - begun.tv_nsec) / 1e9 <
                 seconds &&
             !shared->stop);
    shared->stop = true;
    fillDisk(false);
    for (const pid_t worker : workers)
        expectEnded(worker);
    shared->collected = true;
    expectEnded(collector);

    Counted counted;
    Counted cut;
    for (const char *directory : {"recycled", "disturbed", "sets", "small", "moved"})
        countDirectory(directory, &counted);
    countDirectory("cut", &cut);
    for (const int file : what.nameless) {
        countBytes(bytesOf("/proc/self/fd/" + std::to_string(file)), "a removed file", &counted);
        close(file);
    }
    EXPECT_TRUE(counted.broken == 0 || shared->full) << counted.broken << " lines, " << counted.example;
    EXPECT_EQ(counted.headers, 0U) << "headers in the middle of files";
    EXPECT_EQ(cut.broken, 0U) << cut.example;
    EXPECT_EQ(shared->unexpected, 0U)
        << support::resultName(shared->unexpected) << " of call " << shared->unexpectedCall;
    EXPECT_EQ(support::readFile("victim"), "not to be touched\n");
    uint64_t accepted[SERIES_COUNT] = {};
    uint64_t refused = 0;
    expectEachOnce(accepted, &refused);
    uint64_t all = 0;
    for (const uint64_t one : accepted)
        all += one;
    EXPECT_GT(accepted[RECYCLED], 0U);
    EXPECT_GT(accepted[DISTURBED], 0U);
    printf(
        "%lu messages accepted (%lu of the disturbed series) and %lu refused, %lu opens (%lu refused), "
        "%lu contexts, %lu forks, %lu files recycled, %lu shortages of descriptors, %lu directories moved, "
        "%lu files removed, %lu renamed, %lu replaced by links, %lu cut, configuration %lu times rewritten "
        "and %lu away, disk %lu times full, no difference\n",
        all, accepted[DISTURBED], refused, shared->opens.load(), shared->refusedOpens.load(),
        shared->contexts.load(), shared->forks.load(), shared->recycledFiles.load(), shared->shortages.load(),
        what.moved, what.removed, what.renamed, what.linked, what.cut, what.rewritten, what.away,
        what.filled);
    munmap(shared, sizeof(Shared));
    if (hasSmallDisk)
        umount2("small", MNT_DETACH);
}

} // namespace

// The files belong to the case's process, and so do mounts.
TEST(MixedRun, EachMessageIsThereOnce) {
    if (support::inFreshProcess())
        runMixed(1);
}

TEST(LongMixedRun, EachMessageIsThereOnce) {
    if (!support::inFreshProcess())
        return;
    const char *text = getenv("MIXED_SECONDS");
    runMixed(text != nullptr ? strtod(text, nullptr) : 10);
}
