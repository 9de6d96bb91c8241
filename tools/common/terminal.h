// SPDX-License-Identifier: Apache-2.0
// What the tools show on a terminal: buffered output, colour, escaping of what
// a log text could do to a terminal, tables, the pager.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tools {

// ---- output --------------------------------------------------------------------

// A buffered descriptor. Callers append to `buffer` and call drain() now and then;
// nothing is written before the buffer holds `limit` bytes, flush() is called or
// the object ends. After a failed write (error != 0) everything is dropped.
struct Output {
    explicit Output(int outputDescriptor = 1, size_t bufferLimit = 65536);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::string_view text) {
        buffer.append(text);
        drain();
    }
    void drain() {
        if (buffer.size() >= limit)
            flush();
    }
    bool flush(); // false after a failure

    std::string buffer;
    int descriptor;
    const size_t limit;
    int error = 0;        // errno of the first failed write
    uint64_t written = 0; // bytes that left the buffer
};

// ---- colour --------------------------------------------------------------------

enum class ColorMode { Auto, Always, Never };
bool parseColorMode(std::string_view text, ColorMode &mode); // auto, always, never

// The order of decision: mode, then a non-empty NO_COLOR (off), then CLICOLOR_FORCE
// other than empty and 0 (on), then TERM=dumb or no terminal (off).
bool colorWanted(ColorMode mode, bool isTerminal);

enum class Style { Plain, Bold, Dim, Red, BoldRed, Yellow, Green, Cyan, Blue, Magenta, Match };
void appendStyled(std::string &out, Style style, std::string_view text, bool color);
const char *styleOn(Style style); // "" for Plain
const char *styleOff(Style style);

// ---- escaping ------------------------------------------------------------------

// Characters that do something to a terminal or to the order of what it shows.
bool steersTerminal(char32_t character);

// Appends text so that it cannot steer a terminal nor fake a line: control
// characters as \r, \t, \e, \x07 ..., C1 controls, line separators and direction
// overrides as \u{2028}, bytes that are not UTF-8 as \xHH, a backslash as it is.
void appendEscaped(std::string &out, std::string_view text);
std::string escaped(std::string_view text);

// Columns that a terminal uses for UTF-8 text without control characters.
size_t displayWidth(std::string_view text);

// ---- tables --------------------------------------------------------------------

enum class Align { Left, Right };

struct Column {
    std::string title;
    Align align = Align::Left;
};

struct Cell {
    std::string text;
    Style style = Style::Plain;

    Cell(std::string cellText, Style cellStyle = Style::Plain) // NOLINT: made from a text on purpose
        : text(std::move(cellText)), style(cellStyle) {}
    Cell(const char *cellText) : text(cellText) {} // NOLINT
};

struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
    bool titles = true;
};

// Columns are as wide as their widest cell, two blanks apart; texts are escaped.
void printTable(Output &out, const Table &table, bool color);

// A table of any length, of which no more than a row is held: each is asked for twice, for
// the widths of the columns and to be shown.
struct LongTable {
    std::vector<Column> columns;
    size_t rows = 0;
    std::function<std::vector<Cell>(size_t)> row; // by its number, from 0
    bool titles = true;
};
void printTable(Output &out, const LongTable &table, bool color);

// ---- pager ---------------------------------------------------------------------

// While it runs, descriptor 1 goes to the pager. Started only when standard output
// is a terminal and PAGER is not empty or "cat"; less gets LESS=FRSXMK unless LESS is
// set. finish() (also called at the end of life) waits for the user to leave it.
struct Pager {
    Pager() = default;
    ~Pager() { finish(); }
    Pager(const Pager &) = delete;
    Pager &operator=(const Pager &) = delete;

    bool start();
    void finish();

    pid_t child = -1;
    int savedOutput = -1;
};

} // namespace tools
