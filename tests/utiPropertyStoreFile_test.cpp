// SPDX-License-Identifier: Apache-2.0
// The property store: syntax, lookups, exact bytes after every change, enumerations,
// comparison with a plain second implementation.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Thousands of rewrites: what the disk does is tested elsewhere. Some file systems write a
// file out when a rename replaces another by it, so nothing is replaced here.
const bool PREPARED = support::eachCase([] {
    libc::fsync.hook = [](int descriptor) { return fcntl(descriptor, F_GETFD) < 0 ? -1 : 0; };
    libc::rename.hook = [](const char *from, const char *to) {
        (void)unlink(to);
        return libc::rename.real(from, to);
    };
});

using support::exists;
using support::readFile;
using support::writeFile;

const char FILE_NAME[] = "store.conf";

// An open handle of a scope.
struct Store {
    explicit Store(const std::string &root, const std::string &path = FILE_NAME) {
        result = utiOpenPropertyStore(path.c_str(), root.c_str(), &handle);
    }
    ~Store() { utiClosePropertyStore(&handle); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    PropertyStore handle = {};
    uint32_t result = 0;
};

// The value of a name, or "(result)" when it is not given.
std::string get(PropertyStore *store, const std::string &name) {
    char *text = nullptr;
    const uint32_t result = utiGetPropertyAsStr(store, name.c_str(), &text);
    std::string value = result == 0 ? text : "(" + std::to_string(result) + ")";
    zoltLogFree(text);
    return value;
}

std::string valueIn(const std::string &bytes, const std::string &root, const std::string &name) {
    writeFile(FILE_NAME, bytes);
    Store store(root);
    return get(&store.handle, name);
}

enum class Op { SET, REMOVE, RemoveRoot };

struct Case {
    const char *what;
    std::string before;
    const char *root;
    Op op;
    const char *name;
    const char *value;
    uint32_t result;
    std::string after;
};

std::string times(char c, size_t n) {
    return std::string(n, c);
}

uint32_t apply(PropertyStore *store, Op op, const std::string &name, const std::string &value) {
    switch (op) {
    case Op::SET:
        return utiSetPropertyAsStr(store, name.c_str(), value.c_str());
    case Op::REMOVE:
        return utiRemoveProperty(store, name.c_str());
    default:
        return utiRemovePropertyRoot(store, name.c_str());
    }
}

// clang-format off
const Case CASES[] = {
    // set: an existing key
    {"only line", "5.a=1\n", "5", Op::SET, "a", "2", 0, "5.a=2\n"},
    {"first of two", "5.a=1\n5.b=1\n", "5", Op::SET, "a", "2", 0, "5.a=2\n5.b=1\n"},
    {"last of two", "5.a=1\n5.b=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n"},
    {"middle of three", "5.a=1\n5.b=1\n5.c=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n5.c=1\n"},
    {"only its first occurrence", "5.a=1\n5.a=9\n", "5", Op::SET, "a", "2", 0, "5.a=2\n5.a=9\n"},
    {"behind another section", "4.a=1\n5.a=1\n", "5", Op::SET, "a", "2", 0, "4.a=1\n5.a=2\n"},
    {"before another section", "5.a=1\n6.a=1\n", "5", Op::SET, "a", "2", 0, "5.a=2\n6.a=1\n"},
    {"to an empty value", "5.a=1\n", "5", Op::SET, "a", "", 0, "5.a=\n"},
    {"from an empty value", "5.a=\n", "5", Op::SET, "a", "1", 0, "5.a=1\n"},
    {"whole value with '='", "5.a=1\n", "5", Op::SET, "a", "x=y=z", 0, "5.a=x=y=z\n"},
    {"replacing a value with '='", "5.a=x=y\n", "5", Op::SET, "a", "2", 0, "5.a=2\n"},
    {"dots in the name", "5.a.b=1\n5.a=1\n", "5", Op::SET, "a.b", "2", 0, "5.a.b=2\n5.a=1\n"},
    {"prefix of another name", "5.ab=1\n5.a=1\n", "5", Op::SET, "a", "2", 0, "5.ab=1\n5.a=2\n"},
    {"case counts", "5.A=1\n", "5", Op::SET, "a", "2", 0, "5.A=1\n5.a=2\n"},
    {"unfinished line is replaced whole", "5.a=1", "5", Op::SET, "a", "2", 0, "5.a=2\n"},
    {"spaces stay", "5.a=1\n", "5", Op::SET, "a", "  x  ", 0, "5.a=  x  \n"},
    {"carriage return stays", "5.a=1\r\n5.b=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\r\n5.b=2\n"},
    // set: a new key
    {"in an empty file", "", "5", Op::SET, "a", "1", 0, "5.a=1\n"},
    {"in the last section", "5.a=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n"},
    {"just before the next section", "5.a=1\n6.a=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n6.a=1\n"},
    {"a new section at the end", "5.a=1\n", "6", Op::SET, "a", "2", 0, "5.a=1\n6.a=2\n"},
    {"into the first run", "5.a=1\n6.a=1\n5.b=1\n", "5", Op::SET, "c", "2", 0, "5.a=1\n5.c=2\n6.a=1\n5.b=1\n"},
    {"a key of a later run is put twice", "5.a=1\n6.a=1\n5.b=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n6.a=1\n5.b=1\n"},
    {"a comment ends the run", "5.a=1\n# c\n5.b=1\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n# c\n5.b=1\n"},
    {"an empty line ends the run", "5.a=1\n\n", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n\n"},
    {"comments before are kept", "# c\n\n  # d\n5.a=1\n", "5", Op::SET, "b", "2", 0, "# c\n\n  # d\n5.a=1\n5.b=2\n"},
    {"section that begins alike", "55.a=1\n", "5", Op::SET, "a", "2", 0, "55.a=1\n5.a=2\n"},
    {"line without '=' is in the section", "5.a\n6.a=1\n", "5", Op::SET, "a", "2", 0, "5.a\n5.a=2\n6.a=1\n"},
    {"section token ends at '='", "5=x\n6.a=1\n", "5", Op::SET, "a", "2", 0, "5=x\n5.a=2\n6.a=1\n"},
    {"delimiters before the token are skipped", ".5.x=1\n6.a=1\n", "5", Op::SET, "a", "2", 0, ".5.x=1\n5.a=2\n6.a=1\n"},
    {"tab before is another section", "\t5.a=1\n", "5", Op::SET, "a", "2", 0, "\t5.a=1\n5.a=2\n"},
    {"an unfinished last line is ended", "5.a=1\n6.a=1", "7", Op::SET, "b", "2", 0, "5.a=1\n6.a=1\n7.b=2\n"},
    {"also in its own section", "5.a=1", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n"},
    {"unfinished other section behind", "5.a=1\n6.a=1", "5", Op::SET, "b", "2", 0, "5.a=1\n5.b=2\n6.a=1"},
    // set: log sets
    {"log set key", "LOGSET.x.a=1\n", "LOGSET.x", Op::SET, "a", "2", 0, "LOGSET.x.a=2\n"},
    {"new log set key", "LOGSET.x.a=1\nLOGSET.y.a=1\n", "LOGSET.x", Op::SET, "b", "2", 0, "LOGSET.x.a=1\nLOGSET.x.b=2\nLOGSET.y.a=1\n"},
    {"other log set", "LOGSET.x.a=1\n", "LOGSET.y", Op::SET, "a", "2", 0, "LOGSET.x.a=1\nLOGSET.y.a=2\n"},
    {"root LOGSET is no section", "LOGSET.x.a=1\n", "LOGSET", Op::SET, "a", "2", 0, "LOGSET.x.a=1\nLOGSET.a=2\n"},
    {"log set with a dot is appended", "LOGSET.x.y.a=1\n", "LOGSET.x.y", Op::SET, "a", "2", 0, "LOGSET.x.y.a=1\nLOGSET.x.y.a=2\n"},
    {"name of a log set with blanks", "LOGSET.my set.a=1\n", "LOGSET.my set", Op::SET, "a", "2", 0, "LOGSET.my set.a=2\n"},
    {"LOGSETX is an ordinary section", "LOGSETX.x.a=1\nLOGSET.x.a=1\n", "LOGSETX", Op::SET, "x.a", "2", 0, "LOGSETX.x.a=2\nLOGSET.x.a=1\n"},
    // set: no section
    {"empty root replaces by first token", "a=1\nb=1\n", "", Op::SET, "a", "2", 0, "a=2\nb=1\n"},
    {"empty root replaces all of them", "a=1\na.x=1\nb=1\na\n", "", Op::SET, "a", "2", 0, "a=2\na=2\nb=1\na\n"},
    {"empty root appends", "b=1\n", "", Op::SET, "a", "2", 0, "b=1\na=2\n"},
    {"empty root, dotted name never matches", "a.b=1\n", "", Op::SET, "a.b", "2", 0, "a.b=1\na.b=2\n"},
    // set: refused
    {"line feed in the value", "5.a=1\n", "5", Op::SET, "a", "x\n5.b=y", 1, "5.a=1\n"},
    {"line feed at its end", "5.a=1\n", "5", Op::SET, "a", "x\n", 1, "5.a=1\n"},
    {"line feed in the name", "5.a=1\n", "5", Op::SET, "a\nb", "x", 1, "5.a=1\n"},
    {"line feed in the section", "5.a=1\n", "5\n6", Op::SET, "a", "x", 1, "5.a=1\n"},
    // remove a key
    {"the only line", "5.a=1\n", "5", Op::REMOVE, "a", "", 0, ""},
    {"one of three", "5.a=1\n5.b=1\n5.c=1\n", "5", Op::REMOVE, "b", "", 0, "5.a=1\n5.c=1\n"},
    {"every occurrence", "5.a=1\n6.a=1\n5.a=2\n", "5", Op::REMOVE, "a", "", 0, "6.a=1\n"},
    {"absent key", "5.a=1\n", "5", Op::REMOVE, "b", "", 0, "5.a=1\n"},
    {"other section's key", "6.a=1\n", "5", Op::REMOVE, "a", "", 0, "6.a=1\n"},
    {"line without '=' stays", "5.a\n5.a=1\n", "5", Op::REMOVE, "a", "", 0, "5.a\n"},
    {"without a value", "5.a=\n5.b=1\n", "5", Op::REMOVE, "a", "", 0, "5.b=1\n"},
    {"comment that looks alike stays", "#5.a=1\n5.a=1\n", "5", Op::REMOVE, "a", "", 0, "#5.a=1\n"},
    {"log set key removed", "LOGSET.x.a=1\nLOGSET.y.a=1\n", "LOGSET.x", Op::REMOVE, "a", "", 0, "LOGSET.y.a=1\n"},
    {"dotted log set key removed", "LOGSET.x.y.a=1\n", "LOGSET.x.y", Op::REMOVE, "a", "", 0, ""},
    {"empty root removes the bare name", "a=1\n.a=1\na.b=1\n", "", Op::REMOVE, "a", "", 0, ".a=1\na.b=1\n"},
    {"last line unfinished", "5.a=1\n5.b=1", "5", Op::REMOVE, "b", "", 0, "5.a=1\n"},
    // remove a section
    {"section", "5.a=1\n6.a=1\n5.b=1\n", "", Op::RemoveRoot, "5", "", 0, "6.a=1\n"},
    {"the last section", "5.a=1\n", "", Op::RemoveRoot, "5", "", 0, ""},
    {"absent section", "5.a=1\n", "", Op::RemoveRoot, "6", "", 8, "5.a=1\n"},
    {"of an empty file", "", "", Op::RemoveRoot, "6", "", 8, ""},
    {"line without a dot stays", "5\n5=x\n5.a=1\n", "", Op::RemoveRoot, "5", "", 0, "5\n5=x\n"},
    {"the section ends at '.' only", "5=x.a\n5.a=1\n", "", Op::RemoveRoot, "5", "", 0, "5=x.a\n"},
    {"log set", "LOGSET.x.a=1\nLOGSET.y.a=1\nLOGSET.x.b=1\n", "", Op::RemoveRoot, "LOGSET.x", "", 0, "LOGSET.y.a=1\n"},
    {"all log sets at once is no section", "LOGSET.x.a=1\n", "", Op::RemoveRoot, "LOGSET", "", 8, "LOGSET.x.a=1\n"},
    {"dots before the section are skipped", ".5.a=1\n6.a=1\n", "", Op::RemoveRoot, "5", "", 0, "6.a=1\n"},
    {"comment with a dot stays", "# 5.a\n5.a=1\n", "", Op::RemoveRoot, "5", "", 0, "# 5.a\n"},
    // lines of more than 499 characters are several lines
    {"cut line ends the run", "5.a=" + times('x', 600) + "\n6.a=1\n", "5", Op::SET, "b", "2", 0,
     "5.a=" + times('x', 495) + "5.b=2\n" + times('x', 105) + "\n6.a=1\n"},
    {"replaced as far as the cut", "5.a=" + times('x', 600) + "\n", "5", Op::SET, "a", "2", 0, "5.a=2\n" + times('x', 105) + "\n"},
    {"499 with its line feed is one line", "5.a=" + times('x', 494) + "\n", "5", Op::SET, "a", "2", 0, "5.a=2\n"},
    {"499 without it leaves the line feed", "5.a=" + times('x', 495) + "\n", "5", Op::SET, "a", "2", 0, "5.a=2\n\n"},
    {"key in the second part", times('x', 499) + "5.a=1\n", "5", Op::SET, "a", "2", 0, times('x', 499) + "5.a=2\n"},
    {"removed as far as the cut", "5.a=" + times('x', 600) + "\n", "5", Op::REMOVE, "a", "", 0, times('x', 105) + "\n"},
};

} // namespace

// clang-format on

TEST(PropertyStore, EveryChangeLeavesExactlyTheseBytes) {
    static_assert(sizeof CASES / sizeof *CASES >= 60);
    for (const Case &c : CASES) {
        SCOPED_TRACE(c.what);
        writeFile(FILE_NAME, c.before);
        {
            Store store(c.root);
            ASSERT_EQ(store.result, 0U);
            EXPECT_EQ(apply(&store.handle, c.op, c.name, c.value), c.result);
            EXPECT_NE(store.handle.stream, nullptr);
            EXPECT_STREQ(store.handle.root, c.root);
            EXPECT_STREQ(store.handle.path, FILE_NAME);
        }
        EXPECT_EQ(readFile(FILE_NAME), c.after);
        EXPECT_FALSE(exists("store.conf.tmp"));
    }
}

TEST(PropertyStore, SetChangesTheFirstRunOnly) {
    writeFile(FILE_NAME, "5.a=1\n6.a=1\n5.b=1\n");
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "2"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n5.b=2\n6.a=1\n5.b=1\n");
    EXPECT_EQ(get(&store.handle, "b"), "2");
}

TEST(PropertyStore, ADottedLogsetNameIsAppendedEachTime) {
    writeFile(FILE_NAME, "");
    Store store("LOGSET.x.y");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "1"), 0U);
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "2"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "LOGSET.x.y.a=1\nLOGSET.x.y.a=2\n");
    EXPECT_EQ(get(&store.handle, "a"), "1");
}

