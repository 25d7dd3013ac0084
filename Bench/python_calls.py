#!/usr/bin/python3
"""Measures calls through Python's package zol beside the same calls of its C functions, made by ctypes, and of C.

usage: kivboard run -- taskset -c 0 python_calls.py C_PROGRAM

The C program (python_calls.c) prints the names of the operations and their times in ns. Of several repetitions the fastest
counts. The environment names package and library: PYTHONPATH=Python ZOL_LIBRARY=build/bench/lib/libzol.so.0
"""

import ctypes
import subprocess
import sys
import time

import zol
from zol._native import library

REPETITIONS = 30


def fastest(operation, count):
    """The time of one call in ns, without that of the loop."""
    def repeat(call):
        begun = time.perf_counter_ns()
        for _ in range(count):
            call()
        return (time.perf_counter_ns() - begun) / count

    return min(repeat(operation) for _ in range(REPETITIONS)) - min(repeat(id_of_nothing) for _ in range(REPETITIONS))


def id_of_nothing():
    """An empty function, as the loop's own share."""


def operations(sensor, pin, event):
    number, level, byte = ctypes.c_int32(), ctypes.c_int(), ctypes.create_string_buffer(1)
    yield "kiv_atoi", 20000, lambda: zol.config.parse_int("42"), lambda: library.kiv_atoi(b"42", number)
    yield ("kiv_events_notify and wait_for", 2000, lambda: (event.notify(b"payload"), event.wait()), None)
    yield "kiv_gpio_get", 2000, pin.get, lambda: library.kiv_gpio_get(5, level)
    yield ("kiv_i2c_read_reg8", 1000, lambda: sensor.read_reg8(0x0f),
           lambda: library.kiv_i2c_read_reg8(sensor._handle, 0x0f, 1, byte))
