// SPDX-License-Identifier: Apache-2.0
// Prints the list of record fields for the manual page of qdlogview, in its source form,
// from the table of fields.
#include <cstdio>

#include "common/fields.h"

int main() {
    for (const tools::FieldRow &row : tools::allFields()) {
        std::printf("*%s*", row.name);
        if (row.alias != nullptr)
            std::printf(", *%s*", row.alias);
        std::printf("\n\t%s\n\n", row.help);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
