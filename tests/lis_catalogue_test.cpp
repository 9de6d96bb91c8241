// SPDX-License-Identifier: Apache-2.0
// Messages in the words of catalogues: locales, fallback, fitting of patterns,
// caching, threads and fork.

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qdlis.h"
#include "support/cases.h"
#include "support/lis_items.h"
#include "support/support.h"
#include "zoltlog.h"

using support::describe;
using support::lisMessage;

namespace {

std::string sample() {
    return support::buildDirectory() + "/share/qdul/catalogue/diskd";
}

// A message's items, as describe tells them.
template<typename... Values>
std::string items(uint32_t utf8, int64_t number, const char *format, Values... values) {
    ZoltLisBlock block = {};
    const int32_t result = lisMessage(&block, utf8, number, format, values...);
    const std::string line = result == 0 ? describe(&block) : "result " + std::to_string(result);
    EXPECT_EQ(0, zoltLisFree(&block));
    return line;
}

std::string textOf(ZoltLisBlock *block) {
    char buffer[1000] = "";
    size_t size = sizeof buffer;
    return strncatlis(buffer, &size, block) != nullptr ? buffer : "failed";
}

template<typename... Values>
std::string text(int64_t number, const char *format, Values... values) {
    ZoltLisBlock block = {};
    const int32_t result = lisMessage(&block, 0, number, format, values...);
    const std::string shown = result == 0 ? textOf(&block) : "result " + std::to_string(result);
    EXPECT_EQ(0, zoltLisFree(&block));
    return shown;
}

// Compiles a catalogue into the current directory: <name>/<locale>.res.
void compile(const std::string &name, const std::string &locale, const std::string &messages,
             const std::string &version = "2") {
    support::makeDirectory(name);
    support::writeFile(locale + ".txt", locale + " {\n" + messages + "\n}\n");
    const support::Finished done = support::run(
        {"genrb", "-q", "--formatVersion", version, "-e", "UTF-8", "-s", ".", "-d", name, locale + ".txt"});
    ASSERT_EQ(0, done.status) << done.out << done.err;
}

// Runs body, with its expectations, in a child: 0 when all hold.
int inChild(const std::function<void()> &body) {
    return support::inChild([&] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

std::string here(const std::string &name) {
    char *directory = getcwd(nullptr, 0);
    const std::string path = std::string(directory) + "/" + name;
    std::free(directory);
    return path;
}

} // namespace

FRESH_TEST(Catalogue, EnvironmentNamesItsPackages) {
    compile("first", "root", "1 { \"first\" }");
    compile("second", "root", "1 { \"second\" } 2 { \"two\" }");
    setenv("QDLIS_CATALOG", (":" + here("missing") + ":" + here("first") + "::" + here("second")).c_str(), 1);
    EXPECT_EQ("id=0 11:first", items(0, 1, "x"));
    EXPECT_EQ("id=0 11:two", items(0, 2, "x"));
    EXPECT_EQ("id=3", items(0, 3, "x"));
}

FRESH_TEST(Catalogue, OneNumberIsShownInTheWordsOfEachLocale) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    EXPECT_EQ("id=0 11:Disk  11:/var 11: is  1:93 11:% full", items(0, 1001, "%s %d", "/var", 93));
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    EXPECT_EQ("id=0 11:Zu  1:93 11:% voll ist die Platte  11:/var", items(0, 1001, "%s %d", "/var", 93));
    EXPECT_EQ("Zu 93% voll ist die Platte /var", text(1001, "%s %d", "/var", 93));
    ASSERT_TRUE(support::useLocale("en_US.UTF-8"));
    EXPECT_EQ("Disk /var is 93% full", text(1001, "%s %d", "/var", 93));
}

FRESH_TEST(Catalogue, OnlyTheMessageCategoryChoosesTheWords) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    std::setlocale(LC_MESSAGES, "C");
    EXPECT_EQ("Disk /var is 93% full", text(1001, "%s %d", "/var", 93));
}

FRESH_TEST(Catalogue, AMessageThatALocaleLacksComesFromRoot) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    EXPECT_EQ("Shutting down", text(1007, "x"));
}

