# SPDX-License-Identifier: Apache-2.0
"""The loaded library, its results, and names of products and originators."""
from __future__ import annotations

import contextlib
import ctypes
import os
from typing import Any, Iterator, Union

from . import _declarations as c

Id = Union[int, str]  # a number, or one of the names that the configuration gives it
ROOM = 1024  # for originators and log sets, at first


def _load() -> ctypes.CDLL:
    """libqdul as the loader finds it; the localization library comes with it."""
    library = ctypes.CDLL("libqdul.so.3")
    for name, (result, arguments, _) in c.CALLS.items():
        try:
            function = getattr(library, name)
        except AttributeError:
            continue  # of qdlis.h, where another localization library stands in the place of ours
        function.restype = result
        function.argtypes = arguments
    return library


lib = _load()


class Error(Exception):
    """A call that failed. code is the library's result, name what its header calls it."""

    def __init__(self, code: int, doing: str) -> None:
        super().__init__(code, doing)
        self.code = code
        self.name, self.text = c.RESULTS.get(code, (str(code), "unknown result"))
        self.doing = doing

    def __str__(self) -> str:
        return f"{self.doing}: {self.text} ({self.name})"


def check(result: int, doing: str) -> None:
    if result != c.ZOLTLOG_OK:
        raise Error(result, doing)


def encoded(text: str) -> bytes:
    """A text as the library takes it: UTF-8 that no NUL ends early."""
    return text.encode("utf-8", "backslashreplace").replace(b"\0", b"\\x00")


@contextlib.contextmanager
def configurations(product: int = 0) -> Iterator[tuple[Any, int]]:
    """An array of the settings of a product's originators and log sets, or of all products', and its length."""
    room = ROOM
    while True:
        array = (ctypes.POINTER(c.LogCfg) * room)()
        count = ctypes.c_uint32()
        if product:
            result = lib.zoltLogReadProdIDCfg(None, product, room, array, count)
        else:
            result = lib.zoltLogReadAllCfg(None, room, array, count)
        try:
            if result != c.ZOLTLOG_OK or count.value < room:
                check(result,
                      f"reading the configuration of product {product}" if product else "reading the configuration")
                yield array, count.value
                return
        finally:
            lib.FreeConfigArray(array, count)
        room *= 4


def product_id(product: Id) -> int:
    """The number of a product.

    >>> product_id("server")
    5
    """
    if isinstance(product, int):
        return product
    with configurations() as (array, count):
        found: int = lib.GetIdFromName(array, count, c.ZOLTLOG_ATTR_PRODUCT_ID, os.fsencode(product))
    if found == 0:
        raise LookupError(f"no product is called {product!r}")
    return found


def originator_id(product: int, originator: Id) -> int:
    """The number of one of a product's originators."""
    if isinstance(originator, int):
        return originator
    with configurations(product) as (array, count):
        found: int = lib.GetIdFromName(array, count, c.ZOLTLOG_ATTR_ORIGINATOR_ID, os.fsencode(originator))
    if found == 0:
        raise LookupError(f"no originator of product {product} is called {originator!r}")
    return found