TEST(PropertyStore, AnUnfinishedLastLineIsEndedBeforeALineIsAdded) {
    writeFile(FILE_NAME, "5.a=1");
    Store store("6");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "2"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n6.b=2\n");
}

TEST(PropertyStore, AnEmptyRootLooksForADotAndWritesTheNameAlone) {
    writeFile(FILE_NAME, "a=1\n.a=2\n");
    Store store("");
    EXPECT_EQ(get(&store.handle, "a"), "2");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "3"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "a=1\n.a=2\nb=3\n");
    EXPECT_EQ(get(&store.handle, "b"), "(3)");
}

TEST(PropertyStore, NumbersOfTheUpperHalfAreWrittenNegative) {
    writeFile(FILE_NAME, "");
    Store store("5");
    const std::pair<unsigned long, const char *> numbers[] = {
        {0, "5.n=0\n"},
        {10240, "5.n=10240\n"},
        {9223372036854775807UL, "5.n=9223372036854775807\n"},
        {9223372036854775808UL, "5.n=-9223372036854775808\n"},
        {18446744073709551615UL, "5.n=-1\n"}};
    for (const auto &[number, bytes] : numbers) {
        EXPECT_EQ(utiSetPropertyAsUlong(&store.handle, "n", &number), 0U);
        EXPECT_EQ(readFile(FILE_NAME), bytes);
        unsigned long back = 7;
        EXPECT_EQ(utiGetPropertyAsUlong(&store.handle, "n", &back), 0U);
        EXPECT_EQ(back, number);
    }
}

