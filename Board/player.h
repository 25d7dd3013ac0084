// Plays a play file on a running board, as a client of its control socket.
#pragma once

#include <string>

namespace kivboard
{

/// Prints the faults, each with its line, and a verdict.
/// @param file    "-" for the standard input.
/// @param socket  Of the board.
/// @return The exit status.
int play(const std::string &file, const std::string &socket);

} // namespace kivboard
