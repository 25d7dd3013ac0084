"""Hardware services of embedded Linux boards: the library libzol for Python.

    import zol

    with zol.Library("/etc/kiv/conf.xml"), zol.I2cDevice(4, 0x18) as sensor:
        print(sensor.read_reg8(0x0f).hex())

Devices, pins, events, workers and timing logs are owners: `with`, or close(), gives them back. Failures are
exceptions, derived from ZolError, with the status of the library and the errno of the system. Times are in
seconds. The interpreter lock is released during every call of the library.
"""

from zol import config, errors, events, gpio, log, tokens
from zol.errors import (InvalidParamError, NoMemoryError, NotFoundError, OpenError, StateError,
                        SystemCallError, Timeout, UnimplementedError, WriteError, ZolError)
from zol.events import Event, EventGroup, wait_for
from zol.gpio import Interrupt, Pin, Trigger
from zol.i2c import I2cDevice
from zol.lifecycle import Library, version  # before the workers, which are stopped first
from zol.timing import TimingLog
from zol.worker import Message, Worker

__all__ = [
    "Event", "EventGroup", "I2cDevice", "Interrupt", "InvalidParamError", "Library", "Message",
    "NoMemoryError", "NotFoundError", "OpenError", "Pin", "StateError", "SystemCallError", "Timeout",
    "TimingLog", "Trigger", "UnimplementedError", "Worker", "WriteError", "ZolError", "config", "errors",
    "events", "gpio", "log", "tokens", "version", "wait_for",
]
