// SPDX-License-Identifier: Apache-2.0
// Reading a log file record by record, forwards and backwards, without mapping it
// (a file may be cut by others while it is read) and without an allocation per
// record. Views that these readers hand out hold until their next call.
#pragma once

#include "common/record.h"
#include "common/unpack.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tools {

constexpr size_t BLOCK_SIZE = 256UL * 1024;
// What opening a file reads of it, to see what it is: all of a small one, which is not read again.
constexpr size_t START_SIZE = 4096;
// A longer line is handed out in one piece of this size, then skipped: what is read must
// fit into memory, whatever a file holds.
constexpr size_t MAX_LINE = 16UL * 1024 * 1024;

// Records of several processes may be in the file a little out of order.
constexpr int64_t ORDER_SLACK = 10000; // milliseconds
inline bool wentBack(int64_t latest, int64_t time) {
    return time<latest &&static_cast<uint64_t>(latest) - static_cast<uint64_t>(time)> ORDER_SLACK;
}

// ---- lines -----------------------------------------------------------------------

struct LineReader {
    enum class Got {
        Line,    // a line that was ended by a line feed
        TooLong, // the first MAX_LINE bytes of a line
        End,     // no further complete line now; more may follow when the file grows
        Error,   // see problem()
    };

    LineReader() = default;
    ~LineReader() { close(); }
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // "-" is standard input, which may be a pipe; else only regular files are opened: opening
    // a terminal, a FIFO or a device could block or have effects. What is compressed is read
    // as what it holds: going back in it, and its size, cost unpacking it whole. False: errno
    // in `error`.
    bool open(const std::string &path);
    void close();
    bool isOpen() const { return descriptor >= 0; }
    bool isPacked() const { return packed != nullptr; }
    // Why reading failed, or why a compressed file has no further bytes; "" for neither.
    std::string problem() const;

    // Sets the position of the next line; seekable files only.
    void seek(uint64_t offset);
    Got next(std::string_view &line, uint64_t &offset);
    uint64_t position() const { return base + begin; } // of the next line
    size_t unended() const { return valid - begin; }   // bytes behind the last line feed, after End

    // Reads at an offset without moving; the number of bytes, or -1. Of a small file this and
    // size() tell what was there when it was opened, until next() has told its end.
    int64_t readAt(uint64_t offset, char *buffer, size_t length) const;
    bool size(uint64_t &bytes) const;
    // The first place at or behind an offset that is not in a hole of a sparse file; false
    // when only a hole follows.
    bool dataAt(uint64_t offset, uint64_t &data) const;
    // The last line feed in [limit, end); holes are passed over, not read. False: none.
    bool lastLineFeed(uint64_t limit, uint64_t end, uint64_t &at) const;

    size_t blockSize = BLOCK_SIZE; // of the buffer that the first next() makes
    int descriptor = -1;
    bool seekable = false; // places can be read again
    int error = 0;

  private:
    Got refill();
    void takeStart(bool fromPipe);
    void makeBuffer(size_t bytes);
    int64_t readMore(char *into, size_t length) const;

    std::unique_ptr<Unpacker> packed;
    std::unique_ptr<char[]> buffer;
    size_t capacity = 0;
    size_t begin = 0;     // next line
    size_t scanned = 0;   // no line feed before this
    size_t valid = 0;     // end of what was read
    uint64_t base = 0;    // file offset of buffer[0]
    bool isWhole = false; // the buffer has all that was there when the file was opened
    bool skipping = false;
};

// Lines from the end of a file to its begin. What follows the last line feed is left out.
struct BackwardReader {
    void start(const LineReader &lines,
               uint64_t end); // `end`: where to begin, at a line's start or the file's end
    // False at the begin of the file, or after a failed read. A line longer than MAX_LINE is
    // left out: tooLong is set and the line is empty.
    bool previous(std::string_view &line, uint64_t &offset);

    const LineReader *source = nullptr;
    std::string buffer; // bytes [base, base + size) of the file
    uint64_t base = 0;
    size_t left = 0; // bytes of the buffer that were not handed out yet
    bool tooLong = false;

  private:
    bool skipLine(std::string_view &line, uint64_t &offset);
};

// ---- records ---------------------------------------------------------------------

struct RecordFile {
    enum class Got { Record, Damaged, Header, End, Error };

    // Opens and reads the header line. False when the file cannot be read or its
    // header has an unknown version (why: problem).
    bool open(const std::string &filePath);
    void close() { lines.close(); }

    Got next();
    void seek(uint64_t to) { lines.seek(to); }

    // Backwards from the end (or `from`); header lines and damaged lines are told too.
    void startBackwards(uint64_t from);
    Got previous();

    // Time stamp of the first record whose line begins at or behind `from` and before
    // `limit`; `where` is the offset of that line.
    bool timeAt(uint64_t from, uint64_t limit, int64_t &time, uint64_t &where) const;

    // The offset from which all records that are at or after `since` can be read; found
    // by bisection. Needs `inOrder()`.
    uint64_t findTime(int64_t since) const;

    // Whether times look ascending, by samples over the file.
    bool inOrder() const;

    // The end of the last complete line: where reading backwards begins and reading
    // on goes on.
    uint64_t completeEnd() const;

    bool firstTime(int64_t &time) const;
    bool lastTime(int64_t &time) const;

    std::string path;
    std::string base; // file name without directory
    FileName name;
    Header header;          // of the part that is read now; version 0: none
    std::string host;       // header.host points here
    uint64_t dataBegin = 0; // offset behind the first header line
    std::string problem;

    // What next() and previous() found
    Record record;
    Fault fault;
    std::string_view line;
    uint64_t offset = 0;
    bool salvaged =
        false; // the record was found behind a torn one in the same line; the damage was told before

    LineReader lines;

  private:
    Got judge();
    void takeHeader(const Header &parsed);
    bool lastTimeForwards(int64_t &time) const;

    BackwardReader backward;
    bool salvagePending = false;
    Record pending;
    uint64_t tornAt = 0;
};

// ---- a file at a glance ----------------------------------------------------------

struct FileSummary {
    uint64_t size = 0;
    int64_t modified = 0; // milliseconds
    bool hasTimes = false;
    int64_t first = 0, last = 0; // milliseconds: time stamps of the first and last record
    Header header;
    std::string host; // header.host points here: copies of a summary must not use it
};

// Reads header, first and last record only. False with a problem text.
bool readSummary(const std::string &path, FileSummary &out, std::string &problem);

// The end of the last complete line in the first `size` bytes of a file, quickly where they end
// in a line feed. False when they cannot be read.
bool completeEnd(const std::string &path, uint64_t size, uint64_t &end);

} // namespace tools
