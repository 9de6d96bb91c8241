#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Counts, filters and exports 100 files of records with qdlogview, and does the same
with grep -c or cat on the same files, in turn. Prints medians and ratios, and writes
them as JSON beside the bench programs. Times are those of the processor (user and
system), since the machine may do other things; the wall clock is told as well."""
import json
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

BUILD = os.path.abspath(sys.argv[1])
ROUNDS = int(sys.argv[2]) if len(sys.argv) > 2 else 7
MEGABYTES = int(sys.argv[3]) if len(sys.argv) > 3 else 1000
QDLOGVIEW = BUILD + "/bin/qdlogview"
FILES = 100
START = 1709251200000  # 2024-03-01 00:00 UTC
WHO = [b"mgr", b"store", b"net", b"agent"]


def make(directory):
    """A day of records in FILES files; one record in ten has a severity of its own."""
    size = MEGABYTES * 1000000 // FILES
    step = 86400000 * 140 // (MEGABYTES * 1000000)
    texts = [b"%d:Disk full on /var/lib/data%02d, %d of %d blocks are left for this volume" % (
        len(b"Disk full on /var/lib/data%02d, %d of %d blocks are left for this volume" % (i, i * 7, i * 1000)),
        i, i * 7, i * 1000) for i in range(64)]
    tails = [b",%d:%s,%d,(0|)\n" % (len(who), who, severity) for severity in range(5) for who in WHO]
    id = 0
    now = START
    for number in range(FILES):
        lines = [b"$Header 65543,5,7,%d,0,hostA\n" % (now // 1000)]
        length = 0
        while length < size:
            id += 1
            now += max(step, 1)
            severity = 0 if id % 10 else id // 10 % 5
            line = b"2,5,7,7,%d,%d,4242,140234567890,0:,%s%s" % (id, now, texts[id & 63],
                                                             tails[severity * 4 + (id >> 3 & 3)])
            length += len(line)
            lines.append(line)
        with open(f"{directory}/5-7-16777343-240301-{number:010d}.log", "wb") as file:
            file.write(b"".join(lines))
    return id, now


def run(command):
    """Processor and wall clock seconds, and the last word of the output."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    with open(os.devnull, "wb") as null:
        keep = "json" not in command and command[0] != "cat"
        done = subprocess.run(command, stdout=subprocess.PIPE if keep else null, env={**os.environ, "LC_ALL": "C", "TZ": "UTC"})
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode > 1:
        sys.exit(f"{command[:4]} ended with {done.returncode}")
    output = sum(int(line.rsplit(b":", 1)[-1]) for line in done.stdout.splitlines()) if keep else None
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, wall, output


def main():
    with tempfile.TemporaryDirectory(prefix="qdlogview-bench-") as directory:
        records, end = make(directory)
        files = sorted(os.path.join(directory, name) for name in os.listdir(directory))
        size = sum(os.path.getsize(path) for path in files)
        middle = (START + end) // 2000
        five = ["-S", f"@{middle}", "-U", f"@{middle + 300}"]
        tenth = os.path.join(directory, "tenth")
        os.mkdir(tenth)
        for path in files[45:55]:
            os.link(path, os.path.join(tenth, os.path.basename(path)))
        whole = [directory]
        cases = [  # name, qdlogview's options, what it is compared with
            ("all records counted", ["--count", *whole], ["grep", "-c", "^[0-9]", *files]),
            ("severity counted", ["--count", "-p", "critical", *whole], ["grep", "-c", ",[34],(0|)$", *files]),
            ("component counted", ["--count", "-t", "store", *whole], ["grep", "-c", ",5:store,", *files]),
            ("regular expression counted", ["--count", "-g", "data1[0-9], [0-9]+ of", *whole],
             ["grep", "-cE", "data1[0-9], [0-9]+ of", *files]),
            ("word counted", ["--count", "-g", "data17", *whole], ["grep", "-c", "data17", *files]),
            ("json of all records", ["-o", "json", *whole], ["cat", *files]),
            ("five minutes of the day", ["--count", *five, *whole], ["cat", *files]),
            ("five minutes of a tenth of it", ["--count", *five, tenth], ["cat", *files]),
            ("the last ten records", ["-n10", "-o", "json", *whole], ["cat", *files]),
        ]
        times = {name: ([], [], [], []) for name, _, _ in cases}
        for round in range(ROUNDS + 1):  # the first one warms up
            for name, options, other in cases:
                ours, our_wall, count = run([QDLOGVIEW, *options])
                theirs, their_wall, other_count = run(other)
                if other[0] == "grep" and count != other_count:
                    sys.exit(f"{name}: qdlogview counts {count}, grep {other_count}")
                if round > 0:
                    for list, value in zip(times[name], (ours, our_wall, theirs, their_wall)):
                        list.append(value)
        print(f"{size / 1e9:.2f} GB, {records} records, {FILES} files, {ROUNDS} rounds; processor seconds, medians")
        print(f"{'':32}{'qdlogview':>10}{'GB/s':>8}{'wall':>8}  {'against':10}{'':>8}{'ratio':>8}   {'range of ratios'}")
        table = []
        for name, _, other in cases:
            ours, our_wall, theirs, their_wall = times[name]
            ratios = [a / b for a, b in zip(ours, theirs)]
            row = {"name": name, "seconds": statistics.median(ours), "wall": statistics.median(our_wall),
                   "against": other[0], "other_seconds": statistics.median(theirs),
                   "other_wall": statistics.median(their_wall), "ratio": statistics.median(ratios),
                   "ratio_least": min(ratios), "ratio_most": max(ratios)}
            table.append(row)
            print(f"{name:32}{row['seconds']:10.4f}{size / 1e9 / row['seconds']:8.2f}{row['wall']:8.3f}  {other[0]:10}"
                  f"{row['other_seconds']:8.3f}{row['ratio']:8.2f}   {min(ratios):.2f} to {max(ratios):.2f}")
        with open(BUILD + "/bench/qdlogview_bench.json", "w") as file:
            json.dump({"bytes": size, "records": records, "rounds": ROUNDS, "cases": table}, file, indent=1)


main()
