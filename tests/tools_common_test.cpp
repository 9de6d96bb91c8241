// SPDX-License-Identifier: Apache-2.0
// What the tools share: escaping, colour, tables, json, options, names of results,
// fields, verification.
#include "common/fields.h"
#include "common/json.h"
#include "common/options.h"
#include "common/result_text.h"
#include "common/terminal.h"
#include "common/utf8.h"
#include "common/verify.h"
#include "support/support.h"
#include "zoltlog.h"

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tools;

// ---- escaping ------------------------------------------------------------------

TEST(Escaping, PlainTextStaysAsItIs) {
    EXPECT_EQ(escaped(""), "");
    EXPECT_EQ(escaped("Disk full, 2 of 3"), "Disk full, 2 of 3");
    EXPECT_EQ(escaped("back\\slash"), "back\\slash");
    EXPECT_EQ(escaped("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(Escaping, WhatSteersATerminalIsShown) {
    EXPECT_EQ(escaped("a\x1b[31mb"), "a\\e[31mb");
    EXPECT_EQ(escaped("a\rb\nc\td"), "a\\rb\\nc\\td");
    EXPECT_EQ(escaped(std::string("\0\x07\x08\x7f", 4)), "\\x00\\x07\\x08\\x7f");
    EXPECT_EQ(escaped("\xc2\x9b"), "\\u{9b}");       // control sequence introducer
    EXPECT_EQ(escaped("\xc2\x85"), "\\u{85}");       // next line
    EXPECT_EQ(escaped("\xe2\x80\xa8"), "\\u{2028}"); // line separator
    EXPECT_EQ(escaped("\xe2\x80\xae"), "\\u{202e}"); // right to left override
}

TEST(Escaping, InvalidUtf8IsShownAsBytes) {
    EXPECT_EQ(escaped("\xff"), "\\xff");
    EXPECT_EQ(escaped("a\xc3"), "a\\xc3");
    EXPECT_EQ(escaped("\xc0\x80"), "\\xc0\\x80");          // overlong
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // surrogate
    EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
    EXPECT_EQ(escaped("\xe2\x82x"), "\\xe2\\x82x");
}

TEST(Escaping, NothingEscapedCanHoldAControlCharacter) {
    for (unsigned a = 0; a < 256; ++a) {
        for (unsigned b = 0; b < 256; ++b) {
            const std::string text{static_cast<char>(a), static_cast<char>(b)};
            for (const char c : escaped(text))
                ASSERT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << a << " " << b;
            ASSERT_EQ(findInvalidUtf8(escaped(text)), std::string::npos);
        }
    }
}

TEST(Escaping, WidthCountsColumns) {
    EXPECT_EQ(displayWidth("abc"), 3u);
    EXPECT_EQ(displayWidth("\xc3\xa4"), 1u);
    EXPECT_EQ(displayWidth("\xe6\xbc\xa2"), 2u); // a wide character
    EXPECT_EQ(displayWidth("e\xcc\x81"), 1u);    // a combining accent
}

// ---- colour --------------------------------------------------------------------

TEST(Color, TheOptionWinsThenNoColorThenForceThenTheTerminal) {
    for (const char *name : {"NO_COLOR", "CLICOLOR_FORCE", "TERM"})
        unsetenv(name);
    EXPECT_TRUE(colorWanted(ColorMode::Auto, true));
    EXPECT_FALSE(colorWanted(ColorMode::Auto, false));
    EXPECT_TRUE(colorWanted(ColorMode::Always, false));
    EXPECT_FALSE(colorWanted(ColorMode::Never, true));
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(colorWanted(ColorMode::Auto, true));
    setenv("CLICOLOR_FORCE", "1", 1);
    EXPECT_TRUE(colorWanted(ColorMode::Auto, false));
    setenv("CLICOLOR_FORCE", "0", 1);
    EXPECT_FALSE(colorWanted(ColorMode::Auto, true));
    setenv("CLICOLOR_FORCE", "1", 1);
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(colorWanted(ColorMode::Auto, true));
    EXPECT_TRUE(colorWanted(ColorMode::Always, false));
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(colorWanted(ColorMode::Auto, true));
}

TEST(Color, ModesHaveNames) {
    ColorMode mode = ColorMode::Auto;
    EXPECT_TRUE(parseColorMode("always", mode));
    EXPECT_EQ(mode, ColorMode::Always);
    EXPECT_TRUE(parseColorMode("never", mode));
    EXPECT_EQ(mode, ColorMode::Never);
    EXPECT_TRUE(parseColorMode("auto", mode));
    EXPECT_FALSE(parseColorMode("yes", mode));
}

namespace {

// ---- tables and output ---------------------------------------------------------

std::string printed(const Table &table, bool color) {
    return support::captured(1, [&]() {
        Output out;
        printTable(out, table, color);
    });
}

} // namespace

TEST(Tables, ColumnsAreAlignedAndEscaped) {
    Table table;
    table.columns = {{"NAME", Align::Left}, {"SIZE", Align::Right}, {"NOTE", Align::Left}};
    table.rows = {{"a", "1", "x\ty"}, {"longer", "100", ""}};
    EXPECT_EQ(printed(table, false), "NAME    SIZE  NOTE\n"
                                     "a          1  x\\ty\n"
                                     "longer   100  \n");
}

TEST(Tables, ColorsSurroundTheCells) {
    Table table;
    table.titles = false;
    table.columns = {{"", Align::Left}};
    table.rows = {{Cell("bad", Style::Red)}};
    EXPECT_EQ(printed(table, true), "\033[31mbad\033[0m\n");
    EXPECT_EQ(printed(table, false), "bad\n");
}

TEST(Output, AFailedWriteIsRemembered) {
    Output out(-1);
    out.write("x");
    EXPECT_FALSE(out.flush());
    EXPECT_EQ(out.error, EBADF);
}

// ---- json ----------------------------------------------------------------------

TEST(Json, TextsAreEscapedAndBytesKept) {
    Json json;
    json.beginObject();
    json.text("plain", "a\"b\\c\n\x01\xc3\xa4");
    json.text("bytes", "x\xffy");
    json.text("empty", std::string_view());
    json.number("big", UINT64_MAX);
    json.signedNumber("small", INT64_MIN);
    json.real("nan", NAN);
    json.flag("yes", true);
    json.key("list");
    json.beginArray();
    json.textElement("e");
    json.numberElement(1);
    json.endArray();
    json.endObject();
    EXPECT_EQ(json.written(), "{\"plain\":\"a\\\"b\\\\c\\n\\u0001\xc3\xa4\",\"bytes\":\"x\xef\xbf\xbdy\","
                              "\"bytes_hex\":\"78ff79\",\"empty\":\"\",\"big\":18446744073709551615,"
                              "\"small\":-9223372036854775808,\"nan\":null,\"yes\":true,\"list\":[\"e\",1]}");
    json.clear();
    json.beginObject();
    json.endObject();
    EXPECT_EQ(json.written(), "{}");
}

TEST(Json, KeysAreValidUtf8) {
    Json json;
    json.beginObject();
    json.number("k\xff", 1);
    json.endObject();
    EXPECT_EQ(json.written(), "{\"k\xef\xbf\xbd\":1}");
}

// ---- result codes --------------------------------------------------------------

TEST(ResultTexts, AMessageIsTheTextAndTheNumber) {
    EXPECT_EQ(resultMessage(ZOLTLOG_NO_LOG_FILES), "no log file was found (45)");
    EXPECT_EQ(resultMessage(7), "unknown result (7)");
}

namespace {

// ---- options -------------------------------------------------------------------

struct Chosen : CommonOptions {
    bool flag = false;
    std::string text;
    std::vector<std::string> each;
    std::optional<uint32_t> number;
    std::string order;
};

bool takeText(Chosen &to, const char *value, std::string &error) {
    to.text = value;
    to.order += 't';
    error = "'bad' is bad";
    return to.text != "bad";
}

bool takeFlag(Chosen &to, const char *, std::string &) {
    to.order += 'f';
    return to.flag = true;
}

constexpr unsigned OTHER = FIRST_OWN;
const Option OPTION_TABLE[] = {
    {"-f,--flag", TAKES_EVERY, nullptr, "a flag", set<takeFlag>, "Group"},
    {"-x,--text,--words", TAKES_EVERY, "TEXT", "a text\nof two lines", set<takeText>},
    {"--each", TAKES_EVERY, "ITEM", "may be given often", set<&Chosen::each>},
    {"--number", OTHER, "N", "1 to 6", setWithin<&Chosen::number, 1, 6>},
};
const Command ONE_COMMAND[] = {{"", TAKES_EVERY | OTHER, 0, "[WORD]...", 0, ANY_NUMBER, "", nullptr}};

// The exit status, or -1 when the words are understood.
int chosen(std::vector<std::string> words, Chosen &to) {
    const Tool tool = {"tool", "About.\n", rowsOf<Option>(OPTION_TABLE), rowsOf<Command>(ONE_COMMAND), ""};
    words.insert(words.begin(), "tool");
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parseCommandLine(tool, static_cast<int>(words.size()), argv.data(), to).value_or(-1);
}

} // namespace

TEST(Options, FlagsTextsAndOperandsInAnyOrder) {
    Chosen to;
    ASSERT_EQ(chosen({"one", "-f", "--text", "-2h", "[a,b]", "++", "-", "--", "-f", "{}"}, to), -1);
    EXPECT_TRUE(to.flag);
    EXPECT_EQ(to.text, "-2h");
    EXPECT_EQ(to.operands, (std::vector<std::string>{"one", "[a,b]", "++", "-", "-f", "{}"}));
}

TEST(Options, TheLastOneCountsAndListsGrow) {
    Chosen to;
    ASSERT_EQ(chosen({"-xone", "--each", "[a,b]", "-fxtwo", "--each=", "--words=a=b", "--each={}"}, to), -1);
    EXPECT_EQ(to.text, "a=b");
    EXPECT_EQ(to.order, "tftt");
    EXPECT_EQ(to.each, (std::vector<std::string>{"[a,b]", "", "{}"}));
}

TEST(Options, NumbersHaveBounds) {
    for (const char *bad : {"0", "7", "", "-1", "x", "1x", " 1", "18446744073709551617"}) {
        Chosen to;
        EXPECT_EQ(chosen({"--number", bad}, to), 2) << bad;
    }
    Chosen to;
    ASSERT_EQ(chosen({"--number", "6"}, to), -1);
    EXPECT_EQ(to.number, 6u);
}

// ---- fields --------------------------------------------------------------------

TEST(Fields, EachHasANameOfItsOwn) {
    for (const FieldRow &row : allFields())
        EXPECT_EQ(findField(row.name), &row);
    EXPECT_EQ(findField("nothing"), nullptr);
}

TEST(Fields, KindsAndSeveritiesByNameAndNumber) {
    uint32_t kind = 99;
    EXPECT_TRUE(parseKind("app", kind));
    EXPECT_EQ(kind, 2u);
    EXPECT_TRUE(parseKind("debug", kind));
    EXPECT_EQ(kind, 0u);
    EXPECT_TRUE(parseKind("4", kind));
    EXPECT_EQ(kind, 4u);
    EXPECT_FALSE(parseKind("5", kind));
    EXPECT_FALSE(parseKind("ap", kind));
    EXPECT_FALSE(parseKind("applications", kind));
    int32_t severity = -1;
    const struct {
        const char *name;
        int32_t severity;
    } rows[] = {{"info", 0}, {"warning", 1},  {"warn", 1}, {"error", 2},     {"err", 2},
                {"crit", 3}, {"critical", 3}, {"4", 4},    {"emergency", 4}, {"fatal", 4}};
    for (const auto &row : rows) {
        EXPECT_TRUE(parseSeverity(row.name, severity)) << row.name;
        EXPECT_EQ(severity, row.severity) << row.name;
    }
    EXPECT_FALSE(parseSeverity("5", severity));
    EXPECT_FALSE(parseSeverity("bad", severity));
    EXPECT_STREQ(severityName(0), "info");
    EXPECT_STREQ(severityName(4), "emergency");
}

TEST(Fields, OneScaleForEveryKindWithWorseOnesAbove) {
    const char *const order[] = {"debug",   "diagnostic", "info",     "audit",
                                 "warning", "error",      "critical", "emergency"};
    int32_t before = 0;
    for (const char *name : order) {
        int32_t rank = 0;
        const char *shown = nullptr;
        ASSERT_TRUE(parseRank(name, rank, shown)) << name;
        EXPECT_STREQ(shown, name);
        EXPECT_GT(rank, before) << name;
        before = rank;
    }
    int32_t context = 0;
    int32_t info = 0;
    const char *name = nullptr;
    EXPECT_TRUE(parseRank("info", info, name));
    EXPECT_TRUE(parseRank("context", context, name));
    EXPECT_EQ(context, info);
    EXPECT_STREQ(name, "context");
    for (int32_t severity = 0; severity <= 4; ++severity) { // as writers give them
        int32_t rank = 0;
        ASSERT_TRUE(parseRank(std::to_string(severity), rank, name));
        EXPECT_STREQ(name, severityName(severity));
        Record record;
        record.type = ZOLTLOG_MSG_APP;
        record.number = severity;
        int32_t ofRecord = 0;
        ASSERT_TRUE(rankOf(record, ofRecord, name));
        EXPECT_EQ(ofRecord, rank);
        EXPECT_STREQ(name, severityName(severity));
    }
    for (const uint32_t type :
         {ZOLTLOG_MSG_DEBUG, ZOLTLOG_MSG_DIAG, ZOLTLOG_MSG_CONTEXT, ZOLTLOG_MSG_AUDIT}) {
        Record record;
        record.type = type;
        int32_t rank = 0;
        ASSERT_TRUE(rankOf(record, rank, name));
        EXPECT_STREQ(name, kindName(type));
    }
    Record unknown;
    EXPECT_FALSE(rankOf(unknown, info, name));
    for (const char *bad : {"", "5", "81", "bad", "-1"})
        EXPECT_FALSE(parseRank(bad, info, name)) << bad;
}

TEST(Fields, AHeldItemOutlivesItsLine) {
    Origin origin;
    std::string line = "2,5,7,7,12,1700000000123,4242,4243,2:cx,17:Disk full, 2 of 3,3:mgr,3,(0|)";
    Item item;
    Fault fault;
    ASSERT_TRUE(parseRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, item.record, fault));
    item.origin = &origin;
    std::vector<HeldItem> held;
    held.reserve(1);
    held.emplace_back(item);
    line.assign(line.size(), 'x');
    EXPECT_EQ(findField("text")->value(held[0].item).text, "Disk full, 2 of 3");
    EXPECT_EQ(findField("who")->value(held[0].item).text, "mgr");
    EXPECT_EQ(findField("context")->value(held[0].item).text, "cx");
    EXPECT_EQ(findField("sev")->value(held[0].item).text, "critical");
    EXPECT_FALSE(findField("outcome")->value(held[0].item).present);
    EXPECT_FALSE(findField("block")->value(held[0].item).present);
}

namespace {

// ---- verification --------------------------------------------------------------

const std::string GOOD = "2,5,7,7,1,1700000000000,42,43,0:,4:text,3:mgr,1,(0|)\n";
const std::string VERIFY_HEADER = "$Header 65543,5,7,1700000000,-7200,hostA\n";
const std::string VERIFY_NAME = "5-7-1-231114-0000000000.log";

std::vector<std::string> findings(const std::string &bytes, VerifyCounts &counts,
                                  const std::string &name = VERIFY_NAME) {
    support::writeFile(name, bytes);
    std::vector<std::string> found;
    std::string problem;
    EXPECT_TRUE(verifyFile(
        name,
        [&](const Finding &finding) {
            found.push_back(std::string(finding.problem ? "problem " : "note ") +
                            std::to_string(finding.offset) + " " + std::to_string(finding.at) + " " +
                            finding.text);
        },
        counts, problem))
        << problem;
    return found;
}

} // namespace

TEST(Verify, AnIntactFileHasNoFindings) {
    VerifyCounts counts;
    EXPECT_EQ(findings(VERIFY_HEADER + GOOD + GOOD, counts), std::vector<std::string>{});
    EXPECT_EQ(counts.records, 2u);
    EXPECT_EQ(counts.problems, 0u);
    EXPECT_EQ(counts.bytes, VERIFY_HEADER.size() + 2 * GOOD.size());
    EXPECT_TRUE(counts.hasTimes);
    EXPECT_EQ(counts.first, 1700000000000);
}

TEST(Verify, TornRecordsAreNamedWithTheirPlace) {
    VerifyCounts counts;
    const std::string torn = GOOD.substr(0, 35); // within "4:text"
    const auto found = findings(VERIFY_HEADER + torn + "\n" + GOOD, counts);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0],
              "problem 41 74 cut within a text: its length goes beyond the line (line of 35 bytes)");
    EXPECT_EQ(counts.damaged, 1u);
    EXPECT_EQ(counts.records, 1u);
}

