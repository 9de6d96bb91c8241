// SPDX-License-Identifier: Apache-2.0
// Message catalogues: ICU resource bundles with decimal numbers as top-level keys
// and printf patterns as texts.
//
// The path of a message, fastest first:
//   1. a View is what the catalogues say in one locale and encoding; it holds the
//      messages seen so far, each with the format it was asked with. Views and
//      their messages are only ever added, so reading them takes no lock.
//   2. a message not seen before is looked up in the view's bundles, its pattern
//      taken apart and fitted to the format's arguments, all under one mutex.
//      What is missing is remembered too.
//   3. a locale not seen before makes a new view.
// Everything lives until the process ends or the library is unloaded. The mutex is held across fork, so that
// a child never finds it, or a lock inside ICU, taken by a thread it does not have.

#include "bundle.h"
#include "keep_loaded.h"
#include "lis.h"
#include "utf8.h"

#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <langinfo.h>
#include <pthread.h>
#include <unicode/ustring.h>
#include <unistd.h>

// A piece of a message: ready text items (the conversion's letter is NUL), at an
// offset of the message's texts, or a shown argument.
struct ShownPiece {
    size_t start;
    size_t size;
    Conversion shown;
};

// A message as it is shown, or known to be missing. Never changed once it is in
// a view's slot.
struct Shown {
    Shown *next; // in its slot
    int64_t number;
    bool utf8;
    bool built;
    bool found;
    bool temporary; // not kept in a slot: released by its one user
    size_t pieceCount;
    ShownPiece *pieces;
    Storage *texts; // what the pieces' ready items lie in
    int argumentCount;
    ArgumentType *arguments; // as the format takes them
    char format[];
};

namespace {

const size_t MAX_CATALOGS = 32;
const unsigned SLOT_BITS = 12;   // of a view
const unsigned MAX_IN_SLOT = 32; // messages of one slot beyond these are not kept
const size_t KEY_ROOM = 24;      // a 64-bit number
const int32_t UTF8_PER_UNIT = 3; // bytes of UTF-8 for one UTF-16 unit, at most

struct View {
    View *next;
    unsigned version;   // of the list of catalogues
    const char *locale; // as setlocale tells it
    const char *codeset;
    size_t bundleCount;
    Bundle *bundles[MAX_CATALOGS]; // null: no such catalogue
    Shown *slots[1 << SLOT_BITS];
    char names[]; // of locale and codeset
};

// The catalogues of the process, changed under the mutex. version and views are
// also read without it.
struct Catalogs {
    pthread_mutex_t mutex;
    char *packages[MAX_CATALOGS];
    size_t count;
    unsigned version; // 0: QDLIS_CATALOG has not been read yet
    View *views;
};
Catalogs catalogs = {PTHREAD_MUTEX_INITIALIZER, {}, 0, 0, nullptr};

int cancelStateBefore; // of the thread that holds the mutex, which must not end with it

void unlockCatalogs() {
    const int before = cancelStateBefore;
    pthread_mutex_unlock(&catalogs.mutex);
    (void)pthread_setcancelstate(before, nullptr);
}

void lockCatalogs() {
    int before = PTHREAD_CANCEL_ENABLE;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    pthread_mutex_lock(&catalogs.mutex);
    cancelStateBefore = before;
}

// At load, thus before the libraries and programs that use this one: fork takes the
// locks of those first, as their threads do when they look a message up with one held.
[[gnu::constructor]] void surviveFork() {
    (void)pthread_atfork(lockCatalogs, unlockCatalogs, unlockCatalogs);
}

bool isEnding; // the process, not only this library's stay in it

// When the process ends, the handlers of exit run before the libraries' own functions; when a
// library is unloaded, its own functions run first.
[[gnu::constructor]] void learnOfTheEnd() {
    keepLibraryLoaded(reinterpret_cast<const void *>(u_strToUTF8WithSub));
    isEnding = atexit([] { isEnding = true; }) != 0;
}

// ---- the list of catalogues ------------------------------------------------------------

// Adds one, with the mutex held. ICU takes a dash in a relative path for
// something else, so the path becomes an absolute one.
LisResult addPackage(const char *path, size_t length) {
    char directory[PATH_MAX] = "";
    if (length == 0)
        return ZOLTLIS_OK;
    if (path[0] != '/' && getcwd(directory, sizeof directory) == nullptr)
        return ZOLTLIS_FAILED;
    const size_t before = strlen(directory);
    char *package = static_cast<char *>(malloc(before + 1 + length + 1));
    if (package == nullptr)
        return ZOLTLIS_NO_MEMORY;
    char *end = static_cast<char *>(mempcpy(package, directory, before));
    if (before != 0)
        *end++ = '/';
    end = static_cast<char *>(mempcpy(end, path, length));
    *end = '\0';
    for (size_t i = 0; i < catalogs.count; ++i) {
        if (strcmp(catalogs.packages[i], package) == 0) {
            free(package);
            return ZOLTLIS_OK;
        }
    }
    if (catalogs.count == MAX_CATALOGS) {
        free(package);
        return ZOLTLIS_FAILED;
    }
    catalogs.packages[catalogs.count++] = package;
    return ZOLTLIS_OK;
}

// Reads QDLIS_CATALOG once, with the mutex held. Surplus entries are left out.
LisResult readEnvironment() {
    if (catalogs.version != 0)
        return ZOLTLIS_OK;
    const char *list = secure_getenv("QDLIS_CATALOG");
    while (list != nullptr && *list != '\0') {
        const size_t length = strcspn(list, ":");
        if (addPackage(list, length) == ZOLTLIS_NO_MEMORY)
            return ZOLTLIS_NO_MEMORY;
        list += length;
        list += *list == ':';
    }
    __atomic_store_n(&catalogs.version, 1, __ATOMIC_RELEASE);
    return ZOLTLIS_OK;
}

// ---- views -------------------------------------------------------------------------------

// A C library locale as ICU names it: without its encoding, and with the script
// that a modifier stands for.
void icuLocale(const char *name, char (&out)[LOCALE_ROOM]) {
    static const struct {
        const char *modifier;
        const char *script;
    } SCRIPTS[] = {{"@latin", "_Latn"}, {"@cyrillic", "_Cyrl"}, {"@devanagari", "_Deva"}};
    const size_t language = strcspn(name, "_.@");
    const size_t region = strcspn(name + language, ".@");
    const char *modifier = strchr(name, '@');
    const char *script = "";
    for (const auto &known : SCRIPTS) {
        if (modifier != nullptr && strcmp(modifier, known.modifier) == 0)
            script = known.script;
    }
    const bool none = strcmp(name, "C") == 0 || strcmp(name, "POSIX") == 0 || strncmp(name, "C.", 2) == 0;
    const int length = none ? -1
                            : snprintf(out, sizeof out, "%.*s%s%.*s", static_cast<int>(language), name,
                                       script, static_cast<int>(region), name + language);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof out)
        memcpy(out, ROOT, sizeof ROOT);
}

