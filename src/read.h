// Reading the log catalogue: the bounds of what is read from files that anyone may have
// written.
//
// Names of log files (made in write_file_name.cpp; see docs/format-log-file.md):
//
//     originator series = product "-" originator "-" host "-" YYMMDD "-" counter ".log"
//     log set series    = product "-" name "-" YYMMDDhhmmss ".log"
//
// Header line (written there too, read by ReadHeader and ReadHeaderEx):
//
//     "$Header 65543," product "," originator "," created "," zone "," host LF
//     "$Header 65544," zone "," host LF
//     "$Header " 65540..65542 "," product "," originator "," created "," host LF
#pragma once

#include "zoltlog.h"

#include <stddef.h>

// Room that a caller of getSLidfromfilename gives: a name, cut if it is longer,
// and the date and time; terminators included.
static const size_t LOGSET_NAME_ROOM = 1025;
static const size_t DATE_TIME_ROOM = 13;

// A file whose first line is longer has no header.
static const uint64_t LONGEST_HEADER_LINE = 65536;

static const uint64_t OLDEST_READ_VERSION = 65540;
