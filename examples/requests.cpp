// SPDX-License-Identifier: Apache-2.0
// qdul.hpp: a service that handles requests, each with a context of its own.
//
//     requests PRODUCT ORIGINATOR [REQUESTS]
#include <qdul.hpp>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

std::string describe(int request) { // costs something, so only for messages that are written
    return "request " + std::to_string(request) + " is handled";
}

bool handle(qdul::Logger &log, int request) {
    QDUL_DEBUG(log, 3, describe(request));
    if (request % 3 == 0) {
        log.app(qdul::Severity::warning, "storage is slow", {{"part", "disk 2"}, {"milliseconds", 93}});
        return false;
    }
    log.appf(qdul::Severity::info, "request %d of %s is done", request, "Zoë");
    QDUL_ONCE log.app(qdul::Severity::info, "the first request is done");
    return true;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::cerr << "usage: requests PRODUCT ORIGINATOR [REQUESTS]\n";
        return 2;
    }
    qdul::Log log(std::strtoull(argv[1], nullptr, 10), std::strtoull(argv[2], nullptr, 10));
    if (!log) {
        std::cerr << "the log cannot be opened: " << std::error_code(log.result()).message() << "\n";
        return 1;
    }
    log.setWho("requests");
    const int requests = argc > 3 ? std::atoi(argv[3]) : 6;
    int failed = 0;
    for (int i = 1; i <= requests; ++i) {
        qdul::Context context(log, "req-" + std::to_string(i));
        failed += handle(context, i) ? 0 : 1;
        QDUL_EVERY(5) log.app(qdul::Severity::info, "progress", {{"requests", i}});
    }
    if (const std::error_code error =
            log.app(qdul::Severity::info, "all is done", {{"requests", requests}, {"failed", failed}})) {
        std::cerr << "the last message was not written: " << error.message() << "\n";
        return 1;
    }
    return 0;
}
