// SPDX-License-Identifier: Apache-2.0
// Putting bundles into a package that programs may be reading.
#pragma once

#include <string>
#include <vector>

#include "common/terminal.h"

namespace qdliscat {

struct Installation {
    std::vector<std::string> names; // bundles, sources, directories of bundles
    std::string package;            // made if it is missing
    bool complete;                  // messages that are not translated are problems
    bool quiet;
};

// Puts the bundles beside those of the package that they replace, checks what the package will
// be, and renames each: whoever reads meanwhile has an old bundle or a new one, whole. With any
// problem nothing is changed. Yields the tool's exit status; failures are told.
int install(const Installation &installation, tools::Output &out);

} // namespace qdliscat
