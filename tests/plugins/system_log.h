// SPDX-License-Identifier: Apache-2.0
// A system log for tests, in the place of the C library's: it keeps what it is told.
#pragma once

#include <string>
#include <vector>

namespace system_log {

struct Message {
    std::string ident; // that openlog was told last; "" when it was closed since
    int option;
    int facility;
    int priority;
    int flag; // of the fortified form, -1: of the others
    std::string text;
};

struct Log {
    std::vector<Message> messages;
    std::vector<std::string> calls; // "openlog NAME OPTION FACILITY", "closelog", "setlogmask MASK"
};

Log &log();

} // namespace system_log
