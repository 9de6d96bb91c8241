#include "common/json.h"

#include "common/utf8.h"

#include <cmath>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace tools {

struct Json::State {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
};

Json::Json() : state(std::make_unique<State>()) {}
Json::~Json() = default;

namespace {

void writeText(Json::State &state, std::string_view text) {
    state.writer.String(text.data() != nullptr ? text.data() : "",
                        static_cast<rapidjson::SizeType>(text.size()));
}

std::string repaired(std::string_view text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const Utf8Char c = decodeUtf8(text, at);
        if (c.length == 0) {
            out += "\xef\xbf\xbd";
            ++at;
        } else {
            out.append(text, at, c.length);
            at += c.length;
        }
    }
    return out;
}

// What a byte needs within a JSON string.
enum class ByteKind : unsigned char { Plain, Escape, Utf8 };

struct ByteKinds {
    ByteKind kind[256];
    constexpr ByteKinds() : kind() {
        for (int i = 0; i < 256; ++i)
            kind[i] = i >= 0x80                           ? ByteKind::Utf8
                      : i < 0x20 || i == '"' || i == '\\' ? ByteKind::Escape
                                                          : ByteKind::Plain;
    }
};
constexpr ByteKinds byteKinds;

void appendEscapedByte(std::string &out, unsigned char byte) {
    constexpr char digits[] = "0123456789ABCDEF";
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
        out += "\\u00";
        out += digits[byte >> 4];
        out += digits[byte & 15];
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
        const ByteKind kind = byteKinds.kind[byte];
        if (kind == ByteKind::Plain) {
            ++at;
            continue;
        }
        const size_t length = kind == ByteKind::Utf8 ? decodeUtf8(text, at).length : 0;
        if (length != 0) {
            at += length;
            continue;
        }
        out.append(text, plain, at - plain);
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
    constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
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
    const std::string fixed =
        findInvalidUtf8(name) == std::string_view::npos ? std::string() : repaired(name);
    const std::string_view written = fixed.empty() ? name : fixed;
    state->writer.Key(written.data() != nullptr ? written.data() : "",
                      static_cast<rapidjson::SizeType>(written.size()));
}

void Json::text(std::string_view name, std::string_view value) {
    key(name);
    if (findInvalidUtf8(value) == std::string_view::npos) {
        writeText(*state, value);
        return;
    }
    writeText(*state, repaired(value));
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

void Json::textElement(std::string_view value) {
    if (findInvalidUtf8(value) == std::string_view::npos)
        writeText(*state, value);
    else
        writeText(*state, repaired(value));
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

} // namespace tools
