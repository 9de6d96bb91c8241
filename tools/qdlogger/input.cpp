// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include <cerrno>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
#include <unistd.h>
#include <utility>

#include "common/number_text.h"
#include "common/utf8.h"

namespace qdlogger {

namespace {

constexpr size_t READ_SIZE = size_t{256} * 1024;

} // namespace

// The begin of a line that is too long, not cut within a character of UTF-8.
std::string_view LineReader::takePart() {
    size_t length = LONGEST_LINE;
    while (length + 4 > LONGEST_LINE && (static_cast<unsigned char>(buffer[begin + length]) & 0xc0) == 0x80)
        --length;
    const std::string_view part(buffer.data() + begin, length);
    begin += length;
    searched = begin;
    behindPart = std::exchange(buffer[begin], '\0');
    isPart = true;
    return part;
}

bool LineReader::next(std::string_view &line) {
    if (isPart)
        buffer[begin] = behindPart;
    const bool goesOn = isPart;
    isPart = false;
    for (;;) {
        void *feed = memchr(buffer.data() + searched, '\n', end - searched);
        const size_t stop = feed != nullptr ? static_cast<size_t>(static_cast<char *>(feed) - buffer.data())
                                            : end; // buffer is longer than end
        if (stop - begin > LONGEST_LINE) {
            line = takePart();
            parted += goesOn ? 0 : 1;
            return true;
        }
        if (feed != nullptr || (atEnd && begin < end)) {
            size_t length = stop - begin;
            if (feed != nullptr && length > 0 && buffer[begin + length - 1] == '\r')
                --length;
            buffer[begin + length] = '\0';
            line = std::string_view(buffer.data() + begin, length);
            begin = searched = stop + (feed != nullptr ? 1 : 0);
            return true;
        }
        if (atEnd)
            return false;
        searched = end;
        if (begin > 0) { // what is left of the last read goes to the front
            memmove(buffer.data(), buffer.data() + begin, end - begin);
            end -= begin;
            searched -= begin;
            begin = 0;
        }
        if (buffer.size() < end + READ_SIZE + 1)
            buffer.resize(end + end / 2 + READ_SIZE + 1);
        const ssize_t count = read(descriptor, buffer.data() + end, buffer.size() - end - 1);
        if (count > 0) {
            end += static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            error = count == 0 ? 0 : errno;
            atEnd = true;
        }
    }
}

Utf8Texts::Utf8Texts(bool inputIsUtf8) {
    const std::string_view codeset = nl_langinfo(CODESET);
    utf8 = inputIsUtf8 || codeset == "UTF-8" || codeset == "ANSI_X3.4-1968";
}

const char *Utf8Texts::convert(std::string_view text) {
    const bool hasNul = memchr(text.data(), '\0', text.size()) != nullptr;
    if (utf8 && !hasNul && tools::findInvalidUtf8(text) == std::string_view::npos)
        return text.data();
    converted.clear();
    for (size_t at = 0; at < text.size();) {
        size_t length = 0;
        if (utf8) {
            length = tools::decodeUtf8(text, at).length;
            if (length > 0 && text[at] != '\0')
                converted.append(text, at, length);
        } else {
            std::mbstate_t state = {};
            wchar_t wide = 0;
            length = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
            if (length > text.size()) // the two error values
                length = 0;
            if (length > 0)
                tools::appendUtf8(converted, static_cast<char32_t>(wide));
        }
        if (length == 0 || text[at] == '\0') {
            converted += "\\x";
            tools::appendHexByte(converted, text[at]);
            length = 1;
        }
        at += length;
    }
    return converted.c_str();
}

} // namespace qdlogger
