#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogmgr bundle: what was asked for is in it and can be read back; what is redacted is nowhere in it."""
import gzip
import hashlib
import json
import os
import re
import subprocess
import tarfile
import unittest

from qdul_testing import HERE, plain_environment, program, string

T0 = 1709300702000
MOST_MEMORY = 64 * 1024  # KiB
SANITIZED = "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ
SECRETS = [b"alice.b@example.org", b"alice", b"bob", b"192.0.2.77", b"2001:db8::17", b"fe80:0:0:0:1:2:3:4", b"carol", b"K-4711-X", b"3232235777"]


def record(id, text, who=b"mgr", kind=2, context=b"", block=b"(0|)", number=b"1,"):
    return b"%d,5,7,7,%d,%d,42,43,%s%s%s%s%s\n" % (kind, id, T0 + id * 1000, string(context), string(text), string(who), number, block)


LINES = [record(1, b"alice.b@example.org logged in from 192.0.2.77"), record(2, b"login refused", b"alice", 4, number=b"-1,"),
         record(3, b"mail for alice, not malice or alice2, at 12:34:56", b"alice"), record(4, b"peer 2001:db8::17 and fe80:0:0:0:1:2:3:4 std::string 1.2.3.4.5"),
         record(5, b"cannot read /home/carol/x.txt", context=b"job of bob"), record(6, b"", b"job of bob", 3, block=b"(7|X5:alice|i32:5|)", number=b""),
         record(7, b"left", b"bob", 4, number=b"0,"), record(8, b"serial K-4711-X: alice.b@example.org again"), b"torn alice\n",
         record(9, b"bad \xff alice \xfe"), record(4000, b"much later: K-9")]


def file_name(counter, host=3232235777):
    return f"5-7-{host}-240301-{counter:010d}.log"


