// SPDX-License-Identifier: Apache-2.0
#include "common/block_text.h"

#include "common/number_text.h"
#include "common/record.h"
#include "common/time_text.h"
#include "common/utf8.h"
#include "qdlis.h"

#include <cstdlib>
#include <utility>
#include <vector>

namespace tools {

namespace {

// The localization library keeps what it was asked for: records of a damaged or hostile
// file must not fill the memory with it.
constexpr size_t MOST_LOOKED_UP = 64; // arguments
constexpr size_t LARGEST_BLOCK = 1024UL * 1024;

constexpr int64_t MS_PER_SECOND = 1000;

using Arguments = std::vector<Argument>;

// One value: how it is shown, and what it is to the pattern of a catalogue.
struct Value {
    enum class Kind { Signed, Unsigned, Real, Character, Text };
    Kind kind = Kind::Text;
    std::string text;
    int64_t number = 0;
    uint64_t unsignedNumber = 0;
    double real = 0;
};

// The operating system's pointers are shown in hexadecimal, its times as times.
Value valueOf(const Argument &argument) {
    Value value;
    value.text = argument.text;
    switch (argument.letter) {
    case '1':
        value.kind = Value::Kind::Character;
        break;
    case '8':
        value.kind = Value::Kind::Real;
        value.real = std::strtod(value.text.c_str(), nullptr);
        break;
    case 'i':
        if (parseNumber(argument.text, value.number))
            value.kind = Value::Kind::Signed;
        break;
    case 'u':
        if (parseNumber(argument.text, value.unsignedNumber))
            value.kind = Value::Kind::Unsigned;
        break;
    case '9':
        if (parseNumber(argument.text, value.unsignedNumber)) {
            value.text = "0x";
            appendNumber(value.text, value.unsignedNumber, 16);
        }
        break;
    case 'C':
        if (parseNumber(argument.text, value.number) && value.number < INT64_MAX / MS_PER_SECOND &&
            value.number > INT64_MIN / MS_PER_SECOND) {
            value.text = formatTime(value.number * MS_PER_SECOND, Zone::Local);
            value.text.resize(value.text.size() - std::char_traits<char>::length(".000"));
        }
        break;
    default:
        break;
    }
    return value;
}

bool addTo(ZoltLisBlock &block, const Value &value) {
    switch (value.kind) {
    case Value::Kind::Signed:
        return qdlisAddSigned(&block, value.number) == ZOLTLIS_OK;
    case Value::Kind::Unsigned:
        return qdlisAddUnsigned(&block, value.unsignedNumber) == ZOLTLIS_OK;
    case Value::Kind::Real:
        return qdlisAddDouble(&block, value.real) == ZOLTLIS_OK;
    case Value::Kind::Character: {
        const Utf8Char character = value.text.empty() ? Utf8Char{0, 0} : decodeUtf8(value.text, 0);
        return character.length != 0 &&
               qdlisAddWideChar(&block, static_cast<wchar_t>(character.value)) == ZOLTLIS_OK;
    }
    case Value::Kind::Text:
        break;
    }
    return qdlisAddUtf8String(&block, value.text.c_str()) == ZOLTLIS_OK;
}

// What the items of a block that was found make together. The library shows an argument
// plainly as the value that it was given, and in any other way as a text.
bool itemsOf(ZoltLisBlock &block, std::string &text) {
    ZoltLisIterator item = {};
    if (zoltLisGetArgsBegin(&block, &item) != ZOLTLIS_OK)
        return true; // an empty pattern
    do {
        uint32_t type = 0;
        if (zoltLisGetArgTypeId(&item, &type) != ZOLTLIS_OK)
            return false;
        const char *bytes = nullptr;
        int64_t number = 0;
        uint64_t size = 0;
        double real = 0;
        wchar_t character = 0;
        if (type == ZOLTLIS_ITEM_UTF8_STRING && zoltLisGetArg_utf8string(&item, &bytes) == ZOLTLIS_OK)
            text += bytes;
        else if (type == ZOLTLIS_ITEM_SIGNED && zoltLisGetArg_longlong(&item, &number) == ZOLTLIS_OK)
            appendNumber(text, number);
        else if (type == ZOLTLIS_ITEM_UNSIGNED && zoltLisGetArg_ulonglong(&item, &size) == ZOLTLIS_OK)
            appendNumber(text, size);
        else if (type == ZOLTLIS_ITEM_DOUBLE && zoltLisGetArg_double(&item, &real) == ZOLTLIS_OK)
            text += std::to_string(real);
        else if (type == ZOLTLIS_ITEM_WIDE_CHAR && zoltLisGetArg_wchar(&item, &character) == ZOLTLIS_OK)
            appendUtf8(text, static_cast<char32_t>(character));
        else
            return false;
    } while (zoltLisGetNextArg(&item) == ZOLTLIS_OK);
    return true;
}

bool lookUp(uint64_t number, const std::vector<Value> &values, std::string &text) {
    if (number > INT64_MAX || values.size() > MOST_LOOKED_UP || std::getenv("QDLIS_CATALOG") == nullptr)
        return false;
    ZoltLisBlock block = {};
    bool found = qdlisBegin(&block, 1, static_cast<int64_t>(number)) == ZOLTLIS_OK;
    for (const Value &value : values)
        found = found && addTo(block, value);
    int64_t identity = -1; // 0 once the words are there
    found = found && qdlisLookUp(&block) == ZOLTLIS_OK && zoltLisGetTextId(&block, &identity) == ZOLTLIS_OK &&
            identity == 0;
    std::string shown;
    found = found && itemsOf(block, shown);
    zoltLisFree(&block);
    if (found)
        text += shown;
    return found;
}

// The text of the arguments from `at` to the end of their block; `at` is behind it then.
// Blocks that lie deeper than any library makes them are joined with what they lie in.
std::string render(const Arguments &arguments, size_t &at, uint64_t number, unsigned depth) {
    std::vector<Value> values;
    size_t open = 0; // blocks that are joined
    for (; at < arguments.size(); ++at) {
        const Argument &argument = arguments[at];
        if (argument.letter == ')') {
            if (open == 0)
                break;
            --open;
        } else if (argument.letter == '(' && depth == ZOLTLIS_MAX_NESTING) {
            ++open;
        } else if (argument.letter == '(') {
            uint64_t inner = 0;
            parseNumber(argument.text, inner);
            Value value;
            value.text = render(arguments, ++at, inner, depth + 1);
            values.push_back(std::move(value));
        } else {
            values.push_back(valueOf(argument));
        }
    }
    std::string text;
    if (number != 0 && lookUp(number, values, text))
        return text;
    for (const Value &value : values) {
        text += number != 0 && &value != &values.front() ? " " : "";
        text += value.text;
    }
    return text;
}

} // namespace

bool renderBlock(std::string_view block, std::string &text) {
    size_t at = 0;
    uint64_t number = 0;
    Arguments arguments;
    text.clear();
    if (block.size() > LARGEST_BLOCK || !walkBlock(block, at, number, &arguments) || at != block.size() ||
        arguments.empty())
        return false;
    size_t next = 0;
    text = render(arguments, next, number, 1);
    return true;
}

} // namespace tools
