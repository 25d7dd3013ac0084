// Numbers as people write them in configuration files and on command lines: hexadecimal with "0x", else
// decimal, else bare hexadecimal. A value above 32 bits is no number; hexadecimal may use all 32 bits.
#pragma once

#include <cstdint>

namespace kiv
{

/// @return True when the text is a number; only then is the value set.
[[nodiscard]] bool parse_number(const char *text, std::int32_t &value) noexcept;

/// The same for command lines, where text that ends before a number could begin ("", "0x") counts as 0.
[[nodiscard]] bool parse_argument_number(const char *text, std::int32_t &value) noexcept;

} // namespace kiv
