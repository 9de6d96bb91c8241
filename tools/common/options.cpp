// SPDX-License-Identifier: Apache-2.0
// Sections: the rows that all tools have, names, what CLI11 is given, commands, help.
#include "common/options.h"

#include "common/exit_codes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace tools {

namespace {

// ---- rows of all tools -------------------------------------------------------------

bool takeColor(CommonOptions &options, const char *value, std::string &error) {
    if (parseColorMode(value, options.colorMode))
        return true;
    error = std::string("'") + value + "' is not auto, always or never";
    return false;
}

const Option COMMON_ROWS[] = {
    {"--json", TAKES_JSON, nullptr, "write JSON", set<&CommonOptions::json>, "Common"},
    {"--color", TAKES_PAGES, "WHEN",
     "when to colour: auto, always, never\n\n"
     "In *auto*, the default, a non-empty NO_COLOR turns colour off, CLICOLOR_FORCE other\n"
     "than 0 turns it on, and a terminal other than \"dumb\" has it.",
     set<takeColor>},
    {"--no-pager", TAKES_PAGES, nullptr,
     "do not pass the output through a pager\n\n"
     "On a terminal long output otherwise goes through PAGER (less when it is not set; none\n"
     "when it is empty or \"cat\").",
     set<&CommonOptions::noPager>},
    {"-q,--quiet", TAKES_QUIET, nullptr,
     "only what was asked for, no notes\n\n"
     "The exit status stays the same.",
     set<&CommonOptions::quiet>},
    {"--config", TAKES_CONFIG, "FILE",
     "main configuration file (default: ZOLTLOG_CFG_LOC,\nelse /etc/qd/zoltlog.conf)",
     set<&CommonOptions::config>},
    {"--complete", TAKES_COMPLETION, "WHAT", "what a shell can complete", set<&CommonOptions::complete>},
    {"-V,--version", TAKES_EVERY, nullptr, "show the version", set<&CommonOptions::version>},
    {"-h,--help", TAKES_EVERY, nullptr, "show this help, or that of a command", set<&CommonOptions::help>},
};

// ---- names ---------------------------------------------------------------------------

template<typename F>
void eachName(const Option &row, const F &take) {
    std::string_view names = row.names;
    for (;;) {
        const size_t comma = names.find(',');
        take(names.substr(0, comma));
        if (comma == std::string_view::npos)
            return;
        names.remove_prefix(comma + 1);
    }
}

bool hasName(const Option &row, std::string_view name) {
    bool found = false;
    eachName(row, [&](std::string_view each) { found = found || each == name; });
    return found;
}

using Rows = std::vector<const Option *>;

Rows rowsOfTool(const Tool &tool) {
    unsigned taken = 0;
    for (const Command *command : tool.commands)
        taken |= command->takes;
    Rows rows = tool.options;
    for (const Option &row : COMMON_ROWS) {
        if ((row.of & taken) != 0)
            rows.push_back(&row);
    }
    return rows;
}

const Option *findName(const Rows &rows, std::string_view name) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Option *row) { return hasName(*row, name); });
    return found != rows.end() ? *found : nullptr;
}

// The long name that a text is, or the only one that it begins; "" when there is none.
std::string longName(const Rows &rows, std::string_view text) {
    if (findName(rows, text) != nullptr)
        return std::string(text);
    std::string found;
    size_t count = 0;
    for (const Option *row : rows) {
        bool counted = false; // two spellings of one option are not ambiguous
        eachName(*row, [&](std::string_view name) {
            if (name.substr(0, text.size()) != text || counted)
                return;
            counted = true;
            found = name;
            ++count;
        });
    }
    return count == 1 ? found : "";
}

// ---- parsing -------------------------------------------------------------------------

bool isAmount(const std::string &word) {
    uint64_t number = 0;
    return word == "all" || parseNumber(word, number);
}

