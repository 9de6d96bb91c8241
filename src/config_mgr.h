// SPDX-License-Identifier: Apache-2.0
// Management of log files: shared between its files.
#pragma once

#include "zoltlog.h"

// Permission bits with which the management operations open and create files.
inline constexpr uint32_t MANAGED_FILE_PERMISSIONS = 0660;
