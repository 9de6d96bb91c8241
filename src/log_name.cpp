// SPDX-License-Identifier: Apache-2.0
// Names of log files and their header line. The grammar stands in log_name.h.
//
//   Texts         a part of a line, and numbers taken from it exactly
//   Names         forming; the exact reading; the other readings
//   Header line   the layouts; forming; parsing
#include "log_name.h"

#include "decimal.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

// ---- texts -----------------------------------------------------------------------------

struct Text {
    const char *at;
    const char *end;

    bool take(char c) {
        if (at == end || *at != c)
            return false;
        ++at;
        return true;
    }
    size_t left() const { return static_cast<size_t>(end - at); }
};

Text textOf(const char *text) {
    return {text, text + strlen(text)};
}

template<typename Number>
bool takeExactly(Text *text, Number *out) {
    const std::from_chars_result result = std::from_chars(text->at, text->end, *out);
    if (result.ec != std::errc())
        return false;
    text->at = result.ptr;
    return true;
}

// ---- names -----------------------------------------------------------------------------

constexpr char SEPARATOR = '-';
constexpr char SUFFIX[] = ".log";
constexpr size_t SUFFIX_LENGTH = sizeof SUFFIX - 1;
constexpr size_t DATE_LENGTH = 6;       // YYMMDD
constexpr size_t DATE_TIME_LENGTH = 12; // YYMMDDhhmmss
constexpr size_t COUNTER_LENGTH = 10;   // at least

size_t lengthThatFits(int length, size_t room) {
    return length > 0 && static_cast<size_t>(length) < room ? static_cast<size_t>(length) : 0;
}

} // namespace

size_t formSeriesPrefix(char *text, size_t room, const LogName *name) {
    const int length =
        name->set != nullptr
            ? snprintf(text, room, "%lu-%.*s-", name->product, static_cast<int>(name->setLength), name->set)
            : snprintf(text, room, "%lu-%lu-%lu-", name->product, name->originator, name->host);
    return lengthThatFits(length, room);
}

size_t formLogName(char *text, size_t room, const LogName *name) {
    const size_t prefix = formSeriesPrefix(text, room, name);
    if (prefix == 0)
        return 0;
    const LogFileDate &date = name->date;
    const int length = name->set != nullptr
                           ? snprintf(text + prefix, room - prefix, "%02d%02d%02d%02d%02d%02d%s", date.year,
                                      date.month, date.day, date.hour, date.minute, date.second, SUFFIX)
                           : snprintf(text + prefix, room - prefix, "%02d%02d%02d-%010lu%s", date.year,
                                      date.month, date.day, name->counter, SUFFIX);
    const size_t rest = lengthThatFits(length, room - prefix);
    return rest != 0 ? prefix + rest : 0;
}

namespace {

// Two digits each.
bool takePairs(Text *text, int32_t *const *fields, size_t count) {
    for (size_t i = 0; i < count; ++i, text->at += 2) {
        if (text->left() < 2 || !isDigit(text->at[0]) || !isDigit(text->at[1]))
            return false;
        *fields[i] = (text->at[0] - '0') * 10 + (text->at[1] - '0');
    }
    return true;
}

bool takeDate(Text *text, LogFileDate *date) {
    int32_t *const fields[] = {&date->year, &date->month, &date->day};
    return takePairs(text, fields, 3) && date->month >= 1 && date->month <= 12 && date->day >= 1 &&
           date->day <= 31;
}

bool takeTimeOfDay(Text *text, LogFileDate *date) {
    int32_t *const fields[] = {&date->hour, &date->minute, &date->second};
    return takePairs(text, fields, 3);
}

bool parseOriginatorStem(Text stem, LogName *out) {
    if (!takeExactly(&stem, &out->product) || !stem.take(SEPARATOR) ||
        !takeExactly(&stem, &out->originator) || !stem.take(SEPARATOR) || !takeExactly(&stem, &out->host) ||
        !stem.take(SEPARATOR))
        return false;
    out->stamp = stem.at;
    if (!takeDate(&stem, &out->date) || !stem.take(SEPARATOR))
        return false;
    return stem.left() >= COUNTER_LENGTH && takeExactly(&stem, &out->counter) && stem.left() == 0;
}

bool parseLogsetStem(Text stem, LogName *out) {
    if (!takeExactly(&stem, &out->product) || !stem.take(SEPARATOR) || stem.left() < DATE_TIME_LENGTH + 2)
        return false;
    out->set = stem.at;
    out->setLength = stem.left() - DATE_TIME_LENGTH - 1;
    stem.at += out->setLength;
    out->stamp = stem.at + 1;
    return stem.take(SEPARATOR) && takeDate(&stem, &out->date) && takeTimeOfDay(&stem, &out->date);
}

} // namespace

