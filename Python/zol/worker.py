"""Worker threads of the library: each has a message queue and a handler in Python."""

from __future__ import annotations

import atexit
import contextlib
import ctypes
import itertools
from collections.abc import Callable
from typing import Any, NamedTuple

from zol import _native
from zol._call import UINT32_MAX, Owner, Payload, call, integer, microseconds, payload_bytes, text
from zol._native import library
from zol.errors import ZolError

EXIT = 2  #: the id of a worker's last message
TIMEOUT = 3  #: the id of the message that stands for a wait without one

_HEADER = ctypes.sizeof(_native.Message)


class Message(NamedTuple):
    """A message, as a handler sees it."""
    id: int  #: the kind of message, of the sender's choice; 2 and 3 are the library's
    payload: bytes  #: the sender's bytes

    @property
    def is_timeout(self) -> bool:
        """No message came in time."""
        return self.id == TIMEOUT

    @property
    def is_exit(self) -> bool:
        """The worker's last message."""
        return self.id == EXIT


Handler = Callable[[Message], object]

# The workers, by the word that the library hands to the handler, from their start until they are stopped.
_running: dict[int, Worker] = {}
_words = itertools.count(1)


def _raise(error: BaseException) -> None:
    raise error


_report = ctypes.CFUNCTYPE(None, ctypes.py_object)(_raise)
"""Reports an exception by sys.unraisablehook, as ctypes does with one that leaves its callback."""


def _received(message: _native.Message) -> Message:
    payload = ctypes.string_at(ctypes.addressof(message) + _HEADER, message.sizeBytes - _HEADER)
    return Message(message.msgId, payload)


def _on_message(thread: Any, message: Any) -> int:
    """Runs on the worker's thread. A handler that fails does not end its worker."""
    try:
        return 1 if _running[thread.contents.userData]._handler(_received(message.contents)) else 0
    except BaseException as error:
        _report(error)
        return 0


_callback = _native.ThreadHandler(_on_message)  # one for all workers, which stays


class _Record:
    """The library's record of a worker. It goes with the last reference, when no call can use it any more."""

    def __init__(self, parameters: _native.ThreadParams) -> None:
        self.thread = _native.Thread()
        call(f"worker {parameters.name.decode(errors='replace')!r}", library.kiv_thread_create, self.thread,
             parameters)

    def __del__(self) -> None:
        library.kiv_thread_delete(self.thread)


class Worker(Owner):
    """A worker thread that handles messages. Any number of threads may send to it.

    with zol.Worker("printer", lambda message: print(message.payload)) as printer:
        printer.send(100, b"hello")
        printer.send_and_wait(101)  # returns when it is handled

    close() handles what is queued, then a message that is_exit, and ends the worker. So does the end of the
    interpreter.
    """

    def __init__(self, name: str, handler: Handler, idle: float | None = None) -> None:
        """Makes and starts a worker.

        `name` has 2 to 63 bytes. `handler` is called on the worker's thread for each message. If what it
        returns is true, the worker ends; None goes on. An exception in it goes to sys.unraisablehook, and the
        worker goes on. After `idle` seconds without a message the handler gets one that is_timeout.
        """
        encoded = text(name, "name")
        integer(len(encoded), "length of the name", 2, 63)
        self.name = name
        self._handler = handler
        self._word = next(_words)
        limit = -1 if idle is None else microseconds(idle, "idle")
        self._record = _Record(_native.ThreadParams(encoded, 1, _callback, limit, self._word))
        self.start()
        self._opened()

    def _release(self) -> None:
        if self._thread.gthread:  # otherwise it was stopped
            self.stop()

    @property
    def _thread(self) -> _native.Thread:
        return self._record.thread

    @property
    def is_running(self) -> bool:
        """True while it takes messages: from its start to its end."""
        return bool(library.kiv_thread_isRunning(self._thread))

    def start(self) -> None:
        """Starts a worker that was stopped or has ended."""
        was_running = self._word in _running
        _running[self._word] = self
        try:
            call(self, library.kiv_thread_start, self._thread)
        except BaseException:
            if not was_running:
                del _running[self._word]
            raise

    def stop(self) -> None:
        """Ends the worker after the messages that are queued, and joins it. It can be started again.
        Raises StateError if it is stopped already, or on its own thread."""
        call(self, library.kiv_thread_stop, self._thread)
        _running.pop(self._word, None)

    def join(self) -> None:
        """Waits until the worker has ended, also by its handler."""
        call(self, library.kiv_thread_join, self._thread)
        _running.pop(self._word, None)

    def send(self, id: int, payload: Payload = b"") -> None:
        """Sends a message and does not wait. Raises StateError if the worker has ended."""
        self._send(id, payload, False)

    def send_and_wait(self, id: int, payload: Payload = b"") -> None:
        """Sends a message, and returns when it is handled. Raises StateError if the worker ends before, or on
        its own thread."""
        self._send(id, payload, True)

    def _send(self, id: int, payload: Payload, is_sync: bool) -> None:
        self._check_open()
        data = payload_bytes(payload)
        size = integer(_HEADER + len(data), "size of the message", 0, UINT32_MAX)
        message = library.kiv_message_new(integer(id, "id"), size)
        if not message:
            raise MemoryError(f"no memory for a message of {size} bytes")
        ctypes.memmove(ctypes.addressof(message.contents) + _HEADER, data, len(data))
        message.contents.isSync = is_sync
        try:
            call(self, library.kiv_thread_sendMsg, self._thread, message)
        except BaseException:
            library.kiv_message_free(message)  # a message that was not sent is still the caller's
            raise

    def __str__(self) -> str:
        return f"worker {self.name!r}"


@atexit.register
def _stop_at_exit() -> None:
    """No handler may run while the interpreter ends: it would end the library's thread in the middle."""
    for worker in list(_running.values()):
        with contextlib.suppress(ZolError):  # in a forked child, which has no such thread
            worker.close()
