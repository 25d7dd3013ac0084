// What the consoles of the test modules have in common.
#pragma once

#include <cstddef>

namespace kiv
{

inline constexpr std::size_t console_line_size = 64;

/// Reads a line from standard input, without its end. Of a longer one than fits, the rest is dropped.
/// @return Whether there was one: false at the end of the input.
[[nodiscard]] bool read_line(char (&line)[console_line_size]);

} // namespace kiv
