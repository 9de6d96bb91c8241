// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/reader.h"

#include "common/block_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace qdlogview {

using tools::Item;
using tools::ORDER_SLACK;
using tools::RecordFile;

namespace {

constexpr uint64_t SMALL_FILE = 256UL * 1024;        // read as it is, without a search for times
constexpr size_t BUFFER_BUDGET = 16UL * 1024 * 1024; // of all block buffers together
// Files whose times overlap are open at the same time, up to so many; the others are opened
// anew for each of their records that is next.
constexpr size_t MOST_OPEN = 512;

int64_t saturatingAdd(int64_t a, int64_t b) {
    int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? (b > 0 ? INT64_MAX : INT64_MIN) : sum;
}

// Files of no series are together, too.
bool isSameSeries(const SourceFile &a, const SourceFile &b) {
    return a.isInSeries() == b.isInSeries() && (!a.isInSeries() || a.series() == b.series());
}

} // namespace

void Reader::add(const SourceFile &source, uint64_t from, uint64_t to) {
    const uint32_t index = streams.empty() ? 0 : streams.back().index + 1;
    Stream &stream = streams.emplace_back();
    stream.source = &source;
    stream.to = to;
    stream.index = index;
    stream.from = from;
    stream.position = backwards ? NOT_LOOKED_AT : from;
    stream.key = backwards ? source.modified : source.created;
    if (range.limited && !range.scan) {
        if (source.modified < saturatingAdd(range.since, -ORDER_SLACK)) { // nothing was written since
            stream.state = Stream::State::Ended;
            if (!backwards)
                stream.position = source.isPacked() ? WHOLE_FILE : source.size;
        } else if (source.created > saturatingAdd(range.until, ORDER_SLACK)) {
            stream.state = Stream::State::Ended;
        }
    }
}

bool Reader::beyondRange(int64_t firstTime) const {
    return range.limited && !range.scan && firstTime > saturatingAdd(range.until, ORDER_SLACK);
}

// Within a series files begin one after the other: those beyond the range are found
// by bisection over the times of their first records.
void Reader::prepare() {
    constexpr size_t WORTHWHILE = 16;
    for (size_t begin = 0;
         begin < streams.size() && range.limited && !range.scan && range.until != INT64_MAX;) {
        size_t end = begin;
        std::vector<Stream *> series;
        while (end < streams.size() && isSameSeries(*streams[end].source, *streams[begin].source)) {
            if (streams[end].state == Stream::State::Unopened)
                series.push_back(&streams[end]);
            ++end;
        }
        if (series.size() > WORTHWHILE && series.front()->source->isInSeries()) {
            const auto beyond = std::partition_point(series.begin(), series.end(), [&](Stream *stream) {
                RecordFile file;
                int64_t first = 0;
                return !file.open(stream->source->path()) || !file.firstTime(first) || !beyondRange(first);
            });
            for (auto each = beyond; each != series.end(); ++each)
                (*each)->state = Stream::State::Ended;
        }
        begin = end;
    }
    heap.clear();
    size_t open = 0;
    for (Stream &stream : streams) {
        if (stream.state == Stream::State::Unopened) {
            push(&stream);
            ++open;
        }
    }
    if (open == 1)
        heap.front()->state = Stream::State::Peeked; // nothing to compare with
}

