"""Settings from the configuration file, which is read at the start of the library."""

from __future__ import annotations

import ctypes
import os

from zol._call import call, text
from zol._native import library


def get(section: str, name: str) -> str | None:
    """A setting as text; None if there is no such setting."""
    at = text(section, "section"), b"", text(name, "name")
    size = library.kiv_config_get_size(*at) + 1
    value = ctypes.create_string_buffer(size)
    return os.fsdecode(value.value) if library.kiv_config_get_param(*at, value, size) == 1 else None


def get_int(section: str, name: str) -> int | None:
    """A setting as a number; None if there is no such setting, or if it is not a number."""
    value = ctypes.c_int32()
    found = library.kiv_config_get_param_int(text(section, "section"), b"", text(name, "name"), value)
    return value.value if found == 1 else None


def parse_int(number: str) -> int:
    """Reads a number by the rules of the configuration: 0x1f, 31, 1f. Raises InvalidParamError."""
    value = ctypes.c_int32()
    call(repr(number), library.kiv_atoi, text(number, "number"), value)
    return value.value
