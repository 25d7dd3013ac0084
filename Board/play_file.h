// Play files: the steps of a test of an application, with their times. A whole file is read before it is played.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "duration.h"

namespace kivboard
{

struct play_step {
    std::size_t line = 0;             // in the file, from 1
    std::string text;                 // of the line
    bool is_timed = false;            // or at once
    bool is_absolute = false;         // since the start, else since the step before
    duration time = duration::zero(); // the first time that it is played
    std::uint32_t times = 1;
    duration period = duration::zero();  // from one time to the next
    std::string request;                 // to the board
    bool is_wait = false;                // the times of the next steps count from its end
    std::vector<std::uint32_t> expected; // the numbers of the answer; empty: any answer
};

struct play_file {
    std::vector<play_step> steps;
    std::vector<std::string> problems; // each with the name of the file and the line; nothing may be played
};

/// @param name  The name of the file, for the problems.
play_file read_play_file(std::istream &file, const std::string &name);

} // namespace kivboard
