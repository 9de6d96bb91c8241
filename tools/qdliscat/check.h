// SPDX-License-Identifier: Apache-2.0
// Checking message catalogues.
#pragma once

#include <string>
#include <vector>

#include "common/terminal.h"
#include "qdliscat/catalogue.h"

namespace qdliscat {

struct Problem {
    std::string locale; // "" for the catalogue as a whole
    std::string key;    // "" for the bundle as a whole
    std::string text;
};

// What would make a message missing or wrong in some locale. complete: also
// messages that a locale other than root lacks.
std::vector<Problem> check(const Catalogue &catalogue, bool complete);

// "messages: de: 1001: argument 2 is a text, in root an integer"
void printProblem(tools::Output &out, const std::string &title, const Problem &problem);

} // namespace qdliscat
