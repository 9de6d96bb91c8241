#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdlogger: what it writes, what it says and how it ends."""
import os
import re
import resource
import signal
import subprocess
import time
import unittest

from qdul_testing import BUILD, HERE, literal_lines, manual, plain_environment, program, section, write

QDLOGGER = program("qdlogger")


def record(line):
    """The fields of a record of an originator's file, or of a log set's."""
    head, rest = re.match(rb"((?:\d+,){6,8}(?=\d+:))(.*)$", line, re.S).groups()
    fields = [int(n) for n in head.split(b",")[:-1]]
    texts = []
    for _ in range(3):
        length, rest = rest.split(b":", 1)
        texts.append(rest[: int(length)])
        assert rest[int(length) : int(length) + 1] == b",", line
        rest = rest[int(length) + 1 :]
    return {
        "type": fields[0],
        "originator": fields[2] if len(fields) == 8 else fields[1],
        "id": fields[4] if len(fields) == 8 else fields[2],
        "token": texts[0],
        "text": texts[1],
        "who": texts[2],
        "rest": rest,
    }


class Qdlogger(unittest.TestCase):
    def setUp(self):
        subprocess.run(["rm", "-rf", "log"], check=True)
        self.environment = plain_environment()
        self.configure()

    def configure(self, *settings):
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server,srv\n")
        write("server.conf",
              f"Default.LogDirectory={HERE}/log/\nDefault.DebugLevel=3\nDefault.DiagnosticLevel=3\n"
              "7.OIDNames=disk\n"
              f"LOGSET.Default.LogDirectory={HERE}/log/\nLOGSET.jobs.FileName=nightly\n"
              + "".join(line + "\n" for line in settings))

    def run_it(self, *words, stdin=b"", config="zoltlog.conf", **more):
        command = [QDLOGGER] + ([f"--config={config}"] if config else []) + list(words)
        done = subprocess.run(command, input=stdin, capture_output=True, env=self.environment, **more)
        return done

    def ok(self, *words, **more):
        done = self.run_it(*words, **more)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done

    def records(self):
        found = []
        for name in sorted(os.listdir("log")) if os.path.isdir("log") else []:
            with open("log/" + name, "rb") as file:
                lines = file.read().split(b"\n")
            self.assertEqual(lines.pop(), b"")
            self.assertTrue(lines[0].startswith(b"$Header "), name)
            found += [record(line) for line in lines[1:]]
        return found

    def texts(self):
        return [r["text"] for r in self.records()]

    # ---- messages ----------------------------------------------------------------

    def test_words_are_one_message(self):
        self.ok("-P", "5", "disk", "full,", "2", "of", "3")
        (r,) = self.records()
        self.assertEqual((r["type"], r["text"], r["who"], r["rest"]), (2, b"disk full, 2 of 3", b"", b"0,(0|)"))
        self.assertEqual((r["originator"], r["id"]), (112, 1))

    def test_words_after_two_dashes_are_no_options(self):
        self.ok("-P5", "--", "--severity", "-x")
        self.assertEqual(self.texts(), [b"--severity -x"])

    def test_a_line_feed_in_a_word_stays_one_message(self):
        self.ok("-P5", "a\nb")
        self.assertEqual(self.texts(), [b"a\rb"])

    def test_each_line_of_standard_input_is_a_message(self):
        self.ok("-P5", stdin=b"one\n\nthree\r\n four \nlast")
        self.assertEqual(self.texts(), [b"one", b"", b"three", b" four ", b"last"])
        self.assertEqual([r["id"] for r in self.records()], [1, 2, 3, 4, 5])

    def test_no_input_is_no_message(self):
        self.ok("-P5", stdin=b"")
        self.assertEqual(self.texts(), [])

    def test_an_empty_word_is_an_empty_message(self):
        self.ok("-P5", "", stdin=b"not read")
        self.assertEqual(self.texts(), [b""])

    def test_very_long_lines_are_whole(self):
        long = b"x" * 1_000_000
        self.ok("-P5", stdin=b"first\n" + long + b"\n" + long[:300_000] + b"y\nlast")
        self.assertEqual(self.texts(), [b"first", long, long[:300_000] + b"y", b"last"])

    def test_lines_beyond_any_bound_become_several_messages(self):
        part = 1024 * 1024
        long = b"x" * (part - 1) + "\u00e4".encode() + b"y" * (part + 5)  # a character lies across the first end
        done = self.run_it("-P5", stdin=b"first\n" + long + b"\nlast\n" + b"z" * (part + 1))
        self.assertEqual((done.returncode, done.stderr), (0, b"qdlogger: 2 lines of more than 1 MB became several messages\n"))
        texts = self.texts()
        self.assertEqual([len(text) for text in texts], [5, part - 1, part, 7, 4, part, 1])
        self.assertEqual(b"".join(texts[1:4]), long)
        self.assertEqual(texts[4:], [b"last", b"z" * part, b"z"])

    def test_memory_is_bounded_whatever_comes(self):
        """A line of 300 MB without an end, whose messages are dropped by their level."""
        with open("hole", "wb") as hole:
            hole.truncate(300_000_000)
        with open("hole", "rb") as hole:
            process = subprocess.Popen([QDLOGGER, "--config=zoltlog.conf", "-P5", "-k", "debug", "-l", "6", "-q"], stdin=hole,
                                       env=self.environment)
        # As the process itself shows it: what wait tells counts this interpreter, too.
        most = 0
        while process.poll() is None:
            try:
                with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
                    if os.readlink(f"/proc/{process.pid}/exe") == os.path.realpath(QDLOGGER):
                        most = max([most] + [int(line.split()[1]) for line in status if line.startswith("VmHWM:")])
            except (OSError, ProcessLookupError):
                pass
            time.sleep(0.002)
        self.assertEqual(process.returncode, 0)
        self.assertGreater(most, 0)
        if "ASAN_OPTIONS" not in os.environ and "TSAN_OPTIONS" not in os.environ:
            self.assertLess(most, 64 * 1024)

    def test_lines_are_written_as_they_come(self):
        process = subprocess.Popen([QDLOGGER, "-P5", "--config=zoltlog.conf"], stdin=subprocess.PIPE, env=self.environment)
        for count in (1, 2, 3):
            process.stdin.write(b"line\n")
            process.stdin.flush()
            deadline = time.monotonic() + 30
            while len(self.records()) < count and time.monotonic() < deadline:
                time.sleep(0.01)
            self.assertEqual(len(self.records()), count)
        process.stdin.close()
        self.assertEqual(process.wait(), 0)

    def test_a_hundred_thousand_lines_all_arrive_in_order(self):
        lines = [b"message number %d of many" % n for n in range(100_000)]
        self.ok("-P5", stdin=b"\n".join(lines) + b"\n")
        self.assertEqual(self.texts(), lines)

    # ---- encodings ----------------------------------------------------------------

    def test_utf8_passes_in_the_c_locale(self):
        self.ok("-P5", "-t", "caf\u00e9", stdin="gr\u00fc\u00dfe \U0001f600\n".encode())
        (r,) = self.records()
        self.assertEqual((r["text"], r["who"]), ("gr\u00fc\u00dfe \U0001f600".encode(), "caf\u00e9".encode()))

    def test_bytes_that_are_no_character_are_kept_readable(self):
        self.ok("-P5", stdin=b"a\xffb\0c\xc3\n\0\n")
        self.assertEqual(self.texts(), [b"a\\xffb\\x00c\\xc3", b"\\x00"])

    def test_input_in_the_encoding_of_the_locale_becomes_utf8(self):
        self.environment["LOCPATH"] = BUILD + "/locales"
        self.environment["LC_ALL"] = "de_DE.ISO-8859-1"
        self.ok("-P5", "-x", b"t\xf6ken", stdin=b"gr\xfc\xdfe\n\0\n")
        records = self.records()
        self.assertEqual([r["text"] for r in records[1:]], ["gr\u00fc\u00dfe".encode(), b"\\x00"])
        self.assertEqual([records[0]["who"], records[1]["token"]], ["t\u00f6ken".encode()] * 2)
        self.environment["LC_ALL"] = "ja_JP.EUC-JP"
        self.ok("-P5", stdin=b"\xc6\xfc\xcb\xdc \xff\n")
        self.assertEqual(self.texts()[-1], "\u65e5\u672c \\xff".encode())

    def test_utf8_can_be_told(self):
        self.environment["LOCPATH"] = BUILD + "/locales"
        self.environment["LC_ALL"] = "de_DE.ISO-8859-1"
        self.ok("-P5", "--utf8", stdin="gr\u00fc\u00dfe\n".encode())
        self.assertEqual(self.texts(), ["gr\u00fc\u00dfe".encode()])

    # ---- options ------------------------------------------------------------------

    def test_severities_have_names_and_numbers(self):
        for number, name in enumerate(("info", "warning", "error", "critical", "emergency")):
            self.ok("-P5", "-p", name, "x")
            self.ok("-P5", f"--severity={number}", "x")
        self.assertEqual([r["rest"] for r in self.records()], [b"%d,(0|)" % (n // 2) for n in range(10)])

    def test_kinds(self):
        self.ok("-P5", "-k", "diag", "-l", "3", "-t", "mgr", "a")
        self.ok("-P5", "-k", "debug", "--level=2", "--who=mgr", "b")
        self.ok("-P5", "-k", "audit", "--subject", "alice", "--outcome", "4294967295", "c %s %d")
        self.ok("-P5", "-k", "app", "d")
        self.ok("-P5", "-k", "application", "d")
        found = [(r["type"], r["text"], r["who"], r["rest"]) for r in self.records()]
        self.assertEqual(
            found,
            [
                (1, b"a", b"mgr", b"3,(0|)"),
                (0, b"b", b"mgr", b"2"),
                (4, b"c %s %d", b"alice", b"-1,(0|)"),
                (2, b"d", b"", b"0,(0|)"),
                (2, b"d", b"", b"0,(0|)"),
            ],
        )

    def test_levels_above_the_configured_one_are_dropped(self):
        for kind in ("diag", "debug"):
            self.ok("-P5", "-k", kind, "-l", "4", "dropped")
            self.ok("-P5", "-k", kind, "-l", "3", kind)
        self.assertEqual(self.texts(), [b"diag", b"debug"])

    def test_the_message_id_is_the_users(self):
        for kind in ("app", "diag", "debug", "audit"):
            self.ok("-P5", "--id", "18446744073709551615", "-k", kind, "x")
        self.assertEqual([r["id"] for r in self.records()], [2**64 - 1] * 4)

    def test_a_context_is_opened_for_the_messages(self):
        self.ok("-P5", "--context", "job-7", stdin=b"a\nb\n")
        records = self.records()
        self.assertEqual([r["type"] for r in records], [3, 2, 2])
        self.assertEqual([records[0]["who"], records[1]["token"], records[2]["token"]], [b"job-7"] * 3)

    def test_products_and_originators_have_names(self):
        self.ok("-P", "srv", "-u", "disk", "x")
        self.ok("-P", "server", "-u", "8", "y")
        self.assertEqual([r["originator"] for r in self.records()], [7, 8])

    def test_log_sets(self):
        self.ok("-P5", "-u", "9", "-L", "jobs", "x")
        (name,) = os.listdir("log")
        self.assertRegex(name, r"^5-nightly-\d{12}\.log$")
        (r,) = self.records()
        self.assertEqual((r["originator"], r["text"]), (9, b"x"))

    def test_the_environment_names_the_configuration(self):
        self.environment["ZOLTLOG_CFG_LOC"] = HERE + "/zoltlog.conf"
        self.ok("-P5", "x", config=None)
        self.ok("-P5", "y", config="zoltlog.conf")
        self.assertEqual(self.texts(), [b"x", b"y"])

    def test_copies_on_the_console(self):
        done = self.ok("-P5", "--stdout", "-p", "error", "-t", "mgr", "disk", "full")
        self.assertRegex(done.stdout.decode(), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\+00:00 ERROR mgr: disk full\n$")
        done = self.run_it("-P5", "--stderr", "bell\a")
        self.assertRegex(done.stderr.decode(), r" INFO: bell\\x07\n$")
        self.assertEqual((done.returncode, done.stdout), (0, b""))
        self.assertEqual(self.ok("-P5", "x").stdout, b"")

    # ---- failures -----------------------------------------------------------------

    def wrong(self, *words):
        done = self.run_it(*words)
        self.assertEqual(done.returncode, 2, words)
        self.assertRegex(done.stderr.decode(), r"^qdlogger: .+\nTry 'qdlogger --help'\.\n$")
        self.assertEqual(done.stdout, b"")
        self.assertFalse(os.path.exists("log"), words)
        return done.stderr.decode()

    def test_wrong_usage(self):
        self.assertIn("--product is required", self.wrong("x"))
        self.assertIn("--nonsense", self.wrong("-P5", "--nonsense", "x"))
        self.wrong("-P5", "-Q", "x")
        self.wrong("-P", "", "x")
        self.wrong("-P5", "x", "--severity")
        for option, values in {
            "--kind": ("", "apple", "secure-audit", "context"),
            "--priority": ("5", "-1", "bad", ""),
            "--id": ("-1", "x", "18446744073709551616", "1x", ""),
        }.items():
            for value in values:
                self.assertIn(option, self.wrong("-P5", f"{option}={value}", "x"))
        for value in ("0", "7", "x", ""):
            self.assertIn("--level", self.wrong("-P5", "-kdiag", f"--level={value}", "x"))
        for value in ("-1", "4294967296", ""):
            self.assertIn("--outcome", self.wrong("-P5", "-kaudit", f"--outcome={value}", "x"))

    def test_options_that_do_not_go_together(self):
        self.assertIn("--priority", self.wrong("-P5", "-kdiag", "-p1", "x"))
        self.assertIn("--level", self.wrong("-P5", "-l1", "x"))
        self.assertIn("--level", self.wrong("-P5", "-kaudit", "-l1", "x"))
        self.assertIn("--who", self.wrong("-P5", "-kaudit", "-tx", "x"))
        self.assertIn("--subject", self.wrong("-P5", "--subject=x", "x"))
        self.assertIn("--outcome", self.wrong("-P5", "-kdebug", "--outcome=1", "x"))

    def failing(self, *words, status, says, **more):
        done = self.run_it(*words, **more)
        self.assertEqual(done.returncode, status, done.stderr)
        self.assertRegex(done.stderr.decode(), says)
        return done

    def test_what_cannot_be_opened_is_told_with_its_result(self):
        self.failing("-P6", "x", status=3, says=r"^qdlogger: the log of product 6 .*: product 6 is not registered in zoltlog\.conf\n$")
        self.failing("-P5", "x", config="missing.conf", status=3, says=r"configuration missing\.conf: No such file or directory\n$")
        self.failing("-P", "nobody", "x", status=3, says=r"no product 'nobody' in zoltlog\.conf\n$")
        self.failing("-P5", "-u", "nobody", "x", status=3, says=r"product 5 has no originator 'nobody'\n$")
        self.failing("-P5", "-L", "nobody", "x", status=3, says=r"product 5, log set 'nobody', cannot.*\(6\)\n$")
        with open("log", "w"):
            pass
        self.failing("-P5", "x", status=3, says=r"\(1\)\n$")
        os.remove("log")

    def test_what_keeps_the_configuration_from_being_read_is_told(self):
        os.rename("server.conf", "away.conf")
        for words in (["-P", "server"], ["-P5"], ["-P5", "-u", "disk"], ["-P5", "-L", "jobs"]):
            self.failing(*words, "x", status=3, says=r"configuration .*/server\.conf: No such file or directory\n$")
        self.assertEqual(self.failing("-q", "-P5", "x", status=3, says="^$").stdout, b"")

    def test_errors_cannot_steer_the_terminal(self):
        self.assertIn(r"'\e[31mX'", self.wrong("-P5", "-p", "\x1b[31mX", "x"))
        self.failing("-P", "\x1b[31m", "x", status=3, says=r"'\\e\[31m'")

    def test_input_that_cannot_be_read_is_told(self):
        directory = os.open(".", os.O_RDONLY)
        done = subprocess.run([QDLOGGER, "-P5", "--config=zoltlog.conf"], stdin=directory, capture_output=True, env=self.environment)
        os.close(directory)
        self.assertEqual(done.returncode, 3)
        self.assertIn(b"standard input cannot be read: Is a directory", done.stderr)

    def test_the_first_failure_is_told_and_the_rest_is_tried(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000))

        lines = [b"x" * 100, b"y" * 5000, b"z" * 5000, b"short"]
        done = self.failing("-P5", stdin=b"\n".join(lines), status=4, says=r"message 2 was not written: .*\(5\)\n", preexec_fn=limit)
        self.assertEqual(len(done.stderr.splitlines()), 2)
        self.assertRegex(done.stderr.decode(), r"\nqdlogger: [23] of 4 messages were not written\n$")

    def test_one_message_that_fails_is_told_once(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000))

        done = self.failing("-P5", "y" * 5000, status=4, says=r"^qdlogger: message 1 was not written: .*\(5\)\n$", preexec_fn=limit)
        self.assertEqual(done.stdout, b"")

    def test_messages_arrive_though_nobody_reads_the_copies(self):
        lines = b"".join(b"line %d\n" % n for n in range(20_000))
        process = subprocess.Popen(
            [QDLOGGER, "-P5", "--stdout", "--config=zoltlog.conf"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.environment
        )
        process.stdout.close()
        process.stdin.write(lines)
        process.stdin.close()
        error = process.stderr.read()
        process.stderr.close()
        self.assertEqual(process.wait(), 4)
        self.assertEqual(error, b"qdlogger: standard output cannot be written\n")
        self.assertEqual(len(self.records()), 20_000)

    # ---- help and manual ------------------------------------------------------------

    def test_help_and_version(self):
        done = self.ok("--help")
        self.assertTrue(done.stdout.startswith(b"usage: qdlogger "))
        self.assertIn(b"Exit status", done.stdout)
        self.assertRegex(self.ok("--version").stdout.decode(), r"^qdlogger 3\.\d+\.\d+\.\d+\n$")

    def test_completion(self):
        self.assertEqual(self.ok("--complete", "kinds").stdout, b"app\ndiag\ndebug\naudit\n")
        self.assertEqual(self.ok("--complete", "severities").stdout, b"info\nwarning\nerror\ncritical\nemergency\n")
        self.assertIn("'nothing' is not known", self.wrong("--complete", "nothing"))

    def test_the_examples_of_the_manual_work(self):
        examples = literal_lines(section(manual("qdlogger"), "EXAMPLES"))
        self.assertEqual(len(examples), 2)
        self.environment["PATH"] = f"{BUILD}/bin:{HERE}:{self.environment['PATH']}"
        self.environment["ZOLTLOG_CFG_LOC"] = HERE + "/zoltlog.conf"
        with open("nightly-job", "w") as file:
            file.write("#!/bin/sh\necho one\necho two >&2\n")
        os.chmod("nightly-job", 0o755)
        for example in examples:
            done = subprocess.run(["sh", "-c", example], capture_output=True, env=self.environment)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""), example)
        found = [(r["type"], r["text"], r["who"], r["token"][:4]) for r in self.records() if r["type"] != 3]
        self.assertEqual(found, [(2, b"disk /var is 93% full", b"backup", b""), (1, b"one", b"nightly", b"job-"),
                                 (1, b"two", b"nightly", b"job-")])


if __name__ == "__main__":
    unittest.main(verbosity=1)
