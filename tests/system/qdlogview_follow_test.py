#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogview -f: behind a writer, over rollovers, stopped and resumed; round trip with the library."""
import json
import os
import select
import signal
import subprocess
import time
import unittest

from qdul_testing import HERE, append, plain_environment, program

QDLOGVIEW = program("qdlogview")
QDLOGGER = program("qdlogger")
T0 = 1709300702000


def record(id, text=b"text", time=None):
    return b"2,5,7,7,%d,%d,42,43,0:,%d:%s,3:mgr,0,(0|)\n" % (id, T0 + id if time is None else time, len(text), text)


def name(counter):
    return f"5-7-16777343-240301-{counter:010d}.log"


HEADER = b"$Header 65543,5,7,1709300702,0,hostA\n"


class Follower:
    """A running qdlogview whose lines are read one by one."""

    def __init__(self, environment, *words):
        self.process = subprocess.Popen([QDLOGVIEW, "-f", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=environment)
        os.set_blocking(self.process.stdout.fileno(), False)
        self.rest = b""
        self.lines = []

    def read(self, timeout):
        """Takes what comes within the timeout; true when something came."""
        if not select.select([self.process.stdout], [], [], timeout)[0]:
            return False
        block = self.process.stdout.read()
        if not block:
            return False
        self.rest += block
        *lines, self.rest = self.rest.split(b"\n")
        self.lines += [line.decode() for line in lines]
        return True

    def wait_for(self, count, timeout=20):
        end = time.monotonic() + timeout
        while len(self.lines) < count and time.monotonic() < end:
            self.read(max(0, end - time.monotonic()))
        return self.lines

    def stop(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        self.process.wait()
        while self.read(0):
            pass
        self.errors = self.process.stderr.read().decode()
        self.process.stdout.close()
        self.process.stderr.close()
        return self.lines


class Follow(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        os.mkdir(self.directory)
        os.chdir(self.directory)
        self.environment = plain_environment()
        self.followers = []

    def tearDown(self):
        for follower in self.followers:
            if follower.process.poll() is None:
                follower.process.kill()
                follower.process.wait()
                follower.process.stdout.close()
                follower.process.stderr.close()

    def follow(self, *words):
        follower = Follower(self.environment, "--template={msgid}", *words)
        self.followers.append(follower)
        return follower

    def texts(self, *words):
        follower = Follower(self.environment, "--template={text}", *words)
        self.followers.append(follower)
        return follower

    def expect_in_time(self, follower, write_one, count):
        """Every one of `count` lines is shown within 0.2 s. A busy machine may stop all of us for a moment, so there
        are some attempts; who looks too seldom is late in each of them."""
        for _ in range(4):
            delays = []
            for _ in range(count):
                time.sleep(0.007)
                start = time.monotonic()
                write_one()
                have = len(follower.lines)
                follower.wait_for(have + 1)
                self.assertEqual(len(follower.lines), have + 1)
                delays.append(time.monotonic() - start)
            if max(delays) < 0.2:
                return
        self.fail(f"late: {sorted(delays)[-5:]}")

    # ---- files by hand -------------------------------------------------------------

    def test_new_records_appear_at_once(self):
        append(name(0), HEADER, record(1))
        follower = self.follow(".")
        self.assertEqual(follower.wait_for(1), ["1"])
        id = 1

        def write_one():
            nonlocal id
            id += 1
            append(name(0), record(id))

        self.expect_in_time(follower, write_one, 20)
        self.assertEqual(follower.stop(), [str(each) for each in range(1, id + 1)])

    def test_it_begins_with_the_last_ten(self):
        append(name(0), HEADER, *[record(id) for id in range(1, 31)])
        follower = self.follow(".")
        self.assertEqual(follower.wait_for(10), [str(id) for id in range(21, 31)])
        append(name(0), record(31))
        self.assertEqual(follower.wait_for(11)[10], "31")
        follower = self.follow("-n", "2", ".")
        self.assertEqual(follower.wait_for(2), ["30", "31"])
        follower = self.follow("-n", "0", name(0))
        id = 31
        while not follower.lines and id < 300:  # it may not have begun when the first ones are written
            id += 1
            append(name(0), record(id))
            follower.read(0.1)
        first = int(follower.wait_for(1)[0])
        self.assertGreater(first, 31)
        self.assertEqual(follower.wait_for(id - first + 1), [str(each) for each in range(first, id + 1)])
        follower = self.follow("-n", "all", name(0))
        self.assertEqual(len(follower.wait_for(id)), id)
        follower = self.follow("-S", "2024-03-01", name(0))
        self.assertEqual(len(follower.wait_for(id)), id)

    def test_records_that_are_not_whole_wait(self):
        append(name(0), HEADER, record(1))
        follower = self.follow(".")
        follower.wait_for(1)
        append(name(0), record(2)[:30])
        time.sleep(0.3)
        follower.read(0)
        self.assertEqual(follower.lines, ["1"])
        append(name(0), record(2)[30:])
        self.assertEqual(follower.wait_for(2), ["1", "2"])

    def test_filters_and_limits_hold_while_following(self):
        append(name(0), HEADER)
        follower = self.texts("-n", "all", "-g", "yes", "-m", "2", ".")
        append(name(0), record(1, b"no"), record(2, b"yes 1"), record(3, b"no"), record(4, b"yes 2"), record(5, b"yes 3"))
        self.assertEqual(follower.wait_for(2), ["yes 1", "yes 2"])
        self.assertEqual(follower.process.wait(10), 0)
        follower.stop()

    def test_following_can_end_by_itself(self):
        append(name(0), HEADER, record(1))
        start = time.monotonic()
        done = subprocess.run([QDLOGVIEW, "-f", "--timeout", "300ms", "--template={msgid}", "."], capture_output=True,
                              env=self.environment, timeout=60)
        self.assertEqual((done.stdout, done.returncode), (b"1\n", 0))
        self.assertGreater(time.monotonic() - start, 0.29)
        done = subprocess.run([QDLOGVIEW, "-f", "--timeout", "100ms", "-g", "nothing", "."], capture_output=True,
                              env=self.environment, timeout=60)
        self.assertEqual((done.stdout, done.returncode), (b"", 1))

    def test_a_named_file_is_followed_into_the_next_of_its_series(self):
        append(name(3), HEADER, record(1))
        append(name(2), HEADER, record(90))
        append("5-8-16777343-240301-0000000004.log", HEADER, record(91))
        follower = self.follow(name(3))
        self.assertEqual(follower.wait_for(1), ["1"])
        append(name(4), HEADER, record(2))
        append("5-8-16777343-240301-0000000005.log", HEADER, record(92))
        append("5-7-16777343-240302-0000000000.log", HEADER, record(3))
        self.assertEqual(follower.wait_for(3), ["1", "2", "3"])
        time.sleep(0.3)
        self.assertEqual(follower.stop(), ["1", "2", "3"])

    def test_a_removed_file_is_read_to_its_end(self):
        append(name(0), HEADER, record(1))
        follower = self.follow(".")
        follower.wait_for(1)
        with open(name(0), "ab", buffering=0) as file:
            os.unlink(name(0))
            file.write(record(2))
            append(name(1), HEADER, record(3))
            self.assertEqual(follower.wait_for(3), ["1", "2", "3"])

    def test_a_file_that_is_cut_is_read_anew(self):
        append(name(0), HEADER, *[record(id) for id in range(1, 6)])
        follower = self.follow(".")
        follower.wait_for(5)
        os.truncate(name(0), 0)
        append(name(0), HEADER, record(6))
        self.assertEqual(follower.wait_for(6)[5], "6")
        follower.stop()
        self.assertIn("was cut or replaced", follower.errors)

    def test_old_files_that_grow_are_noticed(self):
        for counter in range(8):
            append(name(counter), HEADER, record(counter))
        follower = self.follow("-n", "all", ".")
        follower.wait_for(8)
        append(name(0), record(100))
        self.assertEqual(follower.wait_for(9)[8], "100")

    def test_a_reader_that_leaves_ends_it(self):
        append(name(0), HEADER, record(1))
        process = subprocess.Popen([QDLOGVIEW, "-f", "."], stdout=subprocess.PIPE, env=self.environment)
        process.stdout.readline()
        process.stdout.close()
        self.assertEqual(process.wait(10), -signal.SIGPIPE)

    # ---- behind the library --------------------------------------------------------

    def configure(self, *settings):
        with open("zoltlog.conf", "w") as file:
            file.write(f"5.Configuration={self.directory}/server.conf\n5.Names=server\n")
        with open("server.conf", "w") as file:
            file.write(f"Default.LogDirectory={self.directory}/log/\nDefault.DebugLevel=6\nDefault.DiagnosticLevel=6\n"
                       f"LOGSET.Default.LogDirectory={self.directory}/log/\nLOGSET.jobs.FileName=nightly\n")
            file.write("".join(line + "\n" for line in settings))
        os.makedirs("log", exist_ok=True)

    def logger(self, *words):
        return subprocess.Popen([QDLOGGER, "--config=zoltlog.conf", "-P", "server", "-u", "7", *words],
                                stdin=subprocess.PIPE, env=self.environment)

    def files(self):
        return sorted(file for file in os.listdir("log") if file.endswith(".log"))

    def test_over_many_rollovers_nothing_is_lost_or_doubled(self):
        self.configure("Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=4")
        follower = self.texts("-n", "all", "log")
        logger = self.logger()
        count = 1200
        for number in range(count):
            logger.stdin.write(b"message number %06d of a long row of messages\n" % number)
            if number % 20 == 0:
                logger.stdin.flush()
                time.sleep(0.002)
        logger.stdin.close()
        self.assertEqual(logger.wait(), 0)
        follower.wait_for(count)
        time.sleep(0.2)
        self.assertEqual(follower.stop(), [f"message number {number:06d} of a long row of messages" for number in range(count)])
        self.assertGreater(len(self.files()), 20)

    def test_each_line_comes_in_time_also_over_rollovers(self):
        self.configure("Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=4")
        logger = self.logger()
        follower = self.texts("log")
        count = 0

        def write_one():  # three to a file
            nonlocal count
            logger.stdin.write(b"%06d %s\n" % (count, b"x" * 1200))
            logger.stdin.flush()
            count += 1

        write_one()
        follower.wait_for(1)
        self.expect_in_time(follower, write_one, 63)
        logger.stdin.close()
        self.assertEqual(logger.wait(), 0)
        self.assertEqual([line[:6] for line in follower.stop()], [f"{number:06d}" for number in range(count)])
        self.assertGreater(len(self.files()), 20)

    def test_stopped_and_resumed_by_cursor_nothing_is_lost_or_doubled(self):
        self.configure("Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=4")
        logger = self.logger()
        seen = []
        count = 0
        for round in range(6):
            follower = self.texts("--cursor-file=place", "log")
            self.assertIsNone(follower.process.poll())
            for _ in range(200):
                logger.stdin.write(b"message number %06d of a long row of messages\n" % count)
                count += 1
            logger.stdin.flush()
            if round % 2 == 0:
                follower.wait_for(100)  # stopped somewhere within
            else:
                follower.wait_for(count - len(seen))
            seen += follower.stop(signal.SIGINT if round % 3 == 0 else signal.SIGTERM)
            self.assertEqual(follower.process.returncode, 0, follower.errors)
        logger.stdin.close()
        self.assertEqual(logger.wait(), 0)
        done = subprocess.run([QDLOGVIEW, "--cursor-file=place", "--template={text}", "log"], capture_output=True,
                              env=self.environment)
        seen += done.stdout.decode().split("\n")[:-1]
        self.assertEqual(seen, [f"message number {number:06d} of a long row of messages" for number in range(count)])
        self.assertGreater(len(self.files()), 20)

    def test_what_the_library_writes_is_shown(self):
        self.configure()
        for words, text in [
            (["-p", "error", "-t", "disk"], "one, with a comma"),
            (["-k", "diag", "-l", "2"], "two: ä€"),
            (["-k", "debug", "-l", "5"], "three"),
            (["-L", "jobs"], "four"),
        ]:
            logger = subprocess.run([QDLOGGER, "--config=zoltlog.conf", "-P", "server", "-u", "7", "--utf8", *words, text],
                                    env=self.environment)
            self.assertEqual(logger.returncode, 0)
        done = subprocess.run([QDLOGVIEW, "--config=zoltlog.conf", "-P", "server", "-o", "json"], capture_output=True,
                              env=self.environment)
        rows = [json.loads(line) for line in done.stdout.decode().splitlines()]
        self.assertEqual([row["text"] for row in rows], ["one, with a comma", "two: ä€", "three", "four"])
        self.assertEqual((rows[0]["severity_text"], rows[0]["who"]), ("error", "disk"))
        self.assertEqual((rows[1]["kind"], rows[1]["level"]), ("diagnostic", 2))
        self.assertEqual((rows[2]["kind"], rows[2]["level"]), ("debug", 5))
        self.assertEqual((rows[3]["logset"], rows[3]["product"], rows[3]["originator"]), ("nightly", 5, 7))
        for row in rows:
            self.assertLess(abs(row["ts"] / 1000 - time.time()), 100)
        done = subprocess.run([QDLOGVIEW, "--verify", "log"], capture_output=True, env=self.environment)
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
