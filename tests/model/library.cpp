// SPDX-License-Identifier: Apache-2.0
#include "model/library.h"

#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>

SUPPORT_CALL(int, fallocate, (int descriptor, int mode, off_t offset, off_t length),
             (descriptor, mode, offset, length), )

namespace library {

using model::Call;
using model::Clock;
using model::FileAction;
using model::MessageCall;
using model::NodeKind;
using model::Op;
using model::Outcome;
using model::Step;

// ---- clock and host --------------------------------------------------------------------

namespace {

Clock now;
bool replaced;
bool inLibrary; // not in the test's own calls
bool deviceEnds;
size_t room;
int errorOfDevice;
std::string hostName;
std::string hostAddress;
LogHandle handles[model::SLOTS];

timespec timespecOf(int64_t ms) {
    return {ms / 1000, ms % 1000 * 1000000};
}

// Files are as old as the replaced clock says.
void touch(int descriptor) {
    const timespec times[] = {timespecOf(now.wallMs), timespecOf(now.wallMs)};
    (void)futimens(descriptor, times);
}
void touch(const std::string &path) {
    const timespec times[] = {timespecOf(now.wallMs), timespecOf(now.wallMs)};
    (void)utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

int lookUpHost(const char *, const char *, const addrinfo *, addrinfo **list) {
    static addrinfo info;
    static sockaddr_in address;
    address = {};
    inet_pton(AF_INET, hostAddress.c_str(), &address.sin_addr);
    info = {};
    info.ai_family = AF_INET;
    info.ai_addr = reinterpret_cast<sockaddr *>(&address);
    *list = &info;
    return 0;
}

const bool PREPARED = support::eachCase([] {
    replaced = false;
    libc::time.hook = [](time_t *out) {
        if (!replaced)
            return libc::time.real(out);
        if (out != nullptr)
            *out = now.wallMs / 1000;
        return static_cast<time_t>(now.wallMs / 1000);
    };
    libc::gettimeofday.hook = [](timeval *out, void *zone) {
        if (!replaced)
            return libc::gettimeofday.real(out, zone);
        *out = {now.wallMs / 1000, now.wallMs % 1000 * 1000};
        return 0;
    };
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        if (!replaced)
            return libc::clock_gettime.real(clock, out);
        switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            *out = timespecOf(now.wallMs);
            return 0;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
            *out = timespecOf(now.steadyMs);
            return 0;
        default:
            return libc::clock_gettime.real(clock, out);
        }
    };
    libc::nanosleep.hook = [](const timespec *pause, timespec *rest) {
        if (!replaced)
            return libc::nanosleep.real(pause, rest);
        const int64_t ms = pause->tv_sec * 1000 + (pause->tv_nsec + 999999) / 1000000;
        now.wallMs += ms;
        now.steadyMs += ms;
        return 0;
    };
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) {
        if (inLibrary && deviceEnds && descriptor > 2) {
            if (size > 0 && room == 0) {
                errno = errorOfDevice;
                return ssize_t{-1};
            }
            size = std::min(size, room);
            room -= size;
        }
        const ssize_t written = libc::write.real(descriptor, bytes, size);
        if (replaced && descriptor > 2)
            touch(descriptor);
        return written;
    };
    // Asking whether a write is under way changes nothing; some file systems tell the time of it.
    libc::fallocate.hook = [](int descriptor, int mode, off_t offset, off_t length) {
        struct stat before = {};
        const bool known = replaced && fstat(descriptor, &before) == 0;
        const int result = libc::fallocate.real(descriptor, mode, offset, length);
        const int error = errno;
        const timespec times[] = {before.st_atim, before.st_mtim};
        if (known)
            (void)futimens(descriptor, times);
        errno = error;
        return result;
    };
    libc::gethostname.hook = [](char *buffer, size_t size) {
        if (!replaced)
            return libc::gethostname.real(buffer, size);
        strncpy(buffer, hostName.c_str(), size);
        return 0;
    };
    libc::getaddrinfo.hook = lookUpHost;
    libc::freeaddrinfo.hook = [](addrinfo *) {};
    libc::getifaddrs.hook = [](ifaddrs **list) {
        static sockaddr_in address;
        static ifaddrs entry;
        address = {};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, hostAddress.c_str(), &address.sin_addr);
        entry = {};
        entry.ifa_addr = reinterpret_cast<sockaddr *>(&address);
        *list = &entry;
        return 0;
    };
    libc::freeifaddrs.hook = [](ifaddrs *) {};
});

} // namespace

