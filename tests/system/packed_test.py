#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compressed log files are read like plain ones: alone, among others, from both ends, by every tool."""
import ctypes
import fcntl
import gzip
import json
import os
import shutil
import subprocess
import time
import unittest

from qdul_testing import HERE, plain_environment, program, string

T0 = 1709300702000
MOST_MEMORY = 64 * 1024  # KiB
SANITIZED = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ


def zstd(data):
    library = ctypes.CDLL("libzstd.so.1")
    library.ZSTD_compressBound.restype = library.ZSTD_compress.restype = ctypes.c_size_t
    room = library.ZSTD_compressBound(ctypes.c_size_t(len(data)))
    out = ctypes.create_string_buffer(room)
    size = library.ZSTD_compress(out, ctypes.c_size_t(room), data, ctypes.c_size_t(len(data)), 3)
    return out.raw[:size]


PACK = {"": bytes, ".gz": gzip.compress, ".zst": zstd}


def name(counter):
    return f"5-7-16777343-240301-{counter:010d}.log"


def header():
    return b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000)


def record(id, text=b"text"):
    return b"2,5,7,7,%d,%d,42,43,0:,%s3:mgr,%d,(0|)\n" % (id, T0 + id * 1000, string(text), id % 5)


def content(ids):
    return header() + b"".join(record(id, b"text %d" % id) for id in ids)


def write(path, data):
    with open(path, "wb") as file:
        file.write(data)


