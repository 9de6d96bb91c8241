// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/cursor.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files.h"

namespace qdlogview {

namespace {

constexpr size_t LARGEST_CURSOR = size_t{1} << 24;
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
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find(';', begin);
        if (end == std::string::npos)
            end = text.size();
        const std::string entry = text.substr(begin, end - begin);
        begin = end + 1;
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
        SourceFile file;
        describeFile(path, file);
        if (file.series.empty())
            offsets[path] = WHOLE_FILE;
        else if (file.order >= finished[file.series].order)
            finished[file.series] = {file.order, path};
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
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (parse(text, error))
        return true;
    error = file + ": " + error;
    return false;
}

uint64_t Cursor::startOf(const SourceFile &source) const {
    for (const std::string &path : {source.path, unpackedPath(source.path)}) {
        const auto exact = offsets.find(path); // compressing a file leaves its places as they are
        if (exact != offsets.end())
            return exact->second;
    }
    const auto series = finished.find(source.series);
    if (series != finished.end() && !source.series.empty() && source.order <= series->second.order)
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
    for (const auto &stream : reader.streams) {
        if (stream->source.path == "-")
            continue;
        if (stream->source.series.empty())
            entry(stream->source.path, std::to_string(stream->position));
        else
            series[stream->source.series].push_back(stream.get());
    }
    for (const auto &[name, last] : before.finished)
        series[name]; // stays read, also without a file that is left
    for (auto &[name, files] : series) {
        size_t done = 0; // from the begin of the series
        while (done + KEPT_APART < files.size() && files[done]->position >= files[done]->source.size &&
               files[done]->state == Stream::State::Ended && !files[done]->stopped)
            ++done;
        if (done > 0)
            entry(files[done - 1]->source.path, "*");
        else if (before.finished.count(name) != 0)
            entry(before.finished.at(name).path, "*");
        for (size_t i = done; i < files.size(); ++i)
            entry(files[i]->source.path, std::to_string(files[i]->position));
    }
    return text;
}

bool saveCursor(const std::string &file, const std::string &text) {
    const std::string temporary = file + ".new";
    const int descriptor =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (descriptor < 0)
        return false;
    const std::string line = text + "\n";
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t got = write(descriptor, line.data() + written, line.size() - written);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            const int failure = errno;
            close(descriptor);
            unlink(temporary.c_str());
            errno = failure;
            return false;
        }
        written += static_cast<size_t>(got);
    }
    if (close(descriptor) == 0 && rename(temporary.c_str(), file.c_str()) == 0)
        return true;
    const int failure = errno;
    unlink(temporary.c_str());
    errno = failure;
    return false;
}

} // namespace qdlogview
