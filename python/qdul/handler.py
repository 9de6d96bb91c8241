# SPDX-License-Identifier: Apache-2.0
"""A handler of Python's logging that writes to a log of libqdul."""
from __future__ import annotations

import collections
import logging
from typing import Any, Optional, Type

from . import _declarations as c
from ._library import Id
from .log import Context, Log, Severity, _Handle

MOST_CONTEXTS = 64  # of a handler that are open at a time


class Handler(logging.Handler):
    """Writes what Python's logging tells it.

        level of logging      becomes a message
        above CRITICAL        application, severity emergency (from 60)
        CRITICAL              application, severity critical
        ERROR                 application, severity error
        WARNING               application, severity warning
        INFO                  application, severity info
        11 to 19              diagnostic, level 5 to 1 (19 and 18 are 1)
        DEBUG and below       debug, level 1 to 6 (10 is 1, 8 and 9 are 1 and 2, 0 is 6)

    Diagnostic and debug messages are written as the configuration of the originator says; those that are
    not are not formatted either. The name of the logger becomes the component that reports ("who"). The
    text is what the formatter makes: with exceptions and stacks, as a record of several lines. With
    thread_contexts each message carries the name of its thread as token of a context.

    A handler that is handed to another process opens the series again there; after a fork it goes on.
    """

    def __init__(self, product: Id, originator: Id = c.ZOLTLOG_DEFAULT_ORIGINATOR, *, file_originator: Optional[Id] = None,
                 logset: Optional[str] = None, thread_contexts: bool = False, level: int = logging.NOTSET) -> None:
        self.log = Log(product, originator, file_originator=file_originator, logset=logset)
        super().__init__(level)  # from here on it is closed when the program ends
        self.thread_contexts = thread_contexts
        self._contexts: collections.OrderedDict[str, Context] = collections.OrderedDict()

    def emit(self, record: logging.LogRecord) -> None:
        try:
            kind, number = message_of(record.levelno)
            if kind == c.ZOLTLOG_MSG_APP:
                self._target(record).app(number, "%s", self.format(record), who=record.name)
            elif kind == c.ZOLTLOG_MSG_DIAG:
                if number <= self.log.diag_level:
                    self._target(record).diag(number, "%s", self.format(record), who=record.name)
            elif number <= self.log.debug_level:
                self._target(record).debug(number, "%s", self.format(record), who=record.name)
        except Exception:  # as logging's own handlers do: a program does not end for its log
            self.handleError(record)

    def context_of(self, record: logging.LogRecord) -> str:
        """The token that a message carries; "" for none. To be replaced for tokens of another kind."""
        return (record.threadName or "") if self.thread_contexts else ""

    def _target(self, record: logging.LogRecord) -> _Handle:
        token = self.context_of(record)
        if not token:
            return self.log
        context = self._contexts.get(token)
        if context is None:
            if len(self._contexts) == MOST_CONTEXTS:  # the one that was not used for the longest time
                self._contexts.popitem(last=False)[1].close()
            context = self._contexts[token] = self.log.context(token)
            context.debug_level = context.diag_level = c.ZOLTLOG_LEVEL_LAST  # the log's levels were looked at
        self._contexts.move_to_end(token)
        return context

    def close(self) -> None:
        self.acquire()
        try:
            while self._contexts:
                self._contexts.popitem()[1].close()
            self.log.close()
        finally:
            self.release()
            super().close()

    def __reduce__(self) -> tuple[Any, ...]:
        return _open_again, (type(self), self.log._arguments, self.thread_contexts, self.level, self.name, self.formatter,
                             self.filters)


def _open_again(kind: Type[Handler], arguments: tuple[Any, ...], thread_contexts: bool, level: int, name: Optional[str],
                formatter: Optional[logging.Formatter], filters: list[Any]) -> Handler:
    product, originator, file_originator, logset = arguments
    handler = kind(product, originator, file_originator=file_originator, logset=logset, thread_contexts=thread_contexts,
                   level=level)
    handler.name = name
    handler.formatter = formatter
    handler.filters = filters
    return handler


def message_of(level: int) -> tuple[int, int]:
    """The kind of message, ZOLTLOG_MSG_..., and the severity or level that a level of logging becomes.

    >>> message_of(logging.ERROR), message_of(logging.DEBUG), message_of(15)
    ((2, 2), (0, 1), (1, 3))
    """
    for least, severity in ((60, Severity.EMERGENCY), (logging.CRITICAL, Severity.CRITICAL), (logging.ERROR, Severity.ERROR),
                            (logging.WARNING, Severity.WARNING), (logging.INFO, Severity.INFO)):
        if level >= least:
            return c.ZOLTLOG_MSG_APP, int(severity)
    if level > logging.DEBUG:
        return c.ZOLTLOG_MSG_DIAG, 1 + (logging.INFO - 1 - level) // 2
    return c.ZOLTLOG_MSG_DEBUG, min(c.ZOLTLOG_LEVEL_LAST, 1 + (logging.DEBUG - level) // 2)
