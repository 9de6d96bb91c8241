// SPDX-License-Identifier: Apache-2.0
// The property store's file syntax and the ways of reading a file in one pass,
// for the store's own files and for the configuration units.
//
//     file    = { line }
//     line    = up to STORE_LINE_MAX bytes, the last one a line feed except where a
//               longer line is cut or the file ends
//     line    = key "=" value [ "=" ignored ] | comment | other
//     key     = section "." name | name
//     section = text without "." and "=" | "LOGSET." text without "." and "="
//     comment = { " " } "#" ...
//
// A line's text ends at a NUL byte; copying a line keeps what follows it.
#pragma once

#include "grown.h"
#include "hash_table.h"
#include "zoltlog.h"

#include <cstring>

// Results among the units; the exported operations tell them as a failure to write.
inline constexpr uint32_t STORE_NO_MEMORY = 100;
inline constexpr uint32_t STORE_UNREADABLE = 101;  // the file is there and cannot be read
inline constexpr uint32_t STORE_BUSY = 102;        // another writer did not finish in time
inline constexpr uint32_t STORE_CHANGED = 103;     // the file is not the one that was read, each time
inline constexpr uint32_t STORE_EXISTS = 104;      // a key that must be absent is there
inline constexpr uint32_t STORE_UNCHANGED = 105;   // a rewrite has nothing to change
inline constexpr uint32_t STORE_REMOVE_FILE = 106; // a rewrite leaves no section: the file goes

inline constexpr size_t STORE_LINE_MAX = 499;            // bytes handled as one line
inline constexpr size_t STORE_FILE_MAX = 16777216;       // bytes of a file that is read or written
inline constexpr size_t STORE_VALUE_SIZE = 400;          // a value read back, with its terminator
inline constexpr char STORE_LOGSET_TOKEN[] = "LOGSET";   // first token of a log set's lines
inline constexpr char STORE_LOGSET_PREFIX[] = "LOGSET."; // the same with what ends it
inline constexpr size_t STORE_LOGSET_TOKEN_LENGTH = sizeof STORE_LOGSET_TOKEN - 1;

inline constexpr char STORE_HEADER[] = // of a new file
    "###############################################\n"
    "# Caution! Do not update/modify file by hand. \n"
    "# Use qdlogcfg tool to update/modify this file\n"
    "###############################################\n";

struct StoreText { // bytes of a file, not terminated
    const char *text;
    size_t size;
};

// ---- lines ---------------------------------------------------------------------

// The next line at the start of what is left of a file.
inline StoreText storeLine(const char *text, size_t left) {
    const size_t longest = left < STORE_LINE_MAX ? left : STORE_LINE_MAX;
    const void *feed = memchr(text, '\n', longest);
    return {text,
            feed != nullptr ? static_cast<size_t>(static_cast<const char *>(feed) - text) + 1 : longest};
}

// Whether the part of a line before its first '=' is root "." name, or name alone
// when root is null.
bool storeLineHasKey(StoreText line, const char *root, const char *name);

// The value of a line that has a key: what follows its first '=', up to the next one.
// False when nothing follows. A value that does not fit is cut between characters.
bool storeLineValue(StoreText line, char value[STORE_VALUE_SIZE]);
bool storeTextValue(StoreText rest, char value[STORE_VALUE_SIZE]); // of what follows the '='

// Whether a line belongs to a section; delimiters are those that end a token.
bool storeLineInSection(StoreText line, const char *section, const char *delimiters);

// Whether a line's first token, which ends at '.' or '=', is the name.
bool storeLineHasFirstToken(StoreText line, const char *name);

// The section name that a line gives to an enumeration; an empty text pointer when none.
StoreText storeSectionName(StoreText line);
StoreText storeLogsetName(StoreText line);

// ---- files ---------------------------------------------------------------------

// A descriptor on a regular file for reading, as openDescriptor gives it; -1 with errno
// otherwise: EFBIG for a file larger than STORE_FILE_MAX, which would keep its reader busy
// for as long as its maker likes.
int storeOpenForReading(const char *path);

struct StoreReader { // reads a descriptor line by line; memory of its own
    int descriptor;
    char *buffer;
    size_t begin, end;
    bool atEnd, failed;
};
bool storeReaderInit(StoreReader *reader, int descriptor);  // false: out of memory
bool storeReaderNext(StoreReader *reader, StoreText *line); // line stays until the next call
void storeReaderFree(StoreReader *reader);                  // the descriptor stays open

// The raw value of a name in the handle's section; ZOLTLOG_STORE_NOT_FOUND when there is none.
uint32_t storeLookup(PropertyStore *store, const char *name, char value[STORE_VALUE_SIZE]);

