/* SPDX-License-Identifier: Apache-2.0 */
/*
 * zoltlog.h - the unified logging library (libqdul.so.3): the manual of every
 * exported operation.
 *
 * A program opens a log handle for a product id and an originator id, sends
 * messages through it and closes it:
 *
 *     LogHandle log = {0};
 *     if (zoltLogOpen(5, 7, &log) == ZOLTLOG_OK)
 *         zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_WARNING, 0, "disk %s is %d%% full", "/var", 93);
 *     zoltLogClose(&log);
 *
 * Conventions, which hold for every operation unless it says otherwise:
 *
 * 1. Results. Operations return ZOLTLOG_OK (0) or one of the result codes
 *    below, whose names and texts zoltlog_results.h has. Pointers are checked
 *    first: a null pointer where a value is needed is ZOLTLOG_INVALID_ARGUMENT.
 *    On failure outputs are left alone.
 * 2. Ownership. Handles, context handles, LogCfg records, listings and cursors
 *    are storage of the caller; the library zeroes them when it fills them and
 *    frees only what it allocated inside them. A text or block that an operation
 *    hands out belongs to the caller, who releases it with zoltLogFree. Texts
 *    passed in are borrowed for the duration of the call.
 * 3. Encoding. Texts passed in are in the process's multibyte encoding
 *    (setlocale, LC_CTYPE), or in UTF-8 when the handle's utf8 field is set;
 *    log files and configuration files are UTF-8.
 * 4. Threads. Operations may be called from any thread. One process-wide
 *    recursive lock (zoltLogMutex) serialises what touches shared state. An
 *    operation that takes no lock says so: its arguments then belong to the
 *    calling thread. A handle must not be used while it is being opened or
 *    closed.
 * 5. Cancellation, signals, fork. A thread that is cancelled inside an operation
 *    ends behind it: cancellation is off while the lock is held and while an
 *    operation holds memory or descriptors. That is so for deferred cancellation,
 *    the usual kind; a thread of PTHREAD_CANCEL_ASYNCHRONOUS must call no
 *    operation. No operation may be called from a signal handler. fork is safe while
 *    other threads log: the child can log at once through the same handles, also
 *    from the host's fork handlers, in whatever order they run. A child of _Fork or
 *    clone waits for no thread of its parent either.
 * 6. Nothing is thrown, nothing is printed, and no call ends the process, with
 *    two exceptions: misuse of the lock aborts, and zoltLogDeleteFile tells a
 *    failed deletion on standard output.
 * 7. Stack. No operation needs more than 24 KB of stack, so that threads of 32 KB
 *    can log; what the system's name service takes when a host is looked up comes on
 *    top, and so does a formatter plug-in.
 */
#ifndef ZOLTLOG_H
#define ZOLTLOG_H

#include <dirent.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <wchar.h>

#include "zoltlis.h"

/* The version that this header is of: major.minor.patch.build, and the first three as one
 * number that grows: 31601 is 3.16.1. */
#define ZOLTLOG_VERSION "3.16.1.0"
#define ZOLTLOG_VERSION_NUMBER 31601

/* Has the compiler check a call's arguments against its format, as printf's: the positions of
 * the format and of the first argument (0: a va_list). */
#if defined(__GNUC__)
#define ZOLTLOG_PRINTF(formatAt, firstAt) __attribute__((__format__(__printf__, formatAt, firstAt)))
#else
#define ZOLTLOG_PRINTF(formatAt, firstAt)
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* ---- constants ------------------------------------------------------- */

/* Message types (LogMsg.type) */
enum {
    ZOLTLOG_MSG_DEBUG = 0,
    ZOLTLOG_MSG_DIAG = 1,
    ZOLTLOG_MSG_APP = 2,
    ZOLTLOG_MSG_CONTEXT = 3,
    ZOLTLOG_MSG_AUDIT = 4,
    ZOLTLOG_MSG_SECURE_AUDIT = 5 /* system log only */
};

/* Severities of application messages */
enum {
    ZOLTLOG_SEVERITY_INFO = 0,
    ZOLTLOG_SEVERITY_WARNING = 1,
    ZOLTLOG_SEVERITY_ERROR = 2,
    ZOLTLOG_SEVERITY_CRITICAL = 3,
    ZOLTLOG_SEVERITY_EMERGENCY = 4
};

/* Levels of debug, diagnostic and secure audit messages. A handle passes on the messages
 * whose level is not above its own; at ZOLTLOG_LEVEL_NONE that is none of them. */
enum {
    ZOLTLOG_LEVEL_NONE = 0,  /* of handles and configurations only */
    ZOLTLOG_LEVEL_FIRST = 1, /* the most important messages */
    ZOLTLOG_LEVEL_LAST = 6   /* the least important ones */
};

/* Output flags */
enum {
    ZOLTLOG_OUT_STDOUT = 1,
    ZOLTLOG_OUT_STDERR = 2,
    ZOLTLOG_OUT_OSLOG = 4,
    ZOLTLOG_KEEP_LOCAL_TEXT = 8, /* message calls only */
    ZOLTLOG_NO_MESSAGE_ID = 16,  /* message calls only */
    ZOLTLOG_OUT_OSLOGX = 64
};

/* Rollover mode bits; IsValidRolloverMode tells which go together */
enum {
    ZOLTLOG_ROLLOVER_NONE = 0,
    ZOLTLOG_ROLLOVER_FILE_SIZE = 1,
    ZOLTLOG_ROLLOVER_LOCAL_TIME = 2,
    ZOLTLOG_ROLLOVER_PERIODIC = 4
};

/* Versions of records and of the header line above them, which are the same numbers: how
 * a record is written is told by the version of its file (docs/format-log-file.md) */
#define ZOLTLOG_RECORD_VERSION_OLDEST 65540u
#define ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO 65541u    /* application records up to this */
#define ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX 65542u /* no ids and times up to this */
#define ZOLTLOG_RECORD_VERSION_ORIGINATOR 65543u          /* what is written for originators */
#define ZOLTLOG_RECORD_VERSION_LOGSET 65544u              /* what is written for log sets; the newest */

#define ZOLTLOG_DEFAULT_ORIGINATOR 112u
#define ZOLTLOG_KEEP_ALL_FILES 4294967295u

/* Kinds of query terms (LogQueryNode.kind), which have no operands */
enum {
    ZOLTLOG_TERM_TEXT = 257,      /* value.text */
    ZOLTLOG_TERM_NUMBER = 258,    /* value.number */
    ZOLTLOG_TERM_ATTRIBUTE = 259, /* value.number is one of ZOLTLOG_ATTR_... */
    ZOLTLOG_TERM_NUMBER_2 = 260,  /* read as ZOLTLOG_TERM_NUMBER */
    ZOLTLOG_TERM_NUMBER_3 = 261   /* read as ZOLTLOG_TERM_NUMBER */
};

/* Query operators (LogQueryNode.kind), which have two operands */
enum {
    ZOLTLOG_OP_AND = 281,
    ZOLTLOG_OP_OR = 282,
    ZOLTLOG_OP_LESS = 283,
    ZOLTLOG_OP_GREATER = 284,
    ZOLTLOG_OP_LESS_EQUAL = 285,
    ZOLTLOG_OP_GREATER_EQUAL = 286,
    ZOLTLOG_OP_EQUAL = 287,
    ZOLTLOG_OP_NOT_EQUAL = 288
};

/*
 * Attributes of log files in queries: X(name, code, listed, fetched). The last two tell what
 * of a file the attribute is compared with, when files are listed (their names and the file
 * system decide) and when one is fetched (its header does):
 *
 *   PRODUCT, ORIGINATOR  ids; the originator of a name is 0 for log sets
 *   CREATION, CHANGE     seconds since 1970-01-01 UTC; of two values one has to satisfy
 *   HOST, LOGSET         texts
 *   ALL, NONE            nothing: every file passes, or none
 *
 * The codes from ZOLTLOG_ATTR_FIRST to ZOLTLOG_ATTR_LAST that have no row are (ALL, NONE),
 * other numbers (NONE, NONE). A further attribute is one row, behind the others.
 */
#define ZOLTLOG_ATTRIBUTES(X)                                                                                \
    X(ZOLTLOG_ATTR_PRODUCT_ID, 263, PRODUCT, PRODUCT)                                                        \
    X(ZOLTLOG_ATTR_ORIGINATOR_ID, 264, ALL, ORIGINATOR)                                                      \
    X(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, 265, ORIGINATOR, NONE)                                                \
    X(ZOLTLOG_ATTR_TIME, 268, CREATION | CHANGE, CREATION | CHANGE)                                          \
    X(ZOLTLOG_ATTR_CREATION_TIME, 269, CREATION, CREATION)                                                   \
    X(ZOLTLOG_ATTR_NEVER, 276, NONE, NONE)                                                                   \
    X(ZOLTLOG_ATTR_HOST_NAME, 278, HOST, NONE)                                                               \
    X(ZOLTLOG_ATTR_LOGSET_NAME, 279, LOGSET, LOGSET)

#define ZOLTLOG_ATTRIBUTE_CODE(name, code, listed, fetched) name = (code),
enum {
    ZOLTLOG_ATTRIBUTES(ZOLTLOG_ATTRIBUTE_CODE) ZOLTLOG_ATTR_END, /* behind the last one */
    ZOLTLOG_ATTR_FIRST = ZOLTLOG_ATTR_PRODUCT_ID,
    ZOLTLOG_ATTR_LAST = ZOLTLOG_ATTR_END - 1
};
#undef ZOLTLOG_ATTRIBUTE_CODE

/* LogContextKey.kind: SearchContextTitleInList puts its text in the place of the entry's.
 * Other kinds only look. */
enum { ZOLTLOG_CONTEXT_KEY_REPLACE = 3 };

/*
 * Result codes: X(name, value, text). The values are part of the interface. The enum below
 * and the names and texts of zoltlog_results.h are made of this list: a further code is
 * one row.
 */
#define ZOLTLOG_RESULTS(X)                                                                                   \
    X(ZOLTLOG_OK, 0, "success")                                                                              \
    X(ZOLTLOG_FAILED, 1, "general failure")                                                                  \
    X(ZOLTLOG_LIS_FAILED, 2, "the localization library failed")                                              \
    X(ZOLTLOG_INVALID_ARGUMENT, 3, "invalid argument")                                                       \
    X(ZOLTLOG_NO_MEMORY, 4, "out of memory")                                                                 \
    X(ZOLTLOG_WRITE_FAILED, 5, "the record could not be written")                                            \
    X(ZOLTLOG_CFG_NOT_FOUND, 6, "configuration not found, or its file cannot be opened")                     \
    X(ZOLTLOG_NO_MORE, 9, "no more entries")                                                                 \
    X(ZOLTLOG_LIS_OTHER, 10, "the localization library failed in another way")                               \
    X(ZOLTLOG_OSLOG_OPEN_FAILED, 22, "the system log could not be opened")                                   \
    X(ZOLTLOG_PRODUCT_EXISTS, 27, "the product is registered already")                                       \
    X(ZOLTLOG_SOURCE_SIZE_UNKNOWN, 31, "the size of the source file cannot be determined")                   \
    X(ZOLTLOG_OPEN_FAILED, 32, "a log file cannot be opened")                                                \
    X(ZOLTLOG_SHORT_READ, 33, "the source file could not be read to its end")                                \
    X(ZOLTLOG_SHORT_WRITE, 34, "the copy could not be written, or the link failed")                          \
    X(ZOLTLOG_NO_PRODUCT_CFG, 39, "the product has no configuration")                                        \
    X(ZOLTLOG_NO_LOG_FILES, 45, "no log file was found")                                                     \
    X(ZOLTLOG_DEST_OPEN_FAILED, 47, "the destination of the copy cannot be opened")                          \
    X(ZOLTLOG_UNSUPPORTED_HEADER, 48, "the log file's header has an unknown version")                        \
    X(ZOLTLOG_SECTION_NOT_FOUND, 50, "the product or log set has no section to remove")                      \
    X(ZOLTLOG_OPEN_DENIED, 51, "the log file cannot be opened: permission denied")                           \
    X(ZOLTLOG_OPEN_NO_PATH, 52, "the log file cannot be opened: no such path")                               \
    X(ZOLTLOG_NO_DIRECTORY, 53, "the configuration has no log directory")                                    \
    X(ZOLTLOG_DEVICE_FULL, 54, "no space is left on the device")                                             \
    X(ZOLTLOG_CFG_CREATE_FAILED, 55, "the configuration file or its directory cannot be created")            \
    X(ZOLTLOG_NO_FILE_STATE, 57, "the log handle has no open file")                                          \
    X(ZOLTLOG_SECURE_ON_FILE_HANDLE, 58, "a secure audit message needs a secure handle")                     \
    X(ZOLTLOG_NOTHING_TO_WRITE, 61, "nothing to write")                                                      \
    X(ZOLTLOG_STORE_RESULT_10, 64, "the property store failed")

#define ZOLTLOG_RESULT_VALUE(name, value, text) name = (value),
enum { ZOLTLOG_RESULTS(ZOLTLOG_RESULT_VALUE) };
#undef ZOLTLOG_RESULT_VALUE

/* Results of the platform services, the system log and dynamic loading */
enum {
    ZOLTLOG_OS_OK = 0,
    ZOLTLOG_OS_LISTING_END = 1,       /* no further file in a directory */
    ZOLTLOG_OS_FAILED = -1,           /* a system call failed */
    ZOLTLOG_OS_NOT_LOADED = -2,       /* dynamic loading failed, or a pointer is null in it */
    ZOLTLOG_OS_INVALID_ARGUMENT = -3, /* a pointer is null */
    ZOLTLOG_OS_OPEN_FAILED = -6,      /* for a reason other than the next two, also: not a file */
    ZOLTLOG_OS_OPEN_DENIED = -7,
    ZOLTLOG_OS_OPEN_NO_PATH = -8
};

/* How zoltLogOs_open opens a file; any other mode is ZOLTLOG_OS_MODE_READ */
enum {
    ZOLTLOG_OS_MODE_APPEND = 0, /* for writing at the end; created if missing */
    ZOLTLOG_OS_MODE_READ = 1,
    ZOLTLOG_OS_MODE_TRUNCATE = 2 /* for writing, emptied; created if missing */
};

