// SPDX-License-Identifier: Apache-2.0
// The tools' parser of names, headers and records: from literal lines, from records
// that the library encodes (the localization library is played by this program),
// and through damaged files.
#include "common/record.h"
#include "common/record_file.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <clocale>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using tools::Damage;
using tools::Fault;
using tools::FileName;
using tools::Header;
using tools::HeaderResult;
using tools::Record;
using tools::RecordFile;

namespace {

// ---- a localization library of our own -----------------------------------------

struct Block;

struct Value {
    uint32_t kind = 0;
    int64_t number = 0;
    double real = 0;
    std::wstring wide;
    std::string narrow;
    Block *nested = nullptr;
};

struct Block {
    int64_t identity = 0;
    std::vector<Value> values;
    ZoltLisBlock handed = {};
};

const Value &valueAt(ZoltLisIterator *iterator) {
    return reinterpret_cast<Block *>(iterator->word[0])->values[iterator->word[1]];
}

} // namespace

extern "C" {
int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity) {
    *identity = reinterpret_cast<Block *>(block->word[0])->identity;
    return 0;
}
int32_t zoltLisGetArgsBegin(ZoltLisBlock *block, ZoltLisIterator *argument) {
    *argument = {{block->word[0], 0}};
    return reinterpret_cast<Block *>(block->word[0])->values.empty() ? -1 : 0;
}
int32_t zoltLisGetNextArg(ZoltLisIterator *argument) {
    return ++argument->word[1] < reinterpret_cast<Block *>(argument->word[0])->values.size() ? 0 : -1;
}
int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type) {
    *type = valueAt(argument).kind;
    return 0;
}
int32_t zoltLisGetArg_wchar(ZoltLisIterator *argument, wchar_t *out) {
    *out = static_cast<wchar_t>(valueAt(argument).number);
    return 0;
}
int32_t zoltLisGetArg_longlong(ZoltLisIterator *argument, int64_t *out) {
    *out = valueAt(argument).number;
    return 0;
}
int32_t zoltLisGetArg_ulonglong(ZoltLisIterator *argument, uint64_t *out) {
    *out = static_cast<uint64_t>(valueAt(argument).number);
    return 0;
}
int32_t zoltLisGetArg_double(ZoltLisIterator *argument, double *out) {
    *out = valueAt(argument).real;
    return 0;
}
int32_t zoltLisGetArg_pointer(ZoltLisIterator *argument, void **out) {
    *out = reinterpret_cast<void *>(valueAt(argument).number);
    return 0;
}
int32_t zoltLisGetArg_wstring(ZoltLisIterator *argument, const wchar_t **out) {
    *out = valueAt(argument).wide.c_str();
    return 0;
}
int32_t zoltLisGetArg_os_error(ZoltLisIterator *argument, const ZoltLisOsError **out) {
    static ZoltLisOsError error;
    error = {1, valueAt(argument).number};
    *out = &error;
    return 0;
}
int32_t zoltLisGetArg_datetime(ZoltLisIterator *argument, ZoltLisDateTime *out) {
    *out = {valueAt(argument).number, 0};
    return 0;
}
int32_t zoltLisGetArg_lis(ZoltLisIterator *argument, ZoltLisBlock **out) {
    Block *nested = valueAt(argument).nested;
    nested->handed.word[0] = reinterpret_cast<uintptr_t>(nested);
    *out = &nested->handed;
    return 0;
}
int32_t zoltLisGetArg_utf8string(ZoltLisIterator *argument, const char **out) {
    *out = valueAt(argument).narrow.c_str();
    return 0;
}
int32_t zoltLisGetArg_nativeString(ZoltLisIterator *argument, const char **out) {
    return zoltLisGetArg_utf8string(argument, out);
}
}

namespace {

// ---- helpers -------------------------------------------------------------------

const std::string EXAMPLE43 = "2,5,7,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)";
const std::string EXAMPLE44 = "2,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)";

// The views of the record stay good to the end of the program.
Record parsed(std::string_view text, uint64_t version) {
    static std::deque<std::string> lines;
    const std::string_view line = lines.emplace_back(text);
    Record record;
    Fault fault;
    EXPECT_TRUE(tools::parseRecord(line, version, record, fault))
        << line << ": " << tools::damageText(fault.damage) << " at " << fault.at;
    return record;
}

struct Refused {
    Damage damage;
    size_t at;
};
bool operator==(const Refused &a, const Refused &b) {
    return a.damage == b.damage && a.at == b.at;
}
std::ostream &operator<<(std::ostream &out, const Refused &refused) {
    return out << tools::damageText(refused.damage) << " at " << refused.at;
}

Refused refused(std::string_view line, uint64_t version = ZOLTLOG_RECORD_VERSION_ORIGINATOR) {
    Record record;
    Fault fault;
    EXPECT_FALSE(tools::parseRecord(line, version, record, fault)) << line;
    return {fault.damage, fault.at};
}

} // namespace

// ---- records -------------------------------------------------------------------

