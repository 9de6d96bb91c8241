// SPDX-License-Identifier: Apache-2.0
// Records, byte for byte. The localization library is played by this program: a
// block's first word points to the FakeBlock that tells what each call yields.
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

struct FakeBlock;

struct FakeArgument {
    uint32_t kind;
    int64_t number = 0;
    double real = 0;
    const wchar_t *wide = nullptr;
    const char *narrow = nullptr;
    FakeBlock *nested = nullptr;
    bool typeFails = false;
    bool valueFails = false;
};

struct FakeBlock {
    int64_t identity = 0;
    std::vector<FakeArgument> arguments;
    bool identityFails = false;
    ZoltLisBlock block = {};
    ZoltLisBlock *handed() {
        block.word[0] = reinterpret_cast<uintptr_t>(this);
        return &block;
    }
};

namespace {

int localizationCalls;

const FakeArgument &current(ZoltLisIterator *iterator) {
    ++localizationCalls;
    return reinterpret_cast<FakeBlock *>(iterator->word[0])->arguments[iterator->word[1]];
}

} // namespace

extern "C" {
int32_t zoltLisGetTextId(ZoltLisBlock *block, int64_t *identity) {
    ++localizationCalls;
    const auto *fake = reinterpret_cast<FakeBlock *>(block->word[0]);
    *identity = fake->identity;
    return fake->identityFails ? -1 : 0;
}
int32_t zoltLisGetArgsBegin(ZoltLisBlock *block, ZoltLisIterator *argument) {
    ++localizationCalls;
    *argument = {{block->word[0], 0}};
    return reinterpret_cast<FakeBlock *>(block->word[0])->arguments.empty() ? -1 : 0;
}
int32_t zoltLisGetNextArg(ZoltLisIterator *argument) {
    return ++argument->word[1] < reinterpret_cast<FakeBlock *>(argument->word[0])->arguments.size() ? 0 : -1;
}
int32_t zoltLisGetArgTypeId(ZoltLisIterator *argument, uint32_t *type) {
    *type = current(argument).kind;
    return current(argument).typeFails ? -1 : 0;
}
int32_t zoltLisGetArg_wchar(ZoltLisIterator *argument, wchar_t *out) {
    *out = static_cast<wchar_t>(current(argument).number);
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_longlong(ZoltLisIterator *argument, int64_t *out) {
    *out = current(argument).number;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_ulonglong(ZoltLisIterator *argument, uint64_t *out) {
    *out = static_cast<uint64_t>(current(argument).number);
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_double(ZoltLisIterator *argument, double *out) {
    *out = current(argument).real;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_pointer(ZoltLisIterator *argument, void **out) {
    *out = reinterpret_cast<void *>(current(argument).number);
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_wstring(ZoltLisIterator *argument, const wchar_t **out) {
    *out = current(argument).wide;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_os_error(ZoltLisIterator *argument, const ZoltLisOsError **out) {
    static ZoltLisOsError error;
    error = {99, current(argument).number};
    *out = &error;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_datetime(ZoltLisIterator *argument, ZoltLisDateTime *out) {
    *out = {current(argument).number, 123456789};
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_lis(ZoltLisIterator *argument, ZoltLisBlock **out) {
    *out = current(argument).nested != nullptr ? current(argument).nested->handed() : nullptr;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_utf8string(ZoltLisIterator *argument, const char **out) {
    *out = current(argument).narrow;
    return current(argument).valueFails ? -1 : 0;
}
int32_t zoltLisGetArg_nativeString(ZoltLisIterator *argument, const char **out) {
    return zoltLisGetArg_utf8string(argument, out);
}
}

namespace {

char *text(const char *bytes) {
    return const_cast<char *>(bytes);
}

LogMsg exampleMessage(uint64_t version) {
    LogMsg msg = {};
    msg.recordVersion = version;
    msg.type = ZOLTLOG_MSG_APP;
    msg.productId = 5;
    msg.originatorId = 7;
    msg.fileOriginatorId = 7;
    msg.messageId = 12;
    msg.timestamp = 1700000000123;
    msg.processId = 4242;
    msg.threadId = 4243;
    msg.text = text("Disk full, 2 of 3");
    msg.who = text("mgr");
    msg.attr.severity = ZOLTLOG_SEVERITY_CRITICAL;
    return msg;
}

// The record, or "result N".
std::string encode(LogMsg msg) {
    TextBuffer buffer;
    const uint32_t result = zoltLogMsgSerialize(&msg, &buffer);
    std::string record = "result " + std::to_string(result);
    if (result == 0)
        record.assign(buffer.data, static_cast<size_t>(buffer.capacity - buffer.free));
    free_text_msg(&buffer);
    return record;
}

const char PREFIX[] = "5,7,7,12,1700000000123,4242,4243,"; // after the type

std::string recordWithBlock(FakeBlock *fake) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.lis = *fake->handed();
    const std::string record = encode(msg);
    const std::string before = std::string("2,") + PREFIX + "0:,17:Disk full, 2 of 3,3:mgr,3,";
    if (record.compare(0, before.size(), before) != 0)
        return record;
    return record.substr(before.size());
}

std::string recordWithArgument(FakeArgument argument) {
    FakeBlock fake;
    fake.identity = 1;
    fake.arguments = {argument};
    return recordWithBlock(&fake);
}

} // namespace

// ---- the whole record

TEST(RecordEncoding, ExampleInAnOriginatorsFile) {
    EXPECT_EQ(encode(exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR)),
              "2,5,7,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, ExampleInALogSetsFile) {
    EXPECT_EQ(encode(exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET)),
              "2,7,12,1700000000123,4242,4243,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, OlderVersionsHaveNoPrefix) {
    EXPECT_EQ(encode(exampleMessage(ZOLTLOG_RECORD_VERSION_OLDEST)), "0:,17:Disk full, 2 of 3,3,(0|)\n");
    EXPECT_EQ(encode(exampleMessage(ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO)),
              "0:,17:Disk full, 2 of 3,3,(0|)\n");
    EXPECT_EQ(encode(exampleMessage(ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX)),
              "0:,17:Disk full, 2 of 3,3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, UnknownVersionsFail) {
    for (const uint64_t version : {UINT64_C(0), UINT64_C(65539), UINT64_C(65545), UINT64_MAX})
        EXPECT_EQ(encode(exampleMessage(version)), "result 1");
}

TEST(RecordEncoding, NullArgumentsAreInvalid) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    TextBuffer buffer;
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogMsgSerialize(nullptr, &buffer));
    free_text_msg(&buffer);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogMsgSerialize(&msg, nullptr));
}

TEST(RecordEncoding, EveryTypeInAnOriginatorsFile) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("t");
    msg.contextToken = text("T1");
    msg.outcome = 9;

    msg.type = ZOLTLOG_MSG_DEBUG;
    EXPECT_EQ(encode(msg), std::string("0,") + PREFIX + "2:T1,1:t,3:mgr,3\n");
    msg.type = ZOLTLOG_MSG_DIAG;
    EXPECT_EQ(encode(msg), std::string("1,") + PREFIX + "2:T1,1:t,3:mgr,3,(0|)\n");
    msg.type = ZOLTLOG_MSG_APP;
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "2:T1,1:t,3:mgr,3,(0|)\n");
    msg.type = ZOLTLOG_MSG_AUDIT;
    EXPECT_EQ(encode(msg), std::string("4,") + PREFIX + "2:T1,1:t,3:mgr,9,(0|)\n");
    msg.type = ZOLTLOG_MSG_CONTEXT;
    msg.attr.contextTitle = text("title");
    EXPECT_EQ(encode(msg), std::string("3,") + PREFIX + "2:T1,1:t,5:title,(0|)\n");
}

TEST(RecordEncoding, EveryTypeInALogSetsFile) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET);
    msg.text = text("t");
    const std::string prefix = "7,12,1700000000123,4242,4243,";
    msg.outcome = 4000000000;

    msg.type = ZOLTLOG_MSG_DEBUG;
    EXPECT_EQ(encode(msg), "0," + prefix + "0:,1:t,3:mgr,3\n");
    msg.type = ZOLTLOG_MSG_DIAG;
    EXPECT_EQ(encode(msg), "1," + prefix + "0:,1:t,3:mgr,3,(0|)\n");
    msg.type = ZOLTLOG_MSG_AUDIT; // "%d" of the outcome
    EXPECT_EQ(encode(msg), "4," + prefix + "0:,1:t,3:mgr,-294967296,(0|)\n");
    msg.type = ZOLTLOG_MSG_CONTEXT;
    msg.attr.contextTitle = nullptr;
    EXPECT_EQ(encode(msg), "3," + prefix + "0:,1:t,0:,(0|)\n");
}

TEST(RecordEncoding, SecureAuditAndUnknownTypesFail) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    for (const uint32_t type : {5u, 6u, 4294967295u}) {
        msg.type = type;
        EXPECT_EQ(encode(msg), "result 1");
    }
}

TEST(RecordEncoding, SeveritiesAboveFourFail) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    for (uint32_t severity = 0; severity <= ZOLTLOG_SEVERITY_EMERGENCY; ++severity) {
        msg.attr.severity = severity;
        EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,17:Disk full, 2 of 3,3:mgr," +
                                   std::to_string(severity) + ",(0|)\n");
    }
    for (const uint32_t severity : {5u, 4294967295u}) {
        msg.attr.severity = severity;
        EXPECT_EQ(encode(msg), "result 1");
    }
}

