// Reads the description of a board from an XML file, strictly: a mistake in it is one clear error, not a guess.
#pragma once

#include <optional>
#include <string>

#include "description.h"

namespace kivboard
{

/// @param[out] error  "file:line: what is wrong" when there is no board.
std::optional<board_description> read_description(const std::string &path, std::string &error);

} // namespace kivboard
