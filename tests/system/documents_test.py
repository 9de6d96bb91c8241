#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What documents say of programs: the commands and programs of README, docs/getting-started.md and docs/howto.md
run and print what the pages say; the rows of docs/performance.md are called what the benchmark prints; the tests
that documents name exist."""
import glob
import os
import re
import subprocess
import unittest

from qdul_testing import BUILD, HERE, SOURCE, is_foreign, plain_environment, read, write

SANITIZERS = re.search(r"(?m)^QDUL_SANITIZE:STRING=(.*)$", read(f"{BUILD}/CMakeCache.txt")).group(1)
README = read(f"{SOURCE}/README.md")


def block(language):
    """The first block of a language in README."""
    return re.search(rf"(?ms)^```{language}\n(.*?)^```", README).group(1)


def installed():
    """The environment of a shell that finds what is installed, of the build under test: below a prefix here, or,
    where that cannot be, as the build has it."""
    environment = plain_environment(LC_ALL="C", LOCPATH=f"{BUILD}/locales", PYTHONDONTWRITEBYTECODE="1")
    if SANITIZERS or not os.path.exists(f"{BUILD}/build.ninja"):
        for name, header in (("qdul", "zoltlog"), ("qdlis", "qdlis")):
            write(f"{name}.pc", f"Name: {name}\nDescription: the build under test\nVersion: 3\nCflags: -I{SOURCE}/include\n"
                  f"Libs: -L{BUILD}/lib -l{name} -Wl,-rpath,{BUILD}/lib {'-fsanitize=' + SANITIZERS if SANITIZERS else ''}\n")
        environment.update(PKG_CONFIG_PATH=HERE, PATH=f"{BUILD}/bin:{environment['PATH']}", PYTHONPATH=f"{BUILD}/python")
        return environment
    subprocess.run(["cmake", "--install", BUILD, "--prefix", f"{HERE}/prefix"], check=True, capture_output=True)
    configured = re.search(r"(?m)^CMAKE_INSTALL_PREFIX:PATH=(.*)$", read(f"{BUILD}/CMakeCache.txt")).group(1)
    (found,) = glob.glob(f"{HERE}/prefix/**/qdul.pc", recursive=True)
    directory = os.path.dirname(found)
    for name in os.listdir(directory):  # it names the prefix that was configured
        write(f"{directory}/{name}", read(f"{directory}/{name}").replace(configured, f"{HERE}/prefix"))
    library = os.path.dirname(directory)
    environment.update(PKG_CONFIG_PATH=directory, PATH=f"{HERE}/prefix/bin:{environment['PATH']}", LD_LIBRARY_PATH=library,
                       PYTHONPATH=f"{HERE}/prefix/lib/python3/dist-packages")
    return environment


def console(text):
    """(command, what it prints) of the lines of a console block. A command goes on in lines that begin with "> "."""
    steps = []
    for line in text.splitlines():
        if line.startswith("$ "):
            steps.append([line[2:], ""])
        elif line.startswith("> "):
            steps[-1][0] += "\n" + line[2:]
        else:
            steps[-1][1] += line + "\n"
    return steps


class Documents(unittest.TestCase):
    """Programs and commands of documents: they run one after the other in one shell, and print what the page says."""

    maxDiff = None
    environment = None

    def setUp(self):
        if Documents.environment is None:
            Documents.environment = installed()
        os.makedirs(self.id())
        self.directory = f"{HERE}/{self.id()}"

    def plain(self, text):
        """Without what differs from run to run: directory, time and process."""
        text = text.replace("/home/me/try", self.directory)
        return re.sub(r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (.*) \[\d+\]:", r"TIME \1 [PROCESS]:", text)

    def run_page(self, page, before=()):
        """Runs its blocks in their order. A program goes to the file that its first line names. Each command that
        is to fail says so: "|| echo ..."."""
        steps = list(before)
        for language, text in re.findall(r"(?ms)^```(\w+)\n(.*?)^```", page):
            if language == "console":
                steps += console(text)
            else:
                name = re.match(r"(?:/\*|//|#) ([\w.-]+)", text).group(1)
                write(f"{self.directory}/{name}", text)
        script = "".join(f"{command}\nstatus=$?; printf '\\036%d\\036' $status\n" for command, _ in steps)
        done = subprocess.run(["bash", "-c", script], env=self.environment, capture_output=True, text=True, encoding="utf-8",
                              cwd=self.directory)
        parts = done.stdout.split("\036")
        self.assertEqual(done.stderr, "")
        for (command, said), printed, status in zip(steps, parts[::2], parts[1::2]):
            with self.subTest(command):
                self.assertEqual(self.plain(printed), self.plain(said))
                self.assertEqual(status, "0")
        self.assertEqual(len(parts), 2 * len(steps) + 1)
        return steps

    REGISTER = [["export ZOLTLOG_CFG_LOC=$PWD/zoltlog.conf", ""],
                ["qdlogcfg product add -q 5 --names server --file $PWD/server.conf", ""],
                ["qdlogcfg set -q --product server LogDirectory=$PWD/log", ""]]

    def test_readmes_five_commands_print_what_it_says(self):
        write(f"{self.directory}/first.c", block("c"))
        page = README.split("## Your first line, in five commands\n", 1)[1].split("\n## ", 1)[0]
        page = re.sub(r"(?ms)^```c\n.*?^```", "", page)
        (install, said), *_ = console(block("console"))
        self.assertEqual((install, said), ("./dev install", "installed in /usr/local\n"))
        self.assertIn("prefix=/usr/local\n", read(f"{SOURCE}/dev"))
        self.assertIn('echo "installed in $prefix"\n', read(f"{SOURCE}/dev"))
        page = page.replace("$ ./dev install\ninstalled in /usr/local\n", "")  # done, below another prefix
        self.assertEqual(len(self.run_page(page)), 4)

    def test_readme_opens_with_what_to_run(self):
        self.assertRegex(README, r"\A# .*\n\n    ./dev demo +#.*\n    ./dev test +#")

    def test_the_thirty_calls(self):
        page = read(f"{SOURCE}/docs/getting-started.md")
        rows = re.findall(r"(?m)^\| (\d+) \| `(\w+)` \|", page)
        self.assertEqual([int(number) for number, _ in rows], list(range(1, 31)))
        headers = "".join(read(f"{SOURCE}/include/{name}.h") for name in ("zoltlog", "zoltlog_results", "qdlis"))
        code = "".join(re.findall(r"(?ms)^```c\n(.*?)^```", page)) + "".join(
            read(f"{SOURCE}/examples/{name}") for name in ("installer.c", "logfiles.cpp"))
        for _, name in rows:
            self.assertRegex(headers, rf"\b{name}\(")
            self.assertRegex(code, rf"\b{name}\(")
        self.run_page(page, self.REGISTER)

    def test_every_example_says_how_its_texts_are_encoded(self):
        page = read(f"{SOURCE}/docs/getting-started.md")
        programs = {f"program {number}": text for number, text in enumerate(re.findall(r"(?ms)^```c\n(.*?)^```", page))}
        programs.update({path: read(path) for path in glob.glob(f"{SOURCE}/examples/*.c") + glob.glob(f"{SOURCE}/examples/*.cpp")})
        programs["README"] = block("c")
        self.assertGreater(len(programs), 12)
        for name, text in programs.items():
            self.assertRegex(text, r'utf8 = 1;|setlocale\(LC_ALL, ""\)|<qdul.hpp>', name)

    def test_howto(self):
        page = read(f"{SOURCE}/docs/howto.md")
        if SANITIZERS or is_foreign():  # no Python can load that library
            page = re.sub(r"(?ms)^```python\n.*?^```\n\n```console\n.*?^```\n", "", page)
        self.assertGreater(len(self.run_page(page, self.REGISTER)), 30)

    def test_programs_and_commands_of_manual_pages(self):
        page = read(f"{SOURCE}/docs/man/zoltlog.7.scd").split("# EXAMPLES\n", 1)[1]
        program = re.search(r"(?ms)^```\n(.*?)^```", page).group(1)
        write(f"{self.directory}/seven.c", program)
        page = read(f"{SOURCE}/docs/man/qdul-messages.7.scd")
        root, german, missing, check, show, call, _ = re.findall(r"(?ms)^```\n(.*?)^```", page)
        write(f"{self.directory}/root.txt", root)
        write(f"{self.directory}/de.txt", german)
        write(f"{self.directory}/message.c", "#include <locale.h>\n#include <zoltlog.h>\nint main(void) {\nLogHandle log = {0};\n"
              'setlocale(LC_ALL, "");\nif (zoltLogOpen(5, 8, &log) != ZOLTLOG_OK) return 1;\n' + call + "zoltLogClose(&log);\n}\n")
        flags = "$(pkg-config --cflags --libs qdul)"
        self.run_page("", self.REGISTER + [
            [f"cc seven.c {flags} -o seven && ./seven && qdlogview -q -P server -u 7 -o cat", "Grüße aus Köln\n"],
            *([line, "sources: 2 locales, 4 messages, 0 problems\n" if " check " in line else
               "installed/messages: 2 locales installed, 4 messages in all\n"] for line in check.splitlines()),
            [show.strip(), "root\t1001\tDisk %1$s is %2$d%% full\nroot\t1001x\tFree some space.\n"
                           "de\t1001\tZu %2$d%% voll ist die Platte %1$s\n"],
            [f"cc message.c {flags} -o message && ./message", ""],
            ["QDLIS_CATALOG=$PWD/installed/messages LC_ALL=de_DE.UTF-8 ./message", ""],
            ["qdlogview -q -P server -u 8 -o cat", missing + "Zu 93% voll ist die Platte /var\n"]])

    def test_links_lead_somewhere(self):
        for path in [f"{SOURCE}/README.md", f"{SOURCE}/CONTRIBUTING.md"] + glob.glob(f"{SOURCE}/docs/*.md"):
            for target in re.findall(r"\]\(([^)#:]+)\)", read(path)):
                self.assertTrue(os.path.exists(os.path.join(os.path.dirname(path), target)), f"{path}: {target}")


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


class NamedTests(unittest.TestCase):
    """A promise's or a claim's tests are there under the names that the document gives."""

    def test_the_named_tests_exist(self):
        cases, suites = set(), set()
        for path in glob.glob(f"{SOURCE}/tests/**/*_test.cpp", recursive=True):
            for suite, case in re.findall(r"(?m)^(?:FRESH_)?TEST(?:_F|_P)?\((\w+), (\w+)\)", read(path)):
                cases.add(f"{suite}.{case}")
                suites.add(suite)
        programs = {os.path.basename(path).rsplit(".", 1)[0] for path in glob.glob(f"{SOURCE}/tests/**/*_test.*", recursive=True)}
        steps = set(re.findall(r"(?m)^step_([\w-]+)\(\)", read(f"{SOURCE}/tests/check.sh")))
        for document, least in (("threat-model.md", 50), ("promises.md", 40)):
            text = read(f"{SOURCE}/docs/{document}")
            named = 0
            for name in re.findall(r"`([^`\n]+)`", text):
                with self.subTest(f"{document}: {name}"):
                    if re.fullmatch(r"[A-Z]\w+\.[A-Z]\w+", name):
                        self.assertIn(name, cases)
                    elif re.fullmatch(r"[A-Z]\w+\.\*", name):
                        self.assertIn(name[:-2], suites)
                    elif match := re.fullmatch(r"(\w+_test): (test_\w+)", name):
                        self.assertIn(f"def {match.group(2)}(", read(f"{SOURCE}/tests/system/{match.group(1)}.py"))
                    elif re.fullmatch(r"\w+_test(\.py)?", name):
                        self.assertIn(name.removesuffix(".py"), programs)
                    elif name.startswith("./dev check "):
                        self.assertLessEqual(set(name.split()[2:]), steps)
                    else:
                        continue
                    named += 1
            self.assertGreaterEqual(named, least, document)


if __name__ == "__main__":
    unittest.main()
