# Every size of an SMBus transfer through Python's smbus2, on the virtual board's accelerometer. Prints the answers.
import errno
import fcntl
import os
from smbus2 import SMBus, i2c_msg

SLAVE, TENBIT, SLAVE_FORCE, PEC, TIMEOUT = 0x703, 0x704, 0x706, 0x708, 0x702


def fails(call, *arguments):
    try:
        return call(*arguments)
    except OSError as error:
        return errno.errorcode[error.errno]


with SMBus(4) as bus, SMBus(3) as slow:
    print("functions: %#x" % bus.funcs)
    bus.write_quick(0x18)
    bus.write_byte_data(0x18, 0x50, 0x11)
    bus.write_word_data(0x18, 0x51, 0x3322)
    bus.write_byte(0x18, 0x50)
    print("bytes:", *map(hex, (bus.read_byte(0x18), bus.read_byte_data(0x18, 0x51), bus.read_word_data(0x18, 0x51))))
    bus.write_block_data(0x18, 0x60, list(range(1, 33)))
    print("block:", bus.read_block_data(0x18, 0x60) == list(range(1, 33)))
    bus.write_i2c_block_data(0x18, 0x62, [7, 8])
    print("I2C block:", bus.read_i2c_block_data(0x18, 0x60, 5))
    print("process calls:", hex(bus.process_call(0x18, 0x50, 0x5544)), bus.read_i2c_block_data(0x18, 0x50, 3),
          bus.block_process_call(0x18, 0x5e, [9])[:3])
    received = i2c_msg.read(0x18, 3)
    bus.i2c_rdwr(i2c_msg.write(0x18, [0x60]), received)
    print("messages:", list(received))
    print("no answer:", fails(bus.read_byte, 0x19), fails(bus.write_quick, 0x77), fails(bus.read_byte, 0x80))
    print("count 0:", fails(bus.read_block_data, 0x18, 0))

    one, other = (os.open("/dev/i2c-4", os.O_RDWR) for _ in range(2))
    fcntl.ioctl(one, SLAVE, 0x18)
    fcntl.ioctl(other, SLAVE_FORCE, 0x3c)
    print("read and write:", os.write(one, b"\x60\x05\x06"), os.write(one, b"\x60"), os.read(one, 3),
          fails(os.read, other, 1), len(os.read(one, 9000)), os.write(other, bytes(9000)), fails(os.pread, one, 1, 5))
    folder = os.open("/sys/bus/i2c/devices", os.O_RDONLY)
    with open("/sys/bus/i2c/devices/3-0036/name") as name:
        print("lists:", [name.read(), name.seek(0), name.read(), fails(fcntl.ioctl, folder, SLAVE, 0x18)])
    fcntl.ioctl(one, PEC, 1)
    fcntl.ioctl(one, TENBIT, 1)
    print("no 10-bit addresses:", fcntl.ioctl(one, SLAVE, 0x3ff), fails(os.read, one, 1))

    fcntl.ioctl(slow.fd, TIMEOUT, 0)
    print("time-out:", [fails(slow.read_byte, 0x36) for _ in range(3)])
