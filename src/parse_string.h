// SPDX-License-Identifier: Apache-2.0
// Name lists, the string hash and the table of context titles.
#pragma once

#include "zoltlog.h"

// What HashString takes modulo its modulus: equal texts have equal values, so a
// finer table than the one that HashString's modulus gives can be kept by it.
uint64_t hashText(uint64_t seed, const char *text);
