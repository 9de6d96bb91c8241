// SPDX-License-Identifier: Apache-2.0
#include "common/record_file.h"

#include "common/files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

// ---- lines -----------------------------------------------------------------------

bool LineReader::open(const std::string &path) {
    close();
    error = 0;
    begin = scanned = valid = 0;
    base = 0;
    isWhole = skipping = false;
    struct stat status {};
    descriptor = path == "-" ? fcntl(0, F_DUPFD_CLOEXEC, 3) : openToRead(path, 0, &status);
    if (descriptor < 0 || (path == "-" && fstat(descriptor, &status) != 0)) {
        error = errno;
        close();
        return false;
    }
    seekable = S_ISREG(status.st_mode);
    if (S_ISDIR(status.st_mode)) {
        error = EISDIR;
        close();
        return false;
    }
    if (seekable && path == "-") {
        const off_t at = lseek(descriptor, 0, SEEK_CUR);
        base = at > 0 ? static_cast<uint64_t>(at) : 0;
    }
    takeStart(!seekable || base != 0);
    return true;
}

// Looks whether the file is compressed. What is taken from a pipe for that is kept.
void LineReader::takeStart(bool fromPipe) {
    makeBuffer(seekable ? START_SIZE : blockSize);
    char *const start = buffer.get();
    const size_t wanted = seekable ? START_SIZE : Unpacker::LONGEST_MAGIC;
    size_t have = 0;
    ssize_t got = 0;
    bool fewer = true;
    Unpacker::Format format = Unpacker::Format::None;
    while (fewer && have < wanted) {
        got = seekable ? pread(descriptor, start + have, wanted - have, static_cast<off_t>(base + have))
                       : read(descriptor, start + have, wanted - have);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break; // reading on tells why
        have += static_cast<size_t>(got);
        format = Unpacker::formatOf({start, have}, fewer);
    }
    if (format != Unpacker::Format::None) {
        if (seekable && fromPipe) // standard input that was read from already goes on as a pipe does
            lseek(descriptor, static_cast<off_t>(base + have), SEEK_SET);
        seekable = seekable && !fromPipe;
        packed = std::make_unique<Unpacker>(descriptor, seekable, format,
                                            std::string_view(start, seekable ? 0 : have));
        base = 0;
    } else {
        valid = have;
        isWhole = seekable && got >= 0 && have < wanted;
    }
}

void LineReader::makeBuffer(size_t bytes) {
    buffer.reset(new char[bytes]);
    capacity = bytes;
}

std::string LineReader::problem() const {
    if (packed != nullptr && !packed->problem.empty())
        return packed->problem;
    return error != 0 ? std::strerror(error) : "";
}

void LineReader::close() {
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
    packed.reset();
    buffer.reset();
    capacity = 0;
}

void LineReader::seek(uint64_t offset) {
    if (offset >= base && offset <= base + valid) {
        begin = scanned = static_cast<size_t>(offset - base);
    } else {
        base = offset;
        begin = scanned = valid = 0;
        isWhole = false;
    }
    skipping = false;
}

