"""Reads a sensor every 20 milliseconds until the button on pin 17 is pressed. A timing log shows each reading
and each failure.

    kivboard run -- sh -c 'python3 sensor_logger.py & sleep 1; kivboard raise 17; wait
                           zol_timing /var/log/zol/python_sensor.csv'
"""

import sys

import zol

BUTTON = 17
READ, FAILURE = 1, 2
LANES = {READ: "read", FAILURE: "failure"}


def read(sensor: zol.I2cDevice, timing: zol.TimingLog) -> None:
    try:
        with timing.during(READ):
            value = sensor.read_reg8(0x0f)
    except zol.NotFoundError as error:
        timing.pulse(FAILURE)
        print(f"no reading: {error}")
    else:
        print(f"the sensor says 0x{value.hex()}")


def log_readings(button: zol.Pin, sensor: zol.I2cDevice, timing: zol.TimingLog) -> None:
    with button.events(zol.Trigger.RISING, timeout=0.02) as presses:
        while True:
            try:
                next(presses)
                break
            except zol.Timeout:
                read(sensor, timing)
    print("the button was pressed")


config = sys.argv[1] if len(sys.argv) > 1 else "Conf/kiv_test.xml"
with (zol.Library(config), zol.I2cDevice(4, 0x18) as sensor, zol.Pin(BUTTON, "button") as button,
      zol.TimingLog("python_sensor", LANES) as timing):
    log_readings(button, sensor, timing)