/* Results of the property store; utipsres2zoltlogres makes result codes of them */
enum {
    ZOLTLOG_STORE_OK = 0,
    ZOLTLOG_STORE_INVALID_ARGUMENT = 1, /* null, a closed store, a line feed in a text */
    ZOLTLOG_STORE_NO_FILE = 2,          /* the file cannot be opened */
    ZOLTLOG_STORE_NOT_FOUND = 3,        /* no such property, or it cannot be converted */
    ZOLTLOG_STORE_4 = 4,                /* 4, 9 and 10 come from no operation of this store */
    ZOLTLOG_STORE_NOT_CREATED = 5,      /* the file, its directory or its temporary file */
    ZOLTLOG_STORE_NOT_WRITTEN = 6,      /* also: removed, renamed; or a buffer is too small */
    ZOLTLOG_STORE_NO_MORE = 7,          /* no further name */
    ZOLTLOG_STORE_NO_SECTION = 8,       /* no such section */
    ZOLTLOG_STORE_9 = 9,
    ZOLTLOG_STORE_10 = 10
};

/* What a formatter plug-in is asked for (LogFormatMessageFn) */
enum {
    ZOLTLOG_FORMAT_CONSOLE = 0x700, /* a line for the console */
    ZOLTLOG_FORMAT_OSLOG = 0x600    /* a line for the system log, which adds the time itself */
};

/* ---- records ----------------------------------------------------------
 *
 * Texts end with a NUL. "Owned" is a text of zoltLogMalloc that belongs to the record and goes
 * with the operation that releases it; "borrowed" is one that belongs to somebody else and
 * must outlive the record. A pointer may be null unless its comment says otherwise. Room
 * named reserved, word or info is 0 and not used.
 */

typedef struct LocalizerList {
    uint64_t count; /* 0: empty */
    void *first;    /* the formatter plug-in's; null when empty */
} LocalizerList;

/* One message; see "message record" below */
typedef struct LogMsg {
    uint32_t ownsStrings;      /* 0; 1: contextToken and who are the record's to free, too */
    uint64_t recordVersion;    /* ZOLTLOG_RECORD_VERSION_...; the writer sets it */
    uint32_t type;             /* ZOLTLOG_MSG_... */
    uint64_t productId;        /* of the handle's log file; 0 when it has none */
    uint64_t originatorId;     /* the handle's */
    uint64_t fileOriginatorId; /* of the file it goes to; the writer sets it */
    uint64_t messageId;        /* the caller's, else the handle's sequence number */
    uint64_t timestamp;        /* milliseconds since 1970-01-01 UTC */
    uint64_t processId;        /* getPID() */
    uint64_t threadId;         /* getTID() */
    char *contextToken;        /* borrowed; null outside of contexts */
    char *text;                /* owned; null: none, or the one that lis gives */
    uint64_t reserved[4];
    uint32_t utf8; /* not 0: the texts are UTF-8; zoltLogMsg sets it to the handle's */
    union {
        uint32_t severity;  /* application: ZOLTLOG_SEVERITY_... */
        uint32_t level;     /* debug, diagnostic, secure audit: 1 to 6 */
        char *contextTitle; /* context: its token, owned */
    } attr;
    char *who;        /* debug, diagnostic, application: who; audit, secure audit: subject; borrowed */
    uint32_t outcome; /* audit, secure audit: any number */
    ZoltLisBlock lis; /* catalogue reference and arguments, owned; zeros: none */
} LogMsg;

/* What openlog is given */
typedef struct OsLogSettings {
    char ident[80];    /* identity; without a NUL when it fills the field */
    uint32_t option;   /* LOG_... option bits of <syslog.h> */
    uint32_t facility; /* LOG_USER and so on, as <syslog.h> has them */
} OsLogSettings;

typedef struct OsLogSink {
    char ident[80]; /* the identity that openlog holds while the sink is open; up to 79 bytes */
} OsLogSink;

typedef struct FileSecuritySetting {
    uint32_t mode; /* permission bits of a file: 0660 by default */
} FileSecuritySetting;

/* The settings of an originator or a log set; docs/format-config.md has the keys */
typedef struct LogCfg {
    uint64_t productId;              /* not 0 */
    uint64_t originatorId;           /* not 0; ZOLTLOG_DEFAULT_ORIGINATOR: the "Default" section */
    uint32_t debugLevel;             /* highest that is written, ZOLTLOG_LEVEL_NONE to _LAST */
    uint32_t diagLevel;              /* the same of diagnostic messages */
    uint32_t secureAuditLevel;       /* the same of secure audit messages; any number, no key */
    uint32_t outputFlags;            /* ZOLTLOG_OUT_... */
    char directory[1025];            /* of the log files; ends in "/", or is empty */
    FileSecuritySetting permissions; /* of new log files */
    uint64_t maxFileSizeKB;          /* 1024 bytes each, not 0 */
    uint32_t rolloverMode;           /* ZOLTLOG_ROLLOVER_... */
    uint64_t rolloverPeriod;         /* seconds, not 0 */
    uint64_t rolloverTime;           /* seconds after local midnight */
    uint64_t numberOfLogFiles;       /* of a series that are kept, not 0; ZOLTLOG_KEEP_ALL_FILES */
    uint32_t logRecycling;           /* 0 or 1: surplus files are removed at a rollover */
    OsLogSettings oslog;             /* of the system log */
    char productShortNames[1025];    /* separated by commas; empty: none */
    char originatorNames[1025];      /* the same */
    char *l10nLib;                   /* owned, as all texts below */
    char *l10nResource;
    char *l10nResourceDir;
    uint32_t changedMask;         /* a bit for each setting that a writing operation writes ... */
    uint32_t removedMask;         /* ... or removes */
    uint32_t reloadInterval;      /* seconds between looks for a changed file, below 2^31; 0: never */
    char *logsetName;             /* null: an originator's record */
    uint32_t isLogset;            /* 0 or 1 */
    char *logsetFilename;         /* first part of the log set's file names */
    uint32_t appMsgLogging;       /* 0 or 1; filters nothing in this library */
    char *logsetOidAppMsgLogging; /* originators, as the key of the log set lists them */
    char *logsetOidDebugLogging;  /* the same */
    char *logsetOidDiagLogging;   /* the same */
} LogCfg;

/* An open file of the platform services */
typedef struct OsFile {
    int32_t descriptor;   /* -1: closed */
    char buffer[32768];   /* what readrecord has read ahead */
    int32_t readPosition; /* of the next byte in the buffer; -1: nothing is read ahead */
    int32_t readCount;    /* valid bytes of the buffer, 0 to 32768 */
} OsFile;

/* A place in a directory's log files; the fields are the platform services' own */
typedef struct OsLogFileCursor {
    uint64_t word;
    char *directory;      /* owned; as it was given */
    DIR *stream;          /* owned; null in a copy */
    struct dirent *entry; /* owned; the current file */
} OsLogFileCursor;

typedef struct LogHandle LogHandle;

/* Local time as file names have it */
typedef struct LogFileDate {
    int32_t year;   /* less 2000 */
    int32_t month;  /* 1 to 12 */
    int32_t day;    /* 1 to 31 */
    int32_t hour;   /* 0 to 23 */
    int32_t minute; /* 0 to 59 */
    int32_t second; /* 0 to 60 */
} LogFileDate;

/* One open series; shared by the handles in its list. Only the library changes it */
typedef struct LogFileState {
    char directory[1025];            /* ends in "/" */
    FileSecuritySetting permissions; /* of new files */
    uint64_t maxFileSizeKB;          /* 1024 bytes each */
    uint32_t rolloverMode;           /* ZOLTLOG_ROLLOVER_... */
    uint32_t logRecycling;           /* 0 or 1 */
    uint64_t rolloverPeriod;         /* seconds */
    uint64_t rolloverTime;           /* seconds after local midnight */
    uint64_t productId;
    uint64_t fileOriginatorId;
    uint64_t headerVersion;   /* of the open file: ZOLTLOG_RECORD_VERSION_..., or what an old file holds */
    LogFileDate date;         /* in the open file's name */
    int64_t counter;          /* in the open file's name; an originator's series only */
    int64_t nextRolloverTime; /* seconds since 1970-01-01 UTC; of the timed modes */
    int64_t fileStartTime;    /* the same; 0: no file was opened yet */
    int64_t lastReopenTime;   /* milliseconds since 1970-01-01 UTC */
    OsFile file;              /* descriptor -1 when closed; the buffer is the writer's own */
    LogHandle *handles;       /* the first; the next is its nextOnFile */
    uint32_t isLogset;        /* 0 or 1 */
    char *logsetName;         /* owned */
    char *logsetFilename;     /* owned */
} LogFileState;

/* Filled and kept by the library; the caller may set utf8 after the open */
struct LogHandle {
    LogFileState *file;        /* null: secure, closed, or a context that could not be made */
    uint32_t debugLevel;       /* highest that is passed on, ZOLTLOG_LEVEL_... */
    uint32_t diagLevel;        /* the same */
    uint32_t secureAuditLevel; /* the same */
    uint32_t outputFlags;      /* ZOLTLOG_OUT_... */
    uint32_t noContext;        /* 1 plain handle, 0 context handle */
    LogMsg contextMsg;         /* of a context handle */
    OsLogSink oslog;
    LogHandle *nextOnFile; /* in the list of its file state */
    LocalizerList localizers;
    uint64_t sequenceNumber; /* that the next message gets */
    int64_t cfgTimestamp;    /* of the configuration that holds, seconds since 1970-01-01 UTC */
    int64_t lastReloadCheck; /* seconds since 1970-01-01 UTC */
    uint32_t reloadInterval; /* seconds; 0: never */
    LogCfg *cfgCopy;         /* owned; of a secure handle only */
    uint32_t utf8;           /* not 0: texts passed in are UTF-8 */
    uint64_t originatorId;   /* stamped on the messages */
};

/* The first line of a log file */
typedef struct LogFileHeader {
    uint64_t version;      /* ZOLTLOG_RECORD_VERSION_... */
    uint64_t productId;    /* 0 when read from a log set's header, as the next two are */
    uint64_t originatorId; /* the file originator's */
    uint64_t creationTime; /* seconds since 1970-01-01 UTC */
    char hostName[512];    /* without a NUL when it fills the field */
    int64_t tzOffset;      /* seconds to add to the writer's local time to get UTC; -1: not told */
} LogFileHeader;

/* A listed or found log file: one block, of zoltLogMalloc */
typedef struct LogFileEntry {
    struct LogFileEntry *next; /* in a listing */
    uint64_t headerVersion;    /* ReadHeader sets it; 0 before */
    OsFile file;               /* closed unless it was fetched */
    uint64_t info[8];
    int64_t creationTime; /* seconds since 1970-01-01 UTC; 0: not known */
    int64_t tzOffset;     /* as the header has it; ReadHeader sets it */
    char directory[1025]; /* ends in "/" */
    char name[1];         /* the name runs on to the end of the block */
} LogFileEntry;

/* A node of a query tree; see "Query trees" below. The caller owns all of it */
typedef struct LogQueryNode {
    int32_t kind; /* ZOLTLOG_TERM_... or ZOLTLOG_OP_... */
    int32_t slot; /* 0 in a new tree; the evaluation writes it */
    union {
        uint64_t number;  /* of a term; ZOLTLOG_ATTR_... of an attribute */
        const char *text; /* of a text term, borrowed */
    } value;
    uint64_t reserved;
    struct LogQueryNode *left; /* operands of an operator */
    struct LogQueryNode *right;
} LogQueryNode;

typedef struct LogListing {
    uint64_t word;
    LogFileEntry *files;        /* the list; its entries are the caller's to free */
    LogFileEntry *next;         /* fetch position */
    LogQueryNode *query;        /* borrowed; null: every file passes */
    uint32_t unsupportedHeader; /* 1: a file with another header version was passed over */
} LogListing;

/* An entry of a table of context titles; title and text are owned */
typedef struct LogContextEntry {
    struct LogContextEntry *next; /* in its chain */
    uint64_t key[2];              /* the caller's meaning */
    char *title;
    char *text;
} LogContextEntry;

typedef struct LogContextKey {
    uint64_t key[2]; /* the caller's meaning */
    uint32_t kind;   /* ZOLTLOG_CONTEXT_KEY_REPLACE or any other number */
} LogContextKey;

/* A growing text; see "record encoding". It must not be moved while in use */
typedef struct TextBuffer {
    char inlineStorage[4096]; /* where data begins */
    char *data;               /* inlineStorage, or a block that free_text_msg frees */
    uint64_t free;            /* bytes */
    uint64_t capacity;        /* bytes at data; capacity - free are in use */
} TextBuffer;

/* A section of a configuration file */
typedef struct PropertyStore {
    FILE *stream;   /* owned; null: closed */
    char root[400]; /* the section; may be empty */
    char path[400]; /* of the file */
} PropertyStore;

typedef struct LogLockHolder {
    uint64_t thread; /* getTID() */
    const char *tag; /* borrowed; told by its address */
} LogLockHolder;

/* A lock; zeros before its first use */
typedef struct LogLock {
    pthread_mutex_t mutex;
    int32_t initialized;       /* not 0: the mutex is made */
    int32_t savedCancelState;  /* of the holding thread, as pthread_setcancelstate gave it */
    int32_t depth;             /* acquisitions that are held, 0 to 10 */
    LogLockHolder holders[10]; /* the first depth of them */
} LogLock;

/* What fmtLib and newfmtLib point at during a call */
typedef struct LogFormatter {
    void *library; /* handle of dlopen */
    void *entry;   /* LogFormatMessageFn */
} LogFormatter;

/* ---- exported data ---------------------------------------------------- */

/*
 * The names zoltLogMutex, errorCode, sh_handle, fmtLib and newfmtLib are reserved: a program
 * that defines one itself takes the library's place. The library writes the last four only
 * where they have the sizes that they have here, and never decides anything by them.
 */

/* The library's lock. Only the operations of the lock change it. */
extern LogLock zoltLogMutex;
/* ZOLTLOG_DEVICE_FULL from the first write on that failed because the device was full, for
 * the rest of the process; 0 before. Look at it after a failed write only. */
extern int32_t errorCode;
extern void *sh_handle;
extern LogFormatter *fmtLib;
extern LogFormatter *newfmtLib;

/* ---- message record ----------------------------------------- */

/*
 * A LogMsg is one message on its way. The message calls build and release it by
 * themselves; these operations are for callers that build, inspect or encode
 * records of their own. They take no lock, except for the sequence number.
 *
 * The text always belongs to the record (heap, zoltLogMalloc). The context token
 * and the who or subject are borrowed, and must outlive the record, unless
 * ownsStrings is 1. The context title token of a context record belongs to it.
 */

/*
 * Zeroes the record and fills it for a message of the given type through handle:
 * next sequence number of the handle as message id, process and thread id, product
 * and originator id (0 for a handle without a log file, as a secure one), time
 * stamp, the token of a context handle, and a copy of defaultText, which may be
 * null. A sequence number is used up even when the message is never sent.
 *
 * ZOLTLOG_INVALID_ARGUMENT for a null record or handle, or a handle that is neither
 * plain nor holds a context message (a zeroed one); ZOLTLOG_NO_MEMORY when the text
 * cannot be copied. After a failure there is no text, and nothing to release.
 */
