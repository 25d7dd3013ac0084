// Programs on a virtual board of their own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "system/command.h"

namespace zol_test
{

class OnBoardTest : public testing::Test
{
protected:
    explicit OnBoardTest(const std::string &board_xml) : board_file_(scratch_.write("board.xml", board_xml))
    {
    }

    void SetUp() override
    {
        if (std::getenv("ZOL_EMULATOR") != nullptr) {
            GTEST_SKIP() << "an emulator of one program does not take on those that the board starts";
        }
        if (const command_result check = run_command({KIVBOARD, "check"}); check.status != 0) {
            GTEST_SKIP() << check.err;
        }
    }

    /// A line of shell as a command on the board; $kivtest and $kivboard are the programs.
    [[nodiscard]] std::vector<std::string> command_on_board(const std::string &line) const
    {
        const std::string programs = "kivtest='" KIVTEST_EXE "'; kivboard='" KIVBOARD "'; ";
        return {KIVBOARD, "run", "--board", board_file_, "--socket",
                socket_,  "--",  "/bin/sh", "-c",        programs + line};
    }

    [[nodiscard]] command_result on_board(const std::string &line) const
    {
        return run_command(command_on_board(line));
    }

    /// What the bench does to a board that runs, from outside. @return What it prints.
    [[nodiscard]] std::string bench(const std::string &command, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {KIVBOARD, command, "--socket", socket_});
        const command_result result = run_command(arguments);
        return result.out + result.err;
    }

    static bool says(const command_result &result, const std::string &text)
    {
        return result.out.find(text) != std::string::npos;
    }

    scratch_directory scratch_;

private:
    std::string board_file_;
    std::string socket_ = scratch_.path() / "socket";
};

} // namespace zol_test
