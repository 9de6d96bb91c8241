#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whatever kind of node lies under a name that a tool reads: the tool ends, and opens nothing
but regular files, as strace tells where it is installed."""
import os
import pty
import re
import shutil
import socket
import stat
import subprocess
import unittest

from qdul_testing import BUILD, HERE, plain_environment, program, write

T0 = 1709300702000
HEADER = f"$Header 65543,5,7,{T0 // 1000},0,hostA\n"
RECORD = f"2,5,7,7,1,{T0},42,43,0:,4:text,3:mgr,0,(0|)\n"
PLUGIN = "libzoltLogFormatMsg.so.3"
HANGS = 60  # seconds; what is read ends in an instant
SANITIZED = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ
STRACE = None if SANITIZED else shutil.which("strace")
TRACE = ["-f", "-qq", "-y", "-s", "4096", "-e", "trace=open,openat,openat2,creat"]
CALL = re.compile(r'(?:open|creat)\w*\((?:(?:AT_FDCWD|\d+)<(?P<base>[^>]*)>, )?"(?P<path>[^"]*)"(?:, (?P<flags>[^)]*))?')
# Ways of opening that have no effect on what lies there
LOOKS = ("O_PATH", "O_DIRECTORY", "O_EXCL", "O_TMPFILE")


class Nodes:
    """What names may stand for, as (kind, make(path)), with the things that links lead to."""

    def __init__(self, directory):
        self.directory = directory
        os.mkdir(directory)
        self.master, slave = pty.openpty()
        self.targets = {"terminal": os.ttyname(slave), "multiplexer": "/dev/ptmx", "zeros": "/dev/zero",
                        "null": "/dev/null"}
        os.close(slave)
        for kind, make in (("fifo", os.mkfifo), ("socket", self.socket), ("directory", os.mkdir)):
            self.targets[kind] = f"{directory}/{kind}"
            make(self.targets[kind])
        os.symlink("loop", f"{directory}/loop")
        self.odd = [("fifo", os.mkfifo), ("socket", self.socket), ("directory", os.mkdir)]
        if os.geteuid() == 0:
            self.odd.append(("device", self.device))
        for kind, target in {**self.targets, "loop": f"{directory}/loop", "nothing": f"{directory}/nothing"}.items():
            self.odd.append((f"link to {kind}", lambda path, target=target: os.symlink(target, path)))

    def close(self):
        os.close(self.master)

    @staticmethod
    def socket(path):
        with socket.socket(socket.AF_UNIX) as bound:
            here = os.open(".", os.O_RDONLY | os.O_DIRECTORY)
            os.chdir(os.path.dirname(path) or ".")  # the name of a socket is short
            bound.bind(os.path.basename(path))
            os.fchdir(here)
            os.close(here)

    @staticmethod
    def device(path):
        os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(1, 5))


class OddNodes(unittest.TestCase):
    def setUp(self):
        self.directory = os.path.join(HERE, "case")
        shutil.rmtree(self.directory, ignore_errors=True)
        os.mkdir(self.directory)
        os.chdir(self.directory)
        self.nodes = Nodes(self.directory + "/nodes")
        os.mkdir("log")
        self.log(0, HEADER + RECORD)
        self.main, self.product = self.directory + "/main.conf", self.directory + "/product.conf"
        write(self.main, f"5.Configuration={self.product}\n5.Names=server\n")
        write(self.product, f"Default.LogDirectory={self.directory}/log/\nDefault.DebugLevel=1\n")

    def tearDown(self):
        self.nodes.close()
        os.chdir(HERE)
        shutil.rmtree(self.directory, ignore_errors=True)

    def log_name(self, counter):
        return f"{self.directory}/log/5-7-16777343-240301-{counter:010d}.log"

    def log(self, counter, text):
        write(self.log_name(counter), text)

    def run_it(self, tool, *words, **variables):
        """Status, output and errors; nothing but regular files is opened."""
        environment = plain_environment(ZOLTLOG_CFG_LOC=self.main, **variables)
        command = [program(tool), *words]
        if STRACE:
            command = [STRACE, *TRACE, "-o", "trace", *command]
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, env=environment, timeout=HANGS)
        self.assertGreaterEqual(done.returncode, 0, (command, done.stderr))
        if STRACE:
            self.assertEqual(self.odd_opened(), [], command)
        return done.returncode, done.stdout, done.stderr

    def odd_opened(self):
        """The calls of the last trace that opened, or tried to open, what is no regular file here."""
        found = []
        here = (self.directory + "/", *self.nodes.targets.values())
        with open("trace", encoding="utf-8", errors="replace") as trace:
            for line in trace:
                call = CALL.search(line)
                if not call or any(look in (call["flags"] or "") for look in LOOKS):
                    continue
                path = os.path.join(call["base"] or self.directory, call["path"])
                if not path.startswith(here) or (os.path.islink(path) and "O_NOFOLLOW" in (call["flags"] or "")):
                    continue
                if os.path.exists(path) and not os.path.isfile(path):
                    found.append(line.strip())
        return found

    def at(self, path, run):
        """Runs with the kind of each odd node while it lies at the path."""
        there = os.path.lexists(path)
        if there:
            os.rename(path, "kept")
        for kind, make in self.nodes.odd:
            make(path)
            with self.subTest(kind):
                run(kind)
            if os.path.isdir(path) and not os.path.islink(path):
                os.rmdir(path)
            elif os.path.lexists(path):
                os.remove(path)
        if there:
            os.rename("kept", path)

    def test_the_trace_tells_what_is_opened(self):
        if not STRACE:
            self.skipTest("strace is not installed")
        fifo = self.nodes.targets["fifo"]
        read = os.open(fifo, os.O_RDWR)
        subprocess.run([STRACE, *TRACE, "-o", "trace", "head", "-c0", fifo], check=True)
        os.close(read)
        self.assertEqual(len(self.odd_opened()), 1)

    def test_log_files(self):
        for number, (_, make) in enumerate(self.nodes.odd, 1):
            make(self.log_name(number))
        os.symlink(self.log_name(0), self.log_name(90))
        os.mkdir("copies")
        for words in (["."], ["-r", "."], ["-n1", "."], ["--verify", "."], ["--count", "."], ["--stats", "."], ["--gaps", "."],
                      ["-S", "2024-03-01", "."], ["-P", "5"], ["-P", "server", "--list-runs"]):
            words = [self.directory + "/log" if word == "." else word for word in words]
            self.run_it("qdlogview", *words)
        self.assertEqual(self.run_it("qdlogview", "--count", "-P", "5")[1], b"2\n")
        for command in ("list", "usage", "verify", "surplus"):
            self.run_it("qdlogmgr", command, "-P", "5")
            self.run_it("qdlogmgr", command, "-D", self.directory + "/log")
        self.run_it("qdlogmgr", "copy", "-P", "5", "--to", "copies")
        self.assertEqual(sorted(os.listdir("copies")), [os.path.basename(self.log_name(0))])
        self.run_it("qdlogmgr", "delete", "-P", "5", "--older-than=1s", "--dry-run")

    def test_files_named_one_by_one(self):
        def view(kind):
            if kind in ("directory", "link to directory"):
                return  # that may be given, too
            status, _, err = self.run_it("qdlogview", "file.log")
            self.assertEqual(status, 3)
            self.assertNotEqual(err, b"")
        self.at("file.log", view)

    def test_names_of_copies(self):
        copy = ["copy", "-P", "5", "--to", "copies"]
        os.mkdir("copies")
        name = f"{self.directory}/copies/{os.path.basename(self.log_name(0))}"
        for words in (copy, [*copy, "--replace"]):
            self.at(name, lambda kind, words=words: self.assertEqual(self.run_it("qdlogmgr", *words)[0], 4))
            self.assertEqual(self.run_it("qdlogmgr", *words)[0], 0)

    def test_the_next_name(self):
        send = ["-P", "5", "-u", "9", "text"]
        self.assertEqual(self.run_it("qdlogger", *send)[0], 0)
        (name,) = [name for name in os.listdir("log") if name.startswith("5-9-")]
        self.at(f"{self.directory}/log/{name}", lambda kind: self.assertEqual(self.run_it("qdlogger", *send)[0], 3))
        self.assertEqual(self.run_it("qdlogger", *send)[0], 0)

    def use_configuration(self, kind):
        if kind == "link to nothing":
            return  # it is no file yet
        for tool, *words in (["qdlogger", "-P", "5", "text"], ["qdlogmgr", "list", "-P", "5"],
                             ["qdlogview", "-P", "server"], ["qdlogcfg", "get", "-P", "server", "DebugLevel"],
                             ["qdlogcfg", "check", "-P", "5"], ["qdlogcfg", "set", "-P", "5", "DebugLevel=2"]):
            status, _, err = self.run_it(tool, *words)
            self.assertIn(status, (1, 3), (tool, words, err))
        self.run_it("qdlogcfg", "product", "list")

    def test_the_main_configuration(self):
        self.at(self.main, self.use_configuration)

    def test_a_products_configuration(self):
        self.at(self.product, self.use_configuration)

    def test_what_is_applied(self):
        apply = ["apply", "-P", "5"]
        self.at("settings", lambda kind: self.assertEqual(self.run_it("qdlogcfg", *apply, "settings")[0], 3))
        write("settings", "Default.DebugLevel=3\n")
        os.symlink("settings", "link")
        self.assertEqual(self.run_it("qdlogcfg", *apply, "link")[0], 0)

    def test_cursor_files(self):
        view = ["--cursor-file=cursor", self.directory + "/log"]

        def read(kind):
            status, out, err = self.run_it("qdlogview", *view)
            if kind == "link to nothing":  # a first run
                self.assertEqual(status, 0)
                return
            self.assertEqual((status, out), (3, b""))
            self.assertIn(b"cursor", err)
        self.at("cursor", read)

        def save(_):
            status, _, err = self.run_it("qdlogview", *view)
            self.assertEqual(status, 3)
            self.assertIn(b"cursor", err)
        self.at("cursor.new", save)
        self.assertEqual(self.run_it("qdlogview", *view)[0], 0)
        os.rename("cursor", "real")
        os.symlink("real", "cursor")
        self.assertEqual(self.run_it("qdlogview", *view)[0], 1, "all was shown before")

    def test_catalogues(self):
        os.mkdir("messages")
        for number, (_, make) in enumerate(self.nodes.odd):
            make(f"{self.directory}/messages/l{number}.res")
        for words in (["check"], ["list"], ["list", "--locale=l0"], ["show", "1"]):
            self.run_it("qdliscat", *words, "messages")

        def check(_):
            for operand in {name, name.replace(".dat", "")}:
                self.assertIn(self.run_it("qdliscat", "check", operand)[0], (1, 3))
        for name in ("root.res", "root.txt", "packed.dat"):
            self.at(f"{self.directory}/{name}", check)

    def test_the_plug_in(self):
        os.mkdir("libraries")
        libraries = self.directory + "/libraries"
        path = ":".join([libraries, *filter(None, [os.environ.get("LD_LIBRARY_PATH")])])
        send = ["-P", "5", "--stdout", "text"]

        def load(kind):
            status, out, _ = self.run_it("qdlogger", *send, LD_LIBRARY_PATH=path)
            self.assertEqual(status, 0)
            if kind not in ("link to nothing", "link to loop"):  # where the loader goes on
                self.assertEqual(out, b"")
        self.at(f"{libraries}/{PLUGIN}", load)
        shutil.copy(f"{BUILD}/lib/{PLUGIN}", "plugin")
        os.symlink("../plugin", f"{libraries}/{PLUGIN}")
        self.assertIn(b"text", self.run_it("qdlogger", *send, LD_LIBRARY_PATH=path)[1])

    def test_time_zones(self):
        self.at(self.directory + "/zone",
                lambda kind: self.run_it("qdlogview", f"--zone=:{self.directory}/zone", self.directory + "/log"))


if __name__ == "__main__":
    unittest.main()