TEST(RecordEncoding, LevelsAreWrittenAsTheyAre) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.type = ZOLTLOG_MSG_DIAG;
    msg.text = text("t");
    msg.attr.level = 17;
    EXPECT_EQ(encode(msg), std::string("1,") + PREFIX + "0:,1:t,3:mgr,17,(0|)\n");
    msg.type = ZOLTLOG_MSG_DEBUG;
    msg.attr.level = 4294967295u;
    EXPECT_EQ(encode(msg), std::string("0,") + PREFIX + "0:,1:t,3:mgr,-1\n");
}

TEST(RecordEncoding, NumbersHaveTheirWholeRange) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = nullptr;
    msg.productId = UINT64_MAX;
    msg.originatorId = 18446744073709551614u;
    msg.fileOriginatorId = 10000000000000000000u;
    msg.messageId = 0;
    msg.timestamp = static_cast<uint64_t>(INT64_MIN);
    msg.processId = 9999999999u;
    msg.threadId = 140737353971520u;
    EXPECT_EQ(encode(msg), "2,18446744073709551615,18446744073709551614,10000000000000000000,0,"
                           "-9223372036854775808,9999999999,140737353971520,0:,0:,3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, NullAndEmptyStringsAreZeroLength) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("");
    msg.who = nullptr;
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,0:,0:,3,(0|)\n");
}

