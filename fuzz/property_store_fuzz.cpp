// Feeds arbitrary bytes to the property store and the configuration reader as a file, and
// checks what must hold of any file: a value set is found, one pass answers as a lookup does,
// a removed key is gone, the other sections keep their lines.
#include "zoltlog.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

// Nothing here needs to be on a disk.
extern "C" int fsync(int descriptor) {
    return fcntl(descriptor, F_GETFD) < 0 ? -1 : 0;
}
extern "C" int rename(const char *from, const char *to) noexcept {
    (void)unlink(to); // replacing a file makes some file systems write it out
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace {

const char FILE_NAME[] = "store.conf";

void check(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

void enterDirectory() {
    static bool entered = false;
    if (entered)
        return;
    entered = true;
    char directory[] = "/tmp/qdul-store-fuzz.XXXXXX";
    check(mkdtemp(directory) != nullptr && chdir(directory) == 0, "a directory of its own");
    FILE *file = std::fopen("main.conf", "w");
    check(file != nullptr && std::fputs("5.Configuration=store.conf\n", file) >= 0 && std::fclose(file) == 0,
          "the main file");
    setenv("ZOLTLOG_CFG_LOC", "main.conf", 1);
    std::atexit([] {
        (void)unlink(FILE_NAME);
        (void)unlink("main.conf");
        char *path = get_current_dir_name();
        if (path != nullptr && chdir("/") == 0)
            (void)rmdir(path);
        std::free(path);
    });
}

void writeFile(const uint8_t *data, size_t size) {
    (void)unlink(FILE_NAME);
    const int file = open(FILE_NAME, O_WRONLY | O_CREAT | O_EXCL, 0600);
    check(file >= 0 && write(file, data, size) == static_cast<ssize_t>(size), "the store's file");
    close(file);
}

// Everything that reads, on the file as it is.
void readAll() {
    LogCfg cfg;
    (void)zoltLogReadCfg(5, 7, &cfg);
    zoltLogFreeCfg(&cfg);
    (void)zoltLogReadlogsetCfg(5, "x", &cfg);
    zoltLogFreeCfg(&cfg);
    LogCfg *cfgs[16];
    uint32_t count = 0;
    (void)zoltLogReadProdIDCfg(nullptr, 5, 16, cfgs, &count);
    check(count <= 16, "the capacity");
    for (uint32_t i = 0; i < count; ++i) {
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
    }
    (void)zoltLogReadAllCfg(FILE_NAME, 16, cfgs, &count);
    for (uint32_t i = 0; i < count; ++i) {
        zoltLogFreeCfg(cfgs[i]);
        zoltLogFree(cfgs[i]);
    }
}

void enumerate(PropertyStore *store, uint32_t (*next)(PropertyStore *, uint32_t, char *, uint32_t *)) {
    char name[81] = "";
    uint32_t size = sizeof name;
    rewind(store->stream);
    uint32_t result = 0;
    while ((result = next(store, 0, name, &size)) != 7) {
        check(result == 0 || result == 6, "an enumeration's result");
        check(result != 0 || strlen(name) == size, "a name's length");
        size = sizeof name;
    }
}

void lookUp(PropertyStore *store, const char *root, const char *name) {
    char *one = nullptr;
    char *two = nullptr;
    const bool isFound = utiGetPropertyAsStr(store, name, &one) == 0;
    check(isFound == (GetPropertyString(FILE_NAME, root, name, &two) == 0),
          "one pass finds what a lookup finds");
    check(!isFound || strcmp(one, two) == 0, "and gives the same text");
    zoltLogFree(one);
    zoltLogFree(two);
    unsigned long number = 0;
    uint32_t flag = 0;
    (void)utiGetPropertyAsUlong(store, name, &number);
    (void)utiGetPropertyAsBool(store, name, &flag);
}

void change(const char *root) {
    PropertyStore store;
    check(utiOpenPropertyStore(FILE_NAME, root, &store) == 0, "opening");
    enumerate(&store, utiEnumProductId);
    enumerate(&store, utiEnumLogsetForProductId);
    lookUp(&store, root, "a");
    lookUp(&store, root, "DebugLevel");
    check(utiRemoveProperty(&store, "a") == 0, "removing");
    char *text = nullptr;
    check(utiGetPropertyAsStr(&store, "a", &text) == 3, "a removed key is gone");
    check(utiSetPropertyAsStr(&store, "a", "value") == 0, "setting");
    lookUp(&store, root, "a");
    const uint32_t removed = utiRemovePropertyRoot(&store, root);
    check(removed == 0 || removed == 8, "removing a section");
    utiClosePropertyStore(&store);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    enterDirectory();
    for (const char *root : {"5", "LOGSET.x", "Default"}) {
        writeFile(data, size);
        readAll();
        change(root);
        readAll();
    }
    return 0;
}
