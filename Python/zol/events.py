"""Named events with payloads, within one process: threads notify each other and wait."""

from __future__ import annotations

import asyncio
import ctypes
import math
import os
import threading
import time
import warnings
from collections.abc import AsyncIterator

from zol._call import UINT32_MAX, Owner, Payload, call, integer, microseconds, payload_bytes, text
from zol._native import WaitEntry, library
from zol.errors import Timeout

ROOM = 4096  #: bytes that are kept for a payload, unless the caller asks for more

_SLICE = 0.25  # seconds after which a wait lets Python look at its signals, so that Ctrl-C ends it
_LONGEST = 2147.0  # seconds that fit the C interface
_LOOK = 1  # µs: looks once and does not wait


class EventGroup(Owner):
    """A group of events. Close its events first."""

    def __init__(self, name: str) -> None:
        """Makes an empty group. Its name need not be unique."""
        self.name = name
        self._handle = ctypes.c_void_p()
        call(self, library.kiv_events_create_group, text(name, "name"), self._handle)
        self._opened()

    def _release(self) -> None:
        call(self, library.kiv_events_delete_group, self._handle)

    def __str__(self) -> str:
        return f"event group {self.name!r}"


class Event(Owner):
    """An event. Any number of threads may use it.

    with zol.EventGroup("sensors") as group, zol.Event(group, "door") as door:
        door.notify(b"open")  # on any thread
        payload = door.wait(timeout=1)

    Waits find an event by its name, so names should be unique. An event is also a file for select and
    asyncio: it is readable when it has been notified. `async for payload in door` takes all payloads.
    """

    def __init__(self, group: EventGroup, name: str, enabled: bool = True) -> None:
        """Makes an event in a group. While it is disabled, notifications are dropped."""
        self.name = name
        self._group = group  # must not go before its events
        self._handle = ctypes.c_void_p()
        group._check_open()
        call(self, library.kiv_events_create_event, text(name, "name"), None, group._handle, self._handle)
        self._opened()
        if enabled:
            self.enable()

    def _release(self) -> None:
        call(self, library.kiv_events_delete_event, self._handle)

    def enable(self, on: bool = True) -> None:
        """Enables or disables the event."""
        self._check_open()
        call(self, library.kiv_events_set_enable_event, self._handle, int(on))

    def notify(self, payload: Payload = b"") -> None:
        """Sends a payload. Waits while the event's pipe is full."""
        self._check_open()
        data = payload_bytes(payload)
        call(self, library.kiv_events_notify, self._handle, data, len(data), 0)

    def wait(self, timeout: float | None = None, room: int = ROOM) -> bytes:
        """Takes the next payload; see wait_for()."""
        self._check_open()
        return wait_for(self, timeout=timeout, room=room)[self.name]

    def take(self, room: int = ROOM) -> bytes | None:
        """Takes a payload if there is one, without a wait."""
        self._check_open()
        try:
            return _Waiter([self.name], room).take(_LOOK).get(self.name)
        except Timeout:
            return None

    async def read(self, room: int = ROOM) -> bytes:
        """Takes the next payload, in asyncio."""
        while (payload := self.take(room)) is None:
            await _readable(self.fileno())
        return payload

    async def __aiter__(self) -> AsyncIterator[bytes]:
        while True:
            yield await self.read()

    def fileno(self) -> int:
        """The descriptor that is readable when the event has been notified. Read it by take() only."""
        self._check_open()
        return event_fd(self.name)

    def __str__(self) -> str:
        return f"event {self.name!r}"


class _Waiter:
    """The entries of one wait, and the buffers for their payloads."""

    def __init__(self, names: list[str], room: int) -> None:
        integer(room, "room", 0, UINT32_MAX - 1)
        self._names = names
        self._room = room
        self._buffers = [ctypes.create_string_buffer(room + 1) for _ in names]  # one more shows what is cut
        self._entries = (WaitEntry * len(names))(*(
            WaitEntry(text(name, "name"), 0, ctypes.addressof(buffer), room + 1, 0)
            for name, buffer in zip(names, self._buffers)))

    def take(self, us: int) -> dict[str, bytes]:
        """Waits once, and takes a payload of each event that has been notified."""
        call(self, library.kiv_events_wait_for, self._entries, len(self._names), us)
        return {name: self._payload(name, entry, buffer)
                for name, entry, buffer in zip(self._names, self._entries, self._buffers) if entry.fired}

    def _payload(self, name: str, entry: WaitEntry, buffer: ctypes.Array[ctypes.c_char]) -> bytes:
        if entry.actual_sz > self._room:
            warnings.warn(f"a payload of event {name!r} was cut to {self._room} bytes: ask for more room",
                          RuntimeWarning, stacklevel=4)
        return ctypes.string_at(buffer, min(entry.actual_sz, self._room))

    def __str__(self) -> str:
        return f"event {', '.join(map(repr, self._names))}"


def wait_for(*events: Event | str, timeout: float | None = None, room: int = ROOM) -> dict[str, bytes]:
    """Waits until at least one of some events has been notified, and takes one payload of each that has.

    Returns the payloads by the names of their events. Raises Timeout when none came within `timeout` seconds,
    of which whole milliseconds count; 0 looks and does not wait. A payload that is longer than `room` is cut,
    with a RuntimeWarning.
    """
    if not events:
        raise ValueError("wait_for() needs an event")
    names = dict.fromkeys(event if isinstance(event, str) else event.name for event in events)
    waiter = _Waiter(list(names), room)
    deadline = math.inf if timeout is None else time.monotonic() + timeout
    while True:
        left = max(deadline - time.monotonic(), 0)
        piece = min(left, _SLICE if _gets_signals() else _LONGEST)
        try:
            if taken := waiter.take(_milliseconds(piece)):
                return taken
        except Timeout:
            if left <= piece:
                raise


def _milliseconds(seconds: float) -> int:
    """A limit in whole milliseconds, in µs."""
    return max(microseconds(math.ceil(seconds * 1000) / 1000, "timeout"), _LOOK)


def _gets_signals() -> bool:
    return threading.get_ident() == threading.main_thread().ident


def notify(name: str, payload: Payload = b"", user_arg: int = 0) -> None:
    """Notifies an event by its name, also one that was made in C, whose callback gets `user_arg`."""
    data = payload_bytes(payload)
    call(f"event {name!r}", library.kiv_events_notify_by_name, text(name, "name"), data, len(data),
         integer(user_arg, "user_arg", 0, UINT32_MAX))


def enable(name: str, on: bool = True) -> None:
    """Enables or disables an event by its name."""
    call(f"event {name!r}", library.kiv_events_set_enable_event_by_name, text(name, "name"), int(on))


def event_fd(name: str) -> int:
    """The descriptor of an event, by its name. It stays the event's: do not close it."""
    out = ctypes.c_int32()
    call(f"event {name!r}", library.kiv_events_get_event_fd, text(name, "name"), out)
    return out.value


def status_dump() -> None:
    """Logs all groups and their events at PRNT, the newest first."""
    call("events", library.kiv_events_status_dump)


def _settle(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)


async def _readable(descriptor: int) -> None:
    """Waits on a duplicate: several tasks may wait for one event, and its deletion ends the wait."""
    loop = asyncio.get_running_loop()
    ready: asyncio.Future[None] = loop.create_future()
    own = os.dup(descriptor)
    try:
        loop.add_reader(own, _settle, ready)
        await ready
    finally:
        loop.remove_reader(own)
        os.close(own)