void prepare(const model::Sequence &sequence, const Clock &clock) {
    hostName = sequence.hostName;
    hostAddress = sequence.hostAddress;
    now = clock;
    replaced = true;
    deviceEnds = false;
    setenv("ZOLTLOG_CFG_LOC", "./zoltlog.conf", 1); // read once per process: right in each directory
    setenv("TZ", sequence.zone.c_str(), 1);
    tzset();
    if (!support::useLocale(sequence.encoding == model::Encoding::Utf8 ? "en_US.UTF-8" : "de_DE.ISO-8859-1"))
        ADD_FAILURE() << "the locale is missing";
    for (LogHandle &handle : handles)
        handle = {};
    configure(sequence.configuration);
}

Clock clock() {
    return now;
}
void setClock(const Clock &clock) {
    now = clock;
}
uint64_t process() {
    return static_cast<uint64_t>(getpid());
}
uint64_t thread() {
    return static_cast<uint64_t>(pthread_self());
}

void configure(const model::Configuration &configuration) {
    support::writeFile("zoltlog.conf", configuration.registered
                                           ? "5.Configuration=./product.conf\n5.Names=test\n"
                                           : "6.Configuration=./product.conf\n");
    support::writeFile("product.conf", show(configuration));
    touch("product.conf");
}

// ---- messages --------------------------------------------------------------------------

namespace {

ZoltLisBlock blockOf(const char *format, ...) {
    ZoltLisBlock block = {};
    va_list args;
    va_start(args, format);
    EXPECT_EQ(0, zoltLisTextV(&block, format, args));
    va_end(args);
    return block;
}

template<typename Function>
uint32_t withList(Function function, ...) {
    va_list args;
    va_start(args, function);
    const uint32_t result = function(args);
    va_end(args);
    return result;
}

uint32_t sendRaw(LogHandle *handle, const MessageCall &c) {
    LogMsg msg;
    uint32_t result = zoltLogInitMsg(&msg, handle, c.type, c.text.c_str());
    if (result != 0)
        return result;
    msg.timestamp = static_cast<uint64_t>(static_cast<int64_t>(msg.timestamp) + c.shiftMs);
    msg.who = const_cast<char *>(c.who.c_str());
    msg.attr.severity = c.grade;
    msg.outcome = c.outcome;
    if (c.call == Call::RawMessage) {
        result = zoltLogMsg(handle, 0, &msg);
    } else {
        if (c.withBlock)
            msg.lis = blockOf(formatText(c.format), c.text.c_str(), c.first, c.second);
        result = zoltLogWriteMsgWithRolloverToFile(handle->file, &msg);
    }
    EXPECT_EQ(0u, zoltLogFreeMsg(&msg));
    return result;
}

uint32_t send(LogHandle *h, const MessageCall &c) {
    const char *format = formatText(c.format);
    const char *who = c.who.c_str();
    const char *text = c.text.c_str();
    const char *ready = c.noText ? nullptr : text;
    const int32_t n = c.first;
    const uint32_t u = c.second;
    ZoltLisBlock block = {};
    const bool takesBlock = c.call == Call::App2L || c.call == Call::App2Lex || c.call == Call::Diag2L ||
                            c.call == Call::Audit2L || c.call == Call::SecureL;
    if (takesBlock && c.withBlock)
        block = blockOf(format, text, n, u);
    const auto ended = [&](uint32_t result) {
        if ((block.word[0] | block.word[1] | block.word[2]) != 0)
            (void)zoltLisFree(&block); // it was refused before it was taken
        return result;
    };
    switch (c.call) {
    case Call::App:
        return zoltLogAppMsg(h, c.flags, c.grade, c.number, format, text, n, u);
    case Call::AppEx:
        return zoltLogAppMsgEx(h, c.flags, c.grade, who, c.number, format, text, n, u);
    case Call::App2:
        return zoltLogAppMsg2(h, c.id, c.flags, c.grade, c.number, format, text, n, u);
    case Call::App2Ex:
        return zoltLogAppMsg2Ex(h, c.id, c.flags, c.grade, who, c.number, format, text, n, u);
    case Call::App2V:
        return withList(
            [&](va_list list) { return zoltLogAppMsg2V(h, c.id, c.flags, c.grade, c.number, format, list); },
            text, n, u);
    case Call::App2Vex:
        return withList(
            [&](va_list list) {
                return zoltLogAppMsg2VEx(h, c.id, c.flags, c.grade, who, c.number, format, list);
            },
            text, n, u);
    case Call::App2L:
        return ended(zoltLogAppMsg2L(h, c.id, c.flags, c.grade, ready, &block));
    case Call::App2Lex:
        return ended(zoltLogAppMsg2LEx(h, c.id, c.flags, c.grade, who, ready, &block));
    case Call::Diag:
        return zoltLogDiagMsg(h, c.flags, c.grade, who, c.number, format, text, n, u);
    case Call::Diag2:
        return zoltLogDiagMsg2(h, c.id, c.flags, c.grade, who, c.number, format, text, n, u);
    case Call::Diag2V:
        return withList(
            [&](va_list list) {
                return zoltLogDiagMsg2V(h, c.id, c.flags, c.grade, who, c.number, format, list);
            },
            text, n, u);
    case Call::Diag2L:
        return ended(zoltLogDiagMsg2L(h, c.id, c.flags, c.grade, who, ready, &block));
    case Call::Audit:
        return zoltLogAuditMsg(h, c.flags, who, c.outcome, c.number, format, text, n, u);
    case Call::Audit2:
        return zoltLogAuditMsg2(h, c.id, c.flags, who, c.outcome, c.number, format, text, n, u);
    case Call::Audit2V:
        return withList(
            [&](va_list list) {
                return zoltLogAuditMsg2V(h, c.id, c.flags, who, c.outcome, c.number, format, list);
            },
            text, n, u);
    case Call::Audit2L:
        return ended(zoltLogAuditMsg2L(h, c.id, c.flags, who, c.outcome, &block));
    case Call::Secure:
        return zoltLogSecureAuditMsg(h, c.grade, who, c.outcome, c.number, format, text, n, u);
    case Call::SecureV:
        return withList(
            [&](va_list list) {
                return zoltLogSecureAuditMsgV(h, c.grade, who, c.outcome, c.number, format, list);
            },
            text, n, u);
    case Call::SecureL:
        return ended(zoltLogSecureAuditMsgL(h, c.grade, who, c.outcome, &block));
    case Call::Debug:
        return zoltLogDebugMsg(h, c.flags, c.grade, who, format, text, n, u);
    case Call::Debug2:
        return zoltLogDebugMsg2(h, c.id, c.flags, c.grade, who, format, text, n, u);
    case Call::Debug2V:
        return withList(
            [&](va_list list) { return zoltLogDebugMsg2V(h, c.id, c.flags, c.grade, who, format, list); },
            text, n, u);
    case Call::Formatted:
        return zoltLogFormattedDebugMsg(h, c.flags, c.grade, who, text);
    default:
        return sendRaw(h, c);
    }
}

uint64_t sequenceOf(LogHandle *handle) {
    uint64_t number = 0;
    EXPECT_EQ(0u, zoltLogGetSequenceNumber(handle, &number));
    return number;
}

} // namespace

