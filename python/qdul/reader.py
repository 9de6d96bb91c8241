# SPDX-License-Identifier: Apache-2.0
"""Records of log files. The files are found by the library; qdul-log(5) tells what is in them."""
from __future__ import annotations

import contextlib
import ctypes
import dataclasses
import datetime
import enum
import heapq
import os
import re
from typing import Any, Callable, Iterable, Iterator, Optional, Pattern, Union

from . import _declarations as c
from ._library import Id, check, configurations, encoded, lib, originator_id, product_id
from .log import Severity  # noqa: F401, for the examples above

Time = Union[datetime.datetime, float]  # without a zone: local time; a number: seconds since 1970-01-01 UTC
EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
MOST_TRIES = 4096  # places of a damaged line where a whole record is looked for


class Kind(enum.IntEnum):
    """Of records."""

    DEBUG = c.ZOLTLOG_MSG_DEBUG
    DIAGNOSTIC = c.ZOLTLOG_MSG_DIAG
    APPLICATION = c.ZOLTLOG_MSG_APP
    CONTEXT = c.ZOLTLOG_MSG_CONTEXT
    AUDIT = c.ZOLTLOG_MSG_AUDIT
    UNKNOWN = 255  # records of old files do not tell all kinds


class FormatError(Exception):
    """A line that is no record, or a file that is no log file."""

    def __init__(self, path: str, offset: int, what: str) -> None:
        super().__init__(path, offset, what)
        self.path, self.offset, self.what = path, offset, what

    def __str__(self) -> str:
        return f"{self.path}: at byte {self.offset}: {self.what}"


@dataclasses.dataclass(frozen=True)
class Record:
    """One record. Texts have their line feeds; bytes that are not UTF-8 are in them as os.fsdecode puts them.

    who is the component of a debug, diagnostic or application record, the subject of an audit record, the
    token that a context record begins. Old files have no numbers and times: they are 0.
    """

    kind: Kind
    product: int
    originator: int
    file_originator: int  # 0 in a log set's file
    message_id: int
    milliseconds: int  # since 1970-01-01 UTC
    pid: int
    tid: int
    context: str
    text: str
    who: str
    severity: Optional[int]  # of application records
    level: Optional[int]  # of debug and diagnostic records
    outcome: Optional[int]  # of audit records
    arguments: str  # of a context record whose message has a number: "(NUMBER|...)"
    path: str
    offset: int  # of its line in the file

    @property
    def time(self) -> datetime.datetime:
        return EPOCH + datetime.timedelta(milliseconds=self.milliseconds)


# ---- one line --------------------------------------------------------------------

_HEADER = re.compile(rb"\s*\$Header\s+(\d{1,20}),(.*)", re.S)
_PREFIX = {
    c.ZOLTLOG_RECORD_VERSION_ORIGINATOR:
        re.compile(rb"([0-4]),(\d{1,20}),(\d{1,20}),(\d{1,20}),(\d{1,20}),(-?\d{1,19}),(\d{1,20}),(\d{1,20}),"),
    c.ZOLTLOG_RECORD_VERSION_LOGSET:
        re.compile(rb"([0-4]),()(\d{1,20}),()(\d{1,20}),(-?\d{1,19}),(\d{1,20}),(\d{1,20}),"),
}
_LENGTH = re.compile(rb"(\d{1,10}):")
_NUMBER = re.compile(rb"(-?\d{1,10})(?:,|$)")
_ARGUMENT = re.compile(rb"1(\d):|[AXS](\d{1,10}):|(?:[iuDC]\d{1,10}|9\d{1,10}):-?\d{1,20}\||8[-+.,0-9infa]+\|")
_OPENING = re.compile(rb"\(\d{1,20}\|")


