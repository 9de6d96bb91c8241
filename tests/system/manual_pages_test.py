#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The manual pages: what scdoc makes of their sources, and what it would join; the pages that are made of the
headers and of documents tell all that is in those; every name has a page and is found."""
import glob
import os
import re
import shutil
import subprocess
import unittest

from qdul_testing import BUILD, SOURCE, literal_lines, manual, read

HEADERS = ("zoltlog.h", "zoltlog_results.h", "zoltlis.h", "qdlis.h")
MADE = sorted(glob.glob(BUILD + "/docs/man/*.[1-8]") + glob.glob(BUILD + "/docs/man/man3/*.3"))
LINKS = {page: read(page)[len(".so man3/"):].strip() for page in MADE if read(page).startswith(".so ")}
PAGES = sorted(glob.glob(SOURCE + "/docs/man/*.scd"))


class ManualPages(unittest.TestCase):
    def test_every_tool_has_one(self):
        names = [os.path.basename(page) for page in PAGES]
        for tool in ("qdlogcfg", "qdlogger", "qdlogview", "qdlogmgr", "qdliscat"):
            self.assertIn(tool + ".1.scd", names)

    def test_examples_are_literal_blocks(self):
        for page in PAGES:  # the lines of other blocks are joined, and commands with them
            with open(page) as file, self.subTest(page):
                examples = file.read().split("\n# EXAMPLES\n", 1)[1].split("\n# ", 1)[0]
                self.assertIn("\n```\n", examples)
                self.assertEqual(re.findall(r"(?m)^\t.*$", examples), [])

    @unittest.skipUnless(shutil.which("scdoc"), "no scdoc")
    def test_scdoc_takes_them(self):
        for page in PAGES:
            name, number = os.path.basename(page).split(".")[:2]
            source = manual(name, number)
            done = subprocess.run(["scdoc"], input=source, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn(f'.TH "{name}" "{number}"', done.stdout)
            if shutil.which("groff"):
                shown = subprocess.run(["groff", "-K", "utf8", "-t", "-man", "-Tutf8", "-ww"], input=done.stdout, capture_output=True, text=True)
                self.assertEqual((shown.returncode, shown.stderr), (0, ""))
                for line in filter(str.strip, literal_lines(source)):  # each on a line of its own
                    self.assertRegex(shown.stdout.replace("\u2212", "-"), rf"(?m)^ +{re.escape(line.strip())}$")


def base(page):
    return os.path.basename(page)


def shown(page):
    """A page as a reader sees it, each paragraph in one line."""
    done = subprocess.run(["groff", "-K", "utf8", "-t", "-man", "-Tutf8", "-ww", "-rLL=2000n", "-P-c", "-P-b", "-P-u", page],
                          capture_output=True, text=True, check=True)
    return done.stdout


def words(text):
    """What counts of a text when its form does not."""
    text = text.translate({0x2010: "-", 0x2212: "-", 0x2019: "'", 0x2018: "'", 0xb4: "'", 0x201c: '"', 0x201d: '"'})
    return re.findall(r"[^\s|]+", text)


def exported():
    script = re.sub(r"/\*.*?\*/", "", read(f"{SOURCE}/src/libqdul.map"), flags=re.S)
    names = re.findall(r"(\w+);", script.split("global:")[1].split("local:")[0])
    listed = subprocess.run(["nm", "-D", "--defined-only", f"{BUILD}/lib/libqdlis.so"], capture_output=True, text=True, check=True)
    return names, [line.split()[-1].split("@")[0] for line in listed.stdout.splitlines()]


@unittest.skipUnless(MADE and shutil.which("groff"), "no pages were made, or no groff")
class MadePages(unittest.TestCase):
    maxDiff = None

    def test_every_exported_name_has_a_page(self):
        ours, lis = exported()
        self.assertGreater(len(ours), 250)
        self.assertGreater(len(lis), 25)
        pages = {base(page) for page in MADE}
        self.assertEqual([name for name in ours + lis + ["qdulResultText", "qdulResultName"] if f"{name}.3" not in pages], [])

    def test_links_lead_to_a_page_that_has_the_name(self):
        self.assertGreater(len(LINKS), 250)
        for link, target in LINKS.items():
            page = f"{BUILD}/docs/man/man3/{target}"
            self.assertNotIn(page, LINKS)
            self.assertRegex(read(page), rf"(?m)^\.SH NAME\n(?:.*\n)?.*\b{base(link)[:-2]}\b", link)

    def test_every_page_that_one_names_exists(self):
        ours = {base(page) for page in MADE}
        others = {"journalctl.1", "logger.1", "grep.1", "gzip.1", "genrb.1", "fork.2", "printf.3", "setlocale.3",
                  "strerror.3", "syslog.3", "ld.so.8"}
        named = set()
        for page in MADE:
            if page not in LINKS:
                named |= {f"{name}.{number}" for name, number in re.findall(r"([\w.][\w.-]*)\(([1-8])\)", shown(page))}
        self.assertGreater(len(named & ours), 20)
        self.assertEqual(sorted(named - ours - others), [])

    def test_they_are_shown_without_warnings(self):
        pages = [page for page in MADE if page not in LINKS]
        for page in pages:
            done = subprocess.run(["groff", "-K", "utf8", "-t", "-man", "-Tutf8", "-ww", "-z", page], capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""), page)
        if shutil.which("man"):
            done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", *pages], capture_output=True, text=True, encoding="utf-8",
                                  env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80", "PAGER": "cat", "MANPAGER": "cat"})
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn("Grüße", done.stdout)

    @unittest.skipUnless(shutil.which("mandb") and shutil.which("whatis"), "no mandb")
    def test_every_name_is_found(self):
        for page in MADE:
            directory = f"man/man{page[-1]}"
            os.makedirs(directory, exist_ok=True)
            shutil.copy(page, directory)
        os.chmod(".", 0o755)
        subprocess.run(["mandb", "-c", "-q", "man"], check=True, capture_output=True)
        names = sorted({base(page)[:-2] for page in MADE})
        done = subprocess.run(["whatis", "-w", "-M", "man", "-l", "*"], capture_output=True, text=True)
        found = set(re.findall(r"(?m)^(\S+) \(\d\) +- \S", done.stdout))
        self.assertEqual([name for name in names if name not in found], [])

    def test_a_page_has_every_declaration_and_every_word_of_its_part_of_the_header(self):
        everything = {word for page in MADE if page not in LINKS for word in words(shown(page))}
        pages = " ".join(" ".join(words(shown(page))) for page in MADE if page not in LINKS)
        for header in HEADERS:
            text = read(f"{SOURCE}/include/{header}").split("\n", 1)[1]
            for declaration in re.findall(r"(?m)^(?:u?int\w+|void|char|const char|struct tm|LogCfg|LogFileEntry|LogContextEntry|wchar_t) "
                                          r"\*?\w+\([^;{]*\);", text):
                plain = " ".join(re.sub(r"\s*ZOLTLOG_PRINTF\([^)]*\)", "", declaration).split())
                self.assertIn(plain, pages)
            for comment in re.findall(r"/\*.*?\*/", text, flags=re.S):
                if comment.startswith("/* ----") or "SPDX" in comment:
                    comment = comment.split("\n", 1)[1] if "\n" in comment else ""
                if comment.startswith("/*\n * zoltlog.h - "):  # zoltlog(7) has the conventions of it
                    comment = comment[comment.index(" 1. "):]
                comment = re.sub(r"\d\. ", "", comment) if "Conventions" in comment else comment
                missing = [word for word in words(re.sub(r"^/\*|\*/$|(?m:^ \*/?)", " ", comment)) if word not in everything]
                self.assertEqual([word for word in missing if not re.fullmatch(r"\d\.", word)], [], comment[:60])

    def test_the_page_of_the_cpp_header_has_what_it_offers_and_no_more(self):
        text = read(f"{SOURCE}/include/qdul.hpp").split("\n", 1)[1]
        page = shown(f"{BUILD}/docs/man/man3/qdul.hpp.3")
        plain = " ".join(words(page))
        for name in ("app", "diag", "debug", "appf", "diagf", "debugf", "audit", "appFormat", "diagFormat", "debugFormat", "open",
                     "openLogSet"):
            self.assertRegex(page, rf"(?m)^ +Result {name}\(", name)
        for declaration in ("Log(uint64_t product, uint64_t originator) noexcept;", "class Log : public Logger {",
                            "Context(Logger &parent, std::string_view token, std::string_view text = {}) noexcept;",
                            "Field(std::string_view name, bool value) noexcept;", "LogHandle *native() noexcept;",
                            "emergency = ZOLTLOG_SEVERITY_EMERGENCY", "Result openLogSet(uint64_t product, uint64_t originator, const char *name) noexcept;",
                            "enum class Result : uint32_t { ok = ZOLTLOG_OK };", "QDUL_AT_MOST(number, seconds)", "#include <qdul.hpp>"):
            self.assertIn(" ".join(words(declaration)), plain)
        for inside in ("class Line", "QDUL_IF_LEVEL", "QDUL_FILE", "sendApp", "LogHandle handle", "__attribute__", "return", "private"):
            self.assertNotIn(inside, page)
        every = set(words(page))
        sections = re.split(r"(?m)^// ---- (.*?) -+$", text)
        self.assertIn("inside", sections[1::2])
        for title, part in zip(["", *sections[1::2]], sections[::2]):
            for comment in [] if title == "inside" else re.findall(r"/\*.*?\*/", part, flags=re.S):
                missing = [word for word in words(re.sub(r"^/\*|\*/$|(?m:^ +\*/?)", " ", comment)) if word not in every]
                self.assertEqual(missing, [], comment[:60])
        for link in ("qdul::Log", "qdul::Context", "QDUL_ONCE"):
            self.assertEqual(LINKS[f"{BUILD}/docs/man/man3/{link}.3"], "qdul.hpp.3")


if __name__ == "__main__":
    unittest.main()
