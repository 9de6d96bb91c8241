#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogcfg as a new user would use it, from an empty directory."""
import fcntl
import json
import os
import re
import shutil
import struct
import subprocess
import unittest

from qdul_testing import BUILD, HERE, manual, program, read, section, users_environment, write

TOOL = program("qdlogcfg")


def run(*arguments, config="main.conf", environment=None):
    env = users_environment(**(environment or {}))
    command = [TOOL, "--config", os.path.join(HERE, config)] if config else [TOOL]
    done = subprocess.run(command + list(arguments), capture_output=True, text=True, env=env)
    return done.returncode, done.stdout, done.stderr


class Qdlogcfg(unittest.TestCase):
    def setUp(self):
        for name in os.listdir("."):
            if name.endswith(".conf"):
                os.remove(name)
        shutil.rmtree("logs", ignore_errors=True)

    def ok(self, *arguments):
        status, out, err = run(*arguments)
        self.assertEqual((status, err), (0, ""), (arguments, out))
        return out

    def register(self):
        self.ok("product", "add", "5", "--names", "server,srv", "--file", f"{HERE}/server.conf")
        self.ok("set", "-P", "5", f"LogDirectory={HERE}/logs")

    def test_a_product_from_registration_to_removal(self):
        self.assertEqual(run("product", "list")[0], 1)
        self.ok("product", "add", "5", "--names", "server,srv", "--file", f"{HERE}/server.conf")
        self.assertIn(f"5.Configuration={HERE}/server.conf\n5.Names=server,srv\n", read("main.conf"))
        self.assertIn("server,srv", self.ok("product", "list"))
        self.assertEqual(json.loads(self.ok("product", "list", "--json")),
                         [{"product": 5, "names": "server,srv", "configuration": f"{HERE}/server.conf",
                           "readable": False}])
        self.ok("set", "--product", "server", f"LogDirectory={HERE}/logs", "RolloverMode=FileSize | LocalTime",
                "MaxLogFileSizeKB=64", "RolloverAtLocalTime=23:05")
        self.ok("set", "--product", "srv", "--originator", "7", "DebugLevel=3", "LogToStdout=true")
        self.ok("set", "--product", "5", "--logset", "backup", "FileName=backup", "LogRecycle=true",
                "NumberOfLogFiles=3")
        self.assertEqual(
            [line for line in read("server.conf").splitlines() if not line.startswith("#")],
            [f"Default.LogDirectory={HERE}/logs/", "Default.RolloverMode=FileSize | LocalTime",
             "Default.MaxLogFileSizeKB=64", "Default.RolloverAtLocalTime=23:05", "7.DebugLevel=3",
             "7.LogToStdout=true", "LOGSET.backup.FileName=backup", "LOGSET.backup.LogRecycle=true",
             "LOGSET.backup.NumberOfLogFiles=3"])
        self.assertEqual(self.ok("get", "-P", "5", "-u", "7", "DebugLevel", "MaxLogFileSizeKB"), "3\n64\n")
        self.ok("unset", "-P", "5", "-u", "7", "DebugLevel")
        self.assertEqual(self.ok("get", "-P", "5", "-u", "7", "DebugLevel"), "0\n")
        self.ok("product", "remove", "5")
        self.assertFalse(os.path.exists("main.conf"))
        self.assertTrue(os.path.exists("server.conf"))

    def test_registering_twice_is_an_error_and_changes_nothing(self):
        self.register()
        before = read("main.conf")
        status, _, err = run("product", "add", "5", "--names", "x", "--file", f"{HERE}/other.conf")
        self.assertEqual(status, 3)
        self.assertIn("(27)", err)
        status, _, err = run("product", "add", "5", "--dry-run", "--names", "x", "--file", f"{HERE}/other.conf")
        self.assertEqual(status, 3)
        self.assertIn("(27)", err)
        self.assertEqual(read("main.conf"), before)

    def test_show_tells_where_each_value_comes_from(self):
        self.register()
        self.ok("set", "-P", "5", "DebugLevel=2")
        self.ok("set", "-P", "5", "-u", "7", "DiagnosticLevel=4")
        shown = {row["key"]: row for row in json.loads(self.ok("show", "-P", "5", "-u", "7", "--json"))}
        self.assertEqual(shown["DebugLevel"]["value"], "2")
        self.assertEqual(shown["DebugLevel"]["from"], "Default")
        line = read("server.conf").splitlines().index("Default.DebugLevel=2") + 1
        self.assertEqual(shown["DebugLevel"]["line"], line)
        self.assertEqual(shown["DiagnosticLevel"]["from"], "7")
        self.assertEqual(shown["LogFilePermissions"], {"key": "LogFilePermissions", "value": "660",
                                                       "from": "built-in", "skipped": []})
        human = self.ok("show", "-P", "5", "-u", "7")
        self.assertRegex(human, rf"DebugLevel +2 +section Default, {re.escape(HERE)}/server.conf:{line}\n")

    def test_show_names_a_value_that_the_library_skips(self):
        self.register()
        write("server.conf", read("server.conf") + "7.DebugLevel=9\n7.LogFilePermissions=755\n")
        shown = {row["key"]: row for row in json.loads(self.ok("show", "-P", "5", "-u", "7", "--json"))}
        self.assertEqual(shown["DebugLevel"]["value"], "0")
        self.assertEqual([skipped["value"] for skipped in shown["DebugLevel"]["skipped"]], ["9"])
        self.assertEqual(shown["LogFilePermissions"]["value"], "660")
        self.assertEqual([skipped["value"] for skipped in shown["LogFilePermissions"]["skipped"]], ["755"])

    def test_set_refuses_what_the_library_would_not_take(self):
        self.register()
        before = read("server.conf")
        for setting in ["DebugLevel=7", "DebugLevel=x", "DebugLevel=-1", "MaxLogFileSizeKB=0", "NumberOfLogFiles=0",
                        "RolloverMode=Weekly", "RolloverMode=LocalTime | Periodic", "RolloverAtLocalTime=24:00",
                        "LogFilePermissions=755", "LogFilePermissions=9", "SyslogFacility=log_user",
                        "LogToStdout=yes", "AppMsgLogging=on", "SyslogIdent=a=b", "SyslogIdent=a\n5.x=y",
                        "LogDirectory=logs", "SyslogIdent=" + "x" * 81, "SyslogOpt=4294967296", b"OIDNames=\xff",
                        "FileName=x", "DebugLevle=3", "DebugLevel", "OIDNames=" + "x" * 400]:
            status, out, err = run("set", "-P", "5", setting)
            self.assertEqual((status, out), (2, ""), setting)
            self.assertNotEqual(err, "")
        self.assertEqual(read("server.conf"), before)
        self.assertIn("did you mean DebugLevel?", run("set", "-P", "5", "DebugLevle=3")[2])
        for setting in ["FileName=a-b", "FileName=a/b", "FileName=7", "LogDirectory=logs", "L10nLib=x"]:
            self.assertEqual(run("set", "-P", "5", "-L", "Default", setting)[:2], (2, ""), setting)
        self.assertEqual(read("server.conf"), before)

    def test_one_bad_setting_among_many_changes_nothing(self):
        self.register()
        before = read("server.conf")
        self.assertEqual(run("set", "-P", "5", "DebugLevel=3", "DiagnosticLevel=9")[0], 2)
        self.assertEqual(read("server.conf"), before)

    def test_dry_run_changes_nothing(self):
        self.register()
        before = read("server.conf"), read("main.conf")
        self.assertIn("would set DebugLevel=3", self.ok("set", "-P", "5", "--dry-run", "DebugLevel=3"))
        self.assertIn("would remove LogDirectory", self.ok("unset", "-P", "5", "--dry-run", "LogDirectory"))
        self.assertIn("would remove product 5", self.ok("product", "remove", "--dry-run", "5"))
        self.assertIn("would register product 6",
                      self.ok("product", "add", "6", "--dry-run", "--names", "x", "--file", f"{HERE}/x.conf"))
        self.assertEqual((read("server.conf"), read("main.conf")), before)

    def test_list_names_originators_and_log_sets(self):
        self.register()
        self.ok("set", "-P", "5", "-u", "7", "OIDNames=volume", "LogDirectory=sub")
        self.ok("set", "-P", "5", "-L", "Default", "DebugLevel=1", f"LogDirectory={HERE}/logs")
        self.ok("set", "-P", "5", "-L", "backup", "DebugLevel=1")
        listed = json.loads(self.ok("list", "-P", "5", "--json"))
        self.assertEqual([row.get("originator", row.get("logset")) for row in listed], [112, 7, "Default", "backup"])
        self.assertEqual(listed[1]["directory"], f"{HERE}/logs/sub/")
        self.assertEqual(self.ok("get", "-P", "5", "-u", "volume", "LogDirectory"), f"{HERE}/logs/sub/\n")

    def check(self, expected_status=1):
        status, out, err = run("check", "--json")
        self.assertEqual((status, err), (expected_status, ""), out)
        return json.loads(out)

    def test_check_finds_nothing_in_a_good_configuration(self):
        self.register()
        self.assertEqual(self.check(0), [])

    def test_check_finds_each_kind_of_problem(self):
        self.register()
        good = read("server.conf")
        blocked = f"{HERE}/afile"
        write("afile", "")
        cases = [
            ("7.DebugLevel=9", "skipped silently"),
            ("7.MaxLogFileSizeKB=0", "skipped silently"),
            ("7.RolloverAtLocalTime=24:00", "skipped silently"),
            ("7.LogFilePermissions=755", "skipped silently"),
            ("7.LogFilePermissions=rw", "'rw' is read as '0'"),
            ("7.DebugLevle=3", "did you mean DebugLevel?"),
            ("7.DebugLevel=1\n7.DebugLevel=2", "only line"),
            ("7.DebugLevel=1\n8.DebugLevel=1\n7.LogToStdout=true", "began in line"),
            ("7.OIDNames=" + "x" * 600, "longer than 498"),
            ("7.OIDNames=" + "x" * 450, "longer than 399"),
            ("7.OIDNames=a=b", "ends at its first '='"),
            ("\t# comment", "a tab before '#'"),
            ("nonsense", "neither a comment"),
            ("DebugLevel=3", "belongs to no section"),
            ("7.LogToStdout=yes", "'yes' is read as 'false'; it takes true or false"),
            ("7.AppMsgLogging=on", "is read as 'OFF'"),
            ("7.RolloverMode=Weekly", "is read as 'None'"),
            ("7.RolloverMode=LocalTime | Periodic", "is read as 'LocalTime'"),
            ("7.SyslogFacility=log_local0", "LOG_KERN"),
            ("7.DynaReloadInSec=10", "count as 60"),
            ("7.DebugLevel=3x", "'3x' is read as '3'"),
            ("7.RolloverAtLocalTime=3:30pm", "'3:30pm' is read as '03:30'"),
            ("7.LogFilePermissions=66O", "'66O' is read as '66'"),
            ("7.NumberOfLogFiles=-1", "'-1' is read as '-1'"),
            ("05.DebugLevel=1", "is never found"),
            ("5.DebugLevel=1\n05.DebugLevel=1", "name the same originator"),
            ("abc.DebugLevel=1", "is never used"),
            (f"7.LogDirectory={blocked}/x", "cannot be made"),
            (f"7.LogDirectory={blocked}", "is no directory"),
            ("LOGSET.a.FileName=x\nLOGSET.b.FileName=x\nLOGSET.Default.LogDirectory=/tmp/qdul-none", "write one series"),
            ("LOGSET.a.L10nLib=x", "is not read in section"),
            ("LOGSET.a-b.DebugLevel=1", "with '-'"),
            ("7.LogRecycle=true\n7.RolloverMode=FileSize", "without NumberOfLogFiles"),
            ("7.LogRecycle=true\n7.NumberOfLogFiles=3", "without a RolloverMode"),
            ("7.OIDNames=x\r", "carriage return"),
            ("7.OIDNames=x\0y", "NUL byte"),
            ("7.LogToStdout=true ", "is read as 'false'"),
            ("7.AppMsgLogging=ON ", "is read as 'OFF'"),
            ("7.SyslogOpt=4294967297", "is read as '1'"),
            ("7.SyslogIdent=" + "i" * 81, "it takes at most 80 bytes"),
            ("112.DebugLevel=1", "is Default"),
            ("LOGSET.a.b.DebugLevel=1", "holds a '.'"),
            ("LOGSET.a.LogDirectory=logs", "depends on where"),
            (f"LOGSET.a.LogDirectory={HERE}/logs\nLOGSET.a.FileName=112", "write one series"),
            (f"9.DebugLevel=1\nLOGSET.a.LogDirectory={HERE}//logs\nLOGSET.a.FileName=9", "write one series"),
            ("LOGSET.a.LogDirectory=/tmp\nLOGSET.a.FileName=9", "those of originator 9"),
            ("LOGSET.9.LogDirectory=/tmp", "those of originator 9"),
        ]
        for added, expected in cases:
            write("server.conf", good + added + "\n")
            texts = [finding["text"] for finding in self.check()]
            self.assertTrue(any(expected in text for text in texts), (added, texts))
        write("server.conf", good)
        self.assertEqual(self.check(0), [])

    def test_findings_come_in_the_order_of_lines(self):
        self.register()
        write("server.conf", read("server.conf") + "7.NumberOfLogFiles=0\n7.DebugLevle=3\nnonsense\n8.DebugLevel=9\n"
              "7.DebugLevel=9\n7.LogFilePermissions=755\n")
        lines = [finding["line"] for finding in self.check()]
        self.assertGreaterEqual(len(set(lines)), 6)
        self.assertEqual(lines, sorted(lines))

    def test_check_takes_what_the_library_takes(self):
        self.register()
        good = read("server.conf")
        for added in ["7.NumberOfLogFiles=3", "7.SyslogFacility=LOG_LOCAL3  ", "7.LogFilePermissions=640 ",
                      "7.RolloverMode=FileSize|LocalTime ", "7.SyslogIdent=" + "i" * 80, "7.OIDNames=K\u00e4se",
                      f"LOGSET.a.LogDirectory={HERE}/logs\nLOGSET.b.LogDirectory={HERE}/logs"]:
            write("server.conf", good + added + "\n")
            self.assertEqual(self.check(0), [], added)
        write("main.conf", read("main.conf").replace("server.conf", "server.conf  "))
        self.assertEqual(self.check(0), [])  # a path's blanks at the end do not count

    def test_check_tells_a_directory_that_this_user_cannot_use(self):
        self.register()
        user = {"user": 65534, "group": 65534, "extra_groups": []} if os.geteuid() == 0 else {}
        os.makedirs("locked", exist_ok=True)
        self.ok("set", "-P", "5", f"LogDirectory={HERE}/locked")

        def told():
            done = subprocess.run([TOOL, "--config", f"{HERE}/main.conf", "check", "--json"], capture_output=True, text=True,
                                  check=False, **user)
            if done.returncode == 3:
                self.skipTest("another user cannot read this directory")
            return [finding["text"] for finding in json.loads(done.stdout)]
        mode_here = os.stat(".").st_mode & 0o7777
        if user:
            os.chmod(".", 0o755)
        for name in ("main.conf", "server.conf"):
            os.chmod(name, 0o644)
        try:
            for mode, expected in [(0o555, "cannot be written by this user"), (0o333, "cannot be read by this user"),
                                   (0o666, "cannot be read by this user")]:
                os.chmod("locked", mode)
                texts = told()
                self.assertTrue(any(expected in text for text in texts), (oct(mode), texts))
            os.chmod("locked", 0o555)
            self.ok("set", "-P", "5", f"LogDirectory={HERE}/locked/below")
            texts = told()
            self.assertTrue(any("cannot be made by this user" in text for text in texts), texts)
            os.chmod("locked", 0o777)
            self.assertEqual(told(), [])
        finally:
            os.chmod("locked", 0o755)
            os.chmod(".", mode_here)

    def test_a_last_line_without_a_line_feed_is_ended_first(self):
        self.register()
        before = read("server.conf")
        write("server.conf", before + "7.DebugLevel=1")
        self.ok("set", "-P", "5", "-u", "8", "DebugLevel=3")
        self.assertEqual(read("server.conf"), before + "7.DebugLevel=1\n8.DebugLevel=3\n")
        before = read("main.conf")
        write("main.conf", before + "6.Names=x")
        self.ok("product", "add", "7", "--names", "x", "--file", f"{HERE}/x.conf")
        self.assertEqual(read("main.conf"), before + f"6.Names=x\n7.Configuration={HERE}/x.conf\n7.Names=x\n")

    def test_apply_sets_all_or_nothing_and_export_prints_what_it_takes(self):
        self.register()
        before = f"# kept\nDefault.LogDirectory={HERE}/logs\n7.DebugLevel=1\n8.DebugLevel=2\n7.LogToStdout=true"
        write("server.conf", before)
        write("list", "# a comment\n\n7.DebugLevel=5\n7.OIDNames=seven\nLOGSET.bill.NumberOfLogFiles=3\n8.DebugLevel=2\n")
        note = "note: product 5, log set bill: no LogDirectory is set; opening a log gives result 53\n"
        told = self.ok("apply", "-P", "5", "list", "--dry-run")
        self.assertEqual(told, "-7.DebugLevel=1\n+7.DebugLevel=5\n+7.OIDNames=seven\n+LOGSET.bill.NumberOfLogFiles=3\n"
                         + note)
        self.assertEqual(read("server.conf"), before)
        self.assertEqual(self.ok("apply", "-P", "5", "list"),
                         f"applied 4 setting(s) to {HERE}/server.conf, 3 changed\n" + note)
        after = (f"# kept\nDefault.LogDirectory={HERE}/logs\n7.DebugLevel=5\n7.OIDNames=seven\n8.DebugLevel=2\n"
                 "7.LogToStdout=true\nLOGSET.bill.NumberOfLogFiles=3\n")
        self.assertEqual(read("server.conf"), after)
        exported = self.ok("show", "-P", "5", "--export")
        self.assertEqual(exported, f"Default.LogDirectory={HERE}/logs\n7.OIDNames=seven\n7.DebugLevel=5\n7.LogToStdout=true\n"
                                   "8.DebugLevel=2\nLOGSET.bill.NumberOfLogFiles=3\n")
        self.assertEqual(self.ok("show", "-P", "5", "-u", "8", "--export"), "8.DebugLevel=2\n")
        write("list", exported)
        self.assertEqual(self.ok("apply", "-P", "5", "list", "--dry-run"),
                         f"-Default.LogDirectory={HERE}/logs\n+Default.LogDirectory={HERE}/logs/\n")
        for bad, told in [("7.DebugLevel=9", "list:2: DebugLevel: '9' is not allowed"), ("x.DebugLevel=1", "list:2: 'x' is no section"),
                          ("7.Colour=red", "list:2: there is no setting"), ("nonsense", "list:2: not of the form"),
                          ("7.DebugLevel=1", "list:2: 7.DebugLevel is given twice")]:
            write("list", "7.DebugLevel=1\n" + bad + "\n")
            status, out, err = run("apply", "-P", "5", "list")
            self.assertEqual((status, out), (2, ""), bad)
            self.assertIn(told, err)
            self.assertEqual(read("server.conf"), after)
        self.assertFalse(os.path.exists("server.conf.tmp"))

    def test_a_file_that_cannot_be_read_is_no_empty_one(self):
        os.mkdir("main.conf")
        try:
            for command in [("product", "list"), ("show", "-P", "5"), ("budget",), ("check",)]:
                status, out, err = run(*command)
                self.assertEqual((status, out), (3, ""), command)
                self.assertIn("cannot be read", err)
        finally:
            os.rmdir("main.conf")
        self.ok("product", "add", "5", "--names", "server", "--file", f"{HERE}/server.conf")
        self.ok("show", "-P", "5")  # not made yet: the built-in defaults hold
        os.mkdir("server.conf")
        try:
            for command in [("show", "-P", "5"), ("list", "-P", "5"), ("get", "-P", "5", "DebugLevel"), ("budget",),
                            ("set", "-P", "5", "DebugLevel=1"), ("unset", "-P", "5", "DebugLevel")]:
                status, out, err = run(*command)
                self.assertEqual((status, out), (3, ""), command)
                self.assertIn("cannot be read", err)
            told = f"{HERE}/server.conf cannot be read (Is a directory): opening gives "
            self.assertEqual(run("check")[0], 1)
            self.assertIn(told, self.check()[0]["text"])
            for words in ([], ["-u", "seven"], ["-L", "backup"]):
                status, out, err = run("explain", "-P", "5", *words)
                self.assertEqual((status, err), (1, ""), words)
                self.assertIn(told, out)
                self.assertTrue(out.endswith("the message is NOT written\n"), out)
        finally:
            os.rmdir("server.conf")
        self.assertIn("server.conf is not there: built-in defaults apply", run("explain", "-P", "5")[1])

    def test_a_main_file_may_be_named_by_a_relative_path(self):
        done = subprocess.run([TOOL, "--config", "main.conf", "product", "add", "5", "--names", "x", "--file", f"{HERE}/x.conf"],
                              capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("5.Names=x\n", read("main.conf"))

    def test_names_are_never_empty(self):
        self.register()
        before = read("server.conf")
        for scope in ["--logset", "--originator"]:
            self.assertEqual(run("set", "-P", "5", scope, "", "DebugLevel=1")[0], 2)
        for name in ["a.b", "a=b", "a\nb"]:
            self.assertEqual(run("set", "-P", "5", "-L", name, "DebugLevel=1")[0], 2)
        self.assertEqual(read("server.conf"), before)

    def test_log_sets_of_a_location_that_is_no_file_are_left_alone(self):
        self.register()
        write("main.conf", f"5.Configuration={HERE}/plain\n5.Names=server\n")
        status, _, err = run("set", "-P", "5", "-L", "backup", "DebugLevel=1")
        self.assertEqual(status, 3)
        self.assertIn(".conf", err)
        self.assertFalse(os.path.exists("plain"))

    def test_a_log_set_does_not_inherit_the_file_name(self):
        self.register()
        self.ok("set", "-P", "5", "-L", "Default", "FileName=base", f"LogDirectory={HERE}/logs")
        self.ok("set", "-P", "5", "-L", "backup", "DebugLevel=1")
        shown = {row["key"]: row for row in json.loads(self.ok("show", "-P", "5", "-L", "backup", "--json"))}
        self.assertEqual((shown["FileName"]["value"], shown["FileName"]["from"]), ("backup", "built-in"))
        self.assertIn("the log set's name", self.ok("show", "-P", "5", "-L", "backup"))
        shown = {row["key"]: row for row in json.loads(self.ok("show", "-P", "5", "-L", "Default", "--json"))}
        self.assertEqual((shown["FileName"]["value"], shown["FileName"]["from"]), ("base", "LOGSET.Default"))

    def test_what_is_no_setting_can_be_removed(self):
        self.register()
        before = read("server.conf")
        write("server.conf", before + "7.DebugLevle=3\nLOGSET.a.L10nLib=x\n")
        self.ok("unset", "-P", "5", "-u", "7", "DebugLevle")
        self.ok("unset", "-P", "5", "-L", "a", "L10nLib")
        self.assertEqual(read("server.conf"), before)
        self.assertEqual(run("unset", "-P", "5", "-u", "7", "DebugLevle")[0], 2)
        self.assertEqual(run("unset", "-P", "5", "-u", "7", "DebugLevel")[0], 1)

    def test_many_originators_are_found_by_name_and_checked(self):
        self.register()
        lines = [f"{i}.OIDNames=part{i}\n{i}.DebugLevel=1\n" for i in range(200, 1700)]
        write("server.conf", read("server.conf") + "".join(lines))
        self.assertEqual(self.ok("get", "-P", "5", "-u", "part1699", "OIDNames"), "part1699\n")
        self.assertEqual(len(json.loads(self.ok("list", "-P", "5", "--json"))), 1501)
        self.assertEqual(self.check(0), [])

    def test_check_finds_problems_of_the_main_file(self):
        self.register()
        good = read("main.conf")
        for added, expected in [
                (f"05.Configuration={HERE}/server.conf", "name the same product"),
                (f"6.Configuration={HERE}/server.conf", "share one configuration file"),
                (f"6.Configuration={HERE}/six", "holds no \".conf\""),
                ("6.Configuration=six.conf", "no absolute path"),
                (f"6.Configuration={HERE}/none.conf", f"product 6: {HERE}/none.conf is not there: built-in defaults apply"),
                ("6.Names=x", "counts as not registered"),
                ("5.AppMsgLogging=ON", "reads as false"),
                ("5.Colour=red", "unknown key"),
                (f"6.Configuration={HERE}/six.conf\n6.Names=x,srv", "are both named 'srv'"),
                (f"abc.Configuration={HERE}/server.conf", "no product id")]:
            write("main.conf", good + added + "\n")
            texts = [finding["text"] for finding in self.check()]
            self.assertTrue(any(expected in text for text in texts), (added, texts))

    def test_explain_names_the_setting_that_stops_a_message(self):
        self.register()
        self.ok("set", "-P", "5", "-u", "7", "DebugLevel=2", "LogToStdout=true")
        told = json.loads(self.ok("explain", "-P", "5", "-u", "7", "-k", "debug", "--level", "2", "--json"))
        self.assertTrue(told["written"])
        self.assertTrue(told["file"].startswith(f"{HERE}/logs/5-7-"))
        self.assertEqual(told["sinks"], ["standard output"])
        status, out, _ = run("explain", "-P", "5", "-u", "7", "-k", "debug", "--level", "3", "--json")
        self.assertEqual(status, 1)
        told = json.loads(out)
        self.assertFalse(told["written"])
        stop = [step for step in told["steps"] if step["kind"] == "stops"]
        self.assertEqual(len(stop), 1)
        self.assertIn("DebugLevel=2 (section 7", stop[0]["source"])
        status, out, _ = run("explain", "-P", "5", "-k", "diag", "--level", "7")
        self.assertEqual(status, 1)
        self.assertIn("outside 1 to 6", out)
        self.assertEqual(run("explain", "-P", "5", "--severity", "5")[0], 1)
        self.ok("unset", "-P", "5", "LogDirectory")
        status, out, _ = run("explain", "-P", "5")
        self.assertEqual(status, 1)
        self.assertIn("(53)", out)

    def test_explain_tells_the_copies_of_each_kind(self):
        self.register()
        copies = {"app": ["standard output", "standard error", "the system log"],
                  "diag": ["standard output", "standard error"], "debug": ["standard output"], "audit": []}

        def told(*arguments):
            return json.loads(self.ok("explain", "-P", "5", "--json", *arguments))
        self.ok("set", "-P", "5", "DebugLevel=1", "DiagnosticLevel=1")
        for kind in copies:
            self.assertEqual(told("-k", kind)["sinks"], [])
            self.assertEqual(told("-k", kind, "--flags", "7")["sinks"], copies[kind])  # those of the call
        self.ok("set", "-P", "5", "LogToStdout=true", "LogToStderr=true", "LogToOslog=true")
        for kind, sinks in copies.items():
            self.assertEqual(told("-k", kind)["sinks"], sinks)
            self.assertTrue(told("-k", kind)["file"].startswith(f"{HERE}/logs/5-112-"))
        secure = told("-k", "secure-audit")
        self.assertEqual((secure["file"], secure["sinks"]), (None, ["the system log"]))

    def test_explain_follows_the_originators_and_log_sets(self):
        self.register()
        self.ok("set", "-P", "5", "-u", "7", "DebugLevel=2")
        self.ok("set", "-P", "5", "-u", "8", "LogDirectory=eight")
        self.ok("set", "-P", "5", "-L", "backup", f"LogDirectory={HERE}/logs", "FileName=bak", "DiagnosticLevel=3")

        def told(*arguments, status=0):
            done = run("explain", "-P", "5", "--json", *arguments)
            self.assertEqual(done[0], status, done)
            return json.loads(done[1])
        both = told("-u", "7", "--file-originator", "8", "-k", "debug", "--level", "2")
        self.assertTrue(both["file"].startswith(f"{HERE}/logs/eight/5-8-"))  # levels of the one, file of the other
        self.assertFalse(told("-u", "8", "--file-originator", "7", "-k", "debug", "--level", "2", status=1)["written"])
        self.assertTrue(told("-L", "backup", "-k", "diag", "--level", "3")["file"].startswith(f"{HERE}/logs/5-bak-"))
        self.assertFalse(told("-L", "backup", "-k", "diag", "--level", "4", status=1)["written"])
        os.makedirs("logs", exist_ok=True)
        write("logs/5-bak-260101120000.log", "")
        self.assertEqual(told("-L", "backup")["file"], f"{HERE}/logs/5-bak-260101120000.log")
        self.ok("set", "-P", "5", "-u", "7", "AppMsgLogging=OFF")  # filters nothing, as the library does
        off = told("-u", "7", "-k", "app")
        self.assertTrue(off["written"])
        self.assertTrue(any("AppMsgLogging=OFF (section 7" in step.get("source", "") for step in off["steps"]))
        write("server.conf", read("server.conf") + "9.DebugLevel=9\n")
        stop = [step for step in told("-u", "9", "-k", "debug", status=1)["steps"] if step["kind"] == "stops"]
        self.assertIn("'9' in line", stop[0]["source"])
        self.ok("set", "-P", "5", f"LogDirectory={HERE}/main.conf/below")
        stop = [step for step in told(status=1)["steps"] if step["kind"] == "stops"]
        self.assertIn("LogDirectory=", stop[0]["source"])

    def test_budget_adds_up(self):
        self.register()
        status, out, _ = run("budget", "--json")
        self.assertEqual(status, 1)  # no size limit
        self.ok("set", "-P", "5", "RolloverMode=FileSize", "MaxLogFileSizeKB=64", "LogRecycle=true",
                "NumberOfLogFiles=3")
        told = json.loads(self.ok("budget", "--json"))
        self.assertEqual(told["series"][0]["most_bytes"], 3 * 64 * 1024)
        self.assertEqual(told["volumes"][0]["most_bytes"], 3 * 64 * 1024)
        self.assertTrue(told["fits"])
        self.assertEqual(told["series"][0]["used_bytes"], 0)
        os.makedirs("logs", exist_ok=True)
        write("logs/5-112-16777343-260101-0000000001.log", "x" * 1000)
        write("logs/5-1123-16777343-260101-0000000001.log", "x" * 1000)
        write("logs/5-112-notes.txt", "x" * 1000)
        told = json.loads(self.ok("budget", "--json"))
        self.assertEqual(told["series"][0]["used_bytes"], 1000)
        self.assertEqual(told["volumes"][0]["used_bytes"], 1000)
        self.ok("set", "-P", "5", "NumberOfLogFiles=1000000000")
        self.assertEqual(run("budget")[0], 1)

    def test_errors_are_told_in_one_line(self):
        for arguments, status in [(["show", "-P", "9"], 3), (["check"], 3), (["set", "-P", "9", "DebugLevel=1"], 3),
                                  ([], 2), (["nonsense"], 2), (["get", "-P"], 2),
                                  (["product", "add", "0", "--names", "x", "--file", "/x.conf"], 2),
                                  (["product", "add", "5", "--names", "x", "--file", "/x"], 2)]:
            done = run(*arguments)
            self.assertEqual(done[0], status, (arguments, done))
            self.assertNotEqual(done[2], "", arguments)

    def test_a_failed_write_is_told(self):
        self.register()
        os.mkdir("server.conf.tmp")  # no temporary file can be made there
        try:
            before = read("server.conf")
            status, out, err = run("set", "-P", "5", "DebugLevel=3")
            self.assertEqual((status, out), (3, ""))
            self.assertEqual(err, f"qdlogcfg: {HERE}/server.conf was not changed: Is a directory\n")
            self.assertEqual(read("server.conf"), before)
        finally:
            os.rmdir("server.conf.tmp")

    # ---- what stands in the way ----------------------------------------------------------

    def preloaded(self, *arguments, **variables):
        """Runs the tool with calls that fail or are watched."""
        return run(*arguments, environment={"LD_PRELOAD": BUILD + "/tests/plugins/libfailing_calls.so",
                                            "ASAN_OPTIONS": "verify_asan_link_order=0", **variables})

    def test_a_full_disk_changes_nothing_and_a_retry_works(self):
        add = ["product", "add", "5", "--names", "server", "--file", f"{HERE}/server.conf"]
        status, out, err = self.preloaded(*add, FAILING_CALLS="write")
        self.assertEqual((status, out), (3, ""))
        self.assertIn("No space left on device", err)
        self.assertFalse(os.path.exists("main.conf"))
        self.ok("product", "add", "4", "--names", "other", "--file", f"{HERE}/other.conf")
        before = read("main.conf")
        status, out, err = self.preloaded(*add, FAILING_CALLS="write")
        self.assertEqual((status, out), (3, ""))
        self.assertIn("was not registered", err)
        self.assertIn("No space left on device", err)
        self.assertEqual(read("main.conf"), before)
        self.ok(*add)
        self.assertEqual(read("main.conf"), before + f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("list", "7.DebugLevel=1\n8.DebugLevel=1\n")
        self.ok("set", "-P", "5", f"LogDirectory={HERE}/logs")
        good = read("server.conf")
        for change in (["set", "-P", "5", "DebugLevel=1", "DiagnosticLevel=2"], ["unset", "-P", "5", "LogDirectory"],
                       ["apply", "-P", "5", "list"], ["product", "remove", "5"]):
            status, out, err = self.preloaded(*change, FAILING_CALLS="write")
            self.assertEqual((status, out), (3, ""), change)
            self.assertIn("No space left on device", err)
            self.assertEqual(read("server.conf"), good)
            self.assertIn("5.Names=server\n", read("main.conf"))
        self.ok("set", "-P", "5", "DebugLevel=1", "DiagnosticLevel=2")
        self.assertEqual(read("server.conf"), good + "Default.DebugLevel=1\nDefault.DiagnosticLevel=2\n")

    def as_other_user(self, *arguments):
        user = {"user": 65534, "group": 65534, "extra_groups": []} if os.geteuid() == 0 else {}
        done = subprocess.run([TOOL, "--config", f"{HERE}/main.conf", *arguments], capture_output=True, text=True,
                              env=users_environment(), check=False, **user)
        return done.returncode, done.stdout, done.stderr

    def test_who_may_not_write_is_told_so_also_before(self):
        self.register()
        mode = os.stat(".").st_mode & 0o7777
        for name in ("main.conf", "server.conf"):
            os.chmod(name, 0o644)
        os.chmod(".", 0o555)
        before = read("server.conf"), read("main.conf")
        write_list = "7.DebugLevel=1\n"
        try:
            if self.as_other_user("show", "-P", "5")[0] == 3:
                self.skipTest("another user cannot read this directory")
            with open("/tmp/qdlogcfg-list." + str(os.getpid()), "w") as file:
                file.write(write_list)
            for change in (["set", "-P", "5", "DebugLevel=1"], ["unset", "-P", "5", "LogDirectory"],
                           ["apply", "-P", "5", file.name], ["product", "remove", "5"],
                           ["product", "add", "6", "--names", "x", "--file", f"{HERE}/x.conf"]):
                status, out, err = self.as_other_user(*change)
                self.assertEqual((status, out), (3, ""), change)
                self.assertIn("Permission denied", err, change)
                status, out, err = self.as_other_user(*change, "--dry-run")
                self.assertEqual(status, 3, change)
                self.assertNotEqual(out, "")
                self.assertIn("could not be changed: Permission denied", err, change)
            self.assertEqual((read("server.conf"), read("main.conf")), before)
        finally:
            os.chmod(".", mode)
            if os.path.exists("/tmp/qdlogcfg-list." + str(os.getpid())):
                os.remove("/tmp/qdlogcfg-list." + str(os.getpid()))

    def test_who_keeps_the_configuration_waiting_is_named(self):
        self.register()
        before = read("server.conf"), read("main.conf")
        holders = []
        for name in ("server.conf.tmp", "main.conf.tmp"):
            file = open(name, "w")
            fcntl.fcntl(file, fcntl.F_OFD_SETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 0, 0))
            holders.append(file)
        try:
            changes = [["set", "-P", "5", "DebugLevel=1"],
                       ["product", "add", "6", "--names", "x", "--file", f"{HERE}/x.conf"]]
            running = [subprocess.Popen([TOOL, "--config", f"{HERE}/main.conf", *change], stderr=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, env=users_environment()) for change in changes]
            for process in running:
                out, err = process.communicate()
                self.assertEqual((process.returncode, out), (3, ""))
                self.assertIn(f"process {os.getpid()} (", err)
                self.assertIn(") is writing it and did not finish in ten seconds", err)
            self.assertEqual(self.check(0), [])  # somebody is at work: nothing is left over
        finally:
            for file in holders:
                file.close()
                os.remove(file.name)
        self.assertEqual((read("server.conf"), read("main.conf")), before)

    def test_a_change_that_did_not_end_leaves_a_file_which_check_tells(self):
        self.register()
        for name in ("server.conf.tmp", "main.conf.tmp"):
            write(name, "5.x=y\n")
            texts = [finding["text"] for finding in self.check()]
            self.assertEqual(texts, [f"{HERE}/{name} is left over from a change that did not end; the next one removes it"])
            os.remove(name)
        write("server.conf.tmp", "")
        self.ok("set", "-P", "5", "DebugLevel=1")
        self.assertFalse(os.path.exists("server.conf.tmp"))

    # ---- what is told ---------------------------------------------------------------------

    def test_each_file_is_read_once(self):
        self.register()
        self.ok("set", "-P", "5", "-u", "7", "OIDNames=seven", "DebugLevel=3")
        self.ok("set", "-P", "5", "-L", "backup", f"LogDirectory={HERE}/logs")
        for command in (["show", "-P", "server", "-u", "seven"], ["show", "-P", "5", "--export"],
                        ["get", "-P", "5", "-u", "seven", "DebugLevel", "DiagnosticLevel"], ["list", "-P", "5"], ["check"],
                        ["check", "-P", "5"], ["budget"], ["budget", "-P", "5"], ["explain", "-P", "5", "-u", "seven"],
                        ["explain", "-P", "5", "-L", "backup"], ["product", "show", "5"]):
            if os.path.exists("opened"):
                os.remove("opened")
            status, _, err = self.preloaded(*command, OPENED_FILES=f"{HERE}/opened")
            self.assertIn((status, err), [(0, ""), (1, "")], command)
            opened = read("opened").splitlines()
            self.assertEqual([opened.count(f"{HERE}/{name}") for name in ("main.conf", "server.conf")], [1, 1], command)

    def test_many_keys_are_one_change_or_none(self):
        self.register()
        before = read("server.conf")
        keys = ["DebugLevel=3", "DiagnosticLevel=4", "LogToStdout=true", "NumberOfLogFiles=3", "SyslogIdent=me"]
        self.preloaded("set", "-P", "5", "-u", "7", *keys, OPENED_FILES=f"{HERE}/opened")
        self.assertEqual(read("opened").splitlines().count(f"{HERE}/server.conf.tmp"), 1)
        self.assertEqual(read("server.conf"), before + "".join(f"7.{key}\n" for key in keys))
        after = read("server.conf")
        os.remove("opened")
        self.preloaded("unset", "-P", "5", "-u", "7", *[key.split("=")[0] for key in keys], OPENED_FILES=f"{HERE}/opened")
        self.assertEqual(read("opened").splitlines().count(f"{HERE}/server.conf.tmp"), 1)
        self.assertEqual(read("server.conf"), before)
        write("server.conf", after + "7.DebugLevel=5\n9.DebugLevel=1\n7.DebugLevel=6\n")
        self.ok("unset", "-P", "5", "-u", "7", "DebugLevel")  # each of its lines
        self.assertEqual(read("server.conf"), after.replace("7.DebugLevel=3\n", "") + "9.DebugLevel=1\n")

    def test_set_refuses_what_check_calls_an_error(self):
        self.register()
        self.ok("set", "-P", "5", "-L", "a", f"LogDirectory={HERE}/logs")
        before = read("server.conf")
        write("afile", "")
        for scope, setting, told in [
                ([], "LogFilePermissions=0", "keeps the files' owner"), ([], "LogFilePermissions=66O", "is not allowed"),
                ([], "RolloverAtLocalTime=3:30pm", "is not allowed"), ([], f"LogDirectory= {HERE}/logs", ""),
                (["-u", "7"], "LogDirectory= sub", "blanks before the path"),
                (["-u", "7"], f"LogDirectory={HERE}/afile", "is no directory"),
                (["-L", "b"], f"LogDirectory={HERE}/logs", None), (["-L", "b"], "FileName=a", "write one series"),
                (["-L", "c-d"], "DebugLevel=1", "with '-'"), (["-L", "e" * 81], f"LogDirectory={HERE}/logs", "more than 80 bytes"),
                (["-L", "b"], "FileName=" + "f" * 250, "longer than 255 bytes")]:
            status, out, err = run("set", "-P", "5", *scope, setting)
            if told is None:
                self.assertEqual(status, 0)
                before = read("server.conf")
                continue
            self.assertEqual((status, out), (2, ""), setting)
            self.assertIn(told, err)
            self.assertEqual(read("server.conf"), before)
            write("list", (f"LOGSET.{scope[1]}." if scope[:1] == ["-L"] else f"{scope[1]}." if scope else "Default.") + setting + "\n")
            status, out, err = run("apply", "-P", "5", "list")
            self.assertEqual((status, out), (2, ""), setting)
            self.assertEqual(read("server.conf"), before)
        self.assertEqual(self.check(0), [])
        write("server.conf", before + "9.DebugLevel=9\n")
        self.ok("set", "-P", "5", "-u", "8", "DebugLevel=1")  # what was wrong before does not stop it

    def test_set_says_what_becomes_of_a_value(self):
        self.register()
        self.assertIn("note: DynaReloadInSec: intervals below 60 seconds count as 60\n",
                      self.ok("set", "-P", "5", "DynaReloadInSec=5"))
        self.assertNotIn("note", self.ok("set", "-P", "5", "DynaReloadInSec=60"))
        self.assertIn("note: DynaReloadInSec: ", self.ok("set", "-P", "5", "DynaReloadInSec=5", "--dry-run"))
        self.assertIn("note: product 5, Default: LogRecycle removes nothing", self.ok("set", "-P", "5", "LogRecycle=true"))
        self.ok("set", "-P", "5", "-u", "7", "OIDNames=alpha beta")
        self.assertIn("note: originators 7 and 8 are both named 'beta'", self.ok("set", "-P", "5", "-u", "8", "OIDNames=beta"))

    def test_check_looks_at_names_and_paths(self):
        self.register()
        good = read("server.conf")
        for added, expected in [
                ("7.LogFilePermissions=0", "keeps the files' owner"), ("7.LogFilePermissions=40", "keeps the files' owner"),
                ("7.LogDirectory= sub", "blanks before the path"), ("7.L10nResourceDir= /x", "blanks before the path"),
                ("7.OIDNames=a b\n8.OIDNames=c,b", "originators 7 and 8 are both named 'b'"),
                ("LOGSET." + "n" * 81 + ".DebugLevel=1", "more than 80 bytes"),
                (f"LOGSET.a.LogDirectory={HERE}/logs\nLOGSET.a.FileName=" + "f" * 240, "longer than 255 bytes")]:
            write("server.conf", good + added + "\n")
            texts = [finding["text"] for finding in self.check()]
            self.assertTrue(any(expected in text for text in texts), (added, texts))
        write("server.conf", good)
        main = read("main.conf")
        write("main.conf", main + f"6.Configuration=/{'d' * 390}.conf\n")
        self.assertTrue(any("longer than 395 bytes" in finding["text"] for finding in self.check()))
        self.assertEqual(run("product", "add", "7", "--names", "x", "--file", f"/{'d' * 390}.conf")[0], 2)

    def test_blanks_and_commas_part_names_alike_in_all_tools(self):
        self.ok("product", "add", "5", "--names", "alpha beta,gamma", "--file", f"{HERE}/server.conf")
        self.ok("set", "-P", "beta", f"LogDirectory={HERE}/logs")
        self.ok("set", "-P", "gamma", "-u", "7", "OIDNames=one two, three")
        os.makedirs("logs", exist_ok=True)
        write("logs/5-7-16777343-260101-0000000000.log", "$Header 65543,5,7,1767225600,0,host\n"
              "2,5,7,7,1,1767225600000,42,43,0:,9:Disk full,3:mgr,3,(0|)\n")
        for name in ("alpha", "beta", "gamma"):
            self.assertIn('"product":5', self.ok("product", "show", name, "--json").replace(" ", ""))
            for originator in ("one", "two", "three"):
                self.assertEqual(self.ok("get", "-P", name, "-u", originator, "OIDNames"), "one two, three\n")
                for other in (["qdlogmgr", "list"], ["qdlogview", "-o", "csv"]):
                    done = subprocess.run([program(other[0]), "--config", f"{HERE}/main.conf", *other[1:], "-P", name, "-u",
                                           originator], capture_output=True, text=True, env=users_environment(), check=False)
                    self.assertEqual((done.returncode, done.stderr), (0, ""), (other, name, originator, done.stdout))
        self.assertEqual(run("product", "show", "alphabeta")[0], 3)

    def test_settings_that_nothing_follows_are_marked(self):
        self.register()
        unused = ["L10nLib", "L10nResource", "L10nResourceDir", "AppMsgLogging", "OIDAppMsgLogging", "OIDDebugLogging",
                  "OIDDiagLogging"]
        told = {row["key"]: row for row in json.loads(self.ok("show", "-P", "5", "--json"))}
        self.assertEqual([key for key, row in told.items() if row.get("used") is False], unused)
        human = self.ok("show", "-P", "5")
        usage = run("--help")[1]
        for key in told:
            for text in (re.search(rf"(?m)^{key} .*$", human).group(), re.search(rf"(?m)^  {key}: .*$", usage).group()):
                self.assertEqual("; nothing follows it today" in text, key in unused, text)

    def test_every_command_has_help_with_an_example(self):
        for command in [["product", "add"], ["product", "remove"], ["product", "list"], ["product", "show"], ["get"],
                        ["set"], ["unset"], ["list"], ["show"], ["check"], ["explain"], ["budget"], ["product"]]:
            status, out, _ = run(*command, "--help")
            self.assertEqual(status, 0)
            self.assertIn("Example:\n  qdlogcfg ", out, command)
            self.assertRegex(run(*command, "--version")[1], r"^qdlogcfg \d", command)

    def test_a_quiet_change_tells_failures_only(self):
        self.register()
        self.assertEqual(run("set", "-P", "5", "-q", "DebugLevel=3"), (0, "", ""))
        self.assertEqual(self.ok("get", "-P", "5", "DebugLevel"), "3\n")
        self.assertIn("9", run("set", "-P", "5", "-q", "DebugLevel=9")[2])

    def test_the_examples_of_the_manual_page_work(self):
        examples = re.findall(r"^(qdlogcfg .*)$", section(manual("qdlogcfg"), "EXAMPLES"), re.M)
        self.assertGreaterEqual(len(examples), 8)
        for example in examples:
            words = example.replace("/etc/qd", HERE).replace("/var/log", HERE)
            done = subprocess.run(["sh", "-c", words], capture_output=True, text=True,
                                  env={**os.environ, "PATH": os.path.dirname(TOOL) + ":" + os.environ["PATH"],
                                       "ZOLTLOG_CFG_LOC": f"{HERE}/main.conf"})
            self.assertIn(done.returncode, (0, 1), (example, done.stdout, done.stderr))
            self.assertEqual(done.stderr, "", example)

    def test_colour_follows_the_rules(self):
        self.register()
        write("server.conf", read("server.conf") + "7.DebugLevel=9\n")
        self.assertNotIn("\x1b[", run("check")[1])
        self.assertIn("\x1b[", run("--color", "always", "check")[1])
        self.assertNotIn("\x1b[", run("--color", "always", "check", "--json")[1])


if __name__ == "__main__":
    unittest.main(verbosity=1)
