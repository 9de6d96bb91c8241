// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the property store and the configuration reader as a file, and
// checks what must hold of any file: a value set is found, one pass answers as a lookup does,
// a removed key is gone, the other sections keep their lines.
#include "fuzz/memory_files.h"
#include "fuzz/require.h"
#include "zoltlog.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char STORE[] = "/memory/store.conf";

void check(bool holds, const char *what) {
    fuzz::require(holds, what);
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
    (void)zoltLogReadAllCfg(STORE, 16, cfgs, &count);
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
    check(isFound == (GetPropertyString(STORE, root, name, &two) == 0), "one pass finds what a lookup finds");
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
    check(utiOpenPropertyStore(STORE, root, &store) == 0, "opening");
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
    // One section and order for each input; its size tells which.
    const char *const roots[] = {"5", "LOGSET.x", "Default"};
    static const int pointed = [] {
        const std::string main = std::string("5.Configuration=") + STORE + "\n";
        memory::writeFile("/memory/main.conf", reinterpret_cast<const uint8_t *>(main.data()), main.size());
        return setenv("ZOLTLOG_CFG_LOC", "/memory/main.conf", 1);
    }();
    (void)pointed;
    memory::writeFile(STORE, data, size);
    const bool isReadFirst = size / 3 % 2 == 0; // as it is, or as it has become
    if (isReadFirst)
        readAll();
    change(roots[size % 3]);
    if (!isReadFirst)
        readAll();
    check(memory::openDescriptors() == 0, "every file is closed");
    check(memory::files() == std::vector<std::string>({"/memory/main.conf", STORE}),
          "no temporary file stays");
    return 0;
}
