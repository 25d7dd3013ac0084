// SMBus requests as plain messages, in the way of the kernel's emulation.
#pragma once

#include <linux/i2c.h>

#include <cstdint>
#include <vector>

#include "i2c_bus.h"

namespace kivboard
{

/// A part of an SMBus message.
enum class smbus_part {
    absent,  // there is no such message
    nothing, // the address alone
    command, // the command byte, which the parts below follow in a write
    byte,
    word,    // the low byte first
    counted, // the number of bytes, and the bytes
    block,   // the bytes only
    whole,   // 32 bytes
};

/// The messages of a request: a row of the table.
struct smbus_form {
    std::uint32_t size; // I2C_SMBUS_*
    std::uint8_t first_direction;
    std::uint8_t last_direction;
    smbus_part written;
    smbus_part read;

    /// The number of bytes that the request's data has; 0 when it has no data.
    [[nodiscard]] std::size_t data_size() const;
    [[nodiscard]] bool takes_data() const;   // from the caller
    [[nodiscard]] bool returns_data() const; // to the caller
};

/// @return Null when there is no such request.
const smbus_form *find_smbus_form(std::uint32_t size, std::uint8_t direction);

/// @return 0, or EINVAL when the count of a block is above 32.
int make_messages(const smbus_form &form, std::uint16_t address, std::uint8_t command,
                  const i2c_smbus_data &data, std::vector<i2c_message> &messages);

/// Puts the bytes that were read into the data.
void take_answer(const smbus_form &form, const std::vector<i2c_message> &messages, i2c_smbus_data &data);

} // namespace kivboard
