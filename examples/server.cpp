// SPDX-License-Identifier: Apache-2.0
// A server: many requests at a time, each with a context of its own.
//
// Shows: one log handle for all threads; a small C++ owner for handles and contexts;
// a context per request, so that all messages of a request carry its token; application,
// diagnostic and debug messages, and audit messages from the message catalogue.
//
//   server PRODUCT ORIGINATOR THREADS < list-of-files
//
// A request is the path of a text file: the server counts its lines and words. At the
// end it tells on standard output how many messages of each kind it has sent.
#include "zoltlog_results.h"

#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t MSG_ACCESS_DENIED = 1005; // "Access of user %1$s to %2$s denied"
constexpr uint64_t MANY_LINES = 10000;
constexpr unsigned long MOST_THREADS = 1000;

// A log handle that is closed with its scope. It stays where it is: the library
// knows it by its address.
struct Log {
    Log(uint64_t product, uint64_t originator) : result(zoltLogOpen(product, originator, &handle)) {
        handle.utf8 = 1; // our texts are UTF-8, whatever the locale is
    }
    ~Log() { zoltLogClose(&handle); }
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    LogHandle handle = {};
    uint32_t result;
};

// The context of one request
struct Context {
    Context(LogHandle *parent, const std::string &token, const char *path)
        : result(zoltLogCreateContext(parent, &handle, token.c_str(), 0, "request for %s", path)) {}
    ~Context() { zoltLogDestroyContext(&handle); }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;

    LogHandle handle = {};
    uint32_t result;
};

struct Counts {
    std::atomic<uint64_t> contexts{0}, application{0}, diagnostic{0}, audit{0}, debug{0}, failures{0};
};

// Requests come from standard input, one thread at a time.
std::mutex requestsLock;
bool nextRequest(std::string &path, uint64_t &number) {
    static uint64_t last = 0;
    const std::lock_guard<std::mutex> guard(requestsLock);
    number = ++last;
    return static_cast<bool>(std::getline(std::cin, path));
}

// Counts a message that was sent; a result other than 0 says that it was not written.
void sent(std::atomic<uint64_t> &counter, uint32_t result, Counts &counts) {
    ++(result == ZOLTLOG_OK ? counter : counts.failures);
}

void serve(LogHandle *log, const std::string &path, uint64_t number, Counts &counts) {
    const auto began = std::chrono::steady_clock::now();
    const std::string token = "req-" + std::to_string(getpid()) + "-" + std::to_string(number);
    Context context(log, token, path.c_str());
    sent(counts.contexts, context.result, counts);
    if (context.result != ZOLTLOG_OK)
        return;
    LogHandle *request = &context.handle;

    std::ifstream file(path);
    if (!file) {
        sent(counts.application,
             zoltLogAppMsgEx(request, 0, ZOLTLOG_SEVERITY_WARNING, "files", 0, "%s cannot be read",
                             path.c_str()),
             counts);
        const char *user = std::getenv("USER");
        sent(counts.audit,
             zoltLogAuditMsg(request, 0, user != nullptr ? user : "unknown", 1, MSG_ACCESS_DENIED,
                             "Access of user %s to %s denied", user != nullptr ? user : "unknown",
                             path.c_str()),
             counts);
        return;
    }
    uint64_t lines = 0;
    uint64_t words = 0;
    for (std::string line; std::getline(file, line); ++lines) {
        for (char *rest = line.data(), *word = strtok_r(rest, " \t", &rest); word != nullptr;
             word = strtok_r(nullptr, " \t", &rest))
            ++words;
    }
    if (lines > MANY_LINES)
        sent(counts.application,
             zoltLogAppMsgEx(request, 0, ZOLTLOG_SEVERITY_WARNING, "files", 0, "%s is long: %llu lines",
                             path.c_str(), static_cast<unsigned long long>(lines)),
             counts);
    sent(counts.application,
         zoltLogAppMsgEx(request, 0, ZOLTLOG_SEVERITY_INFO, "files", 0, "%s has %llu lines and %llu words",
                         path.c_str(), static_cast<unsigned long long>(lines),
                         static_cast<unsigned long long>(words)),
         counts);
    const auto took = std::chrono::steady_clock::now() - began;
    sent(counts.diagnostic,
         zoltLogDiagMsg(
             request, 0, 2, "timing", 0, "served in %lld microseconds",
             static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(took).count())),
         counts);
    // Written when the debug level is 4 or more; costs next to nothing otherwise.
    sent(counts.debug, zoltLogDebugMsg(request, 0, 4, "files", "closed %s", path.c_str()), counts);
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, ""); // the language of catalogue messages
    const uint64_t product = argc == 4 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const uint64_t originator = argc == 4 ? std::strtoull(argv[2], nullptr, 10) : 0;
    const unsigned long threads = argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 0;
    if (product == 0 || originator == 0 || threads < 1 || threads > MOST_THREADS) {
        std::fprintf(stderr, "usage: server PRODUCT ORIGINATOR THREADS < list-of-files\n");
        return 2;
    }
    Log log(product, originator);
    if (log.result != ZOLTLOG_OK) {
        std::fprintf(stderr, "server: the log cannot be opened: %s\n", qdulResultText(log.result));
        return 3;
    }
    Counts counts;
    std::vector<std::thread> workers;
    workers.reserve(threads);
    for (unsigned long i = 0; i < threads; ++i) {
        workers.emplace_back([&log, &counts] {
            std::string path;
            for (uint64_t number = 0; nextRequest(path, number);)
                serve(&log.handle, path, number, counts);
        });
    }
    for (std::thread &worker : workers)
        worker.join();
    uint32_t debugLevel = 0;
    zoltLogGetDebugLevel(&log.handle, &debugLevel);
    std::printf(
        "contexts %llu application %llu diagnostic %llu audit %llu debug %llu\n",
        static_cast<unsigned long long>(counts.contexts), static_cast<unsigned long long>(counts.application),
        static_cast<unsigned long long>(counts.diagnostic), static_cast<unsigned long long>(counts.audit),
        static_cast<unsigned long long>(debugLevel >= 4 ? counts.debug.load() : 0));
    if (counts.failures > 0)
        std::fprintf(stderr, "server: %llu messages were not written\n",
                     static_cast<unsigned long long>(counts.failures));
    return counts.failures > 0 ? 1 : 0;
}
