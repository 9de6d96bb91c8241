// Resource bundles of any bytes: every entry is read, looked up again by its key, and no
// byte outside of the file is looked at (the sanitizers tell).
#include "lis/bundle.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const uint32_t MOST_ENTRIES = 10000; // a damaged bundle may claim thousands of millions

// A package of one locale in a directory of its own.
std::string package() {
    static std::string path;
    if (path.empty()) {
        path = "/tmp/qdul-bundle-fuzz.XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            abort();
        atexit([] {
            unlink((path + "/root.res").c_str());
            rmdir(path.c_str());
        });
    }
    return path;
}

void use(const UChar *text, int32_t length) {
    volatile UChar sum = 0;
    for (int32_t i = 0; text != nullptr && i < length; ++i)
        sum = static_cast<UChar>(sum ^ text[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string path = package();
    const int file = open((path + "/root.res").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size))
        abort();
    close(file);
    Bundle *bundle = nullptr;
    (void)openBundle(path.c_str(), "de_AT", &bundle);
    int32_t length = 0;
    for (const char *key : {"1", "1001", "zz", ""}) {
        const UChar *text = findText(bundle, key, &length);
        use(text, length);
    }
    const uint32_t count = bundle != nullptr ? entryCount(bundle) : 0;
    for (uint32_t i = 0; i < count && i < MOST_ENTRIES; ++i) {
        const UChar *text = nullptr;
        const char *key = entryAt(bundle, i, &text, &length);
        if (key == nullptr)
            break;
        use(text, length);
        text = findText(bundle, key, &length);
        use(text, length);
    }
    closeBundle(bundle);
    return 0;
}