TEST(RecordEncoding, LineFeedsBecomeCarriageReturnsAndKeepTheLength) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("a\nb");
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,3:a\rb,3:mgr,3,(0|)\n");
    msg.text = text("\n\r\n");
    msg.who = text("w\n");
    msg.contextToken = text("\n");
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "1:\r,3:\r\r\r,2:w\r,3,(0|)\n");
}

TEST(RecordEncoding, ALineFeedIsFoundWhereverItStands) {
    for (size_t length = 1; length <= 50; ++length) {
        for (size_t at = 0; at < length; ++at) {
            std::string body(length, 'a');
            body[at] = '\n';
            LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
            msg.text = body.data();
            std::string shown = body;
            shown[at] = '\r';
            ASSERT_EQ(encode(msg), std::string("2,") + PREFIX + "0:," + std::to_string(length) + ":" + shown +
                                       ",3:mgr,3,(0|)\n");
        }
    }
}

TEST(RecordEncoding, AByteThatIsNoTextIsFoundWhereverItStands) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    for (size_t length = 1; length <= 50; ++length) {
        for (size_t at = 0; at < length; ++at) {
            std::string body(length, 'a');
            body[at] = '\xff';
            LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
            msg.text = body.data();
            ASSERT_EQ(encode(msg),
                      std::string("2,") + PREFIX + "0:,33:**UNABLE TO PROCESS LOG MESSAGE**,3:mgr,3,(0|)\n");
        }
    }
}

