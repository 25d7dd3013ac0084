// The devices on an I2C bus: registers, and how they answer on the wire.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "board_file.h"

namespace kivboard
{

/// A device with registers. A write sets the register pointer and stores what follows; a read goes on from
/// the pointer. Both advance it, and it wraps behind the last register.
class i2c_device
{
public:
    explicit i2c_device(const device_description &description);

    /// The wire. @return Whether the device acknowledged.
    bool write(const std::vector<std::uint8_t> &bytes);
    bool read(std::vector<std::uint8_t> &bytes);
    /// Called once per transfer, before its messages. @return Whether the device answers at all.
    bool select();

    /// The bench: sets and shows registers past all refusals.
    [[nodiscard]] std::size_t size() const { return registers_.size(); }
    [[nodiscard]] std::uint8_t peek(std::size_t at) const { return registers_[at]; }
    void poke(std::size_t at, std::uint8_t value) { registers_[at] = value; }

private:
    std::size_t next();

    std::vector<std::uint8_t> registers_;
    std::size_t pointer_ = 0;
    std::size_t address_bytes_;
    refusal refuses_;
    std::optional<std::uint32_t> answers_left_;
};

struct i2c_message {
    std::uint16_t address;
    bool is_read;
    std::vector<std::uint8_t> bytes; // sent, or room for what is read
};

class i2c_bus
{
public:
    explicit i2c_bus(const bus_description &description);

    /// One transfer: all messages in order, up to the first that is not acknowledged. @return 0 or an errno
    /// value.
    int transfer(std::vector<i2c_message> &messages);

    /// Null when nothing has this address.
    i2c_device *find(std::uint16_t address);

private:
    std::map<std::uint16_t, i2c_device> devices_;
};

/// A transfer as a line of the journal: "i2c-4 0x18 W[0f] R[33] ok".
std::string describe(unsigned bus, const std::vector<i2c_message> &messages, int result);

} // namespace kivboard
