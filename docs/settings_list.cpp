// SPDX-License-Identifier: Apache-2.0
// Prints the list of settings for the documents, from the table of configuration keys:
// "manual" in the manual page's source form, "markdown" as the rows of
// docs/format-config.md.
#include <cstdio>
#include <cstring>
#include <string>

#include "src/config_keys.h"

namespace {

// What holds without the key, as it would be written.
std::string initialValue(CfgKeyId id) {
    LogCfg cfg;
    char buffer[CFG_SHOWN_SIZE];
    InitLogCfg(1, 1, nullptr, &cfg);
    const char *text = cfgShow(&cfg, id, buffer);
    const std::string value = text == nullptr || *text == '\0' ? "none" : text;
    zoltLogFreeCfg(&cfg);
    return id == CFG_KEY_FILE_NAME ? "the log set's name" : value;
}

std::string escaped(const std::string &text, const char *special) {
    std::string result;
    for (const char c : text) {
        if (std::strchr(special, c) != nullptr)
            result += '\\';
        result += c;
    }
    return result;
}

std::string scopeOf(const CfgKey &key) {
    const std::string scope = (key.use & CFG_READ_LOGSET) == 0       ? " (originators only)"
                              : (key.use & CFG_READ_ORIGINATOR) == 0 ? " (log sets only)"
                                                                     : "";
    return scope + ((key.use & CFG_UNUSED) != 0 ? std::string("; ") + CFG_UNUSED_NOTE : "");
}

} // namespace

int main(int argc, char **argv) {
    const bool manual = argc == 2 && std::strcmp(argv[1], "manual") == 0;
    if (!manual && (argc != 2 || std::strcmp(argv[1], "markdown") != 0)) {
        std::fputs("usage: settings_list manual|markdown\n", stderr);
        return 2;
    }
    for (const CfgKey &key : CFG_KEYS) {
        const std::string initial = initialValue(static_cast<CfgKeyId>(&key - CFG_KEYS));
        if (manual)
            std::printf("*%s*\n\t%s%s: %s. Default: %s.\n\n", key.name, escaped(key.help, "_*").c_str(),
                        scopeOf(key).c_str(), escaped(key.values, "_*").c_str(),
                        escaped(initial, "_*").c_str());
        else
            std::printf("| `%s` | %s%s | %s | %s |\n", key.name, key.help, scopeOf(key).c_str(),
                        escaped(key.values, "|").c_str(), initial.c_str());
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
