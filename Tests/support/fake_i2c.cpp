#include "support/fake_i2c.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstdio>

namespace zol_test
{
namespace
{

fake_i2c *g_installed;

std::string hex(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02x", value);
    return text;
}

std::string describe(const i2c_msg &message)
{
    if ((message.flags & I2C_M_RD) != 0) {
        return " R" + std::to_string(message.len);
    }
    std::string text = " W[";
    for (unsigned i = 0; i < message.len; ++i) {
        text += (i > 0 ? " " : "") + hex(message.buf[i]);
    }
    return text + "]";
}

} // namespace

fake_i2c::fake_i2c()
{
    g_installed = this;
}

fake_i2c::~fake_i2c()
{
    g_installed = nullptr;
}

fake_i2c *fake_i2c::installed()
{
    return g_installed;
}

int fake_i2c::transfer(const i2c_rdwr_ioctl_data &request)
{
    if (fails_from >= 0 && static_cast<int>(transfers.size()) >= fails_from) {
        errno = ENXIO;
        return -1;
    }
    std::string text = hex(request.msgs[0].addr);
    for (unsigned i = 0; i < request.nmsgs; ++i) {
        const i2c_msg &message = request.msgs[i];
        text += describe(message);
        for (unsigned at = 0; (message.flags & I2C_M_RD) != 0 && at < message.len; ++at) {
            message.buf[at] = answer.empty() ? std::uint8_t{0} : answer[at % answer.size()];
        }
    }
    transfers.push_back(text);
    return static_cast<int>(request.nmsgs);
}

} // namespace zol_test
