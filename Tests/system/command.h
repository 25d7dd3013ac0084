// Runs a program and keeps what it wrote.
#pragma once

#include <string>
#include <vector>

namespace zol_test
{

struct command_result {
    int status; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

/// Where $ZOL_EMULATOR is set, the program is run by it.
/// @param directory  Where it runs; "" for the directory of the test.
command_result run_command(const std::vector<std::string> &words, const std::string &directory = "");

} // namespace zol_test
