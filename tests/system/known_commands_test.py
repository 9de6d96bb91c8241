#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""docs/known-commands.md: every command that it gives as ours runs and finds what it is for."""
import gzip
import os
import re
import subprocess
import time
import unittest

from qdul_testing import BUILD, HERE, SOURCE, host_number, plain_environment, read, write

PAGE = read(f"{SOURCE}/docs/known-commands.md")
FILE = "5-7-1-240301-0000000000.log"
HOST = host_number()


def rows(title):
    """What each row of a section's table gives as ours."""
    section = PAGE.split(f"\n## {title}\n", 1)[1].split("\n## ", 1)[0]
    lines = [line.replace("\\|", "\0") for line in section.splitlines() if line.startswith("| ")][1:]
    cells = [[cell.strip().replace("\0", "|") for cell in line.strip("|").split("|")] for line in lines]
    return [(row[0], re.match(r"`([^`]+)`", row[2]).group(1)) for row in cells]


class KnownCommands(unittest.TestCase):
    def setUp(self):
        now = int(time.time() * 1000) - 60000
        for directory in ("log", "collected", "packed"):
            os.makedirs(directory, exist_ok=True)
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("server.conf", f"Default.LogDirectory={HERE}/log/\n7.OIDNames=disk\n")
        write("lines.txt", "one\ntwo\n")
        lines = [f"$Header 65543,5,7,{now // 1000},0,hostA\n",
                 f"2,5,7,7,1,{now},41,43,0:,10:Disk  full,6:worker,1,(0|)\n",
                 f"2,5,7,7,1,{now + 1},42,43,0:,9:Disk full,6:worker,2,(0|)\n",
                 f"2,5,7,7,2,{now + 2},42,43,0:,4:full,6:worker,3,(0|)\n"]
        for directory in ("log", "collected"):
            write(f"{directory}/{FILE}", "".join(lines))
        with gzip.open(f"packed/{FILE}.gz", "wt") as file:
            file.write("".join(lines))
        self.environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf", TMPDIR=HERE)
        self.environment["PATH"] = f"{BUILD}/bin:{self.environment['PATH']}"
        write("own", f"$Header 65543,5,8,{now // 1000},0,hostA\n2,5,8,8,1,{now},41,43,0:,4:full,6:worker,1,(0|)\n")
        os.rename("own", f"log/5-8-{HOST}-240301-0000000000.log")

    def run_it(self, command):
        done = subprocess.run(["sh", "-c", command], capture_output=True, text=True, env=self.environment, stdin=subprocess.DEVNULL)
        self.assertEqual(done.returncode, 0, command)
        self.assertRegex(done.stderr, r"^.* INFO: disk full\n$" if "--stderr" in command else "^$", command)
        return done.stdout

    def test_commands_that_read(self):
        for title, least in (("journalctl", 35), ("lnav", 12)):
            found = rows(title)
            self.assertGreaterEqual(len(found), least)
            for what, command in found:
                if "-v" in command.split():
                    command = command.replace("full", "Disk")
                with self.subTest(what=what, command=command):
                    out = self.run_it(command)
                    self.assertTrue(out or ">" in command or "cursor-file" in command)
        self.assertIn("Disk full", read("table.csv"))
        self.assertIn('"text":"Disk full"', read("records.json"))
        self.assertIn(FILE, read("place"))

    def test_commands_that_write(self):
        found = rows("logger")
        self.assertGreaterEqual(len(found), 9)
        for _, command in found:
            self.run_it(command)
        shown = self.run_it("qdlogview -P server -u 112 --template='{severity_text} {who}{subject} {context} {text}'").splitlines()
        self.assertEqual(len(shown), len(found) + 2)  # one of them sends two lines, one a context
        for line in ("info  disk full", "info backup  disk full", "error   disk full", "info job  work", "info   two",
                     "context messages of qdlogger", "info  job-77 work", "audit alice  login refused"):
            self.assertIn(line.split(), [each.split() for each in shown])
        self.assertEqual(self.run_it("qdlogview -P server --message-id 17 --count"), "1\n")


if __name__ == "__main__":
    unittest.main()
