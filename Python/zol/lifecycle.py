"""The start and the stop of the library."""

from __future__ import annotations

import atexit
import contextlib
import ctypes
import os

from zol._call import Owner, call, text
from zol._native import library
from zol.errors import ZolError


class Library(Owner):
    """The started library, which is stopped by close(), or when the interpreter ends. One at a time.

    with zol.Library("/etc/kiv/conf.xml"):
        ...
    """

    _started: Library | None = None

    def __init__(self, config: str | os.PathLike[str] | None = None) -> None:
        """Starts the library with a configuration file; without one, with the board's own, /etc/kiv/conf.xml.

        Raises InvalidParamError if a module cannot be started; the log names it.
        """
        if Library._started is not None:
            raise RuntimeError(f"{Library._started} is started already")
        self._config = None if config is None else text(config, "config")  # the library keeps a pointer to it
        call(self, library.zol_init, self._config)
        self._opened()
        Library._started = self

    def _release(self) -> None:
        call(self, library.zol_deinit)
        Library._started = None

    def __str__(self) -> str:
        return f"library with {os.fsdecode(self._config or b'/etc/kiv/conf.xml')}"


def version() -> str:
    """The version of the C library, like "0.1.0"."""
    out = ctypes.create_string_buffer(6)
    library.kiv_get_version(out)
    return out.value.decode()


@atexit.register
def _stop_at_exit() -> None:
    """No callback may come while the interpreter ends: it would end the library's thread in the middle."""
    if Library._started is not None:
        with contextlib.suppress(ZolError):  # the library's log tells the reason
            Library._started.close()
