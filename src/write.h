// Dispatch, for the message entry points.
#pragma once

#include "zoltlog.h"

// zoltLogMsg for a thread that holds the lock, and a message without a block whose text is
// borrowed.
uint32_t dispatchLocked(LogHandle *handle, uint32_t flags, LogMsg *msg);
