"""Each press of a button switches a lamp, until the third. With asyncio: other tasks could run beside it.

    kivboard run -- sh -c 'python3 button_lamp.py & sleep 1; kivboard raise 17 3; wait'
"""

import asyncio
import sys

import zol

BUTTON, LAMP, PRESSES = 17, 5, 3


async def serve(button: zol.Pin, lamp: zol.Pin) -> None:
    count = 0
    with button.async_events(zol.Trigger.RISING) as presses:
        async for press in presses:
            count += 1
            lamp.set(count % 2)
            print(f"press {count} of pin {press.pin}: the lamp is {'on' if count % 2 else 'off'}")
            if count == PRESSES:
                break


config = sys.argv[1] if len(sys.argv) > 1 else "Conf/kiv_test.xml"
with zol.Library(config), zol.Pin(BUTTON, "button") as button, zol.Pin(LAMP, "lamp") as lamp:
    asyncio.run(serve(button, lamp))
