// SPDX-License-Identifier: Apache-2.0
// printf formats: their grammar, and what a conversion makes of a value.
//
//   conversion = "%" [position "$"] flags [width] ["." [precision]] [length] letter
//   position   = number from 1             all conversions of a format have one, or none
//   flags      = { "-" | "+" | " " | "#" | "0" | "'" | "I" }
//   width      = number | "*" [position "$"]           precision likewise
//   length     = "hh" | "h" | "l" | "ll" | "q" | "L" | "j" | "z" | "Z" | "t"
//   letter     = d i u o x X b B  e E f F g G a A  c C s S p m %
//
// "%n" writes to the caller's memory and is invalid, and so is whatever the
// grammar lacks. The look of everything is the C library's: a conversion that
// typed rendering would show differently is rendered here by snprintf.

#include "lis.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

enum Length : uint8_t { LENGTH_NONE, LENGTH_HH, LENGTH_H, LENGTH_L, LENGTH_LL, LENGTH_JZT };

const size_t SPEC_ROOM = 24;         // "%", seven flags, "*.*", "ll", a letter
const int MAX_CONVERSIONS = 1 << 20; // in one format; keeps the sizes below in bounds
const size_t FIRST_TRY = 128;        // bytes that most rendered values fit into

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A decimal number at *p, which moves behind it; -1 when it is beyond INT_MAX, 0 when
// there is none.
int number(const char **p) {
    const char *const end = *p + strspn(*p, "0123456789");
    unsigned value = 0;
    const auto read = std::from_chars(*p, end, value);
    *p = end;
    return read.ec == std::errc::result_out_of_range || value > INT_MAX ? -1 : static_cast<int>(value);
}

// "number$" at *p: the index it names. FROM_NEXT, with *p as it was, when there
// is none; FROM_NOWHERE when it is no valid position.
int position(const char **p) {
    const char *end = *p;
    const int value = number(&end);
    if (end == *p || *end != '$')
        return FROM_NEXT;
    if (value < 1 || value > MAX_ARGUMENTS)
        return FROM_NOWHERE;
    *p = end + 1;
    return value - 1;
}

uint8_t flagOf(char c) {
    switch (c) {
    case '-':
        return FLAG_LEFT;
    case '+':
        return FLAG_PLUS;
    case ' ':
        return FLAG_BLANK;
    case '#':
        return FLAG_ALTERNATE;
    case '0':
        return FLAG_ZERO;
    case '\'':
        return FLAG_GROUP;
    case 'I':
        return FLAG_DIGITS;
    default:
        return 0;
    }
}

// A width or precision after its introduction; false when it is invalid.
bool fieldSize(const char **p, int *from, int *value) {
    if (**p == '*') {
        ++*p;
        *from = position(p);
        return *from != FROM_NOWHERE;
    }
    *from = FROM_FORMAT;
    *value = number(p);
    return *value >= 0;
}

Length lengthOf(const char **p) {
    const char first = **p;
    switch (first) {
    case 'h':
    case 'l':
        ++*p;
        if (**p != first)
            return first == 'h' ? LENGTH_H : LENGTH_L;
        ++*p;
        return first == 'h' ? LENGTH_HH : LENGTH_LL;
    case 'q':
    case 'L':
        ++*p;
        return LENGTH_LL;
    case 'j':
    case 'z':
    case 'Z':
    case 't':
        ++*p;
        return LENGTH_JZT;
    default:
        return LENGTH_NONE;
    }
}

static_assert(sizeof(long) == 8 && sizeof(long long) == 8 && sizeof(size_t) == 8 && sizeof(int) == 4,
              "one fetch serves every 64-bit integer");

ArgumentType integerType(Length length, bool isSigned) {
    switch (length) {
    case LENGTH_HH:
        return {CLASS_INTEGER, FETCH_INT, 8, isSigned, false};
    case LENGTH_H:
        return {CLASS_INTEGER, FETCH_INT, 16, isSigned, false};
    case LENGTH_NONE:
        return {CLASS_INTEGER, FETCH_INT, 32, isSigned, false};
    default:
        return {CLASS_INTEGER, FETCH_LONG, 64, isSigned, false};
    }
}

