// Devices and registers on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "command.h"

namespace zol_tool
{

constexpr std::uint32_t most_bytes = 8192; ///< of one message, by the kernel

/// "0x0f", with as many digits as asked for.
std::string hex(unsigned value, int digits = 2);

/// "0x12 0x34"
std::string hex_bytes(const std::vector<std::uint8_t> &bytes);

/// Numbers and ranges: "0x0f,0x20-0x27".
/// @return Nothing unless all of the text is that.
std::optional<std::vector<std::uint16_t>> parse_ranges(std::string_view text, std::uint16_t most);

/// The bus of --bus. @return Nothing after a complaint.
std::optional<int> parse_bus(context &with);
/// The device of --device. @return Nothing after a complaint.
std::optional<std::uint16_t> parse_device(context &with);
/// The registers of --register, or the default. @return Nothing after a complaint.
std::optional<std::vector<std::uint16_t>> parse_registers(context &with, const std::string &otherwise);
/// The bytes of some words. @return Nothing after a complaint.
std::optional<std::vector<std::uint8_t>> parse_bytes(context &with, std::span<const std::string> from);

/// A device and the width of its register addresses.
struct device_address {
    int bus;
    std::uint16_t device;
    bool is_wide;
};

/// @return Nothing after a complaint.
std::optional<device_address> parse_address(context &with);

/// "bus 4 device 0x19: no answer (No such device or address)"; the place within the device stands behind the device.
std::string describe_failure(const device_address &at, const std::error_code &cause,
                             const std::string &place = "");

/// A device whose registers have one width of address.
class registers
{
public:
    /// @return Nothing after a complaint.
    static std::optional<registers> open(context &with, const device_address &at);

    zol::result<> read(std::uint16_t reg, std::span<std::uint8_t> out);
    zol::result<> write(std::uint16_t reg, std::span<const std::uint8_t> values);
    /// "0x0f", or "0x000f"
    [[nodiscard]] std::string name(std::uint16_t reg) const { return hex(reg, at_.is_wide ? 4 : 2); }
    /// "bus 4 device 0x19 register 0x0f: no answer (No such device or address)"
    [[nodiscard]] std::string describe_failure(std::uint16_t reg, const zol::result<> &failed) const;

private:
    registers(zol::i2c_device device, const device_address &at) : device_(std::move(device)), at_(at) {}

    zol::i2c_device device_;
    device_address at_;
};

/// The values that were read from a register on; none if it could not be read.
struct register_values {
    std::uint16_t reg;
    std::vector<std::uint8_t> values;
};

json as_json(const device_address &at, const std::vector<register_values> &read);

} // namespace zol_tool
