// SPDX-License-Identifier: Apache-2.0
// The commands and options of qdlogmgr: one table of each, which give parsing, help
// and what the manual is checked against.
#include "qdlogmgr/options.h"

#include "common/archive.h"
#include "common/exit_codes.h"
#include "qdlogmgr/commands.h"

#include <string_view>

namespace qdlogmgr {

namespace {

using tools::set;

bool takeCompress(Options &options, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not zstd";
    return options.compress = std::string_view(value) == "zstd";
}

bool takePatterns(Options &options, const char *value, std::string &error) {
    error = "it must not be empty";
    options.redactPatterns = value;
    options.redact = true;
    return value[0] != '\0';
}

// ---- the tables ------------------------------------------------------------------

enum Takes : unsigned {
    EVERY = tools::TAKES_EVERY,
    FILES = tools::FIRST_OWN, // which files of the series
    TARGET = FILES << 1,      // where copies go
    LINK = FILES << 2,
    REPLACE = FILES << 3,
    VACUUM = FILES << 4,  // limits
    REMOVAL = FILES << 5, // it removes files, or begins new ones
    TABLE = FILES << 6,   // it shows a table of files
    CHANGES = FILES << 7, // it can be tried dry
    COMPRESS = FILES << 8,
    BUNDLE = FILES << 9, // what is in a bundle
    COMMON = EVERY | tools::TAKES_JSON | tools::TAKES_PAGES | tools::TAKES_QUIET | tools::TAKES_CONFIG |
             tools::TAKES_COMPLETION,
};

constexpr size_t ANY = tools::ANY_NUMBER;

const Command COMMANDS[] = {
    {{"list", COMMON | FILES | TABLE, 0, "[FILE]...", 0, ANY, "List the log files of the series",
      "qdlogmgr list --product 5"},
     listFiles},
    {{"surplus", COMMON | TABLE, 0, "", 0, 0, "List the files beyond the number that is to be kept",
      "qdlogmgr surplus --product 5 --json"},
     listSurplus},
    {{"usage", COMMON, 0, "", 0, 0, "Show what each series takes on disk", "qdlogmgr usage"}, showUsage},
    {{"verify", COMMON | FILES, 0, "[FILE]...", 0, ANY,
      "Check names, headers, records and counters of the files",
      "qdlogmgr verify --product 5 --originator 7"},
     verifyFiles},
    {{"copy", COMMON | FILES | TARGET | REPLACE | CHANGES, TARGET, "[FILE]...", 0, ANY,
      "Copy files into a directory and compare the copies", "qdlogmgr copy --product 5 --to /srv/save"},
     copyFiles},
    {{"archive", COMMON | FILES | TARGET | LINK | COMPRESS | REMOVAL | CHANGES, TARGET, "[FILE]...", 0, ANY,
      "Move surplus files: copied (or linked), compared, then removed",
      "qdlogmgr archive --product 5 --to /srv/archive"},
     archiveFiles},
    {{"delete", COMMON | FILES | REMOVAL | CHANGES, 0, "[FILE]...", 0, ANY,
      "Remove surplus files, or the files asked for",
      "qdlogmgr delete --product 5 --originator 7 --older-than 30d --dry-run"},
     deleteFiles},
    {{"vacuum", COMMON | VACUUM | REMOVAL | CHANGES, 0, "", 0, 0,
      "Remove the oldest files of each series until it fits", "qdlogmgr vacuum --product 5 --size 1G"},
     vacuumFiles},
    {{"rotate", COMMON | REMOVAL | CHANGES, 0, "", 0, 0, "Begin the next file of each series now",
      "qdlogmgr rotate --product 5 --originator 7"},
     rotateFiles},
    {{"bundle", COMMON | FILES | TARGET | BUNDLE, TARGET, "[FILE]...", 0, ANY,
      "Put logs, settings and findings into one file to send",
      "qdlogmgr bundle --product 5 --since 2024-03-01 -o case.tar.zst"},
     bundleFiles},
};

const tools::Option OPTIONS[] = {
    {"-P,--product", EVERY, "PRODUCT", "series of this product (id or name)", set<&Options::product>,
     "Which series"},
    {"-u,--originator", EVERY, "ORIGINATOR", "series of this originator (id or name)",
     set<&Options::originator>},
    {"-L,--logset", EVERY, "NAME", "series of this log set, by its name or the base\nname of its files",
     set<&Options::logset>},
    {"-D,--directory", EVERY, "DIRECTORY",
     "series in this directory, configured or not, instead\nof the configured directories\n\n"
     "May be given several times.",
     set<&Options::directories>},
    {"-a,--all", REMOVAL, nullptr,
     "all configured series, when nothing else selects\nthem\n\n"
     "Commands that remove files, and *rotate*, need this, *--product* or *--directory*.",
     set<&Options::all>},

    {"-s,--surplus", FILES, nullptr,
     "only surplus files\n\n"
     "This is what *archive* and *delete* do when neither files nor one of the next two\n"
     "options is given.",
     set<&Options::surplusOnly>, "Which files"},
    {"--older-than", FILES, "TIME",
     "only files last written before this time, or longer\nago than this (30d)\n\n"
     "A time is 2024-03-01, yesterday, monday 8:00 and the like.",
     set<&Options::olderThan>},
    {"--keep", FILES, "N", "all files but the newest N of each series", set<&Options::keep>},

    {"-o,--to", TARGET, "DIRECTORY",
     "the directory that the files go to; of a bundle the\nfile\n\n"
     "The directory must exist; the name of a bundle ends in *.tar.zst*, *.tar.gz* or *.tar*.",
     set<&Options::to>, "What to do"},
    {"--link", LINK, nullptr,
     "make hard links instead of copies\n\n"
     "On the same file system only.",
     set<&Options::link>},
    {"--compress", COMPRESS, "FORMAT",
     "compress the copies: zstd\n\n"
     "The name gets *.zst* behind it; what is compressed already is copied as it is. The copy is\n"
     "unpacked and compared before the file is removed. All tools read such files.",
     set<takeCompress>},
    {"--replace", REPLACE, nullptr,
     "replace files of the same name in the directory\n\n"
     "Without it such a file is an error.",
     set<&Options::replace>},
    {"--size", VACUUM, "SIZE", "the most that each series may take (512K, 1G)", set<&Options::vacuumSize>},
    {"--age", VACUUM, "SPAN", "remove files last written longer ago than this (12h,\n30d)",
     set<&Options::vacuumAge>},
    {"--count", VACUUM, "N", "the most files that each series may have", set<&Options::vacuumCount>},
    {"-S,--since", BUNDLE, "TIME", "records at or after a time: 2024-03-01 13:45,\nyesterday, -2h30m",
     set<&Options::since>},
    {"-U,--until", BUNDLE, "TIME", "records at or before a time", set<&Options::until>},
    {"--redact", BUNDLE, nullptr,
     "replace what tells of persons and machines\n\n"
     "E-mail and IP addresses, also those in names of files, subjects of audit records, names of\n"
     "the system's accounts and of home directories become tokens such as <ip-1a2b3c4d5e>: the\n"
     "same text has the same token all over the bundle, another in the next. Damaged lines are\n"
     "left out. Look through the bundle all the same: nobody knows all that texts may tell.",
     set<&Options::redact>},
    {"--redact-patterns", BUNDLE, "FILE",
     "also what these regular expressions match, one in\neach line\n\n"
     "Lines that begin with # are comments. Includes *--redact*.",
     set<takePatterns>},
    {"--dry-run", CHANGES, nullptr, "say what would be done, and do nothing", set<&Options::dryRun>},

    {"--paths", TABLE, nullptr, "show whole paths", set<&Options::paths>, "How to show it"},
    {"--utc", EVERY, nullptr, "times in UTC", set<&Options::utc>},
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

bool understand(Options &options, std::string &error) {
    const unsigned takes = options.command->takes;
    options.now = tools::currentTime();
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
    if ((takes & BUNDLE) != 0) {
        if (!options.since.empty() &&
            !tools::parseTimeText(options.since, options.now, options.zone(), options.sinceTime, error))
            return false;
        if (!options.until.empty() &&
            !tools::parseTimeText(options.until, options.now, options.zone(), options.untilTime, error))
            return false;
        if (tools::archiveSuffix(options.to).empty()) {
            error = "the name of a bundle ends in .tar.zst, .tar.gz or .tar";
            return false;
        }
    }
    if (options.compress && options.link) {
        error = "--compress and --link exclude each other";
        return false;
    }
    if (!options.originator.empty() && !options.logset.empty()) {
        error = "--originator and --logset exclude each other";
        return false;
    }
    if ((takes & VACUUM) != 0 && options.vacuumSize.empty() && options.vacuumAge.empty() &&
        !options.vacuumCount.has_value()) {
        error = "give a limit: --size, --age or --count";
        return false;
    }
    const bool selects = !options.product.empty() || !options.directories.empty();
    if ((takes & REMOVAL) != 0 && !selects && !options.all) {
        error = "say which series: --product, --directory, or --all for every configured one";
        return false;
    }
    return true;
}

} // namespace

std::optional<int> parseCommandLine(int argc, char **argv, Options &options) {
    const tools::Tool tool = {
        "qdlogmgr",
        "Finds, copies, archives, verifies and removes log files.\n",
        tools::rowsOf<tools::Option>(OPTIONS),
        tools::rowsOf<tools::Command>(COMMANDS),
        "Exit status: 0 done, 1 nothing matched or problems found, 2 wrong usage, 3 files\n"
        "or the configuration cannot be read, 4 done only in part.\n",
    };
    if (const auto status = tools::parseCommandLine(tool, argc, argv, options))
        return status;
    options.files = options.operands;
    std::string error;
    if (understand(options, error))
        return {};
    return tools::usageError(tool, options, error);
}

} // namespace qdlogmgr