// The type of the argument that letter takes; false for an unknown letter, and
// for a length that the letter gives no meaning.
bool argumentType(char letter, Length length, ArgumentType *type) {
    switch (letter) {
    case 'd':
    case 'i':
        *type = integerType(length, true);
        return true;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'b':
    case 'B':
        *type = integerType(length, false);
        return true;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        *type = {CLASS_FLOAT, length == LENGTH_LL ? FETCH_LONG_DOUBLE : FETCH_DOUBLE, 0, true, false};
        return length == LENGTH_NONE || length == LENGTH_L || length == LENGTH_LL;
    case 'c':
    case 's': {
        const bool wide = length == LENGTH_L;
        *type = {letter == 'c' ? CLASS_CHAR : CLASS_STRING,
                 letter == 's' ? FETCH_POINTER
                 : wide        ? FETCH_WINT
                               : FETCH_INT,
                 0, false, wide};
        return length == LENGTH_NONE || length == LENGTH_L || length == LENGTH_H;
    }
    case 'C':
    case 'S':
        *type = {letter == 'C' ? CLASS_CHAR : CLASS_STRING, letter == 'S' ? FETCH_POINTER : FETCH_WINT, 0,
                 false, true};
        return length == LENGTH_NONE || length == LENGTH_L;
    case 'p':
        *type = {CLASS_POINTER, FETCH_POINTER, 0, false, false};
        return length == LENGTH_NONE;
    case 'm':
    case '%':
        *type = {CLASS_NONE, FETCH_INT, 0, false, false};
        return true;
    default:
        return false;
    }
}

} // namespace

bool looksPlain(const Conversion &conversion) {
    if (conversion.flags != 0 || conversion.widthFrom != FROM_NOWHERE ||
        conversion.precisionFrom != FROM_NOWHERE)
        return false;
    switch (conversion.letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'c':
    case 's':
    case 'p':
        return true;
    case 'f':
        return conversion.type.fetch == FETCH_DOUBLE;
    default:
        return false;
    }
}

const char *parseConversion(const char *p, Conversion *conversion) {
    *conversion = {};
    conversion->widthFrom = FROM_NOWHERE;
    conversion->precisionFrom = FROM_NOWHERE;
    conversion->argument = position(&p);
    if (conversion->argument == FROM_NOWHERE)
        return nullptr;
    conversion->numbered = conversion->argument >= 0;
    for (uint8_t flag = flagOf(*p); flag != 0; flag = flagOf(*p)) {
        conversion->flags |= flag;
        ++p;
    }
    if ((*p == '*' || isDigit(*p)) && !fieldSize(&p, &conversion->widthFrom, &conversion->width))
        return nullptr;
    if (*p == '.') {
        ++p;
        if (!fieldSize(&p, &conversion->precisionFrom, &conversion->precision))
            return nullptr;
    }
    const Length length = lengthOf(&p);
    if (!argumentType(*p, length, &conversion->type))
        return nullptr;
    conversion->letter = *p == 'C' ? 'c' : *p == 'S' ? 's' : *p;
    if (conversion->type.what == CLASS_NONE)
        conversion->argument = FROM_NOWHERE;
    conversion->plain = looksPlain(*conversion);
    return p + 1;
}

void fetchValue(const ArgumentType &type, ArgumentList *args, Value *value) {
    switch (type.fetch) {
    case FETCH_INT:
        value->integer = va_arg(args->list, int);
        break;
    case FETCH_LONG:
        value->integer = va_arg(args->list, long);
        break;
    case FETCH_DOUBLE:
        value->real = va_arg(args->list, double);
        break;
    case FETCH_LONG_DOUBLE:
        value->longReal = va_arg(args->list, long double);
        break;
    case FETCH_POINTER:
        value->pointer = va_arg(args->list, const void *);
        break;
    case FETCH_WINT:
        value->integer = va_arg(args->list, wint_t);
        break;
    }
}

// ---- what a conversion makes of a value ----------------------------------------------------

