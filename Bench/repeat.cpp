// Does one operation a number of times: counted under a tool that counts instructions, twice with different
// numbers, the difference is the operation. The transfers end in a stand-in that is the same for both sides.
//
//     zol_repeat OPERATION COUNT

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zol/zol.h"

namespace
{

constexpr kiv_i2c_handle unlogged_handle = {3, -1, 0x18};

void read_ours()
{
    kiv_i2c_handle handle = unlogged_handle;
    uint8_t value = 0;
    kiv_i2c_read_reg8(&handle, 0x0f, 1, &value);
}

void read_bare()
{
    uint8_t reg = 0x0f;
    uint8_t value = 0;
    i2c_msg messages[] = {{0x18, 0, 1, &reg}, {0x18, I2C_M_RD, 1, &value}};
    i2c_rdwr_ioctl_data request = {messages, 2};
    ioctl(3, I2C_RDWR, &request);
}

void write_ours()
{
    kiv_i2c_handle handle = unlogged_handle;
    const uint8_t value = 0x5a;
    kiv_i2c_write_reg8(&handle, 0x0f, 1, &value);
}

void write_bare()
{
    uint8_t bytes[] = {0x0f, 0x5a};
    i2c_msg message = {0x18, 0, 2, bytes};
    i2c_rdwr_ioctl_data request = {&message, 1};
    ioctl(3, I2C_RDWR, &request);
}

void nothing() {}

void disabled_log()
{
    KIV_LOG_INF1("%d\n", 1);
}

constexpr struct {
    const char *name;
    void (*run)();
} operations[] = {{"read_ours", read_ours},   {"read_bare", read_bare}, {"write_ours", write_ours},
                  {"write_bare", write_bare}, {"nothing", nothing},     {"disabled_log", disabled_log}};

} // namespace

extern "C" int ioctl(int, unsigned long, ...) noexcept
{
    return 1;
}

int main(int argc, char **argv)
{
    for (const auto &[name, run] : operations) {
        if (argc == 3 && std::strcmp(argv[1], name) == 0) {
            void (*volatile chosen)() = run;
            for (long left = std::strtol(argv[2], nullptr, 10); left > 0; --left) {
                chosen();
            }
            return 0;
        }
    }
    std::fputs("usage: zol_repeat OPERATION COUNT\n", stderr);
    return 2;
}
