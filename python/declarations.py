#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the declarations of our C headers for Python's ctypes: numbers, records and the types of calls.

    declarations.py HEADER... > _declarations.py

Left out are records with types of the system in them (they are pointers to nothing known), and the
calls that take a va_list, which no Python program can make.
"""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs"))
from header import is_function, read_header, table_rows, uncommented  # noqa: E402

PLAIN = {
    "uint32_t": "c_uint32", "int32_t": "c_int32", "uint64_t": "c_uint64", "int64_t": "c_int64", "size_t": "c_size_t",
    "uintptr_t": "c_size_t", "char": "c_char", "wchar_t": "c_wchar", "double": "c_double", "unsigned long": "c_ulong",
}
HEAD = '''# SPDX-License-Identifier: Apache-2.0
# Made by declarations.py of {headers}. Not to be changed.
from __future__ import annotations

from ctypes import (POINTER, Structure, Union, c_char, c_char_p, c_double, c_int32, c_int64, c_size_t, c_uint32,
                    c_uint64, c_ulong, c_void_p, c_wchar, c_wchar_p)
from typing import Any

'''


class Unknown(Exception):
    """A type that has no counterpart."""


def type_of(text, records, result=False):
    """The ctypes name of a C type. A char * that a call yields stays an address, so that it can be released."""
    is_const = re.match(r"const\b", text) is not None
    text = re.sub(r"\b(?:const|struct)\b", " ", text)
    stars = text.count("*")
    base = " ".join(text.replace("*", " ").split())
    if base == "void" and stars == 0:
        return "None"
    if stars == 0:
        if base in PLAIN:
            return PLAIN[base]
        if base in records:
            return base
        if base.endswith("Fn"):
            return "c_void_p"
        raise Unknown(base)
    if base == "char":
        known = "c_char_p" if is_const or not result or stars > 1 else "c_void_p"
    elif base == "wchar_t":
        known = "c_wchar_p" if not result else "c_void_p"
    elif base in PLAIN or base in records:
        known = f"POINTER({PLAIN.get(base, base)})"
    else:
        known = "c_void_p"  # of void, the system or a record that is not declared
    for _ in range(stars - 1):
        known = f"POINTER({known})"
    return known


def fields_of(body, name, records, unions):
    """The (name, type) of a record's fields; unions inside it are added to the list of unions."""
    fields = []
    while True:  # a union within becomes a type of its own
        inner = re.search(r"union \{([^{}]*)\} (\w+);", body)
        if not inner:
            break
        union = f"{name}_{inner.group(2)}"
        unions.append((union, fields_of(inner.group(1), union, records, unions)))
        body = body[:inner.start()] + f"{union} {inner.group(2)};" + body[inner.end():]
        records = records | {union}
    for field in filter(str.strip, body.split(";")):
        kind, field_name, length = re.fullmatch(r"\s*(.*?[\s*])(\w+)(?:\[(\d+)\])?\s*", field, re.S).groups()
        known = type_of(kind, records)
        fields.append((field_name, f"{known} * {length}" if length else known))
    return fields


def records_of(declarations):
    """[(name, body)] in the order in which they are declared."""
    found = []
    for declaration in declarations:
        match = re.fullmatch(r"(?:typedef )?struct (\w+) ?\{(.*)\} ?\w*;", " ".join(uncommented(declaration.text).split()))
        if match:
            found.append(match.groups())
    return found


def known_records(found):
    """The names of the records whose fields all have counterparts."""
    known = {name for name, _ in found}
    while True:
        less = set()
        for name, body in found:
            if name in known:
                try:
                    fields_of(body, name, known, [])
                except Unknown:
                    less.add(name)
        if not less:
            return known
        known -= less


def numbers_of(declarations):
    """{name: value} of enumerations and macros, with those that a table of rows makes."""
    tables = {d.name: table_rows(d.text) for d in declarations if re.match(r"#define \w+\(X\)", d.text)}
    numbers = {}
    for declaration in declarations:
        macro = re.match(r'#define (\w+) +("[^"]*"|\d\w*)', declaration.text)
        if macro and macro.group(1) not in tables:
            text = macro.group(2)
            numbers[macro.group(1)] = text.strip('"') if text.startswith('"') else int(text.rstrip("uUlL"), 0)
        body = re.fullmatch(r"enum ?\{(.*)\};", " ".join(uncommented(declaration.text).split()))
        if not body:
            continue
        text = re.sub(r"(\w+)\(\w+\)", lambda use: "".join(f"{row[0]} = {row[1]}, " for row in tables[use.group(1)]), body.group(1))
        following = 0
        for item in filter(str.strip, text.split(",")):
            name, _, value = (part.strip() for part in item.partition("="))
            if value:
                terms = re.fullmatch(r"(\w+|-\d+)(?: - (\d+))?", value)
                first = terms.group(1)
                following = numbers[first] if first in numbers else int(first, 0)
                following -= int(terms.group(2) or 0)
            numbers[name] = following
            following += 1
    return numbers


def call_of(declaration, records):
    """(result type, [argument types], whether more may follow), or None for a call with a va_list."""
    text = re.sub(r"\s*ZOLTLOG_PRINTF\(\d+, \d+\)", "", " ".join(uncommented(declaration.text).split()))
    result, arguments = re.fullmatch(r"(.*?[\s*])\w+\((.*)\);", text).groups()
    if "va_list" in arguments:
        return None
    kinds = []
    parts = [] if arguments == "void" else [part.strip() for part in arguments.split(",")]
    for part in parts:
        if part != "...":
            kinds.append(type_of(re.sub(r"\w+$", "", part), records))
    return type_of(result, records, result=True), kinds, "..." in parts


def main(headers):
    declarations = []
    for header in sorted(headers, key=lambda path: not path.endswith("zoltlis.h")):  # what the others include first
        declarations += [d for section in read_header(header) for d in section.declarations()]
    found = records_of(declarations)
    known = known_records(found)
    write = sys.stdout.write
    write(HEAD.format(headers=", ".join(os.path.basename(header) for header in headers)))
    for name, value in numbers_of(declarations).items():
        write(f"{name} = {value!r}\n")
    write("\n# {value: (name, text)} of the result codes\nRESULTS = {\n")
    for declaration in declarations:
        if declaration.name == "ZOLTLOG_RESULTS":
            for name, value, text in table_rows(declaration.text):
                write(f'    {value}: ("{name}", {text}),\n')
    write("}\n")
    shapes = []  # unions before the records that hold them
    for name, body in found:
        if name in known:
            unions = []
            fields = fields_of(body, name, known, unions)
            shapes += [("Union", *union) for union in unions] + [("Structure", name, fields)]
    for kind, name, _ in shapes:
        write(f"\n\nclass {name}({kind}):\n    pass\n")
    write("\n\n")
    for _, name, fields in shapes:
        write(f"{name}._fields_ = [\n" + "".join(f'    ("{field}", {kind}),\n' for field, kind in fields) + "]\n")
    write("\n# name: (type of the result, types of the arguments, whether more arguments may follow)\n"
          "CALLS: dict[str, tuple[Any, list[Any], bool]] = {\n")
    for declaration in declarations:
        if is_function(declaration) and not declaration.text.startswith("static"):
            call = call_of(declaration, known)
            if call:
                write(f'    "{declaration.name}": ({call[0]}, [{", ".join(call[1])}], {call[2]}),\n')
    write("}\n")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1:])
