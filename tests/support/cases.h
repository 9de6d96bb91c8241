// SPDX-License-Identifier: Apache-2.0
// What keeps the cases of one test program apart, whichever of them run, in which order
// and how often. support/test_main.cpp gives each its own directory and restores the
// environment, locale, handlers and limits; this is for what only the program knows.
#pragma once

namespace support {

// Has prepare run at the start of each case of this program: what the program's variables
// and replaced calls begin with. Called where a namespace's variables are set:
//     const bool PREPARED = support::eachCase([] { testTime = 0; });
bool eachCase(void (*prepare)());
void prepareCase(); // the main program's: runs them

// Whether this process runs the current case only, once. Where it runs more, the case runs
// in a new process, and fails here when it fails there: nothing is left for the caller to do.
// A case with a fixture begins with: if (!support::inFreshProcess()) return;
bool inFreshProcess();

} // namespace support

// A TEST that minds what others make the libraries keep: the configuration's place is read
// once per process, a catalogue added stays.
#define FRESH_TEST(suite, name)                                                                              \
    static void suite##name##InFreshProcess();                                                               \
    TEST(suite, name) {                                                                                      \
        if (support::inFreshProcess())                                                                       \
            suite##name##InFreshProcess();                                                                   \
    }                                                                                                        \
    static void suite##name##InFreshProcess()
