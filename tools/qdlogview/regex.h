// SPDX-License-Identifier: Apache-2.0
// Regular expressions of qdlogview: PCRE2 compiled to machine code, on UTF-8 that
// may hold invalid bytes. A pattern without special characters is searched as it is.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace qdlogview {

struct Regex {
    Regex();
    ~Regex();
    Regex(Regex &&) noexcept;
    Regex &operator=(Regex &&) noexcept;

    bool compile(const std::string &pattern, bool ignoreCase, std::string &error);
    // A match whose search was given up (too much backtracking) counts as none and sets `gaveUp`.
    bool matches(std::string_view text) { return find(text, 0, nullptr, nullptr); }
    // The first match at or behind `from`: [begin, end).
    bool find(std::string_view text, size_t from, size_t *begin, size_t *end);

    bool gaveUp = false;

  private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace qdlogview
