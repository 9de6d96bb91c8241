// A block from a format: zoltLisVEx and zoltLisTextV.

#include "lis.h"

#include <errno.h>
#include <stdlib.h>

namespace {

// The size that a width or precision has, which may come from the arguments.
int sizeFrom(int from, int inFormat, const Value *values) {
    return from >= 0 ? static_cast<int>(values[from].integer) : inFormat;
}

// A format whose conversions name their positions.
void addPositional(Builder *builder, const char *format, ArgumentList *args, bool rawOnly, int hostErrno) {
    Program *program = nullptr;
    Value *values = nullptr;
    Value few[STACK_ARGUMENTS];
    builder->result = compileFormat(format, false, &program);
    if (builder->result != LIS_OK)
        return;
    const size_t count = static_cast<size_t>(program->argumentCount);
    values = count <= STACK_ARGUMENTS ? few : static_cast<Value *>(malloc(count * sizeof *values));
    if (values == nullptr) {
        builder->result = LIS_NO_MEMORY;
        goto out;
    }
    for (size_t i = 0; i < count; ++i)
        fetchValue(program->arguments[i], args, values + i);
    if (rawOnly) {
        // Each argument as it is first shown; a width or precision alone is none.
        for (size_t i = 0; i < count; ++i) {
            for (size_t k = 0; k < program->pieceCount; ++k) {
                const Conversion &shown = program->pieces[k].shown;
                if (shown.letter == '\0' || shown.argument != static_cast<int>(i))
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

} // namespace

void addFormatted(Builder *builder, const char *format, ArgumentList *args, bool rawOnly, int hostErrno) {
    if (strchr(format, '$') != nullptr) {
        addPositional(builder, format, args, rawOnly, hostErrno);
        return;
    }
    for (const char *p = format; builder->result == LIS_OK;) {
        const char *percent = strchrnul(p, '%');
        if (!rawOnly)
            addLiteral(builder, p, static_cast<size_t>(percent - p));
        if (*percent == '\0')
            return;
        Conversion conversion;
        p = parseConversion(percent + 1, &conversion);
        if (p == nullptr) {
            builder->result = LIS_INVALID;
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

int32_t makeText(ZoltLisBlock *block, bool utf8, int64_t number, const char *format, ArgumentList *args) {
    const int hostErrno = errno;
    const Shown *shown = nullptr;
    if (number != 0) {
        const LisResult result = findMessage(number, utf8, format, &shown);
        if (result != LIS_OK)
            return result;
    }
    Builder builder;
    startBlock(&builder, utf8, 0);
    if (shown != nullptr) {
        addShown(&builder, shown, args, hostErrno);
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
        return LIS_INVALID;
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
