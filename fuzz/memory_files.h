// SPDX-License-Identifier: Apache-2.0
// Files that exist in this process alone: what lies under "/memory" is reached through the C
// library's own calls, as the libraries make them, and no call gets to the system. A pause
// takes no time; the monotonic clock goes on by it. For one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace memory {

constexpr char DIRECTORY[] = "/memory";

void writeFile(const std::string &path, const uint8_t *data, size_t size); // made, or replaced
std::vector<std::string> files();                                          // their paths
size_t openDescriptors();

} // namespace memory
