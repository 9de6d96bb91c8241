#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Completion as somebody types in bash and zsh: each case types a line, presses TAB and has the shell print
the words that stand there then. With QDUL_BUILD=/usr what is installed is tried, found as the shells find it."""
import os
import pty
import re
import select
import shutil
import time
import unittest

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, program, write

INSTALLED = os.path.exists(f"{BUILD}/share/bash-completion/completions/qdlogview")
TOOLS = ["qdlogcfg", "qdlogger", "qdlogview", "qdlogmgr", "qdliscat"]


class Shell:
    """A shell on a terminal of its own."""

    def __init__(self, *command, **variables):
        self.said = b""
        environment = plain_environment(TERM="dumb", HOME=HERE, ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf", **variables)
        environment["PATH"] = f"{BUILD}/bin:{environment['PATH']}"
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.execvpe(command[0], command, environment)

    def end(self):
        os.close(self.terminal)
        os.waitpid(self.process, 0)

    def type(self, text):
        os.write(self.terminal, text.encode())

    def until(self, expression):
        """Waits for it, and returns its match."""
        limit = time.monotonic() + 60
        while not (match := re.search(expression, self.said.decode(errors="replace"), re.S)):
            ready, _, _ = select.select([self.terminal], [], [], max(0, limit - time.monotonic()))
            if not ready:
                raise AssertionError(f"no {expression} in {self.said!r}")
            self.said += os.read(self.terminal, 65536)
        self.said = b""
        return match

    def run(self, line):
        self.type(line + " ; echo RE''ADY\n")
        self.until("READY")

    def words(self, line):
        """What stands on the line after TAB."""
        self.type(line + "\t\x05 ; echo E''ND\x01printf '<%s>' \n")
        return re.findall("<(.*?)>", self.until(r"(<[^>%]*>)+END").group(0))


class Completion:
    """The cases, for each shell."""

    @classmethod
    def setUpClass(cls):
        write("zoltlog.conf", f"5.Names=server,srv\n5.Configuration={HERE}/server.conf\n"
              f"6.Names=backup\n6.Configuration={HERE}/backup.conf\n")
        write("server.conf", "7.OIDNames=disk\n9.OIDNames=network\n")
        write("backup.conf", "7.OIDNames=disktape\n")
        cls.shell = cls.start()

    @classmethod
    def tearDownClass(cls):
        cls.shell.end()

    def completes(self, line, *words):
        self.assertEqual(self.shell.words(line)[len(line.split()) - 1:], list(words), line)

    def test_names_of_products(self):
        for tool in ("qdlogcfg get", "qdlogger", "qdlogview", "qdlogmgr list"):
            self.completes(f"{tool} -P serv", "server")
            self.completes(f"{tool} --product serv", "server")
        self.completes("qdlogcfg product show back", "backup")

    def test_names_after_the_sign(self):
        self.assertEqual(self.shell.words("qdlogview --product=serv")[-1], "--product=server")
        self.assertEqual(self.shell.words("qdlogmgr usage --originator=netw")[-1], "--originator=network")

    def test_names_of_originators(self):
        for tool in ("qdlogcfg get", "qdlogger", "qdlogview", "qdlogmgr list"):
            self.completes(f"{tool} -u netw", "network")
            self.completes(f"{tool} --originator netw", "network")

    def test_originators_are_those_of_the_product_on_the_line(self):
        self.completes("qdlogview -P server -u dis", "disk")
        self.completes("qdlogview --product=backup -u dis", "disktape")

    def test_names_of_the_configuration_on_the_line(self):
        write("other.conf", f"8.Names=elsewhere\n8.Configuration={HERE}/backup.conf\n")
        self.completes("qdlogview --config=other.conf -P e", "elsewhere")

    def test_options_of_every_tool(self):
        for tool in TOOLS:
            self.completes(f"{tool} --vers", "--version")
        self.completes("qdliscat list --loc", "--locale=")
        self.completes("qdlogview --until", "--until=")

    def test_commands_and_their_words(self):
        self.completes("qdlogmgr vac", "vacuum")
        self.completes("qdlogcfg prod", "product")
        self.completes("qdlogcfg product rem", "remove")
        self.completes("qdliscat ins", "install")
        self.completes("qdlogcfg get -P server LogDir", "LogDirectory")
        self.completes("qdlogcfg set -P server LogDir", "LogDirectory=")

    def test_values_of_options(self):
        self.completes("qdlogview -o json-p", "json-pretty")
        self.completes("qdlogview --priority emerg", "emergency")
        self.completes("qdlogger -k aud", "audit")
        self.completes("qdlogview --color al", "always")

    def test_files_where_there_is_no_list(self):
        self.completes("qdlogview --config zoltl", "zoltlog.conf")
        self.completes("qdliscat check server.c", "server.conf")


class Bash(Completion, unittest.TestCase):
    @classmethod
    def start(cls):
        shell = Shell("bash", "--norc", "--noprofile", "-i")
        shell.run("bind 'set enable-bracketed-paste off'; PS1=")
        shell.run("source /usr/share/bash-completion/bash_completion" if INSTALLED
                  else f"source {SOURCE}/packaging/completion/qdul.bash")
        return shell


@unittest.skipUnless(shutil.which("zsh"), "there is no zsh")
class Zsh(Completion, unittest.TestCase):
    @classmethod
    def start(cls):
        shell = Shell("zsh", "-f", "-i")
        shell.run("bindkey -e; PROMPT= PS2= RPROMPT=; unset zle_bracketed_paste; setopt no_prompt_sp no_always_last_prompt")
        if not INSTALLED:
            shell.run(f"fpath=({SOURCE}/packaging/completion $fpath)")
        shell.run(f"autoload -Uz compinit && compinit -u -d {HERE}/zcompdump")
        return shell


class Lists(unittest.TestCase):
    def test_every_tool_has_its_file(self):
        for tool in TOOLS:
            self.assertTrue(os.access(program(tool), os.X_OK), tool)
            if INSTALLED:
                self.assertTrue(os.path.exists(f"{BUILD}/share/bash-completion/completions/{tool}"), tool)


if __name__ == "__main__":
    unittest.main()
