// SPDX-License-Identifier: Apache-2.0
// The side-by-side program: our message path, the limits that the kernel sets, and
// other logging libraries, in interleaved rounds on equal work. Prints a table of
// medians as ratios to the base loop of the same run, and writes it as JSON.
//
//     compare [--rounds N] [--messages N] [--json FILE] [--only TEXT] DIRECTORY
//
// The other libraries run in a program of their own, once in each round: some of them
// start threads as soon as they are loaded, which makes every write of the process dearer.
//
// Order of sections: the limits; ours; the single figures; the peers; the table.
#include "compare.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/time.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qdlis.h"
#include "zoltlog.h"

namespace {

// ---- the limits --------------------------------------------------------------------

int file = -1;

void openFile(const std::string &directory) {
    file = openLog(directory);
}

void closeFile() {
    close(file);
}

char *digits(char *at, uint64_t value) {
    char reversed[20];
    int count = 0;
    do {
        reversed[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0)
        *at++ = reversed[--count];
    return at;
}

// What the record needs and nothing more: one formatting of the text, the numbers by hand.
void handMadeLine(int number) {
    pthread_mutex_lock(&mutex);
    int cancelState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    timeval time;
    gettimeofday(&time, nullptr);
    char text[256];
    const int length = std::snprintf(text, sizeof text, MESSAGE_FORMAT, number, MESSAGE_TEXT);
    char line[512];
    char *at = line;
    const uint64_t fields[] = {2,
                               5,
                               7,
                               7,
                               static_cast<uint64_t>(number),
                               static_cast<uint64_t>(time.tv_sec * 1000 + time.tv_usec / 1000),
                               4242,
                               static_cast<uint64_t>(pthread_self())};
    for (const uint64_t field : fields) {
        at = digits(at, field);
        *at++ = ',';
    }
    std::memcpy(at, "0:,", 3);
    at = digits(at + 3, static_cast<uint64_t>(length));
    *at++ = ':';
    std::memcpy(at, text, static_cast<size_t>(length));
    at += length;
    constexpr char TAIL[] = ",3:mgr,1,(0|)\n";
    std::memcpy(at, TAIL, sizeof TAIL - 1);
    at += sizeof TAIL - 1;
    writeAll(file, line, static_cast<size_t>(at - line));
    pthread_setcancelstate(cancelState, nullptr);
    pthread_mutex_unlock(&mutex);
}

const std::string BASE = "base: clock, 2 snprintf, fstat, write";
const std::string LOCKED = "base, locked";

std::vector<Contender> limits() {
    return {{BASE, openFile, [](int number) { baseLoop(file, number); }, closeFile},
            {LOCKED, openFile, [](int number) { lockedBaseLoop(file, number); }, closeFile},
            {"write alone, ready line", openFile,
             [](int) {
                 static char line[512];
                 static const size_t length = makeLine(line, 1234);
                 writeAll(file, line, length);
             },
             closeFile},
            {"line made by hand, locked, write", openFile, handMadeLine, closeFile}};
}

// ---- ours --------------------------------------------------------------------------

constexpr uint64_t PRODUCT = 5;

void check(uint32_t result, const char *what) {
    if (result != ZOLTLOG_OK) {
        std::fprintf(stderr, "%s: result %u\n", what, result);
        std::exit(1);
    }
}

// Registers the product in a configuration of its own.
void makeConfiguration() {
    const std::string directory = freshDirectory("configuration");
    if (qdlisAddCatalog(SAMPLE_CATALOGUE) != 0)
        std::exit(1);
    setenv("ZOLTLOG_CFG_LOC", (directory + "/main.conf").c_str(), 1);
    check(zoltLogAddProductCfg(PRODUCT, "bench", (directory + "/bench.conf").c_str()),
          "zoltLogAddProductCfg");
}

// The settings that a contender of ours runs with, as its own originator.
void configure(uint64_t originator, const std::string &directory, uint32_t mode, uint64_t kilobytes,
               uint64_t kept, uint32_t reload) {
    LogCfg cfg;
    check(zoltLogReadCfg(PRODUCT, originator, &cfg), "zoltLogReadCfg");
    check(zoltLogCfgSetDirectory(&cfg, std::filesystem::absolute(directory).c_str(), nullptr), "directory");
    check(zoltLogCfgSetRolloverMode(&cfg, mode), "mode");
    check(zoltLogCfgSetMaxFileSize(&cfg, kilobytes), "size");
    check(zoltLogCfgSetNumberOfLogFiles(&cfg, kept), "files");
    check(zoltLogCfgSetDynaSetting(&cfg, reload), "reload");
    check(zoltLogCfgEnableLogRecycling(&cfg), "recycling");
    check(zoltLogWriteCfg(PRODUCT, originator, &cfg), "zoltLogWriteCfg");
    zoltLogFreeCfg(&cfg);
}

LogHandle handle;
LogHandle parent; // of the context contender

Contender ours(const std::string &name, uint64_t originator, uint32_t mode, std::function<void(int)> log) {
    return {name,
            [=](const std::string &directory) {
                configure(originator, directory, mode, FILE_LIMIT / 1024, FILES_KEPT, 0);
                check(zoltLogOpen(PRODUCT, originator, &handle), "zoltLogOpen");
            },
            std::move(log), [] { check(zoltLogClose(&handle), "zoltLogClose"); }};
}

void plainMessage(int number) {
    check(zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 0, MESSAGE_FORMAT, number, MESSAGE_TEXT),
          "zoltLogAppMsg");
}

const std::string OURS = "zoltLogAppMsg, size rollover";
const std::string OURS_NO_ROLLOVER = "zoltLogAppMsg, no rollover";
const std::string OURS_CATALOGUE = "zoltLogAppMsg, catalogue message";

std::vector<Contender> ourContenders() {
    return {ours(OURS, 7, ZOLTLOG_ROLLOVER_FILE_SIZE, plainMessage),
            ours(OURS_NO_ROLLOVER, 8, ZOLTLOG_ROLLOVER_NONE, plainMessage),
            ours(OURS_CATALOGUE, 9, ZOLTLOG_ROLLOVER_FILE_SIZE,
                 [](int number) {
                     check(zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, 1001, "Disk %s is %d%% full",
                                         MESSAGE_TEXT, number),
                           "zoltLogAppMsg");
                 }),
            {"zoltLogAppMsg in a context",
             [](const std::string &directory) {
                 configure(10, directory, ZOLTLOG_ROLLOVER_FILE_SIZE, FILE_LIMIT / 1024, FILES_KEPT, 0);
                 check(zoltLogOpen(PRODUCT, 10, &parent), "zoltLogOpen");
                 check(zoltLogCreateContext(&parent, &handle, "request-17", 0, "request %d", 17),
                       "zoltLogCreateContext");
             },
             plainMessage,
             [] {
                 check(zoltLogDestroyContext(&handle), "zoltLogDestroyContext");
                 check(zoltLogClose(&parent), "zoltLogClose");
             }}};
}

