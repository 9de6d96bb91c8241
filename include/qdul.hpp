// SPDX-License-Identifier: Apache-2.0
/*
 * qdul.hpp - libqdul for C++17, header only: nothing to link but libqdul.
 *
 *     qdul::Log log(5, 7); // product, originator
 *     log.app(qdul::Severity::warning, "disk is full",
 *             {{"path", "/var"}, {"percent", 93}});
 *     log.appf(qdul::Severity::error, "%s: error %d", "mount", 5);
 *     QDUL_DEBUG(log, 3, "looked at " + name); // made only if it is written
 *     QDUL_EVERY(100) log.app(qdul::Severity::info, "a hundred more");
 *
 *     qdul::Context request(log, "req-17"); // ends with its scope
 *     if (std::error_code error = request.app(qdul::Severity::info, "begun"))
 *         std::cerr << error.message() << "\n";
 *
 * Three ways to word a message:
 *
 *   app, diag, debug     a ready text, and keys with values that are put behind it, as in
 *                        "disk is full path=/var percent=93"; values with blanks, quotes,
 *                        "=" or control characters are quoted
 *   appf, diagf, debugf  a printf format, which the compiler checks
 *   appFormat, ...       a format with braces: of {fmt}, when <fmt/format.h> was included
 *                        before this header, else of the C++ library where it has one
 *
 * Texts are UTF-8. Nothing is thrown: every call tells a Result, which converts to
 * std::error_code. Handles and contexts are neither copied nor moved; to hand one on, hold it
 * in a std::unique_ptr. What zoltlog.h says of threads, fork and signals holds here too.
 *
 * Before the header is included:
 *   QDUL_LEVEL_FLOOR       highest level of debug and diagnostic messages that the macros
 *                          compile at all; default 6, all
 *   QDUL_SOURCE_LOCATION   file and line are put behind ready texts: "file=server.cpp line=12"
 */
#ifndef QDUL_HPP
#define QDUL_HPP

#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "zoltlog.h"
#include "zoltlog_results.h"

#if defined(FMT_VERSION)
#define QDUL_FORMATTER fmt
#define QDUL_FORMATTER_COUNT std::size_t // of format_to_n
#elif defined(__has_include)
#if __has_include(<format>) && __cplusplus >= 202002L
#include <format>
#if defined(__cpp_lib_format)
#define QDUL_FORMATTER std
#define QDUL_FORMATTER_COUNT std::ptrdiff_t
#endif
#endif
#endif

#ifndef QDUL_LEVEL_FLOOR
#define QDUL_LEVEL_FLOOR ZOLTLOG_LEVEL_LAST
#endif

// The classes differ by these options, so their names do.
#if defined(QDUL_SOURCE_LOCATION) && defined(QDUL_FORMATTER)
#define QDUL_VARIANT located_formatting
#elif defined(QDUL_SOURCE_LOCATION)
#define QDUL_VARIANT located
#elif defined(QDUL_FORMATTER)
#define QDUL_VARIANT formatting
#else
#define QDUL_VARIANT plain
#endif

// A library that uses this header exports nothing of it.
#pragma GCC visibility push(hidden)

namespace qdul {

// ---- results and severities ------------------------------------------------------------

/* A result code of zoltlog.h (ZOLTLOG_OK, ZOLTLOG_DEVICE_FULL, ...). */
enum class Result : uint32_t { ok = ZOLTLOG_OK };

class ResultCategory final : public std::error_category {
  public:
    const char *name() const noexcept override { return "qdul"; }
    std::string message(int value) const override { return qdulResultText(static_cast<uint32_t>(value)); }
    // What the system has a name for.
    std::error_condition default_error_condition(int value) const noexcept override {
        switch (static_cast<uint32_t>(value)) {
        case ZOLTLOG_INVALID_ARGUMENT:
            return std::errc::invalid_argument;
        case ZOLTLOG_NO_MEMORY:
            return std::errc::not_enough_memory;
        case ZOLTLOG_OPEN_DENIED:
            return std::errc::permission_denied;
        case ZOLTLOG_OPEN_NO_PATH:
            return std::errc::no_such_file_or_directory;
        case ZOLTLOG_DEVICE_FULL:
            return std::errc::no_space_on_device;
        default:
            return {value, *this};
        }
    }
};

inline const std::error_category &resultCategory() noexcept {
    static const ResultCategory category;
    return category;
}

inline std::error_code make_error_code(Result result) noexcept {
    return {static_cast<int>(result), resultCategory()};
}

} // namespace qdul

