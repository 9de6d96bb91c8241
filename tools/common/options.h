// SPDX-License-Identifier: Apache-2.0
// The command line of the five tools: one kind of table gives parsing, --help, the list
// for shell completion and the OPTIONS of the manual pages, which --help=manual prints in
// their source form. The letters that all tools share mean the same in each of them:
//
//   -P product   -u originator   -L log set   -p priority (severity)   -t who   -k kind
//   -n number    -o output       -q quiet     -V version               -h help
//
// --config, --json, --color and --no-pager have no letter. An option may stand before or
// behind the command and its operands; what follows "--" is an operand.
#pragma once

#include "common/number_text.h"
#include "common/terminal.h"

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace tools {

// Which commands take an option: one bit each, of Option::of and Command::takes. A tool's
// own begin with FIRST_OWN.
enum Takes : unsigned {
    TAKES_EVERY = 1, // every command
    TAKES_JSON = 2,
    TAKES_CONFIG = 4,
    TAKES_QUIET = 8,
    TAKES_PAGES = 16, // --color, --no-pager
    TAKES_COMPLETION = 32,
    FIRST_OWN = 64,
};

struct Command {
    const char *name; // "list", "product add"; "" for the only one of a tool without commands
    unsigned takes;
    unsigned needs;       // of these the options must be given
    const char *operands; // as --help shows them; "" for none
    size_t fewest, most;  // operands
    const char *help;
    const char *example; // null: none
};
constexpr size_t ANY_NUMBER = SIZE_MAX;

// What every tool's own record of options begins with.
struct CommonOptions {
    std::string config;
    bool json = false;
    bool noPager = false;
    bool quiet = false;
    ColorMode colorMode = ColorMode::Auto;
    std::string complete;
    bool help = false;
    bool version = false;

    // Made by parseCommandLine
    const Command *command = nullptr;
    std::vector<std::string> operands;
    bool color = false; // on standard output
};

struct Option {
    const char *names; // "-P,--product": letters and long names, with commas
    unsigned of;       // the commands that take any of these
    const char *value; // how --help calls it; null: a flag
    // Further lines after '\n'; behind an empty line what only the manual page says, in its
    // source form.
    const char *help;
    // Gets the value (null for a flag); false with an error text when it is not valid.
    bool (*set)(CommonOptions &options, const char *value, std::string &error);
    const char *heading = nullptr; // begins a group in --help
    const char *implied = nullptr; // the value when no number and no "all" follows
};

struct Tool {
    const char *name;
    const char *about; // whole lines
    std::vector<const Option *> options;
    std::vector<const Command *> commands;
    const char *footer; // whole lines: examples, exit status
    // The words of --complete beyond "options" and "commands"; false: not known.
    bool (*complete)(CommonOptions &options, std::vector<std::string> &words, int &status) = nullptr;
    const char *completes = ""; // ", fields, kinds"
};

// Pointers to the rows of a table; a tool's rows may have further members.
template<typename Base, typename Row, size_t N>
std::vector<const Base *> rowsOf(const Row (&table)[N]) {
    std::vector<const Base *> rows;
    for (const Row &row : table)
        rows.push_back(&row);
    return rows;
}

// The exit status to end with (wrong usage was told, help was shown), or nothing:
// options holds what was asked for, and the environment the configuration's place. The
// words of the environment variable TOOL_OPTIONS (QDLOGVIEW_OPTIONS) stand in front of
// those of the command line.
std::optional<int> parseCommandLine(const Tool &tool, int argc, char **argv, CommonOptions &options);

// Tells a wrong usage that the tool found itself; the exit status.
int usageError(const Tool &tool, const CommonOptions &options, const std::string &why);

// ---- setters of rows ---------------------------------------------------------------
// Option::set of a row is set<&Options::member> or set<function>, with a function
// bool (Options &, const char *value, std::string &error).

namespace detail {

template<typename Member>
struct MemberOf;
template<typename Options, typename Value>
struct MemberOf<Value Options::*> {
    using Type = Options;
};
template<typename Options>
struct MemberOf<bool (*)(Options &, const char *, std::string &)> {
    using Type = Options;
};

template<typename T>
bool take(std::vector<T> &to, const char *value, std::string &) {
    to.emplace_back(value);
    return true;
}
// An empty text would be as if the option were not there; an optional one may be empty.
inline bool take(std::string &to, const char *value, std::string &error) {
    to = value;
    error = "it must not be empty";
    return !to.empty();
}
inline bool take(std::optional<std::string> &to, const char *value, std::string &) {
    to = value;
    return true;
}
inline bool take(bool &to, const char *, std::string &) {
    return to = true;
}
template<typename T>
std::enable_if_t<std::is_integral_v<T>, bool> take(T &to, const char *value, std::string &error) {
    if (parseNumber(value, to))
        return true;
    error = std::string("'") + value + "' is not a number";
    return false;
}
template<typename T>
bool take(std::optional<T> &to, const char *value, std::string &error) {
    return take(to.emplace(), value, error);
}

} // namespace detail

template<auto Target>
bool set(CommonOptions &options, const char *value, std::string &error) {
    using Own = typename detail::MemberOf<decltype(Target)>::Type;
    auto &own = static_cast<Own &>(options);
    if constexpr (std::is_member_object_pointer_v<decltype(Target)>)
        return detail::take(own.*Target, value, error);
    else
        return Target(own, value, error);
}

// A whole number within bounds.
template<auto Target, uint64_t Least, uint64_t Most>
bool setWithin(CommonOptions &options, const char *value, std::string &error) {
    using Own = typename detail::MemberOf<decltype(Target)>::Type;
    uint64_t number = 0;
    if (!parseNumber(value, number) || number < Least || number > Most) {
        error = std::string("'") + value + "' is not a number from " + std::to_string(Least) + " to " +
                std::to_string(Most);
        return false;
    }
    auto &to = static_cast<Own &>(options).*Target;
    using Value = std::remove_reference_t<decltype(to)>;
    if constexpr (std::is_integral_v<Value>)
        to = static_cast<Value>(number);
    else
        to = static_cast<typename Value::value_type>(number);
    return true;
}

} // namespace tools
