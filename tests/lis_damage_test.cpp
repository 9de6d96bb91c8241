// SPDX-License-Identifier: Apache-2.0
// Catalogues that are cut or changed at random, in every version of the file, alone and as a
// package in one file: every operation on them ends, what is cut is missing, and no byte
// outside of the file is read (the sanitizers tell).
#include "support/cases.h"
#include "support/lis_items.h"
#include "support/support.h"
#include "zoltlog.h"

#include <clocale>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "qdlis.h"

namespace {

using Random = std::mt19937;

constexpr int64_t IN_BOTH = 1;     // the root's text and the locale's
constexpr int64_t IN_ROOT = 2;     // the root's text alone
constexpr int64_t IN_NEITHER = 99; // no text

size_t below(Random &random, size_t end) {
    return std::uniform_int_distribution<size_t>(0, end - 1)(random);
}

// A catalogue of root and "de" as its files' bytes.
struct Catalogue {
    std::string root;
    std::string german;
    std::string packed; // both, in one file
};

std::string compiled(const std::string &locale, const std::string &messages, const std::string &version) {
    support::makeDirectory("made/m");
    support::writeFile("made/" + locale + ".txt", locale + " {\n" + messages + "\n}\n");
    const support::Finished done = support::run({"genrb", "-q", "--formatVersion", version, "-e", "UTF-8",
                                                 "-s", "made", "-d", "made/m", locale + ".txt"});
    EXPECT_EQ(0, done.status) << done.out << done.err;
    return support::readFile("made/m/" + locale + ".res");
}

Catalogue makeCatalogue(const std::string &version, int messages) {
    std::string both;
    for (int number = 100; number < 100 + messages; ++number)
        both += std::to_string(number) + " { \"%1$s of %2$d in " +
                std::string(static_cast<size_t>(number % 70), 'm') + "\" }\n" + std::to_string(number) +
                std::string(60, 'x') + " { \"advice\" }\n";
    Catalogue made;
    made.root = compiled(
        "root",
        "1 { \"root %1$s\" } 2 { \"only root %1$s\" } 3 { t { \"a table\" } } 4:int { 7 } 5 { \"\" }" + both,
        version);
    made.german = compiled("de", "1 { \"de %1$s\" } 6 { \"%1$08x %2$-5s|%1$*2$d\" }" + both, version);
    support::writeFile("made/list.txt", "de.res\nroot.res\n");
    support::makeDirectory("made/temporary");
    const support::Finished done = support::run({"pkgdata", "-q", "-m", "common", "-p", "m", "-s", "made/m",
                                                 "-d", "made", "-T", "made/temporary", "made/list.txt"});
    EXPECT_EQ(0, done.status) << done.out << done.err;
    made.packed = support::readFile("made/m.dat");
    return made;
}

template<typename... Values>
std::string text(int64_t number, const char *format, Values... values) {
    ZoltLisBlock block = {};
    if (support::lisMessage(&block, 1, number, format, values...) != 0)
        return "failed";
    char buffer[10000] = "";
    size_t size = sizeof buffer;
    (void)support::describe(&block);
    const std::string shown = strncatlis(buffer, &size, &block) != nullptr ? buffer : "failed";
    (void)zoltLisFree(&block);
    return shown;
}

// Every operation that looks into a catalogue.
void useAll() {
    for (const int64_t number : {IN_BOTH, IN_ROOT, int64_t{3}, int64_t{4}, int64_t{5}, int64_t{6},
                                 int64_t{100}, int64_t{131}, int64_t{-1}, INT64_MAX, IN_NEITHER}) {
        (void)text(number, "no argument");
        (void)text(number, "%s", "s");
        (void)text(number, "%s %d", "s", 7);
        (void)text(number, "%2$d %1$s", "s", 7);
        (void)text(number, "%d %s", 7, "s");
        (void)text(number, "%d %d", 7, 7);
        for (const uint32_t utf8 : {0u, 1u}) {
            ZoltLisBlock block = {};
            (void)qdlisBegin(&block, utf8, number);
            (void)qdlisAddUtf8String(&block, "s");
            (void)qdlisAddSigned(&block, 7);
            (void)qdlisLookUp(&block);
            (void)support::describe(&block);
            (void)zoltLisFree(&block);
        }
    }
}

// Runs use on a catalogue "m" of these files in a process that has seen none; in the locale de.
// A file that is left out is "".
int withFiles(const std::string &root, const std::string &german, const std::string &packed,
              const std::function<bool()> &holds) {
    for (const auto &[name, bytes] :
         {std::pair{"m/root.res", &root}, {"m/de.res", &german}, {"m.dat", &packed}}) {
        if (bytes->empty())
            (void)remove(name);
        else
            support::writeFile(name, *bytes);
    }
    return support::inChild([&] {
        if (qdlisAddCatalog("m") != 0 || std::setlocale(LC_MESSAGES, "C") == nullptr)
            return 2;
        useAll();
        if (!support::useLocale("de_DE.UTF-8"))
            return 3;
        useAll();
        return holds() ? 0 : 1;
    });
}

const char FALLBACK[] = "[Cannot find catalog for message id=";

bool isMissing(int64_t number) {
    return text(number, "%s", "s") == FALLBACK + std::to_string(number) + "] s";
}

std::vector<Catalogue> allCatalogues() {
    std::vector<Catalogue> all;
    for (const char *version : {"1", "2", "3"})
        all.push_back(makeCatalogue(version, 2));
    all.push_back(makeCatalogue("2", 900)); // of more than 64 KB of keys
    support::makeDirectory("m");
    return all;
}

// The end of the bytes that mean something: a package is filled up behind its last item.
size_t meantSize(const std::string &packed) {
    const size_t last = packed.find_last_not_of('\xaa');
    return last == std::string::npos ? packed.size() : last + 1;
}

void cutAtRandom(int rounds) {
    const std::vector<Catalogue> all = allCatalogues();
    Random random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same cuts each time
    const std::string none;
    for (int round = 0; round < rounds; ++round) {
        const Catalogue &whole = all[below(random, all.size())];
        int status = 0;
        size_t size = 0;
        switch (round % 3) {
        case 0:
            size = below(random, whole.german.size());
            status = withFiles(whole.root, whole.german.substr(0, size), none, [] {
                return text(IN_BOTH, "%s", "s") == "root s" && text(IN_ROOT, "%s", "s") == "only root s";
            });
            break;
        case 1:
            size = below(random, whole.root.size());
            status = withFiles(whole.root.substr(0, size), whole.german, none,
                               [] { return text(IN_BOTH, "%s", "s") == "de s" && isMissing(IN_ROOT); });
            break;
        default:
            // The root is the last item.
            size = below(random, meantSize(whole.packed) - 4);
            status = withFiles(none, none, whole.packed.substr(0, size), [] { return isMissing(IN_ROOT); });
        }
        ASSERT_EQ(0, status) << "round " << round << ", " << size << " bytes";
    }
}

// Some bytes become others; most often of the index and the tables, where it matters.
std::string changed(Random &random, std::string bytes) {
    static const unsigned char TELLING[] = {0x00, 0x01, 0x7f, 0x80, 0xdc, 0xdf, 0xef, 0xff};
    const size_t count = 1 + below(random, 8);
    for (size_t i = 0; i < count; ++i) {
        const size_t end = below(random, 2) == 0 ? bytes.size() : std::min<size_t>(bytes.size(), 200);
        const size_t at = below(random, end);
        bytes[at] = static_cast<char>(below(random, 2) == 0 ? below(random, 256)
                                                            : TELLING[below(random, sizeof TELLING)]);
    }
    return bytes;
}

void changeAtRandom(int rounds) {
    const std::vector<Catalogue> all = allCatalogues();
    Random random(2); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same changes each time
    const std::string none;
    for (int round = 0; round < rounds; ++round) {
        const Catalogue &whole = all[below(random, all.size())];
        const auto always = [] { return true; };
        int status = 0;
        switch (round % 3) {
        case 0:
            status = withFiles(whole.root, changed(random, whole.german), none, always);
            break;
        case 1:
            status = withFiles(changed(random, whole.root), whole.german, none, always);
            break;
        default:
            status = withFiles(none, none, changed(random, whole.packed), always);
        }
        ASSERT_EQ(0, status) << "round " << round;
    }
}

} // namespace

FRESH_TEST(CatalogueDamage, WholeCataloguesAreReadByAllOperations) {
    for (const Catalogue &whole : allCatalogues()) {
        const auto holds = [] {
            return text(IN_BOTH, "%s", "s") == "de s" && text(IN_ROOT, "%s", "s") == "only root s";
        };
        EXPECT_EQ(0, withFiles(whole.root, whole.german, "", holds));
        EXPECT_EQ(0, withFiles("", "", whole.packed, holds));
        EXPECT_EQ(0, withFiles("", "", "", [] { return isMissing(IN_BOTH); }));
    }
}

FRESH_TEST(CatalogueDamage, WhatIsCutIsMissing) {
    cutAtRandom(150);
}

FRESH_TEST(CatalogueDamage, WhatIsChangedIsNoHarm) {
    changeAtRandom(150);
}

FRESH_TEST(LongCatalogueDamage, FiveThousandCuts) {
    cutAtRandom(5000);
}

FRESH_TEST(LongCatalogueDamage, FiveThousandChanges) {
    changeAtRandom(5000);
}
