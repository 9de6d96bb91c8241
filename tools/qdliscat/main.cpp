// qdliscat: checks and shows message catalogues.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdliscat/catalogue.h"
#include "qdliscat/check.h"

namespace {

using namespace qdliscat;

const char *const FOOTER =
    "\nA catalogue is a package (a directory of .res bundles, or a .dat file), some bundles\n"
    "(.res) or some sources (.txt, compiled with genrb for the check).\n"
    "\nExamples:\n"
    "  qdliscat check /usr/share/diskd/messages\n"
    "  qdliscat check --complete root.txt de.txt\n"
    "  qdliscat show 1001 /usr/share/diskd/messages\n"
    "\nExit status: 0 all is right, 1 problems were found or the message is missing,\n"
    "2 wrong usage, 3 a catalogue could not be read.\n";

struct Options {
    std::vector<std::string> catalogues;
    std::string number;
    std::string locale = "root";
    bool complete = false;
    bool quiet = false;
};

// "messages: de: 1001: argument 2 is a text, in root an integer"
void printProblem(tools::Output &out, const std::string &title, const Problem &problem) {
    out.write(tools::escaped(title) + ": ");
    if (!problem.locale.empty())
        out.write(tools::escaped(problem.locale) + ": ");
    if (!problem.key.empty())
        out.write(tools::escaped(problem.key) + ": ");
    out.write(tools::escaped(problem.text) + "\n");
}

std::string counted(size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

int runCheck(const Options &options, const std::vector<Catalogue> &catalogues, tools::Output &out) {
    size_t found = 0;
    for (const Catalogue &catalogue : catalogues) {
        const std::vector<Problem> problems = check(catalogue, options.complete);
        for (const Problem &problem : problems)
            printProblem(out, catalogue.title, problem);
        found += problems.size();
        size_t messages = 0;
        for (const Bundle &bundle : catalogue.bundles) {
            const auto isMessage = [](const auto &entry) { return isNumber(entry.first); };
            messages +=
                static_cast<size_t>(std::count_if(bundle.entries.begin(), bundle.entries.end(), isMessage));
        }
        if (!options.quiet)
            out.write(tools::escaped(catalogue.title) + ": " + counted(catalogue.bundles.size(), "locale") +
                      ", " + counted(messages, "message") + ", " + counted(problems.size(), "problem") +
                      "\n");
    }
    return found == 0 ? tools::ExitOk : tools::ExitNothing;
}

int runShow(const Options &options, const std::vector<Catalogue> &catalogues, tools::Output &out) {
    bool found = false;
    for (const Catalogue &catalogue : catalogues) {
        for (const Bundle &bundle : catalogue.bundles) {
            for (const std::string &key : {options.number, options.number + "x"}) {
                const auto entry = bundle.entries.find(key);
                if (entry == bundle.entries.end())
                    continue;
                out.write(bundle.locale + "\t" + key + "\t" + tools::escaped(entry->second.text) + "\n");
                found = true;
            }
        }
    }
    return found ? tools::ExitOk : tools::ExitNothing;
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
    return found ? tools::ExitOk : tools::ExitNothing;
}

int run(int argc, char **argv) {
    Options options;
    CLI::App app("Checks and shows message catalogues.", "qdliscat");
    app.footer(FOOTER);
    app.set_version_flag("--version", std::string("qdliscat ") + QDUL_VERSION);
    app.require_subcommand(1);

    CLI::App *checkCommand = app.add_subcommand(
        "check", "Check that every locale shows the same arguments, keys are decimal and patterns valid");
    checkCommand->add_option("CATALOGUE", options.catalogues, "Packages, bundles or sources")->required();
    checkCommand->add_flag("--complete", options.complete,
                           "Messages that are not translated are problems too");
    checkCommand->add_flag("-q,--quiet", options.quiet, "Only problems, no totals");

    CLI::App *showCommand =
        app.add_subcommand("show", "Show one message, and the advice on it, in every locale");
    showCommand->add_option("NUMBER", options.number, "Message number")->required();
    showCommand->add_option("CATALOGUE", options.catalogues, "Packages, bundles or sources")->required();

    CLI::App *listCommand = app.add_subcommand("list", "List the messages as a locale's users read them");
    listCommand->add_option("-l,--locale", options.locale, "Locale, as de or de_AT (default root)");
    listCommand->add_option("CATALOGUE", options.catalogues, "Packages, bundles or sources")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? tools::ExitOk : tools::ExitUsage;
    }
    if (showCommand->parsed() && !isNumber(options.number)) {
        std::fprintf(stderr, "qdliscat: '%s' is no message number\n", options.number.c_str());
        return tools::ExitUsage;
    }

    const LoadResult loaded = load(options.catalogues);
    if (loaded.state != Loaded::Ok) {
        std::fprintf(stderr, "qdliscat: %s\n", loaded.failure.c_str());
        return loaded.state == Loaded::DoesNotCompile ? tools::ExitNothing : tools::ExitUnreadable;
    }
    tools::Output out;
    int status = tools::ExitOk;
    if (checkCommand->parsed())
        status = runCheck(options, loaded.catalogues, out);
    else if (showCommand->parsed())
        status = runShow(options, loaded.catalogues, out);
    else if (listCommand->parsed())
        status = runList(options, loaded.catalogues, out);
    return out.flush() ? status : static_cast<int>(tools::ExitPartial);
}

} // namespace

int main(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    try {
        return run(argc, argv);
    } catch (const std::exception &failure) { // no memory, a directory that cannot be read
        std::fprintf(stderr, "qdliscat: %s\n", failure.what());
        return tools::ExitUnreadable;
    }
}
