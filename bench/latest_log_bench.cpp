// SPDX-License-Identifier: Apache-2.0
// The search for the latest file in a directory of 100,000 files, against a bare
// readdir loop over the same directory. The counter "ratio" is search / loop.
#include "zoltlog.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

namespace {

const int FILES = 100000;

} // namespace

// Directories of the bench, removed at its end.
struct Directories {
    Directories() {
        const char *parent = getenv("TMPDIR");
        path = std::string(parent != nullptr ? parent : "/tmp") + "/qdul-bench.XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            std::abort();
    }
    ~Directories() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Directories(const Directories &) = delete;
    Directories &operator=(const Directories &) = delete;

    std::string path;
};

namespace {

std::string makeDirectory(const char *name) {
    static const Directories directories;
    std::string path = directories.path + "/" + name;
    std::filesystem::create_directory(path);
    return path + "/";
}

void makeFile(const std::string &path) {
    const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (file == -1)
        std::abort();
    close(file);
}

// Files of product 5 with dates over three years; every one of originator 7 when own.
std::string originatorFiles(bool own) {
    std::string path = makeDirectory(own ? "own" : "mixed");
    const unsigned long host = osGetHostID();
    std::mt19937 random(1);
    for (int i = 0; i < FILES; ++i) {
        char name[128];
        const unsigned day = static_cast<unsigned>(random()) % 1008;
        snprintf(name, sizeof name, "5-%d-%lu-%02u%02u%02u-%010d.log", own || i % 10 == 0 ? 7 : 8 + i % 10,
                 host, 22 + day / 336, 1 + day % 336 / 28, 1 + day % 28, i);
        makeFile(path + name);
    }
    return path;
}

std::string logSetFiles() {
    std::string path = makeDirectory("set");
    std::mt19937 random(1);
    for (int i = 0; i < FILES; ++i) {
        char name[128];
        const unsigned day = static_cast<unsigned>(random()) % 1008;
        snprintf(name, sizeof name, "5-backup-%02u%02u%02u%02u%02u%02u.log", 22 + day / 336,
                 1 + day % 336 / 28, 1 + day % 28, static_cast<unsigned>(i / 3600 % 24),
                 static_cast<unsigned>(i / 60 % 60), static_cast<unsigned>(i % 60));
        makeFile(path + name);
    }
    return path;
}

size_t bareLoop(const std::string &path) {
    size_t length = 0;
    DIR *directory = opendir(path.c_str());
    while (const struct dirent *entry = readdir(directory))
        length += static_cast<unsigned char>(entry->d_name[0]);
    closedir(directory);
    return length;
}

template<typename Search>
void measure(benchmark::State &state, const std::string &path, Search search) {
    using Clock = std::chrono::steady_clock;
    Clock::duration searched{};
    Clock::duration looped{};
    bareLoop(path); // warm
    for (auto ignored : state) {
        (void)ignored;
        const auto start = Clock::now();
        LogFileEntry *entry = nullptr;
        if (search(path.c_str(), &entry) != 1) {
            state.SkipWithError("no latest file");
            return;
        }
        zoltLogFree(entry);
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(bareLoop(path));
        looped += Clock::now() - middle;
        searched += middle - start;
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
    }
    state.counters["ratio"] = static_cast<double>(searched.count()) / static_cast<double>(looped.count());
    state.counters["loop_ms"] =
        std::chrono::duration<double, std::milli>(looped).count() / static_cast<double>(state.iterations());
}

int searchOriginator(const char *path, LogFileEntry **entry) {
    return zoltLogFindLatestLog(path, 5, 7, 0, 0, entry);
}

void latestOfOneSeries(benchmark::State &state) {
    static const std::string path = originatorFiles(true);
    measure(state, path, searchOriginator);
}

} // namespace

BENCHMARK(latestOfOneSeries)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1);

namespace {

void latestAmongOtherSeries(benchmark::State &state) {
    static const std::string path = originatorFiles(false);
    measure(state, path, searchOriginator);
}

} // namespace

BENCHMARK(latestAmongOtherSeries)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1);

namespace {

void latestOfALogSet(benchmark::State &state) {
    static const std::string path = logSetFiles();
    measure(state, path, [](const char *directory, LogFileEntry **entry) {
        return zoltLogFindLatestLogSL(directory, 5, "backup", 0, 0, entry);
    });
}

} // namespace

BENCHMARK(latestOfALogSet)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1);

BENCHMARK_MAIN();
