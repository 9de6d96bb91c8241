#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What qdlogview exports, taken by the programs that it is for: PostgreSQL, rsyslog, the journal, lnav. Each
part is skipped where its program is not installed. SHIP_RECORDS is how many records the larger parts have."""
import calendar
import collections
import glob
import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
import unittest

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, program, read, string, write

RECORDS = int(os.environ.get("SHIP_RECORDS", "20000"))
USER = 65534  # PostgreSQL refuses to be root
T0 = 1709294400000  # 2024-03-01 12:00 UTC
DAY = 86400000
HOSTILE = [b"it's \"quoted\" '; DROP TABLE qdul_records; --", b"back\\slash \\n \\. \\N \\u0000 \\\\u0000", b"nul \x00\x00 byte", b"bad \xff\xc3\x28 utf-8",
           b"tab\there", b"two\rlines", b"\\.", "Grüße \U0001f600 \u202e".encode(), b"x" * 200000, b"", b"=", b"\x1b[31mred"]
ENVIRONMENT = plain_environment(LC_ALL="C.UTF-8")


def shown(text):
    """The text as UTF-8, with line feeds where the writer had them."""
    return text.replace(b"\r", b"\n").decode(errors="replace")


def record(kind, product, originator, id, when, context, text, who, number):
    tail = {0: b"%d" % number, 3: b"(0|)"}.get(kind, b"%d,(0|)" % number)
    return b"%d,%d,%d,7,%d,%d,42,43,%s%s%s%s\n" % (kind, product, originator, id, when, string(context), string(text), string(who), tail)


def make_logs(directory, count):
    """Files of three products on two hosts over three days; what is in them, in the order of time."""
    os.makedirs(directory)
    chance = random.Random(count)
    told = []
    for host in ("hostA", "hostB"):
        for product in (5, 6, 8):
            for day in range(3):
                path = f"{directory}/{product}-7-{1 if host == 'hostA' else 2}-24030{day + 1}-0000000000.log"
                lines = [b"$Header 65543,%d,7,%d,0,%s\n" % (product, (T0 + day * DAY) // 1000, host.encode())]
                when = T0 + day * DAY
                for id in range(1, count // 18 + 1):
                    when += chance.choice((0, 1, 5, 300))
                    kind = chance.choice((0, 2, 2, 2, 4))
                    number = chance.randrange(5) if kind == 2 else 1
                    context = b"job-%d" % chance.randrange(200) if chance.random() < 0.2 else b""
                    text = HOSTILE[id - 1] if day == 0 and id <= len(HOSTILE) else b"request %d took %d ms" % (id, chance.randrange(5000))
                    lines.append(record(kind, product, 7, id, when, context, text, b"mgr", number))
                    told.append({"host": host, "product": product, "id": id, "ts": when, "kind": kind, "number": number,
                                 "context": context.decode(), "text": text})
                with open(path, "wb") as file:
                    file.write(b"".join(lines))
    return told


def is_error(each):
    return each["kind"] == 2 and each["number"] >= 2


def run(*words, **more):
    done = subprocess.run(words, capture_output=True, **{"env": ENVIRONMENT, **more})
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, words))[:300]}: {done.returncode} {done.stderr[-2000:]}")
    return done.stdout


# ---- PostgreSQL ------------------------------------------------------------------------

def find_server():
    places = sorted(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda place: float(place.split("/")[4]))
    return next((place for place in reversed(places) if os.access(f"{place}/initdb", os.X_OK) and os.access(f"{place}/psql", os.X_OK)), None)


RSYSLOG = unittest.skipUnless(shutil.which("rsyslogd") and glob.glob("/usr/lib/*/rsyslog/ompgsql.so") and glob.glob("/usr/lib/*/rsyslog/omrelp.so"),
                              "rsyslog, rsyslog-pgsql or rsyslog-relp is not installed")


@unittest.skipUnless(find_server(), "PostgreSQL is not installed (Debian: postgresql)")
class Postgres(unittest.TestCase):
    maxDiff = None

    @classmethod
    def start_server(cls, **more):
        cls.bin = find_server()
        os.chmod(HERE, 0o711)
        os.mkdir("pg")
        cls.as_user = []
        if os.geteuid() == 0:
            os.chown("pg", USER, USER)
            cls.as_user = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--"]
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = str(free.getsockname()[1])
        cls.environment = {**ENVIRONMENT, "PGHOST": "127.0.0.1", "PGPORT": port, "PGUSER": "bench", "PGDATABASE": "postgres"}
        cls.environment["PATH"] = f"{BUILD}/bin:{cls.bin}:" + cls.environment["PATH"]
        run(*cls.as_user, f"{cls.bin}/initdb", "-D", f"{HERE}/pg/data", "-A", "trust", "-U", "bench", "--no-sync", "--locale=C.UTF-8", cwd=f"{HERE}/pg")
        settings = {"listen_addresses": "127.0.0.1", "unix_socket_directories": "", "port": port, "fsync": "off", "timezone": "UTC", **more}
        words = [word for name, value in settings.items() for word in ("-c", f"{name}={value}")]
        with open("server.out", "wb") as out:
            cls.server = subprocess.Popen(cls.as_user + [f"{cls.bin}/postgres", "-D", f"{HERE}/pg/data"] + words, env=ENVIRONMENT, cwd=f"{HERE}/pg",
                                          stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        for _ in range(300):
            if cls.server.poll() is not None or subprocess.run(["psql", "-Xqc", "SELECT 1"], env=cls.environment, capture_output=True).returncode == 0:
                break
            time.sleep(0.1)

    @classmethod
    def setUpClass(cls):
        cls.start_server()
        cls.told = make_logs("logs", RECORDS)

    @classmethod
    def tearDownClass(cls):
        cls.server.send_signal(signal.SIGINT)
        cls.server.wait(300)

    def psql(self, *words, input=None):
        return run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", *words, env=self.environment, input=input).decode()

    def setUp(self):
        self.psql("-c", "DROP SCHEMA public CASCADE", "-c", "CREATE SCHEMA public", "-f", f"{SOURCE}/docs/sql/qdul.sql")

    def rows(self, query):
        return json.loads(self.psql("-c", f"SELECT coalesce(json_agg(r), '[]') FROM ({query}) AS r"))

    def load(self, form, table):
        start = time.monotonic()
        rows = run(program("qdlogview"), "-o", form, "logs")
        if form == "json":
            rows = rows.replace(b"\\", b"\\\\")
        self.psql("-c", f"COPY {table} FROM STDIN", input=rows)
        return time.monotonic() - start

    def test_columns_are_what_was_logged_in_one_table_for_each_day(self):
        took = self.load("postgres", "qdul_rows")
        found = self.rows('SELECT host, product, msgid AS id, ts, type AS kind, context, text FROM qdul_records ORDER BY host, product, file, "offset"')
        told = [{**{key: each[key] for key in ("host", "product", "id", "ts", "kind")}, "context": each["context"],
                 "text": shown(each["text"]).replace("\0", "\ufffd")} for each in self.told]
        self.assertEqual([{**each, "context": each["context"] or ""} for each in found], told)
        tables = self.rows("SELECT tableoid::regclass::text AS name, count(*) FROM qdul_records GROUP BY 1 ORDER BY 1")
        self.assertEqual([table["name"] for table in tables], [f"qdul_records_2024030{day}" for day in (1, 2, 3)])
        self.assertEqual(self.rows("SELECT * FROM qdul_rows"), [])
        size = int(self.psql("-c", "SELECT sum(pg_total_relation_size(inhrelid)) FROM pg_inherits WHERE inhparent = 'qdul_records'::regclass"))
        print(f"PostgreSQL: {len(told)} records as columns in {took:.1f} s, {size / len(told):.0f} bytes each", file=sys.stderr)

    def test_json_is_what_was_logged(self):
        took = self.load("json", "qdul_lines")
        found = self.rows("SELECT record ->> 'host' AS host, (record ->> 'product')::int AS product, (record ->> 'msgid')::int AS id,"
                          " (record ->> 'ts')::bigint AS ts, record ->> 'text' AS text, time FROM qdul_json"
                          " ORDER BY 1, 2, record ->> 'file', (record ->> 'offset')::bigint")
        told = [{**{key: each[key] for key in ("host", "product", "id", "ts")}, "text": each["text"].decode(errors="replace").replace("\0", "\ufffd")}
                for each in self.told]
        times = [each.pop("time") for each in found]
        self.assertEqual(found, told)
        self.assertEqual(times[0][:10], "2024-03-01")
        tables = self.rows("SELECT DISTINCT tableoid::regclass::text AS name FROM qdul_json ORDER BY 1")
        self.assertEqual([table["name"] for table in tables], [f"qdul_json_2024030{day}" for day in (1, 2, 3)])
        print(f"PostgreSQL: {len(told)} records as JSON in {took:.1f} s", file=sys.stderr)

    def test_the_operators_questions_are_answered(self):
        self.load("postgres", "qdul_rows")
        self.psql("-c", "ANALYZE")
        start = T0 + DAY
        words = ["-v", "product=5", "-v", "since=2024-03-02 12:00Z", "-v", "context=job-7", "-F", "\t", "-f", f"{SOURCE}/docs/sql/queries.sql"]
        lines = self.psql(*words).splitlines()
        errors = [each for each in self.told if each["product"] == 5 and is_error(each) and start <= each["ts"] < start + 3600000]
        context = [each for each in self.told if each["context"] == "job-7"]
        names = {0: "debug", 4: "audit"}
        severities = ["info", "warning", "error", "critical", "emergency"]
        minutes = collections.Counter((each["ts"] // 60000, names.get(each["kind"]) or severities[each["number"]])
                                      for each in self.told if start <= each["ts"] < start + 3600000)
        self.assertTrue(errors and context and minutes)
        self.assertEqual({each["product"] for each in context}, {5, 6, 8})
        texts = {"\t".join(line.split("\t")[5:]) for line in lines[: len(errors)]}
        self.assertEqual(texts, {shown(each["text"]) for each in errors})
        counted = {}
        for line in lines[-len(minutes):]:
            minute, severity, count = line.split("\t")
            counted[(calendar.timegm(time.strptime(minute[:16], "%Y-%m-%d %H:%M")) // 60, severity)] = int(count)
        self.assertEqual(counted, dict(minutes))
        self.assertGreaterEqual(len(lines), len(errors) + len(context) + len(minutes))  # the texts of some have two lines

    def test_a_spool_is_loaded_once_whatever_is_killed(self):
        for form, table in (("json", "qdul_json"), ("postgres", "qdul_records")):
            for leftover in ("place",):
                if os.path.exists(leftover):
                    os.remove(leftover)
            shutil.rmtree("spool", ignore_errors=True)
            os.mkdir("spool")
            self.psql("-c", "TRUNCATE qdul_loaded")
            chance = random.Random(form)
            load = [f"{SOURCE}/packaging/postgres/qdul-load", "spool"]
            ship = [program("qdlogview"), "--spool=spool", "--cursor-file=place", "-o", form, "--spool-size=64K", "logs"]
            for _ in range(15):
                for words in (ship, load):
                    process = subprocess.Popen(words, env=self.environment, start_new_session=True, stderr=subprocess.DEVNULL)
                    time.sleep(chance.uniform(0.01, 0.3))
                    if process.poll() is None:
                        os.killpg(process.pid, signal.SIGKILL)
                    process.wait()
            subprocess.run(ship, env=self.environment, capture_output=True)
            run(*load, env=self.environment)
            self.assertEqual(os.listdir("spool"), [])
            total, distinct = self.psql("-c", f"SELECT count(*), count(DISTINCT r) FROM {table} AS r").strip().split("|")
            self.assertEqual((int(total), int(distinct)), (len(self.told), len(self.told)))
            self.assertEqual(int(self.psql("-c", "SELECT sum(records) FROM qdul_loaded")), len(self.told))

    def daemons(self, edge):
        """Configures a central rsyslog and one that sends to it what it takes from rsyslog/spool."""
        shutil.rmtree("rsyslog", ignore_errors=True)
        os.makedirs("rsyslog/spool")
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = str(free.getsockname()[1])
        directory = "/var/lib/qdul-spool/files" if edge == "qdul-edge" else "/var/log/qdul"
        for name, source, changes in (("edge", edge, {"CENTRAL": "127.0.0.1", "10514": port, directory: f"{HERE}/rsyslog/spool", "/var/lib/qdul-edge": f"{HERE}/rsyslog/edge"}),
                                      ("central", "qdul-central", {"10514": port, "/var/spool/rsyslog": f"{HERE}/rsyslog/central",
                                                                   "USER@127.0.0.1:5432/DATABASE": f"bench@127.0.0.1:{self.environment['PGPORT']}/postgres"})):
            text = read(f"{SOURCE}/packaging/rsyslog/{source}.conf")
            os.mkdir(f"rsyslog/{name}")
            for old, new in {**changes, 'Interval="5"': 'Interval="1"'}.items():
                self.assertIn(old, text)
                text = text.replace(old, new)
            write(f"rsyslog/{name}.conf", text)
            run("rsyslogd", "-N1", "-f", f"{HERE}/rsyslog/{name}.conf")

    @staticmethod
    def start(name):
        return subprocess.Popen(["rsyslogd", "-n", "-f", f"{HERE}/rsyslog/{name}.conf", "-i", f"{HERE}/rsyslog/{name}.pid"],
                                env=ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    @staticmethod
    def stop(process, how=signal.SIGTERM):
        process.send_signal(how)
        process.wait(60)

    def wait_for(self, table, count, most=240):
        stop = time.monotonic() + most
        while (there := int(self.psql("-c", f"SELECT count(*) FROM {table}"))) < count and time.monotonic() < stop:
            time.sleep(0.2)
        return there

    @RSYSLOG
    def test_rsyslog_brings_a_spool_into_the_tables_over_a_stop_of_the_central_one(self):
        self.daemons("qdul-edge")
        ship = [program("qdlogview"), "--spool=rsyslog/spool", "--cursor-file=rsyslog/place", "-o", "json", "--spool-size=256K", "logs"]
        started = time.monotonic()
        central, edge = self.start("central"), self.start("edge")
        try:
            run(*ship, f"-m{len(self.told) // 4}")
            self.wait_for("qdul_json", 1)
            self.stop(central)
            run(*ship, f"-m{len(self.told) // 4}")
            time.sleep(1)
            central = self.start("central")
            write("rsyslog/long", '{"ts":1,"text":"' + "x" * 1500000 + '"}\nno JSON\n')
            os.rename("rsyslog/long", "rsyslog/spool/qdul-000000999999-2.json")
            run(*ship)
            found = self.wait_for("qdul_json", len(self.told))
            self.wait_for("qdul_refused", 2)
        finally:
            self.stop(edge)
            self.stop(central)
        self.assertEqual(found, len(self.told))
        refused = self.psql("-c", "SELECT substr(line, 1, 10) FROM qdul_refused").split()
        self.assertIn("JSON", refused)  # the long line is there in parts
        self.assertGreater(len(refused), 2)
        texts = {(row["host"], row["product"], row["ts"], row["id"]): row["text"] for row in self.rows(
            "SELECT record ->> 'host' AS host, (record ->> 'product')::int AS product, (record ->> 'ts')::bigint AS ts,"
            " (record ->> 'msgid')::int AS id, record ->> 'text' AS text FROM qdul_json")}
        self.assertEqual(texts, {(each["host"], each["product"], each["ts"], each["id"]): each["text"].decode(errors="replace").replace("\0", "\ufffd")
                                 for each in self.told})
        print(f"rsyslog: {found} records through two daemons into PostgreSQL in {time.monotonic() - started:.0f} s", file=sys.stderr)

    @RSYSLOG
    def test_rsyslog_brings_log_files_into_the_tables_over_stops_and_a_kill(self):
        """As -o postgres does, but for the host's name, and for bytes that are not UTF-8."""
        self.daemons("qdul-edge-raw")
        sources = sorted(glob.glob("logs/*.log"))
        with open("rsyslog/set", "wb") as file:
            file.write(b"$Header 65544,0,hostA\n2,7,1,%d,42,43,0:,11:of, a set,x,5:a,b,c,3,(0|)\n1,7,2,%d,42,43,0:,4:diag,3:net,4,(0|)\n"
                       b"3,7,3,%d,42,43,0:,5:begin,6:job-77,(42|i64:7|)\n2,7,4,%d,42,43,0:,99:wrong length,3:mgr,3,(0|)\nno record at all\n"
                       % (T0, T0 + 1, T0 + 2, T0 + 3))
        count = len(self.told) + 5
        started = time.monotonic()
        central, edge = self.start("central"), self.start("edge")
        try:
            for number, source in enumerate(sources):  # each in two parts, the second as what is appended
                with open(source, "rb") as file:
                    content = file.read()
                cut = content.index(b"\n", len(content) // 2) + 1
                target = f"rsyslog/spool/{os.path.basename(source)}"
                with open(target, "wb") as file:
                    file.write(content[:cut])
                if number == len(sources) // 3:
                    self.wait_for("qdul_records", 1)
                    self.stop(central)
                if number == len(sources) // 2:
                    self.stop(edge, signal.SIGKILL)
                    for path in glob.glob("rsyslog/edge/imfile-state*"):
                        os.remove(path)
                    central, edge = self.start("central"), self.start("edge")
                time.sleep(0.1)
                with open(target, "ab") as file:
                    file.write(content[cut:])
            os.rename("rsyslog/set", "rsyslog/spool/5-nightly-240301120000.log")
            found = self.wait_for("qdul_records", count)
        finally:
            self.stop(edge)
            self.stop(central)
        self.assertEqual(found, count)
        took = time.monotonic() - started
        columns = ', '.join(f'r."{name}"' for name in self.psql("-c", "SELECT column_name FROM information_schema.columns WHERE table_name = 'qdul_records'"
                                                               " AND column_name NOT IN ('host', 'product_name', 'originator_name') ORDER BY ordinal_position").split())
        query = f'SELECT {columns} FROM qdul_records AS r ORDER BY file, "offset"'
        rows = self.rows(query)
        self.psql("-c", "TRUNCATE qdul_records")
        export = subprocess.run([program("qdlogview"), "-o", "postgres", f"{HERE}/rsyslog/spool"], capture_output=True, env=ENVIRONMENT).stdout
        self.psql("-c", "COPY qdul_rows FROM STDIN", input=export)
        expected = self.rows(query)
        odd = [row for row in rows if row["kind"] == "unknown"]
        self.assertEqual([row["text"].split(",")[-1] if "," in row["text"] else row["text"] for row in odd], ["(0|)", "no record at all"])
        self.assertIn("99:wrong length", odd[0]["text"])
        rows = [row for row in rows if row["kind"] != "unknown"]
        broken = [row for row in rows if row["text"] == "bad ??( utf-8"]
        self.assertEqual(len(broken), 6, [row["text"] for row in rows if "bad" in row["text"]])
        for row in broken:
            row["text"] = HOSTILE[3].decode(errors="replace")
        self.assertEqual(len(rows), len(expected))
        for row, other in zip(rows, expected):
            self.assertEqual(row, other)
        print(f"rsyslog: {found} lines of log files through two daemons into PostgreSQL in {took:.0f} s", file=sys.stderr)


# ---- the journal -----------------------------------------------------------------------

REMOTE = "/lib/systemd/systemd-journal-remote"


@unittest.skipUnless(os.access(REMOTE, os.X_OK) and shutil.which("journalctl"), "systemd-journal-remote is not installed")
class Journal(unittest.TestCase):
    maxDiff = None

    def test_journalctl_shows_our_records_with_our_fields(self):
        told = make_logs("journal-logs", RECORDS)
        export = run(program("qdlogview"), "-o", "journal", "journal-logs")
        with open("export", "wb") as file:
            file.write(export)
        run(REMOTE, f"--output={HERE}/records.journal", "--split-mode=none", "export")
        shown_lines = run("journalctl", f"--file={HERE}/records.journal", "--all", "-o", "json", "--no-pager").splitlines()
        found = []
        for line in shown_lines:
            entry = json.loads(line)
            message = entry["MESSAGE"]
            found.append((entry["_HOSTNAME"], int(entry["QDUL_PRODUCT"]), int(entry["QDUL_MSGID"]), int(entry["__REALTIME_TIMESTAMP"]) // 1000,
                          entry.get("QDUL_CONTEXT", ""), bytes(message) if isinstance(message, list) else message.encode()))
        expected = [(each["host"], each["product"], each["id"], each["ts"], each["context"], each["text"].replace(b"\r", b"\n")) for each in told]
        self.assertEqual(sorted(found), sorted(expected))
        errors = run("journalctl", f"--file={HERE}/records.journal", "-p", "err", "QDUL_PRODUCT=5", "-o", "cat", "--output-fields=QDUL_MSGID").splitlines()
        self.assertEqual(len(errors), sum(each["product"] == 5 and is_error(each) for each in told))


class Journald(unittest.TestCase):
    @unittest.skipUnless(os.access(REMOTE, os.X_OK) and shutil.which("journalctl"), "systemd-journal-remote is not installed")
    def test_a_spool_goes_into_a_journal(self):
        told = make_logs("journald-logs", 2000)
        for name in ("journald-spool", "journald"):
            os.mkdir(name)
        ship = [program("qdlogview"), "--spool=journald-spool", "--cursor-file=journald-place", "-o", "journal", "--spool-size=200K", "journald-logs"]
        for words in (["-m1000"], []):
            run(*ship, *words)
            run(f"{SOURCE}/packaging/journald/qdul-journal", "journald-spool", "journald", env={**ENVIRONMENT, "QDUL_JOURNAL_REMOTE": REMOTE})
            self.assertEqual(os.listdir("journald-spool"), [])
        shown_lines = run("journalctl", f"--file={HERE}/journald/qdul.journal", "-o", "cat", "--output-fields=QDUL_MSGID", "--no-pager").splitlines()
        self.assertEqual(len(shown_lines), len(told))


# ---- OpenTelemetry ---------------------------------------------------------------------

DECODER = "@opentelemetry/otlp-transformer@0.57.2"


def node_modules():
    """Where the decoder is, from OTLP_MODULES or installed here; None when it cannot be had."""
    if os.environ.get("OTLP_MODULES"):
        return os.environ["OTLP_MODULES"]
    if not shutil.which("npm") or not shutil.which("node"):
        return None
    words = ["npm", "install", "--prefix", f"{HERE}/npm", "--no-audit", "--no-fund", "--ignore-scripts", "--fetch-retries=0", DECODER]
    done = subprocess.run(words, capture_output=True, env={**os.environ, "HOME": HERE}, timeout=300)
    return f"{HERE}/npm/node_modules" if done.returncode == 0 else None


class OpenTelemetry(unittest.TestCase):
    maxDiff = None

    def test_its_own_messages_decode_every_record_whole(self):
        modules = node_modules()
        if modules is None:
            self.skipTest(f"node, or {DECODER} by npm, is not to be had")
        told = make_logs("otlp-logs", RECORDS)
        trace = b"00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01"
        with open("otlp-logs/9-7-1-240301-0000000000.log", "wb") as file:
            file.write(b"$Header 65543,9,7,%d,0,hostA\n" % (T0 // 1000) + record(4, 9, 7, 2**64 - 1, T0, trace, b"traced", b"alice", -1))
        export = run(program("qdlogview"), "-o", "otlp-json", "otlp-logs")
        found = [json.loads(line) for line in run("node", f"{SOURCE}/tests/support/otlp_decode.js", modules, input=export).splitlines()]
        self.assertEqual(len(found), len(told) + 1)
        severities = {0: (5, "debug"), 4: (10, "audit"), 2: {0: (9, "info"), 1: (13, "warning"), 2: (17, "error"), 3: (18, "critical"), 4: (21, "emergency")}}
        kinds = {0: "debug", 2: "application", 4: "audit"}

        def expected(each):
            number, word = severities[2][each["number"]] if each["kind"] == 2 else severities[each["kind"]]
            attributes = {"qdul.kind": kinds[each["kind"]], "qdul.product": {"int": str(each["product"])}, "qdul.originator": {"int": "7"},
                          "qdul.msgid": {"int": str(each["id"])}, "thread.id": {"int": "43"}}
            attributes.update({"qdul.context": each["context"]} if each["context"] else {})
            attributes.update({"qdul.who": "mgr"} if each["kind"] != 4 else {"qdul.subject": "mgr", "qdul.outcome": str(each["number"])})
            attributes.update({"qdul.level": str(each["number"])} if each["kind"] == 0 else {})
            try:
                each["text"].decode()
            except UnicodeDecodeError:
                attributes["qdul.text_hex"] = each["text"].hex()
            return {"resource": {"service.name": str(each["product"]), "service.instance.id": each["host"] + ":42", "host.name": each["host"], "process.pid": {"int": "42"}},
                    "attributes": attributes, "timeUnixNano": f"{each['ts']}000000", "severityNumber": number, "severityText": word,
                    "body": {"stringValue": shown(each["text"])}}

        def order(each):
            attributes = each["attributes"]
            return each["resource"]["host.name"], attributes["qdul.product"]["int"], each["timeUnixNano"], int(attributes["qdul.msgid"]["int"])

        (traced,) = [each for each in found if each["resource"]["service.name"] == "9"]
        self.assertEqual((traced["traceId"], traced["spanId"], traced["attributes"]["qdul.msgid"]), (trace[3:35].decode(), trace[36:52].decode(), str(2**64 - 1)))
        found.remove(traced)
        places = {(each["attributes"].pop("log.file.path"), each["attributes"].pop("qdul.offset")["int"]) for each in found}
        self.assertEqual(len(places), len(told))
        self.assertEqual(sorted(found, key=order), sorted(map(expected, told), key=order))


# ---- units -----------------------------------------------------------------------------

@unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
class Units(unittest.TestCase):
    def test_the_units_are_understood_and_guarded(self):
        """In what they may do: of 10 the spool's has no more than 2."""
        os.mkdir("units")
        for path in (*glob.glob(f"{SOURCE}/packaging/systemd/*spool.service"), *glob.glob(f"{SOURCE}/packaging/journald/*.[sp][ea]*"),
                     f"{SOURCE}/packaging/rsyslog/qdul-edge.service"):
            text = re.sub(r"/usr/(?:bin|lib)/(?:qdul/)?(?=qdl?u?l)", "/bin/true ", read(path))
            write(f"units/{os.path.basename(path)}", text)
        units = sorted(os.listdir("units"))
        self.assertEqual(units, ["qdlogview-spool.service", "qdul-edge.service", "qdul-journal.path", "qdul-journal.service"])
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", *(f"{HERE}/units/{unit}" for unit in units)], capture_output=True, text=True, env=ENVIRONMENT)
        self.assertEqual([line for line in done.stderr.splitlines() if "qdul" in line or "qdlog" in line], [])
        report = run("systemd-analyze", "security", "--offline=true", f"{HERE}/units/qdlogview-spool.service").decode()
        self.assertLessEqual(float(re.search(r"exposure level for \S+: ([\d.]+)", report).group(1)), 2.0)


# ---- lnav ------------------------------------------------------------------------------

@unittest.skipUnless(shutil.which("lnav"), "lnav is not installed")
class Lnav(unittest.TestCase):
    def ask(self, query, *files):
        os.makedirs("lnav/formats/qdul", exist_ok=True)
        shutil.copy(f"{SOURCE}/packaging/lnav/qdul.json", "lnav/formats/qdul/qdul.json")
        out = run("lnav", "-n", "-N", "-I", f"{HERE}/lnav", "-c", f";{query}", "-c", ":write-json-to -", "-q", *files, env={**ENVIRONMENT, "HOME": HERE})
        return json.loads(out)

    def test_lines_and_json_are_understood(self):
        os.mkdir("lnav-logs")
        path = f"{HERE}/lnav-logs/5-7-1-240301-0000000000.log"
        lines = [record(2, 5, 7, 1, T0, b"", b"Disk full, 2 of 3", b"mgr", 2), record(2, 5, 7, 2, T0 + 1, b"job-77", b"plain", b"a,b,c", 0),
                 record(0, 5, 7, 3, T0 + 2, b"", b"trace", b"net", 6), record(1, 5, 7, 4, T0 + 3, b"", b"diag", b"net", 4),
                 record(3, 5, 7, 5, T0 + 4, b"", b"begin", b"job-77", 0), record(4, 5, 7, 6, T0 + 5, b"", b"refused", b"alice", -1)]
        with open(path, "wb") as file:
            file.write(b"$Header 65543,5,7,1709294400,0,hostA\n" + b"".join(lines))
        rows = self.ask("SELECT msgid, log_level, who, log_body FROM qdul_log WHERE msgid IS NOT NULL ORDER BY msgid", path)
        levels = ["error", "info", "trace", "debug", "info", "notice"]
        self.assertEqual([(int(row["msgid"]), row["log_level"]) for row in rows], list(enumerate(levels, 1)))
        self.assertEqual([(row["who"], row["log_body"]) for row in rows[:2]], [("mgr", "Disk full, 2 of 3"), ("a,b,c", "plain")])
        with open("records.json", "wb") as file:
            file.write(run(program("qdlogview"), "-o", "json", path))
        rows = self.ask("SELECT msgid, log_level, who, log_body, context FROM qdul_json_log ORDER BY msgid", "records.json")
        self.assertEqual([(int(row["msgid"]), row["log_level"]) for row in rows], list(enumerate(levels, 1)))
        self.assertEqual((rows[1]["who"], rows[1]["context"]), ("a,b,c", "job-77"))


if __name__ == "__main__":
    unittest.main()
