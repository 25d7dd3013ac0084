#include "i2c_bus.h"

#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>

#include "hex.h"

namespace kivboard
{
namespace
{

int read_bytes(i2c_device &device, i2c_message &message)
{
    if (!device.start_read()) {
        return ENXIO;
    }
    std::vector<std::uint8_t> &bytes = message.bytes;
    std::size_t done = 0;
    if (message.is_counted) {
        bytes[done++] = device.read_byte();
        if (bytes[0] == 0 || bytes[0] > I2C_SMBUS_BLOCK_MAX) {
            return EPROTO;
        }
        bytes.resize(bytes.size() + bytes[0]);
    }
    std::generate(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end(),
                  [&device] { return device.read_byte(); });
    return 0;
}

} // namespace

const unsigned long board_functions = I2C_FUNC_I2C | (I2C_FUNC_SMBUS_EMUL_ALL & ~I2C_FUNC_SMBUS_PEC);

described_bus::described_bus(const bus_description &description)
{
    for (const device_description &device : description.devices) {
        devices_.emplace(device.address, i2c_device(device));
    }
}

i2c_device *described_bus::find(std::uint32_t address)
{
    const auto found = devices_.find(address);
    return found != devices_.end() ? &found->second : nullptr;
}

int described_bus::transfer(std::vector<i2c_message> &messages)
{
    busy_until_ = std::max(busy_until_, board_clock::now());
    return carry_out(messages);
}

int described_bus::carry_out(std::vector<i2c_message> &messages)
{
    const i2c_device *selected = nullptr;
    for (i2c_message &message : messages) {
        i2c_device *const device = find(message.address);
        int error = device == nullptr ? ENXIO : 0;
        if (error == 0 && device != selected) {
            error = select(*device);
            selected = device;
        }
        if (error == 0 && message.is_read) {
            error = read_bytes(*device, message);
        } else if (error == 0) {
            error = device->write(message.bytes) ? 0 : ENXIO;
        }
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int described_bus::select(i2c_device &device)
{
    for (unsigned long tries = 0; !device.select(); ++tries) {
        if (tries == retries_ || !device.may_answer_later()) {
            return ENXIO;
        }
    }
    busy_until_ += std::min<std::chrono::microseconds>(device.delay(), timeout_);
    return device.delay() > timeout_ ? ETIMEDOUT : 0;
}

namespace
{

std::string outcome(int result)
{
    return result == 0 ? "ok" : result == ENXIO ? "no answer" : "errno " + std::to_string(result);
}

} // namespace

std::string describe(unsigned bus, const std::vector<i2c_message> &messages, int result)
{
    std::string line = "i2c-" + std::to_string(bus) + " " + hex_number(messages.front().address);
    for (const i2c_message &message : messages) {
        const bool is_unknown = message.is_read && result != 0;
        line += message.is_read ? " R[" : " W[";
        line += is_unknown ? std::to_string(message.bytes.size()) + " bytes" : hex_bytes(message.bytes);
        line += "]";
    }
    return line + " " + outcome(result);
}

} // namespace kivboard
