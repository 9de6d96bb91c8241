// SPDX-License-Identifier: Apache-2.0
// One scenario of everything that the library does, run again and again: each time another
// allocation or system call fails, once or from then on, with each errno that it can have, is
// cut short or interrupted. Whatever fails, each call gives one of its listed results,
// nothing is leaked, the lock is free, the files that were to be kept are there and as they
// were, each message that was accepted is in them once, and without the fault all works.
//
// FAULT_CASES is how many of the cases are tried (all by default in the Long test), evenly
// spread; FAULT_PART of FAULT_PARTS is which of them in this process.
//
//   Results        what a call may give when something in it fails
//   Scenario       the calls
//   Files          what has to hold of the directory
//   One case       in a process of its own
//   All cases
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef __SANITIZE_THREAD__ // whose runtime allocates in threads that it does not know yet
#define SUPPORT_ALLOCATIONS_ALWAYS
#endif
#include "support/every_call.h"

namespace {

using every::armed;
using every::quietly;

constexpr uint64_t PRODUCT = 5;
constexpr uint64_t PLAIN = 7;    // rolls over, keeps all files
constexpr uint64_t RECYCLED = 8; // keeps two files
constexpr uint64_t OTHER = 9;    // has files, and nobody writes
constexpr size_t KEPT_FILES = 2;
constexpr int SECONDS_OF_A_CASE = 60;

// What the parent learns of the children.
struct Shared {
    long calls[2]; // of the scenario without a fault
    uint8_t kinds[2][1 << 16];
    long reached; // cases in which something failed
    long struck;  // failures in them
    long blocks;  // that two rounds without a fault leave behind
};
Shared *shared;

int failures; // of this case
FILE *report; // standard error; the library's copies of messages go nowhere

[[gnu::format(printf, 2, 3)]] void expect(bool holds, const char *format, ...) {
    if (holds || ++failures > 10)
        return;
    va_list args;
    va_start(args, format);
    fprintf(report, "    ");
    vfprintf(report, format, args);
    fprintf(report, "\n");
    va_end(args);
}

// ---- results -----------------------------------------------------------------------------------

// What may come of a fault: results that hold for any, and those of one reason only.
using Results = std::initializer_list<uint32_t>;

bool mayBe(uint32_t result, const Results &listed) {
    const bool isMemory = every::plan.space == every::Space::MEMORY || every::plan.error == ENOMEM;
    switch (result) {
    case ZOLTLOG_OK:
        return true;
    case ZOLTLOG_NO_MEMORY:
        return isMemory;
    case ZOLTLOG_DEVICE_FULL: // told of nothing but a full device
        if (every::plan.error != ENOSPC)
            return false;
        break;
    case ZOLTLOG_NO_DIRECTORY: // a configuration that is not there is empty
        if (every::plan.error != ENOENT && every::plan.error != ENOTDIR)
            return false;
        break;
    case ZOLTLOG_OPEN_DENIED:
        if (every::plan.error != EACCES)
            return false;
        break;
    case ZOLTLOG_OPEN_NO_PATH:
        if (every::plan.error != ENOENT)
            return false;
        break;
    default:
        break;
    }
    return std::find(listed.begin(), listed.end(), result) != listed.end();
}

const Results OPENED = {ZOLTLOG_FAILED,      ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_OPEN_FAILED,
                        ZOLTLOG_OPEN_DENIED, ZOLTLOG_OPEN_NO_PATH,  ZOLTLOG_NO_DIRECTORY};
const Results SENT = {ZOLTLOG_WRITE_FAILED, ZOLTLOG_DEVICE_FULL};
const Results READ_CFG = {ZOLTLOG_CFG_NOT_FOUND};
const Results READ_ALL = {ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_NO_PRODUCT_CFG};
const Results WRITTEN = {ZOLTLOG_FAILED, ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_CFG_CREATE_FAILED};
const Results LISTED = {ZOLTLOG_FAILED, ZOLTLOG_CFG_NOT_FOUND, ZOLTLOG_NO_LOG_FILES, ZOLTLOG_NO_PRODUCT_CFG};
const Results COPIED = {ZOLTLOG_OPEN_FAILED, ZOLTLOG_SOURCE_SIZE_UNKNOWN, ZOLTLOG_DEST_OPEN_FAILED,
                        ZOLTLOG_SHORT_READ,  ZOLTLOG_DEVICE_FULL,         ZOLTLOG_SHORT_WRITE};
const Results STORED = {ZOLTLOG_STORE_NO_FILE, ZOLTLOG_STORE_NOT_FOUND, ZOLTLOG_STORE_NOT_CREATED,
                        ZOLTLOG_STORE_NOT_WRITTEN};
const Results NONE = {};

bool isFaultless; // a run in which nothing fails

template<typename Call>
uint32_t did(const char *name, const Results &listed, Call call) {
    const uint32_t result = armed(call);
    expect(isFaultless ? result == ZOLTLOG_OK : mayBe(result, listed), "%s gives %s", name,
           support::resultName(result).c_str());
    expect(zoltLogMutex.depth == 0, "%s leaves the lock taken", name);
    return result;
}

// ---- scenario ------------------------------------------------------------------------------------

// Japanese in EUC-JP, so that ICU has to convert. Without memory the record says so in its place.
const char FOREIGN[] = "\xc6\xfc\xcb\xdc\xb8\xec";

// Messages are told apart by a word in them: "m12;".
std::set<int> accepted;
std::set<int> refused;
std::set<int> contexts; // of the accepted; those are written again into new files
int messages;

template<typename Call>
bool send(const char *name, Call call, bool isCopied = false) {
    const int number = ++messages;
    char word[16];
    snprintf(word, sizeof word, "m%d;", number);
    const bool isSent = did(name, SENT, [&] { return call(word); }) == ZOLTLOG_OK;
    if (isSent || !isCopied) // what could not be copied may be in the file
        (isSent ? accepted : refused).insert(number);
    return isSent;
}

template<typename Call>
uint32_t withArguments(const Call *call, ...) {
    va_list args;
    va_start(args, call);
    const uint32_t result = (*call)(args);
    va_end(args);
    return result;
}

int32_t makeBlock(ZoltLisBlock *block, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = zoltLisTextV(block, format, args);
    va_end(args);
    return result;
}

template<typename Call>
uint32_t withBlock(const char *word, Call call) {
    ZoltLisBlock block = {};
    every::isArmed = false; // making it is no part of the call
    (void)makeBlock(&block, "%s %d", word, 7);
    every::isArmed = true;
    return call(&block);
}

void sendEveryKind(LogHandle *log) {
    constexpr uint32_t ERROR = ZOLTLOG_SEVERITY_ERROR;
    const char *const text = FOREIGN;
    send("zoltLogAppMsg", [&](const char *w) { return zoltLogAppMsg(log, 0, ERROR, 0, "%s", w); });
    send("zoltLogAppMsgEx",
         [&](const char *w) { return zoltLogAppMsgEx(log, 0, ERROR, text, 0, "%s %d", w, 1); });
    send("zoltLogAppMsg2",
         [&](const char *w) { return zoltLogAppMsg2(log, 1, 0, ERROR, 1001, "%s %d", w, 93); });
    send("zoltLogAppMsg2Ex", [&](const char *w) {
        return zoltLogAppMsg2Ex(log, 2, ZOLTLOG_KEEP_LOCAL_TEXT, ERROR, "who", 1001, "%s %d", w, 94);
    });
    send("zoltLogAppMsg2V", [&](const char *w) {
        const auto call = [&](va_list a) { return zoltLogAppMsg2V(log, 3, 0, ERROR, 0, "%s", a); };
        return withArguments(&call, w);
    });
    send("zoltLogAppMsg2LEx", [&](const char *w) {
        return withBlock(
            w, [&](ZoltLisBlock *b) { return zoltLogAppMsg2LEx(log, 4, 0, ERROR, "who", nullptr, b); });
    });
    send("zoltLogDiagMsg", [&](const char *w) { return zoltLogDiagMsg(log, 0, 1, w, 0, "%s", text); });
    send("zoltLogDiagMsg2L", [&](const char *w) {
        return withBlock(w, [&](ZoltLisBlock *b) { return zoltLogDiagMsg2L(log, 5, 0, 1, w, text, b); });
    });
    send("zoltLogAuditMsg",
         [&](const char *w) { return zoltLogAuditMsg(log, 0, "subject", 1, 1002, "%s %d", w, 2); });
    send("zoltLogAuditMsg2V", [&](const char *w) {
        const auto call = [&](va_list a) { return zoltLogAuditMsg2V(log, 6, 0, text, 1, 4711, "%s", a); };
        return withArguments(&call, w);
    });
    send("zoltLogDebugMsg", [&](const char *w) { return zoltLogDebugMsg(log, 0, 2, w, "%s", text); });
    send("zoltLogFormattedDebugMsg",
         [&](const char *w) { return zoltLogFormattedDebugMsg(log, 0, 2, "who", w); });
    const std::string longText(5000, 'x'); // needs a larger record
    // Without memory for the text the record goes without it.
    send("a long message",
         [&](const char *w) { return zoltLogAppMsgEx(log, 0, ERROR, w, 0, "%s", longText.c_str()); });
    // copies for the console and the system log
    send(
        "a message with copies",
        [&](const char *w) {
            return zoltLogAppMsg(log, ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOG, ERROR, 0,
                                 "%s", w);
        },
        true);
}

void sendLines(LogHandle *log, int count, size_t length) {
    const std::string filling(length, 'y');
    for (int i = 0; i < count; ++i)
        send("a message that rolls over", [&](const char *w) {
            return zoltLogAppMsg(log, 0, ZOLTLOG_SEVERITY_INFO, 0, "%s %s", w, filling.c_str());
        });
}

// Opens, and once more when it fails. Without a file nothing can be sent.
bool openTwice(const char *name, LogHandle *log, const std::function<uint32_t()> &open) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        *log = {};
        const uint32_t result = did(name, OPENED, open);
        // one that failed early has no settings
        const bool isEarly = result == ZOLTLOG_NO_MEMORY || result == ZOLTLOG_NO_DIRECTORY;
        if (result == ZOLTLOG_OK || (log->file != nullptr && !isEarly))
            return true;
        quietly([&] { (void)zoltLogClose(log); });
    }
    return false;
}