int64_t LineReader::readAt(uint64_t offset, char *into, size_t length) const {
    if (packed != nullptr)
        return packed->readAt(offset, into, length);
    if (offset >= base && offset - base <= valid && (isWhole || length <= valid - (offset - base))) {
        const size_t there = std::min<size_t>(length, valid - static_cast<size_t>(offset - base));
        std::memcpy(into, buffer.get() + (offset - base), there);
        return static_cast<int64_t>(there);
    }
    for (;;) {
        const ssize_t got = pread(descriptor, into, length, static_cast<off_t>(offset));
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

bool LineReader::size(uint64_t &bytes) const {
    if (packed != nullptr) {
        bytes = seekable ? packed->size() : 0;
        return true;
    }
    if (isWhole) {
        bytes = base + valid;
        return true;
    }
    struct stat status {};
    if (fstat(descriptor, &status) != 0)
        return false;
    bytes = static_cast<uint64_t>(status.st_size);
    return true;
}

bool LineReader::dataAt(uint64_t offset, uint64_t &data) const {
    data = offset;
    if (packed != nullptr || isWhole)
        return true;
    const off_t found = lseek(descriptor, static_cast<off_t>(offset), SEEK_DATA);
    data = found >= 0 ? static_cast<uint64_t>(found) : offset;
    return found >= 0 || errno != ENXIO; // a file system that does not know has no holes
}

bool LineReader::lastLineFeed(uint64_t limit, uint64_t end, uint64_t &at) const {
    constexpr uint64_t SMALLEST = 64UL * 1024;
    std::string block;
    for (uint64_t step = SMALLEST; end > limit;) {
        step = std::min(step, end - limit);
        uint64_t data = 0;
        if (!dataAt(end - step, data) || data >= end) { // nothing but a hole
            end -= step;
            step = std::max(SMALLEST, step * 2);
            continue;
        }
        if (step > SMALLEST) {
            step /= 2;
            continue;
        }
        block.resize(static_cast<size_t>(step));
        if (readAt(end - step, block.data(), block.size()) != static_cast<int64_t>(block.size()))
            return false;
        const size_t feed = block.rfind('\n');
        if (feed != std::string::npos) {
            at = end - step + feed;
            return true;
        }
        end -= step;
    }
    return false;
}

int64_t LineReader::readMore(char *into, size_t length) const {
    const uint64_t place = base + valid;
    if (packed != nullptr)
        return packed->readAt(place, into, length);
    return seekable ? pread(descriptor, into, length, static_cast<off_t>(place))
                    : read(descriptor, into, length);
}

// Makes room behind `valid` and reads; Line means that there is more to scan.
LineReader::Got LineReader::refill() {
    if (isWhole) {
        isWhole = false; // who asks again sees what has come since
        return Got::End;
    }
    if (begin > 0) {
        std::memmove(buffer.get(), buffer.get() + begin, valid - begin);
        base += begin;
        valid -= begin;
        scanned -= begin;
        begin = 0;
    }
    if (valid == 0 && capacity != blockSize) { // a long line is over, or the start
        makeBuffer(blockSize);
    } else if (valid == capacity || capacity < blockSize) {
        const std::unique_ptr<char[]> shorter = std::move(buffer);
        makeBuffer(std::max(blockSize, valid == capacity ? capacity * 2 : 0));
        std::memcpy(buffer.get(), shorter.get(), valid);
    }
    if (skipping && seekable && packed == nullptr) { // the holes of a line that is too long
        const uint64_t place = base + valid;
        uint64_t data = place;
        if (!dataAt(place, data))
            size(data);
        if (data > place) {
            base = data;
            begin = scanned = valid = 0;
        }
    }
    for (;;) {
        const int64_t got = readMore(buffer.get() + valid, capacity - valid);
        if (got > 0) {
            valid += static_cast<size_t>(got);
            return Got::Line;
        }
        if (got == 0)
            return Got::End;
        if (packed != nullptr || errno != EINTR) {
            error = packed != nullptr ? EIO : errno;
            return Got::Error;
        }
    }
}

LineReader::Got LineReader::next(std::string_view &line, uint64_t &offset) {
    for (;;) {
        const char *const from = buffer.get() + scanned;
        const auto *feed =
            valid > scanned ? static_cast<const char *>(std::memchr(from, '\n', valid - scanned)) : nullptr;
        if (feed != nullptr) {
            const auto end = static_cast<size_t>(feed - buffer.get());
            line = {buffer.get() + begin, end - begin};
            offset = base + begin;
            begin = scanned = end + 1;
            if (!skipping)
                return Got::Line;
            skipping = false;
            continue;
        }
        scanned = valid;
        if (skipping) {
            begin = valid;
        } else if (valid - begin >= MAX_LINE) {
            line = {buffer.get() + begin, valid - begin};
            offset = base + begin;
            begin = valid;
            skipping = true;
            return Got::TooLong;
        }
        const Got got = refill();
        if (got != Got::Line)
            return got;
    }
}

void BackwardReader::start(const LineReader &lines, uint64_t end) {
    source = &lines;
    buffer.clear();
    base = end;
    left = 0;
}

bool BackwardReader::previous(std::string_view &line, uint64_t &offset) {
    // buffer[0, left) is what was read and not handed out; it ends behind a line feed,
    // except before the first call.
    tooLong = false;
    size_t searched = 0; // bytes at the end of it that hold no line feed that begins a line
    for (;;) {
        const size_t end = left > 0 ? left - 1 : 0; // without the line feed that ends the line
        const void *feed = end > searched ? memrchr(buffer.data(), '\n', end - searched) : nullptr;
        if (feed != nullptr || (base == 0 && left > 0)) {
            const size_t begin =
                feed != nullptr ? static_cast<size_t>(static_cast<const char *>(feed) - buffer.data()) + 1
                                : 0;
            const bool ended = buffer[left - 1] == '\n';
            line = {buffer.data() + begin, (ended ? left - 1 : left) - begin};
            offset = base + begin;
            left = begin;
            if (ended)
                return true;
            searched = 0;
            if (left == 0 && base == 0)
                return false;
            continue; // the unended rest of the file
        }
        if (base == 0)
            return false;
        if (left >= MAX_LINE)
            return skipLine(line, offset);
        searched = end;
        constexpr size_t SMALLEST = BLOCK_SIZE / 16;
        const size_t wanted = std::min(std::max(SMALLEST, left), MAX_LINE - left + SMALLEST);
        const auto length = static_cast<size_t>(std::min<uint64_t>(base, wanted));
        std::string larger(length, '\0');
        const int64_t got = source->readAt(base - length, larger.data(), length);
        if (got != static_cast<int64_t>(length))
            return false;
        larger.append(buffer, 0, left);
        buffer.swap(larger);
        base -= length;
        left += length;
    }
}

bool BackwardReader::skipLine(std::string_view &line, uint64_t &offset) {
    uint64_t feed = 0;
    base = source->lastLineFeed(0, base, feed) ? feed + 1 : 0;
    std::string().swap(buffer);
    left = 0;
    line = {};
    offset = base;
    return tooLong = true;
}

// ---- records ---------------------------------------------------------------------

void RecordFile::takeHeader(const Header &parsed) {
    host.assign(parsed.host);
    header = parsed;
    header.host = host;
}

bool RecordFile::open(const std::string &filePath) {
    path = filePath;
    base = path.substr(path.rfind('/') + 1);
    name = {};
    parseFileName(base, name);
    header = {};
    dataBegin = 0;
    problem.clear();
    salvagePending = false;
    if (!lines.open(path)) {
        problem = lines.problem();
        return false;
    }
    if (lines.seekable) {
        char block[1024];
        const int64_t got = lines.readAt(lines.position(), block, sizeof block);
        if (got < 0) {
            problem = lines.isPacked() ? lines.problem() : std::strerror(errno);
            lines.close();
            return false;
        }
        const std::string_view start{block, static_cast<size_t>(got)};
        const size_t feed = start.find('\n');
        if (feed == std::string_view::npos)
            return true;
        Header parsed;
        const HeaderResult result = parseHeader(start.substr(0, feed), parsed);
        if (result == HeaderResult::UnknownVersion) {
            problem = "unknown header version: " + std::string(start.substr(0, std::min<size_t>(feed, 32)));
            lines.close();
            return false;
        }
        if (result == HeaderResult::Ok) {
            takeHeader(parsed);
            dataBegin = lines.position() + feed + 1;
            lines.seek(dataBegin);
        }
    }
    return true;
}

// Says what `line` is.
RecordFile::Got RecordFile::judge() {
    salvaged = false;
    if (!line.empty() && line.front() == '$') {
        Header parsed;
        if (parseHeader(line, parsed) == HeaderResult::Ok) {
            takeHeader(parsed);
            return Got::Header;
        }
    }
    if (parseRecord(line, header.version, record, fault)) {
        if (record.version != ZOLTLOG_RECORD_VERSION_ORIGINATOR)
            record.product = header.product != 0 ? header.product : name.product;
        return Got::Record;
    }
    size_t at = 0;
    Record found;
    if (salvageRecord(line, header.version, found, at)) {
        pending = found;
        if (pending.version != ZOLTLOG_RECORD_VERSION_ORIGINATOR)
            pending.product = header.product != 0 ? header.product : name.product;
        salvagePending = true;
    }
    return Got::Damaged;
}

RecordFile::Got RecordFile::next() {
    if (salvagePending) {
        salvagePending = false;
        record = pending;
        offset += static_cast<uint64_t>(record.line.data() - line.data());
        line = record.line;
        salvaged = true;
        return Got::Record;
    }
    switch (lines.next(line, offset)) {
    case LineReader::Got::Line:
        return judge();
    case LineReader::Got::TooLong:
        fault = {Damage::TooLong, line.size()};
        salvaged = false;
        return Got::Damaged;
    case LineReader::Got::End:
        return Got::End;
    case LineReader::Got::Error:
        break;
    }
    problem = lines.problem();
    return Got::Error;
}

void RecordFile::startBackwards(uint64_t from) {
    backward.start(lines, from);
    salvagePending = false;
}

RecordFile::Got RecordFile::previous() {
    if (salvagePending) { // the torn beginning of the line whose end was a record
        salvagePending = false;
        salvaged = false;
        offset = tornAt;
        return Got::Damaged;
    }
    if (!backward.previous(line, offset))
        return Got::End;
    if (backward.tooLong) {
        fault = {Damage::TooLong, 0};
        salvaged = false;
        return Got::Damaged;
    }
    const uint64_t version = header.version;
    Got got = judge();
    if (got == Got::Damaged && version == ZOLTLOG_RECORD_VERSION_ORIGINATOR &&
        parseRecord(line, 0, record, fault)) {
        salvagePending = false; // a part of the file that a further header line begins
        record.product = name.product;
        got = Got::Record;
    }
    if (got == Got::Damaged && salvagePending) {
        record = pending;
        salvaged = true;
        tornAt = offset;
        offset += static_cast<uint64_t>(record.line.data() - line.data());
        return Got::Record;
    }
    return got;
}

bool RecordFile::timeAt(uint64_t from, uint64_t limit, int64_t &time, uint64_t &where) const {
    constexpr size_t FIRST_STEP = 4096; // holds most records
    constexpr size_t LAST_STEP = 1024UL * 1024;
    constexpr size_t ENOUGH = 256; // the time stands within so many bytes of a line's start
    std::string block;
    bool lineStart = from <= dataBegin;
    from = lineStart ? dataBegin : from - 1; // so that a line that begins at `from` is seen
    for (size_t step = FIRST_STEP; from < limit; step = std::min(step * 2, LAST_STEP)) {
        if (!lineStart && !lines.dataAt(from, from))
            return false;
        block.resize(step);
        const int64_t got = lines.readAt(from, block.data(), step);
        if (got <= 0)
            return false;
        const std::string_view seen{block.data(), static_cast<size_t>(got)};
        size_t begin = 0;
        while (begin < seen.size()) {
            const size_t feed = seen.find('\n', begin);
            if (lineStart) {
                if (from + begin >= limit)
                    return false;
                const size_t end = feed != std::string_view::npos ? feed : seen.size();
                if (feed == std::string_view::npos && end - begin < ENOUGH)
                    break; // read on from here
                if (parseRecordTime(seen.substr(begin, end - begin), header.version, time)) {
                    where = from + begin;
                    return true;
                }
            }
            lineStart = feed != std::string_view::npos;
            begin = lineStart ? feed + 1 : seen.size();
        }
        if (static_cast<size_t>(got) < step && begin < seen.size())
            return false; // the unended end of the file
        from += begin;
    }
    return false;
}

uint64_t RecordFile::findTime(int64_t since) const {
    uint64_t end = 0;
    if (!lines.size(end) ||
        (header.version != 0 && header.version <= ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX))
        return dataBegin;
    const int64_t wanted = since - ORDER_SLACK;
    uint64_t low = dataBegin;          // all records before it are earlier than `wanted`
    uint64_t high = end;               // the first record behind it is not
    constexpr uint64_t ENOUGH = 16384; // is read in one go anyway
    while (high > low && high - low > ENOUGH) {
        const uint64_t middle = low + (high - low) / 2;
        int64_t time = 0;
        uint64_t where = 0;
        if (!timeAt(middle, high, time, where) || time >= wanted)
            high = middle;
        else
            low = std::max(where, low + 1);
    }
    // `low` is a line's start: either dataBegin or where a record was found.
    return low;
}

bool RecordFile::inOrder() const {
    uint64_t end = 0;
    if (!lines.size(end) || end <= dataBegin)
        return true;
    constexpr uint64_t SAMPLES = 32;
    constexpr uint64_t SPACING = 65536; // smaller files get fewer samples
    const uint64_t length = end - dataBegin;
    const uint64_t count = std::min(SAMPLES, length / SPACING + 1);
    int64_t latest = INT64_MIN;
    uint64_t seen = 0; // no sample before it: a line may be longer than the distance of samples
    for (uint64_t i = 0; i <= count; ++i) {
        int64_t time = 0;
        const uint64_t place = dataBegin + length / count * i;
        if (i < count && place < seen)
            continue;
        if (i == count ? !lastTime(time) : !timeAt(place, end, time, seen)) {
            seen = end;
            continue;
        }
        if (wentBack(latest, time))
            return false;
        latest = std::max(latest, time);
    }
    return true;
}

uint64_t RecordFile::completeEnd() const {
    uint64_t end = 0;
    if (!lines.size(end))
        return dataBegin;
    uint64_t feed = 0;
    return lines.lastLineFeed(dataBegin, end, feed) ? feed + 1 : dataBegin;
}

bool RecordFile::firstTime(int64_t &time) const {
    uint64_t where = 0;
    return timeAt(dataBegin, UINT64_MAX, time, where);
}

// From the begin to the end: going back in a compressed file would cost its size on disk.
bool RecordFile::lastTimeForwards(int64_t &time) const {
    constexpr size_t ENOUGH = 256; // the time stands within so many bytes of a line's start
    std::string start;             // of the line that is read
    std::string block(BLOCK_SIZE, '\0');
    bool found = false;
    for (uint64_t from = dataBegin;;) {
        const int64_t got = lines.readAt(from, block.data(), block.size());
        if (got <= 0)
            return found;
        std::string_view left{block.data(), static_cast<size_t>(got)};
        from += left.size();
        while (!left.empty()) {
            const size_t feed = left.find('\n');
            start.append(left.substr(0, std::min(feed, ENOUGH - start.size())));
            if (feed == std::string_view::npos)
                break;
            int64_t read = 0;
            if (parseRecordTime(start, header.version, read)) {
                time = read;
                found = true;
            }
            start.clear();
            left.remove_prefix(feed + 1);
        }
    }
}

bool RecordFile::lastTime(int64_t &time) const {
    if (lines.isPacked())
        return lastTimeForwards(time);
    uint64_t end = 0;
    if (!lines.size(end))
        return false;
    BackwardReader reader;
    reader.start(lines, end);
    std::string_view last;
    uint64_t where = 0;
    while (reader.previous(last, where)) {
        if (parseRecordTime(last, header.version, time))
            return true;
    }
    return false;
}

// ---- a file at a glance ----------------------------------------------------------

bool readSummary(const std::string &path, FileSummary &out, std::string &problem) {
    RecordFile file;
    if (!file.open(path)) {
        problem = file.problem;
        return false;
    }
    struct stat status {};
    if (fstat(file.lines.descriptor, &status) == 0) {
        out.size = static_cast<uint64_t>(status.st_size);
        out.modified = static_cast<int64_t>(status.st_mtim.tv_sec) * 1000 + status.st_mtim.tv_nsec / 1000000;
    }
    out.host = file.host;
    out.header = file.header;
    out.header.host = out.host;
    out.hasTimes = file.firstTime(out.first) && file.lastTime(out.last);
    problem = file.lines.problem();
    return problem.empty();
}

bool completeEnd(const std::string &path, uint64_t size, uint64_t &end) {
    LineReader lines;
    if (!lines.open(path) || (lines.isPacked() && !lines.size(size)))
        return false;
    char last = '\n';
    uint64_t feed = 0;
    if (size > 0 && lines.readAt(size - 1, &last, 1) != 1)
        return false;
    if (last == '\n')
        end = size;
    else
        end = lines.lastLineFeed(0, size, feed) ? feed + 1 : 0;
    return true;
}

} // namespace tools
