"""Timing logs: when things happened, as lanes of a CSV file that zol_timing draws."""

from __future__ import annotations

import contextlib
import ctypes
import threading
from collections.abc import Iterator, Mapping

from zol._call import Owner, integer, text
from zol._native import TimingLane, library
from zol.errors import OpenError

_PULSE, _LOW, _HIGH = 0, 1, 2


class TimingLog(Owner):
    """A timing log, /var/log/zol/NAME.csv. Any number of threads may log to it, and never wait.

    READ, FAILURE = 1, 2
    with zol.TimingLog("sensor", {READ: "read", FAILURE: "failure"}) as timing:
        with timing.during(READ):
            ...
        timing.pulse(FAILURE)
    """

    def __init__(self, name: str, lanes: Mapping[int, str]) -> None:
        """Opens a log and replaces its file. `lanes` has the titles of the lanes by their numbers, which are
        0 or more. All lanes are low. Raises OpenError if the file cannot be made."""
        self.name = name
        self._lanes = frozenset(integer(lane, "lane", 0) for lane in lanes)
        ends = TimingLane(event_id=-1)
        self._map = (TimingLane * (len(lanes) + 1))(  # the library keeps it until the log is closed
            *(TimingLane(lane, text(label, "label")) for lane, label in lanes.items()), ends)
        self._lock = threading.Lock()
        ctypes.set_errno(0)
        self._log = library.kiv_tl_init(text(name, "name"), self._map)
        if self._log is None:
            raise OpenError(f"kiv_tl_init, {self}", ctypes.get_errno())
        self._opened()

    def _release(self) -> None:
        with self._lock:
            library.kiv_tl_deinit(self._log)

    def pulse(self, lane: int) -> None:
        """Shows the lane high for an instant."""
        self._put(lane, _PULSE)

    def high(self, lane: int) -> None:
        """The lane is high from now on."""
        self._put(lane, _HIGH)

    def low(self, lane: int) -> None:
        """The lane is low from now on."""
        self._put(lane, _LOW)

    @contextlib.contextmanager
    def during(self, lane: int) -> Iterator[None]:
        """The lane is high during a `with` block."""
        self.high(lane)
        try:
            yield
        finally:
            self.low(lane)

    def _put(self, lane: int, value: int) -> None:
        if lane not in self._lanes:
            raise ValueError(f"{self} has no lane {lane!r}")
        with self._lock:  # the library ends the process if a log is used after its end
            self._check_open()
            library.kiv_tl(self._log, lane, value, None)

    def __str__(self) -> str:
        return f"timing log {self.name!r}"
