// SPDX-License-Identifier: Apache-2.0
// For every printf format and arguments that match it, the text that the library
// makes is the text that the C library makes.

#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/argument_list.h"
#include "support/results.h"
#include "support/support.h"
#include "zoltlog.h"

using support::Arguments;

namespace {

const char *const STRINGS[] = {"",
                               "x",
                               "/var/log",
                               "a longer text with blanks, commas, and %s in it",
                               "gr\xc3\xbc\xc3\x9f dich",
                               "\xff\xfe not UTF-8",
                               nullptr};
const wchar_t *const WIDE_STRINGS[] = {
    L"", L"w", L"wide text", L"gr\u00fc\u00df", L"\u65e5\u672c\u8a9e", L"\xd800 alone", nullptr};

class Generator {
  public:
    explicit Generator(unsigned seed) : random(seed) {}

    std::string format;
    Arguments arguments;

    void generate(bool positional) {
        const int conversions = below(6);
        std::vector<int> order;
        addLiteral();
        for (int i = 0; i < conversions; ++i) {
            addConversion(positional);
            addLiteral();
        }
    }

  private:
    int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
    bool oneIn(int n) { return below(n) == 0; }

    void addLiteral() {
        static const char *const PIECES[] = {"",         " ",  "disk ", ", ", "100%%",
                                             "\xc3\xa4", "\n", "%%%%",  "a$b"};
        format += PIECES[below(std::size(PIECES))];
    }

    // The position of the argument that is added next.
    std::string next(bool positional) {
        ++position;
        return positional ? std::to_string(position) + "$" : "";
    }

    template<typename Value>
    void addNumber() {
        static const int64_t VALUES[] = {0,       1,         -1,        7,         42,       -42,
                                         127,     128,       255,       256,       32767,    65535,
                                         1000000, INT32_MAX, INT32_MIN, INT64_MAX, INT64_MIN};
        const int64_t value = oneIn(3) ? static_cast<int64_t>(random() * 2862933555777941757u)
                                       : VALUES[below(std::size(VALUES))];
        arguments.addInteger(static_cast<Value>(value));
    }

    double real() {
        static const double VALUES[] = {0,
                                        -0.0,
                                        1,
                                        0.5,
                                        -2.25,
                                        3.14159265358979,
                                        1e10,
                                        1e300,
                                        -1e300,
                                        1e-300,
                                        123456789.987654321,
                                        std::numeric_limits<double>::infinity(),
                                        std::numeric_limits<double>::quiet_NaN(),
                                        std::numeric_limits<double>::max(),
                                        std::numeric_limits<double>::denorm_min()};
        return VALUES[below(std::size(VALUES))];
    }

    void addConversion(bool positional) {
        std::string flags;
        std::string width;
        std::string precision;
        static const char *const LETTERS[] = {"d", "i", "u", "o", "x", "X", "e", "E", "f", "F", "g", "G",
                                              "a", "A", "c", "C", "s", "S", "m", "%", "s", "d", "b"};
        const std::string letter = LETTERS[below(std::size(LETTERS))];
        // A number's position comes first in the text, its width's argument first in the list.
        if (!oneIn(3)) {
            for (const char *flag : {"-", "+", " ", "#", "0", "'"}) {
                if (oneIn(6))
                    flags += flag;
            }
            if (oneIn(3)) {
                width = std::to_string(below(30));
                if (width == "0" || width[0] == '0')
                    width = "";
            } else if (oneIn(5)) {
                width = "*" + next(positional);
                arguments.addInteger(below(60) - 30);
            }
            if (oneIn(3)) {
                precision = "." + (oneIn(4) ? std::string() : std::to_string(below(20)));
            } else if (oneIn(5)) {
                precision = ".*" + next(positional);
                arguments.addInteger(below(30) - 10);
            }
        }
        std::string length;
        std::string where;
        if (letter == "m" || letter == "%") {
            // no argument
        } else if (std::strchr("diuoxXb", letter[0]) != nullptr) {
            where = next(positional);
            static const char *const LENGTHS[] = {"", "hh", "h", "l", "ll", "q", "j", "z", "t", "", ""};
            length = LENGTHS[below(std::size(LENGTHS))];
            if (positional && length == "q")
                length = "ll"; // the C library takes an int for "%1$qd"
            if (length.empty() || length[0] == 'h')
                addNumber<int>();
            else
                addNumber<long>();
        } else if (std::strchr("eEfFgGaA", letter[0]) != nullptr) {
            where = next(positional);
            if (oneIn(4)) {
                length = "L";
                arguments.addLongDouble(static_cast<long double>(real()) / 3);
            } else {
                length = oneIn(4) ? "l" : "";
                arguments.addDouble(real());
            }
        } else if (letter == "c" && !oneIn(3)) {
            where = next(positional);
            arguments.addInteger(oneIn(8) ? 0 : 32 + below(224));
        } else if (letter == "c" || letter == "C") {
            where = next(positional);
            length = letter == "c" ? "l" : "";
            static const wint_t VALUES[] = {L'a', L'\u00e4', L'\u20ac', 0, 0xd800};
            arguments.addInteger(VALUES[below(std::size(VALUES))]);
        } else if (letter == "s" && !oneIn(4)) {
            where = next(positional);
            arguments.addInteger(STRINGS[below(std::size(STRINGS))]);
        } else {
            where = next(positional);
            length = letter == "s" ? "l" : "";
            arguments.addInteger(WIDE_STRINGS[below(std::size(WIDE_STRINGS))]);
        }
        format += "%" + where + flags + width + precision + length + letter;
    }

    std::mt19937_64 random;
    int position = 0;
};

// Compares the texts of count generated formats; those that the C library cannot
// render (a wide character outside the locale's encoding) are left out.
void compareTexts(unsigned seed, int count) {
    int compared = 0;
    std::vector<char> expected(1 << 20);
    for (int i = 0; compared < count; ++i) {
        Generator generator(seed + static_cast<unsigned>(i));
        generator.generate(i % 3 == 0);
        va_list list;
        generator.arguments.start(list);
        errno = ENOENT;
        const int length = vsnprintf(expected.data(), expected.size(), generator.format.c_str(), list);
        if (length < 0)
            continue;
        char *text = nullptr;
        generator.arguments.start(list);
        errno = ENOENT;
        ASSERT_RESULT(ZOLTLOG_OK, listxt_svnprintf(&text, generator.format.c_str(), list));
        ASSERT_NE(nullptr, text) << "seed " << seed + static_cast<unsigned>(i) << " format "
                                 << generator.format;
        ASSERT_STREQ(expected.data(), text)
            << "seed " << seed + static_cast<unsigned>(i) << " format " << generator.format;
        zoltLogFree(text);
        ++compared;
    }
}

} // namespace

TEST(TextProperty, EqualsVsnprintfInTheCLocale) {
    compareTexts(1, 6000);
}

TEST(TextProperty, EqualsVsnprintfInAUtf8Locale) {
    ASSERT_TRUE(support::useLocale("C.UTF-8"));
    compareTexts(100000, 6000);
}

TEST(TextProperty, EqualsVsnprintfWithADecimalComma) {
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    compareTexts(200000, 3000);
}

TEST(TextProperty, EqualsVsnprintfInAMultibyteLocale) {
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    compareTexts(300000, 3000);
}
