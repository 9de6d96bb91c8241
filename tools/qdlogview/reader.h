// SPDX-License-Identifier: Apache-2.0
// Reads many log files as one stream of records in the order of time.
#pragma once

#include "common/fields.h"
#include "common/record_file.h"
#include "qdlogview/sources.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qdlogview {

struct ReadRange {
    bool limited = false;
    int64_t since = INT64_MIN, until = INT64_MAX; // milliseconds
    bool scan = false;                            // do not trust the order of times within files
    const tools::IdNames *names = nullptr;        // of the records' ids
};

// A file that is open, and its next record.
struct OpenFile {
    tools::RecordFile file;
    int64_t stopTime = INT64_MAX;
    tools::Item item;
    std::string rendered; // the item's text when the record holds a block in place of one
    std::shared_ptr<const tools::Origin> origin; // item's
    bool hasHeaders = false;                     // more than the one at its begin
};

// One file to be read. There may be very many: what only an open one needs is in OpenFile.
struct Stream {
    enum class State : uint8_t {
        Unopened, // key is a bound from name or modification time
        Peeked,   // key is the time of the first record
        Ready,    // opened has the next record
        Parked,   // as Ready, but closed meanwhile: key is the time of the next record
        Ended,    // nothing more now
        Failed,
    };

    const SourceFile *source = nullptr;
    uint32_t index = 0; // order among records of the same time
    State state = State::Unopened;
    bool stopped = false; // ended because of the time range, not of the file
    bool old = false;     // newer files of its series are there: closed at its end in any case
    bool gone = false;    // failed because there is no file of this name any more
    int64_t key = 0;
    uint64_t from = 0;        // begin here (cursor); 0: at the begin
    uint64_t to = WHOLE_FILE; // backwards: begin here at the latest
    // All before it was handed out or passed over. Backwards: the end of the last complete line
    // when the file was looked at.
    uint64_t position = 0;
    uint64_t kept = WHOLE_FILE; // the position that the cursor file has
    std::unique_ptr<OpenFile> opened;
};

// Lines that were left out, by files in the order in which these were met.
struct DamagedFiles {
    struct Entry {
        const SourceFile *source;
        uint64_t lines;
        uint64_t firstOffset;
    };

    void add(const SourceFile &source, uint64_t lines, uint64_t firstOffset) {
        const auto [place, isNew] = places.try_emplace(&source, entries.size());
        if (isNew)
            entries.push_back({&source, lines, firstOffset});
        else
            entries[place->second].lines += lines;
    }

    std::vector<Entry> entries;

  private:
    std::unordered_map<const SourceFile *, size_t> places; // in entries
};

struct Reader {
    Reader(const ReadRange &readRange, bool goBackwards) : range(readRange), backwards(goBackwards) {}

    // Files in the order of series; those that the range excludes are passed over. The source
    // stays the caller's, in its place.
    void add(const SourceFile &source, uint64_t from, uint64_t to = WHOLE_FILE);
    // After all add() calls: leaves out files beyond the range.
    void prepare();

    // The next record in the order of time; it holds until the next call.
    bool next(const tools::Item *&item);

    // File after file, whatever the times.
    template<typename F>
    void each(const F &take) {
        for (Stream &stream : streams) {
            if (stream.state == Stream::State::Failed || !open(stream))
                continue;
            while (load(stream)) {
                if (!take(stream.opened->item))
                    return;
            }
            close(stream);
        }
    }

    // The record that next() gave last was used: positions are behind it.
    void settle();

    // Follow: looks for more in streams that had ended.
    void wake();
    // A file that appeared meanwhile.
    void follow(const SourceFile &source);
    // Leaves out streams for which gone() holds; only after next() found nothing.
    template<typename F>
    void forget(const F &gone) {
        streams.erase(std::remove_if(streams.begin(), streams.end(), gone), streams.end());
    }

    std::deque<Stream> streams;
    std::vector<std::string> problems; // files that cannot be read
    DamagedFiles damaged;
    bool keepOpen = false; // do not close files at their end, but old ones

    bool open(Stream &stream);
    void close(Stream &stream); // unless it is kept open
    void shut(Stream &stream);

  private:
    bool load(Stream &stream);
    bool peek(Stream &stream);
    void park(Stream &stream);
    bool resume(Stream &stream);
    bool beyondRange(int64_t firstTime) const;
    void push(Stream *stream);
    Stream *pop();
    bool earlier(const Stream *a, const Stream *b) const;
    void newOrigin(Stream &stream);
    void fail(Stream &stream, const std::string &why);

    ReadRange range;
    bool backwards;
    std::vector<Stream *> heap;
    Stream *active = nullptr; // whose record next() gave last
    size_t openFiles = 0;
};

} // namespace qdlogview
