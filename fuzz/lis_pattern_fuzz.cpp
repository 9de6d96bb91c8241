// SPDX-License-Identifier: Apache-2.0
// Formats and catalogue patterns of any bytes. The input is a program's format, a
// NUL and a catalogue's pattern. What the format makes of arguments that match it
// has to be what printf makes of them; the pattern may fit or not, but must never
// read an argument as something that it is not (the sanitizers tell).
//
// The localization library is compiled in, to reach patterns without a bundle.
#include "lis/block.cpp"
#include "lis/format.cpp"
#include "lis/text.cpp"

#include "lis/catalog.cpp"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qdlis.h"
#include "tests/support/argument_list.h"
#include "zoltlog.h"

namespace {

constexpr int MOST_DIGITS = 4; // of a number in the input: larger ones only take time

bool hasLargeNumber(const std::string &text) {
    int digitsInARow = 0;
    for (char c : text) {
        digitsInARow = isDigit(c) ? digitsInARow + 1 : 0;
        if (digitsInARow > MOST_DIGITS)
            return true;
    }
    return false;
}

// Arguments that match the types, the same ones every time.
void addMatching(support::Arguments &arguments, const ArgumentType &type, int index) {
    static const char *const STRINGS[] = {"text", "", "gr\xc3\xbc\xc3\x9f", nullptr};
    static const wchar_t *const WIDE[] = {L"wide", L"", L"\u20ac", nullptr};
    switch (type.fetch) {
    case FETCH_INT:
        arguments.addInteger(index * 37 - 40);
        break;
    case FETCH_LONG:
        arguments.addInteger(int64_t{index} * 1234567890123 - 5);
        break;
    case FETCH_DOUBLE:
        arguments.addDouble(index * 1.25 - 1);
        break;
    case FETCH_LONG_DOUBLE:
        arguments.addLongDouble(index * 1.25L - 1);
        break;
    case FETCH_POINTER:
        if (type.what == CLASS_STRING && type.wide)
            arguments.addInteger(WIDE[index % 4]);
        else
            arguments.addInteger(STRINGS[index % 4]);
        break;
    case FETCH_WINT:
        arguments.addInteger(static_cast<wint_t>(index % 3 == 0 ? 0x20ac : 'a' + index % 20));
        break;
    }
}

void compareWithPrintf(const std::string &format, support::Arguments &arguments, const Program &program) {
    bool comparable = true;
    for (size_t i = 0; i < program.pieceCount; ++i) {
        const Piece &piece = program.pieces[i];
        const std::string spec(piece.text, piece.size);
        const char letter = piece.shown.letter;
        // A pointer has a look of its own. For "%qd" and "%Ld" the C library takes an int
        // in a format with positions, or with an odd conversion such as "% %".
        if (letter == 'p' ||
            (piece.shown.type.what == CLASS_INTEGER && spec.find_first_of("qL") != std::string::npos))
            comparable = false;
    }
    static std::vector<char> expected(1 << 20);
    va_list list;
    arguments.start(list);
    errno = ENOENT;
    const int length = vsnprintf(expected.data(), expected.size(), format.c_str(), list);
    char *text = nullptr;
    arguments.start(list);
    errno = ENOENT;
    if (listxt_svnprintf(&text, format.c_str(), list) != 0 || text == nullptr)
        abort();
    if (comparable && length >= 0 && static_cast<size_t>(length) < expected.size() &&
        strcmp(expected.data(), text) != 0) {
        fprintf(stderr, "format '%s'\nprintf '%s'\nours   '%s'\n", format.c_str(), expected.data(), text);
        abort();
    }
    zoltLogFree(text);
}

// Shows the arguments in the pattern's words, if it fits.
void showPattern(const std::string &format, const std::string &pattern, support::Arguments &arguments,
                 bool utf8) {
    Shown *shown = static_cast<Shown *>(calloc(1, sizeof(Shown)));
    if (shown == nullptr)
        abort();
    shown->utf8 = utf8;
    const Request request = {1, utf8, false, format.c_str(), nullptr, 0};
    if (copyArguments(shown, request) != ZOLTLIS_OK || applyPattern(shown, pattern.c_str()) != ZOLTLIS_OK)
        abort();
    if (shown->found) {
        ArgumentList args;
        arguments.start(args.list);
        Builder builder;
        startBlock(&builder, utf8, 0);
        addFound(&builder, shown, &args, ENOENT);
        ZoltLisBlock block;
        const int32_t result = finishBlock(&builder, &block, 0);
        if (result != ZOLTLIS_OK && result != ZOLTLIS_INVALID_ARGUMENT)
            abort();
        static std::vector<char> buffer(1 << 16);
        size_t size = buffer.size();
        buffer[0] = '\0';
        if (strncatlis(buffer.data(), &size, &block) == nullptr)
            abort();
        zoltLisFree(&block);
    }
    freeShown(shown);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *const locale = setlocale(LC_ALL, "C.UTF-8");
    (void)locale;
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t end = input.find('\0');
    const std::string format = input.substr(0, end);
    const std::string pattern = end == std::string::npos ? "" : input.substr(end + 1);
    char letters[32];
    (void)qdlisPatternArguments(pattern.c_str(), letters, sizeof letters);
    if (hasLargeNumber(input))
        return 0;
    Program *program;
    if (compileFormat(format.c_str(), false, &program) != ZOLTLIS_OK)
        return 0;
    support::Arguments arguments;
    for (int i = 0; i < program->argumentCount; ++i)
        addMatching(arguments, program->arguments[i], i);
    compareWithPrintf(format, arguments, *program);
    showPattern(format, pattern, arguments, false);
    showPattern(format, pattern, arguments, true);
    free(program);
    return 0;
}
