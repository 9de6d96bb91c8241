#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What operators ask of many records, in PostgreSQL and in DuckDB: the answers are those of the records that were
made, and what loading, room and answers cost is told. STORES_RECORDS (100000) is how many; DuckDB comes by npm, or
from DUCKDB_MODULES."""
import collections
import json
import os
import shutil
import statistics
import subprocess
import sys
import time
import unittest

from qdul_testing import HERE, SOURCE, program, read
import ship_test
from ship_test import DAY, ENVIRONMENT, T0, find_server, run

RECORDS = int(os.environ.get("STORES_RECORDS", "100000"))
DUCKDB = "@duckdb/node-api@1.5.6-r.1"
DAYS, HOSTS, PRODUCTS, CONTEXTS = 10, 4, (5, 6, 8), max(RECORDS // 200, 10)
TIMES = 3
SINCE = T0 + DAY
COLUMNS = "ts,kind,product,originator,msgid,pid,tid,context,text,who,severity,severity_text,host,file,offset"


def tell(text):
    print(f"= {text}", file=sys.stderr, flush=True)


def make_logs():
    """A file for each product, host and day; the answers that the three questions have."""
    os.mkdir("logs")
    each = RECORDS // (DAYS * HOSTS * len(PRODUCTS))
    errors, context, minutes = 0, 0, collections.Counter()
    wanted = CONTEXTS // 2
    for day in range(DAYS):
        for host in range(HOSTS):
            for product in PRODUCTS:
                begin = T0 - T0 % DAY + day * DAY
                lines = [f"$Header 65543,{product},7,{begin // 1000},0,host{host}\n"]
                seed = day * 7919 + host * 104729 + product
                for id in range(each):
                    seed = (seed * 1103515245 + 12345) & 0x7FFFFFFF
                    when = begin + id * DAY // each
                    severity = 0 if seed % 100 < 90 else 1 + seed // 100 % 4
                    job = seed // 7 % CONTEXTS if seed % 5 == 0 else -1
                    token = f"job-{job}" if job >= 0 else ""
                    text = f"request {id} of client {seed % 9973} took {seed % 4999} ms, {seed % 777} bytes sent"
                    lines.append(f"2,{product},7,7,{id + 1},{when},{4000 + host},43,{len(token)}:{token},{len(text)}:{text},3:mgr,{severity},(0|)\n")
                    if SINCE <= when < SINCE + 3600000:
                        errors += product == 5 and severity >= 2
                        minutes[when // 60000, severity] += 1
                    context += job == wanted
                with open(f"logs/{product}-7-{host + 1}-2403{day + 1:02d}-0000000000.log", "w", encoding="ascii") as file:
                    file.write("".join(lines))
    return {"errors of one product in an hour": errors, "one context across three products": context, "by minute and severity, an hour": len(minutes)}


class Stores(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.answers = make_logs()
        cls.files = sorted(f"logs/{name}" for name in os.listdir("logs"))
        cls.count = RECORDS // len(cls.files) * len(cls.files)
        tell(f"{cls.count} records, {sum(map(os.path.getsize, cls.files)) / cls.count:.0f} bytes each in log files")

    @unittest.skipUnless(find_server(), "PostgreSQL is not installed (Debian: postgresql)")
    def test_postgresql(self):
        # Of a machine with 8 GB; the disk is waited for.
        ship_test.Postgres.start_server.__func__(Stores, fsync="on", shared_buffers="1GB", max_wal_size="8GB", maintenance_work_mem="512MB")
        try:
            psql = ["psql", "-XqAt", "-v", "ON_ERROR_STOP=1"]
            run(*psql, "-f", f"{SOURCE}/docs/sql/qdul.sql", env=self.environment)
            start = time.monotonic()
            for file in self.files:
                export = subprocess.Popen([program("qdlogview"), "-q", "-o", "postgres", file], stdout=subprocess.PIPE, env=ENVIRONMENT)
                with export.stdout:
                    run(*psql, "-c", "COPY qdul_rows FROM STDIN", env=self.environment, stdin=export.stdout)
                self.assertEqual(export.wait(), 0)
            took = time.monotonic() - start
            self.assertEqual(int(run(*psql, "-c", "SELECT count(*) FROM qdul_records", env=self.environment)), self.count)
            run(*psql, "-c", "VACUUM ANALYZE", env=self.environment)
            sizes = [int(number) for number in run(*psql, "-F", " ", "-c", "SELECT sum(pg_total_relation_size(inhrelid)), sum(pg_table_size(inhrelid)) FROM pg_inherits"
                                                   " WHERE inhparent = 'qdul_records'::regclass", env=self.environment).split()]
            tell(f"PostgreSQL: loaded in {took:.0f} s, {self.count / took:.0f}/s by one loader; {sizes[0] / 1e9:.2f} GB, {sizes[0] / self.count:.0f} bytes each,"
                 f" {sizes[1] / self.count:.0f} without indexes")
            queries = [query for query in read(f"{SOURCE}/docs/sql/queries.sql").split(";\n") if "SELECT" in query]
            words = [*psql, "-v", "product=5", "-v", f"since=@{SINCE}", "-v", f"context=job-{CONTEXTS // 2}"]
            words[words.index(f"since=@{SINCE}")] = f"since={time.strftime('%Y-%m-%d %H:%M:%SZ', time.gmtime(SINCE / 1000))}"
            for query, (question, answer) in zip(queries, self.answers.items()):
                spent = []
                for _ in range(TIMES):
                    out = run(*words, "-f", "-", env=self.environment, input=f"\\timing on\n{query};\n".encode()).decode().splitlines()
                    self.assertEqual(len(out) - 1, answer, question)
                    spent.append(float(out[-1].split()[1]))
                tell(f"PostgreSQL: {question}: {answer} rows, {spent[0]:.0f} ms at first, {statistics.median(spent[1:]):.0f} ms again")
        finally:
            ship_test.Postgres.tearDownClass.__func__(Stores)

    def test_duckdb(self):
        modules = os.environ.get("DUCKDB_MODULES")
        if not modules:
            if not shutil.which("npm") or not shutil.which("node"):
                self.skipTest("no npm")
            done = subprocess.run(["npm", "install", "--prefix", f"{HERE}/npm", "--no-audit", "--no-fund", "--ignore-scripts", "--fetch-retries=0", DUCKDB],
                                  capture_output=True, env={**os.environ, "HOME": HERE}, timeout=300)
            if done.returncode != 0:
                self.skipTest(f"{DUCKDB} is not to be had by npm")
            modules = f"{HERE}/npm/node_modules"
        os.mkfifo("records")
        export = subprocess.Popen(["sh", "-c", f"exec {program('qdlogview')} -q -o csv --fields={COLUMNS} logs > records"], env=ENVIRONMENT)
        hour = f"ts >= {SINCE} AND ts < {SINCE + 3600000}"
        queries = [f"SELECT ts, host, severity_text, originator, who, text FROM records WHERE product = 5 AND severity >= 60 AND {hour} ORDER BY ts, host, file, \"offset\"",
                   f"SELECT ts, host, product, severity_text, who, text FROM records WHERE context = 'job-{CONTEXTS // 2}' ORDER BY ts, host, file, \"offset\"",
                   f"SELECT ts // 60000 AS minute, severity_text, count(*) FROM records WHERE {hour} GROUP BY ALL ORDER BY ALL"]
        script = """
            const { DuckDBInstance } = require(process.argv[1] + '/@duckdb/node-api');
            (async () => {
                const db = await (await DuckDBInstance.create('records.duckdb')).connect();
                await db.run(`CREATE TABLE records AS SELECT * FROM read_csv('records', header = true, delim = ',', quote = '"', escape = '"', columns = {
                    ts: 'BIGINT', kind: 'VARCHAR', product: 'UBIGINT', originator: 'UBIGINT', msgid: 'UBIGINT', pid: 'UBIGINT', tid: 'UBIGINT', context: 'VARCHAR',
                    text: 'VARCHAR', who: 'VARCHAR', severity: 'INTEGER', severity_text: 'VARCHAR', host: 'VARCHAR', file: 'VARCHAR', "offset": 'UBIGINT' })`);
                await db.run('CHECKPOINT');
                const loaded = Date.now();
                const count = Number((await db.runAndReadAll('SELECT count(*) FROM records')).getRows()[0][0]);
                const spent = [];
                for (const query of JSON.parse(process.argv[2])) {
                    const times = [];
                    let rows = 0;
                    for (let turn = 0; turn < 3; ++turn) {
                        const start = performance.now();
                        rows = (await db.runAndReadAll(query)).getRows().length;
                        times.push(performance.now() - start);
                    }
                    spent.push([rows, times]);
                }
                console.log(JSON.stringify({ loaded, count, spent }));
            })();"""
        began = time.time()
        told = json.loads(run("node", "-e", script, os.path.abspath(modules), json.dumps(queries), env=ENVIRONMENT))
        self.assertEqual(export.wait(), 0)
        self.assertEqual(told["count"], self.count)
        took = told["loaded"] / 1000 - began
        tell(f"DuckDB: loaded in {took:.0f} s, {self.count / took:.0f}/s; {os.path.getsize('records.duckdb') / self.count:.0f} bytes each")
        for (rows, times), (question, answer) in zip(told["spent"], self.answers.items()):
            self.assertEqual(rows, answer, question)
            tell(f"DuckDB: {question}: {rows} rows, {times[0]:.0f} ms at first, {statistics.median(times[1:]):.0f} ms again")


if __name__ == "__main__":
    unittest.main()