TEST(RecordEncoding, HostileTextsStayInsideTheirField) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("9999:,%n%s\x1b[2J\b,(0|)");
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,20:9999:,%n%s\x1b[2J\b,(0|),3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, RecordsOfEveryLengthAroundTheInlineStorageAreWhole) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    for (size_t length = 3900; length < 4300; ++length) {
        const std::string body(length, 'x');
        msg.text = text(body.c_str());
        ASSERT_EQ(encode(msg), std::string("2,") + PREFIX + "0:," + std::to_string(length) + ":" + body +
                                   ",3:mgr,3,(0|)\n");
    }
}

TEST(RecordEncoding, AMegabyteIsWrittenWhole) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET);
    const std::string body(1 << 20, 'y');
    msg.text = text(body.c_str());
    msg.who = msg.text;
    EXPECT_EQ(encode(msg),
              "2,7,12,1700000000123,4242,4243,0:,1048576:" + body + ",1048576:" + body + ",3,(0|)\n");
}

TEST(RecordEncoding, TheBufferCanBeReleasedAfterAFailure) {
    const std::string body(10000, 'x');
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text(body.c_str());
    msg.attr.severity = ZOLTLOG_SEVERITY_EMERGENCY + 1;
    TextBuffer buffer;
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogMsgSerialize(&msg, &buffer));
    EXPECT_EQ(buffer.data, buffer.inlineStorage);
    free_text_msg(&buffer);
    msg.recordVersion = 0;
    memset(&buffer, 0xab, sizeof buffer);
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogMsgSerialize(&msg, &buffer));
    free_text_msg(&buffer);
}

TEST(RecordEncoding, AnEmptyBlockCostsNoLocalizationCall) {
    localizationCalls = 0;
    encode(exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR));
    EXPECT_EQ(localizationCalls, 0);
}

// ---- numbers

TEST(DecimalNumbers, EqualThoseOfPrintf) {
    std::vector<uint64_t> values = {0, UINT64_MAX, static_cast<uint64_t>(INT64_MIN), INT64_MAX};
    for (uint64_t power = 1; power <= 1000000000000000000u; power *= 10)
        for (const uint64_t delta : {UINT64_MAX, UINT64_C(0), UINT64_C(1)})
            values.push_back(power + delta);
    std::mt19937_64 random(1);
    for (int i = 0; i < 2000; ++i)
        values.push_back(random() >> (random() % 64));
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET);
    for (const uint64_t value : values) {
        char expected[100];
        msg.messageId = value;
        msg.timestamp = value;
        snprintf(expected, sizeof expected, "2,7,%lu,%ld,4242,", value, static_cast<int64_t>(value));
        EXPECT_EQ(encode(msg).substr(0, strlen(expected)), expected);
    }
}

TEST(DecimalNumbers, AppendedNumbersEndInAComma) {
    TextBuffer buffer;
    init_text_msg(&buffer);
    EXPECT_RESULT(ZOLTLOG_OK, bin2txt_int(0, &buffer));
    EXPECT_RESULT(ZOLTLOG_OK, bin2txt_int(-2147483647 - 1, &buffer));
    EXPECT_RESULT(ZOLTLOG_OK, bin2txt_int(2147483647, &buffer));
    EXPECT_RESULT(ZOLTLOG_OK, bin2txt_sev(0, &buffer));
    EXPECT_RESULT(ZOLTLOG_OK, bin2txt_sev(4, &buffer));
    EXPECT_RESULT(ZOLTLOG_FAILED, bin2txt_sev(5, &buffer));
    EXPECT_EQ(std::string(buffer.data, 4096 - buffer.free), "0,-2147483648,2147483647,0,4,");
}

