"""Calls of the C interface: arguments that are checked, statuses that become errors, owners."""

from __future__ import annotations

import ctypes
import math
import os
import sys
import warnings
from types import TracebackType
from typing import Any, Self

from zol.errors import ZolError, error_of

Payload = bytes | bytearray | memoryview  #: bytes that are sent

INT32_MAX = 0x7fffffff
UINT32_MAX = 0xffffffff


def call(of: object, function: Any, *arguments: object) -> None:
    """Calls an operation that returns a status, and raises its error. `of` names the object in the error.

    errno is cleared before, so that one of an earlier call is not taken for its own.
    """
    ctypes.set_errno(0)
    status = function(*arguments)
    if status:
        raise error_of(status, ctypes.get_errno(), f"{function.__name__}, {of}")


def integer(value: int, what: str, low: int = -INT32_MAX - 1, high: int = INT32_MAX) -> int:
    """Refuses what does not fit the C type, because ctypes would cut it."""
    if not isinstance(value, int):
        raise TypeError(f"{what} must be an int, not {type(value).__name__}")
    if not low <= value <= high:
        raise ValueError(f"{what} must be {low} to {high}, not {value}")
    return value


def text(value: str | os.PathLike[str], what: str) -> bytes:
    """A string of C."""
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise ValueError(f"{what} must not hold a zero character: {value!r}")
    return encoded


def payload_bytes(payload: Payload) -> bytes:
    """The bytes to send. A number or a str is refused: bytes(5) would be five zeros."""
    if isinstance(payload, bytes):
        return payload
    try:
        return memoryview(payload).tobytes()
    except TypeError:
        raise TypeError(f"bytes are needed, not {type(payload).__name__}") from None


def microseconds(seconds: float, what: str) -> int:
    """A time limit for the C interface, rounded up, and at most the 35 minutes that fit there."""
    if math.isnan(seconds):
        raise ValueError(f"{what} must be a number of seconds")
    return math.ceil(min(max(seconds, 0) * 1e6, INT32_MAX))


class Owner:
    """Owns something of the library, and gives it back by close() or at the end of a `with` block."""

    # Holds one element while open. Removing it is atomic, so that only one thread closes. A lock could not be
    # held while close() waits for a callback, which might close too.
    _claim: list[bool] = []

    def _opened(self) -> None:
        self._claim = [True]

    def _release(self) -> None:
        raise NotImplementedError

    def _check_open(self) -> None:
        if not self._claim:
            raise ValueError(f"{self} is closed")

    @property
    def closed(self) -> bool:
        """True after close()."""
        return not self._claim

    def close(self) -> None:
        """Gives back what this owns. Closing again does nothing."""
        try:
            self._claim.pop()
        except IndexError:
            return
        try:
            self._release()
        except ZolError:
            self._opened()
            raise

    def __enter__(self) -> Self:
        self._check_open()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        if self._claim and not sys.is_finalizing():
            warnings.warn(f"{self} was not closed", ResourceWarning, source=self)
            try:
                self.close()
            except ZolError:
                pass  # the library's log tells the reason
