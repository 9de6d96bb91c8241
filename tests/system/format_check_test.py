#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The compiler checks the formats and arguments of every call of the library that takes a
printf format."""
import os
import re
import subprocess
import unittest

from qdul_testing import SOURCE, read

INCLUDE = os.path.join(SOURCE, "include")
COMPILER = os.environ.get("CC", "cc")
DECLARATION = re.compile(r"^uint32_t (\w+)\(([^;{}()]*const char \*(?:format|reference), (?:\.\.\.|va_list args))\)([^;]*);",
                         re.MULTILINE)


def calls():
    """Name, parameters before the format, whether the arguments are a va_list, attribute."""
    text = re.sub(r"/\*.*?\*/", "", read(os.path.join(INCLUDE, "zoltlog.h")), flags=re.DOTALL)
    for name, parameters, rest in DECLARATION.findall(text):
        parameters = [" ".join(parameter.split()) for parameter in parameters.split(",")]
        yield name, parameters[:-2], parameters[-1] != "...", rest.strip()


def call(name, before, takes_list, format_text, arguments):
    values = ["0"] * len(before) + [format_text, "args" if takes_list else arguments]
    return f"    {name}({', '.join(value for value in values if value)});\n"


def warnings(*statements):
    """What the compiler says of a function of these calls."""
    source = "#include <zoltlog.h>\nvoid f(va_list args);\nvoid f(va_list args) {\n    (void)args;\n" + "".join(statements) + "}\n"
    done = subprocess.run([COMPILER, "-std=c11", "-Wall", "-Wextra", "-fsyntax-only", f"-I{INCLUDE}", "-xc", "-"],
                          input=source, capture_output=True, text=True)
    if "error:" in done.stderr:
        raise AssertionError(done.stderr)
    return done.stderr


class FormatCheck(unittest.TestCase):
    def test_every_call_with_a_format_is_known(self):
        self.assertEqual(len(list(calls())), 19)
        for name, before, takes_list, attribute in calls():
            at = len(before) + 1
            self.assertEqual(attribute, f"ZOLTLOG_PRINTF({at}, {0 if takes_list else at + 1})", name)

    def test_a_right_call_is_silent(self):
        self.assertEqual(warnings(*(call(name, before, takes_list, text, arguments)
                                    for name, before, takes_list, _ in calls()
                                    for text, arguments in (('"%s is %d%% full"', '"disk", 12'),
                                                            ('"%2$s %1$d %m"', '12, "disk"')))), "")

    def test_a_null_format_is_the_librarys_to_answer(self):
        self.assertEqual(warnings(*(call(name, before, False, "0", "") for name, before, takes_list, _ in calls()
                                    if not takes_list)), "")

    def test_a_wrong_argument_is_a_warning(self):
        for name, before, takes_list, _ in calls():
            if not takes_list:
                self.assertIn("warning", warnings(call(name, before, False, '"%s"', "12")), name)

    def test_a_missing_argument_is_a_warning(self):
        for name, before, takes_list, _ in calls():
            if not takes_list:
                self.assertIn("warning", warnings(call(name, before, False, '"%s"', "")), name)

    def test_a_wrong_format_is_a_warning(self):
        for name, before, takes_list, _ in calls():
            self.assertIn("warning", warnings(call(name, before, takes_list, '"%y"', "12")), name)


if __name__ == "__main__":
    unittest.main()
