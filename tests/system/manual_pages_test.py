#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sources of the manual pages: what scdoc makes of them, and what it would join."""
import glob
import os
import re
import shutil
import subprocess
import unittest

from qdul_testing import SOURCE, literal_lines, manual

PAGES = sorted(glob.glob(SOURCE + "/docs/man/*.scd"))


class ManualPages(unittest.TestCase):
    def test_every_tool_has_one(self):
        names = [os.path.basename(page) for page in PAGES]
        for tool in ("qdlogcfg", "qdlogger", "qdlogview", "qdlogmgr", "qdliscat"):
            self.assertIn(tool + ".1.scd", names)

    def test_examples_are_literal_blocks(self):
        for page in PAGES:  # the lines of other blocks are joined, and commands with them
            with open(page) as file, self.subTest(page):
                examples = file.read().split("\n# EXAMPLES\n", 1)[1].split("\n# ", 1)[0]
                self.assertIn("\n```\n", examples)
                self.assertEqual(re.findall(r"(?m)^\t.*$", examples), [])

    @unittest.skipUnless(shutil.which("scdoc"), "no scdoc")
    def test_scdoc_takes_them(self):
        for page in PAGES:
            name, number = os.path.basename(page).split(".")[:2]
            source = manual(name, number)
            done = subprocess.run(["scdoc"], input=source, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn(f'.TH "{name}" "{number}"', done.stdout)
            if shutil.which("groff"):
                shown = subprocess.run(["groff", "-t", "-man", "-Tutf8", "-ww"], input=done.stdout, capture_output=True, text=True)
                self.assertEqual((shown.returncode, shown.stderr), (0, ""))
                for line in literal_lines(source):  # each on a line of its own
                    self.assertRegex(shown.stdout.replace("\u2212", "-"), rf"(?m)^ +{re.escape(line.strip())}$")


if __name__ == "__main__":
    unittest.main()
