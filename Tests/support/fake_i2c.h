// I2C transfers without a bus: they are recorded and answered instead of being handed to the kernel.
#pragma once

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace zol_test
{

/// Takes every I2C_RDWR request of the process while it exists. The library's calls reach it through
/// --wrap=ioctl.
class fake_i2c
{
public:
    fake_i2c() { installed_ = this; }
    ~fake_i2c() { installed_ = nullptr; }
    fake_i2c(const fake_i2c &) = delete;
    fake_i2c &operator=(const fake_i2c &) = delete;

    std::vector<std::string> transfers; // "50 W[10 0a]", "50 W[0f] R3"
    std::vector<std::uint8_t> answer;   // the bytes that reads get, repeated as needed; zeros when empty
    int fails_from = -1;                // the first transfer that fails, counted from 0
    bool counts = true;                 // false: tells 0 messages, as the drivers of some adapters do

    static fake_i2c *installed() { return installed_; }

    int transfer(const i2c_rdwr_ioctl_data &request)
    {
        if (fails_from >= 0 && static_cast<int>(transfers.size()) >= fails_from) {
            errno = ENXIO;
            return -1;
        }
        std::string text = hex(request.msgs[0].addr);
        for (const i2c_msg *message = request.msgs; message != request.msgs + request.nmsgs; ++message) {
            text += (message->flags & I2C_M_RD) != 0 ? read(*message) : write(*message);
        }
        transfers.push_back(text);
        return counts ? static_cast<int>(request.nmsgs) : 0;
    }

private:
    static std::string hex(unsigned value)
    {
        char text[8];
        std::snprintf(text, sizeof text, "%02x", value);
        return text;
    }

    [[nodiscard]] std::string read(const i2c_msg &message) const
    {
        for (unsigned i = 0; i < message.len; ++i) {
            message.buf[i] = answer.empty() ? std::uint8_t{0} : answer[i % answer.size()];
        }
        return " R" + std::to_string(message.len);
    }

    static std::string write(const i2c_msg &message)
    {
        std::string text = " W[";
        for (unsigned i = 0; i < message.len; ++i) {
            text += (i > 0 ? " " : "") + hex(message.buf[i]);
        }
        return text + "]";
    }

    inline static fake_i2c *installed_;
};

} // namespace zol_test
