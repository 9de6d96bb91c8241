// SPDX-License-Identifier: Apache-2.0
// qdliscat: checks, shows and installs message catalogues.
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "common/exit_codes.h"
#include "common/json.h"
#include "common/options.h"
#include "qdliscat/catalogue.h"
#include "qdliscat/check.h"
#include "qdliscat/install.h"

namespace {

using namespace qdliscat;

struct Options : tools::CommonOptions {
    std::vector<std::string> catalogues;
    std::string number;
    std::string locale = "root";
    bool translated = false;
    std::string package;
};

int runCheck(const Options &options, const std::vector<Catalogue> &catalogues, tools::Output &out) {
    size_t found = 0;
    for (const Catalogue &catalogue : catalogues) {
        const std::vector<Problem> problems = check(catalogue, options.translated);
        for (const Problem &problem : problems)
            printProblem(out, catalogue.title, problem);
        found += problems.size();
        if (!options.quiet)
            out.write(tools::escaped(catalogue.title) + ": " +
                      tools::counted(catalogue.bundles.size(), "locale") + ", " +
                      tools::counted(messageCount(catalogue), "message") + ", " +
                      tools::counted(problems.size(), "problem") + "\n");
    }
    return found == 0 ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

int runShow(const Options &options, const std::vector<Catalogue> &catalogues, tools::Output &out) {
    bool found = false;
    for (const Catalogue &catalogue : catalogues) {
        for (const Bundle &bundle : catalogue.bundles) {
            for (const std::string &key : {options.number, options.number + "x"}) {
                const auto entry = bundle.entries.find(key);
                if (entry == bundle.entries.end())
                    continue;
                out.write(tools::escaped(bundle.locale) + "\t" + key + "\t" +
                          tools::escaped(entry->second.text) + "\n");
                found = true;
            }
        }
    }
    return found ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

bool numberLess(const std::string &a, const std::string &b) {
    const long long left = std::strtoll(a.c_str(), nullptr, 10);
    const long long right = std::strtoll(b.c_str(), nullptr, 10);
    return left != right ? left < right : a < b;
}

// What the locale's users read: its own messages and those of its parents.
int runList(const Options &options, const std::vector<Catalogue> &catalogues, tools::Output &out) {
    bool found = false;
    for (const Catalogue &catalogue : catalogues) {
        std::vector<std::string> keys;
        for (const Bundle &bundle : catalogue.bundles) {
            for (const auto &[key, entry] : bundle.entries) {
                if (isNumber(key))
                    keys.push_back(key);
            }
        }
        std::sort(keys.begin(), keys.end(), numberLess);
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        for (const std::string &key : keys) {
            const Entry *entry = find(catalogue, options.locale, key);
            if (entry == nullptr)
                continue;
            out.write(key + "\t" + tools::escaped(entry->text) + "\n");
            found = true;
        }
    }
    return found ? tools::EXIT_OK : tools::EXIT_NOTHING;
}

// ---- commands and options ------------------------------------------------------------

enum Takes : unsigned {
    EVERY = tools::TAKES_EVERY | tools::TAKES_COMPLETION,
    CHECK = tools::FIRST_OWN,
    LIST = CHECK << 1,
    INSTALL = LIST << 1,
};

struct Command : tools::Command {
    // Null for the one that makes a catalogue
    int (*run)(const Options &, const std::vector<Catalogue> &, tools::Output &);
};

constexpr size_t ANY = tools::ANY_NUMBER;

const Command COMMANDS[] = {
    {{"check", EVERY | CHECK | tools::TAKES_QUIET, 0, "CATALOGUE...", 1, ANY,
      "Check keys, patterns and that every locale shows the same",
      "qdliscat check /usr/share/diskd/messages"},
     runCheck},
    {{"show", EVERY, 0, "NUMBER CATALOGUE...", 2, ANY,
      "Show one message, and the advice on it, in every locale", "qdliscat show 1001 messages"},
     runShow},
    {{"list", EVERY | LIST, 0, "CATALOGUE...", 1, ANY, "List the messages as a locale's users read them",
      "qdliscat list --locale de messages"},
     runList},
    {{"install", EVERY | CHECK | INSTALL | tools::TAKES_QUIET, INSTALL, "BUNDLE|SOURCE...", 1, ANY,
      "Check bundles and put them into a package, each at once",
      "qdliscat install --to /usr/share/diskd/messages root.txt de.txt"},
     nullptr},
};

const tools::Option OPTIONS[] = {
    {"--untranslated", CHECK, nullptr, "messages that are not translated are problems too",
     tools::set<&Options::translated>, "Checking"},
    {"-o,--to", INSTALL, "PACKAGE",
     "the directory that the bundles go to\n\n"
     "It is made if it is missing.",
     tools::set<&Options::package>, "Installing"},
    {"--locale", LIST, "LOCALE",
     "show it as the users of this locale read it: de,\nde_AT (default root)\n\n"
     "What the locale lacks comes from its parents, and at last from root.",
     tools::set<&Options::locale>, "Listing"},
};

const tools::Tool TOOL = {
    "qdliscat",
    "Checks, shows and installs message catalogues: packages (a directory of .res\n"
    "bundles, or a .dat file), bundles (.res) or sources (.txt, compiled with genrb).\n",
    tools::rowsOf<tools::Option>(OPTIONS),
    tools::rowsOf<tools::Command>(COMMANDS),
    "Exit status: 0 all is right, 1 problems were found or the message is missing,\n"
    "2 wrong usage, 3 a catalogue could not be read or installed, 4 the output is\n"
    "incomplete.\n",
};

int runOn(const Options &options, const Command &command, tools::Output &out) {
    const LoadResult loaded = load(options.catalogues);
    if (loaded.state == Loaded::Ok)
        return command.run(options, loaded.catalogues, out);
    std::fprintf(stderr, "qdliscat: %s\n", tools::escaped(loaded.failure).c_str());
    return loaded.state == Loaded::DoesNotCompile ? tools::EXIT_NOTHING : tools::EXIT_UNREADABLE;
}

int run(int argc, char **argv) {
    Options options;
    if (const auto status = tools::parseCommandLine(TOOL, argc, argv, options))
        return *status;
    const auto &command = static_cast<const Command &>(*options.command);
    options.catalogues = options.operands;
    if (command.run == runShow) {
        options.number = options.catalogues.front();
        options.catalogues.erase(options.catalogues.begin());
        if (!isNumber(options.number))
            return tools::usageError(TOOL, options, "'" + options.number + "' is no message number");
    }
    tools::Output out;
    const int status =
        command.run == nullptr
            ? install({options.catalogues, options.package, options.translated, options.quiet}, out)
            : runOn(options, command, out);
    if (out.flush())
        return status;
    std::fprintf(stderr, "qdliscat: the output could not be written: %s\n", std::strerror(out.error));
    return tools::EXIT_PARTIAL;
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    try {
        return run(argc, argv);
    } catch (const std::exception &failure) { // no memory, a directory that cannot be read
        std::fprintf(stderr, "qdliscat: %s\n", failure.what());
        return tools::EXIT_UNREADABLE;
    }
}
