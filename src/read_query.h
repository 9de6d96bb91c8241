// SPDX-License-Identifier: Apache-2.0
// Query trees over log files: what the listing asks of them.
#pragma once

#include "zoltlog.h"

// Whether a term of the tree has the value of the host name attribute: the listing
// then opens every file's header.
bool queryMentionsHost(const LogQueryNode *node);