class _Line:
    """A line and a place in it."""

    def __init__(self, line: bytes, at: int = 0) -> None:
        self.line, self.at = line, at

    def take(self, pattern: Pattern[bytes], what: str) -> re.Match[bytes]:
        match = pattern.match(self.line, self.at)
        if match is None:
            raise ValueError(what)
        self.at = match.end()
        return match

    def string(self) -> str:
        length = int(self.take(_LENGTH, "no length before a text").group(1))
        end = self.at + length
        if self.line[end:end + 1] != b",":
            raise ValueError("a text does not have its length")
        text = self.line[self.at:end]
        self.at = end + 1
        return text.replace(b"\r", b"\n").decode("utf-8", "surrogateescape")

    def block(self) -> str:
        """An argument block: "(" number "|" arguments ")"; blocks within it have a comma behind them."""
        begin, depth = self.at, 0
        while True:
            if self.line.startswith(b"(", self.at):
                self.take(_OPENING, "the argument block is not valid")
                depth += 1
            elif self.line.startswith(b")", self.at) and depth > 0:
                self.at += 1
                depth -= 1
                if depth == 0:
                    return self.line[begin:self.at].decode("utf-8", "surrogateescape")
                if not self.line.startswith(b",", self.at):
                    raise ValueError("the argument block is not valid")
                self.at += 1
            elif depth == 0:
                raise ValueError("no argument block")
            else:
                match = self.take(_ARGUMENT, "the argument block is not valid")
                length = match.group(1) or match.group(2)
                if length is not None:
                    self.at += int(length)
                    if not self.line.startswith(b"|", self.at):
                        raise ValueError("the argument block is not valid")
                    self.at += 1

    def end(self) -> None:
        if self.at != len(self.line):
            raise ValueError("bytes follow the end of the record")


def _fields(line: _Line, kind: Kind, version: int) -> tuple[str, Optional[int], str]:
    """who, number and arguments of a record whose kind is known."""
    who, number, arguments = "", None, ""
    if kind != Kind.APPLICATION or version > c.ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO:
        who = line.string()
    if kind != Kind.CONTEXT:
        number = int(line.take(_NUMBER, "severity, level or outcome is not valid").group(1))
        if kind == Kind.APPLICATION and not 0 <= number <= c.ZOLTLOG_SEVERITY_EMERGENCY:
            raise ValueError("severity is not valid")
    if kind != Kind.DEBUG:
        arguments = line.block()
    line.end()
    return who, number, arguments


def _fields_by_look(line: _Line, version: int) -> tuple[Kind, tuple[str, Optional[int], str]]:
    """The same of a record of an old file, which does not tell its kind."""
    begin = line.at
    if version <= c.ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO:
        with contextlib.suppress(ValueError):
            return Kind.APPLICATION, _fields(line, Kind.APPLICATION, version)
        line.at = begin
    who = line.string()
    if line.line.startswith(b"(", line.at):
        arguments = line.block()
        line.end()
        return Kind.CONTEXT, (who, None, arguments)
    number = int(line.take(_NUMBER, "severity, level or outcome is not valid").group(1))
    if line.at == len(line.line):
        return Kind.DEBUG, (who, number, "")
    arguments = line.block()
    line.end()
    return Kind.UNKNOWN, (who, number, arguments)


def parse_record(line: bytes, version: int, path: str = "", offset: int = 0, product: int = 0) -> Record:
    """The record of a line without its line feed; ValueError when it is none. product is the file's.

    >>> record = parse_record(b"2,5,7,7,12,1700000000123,42,43,0:,17:Disk full, 2 of 3,3:mgr,3,(0|)", 65543)
    >>> record.text, record.who, Severity(record.severity).name, record.time.isoformat()
    ('Disk full, 2 of 3', 'mgr', 'CRITICAL', '2023-11-14T22:13:20.123000+00:00')
    """
    place = _Line(line)
    numbers = [0] * 7
    kind = Kind.UNKNOWN
    if version in _PREFIX:
        groups = place.take(_PREFIX[version], "a number is missing or too large").groups()
        kind = Kind(int(groups[0]))
        numbers = [int(group or 0) for group in groups[1:]]
    context, text = place.string(), place.string()
    if version in _PREFIX:
        who, number, arguments = _fields(place, kind, version)
    else:
        kind, (who, number, arguments) = _fields_by_look(place, version)
    of_record, originator, file_originator, message_id, milliseconds, pid, tid = numbers
    return Record(kind, of_record or product, originator, file_originator, message_id, milliseconds, pid, tid, context, text, who,
                  number if kind == Kind.APPLICATION else None, number if kind in (Kind.DEBUG, Kind.DIAGNOSTIC) else None,
                  number if kind == Kind.AUDIT else None, "" if arguments == "(0|)" else arguments, path, offset)