bool Reader::open(Stream &stream) {
    if (stream.opened != nullptr)
        return true;
    if (stream.state == Stream::State::Ended && !keepOpen)
        return false;
    stream.opened = std::make_unique<OpenFile>();
    ++openFiles;
    RecordFile &opened = stream.opened->file;
    if (!opened.open(stream.source->path())) {
        fail(stream, opened.problem);
        stream.gone = access(stream.source->path().c_str(), F_OK) != 0 && errno == ENOENT;
        return false;
    }
    opened.lines.blockSize =
        std::min(BUFFER_BUDGET / std::clamp<size_t>(streams.size(), 1, MOST_OPEN), tools::BLOCK_SIZE);
    newOrigin(stream);
    if (!opened.lines.seekable)
        return true;

    // Forwards a compressed file is read in order, as it is unpacked.
    const bool inOrderOnly = opened.lines.isPacked() && !backwards;
    uint64_t size = UINT64_MAX;
    if (!inOrderOnly)
        opened.lines.size(size);
    if (backwards && !opened.lines.problem().empty()) // what is in front of the damage is read
        problems.push_back(stream.source->path() + ": " + opened.lines.problem());
    if (stream.from > 0) {
        // A cursor beyond the end, or within a line, is of another file of this name.
        char before = 0;
        const bool fits = stream.from <= size && opened.lines.readAt(stream.from - 1, &before, 1) == 1 &&
                          (before == '\n' || stream.from < size);
        stream.from = fits ? std::max(stream.from, opened.dataBegin) : 0;
    }
    const bool search = range.limited && !range.scan && !inOrderOnly && size > SMALL_FILE && opened.inOrder();
    const uint64_t begin =
        search && range.since != INT64_MIN ? opened.findTime(range.since) : opened.dataBegin;
    stream.opened->stopTime = search ? saturatingAdd(range.until, ORDER_SLACK) : INT64_MAX;
    if (backwards) {
        const uint64_t complete = opened.completeEnd();
        if (stream.position == NOT_LOOKED_AT)
            stream.position = complete;
        uint64_t end = std::min({complete, stream.position, stream.to});
        if (search && range.until != INT64_MAX) {
            const uint64_t behind = opened.findTime(saturatingAdd(range.until, 3 * ORDER_SLACK));
            int64_t time = 0;
            uint64_t where = 0;
            if (behind > opened.dataBegin && opened.timeAt(behind, end, time, where) &&
                time > saturatingAdd(range.until, ORDER_SLACK))
                end = where;
        }
        opened.startBackwards(end);
    } else {
        opened.seek(std::max(begin, stream.from));
        stream.position = std::max(begin, stream.from);
    }
    return true;
}

void Reader::close(Stream &stream) {
    if (!keepOpen || stream.old || openFiles > MOST_OPEN)
        shut(stream);
}

void Reader::shut(Stream &stream) {
    openFiles -= stream.opened != nullptr ? 1 : 0;
    stream.opened.reset();
}

void Reader::fail(Stream &stream, const std::string &why) {
    problems.push_back(stream.source->path() + ": " + why);
    stream.state = Stream::State::Failed;
    shut(stream);
}

// Closes a file whose next record is known, for others to be open.
void Reader::park(Stream &stream) {
    const OpenFile &opened = *stream.opened;
    const tools::LineReader &lines = opened.file.lines;
    if (!lines.seekable || lines.isPacked() || opened.hasHeaders)
        return; // reading on from its place would take long, or lack what was before
    const uint64_t place = opened.item.offset;
    if (backwards)
        stream.to = place + opened.item.record.line.size() + 1;
    else
        stream.position = place;
    stream.state = Stream::State::Parked;
    shut(stream);
}

bool Reader::resume(Stream &stream) {
    const uint64_t place = stream.position;
    if (!open(stream))
        return false;
    if (!backwards)
        stream.opened->file.seek(place);
    if (load(stream))
        return true;
    close(stream);
    return false;
}

void Reader::newOrigin(Stream &stream) {
    OpenFile &opened = *stream.opened;
    RecordFile &file = opened.file;
    const auto origin = std::make_shared<tools::Origin>();
    origin->path = stream.source->path();
    origin->base = file.base;
    origin->logSet = std::string(file.name.logSet);
    origin->host = file.host;
    origin->hasHost = file.header.version != 0;
    origin->names = range.names;
    origin->hasOffset = file.header.hasOffset;
    origin->offset = file.header.offset;
    if (file.header.version != 0 && file.lines.seekable && opened.origin == nullptr) {
        origin->headerLine.resize(static_cast<size_t>(file.dataBegin - 1));
        file.lines.readAt(0, origin->headerLine.data(), origin->headerLine.size());
    } else if (file.header.version != 0) {
        origin->headerLine = file.line;
    }
    opened.hasHeaders = opened.origin != nullptr;
    opened.origin = origin;
}

// The stream's next record in the range; false at its end.
bool Reader::load(Stream &stream) {
    OpenFile &opened = *stream.opened;
    RecordFile &file = opened.file;
    for (;;) {
        switch (backwards ? file.previous() : file.next()) {
        case RecordFile::Got::Record: {
            const tools::Record &record = file.record;
            if (range.limited) {
                if (!record.hasPrefix() || record.time < range.since) {
                    if (backwards && opened.stopTime != INT64_MAX &&
                        record.time < saturatingAdd(range.since, -ORDER_SLACK))
                        break;
                    continue;
                }
                if (record.time > range.until) {
                    if (!backwards && record.time > opened.stopTime) {
                        stream.position = file.offset;
                        stream.stopped = true;
                        break;
                    }
                    continue;
                }
            }
            if (backwards && file.offset < stream.from)
                break;
            opened.item.record = record;
            if (record.text.empty() && !record.block.empty() &&
                tools::renderBlock(record.block, opened.rendered) && !opened.rendered.empty())
                opened.item.record.text = opened.rendered;
            opened.item.offset = file.offset;
            opened.item.origin = opened.origin.get();
            stream.key = record.time;
            stream.state = Stream::State::Ready;
            if (!backwards)
                stream.position = file.offset;
            return true;
        }
        case RecordFile::Got::Damaged:
            if (!backwards || file.offset >= stream.from)
                damaged.add(*stream.source, 1, file.offset);
            continue;
        case RecordFile::Got::Header:
            if (!backwards)
                newOrigin(stream);
            continue;
        case RecordFile::Got::End:
            if (!backwards)
                stream.position = file.lines.position();
            break;
        case RecordFile::Got::Error:
            fail(stream, file.problem);
            return false;
        }
        stream.state = Stream::State::Ended;
        return false;
    }
}

