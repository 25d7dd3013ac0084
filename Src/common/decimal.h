// Decimal digits without divisions: a build for a small processor, optimised for size, would call a function for each.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kiv
{

constexpr std::uint32_t tenth_of(std::uint32_t value) noexcept
{
    return static_cast<std::uint32_t>(value * std::uint64_t{0xcccccccd} >> 35); // exact for all 32 bits
}

/// Writes the digits of a value in front of an end. @return The first digit.
inline char *write_decimal(char *end, std::uint32_t value) noexcept
{
    do {
        const std::uint32_t tenth = tenth_of(value);
        *--end = static_cast<char>('0' + (value - 10 * tenth));
        value = tenth;
    } while (value != 0);
    return end;
}

/// Writes a value from a place on, which has room for ten digits. @return The end of the digits.
inline char *append_decimal(char *at, std::uint32_t value) noexcept
{
    char digits[10];
    char *const end = digits + sizeof digits;
    return std::copy(write_decimal(end, value), end, at);
}

} // namespace kiv
