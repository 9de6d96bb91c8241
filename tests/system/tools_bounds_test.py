#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whatever lies under a log file's name, the tools end, and with little memory."""
import gzip
import os
import pty
import shutil
import socket
import subprocess
import unittest

from qdul_testing import HERE, program

T0 = 1709300702000
NAME = "5-7-16777343-240301-%010d.log"
HEADER = b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000)
MOST_MEMORY = 64 * 1024  # KiB
CPU_SECONDS = 60 if "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ else 20
SANITIZED = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ
READERS = [["qdlogview", "."], ["qdlogview", "-r", "."], ["qdlogview", "-n1", "."], ["qdlogview", "--verify", "."],
           ["qdlogview", "--count", "."], ["qdlogview", "-S", "2024-03-01", "--json", "."], ["qdlogview", "--stats", "."],
           ["qdlogmgr", "list", "-D", "."], ["qdlogmgr", "usage", "-D", "."], ["qdlogmgr", "verify", "-D", "."]]


def record(id, text=b"text"):
    return b"2,5,7,7,%d,%d,42,43,0:,%d:%s,3:mgr,0,(0|)\n" % (id, T0 + id * 1000, len(text), text)


class Bounds(unittest.TestCase):
    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        shutil.rmtree(self.directory, ignore_errors=True)
        os.mkdir(self.directory)
        os.chdir(self.directory)

    def tearDown(self):
        os.chdir(HERE)
        shutil.rmtree(self.directory, ignore_errors=True)

    def run_it(self, tool, *words):
        """Status, output, errors; it ends, and does not take much memory."""
        with open(HERE + "/out", "w+b") as out, open(HERE + "/err", "w+b") as err:
            # as time of the processor, of which other programs take nothing
            process = subprocess.Popen(["prlimit", f"--cpu={CPU_SECONDS}", program(tool), *words], stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                       env={**os.environ, "TZ": "UTC", "ZOLTLOG_CFG_LOC": HERE + "/none.conf"})
            _, status, used = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            out.seek(0)
            err.seek(0)
            if not SANITIZED:
                self.assertLess(used.ru_maxrss, MOST_MEMORY, (tool, words))
            return process.returncode, out.read(), err.read()

    def test_a_sparse_file_of_a_terabyte(self):
        with open(NAME % 0, "wb") as file:
            file.write(HEADER + record(1))
            file.seek(2**39)
            file.write(b"x\n" + record(2, b"in the middle"))
            file.seek(2**40)
            file.write(b"\n" + record(3, b"at the end"))
        for tool, *words in READERS:
            status, out, err = self.run_it(tool, *words)
            self.assertGreaterEqual(status, 0, (words, err))
        forward = self.run_it("qdlogview", "--template={msgid}", ".")[1].split()
        self.assertEqual(forward, [b"1", b"2", b"3"])
        self.assertEqual(self.run_it("qdlogview", "-r", "--template={msgid}", ".")[1].split(), forward[::-1])
        self.assertIn(b"2 damaged lines left out", self.run_it("qdlogview", "--count", ".")[2])

    def test_a_file_that_is_one_hole(self):
        with open(NAME % 0, "wb") as file:
            file.truncate(2**40)
        for tool, *words in READERS:
            self.assertGreaterEqual(self.run_it(tool, *words)[0], 0, words)

    def test_a_record_larger_than_memory_allows(self):
        with open(NAME % 0, "wb") as file:
            file.write(HEADER + record(1))
            file.write(b"2,5,7,7,2,%d,42,43,0:,%d:" % (T0, 2**30))
            file.seek(2**30, os.SEEK_CUR)  # a hole: it costs no disk
            file.write(b",3:mgr,0,(0|)\n" + record(3))
        for tool, *words in READERS:
            self.assertGreaterEqual(self.run_it(tool, *words)[0], 0, words)
        for words in (["."], ["-r", "."], ["-n2", "."]):
            status, out, err = self.run_it("qdlogview", "--template={msgid}", *words)
            self.assertEqual((status, sorted(out.split())), (4, [b"1", b"3"]), words)
            self.assertIn(b"1 damaged line left out", err)

    def test_a_record_larger_than_memory_allows_in_a_compressed_file(self):
        with open(NAME % 0 + ".gz", "wb") as file:
            file.write(gzip.compress(HEADER + record(1) + b"2,5,7,7,2,%d,42,43,0:,%d:" % (T0, 2**28)))
            part = gzip.compress(b"x" * 2**20)
            for _ in range(2**8):
                file.write(part)
            file.write(gzip.compress(b",3:mgr,0,(0|)\n" + record(3)))
        for tool, *words in READERS:
            self.assertGreaterEqual(self.run_it(tool, *words)[0], 0, words)
        self.assertEqual(self.run_it("qdlogview", "--template={msgid}", ".")[1], b"1\n3\n")

    def test_copies_of_a_sparse_terabyte_are_sparse(self):
        path = NAME % 0
        with open(path, "wb") as file:
            file.write(HEADER + record(1))
            file.seek(2**39)
            file.write(b"x\n" + record(2))
            file.truncate(2**40)
        os.mkdir("save")
        status, out, err = self.run_it("qdlogmgr", "copy", "-D", ".", "--to", "save")
        self.assertEqual((status, err), (0, b""))
        self.assertEqual(os.stat(f"save/{path}").st_size, 2**40)
        self.assertLess(os.stat(f"save/{path}").st_blocks * 512, 2**20)
        self.assertEqual(os.stat(f"save/{path}").st_mode & 0o7777, 0o660)
        with open(path, "rb") as file, open(f"save/{path}", "rb") as copy:
            for place in (0, 2**39 - 50, 2**40 - 100):
                file.seek(place)
                copy.seek(place)
                self.assertEqual(file.read(200), copy.read(200))
        with open(NAME % 1, "wb") as file:
            file.write(HEADER + record(3))
        os.mkdir("archive")
        status, out, err = self.run_it("qdlogmgr", "archive", "-D", ".", "--keep", "1", "--to", "archive")
        self.assertEqual((status, err, os.path.exists(path)), (0, b"", False))
        self.assertEqual(os.stat(f"archive/{path}").st_size, 2**40)

    def test_times_at_the_ends_of_their_numbers(self):
        times = [-2**63, 2**63 - 1, -2**63 + 1, 0]
        with open(NAME % 0, "wb") as file:
            file.write(HEADER)
            for number, time in enumerate(times, 1):
                file.write(b"2,5,7,7,%d,%d,42,43,0:,4:text,3:mgr,0,(0|)\n" % (number, time))
        more = [["qdlogview", "--gaps", "."], ["qdlogview", "--list-runs", "."], ["qdlogview", "--stats", "--per=day", "."]]
        for tool, *words in READERS + more:
            status, _, err = self.run_it(tool, *words)
            self.assertIn(status, (0, 1, 4), (words, err))
            self.assertNotIn(b"runtime error", err, words)
        self.assertEqual(self.run_it("qdlogview", "--template={msgid}", ".")[1].split(), [b"1", b"2", b"3", b"4"])
        status, out, _ = self.run_it("qdlogview", "--verify", ".")
        self.assertEqual(out.count(b"time goes back by"), 1)

    def test_what_is_no_regular_file_is_not_opened(self):
        with open(NAME % 0, "wb") as file:
            file.write(HEADER + record(1))
        master, slave = pty.openpty()
        os.mkfifo("fifo")
        bound = socket.socket(socket.AF_UNIX)
        bound.bind("socket")
        for counter, target in enumerate(["fifo", "socket", ".", os.ttyname(slave), "/dev/ptmx", "/dev/tty", "/dev/zero", "/nowhere"], 1):
            os.symlink(target, NAME % counter)
        os.symlink(NAME % 20, NAME % 21)
        os.symlink(NAME % 21, NAME % 20)
        os.mkfifo(NAME % 22)
        os.mkdir(NAME % 23)
        os.symlink(NAME % 0, NAME % 24)  # a regular file may be read through a link
        for tool, *words in READERS:
            self.assertGreaterEqual(self.run_it(tool, *words)[0], 0, words)
        self.assertEqual(self.run_it("qdlogview", "--count", ".")[1], b"2\n")
        for name in ("fifo", "socket", NAME % 4, NAME % 5, NAME % 7):
            status, _, err = self.run_it("qdlogview", name)
            self.assertEqual(status, 3, name)
            self.assertNotEqual(err, b"")
        bound.close()
        os.close(master)
        os.close(slave)


if __name__ == "__main__":
    unittest.main()
