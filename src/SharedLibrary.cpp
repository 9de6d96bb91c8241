#include "SharedLibrary.h"

#include <dlfcn.h>

static const int32_t SHARED_LIB_OK = 0;
static const int32_t SHARED_LIB_FAILED = -2;

static const char FORMATTER_LIBRARY[] = "libzoltLogFormatMsg";
static const char FORMATTER_ENTRY[] = "LogFormatMessage";

void *sh_handle;
LogFormatter *fmtLib;
LogFormatter *newfmtLib;

int32_t SharedLibLoad(void **library, const char *name, char **fileName) {
    if (library == nullptr || name == nullptr)
        return SHARED_LIB_FAILED;
    char *file = nullptr;
    if (zoltLogOs_getLibName(name, &file) != 0) {
        if (fileName != nullptr)
            *fileName = nullptr;
        return SHARED_LIB_FAILED;
    }
    *library = dlopen(file, RTLD_LAZY);
    if (fileName != nullptr && *library != nullptr) {
        *fileName = file;
    } else {
        zoltLogFree(file);
        if (fileName != nullptr)
            *fileName = nullptr;
    }
    return *library != nullptr ? SHARED_LIB_OK : SHARED_LIB_FAILED;
}

int32_t SharedLibUnload(void *library) {
    if (library == nullptr)
        return SHARED_LIB_FAILED;
    (void)dlclose(library); // nothing to be done about a library that will not go
    return SHARED_LIB_OK;
}

int32_t SharedLibResolveFunc(void *library, const char *symbol, void **function) {
    if (library == nullptr || symbol == nullptr || symbol[0] == '\0' || function == nullptr)
        return SHARED_LIB_FAILED;
    *function = dlsym(library, symbol);
    return SHARED_LIB_OK;
}

FormatterState renderWithFormatter(LogFormatter **slot, const FormatterRequest &request, uint32_t *result,
                                   char **text) {
    // KEPT: the plug-in is loaded anew for every message, each load adding a reference that is never given
    // back, and sh_handle is overwritten each time. Pinned by LogOutput.EachCallAddsAReferenceToThePlugIn.
    if (SharedLibLoad(&sh_handle, FORMATTER_LIBRARY, nullptr) != SHARED_LIB_OK)
        return FormatterState::Absent;
    auto *formatter = static_cast<LogFormatter *>(zoltLogMalloc(sizeof(LogFormatter)));
    if (formatter == nullptr)
        return FormatterState::NoMemory;
    *formatter = {sh_handle, nullptr};
    *slot = formatter;
    (void)SharedLibResolveFunc(formatter->library, FORMATTER_ENTRY, &formatter->entry);
    FormatterState state = FormatterState::Called;
    if (formatter->entry == nullptr) {
        (void)SharedLibUnload(formatter->library);
        state = FormatterState::NoEntry;
    } else {
        *text = nullptr;
        const auto format = reinterpret_cast<LogFormatMessageFn>(formatter->entry);
        *result = format(request.localizers, 0, request.locale, 0, request.formatFlags, 0, request.msg,
                         request.handle, text);
    }
    *slot = nullptr;
    zoltLogFree(formatter);
    return state;
}
