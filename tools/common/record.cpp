// SPDX-License-Identifier: Apache-2.0
#include "common/record.h"

#include "common/unpack.h"

#include "src/log_name.h"

#include <cstring>

namespace tools {

namespace {

constexpr size_t MAX_DIGITS = 20;          // of a 64-bit number
constexpr size_t DATE_TIME_DIGITS = 12;    // YYMMDDhhmmss
constexpr size_t SAFE_DIGITS = 19;         // so many cannot overflow
constexpr size_t MAX_SALVAGE_TRIES = 4096; // positions of one damaged line that are parsed

bool isDigit(char c) {
    return static_cast<unsigned char>(c - '0') < 10;
}

// A position in a line; takes what it expects or stays where it is.
struct Cursor {
    const char *at;
    const char *const end;

    bool takeChar(char c) {
        if (at == end || *at != c)
            return false;
        ++at;
        return true;
    }

    bool takeNumber(uint64_t &value) {
        const char *const begin = at;
        uint64_t read = 0;
        while (at != end && isDigit(*at))
            read = read * 10 + static_cast<uint64_t>(*at++ - '0');
        const auto digits = static_cast<size_t>(at - begin);
        if (digits > 0 && digits <= SAFE_DIGITS) {
            value = read;
            return true;
        }
        if (digits == MAX_DIGITS && std::memcmp(begin, "18446744073709551615", MAX_DIGITS) <= 0) {
            value = read;
            return true;
        }
        at = begin;
        return false;
    }

    bool takeSigned(int64_t &value) {
        const char *const begin = at;
        const bool negative = takeChar('-');
        uint64_t size = 0;
        constexpr uint64_t LARGEST = INT64_MAX;
        if (!takeNumber(size) || size > LARGEST + (negative ? 1 : 0)) {
            at = begin;
            return false;
        }
        value = static_cast<int64_t>(negative ? 0 - size : size);
        return true;
    }

    // NUMBER ","
    bool takeField(uint64_t &value) {
        const char *const begin = at;
        if (takeNumber(value) && takeChar(','))
            return true;
        at = begin;
        return false;
    }
    bool takeSignedField(int64_t &value) {
        const char *const begin = at;
        if (takeSigned(value) && takeChar(','))
            return true;
        at = begin;
        return false;
    }