// A handle is closed whatever has failed: closing releases memory and descriptors only.
void close(LogHandle *log) {
    (void)armed([&] { return zoltLogClose(log); });
    expect(log->file == nullptr, "a closed handle has a file");
}

void useContexts(LogHandle *log) {
    LogHandle outer = {};
    LogHandle inner = {};
    const auto create = [](LogHandle *parent, LogHandle *context) {
        const int number = ++messages;
        const std::string token = "m" + std::to_string(number) + ";";
        const uint32_t result = did("zoltLogCreateContext", SENT, [&] {
            return zoltLogCreateContext(parent, context, token.c_str(), 0, "%s", FOREIGN);
        });
        (result == ZOLTLOG_OK ? accepted : refused).insert(number);
        contexts.insert(number); // one that could not be written may be, in the next file
        return context->file != nullptr;
    };
    if (create(log, &outer)) {
        sendLines(&outer, 1, 10);
        if (create(&outer, &inner)) {
            sendLines(&inner, 3, 400); // and once more at the top of a file
            (void)armed([&] { return zoltLogDestroyContext(&inner); });
        }
        sendLines(&outer, 1, 400);
        (void)armed([&] { return zoltLogDestroyContext(&outer); });
    }
}

void useSeries() {
    LogHandle log;
    if (openTwice("zoltLogOpen", &log, [&] { return zoltLogOpen(PRODUCT, PLAIN, &log); })) {
        sendEveryKind(&log);
        useContexts(&log);
        every::nowNs += 601 * every::NS; // the file is opened anew
        sendLines(&log, 2, 20);
        every::nowNs += 61 * every::NS; // a look for changed levels
        uint32_t level = 0;
        (void)did("zoltLogGetDebugLevel", NONE, [&] { return zoltLogGetDebugLevel(&log, &level); });
        expect(level == 6, "the debug level becomes %u", level);
        close(&log);
    }
    LogHandle second;
    if (openTwice("zoltLogOpen2", &second, [&] { return zoltLogOpen2(PRODUCT, PLAIN, RECYCLED, &second); })) {
        sendLines(&second, 4, 700);
        close(&second);
    }
    LogHandle set;
    if (openTwice("zoltLogOpenLogSet", &set,
                  [&] { return zoltLogOpenLogSet(PRODUCT, PLAIN, "backup", &set); })) {
        sendLines(&set, 3, 600); // waits for another second
        close(&set);
    }
}