TEST(RecordParser, ReadsARecordOfAnOriginatorsFile) {
    const Record record = parsed(EXAMPLE43, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(record.type, ZOLTLOG_MSG_APP);
    EXPECT_EQ(record.product, 5u);
    EXPECT_EQ(record.originator, 7u);
    EXPECT_EQ(record.fileOriginator, 7u);
    EXPECT_EQ(record.messageId, 12u);
    EXPECT_EQ(record.time, 1700000000123);
    EXPECT_EQ(record.pid, 4242u);
    EXPECT_EQ(record.tid, 4243u);
    EXPECT_EQ(record.context, "");
    EXPECT_EQ(record.text, "Disk full, 2 of 3");
    EXPECT_EQ(record.who, "mgr");
    EXPECT_TRUE(record.hasNumber);
    EXPECT_EQ(record.number, 3);
    EXPECT_EQ(record.block, "(0|)");
    EXPECT_EQ(record.line, EXAMPLE43);
}

TEST(RecordParser, ReadsARecordOfALogSetsFile) {
    const Record record = parsed(EXAMPLE44, ZOLTLOG_RECORD_VERSION_LOGSET);
    EXPECT_EQ(record.type, ZOLTLOG_MSG_APP);
    EXPECT_EQ(record.product, 0u);
    EXPECT_EQ(record.originator, 7u);
    EXPECT_EQ(record.messageId, 12u);
    EXPECT_EQ(record.time, 1700000000123);
    EXPECT_EQ(record.tid, 4243u);
    EXPECT_EQ(record.text, "Disk full, 2 of 3");
    EXPECT_EQ(record.who, "mgr");
    EXPECT_EQ(record.number, 3);
}

TEST(RecordParser, EveryTypeHasItsFields) {
    const std::string prefix = ",5,7,8,1,1000,2,3,4:job7,2:hi,";
    const Record debug = parsed("0" + prefix + "3:net,6", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(debug.type, ZOLTLOG_MSG_DEBUG);
    EXPECT_EQ(debug.context, "job7");
    EXPECT_EQ(debug.who, "net");
    EXPECT_EQ(debug.number, 6);
    EXPECT_EQ(debug.block, "");
    const Record diagnostic = parsed("1" + prefix + "3:net,4,(0|)", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(diagnostic.type, ZOLTLOG_MSG_DIAG);
    EXPECT_EQ(diagnostic.fileOriginator, 8u);
    EXPECT_EQ(diagnostic.number, 4);
    EXPECT_EQ(diagnostic.block, "(0|)");
    const Record context = parsed("3" + prefix + "5:title,(12|i32:-5|)", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(context.type, ZOLTLOG_MSG_CONTEXT);
    EXPECT_EQ(context.who, "title");
    EXPECT_FALSE(context.hasNumber);
    EXPECT_EQ(context.block, "(12|i32:-5|)");
    const Record audit = parsed("4" + prefix + "5:alice,-1,(0|)", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(audit.type, ZOLTLOG_MSG_AUDIT);
    EXPECT_EQ(audit.who, "alice");
    EXPECT_EQ(audit.number, -1);
}

TEST(RecordParser, EmptyStringsAreEmpty) {
    const Record record = parsed("2,5,7,7,1,1,1,1,0:,0:,0:,0,(0|)", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(record.context, "");
    EXPECT_EQ(record.text, "");
    EXPECT_EQ(record.who, "");
    EXPECT_EQ(record.number, 0);
}

TEST(RecordParser, TextsMayHoldWhatLooksLikeFields) {
    const Record record =
        parsed("2,5,7,7,1,1,1,1,0:,15:x,3:mgr,3,(0|) ,5:a,b,c,2,(0|)", ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(record.text, "x,3:mgr,3,(0|) ");
    EXPECT_EQ(record.who, "a,b,c");
    EXPECT_EQ(record.number, 2);
}

TEST(RecordParser, LargestAndSmallestNumbersAreRead) {
    const Record record = parsed("2,18446744073709551615,18446744073709551615,0,18446744073709551615,"
                                 "-9223372036854775808,18446744073709551615,0,0:,0:,0:,0,(0|)",
                                 ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(record.product, UINT64_MAX);
    EXPECT_EQ(record.messageId, UINT64_MAX);
    EXPECT_EQ(record.time, INT64_MIN);
    EXPECT_EQ(refused("2,18446744073709551616,1,1,1,1,1,1,0:,0:,0:,0,(0|)"),
              (Refused{Damage::NotANumber, 2}));
    EXPECT_EQ(refused("2,1,1,1,1,9223372036854775808,1,1,0:,0:,0:,0,(0|)"),
              (Refused{Damage::NotANumber, 10}));
}

TEST(RecordParser, OldApplicationRecordsHaveNoWho) {
    for (const uint64_t version : {ZOLTLOG_RECORD_VERSION_OLDEST, ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO}) {
        const Record record = parsed("3:ctx,4:text,2,(0|)", version);
        EXPECT_EQ(record.type, ZOLTLOG_MSG_APP);
        EXPECT_EQ(record.context, "ctx");
        EXPECT_EQ(record.text, "text");
        EXPECT_EQ(record.who, "");
        EXPECT_EQ(record.number, 2);
        EXPECT_FALSE(record.hasPrefix());
    }
}

TEST(RecordParser, RecordsWithoutPrefixAreToldApartByTheirFields) {
    EXPECT_EQ(parsed("0:,4:text,3:who,6", ZOLTLOG_RECORD_VERSION_OLDEST).type,
              ZOLTLOG_MSG_DEBUG); // no block: debug
    EXPECT_EQ(parsed("0:,4:text,5:title,(3|)", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO).type,
              ZOLTLOG_MSG_CONTEXT); // no number: context
    EXPECT_EQ(parsed("0:,4:text,3:who,2,(0|)", ZOLTLOG_RECORD_VERSION_OLDEST).type,
              tools::TYPE_UNKNOWN); // diagnostic or audit
    const Record record = parsed("0:,4:text,3:mgr,2,(0|)", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX);
    EXPECT_EQ(record.type, tools::TYPE_UNKNOWN);
    EXPECT_EQ(record.who, "mgr");
    EXPECT_EQ(record.number, 2);
    EXPECT_EQ(parsed("0:,4:text,3:who,6", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX).type,
              ZOLTLOG_MSG_DEBUG);
    EXPECT_EQ(refused("0:,4:text,2,(0|)", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX),
              (Refused{Damage::BadLength, 10}));
}

TEST(RecordParser, WithoutAHeaderTheNumbersTellTheVersion) {
    EXPECT_EQ(parsed(EXAMPLE43, 0).version, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(parsed(EXAMPLE44, 0).version, ZOLTLOG_RECORD_VERSION_LOGSET);
    EXPECT_EQ(parsed(EXAMPLE44, 0).messageId, 12u);
}

TEST(RecordParser, DamageIsNamedWithItsPlace) {
    EXPECT_EQ(refused(""), (Refused{Damage::Empty, 0}));
    EXPECT_EQ(refused("hello"), (Refused{Damage::NotANumber, 0}));
    EXPECT_EQ(refused("2,5,x,7"), (Refused{Damage::NotANumber, 4}));
    EXPECT_EQ(refused("2,5,7,7,12,1700"), (Refused{Damage::NotANumber, 11}));
    EXPECT_EQ(refused("5,5,7,7,1,1,1,1,0:,0:,0:,0,(0|)"), (Refused{Damage::UnknownType, 0}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,ctx,0:,0:,0,(0|)"), (Refused{Damage::BadLength, 16}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,9:abc"), (Refused{Damage::Cut, 19}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,3:abc"), (Refused{Damage::Cut, 24}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,2:abc,0:,0,(0|)"), (Refused{Damage::WrongLength, 23}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,0:,0:,5,(0|)"), (Refused{Damage::BadAttribute, 25}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,0:,0:,-1,(0|)"), (Refused{Damage::BadAttribute, 25}));
    EXPECT_EQ(refused("1,5,7,7,1,1,1,1,0:,0:,0:,2147483648,(0|)"), (Refused{Damage::BadAttribute, 25}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,0:,0:,3,(0"), (Refused{Damage::BadBlock, 29}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,0:,0:,3,(0|q|)"), (Refused{Damage::BadBlock, 30}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,0:,0:,0:,3,(0|)x"), (Refused{Damage::MoreBytes, 31}));
    EXPECT_EQ(refused("0,5,7,7,1,1,1,1,0:,0:,0:,3,(0|)"), (Refused{Damage::MoreBytes, 26}));
    EXPECT_EQ(refused("2,5,7,7,1,1,1,1,18446744073709551615:,0:,0:,0,(0|)"), (Refused{Damage::Cut, 16}));
}

TEST(RecordParser, NoCutOfARecordIsTakenForARecord) {
    const std::string line = "3,5,7,7,1,1,1,1,2:ab,4:text,5:title,(1|A3:abc|(2|i32:1|),)";
    parsed(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    for (size_t length = 0; length < line.size(); ++length)
        refused(line.substr(0, length));
}

TEST(RecordParser, TimeAloneIsReadFromThePrefix) {
    int64_t time = 0;
    EXPECT_TRUE(tools::parseRecordTime(EXAMPLE43, ZOLTLOG_RECORD_VERSION_ORIGINATOR, time));
    EXPECT_EQ(time, 1700000000123);
    time = 0;
    EXPECT_TRUE(tools::parseRecordTime(EXAMPLE44, ZOLTLOG_RECORD_VERSION_LOGSET, time));
    EXPECT_EQ(time, 1700000000123);
    EXPECT_FALSE(tools::parseRecordTime("0:,0:,2,(0|)", ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO, time));
    EXPECT_FALSE(tools::parseRecordTime("2,5,7,7,12", ZOLTLOG_RECORD_VERSION_ORIGINATOR, time));
}

TEST(RecordParser, ARecordGluedToATornOneIsFound) {
    for (size_t cut = 1; cut < EXAMPLE43.size(); ++cut) {
        const std::string line = EXAMPLE43.substr(0, cut) + EXAMPLE43;
        Record record;
        Fault fault;
        ASSERT_FALSE(tools::parseRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, record, fault)) << line;
        size_t at = 0;
        ASSERT_TRUE(tools::salvageRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, record, at)) << line;
        EXPECT_EQ(at, cut);
        EXPECT_EQ(record.line, EXAMPLE43);
    }
    Record record;
    size_t at = 0;
    EXPECT_FALSE(
        tools::salvageRecord(EXAMPLE43.substr(0, 40), ZOLTLOG_RECORD_VERSION_ORIGINATOR, record, at));
}

// ---- argument blocks -----------------------------------------------------------

TEST(RecordBlock, EveryKindOfArgumentIsRead) {
    const std::string line =
        "(77|13:\xe2\x82\xac|i64:-5|u32:7|81.500000|964:99|A4:w|de|D32:-1|C64:12|X2:,)|S0:|)";
    size_t at = 0;
    uint64_t number = 0;
    std::vector<tools::Argument> arguments;
    ASSERT_TRUE(tools::walkBlock(line, at, number, &arguments));
    EXPECT_EQ(at, line.size());
    EXPECT_EQ(number, 77u);
    ASSERT_EQ(arguments.size(), 10u);
    const struct {
        char letter;
        uint32_t width;
        const char *text;
    } expected[] = {{'1', 0, "\xe2\x82\xac"}, {'i', 64, "-5"},  {'u', 32, "7"},  {'8', 0, "1.500000"},
                    {'9', 64, "99"},          {'A', 0, "w|de"}, {'D', 32, "-1"}, {'C', 64, "12"},
                    {'X', 0, ",)"},           {'S', 0, ""}};
    for (size_t i = 0; i < arguments.size(); ++i) {
        EXPECT_EQ(arguments[i].letter, expected[i].letter);
        EXPECT_EQ(arguments[i].width, expected[i].width);
        EXPECT_EQ(arguments[i].text, expected[i].text);
    }
}

TEST(RecordBlock, NestedBlocksOpenAndClose) {
    const std::string line = "(1|(2|(3|),i8:1|),S1:x|)";
    size_t at = 0;
    uint64_t number = 0;
    std::vector<tools::Argument> arguments;
    ASSERT_TRUE(tools::walkBlock(line, at, number, &arguments));
    EXPECT_EQ(at, line.size());
    std::string letters;
    for (const tools::Argument &argument : arguments)
        letters += argument.letter;
    EXPECT_EQ(letters, "(()i)S");
    EXPECT_EQ(arguments[0].text, "2");
    EXPECT_EQ(arguments[1].text, "3");
}

TEST(RecordBlock, AThousandLevelsAreRead) {
    std::string line = "(0|";
    for (int i = 0; i < 1000; ++i)
        line += "(1|";
    for (int i = 0; i < 1000; ++i)
        line += "),";
    line += ")";
    size_t at = 0;
    uint64_t number = 0;
    EXPECT_TRUE(tools::walkBlock(line, at, number, nullptr));
    EXPECT_EQ(at, line.size());
}

TEST(RecordBlock, WhatTheEncoderNeverWritesIsRefused) {
    for (const char *line :
         {"",         "(",         "(|)",         "(0)",         "(0|",
          "(-1|)",    "(0|(1|))",  "(0|A:x|)",    "(0|A5:x|)",   "(0|A1:xy|)",
          "(0|i:1|)", "(0|i32:|)", "(0|u32:-1|)", "(0|8|)",      "(0|8abc|)",
          "(0|1:x|)", "(0|12:x|)", "(0|Z1:x|)",   "(0|964:-1|)", "(18446744073709551616|)"}) {
        size_t at = 0;
        uint64_t number = 0;
        EXPECT_FALSE(tools::walkBlock(line, at, number, nullptr)) << line;
    }
}

namespace {

// ---- round trip with the library's encoder --------------------------------------

std::mt19937_64 random64(20240301); // NOLINT: the same every time

uint64_t below(uint64_t limit) {
    return random64() % limit;
}

std::string randomBytes(size_t longest) {
    std::string bytes(below(longest + 1), '\0');
    for (char &c : bytes) {
        switch (below(6)) {
        case 0:
            c = static_cast<char>(1 + below(255)); // anything but NUL
            break;
        case 1:
            c = ",:|()\n\r0"[below(8)];
            break;
        default:
            c = static_cast<char>('a' + below(26));
        }
    }
    return bytes;
}

std::wstring randomWide(size_t longest) {
    std::wstring text(below(longest + 1), L'\0');
    for (wchar_t &c : text)
        c = L"a,:|)(\n\u00e4\u20ac\U0001f600"[below(10)];
    return text;
}

std::string utf8Of(const std::wstring &text) {
    std::string out;
    for (const wchar_t wide : text) {
        const auto c = static_cast<uint32_t>(wide);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xc0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 63));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xe0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 63));
            out += static_cast<char>(0x80 | (c & 63));
        } else {
            out += static_cast<char>(0xf0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 63));
            out += static_cast<char>(0x80 | ((c >> 6) & 63));
            out += static_cast<char>(0x80 | (c & 63));
        }
    }
    return out;
}

std::string withoutLineFeeds(std::string text) {
    for (char &c : text) {
        if (c == '\n')
            c = '\r';
    }
    return text;
}

struct Blocks {
    std::vector<std::unique_ptr<Block>> owned;

    Block *make(int depth) {
        owned.push_back(std::make_unique<Block>());
        Block *block = owned.back().get();
        block->identity = static_cast<int64_t>(below(1u << 31));
        const size_t count = below(6);
        for (size_t i = 0; i < count; ++i) {
            Value value;
            value.kind = static_cast<uint32_t>(below(depth > 0 ? 12 : 9));
            if (value.kind == 9 && depth == 0)
                value.kind = 10;
            value.number = static_cast<int64_t>(random64());
            if (value.kind == 0)
                value.number = L"x|)\u00e4\u20ac\U0001f600"[below(6)];
            value.real = static_cast<double>(static_cast<int64_t>(below(2000000)) - 1000000) / 8;
            value.wide = randomWide(10);
            value.narrow = randomBytes(12);
            if (value.kind == 9)
                value.nested = make(depth - 1);
            block->values.push_back(value);
        }
        block->handed.word[0] = reinterpret_cast<uintptr_t>(block);
        return block;
    }
};

// What walkBlock must yield for a block.
void expectArguments(const Block &block, const std::vector<tools::Argument> &arguments, size_t &next) {
    for (const Value &value : block.values) {
        ASSERT_LT(next, arguments.size());
        const tools::Argument &argument = arguments[next++];
        const auto is = [&](char letter, const std::string &text) {
            EXPECT_EQ(argument.letter, letter);
            EXPECT_EQ(argument.text, withoutLineFeeds(text));
        };
        char real[400];
        std::snprintf(real, sizeof real, "%f", value.real);
        switch (value.kind) {
        case 0:
            is('1', utf8Of(std::wstring(1, static_cast<wchar_t>(value.number))));
            break;
        case 1:
            is('i', std::to_string(value.number));
            EXPECT_EQ(argument.width, 64u);
            break;
        case 2:
            is('u', std::to_string(static_cast<uint64_t>(value.number)));
            break;
        case 3:
            is('8', real);
            break;
        case 4:
            is('9', std::to_string(static_cast<uint64_t>(value.number)));
            EXPECT_EQ(argument.width, 64u);
            break;
        case 5:
            is('A', utf8Of(value.wide));
            break;
        case 6:
        case 7:
            is('D', std::to_string(static_cast<int32_t>(value.number)));
            EXPECT_EQ(argument.width, 32u);
            break;
        case 8:
            is('C', std::to_string(value.number));
            break;
        case 9:
            is('(', std::to_string(static_cast<uint64_t>(value.nested->identity)));
            expectArguments(*value.nested, arguments, next);
            ASSERT_LT(next, arguments.size());
            EXPECT_EQ(arguments[next++].letter, ')');
            break;
        case 10:
            is('X', value.narrow);
            break;
        default:
            is('S', value.narrow);
        }
    }
}

void roundTrip(int rounds) {
    ASSERT_TRUE(support::useLocale("en_US.UTF-8"));
    std::setlocale(LC_NUMERIC, "C");
    for (int round = 0; round < rounds; ++round) {
        const uint64_t version =
            below(2) == 0 ? ZOLTLOG_RECORD_VERSION_ORIGINATOR : ZOLTLOG_RECORD_VERSION_LOGSET;
        const std::string context = randomBytes(8);
        const std::string text = randomBytes(below(20) == 0 ? 9000 : 60);
        const std::string who = randomBytes(10);
        Blocks blocks;
        Block *block = blocks.make(3);
        LogMsg msg = {};
        msg.recordVersion = version;
        msg.type = static_cast<uint32_t>(below(5));
        msg.productId = random64();
        msg.originatorId = random64() >> below(60);
        msg.fileOriginatorId = random64();
        msg.messageId = below(100000);
        msg.timestamp = 1700000000000 + below(100000000);
        msg.processId = below(1u << 22);
        msg.threadId = random64();
        msg.contextToken = const_cast<char *>(context.c_str());
        msg.text = const_cast<char *>(text.c_str());
        msg.utf8 = 1;
        msg.who = const_cast<char *>(who.c_str());
        msg.outcome = static_cast<uint32_t>(random64());
        if (msg.type == ZOLTLOG_MSG_CONTEXT)
            msg.attr.contextTitle = const_cast<char *>(who.c_str());
        else
            msg.attr.level = static_cast<uint32_t>(msg.type == ZOLTLOG_MSG_APP ? below(5) : 1 + below(6));
        msg.lis = block->handed;
        TextBuffer buffer;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogMsgSerialize(&msg, &buffer));
        const std::string line(buffer.data, buffer.capacity - buffer.free);
        free_text_msg(&buffer);
        ASSERT_EQ(line.find('\n'), line.size() - 1);

        const Record record = parsed(std::string_view(line).substr(0, line.size() - 1), version);
        if (testing::Test::HasFailure())
            return;
        EXPECT_EQ(record.type, msg.type);
        if (version == ZOLTLOG_RECORD_VERSION_ORIGINATOR) {
            EXPECT_EQ(record.product, msg.productId);
            EXPECT_EQ(record.fileOriginator, msg.fileOriginatorId);
        }
        EXPECT_EQ(record.originator, msg.originatorId);
        EXPECT_EQ(record.messageId, msg.messageId);
        EXPECT_EQ(record.time, static_cast<int64_t>(msg.timestamp));
        EXPECT_EQ(record.pid, msg.processId);
        EXPECT_EQ(record.tid, msg.threadId);
        EXPECT_EQ(record.context, withoutLineFeeds(context));
        EXPECT_EQ(record.text, withoutLineFeeds(text));
        EXPECT_EQ(record.who, withoutLineFeeds(who));
        if (msg.type == ZOLTLOG_MSG_CONTEXT) {
            EXPECT_FALSE(record.hasNumber);
        } else {
            EXPECT_EQ(static_cast<uint32_t>(record.number),
                      msg.type == ZOLTLOG_MSG_AUDIT ? msg.outcome : msg.attr.level);
        }
        if (msg.type == ZOLTLOG_MSG_DEBUG) {
            EXPECT_EQ(record.block, "");
            continue;
        }
        size_t at = 0;
        uint64_t number = 0;
        std::vector<tools::Argument> arguments;
        ASSERT_TRUE(tools::walkBlock(record.block, at, number, &arguments)) << record.block;
        EXPECT_EQ(number, static_cast<uint64_t>(block->identity));
        size_t next = 0;
        expectArguments(*block, arguments, next);
        EXPECT_EQ(next, arguments.size());
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << line;
            return;
        }
    }
}

} // namespace

TEST(RecordRoundTrip, WhatTheLibraryEncodesIsReadEqual) {
    roundTrip(3000);
}

TEST(LongRecordRoundTrip, WhatTheLibraryEncodesIsReadEqual) {
    roundTrip(200000);
}

// ---- names ---------------------------------------------------------------------

TEST(FileNames, OriginatorFilesAreUnderstood) {
    FileName name;
    ASSERT_TRUE(tools::parseFileName("5-7-16777343-240301-0000000002.log", name));
    EXPECT_EQ(name.kind, FileName::Kind::Originator);
    EXPECT_EQ(name.product, 5u);
    EXPECT_EQ(name.originator, 7u);
    EXPECT_EQ(name.host, 16777343u);
    EXPECT_EQ(name.year, 2024);
    EXPECT_EQ(name.month, 3);
    EXPECT_EQ(name.day, 1);
    EXPECT_EQ(name.counter, 2u);
    EXPECT_TRUE(tools::parseFileName("5-7-1-240301-12345678901.log", name)); // a counter of eleven digits
    EXPECT_EQ(name.counter, 12345678901u);
}

TEST(FileNames, LogSetFilesAreUnderstood) {
    FileName name;
    const std::string text = "5-backup-240301134502.log";
    ASSERT_TRUE(tools::parseFileName(text, name));
    EXPECT_EQ(name.kind, FileName::Kind::LogSet);
    EXPECT_EQ(name.product, 5u);
    EXPECT_EQ(name.logSet, "backup");
    EXPECT_EQ(name.year, 2024);
    EXPECT_EQ(name.hour, 13);
    EXPECT_EQ(name.minute, 45);
    EXPECT_EQ(name.second, 2);
}

TEST(FileNames, OtherNamesAreRefused) {
    FileName name;
    for (const char *other :
         {"", ".log", "zoltlog.conf", "5-7-1-240301-0000000002.log.1", "5-7-1-240301-000000002.log",
          "0-7-1-240301-0000000002.log", "5-7-1-241301-0000000002.log", "x-7-1-240301-0000000002.log",
          "5-7-1-240301-0000000002", "5--240301134502.log", "5-backup-24030113450.log",
          "5-backup-240300134502.log"})
        EXPECT_FALSE(tools::parseFileName(other, name)) << other;
}

// ---- headers -------------------------------------------------------------------

TEST(Headers, AllVersionsAreRead) {
    Header header;
    ASSERT_EQ(tools::parseHeader("$Header 65543,5,7,1709300702,-7200,hostA", header), HeaderResult::Ok);
    EXPECT_EQ(header.version, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(header.product, 5u);
    EXPECT_EQ(header.originator, 7u);
    EXPECT_EQ(header.created, 1709300702);
    EXPECT_TRUE(header.hasOffset);
    EXPECT_EQ(header.offset, -7200);
    EXPECT_EQ(header.host, "hostA");
    ASSERT_EQ(tools::parseHeader("$Header 65544,3600,hostB", header), HeaderResult::Ok);
    EXPECT_EQ(header.version, ZOLTLOG_RECORD_VERSION_LOGSET);
    EXPECT_EQ(header.product, 0u);
    EXPECT_EQ(header.created, 0);
    EXPECT_EQ(header.offset, 3600);
    EXPECT_EQ(header.host, "hostB");
    for (const std::string version : {"65540", "65541", "65542"}) {
        const std::string line = "$Header " + version + ",5,7,1709300702,host,with comma";
        ASSERT_EQ(tools::parseHeader(line, header), HeaderResult::Ok);
        EXPECT_EQ(header.originator, 7u);
        EXPECT_FALSE(header.hasOffset);
        EXPECT_EQ(header.host, "host,with comma");
    }
}

TEST(Headers, WhatIsNoHeaderIsToldApart) {
    Header header;
    EXPECT_EQ(tools::parseHeader("$Header 65539,5,7,1,0,h", header), HeaderResult::UnknownVersion);
    EXPECT_EQ(tools::parseHeader("$Header 65545,5,7,1,0,h", header), HeaderResult::UnknownVersion);
    EXPECT_EQ(tools::parseHeader("$Headers 65543,5,7,1,0,h", header), HeaderResult::NotAHeader);
    EXPECT_EQ(tools::parseHeader("", header), HeaderResult::NotAHeader);
    EXPECT_EQ(tools::parseHeader("$Header 65543", header), HeaderResult::Malformed);
    EXPECT_EQ(tools::parseHeader("$Header 65543,5,7,1", header), HeaderResult::Malformed);
    EXPECT_EQ(tools::parseHeader("$Header x", header), HeaderResult::Malformed);
    EXPECT_EQ(header.version, 0u);
}

namespace {

// ---- files ---------------------------------------------------------------------

std::string record(int id, int64_t time, const std::string &text = "text") {
    return "2,5,7,7," + std::to_string(id) + "," + std::to_string(time) + ",42,43,0:," +
           std::to_string(text.size()) + ":" + text + ",3:mgr,1,(0|)";
}

const std::string HEADER_LINE = "$Header 65543,5,7,1700000000,-7200,hostA\n";
const std::string LOG_NAME = "5-7-1-231114-0000000000.log";

} // namespace

TEST(RecordFile, RecordsComeWithTheirOffsets) {
    support::writeFile(LOG_NAME, HEADER_LINE + record(1, 1000) + "\n" + record(2, 2000) + "\n");
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.header.version, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    EXPECT_EQ(file.header.host, "hostA");
    EXPECT_EQ(file.name.product, 5u);
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.messageId, 1u);
    EXPECT_EQ(file.offset, HEADER_LINE.size());
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.messageId, 2u);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    EXPECT_EQ(file.lines.unended(), 0u);
}

TEST(RecordFile, ProductOfALogSetsRecordComesFromTheFileName) {
    support::writeFile("9-backup-240301134502.log", "$Header 65544,0,hostA\n" + EXAMPLE44 + "\n");
    RecordFile file;
    ASSERT_TRUE(file.open("9-backup-240301134502.log"));
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.product, 9u);
    EXPECT_EQ(file.record.originator, 7u);
}

TEST(RecordFile, EveryIntactRecordAfterADamagedOneIsFound) {
    support::writeFile(LOG_NAME, HEADER_LINE + record(1, 1) + "\n" + record(2, 2).substr(0, 30) + "\n" +
                                     record(3, 3) + "\n\n" + record(4, 4).substr(0, 25) + record(5, 5) +
                                     "\n" + record(6, 6) + "\n" + record(7, 7).substr(0, 30));
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    std::string seen;
    for (RecordFile::Got got = file.next(); got != RecordFile::Got::End; got = file.next()) {
        ASSERT_NE(got, RecordFile::Got::Error);
        seen += got == RecordFile::Got::Record ? std::to_string(file.record.messageId) : "x";
        seen += file.salvaged ? "s " : " ";
    }
    EXPECT_EQ(seen, "1 x 3 x x 5s 6 ");
    EXPECT_EQ(file.lines.unended(), 30u);

    seen.clear();
    uint64_t size = 0;
    ASSERT_TRUE(file.lines.size(size));
    file.startBackwards(size);
    for (RecordFile::Got got = file.previous(); got != RecordFile::Got::End; got = file.previous()) {
        if (got == RecordFile::Got::Header)
            seen += "h ";
        else
            seen += got == RecordFile::Got::Record ? std::to_string(file.record.messageId) + " " : "x ";
    }
    EXPECT_EQ(seen, "6 5 x x 3 x 1 h ");
}

TEST(RecordFile, AFurtherHeaderLineBeginsAnotherPart) {
    support::writeFile("all.log",
                       HEADER_LINE + EXAMPLE43 + "\n$Header 65544,3600,hostB\n" + EXAMPLE44 + "\n");
    RecordFile file;
    ASSERT_TRUE(file.open("all.log"));
    EXPECT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.next(), RecordFile::Got::Header);
    EXPECT_EQ(file.header.host, "hostB");
    EXPECT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.version, ZOLTLOG_RECORD_VERSION_LOGSET);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
}

