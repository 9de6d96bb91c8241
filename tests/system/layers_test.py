#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Which unit of src/ uses which, as the built objects' symbols tell, is what the table
"Layers" of docs/architecture.md allows: every use points forward in it."""
import os
import re
import subprocess
import sys

from qdul_testing import BUILD, SOURCE, read

OBJECTS = os.path.join(BUILD, "CMakeFiles", "qdul.dir", "src")
USED = "Uw"  # letters of nm: undefined, and undefined if nobody defines it
PRIVATE = "tdbrVWvuaNn"  # seen by the object alone, or the same inline code in each of them


def table_order():
    """The units in the order of the table, row by row."""
    section = read(os.path.join(SOURCE, "docs", "architecture.md")).split("## Layers", 1)[1].split("\n## ", 1)[0]
    rows = [line.split("|") for line in section.splitlines() if line.startswith("|")]
    return [unit for row in rows[2:] for unit in re.findall(r"`(\w+)`", row[2])]


def symbols(path):
    """The names that an object defines for others, and those that it uses."""
    defined, used = set(), set()
    for line in subprocess.run(["nm", path], check=True, capture_output=True, text=True).stdout.splitlines():
        letter, name = line.split()[-2:]
        if letter in USED:
            used.add(name)
        elif letter not in PRIVATE:
            defined.add(name)
    return defined, used


def uses_of(objects):
    """{(user, used): [names]} of {unit: [paths]}."""
    table = {unit: [symbols(path) for path in paths] for unit, paths in objects.items()}
    owner = {name: unit for unit, parts in table.items() for defined, _ in parts for name in defined}
    uses = {}
    for unit, parts in table.items():
        for name in sorted(set().union(*(used for _, used in parts))):
            if owner.get(name, unit) != unit:
                uses.setdefault((unit, owner[name]), []).append(name)
    return uses


def circle_through(uses, first):
    """A shortest circle of uses that begins with the use first, or None."""
    start, end = first
    ways = [[start, end]]
    seen = {end}
    for way in ways:
        for user, used in uses:
            if user == way[-1] and used == start:
                return way + [start]
            if user == way[-1] and used not in seen:
                seen.add(used)
                ways.append(way + [used])
    return None


def faults(order, units, uses):
    """What is wrong with a table's order for the units that there are and their uses."""
    found = [f"{unit} is not in the table" for unit in sorted(units - set(order))]
    found += [f"{unit} is in the table and not in src/" for unit in sorted(set(order) - units)]
    found += [f"{unit} is in the table twice" for unit in sorted(set(order)) if order.count(unit) > 1]
    place = {unit: number for number, unit in enumerate(order)}
    for use, names in sorted(uses.items()):
        user, used = use
        if user in place and used in place and place[user] > place[used]:
            circle = circle_through(uses, use)
            found.append(f"{user} uses {used}, which stands before it, for {', '.join(names)}" +
                         (f"; a circle: {' -> '.join(circle)}" if circle else ""))
    return found


def header_circles():
    """Headers of src/ that include each other."""
    directory = os.path.join(SOURCE, "src")
    includes = {}
    for name in os.listdir(directory):
        if name.endswith(".h"):
            with open(os.path.join(directory, name), encoding="utf-8") as stream:
                for other in re.findall(r'^#include "(\w+\.h)"', stream.read(), re.M):
                    includes[(name, other)] = []
    return [" -> ".join(circle) for include in sorted(includes)
            if (circle := circle_through(includes, include)) is not None]


def check(what, passed, told=""):
    if not passed:
        sys.exit(f"FAILED: {what}\n{told}")


def check_that_faults_are_found(order, objects, uses):
    units = set(order)
    sound = {("write", "read"): ["f"], ("read", "os"): ["g"], ("read_latest", "read"): ["h"]}
    check("sound uses pass", not faults(order, units, sound))
    cases = {
        "a use of a row above": ({("os", "read"): ["f"]}, r"^os uses read, .* for f$"),
        "a use of the unit before it in its row": ({("os", "cmn_routines"): ["f"]}, "^os uses cmn_routines"),
        "a circle of two rows": (sound | {("os", "read"): ["f"]}, "a circle: os -> read -> os$"),
        "a circle in one row": (sound | {("read", "read_latest"): ["f"]},
                                "a circle: read -> read_latest -> read$"),
        "a circle of three": (sound | {("os", "write"): ["f"]}, "a circle: os -> write -> read -> os$"),
    }
    for what, (fabricated, told) in cases.items():
        found = faults(order, units, fabricated)
        check(f"{what} is told once", len(found) == 1 and re.search(told, found[0]), "\n".join(found))
    check("a new unit is told", faults(order, units | {"new"}, {}) == ["new is not in the table"])
    check("a unit that is gone is told", len(faults(order, units - {"os"}, {})) == 1)
    check("a unit with two places is told", faults(order + ["os"], units, {}) == ["os is in the table twice"])

    # The same through the compiler and nm: code in os that would call the dispatcher.
    with open("upward.c", "w", encoding="utf-8") as stream:
        stream.write("unsigned zoltLogMsg(void); unsigned upward(void) { return zoltLogMsg(); }\n")
    subprocess.run([os.environ.get("CC", "cc"), "-c", "upward.c", "-o", "upward.o"], check=True)
    fabricated = uses_of(objects | {"os": objects["os"] + ["upward.o"]})
    check("an object's own call upward is told", set(fabricated) - set(uses) == {("os", "write")})
    check("a call upward is a fault", len(faults(order, units, fabricated)) == 1)


if not os.path.isdir(OBJECTS):
    print("there are no objects to look at: an installed library is tested")
    raise SystemExit(77)
order = table_order()
units = {name[:-4] for name in os.listdir(os.path.join(SOURCE, "src")) if name.endswith(".cpp")}
objects = {unit: [os.path.join(OBJECTS, unit + ".cpp.o")] for unit in units}
uses = uses_of(objects)
check("a use that everybody knows is seen", ("write_messages", "write") in uses)
found = faults(order, units, uses)
check("the units are as docs/architecture.md has them", not found, "\n".join(found))
circles = header_circles()
check("no header includes itself through others", not circles, "\n".join(circles))
check_that_faults_are_found(order, objects, uses)
print(f"{len(units)} units, {len(uses)} uses")