void useSystemLog() {
    LogCfg cfg = {};
    if (did("InitLogCfg", NONE, [&] { return InitLogCfg(PRODUCT, PLAIN, nullptr, &cfg); }) == ZOLTLOG_OK) {
        cfg.secureAuditLevel = 6;
        cfg.outputFlags = ZOLTLOG_OUT_OSLOGX;
        LogHandle secure = {};
        if (did("zoltLogSecureOpen", {ZOLTLOG_OSLOG_OPEN_FAILED},
                [&] { return zoltLogSecureOpen(PRODUCT, PLAIN, &cfg, &secure); }) == ZOLTLOG_OK)
            (void)did("zoltLogSecureAuditMsg", {static_cast<uint32_t>(ZOLTLOG_OS_FAILED)}, [&] {
                return zoltLogSecureAuditMsg(&secure, 1, "subject", 0, 1001, "%s %d", FOREIGN, 1);
            });
        quietly([&] { (void)zoltLogClose(&secure); });
    }
    quietly([&] { (void)zoltLogFreeCfg(&cfg); });
}

void freeListing(LogListing *listing) {
    quietly([&] {
        while (listing->files != nullptr) {
            LogFileEntry *next = listing->files->next;
            zoltLogFree(listing->files);
            listing->files = next;
        }
    });
}