uint32_t zoltLogInitMsg(LogMsg *msg, LogHandle *handle, uint32_t type, const char *defaultText);

/*
 * Each stores the attributes of one type of message; texts are borrowed. The type
 * itself is not looked at. ZOLTLOG_INVALID_ARGUMENT for a null record, or a null who
 * of a debug or diagnostic message; a null who of an application message and a null
 * subject are stored, and written as empty ones. The levels of debug and
 * diagnostic messages run from ZOLTLOG_LEVEL_FIRST to ZOLTLOG_LEVEL_LAST: another one is
 * stored too, and the result is ZOLTLOG_FAILED. A severity that is no ZOLTLOG_SEVERITY_...
 * is refused by the encoder.
 */
uint32_t zoltLogSetDebugAttr(LogMsg *msg, const char *who, uint32_t level);
uint32_t zoltLogSetDiagAttr(LogMsg *msg, const char *who, uint32_t level);
uint32_t zoltLogSetAppAttr(LogMsg *msg, uint32_t severity);
uint32_t zoltLogSetAppAttrEx(LogMsg *msg, const char *who, uint32_t severity);
uint32_t zoltLogSetAuditAttr(LogMsg *msg, const char *subject, uint32_t outcome);
uint32_t zoltLogSetSecureAuditAttr(LogMsg *msg, uint32_t level, const char *subject, uint32_t outcome);

/*
 * Stores a copy of the token as the context title token; a context record releases
 * the one that it had. ZOLTLOG_INVALID_ARGUMENT for a null pointer,
 * ZOLTLOG_NO_MEMORY when there is none for the copy: the earlier token stays.
 */
uint32_t zoltLogSetContextAttr(LogMsg *msg, const char *token);

/*
 * Releases what the record owns and zeroes it, so that a second call does no harm;
 * a null record is ZOLTLOG_OK. With ownsStrings 1 it also frees the context token
 * and the who or subject, but never the subject of a secure audit record.
 * ZOLTLOG_FAILED when the localization block could not be released; the rest is.
 */
uint32_t zoltLogFreeMsg(LogMsg *msg);

/*
 * Getters. ZOLTLOG_INVALID_ARGUMENT for a null pointer or a record of a type that
 * does not have the field (told behind each; no remark: all types). Texts stay the
 * record's and may be null. zoltLogGetMsgLis gives the address inside the record.
 */
uint32_t zoltLogGetMsgType(const LogMsg *msg, uint32_t *out);
uint32_t zoltLogGetMsgProductId(const LogMsg *msg, uint64_t *out);
uint32_t zoltLogGetMsgOriginatorId(const LogMsg *msg, uint64_t *out);
uint32_t zoltLogGetMsgFid(const LogMsg *msg, uint64_t *out); /* file originator id, set by the writer */
uint32_t zoltLogGetMsgTimestamp(const LogMsg *msg, uint64_t *out);
uint32_t zoltLogGetMsgPid(const LogMsg *msg, uint64_t *out);
uint32_t zoltLogGetMsgTid(const LogMsg *msg, uint64_t *out);
uint32_t zoltLogGetMsgContextToken(const LogMsg *msg, char **out);
uint32_t zoltLogGetMsgText(const LogMsg *msg, char **out);
uint32_t zoltLogGetMsgAppAttrWho(const LogMsg *msg, char **out);          /* application */
uint32_t zoltLogGetMsgAppAttrSeverity(const LogMsg *msg, uint32_t *out);  /* application */
uint32_t zoltLogGetMsgDebugAttrWho(const LogMsg *msg, char **out);        /* debug */
uint32_t zoltLogGetMsgDebugAttrLevel(const LogMsg *msg, uint32_t *out);   /* debug */
uint32_t zoltLogGetMsgDebugLevel(const LogMsg *msg, uint32_t *out);       /* the same */
uint32_t zoltLogGetMsgDiagAttrWho(const LogMsg *msg, char **out);         /* diagnostic */
uint32_t zoltLogGetMsgDiagAttrLevel(const LogMsg *msg, uint32_t *out);    /* diagnostic */
uint32_t zoltLogGetMsgDiagLevel(const LogMsg *msg, uint32_t *out);        /* the same */
uint32_t zoltLogGetMsgAuditAttrSubject(const LogMsg *msg, char **out);    /* audit, secure audit */
uint32_t zoltLogGetMsgAuditAttrOutcome(const LogMsg *msg, uint32_t *out); /* audit, secure audit */
uint32_t zoltLogGetMsgAuditLevel(const LogMsg *msg, uint32_t *out);       /* secure audit only */
uint32_t zoltLogGetMsgContextAttrToken(const LogMsg *msg, char **out);    /* context */
uint32_t zoltLogGetMsgLis(LogMsg *msg, ZoltLisBlock **out);

/* ---- log handle --------------------------------------------- */

/*
 * Opens a handle on the series of log files of an originator, or of a log set. The
 * record is the caller's, and zeros at first: it is zeroed, filled from the configuration,
 * and must stay where it is until it is closed, since all handles of one series are
 * chained. A record that is open must be closed before it is opened again. Of its fields
 * the caller sets only utf8, if its texts are UTF-8.
 *
 * The handles of a process on one originator's series share one open file, if that series
 * is the one that the library remembers: the first that is opened while none is
 * remembered, until its last handle is closed. Handles on other series, and on log sets,
 * have an open file each.
 *
 * zoltLogOpen: messages are stamped and filtered by the originator's settings and go to
 * its own series. zoltLogOpen2: to the series of fileOriginatorId. zoltLogOpenLogSet: to
 * the series of the log set, whose settings hold; originatorId is stamped on the messages.
 *
 * The latest file of the series is continued or, when there is none, the first is made
 * (see zoltLogOpenFile). The host's name and number are asked for, which may wait for the
 * name service, with the lock held.
 *
 *   ZOLTLOG_INVALID_ARGUMENT  an id of 0, a null name or handle; the record is untouched
 *   ZOLTLOG_CFG_NOT_FOUND     the product is not registered, or has no such log set
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_OSLOG_OPEN_FAILED the system log could not be opened; the handle is open
 *   and those of zoltLogOpenFile
 *
 * After a failure zoltLogClose must be called, since the handle may hold a file state; for
 * a record that is untouched and zeros that does no harm (ZOLTLOG_INVALID_ARGUMENT). A handle
 * that holds a file state can be used; each message then tries to open the file again.
 */
uint32_t zoltLogOpen(uint64_t productId, uint64_t originatorId, LogHandle *handle);
uint32_t zoltLogOpen2(uint64_t productId, uint64_t originatorId, uint64_t fileOriginatorId,
                      LogHandle *handle);
uint32_t zoltLogOpenLogSet(uint64_t productId, uint64_t originatorId, const char *logsetName,
                           LogHandle *handle);

/*
 * Opens a handle for secure audit messages, which go to the system log only: no
 * configuration is read and no file is opened. cfg gives the secure audit level, the
 * system log settings and ZOLTLOG_OUT_OSLOGX; it receives both ids, and the handle keeps
 * a copy of it. The sequence numbers of a secure handle start at 0, those of others at 1.
 *
 *   ZOLTLOG_INVALID_ARGUMENT  an id of 0, a null record or handle
 *   ZOLTLOG_OSLOG_OPEN_FAILED the system log could not be opened; the handle is open
 */
uint32_t zoltLogSecureOpen(uint64_t productId, uint64_t originatorId, LogCfg *cfg, LogHandle *handle);

/*
 * Closes a handle, and with its series' last handle the file. Contexts are closed with
 * zoltLogDestroyContext, before or after the handle that they were made from.
 *
 *   ZOLTLOG_INVALID_ARGUMENT  null handle, or one without a file: closed already, never
 *                             opened, or a secure one, of which all is released all the same
 *   ZOLTLOG_FAILED            the handle's open had failed early; all is released
 */
uint32_t zoltLogClose(LogHandle *handle);

/*
 * Sends one record that the caller has built: to the log file, and then to the console
 * and the system log as flags (ZOLTLOG_OUT_...) and the handle's output flags say. A
 * record without a text gets the text of its localization block; the block is released
 * and zeroed in any case. The message stays the caller's (zoltLogFreeMsg).
 *
 * A message is in the file, whole, when the result says so, but the file is not synced.
 * The lock is held throughout, so the messages of all threads are written in lock order.
 *
 *   ZOLTLOG_INVALID_ARGUMENT      null handle or message
 *   ZOLTLOG_SECURE_ON_FILE_HANDLE secure audit message through a handle with a file;
 *                                 nothing is written
 *   and those of zoltLogWriteMsgWithRolloverToFile; the result of the outputs counts when
 *   the file's is ZOLTLOG_OK.
 */
uint32_t zoltLogMsg(LogHandle *handle, uint32_t flags, LogMsg *msg);

/*
 * The levels of a handle. Setters take any number. The getters of the debug and the
 * diagnostic level first look at the configuration, when the handle reloads it and a look
 * is due; a reload that finds a changed file overwrites what a setter stored. ZOLTLOG_INVALID_ARGUMENT
 * for a null handle or level.
 */
uint32_t zoltLogSetDebugLevel(LogHandle *handle, uint32_t level);
uint32_t zoltLogGetDebugLevel(LogHandle *handle, uint32_t *level);
uint32_t zoltLogSetDiagLevel(LogHandle *handle, uint32_t level);
uint32_t zoltLogGetDiagLevel(LogHandle *handle, uint32_t *level);
uint32_t zoltLogSetSecureAuditLevel(LogHandle *handle, uint32_t level);
uint32_t zoltLogGetSecureAuditLevel(LogHandle *handle, uint32_t *level);

/*
 * The number that the handle's next message gets: set, told without being used up, and
 * taken (0 for a null handle). After the largest comes 0. The first two give
 * ZOLTLOG_INVALID_ARGUMENT for a null pointer.
 */
uint32_t zoltLogSetSequenceNumber(LogHandle *handle, uint64_t number);
uint32_t zoltLogGetSequenceNumber(LogHandle *handle, uint64_t *number);
uint64_t GetNextSequenceNumber(LogHandle *handle);
/* Makes a list empty. */
uint32_t InitializeLocalizerList(LocalizerList *list);
/* 1 for a handle that writes a log file (its first word is not 0), else 0. Takes no lock. */
int32_t isLogOpen(const LogHandle *handle);

/* ---- message entry points and contexts ----------------------- */

/*
 * Five families of messages: application (App), diagnostic (Diag), audit (Audit),
 * secure audit (SecureAudit) and debug (Debug). Suffixes: 2 adds the caller's
 * message id, Ex the reporting component (who) of application messages, V takes
 * a va_list, L takes a ready text and localization block.
 *
 * Arguments that the families share:
 *   handle         an open log handle or context handle
 *   messageId      stored as the message's id. With ZOLTLOG_NO_MESSAGE_ID in the
 *                  flags, and in the calls without this argument, the id is the
 *                  handle's sequence number
 *   flags          output flags (ZOLTLOG_OUT_...) that are added to the handle's
 *                  for this one message; ZOLTLOG_NO_MESSAGE_ID;
 *                  ZOLTLOG_KEEP_LOCAL_TEXT (application and diagnostic): beside
 *                  the catalogue reference a text formatted here, which is then
 *                  the text of the record
 *   messageNumber  number of the message in the catalogue of the localization
 *                  library; 0: none, the text is formatted here
 *   format, args   printf format and its arguments; also what the catalogue
 *                  falls back on, and what decides the types of the arguments. "%m"
 *                  tells the errno that the caller had
 *   text           a ready text, which the call only reads; may be null
 *   block          a localization block of zoltLisVEx or zoltLisTextV. The call
 *                  consumes it whatever its result: it is freed, and its three
 *                  words in the caller's storage are zeroed (one exception:
 *                  zoltLogSecureAuditMsgL)
 *
 * A message is filtered when its level is above the handle's level of its family:
 * the call returns ZOLTLOG_OK, writes nothing, and costs next to nothing; no
 * sequence number is used. Levels run from ZOLTLOG_LEVEL_FIRST to ZOLTLOG_LEVEL_LAST.
 *
 * Results, of all families:
 *   ZOLTLOG_OK                written, and copied where the output flags say; or filtered
 *   ZOLTLOG_INVALID_ARGUMENT  null handle, format or block; null who (application,
 *                             diagnostic, debug); ZOLTLOG_KEEP_LOCAL_TEXT without a
 *                             text; a handle that is a context without a context message
 *   ZOLTLOG_LIS_FAILED, ZOLTLOG_LIS_OTHER, ZOLTLOG_NO_MEMORY, ZOLTLOG_INVALID_ARGUMENT
 *                             the localization library failed: see zoltLogMapLisResToLoggingRes
 *   and the results of zoltLogMsg
 *
 * The wording is made before the lock is taken; the record is built, written and
 * copied to the other outputs under it.
 */

/*
 * Application messages, never filtered. severity is one of ZOLTLOG_SEVERITY_...; another
 * one cannot be written (ZOLTLOG_FAILED). The calls without who give "".
 */
uint32_t zoltLogAppMsg(LogHandle *handle, uint32_t flags, uint32_t severity, int64_t messageNumber,
                       const char *format, ...) ZOLTLOG_PRINTF(5, 6);
uint32_t zoltLogAppMsgEx(LogHandle *handle, uint32_t flags, uint32_t severity, const char *who,
                         int64_t messageNumber, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogAppMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                        int64_t messageNumber, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogAppMsg2Ex(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                          const char *who, int64_t messageNumber, const char *format, ...)
    ZOLTLOG_PRINTF(7, 8);
uint32_t zoltLogAppMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                         int64_t messageNumber, const char *format, va_list args) ZOLTLOG_PRINTF(6, 0);
uint32_t zoltLogAppMsg2VEx(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                           const char *who, int64_t messageNumber, const char *format, va_list args)
    ZOLTLOG_PRINTF(7, 0);
uint32_t zoltLogAppMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                         const char *text, ZoltLisBlock *block);
uint32_t zoltLogAppMsg2LEx(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t severity,
                           const char *who, const char *text, ZoltLisBlock *block);

/*
 * Diagnostic messages, filtered by the handle's diagnostic level. All but
 * zoltLogDiagMsg2L first look for a changed configuration (zoltDynaLoadConfig).
 * ZOLTLOG_FAILED for a level outside 1 to 6 that the filter lets through.
 */
uint32_t zoltLogDiagMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                        int64_t messageNumber, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogDiagMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                         const char *who, int64_t messageNumber, const char *format, ...)
    ZOLTLOG_PRINTF(7, 8);
