# SPDX-License-Identifier: Apache-2.0
"""Log through libqdul, and read what was logged.

Send messages:

>>> import qdul
>>> with qdul.Log("server", 7) as log:  # product and originator, by number or name
...     log.app(qdul.Severity.ERROR, "disk %s is %d%% full", "/var", 93, who="disk")
...     with log.context("req-17", "request for %s", "/index") as request:
...         request.app(qdul.Severity.INFO, "done")

Read them:

>>> for record in qdul.records("server", 7):
...     print(record.kind.name, record.context, record.who, record.text)
APPLICATION  disk disk /var is 93% full
CONTEXT  req-17 request for /index
APPLICATION req-17  done

Let the programs' usual logging end here:

>>> import logging
>>> shop = logging.getLogger("shop")
>>> shop.addHandler(qdul.Handler("server", 8))
>>> shop.warning("stock of %s is low", "tea")
>>> [record.text for record in qdul.records("server", 8)]
['stock of tea is low']

What the library says of threads and fork holds here: threads may share a Log, and a child of fork
goes on with those of its parent. With the start methods spawn and forkserver of multiprocessing a
Log or Handler that is handed to a child opens the series again there.

Texts are written as UTF-8 in every locale. A lone surrogate, which no encoding has, is written as
\\udcff, a NUL as \\x00.

All of the library is in qdul.lib, with the types of results and arguments set, and the records
and numbers of its headers are in qdul.declarations; its manual is zoltlog(7).
"""
from . import _declarations as declarations
from ._library import Error, lib, product_id
from .handler import Handler
from .log import Context, Log, SecureLog, Severity
from .reader import FormatError, Kind, Record, files, read_file, records

__all__ = [
    "Context", "Error", "FormatError", "Handler", "Kind", "Log", "Record", "SecureLog", "Severity", "declarations", "files",
    "lib", "product_id", "read_file", "records",
]
__version__ = declarations.ZOLTLOG_VERSION
