/**
 * @file i2c_device.hpp
 * @brief Registers of I2C devices.
 */
#ifndef ZOL_I2C_DEVICE_HPP
#define ZOL_I2C_DEVICE_HPP

#include <cstdint>
#include <span>

#include "zol/kiv_i2c.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"

namespace zol
{

namespace detail
{

inline void close_device(kiv_i2c_handle &device) noexcept
{
    kiv_i2c_close(&device);
}

} // namespace detail

/**
 * A device on an I2C bus; see kiv_i2c.h. Used by one thread at a time.
 * @code
 *     auto eeprom = zol::i2c_device::open(1, 0x50);
 *     std::array<std::uint8_t, 5> start;
 *     if (eeprom && eeprom->read_reg16(0x0000, start) && eeprom->write_reg16(0x0123, start[4]))
 *         ...
 * @endcode
 */
class i2c_device : public detail::owned<kiv_i2c_handle, detail::close_device>
{
public:
    using owned::owned;

    /// Nothing is sent: whether the device answers shows with the first transfer.
    static result<i2c_device> open(std::int32_t bus, std::uint16_t address) noexcept
    {
        kiv_i2c_handle handle = {};
        return detail::made<i2c_device>(detail::call(kiv_i2c_open, &handle, bus, address), handle);
    }

    /// @name Reading
    /// With an 8- or a 16-bit register address: one byte, or as many as the span has, at most 65535.
    /// @{

    /// Fills @p out.
    result<> read_reg8(std::uint8_t reg, std::span<std::uint8_t> out) noexcept
    {
        return transfer(kiv_i2c_read_reg8, reg, out);
    }
    /// Fills @p out.
    result<> read_reg16(std::uint16_t reg, std::span<std::uint8_t> out) noexcept
    {
        return transfer(kiv_i2c_read_reg16, reg, out);
    }
    /// Reads one byte.
    result<std::uint8_t> read_reg8(std::uint8_t reg) noexcept
    {
        std::uint8_t value = 0;
        return detail::made<std::uint8_t>(detail::call(kiv_i2c_read_reg8, get(), reg, 1, &value), value);
    }
    /// Reads one byte.
    result<std::uint8_t> read_reg16(std::uint16_t reg) noexcept
    {
        std::uint8_t value = 0;
        return detail::made<std::uint8_t>(detail::call(kiv_i2c_read_reg16, get(), reg, 1, &value), value);
    }
    /// @}

    /// @name Writing
    /// One byte, or several to the same register, at most 65535.
    /// @{

    /// Writes them one after another.
    result<> write_reg8(std::uint8_t reg, std::span<const std::uint8_t> values) noexcept
    {
        return transfer(kiv_i2c_write_reg8, reg, values);
    }
    /// Writes them one after another.
    result<> write_reg16(std::uint16_t reg, std::span<const std::uint8_t> values) noexcept
    {
        return transfer(kiv_i2c_write_reg16, reg, values);
    }
    /// Writes one byte.
    result<> write_reg8(std::uint8_t reg, std::uint8_t value) noexcept
    {
        return detail::call(kiv_i2c_write_reg8, get(), reg, 1U, &value);
    }
    /// Writes one byte.
    result<> write_reg16(std::uint16_t reg, std::uint8_t value) noexcept
    {
        return detail::call(kiv_i2c_write_reg16, get(), reg, 1U, &value);
    }
    /// @}

private:
    /// A size that a count of the C interface cannot say must not become another.
    template <typename Reg, typename Count, typename Byte>
    result<> transfer(std::int32_t (*function)(kiv_i2c_handle *, Reg, Count, Byte *), Reg reg,
                      std::span<Byte> data) noexcept
    {
        return data.size() <= UINT16_MAX
                   ? detail::call(function, get(), reg, static_cast<Count>(data.size()), data.data())
                   : result<>(error::invalid_param);
    }
};

} // namespace zol

#endif