uint32_t zoltLogDiagMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, int64_t messageNumber, const char *format, va_list args)
    ZOLTLOG_PRINTF(7, 0);
uint32_t zoltLogDiagMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, const char *text, ZoltLisBlock *block);

/*
 * Audit messages: who (subject, may be null) did something with which outcome.
 * Never filtered, and always by catalogue: messageNumber 0 is
 * ZOLTLOG_INVALID_ARGUMENT. They are not copied to the console or the system log.
 */
uint32_t zoltLogAuditMsg(LogHandle *handle, uint32_t flags, const char *subject, uint32_t outcome,
                         int64_t messageNumber, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogAuditMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                          uint32_t outcome, int64_t messageNumber, const char *format, ...)
    ZOLTLOG_PRINTF(7, 8);
uint32_t zoltLogAuditMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                           uint32_t outcome, int64_t messageNumber, const char *format, va_list args)
    ZOLTLOG_PRINTF(7, 0);
uint32_t zoltLogAuditMsg2L(LogHandle *handle, uint64_t messageId, uint32_t flags, const char *subject,
                           uint32_t outcome, ZoltLisBlock *block);

/*
 * Secure audit messages, to the system log only, through a handle of
 * zoltLogSecureOpen (ZOLTLOG_SECURE_ON_FILE_HANDLE for any other). Filtered by the
 * handle's secure audit level, always by catalogue as audit messages are, message
 * id 0. The result is ZOLTLOG_OS_FAILED as an unsigned number (4294967295) when the system
 * log did not get the message, for want of the formatter plug-in in particular.
 * In zoltLogSecureAuditMsgL the block stays with the caller, who frees it, in one
 * case: when the record cannot be initialised, which is a result of zoltLogInitMsg.
 */
uint32_t zoltLogSecureAuditMsg(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                               int64_t messageNumber, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogSecureAuditMsgV(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                                int64_t messageNumber, const char *format, va_list args) ZOLTLOG_PRINTF(6, 0);
uint32_t zoltLogSecureAuditMsgL(LogHandle *handle, uint32_t level, const char *subject, uint32_t outcome,
                                ZoltLisBlock *block);

/*
 * Debug messages, for developers: no catalogue, the text is always formatted here.
 * Filtered by the handle's debug level after a look for a changed configuration
 * (zoltDynaLoadConfig). ZOLTLOG_FAILED for a level outside 1 to 6 that the filter
 * lets through.
 */
uint32_t zoltLogDebugMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                         const char *format, ...) ZOLTLOG_PRINTF(5, 6);
uint32_t zoltLogDebugMsg2(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                          const char *who, const char *format, ...) ZOLTLOG_PRINTF(6, 7);
uint32_t zoltLogDebugMsg2V(LogHandle *handle, uint64_t messageId, uint32_t flags, uint32_t level,
                           const char *who, const char *format, va_list args) ZOLTLOG_PRINTF(6, 0);
/*
 * A debug message whose text is there already; never filtered. ZOLTLOG_FAILED for
 * a level outside 1 to 6; a null text is ZOLTLOG_INVALID_ARGUMENT.
 */
uint32_t zoltLogFormattedDebugMsg(LogHandle *handle, uint32_t flags, uint32_t level, const char *who,
                                  const char *text);

/*
 * Opens a context: a log handle whose messages all carry the token, for one unit of
 * work (a request, a job). parent is an open log handle or context: contexts nest.
 * The context shares the parent's file and starts with the parent's levels, output
 * flags and utf8 field; its sequence numbers start at 1.
 *
 * A context record (token, text, localization block) goes to the log file at once,
 * and again to the top of every new file of the series while the context is open;
 * log sets get it once. It is not copied to the other outputs. The token and the
 * arguments are copied; context is storage of the caller, zeros at first, which must
 * stay in place until zoltLogDestroyContext. A record that is open as a context or handle
 * of any file is closed first.
 *
 * Results: ZOLTLOG_OK; ZOLTLOG_INVALID_ARGUMENT for a null parent, context, token
 * or format, or a context that is its parent; ZOLTLOG_NO_FILE_STATE for the parent
 * of zoltLogSecureOpen; results of the localization library and of zoltLogInitMsg: the
 * context is closed then, nothing is held, and zoltLogDestroyContext does no harm. After
 * any other result of writing a record the context is a plain handle on the parent's file:
 * messages through it go on, without the token, and zoltLogDestroyContext, which has to be
 * called, gives ZOLTLOG_FAILED.
 */
uint32_t zoltLogCreateContext(LogHandle *parent, LogHandle *context, const char *token, int64_t messageNumber,
                              const char *format, ...) ZOLTLOG_PRINTF(5, 6);
/*
 * Closes a context; no record tells it. Contexts may be closed in any order, also
 * after the parent; the file is closed with its last handle. zoltLogClose is not
 * for contexts. ZOLTLOG_INVALID_ARGUMENT for null or a context that has no file;
 * ZOLTLOG_FAILED for one whose record could not be written. It takes as long as
 * zoltLogCreateContext, however many contexts are open: no longer than a message.
 */
uint32_t zoltLogDestroyContext(LogHandle *context);
/*
 * The result code for a result of the localization library (zoltlis.h): of ZOLTLIS_OK
 * ZOLTLOG_OK, of ZOLTLIS_INVALID_ARGUMENT ZOLTLOG_INVALID_ARGUMENT, of ZOLTLIS_NO_MEMORY
 * ZOLTLOG_NO_MEMORY, of ZOLTLIS_FAILED ZOLTLOG_LIS_FAILED, of any other ZOLTLOG_LIS_OTHER.
 */
uint32_t zoltLogMapLisResToLoggingRes(int32_t lisResult);

/* ---- record encoding ----------------------------------------- */

/*
 * Encodes the message as one record: a line of UTF-8 that ends in a line feed and
 * holds no other (docs/format-log-file.md has the grammar). The caller has set
 * recordVersion, a ZOLTLOG_RECORD_VERSION_..., and fileOriginatorId when that is
 * ZOLTLOG_RECORD_VERSION_ORIGINATOR. The buffer need not be initialised. Takes no lock. A
 * record without a localization block needs no memory when its texts are plain ASCII, or
 * UTF-8 already, and have at most 3800 bytes together.
 *
 * On ZOLTLOG_OK the record is the first capacity - free bytes at data, and the
 * caller releases the buffer with free_text_msg. After a failure the buffer is
 * released already; releasing it again does no harm.
 *
 * A text that cannot be converted to UTF-8 is written as
 * "**UNABLE TO PROCESS LOG MESSAGE**" and is no failure.
 *
 *   ZOLTLOG_FAILED            other record version; secure audit or unknown message
 *                             type; no ZOLTLOG_SEVERITY_...; a localization block that
 *                             cannot be read, or holds an argument of unknown kind
 *                             or a wide text that is none
 *   ZOLTLOG_INVALID_ARGUMENT  null message or buffer
 *   ZOLTLOG_NO_MEMORY         the buffer cannot grow
 */
uint32_t zoltLogMsgSerialize(LogMsg *msg, TextBuffer *buffer);

/*
 * The growable buffer of records. It starts in its own 4096 bytes, and moves to the
 * heap when it grows: by 4096 bytes, and by the reservation too when that is not
 * enough. It must not be copied or moved while in use.
 *
 * text_msg_alloc reserves n bytes at the end and returns where they are, until the
 * next call; null when memory runs out, which empties a buffer on the heap.
 * remove_trailing_comma drops the last byte when it is a comma. mark_end_of_txt_msg
 * makes every line feed a carriage return and appends one line feed
 * (ZOLTLOG_NO_MEMORY when it cannot). free_text_msg leaves an empty buffer.
 * bin2txt_int appends the number and a comma; bin2txt_sev a severity and a comma, or
 * is ZOLTLOG_FAILED above ZOLTLOG_SEVERITY_EMERGENCY; both ZOLTLOG_NO_MEMORY.
 */
void init_text_msg(TextBuffer *buffer);
char *text_msg_alloc(TextBuffer *buffer, uint64_t n);
void remove_trailing_comma(TextBuffer *buffer);
uint32_t mark_end_of_txt_msg(TextBuffer *buffer);
void free_text_msg(TextBuffer *buffer);
uint32_t bin2txt_int(int32_t value, TextBuffer *buffer);
uint32_t bin2txt_sev(uint32_t severity, TextBuffer *buffer);

/* ---- log files --------------------------------------- */

/*
 * Log files come in series: one per product, originator and host, and one per product
 * and log set. docs/format-log-file.md describes names, headers and records.
 *
 * Fills a header for a new file of the state's series: ids, the time now, the time zone
 * offset, and the host's name, of which 512 bytes are kept. Null pointers: nothing
 * happens, or the name is empty. Takes no lock.
 */
void InitializeFileHeader(LogFileHeader *header, const LogFileState *state, const char *hostName);

/*
 * Writes the header's line to the state's open file, with one write. A line feed in the
 * host's name becomes a carriage return. ZOLTLOG_FAILED for a version outside
 * ZOLTLOG_RECORD_VERSION_OLDEST to ZOLTLOG_RECORD_VERSION_LOGSET, and when the line cannot
 * be written whole; ZOLTLOG_INVALID_ARGUMENT for a null pointer. Takes no lock.
 */
uint32_t WriteFileHeader(LogFileState *state, const LogFileHeader *header);

/*
 * What zoltLogOpen2 does once the settings are read: handle->file is a zero-filled file
 * state from zoltLogMalloc with file.descriptor -1, which the handle owns from then on;
 * fileCfg's settings go into the state, originatorCfg's into the handle. A state of the
 * same originator series that is open already is used instead, with its settings
 * replaced; only one such state is remembered at a time, of the others each handle has
 * its own. Both records may be the same and stay the caller's.
 *
 * Missing directories are made with the permissions of their parents. A file appears
 * under its name with its header line in it and the exact permissions of the settings,
 * whatever the umask; symbolic links, FIFOs, sockets and directories are refused, never
 * followed, and never waited for; so is, in a directory that all may write, a file that
 * belongs neither to the effective user nor to the directory's owner nor to root. A latest
 * file that ends inside a line is continued on a new line; one without a header that this
 * writer makes is left at the first message; one that may only be written is continued as
 * if it had been started now.
 *
 * The host's number is looked up before the lock is taken, unless the series is open
 * already. The open file carries a shared flock and, for moments, locks of bytes far behind
 * its end, by which other writers know of this one (docs/promises.md).
 *
 *   ZOLTLOG_INVALID_ARGUMENT  null pointer, no state, a log set without a name
 *   ZOLTLOG_NO_DIRECTORY      fileCfg has no log directory
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_FAILED            a directory cannot be made, the host's name or number
 *                             cannot be told, the header cannot be written
 *   ZOLTLOG_OPEN_DENIED       permission denied
 *   ZOLTLOG_OPEN_NO_PATH      a directory of the path does not exist
 *   ZOLTLOG_OPEN_FAILED       any other reason, also a name that is too long or taken by
 *                             what is no file
 */
uint32_t zoltLogOpenFile(LogHandle *handle, LogCfg *originatorCfg, LogCfg *fileCfg);

/*
 * Appends one record with one write, in a new file if a rollover is due: by size when
 * the record would bring the file to maxFileSizeKB or past it, by local time once a day,
 * or by period. Several processes may write one series at the same time. The open
 * contexts of an originator's series are written again at the top of each new file; a
 * log set's files do not have them. A rollover whose next name is free goes on at the latest
 * file of the series when others have brought that further than this writer. A file that
 * was removed is left, and the record written into the next one, when the file was not
 * looked at for 0.9 seconds. Ten minutes after it was opened, by the messages' time stamps,
 * the file is opened anew by name, so that one that others moved is replaced by one with a
 * header; for a log set this starts a new file each time.
 *
 * The names of a log set's files tell the second: when a file is full within its second
 * the call waits for the next one, at most two seconds, with the lock held, and writes
 * into the full file after that.
 *
 * Takes no lock: the caller holds zoltLogMutex, as zoltLogMsg does.
 *
 *   ZOLTLOG_NO_FILE_STATE  null state
 *   ZOLTLOG_FAILED         null message
 *   ZOLTLOG_DEVICE_FULL    the write failed, and errorCode says that a device was full,
 *                          then or earlier in this process
 *   ZOLTLOG_WRITE_FAILED   the write failed otherwise, or only a part was written (the
 *                          next record starts on a line of its own); or a rollover failed
 *                          and no file is open: each message tries again
 *   and those of zoltLogMsgSerialize, after which nothing was written
 *
 * Beyond the process's file size limit (RLIMIT_FSIZE) the system ends the process with
 * SIGXFSZ, unless that is ignored: then it is ZOLTLOG_WRITE_FAILED.
 */
uint32_t zoltLogWriteMsgWithRolloverToFile(LogFileState *state, LogMsg *msg);

/*
 * Takes the handle off its file, which is closed and its state freed with the last one;
 * the handle has no file afterwards. ZOLTLOG_INVALID_ARGUMENT for a null handle or one
 * without a file; ZOLTLOG_FAILED when the state did not know the handle.
 */
uint32_t zoltLogCloseFile(LogHandle *handle);

/*
 * Makes context a context handle of parent's file and settings and writes msg, a context
 * record made with parent, through it. The message is moved into the handle, also when
 * the write fails (msg may be &context->contextMsg itself); everything else in the record
 * is overwritten. The token of an enclosing context is copied. zoltLogDestroyContext
 * releases all of it.
 *
 * ZOLTLOG_INVALID_ARGUMENT for null pointers or a context that is its own parent,
 * ZOLTLOG_NO_MEMORY, and the results of zoltLogWriteMsgWithRolloverToFile, after which
 * the context has no file.
 */
uint32_t zoltLogCreateContextToFile(LogHandle *parent, LogHandle *context, LogMsg *msg);

/* 1 for the modes that a series can have: none, size, local time, period, or size with one
 * of the latter two. 0 for any other, with which a series does not roll over at all. */
int32_t IsValidRolloverMode(uint32_t mode);

/* ---- configuration record -------------------------------------- */

