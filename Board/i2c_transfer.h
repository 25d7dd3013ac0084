// The argument of I2C_RDWR and of I2C_SMBUS in the caller's memory.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "board_fs.h"
#include "i2c_bus.h"

namespace kivboard
{

/// Carries out messages. @return 0 or an errno value.
using transfer_call = std::function<int(std::vector<i2c_message> &messages)>;

/// Fetches the messages, carries them out and returns the bytes that were read.
/// @return 0 or an errno value. @param[out] count  The number of messages.
int transfer_messages(const ioctl_request &request, const transfer_call &transfer, std::size_t &count);

/// The same for an SMBus request to a device.
int transfer_smbus(const ioctl_request &request, std::uint16_t address, const transfer_call &transfer);

} // namespace kivboard
