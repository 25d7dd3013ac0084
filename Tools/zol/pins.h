// Pins on the command line.
#pragma once

#include <optional>
#include <vector>

#include "command.h"

namespace zol_tool
{

/// @return Nothing after a complaint about a word that is no pin, or about a pin that is named twice.
std::optional<std::vector<int>> parse_pins(context &with, const words &names);

/// Allocates all of the pins.
/// @return Nothing after a complaint if one of them cannot be had.
std::optional<std::vector<zol::pin>> request(context &with, const std::vector<int> &numbers);

} // namespace zol_tool
