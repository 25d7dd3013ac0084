#!/usr/bin/python3
"""Measures calls through Python's package zol beside the bare calls by ctypes and the calls in C, in ns.

usage: kivboard run --board Bench/kiv_board.xml -- taskset -c 0 python_calls.py C_PROGRAM CONFIGURATION

The C program is python_calls.c. Both sides take turns; of all repetitions the fastest counts.
"""

import contextlib
import ctypes
import subprocess
import sys
import time

import zol
from zol._native import WaitEntry, library

ROUNDS, REPETITIONS, CALLS = 5, 10, 1000


def fastest(call):
    """The time of one call. The loop's own share, some 20 ns, counts too."""
    best = float("inf")
    for _ in range(REPETITIONS):
        begun = time.perf_counter_ns()
        for _ in range(CALLS):
            call()
        best = min(best, (time.perf_counter_ns() - begun) / CALLS)
    return best


def operations(sensor, pin, event):
    """Each operation by the package, and bare."""
    number, level, value = ctypes.c_int32(), ctypes.c_int(), ctypes.create_string_buffer(1)
    room = ctypes.create_string_buffer(4096)
    entry = WaitEntry(b"calls", 0, ctypes.addressof(room), len(room), 0)
    entry.owned_room = room  # lives as long as the entry that points to it

    def pass_event():
        event.notify(b"payload")
        return event.wait()

    def pass_event_bare():
        library.kiv_events_notify(event._handle, b"payload", 7, 0)
        library.kiv_events_wait_for(entry, 1, 0)

    return {
        "kiv_atoi": (lambda: zol.config.parse_int("42"), lambda: library.kiv_atoi(b"42", number)),
        "kiv_events_notify+wait_for": (pass_event, pass_event_bare),
        "kiv_gpio_get": (pin.get, lambda: library.kiv_gpio_get(5, level)),
        "kiv_i2c_read_reg8": (lambda: sensor.read_reg8(0x0f),
                              lambda: library.kiv_i2c_read_reg8(sensor._handle, 0x0f, 1, value)),
    }


def fastest_in_c(program, configuration):
    output = subprocess.run([program, configuration], check=True, capture_output=True, text=True).stdout
    return {words[0]: float(words[1]) for words in map(str.split, output.splitlines()) if len(words) == 2}


def main(program, configuration):
    with contextlib.ExitStack() as owners:
        owners.enter_context(zol.Library(configuration))
        zol.log.set_level(zol.log.Level.ERRR)
        sensor, pin = owners.enter_context(zol.I2cDevice(4, 0x18)), owners.enter_context(zol.Pin(5))
        event = owners.enter_context(zol.Event(owners.enter_context(zol.EventGroup("bench")), "calls"))
        print(f"\n{'calls from Python, in ns':36}{'zol':>14}{'bare ctypes':>14}{'C':>14}{'zol : C':>10}")
        calls = operations(sensor, pin, event)
        rounds = []
        for _ in range(ROUNDS):
            in_c = fastest_in_c(program, configuration)
            rounds += [{name: (fastest(ours), fastest(bare), in_c[name])
                        for name, (ours, bare) in calls.items()}]
        for name in calls:
            times = [min(column) for column in zip(*(measured[name] for measured in rounds))]
            print(f"{name:36}" + "".join(f"{ns:14.1f}" for ns in times) + f"{times[0] / times[2]:10.2f}")


main(*sys.argv[1:])
