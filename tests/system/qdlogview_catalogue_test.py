#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Contexts whose message came from a catalogue have an argument block in place of a text: it is rendered
wherever a text is shown, searched, counted or exported."""
import csv
import io
import json
import os
import subprocess
import unittest

from qdul_testing import BUILD, HERE, plain_environment, program, string

T0 = 1709300702000
LOG = "5-7-16777343-240301-0000000000.log"
FOUND = b"(0|X5:Disk |i32:7|X9: is full |u32:90|X1:%|)"
MISSING = b"(1001|X4:sda1|i32:90|)"
MISFIT = b"(1002|X4:sda1|)"
UNKNOWN = b"(77|X4:sda1|u16:3|(0|X2:a |X1:b|),)"


def context(id, block, text=b""):
    return b"3,5,7,7,%d,%d,42,43,0:,%s%s%s\n" % (id, T0 + id * 1000, string(text), string(b"job-%d" % id), block)


class Catalogue(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(LOG, "wb") as file:
            file.write(b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000))
            for id, block in enumerate((FOUND, MISSING, MISFIT, UNKNOWN), 1):
                file.write(context(id, block))
            file.write(context(5, b"(0|)") + context(6, FOUND, b"a text of its own"))
            file.write(b"2,5,7,7,7,%d,42,43,0:,0:,3:mgr,2,%s\n" % (T0 + 7000, FOUND))
        os.makedirs("messages")
        with open("root.txt", "w") as file:
            file.write('root { 1001 { "Disk %1$s is %2$d%% full" } 1002 { "%1$d of %2$d" } }')
        with open("de.txt", "w") as file:
            file.write('de { 1001 { "Zu %2$03d%% voll ist %1$s" } }')
        subprocess.run(["genrb", "-q", "-e", "UTF-8", "-d", "messages", "root.txt", "de.txt"], check=True)

    def view(self, *words, catalogue=True, status=0, **variables):
        if catalogue:
            variables["QDLIS_CATALOG"] = f"{HERE}/messages"
        done = subprocess.run([program("qdlogview"), *words, LOG], capture_output=True, text=True,
                              env=plain_environment(**variables))
        self.assertEqual((done.returncode, done.stderr), (status, ""), words)
        return done.stdout

    def texts(self, *words, **more):
        return self.view("-o", "cat", *words, **more).splitlines()

    EXPECTED = ["Disk 7 is full 90%", "Disk sda1 is 90% full", "sda1", "sda1 3 a b", "", "a text of its own", "Disk 7 is full 90%"]

    def test_a_found_message_is_joined_and_a_missing_one_is_looked_up(self):
        self.assertEqual(self.texts(), self.EXPECTED)

    def test_without_a_catalogue_the_arguments_have_blanks_between(self):
        expected = self.EXPECTED[:1] + ["sda1 90"] + self.EXPECTED[2:]
        self.assertEqual(self.texts(catalogue=False), expected)
        self.assertEqual(self.texts(catalogue=False, QDLIS_CATALOG="/nowhere"), expected)

    def test_the_words_are_those_of_the_viewers_locale(self):
        locales = f"{BUILD}/locales"
        if not os.path.isdir(locales):
            self.skipTest("no locales for tests")
        self.assertEqual(self.texts(LOCPATH=locales, LC_MESSAGES="de_DE.UTF-8")[1], "Zu 090% voll ist sda1")

    def test_every_output_shows_it(self):
        expected = self.EXPECTED
        self.assertEqual([line.split(": ", 1)[1] for line in self.view().splitlines()], expected)
        self.assertEqual([line.split(": ", 1)[1] for line in self.view("-o", "short-iso").splitlines()], expected)
        self.assertEqual([line.partition("=")[2] for line in self.view("-o", "full").splitlines() if "  text=" in line], expected)
        self.assertEqual([json.loads(line)["text"] for line in self.view("-o", "json").splitlines()], expected)
        self.assertEqual(self.view("-o", "json-pretty").count('"text": "Disk sda1 is 90% full"'), 1)
        self.assertEqual([row["text"] for row in csv.DictReader(io.StringIO(self.view("-o", "csv")))], expected)
        self.assertEqual(self.view("--template={msgid} {text}").splitlines(),
                         [f"{id} {text}" for id, text in enumerate(expected, 1)])
        self.assertEqual(self.view("-o", "json", "--fields", "text_lines").splitlines()[1], '{"text_lines":"Disk sda1 is 90% full"}')

    def test_raw_output_stays_what_is_stored(self):
        with open(LOG) as file:
            self.assertEqual(self.view("-o", "raw"), file.read())

    def test_it_is_searched(self):
        self.assertEqual(self.texts("-g", "^Disk"), [self.EXPECTED[i] for i in (0, 1, 6)])
        self.assertEqual(self.texts("-w", 'text = "Disk sda1 is 90% full"'), self.EXPECTED[1:2])
        self.assertEqual(self.texts("-w", "text_lines ~ full and kind = context"), self.EXPECTED[:2])
        self.assertEqual(self.texts("-g", "sda1 3", "-A", "1"), self.EXPECTED[3:5])
        self.assertEqual(self.view("-g", "no such text", "-q", status=1), "")

    def test_it_is_counted(self):
        self.assertEqual(self.view("--count", "-g", "full"), "3\n")
        self.assertIn('"text":"Disk 7 is full 90%","count":2', self.view("-F", "text", "--json"))
        self.assertIn("Disk sda1 is 90% full", self.view("-F", "text"))
        self.assertEqual(json.loads(self.view("--stats", "--json", "-g", "Disk sda1"))["records"], 1)

    def test_records_that_wait_keep_it(self):
        """The last ones, the reverse order, neighbours, standard input: they are held while others are read."""
        self.assertEqual(self.texts("-n", "3"), self.EXPECTED[-3:])
        self.assertEqual(self.texts("-r"), self.EXPECTED[::-1])
        self.assertEqual(self.texts("-g", "a text of", "-C", "1"), self.EXPECTED[4:])
        with open(LOG, "rb") as file:
            done = subprocess.run([program("qdlogview"), "-o", "cat", "-n", "2", "-"], stdin=file, capture_output=True,
                                  text=True, env=plain_environment())
        self.assertEqual(done.stdout.splitlines(), self.EXPECTED[-2:])

    def test_a_context_of_the_library_has_its_text(self):
        with open("zoltlog.conf", "w") as file:
            file.write(f"5.Configuration={HERE}/server.conf\n")
        with open("server.conf", "w") as file:
            file.write(f"Default.LogDirectory={HERE}/log/\n")
        environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf")
        subprocess.run([program("qdlogger"), "-P", "5", "-x", "job-77", "word"], check=True, env=environment)
        done = subprocess.run([program("qdlogview"), "-P", "5", "-k", "context", "--template={title}: {text}"],
                              capture_output=True, text=True, env=environment)
        self.assertEqual(done.stdout, "job-77: messages of qdlogger\n")


if __name__ == "__main__":
    unittest.main()