TEST(Verify, AGluedRecordIsSalvaged) {
    VerifyCounts counts;
    const auto found = findings(VERIFY_HEADER + GOOD.substr(0, 20) + GOOD, counts);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1], "note 61 61 a whole record follows in the same line");
    EXPECT_EQ(counts.salvaged, 1u);
    EXPECT_EQ(counts.records, 1u);
    EXPECT_EQ(counts.damaged, 1u);
}

TEST(Verify, AnUnendedLastRecordIsAProblem) {
    VerifyCounts counts;
    const auto found = findings(VERIFY_HEADER + GOOD + GOOD.substr(0, 10), counts);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], "problem 94 104 the file ends within a record");
}

TEST(Verify, HeaderAndNameMustFit) {
    VerifyCounts counts;
    EXPECT_EQ(findings("$Header 65543,6,7,1700000000,0,h\n", counts),
              std::vector<std::string>{"problem 0 0 the header has product 6, the name 5"});
    EXPECT_EQ(findings("$Header 65543,5,8,1700000000,0,h\n", counts),
              std::vector<std::string>{"problem 0 0 the header has originator 8, the name 7"});
    EXPECT_EQ(findings("$Header 65544,0,h\n", counts).size(), 1u);
    EXPECT_EQ(findings("$Header 65544,0,h\n", counts, "5-set-231114000000.log").size(), 0u);
    EXPECT_EQ(findings(GOOD, counts), std::vector<std::string>{"note 0 0 the file has no header line"});
    EXPECT_EQ(findings("", counts), std::vector<std::string>{"note 0 0 the file is empty"});
}

