// SPDX-License-Identifier: Apache-2.0
#include "common/terminal.h"

#include "common/number_text.h"
#include "common/utf8.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tools {

// ---- output --------------------------------------------------------------------

Output::Output(int outputDescriptor, size_t bufferLimit) : descriptor(outputDescriptor), limit(bufferLimit) {
    buffer.reserve(bufferLimit + 4096);
}

Output::~Output() {
    flush();
}

bool Output::flush() {
    const char *next = buffer.data();
    size_t left = buffer.size();
    while (left > 0 && error == 0) {
        const ssize_t put = ::write(descriptor, next, left);
        if (put < 0) {
            if (errno != EINTR)
                error = errno;
            continue;
        }
        next += put;
        left -= static_cast<size_t>(put);
        written += static_cast<uint64_t>(put);
    }
    buffer.clear();
    return error == 0;
}

// ---- colour --------------------------------------------------------------------

bool parseColorMode(std::string_view text, ColorMode &mode) {
    if (text == "auto")
        mode = ColorMode::Auto;
    else if (text == "always")
        mode = ColorMode::Always;
    else if (text == "never")
        mode = ColorMode::Never;
    else
        return false;
    return true;
}

namespace {

std::string_view environment(const char *name) {
    const char *value = getenv(name);
    return value != nullptr ? value : "";
}

struct StyleRow {
    Style style;
    const char *on;
};
constexpr StyleRow STYLES[] = {
    {Style::Plain, ""},           {Style::Bold, "\033[1m"},       {Style::Dim, "\033[2m"},
    {Style::Red, "\033[31m"},     {Style::BoldRed, "\033[1;31m"}, {Style::Yellow, "\033[33m"},
    {Style::Green, "\033[32m"},   {Style::Cyan, "\033[36m"},      {Style::Blue, "\033[34m"},
    {Style::Magenta, "\033[35m"}, {Style::Match, "\033[1;4m"},
};

} // namespace

bool colorWanted(ColorMode mode, bool isTerminal) {
    if (mode != ColorMode::Auto)
        return mode == ColorMode::Always;
    if (!environment("NO_COLOR").empty())
        return false;
    const std::string_view force = environment("CLICOLOR_FORCE");
    if (!force.empty() && force != "0")
        return true;
    return isTerminal && environment("TERM") != "dumb";
}

const char *styleOn(Style style) {
    for (const StyleRow &row : STYLES) {
        if (row.style == style)
            return row.on;
    }
    return "";
}

const char *styleOff(Style style) {
    return style == Style::Plain ? "" : "\033[0m";
}

void appendStyled(std::string &out, Style style, std::string_view text, bool color) {
    if (color)
        out += styleOn(style);
    out += text;
    if (color)
        out += styleOff(style);
}

// ---- escaping ------------------------------------------------------------------

bool steersTerminal(char32_t c) {
    return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x061c || (c >= 0x200e && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) || c == 0xfeff;
}

namespace {

void appendEscape(std::string &out, char32_t c) {
    switch (c) {
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    case 0x1b:
        out += "\\e";
        return;
    default:
        if (c < 0x80) {
            out += "\\x";
            appendHexByte(out, static_cast<char>(c));
            return;
        }
        out += "\\u{";
        appendNumber(out, static_cast<uint32_t>(c), 16);
        out += '}';
    }
}

} // namespace

void appendEscaped(std::string &out, std::string_view text) {
    size_t plain = 0; // start of what can be copied as it is
    size_t at = 0;
    const auto copyUpTo = [&](size_t end) { out.append(text, plain, end - plain); };
    while (at < text.size()) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte >= 0x20 && byte < 0x7f) {
            ++at;
            continue;
        }
        const Utf8Char c = decodeUtf8(text, at);
        if (c.length != 0 && !steersTerminal(c.value)) {
            at += c.length;
            continue;
        }
        copyUpTo(at);
        if (c.length == 0) {
            out += "\\x";
            appendHexByte(out, text[at]);
            ++at;
        } else {
            appendEscape(out, c.value);
            at += c.length;
        }
        plain = at;
    }
    copyUpTo(text.size());
}

std::string escaped(std::string_view text) {
    std::string out;
    appendEscaped(out, text);
    return out;
}

namespace {

struct Range {
    char32_t first, last;
};
constexpr Range WIDE_RANGES[] = {
    {0x1100, 0x115f},   {0x2e80, 0x303e},   {0x3041, 0xa4cf},   {0xa960, 0xa97f}, {0xac00, 0xd7a3},
    {0xf900, 0xfaff},   {0xfe30, 0xfe6f},   {0xff00, 0xff60},   {0xffe0, 0xffe6}, {0x1f300, 0x1f64f},
    {0x1f680, 0x1f6ff}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd},
};
constexpr Range ZERO_RANGES[] = {
    {0x0300, 0x036f}, {0x200b, 0x200d}, {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f},
};

