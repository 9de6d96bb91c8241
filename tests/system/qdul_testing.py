# SPDX-License-Identifier: Apache-2.0
"""What the tests of whole programs share. Each script runs in a new empty directory, HERE."""
import os
import re
import subprocess
import sys

BUILD = os.environ["QDUL_BUILD"]
SOURCE = os.environ["QDUL_SOURCE"]
HERE = os.getcwd()


def program(name):
    """The path of a built tool."""
    return f"{BUILD}/bin/{name}"


def processor(path):
    """What an ELF file is for: word size, byte order, machine."""
    with open(path, "rb") as file:
        head = file.read(20)
    return head[4:6] + head[18:20]


def is_foreign():
    """Whether what was built is for another processor than this Python, which then cannot load it."""
    return processor(sys.executable) != processor(f"{BUILD}/lib/libqdul.so.3")


def plain_environment(**variables):
    """What a program needs here and no more, in UTC, with the variables given."""
    kept = ("PATH", "LD_LIBRARY_PATH", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS")
    return {**{name: os.environ[name] for name in kept if name in os.environ}, "TZ": "UTC", **variables}


def users_environment(**variables):
    """That of the user who runs the tests, without what changes a tool's output or its configuration."""
    environment = {**os.environ, "NO_COLOR": "1", "LC_ALL": "C.UTF-8", **variables}
    if "ZOLTLOG_CFG_LOC" not in variables:
        environment.pop("ZOLTLOG_CFG_LOC", None)
    return environment


def host_number():
    """What this host's files have in their names."""
    os.makedirs("host", exist_ok=True)
    write("host.conf", f"5.Configuration={HERE}/host5.conf\n")
    write("host5.conf", f"Default.LogDirectory={HERE}/host/\n")
    subprocess.run([program("qdlogger"), "--config=host.conf", "-P", "5", "who am I"], check=True, env=plain_environment())
    return int(os.listdir("host")[0].split("-")[2])


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def append(path, *lines):
    """Adds bytes to a file, each time with one call."""
    with open(path, "ab", buffering=0) as file:
        file.write(b"".join(lines))


def manual(tool, number="1"):
    """The source of a manual page, of a tool with the options that it lists."""
    if number != "1":
        return read(f"{SOURCE}/docs/man/{tool}.{number}.scd")
    options = subprocess.run([program(tool), "--help=manual"], capture_output=True, text=True, check=True).stdout
    return read(f"{SOURCE}/docs/man/{tool}.1.scd").replace("\n@OPTIONS@\n", f"\n{options}\n")


def section(page, title):
    """What a manual page's source says under a title."""
    return page.split(f"\n# {title}\n", 1)[1].split("\n# ", 1)[0]


def literal_lines(text):
    """The lines of the literal blocks of a page's source or of a document."""
    blocks = re.findall(r"(?ms)^```[a-z]*\n(.*?)^```", text)
    return [line for block in blocks for line in block.splitlines()]


def string(value):
    """A text as a log record holds it: length, colon, bytes, comma."""
    return b"%d:%s," % (len(value), value)
