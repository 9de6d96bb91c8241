// SPDX-License-Identifier: Apache-2.0
// The library's rewrite of a configuration file, which is compiled into the tool, over the
// exported property store; and what stands in the way of one.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "commands.h"
#include "common/exit_codes.h"
#include "edit.h"
#include "src/os.h"
#include "src/utiPropertyStoreFile.h"

namespace fs = std::filesystem;

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
    const Edits &edits;
    size_t comes;
    bool failed;
};

uint32_t makeContent(const StoreSource *source, StoreOutput *out, void *context) {
    auto *making = static_cast<Making *>(context);
    try {
        const std::string old(source->bytes != nullptr ? source->bytes : "", source->size);
        const Edited now = edited(old, source->exists, making->edits);
        making->comes = 0;
        for (const std::string &line : now.difference)
            making->comes += line[0] == '+' ? 1 : 0;
        if (source->exists && now.content == old)
            return STORE_UNCHANGED;
        storePut(out, now.content.data(), now.content.size());
        return ZOLTLOG_STORE_OK;
    } catch (const std::exception &) { // the rewrite's own resources are released by it
        making->failed = true;
        return STORE_NO_MEMORY;
    }
}

std::string directoryOf(const std::string &path) {
    const fs::path parent = fs::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

// The process that has a file open, as /proc tells.
std::string holderOf(const std::string &path) {
    struct stat wanted;
    std::error_code ignored;
    if (stat(path.c_str(), &wanted) == 0) {
        for (const fs::directory_entry &process : fs::directory_iterator("/proc", ignored)) {
            const std::string id = process.path().filename().string();
            if (!decimal(id) || id == std::to_string(getpid()))
                continue;
            std::error_code denied;
            for (fs::directory_iterator open(process.path() / "fd", denied), end; !denied && open != end;
                 open.increment(denied)) {
                struct stat status;
                if (stat(open->path().c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
                    status.st_ino == wanted.st_ino) {
                    const ConfigFile name = readConfigFile("/proc/" + id + "/comm");
                    const std::string called =
                        name.lines.empty() ? "" : " (" + std::string(name.lines.front().text) + ")";
                    return "process " + id + called;
                }
            }
        }
    }
    return "another process";
}

} // namespace

std::string realLocation(const std::string &path) {
    fs::path at = path;
    std::error_code ignored;
    for (int links = 0; links < 40 && fs::is_symlink(at, ignored); ++links) {
        const fs::path target = fs::read_symlink(at, ignored);
        at = target.is_absolute() ? target : at.parent_path() / target;
    }
    return at.string();
}

std::string causeOf(int error, const std::string &path) {
    if (error == EBUSY)
        return holderOf(realLocation(path) + ".tmp") + " is writing it and did not finish in ten seconds";
    if (error == EAGAIN)
        return "somebody else changes it all the time";
    return error != 0 ? std::strerror(error) : "it cannot be written";
}

size_t rewriteFile(const std::string &path, bool exists, const Edits &edits) {
    Making making{edits, 0, false};
    const StoreRewriting how = {makeContent, &making, exists ? STORE_REFUSE_MISSING : STORE_MAKE_MISSING,
                                nullptr};
    const std::string real = realLocation(path);
    constexpr mode_t DIRECTORY_MODE = 0755; // a directory takes its parent's instead
    const bool isPlace = exists || zoltLogOs_mkdirp(directoryOf(real).c_str(), DIRECTORY_MODE) == 0;
    errno = isPlace ? 0 : errno;
    const uint32_t result =
        isPlace ? storeRewrite(real.c_str(), &how) : static_cast<uint32_t>(ZOLTLOG_STORE_NOT_CREATED);
    const int error = making.failed ? ENOMEM : errno;
    if (result != ZOLTLOG_STORE_OK)
        throw CommandError(tools::EXIT_UNREADABLE, path + " was not changed: " + causeOf(error, path));
    return making.comes;
}

// ---- what stands in the way --------------------------------------------------------------------

namespace {

bool isInGroup(gid_t group) {
    if (group == getegid())
        return true;
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    for (int i = 0; i < count; ++i)
        if (groups[static_cast<size_t>(i)] == group)
            return true;
    return false;
}

} // namespace

std::string whyNotWritable(const std::string &path) {
    const std::string real = realLocation(path);
    const std::string place = nearestExisting(directoryOf(real));
    if (place.empty() || faccessat(AT_FDCWD, place.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        return std::strerror(place.empty() ? ENOENT : errno);
    struct stat status;
    if (stat(real.c_str(), &status) != 0)
        return errno == ENOENT ? "" : std::strerror(errno);
    if (faccessat(AT_FDCWD, real.c_str(), R_OK, AT_EACCESS) != 0)
        return std::strerror(errno);
    if (geteuid() != 0 && (status.st_uid != geteuid() || !isInGroup(status.st_gid)))
        return "the new file's owner could not be the old one's";
    return "";
}
