#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The places that CONTRIBUTING.md lists for each kind of change are all that it takes: trial changes are
made there in a copy of the tree, what they touch is built, and the change is there. The places are as many
as docs/architecture.md says."""
import concurrent.futures
import json
import os
import re
import shlex
import shutil
import subprocess
import unittest
from typing import NamedTuple

from qdul_testing import BUILD, HERE, SOURCE, read, users_environment, write

TREE = f"{HERE}/tree"


class Place(NamedTuple):
    path: str
    behind: str  # the text goes behind the only line that begins so, blanks aside
    text: str


TRIALS = {
    "a configuration key": [
        Place("src/config_keys.h", '"true or false", "remove surplus files at rollover"',
              '    ROW(TRIAL, "TrialNumber", CFG_NUMBER32, trialNumber, 0x80000000, 1, 9, 4, CFG_COPIED, CFG_BOTH, '
              'NUMBER32, TrialNumber, \\\n        "1 to 9", "a number on trial") \\\n'),
        Place("src/config_keys.h", "CFG_KEY_RECYCLE, ", "    CFG_KEY_TRIAL,\n"),
        Place("include/zoltlog.h", "char *logsetOidDiagLogging;", "    uint32_t trialNumber;\n"),
        Place("include/zoltlog.h", "uint32_t zoltLogCfgSetNumberOfLogFiles(",
              "uint32_t zoltLogCfgSetTrialNumber(LogCfg *cfg, uint32_t number);\n"
              "uint32_t zoltLogCfgGetTrialNumber(LogCfg *cfg, uint32_t *number);\n"),
        Place("src/libqdul.map", "zoltLogCfgSetNumberOfLogFiles;",
              "    zoltLogCfgSetTrialNumber;\n    zoltLogCfgGetTrialNumber;\n"),
        Place("docs/format-config.md", "| `LogRecycle` |", "| `TrialNumber` | a number on trial | 1 to 9 | 4 |\n"),
        Place("tests/config_keys.h", "SET(cfg->logRecycling = 1)",
              '    {"TrialNumber", 0x80000000, true, true, true, true, FIELD(std::to_string(cfg.trialNumber)),\n'
              '     SET(cfg->trialNumber = 7), "7", "4"},\n'),
        Place("tests/config_keys.h", '"RolloverPeriodInSeconds",', '    "TrialNumber",\n'),
        Place("tests/config_keys.h", '{"LogRecycle", "yes"', '    {"TrialNumber", "7", "7"},\n    {"TrialNumber", "10", "4"},\n'),
    ],
    "a message attribute": [
        Place("src/bin_msg.cpp", "GETTER(zoltLogGetMsgFid,",
              "    GETTER(zoltLogGetMsgTrial, uint64_t, BOTH_AUDITS, messageId) \\\n"),
        Place("include/zoltlog.h", "uint32_t zoltLogGetMsgFid(",
              "uint32_t zoltLogGetMsgTrial(const LogMsg *msg, uint64_t *out);\n"),
        Place("src/libqdul.map", "zoltLogGetMsgFid;", "    zoltLogGetMsgTrial;\n"),
    ],
    "an error code": [
        Place("include/zoltlog.h", "X(ZOLTLOG_NOTHING_TO_WRITE, ", '    X(ZOLTLOG_TRIAL, 62, "a result on trial") \\\n'),
    ],
    "a query attribute": [
        Place("include/zoltlog.h", "X(ZOLTLOG_ATTR_HOST_NAME, ", "    X(ZOLTLOG_ATTR_TRIAL, 277, CHANGE, CHANGE) \\\n"),
    ],
    "a viewer field": [
        Place("tools/common/fields.cpp", "const FieldRow FIELD_TABLE[] = {",
              '    {"trial", FieldType::Number, FieldRole::Plain,\n'
              '     [](const Item &item) { return numberOf(item.record.text.size()); }, "bytes of the text"},\n'),
    ],
    "a tool's option": [
        Place("tools/qdlogmgr/options.h", "bool surplusOnly = ", "    bool trial = false;\n"),
        Place("tools/qdlogmgr/options.cpp", '{"--keep", FILES,',
              '    {"--trial", FILES, nullptr, "an option on trial\\n\\nNobody *needs* it.", set<&Options::trial>},\n'),
    ],
}


# ---- the changed copy ----------------------------------------------------------------


def change_copy():
    for part in ("include", "src", "lis", "tools", "docs", "tests"):
        shutil.copytree(f"{SOURCE}/{part}", f"{TREE}/{part}")
    for places in TRIALS.values():
        for place in places:
            lines = read(f"{TREE}/{place.path}").splitlines(keepends=True)
            found = [number for number, line in enumerate(lines) if line.lstrip().startswith(place.behind)]
            if len(found) != 1:
                raise AssertionError(f"{place.path}: {len(found)} lines begin with {place.behind}")
            lines.insert(found[0] + 1, place.text)
            write(f"{TREE}/{place.path}", "".join(lines))


# ---- building what a change touches -----------------------------------------------------

with open(f"{BUILD}/compile_commands.json", encoding="utf-8") as commands:
    ENTRIES = json.load(commands)
UNPACKERS = [word for flag, word in (("QDUL_WITH_ZLIB", "-lz"), ("QDUL_WITH_ZSTD", "-lzstd"),
                                        ("QDUL_WITH_ARCHIVES", "-larchive"), ("QDUL_WITH_ARCHIVES", "-lcrypto"))
             if any(flag in entry["command"] for entry in ENTRIES)]
CACHE = dict(re.findall(r"(?m)^(\w+):\w+=(.*)$", read(f"{BUILD}/CMakeCache.txt")))
SANITIZE = [f"-fsanitize={CACHE['QDUL_SANITIZE']}"] if CACHE.get("QDUL_SANITIZE") else []


def moved(word):
    return word if BUILD in word else word.replace(SOURCE, TREE)


def compiled(path, target):
    """The object that a source of the copy makes in a target."""
    words = next(shlex.split(entry["command"]) for entry in ENTRIES
                 if entry["file"] == f"{SOURCE}/{path}" and f"/{target}.dir/" in entry["command"])
    output = f"{HERE}/objects/{target}/{os.path.basename(path)}.o"
    os.makedirs(os.path.dirname(output), exist_ok=True)
    kept = [moved(word) for word in words if not re.match(r"-O|-g|-D_FORTIFY_SOURCE", word)]
    kept[kept.index("-o") + 1] = output
    subprocess.run(kept + ["-O0"], cwd=BUILD, check=True)
    return output


def all_compiled(paths, target):
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        return list(pool.map(lambda path: compiled(path, target), sorted(paths)))


def sources(directory):
    return [f"{directory}/{name}" for name in os.listdir(f"{TREE}/{directory}") if name.endswith(".cpp")]


def link(output, *words):
    os.makedirs(os.path.dirname(output), exist_ok=True)
    subprocess.run([CACHE["CMAKE_CXX_COMPILER"], *SANITIZE, "-o", output, *words, f"-L{BUILD}/lib", "-lqdlis",
                    f"-Wl,-rpath,{HERE}/lib,-rpath,{BUILD}/lib", "-pthread"], check=True)


def trial_library():
    link(f"{HERE}/lib/libqdul.so.3", "-shared", "-Wl,-soname,libqdul.so.3", f"-Wl,--version-script={TREE}/src/libqdul.map",
         *all_compiled(sources("src"), "qdul"), "-licuuc", "-ldl")


def printed(program, *arguments, status=0, **variables):
    done = subprocess.run([program, *arguments], capture_output=True, text=True, env=users_environment(TZ="UTC", **variables))
    if done.returncode != status:
        raise AssertionError(f"{program} {arguments}: {done.returncode}\n{done.stderr}")
    return done.stdout


def run_c(name, code, **variables):
    """What a program prints that is compiled against the changed headers and library."""
    write(f"{name}.c", '#include <stdio.h>\n#include "zoltlog_results.h"\nint main(void) {\n' + code + "}\n")
    subprocess.run([CACHE["CMAKE_C_COMPILER"], *SANITIZE, "-Wall", "-Werror", f"-I{TREE}/include", "-o", name,
                    f"{name}.c", f"{HERE}/lib/libqdul.so.3", f"-L{BUILD}/lib", "-lqdlis",
                    f"-Wl,-rpath,{HERE}/lib,-rpath,{BUILD}/lib"], check=True)
    return printed(f"./{name}", **variables)


# ---- the tests ----------------------------------------------------------------------


class Counts(unittest.TestCase):
    def test_contributing_lists_the_places(self):
        """Each row of the table names the files of a trial, one name for each."""
        section = read(f"{SOURCE}/CONTRIBUTING.md").split("\n## What to touch", 1)[1].split("\n## ", 1)[0]
        rows = [line.split("|") for line in section.splitlines() if line.startswith("| ")][1:]
        listed = {row[1].strip(): set(re.findall(r"`(\w+/[\w/.-]+)`", row[2].replace("TOOL", "qdlogmgr"))) for row in rows}
        self.assertEqual(listed, {kind: {place.path for place in places} for kind, places in TRIALS.items()})

    def test_they_are_as_many_as_the_architecture_says(self):
        section = read(f"{SOURCE}/docs/architecture.md").split("\n## What a change touches", 1)[1].split("\n## ", 1)[0]
        told = {row[0]: (int(row[1]), int(row[2]))
                for row in re.findall(r"(?m)^\| (.+?) \| .+? \| (\d+) in (\d+) files? \|$", section)}
        counted = {kind: (len(places), len({place.path for place in places})) for kind, places in TRIALS.items()}
        self.assertEqual(told, counted)

    def test_they_are_few(self):
        def files(kind):
            return len({place.path for place in TRIALS[kind]})

        self.assertLessEqual(files("a configuration key"), 5)  # that of the tests, too
        for kind in ("an error code", "a query attribute", "a viewer field"):
            self.assertEqual(len(TRIALS[kind]), 1)
        self.assertEqual(len(TRIALS["a tool's option"]), 2)


class Trials(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        change_copy()
        trial_library()

    def test_a_configuration_key(self):
        write("zoltlog.conf", f"5.Configuration={HERE}/server.conf\n5.Names=server\n")
        write("server.conf", f"Default.LogDirectory={HERE}/log/\nDefault.TrialNumber=7\n7.OIDNames=seven\n")
        said = run_c("key", """
            LogCfg cfg, copy;
            uint32_t initial = 0, got = 0;
            InitLogCfg(5, 7, NULL, &cfg);
            initial = cfg.trialNumber;
            zoltLogReadCfg(5, 7, &cfg);
            InitLogCfg(5, 8, NULL, &copy);
            CopyCfg(&copy, &cfg);
            zoltLogCfgSetTrialNumber(&cfg, 9);
            zoltLogCfgGetTrialNumber(&cfg, &got);
            printf("%u %u %u %u\\n", initial, copy.trialNumber, got, zoltLogWriteCfg(5, 7, &cfg));
            zoltLogFreeCfg(&copy);
            return (int)zoltLogFreeCfg(&cfg);
        """, ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf")
        self.assertEqual(said, "4 7 9 0\n")
        self.assertIn("7.TrialNumber=9\n", read("server.conf"))

        link(f"{HERE}/bin/settings_list", compiled("docs/settings_list.cpp", "settings_list"),
             compiled("src/config_keys.cpp", "settings_list"), compiled("src/decimal.cpp", "settings_list"),
             f"{HERE}/lib/libqdul.so.3")
        rows = printed(f"{HERE}/bin/settings_list", "markdown")
        self.assertIn("| `TrialNumber` |", rows)
        self.assertIn(rows, read(f"{TREE}/docs/format-config.md"))
        self.assertIn("*TrialNumber*\n\ta number on trial", printed(f"{HERE}/bin/settings_list", "manual"))

        shared = ["src/config_keys.cpp", "src/utiPropertyStoreFile_rewrite.cpp", "src/utiPropertyStoreFile_whole.cpp"]
        tool = all_compiled(sources("tools/qdlogcfg") + shared, "qdlogcfg")
        link(f"{HERE}/bin/qdlogcfg", *tool, f"{BUILD}/tools/common/libqdul_tools_common.a", f"{HERE}/lib/libqdul.so.3")
        configuration = {"ZOLTLOG_CFG_LOC": f"{HERE}/zoltlog.conf"}
        printed(f"{HERE}/bin/qdlogcfg", "set", "-P", "5", "-u", "7", "TrialNumber=3", **configuration)
        self.assertIn("7.TrialNumber=3\n", read("server.conf"))
        self.assertIn("  TrialNumber: a number on trial (1 to 9)\n", printed(f"{HERE}/bin/qdlogcfg", "--help"))

    def test_the_tests_of_keys_go_on_with_another_one(self):
        names = ["config_record_test", "config_read_test", "config_write_test"]
        with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
            objects = list(pool.map(lambda name: compiled(f"tests/{name}.cpp", name), names))
        for name, made in zip(names, objects):
            link(f"{HERE}/bin/{name}", made, f"{BUILD}/tests/libtest_support.a", "-lgtest", f"{HERE}/lib/libqdul.so.3", "-ldl")
            said = printed(f"{HERE}/bin/{name}", "--gtest_brief=1", TMPDIR=HERE)
            self.assertIn("[  PASSED  ]", said)

    def test_a_message_attribute(self):
        self.assertEqual(run_c("attribute", """
            LogMsg msg = {0};
            uint64_t out = 0;
            uint32_t refused = zoltLogGetMsgTrial(&msg, &out);
            msg.type = ZOLTLOG_MSG_AUDIT;
            msg.messageId = 17;
            printf("%u %u ", refused, zoltLogGetMsgTrial(&msg, &out));
            printf("%lu\\n", (unsigned long)out);
            return 0;
        """), "3 0 17\n")

    def test_an_error_code(self):
        self.assertEqual(run_c("code", """
            printf("%d %s %s\\n", ZOLTLOG_TRIAL, qdulResultName(62), qdulResultText(62));
            return 0;
        """), "62 ZOLTLOG_TRIAL a result on trial\n")

    def test_a_query_attribute(self):
        self.assertEqual(run_c("query", """
            LogQueryNode attribute = {0}, number = {0}, equal = {0};
            attribute.kind = ZOLTLOG_TERM_ATTRIBUTE;
            attribute.value.number = ZOLTLOG_ATTR_TRIAL;
            number.kind = ZOLTLOG_TERM_NUMBER;
            number.value.number = 1000;
            equal.kind = ZOLTLOG_OP_EQUAL;
            equal.left = &attribute;
            equal.right = &number;
            printf("%d %d ", evalTreeToFilterFiles(5, 7, "", NULL, 1, 1000, &equal),
                   evalTreeToFilterFiles(5, 7, "", NULL, 1000, 1, &equal));
            number.value.number = 100000;
            updateQueryForTZ(&equal, 3600);
            printf("%lu\\n", (unsigned long)number.value.number);
            return 0;
        """), "1 0 103600\n")

    def test_a_viewer_field(self):
        write("5-7-1-240301-0000000000.log", "$Header 65543,5,7,1709300702,0,hostA\n"
              "2,5,7,7,1,1709300702000,42,43,0:,9:Disk full,3:mgr,3,(0|)\n"
              "2,5,7,7,2,1709300702001,42,43,0:,4:Good,3:mgr,0,(0|)\n")
        fields = compiled("tools/common/fields.cpp", "qdul_tools_common")
        others = (f"{BUILD}/tools/common/libqdul_tools_common.a", f"{BUILD}/lib/libqdul.so.3", "-lpcre2-8", *UNPACKERS)
        objects = f"{BUILD}/tools/qdlogview/CMakeFiles/qdlogview.dir"
        names = [entry["file"] for entry in ENTRIES if "/qdlogview.dir/" in entry["command"]]
        link(f"{HERE}/bin/qdlogview", fields, *(f"{objects}/{os.path.basename(name)}.o" for name in names), *others)
        link(f"{HERE}/bin/fields_list", fields, f"{BUILD}/docs/man/CMakeFiles/fields_list.dir/__/fields_list.cpp.o", *others)
        self.assertIn("*trial*\n\tbytes of the text\n", printed(f"{HERE}/bin/fields_list"))
        log = "5-7-1-240301-0000000000.log"
        self.assertIn("trial", printed(f"{HERE}/bin/qdlogview", "--complete", "fields").split())
        self.assertEqual(printed(f"{HERE}/bin/qdlogview", "-o", "csv", "--fields", "trial,text", "-w", "trial > 4", log),
                         "trial,text\n9,Disk full\n")
        self.assertEqual(json.loads(printed(f"{HERE}/bin/qdlogview", "-o", "json", "-n", "1", log))["trial"], 4)

    def test_a_tools_option(self):
        link(f"{HERE}/bin/qdlogmgr", *all_compiled(sources("tools/qdlogmgr") + ["tools/qdlogview/regex.cpp"], "qdlogmgr"),
             f"{BUILD}/tools/common/libqdul_tools_common.a", f"{BUILD}/lib/libqdul.so.3", "-lpcre2-8", *UNPACKERS)
        self.assertRegex(printed(f"{HERE}/bin/qdlogmgr", "--help"), r"(?m)^ +--trial +an option on trial$")
        listed = printed(f"{HERE}/bin/qdlogmgr", "--complete", "options").replace("=", "").split()
        self.assertIn("--trial", listed)
        self.assertIn("\n*--trial*\n\tAn option on trial.\n\tNobody *needs* it.\n\n",
                      printed(f"{HERE}/bin/qdlogmgr", "--help=manual"))
        self.assertNotIn("Nobody", printed(f"{HERE}/bin/qdlogmgr", "--help"))
        self.assertEqual(printed(f"{HERE}/bin/qdlogmgr", "list", "--trial", "-D", f"{HERE}/lib", status=1), "")


if __name__ == "__main__":
    if SANITIZE or CACHE.get("QDUL_TEST_INSTALLED"):
        print("the trials are made with the library of a plain build")
        raise SystemExit(77)
    unittest.main()
