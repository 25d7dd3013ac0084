// Hexadecimal texts of the journal and of answers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kivboard
{

/// "0x2a"
inline std::string hex_number(std::uint32_t value, int digits = 2)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

/// "2a 00 01", and " ..." after as many values as a line has room for.
template <typename number>
std::string hex_values(const std::vector<number> &values, int digits)
{
    constexpr std::size_t most = 32;
    std::string text;
    for (std::size_t i = 0; i < std::min(values.size(), most); ++i) {
        text += (i > 0 ? " " : "") + hex_number(values[i], digits).substr(2);
    }
    return values.size() > most ? text + " ..." : text;
}

inline std::string hex_bytes(const std::vector<std::uint8_t> &bytes)
{
    return hex_values(bytes, 2);
}

} // namespace kivboard
