// Single register reads and writes, with the parameters of the command line.

#include <cstdint>
#include <cstdio>

#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_i2c.h"
#include "zol/kiv_test.h"

namespace
{

// The reason behind a failed assertion; the I2C module has logged the details.
void log_failure(const char *what, kiv::call_site site)
{
    KIV_LOG_AT(site, ERRR, "can't %s bus 0x%x device 0x%x reg 0x%x\n", what, g_params.i2c_bus,
               g_params.i2c_addr, g_params.i2c_reg);
}

bool open_device(kiv_i2c_handle &device, kiv::call_site site)
{
    const int32_t status = kiv_i2c_open(&device, static_cast<int32_t>(g_params.i2c_bus), g_params.i2c_addr);
    const bool opened = KIV_HOLDS_AT(site, status >= 0);
    if (!opened) {
        log_failure("open", site);
    }
    return opened;
}

// 8-bit devices use the low half of the register number, as the command line gives 16 bits to both kinds.
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
    bool passed = open_device(device, kiv::call_site::here());
    if (passed) {
        uint8_t value = 0;
        passed = read_byte(device, is16 != 0, value);
        KIV_ASSERT(passed); // before the value, which is 0 then, and once more behind it
        std::printf("Read i2c (bus 0x%x device 0x%x reg 0x%x) ==> 0x%x\n", g_params.i2c_bus,
                    g_params.i2c_addr, g_params.i2c_reg, value);
        if (!KIV_HOLDS(passed)) {
            log_failure("read", kiv::call_site::here());
        }
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
    bool passed = open_device(device, kiv::call_site::here());
    if (passed) {
        passed = write_byte(device, is16 != 0);
        if (!KIV_HOLDS(passed)) {
            log_failure("write", kiv::call_site::here());
        }
        std::printf("Write i2c (bus 0x%x device 0x%x reg 0x%x) <== val 0x%x\n", g_params.i2c_bus,
                    g_params.i2c_addr, g_params.i2c_reg, g_params.i2c_val);
    }
    kiv_i2c_close(&device);
    KIV_LOG_PRNT("kiv_i2c_write test - end\n");
    return passed ? 1 : 0;
}