namespace {

// ---- strings and encodings

// What conversion alone makes of a text: the encoder must write the same.
std::string fieldByConversion(const std::string &native) {
    if (native.empty())
        return "0:,";
    char *converted = nullptr;
    std::string utf8 = "**UNABLE TO PROCESS LOG MESSAGE**";
    if (mbs2utf8(&converted, native.c_str()) == 0) {
        utf8 = converted;
        zoltLogFree(converted);
    }
    return std::to_string(utf8.size()) + ":" + utf8 + ",";
}

std::string randomText(std::mt19937_64 *random) {
    static const char *const pieces[] = {"a",
                                         "Zz9",
                                         " ",
                                         ",",
                                         "\xc3\xa4",
                                         "\xe4",
                                         "\xb0\xa1",
                                         "\x8f",
                                         "\xa4\xa2",
                                         "\xed\xa0\x80",
                                         "\xf0\x9f\x98\x80",
                                         "\xf4\x90\x80\x80",
                                         "\xc0\x80",
                                         "\xe2\x82\xac",
                                         "\xff",
                                         "\xe2\x82",
                                         "\x80",
                                         "~",
                                         "\\",
                                         "\x7f"};
    std::string result;
    const uint64_t style = (*random)() % 3;
    for (uint64_t left = (*random)() % 40; left > 0; --left) {
        if (style == 0)
            result += static_cast<char>(1 + (*random)() % 127);
        else if (style == 1)
            result += static_cast<char>(1 + (*random)() % 255);
        else
            result += pieces[(*random)() % (sizeof pieces / sizeof *pieces)];
    }
    for (char &c : result)
        if (c == '\n')
            c = '.';
    return result;
}

} // namespace

class EveryLocale : public testing::TestWithParam<const char *> {};

TEST_P(EveryLocale, StringsAreWrittenAsConversionWouldWriteThem) {
    ASSERT_TRUE(support::useLocale(GetParam()));
    std::mt19937_64 random(20261120);
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    for (int i = 0; i < 20000; ++i) {
        const std::string token = randomText(&random);
        const std::string body = randomText(&random);
        const std::string who = randomText(&random);
        msg.contextToken = text(token.c_str());
        msg.text = text(body.c_str());
        msg.who = text(who.c_str());
        ASSERT_EQ(encode(msg), std::string("2,") + PREFIX + fieldByConversion(token) +
                                   fieldByConversion(body) + fieldByConversion(who) + "3,(0|)\n")
            << "text " << testing::PrintToString(body);
    }
}

INSTANTIATE_TEST_SUITE_P(RecordEncoding, EveryLocale,
                         testing::Values("C", "C.UTF-8", "en_US.UTF-8", "de_DE.UTF-8", "tr_TR.UTF-8",
                                         "de_DE.ISO-8859-1", "ja_JP.EUC-JP"));

TEST(RecordEncoding, NativeTextsAreConverted) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("gr\xfc\xdf dich");
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,11:gr\xc3\xbc\xc3\x9f dich,3:mgr,3,(0|)\n");
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    msg.text = text("\xa4\xa2"); // hiragana A
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,3:\xe3\x81\x82,3:mgr,3,(0|)\n");
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    msg.text = text("gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX + "0:,6:gr\xc3\xbc\xc3\x9f,3:mgr,3,(0|)\n");
}

TEST(RecordEncoding, ATextThatCannotBeConvertedIsReplaced) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.text = text("bad \xff byte");
    EXPECT_EQ(encode(msg),
              std::string("2,") + PREFIX + "0:,33:**UNABLE TO PROCESS LOG MESSAGE**,3:mgr,3,(0|)\n");
    msg.who = text("\xc3");
    msg.contextToken = text("\xed\xa0\x80");
    msg.text = text("good");
    EXPECT_EQ(encode(msg), std::string("2,") + PREFIX +
                               "33:**UNABLE TO PROCESS LOG MESSAGE**,4:good,33:**UNABLE TO PROCESS LOG "
                               "MESSAGE**,3,(0|)\n");
}

