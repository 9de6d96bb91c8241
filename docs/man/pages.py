#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes manual pages with scdoc, of what is written down already.

    calls       section 3: a page of each family of calls, and links from every call and record to its page
    page        a page that is written by hand; a line @PLACE@ is replaced by what a file has
    document    a document; the table whose first column is called PLACE is replaced by what a file has
    list        a list for a page that is written by hand: of all families of calls, or of the conventions
                that a header opens with
"""
import argparse
import itertools
import os
import re
import subprocess
import sys
import textwrap
from typing import NamedTuple

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from header import comment_lines, is_function, read_header, read_interface, table_rows  # noqa: E402

MOST_COLUMNS = 72  # of a line of code: it stands seven columns from the left


class Page(NamedTuple):
    name: str
    what: str


# The page of each section of a header; a section without a row, or a row without a section, is an error.
PAGES = {
    "zoltlog.h": {
        "": None,  # zoltlog(7)
        "constants": Page("zoltlog-constants", "names for the numbers of the logging library"),
        "records": Page("zoltlog-records", "records of the logging library"),
        "exported data": Page("zoltLogMutex", "data that the logging library exports"),
        "message record": Page("zoltLogInitMsg", "fill, look at and release a message record"),
        "log handle": Page("zoltLogOpen", "open and close a log, send a record, set levels"),
        "message entry points and contexts": Page("zoltLogAppMsg", "send messages, and give them a context"),
        "record encoding": Page("zoltLogMsgSerialize", "make a line of a message record"),
        "log files": Page("zoltLogOpenFile", "open, write, roll over and close the files of a series"),
        "configuration record": Page("InitLogCfg", "settings of an originator or a log set"),
        "configuration files": Page("zoltLogReadCfg", "read and write settings, register products"),
        "property store: (each also exists with the suffix File)":
            Page("utiOpenPropertyStore", "read and change single lines of a configuration file"),
        "catalogue and reading": Page("GetLogFiles", "find, list, choose, copy and remove log files"),
        "message text and sinks": Page("OutputToConsole", "texts of messages, console, system log, loading of libraries"),
        "platform services": Page("zoltLogOs_open", "files, directories, host and process"),
        "the lock": Page("zoltLogLock", "the library's lock, and locks like it"),
        "identifiers, memory, time texts, encodings": Page("zoltLogFree", "memory, ids, time texts and encodings"),
        "entry of libzoltLogFormatMsg.so.3": Page("LogFormatMessageFn", "entry of a formatter plug-in"),
    },
    "zoltlog_results.h": {"": Page("qdulResultText", "names and texts of result codes")},
    "zoltlis.h": {"": Page("zoltLisVEx", "texts with their arguments, and how to walk them")},
    "qdlis.h": {"": Page("qdlisAddCatalog", "message catalogues, and texts built item by item")},
    "qdul.hpp": {"": Page("qdul.hpp", "the logging library for C++17")},
}
INSIDE = "inside"  # the section of a C++ header that users do not need
SEE = (("zoltlog", 7), ("zoltlog.conf", 5), ("qdul-log", 5), ("qdlogcfg", 1), ("qdlogview", 1))  # of a document
LIBRARY = {"zoltlis.h": "qdlis", "qdlis.h": "qdlis"}


# ---- text ------------------------------------------------------------------------

def escaped(text):
    """Text that scdoc shows as it is."""
    return re.sub(r"([\\*_`+])", r"\\\1", text)


def started(text):
    """The same at the begin of a line, where more signs count."""
    return "\\" + text if re.match(r"[-#:|.\[\]<>=+]", text) else text


def paragraph(text):
    return started(text) + "\n\n"


def literal(lines):
    return "```\n" + "\n".join(lines).replace("\\", "\\\\") + "\n```\n\n"


def dedented(lines):
    shortest = min(len(line) - len(line.lstrip()) for line in lines if line.strip())
    return [line[shortest:] for line in lines]


# ---- comments --------------------------------------------------------------------

def definitions(lines):
    """The rows (term, text) of lines that are columns, or None: then they are code or a wider table."""
    lines = dedented(lines)
    starts = [match.end() for line in lines if (match := re.match(r"\S.*?\S {2,}(?=\S)|\S {2,}(?=\S)", line))]
    if not starts:
        return None
    column = max(set(starts), key=starts.count)
    rows = []
    for line in lines:
        apart = re.match(r"(\S+(?: \S+)*) {2,}(\S.*)", line)
        narrow = len(line) > column and line[:column].strip() and " " not in line[:column].strip() and line[column - 1] == " "
        if apart and not line.startswith(" "):
            if re.search(r"\S {2,}\S", apart.group(2)):
                return None
            rows.append([apart.group(1), apart.group(2)])
        elif narrow:
            rows.append([line[:column].strip(), line[column:].strip()])
        elif not line.strip():
            continue
        elif line.startswith(" " * min(column, 6)) and rows:
            rows[-1][1] = (rows[-1][1] + " " + line.strip()).strip()
        elif line.startswith(" "):
            return None
        elif rows and not rows[-1][1] and rows[-1][0][0].islower():  # a sentence among the terms
            rows[-1][0] += " " + line.strip()
        else:
            rows.append([line.strip(), ""])
    return rows


def marked(text, names):
    """Escaped text in which the names of calls and records stand out."""
    return re.sub(r"\w+", lambda word: f"*{word.group(0)}*" if word.group(0) in names else escaped(word.group(0)),
                  re.sub(r"([\\*`+])", r"\\\1", text))


def prose(lines, names):
    """A comment as paragraphs, lists and blocks of code."""
    made = ""
    block = []

    def flush():
        nonlocal made, block
        while block and not block[-1].strip():
            block.pop()
        if not block:
            return
        if block[0].startswith("  "):
            rows = definitions(block)
            if rows is None:
                made += literal(dedented(block))
            else:
                for term, text in rows:
                    made += f"{started(marked(term, names))}\n" + (f"\t{started(marked(text, names))}\n\n" if text else "\n")
        else:
            made += paragraph(marked(" ".join(line.strip() for line in block), names))
        block = []

    for line in lines:
        indented = line.startswith("  ")
        of_list = bool(block) and block[0].startswith("  ")
        if not line.strip():
            if not (of_list and definitions(block) is None):  # code may have empty lines
                flush()
            else:
                block.append("")
            continue
        item = re.match(r"(\d+)\. ", line)
        first = re.match(r"\w+", line)
        sentence = bool(block) and not of_list and re.search(r"\.\)?$", block[-1]) and first and first.group(0) in names
        if block and (indented != of_list or item or sentence) and not (indented and re.match(r"\d+\. ", block[0])):
            flush()
        block.append(line)
    flush()
    return made


# ---- declarations ----------------------------------------------------------------

def wrapped(text, most=MOST_COLUMNS):
    """A function's declaration in lines that fit; other lines as they are."""
    if "(" not in text:
        return [text]
    text = re.sub(r"\s*ZOLTLOG_PRINTF\(\d+, \d+\)", "", " ".join(text.split()))
    if len(text) <= most:
        return [text]
    lines = []
    head, rest = text.split("(", 1)
    line = head + "("
    for part in re.split(r"(?<=,) ", rest):
        if len(line) + 1 + len(part) > most and line.strip():
            lines.append(line)
            line = "    " + part
        else:
            line += part if line.endswith("(") else " " + part
    return lines + [line]


