// SPDX-License-Identifier: Apache-2.0
// What qdul.hpp adds to the C calls: calls of both in turns, so that they meet the machine in
// the same state; the counters are the medians of a call and their ratio, which is to be 1.05
// or less. A filtered message is compared by its mean, since one is shorter than the clock.
#include "qdul.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

constexpr int TURNS = 200;
constexpr int CALLS = 200; // of a turn
constexpr int FILTERED = 20000;
constexpr uint64_t PRODUCT = 5;
constexpr char FORMAT[] = "request %d of %s took longer than was expected and will be tried once more";
constexpr char TEXT[] = "request of storage took longer than was expected and will be tried once more";

// A configuration and log files that go with the scope.
struct Place {
    Place() {
        char name[] = "/tmp/hpp_bench.XXXXXX";
        if (mkdtemp(name) == nullptr)
            std::abort();
        directory = name;
        std::ofstream(directory + "/main.conf") << "5.Configuration=" << directory << "/product.conf\n";
        std::ofstream(directory + "/product.conf") << "Default.LogDirectory=" << directory << "/log/\n";
        setenv("ZOLTLOG_CFG_LOC", (directory + "/main.conf").c_str(), 1);
    }
    ~Place() { std::filesystem::remove_all(directory); }
    std::string directory;
};

Place &place() { // the place is read once per process
    static Place onlyOne;
    return onlyOne;
}

int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double median(std::vector<double> &values) {
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

template<typename Call>
void timeCalls(std::vector<double> &times, Call call) {
    for (int i = 0; i < CALLS; ++i) {
        const int64_t start = now();
        call(i);
        times.push_back(static_cast<double>(now() - start));
    }
}

template<typename Call>
void timeTogether(std::vector<double> &times, Call call) {
    const int64_t start = now();
    for (int i = 0; i < FILTERED; ++i)
        call(i);
    times.push_back(static_cast<double>(now() - start) / FILTERED);
}

void tell(benchmark::State &state, std::vector<double> &wrapped, std::vector<double> &plain) {
    state.counters["ns"] = median(wrapped);
    state.counters["ns of C"] = median(plain);
    state.counters["ratio"] = median(wrapped) / median(plain);
}

// The same text, in the same records: wrapped and plain write through one handle.
template<typename Wrapped, typename Plain>
void compare(benchmark::State &state, Wrapped wrapped, Plain plain) {
    (void)place();
    qdul::Log log(PRODUCT, 7);
    log.setWho("mgr");
    if (!log) {
        state.SkipWithError("the log cannot be opened");
        return;
    }
    for (auto _ : state) {
        std::vector<double> wrappedTimes;
        std::vector<double> plainTimes;
        for (int turn = 0; turn < TURNS; ++turn) {
            timeCalls(wrappedTimes, [&](int number) { wrapped(log, number); });
            timeCalls(plainTimes, [&](int number) { plain(log.native(), number); });
        }
        tell(state, wrappedTimes, plainTimes);
    }
}

void appf(benchmark::State &state) {
    compare(
        state,
        [](qdul::Log &log, int number) { log.appf(qdul::Severity::warning, FORMAT, number, "storage"); },
        [](LogHandle *handle, int number) {
            zoltLogAppMsgEx(handle, 0, ZOLTLOG_SEVERITY_WARNING, "mgr", 0, FORMAT, number, "storage");
        });
}
BENCHMARK(appf)->Iterations(1)->Repetitions(3);

void appOfAText(benchmark::State &state) {
    compare(
        state, [](qdul::Log &log, int) { log.app(qdul::Severity::warning, TEXT); },
        [](LogHandle *handle, int) {
            zoltLogAppMsgEx(handle, 0, ZOLTLOG_SEVERITY_WARNING, "mgr", 0, "%s", TEXT);
        });
}
BENCHMARK(appOfAText)->Iterations(1)->Repetitions(3);

void appOfATextAndFields(benchmark::State &state) {
    compare(
        state,
        [](qdul::Log &log, int number) {
            log.app(qdul::Severity::warning, TEXT, {{"number", number}, {"part", "storage"}});
        },
        [](LogHandle *handle, int number) {
            zoltLogAppMsgEx(handle, 0, ZOLTLOG_SEVERITY_WARNING, "mgr", 0, "%s number=%d part=%s", TEXT,
                            number, "storage");
        });
}
BENCHMARK(appOfATextAndFields)->Iterations(1)->Repetitions(3);

void filteredDebug(benchmark::State &state) {
    (void)place();
    qdul::Log log(PRODUCT, 7);
    LogHandle *handle = log.native();
    for (auto _ : state) {
        std::vector<double> wrappedTimes;
        std::vector<double> plainTimes;
        for (int turn = 0; turn < TURNS; ++turn) {
            timeTogether(wrappedTimes, [&](int number) { QDUL_DEBUGF(log, 3, FORMAT, number, "storage"); });
            timeTogether(plainTimes, [&](int number) {
                zoltLogDebugMsg(handle, 0, 3, "mgr", FORMAT, number, "storage");
            });
        }
        tell(state, wrappedTimes, plainTimes);
    }
}
BENCHMARK(filteredDebug)->Iterations(1)->Repetitions(3);

} // namespace

BENCHMARK_MAIN();