TEST(RecordFile, AFileWithoutHeaderIsRead) {
    support::writeFile(LOG_NAME, EXAMPLE43 + "\n");
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.header.version, 0u);
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.version, ZOLTLOG_RECORD_VERSION_ORIGINATOR);
}

TEST(RecordFile, WhatCannotBeReadSaysWhy) {
    RecordFile file;
    EXPECT_FALSE(file.open("missing.log"));
    EXPECT_EQ(file.problem, "No such file or directory");
    support::makeDirectory("directory.log");
    EXPECT_FALSE(file.open("directory.log"));
    EXPECT_EQ(file.problem, "Is a directory");
    support::writeFile(LOG_NAME, "$Header 65545,1,1,1,1,h\n");
    EXPECT_FALSE(file.open(LOG_NAME));
    EXPECT_EQ(file.problem, "unknown header version: $Header 65545,1,1,1,1,h");
}

TEST(RecordFile, GrowingFilesAreReadOn) {
    support::writeFile(LOG_NAME, HEADER_LINE + record(1, 1) + "\n" + record(2, 2).substr(0, 20));
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    support::writeFile(LOG_NAME, HEADER_LINE + record(1, 1) + "\n" + record(2, 2) + "\n");
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.messageId, 2u);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
}

TEST(RecordFile, LongRecordsSpanAnyNumberOfBlocks) {
    const std::string longText(3 * tools::BLOCK_SIZE + 12345, 'x');
    support::writeFile(LOG_NAME, HEADER_LINE + record(1, 1) + "\n" + record(2, 2, longText) + "\n" +
                                     record(3, 3) + "\n");
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.next(), RecordFile::Got::Record);
    ASSERT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.text, longText);
    EXPECT_EQ(file.next(), RecordFile::Got::Record);
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    uint64_t size = 0;
    ASSERT_TRUE(file.lines.size(size));
    file.startBackwards(size);
    EXPECT_EQ(file.previous(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.messageId, 3u);
    ASSERT_EQ(file.previous(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.text, longText);
    ASSERT_EQ(file.previous(), RecordFile::Got::Record);
    EXPECT_EQ(file.record.messageId, 1u);
    EXPECT_EQ(file.previous(), RecordFile::Got::Header);
    EXPECT_EQ(file.previous(), RecordFile::Got::End);
}

namespace {

// Record i has the time 1000000 + 1000 i.
void writeTimes(int count, const std::string &text, int64_t step = 1000) {
    std::string bytes = HEADER_LINE;
    for (int i = 0; i < count; ++i)
        bytes += record(i, 1000000 + step * i, text) + "\n";
    support::writeFile(LOG_NAME, bytes);
}

} // namespace

TEST(RecordFile, TimesAreFoundByBisection) {
    writeTimes(5000, std::string(150, 'x'));
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_TRUE(file.inOrder());
    uint64_t size = 0;
    ASSERT_TRUE(file.lines.size(size));
    for (int wanted = -5; wanted < 5010; wanted += 13) {
        const int64_t since = 1000000 + 1000 * wanted;
        file.seek(file.findTime(since));
        const uint64_t begin = file.lines.position();
        bool found = false;
        while (!found && file.next() == RecordFile::Got::Record) {
            found = file.record.time >= since;
            if (found) {
                EXPECT_EQ(file.record.messageId, static_cast<uint64_t>(std::max(wanted, 0)));
            } else {
                EXPECT_LT(file.offset - begin, 64u * 1024) << "reads on from too far before";
            }
        }
        EXPECT_EQ(found, wanted < 5000);
    }
    int64_t time = 0;
    EXPECT_TRUE(file.firstTime(time));
    EXPECT_EQ(time, 1000000);
    EXPECT_TRUE(file.lastTime(time));
    EXPECT_EQ(time, 1000000 + 4999 * 1000);
}

TEST(RecordFile, TimesAreFoundBetweenLongAndDamagedLines) {
    std::string bytes = HEADER_LINE;
    for (int i = 0; i < 200; ++i) {
        bytes += record(i, 1000000 + 20000 * i, std::string(i % 17 == 0 ? 30000 : 50, 'y')) + "\n";
        if (i % 5 == 0)
            bytes += std::string(static_cast<size_t>(i) * 10, '#') + "\n";
    }
    support::writeFile(LOG_NAME, bytes);
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    for (int wanted = 0; wanted < 200; ++wanted) {
        file.seek(file.findTime(1000000 + 20000 * wanted));
        uint64_t id = 1000;
        for (RecordFile::Got got = file.next(); got != RecordFile::Got::End; got = file.next()) {
            if (got == RecordFile::Got::Record && file.record.time >= 1000000 + 20000 * wanted) {
                id = file.record.messageId;
                break;
            }
        }
        EXPECT_EQ(id, static_cast<uint64_t>(wanted));
    }
}

TEST(RecordFile, TimesThatGoBackAreNoticed) {
    writeTimes(5000, std::string(150, 'x'), -1000);
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_FALSE(file.inOrder());
}

TEST(RecordFile, SummaryHasFirstAndLastTime) {
    writeTimes(1000, "t");
    tools::FileSummary summary;
    std::string problem;
    ASSERT_TRUE(tools::readSummary(LOG_NAME, summary, problem));
    EXPECT_TRUE(summary.hasTimes);
    EXPECT_EQ(summary.first, 1000000);
    EXPECT_EQ(summary.last, 1000000 + 999 * 1000);
    EXPECT_EQ(summary.size, support::readFile(LOG_NAME).size());
    EXPECT_EQ(summary.header.host, "hostA");
    EXPECT_FALSE(tools::readSummary("missing", summary, problem));
}

TEST(RecordFile, EmptyFilesAndFilesWithOnlyAHeaderEnd) {
    support::writeFile(LOG_NAME, "");
    RecordFile file;
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    support::writeFile(LOG_NAME, HEADER_LINE);
    ASSERT_TRUE(file.open(LOG_NAME));
    EXPECT_EQ(file.next(), RecordFile::Got::End);
    int64_t time = 0;
    EXPECT_FALSE(file.firstTime(time));
    EXPECT_FALSE(file.lastTime(time));
    EXPECT_TRUE(file.inOrder());
    EXPECT_EQ(file.findTime(5), HEADER_LINE.size());
}

// Damage of random kinds between intact records: all intact ones come out, in order.
TEST(RecordFile, RandomDamageLosesOnlyWhatItHits) {
    for (int round = 0; round < 200; ++round) {
        std::string bytes = HEADER_LINE;
        std::vector<uint64_t> intact;
        for (int i = 1; i <= 50; ++i) {
            std::string line = record(i, 1000 + i, "text " + std::to_string(i));
            switch (below(5)) {
            case 0:
                line = line.substr(0, below(line.size())); // torn, line feed there
                break;
            case 1:
                line = std::string(below(100), static_cast<char>(below(256)));
                for (char &c : line) {
                    if (c == '\n')
                        c = ' ';
                }
                break;
            default:
                intact.push_back(static_cast<uint64_t>(i));
            }
            bytes += line + "\n";
        }
        support::writeFile(LOG_NAME, bytes);
        RecordFile file;
        ASSERT_TRUE(file.open(LOG_NAME));
        std::vector<uint64_t> seen;
        for (RecordFile::Got got = file.next(); got != RecordFile::Got::End; got = file.next()) {
            if (got == RecordFile::Got::Record)
                seen.push_back(file.record.messageId);
        }
        ASSERT_EQ(seen, intact);
    }
}