// ---- the single figures --------------------------------------------------------------

struct Single {
    std::string name;
    std::string unit;
    std::vector<double> values;
    std::string aim;
};

__attribute__((noinline)) uint32_t emptyCall(LogHandle *, uint32_t, uint32_t, const char *, const char *,
                                             ...) {
    __asm__ volatile("");
    return 0;
}

// A debug message that the level drops, over what an empty variadic call costs.
double droppedDebug(uint32_t reload) {
    configure(11, freshDirectory("dropped"), ZOLTLOG_ROLLOVER_NONE, 1024, FILES_KEPT, reload);
    check(zoltLogOpen(PRODUCT, 11, &handle), "zoltLogOpen");
    constexpr int CALLS = 2000000;
    int64_t start = now();
    for (int i = 0; i < CALLS; ++i)
        zoltLogDebugMsg(&handle, 0, 3, "mgr", MESSAGE_FORMAT, i, MESSAGE_TEXT);
    const auto dropped = static_cast<double>(now() - start);
    start = now();
    for (int i = 0; i < CALLS; ++i)
        emptyCall(&handle, 0, 3, "mgr", MESSAGE_FORMAT, i, MESSAGE_TEXT);
    const auto empty = static_cast<double>(now() - start);
    check(zoltLogClose(&handle), "zoltLogClose");
    return (dropped - empty) / CALLS;
}

