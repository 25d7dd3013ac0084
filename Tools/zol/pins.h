// Pins on the command line.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "command.h"

namespace zol_tool
{

/// @return Nothing after a complaint about a word that is no pin, or about a pin that is named twice.
std::optional<std::vector<int>> parse_pins(context &with, const words &names);

/// Starts the library, allocates the pins, all or none, and works with them.
/// @return The exit status.
int with_pins(context &with, const std::vector<int> &numbers,
              const std::function<int(std::vector<zol::pin> &pins)> &work);

} // namespace zol_tool
