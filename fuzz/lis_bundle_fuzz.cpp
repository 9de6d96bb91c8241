// SPDX-License-Identifier: Apache-2.0
// Resource bundles of any bytes: every entry is read, looked up again by its key, and no
// byte outside of the file is looked at (the sanitizers tell).
#include "fuzz/memory_files.h"
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

void use(const UChar *text, int32_t length) {
    volatile UChar sum = 0;
    for (int32_t i = 0; text != nullptr && i < length; ++i)
        sum = static_cast<UChar>(sum ^ text[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string package = std::string(memory::DIRECTORY) + "/m";
    (void)mkdir(package.c_str(), 0700);
    memory::writeFile(package + "/root.res", data, size);
    Bundle *bundle = nullptr;
    (void)openBundle(package.c_str(), "de_AT", &bundle);
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
