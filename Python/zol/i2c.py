"""Registers of I2C devices."""

from __future__ import annotations

import ctypes
import threading
from typing import Any

from zol._call import Owner, Payload, call, integer, payload_bytes
from zol._native import I2cHandle, library

_MOST = 0xffff  # bytes of a read; the kernel refuses more than 8192


class I2cDevice(Owner):
    """A device on an I2C bus. Any number of threads may use it; they wait for each other.

    with zol.I2cDevice(4, 0x18) as sensor:
        identity = sensor.read_reg8(0x0f)[0]
    """

    def __init__(self, bus: int, address: int) -> None:
        """Opens a device by its bus and its 7-bit address. Nothing is sent: the first transfer shows whether
        it answers. Raises OpenError if the bus cannot be opened."""
        self.bus = integer(bus, "bus")
        self.address = integer(address, "address", 0, 0x7f)
        self._handle = I2cHandle()
        self._lock = threading.Lock()
        call(self, library.kiv_i2c_open, self._handle, bus, address)
        self._opened()

    def _release(self) -> None:
        with self._lock:
            call(self, library.kiv_i2c_close, self._handle)

    def read_reg8(self, register: int, count: int = 1) -> bytes:
        """Reads bytes from an 8-bit register address. Raises NotFoundError if the device does not answer."""
        return self._read(library.kiv_i2c_read_reg8, integer(register, "register", 0, 0xff), count)

    def read_reg16(self, register: int, count: int = 1) -> bytes:
        """The same with a 16-bit register address."""
        return self._read(library.kiv_i2c_read_reg16, integer(register, "register", 0, 0xffff), count)

    def write_reg8(self, register: int, values: Payload) -> None:
        """Writes bytes to an 8-bit register address, each in a transfer of its own and all to this register.
        Raises WriteError if the device does not answer."""
        self._write(library.kiv_i2c_write_reg8, integer(register, "register", 0, 0xff), values)

    def write_reg16(self, register: int, values: Payload) -> None:
        """The same with a 16-bit register address."""
        self._write(library.kiv_i2c_write_reg16, integer(register, "register", 0, 0xffff), values)

    def _read(self, function: Any, register: int, count: int) -> bytes:
        out = ctypes.create_string_buffer(integer(count, "count", 0, _MOST) or 1)
        with self._lock:
            self._check_open()
            call(self, function, self._handle, register, count, out)
        return ctypes.string_at(out, count)

    def _write(self, function: Any, register: int, values: Payload) -> None:
        data = payload_bytes(values)
        with self._lock:
            self._check_open()
            call(self, function, self._handle, register, len(data), data)

    def __str__(self) -> str:
        return f"device {self.address:#04x} of bus {self.bus}"