void listAndCopy() {
    LogCfg *cfgs[8] = {};
    uint32_t count = 0;
    (void)did("zoltLogReadAllCfg", READ_ALL, [&] { return zoltLogReadAllCfg(nullptr, 8, cfgs, &count); });
    LogListing all = {};
    const Results nothing = {ZOLTLOG_NO_LOG_FILES, ZOLTLOG_FAILED};
    if (count != 0)
        (void)did("GetLogFiles", nothing, [&] { return GetLogFiles(cfgs, count, &all); });
    freeListing(&all);
    quietly([&] { FreeConfigArray(cfgs, count); });

    LogListing surplus = {};
    (void)did("zoltLogGetManageableLogFiles", LISTED,
              [&] { return zoltLogGetManageableLogFiles(PRODUCT, OTHER, &surplus); });
    char *path = nullptr;
    for (int file = 0; file < 4; ++file) {
        const uint32_t fetched = armed([&] { return zoltLogFetchNextFile(&surplus, &path); });
        if (fetched != ZOLTLOG_OK) {
            expect(fetched == ZOLTLOG_NO_MORE || mayBe(fetched, NONE), "zoltLogFetchNextFile gives %u",
                   fetched);
            break;
        }
        (void)did("zoltLogCopyFile", COPIED, [&] { return zoltLogCopyFile(path, "./copies"); });
        (void)did("zoltLogCopyFileEx", {ZOLTLOG_SHORT_WRITE},
                  [&] { return zoltLogCopyFileEx(path, "./links"); });
        for (const std::string &name : support::listFiles("links"))
            (void)libc::unlink.real(("links/" + name).c_str());
        quietly([&] { zoltLogFreeBuffer(&path); });
    }
    freeListing(&surplus);
}

void readAndWriteSettings(bool again) {
    LogCfg cfg = {};
    if (did("zoltLogReadCfg", READ_CFG, [&] { return zoltLogReadCfg(PRODUCT, PLAIN, &cfg); }) == ZOLTLOG_OK) {
        expect(cfg.debugLevel == 6 && strstr(cfg.directory, "/case/log/") != nullptr,
               "settings that were read are others: level %u in %s", cfg.debugLevel, cfg.directory);
        (void)did("zoltLogCfgSetDiagLevel", NONE,
                  [&] { return zoltLogCfgSetDiagLevel(&cfg, again ? 4 : 5); });
        (void)did("zoltLogWriteCfg", WRITTEN, [&] { return zoltLogWriteCfg(PRODUCT, PLAIN, &cfg); });
    }
    quietly([&] { (void)zoltLogFreeCfg(&cfg); });
    if (did("zoltLogReadlogsetCfg", READ_CFG,
            [&] { return zoltLogReadlogsetCfg(PRODUCT, "backup", &cfg); }) == ZOLTLOG_OK) {
        (void)did("zoltLogCfgSetMaxFileSize", NONE, [&] { return zoltLogCfgSetMaxFileSize(&cfg, 1); });
        (void)did("zoltLogWritelogSetCfg", WRITTEN,
                  [&] { return zoltLogWritelogSetCfg(PRODUCT, "backup", &cfg); });
    }
    quietly([&] { (void)zoltLogFreeCfg(&cfg); });
}

