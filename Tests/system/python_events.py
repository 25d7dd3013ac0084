# Events through Python's package zol. Prints the answers.
import asyncio
import faulthandler
import select
import signal
import threading
import time
import warnings

import zol

faulthandler.dump_traceback_later(120, exit=True)


def fails(call, *arguments, **named):
    try:
        call(*arguments, **named)
    except (zol.ZolError, ValueError, TypeError) as error:
        return f"{type(error).__name__}: {error}"


def payloads(door, gate):
    for payload in (b"open", bytearray(b"\0shut"), memoryview(b"ajar"), b"", bytes(range(256)) * 240):
        door.notify(payload)
    zol.events.notify("gate", b"by name")
    print("several:", zol.wait_for(door, "gate", door))
    print("in order:", *(door.wait() for _ in range(3)), len(door.wait(room=100_000)), door.take())
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        door.notify(b"12345")
        print("cut:", door.wait(room=3), *(warning.message for warning in caught))
    gate.enable(False)
    gate.notify(b"dropped")
    zol.events.enable("gate")
    print("disabled:", gate.take())


def refusals(group, door):
    print("refused:", fails(door.wait, 0.01), fails(door.wait, 0), fails(door.notify, 5),
          fails(door.notify, "text"), fails(zol.wait_for, "nobody", timeout=1), fails(zol.wait_for),
          fails(group.close), fails(zol.Event, group, "a\0b"), sep="\n  ")


def interpreter_is_free(door):
    """Counts while another thread is in the library. With the interpreter's lock it would stay there."""
    taken = []
    waiter = threading.Thread(target=lambda: taken.append(door.wait()))
    waiter.start()
    counted = sum(1 for _ in range(1_000_000) if waiter.is_alive())
    door.notify(str(counted).encode())
    waiter.join()
    print("counted meanwhile:", *taken)


def signals(door):
    def on_alarm(number, frame):
        raise InterruptedError("a signal")

    signal.signal(signal.SIGALRM, on_alarm)
    signal.setitimer(signal.ITIMER_REAL, 0.05)
    try:
        door.wait()
    except InterruptedError as error:
        print("ended by:", error)


def deletion(group):
    results = []
    gone = zol.Event(group, "gone")
    waiter = threading.Thread(target=lambda: results.append(fails(zol.wait_for, "gone")))
    waiter.start()
    time.sleep(0.1)
    gone.close()
    waiter.join()
    print("deleted:", results[0], fails(gone.notify), sep="\n  ")


def descriptors(door):
    print("not readable:", select.select([door], [], [], 0)[0])
    door.notify(b"select")
    print("readable:", select.select([door], [], [], 10)[0] == [door], door.take())


async def loop(door, gate):
    async def first(event):
        async for payload in event:
            return payload

    tasks = [asyncio.create_task(first(event)) for event in (door, door, gate)]
    await asyncio.sleep(0.05)
    for event, payload in ((gate, b"gate"), (door, b"1"), (door, b"2")):
        await asyncio.to_thread(event.notify, payload)
    print("asyncio:", *sorted(await asyncio.gather(*tasks)))
    task = asyncio.create_task(gate.read())
    await asyncio.sleep(0.05)
    gate.close()
    print("closed:", repr((await asyncio.gather(task, return_exceptions=True))[0]))


with zol.Library("Conf/kiv_test.xml"), zol.EventGroup("sensors") as sensors:
    with zol.Event(sensors, "door") as door, zol.Event(sensors, "gate") as gate:
        payloads(door, gate)
        refusals(sensors, door)
        interpreter_is_free(door)
        signals(door)
        deletion(sensors)
        descriptors(door)
        asyncio.run(loop(door, gate))
