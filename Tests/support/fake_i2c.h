// I2C transfers without a bus: what the library hands to the kernel is recorded and answered here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct i2c_rdwr_ioctl_data;

namespace zol_test
{

/// Takes every I2C_RDWR request of the process while it exists. The library's calls reach it through
/// --wrap=ioctl.
class fake_i2c
{
public:
    fake_i2c();
    ~fake_i2c();
    fake_i2c(const fake_i2c &) = delete;
    fake_i2c &operator=(const fake_i2c &) = delete;

    std::vector<std::string> transfers; // "50 W[10 0a]", "50 W[0f] R3"
    std::vector<std::uint8_t> answer;   // what reads get, repeated as needed; zeros when empty
    int fails_from = -1;                // the transfer, counted from 0, from which on all fail

    int transfer(const i2c_rdwr_ioctl_data &request);
    static fake_i2c *installed();
};

} // namespace zol_test