FRESH_TEST(Catalogue, AMessageFallsBackFromRegionToLanguageToRoot) {
    compile("three", "root", "1 { \"root 1\" } 2 { \"root 2\" } 3 { \"root 3\" }");
    compile("three", "de", "1 { \"de 1\" } 2 { \"de 2\" }");
    compile("three", "de_DE", "1 { \"de_DE 1\" }");
    ASSERT_EQ(0, qdlisAddCatalog("three")); // relative to the current directory
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("de_DE 1", text(1, "x"));
    EXPECT_EQ("de 2", text(2, "x"));
    EXPECT_EQ("root 3", text(3, "x"));
    EXPECT_EQ("id=4", items(0, 4, "x"));
}

FRESH_TEST(Catalogue, ALocaleWithoutWordsGetsRootAndNotTheEnvironmentsLocale) {
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8")); // and LC_ALL says so too
    ASSERT_NE(nullptr, std::setlocale(LC_MESSAGES, "ja_JP.EUC-JP"));
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    EXPECT_EQ("Disk /var is 93% full", text(1001, "%s %d", "/var", 93));
}

FRESH_TEST(Catalogue, RemovedMeansTheFallbackText) {
    compile("gone", "root", "42 { \"%1$d and %2$s\" }");
    ASSERT_EQ(0, unlink("gone/root.res"));
    ASSERT_EQ(0, qdlisAddCatalog(here("gone").c_str()));
    EXPECT_EQ("[Cannot find catalog for message id=42] 7,x", text(42, "%d %s", 7, "x"));
}

FRESH_TEST(Catalogue, DamagedMeansTheFallbackText) {
    support::makeDirectory("bad");
    support::writeFile("bad/root.res", std::string(100, '\xa5'));
    ASSERT_EQ(0, qdlisAddCatalog(here("bad").c_str()));
    EXPECT_EQ("[Cannot find catalog for message id=42] 7,x", text(42, "%d %s", 7, "x"));
}

FRESH_TEST(Catalogue, EveryCutOfABundleMeansTheParentsText) {
    compile("cut", "root", "1 { \"root 1\" } 2 { \"root 2\" }");
    compile("cut", "de", "1 { \"de 1\" } 2 { \"de 2\" }");
    const std::string whole = support::readFile("cut/de.res");
    ASSERT_LT(50u, whole.size());
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    for (size_t size = 0; size < whole.size(); ++size) {
        support::writeFile("cut/de.res", whole.substr(0, size));
        const int status = inChild([] {
            EXPECT_EQ(0, qdlisAddCatalog("cut"));
            EXPECT_EQ("root 1", text(1, "x"));
            EXPECT_EQ("root 2", text(2, "x"));
        });
        ASSERT_EQ(0, status) << size << " of " << whole.size() << " bytes";
    }
}

FRESH_TEST(Catalogue, ChangedBytesOfABundleAreNoHarm) {
    compile("changed", "root", "1 { \"text of one\" } 2 { \"\" } 300 { \"text of three hundred\" }");
    const std::string whole = support::readFile("changed/root.res");
    for (unsigned at = 0; at < whole.size(); ++at) {
        const int status = inChild([&] {
            const unsigned char values[] = {0x00, 0x01, 0x7f, 0x80, 0xdf, 0xff};
            for (const unsigned char value : values) {
                std::string bytes = whole;
                bytes[at] = static_cast<char>(value);
                const std::string name = "changed" + std::to_string(value);
                support::makeDirectory(name);
                support::writeFile(name + "/root.res", bytes);
                ASSERT_EQ(0, qdlisAddCatalog(name.c_str()));
                for (const int64_t number : {1, 2, 3, 300})
                    (void)text(number, "x");
            }
        });
        ASSERT_EQ(0, status) << "byte " << at;
    }
}

FRESH_TEST(Catalogue, OnlyARegularFileIsOpened) {
    support::makeDirectory("odd");
    ASSERT_EQ(0, mkfifo("odd/root.res", 0600)); // opening it would block
    ASSERT_EQ(0, qdlisAddCatalog("odd"));
    EXPECT_EQ("id=1", items(0, 1, "x"));
}

