// SPDX-License-Identifier: Apache-2.0
// libqdul-syslog.so: the calls of <syslog.h>, whose messages become records of an originator.
// What cannot become one goes to the C library's system log, which stands behind this object.
//
// Owns: the calls, what openlog and setlogmask said, which series is open, and the C
// library's system log, which this object and libqdul (for copies) both use. Leaves to
// others: finding what it calls (calls), the text (text), the series (series).
//
//   Settings      what the environment says; libqdul, once it is needed
//   State         all that the lock guards
//   System log    whose turn it is to be known there
//   Series        the open one, taken for the time of a message
//   Messages      one message
//   Interface     the exported calls
//
// One lock guards the state: that of libqdul, since it survives every kind of fork. It is not
// held while a message is made or written, so that none waits for another's look-up of a host.
#include "calls.h"
#include "process.h"
#include "series.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// ---- settings ------------------------------------------------------------------------

struct Settings {
    Qdul qdul;
    char *product;    // id or name
    char *originator; // the same; null: by ident
};

Settings none; // its address stands for: nothing to be done here

Settings *settings; // null: not known yet

void freeSettings(Settings *made) {
    free(made->product);
    free(made->originator);
    free(made);
}

// In a set-user-id program the environment is not the program's.
const char *environmentText(const char *name) {
    const char *text = secure_getenv(name);
    return text != nullptr && text[0] != '\0' ? text : nullptr;
}

Settings *makeSettings() {
    const char *product = environmentText("QDUL_SYSLOG_PRODUCT");
    if (product == nullptr)
        return &none;
    auto *made = static_cast<Settings *>(calloc(1, sizeof(Settings)));
    if (made == nullptr)
        return nullptr;
    const char *originator = environmentText("QDUL_SYSLOG_ORIGINATOR");
    made->product = strdup(product);
    made->originator = originator != nullptr ? strdup(originator) : nullptr;
    const bool whole = made->product != nullptr && (originator == nullptr || made->originator != nullptr);
    if (whole && loadQdul(&made->qdul))
        return made;
    freeSettings(made);
    return whole ? &none : nullptr;
}

// How many calls of libqdul, or of the loader, this thread is in: what they tell the system
// log is theirs.
__thread uint32_t inside __attribute__((tls_model("initial-exec")));

struct Inside {
    Inside() { ++inside; }
    ~Inside() { --inside; }
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;
};

