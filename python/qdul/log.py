# SPDX-License-Identifier: Apache-2.0
"""Logs, contexts, and the messages that go through them."""
from __future__ import annotations

import ctypes
import enum
import re
from typing import Any, Callable, Optional, TypeVar

from . import _declarations as c
from ._library import Id, check, encoded, lib, originator_id, product_id

_CONVERSION = re.compile(r"%(?:(%)|([-+ 0#]*(?:\d+)?(?:\.\d+)?)([diouxXeEfFgGaAsc]))")


class Severity(enum.IntEnum):
    """Of application messages."""

    INFO = c.ZOLTLOG_SEVERITY_INFO
    WARNING = c.ZOLTLOG_SEVERITY_WARNING
    ERROR = c.ZOLTLOG_SEVERITY_ERROR
    CRITICAL = c.ZOLTLOG_SEVERITY_CRITICAL
    EMERGENCY = c.ZOLTLOG_SEVERITY_EMERGENCY


def c_format(text: str, values: tuple[Any, ...]) -> tuple[bytes, list[Any]]:
    """A format and its values as C's printf takes them: what decides the arguments of a catalogue's message.

    >>> c_format("disk %s is %d%% full", ("/var", 93))
    (b'disk %s is %lld%% full', [b'/var', c_long(93)])
    """
    if not values:
        return encoded(text.replace("%", "%%")), []
    made: list[Any] = []

    def converted(match: re.Match[str]) -> str:
        if match.group(1):
            return "%%"
        if len(made) == len(values):
            raise TypeError("not enough arguments for the format")
        value, flags, kind = values[len(made)], match.group(2), match.group(3)
        if kind in "diouxX":
            made.append(ctypes.c_longlong(value))
            return f"%{flags}ll{kind}"
        if kind in "eEfFgGaA":
            made.append(ctypes.c_double(value))
            return f"%{flags}{kind}"
        made.append(encoded(str(value)))
        return f"%{flags}s"

    if re.search(r"%", _CONVERSION.sub("", text)):
        raise ValueError(f"not a format: {text!r}")
    text = _CONVERSION.sub(converted, text)
    if len(made) != len(values):
        raise TypeError("more arguments than the format takes")
    return encoded(text), made


def worded(text: str, values: tuple[Any, ...], number: int) -> tuple[bytes, list[Any]]:
    """Format and values of a message: of a catalogue's, or of a text that is made here."""
    if number:
        return c_format(text, values)
    return b"%s", [encoded(text % values if values else text)]


_Closed = TypeVar("_Closed", bound="_Closing")


class _Closing:
    """What ends with the block of a with statement, by close(), or when nobody refers to it any more."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: _Closed) -> _Closed:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()


class _Handle(_Closing):
    """What messages go through: a log or a context.

    Every message call takes a text and, if that has %s, %d or the like, their values. number is that of
    the message in the catalogue, message_id one of the caller's own, flags are ZOLTLOG_OUT_... for this
    message. A call returns when the record is written, and raises Error when it is not.
    """

    def __init__(self) -> None:
        self._handle = c.LogHandle()
        self._pointer: Any = None  # of the handle while it is open

    @property
    def handle(self) -> Any:
        """The LogHandle, for calls of qdul.lib."""
        if self._pointer is None:
            raise ValueError("the log is closed")
        return self._pointer

    def _opened(self) -> None:
        self._handle.utf8 = 1
        self._pointer = ctypes.pointer(self._handle)

    def close(self) -> None:
        """Closes it; a second time does nothing."""
        pointer = getattr(self, "_pointer", None)  # none yet where making it failed
        self._pointer = None
        if pointer is not None:
            self._end(pointer)

    def _end(self, pointer: Any) -> None:
        raise NotImplementedError

    def _send(self, call: Callable[..., int], before: tuple[Any, ...], message_id: Optional[int], flags: int,
              after: tuple[Any, ...], text: str, values: tuple[Any, ...], number: int) -> None:
        made, arguments = worded(text, values, number)
        if message_id is None:
            flags |= c.ZOLTLOG_NO_MESSAGE_ID
        check(call(self.handle, message_id or 0, flags, *before, *after, made, *arguments), "sending a message")

    def app(self, severity: int, text: str, *values: Any, who: str = "", number: int = 0, message_id: Optional[int] = None,
            flags: int = 0) -> None:
        """Sends an application message, which is never filtered; who is the component that reports it."""
        self._send(lib.zoltLogAppMsg2Ex, (severity, encoded(who)), message_id, flags, (number,), text, values, number)

    def diag(self, level: int, text: str, *values: Any, who: str = "", number: int = 0, message_id: Optional[int] = None,
             flags: int = 0) -> None:
        """Sends a diagnostic message of a level from 1 to 6, if the log's diagnostic level is not below that."""
        if level <= self.diag_level:
            self._send(lib.zoltLogDiagMsg2, (level, encoded(who)), message_id, flags, (number,), text, values, number)

    def debug(self, level: int, text: str, *values: Any, who: str = "", message_id: Optional[int] = None, flags: int = 0) -> None:
        """Sends a debug message of a level from 1 to 6, if the log's debug level is not below that."""
        if level <= self.debug_level:
            self._send(lib.zoltLogDebugMsg2, (level, encoded(who)), message_id, flags, (), text, values, 0)

    def audit(self, subject: str, outcome: int, number: int, text: str, *values: Any, message_id: Optional[int] = None,
              flags: int = 0) -> None:
        """Sends an audit message: subject did something with this outcome. It is always one of a catalogue."""
        self._send(lib.zoltLogAuditMsg2, (encoded(subject), outcome), message_id, flags, (number,), text, values, number)

    def context(self, token: str, text: str = "", *values: Any, number: int = 0) -> Context:
        """A unit of work, told in a record of its own: messages that are sent through it carry the token."""
        return Context(self, token, text, *values, number=number)

    def _level(self, call: Callable[..., int]) -> int:
        level = ctypes.c_uint32()
        check(call(self.handle, level), "asking for a level")
        return level.value

    @property
    def debug_level(self) -> int:
        """The highest level of debug messages that are written. Follows the configuration when that says so."""
        return self._level(lib.zoltLogGetDebugLevel)

    @debug_level.setter
    def debug_level(self, level: int) -> None:
        check(lib.zoltLogSetDebugLevel(self.handle, level), "setting a level")

    @property
    def diag_level(self) -> int:
        """The same of diagnostic messages."""
        return self._level(lib.zoltLogGetDiagLevel)

    @diag_level.setter
    def diag_level(self, level: int) -> None:
        check(lib.zoltLogSetDiagLevel(self.handle, level), "setting a level")


