// SPDX-License-Identifier: Apache-2.0
#include "common/verify.h"

#include "common/time_text.h"

#include <algorithm>

namespace tools {

namespace {

std::string number(uint64_t value) {
    return std::to_string(value);
}

// One file being checked.
struct Check {
    RecordFile &file;
    const std::function<void(const Finding &)> &report;
    VerifyCounts &counts;
    const bool knownSize; // before the file is read
    int64_t latest = INT64_MIN;

    void tell(bool isProblem, uint64_t offset, uint64_t at, const std::string &text) {
        ++(isProblem ? counts.problems : counts.notes);
        report({isProblem, offset, at, text});
    }
    void tellHere(bool isProblem, const std::string &text) {
        tell(isProblem, file.offset, file.offset, text);
    }
    void header();
    void record();
    void end();
};

void Check::header() {
    const FileName &name = file.name;
    const Header &header = file.header;
    if (header.version == 0)
        return;
    const bool originatorName = name.kind == FileName::Kind::Originator;
    const bool logSetName = name.kind == FileName::Kind::LogSet;
    if ((originatorName && header.version == ZOLTLOG_RECORD_VERSION_LOGSET) ||
        (logSetName && header.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR))
        tell(true, 0, 0,
             "the header has version " + number(header.version) + ", which does not fit the file name");
    if (!originatorName || header.version == ZOLTLOG_RECORD_VERSION_LOGSET)
        return;
    if (header.product != name.product)
        tell(true, 0, 0,
             "the header has product " + number(header.product) + ", the name " + number(name.product));
    if (header.originator != name.originator)
        tell(true, 0, 0,
             "the header has originator " + number(header.originator) + ", the name " +
                 number(name.originator));
}

void Check::record() {
    const Record &record = file.record;
    const Header &header = file.header;
    ++counts.records;
    if (file.salvaged) {
        ++counts.salvaged;
        tellHere(false, "a whole record follows in the same line");
    }
    if (record.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR &&
        header.version == ZOLTLOG_RECORD_VERSION_ORIGINATOR) {
        if (record.product != header.product)
            tellHere(true, "the record has product " + number(record.product));
        if (record.fileOriginator != header.originator)
            tellHere(true, "the record has file originator " + number(record.fileOriginator));
    }
    if (!record.hasPrefix())
        return;
    if (wentBack(latest, record.time))
        tellHere(false, "time goes back by " + formatSpan(timeBetween(record.time, latest)));
    latest = record.time; // tell a jump once, not for all that follows
    counts.first = counts.hasTimes ? std::min(counts.first, record.time) : record.time;
    counts.last = counts.hasTimes ? std::max(counts.last, record.time) : record.time;
    counts.hasTimes = true;
}

void Check::end() {
    const uint64_t at = file.lines.position();
    if (!knownSize) {
        counts.bytes = at + file.lines.unended();
        if (counts.bytes == 0)
            tell(false, 0, 0, "the file is empty");
    }
    if (file.lines.unended() > 0)
        tell(true, at, at + file.lines.unended(), damageText(Damage::NoLineFeed));
}

} // namespace

bool verifyFile(const std::string &path, const std::function<void(const Finding &)> &report,
                VerifyCounts &counts, std::string &problem) {
    RecordFile file;
    counts = {};
    if (!file.open(path)) {
        problem = file.problem;
        return false;
    }
    Check check{file, report, counts, file.lines.seekable && !file.lines.isPacked()};
    if (check.knownSize)
        file.lines.size(counts.bytes);
    if (counts.bytes == 0 && check.knownSize) {
        check.tell(false, 0, 0, "the file is empty");
        return true;
    }
    if (file.header.version == 0 && file.lines.seekable)
        check.tell(false, 0, 0, "the file has no header line");
    check.header();
    for (;;) {
        const RecordFile::Got got = file.next();
        if (got == RecordFile::Got::End)
            break;
        if (got == RecordFile::Got::Error && file.lines.isPacked()) {
            const uint64_t end = file.lines.position() + file.lines.unended();
            check.tell(true, file.lines.position(), end, file.problem);
            counts.bytes = end;
            return true;
        }
        if (got == RecordFile::Got::Error) {
            problem = file.problem;
            return false;
        }
        const bool atBegin = file.offset == 0 && !file.lines.seekable; // a pipe's header is not read ahead
        if (got == RecordFile::Got::Header) {
            if (!atBegin)
                check.tellHere(false, "a further header line");
            continue;
        }
        if (atBegin)
            check.tell(false, 0, 0, "the file has no header line");
        if (got == RecordFile::Got::Record) {
            check.record();
            continue;
        }
        ++counts.damaged;
        check.tell(true, file.offset, file.offset + file.fault.at,
                   std::string(damageText(file.fault.damage)) + " (line of " + number(file.line.size()) +
                       " bytes)");
    }
    check.end();
    return true;
}

} // namespace tools
