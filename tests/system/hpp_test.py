#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdul.hpp as users compile it: alone, in every standard and with their warnings, with and without exceptions
and RTTI; a wrong format argument is a warning; a library that uses it exports nothing of it; and the example."""
import re
import shutil
import subprocess
import unittest

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, program, write

INCLUDE = f"{SOURCE}/include"
WARNINGS = ["-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-pedantic", "-Werror"]
COMPILERS = [name for name in ("c++", "clang++") if shutil.which(name)]

EVERYTHING = """
#include <qdul.hpp>
namespace user {
unsigned use(int number) {
    qdul::Log log(5, 7);
    QDUL_DEBUG(log, 3, "words", {{"number", number}});
    QDUL_DIAGF(log, 3, "%d", number);
    if (number > 1)
        QDUL_ONCE log.app(qdul::Severity::info, "once");
    else
        QDUL_AT_MOST(3, 60) log.appf(qdul::Severity::error, "%d", number);
    QDUL_EVERY(10) QDUL_DEBUG(log, 6, "words");
    qdul::Context context(log, "T1", "a context");
    const std::error_code told = context.audit("alice", 0, 1, "%s", "words");
    return static_cast<unsigned>(told.value());
}
}
"""


def compile(compiler, source, *flags):
    write("user.cpp", source)
    return subprocess.run([compiler, *WARNINGS, "-I", INCLUDE, "-c", "user.cpp", "-o", "user.o", *flags], capture_output=True,
                          text=True)


class Header(unittest.TestCase):
    def test_it_compiles_alone(self):
        for compiler in COMPILERS:
            for flags in (["-std=c++17", "-O2"], ["-std=c++20"],
                          ["-std=c++17", "-fno-exceptions", "-fno-rtti", "-DQDUL_SOURCE_LOCATION", "-DQDUL_LEVEL_FLOOR=2"]):
                with self.subTest(compiler=compiler, flags=flags):
                    done = compile(compiler, EVERYTHING, *flags)
                    self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_formats_with_braces_compile_without_a_warning(self):
        call = "\nqdul::Result brace(qdul::Log &log) { return log.appFormat(qdul::Severity::info, \"{} {}\", 1, 2.0); }\n"
        tried = 0
        for compiler in COMPILERS:
            for flags, has in ((["-std=c++17"], "#include <fmt/format.h>\n"), (["-std=c++20"], "#include <format>\n")):
                write("user.cpp", has + "#ifndef FMT_VERSION\n#ifndef __cpp_lib_format\n#error\n#endif\n#endif\n")
                if subprocess.run([compiler, *flags, "-fsyntax-only", "user.cpp"], capture_output=True).returncode == 0:
                    tried += 1
                    with self.subTest(compiler=compiler, has=has):
                        done = compile(compiler, has + EVERYTHING + call, *flags)
                        self.assertEqual((done.returncode, done.stderr), (0, ""))
        if tried == 0:
            self.skipTest("no compiler has them")

    def test_a_format_that_does_not_fit_its_arguments_is_a_warning(self):
        calls = ('log.appf(qdul::Severity::info, "%s", 1);', 'log.diagf(1, "%d");', 'log.debugf(1, "%d", "x");',
                 'log.audit("a", 0, 1, "%s", 1.0);', 'QDUL_DEBUGF(log, 1, "%s", 1);')
        for compiler in COMPILERS:
            with self.subTest(compiler):
                done = compile(compiler, "#include <qdul.hpp>\nvoid use(qdul::Log &log) {\n" + "\n".join(calls) + "\n}\n",
                               "-std=c++17", "-fsyntax-only")
                self.assertNotEqual(done.returncode, 0)
                told = re.findall(r"(?m)^user\.cpp:(\d+):.* error: .*-W(?:error=)?format", done.stderr)
                self.assertEqual(sorted(set(told)), [str(3 + i) for i in range(len(calls))], done.stderr)

    def test_handles_and_contexts_are_not_copied(self):
        lines = ("qdul::Log copy(log);", "qdul::Log moved(std::move(log));", "qdul::Log other; other = log;",
                 "qdul::Context context(log, \"T\"); qdul::Context another(context);")
        done = compile("c++", "#include <qdul.hpp>\nvoid use(qdul::Log &log) {\n" + "\n".join(lines) + "\n}\n", "-std=c++17",
                       "-fsyntax-only")
        told = re.findall(r"(?m)^user\.cpp:(\d+):.* error: use of deleted", done.stderr)
        self.assertEqual(sorted(set(told)), [str(3 + i) for i in range(len(lines))], done.stderr)

    def test_a_library_exports_nothing_of_it(self):
        for compiler in COMPILERS:
            with self.subTest(compiler):
                done = compile(compiler, EVERYTHING, "-std=c++17", "-fPIC", "-O0")
                self.assertEqual(done.returncode, 0, done.stderr)
                subprocess.run([compiler, "-shared", "user.o", "-o", "libuser.so"], check=True)
                listed = subprocess.run(["nm", "-DC", "--defined-only", "libuser.so"], check=True, capture_output=True,
                                        text=True).stdout
                names = [line.split(" ", 2)[2] for line in listed.splitlines()]
                self.assertIn("user::use(int)", names)
                self.assertEqual([name for name in names if re.match(r"(?:[a-z ]+ for )?qdul::", name)], [])

    def test_nothing_is_left_above_the_floor(self):
        source = ('#include <qdul.hpp>\nvoid use(qdul::Log &log) { QDUL_DEBUG(log, 3, "above"); QDUL_DIAG(log, 2, "below"); }\n')
        for compiler in COMPILERS:
            self.assertEqual(compile(compiler, source, "-std=c++17", "-O1", "-DQDUL_LEVEL_FLOOR=2").returncode, 0)
            with open("user.o", "rb") as file:
                made = file.read()
            self.assertIn(b"below", made)
            self.assertNotIn(b"above", made)


class Example(unittest.TestCase):
    def test_it_logs_what_it_says(self):
        write("zoltlog.conf", f"5.Configuration={HERE}/product.conf\n5.Names=server\n")
        write("product.conf", f"Default.LogDirectory={HERE}/log/\nDefault.DebugLevel=3\n")
        environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf")
        done = subprocess.run([f"{BUILD}/examples/requests", "5", "7"], env=environment, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        shown = subprocess.run([program("qdlogview"), "-q", "--no-pager", "-P", "5", "--template={kind} {context} {text}"],
                               env=environment, capture_output=True, text=True, check=True).stdout.splitlines()
        self.assertEqual(shown.count("debug req-3 request 3 is handled"), 1)
        self.assertEqual([line for line in shown if "slow" in line],
                         [f'application req-{n} storage is slow part="disk 2" milliseconds=93' for n in (3, 6)])
        self.assertEqual(sum("the first request is done" in line for line in shown), 1)
        self.assertIn("application req-4 request 4 of Zoë is done", shown)
        self.assertEqual([line.split("requests=")[1] for line in shown if "progress" in line], ["1", "6"])
        self.assertTrue(shown[-1].endswith("all is done requests=6 failed=2"), shown[-1])

    def test_it_tells_why_the_log_cannot_be_opened(self):
        environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/none.conf")
        done = subprocess.run([f"{BUILD}/examples/requests", "5", "7"], env=environment, capture_output=True, text=True)
        self.assertEqual(done.returncode, 1)
        self.assertIn("configuration not found", done.stderr)


if __name__ == "__main__":
    unittest.main()
