// The exit statuses of all our command-line tools, in the manner of grep.
#pragma once

namespace tools {

enum ExitCode : int {
    ExitOk = 0,         // something was printed, or all is right
    ExitNothing = 1,    // nothing matched, or a verification found problems
    ExitUsage = 2,      // wrong usage
    ExitUnreadable = 3, // a file or the configuration could not be read
    ExitPartial = 4,    // the output is there, but only in part
};

} // namespace tools