TEST(RecordEncoding, WithTheUtf8FlagBytesAreCopiedAsTheyAre) {
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    msg.utf8 = 1;
    msg.text = text("\xff\xfe not utf-8");
    msg.who = text("gr\xc3\xbc\xc3\x9f");
    for (const char *locale : {"C", "C.UTF-8", "de_DE.ISO-8859-1"}) {
        ASSERT_TRUE(support::useLocale(locale));
        EXPECT_EQ(encode(msg),
                  std::string("2,") + PREFIX + "0:,12:\xff\xfe not utf-8,6:gr\xc3\xbc\xc3\x9f,3,(0|)\n");
    }
}

// ---- argument blocks

TEST(ArgumentBlocks, ABlockWithoutArgumentsHasItsNumber) {
    FakeBlock fake;
    fake.identity = 42;
    EXPECT_EQ(recordWithBlock(&fake), "(42|)\n");
    fake.identity = 0;
    EXPECT_EQ(recordWithBlock(&fake), "(0|)\n");
    fake.identity = -1;
    EXPECT_EQ(recordWithBlock(&fake), "(18446744073709551615|)\n");
}

TEST(ArgumentBlocks, WideCharacters) {
    const struct {
        int64_t character;
        const char *written;
    } cases[] = {{'a', "(1|11:a|)\n"},
                 {0x7f, "(1|11:\x7f|)\n"},
                 {0x80, "(1|12:\xc2\x80|)\n"},
                 {0x7ff, "(1|12:\xdf\xbf|)\n"},
                 {0x800, "(1|13:\xe0\xa0\x80|)\n"},
                 {0x20ac, "(1|13:\xe2\x82\xac|)\n"},
                 {0xd7ff, "(1|13:\xed\x9f\xbf|)\n"},
                 {0xe000, "(1|13:\xee\x80\x80|)\n"},
                 {0xffff, "(1|13:\xef\xbf\xbf|)\n"},
                 {0x10000, "(1|14:\xf0\x90\x80\x80|)\n"},
                 {0x1f600, "(1|14:\xf0\x9f\x98\x80|)\n"},
                 {0x10ffff, "(1|14:\xf4\x8f\xbf\xbf|)\n"},
                 {0, "(1|10:|)\n"},
                 {'\n', "(1|11:\r|)\n"},
                 {0xd800, "result 1"},
                 {0xdfff, "result 1"},
                 {0x110000, "result 1"},
                 {-1, "result 1"}};
    for (const auto &c : cases)
        EXPECT_EQ(recordWithArgument({0, c.character}), c.written);
}

TEST(ArgumentBlocks, SignedAndUnsignedNumbers) {
    EXPECT_EQ(recordWithArgument({1, -7}), "(1|i64:-7|)\n");
    EXPECT_EQ(recordWithArgument({1, INT64_MIN}), "(1|i64:-9223372036854775808|)\n");
    EXPECT_EQ(recordWithArgument({2, 7}), "(1|u64:7|)\n");
    EXPECT_EQ(recordWithArgument({2, -1}), "(1|u64:18446744073709551615|)\n");
}

TEST(ArgumentBlocks, DoublesHaveNoLength) {
    ASSERT_TRUE(support::useLocale("C"));
    FakeArgument argument{3};
    argument.real = 1.5;
    EXPECT_EQ(recordWithArgument(argument), "(1|81.500000|)\n");
    argument.real = -0.0000004;
    EXPECT_EQ(recordWithArgument(argument), "(1|8-0.000000|)\n");
    argument.real = std::numeric_limits<double>::infinity();
    EXPECT_EQ(recordWithArgument(argument), "(1|8inf|)\n");
    argument.real = -DBL_MAX;
    const std::string largest = recordWithArgument(argument);
    EXPECT_EQ(largest.substr(0, 12), "(1|8-1797693");
    EXPECT_EQ(largest.size(), strlen("(1|8-") + 309 + strlen(".000000|)\n"));
}

