// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace support {

// Build and source directory of the project under test.
std::string buildDirectory();
std::string sourceDirectory();

std::string readFile(const std::string &path); // "" when it cannot be read
void writeFile(const std::string &path, const std::string &bytes);
bool exists(const std::string &path);
void makeDirectory(const std::string &path);                // with its parents, mode 0755
std::vector<std::string> listFiles(const std::string &dir); // names, sorted, without . and ..
std::vector<std::string> lines(const std::string &text);    // without their line feeds

// Selects a locale of the C library or one made for the tests (de_DE.ISO-8859-1,
// ja_JP.EUC-JP, en_US.UTF-8, de_DE.UTF-8, tr_TR.UTF-8); false when it is missing.
bool useLocale(const char *name);

// The text that body writes to standard output (descriptor 1) or error (2).
std::string captured(int descriptor, const std::function<void()> &body);

// Runs body in a forked child; its exit status, or 128 + the signal that ended it.
int inChild(const std::function<int()> &body);

// Runs body, with its expectations, in a forked child that is not root: where we are, it
// becomes another user, who then owns the test's directory. False when one failed.
bool asOrdinaryUser(const std::function<void()> &body);

struct Finished {
    int status; // exit status, or 128 + signal
    std::string out;
    std::string err;
};
// Runs a program with arguments; input is its standard input.
Finished run(const std::vector<std::string> &command, const std::string &input = "");

// Open descriptors of this process, for leak checks.
size_t openDescriptors();

} // namespace support
