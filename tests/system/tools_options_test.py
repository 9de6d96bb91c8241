#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command lines of the five tools are one family: letters, spellings, help, manual pages."""
import os
import re
import subprocess
import unittest

from qdul_testing import BUILD, SOURCE, program, read, section

TOOLS = ["qdlogcfg", "qdlogger", "qdlogview", "qdlogmgr", "qdliscat"]
FAMILY = {"P": "--product", "u": "--originator", "L": "--logset", "p": "--priority", "t": "--who", "k": "--kind",
          "q": "--quiet", "V": "--version", "h": "--help"}
WITHOUT_LETTER = ["--config", "--json", "--color", "--no-pager"]


def run(tool, *words, **more):
    more = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **more}
    return subprocess.run([program(tool), *words], text=True, **more)


def rows(tool):
    """The options of a tool as --help lists them: all names of each."""
    found = []
    for line in run(tool, "--help").stdout.splitlines():
        if re.match(r" {2}(-[A-Za-z], | {4})--[a-z]", line):
            found.append(re.findall(r"(?<![\w-])(--[a-z][a-z0-9-]*|-[A-Za-z])(?=[=, ]|$)", line[:28] if len(line) > 28 and line[27] == " " else line))
    return found


class Options(unittest.TestCase):
    def test_shared_letters_mean_the_same_in_every_tool(self):
        for tool in TOOLS:
            options = rows(tool)
            self.assertGreater(len(options), 3)
            for names in options:
                for name in names:
                    if len(name) == 2 and name[1] in FAMILY:
                        self.assertIn(FAMILY[name[1]], names, tool)
                if set(names) & set(WITHOUT_LETTER):
                    self.assertEqual(len(names), 1, tool)
            for letter, long in FAMILY.items():  # and who has the option has its letter
                for names in options:
                    if long in names:
                        self.assertIn("-" + letter, names, tool)

    def test_no_letter_has_two_meanings(self):
        meaning = {}
        for tool in TOOLS:
            for names in rows(tool):
                for name in names:
                    if len(name) == 2:
                        meaning.setdefault(name, {})[tool] = names[1]
        for letter, meanings in meaning.items():
            if letter != "-o":  # where the output goes: a format, or a place
                self.assertEqual(len(set(meanings.values())), 1, (letter, meanings))

    def test_old_long_spellings_work(self):
        for tool, spellings in {"qdlogger": "product originator logset severity", "qdlogview": "product originator logset",
                                "qdlogmgr": "product originator logset", "qdlogcfg": "product originator logset severity"}.items():
            known = {name for names in rows(tool) for name in names}
            for spelling in spellings.split():
                self.assertIn("--" + spelling, known, tool)

    def test_every_tool_has_what_all_have(self):
        for tool in TOOLS:
            known = {name for names in rows(tool) for name in names}
            self.assertLessEqual({"-q", "--quiet", "-V", "--version", "-h", "--help"}, known, tool)
            for word in ("-V", "--version"):
                self.assertRegex(run(tool, word).stdout, rf"^{tool} \d+(\.\d+)+\n$")
            self.assertEqual(run(tool, "-h").stdout, run(tool, "--help").stdout)

    def test_help_and_completion_list_the_same(self):
        for tool in TOOLS:
            listed = run(tool, "--complete", "options").stdout
            self.assertEqual(set(listed.replace("=", "").split()), {name for names in rows(tool) for name in names}, tool)
            self.assertEqual(run(tool, "--complete", "nothing").returncode, 2, tool)
        self.assertEqual(run("qdliscat", "--complete", "commands").stdout.split(), ["check", "show", "list", "install"])

    def test_the_manual_tells_the_options_of_the_table(self):
        """Each in the order of the help, with its names, its value and a sentence."""
        for tool in TOOLS:
            self.assertIn("\n@OPTIONS@\n", section(read(f"{SOURCE}/docs/man/{tool}.1.scd"), "OPTIONS"))
            told = run(tool, "--help=manual").stdout
            entries = re.findall(r"(?m)^(\*-.*)\n\t(.*)$", told)
            names = [re.findall(r"\*(--?[a-zA-Z][a-zA-Z0-9-]*)\*", line) for line, _ in entries]
            self.assertEqual(names, rows(tool), tool)
            valued = {line.split("=")[0].split()[-1] for line in run(tool, "--help").stdout.splitlines()
                      if re.match(r" {2}(-[A-Za-z], | {4})--[a-z-]+=", line) or re.match(r" {2}-[A-Za-z], --[a-z, -]+=", line)}
            for (line, sentence), each in zip(entries, names):
                self.assertEqual("=_" in line, bool(valued & set(each)), line)
                self.assertRegex(sentence, r"^[^a-z].*\.$")
            page = f"{BUILD}/docs/man/{tool}.1"
            if os.path.exists(page):  # made where scdoc is there
                made = read(page)
                self.assertNotIn("OPTIONS@", made)
                for each in names:
                    self.assertIn("\\fB" + each[-1] + "\\fR", made)

    def test_what_only_the_manual_says_is_in_it(self):
        told = run("qdlogview", "--help=manual").stdout
        self.assertIn("\n*-P*, *--product*=_id|name_\n\t", told)
        self.assertIn("\n*--run*=_n_\n\tRecords of a process run as --list-runs counts them (0: the last, -1: the one before).\n"
                      "\t1 is the first of those that *--list-runs* tells for the same files.\n", told)
        self.assertNotIn("1 is the first", run("qdlogview", "--help").stdout)
        self.assertIn("*--complete* knows options, fields, kinds,", told)

    def test_lines_of_the_help_fit_a_terminal(self):
        for tool in TOOLS:
            for line in run(tool, "--help").stdout.split("\nSettings:\n")[0].splitlines():
                self.assertLessEqual(len(line), 80, (tool, line))

    def test_help_that_cannot_be_written_is_told(self):
        for tool in TOOLS:
            with open("/dev/full", "w") as full:
                done = run(tool, "--help", stdout=full)
            self.assertEqual(done.returncode, 4, tool)
            self.assertRegex(done.stderr, rf"^{tool}: the output could not be written")

    def test_settings_that_cannot_be_written_are_told(self):
        with open("one.conf", "w") as file:
            file.write("5.Names=server\n5.Configuration=/nowhere/a.conf\n")
        with open("/dev/full", "w") as full:
            done = run("qdlogcfg", "product", "list", "--config=one.conf", stdout=full)
        self.assertEqual((done.returncode, done.stderr.partition(":")[2]), (4, " the output could not be written: No space left on device\n"))

    def test_usage_errors_name_the_tool_and_the_option(self):
        for tool in TOOLS:
            for words, says in ((["--nonsense"], "option --nonsense is not understood"), (["-Z"], "option -Z is not understood"),
                                (["-qZ"], "option -Z is not understood"), (["--nonsense=3"], "option --nonsense is not understood"),
                                (["--quiet=yes"], "option --quiet takes no argument")):
                done = run(tool, *words)
                self.assertEqual((done.returncode, done.stdout), (2, ""), (tool, words))
                self.assertEqual(done.stderr, f"{tool}: {says}\nTry '{tool} --help'.\n")
        for tool in ("qdlogger", "qdlogview", "qdlogmgr", "qdlogcfg"):
            self.assertIn("option --product needs an argument", run(tool, "-P").stderr)
            self.assertIn("--product: it must not be empty", run(tool, "--product=", "x").stderr)
            self.assertIn("--product: it must not be empty", run(tool, "-P", "", "x").stderr)

    def test_an_unambiguous_beginning_stands_for_a_long_name(self):
        self.assertEqual(run("qdlogmgr", "--vers").stdout, run("qdlogmgr", "--version").stdout)
        self.assertIn("--color: 'pink'", run("qdlogview", "--col=pink").stderr)
        self.assertIn("--color: 'pink'", run("qdlogview", "--col", "pink").stderr)
        self.assertIn("option --co is not understood", run("qdlogview", "--co").stderr)  # --color, --config, --context, ...
        self.assertIn("there is no command '--vers'", run("qdlogmgr", "--", "--vers").stderr)

    def test_a_value_may_look_like_an_option(self):
        self.assertIn("'--json' is not auto", run("qdlogmgr", "--color", "--json").stderr)
        self.assertIn("--color: '--' is not auto", run("qdlogmgr", "--color", "--", "list").stderr)

    def test_options_stand_before_and_behind_the_command(self):
        with open("main.conf", "w") as file:
            file.write("")
        for words in (["--config=main.conf", "product", "list", "--json"], ["product", "--json", "list", "--config", "main.conf"]):
            done = run("qdlogcfg", *words)
            self.assertEqual((done.returncode, done.stdout.strip()), (1, "[]"), done.stderr)

    def test_what_a_command_does_not_take_is_refused(self):
        for tool, words, says in (("qdlogmgr", ["list", "--to", "x"], "qdlogmgr list: --to is no option of this command"),
                                  ("qdlogmgr", ["surplus", "x"], "qdlogmgr surplus: 'x' is one word too many"),
                                  ("qdlogmgr", ["copy"], "qdlogmgr copy: --to is required"),
                                  ("qdlogcfg", ["set", "-P", "5"], "qdlogcfg set: KEY=VALUE... is missing"),
                                  ("qdlogcfg", ["product", "add", "5"], "qdlogcfg product add: --names is required"),
                                  ("qdlogcfg", ["product", "sing"], "there is no command 'product sing'"),
                                  ("qdliscat", ["show", "1"], "is missing")):
            done = run(tool, *words)
            self.assertEqual(done.returncode, 2, words)
            self.assertIn(says, done.stderr)


if __name__ == "__main__":
    unittest.main()
