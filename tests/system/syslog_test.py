#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""libqdul-syslog.so, preloaded into programs and linked to them: what it exports and needs; programs with
threads, forks and exec, fortified and not; before main; a client in Python; a set-user-id program; and that
the table of the manual page is what messages become."""
import csv
import io
import os
import re
import subprocess
import sys
import unittest

from qdul_testing import BUILD, HERE, SOURCE, is_foreign, plain_environment, program, read, write

OBJECT = f"{BUILD}/lib/libqdul-syslog.so"
CALLS = {"openlog", "syslog", "vsyslog", "closelog", "setlogmask", "__syslog_chk", "__vsyslog_chk"}
FACILITIES = {"LOG_KERN": 0, "LOG_USER": 1, "LOG_MAIL": 2, "LOG_DAEMON": 3, "LOG_AUTH": 4, "LOG_SYSLOG": 5, "LOG_LPR": 6,
              "LOG_NEWS": 7, "LOG_UUCP": 8, "LOG_CRON": 9, "LOG_AUTHPRIV": 10, "LOG_FTP": 11,
              **{f"LOG_LOCAL{i}": 16 + i for i in range(8)}}
PRIORITIES = ["LOG_EMERG", "LOG_ALERT", "LOG_CRIT", "LOG_ERR", "LOG_WARNING", "LOG_NOTICE", "LOG_INFO", "LOG_DEBUG"]

if re.search(r"(?m)^QDUL_SANITIZE:STRING=.", read(f"{BUILD}/CMakeCache.txt")) or not os.path.exists(OBJECT):
    sys.exit(77)  # a sanitizer's runtime would have to be preloaded too
HOSTS_PROGRAM = unittest.skipIf(is_foreign(), "this machine's programs cannot load an object for another processor")


def run(*command, environment=None):
    return subprocess.run(command, capture_output=True, text=True, env=environment, timeout=120)


def compile(name, source, *flags):
    write(f"{name}.c", source)
    done = run(os.environ.get("CC", "cc"), "-Wall", "-Wextra", "-Werror", f"{name}.c", "-o", name, *flags)
    if done.returncode != 0:
        raise AssertionError(done.stderr)
    return f"{HERE}/{name}"


def records(*options):
    """The records of the product, as qdlogview tells them."""
    done = run(program("qdlogview"), "--quiet", "--no-pager", "-P", "5", "--output=csv", *options,
               environment=plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf"))
    if done.returncode not in (0, 1):
        raise AssertionError(done.stderr)
    return list(csv.DictReader(io.StringIO(done.stdout)))


class Object(unittest.TestCase):
    def test_exports_the_calls_and_nothing_else(self):
        listed = subprocess.run(["nm", "-D", "--defined-only", OBJECT], check=True, capture_output=True, text=True).stdout
        self.assertEqual({line.split()[-1] for line in listed.splitlines()}, CALLS)

    def test_needs_the_c_library_only(self):
        told = run("readelf", "-dW", OBJECT).stdout
        self.assertEqual(re.findall(r"\(NEEDED\).*\[(.*)\]", told), ["libc.so.6"])
        self.assertEqual(re.findall(r"\(SONAME\).*\[(.*)\]", told), ["libqdul-syslog.so"])
        self.assertIn("NODELETE", told)


class Preloaded(unittest.TestCase):
    def setUp(self):
        subprocess.run(["rm", "-rf", "log"], check=True)
        write("zoltlog.conf", f"5.Configuration={HERE}/product.conf\n5.Names=server\n")
        write("product.conf", f"Default.LogDirectory={HERE}/log/\nDefault.DebugLevel=1\n7.OIDNames=web\n")
        self.variables = {"ZOLTLOG_CFG_LOC": f"{HERE}/zoltlog.conf", "QDUL_SYSLOG_PRODUCT": "server"}

    def environment(self, **variables):
        return plain_environment(**{"LD_PRELOAD": OBJECT, **self.variables, **variables})

    def succeed(self, *command, **variables):
        done = run(*command, environment=self.environment(**variables))
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        return done.stdout

    def tell(self, *fields):
        return [tuple(record[field] for field in fields) for record in records()]


class Programs(Preloaded):
    def test_threads_forks_and_exec_lose_nothing_fortified_or_not_preloaded_or_linked(self):
        source = r"""
            #include <pthread.h>
            #include <spawn.h>
            #include <stdarg.h>
            #include <stdio.h>
            #include <stdlib.h>
            #include <string.h>
            #include <sys/wait.h>
            #include <syslog.h>
            #include <unistd.h>
            extern char **environ;
            enum { THREADS = 4, CHILDREN = 6, MESSAGES = 50 };
            static void tell(const char *format, ...) {
                va_list args;
                va_start(args, format);
                vsyslog(LOG_NOTICE, format, args);
                va_end(args);
            }
            static void say(const char *who) {
                for (int i = 0; i < MESSAGES; ++i)
                    i % 2 ? syslog(LOG_INFO, "%d %s %d", (int)getpid(), who, i)
                          : tell("%d %s %d", (int)getpid(), who, i);
            }
            static void *thread(void *unused) {
                say("thread");
                return unused;
            }
            static void await(pid_t child) {
                int status = -1;
                if (child <= 0 || waitpid(child, &status, 0) != child || status != 0)
                    exit(3);
            }
            int main(int argc, char **argv) {
                openlog(argc > 1 ? "child" : "parent", LOG_PID | LOG_NDELAY, LOG_DAEMON);
                if (argc > 1) {
                    say(argv[1]);
                    return 0;
                }
                pthread_t threads[THREADS];
                for (int i = 0; i < THREADS; ++i)
                    pthread_create(&threads[i], NULL, thread, NULL);
                char *spawned[] = {argv[0], "spawned", NULL};
                for (int i = 0; i < CHILDREN; ++i) {
                    pid_t child = fork();
                    if (child == 0) {
                        say("forked");
                        if (i % 2)
                            exit(0);
                        execv(argv[0], (char *[]){argv[0], "executed", NULL});
                        _exit(4);
                    }
                    pid_t other = -1;
                    posix_spawn(&other, argv[0], NULL, NULL, spawned, environ);
                    pid_t third = vfork();
                    if (third == 0) {
                        execv(argv[0], (char *[]){argv[0], "vforked", NULL});
                        _exit(5);
                    }
                    await(child);
                    await(other);
                    await(third);
                }
                for (int i = 0; i < THREADS; ++i)
                    pthread_join(threads[i], NULL);
                closelog();
                return 0;
            }"""
        for level in ("0", "2"):
            for linked in (False, True):
                with self.subTest(fortified=level, linked=linked):
                    self.setUp()
                    flags = ["-O2", "-Wno-unused-parameter", "-pthread", "-U_FORTIFY_SOURCE", f"-D_FORTIFY_SOURCE={level}"]
                    if linked:
                        flags += [f"-L{BUILD}/lib", "-lqdul-syslog", f"-Wl,-rpath,{BUILD}/lib"]
                    path = compile("busy", source, *flags)
                    used = run("nm", "-D", "--undefined-only", path).stdout
                    self.assertEqual("__syslog_chk" in used and "__vsyslog_chk" in used, level == "2")
                    self.succeed(path, **({"LD_PRELOAD": ""} if linked else {}))
                    found = {}
                    for text, pid, who in self.tell("text", "pid", "who"):
                        writer, kind, _ = text.split()
                        self.assertEqual(writer, pid)
                        self.assertEqual(who, "parent" if kind in ("thread", "forked") else "child")
                        found[kind] = found.get(kind, 0) + 1
                    self.assertEqual(found, {"thread": 200, "forked": 300, "executed": 150, "spawned": 300, "vforked": 300})
                    verified = run(program("qdlogmgr"), "verify", "-P", "5", environment=self.environment(LD_PRELOAD=""))
                    self.assertEqual(verified.returncode, 0, verified.stdout + verified.stderr)

    def test_fortified_calls_still_refuse_a_written_percent_n(self):
        path = compile("percent", r"""
            #include <stdlib.h>
            #include <string.h>
            #include <syslog.h>
            int main(void) {
                char format[8] = {0};
                int count = 0;
                strcpy(format, getenv("HOME") ? "%%n" : "x%n");
                syslog(LOG_INFO, format, &count);
                return 0;
            }""", "-O2", "-D_FORTIFY_SOURCE=2", "-Wno-format-security", "-Wno-format-nonliteral")
        done = run(path, environment=self.environment())
        self.assertEqual(done.returncode, -6)
        self.assertIn("%n", done.stderr)

    def test_calls_before_main_are_taken(self):
        compile("libearly.so", r"""
            #include <syslog.h>
            __attribute__((constructor)) static void early(void) { syslog(LOG_INFO, "library"); }
            """, "-shared", "-fPIC")
        path = compile("late", r"""
            #include <syslog.h>
            __attribute__((constructor(101))) static void early(void) { syslog(LOG_INFO, "program"); }
            static void end(void) { syslog(LOG_INFO, "destructor"); }
            __attribute__((destructor)) static void late(void) { end(); }
            int main(void) { syslog(LOG_INFO, "main"); return 0; }
            """, "-Wl,--no-as-needed", f"{HERE}/libearly.so")
        self.succeed(path)
        self.assertEqual(self.tell("text"), [("library",), ("program",), ("main",), ("destructor",)])

    @HOSTS_PROGRAM
    def test_a_module_of_python_is_a_client(self):
        self.succeed(sys.executable, "-c", "import syslog, os\n"
                     "syslog.openlog('web', syslog.LOG_PID, syslog.LOG_DAEMON)\n"
                     "for n in range(500): syslog.syslog(syslog.LOG_ERR, f'{n} Grüße')\n"
                     "if os.fork() == 0:\n"
                     "    syslog.syslog('child'); os._exit(0)\n"
                     "os.wait(); syslog.closelog(); syslog.openlog('other'); syslog.syslog('last')\n")
        told = self.tell("originator", "who", "severity_text", "text")
        self.assertEqual([row for row in told if row[3].endswith("Grüße")],
                         [("7", "web", "error", f"{n} Grüße") for n in range(500)])
        self.assertEqual(sorted(row for row in told if not row[3].endswith("Grüße")),
                         [("112", "other", "info", "last"), ("7", "web", "info", "child")])

    @HOSTS_PROGRAM
    def test_without_a_product_nothing_is_loaded(self):
        del self.variables["QDUL_SYSLOG_PRODUCT"]
        told = self.succeed(sys.executable, "-c", "import syslog; syslog.syslog('words'); print(open('/proc/self/maps').read())")
        self.assertIn("libqdul-syslog.so", told)
        self.assertNotIn("libqdul.so", told)

    @HOSTS_PROGRAM
    def test_a_program_that_does_not_log_does_not_load_the_library(self):
        self.assertNotIn("libqdul.so", self.succeed("cat", "/proc/self/maps"))

    @HOSTS_PROGRAM
    def test_a_missing_library_leaves_the_program_its_system_log(self):
        subprocess.run(["cp", OBJECT, "alone.so"], check=True)
        self.succeed(sys.executable, "-c", "import syslog; syslog.syslog('words')", LD_PRELOAD=f"{HERE}/alone.so",
                     LD_LIBRARY_PATH="")
        self.assertFalse(os.path.exists("log"))

    @unittest.skipUnless(os.geteuid() == 0, "only root can make a program another user's")
    def test_a_set_user_id_program_does_not_trust_its_environment(self):
        path = compile("privileged", r"""
            #include <dlfcn.h>
            #include <stdio.h>
            #include <string.h>
            #include <syslog.h>
            #include <unistd.h>
            static int wanted; /* libqdul */
            void *dlopen(const char *name, int mode) {
                (void)mode;
                wanted += strcmp(name, "libqdul.so.3") == 0;
                return NULL;
            }
            int main(void) {
                syslog(LOG_INFO, "words");
                printf("%d %d\n", geteuid() != getuid(), wanted);
                return 0;
            }""", "-rdynamic", f"-L{BUILD}/lib", "-lqdul-syslog", f"-Wl,-rpath,{BUILD}/lib")
        os.chmod(HERE, 0o755)
        user = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
        self.assertEqual(self.succeed(*user, path, LD_PRELOAD=""), "0 1\n")
        os.chmod(path, 0o4755)
        self.assertEqual(self.succeed(*user, path, LD_PRELOAD=""), "1 0\n")


class Manual(Preloaded):
    """The table of the manual page, row by row."""

    def test_messages_become_what_the_table_says(self):
        page = read(f"{SOURCE}/docs/man/libqdul-syslog.7.scd")
        table = page.split("\n# WHAT MESSAGES BECOME\n", 1)[1].split("\n# ", 1)[0]
        cells = re.findall(r"(?m)^[\[|:][\[ ] (.*)$", table)
        rows = [[cell.strip() for cell in cells[i:i + 4]] for i in range(4, len(cells), 4)]
        self.assertEqual(len(rows), 11)
        path = compile("row", r"""
            #include <stdlib.h>
            #include <syslog.h>
            int main(int argc, char **argv) {
                openlog("prog", 0, LOG_LOCAL5);
                for (int i = 1; i < argc; ++i)
                    syslog(atoi(argv[i]), "%s", argv[i]);
                return 0;
            }""")
        numbers = [facility << 3 | priority for facility in FACILITIES.values() for priority in range(8)]
        self.succeed(path, *map(str, numbers))
        found = {int(record["text"]): record for record in records()}
        self.assertEqual(sorted(found), sorted(numbers))
        covered = set()
        for facilities, priorities, kind, value in rows:
            names = re.findall(r"LOG_\w+", facilities)
            chosen = {FACILITIES[name] for name in names} if names else None
            for number in numbers:
                facility, priority = number >> 3, PRIORITIES[number & 7]
                if priority not in re.findall(r"LOG_\w+", priorities) or number in covered:
                    continue
                if chosen is not None and facility not in chosen:
                    continue
                covered.add(number)
                record = found[number]
                with self.subTest(facility=facility, priority=priority):
                    self.assertEqual(record["kind"], kind)
                    what, expected = value.split(" ", 1)
                    told = record["severity_text"] if what == "severity" else record[what]
                    self.assertEqual(told, expected)
        self.assertEqual(covered, set(numbers))


if __name__ == "__main__":
    unittest.main()
