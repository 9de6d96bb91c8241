// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/cursor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files.h"

namespace qdlogview {

namespace {

constexpr size_t LARGEST_CURSOR = size_t{1} << 26;
constexpr size_t LEAST_APPENDED = 65536; // before the file is written anew
constexpr std::string_view SPOOLED = "spool:";
constexpr size_t KEPT_APART = 8; // newest files of a series that get an entry of their own

std::string quoted(const std::string &path) {
    std::string out;
    for (const char c : path) {
        if (c == '%' || c == ';' || c == '@' || static_cast<unsigned char>(c) < 0x20 ||
            static_cast<unsigned char>(c) >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

bool unquoted(const std::string &text, std::string &path) {
    path.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path += text[i];
            continue;
        }
        unsigned value = 0;
        const char *const digits = text.data() + i + 1;
        if (i + 2 >= text.size() || std::from_chars(digits, digits + 2, value, 16).ptr != digits + 2)
            return false;
        path += static_cast<char>(value);
        i += 2;
    }
    return true;
}

} // namespace

bool Cursor::parse(const std::string &text, std::string &error) {
    offsets.clear();
    finished.clear();
    spooled = {};
    return take(text, error);
}

bool Cursor::takeSpooled(const std::string &entry) {
    if (entry.compare(0, SPOOLED.size(), SPOOLED) != 0)
        return false;
    SpoolMark mark;
    const char *at = entry.data() + SPOOLED.size();
    const char *const end = entry.data() + entry.size();
    for (uint64_t *number : {&mark.number, &mark.records, &mark.bytes}) {
        const auto read = std::from_chars(at, end, *number);
        if (read.ec != std::errc() || (read.ptr != end) != (number != &mark.bytes) ||
            (read.ptr != end && *read.ptr != ':'))
            return false;
        at = read.ptr + 1;
    }
    spooled = mark;
    return true;
}

// Adds the entries to those that are there.
bool Cursor::take(const std::string &text, std::string &error) {
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find(';', begin);
        if (end == std::string::npos)
            end = text.size();
        const std::string entry = text.substr(begin, end - begin);
        begin = end + 1;
        if (takeSpooled(entry))
            continue;
        const size_t at = entry.rfind('@');
        std::string path;
        uint64_t offset = 0;
        const std::string value = at != std::string::npos ? entry.substr(at + 1) : "";
        const auto read = std::from_chars(value.data(), value.data() + value.size(), offset);
        const bool all = value == "*";
        if (at == std::string::npos || at == 0 || !unquoted(entry.substr(0, at), path) ||
            (!all && (value.empty() || read.ec != std::errc() || read.ptr != value.data() + value.size()))) {
            error = "'" + entry + "' is not a cursor";
            return false;
        }
        if (!all) {
            offsets[path] = offset;
            continue;
        }
        std::string series;
        const SeriesPlace place = placeOf(path, series);
        if (series.empty())
            offsets[path] = WHOLE_FILE;
        else if (place.order() >= finished[series].place.order())
            finished[series] = {place, path};
    }
    return true;
}

bool Cursor::load(const std::string &file, std::string &error) {
    std::string text;
    if (!tools::readWhole(file, LARGEST_CURSOR, text)) {
        if (errno == ENOENT)
            return true;
        error = file + ": " + std::strerror(errno);
        return false;
    }
    parse("", error);
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        if (end == std::string::npos && begin > 0)
            break; // cut by a crash
        std::string line = text.substr(begin, end == std::string::npos ? end : end - begin);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!take(line, error)) {
            error = file + ": " + error;
            return false;
        }
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return true;
}

uint64_t Cursor::startOf(const SourceFile &source) const {
    if (empty())
        return 0;
    const std::string sourcePath = source.path();
    for (const std::string &path : {sourcePath, unpackedPath(sourcePath)}) {
        const auto exact = offsets.find(path); // compressing a file leaves its places as they are
        if (exact != offsets.end())
            return exact->second;
    }
    const auto series = source.isInSeries() ? finished.find(source.seriesName()) : finished.end();
    if (series != finished.end() && source.place.order() <= series->second.place.order())
        return WHOLE_FILE;
    return 0;
}

