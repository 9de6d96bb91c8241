// SPDX-License-Identifier: Apache-2.0
// The rules of writing, stated a second time: what the files of a directory hold, byte for
// byte, after each call, and what the call yields. Written from the documentation of the
// format and of the operations, without any of the library's code; it keeps a directory of
// its own in memory. Time, host and what others do to the files are its caller's to tell.
//
//   World        directories and files, clock, host, configuration
//   Series       a file state: the open file of a series, shared by handles
//   Handle       what a caller holds
//   Model        the operations
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace model {

// ---- the world -------------------------------------------------------------------------

enum class NodeKind { File, Directory, DanglingLink };

struct Node {
    NodeKind kind = NodeKind::File;
    std::string bytes;
    unsigned mode = 0660;
    int64_t modifiedMs = 0;
    bool named = true; // false once it was removed
};
using NodePtr = std::shared_ptr<Node>;

struct Clock {
    int64_t wallMs = 0;
    int64_t steadyMs = 0; // never set
};

// One section of a product's configuration, as it is written.
using Keys = std::vector<std::pair<std::string, std::string>>;

struct Configuration {
    bool registered = true;               // the product is in the main file
    std::map<std::string, Keys> sections; // "Default", "7", "LOGSET.backup"
    int64_t changed = 0;                  // seconds; the modification time of the file
};

// What sections come to.
struct Settings {
    std::string directory;   // with "/" at its end; empty: none
    bool isRelative = false; // its first part is not made
    uint32_t debugLevel = 0;
    uint32_t diagLevel = 0;
    uint32_t reloadInterval = 0;
    uint32_t rolloverMode = 0;
    bool recycle = false;
    uint64_t maxKB = 10240;
    uint64_t timeOfDay = 0;
    uint64_t period = 43200;
    uint64_t keep = 4294967295;
    unsigned permissions = 0660;
    std::string setName;
    std::string fileName;
    bool isLogset = false;
};

enum class Encoding { Utf8, Latin1 };

struct World {
    std::map<std::string, NodePtr> files; // by "directory/name"
    std::set<std::string> directories;    // with "/" at their ends
    Clock clock;
    std::string hostName;
    uint64_t hostId = 0;
    bool deviceEnds = false; // then so many bytes can still be written
    uint64_t room = 0;
    bool deviceIsFull = true;   // the reason that is told then: full, or another
    bool deviceWasFull = false; // once in this process
    Encoding encoding = Encoding::Utf8;
    uint64_t process = 0;
    uint64_t thread = 0;
    std::string home; // what absolute directories of the configuration begin with
    Configuration configuration;
};

// ---- series and handles ----------------------------------------------------------------

struct Date {
    int year = 0; // less 2000
    int month = 0;
    int day = 0;
};

struct Handle;

struct Series {
    Settings settings;
    uint64_t product = 0;
    uint64_t originator = 0;
    bool opened = false; // a file was opened once
    NodePtr file;        // null: closed
    uint64_t version = 0;
    Date date;
    uint64_t counter = 0;
    int64_t nextRollover = 0; // seconds
    int64_t start = 0;        // seconds
    int64_t lastReopenMs = 0;
    std::vector<Handle *> handles; // the newest first
    int unlisted = 0;              // contexts that could not be written
    std::string setName;
    std::string fileName;
    int64_t nameTime = 0;       // log set: of the open file's name
    int64_t nameSecond = -1;    // log set: the second in which the name was taken
    bool sameName = false;      // the next opening takes the same name again
    int64_t lookedAtMs = -1;    // steady; -1: not since it was opened
    uint64_t known = 0;         // bytes that this writer knows of
    bool torn = false;          // ends inside a line
    bool contextsNoted = false; // where the contexts were written last
    Date contextsDate;
    uint64_t contextsCounter = 0;
    int64_t contextsStart = 0;
};
using SeriesPtr = std::shared_ptr<Series>;

// An item of a localization block.
struct Item {
    char kind = 0; // 'S' text in the locale's encoding, 'X' UTF-8 text, 'i' signed, 'u' unsigned
    std::string text;
};

struct Block {
    int64_t number = 0;
    std::vector<Item> items;
};

struct Message {
    unsigned type = 0;
    uint64_t originator = 0;
    uint64_t id = 0;
    int64_t timestampMs = 0;
    std::optional<std::string> token;
    std::optional<std::string> text;
    bool utf8 = false;
    uint32_t grade = 0; // severity or level
    std::string who;    // or subject, or the title of a context
    uint32_t outcome = 0;
    Block block;
};

struct Handle {
    SeriesPtr series; // null: closed
    uint64_t originator = 0;
    uint32_t debugLevel = 0;
    uint32_t diagLevel = 0;
    uint32_t secureLevel = 0;
    bool isContext = false; // its record was written
    bool tokenless = false; // says that it is a context, but has no context's message
    bool unlisted = false;  // a context whose record was not
    Message context;
    uint64_t sequence = 0;
    int64_t configurationTime = 0;
    int64_t lastReloadCheck = 0;
    uint32_t reloadInterval = 0;
    bool utf8 = false;
};

// ---- mistakes made on purpose ----------------------------------------------------------

// One rule of the model broken, for the test that the comparison finds it.
enum class Mutation {
    None,
    CounterSkipsOne,
    SeparatorIsSemicolon,
    LengthCountsCharacters,
    LineFeedsStay,
    RollsOneByteLate,
    HeaderZoneSign,
    KeepsOneMore,
    NoContextsInNewFiles,
    ContextsOldestFirst,
    SequenceFromZero,
    LevelItselfIsFiltered,
    ReopensAfterElevenMinutes,
    TimedRolloverASecondLate,
    LogsetHasProduct,
    RemovedFileGoesUnseen,
    TornLineStays,
    CounterRestartsWithTheYear,
    RefusedRecordKeepsItsNumber,
    HostIsAskedAtEachRollover,
    FullDeviceIsForgotten,
    End
};

// ---- the model -------------------------------------------------------------------------

// How often the rarer rules had their turn.
struct Seen {
    uint64_t rollovers = 0;
    uint64_t timedRollovers = 0;
    uint64_t reopenings = 0;
    uint64_t recycled = 0;
    uint64_t heldBack = 0; // surplus files that their writers kept
    uint64_t contextsAgain = 0;
    uint64_t gone = 0; // files that were found without a name
    uint64_t tornLines = 0;
    uint64_t caughtUp = 0; // with a series that was ahead
    uint64_t failures = 0;
};

struct Model {
    World world;
    Mutation mutation = Mutation::None;
    std::vector<Handle> handles; // by slot; never resized while open
    SeriesPtr remembered;
    bool clocksCompared = false;
    int64_t wallAheadMs = 0;
    int64_t clockChangedMs = 0;
    uint64_t recordsWritten = 0;
    Seen seen;
    uint64_t hostId = 0; // as far as known; 0 when not
    std::string hostName;
    int64_t hostKnownAtMs = 0;
    bool hostOutOfDate = false;

    // Operations; each yields the result code.
    uint32_t open(size_t slot, uint64_t product, uint64_t originator, uint64_t fileOriginator);
    uint32_t openLogset(size_t slot, uint64_t product, uint64_t originator, const std::string &set);
    uint32_t close(size_t slot);
    uint32_t createContext(size_t parent, size_t slot, const std::optional<std::string> &token,
                           const std::optional<std::string> &text, const Block &block);
    uint32_t destroyContext(size_t slot);

    // The parts of a message call.
    void reload(Handle *handle);
    void refreshHost();
    std::optional<Message> begin(Handle *handle, unsigned type); // none: 3
    uint32_t dispatch(Handle *handle, Message *message);
    uint32_t write(Series *series, const Message &message, bool mayRollOver);

    // How long the record of a message would be in the handle's file.
    uint64_t recordLength(const Handle *handle, const Message &message) const;

    // Names of the series' files, for those who plant some.
    std::string pathOfCounter(const Series &series, const Date &date, uint64_t counter) const;
    std::string pathOfSecond(const Series &series, int64_t second) const;
    std::optional<Settings> originatorSettings(uint64_t product, uint64_t originator) const;
    std::optional<Settings> logsetSettings(uint64_t product, const std::string &set) const;

    int64_t seconds() const { return world.clock.wallMs / 1000; }

  private:
    uint32_t openFile(Handle *handle, const Settings &own, const Settings &file, uint64_t product,
                      uint64_t originator, uint64_t fileOriginator);
    uint32_t openLatest(Series *series);
    uint32_t openNext(Series *series, bool *created);
    uint32_t resume(Series *series, const std::string &path, int64_t logsetStart);
    bool create(Series *series, const std::string &path);
    void closeFile(Series *series);
    void setNextRollover(Series *series);
    bool look(Series *series);
    bool isLookDue(const Series *series) const;
    bool isRolloverDue(Series *series, uint64_t length);
    void rollOver(Series *series);
    void reopenIfOld(Series *series, int64_t timestampMs);
    bool waitForNextSecond(const Series *series, int64_t *deadlineMs);
    void recycle(Series *series);
    bool mayRemove(const Series *series, const NodePtr &node);
    int64_t compareClocks();
    void bringContexts(Series *series, bool created);
    std::optional<std::string> encode(const Series *series, const Message &message) const;
    uint32_t append(Series *series, const std::string &record);
    uint32_t leave(Handle *handle);
    std::optional<std::string> findLatest(const Series *series, bool upToToday) const;
    bool makeDirectories(const Settings &settings);
    void lookUpHost();
    bool prepare(const Series *series);
    uint64_t take(uint64_t bytes);
    std::string field(const std::string &text, bool utf8) const;
    std::string blockText(const Block &block) const;
};

} // namespace model
