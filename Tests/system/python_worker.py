# Workers through Python's package zol. Prints the answers; the end of the interpreter ends the last worker.
import faulthandler
import gc
import resource
import sys
import threading
import weakref

import zol

faulthandler.dump_traceback_later(120, exit=True)


def fails(call, *arguments, **named):
    try:
        call(*arguments, **named)
    except (zol.ZolError, ValueError, TypeError) as error:
        return f"{type(error).__name__}: {error}"


def messages():
    seen = []
    with zol.Worker("reader", lambda message: seen.append(tuple(message))) as reader:
        reader.send(100, b"\0binary\xff")
        reader.send(-7)
        reader.send_and_wait(101, bytearray(100_000))
        print("handled:", seen[:2], len(seen[2][1]), reader.is_running)
    print("closed:", seen[3], reader.is_running, fails(reader.send, 100))


def endings():
    reported = []
    sys.unraisablehook = lambda report: reported.append(report.exc_value)

    def handle(message):
        if message.id == 100:
            raise KeyError("in a handler")
        if message.id == 101:
            own.append(fails(ending.send_and_wait, 102))
            own.append(fails(ending.close))
        return message.id == 103

    own = []
    ending = zol.Worker("ending", handle)
    ending.send_and_wait(100)
    print("reported:", reported, ending.is_running)
    ending.send_and_wait(101)
    print("on its own thread:", *own, sep="\n  ")
    ending.send(103)
    ending.join()
    print("ended:", ending.is_running, fails(ending.send_and_wait, 104), fails(ending.stop), sep="\n  ")
    refused = bytes(1_000_000)
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    for _ in range(200):  # a refused message is freed once
        fails(ending.send, 104, refused)
    print("freed:", resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 50_000)
    ending.start()
    ending.send_and_wait(100)
    print("started again:", len(reported), fails(ending.start))
    ending.close()
    sys.unraisablehook = sys.__unraisablehook__


def idle():
    came = threading.Event()
    with zol.Worker("idle", lambda message: came.set() if message.is_timeout else None, idle=0.01):
        print("idle:", came.wait(30))


def collected():
    came = threading.Event()
    zol.Worker("kept", lambda message: came.set() if message.is_timeout else None, idle=0.05)
    gc.collect()
    print("runs without a reference:", came.wait(30))
    worker = zol.Worker("gone", lambda message: None)
    gone = weakref.ref(worker)
    worker.close()
    del worker
    gc.collect()
    print("collected after its end:", gone() is None)


def crowd():
    """Every send waits for a handler, which wants the interpreter."""
    handled = []
    with zol.Worker("crowded", lambda message: handled.append(message.payload)) as crowded:
        senders = [threading.Thread(target=lambda: [crowded.send_and_wait(100, b"x") for _ in range(200)])
                   for _ in range(4)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join()
    print("crowd:", handled.count(b"x"))


messages()
endings()
idle()
collected()
crowd()
print("refused:", fails(zol.Worker, "x", print), fails(zol.Worker, "xy", print, idle=float("nan")),
      sep="\n  ")
last = zol.Worker("last", lambda message: print("the last message:", message.is_exit))