std::string cursorText(const Reader &reader, const Cursor &before) {
    // Old files that were read to their end are told by one entry of their series.
    std::map<std::string, std::vector<const Stream *>> series;
    std::string text;
    const auto entry = [&](const std::string &path, const std::string &value) {
        text += (text.empty() ? "" : ";") + quoted(path) + "@" + value;
    };
    for (const Stream &stream : reader.streams) {
        if (stream.source->isStandardInput())
            continue;
        if (stream.source->isInSeries())
            series[stream.source->seriesName()].push_back(&stream);
        else
            entry(stream.source->path(), std::to_string(stream.position));
    }
    for (const auto &[name, last] : before.finished)
        series[name]; // stays read, also without a file that is left
    for (auto &[name, files] : series) {
        const auto isDone = [](const Stream &stream) {
            return stream.gone || (stream.position >= stream.source->size &&
                                   stream.state == Stream::State::Ended && !stream.stopped);
        };
        size_t done = 0; // from the begin of the series
        while (done + KEPT_APART < files.size() && isDone(*files[done]))
            ++done;
        if (done > 0)
            entry(files[done - 1]->source->path(), "*");
        else if (before.finished.count(name) != 0)
            entry(before.finished.at(name).path, "*");
        for (size_t i = done; i < files.size(); ++i)
            entry(files[i]->source->path(), std::to_string(files[i]->position));
    }
    return text;
}

namespace {

std::string entryOf(const SpoolMark &mark) {
    return std::string(SPOOLED) + std::to_string(mark.number) + ":" + std::to_string(mark.records) + ":" +
           std::to_string(mark.bytes);
}

// Brings a new name in the directory of a file to the disk.
bool syncDirectoryOf(const std::string &file) {
    const size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    return tools::syncDirectory(directory);
}

} // namespace

CursorFile::~CursorFile() {
    if (descriptor >= 0)
        close(descriptor);
}

bool CursorFile::replace(const std::string &file, const std::string &line) {
    const std::string temporary = file + ".new";
    const int made = tools::openAnew(temporary, 0666, true);
    if (made < 0)
        return false;
    const bool synced = spooled.number != 0;
    if (!tools::writeAll(made, line) || (synced && fsync(made) != 0) ||
        rename(temporary.c_str(), file.c_str()) != 0 || (synced && !syncDirectoryOf(file))) {
        const int failure = errno;
        close(made);
        unlink(temporary.c_str());
        errno = failure;
        return false;
    }
    if (descriptor >= 0)
        close(descriptor);
    descriptor = made;
    whole = line.size();
    appended = 0;
    return true;
}

bool CursorFile::append(const std::string &line) {
    if (!tools::writeAll(descriptor, line) || (spooled.number != 0 && fdatasync(descriptor) != 0))
        return false;
    appended += line.size();
    return true;
}

bool CursorFile::save(const std::string &file, Reader &reader, const Cursor &before, const SpoolMark *mark) {
    if (spooled.number == 0)
        spooled = before.spooled;
    if (mark != nullptr)
        spooled = *mark;
    const bool anew = descriptor < 0 || appended > std::max(LEAST_APPENDED, whole);
    std::string line;
    if (anew) {
        line = cursorText(reader, before);
        if (spooled.number != 0)
            line += (line.empty() ? "" : ";") + entryOf(spooled);
    } else {
        for (const Stream &stream : reader.streams) {
            if (stream.position != stream.kept && !stream.source->isStandardInput())
                line += (line.empty() ? "" : ";") + quoted(stream.source->path()) + "@" +
                        std::to_string(stream.position);
        }
        if (mark != nullptr)
            line += (line.empty() ? "" : ";") + entryOf(spooled);
        if (line.empty())
            return true;
    }
    line += '\n';
    if (!(anew ? replace(file, line) : append(line)))
        return false;
    for (Stream &stream : reader.streams)
        stream.kept = stream.position;
    return true;
}

} // namespace qdlogview
