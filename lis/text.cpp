// SPDX-License-Identifier: Apache-2.0
// A block from a format: zoltLisVEx and zoltLisTextV.

#include "lis.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "qdlis.h"

namespace {

// The values of all arguments: few where they fit there, else on the heap; null
// without memory.
Value *fetchAll(const ArgumentType *types, int count, ArgumentList *args, Value (&few)[STACK_ARGUMENTS]) {
    const size_t size = static_cast<size_t>(count);
    Value *values = size <= STACK_ARGUMENTS ? few : static_cast<Value *>(malloc(size * sizeof *values));
    for (size_t i = 0; values != nullptr && i < size; ++i)
        fetchValue(types[i], args, values + i);
    return values;
}

// A format whose conversions name their positions.
void addPositional(Builder *builder, const char *format, ArgumentList *args, bool rawOnly, int hostErrno) {
    Program *program = nullptr;
    Value *values = nullptr;
    Value few[STACK_ARGUMENTS];
    builder->result = compileFormat(format, false, &program);
    if (builder->result != ZOLTLIS_OK)
        return;
    values = fetchAll(program->arguments, program->argumentCount, args, few);
    if (values == nullptr) {
        builder->result = ZOLTLIS_NO_MEMORY;
        goto out;
    }
    if (rawOnly) {
        // Each argument as it is first shown; a width or precision alone is none.
        for (int i = 0; i < program->argumentCount; ++i) {
            for (size_t k = 0; k < program->pieceCount; ++k) {
                const Conversion &shown = program->pieces[k].shown;
                if (shown.letter == '\0' || shown.argument != i)
                    continue;
                addConversion(builder, shown, values[i], sizeFrom(shown.widthFrom, shown.width, values),
                              sizeFrom(shown.precisionFrom, shown.precision, values), true, hostErrno);
                break;
            }
        }
        goto out;
    }
    for (size_t k = 0; k < program->pieceCount; ++k) {
        const Piece &piece = program->pieces[k];
        const Conversion &shown = piece.shown;
        if (shown.letter == '\0')
            addLiteral(builder, piece.text, piece.size);
        else
            addConversion(builder, shown, shown.argument >= 0 ? values[shown.argument] : Value(),
                          sizeFrom(shown.widthFrom, shown.width, values),
                          sizeFrom(shown.precisionFrom, shown.precision, values), false, hostErrno);
    }
out:
    if (values != few)
        free(values);
    free(program);
}

// A width or precision of a conversion that takes its arguments one by one.
int nextSize(int from, int inFormat, ArgumentList *args) {
    return from == FROM_NEXT ? va_arg(args->list, int) : inFormat;
}

// The conversions that most formats consist of, without the way through a
// Conversion. false for every other one.
inline bool addCommon(Builder *builder, char letter, ArgumentList *args) {
    switch (letter) {
    case 's': {
        const char *text = va_arg(args->list, const char *);
        if (text == nullptr)
            text = "(null)";
        addNarrow(builder, narrowType(builder), text, strlen(text));
        return true;
    }
    case 'd':
        addValue(builder, ZOLTLIS_ITEM_SIGNED, int64_t{va_arg(args->list, int)});
        return true;
    case 'u':
        addValue(builder, ZOLTLIS_ITEM_UNSIGNED, uint64_t{va_arg(args->list, unsigned)});
        return true;
    default:
        return false;
    }
}

} // namespace

void addFormatted(Builder *builder, const char *format, ArgumentList *args, bool rawOnly, int hostErrno) {
    if (strchr(format, '$') != nullptr) {
        addPositional(builder, format, args, rawOnly, hostErrno);
        return;
    }
    for (const char *p = format; builder->result == ZOLTLIS_OK;) {
        const char *percent = strchrnul(p, '%');
        if (!rawOnly)
            addLiteral(builder, p, static_cast<size_t>(percent - p));
        if (*percent == '\0')
            return;
        if (addCommon(builder, percent[1], args)) {
            p = percent + 2;
            continue;
        }
        Conversion conversion;
        p = parseConversion(percent + 1, &conversion);
        if (p == nullptr) {
            builder->result = ZOLTLIS_INVALID_ARGUMENT;
            return;
        }
        const int width = nextSize(conversion.widthFrom, conversion.width, args);
        const int precision = nextSize(conversion.precisionFrom, conversion.precision, args);
        Value value;
        if (conversion.type.what != CLASS_NONE)
            fetchValue(conversion.type, args, &value);
        else if (rawOnly)
            continue; // no argument
        if (conversion.letter == '%')
            addLiteral(builder, "%", 1);
        else
            addConversion(builder, conversion, value, width, precision, rawOnly, hostErrno);
    }
}

