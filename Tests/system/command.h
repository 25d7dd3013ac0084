// Runs a program and keeps what it wrote, or talks to it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"

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

/// A program at the other end of its standard input and output.
class conversation
{
public:
    explicit conversation(const std::vector<std::string> &words);
    ~conversation();
    conversation(const conversation &) = delete;
    conversation &operator=(const conversation &) = delete;

    void say(const std::string &text) const;

    /// What it writes before this text, which is taken too. Ends early, and with a failure of the test, when
    /// the text does not come within half a minute.
    std::string hear_until(const std::string &text);

    /// Ends its input and waits for its end. @return Its status, and what was not heard yet.
    command_result finish();

private:
    pid_t child_;
    kiv::unique_fd to_;
    kiv::unique_fd from_;
    std::string heard_;
};

} // namespace zol_test
