// SPDX-License-Identifier: Apache-2.0
#include "qdlogmgr/redact.h"

#include "common/archive.h"
#include "common/files.h"

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <sys/random.h>

namespace qdlogmgr {

namespace {

constexpr size_t LARGEST_PATTERNS = 1UL << 20;
constexpr size_t MOST_USERS = 100000;
constexpr uid_t FIRST_PERSON = 1000; // of the system's accounts
constexpr uid_t NOBODY = 65534;
constexpr size_t TOKEN_DIGITS = 10;

constexpr const char *EMAIL = R"([\w.+%-]+@[\w-]+(?:\.[\w-]+)+)";
constexpr const char *IP =
    R"((?<![\w.])(?:\d{1,3}\.){3}\d{1,3}(?![\w.]*\w)|)"
    R"((?<![\w:])(?:(?:[0-9A-Fa-f]{1,4}:){7}[0-9A-Fa-f]{1,4}|)"
    R"((?:[0-9A-Fa-f]{1,4}(?::[0-9A-Fa-f]{1,4})*)?::(?:[0-9A-Fa-f]{1,4}(?::[0-9A-Fa-f]{1,4})*)?)(?![\w:]))";
constexpr const char *HOME = R"((?<=/home/)[^/\s"':]+)";

bool isWord(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || c == '_' || c == '-' || c == '.' || (c >= '0' && c <= '9') ||
           ((c | 0x20) >= 'a' && (c | 0x20) <= 'z');
}

} // namespace

bool Redactor::prepare(const std::string &patternFile, std::string &error) {
    salt.resize(32);
    if (getrandom(salt.data(), salt.size(), 0) != static_cast<ssize_t>(salt.size())) {
        error = std::strerror(errno);
        return false;
    }
    const auto add = [&](const char *what, const std::string &pattern) {
        rules.push_back({what, {}});
        return rules.back().regex.compile(pattern, false, error);
    };
    if (!add("email", EMAIL) || !add("ip", IP) || !add("user", HOME))
        return false;
    setpwent();
    while (const passwd *account = getpwent()) {
        if (account->pw_uid >= FIRST_PERSON && account->pw_uid != NOBODY)
            addUser(account->pw_name);
    }
    endpwent();
    std::string patterns;
    if (!patternFile.empty() && !tools::readWhole(patternFile, LARGEST_PATTERNS, patterns)) {
        error = patternFile + ": " + std::strerror(errno);
        return false;
    }
    for (size_t begin = 0; begin < patterns.size();) {
        size_t end = patterns.find('\n', begin);
        if (end == std::string::npos)
            end = patterns.size();
        const std::string line = patterns.substr(begin, end - begin);
        begin = end + 1;
        if (line.empty() || line[0] == '#')
            continue;
        if (!add("text", line)) {
            error = patternFile + ": '" + line + "': " + error;
            return false;
        }
    }
    return true;
}

bool Redactor::addUser(std::string_view name) {
    if (users.size() >= MOST_USERS)
        return users.count(std::string(name)) != 0;
    if (!name.empty())
        users.emplace(name);
    return true;
}

std::string Redactor::token(const char *what, std::string_view value) const {
    return "<" + std::string(what) + "-" + tools::sha256(salt + std::string(value)).substr(0, TOKEN_DIGITS) +
           ">";
}

std::string Redactor::user(std::string_view name) const {
    return name.empty() ? "" : token("user", name);
}

uint64_t Redactor::hostNumber(uint64_t number) const {
    uint64_t other = 0;
    for (const char digit : tools::sha256(salt + std::to_string(number)).substr(0, 8))
        other = other * 16 + static_cast<uint64_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
    return other | 1; // never 0
}

// Names of persons where they are words.
std::string Redactor::names(std::string_view from) {
    std::string out;
    for (size_t at = 0; at < from.size();) {
        size_t end = at;
        while (end < from.size() && isWord(from[end]))
            ++end;
        std::string word(from.substr(at, end - at));
        const size_t dots = word.size() - (word.find_last_not_of('.') + 1); // the end of a sentence
        const std::string name = word.substr(0, word.size() - dots);
        if (!name.empty() && users.count(name) != 0) {
            out += token("user", name) + std::string(dots, '.');
            ++replaced;
        } else {
            out += word;
        }
        if (end < from.size())
            out += from[end];
        at = end + 1;
    }
    return out;
}

std::string Redactor::text(std::string_view from) {
    std::string now(from);
    for (Rule &rule : rules) {
        std::string out;
        size_t at = 0;
        size_t begin = 0;
        size_t end = 0;
        while (at <= now.size() && rule.regex.find(now, at, &begin, &end)) {
            if (end == begin)
                break;
            out.append(now, at, begin - at);
            out += token(rule.what, std::string_view(now).substr(begin, end - begin));
            ++replaced;
            at = end;
        }
        if (rule.regex.gaveUp) { // rather nothing than a name
            rule.regex.gaveUp = false;
            ++replaced;
            return token("text", from);
        }
        if (at > 0)
            now = out.append(now, at, std::string::npos);
    }
    return names(now);
}

} // namespace qdlogmgr