namespace {

int64_t narrowed(const ArgumentType &type, int64_t fetched) {
    switch (type.bits) {
    case 8:
        return type.isSigned ? static_cast<int8_t>(fetched) : static_cast<uint8_t>(fetched);
    case 16:
        return type.isSigned ? static_cast<int16_t>(fetched) : static_cast<uint16_t>(fetched);
    case 32:
        return type.isSigned ? int64_t{static_cast<int32_t>(fetched)}
                             : int64_t{static_cast<uint32_t>(fetched)};
    default:
        return fetched;
    }
}

// The conversion as snprintf takes it, with width and precision as arguments. One
// that named its position does so again: the C library's look differs in places
// ("%2$0*1$d" with a negative width fills up with zeros).
void writeSpec(const Conversion &conversion, char *spec) {
    const bool hasWidth = conversion.widthFrom != FROM_NOWHERE;
    const bool hasPrecision = conversion.precisionFrom != FROM_NOWHERE;
    char place = '1';
    *spec++ = '%';
    if (conversion.numbered) {
        *spec++ = static_cast<char>('1' + hasWidth + hasPrecision);
        *spec++ = '$';
    }
    for (const char *c = "-+ #0'I"; *c != '\0'; ++c) {
        if ((conversion.flags & flagOf(*c)) != 0)
            *spec++ = *c;
    }
    if (hasWidth) {
        *spec++ = '*';
        if (conversion.numbered) {
            *spec++ = place++;
            *spec++ = '$';
        }
    }
    if (hasPrecision) {
        *spec++ = '.';
        *spec++ = '*';
        if (conversion.numbered) {
            *spec++ = place++;
            *spec++ = '$';
        }
    }
    const ArgumentType &type = conversion.type;
    const char *length = "";
    switch (type.what) {
    case CLASS_INTEGER:
        length = type.bits == 8 ? "hh" : type.bits == 16 ? "h" : type.bits == 64 ? "l" : "";
        break;
    case CLASS_FLOAT:
        length = type.fetch == FETCH_LONG_DOUBLE ? "L" : "";
        break;
    case CLASS_CHAR:
    case CLASS_STRING:
        length = type.wide ? "l" : "";
        break;
    default:
        break;
    }
    while (*length != '\0')
        *spec++ = *length++;
    *spec++ = conversion.letter;
    *spec = '\0';
}

template<typename Argument>
int format(char *out, size_t room, const char *spec, const Conversion &conversion, int width, int precision,
           Argument argument) {
    const bool hasWidth = conversion.widthFrom != FROM_NOWHERE;
    if (conversion.precisionFrom == FROM_NOWHERE)
        return hasWidth ? snprintf(out, room, spec, width, argument) : snprintf(out, room, spec, argument);
    return hasWidth ? snprintf(out, room, spec, width, precision, argument)
                    : snprintf(out, room, spec, precision, argument);
}

int formatValue(char *out, size_t room, const char *spec, const Conversion &conversion, const Value &value,
                int width, int precision) {
    const ArgumentType &type = conversion.type;
    if (type.what == CLASS_NONE) // %m takes no argument; one too many does not disturb
        return format(out, room, spec, conversion, width, precision, 0);
    switch (type.fetch) {
    case FETCH_LONG:
        return format(out, room, spec, conversion, width, precision, static_cast<long>(value.integer));
    case FETCH_DOUBLE:
        return format(out, room, spec, conversion, width, precision, value.real);
    case FETCH_LONG_DOUBLE:
        return format(out, room, spec, conversion, width, precision, value.longReal);
    case FETCH_POINTER:
        return format(out, room, spec, conversion, width, precision, value.pointer);
    case FETCH_WINT:
        return format(out, room, spec, conversion, width, precision, static_cast<wint_t>(value.integer));
    default:
        return format(out, room, spec, conversion, width, precision, static_cast<int>(value.integer));
    }
}

// Adds the conversion rendered by the C library.
void addRendered(Builder *builder, const Conversion &conversion, const Value &value, int width, int precision,
                 bool raw, int hostErrno) {
    char spec[SPEC_ROOM];
    writeSpec(conversion, spec);
    size_t room = 0;
    for (size_t least = FIRST_TRY;;) {
        char *out = scratchRoom(builder, least, &room);
        if (out == nullptr)
            return;
        errno = hostErrno; // for %m
        const int length = formatValue(out, room, spec, conversion, value, width, precision);
        if (length < 0) {
            if (errno == EILSEQ) { // a wide character that the locale's encoding lacks
                if (raw)
                    addNarrow(builder, narrowType(builder), out, 0);
            } else {
                builder->result = errno == ENOMEM ? ZOLTLIS_NO_MEMORY : ZOLTLIS_INVALID_ARGUMENT;
            }
            return;
        }
        const size_t size = static_cast<size_t>(length);
        if (size < room) {
            const size_t text = strlen(out);
            addNarrow(builder, narrowType(builder), out, text);
            if (text < size && !raw)
                builder->closed = true; // the text ends at the NUL character that was shown
            return;
        }
        least = size + 1;
    }
}

} // namespace

