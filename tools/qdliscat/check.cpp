// SPDX-License-Identifier: Apache-2.0
#include "qdliscat/check.h"

#include <algorithm>

#include "qdlis.h"

namespace qdliscat {

namespace {

constexpr size_t MOST_ARGUMENTS = 4097; // that a pattern can have, and a NUL

struct Arguments {
    bool valid;
    std::string letters; // one for each position, "-" for one that is not shown
};

Arguments argumentsOf(const std::string &pattern) {
    std::string letters(MOST_ARGUMENTS, '\0');
    const bool valid = qdlisPatternArguments(pattern.c_str(), letters.data(), letters.size()) == 0;
    letters.resize(valid ? letters.find('\0') : 0);
    return {valid, letters};
}

const char *kindOf(char letter) {
    switch (letter) {
    case 'd':
        return "an integer";
    case 'f':
        return "a floating-point number";
    case 'c':
        return "a character";
    case 's':
        return "a text";
    case 'p':
        return "a pointer";
    default:
        return "not shown";
    }
}

// A percent sign that was meant as one: a blank follows it ("93% full").
bool hasLonePercent(const std::string &pattern) {
    for (size_t at = pattern.find('%'); at != std::string::npos; at = pattern.find('%', at + 2)) {
        if (at + 1 < pattern.size() && pattern[at + 1] == ' ')
            return true;
    }
    return false;
}

// "1001x" for 1001: advice on that message
bool isAdvice(const std::string &key) {
    return key.size() > 1 && key.back() == 'x' && isNumber(key.substr(0, key.size() - 1));
}

class Checker {
  public:
    Checker(const Catalogue &checked, bool wantComplete) : catalogue(checked), complete(wantComplete) {}

    std::vector<Problem> run() {
        const Bundle *root = nullptr;
        for (const Bundle &bundle : catalogue.bundles) {
            if (bundle.locale == "root")
                root = &bundle;
        }
        if (root == nullptr)
            tell("", "", "there is no root: messages that a locale lacks have no text");
        for (const Bundle &bundle : catalogue.bundles)
            checkBundle(bundle, root);
        return problems;
    }

  private:
    void tell(const std::string &locale, const std::string &key, const std::string &text) {
        problems.push_back({locale, key, text});
    }

    void checkBundle(const Bundle &bundle, const Bundle *root) {
        if (!bundle.failure.empty()) {
            tell(bundle.locale, "", "cannot be read: " + bundle.failure);
            return;
        }
        for (const auto &[key, entry] : bundle.entries)
            checkEntry(bundle, key, entry, root);
        if (!complete || root == nullptr)
            return;
        for (const auto &[key, entry] : root->entries) {
            if (isNumber(key) && bundle.entries.count(key) == 0 && !inherited(bundle.locale, key))
                tell(bundle.locale, key, "not translated");
        }
    }

    // Whether a parent of the locale other than root has the message.
    bool inherited(const std::string &locale, const std::string &key) const {
        const Entry *found = find(catalogue, locale, key);
        return found != nullptr && found != find(catalogue, "root", key);
    }

    void checkEntry(const Bundle &bundle, const std::string &key, const Entry &entry, const Bundle *root) {
        if (key == "Version" || key.rfind("%%", 0) == 0)
            return; // ICU's own
        if (!isNumber(key) && !isAdvice(key)) {
            tell(bundle.locale, key,
                 entry.isText ? "the key is no message number in decimal"
                              : "the key is no message number in decimal; messages stand at the top level");
            return;
        }
        if (!entry.isText) {
            tell(bundle.locale, key, "is no text");
            return;
        }
        if (isAdvice(key)) {
            if (find(catalogue, bundle.locale, key.substr(0, key.size() - 1)) == nullptr)
                tell(bundle.locale, key, "advice on a message that does not exist");
            return;
        }
        checkPattern(bundle, key, entry.text, root);
    }

    void checkPattern(const Bundle &bundle, const std::string &key, const std::string &pattern,
                      const Bundle *root) {
        if (pattern.find('\0') != std::string::npos)
            tell(bundle.locale, key, "holds a NUL character, which ends the text");
        if (hasLonePercent(pattern))
            tell(bundle.locale, key, "holds a lone percent sign, which has to be written %%");
        const Arguments own = argumentsOf(pattern);
        if (!own.valid) {
            tell(bundle.locale, key, "is no valid pattern: " + pattern);
            return;
        }
        if (&bundle == root) {
            for (size_t i = 0; i < own.letters.size(); ++i) {
                if (own.letters[i] == '-')
                    tell(bundle.locale, key, "argument " + std::to_string(i + 1) + " is not shown");
            }
            return;
        }
        if (root != nullptr && root->failure.empty())
            compare(bundle, key, own, *root);
    }

    void compare(const Bundle &bundle, const std::string &key, const Arguments &own, const Bundle &root) {
        const auto there = root.entries.find(key);
        if (there == root.entries.end() || !there->second.isText) {
            tell(bundle.locale, key, "root has no such message");
            return;
        }
        const Arguments expected = argumentsOf(there->second.text);
        if (!expected.valid)
            return; // told for root
        const size_t count = std::max(own.letters.size(), expected.letters.size());
        for (size_t i = 0; i < count; ++i) {
            const char here = i < own.letters.size() ? own.letters[i] : '-';
            const char wanted = i < expected.letters.size() ? expected.letters[i] : '-';
            if (here != wanted)
                tell(bundle.locale, key,
                     "argument " + std::to_string(i + 1) + " is " + kindOf(here) + ", in root " +
                         kindOf(wanted));
        }
    }

    const Catalogue &catalogue;
    const bool complete;
    std::vector<Problem> problems;
};

} // namespace

std::vector<Problem> check(const Catalogue &catalogue, bool complete) {
    return Checker(catalogue, complete).run();
}

void printProblem(tools::Output &out, const std::string &title, const Problem &problem) {
    out.write(tools::escaped(title) + ": ");
    if (!problem.locale.empty())
        out.write(tools::escaped(problem.locale) + ": ");
    if (!problem.key.empty())
        out.write(tools::escaped(problem.key) + ": ");
    out.write(tools::escaped(problem.text) + "\n");
}

} // namespace qdliscat
