// SPDX-License-Identifier: Apache-2.0
// What a fuzzer knows must hold.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

} // namespace fuzz