// Null when the C library is to do it all: without a product, without libqdul, or in a
// process that must not touch its parent's memory.
const Settings *activeSettings() {
    if (!hasOwnMemory())
        return nullptr;
    Settings *known = __atomic_load_n(&settings, __ATOMIC_ACQUIRE);
    if (known == nullptr && inside == 0) {
        const Inside loading;
        Settings *made = makeSettings();
        if (made == nullptr)
            return nullptr;
        if (__atomic_compare_exchange_n(&settings, &known, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            known = made;
        else if (made != &none)
            freeSettings(made);
    }
    return known == &none ? nullptr : known;
}

// ---- state ---------------------------------------------------------------------------

constexpr const char *TAG = "syslog()"; // of the lock

struct Lock {
    explicit Lock(const Qdul &library) : qdul(library) { qdul.zoltLockCommon(TAG); }
    ~Lock() { (void)qdul.zoltUnlockCommon(TAG); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

    const Qdul &qdul;
};

enum Party { PROGRAM, LIBRARY, NOBODY };

// What a party has told openlog. All but the ident outlasts closelog.
struct Opened {
    bool open;
    const char *ident; // the party's; null: the program's name
    int option;
    int facility;
};

struct State {
    Opened opened[NOBODY];
    Party shown; // to the C library's system log
    Series *series;
    uint64_t generation; // of the ident
    int64_t retryAt;     // monotonic seconds: not to be opened before
};
State state = {{{false, nullptr, 0, LOG_USER}, {false, nullptr, 0, LOG_USER}}, NOBODY, nullptr, 0, 0};

constexpr int ALL_PRIORITIES = 0xff;
int logMask = ALL_PRIORITIES; // of the program; read and stored atomically

const char *identOf(const Opened &opened) {
    return opened.ident != nullptr ? opened.ident : program_invocation_short_name;
}

// ---- system log ----------------------------------------------------------------------

// The lock is held in all of these.

void show(Party party) {
    if (state.shown == party)
        return;
    const Opened &opened = state.opened[party];
    systemLog().openlog(identOf(opened), opened.option & ~LOG_NDELAY, opened.facility);
    state.shown = party;
}

void openSystemLog(Party party, const char *ident, int option, int facility) {
    Opened &opened = state.opened[party];
    if (ident == nullptr)
        ident = opened.ident; // as the C library keeps it
    opened = {true, ident, option, (facility & ~LOG_FACMASK) == 0 ? facility : opened.facility};
    systemLog().openlog(identOf(opened), option, opened.facility);
    state.shown = party;
}

// The connection stays while the other party needs it.
void closeSystemLog(Party party) {
    const Party other = party == PROGRAM ? LIBRARY : PROGRAM;
    state.opened[party].open = false;
    state.opened[party].ident = nullptr;
    if (state.opened[other].open) {
        show(other);
    } else {
        systemLog().closelog();
        state.shown = NOBODY;
    }
}

// ---- series --------------------------------------------------------------------------

constexpr int64_t RETRY_AFTER_S = 1;
constexpr int OPEN_ATTEMPTS = 4; // against others who call openlog meanwhile
constexpr size_t IDENT_SIZE = 256;

// What the program has told openlog, copied.
struct Told {
    char ident[IDENT_SIZE];
    int option;
    int facility;
};

int64_t monotonicSeconds() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

bool copiesToSystemLog(const Series *series) {
    return series != nullptr && (series->handle.outputFlags & ZOLTLOG_OUT_OSLOG) != 0;
}

// The lock is held. libqdul closes the system log with every series, though others of its
// handles may need it.
void closeSeriesOnly(const Qdul &qdul, Series *series) {
    Opened kept = state.opened[LIBRARY];
    if (kept.ident == series->handle.oslog.ident) {
        kept.open = copiesToSystemLog(state.series);
        kept.ident = kept.open ? state.series->handle.oslog.ident : nullptr;
    }
    closeSeries(qdul, series);
    state.opened[LIBRARY] = kept;
}

// A child has the count of its parent's threads, which are not there.
void countUsers(Series *series) {
    if (series->usersOf != ownProcess()) {
        series->usersOf = ownProcess();
        series->users = 0;
    }
}

// The lock is held.
void closeIfUnused(const Qdul &qdul, Series *series) {
    countUsers(series);
    if (series->retired && series->users == 0)
        closeSeriesOnly(qdul, series);
}

// The lock is held.
void retireSeries(const Qdul &qdul) {
    Series *series = state.series;
    if (series == nullptr)
        return;
    state.series = nullptr;
    series->retired = true;
    closeIfUnused(qdul, series);
}

// The lock is held. The open series when it is that of the ident, for another user.
Series *useSeries(const Qdul &qdul) {
    Series *series = state.series;
    if (series == nullptr || series->generation != state.generation)
        return nullptr;
    if (!keepsItsFile(series)) {
        retireSeries(qdul);
        return nullptr;
    }
    countUsers(series);
    ++series->users;
    return series;
}

Series *openSeriesOf(const Settings &active, const char *ident) {
    const Qdul &qdul = active.qdul;
    const uint64_t product = findProduct(qdul, active.product);
    if (product == 0)
        return nullptr;
    uint64_t originator = 0;
    if (active.originator != nullptr) {
        originator = findOriginator(qdul, product, active.originator);
    } else {
        originator = findOriginatorNamed(qdul, product, ident);
        if (originator == 0)
            originator = ZOLTLOG_DEFAULT_ORIGINATOR;
    }
    return originator != 0 ? openSeries(qdul, product, originator) : nullptr;
}

// The series of the program's ident; null when there is none. Tells in either case.
Series *takeSeries(const Settings &active, Told *told) {
    const Qdul &qdul = active.qdul;
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; ++attempt) {
        uint64_t generation;
        {
            const Lock lock(qdul);
            const Opened &opened = state.opened[PROGRAM];
            (void)snprintf(told->ident, sizeof told->ident, "%s", identOf(opened));
            told->option = opened.option;
            told->facility = opened.facility;
            if (Series *series = useSeries(qdul))
                return series;
            if (monotonicSeconds() < state.retryAt)
                return nullptr;
            generation = state.generation;
        }
        Series *opened = openSeriesOf(active, told->ident);
        const Lock lock(qdul);
        if (opened == nullptr) {
            state.retryAt = monotonicSeconds() + RETRY_AFTER_S;
            return nullptr;
        }
        opened->generation = generation;
        learnFile(opened);
        if (state.generation != generation ||
            (state.series != nullptr && state.series->generation == generation)) {
            closeSeriesOnly(qdul, opened); // another thread was faster
        } else {
            retireSeries(qdul);
            state.series = opened;
        }
    }
    return nullptr;
}

void giveSeriesBack(const Qdul &qdul, Series *series) {
    const Lock lock(qdul);
    learnFile(series);
    countUsers(series);
    if (series->users > 0) // else the thread has forked in between
        --series->users;
    closeIfUnused(qdul, series);
}

// ---- messages ------------------------------------------------------------------------

// For the C library's system log, as it is told at the moment.
void toSystemLog(int priority, int flag, const char *format, va_list args) {
    if (systemLog().vsyslogChecked != nullptr)
        systemLog().vsyslogChecked(priority, flag, format, args);
    else
        systemLog().vsyslog(priority, format, args);
}

void passOn(const Qdul &qdul, Party party, int priority, int flag, const char *format, va_list args) {
    const Lock lock(qdul);
    show(party);
    toSystemLog(priority, flag, format, args);
}

void passOnText(const Qdul &qdul, int priority, const char *text) {
    const Lock lock(qdul);
    show(PROGRAM);
    systemLog().syslog(priority, "%s", text);
}

// As the C library does it for LOG_PERROR.
void tellStandardError(const Told &told, const char *text) {
    char head[IDENT_SIZE + sizeof "[-2147483648]: "];
    const int length = (told.option & LOG_PID) != 0 ? snprintf(head, sizeof head, "%s[%d]: ", told.ident,
                                                               static_cast<int>(ownProcess()))
                                                    : snprintf(head, sizeof head, "%s: ", told.ident);
    char feed = '\n';
    const iovec pieces[] = {
        {head, static_cast<size_t>(length)}, {const_cast<char *>(text), strlen(text)}, {&feed, sizeof feed}};
    (void)!writev(STDERR_FILENO, pieces, sizeof pieces / sizeof *pieces);
}

bool sendThrough(const Qdul &qdul, Series *series, const Meaning &meaning, const char *ident,
                 const char *text) {
    Grown<char> convertedIdent;
    Grown<char> convertedText;
    const char *who = inUtf8(ident, &convertedIdent);
    const char *utf8 = inUtf8(text, &convertedText);
    return who != nullptr && utf8 != nullptr && send(qdul, series, meaning, who, utf8) == ZOLTLOG_OK;
}

// The message has become a record, or is filtered as one.
bool becameRecord(const Settings &active, int priority, const char *text, Told *told) {
    const Qdul &qdul = active.qdul;
    const Inside library;
    Series *series = takeSeries(active, told);
    if (series == nullptr)
        return false;
    const Meaning meaning = meaningOf((priority & LOG_FACMASK) != 0 ? priority : priority | told->facility);
    const bool done = !passes(qdul, series, meaning) || sendThrough(qdul, series, meaning, told->ident, text);
    giveSeriesBack(qdul, series);
    return done;
}

void logForProgram(const Settings &active, int priority, int flag, const char *format, va_list args,
                   int callersError) {
    priority &= LOG_PRIMASK | LOG_FACMASK;
    if ((__atomic_load_n(&logMask, __ATOMIC_RELAXED) & LOG_MASK(LOG_PRI(priority))) == 0)
        return;
    FormattedText text;
    va_list copy;
    va_copy(copy, args);
    const bool formatted = text.format(callersError, flag, format, copy);
    va_end(copy);
    Told told;
    if (!formatted) {
        errno = callersError;
        passOn(active.qdul, PROGRAM, priority, flag, format, args);
    } else if (!becameRecord(active, priority, text.text, &told)) {
        passOnText(active.qdul, priority, text.text);
    } else if ((told.option & LOG_PERROR) != 0) {
        tellStandardError(told, text.text);
    }
}

// Whose call it is: libqdul's when its thread is in there, or when its code called.
Party partyOf(const Settings &active, const void *caller) {
    return inside != 0 || active.qdul.contains(caller) ? LIBRARY : PROGRAM;
}

// Every way to log ends here. caller is an address in the code that called.
void log(const void *caller, int priority, int flag, const char *format, va_list args) {
    const int callersError = errno;
    const Settings *active = activeSettings();
    if (active == nullptr) {
        errno = callersError;
        toSystemLog(priority, flag, format, args);
    } else if (partyOf(*active, caller) == LIBRARY) {
        errno = callersError;
        passOn(active->qdul, LIBRARY, priority, flag, format, args);
    } else {
        logForProgram(*active, priority, flag, format, args, callersError);
    }
    errno = callersError;
}

} // namespace

// ---- interface -----------------------------------------------------------------------

// Under names of their own here, since <syslog.h> has inline functions of the exported ones.
#define EXPORTED_AS(name) __asm__(#name) __attribute__((visibility("default")))

extern "C" {
void exportedOpenlog(const char *ident, int option, int facility) EXPORTED_AS(openlog);
void exportedCloselog(void) EXPORTED_AS(closelog);
int exportedSetlogmask(int mask) EXPORTED_AS(setlogmask);
void exportedSyslog(int priority, const char *format, ...) EXPORTED_AS(syslog);
void exportedVsyslog(int priority, const char *format, va_list args) EXPORTED_AS(vsyslog);
void exportedSyslogChk(int priority, int flag, const char *format, ...) EXPORTED_AS(__syslog_chk);
void exportedVsyslogChk(int priority, int flag, const char *format, va_list args) EXPORTED_AS(__vsyslog_chk);
}

void exportedOpenlog(const char *ident, int option, int facility) {
    const int callersError = errno;
    const Settings *active = activeSettings();
    if (active == nullptr) {
        systemLog().openlog(ident, option, facility);
        return;
    }
    const Party party = partyOf(*active, __builtin_return_address(0));
    {
        const Lock lock(active->qdul);
        openSystemLog(party, ident, option, facility);
        if (party == PROGRAM)
            ++state.generation;
    }
    if (party == PROGRAM && (option & LOG_NDELAY) != 0) {
        const Inside library;
        Told told;
        if (Series *series = takeSeries(*active, &told))
            giveSeriesBack(active->qdul, series);
    }
    errno = callersError;
}

void exportedCloselog(void) {
    const int callersError = errno;
    const Settings *active = activeSettings();
    if (active == nullptr) {
        systemLog().closelog();
        return;
    }
    const Party party = partyOf(*active, __builtin_return_address(0));
    const Lock lock(active->qdul);
    if (party == PROGRAM) {
        const Inside library;
        ++state.generation;
        retireSeries(active->qdul);
    }
    closeSystemLog(party);
    errno = callersError;
}

int exportedSetlogmask(int mask) {
    const Settings *active = activeSettings();
    if (active == nullptr || partyOf(*active, __builtin_return_address(0)) == LIBRARY)
        return systemLog().setlogmask(mask);
    return mask != 0 ? __atomic_exchange_n(&logMask, mask, __ATOMIC_RELAXED)
                     : __atomic_load_n(&logMask, __ATOMIC_RELAXED);
}

void exportedSyslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    log(__builtin_return_address(0), priority, 0, format, args);
    va_end(args);
}

void exportedVsyslog(int priority, const char *format, va_list args) {
    log(__builtin_return_address(0), priority, 0, format, args);
}

void exportedSyslogChk(int priority, int flag, const char *format, ...) {
    va_list args;
    va_start(args, format);
    log(__builtin_return_address(0), priority, flag, format, args);
    va_end(args);
}

void exportedVsyslogChk(int priority, int flag, const char *format, va_list args) {
    log(__builtin_return_address(0), priority, flag, format, args);
}
