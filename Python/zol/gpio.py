"""GPIO pins and their interrupts: callbacks, an iterator, and a reader for asyncio."""

from __future__ import annotations

import asyncio
import contextlib
import ctypes
import enum
import itertools
import queue
import time
from collections.abc import Callable
from typing import NamedTuple

from zol._call import Owner, call, integer, text
from zol._native import GpioCallback, library
from zol.errors import Timeout, ZolError


class Trigger(enum.Enum):
    """The cause of an interrupt, as the C interface takes it: edge or level, edge, level."""
    RISING = (2, 1, 0)
    FALLING = (2, 2, 0)
    BOTH_EDGES = (2, 3, 0)
    LOW = (1, 0, 0)
    HIGH = (1, 0, 1)


class Interrupt(NamedTuple):
    """An interrupt of a pin."""
    pin: int  #: the number of the pin
    time: float  #: when its callback ran, as time.monotonic() tells it


Callback = Callable[[int], object]

# The pins with callbacks, by the word that the library hands to the callback. They are kept here, so that the
# garbage collector takes neither before the callback is unregistered.
_watched: dict[int, tuple[Pin, Callback]] = {}
_words = itertools.count(1)


def _on_interrupt(number: int, word: int) -> int:
    """Runs on the library's listener thread. ctypes reports exceptions by sys.unraisablehook."""
    _watched[word][1](number)
    return 0


_callback = GpioCallback(_on_interrupt)  # one for all pins, which stays


class Pin(Owner):
    """A GPIO pin. Any number of threads may use it, but not callbacks.

    with zol.Pin(17, "button") as button, zol.Pin(5, "lamp") as lamp:
        for press in button.events(zol.Trigger.RISING, timeout=10):
            lamp.set(1 - lamp.get())
    """

    def __init__(self, number: int, name: str = "python") -> None:
        """Allocates a pin; the name shows in the log, and as the consumer of a line. Raises OpenError if the
        board has no such pin."""
        self.number = integer(number, "number")
        self._word = 0
        call(self, library.kiv_gpio_request, number, text(name, "name"))
        self._opened()

    def _release(self) -> None:
        call(self, library.kiv_gpio_free, self.number)
        _watched.pop(self._word, None)

    def get(self) -> int:
        """The level, 1 or 0; 0 as well if the level cannot be read, which the log tells."""
        self._check_open()
        level = ctypes.c_int()
        call(self, library.kiv_gpio_get, self.number, level)
        return level.value

    def set(self, level: int) -> None:
        """Drives the pin: high for anything but 0."""
        self._check_open()
        call(self, library.kiv_gpio_set, self.number, integer(level, "level"))

    def watch(self, trigger: Trigger, callback: Callback) -> None:
        """Calls `callback` with the pin's number for each interrupt, until unwatch() or close() has returned.

        The callback runs on the library's listener thread. It should be short and must not wait, and cannot
        use pins. An exception in it goes to sys.unraisablehook.
        """
        self._check_open()
        word = next(_words)
        _watched[word] = (self, callback)
        try:
            call(self, library.kiv_gpio_register_callback, self.number, *trigger.value, _callback, word)
        except BaseException:
            del _watched[word]
            raise
        self._word = word

    def unwatch(self) -> None:
        """Takes the callback away; it does not run again once this has returned."""
        self._check_open()
        call(self, library.kiv_gpio_unregister_callback, self.number)
        _watched.pop(self._word, None)

    def events(self, trigger: Trigger, timeout: float | None = None) -> Interrupts:
        """The interrupts from now on, one after the other; see Interrupts."""
        return Interrupts(self, trigger, timeout)

    def async_events(self, trigger: Trigger) -> AsyncInterrupts:
        """The same for `async for`, in the event loop that runs; see AsyncInterrupts."""
        return AsyncInterrupts(self, trigger)

    def __str__(self) -> str:
        return f"pin {self.number}"


class _Reader(Owner):
    """Watches a pin until it is closed or forgotten, so it needs no `with` block in a loop."""

    def __init__(self, pin: Pin, trigger: Trigger, take: Callable[[Interrupt], object]) -> None:
        self._pin = pin
        # The callback does not refer to the reader, so that the reader can go.
        pin.watch(trigger, lambda number: take(Interrupt(number, time.monotonic())))
        self._word = pin._word
        self._opened()

    def _release(self) -> None:
        if self._word in _watched:  # otherwise the pin was closed, or unwatched
            self._pin.unwatch()

    def __del__(self) -> None:
        with contextlib.suppress(ZolError):
            self.close()

    def __str__(self) -> str:
        return f"reader of {self._pin}"


class Interrupts(_Reader):
    """The interrupts of a pin since events() was called, as an iterator. None is lost: they wait to be taken.

    The iterator raises Timeout when no interrupt has come for `timeout` seconds; it can go on afterwards. The
    pin is watched until close(), until the end of a `with` block, or until the iterator is gone.
    """

    def __init__(self, pin: Pin, trigger: Trigger, timeout: float | None) -> None:
        """Made by Pin.events()."""
        self._timeout = timeout
        self._queue: queue.SimpleQueue[Interrupt] = queue.SimpleQueue()
        super().__init__(pin, trigger, self._queue.put)

    def get(self, timeout: float | None = None) -> Interrupt:
        """The next interrupt. Raises Timeout if none comes within so many seconds."""
        self._check_open()
        try:
            return self._queue.get(timeout=None if timeout is None else max(timeout, 0))
        except queue.Empty:
            raise Timeout(f"events, {self._pin}") from None

    def __iter__(self) -> Interrupts:
        return self

    def __next__(self) -> Interrupt:
        return self.get(self._timeout)


class AsyncInterrupts(_Reader):
    """The interrupts of a pin since async_events() was called, for `async for`.

    with button.async_events(zol.Trigger.RISING) as presses:
        async for press in presses:
            ...

    asyncio.timeout() limits the wait: `async with asyncio.timeout(2): press = await presses.get()`.
    """

    def __init__(self, pin: Pin, trigger: Trigger) -> None:
        """Made by Pin.async_events()."""
        self._queue: asyncio.Queue[Interrupt] = asyncio.Queue()
        loop, put = asyncio.get_running_loop(), self._queue.put_nowait
        super().__init__(pin, trigger, lambda interrupt: loop.call_soon_threadsafe(put, interrupt))

    async def get(self) -> Interrupt:
        """The next interrupt."""
        self._check_open()
        return await self._queue.get()

    def __aiter__(self) -> AsyncInterrupts:
        return self

    async def __anext__(self) -> Interrupt:
        return await self.get()


def simulate(on: bool) -> None:
    """Simulates the pins that are allocated from now on: they are stored values without a board."""
    call("pins", library.kiv_gpio_set_simulator_mode, int(on))


def status_dump() -> None:
    """Logs all pins at INF1, the newest first."""
    call("pins", library.kiv_gpio_status_dump)
