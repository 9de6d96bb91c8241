// SPDX-License-Identifier: Apache-2.0
// What the configuration costs: reading and changing it through the library, and what the
// tool makes of it, each as a ratio to one bare pass over the same bytes (open, read in large
// parts, find each line feed) in the same run.
//
// Time is processor time, so that a busy machine does not decide; a tool's is that of its whole
// process. Counters: passes is the ratio, pass_ms what one bare pass took, MB the most memory
// that a tool held. The label tells the aim and whether it was met.
#include "zoltlog.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const unsigned ORIGINATORS = 10000; // in the large file, with 20 keys each
const unsigned DEFAULT_LINES = 9;
const unsigned PRODUCTS = 8000;
const unsigned ADDED = 1000;
const char PRODUCT[] = "5"; // of the large file
const char *const KEYS[] = {"OIDNames=component%u,c%u",
                            "DebugLevel=3",
                            "DiagnosticLevel=4",
                            "DynaReloadInSec=60",
                            "LogToStdout=false",
                            "LogToStderr=false",
                            "LogToOslog=false",
                            "AppMsgLogging=ON",
                            "L10nLib=library",
                            "L10nResource=resource%u",
                            "L10nResourceDir=/usr/share/resources",
                            "RolloverMode=FileSize",
                            "LogRecycle=true",
                            "MaxLogFileSizeKB=512",
                            "RolloverAtLocalTime=03:30",
                            "RolloverPeriodInSeconds=3600",
                            "NumberOfLogFiles=9",
                            "SyslogIdent=component%u",
                            "SyslogFacility=LOG_LOCAL3",
                            "LogFilePermissions=640"};

// ---- the files of the run --------------------------------------------------------------------

void put(const std::string &path, const std::string &bytes) {
    FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

std::string sectionOf(unsigned id) {
    std::string lines;
    for (const char *key : KEYS) {
        char line[128];
        std::snprintf(line, sizeof line, key, id, id);
        lines += std::to_string(id) + "." + line + "\n";
    }
    return lines;
}

std::string largeFile() {
    std::string bytes = "Default.LogDirectory=/tmp\n";
    for (unsigned i = 1; i < DEFAULT_LINES; ++i)
        bytes += "Default." + std::string(KEYS[i]) + "\n";
    for (unsigned id = 1001; id <= 1000 + ORIGINATORS; ++id)
        bytes += sectionOf(id);
    return bytes;
}

char directory[] = "/tmp/qdul-config-bench.XXXXXX";
std::vector<std::string> productFiles;

void removeFiles() {
    for (const std::string &file : productFiles)
        (void)unlink(file.c_str());
    for (const char *file : {"large.conf", "main.conf", "products.conf", "added.conf", "list"})
        (void)unlink(file);
    if (chdir("/") == 0)
        (void)rmdir(directory);
}

std::string here(const std::string &name) {
    return std::string(directory) + "/" + name;
}

// Made once. One main file registers the large file and the one that grows, another 8,000
// products, each with a small file.
void makeFiles() {
    static bool made = false;
    if (made)
        return;
    made = true;
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0)
        std::exit(1);
    std::atexit(removeFiles);
    put("large.conf", largeFile());
    put("main.conf", "5.Configuration=" + here("large.conf") +
                         "\n5.Names=five\n6.Configuration=" + here("added.conf") + "\n");
    std::string products;
    for (unsigned id = 1; id <= PRODUCTS; ++id) {
        const std::string name = "p" + std::to_string(id) + ".conf";
        products += std::to_string(id) + ".Configuration=" + here(name) + "\n" + std::to_string(id) +
                    ".Names=product" + std::to_string(id) + "\n";
        put(name, "Default.LogDirectory=/tmp\nDefault.DebugLevel=1\n7.OIDNames=seven\n");
        productFiles.push_back(name);
    }
    put("products.conf", products);
    std::string list;
    for (unsigned id = 100001; id <= 100000 + ADDED; ++id)
        list += sectionOf(id);
    put("list", list);
    setenv("ZOLTLOG_CFG_LOC", here("main.conf").c_str(), 1);
}