template<size_t N>
bool inRanges(const Range (&ranges)[N], char32_t c) {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [c](const Range &range) { return c >= range.first && c <= range.last; });
}

} // namespace

size_t displayWidth(std::string_view text) {
    size_t width = 0;
    for (size_t at = 0; at < text.size();) {
        const Utf8Char c = decodeUtf8(text, at);
        if (c.length == 0) {
            ++at;
            ++width;
            continue;
        }
        at += c.length;
        if (c.value < 0x300)
            ++width;
        else if (!inRanges(ZERO_RANGES, c.value))
            width += inRanges(WIDE_RANGES, c.value) ? 2 : 1;
    }
    return width;
}

// ---- tables --------------------------------------------------------------------

void printTable(Output &out, const LongTable &table, bool color) {
    const size_t count = table.columns.size();
    std::vector<size_t> width(count, 0);
    std::vector<Cell> titles;
    for (size_t i = 0; table.titles && i < count; ++i) {
        titles.emplace_back(table.columns[i].title, Style::Bold);
        width[i] = displayWidth(table.columns[i].title);
    }
    for (size_t r = 0; r < table.rows; ++r) {
        const std::vector<Cell> row = table.row(r);
        for (size_t i = 0; i < count && i < row.size(); ++i)
            width[i] = std::max(width[i], displayWidth(escaped(row[i].text)));
    }

    std::string shown;
    const auto line = [&](const std::vector<Cell> &row) {
        for (size_t i = 0; i < count && i < row.size(); ++i) {
            shown.clear();
            appendEscaped(shown, row[i].text);
            // A row may have become wider since: what it tells of is in use.
            const size_t padding = width[i] - std::min(width[i], displayWidth(shown));
            const bool last = i + 1 == std::min(count, row.size());
            if (i > 0)
                out.buffer += "  ";
            if (table.columns[i].align == Align::Right)
                out.buffer.append(padding, ' ');
            appendStyled(out.buffer, row[i].style, shown, color);
            if (table.columns[i].align == Align::Left && !last)
                out.buffer.append(padding, ' ');
        }
        out.buffer += '\n';
        out.drain();
    };
    if (table.titles)
        line(titles);
    for (size_t r = 0; r < table.rows && out.error == 0; ++r)
        line(table.row(r));
}

void printTable(Output &out, const Table &table, bool color) {
    printTable(
        out,
        LongTable{table.columns, table.rows.size(), [&](size_t r) { return table.rows[r]; }, table.titles},
        color);
}

// ---- pager ---------------------------------------------------------------------

bool Pager::start() {
    if (child > 0 || isatty(1) == 0)
        return false;
    const char *chosen = getenv("PAGER");
    const std::string_view name = chosen != nullptr ? chosen : "less";
    if (name.empty() || name == "cat" || environment("TERM") == "dumb")
        return false;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    savedOutput = fcntl(1, F_DUPFD_CLOEXEC, 3);
    child = savedOutput < 0 ? -1 : fork();
    if (child < 0) {
        close(ends[0]);
        close(ends[1]);
        if (savedOutput >= 0)
            close(savedOutput);
        savedOutput = -1;
        return false;
    }
    if (child == 0) {
        dup2(ends[0], 0);
        setenv("LESS", "FRSXMK", 0);
        // What a pager that does not start or does not understand leaves unread is shown.
        constexpr char COMMAND[] = "sh -c \"$1\"\ncase $? in 2|126|127) exec cat ;; esac";
        if (chosen != nullptr)
            execl("/bin/sh", "sh", "-c", COMMAND, "sh", chosen, nullptr);
        else
            execlp("less", "less", nullptr);
        execlp("more", "more", nullptr);
        execlp("cat", "cat", nullptr);
        _exit(127);
    }
    signal(SIGPIPE, SIG_IGN); // the user may leave the pager early: that is the end, not a failure
    signal(SIGINT, SIG_IGN);  // the pager's
    dup2(ends[1], 1);
    close(ends[0]);
    close(ends[1]);
    return true;
}

void Pager::finish() {
    if (child <= 0)
        return;
    dup2(savedOutput, 1); // closes our end of the pipe
    close(savedOutput);
    savedOutput = -1;
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    child = -1;
    signal(SIGINT, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
}

} // namespace tools
