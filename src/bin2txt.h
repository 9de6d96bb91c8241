// Decimal numbers written by hand, for records and file headers.
#pragma once

#include <stdint.h>

// Longest decimal text of a 64-bit number, sign included.
static const uint64_t MAX_DECIMAL = 20;

// Each writes at most MAX_DECIMAL characters, no terminator, and returns where it stopped.
char *putUnsigned(char *at, uint64_t value);
char *putSigned(char *at, int64_t value);
