"""A worker measures when it is told to, and posts its results as events; the main thread waits for them.

    kivboard run -- python3 events_worker.py
"""

import struct
import sys

import zol

MEASURE = 100
CHANNELS, LIMIT = 3, 8
RESULT = struct.Struct("<II")


def show(result: zol.Event, alarm: zol.Event) -> None:
    missing = CHANNELS
    while missing:
        taken = zol.wait_for(result, alarm, timeout=5)
        if alarm.name in taken:
            print(f"channel {taken[alarm.name][0]} is above {LIMIT}")
        if result.name in taken:
            print("channel {}: {}".format(*RESULT.unpack(taken[result.name])))
            missing -= 1


def run() -> None:
    with zol.EventGroup("measurements") as group, zol.Event(group, "result") as result, \
         zol.Event(group, "alarm") as alarm:

        def measure(message: zol.Message) -> None:  # on the worker's thread
            if message.id != MEASURE:
                return
            channel = message.payload[0]
            value = channel * channel
            if value > LIMIT:
                alarm.notify(message.payload)
            result.notify(RESULT.pack(channel, value))

        with zol.Worker("measurer", measure) as measurer:
            for channel in range(1, CHANNELS + 1):
                measurer.send(MEASURE, bytes([channel]))
            show(result, alarm)


with zol.Library(sys.argv[1] if len(sys.argv) > 1 else "Conf/kiv_test.xml"):
    run()
