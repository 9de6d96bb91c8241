#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogview on files made byte by byte: selection, order, output, reports, exit codes."""
import csv
import io
import json
import os
import pty
import pty
import resource
import subprocess
import time
import unittest

from qdul_testing import HERE, plain_environment, program, string

QDLOGVIEW = program("qdlogview")
T0 = 1709300702000  # 2024-03-01 13:45:02 UTC


def record(id, time=None, kind=2, number=0, text=b"text", who=b"mgr", context=b"", pid=42, tid=43, product=5,
           originator=7, file_originator=7, block=b"(0|)", version=65543):
    time = T0 + id * 1000 if time is None else time
    if version == 65543:
        head = b"%d,%d,%d,%d,%d,%d,%d,%d," % (kind, product, originator, file_originator, id, time, pid, tid)
    elif version == 65544:
        head = b"%d,%d,%d,%d,%d,%d," % (kind, originator, id, time, pid, tid)
    else:
        head = b""
    line = head + string(context) + string(text)
    if not (version <= 65541 and kind == 2):
        line += string(who)
    if kind != 3:
        line += b"%d," % number
    if kind != 0:
        line += block
    else:
        line = line[:-1]
    return line + b"\n"


def header(product=5, originator=7, created=T0 // 1000, offset=-7200, host=b"hostA"):
    return b"$Header 65543,%d,%d,%d,%d,%s\n" % (product, originator, created, offset, host)


def name(counter=0, product=5, originator=7, day="240301"):
    return f"{product}-{originator}-16777343-{day}-{counter:010d}.log"


def write(path, *lines):
    with open(path, "wb") as file:
        file.write(b"".join(lines))
    return path


def rfc3339(milliseconds):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(milliseconds // 1000)) + f".{milliseconds % 1000:03d}Z"


class View(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = os.path.join(HERE, self._testMethodName)
        os.mkdir(self.directory)
        os.chdir(self.directory)
        self.environment = plain_environment()

    def view(self, *words, status=0, stdin=b""):
        done = subprocess.run([QDLOGVIEW, *map(str, words)], input=stdin, capture_output=True, env=self.environment)
        self.assertEqual(done.returncode, status, (words, done.stdout[:2000], done.stderr))
        self.errors = done.stderr.decode()
        return done.stdout.decode("utf-8", "surrogateescape")

    def ids(self, *words, status=0, **more):
        """Message ids of the records that are shown."""
        out = self.view("--template={msgid}", *words, status=status, **more)
        return [int(line) for line in out.split()]

    def example(self):
        """One record of each kind and more, ids 1 to 9."""
        return write(name(), header(),
                     record(1, kind=2, number=0, text=b"started"),
                     record(2, kind=2, number=2, text=b"Disk full, 2 of 3", who=b"store", pid=50),
                     record(3, kind=1, number=3, text=b"cache miss", context=b"job-1"),
                     record(4, kind=0, number=6, text=b"x=1,y=2:z", who=b"net", tid=99),
                     record(5, kind=3, text=b"context begins", who=b"job-1"),
                     record(6, kind=4, number=1, text=b"login refused", who=b"alice"),
                     record(7, kind=2, number=4, text=b"disk gone", who=b"store", context=b"job-2"),
                     record(8, kind=2, number=1, text=b"disk slow", originator=9),
                     record(9, kind=4, number=0, text=b"login", who=b"bob"))

    # ---- selection -----------------------------------------------------------------

    def test_each_condition_selects_its_records(self):
        self.example()
        for words, expected in [
            ([], [1, 2, 3, 4, 5, 6, 7, 8, 9]),
            (["-p", "error"], [2, 7]),
            (["--priority=info"], [1, 2, 5, 6, 7, 8, 9]),
            (["--severity=context"], [1, 2, 5, 6, 7, 8, 9]),
            (["-p", "audit"], [2, 6, 7, 8, 9]),
            (["-p", "diag"], [1, 2, 3, 5, 6, 7, 8, 9]),
            (["-p", "debug"], [1, 2, 3, 4, 5, 6, 7, 8, 9]),
            (["-p", "warning..error"], [2, 8]),
            (["-p", "debug..diagnostic"], [3, 4]),
            (["-p", "3"], [7]),
            (["-p", "70"], [7]),
            (["-l", "3"], [3]),
            (["--level=6"], [3, 4]),
            (["-l", "4..6"], [4]),
            (["-p", "emergency", "-l", "3"], [3, 7]),
            (["-k", "audit"], [6, 9]),
            (["--kind", "debug,diag"], [3, 4]),
            (["-k", "context"], [5]),
            (["-t", "store"], [2, 7]),
            (["--who", "st*"], [2, 7]),
            (["-t", "store", "-t", "net"], [2, 4, 7]),
            (["-t", "nobody*"], []),
            (["-c", "job-1"], [3, 5]),
            (["--context", "job-?"], [3, 5, 7]),
            (["--pid", "50"], [2]),
            (["--pid", "43..60"], [2]),
            (["--tid", "99"], [4]),
            (["--message-id", "2..4,9"], [2, 3, 4, 9]),
            (["--message-id", "..2"], [1, 2]),
            (["--message-id", "8.."], [8, 9]),
            (["--subject", "alice"], [6]),
            (["--subject", "*"], [6, 9]),
            (["--outcome", "1"], [6]),
            (["--outcome", "0"], [9]),
            (["-u", "9"], [8]),
            (["--originator", "7"], [1, 2, 3, 4, 5, 6, 7, 9]),
            (["--host", "hostA"], [1, 2, 3, 4, 5, 6, 7, 8, 9]),
            (["--host", "hostB"], []),
            (["-P", "5"], [1, 2, 3, 4, 5, 6, 7, 8, 9]),
            (["-P", "6"], []),
            (["-g", "disk"], [7, 8]),
            (["-g", "disk", "-i"], [2, 7, 8]),
            (["-g", "^disk (gone|slow)$"], [7, 8]),
            (["-g", "disk", "-v"], [1, 2, 3, 4, 5, 6, 9]),
            (["-g", "disk", "-i", "-p", "error"], [2, 7]),
            (["-g", "2 of 3"], [2]),
        ]:
            with self.subTest(words=words):
                self.assertEqual(self.ids(*words, ".", status=0 if expected else 1), expected)

    def test_queries_select_over_all_fields(self):
        self.example()
        for query, expected in [
            ('severity >= 2 and (who = "mgr" or text ~ "disk")', [7]),
            ("severity >= error", [2, 7]),
            ("sev = emergency", [7]),
            ("severity_text = info", [1]),
            ("severity_text in (context, warn)", [5, 8]),
            ("severity_text > audit", [2, 7, 8]),
            ("severity < 30", [3, 4]),
            ("severity = info", [1, 5]),
            ("kind = audit and outcome != 0", [6]),
            ("not kind = audit and not kind = app", [3, 4, 5]),
            ("!(pid = 42)", [2]),
            ("who in (store, net)", [2, 4, 7]),
            ("level", [3, 4]),
            ("not context", [1, 2, 4, 5, 6, 8, 9]),
            ("subject = alice || title = 'job-1'", [5, 6]),
            ("msgid > 2 && msgid <= 4", [3, 4]),
            ("msgid < 2 or msgid >= 9", [1, 9]),
            ("msgid <> 5 and type = 3", []),
            ("text !~ 'i' and text !~ '[a-e]'", [4]),
            ("originator = 9", [8]),
            ("file_originator = 7 and product = 5 and host = hostA", [1, 2, 3, 4, 5, 6, 7, 8, 9]),
            ("product = 6", []),
            ("product != 5 or msgid = 3", [3]),
            ("host = hostB", []),
            ("logset = x", []),
            ("time >= '2024-03-01 13:45:09'", [7, 8, 9]),
            ("time < '2024-03-01 13:45:04'", [1]),
            (f"ts = {T0 + 3000}", [3]),
            ("thread = 99", [4]),
            ("who < n and who > a", [1, 3, 8]),
            ('text = "x=1,y=2:z"', [4]),
        ]:
            with self.subTest(query=query):
                self.assertEqual(self.ids("-w", query, ".", status=0 if expected else 1), expected)

    def test_wrong_queries_say_where(self):
        self.example()
        for query, text in [
            ("", "a field is missing at character 1"),
            ("nothing = 1", "'nothing' is not a field at character 1"),
            ("pid = x", "'x' is not a number at character 7"),
            ("pid = ", "a value is expected at character 7"),
            ("pid = 1 tid = 2", "'and', 'or' or the end is expected at character 9"),
            ("(pid = 1", "')' is missing at character 9"),
            ("pid ~ 1", "'~' needs a field that is a text at character 7"),
            ("text ~ '('", "the pattern '(' at character 1"),
            ("who = 'x", "a quote is missing at character 7"),
            ("kind = nonsense", "'nonsense' is not a kind"),
            ("severity = bad", "'bad' is not a number"),
            ("(" * 300 + "pid = 1" + ")" * 300, "too many levels"),
        ]:
            with self.subTest(query=query):
                if query == "":
                    continue  # an empty --where is none
                self.view("-w", query, ".", status=2)
                self.assertIn(text, self.errors)

    def test_times_select_records(self):
        self.example()
        day = "2024-03-01 "
        self.assertEqual(self.ids("-S", day + "13:45:08", "."), [6, 7, 8, 9])
        self.assertEqual(self.ids("-U", day + "13:45:04", "."), [1, 2])
        self.assertEqual(self.ids("-S", day + "13:45:04", "-U", day + "13:45:06", "."), [2, 3, 4])
        self.assertEqual(self.ids("-S", "2024-03-02", ".", status=1), [])
        self.assertEqual(self.ids("-S", "-1h", ".", status=1), [])
        self.assertEqual(self.ids("-S", "2024-03-01T14:45:10+01:00", "."), [8, 9])

    def test_times_are_in_the_zone_that_is_asked_for(self):
        self.example()
        self.environment["TZ"] = "CET-1"
        self.assertEqual(self.ids("-S", "2024-03-01 14:45:10", "."), [8, 9])
        self.assertEqual(self.ids("--utc", "-S", "2024-03-01 13:45:10", "."), [8, 9])
        line = self.view("-n1", ".")
        self.assertTrue(line.startswith("2024-03-01 14:45:11.000 "), line)
        line = self.view("-n1", "--utc", ".")
        self.assertTrue(line.startswith("2024-03-01 13:45:11.000 "), line)
        line = self.view("-n1", "--writer-time", ".")  # offset -7200: two hours east
        self.assertTrue(line.startswith("2024-03-01 15:45:11.000 "), line)

    def test_time_ranges_in_large_files_equal_a_scan(self):
        text = b"x" * 200
        for counter in range(3):
            write(name(counter), header(created=T0 // 1000 + counter * 4000),
                  *[record(id, text=text) for id in range(counter * 4000, (counter + 1) * 4000)])
        for since, until in [(0, 10), (3990, 4010), (5000, 5003), (11990, 13000), (2, 11990)]:
            words = ["-S", f"@{T0 // 1000 + since}", "-U", f"@{T0 // 1000 + until}"]
            expected = list(range(since, min(until, 11999) + 1))
            self.assertEqual(self.ids(*words, "."), expected)
            self.assertEqual(self.ids(*words, "--scan", "."), expected)
            self.assertEqual(self.ids(*words, "-r", "."), expected[::-1])
            self.assertEqual(self.view("--count", *words, "."), f"{len(expected)}\n")

    def test_files_whose_times_go_back_are_read_whole(self):
        text = b"x" * 400
        lines = [record(id, text=text) for id in range(2000)] + [record(id, text=text) for id in range(1000, 1500)]
        write(name(), header(), *lines)
        words = ["-S", f"@{T0 // 1000 + 1100}", "-U", f"@{T0 // 1000 + 1101}", "."]
        self.assertEqual(self.ids(*words), [1100, 1101, 1100, 1101])

    def test_log_sets_and_series_are_selected_by_name(self):
        self.example()
        write("5-backup-240301134502.log", b"$Header 65544,-7200,hostA\n", record(20, version=65544))
        write("6-backup-240301134502.log", b"$Header 65544,-7200,hostA\n", record(21, version=65544))
        write(name(0, originator=8), header(originator=8), record(30, file_originator=8, originator=8))
        self.assertEqual(self.ids("--logset", "backup", "."), [20, 21])
        self.assertEqual(self.ids("-L", "backup", "-P", "5", "."), [20])
        self.assertEqual(self.ids("--file-originator", "8", "."), [30])
        self.assertEqual(self.ids("-w", "logset = backup and product = 6", "."), [21])
        self.assertEqual(self.ids("-D", ".", "-P", "6"), [21])

    def test_old_versions_are_read(self):
        write("5-7-1-240301-0000000000.log", b"$Header 65541,5,7,1709300702,hostOld\n",
              record(1, version=65541, number=2, text=b"no who"), record(1, version=65541, kind=0, number=3))
        out = self.view("-o", "json", ".")
        first, second = map(json.loads, out.splitlines())
        self.assertEqual((first["kind"], first["text"], first["severity"]), ("application", "no who", 60))
        self.assertNotIn("ts", first)
        self.assertEqual((second["kind"], second["who"], second["level"]), ("debug", "mgr", 3))
        self.assertEqual(second["host"], "hostOld")
        self.assertEqual(self.view("-S", "2024-01-01", "--count", ".", status=1), "0\n")

    # ---- order and amount ----------------------------------------------------------

    def merged(self):
        """Two series whose records alternate, each over two files."""
        write(name(0), header(), record(1), record(3))
        write(name(1), header(created=T0 // 1000 + 5), record(5), record(7))
        write(name(0, originator=8), header(originator=8), record(2), record(4))
        write(name(1, originator=8), header(originator=8), record(6), record(8))

    def test_files_are_merged_in_the_order_of_time(self):
        self.merged()
        self.assertEqual(self.ids("."), [1, 2, 3, 4, 5, 6, 7, 8])
        self.assertEqual(self.ids("-r", "."), [8, 7, 6, 5, 4, 3, 2, 1])
        self.assertEqual(self.ids(*sorted(os.listdir("."), reverse=True)), [1, 2, 3, 4, 5, 6, 7, 8])

    def test_equal_times_keep_the_order_of_files_and_records(self):
        write(name(0), header(), record(1, time=T0), record(2, time=T0))
        write(name(1), header(), record(3, time=T0), record(4, time=T0))
        self.assertEqual(self.ids("."), [1, 2, 3, 4])
        self.assertEqual(self.ids("-r", "."), [4, 3, 2, 1])

    def test_more_files_than_may_be_open_at_once(self):
        for counter in range(300):  # copied together: their times of modification tell nothing
            write(name(counter), header(), record(2 * counter), record(2 * counter + 1))
        all = list(range(600))
        limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (40, 40))

        def ids(*words):
            done = subprocess.run([QDLOGVIEW, "--template={msgid}", *words, "."], capture_output=True,
                                  env=self.environment, preexec_fn=limit)
            self.assertEqual((done.returncode, done.stderr), (0, b""), words)
            return [int(line) for line in done.stdout.split()]

        self.assertEqual(ids(), all)
        self.assertEqual(ids("-r"), all[::-1])
        self.assertEqual(ids("-n", "100"), all[-100:])
        self.assertEqual(ids("-f", "-n", "3", "--timeout", "100ms"), all[-3:])
        self.assertEqual(ids("-f", "-n", "all", "--timeout", "100ms"), all)

    def test_last_and_first_records(self):
        self.merged()
        self.assertEqual(self.ids("-n", "3", "."), [6, 7, 8])
        self.assertEqual(self.ids("-n3", "-r", "."), [8, 7, 6])
        self.assertEqual(self.ids("-n", "all", "."), [1, 2, 3, 4, 5, 6, 7, 8])
        self.view("-n", "0", ".", status=2)
        self.assertIn("-n 0 shows nothing without -f", self.errors)
        self.assertEqual(self.ids("-m", "3", "."), [1, 2, 3])
        self.assertEqual(self.ids("-m2", "-r", "."), [8, 7])
        self.assertEqual(self.ids("-n", "4", "-m", "2", "."), [5, 6])
        self.assertEqual(self.ids("-n", "2", "-w", "msgid < 5", "."), [3, 4])

    def test_standard_input_is_a_file(self):
        text = header() + record(1) + record(2) + record(3)
        self.assertEqual(self.ids("-", stdin=text), [1, 2, 3])
        self.assertEqual(self.ids("-", "-n2", stdin=text), [2, 3])
        self.assertEqual(self.ids("-", "-r", stdin=text), [3, 2, 1])
        self.assertEqual(self.view("-", "--count", stdin=text), "3\n")
        self.assertIn("1 problem in 1 file", self.view("-", "--verify", stdin=text + b"rubbish\n", status=1))

    def test_neighbours_of_matches(self):
        write(name(), header(), *[record(id, text=b"hit" if id in (5, 6, 12) else b"other") for id in range(1, 16)])
        self.assertEqual(self.ids("-g", "hit", "-A", "1", "."), [5, 6, 7, 12, 13])
        self.assertEqual(self.ids("-g", "hit", "-B", "1", "."), [4, 5, 6, 11, 12])
        self.assertEqual(self.ids("-g", "hit", "-C", "2", "."), [3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14])
        self.assertEqual(self.ids("-g", "hit", "-C", "3", "."), list(range(2, 16)))
        out = self.view("-g", "hit", "-C", "1", ".")
        self.assertEqual([line.startswith("--") for line in out.splitlines()].count(True), 1)
        self.assertEqual(out.splitlines()[4], "--")
        self.assertEqual(self.ids("-g", "hit", "-C", "1", "-n", "1", "."), [11, 12, 13])
        self.assertEqual(self.ids("-g", "hit", "-A", "1", "-m", "1", "."), [5, 6])
        # neighbours are among the records that the other conditions leave
        self.assertEqual(self.ids("-g", "hit", "-B", "1", "-w", "msgid in (2, 5, 8, 12)", "."), [2, 5, 8, 12])

    # ---- output --------------------------------------------------------------------

    def test_short_lines(self):
        self.example()
        self.assertEqual(self.view(".").splitlines(), [
            "2024-03-01 13:45:03.000 info 5/7 mgr[42]: started",
            "2024-03-01 13:45:04.000 error 5/7 store[50]: Disk full, 2 of 3",
            "2024-03-01 13:45:05.000 diagnostic3 5/7 mgr[42] (job-1): cache miss",
            "2024-03-01 13:45:06.000 debug6 5/7 net[42]: x=1,y=2:z",
            "2024-03-01 13:45:07.000 context 5/7 job-1[42]: context begins",
            "2024-03-01 13:45:08.000 audit 5/7 alice[42]: login refused (outcome 1)",
            "2024-03-01 13:45:09.000 emergency 5/7 store[42] (job-2): disk gone",
            "2024-03-01 13:45:10.000 warning 5/9 mgr[42]: disk slow",
            "2024-03-01 13:45:11.000 audit 5/7 bob[42]: login (outcome 0)",
        ])

    def test_full_shows_every_field(self):
        self.example()
        path = os.path.join(self.directory, name())
        out = self.view("-o", "full", "--message-id", "3", "--utc", ".")
        offset = len(header()) + len(record(1, text=b"started")) + len(
            record(2, number=2, text=b"Disk full, 2 of 3", who=b"store", pid=50))
        self.assertEqual(out.splitlines(), [
            f"2024-03-01T13:45:05.000Z [{path}@{offset}]",
            f"    ts={T0 + 3000}", "    type=1", "    kind=diagnostic", "    product=5", "    originator=7",
            "    file_originator=7", "    msgid=3", "    pid=42", "    tid=43", "    context=job-1",
            "    text=cache miss", "    who=mgr", "    severity=20", "    severity_text=diagnostic", "    level=3",
            "    host=hostA"])
        out = self.view("-o", "full", "--fields=who,text", "--message-id", "3", ".")
        self.assertEqual(out.splitlines()[1:], ["    who=mgr", "    text=cache miss"])

    def test_json_has_one_object_per_record(self):
        self.example()
        rows = [json.loads(line) for line in self.view("-o", "json", ".").splitlines()]
        self.assertEqual(len(rows), 9)
        path = os.path.join(self.directory, name())
        self.assertEqual(rows[1], {
            "ts": T0 + 2000, "time": "2024-03-01T13:45:04.000Z", "type": 2, "kind": "application", "product": 5,
            "originator": 7, "file_originator": 7, "msgid": 2, "pid": 50, "tid": 43, "text": "Disk full, 2 of 3",
            "who": "store", "severity": 60, "severity_text": "error", "host": "hostA", "file": path,
            "offset": len(header()) + len(record(1, text=b"started"))})
        self.assertEqual((rows[5]["subject"], rows[5]["outcome"]), ("alice", 1))
        self.assertNotIn("who", rows[5])
        self.assertEqual(rows[4]["title"], "job-1")
        self.assertEqual(rows[2]["context"], "job-1")
        with open(name(), "rb") as file:
            file.seek(rows[3]["offset"])
            self.assertEqual(file.readline(), record(4, kind=0, number=6, text=b"x=1,y=2:z", who=b"net", tid=99))

    def test_json_keeps_every_byte(self):
        hard = bytes(range(1, 256)).replace(b"\n", b"")
        big = 2**64 - 1
        write(name(), header(), record(1, text=hard), record(2, text=b"a\rb", tid=big, block=b"(3|X1:q|)"),
              record(3, text="ä€😀\"\\".encode()))
        rows = [json.loads(line) for line in self.view("-o", "json", "--with-line", ".").splitlines()]
        self.assertEqual(bytes.fromhex(rows[0]["text_hex"]), hard)
        self.assertEqual(bytes.fromhex(rows[0]["line_hex"]), record(1, text=hard)[:-1])
        self.assertEqual(rows[1]["text"], "a\rb")
        self.assertEqual(rows[1]["text_lines"], "a\nb")
        self.assertEqual(rows[1]["tid"], big)
        self.assertEqual(rows[1]["block"], "(3|X1:q|)")
        self.assertEqual(rows[1]["line"].encode(), record(2, text=b"a\rb", tid=big, block=b"(3|X1:q|)")[:-1])
        self.assertEqual(rows[2]["text"], "ä€😀\"\\")
        row = json.loads(self.view("-o", "json", "--ids-as-text", "--message-id", "2", "."))
        self.assertEqual((row["tid"], row["msgid"], row["product"], row["pid"]), (str(big), "2", "5", "42"))
        self.assertEqual(row["ts"], T0 + 2000)
        row = json.loads(self.view("-o", "json", "--fields", "msgid,text", "-n1", "."))
        self.assertEqual(list(row), ["msgid", "text"])
        self.assertEqual(self.view("-o", "json", "--fields", "outcome", "-n1", "."), "{}\n")

    def test_csv_is_read_back_equal(self):
        texts = [b"plain", b'quote " and, comma', b"line\rbreak", b""]
        write(name(), header(), *[record(id, text=text) for id, text in enumerate(texts)])
        rows = list(csv.DictReader(io.StringIO(self.view("-o", "csv", "."), newline="")))
        self.assertEqual([row["text"].encode() for row in rows], texts)
        self.assertEqual(rows[0]["time"], "2024-03-01T13:45:02.000Z")
        self.assertEqual(rows[0]["level"], "")
        out = self.view("-o", "csv", "--fields=msgid,who", "-n1", ".")
        self.assertEqual(out, "msgid,who\r\n3,mgr\r\n")

    def test_texts_of_several_lines_are_shown_as_lines(self):
        write(name(), header(), record(1, text=b"one\rtwo\r\rfour\r", kind=4, who=b"bob"), record(2, text="gr\u00fc\u00dfe\rzwei".encode()))
        indentation = " " * len("2024-03-01 13:45:03.000 audit 5/7 bob[42]: ")
        short = self.view(".").splitlines()
        self.assertEqual(short[0][len(indentation):], "one")
        self.assertEqual(short[1:4], [indentation + "two", indentation, indentation + "four (outcome 0)"])
        self.assertEqual(short[5], " " * len("2024-03-01 13:45:03.000 info 5/7 mgr[42]: ") + "zwei")
        self.assertEqual(self.view("--color=always", "--message-id=2", ".").splitlines()[1], short[5])
        self.assertIn("    text=gr\u00fc\u00dfe\n         zwei\n", self.view("-o", "full", "--message-id=2", "."))
        self.assertEqual(self.view("--template={text}|{text_lines}", "--message-id=2", "."), "gr\u00fc\u00dfe\\rzwei|gr\u00fc\u00dfe\nzwei\n")
        rows = list(csv.reader(io.StringIO(self.view("-o", "csv", "--fields=text_lines,msgid", "."), newline="")))
        self.assertEqual(rows, [["text_lines", "msgid"], ["one\ntwo\n\nfour\n", "1"], ["gr\u00fc\u00dfe\nzwei", "2"]])
        row = json.loads(self.view("--json", "--fields=text_lines", "--message-id=2", "."))
        self.assertEqual(row, {"text_lines": "gr\u00fc\u00dfe\nzwei"})
        row = json.loads(self.view("--json", "--message-id=2", "."))
        self.assertEqual((row["text"], row["text_lines"]), ("gr\u00fc\u00dfe\rzwei", "gr\u00fc\u00dfe\nzwei"))

    def test_csv_is_utf8_whatever_the_texts_are(self):
        write(name(), header(), record(1, text=b"a\xffb", who=b"\xe4\xc3\xa4"))
        self.assertEqual(self.view("-o", "csv", "--fields=text,who", "."), "text,who\r\na\ufffdb,\ufffd\u00e4\r\n")

    def test_json_holds_nothing_that_steers_a_terminal(self):
        text = "a\u009b31m\u202eb\x7f\u2028"
        write(name(), header(), record(1, text=text.encode()))
        out = self.view("--json", ".")
        self.assertTrue(all(c == "\n" or " " <= c <= "~" for c in out), out)
        self.assertEqual(json.loads(out)["text"], text)

    def on_a_terminal(self, *words, **environment):
        """What a user sees who runs it on a terminal."""
        master, slave = pty.openpty()
        done = subprocess.run([QDLOGVIEW, *words], stdin=slave, stdout=slave, stderr=subprocess.PIPE,
                              env={**self.environment, "TERM": "xterm", **environment})
        os.close(slave)
        seen = b""
        try:
            while chunk := os.read(master, 65536):
                seen += chunk
        except OSError:  # the other end is closed
            pass
        os.close(master)
        self.assertEqual(done.returncode, 0, done.stderr)
        return seen.decode()

    def test_csv_on_a_terminal_is_escaped(self):
        write(name(), header(), record(1, text=b"a\x1b[31m"))
        self.assertIn("a\\e[31m\r", self.on_a_terminal("-o", "csv", "--fields=text", "--no-pager", "."))

    def test_a_pager_that_does_not_start_does_not_hide_the_output(self):
        self.example()
        for pager in ("/nowhere/pager", "'", "cat", "head -n 100"):
            self.assertIn("disk slow", self.on_a_terminal(".", PAGER=pager), pager)

    def test_the_cursor_that_is_shown_cannot_steer_a_terminal(self):
        path = write("a\u009bb\u202e.log", header(), record(1))
        line = self.view("--show-cursor", path).splitlines()[-1]
        self.assertIn("a%C2%9Bb%E2%80%AE.log@", line)
        self.assertEqual(self.ids("--after-cursor", line.split(": ")[1], path, status=1), [])

    def test_raw_output_is_a_log_file_again(self):
        self.merged()
        raw = subprocess.run([QDLOGVIEW, "-o", "raw", "."], capture_output=True, env=self.environment).stdout
        self.assertEqual(len(raw.splitlines()), 8 + raw.count(b"$Header"))
        write("again.log", raw)
        self.assertEqual(self.ids("again.log"), [1, 2, 3, 4, 5, 6, 7, 8])
        self.assertEqual(self.ids("again.log", "-r"), [8, 7, 6, 5, 4, 3, 2, 1])
        with open(name(0), "rb") as file:
            self.assertEqual(self.view("-o", "raw", name(0)).encode(), file.read())

    def test_templates(self):
        self.example()
        out = self.view("--template", r"{time}\t{who}:{{{text}}}{severity_text}", "--message-id=2,3", "--utc", ".")
        self.assertEqual(out, "2024-03-01T13:45:04.000Z\tstore:{Disk full, 2 of 3}error\n"
                              "2024-03-01T13:45:05.000Z\tmgr:{cache miss}diagnostic\n")
        self.view("--template={nothing}", ".", status=2)
        self.assertIn("'nothing' is not a field", self.errors)
        self.view("--template={text", ".", status=2)

    def test_control_characters_are_escaped(self):
        write(name(), header(), record(1, text=b"a\x1b[31m\r\xff\xe2\x80\xae", who=b"w\x07"))
        before = "2024-03-01 13:45:03.000 info 5/7 w\\x07[42]: "
        line = before + "a\\e[31m\n" + len(before) * " " + "\\xff\\u{202e}\n"
        self.assertTrue(self.view(".").endswith(line))
        out = subprocess.run([QDLOGVIEW, "--raw", "."], capture_output=True, env=self.environment).stdout
        self.assertTrue(out.endswith(b"info 5/7 w\x07[42]: a\x1b[31m\r\xff\xe2\x80\xae\n"), out)

    def test_colors(self):
        self.example()
        out = self.view("--color=always", "-g", "Disk", ".")
        self.assertIn("\033[31merror\033[0m", out)
        self.assertIn("\033[1;31mDisk\033[0m full", out)
        self.assertNotIn("\033", self.view("--color=never", "."))
        self.assertNotIn("\033", self.view("."))
        self.environment["CLICOLOR_FORCE"] = "1"
        self.assertIn("\033", self.view("."))
        for format in ("json", "csv", "raw"):
            self.assertNotIn("\033", self.view("--color=always", "-o", format, "."))
        self.environment["NO_COLOR"] = "1"
        self.assertNotIn("\033", self.view("."))

    def on_terminal(self, *words, **environment):
        master, slave = pty.openpty()
        process = subprocess.Popen([QDLOGVIEW, *words], stdout=slave, stderr=slave, stdin=subprocess.DEVNULL,
                                   env={**self.environment, **environment})
        os.close(slave)
        out = b""
        while True:
            try:
                block = os.read(master, 65536)
            except OSError:
                break
            if not block:
                break
            out += block
        os.close(master)
        return process.wait(), out

    def test_the_pager_is_used_on_a_terminal_only(self):
        self.example()
        pager = {"PAGER": "sed s/^/paged:/", "TERM": "xterm"}
        status, out = self.on_terminal("--message-id=1", ".", **pager)
        self.assertEqual(status, 0)
        self.assertTrue(out.startswith(b"paged:"), out)
        self.assertIn(b"\033[", self.on_terminal("--message-id=2", ".", "--no-pager", **pager)[1])
        self.assertFalse(self.on_terminal("--message-id=1", ".", "--no-pager", **pager)[1].startswith(b"paged:"))
        self.assertFalse(self.on_terminal("--message-id=1", ".", PAGER="", TERM="xterm")[1].startswith(b"paged:"))
        self.environment.update(pager)
        self.assertFalse(self.view("--message-id=1", ".").startswith("paged:"))

    def test_a_pager_that_is_left_early_is_no_failure(self):
        write(name(), header(), *[record(id) for id in range(50000)])
        status, out = self.on_terminal(".", PAGER="head -n 2", TERM="xterm")
        self.assertEqual(status, 0)
        self.assertEqual(out.count(b"\n"), 2)

    def test_a_closed_pipe_ends_silently(self):
        write(name(), header(), *[record(id) for id in range(50000)])
        done = subprocess.run(f"{QDLOGVIEW} . | head -n 1", shell=True, capture_output=True, env=self.environment)
        self.assertEqual(done.stderr, b"")
        self.assertEqual(done.stdout.count(b"\n"), 1)

    # ---- cursors -------------------------------------------------------------------

    def test_cursor_files_resume_behind_the_last_record(self):
        write(name(0), header(), record(1), record(2))
        self.assertEqual(self.ids("--cursor-file=place", "."), [1, 2])
        self.assertEqual(self.ids("--cursor-file=place", ".", status=1), [])
        with open(name(0), "ab") as file:
            file.write(record(3) + record(4)[:20])
        write(name(1), header(created=T0 // 1000 + 3), record(5))
        self.assertEqual(self.ids("--cursor-file=place", "."), [3, 5])
        with open(name(0), "ab") as file:
            file.write(record(4)[20:])
        self.assertEqual(self.ids("--cursor-file=place", "."), [4])
        self.assertEqual(self.ids("--cursor-file=place", ".", status=1), [])

    def test_a_cursor_stops_where_the_output_stopped(self):
        self.merged()
        seen = []
        for _ in range(4):
            seen.append(self.ids("--cursor-file=place", "-m", "2", "."))
        self.assertEqual(seen, [[1, 2], [3, 4], [5, 6], [7, 8]])
        self.assertEqual(self.ids("--cursor-file=place", "-m", "2", ".", status=1), [])

    def test_cursors_of_many_files_stay_short(self):
        for counter in range(200):
            write(name(counter), header(created=T0 // 1000 + counter), record(counter))
        self.assertEqual(len(self.ids("--cursor-file=place", ".")), 200)
        self.assertLess(os.path.getsize("place"), 2000)
        self.assertEqual(self.ids("--cursor-file=place", ".", status=1), [])
        write(name(200), header(created=T0 // 1000 + 200), record(200))
        for counter in range(100):
            os.unlink(name(counter))
        self.assertEqual(self.ids("--cursor-file=place", "."), [200])
        self.assertEqual(self.ids("--cursor-file=place", ".", status=1), [])

    def test_shown_cursors_can_be_given_back(self):
        odd = "dir;with @odd%name"
        os.mkdir(odd)
        write(os.path.join(odd, name(0)), header(), record(1), record(2), record(3))
        out = self.view("--template={msgid}", "--show-cursor", "-m", "2", odd)
        first, second, last = out.splitlines()
        self.assertEqual((first, second), ("1", "2"))
        self.assertTrue(last.startswith("-- cursor: "))
        self.assertEqual(self.ids("--after-cursor", last[len("-- cursor: "):], odd), [3])
        self.view("--after-cursor", "nonsense", odd, status=2)
        out = self.view("--template={msgid}", "--show-cursor", "-n", "1", odd)
        self.assertEqual(self.ids("--after-cursor", out.splitlines()[-1][len("-- cursor: "):], odd, status=1), [])
        # the position of a json line is a cursor as well
        row = json.loads(self.view("-o", "json", "--message-id=2", odd))
        cursor = row["file"].replace("%", "%25").replace(";", "%3B").replace("@", "%40") + f"@{row['offset']}"
        self.assertEqual(self.ids("--after-cursor", cursor, odd), [2, 3])

    def test_a_file_that_became_shorter_is_read_anew(self):
        write(name(0), header(), record(1), record(2))
        self.ids("--cursor-file=place", ".")
        write(name(0), header(), record(3))
        self.assertEqual(self.ids("--cursor-file=place", "."), [3])

    # ---- reports -------------------------------------------------------------------

    def test_counts(self):
        self.example()
        self.assertEqual(self.view("--count", "."), "9\n")
        self.assertEqual(self.view("--count", "-p", "error", "."), "2\n")
        self.assertEqual(self.view("--count", "-g", "nothing", ".", status=1), "0\n")
        self.assertEqual(json.loads(self.view("--count", "-o", "json", ".")), {"count": 9})

    def test_statistics(self):
        self.example()
        stats = json.loads(self.view("--stats", "-o", "json", "."))
        self.assertEqual(stats["records"], 9)
        self.assertEqual(stats["kind"], {"application": 4, "audit": 2, "debug": 1, "diagnostic": 1, "context": 1})
        self.assertEqual(stats["severity"], {"info": 1, "warning": 1, "error": 1, "emergency": 1,
                                             "debug": 1, "diagnostic": 1, "context": 1, "audit": 2})
        self.assertEqual(stats["who"], {"mgr": 3, "store": 2, "net": 1})
        self.assertEqual(stats["first"], "2024-03-01T13:45:03.000Z")
        self.assertEqual(stats["last"], "2024-03-01T13:45:11.000Z")
        self.assertEqual(stats["bytes"], os.path.getsize(name()) - len(header()))
        out = self.view("--stats", ".")
        self.assertRegex(out, r"records +9\n")
        self.assertRegex(out, r"application +4 +44\.4%")

    def two_runs(self):
        write(name(0), header(), record(1, pid=10), record(2, pid=11, number=2), record(3, pid=10, kind=0, number=3),
              record(4, pid=11, kind=4), record(5, pid=10, time=T0 + 3 * 86400000))  # the number was given again

    def test_process_runs_are_listed(self):
        self.two_runs()
        rows = [json.loads(line) for line in self.view("--list-runs", "--json", ".").splitlines()]
        self.assertEqual([(row["run"], row["pid"], row["records"], row["severity_text"]) for row in rows],
                         [(1, 10, 2, "info"), (2, 11, 2, "error"), (3, 10, 1, "info")])
        self.assertEqual((rows[0]["first"], rows[0]["last"], rows[0]["host"]),
                         (rfc3339(T0 + 1000), rfc3339(T0 + 3000), "hostA"))
        self.assertRegex(self.view("--list-runs", "."), r"\n +2  2024-03-01 13:45:04\.000  2024-03-01 13:45:06\.000  hostA   11        2  error\n")

    def test_the_worst_record_of_a_run_may_come_at_any_time(self):
        write(name(0), header(), record(1, pid=10), record(2, pid=10, number=3), record(3, pid=10, number=1))
        rows = [json.loads(line) for line in self.view("--list-runs", "--json", ".").splitlines()]
        self.assertEqual([(row["severity"], row["severity_text"]) for row in rows], [(70, "critical")])

    def test_one_process_run_is_shown(self):
        self.two_runs()
        for run, expected in (("1", [1, 3]), ("2", [2, 4]), ("3", [5]), ("0", [5]), ("-1", [2, 4]), ("-2", [1, 3])):
            self.assertEqual(self.ids(f"--run={run}", "."), expected)
        self.assertEqual(self.ids("--run", "2", "-p", "error", "."), [2])
        for run in ("4", "-3"):
            self.view(f"--run={run}", ".", status=3)
            self.assertIn(f"there is no run {run}", self.errors)

    def test_statistics_over_time(self):
        times = [T0, T0 + 10, T0 + 60000, T0 + 3600000, T0 + 86400000]
        write(name(0), header(), *[record(id, time=time) for id, time in enumerate(times)])
        stats = json.loads(self.view("--stats", "--per=minute", "--json", "."))
        minute = T0 // 60000 * 60000
        self.assertEqual(stats["per_minute"], [{"begin": rfc3339(minute), "records": 2}, {"begin": rfc3339(minute + 60000), "records": 1},
                                               {"begin": rfc3339(minute + 3600000), "records": 1}, {"begin": rfc3339(minute + 86400000), "records": 1}])
        out = self.view("--stats", "--per", "day", ".")
        self.assertRegex(out, r"2024-03-01 +4  #{40}\n2024-03-02 +1  #{10}\n")
        stats = json.loads(self.view("--stats", "--per=day", "--json", "--zone=Asia/Kolkata", "."))
        self.assertEqual([row["begin"] for row in stats["per_day"]], ["2024-02-29T18:30:00.000Z", "2024-03-01T18:30:00.000Z"])
        self.view("--per=hour", ".", status=2)
        self.view("--stats", "--per=week", ".", status=2)

    def test_outputs_that_users_of_journalctl_know(self):
        self.example()
        self.assertEqual(self.view("-o", "cat", "--message-id=1,2", ".").splitlines(), ["started", "Disk full, 2 of 3"])
        self.assertTrue(self.view("-o", "short-iso", "--utc", "-n1", ".").startswith("2024-03-01T13:45:11.000Z audit 5/7 bob"))
        pretty = self.view("-o", "json-pretty", "--with-line", "--message-id=2", ".")
        self.assertEqual(json.loads(pretty), json.loads(self.view("--json", "--with-line", "--message-id=2", ".")))
        self.assertIn('\n    "text": "Disk full, 2 of 3",\n', pretty)
        self.assertEqual(self.view("-o", "json-pretty", "--fields=outcome", "-m1", "."), "{\n}\n")

    def test_lines_without_a_number_are_ten(self):
        write(name(), header(), *[record(id) for id in range(1, 31)])
        last = list(range(21, 31))
        for words in (["-n", "."], [".", "-n"], ["--lines", "."], ["-n", "-q", "."]):
            self.assertEqual(self.ids(*words), last, words)
        self.assertEqual(self.ids("-rn", "."), last[::-1])
        self.assertEqual(self.ids("-n", "3", "."), [28, 29, 30])
        self.assertEqual(len(self.ids("-n", "all", ".")), 30)

    def test_times_of_a_named_zone(self):
        self.example()
        self.assertTrue(self.view("--zone=Asia/Kolkata", "-n1", ".").startswith("2024-03-01 19:15:11.000"))
        self.assertEqual(self.ids("--zone=Asia/Kolkata", "-S", "2024-03-01 19:15:10", "."), [8, 9])
        for zone in ("Nowhere/Land", "../../etc/passwd", "", "Europe"):
            self.view(f"--zone={zone}", ".", status=2)
        self.view("--zone=Asia/Kolkata", "--utc", ".", status=2)

    def test_defaults_come_from_the_environment(self):
        self.example()
        self.environment["QDLOGVIEW_OPTIONS"] = "  -o json\t-n 2 "
        self.assertEqual([json.loads(line)["msgid"] for line in self.view(".").splitlines()], [8, 9])
        self.assertEqual(self.view("-o", "cat", "-n", "1", "."), "login\n")
        self.environment["QDLOGVIEW_OPTIONS"] = "--nonsense"
        self.view(".", status=2)

    def test_values_of_a_field(self):
        self.example()
        self.assertEqual(self.view("-F", "who", ".").splitlines(),
                         ["COUNT  who", "    3  mgr", "    2  store", "    1  net"])
        self.assertEqual(self.view("--field=who", "-o", "csv", "-n2", "."), "who,count\r\nmgr,3\r\nstore,2\r\n")
        rows = [json.loads(line) for line in self.view("-F", "subject", "-o", "json", ".").splitlines()]
        self.assertEqual(rows, [{"subject": "alice", "count": 1}, {"subject": "bob", "count": 1}])
        self.view("-F", "logset", ".", status=1)

    def test_gaps_in_sequence_numbers(self):
        write(name(0), header(), *[record(id) for id in (1, 2, 3, 6, 7)])
        write(name(1), header(), *[record(id) for id in (10, 11)],
              *[record(id, pid=77, time=T0 + 20000 + id) for id in (1, 2, 4)],
              record(1, time=T0 + 60000), record(2, time=T0 + 61000))  # the process opened its log again
        rows = [json.loads(line) for line in self.view("--gaps", "-o", "json", ".", status=1).splitlines()]
        self.assertEqual([(row["pid"], row["first"], row["last"]) for row in rows], [(42, 4, 5), (42, 8, 9), (77, 3, 3)])
        self.assertEqual(rows[0]["after"], rfc3339(T0 + 3000))
        self.assertEqual(rows[0]["before"], rfc3339(T0 + 6000))
        out = self.view("--gaps", ".", status=1)
        self.assertIn("4..5  5/7   42  hostA  -", out)
        self.assertIn("3 gaps", out)

    def test_two_handles_of_a_process_are_no_gap(self):
        first = [record(id, time=T0 + id * 10) for id in range(1, 50)]
        second = [record(id, time=T0 + 105 + id * 10) for id in range(1, 30)]
        lines = sorted(first + second, key=lambda line: int(line.split(b",")[5]))
        write(name(0), header(), *lines)
        self.assertIn("0 gaps", self.view("--gaps", "."))

    def test_every_context_counts_from_one(self):
        lines = []
        for context in range(40):  # more than the runs that one counter keeps
            token = f"job-{context}".encode()
            lines += [record(id, context=token, time=T0 + context * 100 + id) for id in range(1, 9)]
            lines.append(record(context + 1, time=T0 + context * 100 + 50))
        write(name(0), header(), *lines)
        self.assertIn("360 records of 41 counters, 0 gaps", self.view("--gaps", "."))

    def test_the_context_record_at_the_top_of_a_new_file_is_no_gap(self):
        begin = record(3, kind=3, who=b"job-1", time=T0 + 30)
        write(name(0), header(), *[record(id, time=T0 + id * 10) for id in (1, 2)], begin,
              *[record(id, time=T0 + id * 10) for id in (4, 5)],
              record(1, time=T0 + 60), record(2, time=T0 + 61))  # opened again
        write(name(1), header(), begin, *[record(id, time=T0 + 100 + id * 10) for id in (6, 7)])
        self.assertIn("10 records of 1 counter, 0 gaps", self.view("--gaps", "."))

    def test_the_run_that_was_not_used_longest_is_forgotten(self):
        lines = [record(1, time=T0)]
        for other in range(1, 40):  # handles that were opened once
            lines.append(record(1, time=T0 + other * 10))
            lines.append(record(other + 1, time=T0 + other * 10 + 1))
        lines.append(record(42, time=T0 + 500))  # 41 is missing
        write(name(0), header(), *lines)
        rows = [json.loads(line) for line in self.view("--gaps", "--json", ".", status=1).splitlines()]
        self.assertEqual([(row["first"], row["last"]) for row in rows], [(41, 41)])

    def test_three_lines_and_a_file_that_were_removed_are_told_exactly(self):
        token = b"job-7"
        kept = []
        for counter in range(4):
            lines = []
            for id in range(counter * 10 + 1, counter * 10 + 11):
                lines.append(record(id, time=T0 + id * 10))
                lines.append(record(id, context=token, time=T0 + id * 10 + 1))
            kept.append(lines)
        del kept[0][8]  # record 5 of the handle
        del kept[3][13]  # record 37 of the context
        del kept[3][12]  # record 37 of the handle
        for counter in (0, 2, 3):
            write(name(counter), header(), *kept[counter])
        rows = [json.loads(line) for line in self.view("--gaps", "--json", ".", status=1).splitlines()]
        self.assertEqual([(row["missing"], row.get("context"), row["first"], row["last"]) for row in rows],
                         [("records", None, 5, 5), ("records", None, 11, 20), ("records", None, 37, 37),
                          ("records", "job-7", 11, 20), ("records", "job-7", 37, 37), ("files", None, 1, 1)])
        self.assertIn("job-7", self.view("--gaps", ".", status=1))

    def test_gaps_in_file_counters(self):
        for counter in (3, 4, 7):
            write(name(counter), header(), record(counter, pid=counter))
        for counter in (1, 2):
            write(name(counter, day="240302"), header(), record(counter + 10, pid=counter + 10))
        rows = [json.loads(line) for line in self.view("--gaps", "-o", "json", ".", status=1).splitlines()]
        self.assertEqual([(row["day"], row["first"], row["last"]) for row in rows],
                         [("2024-03-01", 5, 6), ("2024-03-02", 0, 0)])

    def test_verification_names_what_is_torn_and_where(self):
        good = record(1)
        write(name(0), header(), good, record(2)[:45] + b"\n", record(3), record(4)[:20] + record(5), b"rubbish\n")
        write(name(1), header(), good)
        out = self.view("--verify", ".", status=1)
        path = os.path.join(self.directory, name(0))
        torn = len(header()) + len(good)
        glued = torn + 46 + len(record(3))
        self.assertEqual(out.splitlines()[:-1], [
            f"{path}@{torn}: problem: cut within a text: its length goes beyond the line (line of 45 bytes), at {torn + 45}",
            # the torn time and the next type make one number; where the context begins there is a 7
            f"{path}@{glued}: problem: no length before a text (line of {20 + len(record(5)) - 1} bytes), at {glued + 26}",
            f"{path}@{glued + 20}: note: a whole record follows in the same line",
            f"{path}@{glued + 20 + len(record(5))}: problem: a number is missing or too large (line of 7 bytes)",
        ])
        self.assertTrue(out.splitlines()[-1].startswith("2 files, 4 records, "))
        self.assertTrue(out.splitlines()[-1].endswith("3 problems in 1 file, 1 note"))
        rows = [json.loads(line) for line in self.view("--verify", "-o", "json", ".", status=1).splitlines()]
        self.assertEqual([row["offset"] for row in rows[:-1]], [torn, glued, glued + 20, glued + 20 + len(record(5))])
        self.assertEqual(rows[-1]["bad_files"], 1)
        self.assertIn("0 problems", self.view("--verify", name(1)))
        self.assertEqual(self.view("--verify", "-q", name(1)), "")

    # ---- exit status and messages --------------------------------------------------

    def test_exit_statuses(self):
        self.example()
        self.assertEqual(self.view("-g", "nothing", ".", status=1), "")
        self.assertIn("no record matches in 1 file", self.errors)
        self.view("-q", "-g", "nothing", ".", status=1)
        self.assertEqual(self.errors, "")
        os.mkdir("empty")
        self.view("empty", status=1)
        self.assertIn("no log files were found", self.errors)
        self.view("missing.log", status=3)
        self.assertIn("missing.log: No such file or directory", self.errors)
        self.assertEqual(self.ids(name(), "missing.log", "-m1", status=3), [1])
        write("5-7-1-240301-0000000009.log", b"$Header 65999,1,2,3,4,h\n")
        self.ids(".", status=3)
        self.assertIn("unknown header version", self.errors)
        os.unlink("5-7-1-240301-0000000009.log")
        with open(name(), "ab") as file:
            file.write(b"rubbish\n" + record(10))
        self.assertEqual(self.ids("--message-id=10", ".", status=4), [10])
        self.assertIn("1 damaged line left out, at", self.errors)
        self.view("--count", "-q", ".", status=4)
        self.assertEqual(self.errors, "")

    def test_wrong_usage_is_status_2(self):
        for words in (["--nothing"], ["-p", "bad"], ["-k", "x"], ["-l", "x"], ["--pid", "x"], ["--pid", "9..5"],
                      ["-S", "whenever"], ["-U", "2024-13-01"], ["-g", "("], ["-o", "xml"], ["--lines=x"], ["-m", "0"],
                      ["-i"], ["-v"], ["-A", "1"], ["-f", "-r"], ["--count", "--stats"], ["-F", "x"], ["-o", "template"],
                      ["--utc", "--writer-time"], ["--color=maybe"], ["--fields=x"], ["--outcome", "x"],
                      ["--timeout", "5s"], ["-f", "--timeout", "x"], ["--cursor-file=x", "-r"], ["--complete", "x"],
                      ["-f", "-U", "now"], ["-f", "-g", "x", "-C", "1"], ["-f", "--count"], ["-o", "csv", "--stats"], ["--template=x", "-o", "json"],
                      ["--json", "-o", "csv"], ["--since", ""], ["-P", ""], ["--fields=text"]):
            with self.subTest(words=words):
                self.view(*words, ".", status=2)
                self.assertIn("Try 'qdlogview --help'", self.errors)

    def test_help_and_version_go_to_standard_output(self):
        self.assertIn("usage: qdlogview", self.view("--help"))
        self.assertEqual(self.errors, "")
        self.assertRegex(self.view("--version"), r"^qdlogview \d+(\.\d+)+\n$")

    def test_an_output_that_cannot_be_written_is_status_4(self):
        self.example()
        with open("/dev/full", "w") as full:
            done = subprocess.run([QDLOGVIEW, "."], stdout=full, stderr=subprocess.PIPE, env=self.environment)
        self.assertEqual(done.returncode, 4)
        self.assertIn(b"could not be written", done.stderr)

    # ---- configuration -------------------------------------------------------------

    def configure(self):
        os.mkdir("log")
        os.mkdir("setlog")
        with open("zoltlog.conf", "w") as file:
            file.write(f"5.Configuration={self.directory}/server.conf\n5.Names=server,srv\n")
        with open("server.conf", "w") as file:
            file.write(f"Default.LogDirectory={self.directory}/log/\n7.OIDNames=disk\n9.OIDNames=net\n"
                       f"LOGSET.Default.LogDirectory={self.directory}/setlog/\nLOGSET.jobs.FileName=nightly\n")
        write("log/" + name(), header(), record(1), record(2, originator=9))
        write("log/" + name(originator=9), header(originator=9), record(3, originator=9, file_originator=9))
        write("log/" + name(product=6), header(product=6), record(4, product=6))
        write("setlog/5-nightly-240301134502.log", b"$Header 65544,0,hostA\n", record(5, version=65544))

    def test_files_are_found_through_the_configuration(self):
        self.configure()
        config = "--config=zoltlog.conf"
        self.assertEqual(self.ids(config), [1, 2, 3, 5])
        self.assertEqual(self.ids(config, "-P", "5"), [1, 2, 3, 5])
        self.assertEqual(self.ids(config, "-P", "server", "-u", "net"), [2, 3])
        self.assertEqual(self.ids(config, "-u", "disk"), [1, 5])
        self.assertEqual(self.ids(config, "-P", "srv", "--file-originator", "disk"), [1, 2])
        self.assertEqual(self.ids(config, "-P", "5", "--logset", "jobs"), [5])
        self.assertEqual(self.ids(config, "--logset", "jobs"), [5])
        self.environment["ZOLTLOG_CFG_LOC"] = os.path.join(self.directory, "zoltlog.conf")
        self.assertEqual(self.ids("-P", "server"), [1, 2, 3, 5])

    def test_a_configuration_that_cannot_be_read_is_status_3(self):
        self.view("--config=missing.conf", status=3)
        self.assertIn("missing.conf", self.errors)
        self.configure()
        self.view("--config=zoltlog.conf", "-P", "nobody", status=3)
        self.assertIn("there is no product 'nobody' in zoltlog.conf", self.errors)
        self.view("--config=zoltlog.conf", "-P", "8", status=3)
        self.view("--config=zoltlog.conf", "-P", "5", "-u", "nobody", status=3)
        self.assertIn("product 5 has no originator 'nobody'", self.errors)

    def test_names_stand_beside_the_ids(self):
        self.configure()
        row = json.loads(self.view("--config=zoltlog.conf", "--json", "--message-id=2"))
        self.assertEqual((row["product"], row["product_name"], row["originator"], row["originator_name"]),
                         (5, "server", 9, "net"))
        self.assertIn(" info 5(server)/9(net) mgr[42]: ", self.view("--config=zoltlog.conf", "--message-id=2"))
        self.assertIn("    originator_name=net\n", self.view("--config=zoltlog.conf", "-o", "full", "--message-id=2"))
        self.assertEqual(self.view("--config=zoltlog.conf", "-o", "csv", "--fields=product_name,originator_name", "--message-id=4", "log"),
                         "product_name,originator_name\r\n,\r\n")

    def test_what_keeps_the_configuration_from_being_read_is_told(self):
        self.configure()
        os.rename("server.conf", "away.conf")
        cause = "configuration .*/server.conf: No such file or directory"
        for words in (["-P", "server"], ["-P", "5"], ["-P", "5", "-u", "disk"], ["-P", "srv", "-L", "jobs"], []):
            self.view("--config=zoltlog.conf", *words, status=3)
            self.assertRegex(self.errors, cause, words)
        os.rename("away.conf", "server.conf")
        for words in (["-L", "nosuch"], ["-P", "5", "-L", "nosuch"]):
            self.view("--config=zoltlog.conf", *words, status=3)
            self.assertIn("there is no log set 'nosuch' in the configuration zoltlog.conf", self.errors)
        self.view("-L", "nosuch", "log", status=1)
        self.assertIn("no log files were found of log set 'nosuch'", self.errors)

    def test_verification_reads_a_pipe(self):
        text = header() + record(1) + record(2)
        whole = self.view("--verify", "-", stdin=text)
        self.assertIn(f"1 file, 2 records, {len(text)}B: 0 problems in 0 files, 0 notes\n", whole)
        out = self.view("--verify", "-", stdin=text + record(3)[:20], status=1)
        self.assertIn(f"-@{len(text)}: problem: the file ends within a record, at {len(text) + 20}\n", out)

    def test_completion_lists_what_can_be_said(self):
        self.configure()
        config = "--config=zoltlog.conf"
        self.assertEqual(self.view(config, "--complete", "products").split(), ["5", "server", "srv"])
        self.assertEqual(self.view(config, "--complete", "originators").split(), ["112", "7", "9", "disk", "net"])
        self.assertIn("jobs", self.view(config, "--complete", "logsets").split())
        self.assertEqual(self.view("--complete", "kinds").split(),
                         ["debug", "diagnostic", "application", "context", "audit"])
        self.assertEqual(self.view("--complete", "severities").split(),
                         ["debug", "diagnostic", "info", "context", "audit", "warning", "error", "critical", "emergency"])
        self.assertIn("--since=", self.view("--complete", "options").split())
        self.assertIn("file_originator", self.view("--complete", "fields").split())
        self.assertIn("json", self.view("--complete", "outputs").split())


if __name__ == "__main__":
    unittest.main()