namespace {

// Adds the items that a catalogue's pattern makes of the arguments.
void addFound(Builder *builder, const Shown *shown, ArgumentList *args, int hostErrno) {
    const ArgumentType *types;
    const int count = shownArguments(shown, &types);
    Value few[STACK_ARGUMENTS];
    few[0] = {}; // there may be no argument at all
    Value *values = fetchAll(types, count, args, few);
    if (values == nullptr) {
        builder->result = ZOLTLIS_NO_MEMORY;
        return;
    }
    addShown(builder, shown, values, nullptr, hostErrno);
    if (values != few)
        free(values);
}

int32_t makeText(ZoltLisBlock *block, bool utf8, int64_t number, const char *format, ArgumentList *args) {
    const int hostErrno = errno;
    const Shown *shown = nullptr;
    if (number != 0) {
        const LisResult result = findMessage(number, utf8, format, &shown);
        if (result != ZOLTLIS_OK)
            return result;
    }
    Builder builder;
    startBlock(&builder, utf8, 0);
    if (shown != nullptr) {
        addFound(&builder, shown, args, hostErrno);
        releaseMessage(shown);
        number = 0;
    } else {
        addFormatted(&builder, format, args, number != 0, hostErrno);
    }
    const int32_t result = finishBlock(&builder, block, number);
    errno = hostErrno;
    return result;
}

} // namespace

extern "C" int32_t zoltLisVEx(ZoltLisBlock *block, uint32_t utf8, int64_t messageNumber, const char *format,
                              va_list args) {
    if (block == nullptr || format == nullptr)
        return ZOLTLIS_INVALID_ARGUMENT;
    *block = {};
    ArgumentList list;
    va_copy(list.list, args);
    const int32_t result = makeText(block, utf8 != 0, messageNumber, format, &list);
    va_end(list.list);
    return result;
}

extern "C" int32_t zoltLisTextV(ZoltLisBlock *block, const char *reference, va_list args) {
    return zoltLisVEx(block, 0, 0, reference, args);
}

// ---- text at once ------------------------------------------------------------------------

namespace {

const size_t MAX_DIGITS = 20; // of a 64-bit number, with its sign

// Text that is put together in the caller's room.
struct PlainText {
    char *at;
    char *const end; // of the room for characters
    bool fits = true;

    void put(const char *bytes, size_t count) {
        fits = fits && count <= static_cast<size_t>(end - at);
        if (!fits)
            return;
        memcpy(at, bytes, count);
        at += count;
    }
    template<typename Number>
    void putNumber(Number value) {
        char digits[MAX_DIGITS];
        put(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, value).ptr - digits));
    }
};

// The conversion behind a '%', when it is a common one: the first character after it,
// else null.
const char *putCommon(PlainText *text, const char *p, ArgumentList *args) {
    bool isLong = false;
    if (*p == 'l' || *p == 'z') {
        isLong = true;
        p += *p == 'l' && p[1] == 'l' ? 2 : 1;
    }
    switch (*p) {
    case 'd':
        text->putNumber(isLong ? va_arg(args->list, int64_t) : va_arg(args->list, int));
        return p + 1;
    case 'u':
        text->putNumber(isLong ? va_arg(args->list, uint64_t) : va_arg(args->list, unsigned));
        return p + 1;
    case 's': {
        if (isLong)
            return nullptr;
        const char *string = va_arg(args->list, const char *);
        if (string == nullptr)
            string = "(null)";
        text->put(string, strlen(string));
        return p + 1;
    }
    case '%':
        if (isLong)
            return nullptr;
        text->put("%", 1);
        return p + 1;
    default:
        return nullptr;
    }
}

} // namespace

extern "C" int64_t qdlisFormat(QdlisTextVFn textV, char *buffer, size_t size, const char *format,
                               va_list args) {
    if (textV != zoltLisTextV || format == nullptr || size == 0)
        return -1;
    PlainText text = {buffer, buffer + size - 1};
    ArgumentList list;
    va_copy(list.list, args);
    for (const char *p = format; p != nullptr && text.fits;) {
        const char *percent = strchrnul(p, '%');
        text.put(p, static_cast<size_t>(percent - p));
        if (*percent == '\0') {
            va_end(list.list);
            *text.at = '\0';
            return text.fits ? text.at - buffer : -1;
        }
        p = putCommon(&text, percent + 1, &list);
    }
    va_end(list.list);
    return -1;
}
