#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Records in the forms that other systems take: every byte of a hostile text arrives or is replaced as the
form says, and what is read back is what was written."""
import json
import re
import struct
import subprocess
import unittest

from qdul_testing import HERE, SOURCE, plain_environment, program, read, string, write

T0 = 1709300702123
LOG = f"{HERE}/5-7-16777343-240301-0000000000.log"
TRACE = b"00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01"
HOSTILE = b'quote" back\\slash ]tab\tlf\resc\x1b nul\x00 bad\xff \xc3\xa4\xe2\x82\xac'
SHOWN = 'quote" back\\slash ]tab\tlf\nesc\x1b nul\x00 bad\ufffd \u00e4\u20ac'


def record(id, kind, tail, text=b"text", who=b"mgr", context=b""):
    return b"%d,5,7,7,%d,%d,42,43,%s%s%s%s\n" % (kind, id, T0 + id, string(context), string(text), string(who), tail)


RECORDS = [record(1, 0, b"3"), record(2, 1, b"2,(0|)"), record(3, 2, b"0,(0|)"), record(4, 2, b"1,(0|)"), record(5, 2, b"2,(0|)"),
           record(6, 2, b"3,(0|)"), record(7, 2, b"4,(0|)", text=HOSTILE, context=TRACE),
           record(8, 3, b"(0|)", text=b"begin", who=b"job-77"), record(18446744073709551615, 4, b"-1,(0|)", who=b'al]i"ce\\')]
RECORDS[8] = RECORDS[8].replace(b",%d," % (T0 + 18446744073709551615), b",%d," % (T0 + 9))


class Exports(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(LOG, "wb") as file:
            file.write(b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000) + b"".join(RECORDS))
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("server.conf", "7.OIDNames=disk\n")

    def export(self, form, *words):
        done = subprocess.run([program("qdlogview"), "-o", form, *words, LOG], capture_output=True,
                              env=plain_environment(ZOLTLOG_CFG_LOC="zoltlog.conf"))
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout

    # ---- OTLP --------------------------------------------------------------------

    def otlp(self):
        found = []
        for line in self.export("otlp-json").decode().splitlines():
            (resource,) = json.loads(line)["resourceLogs"]
            (scope,) = resource["scopeLogs"]
            (log,) = scope["logRecords"]
            values = {}
            for attribute in resource["resource"]["attributes"] + log["attributes"]:
                self.assertNotIn(attribute["key"], values)
                ((kind, value),) = attribute["value"].items()
                self.assertIsInstance(value, str)  # 64-bit numbers too
                values[attribute["key"]] = int(value) if kind == "intValue" else value
            found.append((log, values))
        return found

    def test_otlp_has_resource_severity_body_and_attributes(self):
        logs = self.otlp()
        self.assertEqual([log["severityNumber"] for log, _ in logs], [5, 6, 9, 13, 17, 18, 21, 9, 10])
        self.assertEqual([log["severityText"] for log, _ in logs],
                         ["debug", "diagnostic", "info", "warning", "error", "critical", "emergency", "context", "audit"])
        log, values = logs[6]
        self.assertEqual(log["timeUnixNano"], f"{T0 + 7}000000")
        self.assertEqual(log["body"], {"stringValue": SHOWN})
        self.assertEqual((log["traceId"], log["spanId"]), ("4bf92f3577b34da6a3ce929d0e0e4736", "00f067aa0ba902b7"))
        self.assertNotIn("traceId", logs[0][0])
        for key, value in {"service.name": "server", "service.instance.id": "hostA:42", "host.name": "hostA", "process.pid": 42,
                           "thread.id": 43, "qdul.kind": "application", "qdul.product": 5, "qdul.originator_name": "disk",
                           "qdul.who": "mgr", "qdul.msgid": 7, "log.file.path": LOG, "qdul.text_hex": HOSTILE.hex()}.items():
            self.assertEqual(values[key], value, key)
        self.assertEqual(logs[8][1]["qdul.msgid"], "18446744073709551615")  # beyond the numbers of the form
        self.assertEqual((logs[8][1]["qdul.outcome"], logs[8][1]["qdul.subject"]), ("-1", 'al]i"ce\\'))

    # ---- the journal ---------------------------------------------------------------

    def journal(self):
        entries, data, at, entry = [], self.export("journal"), 0, {}
        while at < len(data):
            end = data.index(b"\n", at)
            line = data[at:end]
            at = end + 1
            if not line:
                entries.append(entry)
                entry = {}
            elif b"=" in line:
                name, value = line.split(b"=", 1)
                entry[name.decode()] = value
            else:
                (length,) = struct.unpack("<Q", data[at : at + 8])
                entry[line.decode()] = data[at + 8 : at + 8 + length]
                self.assertEqual(data[at + 8 + length : at + 9 + length], b"\n")
                at += 9 + length
        self.assertEqual(entry, {})
        return entries

    def test_the_journal_keeps_every_byte(self):
        entries = self.journal()
        self.assertEqual([entry["PRIORITY"] for entry in entries], [b"7", b"7", b"6", b"4", b"3", b"2", b"0", b"6", b"5"])
        entry = entries[6]
        self.assertEqual(entry["MESSAGE"], HOSTILE.replace(b"\r", b"\n"))
        self.assertEqual(entry["__REALTIME_TIMESTAMP"], b"%d000" % (T0 + 7))
        self.assertEqual((entry["_PID"], entry["_HOSTNAME"], entry["SYSLOG_IDENTIFIER"]), (b"42", b"hostA", b"mgr"))
        self.assertEqual((entry["QDUL_PRODUCT"], entry["QDUL_KIND"], entry["QDUL_CONTEXT"]), (b"5", b"application", TRACE))
        self.assertEqual(entries[8]["QDUL_MSGID"], b"18446744073709551615")
        for name in entry:
            self.assertRegex(name, r"^[A-Z_][A-Z0-9_]*$")

    # ---- PostgreSQL ------------------------------------------------------------------

    @staticmethod
    def unescaped(field):
        if field == r"\N":
            return None
        return re.sub(r"\\(.)", lambda match: {"t": "\t", "n": "\n", "r": "\r", "\\": "\\"}[match[1]], field)

    def test_postgres_rows_fit_the_table(self):
        table = re.search(r"(?s)CREATE TABLE qdul_records \((.*?)\n\) PARTITION BY", read(f"{SOURCE}/docs/sql/qdul.sql")).group(1)
        columns = re.findall(r'(?m)^ {4}"?(\w+)"? +\w', table)
        self.assertEqual(columns, self.export("csv", "-m1").decode().splitlines()[0].split(","))
        rows = [[self.unescaped(field) for field in line.split("\t")] for line in self.export("postgres").decode().split("\n")[:-1]]
        self.assertEqual({len(row) for row in rows}, {len(columns)})
        row = dict(zip(columns, rows[6]))
        self.assertEqual(row["text"], SHOWN.replace("\0", "\ufffd"))
        self.assertEqual((row["time"], row["product_name"], row["subject"], row["severity"]), ("2024-03-01T13:45:02.130Z", "server", None, "80"))
        self.assertEqual(dict(zip(columns, rows[8]))["msgid"], "18446744073709551615")

    def test_postgres_takes_fields(self):
        self.assertEqual(self.export("postgres", "--fields=msgid,subject,text", "-m1"), b"1\t\\N\ttext\n")

    # ---- RFC 5424 --------------------------------------------------------------------

    def test_rfc5424_lines(self):
        lines = self.export("rfc5424").decode().split("\n")[:-1]
        shape = re.compile(r'<(\d+)>1 (\S+) (\S{1,255}) (\S{1,48}) (\d+) (\d+) \[qdul@32473((?: \w+="(?:[^"\\\]]|\\["\\\]])*")*)\] \ufeff(.*)')
        found = [shape.fullmatch(line) for line in lines]
        self.assertNotIn(None, found)
        self.assertEqual([int(line[1]) for line in found], [15, 15, 14, 12, 11, 10, 8, 14, 13 * 8 + 5])
        hostile = found[6]
        self.assertEqual(hostile.groups()[1:6], ("2024-03-01T13:45:02.130Z", "hostA", "mgr", "42", "7"))
        self.assertEqual(hostile[8], SHOWN.replace("\n", "#012").replace("\x1b", "?").replace("\0", "?"))
        self.assertIn(f' context="{TRACE.decode()}"', hostile[7])
        self.assertIn(r' subject="al\]i\"ce\\"', found[8][7])
        self.assertEqual(found[8][4], "server")

    # ---- HTML ------------------------------------------------------------------------

    def test_the_page_has_the_records_as_data(self):
        with open("evil.log", "wb") as file:
            file.write(b"$Header 65543,5,7,%d,0,hostA\n" % (T0 // 1000) + record(10, 2, b"1,(0|)", text=b"</script><script>evil()</script>", who=b"<!--"))
        page = self.export("html", "evil.log").decode()
        chunk, names = map(json.loads, re.findall(r'(?s)<script type="application/json" class="chunk">(.*?)</script>', page))
        (rare,) = map(json.loads, re.findall(r'(?s)<script type="application/json" class="rare">(.*?)</script>', page))
        self.assertEqual((chunk["x"][-1], names["who"][chunk["w"][-1]]), ("</script><script>evil()</script>", "<!--"))
        self.assertEqual([sum(chunk["t"][: i + 1]) - T0 for i in range(10)], list(range(1, 11)))
        self.assertEqual([names["severities"][i] for i in chunk["s"]][:9],
                         ["debug", "diagnostic", "info", "warning", "error", "critical", "emergency", "context", "audit"])
        self.assertEqual(chunk["x"][6], HOSTILE.decode(errors="replace"))
        self.assertEqual((rare["m"][8], rare["n"][8]), ("18446744073709551615", -1))
        self.assertNotIn("evil()</script>", page)
        self.assertEqual(re.findall(r"""(?:src|href|url)\s*[=(]\s*["']?(?!data:|#)[^"'\s)]+""", page.split("<script>")[0]), [])

    # ----------------------------------------------------------------------------------

    def test_they_are_for_records(self):
        for form in ("otlp-json", "journal", "postgres", "rfc5424", "html"):
            done = subprocess.run([program("qdlogview"), "-o", form, "--count", LOG], capture_output=True, env=plain_environment())
            self.assertEqual((done.returncode, done.stderr.decode().splitlines()[0]), (2, "qdlogview: this output is for records"))


if __name__ == "__main__":
    unittest.main()