TEST(PropertyStore, BytesBehindANulAreCopied) {
    const std::string bytes("4.a=1\0junk\n5.a=1\n", 17);
    writeFile(FILE_NAME, bytes);
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "2"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), std::string("4.a=1\0junk\n5.a=2\n", 17));
    Store other("4");
    EXPECT_EQ(get(&other.handle, "a"), "1");
    writeFile(FILE_NAME, std::string("5\0.a=1\n5.b=1\n", 14)); // no '.' in the first line's text
    EXPECT_EQ(utiRemovePropertyRoot(&store.handle, "5"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), std::string("5\0.a=1\n", 8));
}

// ---- lookups --------------------------------------------------------------------------

TEST(PropertyStore, LookupsFindWhatTheSyntaxSays) {
    const struct {
        const char *what;
        std::string bytes;
        const char *root, *name;
        std::string value;
    } rows[] = {
        {"plain", "5.a=1\n", "5", "a", "1"},
        {"first line wins", "5.a=1\n5.a=2\n", "5", "a", "1"},
        {"first line wins across runs", "5.a=1\n6.a=3\n5.a=2\n", "5", "a", "1"},
        {"later run is found", "5.a=1\n6.a=3\n5.b=2\n", "5", "b", "2"},
        {"value ends at the next '='", "5.a=x=y\n", "5", "a", "x"},
        {"empty before the next '='", "5.a==y\n", "5", "a", ""},
        {"empty value", "5.a=\n", "5", "a", ""},
        {"nothing behind '='", "5.a=", "5", "a", "(3)"},
        {"no '='", "5.a\n", "5", "a", "(3)"},
        {"unfinished last line", "5.a=1", "5", "a", "1"},
        {"absent", "5.a=1\n", "5", "b", "(3)"},
        {"other section", "6.a=1\n", "5", "a", "(3)"},
        {"exact case", "5.A=1\n", "5", "a", "(3)"},
        {"blank before the key", " 5.a=1\n", "5", "a", "(3)"},
        {"blank before '='", "5.a =1\n", "5", "a", "(3)"},
        {"blanks before the value stay", "5.a=  1\n", "5", "a", "  1"},
        {"trailing spaces go", "5.a=abc   \n", "5", "a", "abc"},
        {"only spaces", "5.a=   \n", "5", "a", ""},
        {"trailing tab stays", "5.a=abc\t\n", "5", "a", "abc\t"},
        {"carriage return stays", "5.a=abc\r\n", "5", "a", "abc\r"},
        {"comment is no key", "#5.a=1\n", "5", "a", "(3)"},
        {"dotted name", "5.a.b=1\n", "5", "a.b", "1"},
        {"log set", "LOGSET.x.a=1\n", "LOGSET.x", "a", "1"},
        {"empty root begins with a dot", ".a=1\n", "", "a", "1"},
        {"empty root without a dot", "a=1\n", "", "a", "(3)"},
        {"398 characters", "5.a=" + times('x', 398) + "\n", "5", "a", times('x', 398)},
        {"399 characters", "5.a=" + times('x', 399) + "\n", "5", "a", times('x', 399)},
        {"400 characters are cut", "5.a=" + times('x', 400) + "\n", "5", "a", times('x', 399)},
        {"a long line is cut twice", "5.a=" + times('x', 5000) + "\n", "5", "a", times('x', 399)},
        {"second part of a long line is a line", times('x', 499) + "5.a=1\n", "5", "a", "1"},
        {"key behind the cut is none", times('x', 498) + "5.a=1\n", "5", "a", "(3)"},
        {"value cut at the line's cut", times('x', 495) + "=12345\n", "x", "y", "(3)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(valueIn(row.bytes, row.root, row.name), row.value);
    }
}

TEST(PropertyStore, ALongValueIsCutBetweenCharacters) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    EXPECT_EQ(valueIn("5.a=" + times('x', 398) +
                          "\xC3\xA4"
                          "b\n",
                      "5", "a"),
              times('x', 398));
    EXPECT_EQ(valueIn("5.a=" + times('x', 397) +
                          "\xC3\xA4"
                          "b\n",
                      "5", "a"),
              times('x', 397) + "\xC3\xA4");
}

TEST(PropertyStore, ValuesAreUtf8InTheFile) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    writeFile(FILE_NAME, "");
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "gr\xFC\xDF"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=gr\xC3\xBC\xC3\x9F\n");
}

