// SPDX-License-Identifier: Apache-2.0
// The commands of qdlogcfg. Each returns the exit status; what cannot be done at
// all is thrown as a CommandError.
#pragma once

#include <string>
#include <vector>

#include "common/json.h"
#include "common/options.h"
#include "settings.h"

struct Edits;

struct Options : tools::CommonOptions {
    bool dryRun = false;
    // which section of settings
    std::string product;
    std::string originator;
    std::string logset;
    // of single commands
    std::vector<std::string> arguments; // keys, or KEY=VALUE
    std::string names;
    std::string file;
    std::string kind = "app";
    uint32_t level = 1;
    uint32_t severity = 0;
    std::string fileOriginator;
    uint32_t flags = 0;
    bool exported = false;
};

int productAdd(const Options &options, tools::Output &out);
int productRemove(const Options &options, tools::Output &out);
int productList(const Options &options, tools::Output &out);
int productShow(const Options &options, tools::Output &out);
int getSettings(const Options &options, tools::Output &out);
int setSettings(const Options &options, tools::Output &out);
int unsetSettings(const Options &options, tools::Output &out);
int listScopes(const Options &options, tools::Output &out);
int showSettings(const Options &options, tools::Output &out);
int applySettings(const Options &options, tools::Output &out);
int checkConfiguration(const Options &options, tools::Output &out);
int explainMessage(const Options &options, tools::Output &out);
int showBudget(const Options &options, tools::Output &out);

// ---- used by several commands ----------------------------------------------------

// Ends the JSON text with a line feed and hands it to the output.
void writeJson(tools::Output &out, tools::Json &json);
// Bytes as people read them: "10.0 MB".
std::string readableSize(uint64_t bytes);
// The directory itself, or the nearest parent of it that exists ("" for none).
std::string nearestExisting(const std::string &directory);

struct Change {
    const CfgKey *key;
    std::string value; // in the form that is written
    std::string utf8;  // as it stands in the file
};
// "KEY=VALUE" for a scope; CommandError when the library would not take it exactly.
Change checkedChange(const std::string &argument, const Scope &scope);

// CommandError when a product's file would have an error with these edits that it has not
// without; what else is new there, as lines of notes.
std::string requireGood(const Product &product, const ConfigFile &file, const Edits &edits);
// CommandError when this user could not change the file.
void requireWritable(const std::string &path);