// Lengths around those where a bundle tells them in another way.
FRESH_TEST(Catalogue, TextsOfEveryLengthAreWholeInEveryVersionOfTheFile) {
    const size_t lengths[] = {1, 2, 39, 40, 41, 1022, 1023, 1024, 1025, 65535, 65536, 200000};
    std::string messages;
    for (const size_t length : lengths) {
        const std::string body(length - 1, 'm'); // no end of another text, which would share its units
        messages += std::to_string(length) + " { \"" + body + static_cast<char>('A' + length % 26) + "\" }\n";
    }
    for (const char *version : {"1", "2", "3"}) {
        const std::string name = std::string("version") + version;
        compile(name, "root", messages, version);
        const int status = inChild([&] {
            ASSERT_EQ(0, qdlisAddCatalog(name.c_str()));
            for (const size_t length : lengths) {
                const std::string expected =
                    std::string(length - 1, 'm') + static_cast<char>('A' + length % 26);
                ASSERT_TRUE("id=0 11:" + expected == items(0, static_cast<int64_t>(length), "x")) << length;
            }
        });
        EXPECT_EQ(0, status) << "version " << version;
    }
}

// Beyond 64 KB of keys a bundle's table is another one.
FRESH_TEST(Catalogue, AMessageIsFoundAmongManyKeys) {
    std::string messages;
    for (int number = 1; number <= 500; ++number) {
        const std::string text = std::to_string(number);
        messages += text + " { \"number " + text + "\" }\n" + text + std::string(200, 'x') + " { \"\" }\n";
    }
    for (const char *version : {"1", "2", "3"}) {
        compile(std::string("large") + version, "root", messages, version);
        EXPECT_EQ(0, inChild([&] {
                      ASSERT_EQ(0, qdlisAddCatalog((std::string("large") + version).c_str()));
                      for (int number = 1; number <= 500; ++number)
                          ASSERT_EQ("id=0 11:number " + std::to_string(number), items(0, number, "x"));
                      EXPECT_EQ("id=501", items(0, 501, "x"));
                  }));
    }
}

FRESH_TEST(Catalogue, APackageMayBeOneFile) {
    compile("one", "root", "1 { \"root 1\" } 2 { \"root 2\" }");
    compile("one", "de", "1 { \"de 1\" }");
    support::writeFile("list.txt", "de.res\nroot.res\n");
    support::makeDirectory("packed");
    support::makeDirectory("temporary");
    const support::Finished done = support::run({"pkgdata", "-q", "-m", "common", "-p", "one", "-s", "one",
                                                 "-d", "packed", "-T", "temporary", "list.txt"});
    ASSERT_EQ(0, done.status) << done.out << done.err;
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    const std::string whole = support::readFile("packed/one.dat");
    const auto read = [] {
        EXPECT_EQ(0, qdlisAddCatalog("packed/one"));
        return text(1, "x") + ", " + text(2, "x");
    };
    EXPECT_EQ(0, inChild([&] { EXPECT_EQ("de 1, root 2", read()); }));
    const size_t padding = 16; // at the most, behind the last bundle
    for (size_t size = 0; size + padding <= whole.size(); size += 3) {
        support::writeFile("packed/one.dat", whole.substr(0, size));
        ASSERT_EQ(0, inChild([&] { EXPECT_NE("de 1, root 2", read()); })) << size;
    }
}

FRESH_TEST(Catalogue, ALocaleIsServedInItsScriptBeforeItsLanguage) {
    compile("scripts", "root", "1 { \"root 1\" } 2 { \"root 2\" } 3 { \"root 3\" }");
    compile("scripts", "zh", "1 { \"simplified 1\" } 2 { \"simplified 2\" }");
    compile("scripts", "zh_Hant", "1 { \"traditional 1\" }");
    ASSERT_TRUE(support::useLocale("zh_TW.UTF-8"));
    ASSERT_EQ(0, qdlisAddCatalog("scripts"));
    EXPECT_EQ("traditional 1", text(1, "x"));
    EXPECT_EQ("simplified 2", text(2, "x"));
    EXPECT_EQ("root 3", text(3, "x"));
}

