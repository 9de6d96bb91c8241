#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogview --spool: each record comes into one published file, once, whatever ends the process."""
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

from qdul_testing import HERE, append, plain_environment, program, read, string

QDLOGVIEW = program("qdlogview")
KILLS = int(os.environ.get("SPOOL_KILLS", "50"))
T0 = 1709300702000
HEADER = b"$Header 65543,5,7,1709300702,0,hostA\n"
PUBLISHED = re.compile(r"qdul-(\d{12})-(\d+)\.([\w-]+)")


def record(id, text=b"text"):
    return b"2,5,7,7,%d,%d,42,43,0:,%s3:mgr,0,(0|)\n" % (id, T0 + id, string(text))


def name(counter):
    return f"5-7-16777343-240301-{counter:010d}.log"


class Spool(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        os.makedirs(f"{self.directory}/spool")
        os.chdir(self.directory)
        os.mkdir("log")
        self.environment = plain_environment()

    def words(self, *words):
        return [QDLOGVIEW, "--spool=spool", "--cursor-file=place", "-o", "json", "--fields=msgid", *words, "log"]

    def spool(self, *words, status=0, err=""):
        done = subprocess.run(self.words(*words), capture_output=True, text=True, env=self.environment)
        self.assertEqual((done.returncode, done.stdout), (status, ""), done.stderr)
        if err is not None:
            self.assertEqual(done.stderr, err)
        return done.stderr

    def files(self):
        """The published files, in their order; nothing else is in the spool."""
        found = sorted(os.listdir("spool"))
        for file in found:
            self.assertRegex(file, PUBLISHED)
        return found

    def ids(self, files=None):
        """What the spool holds; each file has as many records as its name says."""
        found = []
        for file in self.files() if files is None else files:
            lines = read(f"spool/{file}").splitlines()
            self.assertEqual(len(lines), int(PUBLISHED.fullmatch(file).group(2)), file)
            found += [json.loads(line)["msgid"] for line in lines]
        return found

    # ---- files --------------------------------------------------------------------

    def test_what_is_new_comes_into_files_of_a_size(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 1001)])
        self.spool("--spool-size=1K")
        files = self.files()
        self.assertGreater(len(files), 10)
        self.assertEqual([int(PUBLISHED.fullmatch(file).group(1)) for file in files], list(range(1, len(files) + 1)))
        for file in files[:-1]:  # the record that reaches the size is the last one
            self.assertTrue(1024 <= os.path.getsize("spool/" + file) < 1024 + len('{"msgid":1000}\n'))
        self.assertEqual(self.ids(), list(range(1, 1001)))
        self.spool(status=1, err=None)
        self.assertEqual(self.files(), files)
        append("log/" + name(1), HEADER, record(1001))
        self.spool()
        self.assertEqual(self.files()[-1], f"qdul-{len(files) + 1:012d}-1.json")
        self.assertEqual(self.ids(), list(range(1, 1002)))

    def test_a_file_can_stand_alone(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 9)])
        for form, first in (("csv", "msgid"), ("raw", HEADER.decode().strip())):
            for file in ("place", *("spool/" + each for each in os.listdir("spool"))):
                if os.path.exists(file):
                    os.remove(file)
            words = [QDLOGVIEW, "--spool=spool", "--cursor-file=place", "-o", form, "--spool-size=20", "log"]
            done = subprocess.run(words + (["--fields=msgid"] if form == "csv" else []), env=self.environment)
            self.assertEqual(done.returncode, 0)
            files = self.files()
            self.assertGreater(len(files), 1)
            for file in files:
                self.assertTrue(file.endswith("." + form))
                self.assertEqual(read("spool/" + file).splitlines()[0], first)

    def test_following_publishes_what_is_old_enough_and_what_there_is_at_the_end(self):
        append("log/" + name(0), HEADER, record(1))
        process = subprocess.Popen(self.words("-f", "--spool-age=100ms"), env=self.environment)
        end = time.monotonic() + 20
        while not any(file.endswith(".json") for file in os.listdir("spool")) and time.monotonic() < end:
            time.sleep(0.02)
        self.assertEqual(self.ids([file for file in os.listdir("spool") if file.endswith(".json")]), [1])
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        append("log/" + name(0), record(2))
        process = subprocess.Popen(self.words("-f", "--spool-age=1h"), env=self.environment)
        while not any(file.endswith(".part") for file in os.listdir("spool")) and time.monotonic() < end:
            time.sleep(0.02)
        self.assertEqual(self.ids([file for file in os.listdir("spool") if file.endswith(".json")]), [1])
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        self.assertEqual(self.ids(), [1, 2])

    def test_records_that_are_left_out_are_not_read_again(self):
        append("log/" + name(0), HEADER, *[record(id, b"no") for id in range(1, 100)])
        self.spool("-g", "yes", status=1, err=None)
        self.assertEqual(self.files(), [])
        append("log/" + name(0), record(100, b"yes"))
        self.spool()
        self.assertEqual(self.ids(), [100])

    # ---- bounds -------------------------------------------------------------------

    def test_the_oldest_files_are_dropped_and_told(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 1001)])
        told = self.spool("--spool-size=1K", "--spool-keep=4K", status=4, err=None)
        files = self.files()
        self.assertLessEqual(sum(os.path.getsize("spool/" + file) for file in files), 3072)
        kept = self.ids()
        self.assertEqual(kept, list(range(kept[0], 1001)))
        dropped = re.findall(r"(?m)^qdlogview: spool/(qdul-\d{12}-(\d+)\.json) dropped, with (\d+) records: the spool keeps 4.0K$", told)
        self.assertEqual(len(dropped), len(told.splitlines()))
        self.assertEqual(sum(int(count) for _, count, _ in dropped), kept[0] - 1)
        self.assertTrue(all(a == b for _, a, b in dropped))
        self.assertEqual(self.spool("-q", "--spool-size=1K", "--spool-keep=2K", status=4), "")

    def test_what_a_taker_removed_makes_room(self):
        for counter in range(20):
            append("log/" + name(counter), HEADER, *[record(counter * 100 + id) for id in range(1, 101)])
            self.spool("--spool-size=1K", "--spool-keep=8K")
            self.assertEqual(self.ids(), list(range(counter * 100 + 1, counter * 100 + 101)))
            for file in self.files():
                os.remove("spool/" + file)

    # ---- the end of a process at any moment -----------------------------------------

    def test_what_a_crash_leaves_is_told_apart_by_the_cursor(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 11)])
        self.spool("-m4")
        self.assertEqual(self.files(), ["qdul-000000000001-4.json"])
        os.rename("spool/qdul-000000000001-4.json", "spool/qdul-000000000001.json.part")  # saved, not renamed
        with open("spool/qdul-000000000002.json.part", "w") as part:  # not saved
            part.write('{"msgid":5}\n{"ms')
        self.spool("-m3")
        self.assertEqual(self.files(), ["qdul-000000000001-4.json", "qdul-000000000002-3.json"])
        self.assertEqual(self.ids(), list(range(1, 8)))
        with open("place", "a") as file:  # a line that was not written whole
            file.write("spool:9:9:9;/no")
        self.spool()
        self.assertEqual(self.ids(), list(range(1, 11)))

    def test_a_part_of_another_cursor_is_not_published(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 11)])
        self.spool("-m4")
        os.rename("spool/qdul-000000000001-4.json", "spool/qdul-000000000001.json.part")
        append("spool/qdul-000000000001.json.part", b"more\n")
        self.assertIn("do they belong together?", self.spool(status=3, err=None))
        self.assertEqual(os.listdir("spool"), ["qdul-000000000001.json.part"])

    def test_only_one_process_writes_there(self):
        append("log/" + name(0), HEADER, record(1))
        process = subprocess.Popen(self.words("-f", "--spool-age=1ms"), env=self.environment)
        while not os.listdir("spool"):
            time.sleep(0.01)
        self.spool(status=3, err="qdlogview: spool/: another process writes there\n")
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        self.assertEqual(self.ids(), [1])

    @unittest.skipUnless(shutil.which("strace") and "SPOOL_POINTS" in os.environ, "no strace, or SPOOL_POINTS is not set")
    def test_killed_at_each_system_call_it_goes_on_exactly(self):
        append("log/" + name(0), HEADER, *[record(id) for id in range(1, 41)])
        calls = ["openat", "write", "fsync", "fdatasync", "renameat", "rename", "close", "unlinkat", "renameat2"]
        points = 0
        for call in calls:
            for when in range(1, 40):
                for file in os.listdir("spool"):
                    os.remove("spool/" + file)
                if os.path.exists("place"):
                    os.remove("place")
                words = ["strace", "-qq", "-o", "trace", "-P", "spool", "-P", f"{self.directory}/spool", "-P", "place", "-P", "place.new",
                         *(word for number in range(1, 6) for word in ("-P", f"{self.directory}/spool/qdul-{number:012d}.json.part")),
                         f"--inject={call}:signal=KILL:when={when}"]
                done = subprocess.run(words + self.words("--spool-size=150"), env=self.environment, capture_output=True)
                if done.returncode == 0:
                    break
                self.assertIn(done.returncode, (-signal.SIGKILL, 128 + signal.SIGKILL), done.stderr)
                points += 1
                self.spool("--spool-size=150", status=0 if self.left() else 1, err=None)
                self.assertEqual(self.ids(), list(range(1, 41)), (call, when))
        self.assertGreater(points, 20)

    def left(self):
        """Whether the cursor is not at the end yet."""
        size = os.path.getsize("log/" + name(0))
        return not os.path.exists("place") or f"@{size}" not in read("place").rpartition("\n")[0]

    def test_killed_at_random_behind_a_writer_that_rolls_over_and_recycles_nothing_is_lost_or_doubled(self):
        with open("zoltlog.conf", "w") as file:
            file.write(f"5.Configuration={self.directory}/server.conf\n5.Names=server\n")
        with open("server.conf", "w") as file:
            file.write(f"Default.LogDirectory={self.directory}/log/\nDefault.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=4\n"
                       "Default.LogRecycle=true\nDefault.NumberOfLogFiles=30\n")
        logger = subprocess.Popen([program("qdlogger"), "--config=zoltlog.conf", "-P", "server", "-u", "7"],
                                  stdin=subprocess.PIPE, env=self.environment)
        chance = random.Random(KILLS)
        count = 0

        def write_some():  # never so much ahead that what is not read is recycled
            nonlocal count
            if count - sum(int(PUBLISHED.match(file).group(2)) for file in os.listdir("spool") if PUBLISHED.match(file)) > 600:
                return
            for _ in range(20):
                logger.stdin.write(b"message number %06d of a long row of messages\n" % count)
                count += 1
            logger.stdin.flush()

        words = [QDLOGVIEW, "-f", "--spool=spool", "--cursor-file=place", "--spool-size=8K", "--spool-age=5ms", "-o", "json",
                 "--fields=text", "log"]
        kills = 0
        start = time.monotonic()
        while kills < KILLS or (count < 2000 and time.monotonic() - start < 120):
            kills += 1
            process = subprocess.Popen(words, env=self.environment, stderr=subprocess.PIPE)
            end = time.monotonic() + chance.uniform(0.002, 0.06)
            while time.monotonic() < end:
                write_some()
                time.sleep(0.003)
            process.kill()
            process.wait()
            self.assertEqual(process.stderr.read(), b"")
            process.stderr.close()
        logger.stdin.close()
        self.assertEqual(logger.wait(), 0)
        done = subprocess.run(words + ["--timeout=300ms"], env=self.environment, capture_output=True, text=True)
        self.assertEqual((done.returncode in (0, 1), done.stderr.replace("qdlogview: no record matches", "")[:1]), (True, ""))
        texts = [json.loads(line)["text"] for file in self.files() for line in read("spool/" + file).splitlines()]
        self.assertEqual(texts, [f"message number {number:06d} of a long row of messages" for number in range(count)])
        logs = sorted(file for file in os.listdir("log") if file.endswith(".log"))
        self.assertLessEqual(len(logs), 31)
        self.assertGreater(int(logs[-1][-14:-4]), 40)  # files were recycled

    def test_files_that_went_unread_are_told(self):
        append("log/" + name(0), HEADER, record(1))
        self.spool()
        append("log/" + name(3), HEADER, record(2))
        self.spool(err=f"qdlogview: {self.directory}/log/{name(3)}: files before it were gone before they were read\n")
        append("log/" + name(4), HEADER, record(3))
        self.spool()

    # ---- the cursor ---------------------------------------------------------------

    def test_the_cursor_costs_what_changed(self):
        series = 500
        for number in range(series):
            append(f"log/5-{number + 1}-1-240301-0000000000.log", b"$Header 65543,5,%d,1709300702,0,hostA\n" % (number + 1),
                   b"2,5,%d,7,1,%d,42,43,0:,1:x,3:mgr,0,(0|)\n" % (number + 1, T0))
        process = subprocess.Popen(self.words("-f", "--spool-age=1ms"), env=self.environment)

        def wait_for(count):
            end = time.monotonic() + 30
            while time.monotonic() < end:
                files = [file for file in os.listdir("spool") if file.endswith(".json")]
                if sum(int(PUBLISHED.fullmatch(file).group(2)) for file in files) == count:
                    return
                time.sleep(0.02)
            self.fail("not published")

        wait_for(series)
        whole = os.path.getsize("place")
        for more in range(1, 11):
            append("log/5-1-1-240301-0000000000.log", b"2,5,1,7,2,%d,42,43,0:,1:y,3:mgr,0,(0|)\n" % (T0 + more))
            wait_for(series + more)
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        self.assertLess(os.path.getsize("place") - whole, 10 * 250)
        self.spool(status=1, err=None)
        self.assertEqual(len(self.ids()), series + 10)

    def test_usage(self):
        for words in (["-n3"], ["-r"], ["--count"], ["--show-cursor"], ["-g", "x", "-A1"], ["--spool-size=0"], ["--spool-size=x"],
                      ["--spool-size=2K", "--spool-keep=3K"], ["--spool-age=x"]):
            self.spool(*words, status=2, err=None)
        for words in (["--spool=spool"], ["--spool-size=1K"], ["--spool-keep=1G"]):
            done = subprocess.run([QDLOGVIEW, *words, "log"], capture_output=True, env=self.environment)
            self.assertEqual(done.returncode, 2)
        os.rmdir("spool")
        self.spool(status=3, err="qdlogview: spool/: No such file or directory\n")


if __name__ == "__main__":
    unittest.main()
