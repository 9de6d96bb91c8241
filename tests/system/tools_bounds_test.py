#!/usr/bin/env python3
"""Whatever lies under a log file's name, the tools end, and with little memory."""
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
            process = subprocess.Popen([program(tool), *words], stdin=subprocess.DEVNULL, stdout=out, stderr=err,
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
            file.write(b"2,5,7,7,2,%d,42,43,0:,300000000:" % T0)
            for _ in range(300):
                file.write(b"x" * 1_000_000)
            file.write(b",3:mgr,0,(0|)\n" + record(3))
        for tool, *words in READERS:
            self.assertGreaterEqual(self.run_it(tool, *words)[0], 0, words)
        for words in (["."], ["-r", "."], ["-n2", "."]):
            status, out, err = self.run_it("qdlogview", "--template={msgid}", *words)
            self.assertEqual((status, sorted(out.split())), (4, [b"1", b"3"]), words)
            self.assertIn(b"1 damaged line left out", err)

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
