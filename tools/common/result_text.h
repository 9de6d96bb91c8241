// SPDX-License-Identifier: Apache-2.0
// Result codes of the library in words, for messages of the tools.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

std::string resultMessage(uint32_t result); // "no log file was found (45)"

} // namespace tools
