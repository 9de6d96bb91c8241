// SPDX-License-Identifier: Apache-2.0
#include "qdliscat/install.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "common/exit_codes.h"
#include "common/files.h"
#include "common/number_text.h"
#include "qdliscat/catalogue.h"
#include "qdliscat/check.h"

namespace qdliscat {

namespace fs = std::filesystem;

namespace {

constexpr mode_t PERMISSION_BITS = 07777;
constexpr mode_t NEW_FILE_MODE = 0666; // less the umask

int tellFailure(const std::string &what) {
    std::fprintf(stderr, "qdliscat: %s\n", tools::escaped(what).c_str());
    return tools::EXIT_UNREADABLE;
}

int tellErrno(const std::string &path) {
    return tellFailure(path + ": " + std::strerror(errno));
}

bool copyFile(const std::string &from, const std::string &to) {
    std::string bytes;
    if (!tools::readWhole(from, LARGEST_BUNDLE, bytes))
        return false;
    const int descriptor = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, NEW_FILE_MODE);
    if (descriptor < 0)
        return false;
    const bool written = tools::writeAll(descriptor, bytes);
    return close(descriptor) == 0 && written;
}

// Brings a file to the disk.
bool syncFile(const std::string &path) {
    const int descriptor = tools::openToRead(path, O_NOFOLLOW);
    if (descriptor < 0)
        return false;
    const bool synced = fsync(descriptor) == 0;
    const int error = errno;
    close(descriptor);
    errno = error;
    return synced;
}

// A directory inside of the package, so that a rename leads from one to the other.
struct Staging {
    explicit Staging(const std::string &package) : path(package + "/.qdliscat.XXXXXX") {
        if (mkdtemp(path.data()) == nullptr)
            path.clear();
    }
    ~Staging() {
        std::error_code ignored;
        if (!path.empty())
            fs::remove_all(path, ignored);
    }
    Staging(const Staging &) = delete;
    Staging &operator=(const Staging &) = delete;

    std::string path; // "" when it cannot be made, with errno
};

// The package, made if it is missing and removed again when nothing came into it.
struct Package {
    explicit Package(const std::string &thePath) : path(thePath) {
        std::error_code error;
        isNew = fs::create_directories(path, error);
        exists = fs::is_directory(path, error);
    }
    ~Package() {
        if (isNew)
            (void)rmdir(path.c_str());
    }
    Package(const Package &) = delete;
    Package &operator=(const Package &) = delete;

    const std::string path;
    bool isNew;
    bool exists;
};

// What the package will be: the new bundles, and those of its other locales.
Catalogue futureOf(const std::string &package, const std::string &staging,
                   const std::vector<std::string> &locales) {
    Catalogue catalogue{package, package, {}};
    for (const std::string &locale : localesOfDirectory(package)) {
        if (std::find(locales.begin(), locales.end(), locale) == locales.end())
            catalogue.bundles.push_back(readBundle(package, locale));
    }
    for (const std::string &locale : locales)
        catalogue.bundles.push_back(readBundle(staging, locale));
    std::stable_partition(catalogue.bundles.begin(), catalogue.bundles.end(),
                          [](const Bundle &bundle) { return bundle.locale == "root"; });
    return catalogue;
}

// Gives the staged bundle its place. A file that it replaces keeps its permissions.
bool put(const std::string &staging, const std::string &package, const std::string &locale) {
    const std::string from = staging + "/" + locale + ".res";
    const std::string to = package + "/" + locale + ".res";
    struct stat old;
    if (lstat(to.c_str(), &old) == 0 && S_ISREG(old.st_mode) &&
        chmod(from.c_str(), old.st_mode & PERMISSION_BITS) != 0)
        return false;
    return syncFile(from) && rename(from.c_str(), to.c_str()) == 0;
}

// Fills the staging directory; the locales that came into it.
Loaded stage(const Installation &installation, const std::string &staging, std::vector<std::string> &locales,
             std::string &failure) {
    std::vector<std::string> sources;
    std::vector<std::string> files;
    for (const std::string &name : installation.names) {
        std::error_code error;
        const std::string extension = fs::path(name).extension().string();
        if (fs::is_directory(name, error)) {
            for (const std::string &locale : localesOfDirectory(name))
                files.push_back(name + "/" + locale + ".res");
        } else if (extension == ".txt" || extension == ".res") {
            (extension == ".txt" ? sources : files).push_back(name);
        } else {
            failure = name + " is no bundle (.res), no source (.txt) and no directory of bundles";
            return Loaded::Unreadable;
        }
    }
    for (const std::string &file : files) {
        const std::string locale = fs::path(file).stem().string();
        if (!copyFile(file, staging + "/" + locale + ".res")) {
            failure = errno == EEXIST ? "the locale " + locale + " is given twice"
                                      : file + ": " + std::strerror(errno);
            return Loaded::Unreadable;
        }
    }
    if (!sources.empty()) {
        const Loaded compiled = compileSources(sources, staging, failure);
        if (compiled != Loaded::Ok)
            return compiled;
    }
    locales = localesOfDirectory(staging);
    if (!locales.empty())
        return Loaded::Ok;
    failure = "there is no bundle to install";
    return Loaded::Unreadable;
}

} // namespace

int install(const Installation &installation, tools::Output &out) {
    Package package(installation.package);
    if (!package.exists)
        return tellErrno(installation.package);
    const Staging staging(package.path);
    if (staging.path.empty())
        return tellErrno(package.path);
    std::vector<std::string> locales;
    std::string failure;
    const Loaded staged = stage(installation, staging.path, locales, failure);
    if (staged != Loaded::Ok) {
        (void)tellFailure(failure);
        return staged == Loaded::DoesNotCompile ? tools::EXIT_NOTHING : tools::EXIT_UNREADABLE;
    }
    const Catalogue future = futureOf(package.path, staging.path, locales);
    const std::vector<Problem> problems = check(future, installation.complete);
    for (const Problem &problem : problems)
        printProblem(out, future.title, problem);
    if (!problems.empty()) {
        (void)tellFailure("nothing was installed");
        return tools::EXIT_NOTHING;
    }
    package.isNew = false;
    for (const std::string &locale : locales) {
        if (!put(staging.path, package.path, locale))
            return tellErrno(package.path + "/" + locale + ".res");
    }
    if (!tools::syncDirectory(package.path))
        return tellErrno(package.path);
    if (!installation.quiet)
        out.write(tools::escaped(future.title) + ": " + tools::counted(locales.size(), "locale") +
                  " installed, " + tools::counted(messageCount(future), "message") + " in all\n");
    return tools::EXIT_OK;
}

} // namespace qdliscat
