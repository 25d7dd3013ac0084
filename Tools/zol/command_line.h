// The words of the command line: options, the choice of a command, help.
#pragma once

#include <span>

#include "command.h"

namespace zol_tool
{

/// Runs the command that the words name.
/// @return The exit status.
int run_command_line(std::span<const command> commands, const words &arguments, output &out);

} // namespace zol_tool
