// SPDX-License-Identifier: Apache-2.0
// The exit statuses of all our command-line tools, in the manner of grep.
#pragma once

namespace tools {

enum ExitCode : int {
    EXIT_OK = 0,         // something was printed, or all is right
    EXIT_NOTHING = 1,    // nothing matched, or a verification found problems
    EXIT_USAGE = 2,      // wrong usage
    EXIT_UNREADABLE = 3, // a file or the configuration could not be read
    EXIT_PARTIAL = 4,    // the output is there, but only in part
};

} // namespace tools