TEST(Verify, RecordsOfOtherFilesAreProblems) {
    VerifyCounts counts;
    EXPECT_EQ(findings(VERIFY_HEADER + "2,6,7,7,1,1,1,1,0:,0:,0:,0,(0|)\n", counts),
              std::vector<std::string>{"problem 41 41 the record has product 6"});
    EXPECT_EQ(findings(VERIFY_HEADER + "2,5,7,8,1,1,1,1,0:,0:,0:,0,(0|)\n", counts),
              std::vector<std::string>{"problem 41 41 the record has file originator 8"});
    EXPECT_EQ(findings(VERIFY_HEADER + "2,5,9,7,1,1,1,1,0:,0:,0:,0,(0|)\n", counts),
              std::vector<std::string>{});
}

TEST(Verify, TimesThatGoBackAreNoted) {
    VerifyCounts counts;
    const std::string early = "2,5,7,7,1,1699999980000,42,43,0:,4:text,3:mgr,1,(0|)\n";
    const auto found = findings(VERIFY_HEADER + GOOD + early + early, counts);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], "note 94 94 time goes back by 20s");
    EXPECT_EQ(counts.problems, 0u);
    // Less than the slack for several processes is in order.
    const std::string alittle = "2,5,7,7,1,1699999995000,42,43,0:,4:text,3:mgr,1,(0|)\n";
    EXPECT_EQ(findings(VERIFY_HEADER + GOOD + alittle, counts), std::vector<std::string>{});
}

TEST(Verify, WhatCannotBeReadIsNoFinding) {
    VerifyCounts counts;
    std::string problem;
    EXPECT_FALSE(verifyFile(
        "missing.log", [](const Finding &) {}, counts, problem));
    EXPECT_EQ(problem, "No such file or directory");
}