void closeView(View *view) {
    for (size_t i = 0; i < view->bundleCount; ++i)
        closeBundle(view->bundles[i]);
    free(view);
}

// The view of the current locale among the first views, or null.
View *knownView(const char *locale, const char *codeset, unsigned version) {
    for (View *view = __atomic_load_n(&catalogs.views, __ATOMIC_ACQUIRE); view != nullptr;
         view = view->next) {
        if (view->version == version && strcmp(view->locale, locale) == 0 &&
            strcmp(view->codeset, codeset) == 0)
            return view;
    }
    return nullptr;
}

// Opens the catalogues in a locale and puts the view in front, with the mutex held.
LisResult makeView(const char *locale, const char *codeset, View **out) {
    const size_t localeSize = strlen(locale) + 1;
    const size_t codesetSize = strlen(codeset) + 1;
    View *view = static_cast<View *>(calloc(1, sizeof(View) + localeSize + codesetSize));
    if (view == nullptr)
        return ZOLTLIS_NO_MEMORY;
    view->version = catalogs.version;
    view->locale = static_cast<char *>(memcpy(view->names, locale, localeSize));
    view->codeset = static_cast<char *>(memcpy(view->names + localeSize, codeset, codesetSize));
    char name[LOCALE_ROOM];
    icuLocale(locale, name);
    for (; view->bundleCount < catalogs.count; ++view->bundleCount) {
        const size_t i = view->bundleCount;
        const LisResult result = openBundle(catalogs.packages[i], name, &view->bundles[i]);
        if (result != ZOLTLIS_OK) {
            closeView(view);
            return result;
        }
    }
    view->next = catalogs.views;
    __atomic_store_n(&catalogs.views, view, __ATOMIC_RELEASE);
    *out = view;
    return ZOLTLIS_OK;
}

