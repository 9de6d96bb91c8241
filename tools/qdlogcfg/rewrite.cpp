// The library's rewrite of a configuration file, which is compiled into the tool, over the
// exported property store.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "commands.h"
#include "common/exit_codes.h"
#include "src/os.h"
#include "src/utiPropertyStoreFile.h"

// ---- what the rewrite asks of the store ------------------------------------------------

int storeOpenForReading(const char *path) {
    PropertyStore store;
    errno = 0;
    if (utiOpenPropertyStore(path, "", &store) != ZOLTLOG_STORE_OK) {
        errno = errno != 0 ? errno : EINVAL;
        return -1;
    }
    const int descriptor = fcntl(fileno(store.stream), F_DUPFD_CLOEXEC, 0);
    utiClosePropertyStore(&store);
    return descriptor;
}

int aboveStdio(int descriptor) {
    return descriptor; // the tool's own three are open
}

bool storeWasRead(const char * /*path*/) {
    return true; // the tool reads a file before it changes it
}

void storeForget(const char * /*path*/) {}

// ---- the rewrite -----------------------------------------------------------------------------

namespace {

struct Making {
    const std::function<std::string(const std::string &)> &make;
    std::string error;
};

uint32_t makeContent(const StoreSource *source, StoreOutput *out, void *context) {
    auto *making = static_cast<Making *>(context);
    try {
        const std::string old(source->bytes != nullptr ? source->bytes : "", source->size);
        const std::string now = making->make(old);
        if (now == old)
            return STORE_UNCHANGED;
        storePut(out, now.data(), now.size());
        return ZOLTLOG_STORE_OK;
    } catch (const std::exception &error) { // the rewrite's own resources are released by it
        making->error = error.what();
        return STORE_NO_MEMORY;
    }
}

std::string reasonOf(uint32_t result) {
    switch (result) {
    case STORE_BUSY:
        return "another process is writing it and did not finish in ten seconds";
    case STORE_CHANGED:
        return "somebody else changes it all the time";
    default:
        return errno != 0 ? std::strerror(errno) : "it cannot be written";
    }
}

} // namespace

void rewriteFile(const std::string &path, const std::function<std::string(const std::string &)> &make) {
    Making making{make, ""};
    const StoreRewriting how = {makeContent, &making, STORE_REFUSE_MISSING, nullptr};
    std::error_code ignored;
    const std::filesystem::path real = std::filesystem::canonical(path, ignored); // links stay
    errno = 0;
    const uint32_t result = storeRewrite(ignored ? path.c_str() : real.c_str(), &how);
    if (result != ZOLTLOG_STORE_OK)
        throw CommandError(
            tools::EXIT_UNREADABLE,
            path + " was not changed: " + (making.error.empty() ? reasonOf(result) : making.error));
}
