// Reading the log catalogue: the bounds of what is read from files that anyone may have
// written. Names and the header line are log_name's.
#pragma once

#include "zoltlog.h"

#include <stddef.h>

// Room that a caller of getSLidfromfilename gives: a name, cut if it is longer,
// and the date and time; terminators included.
static const size_t LOGSET_NAME_ROOM = 1025;
static const size_t DATE_TIME_ROOM = 13;

// A file whose first line is longer has no header.
static const uint64_t LONGEST_HEADER_LINE = 65536;