// ns per message of several processes that write one series, size rollover on.
double processes(int count) {
    const std::string directory = freshDirectory("processes");
    constexpr uint64_t KILOBYTES = 4096;
    configure(12, directory, ZOLTLOG_ROLLOVER_FILE_SIZE, KILOBYTES, ZOLTLOG_KEEP_ALL_FILES, 0);
    const int each = settings.messages / count;
    int ready[2];
    int go[2];
    if (pipe(ready) != 0 || pipe(go) != 0)
        std::abort();
    for (int p = 0; p < count; ++p) {
        if (fork() == 0) {
            LogHandle mine = {};
            check(zoltLogOpen(PRODUCT, 12, &mine), "zoltLogOpen");
            char byte = 1;
            if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1)
                _exit(1);
            for (int i = 0; i < each; ++i)
                zoltLogAppMsg(&mine, 0, ZOLTLOG_SEVERITY_WARNING, 0, MESSAGE_FORMAT, i, MESSAGE_TEXT);
            zoltLogClose(&mine);
            _exit(0);
        }
    }
    char byte = 1;
    for (int p = 0; p < count; ++p)
        if (read(ready[0], &byte, 1) != 1)
            std::abort();
    const int64_t start = now();
    for (int p = 0; p < count; ++p)
        if (write(go[1], &byte, 1) != 1)
            std::abort();
    for (int p = 0; p < count; ++p)
        wait(nullptr);
    const int64_t end = now();
    for (const int descriptor : {ready[0], ready[1], go[0], go[1]})
        close(descriptor);
    return static_cast<double>(end - start) / (static_cast<double>(each) * count);
}

Contender rollingOurs(uint64_t originator, uint64_t kilobytes) {
    return {"rolling",
            [=](const std::string &directory) {
                configure(originator, directory, ZOLTLOG_ROLLOVER_FILE_SIZE, kilobytes, FILES_KEPT, 0);
                check(zoltLogOpen(PRODUCT, originator, &handle), "zoltLogOpen");
            },
            plainMessage, [] { check(zoltLogClose(&handle), "zoltLogClose"); }};
}

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    return 0;
}

// Growth of the resident memory over a million messages, in a process of its own.
double memoryGrowth() {
    const std::string directory = freshDirectory("memory");
    configure(13, directory, ZOLTLOG_ROLLOVER_FILE_SIZE, 10240, FILES_KEPT, 0);
    int result[2];
    if (pipe(result) != 0)
        std::abort();
    if (fork() == 0) {
        check(zoltLogOpen(PRODUCT, 13, &handle), "zoltLogOpen");
        for (int i = 0; i < 1000; ++i)
            plainMessage(i);
        const long before = residentKilobytes();
        for (int i = 0; i < 1000000; ++i)
            plainMessage(i);
        const double growth = static_cast<double>(residentKilobytes() - before);
        if (write(result[1], &growth, sizeof growth) != static_cast<ssize_t>(sizeof growth))
            _exit(1);
        _exit(0);
    }
    double growth = NAN;
    if (read(result[0], &growth, sizeof growth) != static_cast<ssize_t>(sizeof growth))
        std::abort();
    wait(nullptr);
    close(result[0]);
    close(result[1]);
    return growth;
}

// ---- the peers -----------------------------------------------------------------------

// Runs the peers' program once and adds what it prints: lines of a name and the values
// of its figures. Yields the cost of one rotation.
double measurePeers(std::vector<std::string> &names, std::vector<Figures> &figures) {
    const std::string command = std::string(PEERS_PROGRAM) + " --messages " +
                                std::to_string(settings.messages) + " '" + settings.directory + "/peers'";
    FILE *out = popen(command.c_str(), "r");
    if (out == nullptr)
        std::abort();
    double rotation = NAN;
    char line[512];
    while (std::fgets(line, sizeof line, out) != nullptr) {
        char *values = std::strchr(line, '\t');
        if (values == nullptr)
            continue;
        const std::string name(line, values);
        if (name == ROTATION) {
            rotation = std::strtod(values, nullptr);
            continue;
        }
        auto at = static_cast<size_t>(std::find(names.begin(), names.end(), name) - names.begin());
        if (at == names.size()) {
            names.push_back(name);
            figures.emplace_back();
        }
        for (std::vector<double> *figure : figures[at].all())
            figure->push_back(std::strtod(values, &values));
    }
    if (pclose(out) != 0) {
        std::fprintf(stderr, "the peers' program failed\n");
        std::exit(1);
    }
    return rotation;
}

