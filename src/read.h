// SPDX-License-Identifier: Apache-2.0
// Reading the log catalogue: the bounds of what is read from files that anyone may have
// written. Names and the header line are log_name's.
#pragma once

#include "log_name.h"
#include "zoltlog.h"

#include <cstddef>

// Room that a caller of getSLidfromfilename gives: a name, cut if it is longer,
// and the date and time; terminators included.
constexpr size_t LOGSET_NAME_ROOM = 1025;
constexpr size_t DATE_TIME_ROOM = 13;

// A file whose first line is longer has no header.
constexpr uint64_t LONGEST_HEADER_LINE = 65536;

// ---- the latest file of a series (read_latest.cpp) ----------------------------

constexpr size_t LATEST_NAME_ROOM = 256; // the system's longest file name, terminated

struct LatestLog {
    char name[LATEST_NAME_ROOM];
    int64_t time; // of a log set's file, as convert_time has its name
};

// As zoltLogFindLatestLog and zoltLogFindLatestLogSL tell it, by the prefix of the series;
// of an originator's files, those of days after lastDay, which may be null, do not count.
// UNCERTAIN, with errno, when the directory is there but could not be looked at.
enum class Latest { FOUND, NONE, UNCERTAIN };
Latest findLatestLog(const char *directory, const LogName *series, const LogFileDate *lastDay,
                     LatestLog *latest);