// What CLI11 does not do: the beginning of a long name stands for the name, "--name=" is
// an empty value, and a value may be implied.
std::vector<std::string> spelledOut(const Rows &rows, const std::vector<std::string> &words) {
    std::vector<std::string> out;
    bool isValue = false; // of the option in front
    const auto isImplied = [&](const Option &row, size_t at) {
        return row.implied != nullptr && (at + 1 == words.size() || !isAmount(words[at + 1]));
    };
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (!isValue && word == "--") {
            out.insert(out.end(), words.begin() + static_cast<ptrdiff_t>(i), words.end());
            break;
        }
        if (isValue || word.size() < 2 || word[0] != '-') {
            out.push_back(word);
            isValue = false;
        } else if (word[1] == '-') {
            const size_t sign = word.find('=');
            const std::string name = longName(rows, std::string_view(word).substr(0, sign));
            const Option *row = name.empty() ? nullptr : findName(rows, name);
            const bool valued = row != nullptr && row->value != nullptr;
            const bool isEmpty = valued && sign == word.size() - 1;
            out.push_back(row == nullptr || isEmpty || sign == std::string::npos
                              ? (row != nullptr ? name : word)
                              : name + word.substr(sign));
            if (isEmpty)
                out.emplace_back();
            isValue = valued && sign == std::string::npos;
            if (isValue && isImplied(*row, i)) {
                out.back() += std::string("=") + row->implied;
                isValue = false;
            }
        } else {
            out.push_back(word);
            for (size_t at = 1; at < word.size(); ++at) {
                const Option *row = findName(rows, std::string("-") + word[at]);
                if (row == nullptr || row->value != nullptr) {
                    isValue = row != nullptr && at + 1 == word.size();
                    if (isValue && isImplied(*row, i)) {
                        out.back() += row->implied;
                        isValue = false;
                    }
                    break;
                }
            }
        }
    }
    return out;
}

struct Parser : CLI::App {
    Parser() {
        set_help_flag();
        allow_extras();
    }

    // What is no option of ours, in order.
    bool sort(std::vector<std::string> &operands, std::string &error) const {
        for (const auto &[kind, word] : missing_) {
            if (kind == CLI::detail::Classifier::NONE)
                operands.push_back(word);
            else if (kind != CLI::detail::Classifier::POSITIONAL_MARK && error.empty())
                error = "option " +
                        (kind == CLI::detail::Classifier::SHORT ? word.substr(0, 2)
                                                                : word.substr(0, word.find('='))) +
                        " is not understood";
        }
        return error.empty();
    }
};

// Fills the options in the order of the command line; `given` gets the rows that were used.
bool parseWords(const Rows &rows, std::vector<std::string> words, CommonOptions &options, Rows &given,
                std::string &error) {
    Parser parser;
    for (const Option *row : rows) {
        const auto take = [row, &options, &given](const char *value) {
            std::string why;
            given.push_back(row);
            if (!row->set(options, value, why))
                throw CLI::ValidationError(row->names, why);
        };
        if (row->value == nullptr)
            parser.add_flag_callback(row->names, [take] { take(nullptr); })
                ->disable_flag_override()
                ->trigger_on_parse();
        else
            parser
                .add_option(row->names,
                            [take](const CLI::results_t &values) {
                                take(values.front().c_str());
                                return true;
                            })
                ->trigger_on_parse();
    }
    words = spelledOut(rows, words);
    std::reverse(words.begin(), words.end());
    const auto nameIn = [](const std::string &text) { // "--color: 1 required TEXT missing"
        const std::string_view names = std::string_view(text).substr(0, text.find(':'));
        const size_t at = names.find("--");
        return std::string(names.substr(at == std::string_view::npos ? 0 : at, names.find(',', at) - at));
    };
    try {
        parser.parse(words);
    } catch (const CLI::ValidationError &failure) {
        const std::string text = failure.what();
        error = nameIn(text) + text.substr(text.find(": "));
        return false;
    } catch (const CLI::ArgumentMismatch &failure) {
        const std::string text = failure.what(); // or "utf8 was given a disallowed flag override"
        const bool isFlag = text.find(':') == std::string::npos;
        error = "option " + (isFlag ? "--" + text.substr(0, text.find(' ')) : nameIn(text)) +
                (isFlag ? " takes no argument" : " needs an argument");
        return false;
    } catch (const CLI::ParseError &failure) {
        error = failure.what();
        return false;
    }
    return parser.sort(options.operands, error);
}

// The words of the tool's environment variable, parted by blanks.
std::vector<std::string> defaultWords(const Tool &tool) {
    std::string name = tool.name;
    for (char &c : name)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const char *value = std::getenv((name + "_OPTIONS").c_str());
    std::istringstream text(value != nullptr ? value : "");
    return {std::istream_iterator<std::string>(text), {}};
}

// ---- commands ------------------------------------------------------------------------

std::string mainName(const Option &row) {
    const std::string_view names = row.names;
    const size_t at = names.find("--");
    return std::string(names.substr(at, names.find(',', at) - at));
}

