// Decimal digits without divisions: a build for a small processor, optimised for size, would call a function for each.
#pragma once

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

} // namespace kiv