def narrowed(line):
    """A line of a record or an enumeration; a remark that is too long goes below it."""
    found = re.fullmatch(r"( *)(\S.*?) *(/\*.*\*/)", line)
    if len(line) <= MOST_COLUMNS or not found:
        return [line]
    inset = found.group(1) + "    "
    return [found.group(1) + found.group(2)] + textwrap.wrap(found.group(3), MOST_COLUMNS, initial_indent=inset,
                                                             subsequent_indent=inset + "   ")


def is_call(declaration):
    """Whether users call or use it by its name, other than a type or a number."""
    return is_function(declaration) or declaration.text.startswith(("extern", "static inline"))


def code(declaration):
    if declaration.text.startswith("static inline"):
        return wrapped(re.sub(r"^static inline |\s*\{.*", "", declaration.text, flags=re.S) + ";")
    if declaration.text.startswith("typedef") and "{" not in declaration.text:
        return wrapped(declaration.text)
    if not is_call(declaration):
        return [part for line in declaration.text.split("\n") for part in narrowed(line)]
    lines = wrapped(declaration.text)
    if not declaration.remark:
        return lines
    if len(lines[-1]) + len(declaration.remark) + 7 <= MOST_COLUMNS:
        return lines[:-1] + [f"{lines[-1]} /* {declaration.remark} */"]
    return lines + [f"    /* {declaration.remark} */"]


def table(declaration):
    """A table of the header as a list: the first argument of a row, and what the others tell."""
    made = ""
    for row in table_rows(declaration.text):
        name, number = row[0], row[1]
        text = row[2].strip('"') if len(row) == 3 else ""
        made += f"*{escaped(name)}*\n\t{number}" + (f": {escaped(text)}" if text else "") + "\n\n"
    return made


