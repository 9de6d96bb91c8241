#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The manual of qdlogview: lists every option, and each of its examples runs."""
import os
import re
import subprocess
import time
import unittest

from qdul_testing import BUILD, HERE, literal_lines, manual, read, section, write

MANUAL = manual("qdlogview")


class Manual(unittest.TestCase):
    def run_it(self, command):
        environment = {**os.environ, "PATH": BUILD + "/bin:" + os.environ["PATH"],
                       "ZOLTLOG_CFG_LOC": HERE + "/zoltlog.conf", "TZ": "UTC"}
        return subprocess.run(command, shell=True, capture_output=True, env=environment, text=True)

    def test_every_field_is_in_the_manual(self):
        self.assertIn("\n@FIELDS@\n", section(MANUAL, "QUERIES"))
        listed = re.findall(r"(?m)^\*(\w+)\*.*\n\t\w", self.run_it(f"{BUILD}/docs/fields_list").stdout)
        self.assertEqual(listed, self.run_it("qdlogview --complete fields").stdout.split())
        page = f"{BUILD}/docs/man/qdlogview.1"
        if os.path.exists(page):  # made where scdoc is there
            self.assertNotIn("FIELDS@", read(page))
            self.assertIn("argument block, when it is not empty", read(page))

    def test_the_table_of_severities_is_what_is_shown(self):
        cells = re.findall(r"(?m)^[|:] +(.*)$", section(MANUAL, "SEVERITIES").split("\n|", 1)[1].join(["|", ""]))
        told = {cells[i + 2]: (int(cells[i]), cells[i + 1]) for i in range(0, len(cells), 3)}
        kinds = {"debug": "0,{},3", "diagnostic": "1,{},3,(0|)", "context": "3,{},(0|)", "audit": "4,{},0,(0|)",
                 **{f"application, severity {n}": f"2,{{}},{n},(0|)" for n in range(5)}}
        self.assertEqual(set(told), set(kinds))
        for what, shape in kinds.items():
            kind, _, rest = shape.partition(",{}")
            write("one.log", f"$Header 65543,5,7,1709300702,0,hostA\n{kind},5,7,7,1,1709300702000,42,43,0:,4:text,3:mgr{rest}\n")
            shown = self.run_it("qdlogview --template='{severity} {severity_text}' one.log").stdout.split()
            self.assertEqual((int(shown[0]), shown[1]), told[what])
            self.assertEqual(self.run_it(f"qdlogview --count -p {told[what][1]}..{told[what][1]} one.log").stdout, "1\n")

    def test_every_example_runs(self):
        now = int(time.time() * 1000) - 60000
        os.makedirs("log", exist_ok=True)
        os.makedirs("collected", exist_ok=True)
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("server.conf", f"Default.LogDirectory={HERE}/log/\n")
        header = f"$Header 65543,5,7,{now // 1000},0,hostA\n"
        lines = [f"2,5,7,7,1,{now},42,43,6:job-77,9:Disk full,3:mgr,3,(0|)\n",
                 f"4,5,7,7,2,{now + 1},42,43,0:,13:login refused,5:alice,1,(0|)\n"]
        for directory in ("log", "collected"):
            write(f"{directory}/5-7-1-240301-0000000000.log", header + "".join(lines))
        commands = literal_lines(section(MANUAL, "EXAMPLES"))
        self.assertGreaterEqual(len(commands), 10)
        expected = {
            "-p error": "Disk full", "-c job-77": "job-77", "-f ": "Disk full", "-g '": "Disk full", "-F subject": "alice",
            "--stats": "records", "--verify": "0 problems", "--gaps": "0 gaps",
        }
        for command in commands:
            command = command.replace("--timeout 1h", "--timeout 1s")
            with self.subTest(command=command):
                if "-S today" in command and time.gmtime(now / 1000).tm_mday != time.gmtime().tm_mday:
                    continue  # within a minute of midnight
                done = self.run_it(command)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertEqual(done.stderr, "")
                for words, text in expected.items():
                    if words in command and ">" not in command:
                        self.assertIn(text, done.stdout)
        with open("spool.jsonl") as file:
            self.assertEqual(len(file.readlines()), 2)
        self.assertEqual(os.listdir("spool"), ["qdul-000000000001-2.json"])
        with open("table.csv") as file:
            self.assertEqual(file.readline(), "time,severity,who,text\n")


if __name__ == "__main__":
    unittest.main()
