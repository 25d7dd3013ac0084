// Runs a command on a board: starts the board, makes the file system that the command sees, and serves it.
#pragma once

#include <string>
#include <vector>

#include "sandbox.h"

namespace kivboard
{

inline constexpr int exit_failure = 1;
inline constexpr int exit_usage = 2;
inline constexpr int exit_cannot_run = 77; // test runners take this status for "skipped"
inline constexpr int exit_no_command = 127;

/// Prints one line on the standard error. @return The status, for the caller to end with.
int complain(int status, const std::string &what);

struct run_options {
    std::string board_file;
    std::string socket; // "" for the default
    bind_graft conf;    // without a source: none
    std::vector<bind_graft> binds;
    std::vector<std::string> command;
};

/// @return The exit status: the command's when it was started.
int run(const run_options &options);

/// Tries whether a board can run on this machine, and complains when it can't. @return The exit status.
int check();

} // namespace kivboard