bool parseLogName(const char *name, size_t length, LogName *out) {
    if (length <= SUFFIX_LENGTH || memcmp(name + length - SUFFIX_LENGTH, SUFFIX, SUFFIX_LENGTH) != 0)
        return false;
    const Text stem = {name, name + length - SUFFIX_LENGTH};
    LogName read = {};
    bool parsed = parseOriginatorStem(stem, &read);
    if (!parsed) {
        read = {};
        parsed = parseLogsetStem(stem, &read);
    }
    if (!parsed || read.product == 0)
        return false;
    *out = read;
    return true;
}

bool scanDateAndCounter(const char *rest, CounterDigits digits, LogFileDate *date, uint64_t *counter) {
    Text text = textOf(rest);
    int64_t parts[DATE_LENGTH / 2];
    for (int64_t &part : parts)
        if (!scanSigned(&text.at, 2, &part))
            return false;
    date->year = static_cast<int32_t>(parts[0]);
    date->month = static_cast<int32_t>(parts[1]);
    date->day = static_cast<int32_t>(parts[2]);
    if (text.take(SEPARATOR))
        (void)scanUnsigned(&text.at, static_cast<size_t>(digits), counter);
    return true;
}

const char *afterThreeIds(const char *name) {
    for (int id = 0; id < 3 && name != nullptr; ++id) {
        name = strchr(name, SEPARATOR);
        if (name != nullptr)
            ++name;
    }
    return name;
}

NameParts splitLogName(const char *name) {
    NameParts parts = {};
    for (NamePart &part : parts.part) {
        while (*name == SEPARATOR)
            ++name;
        part.start = name;
        part.length = strcspn(name, "-");
        name += part.length;
    }
    return parts;
}

uint64_t numberOfPart(const NamePart &part) {
    const char *at = skipBlanks(part.start);
    int64_t number = 0;
    if (at < part.start + part.length) // else blanks only: the next part's sign is not ours
        (void)scanSigned(&at, ANY_WIDTH, &number);
    return static_cast<uint64_t>(number);
}

namespace {

// The digits at the beginning; too many of them run over.
uint64_t leadingDigits(Text text) {
    uint64_t value = 0;
    for (; text.at != text.end && isDigit(*text.at); ++text.at)
        value = value * 10 + static_cast<uint64_t>(*text.at - '0');
    return value;
}

// What stands behind the last '-' of the text, which is cut off with it; false without one.
bool cutLast(Text *text, Text *last) {
    const auto *at = static_cast<const char *>(memrchr(text->at, SEPARATOR, text->left()));
    if (at == nullptr)
        return false;
    *last = {at + 1, text->end};
    text->end = at;
    return true;
}

} // namespace

NameAge ageOfLogName(const char *name) {
    Text text = textOf(name);
    const char *dot = strrchr(name, '.');
    if (dot != nullptr)
        text.end = dot;
    Text last;
    Text before;
    if (!cutLast(&text, &last))
        return {0, 0};
    if (cutLast(&text, &before) && before.left() == DATE_LENGTH)
        return {leadingDigits(before), leadingDigits(last)};
    return {leadingDigits(last), 0};
}

// ---- header line -------------------------------------------------------------------------

namespace {

constexpr char HEADER_WORD[] = "$Header";
constexpr size_t HEADER_WORD_LENGTH = sizeof HEADER_WORD - 1;
constexpr ptrdiff_t LONGEST_WORD = 20; // of a line's first word; what follows is read on from there

// What stands between the version and the host's name.
struct Layout {
    uint64_t first; // version
    uint64_t last;
    bool idsAndCreated;
    bool zone;
};

constexpr Layout LAYOUTS[] = {
    {ZOLTLOG_RECORD_VERSION_ORIGINATOR, ZOLTLOG_RECORD_VERSION_ORIGINATOR, true, true},
    {ZOLTLOG_RECORD_VERSION_LOGSET, ZOLTLOG_RECORD_VERSION_LOGSET, false, true},
    {ZOLTLOG_RECORD_VERSION_OLDEST, ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX, true, false},
};

const Layout *layoutOf(uint64_t version) {
    for (const Layout &layout : LAYOUTS)
        if (version >= layout.first && version <= layout.last)
            return &layout;
    return nullptr;
}

} // namespace