void registerAndForget() {
    const uint32_t added =
        did("zoltLogAddProductCfg", WRITTEN, [&] { return zoltLogAddProductCfg(6, "six", "./six.conf"); });
    const bool isThere =
        support::readFile("main.conf").find("6.Configuration=./six.conf\n") != std::string::npos;
    expect(isThere == (added == ZOLTLOG_OK), "zoltLogAddProductCfg gives %u, and the product is %s", added,
           isThere ? "there" : "not there");
    if (added == ZOLTLOG_OK) {
        const uint32_t removed =
            did("zoltLogRemoveProductCfg", WRITTEN, [&] { return zoltLogRemoveProductCfg(6); });
        if (removed != ZOLTLOG_OK) { // for the next round
            const every::Plan plan = every::plan;
            every::plan = {};
            quietly([&] { (void)zoltLogRemoveProductCfg(6); });
            every::plan = plan;
        }
    }
}

void useStore() {
    PropertyStore store = {};
    if (did("utiOpenPropertyStore", STORED,
            [&] { return utiOpenPropertyStore("./store.conf", "a", &store); }) != ZOLTLOG_STORE_OK)
        return;
    char *text = nullptr;
    if (did("utiGetPropertyAsStr", STORED, [&] { return utiGetPropertyAsStr(&store, "kept", &text); }) ==
        ZOLTLOG_STORE_OK)
        expect(text != nullptr && strcmp(text, "value") == 0, "a value that was read is another: %s", text);
    quietly([&] { zoltLogFree(text); });
    const auto change = [&](const char *name, const std::function<uint32_t()> &call) {
        if (store.stream == nullptr)
            return;
        const std::string before = support::readFile("store.conf");
        // The change is made, and the handle that was to be opened anew is closed.
        if (did(name, STORED, call) != ZOLTLOG_STORE_OK && store.stream != nullptr)
            expect(support::readFile("store.conf") == before, "%s fails and changes the file", name);
    };
    change("utiSetPropertyAsStr", [&] { return utiSetPropertyAsStr(&store, "one", "1"); });
    change("utiRemoveProperty", [&] { return utiRemoveProperty(&store, "one"); });
    (void)armed([&] { return utiClosePropertyStore(&store); });
}

void runScenario(bool again) {
    useSeries();
    useSystemLog();
    listAndCopy();
    readAndWriteSettings(again);
    registerAndForget();
    useStore();
}

// ---- files -------------------------------------------------------------------------------------------

std::string nameOf(uint64_t originator, int day, int counter) {
    const time_t at = every::nowNs / every::NS - day * 86400;
    tm local = {};
    localtime_r(&at, &local);
    char name[128];
    snprintf(name, sizeof name, "%lu-%lu-83886090-%02d%02d%02d-%010d.log", PRODUCT, originator,
             local.tm_year - 100, local.tm_mon + 1, local.tm_mday, counter);
    return name;
}

std::string headerOf(uint64_t originator, int day) {
    return "$Header 65543,5," + std::to_string(originator) + "," +
           std::to_string(every::nowNs / every::NS - day * 86400) + ",5:hostA,0\n";
}

std::map<std::string, std::string> keptFiles; // and what they hold
std::string continued;                        // the one of them that goes on

void keep(const std::string &path, const std::string &bytes) {
    support::writeFile(path, bytes);
    keptFiles[path] = bytes;
}

