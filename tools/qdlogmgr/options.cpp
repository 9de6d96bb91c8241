// The commands and options of qdlogmgr: one table of each, which give parsing, help
// and what the manual is checked against.
#include "qdlogmgr/options.h"

#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace qdlogmgr {

namespace {

// ---- the tables ------------------------------------------------------------------

enum Takes : unsigned {
    EVERY = 1,    // all commands
    FILES = 2,    // which files of the series
    TARGET = 4,   // where copies go
    LINK = 8,     //
    REPLACE = 16, //
    VACUUM = 32,  // limits
    REMOVAL = 64, // it removes files
    TABLE = 128,  // it shows a table of files
    PAGED = 256,  // its output may be long
};

const Command COMMANDS[] = {
    {"list", listFiles, EVERY | FILES | TABLE | PAGED, "List the log files of the series",
     "qdlogmgr list --product 5"},
    {"surplus", listSurplus, EVERY | TABLE | PAGED,
     "List the files beyond the number that the configuration keeps", "qdlogmgr surplus --product 5 --json"},
    {"usage", showUsage, EVERY | PAGED, "Show what each series takes on disk", "qdlogmgr usage"},
    {"verify", verifyFiles, EVERY | FILES | PAGED, "Check names, headers, records and counters of the files",
     "qdlogmgr verify --product 5 --originator 7"},
    {"copy", copyFiles, EVERY | FILES | TARGET | REPLACE,
     "Copy files into a directory and compare the copies", "qdlogmgr copy --product 5 --to /srv/save"},
    {"archive", archiveFiles, EVERY | FILES | TARGET | LINK | REMOVAL,
     "Move surplus files into a directory: copied (or linked), compared, then removed",
     "qdlogmgr archive --product 5 --to /srv/archive"},
    {"delete", deleteFiles, EVERY | FILES | REMOVAL, "Remove surplus files, or the files asked for",
     "qdlogmgr delete --product 5 --originator 7 --older-than 30d --dry-run"},
    {"vacuum", vacuumFiles, EVERY | VACUUM | REMOVAL,
     "Remove the oldest files of each series until it fits the limits",
     "qdlogmgr vacuum --product 5 --size 1G"},
};

struct Option {
    const char *names;
    unsigned of;       // commands that take any of these
    const char *value; // name of its value; null: a flag
    const char *help;
    void (*add)(CLI::App &, const Option &, Options &);
};

template<auto Member>
void add(CLI::App &app, const Option &option, Options &options) {
    using Type = std::remove_reference_t<decltype(options.*Member)>;
    if constexpr (std::is_same_v<Type, bool>)
        app.add_flag(option.names, options.*Member, option.help);
    else
        app.add_option(option.names, options.*Member, option.help)->type_name(option.value);
}

// An option may be given as often as there are values; each takes one.
template<auto Member>
void addEach(CLI::App &app, const Option &option, Options &options) {
    app.add_option(option.names, options.*Member, option.help)
        ->type_name(option.value)
        ->allow_extra_args(false);
}

const Option OPTIONS[] = {
    {"-p,--product", EVERY, "PRODUCT", "Series of this product (id or name)", add<&Options::product>},
    {"-o,--originator", EVERY, "ORIGINATOR", "Series of this originator (id or name)",
     add<&Options::originator>},
    {"-l,--logset", EVERY, "NAME", "Series of this log set", add<&Options::logset>},
    {"-D,--directory", EVERY, "DIRECTORY",
     "Series in this directory, configured or not, instead of the configured directories",
     addEach<&Options::directories>},
    {"-a,--all", REMOVAL, nullptr, "All configured series, when nothing else selects them",
     add<&Options::all>},
    {"files", FILES, "FILE", "Only these files of the series (names or paths)", add<&Options::files>},
    {"-s,--surplus", FILES, nullptr, "Only surplus files", add<&Options::surplusOnly>},
    {"--older-than", FILES, "TIME", "Only files last written before this time, or longer ago than this (30d)",
     add<&Options::olderThan>},
    {"-k,--keep", FILES, "N", "All files but the newest N of each series", add<&Options::keep>},
    {"-t,--to", TARGET, "DIRECTORY", "The directory that the files go to", add<&Options::to>},
    {"--link", LINK, nullptr, "Make hard links instead of copies", add<&Options::link>},
    {"--replace", REPLACE, nullptr, "Replace files of the same name in the directory",
     add<&Options::replace>},
    {"--size", VACUUM, "SIZE", "The most that each series may take (512K, 1G)", add<&Options::vacuumSize>},
    {"--age", VACUUM, "SPAN", "Remove files last written longer ago than this (12h, 30d)",
     add<&Options::vacuumAge>},
    {"--count", VACUUM, "N", "The most files that each series may have", add<&Options::vacuumCount>},
    {"-n,--dry-run", REMOVAL | TARGET, nullptr, "Say what would be done, and do nothing",
     add<&Options::dryRun>},
    {"-j,--json", EVERY, nullptr, "Write JSON", add<&Options::json>},
    {"-P,--paths", TABLE, nullptr, "Show whole paths", add<&Options::paths>},
    {"-u,--utc", EVERY, nullptr, "Times in UTC", add<&Options::utc>},
    {"-q,--quiet", EVERY, nullptr, "Print errors only", add<&Options::quiet>},
    {"--no-pager", PAGED, nullptr, "Never start a pager", add<&Options::noPager>},
    {"--color", EVERY, "WHEN", "auto, always or never", add<&Options::colorText>},
    {"-c,--config", EVERY, "FILE",
     "Main configuration file (default: ZOLTLOG_CFG_LOC, else /etc/qd/zoltlog.conf)", add<&Options::config>},
};

// ---- values ----------------------------------------------------------------------

// A span without a sign lies in the past.
bool parsePast(const std::string &text, const Options &options, int64_t &time, std::string &error) {
    int64_t span = 0;
    std::string ignored;
    if (tools::parseSpanText(text, span, ignored)) {
        time = options.now - span;
        return true;
    }
    return tools::parseTimeText(text, options.now, options.zone(), time, error);
}

bool understand(Options &options, const Command &command, std::string &error) {
    options.now = tools::currentTime();
    tools::ColorMode color = tools::ColorMode::Auto;
    if (!tools::parseColorMode(options.colorText, color)) {
        error = "--color is auto, always or never";
        return false;
    }
    options.color = tools::colorWanted(color, isatty(1) != 0);
    if (!options.olderThan.empty() && !parsePast(options.olderThan, options, options.olderThanTime, error))
        return false;
    if (!options.vacuumAge.empty()) {
        int64_t span = 0;
        if (!tools::parseSpanText(options.vacuumAge, span, error))
            return false;
        options.vacuumOldest = options.now - span;
    }
    if (!options.vacuumSize.empty() && !tools::parseSizeText(options.vacuumSize, options.vacuumSizeBytes)) {
        error = "'" + options.vacuumSize + "' is not a size such as 512K or 1G";
        return false;
    }
    if (!options.originator.empty() && !options.logset.empty()) {
        error = "--originator and --logset exclude each other";
        return false;
    }
    if ((command.takes & TARGET) != 0 && options.to.empty()) {
        error = "say where to with --to DIRECTORY";
        return false;
    }
    if ((command.takes & VACUUM) != 0 && options.vacuumSize.empty() && options.vacuumAge.empty() &&
        !options.vacuumCount.has_value()) {
        error = "give a limit: --size, --age or --count";
        return false;
    }
    const bool selects = !options.product.empty() || !options.directories.empty();
    if ((command.takes & REMOVAL) != 0 && !selects && !options.all) {
        error = "say which series: --product, --directory, or --all for every configured one";
        return false;
    }
    return true;
}

} // namespace

