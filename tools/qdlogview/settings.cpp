// SPDX-License-Identifier: Apache-2.0
// The option table of qdlogview.
#include "qdlogview/settings.h"

#include "common/exit_codes.h"
#include "qdlogview/sources.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <sys/stat.h>

namespace qdlogview {

namespace {

using tools::set;

// Calls take for every item of a list with commas.
template<typename F>
bool eachItem(std::string_view list, const F &take) {
    for (;;) {
        const size_t comma = list.find(',');
        if (!take(list.substr(0, comma)))
            return false;
        if (comma == std::string_view::npos)
            return true;
        list.remove_prefix(comma + 1);
    }
}

// 5, 5..9, 5.., ..9, and lists of these
template<auto Member>
bool takeRanges(Settings &settings, const char *value, std::string &error) {
    return eachItem(value, [&](std::string_view item) {
        NumberRange range{0, UINT64_MAX};
        const size_t dots = item.find("..");
        const std::string_view first = item.substr(0, dots);
        const std::string_view last = dots != std::string_view::npos ? item.substr(dots + 2) : first;
        const bool good =
            (dots != std::string_view::npos && first.empty()) || tools::parseNumber(first, range.first);
        if (!good ||
            (!(dots != std::string_view::npos && last.empty()) && !tools::parseNumber(last, range.last)) ||
            range.first > range.last || item == "..") {
            error = "'" + std::string(item) + "' is not a number or a range such as 5..9";
            return false;
        }
        (settings.*Member).push_back(range);
        return true;
    });
}

// error, error..info: this and worse, or a range
bool takePriority(Settings &settings, const char *value, std::string &error) {
    const std::string_view text = value;
    const size_t dots = text.find("..");
    settings.hasPriority = true;
    settings.highestPriority = tools::RANK_EMERGENCY;
    const char *name = nullptr;
    bool good = tools::parseRank(text.substr(0, dots), settings.lowestPriority, name);
    if (good && dots != std::string_view::npos) {
        good = tools::parseRank(text.substr(dots + 2), settings.highestPriority, name);
        if (settings.lowestPriority > settings.highestPriority)
            std::swap(settings.lowestPriority, settings.highestPriority);
    }
    if (!good)
        error = "'" + std::string(text) +
                "' is not a severity (debug, diagnostic, info, context, audit, warning, error, critical, "
                "emergency)";
    return good;
}

bool takeLevel(Settings &settings, const char *value, std::string &error) {
    const std::string_view text = value;
    const size_t dots = text.find("..");
    settings.hasLevel = true;
    settings.lowestLevel = INT32_MIN;
    bool good = tools::parseNumber(text.substr(0, dots), settings.highestLevel);
    if (good && dots != std::string_view::npos) {
        settings.lowestLevel = settings.highestLevel;
        good = tools::parseNumber(text.substr(dots + 2), settings.highestLevel);
    }
    if (!good)
        error = "'" + std::string(text) + "' is not a level such as 3, or a range such as 2..4";
    return good;
}

bool takeKinds(Settings &settings, const char *value, std::string &error) {
    return eachItem(value, [&](std::string_view item) {
        uint32_t kind = 0;
        if (!tools::parseKind(item, kind)) {
            error =
                "'" + std::string(item) + "' is not a kind (debug, diagnostic, application, context, audit)";
            return false;
        }
        settings.kinds.push_back(kind);
        return true;
    });
}

bool findField(std::string_view name, tools::Field &field, std::string &error) {
    field = tools::findField(name);
    if (field == nullptr)
        error = "'" + std::string(name) + "' is not a field (--complete fields lists them)";
    return field != nullptr;
}

bool takeFields(Settings &settings, const char *value, std::string &error) {
    return eachItem(value, [&](std::string_view item) {
        tools::Field field = nullptr;
        if (!findField(item, field, error))
            return false;
        settings.fields.push_back(field);
        return true;
    });
}

struct FormatRow {
    const char *name;
    Format format;
    bool isoTimes = false, prettyJson = false;
    const char *layout = nullptr;
};
constexpr FormatRow FORMATS[] = {{"short", Format::Short},
                                 {"full", Format::Full},
                                 {"json", Format::Json},
                                 {"csv", Format::Csv},
                                 {"raw", Format::Raw},
                                 {"template", Format::Template},
                                 {"short-iso", Format::Short, true},
                                 {"json-pretty", Format::Json, false, true},
                                 {"cat", Format::Template, false, false, "{text_lines}"},
                                 {"otlp-json", Format::Otlp},
                                 {"journal", Format::Journal},
                                 {"postgres", Format::Postgres},
                                 {"rfc5424", Format::Rfc5424},
                                 {"html", Format::Html}};

bool takeFormat(Settings &settings, const char *value, std::string &error) {
    for (const FormatRow &row : FORMATS) {
        if (std::string_view(row.name) == value) {
            settings.format = row.format;
            settings.formatName = row.name;
            settings.isoTimes = row.isoTimes;
            settings.prettyJson = row.prettyJson;
            if (row.layout != nullptr)
                settings.layout = row.layout;
            settings.hasFormat = true;
            return true;
        }
    }
    error = std::string("'") + value + "' is not an output format (";
    for (const FormatRow &row : FORMATS)
        error += std::string(&row != FORMATS ? ", " : "") + row.name;
    error += ")";
    return false;
}

bool setReport(Settings &settings, Report report, std::string &error) {
    if (settings.report != Report::None && settings.report != report) {
        error = "only one of --count, --stats, --list-runs, --field, --gaps and --verify can be asked for";
        return false;
    }
    settings.report = report;
    return true;
}

template<Report Kind>
bool takeReport(Settings &settings, const char *, std::string &error) {
    return setReport(settings, Kind, error);
}

bool takeValuesOf(Settings &settings, const char *value, std::string &error) {
    return findField(value, settings.valuesOf, error) && setReport(settings, Report::Values, error);
}

bool takeOutcome(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a number";
    return settings.hasOutcome = tools::parseNumber(value, settings.outcome);
}

bool takeGrep(Settings &settings, const char *value, std::string &) {
    settings.grep = value;
    return settings.hasGrep = true;
}

bool takeAround(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a number";
    return tools::parseNumber(value, settings.after) && tools::parseNumber(value, settings.before);
}

bool takeLines(Settings &settings, const char *value, std::string &error) {
    settings.hasLines = true;
    settings.lines = ALL_LINES;
    error = std::string("'") + value + "' is not a number";
    return std::string_view(value) == "all" || tools::parseNumber(value, settings.lines);
}

bool takeMaxCount(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a number from 1 on";
    return tools::parseNumber(value, settings.maxCount) && settings.maxCount > 0;
}

bool takeTimeout(Settings &settings, const char *value, std::string &error) {
    if (!tools::parseSpanText(value, settings.timeout, error))
        return false;
    error = "0 is no time";
    return settings.timeout > 0;
}

bool takeSpoolSize(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a size such as 512K or 16M";
    settings.hasSpoolOption = true;
    return tools::parseSizeText(value, settings.spoolSize) && settings.spoolSize > 0;
}

bool takeSpoolKeep(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a size such as 100M or 1G";
    settings.hasSpoolOption = true;
    return tools::parseSizeText(value, settings.spoolKeep);
}

bool takeSpoolAge(Settings &settings, const char *value, std::string &error) {
    settings.hasSpoolOption = true;
    return tools::parseSpanText(value, settings.spoolAge, error);
}

bool takeZone(Settings &settings, const char *value, std::string &error) {
    settings.zone = value;
    const char *directory = std::getenv("TZDIR");
    const std::string path =
        std::string(directory != nullptr ? directory : "/usr/share/zoneinfo") + "/" + value;
    struct stat status {};
    error = std::string("there is no time zone '") + value + "'";
    return value[0] != '\0' && settings.zone.find("..") == std::string::npos &&
           stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool takePer(Settings &settings, const char *value, std::string &error) {
    const std::string_view unit = value;
    settings.per = unit == "minute" ? Per::Minute
                   : unit == "hour" ? Per::Hour
                   : unit == "day"  ? Per::Day
                                    : Per::None;
    error = std::string("'") + value + "' is not minute, hour or day";
    return settings.per != Per::None;
}

bool takeRun(Settings &settings, const char *value, std::string &error) {
    error = std::string("'") + value + "' is not a number";
    return settings.hasRun = tools::parseNumber(value, settings.run);
}

bool takeTemplate(Settings &settings, const char *value, std::string &error) {
    settings.layout = value;
    return takeFormat(settings, "template", error);
}

// ---- the tables --------------------------------------------------------------------

constexpr unsigned EVERY = tools::TAKES_EVERY;

const tools::Command COMMANDS[] = {
    {"",
     EVERY | tools::TAKES_JSON | tools::TAKES_PAGES | tools::TAKES_QUIET | tools::TAKES_CONFIG |
         tools::TAKES_COMPLETION,
     0, "[FILE|DIRECTORY]...", 0, tools::ANY_NUMBER, "", nullptr},
};

const tools::Option TABLE[] = {
    {"-D,--directory", EVERY, "DIR", "read the log files of a directory, as if it\nwere an operand",
     set<&Settings::paths>, "Files"},
    {"-P,--product", EVERY, "ID|NAME",
     "of this product; without files and directories the\nconfiguration says where they are",
     set<&Settings::product>},
    {"-L,--logset", EVERY, "NAME", "files of this log set", set<&Settings::logSet>},
    {"--file-originator", EVERY, "ID|NAME",
     "files of this originator\n\n"
     "Faster than *-u*, which has to read all files of a product, since originators may\n"
     "share files.",
     set<&Settings::fileOriginator>},

    {"-S,--since", EVERY, "TIME",
     "records at or after a time: 2024-03-01 13:45,\n13:45, yesterday, -2h30m, '2 hours ago', @EPOCH\n\n"
     "See TIMES. In large files the place is found by bisection; see *--scan*.",
     set<&Settings::since>, "Records"},
    {"-U,--until", EVERY, "TIME", "records at or before a time", set<&Settings::until>},
    {"-k,--kind", EVERY, "KIND,...",
     "these kinds: debug, diagnostic, application,\ncontext, audit\n\n"
     "Or their first letters, three or more.",
     set<takeKinds>},
    {"-p,--priority,--severity", EVERY, "SEV",
     "records of this severity and worse, whatever their\nkind, or of a range: error, audit..error\n\n"
     "See SEVERITIES. The numbers 0 to 4 are those that writers of application messages\n"
     "give, from info to emergency.",
     set<takePriority>},
    {"-l,--level", EVERY, "N",
     "debug and diagnostic records of this level and\nbelow, or of a range: 3, 2..4\n\n"
     "Level 1 is the most important, 6 the most detailed. With *-p* and *-l* these two kinds\n"
     "are judged by their level and all others by their severity.",
     set<takeLevel>},
    {"-u,--originator", EVERY, "ID|NAME", "records of this originator", set<&Settings::originator>},
    {"-t,--who", EVERY, "PATTERN",
     "records of this component (*, ? and [] match as in\nthe shell)\n\n"
     "Of debug, diagnostic and application records. May be given several times, as other\n"
     "patterns may.",
     set<&Settings::who>},
    {"-c,--context", EVERY, "PATTERN", "records of this context, and the record of the\ncontext itself",
     set<&Settings::context>},
    {"--pid", EVERY, "N",
     "records of these processes: 5, 5..9, 5,7\n\n"
     "A number, a range (5..9, 5.., ..9), or a list of these with commas.",
     set<takeRanges<&Settings::pids>>},
    {"--tid", EVERY, "N", "records of these threads", set<takeRanges<&Settings::tids>>},
    {"--message-id", EVERY, "N",
     "records with these message ids\n\n"
     "The sequence number where the caller gave none.",
     set<takeRanges<&Settings::messageIds>>},
    {"--subject", EVERY, "PATTERN", "audit records of this subject", set<&Settings::subject>},
    {"--outcome", EVERY, "N", "audit records with this outcome", set<takeOutcome>},
    {"--run", EVERY, "N",
     "records of a process run as --list-runs counts them\n(0: the last, -1: the one before)\n\n"
     "1 is the first of those that *--list-runs* tells for the same files.",
     set<takeRun>},
    {"--host", EVERY, "PATTERN", "records written on this host", set<&Settings::host>},
    {"-w,--where", EVERY, "QUERY",
     "records for which a query holds, for example\n'severity >= error and (who = mgr or text ~ "
     "\"disk\")'\n\n"
     "See QUERIES.",
     set<&Settings::where>},
    {"-g,--grep", EVERY, "REGEX",
     "records whose text matches\n\n"
     "A regular expression of PCRE2.",
     set<takeGrep>},
    {"-i,--ignore-case", EVERY, nullptr, "-g without regard to upper and lower case",
     set<&Settings::ignoreCase>},
    {"-v,--invert-match", EVERY, nullptr, "records whose text does not match -g", set<&Settings::invert>},
    {"-A,--after-context", EVERY, "N",
     "also N records after each match of -g\n\n"
     "Neighbours among the records that the other conditions leave. Groups are parted by\n"
     "\"--\".",
     set<&Settings::after>},
    {"-B,--before-context", EVERY, "N", "also N records before each match of -g", set<&Settings::before>},
    {"-C,--around", EVERY, "N", "N records before and after each match of -g", set<takeAround>},

    {"-n,--lines", EVERY, "N",
     "the last N records only (10 without a number; all:\nno limit)\n\n"
     "Found from the ends of the files.",
     set<takeLines>, "Order and amount", "10"},
    {"-m,--max-count", EVERY, "N", "stop after N records", set<takeMaxCount>},
    {"-r,--reverse", EVERY, nullptr, "newest records first", set<&Settings::reverse>},
    {"-f,--follow", EVERY, nullptr,
     "go on with new records as they are written, over\nrollovers\n\n"
     "Begins with the last 10 records, or with *-n*; with *-S* or a cursor from there. A\n"
     "file that is named is followed into the later files of its series.",
     set<&Settings::follow>},
    {"--timeout", EVERY, "SPAN", "stop following after a time: 90s, 5m", set<takeTimeout>},
    {"--scan", EVERY, nullptr,
     "look for times in whole files, also where they are\nin order\n\n"
     "*qdlogview* looks at places all over a large file and reads it whole when times go\n"
     "back between them; a clock that was set back for a moment between two such places can\n"
     "be missed without this option.",
     set<&Settings::scan>},

    {"--after-cursor", EVERY, "CURSOR",
     "go on behind a place that --show-cursor told\n\n"
     "\"_file_@_offset_\", with the members of that name in json output, begins at that\n"
     "record.",
     set<&Settings::afterCursor>, "Cursors"},
    {"--cursor-file", EVERY, "FILE",
     "go on behind the place in FILE, and keep the place\nreached there\n\n"
     "From the begin when the file does not exist. While following, the place is kept after\n"
     "each output, and at SIGINT and SIGTERM, so that nothing is shown twice or left out.\n"
     "After a crash of *qdlogview* itself the last records may come again; with *--spool*\n"
     "they do not.",
     set<&Settings::cursorFile>},
    {"--show-cursor", EVERY, nullptr,
     "tell the place reached at the end\n\n"
     "As a last line \"-- cursor: ...\".",
     set<&Settings::showCursor>},

    {"--spool", EVERY, "DIR",
     "write files for a shipper into a directory instead\n\n"
     "Needs *--cursor-file*. Each record comes into one file once, also when *qdlogview* is\n"
     "killed or the machine stops at any moment. See SPOOLS.",
     set<&Settings::spool>, "Files for shippers"},
    {"--spool-size", EVERY, "SIZE", "how large such a file becomes (16M)", set<takeSpoolSize>},
    {"--spool-age", EVERY, "SPAN",
     "publish a file that is smaller after this time (5s)\n\n"
     "As far as records come; an empty file is never published.",
     set<takeSpoolAge>},
    {"--spool-keep", EVERY, "SIZE",
     "drop the oldest files beyond this size of all (1G;\n0: never)\n\n"
     "What is dropped is told on standard error, with the number of its records, and the\n"
     "exit status is 4.",
     set<takeSpoolKeep>},

    {"-o,--output", EVERY, "FORMAT",
     "form of the output: short, short-iso, full, json,\njson-pretty, csv, raw, cat, template, html,\n"
     "otlp-json, journal, postgres, rfc5424\n\n"
     "*short* and *short-iso* (with a complete time): time, severity with level,\n"
     "product/originator with their names where the configuration has them,\n"
     "component[process], (context), text; the lines of a text one below the other. *full*:\n"
     "every field on a line of its own. *json*: one object for each record (see JSON);\n"
     "*json-pretty*: the same over several lines. *csv*: with a line of titles. *raw*: the\n"
     "stored lines, with the header line of their file where it changes; the output is a log\n"
     "file again. *cat*: only the texts. *template*: see *--template*. *html*: a page with the\n"
     "records in it, to send to somebody and to look at in a browser (see HTML).\n"
     "\n"
     "For other systems: *otlp-json*: a line of OTLP/JSON (the logs of OpenTelemetry), with\n"
     "trace and span when the context is a W3C traceparent. *journal*: the export format of\n"
     "systemd's journal, with the fields as QDUL\\_PRODUCT and so on. *postgres*: the text form\n"
     "of COPY, for the tables of docs/sql/qdul.sql. *rfc5424*: a line of the system log's protocol, with\n"
     "the fields as structured data.",
     set<takeFormat>, "Output"},
    {"--template", EVERY, "TEXT",
     "a line for each record: '{time} {kind} {text}'\n\n"
     "With fields in braces. \\\\t and \\\\n are tab and line feed, {{ and }} are braces. Fields\n"
     "that a record does not have are empty.",
     set<takeTemplate>},
    {"--fields", EVERY, "FIELD,...", "only these fields in full, json, csv and postgres,\nin this order",
     set<takeFields>},
    {"--utc", EVERY, nullptr, "times in UTC, also those of -S and -U", set<&Settings::utc>},
    {"--zone", EVERY, "ZONE",
     "times of a zone such as Europe/Berlin, also those of\n-S and -U\n\n"
     "A name of the time zone database; *-w* reads times so, too.",
     set<takeZone>},
    {"--writer-time", EVERY, nullptr,
     "times in the writer's local time\n\n"
     "As the header of its file tells it.",
     set<&Settings::writerTime>},
    {"--ids-as-text", EVERY, nullptr,
     "ids as texts in json (for readers that round large\nnumbers)\n\n"
     "They may be above 2^53.",
     set<&Settings::idsAsText>},
    {"--with-line", EVERY, nullptr, "the stored line as field \"line\" in json", set<&Settings::withLine>},
    {"--raw", EVERY, nullptr,
     "control characters of texts as they are in short,\nfull and template\n\n"
     "Otherwise they are shown as \\\\e, \\\\r, \\\\x07, so that no text can steer the terminal.",
     set<&Settings::rawText>},

    {"--count", EVERY, nullptr, "only the number of records", set<takeReport<Report::Count>>,
     "Instead of records"},
    {"--stats", EVERY, nullptr,
     "counts by kind, severity, originator and component\n\n"
     "With *-o json* all values.",
     set<takeReport<Report::Stats>>},
    {"--per", EVERY, "UNIT",
     "--stats also over time: minute, hour or day\n\n"
     "In a table with a bar for each of them.",
     set<takePer>},
    {"--list-runs", EVERY, nullptr,
     "the process runs: first and last record, worst\nseverity\n\n"
     "With their host, process and number of records. A process number that comes again\n"
     "after a day is another run.",
     set<takeReport<Report::Runs>>},
    {"-F,--field", EVERY, "FIELD",
     "the values of a field and how often each occurs\n\n"
     "With *-n* the most frequent.",
     set<takeValuesOf>},
    {"--gaps", EVERY, nullptr,
     "sequence numbers and files that are missing\n\n"
     "By process, originator and context, and by the names of files. Each open log and each\n"
     "context counts from 1. A message with an id of the caller's uses up a number as well,\n"
     "so a gap is a question, not a proof.",
     set<takeReport<Report::Gaps>>},
    {"--verify", EVERY, nullptr,
     "check every record; tell what is torn and where\n\n"
     "The header, and the numbers, lengths, attributes and argument block of every record.\n"
     "Damage is a problem; times that go back, a missing header and the like are notes.",
     set<takeReport<Report::Verify>>},
};

bool complete(tools::CommonOptions &settings, std::vector<std::string> &words, int &status) {
    const std::string &what = settings.complete;
    if (what == "fields") {
        for (const tools::FieldRow &row : tools::allFields())
            words.emplace_back(row.name);
    } else if (what == "kinds") {
        for (const uint32_t kind :
             {ZOLTLOG_MSG_DEBUG, ZOLTLOG_MSG_DIAG, ZOLTLOG_MSG_APP, ZOLTLOG_MSG_CONTEXT, ZOLTLOG_MSG_AUDIT})
            words.emplace_back(tools::kindName(kind));
    } else if (what == "severities") {
        for (const char *name : tools::rankNames())
            words.emplace_back(name);
    } else if (what == "outputs") {
        for (const FormatRow &row : FORMATS)
            words.emplace_back(row.name);
    } else if (what == "products" || what == "originators" || what == "logsets") {
        if (!configuredNames(what, static_cast<const Settings &>(settings).product, words))
            status = tools::EXIT_UNREADABLE; // completion stays silent
    } else {
        return false;
    }
    return true;
}

tools::Tool makeTool() {
    return {
        "qdlogview",
        "Shows, filters, follows and exports log files. Without files and directories it\n"
        "reads those of all products that are configured; - is standard input.\n",
        tools::rowsOf<tools::Option>(TABLE),
        tools::rowsOf<tools::Command>(COMMANDS),
        "Exit status: 0 records were shown, 1 none matched or --verify and --gaps found\n"
        "something, 2 wrong usage, 3 a file or the configuration could not be read,\n"
        "4 the output is not complete.\n",
        complete,
        ", fields, kinds, severities, outputs, products,\noriginators, logsets",
    };
}

// What cannot go together, or "".
std::string contradiction(const Settings &settings) {
    const bool reading = settings.report == Report::None;
    const bool cursor = !settings.afterCursor.empty() || !settings.cursorFile.empty() || settings.showCursor;
    const bool aroundMatches = settings.before > 0 || settings.after > 0;
    const bool spool = !settings.spool.empty();
    const struct {
        bool wrong;
        const char *text;
    } rows[] = {
        {spool && settings.cursorFile.empty(), "--spool needs --cursor-file"},
        {spool && (!reading || settings.hasLines || settings.reverse || aroundMatches ||
                   settings.showCursor || !settings.afterCursor.empty()),
         "--spool excludes reports, -n, -r, -A, -B, -C, --show-cursor and --after-cursor"},
        {!spool && settings.hasSpoolOption, "--spool-size, --spool-age and --spool-keep need --spool"},
        {settings.spoolKeep != 0 && settings.spoolKeep / 2 < settings.spoolSize,
         "--spool-keep must be twice --spool-size or more"},
        {settings.json && settings.hasFormat && settings.format != Format::Json,
         "--json is -o json; it excludes another format"},
        {settings.hasLines && settings.lines == 0 && !settings.follow, "-n 0 shows nothing without -f"},
        {(settings.utc ? 1 : 0) + (settings.writerTime ? 1 : 0) + (settings.zone.empty() ? 0 : 1) > 1,
         "--utc, --zone and --writer-time exclude each other"},
        {settings.per != Per::None && settings.report != Report::Stats, "--per needs --stats"},
        {settings.hasRun && settings.report == Report::Verify, "--run cannot be used with --verify"},
        {!settings.hasGrep && (settings.invert || settings.ignoreCase || aroundMatches),
         "-i, -v, -A, -B and -C need -g"},
        {settings.follow && settings.reverse, "-f and -r exclude each other"},
        {settings.follow && !reading, "-f shows records; it cannot be used with reports"},
        {settings.follow && !settings.until.empty(), "-f and -U exclude each other"},
        {settings.timeout > 0 && !settings.follow, "--timeout needs -f"},
        {cursor && settings.reverse, "cursors go forwards; they cannot be used with -r"},
        {cursor && (settings.report == Report::Gaps || settings.report == Report::Verify),
         "cursors cannot be used with --gaps and --verify"},
        {aroundMatches && (settings.reverse || settings.follow),
         "-A, -B and -C cannot be used with -r and -f"},
        {!settings.layout.empty() && settings.format != Format::Template, "--template needs -o template"},
        {!settings.fields.empty() && settings.report == Report::None && settings.format != Format::Full &&
             settings.format != Format::Csv && settings.format != Format::Postgres &&
             settings.format != Format::Json && !settings.json,
         "--fields is for full, csv, postgres and json"},
        {settings.format == Format::Html && (settings.follow || spool),
         "-o html is a whole page; it excludes -f and --spool"},
        {settings.format >= Format::Otlp && !reading, "this output is for records"},
        {settings.format == Format::Template && settings.layout.empty(), "-o template needs --template"},
        {settings.format == Format::Csv && settings.report != Report::None &&
             settings.report != Report::Values,
         "csv is for records and --field"},
    };
    for (const auto &row : rows) {
        if (row.wrong)
            return row.text;
    }
    return "";
}

} // namespace

int usageError(const Settings &settings, const std::string &why) {
    return tools::usageError(makeTool(), settings, why);
}

std::optional<int> parseCommandLine(int argc, char **argv, Settings &settings) {
    const tools::Tool tool = makeTool();
    if (const auto status = tools::parseCommandLine(tool, argc, argv, settings))
        return status;
    settings.paths.insert(settings.paths.end(), settings.operands.begin(), settings.operands.end());
    const std::string error = contradiction(settings);
    if (!error.empty())
        return tools::usageError(tool, settings, error);
    if (settings.json)
        settings.format = Format::Json;
    if (!settings.zone.empty()) {
        setenv("TZ", settings.zone.c_str(), 1);
        tzset();
    }
    return {};
}

} // namespace qdlogview
