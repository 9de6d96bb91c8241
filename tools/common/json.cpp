#include "common/json.h"

#include "common/utf8.h"

#include <cmath>

#ifdef __SSE2__
#define RAPIDJSON_SSE2
#endif
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

std::string hex(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

} // namespace

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
    writeText(*state, hex(value));
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
