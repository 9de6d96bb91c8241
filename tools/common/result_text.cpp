// SPDX-License-Identifier: Apache-2.0
#include "common/result_text.h"

#include "zoltlog_results.h"

namespace tools {

std::string resultMessage(uint32_t result) {
    return std::string(qdulResultText(result)) + " (" + std::to_string(result) + ")";
}

} // namespace tools
