// SPDX-License-Identifier: Apache-2.0
// Listing, choosing surplus files and rolling over with recycling in a directory of
// many files (100,000, or QDUL_BENCH_FILES), each against a bare loop of open, read
// and close over the same files in the same iteration. "ratio" is the median of the
// quotients of elapsed time, "cpu_ratio" of processor time; below 2 is the aim. Names that
// collide under HashString are measured against as many plain ones, with the same aim.
#include "zoltlog.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int SERIES = 1000;
constexpr int COLLIDING_BITS = 16;
constexpr int COLLIDING = 1 << COLLIDING_BITS;

int fileCount() {
    const char *text = getenv("QDUL_BENCH_FILES");
    return text != nullptr ? atoi(text) : 100000;
}

struct Cost {
    double wall; // seconds
    double cpu;  // seconds of this process, less disturbed by others
};

double cpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

Cost costOf(const std::function<void()> &body) {
    const auto start = Clock::now();
    const double cpu = cpuSeconds();
    body();
    return {std::chrono::duration<double>(Clock::now() - start).count(), cpuSeconds() - cpu};
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

[[noreturn]] void fail(const char *what, uint32_t result) {
    fprintf(stderr, "%s: %u\n", what, result);
    exit(1);
}

// One directory with a single series and one with a thousand of them, and the
// configuration of both; removed at the end.
struct Directories {
    std::string home;
    std::string one;       // product 1, originator 7
    std::string many;      // product 2, originators 1 to SERIES
    std::string sets;      // product 1, log set "web"
    std::string colliding; // product 3, originator 7: COLLIDING names of one HashString
    std::string plain;     // product 4, originator 7: as many others of that length

    Directories() {
        const char *parent = getenv("TMPDIR");
        home = std::string(parent != nullptr ? parent : "/tmp") + "/qdul-bench.XXXXXX";
        if (mkdtemp(home.data()) == nullptr)
            fail("mkdtemp", 1);
        one = home + "/one/";
        many = home + "/many/";
        sets = home + "/sets/";
        colliding = home + "/colliding/";
        plain = home + "/plain/";
        for (const std::string &directory : {one, many, sets, colliding, plain})
            std::filesystem::create_directories(directory);
        const int count = fileCount();
        for (int i = 0; i < count; ++i) {
            write(one, 1, 7, i, i);
            write(many, 2, 1 + i % SERIES, i / SERIES, i);
            writeSet(i);
        }
        for (int i = 0; i < COLLIDING; ++i) {
            std::string equal; // "Aa" and "BB" are one value of the hash
            for (int bit = 0; bit < COLLIDING_BITS; ++bit)
                equal += (i >> bit & 1) != 0 ? "Aa" : "BB";
            char number[2 * COLLIDING_BITS + 1];
            snprintf(number, sizeof number, "%0*d", 2 * COLLIDING_BITS, i);
            put(colliding + "3-7-" + equal + ".log", "$Header 65543,3,7,1709251200,0,bench\n");
            put(plain + "4-7-" + number + ".log", "$Header 65543,4,7,1709251200,0,bench\n");
        }
        setenv("ZOLTLOG_CFG_LOC", (home + "/main.conf").c_str(), 1);
        std::ofstream(home + "/main.conf")
            << "1.Configuration=" << home << "/one.conf\n1.Names=one\n2.Configuration=" << home
            << "/many.conf\n2.Names=many\n3.Configuration=" << home
            << "/colliding.conf\n4.Configuration=" << home << "/plain.conf\n";
        std::ofstream(home + "/colliding.conf") << "Default.LogDirectory=" << colliding << "\n";
        std::ofstream(home + "/plain.conf") << "Default.LogDirectory=" << plain << "\n";
        std::ofstream(home + "/one.conf")
            << "Default.LogDirectory=" << one
            << "\nDefault.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=1\n"
            << "Default.LogRecycle=true\nDefault.NumberOfLogFiles=" << count - 10
            << "\nLOGSET.Default.LogDirectory=" << sets << "\nLOGSET.Default.NumberOfLogFiles=" << count - 10
            << "\nLOGSET.web.DebugLevel=1\n";
        std::ofstream product(home + "/many.conf");
        product << "Default.LogDirectory=" << many
                << "\nDefault.NumberOfLogFiles=" << std::max(count / SERIES - 1, 1) << "\n";
        for (int i = 1; i <= SERIES; ++i)
            product << i << ".DebugLevel=1\n";
    }
    ~Directories() { std::filesystem::remove_all(home); }

    static void put(const std::string &path, const std::string &content) {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0660);
        if (file == -1 ||
            ::write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            fail("writing the files", 1);
        close(file);
    }
    static void write(const std::string &directory, int product, int originator, int counter, int created) {
        char name[128];
        snprintf(name, sizeof name, "%d-%d-1-240301-%010d.log", product, originator, counter);
        char header[128];
        snprintf(header, sizeof header, "$Header 65543,%d,%d,%d,0,bench\n", product, originator,
                 1709251200 + created);
        put(directory + name, header);
    }
    void writeSet(int number) {
        char name[128];
        snprintf(name, sizeof name, "1-web-24%02d%02d%02d%02d%02d.log", 1 + number / 2419200 % 12,
                 1 + number / 86400 % 28, number / 3600 % 24, number / 60 % 60, number % 60);
        put(sets + name, "$Header 65544,0,bench\n");
    }
};

Directories *directories = nullptr;

// What any reader of all headers of a directory has to do at least.
void bareLoop(const std::string &directory) {
    DIR *stream = opendir(directory.c_str());
    std::string path = directory;
    char buffer[4096];
    uint64_t bytes = 0;
    for (const dirent *entry = readdir(stream); entry != nullptr; entry = readdir(stream)) {
        if (entry->d_name[0] == '.')
            continue;
        path.resize(directory.size());
        path += entry->d_name;
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        bytes += static_cast<uint64_t>(read(file, buffer, sizeof buffer));
        close(file);
    }
    closedir(stream);
    benchmark::DoNotOptimize(bytes);
}

void freeEntries(LogListing *listing) {
    while (listing->files != nullptr) {
        LogFileEntry *next = listing->files->next;
        zoltLogFree(listing->files);
        listing->files = next;
    }
}

// Times the work and the bare loop over the same directory in turn.
void againstBareLoop(benchmark::State &state, const std::string &directory,
                     const std::function<void()> &work) {
    std::vector<double> ratios;
    std::vector<double> cpuRatios;
    bareLoop(directory);
    for (auto _ : state) {
        const Cost bare = costOf([&] { bareLoop(directory); });
        const Cost own = costOf(work);
        state.SetIterationTime(own.wall);
        ratios.push_back(own.wall / bare.wall);
        cpuRatios.push_back(own.cpu / bare.cpu);
    }
    state.counters["ratio"] = median(ratios);
    state.counters["cpu_ratio"] = median(cpuRatios);
    state.counters["files"] = fileCount();
}

void list(benchmark::State &state) {
    LogCfg cfg;
    if (zoltLogReadCfg(1, 7, &cfg) != 0)
        fail("zoltLogReadCfg", 6);
    LogCfg *cfgs = &cfg;
    againstBareLoop(state, directories->one, [&] {
        LogListing listing = {};
        const uint32_t result = GetLogFiles(&cfgs, 1, &listing);
        if (result != 0)
            fail("GetLogFiles", result);
        freeEntries(&listing);
    });
    zoltLogFreeCfg(&cfg);
}

Cost costOfListing(uint64_t product) {
    LogCfg cfg;
    if (zoltLogReadCfg(product, 7, &cfg) != 0)
        fail("zoltLogReadCfg", 6);
    LogCfg *cfgs = &cfg;
    const Cost cost = costOf([&] {
        LogListing listing = {};
        const uint32_t result = GetLogFiles(&cfgs, 1, &listing);
        if (result != 0)
            fail("GetLogFiles", result);
        freeEntries(&listing);
    });
    zoltLogFreeCfg(&cfg);
    return cost;
}

void listCollidingNames(benchmark::State &state) {
    std::vector<double> ratios;
    std::vector<double> cpuRatios;
    (void)costOfListing(4);
    for (auto _ : state) {
        const Cost plain = costOfListing(4);
        const Cost own = costOfListing(3);
        state.SetIterationTime(own.wall);
        ratios.push_back(own.wall / plain.wall);
        cpuRatios.push_back(own.cpu / plain.cpu);
    }
    state.counters["ratio"] = median(ratios);
    state.counters["cpu_ratio"] = median(cpuRatios);
    state.counters["files"] = COLLIDING;
}

void surplusOfOneSeries(benchmark::State &state) {
    againstBareLoop(state, directories->one, [] {
        LogListing listing;
        const uint32_t result = zoltLogGetManageableLogFiles(1, 7, &listing);
        if (result != 0)
            fail("zoltLogGetManageableLogFiles", result);
        freeEntries(&listing);
    });
}

void surplusOfALogSet(benchmark::State &state) {
    againstBareLoop(state, directories->sets, [] {
        LogListing listing;
        const uint32_t result = zoltLogGetManageableLogFilesSL(1, "web", &listing);
        if (result != 0)
            fail("zoltLogGetManageableLogFilesSL", result);
        freeEntries(&listing);
    });
}

void surplusOfAThousandSeries(benchmark::State &state) {
    againstBareLoop(state, directories->many, [] {
        LogListing listing;
        const uint32_t result = zoltLogGetManageableLogFiles(2, 0, &listing);
        if (result != 0)
            fail("zoltLogGetManageableLogFiles", result);
        freeEntries(&listing);
    });
}

// Each message fills a file: a new one is begun and one is removed.
void rolloverWithRecycling(benchmark::State &state) {
    LogHandle log = {};
    const uint32_t opened = zoltLogOpen(1, 7, &log);
    if (opened != 0)
        fail("zoltLogOpen", opened);
    const std::string text(1100, 'x');
    const auto logOne = [&] {
        const uint32_t result = zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_WARNING, 0, "%s", text.c_str());
        if (result != 0)
            fail("zoltLogAppMsg", result);
    };
    logOne(); // removes what is surplus already
    againstBareLoop(state, directories->one, logOne);
    zoltLogClose(&log);
}

} // namespace

BENCHMARK(list)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK(listCollidingNames)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK(surplusOfOneSeries)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK(surplusOfALogSet)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK(surplusOfAThousandSeries)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
BENCHMARK(rolloverWithRecycling)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Directories made;
    directories = &made;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
