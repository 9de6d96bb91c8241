#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogmgr as an administrator uses it, on series that the test lays out."""
import fcntl
import json
import os
import re
import shlex
import shutil
import subprocess
import time
import unittest

from qdul_testing import HERE, host_number, literal_lines, manual, program, read, users_environment, write

TOOL = program("qdlogmgr")
COMMANDS = ["list", "surplus", "usage", "verify", "copy", "archive", "delete", "vacuum", "rotate", "bundle"]
CREATED = 1709251200  # 2024-03-01 00:00:00 UTC
HOST = host_number()


def run(*arguments, config="main.conf", environment=None):
    env = users_environment(TZ="UTC", **(environment or {}))
    if config:
        env["ZOLTLOG_CFG_LOC"] = os.path.join(HERE, config)
    done = subprocess.run([TOOL, *arguments], capture_output=True, text=True, env=env)
    return done.returncode, done.stdout, done.stderr


def originator_file(number, directory="logs", product=5, originator=7, host=1, day="240301", lines=3,
                    created=None, age=0):
    created = CREATED + number * 60 if created is None else created
    name = f"{product}-{originator}-{host}-{day}-{number:010d}.log"
    text = f"$Header 65543,{product},{originator},{created},0,hostA\n"
    for i in range(lines):
        text += f"2,{product},{originator},{originator},{i + 1},{(created + i) * 1000},1,1,0:,5:hello,0:,1,(0|)\n"
    write(f"{directory}/{name}", text)
    if age:
        when = time.time() - age
        os.utime(f"{directory}/{name}", (when, when))
    return name


def logset_file(stamp, directory="logs", name="nightfile", lines=1):
    base = f"5-{name}-{stamp}.log"
    text = "$Header 65544,0,hostA\n"
    for i in range(lines):
        text += f"2,7,{i + 1},{(CREATED + i) * 1000},1,1,0:,5:hello,0:,1,(0|)\n"
    write(f"{directory}/{base}", text)
    return base