// ---- steps -----------------------------------------------------------------------------

Outcome apply(const Step &step) {
    switch (step.op) { // what is no call of the library
    case Op::TimePasses:
        now.wallMs += step.ms;
        now.steadyMs += std::min(step.ms, model::AWAKE_MS);
        return {};
    case Op::ClockIsSet:
        now.wallMs += step.ms;
        return {};
    case Op::Configure:
        configure(step.configuration);
        return {};
    case Op::Host:
        hostName = step.hostName;
        hostAddress = step.hostAddress;
        return {};
    case Op::Device:
        deviceEnds = step.which != 0;
        room = step.value;
        errorOfDevice = step.which == 1 ? ENOSPC : EIO;
        return {};
    default:
        break;
    }
    struct Inside {
        Inside() { inLibrary = true; }
        ~Inside() { inLibrary = false; }
    } const inside;
    LogHandle *handle = &handles[step.slot];
    uint32_t level = 0;
    uint32_t (*const setters[])(LogHandle *, uint32_t) = {zoltLogSetDebugLevel, zoltLogSetDiagLevel,
                                                          zoltLogSetSecureAuditLevel};
    uint32_t (*const getters[])(LogHandle *, uint32_t *) = {zoltLogGetDebugLevel, zoltLogGetDiagLevel,
                                                            zoltLogGetSecureAuditLevel};
    const auto told = [&](uint32_t result) { return Outcome{result, isLogOpen(handle) != 0 ? 1U : 0U}; };
    switch (step.op) {
    case Op::Open:
        return told(zoltLogOpen2(step.product, step.originator, step.fileOriginator, handle));
    case Op::OpenLogset:
        return told(zoltLogOpenLogSet(step.product, step.originator, step.set.c_str(), handle));
    case Op::Close:
        return told(zoltLogClose(handle));
    case Op::Message: {
        const uint32_t result = send(handle, step.message);
        return {result, sequenceOf(handle)};
    }
    case Op::CreateContext:
        return told(zoltLogCreateContext(&handles[step.other], handle,
                                         step.noToken ? nullptr : step.token.c_str(), step.message.number,
                                         formatText(step.message.format), step.message.text.c_str(),
                                         step.message.first, step.message.second));
    case Op::DestroyContext:
        return told(zoltLogDestroyContext(handle));
    case Op::SetLevel:
        return {setters[step.which](handle, static_cast<uint32_t>(step.value)), 0};
    case Op::GetLevel: {
        const uint32_t result = getters[step.which](handle, &level);
        return {result, level};
    }
    case Op::SetSequence:
        return {zoltLogSetSequenceNumber(handle, step.value), 0};
    case Op::GetSequence:
        return {0, sequenceOf(handle)};
    case Op::SetUtf8:
        handle->utf8 = static_cast<uint32_t>(step.value);
        return {};
    default:
        return {};
    }
}