void setUp() {
    for (const char *directory : {"log", "rec", "removed", "copies", "links"})
        libc::mkdir.real(directory, 0755);
    const std::string here = std::filesystem::current_path().string();
    support::writeFile("main.conf", "5.Configuration=./five.conf\n5.Names=five\n");
    support::writeFile(
        "five.conf",
        "Default.LogDirectory=" + here +
            "/log/\nDefault.RolloverMode=FileSize\n"
            "Default.MaxLogFileSizeKB=1\n7.DebugLevel=6\n7.DiagnosticLevel=6\n7.DynaReloadInSec=60\n"
            "8.LogDirectory=" +
            here +
            "/rec/\n8.LogRecycle=true\n8.NumberOfLogFiles=2\n9.NumberOfLogFiles=1\n"
            "LOGSET.Default.LogDirectory=" +
            here +
            "/log/\nLOGSET.Default.RolloverMode=FileSize\n"
            "LOGSET.Default.MaxLogFileSizeKB=1\nLOGSET.backup.DebugLevel=1\n");
    support::writeFile("store.conf", "a.kept=value\nb.one=2\n");
    setenv("ZOLTLOG_CFG_LOC", "./main.conf", 1);
    keep("log/" + nameOf(PLAIN, 3, 0), headerOf(PLAIN, 3) + "old\n");
    continued = "log/" + nameOf(PLAIN, 2, 0);
    keep(continued, headerOf(PLAIN, 2) + "the latest\n");
    for (int day = 5; day > 2; --day)
        keep("log/" + nameOf(OTHER, day, 0), headerOf(OTHER, day) + "of another\n");
    keep("log/readme.txt", "not a log file\n");
    for (int counter = 0; counter < 4; ++counter)
        support::writeFile("rec/" + nameOf(RECYCLED, 2, counter),
                           headerOf(RECYCLED, 2) + "old " + std::to_string(counter) + "\n");
}

// When a file was made, as its header tells, and where its name stands within that second: the
// date and counter in it, of whatever host.
std::pair<long, std::string> ageOf(const std::string &name) {
    const std::string bytes = support::readFile("rec/" + name);
    const size_t at = bytes.compare(0, 8, "$Header ") == 0 ? bytes.find("5,8,") : std::string::npos;
    return {at == std::string::npos ? 0 : strtol(bytes.c_str() + at + 4, nullptr, 10),
            name.substr(name.rfind('-', name.rfind('-') - 1) + 1)};
}

// What recycling removes has to be older than what stays.
int moveAside(const std::string &name) {
    size_t newer = 0;
    for (const std::string &other : support::listFiles("rec"))
        newer +=
            other.find(".log") != std::string::npos && ageOf(other) >= ageOf(name) && other != name ? 1 : 0;
    expect(newer >= KEPT_FILES, "%s is removed, and %zu files are newer", name.c_str(), newer);
    return libc::rename.real(("rec/" + name).c_str(), ("removed/" + name).c_str());
}

int removeNow(const char *path) {
    const char *const recycled = strstr(path, "/rec/");
    if (recycled == nullptr || strstr(path, ".new-") != nullptr)
        return libc::unlink.real(path);
    const bool was = every::isArmed;
    const long before = support::blocksHeld;
    every::isArmed = false;
    const int result = moveAside(recycled + strlen("/rec/"));
    every::isArmed = was;
    every::blocksKept -= support::blocksHeld - before; // of the test's own
    return result;
}

// How often each message is in the files, and that nothing else is.
std::map<int, int> messagesIn(const char *directory) {
    std::map<int, int> found;
    for (const std::string &name : support::listFiles(directory)) {
        const std::string path = std::string(directory) + "/" + name;
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".log") != 0)
            continue;
        const std::string bytes = support::readFile(path);
        expect(bytes.empty() || bytes.compare(0, 8, "$Header ") == 0, "%s has no header", path.c_str());
        size_t at = 0;
        while ((at = bytes.find('m', at)) != std::string::npos) {
            char *end = nullptr;
            const long number = strtol(bytes.c_str() + at + 1, &end, 10);
            if (number > 0 && *end == ';' && isdigit(bytes[at + 1]) != 0)
                ++found[static_cast<int>(number)];
            ++at;
        }
    }
    return found;
}

void lookAtFiles() {
    for (const auto &[path, bytes] : keptFiles) {
        const std::string now = support::readFile(path);
        expect(path == continued ? now.compare(0, bytes.size(), bytes) == 0 : now == bytes,
               "%s is not as it was", path.c_str());
    }
    std::map<int, int> found = messagesIn("log");
    for (const char *directory : {"rec", "removed"})
        for (const auto &[number, count] : messagesIn(directory))
            found[number] += count;
    const bool isTorn =
        every::plan.reach == every::Reach::SHORT_ONWARDS || every::plan.reach == every::Reach::SHORT;
    for (const int number : accepted) {
        const bool isContext = contexts.count(number) != 0;
        expect(isContext || isTorn ? found[number] >= 1 : found[number] == 1,
               "message %d was accepted and is there %d times", number, found[number]);
    }
    for (const int number : refused) {
        if (contexts.count(number) == 0 && !isTorn)
            expect(found[number] == 0, "message %d was refused and is there %d times", number, found[number]);
    }
    for (const char *path : {"main.conf", "five.conf", "store.conf"})
        expect(support::exists(path), "%s is gone", path);
}

