// SPDX-License-Identifier: Apache-2.0
// Steps of a sequence: made from a seed, shown on a line each, and done to the model.
#pragma once

#include "model/model.h"

#include <string>
#include <vector>

namespace model {

enum class Op {
    Open,
    OpenLogset,
    Close,
    Message,
    CreateContext,
    DestroyContext,
    SetLevel,
    GetLevel,
    SetSequence,
    GetSequence,
    SetUtf8,
    TimePasses,
    ClockIsSet,
    Configure,
    Host,   // gets another name or address
    Device, // ends after so many bytes, or has room again
    Files
};

enum class Call {
    App,
    AppEx,
    App2,
    App2Ex,
    App2V,
    App2Vex,
    App2L,
    App2Lex,
    Diag,
    Diag2,
    Diag2V,
    Diag2L,
    Audit,
    Audit2,
    Audit2V,
    Audit2L,
    Secure,
    SecureV,
    SecureL,
    Debug,
    Debug2,
    Debug2V,
    Formatted,
    RawMessage, // a record of the caller's own through the dispatcher
    RawWrite,   // the same straight into the file
    End
};

// Formats take the first of: a text, a number, an unsigned number.
enum class Format { Text, TextNumber, All, Brackets, OnlyWords, TextPercent, End };
const char *formatText(Format format);

struct MessageCall {
    Call call = Call::App;
    uint64_t id = 0;
    uint32_t flags = 0;
    uint32_t grade = 1; // severity or level
    std::string who;
    uint32_t outcome = 0;
    int64_t number = 0;
    Format format = Format::Text;
    std::string text;
    int32_t first = 0;
    uint32_t second = 0;
    bool noText = false;    // L: a null text
    bool withBlock = false; // L and RAW_WRITE: a block of the format and its arguments
    unsigned type = 2;      // RAW
    int64_t shiftMs = 0;    // RAW: of its time stamp
    int fit = NO_FIT;       // the record brings the file to its limit and so many bytes
    int count = 1;          // so many, a millisecond from one to the next when spread
    bool spread = false;
    static constexpr int NO_FIT = 99;
};

enum class FileOp {
    Remove,
    Truncate,
    Append,
    Replace, // by another file of the same name
    Rename,
    PlantNext,   // a file, directory or link at the name that the series takes next
    PlantFuture, // a file of the series that is ahead
    PlantOther,  // a file of another series, or of none
    RemoveDirectory,
    BlockDirectory, // by a file of its name
    End
};

struct Step {
    Op op = Op::TimePasses;
    size_t slot = 0;
    size_t other = 0; // a parent
    uint64_t product = 5;
    uint64_t originator = 7;
    uint64_t fileOriginator = 7;
    std::string set;
    int which = 0; // level; kind of what is planted
    uint64_t value = 0;
    int64_t ms = 0;
    bool noToken = false;
    std::string token;
    MessageCall message;
    Configuration configuration;
    FileOp fileOp = FileOp::Remove;
    uint64_t pick = 0; // of the files there are
    std::string bytes;
    std::string hostName;
    std::string hostAddress;
};

std::string show(const Step &step);

struct Sequence {
    uint64_t seed = 0;
    std::string zone;
    std::string hostName;
    std::string hostAddress;
    Encoding encoding = Encoding::Utf8;
    int64_t startMs = 0;
    Configuration configuration;
    std::vector<Step> steps;
};

// Of an IPv4 address
uint64_t hostIdOf(const std::string &address);

constexpr size_t SLOTS = 8;

// Of longer times the machine sleeps through the rest, which the steady clock does not count:
// it has room for three centuries of nanoseconds, and no sequence sets it back.
constexpr int64_t AWAKE_MS = 7200000;

// length: how many steps.
Sequence makeSequence(uint64_t seed, size_t length);
std::string show(const Configuration &configuration);

// What others do to the files, made definite: the same is done to the model and to the
// directory.
struct FileAction {
    enum Kind {
        NOTHING,
        REMOVE,
        TRUNCATE,
        APPEND,
        WRITE,
        RENAME,
        MAKE_DIRECTORY,
        MAKE_LINK,
        REMOVE_TREE,
        BLOCK // a file in the place of a directory
    } kind = NOTHING;
    std::string path;
    std::string to;
    std::string bytes;
    uint64_t size = 0;
};
FileAction resolve(const Model &model, const Step &step);
void apply(Model *model, const FileAction &action);

// The text that makes a record fit its file, where the step wants one.
Step fitted(const Model &model, const Step &step);

// Whether the step can be done: its handles are open or closed as they should be.
bool isPossible(const Model &model, const Step &step);

struct Outcome {
    uint32_t result = 0;
    uint64_t value = 0;
    bool operator==(const Outcome &other) const { return result == other.result && value == other.value; }
};
// Everything but FILES.
Outcome apply(Model *model, const Step &step);

} // namespace model
