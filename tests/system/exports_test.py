#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the built libraries promise to the linker: the exported names are exactly those
that the headers declare, the sonames, the libraries they need, and how they are hardened;
and every public header compiles alone."""
import os
import re
import shutil
import subprocess
import sys

from qdul_testing import BUILD, SOURCE, read

VERSION = "3.16.1.0"
SONAME_MAJOR = "3"
WARNINGS = ["-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-pedantic", "-Werror"]
failures = []


def check(holds, message):
    if not holds:
        failures.append(message)
        print("FAILED:", message)


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True,
                          env=dict(os.environ, LC_ALL="C")).stdout


def differences(name, got, expected, of_what):
    for extra in sorted(got - expected):
        check(False, f"{name} has {extra}, which {of_what} does not")
    for missing in sorted(expected - got):
        check(False, f"{name} lacks {missing}, which {of_what} has")


def declared(header):
    """Names of the functions and data that a C header declares."""
    text = read(header)
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    text = re.sub(r"^[ \t]*#(?:[^\n\\]|\\\n|\\.)*", " ", text, flags=re.M)
    text = re.sub(r'extern\s+"C"\s*\{', " ", text)
    # Bodies of records and enumerations, from the inside out; what is left of braces is
    # the end of the extern "C" block.
    while True:
        shorter = re.sub(r"\{[^{}]*\}", " ", text)
        if shorter == text:
            break
        text = shorter
    text = text.replace("}", " ")
    names = set()
    for statement in text.split(";"):
        statement = " ".join(statement.split())
        if not statement or re.match(r"(typedef|struct \w+$|enum\b|union\b)", statement):
            continue
        # A record's definition leaves "struct NAME".
        function = re.match(r"[\w\s*]*?\b(\w+) ?\(.*\)( __attribute__ ?\(\(.*\)\))?$", statement)
        data = re.match(r"extern [\w\s*]*?\b(\w+)$", statement)
        if function:
            names.add(function.group(1))
        elif data:
            names.add(data.group(1))
        else:
            check(False, f"{header}: cannot make out '{statement}'")
    return names


def listed(version_script):
    text = re.sub(r"/\*.*?\*/", " ", read(version_script), flags=re.S)
    block = re.search(r"global:(.*?)local:", text, flags=re.S).group(1)
    return {name.strip() for name in block.split(";") if name.strip()}


def exported(library):
    names = set()
    for line in run("nm", "-D", "--defined-only", library).splitlines():
        names.add(line.split()[-1].split("@")[0])
    return names


def dynamic(library, tag):
    return re.findall(rf"\({tag}\).*?\[([^\]]*)\]", run("readelf", "-dW", library))


cache = read(os.path.join(BUILD, "CMakeCache.txt"))


def setting(name):
    found = re.search(rf"^{name}:\w+=(.*)$", cache, flags=re.M)
    return found.group(1) if found else ""


sanitized = setting("QDUL_SANITIZE") != ""
hardened = setting("QDUL_HARDEN") == "ON"

qdul = os.path.join(BUILD, "lib", "libqdul.so." + SONAME_MAJOR)
qdlis = os.path.join(BUILD, "lib", "libqdlis.so." + SONAME_MAJOR)
include = os.path.join(SOURCE, "include")

# ---- names --------------------------------------------------------------------------
api = declared(os.path.join(include, "zoltlog.h"))
check(len(api) > 250, f"only {len(api)} names were found in zoltlog.h")
for known in ("zoltLogOpen", "zoltLogMutex", "errorCode", "zoltLogOs_gmtime_r", "isCfgValid", "sh_handle"):
    check(known in api, f"{known} was not found in zoltlog.h")
differences("libqdul.so", exported(qdul), api, "zoltlog.h")
differences("libqdul.map", listed(os.path.join(SOURCE, "src", "libqdul.map")), api, "zoltlog.h")

lis_api = declared(os.path.join(include, "zoltlis.h")) | declared(os.path.join(include, "qdlis.h"))
for name in sorted(lis_api):
    check(re.match(r"(zoltLis|qdlis)", name), f"libqdlis.so's headers declare {name}")
differences("libqdlis.so", exported(qdlis), lis_api, "zoltlis.h and qdlis.h")

# ---- versions -----------------------------------------------------------------------
for library, name in ((qdul, "libqdul"), (qdlis, "libqdlis")):
    check(dynamic(library, "SONAME") == [f"{name}.so.{SONAME_MAJOR}"], f"{name}: soname {dynamic(library, 'SONAME')}")
    real = os.path.basename(os.path.realpath(library))
    check(real == f"{name}.so.{VERSION}", f"{name}: the file is {real}")

# ---- needed libraries ---------------------------------------------------------------
if sanitized:
    print("needed libraries: not compared in a build with sanitizers")
else:
    def needed(library):
        names = {re.sub(r"\.so.*", "", name) for name in dynamic(library, "NEEDED")}
        return {name for name in names if not name.startswith("ld-linux")}

    differences("libqdul.so's needs", needed(qdul), {"libc", "libicuuc", "libqdlis"}, "the promise")
    check(needed(qdlis) <= {"libc", "libicuuc", "libm"}, f"libqdlis.so needs {needed(qdlis)}")

# ---- hardening ----------------------------------------------------------------------
if hardened:
    libraries = [qdul, qdlis]
    programs = [os.path.join(BUILD, "bin", name) for name in sorted(os.listdir(os.path.join(BUILD, "bin")))
                if os.access(os.path.join(BUILD, "bin", name), os.X_OK)]
    for path in libraries + [p for p in programs if open(p, "rb").read(4) == b"\x7fELF"]:
        name = os.path.basename(path)
        section = run("readelf", "-dW", path)
        check(re.search(r"\bBIND_NOW\b|Flags:.*\bNOW\b", section), f"{name}: not bound at load (BIND_NOW)")
        headers = run("readelf", "-lW", path)
        check("GNU_RELRO" in headers, f"{name}: no RELRO")
        stack = re.search(r"GNU_STACK.*", headers)
        check(stack and not re.search(r"\bRWE\b", stack.group(0)), f"{name}: the stack is executable")
        if path not in libraries:
            check("DYN" in run("readelf", "-hW", path), f"{name}: not position independent")
    for path in libraries:
        name = os.path.basename(path)
        undefined = run("nm", "-D", "--undefined-only", path)
        check("__stack_chk_fail" in undefined, f"{name}: no stack protector")
        check(re.search(r"__\w+_chk\b", undefined.replace("__stack_chk_fail", "")), f"{name}: not fortified")
        notes = run("readelf", "-nW", path)
        check("IBT" in notes and "SHSTK" in notes, f"{name}: no CET marks (IBT, SHSTK)")
else:
    print("hardening: not compared, this build is not hardened")

# ---- headers ------------------------------------------------------------------------
compilers = [("cc", "c++"), ("clang", "clang++")]
for c, cxx in [pair for pair in compilers if shutil.which(pair[0]) and shutil.which(pair[1])]:
    for header in ("zoltlog.h", "zoltlog_results.h", "zoltlis.h", "qdlis.h"):
        source = f'#include "{header}"\nint main(void) {{ return 0; }}\n'
        for compiler, standard, suffix in ((c, "c11", "c"), (c, "c17", "c"), (cxx, "c++17", "cpp")):
            file = f"alone.{suffix}"
            with open(file, "w", encoding="utf-8") as out:
                out.write(source)
            done = subprocess.run([compiler, f"-std={standard}", *WARNINGS, "-I", include, "-c", file, "-o", "alone.o"],
                                  capture_output=True, text=True)
            check(done.returncode == 0, f"{header} does not compile alone with {compiler} -std={standard}:\n{done.stderr}")

print(f"{len(api)} names of libqdul.so, {len(lis_api)} of libqdlis.so, {len(failures)} failures")
sys.exit(1 if failures else 0)
