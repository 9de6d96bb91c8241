# SPDX-License-Identifier: Apache-2.0
"""Reads our public headers: what is made from them (manual pages, declarations for Python) cannot differ
from them. It knows the form that they are written in, not C or C++; what it does not know is an error.

A header is a list of sections, each a list of groups: a comment and the declarations that follow it
without another comment between. A section begins with a comment "---- title ----".
"""
import re
from typing import NamedTuple

SECTION = re.compile(r"/\* -{4,} (.*?) -{4,}")


class Declaration(NamedTuple):
    text: str  # without its trailing comment, blanks as they stand
    remark: str  # the comment behind it, or ""
    name: str


class Group:
    def __init__(self, comment):
        self.comment = comment  # lines without the comment's own signs
        self.declarations = []


class Section:
    def __init__(self, title):
        self.title = title
        self.groups = []

    def declarations(self):
        return [declaration for group in self.groups for declaration in group.declarations]


def comment_lines(comment):
    """The lines of a comment without /*, */ and the stars or blanks before them."""
    lines = comment[2:-2].split("\n")
    if SECTION.match(comment):
        lines = lines[1:]
    lines = [re.sub(r"^ \* ?| \*$", "", line) if re.match(r" \*", line) else line for line in lines]
    if len(lines) > 1 and not re.search(r"\n \*", comment):  # continued without stars
        lines = [lines[0]] + [re.sub(r"^ {3}", "", line) for line in lines[1:]]
    if lines:
        lines[0] = lines[0][1:] if lines[0].startswith(" ") else lines[0]
    while lines and not lines[0].strip():
        lines.pop(0)
    while lines and not lines[-1].strip():
        lines.pop()
    return [line.rstrip() for line in lines]


def uncommented(text):
    return re.sub(r"/\*.*?\*/", " ", text, flags=re.S)


def name_of(text):
    """What a declaration declares; "" for an enumeration without a name."""
    plain = " ".join(uncommented(text).split())
    for pattern in (r"#define (\w+)",
                    r"typedef (?:struct|union) \w+ ?\{.*\} ?(\w+);",
                    r"typedef struct (\w+) \w+;",
                    r"struct (\w+) ?\{.*\};",
                    r"typedef .*\( ?\* ?(\w+)\) ?\(.*\);",
                    r"static inline .*?\b(\w+)\([^()]*\) ?\{.*\}",
                    r"[\w\s*]+?\b(\w+) ?\(.*\)(?: ZOLTLOG_PRINTF\(\d+, \d+\))?;",
                    r"extern [\w\s*]+?\b(\w+);"):
        found = re.fullmatch(pattern, plain) if not pattern.startswith("#") else re.match(pattern, plain)
        if found:
            return found.group(1)
    if re.fullmatch(r"enum ?\{.*\};", plain):
        return ""
    raise ValueError(f"cannot make out '{plain[:80]}'")


def pieces(text):
    """(kind, text) of comments, preprocessor lines, blank lines and statements, in their order."""
    at = 0
    while at < len(text):
        if text.startswith("/*", at):
            end = text.index("*/", at) + 2
            yield "comment", text[at:end]
        elif text[at] == "#":
            end = re.compile(r"(?:[^\n\\]|\\[\s\S])*").match(text, at).end()
            yield "directive", text[at:end]
        elif text[at] == "\n":
            end = at + 1
            yield "newline", "\n"
        elif text[at].isspace():
            end = at + 1
        elif re.compile(r'extern "C" \{|\}').match(text, at):
            end = text.index("\n", at)
        else:
            end = statement_end(text, at)
            yield "statement", text[at:end]
        at = end


def statement_end(text, at):
    """Behind the ';' that ends a statement, or the '}' of a function's body."""
    depth = 0
    is_function = text.startswith("static inline", at)
    while at < len(text):
        if text.startswith("/*", at):
            at = text.index("*/", at) + 2
            continue
        if text[at] in "{(":
            depth += 1
        elif text[at] in "})":
            depth -= 1
            if depth == 0 and is_function and text[at] == "}":
                return at + 1
        elif text[at] == ";" and depth == 0:
            return at + 1
        at += 1
    raise ValueError("a statement does not end")


def read_header(path):
    """The sections of a header; the first has no title and holds what stands before the first one with one."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    text = text.split("\n", 1)[1]  # the licence
    section = Section("")
    sections = [section]
    lines_since = 2  # line feeds since the last statement
    for kind, piece in pieces(text):
        if kind == "newline":
            lines_since += 1
            continue
        if kind == "comment":
            title = SECTION.match(piece)
            if title:
                section = Section(title.group(1))
                sections.append(section)
            if lines_since == 0 and section.groups and section.groups[-1].declarations:
                last = section.groups[-1].declarations
                last[-1] = last[-1]._replace(remark=" ".join(" ".join(comment_lines(piece)).split()))
                continue
            lines = comment_lines(piece)
            if lines or title:
                section.groups.append(Group(lines))
        elif kind == "statement" or is_constant(piece):
            if not section.groups:
                section.groups.append(Group([]))
            section.groups[-1].declarations.append(Declaration(piece, "", name_of(piece)))
            lines_since = 0
    return sections


def is_constant(directive):
    """Whether a directive defines a value or a table that users read."""
    found = re.match(r"#define (\w+)(\(X\))? +\S", directive)
    return found is not None and (found.group(2) is not None or re.match(r'#define \w+ +(?:"|\d)', directive) is not None)


def table_rows(text):
    """The rows of a table #define NAME(X) X(a, b, "c") ...: lists of their arguments."""
    return [re.findall(r'"[^"]*"|[^\s,][^,]*', row) for row in re.findall(r"X\(((?:[^()\"]|\"[^\"]*\")*)\)", text.split("(X)", 1)[1])]


