#include "common/result_text.h"

#include "zoltlog_results.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace tools {

std::string resultMessage(uint32_t result) {
    return std::string(qdulResultText(result)) + " (" + std::to_string(result) + ")";
}

std::string configurationProblem(const char *path, uint32_t result) {
    const std::string name = std::string("configuration ") + path;
    if (access(path, R_OK) != 0)
        return name + ": " + std::strerror(errno);
    return name + ": " + resultMessage(result);
}

} // namespace tools