TEST(PropertyStore, AValueIsTheSameTextHoweverOftenItIsReadAndWritten) {
    const struct {
        const char *locale;
        const char *text;
        const char *utf8;
    } rows[] = {
        {"de_DE.ISO-8859-1", "gr\xFC\xDF", "gr\xC3\xBC\xC3\x9F"},
        {"ja_JP.EUC-JP", "\xC6\xFC\xA1\xF2", "\xE6\x97\xA5\xC2\xA3"},                    // with a pound sign
        {"ja_JP.SHIFT_JIS", "\x95\x5C\x8E\xA6\x5C", "\xE8\xA1\xA8\xE7\xA4\xBA\xC2\xA5"}, // with a yen sign
        {"en_US.UTF-8", "gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},
    };
    for (const auto &row : rows) {
        ASSERT_TRUE(support::useLocale(row.locale));
        writeFile(FILE_NAME, "");
        Store store("5");
        std::string value = row.text;
        for (int round = 0; round < 3; ++round) {
            ASSERT_EQ(utiSetPropertyAsStr(&store.handle, "a", value.c_str()), 0U) << row.locale;
            EXPECT_EQ(readFile(FILE_NAME), std::string("5.a=") + row.utf8 + "\n") << row.locale;
            char *read = nullptr;
            ASSERT_EQ(utiGetPropertyAsStr(&store.handle, "a", &read), 0U) << row.locale;
            value = read;
            zoltLogFree(read);
            EXPECT_EQ(value, row.text) << row.locale;
        }
    }
}

TEST(PropertyStore, TextThatCannotBeConvertedIsNotFound) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    EXPECT_EQ(valueIn("5.a=\xFF\xFE\n", "5", "a"), "(3)");
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "\xFF\xFE"), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=\xFF\xFE\n");
}

TEST(PropertyStore, NumbersAreDecimal) {
    const std::pair<const char *, unsigned long> rows[] = {{"12", 12},
                                                           {"0", 0},
                                                           {"-1", ULONG_MAX},
                                                           {"", 0},
                                                           {"x", 0},
                                                           {" 7", 7},
                                                           {"12x", 12},
                                                           {"0x10", 0},
                                                           {"010", 10},
                                                           {"1.234", 1},
                                                           {"99999999999999999999999", ULONG_MAX},
                                                           {"1,000", 1},
                                                           {"+3", 3}};
    for (const char *locale : {"C", "de_DE.UTF-8"}) {
        ASSERT_TRUE(support::useLocale(locale));
        for (const auto &[text, number] : rows) {
            SCOPED_TRACE(text);
            writeFile(FILE_NAME, std::string("5.a=") + text + "\n");
            Store store("5");
            unsigned long out = 42;
            EXPECT_EQ(utiGetPropertyAsUlong(&store.handle, "a", &out), 0U);
            EXPECT_EQ(out, number);
            EXPECT_EQ(utiGetPropertyAsUlong(&store.handle, "b", &out), ZOLTLOG_STORE_NOT_FOUND);
            EXPECT_EQ(out, number);
        }
    }
}

TEST(PropertyStore, OnlyTheWordTrueIsTrue) {
    const std::pair<const char *, uint32_t> rows[] = {{"true", 1},  {"TRUE", 0},  {"True", 0}, {"1", 0},
                                                      {"true ", 0}, {" true", 0}, {"", 0},     {"false", 0}};
    for (const auto &[text, flag] : rows) {
        SCOPED_TRACE(text);
        writeFile(FILE_NAME, std::string("5.a=") + text + "\n");
        Store store("5");
        uint32_t out = 42;
        EXPECT_EQ(utiGetPropertyAsBool(&store.handle, "a", &out), 0U);
        EXPECT_EQ(out, flag);
        EXPECT_EQ(utiGetPropertyAsBool(&store.handle, "b", &out), ZOLTLOG_STORE_NOT_FOUND);
    }
}

TEST(PropertyStore, OnlyOneIsWrittenAsTrue) {
    writeFile(FILE_NAME, "");
    Store store("5");
    const std::pair<uint32_t, const char *> rows[] = {
        {1, "5.a=true\n"}, {0, "5.a=false\n"}, {2, "5.a=false\n"}, {0xFFFFFFFF, "5.a=false\n"}};
    for (const auto &[flag, bytes] : rows) {
        EXPECT_EQ(utiSetPropertyAsBool(&store.handle, "a", &flag), 0U);
        EXPECT_EQ(readFile(FILE_NAME), bytes);
    }
}

namespace {

// ---- open, create, close -----------------------------------------------------------------

const char HEADER[] = "###############################################\n"
                      "# Caution! Do not update/modify file by hand. \n"
                      "# Use qdlogcfg tool to update/modify this file\n"
                      "###############################################\n";

} // namespace

