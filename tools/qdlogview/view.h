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

#include <map>
#include <string>
#include <vector>

namespace qdlogview {

struct View {
    View(const Settings &chosen, Sources &found, Filter &conditions, Printer &writer, tools::Output &output,
         const Cursor &from, const ReadRange &times)
        : settings(chosen), sources(found), filter(conditions), printer(writer), out(output), start(from),
          range(times) {}

    // Whether any record was shown; problems and damage are added to the lists.
    bool show();

    std::vector<std::string> problems;
    std::vector<Reader::DamagedFile> damaged;

  private:
    const Settings &settings;
    Sources &sources;
    Filter &filter;
    Printer &printer;
    tools::Output &out;
    const Cursor &start;
    const ReadRange &range;

    void addStreams(Reader &reader);
    void keep(Reader &reader);
    bool emit(const tools::Item &item);
    // Places in files, by path: what was there when the reading began.
    using Ends = std::map<std::string, uint64_t>;
    Ends currentEnds() const;
    void showLast(uint64_t count, bool newestFirst, const Ends &ends);
    void showForward(Reader &reader);
    void showAround(Reader &reader);
    void follow(Reader &reader);
    void finishCursor(Reader &reader);
    bool writeCursor(const Reader &reader);
    void visitOldFiles(Reader &reader);
    void closeOldFiles(Reader &reader);

    uint64_t shown = 0;
    std::string savedCursor;
    size_t streamsSeen = 0;
};

// Set by signals: following ends, the place reached is kept.
void installStopSignals();

} // namespace qdlogview
