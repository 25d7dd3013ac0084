"""The log of the library: its level, and Python's logging in the same format."""

from __future__ import annotations

import ctypes
import enum
import logging

from zol._call import UINT32_MAX, integer
from zol._native import library

_level = ctypes.c_uint32.in_dll(library, "g_debugLevel")


class Level(enum.IntEnum):
    """The levels of the lines. A level shows itself and those before it."""
    ERRR = 1  #: errors; always on standard error as well
    PRNT = 2  #: progress and results
    INF1 = 3  #: detail
    INF2 = 4  #: fine detail
    ALL = 10  #: shows everything


def level() -> int:
    """The highest level that is shown on standard output. The start of the library sets it."""
    return _level.value


def set_level(value: int) -> None:
    """Shows the lines up to this level from now on."""
    _level.value = integer(value, "level", 0, UINT32_MAX)


_NAMES = {Level.ERRR: "31m[ERRR]", Level.PRNT: "32m[PRNT]", Level.INF1: "32m[INF1]", Level.INF2: "32m[INF2]"}
_PREFIXES = {at: f"\033[{name}[   KIV   ]%35s %4d : \033[0m%s\n".encode() for at, name in _NAMES.items()}


def _level_of(record: logging.LogRecord) -> Level:
    if record.levelno >= logging.ERROR:
        return Level.ERRR
    if record.levelno >= logging.WARNING:
        return Level.PRNT
    return Level.INF1 if record.levelno >= logging.INFO else Level.INF2


class Handler(logging.Handler):
    """Writes records of Python's logging as lines of the library's log.

    logging.getLogger().addHandler(zol.log.Handler())

    Errors become ERRR, warnings PRNT, information INF1, and the rest INF2.
    """

    def emit(self, record: logging.LogRecord) -> None:
        """Writes one record."""
        try:
            at = _level_of(record)
            library._kiv_block_print(at, _PREFIXES[at], (record.funcName or "").encode(),
                                     ctypes.c_int(record.lineno), self.format(record).encode())
        except Exception:
            self.handleError(record)