def shown_names(section):
    return [declaration.name for declaration in section.declarations()
            if declaration.name and not declaration.text.startswith("#")]


# ---- pages of section 3 ------------------------------------------------------------

def sections_of(path):
    """{title: (section, page)} of a header in C."""
    header = os.path.basename(path)
    sections = {section.title: section for section in read_header(path)}
    if PAGES[header][""] is None:  # zoltlog(7) has the opening comment; what follows it are constants, too
        sections["constants"].groups[:0] = sections[""].groups[1:]
    if sections.keys() != PAGES[header].keys():
        raise ValueError(f"{header}: these sections and pages do not fit: {sorted(sections.keys() ^ PAGES[header].keys())}")
    return {title: (section, PAGES[header][title]) for title, section in sections.items()}


def call_page(header, section, page, names, results):
    listed = [page.name] + [name for name in shown_names(section) if name != page.name and is_listed(section)]
    made = f"{page.name}(3)\n\n# NAME\n\n{', '.join(dict.fromkeys(listed))} - {page.what}\n\n"
    made += f"# SYNOPSIS\n\n*#include <{header}>*\n\n"
    calls = [declaration for declaration in section.declarations() if is_call(declaration)]
    if calls:
        made += literal([line for declaration in calls for line in code(declaration)])
        library = LIBRARY.get(header, "qdul")
        made += f"Link with $(*pkg-config --cflags --libs {library}*).\n\n"
    made += "# DESCRIPTION\n\n"
    for group in section.groups:
        own = [declaration for declaration in group.declarations if is_call(declaration)]
        others = [declaration for declaration in group.declarations
                  if not is_call(declaration) and not re.fullmatch(r"enum \{ \w+\(\w+\) \};", declaration.text)]
        if own:
            made += "## " + ", ".join(declaration.name for declaration in own) + "\n\n"
        made += prose(group.comment, names)
        for is_table, alike in itertools.groupby(others, lambda other: re.match(r"#define \w+\(X\)", other.text) is not None):
            made += "".join(map(table, alike)) if is_table else literal([line for other in alike for line in code(other)])
    if page.name == "qdulResultText":
        made += "# RESULTS\n\n" + results
    others = [name for name in ("qdulResultText", "zoltlog-records", "zoltlog-constants") if name != page.name]
    return made + "# SEE ALSO\n\n*zoltlog*(7), " + ", ".join(f"*{name}*(3)" for name in others) + "\n"


def is_listed(section):
    """Whether the names of a section get links: numbers do not."""
    return section.title != "constants"


def cpp_comment(text, inset):
    """A comment within code, in lines that fit."""
    begin, end = ("//", "") if text.startswith("//") else ("/*", " */")
    lines = [text[2:]] if end == "" else comment_lines(re.sub(r"\n +\*", "\n *", text))
    return textwrap.wrap(f"{begin} {' '.join(' '.join(lines).split())}{end}", MOST_COLUMNS, initial_indent=inset,
                         subsequent_indent=inset + "   ")


def cpp_code(member, inset=""):
    if member.text.startswith(("/*", "//")):
        return cpp_comment(member.text, inset)
    if member.members is not None:
        inside = [line for inner in member.members for line in cpp_code(inner, inset + "    ")]
        access = [inset + "  public:"] if member.text.startswith("class") else []
        return [f"{inset}{member.text} {{", *access, *inside, inset + "};"] if inside else [f"{inset}{member.text} {{}};"]
    text = re.sub(r"__attribute__\(\(.*?\)\) |, const char \*file = QDUL_FILE, int line = QDUL_LINE", "", member.text)
    text = re.sub(r"^(template ?<.*?>) (?=\w)|\bQDUL_FORMATTER::", lambda found: found.group(1) + "\n" if found.group(1) else "", text)
    if text.startswith("enum") and len(text) > MOST_COLUMNS:
        text = re.sub(r"(?<=[{,]) ", "\n    ", text).replace(" };", "\n};")
    return [inset + line for part in text.split("\n") for line in wrapped(part, MOST_COLUMNS - len(inset))]


def cpp_names(members):
    """What gets links: classes, as qdul::Log, and macros."""
    return [f"qdul::{member.name}" if member.name[0].isupper() and not member.name.startswith("QDUL_") else member.name
            for member in members if member.name and "::" not in member.name]


