# Pins through Python's package zol, on the virtual board. Prints the answers.
import asyncio
import faulthandler
import gc
import os
import subprocess
import sys
import threading
import time

import zol

faulthandler.dump_traceback_later(120, exit=True)  # a deadlock is a fault, with the stacks of all threads


def interrupt(count=1, pin=17):
    subprocess.run(["kivboard", "raise", str(pin), str(count)], check=True)


def eventually(condition):
    limit = time.monotonic() + 60
    while not condition() and time.monotonic() < limit:
        time.sleep(0.01)
    return condition()


def fails(call, *arguments):
    try:
        call(*arguments)
    except (zol.ZolError, ValueError) as error:
        return f"{type(error).__name__}: {error}"


def levels():
    with zol.Pin(5, "lamp") as lamp:
        lamp.set(7)
        print("set:", lamp.get(), subprocess.run(["kivboard", "level", "5"], capture_output=True).stdout)
    lamp.close()
    print("closed:", fails(lamp.get), fails(zol.Pin, 999), fails(zol.Pin, 1 << 32), sep="\n  ")
    zol.gpio.simulate(True)
    with zol.Pin(999) as stored:
        zol.gpio.simulate(False)
        stored.set(42)
        print("simulated:", stored.get(), fails(stored.watch, zol.Trigger.RISING, print))


def callbacks():
    seen, reported = [], []

    def on_interrupt(number):
        seen.append((number, fails(zol.gpio.status_dump), fails(pins["button"].get)))
        raise KeyError("in a callback")

    sys.unraisablehook = lambda report: reported.append(repr(report.exc_value))
    pins = {"button": zol.Pin(17, "button")}
    pins["button"].watch(zol.Trigger.RISING, on_interrupt)
    print("twice:", fails(pins["button"].watch, zol.Trigger.RISING, print))
    interrupt()
    print("called:", eventually(lambda: reported), seen[0], reported)

    kept = []  # neither the pin nor its callback has a reference of ours
    zol.Pin(18, "kept").watch(zol.Trigger.FALLING, lambda number: kept.append(number))
    gc.collect()
    interrupt(2, 18)
    print("collected:", eventually(lambda: len(kept) == 2), kept)
    pins["button"].unwatch()
    interrupt()
    print("unwatched:", len(seen), fails(pins["button"].unwatch))
    pins["button"].close()
    sys.unraisablehook = sys.__unraisablehook__


def iterate():
    with zol.Pin(19) as button:
        with button.events(zol.Trigger.RISING, timeout=30) as presses:
            interrupt(1000, 19)
            times = [next(presses).time for _ in range(1000)]
            print("iterated:", len(times), times == sorted(times), fails(presses.get, 0.01))
        presses = button.events(zol.Trigger.RISING)
        del presses  # the pin is free for the next
        presses = button.events(zol.Trigger.RISING)
        button.unwatch()
        button.watch(zol.Trigger.RISING, print)
        presses.close()  # leaves the watch of another alone
        button.unwatch()


async def listen():
    with zol.Pin(20) as button, zol.Pin(21) as door, button.async_events(zol.Trigger.RISING) as presses:
        with door.async_events(zol.Trigger.BOTH_EDGES) as opened:
            task = asyncio.create_task(opened.get())
            await asyncio.to_thread(interrupt, 3, 20)
            pins = [(await presses.get()).pin for _ in range(3)]
            await asyncio.to_thread(interrupt, 1, 21)
            print("asyncio:", pins, (await task).pin)
            try:
                async with asyncio.timeout(0.01):
                    await presses.get()
            except TimeoutError as error:
                print("asyncio:", type(error).__name__)


def storm():
    """Watches and reads while interrupts stream in. Calls wait for callbacks, which want the interpreter."""
    over = threading.Event()
    calls = []

    def stream():
        while not over.is_set():
            interrupt(200)

    def read(pin):
        while not over.is_set():
            pin.get()

    with zol.Pin(17) as button:
        threads = [threading.Thread(target=stream), threading.Thread(target=read, args=[button])]
        for thread in threads:
            thread.start()
        for _ in range(200):
            button.watch(zol.Trigger.RISING, lambda number: calls.append(sum(range(200))))
            button.unwatch()
        button.watch(zol.Trigger.RISING, lambda number: calls.append(number))
        print("storm:", eventually(lambda: 17 in calls))
        over.set()
        for thread in threads:
            thread.join()


with zol.Library("Conf/kiv_test.xml"):
    levels()
    callbacks()
    iterate()
    asyncio.run(listen())
    storm()

# The end of the interpreter stops what is left open, while interrupts stream in.
started = zol.Library("Conf/kiv_test.xml")
zol.Pin(17).watch(zol.Trigger.RISING, lambda number: sum(range(300)))
os.system("kivboard raise 17 1000 &")