// ---- the table ---------------------------------------------------------------------

std::vector<double> ratios(const std::vector<double> &values, const std::vector<double> &base) {
    std::vector<double> result;
    for (size_t i = 0; i < values.size() && i < base.size(); ++i)
        result.push_back(values[i] / base[i]); // of the same round
    return result;
}

std::string range(std::vector<double> values) {
    if (values.empty())
        return "-";
    std::sort(values.begin(), values.end());
    char text[64];
    std::snprintf(text, sizeof text, "%5.2f (%.2f-%.2f)", values[values.size() / 2], values.front(),
                  values.back());
    return text;
}

void jsonArray(FILE *out, const char *name, const std::vector<double> &values) {
    std::fprintf(out, ", \"%s\": [", name);
    for (size_t i = 0; i < values.size(); ++i)
        std::fprintf(out, "%s%.3f", i == 0 ? "" : ", ", values[i]);
    std::fprintf(out, "]");
}

} // namespace

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool hasValue = i + 1 < argc;
        if (word == "--rounds" && hasValue)
            settings.rounds = std::atoi(argv[++i]);
        else if (word == "--messages" && hasValue)
            settings.messages = std::atoi(argv[++i]);
        else if (word == "--json" && hasValue)
            settings.json = argv[++i];
        else if (word == "--only" && hasValue)
            settings.only = argv[++i];
        else if (word[0] != '-')
            settings.directory = word;
        else {
            std::fprintf(
                stderr, "usage: compare [--rounds N] [--messages N] [--json FILE] [--only TEXT] DIRECTORY\n");
            return 2;
        }
    }
    std::filesystem::create_directories(settings.directory);
    settings.directory = std::filesystem::absolute(settings.directory).string();
    makeConfiguration();

    std::vector<Contender> all = limits();
    for (Contender &contender : ourContenders())
        if (settings.only.empty() || contender.name.find(settings.only) != std::string::npos)
            all.push_back(std::move(contender));
    std::vector<std::string> names;
    for (const Contender &contender : all)
        names.push_back(contender.name);

    const double clock = clockCost();
    std::vector<Figures> figures(all.size());
    std::vector<Single> singles = {
        {"dropped debug message over an empty call, no reload", "ns", {}, "10 or less"},
        {"dropped debug message over an empty call, reload every 60 s", "ns", {}, "10 or less"},
        {"4 processes on one series, against 1", "x", {}, "1.5 or less"},
        {"one rollover with recycling, against spdlog's rotation", "x", {}, "2 or less"},
        {"one rollover with recycling", "us", {}, ""},
        {"memory growth over a million messages", "KB", {}, "under 1024"},
    };
    for (int round = 0; round < settings.rounds; ++round) {
        for (size_t i = 0; i < all.size(); ++i)
            measure(all[i], clock, figures[i]);
        if (settings.only.empty()) {
            const double rotation = measurePeers(names, figures);
            singles[0].values.push_back(droppedDebug(0));
            singles[1].values.push_back(droppedDebug(60));
            const double one = processes(1);
            singles[2].values.push_back(processes(4) / one);
            const double mine = rolloverCost(rollingOurs(14, ROLL_KILOBYTES));
            singles[3].values.push_back(mine / rotation);
            singles[4].values.push_back(mine / 1000);
            if (round == 0)
                singles[5].values.push_back(memoryGrowth());
        }
        std::fprintf(stderr, "round %d of %d\n", round + 1, settings.rounds);
    }

    const auto find = [&](const std::string &name) {
        const auto at = std::find(names.begin(), names.end(), name);
        return at == names.end() ? nullptr : &figures[static_cast<size_t>(at - names.begin())];
    };
    // What a change to the way of a message has to hold.
    if (find(OURS) != nullptr) {
        singles.push_back({"a message with size rollover, p50", "x", find(OURS)->p50, "0.42 or less"});
        singles.push_back({"a message of eight threads, size rollover, against the locked loop", "x",
                           find(OURS)->eightThreads, "0.47 or less"});
    }
    if (find(OURS_NO_ROLLOVER) != nullptr)
        singles.push_back(
            {"a message without rollover, p50", "x", find(OURS_NO_ROLLOVER)->p50, "0.41 or less"});
    if (find(OURS) != nullptr && find(OURS_CATALOGUE) != nullptr)
        singles.push_back({"catalogue message of two arguments against plain text, p50", "x",
                           ratios(find(OURS_CATALOGUE)->p50, find(OURS)->p50), "1.3 or less"});

    utsname machine;
    uname(&machine);
    char date[32];
    const time_t today = time(nullptr);
    tm broken;
    strftime(date, sizeof date, "%Y-%m-%d", localtime_r(&today, &broken));
    std::printf("%s, %s %s, %ld processors; medians (and ranges) of %d rounds of %d messages\n", date,
                machine.sysname, machine.release, sysconf(_SC_NPROCESSORS_ONLN), settings.rounds,
                settings.messages);
    std::printf("base loop: p50 %.0f ns\n\n", median(figures[0].p50Ns));
    std::printf("%-44s %-19s %-19s %-19s %-19s %-19s\n", "ratios to the base loop", "1 thread", "p50",
                "p99.9", "8 threads (locked)", "8 threads/1 thread");
    for (size_t i = 0; i < names.size(); ++i)
        std::printf("%-44s %-19s %-19s %-19s %-19s %-19s\n", names[i].c_str(),
                    range(figures[i].oneThread).c_str(), range(figures[i].p50).c_str(),
                    range(figures[i].p999).c_str(), range(figures[i].eightThreads).c_str(),
                    range(figures[i].eightOverOneThread).c_str());
    std::printf("\n");
    for (const Single &single : singles)
        if (!single.values.empty())
            std::printf("%-68s %s %s%s%s\n", single.name.c_str(), range(single.values).c_str(),
                        single.unit.c_str(), single.aim.empty() ? "" : "; aim: ", single.aim.c_str());

    if (!settings.json.empty()) {
        FILE *out = std::fopen(settings.json.c_str(), "w");
        if (out == nullptr) {
            std::perror(settings.json.c_str());
            return 1;
        }
        std::fprintf(out,
                     "{\"date\": \"%s\", \"kernel\": \"%s\", \"processors\": %ld, \"messages\": %d,\n "
                     "\"contenders\": [",
                     date, machine.release, sysconf(_SC_NPROCESSORS_ONLN), settings.messages);
        for (size_t i = 0; i < names.size(); ++i) {
            std::fprintf(out, "%s\n  {\"name\": \"%s\"", i == 0 ? "" : ",", names[i].c_str());
            jsonArray(out, "p50_ns", figures[i].p50Ns);
            jsonArray(out, "one_thread", figures[i].oneThread);
            jsonArray(out, "p50", figures[i].p50);
            jsonArray(out, "p999", figures[i].p999);
            jsonArray(out, "eight_threads", figures[i].eightThreads);
            jsonArray(out, "eight_over_one_thread", figures[i].eightOverOneThread);
            std::fprintf(out, "}");
        }
        std::fprintf(out, "],\n \"singles\": [");
        for (size_t i = 0; i < singles.size(); ++i) {
            std::fprintf(out, "%s\n  {\"name\": \"%s\", \"unit\": \"%s\"", i == 0 ? "" : ",",
                         singles[i].name.c_str(), singles[i].unit.c_str());
            jsonArray(out, "values", singles[i].values);
            std::fprintf(out, "}");
        }
        std::fprintf(out, "]}\n");
        std::fclose(out);
    }
    std::filesystem::remove_all(settings.directory);
    return 0;
}