// Takes the command's words from the operands.
bool findCommand(const Tool &tool, CommonOptions &options, std::string &error) {
    std::vector<std::string> &words = options.operands;
    if (tool.commands.size() == 1 && tool.commands.front()->name[0] == '\0') {
        options.command = tool.commands.front();
        return true;
    }
    if (words.empty()) {
        error = "a command is needed";
        return false;
    }
    for (const size_t count : {2U, 1U}) {
        if (words.size() < count)
            continue;
        const std::string name = count == 2 ? words[0] + " " + words[1] : words[0];
        const auto found = std::find_if(tool.commands.begin(), tool.commands.end(),
                                        [&](const Command *command) { return name == command->name; });
        if (found == tool.commands.end())
            continue;
        options.command = *found;
        words.erase(words.begin(), words.begin() + static_cast<ptrdiff_t>(count));
        return true;
    }
    const std::string group = words[0] + " ";
    for (const Command *command : tool.commands) {
        if (std::string_view(command->name).substr(0, group.size()) == group) {
            error = words.size() > 1
                        ? "there is no command '" + words[0] + " " + words[1] + "'"
                        : "'" + words[0] + "' needs a further word, such as '" + command->name + "'";
            return false;
        }
    }
    error = "there is no command '" + words[0] + "'";
    return false;
}

bool checkCommand(const Rows &rows, const Rows &given, const CommonOptions &options, std::string &error) {
    const Command &command = *options.command;
    for (const Option *row : given) {
        if ((row->of & command.takes) == 0) {
            error = mainName(*row) + " is no option of this command";
            return false;
        }
    }
    for (const Option *row : rows) {
        if ((row->of & command.needs) != 0 && std::find(given.begin(), given.end(), row) == given.end()) {
            error = mainName(*row) + " is required";
            return false;
        }
    }
    if (options.operands.size() < command.fewest) {
        error = std::string(command.operands) + " is missing";
        return false;
    }
    if (options.operands.size() > command.most) {
        error = "'" + options.operands[command.most] + "' is one word too many";
        return false;
    }
    return true;
}

// ---- help ----------------------------------------------------------------------------

std::string_view shortHelp(const Option &row) {
    const std::string_view help = row.help;
    return help.substr(0, help.find("\n\n"));
}

void appendRow(std::string &out, const Option &row) {
    constexpr size_t COLUMN = 28;
    std::string left = row.names[1] == '-' ? "      " : "  ";
    bool first = true;
    eachName(row, [&](std::string_view name) {
        left += first ? "" : ", ";
        left += name;
        first = false;
    });
    if (row.value != nullptr)
        left += std::string("=") + row.value;
    out += left;
    size_t width = left.size();
    std::string_view help = shortHelp(row);
    for (;;) {
        const size_t end = help.find('\n');
        if (width + 2 > COLUMN) {
            out += '\n';
            width = 0;
        }
        out.append(COLUMN - width, ' ');
        out += help.substr(0, end);
        out += '\n';
        width = 0;
        if (end == std::string_view::npos)
            return;
        help.remove_prefix(end + 1);
    }
}

// "options, commands, kinds", or "" when a shell cannot ask the tool.
std::string completable(const Tool &tool, const Rows &rows) {
    const bool asks = std::any_of(rows.begin(), rows.end(), [](const Option *row) {
        return (row->of & TAKES_COMPLETION) != 0 && hasName(*row, "--complete");
    });
    if (!asks)
        return "";
    return std::string("options") + (tool.commands.front()->name[0] != '\0' ? ", commands" : "") +
           tool.completes;
}

std::string usageLine(const Tool &tool, const Command &command) {
    std::string line = std::string("usage: ") + tool.name;
    for (const char *part : {command.name, "[OPTION]...", command.operands}) {
        if (part[0] != '\0')
            line += std::string(" ") + part;
    }
    return line + "\n";
}

std::string helpText(const Tool &tool, const Rows &rows, const Command *command) {
    std::string text;
    const bool hasCommands = tool.commands.front()->name[0] != '\0';
    if (!hasCommands) {
        text = usageLine(tool, *tool.commands.front()) + tool.about;
    } else if (command != nullptr) {
        text = usageLine(tool, *command) + command->help + "\n";
    } else {
        text = std::string("usage: ") + tool.name + " COMMAND [OPTION]... [OPERAND]...\n" + tool.about;
        text += std::string("\nCommands ('") + tool.name + " COMMAND --help' tells more):\n";
        for (const Command *each : tool.commands) {
            const std::string left = std::string("  ") + each->name;
            text += left + std::string(std::max<size_t>(18, left.size() + 2) - left.size(), ' ') +
                    each->help + "\n";
        }
    }
    const char *heading = nullptr;
    for (const Option *row : rows) {
        heading = row->heading != nullptr ? row->heading : heading;
        if (command != nullptr && (row->of & command->takes) == 0)
            continue;
        if (heading != nullptr)
            text += std::string("\n") + heading + ":\n";
        heading = nullptr;
        appendRow(text, *row);
    }
    const Command *shown = command != nullptr ? command : tool.commands.front();
    if (shown->example != nullptr)
        text += std::string("\nExample:\n  ") + shown->example + "\n";
    if (command == nullptr || !hasCommands) {
        const std::string words = completable(tool, rows);
        text += words.empty() ? "" : "\n--complete knows " + words + ".\n";
        text += std::string("\n") + tool.footer;
    }
    return text;
}