def _salvaged(line: bytes, version: int, path: str, offset: int, product: int) -> Optional[Record]:
    """The whole record behind the beginning of another one, which a killed writer left on the same line."""
    if version not in _PREFIX:
        return None
    for tries, match in enumerate(_PREFIX[version].finditer(line, 1)):
        if tries == MOST_TRIES:
            break
        for at in range(match.start(), match.end()):  # the digits before may be the end of another number
            if _PREFIX[version].match(line, at):
                with contextlib.suppress(ValueError):
                    return parse_record(line[at:], version, path, offset + at, product)
    return None


# ---- files -----------------------------------------------------------------------

def read_file(path: Union[str, "os.PathLike[str]"], *, strict: bool = False) -> Iterator[Record]:
    """The records of a file, in its order. A line that is none is left out, or FormatError if strict.

    What another program is writing just now, a last line without its line feed, is left out.
    """
    path = os.fspath(path)
    with open(path, "rb") as file:
        line = file.readline()
        header = _HEADER.match(line)
        if header is None:
            raise FormatError(path, 0, "no header line")
        version = int(header.group(1))
        if not c.ZOLTLOG_RECORD_VERSION_OLDEST <= version <= c.ZOLTLOG_RECORD_VERSION_LOGSET:
            raise FormatError(path, 0, f"unknown version {version}")
        product = re.match(rb"\s*\d+" if version != c.ZOLTLOG_RECORD_VERSION_LOGSET else rb"(?!)", header.group(2))
        name = re.match(r"(\d+)-", os.path.basename(path))
        of_file = int(product.group()) if product else int(name.group(1)) if name else 0
        offset = len(line)
        for line in file:
            if not line.endswith(b"\n"):
                return
            record: Optional[Record] = None
            try:
                record = parse_record(line[:-1], version, path, offset, of_file)
            except ValueError as error:
                if strict:
                    raise FormatError(path, offset, str(error)) from None
                record = _salvaged(line[:-1], version, path, offset, of_file)
            if record is not None:
                yield record
            offset += len(line)


def _seconds(time: Optional[Time]) -> Optional[float]:
    return time.timestamp() if isinstance(time, datetime.datetime) else time


def _comparison(attribute: int, operator: int, number: int) -> list[Any]:
    """Nodes of a query: the comparison first, then what it refers to."""
    left, right = c.LogQueryNode(kind=c.ZOLTLOG_TERM_ATTRIBUTE), c.LogQueryNode(kind=c.ZOLTLOG_TERM_NUMBER)
    left.value.number, right.value.number = attribute, number
    node = c.LogQueryNode(kind=operator, left=ctypes.pointer(left), right=ctypes.pointer(right))
    return [node, left, right]


def _query(since: Optional[float], until: Optional[float]) -> list[Any]:
    """Nodes of a query for the files that may have records of a time, the root first; empty: all files."""
    nodes: list[Any] = []
    if since is not None and since > 0:  # made or last written since then
        nodes = _comparison(c.ZOLTLOG_ATTR_TIME, c.ZOLTLOG_OP_GREATER_EQUAL, int(since))
    if until is not None:
        before = _comparison(c.ZOLTLOG_ATTR_CREATION_TIME, c.ZOLTLOG_OP_LESS_EQUAL, max(0, int(until)))
        if nodes:
            both = c.LogQueryNode(kind=c.ZOLTLOG_OP_AND, left=ctypes.pointer(nodes[0]), right=ctypes.pointer(before[0]))
            return [both, *nodes, *before]
        return before
    return nodes


def _listed(settings: Any, since: Optional[float], until: Optional[float]) -> list[str]:
    """The files of a series that the library lists, the oldest first."""
    listing = c.LogListing()
    nodes = _query(since, until)
    if nodes:
        listing.query = ctypes.pointer(nodes[0])
    array = (ctypes.POINTER(c.LogCfg) * 1)(ctypes.pointer(settings))
    result = lib.GetLogFiles(array, 1, listing)
    found: list[tuple[int, str, str]] = []
    address = ctypes.cast(listing.files, ctypes.c_void_p).value if result == c.ZOLTLOG_OK else None
    while address:
        entry = c.LogFileEntry.from_address(address)
        name = os.fsdecode(ctypes.string_at(address + c.LogFileEntry.name.offset))
        series = name.rsplit("-", 2 if settings.isLogset == 0 else 1)[1:]  # day and counter, or time
        found.append((entry.creationTime, "-".join(series), os.fsdecode(entry.directory) + name))
        following = ctypes.cast(entry.next, ctypes.c_void_p).value  # a number: the field goes with its entry
        lib.zoltLogFree(address)
        address = following
    if result not in (c.ZOLTLOG_OK, c.ZOLTLOG_NO_LOG_FILES):
        check(result, "listing log files")
    return [path for _, _, path in sorted(found)]


