// SPDX-License-Identifier: Apache-2.0
// Reading message catalogues: compiled packages, single bundles and sources.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace qdliscat {

// One entry of a bundle. Its key is as it stands there.
struct Entry {
    bool isText; // else a table, a number ...: text is empty
    std::string text;
};

// The messages that one locale has itself, without those of its parents.
struct Bundle {
    std::string locale;
    std::string failure; // why it could not be read; "" when it could
    std::map<std::string, Entry> entries;
};

// A package and the locales in it, root first.
struct Catalogue {
    std::string package; // resource directory + "/" + resource name, absolute
    std::string title;   // as the user named it
    std::vector<Bundle> bundles;
};

// What can be asked for: a package (a directory of bundles, or the path of a .dat file
// with or without that ending), bundles (.res) and sources (.txt, compiled with
// genrb). Sources and bundles of one directory make one catalogue.
enum class Loaded { Ok, Unreadable, DoesNotCompile };
struct LoadResult {
    Loaded state = Loaded::Ok;
    std::string failure; // told to the user
    std::vector<Catalogue> catalogues;
};
LoadResult load(const std::vector<std::string> &names);

constexpr size_t LARGEST_BUNDLE = size_t{1} << 28; // as the localization library has it

// The locales of the bundles in a directory, root first.
std::vector<std::string> localesOfDirectory(const std::string &directory);
// A bundle of a package as the localization library finds it.
Bundle readBundle(const std::string &package, const std::string &locale);
// Compiles sources into a directory: Ok, or why not.
Loaded compileSources(const std::vector<std::string> &sources, const std::string &directory,
                      std::string &failure);
// The messages of all locales.
size_t messageCount(const Catalogue &catalogue);

// The text of a message in a locale, or in its parents up to root. Null when missing.
const Entry *find(const Catalogue &catalogue, const std::string &locale, const std::string &key);

// A key as a message number: decimal, 64 bits, not 0, written in its shortest form.
bool isNumber(const std::string &key);

} // namespace qdliscat