// ---- the manual page -------------------------------------------------------------------

// "debug or\ninfo" -> "Debug or info."
std::string sentence(std::string_view help) {
    std::string text;
    for (const char c : help) {
        if (std::strchr("_*\\<>#[]|", c) != nullptr)
            text += '\\';
        text += c == '\n' ? ' ' : c;
    }
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return (text[0] == '-' ? "\\" : "") + text + "."; // which would begin a list
}

void appendManual(std::string &out, const Option &row) {
    bool first = true;
    eachName(row, [&](std::string_view name) {
        out += first ? "*" : ", *";
        out += name;
        out += '*';
        first = false;
    });
    if (row.value != nullptr) {
        out += "=_";
        for (const char *c = row.value; *c != '\0'; ++c)
            out += static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
        out += '_';
    }
    const std::string_view brief = shortHelp(row);
    out += "\n\t" + sentence(brief);
    std::string_view more = row.help;
    more.remove_prefix(std::min(more.size(), brief.size() + 2));
    while (!more.empty()) {
        const size_t end = std::min(more.find('\n'), more.size());
        out += "\n";
        if (end > 0)
            out += '\t';
        out += more.substr(0, end);
        more.remove_prefix(std::min(more.size(), end + 1));
    }
    out += "\n\n";
}

std::string manualText(const Tool &tool, const Rows &rows) {
    std::string text;
    for (const Option *row : rows) {
        if (row->heading != nullptr)
            text += std::string("## ") + row->heading + "\n\n";
        appendManual(text, *row);
    }
    std::string words = completable(tool, rows);
    std::replace(words.begin(), words.end(), '\n', ' ');
    if (!words.empty())
        text += "*--complete* knows " + words + ".\n";
    return text;
}

int printText(const Tool &tool, const std::string &text) {
    Output out;
    out.write(text);
    if (out.flush())
        return EXIT_OK;
    std::fprintf(stderr, "%s: the output could not be written: %s\n", tool.name, std::strerror(out.error));
    return EXIT_PARTIAL;
}

int complete(const Tool &tool, const Rows &rows, CommonOptions &options) {
    std::vector<std::string> words;
    int status = EXIT_OK;
    if (options.complete == "options") {
        for (const Option *row : rows)
            eachName(*row, [&](std::string_view name) {
                words.emplace_back(name);
                if (row->value != nullptr && name.substr(0, 2) == "--")
                    words.back() += "=";
            });
    } else if (options.complete == "commands" && tool.commands.front()->name[0] != '\0') {
        for (const Command *command : tool.commands)
            words.emplace_back(command->name);
    } else if (tool.complete == nullptr || !tool.complete(options, words, status)) {
        return usageError(tool, options, "--complete: '" + options.complete + "' is not known");
    }
    std::string text;
    for (const std::string &word : words)
        text += word + "\n";
    const int printed = printText(tool, text);
    return status != EXIT_OK ? status : printed;
}

} // namespace

int usageError(const Tool &tool, const CommonOptions &options, const std::string &why) {
    const bool named = options.command != nullptr && options.command->name[0] != '\0';
    const std::string whole = named ? std::string(tool.name) + " " + options.command->name : tool.name;
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", whole.c_str(), escaped(why).c_str(), whole.c_str());
    return EXIT_USAGE;
}

std::optional<int> parseCommandLine(const Tool &tool, int argc, char **argv, CommonOptions &options) {
    const Rows rows = rowsOfTool(tool);
    Rows given;
    std::string error;
    if (argc == 2 && std::string_view(argv[1]) == "--help=manual")
        return printText(tool, manualText(tool, rows));
    std::vector<std::string> words = defaultWords(tool);
    words.insert(words.end(), argv + std::min(argc, 1), argv + argc);
    if (!parseWords(rows, words, options, given, error))
        return usageError(tool, options, error);
    if (!options.config.empty()) // before the library reads it, once
        setenv("ZOLTLOG_CFG_LOC", options.config.c_str(), 1);
    if (options.version)
        return printText(tool, std::string(tool.name) + " " QDUL_VERSION "\n");
    if (!options.complete.empty())
        return complete(tool, rows, options);
    if (options.help) {
        std::string ignored;
        findCommand(tool, options, ignored);
        return printText(tool, helpText(tool, rows, options.command));
    }
    if (!findCommand(tool, options, error) || !checkCommand(rows, given, options, error))
        return usageError(tool, options, error);
    options.color = colorWanted(options.colorMode, isatty(1) != 0);
    return {};
}

} // namespace tools