TEST(RecordEncoding, DoublesFollowTheNumericLocale) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    FakeArgument argument{3};
    argument.real = 1234.5;
    EXPECT_EQ(recordWithArgument(argument), "(1|81234,500000|)\n");
}

TEST(ArgumentBlocks, PointersAreUnsignedDecimal) {
    EXPECT_EQ(recordWithArgument({4, 255}), "(1|964:255|)\n");
    EXPECT_EQ(recordWithArgument({4, -1}), "(1|964:18446744073709551615|)\n");
    EXPECT_EQ(recordWithArgument({4, 0}), "(1|964:0|)\n");
}

TEST(ArgumentBlocks, WideStringsAreUtf8InEveryLocale) {
    FakeArgument argument{5};
    for (const char *locale : {"C", "de_DE.ISO-8859-1", "C.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(locale));
        argument.wide = L"\u20ac,|\U0001f600";
        EXPECT_EQ(recordWithArgument(argument), "(1|A9:\xe2\x82\xac,|\xf0\x9f\x98\x80|)\n");
        argument.wide = L"";
        EXPECT_EQ(recordWithArgument(argument), "(1|A0:|)\n");
        argument.wide = nullptr;
        EXPECT_EQ(recordWithArgument(argument), "(1|A0:|)\n");
        const wchar_t bad[] = {L'a', static_cast<wchar_t>(0xd800), 0};
        argument.wide = bad;
        EXPECT_EQ(recordWithArgument(argument), "result 1");
    }
}

TEST(ArgumentBlocks, OsErrorsAreCutTo32Bits) {
    for (const uint32_t kind : {6u, 7u}) {
        EXPECT_EQ(recordWithArgument({kind, 2}), "(1|D32:2|)\n");
        EXPECT_EQ(recordWithArgument({kind, -5}), "(1|D32:-5|)\n");
        EXPECT_EQ(recordWithArgument({kind, 0x1ffffffffLL}), "(1|D32:-1|)\n");
    }
}

TEST(ArgumentBlocks, DatesAreSeconds) {
    EXPECT_EQ(recordWithArgument({8, 1700000000}), "(1|C64:1700000000|)\n");
    EXPECT_EQ(recordWithArgument({8, -1}), "(1|C64:-1|)\n");
}

TEST(ArgumentBlocks, NarrowStringsAreCopiedWithoutConversion) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    FakeArgument argument{10};
    argument.narrow = "\xff|x";
    EXPECT_EQ(recordWithArgument(argument), "(1|X3:\xff|x|)\n");
    argument.kind = 11;
    EXPECT_EQ(recordWithArgument(argument), "(1|S3:\xff|x|)\n");
    argument.narrow = "";
    EXPECT_EQ(recordWithArgument(argument), "(1|S0:|)\n");
    argument.narrow = nullptr;
    EXPECT_EQ(recordWithArgument(argument), "(1|S0:|)\n");
}

TEST(ArgumentBlocks, NestedBlocksAreFollowedByACommaOnly) {
    FakeBlock inner;
    inner.identity = 8;
    inner.arguments = {{1, 5}};
    FakeBlock outer;
    outer.identity = 9;
    FakeArgument nested{9};
    nested.nested = &inner;
    outer.arguments = {{2, 1}, nested, {2, 3}};
    EXPECT_EQ(recordWithBlock(&outer), "(9|u64:1|(8|i64:5|),u64:3|)\n");
    inner.arguments.clear();
    EXPECT_EQ(recordWithBlock(&outer), "(9|u64:1|(8|),u64:3|)\n");
}

