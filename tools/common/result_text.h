// Result codes of the library in words, for messages of the tools.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

std::string resultMessage(uint32_t result); // "no log file was found (45)"
// Why the main configuration file gave nothing: that it cannot be read, else the result.
std::string configurationProblem(const char *path, uint32_t result);

} // namespace tools