def _series(product: int, originator: Optional[Id], logset: Optional[str]) -> Iterator[Any]:
    """The settings of each series that is asked for; they hold until the next one is."""
    def read(call: Callable[..., int], key: Any) -> Iterator[Any]:
        settings = c.LogCfg()
        try:
            check(call(product, key, settings), f"reading the configuration of product {product}")
            yield settings
        finally:
            lib.zoltLogFreeCfg(settings)

    if logset is not None:
        yield from read(lib.zoltLogReadlogsetCfg, encoded(logset))
    elif originator is not None:
        yield from read(lib.zoltLogReadCfg, originator_id(product, originator))
    else:
        # Originators need no section: the names of the files tell which there are.
        originators, directories, logsets = set(), set(), []
        with configurations(product) as (array, count):
            for place in range(count):
                settings = array[place].contents
                directories.add(os.fsdecode(settings.directory))
                if settings.isLogset:
                    logsets.append(settings.logsetName or b"Default")
                else:
                    originators.add(settings.originatorId)
        for directory in directories:
            with contextlib.suppress(OSError):
                for name in os.listdir(directory):
                    match = re.fullmatch(rf"{product}-(\d+)-\d+-\d{{6}}-\d{{10,}}\.log", name)
                    if match:
                        originators.add(int(match.group(1)))
        for number in sorted(originators):
            yield from read(lib.zoltLogReadCfg, number)
        for name_of_set in logsets:
            yield from read(lib.zoltLogReadlogsetCfg, name_of_set)


def files(product: Id, originator: Optional[Id] = None, *, logset: Optional[str] = None, since: Optional[Time] = None,
          until: Optional[Time] = None) -> list[str]:
    """The files of an originator's or log set's series, or of all series of a product; of each the oldest first.

    With times, those that may have records from then.
    """
    paths = [path for settings in _series(product_id(product), originator, logset)
             for path in _listed(settings, _seconds(since), _seconds(until))]
    return list(dict.fromkeys(paths))


def records(product: Id, originator: Optional[Id] = None, *, logset: Optional[str] = None, since: Optional[Time] = None,
            until: Optional[Time] = None, kinds: Optional[Iterable[Kind]] = None, severity: Optional[int] = None,
            who: Optional[str] = None, context: Optional[str] = None, text: Union[str, Pattern[str], None] = None,
            pid: Optional[int] = None, strict: bool = False) -> Iterator[Record]:
    """The records of a series, or of all series of a product merged by time, that meet every condition.

    severity: application records of this severity and worse. text: a regular expression that is somewhere
    in the text. since and until include their time. A file that is removed meanwhile is passed over.

    >>> [record.text for record in records("server", 7, severity=Severity.ERROR, text="full$")]
    ['disk /var is 93% full']
    """
    first, last = _seconds(since), _seconds(until)
    chosen = None if kinds is None else frozenset(kinds)
    pattern = re.compile(text) if isinstance(text, str) else text

    def asked(record: Record) -> bool:
        return ((first is None or record.milliseconds >= first * 1000) and (last is None or record.milliseconds <= last * 1000)
                and (chosen is None or record.kind in chosen)
                and (severity is None or (record.severity is not None and record.severity >= severity))
                and (who is None or record.who == who) and (context is None or record.context == context)
                and (pid is None or record.pid == pid) and (pattern is None or pattern.search(record.text) is not None))

    def read(paths: list[str]) -> Iterator[Record]:
        for path in paths:
            try:
                yield from filter(asked, read_file(path, strict=strict))
            except FileNotFoundError:
                continue

    seen: set[str] = set()
    series = []
    for settings in _series(product_id(product), originator, logset):
        paths = [path for path in _listed(settings, first, last) if path not in seen]
        seen.update(paths)
        series.append(read(paths))
    return iter(heapq.merge(*series, key=lambda record: record.milliseconds))