class Qdlogmgr(unittest.TestCase):
    def setUp(self):
        for name in os.listdir("."):
            if os.path.isdir(name):
                shutil.rmtree(name)
            else:
                os.remove(name)
        for name in ("logs", "archive", "save"):
            os.mkdir(name)
        write("main.conf", f"5.Configuration={HERE}/p5.conf\n5.Names=web,front\n")
        write("p5.conf", f"Default.LogDirectory={HERE}/logs\nDefault.NumberOfLogFiles=3\n7.OIDNames=server\n"
              f"7.NumberOfLogFiles=2\nLOGSET.Default.LogDirectory={HERE}/logs\n"
              "LOGSET.night.FileName=nightfile\nLOGSET.night.NumberOfLogFiles=1\n")

    def five(self):
        return [originator_file(i) for i in range(5)]

    def ok(self, *arguments):
        status, out, err = run(*arguments)
        self.assertEqual((status, err), (0, ""), (arguments, out))
        return out

    def states(self, *arguments):
        return {os.path.basename(file["path"]): file["state"]
                for file in json.loads(self.ok("list", "--json", *arguments))}

    # ---- what there is ----

    def test_list_shows_each_file_from_the_oldest_to_the_newest(self):
        names = self.five()
        night = [logset_file("240301100000"), logset_file("240301100001")]
        out = self.ok("list")
        lines = out.splitlines()
        self.assertRegex(lines[0], r"^SERIES +FILE +SIZE +FIRST +LAST +STATE$")
        self.assertEqual([line.split("  ")[1].strip() for line in lines[1:]], names + night)
        self.assertIn("2024-03-01 00:01:00.000", lines[2])
        self.assertIn("2024-03-01 00:01:02.000", lines[2])
        self.assertEqual([line.split()[-1] for line in lines[1:]],
                         ["surplus", "surplus", "surplus", "kept", "newest", "surplus", "newest"])
        self.assertIn(f"{HERE}/logs/{names[0]}", self.ok("list", "--paths"))

    def test_list_as_json(self):
        names = self.five()
        files = json.loads(self.ok("list", "--json", "--utc"))
        self.assertEqual(len(files), 5)
        first = files[0]
        self.assertEqual(first["product"], 5)
        self.assertEqual(first["originator"], 7)
        self.assertEqual(first["path"], f"{HERE}/logs/{names[0]}")
        self.assertEqual(first["size"], os.path.getsize(f"logs/{names[0]}"))
        self.assertEqual(first["first"], "2024-03-01T00:00:00.000Z")
        self.assertEqual(first["last"], "2024-03-01T00:00:02.000Z")
        self.assertEqual(first["state"], "surplus")
        self.assertTrue(first["surplus"])

    def test_series_are_selected_by_id_name_and_file_name(self):
        self.five()
        originator_file(0, originator=9)
        logset_file("240301100000")
        for arguments, count in ((["-P", "5"], 7), (["-P", "front"], 7), (["-u", "server"], 5), (["-u", "9"], 1),
                                 (["-L", "night"], 1), (["-L", "nightfile"], 1)):
            self.assertEqual(len(json.loads(self.ok("list", "--json", *arguments))), count, arguments)
        status, _, err = run("list", "-P", "6")
        self.assertEqual(status, 3)
        self.assertIn("product 6 is not registered in ", err)
        status, _, err = run("list", "-P", "nobody")
        self.assertEqual(status, 3)
        self.assertIn("there is no product 'nobody'", err)

    def test_originators_without_a_section_follow_the_default_one(self):
        for i in range(5):
            originator_file(i, originator=9)
        self.assertEqual(sorted(self.states().values()), ["kept", "kept", "newest", "surplus", "surplus"])

    def test_a_directory_can_be_listed_without_configuration(self):
        os.mkdir("other")
        originator_file(0, directory="other", product=99)
        originator_file(1, directory="other", product=99)
        status, out, err = run("list", "--directory", "other", "--json", config="missing.conf")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual([file["state"] for file in json.loads(out)], ["-", "newest"])

    def test_surplus_lists_what_the_library_would_recycle(self):
        names = self.five()
        night = [logset_file(f"24030110000{i}") for i in range(3)]
        files = [os.path.basename(file["path"]) for file in json.loads(self.ok("surplus", "--json"))]
        self.assertEqual(files, names[:3] + night[:2])
        self.ok("delete", "--all")
        status, out, _ = run("surplus", "--json")
        self.assertEqual((status, json.loads(out)), (1, []))

    def test_files_of_one_second_are_told_apart_by_their_counters(self):
        names = [originator_file(i, created=CREATED) for i in range(12)]
        files = [os.path.basename(file["path"]) for file in json.loads(self.ok("surplus", "--json"))]
        self.assertEqual(files, names[:10])

    def test_usage_sums_up(self):
        names = self.five()
        size = sum(os.path.getsize(f"logs/{name}") for name in names)
        usage = json.loads(self.ok("usage", "--json"))
        self.assertEqual(usage["series"], [{
            "product": 5, "product_name": "web", "originator": 7, "directory": f"{HERE}/logs/", "files": 5,
            "size": size, "surplus_files": 3, "surplus_size": size * 3 // 5, "keep": 2, "recycles": False}])
        self.assertEqual(usage["directories"][0]["size"], size)
        self.assertGreater(usage["directories"][0]["free"], 0)
        self.assertIn(f"{HERE}/logs/: 5 files, ", self.ok("usage"))
        self.assertNotIn("left behind", self.ok("usage"))

    def test_what_killed_writers_left_is_told_and_is_no_problem(self):
        self.five()
        write("logs/.new-4711-123-0", "$Header")
        write("logs/.new-4712-123-0", "")
        for name in (".new-1-2", ".new-1-2-x", "new-1-2-3"):  # no such names
            write(f"logs/{name}", "")
        with open("logs/.new-4712-123-0") as held:  # its writer lives
            fcntl.flock(held, fcntl.LOCK_SH)
            self.assertIn("5 files, ", self.ok("usage"))
            self.assertIn("1 left behind by killed writers, ", self.ok("usage"))
            directory = json.loads(self.ok("usage", "--json"))["directories"][0]
            self.assertEqual((directory["leftover_files"], directory["leftover_size"]), (1, 7))
            out = self.ok("verify")
            self.assertIn(f"{HERE}/logs/.new-4711-123-0:0: note: left behind by a writer that was killed", out)
            self.assertEqual(out.count("left behind"), 1)
        self.assertEqual(self.ok("verify").count("left behind"), 2)

    # ---- removal ----

    def test_delete_removes_surplus_files_and_says_so(self):
        names = self.five()
        out = self.ok("delete", "--product", "5", "--dry-run")
        self.assertEqual(len(os.listdir("logs")), 5)
        self.assertIn(f"would delete {HERE}/logs/{names[0]} (", out)
        out = self.ok("delete", "--product", "5")
        self.assertEqual(sorted(os.listdir("logs")), names[3:])
        self.assertIn(f"deleted {HERE}/logs/{names[0]} (", out)
        self.assertRegex(out, r"freed .* in 3 files\n$")
        self.assertEqual(run("delete", "--product", "5")[0], 1)  # nothing left to do

    def test_delete_of_named_files_only_takes_those_of_the_series(self):
        names = self.five()
        other = originator_file(0, originator=9)
        status, out, err = run("delete", "-P", "5", "-u", "7", names[3], other)
        self.assertEqual(status, 4)
        self.assertIn(f"{other}: not a file of the series asked for", err)
        self.assertNotIn(names[3], os.listdir("logs"))
        self.assertIn(other, os.listdir("logs"))
        self.ok("delete", "-P", "5", f"{HERE}/logs/{names[2]}")
        self.ok("delete", "-P", "5", f"logs/{names[1]}")
        self.assertEqual(sorted(os.listdir("logs")), [names[0], names[4], other])

    def test_the_newest_file_is_never_removed(self):
        names = self.five()
        status, out, _ = run("delete", "-P", "5", names[4])
        self.assertEqual(status, 1)
        self.assertIn(f"kept {HERE}/logs/{names[4]}", out)
        self.assertIn("the newest of its series", out)
        run("delete", "-P", "5", "--keep", "0")
        run("vacuum", "-P", "5", "--count", "0", "--size", "0", "--age", "0s")
        self.assertEqual(os.listdir("logs"), [names[4]])

    def test_the_newest_file_of_every_host_stays(self):
        mine = self.five()
        theirs = [originator_file(i, host=42, created=CREATED - 1000 + i) for i in range(3)]
        run("delete", "-P", "5", "--keep", "0")
        self.assertEqual(sorted(os.listdir("logs")), sorted([mine[4], theirs[2]]))

    def test_after_the_clock_was_set_back_both_candidates_stay(self):
        names = [originator_file(i, created=CREATED - i * 100) for i in range(3)]
        run("delete", "-P", "5", "--keep", "0")
        self.assertEqual(sorted(os.listdir("logs")), [names[0], names[2]])

    def test_files_whose_header_speaks_of_another_series_are_never_removed(self):
        names = self.five()
        write(f"logs/{names[0]}", "$Header 65543,5,8,1709251200,0,hostA\n")
        write(f"logs/{names[1]}", "no header at all\n")
        write(f"logs/{names[2]}", "")
        os.mkdir("logs/5-7-1-240229-0000000000.log")
        os.symlink(f"{HERE}/p5.conf", "logs/5-7-1-240229-0000000001.log")
        before = sorted(os.listdir("logs"))
        out = run("delete", "-P", "5", "--keep", "0")[1]
        self.assertIn("its header says product 5, originator 8", out)
        self.assertEqual(sorted(os.listdir("logs")), [name for name in before if name != names[3]])
        self.assertEqual(self.states()[names[0]], "doubtful")
        self.assertTrue(os.path.exists("p5.conf"))

    def test_an_originator_named_like_a_log_set_keeps_its_files(self):
        for i in range(4):
            logset_file(f"24030110000{i}", name="7up")
        self.five()
        self.ok("delete", "-P", "5", "-u", "7")
        self.assertEqual(len([name for name in os.listdir("logs") if "7up" in name]), 4)

    def test_removal_needs_to_know_the_series(self):
        names = self.five()
        for command in (["delete"], ["vacuum", "--count", "1"], ["archive", "--to", "archive"]):
            self.assertEqual(run(*command)[0], 2, command)
        self.assertEqual(sorted(os.listdir("logs")), names)

    def test_older_than_takes_times_and_spans(self):
        names = [originator_file(i, age=(5 - i) * 86400) for i in range(5)]
        out = self.ok("delete", "-P", "5", "--older-than", "60h", "--dry-run")
        self.assertEqual(out.count("would delete"), 3)
        out = self.ok("delete", "-P", "5", "--older-than", "2 days ago", "--dry-run")
        self.assertEqual(out.count("would delete"), 4)
        self.assertEqual(run("delete", "-P", "5", "--older-than", "2001-01-01")[0], 1)
        self.assertEqual(run("delete", "-P", "5", "--older-than", "whenever")[0], 2)
        self.assertEqual(sorted(os.listdir("logs")), names)

    def test_vacuum_by_count_size_and_age(self):
        names = self.five()
        size = os.path.getsize(f"logs/{names[0]}")
        self.ok("vacuum", "-P", "5", "--count", "4")
        self.assertEqual(sorted(os.listdir("logs")), names[1:])
        self.ok("vacuum", "-P", "5", "--size", str(size * 2 + 1))
        self.assertEqual(sorted(os.listdir("logs")), names[3:])
        when = time.time() - 7200
        os.utime(f"logs/{names[3]}", (when, when))
        self.ok("vacuum", "-P", "5", "--age", "3h")
        self.assertEqual(sorted(os.listdir("logs")), names[3:])
        self.ok("vacuum", "-P", "5", "--age", "1h")
        self.assertEqual(os.listdir("logs"), [names[4]])
        self.assertEqual(run("vacuum", "-P", "5")[0], 2)
        self.assertEqual(run("vacuum", "-P", "5", "--size", "many")[0], 2)

    def test_vacuum_treats_each_series_by_itself(self):
        self.five()
        for i in range(3):
            originator_file(i, originator=9)
        self.ok("vacuum", "--all", "--count", "2")
        self.assertEqual(len([name for name in os.listdir("logs") if name.startswith("5-7-")]), 2)
        self.assertEqual(len([name for name in os.listdir("logs") if name.startswith("5-9-")]), 2)

    def test_quiet_prints_nothing_and_json_prints_json(self):
        names = self.five()
        done = json.loads(self.ok("delete", "-P", "5", "--keep", "4", "--json"))
        self.assertEqual([(one["action"], os.path.basename(one["path"])) for one in done], [("deleted", names[0])])
        self.assertEqual(self.ok("delete", "-P", "5", "--quiet"), "")
        self.assertEqual(sorted(os.listdir("logs")), names[3:])

    # ---- copies ----

    def test_copy_leaves_the_files(self):
        names = self.five()
        out = self.ok("copy", "-P", "5", "--to", "save")
        self.assertEqual(sorted(os.listdir("save")), names)
        self.assertEqual(sorted(os.listdir("logs")), names)
        self.assertIn(f"copied {HERE}/logs/{names[0]}", out)
        for name in names:
            self.assertEqual(read(f"save/{name}"), read(f"logs/{name}"))

    def test_copy_replaces_nothing_unless_told(self):
        names = self.five()
        write(f"save/{names[0]}", "precious")
        status, _, err = run("copy", "-P", "5", "--to", "save")
        self.assertEqual(status, 4)
        self.assertIn("exists", err)
        self.assertEqual(read(f"save/{names[0]}"), "precious")
        self.ok("copy", "-P", "5", "--to", "save", "--replace")
        self.assertEqual(read(f"save/{names[0]}"), read(f"logs/{names[0]}"))

    def test_copy_needs_a_directory(self):
        self.five()
        self.assertEqual(run("copy", "-P", "5", "--to", "missing")[0], 3)
        self.assertEqual(run("copy", "-P", "5")[0], 2)

    def test_copy_into_its_own_directory_is_refused(self):
        names = self.five()
        before = read(f"logs/{names[0]}")
        status, out, err = run("copy", "-P", "5", "--to", "logs", "--replace")
        self.assertEqual((status, out), (4, ""))
        self.assertEqual(sorted(err.splitlines()), [f"qdlogmgr: {HERE}/logs/{name}: it is already in logs" for name in names])
        status, out, err = run("copy", "-P", "5", "--to", "logs", "--replace", "--json")
        self.assertEqual((status, err), (4, ""))
        self.assertEqual([(row["action"], row["detail"]) for row in json.loads(out)], [("failed", "it is already in logs")] * 5)
        self.assertEqual(read(f"logs/{names[0]}"), before)

    def test_archive_moves_surplus_files(self):
        names = self.five()
        contents = {name: read(f"logs/{name}") for name in names}
        self.assertIn("would archive", self.ok("archive", "-P", "5", "--to", "archive", "--dry-run"))
        self.assertEqual(os.listdir("archive"), [])
        self.ok("archive", "-P", "5", "--to", "archive")
        self.assertEqual(sorted(os.listdir("archive")), names[:3])
        self.assertEqual(sorted(os.listdir("logs")), names[3:])
        for name in names[:3]:
            self.assertEqual(read(f"archive/{name}"), contents[name])

    def test_archive_by_link(self):
        names = self.five()
        inode = os.stat(f"logs/{names[0]}").st_ino
        self.ok("archive", "-P", "5", "--to", "archive", "--link")
        self.assertEqual(os.stat(f"archive/{names[0]}").st_ino, inode)
        self.assertEqual(sorted(os.listdir("logs")), names[3:])

    def test_archive_removes_nothing_when_one_copy_fails(self):
        names = self.five()
        write(f"archive/{names[1]}", "something else")
        status, out, err = run("archive", "-P", "5", "--to", "archive")
        self.assertEqual(status, 4)
        self.assertIn("exists", err)
        self.assertIn("copied, not removed", out)
        self.assertEqual(sorted(os.listdir("logs")), names)
        self.assertEqual(read(f"archive/{names[1]}"), "something else")
        os.remove(f"archive/{names[1]}")
        self.ok("archive", "-P", "5", "--to", "archive")  # goes on with the copies that are there
        self.assertEqual(sorted(os.listdir("logs")), names[3:])

    def test_archive_keeps_the_newest(self):
        names = self.five()
        self.ok("archive", "-P", "5", "--to", "archive", "--keep", "0")
        self.assertEqual(os.listdir("logs"), [names[4]])

    def test_two_files_of_one_name_do_not_replace_each_other(self):
        os.mkdir("more")
        self.five()
        for i in range(3):
            originator_file(i, directory="more", lines=1)
        status, _, err = run("archive", "-D", "logs", "-D", "more", "--keep", "1", "--to", "archive")
        self.assertEqual(status, 4)
        self.assertIn("another file of this name", err)
        self.assertEqual(len(os.listdir("logs")) + len(os.listdir("more")), 8)

    # ---- verify ----

    def test_verify_finds_nothing_in_whole_files(self):
        self.five()
        logset_file("240301100000")
        self.assertEqual(self.ok("verify"), "6 files, 16 records, 0 problems\n")

    def test_verify_tells_damage_missing_counters_and_wrong_headers(self):
        names = self.five()
        os.remove(f"logs/{names[2]}")
        text = read(f"logs/{names[1]}")
        write(f"logs/{names[1]}", text.replace("5:hello", "9:hello", 1))
        write(f"logs/{names[0]}", text)  # right series, whole
        write(f"logs/{names[3]}", "$Header 65543,5,8,1709251200,0,hostA\n")
        status, out, _ = run("verify")
        self.assertEqual(status, 1)
        offset = text.index("2,5,7")
        self.assertRegex(out, rf"{names[1]}:(\d+): ")
        found = int(re.search(rf"{names[1]}:(\d+): ", out).group(1))
        self.assertTrue(offset <= found < offset + 60, (offset, found))
        self.assertIn(f"{names[3]}:0: ", out)
        self.assertIn("missing before it: counters 2 to 2 of its day", out)
        result = run("verify", "--json")
        self.assertEqual(json.loads(result[1])["files"], 4)

    # ---- usage of the program ----

    def test_wrong_usage_is_2(self):
        for arguments in ([], ["nothing"], ["list", "--nothing"], ["delete", "-P"], ["list", "-u", "7", "-L", "x"],
                          ["list", "--color", "pink"], ["list", "--keep", "x"]):
            self.assertEqual(run(*arguments)[0], 2, arguments)

    def test_errors_name_the_program_and_what_is_wrong(self):
        for arguments, words in (([], "a command is needed"), (["nothing"], "there is no command 'nothing'"),
                                 (["list", "--nothing"], "--nothing"), (["delete", "-P"], "--product")):
            err = run(*arguments)[2]
            self.assertTrue(err.startswith("qdlogmgr: "), err)
            self.assertIn(words, err)
            self.assertTrue(err.endswith("Try 'qdlogmgr --help'.\n"), err)

    def test_finding_nothing_is_told(self):
        self.assertEqual(run("list"), (1, "", "qdlogmgr: no log files were found\n"))
        self.assertEqual(run("list", "-q"), (1, "", ""))
        originator_file(0)
        self.assertEqual(run("surplus"), (1, "", "qdlogmgr: no file matches\n"))
        self.assertEqual(run("vacuum", "-a", "--count", "3"), (0, "nothing to remove\n", ""))

    def test_a_configuration_that_cannot_be_read_is_3(self):
        status, _, err = run("list", config="missing.conf")
        self.assertEqual(status, 3)
        self.assertIn("missing.conf: No such file or directory", err)
        self.assertEqual(run("list", "--config", f"{HERE}/main.conf", config=None)[0], 1)

    def test_what_keeps_the_configuration_from_being_read_is_told(self):
        self.five()
        os.rename("p5.conf", "away.conf")
        for words in (["-P", "web"], ["-P", "5"], ["-P", "5", "-u", "server"], []):
            status, _, err = run("list", *words)
            self.assertEqual(status, 3, words)
            self.assertIn(f"configuration {HERE}/p5.conf: No such file or directory", err)
        os.rename("away.conf", "p5.conf")
        status, _, err = run("list", "-L", "nosuch")
        self.assertEqual(status, 3)
        self.assertIn("there is no log set 'nosuch'", err)

    def test_an_output_that_cannot_be_written_is_told(self):
        self.five()
        with open("/dev/full", "w") as full:
            done = subprocess.run([TOOL, "list", "-D", "logs"], stdout=full, stderr=subprocess.PIPE, text=True)
        self.assertEqual(done.returncode, 4)
        self.assertIn("qdlogmgr: the output could not be written: No space left on device", done.stderr)

    def test_names_cannot_steer_the_terminal(self):
        os.mkdir("bad\x1b[31m")
        originator_file(0, directory="bad\x1b[31m")
        out = run("list", "-D", "bad\x1b[31m", "--paths")[1]
        self.assertIn("bad\\e[31m", out)
        self.assertNotIn("\x1b", out)

    # ---- new files ----

    def test_rotate_begins_the_next_file_with_the_permissions_of_the_one_before(self):
        old = originator_file(4, host=HOST)
        os.chmod(f"logs/{old}", 0o640)
        today = time.strftime("%y%m%d", time.gmtime())
        new = f"5-7-{HOST}-{today}-0000000000.log"
        self.assertEqual(self.ok("rotate", "-P", "5", "--dry-run"), f"would rotate {HERE}/logs/{old} (184B): {new}\n")
        self.assertEqual(os.listdir("logs"), [old])
        self.assertEqual(self.ok("rotate", "-P", "5"), f"rotated {HERE}/logs/{old} (184B): {new}\n")
        self.assertEqual(sorted(os.listdir("logs")), [old, new])
        self.assertRegex(read(f"logs/{new}"), rf"^\$Header 65543,5,7,\d{{10}},0,{re.escape(os.uname().nodename)}\n$")
        self.assertEqual([os.stat(f"logs/{name}").st_mode & 0o7777 for name in (old, new)], [0o1640, 0o640])
        self.assertEqual(self.states(), {old: "kept", new: "newest"})

    def test_rotate_counts_on_within_a_day_and_leaves_what_is_new(self):
        today = time.strftime("%y%m%d", time.gmtime())
        originator_file(9, host=HOST, day=today)
        for last in (10, 10, 10):
            self.ok("rotate", "-P", "5", "-q")
            self.assertEqual(max(os.listdir("logs")), f"5-7-{HOST}-{today}-{last:010d}.log")
        self.assertEqual(self.ok("rotate", "-P", "5").split(": ")[1], "nothing was written to it yet\n")
        told = json.loads(self.ok("rotate", "-P", "5", "--json"))
        self.assertEqual([each["action"] for each in told], ["kept"])

    def test_rotate_of_a_log_set_takes_a_name_of_its_own_second(self):
        first = logset_file(time.strftime("%y%m%d%H%M%S", time.gmtime()))
        self.ok("rotate", "-L", "night", "-P", "5")
        names = sorted(os.listdir("logs"))
        self.assertEqual((len(names), names[0]), (2, first))
        self.assertEqual(read(f"logs/{names[1]}"), f"$Header 65544,0,{os.uname().nodename}\n")

    def test_rotate_refuses_what_it_cannot_place(self):
        originator_file(0, host=1)
        status, out, err = run("rotate", "-P", "5")
        self.assertEqual((status, out.split(": ")[1]), (1, "another host writes the series\n"))
        originator_file(0, host=HOST, day="990101", originator=8)
        status, out, err = run("rotate", "-P", "5", "-u", "8")
        self.assertEqual(status, 4)
        self.assertIn("its name tells a time to come", err)
        with open(f"logs/{originator_file(0, host=HOST, originator=9)}", "r+") as file:
            file.write("$Header 65543,5,8")
        status, out, err = run("rotate", "-P", "5", "-u", "9")
        self.assertEqual((status, out.split(": ")[1]), (1, "its header says product 5, originator 8\n"))
        self.assertEqual(len(os.listdir("logs")), 3)
        self.assertEqual(run("rotate")[0], 2)  # without a series

    def test_rotate_waits_for_the_directory_and_for_the_writer(self):
        name = originator_file(0, host=HOST)
        with open(f"logs/{name}", "rb") as writer:
            fcntl.flock(writer, fcntl.LOCK_SH)  # as a writer does; this one never writes again
            start = time.monotonic()
            self.ok("rotate", "-P", "5")
            self.assertGreater(time.monotonic() - start, 2)
        directory = os.open("logs", os.O_RDONLY)
        fcntl.flock(directory, fcntl.LOCK_EX)
        with open(max(f"logs/{each}" for each in os.listdir("logs")), "a") as file:
            file.write(f"2,5,7,7,1,{CREATED}000,1,1,0:,5:hello,0:,1,(0|)\n")
        waiting = subprocess.Popen([TOOL, "rotate", "-P", "5"], stdout=subprocess.DEVNULL, env=users_environment(ZOLTLOG_CFG_LOC=f"{HERE}/main.conf", TZ="UTC"))
        time.sleep(0.2)
        self.assertEqual((waiting.poll(), len(os.listdir("logs"))), (None, 2))
        os.close(directory)
        self.assertEqual((waiting.wait(10), len(os.listdir("logs"))), (0, 3))

    def test_help_and_version(self):
        self.assertIn("Exit status", self.ok("--help"))
        self.assertRegex(self.ok("--version"), r"^qdlogmgr \d+\.\d+")
        for command in COMMANDS:
            self.assertIn("Example:\n  qdlogmgr " + command, self.ok(command, "--help"))

    def test_the_manual_has_every_command(self):
        page = manual("qdlogmgr")
        self.assertEqual(self.ok("--complete", "commands").split(), COMMANDS)
        for command in COMMANDS:
            self.assertRegex(page, rf"(?m)^\*{command}\*")

    def test_the_examples_of_the_manual_and_of_help_run(self):
        lines = literal_lines(manual("qdlogmgr"))
        self.assertGreaterEqual(len(lines), 8)
        for command in COMMANDS:
            example = self.ok(command, "--help").split("Example:\n  ")[1].strip()
            lines.append(example.replace("/srv/save", "save").replace("/srv/archive", "archive"))
        for line in lines:
            with self.subTest(line):
                self.setUp()
                for i in range(5):
                    originator_file(i, host=HOST)
                when = time.time() - 40 * 86400
                for name in os.listdir("logs")[:3]:
                    os.utime(f"logs/{name}", (when, when))
                logset_file("240301100000")
                logset_file("240301100000", directory="save", name="other")
                words = shlex.split(line)
                self.assertEqual(words[0], "qdlogmgr")
                status, out, err = run(*words[1:])
                self.assertEqual((status, err), (0, ""), out)


if __name__ == "__main__":
    unittest.main(verbosity=2)
