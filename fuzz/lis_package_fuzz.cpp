// SPDX-License-Identifier: Apache-2.0
// Packages in one file, of any bytes: each locale's texts are looked up, and no byte outside
// of the file is looked at (the sanitizers tell).
#include "fuzz/memory_files.h"
#include "lis/bundle.h"

#include <string>

namespace {

void use(const UChar *text, int32_t length) {
    volatile UChar sum = 0;
    for (int32_t i = 0; text != nullptr && i < length; ++i)
        sum = static_cast<UChar>(sum ^ text[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string package = std::string(memory::DIRECTORY) + "/m";
    memory::writeFile(package + ".dat", data, size);
    for (const char *locale : {"de_AT", "root", "zh_TW", ""}) {
        Bundle *bundle = nullptr;
        (void)openBundle(package.c_str(), locale, &bundle);
        for (const char *key : {"1", "2", "1001", ""}) {
            int32_t length = 0;
            const UChar *text = findText(bundle, key, &length);
            use(text, length);
        }
        closeBundle(bundle);
    }
    return 0;
}
