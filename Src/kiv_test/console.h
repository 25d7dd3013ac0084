// Reading lines, for the consoles of the test modules.
#pragma once

#include <cstddef>

namespace kiv
{

inline constexpr std::size_t console_line_size = 64;

/// Reads a line from standard input, without its end. A line that is too long is cut.
/// @return False at the end of the input.
[[nodiscard]] bool read_line(char (&line)[console_line_size]);

} // namespace kiv