// The view of the process's message locale and the thread's encoding.
LisResult currentView(View **out) {
    const char *locale = setlocale(LC_MESSAGES, nullptr);
    const char *codeset = nl_langinfo(CODESET);
    unsigned version = __atomic_load_n(&catalogs.version, __ATOMIC_ACQUIRE);
    if (version != 0) {
        *out = knownView(locale, codeset, version);
        if (*out != nullptr)
            return ZOLTLIS_OK;
    }
    lockCatalogs();
    LisResult result = readEnvironment();
    if (result == ZOLTLIS_OK) {
        *out = knownView(locale, codeset, catalogs.version);
        if (*out == nullptr)
            result = makeView(locale, codeset, out);
    }
    unlockCatalogs();
    return result;
}

// ---- a message's pattern -------------------------------------------------------------------

// The pattern of a message in UTF-8 (free), from the first catalogue that has it;
// null without a failure when none has.
LisResult readPattern(const View *view, int64_t number, char **out) {
    char key[KEY_ROOM];
    snprintf(key, sizeof key, "%ld", number);
    *out = nullptr;
    for (size_t i = 0; i < view->bundleCount; ++i) {
        int32_t length = 0;
        const UChar *pattern = findText(view->bundles[i], key, &length);
        if (pattern == nullptr)
            continue;
        if (length > INT32_MAX / UTF8_PER_UNIT - 1)
            continue;
        const int32_t room = length * UTF8_PER_UNIT + 1;
        char *utf8 = static_cast<char *>(malloc(static_cast<size_t>(room)));
        if (utf8 == nullptr)
            return ZOLTLIS_NO_MEMORY;
        int32_t substitutions = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strToUTF8WithSub(utf8, room, nullptr, pattern, length, '?', &substitutions, &status);
        if (U_FAILURE(status)) {
            free(utf8);
            return ZOLTLIS_FAILED;
        }
        *out = utf8;
        return ZOLTLIS_OK;
    }
    return ZOLTLIS_OK;
}

// Adds text in UTF-8 in the encoding that the block's texts have; a
// character that the encoding lacks becomes a question mark.
void addPatternText(Builder *builder, const char *utf8, size_t size, bool asUtf8) {
    if (asUtf8) {
        addLiteral(builder, utf8, size);
        return;
    }
    mbstate_t state = {};
    for (size_t at = 0; at < size;) {
        char native[MB_LEN_MAX];
        size_t length = wcrtomb(native, nextUtf8(utf8, &at, size), &state);
        if (length == static_cast<size_t>(-1)) {
            native[0] = '?';
            length = 1;
            state = {};
        }
        addLiteral(builder, native, length);
    }
}

// Whether a pattern's conversion can show an argument of the given type; makes it
// show that type's values.
bool fits(Conversion *shown, const ArgumentType &type) {
    const bool unadorned =
        shown->flags == 0 && shown->widthFrom == FROM_NOWHERE && shown->precisionFrom == FROM_NOWHERE;
    if (type.what == CLASS_OPAQUE) {
        if (shown->type.what != CLASS_STRING || shown->type.wide || !unadorned)
            return false;
    } else if (type.what != shown->type.what) {
        return false;
    }
    if (type.what == CLASS_INTEGER && (shown->letter == 'd' || shown->letter == 'i' || shown->letter == 'u'))
        shown->letter = type.isSigned ? 'd' : 'u';
    shown->type = type;
    shown->plain = looksPlain(*shown);
    return true;
}

bool fitsSize(int from, const ArgumentType *arguments, int count) {
    return from < 0 ||
           (from < count && arguments[from].what == CLASS_INTEGER && arguments[from].fetch == FETCH_INT);
}

// Whether all of a pattern fits the arguments.
bool fitPattern(Program *pattern, const ArgumentType *arguments, int count) {
    for (size_t i = 0; i < pattern->pieceCount; ++i) {
        Conversion *shown = &pattern->pieces[i].shown;
        if (shown->letter == '\0')
            continue;
        if (shown->argument < 0 || shown->argument >= count || !fits(shown, arguments[shown->argument]) ||
            !fitsSize(shown->widthFrom, arguments, count) ||
            !fitsSize(shown->precisionFrom, arguments, count))
            return false;
        if (shown->type.what != CLASS_OPAQUE)
            continue;
        for (size_t before = 0; before < i; ++before) { // a nested block can move to one place only
            const Conversion &earlier = pattern->pieces[before].shown;
            if (earlier.letter != '\0' && earlier.argument == shown->argument)
                return false;
        }
    }
    return true;
}

