// SPDX-License-Identifier: Apache-2.0
// An open file that is closed at the end of its life.
#pragma once

#include <unistd.h>

namespace qdlogmgr {

struct Descriptor {
    explicit Descriptor(int theNumber) : number(theNumber) {}
    ~Descriptor() {
        if (number >= 0)
            close(number);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    const int number; // below 0: not open
};

} // namespace qdlogmgr
