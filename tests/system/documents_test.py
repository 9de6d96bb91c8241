#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What documents say of programs: README's first example compiles, runs and prints what README says; the
rows of docs/performance.md are called what the benchmark prints."""
import glob
import re
import subprocess
import unittest

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, read, write

README = read(f"{SOURCE}/README.md")


def block(language):
    """The first block of a language in README."""
    return re.search(rf"(?ms)^```{language}\n(.*?)^```", README).group(1)


def plain(text):
    """Without what differs from run to run: directory, time and process."""
    text = text.replace("/home/me/try", HERE)
    return re.sub(r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (.*) \[\d+\]:", r"TIME \1 [PROCESS]:", text)


class Readme(unittest.TestCase):
    def test_the_first_example_prints_what_it_says(self):
        write("first.c", block("c"))
        sanitizers = re.search(r"(?m)^QDUL_SANITIZE:STRING=(.*)$", read(f"{BUILD}/CMakeCache.txt")).group(1)
        write("qdul.pc", "Name: qdul\nDescription: the build under test\nVersion: 3\n"
              f"Cflags: -I{SOURCE}/include -Wall -Wextra -Werror\n"
              f"Libs: -L{BUILD}/lib -lqdul -Wl,-rpath,{BUILD}/lib {'-fsanitize=' + sanitizers if sanitizers else ''}\n")
        environment = plain_environment(PKG_CONFIG_PATH=HERE)
        environment["PATH"] = f"{BUILD}/bin:{environment['PATH']}"
        said = block("console")
        commands = re.findall(r"(?m)^\$ (.*)$", said)
        self.assertGreaterEqual(len(commands), 5)
        done = subprocess.run(["sh", "-c", "set -e\n" + "\n".join(commands)], env=environment, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        printed = "".join(line + "\n" for line in said.splitlines() if not line.startswith("$ "))
        self.assertEqual(plain(done.stdout), plain(printed))


class Performance(unittest.TestCase):
    def test_the_rows_are_named_as_the_benchmark_prints_them(self):
        table = read(f"{SOURCE}/docs/performance.md").split("p50 per call", 1)[1].split("\n\n", 1)[0]
        rows = re.findall(r"(?m)^\| ([^|]+?) \|", table)
        names = [row.strip("*") for row in rows if not row.startswith("---")]
        self.assertGreater(len(names), 10)
        printed = set()
        for path in glob.glob(f"{SOURCE}/bench/compare*.cpp"):
            printed |= set(re.findall(r'"([^"\n]+)"', read(path)))
        self.assertEqual([name for name in names if name not in printed], [])


if __name__ == "__main__":
    unittest.main()