class Log(_Handle):
    """An open log. Ends with the block of a with statement, by close(), or when nobody refers to it any more.

    Messages go to the originator's series, to that of another one (file_originator), or to that of a log
    set. No other thread may use a log while it is closed.
    """

    def __init__(self, product: Id, originator: Id = c.ZOLTLOG_DEFAULT_ORIGINATOR, *, file_originator: Optional[Id] = None,
                 logset: Optional[str] = None) -> None:
        super().__init__()
        self._arguments = (product, originator, file_originator, logset)
        product = product_id(product)
        originator = originator_id(product, originator)
        if logset is not None:
            if file_originator is not None:
                raise ValueError("a log has a log set or the originator of its file")
            result = lib.zoltLogOpenLogSet(product, originator, encoded(logset), self._handle)
        elif file_originator is not None:
            result = lib.zoltLogOpen2(product, originator, originator_id(product, file_originator), self._handle)
        else:
            result = lib.zoltLogOpen(product, originator, self._handle)
        if result != c.ZOLTLOG_OK:
            lib.zoltLogClose(self._handle)
        check(result, f"opening the log of product {product}, originator {originator}")
        self._opened()

    def _end(self, pointer: Any) -> None:
        check(lib.zoltLogClose(pointer), "closing the log")

    def __reduce__(self) -> tuple[Any, ...]:
        return _open_again, self._arguments


def _open_again(product: Id, originator: Id, file_originator: Optional[Id], logset: Optional[str]) -> Log:
    return Log(product, originator, file_originator=file_originator, logset=logset)


class Context(_Handle):
    """A context of a log, or of another context. Ends like a Log, before or after what it was made of."""

    def __init__(self, parent: _Handle, token: str, text: str = "", *values: Any, number: int = 0) -> None:
        super().__init__()
        self.token = token
        made, arguments = worded(text, values, number)
        result = lib.zoltLogCreateContext(parent.handle, self._handle, encoded(token), number, made, *arguments)
        if result != c.ZOLTLOG_OK:
            lib.zoltLogDestroyContext(self._handle)
        check(result, f"making the context {token}")
        self._opened()

    def _end(self, pointer: Any) -> None:
        check(lib.zoltLogDestroyContext(pointer), "closing the context")


class SecureLog(_Closing):
    """A log of secure audit messages: they go to the system log and to no file.

    level is the highest that is sent. extended puts eight values before each text, for collectors. ident
    and facility (a number of the module syslog) are the system log's.
    """

    def __init__(self, product: Id, originator: Id = c.ZOLTLOG_DEFAULT_ORIGINATOR, *, level: int = c.ZOLTLOG_LEVEL_LAST,
                 ident: Optional[str] = None, facility: Optional[int] = None, options: int = 0, extended: bool = False) -> None:
        self._handle = c.LogHandle()
        self._is_open = False
        settings = c.LogCfg()
        product = product_id(product)
        originator = originator_id(product, originator)
        check(lib.InitLogCfg(product, originator, None, settings), "making settings")
        try:
            settings.secureAuditLevel = level
            if extended:
                settings.outputFlags |= c.ZOLTLOG_OUT_OSLOGX
            if ident is not None:
                check(lib.zoltLogCfgSetSyslogIdent(settings, encoded(ident)), "setting the identity")
            if facility is not None:
                check(lib.zoltLogCfgSetSyslogFacility(settings, facility), "setting the facility")
            check(lib.zoltLogCfgSetSyslogOpt(settings, options), "setting the options")
            result = lib.zoltLogSecureOpen(product, originator, settings, self._handle)
        finally:
            lib.zoltLogFreeCfg(settings)
        if result != c.ZOLTLOG_OK:
            lib.zoltLogClose(self._handle)
        check(result, "opening the secure log")
        self._handle.utf8 = 1
        self._is_open = True

    def audit(self, level: int, subject: str, outcome: int, number: int, text: str, *values: Any) -> None:
        """Sends a message: subject did something with this outcome. It is always one of a catalogue."""
        if not self._is_open:
            raise ValueError("the log is closed")
        made, arguments = c_format(text, values)
        check(lib.zoltLogSecureAuditMsg(self._handle, level, encoded(subject), outcome, number, made, *arguments),
              "sending a secure audit message")

    def close(self) -> None:
        """Closes the log; a second time does nothing."""
        if getattr(self, "_is_open", False):  # not yet where making it failed
            self._is_open = False
            lib.zoltLogClose(self._handle)  # tells that there was no file
