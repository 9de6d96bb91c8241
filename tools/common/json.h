// SPDX-License-Identifier: Apache-2.0
// JSON output of the tools: objects and arrays written in order into a buffer.
#pragma once

#include "common/terminal.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tools {

// Appends a text as a JSON string with its quotes. Bytes that are not UTF-8 become
// U+FFFD; false when there were any.
bool appendJsonText(std::string &out, std::string_view text);

// "6f6b" for "ok"
std::string hexText(std::string_view bytes);

// Texts become valid JSON whatever they hold: bytes that are not UTF-8 are shown
// as U+FFFD, and the exact bytes follow in a member of the same name with "_hex".
struct Json {
    Json();
    ~Json();
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);

    // Members of an object
    void text(std::string_view name, std::string_view value);
    void number(std::string_view name, uint64_t value);
    void signedNumber(std::string_view name, int64_t value);
    void real(std::string_view name, double value); // infinities and NaN as null
    void flag(std::string_view name, bool value);
    void null(std::string_view name);
    void time(std::string_view name, int64_t milliseconds); // "2024-03-01T12:45:02.123Z"

    // Elements of an array
    void textElement(std::string_view value);
    void numberElement(uint64_t value);

    std::string_view written() const; // what was written since clear()
    void clear();                     // begins a new text
    void pass(Output &out);           // hands over what was written; the text goes on

    struct State;

  private:
    std::unique_ptr<State> state;
};

// Writes the text made so far and a line feed, and begins a new one.
void writeLine(Output &out, Json &json);

} // namespace tools