// The value's text as utiGetPropertyAsStr gives it: in the locale's encoding, without
// trailing spaces, a new block. ZOLTLOG_NO_MEMORY, or another failure when it cannot be
// converted; the text is null then.
uint32_t storeValueText(const char *value, char **text);
// The same text where it needs no conversion and fits; false otherwise.
bool storePlainText(const char *value, char (&text)[STORE_VALUE_SIZE]);
unsigned long storeValueNumber(const char *value);
uint32_t storeValueBool(const char *value);

// Whether this process has opened a file of this path for reading; forgets about one that
// it removed. It may not know of one.
bool storeWasRead(const char *path);
void storeForget(const char *path);

// Reads a descriptor to its end into a block of its own: ZOLTLOG_STORE_OK, STORE_UNREADABLE,
// with EFBIG also when it has grown beyond STORE_FILE_MAX, or STORE_NO_MEMORY.
uint32_t storeReadWhole(int descriptor, char **bytes, size_t *size);

// ---- rewrites ----------------------------------------------------------------------

struct StoreSource { // the file as it is; without one size is 0
    char *bytes;
    size_t size;
    bool exists;
};
struct StoreOutput;
// More than STORE_FILE_MAX in all fails, with EFBIG: nobody could read it.
void storePut(StoreOutput *out, const char *text, size_t size);

enum StoreMissing : uint8_t { // what becomes of a file that is not there, after a moment
    STORE_REFUSE_MISSING,
    STORE_MAKE_UNKNOWN, // it is made unless this process has read it before
    STORE_MAKE_MISSING
};

struct StoreRewriting {
    // Puts the new content out: ZOLTLOG_STORE_OK; STORE_UNCHANGED, STORE_REMOVE_FILE or a failure.
    // Called again when somebody else has changed the file meanwhile.
    uint32_t (*make)(const StoreSource *source, StoreOutput *out, void *context);
    void *context;
    StoreMissing missing;
    const char *tag; // of the global lock, held while the new file takes the name; null: not held
};
// Waits for other writers and makes one rewrite. Nothing is changed when it fails:
// ZOLTLOG_STORE_NOT_CREATED when no new file can be made, ZOLTLOG_STORE_NOT_WRITTEN, STORE_NO_MEMORY,
// STORE_BUSY, STORE_CHANGED, or what make tells. errno holds the cause then.
uint32_t storeRewrite(const char *path, const StoreRewriting *how);

// Makes or empties a file in place, through a link if the path is one.
uint32_t storeMakeAnew(const char *path, const char *content);

enum StoreAction : uint8_t {
    STORE_SET,            // as utiSetPropertyAsStrFile, the value in UTF-8
    STORE_REMOVE,         // as utiRemovePropertyFile
    STORE_REMOVE_SECTION, // as utiRemovePropertyRootFile; name is the section
    STORE_REQUIRE_ABSENT, // fails with STORE_EXISTS when the key has a value
    STORE_DROP_FILE       // removes the file when no section is left
};
struct StoreChange {
    StoreAction action;
    const char *name;
    const char *value;
};
// Makes changes to one section in order, in one rewrite, or none of them. *dropped, if not
// null, tells whether a removal found something. root may be empty.
struct StoreChanges {
    const char *root;
    const StoreChange *changes;
    size_t count;
    bool always; // rewrite also when nothing changes
    bool dropped;
};
uint32_t storeChange(const char *path, StoreChanges *changes, StoreMissing missing, const char *tag);

// Makes the file with its header, and its directory, when there is none.
uint32_t storeMakeMissing(const char *path);

// ---- many keys at once -----------------------------------------------------------

// The names looked for and what a pass found: the first line of each, cut to its value.
struct StoreSection {
    const char *root;
    const StoreText *names;
    size_t count;
    char (*values)[STORE_VALUE_SIZE];
    bool *found;
    size_t next = 0; // where the name of the next line is looked for first
};

// Reads several sections of one file in one pass over it. ZOLTLOG_STORE_NO_FILE when it cannot
// be opened because there is none, STORE_UNREADABLE, STORE_NO_MEMORY.
uint32_t storeReadSections(const char *path, StoreSection *sections, size_t count);

// A whole file in memory with its sections indexed; each line is read once.
struct StoreRun { // consecutive lines of one section
    size_t begin, end;
    size_t nameSize;
    uint32_t next; // the next run of the same section by its position, or NOWHERE
    uint32_t last; // of a section's first run: its last run, by position
};
struct StoreIndex {
    char *bytes = nullptr;
    size_t size = 0;
    Grown<StoreRun> runs;
    PositionTable sections; // the first run of each
    size_t run = 0;         // where the enumeration goes on
    size_t cursor = 0;      // in that run
};
uint32_t storeIndexLoad(StoreIndex *index, const char *path); // results of storeReadSections
void storeIndexFree(StoreIndex *index);
void storeIndexRead(const StoreIndex *index, StoreSection *section);
// The enumerations of the store over the index, from where the last one of them ended.
void storeIndexRewind(StoreIndex *index);
uint32_t storeIndexNext(StoreIndex *index, StoreText (*nameOf)(StoreText), char *name, uint32_t *size);