void apply(const FileAction &action) {
    const char *path = action.path.c_str();
    switch (action.kind) {
    case FileAction::NOTHING:
        return;
    case FileAction::REMOVE:
        (void)::remove(path);
        return;
    case FileAction::TRUNCATE:
        (void)!truncate(path, static_cast<off_t>(action.size));
        break;
    case FileAction::APPEND: {
        FILE *file = fopen(path, "a");
        if (file != nullptr) {
            fwrite(action.bytes.data(), 1, action.bytes.size(), file);
            fclose(file);
        }
        break;
    }
    case FileAction::WRITE:
        (void)::remove(path);
        support::writeFile(action.path, action.bytes);
        (void)chmod(path, 0660);
        break;
    case FileAction::RENAME:
        (void)rename(path, action.to.c_str());
        return;
    case FileAction::MAKE_DIRECTORY:
        (void)mkdir(path, 0700);
        break;
    case FileAction::MAKE_LINK:
        (void)!symlink("nowhere", path);
        break;
    case FileAction::REMOVE_TREE:
    case FileAction::BLOCK: {
        std::error_code ignored;
        std::filesystem::remove_all(action.path, ignored);
        if (action.kind == FileAction::REMOVE_TREE)
            return;
        support::writeFile(action.path, action.bytes);
        (void)chmod(path, 0660);
        break;
    }
    }
    touch(action.path);
}

void closeEverything() {
    for (LogHandle &handle : handles) {
        if (isLogOpen(&handle) == 0)
            continue;
        if (handle.contextMsg.type == ZOLTLOG_MSG_CONTEXT)
            (void)zoltLogDestroyContext(&handle);
        else
            (void)zoltLogClose(&handle);
    }
    replaced = false;
}

// ---- the directory ---------------------------------------------------------------------

namespace {

std::string bytesOf(const std::string &path, size_t size) {
    std::string bytes(size, '\0');
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    size_t done = 0;
    ssize_t got = 0;
    while (done < size && (got = read(descriptor, &bytes[done], size - done)) > 0)
        done += static_cast<size_t>(got);
    close(descriptor);
    bytes.resize(done);
    return bytes;
}

void readInto(std::map<std::string, model::Node> *files, const std::string &directory) {
    DIR *stream = opendir(directory.empty() ? "." : directory.c_str());
    if (stream == nullptr)
        return;
    while (const dirent *entry = readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || (directory.empty() && name.find(".conf") != std::string::npos))
            continue;
        const std::string path = directory + name;
        model::Node node;
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0)
            continue;
        if (S_ISDIR(status.st_mode)) {
            if (name.find('.') == std::string::npos) {
                readInto(files, path + "/");
                continue;
            }
            node.kind = NodeKind::Directory;
        } else if (S_ISLNK(status.st_mode)) {
            node.kind = NodeKind::DanglingLink;
        } else {
            node.mode = status.st_mode & 07777;
            node.bytes = bytesOf(path, static_cast<size_t>(status.st_size));
        }
        (*files)[path] = std::move(node);
    }
    closedir(stream);
}

} // namespace

std::map<std::string, model::Node> directory() {
    std::map<std::string, model::Node> files;
    readInto(&files, "");
    return files;
}

} // namespace library
