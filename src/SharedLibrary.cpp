// SPDX-License-Identifier: Apache-2.0
#include "SharedLibrary.h"

#include "os.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

namespace {

const char FORMATTER_LIBRARY[] = "libzoltLogFormatMsg";
const char FORMATTER_ENTRY[] = "LogFormatMessage";

// Whether the loader has the library already and opens nothing.
bool isLoaded(const char *file) {
    return dl_iterate_phdr(
               [](dl_phdr_info *loaded, size_t, void *wanted) {
                   const char *slash = strrchr(loaded->dlpi_name, '/');
                   const char *name = slash != nullptr ? slash + 1 : loaded->dlpi_name;
                   return strcmp(name, static_cast<const char *>(wanted)) == 0 ? 1 : 0;
               },
               const_cast<char *>(file)) != 0;
}

// What the loader would take for the library is no regular file.
bool isOdd(const char *path, bool *isThere) {
    struct stat status;
    *isThere = stat(path, &status) == 0;
    return *isThere && !S_ISREG(status.st_mode);
}

// The directories in which the loader looks for what this library loads; null when they
// cannot be told.
LogOwned<Dl_serinfo> searchPath() {
    Dl_info self;
    Dl_serinfo size;
    if (dladdr(reinterpret_cast<void *>(SharedLibLoad), &self) == 0)
        return nullptr;
    void *const library = dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr)
        return nullptr;
    LogOwned<Dl_serinfo> path;
    if (dlinfo(library, RTLD_DI_SERINFOSIZE, &size) == 0) {
        path.reset(static_cast<Dl_serinfo *>(malloc(size.dls_size)));
        if (path != nullptr) {
            *path = size;
            if (dlinfo(library, RTLD_DI_SERINFO, path.get()) != 0)
                path.reset();
        }
    }
    (void)dlclose(library);
    return path;
}

// Whether the loader would open something else than a file, and perhaps wait there.
bool leadsToOddNode(const char *file) {
    bool isThere = false;
    if (strchr(file, '/') != nullptr)
        return isOdd(file, &isThere);
    const LogOwned<Dl_serinfo> path = searchPath();
    for (unsigned i = 0; path != nullptr && i < path->dls_cnt; ++i) {
        char candidate[PATH_MAX];
        const int length =
            snprintf(candidate, sizeof candidate, "%s/%s", path->dls_serpath[i].dls_name, file);
        if (length < 0 || static_cast<size_t>(length) >= sizeof candidate)
            continue;
        const bool odd = isOdd(candidate, &isThere);
        if (isThere)
            return odd;
    }
    return false;
}

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
    *library = isLoaded(file) || !leadsToOddNode(file) ? dlopen(file, RTLD_LAZY) : nullptr;
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
    if (hasSize(word, sizeof(Word *)))
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
