#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The Python package: its declarations are the headers', what it sends is in the files, what it reads is what
qdlogview reads, and processes of every start method lose nothing."""
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import textwrap
import unittest

from qdul_testing import BUILD, HERE, SOURCE, append, is_foreign, plain_environment, program, read, string, write

PACKAGE = f"{BUILD}/python"
SANITIZED = re.search(r"(?m)^QDUL_SANITIZE:STRING=.", read(f"{BUILD}/CMakeCache.txt")) is not None
if SANITIZED or not os.path.exists(PACKAGE):
    sys.exit(77)  # no Python is made for a library that needs a sanitizer's runtime
if is_foreign():
    print("skipped: this Python cannot load a library for another processor")
    sys.exit(77)

VERSIONS = [name for name in (f"python3.{minor}" for minor in range(9, 14))
            if shutil.which(name) and subprocess.run([name, "-c", ""], capture_output=True).returncode == 0]
HEADERS = [f"{SOURCE}/include/{name}.h" for name in ("zoltlog", "zoltlis", "qdlis")]


def environment(**variables):
    return plain_environment(**{"ZOLTLOG_CFG_LOC": f"{HERE}/zoltlog.conf", "PYTHONPATH": PACKAGE, "LD_LIBRARY_PATH": f"{BUILD}/lib",
                                "PYTHONDONTWRITEBYTECODE": "1", "LC_ALL": "C.UTF-8", **variables})


def python(code, interpreter=sys.executable, **variables):
    """Runs a program; what it prints."""
    write("program.py", textwrap.dedent(code))
    done = subprocess.run([interpreter, "program.py"], capture_output=True, text=True, encoding="utf-8",
                          env=environment(**variables))
    if done.returncode != 0 or done.stderr:
        raise AssertionError(done.stdout + done.stderr)
    return done.stdout


def viewed(*words):
    """The records as qdlogview reads them."""
    done = subprocess.run([program("qdlogview"), "-q", "--no-pager", "-o", "json", "-P", "server", *words], capture_output=True,
                          text=True, env=environment())
    return [json.loads(line) for line in done.stdout.splitlines()]


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        shutil.rmtree("log", ignore_errors=True)
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server,srv\n")
        write("server.conf", f"Default.LogDirectory={HERE}/log/\n7.OIDNames=disk\n7.DebugLevel=2\n7.DiagnosticLevel=3\n"
                             f"LOGSET.jobs.LogDirectory={HERE}/log/\nLOGSET.jobs.FileName=nightly\n")


class Declarations(Case):
    def test_they_are_made_of_the_headers_of_today(self):
        done = subprocess.run([sys.executable, "-B", f"{SOURCE}/python/declarations.py", *HEADERS], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(read(f"{PACKAGE}/qdul/_declarations.py"), done.stdout)

    def test_records_lie_as_the_compiler_lays_them(self):
        shapes = json.loads(python("""
            import ctypes, json
            from qdul import declarations as c
            kinds = {name: kind for name, kind in vars(c).items()
                     if isinstance(kind, type) and issubclass(kind, ctypes.Structure) and kind is not ctypes.Structure}
            print(json.dumps({name: [ctypes.sizeof(kind)] + [[field[0], getattr(kind, field[0]).offset, getattr(kind, field[0]).size]
                                                            for field in kind._fields_] for name, kind in kinds.items()}))
        """))
        self.assertGreater(len(shapes), 20)
        for name in ("LogHandle", "LogMsg", "LogCfg", "LogListing", "LogFileEntry", "LogQueryNode"):
            self.assertIn(name, shapes)
        lines = ["#include <stddef.h>", "#include <zoltlog.h>", "#include <qdlis.h>"]
        for name, (size, *fields) in shapes.items():
            lines.append(f"_Static_assert(sizeof({name}) == {size}, \"{name}\");")
            for field, offset, length in fields:
                lines.append(f"_Static_assert(offsetof({name}, {field}) == {offset}, \"{name}.{field}\");")
                lines.append(f"_Static_assert(sizeof((({name} *)0)->{field}) == {length}, \"{name}.{field}\");")
        write("shapes.c", "\n".join(lines) + "\n")
        done = subprocess.run(["cc", "-std=c11", "-fsyntax-only", f"-I{SOURCE}/include", "shapes.c"], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_numbers_are_those_of_the_compiler(self):
        numbers = json.loads(python("""
            import json
            from qdul import declarations as c
            print(json.dumps({name: value for name, value in vars(c).items() if name.isupper() and isinstance(value, int)}))
        """))
        self.assertGreater(len(numbers), 120)
        names = set(re.findall(r"(?m)^ *((?:ZOLTLOG|ZOLTLIS|QDLIS)_\w+) = ", "".join(map(read, HEADERS))))
        self.assertLessEqual(names, numbers.keys())
        write("numbers.c", "#include <zoltlog.h>\n#include <qdlis.h>\n" + "".join(
            f"_Static_assert({name} == {value}, \"{name}\");\n" for name, value in numbers.items()))
        done = subprocess.run(["cc", "-std=c11", "-fsyntax-only", f"-I{SOURCE}/include", "numbers.c"], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_every_call_is_declared_with_its_arguments(self):
        calls = json.loads(python("""
            import json
            from qdul import declarations as c
            print(json.dumps({name: [len(call[1]), call[2]] for name, call in c.CALLS.items()}))
        """))
        script = re.sub(r"/\*.*?\*/", "", read(f"{SOURCE}/src/libqdul.map"), flags=re.S)
        exported = re.findall(r"(\w+);", script.split("global:")[1].split("local:")[0])
        header = re.sub(r"/\*.*?\*/", " ", "".join(map(read, HEADERS)), flags=re.S)
        checked = 0
        for name in exported + ["zoltLisTextV", "zoltLisFree", "qdlisAddCatalog", "qdlisLookUp"]:
            found = re.search(rf"\b{name}\(([^()]*)\)", header)
            if found is None:
                self.assertIn(name, ("zoltLogMutex", "errorCode", "sh_handle", "fmtLib", "newfmtLib"))
                continue
            arguments = [] if found.group(1) == "void" else found.group(1).split(",")
            if "va_list" in found.group(1):
                self.assertNotIn(name, calls)
                continue
            checked += 1
            more = arguments[-1:] == [" ..."]
            self.assertEqual(calls[name], [len(arguments) - more, more], name)
        self.assertGreater(checked, 250)

    @unittest.skipUnless(VERSIONS, "no other Python")
    def test_every_python_takes_it(self):
        sources = sorted(glob.glob(f"{PACKAGE}/qdul/*.py"))
        self.assertGreaterEqual(len(sources), 6)
        for version in VERSIONS:
            done = subprocess.run([version, "-m", "py_compile", *sources], capture_output=True, text=True,
                                  env=environment(PYTHONPYCACHEPREFIX=f"{HERE}/compiled", PYTHONWARNINGS="error"))
            self.assertEqual((done.returncode, done.stderr), (0, ""), version)

    @unittest.skipUnless(shutil.which("mypy"), "no mypy")
    def test_its_types_fit(self):
        done = subprocess.run(["mypy", "--strict", "--cache-dir", f"{HERE}/mypy", "-p", "qdul"], capture_output=True, text=True,
                              env=environment(MYPYPATH=PACKAGE))
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)


class Documented(Case):
    def test_the_examples_print_what_they_say(self):
        self.assertGreaterEqual(len(VERSIONS), 0)
        for version in VERSIONS or [sys.executable]:
            self.setUp()
            said = python("""
                import doctest, importlib
                # qdul's own first: the others read what it logs
                for name in ("qdul", "qdul._library", "qdul.log", "qdul.handler", "qdul.reader"):
                    result = doctest.testmod(importlib.import_module(name))
                    assert result.attempted > 0 or name == "qdul.log", name
                    print(name, result.failed)
            """, version)
            self.assertEqual(said.split()[1::2], ["0"] * 5, f"{version}: {said}")


class Sending(Case):
    def test_every_kind_of_message_is_in_the_file_as_it_was_sent(self):
        python("""
            import qdul
            with qdul.Log("srv", "disk") as log:
                log.app(qdul.Severity.CRITICAL, "100% full", who="disk", message_id=17)
                log.diag(3, "%s is %.1f", "load", 2.25, who="load")
                log.diag(4, "above the level")
                log.debug(2, "detail")
                log.debug(3, "above the level")
                with log.context("T1", "outer %d", 1) as outer:
                    with outer.context("T2") as inner:
                        inner.app(qdul.Severity.INFO, "deep")
                    outer.app(qdul.Severity.INFO, "less deep")
        """)
        self.assertEqual([(r["kind"], r["text"], r.get("who", r.get("title")), r.get("context")) for r in viewed("-u", "7")],
                         [("application", "100% full", "disk", None), ("diagnostic", "load is 2.2", "load", None),
                          ("debug", "detail", "", None), ("context", "outer 1", "T1", None), ("context", "", "T2", "T1"),
                          ("application", "deep", "", "T2"), ("application", "less deep", "", "T1")])
        self.assertEqual(viewed("-u", "7", "--message-id", "17")[0]["severity_text"], "critical")

    def test_texts_are_whole_in_every_locale(self):
        for locale in ("C", "C.UTF-8"):
            self.setUp()
            python(r"""
                import qdul
                with qdul.Log(5, 7) as log:
                    log.app(0, "Grüße, 本, \U0001F5C2", who="Zoë")
                    log.app(0, "a\0b\nc\udcffd")
                    with log.context("Jürgen", "Ä"):
                        pass
            """, LC_ALL=locale, PYTHONUTF8="0", PYTHONCOERCECLOCALE="0", PYTHONIOENCODING="utf-8")
            shown = viewed("-u", "7")
            self.assertEqual([r["who"] for r in shown[:2]], ["Zoë", ""])
            self.assertEqual([r["text_lines"] if "text_lines" in r else r["text"] for r in shown],
                             ["Grüße, 本, \U0001F5C2", "a\\x00b\nc\\udcffd", "Ä"])

    def test_messages_of_a_catalogue_have_its_words(self):
        code = """
            import qdul
            with qdul.Log(5, 7) as log:
                log.audit("alice", 1, 1005, "Access of user %s to %s denied", "alice", "/etc/shadow")
                log.app(1, "Disk %s is %d%% full", "/var", 93, number=1001)
                log.app(1, "Copied %d files to %s in %.1f s", 3, "/mnt", 0.5, number=1002)
                log.app(1, "Disk %s is %d%% full", "/var", 93)
        """
        python(code, QDLIS_CATALOG=f"{BUILD}/share/qdul/catalogue/diskd")
        shown = viewed("-u", "7")
        self.assertEqual([r["text"] for r in shown], ["Access of user alice to /etc/shadow denied", "Disk /var is 93% full",
                                                      "Copied 3 files to /mnt in 0.5 s", "Disk /var is 93% full"])
        self.assertEqual((shown[0]["kind"], shown[0]["subject"], shown[0]["outcome"]), ("audit", "alice", 1))

    def test_formats_that_do_not_fit_are_refused_before_anything_is_sent(self):
        said = python("""
            import qdul
            with qdul.Log(5, 7) as log:
                for text, values in (("%s %s", ("a",)), ("%s", ("a", "b")), ("%n", (1,)), ("%d", ("a",)), ("%", (1,))):
                    for number in (0, 1001):
                        try:
                            log.app(0, text, *values, number=number)
                        except (TypeError, ValueError):
                            continue
                        print("taken:", text, values, number)
        """)
        self.assertEqual(said, "")
        self.assertEqual(viewed("-u", "7"), [])

    def test_failures_are_told_with_their_names(self):
        said = python("""
            import qdul
            for arguments, more in (((6, 7), {}), ((5, 7), {"logset": "none"}), ((5, 0), {})):
                try:
                    qdul.Log(*arguments, **more)
                except qdul.Error as error:
                    print(error.name, error.code, error)
            for arguments in (("none", 7), (5, "none")):
                try:
                    qdul.Log(*arguments)
                except LookupError as error:
                    print(error)
            log = qdul.Log(5, 7)
            log.close()
            log.close()
            try:
                log.app(0, "x")
            except ValueError as error:
                print(error)
            with qdul.Log(5, 7) as log:
                try:
                    log.app(9, "x")
                except qdul.Error as error:
                    print(error.name)
        """)
        self.assertEqual(said.splitlines(), [
            "ZOLTLOG_CFG_NOT_FOUND 6 opening the log of product 6, originator 7: configuration not found, or its file cannot be "
            "opened (ZOLTLOG_CFG_NOT_FOUND)",
            "ZOLTLOG_CFG_NOT_FOUND 6 opening the log of product 5, originator 7: configuration not found, or its file cannot be "
            "opened (ZOLTLOG_CFG_NOT_FOUND)",
            "ZOLTLOG_INVALID_ARGUMENT 3 opening the log of product 5, originator 0: invalid argument (ZOLTLOG_INVALID_ARGUMENT)",
            "no product is called 'none'", "no originator of product 5 is called 'none'", "the log is closed", "ZOLTLOG_FAILED"])

    def test_series_of_log_sets_and_of_other_originators(self):
        python("""
            import qdul
            with qdul.Log(5, 8, logset="jobs") as log:
                log.app(0, "of a log set")
            with qdul.Log(5, 8, file_originator=7) as log:
                log.app(0, "of another's file")
        """)
        names = sorted(os.listdir("log"))
        self.assertEqual([re.sub(r"-\d.*", "", name[2:]) for name in names], ["7", "nightly"])
        self.assertIn("2,5,8,7,", read(f"log/{names[0]}"))
        self.assertIn("2,8,", read(f"log/{names[1]}"))

    def test_names_are_found_among_thousands(self):
        write("server.conf", read("server.conf") + "".join(f"{number}.OIDNames=part{number}\n" for number in range(1000, 3500)))
        self.assertEqual(python("""
            import qdul
            for name in "part1000", "part3499":
                qdul.Log("server", name).app(0, "found")
            print([record.originator for record in qdul.records("server")])
        """), "[1000, 3499]\n")

    def test_secure_audit_goes_to_the_system_log(self):
        done = subprocess.run([sys.executable, "-c", textwrap.dedent("""
            import qdul, syslog
            with qdul.SecureLog(5, 7, level=3, ident="audits", facility=syslog.LOG_AUTH, options=syslog.LOG_PERROR, extended=True) as log:
                log.audit(1, "alice", 0, 1004, "User %s logged in from %s", "alice", "host b")
                log.audit(4, "alice", 0, 1004, "User %s logged in from %s", "alice", "above the level")
        """)], capture_output=True, text=True, env=environment(QDLIS_CATALOG=f"{BUILD}/share/qdul/catalogue/diskd"))
        self.assertRegex(done.stderr, r"^audits: 5,7,0,\d+,\d+,\(null\),alice,0 SECURE-AUDIT-1 subject=alice outcome=0: "
                                      r"User alice logged in from host b\n$")
        self.assertEqual(done.returncode, 0)


class Logging(Case):
    def test_levels_become_kinds_severities_and_levels(self):
        python("""
            import logging, qdul
            logging.addLevelName(60, "FATAL")
            root = logging.getLogger()
            root.setLevel(1)
            root.addHandler(qdul.Handler("server", "disk"))
            for level in (60, 50, 40, 30, 20, 19, 17, 15, 13, 10, 8, 6):
                logging.getLogger("a.b").log(level, "at %d", level)
            root.info("of the root")
        """)
        self.assertEqual([(r["text"], r["kind"], r.get("severity_text"), r.get("level"), r.get("who")) for r in viewed("-u", "7")], [
            ("at 60", "application", "emergency", None, "a.b"), ("at 50", "application", "critical", None, "a.b"),
            ("at 40", "application", "error", None, "a.b"), ("at 30", "application", "warning", None, "a.b"),
            ("at 20", "application", "info", None, "a.b"), ("at 19", "diagnostic", "diagnostic", 1, "a.b"),
            ("at 17", "diagnostic", "diagnostic", 2, "a.b"), ("at 15", "diagnostic", "diagnostic", 3, "a.b"),
            ("at 10", "debug", "debug", 1, "a.b"), ("at 8", "debug", "debug", 2, "a.b"),
            ("of the root", "application", "info", None, "root")])

    def test_what_is_not_written_is_not_formatted(self):
        said = python("""
            import logging, qdul
            class Value:
                def __str__(self):
                    print("formatted")
                    return "value"
            handler = qdul.Handler(5, 8)
            log = logging.getLogger("x")
            log.setLevel(1)
            log.addHandler(handler)
            log.debug("%s", Value())
            log.log(15, "%s", Value())
            handler.log.debug_level = 1
            log.debug("%s", Value())
        """)
        self.assertEqual(said, "formatted\n")
        self.assertEqual([r["text"] for r in viewed("-u", "8")], ["value"])

    def test_exceptions_are_records_of_several_lines(self):
        python("""
            import logging, qdul
            log = logging.getLogger("shop")
            log.addHandler(qdul.Handler(5, 7))
            try:
                {}["tea"]
            except KeyError:
                log.exception("no stock")
        """)
        shown = viewed("-u", "7")
        self.assertEqual(len(shown), 1)
        lines = shown[0]["text_lines"].split("\n")
        self.assertEqual((lines[0], lines[1], lines[-1]), ("no stock", "Traceback (most recent call last):", "KeyError: 'tea'"))
        self.assertEqual(python("import qdul; print([*qdul.records(5, 7)][0].text.splitlines()[-1])"), "KeyError: 'tea'\n")

    def test_thread_names_are_contexts_if_wanted(self):
        python("""
            import logging, threading, qdul
            handler = qdul.Handler(5, 7, thread_contexts=True)
            log = logging.getLogger("x")
            log.setLevel(1)
            log.addHandler(handler)
            def work():
                log.warning("one")
                log.debug("two")
            for i in range(70):  # more than are open at a time
                thread = threading.Thread(target=work, name=f"worker-{i}")
                thread.start()
                thread.join()
            log.warning("of the first")
            assert len(handler._contexts) == 64
        """)
        shown = [(r.get("context"), r["text"]) for r in viewed("-u", "7", "-k", "app", "-k", "debug")]
        self.assertEqual(shown, [(f"worker-{i}", text) for i in range(70) for text in ("one", "two")] + [("MainThread", "of the first")])

    def test_a_failing_log_does_not_end_the_program(self):
        done = subprocess.run([sys.executable, "-c", textwrap.dedent("""
            import logging, qdul
            handler = qdul.Handler(5, 7)
            logging.getLogger().addHandler(handler)
            handler.log.close()
            logging.warning("lost")
            print("still here")
        """)], capture_output=True, text=True, env=environment())
        self.assertEqual((done.returncode, done.stdout), (0, "still here\n"))
        self.assertIn("the log is closed", done.stderr)


class Processes(Case):
    """Four processes of each start method, two threads in each, while their parent logs on."""

    CODE = """
        import logging, multiprocessing, sys, threading
        import qdul

        EACH = 100

        def log_some(handler, name):
            log = logging.Logger(name)
            log.addHandler(handler)
            for number in range(EACH):
                log.error("%s %d", name, number)

        def child(handler, name):
            threads = [threading.Thread(target=log_some, args=(handler, f"{name}.{i}")) for i in range(2)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

        if __name__ == "__main__":
            handler = qdul.Handler(5, 7, thread_contexts=sys.argv[2] == "contexts")
            handler.setFormatter(logging.Formatter("<%(message)s>"))
            method = multiprocessing.get_context(sys.argv[1])
            if sys.argv[1] == "forkserver":
                method.set_forkserver_preload(["qdul"])
            busy = threading.Thread(target=log_some, args=(handler, "parent"))
            busy.start()
            children = [method.Process(target=child, args=(handler, f"child{i}")) for i in range(4)]
            for each in children:
                each.start()
            busy.join()
            for each in children:
                each.join()
                assert each.exitcode == 0, each.exitcode
            handler.close()
    """

    def test_nothing_is_lost(self):
        write("processes.py", textwrap.dedent(self.CODE))
        expected = {f"<{name} {number}>" for name in ["parent"] + [f"child{i}.{j}" for i in range(4) for j in range(2)]
                    for number in range(100)}
        for method, contexts in (("fork", "plain"), ("fork", "contexts"), ("forkserver", "contexts"), ("spawn", "plain")):
            with self.subTest(method=method, contexts=contexts):
                self.setUp()
                done = subprocess.run([sys.executable, "-W", "ignore::DeprecationWarning", "processes.py", method, contexts],
                                      env=environment(), capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                shown = viewed("-u", "7", "-k", "app")
                self.assertEqual(sorted(record["text"] for record in shown), sorted(expected))
                self.assertEqual(len({record["pid"] for record in shown}), 5)


class Reading(Case):
    NAME = "5-7-1-231114-0000000000.log"

    def file(self, *lines, name=NAME, header=b"$Header 65543,5,7,1700000000,0,hostA\n"):
        os.makedirs("log", exist_ok=True)
        append(f"log/{name}", header, *(line + b"\n" for line in lines))

    def records(self, arguments="5, 7", shown="r.text"):
        return json.loads(python(f"""
            import datetime, json, qdul
            print(json.dumps([{shown} for r in qdul.records({arguments})]))
        """))

    def line(self, number=1, text=b"x", who=b"w", severity=1, time=1700000000000, pid=42):
        return b"2,5,7,7,%d,%d,%d,43,0:,%s%s%d,(0|)" % (number, time + number, pid, string(text), string(who), severity)

    def test_it_reads_what_qdlogview_reads(self):
        hostile = [b"", b"a,b:3:c", b"(0|)", b"1,5,7,7,1,1,1,1,", b"\xff\xfe", b"line\rline", "Grüße".encode(), b"x" * 5000]
        self.file(*(self.line(number, text, who) for number, (text, who) in enumerate((t, w) for t in hostile for w in hostile)),
                  b"1,5,7,7,1,1700000000900,42,43,2:T1,1:d,1:w,3,(0|)", b"0,5,7,7,1,1700000000901,42,43,0:,1:b,1:w,6",
                  b"3,5,7,7,1,1700000000902,42,43,0:,0:,2:T1,(42|i64:-7|X3:a|b|81.500000|(3|S1:z|),)",
                  b"4,5,7,7,1,1700000000903,42,43,0:,1:a,5:alice,-2,(0|)")
        mine = self.records(shown="[r.milliseconds, r.kind.name.lower(), r.text.encode('utf-8', 'surrogateescape').hex(), "
                                  "r.who.encode('utf-8', 'surrogateescape').hex(), r.context, r.pid, r.tid, r.message_id, "
                                  "r.level, r.outcome, r.offset]")
        self.assertEqual(len(mine), 68)
        theirs = viewed("-u", "7", "--file-originator", "7")
        self.assertEqual(len(theirs), 68)

        def bytes_of(record, *names):
            for name in names:
                if name + "_hex" in record:
                    return bytes.fromhex(record[name + "_hex"]).replace(b"\r", b"\n").hex()
                if name in record:
                    return record[name].encode().replace(b"\r", b"\n").hex()
            return ""

        for my, their in zip(mine, theirs):
            text = "" if their["kind"] == "context" else bytes_of(their, "text")
            self.assertEqual(my, [their["ts"] if "ts" in their else my[0], their["kind"], text,
                                  bytes_of(their, "who", "subject", "title"), their.get("context", ""), their["pid"], their["tid"],
                                  their["msgid"], their.get("level"), their.get("outcome"), their["offset"]])

    def test_filters(self):
        self.file(*(self.line(number, b"text %d" % number, b"w%d" % (number % 3), number % 5, pid=40 + number % 2)
                    for number in range(20)))
        asked = (
                ("5, 7", range(20)), ("'server', 'disk'", range(20)), ("5", range(20)),
                ("5, 7, severity=qdul.Severity.CRITICAL", [n for n in range(20) if n % 5 >= 3]),
                ("5, 7, who='w1'", [n for n in range(20) if n % 3 == 1]), ("5, 7, pid=41", range(1, 20, 2)),
                ("5, 7, text=r'^text 1\\d$'", range(10, 20)), ("5, 7, kinds=[qdul.Kind.AUDIT]", []),
                ("5, 7, since=1700000000.005", range(5, 20)), ("5, 7, until=1700000000.005", range(6)),
                ("5, 7, since=1700000000.005, until=1700000000.007", [5, 6, 7]),
                ("5, 7, since=datetime.datetime.fromtimestamp(1700000000, datetime.timezone.utc)", range(20)),
                ("5, 7, until=datetime.datetime(2023, 11, 14, 22, 13, 20, 3000)", range(4)),
                ("5, 7, context='T'", []))
        found = json.loads(python("import datetime, json, qdul\nprint(json.dumps([" + ", ".join(
            f"[r.text for r in qdul.records({arguments})]" for arguments, _ in asked) + "]))"))
        for (arguments, numbers), texts in zip(asked, found):
            with self.subTest(arguments):
                self.assertEqual(texts, [f"text {n}" for n in numbers])

    def test_series_come_in_their_order_and_merged(self):
        self.file(self.line(5, b"third"), name="5-7-1-231114-0000000002.log", header=b"$Header 65543,5,7,1700000000,0,hostA\n")
        self.file(self.line(4, b"second"), name="5-7-1-231114-0000000001.log", header=b"$Header 65543,5,7,1700000000,0,hostA\n")
        self.file(self.line(1, b"first"), name="5-7-1-231113-0000000007.log", header=b"$Header 65543,5,7,1699990000,0,hostA\n")
        self.file(b"2,9,1,1700000000003,42,43,0:,3:set,1:w,1,(0|)", name="5-nightly-231114000000.log", header=b"$Header 65544,0,hostA\n")
        self.file(b"2,5,9,9,1,1700000000002,42,43,0:,4:nine,1:w,1,(0|)", name="5-9-1-231114-0000000000.log",
                  header=b"$Header 65543,5,9,1700000000,0,hostA\n")
        self.assertEqual(self.records(), ["first", "second", "third"])
        self.assertEqual(self.records("5"), ["first", "nine", "set", "second", "third"])
        self.assertEqual(self.records("5, logset='jobs'", "[r.text, r.product, r.originator, r.file_originator]"), [["set", 5, 9, 0]])
        said = python("import qdul; print(*(p.rsplit('/', 1)[1] for p in qdul.files(5, 7)), sep='\\n')")
        self.assertEqual(said.split(), ["5-7-1-231113-0000000007.log", "5-7-1-231114-0000000001.log", "5-7-1-231114-0000000002.log"])

    def test_files_that_have_nothing_of_the_time_are_not_opened(self):
        self.file(self.line(1, b"early"), name="5-7-1-231113-0000000000.log")
        os.utime("log/5-7-1-231113-0000000000.log", (1700000100, 1700000100))
        self.file(self.line(1, b"late", time=1800000000000), name="5-7-1-270115-0000000000.log",
                  header=b"$Header 65543,5,7,1800000000,0,hostA\n")
        os.utime("log/5-7-1-270115-0000000000.log", (1790000000, 1790000000))
        said = python("""
            import qdul
            for times in ({"until": 1750000000}, {"since": 1750000000}, {}):
                print(*(path.rsplit("-", 2)[1] for path in qdul.files(5, 7, **times)))
        """)
        self.assertEqual(said, "231113\n270115\n231113 270115\n")

    def test_damaged_lines_are_left_out_and_what_is_whole_behind_them_is_read(self):
        whole = self.line(2, b"whole")
        self.file(b"", b"nonsense", self.line(1)[:30] + whole, self.line(1) + whole, self.line(3)[:-1], b"5,5,7,7,1,1,1,1,0:,0:,0:,1,(0|)",
                  self.line(4, b"last"))
        append(f"log/{self.NAME}", self.line(5, b"being written"))
        self.assertEqual(self.records(), ["whole", "whole", "last"])
        said = python("""
            import qdul
            try:
                list(qdul.records(5, 7, strict=True))
            except qdul.FormatError as error:
                print(error.offset, error)
        """)
        self.assertRegex(said, rf"^37 .*/{self.NAME}: at byte 37: a number is missing or too large\n$")
        for header, told in ((b"no header\n", "no header line"), (b"$Header 65545,1\n", "unknown version 65545")):
            with open("odd.log", "wb") as file:
                file.write(header)
            said = python("import qdul\ntry: list(qdul.read_file('odd.log'))\nexcept qdul.FormatError as error: print(error)")
            self.assertIn(told, said)

    def test_records_of_old_files(self):
        self.file(b"0:,3:app,3,(0|)", header=b"$Header 65540,5,7,1700000000,hostA\n")
        self.file(b"2:T1,1:d,3:who,4", b"0:,0:,2:T2,(0|)", b"0:,1:a,3:who,1,(0|)", name="5-7-1-231114-0000000001.log",
                  header=b"$Header 65542,5,7,1700000001,hostA\n")
        self.assertEqual(self.records(shown="[r.kind.name, r.product, r.context, r.text, r.who, r.severity, r.level]"),
                         [["APPLICATION", 5, "", "app", "", 3, None], ["DEBUG", 5, "T1", "d", "who", None, 4],
                          ["CONTEXT", 5, "", "", "T2", None, None], ["UNKNOWN", 5, "", "a", "who", None, None]])


if __name__ == "__main__":
    unittest.main()
