// Reading the configuration out of large files, as a ratio to one bare pass over the same
// bytes (read in large parts, find each line feed) in the same run.
//
// The counter bare_passes is that ratio; the aims are 3 for one originator and 20 for all
// records.
#include "zoltlog.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const unsigned ORIGINATORS = 10000;
const unsigned LINES_EACH = 10;
const uint32_t RECORDS = 1024;

std::string productFile() {
    static const char *const keys[LINES_EACH] = {
        "OIDNames=component %u,c%u", "DebugLevel=3",          "DiagnosticLevel=4",   "RolloverMode=FileSize",
        "MaxLogFileSizeKB=512",      "NumberOfLogFiles=9",    "LogDirectory=part%u", "AppMsgLogging=ON",
        "SyslogFacility=LOG_LOCAL3", "LogFilePermissions=640"};
    std::string bytes = "Default.LogDirectory=/var/log/product\nDefault.DebugLevel=1\n";
    for (unsigned id = 1; id <= ORIGINATORS; ++id) {
        for (const char *key : keys) {
            char line[128];
            std::snprintf(line, sizeof line, key, id, id);
            bytes += std::to_string(id) + "." + line + "\n";
        }
    }
    return bytes;
}

void put(const char *path, const std::string &bytes) {
    FILE *file = std::fopen(path, "w");
    if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        std::fclose(file) != 0) {
        std::perror(path);
        std::exit(1);
    }
}

char directory[] = "/tmp/qdul-config-bench.XXXXXX";

void removeFiles() {
    (void)unlink("product.conf");
    (void)unlink("main.conf");
    if (chdir("/") == 0)
        (void)rmdir(directory);
}

// The files of the run, made once.
void makeFiles() {
    static bool made = false;
    if (made)
        return;
    made = true;
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0)
        std::exit(1);
    put("product.conf", productFile());
    put("main.conf", "5.Configuration=product.conf\n5.Names=five\n");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    std::atexit(removeFiles);
}

size_t barePass() {
    static char buffer[65536];
    const int file = open("product.conf", O_RDONLY | O_CLOEXEC);
    size_t lines = 0;
    ssize_t count = 0;
    while ((count = read(file, buffer, sizeof buffer)) > 0) {
        const char *at = buffer;
        const char *end = buffer + count;
        while ((at = static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(end - at)))) != nullptr) {
            ++lines;
            ++at;
        }
    }
    close(file);
    return lines;
}

// Processor time, so that a busy machine does not decide the ratio.
double now() {
    struct timespec spent = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) * 1e-9;
}

template<typename F>
double seconds(F work) {
    const double start = now();
    work();
    return now() - start;
}

// Runs the work and the bare pass in turns; the ratio of their medians becomes the counter.
template<typename F>
void compare(benchmark::State &state, F work) {
    makeFiles();
    std::vector<double> ours, bare;
    for (auto _ : state) {
        bare.push_back(seconds([] { benchmark::DoNotOptimize(barePass()); }));
        ours.push_back(seconds(work));
        state.SetIterationTime(ours.back());
    }
    std::sort(ours.begin(), ours.end());
    std::sort(bare.begin(), bare.end());
    state.counters["bare_passes"] = ours[ours.size() / 2] / bare[bare.size() / 2];
    state.counters["bare_us"] = bare[bare.size() / 2] * 1e6;
}

void oneOriginator(benchmark::State &state) {
    const auto id = static_cast<uint64_t>(state.range(0));
    compare(state, [id] {
        LogCfg cfg;
        if (zoltLogReadCfg(5, id, &cfg) != ZOLTLOG_OK || cfg.maxFileSizeKB != 512)
            std::abort();
        zoltLogFreeCfg(&cfg);
    });
}
BENCHMARK(oneOriginator)->Arg(1)->Arg(5000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void oneText(benchmark::State &state) {
    compare(state, [] {
        char *text = nullptr;
        if (GetPropertyString("product.conf", "10000", "OIDNames", &text) != ZOLTLOG_OK)
            std::abort();
        zoltLogFree(text);
    });
}
BENCHMARK(oneText)->UseManualTime()->Unit(benchmark::kMicrosecond);

void allRecords(benchmark::State &state) {
    const auto capacity = static_cast<uint32_t>(state.range(0));
    std::vector<LogCfg *> cfgs(capacity);
    compare(state, [&cfgs, capacity] {
        uint32_t count = 0;
        if (zoltLogReadProdIDCfg(nullptr, 5, capacity, cfgs.data(), &count) != ZOLTLOG_OK ||
            count != std::min(capacity, ORIGINATORS)) // 112 is the default one
            std::abort();
        for (uint32_t i = 0; i < count; ++i) {
            zoltLogFreeCfg(cfgs[i]);
            zoltLogFree(cfgs[i]);
        }
    });
}
BENCHMARK(allRecords)->Arg(RECORDS)->Arg(20000)->UseManualTime()->Unit(benchmark::kMicrosecond);

// One change of the file: every line copied, the disk written to.
void oneChange(benchmark::State &state) {
    unsigned long value = 0;
    compare(state, [&value] {
        PropertyStore store;
        value = value % 6 + 1;
        if (utiOpenPropertyStore("product.conf", "9999", &store) != 0 ||
            utiSetPropertyAsUlong(&store, "DebugLevel", &value) != 0)
            std::abort();
        utiClosePropertyStore(&store);
    });
}
BENCHMARK(oneChange)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