/* A LogCfg holds every setting of one originator or log set of a product. It belongs to
 * its caller; InitLogCfg or a reading operation fills it, zoltLogFreeCfg releases what it
 * owns. These operations take no lock: a record belongs to the calling thread.
 *
 * InitLogCfg sets the defaults; with a log set name (an empty one is a name) the record
 * is a log set's. What the record held is forgotten, not freed.
 * ZOLTLOG_INVALID_ARGUMENT: null record; ZOLTLOG_NO_MEMORY.
 * CopyCfg copies what further originators inherit: not recycling, the reload interval,
 * the system-log option, the secure audit level and what belongs to a log set; both masks
 * of the copy are 0. ZOLTLOG_INVALID_ARGUMENT: null; ZOLTLOG_NO_MEMORY: the copy is empty.
 * zoltLogFreeCfg frees the owned texts and zeroes the record. ZOLTLOG_INVALID_ARGUMENT: null.
 * CopyFileSecuritySetting, FreeFileSecuritySetting: 0, or 0xFFFFFFFF for null.
 * IsDefaultOriginator, IsDefaultLogSet: 1 for ZOLTLOG_DEFAULT_ORIGINATOR and "Default", else 0.
 * LogCfgGetShortNames hands out the first of the product's names (low 16 bits of the
 * selector ZOLTLOG_ATTR_PRODUCT_ID) or else of the originator's: up to the first comma, or
 * blank where there is no comma; null with ZOLTLOG_OK when there are none.
 * ZOLTLOG_INVALID_ARGUMENT: null; ZOLTLOG_NO_MEMORY. */
uint32_t InitLogCfg(uint64_t productId, uint64_t originatorId, const char *logsetName, LogCfg *cfg);
uint32_t CopyCfg(LogCfg *destination, const LogCfg *source);
uint32_t zoltLogFreeCfg(LogCfg *cfg);
uint32_t CopyFileSecuritySetting(FileSecuritySetting *destination, uint32_t mode);
uint32_t FreeFileSecuritySetting(FileSecuritySetting *setting);
int32_t IsDefaultOriginator(uint64_t originatorId);
int32_t IsDefaultLogSet(const char *name);
uint32_t LogCfgGetShortNames(LogCfg *cfg, uint32_t selector, char **out);
/* Rollover modes and the words of the configuration file. The first finds "FileSize",
 * "LocalTime" and "Periodic" anywhere in a text (null: ZOLTLOG_ROLLOVER_NONE); LocalTime
 * excludes Periodic.
 * The second appends "None" or words joined by " | " to the text in the buffer, which
 * needs 32 bytes of room, and returns the buffer. */
uint32_t SettingStringToRolloverModeEnum(const char *text);
char *RolloverModeEnumToSettingString(uint32_t mode, char *buffer);

/* Accessors. Each Set, Enable and Disable marks its setting in the record's changedMask,
 * for the writing operations; a rejected value changes nothing. Nothing sets removedMask
 * but the caller. Results: ZOLTLOG_OK; ZOLTLOG_INVALID_ARGUMENT for a null argument or a
 * value out of range.
 *
 *   RolloverMode        ZOLTLOG_ROLLOVER_... that go together (IsValidRolloverMode)
 *   MaxFileSize         kilobytes, not 0
 *   RolloverPeriod      seconds, not 0
 *   RolloverTime        seconds after local midnight, not checked
 *   NumberOfLogFiles    not 0
 *   DebugLevel, DiagLevel  ZOLTLOG_LEVEL_NONE to ZOLTLOG_LEVEL_LAST
 *   DynaSetting         seconds between reload checks, below 2^31; 0 for never
 *   LogRecycling, LogToStdout, LogToStderr, LogToOslog, LogToOslogX  switches;
 *                       OslogX marks nothing
 *   AppMsgLogging       a switch; marks every setting but the directory
 *   Flags               ZOLTLOG_OUT_... bits, the four switches at once; not negative */
uint32_t zoltLogCfgSetRolloverMode(LogCfg *cfg, uint32_t mode);
uint32_t zoltLogCfgGetRolloverMode(LogCfg *cfg, uint32_t *mode);
uint32_t zoltLogCfgSetMaxFileSize(LogCfg *cfg, uint64_t kilobytes);
uint32_t zoltLogCfgGetMaxFileSize(LogCfg *cfg, uint64_t *kilobytes);
uint32_t zoltLogCfgSetRolloverPeriod(LogCfg *cfg, uint64_t seconds);
uint32_t zoltLogCfgGetRolloverPeriod(LogCfg *cfg, uint64_t *seconds);
uint32_t zoltLogCfgSetRolloverTime(LogCfg *cfg, uint64_t seconds);
uint32_t zoltLogCfgGetRolloverTime(LogCfg *cfg, uint64_t *seconds);
uint32_t zoltLogCfgSetNumberOfLogFiles(LogCfg *cfg, uint64_t count);
uint32_t zoltLogCfgGetNumberOfLogFiles(LogCfg *cfg, uint64_t *count);
uint32_t zoltLogCfgSetDebugLevel(LogCfg *cfg, uint32_t level);
uint32_t zoltLogCfgGetDebugLevel(LogCfg *cfg, uint32_t *level);
uint32_t zoltLogCfgSetDiagLevel(LogCfg *cfg, uint32_t level);
uint32_t zoltLogCfgGetDiagLevel(LogCfg *cfg, uint32_t *level);
uint32_t zoltLogCfgSetDynaSetting(LogCfg *cfg, uint32_t seconds);
uint32_t zoltLogCfgGetDynaSetting(LogCfg *cfg, uint32_t *seconds);
uint32_t zoltLogCfgEnableLogRecycling(LogCfg *cfg);
uint32_t zoltLogCfgDisableLogRecycling(LogCfg *cfg);
uint32_t zoltLogCfgEnableAppMsgLogging(LogCfg *cfg);
uint32_t zoltLogCfgDisableAppMsgLogging(LogCfg *cfg);
uint32_t zoltLogCfgEnableLogToStdout(LogCfg *cfg);
uint32_t zoltLogCfgDisableLogToStdout(LogCfg *cfg);
uint32_t zoltLogCfgEnableLogToStderr(LogCfg *cfg);
uint32_t zoltLogCfgDisableLogToStderr(LogCfg *cfg);
uint32_t zoltLogCfgEnableLogToOslog(LogCfg *cfg);
uint32_t zoltLogCfgDisableLogToOslog(LogCfg *cfg);
uint32_t zoltLogCfgEnableLogToOslogX(LogCfg *cfg);
uint32_t zoltLogCfgDisableLogToOslogX(LogCfg *cfg);
uint32_t zoltLogCfgSetFlags(LogCfg *cfg, int32_t flags);
uint32_t zoltLogCfgGetFlags(LogCfg *cfg, uint32_t *flags);
/* Texts. A setter stores a copy and may be given the field's own text;
 * ZOLTLOG_INVALID_ARGUMENT for null or an empty text, ZOLTLOG_NO_MEMORY. A getter hands out a
 * copy, or null with ZOLTLOG_OK when the text is unset; ZOLTLOG_NO_MEMORY.
 * zoltLogCfgGetL10nLib hands out the library's file name ("libx" gives "libx.so.3") and
 * returns ZOLTLOG_NO_MEMORY with null when it is unset. */