// The time of the record that comes out first, without keeping the file open: its times
// alone tell the order of files that were copied together.
bool Reader::peek(Stream &stream) {
    RecordFile file;
    if (backwards) {
        int64_t last = 0;
        if (!stream.source->isPacked() && file.open(stream.source->path())) {
            stream.position = file.completeEnd();
            if (file.lastTime(last))
                stream.key = range.limited ? std::min(last, range.until) : last;
        }
        stream.state = Stream::State::Peeked; // opening it tells more
        return true;
    }
    int64_t first = 0;
    if (stream.source->isStandardInput() || !file.open(stream.source->path()) || stream.from > 0 ||
        !file.firstTime(first)) {
        stream.state = Stream::State::Peeked; // opening it tells more
        return true;
    }
    if (beyondRange(first)) {
        stream.state = Stream::State::Ended;
        return false;
    }
    stream.key = range.limited ? std::max(first, range.since) : first;
    stream.state = Stream::State::Peeked;
    return true;
}

// ---- order -----------------------------------------------------------------------

// Whether a's record comes out before b's.
bool Reader::earlier(const Stream *a, const Stream *b) const {
    if (a->key != b->key)
        return backwards ? a->key > b->key : a->key < b->key;
    return backwards ? a->index > b->index : a->index < b->index;
}

void Reader::push(Stream *stream) {
    heap.push_back(stream);
    std::push_heap(heap.begin(), heap.end(),
                   [this](const Stream *a, const Stream *b) { return earlier(b, a); });
    if (openFiles > MOST_OPEN && stream->state == Stream::State::Ready && heap.front() != stream)
        park(*stream);
}

Stream *Reader::pop() {
    std::pop_heap(heap.begin(), heap.end(),
                  [this](const Stream *a, const Stream *b) { return earlier(b, a); });
    Stream *const stream = heap.back();
    heap.pop_back();
    return stream;
}

bool Reader::next(const Item *&item) {
    if (active != nullptr) {
        Stream *const stream = active;
        active = nullptr;
        if (load(*stream)) {
            if (heap.empty() || earlier(stream, heap.front())) { // as it mostly is
                active = stream;
                item = &stream->opened->item;
                return true;
            }
            push(stream);
        } else {
            close(*stream);
        }
    }
    while (!heap.empty()) {
        Stream *const stream = pop();
        switch (stream->state) {
        case Stream::State::Unopened:
            if (!peek(*stream))
                continue;
            [[fallthrough]];
        case Stream::State::Peeked:
            if (!heap.empty() && earlier(heap.front(), stream)) {
                push(stream);
                continue;
            }
            if (!open(*stream))
                continue;
            if (load(*stream))
                push(stream);
            else
                close(*stream);
            continue;
        case Stream::State::Parked:
            if (!resume(*stream))
                continue;
            [[fallthrough]];
        case Stream::State::Ready:
            active = stream;
            item = &stream->opened->item;
            return true;
        default:
            continue;
        }
    }
    return false;
}

void Reader::settle() {
    if (active == nullptr || backwards || active->opened == nullptr)
        return;
    const Item &item = active->opened->item;
    active->position = item.offset + item.record.line.size() + 1;
}

// ---- following -------------------------------------------------------------------

void Reader::follow(const SourceFile &source) {
    add(source, 0);
    Stream &stream = streams.back();
    if (stream.state == Stream::State::Unopened && open(stream))
        stream.state = Stream::State::Ended; // wake() reads it
}

void Reader::wake() {
    for (Stream &stream : streams) {
        if (stream.state == Stream::State::Ended && !stream.stopped && stream.opened != nullptr &&
            load(stream))
            push(&stream);
    }
}

} // namespace qdlogview
