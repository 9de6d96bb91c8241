#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The example programs do what their first lines say."""
import os
import re
import subprocess
import unittest

from qdul_testing import BUILD, HERE, plain_environment, read


class Examples(unittest.TestCase):
    def setUp(self):
        subprocess.run("rm -rf log etc archive", shell=True, check=True)
        os.mkdir("etc")
        self.environment = plain_environment(USER="tester", ZOLTLOG_CFG_LOC=HERE + "/etc/zoltlog.conf",
                                             QDLIS_CATALOG=BUILD + "/share/qdul/catalogue/diskd")

    def run_it(self, name, *words, stdin="", status=0):
        done = subprocess.run([f"{BUILD}/examples/{name}", *words], input=stdin, text=True, capture_output=True, env=self.environment)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done

    def install(self):
        return self.run_it("installer", "register", "5", "server,srv", HERE + "/etc/server.conf", HERE + "/log")

    def lines(self, pattern):
        found = []
        for name in sorted(os.listdir("log")):
            if re.match(pattern, name):
                with open("log/" + name) as file:
                    lines = file.read().splitlines()
                self.assertTrue(lines[0].startswith("$Header "))
                found += lines[1:]
        return found

    def test_installer_registers_and_sets_up(self):
        self.install()
        settings = read("etc/server.conf")
        for line in (
            f"Default.LogDirectory={HERE}/log/",
            "Default.RolloverMode=FileSize",
            "Default.MaxLogFileSizeKB=256",
            "Default.NumberOfLogFiles=4",
            "Default.DynaReloadInSec=60",
            "8.DebugLevel=4",
            f"LOGSET.Default.LogDirectory={HERE}/log/",
            "LOGSET.jobs.FileName=nightly",
        ):
            self.assertIn("\n" + line + "\n", settings)
        main = read("etc/zoltlog.conf")
        self.assertIn(f"\n5.Configuration={HERE}/etc/server.conf\n", main)
        self.assertIn("\n5.Names=server,srv\n", main)

    def test_installer_leaves_a_registered_product_alone(self):
        self.install()
        before = read("etc/server.conf")
        self.assertIn("already", self.run_it("installer", "register", "5", "x", HERE + "/etc/other.conf", "/x").stdout)
        self.assertEqual(read("etc/server.conf"), before)
        self.assertFalse(os.path.exists("etc/other.conf"))

    def test_installer_removes(self):
        self.install()
        self.run_it("installer", "remove", "5")
        self.run_it("installer", "remove", "5", status=1)
        self.run_it("server", "5", "7", "1", status=3)

    def test_server_logs_each_request_in_a_context(self):
        self.install()
        requests = ["/etc/passwd", "/etc/group", "/no/such/file"] * 50
        done = self.run_it("server", "5", "7", "4", stdin="\n".join(requests) + "\n")
        self.assertEqual(done.stdout, "contexts 150 application 150 diagnostic 100 audit 50 debug 0\n")
        lines = self.lines("5-7-")
        kinds = [line.split(",")[0] for line in lines]
        self.assertEqual((kinds.count("2"), kinds.count("1"), kinds.count("4"), kinds.count("0")), (150, 100, 50, 0))
        tokens = {re.search(r"req-\d+-\d+", line).group() for line in lines}
        self.assertEqual(len(tokens), 150)
        for line in lines:
            if line.startswith("3,"):
                continue
            self.assertRegex(line, r"^(\d+,){8}\d+:req-\d+-\d+,\d+:")
        denied = "Access of user tester to /no/such/file denied"
        self.assertEqual(sum(f"{len(denied)}:{denied},6:tester,1,(0|)" in line for line in lines), 50)

    def test_servers_debug_messages_follow_the_originators_level(self):
        self.install()
        done = self.run_it("server", "5", "8", "2", stdin="/etc/passwd\n/etc/group\n")
        self.assertEqual(done.stdout, "contexts 2 application 2 diagnostic 2 audit 0 debug 2\n")
        self.assertEqual(sum(line.startswith("0,5,8,8,") for line in self.lines("5-8-")), 2)

    def test_agent_reloads_its_level(self):
        self.install()
        self.environment["LD_PRELOAD"] = BUILD + "/tests/plugins/libpassing_time.so"
        self.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"
        process = subprocess.Popen([f"{BUILD}/examples/agent", "5", "7", "0", "10"], stdout=subprocess.PIPE, text=True, env=self.environment)
        try:
            self.assertEqual(process.stdout.readline(), "debug level 0\n")
            with open("etc/server.conf") as file:
                settings = file.read()
            with open("etc/new", "w") as file:
                file.write(settings + "7.DebugLevel=5\n")
            os.utime("etc/new", (1_000_000_000, 1_000_000_000))
            os.rename("etc/new", "etc/server.conf")
            self.assertEqual(process.stdout.readline(), "debug level 5\n")
        finally:
            process.kill()
            process.wait()
            process.stdout.close()

    def test_agent_ends_after_its_rounds(self):
        self.install()
        self.run_it("agent", "5", "8", "3", "1")
        lines = self.lines("5-8-")
        self.assertEqual(sum(line.startswith("0,") for line in lines), 3)
        self.assertEqual(sum(line.startswith("1,") for line in lines), 3)
        self.run_it("agent", "0", "0", status=3)

    def test_secure_audit_goes_to_the_system_log(self):
        done = self.run_it("secure_audit", "-e", "5", "7", "alice", "host b")
        self.assertRegex(done.stderr, r"^secure_audit: 5,7,0,\d+,\d+,\(null\),alice,0 SECURE-AUDIT-1 subject=alice outcome=0: User alice logged in from host b\n$")
        self.assertFalse(os.path.exists("log"))

    def test_logfiles_lists_shows_and_archives(self):
        self.install()
        with open("etc/server.conf", "a") as file:
            file.write("7.MaxLogFileSizeKB=2\n7.NumberOfLogFiles=2\n")
        self.run_it("server", "5", "7", "2", stdin="/etc/passwd\n/no/such/file\n" * 20)
        self.run_it("server", "5", "8", "1", stdin="/etc/passwd\n")
        names = sorted(name for name in os.listdir("log") if name.startswith("5-7-"))
        self.assertGreater(len(names), 3)

        listed = self.run_it("logfiles", "list", "5").stdout
        self.assertEqual(re.findall(r"5-7-\S+", listed), names)
        self.assertIn(f"originator 8 in {HERE}/log/", listed)

        newest = self.run_it("logfiles", "newest", "5", "3").stdout
        self.assertEqual(len(re.findall(r"^  \d{4}-\d\d-\d\d ", newest, re.M)), 6)
        self.assertRegex(newest, r"(?m)^  \S+ \S+ debug   8 files \[req-\d+-1\] closed /etc/passwd$")

        surplus = self.run_it("logfiles", "surplus", "5").stdout
        self.assertEqual(sorted(re.findall(r"5-7-\S+", surplus)), names[:-2])
        os.mkdir("archive")
        self.run_it("logfiles", "archive", "5", HERE + "/archive")
        self.assertEqual(sorted(os.listdir("archive")), names[:-2])
        self.assertEqual(sorted(name for name in os.listdir("log") if name.startswith("5-7-")), names[-2:])
        self.assertEqual(self.run_it("logfiles", "surplus", "5").stdout, "")

    def test_wrong_usage_is_told(self):
        for name in ("server", "agent", "installer", "secure_audit", "logfiles"):
            self.assertIn("usage: ", self.run_it(name, status=2).stderr)


if __name__ == "__main__":
    unittest.main(verbosity=1)
