// The option table of qdlogview.
#include "qdlogview/settings.h"

#include "common/option_table.h"

#include <charconv>
#include <string_view>

namespace qdlogview {

namespace {

template<typename T>
bool wholeNumber(std::string_view text, T &value) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && !text.empty();
}

bool takeNumber(const char *text, uint64_t &value, std::string &error) {
    if (wholeNumber(text, value))
        return true;
    error = std::string("'") + text + "' is not a number";
    return false;
}

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
bool takeRanges(const char *text, std::vector<NumberRange> &ranges, std::string &error) {
    return eachItem(text, [&](std::string_view item) {
        NumberRange range{0, UINT64_MAX};
        const size_t dots = item.find("..");
        const std::string_view first = item.substr(0, dots);
        const std::string_view last = dots != std::string_view::npos ? item.substr(dots + 2) : first;
        const bool good =
            (dots != std::string_view::npos && first.empty()) || wholeNumber(first, range.first);
        if (!good || (!(dots != std::string_view::npos && last.empty()) && !wholeNumber(last, range.last)) ||
            range.first > range.last || item == "..") {
            error = "'" + std::string(item) + "' is not a number or a range such as 5..9";
            return false;
        }
        ranges.push_back(range);
        return true;
    });
}

// error, error..info: this and worse, or a range
bool takePriority(Settings &settings, const char *value, std::string &error) {
    const std::string_view text = value;
    const size_t dots = text.find("..");
    settings.hasPriority = true;
    settings.highestPriority = 4;
    bool good = tools::parseSeverity(text.substr(0, dots), settings.lowestPriority);
    if (good && dots != std::string_view::npos) {
        good = tools::parseSeverity(text.substr(dots + 2), settings.highestPriority);
        if (settings.lowestPriority > settings.highestPriority)
            std::swap(settings.lowestPriority, settings.highestPriority);
    }
    if (!good)
        error = "'" + std::string(text) +
                "' is not a severity (info, warning, error, critical, emergency, 0 to 4)";
    return good;
}

bool takeLevel(Settings &settings, const char *value, std::string &error) {
    const std::string_view text = value;
    const size_t dots = text.find("..");
    settings.hasLevel = true;
    settings.lowestLevel = INT32_MIN;
    bool good = wholeNumber(text.substr(0, dots), settings.highestLevel);
    if (good && dots != std::string_view::npos) {
        settings.lowestLevel = settings.highestLevel;
        good = wholeNumber(text.substr(dots + 2), settings.highestLevel);
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

bool takeField(const char *value, tools::Field &field, std::string &error) {
    const tools::FieldRow *row = tools::findField(value);
    if (row == nullptr) {
        error = std::string("'") + value + "' is not a field (--complete fields lists them)";
        return false;
    }
    field = row->field;
    return true;
}

bool takeFields(Settings &settings, const char *value, std::string &error) {
    return eachItem(value, [&](std::string_view item) {
        tools::Field field{};
        if (!takeField(std::string(item).c_str(), field, error))
            return false;
        settings.fields.push_back(field);
        return true;
    });
}

struct FormatRow {
    const char *name;
    Format format;
};
constexpr FormatRow formats[] = {{"short", Format::Short}, {"full", Format::Full},
                                 {"json", Format::Json},   {"csv", Format::Csv},
                                 {"raw", Format::Raw},     {"template", Format::Template}};

bool takeFormat(Settings &settings, const char *value, std::string &error) {
    for (const FormatRow &row : formats) {
        if (std::string_view(row.name) == value) {
            settings.format = row.format;
            settings.hasFormat = true;
            return true;
        }
    }
    error = std::string("'") + value + "' is not an output format (short, full, json, csv, raw, template)";
    return false;
}

bool takeReport(Settings &settings, Report report, std::string &error) {
    if (settings.report != Report::None && settings.report != report) {
        error = "only one of --count, --stats, --field, --gaps and --verify can be asked for";
        return false;
    }
    settings.report = report;
    return true;
}

#define SET [](Settings & settings, const char *value, std::string &error) -> bool
#define UNUSED                                                                                               \
    (void)settings;                                                                                          \
    (void)value;                                                                                             \
    (void)error
#define FLAG(member)                                                                                         \
    SET {                                                                                                    \
        UNUSED;                                                                                              \
        return settings.member = true;                                                                       \
    }
#define TEXT(member)                                                                                         \
    SET {                                                                                                    \
        UNUSED;                                                                                              \
        settings.member = value;                                                                             \
        return true;                                                                                         \
    }
#define LIST(member)                                                                                         \
    SET {                                                                                                    \
        UNUSED;                                                                                              \
        settings.member.emplace_back(value);                                                                 \
        return true;                                                                                         \
    }
#define RANGES(member)                                                                                       \
    SET {                                                                                                    \
        UNUSED;                                                                                              \
        return takeRanges(value, settings.member, error);                                                    \
    }
#define REPORT(kind)                                                                                         \
    SET {                                                                                                    \
        UNUSED;                                                                                              \
        return takeReport(settings, Report::kind, error);                                                    \
    }

constexpr tools::Option<Settings> table[] = {
    {'D', "directory", "DIR", "read the log files of a directory, as if it\nwere an operand", LIST(paths),
     "Files"},
    {'P', "product", "ID|NAME",
     "of this product; without files and directories the\nconfiguration says where they are", TEXT(product)},
    {'L', "logset", "NAME", "files of this log set", TEXT(logSet)},
    {0, "file-originator", "ID|NAME", "files of this originator", TEXT(fileOriginator)},
    {0, "config", "FILE", "configuration file in place of the usual one", TEXT(config)},

    {'S', "since", "TIME",
     "records at or after a time: 2024-03-01 13:45,\n13:45, yesterday, -2h30m, '2 hours ago', @EPOCH",
     TEXT(since), "Records"},
    {'U', "until", "TIME", "records at or before a time", TEXT(until)},
    {'k', "kind", "KIND,...", "debug, diagnostic, application, context, audit",
     SET{return takeKinds(settings, value, error);
} // namespace
} // namespace qdlogview
, {'p', "priority", "SEV",
   "application records of this severity and worse, or\nof a range: error, warning..error",
   SET{return takePriority(settings, value, error);
}
}
, {'l', "level", "N", "debug and diagnostic records of this level and\nbelow, or of a range: 3, 2..4",
   SET{return takeLevel(settings, value, error);
}
}
, {'u', "originator", "ID|NAME", "records of this originator", TEXT(originator)},
    {'t', "who", "PATTERN", "records of this component (*, ? and [] match)", LIST(who)},
    {'c', "context", "PATTERN", "records of this context, and the record of the\ncontext itself",
     LIST(context)},
    {0, "pid", "N", "records of these processes: 5, 5..9, 5,7", RANGES(pids)},
    {0, "tid", "N", "records of these threads", RANGES(tids)},
    {0, "message-id", "N", "records with these message ids", RANGES(messageIds)},
    {0, "subject", "PATTERN", "audit records of this subject", LIST(subject)},
    {0, "outcome", "N", "audit records with this outcome",
     SET{if (wholeNumber(value, settings.outcome)) return settings.hasOutcome = true;
error = std::string("'") + value + "' is not a number";
return false;
}
}
, {0, "host", "PATTERN", "records written on this host", LIST(host)},
    {'w', "where", "QUERY",
     "records for which a query holds, for example\n'severity >= error and (who = mgr or text ~ \"disk\")'",
     TEXT(where)},
    {'g', "grep", "REGEX", "records whose text matches", SET{UNUSED;
settings.grep = value;
return settings.hasGrep = true;
}
}
, {'i', "ignore-case", nullptr, "-g without regard to upper and lower case", FLAG(ignoreCase)},
    {'v', "invert-match", nullptr, "records whose text does not match -g", FLAG(invert)},
    {'A', "after-context", "N", "also N records after each match of -g",
     SET{return takeNumber(value, settings.after, error);
}
}
, {'B', "before-context", "N", "also N records before each match of -g",
   SET{return takeNumber(value, settings.before, error);
}
}
, {'C', "around", "N", "-A N -B N",
   SET{return takeNumber(value, settings.before, error) && takeNumber(value, settings.after, error);
}
}
,

    {'n', "lines", "N", "the last N records only (all: no limit)", SET{settings.hasLines = true;
settings.lines = AllLines;
return std::string_view(value) == "all" || takeNumber(value, settings.lines, error);
}
, "Order and amount"
}
, {'m', "max-count", "N", "stop after N records",
   SET{if (!takeNumber(value, settings.maxCount, error)) return false;
error = "0 records would be nothing";
return settings.maxCount > 0;
}
}
, {'r', "reverse", nullptr, "newest records first", FLAG(reverse)},
    {'f', "follow", nullptr,
     "go on with new records as they are written, over\nrollovers (begins with the last 10)", FLAG(follow)},
    {0, "timeout", "SPAN", "stop following after a time: 90s, 5m",
     SET{if (!tools::parseSpanText(value, settings.timeout, error)) return false;
error = "0 is no time";
return settings.timeout > 0;
}
}
, {0, "scan", nullptr, "look for times in whole files, also where they are\nin order", FLAG(scan)},

    {0,        "after-cursor", "CURSOR", "go on behind a place that --show-cursor told", TEXT(afterCursor),
     "Cursors"},
    {0, "cursor-file", "FILE", "go on behind the place in FILE, and keep the place\nreached there",
     TEXT(cursorFile)},
    {0, "show-cursor", nullptr, "tell the place reached at the end", FLAG(showCursor)},

    {'o', "output", "FORMAT", "short, full, json, csv, raw, template",
     SET{return takeFormat(settings, value, error);
}
, "Output"
}
, {0, "template", "TEXT", "a line for each record: '{time} {kind} {text}'", SET{settings.layout = value;
return takeFormat(settings, "template", error);
}
}
, {0, "fields", "FIELD,...", "only these fields in full, json and csv",
   SET{return takeFields(settings, value, error);
}
}
, {0, "utc", nullptr, "times in UTC, also those of -S and -U", FLAG(utc)},
    {0, "writer-time", nullptr, "times in the writer's local time", FLAG(writerTime)},
    {0, "ids-as-text", nullptr, "ids as texts in json (for readers that round large\nnumbers)",
     FLAG(idsAsText)},
    {0, "with-line", nullptr, "the stored line as field \"line\" in json", FLAG(withLine)},
    {0, "raw", nullptr, "control characters of texts as they are (short,\nfull, template)", FLAG(rawText)},
    {0, "color", "WHEN", "auto, always, never",
     SET{if (tools::parseColorMode(value, settings.color)) return true;
error = std::string("'") + value + "' is not auto, always or never";
return false;
}
}
, {0, "no-pager", nullptr, "do not pass the output through a pager", FLAG(noPager)},
    {'q', "quiet", nullptr, "no warnings and notes", FLAG(quiet)},

    {0, "count", nullptr, "only the number of records", REPORT(Count), "Instead of records"},
    {0, "stats", nullptr, "counts by kind, severity, originator and component", REPORT(Stats)},
    {'F', "field", "FIELD", "the values of a field and how often each occurs",
     SET{return takeField(value, settings.valuesOf, error) && takeReport(settings, Report::Values, error);
}
}
, {0, "gaps", nullptr, "sequence numbers and files that are missing", REPORT(Gaps)},
    {0, "verify", nullptr, "check every record; tell what is torn and where", REPORT(Verify)},
    {0, "complete", "WHAT",
     "what a shell can complete: options, fields, kinds,\nseverities, outputs, products, originators, "
     "logsets",
     TEXT(complete)},
    {'h', "help", nullptr, "this text", FLAG(help)}, {0, "version", nullptr, "the version", FLAG(version)},
}
;

#undef SET
#undef UNUSED
#undef FLAG
#undef TEXT
#undef LIST
#undef RANGES
#undef REPORT

} // namespace

bool parseCommandLine(int argc, char **argv, Settings &settings, std::string &error) {
    std::vector<std::string> operands;
    if (!tools::parseOptions(table, argc, argv, settings, operands, error))
        return false;
    settings.paths.insert(settings.paths.end(), operands.begin(), operands.end());
    return true;
}

void appendUsage(std::string &out) {
    out += "usage: qdlogview [OPTIONS] [FILE|DIRECTORY]...\n"
           "Shows, filters, follows and exports log files. Without files and directories it\n"
           "reads those of all products that are configured; - is standard input.\n";
    tools::appendHelp(out, table);
    out += "\nExit status: 0 records were shown, 1 none matched or --verify and --gaps found\n"
           "something, 2 wrong usage, 3 a file or the configuration could not be read,\n"
           "4 the output is not complete.\n";
}

void appendOptionList(std::string &out) {
    tools::appendOptionNames(out, table);
}

bool checkSettings(const Settings &settings, std::string &error) {
    const bool reading = settings.report == Report::None;
    const bool cursor = !settings.afterCursor.empty() || !settings.cursorFile.empty() || settings.showCursor;
    const bool aroundMatches = settings.before > 0 || settings.after > 0;
    const struct {
        bool wrong;
        const char *text;
    } rows[] = {
        {settings.utc && settings.writerTime, "--utc and --writer-time exclude each other"},
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
        {settings.format == Format::Template && settings.layout.empty(), "-o template needs --template"},
        {settings.format == Format::Csv && settings.report != Report::None &&
             settings.report != Report::Values,
         "csv is for records and --field"},
    };
    for (const auto &row : rows) {
        if (row.wrong) {
            error = row.text;
            return false;
        }
    }
    return true;
}

} // namespace qdlogview