class Bundle(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        os.makedirs(f"{self.directory}/log")
        os.chdir(self.directory)
        self.environment = plain_environment(ZOLTLOG_CFG_LOC=f"{self.directory}/zoltlog.conf", TMPDIR=self.directory, LC_ALL="C.UTF-8")
        with open("zoltlog.conf", "w") as file:
            file.write(f"5.Configuration={self.directory}/server.conf\n5.Names=server\n")
        with open("server.conf", "w") as file:
            file.write(f"Default.LogDirectory={self.directory}/log/\n7.OIDNames=disk\n")
        header = b"$Header 65543,5,7,1709300702,0,hostA\n"
        with open("log/" + file_name(0), "wb") as file:
            file.write(header + b"".join(LINES[:4]))
        with gzip.open("log/" + file_name(1) + ".gz", "wb") as file:
            file.write(header + b"".join(LINES[4:7]))
        with open("log/" + file_name(2), "wb") as file:
            file.write(header + b"".join(LINES[7:]))

    def run_it(self, tool, *words, status=0):
        done = subprocess.run([program(tool), *words], capture_output=True, env=self.environment)
        if b"this build does not write archives" in done.stderr:
            self.skipTest("built without libarchive or libcrypto")
        self.assertEqual(done.returncode, status, (done.stdout[:500], done.stderr))
        return done.stdout.decode(errors="replace")

    def bundle(self, *words, to="case.tar.gz", **more):
        return self.run_it("qdlogmgr", "bundle", "-P", "5", "-o", to, *words, **more)

    def members(self, path="case.tar.gz"):
        """{name: bytes}, whose sums are those that it tells."""
        with tarfile.open(path) as archive:
            found = {member.name: archive.extractfile(member).read() for member in archive.getmembers()}
        sums = dict(line.split("  ")[::-1] for line in found["SHA256SUMS"].decode().splitlines())
        self.assertEqual(sums, {name: hashlib.sha256(data).hexdigest() for name, data in found.items() if name != "SHA256SUMS"})
        return found

    def test_everything_is_in_it_and_is_read_back(self):
        self.assertEqual(self.bundle(), "case.tar.gz: 10 records of 3 files\n")
        found = self.members()
        self.assertEqual(sorted(found), ["SHA256SUMS", "about.json", *(f"logs/1/{file_name(counter)}" for counter in range(3)), "settings.txt", "verify.txt"])
        with open("log/" + file_name(2), "rb") as file:
            self.assertEqual(found[f"logs/1/{file_name(2)}"], file.read())
        self.assertEqual(found[f"logs/1/{file_name(1)}"].split(b"\n")[1:4], [line[:-1] for line in LINES[4:7]])
        about = json.loads(found["about.json"])
        self.assertEqual((about["files"], about["records"], about["redacted"], about["directories"]), (3, 10, False, {"1": f"{self.directory}/log/"}))
        self.assertIn("LogDirectory", found["settings.txt"].decode())
        self.assertIn("$ qdlogview --verify", found["verify.txt"].decode())
        self.assertIn("1 problem", found["verify.txt"].decode())
        self.assertEqual(os.stat("case.tar.gz").st_mode & 0o777, 0o600)
        self.bundle(to="case.tar.zst")
        for archive in ("case.tar.gz", "case.tar.zst"):
            for words in (["-q"], ["-q", "-r", "-n3"], ["-q", "-p", "audit..audit"], ["-q", "--count", "-u", "disk"], ["-q", "-S", "2024-03-01 13:45:05", "-U", "2024-03-01 13:45:08"]):
                self.assertEqual(self.run_it("qdlogview", *words, archive, status=4), self.run_it("qdlogview", *words, "log", status=4))
        self.assertEqual(json.loads(self.run_it("qdlogview", "-m1", "-o", "json", "case.tar.zst"))["file"], f"{self.directory}/case.tar.zst/logs/1/{file_name(0)}")

    def test_only_the_time_that_is_asked_for(self):
        self.assertEqual(self.bundle("-S", "2024-03-01 13:45:05", "-U", "2024-03-01 13:45:08", "--utc"), "case.tar.gz: 4 records of 2 files\n")
        found = self.members()
        self.assertEqual(found[f"logs/1/{file_name(0)}"].split(b"\n", 1)[1], b"".join(LINES[2:4]))
        self.assertNotIn(f"logs/1/{file_name(2)}", found)
        self.bundle("-S", "2030-01-01", to="none.tar.gz", status=1)
        self.assertFalse(os.path.exists("none.tar.gz"))

    def test_what_is_redacted_is_nowhere_in_it(self):
        with open("patterns", "w") as file:
            file.write("# serial numbers\nK-\\d+-X\n\nhost[A-Z]\n")
        self.bundle("--redact-patterns=patterns")
        found = self.members()
        for name, data in found.items():
            for secret in SECRETS:
                self.assertNotRegex(name.encode() + b"\n" + data, rb"(?<![\w.-])" + re.escape(secret) + rb"(?![\w-])", (name, secret))
        logs = sorted(name for name in found if name.startswith("logs/"))
        self.assertEqual(len(logs), 3)
        lines = b"".join(found[name].split(b"\n", 1)[1] for name in logs).split(b"\n")[:-1]
        self.assertEqual(len(lines), 10)  # without the torn one
        text = b"\n".join(lines).decode(errors="replace")
        self.assertEqual(len(set(re.findall(r"<email-\w{10}>", text))), 1)
        self.assertEqual(len(re.findall(r"<email-\w{10}>", text)), 2)
        alice = re.search(r"mail for (<user-\w{10}>), not malice or alice2, at 12:34:56", text).group(1)
        self.assertIn(f",{len(alice)}:{alice},-1,(0|)", text)  # the subject
        self.assertRegex(text, r"peer <ip-\w{10}> and <ip-\w{10}> std::string 1.2.3.4.5")
        self.assertRegex(text, r"/home/<user-\w{10}>/x.txt")
        self.assertIn("K-9", text)
        shown = [json.loads(line) for line in self.run_it("qdlogview", "-o", "json", "case.tar.gz").splitlines()]
        self.assertEqual([each["msgid"] for each in shown], [1, 2, 3, 4, 5, 6, 7, 8, 9, 4000])
        self.assertEqual(shown[4]["context"], shown[5]["title"])
        self.assertIn(alice, shown[5]["text"])  # of the block
        self.assertIn("0 problems", self.run_it("qdlogview", "--verify", "case.tar.gz"))
        self.assertTrue(json.loads(found["about.json"])["redacted"])
        self.bundle("--redact", to="other.tar.gz")
        self.assertNotIn(alice.encode(), b"".join(self.members("other.tar.gz").values()))

    def test_wrong_usage_and_failures(self):
        for words in (["--redact"], ["-o", "case.zip"], ["-o", "x.tar.gz", "-S", "nonsense"], ["-o", "x.tar.gz", "--redact-patterns="]):
            self.run_it("qdlogmgr", "bundle", "-P", "5", *words, status=2)
        self.bundle(to="nowhere/x.tar.gz", status=3)
        with open("patterns", "w") as file:
            file.write("(\n")
        self.bundle("--redact-patterns=patterns", status=3)
        self.bundle()
        with open("case.tar.gz", "rb") as file:
            data = file.read()
        with open("cut.tar.gz", "wb") as file:
            file.write(data[: len(data) // 2])
        self.run_it("qdlogview", "cut.tar.gz", status=3)
        self.assertEqual([name for name in os.listdir(".") if name.endswith(".part")], [])

    def test_memory_is_bounded(self):
        megabytes = int(os.environ.get("BUNDLE_MEGABYTES", "20"))
        part = b"".join(record(id, b"x%d " % id * 200) for id in range(1, 1001))
        with open("log/" + file_name(3), "wb") as file:
            file.write(b"$Header 65543,5,7,1709300702,0,hostA\n")
            for _ in range(megabytes * 1000000 // len(part)):
                file.write(part)
        for words in (["--redact"], []) if megabytes <= 100 else ([],):
            process = subprocess.Popen([program("qdlogmgr"), "bundle", "-q", "-P", "5", "-o", "case.tar.zst", *words], env=self.environment)
            _, status, used = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            self.assertIn(process.returncode, (0, 3))
            if process.returncode == 3:
                self.skipTest("built without libarchive or libcrypto")
            if not SANITIZED:
                self.assertLess(used.ru_maxrss, MOST_MEMORY)
        self.assertEqual(self.run_it("qdlogview", "-q", "--count", "case.tar.zst", status=4).strip(),
                         self.run_it("qdlogview", "-q", "--count", "log", status=4).strip())


if __name__ == "__main__":
    unittest.main()
