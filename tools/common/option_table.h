// Command-line options from one table: it gives parsing (getopt_long's rules),
// --help, the list for shell completion and for the test of the manual.
#pragma once

#include "common/terminal.h"

#include <algorithm>
#include <cstring>
#include <getopt.h>
#include <string>
#include <vector>

namespace tools {

// T is the tool's record of settings. A setter gets the argument (null for a flag)
// and returns false with an error text when it is not valid.
template<typename T>
struct Option {
    char letter; // 0: none
    const char *name;
    const char *argument; // how --help calls it; null: a flag
    const char *help;     // further lines after '\n'
    bool (*set)(T &settings, const char *value, std::string &error);
    const char *heading = nullptr; // begins a group in --help
};

template<typename T, size_t N>
bool parseOptions(const Option<T> (&table)[N], int argc, char **argv, T &settings,
                  std::vector<std::string> &operands, std::string &error) {
    constexpr int FirstLong = 256;
    std::vector<option> longOptions;
    std::string letters = ":";
    for (size_t i = 0; i < N; ++i) {
        const Option<T> &row = table[i];
        longOptions.push_back({row.name, row.argument != nullptr ? required_argument : no_argument, nullptr,
                               FirstLong + static_cast<int>(i)});
        if (row.letter != 0) {
            letters += row.letter;
            if (row.argument != nullptr)
                letters += ':';
        }
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});
    opterr = 0;
    optind = 0; // begin anew, also in a second call
    for (;;) {
        const int at = std::max(optind, 1);
        const int found = getopt_long(argc, argv, letters.c_str(), longOptions.data(), nullptr);
        if (found == -1)
            break;
        const auto shown = [&]() -> std::string {
            if (optopt != 0 && optopt < FirstLong)
                return std::string("-") + static_cast<char>(optopt);
            const char *word = argv[optind > at ? optind - 1 : at];
            return word;
        };
        if (found == '?' || found == ':') {
            error = found == ':' ? "option " + shown() + " needs an argument"
                                 : "option " + shown() + " is not understood";
            return false;
        }
        const Option<T> *row = nullptr;
        for (size_t i = 0; i < N; ++i) {
            if (found == FirstLong + static_cast<int>(i) ||
                (table[i].letter != 0 && found == table[i].letter))
                row = &table[i];
        }
        std::string why;
        if (row != nullptr && !row->set(settings, optarg, why)) {
            error = std::string("--") + row->name + ": " + why;
            return false;
        }
    }
    for (int i = optind; i < argc; ++i)
        operands.emplace_back(argv[i]);
    return true;
}

template<typename T, size_t N>
void appendHelp(std::string &out, const Option<T> (&table)[N]) {
    constexpr size_t column = 28;
    for (const Option<T> &row : table) {
        if (row.heading != nullptr)
            out += std::string("\n") + row.heading + ":\n";
        std::string left = "  ";
        left += row.letter != 0 ? std::string("-") + row.letter + ", " : std::string("    ");
        left += std::string("--") + row.name;
        if (row.argument != nullptr)
            left += std::string("=") + row.argument;
        out += left;
        size_t width = left.size();
        for (const char *line = row.help; line != nullptr;) {
            const char *end = std::strchr(line, '\n');
            if (width + 2 > column) {
                out += '\n';
                width = 0;
            }
            out.append(column - width, ' ');
            out.append(line, end != nullptr ? static_cast<size_t>(end - line) : std::strlen(line));
            out += '\n';
            width = 0;
            line = end != nullptr ? end + 1 : nullptr;
        }
    }
}

// "--name" or "--name=" and "-x", a line each.
template<typename T, size_t N>
void appendOptionNames(std::string &out, const Option<T> (&table)[N]) {
    for (const Option<T> &row : table) {
        out += std::string("--") + row.name + (row.argument != nullptr ? "=" : "") + "\n";
        if (row.letter != 0)
            out += std::string("-") + row.letter + "\n";
    }
}

} // namespace tools
