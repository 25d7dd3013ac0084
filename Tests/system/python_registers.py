# I2C registers, settings, tokens and logs through Python's package zol. Prints the answers.
import logging
import pickle
import threading
import warnings

import zol


def fails(call, *arguments):
    try:
        call(*arguments)
    except (zol.ZolError, ValueError, TypeError, RuntimeError) as error:
        return f"{type(error).__name__}: {error}"


def registers():
    with zol.I2cDevice(4, 0x18) as sensor, zol.I2cDevice(1, 0x50) as eeprom:
        sensor.write_reg8(0x50, b"\x11\x22")  # both go to one register
        eeprom.write_reg16(0x0123, bytearray(b"\x5a"))
        print(sensor.read_reg8(0x0f), sensor.read_reg8(0x50, 2), eeprom.read_reg16(0x0123, 2),
              sensor.read_reg8(0, 0))
        print(fails(sensor.read_reg8, 0x100), fails(sensor.read_reg8, 0, -1), fails(sensor.write_reg8, 0, 5),
              fails(sensor.write_reg8, 0, b""), fails(sensor.read_reg8, 0, 9000), sep="\n")
        threads = [threading.Thread(target=lambda: [sensor.read_reg8(0x0f) for _ in range(100)])
                   for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    print(fails(sensor.read_reg8, 0), fails(zol.I2cDevice, 9, 0x18), fails(zol.I2cDevice, 4, 0x80), sep="\n")


def errors():
    try:
        with zol.I2cDevice(1, 0x51) as protected:
            protected.write_reg16(0, b"\1")
    except zol.WriteError as error:
        copy = pickle.loads(pickle.dumps(error))
        is_same = (type(copy), str(copy)) == (type(error), str(error))
        print(error, error.status, error.errno, is_same, sep="\n")
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        zol.I2cDevice(4, 0x18)
        print(caught[0].category.__name__, caught[0].message)


def settings():
    print(zol.config.get("general", "configName"), zol.config.get("general", "nothing"),
          zol.config.get_int("general", "i2c_buses_num"), zol.config.get_int("general", "configName"),
          zol.config.parse_int("0x1F"), zol.config.parse_int("ff"), fails(zol.config.parse_int, "much"))
    print(zol.tokens.directory(), zol.tokens.exists("BINTOKEN"), zol.tokens.exists("NONE"),
          zol.tokens.size("BINTOKEN"), zol.tokens.read("BINTOKEN")[:4], fails(zol.tokens.read, "NONE"))


def timing():
    with zol.TimingLog("python", {1: "read", 2: "failure"}) as log:
        with log.during(1):
            log.pulse(2)
        print(fails(log.pulse, 3), fails(zol.TimingLog, "no/where", {}), sep="\n")
    print(fails(log.pulse, 1))
    with open("/var/log/zol/python.csv") as file:
        print(*(row[row.index(","):] for row in file), sep="", end="")


with zol.Library("Conf/kiv_test.xml") as started:
    print(fails(zol.Library, None), "level:", zol.log.level())
    zol.log.set_level(zol.log.Level.ERRR)
    registers()
    errors()
    settings()
    timing()
    zol.log.set_level(zol.log.Level.INF1)
    log = logging.Logger("application", logging.INFO)
    log.addHandler(zol.log.Handler())
    log.info("shown at %s", "INF1")
    log.debug("not shown")
    zol.log.set_level(1)
    log.warning("100 %% not shown")
started.close()
print(fails(zol.Library, "/nowhere"))