TEST(ArgumentBlocks, NestToTheLimitAndNoDeeper) {
    std::vector<FakeBlock> blocks(ZOLTLIS_MAX_NESTING + 2);
    for (size_t i = 1; i < blocks.size(); ++i) {
        FakeArgument nested{9};
        nested.nested = &blocks[i - 1];
        blocks[i].arguments = {nested};
        blocks[i].identity = 1;
    }
    blocks[0].identity = 1;
    std::string expected = "(1|";
    for (int i = 0; i < ZOLTLIS_MAX_NESTING; ++i)
        expected = "(1|" + expected + "),";
    EXPECT_EQ(recordWithBlock(&blocks[ZOLTLIS_MAX_NESTING]), expected + ")\n");
    EXPECT_EQ(recordWithBlock(&blocks[ZOLTLIS_MAX_NESTING + 1]), "result 1");
}

TEST(ArgumentBlocks, ABlockThatHoldsItselfFails) {
    FakeBlock block;
    FakeArgument nested{9};
    nested.nested = &block;
    block.arguments = {nested};
    EXPECT_EQ(recordWithBlock(&block), "result 1");
}

TEST(ArgumentBlocks, ManyArgumentsKeepTheirOrder) {
    FakeBlock block;
    block.identity = 77;
    std::string expected = "(77|";
    for (int i = 0; i < 3000; ++i) {
        block.arguments.push_back({1, i});
        expected += "i64:" + std::to_string(i) + "|";
    }
    EXPECT_EQ(recordWithBlock(&block), expected + ")\n");
}

TEST(ArgumentBlocks, UnknownKindsFail) {
    EXPECT_EQ(recordWithArgument({12, 0}), "result 1");
    EXPECT_EQ(recordWithArgument({4294967295u, 0}), "result 1");
}

TEST(ArgumentBlocks, EveryFailureOfTheLocalizationLibraryFails) {
    FakeBlock block;
    block.identity = 1;
    block.identityFails = true;
    EXPECT_EQ(recordWithBlock(&block), "result 1");
    for (uint32_t kind = 0; kind <= 11; ++kind) {
        FakeBlock inner;
        inner.identity = 2;
        FakeArgument argument{kind, 'a'};
        argument.wide = L"w";
        argument.narrow = "n";
        argument.nested = &inner;
        EXPECT_NE(recordWithArgument(argument), "result 1") << kind;
        argument.valueFails = true;
        EXPECT_EQ(recordWithArgument(argument), "result 1") << kind;
        argument.valueFails = false;
        argument.typeFails = true;
        EXPECT_EQ(recordWithArgument(argument), "result 1") << kind;
    }
}

TEST(ArgumentBlocks, EveryTypeButDebugCarriesItsBlock) {
    FakeBlock fake;
    fake.identity = 3;
    LogMsg msg = exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET);
    msg.lis = *fake.handed();
    const auto tail = [&](uint32_t type) {
        msg.type = type;
        msg.attr.contextTitle = nullptr;
        const std::string record = encode(msg);
        return record.substr(record.size() - 6);
    };
    for (const uint32_t type : {1u, 2u, 3u, 4u})
        EXPECT_EQ(tail(type), ",(3|)\n") << type;
    EXPECT_EQ(tail(0), "mgr,0\n");
}

// ---- the description of the format

TEST(FormatDocument, ExamplesAreWhatIsWritten) {
    const std::string document = support::readFile(support::sourceDirectory() + "/docs/format-log-file.md");
    LogMsg context = exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR);
    FakeBlock fake;
    fake.identity = 42;
    fake.arguments = {{1, 7}, {10}, {3}};
    fake.arguments[1].narrow = "x";
    fake.arguments[2].real = 1.5;
    context.type = ZOLTLOG_MSG_CONTEXT;
    context.text = nullptr;
    context.attr.contextTitle = text("T1");
    context.lis = *fake.handed();
    for (const LogMsg &msg : {exampleMessage(ZOLTLOG_RECORD_VERSION_ORIGINATOR),
                              exampleMessage(ZOLTLOG_RECORD_VERSION_LOGSET), context})
        EXPECT_NE(document.find("    " + encode(msg)), std::string::npos) << encode(msg);
}
