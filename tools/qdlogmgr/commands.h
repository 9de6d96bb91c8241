// SPDX-License-Identifier: Apache-2.0
// The commands of qdlogmgr. Each gives the exit status.
#pragma once

#include "common/json.h"
#include "common/terminal.h"
#include "qdlogmgr/options.h"
#include "qdlogmgr/series.h"

#include <deque>
#include <string>

namespace qdlogmgr {

struct Run {
    const Options &options;
    Catalogue catalogue;
    tools::Output &out;
    Problems problems;
    size_t failures; // files that something could not be done with
};

int listFiles(Run &run);
int listSurplus(Run &run);
int showUsage(Run &run);
int verifyFiles(Run &run);
int copyFiles(Run &run);
int archiveFiles(Run &run);
int deleteFiles(Run &run);
int vacuumFiles(Run &run);
int rotateFiles(Run &run);
int bundleFiles(Run &run);

// A file of a series, for commands that go through files.
struct Choice {
    const Series *series;
    const File *file;
};
using Choices = std::deque<Choice>;

// The files of all series that the options ask for, oldest first within each.
// Without a condition: all of them, or the surplus ones when defaultSurplus is set.
// Files that were named and are in no series are told as problems.
Choices chosenFiles(Run &run, bool defaultSurplus);

// Why the file must not be removed, or "".
std::string reasonToKeep(const File &file);

// One line, or one object, for each thing done, planned or refused.
struct Report {
    explicit Report(Run &theRun);
    void tell(const char *action, const Choice &choice, const std::string &detail = "");
    // Tells once that something could not be done: as json, else at the end on standard error.
    void fail(const char *action, const Choice &choice, const std::string &why);
    void finish(); // ends the JSON text

    Run &run;
    tools::Json json;
};

// Removes the file if it is still the one that was looked at. False with the reason.
bool removeFile(const File &file, std::string &error);

// Ends a command: problems on standard error, and the status they give to one that
// did `done` things.
int finish(Run &run, size_t done);

std::string timeText(const Run &run, int64_t milliseconds);
void jsonFile(tools::Json &json, const Choice &choice); // members of a file

} // namespace qdlogmgr