TEST(PropertyStore, CreatingWritesTheHeaderAndOpens) {
    const mode_t mask = umask(022);
    PropertyStore store;
    ASSERT_EQ(utiCreatePropertyStore("./a/b/new.conf", "5", &store), 0U);
    umask(mask);
    EXPECT_EQ(readFile("a/b/new.conf"), HEADER);
    EXPECT_NE(store.stream, nullptr);
    EXPECT_STREQ(store.root, "5");
    EXPECT_STREQ(store.path, "./a/b/new.conf");
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "1"), 0U);
    EXPECT_EQ(utiClosePropertyStore(&store), 0U);
    EXPECT_EQ(readFile("a/b/new.conf"), std::string(HEADER) + "5.a=1\n");
    struct stat status;
    ASSERT_EQ(stat("a/b/new.conf", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST(PropertyStore, CreatingEmptiesWhatIsThere) {
    writeFile(FILE_NAME, "5.a=1\n");
    PropertyStore store;
    ASSERT_EQ(utiCreatePropertyStore("./store.conf", "5", &store), 0U);
    EXPECT_EQ(utiClosePropertyStore(&store), 0U);
    EXPECT_EQ(readFile(FILE_NAME), HEADER);
}

TEST(PropertyStore, TheHeaderHoldsNoKeysAndNoSections) {
    PropertyStore store;
    ASSERT_EQ(utiCreatePropertyStore("./store.conf", "", &store), 0U);
    char name[80] = "";
    uint32_t size = sizeof name;
    EXPECT_EQ(utiEnumProductId(&store, 0, name, &size), ZOLTLOG_STORE_NO_MORE);
    utiClosePropertyStore(&store);
}

TEST(PropertyStore, CreatingNeedsADirectoryThatCanBeMade) {
    PropertyStore store;
    EXPECT_EQ(utiCreatePropertyStore("nameonly.conf", "5", &store), ZOLTLOG_STORE_NOT_CREATED);
    EXPECT_EQ(store.stream, nullptr);
    writeFile("plain", "");
    EXPECT_EQ(utiCreatePropertyStore("./plain/x.conf", "5", &store), ZOLTLOG_STORE_NOT_CREATED);
    support::makeDirectory("taken.conf");
    EXPECT_EQ(utiCreatePropertyStore("./taken.conf", "5", &store), ZOLTLOG_STORE_NOT_CREATED);
    ASSERT_EQ(mkfifo("pipe.conf", 0600), 0);
    EXPECT_EQ(utiCreatePropertyStore("./pipe.conf", "5", &store), ZOLTLOG_STORE_NOT_CREATED);
}

TEST(PropertyStore, OpeningWhatIsNoFileFails) {
    PropertyStore store;
    EXPECT_EQ(utiOpenPropertyStore("missing.conf", "5", &store), ZOLTLOG_STORE_NO_FILE);
    EXPECT_EQ(store.stream, nullptr);
    support::makeDirectory("dir.conf");
    EXPECT_EQ(utiOpenPropertyStore("dir.conf", "5", &store), ZOLTLOG_STORE_NO_FILE);
    ASSERT_EQ(mkfifo("pipe.conf", 0600), 0);
    EXPECT_EQ(utiOpenPropertyStore("pipe.conf", "5", &store), ZOLTLOG_STORE_NO_FILE);
    EXPECT_EQ(utiOpenPropertyStore("/dev/zero", "5", &store), ZOLTLOG_STORE_NO_FILE);
    EXPECT_EQ(utiOpenPropertyStore("/dev/null", "5", &store), ZOLTLOG_STORE_NO_FILE);
}

constexpr off_t LARGEST = 16777216;

off_t sizeOf(const char *path) {
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_size : -1;
}

TEST(PropertyStore, AFileOfMoreThanSixteenMegabytesIsNotReadAndNotMade) {
    writeFile(FILE_NAME, "5.a=1\n");
    ASSERT_EQ(truncate(FILE_NAME, LARGEST), 0); // the largest one
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore(FILE_NAME, "5", &store), ZOLTLOG_STORE_OK);
    EXPECT_EQ(get(&store, "a"), "1");
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), ZOLTLOG_STORE_OK); // no longer than it was
    EXPECT_EQ(sizeOf(FILE_NAME), LARGEST);
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "22"), ZOLTLOG_STORE_NOT_WRITTEN);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(get(&store, "a"), "2");
    EXPECT_EQ(sizeOf(FILE_NAME), LARGEST);
    utiClosePropertyStore(&store);

    ASSERT_EQ(truncate(FILE_NAME, LARGEST + 1), 0);
    EXPECT_EQ(utiOpenPropertyStore(FILE_NAME, "5", &store), ZOLTLOG_STORE_NO_FILE);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(store.stream, nullptr);
    char *text = nullptr;
    EXPECT_EQ(GetPropertyString(FILE_NAME, "5", "a", &text), ZOLTLOG_CFG_NOT_FOUND);
    ASSERT_EQ(truncate(FILE_NAME, off_t{1} << 40), 0); // a terabyte of nothing
    EXPECT_EQ(utiOpenPropertyStore(FILE_NAME, "5", &store), ZOLTLOG_STORE_NO_FILE);
}

// It may grow between the look at its size and the end of the reading.
TEST(PropertyStore, AFileThatGrowsBeyondSixteenMegabytesWhileItIsReadIsNotChanged) {
    writeFile(FILE_NAME, "5.a=1\n");
    Store store("5");
    libc::read.hook = [](int descriptor, void *buffer, size_t size) -> ssize_t {
        if (truncate(FILE_NAME, LARGEST + 1) != 0)
            return -1;
        return libc::read.real(descriptor, buffer, size);
    };
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "2"), ZOLTLOG_STORE_NOT_WRITTEN);
    libc::read.hook = nullptr;
    EXPECT_EQ(get(&store.handle, "a"), "1");
}

TEST(PropertyStore, ClosingTwiceIsHarmless) {
    writeFile(FILE_NAME, "");
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore(FILE_NAME, "5", &store), 0U);
    EXPECT_EQ(utiClosePropertyStore(&store), 0U);
    EXPECT_EQ(store.stream, nullptr);
    EXPECT_EQ(utiClosePropertyStore(&store), 0U);
    EXPECT_EQ(utiClosePropertyStore(nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
}

TEST(PropertyStore, RootAndPathAreBounded) {
    const std::string path = "./" + times('d', 200) + "/" + times('f', 200);
    support::makeDirectory(times('d', 200));
    writeFile(path, "5.a=1\n");
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore(path.c_str(), times('r', 500).c_str(), &store), 0U);
    EXPECT_EQ(std::string(store.path), path.substr(0, 399));
    EXPECT_EQ(std::string(store.root), times('r', 399));
    // The cut path names another file, which must not be made.
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), ZOLTLOG_STORE_NOT_CREATED);
    utiClosePropertyStore(&store);
    EXPECT_EQ(readFile(path), "5.a=1\n");
    EXPECT_EQ(support::listFiles(times('d', 200)), std::vector<std::string>{times('f', 200)});
}

