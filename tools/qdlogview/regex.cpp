// SPDX-License-Identifier: Apache-2.0
#define PCRE2_CODE_UNIT_WIDTH 8

#include "qdlogview/regex.h"

#include <cstring>
#include <pcre2.h>

namespace qdlogview {

struct Regex::State {
    ~State() {
        pcre2_match_data_free(match);
        pcre2_code_free(code);
    }
    std::string literal; // searched without PCRE2 when not empty
    pcre2_code *code = nullptr;
    pcre2_match_data *match = nullptr;
};

Regex::Regex() = default;
Regex::~Regex() = default;
Regex::Regex(Regex &&) noexcept = default;
Regex &Regex::operator=(Regex &&) noexcept = default;

bool Regex::compile(const std::string &pattern, bool ignoreCase, std::string &error) {
    state = std::make_unique<State>();
    if (!ignoreCase && !pattern.empty() && pattern.find_first_of("\\^$.[]|()?*+{}") == std::string::npos) {
        state->literal = pattern;
        return true;
    }
    int code = 0;
    PCRE2_SIZE at = 0;
    const uint32_t options = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF | (ignoreCase ? PCRE2_CASELESS : 0);
    state->code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), options, &code,
                                &at, nullptr);
    if (state->code == nullptr) {
        PCRE2_UCHAR text[256];
        pcre2_get_error_message(code, text, sizeof text);
        error = "'" + pattern + "' at character " + std::to_string(at) + ": " +
                reinterpret_cast<const char *>(text);
        return false;
    }
    pcre2_jit_compile(state->code, PCRE2_JIT_COMPLETE); // without it matching is interpreted
    state->match = pcre2_match_data_create_from_pattern(state->code, nullptr);
    return state->match != nullptr;
}

bool Regex::find(std::string_view text, size_t from, size_t *begin, size_t *end) {
    size_t first = 0;
    size_t behind = 0;
    if (!state->literal.empty()) {
        const std::string &literal = state->literal;
        if (from > text.size())
            return false;
        const void *found = memmem(text.data() + from, text.size() - from, literal.data(), literal.size());
        if (found == nullptr)
            return false;
        first = static_cast<size_t>(static_cast<const char *>(found) - text.data());
        behind = first + literal.size();
    } else {
        const char *const subject = text.data() != nullptr ? text.data() : "";
        const int result = pcre2_match(state->code, reinterpret_cast<PCRE2_SPTR>(subject), text.size(), from,
                                       0, state->match, nullptr);
        if (result < 0) {
            if (result != PCRE2_ERROR_NOMATCH)
                gaveUp = true;
            return false;
        }
        const PCRE2_SIZE *ends = pcre2_get_ovector_pointer(state->match);
        first = ends[0];
        behind = ends[1];
    }
    if (begin != nullptr)
        *begin = first;
    if (end != nullptr)
        *end = behind;
    return true;
}

} // namespace qdlogview