FRESH_TEST(Catalogue, ALocaleMayNameAnotherOneInItsPlace) {
    compile("names", "root", "1 { \"root 1\" } 2 { \"root 2\" }");
    compile("names", "de", "\"%%ALIAS\" { \"nds\" }");
    compile("names", "nds", "1 { \"nds 1\" }");
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    ASSERT_EQ(0, qdlisAddCatalog("names"));
    EXPECT_EQ("nds 1", text(1, "x"));
    EXPECT_EQ("root 2", text(2, "x"));
}

FRESH_TEST(Catalogue, LocalesThatNameEachOtherEnd) {
    compile("names", "de", "\"%%ALIAS\" { \"nds\" }");
    compile("names", "nds", "\"%%ALIAS\" { \"de\" }");
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    ASSERT_EQ(0, qdlisAddCatalog("names"));
    EXPECT_EQ("id=3", items(0, 3, "x"));
}

FRESH_TEST(Catalogue, AMessageThatIsNoTextIsMissing) {
    compile("odd", "root", "1 { a { \"in a table\" } } 2:int { 5 } 3 { \"text\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("odd").c_str()));
    EXPECT_EQ("id=1", items(0, 1, "x"));
    EXPECT_EQ("id=2", items(0, 2, "x"));
    EXPECT_EQ("id=0 11:text", items(0, 3, "x"));
}

FRESH_TEST(Catalogue, NegativeAndLargeNumbersAreKeysToo) {
    compile("odd", "root", "\"-5\" { \"minus\" } 9223372036854775807 { \"large\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("odd").c_str()));
    EXPECT_EQ("minus", text(-5, "x"));
    EXPECT_EQ("large", text(INT64_MAX, "x"));
}

FRESH_TEST(Catalogue, AnEmptyPatternIsATextWithoutItems) {
    compile("odd", "root", "1 { \"\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("odd").c_str()));
    EXPECT_EQ("id=0", items(0, 1, "%d", 7));
}

FRESH_TEST(Catalogue, PatternsDecideHowArgumentsLook) {
    compile("looks", "root",
            "1 { \"%1$08x\" } 2 { \"%1$.2f\" } 3 { \"[%2$-6s|%1$d]\" } 4 { \"%2$*1$d\" } 5 { \"%d %s\" }"
            "6 { \"%1$d%1$d\" } 7 { \"100%% of %2$s\" } 8 { \"%1$u\" } 9 { \"%1$i\" } 10 { \"%1$c%2$c\" }"
            "11 { \"%1$s%2$ls\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("looks").c_str()));
    EXPECT_EQ("id=0 11:000000ff", items(0, 1, "%d", 255));
    EXPECT_EQ("id=0 11:ffffffffffffffff", items(0, 1, "%ld", -1L)); // the caller's size
    EXPECT_EQ("id=0 11:000000ff", items(0, 1, "%hhd", -1));
    EXPECT_EQ("id=0 11:3.14", items(0, 2, "%f", 3.14159));
    EXPECT_EQ("id=0 11:3.14", items(0, 2, "%.1Lg", 3.14159L));
    EXPECT_EQ("id=0 11:[ 11:/var   11:| 1:7 11:]", items(0, 3, "%d %s", 7, "/var"));
    EXPECT_EQ("id=0 11:    7", items(0, 4, "%d %d", 5, 7));
    EXPECT_EQ("id=0 11:    7", items(0, 4, "%*d", 5, 7));
    EXPECT_EQ("id=0 1:7 11:  11:x", items(0, 5, "%d %s", 7, "x"));
    EXPECT_EQ("id=0 1:7 1:7", items(0, 6, "%d", 7));
    EXPECT_EQ("id=0 11:100% of  11:/var", items(0, 7, "%d %s", 7, "/var"));
    EXPECT_EQ("id=0 1:-1", items(0, 8, "%d", -1)); // the caller's sign
    EXPECT_EQ("id=0 2:4294967295", items(0, 9, "%u", -1));
    EXPECT_EQ("id=0 2:255", items(0, 9, "%x", 255));
    EXPECT_EQ("id=0 11:A 0:66", items(0, 10, "%c%lc", 'A', static_cast<wint_t>('B')));
    EXPECT_EQ("id=0 5:wide 11:narrow", items(0, 11, "%ls%s", L"wide", "narrow"));
}

FRESH_TEST(Catalogue, PatternsThatDoNotFitCountAsMissing) {
    compile("misfits", "root",
            "1 { \"%1$s\" } 2 { \"%3$d\" } 3 { \"%1$n\" } 4 { \"%1$f\" } 5 { \"%1$d %d\" } 6 { \"%m\" }"
            "7 { \"93% full\" } 8 { \"%2$*1$d\" } 9 { \"%1$s %1$d\" } 10 { \"%1$p\" } 11 { \"%9999$d\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("misfits").c_str()));
    for (int number = 1; number <= 11; ++number) {
        const std::string missing = "id=" + std::to_string(number) + " 1:7";
        EXPECT_EQ(missing, items(0, number, "%d", 7));
        EXPECT_EQ(missing, items(0, number, "%d", 7)) << "the second time";
    }
    EXPECT_EQ("id=8 11:x 1:7", items(0, 8, "%s %d", "x", 7)); // a width that is no int
    EXPECT_EQ("id=8 1:5 1:7", items(0, 8, "%ld %d", 5L, 7));
}

FRESH_TEST(Catalogue, EachFormatOfANumberIsFittedOnItsOwn) {
    compile("one", "root", "1 { \"<%1$d>\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("one").c_str()));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ("id=0 11:< 1:-1 11:>", items(0, 1, "%d", -1));
        EXPECT_EQ("id=0 11:< 1:-1 11:>", items(0, 1, "%ld", -1L));
        EXPECT_EQ("id=0 11:< 2:255 11:>", items(0, 1, "%hhu", -1));
        EXPECT_EQ("id=1 11:x", items(0, 1, "%s", "x"));
        EXPECT_EQ("id=0 10:< 1:-1 10:>", items(1, 1, "%d", -1));
    }
}

FRESH_TEST(Catalogue, TheSameBufferWithAnotherFormatIsAnotherFormat) {
    compile("one", "root", "1 { \"<%1$d>\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("one").c_str()));
    char format[8] = "%d";
    EXPECT_EQ("id=0 11:< 1:7 11:>", items(0, 1, format, 7));
    std::strcpy(format, "%s");
    EXPECT_EQ("id=1 11:x", items(0, 1, format, "x"));
}

FRESH_TEST(Catalogue, ManyFormatsOfOneNumberAreAllServed) {
    compile("one", "root", "1 { \"<%1$d>\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("one").c_str()));
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 200; ++i)
            EXPECT_EQ("<7>", text(1, ("format " + std::to_string(i) + " %d").c_str(), 7));
        for (int i = 0; i < 200; ++i)
            EXPECT_EQ("[Cannot find catalog for message id=1] x",
                      text(1, ("format " + std::to_string(i) + " %s").c_str(), "x"));
    }
}

FRESH_TEST(Catalogue, AnInvalidFormatIsRefusedThoughTheMessageIsThere) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    EXPECT_EQ("result -2", items(0, 1001, "%n", 7));
    EXPECT_EQ("result -2", items(0, 1001, "%n", 7));
}

FRESH_TEST(Catalogue, TextsAreInTheEncodingOfTheLocale) {
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    ASSERT_TRUE(support::useLocale("de_DE.UTF-8"));
    EXPECT_EQ("id=0 11:H\xc3\xb6rt auf Port  2:80", items(0, 1003, "%u", 80));
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    EXPECT_EQ("id=0 11:H\xf6rt auf Port  2:80", items(0, 1003, "%u", 80));
    EXPECT_EQ("id=0 10:H\xc3\xb6rt auf Port  2:80", items(1, 1003, "%u", 80)); // asked for UTF-8
    ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C"));
    EXPECT_EQ("id=0 11:H?rt auf Port  2:80", items(0, 1003, "%u", 80));
    EXPECT_EQ("id=0 10:H\xc3\xb6rt auf Port  2:80", items(1, 1003, "%u", 80));
}

FRESH_TEST(Catalogue, TextsOutsideTheFirstPlaneAreWhole) {
    compile("far", "root", "1 { \"\\U0001F600 \\u20AC\" } 2 { \"\\uD800x\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("far").c_str()));
    EXPECT_EQ("id=0 11:? ?", items(0, 1, "x"));
    EXPECT_EQ("id=0 10:\xf0\x9f\x98\x80 \xe2\x82\xac", items(1, 1, "x"));
    EXPECT_EQ("id=0 10:?x", items(1, 2, "x")); // half a character
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    EXPECT_EQ("id=0 11:\xf0\x9f\x98\x80 \xe2\x82\xac", items(0, 1, "x"));
}

FRESH_TEST(Catalogue, IsAddedLaterAndOnlyOnce) {
    EXPECT_EQ("id=1001 11:/var 1:93", items(0, 1001, "%s %d", "/var", 93));
    ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(0, qdlisAddCatalog(sample().c_str()));
    EXPECT_EQ("Disk /var is 93% full", text(1001, "%s %d", "/var", 93));
}

FRESH_TEST(Catalogue, ThirtyTwoAreTheMost) {
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(0, qdlisAddCatalog(("/nowhere/" + std::to_string(i)).c_str())) << i;
    EXPECT_EQ(ZOLTLIS_FAILED, qdlisAddCatalog("/nowhere/more"));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddCatalog(nullptr));
    EXPECT_EQ(ZOLTLIS_INVALID_ARGUMENT, qdlisAddCatalog(""));
    EXPECT_EQ("id=1 1:7", items(0, 1, "%d", 7));
}

FRESH_TEST(Catalogue, ThreadsReadItAtTheSameTime) {
    compile("many", "root", "1 { \"<%1$d>\" } 2 { \"(%1$d)\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("many").c_str()));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&wrong] {
            for (int i = 0; i < 200; ++i) {
                const std::string format = "x" + std::to_string(i % 50) + " %d";
                wrong += text(1, format.c_str(), i) != "<" + std::to_string(i) + ">";
                wrong += text(2, format.c_str(), i) != "(" + std::to_string(i) + ")";
                wrong += text(3, format.c_str(), i) !=
                         "[Cannot find catalog for message id=3] " + std::to_string(i);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong.load());
}

FRESH_TEST(Catalogue, AForkedChildLooksMessagesUpWhileOtherThreadsDo) {
    compile("many", "root", "1 { \"<%1$d>\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("many").c_str()));
    std::atomic<bool> stop{false};
    std::thread busy([&stop] {
        for (int i = 0; !stop; ++i)
            (void)text(1, ("busy " + std::to_string(i) + " %d").c_str(), i);
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(0, support::inChild([i] {
                      alarm(20); // a lock that is never released ends the child
                      return text(1, ("child " + std::to_string(i) + " %d").c_str(), i) ==
                                     "<" + std::to_string(i) + ">"
                                 ? 0
                                 : 1;
                  }));
    }
    stop = true;
    busy.join();
}

FRESH_TEST(Catalogue, AForkWaitsForTheLogLockBeforeItHoldsTheCatalogues) {
    compile("many", "root", "1 { \"<%1$d>\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("many").c_str()));
    static const char TAG[] = "several calls of the program";
    std::atomic<bool> stop{false};
    alarm(60); // two threads that wait for each other end the test
    std::thread busy([&stop] {
        for (int i = 0; !stop; ++i) {
            zoltLockCommon(TAG);
            (void)text(1, ("busy " + std::to_string(i) + " %d").c_str(), i);
            (void)text(1, ("then " + std::to_string(i) + " %d").c_str(), i);
            zoltUnlockCommon(TAG);
        }
    });
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(0, support::inChild([] { return 0; }));
    stop = true;
    busy.join();
    alarm(0);
}

FRESH_TEST(CatalogueBuilt, ItemsMoveToTheirPlaces) {
    compile("built", "root",
            "1 { \"%2$s: error %1$s at %3$s in %4$s, %5$d, 0x%6$x, %7$s %8$s %9$ls %10$f %11$c %12$p\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("built").c_str()));
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, support::lisText(&inner, "inner %d", 1));
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 1));
    ASSERT_EQ(0, qdlisAddOsError(&block, QDLIS_ERRNO, 2));
    ASSERT_EQ(0, qdlisAddNativeString(&block, "open"));
    ASSERT_EQ(0, qdlisAddDateTime(&block, 1700000000, 0));
    ASSERT_EQ(0, qdlisAddBlock(&block, &inner));
    ASSERT_EQ(0, qdlisAddSigned(&block, -7));
    ASSERT_EQ(0, qdlisAddUnsigned(&block, 255));
    ASSERT_EQ(0, qdlisAddUtf8String(&block, "utf8"));
    ASSERT_EQ(0, qdlisAddOsError(&block, QDLIS_OTHER_ERROR, 5));
    ASSERT_EQ(0, qdlisAddWideString(&block, L"wide"));
    ASSERT_EQ(0, qdlisAddDouble(&block, 0.5));
    ASSERT_EQ(0, qdlisAddWideChar(&block, L'W'));
    ASSERT_EQ(0, qdlisAddPointer(&block, reinterpret_cast<void *>(16)));
    EXPECT_EQ(0, qdlisLookUp(&block));
    EXPECT_EQ(
        "id=0 11:open 11:: error  6:0/2 11: at  8:1700000000.0 11: in  9:(id=0 11:inner  1:1) 11:,  1:-7 "
        "11:, 0x 11:ff 11:,  10:utf8 11:  7:1/5 11:  5:wide 11:  3:0.500000 11:  0:87 11:  4:16",
        describe(&block));
    EXPECT_EQ(0, qdlisLookUp(&block)); // no message number any more: nothing changes
    EXPECT_EQ(0, zoltLisFree(&block));
}

FRESH_TEST(CatalogueBuilt, ANestedBlockThatIsNotShownIsReleased) {
    compile("built", "root", "1 { \"only %1$d\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("built").c_str()));
    ZoltLisBlock inner = {};
    ASSERT_EQ(0, support::lisText(&inner, "inner"));
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 1, 1));
    ASSERT_EQ(0, qdlisAddSigned(&block, 7));
    ASSERT_EQ(0, qdlisAddBlock(&block, &inner));
    EXPECT_EQ(0, qdlisLookUp(&block));
    EXPECT_EQ("id=0 10:only  1:7", describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
}

FRESH_TEST(CatalogueBuilt, WhatDoesNotFitStaysAsItIs) {
    compile("built", "root", "1 { \"%1$s %1$s\" } 2 { \"%1$10s\" } 3 { \"%1$d\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("built").c_str()));
    for (int number : {1, 2, 3, 4}) { // twice, with a width, as an integer, no message
        ZoltLisBlock inner = {};
        ASSERT_EQ(0, support::lisText(&inner, "inner"));
        ZoltLisBlock block = {};
        ASSERT_EQ(0, qdlisBegin(&block, 0, number));
        ASSERT_EQ(0, qdlisAddBlock(&block, &inner));
        EXPECT_EQ(0, qdlisLookUp(&block));
        EXPECT_EQ("id=" + std::to_string(number) + " 9:(id=0 11:inner)", describe(&block));
        EXPECT_EQ(0, zoltLisFree(&block));
    }
}

FRESH_TEST(CatalogueBuilt, AFormatThatLooksLikeItsKeyIsAnotherMessage) {
    compile("built", "root", "1 { \"%1$d\" }");
    ASSERT_EQ(0, qdlisAddCatalog(here("built").c_str()));
    ZoltLisBlock block = {};
    ASSERT_EQ(0, qdlisBegin(&block, 0, 1));
    ASSERT_EQ(0, qdlisAddSigned(&block, 7));
    ASSERT_EQ(0, qdlisLookUp(&block)); // its items' types are remembered as "b"
    EXPECT_EQ("id=0 1:7", describe(&block));
    EXPECT_EQ(0, zoltLisFree(&block));
    EXPECT_EQ("id=1", items(0, 1, "b"));
}