// ---- one case ------------------------------------------------------------------------------------------

constexpr long MOST_OF_ICU = 3; // blocks that it loses when one cannot be had
constexpr every::Kind MISSING_CATALOGUE = {"", {ENOENT, ENOTDIR, EACCES, EPERM, ELOOP, ENXIO}, false, false};

void noteKind(every::KindNumber kind) {
    if (every::calls[1] <= 1 << 16)
        shared->kinds[1][every::calls[1] - 1] = kind;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer's runtime takes blocks of its own, and texts for the C library, uncounted.
constexpr bool BLOCKS_ARE_COUNTED = false;
#else
constexpr bool BLOCKS_ARE_COUNTED = true;
#endif

void lookAtBlocks(const every::Plan &plan) {
    const long more = every::blocksKept - shared->blocks;
    bool isNone = more == 0;
    if (!BLOCKS_ARE_COUNTED)
        isNone = true;
    else if (plan.space == every::Space::MEMORY)
        // ICU keeps what it could not make for want of memory as missing, and some of its parts.
        isNone = more <= MOST_OF_ICU;
    else if (every::has(MISSING_CATALOGUE, plan.error))
        isNone = more <= 0; // a catalogue that was not there is not looked for again
    expect(isNone, "%ld blocks more are kept than without a fault", more);
}

// Everything with the plan, and once more with nothing failing.
int runCase(const every::Plan &plan) {
    alarm(SECONDS_OF_A_CASE);
    every::useOwnClock();
    failures = 0;
    setUp();
    libc::unlink.hook = [](const char *path) {
        return every::made(every::REMOVE, -1, [&] { return removeNow(path); });
    };
    libc::remove.hook = [](const char *path) {
        return every::made(every::REMOVE, -1, [&] { return removeNow(path); });
    };
    report = fdopen(dup(2), "w");
    setvbuf(report, nullptr, _IONBF, 0);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, 1);
    dup2(nowhere, 2);
    const size_t descriptors = support::openDescriptors();

    const bool isDry = plan.space == every::Space::NOTHING;
    isFaultless = isDry;
    every::begin(plan);
    if (isDry)
        every::onCall = noteKind;
    runScenario(false);
    every::onCall = nullptr;
    if (isDry) {
        shared->calls[0] = every::calls[0];
        shared->calls[1] = every::calls[1];
    }
    shared->reached += every::struck != 0 ? 1 : 0;
    shared->struck += every::struck;
    lookAtFiles();
    expect(support::openDescriptors() == descriptors, "%zu descriptors are open, not %zu",
           support::openDescriptors(), descriptors);

    isFaultless = true;
    every::begin({});
    accepted.clear();
    refused.clear();
    every::nowNs += 2 * every::NS;
    runScenario(true);
    lookAtFiles();
    expect(support::openDescriptors() == descriptors, "%zu descriptors are open afterwards, not %zu",
           support::openDescriptors(), descriptors);
    if (isDry)
        shared->blocks = every::blocksKept; // of what is kept for good
    else
        lookAtBlocks(plan);
    // the lock is free for others
    uint32_t result = ZOLTLOG_FAILED;
    std::thread([&] {
        LogHandle log = {};
        result = zoltLogOpen(PRODUCT, PLAIN, &log);
        if (result == ZOLTLOG_OK)
            result = zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_INFO, 0, "from another thread");
        zoltLogClose(&log);
    }).join();
    expect(result == ZOLTLOG_OK, "another thread's message gives %u", result);
    return failures == 0 ? 0 : 1;
}

int inProcess(const every::Plan &plan) {
    const std::string place = "case";
    std::filesystem::create_directory(place);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        _exit(chdir(place.c_str()) == 0 ? runCase(plan) : 99);
    int status = 0;
    waitpid(child, &status, 0);
    std::filesystem::remove_all(place);
    return status;
}

// ---- all cases -------------------------------------------------------------------------------------------