std::optional<int> parseCommandLine(int argc, char **argv, Options &options, const Command *&command) {
    CLI::App app("Finds, copies, archives, verifies and removes log files.", "qdlogmgr");
    app.set_version_flag("-V,--version", "qdlogmgr " QDUL_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 done, 1 nothing matched or problems found, 2 wrong usage, 3 files or the\n"
               "configuration cannot be read, 4 done only in part.");
    for (const Command &one : COMMANDS) {
        CLI::App *sub = app.add_subcommand(one.name, one.help);
        for (const Option &option : OPTIONS)
            if ((option.of & one.takes) != 0)
                option.add(*sub, option, options);
        sub->footer(std::string("Example:\n  ") + one.example);
        sub->callback([&command, &one] { command = &one; });
    }
    const auto refuse = [](const std::string &why) {
        std::fprintf(stderr, "qdlogmgr: %s\nTry 'qdlogmgr --help'.\n", tools::escaped(why).c_str());
        return tools::ExitUsage;
    };
    if (argc < 2)
        return refuse("a command is needed");
    const std::string first = argv[1];
    if ((first.empty() || first.front() != '-') &&
        std::none_of(std::begin(COMMANDS), std::end(COMMANDS),
                     [&](const Command &one) { return first == one.name; }))
        return refuse("there is no command '" + first + "'");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) { // --help, --version
            app.exit(error);
            return tools::ExitOk;
        }
        return refuse(error.what());
    }
    std::string error;
    if (understand(options, *command, error))
        return {};
    std::fprintf(stderr, "qdlogmgr %s: %s\n", command->name, tools::escaped(error).c_str());
    return tools::ExitUsage;
}

} // namespace qdlogmgr
