// SPDX-License-Identifier: Apache-2.0
// The message record, for the units that build records themselves.
#pragma once

#include "zoltlog.h"

// zoltLogInitMsg without its copy of the text: ownedText, a heap text or null,
// belongs to the record afterwards, and is released when the result is not 0.
uint32_t initMsgWithOwnedText(LogMsg *msg, LogHandle *handle, uint32_t type, char *ownedText);

// zoltLogInitMsg without a text, for a thread that holds the lock; neither may be null.
uint32_t initMsgLocked(LogMsg *msg, LogHandle *handle, uint32_t type);
