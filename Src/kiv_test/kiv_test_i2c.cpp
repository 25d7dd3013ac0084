// Single register reads and writes, with the parameters of the command line.

#include <cstdint>
#include <cstdio>

#include "zol/kiv_debug.h"
#include "zol/kiv_i2c.h"
#include "zol/kiv_test.h"

namespace
{

bool open_device(kiv_i2c_handle &device)
{
    const bool opened = kiv_i2c_open(&device, static_cast<int32_t>(g_params.i2c_bus), g_params.i2c_addr) >= 0;
    KIV_ASSERT(opened);
    return opened;
}

bool read_byte(kiv_i2c_handle &device, bool is16, uint8_t &value)
{
    const int32_t status =
        is16 ? kiv_i2c_read_reg16(&device, g_params.i2c_reg, 1, &value)
             : kiv_i2c_read_reg8(&device, static_cast<uint8_t>(g_params.i2c_reg), 1, &value);
    return status >= 0;
}

bool write_byte(kiv_i2c_handle &device, bool is16)
{
    const int32_t status =
        is16 ? kiv_i2c_write_reg16(&device, g_params.i2c_reg, 1, &g_params.i2c_val)
             : kiv_i2c_write_reg8(&device, static_cast<uint8_t>(g_params.i2c_reg), 1, &g_params.i2c_val);
    return status >= 0;
}

} // namespace

int _test_kiv_i2c_read(int is16)
{
    KIV_LOG_PRNT("kiv_i2c_read test - start\n");
    KIV_LOG_PRNT("Read bus 0x%x device 0x%x reg 0x%x\n", g_params.i2c_bus, g_params.i2c_addr,
                 g_params.i2c_reg);
    kiv_i2c_handle device = {};
    bool passed = open_device(device);
    if (passed) {
        uint8_t value = 0;
        passed = read_byte(device, is16 != 0, value);
        KIV_ASSERT(passed);
        std::printf("Read i2c (bus 0x%x device 0x%x reg 0x%x) ==> 0x%x\n", g_params.i2c_bus,
                    g_params.i2c_addr, g_params.i2c_reg, value);
        KIV_ASSERT(passed);
    }
    kiv_i2c_close(&device);
    KIV_LOG_PRNT("kiv_i2c_read test - end\n");
    return passed ? 1 : 0;
}

int _test_kiv_i2c_write(int is16)
{
    KIV_LOG_PRNT("kiv_i2c_write test - start\n");
    KIV_LOG_PRNT("Write bus 0x%x device 0x%x reg 0x%x val 0x%x\n", g_params.i2c_bus, g_params.i2c_addr,
                 g_params.i2c_reg, g_params.i2c_val);
    kiv_i2c_handle device = {};
    bool passed = open_device(device);
    if (passed) {
        passed = write_byte(device, is16 != 0);
        KIV_ASSERT(passed);
        std::printf("Write i2c (bus 0x%x device 0x%x reg 0x%x) <== val 0x%x\n", g_params.i2c_bus,
                    g_params.i2c_addr, g_params.i2c_reg, g_params.i2c_val);
    }
    kiv_i2c_close(&device);
    KIV_LOG_PRNT("kiv_i2c_write test - end\n");
    return passed ? 1 : 0;
}