std::vector<every::Plan> allCases() {
    using every::Reach;
    using every::Space;
    std::vector<every::Plan> cases;
    if (support::allocationsCanFail())
        for (long number = 1; number <= shared->calls[0]; ++number)
            for (const Reach reach : {Reach::ONCE, Reach::ONWARDS})
                cases.push_back({Space::MEMORY, number, ENOMEM, reach});
    for (long number = 1; number <= shared->calls[1]; ++number) {
        const every::Kind &kind = every::KINDS[shared->kinds[1][number - 1]];
        for (const int *error = kind.errors; *error != 0; ++error)
            for (const Reach reach : {Reach::ONCE, Reach::ONWARDS})
                if (*error != EINTR || reach == Reach::ONCE) // a storm of it ends
                    cases.push_back({Space::SYSTEM, number, *error, reach});
        if (kind.interrupted) {
            cases.push_back({Space::SYSTEM, number, EINTR, Reach::ONCE});
            cases.push_back({Space::SYSTEM, number, EINTR, Reach::STORM});
        }
        if (kind.shortened) {
            cases.push_back({Space::SYSTEM, number, 0, Reach::SHORT});
            cases.push_back({Space::SYSTEM, number, 0, Reach::SHORT_ONWARDS});
        }
    }
    return cases;
}

size_t numberOf(const char *name, size_t otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 10) : otherwise;
}

void failEverything(size_t wanted) {
    if (!support::useLocale("ja_JP.EUC-JP"))
        GTEST_SKIP() << "the locale is missing";
    (void)mbstowcs(nullptr, FOREIGN, 0); // what the C library loads for the encoding is none of the case's
    setenv("QDLIS_CATALOG", (support::buildDirectory() + "/share/qdul/catalogue/diskd").c_str(), 1);
    shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(inProcess({}), 0) << "without a fault";
    const std::vector<every::Plan> cases = allCases();
    wanted = std::min(wanted, cases.size());
    const size_t parts = numberOf("FAULT_PARTS", 1);
    size_t tried = 0;
    int failed = 0;
    for (size_t i = numberOf("FAULT_PART", 0); i < wanted; i += parts) {
        const size_t which = i * cases.size() / wanted;
        const every::Plan &plan = cases[which];
        const auto kind = plan.space == every::Space::MEMORY
                              ? every::ALLOCATION
                              : static_cast<every::KindNumber>(shared->kinds[1][plan.number - 1]);
        const int status = inProcess(plan);
        ++tried;
        EXPECT_EQ(status, 0) << "case " << which << ": " << every::describe(plan, kind)
                             << (WIFSIGNALED(status) ? ", ended by signal " : "")
                             << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "");
        failed += status != 0 ? 1 : 0;
        if (failed == 20) {
            ADD_FAILURE() << "and so on";
            break;
        }
    }
    EXPECT_GT(shared->reached, static_cast<long>(tried * 9 / 10));
    printf(
        "%zu cases of %zu, %ld failures injected; the scenario makes %ld allocations and %ld system calls\n",
        tried, cases.size(), shared->struck, shared->calls[0], shared->calls[1]);
    munmap(shared, sizeof(Shared));
}

} // namespace

TEST(FaultEverything, ASliceOfAllFailures) {
    failEverything(numberOf("FAULT_CASES", 40));
}

TEST(LongFaultEverything, EachFailureOnce) {
    failEverything(numberOf("FAULT_CASES", 1000000));
}

TEST(FaultEverything, AChangeWhoseNameCannotBeLookedAtEnds) {
    alarm(SECONDS_OF_A_CASE);
    every::useOwnClock();
    support::writeFile("store.conf", "a.kept=value\n");
    PropertyStore store = {};
    ASSERT_EQ(utiOpenPropertyStore("./store.conf", "a", &store), ZOLTLOG_STORE_OK);
    libc::lstat.hook = [](const char *, struct stat *) {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(utiSetPropertyAsStr(&store, "one", "1"), ZOLTLOG_STORE_NOT_WRITTEN);
    libc::lstat.unhook();
    EXPECT_EQ(support::readFile("store.conf"), "a.kept=value\n");
    EXPECT_EQ(utiSetPropertyAsStr(&store, "one", "1"), ZOLTLOG_STORE_OK);
    EXPECT_EQ(support::readFile("store.conf"), "a.kept=value\na.one=1\n");
    EXPECT_EQ(support::listFiles("."), std::vector<std::string>{"store.conf"});
    EXPECT_EQ(utiClosePropertyStore(&store), ZOLTLOG_STORE_OK);
    alarm(0);
}
