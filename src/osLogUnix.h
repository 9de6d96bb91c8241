// SPDX-License-Identifier: Apache-2.0
// What the system-log sink shares with the configuration.
#pragma once

#include "zoltlog.h"

inline constexpr char OSLOG_DEFAULT_IDENT[] = "Qorvanix";
inline constexpr uint32_t OSLOG_DEFAULT_FACILITY = 8; // LOG_USER
