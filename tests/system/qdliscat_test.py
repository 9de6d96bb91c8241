#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""qdliscat over good, faulty and damaged catalogues."""
import os
import random
import shutil
import subprocess
import unittest

from qdul_testing import BUILD, SOURCE, program

TOOL = program("qdliscat")
SAMPLE = os.path.join(BUILD, "share/qdul/catalogue/diskd")


def run(*arguments, **options):
    done = subprocess.run([TOOL, *arguments], capture_output=True, text=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8", **options})
    return done.returncode, done.stdout, done.stderr


def compile_messages(package, **locales):
    """Compiles messages into package/LOCALE.res."""
    os.makedirs(package, exist_ok=True)
    for locale, messages in locales.items():
        with open(locale + ".txt", "w", encoding="utf-8") as file:
            file.write(locale + " {\n" + messages + "\n}\n")
        subprocess.run(["genrb", "-q", "-e", "UTF-8", "-d", package, locale + ".txt"], check=True)


class Qdliscat(unittest.TestCase):
    def tearDown(self):
        for name in os.listdir("."):
            shutil.rmtree(name) if os.path.isdir(name) else os.remove(name)

    def problems(self, *arguments):
        status, out, err = run("check", "--quiet", *arguments)
        self.assertEqual(err, "")
        self.assertEqual(status, 1 if out else 0)
        return out.splitlines()

    def test_the_sample_catalogue_is_right(self):
        self.assertEqual(run("check", SAMPLE), (0, SAMPLE + ": 2 locales, 13 messages, 0 problems\n", ""))

    def test_what_is_not_translated_is_a_problem_on_request(self):
        self.assertEqual(self.problems("--untranslated", SAMPLE), [SAMPLE + ": de: 1007: not translated"])

    def test_sources_are_compiled_for_the_check(self):
        folder = os.path.join(SOURCE, "examples/catalogue/")
        said = run("check", folder + "root.txt", folder + "de.txt")
        self.assertEqual(said, (0, "sources: 2 locales, 13 messages, 0 problems\n", ""))

    def test_sources_that_do_not_compile_are_a_problem(self):
        with open("root.txt", "w") as file:
            file.write('root { 1 { "never closed }')
        status, out, err = run("check", "root.txt")
        self.assertEqual((status, out), (1, ""))
        self.assertIn("qdliscat: the sources do not compile", err)

    def test_bundles_of_one_directory_are_one_catalogue(self):
        status, out, _ = run("check", SAMPLE + "/de.res", SAMPLE + "/root.res")
        self.assertEqual((status, out), (0, SAMPLE + ": 2 locales, 13 messages, 0 problems\n"))

    def test_a_data_file_is_a_catalogue(self):
        compile_messages("out/m", root='1 { "root %1$s" }', de='1 { "de %1$d" }')
        with open("list.txt", "w") as file:
            file.write("root.res\nde.res\n")
        os.makedirs("tmp")
        done = subprocess.run(["pkgdata", "-q", "-m", "common", "-p", "m", "-s", "out/m", "-d", ".", "-T", "tmp",
                               "list.txt"], capture_output=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertTrue(os.path.exists("m.dat"))
        for name in ("m.dat", "m"):
            self.assertEqual(self.problems(name), [name + ": de: 1: argument 1 is an integer, in root a text"])

    def test_every_kind_of_problem_is_told(self):
        compile_messages(
            "m",
            root='1 { "%1$s and %2$d" } 2 { "%n" } 3 { "93% full" } 4 { "%1$d %3$d" } 5 { t { "nested" } } '
                 'abc { "x" } 0 { "x" } 007 { "x" } 8x { "advice" } 9 { "%1$s %1$d" } 10 { "%m" } messages { 1 { "x" } }',
            de='1 { "%2$d" } 6 { "only here" }',
            fr='1 { "%1$s und %2$s und %3$f" }')
        self.assertEqual(self.problems("m"), [
            "m: root: 0: the key is no message number in decimal",
            "m: root: 007: the key is no message number in decimal",
            "m: root: 10: is no valid pattern: %m",
            "m: root: 2: is no valid pattern: %n",
            "m: root: 3: holds a lone percent sign, which has to be written %%",
            "m: root: 4: argument 2 is not shown",
            "m: root: 5: is no text",
            "m: root: 8x: advice on a message that does not exist",
            "m: root: 9: is no valid pattern: %1$s %1$d",
            "m: root: abc: the key is no message number in decimal",
            "m: root: messages: the key is no message number in decimal; messages stand at the top level",
            "m: de: 1: argument 1 is not shown, in root a text",
            "m: de: 6: root has no such message",
            "m: fr: 1: argument 2 is a text, in root an integer",
            "m: fr: 1: argument 3 is a floating-point number, in root not shown",
        ])

    def test_a_catalogue_without_root_is_a_problem(self):
        compile_messages("m", de='1 { "x" }')
        self.assertEqual(self.problems("m"), ["m: there is no root: messages that a locale lacks have no text"])

    def test_damaged_bundles_are_a_finding_and_no_crash(self):
        compile_messages("m", root='1 { "%1$s and %2$d" } 2 { "more" }', de='1 { "%2$d und %1$s" }')
        with open("m/de.res", "rb") as file:
            good = file.read()
        random.seed(5)
        inputs = [b"", b"x", good[:10], good[:32], good[:len(good) // 2], os.urandom(200)]
        for _ in range(60):
            damaged = bytearray(good)
            for _ in range(random.randint(1, 8)):
                damaged[random.randrange(len(damaged))] = random.randrange(256)
            inputs.append(bytes(damaged))
        for content in inputs:
            with open("m/de.res", "wb") as file:
                file.write(content)
            status, _, err = run("check", "m")
            self.assertIn(status, (0, 1), (content, err))

    def test_every_cut_of_a_bundle_is_a_finding(self):
        compile_messages("m", root='1 { "%1$s and %2$d" } 2 { "more" }')
        with open("m/root.res", "rb") as file:
            whole = file.read()
        self.assertEqual(self.problems("m"), [])
        for size in range(len(whole)):
            with open("m/root.res", "wb") as file:
                file.write(whole[:size])
            self.assertNotEqual(self.problems("m"), [], f"{size} of {len(whole)} bytes")

    def test_damaged_data_files_are_a_finding_and_no_crash(self):
        random.seed(6)
        for size in (0, 1, 3, 8, 40, 300):
            with open("m.dat", "wb") as file:
                file.write(bytes(random.randrange(256) for _ in range(size)))
            status, _, _ = run("check", "m")
            self.assertIn(status, (1, 3))

    def test_a_missing_catalogue_is_unreadable(self):
        self.assertEqual(run("check", "nowhere"), (3, "", "qdliscat: no catalogue at nowhere\n"))
        self.assertEqual(run("list", "nowhere")[0], 3)

    def test_show_prints_a_message_and_its_advice_in_every_locale(self):
        status, out, _ = run("show", "1005", SAMPLE)
        self.assertEqual(status, 0)
        self.assertEqual(out.splitlines(), [
            "root\t1005\tAccess of user %1$s to %2$s denied",
            "root\t1005x\tAsk the owner of the file for access.",
            "de\t1005\tZugriff auf %2$s für Benutzer %1$s verweigert"])
        self.assertEqual(run("show", "4711", SAMPLE), (1, "", ""))

    def test_list_prints_what_a_locales_users_read(self):
        status, out, _ = run("list", "--locale", "de_AT", SAMPLE)
        self.assertEqual(status, 0)
        lines = out.splitlines()
        self.assertEqual(len(lines), 7)
        self.assertEqual(lines[0], "1001\tZu %2$d%% voll ist die Platte %1$s")
        self.assertEqual(lines[6], "1007\tShutting down")

    def test_what_could_steer_a_terminal_is_escaped(self):
        compile_messages("m", root='1 { "a\\u001b[31m\\u000ab" }')
        self.assertEqual(run("list", "m")[1], "1\ta\\e[31m\\nb\n")

    # ---- install ---------------------------------------------------------------------------

    def install(self, *arguments, **options):
        return run("install", *arguments, **options)

    def test_install_puts_sources_and_bundles_into_a_package(self):
        compile_messages("out", root='1 { "root %1$s" }', fr='1 { "fr %1$s" }')
        with open("de.txt", "w") as file:
            file.write('de { 1 { "de %1$s" } }\n')
        self.assertEqual(self.install("--to", "new/m", "out", "de.txt"),
                         (0, "new/m: 3 locales installed, 3 messages in all\n", ""))
        self.assertEqual(sorted(os.listdir("new/m")), ["de.res", "fr.res", "root.res"])
        self.assertEqual(run("list", "--locale", "de", "new/m")[1], "1\tde %1$s\n")

    def test_install_replaces_a_file_by_another_one(self):
        compile_messages("m", root='1 { "old" }', de='1 { "alt" }')
        os.chmod("m/root.res", 0o640)
        with open("m/root.res", "rb") as old:
            before = old.read()
            compile_messages("new", root='1 { "new" }')
            self.assertEqual(self.install("-q", "-o", "m", "new/root.res"), (0, "", ""))
            old.seek(0)
            self.assertEqual(old.read(), before)  # whoever has it open
        self.assertEqual(os.stat("m/root.res").st_mode & 0o7777, 0o640)
        self.assertEqual(run("show", "1", "m")[1], "root\t1\tnew\nde\t1\talt\n")
        self.assertEqual(sorted(os.listdir("m")), ["de.res", "root.res"])

    def test_a_package_may_be_reached_through_a_link(self):
        compile_messages("new", root='1 { "new" }')
        os.mkdir("kept-elsewhere")
        os.symlink("kept-elsewhere", "m")
        self.assertEqual(self.install("--to", "m", "new"), (0, "m: 1 locale installed, 1 message in all\n", ""))
        self.assertEqual(os.listdir("kept-elsewhere"), ["root.res"])
        os.remove("m")

    def test_install_changes_nothing_where_the_package_would_have_problems(self):
        compile_messages("m", root='1 { "%1$s" }', de='1 { "%1$s" }')
        compile_messages("new", root='1 { "%1$d" }')
        status, out, err = self.install("--to", "m", "new/root.res")
        self.assertEqual((status, out, err), (1, "m: de: 1: argument 1 is a text, in root an integer\n",
                                              "qdliscat: nothing was installed\n"))
        self.assertEqual(run("show", "1", "m")[1], "root\t1\t%1$s\nde\t1\t%1$s\n")
        self.assertEqual(sorted(os.listdir("m")), ["de.res", "root.res"])
        # Both at once fit.
        compile_messages("new", root='1 { "%1$d" }', de='1 { "%1$d" }')
        self.assertEqual(self.install("-q", "--to", "m", "new"), (0, "", ""))

    def test_install_minds_what_is_not_translated_on_request(self):
        compile_messages("new", root='1 { "a" } 2 { "b" }', de='1 { "c" }')
        self.assertEqual(self.install("--untranslated", "--to", "m", "new")[:2], (1, "m: de: 2: not translated\n"))
        self.assertFalse(os.path.exists("m"))
        self.assertEqual(self.install("--to", "m", "new")[0], 0)

    def test_install_takes_no_damaged_bundle(self):
        compile_messages("new", root='1 { "a text" }')
        with open("new/root.res", "rb") as file:
            whole = file.read()
        with open("new/root.res", "wb") as file:
            file.write(whole[:-4])
        status, out, _ = self.install("--to", "m", "new/root.res")
        self.assertEqual(status, 1)
        self.assertIn("cannot be read", out)
        self.assertFalse(os.path.exists("m"))

    def test_install_tells_what_it_cannot_do(self):
        compile_messages("new", root='1 { "a" }')
        with open("file", "w"):
            pass
        os.makedirs("m/root.res")
        for arguments in (["--to", "m2", "nowhere.res"], ["--to", "m2", "file"], ["--to", "file", "new"],
                          ["--to", "m2", "new", "new/root.res"], ["--to", "m", "new"]):
            status, out, err = self.install(*arguments)
            self.assertEqual((status, out), (3, ""), arguments)
            self.assertNotEqual(err, "")
        self.assertEqual(os.listdir("m"), ["root.res"])
        self.assertFalse(os.path.exists("m2"))
        self.assertEqual(self.install("new")[0], 2)

    def test_a_reader_has_the_whole_old_bundle_or_the_whole_new_one(self):
        for name, text in (("a", "first"), ("b", "second")):
            compile_messages(name, root='1 { "%s" }' % (text * 2000))
        self.assertEqual(self.install("-q", "--to", "m", "a")[0], 0)
        with open("reading", "w"):
            pass
        reader = subprocess.Popen(["sh", "-c", f'while [ -e reading ]; do "{TOOL}" list m; done >out'])
        for name in "ba" * 10:
            self.assertEqual(self.install("-q", "--to", "m", name)[0], 0)
        os.remove("reading")
        self.assertEqual(reader.wait(), 0)
        with open("out") as file:
            seen = set(file.read().splitlines())
        self.assertLessEqual(seen, {"1\t" + text * 2000 for text in ("first", "second")})
        self.assertTrue(seen)

    def test_every_cut_of_a_package_in_one_file_is_a_finding(self):
        compile_messages("out/m", root='1 { "root %1$s" } 2 { "more" }', de='1 { "de %1$s" } 2 { "mehr" }')
        with open("list.txt", "w") as file:
            file.write("root.res\nde.res\n")
        os.makedirs("tmp")
        subprocess.run(["pkgdata", "-q", "-m", "common", "-p", "m", "-s", "out/m", "-d", ".", "-T", "tmp", "list.txt"],
                       check=True, capture_output=True)
        shutil.rmtree("out")
        with open("m.dat", "rb") as file:
            whole = file.read()
        self.assertEqual(self.problems("m.dat"), [])
        padding = len(whole) - len(whole.rstrip(b"\xaa"))  # behind the last bundle
        for size in range(0, len(whole) - padding, 3):
            with open("m.dat", "wb") as file:
                file.write(whole[:size])
            self.assertNotEqual(run("check", "m.dat")[0], 0, f"{size} of {len(whole)} bytes")

    def test_wrong_usage_is_two(self):
        for arguments in ([], ["check"], ["sing", SAMPLE], ["show", "abc", SAMPLE], ["show", "0", SAMPLE],
                          ["check", "--nothing", SAMPLE]):
            self.assertEqual(run(*arguments)[0], 2, arguments)

    def test_help_tells_commands_and_an_example(self):
        status, out, _ = run("--help")
        self.assertEqual(status, 0)
        for part in ("check", "show", "list", "qdliscat check /usr/share/diskd/messages", "Exit status"):
            self.assertIn(part, out)
        self.assertEqual(run("--version")[1].split()[0], "qdliscat")

    def test_a_full_disk_is_told(self):
        with open("/dev/full", "w") as full:
            done = subprocess.run([TOOL, "list", SAMPLE], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(done.returncode, 4)


if __name__ == "__main__":
    unittest.main()
