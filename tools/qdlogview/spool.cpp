// SPDX-License-Identifier: Apache-2.0
// Sections: names, the directory, one file.
#include "qdlogview/spool.h"

#include "common/time_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qdlogview {

// ---- names -----------------------------------------------------------------------------

namespace {

constexpr std::string_view PREFIX = "qdul-";
constexpr std::string_view PART = ".part";

bool endsIn(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string numbered(uint64_t number) {
    char text[32];
    std::snprintf(text, sizeof text, "qdul-%012llu", static_cast<unsigned long long>(number));
    return text;
}

// "qdul-000000000012-4711.json" or "qdul-000000000012.json.part"; false for other names.
bool parseName(std::string_view name, uint64_t &number, uint64_t &records, bool &isPart) {
    if (name.substr(0, PREFIX.size()) != PREFIX)
        return false;
    const char *const end = name.data() + name.size();
    auto read = std::from_chars(name.data() + PREFIX.size(), end, number);
    if (read.ec != std::errc() || read.ptr == end)
        return false;
    isPart = endsIn(name, PART);
    if (isPart)
        return *read.ptr == '.';
    if (*read.ptr != '-')
        return false;
    read = std::from_chars(read.ptr + 1, end, records);
    return read.ec == std::errc() && read.ptr != end && *read.ptr == '.';
}

// What the .part is called when it is published.
std::string publishedName(const std::string &part, const SpoolMark &mark) {
    const size_t format = part.find('.');
    return numbered(mark.number) + "-" + std::to_string(mark.records) +
           part.substr(format, part.size() - PART.size() - format);
}

} // namespace

std::string Spool::partName() const {
    return numbered(current.number) + "." + settings.formatName + std::string(PART);
}

// ---- the directory ---------------------------------------------------------------------

Spool::Spool(const Settings &chosen) : settings(chosen), directory(chosen.spool + "/") {}

Spool::~Spool() {
    if (isOpen()) { // not in any cursor: the next process removes it
        out.buffer.clear();
        close(out.descriptor);
        out.descriptor = -1;
    }
    if (handle >= 0)
        close(handle);
}

bool Spool::fail(const std::string &name) {
    problem = directory + name + ": " + std::strerror(errno);
    return false;
}

bool Spool::list(std::vector<std::string> &parts) {
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(opendir(directory.c_str()), closedir);
    if (stream == nullptr)
        return fail("");
    published.clear();
    total = 0;
    while (const dirent *entry = readdir(stream.get())) {
        Published file;
        bool isPart = false;
        struct stat status {};
        if (!parseName(entry->d_name, file.number, file.records, isPart))
            continue;
        file.name = entry->d_name;
        if (isPart) {
            parts.push_back(file.name);
        } else if (fstatat(handle, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) { // not taken
            file.bytes = static_cast<uint64_t>(status.st_size);
            total += file.bytes;
            published.push_back(file);
        }
    }
    std::sort(published.begin(), published.end(),
              [](const Published &a, const Published &b) { return a.number < b.number; });
    return true;
}

bool Spool::recover(const std::string &part, const SpoolMark &last) {
    uint64_t number = 0;
    uint64_t none = 0;
    bool isPart = false;
    parseName(part, number, none, isPart);
    if (number != last.number)
        return unlinkat(handle, part.c_str(), 0) == 0 || fail(part);
    struct stat status {};
    if (fstatat(handle, part.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return fail(part);
    if (static_cast<uint64_t>(status.st_size) != last.bytes) {
        problem = directory + part + ": it has " + std::to_string(status.st_size) + " bytes, but " +
                  settings.cursorFile + " is behind " + std::to_string(last.bytes) +
                  ": do they belong together?";
        return false;
    }
    return renameat(handle, part.c_str(), handle, publishedName(part, last).c_str()) == 0 || fail(part);
}

bool Spool::lock() {
    handle = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0)
        return fail("");
    if (flock(handle, LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno != EWOULDBLOCK)
        return fail("");
    problem = directory + ": another process writes there";
    return false;
}

bool Spool::open(const SpoolMark &last) {
    std::vector<std::string> parts;
    if (!list(parts))
        return false;
    for (const std::string &part : parts) {
        if (!recover(part, last))
            return false;
    }
    if (!parts.empty() && !list(parts))
        return false;
    current.number = std::max(last.number, published.empty() ? 0 : published.back().number);
    return drop();
}

// What is published and what may still be written is no more than the bound together.
bool Spool::drop() {
    if (settings.spoolKeep == 0 || total <= settings.spoolKeep - settings.spoolSize)
        return true;
    std::vector<std::string> parts;
    if (!list(parts)) // takers may have removed files
        return false;
    size_t gone = 0;
    while (gone < published.size() && total > settings.spoolKeep - settings.spoolSize) {
        const Published &file = published[gone];
        if (unlinkat(handle, file.name.c_str(), 0) == 0) {
            ++dropped;
            if (!settings.quiet)
                std::fprintf(stderr, "qdlogview: %s dropped, with %s: the spool keeps %s\n",
                             tools::escaped(directory + file.name).c_str(),
                             tools::counted(file.records, "record").c_str(),
                             tools::formatSize(settings.spoolKeep).c_str());
        } else if (errno != ENOENT) {
            return fail(file.name);
        }
        total -= file.bytes;
        ++gone;
    }
    published.erase(published.begin(), published.begin() + static_cast<ptrdiff_t>(gone));
    return true;
}

// ---- one file --------------------------------------------------------------------------

bool Spool::begin() {
    ++current.number;
    const std::string name = partName();
    out.descriptor = openat(handle, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (out.descriptor < 0)
        return fail(name);
    out.written = 0;
    records = 0;
    began = tools::monotonicMilliseconds();
    return true;
}

bool Spool::isDue(bool isIdle) {
    constexpr unsigned BETWEEN_CLOCKS = 1024; // records
    if (!isOpen() || records == 0)
        return false;
    if (out.written + out.buffer.size() >= settings.spoolSize)
        return true;
    if (!isIdle && ++asked < BETWEEN_CLOCKS)
        return false;
    asked = 0;
    return tools::monotonicMilliseconds() - began >= settings.spoolAge;
}

bool Spool::seal(SpoolMark &to) {
    const bool flushed = out.flush();
    if (!flushed)
        errno = out.error;
    if (!flushed || fsync(out.descriptor) != 0 || fsync(handle) != 0)
        return fail(partName());
    close(out.descriptor);
    out.descriptor = -1;
    current.records = records;
    current.bytes = out.written;
    to = current;
    return true;
}

bool Spool::publish() {
    const std::string part = partName();
    const std::string name = publishedName(part, current);
    if (renameat(handle, part.c_str(), handle, name.c_str()) != 0)
        return fail(part);
    published.push_back({current.number, current.records, current.bytes, name});
    total += current.bytes;
    records = 0;
    return drop();
}

} // namespace qdlogview
