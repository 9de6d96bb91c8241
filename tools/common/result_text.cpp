#include "common/result_text.h"

#include "zoltlog.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace tools {

namespace {

struct Row {
    uint32_t result;
    const char *text;
};

constexpr Row rows[] = {
    {ZOLTLOG_OK, "success"},
    {ZOLTLOG_FAILED, "general failure"},
    {ZOLTLOG_LIS_FAILED, "the localization library failed"},
    {ZOLTLOG_INVALID_ARGUMENT, "invalid argument"},
    {ZOLTLOG_NO_MEMORY, "out of memory"},
    {ZOLTLOG_WRITE_FAILED, "the record could not be written"},
    {ZOLTLOG_CFG_NOT_FOUND, "configuration not found, or its file cannot be opened"},
    {ZOLTLOG_NO_MORE, "no more entries"},
    {ZOLTLOG_LIS_OTHER, "the localization library failed in another way"},
    {ZOLTLOG_OSLOG_OPEN_FAILED, "the system log could not be opened"},
    {ZOLTLOG_PRODUCT_EXISTS, "the product is registered already"},
    {ZOLTLOG_SOURCE_SIZE_UNKNOWN, "the size of the source file cannot be determined"},
    {ZOLTLOG_OPEN_FAILED, "a log file cannot be opened"},
    {ZOLTLOG_SHORT_READ, "the source file could not be read to its end"},
    {ZOLTLOG_SHORT_WRITE, "the copy could not be written, or the link failed"},
    {ZOLTLOG_NO_PRODUCT_CFG, "the product has no configuration"},
    {ZOLTLOG_NO_LOG_FILES, "no log file was found"},
    {ZOLTLOG_DEST_OPEN_FAILED, "the destination of the copy cannot be opened"},
    {ZOLTLOG_UNSUPPORTED_HEADER, "the log file's header has an unknown version"},
    {ZOLTLOG_SECTION_NOT_FOUND, "the product or log set has no section to remove"},
    {ZOLTLOG_OPEN_DENIED, "the log file cannot be opened: permission denied"},
    {ZOLTLOG_OPEN_NO_PATH, "the log file cannot be opened: no such path"},
    {ZOLTLOG_NO_DIRECTORY, "the configuration has no log directory"},
    {ZOLTLOG_DEVICE_FULL, "no space is left on the device"},
    {ZOLTLOG_CFG_CREATE_FAILED, "the configuration file or its directory cannot be created"},
    {ZOLTLOG_NO_FILE_STATE, "the log handle has no open file"},
    {ZOLTLOG_SECURE_ON_FILE_HANDLE, "a secure audit message needs a secure handle"},
    {ZOLTLOG_NOTHING_TO_WRITE, "nothing to write"},
    {ZOLTLOG_STORE_RESULT_10, "the property store failed"},
};

} // namespace

const char *resultText(uint32_t result) {
    for (const Row &row : rows) {
        if (row.result == result)
            return row.text;
    }
    return "unknown result";
}

std::string resultMessage(uint32_t result) {
    return std::string(resultText(result)) + " (" + std::to_string(result) + ")";
}

std::string configurationProblem(const char *path, uint32_t result) {
    const std::string name = std::string("configuration ") + path;
    if (access(path, R_OK) != 0)
        return name + ": " + std::strerror(errno);
    return name + ": " + resultMessage(result);
}

} // namespace tools
