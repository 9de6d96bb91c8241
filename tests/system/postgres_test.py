#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A real server that forks for every connection: PostgreSQL logs each statement through libqdul-syslog.so,
to a series that rolls over by size, while pgbench opens a new connection for every transaction. What pgbench
reports is what is found: no statement and no connection is missing or there twice, and each record has the
process number that the server itself tells. POSTGRES_SECONDS is how long that goes on (default 4)."""
import collections
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

from qdul_testing import BUILD, HERE, plain_environment, program, read, write

SECONDS = int(os.environ.get("POSTGRES_SECONDS", "4"))
CLIENTS = 4
USER = 65534  # the server refuses to be root
STATEMENTS = ["BEGIN;", "INSERT INTO told VALUES (:client_id);", "SELECT 'Grüße', count(*) FROM told WHERE id < 0;", "END;"]


def missing(what):
    print(f"skipped: {what}")
    sys.exit(77)


def check(holds, message):
    if not holds:
        sys.exit(f"FAILED: {message}")


def find_server():
    """The directory of the newest server's programs."""
    places = sorted(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda place: float(place.split("/")[4]))
    for place in reversed(places):
        if all(os.access(f"{place}/{name}", os.X_OK) for name in ("initdb", "postgres", "psql", "pgbench")):
            return place
    return missing("PostgreSQL is not installed (Debian: postgresql)")


if re.search(r"(?m)^QDUL_SANITIZE:STRING=.", read(f"{BUILD}/CMakeCache.txt")):
    missing("a sanitizer's runtime would have to be preloaded into the server")
server_bin = find_server()

# ---- the place: everything in this directory, which belongs to the server's user -----------
for name in ("libqdul-syslog.so", "libqdul.so.3", "libqdlis.so.3"):
    shutil.copy(f"{BUILD}/lib/{name}", name)
write("zoltlog.conf", f"5.Configuration={HERE}/product.conf\n5.Names=store\n")
write("product.conf", f"Default.LogDirectory={HERE}/log/\nDefault.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=32\n"
      "20.OIDNames=postgres\n")
write("script.sql", "".join(statement + "\n" for statement in STATEMENTS))
as_user = []
if os.geteuid() == 0:
    for path in [HERE] + [f"{HERE}/{name}" for name in os.listdir(HERE)]:
        os.chown(path, USER, USER)
    as_user = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--"]
environment = plain_environment(LC_ALL="C.UTF-8", PGHOST=HERE, PGPORT="54329", PGUSER="bench", PGDATABASE="postgres")
logging = {"ZOLTLOG_CFG_LOC": f"{HERE}/zoltlog.conf", "QDUL_SYSLOG_PRODUCT": "store", "LD_PRELOAD": f"{HERE}/libqdul-syslog.so"}


def run(*command, **variables):
    done = subprocess.run(as_user + list(command), capture_output=True, text=True, env={**environment, **variables}, cwd=HERE)
    check(done.returncode == 0, f"{' '.join(command)}: {done.stdout}{done.stderr}")
    return done.stdout


# ---- the run ---------------------------------------------------------------------------------
run(f"{server_bin}/initdb", "-D", "data", "-A", "trust", "-U", "bench", "--no-sync", "--locale=C.UTF-8")
settings = {"listen_addresses": "", "unix_socket_directories": HERE, "port": "54329", "fsync": "off", "max_connections": "40",
            "log_destination": "syslog", "syslog_ident": "postgres", "syslog_split_messages": "off",
            "syslog_sequence_numbers": "off", "log_statement": "all", "log_connections": "on", "log_disconnections": "on",
            "log_line_prefix": "%p "}
options = [word for name, value in settings.items() for word in ("-c", f"{name}={value}")]
with open("server.out", "wb") as out:
    server = subprocess.Popen(as_user + [f"{server_bin}/postgres", "-D", "data"] + options, env={**environment, **logging},
                              cwd=HERE, stdin=subprocess.DEVNULL, stdout=out, stderr=out)
try:
    for _ in range(300):
        ready = subprocess.run([f"{server_bin}/psql", "-Xqc", "CREATE TABLE told (id int)"], env=environment, capture_output=True)
        if ready.returncode == 0 or server.poll() is not None:
            break
        time.sleep(0.1)
    check(ready.returncode == 0, f"the server does not answer: {read('server.out')}")
    report = run(f"{server_bin}/pgbench", "-n", "-C", "-c", str(CLIENTS), "-j", "2", "-T", str(SECONDS), "-f", "script.sql")
finally:
    server.send_signal(signal.SIGINT)  # ends the sessions and stops
    try:
        server.wait(60)
    except subprocess.TimeoutExpired:
        server.kill()
check(server.returncode == 0, f"the server ended with {server.returncode}: {read('server.out')}")
transactions = int(re.search(r"number of transactions actually processed: (\d+)", report).group(1))
failed = re.search(r"number of failed transactions: (\d+)", report)
check(failed is None or failed.group(1) == "0", report)
check(transactions > SECONDS, report)

# ---- told and found --------------------------------------------------------------------------
viewer = subprocess.Popen([program("qdlogview"), "--quiet", "--no-pager", "-P", "5", "-o", "json"],
                          env=plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf"), stdout=subprocess.PIPE, text=True)
statements = collections.Counter()
per_process = collections.Counter()
connections = set()
ended = set()
records = 0
for line in viewer.stdout:
    record = json.loads(line)
    records += 1
    pid, text = record["text"].split(" ", 1)
    check(int(pid) == int(record["pid"]), f"process {pid} has its record under {record['pid']}: {text}")
    check((record["who"], int(record["originator"]), record["kind"]) == ("postgres", 20, "application"), line)
    if match := re.match(r"LOG:  statement: (.*)", text, re.S):
        statements[re.sub(r"\(\d+\)", "(:client_id)", match.group(1))] += 1
        per_process[pid] += 1
    elif match := re.match(r"LOG:  connection authorized: .*application_name=(\w+)", text):
        if match.group(1) == "pgbench":
            check(pid not in connections, f"process {pid} is there twice; were all numbers used up?")
            connections.add(pid)
    elif text.startswith("LOG:  disconnection: "):
        ended.add(pid)
check(viewer.wait() == 0, f"qdlogview ended with {viewer.returncode}")
told = transactions * len(STATEMENTS)
found = sum(statements[statement] for statement in STATEMENTS)
verified = subprocess.run([program("qdlogmgr"), "verify", "-P", "5"], capture_output=True, text=True,
                          env=plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf"))
files = len(os.listdir("log"))
# One connection more, which asks for the server's version only
busy = {pid for pid in connections if per_process[pid] > 0}
print(f"{SECONDS} s: {transactions} connections told, {len(busy)} found; {told} statements told, {found} found; "
      f"{len(connections)} processes, {records} records in {files} files; verify: {verified.returncode}")
for statement in STATEMENTS:
    check(statements[statement] == transactions, f"{statement} told {transactions} times, found {statements[statement]} times")
check(len(busy) == transactions and len(connections) == transactions + 1, "connections are missing, or too many")
check(connections <= ended, f"{len(connections - ended)} connections have no end")
check(all(per_process[pid] == len(STATEMENTS) for pid in busy), "a process has more or fewer statements than it made")
check(files > 1, "there was no rollover")
check(verified.returncode == 0, f"verify: {verified.stdout}{verified.stderr}")
