// SPDX-License-Identifier: Apache-2.0
// bundle: what somebody else needs to find out what happened, in one file.
//
//   logs/N/NAME      the log files of directory N, those parts that are in the time range
//   about.json       when and of what it was made
//   settings.txt     what qdlogcfg show tells
//   verify.txt       what qdlogview --verify and --gaps tell
//   SHA256SUMS       the sums of all members, for sha256sum -c
#include "common/archive.h"
#include "common/block_text.h"
#include "common/exit_codes.h"
#include "common/files.h"
#include "common/record_file.h"
#include "qdlogmgr/commands.h"
#include "qdlogmgr/descriptor.h"
#include "qdlogmgr/redact.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ; // of the programs that are asked

namespace qdlogmgr {

namespace {

using tools::Record;
using tools::RecordFile;

constexpr size_t LARGEST_ANSWER = 4UL << 20; // of a program that is asked; the rest is cut

struct Bundle {
    Run &run;
    tools::ArchiveWriter archive;
    Redactor redactor;
    bool redacts = false;
    std::map<std::string, size_t> directories; // their numbers
    uint64_t files = 0, records = 0, leftOut = 0;
};

bool inRange(const Options &options, int64_t time) {
    return time >= options.sinceTime && time <= options.untilTime;
}

// Whether the file may have records of the range.
bool mayHave(const Options &options, const File &file) {
    if (!file.hasTimes)
        return file.modified >= options.sinceTime;
    return file.last + tools::ORDER_SLACK >= options.sinceTime &&
           file.first - tools::ORDER_SLACK <= options.untilTime;
}

void appendString(std::string &line, std::string_view text) {
    line += std::to_string(text.size()) + ":";
    line += text;
    line += ",";
}

// The record with its texts replaced, as its writer would have written it.
std::string redactedLine(Bundle &bundle, const Record &record) {
    Redactor &redactor = bundle.redactor;
    size_t numbers = record.version == ZOLTLOG_RECORD_VERSION_LOGSET ? 6 : record.hasPrefix() ? 8 : 0;
    size_t at = 0;
    for (; numbers > 0; --numbers)
        at = record.line.find(',', at) + 1;
    std::string line(record.line.substr(0, at));
    std::string text(record.text);
    const bool hasBlock = !record.block.empty() && record.block != "(0|)";
    if (hasBlock && text.empty())
        tools::renderBlock(record.block, text);
    appendString(line, redactor.text(record.context));
    appendString(line, redactor.text(text));
    const auto whoEnd = static_cast<size_t>(record.who.data() + record.who.size() - record.line.data());
    if (record.who.data() != nullptr) {
        appendString(line, record.type == ZOLTLOG_MSG_AUDIT ? redactor.user(record.who)
                                                            : redactor.text(record.who));
        std::string_view rest = record.line.substr(std::min(whoEnd + 1, record.line.size()));
        if (hasBlock)
            rest.remove_suffix(record.block.size());
        line += rest;
        if (hasBlock)
            line += "(0|)";
    }
    return line;
}

// The file's name in the bundle, without what compressing added.
std::string memberName(Bundle &bundle, const File &file) {
    const size_t number =
        bundle.directories.emplace(*file.directory, bundle.directories.size() + 1).first->second;
    std::string name = file.name;
    name.resize(name.size() - tools::packedSuffix(name).size());
    tools::FileName parsed;
    if (bundle.redacts && file.host != 0 && tools::parseFileName(name, parsed)) {
        const std::string host = "-" + std::to_string(file.host) + "-";
        const size_t at = name.find(host, name.find('-') + 1);
        if (at != std::string::npos)
            name.replace(at, host.size(), "-" + std::to_string(bundle.redactor.hostNumber(file.host)) + "-");
    }
    return "logs/" + std::to_string(number) + "/" + name;
}

// Calls take for every record of the file in the range; headers and damaged lines too.
template<typename F>
bool eachLine(Bundle &bundle, const File &file, const F &take) {
    const Options &options = bundle.run.options;
    RecordFile from;
    if (!from.open(file.path())) {
        bundle.run.problems.push_back(file.path() + ": " + from.problem);
        return false;
    }
    const bool wholeTime = options.sinceTime == INT64_MIN && options.untilTime == INT64_MAX;
    if (from.dataBegin > 0) {
        std::string header(static_cast<size_t>(from.dataBegin), '\0');
        if (from.lines.readAt(0, header.data(), header.size()) == static_cast<int64_t>(header.size()))
            take(RecordFile::Got::Header, std::string_view(header).substr(0, header.size() - 1), from);
    }
    bool isBefore = false; // the record in front was in the range: so is what is damaged behind it
    for (;;) {
        const RecordFile::Got got = from.next();
        switch (got) {
        case RecordFile::Got::Record:
            isBefore = wholeTime || (from.record.hasPrefix() && inRange(options, from.record.time));
            if (isBefore && !take(got, from.record.line, from))
                return false;
            continue;
        case RecordFile::Got::Damaged:
        case RecordFile::Got::Header:
            if ((isBefore || wholeTime) && !take(got, from.line, from))
                return false;
            continue;
        case RecordFile::Got::End:
            return true;
        case RecordFile::Got::Error:
            bundle.run.problems.push_back(file.path() + ": " + from.problem);
            return true; // as far as it goes
        }
    }
}

// Writes the lines of the range into an unnamed file, whose size is then known.
bool addFile(Bundle &bundle, const File &file) {
    const Descriptor temporary(tools::openTemporary());
    if (temporary.number < 0) {
        bundle.archive.problem = std::string("no temporary file: ") + std::strerror(errno);
        return false;
    }
    tools::Output out(temporary.number, 256UL * 1024);
    uint64_t records = 0;
    eachLine(bundle, file, [&](RecordFile::Got got, std::string_view line, const RecordFile &from) {
        if (got == RecordFile::Got::Record) {
            ++records;
            if (bundle.redacts)
                out.buffer += redactedLine(bundle, from.record);
            else
                out.buffer += line;
        } else if (bundle.redacts && got == RecordFile::Got::Damaged) {
            ++bundle.leftOut; // nobody knows what is in it
            return true;
        } else {
            out.buffer += line;
        }
        out.write("\n");
        return out.error == 0;
    });
    if (!out.flush()) {
        bundle.archive.problem = std::string("the temporary file: ") + std::strerror(out.error);
        return false;
    }
    if (records == 0 && bundle.run.options.sinceTime != INT64_MIN)
        return true;
    ++bundle.files;
    bundle.records += records;
    return bundle.archive.add(memberName(bundle, file), temporary.number, out.written, file.modified);
}

// The names of those whom audit records are about stand for persons everywhere.
void findUsers(Bundle &bundle, const Choices &choices) {
    for (const Choice &choice : choices)
        eachLine(bundle, *choice.file, [&](RecordFile::Got got, std::string_view, const RecordFile &from) {
            if (got == RecordFile::Got::Record && from.record.type == ZOLTLOG_MSG_AUDIT &&
                !bundle.redactor.addUser(from.record.who)) {
                bundle.run.problems.emplace_back("too many subjects of audit records: some stay in texts");
                return false;
            }
            return true;
        });
}

// The directory that this program is in, with its slash.
std::string ownDirectory() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string own(path, length > 0 ? static_cast<size_t>(length) : 0);
    return own.substr(0, own.rfind('/') + 1);
}

// What another of the tools tells, on both of its outputs.
std::string answerOf(const std::vector<std::string> &words) {
    const Descriptor answer(tools::openTemporary());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, answer.number, 1);
    posix_spawn_file_actions_adddup2(&actions, answer.number, 2);
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const std::string program = ownDirectory() + words[0];
    pid_t child = -1;
    const int failure = answer.number < 0 ? errno
                                          : posix_spawn(&child, program.c_str(), &actions, nullptr,
                                                        arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    std::string text = "$";
    for (const std::string &word : words)
        text += " " + word;
    text += "\n";
    if (failure != 0)
        return text + program + ": " + std::strerror(failure) + "\n";
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    std::string told(LARGEST_ANSWER, '\0');
    const ssize_t got = pread(answer.number, told.data(), told.size(), 0);
    told.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text + told + (told.size() == LARGEST_ANSWER ? "\n... (cut)\n" : "") + "status " +
           std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "\n";
}

std::string hidden(Bundle &bundle, const std::string &text) {
    return bundle.redacts ? bundle.redactor.text(text) : text;
}

bool addReports(Bundle &bundle) {
    const Options &options = bundle.run.options;
    std::vector<std::string> which = {"--no-pager"};
    if (!options.product.empty())
        which.insert(which.end(), {"-P", options.product});
    if (!options.logset.empty())
        which.insert(which.end(), {"-L", options.logset});
    which.insert(which.end(), options.directories.begin(), options.directories.end());
    std::vector<std::string> range;
    if (!options.since.empty())
        range.insert(range.end(), {"-S", options.since});
    if (!options.until.empty())
        range.insert(range.end(), {"-U", options.until});
    std::string told;
    for (const char *report : {"--verify", "--gaps"}) {
        std::vector<std::string> words = {"qdlogview", report};
        words.insert(words.end(), which.begin(), which.end());
        if (std::string_view(report) == "--gaps")
            words.insert(words.end(), range.begin(), range.end());
        told += answerOf(words) + "\n";
    }
    std::vector<std::string> show = {"qdlogcfg", "show", "--no-pager"};
    if (!options.product.empty())
        show.insert(show.end(), {"-P", options.product});
    return bundle.archive.addText("verify.txt", hidden(bundle, told), options.now) &&
           bundle.archive.addText("settings.txt", hidden(bundle, answerOf(show)), options.now);
}

bool addAbout(Bundle &bundle) {
    const Options &options = bundle.run.options;
    utsname system{};
    uname(&system);
    tools::Json json;
    json.beginObject();
    json.time("made", options.now);
    json.text("version", QDUL_VERSION);
    json.text("system", std::string(system.sysname) + " " + system.release + " " + system.machine);
    json.text("host", hidden(bundle, system.nodename));
    if (options.sinceTime != INT64_MIN)
        json.time("since", options.sinceTime);
    if (options.untilTime != INT64_MAX)
        json.time("until", options.untilTime);
    json.number("files", bundle.files);
    json.number("records", bundle.records);
    json.flag("redacted", bundle.redacts);
    if (bundle.redacts) {
        json.number("replaced", bundle.redactor.replaced);
        json.number("damaged_lines_left_out", bundle.leftOut);
    }
    json.key("directories");
    json.beginObject();
    for (const auto &[directory, number] : bundle.directories)
        json.text(std::to_string(number), hidden(bundle, directory));
    json.endObject();
    json.endObject();
    return bundle.archive.addText("about.json", std::string(json.written()) + "\n", options.now);
}

} // namespace

