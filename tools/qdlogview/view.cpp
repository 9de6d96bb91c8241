// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/view.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <poll.h>
#include <set>
#include <string>
#include <sys/stat.h>

namespace qdlogview {

using tools::HeldItem;
using tools::Item;

namespace {

constexpr uint64_t LINES_BEFORE_FOLLOWING = 10;
constexpr int POLL_MILLISECONDS = 50;            // between looks at the files that are followed
constexpr int64_t OLD_FILES_MILLISECONDS = 1000; // between looks at the files that came before
constexpr size_t FOLLOWED_PER_SERIES = 4;        // newest files of a series that stay open
constexpr size_t VISITED_PER_SERIES = 64;        // newest files of a series that are looked at now and then

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

int64_t monotonicMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace

void installStopSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop; // without SA_RESTART: waiting ends at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void View::addStreams(Reader &reader) {
    for (const SourceFile &file : sources.files) {
        const uint64_t from = start.startOf(file);
        if (from != WHOLE_FILE)
            reader.add(file, from);
    }
    reader.prepare();
}

void View::keep(Reader &reader) {
    problems.insert(problems.end(), reader.problems.begin(), reader.problems.end());
    reader.problems.clear();
    for (const Reader::DamagedFile &file : reader.damaged) {
        const auto same = std::find_if(damaged.begin(), damaged.end(), [&](const Reader::DamagedFile &other) {
            return other.path == file.path;
        });
        if (same == damaged.end())
            damaged.push_back(file);
        else
            same->lines += file.lines;
    }
    reader.damaged.clear();
    if (spool != nullptr)
        tellAtOnce();
}

// Nobody waits for the end of what may run for months.
void View::tellAtOnce() {
    if (!damaged.empty() && told == tools::EXIT_OK)
        told = tools::EXIT_PARTIAL;
    if (!problems.empty())
        told = tools::EXIT_UNREADABLE;
    for (const Reader::DamagedFile &file : damaged)
        problems.push_back(file.path + ": " + tools::counted(file.lines, "damaged line") + " left out, at " +
                           std::to_string(file.firstOffset) + " first");
    for (size_t i = 0; !settings.quiet && i < problems.size(); ++i)
        std::fprintf(stderr, "qdlogview: %s\n", tools::escaped(problems[i]).c_str());
    problems.clear();
    damaged.clear();
}

// Numbers of files that are missing behind those that the cursor knows.
void View::tellMissing() const {
    constexpr size_t DAY = 14;               // digits of SourceFile::order
    std::map<std::string, std::string> last; // order, by series
    for (const auto &[series, finished] : start.finished)
        last[series] = finished.order;
    for (const auto &[path, offset] : start.offsets) {
        SourceFile file;
        describeFile(path, file);
        last[file.series] = std::max(last[file.series], file.order);
    }
    for (const SourceFile &file : sources.files) {
        const auto known = last.find(file.series);
        tools::FileName name;
        if (file.series.empty() || known == last.end() || file.order <= known->second ||
            !tools::parseFileName(file.base, name) || name.kind != tools::FileName::Kind::Originator)
            continue;
        const bool sameDay = file.order.compare(0, DAY, known->second, 0, DAY) == 0;
        const uint64_t next = sameDay ? std::stoull(known->second.substr(DAY)) + 1 : 0;
        if (name.counter > next && !settings.quiet)
            std::fprintf(stderr, "qdlogview: %s: files before it were gone before they were read\n",
                         tools::escaped(file.path).c_str());
        last.erase(known);
    }
}

// False when it was the last one that is wanted, or nobody reads any more.
bool View::emit(const Item &item) {
    if (spool != nullptr && !spool->isOpen()) {
        if (!spool->begin()) {
            problems.push_back(spool->problem);
            return !(failed = true);
        }
        printer.begin();
    }
    printer.print(item);
    ++shown;
    if (spool != nullptr)
        ++spool->records;
    return (settings.maxCount == 0 || shown < settings.maxCount) && out.error == 0 && stopRequested == 0;
}

bool View::show() {
    const bool around = settings.before > 0 || settings.after > 0;
    const bool fromStart =
        !settings.cursorFile.empty() || !settings.afterCursor.empty() || filter.since != INT64_MIN;
    const bool limited = settings.hasLines ? settings.lines != ALL_LINES : settings.follow && !fromStart;
    const uint64_t count = settings.hasLines ? settings.lines : LINES_BEFORE_FOLLOWING;
    const bool onlyStdin = sources.files.size() == 1 && sources.files.front().path == "-";
    if (spool == nullptr)
        printer.begin();
    else
        tellMissing();

    if (settings.follow) {
        Reader reader(range, false);
        reader.keepOpen = true;
        addStreams(reader);
        closeOldFiles(reader);
        if (limited) { // what is there now is read from its end; following begins behind it
            const Ends ends = currentEnds();
            showLast(count, false, ends);
            for (const auto &stream : reader.streams) {
                const auto end = ends.find(stream->source.path);
                if (end != ends.end())
                    stream->from = stream->position = std::max(end->second, stream->from);
                if (stream->from == WHOLE_FILE)
                    stream->state = Stream::State::Ended;
            }
        }
        if (settings.maxCount == 0 || shown < settings.maxCount)
            follow(reader);
        finishCursor(reader);
        keep(reader);
        return shown > 0;
    }
    if (limited && !around && !onlyStdin) {
        const Ends ends = currentEnds();
        showLast(count, settings.reverse, ends);
        if (!settings.cursorFile.empty() ||
            settings.showCursor) { // the place reached is the end of all files
            Reader reader(range, false);
            addStreams(reader);
            for (const auto &stream : reader.streams) {
                const auto end = ends.find(stream->source.path);
                if (end != ends.end())
                    stream->position = std::max(stream->from, end->second);
                stream->state = Stream::State::Ended;
            }
            finishCursor(reader);
        }
        return shown > 0;
    }
    if (settings.reverse && !onlyStdin) {
        showLast(ALL_LINES, true, {});
        return shown > 0;
    }

    Reader reader(range, false);
    addStreams(reader);
    if (around) {
        showAround(reader);
    } else if (settings.reverse || limited) { // standard input can be read forwards only
        std::deque<HeldItem> last;
        const Item *item = nullptr;
        while (reader.next(item)) {
            if (!filter.selects(*item) || !filter.hits(*item))
                continue;
            last.emplace_back(*item);
            if (limited && last.size() > count)
                last.pop_front();
        }
        while (!last.empty()) {
            HeldItem &held = settings.reverse ? last.back() : last.front();
            if (!emit(held.item))
                break;
            settings.reverse ? last.pop_back() : last.pop_front();
        }
    } else {
        showForward(reader);
    }
    finishCursor(reader);
    keep(reader);
    return shown > 0;
}

void View::showForward(Reader &reader) {
    const Item *item = nullptr;
    while (reader.next(item)) {
        if ((filter.selects(*item) && filter.hits(*item) && !emit(*item)) ||
            (spool != nullptr && !commit(reader, When::Busy))) {
            reader.settle();
            return;
        }
    }
}

View::Ends View::currentEnds() const {
    Ends ends;
    for (const SourceFile &source : sources.files) {
        tools::RecordFile file;
        if (source.isPacked)
            ends[source.path] = WHOLE_FILE;
        else if (source.path != "-" && file.open(source.path))
            ends[source.path] = file.completeEnd();
    }
    return ends;
}

// The last records, read from the ends of the files.
void View::showLast(uint64_t count, bool newestFirst, const Ends &ends) {
    Reader reader(range, true);
    for (const SourceFile &file : sources.files) {
        const uint64_t from = start.startOf(file);
        const auto end = ends.find(file.path);
        if (from != WHOLE_FILE)
            reader.add(file, from, end != ends.end() ? end->second : WHOLE_FILE);
    }
    reader.prepare();
    std::vector<std::unique_ptr<HeldItem>> last;
    const Item *item = nullptr;
    uint64_t taken = 0;
    while (taken < count && reader.next(item)) {
        if (!filter.selects(*item) || !filter.hits(*item))
            continue;
        ++taken;
        if (!newestFirst)
            last.push_back(std::make_unique<HeldItem>(*item));
        else if (!emit(*item))
            break;
    }
    for (auto each = last.rbegin(); each != last.rend(); ++each) {
        if (!emit((*each)->item))
            break;
    }
    keep(reader);
}

// Matches of -g with their neighbours among the records that the other conditions leave.
void View::showAround(Reader &reader) {
    struct Piece {
        HeldItem held;
        bool gap; // records were left out in front of it
        bool hit;
    };
    const bool limited = settings.hasLines && settings.lines != ALL_LINES;
    std::deque<HeldItem> before;
    std::deque<Piece> last; // with -n: the last matches and their neighbours
    uint64_t following = 0;
    uint64_t hits = 0;
    bool skipped = false;
    bool any = false;
    const auto print = [&](const Item &item, bool hit) {
        if (limited) {
            last.push_back({HeldItem(item), skipped && any, hit});
        } else {
            if (skipped && any)
                printer.separator();
            printer.print(item);
            shown += hit ? 1 : 0;
        }
        skipped = false;
        any = true;
    };
    const Item *item = nullptr;
    while (out.error == 0 && reader.next(item)) {
        if (!filter.selects(*item))
            continue;
        const bool more = settings.maxCount == 0 || hits < settings.maxCount;
        if (more && filter.hits(*item)) {
            for (const HeldItem &held : before)
                print(held.item, false);
            before.clear();
            print(*item, true);
            following = settings.after;
            ++hits;
        } else if (following > 0) {
            print(*item, false);
            --following;
        } else if (!more) {
            break;
        } else {
            before.emplace_back(*item);
            if (before.size() > settings.before) {
                before.pop_front();
                skipped = true;
            }
        }
        if (!more && following == 0)
            break;
    }
    if (!limited)
        return;
    // From the first of the last -n matches on; its neighbours come before it.
    uint64_t kept = 0;
    size_t begin = last.size();
    while (begin > 0 && (kept < settings.lines || !last[begin - 1].hit)) {
        if (kept == settings.lines && last[begin].gap)
            break;
        --begin;
        kept += last[begin].hit ? 1 : 0;
    }
    if (settings.lines == 0)
        begin = last.size();
    for (size_t i = begin; i < last.size(); ++i) {
        if (i > begin && last[i].gap)
            printer.separator();
        printer.print(last[i].held.item);
        shown += last[i].hit ? 1 : 0;
    }
}

// ---- following -------------------------------------------------------------------

// Files that were closed because newer ones of their series came: they may grow still,
// by a process that has not noticed the rollover. Others may have been cut, replaced or
// removed.
void View::visitOldFiles(Reader &reader) {
    std::map<std::string, size_t> newer; // files of a series that come later
    std::set<const Stream *> gone;
    for (size_t i = reader.streams.size(); i-- > 0;) {
        Stream &stream = *reader.streams[i];
        if (stream.state != Stream::State::Ended || stream.source.path == "-" || stream.source.isPacked ||
            (stream.file != nullptr && stream.file->lines.isPacked()))
            continue;
        const size_t later = stream.source.series.empty() ? 0 : newer[stream.source.series]++;
        if (later >= VISITED_PER_SERIES)
            continue;
        struct stat now {};
        if (stat(stream.source.path.c_str(), &now) != 0) {
            if (later > 0) // what was open has been read to its end
                gone.insert(&stream);
            continue;
        }
        const auto size = static_cast<uint64_t>(now.st_size);
        bool anew = size < stream.position;
        if (stream.file != nullptr) {
            struct stat opened {};
            anew = anew || fstat(stream.file->lines.descriptor, &opened) != 0 ||
                   opened.st_ino != now.st_ino || opened.st_dev != now.st_dev;
        }
        if (!anew && (stream.file != nullptr || size == stream.position))
            continue;
        if (anew && !settings.quiet)
            std::fprintf(stderr, "qdlogview: %s was cut or replaced: reading it from its begin\n",
                         tools::escaped(stream.source.path).c_str());
        stream.file.reset();
        stream.from = anew ? 0 : stream.position;
        stream.position = stream.from;
        reader.open(stream);
    }
    // What is not published yet needs the places of all that it holds.
    if (!gone.empty() && (spool == nullptr || !spool->isOpen()))
        reader.forget([&](const Stream &stream) { return gone.count(&stream) != 0; });
}

// The newest files of each series stay open.
void View::closeOldFiles(Reader &reader) {
    if (reader.streams.size() == streamsSeen)
        return;
    streamsSeen = reader.streams.size();
    std::map<std::string, size_t> newer;
    for (size_t i = reader.streams.size(); i-- > 0;) {
        Stream &stream = *reader.streams[i];
        stream.old = !stream.source.series.empty() && newer[stream.source.series]++ >= FOLLOWED_PER_SERIES;
        if (stream.old && stream.state == Stream::State::Ended)
            stream.file.reset();
    }
}

void View::follow(Reader &reader) {
    const int64_t end = settings.timeout > 0 ? monotonicMilliseconds() + settings.timeout : INT64_MAX;
    int64_t nextVisit = monotonicMilliseconds() + OLD_FILES_MILLISECONDS;
    std::vector<SourceFile> fresh;
    for (;;) {
        const Item *item = nullptr;
        while (reader.next(item)) {
            const bool goOn = !(filter.selects(*item) && filter.hits(*item)) || emit(*item);
            if (!goOn || stopRequested != 0) {
                reader.settle();
                return;
            }
            if (spool != nullptr && !commit(reader, When::Busy))
                return;
        }
        keep(reader);
        if (spool != nullptr) {
            if (!commit(reader, When::Idle))
                return;
        } else { // all that was there is out: tell it, then keep the place
            out.flush();
            if (out.error != 0 || !writeCursor(reader))
                return;
        }

        closeOldFiles(reader);
        if (stopRequested != 0 || monotonicMilliseconds() >= end)
            return;
        const int64_t left = std::min<int64_t>(POLL_MILLISECONDS, end - monotonicMilliseconds());
        // A reader of our output that has gone is noticed also while nothing is written.
        pollfd output{out.descriptor, 0, 0};
        if (poll(&output, 1, static_cast<int>(std::max<int64_t>(left, 0))) > 0 &&
            (output.revents & POLLERR) != 0)
            raise(SIGPIPE);

        if (sources.directoriesChanged()) {
            sources.findNew(fresh);
            for (const SourceFile &file : fresh)
                reader.follow(file);
        }
        if (monotonicMilliseconds() >= nextVisit) {
            visitOldFiles(reader);
            nextVisit = monotonicMilliseconds() + OLD_FILES_MILLISECONDS;
        }
        reader.wake();
    }
}

// ---- cursors ---------------------------------------------------------------------

bool View::writeCursor(const Reader &reader, const SpoolMark *mark) {
    if (settings.cursorFile.empty() || cursorFile.save(settings.cursorFile, reader, start, mark))
        return true;
    problems.push_back(settings.cursorFile + ": " + std::strerror(errno));
    return false;
}

// Publishes the file that is being written when it is time, and keeps the place behind it;
// without such a file the place alone. False after a failure: nothing more must be written.
bool View::commit(Reader &reader, When when) {
    constexpr int64_t BETWEEN_PLACES = 1000; // milliseconds; of records that the filter left out
    if (failed)
        return false;
    const bool isFile = spool->isOpen();
    if (when != When::End && (isFile ? !spool->isDue(when == When::Idle)
                                     : when == When::Busy || monotonicMilliseconds() < nextPlace))
        return true;
    reader.settle();
    SpoolMark mark;
    if (isFile && !spool->seal(mark)) {
        problems.push_back(spool->problem);
        return !(failed = true);
    }
    if (!writeCursor(reader, isFile ? &mark : nullptr))
        return !(failed = true);
    if (isFile && !spool->publish()) {
        problems.push_back(spool->problem);
        return !(failed = true);
    }
    nextPlace = monotonicMilliseconds() + BETWEEN_PLACES;
    return true;
}

void View::finishCursor(Reader &reader) {
    if (settings.cursorFile.empty() && !settings.showCursor)
        return;
    if (spool != nullptr) {
        commit(reader, When::End);
        return;
    }
    if (!out.flush()) // what was not told is told again next time
        return;
    writeCursor(reader);
    if (settings.showCursor)
        out.write("-- cursor: " + cursorText(reader, start) + "\n");
}

} // namespace qdlogview
