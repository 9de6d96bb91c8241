// SPDX-License-Identifier: Apache-2.0
// Showing records: order and amount, the neighbours of matches, following, cursors.
#pragma once

#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdlogview/cursor.h"
#include "qdlogview/filter.h"
#include "qdlogview/printer.h"
#include "qdlogview/reader.h"
#include "qdlogview/settings.h"
#include "qdlogview/sources.h"
#include "qdlogview/spool.h"

#include <string>
#include <vector>

namespace qdlogview {

struct View {
    View(const Settings &chosen, Sources &found, Filter &conditions, Printer &writer, tools::Output &output,
         const Cursor &from, const ReadRange &times, Spool *files)
        : settings(chosen), sources(found), filter(conditions), printer(writer), out(output), start(from),
          range(times), spool(files) {}

    // Whether any record was shown; problems and damage are added to the lists, or told at once
    // while spooling.
    bool show();

    std::vector<std::string> problems;
    DamagedFiles damaged;
    tools::ExitCode told = tools::EXIT_OK; // what those that were told at once mean

  private:
    const Settings &settings;
    Sources &sources;
    Filter &filter;
    Printer &printer;
    tools::Output &out;
    const Cursor &start;
    const ReadRange &range;
    Spool *const spool; // null: records go to standard output

    void addStreams(Reader &reader);
    void keep(Reader &reader);
    bool emit(const tools::Item &item);
    void findEnds(const Reader &lookedAt);
    void showLast(uint64_t count, bool newestFirst);
    void skipShown(Reader &reader);
    void showForward(Reader &reader);
    void showAround(Reader &reader);
    void follow(Reader &reader);
    void finishCursor(Reader &reader);
    bool writeCursor(Reader &reader, const SpoolMark *mark = nullptr);
    void visitOldFiles(Reader &reader);
    void closeOldFiles(Reader &reader);

    enum class When { Busy, Idle, End };
    bool commit(Reader &reader, When when);
    void tellMissing() const;
    void tellAtOnce();

    uint64_t shown = 0;
    bool failed = false;   // a place could not be kept
    int64_t nextPlace = 0; // when to keep it again; milliseconds
    CursorFile cursorFile;
    size_t streamsSeen = 0;
};

// Set by signals: following ends, the place reached is kept.
void installStopSignals();

} // namespace qdlogview
