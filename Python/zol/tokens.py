"""Tokens: blobs of calibration data and the like, one file each in the board's token directory."""

from __future__ import annotations

import ctypes
import os

from zol._call import call, text
from zol._native import library

_path = (ctypes.c_char * 64).in_dll(library, "g_tokensPath")


def directory() -> str:
    """The directory of the tokens; empty while the library is not started."""
    return os.fsdecode(_path.value)


def exists(name: str) -> bool:
    """Tells whether a token can be read."""
    return bool(library.kiv_token_isExist(text(name, "name")) == 0)


def size(name: str) -> int:
    """The size of a token in bytes. Raises OpenError if there is no such token."""
    value = ctypes.c_uint32()
    call(f"token {name!r}", library.kiv_token_getSize, text(name, "name"), value)
    return value.value


def read(name: str) -> bytes:
    """The content of a token. Raises OpenError if there is no such token."""
    room = size(name)
    data = ctypes.create_string_buffer(room or 1)
    count = ctypes.c_uint32()
    call(f"token {name!r}", library.kiv_token_getData, text(name, "name"), data, room, count)
    return data.raw[:count.value]
