// An I2C bus as its device node sees it, and the bus with described devices.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "delayed_calls.h"
#include "description.h"
#include "i2c_device.h"

namespace kivboard
{

struct i2c_message {
    std::uint16_t address;
    bool is_read;
    std::vector<std::uint8_t> bytes; // to write, or room for the bytes read
    bool is_counted = false; // a read whose first byte is the number of further bytes, beside the room
};

/// The I2C_FUNC_* flags of a bus with described devices. Packet error checking and 10-bit addresses are missing.
extern const unsigned long board_functions;

class i2c_bus
{
public:
    i2c_bus() = default;
    virtual ~i2c_bus() = default;
    i2c_bus(const i2c_bus &) = delete;
    i2c_bus &operator=(const i2c_bus &) = delete;

    /// The I2C_FUNC_* flags.
    [[nodiscard]] virtual unsigned long functions() const = 0;

    /// @return 0, or EBUSY when a driver uses the address.
    virtual int claim(std::uint16_t) { return 0; }

    /// Both belong to the adapter, as in the kernel: they hold for everybody who uses the bus.
    virtual void set_retries(unsigned long retries) = 0;
    virtual void set_timeout(std::chrono::milliseconds timeout) = 0;

    /// Carries out the messages in order, up to the first that fails. @return 0 or an errno value.
    virtual int transfer(std::vector<i2c_message> &messages) = 0;

    /// The time at which the last transfer ends. Its caller waits until then.
    [[nodiscard]] virtual board_clock::time_point busy_until() const { return {}; }

    /// True when the bus is one of the machine, whose registers are not the board's.
    [[nodiscard]] virtual bool is_real() const { return false; }

    /// Text about the last transfer, for the end of its line in the journal.
    [[nodiscard]] virtual std::string remark() const { return ""; }

    /// @return Null when no device of the board has this address.
    virtual i2c_device *find(std::uint32_t) { return nullptr; }
};

class described_bus : public i2c_bus
{
public:
    explicit described_bus(const bus_description &description);

    [[nodiscard]] unsigned long functions() const override { return board_functions; }
    void set_retries(unsigned long retries) override { retries_ = retries; }
    void set_timeout(std::chrono::milliseconds timeout) override { timeout_ = timeout; }

    /// The error is ENXIO when a message is not acknowledged, ETIMEDOUT when a device holds the clock for too long,
    /// and EPROTO when the count of a counted read is not 1 to 32.
    int transfer(std::vector<i2c_message> &messages) override;

    [[nodiscard]] board_clock::time_point busy_until() const override { return busy_until_; }
    i2c_device *find(std::uint32_t address) override;

private:
    int carry_out(std::vector<i2c_message> &messages);
    int select(i2c_device &device);

    std::map<std::uint32_t, i2c_device> devices_;
    unsigned long retries_ = 0;
    std::chrono::milliseconds timeout_{1000}; // the kernel's default
    board_clock::time_point busy_until_;
};

/// A transfer as a line of the journal: "i2c-4 0x18 W[0f] R[33] ok".
std::string describe(unsigned bus, const std::vector<i2c_message> &messages, int result);

} // namespace kivboard