TEST(PropertyStore, NullArgumentsAreRefused) {
    writeFile(FILE_NAME, "5.a=1\n");
    Store store("5");
    PropertyStore *s = &store.handle;
    PropertyStore none = {};
    char *text = nullptr;
    unsigned long number = 1;
    uint32_t flag = 1;
    char name[8] = "";
    uint32_t size = sizeof name;
    uint32_t zero = 0;
    EXPECT_EQ(utiOpenPropertyStore(nullptr, "5", s), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiOpenPropertyStore(FILE_NAME, nullptr, s), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiOpenPropertyStore(FILE_NAME, "5", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreatePropertyStore(nullptr, "5", s), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreatePropertyStore("./x.conf", nullptr, s), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreatePropertyStore("./x.conf", "5", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreateTmpPropertyStore(nullptr, "5", &none), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreateTmpPropertyStore(FILE_NAME, nullptr, &none), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiCreateTmpPropertyStore(FILE_NAME, "5", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsStr(s, nullptr, "x"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsStr(s, "a", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsStr(nullptr, "a", "x"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsStr(&none, "a", "x"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsUlong(s, "a", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsUlong(s, nullptr, &number), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsBool(s, "a", nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiSetPropertyAsBool(nullptr, "a", &flag), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemoveProperty(s, nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemoveProperty(nullptr, "a"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemoveProperty(&none, "a"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemovePropertyRoot(s, nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemovePropertyRoot(nullptr, "5"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiRemovePropertyRoot(&none, "5"), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiGetPropertyAsStr(nullptr, "a", &text), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiGetPropertyAsStr(&none, "a", &text), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiGetPropertyAsStr(s, nullptr, &text), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiGetPropertyAsStr(s, "a", nullptr), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiGetPropertyAsUlong(s, "a", nullptr), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiGetPropertyAsBool(s, "a", nullptr), ZOLTLOG_STORE_NOT_FOUND);
    EXPECT_EQ(utiEnumProductId(nullptr, 0, name, &size), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiEnumProductId(&none, 0, name, &size), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiEnumProductId(s, 0, nullptr, &size), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiEnumProductId(s, 0, name, nullptr), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiEnumProductId(s, 0, name, &zero), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(utiEnumLogsetForProductId(s, 0, name, &zero), ZOLTLOG_STORE_INVALID_ARGUMENT);
    EXPECT_EQ(Iscomment(nullptr), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n");
}

// Each public name forwards to the File operation of the same name: both layers answer alike.
TEST(PropertyStore, TheFileLayerIsTheSame) {
    PropertyStore store;
    ASSERT_EQ(utiCreatePropertyStoreFile("./store.conf", "5", &store), 0U);
    const unsigned long number = 3;
    const uint32_t flag = 1;
    EXPECT_EQ(utiSetPropertyAsUlongFile(&store, "n", &number), 0U);
    EXPECT_EQ(utiSetPropertyAsBoolFile(&store, "b", &flag), 0U);
    EXPECT_EQ(utiSetPropertyAsStrFile(&store, "s", "text"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), std::string(HEADER) + "5.n=3\n5.b=true\n5.s=text\n");
    unsigned long n = 0;
    uint32_t b = 0;
    char *s = nullptr;
    EXPECT_EQ(utiGetPropertyAsUlongFile(&store, "n", &n), 0U);
    EXPECT_EQ(utiGetPropertyAsBoolFile(&store, "b", &b), 0U);
    EXPECT_EQ(utiGetPropertyAsStrFile(&store, "s", &s), 0U);
    EXPECT_EQ(n, 3U);
    EXPECT_EQ(b, 1U);
    EXPECT_STREQ(s, "text");
    zoltLogFree(s);
    EXPECT_EQ(utiRemovePropertyFile(&store, "n"), 0U);
    EXPECT_EQ(utiRemovePropertyRootFile(&store, "5"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), HEADER);
    EXPECT_EQ(IscommentFile("# x"), 1);
    EXPECT_EQ(utiClosePropertyStoreFile(&store), 0U);
    EXPECT_EQ(utiOpenPropertyStoreFile(FILE_NAME, "5", &store), 0U);
    EXPECT_EQ(utiClosePropertyStoreFile(&store), 0U);
    EXPECT_EQ(utiCreateTmpPropertyStoreFile(FILE_NAME, "5", &store), 0U);
    EXPECT_STREQ(store.path, "store.conf.tmp");
    EXPECT_EQ(utiClosePropertyStoreFile(&store), 0U);
}

TEST(PropertyStore, OnlySpacesLeadAComment) {
    EXPECT_EQ(Iscomment("# x\n"), 1);
    EXPECT_EQ(Iscomment("#"), 1);
    EXPECT_EQ(Iscomment("   # x\n"), 1);
    EXPECT_EQ(Iscomment("\t# x\n"), 0);
    EXPECT_EQ(Iscomment(""), 0);
    EXPECT_EQ(Iscomment("\n"), 0);
    EXPECT_EQ(Iscomment("   "), 0);
    EXPECT_EQ(Iscomment("5.a=# x"), 0);
}

// ---- the temporary file, removal of files -------------------------------------------------

TEST(PropertyStore, TheTemporaryFileIsAlwaysANewOne) {
    writeFile("victim", "keep");
    ASSERT_EQ(symlink("victim", "store.conf.tmp"), 0);
    PropertyStore store;
    ASSERT_EQ(utiCreateTmpPropertyStore(FILE_NAME, "5", &store), 0U);
    EXPECT_STREQ(store.root, "5");
    EXPECT_STREQ(store.path, "store.conf.tmp");
    ASSERT_NE(store.stream, nullptr);
    EXPECT_GE(fputs("new", store.stream), 0);
    EXPECT_EQ(utiClosePropertyStore(&store), 0U);
    EXPECT_EQ(readFile("store.conf.tmp"), "new");
    EXPECT_EQ(readFile("victim"), "keep");
    struct stat status;
    ASSERT_EQ(lstat("store.conf.tmp", &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST(PropertyStore, ATemporaryFileThatCannotBeMadeIsResult5) {
    writeFile(FILE_NAME, "5.a=1\n");
    support::makeDirectory("store.conf.tmp/full");
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "2"), ZOLTLOG_STORE_NOT_CREATED);
    EXPECT_EQ(utiRemoveProperty(&store.handle, "b"), ZOLTLOG_STORE_NOT_CREATED);
    EXPECT_EQ(utiRemovePropertyRoot(&store.handle, "5"), ZOLTLOG_STORE_NOT_CREATED);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n");
    EXPECT_EQ(get(&store.handle, "a"), "1");
    PropertyStore temporary;
    EXPECT_EQ(utiCreateTmpPropertyStore(times('p', 396).c_str(), "5", &temporary), ZOLTLOG_STORE_NOT_CREATED);
    EXPECT_EQ(utiCreateTmpPropertyStore("missing/store.conf", "5", &temporary), ZOLTLOG_STORE_NOT_CREATED);
}

TEST(PropertyStore, AStaleTemporaryFileDisturbsNothing) {
    writeFile(FILE_NAME, "5.a=1\n");
    writeFile("store.conf.tmp", "5.a=stale\n5.b=stale\n");
    Store store("5");
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", "2"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=2\n");
    EXPECT_FALSE(exists("store.conf.tmp"));
}

TEST(PropertyStore, ATextWithConfNamesAFileToRemove) {
    writeFile(FILE_NAME, "5.a=1\n");
    writeFile("other.conf", "x");
    Store store("5");
    EXPECT_EQ(utiRemovePropertyRoot(&store.handle, "other.conf"), 0U);
    EXPECT_FALSE(exists("other.conf"));
    EXPECT_EQ(utiRemovePropertyRoot(&store.handle, "other.conf"), ZOLTLOG_STORE_NOT_WRITTEN);
    EXPECT_EQ(utiRemovePropertyRoot(nullptr, "other.conf"), ZOLTLOG_STORE_NOT_WRITTEN);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n");
}

TEST(PropertyStore, ModeAndOwnerAreKept) {
    writeFile(FILE_NAME, "5.a=1\n");
    ASSERT_EQ(chmod(FILE_NAME, 0640), 0);
    const bool isRoot = geteuid() == 0;
    if (isRoot) {
        ASSERT_EQ(chown(FILE_NAME, 1234, 5678), 0);
    }
    for (const mode_t mask : {0, 022, 077}) {
        umask(mask);
        Store store("5");
        EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "a", std::to_string(mask).c_str()), 0U);
        struct stat status;
        ASSERT_EQ(stat(FILE_NAME, &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0640U);
        EXPECT_EQ(status.st_uid, isRoot ? 1234U : geteuid());
        if (isRoot) {
            EXPECT_EQ(status.st_gid, 5678U);
        }
    }
}

// Another process's change, made after the handle was opened, is not lost.
TEST(PropertyStore, AChangeIsMadeToTheFileAsItIsNow) {
    writeFile(FILE_NAME, "5.a=1\n");
    Store early("5");
    {
        Store other("6");
        EXPECT_EQ(utiSetPropertyAsStr(&other.handle, "b", "2"), 0U);
    }
    EXPECT_EQ(utiSetPropertyAsStr(&early.handle, "a", "3"), 0U);
    EXPECT_EQ(readFile(FILE_NAME), "5.a=3\n6.b=2\n");
}

TEST(PropertyStore, AFileThatIsGoneIsNotBegunAnew) {
    writeFile(FILE_NAME, "5.a=1\n");
    Store store("5");
    ASSERT_EQ(unlink(FILE_NAME), 0);
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "2"), 6U);
    EXPECT_FALSE(exists(FILE_NAME));
    EXPECT_FALSE(exists("store.conf.tmp"));
}

// An editor that moves it away and back.
TEST(PropertyStore, AFileThatIsAwayForAnInstantIsWaitedFor) {
    writeFile(FILE_NAME, "5.a=1\n");
    Store store("5");
    ASSERT_EQ(rename(FILE_NAME, "away"), 0);
    std::thread editor([] {
        usleep(20000);
        EXPECT_EQ(rename("away", FILE_NAME), 0);
    });
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "2"), 0U);
    editor.join();
    EXPECT_EQ(readFile(FILE_NAME), "5.a=1\n5.b=2\n");
}

namespace {

// ---- enumerations ----------------------------------------------------------------------------

using Enumerate = uint32_t (*)(PropertyStore *, uint32_t, char *, uint32_t *);

// The names given, then the last result.
std::vector<std::string> names(const std::string &bytes, Enumerate next, uint32_t room = 80) {
    writeFile(FILE_NAME, bytes);
    Store store("");
    std::vector<std::string> found;
    char name[600] = "";
    for (;;) {
        uint32_t size = room;
        const uint32_t result = next(&store.handle, 1, name, &size);
        if (result != 0) {
            found.push_back("(" + std::to_string(result) + ")");
            if (result == 7)
                return found;
            continue;
        }
        EXPECT_EQ(size, strlen(name));
        found.emplace_back(name);
    }
}

using Names = std::vector<std::string>;

} // namespace

TEST(PropertyStore, SectionsAreEnumeratedRunByRun) {
    EXPECT_EQ(names("100.a=1\n100.b=1\n200.a=1\n100.c=1\n", utiEnumProductId),
              (Names{"100", "200", "100", "(7)"}));
    EXPECT_EQ(names("", utiEnumProductId), (Names{"(7)"}));
    EXPECT_EQ(names("# 1.x\n  # 2.x\n3.a=1\n", utiEnumProductId), (Names{"3", "(7)"}));
    EXPECT_EQ(names("\t#1.x=1\n", utiEnumProductId), (Names{"\t#1", "(7)"}));
    EXPECT_EQ(names("nodot=1\nno.dot=1\n", utiEnumProductId), (Names{"no", "(7)"}));
    EXPECT_EQ(names("a=b.c\nd.e\n", utiEnumProductId), (Names{"d", "(7)"}));
    EXPECT_EQ(names("LOGSET.x.a=1\nLOGSET.y.a=1\nDefault.a=1\n", utiEnumProductId),
              (Names{"LOGSET", "Default", "(7)"}));
    EXPECT_EQ(names("5.a=1\n.b=1\n", utiEnumProductId), (Names{"5", "", "(7)"}));
    EXPECT_EQ(names("100.a=1\n100", utiEnumProductId), (Names{"100", "(7)"}));
    EXPECT_EQ(names("5.a=" + times('x', 495) + "6.b=1\n7.a=1\n", utiEnumProductId),
              (Names{"5", "6", "7", "(7)"}));
}

TEST(PropertyStore, LogsetsAreEnumeratedRunByRun) {
    EXPECT_EQ(
        names("5.a=1\nLOGSET.x.a=1\nLOGSET.x.b=1\nLOGSET.y.a=1\nLOGSET.x.c=1\n", utiEnumLogsetForProductId),
        (Names{"x", "y", "x", "(7)"}));
    EXPECT_EQ(names("LOGSET..x.a=1\n", utiEnumLogsetForProductId), (Names{"x", "(7)"}));
    EXPECT_EQ(names("LOGSET\nLOGSET.\n#LOGSET.z.a=1\n LOGSET.w.a=1\n", utiEnumLogsetForProductId),
              (Names{"\n", "(7)"}));
    EXPECT_EQ(names("LOGSET.", utiEnumLogsetForProductId), (Names{"(7)"}));
    EXPECT_EQ(names("LOGSET.Default.a=1\n", utiEnumLogsetForProductId), (Names{"Default", "(7)"}));
    EXPECT_EQ(names("LOGSETS.x.a=1\n", utiEnumLogsetForProductId), (Names{"x", "(7)"}));
}

TEST(PropertyStore, ANameThatDoesNotFitIsResult6AndPassedOver) {
    EXPECT_EQ(names("12345.a=1\n1234.a=1\n", utiEnumProductId, 5), (Names{"(6)", "1234", "(7)"}));
    EXPECT_EQ(names("LOGSET.12345.a=1\nLOGSET.1234.a=1\n", utiEnumLogsetForProductId, 5),
              (Names{"(6)", "1234", "(7)"}));
}

TEST(PropertyStore, EnumerationGoesOnWhereTheStreamStands) {
    writeFile(FILE_NAME, "1.a=1\n2.a=1\n3.a=1\n");
    Store store("2");
    char name[8] = "";
    uint32_t size = sizeof name;
    EXPECT_EQ(utiEnumProductId(&store.handle, 0, name, &size), 0U);
    EXPECT_STREQ(name, "1");
    EXPECT_EQ(get(&store.handle, "a"), "1"); // leaves the stream behind the second line
    size = sizeof name;
    EXPECT_EQ(utiEnumProductId(&store.handle, 0, name, &size), 0U);
    EXPECT_STREQ(name, "3");
    size = sizeof name;
    EXPECT_EQ(utiSetPropertyAsStr(&store.handle, "b", "1"), 0U); // reopened at the start
    EXPECT_EQ(utiEnumProductId(&store.handle, 0, name, &size), 0U);
    EXPECT_STREQ(name, "1");
}

// ---- comparison with a plain second implementation -------------------------------------------

namespace plain {

// The file as a text; every operation follows the description word by word.
struct File {
    std::string bytes;

    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::string line;
        for (const char c : bytes) {
            line += c;
            if (c == '\n' || line.size() == 499) {
                result.push_back(line);
                line.clear();
            }
        }
        if (!line.empty())
            result.push_back(line);
        return result;
    }
};

std::vector<std::string> tokens(const std::string &text, const std::string &delimiters) {
    std::vector<std::string> result;
    size_t at = text.find_first_not_of(delimiters);
    while (at != std::string::npos) {
        const size_t end = text.find_first_of(delimiters, at);
        result.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(delimiters, end);
    }
    return result;
}

std::string section(const std::string &line, const std::string &delimiters) {
    const auto parts = tokens(line, delimiters);
    if (parts.empty())
        return "";
    if (parts[0] == "LOGSET")
        return "LOGSET." + (parts.size() > 1 ? parts[1] : "");
    return parts[0];
}

bool hasKey(const std::string &line, const std::string &key) {
    const size_t equal = line.find('=');
    return equal != std::string::npos && line.substr(0, equal) == key;
}

std::string lookup(const File &file, const std::string &root, const std::string &name) {
    for (const std::string &line : file.lines()) {
        if (!hasKey(line, root + "." + name))
            continue;
        std::string value = line.substr(line.find('=') + 1);
        if (value.empty())
            continue;
        value = value.substr(0, value.find('='));
        value = value.substr(0, value.rfind('\n'));
        value = value.substr(0, 399);
        while (!value.empty() && value.back() == ' ')
            value.pop_back();
        return value;
    }
    return "(3)";
}

uint32_t set(File *file, const std::string &root, const std::string &name, const std::string &value) {
    const std::string key = root.empty() ? name : root + "." + name;
    const std::string property = key + "=" + value + "\n";
    const auto old = file->lines();
    std::string result;
    bool found = false;
    for (size_t i = 0; i < old.size(); ++i) {
        if (root.empty()) {
            const auto parts = tokens(old[i], ".=");
            const bool matches = !parts.empty() && parts[0] == name;
            result += matches ? property : old[i];
            found = found || matches;
            continue;
        }
        if (found || section(old[i], ".=") != root) {
            result += old[i];
            continue;
        }
        for (; i < old.size(); ++i) { // the walk
            if (section(old[i], ".=") != root) {
                result += property + old[i];
                found = true;
                break;
            }
            if (hasKey(old[i], key)) {
                result += property;
                found = true;
                break;
            }
            result += old[i];
        }
    }
    if (!found)
        result += (result.empty() || result.back() == '\n' ? "" : "\n") + property;
    file->bytes = result;
    return 0;
}

uint32_t removeKey(File *file, const std::string &root, const std::string &name) {
    std::string result;
    for (const std::string &line : file->lines()) {
        if (!hasKey(line, root.empty() ? name : root + "." + name))
            result += line;
    }
    file->bytes = result;
    return 0;
}

uint32_t removeSection(File *file, const std::string &text) {
    std::string result;
    bool dropped = false;
    for (const std::string &line : file->lines()) {
        if (line.find('.') != std::string::npos && section(line, ".") == text)
            dropped = true;
        else
            result += line;
    }
    file->bytes = result;
    return dropped ? 0 : 8;
}

std::vector<std::string> enumerate(const File &file, bool logsets) {
    std::vector<std::string> result;
    std::string previous;
    for (const std::string &line : file.lines()) {
        const size_t first = line.find_first_not_of(' ');
        if (first != std::string::npos && line[first] == '#')
            continue;
        std::string name;
        if (logsets) {
            const auto parts = tokens(line, ".");
            if (line.compare(0, 6, "LOGSET") != 0 || parts.size() < 2)
                continue;
            name = parts[1];
        } else {
            const size_t dot = line.find('.');
            if (dot == std::string::npos)
                continue;
            name = line.substr(0, dot);
            if (name.find('=') != std::string::npos)
                continue;
        }
        if (name == previous)
            continue;
        if (name.size() < 80)
            previous = name;
        result.push_back(name.size() < 80 ? name : "(6)");
    }
    result.emplace_back("(7)");
    return result;
}

} // namespace plain

namespace {

// Text for files and names: pieces that the syntax knows, in any order.
struct Random {
    explicit Random(unsigned seed) : engine(seed) {}
    unsigned below(unsigned n) { return static_cast<unsigned>(engine() % n); }
    std::string pick(const std::vector<std::string> &pieces) {
        return pieces[below(static_cast<unsigned>(pieces.size()))];
    }
    std::string line() {
        static const std::vector<std::string> pieces = {"5",
                                                        "6",
                                                        "LOGSET",
                                                        ".",
                                                        ".",
                                                        "=",
                                                        "a",
                                                        "b",
                                                        "x",
                                                        " ",
                                                        "#",
                                                        "5.a=1",
                                                        "5.b=2",
                                                        "6.a=3",
                                                        "LOGSET.x.a=4",
                                                        "LOGSET.y.b=5",
                                                        "Default.a=6",
                                                        "\t",
                                                        "\r"};
        std::string text;
        if (below(40) == 0)
            text = "5." + pick({"a", "b", "c"}) + "=" + std::string(380 + below(800), 'v');
        for (unsigned n = below(4); n > 0; --n)
            text += pick(pieces);
        return text + (below(30) == 0 ? "" : "\n");
    }
    std::mt19937 engine;
};

std::vector<std::string> enumerated(PropertyStore *store, Enumerate next) {
    std::vector<std::string> found;
    char name[600] = "";
    for (;;) {
        uint32_t size = 80;
        const uint32_t result = next(store, 0, name, &size);
        found.push_back(result == 0 ? name : "(" + std::to_string(result) + ")");
        if (result == 7)
            return found;
    }
}

// The same lookup by the library's way of reading several keys in one pass.
std::string inOnePass(const std::string &root, const std::string &name) {
    char *text = nullptr;
    std::string value = "(3)";
    if (GetPropertyString(FILE_NAME, root.c_str(), name.c_str(), &text) == 0)
        value = text;
    zoltLogFree(text);
    return value;
}

// One sequence of operations on one file, checked after each of them.
void runSequence(unsigned seed) {
    static const std::vector<std::string> roots = {"5",       "6", "LOGSET.x", "LOGSET.y",
                                                   "Default", "",  "LOGSET",   "7"};
    static const std::vector<std::string> keys = {"a", "b", "c", "a.b", "x.a"};
    Random random(seed);
    plain::File model;
    for (unsigned n = random.below(12); n > 0; --n)
        model.bytes += random.line();
    (void)unlink(FILE_NAME);
    writeFile(FILE_NAME, model.bytes);
    for (unsigned step = random.below(6) + 2; step > 0; --step) {
        const std::string root = random.pick(roots);
        const std::string name = random.pick(keys);
        Store store(root);
        ASSERT_EQ(enumerated(&store.handle, utiEnumProductId), plain::enumerate(model, false));
        rewind(store.handle.stream);
        ASSERT_EQ(enumerated(&store.handle, utiEnumLogsetForProductId), plain::enumerate(model, true));
        ASSERT_EQ(get(&store.handle, name), plain::lookup(model, root, name));
        ASSERT_EQ(inOnePass(root, name), plain::lookup(model, root, name));
        uint32_t expected = 0;
        uint32_t result = 0;
        const std::string value = random.pick({"", "1", "two", "x=y", "  blanks  ", std::string(600, 'w')});
        switch (random.below(4)) {
        case 0:
            expected = plain::removeKey(&model, root, name);
            result = apply(&store.handle, Op::REMOVE, name, "");
            break;
        case 1:
            expected = plain::removeSection(&model, root);
            result = apply(&store.handle, Op::RemoveRoot, root, "");
            break;
        default:
            expected = plain::set(&model, root, name, value);
            result = apply(&store.handle, Op::SET, name, value);
        }
        ASSERT_EQ(result, expected);
        ASSERT_EQ(readFile(FILE_NAME), model.bytes);
        ASSERT_EQ(get(&store.handle, name), plain::lookup(model, root, name));
    }
}

} // namespace

// Ten thousand sequences, in four parts that can run side by side.
class PropertyStoreSequences : public testing::TestWithParam<unsigned> {};

TEST_P(PropertyStoreSequences, AgreeWithThePlainImplementation) {
    for (unsigned seed = GetParam(); seed < GetParam() + 2500; ++seed) {
        SCOPED_TRACE(seed);
        runSequence(seed);
        ASSERT_FALSE(HasFatalFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(From, PropertyStoreSequences, testing::Values(0U, 2500U, 5000U, 7500U));
