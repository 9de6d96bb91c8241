// SPDX-License-Identifier: Apache-2.0
// Replaces what tells of persons and machines by tokens: <email-1a2b3c4d5e>, <ip-...>,
// <user-...>, <text-...>. The same text has the same token within one bundle; another bundle
// has others, so tokens cannot be looked up.
#pragma once

#include "qdlogview/regex.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qdlogmgr {

struct Redactor {
    // The file has a regular expression (PCRE2) in each line; empty lines and those that begin
    // with # do not count. "": none. False with an error.
    bool prepare(const std::string &patternFile, std::string &error);

    // A name that stands for a person wherever it is a word. Beyond a bound of names more are
    // not taken: false.
    bool addUser(std::string_view name);

    std::string text(std::string_view from);
    std::string user(std::string_view name) const; // a text that is a name as a whole
    uint64_t hostNumber(uint64_t number) const;    // of file names, which is an address

    uint64_t replaced = 0;

  private:
    struct Rule {
        const char *what;
        qdlogview::Regex regex;
    };
    std::string token(const char *what, std::string_view value) const;
    std::string names(std::string_view from);

    std::string salt;
    std::vector<Rule> rules;
    std::unordered_set<std::string> users;
};

} // namespace qdlogmgr
