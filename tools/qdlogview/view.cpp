// SPDX-License-Identifier: Apache-2.0
#include "qdlogview/view.h"

#include "common/time_text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <utility>

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
    if (damaged.entries.empty()) // as it mostly is: there may be very many
        std::swap(damaged, reader.damaged);
    for (const DamagedFiles::Entry &each : reader.damaged.entries)
        damaged.add(*each.source, each.lines, each.firstOffset);
    reader.damaged = {};
    if (spool != nullptr)
        tellAtOnce();
}

// Nobody waits for the end of what may run for months.
void View::tellAtOnce() {
    if (!damaged.entries.empty() && told == tools::EXIT_OK)
        told = tools::EXIT_PARTIAL;
    if (!problems.empty())
        told = tools::EXIT_UNREADABLE;
    for (const DamagedFiles::Entry &file : damaged.entries)
        problems.push_back(file.source->path() + ": " + tools::counted(file.lines, "damaged line") +
                           " left out, at " + std::to_string(file.firstOffset) + " first");
    for (size_t i = 0; !settings.quiet && i < problems.size(); ++i)
        std::fprintf(stderr, "qdlogview: %s\n", tools::escaped(problems[i]).c_str());
    problems.clear();
    damaged = {};
}

// Numbers of files that are missing behind those that the cursor knows.
void View::tellMissing() const {
    if (start.empty())
        return;
    std::map<std::string, SeriesPlace> last; // by SourceFile::seriesName
    for (const auto &[series, finished] : start.finished)
        last[series] = finished.place;
    for (const auto &[path, offset] : start.offsets) {
        std::string series;
        const SeriesPlace place = placeOf(path, series);
        if (place.order() > last[series].order())
            last[series] = place;
    }
    for (const SourceFile &file : sources.files) {
        const auto known = file.isInSeries() ? last.find(file.seriesName()) : last.end();
        tools::FileName name;
        if (known == last.end() || file.place.order() <= known->second.order() ||
            !tools::parseFileName(file.base, name) || name.kind != tools::FileName::Kind::Originator)
            continue;
        const bool sameDay = file.place.date == known->second.date;
        const uint64_t next = sameDay ? known->second.counter + 1 : 0;
        if (name.counter > next && !settings.quiet)
            std::fprintf(stderr, "qdlogview: %s: files before it were gone before they were read\n",
                         tools::escaped(file.path()).c_str());
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
    const bool onlyStdin = sources.files.size() == 1 && sources.files.front().isStandardInput();
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
            showLast(count, false);
            skipShown(reader);
        }
        if (settings.maxCount == 0 || shown < settings.maxCount)
            follow(reader);
        finishCursor(reader);
        keep(reader);
        return shown > 0;
    }
    if (limited && !around && !onlyStdin) {
        showLast(count, settings.reverse);
        if (!settings.cursorFile.empty() ||
            settings.showCursor) { // the place reached is the end of all files
            Reader reader(range, false);
            addStreams(reader);
            for (Stream &stream : reader.streams) {
                if (stream.source->end != NOT_LOOKED_AT)
                    stream.position = std::max(stream.from, stream.source->end);
                stream.state = Stream::State::Ended;
            }
            finishCursor(reader);
        }
        return shown > 0;
    }
    if (settings.reverse && !onlyStdin) {
        showLast(ALL_LINES, true);
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

// Notes where what was there ended when it was looked at, or else when it was found: what has
// come later is not shown, and is beyond the place reached.
void View::findEnds(const Reader &lookedAt) {
    auto stream = lookedAt.streams.begin();
    for (SourceFile &source : sources.files) {
        const bool wasRead = stream != lookedAt.streams.end() && stream->source == &source;
        source.end = wasRead ? stream->position : NOT_LOOKED_AT;
        if (wasRead)
            ++stream;
        if (source.isPacked())
            source.end = WHOLE_FILE;
        else if (source.end == NOT_LOOKED_AT && !source.isStandardInput() &&
                 !tools::completeEnd(source.path(), source.size, source.end))
            source.end = NOT_LOOKED_AT;
    }
}

// What is there has been shown as far as it is wanted. Files in front of the newest ones of
// their series are looked at now and then; to open them all would take long.
void View::skipShown(Reader &reader) {
    for (Stream &stream : reader.streams) {
        if (stream.source->end == NOT_LOOKED_AT)
            continue;
        stream.from = stream.position = std::max(stream.source->end, stream.from);
        if (stream.from == WHOLE_FILE || stream.old)
            stream.state = Stream::State::Ended;
    }
}

// The last records, read from the ends of the files.
void View::showLast(uint64_t count, bool newestFirst) {
    Reader reader(range, true);
    for (const SourceFile &file : sources.files) {
        const uint64_t from = start.startOf(file);
        if (from != WHOLE_FILE)
            reader.add(file, from);
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
    if (settings.follow || !settings.cursorFile.empty() || settings.showCursor)
        findEnds(reader);
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
    uint64_t matches = 0;   // among these
    uint64_t following = 0;
    uint64_t hits = 0;
    bool skipped = false;
    bool any = false;
    const auto print = [&](const Item &item, bool hit) {
        if (limited) {
            last.push_back({HeldItem(item), skipped && any, hit});
            matches += hit ? 1 : 0;
            while (matches > settings.lines) { // what is in front of a match that is too many
                matches -= last.front().hit ? 1 : 0;
                last.pop_front();
            }
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

namespace {

// How many files of each series have been passed, from its newest on.
struct NewerFiles {
    size_t pass(const SourceFile &file) { return file.isInSeries() ? counts[file.series()]++ : 0; }

    std::map<std::pair<const std::string *, std::string_view>, size_t> counts;
};

} // namespace

// Files that were closed because newer ones of their series came: they may grow still,
// by a process that has not noticed the rollover. Others may have been cut, replaced or
// removed.
void View::visitOldFiles(Reader &reader) {
    NewerFiles newer;
    std::set<const Stream *> gone;
    for (size_t i = reader.streams.size(); i-- > 0;) {
        Stream &stream = reader.streams[i];
        if (stream.state != Stream::State::Ended || stream.source->isStandardInput() ||
            stream.source->isPacked() || (stream.opened != nullptr && stream.opened->file.lines.isPacked()))
            continue;
        const size_t later = newer.pass(*stream.source);
        if (later >= VISITED_PER_SERIES)
            continue;
        const std::string path = stream.source->path();
        struct stat now {};
        if (stat(path.c_str(), &now) != 0) {
            if (later > 0) // what was open has been read to its end
                gone.insert(&stream);
            continue;
        }
        const auto size = static_cast<uint64_t>(now.st_size);
        bool anew = size < stream.position;
        if (stream.opened != nullptr) {
            struct stat opened {};
            anew = anew || fstat(stream.opened->file.lines.descriptor, &opened) != 0 ||
                   opened.st_ino != now.st_ino || opened.st_dev != now.st_dev;
        }
        if (!anew && (stream.opened != nullptr || size == stream.position))
            continue;
        if (anew && !settings.quiet)
            std::fprintf(stderr, "qdlogview: %s was cut or replaced: reading it from its begin\n",
                         tools::escaped(path).c_str());
        reader.shut(stream);
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
    NewerFiles newer;
    for (size_t i = reader.streams.size(); i-- > 0;) {
        Stream &stream = reader.streams[i];
        stream.old = newer.pass(*stream.source) >= FOLLOWED_PER_SERIES;
        if (stream.old && stream.state == Stream::State::Ended)
            reader.shut(stream);
    }
}

void View::follow(Reader &reader) {
    const int64_t end = settings.timeout > 0 ? tools::monotonicMilliseconds() + settings.timeout : INT64_MAX;
    int64_t nextVisit = tools::monotonicMilliseconds() + OLD_FILES_MILLISECONDS;
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
        if (stopRequested != 0 || tools::monotonicMilliseconds() >= end)
            return;
        const int64_t left = std::min<int64_t>(POLL_MILLISECONDS, end - tools::monotonicMilliseconds());
        // A reader of our output that has gone is noticed also while nothing is written.
        pollfd output{out.descriptor, 0, 0};
        if (poll(&output, 1, static_cast<int>(std::max<int64_t>(left, 0))) > 0 &&
            (output.revents & POLLERR) != 0)
            raise(SIGPIPE);

        if (sources.directoriesChanged()) {
            for (size_t i = sources.findNew(); i < sources.files.size(); ++i)
                reader.follow(sources.files[i]);
        }
        if (tools::monotonicMilliseconds() >= nextVisit) {
            visitOldFiles(reader);
            nextVisit = tools::monotonicMilliseconds() + OLD_FILES_MILLISECONDS;
        }
        reader.wake();
    }
}

// ---- cursors ---------------------------------------------------------------------

bool View::writeCursor(Reader &reader, const SpoolMark *mark) {
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
                                     : when == When::Busy || tools::monotonicMilliseconds() < nextPlace))
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
    nextPlace = tools::monotonicMilliseconds() + BETWEEN_PLACES;
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
