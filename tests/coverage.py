#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Lines and branches of the libraries that the tests of a build with --coverage have run, for each file, and
what they have not.

    tests/coverage.py BUILD

tests/coverage.txt says why a line is not run: "file | text of the line | reason"; a reason whose line is run,
or gone, has to go as well. Of the files that hold the store, the writer, the encoder and the parsers each line
is to be run or to have a reason: those that have neither are counted apart. Less than 95 % of src/ is a
failure, and so is less than LEAST_WHOLE % of these files. Processes that are killed tell nothing of what
they ran."""
import collections
import concurrent.futures
import fnmatch
import gzip
import json
import os
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIBRARIES = ("src", "lis", "formatter", "syslog")
WHOLE = ("src/utiPropertyStore*.cpp", "src/write*.cpp", "src/bin2txt.cpp", "src/text_msg.cpp", "src/log_name.cpp",
         "src/read.cpp", "src/parse_string.cpp", "src/decimal.cpp", "src/cmn_routines.cpp", "src/bin_msg.cpp")
LEAST = 95.0  # per cent of the lines of src/
LEAST_WHOLE = 97.0  # per cent of WHOLE, run or with a reason; to become 100


def notes(build):
    """The note files of the libraries' objects; tests and fuzzers that compile a library's file are left out."""
    for directory in ("CMakeFiles/qdul.dir", "lis", "formatter", "syslog"):
        for place, _, names in os.walk(os.path.join(build, directory)):
            yield from (os.path.join(place, name) for name in names if name.endswith(".gcno"))


def measured(note):
    with tempfile.TemporaryDirectory() as place:
        subprocess.run(["gcov", "--json-format", "--branch-probabilities", note], cwd=place, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        found = []
        for name in os.listdir(place):
            with gzip.open(os.path.join(place, name), "rt") as file:
                found += json.load(file)["files"]
        return found


def merged(build):
    """file -> line -> [how often it ran, branches, branches taken]"""
    files = collections.defaultdict(dict)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for found in pool.map(measured, notes(build)):
            for file in found:
                path = os.path.relpath(os.path.join(build, file["file"]), SOURCE)  # compiled there
                if not path.startswith(LIBRARIES):
                    continue
                for line in file["lines"]:
                    # What the compiler adds for exceptions is none of ours.
                    branches = [branch for branch in line["branches"] if not branch["throw"]]
                    taken = sum(branch["count"] != 0 for branch in branches)
                    old = files[path].setdefault(line["line_number"], [0, 0, 0])
                    old[0] += line["count"]
                    if (len(branches), taken) > (old[1], old[2]):
                        old[1:] = [len(branches), taken]
    return files


def reasons():
    path = os.path.join(SOURCE, "tests", "coverage.txt")
    found = {}
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.strip() and not line.startswith("#"):
                name, rest = line.split(" | ", 1)
                text, reason = rest.rsplit(" | ", 1)  # a line may hold such signs itself
                found[name.strip(), text.strip()] = reason.strip()
    return found


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def is_whole(path):
    return any(fnmatch.fnmatch(path, pattern) for pattern in WHOLE)


def main():
    files = merged(os.path.abspath(sys.argv[1]))
    if not any(path.startswith("src/") for path in files):
        print("nothing was measured")
        return 1
    known = reasons()
    used = set()
    missing = []
    sums = collections.Counter()
    print(f"{'file':44} {'lines':>7} {'of':>6} {'%':>6} {'branches':>9} {'of':>6} {'%':>6}")
    for path in sorted(files):
        lines = files[path]
        with open(os.path.join(SOURCE, path), encoding="utf-8") as file:
            texts = file.read().splitlines()
        ran = sum(line[0] != 0 for line in lines.values())
        branches, taken = (sum(line[i] for line in lines.values()) for i in (1, 2))
        print(f"{path:44} {ran:7} {len(lines):6} {percent(ran, len(lines)):6.1f} {taken:9} {branches:6} "
              f"{percent(taken, branches):6.1f}")
        for name, value in (("ran", ran), ("lines", len(lines)), ("taken", taken), ("branches", branches)):
            sums[path.split("/")[0], name] += value
        for number in sorted(lines):
            text = texts[number - 1].strip()
            if lines[number][0] == 0:
                if (path, text) in known:
                    used.add((path, text))
                else:
                    missing.append((path, number, text))
                    sums["whole", "missing"] += is_whole(path)
            sums["whole", "lines"] += is_whole(path)
    for directory in LIBRARIES:
        if sums[directory, "lines"]:
            print(f"{directory + '/':44} {sums[directory, 'ran']:7} {sums[directory, 'lines']:6} "
                  f"{percent(sums[directory, 'ran'], sums[directory, 'lines']):6.1f} {sums[directory, 'taken']:9} "
                  f"{sums[directory, 'branches']:6} {percent(sums[directory, 'taken'], sums[directory, 'branches']):6.1f}")
    print(f"\nnot run, with a reason: {len(used)}")
    for key in sorted(used):
        print(f"  {key[0]}: {key[1]}: {known[key]}")
    print(f"\nnot run, without a reason: {len(missing)}")
    for path, number, text in missing:
        print(f"  {path}:{number}: {text}")
    failed = False
    told = percent(sums["whole", "lines"] - sums["whole", "missing"], sums["whole", "lines"])
    print(f"\nstore, writer, encoder and parsers: {told:.1f} % of {sums['whole', 'lines']} lines are run or have a reason")
    if told < LEAST_WHOLE:
        print(f"FAILED: less than {LEAST_WHOLE} % of store, writer, encoder and parsers")
        failed = True
    for key in sorted(set(known) - used):
        print(f"FAILED: tests/coverage.txt gives a reason for a line that is run, or gone: {key[0]}: {key[1]}")
        failed = True
    if percent(sums["src", "ran"], sums["src", "lines"]) < LEAST:
        print(f"FAILED: less than {LEAST} % of src/")
        failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
