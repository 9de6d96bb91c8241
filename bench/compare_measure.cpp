// SPDX-License-Identifier: Apache-2.0
// Measuring for the side-by-side programs.
#include "compare.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <sched.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

Settings settings;
pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

int64_t now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * INT64_C(1000000000) + time.tv_nsec;
}

double median(std::vector<double> values) {
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// What the clock itself costs between two readings.
double clockCost() {
    std::vector<double> costs;
    for (int i = 0; i < 100000; ++i) {
        const int64_t start = now();
        costs.push_back(static_cast<double>(now() - start));
    }
    return median(costs);
}

std::string freshDirectory(const std::string &name) {
    std::string path = settings.directory + "/" + name;
    std::replace(path.begin(), path.end(), ' ', '_');
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
    return path;
}

// ---- the base loop ---------------------------------------------------------------------

int openLog(const std::string &directory) {
    return open((directory + "/limit.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0660);
}

void writeAll(int descriptor, const char *line, size_t length) {
    if (write(descriptor, line, length) != static_cast<ssize_t>(length))
        std::abort();
}

size_t makeLine(char (&line)[512], int number) {
    timeval time;
    gettimeofday(&time, nullptr);
    char text[256];
    const int length = std::snprintf(text, sizeof text, MESSAGE_FORMAT, number, MESSAGE_TEXT);
    return static_cast<size_t>(std::snprintf(
        line, sizeof line, "%lu,%lu,%lu,%lu,%lu,%lld,%lu,%lu,0:,%d:%s,3:mgr,1,(0|)\n", 2ul, 5ul, 7ul, 7ul,
        static_cast<unsigned long>(number), time.tv_sec * 1000ll + time.tv_usec / 1000, 4242ul,
        static_cast<unsigned long>(pthread_self()), length, text));
}

void baseLoop(int descriptor, int number) {
    char line[512];
    const size_t length = makeLine(line, number);
    struct stat status;
    fstat(descriptor, &status);
    writeAll(descriptor, line, length);
}

void lockedBaseLoop(int descriptor, int number) {
    pthread_mutex_lock(&mutex);
    int cancelState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    baseLoop(descriptor, number);
    pthread_setcancelstate(cancelState, nullptr);
    pthread_mutex_unlock(&mutex);
}

namespace {

// ---- measuring ---------------------------------------------------------------------------

// One thread is a thread beside the waiting main one too: a write costs more in a process
// of several threads, whoever writes.
double throughput(const Contender &contender, int threads) {
    const int each = 2 * settings.messages / threads;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            ++ready;
            while (!go)
                sched_yield();
            for (int i = 0; i < each; ++i)
                contender.log(i);
        });
    while (ready < threads)
        sched_yield();
    const int64_t start = now();
    go = true;
    for (std::thread &worker : workers)
        worker.join();
    return static_cast<double>(now() - start) / (static_cast<double>(each) * threads);
}

} // namespace

using Log = std::function<void(int number)>;

namespace {

double mean(const std::vector<double> &values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

void timeCalls(const Log &log, size_t count, double clock, std::vector<double> &calls) {
    for (size_t i = 0; i < count; ++i) {
        const int number = static_cast<int>(calls.size());
        const int64_t start = now();
        log(number);
        calls.push_back(static_cast<double>(now() - start) - clock);
    }
}

} // namespace

void measure(const Contender &contender, double clock, Figures &figures) {
    constexpr size_t TURN = 500; // calls; the first ones of a turn, which find the caches cold, are few
    const int base = openLog(freshDirectory("reference"));
    const Log logBase = [base](int number) { baseLoop(base, number); };
    const Contender lockedBase = {"", {}, [base](int number) { lockedBaseLoop(base, number); }, {}};
    contender.open(freshDirectory(contender.name));
    std::vector<double> calls;
    std::vector<double> baseCalls;
    timeCalls(contender.log, 1000, clock, calls); // to warm up
    timeCalls(logBase, 1000, clock, baseCalls);
    calls.clear();
    baseCalls.clear();
    while (calls.size() < static_cast<size_t>(settings.messages)) {
        timeCalls(contender.log, TURN, clock, calls);
        timeCalls(logBase, TURN, clock, baseCalls);
    }
    std::sort(calls.begin(), calls.end());
    std::sort(baseCalls.begin(), baseCalls.end());
    const size_t p50 = calls.size() / 2;
    const size_t p999 = calls.size() - calls.size() / 1000 - 1;
    figures.p50Ns.push_back(calls[p50]);
    figures.oneThread.push_back(mean(calls) / mean(baseCalls));
    figures.p50.push_back(calls[p50] / baseCalls[p50]);
    figures.p999.push_back(calls[p999] / baseCalls[p999]);
    const double lockedEight = throughput(lockedBase, 8);
    const double eight = throughput(contender, 8);
    figures.eightThreads.push_back(eight / lockedEight);
    figures.eightOverOneThread.push_back(eight / throughput(contender, 1));
    contender.close();
    close(base);
}

double rolloverCost(const Contender &rolling) {
    constexpr size_t ROLLOVERS = 40;
    const size_t perFile = ROLL_KILOBYTES * 1024 / BYTES_PER_MESSAGE;
    std::vector<double> calls(perFile * ROLLOVERS);
    rolling.open(freshDirectory("rollover"));
    for (size_t n = 0; n < (FILES_KEPT + 2) * perFile; ++n)
        rolling.log(static_cast<int>(n));
    for (size_t n = 0; n < calls.size(); ++n) {
        const int64_t start = now();
        rolling.log(static_cast<int>(n));
        calls[n] = static_cast<double>(now() - start);
    }
    rolling.close();
    std::sort(calls.begin(), calls.end());
    return calls[calls.size() - ROLLOVERS / 2] - calls[calls.size() / 2];
}
