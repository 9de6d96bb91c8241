#include "SharedLibrary.h"

#include "os.h"

#include <dlfcn.h>

namespace {

const char FORMATTER_LIBRARY[] = "libzoltLogFormatMsg";
const char FORMATTER_ENTRY[] = "LogFormatMessage";

} // namespace

void *sh_handle;
LogFormatter *fmtLib;
LogFormatter *newfmtLib;

int32_t SharedLibLoad(void **library, const char *name, char **fileName) {
    if (library == nullptr || name == nullptr)
        return ZOLTLOG_OS_NOT_LOADED;
    char *file = nullptr;
    if (zoltLogOs_getLibName(name, &file) != 0) {
        if (fileName != nullptr)
            *fileName = nullptr;
        return ZOLTLOG_OS_NOT_LOADED;
    }
    *library = dlopen(file, RTLD_LAZY);
    if (fileName != nullptr && *library != nullptr) {
        *fileName = file;
    } else {
        zoltLogFree(file);
        if (fileName != nullptr)
            *fileName = nullptr;
    }
    return *library != nullptr ? ZOLTLOG_OS_OK : ZOLTLOG_OS_NOT_LOADED;
}

int32_t SharedLibUnload(void *library) {
    if (library == nullptr)
        return ZOLTLOG_OS_NOT_LOADED;
    (void)dlclose(library); // nothing to be done about a library that will not go
    return ZOLTLOG_OS_OK;
}

int32_t SharedLibResolveFunc(void *library, const char *symbol, void **function) {
    if (library == nullptr || symbol == nullptr || symbol[0] == '\0' || function == nullptr)
        return ZOLTLOG_OS_NOT_LOADED;
    *function = dlsym(library, symbol);
    return ZOLTLOG_OS_OK;
}

namespace {

// Writes an exported word, unless the host has something else of that name.
template<typename Word>
void writeWord(Word **word, Word *value) {
    if (hasSize(word, sizeof *word))
        *word = value;
}

} // namespace

FormatterState renderWithFormatter(LogFormatter **slot, const FormatterRequest &request, uint32_t *result,
                                   char **text) {
    // KEPT: the plug-in is loaded anew for every message, each load adding a reference that is never given
    // back, and sh_handle is overwritten each time. Pinned by LogOutput.EachCallAddsAReferenceToThePlugIn.
    void *library = nullptr;
    const int32_t loaded = SharedLibLoad(&library, FORMATTER_LIBRARY, nullptr);
    writeWord(&sh_handle, library);
    if (loaded != ZOLTLOG_OS_OK)
        return FormatterState::Absent;
    auto *formatter = static_cast<LogFormatter *>(zoltLogMalloc(sizeof(LogFormatter)));
    if (formatter == nullptr)
        return FormatterState::NoMemory;
    *formatter = {library, nullptr};
    writeWord(slot, formatter);
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
    writeWord(slot, static_cast<LogFormatter *>(nullptr));
    zoltLogFree(formatter);
    return state;
}