def cpp_page(path, page, names):
    opening, sections = read_interface(path)
    sections.pop(INSIDE)
    links = [name for members in sections.values() for name in cpp_names(members)]
    made = f"{page.name}(3)\n\n# NAME\n\n{escaped(', '.join([page.name] + links))} - {escaped(page.what)}\n\n"
    made += f"# SYNOPSIS\n\n*#include <{os.path.basename(path)}>*\n\nLink with $(*pkg-config --cflags --libs qdul*).\n\n"
    made += "# DESCRIPTION\n\n" + prose(opening, names)
    for title, members in sections.items():
        made += f"# {escaped(title).upper()}\n\n"
        for is_comment, alike in itertools.groupby(members, lambda member: member.text.startswith("/*")):
            if is_comment:
                made += "".join(prose(comment_lines(member.text), names) for member in alike)
            else:
                made += literal([line for member in alike for line in cpp_code(member)])
    return made + "# SEE ALSO\n\n*zoltlog*(7), *zoltLogOpen*(3), *zoltLogAppMsg*(3), *qdulResultText*(3)\n", links


def is_cpp(path):
    return path.endswith(".hpp")


def write_calls(headers, scdoc, out):
    os.makedirs(out, exist_ok=True)
    for old in os.listdir(out):
        os.remove(os.path.join(out, old))
    everything = {path: sections_of(path) for path in headers if not is_cpp(path)}
    names = {name for sections in everything.values() for section, _ in sections.values() for name in shown_names(section)}
    results = "".join(table(declaration) for sections in everything.values() for section, _ in sections.values()
                      for declaration in section.declarations() if declaration.name == "ZOLTLOG_RESULTS")
    for path, sections in everything.items():
        for section, page in sections.values():
            if page is None:
                continue
            source = call_page(os.path.basename(path), section, page, names, results)
            write_page(source, scdoc, os.path.join(out, page.name + ".3"))
            for name in shown_names(section):
                if name != page.name and is_listed(section):
                    write(os.path.join(out, name + ".3"), f".so man3/{page.name}.3\n")
    for path in filter(is_cpp, headers):
        page = PAGES[os.path.basename(path)][""]
        source, links = cpp_page(path, page, names)
        write_page(source, scdoc, os.path.join(out, page.name + ".3"))
        for name in links:
            write(os.path.join(out, name + ".3"), f".so man3/{page.name}.3\n")


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def write_page(source, scdoc, out):
    """A page of its source. Words are not broken: a name has to be found by searching for it."""
    made = subprocess.run([scdoc], input=source, stdout=subprocess.PIPE, check=True, encoding="utf-8").stdout
    write(out, re.sub(r"(?m)^(\.TH .*)$", r"\1\n.nh", made, count=1))


# ---- lists -------------------------------------------------------------------------

def list_calls(headers):
    made = ""
    for path in headers:
        pages = PAGES[os.path.basename(path)].values() if is_cpp(path) else [page for _, page in sections_of(path).values()]
        for page in pages:
            if page is not None:
                made += f"*{page.name}*(3)\n\t{escaped(page.what)}\n\n"
    return made


def list_conventions(headers):
    """The numbered conventions of the opening comment."""
    lines = read_header(headers[0])[0].groups[0].comment
    first = next(i for i, line in enumerate(lines) if line.startswith("1. "))
    made = ""
    for item in re.split(r"\n(?=\d+\. )", "\n".join(lines[first:])):
        text = escaped(re.sub(r"^\d+\. ", "", " ".join(item.split())))
        made += "- " + re.sub(r"^([^.]+\.)(?= )", r"*\1*", text) + "\n"
    return made


# ---- documents ---------------------------------------------------------------------

def inline(text):
    """Markdown's inline signs as scdoc's."""
    made = ""
    for part in re.split(r"(`[^`]+`|\*\*[^*]+\*\*|(?<!\w)\*[^*]+\*(?!\w)|\[[^]]+\]\([^)]+\))", text):
        if re.fullmatch(r"`[^`]+`", part):
            made += f"*{escaped(part[1:-1])}*"
        elif part.startswith("**") and part.endswith("**") and len(part) > 4:
            made += f"*{escaped(part[2:-2])}*"
        elif re.fullmatch(r"\*[^*]+\*", part):
            made += f"_{escaped(part[1:-1])}_"
        elif re.fullmatch(r"\[[^]]+\]\([^)]+\)", part):
            made += escaped(re.match(r"\[([^]]+)\]", part).group(1))
        else:
            made += escaped(part)
    return re.sub(r"(?<=\w)([*_])(?=\w)", r"\1", made)


