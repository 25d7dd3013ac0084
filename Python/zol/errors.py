"""The errors of the library. Each has the status of the C interface, and the errno of the system call."""

from __future__ import annotations

import os


class ZolError(OSError):
    """An operation of the library failed; the classes that are derived from it tell how."""

    status = 0  #: the status of the C interface
    meaning = "unknown status"  #: the status in words

    def __init__(self, what: str, errno: int = 0, status: int | None = None) -> None:
        """An error of an operation: `what` names the operation and its object."""
        super().__init__(errno, os.strerror(errno) if errno else "")
        self.what = what
        if status is not None:
            self.status = status

    def __str__(self) -> str:
        text = f"{self.what}: {self.meaning} (status {self.status})"
        return f"{text}: {self.strerror}" if self.strerror else text

    def __reduce__(self) -> tuple[object, ...]:
        return type(self), (self.what, self.errno, self.status)


class InvalidParamError(ZolError, ValueError):
    """An argument or a handle is not valid, or the library could not be started."""
    status = -10
    meaning = "invalid argument or handle"


class OpenError(ZolError):
    """A file, a device node or a token cannot be opened."""
    status = -20
    meaning = "cannot be opened"


class NotFoundError(ZolError):
    """There is none, or an I2C device did not answer a read."""
    status = -21
    meaning = "not found, or the read transfer failed"


class WriteError(ZolError):
    """An I2C device did not answer a write."""
    status = -22
    meaning = "the write transfer failed"


class SystemCallError(ZolError):
    """A call of the system failed, or a setting is missing."""
    status = -30
    meaning = "a call of the system failed, or a setting is missing"


class NoMemoryError(ZolError):
    """Memory is exhausted."""
    status = -40
    meaning = "out of memory, or the buffer is too small"


class UnimplementedError(ZolError):
    """The library does not implement the operation."""
    status = -50
    meaning = "not implemented"


class Timeout(ZolError, TimeoutError):
    """The time of a wait is over."""
    status = -61
    meaning = "the time is over"


class StateError(ZolError):
    """Not possible now: a module is not started, a worker has ended, or this is a callback."""
    status = -70
    meaning = "not possible now: not started, started already, or ended"


_CLASSES = {error.status: error for error in (
    InvalidParamError, OpenError, NotFoundError, WriteError, SystemCallError, NoMemoryError,
    UnimplementedError, Timeout, StateError)}


def error_of(status: int, errno: int, what: str) -> ZolError:
    """The error that stands for a status."""
    return _CLASSES.get(status, ZolError)(what, errno, status)
