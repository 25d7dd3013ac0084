/*
 * The smallest useful application in C++: reads a register of a sensor, or tells why it cannot.
 *
 *     kivboard run -- read_sensor            # on a PC, against the virtual board
 *     read_sensor /etc/kiv/conf.xml          # on a board
 */
#include <cstdio>
#include <zol/zol.hpp>

int main(int argc, char **argv)
{
    const auto library = zol::library::start(argc > 1 ? argv[1] : "Conf/kiv_test.xml");
    auto sensor = zol::i2c_device::open(4, 0x18);
    if (!library || !sensor)
        return 1;

    const auto id = sensor->read_reg8(0x0f);
    if (!id) {
        std::printf("the sensor does not answer: %s\n", id.error().message().c_str());
        return 1;
    }
    std::printf("the sensor says that it is a 0x%02x\n", *id);
    return 0;
}