def cells(row):
    row = row.replace("\\|", "\0").strip().strip("|")
    return [cell.strip().replace("\0", "|") for cell in row.split("|")]


def document_table(rows):
    """Columns up to three; a list of what the first cell names beyond that."""
    head, body = cells(rows[0]), [cells(row) for row in rows[2:]]
    if len(head) > 3:
        made = ""
        for row in body:
            texts = [row[1]] + [f"{title}: {text}" for title, text in zip(head[2:], row[2:])]
            made += f"{started(inline(row[0]))}\n\t{started(inline('. '.join(texts)))}.\n\n"
        return made
    made = ""
    for number, row in enumerate([[f"**{title}**" for title in head]] + body):
        for place, cell in enumerate(row):
            sign = ("[" if number == 0 else "|") if place == 0 else ":"
            made += f"{sign}{'[' if number == 0 else ' '} {inline(cell)}\n"
    return made + "\n"


def document(path, name, number, what, places):
    with open(path, encoding="utf-8") as file:
        lines = file.read().split("\n")
    made = f"{name}({number})\n\n# NAME\n\n{name} - {what}\n\n# DESCRIPTION\n\n"
    block = []

    def flush():
        nonlocal made, block
        if not block:
            return
        if block[0].startswith("    "):
            made += literal(dedented(block))
        elif block[0].startswith("|"):
            title = cells(block[0])[0]
            made += places.pop(title) + "\n" if title in places else document_table(block)
        elif re.match(r"- |\d+\. ", block[0]):
            for item in re.split(r"\n(?=- |\d+\. )", "\n".join(block)):
                sign, text = re.match(r"(-|\d+\.) ((?s:.*))", item).groups()
                made += f"{'-' if sign == '-' else '.'} {inline(' '.join(text.split()))}\n"
            made += "\n"
        else:
            made += paragraph(inline(" ".join(block)))
        block = []

    for line in lines[1:]:
        if line.startswith("## "):
            flush()
            made += f"# {escaped(line[3:]).upper()}\n\n"
        elif not line.strip():
            if block and block[0].startswith("    "):
                block.append("")
            else:
                flush()
        else:
            kind = "    " if line.startswith("    ") else "|" if line.startswith("|") else ""
            if block and not line.startswith("  ") and block[0].startswith("    "):
                while not block[-1].strip():
                    block.pop()
                flush()
            elif block and (kind == "|") != block[0].startswith("|"):
                flush()
            block.append(line)
    while block and not block[-1].strip():
        block.pop()
    flush()
    if places:
        raise ValueError(f"{path} has no table under {sorted(places)}")
    others = [f"*{page}*({section})" for page, section in SEE if page != name]
    return made + f"# SEE ALSO\n\n{', '.join(others)}\n"


def filled(path, places):
    """A page's source with its places filled."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    for place, content in places.items():
        if text.count(f"\n@{place}@\n") != 1:
            raise ValueError(f"{path} has no line @{place}@, or several")
        text = text.replace(f"\n@{place}@\n", f"\n{content}\n")
    left = re.search(r"(?m)^@\w+@$", text)
    if left:
        raise ValueError(f"{path}: nothing is given for {left.group(0)}")
    return text


def read_places(words):
    places = {}
    for word in words:
        place, path = word.split("=", 1)
        with open(path, encoding="utf-8") as file:
            places[place] = file.read()
    return places


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--scdoc", default="scdoc")
    parser.add_argument("--out", required=True, help="the page or list, or the directory of the pages of calls")
    commands = parser.add_subparsers(dest="command", required=True)
    for name in ("calls", "list"):
        command = commands.add_parser(name)
        if name == "list":
            command.add_argument("of", choices=("calls", "conventions"))
        command.add_argument("headers", nargs="+")
    command = commands.add_parser("page")
    command.add_argument("source")
    command.add_argument("places", nargs="*", metavar="PLACE=FILE")
    command = commands.add_parser("document")
    for word in ("source", "name", "section", "what"):
        command.add_argument(word)
    command.add_argument("places", nargs="*", metavar="PLACE=FILE")
    given = parser.parse_args()
    if given.command == "calls":
        write_calls(given.headers, given.scdoc, given.out)
    elif given.command == "list":
        write(given.out, list_calls(given.headers) if given.of == "calls" else list_conventions(given.headers))
    elif given.command == "page":
        write_page(filled(given.source, read_places(given.places)), given.scdoc, given.out)
    else:
        write_page(document(given.source, given.name, given.section, given.what, read_places(given.places)), given.scdoc,
                   given.out)


if __name__ == "__main__":
    main()
