#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The documents' lists of settings against the library's table of configuration keys."""
import os
import re
import subprocess
import unittest

from qdul_testing import BUILD, SOURCE, manual, read


def settings(form):
    return subprocess.run([f"{BUILD}/docs/settings_list", form], capture_output=True, text=True, check=True).stdout


class ConfigKeys(unittest.TestCase):
    maxDiff = None

    def test_the_format_document_has_every_row_and_no_other(self):
        page = read(f"{SOURCE}/docs/format-config.md")
        table = page.split("| key | setting | value | default |\n|---|---|---|---|\n")[1].split("\n\n")[0] + "\n"
        self.assertEqual(table, settings("markdown"))  # build/release/docs/settings_list markdown prints them

    def test_the_manual_page_gets_every_setting(self):
        names = re.findall(r"(?m)^\| `(\w+)`", settings("markdown"))
        self.assertGreater(len(names), 20)
        self.assertEqual(re.findall(r"(?m)^\*(\w+)\*$", settings("manual")), names)
        self.assertEqual(manual("qdlogcfg").count("\n@SETTINGS@\n"), 1)
        made = f"{BUILD}/docs/man/qdlogcfg.1"
        if os.path.exists(made):  # with scdoc
            page = read(made)
            self.assertNotIn("SETTINGS@", page)
            for name in names:
                self.assertIn(rf"\fB{name}\fR", page)

    def test_the_tool_lists_every_setting(self):
        text = subprocess.run([f"{BUILD}/bin/qdlogcfg", "--help"], capture_output=True, text=True, check=True).stdout
        for name in re.findall(r"(?m)^\| `(\w+)`", settings("markdown")):
            self.assertRegex(text, rf"(?m)^  {name}: ")


if __name__ == "__main__":
    unittest.main()
