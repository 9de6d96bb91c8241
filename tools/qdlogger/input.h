// SPDX-License-Identifier: Apache-2.0
// Lines of standard input, and texts made fit to be logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qdlogger {

constexpr size_t LONGEST_LINE = 1024UL * 1024;

// Reads a descriptor line by line, as soon as they come. One that is longer than
// LONGEST_LINE is several lines: memory is bounded, whatever comes.
struct LineReader {
    explicit LineReader(int inputDescriptor) : descriptor(inputDescriptor) {}

    // The next line without its line feed (and without a carriage return before it).
    // The byte after it may be overwritten, and is a NUL. False at the end or on
    // an error. A last line without a line feed is a line.
    bool next(std::string_view &line);

    int error = 0;       // errno of a failed read
    uint64_t parted = 0; // lines that were too long

  private:
    std::string_view takePart();

    const int descriptor;
    std::string buffer;
    size_t begin = 0;    // of the next line
    size_t searched = 0; // no line feed between begin and here
    size_t end = 0;      // of what was read
    bool atEnd = false;
    bool isPart = false; // what next() gave last was the begin of a line
    char behindPart = 0; // the byte that its NUL stands for
};

// Texts in UTF-8, whatever they were. A byte that is no character, and a NUL, which no
// text can hold, become \xNN.
struct Utf8Texts {
    // False: the input is in the locale's encoding. A C locale tells nothing about the
    // input, which is then taken as UTF-8.
    explicit Utf8Texts(bool inputIsUtf8);

    // text.data()[text.size()] must be a NUL. The result lives until the next call.
    const char *convert(std::string_view text);

  private:
    bool utf8;
    std::string converted;
};

} // namespace qdlogger