template<>
struct std::is_error_code_enum<qdul::Result> : std::true_type {};

namespace qdul {

enum class Severity : uint32_t {
    info = ZOLTLOG_SEVERITY_INFO,
    warning = ZOLTLOG_SEVERITY_WARNING,
    error = ZOLTLOG_SEVERITY_ERROR,
    critical = ZOLTLOG_SEVERITY_CRITICAL,
    emergency = ZOLTLOG_SEVERITY_EMERGENCY
};

// ---- once, every so often, so many in a time -----------------------------------------------

/* QDUL_ONCE statement: the first time only, in this place of the program. */
class Once {
  public:
    constexpr Once() noexcept = default;
    bool operator()() noexcept {
        return !done.load(std::memory_order_relaxed) && !done.exchange(true, std::memory_order_relaxed);
    }

  private:
    std::atomic<bool> done{false};
};

/* QDUL_EVERY(n) statement: the first time and each n-th behind it; 0 is taken as 1. */
class EveryNth {
  public:
    constexpr explicit EveryNth(uint64_t n) noexcept : every(n != 0 ? n : 1) {}
    bool operator()() noexcept { return passed.fetch_add(1, std::memory_order_relaxed) % every == 0; }

  private:
    std::atomic<uint64_t> passed{0};
    const uint64_t every;
};

/* QDUL_AT_MOST(count, seconds) statement: so many in each such time. */
class AtMost {
  public:
    constexpr AtMost(uint32_t number, uint32_t seconds) noexcept
        : limit(number), length(static_cast<int64_t>(seconds) * 1000000000) {}
    bool operator()() noexcept {
        timespec time = {};
        (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
        const int64_t now = static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
        int64_t begun = begin.load(std::memory_order_relaxed);
        if ((begun == 0 || now - begun >= length) &&
            begin.compare_exchange_strong(begun, now, std::memory_order_relaxed))
            count.store(0, std::memory_order_relaxed);
        return count.load(std::memory_order_relaxed) < limit &&
               count.fetch_add(1, std::memory_order_relaxed) < limit;
    }

  private:
    std::atomic<int64_t> begin{0};
    std::atomic<uint32_t> count{0};
    const uint32_t limit;
    const int64_t length;
};

inline namespace QDUL_VARIANT {

// ---- texts -------------------------------------------------------------------------------

/* A key with its value, both borrowed for the length of the call. */
class Field {
  public:
    Field(std::string_view name, std::string_view value) noexcept
        : key(name), text(value), kind(Kind::text) {}
    Field(std::string_view name, const char *value) noexcept
        : Field(name, std::string_view(value != nullptr ? value : "(null)")) {}
    Field(std::string_view name, const std::string &value) noexcept : Field(name, std::string_view(value)) {}
    Field(std::string_view name, bool value) noexcept
        : Field(name, std::string_view(value ? "true" : "false")) {}
    Field(std::string_view name, double value) noexcept : key(name), real(value), kind(Kind::real) {}
    template<typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
    Field(std::string_view name, Integer value) noexcept
        : key(name), number(static_cast<uint64_t>(value)),
          kind(std::is_signed_v<Integer> ? Kind::signedNumber : Kind::unsignedNumber) {}

  private:
    friend class Line;
    enum class Kind { text, signedNumber, unsignedNumber, real };
    std::string_view key;
    union {
        std::string_view text;
        uint64_t number;
        double real;
    };
    Kind kind;
};
using Fields = std::initializer_list<Field>;

// ---- inside ------------------------------------------------------------------------------

// Before a statement of the macros below
#define QDUL_IF_LEVEL(wanted, level)                                                                         \
    if constexpr (static_cast<uint32_t>(level) > static_cast<uint32_t>(QDUL_LEVEL_FLOOR)) {                  \
    } else if (!(wanted)) {                                                                                  \
    } else

// Where a message comes from; file null: not told.
struct Where {
    const char *file = nullptr;
    int line = 0;
};

// Default arguments of each message: those of the place that calls
#ifdef QDUL_SOURCE_LOCATION
#define QDUL_FILE __builtin_FILE()
#define QDUL_LINE __builtin_LINE()
#else
#define QDUL_FILE nullptr
#define QDUL_LINE 0
#endif

// The text of one message, as it grows. Most are short and need no memory.
class Line {
  public:
    Line() noexcept { room[0] = '\0'; }
    ~Line() {
        if (data != room)
            std::free(data);
    }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    bool ok() const noexcept { return !failed; }
    const char *text() const noexcept { return data; }

    void append(std::string_view more) noexcept {
        if (more.empty()) // its data may be null
            return;
        if (char *at = reserve(more.size())) {
            std::memcpy(at, more.data(), more.size());
            commit(more.size());
        }
    }
    void append(const Field &field) noexcept {
        append(" ");
        append(field.key);
        append("=");
        char digits[32];
        char *end = digits;
        switch (field.kind) {
        case Field::Kind::text:
            appendValue(field.text);
            return;
        case Field::Kind::signedNumber:
            end = std::to_chars(digits, digits + sizeof digits, static_cast<int64_t>(field.number)).ptr;
            break;
        case Field::Kind::unsignedNumber:
            end = std::to_chars(digits, digits + sizeof digits, field.number).ptr;
            break;
        case Field::Kind::real:
            end += std::snprintf(digits, sizeof digits, "%.15g", field.real);
            for (char *at = digits; at != end; ++at) // whatever the locale
                if (*at == ',')
                    *at = '.';
            break;
        }
        append(std::string_view(digits, static_cast<size_t>(end - digits)));
    }
    void append(const Where &where) noexcept {
        if (where.file == nullptr)
            return;
        const char *name = std::strrchr(where.file, '/');
        append(Field("file", name != nullptr ? name + 1 : where.file));
        append(Field("line", where.line));
    }
    // Room for so many bytes behind the text, null without memory; then how many were written.
    char *reserve(size_t count) noexcept {
        if (count >= capacity - length) {
            const size_t larger = (length + count) * 2 + 1;
            auto *block =
                static_cast<char *>(data == room ? std::malloc(larger) : std::realloc(data, larger));
            if (block == nullptr) {
                failed = true;
                return nullptr;
            }
            if (data == room)
                std::memcpy(block, room, length);
            data = block;
            capacity = larger;
        }
        return data + length;
    }
    void commit(size_t count) noexcept {
        length += count;
        data[length] = '\0';
    }
    size_t left() const noexcept { return capacity - length - 1; }

  private:
    static bool isPlain(std::string_view value) noexcept {
        for (const char c : value)
            if (static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '=' || c == '\\' || c == 0x7f)
                return false;
        return !value.empty();
    }
    void appendValue(std::string_view value) noexcept {
        if (isPlain(value)) {
            append(value);
            return;
        }
        append("\"");
        for (const char &c : value) {
            const auto byte = static_cast<unsigned char>(c);
            char escaped[sizeof "\\x00"];
            if (c == '"' || c == '\\') {
                append("\\");
                append(std::string_view(&c, 1));
            } else if (c == '\n') {
                append("\\n");
            } else if (byte < ' ' || byte == 0x7f) {
                (void)std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
                append(escaped);
            } else {
                append(std::string_view(&c, 1));
            }
        }
        append("\"");
    }

    char *data = room;
    size_t length = 0;
    size_t capacity = sizeof room;
    bool failed = false;
    char room[1024];
};

// ---- messages ----------------------------------------------------------------------------

/* What Log and Context have in common: the messages. */
class Logger {
  public:
    Logger(const Logger &) = delete;
    Logger &operator=(const Logger &) = delete;

    /* Of the open, and whether messages can be written. */
    Result result() const noexcept { return opened; }
    explicit operator bool() const noexcept { return isLogOpen(&handle) != 0; }
    /* For all that is not here. */
    LogHandle *native() noexcept { return &handle; }
    /* The component that later messages are of; "" at first, a context's is its parent's.
     * Of longer names 127 bytes count. Not while other threads log through it. */
    void setWho(std::string_view name) noexcept {
        size_t length = name.size() < sizeof who ? name.size() : sizeof who - 1;
        while (length < name.size() && length > 0 &&
               (static_cast<unsigned char>(name[length]) & 0xc0) == 0x80)
            --length; // not within a character
        std::memcpy(who, name.data(), length);
        who[length] = '\0';
    }

    void setDebugLevel(uint32_t level) noexcept { (void)zoltLogSetDebugLevel(&handle, level); }
    void setDiagLevel(uint32_t level) noexcept { (void)zoltLogSetDiagLevel(&handle, level); }
    /* Whether a message of the level would be written; follows the configuration as messages do. */
    bool wantsDebug(uint32_t level) noexcept { return wants(&handle.debugLevel, level); }
    bool wantsDiag(uint32_t level) noexcept { return wants(&handle.diagLevel, level); }

    // ---- ready texts

    Result app(Severity severity, std::string_view text, Fields fields = {}, const char *file = QDUL_FILE,
               int line = QDUL_LINE) noexcept {
        Line words;
        word(words, text, fields, {file, line});
        return sendApp(severity, words);
    }
    Result diag(uint32_t level, std::string_view text, Fields fields = {}, const char *file = QDUL_FILE,
                int line = QDUL_LINE) noexcept {
        if (!wantsDiag(level))
            return Result::ok;
        Line words;
        word(words, text, fields, {file, line});
        return sendDiag(level, words);
    }
    Result debug(uint32_t level, std::string_view text, Fields fields = {}, const char *file = QDUL_FILE,
                 int line = QDUL_LINE) noexcept {
        if (!wantsDebug(level))
            return Result::ok;
        Line words;
        word(words, text, fields, {file, line});
        return sendDebug(level, words);
    }

    // ---- printf formats

    __attribute__((format(printf, 3, 4))) Result appf(Severity severity, const char *format, ...) noexcept {
        va_list args;
        va_start(args, format);
        const uint32_t told = zoltLogAppMsg2VEx(&handle, 0, ZOLTLOG_NO_MESSAGE_ID,
                                                static_cast<uint32_t>(severity), who, 0, format, args);
        va_end(args);
        return Result(told);
    }
    __attribute__((format(printf, 3, 4))) Result diagf(uint32_t level, const char *format, ...) noexcept {
        va_list args;
        va_start(args, format);
        const uint32_t told =
            zoltLogDiagMsg2V(&handle, 0, ZOLTLOG_NO_MESSAGE_ID, level, who, 0, format, args);
        va_end(args);
        return Result(told);
    }
    __attribute__((format(printf, 3, 4))) Result debugf(uint32_t level, const char *format, ...) noexcept {
        va_list args;
        va_start(args, format);
        const uint32_t told = zoltLogDebugMsg2V(&handle, 0, ZOLTLOG_NO_MESSAGE_ID, level, who, format, args);
        va_end(args);
        return Result(told);
    }
    /* Audit messages are worded by the catalogue; number is that of the message in it. */
    __attribute__((format(printf, 5, 6))) Result audit(const char *subject, uint32_t outcome, int64_t number,
                                                       const char *format, ...) noexcept {
        va_list args;
        va_start(args, format);
        const uint32_t told =
            zoltLogAuditMsg2V(&handle, 0, ZOLTLOG_NO_MESSAGE_ID, subject, outcome, number, format, args);
        va_end(args);
        return Result(told);
    }

    // ---- formats with braces

#ifdef QDUL_FORMATTER
    /* A format that does not fit its arguments, where the compiler does not find that, is
     * ZOLTLOG_INVALID_ARGUMENT. */
    template<typename... Args>
    Result appFormat(Severity severity, QDUL_FORMATTER::format_string<Args...> format,
                     Args &&...args) noexcept {
        Line line;
        if (!formatInto(line, format, std::forward<Args>(args)...))
            return Result(ZOLTLOG_INVALID_ARGUMENT);
        return sendApp(severity, line);
    }
    template<typename... Args>
    Result diagFormat(uint32_t level, QDUL_FORMATTER::format_string<Args...> format,
                      Args &&...args) noexcept {
        if (!wantsDiag(level))
            return Result::ok;
        Line line;
        if (!formatInto(line, format, std::forward<Args>(args)...))
            return Result(ZOLTLOG_INVALID_ARGUMENT);
        return sendDiag(level, line);
    }
    template<typename... Args>
    Result debugFormat(uint32_t level, QDUL_FORMATTER::format_string<Args...> format,
                       Args &&...args) noexcept {
        if (!wantsDebug(level))
            return Result::ok;
        Line line;
        if (!formatInto(line, format, std::forward<Args>(args)...))
            return Result(ZOLTLOG_INVALID_ARGUMENT);
        return sendDebug(level, line);
    }
#endif

  protected:
    Logger() noexcept {
        handle.noContext = 1;
    }
    ~Logger() = default;
    void takeWhoOf(const Logger &other) noexcept {
        std::memcpy(who, other.who, sizeof who);
    }

    LogHandle handle = {};
    Result opened = Result(ZOLTLOG_NO_FILE_STATE);
    char who[128] = "";

  private:
    bool wants(const uint32_t *highest, uint32_t level) noexcept {
        if (__atomic_load_n(&handle.reloadInterval, __ATOMIC_RELAXED) != 0)
            (void)zoltDynaLoadConfig(&handle);
        return level <= __atomic_load_n(highest, __ATOMIC_RELAXED);
    }
    static void word(Line &line, std::string_view text, Fields fields, const Where &where) noexcept {
        line.append(text);
        for (const Field &field : fields)
            line.append(field);
        line.append(where);
    }
#ifdef QDUL_FORMATTER
    template<typename... Args>
    static bool formatInto(Line &line, QDUL_FORMATTER::format_string<Args...> format,
                           Args &&...args) noexcept {
        const auto attempt = [&] {
            const size_t room = line.left();
            const auto told =
                QDUL_FORMATTER::format_to_n(line.reserve(0), static_cast<QDUL_FORMATTER_COUNT>(room), format,
                                            std::forward<Args>(args)...);
            auto size = static_cast<size_t>(told.size);
            if (size <= room) {
                line.commit(size);
            } else if (char *at = line.reserve(size)) {
                (void)QDUL_FORMATTER::format_to_n(at, static_cast<QDUL_FORMATTER_COUNT>(size), format,
                                                  std::forward<Args>(args)...); // which takes nothing away
                line.commit(size);
            }
        };
#if defined(__cpp_exceptions)
        try {
            attempt();
        } catch (...) {
            return false;
        }
#else
        attempt();
#endif
        return true;
    }
#endif

    Result sendApp(Severity severity, const Line &line) noexcept {
        ZoltLisBlock none = {};
        if (!line.ok())
            return Result(ZOLTLOG_NO_MEMORY);
        return Result(zoltLogAppMsg2LEx(&handle, 0, ZOLTLOG_NO_MESSAGE_ID, static_cast<uint32_t>(severity),
                                        who, line.text(), &none));
    }
    Result sendDiag(uint32_t level, const Line &line) noexcept {
        ZoltLisBlock none = {};
        if (!line.ok())
            return Result(ZOLTLOG_NO_MEMORY);
        return Result(zoltLogDiagMsg2L(&handle, 0, ZOLTLOG_NO_MESSAGE_ID, level, who, line.text(), &none));
    }
    Result sendDebug(uint32_t level, const Line &line) noexcept {
        if (!line.ok())
            return Result(ZOLTLOG_NO_MEMORY);
        return Result(zoltLogFormattedDebugMsg(&handle, 0, level, who, line.text()));
    }
};

/* A log handle. After a failed open its messages give ZOLTLOG_NO_FILE_STATE, or try to open
 * the file again, as result() and zoltlog.h tell. */
class Log : public Logger {
  public:
    Log() = default;
    Log(uint64_t product, uint64_t originator) noexcept { (void)open(product, originator); }
    ~Log() { close(); }

    /* An open log is closed first. */
    Result open(uint64_t product, uint64_t originator) noexcept {
        return open(product, originator, originator);
    }
    Result open(uint64_t product, uint64_t originator, uint64_t fileOriginator) noexcept {
        close();
        return begin(zoltLogOpen2(product, originator, fileOriginator, &handle));
    }
    Result openLogSet(uint64_t product, uint64_t originator, const char *name) noexcept {
        close();
        return begin(zoltLogOpenLogSet(product, originator, name, &handle));
    }
    void close() noexcept {
        if (isLogOpen(&handle) == 0) // nothing to release, and closing would close the system log
            return;
        (void)zoltLogClose(&handle);
        handle = {};
        handle.noContext = 1;
        opened = Result(ZOLTLOG_NO_FILE_STATE);
    }

  private:
    Result begin(uint32_t told) noexcept {
        if (handle.noContext == 0) // failed before there was a file to try again
            close();
        handle.noContext = 1;
        handle.utf8 = 1;
        return opened = Result(told);
    }
};

/* Messages through it carry the token, until the scope ends. The parent need not outlive it. */
class Context : public Logger {
  public:
    Context(Logger &parent, std::string_view token, std::string_view text = {}) noexcept {
        Line name;
        name.append(token);
        const std::string_view told = text.empty() ? token : text;
        takeWhoOf(parent);
        opened = name.ok() ? Result(zoltLogCreateContext(parent.native(), &handle, name.text(), 0, "%.*s",
                                                         static_cast<int>(told.size()), told.data()))
                           : Result(ZOLTLOG_NO_MEMORY);
    }
    ~Context() { (void)zoltLogDestroyContext(&handle); }
};

} // namespace QDUL_VARIANT
} // namespace qdul

#pragma GCC visibility pop

// ---- macros ------------------------------------------------------------------------------

/* Debug and diagnostic messages whose arguments are not looked at unless they are written.
 * level is a constant; above QDUL_LEVEL_FLOOR nothing is left of the statement. */
#define QDUL_DEBUG(log, level, ...)                                                                          \
    QDUL_IF_LEVEL((log).wantsDebug(level), level)(void)(log).debug(level, __VA_ARGS__)
#define QDUL_DIAG(log, level, ...)                                                                           \
    QDUL_IF_LEVEL((log).wantsDiag(level), level)(void)(log).diag(level, __VA_ARGS__)
#define QDUL_DEBUGF(log, level, ...)                                                                         \
    QDUL_IF_LEVEL((log).wantsDebug(level), level)(void)(log).debugf(level, __VA_ARGS__)
#define QDUL_DIAGF(log, level, ...)                                                                          \
    QDUL_IF_LEVEL((log).wantsDiag(level), level)(void)(log).diagf(level, __VA_ARGS__)

/* In front of a statement; each place in the program counts for itself, all its threads
 * together. The statement is not run, its arguments not looked at, otherwise. */
#define QDUL_ONCE                                                                                            \
    if (static ::qdul::Once qdulOnce; !qdulOnce()) {                                                         \
    } else
#define QDUL_EVERY(n)                                                                                        \
    if (static ::qdul::EveryNth qdulEvery(n); !qdulEvery()) {                                                \
    } else
#define QDUL_AT_MOST(number, seconds)                                                                        \
    if (static ::qdul::AtMost qdulAtMost(number, seconds); !qdulAtMost()) {                                  \
    } else

#endif
