#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whatever lies under the name of a log file, a configuration or a catalogue, the tools end, and with
little memory. `tests/check.sh bounds` runs this with BOUNDS_FILES=200000, which tells what each took,
and holds it to the seconds that docs/promises.md tells."""
import contextlib
import gzip
import os
import pty
import shutil
import socket
import struct
import subprocess
import tarfile
import unittest

from qdul_testing import HERE, program, write

T0 = 1709300702000
NAME = "5-7-16777343-240301-%010d.log"
HEADER = b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000)
MOST_MEMORY = 64 * 1024  # KiB
# Of the processor, whatever lies there, and for each record that is shown, verified or otherwise
# gone through: where the times of very many files overlap, it costs the opening of a file.
MOST_SECONDS = 5
SECONDS_EACH = 20e-6
CPU_SECONDS = 60 if "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ else 20
SANITIZED = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ
READERS = [["qdlogview", "."], ["qdlogview", "-r", "."], ["qdlogview", "-n1", "."], ["qdlogview", "--verify", "."],
           ["qdlogview", "--count", "."], ["qdlogview", "-S", "2024-03-01", "--json", "."], ["qdlogview", "--stats", "."],
           ["qdlogmgr", "list", "-D", "."], ["qdlogmgr", "usage", "-D", "."], ["qdlogmgr", "verify", "-D", "."]]
MANY_FILES = int(os.environ.get("BOUNDS_FILES", "2000"))
TELLS = "BOUNDS_FILES" in os.environ
MOST_LINKS = 30000  # of one file
MOST_OUTPUT = 2**20  # bytes that are looked at


def record(id, text=b"text"):
    return b"2,5,7,7,%d,%d,42,43,0:,%d:%s,3:mgr,0,(0|)\n" % (id, T0 + id * 1000, len(text), text)


def write_often(file, piece, times):
    """In parts: what this process has held at any time counts as a tool's that it starts."""
    part = 2**10
    for _ in range(times // part):
        file.write(piece * part)


class Bounds(unittest.TestCase):
    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        shutil.rmtree(self.directory, ignore_errors=True)
        os.mkdir(self.directory)
        os.chdir(self.directory)

    def tearDown(self):
        os.chdir(HERE)
        shutil.rmtree(self.directory, ignore_errors=True)

    def run_it(self, tool, *words, configuration=HERE + "/none.conf", most_memory=MOST_MEMORY, gone_through=0):
        """Status, output, errors; it ends, and does not take much memory. Of much output only the
        begin is given, and self.lines: what this process takes itself would count as the tool's."""
        with open(HERE + "/out", "w+b") as out, open(HERE + "/err", "w+b") as err:
            # as time of the processor, of which other programs take nothing
            process = subprocess.Popen(["prlimit", f"--cpu={CPU_SECONDS}", program(tool), *words], stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                       env={**os.environ, "TZ": "UTC", "ZOLTLOG_CFG_LOC": configuration})
            _, status, used = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            self.lines = []
            for file in (out, err):
                file.seek(0)
                self.lines.append(sum(part.count(b"\n") for part in iter(lambda file=file: file.read(2**20), b"")))
                file.seek(0)
            seconds = used.ru_utime + used.ru_stime
            if TELLS:
                print(f"{used.ru_maxrss / 1024:6.1f} MB {seconds:6.2f} s  {tool} {' '.join(words)}", flush=True)
            if not SANITIZED:
                self.assertLess(used.ru_maxrss, most_memory, (tool, words))
                if TELLS:
                    self.assertLess(seconds, MOST_SECONDS + gone_through * SECONDS_EACH, (tool, words))
            return process.returncode, out.read(MOST_OUTPUT), err.read(MOST_OUTPUT)

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

    def refused_bomb(self, path, readers):
        """A file of one record, and of what unpacks to more than anybody wants: read up to there, and told."""
        told = b"the compressed file unpacks to more than 512 MB and 256 times its size\n"
        for tool, *words in readers:
            status, out, err = self.run_it(tool, *words)
            self.assertIn(status, (0, 1, 3), (words, err))
            if tool == "qdlogview" and "--verify" not in words:
                self.assertEqual((status, told in err), (3, True), (words, err[-500:]))
            else:
                self.assertIn(told.strip(), out, words)
        self.assertEqual(self.run_it("qdlogview", "--template={msgid}", ".")[1], b"1\n")
        os.remove(path)

    def test_a_small_compressed_file_of_a_terabyte(self):
        readers = [each for each in READERS if each[1] != "usage" and "-S" not in each]
        readers = readers if TELLS else [["qdlogview", "--count", "."], ["qdlogview", "-n1", "."], ["qdlogmgr", "list", "-D", "."]]
        start = HEADER + record(1)
        path = NAME % 0 + ".zst"
        with open(path, "wb") as file:  # the start as it is, then blocks that say "x, 131072 times"
            file.write(b"\x28\xb5\x2f\xfd\x00\x38" + struct.pack("<I", len(start) << 3)[:3] + start)
            write_often(file, struct.pack("<I", 131072 << 3 | 2)[:3] + b"x", 2**23)
        self.assertLess(os.path.getsize(path), 2**26)
        self.refused_bomb(path, readers)
        path = NAME % 0 + ".gz"
        with open(path, "wb") as file:
            file.write(gzip.compress(start))
            write_often(file, gzip.compress(b"x" * 2**20), 2**20 if TELLS else 2**10)
        self.refused_bomb(path, readers)

    def test_a_small_bundle_of_a_terabyte(self):
        """Of a log, of anything else in it, or of nothing but names; with what is in front of that read."""
        def member(name, size):
            info = tarfile.TarInfo(name)
            info.size = size
            return info.tobuf(tarfile.GNU_FORMAT)

        log = HEADER + record(1)
        start = member("logs/1/" + NAME % 0, len(log)) + log + bytes(-len(log) % 512)
        told = "the compressed file unpacks to more than 512 MB and 256 times its size"
        bundles = {}
        for what in ("notes.txt", "logs/1/" + NAME % 1) if TELLS else ("notes.txt",):
            begin = start + member(what, 2**40)
            path = f"{len(bundles)}.tar.zst"
            with open(path, "wb") as file:
                file.write(b"\x28\xb5\x2f\xfd\x00\x38" + struct.pack("<I", len(begin) << 3)[:3] + begin)
                write_often(file, struct.pack("<I", 131072 << 3 | 2)[:3] + b"x", 2**23)
            bundles[path] = told
        if TELLS:
            with open("names.tar.gz", "wb") as file:
                file.write(gzip.compress(start))
                write_often(file, gzip.compress(member("notes.txt", 0) * 2**11), 2**14)
            bundles["names.tar.gz"] = "it has more than 1000000 members"
        with open("holes.tar", "wb") as file:
            file.write(start + member("logs/1/" + NAME % 1, 2**40))
            file.truncate(2**40 + 2**20)
        bundles["holes.tar"] = "the file unpacks to more than 512 MB and 256 times its size on disk"
        for path, why in bundles.items():
            for words in (["--template={msgid}"], ["--count"], ["-r", "-n1", "--template={msgid}"]) if TELLS else (["--template={msgid}"],):
                status, out, err = self.run_it("qdlogview", *words, path)
                if b"this build does not read archives" in err:
                    self.skipTest("built without libarchive or libcrypto")
                self.assertEqual((status, out), (3, b"1\n"), (words, err))
                self.assertIn(f"{self.directory}/{path}: {why}\n".encode(), err)

    # ---- a directory of very many files ----------------------------------------------------------

    def many(self, name, content):
        """Files of these names, all with the same content, in little time and space."""
        os.mkdir("log")
        for number in range(MANY_FILES):
            if number % MOST_LINKS == 0:
                original = f"content{number}"
                with open(original, "wb") as file:
                    file.write(content)
            os.link(original, f"log/{name(number)}")

    def configure(self, *settings):
        write("main.conf", f"5.Configuration={self.directory}/server.conf\n5.Names=server\n")
        write("server.conf", "".join(f"{setting}\n" for setting in (f"Default.LogDirectory={self.directory}/log/", *settings)))
        return self.directory + "/main.conf"

    def test_a_directory_of_many_files(self):
        """Whose times are the same: all of them would have to be open at once."""
        self.many(lambda number: NAME % number, HEADER + record(1) + record(2))
        self.assertEqual(self.run_it("qdlogview", "--count", "log")[1], b"%d\n" % (2 * MANY_FILES))
        every = 2 * MANY_FILES
        shown = self.run_it("qdlogview", "--template={msgid}", "log", gone_through=every)[1]
        self.assertEqual(shown, b"1\n" * MANY_FILES + b"2\n" * MANY_FILES)
        shown = self.run_it("qdlogview", "-r", "--template={msgid}", "log", gone_through=every)[1]
        self.assertEqual(shown, b"2\n" * MANY_FILES + b"1\n" * MANY_FILES)
        for words in (["-n3"], ["-n3", "--cursor-file=cursor"], ["-f", "-n3", "--timeout=1ms"]):
            self.assertEqual(self.run_it("qdlogview", "--template={msgid}", *words, "log")[1], b"2\n2\n2\n", words)
        self.assertEqual(self.run_it("qdlogview", "--cursor-file=cursor", "log")[:2], (1, b""))
        for words in (["--json"], ["--stats"], ["--gaps"], ["--list-runs"], ["-F", "msgid"], ["--verify"], ["-S", "2024-03-01"],
                      ["-U", "2024-03-01"], ["-g", "text", "-C1", "-n1"], ["-w", "host = hostA", "--count"]):
            self.assertIn(self.run_it("qdlogview", *words, "log", gone_through=every)[0], (0, 1), words)

        configuration = self.configure("Default.NumberOfLogFiles=10", "7.OIDNames=seven")
        surplus = self.run_it("qdlogmgr", "surplus", configuration=configuration)
        self.assertEqual((surplus[0], self.lines[0]), (0, MANY_FILES - 10 + 1))
        for words in (["list"], ["list", "--json"], ["usage"], ["usage", "--json"], ["verify"], ["verify", "--json"],
                      ["copy", "--to", ".", "--dry-run"], ["archive", "-P", "5", "--to", ".", "--dry-run", "--json"],
                      ["delete", "-P", "5", "--dry-run"], ["vacuum", "-P", "5", "--count", "1", "--dry-run"]):
            status, out, err = self.run_it("qdlogmgr", *words, configuration=configuration, gone_through=every if words[0] == "verify" else 0)
            self.assertEqual((status, err), (0, b""), words)
        for tool, *words in (["qdlogger", "-P", "5", "-u", "7", "text"], ["qdlogcfg", "budget"], ["qdlogcfg", "check"]):
            self.assertIn(self.run_it(tool, *words, configuration=configuration)[0], (0, 1), words)

    def test_a_directory_of_many_series(self):
        self.many(lambda number: f"5-{number + 1}-16777343-240301-0000000000.log", HEADER + record(1) + record(2))
        configuration = self.configure("Default.NumberOfLogFiles=10")
        for words, records in ((["--count", "log"], 0), (["-n3", "log"], 0), (["--list-runs", "-P", "5"], 2 * MANY_FILES)):
            self.assertEqual(self.run_it("qdlogview", *words, configuration=configuration, gone_through=records)[0], 0)
        for words, records in ((["list"], 0), (["usage"], 0), (["verify"], 2 * MANY_FILES), (["delete", "-P", "5", "--dry-run"], 0)):
            self.assertIn(self.run_it("qdlogmgr", *words, configuration=configuration, gone_through=records)[0], (0, 1))

    def test_a_directory_of_many_damaged_files(self):
        self.many(lambda number: NAME % number, HEADER + b"damage\n" + record(1))
        status, out, _ = self.run_it("qdlogview", "--count", "log")
        self.assertEqual((status, out, self.lines[1]), (4, b"%d\n" % MANY_FILES, MANY_FILES))
        status = self.run_it("qdlogmgr", "verify", "-D", "log", gone_through=2 * MANY_FILES)[0]
        self.assertEqual((status, self.lines[0]), (1, MANY_FILES + 1))

    # ---- other files -----------------------------------------------------------------------------

    def test_a_configuration_of_a_terabyte(self):
        for large in ("main.conf", "server.conf"):
            configuration = self.configure("7.OIDNames=seven")
            os.makedirs("log", exist_ok=True)
            os.truncate(large, 2**40)
            place = f"{self.directory}/{large}".encode()
            for tool, *words in (["qdlogger", "-P", "5", "text"], ["qdlogview", "-P", "5"], ["qdlogview", "-P", "server"], ["qdlogmgr", "list", "-P", "5"],
                                 ["qdlogmgr", "usage"], ["qdlogcfg", "get", "-P", "5", "DebugLevel"], ["qdlogcfg", "set", "-P", "5", "DebugLevel=2"],
                                 ["qdlogcfg", "check", "-P", "5"], ["qdlogcfg", "budget"], ["qdlogcfg", "product", "list"]):
                status, out, err = self.run_it(tool, *words, configuration=configuration)
                if large == "server.conf" and words == ["product", "list"]:
                    continue  # it reads the main file alone
                told = place + rb"(: | cannot be read: | cannot be read \(| was not changed: )File too large"
                if large == "server.conf" and words[0] == "check":
                    self.assertEqual(status, 1)
                    self.assertRegex(out, told)
                    continue
                self.assertEqual(status, 3, (large, tool, words, out, err))
                self.assertRegex(err, told, (large, tool, words))

    def test_what_is_applied_of_a_terabyte(self):
        configuration = self.configure("7.OIDNames=seven")
        with open("settings", "wb") as file:
            file.truncate(2**40)
        status, _, err = self.run_it("qdlogcfg", "apply", "-P", "5", "settings", configuration=configuration)
        self.assertEqual((status, b"File too large" in err), (3, True), err)

    def test_a_configuration_of_many_lines(self):
        """10,000 originators with 20 keys each."""
        lines = [f"{originator}.{key}={originator}" for originator in range(1, 10001) for key in
                 ("DebugLevel", "DiagnosticLevel", *(f"Other{number}" for number in range(18)))]
        configuration = self.configure(*lines)
        self.assertGreater(os.path.getsize("server.conf"), 3000000)
        os.mkdir("log")
        self.assertEqual(self.run_it("qdlogger", "-P", "5", "-u", "10000", "text", configuration=configuration)[0], 0)
        self.assertEqual(self.run_it("qdlogmgr", "list", configuration=configuration)[0], 0)

    def test_a_catalogue_of_a_terabyte(self):
        for name in ("root.txt", "root.res", "messages.dat"):
            with open(name, "wb") as file:
                file.truncate(2**40)
            for words in (["check", name], ["list", name], ["show", "1", name], ["install", "--to", "package", name]):
                status, _, err = self.run_it("qdliscat", *words)
                self.assertIn(status, (1, 2, 3), words)
                if name == "root.txt":
                    self.assertEqual((status, err), (3, b"qdliscat: root.txt: File too large\n"))

    def test_copies_replace_nothing_but_regular_files(self):
        with open(NAME % 0, "wb") as file:
            file.write(HEADER + record(1))
        os.mkdir("save")
        target = f"save/{NAME % 0}"
        os.mkfifo("fifo")
        makers = {"fifo": os.mkfifo, "link to a file": lambda path: os.symlink("../fifo", path), "directory": os.mkdir}
        for kind, make in makers.items():
            make(target)
            status, _, err = self.run_it("qdlogmgr", "copy", "--replace", "-D", ".", "--to", "save")
            self.assertEqual(status, 4, (kind, err))
            with contextlib.suppress(OSError):
                os.rmdir(target)
            if os.path.lexists(target):
                os.remove(target)
        write(target, "what was there, and longer than what comes" * 10)
        self.assertEqual(self.run_it("qdlogmgr", "copy", "--replace", "-D", ".", "--to", "save")[0], 0)
        with open(target, "rb") as file:
            self.assertEqual(file.read(), HEADER + record(1))

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
        self.assertEqual(os.stat(f"save/{path}").st_mode, os.stat(path).st_mode)
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