    size_t left() const { return static_cast<size_t>(end - at); }
};

} // namespace

// ---- file names ------------------------------------------------------------------

bool parseFileName(std::string_view name, FileName &out) {
    LogName read;
    const size_t suffix = packedSuffix(name).size();
    if (!parseLogName(name.data(), name.size() - suffix, &read))
        return false;
    out = {};
    out.isPacked = suffix > 0;
    out.kind = read.set != nullptr ? FileName::Kind::LogSet : FileName::Kind::Originator;
    out.product = read.product;
    out.originator = read.originator;
    out.host = read.host;
    out.counter = read.counter;
    if (read.set != nullptr) {
        out.logSet = {read.set, read.setLength};
        out.dateTime = {read.stamp, DATE_TIME_DIGITS};
    }
    out.year = 2000 + read.date.year;
    out.month = read.date.month;
    out.day = read.date.day;
    out.hour = read.date.hour;
    out.minute = read.date.minute;
    out.second = read.date.second;
    return true;
}

// ---- headers ---------------------------------------------------------------------

HeaderResult parseHeader(std::string_view line, Header &out) {
    HeaderLine read;
    switch (parseHeaderLine(line.data(), line.size(), HeaderReading::EXACT, &read)) {
    case HeaderParsed::NoHeader:
        return HeaderResult::NotAHeader;
    case HeaderParsed::UnknownVersion:
        return HeaderResult::UnknownVersion;
    case HeaderParsed::MALFORMED:
        return HeaderResult::Malformed;
    case HeaderParsed::OK:
        break;
    }
    if (read.created > INT64_MAX / 1000) // beyond what milliseconds hold
        return HeaderResult::Malformed;
    out = {};
    out.version = read.version;
    out.product = read.product;
    out.originator = read.originator;
    out.created = static_cast<int64_t>(read.created);
    out.hasOffset = read.hasZone;
    out.offset = read.zone;
    out.host = {read.host, read.hostLength};
    while (!out.host.empty() && out.host.back() == '\r') // a file that went through a line end conversion
        out.host.remove_suffix(1);
    return HeaderResult::Ok;
}

// ---- records ---------------------------------------------------------------------

const char *damageText(Damage damage) {
    struct Row {
        Damage damage;
        const char *text;
    };
    constexpr Row ROWS[] = {
        {Damage::None, "no damage"},
        {Damage::NotANumber, "a number is missing or too large"},
        {Damage::UnknownType, "unknown message type"},
        {Damage::BadLength, "no length before a text"},
        {Damage::Cut, "cut within a text: its length goes beyond the line"},
        {Damage::WrongLength, "a text does not have its length"},
        {Damage::BadAttribute, "severity, level or outcome is not valid"},
        {Damage::BadBlock, "the argument block is not valid"},
        {Damage::MoreBytes, "bytes follow the end of the record"},
        {Damage::Empty, "empty line"},
        {Damage::TooLong, "the line is too long"},
        {Damage::NoLineFeed, "the file ends within a record"},
    };
    for (const Row &row : ROWS) {
        if (row.damage == damage)
            return row.text;
    }
    return "";
}

namespace {

bool takePrefix(Cursor &cursor, uint64_t version, Record &out) {
    uint64_t type = 0;
    if (!cursor.takeField(type))
        return false;
    out.type = type > ZOLTLOG_MSG_AUDIT ? TYPE_UNKNOWN : static_cast<uint32_t>(type);
    if (version == ZOLTLOG_RECORD_VERSION_ORIGINATOR && !cursor.takeField(out.product))
        return false;
    if (!cursor.takeField(out.originator))
        return false;
    if (version == ZOLTLOG_RECORD_VERSION_ORIGINATOR && !cursor.takeField(out.fileOriginator))
        return false;
    return cursor.takeField(out.messageId) && cursor.takeSignedField(out.time) && cursor.takeField(out.pid) &&
           cursor.takeField(out.tid);
}

// The version that a record of a file without header has, by its numbers.
uint64_t guessVersion(std::string_view line) {
    size_t commas = 0;
    for (const char c : line) {
        if (c == ',')
            ++commas;
        else if (!isDigit(c) && c != '-')
            break;
    }
    return commas == 6 ? ZOLTLOG_RECORD_VERSION_LOGSET : ZOLTLOG_RECORD_VERSION_ORIGINATOR;
}

// LENGTH ":" BYTES ","
Damage takeString(Cursor &cursor, std::string_view &out) {
    uint64_t length = 0;
    const char *const begin = cursor.at;
    if (!cursor.takeNumber(length) || !cursor.takeChar(':')) {
        cursor.at = begin;
        return Damage::BadLength;
    }
    if (length > cursor.left()) {
        cursor.at = begin;
        return Damage::Cut;
    }
    out = {cursor.at, static_cast<size_t>(length)};
    cursor.at += length;
    if (cursor.takeChar(','))
        return Damage::None;
    return cursor.left() == 0 ? Damage::Cut : Damage::WrongLength;
}

bool takeAttribute(Cursor &cursor, Record &out) {
    int64_t value = 0;
    if (!cursor.takeSigned(value) || value < INT32_MIN || value > INT32_MAX)
        return false;
    out.number = static_cast<int32_t>(value);
    out.hasNumber = true;
    return true;
}

Damage takeBlock(Cursor &cursor, std::string_view line, Record &out) {
    constexpr std::string_view EMPTY = "(0|)";
    if (cursor.left() == EMPTY.size() && std::memcmp(cursor.at, EMPTY.data(), EMPTY.size()) == 0) {
        out.block = {cursor.at, EMPTY.size()};
        cursor.at = cursor.end;
        return Damage::None;
    }
    auto at = static_cast<size_t>(cursor.at - line.data());
    const size_t begin = at;
    uint64_t number = 0;
    if (!walkBlock(line, at, number, nullptr)) {
        cursor.at = line.data() + at;
        return Damage::BadBlock;
    }
    out.block = line.substr(begin, at - begin);
    cursor.at = line.data() + at;
    return Damage::None;
}

// What follows the text in a record whose type is known.
Damage takeFields(Cursor &cursor, std::string_view line, Record &out) {
    if (out.type != ZOLTLOG_MSG_APP || out.version > ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO) {
        const Damage damage = takeString(cursor, out.who);
        if (damage != Damage::None)
            return damage;
    }
    if (out.type != ZOLTLOG_MSG_CONTEXT) {
        const char *const begin = cursor.at;
        if (!takeAttribute(cursor, out) ||
            (out.type == ZOLTLOG_MSG_APP && (out.number < 0 || out.number > ZOLTLOG_SEVERITY_EMERGENCY)) ||
            (out.type != ZOLTLOG_MSG_DEBUG && !cursor.takeChar(','))) {
            cursor.at = begin;
            return Damage::BadAttribute;
        }
    }
    return out.type == ZOLTLOG_MSG_DEBUG ? Damage::None : takeBlock(cursor, line, out);
}

// A record without prefix does not say its type. A number in place of who is an
// application record (65540, 65541), a block right behind the string a context
// record, no block a debug record; diagnostic, audit and later application records
// look alike and stay unknown.
Damage takeFieldsByLook(Cursor &cursor, std::string_view line, Record &out) {
    const char *const begin = cursor.at;
    if (out.version <= ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO) {
        out.type = ZOLTLOG_MSG_APP;
        if (takeFields(cursor, line, out) == Damage::None && cursor.left() == 0)
            return Damage::None;
        cursor.at = begin;
        out.hasNumber = false;
        out.number = 0;
        out.block = {};
    }
    out.type = TYPE_UNKNOWN;
    const Damage damage = takeString(cursor, out.who);
    if (damage != Damage::None)
        return damage;
    if (cursor.left() > 0 && *cursor.at == '(') {
        out.type = ZOLTLOG_MSG_CONTEXT;
        return takeBlock(cursor, line, out);
    }
    if (!takeAttribute(cursor, out))
        return Damage::BadAttribute;
    if (cursor.left() == 0) {
        out.type = ZOLTLOG_MSG_DEBUG;
        return Damage::None;
    }
    return cursor.takeChar(',') ? takeBlock(cursor, line, out) : Damage::BadAttribute;
}

} // namespace

bool parseRecord(std::string_view line, uint64_t version, Record &out, Fault &fault) {
    if (version == 0)
        version = guessVersion(line);
    out = {};
    out.line = line;
    out.version = version;
    Cursor cursor{line.data(), line.data() + line.size()};
    Damage damage = Damage::None;
    if (line.empty()) {
        damage = Damage::Empty;
    } else if (out.hasPrefix() && !takePrefix(cursor, version, out)) {
        damage = Damage::NotANumber;
    } else if (out.hasPrefix() && out.type == TYPE_UNKNOWN) {
        cursor.at = line.data();
        damage = Damage::UnknownType;
    } else {
        damage = takeString(cursor, out.context);
        if (damage == Damage::None)
            damage = takeString(cursor, out.text);
        if (damage == Damage::None)
            damage = out.hasPrefix() ? takeFields(cursor, line, out) : takeFieldsByLook(cursor, line, out);
        if (damage == Damage::None && cursor.left() != 0)
            damage = Damage::MoreBytes;
    }
    if (damage == Damage::None)
        return true;
    fault.damage = damage;
    fault.at = static_cast<size_t>(cursor.at - line.data());
    return false;
}

bool parseRecordTime(std::string_view line, uint64_t version, int64_t &time) {
    if (version == 0)
        version = guessVersion(line);
    if (version <= ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX)
        return false;
    Cursor cursor{line.data(), line.data() + line.size()};
    uint64_t ignored = 0;
    const int before = version == ZOLTLOG_RECORD_VERSION_ORIGINATOR ? 5 : 3;
    for (int i = 0; i < before; ++i) {
        if (!cursor.takeField(ignored))
            return false;
    }
    return cursor.takeSignedField(time);
}

bool salvageRecord(std::string_view line, uint64_t version, Record &out, size_t &at) {
    if (version != 0 && version <= ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX)
        return false; // without a prefix every text with a colon may look like a record
    size_t tries = 0;
    Fault ignored;
    for (size_t i = 1; i + 1 < line.size() && tries < MAX_SALVAGE_TRIES; ++i) {
        if (line[i] < '0' || line[i] > '4' || line[i + 1] != ',')
            continue;
        int64_t time = 0;
        const std::string_view rest = line.substr(i);
        if (!parseRecordTime(rest, version, time))
            continue;
        ++tries;
        if (parseRecord(rest, version, out, ignored)) {
            at = i;
            return true;
        }
    }
    return false;
}

// ---- argument blocks -------------------------------------------------------------

namespace {

bool takeRest(Cursor &cursor, Argument &argument, size_t length) {
    if (length > cursor.left())
        return false;
    argument.text = {cursor.at, length};
    cursor.at += length;
    return cursor.takeChar('|');
}

bool takeArgument(Cursor &cursor, Argument &argument) {
    uint64_t size = 0;
    argument.letter = *cursor.at++;
    switch (argument.letter) {
    case '1': // the length has one digit
        if (cursor.left() < 2 || !isDigit(*cursor.at))
            return false;
        size = static_cast<uint64_t>(*cursor.at++ - '0');
        return cursor.takeChar(':') && takeRest(cursor, argument, size);
    case 'A':
    case 'X':
    case 'S':
        return cursor.takeNumber(size) && cursor.takeChar(':') && size <= cursor.left() &&
               takeRest(cursor, argument, size);
    case 'i':
    case 'u':
    case 'D':
    case '9':
    case 'C': {
        if (!cursor.takeNumber(size) || size > UINT32_MAX || !cursor.takeChar(':'))
            return false;
        argument.width = static_cast<uint32_t>(size);
        const char *const begin = cursor.at;
        int64_t value = 0;
        const bool isSigned = argument.letter != 'u' && argument.letter != '9';
        if (isSigned ? !cursor.takeSigned(value) : !cursor.takeNumber(size))
            return false;
        argument.text = {begin, static_cast<size_t>(cursor.at - begin)};
        return cursor.takeChar('|');
    }
    case '8': { // as printf("%f") writes it: digits, the locale's point, inf, nan
        const auto *bar = static_cast<const char *>(std::memchr(cursor.at, '|', cursor.left()));
        if (bar == nullptr || bar == cursor.at)
            return false;
        argument.text = {cursor.at, static_cast<size_t>(bar - cursor.at)};
        cursor.at = bar + 1;
        return argument.text.find_first_not_of("-+.,0123456789infa") == std::string_view::npos;
    }
    default:
        --cursor.at;
        return false;
    }
}

// "(" NUMBER "|"
bool takeOpening(Cursor &cursor, uint64_t &number, std::string_view *digits = nullptr) {
    const char *const begin = cursor.at + 1;
    if (!cursor.takeChar('(') || !cursor.takeNumber(number))
        return false;
    if (digits != nullptr)
        *digits = {begin, static_cast<size_t>(cursor.at - begin)};
    return cursor.takeChar('|');
}

} // namespace

bool walkBlock(std::string_view line, size_t &at, uint64_t &number, std::vector<Argument> *arguments) {
    Cursor cursor{line.data() + at, line.data() + line.size()};
    size_t depth = 1;
    bool good = takeOpening(cursor, number);
    while (good && depth > 0) {
        Argument argument;
        if (cursor.left() == 0) {
            good = false;
            break;
        }
        if (cursor.takeChar(')')) {
            argument.letter = ')';
            --depth;
            if (depth > 0)
                good = cursor.takeChar(','); // a nested block ends in a comma of its own
        } else if (*cursor.at == '(') {
            uint64_t ignored = 0;
            argument.letter = '(';
            good = takeOpening(cursor, ignored, &argument.text);
            ++depth;
        } else {
            good = takeArgument(cursor, argument);
        }
        if (good && depth > 0 && arguments != nullptr)
            arguments->push_back(argument);
    }
    at = static_cast<size_t>(cursor.at - line.data());
    return good;
}

} // namespace tools
