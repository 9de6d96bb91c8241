// SPDX-License-Identifier: Apache-2.0
// ICU resource bundles as catalogues are made of: the texts that a bundle has at its top
// level, in a locale and those that it falls back to.
//
// Files may be cut, damaged or replaced at any time. They are read whole, through one
// descriptor, and nothing in them is believed: one that is shorter than it says itself,
// or odd, counts as missing, and no text lies outside of it.
#pragma once

#include "lis.h"

#include <unicode/umachine.h>

const char ROOT[] = "root"; // the last locale of every chain

// A bundle, and behind it those of the locales that its own falls back to.
struct Bundle;

// Opens a package (resource directory + "/" + resource name) in a locale as ICU names it:
// the files <package>/<locale>.res or, without such a directory, those inside
// <package>.dat. *out is null without a failure when there is none, not even "root".
// LIS_NOT_NOW when memory or descriptors ran out, or the file could not be read this time.
LisResult openBundle(const char *package, const char *locale, Bundle **out);
// The bundle of that locale alone: ZOLTLIS_NO_MORE when there is none.
LisResult openOwnBundle(const char *package, const char *locale, Bundle **out);
void closeBundle(Bundle *bundle);

// The text of a top-level key, which lives as long as the bundle; null when there is none.
const UChar *findText(const Bundle *bundle, const char *key, int32_t *length);

// The entries of the bundle itself, which a damaged one may claim to have any number of.
// Yields an entry's key, and its text, null when it is something else; null for an entry
// that lies outside of the file.
uint32_t entryCount(const Bundle *bundle);
const char *entryAt(const Bundle *bundle, uint32_t entry, const UChar **text, int32_t *length);
