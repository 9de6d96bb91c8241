/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A host program that loads a library, uses it and unloads it, again and again:
 *
 *     unload_host LIBRARY text|number|block|line ROUNDS
 *
 * text and number log messages through LIBRARY, the logging library, number one of a
 * catalogue (QDLIS_CATALOG) in the locale of the environment; block makes that message's
 * block by the localization library; line has the formatter plug-in render a record. Exit
 * status 0 when the library goes each time and, after the first rounds, no round keeps memory,
 * a descriptor or a mapping.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <locale.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zoltlis.h"
#include "zoltlog.h"

/* What the allocator keeps for itself, a block or a region, counts as held: not one in each round. */
enum { SMALLEST_BLOCK = 32, FIRST_ROUNDS = 30, MESSAGES = 5, NUMBER = 1001 };

typedef uint32_t (*FormatMessage)(LocalizerList *, uint64_t, const char *, uint64_t, uint32_t, uint64_t,
                                  LogMsg *, LogHandle *, char **);

static void *library;

static void require(int holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "%s\n", what);
        exit(1);
    }
}

static void *resolved(const char *name) {
    void *function = dlsym(library, name);
    require(function != NULL, name);
    return function;
}

static void logMessages(int64_t number) {
    __typeof__(&zoltLogOpen) openLog = (__typeof__(&zoltLogOpen))resolved("zoltLogOpen");
    __typeof__(&zoltLogClose) closeLog = (__typeof__(&zoltLogClose))resolved("zoltLogClose");
    __typeof__(&zoltLogAppMsg) appMsg = (__typeof__(&zoltLogAppMsg))resolved("zoltLogAppMsg");
    static LogHandle handle;
    memset(&handle, 0, sizeof handle);
    require(openLog(5, 7, &handle) == 0, "opening");
    for (int i = 0; i < MESSAGES; ++i)
        require(appMsg(&handle, 0, ZOLTLOG_SEVERITY_WARNING, number, "%s %d", "/var", 93) == 0, "logging");
    require(closeLog(&handle) == 0, "closing");
}

static int32_t build(__typeof__(&zoltLisVEx) make, ZoltLisBlock *block, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t result = make(block, 1, NUMBER, format, args);
    va_end(args);
    return result;
}

static void makeBlock(void) {
    ZoltLisBlock block = {{0}};
    int64_t identity = -1;
    require(build((__typeof__(&zoltLisVEx))resolved("zoltLisVEx"), &block, "%s %d", "/var", 93) == 0,
            "building");
    require(((__typeof__(&zoltLisGetTextId))resolved("zoltLisGetTextId"))(&block, &identity) == 0 &&
                identity == 0,
            "the catalogue has the message");
    ((__typeof__(&zoltLisFree))resolved("zoltLisFree"))(&block);
}

static void renderLine(void) {
    char text[] = "a text";
    char *line = NULL;
    LogMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = ZOLTLOG_MSG_APP;
    msg.text = text;
    require(((FormatMessage)resolved("LogFormatMessage"))(NULL, 0, NULL, 0, 0x700, 0, &msg, NULL, &line) == 0,
            "rendering");
    free(line);
}

static void use(const char *how) {
    if (strcmp(how, "block") == 0)
        makeBlock();
    else if (strcmp(how, "line") == 0)
        renderLine();
    else
        logMessages(strcmp(how, "number") == 0 ? NUMBER : 0);
}

struct Held {
    size_t bytes;
    size_t descriptors;
    size_t mappings;
};

static struct Held held(void) {
    struct Held now = {0, 0, 0};
    DIR *stream = opendir("/proc/self/fd");
    require(stream != NULL, "/proc");
    while (readdir(stream) != NULL)
        ++now.descriptors;
    closedir(stream);
    FILE *maps = fopen("/proc/self/maps", "re");
    require(maps != NULL, "/proc");
    for (int c = getc(maps); c != EOF; c = getc(maps))
        now.mappings += c == '\n';
    fclose(maps);
    const struct mallinfo2 all = mallinfo2();
    now.bytes = all.uordblks + all.hblkhd;
    return now;
}

int main(int argc, char **argv) {
    require(argc == 4, "unload_host LIBRARY text|number|block|line ROUNDS");
    require(setlocale(LC_ALL, "") != NULL, "the locale");
    struct Held before = {0, 0, 0};
    const int rounds = atoi(argv[3]) + FIRST_ROUNDS;
    for (int round = 0; round < rounds; ++round) {
        if (round == FIRST_ROUNDS)
            before = held();
        library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        require(library != NULL, "loading");
        use(argv[2]);
        dlclose(library);
        require(dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) == NULL, "the library stays");
    }
    const struct Held after = held();
    const size_t noise = (size_t)(rounds - FIRST_ROUNDS) / 2;
    if (after.bytes > before.bytes + noise * SMALLEST_BLOCK || after.descriptors != before.descriptors ||
        after.mappings > before.mappings + noise) {
        fprintf(stderr, "%ld bytes, %ld descriptors and %ld mappings more in %d rounds\n",
                (long)(after.bytes - before.bytes), (long)(after.descriptors - before.descriptors),
                (long)(after.mappings - before.mappings), rounds - FIRST_ROUNDS);
        return 1;
    }
    return 0;
}