// The pieces of a fitted pattern: its texts as ready items, neighbours joined.
LisResult makePieces(Shown *shown, const Program *pattern) {
    shown->pieces = static_cast<ShownPiece *>(calloc(pattern->pieceCount + 1, sizeof *shown->pieces));
    Builder texts;
    startBlock(&texts, shown->utf8, 0);
    shown->texts = texts.storage;
    if (shown->pieces == nullptr || texts.storage == nullptr)
        return ZOLTLIS_NO_MEMORY;
    for (size_t i = 0; i < pattern->pieceCount;) {
        ShownPiece *made = shown->pieces + shown->pieceCount++;
        made->shown = pattern->pieces[i].shown;
        if (made->shown.letter != '\0') {
            ++i;
            continue;
        }
        made->start = texts.storage->used;
        texts.openText = NO_TEXT;
        for (; i < pattern->pieceCount && pattern->pieces[i].shown.letter == '\0'; ++i)
            addPatternText(&texts, pattern->pieces[i].text, pattern->pieces[i].size, shown->utf8);
        made->size = texts.storage->used - made->start;
    }
    shown->texts = texts.storage;
    return texts.result;
}

// ---- messages ----------------------------------------------------------------------------------

void freeShown(Shown *shown) {
    if (shown == nullptr)
        return;
    free(shown->pieces);
    free(shown->texts);
    free(shown->arguments);
    free(shown);
}

// A message as it is asked for: by the format that its caller gives, or by the
// types of the items that were added to its block.
struct Request {
    int64_t number;
    bool utf8;
    bool built;
    const char *key;               // the format, or a text that stands for the items' types
    const ArgumentType *arguments; // built
    int count;
};

Shown **slotOf(View *view, int64_t number) {
    const uint64_t mixed = static_cast<uint64_t>(number) * 0x9e3779b97f4a7c15u;
    return view->slots + (mixed >> (64 - SLOT_BITS));
}

// The message in its slot, or null; *count is how many others are there.
const Shown *knownMessage(Shown *const *slot, const Request &request, unsigned *count) {
    *count = 0;
    for (const Shown *shown = __atomic_load_n(slot, __ATOMIC_ACQUIRE); shown != nullptr;
         shown = shown->next) {
        if (shown->number == request.number && shown->utf8 == request.utf8 && shown->built == request.built &&
            strcmp(shown->format, request.key) == 0)
            return shown;
        ++*count;
    }
    return nullptr;
}

// The arguments of the request, copied into shown.
LisResult copyArguments(Shown *shown, const Request &request) {
    Program *program = nullptr;
    const ArgumentType *arguments = request.arguments;
    int count = request.count;
    if (!request.built) {
        const LisResult result = compileFormat(request.key, false, &program);
        if (result != ZOLTLIS_OK)
            return result;
        arguments = program->arguments;
        count = program->argumentCount;
    }
    const size_t size = static_cast<size_t>(count) * sizeof *arguments;
    shown->argumentCount = count;
    shown->arguments = static_cast<ArgumentType *>(malloc(size + 1));
    if (shown->arguments != nullptr && size != 0)
        memcpy(shown->arguments, arguments, size);
    free(program);
    return shown->arguments != nullptr ? ZOLTLIS_OK : ZOLTLIS_NO_MEMORY;
}

// Makes the message what a catalogue's text says; it stays missing when that is no
// pattern, or does not fit the arguments.
LisResult applyPattern(Shown *shown, const char *text) {
    Program *pattern = nullptr;
    LisResult result = compileFormat(text, true, &pattern);
    if (result == ZOLTLIS_OK && fitPattern(pattern, shown->arguments, shown->argumentCount)) {
        result = makePieces(shown, pattern);
        shown->found = true;
    }
    free(pattern);
    return result == ZOLTLIS_INVALID_ARGUMENT ? ZOLTLIS_OK : result;
}

// Looks the message up and fits its pattern.
LisResult fillMessage(Shown *shown, const View *view, const Request &request) {
    LisResult result = copyArguments(shown, request);
    char *text = nullptr;
    if (result == ZOLTLIS_OK)
        result = readPattern(view, request.number, &text);
    if (text != nullptr)
        result = applyPattern(shown, text);
    free(text);
    return result;
}