int bundleFiles(Run &run) {
    const Options &options = run.options;
    Bundle bundle{run, {}, {}, options.redact, {}, 0, 0, 0};
    std::string error;
    if (bundle.redacts && !bundle.redactor.prepare(options.redactPatterns, error)) {
        run.problems.push_back(error);
        return finish(run, 0);
    }
    Choices choices = chosenFiles(run, false);
    choices.erase(std::remove_if(choices.begin(), choices.end(),
                                 [&](const Choice &choice) { return !mayHave(options, *choice.file); }),
                  choices.end());
    if (choices.empty())
        return finish(run, 0);
    if (bundle.redacts)
        findUsers(bundle, choices);
    bool written = bundle.archive.open(options.to);
    for (size_t i = 0; written && i < choices.size(); ++i)
        written = addFile(bundle, *choices[i].file);
    written = written && addReports(bundle) && addAbout(bundle) && bundle.archive.close(options.now);
    if (!written) {
        run.problems.push_back(bundle.archive.problem);
        return finish(run, 0);
    }
    if (!options.quiet)
        run.out.write(options.to + ": " + tools::counted(bundle.records, "record") + " of " +
                      tools::counted(bundle.files, "file") + "\n");
    return finish(run, bundle.files);
}

} // namespace qdlogmgr
