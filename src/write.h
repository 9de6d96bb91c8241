// Dispatch, for the message entry points.
#pragma once

#include "bin2txt.h"
#include "zoltlog.h"

// zoltLogMsg for a thread that holds the lock; neither may be null. ready is null or holds
// the record's words.
uint32_t dispatchLocked(LogHandle *handle, uint32_t flags, LogMsg *msg, const RecordWords *ready);