// The message as a new record: kept in its slot while that has room, else the
// caller's own. With the mutex held.
LisResult learnMessage(View *view, const Request &request, const Shown **out) {
    Shown **slot = slotOf(view, request.number);
    unsigned others;
    *out = knownMessage(slot, request, &others);
    if (*out != nullptr)
        return ZOLTLIS_OK;
    const size_t keySize = strlen(request.key) + 1;
    Shown *shown = static_cast<Shown *>(calloc(1, sizeof(Shown) + keySize));
    if (shown == nullptr)
        return ZOLTLIS_NO_MEMORY;
    shown->number = request.number;
    shown->utf8 = request.utf8;
    shown->built = request.built;
    shown->temporary = others >= MAX_IN_SLOT;
    memcpy(shown->format, request.key, keySize);
    const LisResult result = fillMessage(shown, view, request);
    if (result != ZOLTLIS_OK) {
        freeShown(shown);
        return result;
    }
    if (!shown->temporary) {
        shown->next = *slot;
        __atomic_store_n(slot, shown, __ATOMIC_RELEASE);
    }
    *out = shown;
    return ZOLTLIS_OK;
}

LisResult find(const Request &request, const Shown **out) {
    *out = nullptr;
    View *view;
    LisResult result = currentView(&view);
    if (result != ZOLTLIS_OK || view->bundleCount == 0)
        return result == LIS_NOT_NOW ? ZOLTLIS_OK : result;
    unsigned others;
    const Shown *shown = knownMessage(slotOf(view, request.number), request, &others);
    if (shown == nullptr) {
        lockCatalogs();
        result = learnMessage(view, request, &shown);
        unlockCatalogs();
        if (result != ZOLTLIS_OK)
            return result == LIS_NOT_NOW ? ZOLTLIS_OK : result;
    }
    if (shown->found)
        *out = shown;
    else
        releaseMessage(shown);
    return ZOLTLIS_OK;
}

} // namespace

LisResult findMessage(int64_t number, bool utf8, const char *format, const Shown **out) {
    return find({number, utf8, false, format, nullptr, 0}, out);
}

LisResult findBuiltMessage(int64_t number, bool utf8, const char *key, const ArgumentType *arguments,
                           int count, const Shown **out) {
    return find({number, utf8, true, key, arguments, count}, out);
}

namespace {

// Everything goes with the library. At the end of the process it stays: other threads, and
// whatever runs at the end, may still look messages up.
[[gnu::destructor]] void forgetCatalogs() {
    if (isEnding)
        return;
    while (catalogs.views != nullptr) {
        View *view = catalogs.views;
        catalogs.views = view->next;
        for (Shown *&slot : view->slots) {
            while (slot != nullptr) {
                Shown *shown = slot;
                slot = shown->next;
                freeShown(shown);
            }
        }
        closeView(view);
    }
    for (size_t i = 0; i < catalogs.count; ++i)
        free(catalogs.packages[i]);
    catalogs.count = 0;
    catalogs.version = 0;
}

} // namespace

void releaseMessage(const Shown *shown) {
    if (shown->temporary)
        freeShown(const_cast<Shown *>(shown));
}

void addShown(Builder *builder, const Shown *shown, const Value *values, const char **payloads,
              int hostErrno) {
    for (size_t i = 0; i < shown->pieceCount; ++i) {
        const ShownPiece &piece = shown->pieces[i];
        const Conversion &conversion = piece.shown;
        if (conversion.letter == '\0') {
            addReady(builder, itemsOf(shown->texts) + piece.start, piece.size);
        } else if (payloads != nullptr && (conversion.plain || conversion.type.what == CLASS_OPAQUE)) {
            addCopy(builder, payloads[conversion.argument]);
            if (conversion.type.what == CLASS_OPAQUE)
                payloads[conversion.argument] = nullptr;
        } else {
            addConversion(builder, conversion, values[conversion.argument],
                          sizeFrom(conversion.widthFrom, conversion.width, values),
                          sizeFrom(conversion.precisionFrom, conversion.precision, values), true, hostErrno);
        }
    }
}

int shownArguments(const Shown *shown, const ArgumentType **types) {
    *types = shown->arguments;
    return shown->argumentCount;
}

LisResult addCatalog(const char *package) {
    lockCatalogs();
    LisResult result = readEnvironment();
    const size_t before = catalogs.count;
    if (result == ZOLTLIS_OK)
        result = addPackage(package, strlen(package));
    if (catalogs.count != before)
        __atomic_store_n(&catalogs.version, catalogs.version + 1, __ATOMIC_RELEASE);
    unlockCatalogs();
    return result;
}
