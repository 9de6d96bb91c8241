// SPDX-License-Identifier: Apache-2.0
// Reads many log files as one stream of records in the order of time.
#pragma once

#include "common/fields.h"
#include "common/record_file.h"
#include "qdlogview/sources.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace qdlogview {

struct ReadRange {
    bool limited = false;
    int64_t since = INT64_MIN, until = INT64_MAX; // milliseconds
    bool scan = false;                            // do not trust the order of times within files
    const tools::IdNames *names = nullptr;        // of the records' ids
};

// One file being read.
struct Stream {
    enum class State {
        Unopened, // key is a bound from name or modification time
        Peeked,   // key is the time of the first record
        Ready,    // item is the next record
        Ended,    // nothing more now
        Failed,
    };

    SourceFile source;
    size_t index = 0; // order among records of the same time
    State state = State::Unopened;
    int64_t key = 0;
    uint64_t from = 0;          // begin here (cursor); 0: at the begin
    uint64_t to = WHOLE_FILE;   // backwards: begin here at the latest
    uint64_t position = 0;      // all before it was handed out or passed over
    bool stopped = false;       // ended because of the time range, not of the file
    bool gone = false;          // failed because there is no file of this name any more
    uint64_t kept = WHOLE_FILE; // the position that the cursor file has
    bool old = false;           // newer files of its series are there: closed at its end in any case
    int64_t stopTime = INT64_MAX;
    tools::Item item;
    std::string rendered; // the item's text when the record holds a block in place of one
    std::unique_ptr<tools::RecordFile> file;
    std::list<tools::Origin> origins; // the last one holds; items point into it
};

struct Reader {
    Reader(const ReadRange &readRange, bool goBackwards) : range(readRange), backwards(goBackwards) {}

    // Files in the order of series; those that the range excludes are passed over.
    void add(const SourceFile &source, uint64_t from, uint64_t to = WHOLE_FILE);
    // After all add() calls: leaves out files beyond the range.
    void prepare();

    // The next record in the order of time; it holds until the next call.
    bool next(const tools::Item *&item);

    // File after file, whatever the times.
    template<typename F>
    void each(const F &take) {
        for (const auto &stream : streams) {
            if (stream->state == Stream::State::Failed || !open(*stream))
                continue;
            while (load(*stream)) {
                if (!take(stream->item))
                    return;
            }
            close(*stream);
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
        streams.erase(std::remove_if(streams.begin(), streams.end(),
                                     [&](const std::unique_ptr<Stream> &stream) { return gone(*stream); }),
                      streams.end());
    }

    std::vector<std::unique_ptr<Stream>> streams;
    std::vector<std::string> problems; // files that cannot be read
    struct DamagedFile {
        std::string path;
        uint64_t lines = 0;
        uint64_t firstOffset = 0;
    };
    std::vector<DamagedFile> damaged;
    bool keepOpen = false; // do not close files at their end, but old ones

    bool open(Stream &stream);
    void close(Stream &stream);

  private:
    bool load(Stream &stream);
    bool peek(Stream &stream);
    bool beyondRange(int64_t firstTime) const;
    void push(Stream *stream);
    Stream *pop();
    bool earlier(const Stream *a, const Stream *b) const;
    void tellDamage(const Stream &stream);
    void newOrigin(Stream &stream);

    ReadRange range;
    bool backwards;
    std::vector<Stream *> heap;
    Stream *active = nullptr; // whose record next() gave last
};

} // namespace qdlogview
