#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogmgr rotate while programs write to the series: each record is there once, in the order of its writer,
and nothing is written to a file that was ended. ROTATE_TIMES is how often each series is rotated."""
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import threading
import time
import unittest

from qdul_testing import HERE, plain_environment, program, read, write

TIMES = int(os.environ.get("ROTATE_TIMES", "4"))
USER = 65534
ENVIRONMENT = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf")
FORMS = {"originator": ["-u", "7"], "logset": ["-L", "jobs"]}


def rotate(*words, **more):
    return subprocess.run([program("qdlogmgr"), "rotate", "-P", "5", *words], capture_output=True, text=True, **{"env": ENVIRONMENT, **more})


def texts(path):
    """The texts of a file's records."""
    with open(path, "rb") as file:
        lines = file.read().split(b"\n")
    assert lines[0].startswith(b"$Header ") and lines[-1] == b"", path
    return [line.split(b"0:,", 1)[1].split(b":", 1)[1].split(b",")[0].decode() for line in lines[1:-1]]


class Sender(threading.Thread):
    """A process that sends numbered messages, with pauses of a length."""

    def __init__(self, tag, pause, words, prefix=()):
        super().__init__()
        self.tag, self.pause, self.sent, self.over = tag, pause, 0, threading.Event()
        self.process = subprocess.Popen([*prefix, program("qdlogger"), "-P", "5", *words], stdin=subprocess.PIPE, stderr=subprocess.PIPE, env=ENVIRONMENT, bufsize=0)
        self.start()

    def run(self):
        while not self.over.is_set():
            self.process.stdin.write(f"{self.tag} {self.sent}\n".encode())
            self.sent += 1
            self.over.wait(self.pause)
        self.process.stdin.write(f"{self.tag} {self.sent}\n".encode())
        self.sent += 1
        self.process.stdin.close()

    def end(self):
        self.over.set()
        self.join()
        complaints = self.process.stderr.read()
        self.process.stderr.close()
        return self.process.wait(), complaints


class Rotate(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        for name in ("logs", "spool"):
            shutil.rmtree(name, ignore_errors=True)
        os.mkdir("spool")
        if os.path.exists("place"):
            os.remove("place")
        self.configure()

    def configure(self, *settings):
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("server.conf", f"Default.LogDirectory={HERE}/logs/\nLOGSET.Default.LogDirectory={HERE}/logs/\nLOGSET.jobs.FileName=jobs\n"
              + "".join(f"{section}.{line}\n" for section in ("Default", "LOGSET.Default") for line in settings))

    def files(self):
        return sorted(f"logs/{name}" for name in os.listdir("logs"))

    def check_all_once(self, senders):
        """In files, and in the order of each sender."""
        for sender in senders:
            self.assertEqual(sender.end(), (0, b""))
        found = [text for path in self.files() for text in texts(path)]
        for sender in senders:
            self.assertEqual([text for text in found if text.startswith(sender.tag + " ")], [f"{sender.tag} {n}" for n in range(sender.sent)])
        self.assertEqual(len(found), sum(sender.sent for sender in senders))

    def test_live_writers_go_on_in_the_new_file_and_readers_with_them(self):
        for form, words in FORMS.items():
            with self.subTest(form):
                self.setUp()
                pauses = {"fast": 0.0005, "second": 0.003, "slow": 1.3, "idle": 3600}
                senders = [Sender(tag, pause, words) for tag, pause in pauses.items()]
                follower = subprocess.Popen([program("qdlogview"), "-q", "-P", "5", "--spool=spool", "--cursor-file=place", "-f", "-o", "json", "--spool-size=64K"], env=ENVIRONMENT)
                ended = {}
                for turn in range(TIMES):
                    time.sleep(1.1)
                    before = self.files()
                    done = rotate()
                    self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
                    self.assertEqual(self.files()[:-1], before, turn)
                    ended[before[-1]] = os.path.getsize(before[-1])
                time.sleep(1)
                self.check_all_once(senders)
                self.assertEqual({path: os.path.getsize(path) for path in ended}, ended)
                self.assertEqual(len(self.files()), TIMES + 1)
                follower.terminate()
                follower.wait(60)
                done = subprocess.run([program("qdlogview"), "-q", "-P", "5", "--spool=spool", "--cursor-file=place", "-o", "json"], env=ENVIRONMENT)
                self.assertIn(done.returncode, (0, 1))
                spooled = [json.loads(line)["text"] for name in os.listdir("spool") for line in read(f"spool/{name}").splitlines()]
                self.assertEqual(sorted(spooled), sorted(text for path in self.files() for text in texts(path)))

    def test_killed_and_competing_rotations_lose_nothing(self):
        """Beside rollovers of the programs themselves, with recycling off."""
        chance = random.Random(7)
        for form, words in FORMS.items():
            with self.subTest(form):
                self.setUp()
                self.configure("RolloverMode=FileSize", "MaxLogFileSizeKB=64")
                senders = [Sender(tag, 0.0005, words) for tag in ("one", "two", "three")]
                for _ in range(TIMES * 5):
                    several = [subprocess.Popen([program("qdlogmgr"), "rotate", "-P", "5"], env=ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                               for _ in range(3)]
                    time.sleep(chance.uniform(0, 0.1))
                    for process in several:
                        process.send_signal(signal.SIGKILL)
                        process.wait()
                done = rotate()
                self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
                self.check_all_once(senders)
                self.assertEqual([name for name in os.listdir("logs") if not name.startswith("5-")], [])

    def test_a_recycling_series_keeps_its_number_of_files(self):
        self.configure("LogRecycle=true", "NumberOfLogFiles=3")
        sender = Sender("one", 0.001, ["-u", "7"])
        for _ in range(TIMES + 2):
            time.sleep(0.1)
            self.assertEqual(rotate().returncode, 0)
        sender.end()
        self.assertEqual(len(self.files()), 3)

    @unittest.skipUnless(os.geteuid() == 0, "needs two users")
    def test_the_new_file_is_the_programs_not_the_administrators(self):
        os.chmod(HERE, 0o755)
        os.mkdir("logs")
        os.chown("logs", USER, USER)
        as_user = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--"]
        sender = Sender("one", 0.01, ["-u", "7"], as_user)
        time.sleep(0.3)
        other = subprocess.run(["setpriv", "--reuid=65533", f"--regid={USER}", "--clear-groups", "--", program("qdlogmgr"), "rotate", "-P", "5"],
                               capture_output=True, text=True, env=ENVIRONMENT)
        self.assertEqual((other.returncode, "only its owner may end it" in other.stderr, len(self.files())), (4, True, 1))
        done = rotate()
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        found = [os.stat(path) for path in self.files()]
        self.assertEqual([(each.st_uid, each.st_gid, each.st_mode & 0o7777) for each in found], [(USER, USER, 0o1660), (USER, USER, 0o660)])
        self.check_all_once([sender])


if __name__ == "__main__":
    unittest.main()
