// Numbers in requests and descriptions: decimal, or hexadecimal with 0x.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kivboard
{

/// @return Nothing unless the whole text is one number that fits 32 bits.
inline std::optional<std::uint32_t> parse_number(std::string_view text, int base)
{
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

inline std::optional<std::uint32_t> parse_number(std::string_view text)
{
    return text.substr(0, 2) == "0x" ? parse_number(text.substr(2), 16) : parse_number(text, 10);
}

} // namespace kivboard
