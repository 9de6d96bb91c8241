// qdlogcfg: registers products; shows, changes, checks and explains settings.
#include <CLI/CLI.hpp>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <unistd.h>

#include "commands.h"
#include "common/exit_codes.h"

void writeJson(tools::Output &out, tools::Json &json) {
    out.write(std::string(json.written()) + "\n");
    json.clear();
}

std::string readableSize(uint64_t bytes) {
    static constexpr std::array<const char *, 6> units = {"KB", "MB", "GB", "TB", "PB", "EB"};
    auto size = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (size >= 1024 && unit + 1 < units.size()) {
        size /= 1024;
        ++unit;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %s", size, units[unit]);
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

using CommandFn = int (*)(const Options &, tools::Output &);

// Which options a command takes.
enum Takes : unsigned {
    PRODUCT = 1,       // --product, required
    ANY_PRODUCT = 2,   // --product, optional
    SCOPE = 4,         // --originator, --logset
    ARGUMENTS = 8,     // KEY or KEY=VALUE ...
    ID = 16,           // product id as the argument
    REGISTRATION = 32, // --names, --file
    MESSAGE = 64,      // --kind, --level, --severity ...
    DRY_RUN = 128,
    JSON = 256,
};

struct Command {
    const char *group; // "product" or null
    const char *name;
    CommandFn run;
    unsigned takes;
    const char *argument; // of ARGUMENTS and ID
    const char *help;
    const char *example;
};

constexpr Command COMMANDS[] = {
    {"product", "add", productAdd, ID | REGISTRATION | DRY_RUN, "ID", "Register a product",
     "qdlogcfg product add 5 --names server,srv --file /etc/qd/server.conf"},
    {"product", "remove", productRemove, ID | DRY_RUN, "PRODUCT",
     "Remove a product's registration; its configuration and log files stay", "qdlogcfg product remove 5"},
    {"product", "list", productList, JSON, "", "List the registered products",
     "qdlogcfg product list --json"},
    {"product", "show", productShow, ID | JSON, "PRODUCT", "Show one registration",
     "qdlogcfg product show server"},
    {nullptr, "get", getSettings, PRODUCT | SCOPE | ARGUMENTS | JSON, "KEY",
     "Print the effective value of settings", "qdlogcfg get --product 5 --originator 7 DebugLevel"},
    {nullptr, "set", setSettings, PRODUCT | SCOPE | ARGUMENTS | DRY_RUN, "KEY=VALUE",
     "Change settings of the Default section, an originator or a log set",
     "qdlogcfg set --product 5 LogDirectory=/var/log/qd RolloverMode=FileSize MaxLogFileSizeKB=1024"},
    {nullptr, "unset", unsetSettings, PRODUCT | SCOPE | ARGUMENTS | DRY_RUN, "KEY",
     "Remove settings, so that the inherited value holds",
     "qdlogcfg unset --product 5 --originator 7 DebugLevel"},
    {nullptr, "list", listScopes, PRODUCT | JSON, "", "List the originators and log sets of a product",
     "qdlogcfg list --product 5"},
    {nullptr, "show", showSettings, PRODUCT | SCOPE | JSON, "",
     "Show every setting, its effective value and where it comes from",
     "qdlogcfg show --product 5 --logset backup"},
    {nullptr, "check", checkConfiguration, ANY_PRODUCT | JSON, "",
     "Tell what the library would skip, misread or fail on", "qdlogcfg check"},
    {nullptr, "explain", explainMessage, PRODUCT | SCOPE | MESSAGE | JSON, "",
     "Tell whether a message would be written, where to, and which setting stops it",
     "qdlogcfg explain --product 5 --originator 7 --kind debug --level 3"},
    {nullptr, "budget", showBudget, ANY_PRODUCT | JSON, "",
     "Show the most disk that each series can take, against free space", "qdlogcfg budget --product 5"},
};

void addOptions(CLI::App &app, const Command &command, Options &options) {
    if ((command.takes & PRODUCT) != 0)
        app.add_option("-p,--product", options.product, "Product id or name")->required();
    if ((command.takes & ANY_PRODUCT) != 0)
        app.add_option("-p,--product", options.product, "Product id or name (default: all)");
    if ((command.takes & ID) != 0)
        app.add_option("product", options.product, "Product id or name")
            ->required()
            ->type_name(command.argument);
    if ((command.takes & SCOPE) != 0) {
        CLI::Option *originator = app.add_option("-o,--originator", options.originator,
                                                 "Originator id or name (default: the Default section)");
        CLI::Option *logset = app.add_option("-l,--logset", options.logset,
                                             "Log set name; Default is the base of all log sets");
        logset->excludes(originator);
        for (CLI::Option *option : {originator, logset})
            option->check([](const std::string &name) { return name.empty() ? "the name is empty" : ""; });
    }
    if ((command.takes & ARGUMENTS) != 0)
        app.add_option("settings", options.arguments, "Settings")->required()->type_name(command.argument);
    if ((command.takes & REGISTRATION) != 0) {
        app.add_option("-n,--names", options.names, "Short names of the product, separated by commas")
            ->required();
        app.add_option("-f,--file", options.file,
                       "The product's configuration file; its name holds \".conf\"")
            ->required();
    }
    if ((command.takes & MESSAGE) != 0) {
        app.add_option("-k,--kind", options.kind, "Kind of message (default app)")
            ->check(CLI::IsMember({"app", "diag", "debug", "audit", "secure-audit"}));
        app.add_option("--level", options.level,
                       "Level of a debug or diagnostic message, 1 to 6 (default 1)");
        app.add_option("--severity", options.severity,
                       "Severity of an application message, 0 to 4 (default 0)");
        app.add_option("--file-originator", options.fileOriginator,
                       "Originator whose file is written (zoltLogOpen2)");
        app.add_option("--flags", options.flags, "Output flags of the message call");
    }
    if ((command.takes & DRY_RUN) != 0)
        app.add_flag("--dry-run", options.dryRun, "Say what would be done, and do nothing");
    if ((command.takes & JSON) != 0)
        app.add_flag("-j,--json", options.json, "Write JSON");
    app.footer(std::string("Example:\n  ") + command.example);
}

std::string settingsHelp() {
    std::string text = "Settings:\n";
    for (const CfgKey &key : CFG_KEYS) {
        char line[256];
        std::snprintf(line, sizeof line, "  %-24s %s (%s)\n", key.name, key.help, key.values);
        text += line;
    }
    return text + "\nExit status: 0 done, 1 nothing found or problems found, 2 wrong usage, 3 a file or the\n"
                  "configuration cannot be read or changed.";
}

int runCommand(int argc, char **argv) {
    std::setlocale(LC_ALL, "");
    CLI::App app("Registers products; shows, changes, checks and explains their log settings.", "qdlogcfg");
    app.set_version_flag("-V,--version", "qdlogcfg " QDUL_VERSION);
    app.require_subcommand(1);
    app.footer(settingsHelp());
    app.fallthrough();
    std::string config;
    std::string colorText = "auto";
    bool noPager = false;
    app.add_option("-c,--config", config,
                   "Main configuration file (default: ZOLTLOG_CFG_LOC, else /etc/qd/zoltlog.conf)");
    app.add_flag("--no-pager", noPager, "Never start a pager");
    app.add_option("--color", colorText, "auto, always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}));

    Options options;
    const Command *chosen = nullptr;
    CLI::App *product = app.add_subcommand("product", "Register, remove, list and show products");
    product->require_subcommand(1);
    product->fallthrough();
    product->footer("Example:\n  qdlogcfg product list");
    for (const Command &command : COMMANDS) {
        CLI::App *sub =
            (command.group != nullptr ? product : &app)->add_subcommand(command.name, command.help);
        sub->fallthrough();
        addOptions(*sub, command, options);
        sub->callback([&chosen, &command] { chosen = &command; });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? tools::ExitOk : tools::ExitUsage;
    }
    if (!config.empty())
        setenv("ZOLTLOG_CFG_LOC", std::filesystem::absolute(config).c_str(),
               1); // before the library reads it
    tools::ColorMode color = tools::ColorMode::Auto;
    tools::parseColorMode(colorText, color);
    options.color = tools::colorWanted(color, isatty(1) != 0);

    tools::Pager pager;
    tools::Output out;
    if ((chosen->takes & JSON) != 0 && !options.json && !noPager)
        pager.start();
    try {
        const int status = chosen->run(options, out);
        const bool written = out.flush();
        pager.finish();
        if (!written)
            return out.error == EPIPE ? status : tools::ExitPartial;
        return status;
    } catch (const CommandError &error) {
        out.flush();
        pager.finish();
        std::fprintf(stderr, "qdlogcfg: %s\n", tools::escaped(error.what()).c_str());
        return error.exitCode;
    }
}

} // namespace

int main(int argc, char **argv) {
    try {
        return runCommand(argc, argv);
    } catch (const std::exception &error) { // out of memory, or a path that cannot be used
        std::fputs("qdlogcfg: ", stderr);
        std::fputs(error.what(), stderr);
        std::fputc('\n', stderr);
        return tools::ExitUnreadable;
    }
}
