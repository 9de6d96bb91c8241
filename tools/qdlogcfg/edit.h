// SPDX-License-Identifier: Apache-2.0
// Changes of settings, made of a product's file in memory and in one rewrite on the disk.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "settings.h"

// Settings to be put and keys to be removed, by section, in the order in which they were given.
struct Edits {
    struct Setting {
        std::string name;
        std::string line; // as it will stand in the file; empty: the key is removed
    };
    struct Section {
        std::string name;
        std::vector<Setting> settings;
    };

    // False when the key was given before.
    bool put(const std::string &section, const std::string &name, const std::string &utf8Value);
    void remove(const std::string &section, const std::string &name);
    const Section *find(std::string_view section) const;

    std::vector<Section> sections;
    size_t count = 0;

  private:
    Section &of(const std::string &section);
    std::unordered_map<std::string, size_t> position;
};

struct Edited {
    std::string content;
    std::vector<std::string> difference; // lines with "-" or "+" before them
};
// What the edits make of a file's content, as one change after the other through the library
// would leave it. Without a file the content begins with the header of a new one.
Edited edited(const std::string &bytes, bool exists, const Edits &edits);

// Makes the edits of a product's file in one rewrite, of what the file holds at that moment, and
// again when somebody else changes it meanwhile. CommandError when it cannot be done; the file is
// as it was then. The lines that come.
size_t rewriteFile(const std::string &path, bool exists, const Edits &edits);

// The file that a path names, behind symbolic links, also one that is still to be made.
std::string realLocation(const std::string &path);

// Why this user could not change a file, or make it; "" when nothing is in the way.
std::string whyNotWritable(const std::string &path);

// The cause of a change that failed, from errno.
std::string causeOf(int error, const std::string &path);
