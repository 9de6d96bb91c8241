// SPDX-License-Identifier: Apache-2.0
#include "common/json.h"

#include "common/number_text.h"
#include "common/time_text.h"
#include "common/utf8.h"

#include <cmath>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace tools {

struct Json::State {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
    std::string text; // being written
};

Json::Json() : state(std::make_unique<State>()) {}
Json::~Json() = default;

namespace {

// Valid JSON whatever the text holds; false when it is not UTF-8.
bool writeText(Json::State &state, std::string_view text) {
    state.text.clear();
    const bool valid = appendJsonText(state.text, text);
    state.writer.RawValue(state.text.data(), state.text.size(), rapidjson::kStringType);
    return valid;
}

// What a byte needs within a JSON string.
enum class ByteKind : unsigned char { Plain, Escape, Utf8 };

struct ByteKinds {
    ByteKind kind[256];
    constexpr ByteKinds() : kind() {
        for (int i = 0; i < 256; ++i)
            kind[i] = i >= 0x80                                        ? ByteKind::Utf8
                      : i < 0x20 || i == '"' || i == '\\' || i == 0x7f ? ByteKind::Escape
                                                                       : ByteKind::Plain;
    }
};
constexpr ByteKinds BYTE_KINDS;

// A character of 16 bits as \u202E.
void appendUnit(std::string &out, char32_t value) {
    constexpr char DIGITS[] = "0123456789ABCDEF";
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4)
        out += DIGITS[(value >> shift) & 15];
}

void appendEscapedByte(std::string &out, unsigned char byte) {
    switch (byte) {
    case '"':
        out += "\\\"";
        break;
    case '\\':
        out += "\\\\";
        break;
    case '\n':
        out += "\\n";
        break;
    case '\r':
        out += "\\r";
        break;
    case '\t':
        out += "\\t";
        break;
    default:
        appendUnit(out, byte);
    }
}

} // namespace

bool appendJsonText(std::string &out, std::string_view text) {
    bool valid = true;
    size_t plain = 0; // start of what can be copied as it is
    size_t at = 0;
    out += '"';
    while (at < text.size()) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const ByteKind kind = BYTE_KINDS.kind[byte];
        if (kind == ByteKind::Plain) {
            ++at;
            continue;
        }
        const Utf8Char character = kind == ByteKind::Utf8 ? decodeUtf8(text, at) : Utf8Char{0, 0};
        const bool steers = character.length != 0 && steersTerminal(character.value);
        if (character.length != 0 && !steers) {
            at += character.length;
            continue;
        }
        out.append(text, plain, at - plain);
        if (steers) { // the same text, and nothing that a terminal would obey
            appendUnit(out, character.value);
            plain = at += character.length;
            continue;
        }
        if (kind == ByteKind::Escape) {
            appendEscapedByte(out, byte);
        } else {
            out += "\xef\xbf\xbd";
            valid = false;
        }
        plain = ++at;
    }
    out.append(text, plain, at - plain);
    out += '"';
    return valid;
}

std::string hexText(std::string_view bytes) {
    std::string out;
    for (const char c : bytes)
        appendHexByte(out, c);
    return out;
}

void Json::beginObject() {
    state->writer.StartObject();
}
void Json::endObject() {
    state->writer.EndObject();
}
void Json::beginArray() {
    state->writer.StartArray();
}
void Json::endArray() {
    state->writer.EndArray();
}
void Json::key(std::string_view name) {
    writeText(*state, name);
}

void Json::text(std::string_view name, std::string_view value) {
    key(name);
    if (writeText(*state, value))
        return;
    key(std::string(name) + "_hex");
    writeText(*state, hexText(value));
}

void Json::number(std::string_view name, uint64_t value) {
    key(name);
    state->writer.Uint64(value);
}

void Json::signedNumber(std::string_view name, int64_t value) {
    key(name);
    state->writer.Int64(value);
}

void Json::real(std::string_view name, double value) {
    key(name);
    if (std::isfinite(value))
        state->writer.Double(value);
    else
        state->writer.Null();
}

void Json::flag(std::string_view name, bool value) {
    key(name);
    state->writer.Bool(value);
}

void Json::null(std::string_view name) {
    key(name);
    state->writer.Null();
}

void Json::time(std::string_view name, int64_t milliseconds) {
    TimeFormatter formatter;
    formatter.mode = TimeFormatter::Mode::Utc;
    std::string written;
    formatter.appendRfc3339(written, milliseconds);
    text(name, written);
}

void Json::textElement(std::string_view value) {
    writeText(*state, value);
}

void Json::numberElement(uint64_t value) {
    state->writer.Uint64(value);
}

std::string_view Json::written() const {
    return {state->buffer.GetString(), state->buffer.GetSize()};
}

void Json::clear() {
    state->buffer.Clear();
    state->writer.Reset(state->buffer);
}

void Json::pass(Output &out) {
    out.write(written());
    state->buffer.Clear();
}

void writeLine(Output &out, Json &json) {
    out.buffer += json.written();
    out.write("\n");
    json.clear();
}

} // namespace tools
