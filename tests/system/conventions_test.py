#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What CONTRIBUTING.md asks of the sources: every case can fail, every note on a kept oddity names
a case that pins it, and calls of the C library are replaced in one place."""
import glob
import os
import re
import unittest

from qdul_testing import SOURCE, read

TESTS = sorted(glob.glob(f"{SOURCE}/tests/*_test.cpp"))
HELPERS = sorted(glob.glob(f"{SOURCE}/tests/*.h") + glob.glob(f"{SOURCE}/tests/support/*"))
CASE = re.compile(r"\b(?:FRESH_TEST|TEST|TEST_F|TEST_P)\((\w+),\s*(\w+)\)\s*\{")
CHECK = re.compile(r"\b(?:EXPECT|ASSERT)_\w+\(|\b(?:ADD_FAILURE|FAIL|FAILS?_TO)\(|\bstatic_assert\(")
FUNCTION = re.compile(r"\b(\w+)(?:\(|\s*=\s*\[)")


def code(path):
    """A source without its comments and the insides of its texts; characters keep their places."""
    def blank(match):
        text = match.group(0)
        if text[0] == "/":
            return re.sub(r"[^\n]", " ", text)
        return text[0] + re.sub(r"[^\n]", " ", text[1:-1]) + text[-1]

    return re.sub(r'R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<![0-9a-fA-F])\'(?:\\.|[^\'\\\n])*\'|//[^\n]*|/\*.*?\*/', blank,
                  read(path), flags=re.S)


def block(text, start):
    """The block that the brace at start opens, without its braces."""
    depth = 0
    for match in re.compile(r"[{}]").finditer(text, start):
        depth += 1 if match.group(0) == "{" else -1
        if depth == 0:
            return text[start + 1 : match.start()]
    raise ValueError("an open block")


def functions(text):
    """{name: [bodies]} of the functions, methods, macros and named lambdas that a source defines."""
    found = {}
    heads = r"\b(~?\w+)\s*\((?:[^(){};]|\([^()]*\))*\)\s*(?:const\b|noexcept\b|override\b|->\s*[\w:<> ]+|\s)*(?::[^;{}]*(?:\{[^{}]*\}[^;{}]*)*)?\{"
    lambdas = r"\b(\w+)\s*=\s*\[[^\]]*\]\s*(?:\((?:[^()]|\([^()]*\))*\))?\s*(?:mutable\b|->\s*[\w:<> ]+|\s)*\{"
    for pattern in (heads, lambdas):
        for match in re.finditer(pattern, text):
            if match.group(1) not in ("if", "for", "while", "switch", "catch"):
                found.setdefault(match.group(1).lstrip("~"), []).append(block(text, match.end() - 1))
    for match in re.finditer(r"#define (\w+)\([^)]*\)((?:[^\n]*\\\n)*[^\n]*)", text):
        found.setdefault(match.group(1), []).append(match.group(2))
    return found


def checking(bodies):
    """The names whose bodies check something, themselves or by what they call."""
    names = {name for name, texts in bodies.items() if any(CHECK.search(text) for text in texts)}
    while True:
        more = {name for name, texts in bodies.items() if name not in names
                and any(set(re.findall(r"\w+", text)) & names for text in texts)}
        if not more:
            return names
        names |= more


class Conventions(unittest.TestCase):
    def test_every_case_checks_something(self):
        shared = {}
        for path in HELPERS:
            for name, texts in functions(code(path)).items():
                shared.setdefault(name, []).extend(texts)
        cases = 0
        for path in TESTS:
            text = code(path)
            bodies = {**shared}
            for name, texts in functions(CASE.sub("{", text)).items():
                bodies[name] = bodies.get(name, []) + texts
            helpers = checking(bodies)
            for match in CASE.finditer(text):
                cases += 1
                body = block(text, match.end() - 1)
                with self.subTest(f"{match.group(1)}.{match.group(2)}"):
                    self.assertTrue(CHECK.search(body) or set(re.findall(r"\w+", body)) & helpers,
                                    "neither it nor a function that it calls has an EXPECT or ASSERT")
        self.assertGreater(cases, 1000)

    def test_no_check_compares_a_thing_with_itself(self):
        for path in TESTS + HELPERS:
            for match in re.finditer(r"\b((?:EXPECT|ASSERT)_(?:EQ|NE|LE|GE|LT|GT|STREQ|STRNE))\(([^,()]+), ([^,()]+)\)", code(path)):
                with self.subTest(f"{os.path.basename(path)}: {match.group(0)}"):
                    self.assertNotEqual(match.group(2).strip(), match.group(3).strip())
                    literals = [re.fullmatch(r"\d+[uUlL]*|true|false|nullptr", side.strip()) for side in match.groups()[1:]]
                    self.assertFalse(all(literals), "both sides are constants")

    def test_no_check_is_of_a_constant(self):
        for path in TESTS + HELPERS:
            self.assertEqual(re.findall(r"\b(?:EXPECT|ASSERT)_(?:TRUE|FALSE)\((?:true|false|\d+)\)", code(path)), [], path)

    def test_every_kept_oddity_names_the_case_that_pins_it(self):
        cases = {f"{match.group(1)}.{match.group(2)}" for path in TESTS for match in CASE.finditer(code(path))}
        notes = 0
        for folder in ("include", "src", "lis", "formatter", "tools"):
            for path in sorted(glob.glob(f"{SOURCE}/{folder}/**/*", recursive=True)):
                if not path.endswith((".cpp", ".h", ".c")):
                    continue
                text = re.sub(r"\n\s*(?://|\*)\s?", " ", read(path))
                for match in re.finditer(r"KEPT:(.*?)(?=KEPT:|\n|\Z)", text):
                    notes += 1
                    with self.subTest(f"{os.path.basename(path)}: {match.group(1)[:60]}"):
                        pinned = re.search(r"Pinned by ((?:\w+\.\w+(?:, | and )?)+)", match.group(1))
                        self.assertIsNotNone(pinned, "no 'Pinned by Suite.Test.'")
                        for name in re.findall(r"\w+\.\w+", pinned.group(1)):
                            self.assertIn(name, cases)
        self.assertGreater(notes, 40)

    def test_calls_of_the_c_library_are_replaced_in_one_place(self):
        replaced = set()
        for name in ("syscalls.h", "thread_calls.h", "sink_capture.h"):
            text = code(f"{SOURCE}/tests/support/{name}")
            replaced |= set(re.findall(r"(?m)^SUPPORT_CALL\([^,]+, (\w+),", text))
        replaced |= {"open", "openat", "fcntl"}
        self.assertGreater(len(replaced), 25)
        for path in TESTS + [helper for helper in HELPERS if "/support/" not in helper]:
            text = code(path)
            for name in sorted(replaced):
                with self.subTest(f"{os.path.basename(path)}: {name}"):
                    self.assertIsNone(re.search(rf'(?m)^(?:extern "." )?[\w ]+[ *]{name}\([^;{{}}]*\)( noexcept)? \{{', text)
                                      if re.search(r'extern "', text) else None)


if __name__ == "__main__":
    unittest.main()
