// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the property store and the configuration reader as a file, and
// checks what must hold of any file: a value set is found, one pass answers as a lookup does,
// a removed key is gone, the other sections keep their lines.
#include "fuzz/scratch.h"
#include "zoltlog.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

// Nothing here needs to be on a disk.
extern "C" int fsync(int descriptor) {
    return fcntl(descriptor, F_GETFD) < 0 ? -1 : 0;
}

// A writer waits a while for a file that may only be away; here nobody brings it back.
namespace {
int64_t sleptNs = 0;
constexpr int64_t NS_PER_SECOND = 1000000000;
} // namespace
extern "C" int nanosleep(const struct timespec *time, struct timespec *) {
    sleptNs += time->tv_sec * NS_PER_SECOND + time->tv_nsec;
    return 0;
}
extern "C" int clock_gettime(clockid_t clock, struct timespec *time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        const int64_t now = time->tv_sec * NS_PER_SECOND + time->tv_nsec + sleptNs;
        *time = {now / NS_PER_SECOND, now % NS_PER_SECOND};
    }
    return result;
}

namespace {

void check(bool holds, const char *what) {
    scratch::require(holds, what);
}

// In memory, by its whole path: the corpus is named from the current directory.
const char *storePath() {
    static const std::string path = scratch::directory() + "store.conf";
    static const int pointed = [] {
        const std::string mainPath = scratch::directory() + "main.conf";
        const std::string main = "5.Configuration=" + path + "\n";
        scratch::writeFile(mainPath, reinterpret_cast<const uint8_t *>(main.data()), main.size());
        return setenv("ZOLTLOG_CFG_LOC", mainPath.c_str(), 1);
    }();
    (void)pointed;
    return path.c_str();
}

void writeFile(const uint8_t *data, size_t size) {
    (void)unlink(storePath());
    scratch::writeFile(storePath(), data, size);
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
    (void)zoltLogReadAllCfg(storePath(), 16, cfgs, &count);
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
    check(isFound == (GetPropertyString(storePath(), root, name, &two) == 0),
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
    check(utiOpenPropertyStore(storePath(), root, &store) == 0, "opening");
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
    // One section for each input; its size tells which.
    const char *const roots[] = {"5", "LOGSET.x", "Default"};
    writeFile(data, size);
    readAll();
    change(roots[size % 3]);
    readAll();
    return 0;
}
