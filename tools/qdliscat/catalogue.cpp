// SPDX-License-Identifier: Apache-2.0
// Reading message catalogues, as the localization library reads them: a bundle that is
// damaged is a finding here and missing there.

#include "qdliscat/catalogue.h"

#include "common/files.h"
#include "lis/bundle.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/wait.h>
#include <unicode/ustring.h>
#include <unistd.h>

namespace qdliscat {

namespace fs = std::filesystem;

namespace {

std::string toUtf8(const UChar *text, int32_t length) {
    std::string utf8(static_cast<size_t>(length) * 3 + 1, '\0');
    int32_t size = 0;
    int32_t substitutions = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(utf8.data(), static_cast<int32_t>(utf8.size()), &size, text, length, 0xfffd,
                       &substitutions, &status);
    utf8.resize(U_SUCCESS(status) ? static_cast<size_t>(size) : 0);
    return utf8;
}

} // namespace

Bundle readBundle(const std::string &package, const std::string &locale) {
    Bundle bundle{locale, "", {}};
    ::Bundle *opened = nullptr;
    const LisResult result = openOwnBundle(package.c_str(), locale.c_str(), &opened);
    if (opened == nullptr) {
        bundle.failure = result == LIS_NOT_NOW ? "no memory or no descriptor is left"
                                               : "it is damaged, cut or no bundle of this machine's kind";
        return bundle;
    }
    const uint32_t count = entryCount(opened);
    for (uint32_t i = 0; i < count && bundle.failure.empty(); ++i) {
        int32_t length = 0;
        const UChar *text = nullptr;
        const char *key = entryAt(opened, i, &text, &length);
        if (key == nullptr)
            bundle.failure = "it is damaged";
        else
            bundle.entries[key] = {text != nullptr, text != nullptr ? toUtf8(text, length) : ""};
    }
    closeBundle(opened);
    return bundle;
}

namespace {

// ---- the locales of a package -----------------------------------------------------------

void sortLocales(std::vector<std::string> &locales) {
    std::sort(locales.begin(), locales.end());
    locales.erase(std::unique(locales.begin(), locales.end()), locales.end());
    std::stable_partition(locales.begin(), locales.end(),
                          [](const std::string &name) { return name == "root"; });
}

// "dir/de.res": the locale "de"; "" for other names and for ICU's index.
std::string localeOf(const std::string &file) {
    const fs::path path(file);
    const std::string stem = path.stem().string();
    return path.extension() == ".res" && stem != "res_index" ? stem : "";
}

// A number in the byte order of the machine, which that of a bundle is; 0 beyond the end.
template<typename Number>
Number numberAt(const std::string &bytes, size_t at) {
    Number value = 0;
    if (at <= bytes.size() && bytes.size() - at >= sizeof value)
        std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// The bundles in a common data file: after its header (whose size is its first two
// bytes) a count and for each item the offsets of its name and its data.
std::vector<std::string> localesInFile(const std::string &path) {
    std::string bytes;
    std::vector<std::string> locales;
    if (!tools::readWhole(path, LARGEST_BUNDLE, bytes))
        return locales;
    const size_t start = numberAt<uint16_t>(bytes, 0);
    const uint32_t count = numberAt<uint32_t>(bytes, start);
    for (uint32_t i = 0; i < count && start + 4 + size_t{i} * 8 < bytes.size(); ++i) {
        const size_t name = start + numberAt<uint32_t>(bytes, start + 4 + size_t{i} * 8);
        if (name >= bytes.size())
            continue;
        const size_t size = strnlen(bytes.data() + name, bytes.size() - name);
        const std::string locale = localeOf(bytes.substr(name, size));
        if (!locale.empty())
            locales.push_back(locale);
    }
    return locales;
}

} // namespace

std::vector<std::string> localesOfDirectory(const std::string &directory) {
    std::vector<std::string> locales;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(directory, error)) {
        const std::string locale = localeOf(entry.path().string());
        if (!locale.empty())
            locales.push_back(locale);
    }
    sortLocales(locales);
    return locales;
}

namespace {

std::vector<std::string> localesIn(const std::string &package) {
    std::vector<std::string> locales = localesOfDirectory(package);
    std::error_code error;
    if (fs::is_regular_file(package + ".dat", error)) {
        const std::vector<std::string> more = localesInFile(package + ".dat");
        locales.insert(locales.end(), more.begin(), more.end());
    }
    sortLocales(locales);
    return locales;
}

Catalogue readCatalogue(const std::string &title, const std::string &package,
                        std::vector<std::string> locales) {
    sortLocales(locales);
    Catalogue catalogue{package, title, {}};
    for (const std::string &locale : locales)
        catalogue.bundles.push_back(readBundle(package, locale));
    return catalogue;
}

// ---- sources ---------------------------------------------------------------------------------

constexpr int NO_PROGRAM = 127;
constexpr uintmax_t LARGEST_SOURCE = 4UL * 1024 * 1024; // of which genrb takes a multiple of memory

// Runs genrb over a source; 0 when it compiled, NO_PROGRAM when there is no genrb. Of several
// at a time genrb tells the number, even with -q.
int compile(const std::string &source, const std::string &directory) {
    std::vector<std::string> words = {"genrb", "-q", "-e", "UTF-8", "-d", directory, source};
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &argument : words)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(2, 1); // its complaints go where ours go
        execvp(arguments[0], arguments.data());
        _exit(NO_PROGRAM);
    }
    int waited = -1;
    while (child > 0 && waitpid(child, &waited, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(waited) ? WEXITSTATUS(waited) : 1;
}

struct TemporaryDirectory {
    std::string path;
    TemporaryDirectory() : path(pattern()) {
        if (mkdtemp(path.data()) == nullptr)
            path.clear();
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        if (!path.empty())
            fs::remove_all(path, ignored);
    }
    static std::string pattern() {
        std::error_code error;
        return (fs::temp_directory_path(error) / "qdliscat.XXXXXX").string();
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
};

} // namespace

Loaded compileSources(const std::vector<std::string> &sources, const std::string &directory,
                      std::string &failure) {
    int status = directory.empty() ? NO_PROGRAM : 0;
    for (const std::string &source : sources) {
        std::error_code error;
        if (fs::file_size(source, error) > LARGEST_SOURCE) {
            failure = source + ": " + (error ? error.message() : std::strerror(EFBIG));
            return Loaded::Unreadable;
        }
        if (status == 0)
            status = compile(fs::absolute(source).string(), directory);
    }
    if (status == NO_PROGRAM) {
        failure = "sources need the program genrb (Debian package icu-devtools) and a temporary directory";
        return Loaded::Unreadable;
    }
    // genrb ends well when only some of the sources compile
    const bool all = std::all_of(sources.begin(), sources.end(), [&](const std::string &source) {
        return fs::exists(fs::path(directory) / (fs::path(source).stem().string() + ".res"));
    });
    if (status == 0 && all)
        return Loaded::Ok;
    failure = "the sources do not compile";
    return Loaded::DoesNotCompile;
}

namespace {

void loadSources(const std::vector<std::string> &sources, LoadResult &result) {
    const TemporaryDirectory directory;
    result.state = compileSources(sources, directory.path, result.failure);
    if (result.state != Loaded::Ok)
        return;
    std::vector<std::string> locales(sources.size());
    std::transform(sources.begin(), sources.end(), locales.begin(),
                   [](const std::string &source) { return fs::path(source).stem().string(); });
    result.catalogues.push_back(readCatalogue("sources", directory.path, locales));
}

} // namespace

LoadResult load(const std::vector<std::string> &names) {
    LoadResult result;
    std::vector<std::string> sources;
    std::map<std::string, std::vector<std::string>> bundles; // locales by directory
    std::error_code error;
    for (const std::string &name : names) {
        const fs::path path = fs::absolute(name, error).lexically_normal();
        const std::string extension = path.extension().string();
        const bool isFile = fs::is_regular_file(path, error);
        std::string package = path.string();
        if (isFile && extension == ".txt") {
            sources.push_back(name);
            continue;
        }
        if (isFile && extension == ".res") {
            bundles[path.parent_path().string()].push_back(path.stem().string());
            continue;
        }
        if (isFile && extension == ".dat")
            package.resize(package.size() - extension.size());
        while (package.size() > 1 && package.back() == '/')
            package.pop_back();
        const std::vector<std::string> locales = localesIn(package);
        if (locales.empty()) {
            result.state = Loaded::Unreadable;
            result.failure = "no catalogue at " + name;
            return result;
        }
        result.catalogues.push_back(readCatalogue(name, package, locales));
    }
    for (const auto &[directory, locales] : bundles)
        result.catalogues.push_back(readCatalogue(directory, directory, locales));
    if (!sources.empty())
        loadSources(sources, result);
    return result;
}

const Entry *find(const Catalogue &catalogue, const std::string &locale, const std::string &key) {
    for (std::string name = locale;;) {
        for (const Bundle &bundle : catalogue.bundles) {
            const auto found = bundle.entries.find(key);
            if (bundle.locale == name && found != bundle.entries.end())
                return &found->second;
        }
        if (name == "root")
            return nullptr;
        const size_t end = name.rfind('_');
        name = end == std::string::npos ? "root" : name.substr(0, end);
    }
}

size_t messageCount(const Catalogue &catalogue) {
    size_t count = 0;
    for (const Bundle &bundle : catalogue.bundles) {
        const auto isMessage = [](const auto &entry) { return isNumber(entry.first); };
        count += static_cast<size_t>(std::count_if(bundle.entries.begin(), bundle.entries.end(), isMessage));
    }
    return count;
}

bool isNumber(const std::string &key) {
    errno = 0;
    char *end = nullptr;
    const long long number = std::strtoll(key.c_str(), &end, 10);
    return errno == 0 && number != 0 && std::to_string(number) == key;
}

} // namespace qdliscat
