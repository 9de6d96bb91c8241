// SPDX-License-Identifier: Apache-2.0
// qdlogcfg: registers products; shows, changes, checks and explains settings.
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "commands.h"
#include "common/exit_codes.h"

void writeJson(tools::Output &out, tools::Json &json) {
    writeLine(out, json);
}

std::string readableSize(uint64_t bytes) {
    static constexpr std::array<const char *, 6> UNITS = {"KB", "MB", "GB", "TB", "PB", "EB"};
    auto size = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (size >= 1024 && unit + 1 < UNITS.size()) {
        size /= 1024;
        ++unit;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %s", size, UNITS[unit]);
    return text;
}

std::string nearestExisting(const std::string &directory) {
    std::filesystem::path path(directory);
    std::error_code ignored;
    while (!path.empty() && !std::filesystem::exists(path, ignored)) {
        if (path == path.parent_path())
            return "";
        path = path.parent_path();
    }
    return path.string();
}

namespace {

using tools::set;

// Which options a command takes.
enum Takes : unsigned {
    EVERY = tools::TAKES_EVERY,
    JSON = tools::TAKES_JSON,
    PRODUCT = tools::FIRST_OWN,
    SCOPE = PRODUCT << 1,        // --originator, --logset
    REGISTRATION = PRODUCT << 2, // --names, --file
    MESSAGE = PRODUCT << 3,      // --kind, --level, --severity ...
    DRY_RUN = PRODUCT << 4,
    EXPORT = PRODUCT << 5,
    SHOWS = EVERY | JSON | tools::TAKES_PAGES | tools::TAKES_CONFIG | tools::TAKES_COMPLETION,
    CHANGES = EVERY | DRY_RUN | tools::TAKES_COMPLETION | tools::TAKES_PAGES | tools::TAKES_QUIET |
              tools::TAKES_CONFIG,
};

struct Command : tools::Command {
    int (*run)(const Options &, tools::Output &);
    bool productFirst = false; // its operand is the product
};

constexpr size_t ANY = tools::ANY_NUMBER;

const Command COMMANDS[] = {
    {{"product add", CHANGES | REGISTRATION, REGISTRATION, "ID", 1, 1, "Register a product",
      "qdlogcfg product add 5 --names server,srv --file /etc/qd/server.conf"},
     productAdd,
     true},
    {{"product remove", CHANGES, 0, "PRODUCT", 1, 1,
      "Remove a registration; configuration and log files stay", "qdlogcfg product remove 5"},
     productRemove,
     true},
    {{"product list", SHOWS, 0, "", 0, 0, "List the registered products", "qdlogcfg product list --json"},
     productList},
    {{"product show", SHOWS, 0, "PRODUCT", 1, 1, "Show one registration", "qdlogcfg product show server"},
     productShow,
     true},
    {{"get", SHOWS | PRODUCT | SCOPE, PRODUCT, "KEY...", 1, ANY, "Print the effective value of settings",
      "qdlogcfg get --product 5 --originator 7 DebugLevel"},
     getSettings},
    {{"set", CHANGES | PRODUCT | SCOPE, PRODUCT, "KEY=VALUE...", 1, ANY,
      "Change settings of Default, an originator or a log set",
      "qdlogcfg set --product 5 LogDirectory=/var/log/qd MaxLogFileSizeKB=1024"},
     setSettings},
    {{"unset", CHANGES | PRODUCT | SCOPE, PRODUCT, "KEY...", 1, ANY,
      "Remove settings, so that the inherited value holds",
      "qdlogcfg unset --product 5 --originator 7 DebugLevel"},
     unsetSettings},
    {{"list", SHOWS | PRODUCT, PRODUCT, "", 0, 0, "List the originators and log sets of a product",
      "qdlogcfg list --product 5"},
     listScopes},
    {{"apply", CHANGES | PRODUCT, PRODUCT, "FILE", 1, 1, "Set all that a file lists, or nothing",
      "qdlogcfg apply --product 5 settings.txt --dry-run"},
     applySettings},
    {{"show", SHOWS | PRODUCT | SCOPE | EXPORT, PRODUCT, "", 0, 0,
      "Show every setting and where it comes from", "qdlogcfg show --product 5 --logset backup"},
     showSettings},
    {{"check", SHOWS | PRODUCT, 0, "", 0, 0, "Tell what the library would skip, misread or fail on",
      "qdlogcfg check"},
     checkConfiguration},
    {{"explain", SHOWS | PRODUCT | SCOPE | MESSAGE, PRODUCT, "", 0, 0,
      "Tell whether and where a message would be written",
      "qdlogcfg explain --product 5 --originator 7 --kind debug --level 3"},
     explainMessage},
    {{"budget", SHOWS | PRODUCT, 0, "", 0, 0, "Show the most disk that each series can take",
      "qdlogcfg budget --product 5"},
     showBudget},
};

bool takeKind(Options &options, const char *value, std::string &error) {
    options.kind = value;
    for (const char *kind : {"app", "diag", "debug", "audit", "secure-audit"}) {
        if (options.kind == kind)
            return true;
    }
    error = "'" + options.kind + "' is none of app, diag, debug, audit, secure-audit";
    return false;
}

const tools::Option OPTIONS[] = {
    {"-P,--product", PRODUCT, "PRODUCT", "product id or name", set<&Options::product>, "Which settings"},
    {"-u,--originator", SCOPE, "ORIGINATOR",
     "originator id or name (default: the Default\nsection)\n\n"
     "By id or by one of its names.",
     set<&Options::originator>},
    {"-L,--logset", SCOPE, "NAME", "log set name; Default is the base of all log sets",
     set<&Options::logset>},

    {"--names", REGISTRATION, "NAMES", "short names of the product, with commas between",
     set<&Options::names>, "Registration"},
    {"--file", REGISTRATION, "FILE", "the product's configuration file; its name holds\n\".conf\"",
     set<&Options::file>},

    {"-k,--kind", MESSAGE, "KIND", "kind: app (default), diag, debug, audit,\nsecure-audit", set<takeKind>,
     "The message to explain"},
    {"-l,--level", MESSAGE, "N", "of diag and debug, 1 to 6 (default 1)", set<&Options::level>},
    {"-p,--priority,--severity", MESSAGE, "N", "of app, 0 to 4 (default 0)", set<&Options::severity>},
    {"--file-originator", MESSAGE, "ORIGINATOR", "whose file is written (zoltLogOpen2)",
     set<&Options::fileOriginator>},
    {"--flags", MESSAGE, "N", "output flags of the message call", set<&Options::flags>},

    {"--export", EXPORT, nullptr, "write what the sections hold as apply takes it", set<&Options::exported>,
     "What to write"},
    {"--dry-run", DRY_RUN, nullptr, "say what would be done, and do nothing", set<&Options::dryRun>,
     "What to do"},
};

std::string footer() {
    std::string text = "Settings:\n";
    for (const CfgKey &key : CFG_KEYS)
        text += std::string("  ") + key.name + ": " + key.help + " (" + key.values + ")" +
                ((key.use & CFG_UNUSED) != 0 ? std::string("; ") + CFG_UNUSED_NOTE : "") + "\n";
    return text + "\nExit status: 0 done, 1 nothing found or problems found, 2 wrong usage, 3 a file or\n"
                  "the configuration cannot be read or changed, 4 the output is incomplete.\n";
}

int runCommand(const tools::Tool &tool, Options &options) {
    const auto &command = static_cast<const Command &>(*options.command);
    if (!options.originator.empty() && !options.logset.empty())
        return tools::usageError(tool, options, "--originator and --logset exclude each other");
    if (!options.config.empty())
        setenv("ZOLTLOG_CFG_LOC", std::filesystem::absolute(options.config).c_str(), 1);
    options.arguments = options.operands;
    if (command.productFirst)
        options.product = options.operands.front();

    tools::Pager pager;
    // A quiet change tells its failures only.
    const int sink = options.quiet ? open("/dev/null", O_WRONLY | O_CLOEXEC) : STDOUT_FILENO;
    tools::Output out(sink);
    if ((command.takes & JSON) != 0 && !options.json && !options.noPager)
        pager.start();
    try {
        const int status = command.run(options, out);
        const bool written = out.flush();
        pager.finish();
        if (written || out.error == EPIPE)
            return status;
        std::fprintf(stderr, "qdlogcfg: the output could not be written: %s\n", std::strerror(out.error));
        return tools::EXIT_PARTIAL;
    } catch (const CommandError &error) {
        out.flush();
        pager.finish();
        std::fprintf(stderr, "qdlogcfg: %s\n", tools::escaped(error.what()).c_str());
        return error.exitCode;
    }
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    try {
        const std::string end = footer();
        const tools::Tool tool = {
            "qdlogcfg",
            "Registers products; shows, changes, checks and explains their log settings.\n",
            tools::rowsOf<tools::Option>(OPTIONS),
            tools::rowsOf<tools::Command>(COMMANDS),
            end.c_str(),
        };
        Options options;
        if (const auto status = tools::parseCommandLine(tool, argc, argv, options))
            return *status;
        return runCommand(tool, options);
    } catch (const std::exception &error) { // out of memory, or a path that cannot be used
        std::fprintf(stderr, "qdlogcfg: %s\n", tools::escaped(error.what()).c_str());
        return tools::EXIT_UNREADABLE;
    }
}