class Packed(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        shutil.rmtree(self.directory, ignore_errors=True)
        os.mkdir(self.directory)
        os.chdir(self.directory)
        self.environment = plain_environment(ZOLTLOG_CFG_LOC=f"{self.directory}/zoltlog.conf", TMPDIR=self.directory)

    def run_it(self, tool, *words, status=0, stdin=b"", err=b""):
        done = subprocess.run([program(tool), *words], input=stdin, capture_output=True, env=self.environment)
        self.assertEqual(done.returncode, status, (words, done.stdout[:500], done.stderr))
        if err is not None:
            self.assertEqual(done.stderr, err, words)
        self.errors = done.stderr.decode()
        return done.stdout.decode()

    def view(self, *words, **more):
        return self.run_it("qdlogview", *words, **more)

    def series(self, *suffixes):
        """Files of 100 records each, packed as told; in `plain` what they hold."""
        os.mkdir("log")
        os.mkdir("plain")
        for counter, suffix in enumerate(suffixes):
            data = content(range(counter * 100 + 1, counter * 100 + 101))
            write(f"log/{name(counter)}{suffix}", PACK[suffix](data))
            write(f"plain/{name(counter)}", data)
            os.utime(f"log/{name(counter)}{suffix}", (T0 / 1000 + counter * 100 + 100,) * 2)

    # ---- qdlogview ---------------------------------------------------------------

    def test_every_way_of_reading_gives_what_plain_files_give(self):
        self.series(".gz", ".zst", "", ".gz")
        for words in ([], ["-r"], ["-n", "5"], ["-n", "250"], ["-r", "-n", "3"], ["-m", "120"], ["-g", "text 15", "-C", "2"],
                      ["-p", "critical"], ["-S", "2024-03-01 13:47:00", "-U", "2024-03-01 13:48:30"],
                      ["-r", "-S", "2024-03-01 13:47:00", "-U", "2024-03-01 13:48:30"], ["-o", "raw"], ["-o", "csv", "--fields", "ts,text"],
                      ["--count"], ["--gaps"], ["--list-runs"], ["-F", "severity"], ["-w", "host = hostA and msgid > 390"],
                      ["--run", "1", "-n", "2"], ["--scan", "-S", "2024-03-01 13:49"]):
            expected = self.view(*words, "plain")
            self.assertEqual(self.view(*words, "log"), expected, words)
            self.assertNotEqual(expected, "")
        statistics = json.loads(self.view("--stats", "--json", "log"))
        self.assertEqual(statistics, json.loads(self.view("--stats", "--json", "plain")))
        self.assertEqual(statistics["records"], 400)
        verified = self.view("--verify", "log")
        self.assertEqual(verified, self.view("--verify", "plain"))
        self.assertIn("400 records", verified)

    def test_a_file_alone_and_standard_input(self):
        self.series(".gz", ".zst")
        for counter, suffix in enumerate((".gz", ".zst")):
            packed, plain = f"log/{name(counter)}{suffix}", f"plain/{name(counter)}"
            shutil.copy(packed, "any-name")
            for words in ([], ["-r"], ["-n", "3"], ["--count"], ["-g", "5$"]):
                expected = self.view(*words, plain)
                self.assertEqual(self.view(*words, packed), expected)
                self.assertEqual(self.view(*words, "any-name"), expected)  # what it holds tells, not its name
                with open(packed, "rb") as file:
                    self.assertEqual(self.view(*words, "-", stdin=file.read()), expected)
                with open(packed, "rb") as file:
                    done = subprocess.run([program("qdlogview"), *words, "-"], stdin=file, capture_output=True, env=self.environment)
                self.assertEqual((done.returncode, done.stdout.decode(), done.stderr), (0, expected, b""))
            self.assertIn("100 records", self.view("--verify", packed))
            with open(packed, "rb") as file:
                self.assertIn("100 records", self.view("--verify", "-", stdin=file.read()))

    def test_a_file_and_its_packed_copy_are_one(self):
        """While a file is being compressed both are there."""
        self.series("", "")
        for suffix, pack in PACK.items():
            if suffix:
                write(f"log/{name(0)}{suffix}", pack(content(range(1, 101)))[:200])
        self.assertEqual(self.view("log"), self.view("plain"))

    def test_the_place_stays_when_a_file_is_compressed(self):
        self.series("", "")
        self.assertEqual(len(self.view("-m", "50", "--cursor-file=place", "log").splitlines()), 50)
        for counter in (0, 1):
            with open(f"log/{name(counter)}", "rb") as file:
                write(f"log/{name(counter)}.gz", gzip.compress(file.read()))
            os.remove(f"log/{name(counter)}")
        rest = self.view("--cursor-file=place", "--template={msgid}", "log").split()
        self.assertEqual(rest, [str(id) for id in range(51, 201)])
        self.view("--cursor-file=place", "log", status=1, err=None)

    def test_following_begins_with_packed_files_and_goes_on_with_plain_ones(self):
        self.series(".gz", ".zst", "")
        process = subprocess.Popen([program("qdlogview"), "-f", "-n", "150", "--template={msgid}", "--timeout=20s", "-m", "152", "log"],
                                   stdout=subprocess.PIPE, text=True, env=self.environment)
        lines = [process.stdout.readline().strip() for _ in range(150)]
        self.assertEqual(lines, [str(id) for id in range(151, 301)])
        with open(f"log/{name(2)}", "rb") as file:  # rotated and compressed by somebody: not new
            write(f"log/{name(2)}.gz", gzip.compress(file.read()))
        with open(f"log/{name(2)}", "ab") as file:
            file.write(record(301))
        self.assertEqual(process.stdout.readline().strip(), "301")
        os.remove(f"log/{name(2)}")
        time.sleep(1.2)  # the directory is looked at, and old files are
        write("log/" + name(3), content([302]))
        self.assertEqual(process.stdout.readline().strip(), "302")
        process.stdout.close()
        self.assertEqual(process.wait(timeout=30), 0)

    def test_what_is_cut_or_damaged_is_told(self):
        data = content(range(1, 20001))
        for suffix in (".gz", ".zst"):
            packed = PACK[suffix](data)
            path = name(0) + suffix
            write(path, packed[: len(packed) // 2])
            full = f"{self.directory}/{path}"
            told = f"qdlogview: {full}: the compressed file is cut\n".encode()
            shown = self.view("--template={msgid}", path, status=3, err=told).split()
            self.assertGreater(len(shown), 1000)
            self.assertEqual(shown, [str(id) for id in range(1, len(shown) + 1)])
            self.assertEqual(self.view("-r", "--template={msgid}", path, status=3, err=told).split(), shown[::-1])
            self.assertEqual(self.view("-n", "2", "--template={msgid}", path, status=3, err=told).split(), shown[-2:])
            self.assertIn("the compressed file is cut", self.view("--verify", path, status=1))
            self.assertIn("the compressed file is cut", self.run_it("qdlogmgr", "verify", "-D", ".", status=1))
            listed = json.loads(self.run_it("qdlogmgr", "list", "--json", "-D", "."))
            self.assertEqual((listed[0]["state"], listed[0]["doubt"]), ("doubtful", "the compressed file is cut"))
            os.remove(path)

    def test_memory_is_bounded(self):
        """A file of 400 MB, whatever is asked for."""
        part = b"".join(record(id, b"x" * 1000) for id in range(1, 1001))
        for suffix, pack in PACK.items():
            if not suffix:
                continue
            packed = pack(part)
            with open(name(0) + suffix, "wb") as file:
                file.write(pack(header()))
                for _ in range(400):
                    file.write(packed)
            for words in (["--count"], ["-n1", "--template={msgid}"], ["-r", "-m1", "--template={msgid}"]):
                with open("out", "w+b") as out:
                    process = subprocess.Popen([program("qdlogview"), *words, "."], stdout=out, env=self.environment)
                    _, status, used = os.wait4(process.pid, 0)
                    process.returncode = os.waitstatus_to_exitcode(status)
                    out.seek(0)
                    self.assertEqual((process.returncode, out.read()), (0, b"400000\n" if words == ["--count"] else b"1000\n"))
                if not SANITIZED:
                    self.assertLess(used.ru_maxrss, MOST_MEMORY, words)
            os.remove(name(0) + suffix)

    # ---- qdlogmgr ----------------------------------------------------------------

    def test_the_manager_knows_them(self):
        self.series(".gz", ".zst", "", "")
        write("zoltlog.conf", f"5.Configuration={self.directory}/server.conf\n".encode())
        write("server.conf", f"Default.LogDirectory={self.directory}/log/\nDefault.NumberOfLogFiles=2\n7.OIDNames=seven\n".encode())
        files = [name(0) + ".gz", name(1) + ".zst", name(2), name(3)]
        listed = json.loads(self.run_it("qdlogmgr", "list", "--json"))
        self.assertEqual([os.path.basename(file["path"]) for file in listed], files)
        self.assertEqual([file["state"] for file in listed], ["surplus", "surplus", "kept", "newest"])
        self.assertEqual([file["size"] for file in listed], [os.path.getsize("log/" + file) for file in files])
        for counter, file in enumerate(listed):
            first = time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime(T0 / 1000 + counter * 100 + 1))
            last = time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime(T0 / 1000 + counter * 100 + 100))
            self.assertEqual((file["first"], file["last"]), (first, last))
        surplus = json.loads(self.run_it("qdlogmgr", "surplus", "--json"))
        self.assertEqual([os.path.basename(file["path"]) for file in surplus], files[:2])
        usage = json.loads(self.run_it("qdlogmgr", "usage", "--json"))["series"][0]
        self.assertEqual((usage["files"], usage["size"]), (4, sum(os.path.getsize("log/" + file) for file in files)))
        self.assertIn("4 files, 400 records, 0 problems", self.run_it("qdlogmgr", "verify"))
        os.mkdir("save")
        vacuum = self.run_it("qdlogmgr", "vacuum", "-P", "5", "--count", "3", "--dry-run")
        self.assertRegex(vacuum, rf"^would delete \S+{files[0]} \(.*\)\nwould free .* in 1 file\n$")
        most = sum(os.path.getsize("log/" + file) for file in files[1:])
        vacuum = self.run_it("qdlogmgr", "vacuum", "-P", "5", "--size", str(most), "--dry-run")
        self.assertRegex(vacuum, rf"^would delete \S+{files[0]} \(.*\)\nwould free .* in 1 file\n$")
        self.run_it("qdlogmgr", "archive", "-P", "5", "--to", "save")
        self.assertEqual((sorted(os.listdir("save")), sorted(os.listdir("log"))), (files[:2], files[2:]))

    def test_an_archive_can_be_compressed(self):
        os.mkdir("log")
        for counter in range(4):
            data = content(range(counter * 5000 + 1, counter * 5000 + 5001))
            write("log/" + name(counter) + (".gz" if counter == 0 else ""), gzip.compress(data) if counter == 0 else data)
        write("zoltlog.conf", f"5.Configuration={self.directory}/server.conf\n".encode())
        write("server.conf", f"Default.LogDirectory={self.directory}/log/\nDefault.NumberOfLogFiles=1\n7.OIDNames=seven\n".encode())
        os.mkdir("save")
        before = self.view("log")
        write("save/" + name(1) + ".zst", b"left by something else")
        told = self.run_it("qdlogmgr", "archive", "-P", "5", "--to", "save", "--compress=zstd", status=4, err=None)
        self.assertIn("copied, not removed", told)
        self.assertEqual(len(os.listdir("log")), 4)
        os.remove("save/" + name(1) + ".zst")
        self.run_it("qdlogmgr", "archive", "-P", "5", "--to", "save", "--compress=zstd")  # takes the copies that are there
        self.assertEqual(sorted(os.listdir("save")), [name(0) + ".gz", name(1) + ".zst", name(2) + ".zst"])
        self.assertEqual(os.listdir("log"), [name(3)])
        self.assertLess(os.path.getsize("save/" + name(2) + ".zst"), 40000)
        self.assertEqual(self.view("save", "log"), before)
        self.assertIn("3 files, 15000 records, 0 problems", self.run_it("qdlogmgr", "verify", "-D", "save"))

    # ---- who may read an archive -------------------------------------------------

    ARCHIVING = ([], ["--compress=zstd"])

    def archive_of(self, *files):
        """A log directory with files of (mode, owner, group), one more that stays, and a place for copies."""
        for directory in ("log", "save"):
            shutil.rmtree(directory, ignore_errors=True)
            os.mkdir(directory)
        os.chmod("save", 0o777)
        os.chmod("log", 0o777)
        for directory in (HERE, self.directory):
            os.chmod(directory, 0o755)
        for counter, (mode, owner, group) in enumerate([*files, (0o664, -1, -1)]):
            write("log/" + name(counter), content(range(1, 101)))
            os.chmod("log/" + name(counter), mode)
            os.chown("log/" + name(counter), owner, group)

    def archive(self, *words, user=None, status=0):
        """What is in the archive afterwards: {name: (mode, owner, group)}."""
        as_user = {"user": user, "group": user, "extra_groups": []} if user else {}
        done = subprocess.run([program("qdlogmgr"), "archive", "-D", "log", "--keep", "1", "--to", "save", *words],
                              capture_output=True, text=True, env=self.environment, **as_user)
        self.assertEqual(done.returncode, status, (words, done.stdout, done.stderr))
        self.told = done.stdout + done.stderr
        found = {entry.name: entry.stat() for entry in os.scandir("save")}
        return {each: (status.st_mode & 0o7777, status.st_uid, status.st_gid) for each, status in found.items()}

    def test_who_may_read_a_file_may_read_it_in_the_archive_and_nobody_else(self):
        own = (os.getuid(), os.getgid())
        modes = (0o600, 0o640, 0o440, 0o400, 0o664, 0o604)
        owner = (65534, 65533) if own[0] == 0 else own
        for words in self.ARCHIVING:
            suffix = ".zst" if words else ""
            self.archive_of(*((mode, *owner) for mode in modes))
            if own[0] != 0:
                self.assertTrue(os.access("log/" + name(3), os.R_OK))
            self.assertEqual(self.archive(*words), {name(counter) + suffix: (mode, *owner) for counter, mode in enumerate(modes)})
            self.assertEqual(os.listdir("log"), [name(len(modes))])

    @unittest.skipUnless(os.getuid() == 0, "gives files to others")
    def test_files_of_others_are_archived_with_no_more_rights_than_they_had(self):
        user = 65534
        for words in self.ARCHIVING:
            suffix = ".zst" if words else ""
            # Its group is the user's; all may read it; both
            self.archive_of((0o640, 1, user), (0o664, 1, 1), (0o647, 1, user))
            self.assertEqual(self.archive(*words, user=user), {name(0) + suffix: (0o640, user, user), name(1) + suffix: (0o644, user, user),
                                                               name(2) + suffix: (0o647, user, user)})
            self.assertEqual(os.listdir("log"), [name(3)])

    @unittest.skipUnless(os.getuid() == 0, "gives files to others")
    def test_a_file_that_may_not_be_read_stays(self):
        for words in self.ARCHIVING:
            self.archive_of((0o600, 65534, 65534), (0o660, 1, 1))
            self.assertEqual(len(self.archive(*words, user=65534)), 1)
            self.assertRegex(self.told, f"(?m)^kept .*{name(1)} .*: Permission denied$")
            self.assertEqual(sorted(os.listdir("log")), [name(1), name(2)])

    @unittest.skipUnless(os.getuid() == 0, "gives files to others")
    def test_a_file_stays_where_its_copy_cannot_be_made(self):
        for words in self.ARCHIVING:
            self.archive_of((0o600, 65534, 65534))
            os.chmod("save", 0o555)
            self.assertEqual(self.archive(*words, user=65534, status=4), {})
            self.assertIn("Permission denied", self.told)
            self.assertEqual(sorted(os.listdir("log")), [name(0), name(1)])

    def test_a_file_that_a_process_holds_is_archived_as_it_is(self):
        """Its writer goes on in another one when it finds the name gone."""
        for words in self.ARCHIVING:
            self.archive_of((0o640, -1, -1))
            with open("log/" + name(0), "ab") as file:
                fcntl.flock(file, fcntl.LOCK_SH)
                self.archive(*words)
            self.assertEqual(os.listdir("log"), [name(1)])
            self.assertEqual(self.view("--count", "save"), "100\n")

    def test_a_file_that_grows_while_it_is_archived_stays(self):
        for words in self.ARCHIVING:
            self.archive_of((0o640, -1, -1))
            with open("log/" + name(0), "r+b") as file:
                file.truncate(2**27)  # takes a while
            process = subprocess.Popen([program("qdlogmgr"), "archive", "-D", "log", "--keep", "1", "--to", "save", *words],
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=self.environment)
            while process.poll() is None:
                with open("log/" + name(0), "ab") as file:
                    file.write(b"\n")
            self.assertEqual(process.returncode, 4, process.stdout.read())
            process.stdout.close()
            self.assertEqual(sorted(os.listdir("log")), [name(0), name(1)])


if __name__ == "__main__":
    unittest.main()