const std::vector<std::string> &allProducts() {
    static std::vector<std::string> files;
    makeFiles();
    if (files.empty()) {
        files = productFiles;
        files.emplace_back("products.conf");
    }
    return files;
}

// ---- measuring -------------------------------------------------------------------------------

size_t barePass(const std::vector<std::string> &files) {
    static char buffer[65536];
    size_t lines = 0;
    for (const std::string &path : files) {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t count = 0;
        while ((count = read(file, buffer, sizeof buffer)) > 0) {
            const char *at = buffer;
            const char *end = buffer + count;
            while ((at = static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(end - at)))) !=
                   nullptr) {
                ++lines;
                ++at;
            }
        }
        close(file);
    }
    return lines;
}

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

struct Aim {
    double seconds, megabytes, passes; // 0: none
};

double median(std::vector<double> &values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Takes times of the work and of the bare pass in turns.
template<typename F>
void compare(benchmark::State &state, const std::vector<std::string> &files, const Aim &aim, F timeOf) {
    std::vector<double> ours;
    std::vector<double> bare;
    double megabytes = 0;
    for (auto _ : state) {
        bare.push_back(seconds([&files] { benchmark::DoNotOptimize(barePass(files)); }));
        ours.push_back(timeOf(&megabytes));
        state.SetIterationTime(ours.back());
    }
    const double took = median(ours);
    const double pass = median(bare);
    state.counters["passes"] = took / pass;
    state.counters["pass_ms"] = pass * 1e3;
    state.counters["MB"] = megabytes;
    std::string text;
    if (aim.seconds > 0)
        text += "under " + std::to_string(aim.seconds).substr(0, 3) + " s ";
    if (aim.megabytes > 0)
        text += "under " + std::to_string(static_cast<int>(aim.megabytes)) + " MB ";
    if (aim.passes > 0)
        text += "within " + std::to_string(static_cast<int>(aim.passes)) + " passes ";
    const bool isMet = (aim.seconds <= 0 || took < aim.seconds) &&
                       (aim.megabytes <= 0 || megabytes < aim.megabytes) &&
                       (aim.passes <= 0 || took / pass <= aim.passes);
    state.SetLabel(text.empty() ? text : text + (isMet ? "- met" : "- MISSED"));
}

const std::vector<std::string> LARGE = {"large.conf"};

template<typename F>
void compareCall(benchmark::State &state, const std::vector<std::string> &files, const Aim &aim, F work) {
    makeFiles();
    compare(state, files, aim, [&work](double *) { return seconds(work); });
}

// Runs qdlogcfg with its output thrown away.
double timeOfTool(const char *mainFile, std::vector<std::string> words, double *megabytes) {
    words.insert(words.begin(), {QDLOGCFG, "--config", mainFile});
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int status = 0;
    struct rusage used = {};
    if (posix_spawn(&child, QDLOGCFG, &actions, nullptr, arguments.data(), environ) != 0 ||
        wait4(child, &status, 0, &used) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        std::fprintf(stderr, "%s: failed\n", words[3].c_str());
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    *megabytes = std::max(*megabytes, static_cast<double>(used.ru_maxrss) / 1024);
    const auto inSeconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return inSeconds(used.ru_utime) + inSeconds(used.ru_stime);
}

void tool(benchmark::State &state, const Aim &aim, const std::vector<std::string> &words) {
    makeFiles();
    compare(state, LARGE, aim,
            [&words](double *megabytes) { return timeOfTool("main.conf", words, megabytes); });
}

// ---- the rows ----------------------------------------------------------------------------------

const int TOOL_ROUNDS = 9;
const Aim TOOL_AIM = {1, 200, 0};

void start(benchmark::State &state) { // the tool alone, on small files
    makeFiles();
    compare(state, LARGE, {}, [](double *megabytes) {
        return timeOfTool("main.conf", {"product", "list"}, megabytes);
    });
}
BENCHMARK(start)
    ->Name("qdlogcfg, its start")
    ->UseManualTime()
    ->Iterations(TOOL_ROUNDS)
    ->Unit(benchmark::kMillisecond);

#define TOOL_ROW(name, title, ...)                                                                           \
    void name(benchmark::State &state) {                                                                     \
        tool(state, TOOL_AIM, {__VA_ARGS__});                                                                \
    }                                                                                                        \
    BENCHMARK(name)->Name(title)->UseManualTime()->Iterations(TOOL_ROUNDS)->Unit(benchmark::kMillisecond)
TOOL_ROW(list, "qdlogcfg list", "list", "-P", PRODUCT);
TOOL_ROW(check, "qdlogcfg check", "check", "-P", PRODUCT);
TOOL_ROW(show, "qdlogcfg show", "show", "-P", PRODUCT, "-u", "9000");
TOOL_ROW(get, "qdlogcfg get", "get", "-P", PRODUCT, "-u", "component9000", "DebugLevel");
TOOL_ROW(budget, "qdlogcfg budget", "budget", "-P", PRODUCT);
TOOL_ROW(explain, "qdlogcfg explain", "explain", "-P", PRODUCT, "-u", "9000");
TOOL_ROW(setOne, "qdlogcfg set", "set", "-P", PRODUCT, "-u", "9000", "DebugLevel=3");

void apply(benchmark::State &state) {
    makeFiles();
    compare(state, LARGE, TOOL_AIM, [](double *megabytes) {
        put("large.conf", largeFile());
        return timeOfTool("main.conf", {"apply", "-P", PRODUCT, here("list")}, megabytes);
    });
    put("large.conf", largeFile());
}
BENCHMARK(apply)
    ->Name("qdlogcfg apply, 1,000 more")
    ->UseManualTime()
    ->Iterations(TOOL_ROUNDS)
    ->Unit(benchmark::kMillisecond);

void toolOfProducts(benchmark::State &state) {
    makeFiles();
    compare(state, allProducts(), {0.2, 0, 0}, [](double *megabytes) {
        return timeOfTool("products.conf", {"get", "-P", "product8000", "-u", "seven", "DebugLevel"},
                          megabytes);
    });
}
BENCHMARK(toolOfProducts)
    ->Name("qdlogcfg get, 8,000 products")
    ->UseManualTime()
    ->Iterations(TOOL_ROUNDS)
    ->Unit(benchmark::kMillisecond);

void listOfProducts(benchmark::State &state) {
    makeFiles();
    compare(state, allProducts(), {0.2, 0, 0}, [](double *megabytes) {
        return timeOfTool("products.conf", {"product", "list"}, megabytes);
    });
}
BENCHMARK(listOfProducts)
    ->Name("qdlogcfg product list, 8,000 products")
    ->UseManualTime()
    ->Iterations(TOOL_ROUNDS)
    ->Unit(benchmark::kMillisecond);

void release(LogCfg **cfgs, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
    }
}

void readAll(benchmark::State &state) {
    std::vector<LogCfg *> cfgs(std::size_t{4} * PRODUCTS);
    compareCall(state, allProducts(), {0.2, 0, 0}, [&cfgs] {
        uint32_t count = 0;
        if (zoltLogReadAllCfg(here("products.conf").c_str(), static_cast<uint32_t>(cfgs.size()), cfgs.data(),
                              &count) != ZOLTLOG_OK ||
            count != 2 * PRODUCTS)
            std::abort();
        release(cfgs.data(), count);
    });
}
BENCHMARK(readAll)->Name("zoltLogReadAllCfg, 8,000 products")->UseManualTime()->Unit(benchmark::kMillisecond);

void readProduct(benchmark::State &state) {
    const auto capacity = static_cast<uint32_t>(state.range(0));
    std::vector<LogCfg *> cfgs(capacity);
    makeFiles();
    compare(state, LARGE, {0, 0, 10}, [&cfgs, capacity](double *) {
        uint32_t count = 0;
        uint32_t result = ZOLTLOG_FAILED;
        const double took =
            seconds([&] { result = zoltLogReadProdIDCfg(nullptr, 5, capacity, cfgs.data(), &count); });
        if (result != ZOLTLOG_OK || count != std::min(capacity, ORIGINATORS + 1))
            std::abort();
        release(cfgs.data(), count);
        return took;
    });
}
BENCHMARK(readProduct)
    ->Name("zoltLogReadProdIDCfg")
    ->Arg(1024)
    ->Arg(20000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// What the records of readProduct cost before anything is read into them: the boundary fixes
// their size and that each is freed by itself.
void allocateRecords(benchmark::State &state) {
    std::vector<LogCfg *> cfgs(ORIGINATORS + 1);
    makeFiles();
    compare(state, LARGE, {0, 0, 0}, [&cfgs](double *) {
        const double took = seconds([&cfgs] {
            for (LogCfg *&cfg : cfgs)
                cfg = static_cast<LogCfg *>(calloc(1, sizeof *cfg));
        });
        release(cfgs.data(), static_cast<uint32_t>(cfgs.size()));
        return took;
    });
}
BENCHMARK(allocateRecords)
    ->Name("10,001 records allocated, nothing read")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void readOne(benchmark::State &state) {
    const auto id = static_cast<uint64_t>(state.range(0));
    compareCall(state, LARGE, {0, 0, 3}, [id] {
        LogCfg cfg;
        if (zoltLogReadCfg(5, id, &cfg) != ZOLTLOG_OK || cfg.maxFileSizeKB != 512)
            std::abort();
        zoltLogFreeCfg(&cfg);
    });
}
BENCHMARK(readOne)
    ->Name("zoltLogReadCfg")
    ->Arg(1001)
    ->Arg(11000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void readText(benchmark::State &state) {
    compareCall(state, LARGE, {0, 0, 3}, [] {
        char *text = nullptr;
        if (GetPropertyString("large.conf", "11000", "OIDNames", &text) != ZOLTLOG_OK)
            std::abort();
        zoltLogFree(text);
    });
}
BENCHMARK(readText)->Name("GetPropertyString")->UseManualTime()->Unit(benchmark::kMillisecond);

// One change of the large file: every line copied, the disk written to.
void changeOne(benchmark::State &state) {
    unsigned long value = 0;
    compareCall(state, LARGE, {}, [&value] {
        PropertyStore store;
        value = value % 6 + 1;
        if (utiOpenPropertyStore("large.conf", "10999", &store) != 0 ||
            utiSetPropertyAsUlong(&store, "DebugLevel", &value) != 0)
            std::abort();
        utiClosePropertyStore(&store);
    });
}
BENCHMARK(changeOne)->Name("one change of the large file")->UseManualTime()->Unit(benchmark::kMillisecond);

// New originators with nine keys each in a file that begins empty; the pass is over the file
// as it is at the end.
void addMany(benchmark::State &state) {
    makeFiles();
    const auto add = [] {
        put("added.conf", "");
        for (unsigned id = 1001; id <= 1000 + ADDED; ++id) {
            LogCfg cfg;
            InitLogCfg(6, id, nullptr, &cfg);
            zoltLogCfgSetDebugLevel(&cfg, 3);
            zoltLogCfgSetDiagLevel(&cfg, 3);
            zoltLogCfgEnableLogToStdout(&cfg);
            zoltLogCfgSetRolloverMode(&cfg, ZOLTLOG_ROLLOVER_FILE_SIZE);
            zoltLogCfgSetMaxFileSize(&cfg, 512);
            zoltLogCfgSetNumberOfLogFiles(&cfg, 9);
            zoltLogCfgSetSyslogIdent(&cfg, "me");
            zoltLogCfgSetLogFilePermissions(&cfg, 432);
            if (zoltLogWriteCfg(6, id, &cfg) != ZOLTLOG_OK)
                std::abort();
            zoltLogFreeCfg(&cfg);
        }
    };
    add();
    compareCall(state, {"added.conf"}, {}, add);
}
BENCHMARK(addMany)
    ->Name("zoltLogWriteCfg of 1,000 new originators")
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