def is_function(declaration):
    return re.match(r"(?:typedef|enum|extern)\b|struct \w+\s*\{|#", declaration.text) is None


# ---- C++ ---------------------------------------------------------------------------------------------

CPP_SECTION = re.compile(r"(?m)^// -{4,} (.*?) -{4,}$")
CPP_TYPE = re.compile(r"(?:template ?<.*?> ?)?(?:(enum)(?: class)?|class|struct|union) ([\w:]+(?:<[\w:]+>)?)")


class Member(NamedTuple):
    """A declaration of a C++ header without its body, a comment, or a type with its public members."""
    text: str  # of one line, but for comments and enumerations; a type's up to its brace
    name: str  # of a type
    members: list  # of a type, else None


def skipped(text, at):
    """Behind the comment, the text in quotes or the character at a place; or the place itself."""
    found = re.compile(r'/\*.*?\*/|//[^\n]*|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', re.S).match(text, at)
    return found.end() if found else at


def closing(text, at):
    """Behind the brace that closes the one at a place."""
    depth = 0
    while at < len(text):
        behind = skipped(text, at)
        if behind > at:
            at = behind
            continue
        depth += {"{": 1, "}": -1}.get(text[at], 0)
        at += 1
        if depth == 0:
            return at
    raise ValueError("a block does not end")


def head_end(text, at):
    """The ';' that ends a declaration, or the '{' of its body."""
    depth = 0
    while at < len(text):
        behind = skipped(text, at)
        if behind > at:
            at = behind
            continue
        if text[at] == "{" and (depth > 0 or re.search(r"= *$", text[:at])):  # an initial value
            at = closing(text, at)
            continue
        if text[at] in ";{" and depth == 0:
            return at
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        at += 1
    raise ValueError("a declaration does not end")


def signature(head):
    """A function's declaration of what stands before its body: without what initializes members."""
    depth = 0
    for at, sign in enumerate(head):
        depth += {"(": 1, ")": -1}.get(sign, 0)
        if depth == 0 and head[at - 1 : at + 2] == " : ":
            return head[: at - 1] + ";"
    return head + ";"


def cpp_members(text, at, public):
    """(members, place behind them) up to the closing brace or the end. Namespaces are looked through."""
    members = []
    while True:
        at = re.compile(r"\s*").match(text, at).end()
        if at == len(text) or text[at] == "}":
            return members, at
        access = re.compile(r"(public|protected|private):").match(text, at)
        if access:
            public = access.group(1) == "public"
            at = access.end()
            continue
        if text.startswith(("/*", "//"), at):
            end = skipped(text, at)
            found = [Member(text[at:end], "", None)]
        elif text[at] == "#":
            end = re.compile(r"(?:[^\n\\]|\\[\s\S])*").match(text, at).end()
            macro = re.match(r"#define (\w+(?:\([^)]*\))?) ", text[at:end])
            found = [Member(macro.group(1), macro.group(1).split("(")[0], None)] if macro else []
        else:
            brace = head_end(text, at)
            head = " ".join(text[at:brace].split())
            kind = CPP_TYPE.match(head)
            end = brace + 1
            if text[brace] == ";":
                found = [Member(head + ";", "", None)]
            elif re.match(r"(?:inline )?namespace\b", head):
                found, end = cpp_members(text, brace + 1, True)
                end += 1
            elif kind and kind.group(1):
                end = closing(text, brace) + 1
                found = [Member(" ".join(text[at:end].split()), kind.group(2), None)]
            elif kind:
                inside, end = cpp_members(text, brace + 1, not head.startswith("class"))
                end = text.index(";", end) + 1
                found = [Member(head, kind.group(2), inside)]
            elif head.endswith((")", "const", "noexcept", "override")) or " : " in head:
                end = closing(text, brace)
                found = [Member(signature(head), "", None)]
            else:  # a variable with its initial value
                end = text.index(";", closing(text, brace)) + 1
                found = [Member(" ".join(text[at:end].split()), "", None)]
        if public:
            members += found
        at = end


def read_interface(path):
    """What a C++ header offers: the lines of its opening comment, and {title: members} of its sections."""
    with open(path, encoding="utf-8") as file:
        text = file.read().split("\n", 1)[1]
    opening, rest = re.match(r"(/\*.*?\*/)(.*)", text, re.S).groups()
    parts = CPP_SECTION.split(rest)
    # Sections lie inside namespaces, which begin and end in any of them.
    return comment_lines(opening), {title: cpp_members(re.sub(r"(?m)^(?:inline )?namespace [\w:]*\s*\{$|^\}.*// namespace.*$", "", part),
                                                       0, True)[0]
                                    for title, part in zip(parts[1::2], parts[2::2])}