void addConversion(Builder *builder, const Conversion &conversion, const Value &value, int width,
                   int precision, bool raw, int hostErrno) {
    const ArgumentType &type = conversion.type;
    if (!conversion.plain) {
        addRendered(builder, conversion, value, width, precision, raw, hostErrno);
        return;
    }
    switch (type.what) {
    case CLASS_INTEGER: {
        const int64_t number = narrowed(type, value.integer);
        addValue(builder, type.isSigned ? ZOLTLIS_ITEM_SIGNED : ZOLTLIS_ITEM_UNSIGNED, number);
        break;
    }
    case CLASS_FLOAT:
        addValue(builder, ZOLTLIS_ITEM_DOUBLE, value.real);
        break;
    case CLASS_CHAR:
        if (type.wide) {
            addValue(builder, ZOLTLIS_ITEM_WIDE_CHAR, static_cast<wchar_t>(value.integer));
        } else {
            const char one = static_cast<char>(value.integer);
            addNarrow(builder, narrowType(builder), &one, 1);
        }
        if (value.integer == 0 || (!type.wide && static_cast<char>(value.integer) == '\0'))
            builder->closed = builder->closed || !raw; // as in addRendered
        break;
    case CLASS_STRING:
        if (value.pointer == nullptr)
            addNarrow(builder, narrowType(builder), "(null)", 6);
        else if (type.wide)
            addWide(builder, static_cast<const wchar_t *>(value.pointer));
        else
            addNarrow(builder, narrowType(builder), static_cast<const char *>(value.pointer),
                      strlen(static_cast<const char *>(value.pointer)));
        break;
    default:
        addValue(builder, ZOLTLIS_ITEM_POINTER, value.pointer);
    }
}

// ---- taking a format apart -------------------------------------------------------------------

namespace {

// The places of a format's arguments while it is taken apart.
struct Places {
    ArgumentType *arguments;
    int limit;
    int count;      // places known so far: the highest index + 1
    bool numbered;  // some conversion names its position
    bool following; // some conversion takes the next argument
};

const ArgumentType WIDTH_TYPE = {CLASS_INTEGER, FETCH_INT, 32, true, false};

// Gives *from its index and notes the type there; false when that is not valid.
bool place(Places *places, int *from, const ArgumentType &type) {
    if (*from == FROM_NEXT) {
        places->following = true;
        *from = places->count;
    } else {
        places->numbered = true;
    }
    if ((places->numbered && places->following) || *from >= places->limit)
        return false;
    ArgumentType *known = places->arguments + *from;
    if (*from >= places->count)
        places->count = *from + 1;
    if (known->what == CLASS_NONE)
        *known = type;
    return known->what == type.what && known->fetch == type.fetch && known->wide == type.wide;
}

} // namespace

LisResult compileFormat(const char *format, bool gapsAllowed, Program **out) {
    int percents = 0;
    for (const char *p = strchr(format, '%'); p != nullptr && percents < MAX_CONVERSIONS;
         p = strchr(p + 1, '%'))
        ++percents;
    if (percents == MAX_CONVERSIONS)
        return ZOLTLIS_INVALID_ARGUMENT;
    // At most a text before each conversion and one after the last. Without gaps the
    // positions are those of the conversions, their widths and their precisions.
    const size_t pieces = 2 * static_cast<size_t>(percents) + 1;
    const int limit = gapsAllowed || 3 * percents > MAX_ARGUMENTS ? MAX_ARGUMENTS : 3 * percents;
    const size_t room =
        sizeof(Program) + pieces * sizeof(Piece) + static_cast<size_t>(limit) * sizeof(ArgumentType);
    Program *program = static_cast<Program *>(calloc(1, room));
    if (program == nullptr)
        return ZOLTLIS_NO_MEMORY;
    program->pieces = reinterpret_cast<Piece *>(program + 1);
    program->arguments = reinterpret_cast<ArgumentType *>(program->pieces + pieces);
    Places places = {program->arguments, limit, 0, false, false};
    LisResult result = ZOLTLIS_INVALID_ARGUMENT;
    for (const char *p = format; *p != '\0';) {
        Piece *piece = program->pieces + program->pieceCount++;
        piece->text = p;
        if (*p != '%') {
            piece->size = strcspn(p, "%");
            p += piece->size;
            continue;
        }
        Conversion &shown = piece->shown;
        p = parseConversion(p + 1, &shown);
        if (p == nullptr)
            goto out;
        piece->size = static_cast<size_t>(p - piece->text);
        if (shown.widthFrom != FROM_NOWHERE && shown.widthFrom != FROM_FORMAT &&
            !place(&places, &shown.widthFrom, WIDTH_TYPE))
            goto out;
        if (shown.precisionFrom != FROM_NOWHERE && shown.precisionFrom != FROM_FORMAT &&
            !place(&places, &shown.precisionFrom, WIDTH_TYPE))
            goto out;
        if (shown.type.what != CLASS_NONE && !place(&places, &shown.argument, shown.type))
            goto out;
        if (shown.letter == '%') {
            piece->text = p - 1;
            piece->size = 1;
            shown = {};
        }
    }
    program->argumentCount = places.count;
    for (int i = 0; i < places.count && !gapsAllowed; ++i) {
        if (program->arguments[i].what == CLASS_NONE)
            goto out;
    }
    result = ZOLTLIS_OK;
out:
    if (result == ZOLTLIS_OK)
        *out = program;
    else
        free(program);
    return result;
}