uint32_t zoltLogCfgSetL10nLib(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetL10nLib(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetL10nResource(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetL10nResource(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetL10nResourceDir(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetL10nResourceDir(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetLogsetFilename(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetLogsetFilename(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetLogsetOIDappMsgLogging(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetLogsetOIDOIDappMsgLogging(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetLogsetOIDDebugLogging(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetLogsetOIDDebugLogging(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetLogsetOIDDiagLogging(LogCfg *cfg, const char *text);
uint32_t zoltLogCfgGetLogsetOIDDiagLogging(LogCfg *cfg, char **out);
/* The log directory. "/" is added at the end when missing, each doubled backslash becomes
 * one. The text goes to the start of the field, or to the destination in it.
 * ZOLTLOG_INVALID_ARGUMENT when it is null or empty, does not fit, or the destination is
 * elsewhere. The getter hands out a copy (null, also with ZOLTLOG_OK, when memory runs out). */
uint32_t zoltLogCfgSetDirectory(LogCfg *cfg, const char *path,
                                char *destination); /* destination: null, or inside cfg->directory */
uint32_t zoltLogCfgGetDirectory(LogCfg *cfg, char **out);

/* ---- configuration files ------------------------------- */

/* The main file: what ZOLTLOG_CFG_LOC named at the first call (not in set-user-id
 * programs), else "/etc/qd/zoltlog.conf". The text stays the library's. */
const char *GetZoltLogCfgLoc(void);
/* Reading. Each fills a fresh record (do not pass one that owns texts): the defaults, then
 * the "Default" section, then the own one. Invalid values are skipped; changedMask is 0.
 * Release the record with zoltLogFreeCfg whatever the result.
 *
 * zoltLogReadCfg reads an originator, zoltLogReadlogsetCfg a log set. Sections of an
 * originator may be absent.
 *   ZOLTLOG_INVALID_ARGUMENT  an invalid id or name, or a null record
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_CFG_NOT_FOUND     the product is not registered (the record keeps the defaults),
 *                             a file is there and cannot be read, or no key was found for
 *                             the log set. A product's file that is not there is empty */
uint32_t zoltLogReadCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg);
uint32_t zoltLogReadlogsetCfg(uint64_t productId, const char *logsetName, LogCfg *cfg);
/* Reading all records of one product, or of all, into an array of capacity pointers. Each
 * record is the caller's: zoltLogFreeCfg, then zoltLogFree. *count is set also on failure.
 * A null location means the main file. Inherited by copy, further records lack what
 * CopyCfg leaves out.
 *   ZOLTLOG_INVALID_ARGUMENT  null array or count
 *   ZOLTLOG_NO_MEMORY         the records read so far stay in the array
 *   ZOLTLOG_CFG_NOT_FOUND     the product has no "Configuration"
 *   ZOLTLOG_NO_PRODUCT_CFG    nothing found, also when the main file cannot be opened */
uint32_t zoltLogReadProdIDCfg(const char *location, uint64_t productId, uint32_t capacity, LogCfg **cfgs,
                              uint32_t *count);
uint32_t zoltLogReadAllCfg(const char *location, uint32_t capacity, LogCfg **cfgs, uint32_t *count);
/* Resource directory of the tools, a copy. ZOLTLOG_INVALID_ARGUMENT: null;
 * ZOLTLOG_CFG_NOT_FOUND: not configured. */
uint32_t zoltLogCfgGetToolsResDir(char **out);
/* Single texts of a file: by section and key; a product's "Configuration" and "Names". A
 * copy is handed out. ZOLTLOG_INVALID_ARGUMENT: null output; ZOLTLOG_NO_MEMORY;
 * ZOLTLOG_CFG_NOT_FOUND: the file does not open or cannot be read, the key is absent or its text cannot be
 * converted. No lock is taken. */
uint32_t GetPropertyString(const char *file, const char *section, const char *key, char **out);
uint32_t GetProductCfgPath(const char *file, uint64_t productId, char **out);
uint32_t GetProductShortName(const char *file, uint64_t productId, char **out);
/* Steps of reading, for callers that hold the lock. GetOriginatorCfgSettings reads one
 * section over a record: ZOLTLOG_OK also when there is none. GetLogSetCfgSettings does so for
 * a log set and returns the number of keys found; it replaces the record's log set name.
 * GetOriginatorCfg and GetLogsetCfg append every record of a kind to an array and return
 * results of the property store: ZOLTLOG_STORE_OK, ZOLTLOG_STORE_NO_FILE when the file does
 * not open, ZOLTLOG_STORE_NOT_WRITTEN when memory runs out; ZOLTLOG_INVALID_ARGUMENT for
 * null. */
uint32_t GetOriginatorCfgSettings(const char *productFile, const char *section, LogCfg *cfg);
uint32_t GetLogSetCfgSettings(const char *location, const char *logsetName, LogCfg *cfg);
uint32_t GetOriginatorCfg(const char *productFile, uint64_t productId, const char *shortNames,
                          uint32_t capacity, LogCfg **cfgs, uint32_t *count);
uint32_t GetLogsetCfg(const char *productFile, uint64_t productId, const char *shortNames, uint32_t capacity,
                      LogCfg **cfgs, uint32_t *count);
/* The result code for a result of the property store:
 *   ZOLTLOG_STORE_OK                              ZOLTLOG_OK
 *   ZOLTLOG_STORE_INVALID_ARGUMENT                ZOLTLOG_INVALID_ARGUMENT
 *   ZOLTLOG_STORE_NO_FILE, _NOT_FOUND, _4         ZOLTLOG_CFG_NOT_FOUND
 *   ZOLTLOG_STORE_NOT_CREATED                     ZOLTLOG_CFG_CREATE_FAILED
 *   ZOLTLOG_STORE_NO_MORE                         ZOLTLOG_NO_MORE
 *   ZOLTLOG_STORE_NO_SECTION                      ZOLTLOG_SECTION_NOT_FOUND
 *   ZOLTLOG_STORE_9                               ZOLTLOG_NOTHING_TO_WRITE
 *   ZOLTLOG_STORE_10                              ZOLTLOG_STORE_RESULT_10
 *   ZOLTLOG_STORE_NOT_WRITTEN, any other number   ZOLTLOG_FAILED */
uint32_t utipsres2zoltlogres(uint32_t storeResult);
/* Writing. The settings that a record's changedMask marks are written into its section,
 * those that removedMask marks are removed from it; removal wins. A call is one safe rewrite
 * of the file, or changes nothing. Texts that are null are not written. "AppMsgLogging" is
 * written with every change but the directory's alone.
 *
 * Writers of a file follow one another, also those of other processes; a call waits for the
 * others ten seconds at most, without the library's lock. A file that this process has read
 * and that is gone is not begun anew; that of a new product is made.
 *
 * A written "FileName" leaves the system-log and permission keys to another call.
 *   ZOLTLOG_INVALID_ARGUMENT   an invalid id or name, a null record, a text with a line feed,
 *                              a line of more than 499 bytes, a log set name with '=', '.',
 *                              '/', a control character or a blank at an end
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_CFG_NOT_FOUND      the product is not registered or, for an originator, its file
 *                              cannot be opened or made
 *   ZOLTLOG_FAILED             writing failed or another writer did not finish, the old file
 *                              stands; for a log set also: its file cannot be opened or made
 *   ZOLTLOG_CFG_CREATE_FAILED  the new file cannot be made, or not with the old one's owner
 *                              and access list
 *   ZOLTLOG_NOTHING_TO_WRITE   of a log set: nothing is marked, or the removal of "FileName" */
uint32_t zoltLogWriteCfg(uint64_t productId, uint64_t originatorId, LogCfg *cfg);
uint32_t zoltLogWritelogSetCfg(uint64_t productId, const char *logsetName, LogCfg *cfg);
/* Registers a product in the main file, which is made if missing, and unregisters one,
 * with all keys of its section; its own file stays. The main file goes with its last
 * section.
 *   ZOLTLOG_INVALID_ARGUMENT  an invalid id, null, a line feed or a line of more than 499 bytes
 *   ZOLTLOG_PRODUCT_EXISTS    it is registered already, maybe a moment ago by another process
 *   ZOLTLOG_CFG_NOT_FOUND     the main file cannot be opened or made, or the product is not
 *                             registered
 *   and those of writing */
uint32_t zoltLogAddProductCfg(uint64_t productId, const char *names, const char *location);
uint32_t zoltLogRemoveProductCfg(uint64_t productId);
/* Opens a section for writing; the file is made, with its directory, if there is none. Of
 * a symbolic link the file behind it is opened, or made. ZOLTLOG_INVALID_ARGUMENT: null store;
 * ZOLTLOG_NO_MEMORY; ZOLTLOG_CFG_NOT_FOUND: any other failure. The caller closes the store. RemoveProductRoot
 * removes what is left of a product's section, and the main file if no section is left in it (result of the
 * property store). IsThisLastProductConfiguration: 1 when the main file opens and holds no section. */
uint32_t CreatePropertyString(const char *location, const char *section, PropertyStore *store);
uint32_t RemoveProductRoot(PropertyStore *store, uint64_t productId);
int32_t IsThisLastProductConfiguration(void);
/* Lets a handle's levels and reload interval follow the product's file: at most once per
 * interval (60 seconds at least) it is read again if its modification time has changed. A
 * reload that fails changes nothing and is tried again at the next interval. Always ZOLTLOG_OK. Cheap when
 * nothing is due: no system call, and no time call when the interval is 0. The lock is taken for reading and
 * adopting only. */
uint32_t zoltDynaLoadConfig(LogHandle *handle);
/* The product's own switch in the main file: 1 for "true". ZOLTLOG_INVALID_ARGUMENT: null
 * output; ZOLTLOG_CFG_NOT_FOUND: it is not there. */
uint32_t GetProductLoggingLevel(const char *location, uint64_t productId, uint32_t *enabled);

/* System-log settings and log file permissions, as the accessors above. An identity is cut
 * to 80 bytes and then has no terminator in the record. Permissions are accepted below 778
 * when the last two decimal digits are at most 79 and the last one at most 7: 0660, 0640,
 * 0644 and 0777 are, 0755 and 0600 are not (ZOLTLOG_INVALID_ARGUMENT). Facilities are not
 * checked. */
uint32_t zoltLogCfgSetSyslogFacility(LogCfg *cfg, uint32_t facility);
uint32_t zoltLogCfgGetSyslogFacility(LogCfg *cfg, uint32_t *facility);
uint32_t zoltLogCfgSetSyslogOpt(LogCfg *cfg, uint32_t option);
uint32_t zoltLogCfgGetSyslogOpt(LogCfg *cfg, uint32_t *option);
uint32_t zoltLogCfgSetSyslogIdent(LogCfg *cfg, const char *ident);
uint32_t zoltLogCfgGetSyslogIdent(LogCfg *cfg, char **out);
uint32_t zoltLogCfgSetLogFilePermissions(LogCfg *cfg, uint64_t mode);
uint32_t zoltLogCfgGetLogFilePermissions(LogCfg *cfg, uint64_t *mode);
/* "LOG_USER" and LOG_USER, and so on; 0 for a name that is null or unknown, null for a
 * number without a name. */
uint32_t strToFacility(const char *name);
const char *facilityToStr(uint32_t facility);
/* The four keys of a section that belong to the operating system; results of the property
 * store, ZOLTLOG_STORE_INVALID_ARGUMENT for null. Reading adds the number of keys found to
 * the counter and gives ZOLTLOG_STORE_NOT_FOUND when "LogFilePermissions" is absent. Writing gives the result
 * of the last change made. */
uint32_t osGetCfgSettings(LogCfg *cfg, PropertyStore *section, uint32_t *counter);
uint32_t osSetCfgSettings(LogCfg *cfg, PropertyStore *section);

/* ---- property store: (each also exists with the suffix File) ----- */

/* One section (root) of a file of lines "section.name=value"; docs/format-config.md has the
 * syntax. The handle belongs to its caller and to one thread; no lock is taken in the
 * process. Results are ZOLTLOG_STORE_...:
 *   _INVALID_ARGUMENT  null argument, closed handle or a line feed in a text
 *   _NO_FILE           the file cannot be opened, or has more than 16,777,216 bytes (errno: EFBIG)
 *   _NOT_FOUND         the property is not there or cannot be converted
 *   _NOT_CREATED       the file, its directory or its temporary file cannot be made
 *   _NOT_WRITTEN       writing, renaming or removing failed, the file would have more than
 *                      16,777,216 bytes, or the buffer is too small
 *   _NO_MORE           no further name
 *   _NO_SECTION        no such section
 *
 * Open and Create open a section; Create empties or makes the file, with its directory, and
 * needs a "/" in the path. Root and path are kept up to 399 bytes; a path longer than 395
 * cannot be changed (_NOT_CREATED). Close may be called again.
 * CreateTmp makes path + ".tmp" anew, with the mode and owner of the file at path, and takes no lock.
 * Set and Remove rewrite the file safely: they wait for other writers (ten seconds at most),
 * read it anew, write the new file (path + ".tmp") to the disk and rename it, or make the
 * change again when somebody else has changed the file meanwhile; after a failure the file
 * and the handle are as before. A file that has gone since the handle was opened is waited
 * for half a second; then the change is refused (_NOT_WRITTEN). A last line without a line
 * feed gets one before a line is added. Owner, mode and access list are the old file's or the
 * change is refused (_NOT_CREATED). They then open the handle anew.
 * RemoveRoot removes a section, or the file itself that a text with ".conf" in it names.
 * Get gives the first line of the key. A text is a new block without trailing spaces, a
 * number is decimal, a flag is 1 for "true" alone.
 * The enumerations go on from the stream's place: *size is the buffer's size and becomes
 * the name's length, the buffer holds the name given before, empty at first. */

uint32_t utiOpenPropertyStore(const char *path, const char *root, PropertyStore *store);
uint32_t utiCreatePropertyStore(const char *path, const char *root, PropertyStore *store);
uint32_t utiClosePropertyStore(PropertyStore *store);
uint32_t utiCreateTmpPropertyStore(const char *path, const char *root, PropertyStore *store);
uint32_t utiRemoveProperty(PropertyStore *store, const char *name);
uint32_t utiRemovePropertyRoot(PropertyStore *store, const char *section);
uint32_t utiGetPropertyAsUlong(PropertyStore *store, const char *name, unsigned long *out);
uint32_t utiSetPropertyAsUlong(PropertyStore *store, const char *name, const unsigned long *value);
uint32_t utiGetPropertyAsBool(PropertyStore *store, const char *name, uint32_t *out);
uint32_t utiSetPropertyAsBool(PropertyStore *store, const char *name, const uint32_t *value);
uint32_t utiGetPropertyAsStr(PropertyStore *store, const char *name, char **out);
uint32_t utiSetPropertyAsStr(PropertyStore *store, const char *name, const char *text);
int32_t Iscomment(const char *line);
uint32_t utiEnumProductId(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size);
uint32_t utiEnumLogsetForProductId(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size);

uint32_t utiOpenPropertyStoreFile(const char *path, const char *root, PropertyStore *store);
uint32_t utiCreatePropertyStoreFile(const char *path, const char *root, PropertyStore *store);
uint32_t utiClosePropertyStoreFile(PropertyStore *store);
uint32_t utiCreateTmpPropertyStoreFile(const char *path, const char *root, PropertyStore *store);
uint32_t utiRemovePropertyFile(PropertyStore *store, const char *name);
uint32_t utiRemovePropertyRootFile(PropertyStore *store, const char *section);
uint32_t utiGetPropertyAsUlongFile(PropertyStore *store, const char *name, unsigned long *out);
uint32_t utiSetPropertyAsUlongFile(PropertyStore *store, const char *name, const unsigned long *value);
uint32_t utiGetPropertyAsBoolFile(PropertyStore *store, const char *name, uint32_t *out);
uint32_t utiSetPropertyAsBoolFile(PropertyStore *store, const char *name, const uint32_t *value);
uint32_t utiGetPropertyAsStrFile(PropertyStore *store, const char *name, char **out);
uint32_t utiSetPropertyAsStrFile(PropertyStore *store, const char *name, const char *text);
int32_t IscommentFile(const char *line);
uint32_t utiEnumProductIdFile(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size);
uint32_t utiEnumLogsetForProductIdFile(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size);

/* ---- catalogue and reading ------------------------------ */

/*
 * None of these takes a lock: their arguments belong to the calling thread.
 */

/*
 * Appends the next line of an open file to an initialised buffer: without its line
 * feed, with a terminating NUL, each carriage return as a line feed (which brings
 * back the line feeds of a record's texts). Returns 1; 0 at the end of the file,
 * also when the last line has no line feed; negative when reading fails or memory
 * runs out, or for a null pointer.
 */
int32_t readrecord(OsFile *file, TextBuffer *buffer);

/*
 * Reads the header line of a file that was just opened, ReadHeader through the entry's own
 * open file. Both zero the header first, tzOffset is -1 when the line has none, and
 * fields that a short line lacks stay so. A host name is cut to 511 bytes and ends at
 * a blank. ReadHeader also sets the entry's headerVersion and tzOffset.
 *
 *   ZOLTLOG_FAILED              no line (of 65536 bytes at most), or it does not
 *                               begin with the word "$Header"; ReadHeader leaves the
 *                               header alone when the file has no line at all
 *   ZOLTLOG_INVALID_ARGUMENT    null pointer
 *   ZOLTLOG_UNSUPPORTED_HEADER  no version, or one outside ZOLTLOG_RECORD_VERSION_OLDEST to
 *                               ZOLTLOG_RECORD_VERSION_LOGSET
 */
uint32_t ReadHeaderEx(OsFile *file, LogFileHeader *header);
uint32_t ReadHeader(LogFileEntry *entry, LogFileHeader *header);

/*
 * A new entry for the file that the cursor stands on, closed, without directory,
 * with the creation time of its header; null when memory runs out. The caller
 * releases it with zoltLogFree: it is one block.
 */
LogFileEntry *alloc_file(OsLogFileCursor *cursor);

/*
 * Split a file name at its hyphens. An output whose part is missing is left alone,
 * so the caller zeroes the outputs first. Ids are read as strtol reads them.
 *
 * getidfromfilename gives product and originator id of an originator's file; 1 when
 * both are then not 0, else 0. getSLidfromfilename gives product id, name and the
 * twelve digits of date and time of a log set's file; 1 when the id is then not 0
 * and the name not empty, else 0. logsetName has room for 1025 bytes, dateTime for
 * 13. A log set name that holds a hyphen is cut there. 0 for a null pointer.
 */
int32_t getidfromfilename(const char *name, uint64_t *productId, uint64_t *originatorId);
int32_t getSLidfromfilename(const char *name, uint64_t *productId, char *logsetName, char *dateTime);

/*
 * The host name in the header of the file that the cursor stands on, found at
 * directory directly followed by its name. hostName has room for 512 bytes. 1, with
 * an empty name when the file has no valid header; 0 when it cannot be opened.
 */
int32_t getHostnameFromFile(OsLogFileCursor *cursor, const char *directory, char *hostName);

/*
 * Reads a text of three numbers, year-month-day, as struct tm has them: the year less
 * 1900, the month less 1. Missing numbers count as 0. 1, or 0 for a null pointer or
 * without memory.
 */
int32_t zoltLogGetDate(const char *text, int32_t *day, int32_t *month, int32_t *year);

/*
 * Seconds since the epoch of a text with hours:minutes:seconds, which mean today in
 * local standard time, or with hyphens: three numbers of which, by an old mistake that
 * programs rely on, the first less 1900 is the day, the second the month and the
 * third the year less 1900. "20-03-2015" is thus not a day of 2015. -1 for any other
 * text, a null one, or without memory.
 */
int64_t zoltLogStrDateTimeToT(const char *text);

/*
 * The latest file of a series in a directory, whose path ends in "/": of a product
 * and originator on this host, by date and counter of the names, or of a product and
 * log set, by date and time of the names. from and to are not used. One pass over
 * the directory; no file but the one found is opened.
 *
 * 1 with a new entry, which the caller releases with zoltLogFree; its creation time is
 * that of its header, or for a log set that of its name. Otherwise 0 and *out is
 * null: no such file, no such directory, no memory.
 */
int32_t zoltLogFindLatestLog(const char *directory, uint64_t productId, uint64_t originatorId, uint64_t from,
                             uint64_t to, LogFileEntry **out);
int32_t zoltLogFindLatestLogSL(const char *directory, uint64_t productId, const char *logsetName,
                               uint64_t from, uint64_t to, LogFileEntry **out);

/*
 * Listing and queries. None of these takes the lock: the listing, the configurations
 * and the tree belong to the calling thread, and one tree must not be evaluated by
 * two threads at once, since evaluating writes into it.
 *
 * GetLogFiles: puts the log files of the configurations (of an originator, or of a
 * log set when isLogset is 1) into listing->files, by ascending creation time, and
 * the fetch position at its head. listing->query, when set, selects files by name,
 * host and times (below). A file is listed once, also when several configurations
 * name its directory by the same text. The creation time is the header's, 0 when the
 * file cannot be read; of a log set's file it is the date and time of its name. Files
 * of one second come in an order fixed by their paths, not by age. Left out silently:
 * names that are not of the series, directories that cannot be listed, files modified
 * more than 86400 seconds in the future, and files that cannot be opened when the
 * query has a term of value ZOLTLOG_ATTR_HOST_NAME. Files of all hosts are listed. The
 * caller frees each entry with zoltLogFree; the listing's other fields are left alone.
 *   ZOLTLOG_INVALID_ARGUMENT  no array or listing
 *   ZOLTLOG_NO_LOG_FILES      no file was listed (files is then null)
 *   ZOLTLOG_FAILED            the listing could not be made. When memory runs out within a
 *                             directory the rest of that directory is missing from the
 *                             list and the result is ZOLTLOG_OK.
 * list_log_files: the same without the fetch position; 0 listed, 1 nothing listed or
 * count 0, -1 no listing.
 */
uint32_t GetLogFiles(LogCfg **cfgs, uint32_t count, LogListing *listing);
int32_t list_log_files(LogListing *listing, LogCfg **cfgs, uint32_t count);

/*
 * Query trees, built by the caller from LogQueryNode. A term (ZOLTLOG_TERM_...) has a value
 * and no operands, an operator (ZOLTLOG_OP_...) two operands. Numbers are compared as
 * unsigned 64-bit ones; texts know ZOLTLOG_OP_EQUAL and ZOLTLOG_OP_NOT_EQUAL only; any other
 * operator is false. slot is written by the evaluation and is 0 in a new tree; the same
 * tree may be evaluated again and again. A tree of more than 199 operators passes no file.
 *
 *   ZOLTLOG_ATTR_...      when listing                       when fetching (from the header)
 *   _PRODUCT_ID           product id of the name             product id
 *   _ORIGINATOR_ID        true                               originator id
 *   _FILE_ORIGINATOR_ID   originator id of the name,         false
 *                         0 for a log set's file
 *   _TIME                 creation time, or else             the same
 *                         modification
 *   _CREATION_TIME        creation time                      creation time
 *   _NEVER                false                              false
 *   _HOST_NAME            host name (text)                   false
 *   _LOGSET_NAME          log set name (text), false         log set's name in the file name
 *                         without
 *   from _FIRST to _LAST  true                               false
 *   without a name
 *   other                 false                              false
 *
 * The attribute of a comparison stands on the left. On the right it works for
 * numbers, but the operator is not mirrored (5 < attribute is read as attribute < 5);
 * a text literal is then taken for an empty text. Text literals are cut to 567 bytes
 * when listing and to 1079 when fetching. A literal beside an operator instead of an
 * attribute counts as true, whatever its value.
 *
 * evalTreeToFilterFiles: 1 when the file passes a tree as when listing, else 0; a
 * null tree passes everything. logsetName may be null.
 * EvaluateFileCondition: 1 when the header passes listing->query as when fetching,
 * else 0; a listing without a query passes everything, a null listing nothing.
 * updateQueryForTZ: moves the numbers (other than 0) that ZOLTLOG_ATTR_TIME and
 * ZOLTLOG_ATTR_CREATION_TIME on the left are compared with by the given offset less
 * getLocalTZOffsetFromGMT(), in place: calling it twice moves them twice. 0 when the whole tree was walked; 1
 * when the walk stopped at a node without two operands. It suits trees whose operators have either two terms
 * or two operators as operands.
 */
int32_t evalTreeToFilterFiles(uint64_t productId, uint64_t originatorId, const char *hostName,
                              const char *logsetName, int64_t creationTime, int64_t modificationTime,
                              LogQueryNode *query);
int32_t EvaluateFileCondition(LogListing *listing, const LogFileHeader *header, const char *logsetName,
                              int64_t modificationTime);
uint32_t updateQueryForTZ(LogQueryNode *query, int64_t tzOffset);

/*
 * Names and tables.
 *
 * HashString: the text's hash (31 times the hash so far plus each byte as a signed
 * number, in 64 bits) modulo the modulus, cut to 32 bits; 0 for an empty text, a null
 * text or modulus 0.
 * DoesNameMatch: 1 when a list of names separated by commas holds the name, else 0.
 * Blanks in the list do not count, also inside a name; an item of nothing but blanks
 * is no name; upper and lower case differ.
 * id2names: id when the text is the decimal number id, or is no number and a name of
 * the list; else 0. list may be null.
 * GetIdFromName: the id of the first configuration that the text names: of a product
 * (by number or short name) for the kind ZOLTLOG_ATTR_PRODUCT_ID, of an originator for any
 * other; 0 when none does. A configuration without names is passed over, also for its number.
 * LeftRightTrim: a copy of the text without any blank, which the caller frees with
 * zoltLogFree; null for a null text or without memory.
 * SearchContextTitleInList: the entry of a table of 200 chains (chain number:
 * HashString of the title) with this title and both key words, else null. With the key
 * kind ZOLTLOG_CONTEXT_KEY_REPLACE its text is replaced by a copy of the given one.
 */
uint32_t HashString(const char *text, uint32_t modulus);
int32_t DoesNameMatch(const char *list, const char *name);
uint64_t id2names(uint64_t id, const char *list, const char *text);
uint64_t GetIdFromName(LogCfg **cfgs, uint32_t count, uint32_t kind, const char *text);
char *LeftRightTrim(const char *text);
LogContextEntry *SearchContextTitleInList(const LogContextKey *key, const char *text, const char *title,
                                          LogContextEntry **table);

/*
 * Surplus files. A series keeps the number of files that its configuration says
 * ("NumberOfLogFiles", read at the call); the files beyond that number, the oldest by
 * creation time and within one second by the date and counter of their names, may be
 * archived or removed:
 *
 *     LogListing listing;
 *     char *path;
 *     if (zoltLogGetManageableLogFiles(5, 7, &listing) == ZOLTLOG_OK)
 *         while (zoltLogFetchNextFile(&listing, &path) == ZOLTLOG_OK) {
 *             zoltLogCopyFile(path, "/archive");
 *             zoltLogDeleteFile(path);
 *             zoltLogFreeBuffer(&path);
 *         }
 *     (then free the entries of listing.files with zoltLogFree)
 *
 * zoltLogGetManageableLogFiles: of one originator's series, or of all configured ones
 * of a product (originatorId 0), of an originator (productId 0) or of everything (both
 * 0; up to 1024 configurations). The listing is zeroed first. Its entries are the
 * caller's, to be freed with zoltLogFree; the newest of a series' surplus comes first.
 * A file whose header an input error hides is neither counted nor listed, since its age
 * is not known.
 *   ZOLTLOG_OK                the list may be empty
 *   ZOLTLOG_INVALID_ARGUMENT  no listing
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_FAILED            files could not be examined for want of descriptors or memory;
 *                             nothing is listed then
 *   ZOLTLOG_NO_LOG_FILES      there is no log file at all
 *   and those of zoltLogReadCfg and zoltLogReadAllCfg
 * zoltLogGetManageableLogFilesSL: of one log set's series. ZOLTLOG_INVALID_ARGUMENT also
 * without a product or name; results of zoltLogReadlogsetCfg.
 *
 * The directory is taken as it is: files that other hosts write into a shared
 * directory belong to the same series, count, and may be the surplus ones. Series that
 * several hosts write should have a directory for each host when recycling is on. A log
 * set whose file name begins with digits counts as the series of that originator id:
 * give log sets names that begin with a letter.
 *
 * zoltLogFetchNextFileEx: the next entry whose file can be opened, has a header that is
 * understood and passes listing->query (null: everything passes). The entry stays the
 * listing's. ZOLTLOG_INVALID_ARGUMENT: no listing or place; ZOLTLOG_NO_MEMORY (the file is not
 * lost: the next call gives it); ZOLTLOG_NO_MORE: no further file, again and again. A file with another
 * header version sets listing->unsupportedHeader. A file that is not a regular one is judged by the
 * modification time of the file before it. zoltLogFetchNextFile: the same, giving the path in a zeroed buffer
 * of 8192 bytes that the caller releases with zoltLogFreeBuffer; ZOLTLOG_NO_MEMORY (the file is not lost: the
 * next call gives it). zoltLogFreeBuffer: frees the buffer, if any, and sets the pointer to null.
 */
uint32_t zoltLogGetManageableLogFiles(uint64_t productId, uint64_t originatorId, LogListing *listing);
uint32_t zoltLogGetManageableLogFilesSL(uint64_t productId, const char *logsetName, LogListing *listing);
uint32_t zoltLogFetchNextFileEx(LogListing *listing, LogFileEntry **out);
uint32_t zoltLogFetchNextFile(LogListing *listing, char **path);
void zoltLogFreeBuffer(char **buffer);

/*
 * Files. No lock is taken.
 *
 * zoltLogCopyFile: copies a file into a directory (given without a slash at its end)
 * under its own name, replacing what is there; a path without a slash is appended to
 * the directory as it is. The copy has the permissions 660. A failed copy leaves what
 * was copied so far.
 *   ZOLTLOG_INVALID_ARGUMENT     null
 *   ZOLTLOG_NO_MEMORY
 *   ZOLTLOG_OPEN_FAILED          the file cannot be opened, or the destination for a reason
 *                                other than permission or a missing path
 *   ZOLTLOG_SOURCE_SIZE_UNKNOWN  of the file
 *   ZOLTLOG_DEST_OPEN_FAILED     the destination cannot be opened for one of those two
 *                                reasons, or is the file itself
 *   ZOLTLOG_SHORT_READ           the file ended early
 *   ZOLTLOG_DEVICE_FULL          the device is full (once a write of this process has met a
 *                                full device, any failed write counts as that)
 *   ZOLTLOG_SHORT_WRITE          any other failed write
 * zoltLogCopyFileEx: makes a hard link to the file in the directory.
 * ZOLTLOG_INVALID_ARGUMENT also for a path without a slash; ZOLTLOG_SHORT_WRITE when the link
 * cannot be made.
 * zoltLogDeleteFile: removes a file; ZOLTLOG_INVALID_ARGUMENT: no path. When it cannot be
 * removed this is told on standard output and the result is ZOLTLOG_OK all the same.
 */
uint32_t zoltLogCopyFile(const char *path, const char *directory);
uint32_t zoltLogCopyFileEx(const char *path, const char *directory);
uint32_t zoltLogDeleteFile(const char *path);

/*
 * GetManageableLogFiles: replaces a list that runs from the newest file to the oldest
 * by the surplus ones among them and frees the others. A series is what the two ids of
 * a name say; its configuration is that of found_config, and a series without one has
 * no surplus. Without memory the list becomes empty.
 * found_config: the first configuration of the product and originator, else the first
 * of the product's default originator (ZOLTLOG_DEFAULT_ORIGINATOR), else null.
 * found_configSL: the first configuration of the product with this log set file name,
 * else the first of the product's log set "Default", else null. Configurations without
 * a log set do not count.
 * FreeConfigArray: frees the records, sets their places to null and leaves the array,
 * which is the caller's.
 */
void GetManageableLogFiles(LogFileEntry **list, LogCfg **cfgs, uint32_t count);
LogCfg *found_config(uint64_t productId, uint64_t originatorId, LogCfg **cfgs, uint32_t count);
LogCfg *found_configSL(uint64_t productId, const char *logsetFilename, LogCfg **cfgs, uint32_t count);
void FreeConfigArray(LogCfg **cfgs, uint32_t count);

/* ---- message text and sinks ---------------------------- */

/*
 * The text of a message that is given as a catalogue's message with typed arguments
 * (zoltlis.h). These operations take no lock; a block belongs to the calling thread.
 *
 * A block becomes text item by item. Where the message's catalogue is missing, the
 * text starts with "[Cannot find catalog for message id=N] " and commas stand between
 * the items, else nothing does. An item's type decides its look, and what the
 * measuring pass counts for it:
 *
 *     ZOLTLIS_ITEM_...   look                                 counted
 *     _WIDE_CHAR         as "%lc"                             2
 *     _SIGNED            decimal                              20
 *     _UNSIGNED          decimal                              20
 *     _DOUBLE            as "%f"                              15
 *     _POINTER           0x and lower-case hexadecimal        20
 *     _WIDE_STRING       in the locale's encoding             its bytes + 1
 *     _OS_ERROR and      its code, 32 bits, in decimal        10
 *     _OS_ERROR_OTHER
 *     _DATE_TIME         local time as asctime gives it,      asctime's length
 *                        newline included, and a blank
 *     _NESTED            by the same rules, in place          as measured
 *     _UTF8_STRING       as it is                             its bytes + 1
 *     _NATIVE_STRING     as it is                             its bytes + 1
 *
 * The prefix counts 51 and each comma 1. A wide character or string that the locale's
 * encoding lacks adds nothing, nor does a time that asctime cannot show. Any other
 * type ends the text, with what there is until then. Blocks nested more than 32 deep
 * are a failure.
 */

/*
 * Formats like vasprintf: *text becomes the text of a printf format and its
 * arguments, to be released with zoltLogFree. Nothing of it is ever cut. Always
 * ZOLTLOG_OK for arguments that are not null: *text is left alone when the format is
 * invalid ("%n" is), and null without memory. ZOLTLOG_INVALID_ARGUMENT: text is null.
 */
uint32_t listxt_svnprintf(char **text, const char *reference, va_list args) ZOLTLOG_PRINTF(2, 0);
/*
 * With a null buffer: measures; *size becomes the bytes that the table gives, and the
 * result is null. With a buffer: appends the block's text to the string in buffer,
 * which has *size bytes in all; what does not fit is cut, and a NUL ends it. The counts
 * are of old and not bounds: a large double, a wide character alone or a date need more
 * room than was measured. Yields buffer. A failure of the localization library, or a
 * null block, makes *size SIZE_MAX and the result null; so does a null size.
 */
char *strncatlis(char *buffer, size_t *size, ZoltLisBlock *block);
/*
 * Appends formatted values to the string in buffer, which has size bytes in all; what
 * does not fit is cut. The values may lie in buffer. Yields buffer, unchanged when
 * there is no room, no memory, or a value cannot be converted to the locale's encoding.
 */
char *fstrncat(char *buffer, size_t size, const char *format, ...);

/*
 * The iterator's current item as a wide text, to be released with zoltLogFree: numbers
 * in decimal, doubles as "%f", pointers as "%#llx" (0 is "0"), OS error codes with all
 * their 64 bits, dates as wcsftime's "%c" of the local time (empty for a time that
 * cannot be broken down), strings converted. ZOLTLOG_FAILED: there is no item, it is a
 * nested block or of an unknown type, a string is invalid, or a native string is
 * empty. ZOLTLOG_NO_MEMORY.
 */
uint32_t zoltLogGetArg_asStringW(ZoltLisIterator *argument, wchar_t **out);
/* A copy of a wide text (zoltLogFree); null for null, and without memory. */
wchar_t *zoltLogWcsDup(const wchar_t *text);

/*
 * Copies of messages to the console and the system log. What is shown is one line
 * that the formatter plug-in makes of the record: the shared library
 * libzoltLogFormatMsg.so.3, found by the dynamic loader (never in the current
 * directory), with the entry LogFormatMessage (LogFormatMessageFn below; zoltformat.h
 * describes the plug-in that comes with the library). Without it there are no
 * copies. The plug-in is loaded at each use and stays loaded: sh_handle is the
 * handle of the last load; fmtLib (system log) and newfmtLib (console) point at the
 * loaded plug-in during a call of it and are null otherwise.
 *
 * The operations LogOutputBasedOnFlags, OutputToConsole and osLogWrite take no lock:
 * call them with zoltLogMutex held, as zoltLogMsg does.
 */

/*
 * Copies a record where flags, or the handle's output flags, say: ZOLTLOG_OUT_STDOUT
 * all types but audit to standard output, ZOLTLOG_OUT_STDERR diagnostic and application
 * messages to standard error, ZOLTLOG_OUT_OSLOG application and secure audit messages
 * to the system log. The result is that of OutputToConsole; for a secure audit message
 * with ZOLTLOG_OUT_OSLOG that of osLogWrite as an unsigned number. ZOLTLOG_INVALID_ARGUMENT
 * for a null handle or record.
 */
uint32_t LogOutputBasedOnFlags(LogHandle *handle, LogMsg *msg, uint32_t flags);
/*
 * Prints a record on standard output and standard error, by the same two flags.
 * ZOLTLOG_OK, also when the plug-in cannot be loaded and nothing is printed; the plug-in's
 * own result when it fails; ZOLTLOG_NO_MEMORY; ZOLTLOG_INVALID_ARGUMENT for a null record.
 * "(null)" is printed when the plug-in gives no text or lacks its entry.
 */
uint32_t OutputToConsole(uint32_t flags, LogMsg *msg, LocalizerList *localizers);

/*
 * The system log (syslog). Settings are an identity, option bits and a facility as
 * openlog takes them. Results: ZOLTLOG_OS_OK, and ZOLTLOG_OS_INVALID_ARGUMENT for null.
 * osLogInitCfg sets the defaults: "Qorvanix", no option, facility LOG_USER.
 * osLogCopyCfg copies identity and facility; the copy's options are 0.
 * osLogOpen and osLogOpenEx, which are the same, call openlog with the identity (at
 * most 79 bytes of it) in the sink, which must live until osLogClose: closelog.
 * The process has one system-log connection: the identity of the last openlog,
 * also the host's own, holds for all messages.
 */
int32_t osLogInitCfg(OsLogSettings *settings);
int32_t osLogCopyCfg(OsLogSettings *destination, const OsLogSettings *source);
int32_t osLogOpen(const OsLogSettings *settings, OsLogSink *sink);
int32_t osLogOpenEx(const OsLogSettings *settings, OsLogSink *sink);
int32_t osLogClose(OsLogSink *sink);
/*
 * Sends an application message, at the priority of its severity, or a secure audit
 * message, at priority LOG_CRIT, to the system log; other types are not sent.
 * When the handle's output flags hold ZOLTLOG_OUT_OSLOGX, a secure audit line begins
 * with eight values: product id, originator id (of the handle's configuration copy),
 * message id, process id, thread id, context token, subject, outcome; the commas
 * between them, and a blank after the last. ZOLTLOG_OS_OK when sent or nothing was to be
 * sent; ZOLTLOG_OS_FAILED when the plug-in is missing, lacks its entry or fails;
 * ZOLTLOG_OS_INVALID_ARGUMENT for null.
 */
int32_t osLogWrite(LogHandle *handle, LogMsg *msg);
/* The priority of an application message: LOG_WARNING of a warning, LOG_ERR of an error,
 * LOG_CRIT of a critical one, LOG_EMERG of an emergency; LOG_INFO of any other severity. */
int32_t sevToSyslogPriority(uint32_t severity);
/* ZOLTLOG_OS_OK when the path begins with '/', else ZOLTLOG_OS_FAILED, also for null. */
int32_t osLogIsFullPath(const char *path);

/*
 * Dynamic loading. Results: ZOLTLOG_OS_OK and ZOLTLOG_OS_NOT_LOADED. None takes a lock.
 * SharedLibLoad loads the library of a base name (its file name is that of
 * zoltLogOs_getLibName) through the loader's search; _NOT_LOADED for a null library or
 * name, or when it cannot be loaded: *library is then null. The file name is handed out
 * when fileName is not null (null on failure); the caller frees it.
 * SharedLibUnload gives one reference back; _NOT_LOADED for null.
 * SharedLibResolveFunc looks a symbol up: *function is null, and the result _OK, when the
 * library lacks it; _NOT_LOADED for a null library or function, a null or empty symbol.
 */
int32_t SharedLibLoad(void **library, const char *name, char **fileName);
int32_t SharedLibUnload(void *library);
int32_t SharedLibResolveFunc(void *library, const char *symbol, void **function);

/* ---- platform services ----------------------------------
 *
 * None of these takes the lock: what an argument points at belongs to the calling
 * thread. Unless something else is said, results are those of this layer, ZOLTLOG_OS_...
 */

/* The host's name, as gethostname gives it: _OK, or _FAILED when that fails. A name that fills
 * the whole buffer comes without a terminating zero. */
int32_t osGetHostName(char *buffer, size_t length);

/*
 * A number for this host, made of its first address that is not a loopback one, in the
 * order of getaddrinfo for the host's name. An IPv4 address a.b.c.d is
 * a + b*2^8 + c*2^16 + d*2^24; of an IPv6 address the last eight bytes count, and the
 * number may exceed 32 bits. 0x0100007F when the host has no other address or the name
 * cannot be looked up; 0 when it has no name. Asks the name service: it can take as long
 * as that takes.
 */
uint64_t osGetHostID(void);

/* Process id: the child's own in a child of fork. */
uint64_t getPID(void);
/* The calling thread's pthread_self(). */
uint64_t getTID(void);

/* Nothing to do on this system: ZOLTLOG_OS_OK. */
int32_t osSocketStartup(void);
void osSocketCleanup(void);

/* Marks a handle as closed and unread (descriptor -1, read position -1, count 0); its
 * buffer is left alone. 1, or 0 for null. */
int32_t zoltLogOs_initfilehandle(OsFile *file);

/*
 * Opens a file in a ZOLTLOG_OS_MODE_... The handle may be uninitialised memory; its fields
 * but the buffer are set in any case, the descriptor to -1 on failure: _OPEN_DENIED,
 * _OPEN_NO_PATH, _OPEN_FAILED; _INVALID_ARGUMENT for null.
 *
 * A file that the call creates has exactly the given permissions (octal 7777 at most),
 * whatever the process's umask, which is not touched; an existing one keeps its own.
 * Only a regular file is opened, for writing also a character device, never waiting for
 * anything: a FIFO, socket or directory is _OPEN_FAILED. For writing, so is a symbolic link
 * as the last component. Nothing else is opened at all for reading, whatever others do to
 * the name meanwhile. The descriptor is above 2 and closes on exec.
 */
int32_t zoltLogOs_open(OsFile *file, const char *path, int32_t mode, uint32_t permissions);

/* Closes the descriptor and sets it to -1. A descriptor of 0 is left as it is. */
void zoltLogOs_close(OsFile *file);

/*
 * One read, one write: the count of bytes, which may be short, or _FAILED with errno set
 * (_INVALID_ARGUMENT for a null handle or a negative length). A read sets the handle's readPosition to 0 and
 * readCount to the count, or to -1 and 0 at the end or on failure. A write that fails
 * because the device is full sets errorCode.
 */
int32_t zoltLogOs_read(OsFile *file, void *buffer, int32_t length);
int32_t zoltLogOs_write(OsFile *file, const void *buffer, int32_t length);

/* Size in bytes of an open file. On failure *size is left alone. */
int32_t zoltLogOs_fsize(OsFile *file, uint64_t *size);

/* Removes a file or an empty directory: _OK, or _FAILED with errno set. */
int32_t zoltLogOs_remove(const char *path);

/* Broken-down local time or UTC of seconds since 1970-01-01 UTC: out, or null when out is
 * null or the year does not fit. */
struct tm *zoltLogOs_localtime_r(int64_t seconds, struct tm *out);
struct tm *zoltLogOs_gmtime_r(int64_t seconds, struct tm *out);

/*
 * Makes the directories that are missing on a path, the last component included. mode is
 * not used: a new directory has exactly the permissions of its parent, whatever the
 * umask, also when others may write there. What exists is left as it is. A relative path
 * whose first component is missing is a failure, unless it starts with "./".
 * Results are not those of this layer: ZOLTLOG_OK; ZOLTLOG_FAILED: a directory cannot be
 * made, or a file is in the way; ZOLTLOG_INVALID_ARGUMENT: null, or more than 1024 bytes.
 */
int32_t zoltLogOs_mkdirp(const char *path, uint32_t mode);

/*
 * File name of a shared library of this system: of the name's last component, what comes
 * before its first '.', without a final "D" and then a final "ST", with ".so.3" appended.
 * *out is the caller's. _INVALID_ARGUMENT: null, or out of memory.
 */
int32_t zoltLogOs_getLibName(const char *name, char **out);

/*
 * Goes through the files of a directory whose names hold a '-' and end in ".log", in no
 * particular order. Begin moves to the first one; it may be given uninitialised memory,
 * of which it leaves the first word alone. Begin and Next: _OK with a current file,
 * _LISTING_END at the end, _FAILED when Begin fails. After the first two the cursor is
 * released with End.
 * directory is put before the names as it stands: give it with its final '/'.
 *
 * Of the current file: its name, which lives until the next move; the creation time that
 * its header tells; the time of its last modification. Times are seconds since
 * 1970-01-01 UTC, 0 for what is unreadable or not a regular file.
 *
 * CopyLogOsListLogFiles makes the destination, which may be uninitialised, remember the
 * source's current file; Next on a copy is the end, and it is released with End, too.
 * _FAILED: out of memory, or no current file.
 */
int32_t zoltLogOsListLogFilesBegin(OsLogFileCursor *cursor, const char *directory);
int32_t zoltLogOsListLogFilesNext(OsLogFileCursor *cursor);
const char *zoltLogOsListLogFilesName(OsLogFileCursor *cursor);
int64_t zoltLogOsListLogFilesCreattime(OsLogFileCursor *cursor);
int64_t zoltLogOsListLogFilesModtime(OsLogFileCursor *cursor);
void zoltLogOsListLogFilesEnd(OsLogFileCursor *cursor);
int32_t CopyLogOsListLogFiles(const OsLogFileCursor *source, OsLogFileCursor *destination);

/* ---- the lock -------------------------------------------
 *
 * A strict recursive lock. Each acquisition is made under a tag, a constant text that is
 * told by its address; releases come in the reverse order, on the same thread, each with
 * the very pointer of its acquisition. At most ten acquisitions nest. Everything else
 * ends the process with abort(): an eleventh acquisition, a release of what is not held,
 * by another thread, with another tag or out of order, destroying a lock that is held or
 * was never used, a failing thread call.
 *
 * A lock record starts as zeros; its first acquisition makes the mutex, also when many
 * threads come at once. While a thread holds a lock, it cannot be cancelled; its last
 * release puts the thread's cancellation state back. A thread that can be cancelled
 * asynchronously must not use it. Of the threads that wait for a lock one at a time stays
 * awake, for some hundred microseconds at most; the others sleep.
 *
 * fork waits until zoltLogMutex is free or the forking thread's own, so that the child
 * finds the library at rest. What the forking thread holds, it holds in the child, too.
 * A program that holds zoltLogMutex must not wait for a thread that may be in fork.
 */

/* Makes the mutex of a record that is not in use. The others do so on demand. Returns 0. */
int32_t zoltLogLockInit(LogLock *lock);
void zoltLogLock(LogLock *lock, const char *tag);
/* Returns 0. */
int32_t zoltLogUnlock(LogLock *lock, const char *tag);
/* For a lock that no other thread uses any more; the next acquisition makes it anew. Returns 0. */
int32_t zoltLogDestroyLock(LogLock *lock);

/* The same for zoltLogMutex: a program takes the library's own lock, so that several
 * calls, or its own fork and exec, happen while no other thread logs. */
void zoltLockCommon(const char *tag);
int32_t zoltUnlockCommon(const char *tag);
int32_t zoltDestroyCommonLock(void);

/* ---- identifiers, memory, time texts, encodings ----------
 *
 * None of these takes the lock.
 */

/* 1 for an id other than 0. */
int32_t isProdIdValid(uint64_t productId);
int32_t isOrigIdValid(uint64_t originatorId);
/* 1 for any text, also an empty one; 0 for null. */
int32_t isLogSetValid(const char *name);
/* 1 when both ids of the record are valid. */
int32_t isCfgValid(const LogCfg *cfg);

/* A block of size bytes, not zeroed; null for size 0 and when memory runs out. */
void *zoltLogMalloc(size_t size);
/* Releases what the library handed out. Null is allowed. */
void zoltLogFree(void *block);
/* A copy for zoltLogFree; null for null and when memory runs out. */
char *zoltLogSafeStrdup(const char *text);
/* Releases an error text that the library handed out. */
uint32_t zoltLogResFreeErrorMessage(char *text);

/*
 * Seconds since 1970-01-01 UTC of the stamp that a text begins with: YYMMDDhhmmss, years
 * 2000 to 2099, local standard time also in summer. Fields out of their range carry over.
 * -1: null, shorter than that, or not numbers.
 */
int64_t convert_time(const char *text);

/*
 * The first three numbers of a text, which any of the delimiters separate; 0 for each that
 * is missing. No range is checked. 1, or 0 when a pointer is null or memory runs out.
 * zoltLogGetTime is the same with the delimiter ':'.
 */
int32_t zoltLogStrTimeToT(const char *text, const char *delimiters, int32_t *first, int32_t *second,
                          int32_t *third);
int32_t zoltLogGetTime(const char *text, int32_t *hours, int32_t *minutes, int32_t *seconds);

/* Seconds to add to local time, as it is now, to get UTC: negative east of Greenwich. */
int64_t getLocalTZOffsetFromGMT(void);

/*
 * Seconds of a zone text: "GMT", or "GMT" and hours, or hours:minutes, with a sign.
 * Minutes take the sign of the hours; hours 0 count as negative, so that "GMT+0:30" is
 * -1800. ZOLTLOG_FAILED: null, or the text does not begin with "GMT".
 */
uint32_t TimeZoneToOffset(const char *text, int64_t *offset);

/*
 * Conversions between UTF-8, wide characters and multibyte text. *out is a new text for
 * zoltLogFree, null on failure. length is the number of bytes, or -1 for a terminated
 * text; the wide text ends at the first zero in it. Multibyte text is in the code page of
 * the calling thread's locale (LC_CTYPE), so that a text there and back is the same. In a
 * locale of ASCII or UTF-8, utf82mbs writes the code page that is ICU's default, mostly
 * UTF-8. What a code page lacks becomes its substitute.
 *
 * ZOLTLOG_NO_MEMORY; a text that cannot be converted (not well-formed, a surrogate, a
 * number beyond U+10FFFF) is ZOLTLOG_FAILED, with utf82mbs ZOLTLOG_INVALID_ARGUMENT.
 */
uint32_t utf82wcs(wchar_t **out, const char *utf8, int32_t length);
uint32_t utf82mbs(char **out, const char *utf8);
uint32_t wcs2utf8(char **out, const wchar_t *wide);
uint32_t mbs2utf8(char **out, const char *narrow);

/* ---- entry of libzoltLogFormatMsg.so.3 -------------------------------------- */

/*
 * The entry LogFormatMessage of a formatter plug-in: renders msg as one line. locale
 * is null and handle null for the console; "en_US" and the handle for the system
 * log; the three numbers are 0. *text receives a block of malloc that the library
 * frees. 0 for success.
 */
typedef uint32_t (*LogFormatMessageFn)(LocalizerList *localizers, uint64_t zero1, const char *locale,
                                       uint64_t zero2, uint32_t formatFlags, uint64_t zero3, LogMsg *msg,
                                       LogHandle *handle, char **text);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
