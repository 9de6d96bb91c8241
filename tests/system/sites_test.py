#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Two machines that log and ship, and a central one with PostgreSQL and rsyslog, each in a network namespace with
a name of its own, while everything is killed: each record is in the tables once, with its text, in the order of its
file. Both ways of packaging/ at once: spool and qdul-load into qdul_records, spool and rsyslog into qdul_json.
Afterwards the same files through the journal and through OpenTelemetry's decoder.

SITES_RECORDS (10000) for each machine, at SITES_RATE (2000) a second; SITES_KILLS (10) of the processes of each
way, SITES_STOPS (2) of the central machine and of each rsyslog that sends."""
import collections
import glob
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

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, program, read, string, write
from ship_test import HOSTILE, REMOTE, find_server, node_modules, shown

RECORDS = int(os.environ.get("SITES_RECORDS", "10000"))
RATE = int(os.environ.get("SITES_RATE", "2000"))
KILLS = int(os.environ.get("SITES_KILLS", "10"))
STOPS = int(os.environ.get("SITES_STOPS", "2"))
USER = 65534  # PostgreSQL refuses to be root
PORT, RELP = "5432", "10514"
T0 = 1709294400000  # 2024-03-01 12:00 UTC
CENTRAL = f"qdul{os.getpid()}c"


def run(*words, **more):
    done = subprocess.run(words, capture_output=True, **more)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, words))[:300]}: {done.returncode} {done.stderr[-2000:]}")
    return done.stdout


def tell(*words):
    print(f"{time.strftime('%H:%M:%S')} ", *words, file=sys.stderr, flush=True)


class Machine:
    """A namespace, what runs in it, and a directory."""

    def __init__(self, name, number):
        self.name, self.space = name, CENTRAL if name == "central" else f"qdul{os.getpid()}{name[-1]}"
        self.directory = f"{HERE}/{name}"
        self.address, self.centrals = f"10.99.{number}.2", f"10.99.{number}.1"
        os.mkdir(self.directory)
        os.makedirs(f"/etc/netns/{self.space}")
        write(f"/etc/netns/{self.space}/hosts", f"127.0.0.1 localhost\n{self.address} {name}\n")
        run("ip", "netns", "add", self.space)
        run("ip", "-n", self.space, "link", "set", "lo", "up")
        if name != "central":
            outer, inner = f"{self.space}o", f"{self.space}i"
            run("ip", "link", "add", outer, "netns", CENTRAL, "type", "veth", "peer", "name", inner, "netns", self.space)
            for space, link, address in ((CENTRAL, outer, self.centrals), (self.space, inner, self.address)):
                run("ip", "-n", space, "addr", "add", f"{address}/24", "dev", link)
                run("ip", "-n", space, "link", "set", link, "up")

    def words(self, *words):
        """The command there; it keeps the process that starts it."""
        return ["ip", "netns", "exec", self.space, "unshare", "--uts", "sh", "-c", f'hostname {self.name}; exec "$@"', "sh", *words]

    def start(self, *words, **more):
        return subprocess.Popen(self.words(*words), **{"start_new_session": True, "stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                                                       "stderr": subprocess.DEVNULL, **more})

    def remove(self):
        subprocess.run(["ip", "netns", "del", self.space], capture_output=True)
        shutil.rmtree(f"/etc/netns/{self.space}", ignore_errors=True)


def end(process, how=signal.SIGTERM, most=120):
    """Ends a process, with all that it started when it is killed."""
    if process.poll() is None:
        if how == signal.SIGKILL:
            os.killpg(process.pid, how)
        else:
            process.send_signal(how)
    return process.wait(most)


class Kept(threading.Thread):
    """A process that is started again when it was killed, or has ended."""

    def __init__(self, start, before=lambda: None, pause=0.0):
        super().__init__(daemon=True)
        self.start_it, self.before, self.pause = start, before, pause
        self.lock, self.over, self.kills = threading.Lock(), threading.Event(), 0
        self.process = None
        self.start()

    def run(self):
        while not self.over.is_set():
            with self.lock:
                if self.over.is_set():
                    return
                self.before()
                self.process = self.start_it()
            self.process.wait()
            self.over.wait(self.pause)

    def kill(self):
        with self.lock:
            if self.process is not None and self.process.poll() is None:
                end(self.process, signal.SIGKILL)
                self.kills += 1
                return True
        return False

    def end(self):
        self.over.set()
        with self.lock:
            status = end(self.process)
        self.join()
        return status


class Central(Machine):
    def __init__(self):
        super().__init__("central", 0)
        self.bin = find_server()
        self.data = f"{self.directory}/pg"
        os.mkdir(self.data)
        os.chown(self.data, USER, USER)
        self.environment = plain_environment(LC_ALL="C.UTF-8", PGHOST="127.0.0.1", PGPORT=PORT, PGUSER="bench", PGDATABASE="postgres")
        self.environment["PATH"] = f"{self.bin}:" + self.environment["PATH"]
        self.as_user = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--"]
        run(*self.as_user, f"{self.bin}/initdb", "-D", f"{self.data}/data", "-A", "trust", "-U", "bench", "--no-sync", "--locale=C.UTF-8",
            cwd=self.data, env=self.environment)
        with open(f"{self.data}/data/pg_hba.conf", "a", encoding="utf-8") as file:
            file.write("host all all 10.99.0.0/16 trust\n")
        text = read(f"{SOURCE}/packaging/rsyslog/qdul-central.conf")
        os.mkdir(f"{self.directory}/rsyslog")
        for old, new in {"USER@127.0.0.1:5432/DATABASE": f"bench@127.0.0.1:{PORT}/postgres", "/var/spool/rsyslog": f"{self.directory}/rsyslog",
                         'Interval="5"': 'Interval="1"'}.items():
            assert old in text, old
            text = text.replace(old, new)
        write(f"{self.directory}/rsyslog.conf", text)
        self.start_all()
        self.psql("-f", f"{SOURCE}/docs/sql/qdul.sql")

    def start_all(self):
        settings = {"listen_addresses": "*", "unix_socket_directories": "", "port": PORT, "fsync": "off", "timezone": "UTC", "shared_buffers": "512MB",
                    "max_wal_size": "4GB"}
        words = [word for name, value in settings.items() for word in ("-c", f"{name}={value}")]
        with open(f"{self.directory}/postgres.out", "ab") as out:
            self.server = self.start(*self.as_user, f"{self.bin}/postgres", "-D", f"{self.data}/data", *words, stdout=out, stderr=out,
                                     env=self.environment, cwd=self.data)
        for _ in range(600):
            if subprocess.run(self.words("psql", "-Xqc", "SELECT 1"), env=self.environment, capture_output=True).returncode == 0:
                break
            time.sleep(0.1)
        self.rsyslog = self.start("rsyslogd", "-n", "-f", f"{self.directory}/rsyslog.conf", "-i", f"{self.directory}/rsyslog.pid")

    def stop_all(self, how):
        end(self.rsyslog)
        end(self.server, how)

    def psql(self, *words):
        return run(*self.words("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", *words), env=self.environment).decode()

    def number(self, query):
        return int(self.psql("-c", query))


class Site(Machine):
    """Logs as product 5, originator 7 through the library; product 6 is files with hostile texts."""

    def __init__(self, name, number):
        super().__init__(name, number)
        directory = self.directory
        for part in ("logs", "columns", "json", "rsyslog"):
            os.mkdir(f"{directory}/{part}")
        write(f"{directory}/main.conf", f"5.Configuration={directory}/5.conf\n5.Names=server\n6.Configuration={directory}/6.conf\n6.Names=odd\n")
        for product in (5, 6):
            write(f"{directory}/{product}.conf", f"Default.LogDirectory={directory}/logs/\nDefault.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=8192\n")
        lines = [b"$Header 65543,6,7,%d,0,%s\n" % (T0 // 1000, name.encode())]
        self.hostile = [HOSTILE[n % len(HOSTILE)] + b" %d" % n for n in range(60)]
        for n, text in enumerate(self.hostile):
            lines.append(b"2,6,7,7,%d,%d,42,43,%s%s%s2,(0|)\n" % (n + 1, T0 + n, string(b"job"), string(text), string(b"mgr")))
        with open(f"{directory}/logs/6-7-{number}-240301-0000000000.log", "wb") as file:
            file.write(b"".join(lines))
        self.environment = plain_environment(LC_ALL="C.UTF-8", ZOLTLOG_CFG_LOC=f"{directory}/main.conf", PGHOST=self.centrals, PGPORT=PORT, PGUSER="bench",
                                             PGDATABASE="postgres", PGCONNECT_TIMEOUT="5")
        self.environment["PATH"] = f"{BUILD}/bin:{find_server()}:" + self.environment["PATH"]
        text = read(f"{SOURCE}/packaging/rsyslog/qdul-edge.conf")
        for old, new in {"CENTRAL": self.centrals, "/var/lib/qdul-spool/files": f"{directory}/json", "/var/lib/qdul-edge": f"{directory}/rsyslog",
                         'Interval="5"': 'Interval="1"'}.items():
            assert old in text, old
            text = text.replace(old, new)
        write(f"{directory}/rsyslog.conf", text)
        self.sent = 0

    def text(self, n):
        return f"request {n} of {self.name}, it's '{n * 7 % 1000}' ms\\"

    def log(self):
        """Sends the records, some at a time."""
        process = self.start(program("qdlogger"), "-P", "5", "-u", "7", "-t", "mgr", stdin=subprocess.PIPE, env=self.environment)
        start = time.monotonic()
        while self.sent < RECORDS:
            more = min(RECORDS - self.sent, max(1, RATE // 20))
            process.stdin.write("".join(self.text(n) + "\n" for n in range(self.sent, self.sent + more)).encode())
            process.stdin.flush()
            self.sent += more
            time.sleep(max(0.0, start + self.sent / RATE - time.monotonic()))
        process.stdin.close()
        self.logged = process.wait()

    def ship_words(self, form, where):
        return [program("qdlogview"), "-q", "-D", f"{self.directory}/logs", f"--spool={self.directory}/{where}",
                f"--cursor-file={self.directory}/{where}.place", "-o", form, "--spool-age=2s", "--spool-size=4M"]

    def ship(self, form, where):
        with open(f"{self.directory}/{where}.err", "ab") as errors:
            return self.start(*self.ship_words(form, where), "-f", env=self.environment, stderr=errors)

    def load(self):
        with open(f"{self.directory}/load.err", "ab") as errors:
            return self.start(f"{SOURCE}/packaging/postgres/qdul-load", f"{self.directory}/columns", env=self.environment, stderr=errors)

    def send(self):
        return self.start("rsyslogd", "-n", "-f", f"{self.directory}/rsyslog.conf", "-i", f"{self.directory}/rsyslog.pid")

    def forget(self):
        """What qdul-edge.service does before it starts: all that is in the spool is sent again."""
        for path in glob.glob(f"{self.directory}/rsyslog/imfile-state*"):
            os.remove(path)


class Sites(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        os.chmod(HERE, 0o711)
        cls.central = None
        cls.sites = []
        cls.kept = []
        cls.central = Central()
        cls.sites = [Site("hosta", 1), Site("hostb", 2)]
        cls.expected = len(cls.sites) * (RECORDS + 60)

    @classmethod
    def tearDownClass(cls):
        for each in cls.kept:
            each.over.set()
            each.kill()
        if cls.central is not None:
            cls.central.stop_all(signal.SIGQUIT)
        for machine in [*cls.sites, cls.central]:
            if machine is not None:
                machine.remove()

    def wait_until(self, what, condition, most):
        stop = time.monotonic() + most
        while not condition():
            if time.monotonic() > stop:
                self.fail(f"waited in vain for: {what}")
            time.sleep(max(0.5, self.expected / 200000))  # counting costs, too

    def chaos(self):
        """Kills while records are sent, spread over the time; then the counts."""
        chance = random.Random(17)
        events = [("columns", None)] * KILLS + [("json", None)] * KILLS + [("load", None)] * (KILLS // 2)
        chance.shuffle(events)
        for n in range(STOPS):  # at even distances
            events.insert((n + 1) * len(events) // (STOPS + 1), ("central", (signal.SIGINT, signal.SIGQUIT)[n % 2]))
            for site in range(len(self.sites)):
                events.insert((2 * n + 1 + site) * len(events) // (2 * STOPS + 2), ("rsyslog", site))
        seconds = max(RECORDS / RATE, 10)
        pause = seconds / (len(events) + 1)
        counts = collections.Counter()
        for name, which in events:
            time.sleep(chance.uniform(0.5, 1.5) * pause)
            if name == "central":
                tell("the central machine stops")
                self.central.stop_all(which)
                time.sleep(min(20, max(2, seconds / 20)))
                self.central.start_all()
                tell("the central machine is back")
                counts[name] += 1
                continue
            kept = self.by_name[name][which if which is not None else chance.randrange(len(self.sites))]
            for _ in range(200):
                if kept.kill():
                    counts[name] += 1
                    break
                time.sleep(0.05)
        return counts

    def test_each_record_is_in_the_tables_once(self):
        started = time.monotonic()
        self.by_name = {name: [] for name in ("columns", "json", "load", "rsyslog")}
        for site in self.sites:
            self.by_name["columns"].append(Kept(lambda site=site: site.ship("postgres", "columns"), pause=0.1))
            self.by_name["json"].append(Kept(lambda site=site: site.ship("json", "json"), pause=0.1))
            self.by_name["load"].append(Kept(site.load, pause=0.5))
            self.by_name["rsyslog"].append(Kept(site.send, site.forget, pause=0.5))
        for group in self.by_name.values():
            self.kept.extend(group)
        senders = [threading.Thread(target=site.log) for site in self.sites]
        for sender in senders:
            sender.start()
        counts = self.chaos()
        for sender in senders:
            sender.join()
        self.assertEqual([site.logged for site in self.sites], [0, 0])
        logged = time.monotonic() - started
        self.assertEqual(counts, {"columns": KILLS, "json": KILLS, "load": KILLS // 2, "central": STOPS, "rsyslog": STOPS * len(self.sites)})
        most = 120 + self.expected / 500
        self.wait_until("qdul_records", lambda: self.central.number("SELECT count(*) FROM qdul_records") >= self.expected, most)
        columns = time.monotonic() - started
        tell(f"= {self.expected} records from {len(self.sites)} machines: all in qdul_records after {columns:.0f} s, {self.expected / columns:.0f}/s; "
             f"logged in {logged:.0f} s; kills and stops {dict(counts)}")
        self.check_table("qdul_records")
        tell("= qdul_records: each once, in the order of its file, with its text")
        self.wait_until("qdul_json", lambda: self.central.number("SELECT count(*) FROM qdul_json") >= self.expected, most)
        both = time.monotonic() - started
        tell(f"= {self.expected} records: all in qdul_json by rsyslog after {both:.0f} s, {self.expected / both:.0f}/s")
        self.check_table("qdul_json")
        tell("= qdul_json: each once, in the order of its file, with its text")
        for group in self.by_name.values():
            for each in group:
                each.end()

    def check_table(self, which):
        number = self.central.number
        for table, host, product, id, text, place, context in (
                ("qdul_records", "host", "product", "msgid", "text", '"offset"', "context"),
                ("qdul_json", "record->>'host'", "(record->>'product')::int", "(record->>'msgid')::int", "record->>'text'", "(record->>'offset')::bigint",
                 "record->>'context'")):
            if table != which:
                continue
            file = "file" if table == "qdul_records" else "record->>'file'"
            self.assertEqual(number(f"SELECT count(*) FROM {table}"), self.expected)
            self.assertEqual(number(f"SELECT count(DISTINCT ({host}, {product}, {id})) FROM {table}"), self.expected)
            for site in self.sites:
                mine = f"FROM {table} WHERE {host} = '{site.name}' AND {product} = "
                self.assertEqual(number(f"SELECT count(*) {mine} 5"), RECORDS)
                # Every text is that of its number, and numbers go up along each file and from file to file.
                wrong = f"SELECT count(*) {mine} 5 AND {text} <> format($$request %s of {site.name}, it's '%s' ms\\$$, {id} - 1, ({id} - 1) * 7 % 1000)"
                self.assertEqual(number(wrong), 0)
                order = (f"SELECT count(*) FROM (SELECT {id} AS id, lag({id}) OVER (ORDER BY {file}, {place}) AS before {mine} 5) AS o"
                         " WHERE before IS NOT NULL AND id <> before + 1")
                self.assertEqual(number(order), 0)
                found = json.loads(self.central.psql("-c", f"SELECT json_agg({text} ORDER BY {id}) {mine} 6"))
                line = (lambda text: text.decode(errors="replace")) if table == "qdul_json" else shown
                self.assertEqual(found, [line(text).replace("\0", "\ufffd") for text in site.hostile])
                if table == "qdul_records":  # in the order in which they were loaded, too
                    placed = (f"SELECT count(*) FROM (SELECT {id} AS id, lag({id}) OVER (ORDER BY tableoid, ctid) AS before {mine} 5) AS o"
                              " WHERE before IS NOT NULL AND id < before")
                    tell(f"{site.name}: {number(placed)} of {RECORDS} rows of qdul_records lie before one that was logged earlier")

    def test_the_journal_and_opentelemetry_have_as_many(self):
        """After the test above: in the order of their names."""
        logs = [f"{site.directory}/logs" for site in self.sites]
        words = [word for directory in logs for word in ("-D", directory)]
        count = int(run(program("qdlogview"), "-q", "--count", *words, env=plain_environment()))
        self.assertEqual(count, self.expected)
        if os.access(REMOTE, os.X_OK):
            started = time.monotonic()
            os.mkdir("journal")
            os.mkdir("journal-spool")
            run(program("qdlogview"), "-q", *words, "--spool=journal-spool", "--cursor-file=journal.place", "-o", "journal", env=plain_environment())
            run(f"{SOURCE}/packaging/journald/qdul-journal", "journal-spool", "journal", env=plain_environment(QDUL_JOURNAL_REMOTE=REMOTE))
            lines = 0
            files = glob.glob("journal/*.journal")
            shows = subprocess.Popen(["journalctl", *(f"--file={HERE}/{path}" for path in files), "-o", "export", "--output-fields=QDUL_MSGID", "--no-pager"],
                                     stdout=subprocess.PIPE, env=plain_environment())
            with shows.stdout:
                for line in shows.stdout:
                    lines += line.startswith(b"QDUL_MSGID=")
            self.assertEqual((shows.wait(), lines), (0, self.expected))
            tell(f"= {lines} records through systemd-journal-remote in {time.monotonic() - started:.0f} s, "
                 f"{sum(map(os.path.getsize, files)) / lines:.0f} bytes each in {len(files)} files")
            shutil.rmtree("journal-spool")
            shutil.rmtree("journal")
        modules = node_modules()
        if modules is not None:
            started = time.monotonic()
            export = subprocess.Popen([program("qdlogview"), "-q", *words, "-o", "otlp-json"], stdout=subprocess.PIPE, env=plain_environment())
            with export.stdout:
                counted = int(run("node", f"{SOURCE}/tests/support/otlp_decode.js", modules, "count", stdin=export.stdout))
            self.assertEqual((export.wait(), counted), (0, self.expected))
            tell(f"= {counted} records through OpenTelemetry's decoder in {time.monotonic() - started:.0f} s")


def missing():
    if os.geteuid() != 0:
        return "it makes network namespaces, as root"
    for name in ("ip", "rsyslogd", "setpriv", "unshare"):
        if not shutil.which(name):
            return f"no {name}"
    if find_server() is None or not glob.glob("/usr/lib/*/rsyslog/ompgsql.so") or not glob.glob("/usr/lib/*/rsyslog/omrelp.so"):
        return "PostgreSQL, rsyslog-pgsql or rsyslog-relp is not installed"
    if subprocess.run(["ip", "netns", "add", CENTRAL], capture_output=True).returncode != 0:
        return "no network namespaces here"
    run("ip", "netns", "del", CENTRAL)
    return None


if __name__ == "__main__":
    if missing():
        print(f"skipped: {missing()}")
        sys.exit(77)
    unittest.main()