size_t formHeaderLine(char (&line)[HEADER_LINE_SIZE], const HeaderLine *header) {
    const Layout *layout = layoutOf(header->version);
    if (layout == nullptr)
        return 0;
    // All fits: seven numbers at most, and a name of a bounded length.
    auto length = static_cast<size_t>(snprintf(line, sizeof line, "%s %lu", HEADER_WORD, header->version));
    const auto append = [&](int added) { length += static_cast<size_t>(added); };
    if (layout->idsAndCreated)
        append(snprintf(line + length, sizeof line - length, ",%lu,%lu,%lu", header->product,
                        header->originator, header->created));
    if (layout->zone)
        append(snprintf(line + length, sizeof line - length, ",%ld", header->zone));
    const size_t hostLength = header->hostLength < HEADER_HOST_SIZE ? header->hostLength : HEADER_HOST_SIZE;
    line[length++] = ',';
    memcpy(line + length, header->host, hostLength);
    char *at = line + length;
    length += hostLength;
    // The header is one line whatever the host is called, as a record is.
    while ((at = static_cast<char *>(memchr(at, '\n', static_cast<size_t>(line + length - at)))) != nullptr)
        *at++ = '\r';
    line[length++] = '\n';
    return length;
}

namespace {

// The fields between the version and the host's name, each with the comma before it. False
// where one is missing; those before it are stored.
bool takeFields(Text *text, const Layout *layout, HeaderReading reading, HeaderLine *out) {
    const bool exact = reading == HeaderReading::EXACT;
    const auto take = [&](uint64_t *field) {
        return text->take(',') &&
               (exact ? takeExactly(text, field) : scanUnsigned(&text->at, ANY_WIDTH, field));
    };
    const auto takeZone = [&] {
        if (!text->take(','))
            return false;
        if (exact)
            return takeExactly(text, &out->zone);
        if (layout->idsAndCreated)
            return scanSigned(&text->at, ANY_WIDTH, &out->zone);
        uint64_t bits = 0; // of 65544
        const bool taken = scanUnsigned(&text->at, ANY_WIDTH, &bits);
        out->zone = static_cast<int64_t>(bits);
        return taken;
    };
    if (layout->idsAndCreated && !(take(&out->product) && take(&out->originator) && take(&out->created)))
        return false;
    if (layout->zone)
        out->hasZone = takeZone();
    return !layout->zone || out->hasZone;
}

void takeHost(Text text, HeaderReading reading, HeaderLine *out) {
    if (reading == HeaderReading::LENIENT) {
        text.at = skipBlanks(text.at);
        const char *end = text.at;
        while (end != text.end && !isBlank(*end))
            ++end;
        text.end = end;
    }
    out->host = text.at;
    out->hostLength = text.left();
}

} // namespace

HeaderParsed parseHeaderLine(const char *line, size_t length, HeaderReading reading, HeaderLine *out) {
    const bool exact = reading == HeaderReading::EXACT;
    Text text = {line, line + length};
    *out = {};
    out->host = "";
    if (!exact)
        text.at = skipBlanks(text.at);
    const char *const word = text.at;
    while (text.left() != 0 && !isBlank(*text.at) && text.at - word < LONGEST_WORD)
        ++text.at;
    const bool isHeader = static_cast<size_t>(text.at - word) == HEADER_WORD_LENGTH &&
                          memcmp(word, HEADER_WORD, HEADER_WORD_LENGTH) == 0;
    // A line with another first word tells a version too, to those who read leniently.
    if (!exact && text.at != word)
        (void)scanUnsigned(&text.at, ANY_WIDTH, &out->version); // none: 0, which is unknown
    if (!isHeader)
        return HeaderParsed::NoHeader;
    if (exact && !text.take(' '))
        return HeaderParsed::NoHeader;
    if (exact && !takeExactly(&text, &out->version))
        return HeaderParsed::MALFORMED;
    const Layout *layout = layoutOf(out->version);
    if (layout == nullptr)
        return HeaderParsed::UnknownVersion;
    if (takeFields(&text, layout, reading, out) && text.take(','))
        takeHost(text, reading, out);
    else if (exact)
        return HeaderParsed::MALFORMED;
    return HeaderParsed::OK;
}
